# Completion of vexa-usb for fish; the words come from the command itself.
function __vexa_usb_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    set -l lines ($words[1] __complete $words[2..-1] "$current" 2>/dev/null)
    if contains -- :files $lines
        __fish_complete_path "$current"
    else if set -q lines[1]
        printf '%s\n' $lines
    end
end
complete -c vexa-usb -f -a '(__vexa_usb_complete)'

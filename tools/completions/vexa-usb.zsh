#compdef vexa-usb
# Completion of vexa-usb for zsh; the words come from the command itself.
local line
local -a candidates
for line in "${(@f)$("${words[1]}" __complete "${(@)words[2,CURRENT]}" 2>/dev/null)}"; do
    if [[ $line == :files ]]; then
        _files
        return
    fi
    [[ -z $line ]] || candidates+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}")
done
_describe vexa-usb candidates

# shellcheck shell=bash
# Completion of vexa-usb for bash; the words come from the command itself.
_vexa_usb() {
    local cur prev words cword line
    _init_completion -n : || return
    while IFS= read -r line; do
        if [[ $line == :files ]]; then
            _filedir
            return
        fi
        line=${line%%$'\t'*}
        [[ $line != "$cur"* ]] || COMPREPLY+=("$(printf %q "$line")")
    done < <("${words[0]}" __complete "${words[@]:1:cword}" 2>/dev/null)
    __ltrim_colon_completions "$cur"
}
complete -F _vexa_usb vexa-usb

# Completion of ruxctl for bash. The program itself says what may come next.
_ruxctl() {
    local current=${COMP_WORDS[COMP_CWORD]} word
    COMPREPLY=()
    while IFS=$'\t' read -r word _; do
        if [ "$word" = FILES ]; then
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
            compopt -o filenames 2>/dev/null
        elif [[ $word == "$current"* ]]; then
            COMPREPLY+=("$word")
        fi
    done < <("${COMP_WORDS[0]}" candidates -- "${COMP_WORDS[@]:1:COMP_CWORD-1}" 2>/dev/null)
}
complete -F _ruxctl ruxctl

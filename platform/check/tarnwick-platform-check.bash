# Completion of tarnwick-platform-check for bash: options, trials and files. What there is, the program itself says.

_tarnwick-platform-check()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} words=
    if [[ $current == -* ]]; then
        words=$(tarnwick-platform-check --help 2>/dev/null | grep -o -- '--[a-z][a-z-]*' | sort -u)
    elif [[ $previous == --trial ]]; then
        words=$(tarnwick-platform-check --trial "?" 2>&1 | sed 's/.*": //; s/,//g')
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o filenames -F _tarnwick-platform-check tarnwick-platform-check

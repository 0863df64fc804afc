# Completion of fwmod for bash: commands, options and files. What there is, fwmod itself says.

_fwmod()
{
    local current=${COMP_WORDS[COMP_CWORD]} words=
    if ((COMP_CWORD == 1)); then
        words="--help --version $(fwmod --help 2>/dev/null | sed -n '/^Subcommands:/,/^[^ ]/s/^  \([a-z]*\) .*/\1/p')"
    elif [[ $current == -* ]]; then
        words=$(fwmod "${COMP_WORDS[1]}" --help 2>/dev/null | grep -o -- '--[a-z][a-z-]*' | sort -u)
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o filenames -F _fwmod fwmod

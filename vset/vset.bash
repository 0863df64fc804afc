# Completion of vset for bash: commands, what stands below them, options, their words, and files. What there is, vset
# itself says.

# _vset_section NAME: the first words of a section of the help on standard input.
_vset_section()
{
    sed -n "/^$1:/,/^\$/s/^  \([^ ]*\) .*/\1/p"
}

# _vset_choices WORD: what the help on standard input says in braces of an option or a positional.
_vset_choices()
{
    sed -n "s/^  \([^ ]*,\)\?$1[ :].*{\(.*\)}.*/\2/p" | tr -d ','
}

_vset()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]-} below='' word help words=
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        words="--help --version $(vset --help 2>/dev/null | _vset_section Subcommands)"
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        return
    fi
    # Nothing of the line itself is run: only commands that vset has are asked for their help.
    [[ $command =~ ^[a-z]+$ ]] && help=$(vset "$command" --help 2>/dev/null) || return
    for word in "${COMP_WORDS[@]:2:COMP_CWORD-2}"; do
        if [[ $word == -- ]]; then
            mapfile -t COMPREPLY < <(compgen -c -- "$current")
            return
        fi
        if [[ -z $below && $word != -* ]] && _vset_section Subcommands <<<"$help" | grep -qx -e "$word"; then
            below=$word
        fi
    done
    [[ -z $below ]] || help=$(vset "$command" SET "$below" --help 2>/dev/null)

    if [[ $current == -* ]]; then
        words=$(_vset_section Options <<<"$help" | tr ',' '\n')
    elif [[ $previous == -* ]] && word=$(_vset_choices "$previous" <<<"$help") && [[ -n $word ]]; then
        words=$word
    elif [[ -z $below ]] && ((COMP_CWORD > 2)); then
        words="$(_vset_section Subcommands <<<"$help") $(_vset_choices '[A-Z]*' <<<"$help")"
    fi
    if [[ -n ${words// /} ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -o filenames -F _vset vset

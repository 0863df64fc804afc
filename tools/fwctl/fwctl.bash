# Completion of fwctl for bash: commands, options, module names and directories.

# Names of the control libraries, without starting them.
_fwctl_modules()
{
    local library
    for library in /prd/usr/fwupdate/controls/*.so /usr/fwupdate/controls/*.so; do
        [[ -e $library ]] || continue
        library=${library##*/}
        printf '%s\n' "${library%.so}"
    done
}

_fwctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]-} words=
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        words="list why check update usb watch doctor --help --version"
    elif [[ $previous == --source ]]; then
        words="package system usb sandbox"
    elif [[ $previous == --key-file ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    else
        case $command in
        list | watch) words="--json --help" ;;
        why) words="$(_fwctl_modules) --json --help" ;;
        check) words="--json --verbose --help" ;;
        update) words="$(_fwctl_modules) --all --source --json --verbose --help" ;;
        doctor) words="--fix --json --help" ;;
        usb)
            if ((COMP_CWORD == 2)); then
                words="check install --help"
            elif [[ $current != -* ]]; then
                mapfile -t COMPREPLY < <(compgen -d -- "$current")
                return
            else
                words="--key-file --json --verbose --help"
            fi
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _fwctl fwctl

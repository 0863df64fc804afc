# shellcheck shell=bash
# For the scripts of this directory, which source it before they go anywhere else: their help, which is the comment at their
# head, what they say when they fail, and which words they take.
script=$(realpath "$0")

# say TEXT: to standard error, with the script's name.
say() { echo "${script##*/}: $1" >&2; }

fail() {
    say "$1"
    exit 1
}
usage() {
    say "$1; see scripts/${script##*/} --help"
    exit 2
}
help() {
    sed -n -e '1d' -e '/^#/!q' -e 's/^# \{0,1\}//p' "$script" || exit 1
    exit 0
}

# unexpected WORD: refuses it. In what is shown, nothing can act on a terminal.
unexpected() {
    local word=$1
    [[ ${#word} -le 80 ]] || word=${word:0:77}...
    case $word in
    --help | -h) help ;;
    -*) usage "${word@Q} is not an option" ;;
    *) usage "${word@Q} was not expected" ;;
    esac
}

# temporary file|directory: makes one, and prints its name.
temporary() {
    local kind=()
    [[ $1 == file ]] || kind=(-d)
    mktemp "${kind[@]}" 2>/dev/null ||
        fail "nothing can be written in ${TMPDIR:-/tmp}: make room there, or set TMPDIR to another directory"
}

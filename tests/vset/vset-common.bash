# Common part of the launcher's tests. Arguments: the directory where vset and its services lie.
set -u
[ -x "$1/vset" ] || {
    echo "$1/vset is not there: build the target vset" >&2
    exit 1
}
tools=$1
vset=$tools/vset
work=$(mktemp -d /tmp/vset-test-XXXXXX)
chmod 755 "$work"
mkdir -m 1777 "$work/temporary"
export TMPDIR=$work/temporary # other tests have temporary sets as well
failures=0
started=()

finish() {
    local process
    for process in "${started[@]}"; do
        kill -9 "$process" 2>/dev/null
    done
    wait 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT

skip() {
    echo "SKIPPED: $1"
    exit 77
}

fail() {
    echo "FAILED: $1" >&2
    failures=$((failures + 1))
}

# expect STATUS TEXT COMMAND...: its exit status, and a piece of what it says (of both streams).
expect() {
    local status=$1 text=$2 output actual
    shift 2
    output=$("$@" 2>&1 </dev/null)
    actual=$?
    [ "$actual" = "$status" ] || fail "status $actual instead of $status: $* ($output)"
    case $output in *"$text"*) ;; *) fail "no \"$text\" from: $* ($output)" ;; esac
}

# within SECONDS COMMAND...: the command succeeds before long. What comes at once on a PC that does nothing else is
# given a minute or more.
within() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.05
    done
}

# The process identifier of a running set's PID 1, from outside. Ends the test where there is none, before
# anybody looks into or kills another process.
init_of() {
    local init
    init=$(cut -d' ' -f1 "$1/.vset/lock" 2>/dev/null)
    [ "${init:-0}" -gt 1 ] && echo "$init"
}
is_up() { "$vset" exec "$1" -- true 2>/dev/null; }
# On, with all its services: its first process is there before them.
comes_up() { "$vset" wait "$1" on --limit 90 >/dev/null; }
is_gone() { ! kill -0 "$1" 2>/dev/null; }

conclude() {
    [ "$failures" = 0 ] && echo "all as expected"
    exit $((failures != 0))
}

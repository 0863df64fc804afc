# Moments of an update, for a script in the set that acts in the middle of one, however busy the PC is: "sleep 1" is
# too early there, or too late. Sourced by the script before it begins anything. What does not come within a minute
# ends the script with status 99.
touch /tmp/begun

# comes COMMAND...: waits until it succeeds.
comes() {
    for _ in $(seq 1200); do
        if "$@" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.05
    done
    echo "waited in vain: $*" >&2
    exit 99
}

# gone NAME: no such process is left.
gone() { ! pgrep -x "$1"; }

# writes MODULE: its chip has got the first bytes since this script began.
writes() { find /var/lib/hardware -name "$1" -newer /tmp/begun | grep -q .; }

# loads MODULE: a process has its control library.
loads() { grep -qs "/$1[.]so" /proc/[0-9]*/maps; }

# watcher PID, writer PID: what watches over the update of a fwctl, and what writes it.
watcher() { pgrep -o -P "$1"; }
writer() { pgrep -o -P "$(watcher "$1")"; }

# holds PID, goes_on PID: that fwctl's update stands still until it may go on: time for anything.
holds() { kill -STOP "$(writer "$1")"; }
goes_on() { kill -CONT "$(writer "$1")"; }

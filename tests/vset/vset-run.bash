#!/bin/bash
# Starting, using and ending sets; wrong use.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1

# ---- Wrong use is 2, failure is 1, both say what to do ----
expect 2 "a command is missing" "$vset"
expect 2 "there is no command \"rnu\"" "$vset" rnu
expect 2 "SET is required" "$vset" run
expect 2 "needs a command" "$vset" run --temporary
expect 2 "is not a whole number from 0 to 250" "$vset" run --temporary -n 251 -- true
expect 2 "--clock-rate" "$vset" run --temporary --clock-rate fast -- true
expect 2 "is not a directory" "$vset" run --temporary -b /nonexistent -- true
expect 2 "cannot be bound" "$vset" run --temporary -b /etc -- true
expect 2 "cannot be bound" "$vset" run --temporary -b /tmp -- true
expect 127 'nosuch\x1B[31m' "$vset" run --temporary -- $'nosuch\e[31m'
expect 1 "vset new" "$vset" run "$work/none" -- true
expect 1 "vset new" "$vset" exec "$work/none" -- true
mkdir "$work/foreign" && touch "$work/foreign/file"
expect 1 "something else in it" "$vset" new --bare "$work/foreign"
mkdir -p "$work/pc/root" "$work/pc/usr/bin" && echo precious >"$work/pc/usr/bin/fwctl" # as a PC's own directories are
expect 1 "something else in it" "$vset" new "$work/pc"
expect 1 "there is no set" "$vset" put "$work/pc" hardware "$work/pc/usr/bin/fwctl"
expect 0 "precious" cat "$work/pc/usr/bin/fwctl"
expect 0 "Examples:" "$vset" --help
expect 0 "--temporary" "$vset" run --help

# ---- A command's life ----
expect 0 "" "$vset" run --temporary -- true
expect 7 "" "$vset" run --temporary -- sh -c 'exit 7'
expect 137 "" "$vset" run --temporary -- sh -c 'kill -9 $$'
expect 127 "cannot run" "$vset" run --temporary -- no-such-command
expect 0 "in=text" bash -c "echo text | '$vset' run --temporary -- sh -c 'echo in=\$(cat)'"
expect 0 "bus=[]" env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/x "$vset" run --temporary -- \
    sh -c 'echo "bus=[$DBUS_SYSTEM_BUS_ADDRESS]"'
expect 0 "kept=1" env KEPT=1 "$vset" run --temporary -- sh -c 'echo "kept=$KEPT"'
expect 0 "orphans are ended" "$vset" run --temporary -- sh -c 'setsid sleep 1000 & echo orphans are ended'
expect 0 "cwd=/usr/share" bash -c "cd /usr/share && '$vset' run --temporary -- sh -c 'echo cwd=\$PWD'"
mkdir "$work/elsewhere"
expect 0 "cwd=/." bash -c "cd '$work/elsewhere' && '$vset' run --temporary -- sh -c 'echo cwd=\$PWD.'"
expect 0 "cwd=$work/elsewhere." bash -c \
    "cd '$work/elsewhere' && '$vset' run --temporary -b '$work/elsewhere' -- sh -c 'echo cwd=\$PWD.'"
[ -z "$(ls -A "$TMPDIR")" ] || fail "a temporary set is left"

# ---- What the set is like ----
set_=$work/set
expect 0 "$set_" "$vset" new --bare "$set_"
cat >"$set_/root/srv/inside" <<'INSIDE'
test "$(stat -c %U:%G:%a /opt/usr/apps/appbinarymanager/emps)" = platform:system:2775 || echo emps
test "$(stat -c %a /tmp)" = 1777 || echo tmp
test "$(ls -d /dev/loop*)" = "$(printf '/dev/loop%d\n' 0 1 2)" || echo loops
test "$(stat -c %a /dev/loop2)" = 660 || echo loop mode
touch /usr/x 2>/dev/null && echo /usr is writable
test -e /home/* && echo /home of the PC
test "$(id -u fwupdate):$(id -g fwupdate)" = 901:900 || echo users
test -S /var/run/dbus/system_bus_socket || echo bus
test -w /var/log/platform.log || echo log
date -s 2001-01-01 >/dev/null 2>&1 && echo the clock of the PC can be set
exit 0
INSIDE
output=$("$vset" run "$set_" -n 3 -- sh /srv/inside 2>/dev/null) || fail "the inner script: $?"
[ -z "$output" ] || fail "inside: $output"
touch "$set_/usr/fwupdate/controls/live.so"
expect 0 "live.so" "$vset" run "$set_" -- ls /usr/fwupdate/controls

# ---- /tmp and /run are fresh at every start, the rest stays ----
"$vset" run "$set_" -- sh -c 'touch /tmp/t /run/r /var/lib/v' 2>/dev/null
expect 0 "stays" "$vset" run "$set_" -- sh -c 'test ! -e /tmp/t && test ! -e /run/r && test -e /var/lib/v && echo stays'

# ---- Running sets ----
expect 1 "not running" "$vset" exec "$set_" -- true
expect 1 "not running" "$vset" clock "$set_"
"$vset" run "$set_" -- sleep 1000 2>/dev/null &
started+=($!)
comes_up "$set_" || fail "the set does not come up"
expect 1 "already running" "$vset" run "$set_" -- true
expect 5 "" "$vset" exec "$set_" -- sh -c 'exit 5'
expect 0 "1 vset" "$vset" exec "$set_" -- sh -c 'echo 1 $(cat /proc/1/comm)'
expect 1 "without a clock" "$vset" clock "$set_"
other=$work/other
"$vset" new --bare "$other" >/dev/null
expect 0 "private" "$vset" run "$other" -- sh -c \
    'test ! -e /dev/shm/mine && test "$(pgrep -c sleep)" = 0 && echo private'
"$vset" exec "$set_" -- touch /dev/shm/mine
leader=${started[-1]}
kill -TERM "$leader"
wait "$leader"
[ $? = 143 ] || fail "a set that was asked to end reports another status"
expect 1 "not running" "$vset" exec "$set_" -- true
expect 0 "" "$vset" run "$set_" -- true # at once again

# ---- Where the clock library cannot be preloaded from ----
mkdir "$work/with blank" && cp "$vset" "$tools/build-tree" "$work/with blank/"
expect 1 "without blanks" "$work/with blank/vset" run "$set_" --clock-rate 1 -- true

# ---- A command that takes no notice is ended with its set ----
"$vset" run "$set_" -- sh -c 'trap "" TERM; while :; do sleep 1; done' 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"
kill -TERM "$leader"
within 90 is_gone "$leader" || fail "a deaf command keeps its set alive"
conclude

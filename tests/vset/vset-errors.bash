#!/bin/bash
# What vset says when something is wrong: the reason, where, and what to do, in a line of its own words.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd "$work" || exit 1
set_=$work/set
as_user() { setpriv --reuid 4242 --regid 4242 --clear-groups "$@"; }
# one_line STATUS TEXT COMMAND...: as expect, and nothing but one line of printable characters.
one_line() {
    expect "$@"
    [ "$("${@:3}" 2>&1 </dev/null | wc -l)" = 1 ] || fail "not one line from: ${*:3} ($("${@:3}" 2>&1 </dev/null))"
    "${@:3}" 2>&1 </dev/null | LC_ALL=C grep -qP '[\x00-\x08\x0b-\x1f\x7f]' && fail "what steers a terminal from: ${*:3}"
}

# ---- new ----
one_line 0 "$set_" "$vset" new "$set_"
mkdir -m 777 users
one_line 0 "$work/users/set" as_user "$vset" new "$work/users/set"
[ -x users/set/usr/bin/tarnwick ] || fail "the daemon is not in a plain user's set"
mkdir small
# A full disk: nothing that was begun is left, what was there stays, and the second try works.
full="No space left on device: make room there, or name another place"
left() { [ "$(ls -A "$1")" = "$2" ] || fail "in $1 is left: $(ls -A "$1")"; }
if mount -t tmpfs -o size=300k tmpfs small 2>/dev/null; then
    one_line 1 "$full" "$vset" new "$work/small/set"
    one_line 1 "$full" "$vset" new small/deep/down/set/
    one_line 1 "$full" "$vset" new small
    left small ""
    one_line 0 "$work/small/set" "$vset" new --bare small/set
    one_line 1 "$full" "$vset" new small/set
    left small set
    mount -o remount,size=60m small
    one_line 0 "$work/small/set" "$vset" new small/set
    [ -x small/set/usr/bin/tarnwick ] || fail "the second try has put no daemon there"
    mkdir Large stick
    for file in large.so large.img Large/Large.bin stick/large; do head -c 100k /dev/zero >"$file"; done
    cat /dev/zero >small/rest 2>/dev/null
    before=$(find small | sort)
    for what in "library large.so" "package large.img" "firmware Large" "hardware stick" "stick stick"; do
        # shellcheck disable=SC2086 # words
        one_line 1 "$full" "$vset" put small/set $what
        [ "$(find small | sort)" = "$before" ] || fail "put $what on a full disk leaves something else"
    done
    rm small/rest
    expect 0 "" "$vset" put small/set library large.so
    cmp large.so small/set/root/prd/usr/fwupdate/controls/large.so || fail "the second try has put no library there"
    rm -r Large stick large.*
    umount small
fi
if mount -t tmpfs -o size=1m,nr_inodes=20 tmpfs small 2>/dev/null; then
    one_line 1 "No space left on device" env TMPDIR="$work/small" "$vset" run --temporary -- true
    [ -z "$(ls small)" ] || fail "a temporary set that could not be made is left: $(ls small)"
    umount small
fi
one_line 1 "set belongs to another user" as_user "$vset" new "$set_"
one_line 1 "small: File too large" bash -c "ulimit -f 1; '$vset' new small-file 2>&1 | sed 's/.*\(File too large\).*/small: \1/'; exit \${PIPESTATUS[0]}"
"$vset" new --bare in-the-way >/dev/null && mkdir -p in-the-way/usr/bin/tarnwick/x
one_line 1 "usr/bin/tarnwick is in the way: a set has a file there" "$vset" new in-the-way
rm -rf in-the-way/usr/bin && touch in-the-way/usr/bin
one_line 1 "usr/bin is in the way: a set has a directory there" "$vset" new in-the-way
one_line 1 "usr/bin is in the way: a set has a directory there" "$vset" run in-the-way -- true
mkdir alone && cp "$tools/vset" alone
one_line 1 "cannot run $work/alone/vset-control, which belongs beside this program" alone/vset get "$set_"
chmod 700 "$set_/usr"
one_line 1 "$set_/usr is closed to the set's users: open it with chmod 755" "$vset" run "$set_" -- true
chmod 755 "$set_/usr"
[ -z "$(ls -d ./*/.vset/put.* 2>/dev/null)" ] || fail "what was put together is left: $(ls -d ./*/.vset/put.*)"
for round in 1 2 3; do
    "$vset" new at-once >"$work/at-once-said" 2>&1 &
    other=$!
    one_line 0 "$work/at-once" "$vset" new at-once
    wait "$other" || fail "two at once, round $round: $(cat "$work/at-once-said")"
done
expect 0 "" test -x at-once/usr/bin/tarnwick
for limit in 0 1 64; do
    one_line 1 "File too large" bash -c "ulimit -f $limit; '$vset' run --temporary -- true"
    [ -z "$(ls -A "$TMPDIR")" ] || fail "ulimit -f $limit leaves $(ls "$TMPDIR")"
done
one_line 1 "'no set'\`" "$vset" run 'no set'
one_line 1 "\$'a\\nb'\`" "$vset" wait $'a\nb' on
one_line 1 'dbus-daemon ended at its start: cannot run dbus-daemon: No such file or directory (PATH is "", without /usr/bin)' \
    env PATH= "$vset" run --temporary -- true
one_line 1 "circle: Too many levels" bash -c "ln -sf circle circle; '$vset' new circle"
one_line 1 "takes no path with a backslash" "$vset" new 'a\b'
[[ ! -e 'a\b' ]]
one_line 1 "TMPDIR" env TMPDIR=/nonexistent "$vset" run --temporary -- true

# ---- Words ----
for words in "$set_ --temporary -- true" "--temporary $set_ -- true" "$set_ --temporary"; do
    # shellcheck disable=SC2086 # words
    expect 2 "SET and --temporary cannot be given together" "$vset" run $words
done
expect 2 "--since and --boot cannot be given together" "$vset" wait "$set_" says x --since now --boot 1
expect 2 "--since and --boot cannot be given together" "$vset" wait "$set_" state 1 --since now --boot 1
expect 2 "--until-end and --until cannot be given together" "$vset" story "$set_" --until x --until-end
expect 0 "yes" "$vset" run --temporary -- echo yes
expect 0 "yes" "$vset" run --temporary echo yes
expect 0 "a|--|b|" "$vset" run --temporary -- printf '%s|' a -- b
expect 2 "SET is required before the --" "$vset" run -- true
expect 2 "CMD is required" "$vset" exec "$set_" --
expect 2 "run: CMD is empty" "$vset" run --temporary -- ''
expect 2 "run: CMD is empty" "$vset" run "$set_" -- ''
expect 2 "exec: CMD is empty" "$vset" exec "$set_" -- ''
expect 2 "run: SET is empty" "$vset" run '' -- true

# ---- Somebody else's lock ----
echo 999999999 root no-clock >in-the-way/.vset/lock
exec 8<in-the-way
flock 8
one_line 1 "in-the-way/.vset/lock does not name the first process of set" "$vset" exec in-the-way -- true
one_line 1 "or whoever else has locked its directory" "$vset" run in-the-way -- true
one_line 1 "or another program has locked it" "$vset" wait in-the-way on --limit 0.1
exec 8<&-

# ---- put ----
ln -sf circle circle
mkfifo pipe
touch $'a\nb'
for kind in library package firmware hardware stick key; do
    one_line 1 "circle" "$vset" put "$set_" $kind circle
    one_line 1 "Too many levels of symbolic links" "$vset" put "$set_" $kind circle
    one_line 1 "pipe: is not a" "$vset" put "$set_" $kind pipe
    one_line 1 'a\nc: there is no such' "$vset" put "$set_" $kind $'a\nc'
done
one_line 1 "Too many levels of symbolic links" "$vset" put circle library x.so
mkdir -p stick/deep && mkfifo stick/deep/pipe
one_line 1 "stick/deep/pipe is not a file but a pipe" "$vset" put "$set_" stick stick
one_line 1 "stick/deep/pipe is not a file but a pipe" "$vset" usb "$set_" insert stick
for around in "$work" "$set_" "$set_/root/opt"; do
    one_line 1 "the set lies in it" "$vset" put "$set_" stick "$around"
done
[ -z "$(ls -A "$set_/root/opt/media")" ] || fail "unfinished sticks are left: $(ls -A "$set_/root/opt/media")"
one_line 1 "Too many levels of symbolic links" "$vset" wait circle on
one_line 1 "Too many levels of symbolic links" "$vset" run circle

# ---- Orders ----
expect 2 "CALL" "$vset" fault "$set_" --count 3
expect 2 "CALL" "$vset" fault "$set_" --for x
expect 2 'no option "-nan"' "$vset" reply "$set_" -nan 0
expect 2 'no option "-nan"' "$vset" reply "$set_" 1 -nan
printf '#!/bin/sh\nprintf "2026-01-31T12:00:00.000000Z\\t2\\t6\\tFWUPDATE\\t1\\t1\\tmain\\t\\t\\t\\tx.cpp: f(1) > Error: all is lost!\\\\n\\n" >>/var/log/platform.log\n' >"$work/daemon"
install -m 755 daemon "$set_/usr/bin/tarnwick"
: >"$work/run"
"$vset" run "$set_" >"$work/run" 2>&1 &
leader=$!
started+=("$leader")
expect 0 "" "$vset" wait "$set_" on
expect 0 "" "$vset" wait "$set_" ended
one_line 1 'pralis_get_int?' "$vset" fault "$set_" pralis_getint
one_line 1 'no platform call "nosuch"' "$vset" fault "$set_" nosuch
one_line 1 'the daemon said "Error: all is lost!";' "$vset" wait "$set_" says x --limit 0.1
expect 0 "" "$vset" wait "$set_" says "Error: all is lost!" --whole --limit 1
# escapes KIND: so many lines of the log on such a terminal hold any.
escapes() { TERM=$1 script -qec "'$vset' log '$set_'" /dev/null </dev/null | grep -c $'\e'; }
[ "$(escapes xterm)" -gt 0 ] || fail "an error in the log has no colour on a terminal"
[ "$(escapes dumb)" = 0 ] || fail "escapes for a terminal that knows none"
# Told without the daemon's start, a story counts from its first sentence.
"$vset" exec "$set_" -- sh -c "printf '2026-01-31T12:00:00.000000Z\t2\t6\tFWUPDATE\t1\t1\tmain\t\t\t\tx.cpp: f(1) > no update module item!\\\\n\n' >>/var/log/platform.log"
expect 0 " 0.0 s  Nothing is pending." "$vset" story "$set_"
for command in show console modules "get x" power "power standby"; do
    # shellcheck disable=SC2086 # words
    one_line 1 "belongs to another user? then use sudo" as_user "$vset" ${command%% *} "$set_" ${command#"${command%% *}"}
done
one_line 1 "Permission denied" as_user "$vset" clock "$set_"

one_line 1 "the system bus refuses the user number 12345, whom this set does not know" \
    "$vset" exec "$set_" -- setpriv --reuid 12345 --clear-groups "$tools/upgrade-ui"

# ---- A platform that does not answer ----
init=$(init_of "$set_") || exit 1
platform=$(pgrep -P "$init" platformd)
kill -STOP "$platform"
SECONDS=0
expect 1 "not within 0.2 s" "$vset" wait "$set_" power standby --limit 0.2
expect 1 "not within 0.2 s" "$vset" wait "$set_" progress x 1 --limit 0.2
[ $SECONDS -lt 20 ] || fail "a limit of 0.2 s lasted $SECONDS s"
kill -TERM "$leader"
within 60 is_gone "$leader" || fail "a set whose platform does not answer does not end"

# ---- A set of a command, and one whose bus somebody has taken away ----
"$vset" run "$set_" -- sleep 1000 2>/dev/null &
leader=$!
started+=("$leader")
expect 0 "" "$vset" wait "$set_" on
expect 1 "its command runs" "$vset" wait "$set_" ended --limit 0.1
rm "$set_/root/run/dbus/system_bus_socket"
one_line 1 "is on, but its bus cannot be reached" "$vset" show "$set_" power
mkfifo "$set_/root/run/dbus/system_bus_socket"
one_line 1 "is on, but its bus cannot be reached" "$vset" get "$set_" x
kill -TERM "$leader"
within 60 is_gone "$leader" || fail "a set without its bus does not end"
one_line 1 "is not running: start it with" "$vset" show "$set_" power

# ---- A set that is asked to end while it starts ----
mkdir "$work/tools" && cp -r "$tools/." "$work/tools/" && printf '#!/bin/sh\necho it runs\nexec sleep 1000\n' >"$work/tools/psmountd"
"$work/tools/vset" run "$set_" -- true 2>/dev/null &
leader=$!
started+=("$leader")
within 60 grep -qs "it runs" "$set_/root/var/log/psmountd.out" || fail "the service does not start"
kill -TERM "$leader"
within 15 is_gone "$leader" || fail "a set whose service does not get ready cannot be ended"
printf '#!/bin/sh\nkill -9 $$\n' >"$work/tools/psmountd"
one_line 1 "psmountd was ended by signal 9 at its start: it said nothing" "$work/tools/vset" run "$set_" -- true
conclude

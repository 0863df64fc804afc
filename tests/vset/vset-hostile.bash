#!/bin/bash
# What may lie in the place of a file that vset itself reads or writes in a set's directory: nothing makes a command
# wait for ever or fill the memory, a limit and a signal end it, and it says what is in the way.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd "$work" || exit 1
set_=$work/set
longest=25 # seconds of a command whose limit is 0.2, on a busy machine; without that limit it takes 30
"$vset" new --bare "$set_" >/dev/null

# put_there KIND PATH
put_there() {
    rm -rf "$2"
    case $1 in
    pipe) mkfifo "$2" ;;
    socket) python3 -c 'import os, socket, sys; os.chdir(sys.argv[1]); socket.socket(socket.AF_UNIX).bind(sys.argv[2])' "${2%/*}" "${2##*/}" ;;
    directory) mkdir "$2" ;;
    device) ln -s /dev/zero "$2" ;;
    circle) ln -s "${2##*/}" "$2" ;;
    sparse) truncate -s 10G "$2" ;;
    noise) head -c 300000 /dev/urandom >"$2" ;;
    empty) : >"$2" ;;
    esac
}

declare -A says=(
    [pipe]="is not a file but a pipe" [socket]="is not a file but a socket" [directory]="is not a file but a directory"
    [device]="is not a file but a device" [circle]="cannot be opened: Too many levels of symbolic links" [sparse]="is longer than"
)

# ends STATUS TEXT WHAT COMMAND...: so, before long, and without taking the machine's memory.
ends() {
    local status=$1 text=$2 what=$3 actual said
    shift 3
    (ulimit -v 4000000; exec timeout -k 1 $longest "$@") >"$work/said" 2>&1 </dev/null
    actual=$?
    said=$(head -c 500 "$work/said" | tr -d '\0')
    [ "$actual" = "$status" ] || fail "$what: status $actual instead of $status: ${*:2} ($said)"
    case $said in *"$text"*) ;; *) fail "$what: no \"$text\" from: ${*:2} ($said)" ;; esac
}

# refused FILE KIND COMMAND...: it says what is there in its place.
refused() {
    put_there "$2" "$set_/$1"
    ends 1 "${1##*/} ${says[$2]}" "$2 as $1" "$vset" "${@:3}"
}

# taken FILE KIND STATUS TEXT COMMAND...: it makes nothing of it.
taken() {
    put_there "$2" "$set_/$1"
    ends "$3" "$4" "$2 as $1" "$vset" "${@:5}"
}

short=(--limit 0.2)
for kind in pipe socket directory device circle; do
    for file in .vset/life .vset/lock; do
        refused $file $kind wait "$set_" off "${short[@]}"
        refused $file $kind wait "$set_" says x "${short[@]}"
        refused $file $kind story "$set_" --until x "${short[@]}"
        refused $file $kind run "$set_" -- true
        rm -rf "${set_:?}/$file"
    done
    refused .vset/lock $kind exec "$set_" -- true
    refused .vset/lock $kind clock "$set_"
    refused .vset/lock $kind fault "$set_" service platformd crash
    rm -rf "$set_/.vset/lock"
    for file in .vset/machine-id root/var/log/{platform.log,dbus-daemon.out,psmountd.out,platformd.out,tarnwick.out}; do
        refused $file $kind run "$set_" -- true
        rm -rf "${set_:?}/$file"
    done
    refused .vset/clock $kind run "$set_" --clock-rate 1 -- true
    rm -rf "$set_/.vset/clock"
    for command in log story "story --until x --limit 0.2" "log -f"; do
        # shellcheck disable=SC2086 # words
        refused root/var/log/platform.log $kind ${command%% *} "$set_" ${command#"${command%% *}"}
    done
    rm -rf "$set_/root/var/log/platform.log" && : >"$set_/root/var/log/platform.log"
done

rm -f "$set_/root/var/log/platform.log" && (umask 077 && : >"$set_/root/var/log/platform.log")
ends 0 "written" "a log of root's alone" "$vset" run "$set_" -- \
    setpriv --reuid 901 --regid 900 --clear-groups sh -c 'echo x >>/var/log/platform.log && echo written'
: >"$set_/root/var/log/platform.log"

# ---- A set that is on is known by its own first process, and by a lock that nobody can replace ----
sleep 1000 &
stranger=$!
started+=("$stranger")
for init in $stranger 1 $$; do
    echo "$init root no-clock" >"$set_/.vset/lock"
    ends 1 "is not running" "the PC's process $init" flock "$set_/.vset/lock" "$vset" exec "$set_" -- touch "$work/on-the-pc"
    for command in "exec $set_ -- touch $work/on-the-pc" "clock $set_" "fault $set_ service platformd crash"; do
        # shellcheck disable=SC2086 # words
        ends 1 "first process" "the PC's process $init" flock "$set_" "$vset" $command
    done
done
[ ! -e "$work/on-the-pc" ] || fail "a command meant for a set ran on the PC"
ln -sf /nowhere/x "$set_/.vset/lock"
for command in "run $set_ -- true" "exec $set_ -- true" "show $set_" "wait $set_ on --limit 0.1"; do
    # shellcheck disable=SC2086 # words
    ends 1 "lock is a link that leads nowhere" "a dangling lock" "$vset" $command
done
ln -sf /etc/hostname "$set_/.vset/lock"
ends 1 "lock is not a file but a link" "a linked lock" "$vset" run "$set_" -- true
rm "$set_/.vset/lock"
mv "$set_/.vset" "$set_/.kept" && ln -s /nowhere/x "$set_/.vset"
ends 1 ".vset is in the way" "a dangling .vset" "$vset" run "$set_" -- true
rm "$set_/.vset" && mv "$set_/.kept" "$set_/.vset"
"$vset" run "$set_" -- sleep 1000 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"
init=$(init_of "$set_")
rm "$set_/.vset/lock"
ends 1 "already running" "the lock is gone" "$vset" run "$set_" -- true
ends 1 "does not name the first process" "the lock is gone" "$vset" exec "$set_" -- true
echo "$stranger root no-clock" >"$set_/.vset/lock"
ends 1 "already running" "another lock" "$vset" run "$set_" -- true
ends 1 "does not name the first process" "another lock" "$vset" exec "$set_" -- true
echo "$init root no-clock" >"$set_/.vset/lock"
ends 0 "" "the lock as it was" "$vset" exec "$set_" -- true
kill -TERM "$leader"
within 90 is_gone "$leader" || fail "a set whose lock was replaced does not end"

# ---- Links that lead out of the set: nothing is put where they lead ----
mkdir -p out stick/deep build/Panel && echo x >stick/deep/x && echo x >build/Panel/Panel.bin && ln -s Panel build/Linked
touch tuner.so empTuner.img chip && printf -- '-----BEGIN PUBLIC KEY-----\n-----END PUBLIC KEY-----\n' >maker.pem
# led PATH COMMAND...: a link in the place of that directory of the set, or of the one above it.
led() {
    local way
    for way in "$set_/$1" "$(dirname "$set_/$1")"; do
        mkdir -p "$way" && mv "$way" "$work/kept"
        ln -s "$work/out" "$way"
        ends 1 "${way##*/}: is in the way: a set has a directory there" "a link for $way" "$vset" "${@:2}"
        rm "$way" && mv "$work/kept" "$way"
    done
    [ -z "$(ls -A "$work/out")" ] || fail "outside of the set now: $(ls -A "$work/out") (vset ${*:2})"
}
led root/prd/usr/fwupdate/controls put "$set_" library tuner.so
led usr/fwupdate/controls put "$set_" library tuner.so --system
led root/srv/feed put "$set_" package empTuner.img
led root/opt/usr/apps/appbinarymanager put "$set_" package empTuner.img --delivered
led usr/lib/firmware/ext put "$set_" firmware build/Panel
led root/var/lib/hardware put "$set_" hardware chip
led root/var/lib/signature/keys put "$set_" key maker.pem
led root/opt/media put "$set_" stick stick
led root/opt/media usb "$set_" insert stick
mkdir out/USBDriveA && rmdir "$set_/root/opt/media" && ln -s "$work/out" "$set_/root/opt/media"
ends 1 "media: is in the way" "a link for the slot" "$vset" usb "$set_" remove
[ -d out/USBDriveA ] || fail "a stick outside of the set was removed"
rm "$set_/root/opt/media" && mkdir "$set_/root/opt/media" && chown 900:900 "$set_/root/opt/media"
# A link at the very place is replaced, not followed; one that a person names is what it leads to.
echo kept >kept-file && ln -s "$work/kept-file" "$set_/root/srv/feed/empTuner.img"
ends 0 "" "a link for the file" "$vset" put "$set_" package empTuner.img
[ "$(cat kept-file)" = kept ] && [ ! -L "$set_/root/srv/feed/empTuner.img" ] || fail "a link at the very place is followed"
ln -s stick linked-stick
for command in "put $set_ stick" "usb $set_ insert"; do
    # shellcheck disable=SC2086 # words
    ends 0 "" "a linked stick" "$vset" $command linked-stick
    [ ! -L "$set_/root/opt/media/USBDriveA" ] && [ -e "$set_/root/opt/media/USBDriveA/deep/x" ] || fail "the stick is a link in the set"
done
ends 1 "is no file of the set's own" ".. out of the set" "$vset" wait "$set_" file /tmp/../../../../etc/hostname "${short[@]}"
ln -s "$work" "$set_/root/srv/out" && ln -s /srv/feed "$set_/root/srv/in"
"$vset" run "$set_" -- sleep 1000 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"
ends 1 "it is not there" "a link to the PC" "$vset" wait "$set_" file /srv/out/kept-file "${short[@]}"
ends 0 "" "a link in the set" "$vset" wait "$set_" file /srv/in/empTuner.img "${short[@]}"
ends 0 "" "a file of the set" "$vset" wait "$set_" file //srv/feed/empTuner.img "${short[@]}"
ends 1 "is no UTF-8" "a button that is no text" "$vset" ui "$set_" click $'\xff\xfe'
kill -TERM "$leader"
within 90 is_gone "$leader" || fail "the set does not end"
ends 1 "there is no set at" "a log of no set" "$vset" log nowhere
# Several at once: each is whole.
for round in 1 2 3 4 5; do
    "$vset" put "$set_" stick stick >"$work/at-once" 2>&1 &
    other=$!
    ends 0 "" "two at once, round $round" "$vset" put "$set_" stick stick
    wait "$other" || fail "two at once, round $round: $(cat "$work/at-once")"
    [ -e "$set_/root/opt/media/USBDriveA/deep/x" ] || fail "two at once: half a stick"
done
mkdir "$set_/.vset/put.999999999.abcdef"
head -c 100000 "$vset" >large.so
ends 1 "File too large" "ulimit -f" bash -c "ulimit -f 2; '$vset' put '$set_' library large.so"
[ -z "$(ls -d "$set_"/.vset/put.* 2>/dev/null)" ] || fail "what was put together is left: $(ls "$set_/.vset")"
for name in etc dev; do
    mv "$set_/root/$name" "$work/kept" 2>/dev/null
    ln -s /nowhere/x "$set_/root/$name"
    ends 1 "root/$name is in the way: a set has a directory there" "a link for /$name" "$vset" run "$set_" -- true
    rm "$set_/root/$name"
done

# ---- A control library that is none, a log that cannot be shown ----
mkfifo pipe && ln -s l1 l2 && ln -s l2 l1
ends 1 "pipe is not a file but a pipe" "a pipe" "$tools/module-probe" pipe
ends 1 "l1 cannot be opened: Too many levels of symbolic links" "a circle" "$tools/module-probe" l1
printf '2026-01-31T12:00:00.000000Z\t2\t6\tFWUPDATE\t1\t1\tmain\t\t\t\tx.cpp: f(1) > service initialize\\n\n' >"$set_/root/var/log/platform.log"
for command in "log $set_ -f" "story $set_ -f" "story $set_ --until never"; do
    ends 1 "cannot write to standard output" "a full disk" bash -c "'$vset' $command >/dev/full"
    ends 1 "cannot write to standard output" "a closed output" bash -c "'$vset' $command >&-"
done

# ---- Too much, too little, anything ----
refused .vset/life sparse wait "$set_" off "${short[@]}"
refused .vset/life sparse story "$set_" --until x "${short[@]}"
for kind in sparse noise empty; do
    taken .vset/life $kind 0 "" run "$set_" -- true
    taken .vset/lock $kind 0 "" run "$set_" -- true
    taken .vset/lock $kind 0 "" wait "$set_" off "${short[@]}"
    taken .vset/clock $kind 0 "" run "$set_" --clock-rate 1 -- true
    for name in platform.log dbus-daemon.out; do
        taken root/var/log/$name $kind 0 "" run "$set_" -- true
        rm "$set_/root/var/log/$name"
    done
    taken root/var/log/platform.log $kind 0 "" log "$set_"
    taken root/var/log/platform.log $kind 1 "the limit has passed" story "$set_" --until x "${short[@]}"
done
taken .vset/life noise 1 "is off" wait "$set_" on "${short[@]}"
refused .vset/machine-id sparse run "$set_" -- true
taken .vset/machine-id empty 0 "" run "$set_" -- true
[ "$(wc -c <"$set_/.vset/machine-id")" = 33 ] || fail "a machine's identity that was lost is not made anew"
rm -f "$set_/root/var/log/platform.log"

# ---- Of a set that is on ----
"$vset" run "$set_" --clock-rate 1 -- sleep 1000 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"
for kind in pipe socket directory device circle; do
    refused root/var/log/platform.log $kind wait "$set_" says x "${short[@]}"
done
for kind in sparse noise; do
    taken root/var/log/platform.log $kind 1 "not within 0.2 s" wait "$set_" says x --since ever "${short[@]}"
done
SECONDS=0
ends 1 "no platform call" "a very long name" "$vset" fault "$set_" "$(head -c 100000 /dev/zero | tr '\0' x)"
ends 0 "state 0" "the platform after a very long name" "$vset" show "$set_" power
[ $SECONDS -lt 20 ] || fail "a very long name keeps the platform for $SECONDS s"
# What is fetched from the feed keeps its holes; what is no file is not fetched.
put_there sparse "$set_/root/srv/feed/empSparse.img"
put_there pipe "$set_/root/srv/feed/empPipe.img"
put_there device "$set_/root/srv/feed/empDevice.img"
for package in empPipe empDevice empSparse; do
    "$vset" exec "$set_" -- gdbus call --system --dest org.pellor.platform --object-path /org/pellor/platform \
        --method org.pellor.platform.Services.DownloadPackage 1 $package >/dev/null
done
fetched() { [ "$("$vset" show "$set_" packages | grep -cE "$1")" = "$2" ]; }
within 60 fetched " failed " 2 || fail "packages: $("$vset" show "$set_" packages)"
within 60 fetched "empSparse .* delivered " 1 || fail "packages: $("$vset" show "$set_" packages)"
image=$set_/root/opt/usr/apps/appbinarymanager/empSparse.img
[ "$(stat -c %s "$image")" = $((10 << 30)) ] || fail "a package is cut: $(stat -c %s "$image") bytes"
[ "$(du -k "$image" | cut -f1)" -lt 1000 ] || fail "a package without content takes $(du -h "$image")"
# The platform goes on beside it.
ends 0 "state 0" "the platform" "$vset" show "$set_" power
kill -TERM "$leader"
within 90 is_gone "$leader" || fail "a set with a strange log does not end"
conclude

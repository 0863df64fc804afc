#!/bin/bash
# What may lie in the place of a file that vset itself reads or writes in a set's directory: nothing makes a command
# wait for ever or fill the memory, a limit and a signal end it, and it says what is in the way.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd "$work" || exit 1
set_=$work/set
longest=6 # seconds of a command whose limit is 0.2, on a busy machine
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
ends 1 "lock is a link that leads nowhere" "a dangling lock" "$vset" run "$set_" -- true
ln -sf /etc/hostname "$set_/.vset/lock"
ends 1 "lock is not a file but a link" "a linked lock" "$vset" run "$set_" -- true
rm "$set_/.vset/lock"
mv "$set_/.vset" "$set_/.kept" && ln -s /nowhere/x "$set_/.vset"
ends 1 ".vset is in the way" "a dangling .vset" "$vset" run "$set_" -- true
rm "$set_/.vset" && mv "$set_/.kept" "$set_/.vset"
"$vset" run "$set_" -- sleep 1000 2>/dev/null &
leader=$!
started+=("$leader")
within 20 is_up "$set_" || fail "the set does not come up"
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
within 20 is_gone "$leader" || fail "a set whose lock was replaced does not end"

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
within 20 is_up "$set_" || fail "the set does not come up"
for kind in pipe socket directory device circle; do
    refused root/var/log/platform.log $kind wait "$set_" says x "${short[@]}"
done
for kind in sparse noise; do
    taken root/var/log/platform.log $kind 1 "not within 0.2 s" wait "$set_" says x --since ever "${short[@]}"
done
# What is fetched from the feed keeps its holes; what is no file is not fetched.
put_there sparse "$set_/root/srv/feed/empSparse.img"
put_there pipe "$set_/root/srv/feed/empPipe.img"
put_there device "$set_/root/srv/feed/empDevice.img"
for package in empPipe empDevice empSparse; do
    "$vset" exec "$set_" -- gdbus call --system --dest org.pellor.platform --object-path /org/pellor/platform \
        --method org.pellor.platform.Services.DownloadPackage 1 $package >/dev/null
done
fetched() { [ "$("$vset" show "$set_" packages | grep -cE "$1")" = "$2" ]; }
within 10 fetched " failed " 2 || fail "packages: $("$vset" show "$set_" packages)"
within 10 fetched "empSparse .* delivered " 1 || fail "packages: $("$vset" show "$set_" packages)"
image=$set_/root/opt/usr/apps/appbinarymanager/empSparse.img
[ "$(stat -c %s "$image")" = $((10 << 30)) ] || fail "a package is cut: $(stat -c %s "$image") bytes"
[ "$(du -k "$image" | cut -f1)" -lt 1000 ] || fail "a package without content takes $(du -h "$image")"
# The platform goes on beside it.
ends 0 "state 0" "the platform" "$vset" show "$set_" power
kill -TERM "$leader"
within 20 is_gone "$leader" || fail "a set with a strange log does not end"
conclude

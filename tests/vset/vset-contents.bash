#!/bin/bash
# vset put and vset wait: what is put into a set, whose it is, and how long is waited for what. The daemon is a
# stand-in that says what the test wants it to say.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd "$work" || exit 1
set_=$work/set
"$vset" new --bare "$set_" >/dev/null
put() { "$vset" put "$set_" "$@"; }
wait_for() { "$vset" wait "$set_" "$@"; }

# ---- put ----
mkdir -p build/Panel chips stick/deep
echo library >build/tuner.so
echo package >build/empTuner.img
echo firmware >build/Panel/Panel.bin
echo '{}' >build/Panel/info.json
echo chip >chips/tuner
echo chip >chips/panel
echo image >stick/deep/Tuner.bin
printf -- 'of the maker\n-----BEGIN PUBLIC KEY-----\nx\n-----END PUBLIC KEY-----\n' >build/maker.pub.pem
# lies PATH TEXT: in the set's directory.
lies() { [ "$(cat "$set_/$1" 2>/dev/null)" = "$2" ] || fail "$1 is not \"$2\" but \"$(cat "$set_/$1")\""; }
# owned PATH USER:GROUP
owned() { [ "$(stat -c %u:%g "$set_/$1")" = "$2" ] || fail "$1 belongs to $(stat -c %u:%g "$set_/$1"), not $2"; }

expect 0 "" put library build/tuner.so
lies root/prd/usr/fwupdate/controls/tuner.so library
expect 0 "" put library build/tuner.so --system
lies usr/fwupdate/controls/tuner.so library
expect 0 "" put package build/empTuner.img
lies root/srv/feed/empTuner.img package
[ ! -e "$set_/root/opt/usr/apps/appbinarymanager/empTuner.img" ] || fail "a package of the feed is delivered"
expect 0 "" put package build/empTuner.img --delivered
lies root/opt/usr/apps/appbinarymanager/empTuner.img package
owned root/opt/usr/apps/appbinarymanager/empTuner.img 900:900
for directory in build/Panel build/Panel/; do
    expect 0 "" put firmware $directory
    lies usr/lib/firmware/ext/Panel/Panel.bin firmware
done
echo newer >build/Panel/Panel.bin
expect 0 "" put firmware build/Panel
lies usr/lib/firmware/ext/Panel/Panel.bin newer
expect 0 "" put hardware chips
expect 0 "" put hardware chips/tuner
for chip in tuner panel; do
    lies root/var/lib/hardware/$chip chip
    owned root/var/lib/hardware/$chip 901:900
done
expect 0 "" put stick stick
lies root/opt/media/USBDriveA/deep/Tuner.bin image
owned root/opt/media/USBDriveA/deep/Tuner.bin 900:900
expect 0 "" "$vset" usb "$set_" remove
expect 1 "there is no stick in the slot" "$vset" usb "$set_" remove
expect 0 "" put key build/maker.pub.pem
lies root/var/lib/signature/keys/maker.pub.pem "$(cat build/maker.pub.pem)"

# A directory of chips is put whole, or not at all.
mkdir -p more/a more/z && mkfifo more/z/pipe
expect 1 "more/z/pipe is not a file but a pipe" put hardware more
[ ! -e "$set_/root/var/lib/hardware/a" ] || fail "half of the chips are there"
SECONDS=0
expect 1 "/: the set lies in it" put hardware /
[ $SECONDS -lt 30 ] && [ ! -e "$set_/root/var/lib/hardware/etc" ] || fail "the PC's files are chips"

expect 1 "there is no such file" put library nowhere.so
expect 1 "is not a file" put library build
expect 1 "its name has to end in .so" put library build/empTuner.img
expect 1 "its name has to end in .img" put package build/tuner.so
expect 1 "there is no such directory" put firmware nowhere
expect 1 "there is no stick.bin in it" put firmware stick
expect 1 "there is no such directory" put stick nowhere
mkdir -p special/below && mkfifo special/below/pipe
expect 1 "special/below/pipe is not a file but a pipe: take it away" put stick special
expect 1 "special/below/pipe is not a file but a pipe: take it away" put hardware special
expect 1 "is no public key in PEM form" put key build/tuner.so
head -2 build/maker.pub.pem >build/cut.pub.pem
expect 1 "is no public key in PEM form, from" put key build/cut.pub.pem
expect 1 "there is no set at none: make one with" "$vset" put none library build/tuner.so
expect 2 "" put
expect 2 "" put library
expect 2 "" put bread build/tuner.so
[ -z "$(find "$set_" -name '.*.[0-9]*')" ] || fail "unfinished files are left: $(find "$set_" -name '.*.[0-9]*')"

# ---- wait: a set that is off ----
expect 0 "" wait_for off
expect 1 "is off: switch it on with" wait_for on --limit 0.2
expect 1 "is off: switch it on with" wait_for ended --limit 0.2
expect 1 "is no file of the set's own" wait_for file /etc/passwd --limit 0
expect 2 "--limit" wait_for on --limit -1
expect 2 "--limit" wait_for on --limit soon
expect 1 "is not running" "$vset" usb "$set_"
expect 2 "" wait_for
expect 2 "" wait_for boot 0
expect 2 "" wait_for boot
expect 2 "" wait_for state x
expect 2 "" wait_for ended --status 256
expect 2 "STATE" wait_for power asleep

# ---- wait: a set that runs ----
mkdir "$set_/usr/bin"
# It says each line of /tmp/say as the daemon's message, and ends with the status in /tmp/end.
cat >"$set_/usr/bin/tarnwick" <<'DAEMON'
#!/bin/bash
say() { printf '2026-01-31T12:00:00.000000Z\t2\t4\tFWUPDATE\t1\t1\tmain\t\t\t\tx.cpp: f(1) > %s\n' "$1" >>/var/log/platform.log; }
say "service initialize"
until [ -e /tmp/end ]; do
    while read -r line; do say "$line"; done < <(cat /tmp/say 2>/dev/null && rm -f /tmp/say)
    sleep 0.05
done
exit "$(cat /tmp/end)"
DAEMON
chmod 755 "$set_/usr/bin/tarnwick"
# tell FILE TEXT: a file of /tmp in the set, whole.
tell() { echo "$2" >"$set_/root/tmp/.new" && chmod 666 "$set_/root/tmp/.new" && mv "$set_/root/tmp/.new" "$set_/root/tmp/$1"; }

: >"$work/run" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/run" 2>&1 &
leader=$!
started+=("$leader")
expect 0 "" wait_for on
expect 0 "no stick is in the USB slot" "$vset" usb "$set_"
expect 0 "" "$vset" usb "$set_" insert stick
expect 0 " 6  deep/Tuner.bin" "$vset" usb "$set_"
expect 0 "" wait_for boot 1 --limit 0
expect 1 "not within 0.1 s" wait_for boot 2 --limit 0.1
expect 1 "Seen last: boot 1, its daemon runs" wait_for off --limit 0.1
expect 0 "" wait_for says "service init"
expect 1 'the daemon said "service initialize"' wait_for says "service init" --whole --limit 0.1
expect 1 "1 of 2 such messages" wait_for says "service init" --count 2 --limit 0.1
expect 1 "" wait_for says "service init" --since now --limit 0.2
(sleep 0.5 && tell say "10") &
expect 0 "" wait_for state 10
expect 0 "" wait_for state 5 # it was come to on the way, whether a tick has shown it or not
expect 1 "come to state 11" wait_for state 11 --limit 0.1
expect 0 "" wait_for absent /tmp/list
(sleep 0.5 && tell list "x") &
expect 0 "" wait_for file /tmp/list
expect 1 "it is there" wait_for absent /tmp/list --limit 0.1
for link in /nowhere/x loop "$work/chips/tuner"; do
    ln -sfT "$link" "$set_/root/tmp/loop"
    expect 1 "it is a link that leads nowhere" wait_for file /tmp/loop --limit 0.1
    expect 0 "" wait_for absent /tmp/loop --limit 0.1
done
for link in /tmp/list list /usr/bin/env; do
    ln -sfT "$link" "$set_/root/tmp/loop"
    expect 0 "" wait_for file /tmp/loop --limit 0.1
    expect 1 "it is there" wait_for absent /tmp/loop --limit 0.1
done
expect 0 "" wait_for power on
expect 1 "Seen last: 0;" wait_for power standby --limit 0.2
(sleep 0.5 && "$vset" power "$set_" standby) &
expect 0 "" wait_for power standby
expect 0 "" wait_for locks 0
expect 1 "Seen last: 0;" wait_for locks 1 --limit 0.2
status=memory/ep_firmware_update_app/fw_update_status
expect 0 "" wait_for setting $status 0
expect 1 "there is no such key" wait_for setting no/key 0 --limit 0.1
expect 1 "no such module" wait_for progress panel 10 --limit 0.1
expect 1 "not within" wait_for ended --limit 0.1

# ---- The daemon ends; the set boots again ----
tell end 7
expect 0 "" wait_for ended --status 7
expect 1 "ended with status 7, not 0" wait_for ended --status 0
expect 1 "ended before that, with status 7" "$vset" story "$set_" --until-end
"$vset" reboot "$set_"
expect 0 "" wait_for boot 2
expect 0 "" wait_for ended --boot 1
expect 1 "boot 2, its daemon runs" wait_for ended --limit 0.1
expect 1 "" wait_for state 10 --limit 0.1
expect 0 "" wait_for state 10 --since on
expect 0 "" wait_for says "service init" --count 2 --since on --limit 10
expect 0 "The daemon starts" "$vset" story "$set_" --boot 2 --until "service init"
expect 1 "the limit has passed" "$vset" story "$set_" --boot 2 --until "never said" --limit 0.2

# ---- Who waits ends with the set ----
: >"$work/story" # at once: what an earlier one has said is no sign of this one
"$vset" story "$set_" --until-end >"$work/story" 2>&1 &
teller=$!
(sleep 1 && "$vset" poweroff "$set_") &
SECONDS=0
expect 1 "the set has gone off" wait_for says "never said" --limit 60
wait "$teller" && fail "a story whose set went off is told to its end"
grep -q "the set has gone off" "$work/story" || fail "the story-teller says $(cat "$work/story")"
[ $SECONDS -lt 45 ] || fail "it took $SECONDS s to see that the set is off"
wait "$leader" || fail "the power-off is a failure"
expect 0 "" wait_for off --limit 0

# A launcher that is killed writes nothing any more.
: >"$work/run" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/run" 2>&1 &
leader=$!
started+=("$leader")
disown "$leader" # bash would tell how it ended
expect 0 "" wait_for on
(sleep 0.5 && kill -9 "$leader") &
expect 1 "the set has gone off" wait_for says "never said" --limit 60
conclude

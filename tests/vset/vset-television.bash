#!/bin/bash
# A set without a command: what PID 1 makes of its services' ends. The platform service is a stand-in that
# ends as the test says; the daemon is one that shows how it was started.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1
# vset looks for its services beside itself.
mkdir "$work/tools" && cp "$tools/vset" "$tools/vset-control" "$tools/build-tree" "$tools/psmountd" "$tools/libvset-clock.so" "$work/tools"
vset=$work/tools/vset
cat >"$work/tools/platformd" <<'PLATFORM'
#!/bin/bash
for word in "$@"; do
    case $word in --ready-fd=*) ready=${word#*=} ;; esac
done
echo "platformd: $(id -un) $*"
printf x >&"$ready"
eval "exec $ready>&-"
trap 'exit 0' TERM
echo $$ >/var/lib/platform/process
echo x >>/var/lib/platform/starts
until [ -e /var/lib/platform/end ]; do sleep 0.05; done
status=$(cat /var/lib/platform/end)
rm /var/lib/platform/end
exit "$status"
PLATFORM
chmod 755 "$work/tools/platformd"

set_=$work/set
"$vset" new --bare "$set_" >/dev/null
expect 1 "no daemon" "$vset" run "$set_"
mkdir "$set_/usr/bin"
cat >"$set_/usr/bin/tarnwick" <<'DAEMON'
#!/bin/bash
echo "started as $(id -un):$(id -gn) groups $(id -G) in $PWD, bus ${DBUS_SYSTEM_BUS_ADDRESS-default}"
grep -E 'CapEff|CapPrm|NoNewPrivs' /proc/self/status
echo x >>/var/lib/fwupdate/boots
touch /tmp/of-this-boot
DAEMON
chmod 755 "$set_/usr/bin/tarnwick"
boots() { [ "$(wc -l 2>/dev/null <"$set_/root/var/lib/fwupdate/boots")" = "$1" ]; } 2>/dev/null
# end_with STATUS: the platform service ends; platformd removes its own file, so it is given away.
end_with() { echo "$1" >"$work/end" && chown 900 "$work/end" && mv "$work/end" "$set_/root/var/lib/platform/end"; }

: >"$work/said" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 90 boots 1 || fail "the daemon does not start: $(cat "$work/said")"
said=$set_/root/var/log/tarnwick.out
within 60 grep -q "started as fwupdate:system groups 900 in /, bus default" "$said" || fail "$(cat "$said")"
for line in 'CapEff:.0000000000000000' 'CapPrm:.0000000000000000' 'NoNewPrivs:.1'; do
    grep -q "$line" "$said" || fail "not $line: $(cat "$said")"
done
within 60 grep -q "tarnwick ended with status 0" "$work/said" || fail "the end of the daemon is not told"
is_up "$set_" || fail "the television goes off when the daemon ends"
"$vset" exec "$set_" -- touch /var/lib/stays /run/goes /tmp/goes
first=$(init_of "$set_") || { fail "the set has no PID 1"; conclude; }

# ---- Reboot ----
touch "$set_/root/var/lib/platform/before"
end_with 11
within 90 boots 2 || fail "no second boot: $(cat "$work/said")"
comes_up "$set_"
[ "$(init_of "$set_")" != "$first" ] || fail "PID 1 outlives a reboot"
is_gone "$first" || fail "the old PID 1 is still there"
[ -e "$set_/root/var/lib/stays" ] || fail "a reboot loses files"
[ ! -e "$set_/root/tmp/goes" ] && [ ! -e "$set_/root/run/goes" ] || fail "a reboot keeps /tmp or /run"
grep -q "reboots" "$work/said" || fail "the reboot is not told"

# ---- Power-off ----
end_with 10
within 90 is_gone "$leader" || fail "the power-off does not end the set"
wait "$leader" || fail "status $? after a power-off"
boots 2 || fail "a boot too many"

# ---- A service that breaks, and signals ----
: >"$work/said" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 90 boots 3 || fail "the daemon does not start"
end_with 3
wait "$leader"
[ $? = 1 ] || fail "a broken platform service is no failure"
grep -q "platformd ended with status 3" "$work/said" || fail "not told: $(cat "$work/said")"

# ---- A service that crashes is started again, and the daemon is not; one that goes on crashing ends the set ----
starts() { [ "$(wc -l 2>/dev/null <"$set_/root/var/lib/platform/starts")" = "$1" ]; } 2>/dev/null
crash() { "$vset" exec "$set_" -- sh -c 'kill -9 $(cat /var/lib/platform/process)'; }
rm "$set_/root/var/lib/platform/starts"
boots_before=$(wc -l <"$set_/root/var/lib/fwupdate/boots")
: >"$work/said" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 90 boots $((boots_before + 1)) || fail "the daemon does not start"
for ((crash = 1; crash <= 2; crash++)); do
    crash
    within 90 starts $((crash + 1)) || fail "no start after crash $crash: $(cat "$work/said")"
done
grep -q "platformd was ended by signal 9 and is started again" "$work/said" || fail "not told: $(cat "$work/said")"
"$vset" exec "$set_" -- sh -c 'kill -TERM $(cat /var/lib/platform/process)' # it says goodbye, and has no reason to
within 90 starts 4 || fail "a platform that somebody has ended is not started again: $(cat "$work/said")"
grep -q "platformd ended with status 0 and is started again" "$work/said" || fail "not told: $(cat "$work/said")"
"$vset" exec "$set_" -- sh -c 'kill -9 $(pidof psmountd)'
psmountd_is_back() { "$vset" exec "$set_" -- gdbus introspect --system -d org.pellor.psmount -o / >/dev/null 2>&1; }
within 90 psmountd_is_back || fail "the mount service is not started again: $(cat "$work/said")"
boots $((boots_before + 1)) || fail "a crash of a service starts the daemon again"

# ---- A crash that is ordered ----
expect 0 "" "$vset" fault "$set_" service platformd crash --delay 86400000
expect 1 "does not run at the moment" "$vset" fault "$set_" service platformd crash
expect 0 "" "$vset" fault "$set_" service psmountd crash --delay 0
within 90 psmountd_is_back || fail "psmountd does not come back after an order: $(cat "$work/said")"
expect 1 "cannot do without" "$vset" fault "$set_" service tarnwick crash
expect 1 "cannot do without" "$vset" fault "$set_" service dbus-daemon crash
expect 2 "service NAME crash" "$vset" fault "$set_" service platformd
expect 2 "service NAME crash" "$vset" fault "$set_" service platformd explode
expect 2 "only --delay" "$vset" fault "$set_" service platformd crash --count 1
expect 2 "stands alone" "$vset" fault "$set_" PS_Mount crash
expect 2 "whole number" "$vset" fault "$set_" service psmountd crash --delay -1
expect 1 "there is no set" "$vset" fault "$work/none" service psmountd crash
kill -TERM "$leader"
within 90 is_gone "$leader" || fail "a set without its platform does not end"
expect 1 "not running" "$vset" fault "$set_" service psmountd crash
: >"$work/said" # at once: what an earlier one has said is no sign of this one
"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 90 boots $((boots_before + 2)) || fail "the daemon does not start"

crash_until_gone() { is_gone "$leader" || { crash 2>/dev/null; false; }; }
within 90 crash_until_gone || fail "a service that goes on crashing does not end the set: $(cat "$work/said")"
wait "$leader"
[ $? = 1 ] || fail "a service that goes on crashing is no failure"
grep -q "platformd was ended by signal 9: the set cannot do without it" "$work/said" || fail "not told: $(cat "$work/said")"

for signal in TERM INT; do
    : >"$work/said" # at once: what an earlier one has said is no sign of this one
    "$vset" run "$set_" >"$work/said" 2>&1 &
    leader=$!
    started+=("$leader")
    comes_up "$set_" || fail "the television does not come up"
    kill -$signal "$leader"
    within 90 is_gone "$leader" || fail "SIG$signal does not end the television"
    expect 1 "not running" "$vset" exec "$set_" -- true
done

count=$(wc -l <"$set_/root/var/lib/fwupdate/boots")
# ---- With a command, power requests are only recorded ----
expect 0 "" "$vset" run "$set_" -- true
grep -q -- "--no-power-cycle" "$set_/root/var/log/platformd.out" || fail "platformd is not told"
boots "$count" || fail "a command starts the daemon"

# ---- A service that does not start ----
printf '#!/bin/sh\necho it is broken\nexit 1\n' >"$work/tools/platformd"
expect 1 "it is broken" "$vset" run "$set_"
conclude

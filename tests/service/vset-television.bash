#!/bin/bash
# A set without a command: what PID 1 makes of its services' ends. The platform service is a stand-in that
# ends as the test says; the daemon is one that shows how it was started.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1
# vset looks for its services beside itself.
mkdir "$work/tools" && cp "$tools/vset" "$tools/psmountd" "$tools/libvset-clock.so" "$work/tools"
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

"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 20 boots 1 || fail "the daemon does not start: $(cat "$work/said")"
said=$set_/root/var/log/tarnwick.out
within 10 grep -q "started as fwupdate:system groups 900 in /, bus default" "$said" || fail "$(cat "$said")"
for line in 'CapEff:.0000000000000000' 'CapPrm:.0000000000000000' 'NoNewPrivs:.1'; do
    grep -q "$line" "$said" || fail "not $line: $(cat "$said")"
done
within 10 grep -q "tarnwick ended with status 0" "$work/said" || fail "the end of the daemon is not told"
is_up "$set_" || fail "the television goes off when the daemon ends"
"$vset" exec "$set_" -- touch /var/lib/stays /run/goes /tmp/goes
first=$(init_of "$set_") || { fail "the set has no PID 1"; conclude; }

# ---- Reboot ----
touch "$set_/root/var/lib/platform/before"
end_with 11
within 20 boots 2 || fail "no second boot: $(cat "$work/said")"
within 20 is_up "$set_"
[ "$(init_of "$set_")" != "$first" ] || fail "PID 1 outlives a reboot"
is_gone "$first" || fail "the old PID 1 is still there"
[ -e "$set_/root/var/lib/stays" ] || fail "a reboot loses files"
[ ! -e "$set_/root/tmp/goes" ] && [ ! -e "$set_/root/run/goes" ] || fail "a reboot keeps /tmp or /run"
grep -q "reboots" "$work/said" || fail "the reboot is not told"

# ---- Power-off ----
end_with 10
within 20 is_gone "$leader" || fail "the power-off does not end the set"
wait "$leader" || fail "status $? after a power-off"
boots 2 || fail "a boot too many"

# ---- A service that breaks, and signals ----
"$vset" run "$set_" >"$work/said" 2>&1 &
leader=$!
started+=("$leader")
within 20 boots 3 || fail "the daemon does not start"
end_with 3
wait "$leader"
[ $? = 1 ] || fail "a broken platform service is no failure"
grep -q "platformd ended with status 3" "$work/said" || fail "not told: $(cat "$work/said")"
for signal in TERM INT; do
    "$vset" run "$set_" >"$work/said" 2>&1 &
    leader=$!
    started+=("$leader")
    within 20 is_up "$set_" || fail "the television does not come up"
    kill -$signal "$leader"
    within 20 is_gone "$leader" || fail "SIG$signal does not end the television"
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

#!/bin/bash
# A set that is killed leaves no process, no mount and no bound loop device.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1
packages=/opt/usr/apps/appbinarymanager
mkdir "$work/tree" && head -c 50000 /dev/urandom >"$work/tree/data"
mksquashfs "$work/tree" "$work/one.img" -quiet -noappend >/dev/null || skip "needs squashfs-tools"

tag=$(basename "$work") # tells this test's loop devices from others'
mount_two='
for name in '$tag'-one '$tag'-two; do
    mkdir -p '$packages'/emps/$name
    gdbus call --system -d org.pellor.psmount -o /org/pellor/psmount -m org.pellor.psmount.Mounts.Mount \
        "'"'"'-o ro,loop,nodev,nosuid '$packages'/$name.img '$packages'/emps/$name'"'"'"
done
setsid sleep 1000 &
test "$(grep -c ^/dev/loop /proc/mounts)" = 2 && touch /tmp/ready
sleep 1000'

no_loop() { ! grep -qs "$tag" /sys/block/loop*/loop/backing_file; }

for victim in leader init; do
    set_=$work/$victim
    "$vset" new --bare "$set_" >/dev/null
    cp "$work/one.img" "$set_/root$packages/$tag-one.img"
    cp "$work/one.img" "$set_/root$packages/$tag-two.img"
    "$vset" run "$set_" -- sh -c "$mount_two" >/dev/null 2>&1 &
    leader=$!
    started+=("$leader")
    within 90 test -e "$set_/root/tmp/ready" || fail "$victim: the set does not mount two images"
    no_loop && fail "$victim: the loop devices are not seen from here"
    init=$(init_of "$set_") || { fail "the set has no PID 1"; conclude; }
    # From outside every process of the set is a descendant of PID 1 or has its process namespace.
    namespace=$(readlink "/proc/$init/ns/pid")
    inhabitants() { ls -l /proc/[0-9]*/ns/pid 2>/dev/null | grep -F "$namespace"; }
    [ "$(inhabitants | wc -l)" -ge 5 ] || fail "$victim: too few processes to prove anything"
    case $victim in
    leader) kill -9 "$leader" ;;
    init) kill -9 "$init" ;;
    esac
    wait "$leader" 2>/dev/null
    nobody() { [ -z "$(inhabitants)" ]; }
    within 60 nobody || fail "$victim: processes are left: $(inhabitants)"
    within 60 no_loop || fail "$victim: a loop device is still bound"
    grep -q "$set_" /proc/mounts && fail "$victim: a mount is left"
    expect 0 "" "$vset" run "$set_" -- true
    rm -rf "$set_" || fail "$victim: the directory cannot be removed"
done
# ---- A command that is asked to end before its temporary set is on leaves none ----
for moment in 0.02 0.03 0.04 0.05 0.07; do
    for signal in TERM INT; do
        timeout -s $signal $moment "$vset" run --temporary -- sleep 10 2>/dev/null
        within 60 test -z "$(ls -A "$TMPDIR")" || fail "SIG$signal after $moment s leaves $(ls "$TMPDIR")"
    done
done

# ---- What a killed `vset put` has left is removed by the next one ----
"$vset" new --bare "$work/put" >/dev/null
workshops=$work/put/.vset
mkdir -p "$workshops"
echo chip >"$work/chip"
sleep 1000 &
started+=($!)
mkdir "$workshops/put.$!.abcdef" "$workshops/put.of-a-person" # of one that works, and of nobody
(exec sleep 0) &
wait $!
mkdir "$workshops/put.$!.abcdef" && touch "$workshops/put.$!.abcdef/file"
expect 0 "" "$vset" put "$work/put" hardware "$work/chip"
[ ! -e "$workshops/put.$!.abcdef" ] || fail "what a killed put has left stays"
[ -e "$workshops/put.${started[-1]}.abcdef" ] || fail "another put's work is removed"
[ -e "$workshops/put.of-a-person" ] || fail "a file that no put has made is removed"
conclude

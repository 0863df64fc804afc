#!/bin/bash
# Sets without root: a user namespace, squashfuse instead of loop devices, one user for all. Run by root it
# does the same as a plain user.
. "$(dirname "$0")/vset-common.bash" "$1"
cd / || exit 1
as_user=()
if [ "$(id -u)" = 0 ]; then
    as_user=(setpriv --reuid 12345 --regid 12345 --clear-groups)
    chown 12345:12345 "$work"
fi
"${as_user[@]}" test -x "$vset" || skip "the build tree is not accessible to a plain user"
"${as_user[@]}" unshare -U -m -p -f true 2>/dev/null || skip "no user namespaces for plain users here"
packages=/opt/usr/apps/appbinarymanager
set_=$work/set

# ---- The PC's own device nodes, kernel files and their modes are out of reach, also for root's own set ----
modes() { stat -c '%n %a %u' /dev/full /dev/null /proc/diskstats; }
before=$(modes)
for user in "${as_user[*]}" ""; do
    for file in /dev/full /proc/diskstats; do
        expect 1 "Read-only file system" $user "$vset" run --temporary -u -- chmod 0640 "$file"
    done
    expect 0 "used" $user "$vset" run --temporary -u -- sh -c 'echo x >/dev/null && head -c 3 /dev/zero >/dev/null && echo used'
done
[ "$(modes)" = "$before" ] || fail "changed on the PC: $(modes)"

# ---- A plain user ----
expect 0 "not root: running without root" "${as_user[@]}" "$vset" run --temporary -- true
expect 3 "" "${as_user[@]}" "$vset" run --temporary -u -- sh -c 'exit 3'
expect 0 "uid 0" "${as_user[@]}" "$vset" run --temporary -u -- sh -c 'echo "uid $(id -u)"'
expect 0 "$set_" "${as_user[@]}" "$vset" new --bare "$set_"
"${as_user[@]}" "$vset" run "$set_" -u --clock-rate 1 -- sh -c 'setsid sleep 1000 & touch /tmp/ready; sleep 1000' \
    2>"$work/said" &
leader=$!
started+=("$leader")
within 90 test -e "$set_/root/tmp/ready" || fail "the set does not come up: $(cat "$work/said")"
expect 0 "set" "${as_user[@]}" "$vset" exec "$set_" -- cat /etc/hostname
expect 0 "uid 0" "$vset" exec "$set_" -- sh -c 'echo "uid $(id -u)"' # root may enter it as well
other_user=(setpriv --reuid 12346 --regid 12346 --clear-groups)
if [ "$(id -u)" = 0 ]; then
    for command in "show $set_ power" "poweroff $set_" "reboot $set_" "power $set_ standby" "set $set_ memory/x 1" \
        "property $set_ 128 x" "fault $set_ pralis_get_int" "ui $set_ decline" "mirroring $set_ on"; do
        # shellcheck disable=SC2086 # words
        expect 1 "belongs to another user? then use sudo" "${other_user[@]}" "$vset" $command
    done
fi
expect 0 "state 0" "$vset" show "$set_" power # root may
expect 0 "state 0" "${as_user[@]}" "$vset" show "$set_" power
expect 0 "+30." "${as_user[@]}" "$vset" clock "$set_" --jump 30
expect 1 "already running" "${as_user[@]}" "$vset" run "$set_" -u -- true
expect 0 "(0, 0)" "${as_user[@]}" "$vset" exec "$set_" -- gdbus call --system -d org.pellor.psmount \
    -o /org/pellor/psmount -m org.pellor.psmount.Mounts.Mknod "'-m 0660 -Z * /dev/loop8  b 7 8'"
init=$(init_of "$set_") || { fail "the set has no PID 1"; conclude; }
namespace=$(readlink "/proc/$init/ns/pid")
inhabitants() { ls -l /proc/[0-9]*/ns/pid 2>/dev/null | grep -F "$namespace"; }
[ "$(inhabitants | wc -l)" -ge 4 ] || fail "too few processes to prove anything"
kill -9 "$leader"
nobody() { [ -z "$(inhabitants)" ]; }
within 60 nobody || fail "processes are left"
wait 2>/dev/null
expect 0 "" "${as_user[@]}" "$vset" run "$set_" -u -- true

# ---- What root has put into a set serves a run without root, and the next one with it ----
if [ "$(id -u)" = 0 ]; then
    roots=$work/roots
    "$vset" new --bare "$roots" >/dev/null && touch "$work/chip"
    expect 0 "" "$vset" put "$roots" hardware "$work/chip"
    writes=(sh -c 'echo x >>/var/lib/hardware/chip && mktemp -d /opt/usr/apps/appbinarymanager/emps/XXXXXX >/dev/null && echo written')
    expect 0 "written" "$vset" run "$roots" -u -- "${writes[@]}"
    expect 0 "written" "$vset" run "$roots" -- setpriv --reuid 901 --regid 900 --clear-groups "${writes[@]}"
    [ "$(stat -c %u:%g "$roots/root/var/lib/hardware/chip" "$roots/root/opt/media" | tr '\n' ' ')" = "901:900 900:900 " ] ||
        fail "the set's users have not got back what is theirs: $(stat -c '%n %u:%g' "$roots/root/var/lib/hardware/chip" "$roots/root/opt/media")"
fi

# ---- Images, where FUSE can be used ----
can_mount() { command -v squashfuse >/dev/null && "$@" test -r /dev/fuse -a -w /dev/fuse; }
if can_mount "${as_user[@]}"; then
    :
elif can_mount env; then
    as_user=() # root's own user namespace
else
    expect 0 "install squashfuse" "${as_user[@]}" "$vset" run "$set_" -u -- true
    echo "images were not tried: no squashfuse or no access to /dev/fuse"
    conclude
fi
set_=$work/images
"${as_user[@]}" "$vset" new --bare "$set_" >/dev/null
mkdir "$work/tree" && head -c 50000 /dev/urandom >"$work/tree/data"
mksquashfs "$work/tree" "$set_/root$packages/1.img" -quiet -noappend >/dev/null || skip "needs squashfs-tools"
cp "$set_/root$packages/1.img" "$set_/root$packages/2.img"
cp "$work/tree/data" "$set_/root/srv/data"
chmod -R a+rX "$set_/root/srv" "$set_/root$packages"
echo junk >"$set_/root$packages/junk.img"
mkdir "$set_/root$packages/emps"/{1,2}
cat >"$set_/root/srv/inside" <<'INSIDE'
packages=/opt/usr/apps/appbinarymanager
check() {
    actual=$(gdbus call --system -d org.pellor.psmount -o /org/pellor/psmount -m "org.pellor.psmount.Mounts.$2" "'$3'" 2>&1)
    case $actual in *"$1"*) ;; *) echo "$2 [$3]: $actual instead of $1: $(cat /var/log/psmountd.out)" ;; esac
}
check '(0, 0)' Mount "-o ro,loop,nodev,nosuid $packages/1.img $packages/emps/1"
check '(-1, 19)' Mount "-o ro,loop,nodev,nosuid $packages/2.img $packages/emps/2"
check '(0, 0)' Mknod "-m 0660 -Z * /dev/loop1  b 7 1"
check '(0, 0)' Mount "-o ro,loop,nodev,nosuid $packages/2.img $packages/emps/2"
cmp $packages/emps/2/data /srv/data
test "$(grep -c '^/dev/loop[01] .*ro,nosuid,nodev' /proc/mounts)" = 2 || echo "mounts: $(grep loop /proc/mounts)"
check '(0, 0)' Umount "$packages/emps/1"
check '(-1, 22)' Umount "$packages/emps/1"
check '(-1, 22)' Mount "-o ro,loop,nodev,nosuid $packages/junk.img $packages/emps/1"
check '(0, 0)' Mount "-o ro,loop,nodev,nosuid $packages/1.img $packages/emps/1"
exit 0
INSIDE
output=$("${as_user[@]}" "$vset" run "$set_" -u -n 1 -- bash /srv/inside 2>"$work/said") || fail "inside: $(cat "$work/said")"
[ -z "$output" ] || fail "inside: $output"
conclude

#!/bin/bash
# The mount service with real images: shortage of nodes, what it refuses, who may call it.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1
set_=$work/set
packages=/opt/usr/apps/appbinarymanager
"$vset" new --bare "$set_" >/dev/null
mkdir "$work/tree" && head -c 50000 /dev/urandom >"$work/tree/data"
mksquashfs "$work/tree" "$work/image" -quiet -noappend >/dev/null || skip "needs squashfs-tools"
for name in 1 2 3; do cp "$work/image" "$set_/root$packages/$name.img"; done
head -c 8192 /dev/zero >"$set_/root$packages/junk.img"
ln -s 1.img "$set_/root$packages/link.img"
ln -s /tmp "$set_/root$packages/emps/link"
mkdir "$set_/root$packages/emps"/{1,2,3}
cp "$work/tree/data" "$set_/root/srv/data"

cat >"$set_/root/srv/inside" <<'INSIDE'
packages=/opt/usr/apps/appbinarymanager
# check EXPECTED METHOD ARGUMENT [USER]
check() {
    actual=$(setpriv --reuid "${4:-root}" --clear-groups gdbus call --system -d org.pellor.psmount \
        -o /org/pellor/psmount -m "org.pellor.psmount.Mounts.$2" "'$3'" 2>&1)
    case $actual in *"$1"*) ;; *) echo "$2 [$3]: $actual instead of $1" ;; esac
}
image() { echo "-o ro,loop,nodev,nosuid $packages/$1.img $packages/emps/$2"; }
node() { echo "-m 0660 -Z * /dev/loop$1  b 7 $1"; }

check '(0, 0)' Mount "$(image 1 1)"
check '(0, 0)' Mount "$(image 2 2)" fwupdate
check '(-1, 19)' Mount "$(image 3 3)"     # ENODEV: both nodes are in use
check '(0, 0)' Mknod "$(node 2)"
check '(-1, 17)' Mknod "$(node 2)"        # EEXIST
check '(0, 0)' Mount "$(image 3 3)"
test "$(grep -c '^/dev/loop[0-2] .* squashfs ro,nosuid,nodev' /proc/mounts)" = 3 || echo "mounts: $(cat /proc/mounts)"
cmp $packages/emps/3/data /srv/data
rm $packages/3.img && cmp $packages/emps/3/data /srv/data
check '(0, 0)' Umount "$packages/emps/3"
check '(-1, 22)' Umount "$packages/emps/3" # nothing is mounted any more
check '(0, 0)' Mount "$(image 1 3)"        # the device is free again
check '(0, 0)' Umount "$packages/emps/3/"

# Refused: other places, links, not an image, other options, malformed commands.
check '(-1, 13)' Mount "-o ro,loop $packages/1.img /tmp"
check '(-1, 13)' Mount "-o ro,loop /etc/passwd $packages/emps/3"
check '(-1, 13)' Mount "-o ro,loop $packages/1.img $packages/emps"
check '(-1, 40)' Mount "$(image link 3)"
check '(-1, 40)' Mount "$(image 1 link)"
check '(-1, 18)' Mount "-o ro,loop $packages/1.img $packages/emps/../../../../../../tmp"
check '(-1, 2)' Mount "$(image none 3)"
check '(-1, 22)' Mount "$(image junk 3)"
check '(-1, 22)' Mount "-o rw,loop $packages/1.img $packages/emps/3"
check '(-1, 22)' Mount "-o ro,loop,suid $packages/1.img $packages/emps/3"
for bad in '' '-o' '-o ro' 'ro,loop' '-o ro a b c' '-x ro /a /b' '-o ro a b'; do check '(-1, 22)' Mount "$bad"; done
for bad in '' '-m 0660' '-m 9999 /dev/loop9 b 7 9' '-m 0660 -Z * /dev/loop250 b 7 250' '/dev/sda b 8 0' \
    '/dev/loop9 b 7 8' '/dev/loop9 c 7 9' '/dev/loop09 b 7 9' '/dev/loop-1 b 7 -1' '/dev/loop9 b 7 4294967305'; do
    check '(-1, 22)' Mknod "$bad"
done
for bad in '' '.' '..' 'relative' "$packages/emps/.." "$packages/emps/."; do check '(-1, 22)' Umount "$bad"; done
check '(-1, 13)' Umount /proc
test "$(grep -c ^/dev/loop /proc/mounts)" = 2 || echo "after refusals: $(grep /dev/loop /proc/mounts)"

# Faults that a test asks for.
fault() {
    gdbus call --system -d org.pellor.psmount -o /org/pellor/psmount -m org.pellor.psmount.Control.SetFault "$@" 2>&1
}
fault Mount -- -5 28 2 >/dev/null
check '(-5, 28)' Mount "$(image 1 3)"
check '(-5, 28)' Mount "$(image 1 3)"
check '(0, 0)' Mount "$(image 1 3)"
fault Umount -- 0 16 -1 >/dev/null
for i in 1 2 3 4; do check '(0, 16)' Umount "$packages/emps/3"; done
fault Umount 0 0 0 >/dev/null
check '(0, 0)' Umount "$packages/emps/3"
case $(fault Format 0 0 1) in *InvalidArgs*) ;; *) echo "a fault for an unknown call" ;; esac

# Only root and the update daemon.
check AccessDenied Umount "$packages/emps/1" platform
check AccessDenied Umount "$packages/emps/1" nobody
exit 0
INSIDE
output=$("$vset" run "$set_" -n 2 -- bash /srv/inside 2>/dev/null) || fail "the inner script: $?"
[ -z "$output" ] || fail "inside: $output"

# What a program of the set has bound by itself ends with the set.
"$vset" run "$set_" -- sh -c "cp /srv/data $packages/bound-$$.img && losetup /dev/loop0 $packages/bound-$$.img" ||
    fail "a loop device could not be bound: $?"
for _ in $(seq 300); do
    losetup -a | grep -q "bound-$$" || break
    sleep 0.1
done
! losetup -a | grep "bound-$$" || fail "a loop device is left"
conclude

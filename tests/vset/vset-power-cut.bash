#!/bin/bash
# A power cut at a write to hardware: of a stand-in for the daemon, as root and without, and of a command.
. "$(dirname "$0")/vset-common.bash" "$1"
cd / || exit 1
set_=$work/set
"$vset" new --bare "$set_" >/dev/null
mkdir "$set_/usr/bin"
cat >"$set_/usr/bin/tarnwick" <<'DAEMON'
#!/bin/bash
cd /var/lib/hardware || exit 1
echo "$(id -un) $(grep CapEff /proc/self/status)"
echo a note >/tmp/note
trap 'echo asked >>/var/lib/fwupdate/asked' TERM
for block in one two three; do
    echo $block >>chip || mv chip failed
done
echo done
exit 7
DAEMON
chmod 755 "$set_/usr/bin/tarnwick"
chip=$set_/root/var/lib/hardware/chip
said=$set_/root/var/log/tarnwick.out
# chip_has BLOCK...: what is on it after the end.
chip_has() { [ "$(tr '\n' ' ' <"$chip")" = "$* " ] || fail "on the chip: $(cat "$chip"), not $*"; }

# life_tells EVENT FIELD...: what programs read has such an event with these fields.
life_tells() {
    local field
    for field in "\"event\":\"$1\"" "${@:2}"; do
        grep -F "\"event\":\"$1\"" "$set_/.vset/life" | grep -qF -- "$field" ||
            fail "no $1 with $field: $(cat "$set_/.vset/life")"
    done
}

# cut_daemon USER OPTION...: cut at the second of three writes, then not at all.
cut_daemon() {
    local user=$1
    shift
    rm -f "$chip" "$said"
    expect 3 "vset: the power was cut at write 2 (write to /var/lib/hardware/chip)" \
        "$vset" run "$set_" "$@" --cut-power-at-write 2
    life_tells cut '"write":2' '"call":"write"' '"path":"/var/lib/hardware/chip"'
    chip_has one
    [ ! -e "$set_/root/var/lib/fwupdate/asked" ] || fail "somebody was asked to end"
    [ ! -e "$set_/root/var/lib/hardware/failed" ] || fail "the process saw its write fail"
    ! grep -q "done" "$said" || fail "the process went on"
    expect 1 "not running" "$vset" exec "$set_" -- true

    rm -f "$chip" "$said"
    : >"$work/said" # at once: what an earlier one has said is no sign of this one
    "$vset" run "$set_" "$@" --cut-power-at-write 4 >"$work/said" 2>&1 &
    started+=($!)
    within 90 grep -q "tarnwick ended with status 7" "$work/said" || fail "not told: $(cat "$work/said")"
    grep -q "vset: the daemon made 3 writes to hardware" "$work/said" || fail "no count: $(cat "$work/said")"
    life_tells writes '"count":3'
    life_tells ended '"status":7'
    grep -q "^$user CapEff:.$capabilities\$" "$said" || fail "it ran as $(cat "$said")"
    chip_has one two three
    kill $!
    wait $!
}
if [ "$(id -u)" = 0 ]; then
    capabilities=0000000000000000 cut_daemon fwupdate
    rm "$set_/root/var/log/tarnwick.out"
    chown 0:0 "$set_/root/var/lib/hardware"
fi
if unshare --user true 2>/dev/null; then
    capabilities='[0-9a-f]*' cut_daemon root -u
fi

# ---- Of a command ----
options=()
[ "$(id -u)" = 0 ] || options=(-u)
write='for block in a b c; do echo $block >>/var/lib/hardware/chip; done; exit 5'
rm -f "$chip"
expect 3 "the power was cut at write 3 (write to" "$vset" run "$set_" "${options[@]}" --cut-power-at-write 3 -- sh -c "$write"
chip_has a b
expect 5 "sh made 3 writes to hardware" "$vset" run "$set_" "${options[@]}" --cut-power-at-write 9 -- sh -c "$write"
life_tells writes '"count":3'
expect 137 "sh made 0 writes" "$vset" run "$set_" "${options[@]}" --cut-power-at-write 9 -- sh -c 'kill -9 $$'
life_tells ended '"status":137' '"signal":9'
expect 127 "cannot run /nothing" "$vset" run "$set_" "${options[@]}" --cut-power-at-write 9 -- /nothing
expect 2 "--cut-power-at-write" "$vset" run "$set_" --cut-power-at-write 0
[ -z "$(ls "$TMPDIR")" ] || fail "temporary files are left"
conclude

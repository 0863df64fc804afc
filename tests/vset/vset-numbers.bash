#!/bin/bash
# Every number that the commands of a set take: what is none of its range is wrong use, said in one short
# line, and nothing of the set has changed.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
cd / || exit 1
set_=$work/set
"$vset" new --bare "$set_" >/dev/null
"$vset" run "$set_" --clock-rate 1 -- sleep 100000 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"

# All that is known of the set, without what goes on by itself.
state() {
    "$vset" show "$set_" --json | grep -vE '"(monotonic_ms|time_ms)"'
    # Its pace, and how many seconds it is ahead: two clocks are read for it, not at the same moment.
    "$vset" clock "$set_" | awk '{print $4, int($5 + ($5 < 0 ? -0.5 : 0.5))}'
    "$vset" exec "$set_" -- sh -c 'ls /dev; cut -f2- -d" " /proc/self/mounts; ls /run /opt/media'
}

long=$(printf '9%.0s' {1..400})
# None of these is a number of any range below; a word and "-1" where it is none are added.
never=(nan -nan inf -inf 1e300 -1e300 '' ' ' 0x10 1x ' 1' +1 - 99999999999999999999 -99999999999999999999 "$long"
    $'1\n' $'\e[31m1' ١)
tried=0

# refuse WORD... : the word @ is replaced by what is no number. First word: values that are refused here besides.
refuse() {
    local also=$1 value word command before
    shift
    before=$(state)
    for value in "${never[@]}" $also; do
        command=()
        for word in "$@"; do command+=("${word/#@/$value}"); done
        "${command[@]}" >"$work/out" 2>"$work/err" </dev/null
        word=$?
        tried=$((tried + 1))
        [ "$word" = 2 ] || fail "status $word instead of 2: ${command[*]:0:8} ($(head -c 300 "$work/err"))"
        [ ! -s "$work/out" ] || fail "something on standard output: ${command[*]:0:8}"
        [ "$(wc -l <"$work/err")" -le 2 ] || fail "more than two lines: ${command[*]:0:8} ($(head -c 600 "$work/err"))"
        [ "$(wc -L <"$work/err")" -le 200 ] || fail "a line too long: ${command[*]:0:8} ($(head -c 600 "$work/err"))"
        # A word that begins with a dash is not taken for a number, but for an option.
        grep -qE 'number|is none of|no option|is required|is empty' "$work/err" || fail "no reason: ${command[*]:0:8} ($(head -c 300 "$work/err"))"
        ! grep -q $'\e' "$work/err" || fail "a control character reaches the terminal: ${command[*]:0:8}"
    done
    [ "$(state)" = "$before" ] || fail "changed by $*: $(diff <(echo "$before") <(state))"
}

refuse "-1 251 1.5" "$vset" run --temporary -n @ -- true
refuse "-1 0 0.009 1000.1" "$vset" run --temporary --clock-rate @ -- true
refuse "-1 0 1000000001 1.5" "$vset" run --temporary --cut-power-at-write @ -- true
refuse "-1 0 0.009 1000.1" "$vset" clock "$set_" --rate @
refuse "315360001 -315360001" "$vset" clock "$set_" --jump @
refuse "2147483648 -2147483649 1.5" "$vset" set "$set_" memory/number @
refuse "-1 256 1.5 of" "$vset" power "$set_" @
refuse "2147483648 1.5" "$vset" poweroff "$set_" --reason @
refuse "-1 4294967296 1.5" "$vset" reboot "$set_" --reason @
refuse "2147483648 1.5" "$vset" fault "$set_" pralis_get_int --result @
refuse "-1 0 2147483648 1.5" "$vset" fault "$set_" pralis_get_int --count @
refuse "-1 86400001 1.5" "$vset" fault "$set_" pralis_get_int --delay @
refuse "-1 86400001 1.5" "$vset" fault "$set_" service platformd crash --delay @
refuse "2147483648 1.5" "$vset" property "$set_" @ text
refuse "-1 86400001 1.5" "$vset" packages "$set_" --delay @
refuse "-2 86400001 1.5" "$vset" packages "$set_" --manager-delay @
refuse "-1 4294967296 1.5" "$vset" reply "$set_" @ 0
refuse "2147483648 1.5" "$vset" reply "$set_" 1 @
refuse "-1 2 7 1.5 loud" "$vset" log "$set_" --priority @
refuse "-1 1.5" "$vset" ui "$set_" accept --after @
for program in "platformd --ready-fd" "psmountd --loop-base" "psmountd --ready-fd" "upgrade-ui --after"; do
    refuse "1.5" "$tools/${program% *}" "${program#* }" @
done
[ "$tried" -gt 400 ] || fail "only $tried command lines were tried"

# ---- What is at the ends of a range is taken ----
expect 0 "" "$vset" set "$set_" memory/number -2147483648
expect 0 "-2147483648" "$vset" get "$set_" memory/number
expect 0 "" "$vset" set "$set_" memory/number 2147483647
expect 0 "" "$vset" power "$set_" 255
expect 0 "" "$vset" packages "$set_" --delay 0 --manager-delay -1
expect 0 "" "$vset" fault "$set_" pralis_get_int --result -2147483648 --count 1 --delay 0
expect 0 "rate 1000 " "$vset" clock "$set_" --rate 1000
expect 0 "rate 0.01 " "$vset" clock "$set_" --rate 1e-2
expect 0 "" "$vset" clock "$set_" --rate 1 --jump 0.5
expect 0 "" "$vset" run --temporary -n 0 --clock-rate 0.01 -- true

# ---- And texts that are none ----
expect 1 'xFF" is no UTF-8' "$vset" set "$set_" $'memory/\xff' 1
expect 1 'xFF" is no UTF-8' "$vset" property "$set_" 5 $'\xff'
expect 1 'xFF" is no UTF-8' "$vset" fault "$set_" pralis_get_int --for $'\xff'
conclude

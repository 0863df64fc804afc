#!/bin/bash
# The clock of a set: its rate, and jumps while somebody waits. Second argument: vset-clock-test.
. "$(dirname "$0")/vset-common.bash" "$1"
test_program=$2
cd / || exit 1

rate='Waits.AtARate*:Clocks.*:Conditions.*:Descriptors.*'
expect 0 "PASSED" "$vset" run --temporary --clock-rate 60 -- "$test_program" --gtest_filter="$rate"

set_=$work/set
"$vset" new --bare "$set_" >/dev/null
"$vset" run "$set_" --clock-rate 1 -- "$test_program" --gtest_filter='Waits.AtAJump*' >"$work/output" 2>&1 &
leader=$!
started+=("$leader")
within 60 test -e "$set_/root/tmp/waiting" || fail "the waits do not begin: $(cat "$work/output")"
expect 0 "+600." "$vset" clock "$set_" --jump 600
wait "$leader" || fail "at a jump: $(cat "$work/output")"

# ---- Who waits is told of every change, and of nothing else ----
expect 0 "PASSED" "$vset" run --temporary --clock-rate 1 -- "$test_program" --gtest_filter='Waits.WakeOnly*'
rm -f "$set_/root/tmp/waiting"
"$vset" run "$set_" --clock-rate 1 -- "$test_program" --gtest_filter='Waits.Outlast*' >"$work/output" 2>&1 &
leader=$!
started+=("$leader")
within 60 test -e "$set_/root/tmp/waiting" || fail "the waits do not begin: $(cat "$work/output")"
changes=0
while "$vset" clock "$set_" --rate 1 >/dev/null 2>&1; do changes=$((changes + 1)); done
wait "$leader" || fail "at many changes: $(cat "$work/output")"
[ "$changes" -ge 5 ] || fail "only $changes changes" # each is a program's start: few on a busy machine

# ---- What the command says and refuses ----
"$vset" run "$set_" --clock-rate 1 -- sleep 100000 2>/dev/null &
leader=$!
started+=("$leader")
comes_up "$set_" || fail "the set does not come up"
expect 0 "rate 1 " "$vset" clock "$set_"
expect 0 "rate 30 " "$vset" clock "$set_" --rate 30
expect 0 "rate 1 " "$vset" clock "$set_" --rate 1
"$vset" clock "$set_" --jump -86400 >/dev/null
yesterday=$(date -d yesterday +%F)
case $("$vset" exec "$set_" -- date +%F) in "$yesterday" | "$(date -d '-1 day 1 minute' +%F)") ;; *) fail "no jump back" ;; esac
expect 2 "--rate" "$vset" clock "$set_" --rate 0
expect 2 "--jump" "$vset" clock "$set_" --jump soon
is_up "$set_" || fail "a jump back has ended a wait"

# ---- What is no time, and what would lead to another century, leaves the clock as it is ----
ahead() { "$vset" clock "$set_" | sed 's/.*  \([-+0-9]*\)[.].*/\1/'; }
before=$(ahead)
for bad in nan -nan inf -inf 1e300 -1e300 315360001 -315360001; do
    expect 2 "jump" "$vset" clock "$set_" --jump "$bad"
done
for bad in nan inf -1 0 1e300 1000.1; do
    expect 2 "rate" "$vset" clock "$set_" --rate "$bad"
done
[ "$(ahead)" = "$before" ] || fail "a refused jump moves the clock: $before, then $(ahead)"
expect 0 "rate 1 " "$vset" clock "$set_"
ten_years=315360000
for ((i = 0; i < 20; i++)); do "$vset" clock "$set_" --jump -$ten_years; done >"$work/jumps" 2>&1
grep -q "from 1970 to 2099" "$work/jumps" || fail "no end to jumps back: $(tail -1 "$work/jumps")"
case $("$vset" clock "$set_") in 19[78]?-*) ;; *) fail "back to $("$vset" clock "$set_")" ;; esac
"$vset" clock "$set_" --jump 200000 >/dev/null
wait "$leader" || fail "the command does not end at a jump"

# ---- Forwards there is an end too, for the date and for the uptime ----
"$vset" run "$set_" --clock-rate 1 -- sh -c 'while sleep 1000000000; do :; done' 2>/dev/null &
started+=($!)
comes_up "$set_" || fail "the set does not come up"
for ((i = 0; i < 20; i++)); do "$vset" clock "$set_" --jump $ten_years; done >"$work/jumps" 2>&1
grep -q "from 1970 to 2099" "$work/jumps" || fail "no end to jumps forwards: $(tail -1 "$work/jumps")"
case $("$vset" clock "$set_") in 209?-*) ;; *) fail "forwards to $("$vset" clock "$set_")" ;; esac
for ((i = 0; i < 20; i++)); do
    "$vset" clock "$set_" --jump -$ten_years && "$vset" clock "$set_" --jump $ten_years || break
done >"$work/jumps" 2>&1
grep -q "uptime" "$work/jumps" || fail "no end to the uptime: $(tail -1 "$work/jumps")"
[ "$("$vset" exec "$set_" -- cut -d. -f1 /proc/uptime)" -gt 0 ] || fail "the set is out of order"
is_up "$set_" || fail "the set is gone"
conclude

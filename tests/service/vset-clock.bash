#!/bin/bash
# The clock of a set: its rate, and jumps while somebody waits. Second argument: vset-clock-test.
. "$(dirname "$0")/vset-common.bash" "$1"
test_program=$2
cd / || exit 1

rate='Waits.AtARate*:Clocks.*:Conditions.*'
expect 0 "PASSED" "$vset" run --temporary --clock-rate 60 -- "$test_program" --gtest_filter="$rate"

set_=$work/set
"$vset" new --bare "$set_" >/dev/null
"$vset" run "$set_" --clock-rate 1 -- "$test_program" --gtest_filter='Waits.AtAJump*' >"$work/output" 2>&1 &
leader=$!
started+=("$leader")
within 60 test -e "$set_/root/tmp/waiting" || fail "the waits do not begin: $(cat "$work/output")"
expect 0 "+600." "$vset" clock "$set_" --jump 600
wait "$leader" || fail "at a jump: $(cat "$work/output")"

# ---- What the command says and refuses ----
"$vset" run "$set_" --clock-rate 1 -- sleep 100000 2>/dev/null &
leader=$!
started+=("$leader")
within 20 is_up "$set_" || fail "the set does not come up"
expect 0 "rate 1 " "$vset" clock "$set_"
expect 0 "rate 30 " "$vset" clock "$set_" --rate 30
expect 0 "rate 1 " "$vset" clock "$set_" --rate 1
"$vset" clock "$set_" --jump -86400 >/dev/null
yesterday=$(date -d yesterday +%F)
case $("$vset" exec "$set_" -- date +%F) in "$yesterday" | "$(date -d '-1 day 1 minute' +%F)") ;; *) fail "no jump back" ;; esac
expect 2 "--rate" "$vset" clock "$set_" --rate 0
expect 2 "--jump" "$vset" clock "$set_" --jump soon
is_up "$set_" || fail "a jump back has ended a wait"
"$vset" clock "$set_" --jump 200000 >/dev/null
wait "$leader" || fail "the command does not end at a jump"
conclude

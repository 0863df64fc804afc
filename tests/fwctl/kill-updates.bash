#!/usr/bin/env bash
# kill-updates.bash KILLS [SEED]: kills fwctl at random moments of an update, its process, the one that writes, the
# one that watches over that, or the first two, and looks each time at what is left. In a set that has the module "killed" and its image in the system
# image; fwctl is found in PATH. Prints the counts. Ends with 1 when a set was stuck that must not be, when two
# updates wrote at a time, or when doctor did not find or mend a turn that nobody has.
set -uo pipefail

kills=$1
RANDOM=${2:-$$}
semaphore=/dev/shm/sem.SEM_UPDATE_CONTROL
declare -A count=([parent]=0 [child]=0 [watcher]=0 [both]=0 [early]=0 [stuck]=0 [found]=0 [mended]=0)

fail()
{
    echo "FAILED: $*"
    exit 1
}

value()
{
    [[ -e $semaphore ]] || { echo 1; return; }
    od -An -tu4 -N4 "$semaphore" | tr -d ' '
}

# Until no fwctl is left; those that were orphaned finish what they have begun.
wait_for_end()
{
    for ((tick = 0; tick < 200; ++tick)); do
        pgrep -x fwctl >/dev/null || return 0
        sleep 0.1
    done
    fail "a fwctl has not ended: $(ps -eo pid,ppid,stat,args | grep fwctl)"
}

mend()
{
    count[stuck]=$((count[stuck] + 1))
    fwctl doctor >/tmp/doctor 2>&1
    grep -q "whoever took it has ended" /tmp/doctor || fail "doctor does not see it: $(cat /tmp/doctor)"
    count[found]=$((count[found] + 1))
    fwctl doctor --fix >/tmp/doctor 2>&1
    [[ $(value) == 1 ]] || fail "doctor --fix does not give it back: $(cat /tmp/doctor)"
    count[mended]=$((count[mended] + 1))
}

for ((round = 0; round < kills; ++round)); do
    fwctl update killed --source system >/tmp/update 2>&1 &
    parent=$!
    sleep "$(printf '0.%03d' $((RANDOM % 600)))"
    watcher=$(pgrep -o -P "$parent")
    child=$([[ -z $watcher ]] || pgrep -P "$watcher" | tail -1)
    kinds=(parent child watcher both)
    kind=${kinds[RANDOM % 4]}
    case $kind in
    parent) kill -9 "$parent" 2>/dev/null || kind=early ;;
    child) kill -9 ${child:-} 2>/dev/null || kind=early ;;
    watcher) kill -9 ${watcher:-} 2>/dev/null || kind=early ;;
    both) kill -9 "$parent" ${child:-} 2>/dev/null || kind=early ;;
    esac
    count[$kind]=$((count[$kind] + 1))
    # The next one comes at once: it must wait for what an orphan still writes.
    ((RANDOM % 2)) || fwctl update killed --source system >/tmp/next 2>&1
    wait "$parent" 2>/dev/null
    wait_for_end
    [[ ! -e /var/lib/hardware/overlap ]] || fail "two updates wrote at a time, after killing $kind"
    if [[ $(value) != 1 ]]; then
        [[ $kind == both ]] || fail "stuck after killing $kind: $(cat /tmp/update)"
        mend
    fi
done
fwctl update killed --source system >/tmp/update 2>&1 || fail "the last update: $(cat /tmp/update)"
echo "$kills kills: ${count[parent]} of the parent, ${count[child]} of the child, ${count[watcher]} of the watcher, ${count[both]} of both," \
    "${count[early]} too late; stuck ${count[stuck]}, found ${count[found]}, mended ${count[mended]}"

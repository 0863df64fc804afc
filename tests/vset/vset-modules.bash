#!/bin/bash
# vset modules asks control libraries that start processes, print and send signals: each is asked, nobody waits for what
# it leaves behind, and the platform goes on.
. "$(dirname "$0")/vset-common.bash" "$1"
[ "$(id -u)" = 0 ] || skip "needs root"
command -v cc >/dev/null || skip "needs a C compiler"
cd "$work" || exit 1
set_=$work/set
"$vset" new --bare "$set_" >/dev/null

# library NAME STATEMENT: what it does when it is loaded.
library() {
    cat >"$1.c" <<SOURCE
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
__attribute__((constructor)) static void begin(void) { $2; }
int getActiveVersion(char *version) { strcpy(version, "1.0"); return 0; }
SOURCE
    cc -shared -fPIC -o "$1.so" "$1.c" && "$vset" put "$set_" library "$1.so"
}
library orphan 'if (fork() == 0) { sleep(1000); _exit(0); }'
library daemon 'if (fork() == 0) { setsid(); if (fork() == 0) sleep(1000); _exit(0); }'
library printing 'puts("{\"version\": \"9\"}"); fflush(stdout)'
library group 'signal(SIGTERM, SIG_IGN); kill(0, SIGTERM)'
library parent 'kill(getppid(), SIGKILL)'
library hanging 'for (;;) pause()'
library dying 'raise(SIGSEGV)'

: >"$work/run"
"$vset" run "$set_" -- sleep 1000 2>"$work/run" &
started+=($!)
comes_up "$set_" || fail "the set does not come up"
before=$("$vset" exec "$set_" -- pgrep -o platformd)
modules=$("$vset" modules "$set_" 2>&1) || fail "modules: $modules"
for name in orphan daemon printing group; do
    grep -q "^$name  *installed 1.0 " <<<"$modules" || fail "$name is not asked: $modules"
done
for name in hanging dying; do
    grep -q "^$name .*crashes, hangs or cannot be loaded" <<<"$modules" || fail "nothing is told of $name: $modules"
done
grep -q "^parent " <<<"$modules" || fail "parent is missing: $modules"
[ "$("$vset" exec "$set_" -- pgrep -o platformd)" = "$before" ] || fail "a library has ended the platform"
left() { "$vset" exec "$set_" -- pgrep -fa module-probe >"$work/left"; }
gone() { ! left; }
within 60 gone || fail "processes of libraries are left: $(cat "$work/left")"
conclude

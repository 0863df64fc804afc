# shellcheck shell=bash disable=SC2154 # the script that sources it sets them
# For the scripts that try something on fresh systems, after words.bash: such systems, and commands in them. They set
#   base           the fresh system that others are copies of, a Debian 12; made when it is not there
#   base_packages  what is in it besides the least; may be empty
#   work           the directory of this run, where the copies lie
#   binds          options for scripts/in-root, with which every command runs; may be empty
# and stand at the top of the tree.

# quietly COMMAND...: shows what it said only when it fails.
quietly() {
    "$@" >"$work/said" 2>&1 || { tail -60 "$work/said" >&2 && fail "failed: $*"; }
}

# fresh NAME: a copy of the fresh system, $work/NAME.
fresh() {
    (
        flock 9
        [[ -e $base/etc/debian_version ]] || quietly scripts/debian-root bookworm "$base" "${base_packages[@]}"
    ) 9>"$base.lock"
    cp -a --reflink=auto "$base" "$work/$1"
    # Services are started by a boot alone.
    printf '#!/bin/sh\nexit 101\n' >"$work/$1/usr/sbin/policy-rc.d"
    chmod 755 "$work/$1/usr/sbin/policy-rc.d"
    quietly inside "$1" apt-get update
}

# inside NAME COMMAND...: runs it there, with nothing of this PC's environment.
inside() {
    local name=$1
    shift
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 TERM=dumb DEBIAN_FRONTEND=noninteractive \
        scripts/in-root "${binds[@]}" "$work/$name" "$@"
}

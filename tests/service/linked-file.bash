#!/usr/bin/env bash
# linked-file.bash DAEMON fortified|plain: what the daemon's file promises, whatever compiled it: hardened, and without
# the library that only other programs need.
set -euo pipefail
bash "$(dirname "$0")/hardened.bash" "$2" "$1"
mapped=$(LD_TRACE_LOADED_OBJECTS=1 "$1")
! grep -E 'libcrypto|libssl' <<<"$mapped" || { echo "NOT: no libcrypto, because the daemon decrypts nothing" >&2 && exit 1; }

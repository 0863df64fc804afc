#!/usr/bin/env bash
# linked-file.bash DAEMON fortified|plain: what the daemon's file promises, whatever compiled it: hardened, and without
# the library that only other programs need.
set -euo pipefail
daemon=$1
calls=$2
failures=0

# holds WHAT PATTERN TEXT
holds() {
    if grep -qE "$2" <<<"$3"; then
        echo "ok: $1"
    else
        echo "NOT: $1" >&2
        failures=$((failures + 1))
    fi
}

segments=$(readelf -lW "$daemon")
dynamic=$(readelf -dW "$daemon")
symbols=$(readelf -W --dyn-syms "$daemon")
mapped=$(LD_TRACE_LOADED_OBJECTS=1 "$daemon")

holds "position-independent executable" 'Flags:.* PIE' "$dynamic"
holds "read-only relocations" 'GNU_RELRO' "$segments"
holds "all of them, because bound at the start" 'BIND_NOW|Flags:.* NOW' "$dynamic"
holds "a stack without code" 'GNU_STACK .* RW ' "$segments"
holds "stack protector" '__stack_chk_(fail|guard)' "$symbols"
if [[ $calls == fortified ]]; then
    holds "fortified" ' __[a-z]+_chk@' "$(grep -v __stack_chk <<<"$symbols")"
fi
if [[ $(uname -m) =~ ^(x86_64|aarch64)$ ]]; then
    holds "control-flow protection" 'endbr64|paciasp|bti' "$(objdump -d --disassemble=main "$daemon")"
fi
holds "no libcrypto, because the daemon decrypts nothing" '^none$' "$(grep -E 'libcrypto|libssl' <<<"$mapped" || echo none)"
exit $((failures > 0))

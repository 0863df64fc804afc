#!/usr/bin/env bash
# hardened.bash fortified|plain FILE...: each of these programs and libraries is hardened, whatever compiled it. "fortified"
# where an optimiser has seen them: one call at least is one of the C library's checked ones.
set -euo pipefail
calls=$1
shift
failures=0

# holds WHAT PATTERN TEXT
holds() {
    if grep -qE "$2" <<<"$3"; then
        echo "ok: ${file##*/}: $1"
    else
        echo "NOT: ${file##*/}: $1" >&2
        failures=$((failures + 1))
    fi
}

for file; do
    segments=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    symbols=$(readelf -W --dyn-syms "$file")
    if grep -q 'INTERP' <<<"$segments"; then
        holds "position-independent executable" 'Flags:.* PIE' "$dynamic"
    fi
    holds "read-only relocations" 'GNU_RELRO' "$segments"
    holds "all of them, because bound at the start" 'BIND_NOW|Flags:.* NOW' "$dynamic"
    holds "a stack without code" 'GNU_STACK .* RW ' "$segments"
    holds "stack protector" '__stack_chk_(fail|guard)' "$symbols"
    if [[ $calls == fortified ]]; then
        holds "fortified" ' __[a-z]+_chk@' "$(grep -v __stack_chk <<<"$symbols")"
    fi
    if [[ $(uname -m) =~ ^(x86_64|aarch64)$ ]]; then
        holds "control-flow protection" 'endbr64|paciasp|bti' "$(objdump -d "$file" | grep -m1 -E 'endbr64|paciasp|bti')"
    fi
done
exit $((failures > 0))

#!/usr/bin/env bash
# Usage: report-test.bash BENCH-REPORT ROW-BENCH...
# The table, the JSON, the picture and the document that are made of what the rows have measured.
set -euo pipefail
report=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "report-test: $1" >&2
    exit 1
}
must() { "$@" || fail "not so: $*"; }

! "$report" "$work" 2>"$work/errors" || fail "a directory without figures is reported"
must grep -q 'holds no figures' "$work/errors"

for row in "$@"; do
    name=${row##*/}
    "$row" --once --json --benchmark_repetitions=3 >"$work/${name%-bench}.json" 2>"$work/errors"
done
printf 'Before\n<!-- measured: scripts/measure speed writes from here on -->\nold\n<!-- to here -->\nAfter\n' >"$work/document.md"
for _ in 1 2; do # the second time finds the marks where the first has left them
    "$report" "$work" --took 75 --json "$work/all" --picture "$work/picture.svg" --document "$work/document.md" >"$work/table"
done
must grep -q 'checksum of 256 MiB .* raw reads .* byte-wise template .* at most 0.22 of the peer: \(met\|missed\)' "$work/table"
must grep -q '3 alternating runs' "$work/table"
must grep -qx 'measured in 1 min 15 s' "$work/table"
must grep -qE '^[0-2] of 2 goals met(; missed: (wake-ups, idle|checksum of 256 MiB).*)?$' "$work/table"
must grep -q 'wake-ups, idle .* bare service with a heartbeat .* at most 72 a minute: \(met\|missed\)' "$work/table"
must grep -q '"byteWiseTemplate"' "$work/all"
must grep -q '"runs": 3\|"runs" : 3' "$work/all"
must grep -q '^</svg>$' "$work/picture.svg"
must test "$(grep -c 'checksum of 256 MiB' "$work/picture.svg")" = 1
must test "$(head -1 "$work/document.md") $(tail -1 "$work/document.md")" = "Before After"
must test "$(grep -c '^| checksum of 256 MiB |' "$work/document.md")" = 1
must grep -q '^!.*(picture.svg)$' "$work/document.md"
! grep -q '^old$' "$work/document.md" || fail "the old table stays in the document"

# The document's picture has its place, wherever the new one is drawn.
mkdir "$work/elsewhere"
sed -i 's/^\(!.*\)(picture.svg)$/\1(pictures\/speed.svg)/' "$work/document.md"
"$report" "$work" --picture "$work/elsewhere/new.svg" --document "$work/document.md" >"$work/table" 2>"$work/errors"
must grep -q '^!.*(pictures/speed.svg)$' "$work/document.md"
must grep -qx "$work/document.md shows $work/pictures/speed.svg: put $work/elsewhere/new.svg there" "$work/errors"
"$report" "$work" --document "$work/document.md" >"$work/table" 2>"$work/errors"
must grep -q '^!.*(pictures/speed.svg)$' "$work/document.md"
must test ! -s "$work/errors"

# A row that misses both of its goals is named once.
figure() { echo "{\"run_type\": \"iteration\", \"run_name\": \"$1\", \"real_time\": $2}"; }
mkdir "$work/missed"
echo "{\"benchmarks\": [$(figure daemon/10 9), $(figure bareService 1), $(figure updateService 1)]}" >"$work/missed/start.json"
"$report" "$work/missed" >"$work/table"
must grep -qx '0 of 2 goals met; missed: start to the name, 10 modules' "$work/table"

echo "no marks" >"$work/document.md"
! "$report" "$work" --document "$work/document.md" >/dev/null 2>"$work/errors" || fail "a document without marks is written"
must grep -q 'has no lines between which the table belongs' "$work/errors"
must grep -qx 'no marks' "$work/document.md"

echo '{"benchmarks": [' >"$work/checksum.json"
! "$report" "$work" >/dev/null 2>"$work/errors" || fail "half a file is reported"
must grep -q 'checksum.json' "$work/errors"

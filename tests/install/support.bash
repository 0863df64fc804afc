# shellcheck shell=bash
# For the tests of this directory, which are called with SOURCE BUILD...: a temporary directory, and words for what is
# wrong.
set -euo pipefail
# shellcheck disable=SC2034 # for who sources this
source=$(realpath "$1") build=$(realpath "$2")
shift 2
unset DESTDIR
export CMAKE=${CMAKE:-cmake}
work=$(mktemp -d "${TMPDIR:-/tmp}/install-test-XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# files_of DIRECTORY: what is in it, but directories, sorted.
files_of() { (cd "$1" && find . ! -type d -printf '%P\n' | LC_ALL=C sort); }

# must_be WHAT EXPECTED FOUND: compares two texts.
must_be() {
    diff -u --label "expected: $1" --label "found" <(printf '%s\n' "$2") <(printf '%s\n' "$3") || fail "$1 differs"
}

# contains TEXT PATTERN
contains() { grep -q -e "$2" <<<"$1" || fail "\"$2\" is not in: $1"; }

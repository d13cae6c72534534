#!/usr/bin/env bash
# Checks the C interface (kvpcie.h) of a built library against the ABI baseline it promises:
# a function removed or changed, or a record changed other than grown at its end when it
# carries its size, fails; functions added pass.
#   scripts/abi-check.sh LIBRARY                 check against abi/0.2.0
#   scripts/abi-check.sh --baseline FILE LIBRARY check against another dump
#   scripts/abi-check.sh --dump FILE LIBRARY     write LIBRARY's C interface as a baseline
# Exit status: 0 compatible, 1 incompatible, 77 the check cannot run here (saying why).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
baseline=$root/abi/0.2.0/libKvPCIeInjectSdk.abi
suppressions=$root/abi/kvpcie.suppr
dump=""
while [ $# -gt 1 ]; do
    case $1 in
        --baseline) baseline=$2; shift 2 ;;
        --dump) dump=$2; shift 2 ;;
        --suppressions) suppressions=$2; shift 2 ;;
        *) echo "abi-check: unknown option $1" >&2; exit 2 ;;
    esac
done
if [ $# -ne 1 ]; then
    echo "usage: abi-check.sh [--baseline FILE | --dump FILE] LIBRARY" >&2
    exit 2
fi
library=$1

for tool in abidw abidiff python3 readelf; do
    if ! command -v "$tool" >/dev/null; then
        echo "abi-check: SKIP, $tool is not installed (Debian: abigail-tools, python3, binutils)"
        exit 77
    fi
done
# Not grep -q: it would stop reading early, and readelf's broken pipe fails the pipeline.
if ! readelf -S "$library" | grep '\.debug_info' >/dev/null; then
    echo "abi-check: SKIP, $library has no debug information (build it with -g, e.g." \
         "RelWithDebInfo): without it only symbol names could be compared"
    exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Only the kvpcie_ functions are read; abi-prune.py keeps the types they reach.
cat > "$work/c-only.suppr" <<'SUPPR'
[suppress_function]
  name_not_regexp = ^kvpcie_
  drop = yes
[suppress_variable]
  name_not_regexp = ^kvpcie_
  drop = yes
SUPPR
abidw --suppressions "$work/c-only.suppr" --no-corpus-path --no-comp-dir-path --short-locs \
      --no-elf-needed --type-id-style hash "$library" > "$work/whole.abi"
python3 "$root/scripts/abi-prune.py" "$work/whole.abi" "$work/library.abi"

if [ -n "$dump" ]; then
    cp "$work/library.abi" "$dump"
    echo "abi-check: wrote the C interface of $library to $dump"
    exit 0
fi

# The whole report, additions included, for the log; the verdict leaves the additions out.
abidiff "$baseline" "$work/library.abi" || true
status=0
abidiff --no-added-syms --suppressions "$suppressions" "$baseline" "$work/library.abi" \
    > "$work/verdict.txt" || status=$?
if [ $((status & 3)) -ne 0 ]; then
    cat "$work/verdict.txt"
    echo "abi-check: abidiff failed (status $status)"
    exit 1
fi
# The suppression lets a sized record's change through; it must have grown at its end only.
python3 "$root/scripts/abi-records.py" "$baseline" "$work/library.abi" "$suppressions" \
    >> "$work/verdict.txt" || status=$((status | 4))
if [ "$status" -ne 0 ]; then
    echo "abi-check: FAIL, the C interface changed incompatibly against $baseline:"
    cat "$work/verdict.txt"
    exit 1
fi
echo "abi-check: OK, the C interface is compatible with $baseline"

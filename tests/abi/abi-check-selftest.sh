#!/usr/bin/env bash
# The ABI check itself: a probe library built from kvpcie.h is the baseline, and the same probe
# built from changed copies of the header must pass or fail the check as the table says.
#   abi-check-selftest.sh C-COMPILER
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
compiler=${1:-cc}
header=$root/include/KvPCIeInjectSdk/kvpcie.h
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# name | expected verdict | sed program on the header | compiler flags
variants=(
    "unchanged|pass||"
    "statistics grown at the end|pass|s/^} kvpcie_capture_statistics;/    uint64_t added;\n&/|"
    "pulled frame grown at the end|pass|s/^} kvpcie_pulled_frame;/    int32_t added;\n&/|"
    "function added|pass||-DPROBE_WITH_NEW_FUNCTION"
    "function removed|fail||-DPROBE_WITHOUT_FUNCTION"
    "member's type narrowed|fail|/kvpcie_pulled_frame {/,/}/s/uint64_t sequence;/uint32_t sequence;/|"
    "member inserted in the middle|fail|/kvpcie_inject_format {/,/}/s/int32_t width;/int32_t inserted;\n&/|"
    "members swapped|fail|/kvpcie_inject_format {/,/}/{s/int32_t width;/int32_t TMP;/;s/int32_t height;/int32_t width;/;s/int32_t TMP;/int32_t height;/}|"
    "record without size grown|fail|s/^} kvpcie_delay;/    double added;\n&/|"
)

build() { # directory, header, flags
    mkdir -p "$1"
    cp "$2" "$1/kvpcie.h"
    # shellcheck disable=SC2086
    "$compiler" -std=c99 -g -O0 -shared -fPIC -fvisibility=hidden -I"$1" $3 \
        -o "$1/libprobe.so" "$root/tests/abi/abi_probe.c"
}

build "$work/baseline" "$header" "" || exit 1
"$root/scripts/abi-check.sh" --dump "$work/baseline.abi" \
    "$work/baseline/libprobe.so" >/dev/null
status=$?
if [ $status -eq 77 ]; then
    "$root/scripts/abi-check.sh" --dump "$work/baseline.abi" \
        "$work/baseline/libprobe.so"
    exit 77
fi
[ $status -eq 0 ] || { echo "FAIL: the baseline dump failed"; exit 1; }

failures=0
index=0
for row in "${variants[@]}"; do
    IFS='|' read -r name expected program flags <<< "$row"
    directory=$work/variant$((index++))
    mkdir -p "$directory"
    if [ -n "$program" ]; then
        sed "$program" "$header" > "$directory/changed.h"
        if cmp -s "$header" "$directory/changed.h"; then
            echo "FAIL $name: the change did not apply to the header"
            failures=$((failures + 1))
            continue
        fi
    else
        cp "$header" "$directory/changed.h"
    fi
    build "$directory" "$directory/changed.h" "$flags" || { failures=$((failures + 1)); continue; }
    verdict=pass
    "$root/scripts/abi-check.sh" --baseline "$work/baseline.abi" \
        "$directory/libprobe.so" > "$directory/report.txt" 2>&1 || verdict=fail
    if [ "$verdict" = "$expected" ]; then
        echo "ok   $name: $verdict"
    else
        echo "FAIL $name: expected $expected, the check said $verdict"
        cat "$directory/report.txt"
        failures=$((failures + 1))
    fi
done
exit $((failures > 0))

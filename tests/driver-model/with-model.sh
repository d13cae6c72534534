#!/usr/bin/env bash
# Runs a command against the driver model: starts kvpcie-simd on a fresh directory, runs the
# command with KVPCIE_LINUX_ROOT pointing there (and no in-process simulated card; the model's
# process id in KVPCIE_MODEL_PID, for a test that kills it), then stops the model and checks that
# it unmounted. Exits with the command's status, or 77 (skipped) with
# the reason printed when FUSE cannot be used on this machine.
#   with-model.sh [--cards N] SIMD_PROGRAM -- COMMAND [ARGUMENTS...]
set -uo pipefail

cards=1
if [ "${1:-}" = --cards ]; then
    cards=$2
    shift 2
fi
simd=$1
shift
[ "${1:-}" = -- ] && shift

work=$(mktemp -d "${TMPDIR:-/tmp}/kvpcie-model.XXXXXX")
root=$work/root
mkdir -p "$root"
log=$work/simd.log

"$simd" --mount "$root" --cards "$cards" --foreground >"$log" 2>&1 &
simd_pid=$!

stop_model() {
    if kill -0 "$simd_pid" 2>/dev/null; then
        kill -TERM "$simd_pid"
        wait "$simd_pid" 2>/dev/null
    fi
    if grep -qs " $root " /proc/self/mountinfo; then
        echo "with-model.sh: kvpcie-simd left $root mounted" >&2
        fusermount3 -u -z "$root" 2>/dev/null || umount -l "$root" 2>/dev/null
        return 1
    fi
    rm -rf "$work"
}

# Served once the first card's register node is there; a model that ends first says why.
for _ in $(seq 1 200); do
    [ -e "$root/dev/xdma0_user" ] && break
    if ! kill -0 "$simd_pid" 2>/dev/null; then
        wait "$simd_pid"
        status=$?
        cat "$log" >&2
        rm -rf "$work"
        if [ "$status" -eq 3 ]; then
            echo "SKIPPED: FUSE cannot be used on this machine (see above)"
            exit 77
        fi
        echo "with-model.sh: kvpcie-simd ended with status $status before serving" >&2
        exit 1
    fi
    sleep 0.05
done
if [ ! -e "$root/dev/xdma0_user" ]; then
    echo "with-model.sh: kvpcie-simd did not serve $root within 10 s" >&2
    stop_model
    exit 1
fi

env -u KVPCIE_SIM KVPCIE_LINUX_ROOT="$root" KVPCIE_MODEL_ROOT="$root" KVPCIE_MODEL_PID="$simd_pid" "$@"
status=$?
stop_model || status=1
exit "$status"

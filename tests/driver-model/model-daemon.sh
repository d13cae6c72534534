#!/usr/bin/env bash
# kvpcie-simd's own life: one server per directory, a stale mount left by a killed server is
# cleared, a client killed while it waits on an event does not hold the server up, and
# SIGTERM unmounts. Exits 77 (skipped) where FUSE cannot be used.
#   model-daemon.sh SIMD_PROGRAM
set -uo pipefail
simd=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/kvpcie-daemon.XXXXXX")
dir=$work/root
mkdir -p "$dir"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill -KILL "$pid" 2>/dev/null
    done
    fusermount3 -u -z "$dir" 2>/dev/null || umount -l "$dir" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

mounted() { grep -qs " $dir " /proc/self/mountinfo; }

# Starts a foreground server; sets $server. Exits 77 when FUSE is unusable here.
start_server() {
    "$simd" --mount "$dir" --foreground >"$work/simd.log" 2>&1 &
    server=$!
    pids+=("$server")
    for _ in $(seq 1 200); do
        [ -e "$dir/dev/xdma0_user" ] && return 0
        if ! kill -0 "$server" 2>/dev/null; then
            wait "$server"
            local status=$?
            cat "$work/simd.log" >&2
            if [ "$status" -eq 3 ]; then
                echo "SKIPPED: FUSE cannot be used on this machine (see above)"
                exit 77
            fi
            fail "kvpcie-simd ended with status $status"
        fi
        sleep 0.05
    done
    fail "kvpcie-simd did not serve within 10 s"
}

start_server
first=$server

# A second server on the same directory refuses, and says why.
"$simd" --mount "$dir" --foreground >"$work/second.log" 2>&1
[ $? -eq 1 ] || fail "a second kvpcie-simd on $dir did not fail"
grep -q "already mounted" "$work/second.log" || fail "the second server did not say why"
[ -e "$dir/dev/xdma0_user" ] || fail "the second server disturbed the first"

# A client killed while its read waits for an event that never comes.
timeout -s KILL 1 dd if="$dir/dev/xdma0_events_0" of=/dev/null bs=4 count=1 2>/dev/null
[ -e "$dir/dev/xdma0_user" ] || fail "the server did not survive a killed client"

# A server that is killed leaves a stale mount; the next one clears it and serves.
kill -KILL "$first"
wait "$first" 2>/dev/null
mounted || fail "expected the killed server's mount to be left behind"
start_server
grep -q "left mounted by a server that has gone" "$work/simd.log" ||
    fail "the stale mount was not reported"

# SIGTERM unmounts and ends the server promptly.
kill -TERM "$server"
for _ in $(seq 1 40); do
    kill -0 "$server" 2>/dev/null || break
    sleep 0.05
done
kill -0 "$server" 2>/dev/null && fail "kvpcie-simd did not end within 2 s of SIGTERM"
wait "$server"
status=$?
[ "$status" -eq 0 ] || fail "kvpcie-simd ended with status $status on SIGTERM"
mounted && fail "kvpcie-simd left $dir mounted"
echo "ok: daemon"

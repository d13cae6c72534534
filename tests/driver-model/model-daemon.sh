#!/usr/bin/env bash
# kvpcie-simd's own life: one server per directory, stale mounts cleared, blocked clients that
# hold no serving thread, SIGTERM unmounts. Exits 77 (skipped) where FUSE cannot be used.
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
    # Servers that stacked their mounts leave more than one.
    for _ in 1 2 3 4 5 6 7 8; do
        mounted || break
        fusermount3 -u -z "$dir" 2>/dev/null || umount -l "$dir" 2>/dev/null || break
    done
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

mounts() { grep -cs " $dir " /proc/self/mountinfo; }
mounted() { [ "$(mounts)" -gt 0 ]; }

# The state letter of a process (R, S, D, Z...); empty once it has gone.
state_of() { sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1; }
gone() {
    local state
    state=$(state_of "$1")
    [ -z "$state" ] || [ "$state" = Z ]
}

# Waits up to $2 tenths of a second for process $1 to end; its exit status, or 255 if it runs.
wait_end() {
    for _ in $(seq 1 "$2"); do
        gone "$1" && break
        sleep 0.1
    done
    gone "$1" || return 255
    wait "$1" 2>/dev/null
}

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

# read(2) and openat(2) here, to tell from /proc what a process waits in.
case $(uname -m) in
x86_64) read_call=0 open_call=257 ;;
aarch64 | riscv64 | loongarch64) read_call=63 open_call=56 ;;
*)
    echo "SKIPPED: cannot tell a blocked read(2) in /proc on $(uname -m)"
    exit 77
    ;;
esac

# Up to 10 s until every process given waits on the model (a read(2) of descriptor 0, or an open
# not answered) twice in a row; $blocked: how many do.
await_blocked() {
    local steady=0
    for _ in $(seq 1 100); do
        blocked=0
        for pid in "$@"; do
            read -r call fd _ <"/proc/$pid/syscall" 2>/dev/null || continue
            if { [ "$call" = "$read_call" ] && [ "$fd" = 0x0 ]; } || [ "$call" = "$open_call" ]
            then
                blocked=$((blocked + 1))
            fi
        done
        if [ "$blocked" -eq $# ]; then
            steady=$((steady + 1))
            [ "$steady" -ge 2 ] && return 0
        else
            steady=0
        fi
        sleep 0.1
    done
    return 1
}

# Reads the card's identity register; its value in hex, empty when no answer came within 2 s.
read_identity() {
    timeout -s KILL 2 dd if="$dir/dev/xdma0_user" bs=4 count=1 skip=$((0x1F0000 / 4)) \
        2>/dev/null | od -An -tx4 | tr -d ' \n'
}

start_server
first=$server

# A second server on the same directory refuses, and says why, under any of its names.
ln -s "$dir" "$work/link"
for name in "$dir" "$dir/" "$work/link" "$work/link/" "$dir/dev/.."; do
    "$simd" --mount "$name" --foreground >"$work/second.log" 2>&1 &
    second=$!
    pids+=("$second")
    wait_end "$second" 50
    status=$?
    [ "$status" -ne 255 ] || fail "a second kvpcie-simd served $dir named as $name"
    [ "$status" -eq 1 ] || fail "a second kvpcie-simd on $name ended with $status, not 1"
    grep -q "already" "$work/second.log" || fail "the second server on $name did not say why"
    [ "$(mounts)" -eq 1 ] || fail "$dir has $(mounts) mounts after a second server on $name"
    [ -e "$dir/dev/xdma0_user" ] || fail "the second server on $name disturbed the first"
done

# More clients blocked on an event than the server has threads: a register read still answers,
# and killed waiters end at once (not state D). Disowned: the shell reports no kill.
waiters=()
for _ in $(seq 1 72); do
    dd if="$dir/dev/xdma0_events_1" of=/dev/null bs=4 count=1 2>/dev/null &
    waiters+=($!)
    pids+=($!)
    disown $!
done
# dd reads its input on descriptor 0.
await_blocked "${waiters[@]}" || fail "only $blocked of ${#waiters[@]} clients came to wait"
identity=$(read_identity)
[ "$identity" = 53494d31 ] ||
    fail "a register read got '${identity}', not the identity, while ${#waiters[@]} clients waited"
kill -KILL "${waiters[@]}"
for _ in $(seq 1 30); do
    left=0
    for waiter in "${waiters[@]}"; do
        gone "$waiter" || left=$((left + 1))
    done
    [ "$left" -eq 0 ] && break
    sleep 0.1
done
[ "$left" -eq 0 ] || fail "$left killed clients still wait on the event 3 s later (state D)"
[ "$(read_identity)" = 53494d31 ] || fail "the server did not answer after the clients went"

# A client killed while its read waits for an event that never comes.
timeout -s KILL 1 dd if="$dir/dev/xdma0_events_0" of=/dev/null bs=4 count=1 2>/dev/null
[ -e "$dir/dev/xdma0_user" ] || fail "the server did not survive a killed client"

# The Windows model's event nodes: a read at offset N waits at most N ms; 0 without an event.
wine_event() {
    timeout -s KILL 5 dd if="$dir/wine/xdma0_event_0" bs=1 count=1 skip="$1" 2>/dev/null |
        od -An -tu1 | tr -d ' \n'
}
write_register() {
    printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($2 & 255)) $(($2 >> 8 & 255)) \
        $(($2 >> 16 & 255)) $(($2 >> 24 & 255)))" |
        dd of="$dir/dev/xdma0_user" bs=4 count=1 seek=$(($1 / 4)) conv=notrunc 2>/dev/null
}
started=$(date +%s%N)
[ "$(wine_event 300)" = 0 ] || fail "a Windows event read without an event did not answer 0"
waited=$((($(date +%s%N) - started) / 1000000))
[ "$waited" -ge 250 ] || fail "a Windows event read asked to wait 300 ms answered after $waited ms"
write_register $((0x101010)) 64     # capture frames of 64 bytes
write_register $((0x100018)) 1      # on channel 0, at the source's 25 per second
[ "$(wine_event 2000)" = 1 ] || fail "a Windows event read did not see the frame's event"
write_register $((0x100018)) 0

# A server that is killed leaves a stale mount; the next one clears it and serves.
kill -KILL "$first"
wait "$first" 2>/dev/null
mounted || fail "expected the killed server's mount to be left behind"
start_server
grep -q "left mounted by a server that has gone" "$work/simd.log" ||
    fail "the stale mount was not reported"

# SIGTERM unmounts and ends the server promptly.
kill -TERM "$server"
wait_end "$server" 20
status=$?
[ "$status" -ne 255 ] || fail "kvpcie-simd did not end within 2 s of SIGTERM"
[ "$status" -eq 0 ] || fail "kvpcie-simd ended with status $status on SIGTERM"
mounted && fail "kvpcie-simd left $dir mounted"

# Two servers started at once (released by one write to a pipe this shell holds open): one
# serves, one refuses, nothing is left mounted. 1 round in 8 met the race.
for round in $(seq 1 32); do
    rm -f "$work/go"
    mkfifo "$work/go"
    exec 3<>"$work/go"
    racers=()
    for name in a b; do
        { exec 3>&- && read -r _ <"$work/go" && exec "$simd" --mount "$dir" --foreground; } \
            >"$work/race-$name.log" 2>&1 &
        racers+=($!)
        pids+=($!)
    done
    await_blocked "${racers[@]}" || fail "round $round: the servers did not come to the start"
    printf 'go\ngo\n' >&3
    for _ in $(seq 1 100); do
        [ "$(mounts)" -gt 1 ] && break
        if gone "${racers[0]}" || gone "${racers[1]}"; then
            [ -e "$dir/dev/xdma0_user" ] && break
        fi
        sleep 0.1
    done
    [ "$(mounts)" -le 1 ] || fail "round $round: both servers started at once mounted $dir"
    if gone "${racers[0]}"; then
        loser=${racers[0]} winner=${racers[1]} log=$work/race-a.log
    else
        loser=${racers[1]} winner=${racers[0]} log=$work/race-b.log
    fi
    gone "$loser" || fail "round $round: neither of two servers started at once refused"
    gone "$winner" && fail "round $round: both servers started at once ended"
    wait "$loser" 2>/dev/null
    status=$?
    [ "$status" -eq 1 ] || fail "round $round: the refused server ended with $status, not 1"
    grep -q "already" "$log" || fail "round $round: the refused server did not say why"
    [ -e "$dir/dev/xdma0_user" ] || fail "round $round: the remaining server does not serve"
    kill -TERM "$winner"
    wait_end "$winner" 20
    [ $? -eq 0 ] || fail "round $round: the serving server did not end cleanly on SIGTERM"
    mounted && fail "round $round: a mount was left on $dir after both servers ended"
    exec 3>&-
done
echo "ok: daemon"

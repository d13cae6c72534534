#!/usr/bin/env bash
# One check of the kvpcie tool against the driver model, under with-model.sh; every kvpcie is a
# process of its own.
#   model-cli.sh CHECK KVPCIE_PROGRAM
set -uo pipefail
check=$1
kvpcie=$2
root=$KVPCIE_MODEL_ROOT
scratch=$(mktemp -d "${TMPDIR:-/tmp}/kvpcie-cli.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Runs kvpcie; its output goes to $scratch/out and $scratch/err, and is shown.
run() {
    "$kvpcie" "$@" >"$scratch/out" 2>"$scratch/err"
    local status=$?
    cat "$scratch/out"
    cat "$scratch/err" >&2
    return $status
}

case "$check" in
list)
    run list || fail "kvpcie list failed"
    grep -q "$root/dev/xdma0" "$scratch/out" || fail "kvpcie list does not show $root/dev/xdma0"
    ;;
loopback)
    # Twice on the one card: the second run must see nothing of the first (no replayed frame).
    for round in 1 2; do
        run loopback --seconds 3 --width 160 --height 120 ||
            fail "kvpcie loopback $round failed"
        grep -q '^PASS' "$scratch/out" || fail "kvpcie loopback $round did not print PASS"
    done
    ;;
two-cards)
    # Two cards (with-model.sh --cards 2): both listed, one loopback on both, registers apart.
    run list || fail "kvpcie list failed"
    grep -q "$root/dev/xdma1" "$scratch/out" || fail "kvpcie list does not show $root/dev/xdma1"
    run --card 0 --card 1 loopback --seconds 3 --channels 0,2 --width 160 --height 120 ||
        fail "kvpcie loopback on two cards failed"
    grep -q '^PASS' "$scratch/out" || fail "kvpcie loopback on two cards did not print PASS"
    grep -q '^card  channel' "$scratch/out" || fail "the table of two cards has no card column"
    run --card 1 reg write 0x1F1004 33 || fail "reg write on card 1 failed"
    run --card 0 reg read 0x1F1004 || fail "reg read on card 0 failed"
    grep -qi '0x0*21$' "$scratch/out" && fail "card 0 reads what was written on card 1"
    run --card 1 reg read 0x1F1004 || fail "reg read on card 1 failed"
    grep -qi '0x0*21$' "$scratch/out" || fail "card 1 read $(cat "$scratch/out"), not 0x21"
    ;;
registers)
    # One process writes, the next reads the same card.
    run reg write 0x1F1004 10 || fail "reg write failed"
    run reg read 0x1F1004 || fail "reg read failed"
    grep -qi '0x0*a$' "$scratch/out" || fail "a second process read $(cat "$scratch/out"), not 0xa"
    # The sysfs restart of the next opener clears the delay test register...
    run reg write 0x100024 7 || fail "reg write failed"
    run reg read 0x100024 || fail "reg read failed"
    grep -qi '0x0*0$' "$scratch/out" || fail "the restart did not reach the card"
    ;;
restart-in-use)
    # ... but not while another process holds the card: the opener goes on without a restart.
    "$kvpcie" status 0 --seconds 5 >/dev/null 2>&1 &
    holder=$!
    for _ in $(seq 1 100); do
        # The control node is opened last, after the holder's own restart.
        ls -l "/proc/$holder/fd" 2>/dev/null | grep -q "$root/dev/xdma0_control" && break
        sleep 0.05
    done
    run reg write 0x100024 7 || fail "reg write failed"
    run reg read 0x100024 || fail "reg read failed"
    grep -qi '0x0*7$' "$scratch/out" || fail "a card in use was restarted under its user"
    grep -q "continuing without a restart" "$scratch/err" || fail "the refused restart was not told"
    kill "$holder" 2>/dev/null
    wait "$holder"
    ;;
capture-inject)
    # One process plays frames into inject channel 0, another captures them back in loopback.
    run reg write 0x1F1000 1 || fail "loopback switch failed"
    "$kvpcie" inject --channel 0 --width 320 --height 240 --type Y8 --rate 50 --seconds 5 \
        >"$scratch/inject.out" 2>&1 &
    injector=$!
    sleep 1.5
    run capture --channels 0 --width 320 --height 240 --type Y8 --card-timing --seconds 2 \
        --snapshot "$scratch/shot" --json || fail "capture failed"
    wait "$injector" || { cat "$scratch/inject.out"; fail "inject failed"; }
    grep -q '"frames": [1-9]' "$scratch/out" || fail "the capture got no frame"
    # Unplayed, the loopback captures zeros: grey levels came from the other process.
    python3 - "$scratch/shot/channel0.png" <<'PY' || fail "the captured frame is blank"
import struct, sys, zlib
data = open(sys.argv[1], "rb").read()
at, idat = 8, b""
while at < len(data):
    length, kind = struct.unpack(">I4s", data[at:at + 8])
    if kind == b"IDAT":
        idat += data[at + 8:at + 8 + length]
    at += 12 + length
pixels = zlib.decompress(idat)
sys.exit(0 if len(set(pixels)) > 8 else 1)
PY
    ;;
card-lost)
    # The server killed under a capture and an injection: each says the card is gone and exits 1.
    [ -n "${KVPCIE_MODEL_PID:-}" ] || fail "with-model.sh gives no KVPCIE_MODEL_PID"
    # One after the other: each open restarts the card.
    "$kvpcie" inject --channel 1 --width 160 --height 120 --type Y8 --rate 50 --seconds 30 \
        --json >"$scratch/inject.out" 2>"$scratch/inject.err" &
    injector=$!
    for _ in $(seq 1 200); do
        grep -qs "frames queued" "$scratch/inject.out" "$scratch/inject.err" && break
        sleep 0.05
    done
    "$kvpcie" capture --channels 0 --width 160 --height 120 --type Y8 --card-timing \
        --seconds 30 --json >"$scratch/capture.out" 2>"$scratch/capture.err" &
    capturer=$!
    for _ in $(seq 1 200); do
        grep -qs "frames, " "$scratch/capture.out" "$scratch/capture.err" && break
        sleep 0.05
    done
    kill -KILL "$KVPCIE_MODEL_PID"
    killed=$(date +%s%N)
    wait "$capturer"
    captured=$?
    wait "$injector"
    injected=$?
    took=$((($(date +%s%N) - killed) / 1000000))
    # Its mount stays behind until it is taken away; with-model.sh then finds it gone.
    fusermount3 -u -z "$root" 2>/dev/null || umount -l "$root" 2>/dev/null
    cat "$scratch/capture.err" "$scratch/inject.err" >&2
    [ "$captured" -eq 1 ] || fail "capture exited with $captured, not 1"
    [ "$injected" -eq 1 ] || fail "inject exited with $injected, not 1"
    grep -q "is gone" "$scratch/capture.err" || fail "capture did not say the card is gone"
    grep -q "is gone" "$scratch/inject.err" || fail "inject did not say the card is gone"
    grep -q '"cardLost": true' "$scratch/capture.out" || fail "capture's JSON has no cardLost"
    grep -q '"cardLost": true' "$scratch/inject.out" || fail "inject's JSON has no cardLost"
    [ "$took" -lt 10000 ] || fail "the runs ended $took ms after the loss"
    echo "both runs ended $took ms after the server was killed"
    ;;
*)
    fail "unknown check $check"
    ;;
esac
echo "ok: $check"

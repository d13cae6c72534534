#!/usr/bin/env bash
# One check of kvpcie.exe against the Windows driver model, run by with-wine-model.sh (which
# sets KVPCIE_MODEL_CARD): every kvpcie.exe below is a process of its own, as a user's console
# would start it.
#   wine-model-cli.sh CHECK WINE_RUN KVPCIE_EXE
set -uo pipefail
check=$1
wine_run=$2
kvpcie=$3
scratch=$(mktemp -d "${TMPDIR:-/tmp}/kvpcie-wine-cli.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Runs kvpcie.exe; its output (without Windows line ends) goes to $scratch/out, and is shown.
run() {
    "$wine_run" "$kvpcie" "$@" >"$scratch/raw" 2>"$scratch/err"
    local status=$?
    tr -d '\r' <"$scratch/raw" >"$scratch/out"
    cat "$scratch/out"
    cat "$scratch/err" >&2
    return $status
}

case "$check" in
list)
    run list || fail "kvpcie.exe list failed"
    grep -qF "$KVPCIE_MODEL_CARD" "$scratch/out" || fail "kvpcie.exe list does not show $KVPCIE_MODEL_CARD"
    # The RIFFA device answers the list request through DeviceIoControl.
    run list --riffa || fail "kvpcie.exe list --riffa failed"
    grep -q '^2 RIFFA device' "$scratch/out" || fail "kvpcie.exe list --riffa does not list the model's two devices"
    grep -q 'KvSimRiffa' "$scratch/out" || fail "kvpcie.exe list --riffa does not show the device's name"
    ;;
registers)
    # One process writes, the next reads the same card...
    run reg write 0x1F1004 10 || fail "reg write failed"
    run reg read 0x1F1004 || fail "reg read failed"
    grep -qi '0x0*a$' "$scratch/out" || fail "a second process read $(cat "$scratch/out"), not 0xa"
    # ... and the restart of the next opener (the device removed and added again) reaches it.
    run reg write 0x100024 7 || fail "reg write failed"
    run reg read 0x100024 || fail "reg read failed"
    grep -qi '0x0*0$' "$scratch/out" || fail "the restart did not reach the card"
    ;;
loopback)
    for round in 1 2; do
        run loopback --seconds 3 --width 160 --height 120 || fail "kvpcie.exe loopback $round failed"
        tail -n 1 "$scratch/out" | grep -qx PASS || fail "kvpcie.exe loopback $round did not end in PASS"
    done
    ;;
removed)
    # Windows takes card 0 away (its device removed, as an unplug does) while kvpcie.exe
    # captures: the run says so and ends with 1; once the device is back the card opens again.
    installer=$KVPCIE_MODEL_DIR/kvpcie-model-install.exe
    # Wine itself, not $wine_run, whose files hand the output over only at the end; the
    # session is started by a first run through $wine_run.
    run --version >/dev/null || fail "kvpcie.exe --version failed"
    "${KVPCIE_WINE:-/usr/lib/wine/wine64}" "$kvpcie" capture --seconds 60 --channels 0 \
        >"$scratch/capture" 2>"$scratch/capture-err" &
    capturing=$!
    for _ in $(seq 1 300); do
        grep -q 'frames, ' "$scratch/capture" && break
        kill -0 "$capturing" 2>/dev/null || break
        sleep 0.1
    done
    grep -q 'frames, ' "$scratch/capture" || fail "kvpcie.exe capture did not start: $(cat "$scratch/capture-err")"
    "$wine_run" "$installer" remove 1 || fail "the card's device was not removed"
    wait "$capturing"
    status=$?
    "$wine_run" "$installer" install "$KVPCIE_MODEL_DIR/kvpcie_model.inf" "$KVPCIE_MODEL_DIR/card" 2 \
        >/dev/null || fail "the card's device was not added again"
    tr -d '\r' <"$scratch/capture-err"
    [ "$status" -eq 1 ] || fail "kvpcie.exe capture ended with $status after the removal, not 1"
    grep -q 'card 0 is gone' "$scratch/capture-err" || fail "kvpcie.exe did not say that the card is gone"
    run reg read 0x1F0000 || fail "the card did not open again after it came back"
    ;;
*)
    fail "unknown check $check"
    ;;
esac

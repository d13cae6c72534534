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
    grep -q '^1 RIFFA device' "$scratch/out" || fail "kvpcie.exe list --riffa does not list the model's device"
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
*)
    fail "unknown check $check"
    ;;
esac

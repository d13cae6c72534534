#!/usr/bin/env bash
# Runs a Windows program against the Windows driver model, inside with-model.sh (which serves a
# fresh kvpcie-simd card at KVPCIE_MODEL_ROOT): points the model driver's card folder there,
# and runs the command in the model's own Wine prefix with the test-only cfgmgr32.dll in place
# of Wine's, and KVPCIE_MODEL_CARD set to the card's interface path. Exits with the command's
# status, or 77 (skipped) with the reason when the model is not installed.
#   with-wine-model.sh MODEL_DIR -- COMMAND [ARGUMENTS...]
set -uo pipefail
model=$1
shift
[ "${1:-}" = -- ] && shift

if [ ! -s "$model/card-path.txt" ] || [ ! -d "$model/wine" ]; then
    echo "SKIPPED: the Windows driver model is not installed in $model (scripts/windows-check.sh installs it)"
    exit 77
fi
# The driver opens the card's files through this link at every open.
ln -sfn "$KVPCIE_MODEL_ROOT" "$model/card"
export WINEPREFIX=$model/wine
export WINEDLLOVERRIDES="mscoree,mshtml=;cfgmgr32=n"
KVPCIE_MODEL_CARD=$(head -n 1 "$model/card-path.txt" | tr -d '\r')
export KVPCIE_MODEL_CARD
unset KVPCIE_SIM
"$@"

#!/usr/bin/env bash
# Runs a Windows program against the Windows driver model inside with-model.sh, in the model's
# Wine prefix, with KVPCIE_MODEL_CARD (and KVPCIE_MODEL_CARD1) set; 77 when it is not installed.
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
# The XDMA cards' interface paths, card 0 first; a second card when the model has one.
xdma_cards=$(tr -d '\r' <"$model/card-path.txt" | grep -i '#kvpcie_model_ven')
KVPCIE_MODEL_CARD=$(sed -n 1p <<<"$xdma_cards")
KVPCIE_MODEL_CARD1=$(sed -n 2p <<<"$xdma_cards")
export KVPCIE_MODEL_CARD KVPCIE_MODEL_CARD1
export KVPCIE_MODEL_DIR=$model  # its installer, INF and card folder
unset KVPCIE_SIM
"$@"

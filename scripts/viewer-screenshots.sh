#!/usr/bin/env bash
# Makes the README's pictures of kvviewer from its demo on the simulated card: the window with
# the inspector, and with the inject panel.
#   viewer-screenshots.sh KVVIEWER OUTPUT_DIR
set -euo pipefail
viewer=$1
out=$2
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$out"
settings=$(mktemp -d)
trap 'rm -rf "$settings"' EXIT
for tab in inspect inject; do
    XDG_CONFIG_HOME=$settings LP_NUM_THREADS=0 \
        "$here/../tests/support/with-xvfb.sh" -s "-screen 0 1400x1000x24" \
        "$viewer" --sim --demo --no-settings --type Y8 --width 320 --height 256 --tab "$tab" \
        --quit-after 3000 --window-screenshot "$out/kvviewer-$tab.png" >/dev/null
done
echo "viewer-screenshots.sh: $out/kvviewer-inspect.png and $out/kvviewer-inject.png"

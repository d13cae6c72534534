#!/usr/bin/env bash
# The plugin from the command line, as the README shows it, in a folder of its own; 77 (skip)
# when a program or element is missing.   gst-cli.sh inspect|eos|readme|display PLUGIN_DIR
set -euo pipefail
check=$1
plugin_dir=$(cd "$2" && pwd)
export GST_PLUGIN_PATH=$plugin_dir
export GST_REGISTRY=$PWD/registry.bin
export KVPCIE_SIM=1

fail() { echo "FAIL: $*" >&2; exit 1; }
need() {
    for program in "$@"; do
        command -v "$program" >/dev/null || { echo "skipped: $program is not installed"; exit 77; }
    done
}
need_elements() {
    for element in "$@"; do
        gst-inspect-1.0 --exists "$element" ||
            { echo "skipped: the GStreamer element $element is not installed"; exit 77; }
    done
}
# Runs a pipeline; fails unless it ends with EOS within 60 s. Its output goes to $1.log.
launch() {
    local log=$1
    shift
    timeout 60 gst-launch-1.0 "$@" >"$log.log" 2>&1 || { cat "$log.log"; fail "gst-launch-1.0 $*"; }
    grep -q "Got EOS from element" "$log.log" || { cat "$log.log"; fail "no EOS: $*"; }
}
# How many different byte values a file holds (a blank picture has one).
distinct_values() {
    od -An -v -tu1 "$1" | tr -s ' ' '\n' | sed '/^$/d' | sort -u | wc -l
}
# Fails when a file holds fewer than $2 different byte values.
varied() {
    local values
    values=$(distinct_values "$1")
    echo "$1: $values different byte values"
    [ "$values" -ge "$2" ] || fail "$1 looks blank"
}

need gst-launch-1.0 gst-inspect-1.0 timeout od
case $check in
inspect)
    src=$(gst-inspect-1.0 kvpciesrc) || fail "gst-inspect-1.0 does not find kvpciesrc"
    for property in device channel card-timing record stats num-buffers do-timestamp; do
        grep -qE "^  $property +:" <<<"$src" || fail "kvpciesrc lists no $property"
    done
    sink=$(gst-inspect-1.0 kvpciesink) || fail "gst-inspect-1.0 does not find kvpciesink"
    for property in device channel line-period stats; do
        grep -qE "^  $property +:" <<<"$sink" || fail "kvpciesink lists no $property"
    done
    grep -q "Y16&Y8\|GRAY16_LE" <<<"$src" || fail "kvpciesrc lists no GRAY16_LE caps"
    ;;
eos)
    # The line of the README, and nothing from Qt about a missing application or event loop.
    rm -rf VideoRecord
    launch eos kvpciesrc num-buffers=50 ! video/x-raw,format=GRAY8,width=320,height=240 ! fakesink
    # A source that does not record leaves no recording folder behind.
    [ ! -e VideoRecord ] || fail "kvpciesrc without record=true made VideoRecord"
    if grep -E "QObject|QEventLoop|QThread|QTimer|QSocketNotifier|QCoreApplication" eos.log; then
        fail "Qt warned"
    fi
    ;;
readme)
    need_elements videoconvert pngenc multifilesink vp8enc webmmux videotestsrc
    rm -f frame-*.png channel0.webm
    # The README's lines, as written there.
    launch png kvpciesrc channel=1 num-buffers=10 ! video/x-raw,format=GRAY8,width=320,height=240 ! \
        videoconvert ! pngenc ! multifilesink location=frame-%03d.png
    [ -f frame-009.png ] && [ ! -f frame-010.png ] || fail "not exactly 10 PNG files"
    [ "$(od -An -tx1 -N4 frame-000.png | tr -d ' ')" = 89504e47 ] || fail "frame-000.png is no PNG"
    launch webm -e kvpciesrc num-buffers=50 ! video/x-raw,format=UYVY,width=640,height=480 ! \
        videoconvert ! vp8enc deadline=1 ! webmmux ! filesink location=channel0.webm
    [ "$(od -An -tx1 -N4 channel0.webm | tr -d ' ')" = 1a45dfa3 ] || fail "channel0.webm is no WebM"
    launch inject videotestsrc num-buffers=100 ! \
        video/x-raw,format=GRAY8,width=640,height=480,framerate=50/1 ! kvpciesink channel=1
    rm -rf VideoRecord
    launch record kvpciesrc channel=2 record=true num-buffers=25 ! \
        video/x-raw,format=GRAY8,width=64,height=32 ! fakesink
    # Folders count channels from 1.
    ls VideoRecord/Capture3/*/*.raw >/dev/null 2>&1 || fail "record=true wrote no VideoRecord/Capture3/*/*.raw"
    ;;
display)
    # The README's display line under an X server of its own, then a screenshot of that server.
    if [ -z "${KVPCIE_ON_OWN_DISPLAY:-}" ]; then
        need Xvfb
        export KVPCIE_ON_OWN_DISPLAY=1
        exec "$(dirname "$0")/../support/with-xvfb.sh" -s "-screen 0 1024x768x24" "$0" "$@"
    fi
    need_elements videoconvert autovideosink ximagesrc
    gst-launch-1.0 kvpciesrc ! videoconvert ! autovideosink >display.log 2>&1 &
    shown=$!
    trap 'kill $shown 2>/dev/null || true' EXIT
    # The pattern's ramp shows some 64 grey values through ximagesink's BGRx, an empty screen a
    # few; a busy machine may take a while to draw the window: up to 20 tries.
    for attempt in $(seq 20); do
        sleep 1
        kill -0 $shown 2>/dev/null || { cat display.log; fail "the display pipeline ended"; }
        rm -f screen.gray
        # A screenshot taken while the server is still busy with the new window may fail too.
        if timeout 60 gst-launch-1.0 ximagesrc num-buffers=1 use-damage=false ! videoconvert ! \
               video/x-raw,format=GRAY8 ! filesink location=screen.gray >screenshot.log 2>&1 &&
           [ "$(distinct_values screen.gray)" -ge 48 ]; then
            break
        fi
    done
    [ -s screen.gray ] || { cat screenshot.log; fail "no screenshot"; }
    echo "screenshot $attempt"
    varied screen.gray 48
    ;;
*)
    fail "unknown check $check"
    ;;
esac
echo "PASS: $check"

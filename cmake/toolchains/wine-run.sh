#!/bin/sh
# Runs a Windows program under Wine for CTest. The first Wine program of a session starts the
# wineserver and Wine's service processes (the desktop among them), and they inherit its
# standard error: a test that did so would look unfinished to CTest until the session ended. So
# the session is started here first, detached from every test's output, and kept for a minute
# after its last program. The desktop keeps the X display it started with, so a session started
# on another display (or on none, as during the build) is ended first.
wine=${KVPCIE_WINE:-/usr/lib/wine/wine64}
wineserver=${KVPCIE_WINESERVER:-$(dirname "$wine")/wineserver}
prefix=${WINEPREFIX:-$HOME/.wine}
mkdir -p "$prefix"
start_session() {
    (
        flock 9
        # The lock is not handed down: the session's processes outlive this one.
        marker=$prefix/.kvpcie-session-display
        if ! "$wineserver" -p60 </dev/null >/dev/null 2>&1 9>&-; then
            [ "$(cat "$marker" 2>/dev/null)" = "display=${DISPLAY:-}" ] && exit 0
            "$wineserver" -k 9>&-
            "$wineserver" -w 9>&-
            "$wineserver" -p60 </dev/null >/dev/null 2>&1 9>&-
        fi
        echo "display=${DISPLAY:-}" > "$marker"
        "$wine" cmd /c exit </dev/null >/dev/null 2>&1 9>&-
    ) 9>"$prefix/.kvpcie-session.lock"
}
start_session
# The program's output goes through files: a Wine process that the program starts, or that
# Wine starts for it when its session had just ended after all, would otherwise hold the
# test's pipes open long after the program has exited.
out=$(mktemp) && err=$(mktemp) || exit 1
trap 'rm -f "$out" "$err"' EXIT
"$wine" "$@" >"$out" 2>"$err"
status=$?
# A program that ran printed something (every suite prints its header first). Nothing at all and
# a failure means Wine did not start it, which has been seen once in a long run: say so, and try
# once more on a fresh session check.
if [ "$status" -ne 0 ] && [ ! -s "$out" ] && [ ! -s "$err" ]; then
    echo "wine-run: Wine ended with $status before the program printed anything; trying again" >&2
    start_session
    "$wine" "$@" >"$out" 2>"$err"
    status=$?
fi
cat "$out"
cat "$err" >&2
exit $status

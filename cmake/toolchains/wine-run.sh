#!/bin/sh
# Runs a Windows program under Wine for CTest. The first Wine program of a session starts the
# wineserver and Wine's service processes, and they inherit its standard error: a test that did
# so would look unfinished to CTest until the session ended. So the session is started here
# first, detached from every test's output, and kept for a minute after its last program.
wine=${KVPCIE_WINE:-/usr/lib/wine/wine64}
wineserver=${KVPCIE_WINESERVER:-$(dirname "$wine")/wineserver}
prefix=${WINEPREFIX:-$HOME/.wine}
mkdir -p "$prefix"
(
    flock 9
    # The lock is not handed down: the session's processes outlive this one.
    if "$wineserver" -p60 </dev/null >/dev/null 2>&1 9>&-; then
        "$wine" cmd /c exit </dev/null >/dev/null 2>&1 9>&-
    fi
) 9>"$prefix/.kvpcie-session.lock"
exec "$wine" "$@"

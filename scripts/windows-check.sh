#!/usr/bin/env bash
# Cross-builds the whole SDK for 64-bit Windows (KvPCIeInjectSdk.dll, the tools, the examples and
# every suite) with mingw-w64 against Qt 5.15 for Windows, runs the suites as .exe files under
# Wine, and then the main job: kvpcie.exe --sim loopback; last, cpack writes the release zip.
#
# Qt for Windows comes from the archive in ../shared/qt5-mingw/ (or KVPCIE_QT_MINGW_ARCHIVE) and is
# unpacked into build-mingw/. Without it, only the layers below Qt are checked (preset
# mingw-qt-free), and the script says so.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
scripts/setup.sh g++-mingw-w64-x86-64-posix wine64 xvfb xauth
export WINEDEBUG=-all

archive=${KVPCIE_QT_MINGW_ARCHIVE:-$root/../shared/qt5-mingw/qt5.15.8-x86_64-w64-mingw32-posix.tar.xz}
if [ ! -f "$archive" ] && [ ! -d build-mingw/kvqt5-mingw ]; then
    echo "windows-check: no Qt for Windows at $archive: checking only the layers below Qt" >&2
    export WINEPREFIX=$root/build-mingw-qt-free/wine
    mkdir -p "$WINEPREFIX"
    cmake --preset mingw-qt-free
    cmake --build --preset mingw-qt-free
    ctest --preset mingw-qt-free
    exit 0
fi

export WINEPREFIX=$root/build-mingw/wine
wine=/usr/lib/wine/wine64
stage() { echo "windows-check: $1 took $2 s"; }

start=$SECONDS
mkdir -p "$WINEPREFIX"
"$wine" wineboot --init >/dev/null 2>&1 || true   # once per prefix; 10-20 s when new
/usr/lib/wine/wineserver -w
stage "Wine prefix" $((SECONDS - start))

start=$SECONDS
cmake --preset mingw -DKVPCIE_QT_MINGW_ARCHIVE="$archive"
cmake --build --preset mingw
stage "build" $((SECONDS - start))

# One X display for the whole run: Wine's processes share one desktop, and the display and
# viewer suites draw OpenGL on it.
start=$SECONDS
xvfb-run -a -s "-screen 0 1280x1024x24" ctest --preset mingw
stage "suite under Wine" $((SECONDS - start))

# The main job, as a user runs it on Windows: from a folder of its own, the tool from bin/ with
# the DLLs beside it and no search path set.
start=$SECONDS
run_dir=build-mingw/loopback-run
rm -rf "$run_dir" && mkdir -p "$run_dir"
(cd "$run_dir" &&
    env -u WINEPATH "$root/cmake/toolchains/wine-run.sh" "$root/build-mingw/bin/kvpcie.exe" --sim loopback) |
    tee build-mingw/loopback.txt
tr -d '\r' < build-mingw/loopback.txt | tail -n 1 | grep -qx PASS
stage "kvpcie.exe --sim loopback" $((SECONDS - start))
# The release: the zip of bin/, lib/, include/, the examples and the README, beside the build.
start=$SECONDS
(cd build-mingw && cpack -G ZIP)
stage "cpack" $((SECONDS - start))
/usr/lib/wine/wineserver -k || true   # the suite's session outlives its last program by a minute

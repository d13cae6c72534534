#!/usr/bin/env bash
# Cross-builds the whole SDK for 64-bit Windows (KvPCIeInjectSdk.dll, the tools, the examples and
# every suite) with mingw-w64 against Qt 5.15 for Windows, installs the Windows driver model
# (tools/kvpcie-wdm) into a Wine prefix of its own, runs the suites as .exe files under Wine
# (those labelled windows-driver-model through the model driver), and then the main job:
# kvpcie.exe --sim loopback, and kvpcie.exe list and loopback on the model driver; last, cpack
# writes the release zip.
#
# Qt for Windows comes from the archive in ../shared/qt5-mingw/ (or KVPCIE_QT_MINGW_ARCHIVE) and is
# unpacked into build-mingw/. Without it, only the layers below Qt are checked (preset
# mingw-qt-free), and the script says so.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
scripts/setup.sh g++-mingw-w64-x86-64-posix wine64 xvfb xauth mingw-w64-x86-64-dev
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

# The model driver's card is served by kvpcie-simd, a Linux program of the Linux build.
start=$SECONDS
[ -f build/CMakeCache.txt ] || scripts/configure.sh
cmake --build build --target kvpcie-simd
simd=$root/build/tools/kvpcie-simd/kvpcie-simd
stage "kvpcie-simd" $((SECONDS - start))

start=$SECONDS
cmake --preset mingw -DKVPCIE_QT_MINGW_ARCHIVE="$archive" -DKVPCIE_SIMD_PROGRAM="$simd"
cmake --build --preset mingw
stage "build" $((SECONDS - start))

# The Windows driver model in a fresh prefix of its own, so that the other suites list no card
# of it: the driver with two cards, its card folder (a link that each test points at its own kvpcie-simd),
# and the test-only cfgmgr32.dll for the library's restart.
start=$SECONDS
model=$root/build-mingw/driver-model
(
    export WINEPREFIX=$model/wine WINEDLLOVERRIDES="mscoree,mshtml="
    /usr/lib/wine/wineserver -k 2>/dev/null || true
    /usr/lib/wine/wineserver -w 2>/dev/null || true
    rm -rf "$WINEPREFIX" "$model/card-path.txt"
    mkdir -p "$WINEPREFIX"
    "$wine" wineboot --init >/dev/null 2>&1 || true
    # A driver installed in the session that made the prefix never starts under Wine 8: the
    # installation gets a session of its own.
    /usr/lib/wine/wineserver -k 2>/dev/null || true
    /usr/lib/wine/wineserver -w 2>/dev/null || true
    cp "$model/restart/cfgmgr32.dll" "$WINEPREFIX/drive_c/windows/system32/cfgmgr32.dll"
    "$wine" "$model/kvpcie-model-install.exe" install "$model/kvpcie_model.inf" "$model/card" 2 |
        tr -d '\r' >"$model/card-path.txt"
    /usr/lib/wine/wineserver -k 2>/dev/null || true
)
grep -q '^\\\\?\\' "$model/card-path.txt"
stage "driver model installed" $((SECONDS - start))

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

# The main job without --sim: the cards that the model driver serves, listed by their interface
# paths, and card 0 looped back. Frames of 320 x 256: four channels of the default size go
# through Wine's driver and FUSE at the edge of what a busy 2-core machine moves (a function
# check; the benchmarks run in-process).
start=$SECONDS
tests/driver-model/with-model.sh --cards 2 "$simd" -- tests/driver-model/with-wine-model.sh "$model" -- \
    sh -c 'cd "$1" && "$2" "$3" list && "$2" "$3" loopback --seconds 3 --width 320 --height 256' sh "$run_dir" \
    "$root/cmake/toolchains/wine-run.sh" "$root/build-mingw/bin/kvpcie.exe" |
    tr -d '\r' | grep -v '^Device \(base path\|node\): ' | tee build-mingw/driver-model-loopback.txt
tail -n 1 build-mingw/driver-model-loopback.txt | grep -qx PASS
grep -qF "$(head -n 1 "$model/card-path.txt")" build-mingw/driver-model-loopback.txt
stage "kvpcie.exe list and loopback on the driver model" $((SECONDS - start))
# The release: the zip of bin/, lib/, include/, the examples and the README, beside the build.
start=$SECONDS
(cd build-mingw && cpack -G ZIP)
stage "cpack" $((SECONDS - start))
/usr/lib/wine/wineserver -k || true   # the suite's session outlives its last program by a minute
WINEPREFIX=$model/wine /usr/lib/wine/wineserver -k || true

#!/usr/bin/env bash
# Cross-builds the SDK for 64-bit Arm Linux (build-arm64/, preset arm64) with Debian's cross
# compiler against the arm64 packages of its dependencies, runs its suites under qemu's user-mode
# emulation, runs the main job `kvpcie --sim loopback` and the driver model's list under qemu, and
# builds the arm64 Debian packages and checks what they hold and depend on.
#
# Left out on arm64, each for its reason: the Python module and the GStreamer plugin, whose arm64
# development packages are not co-installable with the host's (apt would remove the amd64
# libgstreamer-plugins-base1.0-dev that the host's plugin builds against; python3-dev:arm64
# would replace the host's interpreter and remove clang's tools), the .NET binding (Mono runs
# amd64 here) and the benchmarks (timings under emulation mean nothing). The driver model's suites (label driver-model) start kvpcie-simd and the
# programs from a script, which qemu without binfmt cannot follow; the arm64 tool is run against
# the host's kvpcie-simd below instead. The installed-package check (label install) is the
# package check's.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
stage() { echo "arm64-check: $1 took $2 s"; }

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
start=$SECONDS
if ! dpkg --print-foreign-architectures | grep -x arm64 >/dev/null; then
    $sudo dpkg --add-architecture arm64
    $sudo apt-get update -qq
fi
scripts/setup.sh crossbuild-essential-arm64 qemu-user dpkg-dev \
    qtbase5-dev:arm64 qtbase5-private-dev:arm64 libgl-dev:arm64 \
    libgtest-dev:arm64 libgmock-dev:arm64 libfuse3-dev:arm64
stage "packages" $((SECONDS - start))

start=$SECONDS
cmake --preset arm64 >/dev/null
cmake --build --preset arm64
file build-arm64/facade/libKvPCIeInjectSdk.so.* | grep "ARM aarch64" >/dev/null
stage "cross-build" $((SECONDS - start))

# The suites under emulation, the display suites on an X server of their own (Qt's xcb plugin
# is arm64 too; the X protocol is the same).
start=$SECONDS
xvfb-run -a -s "-screen 0 1280x1024x24" ctest --preset arm64
stage "suites under qemu" $((SECONDS - start))

# The main job, as a user on an arm64 machine runs it.
start=$SECONDS
qemu-aarch64 build-arm64/tools/kvpcie/kvpcie --sim loopback | tee build-arm64/loopback.txt
tail -n 1 build-arm64/loopback.txt | grep -x PASS >/dev/null
stage "kvpcie --sim loopback under qemu" $((SECONDS - start))

# The viewer as a user starts it: its window on the simulated card, and its screenshot. (Its own
# suite starts it through QProcess, which cannot start programs under qemu.)
start=$SECONDS
rm -f build-arm64/viewer.png
xvfb-run -a -s "-screen 0 1280x1024x24" qemu-aarch64 build-arm64/tools/kvviewer/kvviewer --sim \
    --autostart --type Y8 --channels 1 --width 256 --height 128 --quit-after 3000 \
    --screenshot build-arm64/viewer.png
file build-arm64/viewer.png | grep "PNG image data" >/dev/null
stage "kvviewer under qemu" $((SECONDS - start))

# The Linux backend against a driver model card, served by the host's kvpcie-simd: the device
# files are files, whoever serves them. Where FUSE cannot be used, with-model.sh says so.
start=$SECONDS
[ -f build/CMakeCache.txt ] || scripts/configure.sh
cmake --build build --target kvpcie-simd
status=0
tests/driver-model/with-model.sh build/tools/kvpcie-simd/kvpcie-simd -- \
    bash -c 'qemu-aarch64 build-arm64/tools/kvpcie/kvpcie list &&
             qemu-aarch64 build-arm64/tools/kvpcie/kvpcie loopback --seconds 2 --width 160 \
                 --height 120' | tee build-arm64/model-loopback.txt || status=$?
if [ "$status" -eq 77 ]; then
    echo "arm64-check: the driver model was not run: FUSE cannot be used on this machine"
elif [ "$status" -ne 0 ] || ! grep -q '^PASS' build-arm64/model-loopback.txt; then
    echo "arm64-check: the arm64 tool failed on the driver model" >&2
    exit 1
fi
stage "driver model under qemu" $((SECONDS - start))

# The arm64 packages: what they hold, and dependencies that name arm64's libraries.
start=$SECONDS
rm -f build-arm64/kvpcie-inject-sdk*.deb
(cd build-arm64 && cpack -G DEB >/dev/null)
deb=$(ls build-arm64/kvpcie-inject-sdk_*_arm64.deb)
dev_deb=$(ls build-arm64/kvpcie-inject-sdk-dev_*_arm64.deb)
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for file in ./usr/bin/kvpcie ./usr/bin/kvviewer ./usr/bin/kvpcie-simd \
            ./usr/lib/aarch64-linux-gnu/libKvPCIeInjectSdk.so.0.2; do
    grep -qxF "$file" <<<"$contents" || { echo "arm64-check: $deb lacks $file" >&2; exit 1; }
done
dpkg-deb -x "$deb" build-arm64/deb-root
file build-arm64/deb-root/usr/bin/kvpcie | grep "ARM aarch64" >/dev/null
for package in "$deb" "$dev_deb"; do
    dpkg-deb -f "$package" Package Architecture Depends
done
dpkg-deb -f "$deb" Depends | grep "libqt5core5a" >/dev/null
stage "arm64 packages" $((SECONDS - start))
echo "arm64-check: PASS"

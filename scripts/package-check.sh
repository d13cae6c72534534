#!/usr/bin/env bash
# Builds the Debian packages (kvpcie-inject-sdk and kvpcie-inject-sdk-dev) and the tar.gz from a
# tree configured for /usr (build-deb/), then installs them on a fresh Debian of this machine's
# release, made with debootstrap in build-deb/fresh-machine/ and entered with chroot, where apt
# resolves only what the packages declare (no recommended packages). With the first alone,
# `kvpcie --sim loopback`, `import kvpcie` and `gst-inspect-1.0 kvpciesrc` must work; with the
# second, an example host builds with find_package and runs. Needs root (or sudo).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh debootstrap help2man
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi

build=build-deb
stage() { echo "package-check: $1 took $2 s"; }

start=$SECONDS
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
      -DKVPCIE_BUILD_TESTS=OFF -DKVPCIE_BUILD_BENCHMARKS=OFF -DKVPCIE_BUILD_EXAMPLES=OFF \
      -DKVPCIE_BUILD_MAN_PAGES=ON >/dev/null
cmake --build "$build"
rm -f "$build"/kvpcie-inject-sdk*.deb "$build"/kvpcie-inject-sdk*.tar.gz
(cd "$build" && cpack -G "DEB;TGZ")
deb=$(ls "$build"/kvpcie-inject-sdk_*.deb)
dev_deb=$(ls "$build"/kvpcie-inject-sdk-dev_*.deb)
stage "build and cpack" $((SECONDS - start))

# What the package holds where Debian's programs look for it.
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
holds() {
    local package=$1 contents
    shift
    contents=$(dpkg-deb -c "$package" | awk '{print $6}')
    for file in "$@"; do
        grep -qxF "$file" <<<"$contents" || { echo "package-check: $package lacks $file" >&2; exit 1; }
    done
}
holds "$deb" ./usr/bin/kvpcie ./usr/bin/kvviewer "./usr/lib/$multiarch/libKvPCIeInjectSdk.so.0.2" \
      "./usr/lib/$multiarch/gstreamer-1.0/libgstkvpcie.so" \
      ./usr/lib/python3/dist-packages/kvpcie/__init__.py ./usr/share/doc/kvpcie-inject-sdk/README.md \
      ./usr/share/man/man1/kvpcie.1.gz ./usr/share/man/man1/kvviewer.1.gz \
      ./usr/share/man/man1/kvpcie-simd.1.gz
holds "$dev_deb" ./usr/include/KvPCIeInjectSdk/PCIeDataManager.h \
      "./usr/lib/$multiarch/libKvPCIeInjectSdk.so" \
      "./usr/lib/$multiarch/cmake/KvPCIeInjectSdk/KvPCIeInjectSdkConfig.cmake" \
      ./usr/share/doc/kvpcie-inject-sdk/examples/card_info/main.cpp
# The manual pages hold the programs' own help, the commands' too.
zgrep -q "usage: kvpcie capture" "$build/tools/kvpcie/kvpcie.1.gz"
zgrep -q "usage: kvviewer" "$build/tools/kvviewer/kvviewer.1.gz"
for package in "$deb" "$dev_deb"; do
    dpkg-deb -f "$package" Package Version Depends
done

# The fresh machine. Its /proc and /dev are the host's, mounted for the programs run in it;
# they are unmounted before the folder is removed, and the removal never leaves its file system.
machine=$PWD/$build/fresh-machine
release_machine() {
    for mount in "$machine/dev" "$machine/proc"; do
        if mountpoint -q "$mount"; then $sudo umount "$mount"; fi
    done
}
trap release_machine EXIT
release_machine
if findmnt -rn -o TARGET | grep -q "^$machine/"; then
    echo "package-check: something is still mounted below $machine" >&2
    exit 1
fi
$sudo rm -rf --one-file-system "$machine"

start=$SECONDS
. /etc/os-release
mirror=${KVPCIE_DEBIAN_MIRROR:-http://deb.debian.org/debian}
$sudo debootstrap --variant=minbase "$VERSION_CODENAME" "$machine" "$mirror" >"$build/debootstrap.log"
if [ "${ID:-}" = debian ]; then
    # The host's libraries may come from the release's updates; so may the package's dependencies.
    $sudo tee "$machine/etc/apt/sources.list" >/dev/null <<EOF
deb $mirror $VERSION_CODENAME main
deb $mirror $VERSION_CODENAME-updates main
deb http://deb.debian.org/debian-security $VERSION_CODENAME-security main
EOF
fi
$sudo mount -t proc proc "$machine/proc"
$sudo mount --bind /dev "$machine/dev"
stage "fresh machine" $((SECONDS - start))

in_machine() { $sudo chroot "$machine" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
start=$SECONDS
$sudo cp "$deb" "$dev_deb" "$machine/tmp/"
in_machine apt-get update -qq
in_machine env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "/tmp/$(basename "$deb")" gstreamer1.0-tools >"$build/apt-install.log" 2>&1 ||
    { cat "$build/apt-install.log"; exit 1; }
stage "apt-get install of the package" $((SECONDS - start))

start=$SECONDS
in_machine sh -c 'cd /tmp && kvpcie --sim loopback' | tee "$build/loopback.txt"
tail -n 1 "$build/loopback.txt" | grep -qx PASS
version=$(in_machine python3 -c "import kvpcie; print(kvpcie.__version__)")
echo "import kvpcie: version $version"
[ "$version" = "$(dpkg-deb -f "$deb" Version)" ]
in_machine gst-inspect-1.0 kvpciesrc >"$build/gst-inspect.txt"
grep -q "kvpciesrc" "$build/gst-inspect.txt"
grep -E "^  (Filename|Version)" "$build/gst-inspect.txt"
stage "kvpcie, Python and GStreamer on the fresh machine" $((SECONDS - start))

# A host's build: the development package, a compiler and CMake, and an example as a user copies it.
start=$SECONDS
in_machine env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "/tmp/$(basename "$dev_deb")" cmake g++ make >"$build/apt-install-dev.log" 2>&1 ||
    { cat "$build/apt-install-dev.log"; exit 1; }
in_machine sh -c 'cp -r /usr/share/doc/kvpcie-inject-sdk/examples/card_info /tmp/card_info &&
    cmake -S /tmp/card_info -B /tmp/card_info/build >/dev/null && cmake --build /tmp/card_info/build &&
    cd /tmp/card_info/build && KVPCIE_SIM=1 ./card_info' | tee "$build/card_info.txt"
grep -q "round trip of 16777339 bytes: ok" "$build/card_info.txt"
stage "a host built against the development package" $((SECONDS - start))
echo "package-check: $(basename "$deb") and $(basename "$dev_deb") install and work on a fresh $PRETTY_NAME"

#!/usr/bin/env bash
# Installs the Debian packages that building and testing KvPCIeInjectSdk needs, when missing.
set -euo pipefail

# Extra packages may be named on the command line (the Windows cross-check names its own).
packages=(cmake ninja-build g++ pkg-config qtbase5-dev qtbase5-private-dev libgl-dev
          libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
          xvfb xauth libfuse3-dev fuse3
          libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
          gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-x
          python3-dev pybind11-dev python3-numpy python3-pytest python3-gi
          gir1.2-gstreamer-1.0 doxygen dpkg-dev abigail-tools
          mono-mcs mono-runtime libnunit-cil-dev nunit-console "$@")

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

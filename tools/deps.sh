#!/usr/bin/env bash
# The Debian packages the project needs beyond the machine's base, in one
# list, and what is missing of them installed (apt-get, as root or through
# sudo). Says nothing when everything is there. The README's two commands
# and .ci/run call it first.
set -euo pipefail

packages=(
  # building and testing the plug-in, the virtual scanner and the tools
  cmake g++ make pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  # kr7 and kr7host: PNG files, the command line, JSON
  libpng-dev libcli11-dev nlohmann-json3-dev
  # the kr7 Python module for the system's python3, and its tests
  pybind11-dev python3-dev python3-numpy python3-pytest
  # kr7src, the GStreamer element: building it, its tests (appsink, the
  # check library) and the README's gst-inspect/gst-launch commands (pngenc)
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-tools
  # the second compiler, its sanitizer and fuzzer runtimes
  clang libclang-rt-14-dev
  # kr7-viewer and its tests (Qt 6 Widgets, QtTest; fonts for the offscreen platform)
  qt6-base-dev fonts-dejavu-core
  # the Debian packages: building (dpkg-shlibdeps, file) and checking them
  # (lintian; groff for the manual pages)
  dpkg-dev file lintian groff-base
)
if [ "${1:-}" = "--measure" ]; then
  packages+=(libfprint-2-2 gir1.2-fprint-2.0 python3-gi python3-matplotlib)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing ${missing[*]}" >&2
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "tools/deps.sh: not root and no sudo; install these first: ${missing[*]}" >&2
    exit 1
  }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq >&2
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2

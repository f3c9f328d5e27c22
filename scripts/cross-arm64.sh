#!/bin/sh
# Cross-builds everything for 64-bit ARM Linux (aarch64) and runs the test
# suite under qemu-user, then vqxscan decoding the simulated barcode.
#
# Usage: scripts/cross-arm64.sh [BUILD_DIR] [ctest arguments...]
#   BUILD_DIR  default build-arm64
#   e.g. scripts/cross-arm64.sh build-arm64 -L 'api|streams|engine'
#
# As root it installs what is missing (the arm64 architecture for dpkg, the
# cross compiler, qemu-user and the :arm64 forms of the dependencies) with
# apt-get; otherwise it prints the commands to run and fails.
set -eu
cd "$(dirname "$0")/.."
./scripts/deps.sh

ARM64_PACKAGES="libgtest-dev:arm64 libgmock-dev:arm64 libbenchmark-dev:arm64
android-liblog:arm64 android-liblog-dev:arm64 libzxing-dev:arm64 libpng-dev:arm64"
HOST_PACKAGES="g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user"
have_arch=no
dpkg --print-foreign-architectures | grep -qx arm64 && have_arch=yes
missing=""
for p in $HOST_PACKAGES $ARM64_PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
if [ "$have_arch" = no ] || [ -n "$missing" ]; then
  if [ "$(id -u)" = "0" ]; then
    echo "Installing for the arm64 cross build:$missing"
    export DEBIAN_FRONTEND=noninteractive
    [ "$have_arch" = yes ] || dpkg --add-architecture arm64
    apt-get update -q >/dev/null
    # shellcheck disable=SC2086
    apt-get install -y -q --no-install-recommends $missing >/dev/null
  else
    echo "The arm64 cross build needs Debian packages. Install them with:" >&2
    [ "$have_arch" = yes ] || echo "  sudo dpkg --add-architecture arm64 && sudo apt-get update" >&2
    echo "  sudo apt-get install$missing" >&2
    exit 1
  fi
fi

build=${1:-build-arm64}
[ $# -gt 0 ] && shift
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake >/dev/null
cmake --build "$build" -j "$(nproc)"
(cd "$build" && ctest --output-on-failure -j "$(nproc)" --timeout 600 "$@")
# The demo under emulation: the default label must decode.
qemu-aarch64 "$build/tools/vqxscan" --frames 60

#!/bin/sh
# Makes sure the Debian packages the project builds with are present.
# As root it installs what is missing with apt-get; otherwise it prints the
# apt-get line to run and fails.
set -eu
PACKAGES="cmake ninja-build g++ make googletest libgtest-dev libgmock-dev libbenchmark-dev
android-liblog android-liblog-dev libzxing-dev libpng-dev clang libclang-rt-14-dev binutils
openjdk-17-jdk-headless junit5 libzxing-core-java"
missing=""
for p in $PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" = "0" ]; then
  echo "Installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q >/dev/null
  # shellcheck disable=SC2086
  apt-get install -y -q --no-install-recommends $missing >/dev/null
else
  echo "Missing Debian packages. Install them with:" >&2
  echo "  sudo apt-get install$missing" >&2
  exit 1
fi

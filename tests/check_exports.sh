#!/bin/sh
# Compares the defined dynamic symbols of a shared library with a list.
# Usage: check_exports.sh LIBRARY EXPECTED_LIST   (NM: the nm to use, default nm)
set -eu
lib=$1
expected=$2
actual=$("${NM:-nm}" -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sort -u)
want=$(grep -v '^#' "$expected" | grep -v '^$' | sort -u)
if [ "$actual" = "$want" ]; then
  echo "exported symbols match ($(echo "$want" | wc -l) symbols)"
  exit 0
fi
echo "exported symbols differ from $expected"
echo "--- missing:"
echo "$want" | grep -vxF -e "$actual" || true
echo "--- unexpected:"
echo "$actual" | grep -vxF -e "$want" || true
exit 1

#!/usr/bin/env bash
# Checks the installed package from outside, as an ordinary user, with no
# LD_LIBRARY_PATH:
#   - installs BUILD_DIR (configured and built) into a temporary prefix;
#     every file lands under the prefix (also with DESTDIR), nothing is
#     written anywhere else, the run paths of installed programs and
#     libraries hold no path of the build machine's trees, and no installed
#     text file names the build or source tree;
#   - installs each component alone (driver, porting, simulator, tools) and checks
#     what each holds;
#   - moves the installed tree to another directory, then against the moved
#     files: builds the skeleton hardware layer with find_package and runs
#     the installed conformance checker on it (it must fail, listing what is
#     missing) and on the installed simulator (it must pass); builds the C
#     client examples/client/scan_client.c with the CMake package and with
#     pkg-config and runs both on the installed simulator; runs vqxscan;
#   - configures and builds the driver without the simulator
#     (VQX_WITH_SIMULATOR=OFF), installs it, checks that neither the
#     simulator nor its libraries came with it, and runs the client with a
#     hardware layer dropped in beside the driver.
#
# Usage: scripts/install_check.sh BUILD_DIR
# As root it runs every step as the unprivileged user vqxinstall (created
# with useradd when missing); otherwise as the calling user.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
unset LD_LIBRARY_PATH

say() { echo "install check: $*"; }
fail() { echo "install check: FAILED: $*" >&2; exit 1; }

# --- who runs it --------------------------------------------------------------
user=""
if [ "$(id -u)" = 0 ]; then
  user=vqxinstall
  id "$user" >/dev/null 2>&1 || useradd --system --no-create-home --shell /usr/sbin/nologin "$user"
fi
work=$(mktemp -d /tmp/vqx-install-check.XXXXXX)
mkdir -p "$work/home"
# cmake --install writes its manifest into the build tree: give the user
# those files (and only those), and hand them back afterwards.
manifests=()
for m in install_manifest.txt install_manifest_driver.txt install_manifest_porting.txt \
         install_manifest_simulator.txt install_manifest_tools.txt install_manifest_java.txt; do
  manifests+=("$build/$m")
done
owner=$(stat -c %u:%g "$build")
cleanup() {
  if [ -n "$user" ]; then
    for m in "${manifests[@]}"; do [ -e "$m" ] && chown "$owner" "$m"; done
  fi
  rm -rf "$work"
}
trap cleanup EXIT
if [ -n "$user" ]; then
  for m in "${manifests[@]}"; do touch "$m" && chown "$user" "$m"; done
  chown -R "$user" "$work"
  say "running as the unprivileged user $user"
else
  say "running as $(id -un)"
fi
as_user() {
  if [ -n "$user" ]; then
    runuser -u "$user" -- env -u LD_LIBRARY_PATH HOME="$work/home" "$@"
  else
    env -u LD_LIBRARY_PATH HOME="$work/home" "$@"
  fi
}
marker="$work/marker"
as_user touch "$marker"
sleep 1  # files written from now on are newer than the marker

extra_runpath=$(sed -n 's/^VQX_INSTALL_EXTRA_RUNPATH:[A-Z]*=//p' "$build/CMakeCache.txt")

# --- checks on an installed tree ---------------------------------------------------
# Every file of a manifest lies under the directory given (and exists,
# below DESTDIR when one is given).
manifest_under() {
  local manifest=$1 dir=$2 destdir=${3:-} path
  [ -s "$manifest" ] || fail "$manifest is empty"
  while IFS= read -r path; do
    case "$path" in "$dir"/*) ;; *) fail "installed outside $dir: $path" ;; esac
    [ -e "$destdir$path" ] || [ -L "$destdir$path" ] || fail "listed but missing: $destdir$path"
  done < "$manifest"
}
# Run paths of every ELF file under the tree: $ORIGIN-relative entries and
# the configured extra entries only; no build or source tree.
check_runpaths() {
  local tree=$1 file entry
  while IFS= read -r file; do
    readelf -h "$file" >/dev/null 2>&1 || continue
    [ -L "$file" ] && continue
    local rp
    rp=$(readelf -d "$file" | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]/\2/p')
    [ -z "$rp" ] && continue
    IFS=: read -r -a entries <<< "$rp"
    for entry in "${entries[@]}"; do
      case "$entry" in
        '$ORIGIN'|'$ORIGIN/'*) ;;
        *) [[ ";$extra_runpath;" == *";$entry;"* ]] || fail "$file: run path entry $entry" ;;
      esac
      case "$entry" in "$build"*|"$src"*) fail "$file: build-machine run path $entry" ;; esac
    done
  done < <(find "$tree" -type f)
  if grep -rIl -e "$build" -e "$src" "$tree" >/dev/null 2>&1; then
    fail "installed text files name the build or source tree: $(grep -rIl -e "$build" -e "$src" "$tree" | tr '\n' ' ')"
  fi
}
has() { [ -e "$1/$2" ] || fail "$1 lacks $2"; }
lacks() { ! compgen -G "$1/$2" >/dev/null || fail "$1 holds $2"; }
needs_none() {  # no installed ELF file needs a library matching the pattern
  local tree=$1 pattern=$2 file
  while IFS= read -r file; do
    readelf -h "$file" >/dev/null 2>&1 || continue
    if readelf -d "$file" | grep NEEDED | grep -q -E "$pattern"; then
      fail "$file needs $(readelf -d "$file" | grep NEEDED | grep -E "$pattern" | sed 's/.*\[//; s/\]//')"
    fi
  done < <(find "$tree" -type f)
}

# --- the whole package ------------------------------------------------------------
stage="$work/stage"
as_user cmake --install "$build" --prefix "$stage" >"$work/install.log" 2>&1 \
  || { cat "$work/install.log"; fail "cmake --install"; }
manifest_under "$build/install_manifest.txt" "$stage"
check_runpaths "$stage"
for f in lib/libVQXScanInterface.so include/VQXScanInterface.h lib/pkgconfig/VQXScanInterface.pc \
         lib/cmake/VQXScanInterface/VQXScanInterfaceConfig.cmake include/VQXScanInterface/IHwl.h \
         bin/hwl_conformance share/VQXScanInterface/examples/hwl_skeleton/hwl_skeleton.cpp \
         share/doc/VQXScanInterface/porting.md lib/libLmoKil.so bin/vqxscan bin/vqxsoak; do
  has "$stage" "$f"
done
say "whole package: $(wc -l < "$build/install_manifest.txt") files, all under the prefix; run paths: \$ORIGIN${extra_runpath:+ and $extra_runpath}"

# DESTDIR: the files land under DESTDIR + prefix, nothing at the prefix itself.
as_user env DESTDIR="$work/destdir" cmake --install "$build" --prefix /opt/vqx-install-check >/dev/null
manifest_under "$build/install_manifest.txt" /opt/vqx-install-check "$work/destdir"
[ ! -e /opt/vqx-install-check ] || fail "DESTDIR install wrote /opt/vqx-install-check"
outside=$(find "$work/destdir" -mindepth 1 \( -path "$work/destdir/opt" -o -path "$work/destdir/opt/vqx-install-check" \
          -o -path "$work/destdir/opt/vqx-install-check/*" \) -prune -o -print)
[ -z "$outside" ] || fail "DESTDIR install wrote outside DESTDIR/prefix: $outside"
say "DESTDIR install: every file under DESTDIR/prefix"

# Each component alone.
for c in driver porting simulator tools; do
  as_user cmake --install "$build" --prefix "$work/only-$c" --component "$c" >/dev/null
  manifest_under "$build/install_manifest_$c.txt" "$work/only-$c"
done
has "$work/only-driver" lib/libVQXScanInterface.so
has "$work/only-driver" lib/pkgconfig/VQXScanInterface.pc
lacks "$work/only-driver" "lib/libLmoKil*"
lacks "$work/only-driver" "bin/*"
lacks "$work/only-driver" include/VQXScanInterface/IHwl.h
needs_none "$work/only-driver" 'ZXing|png'
has "$work/only-porting" include/VQXScanInterface/IHwl.h
has "$work/only-porting" bin/hwl_conformance
has "$work/only-porting" lib/cmake/VQXScanInterface/VQXScanInterfacePortingTargets.cmake
lacks "$work/only-porting" "lib/libVQXScanInterface*"
lacks "$work/only-porting" "lib/libLmoKil*"
needs_none "$work/only-porting" 'ZXing|png|LmoKil|VQXScanInterface'
has "$work/only-simulator" lib/libLmoKil.so
has "$work/only-simulator" bin/vqxscan
lacks "$work/only-simulator" "lib/libVQXScanInterface*"
has "$work/only-tools" bin/vqxsoak
lacks "$work/only-tools" "lib/*"
say "components: driver, porting, simulator and tools each hold only their own files"
if [ -e "$build/java/vqxscan.jar" ]; then
  as_user cmake --install "$build" --prefix "$work/only-java" --component java >/dev/null
  manifest_under "$build/install_manifest_java.txt" "$work/only-java"
  has "$work/only-java" lib/libvqxscan_jni.so
  has "$work/only-java" share/java/vqxscan.jar
  lacks "$work/only-java" "lib/libVQXScanInterface*"
  say "component java: the JNI library and the jar only"
fi

# --- against the moved tree ----------------------------------------------------------
prefix="$work/moved"
as_user mv "$stage" "$prefix"
say "installed tree moved to $prefix"

# The skeleton hardware layer, built with find_package(... COMPONENTS porting).
as_user cp -r "$prefix/share/VQXScanInterface/examples/hwl_skeleton" "$work/skeleton"
as_user cmake -S "$work/skeleton" -B "$work/skeleton/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
as_user cmake --build "$work/skeleton/build" >/dev/null
if as_user ctest --test-dir "$work/skeleton/build" --output-on-failure >"$work/skeleton.log" 2>&1; then
  fail "the conformance checker passed an empty skeleton"
fi
grep -q "is not implemented yet" "$work/skeleton.log" || { cat "$work/skeleton.log"; fail "the skeleton's checker run lists nothing"; }
say "skeleton: built against the installed porting kit; the checker on it reports"
echo "    still to write: $(sed -n 's/^hwl_skeleton: \(.*\) is not implemented yet$/\1/p' "$work/skeleton.log" \
  | awk '!seen[$0]++' | paste -sd' ' -)"
grep -E '^\[  (FAILED  |SKIPPED )\] [A-Za-z_]+\.[A-Za-z_]+[[:space:]]*$|^\[  PASSED  \]' "$work/skeleton.log" | sed 's/^/    /'

# The installed checker on the installed simulator (its default library).
as_user "$prefix/bin/hwl_conformance" >"$work/conformance.log" 2>&1 \
  || { tail -n 40 "$work/conformance.log"; fail "hwl_conformance on the installed simulator"; }
say "hwl_conformance on the installed simulator: $(grep -E '^\[  PASSED  \]' "$work/conformance.log")"

# The C client through the CMake package and through pkg-config.
as_user cp -r "$src/examples/client" "$work/client"
as_user cmake -S "$work/client" -B "$work/client/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
as_user cmake --build "$work/client/build" >/dev/null
as_user env PKG_CONFIG_PATH="$prefix/lib/pkgconfig" sh -c \
  'cc -std=c99 -o "$1/scan_client_pc" "$1/scan_client.c" $(pkg-config --cflags --libs VQXScanInterface)' \
  sh "$work/client"
sim_env=(VQXSIM_RENDER=fast VQXSIM_FPS=120)
for client in "$work/client/build/scan_client" "$work/client/scan_client_pc"; do
  as_user env "${sim_env[@]}" "$client" 5 >"$work/client.log" 2>&1 \
    || { cat "$work/client.log"; fail "$client on the installed simulator"; }
  grep -q -E 'exposure [1-9][0-9]*, gain [1-9]' "$work/client.log" \
    || { cat "$work/client.log"; fail "$client printed no exposure and gain"; }
  say "$(basename "$client") (built with $([ "${client##*_}" = pc ] && echo pkg-config || echo the CMake package)), on the installed simulator:"
  grep -v ScnDrv "$work/client.log" | sed 's/^/    /'
done

# vqxscan from the moved tree, with the simulator's own register tables.
as_user "$prefix/bin/vqxscan" --frames 60 >"$work/vqxscan.log" 2>&1 \
  || { tail -n 20 "$work/vqxscan.log"; fail "installed vqxscan"; }
as_user env VQXSIM_REGISTER_TABLE=0 "$prefix/bin/vqxscan" --engine X5501 --frames 60 >>"$work/vqxscan.log" 2>&1 \
  || { tail -n 20 "$work/vqxscan.log"; fail "installed vqxscan, X5501 with its full register table"; }
say "installed vqxscan: $(grep -c '^decoded' "$work/vqxscan.log") of 2 decoded (X7710; X5501 with the full table)"

# --- without the simulator -------------------------------------------------------------
# The driver alone: without the Java binding, whose configuration runs the
# JVM, which writes its performance data to /tmp/hsperfdata_<user> (not the
# install's doing, but it would be a file written outside the prefixes).
as_user cmake -S "$src" -B "$work/build-nosim" -G Ninja -DVQX_WITH_SIMULATOR=OFF \
  -DVQX_BUILD_TESTS=OFF -DVQX_BUILD_BENCH=OFF -DVQX_BUILD_JAVA=OFF >"$work/nosim.log" 2>&1 \
  || { cat "$work/nosim.log"; fail "configure without the simulator"; }
as_user cmake --build "$work/build-nosim" -j "$(nproc)" >>"$work/nosim.log" 2>&1 \
  || { tail -n 40 "$work/nosim.log"; fail "build without the simulator"; }
as_user cmake --install "$work/build-nosim" --prefix "$work/nosim" >/dev/null
manifest_under "$work/build-nosim/install_manifest.txt" "$work/nosim"
check_runpaths "$work/nosim"
lacks "$work/nosim" "lib/libLmoKil*"
lacks "$work/nosim" bin/vqxscan
lacks "$work/nosim" "share/LmoKil"
needs_none "$work/nosim" 'ZXing|png'
readelf -d "$work/nosim/lib/libVQXScanInterface.so" | grep -q 'NEEDED.*\[libLmoKil.so\]' \
  || fail "the driver built without the simulator does not need libLmoKil.so"
has "$work/nosim" bin/hwl_conformance
has "$work/nosim" bin/vqxsoak
# A platform's hardware layer dropped in beside the driver (here: the
# simulator from the full package) is the one the driver uses.
as_user cp "$prefix/lib/libLmoKil.so" "$work/nosim/lib/"
as_user cc -std=c99 -o "$work/client/scan_client_nosim" "$work/client/scan_client.c" \
  -I"$work/nosim/include" -L"$work/nosim/lib" -Wl,-rpath,"$work/nosim/lib" -lVQXScanAttributes -lVQXScanInterface
as_user env "${sim_env[@]}" "$work/client/scan_client_nosim" 2 >"$work/client.log" 2>&1 \
  || { cat "$work/client.log"; fail "the client on the driver built without the simulator"; }
say "without the simulator: $(wc -l < "$work/build-nosim/install_manifest.txt") files, no libLmoKil.so, vqxscan, ZXing or libpng; the client runs on a layer put beside the driver"

# --- nothing written elsewhere ----------------------------------------------------------
if [ -n "$user" ]; then
  stray=$(find / -xdev \( -path /proc -o -path "$work" \) -prune -o -user "$user" -newer "$marker" -print 2>/dev/null \
          | grep -v -F -x -f <(printf '%s\n' "${manifests[@]}") || true)
  [ -z "$stray" ] || fail "written outside the prefixes: $stray"
  say "nothing written by $user outside the temporary prefixes (and the build tree's install manifests)"
fi
say "passed"

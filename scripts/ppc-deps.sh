#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the target's own copies of vorta's dependencies for the recorder's
# processor (32-bit big-endian PowerPC) into a staging prefix, from Debian
# source packages: cJSON, the ANTLR 3 C runtime (libantlr3c), liburing and
# GoogleTest.
# Boost is header-only for vorta: the host's headers are linked in.
#
#   scripts/ppc-deps.sh [--guest-tools] [STAGING]     default: build/ppc-staging
#
# --guest-tools also builds, static, the shell and utilities of the PowerPC
# test guest (scripts/ppc-system.sh) into STAGING/guest: busybox with Debian's
# busybox-static configuration (its sh runs the library's shell commands; its
# applets are the utilities of the tool's test scripts) and bash (the tool's
# test scripts are bash scripts: arrays, here-strings, mapfile).
#
# Idempotent: a dependency whose stamp matches is not rebuilt, and the
# source packages are fetched only once (into build/ppc-deps). Needs the
# `ppc` group of scripts/install-deps.sh; adds deb-src entries for the
# machine's Debian suites when apt has none.
set -eEuo pipefail
cd "$(dirname "$0")/.."
root=$PWD
guest_tools=0
if [ "${1:-}" = --guest-tools ]; then
  guest_tools=1
  shift
fi
staging=$(realpath -m "${1:-build/ppc-staging}")
work=$root/build/ppc-deps
toolchain=$root/cmake/toolchain-ppc32.cmake
jobs=$(nproc 2>/dev/null || echo 2)
# Raise when the recipe below changes, so that every stamp is invalid.
recipe=1

step="starting"
say() { printf 'ppc-deps: %s\n' "$*" >&2; }
fail() {
  trap - ERR
  say "FAILED while $step"
  [ -n "${log:-}" ] && [ -f "$log" ] && { say "last lines of $log:"; tail -n 25 "$log" >&2; }
  exit 1
}
trap fail ERR

# Runs a command with its output in a log file, shown only if it fails.
log=
quiet() {
  "$@" >>"$log" 2>&1
}

SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi

step="checking the host tools"
for tool in powerpc-linux-gnu-gcc powerpc-linux-gnu-g++ qemu-ppc-static dpkg-source autoreconf libtoolize cmake ninja; do
  if ! command -v "$tool" >/dev/null; then
    say "missing $tool: run 'scripts/install-deps.sh ppc' first"
    exit 1
  fi
done
for dir in /usr/include/boost /usr/src/googletest; do
  if [ ! -d "$dir" ]; then
    say "missing $dir: run 'scripts/install-deps.sh' first"
    exit 1
  fi
done

step="creating $staging and $work"
mkdir -p "$staging/include" "$staging/lib" "$staging/.stamps" "$work/src" "$work/logs"

stamp_ok() { [ -f "$staging/.stamps/$1" ] && [ "$(cat "$staging/.stamps/$1")" = "$2" ]; }
stamp_set() { printf '%s\n' "$2" >"$staging/.stamps/$1"; }

# apt-get source needs deb-src entries. Debian's images ship only deb ones:
# add the source twin of every Debian entry the machine has, once.
ensure_deb_src() {
  local known
  known=$(apt-cache showsrc cjson libantlr3c busybox bash 2>/dev/null || true)
  if [ "$(grep -c '^Package:' <<<"$known")" -ge 4 ]; then
    return
  fi
  step="adding deb-src entries for apt"
  local added=0
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    awk 'BEGIN { RS = ""; FS = "\n" }
      {
        out = ""; deb = 0
        for (i = 1; i <= NF; i++) {
          line = $i
          if (line ~ /^Types:/) {
            if (line ~ /[: ]deb( |$)/) deb = 1
            line = "Types: deb-src"
          }
          out = out line "\n"
        }
        if (deb) printf "%s\n", out
      }' /etc/apt/sources.list.d/debian.sources |
      $SUDO tee /etc/apt/sources.list.d/vorta-deb-src.sources >/dev/null
    added=1
  fi
  if [ -f /etc/apt/sources.list ] && grep -q '^deb ' /etc/apt/sources.list; then
    sed -n 's/^deb /deb-src /p' /etc/apt/sources.list | $SUDO tee /etc/apt/sources.list.d/vorta-deb-src.list >/dev/null
    added=1
  fi
  if [ "$added" -eq 0 ]; then
    say "no Debian deb entries found in /etc/apt to derive deb-src entries from"
    exit 1
  fi
  say "added deb-src entries (/etc/apt/sources.list.d/vorta-deb-src.*); updating apt"
  $SUDO apt-get update -qq
}

# Extracts a Debian source package into $work/src/<name> (set as $src),
# fetching it once.
source_tree() {
  local pkg=$1 dsc
  dsc=$(ls "$work/src/${pkg}"_*.dsc 2>/dev/null | head -n 1 || true)
  if [ -z "$dsc" ]; then
    ensure_deb_src
    step="fetching the $pkg source package"
    (cd "$work/src" && apt-get source --download-only -qq "$pkg" >>"$log" 2>&1)
    dsc=$(ls "$work/src/${pkg}"_*.dsc | head -n 1)
  fi
  step="extracting $dsc"
  rm -rf "$work/src/$pkg"
  quiet dpkg-source --no-check -x "$dsc" "$work/src/$pkg"
  src=$work/src/$pkg
}

dsc_version() {
  local dsc
  dsc=$(ls "$work/src/${1}"_*.dsc 2>/dev/null | head -n 1 || true)
  [ -n "$dsc" ] && basename "$dsc" .dsc || echo "$1 (not fetched)"
}

cmake_cross() {
  cmake -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DVORTA_PPC_STAGING="$staging" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$staging" -DCMAKE_INSTALL_LIBDIR=lib "$@"
}

# from_source PACKAGE LABEL FOR BUILD FILE...: runs the function BUILD in
# the package's extracted source tree ($src) and stamps it, unless the stamp
# matches the package's version and every FILE it makes exists.
from_source() {
  local pkg=$1 label=$2 target=$3 build=$4 file fresh=1
  shift 4
  log=$work/logs/$pkg.log
  : >"$log"
  key="recipe=$recipe $(dsc_version "$pkg")"
  stamp_ok "$pkg" "$key" || fresh=0
  for file in "$@"; do [ -f "$file" ] || fresh=0; done
  if [ "$fresh" -eq 1 ]; then
    say "$label: up to date"
    return
  fi
  say "$label: building for $target"
  source_tree "$pkg"
  key="recipe=$recipe $(dsc_version "$pkg")"
  step="building $label (log: $log)"
  "$build"
  cd "$root"
  stamp_set "$pkg" "$key"
}

# --- Boost: headers only, the host's are byte-order neutral.
step="linking the Boost headers"
ln -sfn /usr/include/boost "$staging/include/boost"

# --- cJSON
build_cjson() {
  rm -rf "$work/build-cjson"
  quiet cmake_cross -S "$src" -B "$work/build-cjson" \
    -DENABLE_CJSON_TEST=OFF -DENABLE_CJSON_UTILS=ON -DBUILD_SHARED_AND_STATIC_LIBS=ON
  quiet cmake --build "$work/build-cjson" -j "$jobs"
  quiet cmake --install "$work/build-cjson"
}
from_source cjson cJSON "the target" build_cjson "$staging/lib/libcjson.so"

# --- The ANTLR 3 C runtime, configured for 32-bit pointers.
build_libantlr3c() {
  # The release tarball's build files are incomplete (antlr3convertutf.c is
  # missing from the generated Makefile): regenerate them.
  cd "$src"
  quiet autoreconf -fi
  quiet ./configure --host=powerpc-linux-gnu --build="$(dpkg-architecture -qDEB_BUILD_GNU_TYPE)" \
    --prefix="$staging" --libdir="$staging/lib" \
    --disable-64bit --disable-abiflags --disable-antlrdebug
  quiet make -j "$jobs"
  quiet make install
}
from_source libantlr3c libantlr3c "the target" build_libantlr3c "$staging/lib/libantlr3c.so"
# Whatever was built, the staged runtime must be the 32-bit one: its
# markers and keys hold pointers. Checked with the staging headers first,
# exactly as the project's own build includes them.
step="checking the staged libantlr3c's word size"
check=$work/antlr3c_word_size.c
cat >"$check" <<'EOF'
#include <antlr3.h>
typedef char marker_holds_a_pointer[sizeof(ANTLR3_MARKER) == sizeof(void*) ? 1 : -1];
typedef char intkey_holds_a_pointer[sizeof(ANTLR3_INTKEY) == sizeof(void*) ? 1 : -1];
typedef char target_is_32_bit[sizeof(void*) == 4 ? 1 : -1];
#ifdef ANTLR3_USE_64BIT
#error "antlr3config.h is configured for 64-bit pointers"
#endif
EOF
if ! powerpc-linux-gnu-gcc -I"$staging/include" -fsyntax-only "$check" 2>"$work/logs/antlr3c_word_size.log"; then
  cat "$work/logs/antlr3c_word_size.log" >&2
  say "the staged libantlr3c is not configured for 32-bit pointers; remove $staging/.stamps/libantlr3c and rerun"
  exit 1
fi

# --- liburing (io_uring), shared and static like cJSON; its own configure
# script takes the cross compiler.
build_liburing() {
  cd "$src"
  quiet ./configure --cc=powerpc-linux-gnu-gcc --cxx=powerpc-linux-gnu-g++ \
    --prefix="$staging" --includedir="$staging/include" --libdir="$staging/lib" \
    --libdevdir="$staging/lib" --mandir="$work/liburing-man"
  quiet make -j "$jobs" -C src
  quiet make -C src install
}
from_source liburing liburing "the target" build_liburing "$staging/lib/liburing.so"

# --- GoogleTest, from the host's source copy (libgtest-dev).
log=$work/logs/googletest.log
: >"$log"
key="recipe=$recipe googletest $(dpkg-query -W -f='${Version}' libgtest-dev 2>/dev/null || echo unknown)"
if stamp_ok googletest "$key" && [ -f "$staging/lib/libgtest.a" ]; then
  say "GoogleTest: up to date"
else
  say "GoogleTest: building for the target"
  step="building GoogleTest (log: $log)"
  rm -rf "$work/build-googletest"
  quiet cmake_cross -S /usr/src/googletest -B "$work/build-googletest"
  quiet cmake --build "$work/build-googletest" -j "$jobs"
  quiet cmake --install "$work/build-googletest"
  stamp_set googletest "$key"
fi

# --- The test guest's shell and utilities, static.
if [ "$guest_tools" -eq 1 ]; then
  guest=$staging/guest
  mkdir -p "$guest"
  build_busybox() {
    # Debian's busybox-static configuration, as it stands. It has no
    # `script` applet, which suits a guest without a terminal: a test that
    # looks for one finds none, as it should.
    cp "$src/debian/config/pkg/static" "$src/.config"
    quiet make -C "$src" CROSS_COMPILE=powerpc-linux-gnu- silentoldconfig </dev/null
    grep -qx 'CONFIG_STATIC=y' "$src/.config"
    quiet make -C "$src" CROSS_COMPILE=powerpc-linux-gnu- -j "$jobs" busybox busybox.links
    cp "$src/busybox" "$src/busybox.links" "$guest/"
  }
  from_source busybox busybox "the test guest" build_busybox "$guest/busybox" "$guest/busybox.links"

  build_bash() {
    cd "$src"
    quiet ./configure --host=powerpc-linux-gnu --build="$(dpkg-architecture -qDEB_BUILD_GNU_TYPE)" \
      --prefix=/usr --enable-static-link --without-bash-malloc --disable-nls
    quiet make -j "$jobs"
    cp bash "$guest/bash"
  }
  from_source bash bash "the test guest" build_bash "$guest/bash"

  step="checking the guest's tools"
  for tool in busybox bash; do
    if powerpc-linux-gnu-readelf -d "$guest/$tool" 2>/dev/null | grep -q '(NEEDED)'; then
      say "$guest/$tool is not static"
      exit 1
    fi
  done
fi

say "staging prefix ready: $staging"

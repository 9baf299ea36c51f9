#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the target's own copies of vorta's dependencies for the recorder's
# processor (32-bit big-endian PowerPC) into a staging prefix, from Debian
# source packages: cJSON, the ANTLR 3 C runtime (libantlr3c), liburing and
# GoogleTest.
# Boost is header-only for vorta: the host's headers are linked in.
#
#   scripts/ppc-deps.sh [STAGING]     default: build/ppc-staging
#
# Idempotent: a dependency whose stamp matches is not rebuilt, and the
# source packages are fetched only once (into build/ppc-deps). Needs the
# `ppc` group of scripts/install-deps.sh; adds deb-src entries for the
# machine's Debian suites when apt has none.
set -eEuo pipefail
cd "$(dirname "$0")/.."
root=$PWD
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
  known=$(apt-cache showsrc cjson libantlr3c 2>/dev/null || true)
  if [ "$(grep -c '^Package:' <<<"$known")" -ge 2 ]; then
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

# Starts on a dependency from a Debian source package: true when it is
# staged already by this recipe (its stamp matches and its library is
# there); else fetches and extracts the source into $src. Sets log and key
# (for stamp_set) either way.
#   needs_build PACKAGE LIBRARY LABEL
needs_build() {
  log=$work/logs/$1.log
  : >"$log"
  key="recipe=$recipe $(dsc_version "$1")"
  if stamp_ok "$1" "$key" && [ -f "$staging/lib/$2" ]; then
    say "$3: up to date"
    return 1
  fi
  say "$3: building for the target"
  source_tree "$1"
  key="recipe=$recipe $(dsc_version "$1")"
  step="building $3 (log: $log)"
}

cmake_cross() {
  cmake -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DVORTA_PPC_STAGING="$staging" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$staging" -DCMAKE_INSTALL_LIBDIR=lib "$@"
}

# --- Boost: headers only, the host's are byte-order neutral.
step="linking the Boost headers"
ln -sfn /usr/include/boost "$staging/include/boost"

# --- cJSON
if needs_build cjson libcjson.so cJSON; then
  rm -rf "$work/build-cjson"
  quiet cmake_cross -S "$src" -B "$work/build-cjson" \
    -DENABLE_CJSON_TEST=OFF -DENABLE_CJSON_UTILS=ON -DBUILD_SHARED_AND_STATIC_LIBS=ON
  quiet cmake --build "$work/build-cjson" -j "$jobs"
  quiet cmake --install "$work/build-cjson"
  stamp_set cjson "$key"
fi

# --- The ANTLR 3 C runtime, configured for 32-bit pointers.
if needs_build libantlr3c libantlr3c.so libantlr3c; then
  # The release tarball's build files are incomplete (antlr3convertutf.c is
  # missing from the generated Makefile): regenerate them.
  cd "$src"
  quiet autoreconf -fi
  quiet ./configure --host=powerpc-linux-gnu --build="$(dpkg-architecture -qDEB_BUILD_GNU_TYPE)" \
    --prefix="$staging" --libdir="$staging/lib" \
    --disable-64bit --disable-abiflags --disable-antlrdebug
  quiet make -j "$jobs"
  quiet make install
  cd "$root"
  stamp_set libantlr3c "$key"
fi
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
if needs_build liburing liburing.so liburing; then
  cd "$src"
  quiet ./configure --cc=powerpc-linux-gnu-gcc --cxx=powerpc-linux-gnu-g++ \
    --prefix="$staging" --includedir="$staging/include" --libdir="$staging/lib" \
    --libdevdir="$staging/lib" --mandir="$work/liburing-man"
  quiet make -j "$jobs" -C src
  quiet make -C src install
  cd "$root"
  stamp_set liburing "$key"
fi

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

say "staging prefix ready: $staging"

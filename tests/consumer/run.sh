#!/bin/bash
# SPDX-License-Identifier: MIT
# Builds and runs programs of another project against an installed libvorta
# (main.cpp: the library and its parameter service; lut_parse.cpp: a LUT
# parse of its own over the exported recognisers), once through
# find_package(vorta) and once through pkg-config, each in a clean environment (env -i: no LD_LIBRARY_PATH, no PKG_CONFIG_PATH, no
# CMAKE_PREFIX_PATH but the one given) and with no run path to the library's
# own dependencies: libvorta.so must find its platform libraries itself.
#
#   run.sh prefix BUILD_DIR WORK_DIR   install BUILD_DIR into a fresh prefix
#                                      (moved after installing, so nothing may
#                                      depend on where it was installed) and
#                                      use the tool and library there
#   run.sh system WORK_DIR             use the tool and library in /usr, as the
#                                      Debian packages install them
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mode=${1:?usage: run.sh prefix BUILD_DIR WORK_DIR | system WORK_DIR}
case "$mode" in
  prefix) build=$(cd "${2:?}" && pwd); work=${3:?} ;;
  system) work=${2:?} ;;
  *) echo "run.sh: unknown mode '$mode'" >&2; exit 2 ;;
esac
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)

clean() { env -i PATH=/usr/bin:/bin HOME="$work" LANG=C "$@"; }
step() { printf -- '--- %s\n' "$*"; }

if [ "$mode" = prefix ]; then
  step "install into a fresh prefix, then move it"
  clean cmake --install "$build" --prefix "$work/installed" >"$work/install.log"
  mv "$work/installed" "$work/prefix"
  prefix=$work/prefix
  pc=$(find "$prefix" -name vorta.pc)
  [ -n "$pc" ] || { echo "FAIL: no vorta.pc installed under $prefix" >&2; exit 1; }
  pkgenv=(PKG_CONFIG_PATH="$(dirname "$pc")")
  cmakeargs=(-DCMAKE_PREFIX_PATH="$prefix")
  vorta=$prefix/bin/vorta
else
  prefix=/usr
  pkgenv=()
  cmakeargs=()
  vorta=/usr/bin/vorta
fi

if [ -x "$vorta" ]; then
  step "the installed tool runs: $vorta --version"
  clean "$vorta" --version
fi

step "find_package(vorta)"
clean cmake -S "$here" -B "$work/cmake" "${cmakeargs[@]}" >"$work/cmake.log" ||
  { cat "$work/cmake.log" >&2; exit 1; }
clean cmake --build "$work/cmake" >"$work/cmake-build.log" 2>&1 ||
  { cat "$work/cmake-build.log" >&2; exit 1; }
clean "$work/cmake/consumer_cmake"
clean "$work/cmake/consumer_lut_cmake"

step "pkg-config --cflags --libs vorta"
flags=$(clean "${pkgenv[@]}" pkg-config --cflags --libs vorta)
echo "flags: $flags"
# Outside the system's library directories the program itself says where
# libvorta.so.0 is (its own run path to the library it links, nothing more);
# in /usr it needs nothing.
runpath=()
if [ "$mode" = prefix ]; then
  runpath=(-Wl,-rpath,"$(clean "${pkgenv[@]}" pkg-config --variable=libdir vorta)")
fi
# shellcheck disable=SC2086
clean c++ -std=c++17 "$here/main.cpp" -o "$work/consumer_pkgconfig" $flags "${runpath[@]}"
clean "$work/consumer_pkgconfig"
# The LUT parse calls the ANTLR 3 C runtime itself, and links it itself.
# shellcheck disable=SC2086
clean c++ -std=c++17 "$here/lut_parse.cpp" -o "$work/consumer_lut_pkgconfig" $flags -lantlr3c "${runpath[@]}"
clean "$work/consumer_lut_pkgconfig"
step "the consumers ran through both routes"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Writes the list of libvorta.so's exported symbols that the test suite
# checks (tests/symbols/libvorta.PROCESSOR.symbols), after a deliberate
# change of the library's interface. Run it, look at the diff, commit it.
#
#   scripts/update-symbols.sh [BUILD_DIR...]
#
# Default: build/default, and build/ppc when it is configured (the list
# differs between processors: size_t and long are part of mangled names).
set -euo pipefail
cd "$(dirname "$0")/.."
dirs=("$@")
if [ ${#dirs[@]} -eq 0 ]; then
  dirs=(build/default)
  [ -f build/ppc/CMakeCache.txt ] && dirs+=(build/ppc)
fi
for dir in "${dirs[@]}"; do
  [ -f "$dir/CMakeCache.txt" ] || { echo "update-symbols: $dir is not a configured build (cmake --preset ...)" >&2; exit 1; }
  cmake --build "$dir" --target update-symbols
done
git diff --stat -- tests/symbols/ 2>/dev/null || true

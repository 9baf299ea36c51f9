#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Lists the tests that the last ctest run in a build directory skipped, each
# with the reason it printed (GTEST_SKIP() << "reason").
#
#   scripts/ctest-skips.sh build/ppc
set -euo pipefail
log=${1:?usage: ctest-skips.sh BUILD_DIR}/Testing/Temporary/LastTest.log
[ -f "$log" ] || exit 0
awk '
  /^[0-9]+\/[0-9]+ Test: / { sub(/^[0-9]+\/[0-9]+ Test: /, ""); name = $0; next }
  /: Skipped$/ { collecting = 1; reason = ""; next }
  collecting && /^\[  SKIPPED \]/ {
    collecting = 0
    lines[++count] = sprintf("  %s: %s", name, reason == "" ? "(no reason given)" : reason)
    next
  }
  collecting { reason = reason == "" ? $0 : reason " " $0 }
  END {
    if (count == 0) exit
    printf "skipped tests (%d), with their reasons:\n", count
    for (i = 1; i <= count; i++) print lines[i]
  }
' "$log"

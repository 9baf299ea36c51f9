#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs every fuzz target in a build directory for a bounded time each.
#   scripts/run-fuzz.sh BUILD_DIR SECONDS
# Seeds come from fuzz/corpus/<target>/ when present; new inputs go to a
# scratch directory so the committed seeds stay as they are. Fails on any
# crash, leak, timeout or sanitizer report.
set -euo pipefail
build=${1:?build directory}
seconds=${2:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  scratch=$(mktemp -d)
  seeds=()
  [ -d "$root/fuzz/corpus/$name" ] && seeds+=("$root/fuzz/corpus/$name")
  echo "fuzz: $name for ${seconds}s" >&2
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$scratch/" "$scratch" "${seeds[@]}" > "$scratch/log" 2>&1; then
    echo "fuzz: $name FAILED; last lines of its log:" >&2
    tail -n 40 "$scratch/log" >&2
    ls "$scratch" >&2
    status=1
  else
    grep -E 'stat::number_of_executed_units|Done' "$scratch/log" | tail -n 2 >&2 || true
  fi
  rm -rf "$scratch"
done
exit $status

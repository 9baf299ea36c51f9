#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks every Debian package in a directory with lintian, Debian's own
# package checker: fails when it finds an error or a warning in any of them
# (its informational notes are shown but pass). Installs lintian if missing.
#
#   scripts/package-lint.sh [DIR...]    (default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh package
dirs=("$@")
[ ${#dirs[@]} -gt 0 ] || dirs=(build/package)
debs=()
for dir in "${dirs[@]}"; do
  found=("$dir"/*.deb)
  [ -e "${found[0]}" ] || { echo "package-lint: no .deb in $dir (make package first)" >&2; exit 1; }
  debs+=("${found[@]}")
done
status=0
for deb in "${debs[@]}"; do
  # --no-cfg: the same checks whoever runs it; root is warned about, not refused.
  if lintian --no-cfg --fail-on error,warning --info "$deb" 2> >(grep -v 'running with root privileges' >&2); then
    echo "lintian: $(basename "$deb"): no error or warning"
  else
    echo "lintian: $(basename "$deb"): FAILED" >&2
    status=1
  fi
done
exit $status

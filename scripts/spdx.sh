#!/usr/bin/env bash
# Puts the licence line "SPDX-License-Identifier: MIT" at the top of every
# source file that lacks it: first line, or after a "#!" line; in the
# file's own comment syntax. Files that have it are left alone, so the
# script can be run again at any time (after a merge, say).
#
#   scripts/spdx.sh           add the line where it is missing
#   scripts/spdx.sh --check   only list the files without it; exit status 1 if any
#
# Source files: *.cpp *.c *.h *.g (// comments); *.cmake *.cmake.in *.pc.in
# *.sh *.py CMakeLists.txt Makefile .ci/run (# comments). Not generated files
# (*_generated.*) and nothing under tests/data/, fuzz/corpus/ or build/.
set -euo pipefail
cd "$(dirname "$0")/.."
licence=MIT
check=0
case "${1:-}" in
  --check) check=1 ;;
  "") ;;
  *) echo "usage: spdx.sh [--check]" >&2; exit 2 ;;
esac

list_files() {
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -co --exclude-standard
  else
    find . -path ./build -prune -o -type f -print | sed 's|^\./||'
  fi
}

comment_of() {
  case "$1" in
    tests/data/* | fuzz/corpus/* | build/* | *_generated.*) ;;
    *.cpp | *.c | *.h | *.g) echo "//" ;;
    *.cmake | *.cmake.in | *.pc.in | *.sh | *.py | CMakeLists.txt | */CMakeLists.txt | Makefile | .ci/run) echo "#" ;;
  esac
}

missing=0
while IFS= read -r file; do
  [ -f "$file" ] || continue
  comment=$(comment_of "$file")
  [ -n "$comment" ] || continue
  if head -n 3 "$file" | grep -q 'SPDX-License-Identifier:'; then
    continue
  fi
  missing=$((missing + 1))
  if [ "$check" -eq 1 ]; then
    echo "no SPDX licence line: $file"
    continue
  fi
  line="$comment SPDX-License-Identifier: $licence"
  tmp=$(mktemp "$file.spdx.XXXXXX")
  if head -n 1 "$file" | grep -q '^#!'; then
    { head -n 1 "$file"; echo "$line"; tail -n +2 "$file"; } >"$tmp"
  else
    { echo "$line"; cat "$file"; } >"$tmp"
  fi
  chmod --reference="$file" "$tmp"
  mv "$tmp" "$file"
  echo "added: $file"
done < <(list_files | sort)

if [ "$check" -eq 1 ] && [ "$missing" -gt 0 ]; then
  echo "spdx: $missing file(s) without a licence line; run scripts/spdx.sh" >&2
  exit 1
fi
exit 0

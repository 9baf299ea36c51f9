#!/bin/bash
# SPDX-License-Identifier: MIT
# libvorta.so's exported symbols against the committed list of them, so that
# an accidental export or a lost one fails the suite.
#
#   check.sh check NM LIBRARY LIST   compare; exit 1 on a difference, 77 (skip) without a list
#   check.sh write NM LIBRARY LIST   write the list (scripts/update-symbols.sh)
#
# The list holds the demangled names of the defined, exported, non-weak
# symbols (nm -D --defined-only -C), sorted: the functions and data the
# library's units define. Weak ones (inline functions a build chose not to
# inline, template instances, vtables of classes without a key function)
# depend on the optimisation level and are left out; what the version
# script hides is hidden whatever its binding. One list per processor, as
# names differ with the size of size_t and long.
#
# Whatever the list says, the C entry points that programs of the recorder
# call by name must be exported: the LUT grammar's generated constructors and
# token names (a program may run a parse of its own over them). Neither mode
# accepts a library without them, so a list cannot be rewritten to lose them.
set -euo pipefail
mode=$1 nm=$2 lib=$3 list=$4
required=(LUTLexerNew LUTLexerNewSSD LUTParserNew LUTParserNewSSD LUTParserTokenNames)

dump() {
  "$nm" -D --defined-only -C "$lib" |
    awk '$2 ~ /^[A-Z]$/ && $2 != "W" && $2 != "V" { $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
    LC_ALL=C sort -u
}

missing=$(dump | LC_ALL=C comm -13 - <(printf '%s\n' "${required[@]}" | LC_ALL=C sort) || true)
if [ -n "$missing" ]; then
  echo "FAIL: entry points that programs call by name are not exported by $(basename "$lib"):"
  echo "$missing"
  echo "(classes/vorta.map must name them under \"global\")"
  exit 1
fi

case "$mode" in
  write)
    mkdir -p "$(dirname "$list")"
    dump >"$list"
    echo "wrote $list ($(wc -l <"$list") symbols)"
    ;;
  check)
    if [ ! -f "$list" ]; then
      echo "skipped: no list of exported symbols for this processor ($(basename "$list")); scripts/update-symbols.sh writes one"
      exit 77
    fi
    current=$(mktemp)
    trap 'rm -f "$current"' EXIT
    dump >"$current"
    # Internal names are never exported, weak or not.
    leaked=$("$nm" -D --defined-only -C "$lib" | grep -E '(detail|internal)::' || true)
    if [ -n "$leaked" ]; then
      echo "FAIL: internal symbols exported:"
      echo "$leaked"
      exit 1
    fi
    if ! diff -u "$list" "$current" >"$current.diff"; then
      echo "FAIL: libvorta.so's exported symbols differ from $list"
      echo "(+ exported now but not in the list: an accidental export, or a new interface;"
      echo " - in the list but no longer exported: a lost symbol, which breaks programs built before)"
      grep -E '^[-+][^-+]' "$current.diff"
      echo "After a deliberate change of the interface: scripts/update-symbols.sh, and commit the list."
      rm -f "$current.diff"
      exit 1
    fi
    rm -f "$current.diff"
    echo "ok: $(wc -l <"$list") exported symbols as listed"
    ;;
  *)
    echo "check.sh: unknown mode '$mode'" >&2
    exit 2
    ;;
esac

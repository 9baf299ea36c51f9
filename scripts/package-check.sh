#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages of 'make package' with dpkg -i, checks that
# they give a working tool, manual page and completion and a library that
# programs link through find_package and through pkg-config, then removes
# them again (also when a check fails). Needs root.
#
#   scripts/package-check.sh [BUILD_DIR]    (default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build/package}
packages=(vorta libvorta-dev libvorta0)
mapfile -t debs < <(ls "$dir"/*.deb)
[ "${#debs[@]}" -eq 3 ] || { echo "package-check: expected 3 packages in $dir, found ${#debs[@]}" >&2; exit 1; }
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt | head -n 1)
work=$(mktemp -d)

remove() {
  dpkg --purge "${packages[@]}" >/dev/null
  rm -rf "$work"
}
trap remove EXIT

step() { printf -- '--- %s\n' "$*"; }

for deb in "${debs[@]}"; do
  printf '%-40s %8d bytes  %s\n' "$(basename "$deb")" "$(stat -c %s "$deb")" \
    "$(dpkg-deb -f "$deb" Depends)"
done
step "dpkg -i"
dpkg -i "${debs[@]}" >/dev/null

step "vorta --version"
got=$(env -i PATH=/usr/bin:/bin vorta --version)
echo "$got"
[ "$got" = "vorta $version" ] || { echo "FAIL: expected 'vorta $version'" >&2; exit 1; }

step "man -w vorta"
page=$(man -w vorta)
echo "$page"
MANWIDTH=80 man -P cat vorta 2>/dev/null | grep -q '^NAME' || { echo "FAIL: 'man vorta' shows no NAME section" >&2; exit 1; }

step "bash completion"
completion=/usr/share/bash-completion/completions/vorta
[ -s "$completion" ] || { echo "FAIL: no $completion" >&2; exit 1; }
offered=$(bash -c 'source "$1"; COMP_WORDS=(vorta cac); COMP_CWORD=1; _vorta; echo "${COMPREPLY[*]}"' _ "$completion")
[ "$offered" = cache ] || { echo "FAIL: completing 'vorta cac' offers '$offered'" >&2; exit 1; }
echo "vorta cac<TAB>: $offered"

step "programs against /usr"
bash tests/consumer/run.sh system "$work/consumer"

step "dpkg --purge"
trap - EXIT
remove
for f in /usr/bin/vorta "$page" "$completion"; do
  [ ! -e "$f" ] || { echo "FAIL: $f is still there after dpkg --purge" >&2; exit 1; }
done
echo "removed"

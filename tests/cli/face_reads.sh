#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Commands that only read never create a segment or a mutex: a missing
# catalogue is one line and exit status 1. The demo keeps to caches and a
# parameter file of its own.
. "$(dirname "$0")/face/common.sh"

before=$(ls /dev/shm)
for words in "clips" "clips --json" "next-name" "after-delete A.mov A.mov" "playlists" "cache info" \
  "remove A.mov" "playlist delete X.playlist"; do
  read -ra w <<<"$words"
  status "$words on a missing catalogue" 1 v "${w[@]}"
  [ "$err" = "vorta ${w[0]}: no catalogue '$prefix': run vorta scan or vorta cache create" ] ||
    fail "$words: stderr is '$err'"
  [ -z "$out" ] || fail "$words printed '$out'"
done
after=$(ls /dev/shm)
if grep -q "$prefix" <<<"$after"; then fail "a read created $(grep "$prefix" <<<"$after")"; fi
[ "$before" = "$(grep -v "^$" <<<"$after")" ] || true # other tests may run beside this one
[ ! -e "$VORTA_PARAMS" ] || fail "a read created the parameter file"

# The demo: its own prefix and parameter file; the default catalogue and the
# user's parameter file stay as they were.
if [ ${#emulator[@]} -eq 0 ]; then
  default_before=$(stat -c '%Y %s' /dev/shm/vorta.clips 2>/dev/null || echo none)
  demo_prefix="${prefix}_demo"
  VORTA_DEMO_DIR="$work/demo" VORTA_DEMO_PREFIX="$demo_prefix" VORTA_PARAMS=/nonexistent/user.json \
    bash "$src/scripts/demo.sh" "$vorta" >"$work/demo.out" 2>&1 || fail "demo: $(cat "$work/demo.out")"
  p cache remove --prefix "$demo_prefix" >/dev/null
  [ "$(stat -c '%Y %s' /dev/shm/vorta.clips 2>/dev/null || echo none)" = "$default_before" ] ||
    fail "the demo changed the default catalogue"
  expect "the demo names its prefix" "scan .* --prefix $demo_prefix" "$(cat "$work/demo.out")"
fi
echo "face_reads: passed"

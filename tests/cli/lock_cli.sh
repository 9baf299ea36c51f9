#!/bin/bash
# SPDX-License-Identifier: MIT
# vorta CLI: a lock held by 'vorta cache hold', shown by 'vorta cache info',
# left behind by a SIGKILL and taken over by 'vorta cache repair'; the modes
# of the mutexes under umask 022. Usage: lock_cli.sh VORTA [EMULATOR...]
set -u
vorta=("$@")
if [ "${#vorta[@]}" -gt 1 ]; then vorta=("${vorta[@]:1}" "${vorta[0]}"); fi

work=$(mktemp -d)
prefix="vorta-cli-lock-$$-$RANDOM"
holder=""
cleanup() {
  [ -n "$holder" ] && kill -KILL "$holder" 2>/dev/null
  "${vorta[@]}" cache remove --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  for f in "$work"/*; do [ -f "$f" ] && { echo "--- $f" >&2; cat "$f" >&2; }; done
  exit 1
}
wait_for() {
  for _ in $(seq 1 300); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}
v() { "${vorta[@]}" "$@" --prefix "$prefix"; }

(umask 022 && v cache create --clips 4 --playlists 2 >"$work/create.out" 2>&1) || fail "cache create"
for f in "sem.$prefix.clips.lock" "sem.$prefix.playlists.lock" "$prefix.clips"; do
  mode=$(stat -c %a "/dev/shm/$f") || fail "no /dev/shm/$f"
  [ "$mode" == "666" ] || fail "/dev/shm/$f has mode $mode under umask 022, expected 666"
done

v cache info >"$work/free.out" 2>&1 || fail "cache info"
grep -q "^clip image .*; lock free; mutex mode 0666$" "$work/free.out" ||
  fail "info does not show a free lock and its modes"

v cache hold --seconds 60 >"$work/hold.out" 2>&1 &
holder=$!
wait_for grep -q "^holding the clip lock as pid" "$work/hold.out" || fail "hold never started"
pid=$(sed -n 's/^holding the clip lock as pid \([0-9]*\) .*/\1/p' "$work/hold.out")
[ -n "$pid" ] || fail "no pid in the hold line"

v cache info >"$work/held.out" 2>&1 || fail "cache info while held"
grep -Eq "^clip image .*; lock held by pid $pid \(vorta cache\) for [0-9]+ s; mutex mode 0666" "$work/held.out" ||
  fail "info does not show the live holder"
grep -q "^playlist image .*; lock free;" "$work/held.out" || fail "the playlist lock is not free"
v cache info --json >"$work/held.json" 2>&1 || fail "cache info --json while held"

# A command that meets the held lock says so after about a second, and --wait ends the wait.
# Milliseconds from bash itself: busybox date (the PowerPC guest's) has no %N.
millis() { local now=${EPOCHREALTIME/[.,]/}; echo $((now / 1000)); }
start=$(millis)
v clips --wait 1.5 >"$work/wait.out" 2>"$work/wait.err"
rc=$?
took=$(($(millis) - start))
[ $rc -eq 1 ] || fail "clips --wait 1.5 on a held lock exits $rc, not 1"
[ "$took" -ge 1400 ] && [ "$took" -lt 5000 ] || fail "clips --wait 1.5 took $took ms"
[ ! -s "$work/wait.out" ] || fail "clips --wait printed a result on a held lock"
[ "$(wc -l <"$work/wait.err")" -eq 2 ] || fail "clips --wait: not two lines on standard error: $(cat "$work/wait.err")"
head -n1 "$work/wait.err" | grep -Eqx "vorta clips: waiting for the clip cache's lock, held by process $pid \(vorta cache\) for [0-9]+ s" ||
  fail "no waiting line: $(cat "$work/wait.err")"
tail -n1 "$work/wait.err" | grep -Eqx "vorta clips: waiting for the clip cache's lock, held by process $pid \(vorta cache\) for [0-9]+ s; gave up after 1\.5 s" ||
  fail "no line when the wait ran out: $(cat "$work/wait.err")"
v playlists --wait 0 >"$work/wait0.out" 2>&1
[ $? -eq 1 ] || fail "playlists --wait 0 on a held clip lock does not fail"
grep -Eqx "vorta playlists: waiting for the clip cache's lock, held by process $pid \(vorta cache\) for [0-9]+ s; gave up after 0 s" "$work/wait0.out" ||
  fail "playlists --wait 0: $(cat "$work/wait0.out")"
v clips --wait soon >"$work/waitbad.out" 2>&1
[ $? -eq 2 ] || fail "clips --wait soon is not a usage error"

kill -KILL "$pid"
wait "$holder" 2>/dev/null
holder=""
v cache info >"$work/left.out" 2>&1 || fail "cache info after the kill"
grep -q "^clip image .*; lock left held by pid $pid (vorta cache) for [0-9]* s (gone; the next access takes it over" "$work/left.out" ||
  fail "info does not show the dead holder"

v cache repair >"$work/repair.out" 2>"$work/repair.err" || fail "cache repair"
grep -qx "took over 1 lock left held by processes that ended" "$work/repair.out" || fail "repair count"
grep -qx "MediaCache: $prefix.clips: took over the lock left held by process $pid (vorta cache), which ended" "$work/repair.err" ||
  fail "repair message"
v cache info --json >"$work/after.json" 2>&1 || fail "cache info --json after repair"
v cache hold --lock nothing >"$work/bad.out" 2>&1
[ $? -eq 2 ] || fail "a bad --lock is not a usage error"

# The JSON of the held and the repaired lock, checked last: everything above
# also runs where there is no Python (the PowerPC test guest).
python3 - "$work/held.json" "$pid" <<'PY' || fail "JSON of a held lock"
import json, sys
lock = json.load(open(sys.argv[1]))["clips"]["lock"]
assert lock["state"] == "held" and lock["pid"] == int(sys.argv[2]), lock
assert lock["recorded"] is True and lock["program"] == "vorta cache", lock
assert lock["mutexMode"] == "0666" and "recordMode" not in lock, lock
assert lock["heldSeconds"] >= 0, lock
PY
python3 - "$work/after.json" <<'PY' || fail "JSON after repair"
import json, sys
lock = json.load(open(sys.argv[1]))["clips"]["lock"]
assert lock["state"] == "free" and lock["takeovers"] == 1 and lock["recorded"] is False, lock
PY
echo "lock CLI: held, killed and repaired pid $pid"

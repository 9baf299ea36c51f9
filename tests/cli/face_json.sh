#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# One vocabulary: every command that prints a result has --json, and every
# --json output matches the command's schema in docs/json/ with lowerCamelCase
# keys; scan modes, rates and times read the same in tables and in JSON.
. "$(dirname "$0")/face/common.sh"

j() { # j COMMAND WORDS...: runs vorta COMMAND WORDS... --json, expects 0, validates
  local command=$1
  shift
  status "$command $* --json" 0 p "$command" "$@" --json
  json_ok "$command $*" "$command" "$out"
}
make_medium
j scan "$media" --prefix "$prefix"
expect "scan mode as a word in JSON" '"scanMode":[[:space:]]*"progressive"' "$out"
expect "rate as a rational in JSON" '"frameRateRational":[[:space:]]*"60000/1001"' "$out"
expect "time with its zone in JSON" '"modified":[[:space:]]*"2026-01-01T[0-9:]+([+-][0-9:]+|Z)"' "$out"
j clips --prefix "$prefix" --all
# The time is the one date(1) gives in the same zone, to the second, with the
# zone's own offset: whole hours, half and three-quarter hours, east and west
# of Greenwich (POSIX zone texts, which need no zone database).
when=$(stat -c %Y "$media/ClipTK2.mov")
for zone in UTC0 IST-5:30 NST3:30 XXX-13:45 YYY11 ZZZ-14; do
  want=$(TZ=$zone date -d "@$when" +%Y-%m-%dT%H:%M:%S%z)
  want=${want:0:22}:${want:22} # +0530 -> +05:30 (busybox date has no %:z)
  status "clips in $zone" 0 env TZ="$zone" "${emulator[@]}" "$vorta" clips --all --json --prefix "$prefix"
  expect "the time in $zone" "\"name\":[[:space:]]*\"ClipTK2\\.mov\",[[:space:]]*\"modified\":[[:space:]]*\"${want//+/\\+}\"" \
    "$(tr -d '\n' <<<"$out")"
done
status "clips table" 0 v clips --wide
expect "the same words in the table" "^ClipTK2\.mov +2026-01-01T[0-9:]+[+-][0-9:]+ +apco +1280x720 +59\.94 +progressive " "$out"
j add --name-only "$media/Extra_1.mov" --prefix "$prefix"
j remove Extra_1.mov --prefix "$prefix"
j after-delete ClipTK1.mov ClipTK1.mov --prefix "$prefix"
j next-name --prefix "$prefix"
j playlists --prefix "$prefix"
expect "playlist times with a zone" '"modified":[[:space:]]*"[0-9-]+T[0-9:]+([+-][0-9:]+|Z)"' "$out"
j playlist create Day ClipTK1.mov ClipTK2.mov --prefix "$prefix"
j playlists add "$media/Day.playlist" --prefix "$prefix"
j playlists remove "$media/Day.playlist" --prefix "$prefix"
j playlist write Day.playlist '{}' --prefix "$prefix"
cp "$media/Day.playlist" "$media/Night.playlist"
j playlist rename Day Night --prefix "$prefix"
j playlist delete Night --prefix "$prefix"
j cache info --prefix "$prefix"
j cache flush --prefix "$prefix"
j cache repair --prefix "$prefix"
j cache create --prefix "${prefix}_2" --clips 4 --playlists 2
j cache remove --prefix "${prefix}_2"
j param list
j param get take
j param set take 7
j probe "$media/ClipTK2.mov"
expect "probe: the same key as clips" '"fourCC":[[:space:]]*"apco"' "$out"
expect "probe: scan mode as a word" '"scanMode":[[:space:]]*"progressive"' "$out"
status "probe table" 0 p probe "$media/ClipTK2.mov" --wide
expect "probe: the same rate as clips" " 59\.94 +progressive " "$out"
j lut --dump "$data/lut/two_lines.lut"
status "lut error --json" 1 p lut --json "$data/lut/letter.lut"
json_ok "lut error" lut "$out"
j tc 01:00:00:00 --format 30df --add 1800
expect "tc keys" '"dropFrame":[[:space:]]*true' "$out"
j take A001_003.mov SHOT_TK12.mov
j cp437 "été"
if p burn --help | grep -q -- "--json"; then
  status "burn --json" 0 p burn --size 720x486 --out "$work/frame.png" --json
  if ! grep -q "without libpng" <<<"$err"; then json_ok "burn" burn "$out"; fi
fi
# The shared string needs its owner running.
name="/vorta-face-$$"
"${emulator[@]}" "$vorta" shm create "$name" 32 >"$work/shm.out" 2>&1 &
owner=$!
stop_owner() { kill -TERM "$owner" 2>/dev/null && wait "$owner"; }
trap 'stop_owner; cleanup' EXIT
for _ in $(seq 50); do p shm get "$name" >/dev/null 2>&1 && break; sleep 0.1; done
status "shm set --json" 0 p shm set "$name" hello --json
json_ok "shm set" shm "$out"
status "shm get --json" 0 p shm get "$name" --json
json_ok "shm get" shm "$out"
stop_owner
[ ! -e "/dev/shm$name" ] || fail "the owner left $name"
json_check
echo "face_json: passed"

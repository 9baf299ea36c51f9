#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# vorta scan of a medium with special files named like clips and playlists:
# FIFOs (one with a writer that never writes), a bound socket, directories,
# dangling links, links to a FIFO and to /dev/zero, and a link to a real clip.
# Each run is under `timeout`, so a scan that blocks fails instead of hanging.
#   hostile_media_cli.sh VORTA DATA_DIR [EMULATOR...]
set -uo pipefail
vorta=$1
data=$2
shift 2
emulator=("$@")
work=$(mktemp -d)
prefix="vorta_cli_hostile_$$_${RANDOM}"
export VORTA_PARAMS="$work/params.json"
media="$work/ZEV"
mkdir -p "$media"
holder=""
v() { timeout 120 "${emulator[@]}" "$vorta" "$@" --prefix "$prefix"; }
p() { timeout 120 "${emulator[@]}" "$vorta" "$@"; }
cleanup() {
  [ -n "$holder" ] && kill "$holder" 2>/dev/null
  p cache remove --prefix "$prefix" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
expect() {  # expect NAME EXPECTED_REGEX OUTPUT
  if ! grep -Eq -- "$2" <<<"$3"; then
    printf 'FAILED: %s\n--- expected /%s/ in:\n%s\n' "$1" "$2" "$3" >&2
    exit 1
  fi
}

cp "$data/qt/hd1080_p25.mov" "$media/ClipTK1.mov"
cp "$data/qt/prores_proxy_25.mov" "$media/ClipTK2.mov"
TZ=UTC touch -d "2026-01-01 10:00:00" "$media/ClipTK1.mov"
TZ=UTC touch -d "2026-01-01 11:00:00" "$media/ClipTK2.mov"
printf '%s' '{"name":"Reel","cliplist":["ClipTK2.mov","ClipTK1.mov"]}' > "$media/Reel.playlist"
mkfifo "$media/fifo.mov" "$media/fifo.MOV" "$media/fifo.playlist" "$media/held.mov"
# A writer that holds held.mov open and never writes: reading it would wait.
sleep 600 <>"$media/held.mov" &
holder=$!
mkdir "$media/dir.mov" "$media/dir.playlist"
ln -s "$media/nothing-here" "$media/dangling.mov"
ln -s "$media/nothing-here" "$media/dangling.playlist"
ln -s "$media/fifo.mov" "$media/tofifo.mov"
ln -s /dev/zero "$media/zero.mov"
ln -s /dev/zero "$media/zero.playlist"
ln -s "$media/ClipTK2.mov" "$media/Link.mov"
if command -v python3 >/dev/null; then
  python3 -c 'import socket,sys
for name in sys.argv[1:]:
    socket.socket(socket.AF_UNIX).bind(name)' "$media/socket.mov" "$media/socket.playlist" \
    || fail "could not bind the sockets"
fi

p param set media-dir "$media" >/dev/null || fail "param set media-dir"
p param set encode-type 1 >/dev/null || fail "param set encode-type"

for how in "" "--encode-type 1"; do
  # shellcheck disable=SC2086
  out=$(v scan "$media" $how 2>&1)
  rc=$?
  [ "$rc" -eq 124 ] && fail "scan $how did not finish within the time limit"
  [ "$rc" -eq 0 ] || fail "scan $how: status $rc: $out"
  expect "scan $how counts exactly three clips" "^3 clips, codec mode 1$" "$out"
  expect "scan $how lists the first clip" "^ClipTK1\.mov " "$out"
  expect "scan $how lists the second clip" "^ClipTK2\.mov " "$out"
  expect "scan $how lists the link to a clip" "^Link\.mov " "$out"
  expect "scan $how lists the playlist" "^Reel +$media/Reel\.playlist$" "$out"
  # What the scan took comes before the files it left out.
  if sed '/^LEFT OUT/,$d' <<<"$out" | grep -Eq "^(fifo|held|dir|dangling|tofifo|zero|socket)"; then
    fail "scan $how took a special file: $out"
  fi
  expect "scan $how says it left out the special files" "^fifo\.mov +not a regular file" "$out"
  expect "media-busy is back to 2" "^2$" "$(p param get media-busy)"
done

out=$(v clips --all --json) || fail "clips --json"
[ "$(grep -c '"name":' <<<"$out")" -eq 3 ] || fail "clips --json holds other than 3 clips: $out"
echo "hostile medium: scans finished with exactly 3 clips and 1 playlist"
exit 0

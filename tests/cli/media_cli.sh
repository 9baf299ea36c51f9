#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The operator's session on a real medium: param, scan, clips, playlists,
# next-name, add, remove, after-delete, playlist. Uses caches and a parameter
# file of its own, removed at the end.
#   media_cli.sh VORTA DATA_DIR [EMULATOR...]
set -uo pipefail
vorta=$1
data=$2
shift 2
emulator=("$@")
work=$(mktemp -d)
prefix="vorta_cli_media_$$_${RANDOM}"
export VORTA_PARAMS="$work/params.json"
media="$work/ZEV"
mkdir -p "$media"
v() { "${emulator[@]}" "$vorta" "$@" --prefix "$prefix"; }
p() { "${emulator[@]}" "$vorta" "$@"; }
cleanup() {
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
cp "$data/qt/hd720_p5994.mov" "$media/ClipTK2.mov"
cp "$data/qt/dnxhd_720p23976.mov" "$media/Dnx.mov"
touch -d "2026-01-01 10:00:00 UTC" "$media/ClipTK1.mov"
touch -d "2026-01-01 11:00:00 UTC" "$media/ClipTK2.mov"
printf '%s' '{"name":"Reel","cliplist":["ClipTK2.mov","ClipTK1.mov","Gone.mov"]}' > "$media/Reel.playlist"
printf '%s' '{"name":"Bad","cliplist":[1]}' > "$media/Bad.playlist"

p param set media-dir "$media" || fail "param set media-dir"
p param set encode-type 1 || fail "param set encode-type"

out=$(v scan "$media" --wide 2>&1) || fail "scan: $out"
expect "scan lists the first clip" "^ClipTK1\.mov +2026-01-01T[0-9:]+[+-][0-9:]+ +apco +1920x1080 +25 +progressive +2 +0 +00:00:00:00 +yes" "$out"
expect "scan lists the second clip" "^ClipTK2\.mov .* 1280x720 +59\.94 " "$out"
expect "scan counts two clips" "^2 clips, codec mode 1$" "$out"
expect "scan lists the valid playlist" "^Reel +$media/Reel\.playlist$" "$out"
taken=$(sed '/^LEFT OUT/,$d' <<<"$out")
if grep -q "Dnx.mov\|^Bad" <<<"$taken"; then fail "scan took a refused file: $out"; fi
expect "scan says what it left out" "^Dnx\.mov +codec outside the table +codec 'AVdn'" "$out"
expect "media-busy is back to 2" "^2$" "$(p param get media-busy)"

out=$(v clips --reverse --json) || fail "clips --json"
expect "clips --json reversed" '"name":[[:space:]]*"ClipTK2.mov"' "$(head -3 <<<"$out")"

p param set current-playlist Reel >/dev/null
p param set playback-mode 2 >/dev/null
out=$(v clips --playlist) || fail "clips --playlist"
expect "playlist order" "^NAME.*"$'\n'"ClipTK2\.mov .*"$'\n'"ClipTK1\.mov " "$out"

out=$(v next-name) || fail "next-name"
expect "next-name" "^ClipTK1\.mov$" "$out"
out=$(v next-name --advance) || fail "next-name --advance"
expect "next-name --advance" "^ClipTK3\.mov$" "$out"
expect "take moved on" "^4$" "$(p param get take)"

out=$(v after-delete ClipTK1.mov ClipTK1.mov) || fail "after-delete"
expect "after-delete" "^ClipTK2\.mov$" "$out"

out=$(v add --name-only "$media/Extra_1.mov") || fail "add"
# A clip taken by name only has no time: it sorts first, whatever the library's index says.
expect "add" "^added Extra_1\.mov: clip 1 of 3 in the catalogue \(oldest first\)$" "$out"
out=$(v clips --all --wide) || fail "clips --all"
expect "name-only clip unplayable" "^Extra_1\.mov +- .* no +no encode type$" "$out"
out=$(v remove Extra_1.mov) || fail "remove"
expect "remove" "^removed Extra_1\.mov; the catalogue holds 2 clips$" "$out"
out=$(v remove Extra_1.mov 2>&1) && fail "remove of a missing clip succeeded"
expect "remove of a missing clip" "^vorta remove: no clip of the catalogue is named in 'Extra_1\.mov'$" "$out"

out=$(v playlist delete Reel.playlist 2>&1) || fail "playlist delete: $out"
[ -e "$media/Reel.playlist" ] && fail "playlist delete left the file"
out=$(v playlist delete Reel.playlist 2>&1) && fail "deleting a missing playlist succeeded"
expect "playlist delete of a missing file" "^vorta playlist: could not delete $media/Reel\.playlist$" "$out"
out=$(v playlist rename Bad.playlist New.playlist 2>&1) && fail "rename to a missing name succeeded"
expect "rename refusal says why" "^vorta playlist: refused: $media/New\.playlist does not exist" "$out"

p param set media-dir "" >/dev/null
out=$(v playlist delete Bad.playlist 2>&1) && fail "playlist with no media dir succeeded"
expect "no media dir" "^vorta playlist: the media directory is not set" "$out"

out=$(v scan "$work/no-such-dir" 2>&1) && fail "scan of a missing directory succeeded"
expect "scan of a missing directory" "^vorta scan: cannot read the directory $work/no-such-dir: No such file or directory$" "$out"
echo "media session: all checks passed"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Scans say what they did: the files taken and each file left out with its
# reason, in the table and in JSON; progress on a terminal only; a medium
# larger than the segment names the command that makes room; an "All Clips"
# that cannot be built is said in words.
. "$(dirname "$0")/face/common.sh"

make_medium
cp "$data/qt/h264_25.mov" "$media/H264.mov"
cp "$data/qt/bad/trunc_moov.mov" "$media/Broken.mov"
mkdir "$media/Folder.mov"
ln -s "$media/nowhere.mov" "$media/Dangling.mov"
printf '{"name":"Bad","cliplist":[1]}' >"$media/Bad.playlist"
cp "$media/Reel.playlist" "$media/Copy.playlist"

status "scan" 0 v scan "$media" --wide
if grep -q "vorta scan" <<<"$err"; then fail "scan showed progress on a standard error that is no terminal: $err"; fi
expect "codec outside the table" "^H264\.mov +codec outside the table +codec 'avc1'" "$out"
expect "damaged" "^Broken\.mov +damaged " "$out"
expect "not a regular file" "^Folder\.mov +not a regular file " "$out"
expect "unreadable" "^Dangling\.mov +unreadable " "$out"
expect "not a playlist file" "^Bad\.playlist +not a playlist file " "$out"
expect "a playlist of the same text" "^(Reel|Copy)\.playlist +same text as another playlist " "$out"
[ "$(grep -c "same text as another playlist" <<<"$out")" = 1 ] || fail "both copies left out: $out"
expect "the counts" "^9 files in $media: 3 taken \(2 clips, 1 playlist\), 6 left out$" "$out"

status "scan --json" 0 v scan "$media" --json
json_ok "scan --json" scan "$out"
flat=$(tr -d '\n\t' <<<"$out")
for pair in "H264.mov:codec outside the table" "Broken.mov:damaged" "Folder.mov:not a regular file" \
  "Dangling.mov:unreadable" "Bad.playlist:not a playlist file"; do
  expect "JSON: ${pair%%:*}" "\"file\":[[:space:]]*\"${pair%%:*}\",[[:space:]]*\"reason\":[[:space:]]*\"${pair#*:}\"" "$flat"
done
expect "JSON: counts" '"files":[[:space:]]*9,[[:space:]]*"accepted":[[:space:]]*3,' "$flat"
# Each clip's attribute block, as pairs, in JSON (scan and clips alike), and
# in no table, CSV or TSV (the column has no header).
for command in "scan $media" "clips --all"; do
  status "$command --json" 0 v $command --json
  flat=$(tr -d '\n\t' <<<"$out")
  expect "$command --json: attributes" '"attributes":[[:space:]]*\{[^}]*"Encode Type":[[:space:]]*"[0-9]+"' "$flat"
  status "$command --csv" 0 v $command --csv
  if grep -q "Encode Type" <<<"$out"; then fail "$command --csv shows the attribute block: $out"; fi
done
status "scan --quiet" 0 v scan "$media" --quiet
[ -z "$out" ] || fail "scan --quiet printed: $out"

# A directory named like a clip makes every entry in it a clip candidate, as
# the scan itself takes them: a clip under any name is taken, any other file
# is left out as damaged, not as "not a clip name".
mkdir "$work/Named.mov"
cp "$data/qt/hd1080_p25.mov" "$work/Named.mov/take.bin"
printf 'notes' >"$work/Named.mov/notes.txt"
status "scan of a directory named like a clip" 0 v scan "$work/Named.mov" --wide
expect "a clip under any name" "^take\.bin " "$out"
expect "any other file is damaged" "^notes\.txt +damaged " "$out"
expect "the counts there" "^2 files in $work/Named\.mov: 1 taken \(1 clip, 0 playlists\), 1 left out$" "$out"

# Progress: on a terminal only, files done of the total and the rate.
if command -v script >/dev/null && [ ${#emulator[@]} -eq 0 ]; then
  script -qec "'$vorta' scan '$media' --prefix '$prefix' --json >/dev/null" /dev/null >"$work/tty" 2>&1 ||
    fail "scan on a terminal: $(cat "$work/tty")"
  expect "progress on a terminal" "vorta scan: 9 of 9 files, [0-9]+ files/s" "$(cat "$work/tty")"
fi

# A segment too small for the medium.
small="${prefix}_small"
p cache create --prefix "$small" --clips 1 >/dev/null || fail "cache create --clips 1"
status "scan into a small segment" 1 p scan "$media" --prefix "$small"
p cache remove --prefix "$small" >/dev/null
[ "$(tail -1 <<<"$err")" = "vorta scan: the medium has 2 clips but the catalogue segment holds 1; make room with 'vorta cache create --prefix $small --clips 2' and scan again" ] ||
  fail "small segment: '$err'"

# "All Clips" when the clips' names do not fit a playlist's text.
long=$(printf 'L%.0s' $(seq 4000))
many="${prefix}_many"
p cache create --prefix "$many" >/dev/null || fail "cache create"
for i in $(seq 13); do p add --name-only "$media/${long}_$i.mov" --prefix "$many" >/dev/null || fail "add $i"; done
status "playlists with an unbuildable All Clips" 0 bash -c '"$@" 2>/dev/null' _ "${emulator[@]}" "$vorta" \
  playlists --prefix "$many"
expect "All Clips in words" "^All Clips cannot be built: the names of the 13 clips do not fit the [0-9]+ characters of a playlist's text$" "$out"
expect "All Clips row" "^All Clips +none " "$out"
status "playlists --json" 0 bash -c '"$@" 2>/dev/null' _ "${emulator[@]}" "$vorta" playlists --json --prefix "$many"
json_ok "playlists --json" playlists "$out"
expect "All Clips in JSON" '"unbuildable":[[:space:]]*"the names of the 13 clips' "$out"
p cache remove --prefix "$many" >/dev/null
json_check
echo "face_scan: passed"

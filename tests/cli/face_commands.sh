#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Commands that used to surprise: remove says which clip went and --exact
# refuses ambiguous names; playlist create writes a new one-line playlist
# at once; ".playlist" is added where a name lacks it; absolute paths inside
# the medium are accepted, others refused.
. "$(dirname "$0")/face/common.sh"

make_medium
status "scan" 0 v scan "$media"

# remove: the library matches names that occur in the text given.
status "remove by a longer text" 0 v remove XXClipTK1.mov.old
[ "$out" = "removed ClipTK1.mov; the catalogue holds 1 clip" ] || fail "remove: '$out'"
status "scan" 0 v scan "$media"
status "remove --exact of a longer text" 1 v remove --exact XXClipTK1.mov.old
[ "$err" = "vorta remove: no clip of the catalogue is named 'XXClipTK1.mov.old'" ] || fail "exact: '$err'"
status "remove --exact by path" 0 v remove --exact "$media/ClipTK2.mov" --json
json_ok "remove --json" remove "$out"
expect "remove --exact by path" '"removed":[[:space:]]*"ClipTK2.mov"' "$out"
status "add Clip.mov" 0 v add --name-only "$media/Clip.mov"
status "add MyClip.mov" 0 v add --name-only "$media/MyClip.mov"
status "remove --exact of an ambiguous name" 1 v remove --exact MyClip.mov
[ "$err" = "vorta remove: 'MyClip.mov' is ambiguous: the names Clip.mov, MyClip.mov all occur in it, and the first would go; nothing removed" ] ||
  fail "ambiguous: '$err'"
status "remove --exact of an unambiguous name" 0 v remove --exact Clip.mov
[ "$out" = "removed Clip.mov; the catalogue holds 2 clips" ] || fail "exact: '$out'"

# playlist create: a new one-line JSON file, put in place at once.
status "playlist create" 0 v playlist create Day ClipTK1.mov "$media/ClipTK2.mov"
[ "$(cat "$media/Day.playlist")" = '{"name":"Day","cliplist":["ClipTK1.mov","ClipTK2.mov"]}' ] ||
  fail "created: $(cat "$media/Day.playlist")"
[ -z "$(find "$media" -name '.vorta-playlist-*')" ] || fail "a temporary file was left"
status "playlist create over an existing one" 1 v playlist create Day ClipTK1.mov
expect "create refuses" "^vorta playlist: refused: $media/Day\.playlist exists" "$err"
status "playlist create --replace" 0 v playlist create --replace Day.playlist ClipTK2.mov
[ "$(cat "$media/Day.playlist")" = '{"name":"Day","cliplist":["ClipTK2.mov"]}' ] || fail "replaced"
status "playlist create by an absolute path" 0 v playlist create "$media/Night" ClipTK1.mov --json
json_ok "playlist create --json" playlist "$out"
[ -f "$media/Night.playlist" ] || fail "Night.playlist was not created"
status "playlist create outside the medium" 1 v playlist create "$work/Outside" ClipTK1.mov
expect "outside refused" "^vorta playlist: refused: $work/Outside.playlist is not inside the media directory $media$" "$err"
[ ! -e "$work/Outside.playlist" ] || fail "a playlist was written outside the medium"
status "scan loads the new playlists" 0 v scan "$media"
status "playlists" 0 v playlists
expect "Day listed" "^Day +1 " "$out"
expect "Night listed" "^Night +1 " "$out"

# .playlist is added where a name lacks it, for every action.
cp "$media/Night.playlist" "$media/Late.playlist"
status "rename without the extension" 0 v playlist rename Night "$media/Late"
status "delete without the extension" 0 v playlist delete Late
[ ! -e "$media/Late.playlist" ] || fail "delete Late left Late.playlist"
status "delete of a path outside the medium" 1 v playlist delete /etc/passwd
json_check
echo "face_commands: passed"

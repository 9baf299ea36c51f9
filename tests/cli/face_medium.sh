#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Paths inside the medium only: every way out of the media directory ('..'
# once and many times, a linked directory, a linked playlist file, an
# absolute path) is refused for playlist create, write, rename (either name)
# and delete, and for add and playlists add, with one line and exit status 1;
# nothing outside changes, and the medium's own files still work.
. "$(dirname "$0")/face/common.sh"

make_medium
mkdir -p "$work/outside" "$work/elsewhere" "$media/sub"
printf '%s' '{"name":"Victim","cliplist":["ClipTK1.mov"]}' >"$work/outside/victim.playlist"
cp "$work/outside/victim.playlist" "$work/elsewhere/victim.playlist"
cp "$work/outside/victim.playlist" "$media/Kept.playlist"
ln -s "$work/elsewhere" "$media/link"
ln -s "$work/outside/victim.playlist" "$media/evil.playlist"
ln -s "$work/outside/victim.playlist" "$media/Evil.mov"
status "scan" 0 v scan "$media"

# What lies outside the medium, with every time and size (a file made and
# removed again would change its directory's time), and the names beside it.
snapshot() {
  find "$work/outside" "$work/elsewhere" | sort | while read -r path; do stat -c '%n %s %y' "$path"; done
  ls -A "$work" | grep -v '^params'
}
before=$(snapshot)
refused() { # refused WHAT WORDS...: exit status 1, one line saying so
  local what=$1
  shift
  status "$what" 1 v "$@"
  [ "$(wc -l <<<"$err")" = 1 ] || fail "$what: more than one line: $err"
  expect "$what" "^vorta [a-z]+: refused: .* is not inside the media directory $media( \(.*\))?$" "$err"
  [ -z "$out" ] || fail "$what printed '$out'"
  [ "$before" = "$(snapshot)" ] || fail "$what changed something outside the medium"
}
for name in ../outside/victim ../../../../../../outside/victim sub/../../outside/victim link/victim evil \
  "$work/outside/victim" "$work/elsewhere/victim.playlist"; do
  refused "create $name" playlist create "$name" ClipTK1.mov
  refused "create --replace $name" playlist create --replace "$name" ClipTK1.mov
  refused "write $name" playlist write "$name" '{}'
  refused "rename $name to a name inside" playlist rename "$name" Kept
  refused "rename a name inside to $name" playlist rename Kept "$name"
  refused "delete $name" playlist delete "$name"
  case $name in
    /*) refused "playlists add $name" playlists add "$name.playlist" ;;
    *) refused "playlists add $name" playlists add "$media/$name.playlist" ;;
  esac
done
[ ! -e /outside ] || fail "a path with many '..' reached /outside"
# A name that does not exist yet may hold no '..' after its missing part.
refused "create below a missing directory" playlist create "missing/../../outside/new" ClipTK1.mov
mkdir "$media/d.playlist"
refused "delete of the medium itself" playlist delete d.playlist/..
# Clips: a clip named by a path must lie inside too; add reads only the medium.
refused "create with a clip outside" playlist create Day ../outside/victim.mov
refused "add of a file outside" add "$work/outside/victim.mov"
refused "add through a linked directory" add --name-only "$media/link/Clip.mov"
refused "add of a name relative to a directory outside" add --name-only Clip.mov
refused "add of a link out of the medium" add "$media/Evil.mov"
[ -f "$work/outside/victim.playlist" ] && [ -f "$work/elsewhere/victim.playlist" ] || fail "a file outside is gone"
[ "$(cat "$work/outside/victim.playlist")" = '{"name":"Victim","cliplist":["ClipTK1.mov"]}' ] ||
  fail "the file outside was changed"

# The medium's own files: a name, a path below it, an absolute path into
# it, a link inside it that stays inside.
status "create inside" 0 v playlist create Day ClipTK1.mov
status "create by an absolute path inside" 0 v playlist create "$media/sub/Night" "$media/ClipTK2.mov"
[ "$(cat "$media/sub/Night.playlist")" = '{"name":"Night","cliplist":["ClipTK2.mov"]}' ] || fail "sub/Night"
status "create through '..' that stays inside" 0 v playlist create sub/../Late ClipTK1.mov
[ -f "$media/Late.playlist" ] || fail "sub/../Late did not make Late.playlist"
ln -s Day.playlist "$media/Alias.playlist"
status "write through a link inside" 0 v playlist write Alias '{}'
status "rename inside" 0 v playlist rename Late "$media/Kept"
status "delete a link inside: the link goes" 0 v playlist delete Alias
[ ! -e "$media/Alias.playlist" ] && [ -f "$media/Day.playlist" ] || fail "delete Alias did not delete the link only"
status "delete inside" 0 v playlist delete sub/Night
status "add inside" 0 v add "$media/ClipTK1.mov"
(cd "$media" && v add --name-only Extra_1.mov >/dev/null) || fail "add of a name relative to the medium"
status "playlists add inside" 0 v playlists add "$media/Day.playlist"
[ "$before" = "$(snapshot)" ] || fail "the medium's own operations changed something outside it"
echo "face_medium: passed"

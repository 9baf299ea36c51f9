#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# A session of separate vorta runs on one shared cache: what one run writes,
# the next one sees. The segments are removed at the end, also on failure.
#   cache_session.sh VORTA PREFIX WORK_DIR [EMULATOR...]
set -u
vorta=$1
P="$2_$(printf '%04x%04x' $RANDOM $RANDOM)"
W=$3
shift 3
emulator=("$@")
outputs=$(mktemp -d)
rm -rf "$W"
mkdir -p "$W"
cleanup() {
  "${emulator[@]}" "$vorta" cache remove --prefix "$P" >/dev/null 2>&1
  rm -rf "$W" "$outputs"
}
trap cleanup EXIT

# step STATUS STDOUT STDERR WORDS...: runs vorta WORDS... --prefix P and
# checks its exit status and both outputs. STDOUT and STDERR are POSIX
# extended expressions matched against the whole text ("^" and "$" at its
# ends, "." across lines).
step() {
  local want=$1 out_re=$2 err_re=$3 out="" err="" rc
  shift 3
  "${emulator[@]}" "$vorta" "$@" --prefix "$P" >"$outputs/out" 2>"$outputs/err"
  rc=$?
  IFS= read -r -d '' out <"$outputs/out"
  IFS= read -r -d '' err <"$outputs/err"
  local why=""
  if [ "$rc" != "$want" ]; then
    why="expected exit status $want"
  elif ! [[ $out =~ $out_re ]]; then
    why="stdout does not match '$out_re'"
  elif ! [[ $err =~ $err_re ]]; then
    why="stderr does not match '$err_re'"
  fi
  if [ -n "$why" ]; then
    printf '%s\nvorta %s\n--- exit status: %s\n--- stdout:\n%s--- stderr:\n%s' "$why" "$*" "$rc" "$out" "$err" >&2
    exit 1
  fi
}

# Playlists are added from the medium only: the work directory is one.
export VORTA_PARAMS="$W/params.json"
"${emulator[@]}" "$vorta" param set media-dir "$W" || { echo "param set media-dir failed" >&2; exit 1; }

playlist="$W/Day 1.playlist"
printf '%s' '{"name":"Day 1","cliplist":["A.mov","B.mov",7]}' >"$playlist"
printf '%s' '{"name":"Best","cliplist":["A.mov"]}' >"$W/Best.playlist"
printf '%s' $'{"name":"Bad",\n"cliplist":[]}' >"$W/bad.playlist"

step 1 '^$' $'^vorta cache: no catalogue \''"$P"$'\': run vorta scan or vorta cache create\n$' cache info
step 0 $'^clip segment '"$P"$'.clips: 65379 bytes\nplaylist segment '"$P"$'.playlists: 159971 bytes\n$' '^$' \
  cache create --clips 10 --playlists 3
step 0 $'^clip image in '"$P"$'.clips: invalid \\(never written or flushed\\), segment of 65379 bytes, room for 10 clips; lock free; mutex mode 0[0-7]+\nplaylist image in '"$P"$'.playlists: invalid \\(never written or flushed\\), segment of 159971 bytes, room for 3 playlists; lock free; mutex mode 0[0-7]+\n$' \
  '^$' cache info
# A cliplist element that is not a string makes the file invalid.
step 1 '^$' $'^vorta playlists: '"$W"$'/Day 1.playlist is not a playlist file\n$' playlists add "$playlist"
printf '%s' '{"name":"Day 1","cliplist":["A.mov","B.mov"]}' >"$playlist"
step 0 $'^added Day 1 \\('"$W"$'/Day 1.playlist\\)\nadded Best \\('"$W"$'/Best.playlist\\)\n$' '^$' \
  playlists add "$playlist" "$W/Best.playlist"
step 1 '^$' $'^vorta playlists: '"$W"$'/bad.playlist is not a playlist file\n$' playlists add "$W/bad.playlist"
step 0 $'^NAME +CLIPS +MODIFIED +PATH\nAll Clips +0  -\nBest +1  [0-9-]+T[0-9:+-]+ +'"$W"$'/Best.playlist\nDay 1 +2  [0-9-]+T[0-9:+-]+ +'"$W"$'/Day 1.playlist\n$' \
  '^$' playlists --wide
step 0 $'"name":\t"All Clips",\n\t\t"clips":\t0,\n\t\t"modified":\tnull,\n\t\t"path":\t""' '^$' playlists --json
step 0 $'"playlists":\t\\{\n\t\t"segment":\t"'"$P"$'.playlists",\n\t\t"read":\ttrue,\n\t\t"valid":\ttrue,\n\t\t"count":\t2,\n\t\t"imageBytes":\t106655,.*"names":\t\\["Best", "Day 1"\\]' \
  '^$' cache info --json
step 1 '^$' $'^vorta playlists: no cached playlist has its path in \'nothing\'\n$' playlists remove nothing
step 0 $'^removed Best\n$' '^$' playlists remove "rm $W/Best.playlist"
step 0 $'playlist image in '"$P"$'.playlists: valid, 1 playlist, 53339 of 159971 bytes, room for 3 playlists; lock free; mutex mode 0[0-7]+\n  Day 1\n$' \
  '^$' cache info
step 0 $'^took over 0 locks left held by processes that ended\n$' '^$' cache repair
step 0 $'"lock":\t\\{\n\t\t\t"state":\t"free",\n\t\t\t"recorded":\tfalse,\n\t\t\t"takeovers":\t0,\n\t\t\t"mutexMode":\t"0[0-7]+"\n\t\t\\}' \
  '^$' cache info --json
step 0 $'^flushed '"$P"$'.clips and '"$P"$'.playlists\n$' '^$' cache flush
step 0 $'^NAME +CLIPS +MODIFIED\nAll Clips +0  -\n$' '^$' playlists
step 0 'playlist image in '"$P"'.playlists: invalid' '^$' cache info
step 0 $'^removed 4 of 4 \\('"$P"'.clips, '"$P"'.clips.lock, '"$P"'.playlists, '"$P"$'.playlists.lock\\)\n$' '^$' cache remove
step 0 '^removed 0 of 4' '^$' cache remove
echo "cache session: passed"

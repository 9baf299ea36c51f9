# SPDX-License-Identifier: MIT
# Shared by the face_*.sh tests: the tool under test, a work directory, a
# parameter file and caches of their own, removed at the end.
#   face_X.sh VORTA DATA_DIR SOURCE_DIR [EMULATOR...]
set -uo pipefail
vorta=$1
data=$2
src=$3
shift 3
emulator=("$@")
work=$(mktemp -d)
prefix="vorta_cli_face_$$_${RANDOM}"
export VORTA_PARAMS="$work/params.json"
media="$work/ZEV"
mkdir -p "$media"
p() { "${emulator[@]}" "$vorta" "$@"; }
v() { "${emulator[@]}" "$vorta" "$@" --prefix "$prefix"; }
cleanup() {
  local extra
  for extra in "" _2 _small _many _demo; do p cache remove --prefix "$prefix$extra" >/dev/null 2>&1; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
expect() { # expect NAME EXPECTED_REGEX OUTPUT
  if ! grep -Eq -- "$2" <<<"$3"; then
    printf 'FAILED: %s\n--- expected /%s/ in:\n%s\n' "$1" "$2" "$3" >&2
    exit 1
  fi
}
# status NAME EXPECTED COMMAND...: runs the command and checks its exit status;
# its standard output is in $out, its standard error in $err.
status() {
  local name=$1 want=$2
  shift 2
  "$@" >"$work/out" 2>"$work/err"
  local rc=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
  if [ "$rc" != "$want" ]; then
    printf 'FAILED: %s: exit status %s, expected %s\n--- stdout:\n%s\n--- stderr:\n%s\n' "$name" "$rc" "$want" \
      "$out" "$err" >&2
    exit 1
  fi
}
# json_ok NAME COMMAND TEXT: keeps TEXT to be checked against
# docs/json/COMMAND.schema.json by json_check (one Python run for them all).
json_count=0
json_ok() {
  json_count=$((json_count + 1))
  mkdir -p "$work/json"
  printf '%s' "$3" >"$work/json/${json_count}@$2.json"
  echo "$json_count: $1" >>"$work/json.names"
}
json_check() {
  [ "$json_count" -gt 0 ] || return 0
  if ! python3 "$src/tests/cli/face/validate_json.py" --schemas "$src/docs/json" "$work"/json/*.json \
    >"$work/verr" 2>&1; then
    printf 'FAILED: JSON that does not match its schema:\n%s\n--- runs:\n%s\n' "$(cat "$work/verr")" \
      "$(cat "$work/json.names")" >&2
    exit 1
  fi
}
# A small medium: two accepted clips, one codec outside the table, one
# damaged file, a directory named like a clip, a playlist.
make_medium() {
  cp "$data/qt/hd1080_p25.mov" "$media/ClipTK1.mov"
  cp "$data/qt/hd720_p5994.mov" "$media/ClipTK2.mov"
  touch -d "2026-01-01 10:00:00 UTC" "$media/ClipTK1.mov"
  touch -d "2026-01-01 11:00:00 UTC" "$media/ClipTK2.mov"
  printf '%s' '{"name":"Reel","cliplist":["ClipTK2.mov","ClipTK1.mov"]}' >"$media/Reel.playlist"
  p param set media-dir "$media" >/dev/null || fail "param set media-dir"
  p param set encode-type 1 >/dev/null || fail "param set encode-type"
}
# A medium whose names hold what a terminal or a JSON reader must not get
# raw: a byte that is not UTF-8, escape sequences, a newline, a tab, a
# carriage return, a C1 control, a backslash; clips, playlists and a file
# left out. hostile_names lists the clips' names, one per line, escaped as
# printf %b reads them.
hostile_names='bad\0377name.mov
esc\033[2J\033[31mred.mov
new\nline.mov
tab\there.mov
cr\rhere.mov
c1\0302\0233x.mov
back\\slash.mov'
make_hostile_medium() {
  local name i=0
  make_medium
  while IFS= read -r name; do
    i=$((i + 1))
    name=$(printf '%b.' "$name") && name=${name%.}
    cp "$data/qt/hd1080_p25.mov" "$media/$name"
    touch -d "2026-01-02 10:0$i:00 UTC" "$media/$name"
  done <<<"$hostile_names"
  printf '{"name":"Bad","cliplist":["bad\377name.mov","esc\\u001b[2Jred.mov"]}' >"$media/$(printf 'title\033]0;owned\007.playlist')"
  printf '{"name":"Raw","cliplist":["ClipTK1.mov"]}' >"$media/$(printf 'raw\376.playlist')"
  printf 'x' >"$media/$(printf 'junk\033[5m\n.txt')"
  p param set custom-clip-name-text "$(printf 'Take\377\033[1m')" >/dev/null || fail "param set custom-clip-name-text"
}

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Names from the medium, a segment or an argument never reach the terminal
# raw: on a medium whose names hold bytes that are not UTF-8, escape
# sequences, newlines, tabs and carriage returns, no line any command prints
# holds a control byte or such a byte; tables and messages show them with
# the escapes of ls -b, one row per clip; TSV keeps one line and one field
# per value. (JSON and CSV are read back in face_python.sh.)
. "$(dirname "$0")/face/common.sh"

make_hostile_medium
clips=$(($(wc -l <<<"$hostile_names") + 2))
raw=$(printf '[\001-\010\013-\037\177\200-\377]')
# clean NAME: nothing the run printed, on either stream, holds a control
# character or a byte of the upper half (the escapes are plain ASCII, and
# these names hold no other characters).
clean() {
  if LC_ALL=C grep -q "$raw" "$work/out" "$work/err"; then
    fail "$1 printed raw bytes: $(LC_ALL=C grep -n "$raw" "$work/out" "$work/err" | od -c | head -20)"
  fi
}
run() { # run NAME STATUS WORDS...: runs vorta WORDS..., checks the status and that its output is clean
  local name=$1 want=$2
  shift 2
  status "$name" "$want" v "$@"
  clean "$name"
}
run "scan" 0 scan "$media" --wide
expect "an invalid byte in octal" '^bad\\377name\.mov ' "$out"
expect "escape sequences in octal" '^esc\\033\[2J\\033\[31mred\.mov ' "$out"
expect "a newline as \\n" '^new\\nline\.mov ' "$out"
expect "a tab as \\t" '^tab\\there\.mov ' "$out"
expect "a carriage return as \\r" '^cr\\rhere\.mov ' "$out"
expect "a C1 control in octal" '^c1\\302\\233x\.mov ' "$out"
expect "a backslash doubled" '^back\\\\slash\.mov ' "$out"
expect "a playlist's name" '^title\\033\]0;owned\\a ' "$out"
expect "a file left out" '^junk\\033\[5m\\n\.txt +not a clip name' "$out"
expect "every clip, one row each" "^$clips clips, codec mode 1$" "$out"
run "scan at 80 columns" 0 scan "$media"
run "clips" 0 clips --all
[ "$(sed -n '2,$p' <<<"$out" | grep -c -v "clips, codec mode")" = "$clips" ] || fail "clips: not one row a clip: $out"
run "clips --tsv" 0 clips --all --tsv
awk -F'\t' -v want="$clips" 'NR == 1 { n = NF } NF != n { exit 1 } END { exit NR != want + 1 }' "$work/out" ||
  fail "clips --tsv: not one line and the header's fields a clip: $out"
expect "TSV: a tab inside a name" '^tab\\there\.mov	' "$out"
status "clips --csv" 0 v clips --all --csv
# CSV lines end in CR LF, as RFC 4180 has them; no other CR is in them.
sed 's/\r$//' "$work/out" >"$work/csv"
if LC_ALL=C grep -q "$raw" "$work/csv" "$work/err"; then fail "clips --csv printed raw bytes: $out"; fi
[ "$(grep -c . "$work/csv")" = "$((clips + 1))" ] || fail "clips --csv: not one line a clip: $out"
run "playlists" 0 playlists --wide
expect "a playlist's path" "title\\\\033\]0;owned\\\\a\.playlist$" "$out"
run "playlists --tsv" 0 playlists --tsv
run "cache info" 0 cache info
run "add" 0 add "$media/$(printf 'esc\033[2J\033[31mred.mov')"
expect "add" '^added esc\\033\[2J\\033\[31mred\.mov: clip [0-9]+ of [0-9]+ in the catalogue' "$out"
run "remove" 0 remove "$(printf 'new\nline.mov')"
[ "$out" = 'removed new\nline.mov; the catalogue holds '"$((clips - 1))"' clips' ] || fail "remove: $out"
run "remove of no such clip" 1 remove --exact "$(printf 'no\033[2Jsuch.mov')"
[ "$err" = "vorta remove: no clip of the catalogue is named 'no\\033[2Jsuch.mov'" ] || fail "remove: $err"
run "after-delete" 0 after-delete "$(printf 'cr\rhere.mov')" "$(printf 'cr\rhere.mov')"
run "next-name with a custom name" 0 next-name
p param set custom-clip-name 1 >/dev/null
run "next-name with a custom name" 0 next-name
expect "the custom name" '^Take\\377' "$out"
status "param get" 0 p param get custom-clip-name-text
clean "param get"
status "param list" 0 p param list
clean "param list"
status "take" 0 p take "$(printf 'A\033[2J_TK3.mov')" "$(printf 'B\377_TK4.mov')"
clean "take"
expect "take" '^A\\033\[2J_TK3\.mov +3$' "$out"
run "playlist create" 0 playlist create "$(printf 'Day\033[2J')" "$(printf 'bad\377name.mov')" "$(printf 'tab\there.mov')"
expect "created" '^created .*/Day\\033\[2J\.playlist: "Day\\033\[2J", 2 clips' "$out"
run "playlist create outside" 1 playlist create "$(printf '../\033[2J')" ClipTK1.mov
[ "$(wc -l <"$work/err")" = 1 ] || fail "the refusal is not one line"
run "playlist delete" 0 playlist delete "$(printf 'Day\033[2J')"
status "probe" 1 p probe "$media/$(printf 'bad\377name.mov')" "$media/$(printf 'junk\033[5m\n.txt')"
clean "probe"
status "cp437" 0 p cp437 --table "$(printf 'a\033\377\tb')"
clean "cp437"
expect "cp437 characters" '^\\033 +1B +same byte$' "$out"
# The library's own messages (here the stat failure of a dangling link) pass
# through the same escapes.
ln -s "$work/nowhere" "$media/$(printf 'gone\033[2J.mov')"
status "scan with a dangling link" 0 v scan "$media" --quiet
clean "scan with a dangling link"
expect "the library's message, escaped" 'gone\\033\[2J\.mov: No such file or directory' "$err"
status "a usage error naming a bad option" 2 p clips "$(printf -- '--\033[2J')"
clean "a usage error"
echo "face_names: passed"

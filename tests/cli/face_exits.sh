#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Exit statuses: 0 success, 1 failure (missing medium, no such clip, refused
# file, output write error), 2 usage. The tool's own messages are one line
# "vorta CMD: ..." on standard error; LUT parse errors give a FILE:LINE:COLUMN
# summary there, then the parser's own text.
. "$(dirname "$0")/face/common.sh"

one_line() { # one_line NAME CMD: $err is one line starting "vorta CMD: "
  [ "$(wc -l <<<"$err")" = 1 ] || fail "$1: more than one line on stderr: $err"
  expect "$1" "^vorta $2: " "$err"
}

# Output write errors.
if [ -w /dev/full ]; then
  status "tc to a full disk" 1 bash -c '"$@" >/dev/full' _ "${emulator[@]}" "$vorta" tc 01:00:00:00
  [ "$err" = "vorta tc: cannot write the output: No space left on device" ] || fail "tc > /dev/full: '$err'"
  status "param list to a full disk" 1 bash -c '"$@" >/dev/full' _ "${emulator[@]}" "$vorta" param list
  one_line "param list > /dev/full" param
  status "lut --dump to a full disk" 1 bash -c '"$@" >/dev/full' _ "${emulator[@]}" "$vorta" lut --dump \
    "$data/lut/ramp_4096.lut"
  one_line "lut --dump > /dev/full" lut
fi

# Failures.
status "scan of a missing medium" 1 v scan "$work/absent"
one_line "scan of a missing medium" scan
make_medium
status "scan" 0 v scan "$media"
if [ -w /dev/full ]; then
  status "clips --json to a full disk" 1 bash -c '"$@" >/dev/full' _ "${emulator[@]}" "$vorta" clips --json \
    --prefix "$prefix"
  one_line "clips --json > /dev/full" clips
fi
status "remove of no such clip" 1 v remove Nothing.mov
one_line "remove of no such clip" remove
printf 'not a movie' >"$media/Text.mov"
status "add of a refused file" 1 v add "$media/Text.mov"
one_line "add of a refused file" add
status "probe of a refused file" 1 p probe "$media/Text.mov"

# Usage errors.
status "unknown option" 2 p clips --frob
expect "unknown option" "^vorta clips: unknown option '--frob'" "$err"
status "unknown format" 2 p tc 01:00:00:00 --format 29
status "not a time code" 2 p tc 1:2:3:4

# LUT parse errors.
status "lut parse error" 1 p lut "$data/lut/letter.lut"
[ "$out" = "entries: 2" ] || fail "lut parse error: stdout '$out'"
expect "lut summary" "^$data/lut/letter.lut:2:1: lexer error" "$(head -1 <<<"$err")"
expect "lut parser text" "^(.*/)?letter.lut\(line:2, col:1\)" "$(sed -n 2p <<<"$err")"
echo "face_exits: passed"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Values outside the format's or the table's range are usage errors (exit 2);
# --unchecked passes them to the library to show its own wrapping.
. "$(dirname "$0")/face/common.sh"

refused() { # refused NAME EXPECTED_STDERR_REGEX WORDS...
  local name=$1 pattern=$2
  shift 2
  status "$name" 2 "$@"
  expect "$name" "$pattern" "$err"
}
refused "tc 25:00:00:00" "^vorta tc: time code 25:00:00:00 is outside the format: hours go to 23" p tc 25:00:00:00
refused "tc 00:60:00:00" "minutes go to 59" p tc 00:60:00:00
refused "tc 00:00:60:00" "seconds go to 59" p tc 00:00:60:00
refused "tc frame 30 at 30" "frames go to 29 at 30" p tc 00:00:00:30
refused "tc frame 25 at 25" "frames go to 24 at 25" p tc 00:00:00:25 --format 25
refused "tc a dropped label" "drop frame skips this label" p tc 00:01:00:01 --format 30df
refused "tc --frames past the day" "^vorta tc: --frames must be below 2592000, the frames of a day at 30" \
  p tc --frames 99999999
refused "tc --frames at the day" "must be below 2592000" p tc --frames 2592000
refused "param set encode-type 42" "^vorta param: encode-type must be between 0 and 9" p param set encode-type 42
refused "param set encode-type 10" "between 0 and 9" p param set encode-type 10
refused "clips --encode-type 99" "^vorta clips: --encode-type must be between 0 and 9" v clips --encode-type 99
refused "scan --encode-type 10" "^vorta scan: --encode-type must be between 0 and 9" v scan "$media" --encode-type 10
[ ! -e "$VORTA_PARAMS" ] || fail "a refused value was stored"

# The bounds themselves are taken.
status "tc 23:59:59:29" 0 p tc 23:59:59:29
status "tc frame 59 at 60" 0 p tc 00:00:00:59 --format 60
status "tc a kept label" 0 p tc 00:10:00:00 --format 30df
status "tc --frames, the last of the day" 0 p tc --frames 2591999
expect "last frame" "^timecode   23:59:59:29$" "$out"
status "param set encode-type 9" 0 p param set encode-type 9

# --unchecked shows the library's own carrying and wrapping.
status "tc 25:00:00:00 --unchecked" 0 p tc 25:00:00:00 --unchecked
expect "hours wrap" "^timecode   01:00:00:00$" "$out"
status "tc --frames 99999999 --unchecked" 0 p tc --frames 99999999 --unchecked
expect "frames wrap" "^frames     1503999$" "$out"
status "param set encode-type 42 --unchecked" 0 p param set encode-type 42 --unchecked
[ "$(p param get encode-type)" = 42 ] || fail "encode-type 42 not stored"
make_medium
status "scan" 0 v scan "$media"
status "clips --encode-type 99 --unchecked" 0 v clips --encode-type 99 --unchecked
expect "codec mode 99" "codec mode 99$" "$out"
echo "face_ranges: passed"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Pictures: the LUT plot has labelled axes with the table's bit depth, tick
# values and a legend, and keeps equal curves visible; burn --field-marker
# centres its twelve cells and names the marker in its summary.
. "$(dirname "$0")/face/common.sh"

if ! p burn --help >/dev/null || ! p lut --plot "$work/probe.png" "$data/lut/two_lines.lut" >/dev/null 2>&1; then
  echo "face_pictures: skipped: this vorta writes no PNG"
  exit 0
fi
check() { python3 "$src/tests/cli/face/png_check.py" "$@"; }

# Identity ramps, 10-bit and 12-bit, with red, green and blue equal.
for i in $(seq 0 1023); do echo "$i $i $i"; done >"$work/ten.lut"
for i in $(seq 0 1023); do echo "$((i * 4)) $((i * 4)) $((i * 4))"; done >"$work/twelve.lut"
status "lut --plot, 10-bit" 0 p lut --plot "$work/ten.png" "$work/ten.lut"
status "lut --plot, 12-bit" 0 p lut --plot "$work/twelve.png" "$work/twelve.lut"
status "lut --json, 12-bit" 0 p lut --json "$work/twelve.lut"
expect "bit depth 12" '"bitDepth":[[:space:]]*12' "$out"
status "lut --json, 10-bit" 0 p lut --json "$work/ten.lut"
expect "bit depth 10" '"bitDepth":[[:space:]]*10' "$out"
counts=$(check colours "$work/ten.png")
read -r red green blue text <<<"$(sed 's/[a-z]*=//g' <<<"$counts")"
[ "$red" -gt 200 ] && [ "$green" -gt 200 ] && [ "$blue" -gt 200 ] ||
  fail "equal curves are not all visible: $counts"
[ "$text" -gt 1000 ] || fail "no labels, ticks or legend drawn: $counts"
if check same "$work/ten.png" "$work/twelve.png"; then fail "a 10-bit and a 12-bit table plot the same"; fi
status "lut --plot --bits 12" 0 p lut --plot "$work/ten12.png" --bits 12 "$work/ten.lut"
if check same "$work/ten.png" "$work/ten12.png"; then fail "--bits 12 changed nothing"; fi
status "lut --bits 7" 2 p lut --bits 7 "$work/ten.lut"

# burn --field-marker: twelve cells centred, the marker in the summary.
status "burn --field-marker" 0 p burn --size 720x486 --pixel argb --format 60 --tc 01:00:00:01 --field-marker \
  --out "$work/marker.png"
expect "summary names the marker" "drawn as 01:00:00:00 with field marker '\*' \(second field\) \(60\), 12 cells of 24x36 pixels from x 216," "$out"
read -r first last width <<<"$(check black-span "$work/marker.png" 390)"
[ "$first" = 216 ] && [ $((width - 1 - last)) = 216 ] || fail "the cells are not centred: $first $last of $width"
status "burn --field-marker --json" 0 p burn --size 720x486 --pixel argb --format 50 --tc 01:00:00:02 \
  --field-marker --out "$work/marker2.png" --json
json_ok "burn --json" burn "$out"
expect "JSON: the marker" '"cells":[[:space:]]*12,[[:space:]]*"fieldMarker":[[:space:]]*\{[[:space:]]*"field":[[:space:]]*1' "$(tr -d '\n' <<<"$out")"
status "burn --field-marker at 30" 0 p burn --size 720x486 --field-marker --out "$work/marker3.png"
expect "no marker at 30" "\(no field marker: only for time codes in 50 and 60 formats\) \(30\), 11 cells" "$out"
json_check
echo "face_pictures: passed"

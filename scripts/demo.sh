#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The main job, shown with the vorta tool: a medium is scanned into the
# shared catalogue, then listed the way the recorder's processes list it.
# The sample medium is built from the committed test clips; the parameters
# go to a file of the demo's own and the catalogue to caches of the demo's own
# (prefix vorta-demo), so nothing of the user's is changed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
vorta=$(cd "$(dirname "${1:-build/default/bin/vorta}")" && pwd)/$(basename "${1:-vorta}")
clips="$root/tests/data/qt"
work=${VORTA_DEMO_DIR:-/tmp/vorta-demo}
media="$work/ZEV/card1"
export VORTA_PARAMS="$work/params.json"
prefix=${VORTA_DEMO_PREFIX:-vorta-demo}

rm -rf "$work"
mkdir -p "$media"
# name:fixture:modification time (seconds into the shooting day)
i=0
for entry in \
  "ClipTK1.mov:hd1080_p25.mov" \
  "ClipTK2.mov:hd1080_tff_2997.mov" \
  "SC12ATK1.mov:hd720_p5994.mov" \
  "SC12ATK2.mov:hd1080_psf_23976.mov" \
  "Interview_1.mov:prores_hq_25.mov" \
  "A001_C003_0725XY.mov:prores_4444_25.mov" \
  "DNX_0001.mov:dnxhd_720p23976.mov" \
  "H264_0001.mov:h264_25.mov" \
  "Broken.mov:bad/trunc_moov.mov"; do
  name=${entry%%:*}
  fixture=${entry#*:}
  cp "$clips/$fixture" "$media/$name"
  TZ=UTC touch -d "$(printf '2026-11-22 09:%02d:00' $((i * 7)))" "$media/$name"
  i=$((i + 1))
done
printf '%s' '{"name":"Reel 1","cliplist":["SC12ATK2.mov","ClipTK1.mov","SC12ATK1.mov"]}' > "$media/Reel 1.playlist"
printf '%s' '{"name":"Selects","cliplist":["ClipTK2.mov","LostTK9.mov","Interview_1.mov"]}' > "$media/Selects.playlist"
printf '%s' '{"name":"Broken","cliplist":["ClipTK1.mov",42]}' > "$media/Broken.playlist"

# The commands that use the shared caches get the demo's prefix.
run() {
  echo
  case "$1" in
    scan | clips | playlists | next-name | after-delete | add | remove | playlist | cache)
      echo "\$ vorta $* --prefix $prefix"
      "$vorta" "$@" --prefix "$prefix"
      ;;
    *)
      echo "\$ vorta $*"
      "$vorta" "$@"
      ;;
  esac
}

echo "vorta demo: a medium with 9 files and 3 playlist files in $media"
run param set media-dir "$media"
run param set encode-type 1
run scan "$media"
run clips
run playlists
run param set current-playlist Selects
run param set playback-mode 2
run clips --playlist
run param set clip-name-scene 1
run param set clip-name-number 12
run param set clip-name-letter-on 1
run next-name
run next-name --advance
run param get take
run probe "$media/ClipTK2.mov"
run tc 01:00:00:00 --format 30df --add 1800

echo
echo "The demo's catalogue stays for you to try: vorta clips --prefix $prefix"
echo "(parameters: VORTA_PARAMS=$VORTA_PARAMS); remove it with: vorta cache remove --prefix $prefix"

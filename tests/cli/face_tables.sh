#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Tables fit the terminal: at COLUMNS=80 no line of any table is wider,
# --wide shows every column, TSV has the table's columns and reads with
# awk -F'\t'. VORTA_PREFIX names the caches (the option wins), --prefix and
# --params also come before the command, and --quiet prints nothing.
. "$(dirname "$0")/face/common.sh"

make_medium
long=A001_C003_0725XY_a_rather_long_clip_name_from_a_camera
cp "$data/qt/hd1080_tff_2997.mov" "$media/${long}.mov"
cp "$data/qt/dnxhd_720p23976.mov" "$media/Dnx_0001.mov"
printf 'x' >"$media/notes.txt"
printf '%s' "{\"name\":\"Long\",\"cliplist\":[\"${long}.mov\"]}" >"$media/A playlist with a long name.playlist"

# fits NAME WORDS...: every line of the run at COLUMNS=80 is 80 columns or
# fewer; wider NAME WORDS...: and with --wide one is longer (so there was
# something to fit). The names here are ASCII, so bytes are columns.
widest() { awk '{ if (length($0) > w) w = length($0) } END { print w + 0 }' <<<"$out"; }
fits() {
  local name=$1
  shift
  status "$name" 0 env COLUMNS=80 "${emulator[@]}" "$vorta" "$@"
  [ "$(widest)" -le 80 ] || fail "$name: a line of $(widest) columns at COLUMNS=80:
$out"
  echo "$name: $(widest) columns at COLUMNS=80"
}
wider() {
  fits "$@"
  local name=$1
  shift
  status "$name --wide" 0 env COLUMNS=80 "${emulator[@]}" "$vorta" "$@" --wide
  [ "$(widest)" -gt 80 ] || fail "$name --wide: no line wider than 80 columns"
  echo "$name: $(widest) columns with --wide"
}
wider "scan" scan "$media" --prefix "$prefix"
wider "clips" clips --all --prefix "$prefix"
wider "playlists" playlists --prefix "$prefix"
p param set media-dir "$media/and/a/path/long/enough/to/need/a/shorter/value/at/eighty/columns" >/dev/null
wider "param list" param list
p param set media-dir "$media" >/dev/null
wider "probe" probe "$media/${long}.mov" "$media/ClipTK2.mov"
wider "take" take "$long.mov" "${long}_TK12.mov" "Clip.mov"
fits "cp437" cp437 --table "ab \\ x"
fits "lut" lut --dump "$data/lut/two_lines.lut"
status "a narrower terminal" 0 env COLUMNS=50 "${emulator[@]}" "$vorta" clips --all --prefix "$prefix"
[ "$(widest)" -le 50 ] || fail "a line of $(widest) columns at COLUMNS=50: $out"

# The table's columns, in order: the same header for TSV and CSV.
status "clips --wide" 0 v clips --all --wide
header=$(head -1 <<<"$out" | sed 's/  */ /g')
status "clips --tsv" 0 v clips --all --tsv
[ "$(head -1 <<<"$out" | tr '\t' ' ')" = "$header" ] || fail "TSV header '$(head -1 <<<"$out")' is not '$header'"
awk -F'\t' 'NR == 1 { n = NF } NF != n { exit 1 } END { exit NR != 4 }' <<<"$out" ||
  fail "TSV rows differ in their fields, or are not 3: $out"
[ "$(awk -F'\t' '$1 == "ClipTK2.mov" { print $5 }' <<<"$out")" = 59.94 ] || fail "TSV rate of ClipTK2.mov: $out"
status "scan --tsv: the catalogue" 0 v scan "$media" --tsv
[ "$(head -1 <<<"$out" | tr '\t' ' ')" = "$header" ] || fail "scan --tsv is not the catalogue: $out"
status "param list --tsv" 0 p param list --tsv
[ "$(awk -F'\t' '$1 == "media-dir" { print $3 }' <<<"$out")" = "\"$media\"" ] || fail "param list --tsv: $out"
status "lut --tsv" 0 p lut "$data/lut/two_lines.lut" --tsv
[ "$out" = "$(printf 'INDEX\tRED\tGREEN\tBLUE\n0\t0\t0\t0\n1\t1023\t1023\t1023')" ] || fail "lut --tsv: $out"
status "csv and json together" 2 v clips --csv --json
status "--csv is for tables" 2 v next-name --csv

# VORTA_PREFIX: the default prefix; the option wins.
status "VORTA_PREFIX" 0 env VORTA_PREFIX="$prefix" "${emulator[@]}" "$vorta" clips --all --tsv
[ "$(wc -l <<<"$out")" = 4 ] || fail "VORTA_PREFIX did not name the catalogue: $out"
status "--prefix wins over VORTA_PREFIX" 0 env VORTA_PREFIX="${prefix}_none" "${emulator[@]}" "$vorta" clips \
  --prefix "$prefix"
status "VORTA_PREFIX of no catalogue" 1 env VORTA_PREFIX="${prefix}_none" "${emulator[@]}" "$vorta" clips
[ "$err" = "vorta clips: no catalogue '${prefix}_none': run vorta scan or vorta cache create" ] || fail "$err"
[ ! -e "/dev/shm/${prefix}_none.clips" ] || fail "a read made ${prefix}_none"

# --prefix and --params before the command; given again after it, the later wins.
status "--prefix before the command" 0 p --prefix "$prefix" clips --all --tsv
[ "$(wc -l <<<"$out")" = 4 ] || fail "--prefix before clips: $out"
status "--prefix= before the command" 0 p --prefix="$prefix" --params "$VORTA_PARAMS" clips
status "the later --prefix wins" 0 p --prefix "${prefix}_none" clips --prefix "$prefix"
p param --params "$work/other.json" set take 42 >/dev/null || fail "param set take in other.json"
status "--params before the command" 0 p --params "$work/other.json" param get take
[ "$out" = 42 ] || fail "--params before param: $out"

# --quiet: nothing but errors, and the work is done.
quiet() { # quiet NAME WORDS...
  local name=$1
  shift
  status "$name --quiet" 0 "$@" --quiet
  [ -z "$out$err" ] || fail "$name --quiet printed '$out' '$err'"
}
quiet "scan" v scan "$media"
quiet "add" v add "$media/ClipTK1.mov"
quiet "cache create" p cache create --prefix "${prefix}_2" --clips 4 --playlists 2
[ -e "/dev/shm/${prefix}_2.clips" ] || fail "cache create --quiet made nothing"
quiet "cache info" p cache info --prefix "${prefix}_2"
quiet "cache flush" p cache flush --prefix "${prefix}_2"
quiet "cache repair" p cache repair --prefix "${prefix}_2"
quiet "cache hold" p cache hold --seconds 0 --prefix "${prefix}_2"
quiet "cache remove" p cache remove --prefix "${prefix}_2"
[ ! -e "/dev/shm/${prefix}_2.clips" ] || fail "cache remove --quiet removed nothing"
status "quiet and an error" 1 p cache info --prefix "${prefix}_2" --quiet
[ -z "$out" ] && [ -n "$err" ] || fail "an error under --quiet: '$out' '$err'"
echo "face_tables: passed"

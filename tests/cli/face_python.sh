#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Needs python3. On a medium whose names hold bytes that are not UTF-8,
# escape sequences, newlines, tabs and carriage returns: every --json output
# parses with Python's json and matches its schema, and gives back the exact
# name (the text, or its bytes in the "Hex" key beside it); CSV reads with
# Python's csv, TSV with a split at tabs, each with the table's header, one
# row a clip, and the name back from its escapes.
. "$(dirname "$0")/face/common.sh"
command -v python3 >/dev/null || fail "python3 is needed"

make_hostile_medium
mkdir -p "$work/runs"
n=0
# keep KIND WORDS...: runs vorta WORDS... (status 0 or 1), keeps its output
# for the schema check and for the Python checks below as runs/N.KIND.
keep() {
  local kind=$1
  shift
  n=$((n + 1))
  "${emulator[@]}" "$vorta" "$@" >"$work/runs/$n.$kind" 2>"$work/runs/$n.err"
  [ $? -le 1 ] || fail "$*: $(cat "$work/runs/$n.err")"
  case $kind in json@*) json_ok "$*" "${kind#json@}" "$(cat "$work/runs/$n.$kind")" ;; esac
}
bad=$(printf 'bad\377name.mov')
esc=$(printf 'esc\033[2J\033[31mred.mov')
keep json@scan scan "$media" --json --prefix "$prefix"
keep json@clips clips --all --json --prefix "$prefix"
keep json@playlists playlists --json --prefix "$prefix"
keep json@cache cache info --json --prefix "$prefix"
keep csv clips --all --csv --prefix "$prefix"
keep tsv clips --all --tsv --prefix "$prefix"
keep wide clips --all --wide --prefix "$prefix"
keep csv playlists --csv --prefix "$prefix"
keep wide playlists --wide --prefix "$prefix"
keep json@add add "$media/$esc" --json --prefix "$prefix"
keep json@remove remove "$bad" --json --prefix "$prefix"
keep json@after-delete after-delete "$esc" "$esc" --json --prefix "$prefix"
p param set custom-clip-name 1 >/dev/null
keep json@next-name next-name --json --prefix "$prefix"
keep json@param param get custom-clip-name-text --json
keep json@param param list --json
keep json@take take "$bad" "$esc" --json
keep json@playlist playlist create "$(printf 'Day\377\033')" "$bad" "$(printf 'tab\there.mov')" --json
keep json@playlists playlists add "$media/$(printf 'Day\377\033').playlist" --json --prefix "$prefix"
keep json@playlist playlist delete "$(printf 'Day\377\033')" --json --prefix "$prefix"
keep json@probe probe "$media/$bad" "$media/$(printf 'junk\033[5m\n.txt')" --json
keep json@cp437 cp437 "$(printf 'a\033\377\tb')" --table --json
cp "$data/lut/letter.lut" "$work/$(printf 'lut\377\033.lut')"
keep json@lut lut "$work/$(printf 'lut\377\033.lut')" --json
json_check

python3 - "$work/runs" "$media" <<'PY' || fail "the names do not come back from the outputs"
import csv, io, json, os, re, sys

runs, media = sys.argv[1], os.fsencode(sys.argv[2])
files = set(os.listdir(media))
clips = {name for name in files if b".mov" in name}


def raw(item, key):
    """The exact bytes of a text the tool printed as JSON."""
    if key + "Hex" in item:
        data = bytes.fromhex(item[key + "Hex"])
        assert data.decode("utf-8", "replace") == item[key], (item, key)
        return data
    return item[key].encode()


def unescape(text):
    """The bytes a table, CSV or TSV cell shows with the escapes of ls -b."""
    named = {"a": 7, "b": 8, "t": 9, "n": 10, "v": 11, "f": 12, "r": 13, "\\": 92}
    out, i, data = bytearray(), 0, text.encode()
    while i < len(data):
        if data[i] == 92:
            c = chr(data[i + 1])
            if c in named:
                out.append(named[c])
                i += 2
            else:
                out.append(int(data[i + 1:i + 4], 8))
                i += 4
        else:
            out.append(data[i])
            i += 1
    return bytes(out)


def load(path):
    with open(os.path.join(runs, path), encoding="utf-8") as f:
        return f.read()


def runs_of(kind):
    return [name for name in sorted(os.listdir(runs), key=lambda n: int(n.split(".")[0]))
            if name.split(".", 1)[1] == kind]


jsons = {}
for name in sorted(os.listdir(runs), key=lambda n: int(n.split(".")[0])):
    if ".json@" in name:
        jsons.setdefault(name.split("@", 1)[1], []).append(json.loads(load(name)))

scan = jsons["scan"][0]
assert {raw(c, "name") for c in scan["clips"]} == clips, scan["clips"]
assert any(b"\xff" in raw(c, "name") for c in scan["clips"])
assert {raw(l, "file") for l in scan["leftOut"]} <= files
assert {os.path.basename(raw(p, "path")) for p in scan["playlists"] if p["path"]} <= files
assert {raw(c, "name") for c in jsons["clips"][0]} == clips
assert {os.path.basename(raw(p, "path")) for p in jsons["playlists"][0] if p["path"]} <= files
names = jsons["cache"][0]["clips"]["names"]
hexes = jsons["cache"][0]["clips"].get("namesHex", [None] * len(names))
assert {bytes.fromhex(h) if h else n.encode() for n, h in zip(names, hexes)} == clips
assert raw(jsons["add"][0], "added") == b"esc\x1b[2J\x1b[31mred.mov"
assert raw(jsons["remove"][0], "removed") == b"bad\xffname.mov"
assert raw(jsons["after-delete"][0], "current") in clips
assert raw(jsons["next-name"][0], "name").startswith(b"Take\xff")
assert raw(jsons["param"][0], "value") == b"Take\xff\x1b[1m"
assert [raw(t, "name") for t in jsons["take"][0]] == [b"bad\xffname.mov", b"esc\x1b[2J\x1b[31mred.mov"]
created = jsons["playlist"][0]
assert os.path.basename(raw(created, "created")) == b"Day\xff\x1b.playlist"
assert [bytes.fromhex(h) if h else n.encode() for n, h in zip(created["cliplist"], created["cliplistHex"])] == \
    [b"bad\xffname.mov", b"tab\there.mov"]
assert os.path.basename(raw(jsons["playlists"][1]["added"][0], "path")) == b"Day\xff\x1b.playlist"
assert os.path.basename(raw(jsons["playlist"][1], "deleted")) == b"Day\xff\x1b.playlist"
assert [os.path.basename(raw(p, "file")) for p in jsons["probe"][0]] == [b"bad\xffname.mov", b"junk\x1b[5m\n.txt"]
assert raw(jsons["cp437"][0], "input") == b"a\x1b\xff\tb"
assert os.path.basename(raw(jsons["lut"][0], "file")) == b"lut\xff\x1b.lut"

# CSV and TSV: the table's header, one row a clip, the names back.
csv_clips, csv_playlists = runs_of("csv")
wide_clips, wide_playlists = runs_of("wide")
for csv_run, wide_run in ((csv_clips, wide_clips), (csv_playlists, wide_playlists)):
    with open(os.path.join(runs, csv_run), newline="", encoding="utf-8") as f:
        rows = list(csv.reader(f, strict=True))
    header = re.split(r"  +", load(wide_run).splitlines()[0].strip())
    assert rows[0] == header, (rows[0], header)
    assert all(len(row) == len(header) for row in rows), rows
    if csv_run == csv_clips:
        assert {unescape(row[0]) for row in rows[1:]} == clips, rows
    else:
        assert {os.path.basename(unescape(row[-1])) for row in rows[1:] if row[-1]} <= files, rows
tsv = load(runs_of("tsv")[0]).split("\n")
assert tsv[-1] == "" and all(len(line.split("\t")) == len(tsv[0].split("\t")) for line in tsv[:-1]), tsv
assert {unescape(line.split("\t")[0]) for line in tsv[1:-1]} == clips, tsv
print("names back from JSON, CSV and TSV: %d clips" % len(clips))
PY
echo "face_python: passed"

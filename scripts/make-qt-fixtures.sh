#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Regenerates the QuickTime test clips under tests/data/qt/ with Debian's
# ffmpeg, GStreamer (qtmux) and libquicktime, the malformed variants made
# from them, and probe.tsv: what ffprobe and mediainfo report for every
# well-formed clip. The clips are committed, so the test suite needs none of
# these tools; run this only to change them.
#   scripts/make-qt-fixtures.sh
# It installs the tools it needs first (scripts/install-deps.sh fixtures).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/install-deps.sh" fixtures
out=$root/tests/data/qt
mkdir -p "$out"
rm -f "$out"/*.mov "$out"/*.MOV "$out"/ffprobe.tsv "$out"/probe.tsv
rm -rf "$out/bad"
mkdir -p "$out/bad"

ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }
gst() { gst-launch-1.0 -q "$@"; }

# clip NAME RATE SIZE FRAMES [ffmpeg output options...]
# A grey picture (cheap to compress) of FRAMES frames at RATE and SIZE.
clip() {
  local name=$1 rate=$2 size=$3 frames=$4
  shift 4
  ff -f lavfi -i "color=c=gray:s=$size:r=$rate" -frames:v "$frames" "$@" "$out/$name"
}

# Audio sources: a short silence per track, mapped as separate tracks.
stereo=(-f lavfi -t 0.2 -i anullsrc=r=48000:cl=stereo)
mono=(-f lavfi -t 0.2 -i anullsrc=r=48000:cl=mono)

# Codecs (prores_ks profiles 0-4 are proxy, LT, 422, HQ, 4444).
clip prores_proxy_25.mov 25 64x36 3 -c:v prores_ks -profile:v 0
clip prores_lt_25.mov 25 64x36 3 -c:v prores_ks -profile:v 1
clip prores_422_25.mov 25 64x36 3 -c:v prores_ks -profile:v 2
clip prores_hq_25.mov 25 64x36 3 -c:v prores_ks -profile:v 3
clip prores_4444_25.mov 25 64x36 3 -c:v prores_ks -profile:v 4 -pix_fmt yuva444p10le
clip uyvy_2vuy_25.mov 25 64x36 2 -c:v rawvideo -pix_fmt uyvy422
clip v210_25.mov 25 64x36 2 -c:v v210
clip h264_25.mov 25 64x36 3 -c:v libx264 -pix_fmt yuv420p
# DNxHD only exists at fixed sizes and rates: 1280x720 at 23.976 and 60 Mbit/s
# is the smallest frame it makes. One frame keeps the file small.
clip dnxhd_720p23976.mov 24000/1001 1280x720 1 -c:v dnxhd -b:v 60M -pix_fmt yuv422p

# Rates.
for r in 24000/1001:23976 24:24 30:30 48:48 50:50 60000/1001:5994 60:60 30000/1001:2997; do
  clip "rate_${r#*:}.mov" "${r%%:*}" 64x36 3 -c:v prores_ks -profile:v 0
done

# Larger pictures and interlace. True top-first and bottom-first need
# +ildct and -field_order together with setfield; setfield=tff alone gives
# a 'top stored first, bottom displayed first' field atom.
clip hd1080_p25.mov 25 1920x1080 2 -c:v prores_ks -profile:v 0
clip hd720_p5994.mov 60000/1001 1280x720 2 -c:v prores_ks -profile:v 0
clip hd1080_tff_2997.mov 30000/1001 1920x1080 2 -c:v prores_ks -profile:v 0 \
  -flags +ildct -field_order tt -vf setfield=tff
clip hd1080_bff_25.mov 25 1920x1080 2 -c:v prores_ks -profile:v 0 \
  -flags +ildct -field_order bb -vf setfield=bff
clip hd1080_tb_2997.mov 30000/1001 1920x1080 2 -c:v prores_ks -profile:v 0 -vf setfield=tff
clip uyvy_tff_2997.mov 30000/1001 64x36 2 -c:v rawvideo -pix_fmt uyvy422 \
  -flags +ildct -field_order tt -vf setfield=tff
clip hd1080_psf_23976.mov 24000/1001 1920x1080 2 -c:v prores_ks -profile:v 0 \
  -flags +ildct -field_order tt -vf setfield=tff

# Timecode tracks.
clip tc_ndf_2997.mov 30000/1001 64x36 3 -c:v prores_ks -profile:v 0 -timecode 01:00:00:00
clip tc_df_2997.mov 30000/1001 64x36 3 -c:v prores_ks -profile:v 0 -timecode 01:00:00\;00
clip tc_ndf_5994.mov 60000/1001 64x36 3 -c:v prores_ks -profile:v 0 -timecode 01:00:00:00
clip tc_df_5994.mov 60000/1001 64x36 3 -c:v prores_ks -profile:v 0 -timecode 01:00:00\;00
clip tc_ndf_25.mov 25 64x36 3 -c:v prores_ks -profile:v 0 -timecode 10:00:00:00
clip tc_ndf_24.mov 24 64x36 3 -c:v prores_ks -profile:v 0 -timecode 00:59:59:23

# Audio tracks: one stereo, two stereo, eight mono, and high-rate audio
# (which ffmpeg describes with a version 2 sound description).
ff -f lavfi -i color=c=gray:s=64x36:r=25 "${stereo[@]}" -frames:v 3 -map 0:v -map 1:a \
  -c:v prores_ks -profile:v 0 -c:a pcm_s16le "$out/audio_1x2.mov"
ff -f lavfi -i color=c=gray:s=64x36:r=25 "${stereo[@]}" -frames:v 3 -map 0:v -map 1:a -map 1:a \
  -c:v prores_ks -profile:v 3 -c:a pcm_s24le -timecode 01:00:00:00 "$out/audio_2x2.mov"
maps=()
for _ in 1 2 3 4 5 6 7 8; do maps+=(-map 1:a); done
ff -f lavfi -i color=c=gray:s=64x36:r=30000/1001 "${mono[@]}" -frames:v 3 -map 0:v "${maps[@]}" \
  -c:v prores_ks -profile:v 1 -c:a pcm_s24le -timecode 01:00:00\;00 "$out/audio_8x1.mov"
ff -f lavfi -i color=c=gray:s=64x36:r=25 -f lavfi -t 0.2 -i anullsrc=r=96000:cl=stereo \
  -frames:v 3 -map 0:v -map 1:a -c:v prores_ks -profile:v 0 -c:a pcm_s24le "$out/audio_96k.mov"

# Layout: moov first, and an upper-case name.
clip faststart.mov 25 64x36 3 -c:v prores_ks -profile:v 2 -movflags +faststart -timecode 01:00:00:00
clip UPPER_CASE.MOV 25 64x36 3 -c:v prores_ks -profile:v 0

# Rates a track's time scale cannot hold exactly: the sample durations are
# rounded to the clock and differ by one unit (16/17 at 1000 for 59.94,
# 33/34 for 29.97, 41/42 for 23.976), or by one millisecond of a remux from
# Matroska (256/272 at 16000).
clip jit_5994_ms.mov 60000/1001 64x36 60 -c:v prores_ks -profile:v 0 -video_track_timescale 1000 \
  -timecode 01:00:00\;00
clip jit_2997_ms.mov 30000/1001 64x36 30 -c:v prores_ks -profile:v 0 -video_track_timescale 1000 \
  -timecode 01:00:00\;00
clip jit_23976_ms.mov 24000/1001 64x36 24 -c:v prores_ks -profile:v 0 -video_track_timescale 1000
clip jit_60_ms.mov 60 64x36 60 -c:v prores_ks -profile:v 0 -video_track_timescale 1000 -timecode 01:00:00:00
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
ff -f lavfi -i color=c=gray:s=64x36:r=60000/1001 -frames:v 120 -c:v prores_ks -profile:v 0 "$tmp/remux.mkv"
ff -i "$tmp/remux.mkv" -c copy "$out/remux_mkv_5994.mov"

# Fragmented movies: an empty moov and one fragment per frame (ProRes has
# only key frames), a moov holding the first fragment, fragments based on
# their moof, fragments of several frames; the time code's sample sits in
# the first fragment.
clip frag_empty_moov_25.mov 25 64x36 5 -c:v prores_ks -profile:v 0 -movflags frag_keyframe+empty_moov \
  -timecode 01:00:00:00
clip frag_keyframe_25.mov 25 64x36 5 -c:v prores_ks -profile:v 0 -movflags frag_keyframe -timecode 10:00:00:00
clip frag_base_moof_5994.mov 60000/1001 64x36 6 -c:v prores_ks -profile:v 0 \
  -movflags frag_keyframe+empty_moov+default_base_moof -timecode 01:00:00\;00
clip frag_duration_2997.mov 30000/1001 64x36 10 -c:v prores_ks -profile:v 0 -movflags empty_moov \
  -frag_duration 100000 -timecode 01:00:00\;00
clip frag_jit_5994_ms.mov 60000/1001 64x36 60 -c:v prores_ks -profile:v 0 -video_track_timescale 1000 \
  -movflags empty_moov+default_base_moof -frag_duration 250000

# Field orders as ffmpeg's -field_order writes them for whole frames.
clip field_tb_25.mov 25 64x36 3 -c:v prores_ks -profile:v 0 -field_order tb
clip field_bt_2997.mov 30000/1001 64x36 3 -c:v prores_ks -profile:v 0 -field_order bt

# GStreamer's qtmux: uncompressed 2vuy, interlaced pictures (it writes the
# field details 9 and 14), a millisecond time scale, fragments, a drop
# frame time code.
prores="videoconvert ! video/x-raw,format=I422_10LE ! avenc_prores_ks profile=proxy"
gray=(videotestsrc pattern=solid-color foreground-color=0xff808080)
gst "${gray[@]}" num-buffers=4 ! video/x-raw,format=UYVY,width=32,height=18,framerate=30000/1001 \
  ! qtmux ! filesink location="$out/gst_2vuy_2997.mov"
gst "${gray[@]}" num-buffers=4 ! video/x-raw,format=UYVY,width=32,height=18,framerate=25/1,interlace-mode=interleaved,field-order=top-field-first \
  ! qtmux ! filesink location="$out/gst_2vuy_tff_25.mov"
gst "${gray[@]}" num-buffers=4 ! video/x-raw,width=64,height=36,framerate=30000/1001,interlace-mode=interleaved,field-order=bottom-field-first \
  ! $prores ! qtmux ! filesink location="$out/gst_prores_bff_2997.mov"
gst "${gray[@]}" num-buffers=60 ! video/x-raw,width=64,height=36,framerate=60000/1001 \
  ! $prores ! qtmux trak-timescale=1000 ! filesink location="$out/gst_jit_5994_ms.mov"
gst "${gray[@]}" num-buffers=10 ! video/x-raw,width=64,height=36,framerate=25/1 \
  ! $prores ! qtmux fragment-duration=120 ! filesink location="$out/gst_frag_25.mov"
gst "${gray[@]}" num-buffers=4 ! video/x-raw,width=64,height=36,framerate=30000/1001 \
  ! timecodestamper set=always drop-frame=true timecode-offset=107892 \
  ! $prores ! qtmux ! filesink location="$out/gst_tc_df_2997.mov"
# Streamable fragments: an empty moov, runs with per-sample durations and
# sizes, an mfra index at the end.
gst "${gray[@]}" num-buffers=10 ! video/x-raw,width=64,height=36,framerate=30000/1001 \
  ! $prores ! qtmux fragment-duration=100 streamable=true ! filesink location="$out/gst_frag_stream_2997.mov"
# A millisecond time scale with a drop-frame time code at 59.94 (16/17).
gst "${gray[@]}" num-buffers=60 ! video/x-raw,width=64,height=36,framerate=60000/1001 \
  ! timecodestamper set=always drop-frame=true timecode-offset=215784 \
  ! $prores ! qtmux trak-timescale=1000 ! filesink location="$out/gst_jit_tc_df_5994.mov"

# libquicktime's transcoder, from uncompressed ffmpeg clips.
ff -f lavfi -i color=c=gray:s=32x18:r=30000/1001 -frames:v 4 -c:v rawvideo -pix_fmt uyvy422 "$tmp/lqt_in_2997.mov"
ff -f lavfi -i color=c=gray:s=32x18:r=25 -frames:v 4 -c:v rawvideo -pix_fmt uyvy422 "$tmp/lqt_in_25.mov"
lqt_transcode -vc 2vuy "$tmp/lqt_in_2997.mov" "$out/lqt_2vuy_2997.mov" >/dev/null
lqt_transcode -vc v210 "$tmp/lqt_in_25.mov" "$out/lqt_v210_25.mov" >/dev/null

# What ffprobe and mediainfo report, one line per clip. frames is the count
# ffprobe reads (its stream header counts only the moov's samples of a
# fragmented movie); mi_scan is mediainfo's scan type and order.
probe() {
  ffprobe -v error -select_streams "$1" -show_entries "$2" -of csv=p=0 "$3"
}
{
  printf 'file\tcodec_tag\twidth\theight\tfield_order\trate\tframes\taudio_channels\taudio_streams\ttimecode'
  printf '\tmi_rate\tmi_frames\tmi_scan\tmi_timecode\n'
  for f in "$out"/*.mov "$out"/*.MOV; do
    name=$(basename "$f")
    IFS=, read -r tag w h order rate < <(
      probe v:0 stream=codec_tag_string,width,height,r_frame_rate,field_order "$f")
    [ -n "$order" ] || order=unknown
    frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
      -of csv=p=0 "$f")
    chans=$(probe a stream=channels "$f" | paste -sd, -)
    nstreams=$(probe a stream=index "$f" | wc -l)
    tc=$(ffprobe -v error -show_entries stream_tags=timecode -of csv=p=0 "$f" | grep -m1 . || true)
    IFS='|' read -r mrate mframes mscan < <(
      mediainfo --Inform='Video;%FrameRate_Num%/%FrameRate_Den%|%FrameCount%|%ScanType%/%ScanOrder%' "$f")
    mtc=$(mediainfo --Inform='Other;%TimeCode_FirstFrame%' "$f")
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s' "$name" "$tag" "$w" "$h" "$order" "$rate" \
      "$frames" "${chans:--}" "$nstreams" "${tc:--}"
    printf '\t%s\t%s\t%s\t%s\n' "$mrate" "$mframes" "${mscan%/}" "${mtc:--}"
  done
} > "$out/probe.tsv"

# Malformed variants, all made from real clips.
bad=$out/bad
# GStreamer 1.22's qtmux with streamable fragments and a time code track
# writes a moov whose last atom is cut and no readable fragment after it:
# ffprobe reads no frame of it either.
gst "${gray[@]}" num-buffers=10 ! video/x-raw,width=64,height=36,framerate=30000/1001 \
  ! timecodestamper set=always drop-frame=true timecode-offset=107892 \
  ! $prores ! qtmux fragment-duration=100 streamable=true ! filesink location="$bad/gst_frag_tc_broken.mov"
src=$out/tc_df_2997.mov      # ftyp wide mdat moov
fast=$out/faststart.mov      # ftyp moov wide mdat
size=$(stat -c %s "$src")
: > "$bad/empty.mov"
printf 'This is not a movie, only text named like one.\n' > "$bad/text.mov"
head -c 4096 /dev/urandom > "$bad/random.mov"
head -c 6 "$src" > "$bad/trunc_header.mov"
head -c 100 "$src" > "$bad/trunc_mdat.mov"
head -c $((size - 200)) "$src" > "$bad/trunc_moov.mov"
head -c 300 "$fast" > "$bad/trunc_fast_moov.mov"
python3 - "$src" "$fast" "$bad" "$out/frag_empty_moov_25.mov" "$out/gst_frag_25.mov" <<'EOF'
import struct, sys
src, fast, bad, frag, gfrag = sys.argv[1:6]
data = bytearray(open(src, 'rb').read())
fdata = bytearray(open(fast, 'rb').read())

def atoms(buf, start, end):
    pos = start
    while pos + 8 <= end:
        size, kind = struct.unpack('>I4s', buf[pos:pos + 8])
        yield pos, size, kind.decode('latin-1')
        if size < 8:
            break
        pos += size

def find(buf, path, start=0, end=None):
    end = len(buf) if end is None else end
    for pos, size, kind in atoms(buf, start, end):
        if kind == path[0]:
            if len(path) == 1:
                return pos, size
            return find(buf, path[1:], pos + 8, pos + size)
    raise KeyError(path)

def save(name, buf):
    open(f'{bad}/{name}', 'wb').write(buf)

moov, moov_size = find(data, ['moov'])
# The moov atom claims more than the file holds.
b = bytearray(data); struct.pack_into('>I', b, moov, moov_size + 100000); save('moov_beyond_file.mov', b)
# An atom size below 8 in the middle of the file (the mdat).
mdat, _ = find(data, ['mdat'])
b = bytearray(data); struct.pack_into('>I', b, mdat, 3); save('size_below_8.mov', b)
# Size 0 in the middle: mdat "runs to the end", hiding the moov behind it.
b = bytearray(data); struct.pack_into('>I', b, mdat, 0); save('size0_mid.mov', b)
# A child larger than its parent (first trak inside moov).
trak, trak_size = find(data, ['moov', 'trak'])
b = bytearray(data); struct.pack_into('>I', b, trak, moov_size * 4); save('child_beyond_parent.mov', b)
# Garbage 64-bit size on the moov.
b = bytearray(data[:moov]) + struct.pack('>I4sQ', 1, b'moov', 0xFFFFFFFFFFFFFFF0) + data[moov + 8:]
save('size64_garbage.mov', b)
# stts and stsd entry counts far beyond what their atoms hold.
stts, _ = find(data, ['moov', 'trak', 'mdia', 'minf', 'stbl', 'stts'])
b = bytearray(data); struct.pack_into('>I', b, stts + 12, 0x7FFFFFFF); save('huge_stts_count.mov', b)
stsd, _ = find(data, ['moov', 'trak', 'mdia', 'minf', 'stbl', 'stsd'])
b = bytearray(data); struct.pack_into('>I', b, stsd + 12, 0xFFFFFFFF); save('huge_stsd_count.mov', b)
stsz, _ = find(data, ['moov', 'trak', 'mdia', 'minf', 'stbl', 'stsz'])
b = bytearray(data); struct.pack_into('>I', b, stsz + 16, 0xFFFFFFFF); b[stsz+12:stsz+16] = b'\0\0\0\0'
save('huge_stsz_count.mov', b)
# The timecode track's first chunk offset points past the end of the file.
traks = [p for p, s, k in atoms(data, moov + 8, moov + moov_size) if k == 'trak']
tc_trak = traks[-1]
stco, _ = find(data, ['mdia', 'minf', 'stbl', 'stco'], tc_trak + 8, tc_trak + struct.unpack('>I', data[tc_trak:tc_trak+4])[0])
b = bytearray(data); struct.pack_into('>I', b, stco + 16, 0xFFFFFF00); save('tc_offset_past_end.mov', b)
b = bytearray(data); struct.pack_into('>I', b, stco + 16, len(data) - 2); save('tc_sample_cut.mov', b)
# The video sample description removed: a track that says video but has no
# description of its pictures.
b = bytearray(data); struct.pack_into('>I', b, stsd + 12, 0); save('video_no_stsd_entry.mov', b)
# Nesting without end: moov holding 2000 nested atoms of the same kind.
depth = 2000
nest = bytearray()
for i in range(depth):
    nest += struct.pack('>I4s', 8 * (depth - i), b'trak')
ftyp, ftyp_size = find(data, ['ftyp'])
b = bytearray(data[:ftyp_size]) + struct.pack('>I4s', 8 + len(nest), b'moov') + nest
save('deep_nesting.mov', b)
# An ftyp alone: a movie with nothing in it.
save('ftyp_only.mov', bytearray(data[:ftyp_size]))
# A moov without any track.
b = bytearray(data[:ftyp_size]) + struct.pack('>I4s', 8, b'moov'); save('moov_empty.mov', b)
# A faststart file whose moov is cut in the middle of the sample tables.
fmoov, fmoov_size = find(fdata, ['moov'])
save('trunc_moov_mid.mov', fdata[:fmoov + fmoov_size // 2])

# Fragmented movies (empty moov, one fragment per frame, the time code's
# sample in the first fragment).
fr = bytearray(open(frag, 'rb').read())
moofs = [p for p, s, k in atoms(fr, 0, len(fr)) if k == 'moof']
mdats = [(p, s) for p, s, k in atoms(fr, 0, len(fr)) if k == 'mdat']
# Cut in the middle of the last fragment's media, as by a power loss: the
# fragments before it are read.
last_mdat, last_size = mdats[-1]
save('frag_cut_last.mov', fr[:last_mdat + last_size // 2])
# The first video run claims far more samples than the file holds.
trun, _ = find(fr, ['moof', 'traf', 'trun'])
b = bytearray(fr); struct.pack_into('>I', b, trun + 12, 0x7FFFFFFF); save('frag_huge_run.mov', b)
# A fragment whose run lists more per-sample records than its box holds.
gf = bytearray(open(gfrag, 'rb').read())
gtrun, _ = find(gf, ['moof', 'traf', 'trun'])
b = bytearray(gf); struct.pack_into('>I', b, gtrun + 12, 1000); save('frag_run_overflow.mov', b)
# The mdat after the second fragment has a 64-bit size that runs past the
# end of the file: the walk ends there, after two fragments.
p2, s2 = mdats[1]
b = bytearray(fr[:p2]) + struct.pack('>I4sQ', 1, b'mdat', len(fr) * 2) + fr[p2 + 8:]
save('frag_size64_past_end.mov', b)
EOF

du -sh "$out"

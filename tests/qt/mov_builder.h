// SPDX-License-Identifier: MIT
// vorta tests: builds small QuickTime movie files byte by byte, for cases no encoder writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace movbuild {

inline std::string be16(uint32_t v) {
  return std::string{static_cast<char>((v >> 8) & 0xFF), static_cast<char>(v & 0xFF)};
}
inline std::string be32(uint32_t v) { return be16(v >> 16) + be16(v & 0xFFFF); }
inline std::string be64(uint64_t v) {
  return be32(static_cast<uint32_t>(v >> 32)) + be32(static_cast<uint32_t>(v & 0xFFFFFFFFu));
}
inline std::string zeros(std::size_t n) { return std::string(n, '\0'); }

/// An atom with a 32-bit size.
inline std::string atom(const std::string& type, const std::string& body) {
  return be32(static_cast<uint32_t>(8 + body.size())) + type + body;
}
/// An atom with a 64-bit size (size field 1).
inline std::string atom64(const std::string& type, const std::string& body) {
  return be32(1) + type + be64(16 + body.size()) + body;
}

/// Sample description atom holding one entry.
inline std::string stsd(const std::string& entry) { return atom("stsd", zeros(4) + be32(1) + entry); }

/// A video sample description entry with optional extension atoms.
inline std::string videoEntry(const std::string& codec, uint16_t width, uint16_t height,
                              const std::string& extensions = "") {
  std::string body = zeros(6) + be16(1)  // reserved, data-reference index
                     + zeros(16)         // version, revision, vendor, qualities
                     + be16(width) + be16(height) + be32(0x00480000) + be32(0x00480000) + zeros(4) + be16(1) +
                     zeros(32) + be16(24) + be16(0xFFFF) + extensions;
  return be32(static_cast<uint32_t>(8 + body.size())) + codec + body;
}

inline std::string fiel(uint8_t count, uint8_t order) {
  return atom("fiel", std::string{static_cast<char>(count), static_cast<char>(order)});
}

/// A sound sample description entry of version 0, 1 or 2.
inline std::string soundEntry(uint16_t version, uint32_t channels) {
  std::string body = zeros(6) + be16(1) + be16(version) + zeros(6);
  if (version == 2) {
    body += be16(3) + be16(16) + be16(0xFFFE) + be16(0) + be32(0x00010000) + be32(72);
    body += be64(0x40E7700000000000ull);  // 48000.0
    body += be32(channels) + be32(0x7F000000) + be32(24) + be32(0) + be32(6) + be32(1);
  } else {
    body += be16(static_cast<uint16_t>(channels)) + be16(16) + be16(0) + be16(0) + be32(48000u << 16);
    if (version == 1) body += be32(1) + be32(3) + be32(6) + be32(3);
  }
  return be32(static_cast<uint32_t>(8 + body.size())) + "in24" + body;
}

/// A timecode sample description entry.
inline std::string timecodeEntry(uint32_t flags, uint32_t timescale, uint32_t frameDuration, uint8_t frames) {
  std::string body = zeros(6) + be16(1) + zeros(4) + be32(flags) + be32(timescale) + be32(frameDuration) +
                     std::string(1, static_cast<char>(frames)) + zeros(1);
  return be32(static_cast<uint32_t>(8 + body.size())) + "tmcd" + body;
}

inline std::string hdlr(const std::string& subtype) {
  return atom("hdlr", zeros(4) + "mhlr" + subtype + zeros(12));
}
inline std::string mdhd(uint32_t timescale, uint32_t duration, bool version1 = false) {
  if (version1)
    return atom("mdhd", be32(0x01000000) + zeros(16) + be32(timescale) + be64(duration) + zeros(4));
  return atom("mdhd", zeros(12) + be32(timescale) + be32(duration) + zeros(4));
}
inline std::string stts(const std::vector<std::pair<uint32_t, uint32_t>>& entries) {
  std::string body = zeros(4) + be32(static_cast<uint32_t>(entries.size()));
  for (const auto& e : entries) body += be32(e.first) + be32(e.second);
  return atom("stts", body);
}
/// stsz with one size per sample (sampleSize 0) or a constant size.
inline std::string stsz(uint32_t count, uint32_t constantSize = 0, uint32_t eachSize = 100) {
  std::string body = zeros(4) + be32(constantSize) + be32(count);
  if (constantSize == 0)
    for (uint32_t i = 0; i < count; ++i) body += be32(eachSize);
  return atom("stsz", body);
}
inline std::string stco(uint32_t first) { return atom("stco", zeros(4) + be32(1) + be32(first)); }
inline std::string co64(uint64_t first) { return atom("co64", zeros(4) + be32(1) + be64(first)); }

/// A track header (version 0) with a track ID.
inline std::string tkhd(uint32_t trackId) { return atom("tkhd", zeros(12) + be32(trackId) + zeros(68)); }

inline std::string trak(const std::string& handler, const std::string& mdhdAtom, const std::string& stblBody,
                        uint32_t trackId = 0) {
  return atom("trak",
              tkhd(trackId) + atom("mdia", mdhdAtom + hdlr(handler) + atom("minf", atom("stbl", stblBody))));
}

/// What a built movie holds.
struct Movie {
  std::string codec = "apch";
  uint16_t width = 1920, height = 1080;
  std::string extensions;  // e.g. fiel(2, 1)
  uint32_t timescale = 25, sampleDuration = 1, frames = 3;
  // The video's time-to-sample entries (count, duration) when not all
  // durations are sampleDuration; frames is then their total count.
  std::vector<std::pair<uint32_t, uint32_t>> durations;
  bool mdhdVersion1 = false;
  std::vector<std::pair<uint16_t, uint32_t>> audio;  // (sound description version, channels) per track
  bool timecode = false;
  uint32_t timecodeFlags = 0;
  uint32_t startFrame = 0;
  bool timecodeCo64 = false;
  bool moovFirst = false;
};

inline std::string videoTrak(const Movie& m) {
  uint32_t frames = m.frames;
  std::vector<std::pair<uint32_t, uint32_t>> durations = {{m.frames, m.sampleDuration}};
  if (!m.durations.empty()) {
    durations = m.durations;
    frames = 0;
    for (const auto& d : durations) frames += d.first;
  }
  return trak(
      "vide", mdhd(m.timescale, m.sampleDuration * m.frames, m.mdhdVersion1),
      stsd(videoEntry(m.codec, m.width, m.height, m.extensions)) + stts(durations) + stsz(frames) + stco(0));
}

/// ftyp, wide, mdat (holding the timecode sample), moov; or ftyp, moov, wide, mdat.
inline std::string build(const Movie& m) {
  const std::string ftyp = atom("ftyp", std::string("qt  ") + zeros(4) + "qt  ");
  const std::string mdat = atom("mdat", be32(m.startFrame) + zeros(60));
  auto moovFor = [&](uint64_t mdatOffset) {
    std::string traks = videoTrak(m);
    for (const auto& a : m.audio)
      traks += trak("soun", mdhd(48000, 48000),
                    stsd(soundEntry(a.first, a.second)) + stts({{1, 1}}) + stsz(1, 6) +
                        stco(static_cast<uint32_t>(mdatOffset)));
    if (m.timecode) {
      const uint64_t sample = mdatOffset + 8;
      traks += trak("tmcd", mdhd(m.timescale, m.sampleDuration),
                    stsd(timecodeEntry(m.timecodeFlags, m.timescale, m.sampleDuration, 30)) +
                        stts({{1, m.sampleDuration}}) + stsz(1, 4) +
                        (m.timecodeCo64 ? co64(sample) : stco(static_cast<uint32_t>(sample))));
    }
    return atom("moov", atom("mvhd", zeros(100)) + traks);
  };
  if (!m.moovFirst) return ftyp + atom("wide", "") + mdat + moovFor(ftyp.size() + 8);
  // The moov's size does not depend on the offsets written into it.
  const std::size_t moovSize = moovFor(0).size();
  return ftyp + moovFor(ftyp.size() + moovSize + 8) + atom("wide", "") + mdat;
}

/// A built movie with a 'free' atom of gap body bytes just before its moov,
/// which moves a moov at the end out of a reader's first window (the chunk
/// offsets, into the media data before it, stay right).
inline std::string gapBeforeMoov(std::string movie, std::size_t gap) {
  movie.insert(movie.find("moov") - 4, atom("free", zeros(gap)));
  return movie;
}

/// The time-to-sample entries of frames at num/den frames a second on a
/// clock of timescale, each time stamp rounded to the nearest tick.
inline std::vector<std::pair<uint32_t, uint32_t>> roundedDurations(uint32_t timescale, uint64_t num,
                                                                   uint64_t den, uint32_t frames) {
  std::vector<std::pair<uint32_t, uint32_t>> entries;
  auto stamp = [&](uint64_t i) { return (2 * i * timescale * den + num) / (2 * num); };
  for (uint32_t i = 0; i < frames; ++i) {
    const uint32_t d = static_cast<uint32_t>(stamp(i + 1) - stamp(i));
    if (!entries.empty() && entries.back().second == d)
      ++entries.back().first;
    else
      entries.push_back({1, d});
  }
  return entries;
}

// Fragmented movies.

/// A track-extends default: duration and size of a track's fragment samples.
inline std::string trex(uint32_t trackId, uint32_t duration, uint32_t size) {
  return atom("trex", zeros(4) + be32(trackId) + be32(1) + be32(duration) + be32(size) + zeros(4));
}

/// A track fragment header; only the fields whose flag is set are written.
struct Tfhd {
  uint32_t flags = 0, trackId = 1;
  uint64_t base = 0;
  uint32_t duration = 0, size = 0;
};
inline std::string tfhd(const Tfhd& h) {
  std::string body = be32(h.flags) + be32(h.trackId);
  if (h.flags & 0x1) body += be64(h.base);
  if (h.flags & 0x2) body += be32(1);
  if (h.flags & 0x8) body += be32(h.duration);
  if (h.flags & 0x10) body += be32(h.size);
  if (h.flags & 0x20) body += be32(0x01010000);
  return atom("tfhd", body);
}

/// A track run; per sample (duration, size) when the flags ask for them
/// (0x100, 0x200), flags and composition offsets as zeros (0x400, 0x800).
struct Trun {
  uint32_t flags = 0x1, count = 0;
  int32_t dataOffset = 0;
  std::vector<std::pair<uint32_t, uint32_t>> samples;
};
inline std::string trun(const Trun& r) {
  std::string body = be32(r.flags) + be32(r.count);
  if (r.flags & 0x1) body += be32(static_cast<uint32_t>(r.dataOffset));
  if (r.flags & 0x4) body += be32(0x02000000);
  for (const auto& s : r.samples) {
    if (r.flags & 0x100) body += be32(s.first);
    if (r.flags & 0x200) body += be32(s.second);
    if (r.flags & 0x400) body += be32(0);
    if (r.flags & 0x800) body += be32(0);
  }
  return atom("trun", body);
}

inline std::string moof(uint32_t sequence, const std::string& trafs) {
  return atom("moof", atom("mfhd", zeros(4) + be32(sequence)) + trafs);
}

/// What the head of a built fragmented movie holds: a video track (ID 1)
/// and optionally a timecode track (ID 2), both with empty sample tables,
/// and their trex defaults.
struct FragmentedMovie {
  uint32_t timescale = 25;
  uint32_t trexDuration = 1, trexSize = 0;
  bool timecode = false;
  uint32_t timecodeFlags = 0;
  std::string extensions;
};

/// ftyp and the moov of a fragmented movie; the fragments follow it.
inline std::string fragmentedHead(const FragmentedMovie& m) {
  const std::string empty = stts({}) + stsz(0) + atom("stco", zeros(8));
  std::string traks =
      trak("vide", mdhd(m.timescale, 0), stsd(videoEntry("apch", 1920, 1080, m.extensions)) + empty, 1);
  std::string mvex = trex(1, m.trexDuration, m.trexSize);
  if (m.timecode) {
    traks += trak("tmcd", mdhd(m.timescale, 0),
                  stsd(timecodeEntry(m.timecodeFlags, m.timescale, 1, 30)) + empty, 2);
    mvex += trex(2, 1, 4);
  }
  return atom("ftyp", std::string("qt  ") + zeros(4) + "qt  ") +
         atom("moov", atom("mvhd", zeros(100)) + traks + atom("mvex", mvex));
}

/// One fragment: a moof with a traf per run, each based on the moof (flag
/// 0x20000) with per-sample durations and sizes, then an mdat holding the
/// runs' data in order (data[i], or zeros of the run's sizes).
struct Run {
  uint32_t trackId = 1;
  std::vector<std::pair<uint32_t, uint32_t>> samples;  // (duration, size)
  std::string data;                                    // empty: zeros
};
inline std::string fragment(uint32_t sequence, const std::vector<Run>& runs) {
  auto build = [&](uint32_t moofSize) {
    std::string trafs, mdat;
    for (const Run& r : runs) {
      std::string data = r.data;
      if (data.empty())
        for (const auto& s : r.samples) data += zeros(s.second);
      Tfhd h;
      h.flags = 0x20000;
      h.trackId = r.trackId;
      Trun t;
      t.flags = 0x301;
      t.count = static_cast<uint32_t>(r.samples.size());
      t.dataOffset = static_cast<int32_t>(moofSize + 8 + mdat.size());
      t.samples = r.samples;
      trafs += atom("traf", tfhd(h) + trun(t));
      mdat += data;
    }
    return moof(sequence, trafs) + atom("mdat", mdat);
  };
  const std::string sized = build(0);
  return build(static_cast<uint32_t>(sized.find("mdat") - 4));
}

/// n samples of one duration and size.
inline std::vector<std::pair<uint32_t, uint32_t>> samples(uint32_t n, uint32_t duration, uint32_t size) {
  return std::vector<std::pair<uint32_t, uint32_t>>(n, {duration, size});
}

}  // namespace movbuild

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

inline std::string trak(const std::string& handler, const std::string& mdhdAtom,
                        const std::string& stblBody) {
  return atom("trak", atom("tkhd", zeros(84)) +
                          atom("mdia", mdhdAtom + hdlr(handler) + atom("minf", atom("stbl", stblBody))));
}

/// What a built movie holds.
struct Movie {
  std::string codec = "apch";
  uint16_t width = 1920, height = 1080;
  std::string extensions;  // e.g. fiel(2, 1)
  uint32_t timescale = 25, sampleDuration = 1, frames = 3;
  bool mdhdVersion1 = false;
  std::vector<std::pair<uint16_t, uint32_t>> audio;  // (sound description version, channels) per track
  bool timecode = false;
  uint32_t timecodeFlags = 0;
  uint32_t startFrame = 0;
  bool timecodeCo64 = false;
  bool moovFirst = false;
};

inline std::string videoTrak(const Movie& m) {
  return trak("vide", mdhd(m.timescale, m.sampleDuration * m.frames, m.mdhdVersion1),
              stsd(videoEntry(m.codec, m.width, m.height, m.extensions)) +
                  stts({{m.frames, m.sampleDuration}}) + stsz(m.frames) + stco(0));
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

}  // namespace movbuild

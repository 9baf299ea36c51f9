// SPDX-License-Identifier: MIT
// Burn-in tests: frames filled with a pattern, and a reader that decodes the drawn glyph cells.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "rp188.h"

namespace burnin_test {

// Glyph indexes, spelled out for the expected cell sequences.
constexpr int COLON = 10;
constexpr int SEMI = 11;
constexpr int DASH = 12;
constexpr int BLANK = 13;
constexpr int STAR = 14;

/// Bytes of one line of pixels in a format (V210: 16 bytes per 6 pixels, truncated).
inline int lineBytesOf(VexaFrameBufferFormat format, int width) {
  switch (format) {
    case FBF10BitYCbCr:
      return width * 16 / 6;
    case FBF8BitYCbCr:
      return width * 2;
    default:
      return width * 4;
  }
}

/// A frame of the given size with some spare bytes at the end of every line,
/// filled with a fixed pseudo-random pattern so that untouched bytes can be
/// told from drawn ones.
struct Frame {
  Frame(VexaFrameBufferFormat f, int w, int h) : format(f), width(w), height(h) {
    pitch = lineBytesOf(f, w) + 48;
    bytes.resize(static_cast<std::size_t>(pitch) * static_cast<std::size_t>(h));
    uint32_t state = 0x2545F491u;
    for (unsigned char& b : bytes) {
      state = state * 1664525u + 1013904223u;
      b = static_cast<unsigned char>(state >> 24);
    }
    original = bytes;
  }
  char* data() { return reinterpret_cast<char*>(bytes.data()); }
  const unsigned char* at(int line, int byte) const {
    return bytes.data() + static_cast<std::size_t>(line) * static_cast<std::size_t>(pitch) +
           static_cast<std::size_t>(byte);
  }

  VexaFrameBufferFormat format;
  int width;
  int height;
  int pitch;
  std::vector<unsigned char> bytes;
  std::vector<unsigned char> original;
};

inline uint32_t le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
inline uint32_t be32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

/// Luma (or component) value of each level 0-3 in a format.
inline int levelValue(VexaFrameBufferFormat format, int level) {
  static const int v210[4] = {64, 356, 648, 940};
  static const int ycbcr8[4] = {16, 76, 134, 192};
  static const int rgb8[4] = {0, 85, 170, 255};
  switch (format) {
    case FBF10BitYCbCr:
    case FBF10BitRGB:
      return v210[level];
    case FBF8BitYCbCr:
      return ycbcr8[level];
    default:
      return rgb8[level];
  }
}

/// Compares the cell drawn at position `cell` with font glyph `glyph`, each
/// font pixel repeated hScale times across and vScale times down. Returns an
/// empty string when every pixel matches, else where the first mismatch is.
inline std::string checkCell(const Frame& f, const BurnInGeometry& g, int cell, int glyph, int hScale,
                             int vScale) {
  const int pixels = 24 * hScale;
  const int cellByte = g.horizontalStart + cell * g.rowBytes;
  for (int line = 0; line < 18 * vScale; ++line) {
    const int frameLine = g.verticalStart + line;
    const unsigned char* row = f.at(frameLine, cellByte);
    // The components found at each pixel: luma (or R, G, B) and chroma.
    std::vector<int> luma(static_cast<std::size_t>(pixels));
    std::vector<int> other(static_cast<std::size_t>(pixels) * 3);
    for (int x = 0; x < pixels; ++x) {
      const auto ux = static_cast<std::size_t>(x);
      switch (f.format) {
        case FBF10BitYCbCr: {
          // Unpack the V210 group of this pixel: Cb0 Y0 Cr0 | Y1 Cb1 Y2 | Cr1 Y3 Cb2 | Y4 Cr2 Y5.
          const unsigned char* group = row + x / 6 * 16;
          int s[12];
          for (int w = 0; w < 4; ++w) {
            const uint32_t word = le32(group + 4 * w);
            if ((word >> 30) != 0)
              return "V210 word with bits 30-31 set at line " + std::to_string(frameLine);
            for (int k = 0; k < 3; ++k) s[3 * w + k] = static_cast<int>((word >> (10 * k)) & 0x3FF);
          }
          static const int lumaAt[6] = {1, 3, 5, 7, 9, 11};
          static const int cbAt[6] = {0, 0, 4, 4, 8, 8};
          luma[ux] = s[lumaAt[x % 6]];
          other[3 * ux] = s[cbAt[x % 6]];
          other[3 * ux + 1] = s[cbAt[x % 6] + 2];
          other[3 * ux + 2] = 512;
          break;
        }
        case FBF8BitYCbCr:
          other[3 * ux] = row[2 * x];
          luma[ux] = row[2 * x + 1];
          other[3 * ux + 1] = other[3 * ux + 2] = 128;
          break;
        case FBF10BitRGB: {
          const uint32_t word = be32(row + 4 * x);
          if ((word & 3) != 0)
            return "10-bit RGB word with bits 1-0 set at line " + std::to_string(frameLine);
          luma[ux] = static_cast<int>(word >> 22);
          other[3 * ux] = static_cast<int>((word >> 12) & 0x3FF);
          other[3 * ux + 1] = static_cast<int>((word >> 2) & 0x3FF);
          other[3 * ux + 2] = luma[ux];
          break;
        }
        default:
          if (row[4 * x] != 0) return "first byte not 0 at line " + std::to_string(frameLine);
          luma[ux] = row[4 * x + 1];
          other[3 * ux] = row[4 * x + 2];
          other[3 * ux + 1] = row[4 * x + 3];
          other[3 * ux + 2] = luma[ux];
          break;
      }
    }
    for (int x = 0; x < pixels; ++x) {
      const auto ux = static_cast<std::size_t>(x);
      const int level = CharMap[glyph * 432 + (line / vScale) * 24 + x / hScale];
      const int want = levelValue(f.format, level);
      const bool rgb = f.format == FBFARGB || f.format == FBFRGBA || f.format == FBF10BitRGB;
      const int wantOther = rgb ? want : (f.format == FBF10BitYCbCr ? 512 : 128);
      if (luma[ux] != want || other[3 * ux] != wantOther || other[3 * ux + 1] != wantOther ||
          other[3 * ux + 2] != (rgb ? want : wantOther)) {
        std::ostringstream where;
        where << "cell " << cell << " (glyph " << glyph << ") line " << line << " pixel " << x << ": found "
              << luma[ux] << "/" << other[3 * ux] << "/" << other[3 * ux + 1] << ", want level " << level
              << " = " << want;
        return where.str();
      }
    }
  }
  return "";
}

/// Checks that the cells hold exactly `glyphs`, in order, and that no byte
/// outside them changed.
inline void expectCells(const Frame& f, const BurnInGeometry& g, const std::vector<int>& glyphs, int hScale,
                        int vScale) {
  for (std::size_t i = 0; i < glyphs.size(); ++i) {
    const std::string mismatch = checkCell(f, g, static_cast<int>(i), glyphs[i], hScale, vScale);
    EXPECT_EQ(mismatch, "") << "cell " << i;
    if (!mismatch.empty()) return;
  }
  const int first = g.horizontalStart;
  const int end = g.horizontalStart + static_cast<int>(glyphs.size()) * g.rowBytes;
  std::size_t changed = 0;
  for (int line = 0; line < f.height; ++line) {
    const bool inCells = line >= g.verticalStart && line < g.verticalStart + g.glyphHeight;
    for (int b = 0; b < f.pitch; ++b) {
      if (inCells && b >= first && b < end) continue;
      const std::size_t i =
          static_cast<std::size_t>(line) * static_cast<std::size_t>(f.pitch) + static_cast<std::size_t>(b);
      if (f.bytes[i] != f.original[i]) ++changed;
    }
  }
  EXPECT_EQ(changed, 0u) << "bytes changed outside the cells";
}

}  // namespace burnin_test

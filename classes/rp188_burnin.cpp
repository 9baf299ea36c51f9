// SPDX-License-Identifier: MIT
// vorta: CRP188 burn-in: the font scaled and converted to a frame-buffer format, drawn into frames.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "rp188.h"

namespace {

constexpr int kFontGlyphs = 15;
constexpr int kFontRows = 18;
constexpr int kFontColumns = 24;

// Glyph indexes of the font.
constexpr int kGlyphColon = 10;
constexpr int kGlyphSemicolon = 11;
constexpr int kGlyphDash = 12;
constexpr int kGlyphBlank = 13;
constexpr int kGlyphAsterisk = 14;

// Eleven cells in a row, a twelfth for the field marker.
constexpr int kCells = 11;
constexpr int kMaxCells = 12;

// Frames larger than this in either dimension are refused; it keeps every
// size computed from them far inside 32 bits.
constexpr int kMaxFrameSide = 8192;

// Level values 0-3 of each format.
constexpr int kLevelsV210[4] = {64, 356, 648, 940};
constexpr int kLevelsYCbCr8[4] = {16, 76, 134, 192};  // deliberately uneven steps; white is not 235
constexpr int kLevelsRGB8[4] = {0, 85, 170, 255};
constexpr int kLevelsRGB10[4] = {64, 356, 648, 940};
constexpr int kV210Chroma = 512;
constexpr int kYCbCr8Chroma = 128;

// Bytes per pixel of the formats other than V210 (whose 6 pixels take 16
// bytes); 0 for a format burn-in does not support.
int bytesPerPixel(int32_t format) {
  switch (format) {
    case FBF8BitYCbCr:
      return 2;
    case FBFARGB:
    case FBFRGBA:
    case FBF10BitRGB:
      return 4;
    default:
      return 0;
  }
}

// Bytes of one line of `width` pixels; V210 truncated toward zero.
int32_t lineBytesOf(int32_t format, int32_t width) {
  return format == FBF10BitYCbCr ? width * 16 / 6 : bytesPerPixel(format) * width;
}

bool supported(int32_t format) { return format == FBF10BitYCbCr || bytesPerPixel(format) != 0; }

// The level a font byte stands for; anything above 3 counts as background.
inline int levelOf(unsigned char fontByte) { return fontByte > 3 ? 0 : fontByte; }

// Writes `count` pixels of one level in a format other than V210, in byte
// order; returns the byte after them.
unsigned char* writePixels(unsigned char* out, int32_t format, int level, int count) {
  switch (format) {
    case FBF8BitYCbCr: {
      const auto luma = static_cast<unsigned char>(kLevelsYCbCr8[level]);
      for (int i = 0; i < count; ++i) {
        *out++ = kYCbCr8Chroma;
        *out++ = luma;
      }
      break;
    }
    case FBFARGB:
    case FBFRGBA: {
      const auto value = static_cast<unsigned char>(kLevelsRGB8[level]);
      for (int i = 0; i < count; ++i) {
        *out++ = 0;
        *out++ = value;
        *out++ = value;
        *out++ = value;
      }
      break;
    }
    case FBF10BitRGB: {
      // One big-endian word: the level in bits 31-22, 21-12 and 11-2.
      const auto v = static_cast<uint32_t>(kLevelsRGB10[level]);
      const uint32_t word = (v << 22) | (v << 12) | (v << 2);
      for (int i = 0; i < count; ++i) {
        *out++ = static_cast<unsigned char>(word >> 24);
        *out++ = static_cast<unsigned char>(word >> 16);
        *out++ = static_cast<unsigned char>(word >> 8);
        *out++ = static_cast<unsigned char>(word);
      }
      break;
    }
    default:
      break;
  }
  return out;
}

// The glyph a digit value draws: below 0 the zero, 15 (a user-bit nibble
// the font has no glyph for) and above the blank.
inline int digitGlyph(int digit) {
  if (digit < 0) return 0;
  if (digit >= 15) return kGlyphBlank;
  return digit;
}

// A 32-bit V210 word at p, little-endian whatever the machine.
inline uint32_t loadLE32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline void storeLE32(unsigned char* p, uint32_t word) {
  p[0] = static_cast<unsigned char>(word);
  p[1] = static_cast<unsigned char>(word >> 8);
  p[2] = static_cast<unsigned char>(word >> 16);
  p[3] = static_cast<unsigned char>(word >> 24);
}

// Replaces the 10-bit field (0, 1 or 2) of the word at p.
inline void setField(unsigned char* p, int field, int value) {
  const int shift = field * 10;
  const uint32_t mask = 0x3FFu << shift;
  storeLE32(p, (loadLE32(p) & ~mask) | ((static_cast<uint32_t>(value) << shift) & mask));
}

}  // namespace

void CRP188::writeV210Pixel(char** cursor, int index, int chroma, int luma) {
  auto* word = reinterpret_cast<unsigned char*>(*cursor);
  switch (index % 3) {
    case 0:
      setField(word, 0, chroma);
      setField(word, 1, luma);
      break;
    case 1:
      setField(word, 2, chroma);
      setField(word + 4, 0, luma);
      *cursor += 4;
      break;
    default:
      setField(word, 1, chroma);
      setField(word, 2, luma);
      *cursor += 4;
      break;
  }
}

void CRP188::CopyDigit(char* glyph, int rowBytes, int lines, char* dest, int pitch) {
  if (rowBytes <= 0) return;
  for (int line = 0; line < lines; ++line) {
    std::memcpy(dest, glyph, static_cast<std::size_t>(rowBytes));
    glyph += rowBytes;
    dest += pitch;
  }
}

bool CRP188::InitBurnIn(VexaFrameBufferFormat format, SIZE size, int verticalPercent) {
  const auto fbf = static_cast<int32_t>(format);
  if (burnInReady_ && glyphs_ != nullptr && fbf == burnFormat_ && size.cy == burnHeight_ &&
      size.cx == burnWidth_)
    return true;
  // From here on the caller wants another set-up: whatever is refused below
  // must not leave the old one (made for another frame size) in place, or
  // BurnTC would draw with it into the caller's new frame.
  if (!supported(fbf)) {
    ClearBurnIn();
    return false;
  }
  // Refuse sizes no frame buffer has, before anything is computed from them.
  if (size.cx <= 0 || size.cy <= 0 || size.cx > kMaxFrameSide || size.cy > kMaxFrameSide) {
    ClearBurnIn();
    return false;
  }
  const int32_t width = size.cx;
  const int32_t height = size.cy;

  int hScale;
  int vScale;
  if (height > 900) {
    hScale = width < 1441 ? 2 : 3;
    vScale = 6;
  } else {
    hScale = height > 650 ? 2 : 1;
    vScale = hScale * 2;
  }
  const int32_t rowBytes = fbf == FBF10BitYCbCr ? hScale * 64 : bytesPerPixel(fbf) * kFontColumns * hScale;
  const int32_t glyphHeight = vScale * kFontRows;
  const int32_t glyphSize = rowBytes * glyphHeight;

  // Where the cells go. With the frame at most 8192 on a side and
  // verticalPercent taken in 64 bits none of this can overflow.
  const int32_t lineBytes = lineBytesOf(fbf, width);
  int32_t horizontalStart = (lineBytes - kCells * rowBytes) / 2;
  if (fbf == FBF10BitYCbCr && horizontalStart >= 0) horizontalStart &= ~15;
  const int64_t verticalStart64 =
      verticalPercent != 0 ? static_cast<int64_t>(verticalPercent) * height / 100 : int64_t{height} * 8 / 10;
  // The drawing makes no check against the frame, so a geometry that would
  // put any of the eleven cells outside a frame of this size is refused
  // here. The field marker's twelfth cell is not needed to accept a size:
  // BurnTC leaves it out where it would not fit.
  if (horizontalStart < 0 || horizontalStart + kCells * rowBytes > lineBytes || verticalStart64 < 0 ||
      verticalStart64 + glyphHeight > height) {
    ClearBurnIn();
    return false;
  }

  // The old glyphs and geometry go whatever happens next: they belong to
  // the previous set-up.
  const bool wasReady = burnInReady_;
  ClearBurnIn();
  burnInReady_ = wasReady;
  glyphs_ = static_cast<unsigned char*>(
      std::malloc(static_cast<std::size_t>(kFontGlyphs) * static_cast<std::size_t>(glyphSize)));
  // Without memory nothing is built and the call still succeeds, as the
  // device's callers expect; BurnTC then draws nothing.
  if (glyphs_ == nullptr) return true;

  // Each font row becomes one output row, then is repeated vScale times.
  unsigned char* out = glyphs_;
  for (int glyph = 0; glyph < kFontGlyphs; ++glyph) {
    for (int fontRow = 0; fontRow < kFontRows; ++fontRow) {
      const unsigned char* font = CharMap + (glyph * kFontRows + fontRow) * kFontColumns;
      unsigned char* row = out;
      if (fbf == FBF10BitYCbCr) {
        // Bits 30-31 of every word stay zero.
        std::memset(row, 0, static_cast<std::size_t>(rowBytes));
        char* cursor = reinterpret_cast<char*>(row);
        int index = 0;
        for (int column = 0; column < kFontColumns; ++column) {
          const int luma = kLevelsV210[levelOf(font[column])];
          for (int k = 0; k < hScale; ++k) writeV210Pixel(&cursor, index++, kV210Chroma, luma);
        }
      } else {
        unsigned char* p = row;
        for (int column = 0; column < kFontColumns; ++column)
          p = writePixels(p, fbf, levelOf(font[column]), hScale);
      }
      out += rowBytes;
      for (int repeat = 1; repeat < vScale; ++repeat) {
        std::memcpy(out, row, static_cast<std::size_t>(rowBytes));
        out += rowBytes;
      }
    }
  }

  burnInReady_ = true;
  burnFormat_ = fbf;
  burnHeight_ = height;
  burnWidth_ = width;
  burnRowBytes_ = rowBytes;
  burnGlyphHeight_ = glyphHeight;
  burnHorizontalStart_ = horizontalStart;
  burnVerticalStart_ = static_cast<int32_t>(verticalStart64);
  return true;
}

bool CRP188::BurnTC(char* frame, int pitch, TimecodeBurnMode mode, int value, bool fieldMarker) {
  if (!burnInReady_ || glyphs_ == nullptr) return false;
  // A pitch shorter than the frame's lines cannot belong to a frame of the
  // size burn-in was set up for.
  const int32_t lineBytes = lineBytesOf(burnFormat_, burnWidth_);
  if (frame == nullptr || pitch < lineBytes) return false;
  // The field marker takes a twelfth cell; where the line has no room for
  // it (InitBurnIn only made sure of eleven) it is left out.
  const bool markerFits = burnHorizontalStart_ + kMaxCells * burnRowBytes_ <= lineBytes;

  int cells[kMaxCells];
  int* cell = cells;
  if (mode == BurnTimecode || mode == BurnUserBits) {
    int marker = -1;
    int digits[8];
    if (mode == BurnTimecode) {
      int pairs[4] = {static_cast<int>(hours_), static_cast<int>(minutes_), static_cast<int>(seconds_),
                      static_cast<int>(frames_)};
      if (fieldMarker && FormatIs60_50fps(TCFormatUnknown)) {
        marker = pairs[3] % 2 == 0 ? kGlyphBlank : kGlyphAsterisk;
        pairs[3] /= 2;
      }
      for (int i = 0; i < 4; ++i) {
        digits[2 * i] = pairs[i] / 10;
        digits[2 * i + 1] = pairs[i] - digits[2 * i] * 10;
      }
    } else {
      // Binary groups 8 and 7, 6 and 5, 4 and 3, 2 and 1.
      for (int i = 0; i < 8; ++i) digits[i] = static_cast<int>(BinaryGroup(static_cast<unsigned int>(8 - i)));
    }
    const int lastSeparator = FormatIsDropFrame(TCFormatUnknown) ? kGlyphSemicolon : kGlyphColon;
    for (int i = 0; i < 4; ++i) {
      *cell++ = digitGlyph(digits[2 * i]);
      *cell++ = digitGlyph(digits[2 * i + 1]);
      if (i < 2) *cell++ = kGlyphColon;
      if (i == 2) *cell++ = lastSeparator;
    }
    if (marker >= 0 && markerFits) *cell++ = marker;
  } else if (mode == BurnDashes) {
    // Always colons, drop frame or not.
    for (int i = 0; i < 4; ++i) {
      *cell++ = kGlyphDash;
      *cell++ = kGlyphDash;
      if (i < 3) *cell++ = kGlyphColon;
    }
  } else {
    // The counter: the value with 9 digits in 11 cells, or for the smallest
    // int the stored time code's frame count with 7 digits in 11 cells.
    int64_t number;
    int digits;
    if (value == INT_MIN) {
      unsigned int frameCount = 0;
      GetFrameCount(frameCount);
      number = static_cast<int32_t>(frameCount);
      digits = 7;
    } else {
      number = value;
      digits = 9;
    }
    const int margin = (kCells - digits) / 2;
    for (int i = 0; i < margin; ++i) *cell++ = kGlyphBlank;
    if (number < 0) {
      cell[-1] = kGlyphDash;
      number = -number;
    }
    const int64_t bound = digits == 7 ? 10000000 : 1000000000;
    if (number >= bound) number %= bound;
    int* last = cell + digits - 1;
    for (int i = 0; i < digits; ++i) {
      *last-- = static_cast<int>(number % 10);
      number /= 10;
    }
    cell += digits;
    for (int i = 0; i < margin; ++i) *cell++ = kGlyphBlank;
  }

  const int32_t glyphSize = burnRowBytes_ * burnGlyphHeight_;
  char* dest = frame + static_cast<std::ptrdiff_t>(pitch) * burnVerticalStart_ + burnHorizontalStart_;
  for (const int* c = cells; c != cell; ++c) {
    CopyDigit(reinterpret_cast<char*>(glyphs_) + static_cast<std::ptrdiff_t>(*c) * glyphSize, burnRowBytes_,
              burnGlyphHeight_, dest, pitch);
    dest += burnRowBytes_;
  }
  return valid_;
}

bool CRP188::BurnTC(VexaFrameBufferFormat, SIZE, unsigned int*) { return false; }

void CRP188::ClearBurnIn() {
  FreeGlyphs();
  burnFormat_ = 0;
  burnHeight_ = 0;
  burnWidth_ = 0;
  burnRowBytes_ = 0;
  burnGlyphHeight_ = 0;
  burnHorizontalStart_ = 0;
  burnVerticalStart_ = 0;
}

bool CRP188::GetBurnInGeometry(BurnInGeometry& geometry) const {
  if (!burnInReady_ || glyphs_ == nullptr) return false;
  geometry.format = burnFormat_;
  geometry.height = burnHeight_;
  geometry.width = burnWidth_;
  geometry.rowBytes = burnRowBytes_;
  geometry.glyphHeight = burnGlyphHeight_;
  geometry.horizontalStart = burnHorizontalStart_;
  geometry.verticalStart = burnVerticalStart_;
  return true;
}

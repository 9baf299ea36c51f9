// SPDX-License-Identifier: MIT
// Burn-in bytes: V210 packing, glyph copies, byte order spelled out, frames left alone, the font itself.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "burnin_support.h"
#include "rp188.h"

namespace {

using namespace burnin_test;

using Bytes = std::vector<unsigned char>;

// Six pixels into a buffer of 0xFF: every field lands in its V210 place, in
// little-endian words, and bits 30-31 keep their old value.
TEST(WriteV210Pixel, PacksSixPixelsIntoFourLittleEndianWords) {
  Bytes buffer(20, 0xFF);
  char* cursor = reinterpret_cast<char*>(buffer.data());
  const int chroma[6] = {0x101, 0x202, 0x303, 0x004, 0x105, 0x206};
  const int luma[6] = {0x011, 0x022, 0x033, 0x044, 0x055, 0x066};
  const int advance[6] = {0, 4, 8, 8, 12, 16};
  for (int i = 0; i < 6; ++i) {
    CRP188::writeV210Pixel(&cursor, i, chroma[i], luma[i]);
    EXPECT_EQ(cursor - reinterpret_cast<char*>(buffer.data()), advance[i]) << "after pixel " << i;
  }
  const Bytes want = {0x01, 0x45, 0x20, 0xE0,   // Cb0 0x101, Y0 0x011, Cr0 0x202
                      0x22, 0x0C, 0x3C, 0xC3,   // Y1 0x022, Cb1 0x303, Y2 0x033
                      0x04, 0x10, 0x51, 0xD0,   // Cr1 0x004, Y3 0x044, Cb2 0x105
                      0x55, 0x18, 0x68, 0xC6,   // Y4 0x055, Cr2 0x206, Y5 0x066
                      0xFF, 0xFF, 0xFF, 0xFF};  // untouched
  EXPECT_EQ(buffer, want);
}

TEST(WriteV210Pixel, OnlyTheFieldsWrittenChange) {
  Bytes buffer(8, 0x00);
  char* cursor = reinterpret_cast<char*>(buffer.data());
  CRP188::writeV210Pixel(&cursor, 1, 0x3FF, 0x3FF);  // field 2 of word 0, field 0 of word 1
  EXPECT_EQ(buffer, (Bytes{0x00, 0x00, 0xF0, 0x3F, 0xFF, 0x03, 0x00, 0x00}));
  // Values wider than 10 bits are cut to the field.
  cursor = reinterpret_cast<char*>(buffer.data());
  CRP188::writeV210Pixel(&cursor, 0, 0x400, 0x401);
  EXPECT_EQ(buffer, (Bytes{0x00, 0x04, 0xF0, 0x3F, 0xFF, 0x03, 0x00, 0x00}));
}

TEST(CopyDigit, CopiesRowsAtThePitch) {
  char glyph[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  char dest[12];
  std::memset(dest, '.', sizeof dest);
  CRP188::CopyDigit(glyph, 2, 3, dest + 1, 4);
  EXPECT_EQ(std::string(dest, sizeof dest), ".ab..cd..ef.");
  std::memset(dest, '.', sizeof dest);
  CRP188::CopyDigit(glyph, 3, 0, dest, 4);
  EXPECT_EQ(std::string(dest, sizeof dest), "............");
}

// The first V210 words of cells, spelled out: little-endian words, chroma
// 512, luma 64/356/648/940 for levels 0-3. At horizontal scale 3 one group
// of six pixels shows two font columns.
TEST(BurnInBytes, V210WordsSpelledOut) {
  CRP188 tc(0u, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitYCbCr, SIZE{1920, 1080}, 0));
  Frame f(FBF10BitYCbCr, 1920, 1080);
  ASSERT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnDashes, 0, false));

  // The blank part of a dash: the top-left group of the first cell.
  ASSERT_EQ(CharMap[DASH * 432], 0);
  ASSERT_EQ(CharMap[DASH * 432 + 1], 0);
  const Bytes level00 = {0x00, 0x02, 0x01, 0x20, 0x40, 0x00, 0x08, 0x04,
                         0x00, 0x02, 0x01, 0x20, 0x40, 0x00, 0x08, 0x04};
  EXPECT_EQ(Bytes(f.at(864, 1504), f.at(864, 1504) + 16), level00);

  // Groups of the dash glyph with known level pairs, found in the font.
  const struct {
    int left, right;
    Bytes bytes;
  } pairs[] = {
      {0,
       3,
       {0x00, 0x02, 0x01, 0x20, 0x40, 0x00, 0x08, 0x04, 0x00, 0xB2, 0x0E, 0x20, 0xAC, 0x03, 0xC8, 0x3A}},
      {3,
       3,
       {0x00, 0xB2, 0x0E, 0x20, 0xAC, 0x03, 0xC8, 0x3A, 0x00, 0xB2, 0x0E, 0x20, 0xAC, 0x03, 0xC8, 0x3A}},
      {1,
       2,
       {0x00, 0x92, 0x05, 0x20, 0x64, 0x01, 0x48, 0x16, 0x00, 0x22, 0x0A, 0x20, 0x88, 0x02, 0x88, 0x28}},
  };
  for (const auto& p : pairs) {
    bool found = false;
    for (int row = 0; row < 18 && !found; ++row)
      for (int k = 0; k < 12 && !found; ++k) {
        const unsigned char* font = CharMap + DASH * 432 + row * 24 + 2 * k;
        if (font[0] != p.left || font[1] != p.right) continue;
        found = true;
        for (int repeat = 0; repeat < 6; ++repeat) {
          const unsigned char* group = f.at(864 + row * 6 + repeat, 1504 + k * 16);
          EXPECT_EQ(Bytes(group, group + 16), p.bytes)
              << "levels " << p.left << "," << p.right << " row " << row;
        }
      }
    if (!found) {
      // Not every pair need occur in the dash; look in the digits instead.
      for (int glyph = 0; glyph < 10 && !found; ++glyph)
        for (int row = 0; row < 18 && !found; ++row)
          for (int k = 0; k < 12 && !found; ++k) {
            const unsigned char* font = CharMap + glyph * 432 + row * 24 + 2 * k;
            if (font[0] != p.left || font[1] != p.right) continue;
            found = true;
            CRP188 digits(static_cast<unsigned int>(glyph), 0, 0, 0,
                          TCFormat30fps);  // cell 10 shows the glyph
            ASSERT_TRUE(digits.InitBurnIn(FBF10BitYCbCr, SIZE{1920, 1080}, 0));
            Frame d(FBF10BitYCbCr, 1920, 1080);
            ASSERT_TRUE(digits.BurnTC(d.data(), d.pitch, BurnTimecode, 0, false));
            const unsigned char* group = d.at(864 + row * 6, 1504 + 10 * 192 + k * 16);
            EXPECT_EQ(Bytes(group, group + 16), p.bytes) << "levels " << p.left << "," << p.right;
          }
    }
    EXPECT_TRUE(found) << "the font has no columns with levels " << p.left << "," << p.right;
  }
}

// 10-bit RGB words, spelled out: big-endian, the level in bits 31-22, 21-12
// and 11-2.
TEST(BurnInBytes, Rgb10WordsSpelledOut) {
  const Bytes levelBytes[4] = {{0x10, 0x04, 0x01, 0x00},   // 64
                               {0x59, 0x16, 0x45, 0x90},   // 356
                               {0xA2, 0x28, 0x8A, 0x20},   // 648
                               {0xEB, 0x3A, 0xCE, 0xB0}};  // 940
  CRP188 tc(8, 8, 8, 8, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitRGB, SIZE{720, 486}, 0));
  Frame f(FBF10BitRGB, 720, 486);
  ASSERT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, false));
  bool seen[4] = {false, false, false, false};
  for (int row = 0; row < 18; ++row)
    for (int x = 0; x < 24; ++x) {
      const int level = CharMap[8 * 432 + row * 24 + x];
      for (int repeat = 0; repeat < 2; ++repeat) {
        const unsigned char* word = f.at(388 + row * 2 + repeat, 912 + 96 + x * 4);  // cell 1
        ASSERT_EQ(Bytes(word, word + 4), levelBytes[level]) << "row " << row << " column " << x;
      }
      seen[level] = true;
    }
  for (int level = 0; level < 4; ++level)
    EXPECT_TRUE(seen[level]) << "the digit 8 has no pixel of level " << level;
}

TEST(BurnInBytes, EightBitFormatsSpelledOut) {
  CRP188 tc(0u, TCFormat30fps);
  // The first background and the first full pixel of the dash.
  int darkRow = -1, darkX = -1, brightRow = -1, brightX = -1;
  for (int row = 0; row < 18; ++row)
    for (int x = 0; x < 24; ++x) {
      const int level = CharMap[DASH * 432 + row * 24 + x];
      if (level == 0 && darkRow < 0) darkRow = row, darkX = x;
      if (level == 3 && brightRow < 0) brightRow = row, brightX = x;
    }
  ASSERT_GE(darkRow, 0);
  ASSERT_GE(brightRow, 0);
  const struct {
    VexaFrameBufferFormat format;
    int bytesPerPixel;
    Bytes darkBytes, brightBytes;
  } cases[] = {{FBF8BitYCbCr, 2, {0x80, 0x10}, {0x80, 0xC0}},
               {FBFARGB, 4, {0, 0, 0, 0}, {0, 0xFF, 0xFF, 0xFF}},
               {FBFRGBA, 4, {0, 0, 0, 0}, {0, 0xFF, 0xFF, 0xFF}}};
  for (const auto& c : cases) {
    ASSERT_TRUE(tc.InitBurnIn(c.format, SIZE{720, 486}, 0));
    BurnInGeometry g{};
    ASSERT_TRUE(tc.GetBurnInGeometry(g));
    Frame f(c.format, 720, 486);
    ASSERT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnDashes, 0, false));
    const unsigned char* p = f.at(g.verticalStart + darkRow * 2, g.horizontalStart + darkX * c.bytesPerPixel);
    EXPECT_EQ(Bytes(p, p + c.bytesPerPixel), c.darkBytes) << c.format;
    p = f.at(g.verticalStart + brightRow * 2 + 1, g.horizontalStart + brightX * c.bytesPerPixel);
    EXPECT_EQ(Bytes(p, p + c.bytesPerPixel), c.brightBytes) << c.format;
  }
}

TEST(BurnInUntouched, BurnBeforeInitLeavesTheFrameAlone) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  for (TimecodeBurnMode mode : {BurnTimecode, BurnUserBits, BurnCounter, BurnDashes}) {
    Frame f(FBF8BitYCbCr, 720, 486);
    EXPECT_FALSE(tc.BurnTC(f.data(), f.pitch, mode, 5, true));
    EXPECT_TRUE(f.bytes == f.original) << "mode " << mode;
  }
  BurnInGeometry g{};
  EXPECT_FALSE(tc.GetBurnInGeometry(g));
}

TEST(BurnInUntouched, RefusedInitDrawsNothing) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  EXPECT_FALSE(tc.InitBurnIn(static_cast<VexaFrameBufferFormat>(3), SIZE{720, 486}, 0));
  EXPECT_FALSE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{0, 486}, 0));
  Frame f(FBF8BitYCbCr, 720, 486);
  EXPECT_FALSE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, false));
  EXPECT_TRUE(f.bytes == f.original);
}

TEST(BurnInUntouched, FrameBufferOverloadIsNotSupported) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitRGB, SIZE{720, 486}, 0));
  std::vector<unsigned int> frame(720 * 486, 0x12345678u);
  EXPECT_FALSE(tc.BurnTC(FBF10BitRGB, SIZE{720, 486}, frame.data()));
  for (unsigned int word : frame) ASSERT_EQ(word, 0x12345678u);
}

// A pitch shorter than the lines of the frame size set up cannot be right;
// nothing is drawn.
TEST(BurnInUntouched, PitchShorterThanALineIsRefused) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{720, 486}, 0));
  Frame f(FBFARGB, 720, 486);
  EXPECT_FALSE(tc.BurnTC(f.data(), 2879, BurnTimecode, 0, false));
  EXPECT_FALSE(tc.BurnTC(f.data(), -2880, BurnTimecode, 0, false));
  EXPECT_FALSE(tc.BurnTC(nullptr, 2880, BurnTimecode, 0, false));
  EXPECT_TRUE(f.bytes == f.original);
  EXPECT_TRUE(tc.BurnTC(f.data(), 2880, BurnTimecode, 0, false));
}

// The font: 15 glyphs of 24 x 18, levels 0-3 only, anti-aliased.
TEST(BurnInFont, LevelsZeroToThreeOnly) {
  for (std::size_t i = 0; i < sizeof CharMap; ++i) ASSERT_LE(CharMap[i], 3) << "byte " << i;
  EXPECT_EQ(sizeof CharMap, 6480u);
}

TEST(BurnInFont, BlankIsEmptyAndEveryOtherGlyphIsEdged) {
  for (int i = 0; i < 432; ++i) ASSERT_EQ(CharMap[BLANK * 432 + i], 0) << i;
  for (int glyph = 0; glyph < 15; ++glyph) {
    if (glyph == BLANK) continue;
    int count[4] = {0, 0, 0, 0};
    for (int i = 0; i < 432; ++i) ++count[CharMap[glyph * 432 + i]];
    EXPECT_GT(count[3], 0) << "glyph " << glyph;
    EXPECT_GT(count[2], 0) << "glyph " << glyph;
    EXPECT_GT(count[1], 0) << "glyph " << glyph;
  }
}

// The ten digits are distinct shapes, and colon and semicolon differ only
// below the lower dot.
TEST(BurnInFont, GlyphsAreDistinct) {
  for (int a = 0; a < 15; ++a)
    for (int b = a + 1; b < 15; ++b)
      EXPECT_NE(std::memcmp(CharMap + a * 432, CharMap + b * 432, 432), 0) << a << " and " << b;
  int differ = 0;
  for (int i = 0; i < 432; ++i) differ += CharMap[COLON * 432 + i] != CharMap[SEMI * 432 + i];
  EXPECT_GT(differ, 0);
}

}  // namespace

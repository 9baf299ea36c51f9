// SPDX-License-Identifier: MIT
// Burn-in drawing: every cell of every mode read back from the frame and compared with the font.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "burnin_support.h"
#include "rp188.h"

namespace {

using namespace burnin_test;

struct Format {
  VexaFrameBufferFormat format;
  const char* name;
};
const Format kFormats[] = {{FBF10BitYCbCr, "V210"},
                           {FBF8BitYCbCr, "YCbCr8"},
                           {FBFARGB, "ARGB"},
                           {FBFRGBA, "RGBA"},
                           {FBF10BitRGB, "RGB10"}};

// A frame size with the scales it is drawn at.
struct Size {
  int width, height, hScale, vScale;
};
const Size kSD{720, 486, 1, 2};
const Size k720{1280, 720, 2, 4};
const Size kHD{1920, 1080, 3, 6};
const Size kUHD{3840, 2160, 3, 6};

// Burns into a fresh patterned frame and checks every cell and every byte
// around them; returns what BurnTC returned.
bool burnAndCheck(CRP188& tc, VexaFrameBufferFormat format, const Size& size, TimecodeBurnMode mode,
                  int value, bool marker, const std::vector<int>& glyphs) {
  EXPECT_TRUE(tc.InitBurnIn(format, SIZE{size.width, size.height}, 0));
  BurnInGeometry g{};
  EXPECT_TRUE(tc.GetBurnInGeometry(g));
  Frame f(format, size.width, size.height);
  const bool result = tc.BurnTC(f.data(), f.pitch, mode, value, marker);
  expectCells(f, g, glyphs, size.hScale, size.vScale);
  return result;
}

class BurnInDraws : public ::testing::TestWithParam<Format> {};

TEST_P(BurnInDraws, TimecodeNonDrop) {
  CRP188 tc(23, 56, 34, 12, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnTimecode, 0, false,
                           {1, 2, COLON, 3, 4, COLON, 5, 6, COLON, 2, 3}));
}

TEST_P(BurnInDraws, TimecodeDropFrameHasASemicolon) {
  CRP188 tc(29, 45, 23, 1, TCFormat30fpsDF);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kHD, BurnTimecode, 0, false,
                           {0, 1, COLON, 2, 3, COLON, 4, 5, SEMI, 2, 9}));
}

TEST_P(BurnInDraws, TimecodeAt720p) {
  CRP188 tc(7, 8, 9, 10, TCFormat25fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, k720, BurnTimecode, 0, false,
                           {1, 0, COLON, 0, 9, COLON, 0, 8, COLON, 0, 7}));
}

TEST_P(BurnInDraws, TimecodeAtUhd) {
  CRP188 tc(59, 59, 59, 23, TCFormat60fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kUHD, BurnTimecode, 0, false,
                           {2, 3, COLON, 5, 9, COLON, 5, 9, COLON, 5, 9}));
}

// In 60 and 50 formats the marker halves the frame number and adds a
// twelfth cell: blank on an even frame, asterisk on an odd one.
TEST_P(BurnInDraws, FieldMarkerOnAnOddFrame) {
  CRP188 tc(45, 0, 0, 12, TCFormat60fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnTimecode, 0, true,
                           {1, 2, COLON, 0, 0, COLON, 0, 0, COLON, 2, 2, STAR}));
}

TEST_P(BurnInDraws, FieldMarkerOnAnEvenFrame) {
  CRP188 tc(48, 30, 20, 10, TCFormat50fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kHD, BurnTimecode, 0, true,
                           {1, 0, COLON, 2, 0, COLON, 3, 0, COLON, 2, 4, BLANK}));
}

TEST_P(BurnInDraws, FieldMarkerInSixtyDropFrame) {
  CRP188 tc(9, 1, 1, 0, TCFormat60fpsDF);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnTimecode, 0, true,
                           {0, 0, COLON, 0, 1, COLON, 0, 1, SEMI, 0, 4, STAR}));
}

// Without the flag a 60 format shows the whole frame number in eleven cells.
TEST_P(BurnInDraws, SixtyWithoutFieldMarker) {
  CRP188 tc(45, 0, 0, 12, TCFormat60fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnTimecode, 0, false,
                           {1, 2, COLON, 0, 0, COLON, 0, 0, COLON, 4, 5}));
}

// Outside 60 and 50 formats the flag changes nothing: the twelfth cell's
// place stays untouched.
TEST_P(BurnInDraws, FieldMarkerIgnoredAtThirty) {
  CRP188 tc(29, 0, 0, 0, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnTimecode, 0, true,
                           {0, 0, COLON, 0, 0, COLON, 0, 0, COLON, 2, 9}));
}

// User-bit nibbles 10 to 14 draw glyphs 10 to 14, 15 draws a blank.
TEST_P(BurnInDraws, UserBitsNibblesTenToFifteen) {
  // Groups 1-8 = 9, 1, F, E, D, C, B, A (low word nibbles at bits 4, 12,
  // 20, 28 for groups 1-4; the high word for 5-8).
  RP188_STRUCT words{0, 0, 0};
  words.low = (0xEu << 28) | (0xFu << 20) | (0x1u << 12) | (0x9u << 4);
  words.high = (0xAu << 28) | (0xBu << 20) | (0xCu << 12) | (0xDu << 4);
  CRP188 tc(words, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnUserBits, 0, false,
                           {COLON, SEMI, COLON, DASH, BLANK, COLON, STAR, BLANK, COLON, 1, 9}));
}

TEST_P(BurnInDraws, UserBitsInDropFrameEndWithASemicolon) {
  RP188_STRUCT words{0, 0, 0};
  words.low = (0x4u << 28) | (0x3u << 20) | (0x2u << 12) | (0x1u << 4) | (1u << 10);
  words.high = (0x8u << 28) | (0x7u << 20) | (0x6u << 12) | (0x5u << 4);
  CRP188 tc(words, TCFormat30fpsDF);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, k720, BurnUserBits, 0, false,
                           {8, 7, COLON, 6, 5, COLON, 4, 3, SEMI, 2, 1}));
}

TEST_P(BurnInDraws, CounterNegative) {
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnCounter, -42, false,
                           {DASH, 0, 0, 0, 0, 0, 0, 0, 4, 2, BLANK}));
}

TEST_P(BurnInDraws, CounterReducedToNineDigits) {
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kHD, BurnCounter, 1234567890, false,
                           {BLANK, 2, 3, 4, 5, 6, 7, 8, 9, 0, BLANK}));
}

TEST_P(BurnInDraws, CounterLargestAndNearSmallest) {
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnCounter, INT_MAX, false,
                           {BLANK, 1, 4, 7, 4, 8, 3, 6, 4, 7, BLANK}));
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnCounter, INT_MIN + 1, false,
                           {DASH, 1, 4, 7, 4, 8, 3, 6, 4, 7, BLANK}));
}

// The smallest int shows the stored time code's frame count in 7 digits.
TEST_P(BurnInDraws, CounterSmallestIntShowsTheFrameCount) {
  CRP188 tc(0, 0, 0, 1, TCFormat30fpsDF);  // 01:00:00;00 = frame 107892
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kSD, BurnCounter, INT_MIN, false,
                           {BLANK, BLANK, 0, 1, 0, 7, 8, 9, 2, BLANK, BLANK}));
}

TEST_P(BurnInDraws, DashesNeverShowASemicolon) {
  CRP188 tc(0u, TCFormat30fpsDF);
  EXPECT_TRUE(burnAndCheck(tc, GetParam().format, kHD, BurnDashes, 0, false,
                           {DASH, DASH, COLON, DASH, DASH, COLON, DASH, DASH, COLON, DASH, DASH}));
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, BurnInDraws, ::testing::ValuesIn(kFormats),
                         [](const ::testing::TestParamInfo<Format>& param) {
                           return std::string(param.param.name);
                         });

TEST(BurnInCounter, ZeroAndModesAboveThree) {
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(
      burnAndCheck(tc, FBF8BitYCbCr, kSD, BurnCounter, 0, false, {BLANK, 0, 0, 0, 0, 0, 0, 0, 0, 0, BLANK}));
  // Any mode above 3 is the counter too.
  EXPECT_TRUE(burnAndCheck(tc, FBF8BitYCbCr, kSD, static_cast<TimecodeBurnMode>(7), 1000000000, false,
                           {BLANK, 0, 0, 0, 0, 0, 0, 0, 0, 0, BLANK}));
  EXPECT_TRUE(burnAndCheck(tc, FBF8BitYCbCr, kSD, static_cast<TimecodeBurnMode>(4), -999999999, false,
                           {DASH, 9, 9, 9, 9, 9, 9, 9, 9, 9, BLANK}));
}

TEST(BurnInCounter, FrameCountReducedToSevenDigits) {
  // 23:59:59:59 at 60 fps is frame 5,183,999: below 10,000,000, shown whole.
  CRP188 tc(59, 59, 59, 23, TCFormat60fps);
  EXPECT_TRUE(burnAndCheck(tc, FBF10BitRGB, kSD, BurnCounter, INT_MIN, false,
                           {BLANK, BLANK, 5, 1, 8, 3, 9, 9, 9, BLANK, BLANK}));
}

// A value that was never set still draws (00:00:00:00) but BurnTC reports
// it as not valid.
TEST(BurnInValidity, UnsetValueDrawsZerosAndReturnsFalse) {
  CRP188 tc;
  EXPECT_FALSE(
      burnAndCheck(tc, FBFARGB, kSD, BurnTimecode, 0, false, {0, 0, COLON, 0, 0, COLON, 0, 0, COLON, 0, 0}));
}

// The test frames' lines carry 48 spare bytes: the pitch, not the width,
// steps the rows.
TEST(BurnInPitch, WidePitchStepsTheRows) {
  CRP188 tc(1, 2, 3, 4, TCFormat24fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitYCbCr, SIZE{1280, 720}, 10));
  BurnInGeometry g{};
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  Frame f(FBF10BitYCbCr, 1280, 720);
  EXPECT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, false));
  expectCells(f, g, {0, 4, COLON, 0, 3, COLON, 0, 2, COLON, 0, 1}, 2, 4);
}

}  // namespace

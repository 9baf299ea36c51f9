// SPDX-License-Identifier: MIT
// Burn-in geometry: scales, glyph row bytes, start positions, and the sizes and formats refused.
#include <gtest/gtest.h>

#include <cstdint>

#include "burnin_support.h"
#include "rp188.h"

namespace {

struct Case {
  VexaFrameBufferFormat format;
  int width;
  int height;
  int verticalPercent;
  int rowBytes;
  int glyphHeight;
  int horizontalStart;
  int verticalStart;
};

BurnInGeometry geometryOf(const Case& c) {
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(tc.InitBurnIn(c.format, SIZE{c.width, c.height}, c.verticalPercent));
  BurnInGeometry g{};
  EXPECT_TRUE(tc.GetBurnInGeometry(g));
  return g;
}

// Scales by frame size, seen through the 8-bit YCbCr row bytes (2 bytes x 24
// x horizontal scale) and the glyph height (18 x vertical scale).
TEST(BurnInGeometry, ScalesFollowTheFrameSize) {
  const struct {
    int width, height, hScale, vScale;
  } sizes[] = {{1920, 1080, 3, 6}, {1440, 1080, 2, 6}, {3840, 2160, 3, 6}, {1280, 720, 2, 4},
               {720, 486, 1, 2},   {720, 576, 1, 2},   {1441, 901, 3, 6},  {1440, 901, 2, 6},
               {1280, 900, 2, 4},  {960, 651, 2, 4},   {960, 650, 1, 2}};
  for (const auto& s : sizes) {
    const BurnInGeometry g = geometryOf({FBF8BitYCbCr, s.width, s.height, 0, 0, 0, 0, 0});
    EXPECT_EQ(g.rowBytes, 2 * 24 * s.hScale) << s.width << "x" << s.height;
    EXPECT_EQ(g.glyphHeight, 18 * s.vScale) << s.width << "x" << s.height;
  }
}

TEST(BurnInGeometry, HdIn8BitYCbCr) {
  const BurnInGeometry g = geometryOf({FBF8BitYCbCr, 1920, 1080, 0, 0, 0, 0, 0});
  EXPECT_EQ(g.format, 1);
  EXPECT_EQ(g.width, 1920);
  EXPECT_EQ(g.height, 1080);
  EXPECT_EQ(g.rowBytes, 144);
  EXPECT_EQ(g.glyphHeight, 108);
  EXPECT_EQ(g.horizontalStart, 1128);  // (3840 - 11 x 144) / 2
  EXPECT_EQ(g.verticalStart, 864);     // 80 % of 1080
}

// A vertical position of 1 % is taken as it is (only 0 means the 80 %
// default): line 10 of 1080 (10.8 cut down), and 2 % is line 21.
TEST(BurnInGeometry, OnePercentIsAPositionAndNotTheDefault) {
  EXPECT_EQ(geometryOf({FBF8BitYCbCr, 1920, 1080, 1, 0, 0, 0, 0}).verticalStart, 10);
  EXPECT_EQ(geometryOf({FBF8BitYCbCr, 1920, 1080, 2, 0, 0, 0, 0}).verticalStart, 21);
}

TEST(BurnInGeometry, HdInV210) {
  const BurnInGeometry g = geometryOf({FBF10BitYCbCr, 1920, 1080, 0, 0, 0, 0, 0});
  EXPECT_EQ(g.rowBytes, 192);
  EXPECT_EQ(g.glyphHeight, 108);
  EXPECT_EQ(g.horizontalStart, 1504);  // (5120 - 2112) / 2, already a multiple of 16
  EXPECT_EQ(g.verticalStart, 864);
}

TEST(BurnInGeometry, EveryFormatAndSize) {
  const Case cases[] = {
      // V210: row bytes 64 x horizontal scale; start rounded down to 16 bytes.
      {FBF10BitYCbCr, 720, 486, 0, 64, 36, 608, 388},        // (1920 - 704) / 2
      {FBF10BitYCbCr, 1280, 720, 0, 128, 72, 992, 576},      // (3413 - 1408) / 2 = 1002, down to 992
      {FBF10BitYCbCr, 3840, 2160, 0, 192, 108, 4064, 1728},  // (10240 - 2112) / 2
      {FBF8BitYCbCr, 720, 486, 0, 48, 36, 456, 388},
      {FBF8BitYCbCr, 1280, 720, 0, 96, 72, 752, 576},
      {FBF8BitYCbCr, 3840, 2160, 0, 144, 108, 3048, 1728},
      {FBFARGB, 720, 486, 0, 96, 36, 912, 388},
      {FBFARGB, 1920, 1080, 0, 288, 108, 2256, 864},
      {FBFRGBA, 1280, 720, 0, 192, 72, 1504, 576},
      {FBFRGBA, 3840, 2160, 0, 288, 108, 6096, 1728},
      {FBF10BitRGB, 720, 486, 0, 96, 36, 912, 388},
      {FBF10BitRGB, 1920, 1080, 0, 288, 108, 2256, 864},
      {FBF10BitRGB, 3840, 2160, 0, 288, 108, 6096, 1728},
      // An odd width: the line bytes are truncated, then the start halves.
      {FBF10BitYCbCr, 1000, 486, 0, 64, 36, 976, 388},  // 2666 -> (2666 - 704) / 2 = 981, down to 976
      {FBF8BitYCbCr, 721, 486, 0, 48, 36, 457, 388},    // (1442 - 528) / 2
  };
  for (const Case& c : cases) {
    const BurnInGeometry g = geometryOf(c);
    EXPECT_EQ(g.rowBytes, c.rowBytes) << c.format << " " << c.width << "x" << c.height;
    EXPECT_EQ(g.glyphHeight, c.glyphHeight) << c.format << " " << c.width << "x" << c.height;
    EXPECT_EQ(g.horizontalStart, c.horizontalStart) << c.format << " " << c.width << "x" << c.height;
    EXPECT_EQ(g.verticalStart, c.verticalStart) << c.format << " " << c.width << "x" << c.height;
  }
}

TEST(BurnInGeometry, VerticalPercentPlacesTheTopRow) {
  EXPECT_EQ(geometryOf({FBFARGB, 1920, 1080, 50, 0, 0, 0, 0}).verticalStart, 540);
  EXPECT_EQ(geometryOf({FBFARGB, 1920, 1080, 1, 0, 0, 0, 0}).verticalStart, 10);    // 10.8 down
  EXPECT_EQ(geometryOf({FBFARGB, 720, 486, 33, 0, 0, 0, 0}).verticalStart, 160);    // 160.38 down
  EXPECT_EQ(geometryOf({FBFARGB, 1920, 1080, 90, 0, 0, 0, 0}).verticalStart, 972);  // ends on line 1079
}

// Refused at every size, the narrowest that a supported format takes
// (264 pixels, where the eleven cells fill the line) included.
TEST(BurnInGeometry, UnsupportedFormatsAreRefused) {
  for (uint32_t format : {3u, 4u, 5u, 8u, 100u, 0xFFFFFFFFu}) {
    for (const SIZE size : {SIZE{1920, 1080}, SIZE{264, 486}, SIZE{264, 1080}}) {
      CRP188 tc(0u, TCFormat30fps);
      EXPECT_FALSE(tc.InitBurnIn(static_cast<VexaFrameBufferFormat>(format), size, 0))
          << format << " " << size.cx << "x" << size.cy;
      BurnInGeometry g{};
      EXPECT_FALSE(tc.GetBurnInGeometry(g));
    }
  }
}

// Sizes no frame buffer has are refused before anything is computed from them.
TEST(BurnInGeometry, AbsurdSizesAreRefused) {
  const SIZE sizes[] = {{0, 1080},    {1920, 0},    {-1920, 1080},          {1920, -1080},
                        {8193, 1080}, {1920, 8193}, {INT32_MAX, INT32_MAX}, {INT32_MIN, 1080}};
  for (const SIZE& s : sizes) {
    CRP188 tc(0u, TCFormat30fps);
    EXPECT_FALSE(tc.InitBurnIn(FBF10BitYCbCr, s, 0)) << s.cx << "x" << s.cy;
    EXPECT_FALSE(tc.InitBurnIn(FBF10BitRGB, s, 0)) << s.cx << "x" << s.cy;
  }
  CRP188 tc(0u, TCFormat30fps);
  EXPECT_TRUE(tc.InitBurnIn(FBF10BitRGB, SIZE{8192, 8192}, 0));
}

// The drawing itself makes no check against the frame, so a geometry that
// would put one of the eleven cells outside a frame of the given size is
// refused; one where only the field marker's twelfth would not fit is not.
TEST(BurnInGeometry, CellsThatWouldLeaveTheFrameAreRefused) {
  // A fresh object each time: a second call with the same size returns at once.
  const auto accepts = [](int width, int height, int verticalPercent) {
    CRP188 tc(0u, TCFormat30fps);
    return tc.InitBurnIn(FBF8BitYCbCr, SIZE{width, height}, verticalPercent);
  };
  EXPECT_FALSE(accepts(1920, 1080, 91));  // 982 + 108 > 1080
  EXPECT_TRUE(accepts(1920, 1080, 90));   // 972 + 108 = 1080
  EXPECT_FALSE(accepts(1920, 1080, -1));
  EXPECT_FALSE(accepts(1920, 1080, 2000000000));
  EXPECT_FALSE(accepts(1920, 1080, INT32_MIN));
  EXPECT_FALSE(accepts(200, 486, 0));   // narrower than eleven cells
  EXPECT_FALSE(accepts(263, 486, 0));   // 526 bytes, eleven cells take 528
  EXPECT_TRUE(accepts(264, 486, 0));    // eleven fit exactly
  EXPECT_TRUE(accepts(311, 486, 0));    // eleven fit, the marker would not
  EXPECT_TRUE(accepts(312, 486, 0));    // (624 - 528) / 2 + 12 x 48 = 624
  EXPECT_FALSE(accepts(1920, 30, 0));   // shorter than a glyph
  EXPECT_FALSE(accepts(1920, 175, 0));  // 140 + 36 > 175
  EXPECT_TRUE(accepts(1920, 176, 0));   // 140 + 36 = 176
}

// Eleven 8-bit cells of 48 bytes fill a 264-pixel line exactly: accepted,
// with the first cell at byte 0.
TEST(BurnInGeometry, EightBitAt264x486FitsElevenCellsExactly) {
  const BurnInGeometry g = geometryOf({FBF8BitYCbCr, 264, 486, 0, 0, 0, 0, 0});
  EXPECT_EQ(g.rowBytes, 48);
  EXPECT_EQ(g.glyphHeight, 36);
  EXPECT_EQ(g.horizontalStart, 0);  // (528 - 528) / 2
  EXPECT_EQ(g.verticalStart, 388);  // 486 x 8 / 10
}

// V210 at 577 x 2160: 1538 line bytes, eleven cells of 128 take 1408 from
// byte 64 (65 rounded down to 16); the twelfth would end at 1600.
TEST(BurnInGeometry, V210At577x2160AcceptedWithoutRoomForTheMarker) {
  const BurnInGeometry g = geometryOf({FBF10BitYCbCr, 577, 2160, 0, 0, 0, 0, 0});
  EXPECT_EQ(g.rowBytes, 128);
  EXPECT_EQ(g.glyphHeight, 108);
  EXPECT_EQ(g.horizontalStart, 64);
  EXPECT_EQ(g.verticalStart, 1728);
}

TEST(BurnInGeometry, SecondInitWithTheSameArgumentsReturnsAtOnce) {
  CRP188 tc(0u, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 0));
  // Format and size unchanged: nothing is rebuilt, not even the vertical
  // start, although another percentage is passed.
  EXPECT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 50));
  BurnInGeometry g{};
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  EXPECT_EQ(g.verticalStart, 864);
  // Even arguments that would be refused are not looked at.
  EXPECT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 95));
}

TEST(BurnInGeometry, AnotherFormatRebuilds) {
  CRP188 tc(0u, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 0));
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitYCbCr, SIZE{1920, 1080}, 50));
  BurnInGeometry g{};
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  EXPECT_EQ(g.format, 0);
  EXPECT_EQ(g.rowBytes, 192);
  EXPECT_EQ(g.horizontalStart, 1504);
  EXPECT_EQ(g.verticalStart, 540);
  // Another size rebuilds too.
  ASSERT_TRUE(tc.InitBurnIn(FBF10BitYCbCr, SIZE{1280, 720}, 0));
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  EXPECT_EQ(g.rowBytes, 128);
  EXPECT_EQ(g.verticalStart, 576);
}

// A refused set-up drops the previous one, whatever was refused: the old
// geometry belongs to another frame size (or format) than the one the
// caller now draws into.
TEST(BurnInGeometry, RefusedInitDropsThePreviousSetUp) {
  const struct {
    VexaFrameBufferFormat format;
    SIZE size;
    int verticalPercent;
  } refusals[] = {{FBF10BitRGB, {1920, 1080}, 99},
                  {static_cast<VexaFrameBufferFormat>(4), {1920, 1080}, 0},
                  {FBFARGB, {263, 486}, 0},
                  {FBFARGB, {0, 1080}, 0},
                  {FBFARGB, {1920, 8193}, 0}};
  for (const auto& r : refusals) {
    CRP188 tc(0u, TCFormat30fps);
    ASSERT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 0));
    EXPECT_FALSE(tc.InitBurnIn(r.format, r.size, r.verticalPercent)) << r.size.cx << "x" << r.size.cy;
    BurnInGeometry g{};
    EXPECT_FALSE(tc.GetBurnInGeometry(g)) << r.size.cx << "x" << r.size.cy;
    burnin_test::Frame f(FBFARGB, 1920, 1080);
    EXPECT_FALSE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, false));
    EXPECT_TRUE(f.bytes == f.original);
    // The same set-up as before the refusal is built again from scratch.
    ASSERT_TRUE(tc.InitBurnIn(FBFARGB, SIZE{1920, 1080}, 0));
    ASSERT_TRUE(tc.GetBurnInGeometry(g));
    EXPECT_EQ(g.rowBytes, 288);
    EXPECT_EQ(g.horizontalStart, 2256);
  }
}

TEST(BurnInGeometry, CopiesCarryTheirOwnGlyphs) {
  CRP188 tc(0u, TCFormat30fps);
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{720, 486}, 0));
  CRP188 copy(tc);
  CRP188 assigned;
  assigned = tc;
  tc.InitBurnIn(FBF10BitRGB, SIZE{1920, 1080}, 0);
  for (CRP188* c : {&copy, &assigned}) {
    BurnInGeometry g{};
    ASSERT_TRUE(c->GetBurnInGeometry(g));
    EXPECT_EQ(g.format, 1);
    EXPECT_EQ(g.rowBytes, 48);
    burnin_test::Frame f(FBF8BitYCbCr, 720, 486);
    EXPECT_TRUE(c->BurnTC(f.data(), f.pitch, BurnTimecode, 0, false));
    burnin_test::expectCells(f, g, {0, 0, 10, 0, 0, 10, 0, 0, 10, 0, 0}, 1, 2);
  }
}

}  // namespace

// SPDX-License-Identifier: MIT
// Burn-in never draws outside the frame: the sizes at the edge of acceptance, and a sweep of formats and
// sizes.
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "burnin_support.h"
#include "rp188.h"
#include "test_support.h"

namespace {

using namespace burnin_test;

constexpr unsigned char kGuard = 0xA5;
constexpr int kGuardBytes = 64;    // before and after the frame
constexpr int kGuardColumns = 16;  // after each line, when asked for

// A frame of exactly width x height pixels of a format, with guard bytes
// before and after it and, when `guardColumns` is set, after every line
// (the pitch then exceeds the line by that much). Only the guards are
// filled: a frame of several megabytes costs nothing until drawn into.
class GuardedFrame {
 public:
  GuardedFrame(VexaFrameBufferFormat format, int width, int height, bool guardColumns)
      : lineBytes_(lineBytesOf(format, width)),
        pitch_(lineBytes_ + (guardColumns ? kGuardColumns : 0)),
        height_(height),
        size_(static_cast<std::size_t>(pitch_) * static_cast<std::size_t>(height)),
        memory_(new unsigned char[size_ + 2 * kGuardBytes]) {
    std::memset(memory_.get(), kGuard, kGuardBytes);
    std::memset(memory_.get() + kGuardBytes + size_, kGuard, kGuardBytes);
    for (int line = 0; line < height_ && pitch_ > lineBytes_; ++line)
      std::memset(frame() + static_cast<std::size_t>(line) * static_cast<std::size_t>(pitch_) + lineBytes_,
                  kGuard, static_cast<std::size_t>(pitch_ - lineBytes_));
  }
  char* data() { return reinterpret_cast<char*>(frame()); }
  int pitch() const { return pitch_; }

  // Empty when every guard byte is intact, else where the first one changed.
  std::string damage() const {
    for (int i = 0; i < kGuardBytes; ++i) {
      if (memory_[static_cast<std::size_t>(i)] != kGuard) return "before the frame at " + std::to_string(i);
      if (memory_[kGuardBytes + size_ + static_cast<std::size_t>(i)] != kGuard)
        return "after the frame at " + std::to_string(i);
    }
    for (int line = 0; line < height_; ++line)
      for (int b = lineBytes_; b < pitch_; ++b)
        if (memory_[kGuardBytes + static_cast<std::size_t>(line) * static_cast<std::size_t>(pitch_) +
                    static_cast<std::size_t>(b)] != kGuard)
          return "past the end of line " + std::to_string(line) + " at byte " + std::to_string(b);
    return "";
  }

 private:
  unsigned char* frame() const { return memory_.get() + kGuardBytes; }

  int lineBytes_;
  int pitch_;
  int height_;
  std::size_t size_;
  std::unique_ptr<unsigned char[]> memory_;
};

// Every way of drawing: each mode, the field marker on and off, the
// counter's frame-count form, a negative counter and a mode above 3.
struct Burn {
  TimecodeBurnMode mode;
  int value;
  bool marker;
};
const Burn kBurns[] = {
    {BurnTimecode, 0, false},     {BurnTimecode, 0, true},
    {BurnUserBits, 0, true},      {BurnCounter, 123456, true},
    {BurnCounter, INT_MIN, true}, {BurnCounter, -42, false},
    {BurnDashes, 0, true},        {static_cast<TimecodeBurnMode>(9), INT_MAX, true},
};

// A 60 fps time code on an odd frame: with the marker on, a twelfth cell
// (the asterisk) follows wherever it fits.
CRP188 sixtyFps() {
  CRP188 tc(59, 59, 59, 23, TCFormat60fps);
  return tc;
}

// The geometry the rules give for a set-up, worked out here on its own so
// that the sweep checks the library against it; ok false for a refusal.
struct Expected {
  bool ok;
  int rowBytes, glyphHeight, horizontalStart, verticalStart, lineBytes;
};
Expected expectedGeometry(VexaFrameBufferFormat format, int width, int height, int verticalPercent) {
  Expected e{};
  if (width <= 0 || height <= 0 || width > 8192 || height > 8192) return e;
  int hScale, vScale;
  if (height > 900) {
    hScale = width < 1441 ? 2 : 3;
    vScale = 6;
  } else {
    hScale = height > 650 ? 2 : 1;
    vScale = 2 * hScale;
  }
  const int bytesPerPixel = format == FBF8BitYCbCr ? 2 : 4;
  e.rowBytes = format == FBF10BitYCbCr ? 64 * hScale : bytesPerPixel * 24 * hScale;
  e.glyphHeight = 18 * vScale;
  e.lineBytes = lineBytesOf(format, width);
  e.horizontalStart = (e.lineBytes - 11 * e.rowBytes) / 2;
  if (format == FBF10BitYCbCr && e.horizontalStart >= 0) e.horizontalStart -= e.horizontalStart % 16;
  const long long top = verticalPercent != 0 ? static_cast<long long>(verticalPercent) * height / 100
                                             : static_cast<long long>(height) * 8 / 10;
  e.ok = e.horizontalStart >= 0 && top >= 0 && top + e.glyphHeight <= height;
  e.verticalStart = static_cast<int>(top);
  return e;
}

// The example from the report: after an HD set-up, a 264 x 486 8-bit set-up
// (eleven cells fill the line exactly) is accepted with its own geometry,
// and every burn into a frame of exactly that size stays inside it. Before,
// it was refused and the HD geometry drew at line 864 of a 486-line frame.
TEST(BurnInBounds, SmallFrameAfterHdDrawsInsideTheSmallFrame) {
  CRP188 tc = sixtyFps();
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{1920, 1080}, 0));
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{264, 486}, 0));
  BurnInGeometry g{};
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  EXPECT_EQ(g.width, 264);
  EXPECT_EQ(g.height, 486);
  EXPECT_EQ(g.horizontalStart, 0);
  EXPECT_EQ(g.verticalStart, 388);
  for (const Burn& b : kBurns) {
    GuardedFrame f(FBF8BitYCbCr, 264, 486, false);
    EXPECT_TRUE(tc.BurnTC(f.data(), f.pitch(), b.mode, b.value, b.marker));
    EXPECT_EQ(f.damage(), "") << "mode " << b.mode;
  }
}

// After an HD set-up a size that cannot hold eleven cells (263 x 486: 526
// bytes a line) is refused, and nothing of the HD set-up is left: BurnTC
// returns false and draws nothing into the small frame.
TEST(BurnInBounds, RefusalAfterHdLeavesNothingToDrawWith) {
  CRP188 tc = sixtyFps();
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{1920, 1080}, 0));
  EXPECT_FALSE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{263, 486}, 0));
  BurnInGeometry g{};
  EXPECT_FALSE(tc.GetBurnInGeometry(g));
  Frame f(FBF8BitYCbCr, 263, 486);
  for (const Burn& b : kBurns) EXPECT_FALSE(tc.BurnTC(f.data(), f.pitch, b.mode, b.value, b.marker));
  EXPECT_TRUE(f.bytes == f.original);
}

// 264 x 486 in 8 bits with the marker on: the eleven cells of 23:59:59:29
// (59 halved) are drawn, the asterisk is not, and nothing else changes
// (Frame's spare bytes after each line are where the marker would go).
TEST(BurnInBounds, MarkerLeftOutWhereOnlyElevenCellsFit) {
  CRP188 tc = sixtyFps();
  ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{264, 486}, 0));
  BurnInGeometry g{};
  ASSERT_TRUE(tc.GetBurnInGeometry(g));
  Frame f(FBF8BitYCbCr, 264, 486);
  EXPECT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, true));
  expectCells(f, g, {2, 3, COLON, 5, 9, COLON, 5, 9, COLON, 2, 9}, 1, 2);
}

// 311 pixels: the cells start at byte 47 and the twelfth would end at 623
// of 622, so no marker; 312 pixels: it ends at 624 of 624 and is drawn.
TEST(BurnInBounds, MarkerDrawnFromTheFirstWidthWithRoomForIt) {
  for (int width : {311, 312}) {
    CRP188 tc = sixtyFps();
    ASSERT_TRUE(tc.InitBurnIn(FBF8BitYCbCr, SIZE{width, 486}, 0));
    BurnInGeometry g{};
    ASSERT_TRUE(tc.GetBurnInGeometry(g));
    EXPECT_EQ(g.horizontalStart, width == 311 ? 47 : 48);
    Frame f(FBF8BitYCbCr, width, 486);
    EXPECT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, true));
    std::vector<int> cells = {2, 3, COLON, 5, 9, COLON, 5, 9, COLON, 2, 9};
    if (width == 312) cells.push_back(STAR);
    expectCells(f, g, cells, 1, 2);
  }
}

// V210 at 577 x 2160 (the other example from the report): accepted, cells
// from byte 64, no marker. The marker first fits at 618 pixels: 1648 line
// bytes, cells from 112, the twelfth ending at 1648; at 617 (1645 bytes)
// it does not.
TEST(BurnInBounds, V210MarkerOnlyWhereItFits) {
  const struct {
    int width, horizontalStart;
    bool marker;
  } cases[] = {{577, 64, false}, {617, 112, false}, {618, 112, true}};
  for (const auto& c : cases) {
    CRP188 tc = sixtyFps();
    ASSERT_TRUE(tc.InitBurnIn(FBF10BitYCbCr, SIZE{c.width, 2160}, 0)) << c.width;
    BurnInGeometry g{};
    ASSERT_TRUE(tc.GetBurnInGeometry(g));
    EXPECT_EQ(g.horizontalStart, c.horizontalStart) << c.width;
    EXPECT_EQ(g.verticalStart, 1728);
    Frame f(FBF10BitYCbCr, c.width, 2160);
    EXPECT_TRUE(tc.BurnTC(f.data(), f.pitch, BurnTimecode, 0, true));
    std::vector<int> cells = {2, 3, COLON, 5, 9, COLON, 5, 9, COLON, 2, 9};
    if (c.marker) cells.push_back(STAR);
    expectCells(f, g, cells, 2, 6);
    GuardedFrame exact(FBF10BitYCbCr, c.width, 2160, false);
    EXPECT_TRUE(tc.BurnTC(exact.data(), exact.pitch(), BurnTimecode, 0, true));
    EXPECT_EQ(exact.damage(), "") << c.width;
  }
}

// The sweep: five formats, widths and heights around every edge of the
// rules (the scale steps at 650/651 and 900/901 lines and 1440/1441
// pixels, the widths where eleven and twelve cells start to fit, the
// smallest heights that hold a glyph) and vertical percents from the
// smallest int to the largest. Every set-up is accepted exactly when the
// rules place all eleven cells inside the frame, with the geometry they
// give; every accepted one is burnt in every mode into a frame of exactly
// its size with guard bytes around it, and with the marker once more into
// one with guard columns after every line; no guard byte may change. Under AddressSanitizer a
// stray write outside the exact frame is caught as well.
TEST(BurnInBounds, SweepOfFormatsSizesAndPercentsNeverWritesOutsideTheFrame) {
  const VexaFrameBufferFormat formats[] = {FBF10BitYCbCr, FBF8BitYCbCr, FBFARGB, FBFRGBA, FBF10BitRGB};
  std::vector<int> widths = {1,   263, 264, 265, 287, 288, 311, 312,  527,  528,  529,  575,  576,  577,  617,
                             618, 623, 624, 720, 863, 864, 865, 1280, 1440, 1441, 1920, 3840, 8192, 8193, 0};
  std::vector<int> heights = {1,   35,  36,  45,  46,  175,  176,  350,  351,  486, 650,
                              651, 720, 899, 900, 901, 1080, 2160, 4320, 8193, 0};
  std::vector<int> percents = {INT_MIN, -1, 0, 1, 50, 89, 90, 91, 99, 100, INT_MAX};
  if (vorta_test::underEmulation()) {
    // Under an emulator each burn is some twenty times slower; every edge
    // is still crossed in at least one format, but not every pair of them.
    std::printf(
        "[ sparse   ] under an emulator: widths, heights and percents thinned to keep the sweep"
        " within seconds\n");
    auto thin = [](std::vector<int>& v) {
      std::vector<int> kept;
      for (std::size_t i = 0; i < v.size(); i += 2) kept.push_back(v[i]);
      if (kept.back() != v.back()) kept.push_back(v.back());
      v = kept;
    };
    thin(widths);
    thin(heights);
    thin(percents);
  }
  const auto started = std::chrono::steady_clock::now();
  int accepted = 0, refused = 0, burns = 0;
  for (VexaFrameBufferFormat format : formats) {
    for (int width : widths) {
      for (int height : heights) {
        std::unique_ptr<GuardedFrame> exact, columns;
        for (int percent : percents) {
          const Expected e = expectedGeometry(format, width, height, percent);
          CRP188 tc = sixtyFps();
          const bool ok = tc.InitBurnIn(format, SIZE{width, height}, percent);
          const std::string what = "format " + std::to_string(format) + " " + std::to_string(width) + "x" +
                                   std::to_string(height) + " at " + std::to_string(percent) + " %";
          ASSERT_EQ(ok, e.ok) << what;
          BurnInGeometry g{};
          if (!ok) {
            ++refused;
            ASSERT_FALSE(tc.GetBurnInGeometry(g)) << what;
            char byte = 0x11;
            ASSERT_FALSE(tc.BurnTC(&byte, INT_MAX, BurnTimecode, 0, true)) << what;
            ASSERT_EQ(byte, 0x11) << what;
            continue;
          }
          ++accepted;
          ASSERT_TRUE(tc.GetBurnInGeometry(g)) << what;
          ASSERT_EQ(g.rowBytes, e.rowBytes) << what;
          ASSERT_EQ(g.glyphHeight, e.glyphHeight) << what;
          ASSERT_EQ(g.horizontalStart, e.horizontalStart) << what;
          ASSERT_EQ(g.verticalStart, e.verticalStart) << what;
          if (!exact) {
            exact.reset(new GuardedFrame(format, width, height, false));
            columns.reset(new GuardedFrame(format, width, height, true));
          }
          for (const Burn& b : kBurns) {
            ASSERT_TRUE(tc.BurnTC(exact->data(), exact->pitch(), b.mode, b.value, b.marker)) << what;
            ++burns;
          }
          // Every mode spans the same cells; the widest (with the marker)
          // is enough to look for bytes past the end of a line.
          ASSERT_TRUE(tc.BurnTC(columns->data(), columns->pitch(), BurnTimecode, 0, true)) << what;
          ++burns;
          ASSERT_EQ(exact->damage(), "") << what;
          ASSERT_EQ(columns->damage(), "") << what;
        }
      }
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf("[ sweep    ] %d set-ups accepted, %d refused, %d burns checked in %.2f s\n", accepted, refused,
              burns, seconds);
  // Both sides of the edges were reached.
  EXPECT_GT(accepted, 100);
  EXPECT_GT(refused, 100);
}

}  // namespace

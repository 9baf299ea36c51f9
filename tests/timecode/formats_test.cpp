// SPDX-License-Identifier: MIT
// Tests of the time code formats: per-format constants and the frames in a day.
#include <gtest/gtest.h>

#include "rp188.h"

namespace {

struct FormatRow {
  TimecodeFormat format;
  unsigned int fps;
  bool drop;
  bool pal;
  bool rate60_50;
  VexaFrameRate defaultRate;
  unsigned int framesPerDay;
};

const FormatRow kFormats[] = {
    {TCFormat24fps, 24, false, false, false, Rate24, 2073600},
    {TCFormat25fps, 25, false, true, false, Rate25, 2160000},
    {TCFormat30fps, 30, false, false, false, Rate30, 2592000},
    {TCFormat30fpsDF, 30, true, false, false, Rate30, 2589408},
    {TCFormat50fps, 50, false, true, true, Rate50, 4320000},
    {TCFormat60fps, 60, false, false, true, Rate60, 5184000},
    {TCFormat60fpsDF, 60, true, false, true, Rate60, 5178816},
};

// Every query gives the table's value, whether the format is passed or stored.
TEST(Formats, QueriesFollowTheFormatTable) {
  for (const FormatRow& row : kFormats) {
    SCOPED_TRACE(row.format);
    CRP188 passed;
    EXPECT_EQ(passed.FramesPerSecond(row.format), row.fps);
    EXPECT_EQ(passed.FormatIsDropFrame(row.format), row.drop);
    EXPECT_EQ(passed.FormatIsPAL(row.format), row.pal);
    EXPECT_EQ(passed.FormatIs60_50fps(row.format), row.rate60_50);
    EXPECT_EQ(passed.DefaultFrameRateForTimecodeFormat(row.format), row.defaultRate);

    CRP188 stored(0u, row.format);
    EXPECT_EQ(stored.GetFormat(), row.format);
    EXPECT_EQ(stored.FramesPerSecond(), row.fps);
    EXPECT_EQ(stored.FormatIsDropFrame(), row.drop);
    EXPECT_EQ(stored.FormatIsPAL(), row.pal);
    EXPECT_EQ(stored.FormatIs60_50fps(), row.rate60_50);
    EXPECT_EQ(stored.DefaultFrameRateForTimecodeFormat(), row.defaultRate);
    EXPECT_EQ(stored.MaxFramesPerDay(), row.framesPerDay);
    EXPECT_EQ(stored.MaxFramesPerDay(row.format), row.framesPerDay);
  }
}

TEST(Formats, FreshObjectFallsBackToThirtyFramesAndUnknownRate) {
  CRP188 fresh;
  EXPECT_EQ(fresh.GetFormat(), TCFormatUnknown);
  EXPECT_EQ(fresh.FramesPerSecond(TCFormatUnknown), 30u);
  EXPECT_EQ(fresh.DefaultFrameRateForTimecodeFormat(TCFormatUnknown), RateUnknown);
  EXPECT_FALSE(fresh.FormatIsDropFrame());
  EXPECT_FALSE(fresh.FormatIsPAL());
  EXPECT_FALSE(fresh.FormatIs60_50fps());
  EXPECT_EQ(fresh.MaxFramesPerDay(), 2592000u);
}

TEST(Formats, ValuesOutsideTheTableActLikeUnknown) {
  CRP188 tc;
  for (uint32_t value : {8u, 9u, 100u, 0xFFFFFFFFu}) {
    const TimecodeFormat format = static_cast<TimecodeFormat>(value);
    EXPECT_EQ(tc.FramesPerSecond(format), 30u);
    EXPECT_EQ(tc.DefaultFrameRateForTimecodeFormat(format), RateUnknown);
    EXPECT_FALSE(tc.FormatIsDropFrame(format));
    EXPECT_FALSE(tc.FormatIsPAL(format));
    EXPECT_FALSE(tc.FormatIs60_50fps(format));
    EXPECT_EQ(tc.MaxFramesPerDay(format), 2592000u);
  }
}

// Kept on purpose: drop-frame formats report the rate of their non-drop partner.
TEST(Formats, DropFrameFormatsShareTheirPartnersDefaultRate) {
  CRP188 tc;
  EXPECT_EQ(tc.DefaultFrameRateForTimecodeFormat(TCFormat30fpsDF), Rate30);
  EXPECT_EQ(tc.DefaultFrameRateForTimecodeFormat(TCFormat60fpsDF), Rate60);
}

// Kept on purpose: the frames dropped per minute come from the stored format,
// even when another drop-frame format is passed.
TEST(Formats, MaxFramesPerDayTakesTheDropCountFromTheStoredFormat) {
  CRP188 stored60df(0u, TCFormat60fpsDF);
  // 30 fps with 4 frames dropped per minute: (1796 * 9 + 1800) * 144.
  EXPECT_EQ(stored60df.MaxFramesPerDay(TCFormat30fpsDF), 2586816u);
  EXPECT_EQ(stored60df.MaxFramesPerDay(), 5178816u);

  CRP188 stored30df(0u, TCFormat30fpsDF);
  // 60 fps with 2 frames dropped per minute: (3598 * 9 + 3600) * 144.
  EXPECT_EQ(stored30df.MaxFramesPerDay(TCFormat60fpsDF), 5181408u);
  EXPECT_EQ(stored30df.MaxFramesPerDay(), 2589408u);

  CRP188 fresh;
  EXPECT_EQ(fresh.MaxFramesPerDay(TCFormat60fpsDF), 5181408u);
  EXPECT_EQ(fresh.MaxFramesPerDay(TCFormat30fpsDF), 2589408u);
}

}  // namespace

// SPDX-License-Identifier: MIT
// Tests of the RP188 register words: encoding by the setters, decoding,
// the flag setters and the user-bit readers.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "rp188.h"

namespace {

RP188_STRUCT regsOf(const CRP188& tc) {
  RP188_STRUCT regs{0xDEADBEEF, 0xDEADBEEF, 0xDEADBEEF};
  tc.GetRP188Reg(regs);
  return regs;
}

#define EXPECT_REGS(tc, edbb, elow, ehigh)                                   \
  do {                                                                       \
    const RP188_STRUCT r_ = regsOf(tc);                                      \
    EXPECT_EQ(r_.dbb, static_cast<uint32_t>(edbb)) << std::hex << r_.dbb;    \
    EXPECT_EQ(r_.low, static_cast<uint32_t>(elow)) << std::hex << r_.low;    \
    EXPECT_EQ(r_.high, static_cast<uint32_t>(ehigh)) << std::hex << r_.high; \
  } while (0)

TEST(Registers, MinuteOneInThirtyDropFrame) {
  CRP188 tc;
  EXPECT_TRUE(tc.SetRP188(0, 0, 1, 0, TCFormat30fpsDF));
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:00;02");
  // Frame units 2, drop-frame bit, Varicam code 30.
  EXPECT_REGS(tc, 0x00000000, 0x30000402, 0x00000001);
  EXPECT_TRUE(tc.IsDropFrame());
}

TEST(Registers, PlainThirtyFrameValue) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "04:03:02:01");
  EXPECT_REGS(tc, 0x00000000, 0x30020001, 0x00040003);
  RP188_STRUCT regs{};
  EXPECT_TRUE(tc.GetRP188Reg(regs));
}

TEST(Registers, SixtyFramesCarryHalfTheFrameAndTheFieldId) {
  CRP188 tc(45, 0, 0, 12, TCFormat60fps);
  EXPECT_STREQ(tc.GetRP188CString(), "12:00:00:45");
  // Frame digits 22, field ID in low bit 27, Varicam code 60, hours tens 1.
  EXPECT_REGS(tc, 0x00000000, 0x68000202, 0x01020000);
  EXPECT_EQ(tc.GetFieldID(), 1u);
  tc.SetRP188(44, 0, 0, 12, TCFormat60fps);
  EXPECT_REGS(tc, 0x00000000, 0x60000202, 0x01020000);
  EXPECT_EQ(tc.GetFieldID(), 0u);
}

TEST(Registers, FiftyFramesPutTheFieldIdInTheHighWord) {
  CRP188 tc(45, 0, 0, 12, TCFormat50fps);
  EXPECT_REGS(tc, 0x00000000, 0x50000202, 0x09020000);
  EXPECT_EQ(tc.GetFieldID(), 1u);
}

TEST(Registers, TwentyFiveFramesCarryTheRateCode) {
  CRP188 tc(24, 59, 59, 23, TCFormat25fps);
  EXPECT_STREQ(tc.GetRP188CString(), "23:59:59:24");
  EXPECT_REGS(tc, 0x00000000, 0x25590204, 0x02030509);
}

TEST(RateSetter, PicksTheFormatFromTheRateAndFlags) {
  struct Case {
    VexaFrameRate rate;
    bool drop, doubleRate;
    TimecodeFormat expected;
  };
  const Case cases[] = {
      {Rate2997, true, false, TCFormat30fpsDF},   {RateUnknown, false, false, TCFormat30fpsDF},
      {RateUnknown, true, true, TCFormat30fpsDF}, {Rate30, false, false, TCFormat30fps},
      {Rate30, true, true, TCFormat60fpsDF},      {Rate2997, false, true, TCFormat60fps},
      {Rate60, false, true, TCFormat60fps},       {Rate5994, true, false, TCFormat60fpsDF},
      {Rate25, false, true, TCFormat50fps},       {Rate25, true, true, TCFormat50fps},
      {Rate25, true, false, TCFormat25fps},       {Rate24, true, false, TCFormat24fps},
      {Rate2398, false, true, TCFormat24fps},     {Rate50, true, true, TCFormat50fps},
      {Rate15, false, false, TCFormat30fpsDF},    {RateDevice9, false, false, TCFormat30fpsDF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "rate " << c.rate << " drop " << c.drop << " double " << c.doubleRate);
    CRP188 tc;
    EXPECT_TRUE(tc.SetRP188(0, 0, 0, 0, c.rate, c.drop, c.doubleRate));
    EXPECT_EQ(tc.GetFormat(), c.expected);
    EXPECT_TRUE(tc.IsValid());
  }
}

TEST(VaricamRate, TwentyFiveIsWrittenAsTwoThenFive) {
  CRP188 tc(0u, TCFormat30fps);
  tc.SetVaricamRate(Rate25);
  EXPECT_REGS(tc, 0, 0x20500000, 0);
  EXPECT_EQ(tc.VaricamFrameRate(), 25u);
}

TEST(VaricamRate, EveryRateHasItsCode) {
  const unsigned int codes[] = {0, 60, 60, 30, 30, 25, 24, 24, 50, 0, 0, 0, 0, 15, 15, 0, 0};
  for (unsigned int rate = 0; rate < sizeof codes / sizeof codes[0]; ++rate) {
    SCOPED_TRACE(rate);
    CRP188 tc(0u, TCFormat30fps);
    tc.SetVaricamRate(static_cast<VexaFrameRate>(rate));
    EXPECT_EQ(tc.VaricamFrameRate(), codes[rate]);
    EXPECT_EQ(regsOf(tc).low, ((codes[rate] / 10) << 28) | ((codes[rate] % 10) << 20));
  }
}

TEST(UserBits, NibblesOutsideTheirRangeReadAsZero) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);  // low 0x30020001, high 0x00040003
  EXPECT_EQ(tc.UDW(0), 0u);
  EXPECT_EQ(tc.UDW(17), 0u);
  EXPECT_EQ(tc.BinaryGroup(0), 0u);
  EXPECT_EQ(tc.BinaryGroup(9), 0u);
  EXPECT_EQ(tc.UDW(1), 1u);
  EXPECT_EQ(tc.UDW(5), 2u);
  EXPECT_EQ(tc.UDW(8), 3u);
  EXPECT_EQ(tc.UDW(9), 3u);
  EXPECT_EQ(tc.UDW(13), 4u);
  EXPECT_EQ(tc.UDW(16), 0u);
  EXPECT_EQ(tc.BinaryGroup(4), 3u);
}

// Words with every field set: 10:20:30:12 with user bits 43 21 DC BA, colour
// frame, Varicam frame 0 active, bit 27 of both words, bit 11 and bit 26 of
// the high word, input flag and source 0xAB in the dbb word.
const RP188_STRUCT kFullWords = {0xAB020000, 0xDBC0B9A2, 0x45302A10};

TEST(Decode, PalWordsGiveTheirDigitsAndFlags) {
  CRP188 tc;
  EXPECT_TRUE(tc.SetRP188(kFullWords, TCFormat25fps));
  EXPECT_TRUE(tc.IsValid());
  EXPECT_STREQ(tc.GetRP188CString(), "10:20:30:12");
  unsigned int h = 0, m = 0, s = 0, f = 0;
  tc.GetRP188Hrs(h);
  tc.GetRP188Mins(m);
  tc.GetRP188Secs(s);
  tc.GetRP188Frms(f);
  EXPECT_EQ(h, 10u);
  EXPECT_EQ(m, 20u);
  EXPECT_EQ(s, 30u);
  EXPECT_EQ(f, 12u);
  EXPECT_REGS(tc, 0xAB020000, 0xDBC0B9A2, 0x45302A10);
  EXPECT_EQ(tc.GetSource(), 0xAB);
  EXPECT_TRUE(tc.GetInputFlag());
  EXPECT_TRUE(tc.IsColorFrame());
  EXPECT_FALSE(tc.IsDropFrame());
  EXPECT_TRUE(tc.GetVaricamFrameActive(0));
  EXPECT_FALSE(tc.GetVaricamFrameActive(1));
  EXPECT_EQ(tc.GetFieldID(), 0u);  // high bit 27 in PAL
  bool bfg0 = false, bfg1 = false, bfg2 = false;
  tc.GetBFGBits(bfg0, bfg1, bfg2);
  EXPECT_TRUE(bfg0);  // low bit 27
  EXPECT_TRUE(bfg1);  // high bit 26
  EXPECT_TRUE(bfg2);  // high bit 11
  EXPECT_STREQ(tc.GetRP188UserBitsCString(), "43 21 DC BA");
  EXPECT_EQ(tc.VaricamFrameRate(), 13u * 10 + 12u);
}

TEST(Decode, NonPalWordsPlaceFieldIdAndFlagsElsewhere) {
  CRP188 tc(kFullWords, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "10:20:30:12");
  EXPECT_EQ(tc.GetFieldID(), 1u);  // low bit 27
  bool bfg0 = false, bfg1 = false, bfg2 = true;
  tc.GetBFGBits(bfg0, bfg1, bfg2);
  EXPECT_TRUE(bfg0);   // high bit 11
  EXPECT_TRUE(bfg1);   // high bit 26
  EXPECT_FALSE(bfg2);  // high bit 27
}

// Kept on purpose: the decoded Varicam rate comes from the binary groups as
// they were before the new words arrived; only a user-bit read refreshes them.
TEST(Decode, VaricamRateUsesTheBinaryGroupsAsTheyStood) {
  CRP188 tc;
  tc.SetRP188(kFullWords, TCFormat25fps);
  EXPECT_EQ(tc.GetVaricamRate(), 0u);
  EXPECT_EQ(tc.BinaryGroup(4), 13u);  // refreshes the groups
  tc.SetRP188(kFullWords, TCFormat25fps);
  EXPECT_EQ(tc.GetVaricamRate(), 142u);
}

TEST(Decode, SixtyAndFiftyFrameDigitsAreDoubledWithTheFieldId) {
  CRP188 sixty(RP188_STRUCT{0, 0x68000202, 0x01020000}, TCFormat60fps);
  EXPECT_STREQ(sixty.GetRP188CString(), "12:00:00:45");
  CRP188 fifty(RP188_STRUCT{0, 0x50000202, 0x09020000}, TCFormat50fps);
  EXPECT_STREQ(fifty.GetRP188CString(), "12:00:00:45");
  // In 50 the field ID is high bit 27; low bit 27 is a flag there.
  CRP188 fiftyEven(RP188_STRUCT{0, 0x58000202, 0x01020000}, TCFormat50fps);
  EXPECT_STREQ(fiftyEven.GetRP188CString(), "12:00:00:44");
}

TEST(Decode, NibblesTenToFifteenReadAsZeroButTheWordsAreKept) {
  CRP188 tc(RP188_STRUCT{0, 0x000A000F, 0x000C000B}, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:00:00:00");
  EXPECT_REGS(tc, 0, 0x000A000F, 0x000C000B);
}

TEST(Decode, TheDropFrameSeparatorFollowsTheWordNotTheFormat) {
  CRP188 tc(RP188_STRUCT{0, 0x00000405, 0x00000001}, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:00;05");
  EXPECT_TRUE(tc.IsDropFrame());
  EXPECT_EQ(tc.GetFormat(), TCFormat30fps);
  CRP188 plain(RP188_STRUCT{0, 0x00000005, 0x00000001}, TCFormat30fpsDF);
  EXPECT_STREQ(plain.GetRP188CString(), "00:01:00:05");
}

TEST(Decode, FormatZeroKeepsTheStoredFormat) {
  CRP188 tc(0u, TCFormat60fps);
  tc.SetRP188(RP188_STRUCT{0, 0x08000202, 0}, TCFormatUnknown);
  EXPECT_EQ(tc.GetFormat(), TCFormat60fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:00:00:45");
}

// The register words are rebuilt from the text, clamping a 60/50 frame number
// at the last frame of the second.
TEST(Encode, RebuildingClampsSixtyFrameNumbersToTheLastFrame) {
  CRP188 tc(RP188_STRUCT{0, 0x08000309, 0}, TCFormat60fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:00:00:79");
  tc.ConvertTcStrToReg();
  EXPECT_REGS(tc, 0, 0x08000209, 0);  // 59: digits 29, field ID 1
}

TEST(Encode, RebuildingFromNoTextGivesZeroWords) {
  CRP188 tc;
  tc.SetSource(0x11);
  tc.ConvertTcStrToReg();
  EXPECT_REGS(tc, 0, 0, 0);
}

// Kept on purpose: every setter rebuilds the words from the text, so the
// source byte, the input flag and any user bits are lost.
TEST(Encode, SettersRebuildTheWordsAndLoseSourceAndUserBits) {
  CRP188 tc(kFullWords, TCFormat25fps);
  ASSERT_EQ(tc.GetSource(), 0xAB);
  tc.AddFrames(0);
  EXPECT_STREQ(tc.GetRP188CString(), "10:20:30:12");
  EXPECT_EQ(tc.GetSource(), 0);
  EXPECT_FALSE(tc.GetInputFlag());
  EXPECT_FALSE(tc.IsColorFrame());
  EXPECT_STREQ(tc.GetRP188UserBitsCString(), "00 00 25 00");  // only the Varicam code
  EXPECT_REGS(tc, 0, 0x23500102, 0x01000200);

  tc.SetSource(0x5A);
  EXPECT_EQ(tc.GetSource(), 0x5A);
  EXPECT_EQ(regsOf(tc).dbb, 0x5A000000u);
  tc.SetRP188(5u, TCFormat25fps);
  EXPECT_EQ(tc.GetSource(), 0);
}

// What ConvertTcStrToReg places must equal what a one-character "%d" read of
// each digit gives, for a broad sample of texts in a plain and a 60 format.
TEST(Encode, DigitPlacementMatchesOneCharacterDecimalReads) {
  auto readDigit = [](char c) {
    const char one[2] = {c, 0};
    int value = 0;
    std::sscanf(one, "%d", &value);
    return static_cast<uint32_t>(value);
  };
  for (TimecodeFormat format : {TCFormat30fps, TCFormat60fps}) {
    CRP188 tc;
    const unsigned int fps = tc.FramesPerSecond(format);
    for (unsigned int h = 0; h < 24; ++h)
      for (unsigned int m = 0; m < 60; ++m)
        for (unsigned int s : {0u, 7u, 59u})
          for (unsigned int f = 0; f < fps; ++f) {
            tc.SetRP188(f, s, m, h, format);
            const std::string t = tc.GetRP188CString();
            uint32_t high = (readDigit(t[0]) & 3) << 24 | (readDigit(t[1]) & 15) << 16 |
                            (readDigit(t[3]) & 7) << 8 | (readDigit(t[4]) & 15);
            uint32_t low = (readDigit(t[6]) & 7) << 24 | (readDigit(t[7]) & 15) << 16;
            uint32_t n = readDigit(t[9]) * 10 + readDigit(t[10]);
            if (fps == 60) {
              low |= (n & 1) << 27;
              n /= 2;
            }
            low |= (n % 10) | ((n / 10) & 3) << 8;
            low |= (fps / 10) << 28;  // the Varicam code the setter adds
            const RP188_STRUCT regs = regsOf(tc);
            ASSERT_EQ(regs.low, low) << t;
            ASSERT_EQ(regs.high, high) << t;
          }
  }
}

TEST(Flags, EachSetterChangesOnlyItsBit) {
  CRP188 tc(1, 2, 3, 4, TCFormat30fps);  // low 0x30020001, high 0x00040003
  tc.SetDropFrame(true);
  EXPECT_REGS(tc, 0, 0x30020401, 0x00040003);
  EXPECT_TRUE(tc.IsDropFrame());
  tc.SetDropFrame(false);
  tc.SetColorFrame(true);
  EXPECT_REGS(tc, 0, 0x30020801, 0x00040003);
  EXPECT_TRUE(tc.IsColorFrame());
  tc.SetColorFrame(false);
  tc.SetVaricamFrameActive(true, 0);
  EXPECT_REGS(tc, 0, 0x30020021, 0x00040003);
  EXPECT_TRUE(tc.GetVaricamFrameActive(0));
  tc.SetVaricamFrameActive(true, 3);
  EXPECT_REGS(tc, 0, 0x30020031, 0x00040003);
  EXPECT_TRUE(tc.GetVaricamFrameActive(1));
  tc.SetVaricamFrameActive(false, 0);
  tc.SetVaricamFrameActive(false, 1);
  tc.SetFieldID(1);
  EXPECT_REGS(tc, 0, 0x38020001, 0x00040003);
  EXPECT_EQ(tc.GetFieldID(), 1u);
  tc.SetFieldID(0);
  tc.SetBFGBits(true, false, false);
  EXPECT_REGS(tc, 0, 0x30020001, 0x00040803);
  tc.SetBFGBits(false, true, false);
  EXPECT_REGS(tc, 0, 0x30020001, 0x04040003);
  tc.SetBFGBits(false, false, true);
  EXPECT_REGS(tc, 0, 0x30020001, 0x08040003);
  tc.SetBFGBits(false, false, false);
  tc.SetSource(0xFF);
  EXPECT_REGS(tc, 0xFF000000, 0x30020001, 0x00040003);
  EXPECT_EQ(tc.GetSource(), 0xFF);
}

TEST(Flags, PalFormatsMoveFieldIdAndFlags) {
  CRP188 tc(1, 2, 3, 4, TCFormat25fps);  // low 0x20520001, high 0x00040003
  EXPECT_REGS(tc, 0, 0x20520001, 0x00040003);
  tc.SetFieldID(1);
  EXPECT_REGS(tc, 0, 0x20520001, 0x08040003);
  EXPECT_EQ(tc.GetFieldID(), 1u);
  tc.SetFieldID(0);
  tc.SetBFGBits(true, false, false);
  EXPECT_REGS(tc, 0, 0x28520001, 0x00040003);
  tc.SetBFGBits(false, false, true);
  EXPECT_REGS(tc, 0, 0x20520001, 0x00040803);
}

TEST(Flags, SourceKeepsTheRestOfTheDbbWord) {
  CRP188 tc(RP188_STRUCT{0x00020000, 0, 0}, TCFormat30fps);
  tc.SetSource(0x12);
  EXPECT_EQ(regsOf(tc).dbb, 0x12020000u);
}

TEST(CentralSetter, CarriesOverLargeComponents) {
  CRP188 tc;
  tc.SetRP188(0, 3600, 0, 0, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "01:00:00:00");
  tc.SetRP188(30, 59, 59, 23, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:00:00:00");
  tc.SetRP188(0, 0, 0, 25, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "01:00:00:00");
  tc.SetRP188(100, 0, 0, 0, TCFormat50fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:00:02:00");
}

// Components near 2^32 wrap in 32 bits while carrying and still end in range.
TEST(CentralSetter, HugeComponentsStayInRange) {
  CRP188 tc;
  tc.SetRP188(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "23:11:55:15");
  tc.SetRP188(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, TCFormat60fpsDF);
  EXPECT_EQ(std::string(tc.GetRP188CString()).size(), 11u);
}

TEST(CentralSetter, DroppedFrameNumbersMoveUp) {
  CRP188 tc;
  tc.SetRP188(1, 0, 1, 0, TCFormat30fpsDF);
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:00;02");
  tc.SetRP188(3, 0, 1, 0, TCFormat60fpsDF);
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:00;04");
  tc.SetRP188(0, 0, 10, 0, TCFormat30fpsDF);
  EXPECT_STREQ(tc.GetRP188CString(), "00:10:00;00");
  tc.SetRP188(0, 1, 1, 0, TCFormat30fpsDF);
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:01;00");
  tc.SetRP188(0, 0, 1, 0, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188CString(), "00:01:00:00");
}

TEST(CentralSetter, ClearsTheFieldIdOutsideSixtyAndFifty) {
  CRP188 tc(0u, TCFormat30fps);
  tc.SetFieldID(1);
  tc.SetRP188(5u, TCFormat30fps);
  EXPECT_EQ(tc.GetFieldID(), 0u);
  EXPECT_EQ(regsOf(tc).low & (1u << 27), 0u);
}

// Registers taken at a rate that is not PAL give the field ID of low bit 27:
// 0 while it is clear, 1 once it is set.
TEST(Registers, TakenRegistersOfANonPalRateGiveTheFieldIdOfLowBit27) {
  CRP188 tc;
  RP188_STRUCT regs{};
  regs.low = 0x00000202;  // frame 22
  EXPECT_TRUE(tc.SetRP188(regs, TCFormat30fps));
  EXPECT_EQ(tc.GetFieldID(), 0u);
  regs.low |= 1u << 27;
  EXPECT_TRUE(tc.SetRP188(regs, TCFormat30fps));
  EXPECT_EQ(tc.GetFieldID(), 1u);
}

// Setting a time code clears both Varicam active flags.
TEST(Registers, SettingATimeCodeClearsTheVaricamActiveFlags) {
  CRP188 tc(0, 0, 0, 1, TCFormat60fps);
  tc.SetVaricamFrameActive(true, 0);
  tc.SetVaricamFrameActive(true, 1);
  EXPECT_TRUE(tc.GetVaricamFrameActive(0));
  EXPECT_TRUE(tc.GetVaricamFrameActive(1));
  tc.SetRP188(5, 0, 0, 1, TCFormat60fps);
  EXPECT_FALSE(tc.GetVaricamFrameActive(0));
  EXPECT_FALSE(tc.GetVaricamFrameActive(1));
}

}  // namespace

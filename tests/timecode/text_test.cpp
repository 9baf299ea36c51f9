// SPDX-License-Identifier: MIT
// Tests of the time code text: parsing, the canonical form, user bits and
// the glyph string for burn-in.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "rp188.h"

namespace {

std::string textOf(const CRP188& tc) {
  std::string out = "unchanged";
  tc.GetRP188Str(out);
  return out;
}

TEST(Text, FortyFramesAtThirtyCarryIntoTheSeconds) {
  std::string text = "10:20:30:40";
  CRP188 tc(text, TCFormat30fps);
  EXPECT_EQ(textOf(tc), "10:20:31:10");
  EXPECT_EQ(text, "10:20:30:40");  // the caller's text is left alone
}

TEST(Text, DroppedFrameNumbersMoveUp) {
  std::string text = "00:01:00:00";
  CRP188 tc(text, TCFormat30fpsDF);
  EXPECT_EQ(textOf(tc), "00:01:00;02");
  unsigned int count = 0;
  EXPECT_TRUE(tc.GetFrameCount(count));
  EXPECT_EQ(count, 1800u);
}

TEST(Text, AnySeparatorIsAccepted) {
  std::string text = "01.02.03.04";
  CRP188 tc(text, TCFormat25fps);
  EXPECT_EQ(textOf(tc), "01:02:03:04");
  text = "01:02:03;04";
  tc.SetRP188(text, TCFormat25fps);
  EXPECT_EQ(textOf(tc), "01:02:03:04");
}

TEST(Text, UnpaddedTextIsMisread) {
  std::string text = "1:2:3:4";  // "1:", ":3", "4", nothing
  CRP188 tc(text, TCFormat30fps);
  EXPECT_EQ(textOf(tc), "01:00:04:00");
}

TEST(Text, AComponentThatIsNoNumberKeepsItsValue) {
  CRP188 tc(8, 7, 6, 5, TCFormat30fps);
  std::string text = "xx:10:yy:12";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "05:10:07:12");
}

TEST(Text, ShortTextsAreReadOnlyAsFarAsTheyGo) {
  CRP188 tc(8, 7, 6, 5, TCFormat30fps);
  std::string text;
  EXPECT_TRUE(tc.SetRP188(text, TCFormatUnknown));
  EXPECT_EQ(textOf(tc), "05:06:07:08");
  text = "2";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "02:06:07:08");
  text = "03:4";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "03:04:07:08");
  text = "03:04:09:1";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "03:04:09:01");
  text = "04:05:06:";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "04:05:06:01");
}

TEST(Text, LongerTextIsCutToItsComponents) {
  std::string text = "12:34:56:12 extra";
  CRP188 tc(text, TCFormat25fps);
  EXPECT_EQ(textOf(tc), "12:34:56:12");
}

// A component is read like a formatted stream reads an unsigned number
// (leading blanks and a sign included); checked for every pair of bytes.
TEST(Text, ComponentsAreReadLikeAStreamReadsThem) {
  CRP188 tc;
  for (int a = 0; a < 256; ++a) {
    for (int b = -1; b < 256; ++b) {
      std::string head(1, static_cast<char>(a));
      if (b >= 0) head += static_cast<char>(b);
      unsigned int expected = 7;
      std::istringstream in(head);
      unsigned int read = 0;
      if (in >> read) expected = read;
      if (expected > 23) expected %= 24;

      tc.SetRP188(0, 0, 0, 7, TCFormat30fps);
      std::string text = head + ":00:00:00";
      if (b < 0) text = head;
      tc.SetRP188(text, TCFormat30fps);
      unsigned int hours = 99;
      tc.GetRP188Hrs(hours);
      ASSERT_EQ(hours, expected) << "bytes " << a << " " << b;
    }
  }
}

TEST(Text, SignedComponentsWrapLikeTheStreamReadsThem) {
  CRP188 tc(0u, TCFormat30fps);
  std::string text = "+1:02:03:04";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "01:02:03:04");
  text = " 5:02:03:04";
  tc.SetRP188(text, TCFormatUnknown);
  EXPECT_EQ(textOf(tc), "05:02:03:04");
}

TEST(Text, DefaultObjectHasNoTextAndIsInvalid) {
  CRP188 tc;
  EXPECT_STREQ(tc.GetRP188CString(), "");
  std::string out = "x";
  EXPECT_FALSE(tc.GetRP188Str(out));
  EXPECT_EQ(out, "");
  unsigned int v = 9;
  EXPECT_FALSE(tc.GetRP188Frms(v));
  EXPECT_FALSE(tc.GetRP188Secs(v));
  EXPECT_FALSE(tc.GetRP188Mins(v));
  EXPECT_FALSE(tc.GetRP188Hrs(v));
  EXPECT_EQ(v, 0u);
}

TEST(Text, ComponentGettersReturnValid) {
  CRP188 tc(4, 3, 2, 1, TCFormat24fps);
  unsigned int h = 0, m = 0, s = 0, f = 0;
  EXPECT_TRUE(tc.GetRP188Hrs(h));
  EXPECT_TRUE(tc.GetRP188Mins(m));
  EXPECT_TRUE(tc.GetRP188Secs(s));
  EXPECT_TRUE(tc.GetRP188Frms(f));
  EXPECT_EQ(h * 1000 + m * 100 + s * 10 + f, 1234u);
}

TEST(UserBitsText, AllZeroGroupsGiveFourPairsOfZeros) {
  CRP188 tc(RP188_STRUCT{0, 0, 0}, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188UserBitsCString(), "00 00 00 00");
  std::string out;
  EXPECT_TRUE(tc.GetRP188UserBitsStr(out));
  EXPECT_EQ(out, "00 00 00 00");
}

TEST(UserBitsText, GroupsEightToOneInUpperCaseHex) {
  CRP188 tc(RP188_STRUCT{0, 0x40302010, 0xF0E0D0C0}, TCFormat30fps);
  EXPECT_STREQ(tc.GetRP188UserBitsCString(), "FE DC 43 21");
  CRP188 fresh;
  std::string out;
  EXPECT_FALSE(fresh.GetRP188UserBitsStr(out));
  EXPECT_EQ(out, "00 00 00 00");
}

TEST(GlyphString, SixtyFramesHalveTheFrameAndAddTheFieldMarker) {
  CRP188 tc(45, 0, 0, 12, TCFormat60fps);
  EXPECT_EQ(tc.GetTimeCodeString(true), "12:00:00:22>");
  EXPECT_EQ(tc.GetTimeCodeString(false), "12:00:00:45");
  tc.SetRP188(44, 0, 0, 12, TCFormat60fps);
  EXPECT_EQ(tc.GetTimeCodeString(true), "12:00:00:22=");
  tc.SetRP188(49, 59, 59, 23, TCFormat50fps);
  EXPECT_EQ(tc.GetTimeCodeString(true), "23:59:59:24>");
  tc.SetRP188(5, 1, 1, 0, TCFormat60fpsDF);
  EXPECT_EQ(tc.GetTimeCodeString(true), "00:01:01;02>");
}

TEST(GlyphString, OtherFormatsHaveNoMarker) {
  CRP188 tc(29, 1, 1, 1, TCFormat30fpsDF);
  EXPECT_EQ(tc.GetTimeCodeString(true), "01:01:01;29");
  tc.SetRP188(24, 59, 59, 23, TCFormat25fps);
  EXPECT_EQ(tc.GetTimeCodeString(true), "23:59:59:24");
  CRP188 fresh;
  EXPECT_EQ(fresh.GetTimeCodeString(true), "00:00:00:00");
}

// Decoded words can hold frame numbers up to 91 in 60/50 formats; the glyph
// string shows what is stored.
TEST(GlyphString, ShowsDecodedOutOfRangeDigits) {
  CRP188 tc(RP188_STRUCT{0, 0x0800030F, 0x03000707}, TCFormat60fps);
  EXPECT_EQ(textOf(tc), "30:77:00:91");
  EXPECT_EQ(tc.GetTimeCodeString(false), "30:77:00:91");
  EXPECT_EQ(tc.GetTimeCodeString(true), "30:77:00:45>");
}

}  // namespace

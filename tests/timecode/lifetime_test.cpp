// SPDX-License-Identifier: MIT
// Tests of construction, copying and the one-sided equality of CRP188.
#include <gtest/gtest.h>

#include <string>

#include "rp188.h"

namespace {

RP188_STRUCT regsOf(const CRP188& tc) {
  RP188_STRUCT regs{1, 1, 1};
  tc.GetRP188Reg(regs);
  return regs;
}

TEST(Construction, DefaultIsEmptyAndInvalid) {
  CRP188 tc;
  EXPECT_FALSE(tc.IsValid());
  EXPECT_EQ(tc.GetFormat(), TCFormatUnknown);
  EXPECT_STREQ(tc.GetRP188CString(), "");
  RP188_STRUCT regs{1, 1, 1};
  EXPECT_FALSE(tc.GetRP188Reg(regs));
  EXPECT_EQ(regs.dbb, 0u);
  EXPECT_EQ(regs.low, 0u);
  EXPECT_EQ(regs.high, 0u);
  EXPECT_FALSE(tc.IsDropFrame());
  EXPECT_FALSE(tc.IsColorFrame());
  EXPECT_FALSE(tc.GetInputFlag());
  EXPECT_EQ(tc.GetVaricamRate(), 0u);
  EXPECT_EQ(tc.GetFieldID(), 0u);
}

TEST(Construction, EachConstructorMatchesItsSetter) {
  std::string text = "01:02:03:04";
  const RP188_STRUCT words{0, 0x30030004, 0x00010002};
  CRP188 byCount(3723u * 30 + 4, TCFormat30fps);
  CRP188 byComponents(4, 3, 2, 1, TCFormat30fps);
  CRP188 byText(text, TCFormat30fps);
  CRP188 byWords(words, TCFormat30fps);
  for (const CRP188* tc : {&byCount, &byComponents, &byText, &byWords}) {
    EXPECT_TRUE(tc->IsValid());
    EXPECT_EQ(tc->GetFormat(), TCFormat30fps);
    EXPECT_STREQ(tc->GetRP188CString(), "01:02:03:04");
    const RP188_STRUCT regs = regsOf(*tc);
    EXPECT_EQ(regs.low, 0x30030004u);
    EXPECT_EQ(regs.high, 0x00010002u);
  }
}

TEST(Copy, CopiesEveryObservableField) {
  CRP188 original(RP188_STRUCT{0xAB020000, 0xDBC0B9A2, 0x45302A10}, TCFormat25fps);
  original.BinaryGroup(1);
  CRP188 copy(original);
  CRP188 assigned;
  assigned = original;
  for (CRP188* tc : {&copy, &assigned}) {
    EXPECT_TRUE(tc->IsValid());
    EXPECT_EQ(tc->GetFormat(), TCFormat25fps);
    EXPECT_STREQ(tc->GetRP188CString(), "10:20:30:12");
    const RP188_STRUCT regs = regsOf(*tc);
    EXPECT_EQ(regs.dbb, 0xAB020000u);
    EXPECT_EQ(regs.low, 0xDBC0B9A2u);
    EXPECT_EQ(regs.high, 0x45302A10u);
    EXPECT_TRUE(tc->GetInputFlag());
    EXPECT_TRUE(tc->IsColorFrame());
    EXPECT_TRUE(tc->GetVaricamFrameActive(0));
    EXPECT_STREQ(tc->GetRP188UserBitsCString(), "43 21 DC BA");
    bool b0 = false, b1 = false, b2 = false;
    tc->GetBFGBits(b0, b1, b2);
    EXPECT_TRUE(b0 && b1 && b2);
    EXPECT_TRUE(*tc == original);
  }
}

TEST(Copy, CopiesAreIndependent) {
  CRP188 original(100u, TCFormat24fps);
  CRP188 copy(original);
  copy.AddFrames(24);
  EXPECT_STREQ(original.GetRP188CString(), "00:00:04:04");
  EXPECT_STREQ(copy.GetRP188CString(), "00:00:05:04");
  original = copy;
  original = original;  // self-assignment keeps the value
  EXPECT_STREQ(original.GetRP188CString(), "00:00:05:04");
  CRP188 fresh;
  original = fresh;
  EXPECT_FALSE(original.IsValid());
  EXPECT_STREQ(original.GetRP188CString(), "");
}

TEST(Equality, ValidObjectIsNotEqualToANeverSetOne) {
  CRP188 valid(0u, TCFormat30fps);
  CRP188 neverSet;
  EXPECT_FALSE(valid == neverSet);
}

TEST(Equality, SameTimeInAnotherFormatIsEqual) {
  CRP188 a(10, 20, 30, 1, TCFormat30fps);
  CRP188 b(10, 20, 30, 1, TCFormat25fps);
  CRP188 c(10, 20, 30, 1, TCFormat60fpsDF);
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(b == a);
  EXPECT_TRUE(a == c);
  CRP188 d(11, 20, 30, 1, TCFormat30fps);
  EXPECT_FALSE(a == d);
}

// Kept on purpose: only the other object's validity counts, so an object
// that was never set equals a valid midnight.
TEST(Equality, OnlyTheOtherSideMustBeValid) {
  CRP188 neverSet;
  CRP188 midnight(0u, TCFormat30fps);
  EXPECT_TRUE(neverSet == midnight);
  EXPECT_FALSE(midnight == neverSet);
  EXPECT_FALSE(neverSet == neverSet);
}

}  // namespace

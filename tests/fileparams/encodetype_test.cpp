// SPDX-License-Identifier: MIT
// Tests of the encode-type families.
#include <gtest/gtest.h>

#include <string>

#include "fileparams.h"

namespace {

TEST(EncodeTypeFamilies, ProRes422IsZeroToThree) {
  CIsEncodeType is;
  for (uint32_t t = 0; t <= 3; ++t) EXPECT_TRUE(is.isEncodeTypeProRes422(t)) << t;
  for (uint32_t t : {4u, 7u, 8u, 9u, 0xFFFFFFFFu}) EXPECT_FALSE(is.isEncodeTypeProRes422(t)) << t;
}

TEST(EncodeTypeFamilies, DNxHDIsFourToSix) {
  CIsEncodeType is;
  for (uint32_t t = 4; t <= 6; ++t) EXPECT_TRUE(is.isEncodeTypeDNxHD(t)) << t;
  EXPECT_FALSE(is.isEncodeTypeDNxHD(3));
  EXPECT_FALSE(is.isEncodeTypeDNxHD(7));
  EXPECT_FALSE(is.isEncodeTypeDNxHD(0xFFFFFFFFu));
  EXPECT_FALSE(is.isEncodeTypeDNxHD(0));
}

TEST(EncodeTypeFamilies, OnlyProResAgainstDNxHDAreDifferentCodecs) {
  CIsEncodeType is;
  EXPECT_TRUE(is.areEncodeTypesDifferentCodecs(1, 5));
  EXPECT_TRUE(is.areEncodeTypesDifferentCodecs(5, 1));
  EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(1, 3));
  EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(4, 6));
  EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(7, 5));
  EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(9, 0));
  EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(0xFFFFFFFFu, 4));
}

// ProRes 4444 belongs to neither family, so it is never refused on codec grounds.
TEST(EncodeTypeFamilies, ProRes4444IsInNeitherFamily) {
  CIsEncodeType is;
  EXPECT_FALSE(is.isEncodeTypeProRes422(ENCODE_PRORES_4444));
  EXPECT_FALSE(is.isEncodeTypeDNxHD(ENCODE_PRORES_4444));
  for (uint32_t other = 0; other <= 9; ++other) EXPECT_FALSE(is.areEncodeTypesDifferentCodecs(7, other));
}

TEST(EncodeTypeFlag, NamesTheFamily) {
  CIsEncodeType is;
  std::string flag = "unchanged";
  EXPECT_TRUE(is.getEncodeTypeFlag(2, flag));
  EXPECT_EQ(flag, "PRORES_422");
  EXPECT_TRUE(is.getEncodeTypeFlag(6, flag));
  EXPECT_EQ(flag, "DNX_HD");
}

TEST(EncodeTypeFlag, LeavesTheFlagAloneOutsideBothFamilies) {
  CIsEncodeType is;
  std::string flag = "as it was";
  EXPECT_FALSE(is.getEncodeTypeFlag(8, flag));
  EXPECT_EQ(flag, "as it was");
  EXPECT_FALSE(is.getEncodeTypeFlag(7, flag));
  EXPECT_FALSE(is.getEncodeTypeFlag(0xFFFFFFFFu, flag));
  EXPECT_EQ(flag, "as it was");
}

TEST(EncodeTypeValues, MatchTheirNames) {
  EXPECT_EQ(ENCODE_PRORES_422, 0u);
  EXPECT_EQ(ENCODE_PRORES_422_HQ, 1u);
  EXPECT_EQ(ENCODE_PRORES_422_LT, 2u);
  EXPECT_EQ(ENCODE_PRORES_422_PROXY, 3u);
  EXPECT_EQ(ENCODE_PRORES_4444, 7u);
  EXPECT_EQ(ENCODE_UNCOMPRESSED_2VUY, 8u);
  EXPECT_EQ(ENCODE_UNCOMPRESSED_V210, 9u);
}

}  // namespace

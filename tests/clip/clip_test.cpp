// SPDX-License-Identifier: MIT
// Tests of the clip record: layout, the fresh state, take numbers, orderings, the playable filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "clip.h"

namespace {

Clip named(const std::string& name, int32_t modTime = 0) {
  Clip c;
  std::memcpy(c.name, name.c_str(), std::min(name.size() + 1, Clip::kNameSize));
  c.modTime = modTime;
  return c;
}

std::vector<std::string> names(const std::list<Clip>& clips) {
  std::vector<std::string> out;
  for (const Clip& c : clips) out.emplace_back(c.name);
  return out;
}

bool allZero(const void* p, std::size_t n) {
  const unsigned char* bytes = static_cast<const unsigned char*>(p);
  return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

// The record is a wire format shared between processes: every offset is fixed.
TEST(ClipLayout, RecordIs6536BytesWithFixedOffsets) {
  EXPECT_EQ(sizeof(Clip), 6536u);
  EXPECT_EQ(offsetof(Clip, name), 0u);
  EXPECT_EQ(offsetof(Clip, modTime), 4096u);
  EXPECT_EQ(offsetof(Clip, fourCC), 4100u);
  EXPECT_EQ(offsetof(Clip, width), 4108u);
  EXPECT_EQ(offsetof(Clip, height), 4112u);
  EXPECT_EQ(offsetof(Clip, videoLength), 4116u);
  EXPECT_EQ(offsetof(Clip, frameRate), 4120u);
  EXPECT_EQ(offsetof(Clip, scanMode), 4128u);
  EXPECT_EQ(offsetof(Clip, playable), 4132u);
  EXPECT_EQ(offsetof(Clip, attributes), 4133u);
  EXPECT_EQ(Clip::kStoredSize, 6533u);
  EXPECT_EQ(alignof(zev::media::MediaAttributes), 1u);
}

// Fields land in native byte order at their offsets: checked against bytes
// spelled out here for the machine the test runs on.
TEST(ClipLayout, IntegersAreStoredInNativeOrderAtTheirOffsets) {
  Clip c;
  c.width = 0x01020304;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&c);
  const uint16_t probe = 1;
  const bool little = *reinterpret_cast<const unsigned char*>(&probe) == 1;
  const unsigned char expectedLittle[4] = {0x04, 0x03, 0x02, 0x01};
  const unsigned char expectedBig[4] = {0x01, 0x02, 0x03, 0x04};
  EXPECT_EQ(0, std::memcmp(bytes + 4108, little ? expectedLittle : expectedBig, 4));
}

TEST(ClipFreshRecord, IsZeroThroughout) {
  Clip c;
  EXPECT_TRUE(allZero(&c, sizeof(c)));
  EXPECT_TRUE(allZero(&NULL_CLIP, sizeof(NULL_CLIP)));
}

TEST(ClipFreshRecord, NullClipIsUnplayable) { EXPECT_TRUE(unplayable(NULL_CLIP)); }

struct TakeCase {
  const char* name;
  int32_t take;
};

class ExtractTake : public ::testing::TestWithParam<TakeCase> {};

TEST_P(ExtractTake, ReadsTheDigitsAfterTheMarker) {
  EXPECT_EQ(Clip::extractTake(GetParam().name), GetParam().take) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    NamedExamples, ExtractTake,
    ::testing::Values(TakeCase{"A001_003.mov", 3},
                      TakeCase{"A001_C003.mov", 0},   // digits must follow the marker directly
                      TakeCase{"SHOT_TK12.mov", 12},  // "TK" wins over "_"
                      TakeCase{"TK7_B.mov", 7},       // "TK" is searched first although "_" comes later
                      TakeCase{"Clip.mov", -1}, TakeCase{"ABC_.mov", 0}, TakeCase{"R_2", 2},
                      TakeCase{"", 0},          // empty differs from "no marker" on purpose
                      TakeCase{"A.B_03", 3},    // first dot before the marker: read to the end
                      TakeCase{"XTKA.mov", 0},  // non-digits after "TK"
                      TakeCase{"ClipTK999.mov", 999}, TakeCase{"SC12ATK3.mov", 3},
                      TakeCase{"A_1_2.mov", 2},  // the last "_"
                      TakeCase{"A_ +7.mov", 7},  // strtol takes blanks and a sign
                      TakeCase{"A_-3.mov", -3}, TakeCase{"A_12abc.mov", 12}, TakeCase{"A_5.mov.bak", 5},
                      TakeCase{"TK", 0}, TakeCase{"_", 0}));

// strtol saturates at the 32-bit limits on the device; every build gives that answer.
TEST(ExtractTakeLimits, SaturatesAtThe32BitRangeLikeTheDevice) {
  EXPECT_EQ(Clip::extractTake("A_2147483647.mov"), INT32_MAX);
  EXPECT_EQ(Clip::extractTake("A_2147483648.mov"), INT32_MAX);
  EXPECT_EQ(Clip::extractTake("A_99999999999.mov"), INT32_MAX);
  EXPECT_EQ(Clip::extractTake("A_99999999999999999999999.mov"), INT32_MAX);
  EXPECT_EQ(Clip::extractTake("A_-2147483648.mov"), INT32_MIN);
  EXPECT_EQ(Clip::extractTake("A_-99999999999.mov"), INT32_MIN);
}

TEST(ExtractTakeLimits, HandlesVeryLongNames) {
  std::string name(100000, 'x');
  name += "TK42.mov";
  EXPECT_EQ(Clip::extractTake(name), 42);
  EXPECT_EQ(Clip::extractTake(std::string(100000, 'x')), -1);
}

TEST(CompareByTake, SortsDescendingByTake) {
  std::list<Clip> clips{named("A_2.mov"), named("B.mov"), named("C_5.mov")};
  clips.sort(Clip::compare_clips_by_take);
  EXPECT_EQ(names(clips), (std::vector<std::string>{"C_5.mov", "A_2.mov", "B.mov"}));
}

TEST(CompareByTake, KeepsTheOrderOfEqualTakes) {
  std::list<Clip> clips{named("a_1.mov"), named("b.mov"), named("c_1.mov"), named("d.mov"), named("e_1.mov")};
  clips.sort(Clip::compare_clips_by_take);
  EXPECT_EQ(names(clips), (std::vector<std::string>{"a_1.mov", "c_1.mov", "e_1.mov", "b.mov", "d.mov"}));
}

TEST(CompareByTake, ReadsANameThatFillsItsWholeField) {
  // 4096 name bytes, no terminator; the bytes that follow (modTime) must not be read.
  Clip full;
  std::memset(full.name, 'A', Clip::kNameSize);
  full.name[Clip::kNameSize - 2] = '_';
  full.name[Clip::kNameSize - 1] = '7';
  std::memcpy(&full.modTime, "9999", 4);
  Clip six = named("X_6.mov");
  EXPECT_TRUE(Clip::compare_clips_by_take(full, six));
  EXPECT_FALSE(Clip::compare_clips_by_take(six, full));
  Clip eight = named("X_8.mov");
  EXPECT_TRUE(Clip::compare_clips_by_take(eight, full));
}

TEST(CompareByTime, SortsOldestFirstAndKeepsEqualTimesInOrder) {
  std::list<Clip> clips{named("late", 300), named("first-of-two", 100), named("early", 50),
                        named("second-of-two", 100)};
  clips.sort(Clip::compare_clips_by_time);
  EXPECT_EQ(names(clips), (std::vector<std::string>{"early", "first-of-two", "second-of-two", "late"}));
}

TEST(CompareByTime, ComparesSigned) {
  EXPECT_TRUE(Clip::compare_clips_by_time(named("a", -1), named("b", 0)));
  EXPECT_FALSE(Clip::compare_clips_by_time(named("a", 5), named("b", 5)));
}

TEST(Unplayable, FollowsThePlayableByte) {
  Clip c;
  EXPECT_TRUE(unplayable(c));
  c.playable = true;
  EXPECT_FALSE(unplayable(c));
  // A byte from shared memory other than 0 or 1 is not "playable".
  const unsigned char two = 2;
  std::memcpy(&c.playable, &two, 1);
  EXPECT_TRUE(unplayable(c));
}

TEST(Unplayable, WorksAsARemoveIfPredicate) {
  std::list<Clip> clips{named("a"), named("b"), named("c")};
  std::next(clips.begin())->playable = true;
  clips.remove_if(unplayable);
  EXPECT_EQ(names(clips), (std::vector<std::string>{"b"}));
}

}  // namespace

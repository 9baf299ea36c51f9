// SPDX-License-Identifier: MIT
// Tests of clip names and takes: the four schemas, take rules, slave names, rollover names.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "clipfinder_support.h"

namespace {

using clipfinder_test::clip;
using clipfinder_test::RecordingParams;
using clipfinder_test::UniqueCaches;

class Naming : public ::testing::Test {
 protected:
  Naming() : finder(&params, caches.config), cache(caches.config) {}
  void onMedia(std::list<Clip> clips) { cache.WriteClipCacheToSharedMemory(clips); }
  void slave(const std::string& master) {
    params.setParam(eParamLinkMode, 1);
    params.setParam(eParamLinkRole, 0);
    params.setParam(eParamLinkClipName, 0);
    params.setParamString(eParamMasterClipName, master);
  }
  std::string base() {
    std::string name;
    EXPECT_EQ(finder.buildClipNameBase(name, false), 0);
    return name;
  }

  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder;
  zev::media::MediaCache cache;
};

TEST_F(Naming, CalculateNextTakeKeepsAheadAndStopsAt999) {
  EXPECT_EQ(finder.calculateNextTake(eParamTake, 5, 3), 5u);
  EXPECT_EQ(finder.calculateNextTake(eParamTake, 3, 3), 4u);
  EXPECT_EQ(finder.calculateNextTake(eParamTake, 998, 998), 999u);
  EXPECT_EQ(finder.calculateNextTake(eParamTake, 1200, 0), 999u);
  // The identifier is not consulted.
  EXPECT_EQ(finder.calculateNextTake(eParamCustomTakeNumber, 3, 3), 4u);
}

TEST_F(Naming, StandardNameFromSceneNumberLetterAndTake) {
  params.setParam(eParamClipNameScene, 1);
  params.setParam(eParamClipNameNumber, 12);
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamClipNameLetter, 'A');
  params.setParam(eParamTake, 3);
  EXPECT_EQ(base(), "SC12ATK3");
  std::string name;
  EXPECT_EQ(finder.buildClipNameBase(name, true), 0);
  EXPECT_EQ(name, "SC12ATK4");
  EXPECT_EQ(params.getParam(eParamTake), 3u);  // building a name never changes the take
}

TEST_F(Naming, StandardNameWithEverythingOff) {
  params.setParam(eParamClipNameScene, 0);
  params.setParam(eParamClipNameNumber, 0);
  params.setParam(eParamClipNameLetterOn, 0);
  params.setParam(eParamTake, 1);
  EXPECT_EQ(base(), "ClipTK1");
  std::string name;
  EXPECT_EQ(finder.buildClipName(name, nullptr), 0);
  EXPECT_EQ(name, "ClipTK1.mov");
}

TEST_F(Naming, CustomNameWithAndWithoutTake) {
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, "Interview");
  params.setParam(eParamCustomTake, 1);
  params.setParam(eParamCustomTakeNumber, 4);
  EXPECT_EQ(base(), "Interview_4");
  params.setParam(eParamCustomTake, 0);
  EXPECT_EQ(base(), "Interview");
}

TEST_F(Naming, CameraNameWinsOverCustomAndStandard) {
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, "Interview");
  for (uint32_t source : {1u, 2u, 3u}) {
    params.setParam(eParamClipNameSource, source);
    params.setParamString(eParamREDClipName, "A001_C003_0725XY");
    EXPECT_EQ(base(), "A001_C003_0725XY") << source;
  }
  params.setParam(eParamClipNameSource, 4);
  EXPECT_EQ(base(), "Interview");
  params.setParam(eParamClipNameSource, 0);
  EXPECT_EQ(base(), "Interview");
}

TEST_F(Naming, InvalidCameraNameFallsThroughWithItsMessage) {
  params.setParam(eParamClipNameSource, 2);
  params.setParamString(eParamREDClipName, "InvalidRED");
  params.setParam(eParamTake, 7);
  testing::internal::CaptureStderr();
  EXPECT_EQ(base(), "ClipTK7");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\nbuildClipNameBase(). clipName == INVALID_RED_DATA_NAME\n");
}

TEST_F(Naming, SlaveWinsOverEverything) {
  params.setParam(eParamClipNameSource, 1);
  params.setParamString(eParamREDClipName, "A001_C003_0725XY");
  slave("B002TK9");
  EXPECT_EQ(base(), "B002TK9");
}

TEST_F(Naming, SlaveWithTheMastersNameOnMediaTakesTheNextTake) {
  slave("A001TK3");
  onMedia({clip("A001TK3.mov"), clip("A001TK5.mov"), clip("B001TK9.mov")});
  EXPECT_EQ(base(), "A001TK6");
}

TEST_F(Naming, SlaveWithoutTheMastersNameOnMediaUsesIt) {
  slave("A001TK3");
  onMedia({clip("A001TK5.mov")});
  EXPECT_EQ(base(), "A001TK3");
}

TEST_F(Naming, SlaveWithAnUntakenMasterNameAppendsAnUnderscore) {
  slave("Shot");
  onMedia({clip("Shot.mov")});
  EXPECT_EQ(base(), "Shot_1");
}

TEST_F(Naming, SlaveUnderscoreNamesCountTheHighestUnderscoreTake) {
  slave("Shot_2");
  onMedia({clip("Shot_2.mov"), clip("Shot_4.mov"), clip("Other_8.mov")});
  EXPECT_EQ(base(), "Shot_5");
}

TEST_F(Naming, SlaveTakesStopAt999) {
  slave("A001TK999");
  onMedia({clip("A001TK999.mov")});
  std::string name = "x";
  EXPECT_EQ(finder.buildClipNameBase(name, false), -1);
  EXPECT_EQ(name, "");

  slave("A001TK1000");
  name = "x";
  EXPECT_EQ(finder.buildClipNameBase(name, false), -1);
  EXPECT_EQ(name, "");

  slave("A001TK999");  // not on the media: used as it is
  onMedia({});
  EXPECT_EQ(base(), "A001TK999");

  slave("A001TK5");  // on the media next to take 999
  onMedia({clip("A001TK5.mov"), clip("A001TK999.mov")});
  EXPECT_EQ(finder.buildClipNameBase(name, false), -1);
  EXPECT_EQ(name, "A001TK999");
}

TEST_F(Naming, TakeAt999WithThatTakeOnMediaIsExhausted) {
  params.setParam(eParamTake, 999);
  std::list<Clip> clips{clip("ClipTK999.mov")};
  std::string name;
  EXPECT_EQ(finder.buildClipName(name, &clips), -1);
  EXPECT_EQ(name, "ClipTK999");
}

TEST_F(Naming, TakeEqualToTheHighestOnMediaBelow999StillBuilds) {
  for (uint32_t take : {998u, 1000u}) {
    params.setParam(eParamTake, take);
    std::list<Clip> clips{clip("ClipTK" + std::to_string(take) + ".mov")};
    std::string name;
    EXPECT_EQ(finder.buildClipName(name, &clips), 0) << take;
    EXPECT_EQ(name, "ClipTK" + std::to_string(take) + ".mov");
  }
}

TEST_F(Naming, ClipMatchesCurrentSchemaUpToTheToken) {
  EXPECT_TRUE(finder.clipMatchesCurrentSchema("SC1TK2.mov", "SC1TK7", false));
  EXPECT_FALSE(finder.clipMatchesCurrentSchema("SC12TK2.mov", "SC1TK7", false));
  EXPECT_FALSE(finder.clipMatchesCurrentSchema("SC1_2.mov", "SC1TK7", false));
  EXPECT_TRUE(finder.clipMatchesCurrentSchema("Shot_3.mov", "Shot_1", true));
  EXPECT_TRUE(finder.clipMatchesCurrentSchema("TK3.mov", "TK9", false));  // token at 0 in both
  EXPECT_FALSE(finder.clipMatchesCurrentSchema("Shot.mov", "Shot", true));
}

TEST_F(Naming, EnsureNextTakeMovesPastMatchingTakesOnly) {
  params.setParam(eParamTake, 2);
  std::list<Clip> clips{clip("ClipTK4.mov"), clip("ClipTK2.mov"), clip("SC1TK50.mov")};
  finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
  EXPECT_EQ(params.getParam(eParamTake), 5u);

  params.setParam(eParamTake, 9);  // already ahead: unchanged
  finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
  EXPECT_EQ(params.getParam(eParamTake), 9u);

  params.setParam(eParamTake, 999);  // above 998: unchanged
  std::list<Clip> high{clip("ClipTK999.mov")};
  finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(high);
  EXPECT_EQ(params.getParam(eParamTake), 999u);

  params.setParam(eParamTake, 998);  // no bound at 999 here
  std::list<Clip> over{clip("ClipTK1200.mov")};
  finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(over);
  EXPECT_EQ(params.getParam(eParamTake), 1201u);
}

TEST_F(Naming, EnsureNextTakeUsesTheCustomTakeWithACustomName) {
  params.setParam(eParamCustomClipName, 1);
  params.setParam(eParamCustomTake, 1);
  params.setParamString(eParamCustomClipNameText, "Interview");
  params.setParam(eParamCustomTakeNumber, 1);
  std::list<Clip> clips{clip("Interview_6.mov"), clip("ClipTK30.mov")};
  finder.ensureNextRecordedTakeIsGreaterThanAnyOnMedia(clips);
  EXPECT_EQ(params.getParam(eParamCustomTakeNumber), 7u);
  EXPECT_EQ(params.getParam(eParamTake), 1u);
}

TEST_F(Naming, IncrementTakeMovesTheTakeInUse) {
  params.setParam(eParamTake, 998);
  EXPECT_EQ(finder.incrementTakeIfAppropriate(), 1);
  EXPECT_EQ(params.getParam(eParamTake), 999u);
  EXPECT_EQ(finder.incrementTakeIfAppropriate(), 1);
  EXPECT_EQ(params.getParam(eParamTake), 1000u);  // no bound here
}

TEST_F(Naming, IncrementTakeLeavesACustomNameWithoutTakeAlone) {
  params.setParam(eParamCustomClipName, 1);
  params.setParam(eParamCustomTake, 0);
  params.setParam(eParamTake, 4);
  params.setParam(eParamCustomTakeNumber, 4);
  EXPECT_EQ(finder.incrementTakeIfAppropriate(), 0);
  EXPECT_EQ(params.getParam(eParamTake), 4u);
  EXPECT_EQ(params.getParam(eParamCustomTakeNumber), 4u);
}

TEST_F(Naming, OverwriteAndCustomTakeRules) {
  EXPECT_FALSE(finder.allowOverwriteOfExistingClips());
  EXPECT_FALSE(finder.useCustomClipTake(false));
  EXPECT_FALSE(finder.useCustomClipTake(true));
  slave("M");
  EXPECT_TRUE(finder.isSlaveUsingMasterClipName());
  EXPECT_TRUE(finder.allowOverwriteOfExistingClips());
  EXPECT_TRUE(finder.useCustomClipTake(false));
  params.setParam(eParamLinkRole, 1);
  EXPECT_FALSE(finder.isSlaveUsingMasterClipName());
  params.setParam(eParamCustomClipName, 1);
  params.setParam(eParamCustomTake, 0);
  EXPECT_TRUE(finder.allowOverwriteOfExistingClips());
  params.setParam(eParamCustomTake, 1);
  EXPECT_FALSE(finder.allowOverwriteOfExistingClips());
  EXPECT_TRUE(finder.useCustomClipTake(false));
}

TEST_F(Naming, RedMetaDataFormatsTheCameraName) {
  EXPECT_EQ(finder.SetREDMetaData('A', 1, 'C', 3, 725, 'X', 'Y'), "A001_C003_0725XY");
  std::string stored;
  params.getParamString(eParamREDClipName, stored);
  EXPECT_EQ(stored, "A001_C003_0725XY");
  // The "0" is a literal, not a pad.
  EXPECT_EQ(finder.SetREDMetaData('B', 12, 'D', 4567, 1225, 'Q', 'Z'), "B012_D4567_01225QZ");
  // At most 18 characters.
  EXPECT_EQ(finder.SetREDMetaData('B', 123456, 'D', 4567, 1225, 'Q', 'Z'), "B123456_D4567_0122");
}

TEST_F(Naming, RolloverIndexAddsOrIncrementsThePlus) {
  std::string name = "A.mov", next;
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(name, "A+0.mov");
  EXPECT_EQ(next, "A+1.mov");
  name = "A+1.mov";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(next, "A+2.mov");
  name = "A+x.mov";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(next, "A+1.mov");
  name = "A+9.mov.bak";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(next, "A+10.mov.bak");
}

// The take is the number after the last "TK", or else after the last "_";
// an empty name has take 0, and a name with neither -1.
TEST_F(Naming, TakeOfANameFollowsTKOrTheLastUnderscore) {
  EXPECT_EQ(Clip::extractTake(""), 0);
  EXPECT_EQ(Clip::extractTake("Interview_4.mov"), 4);
  EXPECT_EQ(Clip::extractTake("A_B_12.mov"), 12);
  EXPECT_EQ(Clip::extractTake("SC12ATK7.mov"), 7);
  EXPECT_EQ(Clip::extractTake("Clip.mov"), -1);
}

// The index is read with errno cleared first, so errno afterwards is the
// reader's own: 0 for an index that fits, ERANGE for one past 64 bits
// (which saturates at 2^32 - 1).
TEST_F(Naming, RolloverIndexLeavesTheReadersErrno) {
  std::string name = "A+7.mov", next;
  errno = EINVAL;
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(next, "A+8.mov");
  name = "A+" + std::string(30, '9') + ".mov";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(next, "A+0.mov");
}

TEST_F(Naming, RolloverIndexRefusesNamesWithoutAUsablePlace) {
  std::string name = "A+1", next = "unchanged";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), -1);
  EXPECT_EQ(next, "unchanged");
  name = "A.b+1";
  EXPECT_EQ(finder.getClipNameWithIncrementedRolloverIndex(name, next), -1);
  EXPECT_EQ(next, "unchanged");
}

// Kept as the device has it: a name with neither "+" nor "." throws.
TEST_F(Naming, RolloverIndexOfANameWithNeitherPlusNorDotThrows) {
  std::string name = "A", next;
  try {
    finder.getClipNameWithIncrementedRolloverIndex(name, next);
    FAIL() << "expected std::out_of_range";
  } catch (const std::out_of_range& e) {
    EXPECT_EQ(std::string(e.what()).rfind("basic_string::substr", 0), 0u) << e.what();
  }
}

// ---- codes that are no characters

// Letter code 0 used to put a NUL into the name ("Clip\0TK1.mov", whose C
// string is "Clip"). A letter code that is not a printable character is
// left out, with a line on standard error, in every standard name.
TEST_F(Naming, LetterCodeZeroIsLeftOut) {
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamClipNameLetter, 0);
  params.setParam(eParamTake, 1);
  testing::internal::CaptureStderr();
  std::string name;
  EXPECT_EQ(finder.buildClipName(name, nullptr), 0);
  EXPECT_EQ(name, "ClipTK1.mov");
  EXPECT_EQ(name.size(), std::strlen(name.c_str()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "buildClipNameBase(). clip name letter 0 is not a printable character; left out\n");
}

TEST_F(Naming, LettersThatAreNoPrintableCharacterAreLeftOut) {
  params.setParam(eParamClipNameScene, 1);
  params.setParam(eParamClipNameNumber, 12);
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamTake, 3);
  const struct {
    uint32_t letter;
    const char* name;
  } cases[] = {
      {0, "SC12TK3"},    {1, "SC12TK3"},    {'\n', "SC12TK3"}, {0x1F, "SC12TK3"},  {0x7F, "SC12TK3"},
      {0x80, "SC12TK3"}, {0xFF, "SC12TK3"}, {'/', "SC12TK3"},  {0x100, "SC12TK3"}, {' ', "SC12 TK3"},
      {'!', "SC12!TK3"}, {'A', "SC12ATK3"}, {'Z', "SC12ZTK3"}, {'~', "SC12~TK3"},  {0x141, "SC12ATK3"},
  };
  for (const auto& c : cases) {
    params.setParam(eParamClipNameLetter, c.letter);
    testing::internal::CaptureStderr();
    EXPECT_EQ(base(), c.name) << "letter " << c.letter;
    testing::internal::GetCapturedStderr();
  }
}

// The same for the other schemas: control characters in the custom, camera
// and master names are removed, so the take and extension always follow.
TEST_F(Naming, ControlCharactersLeaveEverySchemasName) {
  params.setParam(eParamTake, 2);
  testing::internal::CaptureStderr();
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, std::string("Inter\0vi\tew\n", 13));
  params.setParam(eParamCustomTake, 1);
  params.setParam(eParamCustomTakeNumber, 4);
  EXPECT_EQ(base(), "Interview_4");
  std::string name;
  EXPECT_EQ(finder.buildClipName(name, nullptr), 0);
  EXPECT_EQ(name, "Interview_4.mov");

  params.setParam(eParamClipNameSource, 1);
  params.setParamString(eParamREDClipName, std::string("A001\x01_C003\0_0725XY\x7F", 20));
  EXPECT_EQ(base(), "A001_C003_0725XY");
  EXPECT_EQ(finder.buildClipName(name, nullptr), 0);
  EXPECT_EQ(name, "A001_C003_0725XY.mov");

  // A camera letter 0 formats as nothing at all (the text ends there).
  params.setParamString(eParamREDClipName, finder.SetREDMetaData('A', 1, 0, 3, 725, 'X', 'Y'));
  EXPECT_EQ(base(), "A001_");

  params.setParam(eParamClipNameSource, 0);
  params.setParam(eParamCustomClipName, 0);
  slave(std::string("A0\r01TK3", 8));
  EXPECT_EQ(base(), "A001TK3");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("buildClipNameBase(). control characters removed from the clip name\n"),
            std::string::npos);
}

// The notice comes once for each name that lost control characters, from
// each schema that can bring one, and never for a name that had none.
TEST_F(Naming, ControlCharacterNoticeOnlyWhenSomethingWasDropped) {
  const std::string notice = "buildClipNameBase(). control characters removed from the clip name\n";
  auto stderrOf = [&](std::string expected) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(base(), expected);
    return testing::internal::GetCapturedStderr();
  };
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, "Interview");
  EXPECT_EQ(stderrOf("Interview"), "");
  params.setParamString(eParamCustomClipNameText, "Inter\tview");
  EXPECT_EQ(stderrOf("Interview"), notice);

  params.setParam(eParamClipNameSource, 2);
  params.setParamString(eParamREDClipName, "A001_C003");
  EXPECT_EQ(stderrOf("A001_C003"), "");
  params.setParamString(eParamREDClipName, "A001\x1B_C003");
  EXPECT_EQ(stderrOf("A001_C003"), notice);

  params.setParam(eParamClipNameSource, 0);
  params.setParam(eParamCustomClipName, 0);
  slave("A001TK3");
  EXPECT_EQ(stderrOf("A001TK3"), "");
  slave("A001\x7FTK3");
  EXPECT_EQ(stderrOf("A001TK3"), notice);
}

// A parameter service that cannot give any integer (getParamValue fails,
// and so getParam reads 0): the standard name is built from zeros, "Clip"
// with no number or letter, take 0, and nothing is said.
TEST(NamingUnreadable, IntegersThatCannotBeReadCountAsZero) {
  struct UnreadableIntegers : MemoryParamStore {
    int getParamValue(eParam_t, uint32_t&) override { return 0; }
  } params;
  UniqueCaches caches;
  ClipFinder finder(&params, caches.config);
  std::string name;
  testing::internal::CaptureStderr();
  EXPECT_EQ(finder.buildClipNameBase(name, false), 0);
  EXPECT_EQ(name, "ClipTK0");
  EXPECT_EQ(finder.buildClipNameBase(name, true), 0);
  EXPECT_EQ(name, "ClipTK1");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace

// SPDX-License-Identifier: MIT
// Tests of the parameter service: the identifier table, the in-memory store and the file store.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "paramstore.h"
#include "test_support.h"

namespace {

using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;

TEST(ParamIdentifiers, HaveTheDeviceValues) {
  EXPECT_EQ(eParamMediaBusy, 0x7B01030Au);
  EXPECT_EQ(eParamMediaDir, 0x7B01010Au);
  EXPECT_EQ(eParamEncodeType, 0x0E01000Au);
  EXPECT_EQ(eParamPlaybackMode, 0x0F01000Au);
  EXPECT_EQ(eParamCurrentPlaylist, 0x0F03000Au);
  EXPECT_EQ(eParamClipNameSource, 0x0D01000Au);
  EXPECT_EQ(eParamREDClipName, 0x7D04040Au);
  EXPECT_EQ(eParamMasterClipName, 0x7D04010Au);
  EXPECT_EQ(eParamClipNameScene, 0x1102000Au);
  EXPECT_EQ(eParamClipNameNumber, 0x1103000Au);
  EXPECT_EQ(eParamClipNameLetterOn, 0x1104000Au);
  EXPECT_EQ(eParamClipNameLetter, 0x1105000Au);
  EXPECT_EQ(eParamTake, 0x1108000Au);
  EXPECT_EQ(eParamCustomClipName, 0x1301000Au);
  EXPECT_EQ(eParamCustomClipNameText, 0x1302000Au);
  EXPECT_EQ(eParamCustomTake, 0x1303000Au);
  EXPECT_EQ(eParamCustomTakeNumber, 0x1304000Au);
  EXPECT_EQ(eParamLinkMode, 0x23040000u);
  EXPECT_EQ(eParamLinkRole, 0x23050000u);
  EXPECT_EQ(eParamLinkClipName, 0x1601000Au);
  EXPECT_EQ(knownParams().size(), 20u);
}

// Every parameter's console name, kind and default, as the stores give
// them to a process that never set one: the integers read as their default,
// the texts as theirs ("InvalidRED" for the camera's name, else empty).
TEST(ParamIdentifiers, EveryParameterHasItsNameKindAndDefault) {
  struct Expected {
    eParam_t id;
    const char* name;
    bool isText;
    uint32_t value;
    const char* text;
  };
  const Expected table[] = {
      {eParamLinkMode, "link-mode", false, 0, ""},
      {eParamLinkRole, "link-role", false, 1, ""},
      {eParamClipNameSource, "clip-name-source", false, 0, ""},
      {eParamEncodeType, "encode-type", false, 1, ""},
      {eParamPlaybackMode, "playback-mode", false, 0, ""},
      {eParamCurrentPlaylist, "current-playlist", true, 0, ""},
      {eParamClipNameScene, "clip-name-scene", false, 0, ""},
      {eParamClipNameNumber, "clip-name-number", false, 0, ""},
      {eParamClipNameLetterOn, "clip-name-letter-on", false, 0, ""},
      {eParamClipNameLetter, "clip-name-letter", false, 'A', ""},
      {eParamTake, "take", false, 1, ""},
      {eParamCustomClipName, "custom-clip-name", false, 0, ""},
      {eParamCustomClipNameText, "custom-clip-name-text", true, 0, ""},
      {eParamCustomTake, "custom-take", false, 0, ""},
      {eParamCustomTakeNumber, "custom-take-number", false, 1, ""},
      {eParamLinkClipName, "link-clip-name", false, 1, ""},
      {eParamMediaDir, "media-dir", true, 0, ""},
      {eParamMediaBusy, "media-busy", false, 2, ""},
      {eParamMasterClipName, "master-clip-name", true, 0, ""},
      {eParamREDClipName, "red-clip-name", true, 0, "InvalidRED"},
  };
  ASSERT_EQ(knownParams().size(), sizeof table / sizeof table[0]);
  TempDir dir;
  MemoryParamStore memory;
  FileParamStore file(dir.file("none.json"));
  for (const Expected& e : table) {
    const ParamInfo* info = findParam(e.id);
    ASSERT_NE(info, nullptr) << e.name;
    EXPECT_STREQ(info->name, e.name);
    EXPECT_EQ(info->isText, e.isText) << e.name;
    EXPECT_EQ(findParam(e.name), info) << e.name;
    for (ParamStore* store : {static_cast<ParamStore*>(&memory), static_cast<ParamStore*>(&file)}) {
      EXPECT_EQ(store->isTextParam(e.id), e.isText) << e.name;
      EXPECT_TRUE(store->hasParam(e.id)) << e.name;
      uint32_t value = 12345;
      std::string text = "unchanged";
      if (e.isText) {
        EXPECT_EQ(store->getParamValue(e.id, value), 0) << e.name;
        EXPECT_EQ(value, 12345u) << e.name;
        EXPECT_EQ(store->getParamString(e.id, text), 1) << e.name;
        EXPECT_EQ(text, e.text) << e.name;
      } else {
        EXPECT_EQ(store->getParamValue(e.id, value), 1) << e.name;
        EXPECT_EQ(value, e.value) << e.name;
        EXPECT_EQ(store->getParam(e.id), e.value) << e.name;
        EXPECT_EQ(store->getParamString(e.id, text), 0) << e.name;
        EXPECT_EQ(text, "unchanged") << e.name;
      }
    }
  }
}

// The memory store keeps what was set last, whatever the table says: a
// number set under a text parameter makes it a number there, and text
// under an integer parameter makes it text.
TEST(MemoryParams, TheKindOfAParameterIsTheKindSetLast) {
  MemoryParamStore store;
  ASSERT_EQ(store.setParam(eParamMediaDir, 5), 1);
  EXPECT_FALSE(store.isTextParam(eParamMediaDir));
  EXPECT_EQ(store.getParam(eParamMediaDir), 5u);
  std::string text = "unchanged";
  EXPECT_EQ(store.getParamString(eParamMediaDir, text), 0);
  EXPECT_EQ(text, "unchanged");
  ASSERT_EQ(store.setParamString(eParamTake, "seven"), 1);
  EXPECT_TRUE(store.isTextParam(eParamTake));
  EXPECT_EQ(store.getParamString(eParamTake, text), 1);
  EXPECT_EQ(text, "seven");
}

// Zero and the largest 32-bit value are integers a file may hold; a
// negative, fractional or larger number is not one and reads as the default.
TEST(FileParams, IntegerValuesAtTheirBounds) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  FileParamStore store(path);
  writeFile(path,
            "{\"take\": 0, \"clip-name-number\": 4294967295, \"custom-take-number\": 4294967296,"
            " \"encode-type\": -1, \"clip-name-letter\": 66.5}\n");
  EXPECT_EQ(store.getParam(eParamTake), 0u);
  EXPECT_EQ(store.getParam(eParamClipNameNumber), 4294967295u);
  EXPECT_EQ(store.getParam(eParamCustomTakeNumber), 1u);
  EXPECT_EQ(store.getParam(eParamEncodeType), 1u);
  EXPECT_EQ(store.getParam(eParamClipNameLetter), static_cast<uint32_t>('A'));
}

TEST(ParamIdentifiers, AreFoundByNameHexOrDecimal) {
  ASSERT_NE(findParam("take"), nullptr);
  EXPECT_EQ(findParam("take")->id, eParamTake);
  ASSERT_NE(findParam("0x1108000A"), nullptr);
  EXPECT_EQ(findParam("0x1108000A")->id, eParamTake);
  ASSERT_NE(findParam("285736970"), nullptr);  // 0x1108000A in decimal
  EXPECT_EQ(findParam("285736970")->id, eParamTake);
  EXPECT_EQ(findParam("media-dir")->id, eParamMediaDir);
  EXPECT_TRUE(findParam("media-dir")->isText);
  EXPECT_EQ(findParam("no-such-param"), nullptr);
  EXPECT_EQ(findParam(""), nullptr);
  EXPECT_EQ(findParam("0x123"), nullptr);
  EXPECT_EQ(findParam("-1"), nullptr);
  EXPECT_EQ(findParam("0x1108000A0"), nullptr);
}

// The same behaviour is asked of both stores.
class Stores : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (std::string(GetParam()) == "memory")
      store.reset(new MemoryParamStore);
    else
      store.reset(new FileParamStore(dir.file("params.json")));
  }
  TempDir dir;
  std::unique_ptr<ParamStore> store;
};

TEST_P(Stores, UnsetParametersReadAsTheirDefaults) {
  EXPECT_EQ(store->getParam(eParamTake), 1u);
  EXPECT_EQ(store->getParam(eParamMediaBusy), 2u);
  EXPECT_EQ(store->getParam(eParamClipNameLetter), static_cast<uint32_t>('A'));
  EXPECT_EQ(store->getParam(eParamClipNameScene), 0u);
  std::string text = "unchanged";
  EXPECT_EQ(store->getParamString(eParamREDClipName, text), 1);
  EXPECT_EQ(text, "InvalidRED");
  EXPECT_EQ(store->getParamString(eParamMediaDir, text), 1);
  EXPECT_EQ(text, "");
  EXPECT_EQ(store->getParam(static_cast<eParam_t>(0x12345678)), 0u);
}

TEST_P(Stores, KeepsWhatWasSet) {
  EXPECT_EQ(store->setParam(eParamTake, 42), 1);
  EXPECT_EQ(store->setParamString(eParamMediaDir, "/media/ZEV/card1"), 1);
  EXPECT_EQ(store->setParam(eParamEncodeType, 0xFFFFFFFFu), 1);
  EXPECT_EQ(store->getParam(eParamTake), 42u);
  uint32_t value = 0;
  EXPECT_EQ(store->getParamValue(eParamEncodeType, value), 1);
  EXPECT_EQ(value, 0xFFFFFFFFu);
  std::string text;
  EXPECT_EQ(store->getParamString(eParamMediaDir, text), 1);
  EXPECT_EQ(text, "/media/ZEV/card1");
}

TEST_P(Stores, RefusesReadingTextAsANumberAndANumberAsText) {
  uint32_t value = 7;
  EXPECT_EQ(store->getParamValue(eParamMediaDir, value), 0);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(store->getParam(eParamMediaDir), 0u);  // a value that cannot be read is 0
  std::string text = "unchanged";
  EXPECT_EQ(store->getParamString(eParamTake, text), 0);
  EXPECT_EQ(text, "unchanged");
  EXPECT_TRUE(store->isTextParam(eParamMediaDir));
  EXPECT_FALSE(store->isTextParam(eParamTake));
}

TEST_P(Stores, KeepsParametersItDoesNotKnow) {
  const eParam_t unknown = static_cast<eParam_t>(0x0A0B0C0D);
  // Not known and never set: no value, read as 0 or the empty text.
  EXPECT_FALSE(store->hasParam(unknown));
  EXPECT_FALSE(store->isTextParam(unknown));
  EXPECT_EQ(store->getParam(unknown), 0u);
  EXPECT_EQ(store->setParam(unknown, 9), 1);
  EXPECT_TRUE(store->hasParam(unknown));
  EXPECT_EQ(store->getParam(unknown), 9u);
  EXPECT_EQ(store->setParamString(unknown, "nine"), 1);
  EXPECT_TRUE(store->isTextParam(unknown));
  std::string text;
  EXPECT_EQ(store->getParamString(unknown, text), 1);
  EXPECT_EQ(text, "nine");
}

INSTANTIATE_TEST_SUITE_P(BothStores, Stores, ::testing::Values("memory", "file"));

TEST(FileParams, SeparateStoresOnOneFileSeeEachOthersChanges) {
  TempDir dir;
  FileParamStore a(dir.file("p.json"));
  FileParamStore b(dir.file("p.json"));
  a.setParam(eParamTake, 5);
  EXPECT_EQ(b.getParam(eParamTake), 5u);
  b.setParamString(eParamCustomClipNameText, "Interview");
  std::string text;
  a.getParamString(eParamCustomClipNameText, text);
  EXPECT_EQ(text, "Interview");
}

TEST(FileParams, WritesReadableJsonWithNamedKeys) {
  TempDir dir;
  FileParamStore store(dir.file("p.json"));
  store.setParam(eParamTake, 12);
  store.setParamString(eParamMediaDir, "/media/ZEV");
  store.setParam(static_cast<eParam_t>(0x0A0B0C0D), 3);
  const std::string content = readFile(dir.file("p.json"));
  EXPECT_NE(content.find("\"take\":\t12"), std::string::npos) << content;
  EXPECT_NE(content.find("\"media-dir\":\t\"/media/ZEV\""), std::string::npos) << content;
  EXPECT_NE(content.find("\"0x0A0B0C0D\":\t3"), std::string::npos) << content;
}

// A write gives back the text it printed the file from: 200 writes of a
// file some 2 KB long leave the heap as they found it (one text kept per
// write would be 400 KB).
TEST(FileParams, WritesLeaveNoHeapMemoryBehind) {
  TempDir dir;
  FileParamStore store(dir.file("p.json"));
  ASSERT_EQ(store.setParamString(eParamCustomClipNameText, std::string(2000, 'x')), 1);
  ASSERT_EQ(store.setParam(eParamMediaBusy, 1), 1);  // whatever the C library sets up once is set up
  const std::size_t before = vorta_test::heapInUse();
  for (uint32_t i = 0; i < 200; ++i) ASSERT_EQ(store.setParam(eParamMediaBusy, i % 2), 1);
  const std::size_t after = vorta_test::heapInUse();
  EXPECT_LT(after, before + 4096) << "200 writes kept " << static_cast<long long>(after - before) << " bytes";
  EXPECT_EQ(readFile(dir.file("p.json")), "{\n\t\"custom-clip-name-text\":\t\"" + std::string(2000, 'x') +
                                              "\",\n\t\"media-busy\":\t1\n}\n");
}

TEST(FileParams, NeverOverwritesAFileThatIsNotAParameterFile) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  for (const std::string bad : {"not json at all", "[1, 2, 3]", "\"text\"", "{\"take\": 3"}) {
    writeFile(path, bad);
    FileParamStore store(path);
    testing::internal::CaptureStderr();
    EXPECT_EQ(store.setParam(eParamTake, 9), 0) << bad;
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, path + ": not a parameter file (a JSON object); left as it is\n");
    EXPECT_EQ(readFile(path), bad);
    uint32_t value = 77;
    EXPECT_EQ(store.getParamValue(eParamTake, value), 0);
    EXPECT_EQ(value, 77u);
  }
}

// A parameter whose file holds a value of the other kind there is not read:
// 0, the value left alone (an integer stored as text, of a known parameter or
// one the library does not know; a text stored as a number).
TEST(FileParams, AValueStoredAsTheOtherKindIsNotRead) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(path, "{\"take\": \"7\", \"0x0A0B0C0D\": \"nine\", \"media-dir\": 5}\n");
  FileParamStore store(path);
  uint32_t value = 77;
  EXPECT_EQ(store.getParamValue(eParamTake, value), 0);
  EXPECT_EQ(store.getParamValue(static_cast<eParam_t>(0x0A0B0C0D), value), 0);
  EXPECT_EQ(value, 77u);
  std::string text = "unchanged";
  EXPECT_EQ(store.getParamString(eParamMediaDir, text), 0);
  EXPECT_EQ(text, "unchanged");
}

TEST(FileParams, ValuesOfTheWrongShapeReadAsDefaults) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  writeFile(
      path,
      "{\"take\": -4, \"clip-name-number\": 2.5, \"custom-take-number\": 4294967296, \"encode-type\": 3}");
  FileParamStore store(path);
  EXPECT_EQ(store.getParam(eParamTake), 1u);
  EXPECT_EQ(store.getParam(eParamClipNameNumber), 0u);
  EXPECT_EQ(store.getParam(eParamCustomTakeNumber), 1u);
  EXPECT_EQ(store.getParam(eParamEncodeType), 3u);
}

TEST(FileParams, AWriteIntoAMissingDirectoryFailsCleanly) {
  TempDir dir;
  FileParamStore store(dir.file("no/such/dir/p.json"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.setParam(eParamTake, 3), 0);
  EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
  EXPECT_EQ(store.getParam(eParamTake), 1u);
}

// Writers in separate processes never lose each other's members: every
// write is a locked read-change-replace of the whole file.
TEST(FileParams, ConcurrentWritersInSeparateProcessesLoseNothing) {
  TempDir dir;
  const std::string path = dir.file("p.json");
  const eParam_t ids[4] = {eParamTake, eParamClipNameNumber, eParamCustomTakeNumber, eParamEncodeType};
  pid_t children[4];
  for (int c = 0; c < 4; ++c) {
    children[c] = fork();
    ASSERT_GE(children[c], 0);
    if (children[c] == 0) {
      FileParamStore store(path);
      for (uint32_t i = 1; i <= 40; ++i)
        if (store.setParam(ids[c], 1000 * static_cast<uint32_t>(c) + i) != 1) _exit(1);
      _exit(0);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  FileParamStore store(path);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(store.getParam(ids[c]), 1000u * static_cast<uint32_t>(c) + 40u);
}

}  // namespace

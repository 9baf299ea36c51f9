// SPDX-License-Identifier: MIT
// Allocation failure in clip naming and in the code page 437 copies: the name is built or -1 comes back; the
// copies need no memory.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <utility>

#include "alloc_failure.h"
#include "alloc_failure_each.h"
#include "clip.h"
#include "fileutils.h"
#include "media_cache.h"
#include "paramstore.h"
#include "test_support.h"
#include "textconv.h"

namespace {

using vorta_test::AllocationFailure;

Clip clipNamed(const std::string& name) {
  Clip c;
  std::memcpy(c.name, name.c_str(), std::min(name.size() + 1, Clip::kNameSize));
  c.playable = true;
  return c;
}

// A ClipFinder on caches of its own, removed at the end.
class NamingUnderFailure : public ::testing::Test {
 protected:
  NamingUnderFailure()
      : config(zev::media::MediaCacheOptions::named(vorta_test::uniqueName("vorta_af"))),
        finder(&params, limits(config)),
        cache(config) {}
  ~NamingUnderFailure() override { zev::media::MediaCache::Remove(config); }
  void SetUp() override {
    if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  }
  static zev::media::MediaCacheOptions& limits(zev::media::MediaCacheOptions& c) {
    c.maxClips = 16;
    c.maxPlaylists = 4;
    return c;
  }

  // buildClipName with each allocation failing in turn: every run gives
  // the name it gives with memory, or -1 with an empty name.
  void eachAllocation(const char* what, const std::string& expected, int expectedResult = 0) {
    std::string name;
    ASSERT_EQ(finder.buildClipName(name, &clips), expectedResult) << what;
    ASSERT_EQ(name, expected) << what;
    const alloc_test::EachAllocation r = alloc_test::failEachAllocationInTurn([&](long n, long& failed) {
      std::string built;
      built.reserve(256);
      int result;
      {
        AllocationFailure fail(n, false);
        result = finder.buildClipName(built, &clips);
        failed = fail.failed();
      }
      if (result == expectedResult && built == expected) return 0;
      if (result == -1 && built.empty()) return 1;
      return 12;
    });
    std::printf("[ alloc    ] %s: %d allocations failed in turn, %d absorbed, %d gave -1\n", what, r.runs - 1,
                r.absorbed, r.failedCleanly);
    EXPECT_GT(r.failedCleanly, 0) << what;
    EXPECT_EQ(r.absorbed + r.failedCleanly, r.runs - 1)
        << what << ": allocations whose failure went wrong:" << r.what;
  }

  zev::media::MediaCacheOptions config;
  MemoryParamStore params;
  ClipFinder finder;
  zev::media::MediaCache cache;
  std::list<Clip> clips{clipNamed("SC12ATK1.mov"), clipNamed("SC12ATK2.mov"),
                        clipNamed("Interview with the director_3.mov")};
};

TEST_F(NamingUnderFailure, StandardNameIsBuiltOrMinusOne) {
  params.setParam(eParamClipNameScene, 1);
  params.setParam(eParamClipNameNumber, 12);
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamClipNameLetter, 'A');
  params.setParam(eParamTake, 3);
  eachAllocation("standard name", "SC12ATK3.mov");
}

// Take 999 with that take on the medium: no name. The take search builds
// the schema's name; that failing must not make the search find no take
// and so hand out a name that overwrites the clip on the medium.
TEST_F(NamingUnderFailure, ExhaustedTakesStayExhausted) {
  params.setParam(eParamClipNameScene, 1);
  params.setParam(eParamClipNameNumber, 12);
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamClipNameLetter, 'A');
  params.setParam(eParamTake, 999);
  clips.push_back(clipNamed("SC12ATK999.mov"));
  eachAllocation("exhausted takes", "SC12ATK999", -1);
}

// The custom name's text is longer than a string holds without the heap:
// reading the parameter allocates, and that allocation failing used to let
// std::bad_alloc out of buildClipName.
TEST_F(NamingUnderFailure, CustomNameReadFromItsParameterIsBuiltOrMinusOne) {
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, "Interview with the director");
  params.setParam(eParamCustomTake, 1);
  params.setParam(eParamCustomTakeNumber, 4);
  eachAllocation("custom name", "Interview with the director_4.mov");
}

TEST_F(NamingUnderFailure, CameraNameIsBuiltOrMinusOne) {
  params.setParam(eParamClipNameSource, 1);
  params.setParamString(eParamREDClipName, "A001_C003_0725XY_with_a_long_tail");
  eachAllocation("camera name", "A001_C003_0725XY_with_a_long_tail.mov");
}

// A slave's name comes from the master's, and the clips on the medium are
// read from the shared cache on the way.
TEST_F(NamingUnderFailure, SlaveNameIsBuiltOrMinusOne) {
  params.setParam(eParamLinkMode, 1);
  params.setParam(eParamLinkRole, 0);
  params.setParam(eParamLinkClipName, 0);
  params.setParamString(eParamMasterClipName, "MasterUnitClipNameTK2");
  std::list<Clip> onMedia{clipNamed("MasterUnitClipNameTK2.mov")};
  cache.WriteClipCacheToSharedMemory(onMedia);
  eachAllocation("slave name", "MasterUnitClipNameTK3.mov");
}

// A custom name built by `build` with every allocation from the first on
// failing: -1, an empty name and one line on standard error naming `who`.
void expectCustomNameFailsWithOneLine(MemoryParamStore& params, const std::function<int(std::string&)>& build,
                                      const char* who) {
  params.setParam(eParamCustomClipName, 1);
  params.setParamString(eParamCustomClipNameText, "Interview with the director");
  std::string name = "left over from before";
  testing::internal::CaptureStderr();
  int result;
  {
    AllocationFailure fail(1);
    result = build(name);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(name, "");
  EXPECT_EQ(err, std::string(who) + ". out of memory building the clip name\n");
}

// The same through buildClipNameBase.
TEST_F(NamingUnderFailure, EveryAllocationFailingGivesMinusOneAndAMessage) {
  expectCustomNameFailsWithOneLine(
      params, [&](std::string& name) { return finder.buildClipNameBase(name, false); },
      "buildClipNameBase()");
}

// Through buildClipName, whose name base is built by a nested call: the
// failure is handled once, by the outer call, with its own line.
TEST_F(NamingUnderFailure, NestedFailureIsHandledOnceByTheOuterCall) {
  expectCustomNameFailsWithOneLine(
      params, [&](std::string& name) { return finder.buildClipName(name, nullptr); }, "buildClipName()");
}

// The UTF-8 copies and the code page 437 mapping allocate nothing: with
// every allocation failing they give exactly what they give otherwise.
TEST(TextconvUnderFailure, CopiesAndMappingNeedNoAllocation) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  const char text[] = "Caf\xC3\xA9 \xE2\x94\x80\xCF\x80 \xE2\x82\xAC \xF0\x9F\x98\x80";
  // The unbounded mapping copy reads on past the terminator until its
  // budget is spent: the source has room for that.
  char source[256] = {};
  std::memcpy(source, text, sizeof text);
  char plain[64], mapped[64], bounded[64];
  unsigned char code = 0;
  int hit;
  long failed;
  {
    AllocationFailure fail(1);
    strncpyasutf8(plain, text, sizeof plain);
    strncpyasutf8_map_cp437(mapped, source, sizeof mapped);
    strncpyasutf8_map_cp437(bounded, text, static_cast<int>(sizeof text - 1), sizeof bounded);
    hit = map_utf8_to_codepage437("\xE2\x96\x88", 3, &code);
    failed = fail.failed();
  }
  EXPECT_EQ(failed, 0);
  EXPECT_STREQ(plain, text);
  EXPECT_STREQ(mapped, "Caf\x82 \xC4\xE3 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_STREQ(bounded, "Caf\x82 \xC4\xE3 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(hit, 1);
  EXPECT_EQ(code, 219);
}

// A playlist file read while memory runs out gives back all it took: the
// read buffer, as large as the file, above all. Failures are placed at the
// buffer, at the copy of the first line, and inside the parse and the name
// list; each read ends with the playlist or with 0 and ENOMEM.
TEST(PlaylistUnderFailure, AReadThatRunsOutOfMemoryLeavesNothingAllocated) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  struct Names {  // removed however the test ends
    zev::media::MediaCacheOptions options =
        zev::media::MediaCacheOptions::named(vorta_test::uniqueName("vorta_afpl"));
    ~Names() { zev::media::MediaCache::Remove(options); }
  } names;
  names.options.maxClips = 16;
  names.options.maxPlaylists = 4;
  zev::media::MediaCache cache(names.options);
  vorta_test::TempDir dir;
  std::string text = "{\"name\":\"Big\",\"cliplist\":[";
  for (int i = 0; i < 6000; ++i) text += (i ? ",\"" : "\"") + std::to_string(100000 + i) + "_clip.mov\"";
  text += "]}";
  const std::string path = dir.file("big.playlist");
  vorta_test::writeFile(path, text);
  PlaylistCacheEntry warm{};
  ASSERT_EQ(cache.GrokPlaylist(warm, path), 1);  // whatever the C library sets up once is set up
  int kept = 0, failed = 0;
  for (const long n : {1L, 2L, 3L, 4L, 10L, 100L, 1000L, 6000L, 12000L, 15000L}) {
    PlaylistCacheEntry entry{};
    const std::size_t before = vorta_test::heapInUse();
    std::string argument = path;  // moved into the call: the argument itself takes no memory
    int result, error;
    {
      AllocationFailure fail(n, false);
      result = cache.GrokPlaylist(entry, std::move(argument));
      error = errno;
    }
    const std::size_t after = vorta_test::heapInUse();
    EXPECT_LT(after, before + 4096) << "allocation " << n << " failing left " << (after - before) << " bytes";
    if (result == 1) {
      ++kept;
    } else {
      EXPECT_EQ(result, 0) << n;
      EXPECT_EQ(error, ENOMEM) << n;
      ++failed;
    }
  }
  EXPECT_GE(failed, 4);  // the buffer, the first line and at least two inside the parse
  std::printf("[ alloc    ] playlist of %zu bytes: %d reads ran out of memory, %d read it whole\n",
              text.size(), failed, kept);
}

}  // namespace

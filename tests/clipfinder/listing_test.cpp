// SPDX-License-Identifier: MIT
// Tests of ClipFinder's listing: cache order, reversal, the current playlist, unplayable clips, the shell.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/interprocess/exceptions.hpp>
#include <chrono>
#include <cstring>

#include "clipfinder_support.h"

namespace {

using clipfinder_test::clip;
using clipfinder_test::names;
using clipfinder_test::RecordingParams;
using clipfinder_test::UniqueCaches;
using Names = std::vector<std::string>;

class Listing : public ::testing::Test {
 protected:
  Listing() : finder(&params, caches.config), cache(caches.config) {
    cache.WriteClipCacheToSharedMemory(
        {clip("A.mov", true, 10), clip("B.mov", true, 20), clip("C.mov", false, 30)});
    cache.InitializePlaylists();
  }
  void addPlaylist(const std::string& file, const std::string& json) {
    vorta_test::writeFile(dir.file(file), json);
    ASSERT_EQ(cache.AddPlaylist(dir.file(file)), 1);
  }
  void playPlaylist(const std::string& name) {
    params.setParamString(eParamCurrentPlaylist, name);
    params.setParam(eParamPlaybackMode, 2);
  }

  vorta_test::TempDir dir;
  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder;
  zev::media::MediaCache cache;
};

TEST_F(Listing, CacheOrderOrReversed) {
  EXPECT_EQ(names(finder.findClips(true, false, true)), (Names{"A.mov", "B.mov", "C.mov"}));
  EXPECT_EQ(names(finder.findClips(false, false, true)), (Names{"C.mov", "B.mov", "A.mov"}));
}

TEST_F(Listing, UnplayableClipsAreLeftOutUnlessAskedFor) {
  EXPECT_EQ(names(finder.findClips(true, false, false)), (Names{"A.mov", "B.mov"}));
  EXPECT_EQ(names(finder.findClips(false, false, false)), (Names{"B.mov", "A.mov"}));
}

TEST_F(Listing, WithoutPlaylistModeOrNameAllClipsAreListed) {
  addPlaylist("Reel.playlist", R"({"name":"Reel","cliplist":["B.mov"]})");
  params.setParamString(eParamCurrentPlaylist, "Reel");
  params.setParam(eParamPlaybackMode, 1);
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"A.mov", "B.mov", "C.mov"}));
  params.setParam(eParamPlaybackMode, 2);
  params.setParamString(eParamCurrentPlaylist, "");
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"A.mov", "B.mov", "C.mov"}));
}

TEST_F(Listing, AnUnknownCurrentPlaylistListsAllClips) {
  playPlaylist("Nowhere");
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"A.mov", "B.mov", "C.mov"}));
}

TEST_F(Listing, ThePlaylistOrdersAndFiltersTheClips) {
  addPlaylist("Reel.playlist", R"({"name":"Reel","cliplist":["B.mov","A.mov","X.mov"]})");
  playPlaylist("Reel");
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"B.mov", "A.mov"}));
  EXPECT_EQ(names(finder.findClips(false, true, true)), (Names{"A.mov", "B.mov"}));
}

TEST_F(Listing, UnplayableClipsOfAPlaylistAreDropped) {
  addPlaylist("Reel.playlist", R"({"name":"Reel","cliplist":["C.mov","A.mov","C.mov"]})");
  playPlaylist("Reel");
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"C.mov", "A.mov", "C.mov"}));
  EXPECT_EQ(names(finder.findClips(true, true, false)), (Names{"A.mov"}));
}

TEST_F(Listing, TheAllClipsPlaylistListsEveryClip) {
  playPlaylist("All Clips");
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"A.mov", "B.mov", "C.mov"}));
  const auto playlists = finder.findPlaylists();
  ASSERT_EQ(playlists.count("All Clips"), 1u);
}

TEST_F(Listing, FillSkipsNonStringElementsAndMissingNames) {
  std::map<std::string, PlaylistCacheEntry> playlists;
  PlaylistCacheEntry entry;
  std::memset(&entry, 0, sizeof entry);
  const char json[] = R"({"name":"P","cliplist":["B.mov",7,"Z.mov","A.mov"]})";
  std::memcpy(entry.text, json, sizeof json);
  playlists["P"] = entry;
  std::list<Clip> all = finder.findClips(true, false, true);
  std::list<Clip> out{clip("kept.mov")};
  EXPECT_TRUE(finder.fillCliplistFromPlaylist(out, all, playlists, "P", true));
  EXPECT_EQ(names(out), (Names{"kept.mov", "B.mov", "A.mov"}));  // appended, not cleared
}

TEST_F(Listing, FillReadsOnlyTheFirstLineAndLeavesTheListOnBadJson) {
  std::map<std::string, PlaylistCacheEntry> playlists;
  PlaylistCacheEntry entry;
  std::memset(&entry, 0, sizeof entry);
  const char json[] = "{\"name\":\"P\",\n\"cliplist\":[\"A.mov\"]}";
  std::memcpy(entry.text, json, sizeof json);
  playlists["P"] = entry;
  std::list<Clip> all = finder.findClips(true, false, true);
  std::list<Clip> out;
  EXPECT_TRUE(finder.fillCliplistFromPlaylist(out, all, playlists, "P", true));
  EXPECT_TRUE(out.empty());
}

TEST_F(Listing, FillOfATextFillingItsWholeFieldStaysInsideIt) {
  std::map<std::string, PlaylistCacheEntry> playlists;
  PlaylistCacheEntry entry;
  std::memset(entry.text, 'x', sizeof entry.text);  // no terminator, no line end
  playlists["P"] = entry;
  std::list<Clip> all = finder.findClips(true, false, true);
  std::list<Clip> out;
  EXPECT_TRUE(finder.fillCliplistFromPlaylist(out, all, playlists, "P", true));
  EXPECT_TRUE(out.empty());
}

TEST_F(Listing, FillWithoutNameOrApplyCopiesAllClips) {
  std::list<Clip> all = finder.findClips(true, false, true);
  std::list<Clip> out{clip("dropped.mov")};
  EXPECT_FALSE(finder.fillCliplistFromPlaylist(out, all, {}, "", true));
  EXPECT_EQ(names(out), (Names{"A.mov", "B.mov", "C.mov"}));
  out.clear();
  EXPECT_FALSE(finder.fillCliplistFromPlaylist(out, all, {}, "P", false));
  EXPECT_EQ(out.size(), 3u);
  // A name the map does not hold: all clips, and false.
  std::map<std::string, PlaylistCacheEntry> playlists;
  playlists["Other"] = PlaylistCacheEntry{};
  out.clear();
  EXPECT_FALSE(finder.fillCliplistFromPlaylist(out, all, playlists, "P", true));
  EXPECT_EQ(names(out), (Names{"A.mov", "B.mov", "C.mov"}));
}

// initializePlaylists empties the playlist cache: only "All Clips" is left.
TEST_F(Listing, InitializePlaylistsLeavesOnlyAllClips) {
  PlaylistCacheEntry entry{};
  const char json[] = R"({"name":"P","cliplist":["A.mov"]})";
  std::memcpy(entry.text, json, sizeof json);
  ASSERT_TRUE(cache.WritePlaylistCacheToSharedMemory({{"P", entry}}));
  ASSERT_EQ(finder.findPlaylists().size(), 2u);
  finder.initializePlaylists();
  const auto playlists = finder.findPlaylists();
  ASSERT_EQ(playlists.size(), 1u);
  EXPECT_EQ(playlists.begin()->first, "All Clips");
}

TEST_F(Listing, FlushesForwardToTheCache) {
  finder.flushList();
  EXPECT_TRUE(finder.findClips(true, false, true).empty());
  cache.WriteClipCacheToSharedMemory({clip("A.mov")});
  finder.flushAll();
  EXPECT_TRUE(finder.findClips(true, false, true).empty());
  // After a flush the playlist cache is initialised empty: only "All Clips".
  EXPECT_EQ(finder.findPlaylists().size(), 1u);
  finder.flushPlaylists();
  EXPECT_EQ(finder.findPlaylists().size(), 1u);
}

TEST_F(Listing, ScanMediaMarksTheMediaBusyAndBack) {
  vorta_test::TempDir media;
  EXPECT_EQ(finder.scanMedia(media.path()), 0);
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
  EXPECT_TRUE(finder.findClips(true, false, true).empty());
}

TEST(FileUtilsShell, ReadsTheFirstLineOfTheOutput) {
  FileUtils utils;
  char line[255];
  EXPECT_EQ(utils.shell("printf 'hello\\nworld\\n'", line), 0);
  EXPECT_STREQ(line, "hello\n");
  EXPECT_EQ(utils.shell("exit 3", line), 3 << 8);
  EXPECT_STREQ(line, "");
}

TEST(FileUtilsShell, CutsALongLineAt254Characters) {
  FileUtils utils;
  char line[300];
  std::memset(line, 'Z', sizeof line);
  EXPECT_EQ(utils.shell("head -c 400 /dev/zero | tr '\\0' a", line), 0);
  EXPECT_EQ(std::strlen(line), 254u);
  EXPECT_EQ(line[255], 'Z');
}

TEST(FileUtilsShell, WithoutABufferWaitsAQuarterOfASecond) {
  FileUtils utils;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(utils.shell("true", nullptr), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(240));
}

}  // namespace

namespace {

// A real medium scanned through ClipFinder, then listed every way.
TEST(ListingScannedMedium, PlaylistReversalAndFilterOverRealClips) {
  vorta_test::TempDir media;
  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder(&params, caches.config);
  const char* files[][2] = {
      {"hd1080_p25.mov", "A.mov"}, {"hd720_p5994.mov", "B.mov"}, {"prores_proxy_25.mov", "C.mov"}};
  time_t t = 1000;
  for (const auto& f : files) {
    vorta_test::writeFile(media.file(f[1]),
                          vorta_test::readFile(vorta_test::dataPath(std::string("qt/") + f[0])));
    struct timespec times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, media.file(f[1]).c_str(), times, 0), 0);
    t += 100;
  }
  vorta_test::writeFile(media.file("Reel.playlist"),
                        R"({"name":"Reel","cliplist":["C.mov","B.mov","A.mov"]})");
  params.setParam(eParamEncodeType, 1);
  ASSERT_EQ(finder.scanMedia(media.path()), 0);

  EXPECT_EQ(names(finder.findClips(true, false, true)), (Names{"A.mov", "B.mov", "C.mov"}));
  EXPECT_EQ(names(finder.findClips(true, false, false)), (Names{"A.mov", "B.mov"}));  // C is 36 lines high
  params.setParamString(eParamCurrentPlaylist, "Reel");
  params.setParam(eParamPlaybackMode, 2);
  EXPECT_EQ(names(finder.findClips(true, true, true)), (Names{"C.mov", "B.mov", "A.mov"}));
  EXPECT_EQ(names(finder.findClips(false, true, true)), (Names{"A.mov", "B.mov", "C.mov"}));
  EXPECT_EQ(names(finder.findClips(false, true, false)), (Names{"A.mov", "B.mov"}));
}

// A scan with a visit hands over the catalogue it stored, while the medium
// is still marked busy, and ends marked 2 as a scan without one does.
TEST(ListingScannedMedium, AScanWithAVisitHandsOverTheCatalogueWhileBusy) {
  vorta_test::TempDir media;
  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder(&params, caches.config);
  time_t t = 2000;
  for (const char* name : {"B.mov", "A.mov"}) {
    vorta_test::writeFile(media.file(name),
                          vorta_test::readFile(vorta_test::dataPath("qt/prores_proxy_25.mov")));
    struct timespec times[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, media.file(name).c_str(), times, 0), 0);
    t += 100;
  }
  Names seen;
  std::vector<uint32_t> busyWhileSeen;
  ASSERT_EQ(finder.scanMedia(media.path(),
                             [&](Clip& clip) {
                               seen.emplace_back(clip.name);
                               busyWhileSeen.push_back(params.getParam(eParamMediaBusy));
                             }),
            0);
  EXPECT_EQ(seen, (Names{"B.mov", "A.mov"}));
  EXPECT_EQ(busyWhileSeen, (std::vector<uint32_t>{1, 1}));
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(names(finder.findClips(true, false, true)), seen);
}

// The busy parameter goes back to 2 also when the scan ends in an exception
// (here a catalogue larger than the clip segment).
TEST(ListingScannedMedium, BusyIsSetBackWhenTheScanThrows) {
  vorta_test::TempDir media;
  UniqueCaches caches;
  caches.config.maxClips = 1;
  RecordingParams params;
  ClipFinder finder(&params, caches.config);
  for (const char* name : {"A.mov", "B.mov"})
    vorta_test::writeFile(media.file(name),
                          vorta_test::readFile(vorta_test::dataPath("qt/prores_proxy_25.mov")));
  EXPECT_THROW(finder.scanMedia(media.path()), boost::interprocess::interprocess_exception);
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
}

}  // namespace

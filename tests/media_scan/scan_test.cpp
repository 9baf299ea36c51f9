// SPDX-License-Identifier: MIT
// Tests of the media scan and clip intake on real clip files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fail_alloc.h"
#include "fileparams.h"
#include "internal/work_arena.h"
#include "media_cache.h"
#include "test_support.h"

namespace {

namespace bip = boost::interprocess;
using vorta_test::dataPath;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;
using Names = std::vector<std::string>;

struct UniqueCache {
  UniqueCache() : options(MediaCacheOptions::named(vorta_test::uniqueName("vorta_scan"))) {
    options.maxClips = 128;
    options.maxPlaylists = 16;
  }
  ~UniqueCache() { MediaCache::Remove(options); }
  MediaCacheOptions options;
};

Names names(const std::list<Clip>& clips) {
  Names out;
  for (const Clip& c : clips) out.emplace_back(c.name);
  return out;
}

// Copies a committed clip into the medium under a name, with a modification time.
void place(const std::string& fixture, const std::string& path, time_t modTime) {
  writeFile(path, readFile(dataPath("qt/" + fixture)));
  struct timespec times[2] = {{modTime, 0}, {modTime, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class Scan : public ::testing::Test {
 protected:
  Scan() : cache(unique.options) {}
  std::list<Clip> scan(std::string dir, unsigned encodeType = ENCODE_PRORES_422_HQ) {
    EXPECT_EQ(cache.ScanMedia(dir, encodeType), 1);
    return cache.GetClips();
  }
  TempDir media;
  UniqueCache unique;
  MediaCache cache;
};

TEST_F(Scan, TakesTheClipsTheScannerAcceptsInModificationTimeOrder) {
  place("hd1080_p25.mov", media.file("C.mov"), 3000);
  place("hd720_p5994.mov", media.file("A.mov"), 1000);
  place("prores_4444_25.mov", media.file("B.MOV"), 2000);
  place("dnxhd_720p23976.mov", media.file("dnx.mov"), 500);  // refused by the codec table
  place("h264_25.mov", media.file("h264.mov"), 600);         // refused by the codec table
  writeFile(media.file("bad.mov"), readFile(dataPath("qt/bad/trunc_moov.mov")));
  writeFile(media.file("text.mov"), "not a movie\n");
  writeFile(media.file("notes.txt"), "ignored\n");
  EXPECT_EQ(names(scan(media.path())), (Names{"A.mov", "B.MOV", "C.mov"}));
}

TEST_F(Scan, FillsTheRecordFromTheFile) {
  place("hd1080_tff_2997.mov", media.file("A001_C003.mov"), 1234567);
  const std::list<Clip> clips = scan(media.path());
  ASSERT_EQ(clips.size(), 1u);
  Clip clip = clips.front();
  EXPECT_STREQ(clip.name, "A001_C003.mov");
  EXPECT_EQ(clip.modTime, 1234567);
  EXPECT_STREQ(clip.fourCC, "apco");
  EXPECT_EQ(clip.width, 1920);
  EXPECT_EQ(clip.height, 1080);
  EXPECT_EQ(clip.videoLength, 2u);
  EXPECT_NEAR(clip.frameRate, 29.97002997, 1e-6);
  EXPECT_EQ(clip.scanMode, 1);
  EXPECT_TRUE(clip.playable);
  const auto attributes = clip.attributes.getAttributesMap();
  EXPECT_EQ(attributes.at("Format"), "1920x1080i29.97");
  EXPECT_EQ(attributes.at("Encode Type"), "3");
}

// Every stored record is, byte for byte, the record the intake fills for its
// file with its playability: whatever the scan holds between intake and
// image (only the bytes that can be other than zero), nothing is lost or
// moved. Every committed clip, names of every length up to 255 bytes,
// interleaved times.
TEST_F(Scan, EveryStoredRecordIsTheRecordTheIntakeFills) {
  std::vector<std::string> fixtures;
  DIR* d = ::opendir(dataPath("qt").c_str());
  ASSERT_NE(d, nullptr);
  // readdir64: a 32-bit readdir gives up (EOVERFLOW) on a file system with 64-bit offsets.
  while (const struct dirent64* e = ::readdir64(d)) {
    const std::string name = e->d_name;
    if (name.size() > 4 &&
        (name.compare(name.size() - 4, 4, ".mov") == 0 || name.compare(name.size() - 4, 4, ".MOV") == 0))
      fixtures.push_back(name);
  }
  ::closedir(d);
  std::sort(fixtures.begin(), fixtures.end());
  ASSERT_GE(fixtures.size(), 40u);
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < fixtures.size(); ++i) {
    // Names from 5 to 255 bytes, so that the name field's used length varies.
    std::string name = std::to_string(i) + "_" + std::string((i * 37) % 247, 'n') + ".mov";
    paths.push_back(media.file(name));
    place(fixtures[i], paths.back(), 1000 + static_cast<time_t>((i * 7) % 13));
  }
  // The segment full of other bytes first: a byte the scan fails to write shows.
  std::list<Clip> filler(static_cast<std::size_t>(unique.options.maxClips));
  for (Clip& clip : filler) std::memset(static_cast<void*>(&clip), 0xEE, sizeof clip);
  cache.WriteClipCacheToSharedMemory(filler);
  const std::list<Clip> stored = scan(media.path(), ENCODE_PRORES_422_HQ);
  ASSERT_GE(stored.size(), 40u);
  std::size_t compared = 0;
  for (const Clip& clip : stored) {
    const auto at = std::find(paths.begin(), paths.end(), media.file(clip.name));
    ASSERT_NE(at, paths.end()) << clip.name;
    std::unique_ptr<Clip> expected(new Clip());
    ASSERT_TRUE(cache.GrokClip(*expected, *at, false));
    expected->playable = cache.IsPlayable(*expected, ENCODE_PRORES_422_HQ);
    EXPECT_EQ(std::memcmp(&clip, expected.get(), Clip::kStoredSize), 0) << clip.name;
    ++compared;
  }
  EXPECT_EQ(compared, stored.size());
}

TEST_F(Scan, PlayabilityFollowsTheCodecFamilyAndTheHeightTable) {
  place("hd1080_p25.mov", media.file("hd.mov"), 1000);              // ProRes proxy, 1080 lines
  place("prores_proxy_25.mov", media.file("small.mov"), 2000);      // ProRes proxy, 36 lines
  place("uyvy_2vuy_25.mov", media.file("uncompressed.mov"), 3000);  // neither family, 36 lines
  std::list<Clip> clips = scan(media.path(), ENCODE_PRORES_422);
  ASSERT_EQ(names(clips), (Names{"hd.mov", "small.mov", "uncompressed.mov"}));
  EXPECT_TRUE(clips.front().playable);
  EXPECT_FALSE(std::next(clips.begin())->playable);  // height 36 is not played
  EXPECT_FALSE(clips.back().playable);
  clips = scan(media.path(), 5);  // the device in a DNxHD mode
  EXPECT_FALSE(clips.front().playable);
  clips = scan(media.path(), ENCODE_PRORES_4444);  // neither family: no codec refusal
  EXPECT_TRUE(clips.front().playable);
}

TEST_F(Scan, ADirectoryNamedLikeAClipMakesEveryEntryACandidate) {
  const std::string dir = media.file("media.mov");
  ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
  place("hd1080_p25.mov", dir + "/take.txt", 1000);
  writeFile(dir + "/list.playlist", R"({"name":"L","cliplist":[]})");
  place("hd1080_p25.mov", dir + "/.hidden.mov", 2000);
  EXPECT_EQ(names(scan(dir)), (Names{"take.txt"}));
  // The playlist's path holds ".mov" too, so it was tried as a clip, not as a playlist.
  EXPECT_EQ(cache.GetPlaylists().size(), 1u);
}

TEST_F(Scan, ABackupNamedClipMovBakIsTakenToo) {
  place("hd1080_p25.mov", media.file("clip.mov.bak"), 1000);
  EXPECT_EQ(names(scan(media.path())), (Names{"clip.mov.bak"}));
}

TEST_F(Scan, TwoScansGiveTheSameCatalogueWhateverTheDirectoryOrder) {
  const char* order[] = {"e.mov", "a.mov", "d.mov", "b.mov", "c.mov"};
  time_t t = 5000;
  for (const char* name : order) place("prores_proxy_25.mov", media.file(name), t -= 100);
  const Names expected{"c.mov", "b.mov", "d.mov", "a.mov", "e.mov"};
  EXPECT_EQ(names(scan(media.path())), expected);
  EXPECT_EQ(names(scan(media.path())), expected);
}

TEST_F(Scan, EqualModificationTimesKeepTheDirectoryOrder) {
  place("prores_proxy_25.mov", media.file("x.mov"), 1000);
  place("prores_proxy_25.mov", media.file("y.mov"), 1000);
  const Names first = names(scan(media.path()));
  EXPECT_EQ(first.size(), 2u);
  EXPECT_EQ(names(scan(media.path())), first);
}

TEST_F(Scan, PlaylistFilesWithTheSameTextGiveOneCachedPlaylist) {
  const std::string text = R"({"name":"Reel","cliplist":["a.mov"]})";
  writeFile(media.file("one.playlist"), text);
  writeFile(media.file("two.playlist"), text);
  writeFile(media.file("other.playlist"), R"({"name":"Other","cliplist":[]})");
  writeFile(media.file("bad.playlist"), R"({"name":"Bad","cliplist":[1]})");
  scan(media.path());
  const auto playlists = cache.GetPlaylists();
  EXPECT_EQ(playlists.size(), 3u);  // one of one/two, other, and "All Clips"
  EXPECT_EQ(playlists.count("other"), 1u);
  EXPECT_EQ(playlists.count("one") + playlists.count("two"), 1u);
  EXPECT_EQ(playlists.count("bad"), 0u);
}

TEST_F(Scan, ReplacesBothCachesWhole) {
  place("prores_proxy_25.mov", media.file("old.mov"), 1000);
  writeFile(media.file("old.playlist"), R"({"name":"Old","cliplist":[]})");
  scan(media.path());
  TempDir other;
  place("prores_proxy_25.mov", other.file("new.mov"), 1000);
  EXPECT_EQ(names(scan(other.path())), (Names{"new.mov"}));
  EXPECT_EQ(cache.GetPlaylists().count("old"), 0u);
}

TEST_F(Scan, AMissingDirectoryLeavesBothCachesUntouched) {
  place("prores_proxy_25.mov", media.file("kept.mov"), 1000);
  writeFile(media.file("kept.playlist"), R"({"name":"Kept","cliplist":[]})");
  scan(media.path());
  EXPECT_EQ(names(scan(media.file("no-such-dir"))), (Names{"kept.mov"}));
  EXPECT_EQ(cache.GetPlaylists().count("kept"), 1u);
}

TEST_F(Scan, AFileThatCannotBeStatedIsReportedAndSkipped) {
  place("prores_proxy_25.mov", media.file("good.mov"), 1000);
  ASSERT_EQ(::symlink(media.file("gone").c_str(), media.file("dangling.mov").c_str()), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(names(scan(media.path())), (Names{"good.mov"}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            media.file("dangling.mov") + ": No such file or directory\n");
}

TEST_F(Scan, EveryMalformedFixtureIsLeftOut) {
  const char* bad[] = {"child_beyond_parent.mov",
                       "deep_nesting.mov",
                       "empty.mov",
                       "ftyp_only.mov",
                       "huge_stsd_count.mov",
                       "moov_beyond_file.mov",
                       "moov_empty.mov",
                       "random.mov",
                       "size0_mid.mov",
                       "size_below_8.mov",
                       "text.mov",
                       "trunc_header.mov",
                       "trunc_moov.mov",
                       "trunc_moov_mid.mov",
                       "video_no_stsd_entry.mov"};
  for (const char* name : bad) writeFile(media.file(name), readFile(dataPath(std::string("qt/bad/") + name)));
  place("prores_proxy_25.mov", media.file("good.mov"), 1000);
  EXPECT_EQ(names(scan(media.path())), (Names{"good.mov"}));
}

// A medium larger than a scan holds in one piece of memory: 1,400 clips in
// modification times that run against the directory order, many of them
// equal, with rejected files and playlists among them.
TEST(LargeScan, EveryClipOfAFullMediumIsStoredInTimeOrder) {
  TempDir media;
  UniqueCache unique;
  unique.options.maxClips = 1400;
  MediaCache cache(unique.options);
  const std::string clip = readFile(dataPath("qt/prores_proxy_25.mov"));
  const std::string broken = readFile(dataPath("qt/bad/trunc_moov.mov"));
  for (int i = 0; i < 1400; ++i) {
    const std::string path = media.file("c" + std::to_string(i) + ".mov");
    writeFile(path, clip);
    const time_t modTime = 100000 - (i * 7919) % 1400 / 3;  // scattered, groups of equal times
    struct timespec times[2] = {{modTime, 0}, {modTime, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    if (i % 100 == 0) writeFile(media.file("r" + std::to_string(i) + ".mov"), broken);
    if (i % 200 == 0)
      writeFile(
          media.file("p" + std::to_string(i) + ".playlist"),
          "{\"name\":\"P" + std::to_string(i) + "\",\"cliplist\":[\"c" + std::to_string(i) + ".mov\"]}");
  }
  // What the catalogue must be: the clips in the order the directory gives
  // them, stably sorted by time.
  std::vector<std::pair<time_t, std::string>> expected;
  DIR* dir = ::opendir(media.path().c_str());
  ASSERT_NE(dir, nullptr);
  // The 64-bit calls: on a 32-bit machine the plain ones fail on large inode numbers.
  while (struct dirent64* entry = ::readdir64(dir)) {
    const std::string name = entry->d_name;
    if (name[0] != 'c') continue;
    struct stat64 info;
    ASSERT_EQ(::stat64(media.file(name).c_str(), &info), 0);
    expected.emplace_back(info.st_mtime, name);
  }
  ::closedir(dir);
  std::stable_sort(expected.begin(), expected.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });

  std::string path = media.path();
  EXPECT_EQ(cache.ScanMedia(path, ENCODE_PRORES_422_HQ), 1);
  const std::list<Clip> clips = cache.GetClips();
  ASSERT_EQ(clips.size(), expected.size());
  Clip reference;
  ASSERT_TRUE(cache.GrokClip(reference, media.file("c0.mov"), false));
  std::size_t i = 0;
  for (const Clip& stored : clips) {
    EXPECT_EQ(stored.name, expected[i].second) << i;
    EXPECT_EQ(stored.modTime, expected[i].first) << i;
    // Everything else of every record is that of the one clip file.
    EXPECT_EQ(std::memcmp(&stored.width, &reference.width, Clip::kStoredSize - offsetof(Clip, width)), 0)
        << i;
    ++i;
  }
  EXPECT_EQ(cache.GetPlaylists().size(), 8u);  // seven files and "All Clips"
}

// A scan that finds more clips than the segment holds throws before touching
// it: the stored catalogue stays as it was, and nothing of the scan's memory
// is left behind.
TEST(LargeScan, AMediumLargerThanTheSegmentLeavesTheCatalogueAsItWas) {
  TempDir media;
  UniqueCache unique;
  unique.options.maxClips = 4;
  MediaCache cache(unique.options);
  place("prores_proxy_25.mov", media.file("kept.mov"), 1000);
  std::string path = media.path();
  cache.ScanMedia(path, ENCODE_PRORES_422_HQ);
  for (int i = 0; i < 5; ++i)
    place("prores_proxy_25.mov", media.file("n" + std::to_string(i) + ".mov"), 2000);

  const std::size_t before = zev::detail::WorkArena::mappedInProcess();
  EXPECT_THROW(cache.ScanMedia(path, ENCODE_PRORES_422_HQ), boost::interprocess::interprocess_exception);
  EXPECT_EQ(zev::detail::WorkArena::mappedInProcess(), before);
  EXPECT_EQ(names(cache.GetClips()), (Names{"kept.mov"}));
}

TEST_F(Scan, AddingToAnEmptyCatalogueGivesIndexZero) {
  place("prores_proxy_25.mov", media.file("a.mov"), 1000);
  cache.WriteClipCacheToSharedMemory({});
  int index = -1;
  EXPECT_EQ(cache.AddClip(media.file("a.mov"), ENCODE_PRORES_422, index, false), 1);
  EXPECT_EQ(index, 0);
}

// The index is the clip's place at the end of the list before sorting.
TEST_F(Scan, AddingCountsTheIndexBeforeSorting) {
  for (const char* name : {"b.mov", "c.mov", "d.mov"}) place("prores_proxy_25.mov", media.file(name), 2000);
  scan(media.path());
  place("prores_proxy_25.mov", media.file("first.mov"), 1000);
  int index = -1;
  EXPECT_EQ(cache.AddClip(media.file("first.mov"), ENCODE_PRORES_422, index, false), 1);
  EXPECT_EQ(index, 3);
  EXPECT_EQ(names(cache.GetClips()).front(), "first.mov");
}

TEST_F(Scan, AddingAStoredNameReplacesTheOldRecord) {
  place("prores_proxy_25.mov", media.file("a.mov"), 1000);
  place("prores_proxy_25.mov", media.file("b.mov"), 2000);
  scan(media.path());
  place("hd1080_p25.mov", media.file("a.mov"), 3000);
  int index = -1;
  EXPECT_EQ(cache.AddClip(media.file("a.mov"), ENCODE_PRORES_422, index, false), 1);
  const std::list<Clip> clips = cache.GetClips();
  EXPECT_EQ(names(clips), (Names{"b.mov", "a.mov"}));
  EXPECT_EQ(clips.back().height, 1080);
}

TEST_F(Scan, AFailedIntakeLeavesTheCatalogueAndIndexAlone) {
  place("prores_proxy_25.mov", media.file("a.mov"), 1000);
  scan(media.path());
  writeFile(media.file("bad.mov"), "not a movie");
  int index = 42;
  EXPECT_EQ(cache.AddClip(media.file("bad.mov"), ENCODE_PRORES_422, index, false), 0);
  EXPECT_EQ(index, 42);
  EXPECT_EQ(names(cache.GetClips()), (Names{"a.mov"}));
}

TEST_F(Scan, ANameOnlyClipIsNeverPlayable) {
  cache.WriteClipCacheToSharedMemory({});
  int index = -1;
  EXPECT_EQ(cache.AddClip("/media/ZEV/Shot_3.mov", ENCODE_PRORES_422, index, true), 1);
  const std::list<Clip> clips = cache.GetClips();
  ASSERT_EQ(clips.size(), 1u);
  EXPECT_STREQ(clips.front().name, "Shot_3.mov");
  EXPECT_FALSE(clips.front().playable);
  EXPECT_EQ(clips.front().fourCC[0], '\0');
}

TEST_F(Scan, RemoveTakesTheFirstClipWhoseNameIsInTheArgument) {
  for (const char* name : {"A.mov", "AB.mov"}) place("prores_proxy_25.mov", media.file(name), 1000);
  scan(media.path());
  EXPECT_TRUE(cache.RemoveClip("/media/ZEV/AB.mov"));
  EXPECT_EQ(cache.GetClips().size(), 1u);
}

TEST_F(Scan, RemovingNothingStillRewritesTheCatalogue) {
  place("prores_proxy_25.mov", media.file("a.mov"), 1000);
  scan(media.path());
  EXPECT_FALSE(cache.RemoveClip("/elsewhere/z.mov"));
  EXPECT_EQ(names(cache.GetClips()), (Names{"a.mov"}));
  cache.FlushClips();
  std::list<Clip> none;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(none), 0);
  EXPECT_FALSE(cache.RemoveClip("z.mov"));
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(none), 1);  // written back, valid and empty
  EXPECT_TRUE(none.empty());
}

TEST_F(Scan, AClipWithoutAnEncodeTypeIsNotPlayable) {
  Clip clip;
  clip.height = 1080;
  std::memcpy(clip.attributes.block, "Format\n1920x1080p25\n", 20);
  unsigned type = 77;
  EXPECT_FALSE(cache.GetEncodeType(clip, type));
  EXPECT_EQ(type, 77u);
  EXPECT_FALSE(cache.IsPlayable(clip, ENCODE_PRORES_422));
  std::memcpy(clip.attributes.block, "Encode Type\n1\n", 15);
  EXPECT_TRUE(cache.GetEncodeType(clip, type));
  EXPECT_EQ(type, 1u);
  EXPECT_TRUE(cache.IsPlayable(clip, ENCODE_PRORES_422));
  EXPECT_FALSE(cache.IsPlayable(clip, 4));
  clip.height = 2160;
  EXPECT_FALSE(cache.IsPlayable(clip, ENCODE_PRORES_422));
}

// The encode type is the value the attribute map holds for its key: the last
// one written, with empty tokens dropped, a final key without a value
// ignored and a key that appears as a value not taken for one.
TEST_F(Scan, TheEncodeTypeIsWhatTheAttributeMapHolds) {
  const auto typeOf = [&](const std::string& text, unsigned& type) {
    Clip clip;
    std::memcpy(clip.attributes.block, text.data(), std::min(text.size(), sizeof clip.attributes.block));
    return cache.GetEncodeType(clip, type);
  };
  unsigned type = 0;
  EXPECT_TRUE(typeOf("Encode Type\n3\nFormat\nx\nEncode Type\n5\n", type));
  EXPECT_EQ(type, 5u);
  EXPECT_TRUE(typeOf("\n\nEncode Type\n\n\n7", type));
  EXPECT_EQ(type, 7u);
  EXPECT_TRUE(typeOf("X\nEncode Type\nEncode Type\n8\n", type));
  EXPECT_EQ(type, 8u);
  type = 99;
  EXPECT_FALSE(typeOf("Format\nEncode Type\n", type));  // a value, then a key without one
  EXPECT_FALSE(typeOf("Encode Type\n", type));
  EXPECT_FALSE(typeOf("Encode Type \n4\n", type));  // nothing is trimmed
  EXPECT_EQ(type, 99u);
  EXPECT_TRUE(typeOf("Encode Type\n-1\n", type));
  EXPECT_EQ(type, 0xFFFFFFFFu);
  // A block with no terminator is read to its last byte.
  std::string full = "Encode Type\n2\n";
  full += std::string(zev::media::MediaAttributes::kSize - full.size() - 1, 'z') + "9";
  EXPECT_TRUE(typeOf(full, type));
  EXPECT_EQ(type, 2u);

  // Random texts of the tokens that matter, against the map.
  std::mt19937 random(2026);
  const char* pieces[] = {"Encode Type", "\n", "3", "12", "Format", "", "x\n", "\n\n", "Encode Type\n"};
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    const int count = static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i) text += pieces[random() % (sizeof pieces / sizeof *pieces)];
    Clip clip;
    std::memcpy(clip.attributes.block, text.data(), text.size());
    const auto map = clip.attributes.getAttributesMap();
    const auto it = map.find(zev::media::MediaVideoEncodeType);
    unsigned got = 12345;
    ASSERT_EQ(cache.GetEncodeType(clip, got), it != map.end()) << text;
    if (it != map.end()) {
      EXPECT_EQ(got, static_cast<unsigned>(std::strtol(it->second.c_str(), nullptr, 10))) << text;
    }
  }
}

TEST_F(Scan, GrokClipSetsTheTimeOnlyOnSuccess) {
  writeFile(media.file("bad.mov"), "not a movie");
  Clip clip;
  clip.modTime = 99;
  EXPECT_FALSE(cache.GrokClip(clip, media.file("bad.mov"), false));
  EXPECT_STREQ(clip.name, "bad.mov");
  EXPECT_EQ(clip.modTime, 99);
  Clip nameOnly;
  EXPECT_TRUE(cache.GrokClip(nameOnly, "/no/such/dir/x.mov", true));
  EXPECT_STREQ(nameOnly.name, "x.mov");
}

// A base name longer than the name field is cut to the field less its
// terminator, and nothing after the field is touched.
TEST_F(Scan, GrokClipCutsALongNameInsideItsField) {
  Clip clip;
  clip.modTime = 0x5A5A5A5A;
  const std::string longName(Clip::kNameSize + 10, 'n');
  EXPECT_TRUE(cache.GrokClip(clip, "/no/such/dir/" + longName, true));
  EXPECT_EQ(std::string(clip.name), longName.substr(0, Clip::kNameSize - 1));
  EXPECT_EQ(clip.modTime, 0x5A5A5A5A);
}

// A reader in another process sees the whole old or the whole new catalogue, never a mix.
TEST_F(Scan, AReaderInAnotherProcessSeesWholeCataloguesOnly) {
  TempDir a, b;
  for (const char* name : {"a1.mov", "a2.mov", "a3.mov"}) place("prores_proxy_25.mov", a.file(name), 1000);
  for (const char* name : {"b1.mov", "b2.mov", "b3.mov", "b4.mov", "b5.mov"})
    place("prores_proxy_25.mov", b.file(name), 1000);
  const std::set<Names> expected{names(scan(a.path())), names(scan(b.path()))};
  ASSERT_EQ(expected.size(), 2u);

  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    MediaCache reader(unique.options);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    int reads = 0;
    bool signalled = false;
    while (std::chrono::steady_clock::now() < end || reads < 20) {
      if (expected.count(names(reader.GetClips())) == 0) _exit(1);
      if (++reads == 1 && !signalled) {
        signalled = ::write(ready[1], "r", 1) == 1;
      }
    }
    _exit(0);
  }
  ::close(ready[1]);
  char byte;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);
  for (int round = 0; round < 20; ++round) scan(round % 2 ? a.path() : b.path());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a read saw a mixed catalogue";
}

// The records a scan hands its visit, byte for byte (padding too), are the
// records a reader then gets: on a first scan over a segment of other bytes,
// on a second scan that finds the catalogue in place, and on a third that
// finds its first record in place and the second changed.
TEST_F(Scan, TheVisitSeesWhatTheScanStored) {
  place("hd1080_p25.mov", media.file("C.mov"), 3000);
  place("hd720_p5994.mov", media.file("A.mov"), 1000);
  place("prores_4444_25.mov", media.file("B.MOV"), 2000);
  {  // the whole segment other bytes first, padding included
    bip::shared_memory_object segment(bip::open_only, unique.options.clipSegment.c_str(), bip::read_write);
    bip::mapped_region region(segment, bip::read_write);
    std::memset(region.get_address(), 0xEE, region.get_size());
  }
  for (int round = 0; round < 3; ++round) {
    if (round == 2) place("prores_proxy_25.mov", media.file("B.MOV"), 2000);
    std::vector<Clip> seen;
    std::string dir = media.path();
    ASSERT_EQ(cache.ScanMedia(dir, ENCODE_PRORES_422_HQ, [&seen](Clip& clip) { seen.push_back(clip); }), 1);
    const std::list<Clip> stored = cache.GetClips();
    ASSERT_EQ(seen.size(), 3u) << round;
    ASSERT_EQ(stored.size(), 3u);
    std::size_t i = 0;
    for (const Clip& clip : stored) {
      EXPECT_EQ(std::memcmp(&clip, &seen[i], sizeof(Clip)), 0) << round << " " << i;
      ++i;
    }
    EXPECT_STREQ(seen[0].name, "A.mov");
    EXPECT_STREQ(seen[1].name, "B.MOV");
    EXPECT_STREQ(seen[2].name, "C.mov");
    EXPECT_STREQ(seen[1].fourCC, round == 2 ? "apco" : "ap4h") << round;
    const unsigned char* padding = reinterpret_cast<const unsigned char*>(&seen[1]) + Clip::kStoredSize;
    EXPECT_EQ(padding[0], 0xEE);  // never written: the segment's own bytes
    EXPECT_EQ(padding[2], 0xEE);
  }
}

// A visit that throws ends its walk, and the exception reaches the caller
// once both caches are written whole; the clip lock is free again.
TEST_F(Scan, AVisitThatThrowsLeavesBothCachesWritten) {
  place("hd1080_p25.mov", media.file("C.mov"), 3000);
  place("hd720_p5994.mov", media.file("A.mov"), 1000);
  place("prores_4444_25.mov", media.file("B.MOV"), 2000);
  writeFile(media.file("reel.playlist"), R"({"name":"Reel","cliplist":["A.mov"]})");
  int calls = 0;
  std::string dir = media.path();
  EXPECT_THROW(cache.ScanMedia(dir, ENCODE_PRORES_422_HQ,
                               [&calls](Clip&) {
                                 if (++calls == 2) throw std::runtime_error("visit");
                               }),
               std::runtime_error);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(names(cache.GetClips()), (Names{"A.mov", "B.MOV", "C.mov"}));
  EXPECT_EQ(cache.GetPlaylists().count("reel"), 1u);
}

// A medium that cannot be opened leaves the caches as they are, and the
// visit sees the catalogue as it stands.
TEST_F(Scan, AMissingDirectoryVisitsTheStoredCatalogue) {
  place("prores_proxy_25.mov", media.file("kept.mov"), 1000);
  scan(media.path());
  Names seen;
  std::string missing = media.file("no-such-dir");
  EXPECT_EQ(
      cache.ScanMedia(missing, ENCODE_PRORES_422_HQ, [&seen](Clip& clip) { seen.emplace_back(clip.name); }),
      1);
  EXPECT_EQ(seen, (Names{"kept.mov"}));
}

// A scan abandoned for want of memory visits nothing.
TEST_F(Scan, AnAbandonedScanVisitsNothing) {
  place("prores_proxy_25.mov", media.file("a.mov"), 1000);
  scan(media.path());
  std::string dir = media.path();
  if (!vorta_test::allocationFailureAvailable())
    GTEST_SKIP() << "allocations cannot be made to fail under a sanitizer or valgrind";
  int calls = 0;
  const std::function<void(Clip&)> visit = [&calls](Clip&) { ++calls; };
  int result = -1;
  testing::internal::CaptureStderr();
  {
    vorta_test::FailAlloc failing(0);
    result = cache.ScanMedia(dir, ENCODE_PRORES_422_HQ, visit);
  }
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(calls, 0);
  EXPECT_NE(said.find("scan abandoned"), std::string::npos) << said;
  EXPECT_EQ(names(cache.GetClips()), (Names{"a.mov"}));
}

}  // namespace

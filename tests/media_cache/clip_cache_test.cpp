// SPDX-License-Identifier: MIT
// Tests of the shared clip image: its bytes, flushing, reading, sizing and the cache object's life.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/interprocess/exceptions.hpp>
#include <cstring>
#include <iterator>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "cache_test_support.h"

namespace {

using namespace cache_test;

const std::vector<unsigned char> kClipMagic = {'S', 'h', 'a', 'r', 'e', 'd', 'C', 'l',
                                               'i', 'p', 'C', 'a', 'c', 'h', 'e'};

// An empty catalogue is still a valid image: magic, count 0, nothing else.
TEST(ClipCache, EmptyListWritesValidImageWithCountZero) {
  ScopedNames names;
  MediaCache cache(names.options);
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({}), 1);

  const std::vector<unsigned char> bytes = segmentBytes(names.options.clipSegment);
  EXPECT_EQ(slice(bytes, 0, 15), kClipMagic);
  EXPECT_EQ(slice(bytes, 15, 4), (std::vector<unsigned char>{0, 0, 0, 0}));

  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_TRUE(clips.empty());
}

// A segment that was never written holds no image.
TEST(ClipCache, NeverWrittenSegmentReadsAsInvalid) {
  ScopedNames names;
  MediaCache cache(names.options);
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);
  EXPECT_TRUE(clips.empty());
}

// Flushing puts "*" over the first byte; readers see no clips until the next write.
TEST(ClipCache, FlushedImageReadsAsEmptyUntilNextWrite) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 10), makeClip("B.mov", 20)});
  cache.FlushClips();

  const std::vector<unsigned char> bytes = segmentBytes(names.options.clipSegment);
  EXPECT_EQ(bytes[0], '*');
  EXPECT_EQ(slice(bytes, 1, 14), slice(kClipMagic, 1, 14));
  EXPECT_EQ(slice(bytes, 15, 4), native32(2));

  std::list<Clip> clips = {makeClip("kept.mov", 1)};
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"kept.mov"});

  cache.WriteClipCacheToSharedMemory({makeClip("C.mov", 30)});
  clips.clear();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"C.mov"});
}

// Only the first 6533 bytes of a record are stored; its last 3 come from the segment.
TEST(ClipCache, RecordRoundTripKeepsStoredBytesAndTakesPaddingFromSegment) {
  ScopedNames names;
  MediaCache cache(names.options);
  fillSegment(names.options.clipSegment, 0xA5);

  Clip written = makeClip("A001_C003_0725XY.mov", 1700000000, 7);
  unsigned char* raw = reinterpret_cast<unsigned char*>(&written);
  raw[6533] = 0x11;
  raw[6534] = 0x22;
  raw[6535] = 0x33;
  cache.WriteClipCacheToSharedMemory({written});

  std::list<Clip> clips;
  ASSERT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  ASSERT_EQ(clips.size(), 1u);
  const unsigned char* back = reinterpret_cast<const unsigned char*>(&clips.front());
  EXPECT_TRUE(sameBytes(back, raw, Clip::kStoredSize));
  EXPECT_EQ(back[6533], 0xA5);
  EXPECT_EQ(back[6534], 0xA5);
  EXPECT_EQ(back[6535], 0xA5);
  EXPECT_EQ(clips.front().modTime, 1700000000);
  EXPECT_DOUBLE_EQ(clips.front().frameRate, 23.976);
}

// Reading appends to the list it is given and never clears it.
TEST(ClipCache, ReadAppendsToTheGivenList) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("B.mov", 2), makeClip("C.mov", 3)});
  std::list<Clip> clips = {makeClip("A.mov", 1)};
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), (std::vector<std::string>{"A.mov", "B.mov", "C.mov", "B.mov", "C.mov"}));
}

// The count follows the 15 magic characters directly: the magic's NUL is overwritten.
TEST(ClipCache, CountSitsAtOffset15WithNoTerminatorBeforeIt) {
  ScopedNames names;
  MediaCache cache(names.options);
  fillSegment(names.options.clipSegment, 0xFF);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  const std::vector<unsigned char> bytes = segmentBytes(names.options.clipSegment);
  EXPECT_EQ(bytes[14], 'e');
  EXPECT_EQ(slice(bytes, 15, 4), native32(1));
  EXPECT_EQ(bytes[19], 'A');
}

// The image of two clips, compared with bytes placed one field at a time.
TEST(ClipCache, GoldenImageOfTwoClips) {
  ScopedNames names(3, 1);
  MediaCache cache(names.options);
  fillSegment(names.options.clipSegment, 0xA5);

  Clip first;
  std::strcpy(first.name, "A001_C001.mov");
  first.modTime = 0x5F5E1000;
  std::memcpy(first.fourCC, "apch", 5);
  first.width = 3840;
  first.height = 2160;
  first.videoLength = 0x12345678;
  first.frameRate = 25.0;
  first.scanMode = 2;
  first.playable = true;
  std::strcpy(first.attributes.block, "Encode Type\n1\n");
  Clip second;
  std::strcpy(second.name, "B.mov");
  second.modTime = -1;
  std::memcpy(second.fourCC, "2vuy", 5);
  second.width = 1280;
  second.height = 720;
  second.videoLength = 1;
  second.frameRate = 25.0;
  second.scanMode = 0;
  second.playable = false;
  std::strcpy(second.attributes.block, "Format\nx\n");
  // The padding after fourCC is part of the stored bytes; give it a value to see it copied.
  reinterpret_cast<unsigned char*>(&second)[4105] = 0x77;

  cache.WriteClipCacheToSharedMemory({first, second});

  const std::size_t imageSize = 19 + 2 * 6536;
  std::vector<unsigned char> expected(segmentBytes(names.options.clipSegment).size(), 0xA5);
  putText(expected, 0, "SharedClipCache");
  put(expected, 15, native32(2));
  // 25.0 as an IEEE-754 double is 0x4039000000000000.
  const std::vector<unsigned char> rate25 = bigEndianHost()
                                                ? std::vector<unsigned char>{0x40, 0x39, 0, 0, 0, 0, 0, 0}
                                                : std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0x39, 0x40};

  std::size_t slot = 19;
  std::vector<unsigned char> zeros(6533, 0);
  put(expected, slot, zeros);
  putText(expected, slot, "A001_C001.mov");
  put(expected, slot + 4096, native32(0x5F5E1000));
  putText(expected, slot + 4100, "apch");
  put(expected, slot + 4108, native32(3840));
  put(expected, slot + 4112, native32(2160));
  put(expected, slot + 4116, native32(0x12345678));
  put(expected, slot + 4120, rate25);
  put(expected, slot + 4128, native32(2));
  put(expected, slot + 4132, {1});
  putText(expected, slot + 4133, "Encode Type\n1\n");

  slot = 19 + 6536;
  put(expected, slot, zeros);
  putText(expected, slot, "B.mov");
  put(expected, slot + 4096, {0xFF, 0xFF, 0xFF, 0xFF});
  putText(expected, slot + 4100, "2vuy");
  put(expected, slot + 4105, {0x77});
  put(expected, slot + 4108, native32(1280));
  put(expected, slot + 4112, native32(720));
  put(expected, slot + 4116, native32(1));
  put(expected, slot + 4120, rate25);
  put(expected, slot + 4128, native32(0));
  put(expected, slot + 4132, {0});
  putText(expected, slot + 4133, "Format\nx\n");

  const std::vector<unsigned char> actual = segmentBytes(names.options.clipSegment);
  ASSERT_EQ(actual.size(), expected.size());
  EXPECT_EQ(slice(actual, 0, 19), slice(expected, 0, 19));
  EXPECT_EQ(slice(actual, 19, 6536), slice(expected, 19, 6536));
  EXPECT_EQ(slice(actual, 19 + 6536, 6536), slice(expected, 19 + 6536, 6536));
  // The 3 unwritten bytes of each slot and everything after the image keep the segment's bytes.
  EXPECT_EQ(slice(actual, 19 + 6533, 3), (std::vector<unsigned char>{0xA5, 0xA5, 0xA5}));
  EXPECT_EQ(slice(actual, 19 + 6536 + 6533, 3), (std::vector<unsigned char>{0xA5, 0xA5, 0xA5}));
  EXPECT_TRUE(actual == expected) << "the segment differs beyond the image of " << imageSize << " bytes";
}

// A write that would not fit throws before touching the segment: the old image stays readable.
TEST(ClipCache, WriteThatDoesNotFitThrowsAndKeepsTheOldImage) {
  ScopedNames names(2, 1);
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  const std::vector<unsigned char> before = segmentBytes(names.options.clipSegment);

  try {
    cache.WriteClipCacheToSharedMemory({makeClip("C.mov", 3), makeClip("D.mov", 4), makeClip("E.mov", 5)});
    FAIL() << "a write of 3 clips into a segment for 2 must throw";
  } catch (const boost::interprocess::interprocess_exception& e) {
    EXPECT_EQ(e.get_error_code(), boost::interprocess::size_error);
    EXPECT_STREQ(e.what(),
                 "WriteClipCacheToSharedMemory: 3 clips need 19627 bytes but the segment holds 13091");
  }
  EXPECT_TRUE(segmentBytes(names.options.clipSegment) == before);
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), (std::vector<std::string>{"A.mov", "B.mov"}));

  // A catalogue that fills the segment exactly still fits.
  EXPECT_EQ(cache.WriteClipCacheToSharedMemory({makeClip("F.mov", 6), makeClip("G.mov", 7)}), 1);
}

// A stored count whose records would run past the segment makes the image invalid.
TEST(ClipCache, CountRunningPastTheSegmentIsRefused) {
  ScopedNames names(2, 1);
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});

  for (std::uint32_t count : {3u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    patchSegment(names.options.clipSegment, 15, native32(count));
    std::list<Clip> clips = {makeClip("kept.mov", 1)};
    testing::internal::CaptureStderr();
    EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ReadClipCacheFromSharedMemory: stored count " + std::to_string(count) +
                  " runs past the segment of 13091 bytes; image ignored\n");
    EXPECT_EQ(namesOf(clips), std::vector<std::string>{"kept.mov"});
  }

  // The largest count that fits is read whole.
  patchSegment(names.options.clipSegment, 15, native32(2));
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(clips.size(), 2u);
}

// A segment made by someone else, too small even for the header, is never read or written past its end.
TEST(ClipCache, SegmentTooSmallForTheHeaderIsNeverOverrun) {
  ScopedNames names;
  {
    bip::shared_memory_object segment(bip::create_only, names.options.clipSegment.c_str(), bip::read_write);
    segment.truncate(17);
    bip::shared_memory_object playlists(bip::create_only, names.options.playlistSegment.c_str(),
                                        bip::read_write);
    playlists.truncate(20);
    bip::named_mutex clipLock(bip::create_only, names.options.clipLock.c_str());
    bip::named_mutex playlistLock(bip::create_only, names.options.playlistLock.c_str());
  }
  MediaCacheOptions existing = names.options;
  existing.create = false;
  MediaCache cache(existing);
  EXPECT_EQ(cache.ClipSegmentSize(), 17u);

  EXPECT_THROW(cache.WriteClipCacheToSharedMemory({}), boost::interprocess::interprocess_exception);
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);

  patchSegment(names.options.clipSegment, 0,
               std::vector<unsigned char>(kClipMagic.begin(), kClipMagic.end()));
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ReadClipCacheFromSharedMemory: segment of 17 bytes is too small for an image; image ignored\n");
  EXPECT_TRUE(clips.empty());
  cache.FlushClips();
  EXPECT_EQ(segmentBytes(names.options.clipSegment)[0], '*');

  // The playlist segment, 20 bytes, holds its magic but not its count.
  const std::string playlistMagic = "SharedPlaylistCache";
  patchSegment(names.options.playlistSegment, 0,
               std::vector<unsigned char>(playlistMagic.begin(), playlistMagic.end()));
  PlaylistMap playlists;
  testing::internal::CaptureStderr();
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(playlists), 0);
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "ReadPlaylistCacheFromSharedMemory: segment of 20 bytes is too small for an image; image ignored\n");
  EXPECT_TRUE(playlists.empty());
}

// Flush invalidates both images; FlushPlaylists only the playlist image.
TEST(ClipCache, FlushInvalidatesBothImages) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  cache.InitializePlaylists();

  cache.FlushPlaylists();
  std::list<Clip> clips;
  PlaylistMap playlists;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(playlists), 0);
  EXPECT_EQ(segmentBytes(names.options.playlistSegment)[0], '*');

  cache.InitializePlaylists();
  cache.Flush();
  clips.clear();
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 0);
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(playlists), 0);
  EXPECT_TRUE(clips.empty());
  EXPECT_TRUE(playlists.empty());
}

// Destroy and the destructor leave the segments, their images and the mutexes in place.
TEST(ClipCache, DestroyAndDestructorKeepTheSharedCache) {
  ScopedNames names;
  {
    MediaCache cache(names.options);
    cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
    EXPECT_EQ(cache.Destroy(), 1);
    std::list<Clip> clips;
    EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  }
  MediaCacheOptions existing = names.options;
  existing.create = false;
  MediaCache again(existing);
  std::list<Clip> clips;
  EXPECT_EQ(again.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"A.mov"});
  EXPECT_EQ(MediaCache::Remove(names.options), 4);
  EXPECT_EQ(MediaCache::Remove(names.options), 0);
}

// Segments are created at the size of the largest catalogue asked for.
TEST(ClipCache, SegmentsAreCreatedForTheLargestCatalogue) {
  ScopedNames names(5, 3);
  MediaCache cache(names.options);
  EXPECT_EQ(MediaCache::ClipImageSize(5), 19u + 6536u * 5);
  EXPECT_EQ(MediaCache::PlaylistImageSize(3), 23u + 53316u * 3);
  EXPECT_EQ(cache.ClipSegmentSize(), 32699u);
  EXPECT_EQ(cache.PlaylistSegmentSize(), 159971u);
}

// Opening existing segments grows small ones, keeps larger ones and keeps their images.
TEST(ClipCache, OpeningGrowsSmallSegmentsAndKeepsImages) {
  ScopedNames names(2, 1);
  {
    MediaCache small(names.options);
    small.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  }
  MediaCacheOptions bigger = names.options;
  bigger.maxClips = 10;
  bigger.maxPlaylists = 2;
  MediaCache grown(bigger);
  EXPECT_EQ(grown.ClipSegmentSize(), MediaCache::ClipImageSize(10));
  EXPECT_EQ(grown.PlaylistSegmentSize(), MediaCache::PlaylistImageSize(2));
  std::list<Clip> clips;
  EXPECT_EQ(grown.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), std::vector<std::string>{"A.mov"});

  MediaCache smaller(names.options);
  EXPECT_EQ(smaller.ClipSegmentSize(), MediaCache::ClipImageSize(10));
  EXPECT_EQ(smaller.WriteClipCacheToSharedMemory(std::list<Clip>(10, makeClip("X.mov", 1))), 1);
}

// Opening only existing segments fails with the interprocess exception when they are missing.
TEST(ClipCache, OpeningMissingSegmentsWithoutCreateThrows) {
  ScopedNames names;
  MediaCacheOptions existing = names.options;
  existing.create = false;
  EXPECT_THROW(MediaCache cache(existing), boost::interprocess::interprocess_exception);
  EXPECT_EQ(MediaCache::Remove(names.options), 0) << "nothing may be left behind";
}

// A catalogue too large to map is refused when the cache is made.
TEST(ClipCache, UnmappableCatalogueSizeIsRefused) {
  ScopedNames names;
  names.options.maxClips = static_cast<std::size_t>(-1) / 2;
  EXPECT_THROW(MediaCache cache(names.options), boost::interprocess::interprocess_exception);
}

// The default names and sizes the device's processes use.
TEST(ClipCache, DefaultOptions) {
  const MediaCacheOptions defaults;
  EXPECT_EQ(defaults.clipSegment, "vorta.clips");
  EXPECT_EQ(defaults.clipLock, "vorta.clips.lock");
  EXPECT_EQ(defaults.playlistSegment, "vorta.playlists");
  EXPECT_EQ(defaults.playlistLock, "vorta.playlists.lock");
  EXPECT_EQ(defaults.maxClips, 4000u);
  EXPECT_EQ(defaults.maxPlaylists, 200u);
  EXPECT_EQ(MediaCache::ClipImageSize(defaults.maxClips), 26144019u);
  EXPECT_EQ(MediaCache::PlaylistImageSize(defaults.maxPlaylists), 10663223u);
  const MediaCacheOptions named = MediaCacheOptions::named("x");
  EXPECT_EQ(named.clipSegment, "x.clips");
  EXPECT_EQ(named.playlistLock, "x.playlists.lock");
}

// Two cache objects on the same names share one catalogue.
TEST(ClipCache, TwoObjectsShareOneCatalogue) {
  ScopedNames names;
  MediaCache writer(names.options);
  MediaCache reader(names.options);
  writer.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  std::list<Clip> clips;
  EXPECT_EQ(reader.ReadClipCacheFromSharedMemory(clips), 1);
  EXPECT_EQ(namesOf(clips), (std::vector<std::string>{"A.mov", "B.mov"}));
  reader.FlushClips();
  clips.clear();
  EXPECT_EQ(writer.ReadClipCacheFromSharedMemory(clips), 0);
}

}  // namespace

namespace visiting {

// Each record a visit is handed, whole.
std::vector<std::vector<unsigned char>> visitedRecords(MediaCache& cache, int& result) {
  std::vector<std::vector<unsigned char>> seen;
  result = cache.VisitClips([&seen](Clip& clip) {
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&clip);
    seen.emplace_back(raw, raw + sizeof(Clip));
  });
  return seen;
}

// A visit sees every stored record in catalogue order, byte for byte what
// ReadClipCacheFromSharedMemory gives (padding and bytes after a name's NUL too).
TEST(ClipVisit, SeesEveryRecordAsTheListWouldHoldIt) {
  ScopedNames names;
  MediaCache cache(names.options);
  fillSegment(names.options.clipSegment, 0x5A);
  Clip odd = makeClip("B.mov", 5, 2);
  odd.name[100] = 'z';  // past the name's NUL
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 9, 1), odd, makeClip("C.mov", 1, 3)});

  int result = -1;
  const auto seen = visitedRecords(cache, result);
  EXPECT_EQ(result, 1);
  std::list<Clip> clips;
  ASSERT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  ASSERT_EQ(seen.size(), 3u);
  auto it = clips.begin();
  for (const auto& record : seen) {
    EXPECT_EQ(std::memcmp(record.data(), &*it, sizeof(Clip)), 0);
    ++it;
  }
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(seen[1].data())), "B.mov");
  EXPECT_EQ(seen[1][100], 'z');
  EXPECT_EQ(seen[2][6535], 0x5A);  // the padding comes from the segment
}

// An empty image is valid and visits nothing; no image, a flushed one or a
// count running past the segment give 0 and no visit.
TEST(ClipVisit, VisitsNothingOfAnImageThatIsNotThere) {
  ScopedNames names(2, 1);
  MediaCache cache(names.options);
  int result = -1;
  EXPECT_TRUE(visitedRecords(cache, result).empty());
  EXPECT_EQ(result, 0);

  cache.WriteClipCacheToSharedMemory({});
  EXPECT_TRUE(visitedRecords(cache, result).empty());
  EXPECT_EQ(result, 1);

  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  cache.FlushClips();
  EXPECT_TRUE(visitedRecords(cache, result).empty());
  EXPECT_EQ(result, 0);

  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  patchSegment(names.options.clipSegment, 15, native32(3));
  testing::internal::CaptureStderr();
  EXPECT_TRUE(visitedRecords(cache, result).empty());
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "ReadClipCacheFromSharedMemory: stored count 3 runs past the segment of 13091 bytes; image ignored\n");
  EXPECT_EQ(result, 0);
}

// The record handed on is the visit's own copy: changing it changes nothing stored.
TEST(ClipVisit, TheVisitChangesACopyNotTheImage) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  const std::vector<unsigned char> before = segmentBytes(names.options.clipSegment);
  std::vector<std::string> seen;
  EXPECT_EQ(cache.VisitClips([&seen](Clip& clip) {
    seen.emplace_back(clip.name);
    std::memset(static_cast<void*>(&clip), 0xFF, sizeof clip);
  }),
            1);
  EXPECT_EQ(seen, (std::vector<std::string>{"A.mov", "B.mov"}));
  EXPECT_EQ(segmentBytes(names.options.clipSegment), before);
}

// A visit that throws ends the walk; the lock is free again afterwards.
TEST(ClipVisit, AnExceptionFromTheVisitReleasesTheLock) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2), makeClip("C.mov", 3)});
  int calls = 0;
  EXPECT_THROW(cache.VisitClips([&calls](Clip&) {
    if (++calls == 2) throw std::runtime_error("stop");
  }),
               std::runtime_error);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(namesOf(cache.GetClips()), (std::vector<std::string>{"A.mov", "B.mov", "C.mov"}));
}

// The visit runs under the clip lock: a clip method of the same cache called
// from it is refused at once (no wait for itself), and the lock is free afterwards.
TEST(ClipVisit, AClipMethodCalledFromTheVisitIsRefused) {
  ScopedNames names;
  MediaCache cache(names.options);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  EXPECT_THROW(cache.VisitClips([&cache](Clip&) { cache.GetClips(); }),
               boost::interprocess::interprocess_exception);
  EXPECT_THROW(cache.VisitClips([&cache](Clip&) { cache.WriteClipCacheToSharedMemory({}); }),
               boost::interprocess::interprocess_exception);
  EXPECT_EQ(cache.ClipLockState().kind, MediaCache::LockState::Free);
  EXPECT_EQ(namesOf(cache.GetClips()), std::vector<std::string>{"A.mov"});
}

}  // namespace visiting

namespace rewrite {

// Clips A to Z style: n records with distinct names, times and fields.
std::list<Clip> catalogue(std::size_t n) {
  std::list<Clip> clips;
  for (std::size_t i = 0; i < n; ++i)
    clips.push_back(makeClip("C" + std::to_string(i) + ".mov", static_cast<int32_t>(100 + i),
                             static_cast<unsigned>(i + 1)));
  return clips;
}

// The records as read back, their stored bytes only.
std::vector<std::vector<unsigned char>> storedBytes(MediaCache& cache) {
  std::list<Clip> clips;
  EXPECT_EQ(cache.ReadClipCacheFromSharedMemory(clips), 1);
  std::vector<std::vector<unsigned char>> out;
  for (const Clip& clip : clips) {
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&clip);
    out.emplace_back(raw, raw + Clip::kStoredSize);
  }
  return out;
}

std::vector<std::vector<unsigned char>> storedBytes(const std::list<Clip>& clips) {
  std::vector<std::vector<unsigned char>> out;
  for (const Clip& clip : clips) {
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&clip);
    out.emplace_back(raw, raw + Clip::kStoredSize);
  }
  return out;
}

// A catalogue written again with the records it holds is left as it is:
// another process watching the segment's first byte, without the lock,
// never sees the image invalid while it is rewritten, and every byte stays.
TEST(ClipCache, RewritingTheRecordsInPlaceLeavesTheImageValidThroughout) {
  ScopedNames names(64, 1);
  MediaCache cache(names.options);
  const std::list<Clip> clips = rewrite::catalogue(64);
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
  const std::vector<unsigned char> before = segmentBytes(names.options.clipSegment);

  int ready[2], stop[2], seen[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(stop), 0);
  ASSERT_EQ(::pipe(seen), 0);
  const pid_t watcher = ::fork();
  ASSERT_GE(watcher, 0);
  if (watcher == 0) {
    bip::shared_memory_object segment(bip::open_only, names.options.clipSegment.c_str(), bip::read_only);
    bip::mapped_region region(segment, bip::read_only);
    const volatile unsigned char* first = static_cast<const unsigned char*>(region.get_address());
    ::fcntl(stop[0], F_SETFL, O_NONBLOCK);
    unsigned invalid = 0;
    char byte = 0;
    if (::write(ready[1], "r", 1) != 1) ::_exit(2);
    while (::read(stop[0], &byte, 1) != 1)
      for (int i = 0; i < 1000; ++i) invalid += *first == '*';
    ::_exit(::write(seen[1], &invalid, sizeof invalid) == sizeof invalid ? 0 : 2);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  for (int round = 0; round < 200; ++round) ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
  ASSERT_EQ(::write(stop[1], "s", 1), 1);
  unsigned invalid = 99;
  ASSERT_EQ(::read(seen[0], &invalid, sizeof invalid), static_cast<ssize_t>(sizeof invalid));
  int status = 0;
  ASSERT_EQ(::waitpid(watcher, &status, 0), watcher);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (int fd : {ready[0], ready[1], stop[0], stop[1], seen[0], seen[1]}) ::close(fd);
  EXPECT_EQ(invalid, 0u);
  EXPECT_TRUE(segmentBytes(names.options.clipSegment) == before);
}

// A record that differs in any stored byte, first, middle or last, is
// written, and so is every record after it; the padding stays the segment's.
TEST(ClipCache, ARecordThatDiffersInOneByteIsWrittenWithThoseAfterIt) {
  for (std::size_t changed : {std::size_t{0}, std::size_t{5}, std::size_t{9}}) {
    for (std::size_t offset : {std::size_t{0}, std::size_t{1000}, Clip::kStoredSize - 1}) {
      ScopedNames names(10, 1);
      MediaCache cache(names.options);
      fillSegment(names.options.clipSegment, 0xA5);
      std::list<Clip> clips = rewrite::catalogue(10);
      ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
      // The records after the changed one are spoiled in the segment: only a
      // write puts them right.
      for (std::size_t i = changed + 1; i < 10; ++i)
        patchSegment(names.options.clipSegment,
                     MediaCache::kClipHeaderSize + i * MediaCache::kClipSlotSize + 7, {0xEE});
      unsigned char* raw = reinterpret_cast<unsigned char*>(&*std::next(clips.begin(), changed));
      raw[offset] ^= 0x5A;
      ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
      EXPECT_TRUE(rewrite::storedBytes(cache) == rewrite::storedBytes(clips)) << changed << " " << offset;
      const std::vector<unsigned char> bytes = segmentBytes(names.options.clipSegment);
      EXPECT_EQ(slice(bytes, 0, 15), kClipMagic);
      for (std::size_t i = 0; i < 10; ++i) {
        const std::size_t padding =
            MediaCache::kClipHeaderSize + i * MediaCache::kClipSlotSize + Clip::kStoredSize;
        EXPECT_EQ(slice(bytes, padding, 3), (std::vector<unsigned char>{0xA5, 0xA5, 0xA5})) << i;
      }
    }
  }
}

// Records in place count only under a valid image of the same count: a
// flushed image, or one of another count, is written whole and made valid.
TEST(ClipCache, RecordsInPlaceCountOnlyUnderAValidImageOfTheSameCount) {
  ScopedNames names(10, 1);
  MediaCache cache(names.options);
  const std::list<Clip> clips = rewrite::catalogue(6);
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
  cache.FlushClips();
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(clips), 1);
  EXPECT_TRUE(rewrite::storedBytes(cache) == rewrite::storedBytes(clips));

  std::list<Clip> more = clips;
  more.push_back(makeClip("C6.mov", 106, 7));
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(more), 1);
  EXPECT_TRUE(rewrite::storedBytes(cache) == rewrite::storedBytes(more));
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 15, 4), native32(7));

  std::list<Clip> fewer = clips;
  fewer.pop_back();
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(fewer), 1);
  EXPECT_TRUE(rewrite::storedBytes(cache) == rewrite::storedBytes(fewer));
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 15, 4), native32(5));

  // The same records under a count patched to another value: written again
  // with the right count.
  patchSegment(names.options.clipSegment, 15, native32(4));
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory(fewer), 1);
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 15, 4), native32(5));
  EXPECT_TRUE(rewrite::storedBytes(cache) == rewrite::storedBytes(fewer));

  // An empty catalogue over a flushed image: valid again, count 0.
  cache.FlushClips();
  ASSERT_EQ(cache.WriteClipCacheToSharedMemory({}), 1);
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 0, 15), kClipMagic);
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 15, 4), native32(0));
}

}  // namespace rewrite

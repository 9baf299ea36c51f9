// SPDX-License-Identifier: MIT
// Tests of the shared playlist image, adding and removing playlists, and the "All Clips" playlist.
#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "cache_test_support.h"

namespace {

using namespace cache_test;
using vorta_test::TempDir;

std::string textOf(const PlaylistCacheEntry& e) {
  return std::string(e.text, strnlen(e.text, sizeof e.text));
}
std::string pathOf(const PlaylistCacheEntry& e) {
  return std::string(e.path, strnlen(e.path, sizeof e.path));
}

const char kAllClipsEmpty[] = "{\"name\":\"All Clips\",\"cliplist\":[]}";

TEST(PlaylistCacheEntryLayout, RecordIs53316BytesWithFixedOffsets) {
  EXPECT_EQ(sizeof(PlaylistCacheEntry), 53316u);
  EXPECT_EQ(offsetof(PlaylistCacheEntry, path), 0u);
  EXPECT_EQ(offsetof(PlaylistCacheEntry, text), 4096u);
  EXPECT_EQ(offsetof(PlaylistCacheEntry, modTime), 53312u);
  const PlaylistCacheEntry zeroed{};
  EXPECT_TRUE(allZero(&zeroed, sizeof zeroed));
}

// The image of two playlists, compared with bytes placed one field at a time.
TEST(PlaylistCache, GoldenImageOfTwoPlaylists) {
  ScopedNames names(1, 3);
  MediaCache cache(names.options);
  fillSegment(names.options.playlistSegment, 0x5A);

  PlaylistMap playlists;
  playlists["Day 1"] =
      makeEntry("/media/ZEV/Day 1.playlist", "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\"]}", 0x01020304);
  playlists["Best"] = makeEntry("/media/ZEV/Best.playlist", "{\"name\":\"Best\",\"cliplist\":[]}", -2);
  EXPECT_EQ(cache.WritePlaylistCacheToSharedMemory(playlists), 1);

  const std::vector<unsigned char> actual = segmentBytes(names.options.playlistSegment);
  std::vector<unsigned char> expected(actual.size(), 0x5A);
  putText(expected, 0, "SharedPlaylistCache");
  put(expected, 19, native32(2));
  // Entries in key order: "Best" before "Day 1".
  std::size_t slot = 23;
  put(expected, slot, std::vector<unsigned char>(53316, 0));
  putText(expected, slot, "/media/ZEV/Best.playlist");
  putText(expected, slot + 4096, "{\"name\":\"Best\",\"cliplist\":[]}");
  put(expected, slot + 53312, {0xFF, 0xFF, 0xFF, 0xFE});
  if (!bigEndianHost()) put(expected, slot + 53312, {0xFE, 0xFF, 0xFF, 0xFF});
  slot = 23 + 53316;
  put(expected, slot, std::vector<unsigned char>(53316, 0));
  putText(expected, slot, "/media/ZEV/Day 1.playlist");
  putText(expected, slot + 4096, "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\"]}");
  put(expected, slot + 53312, native32(0x01020304));

  EXPECT_EQ(slice(actual, 0, 23), slice(expected, 0, 23));
  EXPECT_EQ(actual[19 - 1], 'e');
  EXPECT_TRUE(slice(actual, 23, 53316) == slice(expected, 23, 53316));
  EXPECT_TRUE(slice(actual, 23 + 53316, 53316) == slice(expected, 23 + 53316, 53316));
  EXPECT_TRUE(actual == expected) << "the segment differs beyond the image";
}

// Keys are not stored: a reader derives them from the paths.
TEST(PlaylistCache, ReadDerivesKeysFromPaths) {
  ScopedNames names(1, 4);
  MediaCache cache(names.options);
  PlaylistMap written;
  written["x"] = makeEntry("/media/ZEV/One.playlist", "{}", 1);
  written["y"] = makeEntry("/media/ZEV/Two", "{}", 2);
  written["z"] = makeEntry("Three.playlist.json", "{}", 3);
  cache.WritePlaylistCacheToSharedMemory(written);

  PlaylistMap read;
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(read), 1);
  EXPECT_EQ(keysOf(read), (std::vector<std::string>{"One", "Three", "Two"}));
  EXPECT_TRUE(sameBytes(&read["One"], &written["x"], sizeof(PlaylistCacheEntry)));
  EXPECT_TRUE(sameBytes(&read["Two"], &written["y"], sizeof(PlaylistCacheEntry)));
}

TEST(PlaylistCache, KeyIsTheBaseNameCutBeforeDotPlaylist) {
  EXPECT_EQ(MediaCache::PlaylistKey("/media/ZEV/Day 1.playlist"), "Day 1");
  EXPECT_EQ(MediaCache::PlaylistKey("/media/ZEV/A.playlist.bak"), "A");
  EXPECT_EQ(MediaCache::PlaylistKey("/media/ZEV/x.playlist/"), "x");
  EXPECT_EQ(MediaCache::PlaylistKey("/media/ZEV/notes.txt"), "notes.txt");
  EXPECT_EQ(MediaCache::PlaylistKey("/a.playlist.dir/B.playlist"), "B");
  EXPECT_EQ(MediaCache::PlaylistKey(".playlist"), "");
  EXPECT_EQ(MediaCache::PlaylistKey(""), ".");
}

// Reading adds to the map and replaces elements of the same key.
TEST(PlaylistCache, ReadAddsToTheMapAndReplacesSameKeys) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap written;
  written["A"] = makeEntry("/m/A.playlist", "new", 5);
  cache.WritePlaylistCacheToSharedMemory(written);

  PlaylistMap read;
  read["A"] = makeEntry("/m/old", "old", 1);
  read["Z"] = makeEntry("/m/Z.playlist", "z", 1);
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(read), 1);
  EXPECT_EQ(keysOf(read), (std::vector<std::string>{"A", "Z"}));
  EXPECT_EQ(textOf(read["A"]), "new");
}

// Two files whose base names differ only after ".playlist" share a key; the later one read wins.
TEST(PlaylistCache, BaseNamesDifferingAfterDotPlaylistShareOneKey) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap written;
  written["1"] = makeEntry("/m/A.playlist", "first", 1);
  written["2"] = makeEntry("/m/A.playlist.old", "second", 2);
  cache.WritePlaylistCacheToSharedMemory(written);
  PlaylistMap read;
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(read), 1);
  EXPECT_EQ(keysOf(read), std::vector<std::string>{"A"});
  EXPECT_EQ(pathOf(read["A"]), "/m/A.playlist.old");
  EXPECT_EQ(textOf(read["A"]), "second");

  // Through the files themselves: adding the second replaces the first.
  TempDir dir;
  writeFileAt(dir.file("B.playlist"), "{\"name\":\"B\",\"cliplist\":[]}", 100);
  writeFileAt(dir.file("B.playlist.bak"), "{\"name\":\"B old\",\"cliplist\":[]}", 200);
  EXPECT_EQ(cache.AddPlaylist(dir.file("B.playlist")), 1);
  EXPECT_EQ(cache.AddPlaylist(dir.file("B.playlist.bak")), 1);
  read.clear();
  cache.ReadPlaylistCacheFromSharedMemory(read);
  EXPECT_EQ(keysOf(read), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(pathOf(read["B"]), dir.file("B.playlist.bak"));
  EXPECT_EQ(read["B"].modTime, 200);
}

// After InitializePlaylists the listing holds "All Clips" alone, listing every clip.
TEST(PlaylistCache, AfterInitializeOnlyAllClipsIsListed) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  writeFileAt(dir.file("P.playlist"), "{\"name\":\"P\",\"cliplist\":[]}", 100);
  cache.AddPlaylist(dir.file("P.playlist"));
  cache.WriteClipCacheToSharedMemory({makeClip("A001.mov", 1), makeClip("B 2.mov", 2), makeClip("C.MOV", 3)});

  cache.InitializePlaylists();
  PlaylistMap stored;
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(stored), 1);
  EXPECT_TRUE(stored.empty());
  EXPECT_EQ(slice(segmentBytes(names.options.playlistSegment), 19, 4), native32(0));

  const PlaylistMap listed = cache.GetPlaylists();
  ASSERT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
  const PlaylistCacheEntry& all = listed.at("All Clips");
  EXPECT_EQ(textOf(all), "{\"name\":\"All Clips\",\"cliplist\":[\"A001.mov\",\"B 2.mov\",\"C.MOV\"]}");
  EXPECT_TRUE(allZero(all.path, sizeof all.path));
  EXPECT_EQ(all.modTime, 0);
  EXPECT_TRUE(allZero(all.text + textOf(all).size(), sizeof all.text - textOf(all).size()));
}

// "All Clips" is listed beside the stored playlists but never stored.
TEST(PlaylistCache, AllClipsIsListedButNeverStored) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  writeFileAt(dir.file("Day 1.playlist"), "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\"]}", 1600000000);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  ASSERT_EQ(cache.AddPlaylist(dir.file("Day 1.playlist")), 1);

  const PlaylistMap listed = cache.GetPlaylists();
  EXPECT_EQ(keysOf(listed), (std::vector<std::string>{"All Clips", "Day 1"}));
  EXPECT_EQ(textOf(listed.at("All Clips")), "{\"name\":\"All Clips\",\"cliplist\":[\"A.mov\"]}");
  EXPECT_EQ(listed.at("Day 1").modTime, 1600000000);
  PlaylistMap stored;
  cache.ReadPlaylistCacheFromSharedMemory(stored);
  EXPECT_EQ(keysOf(stored), std::vector<std::string>{"Day 1"});
  EXPECT_EQ(slice(segmentBytes(names.options.playlistSegment), 19, 4), native32(1));
}

// A cached file named "All Clips.playlist" takes the place of the synthetic entry.
TEST(PlaylistCache, CachedAllClipsFileReplacesTheSyntheticEntry) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  const std::string text = "{\"name\":\"Mine\",\"cliplist\":[\"B.mov\"]}";
  writeFileAt(dir.file("All Clips.playlist"), text, 1234);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1), makeClip("B.mov", 2)});
  ASSERT_EQ(cache.AddPlaylist(dir.file("All Clips.playlist")), 1);

  const PlaylistMap listed = cache.GetPlaylists();
  ASSERT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
  EXPECT_EQ(textOf(listed.at("All Clips")), text);
  EXPECT_EQ(pathOf(listed.at("All Clips")), dir.file("All Clips.playlist"));
  EXPECT_EQ(listed.at("All Clips").modTime, 1234);
}

// With no clips the "All Clips" text lists none.
TEST(PlaylistCache, AllClipsWithNoClipsHasAnEmptyList) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap playlists;
  std::list<Clip> none;
  cache.addAllClipsPlaylistToPlaylistCache(playlists, none);
  ASSERT_EQ(keysOf(playlists), std::vector<std::string>{"All Clips"});
  EXPECT_EQ(textOf(playlists["All Clips"]), kAllClipsEmpty);

  // Also when neither image was ever written, and after a flush.
  PlaylistMap listed = cache.GetPlaylists();
  ASSERT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
  EXPECT_EQ(textOf(listed["All Clips"]), kAllClipsEmpty);
  cache.WriteClipCacheToSharedMemory({makeClip("A.mov", 1)});
  cache.Flush();
  listed = cache.GetPlaylists();
  ASSERT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
  EXPECT_EQ(textOf(listed["All Clips"]), kAllClipsEmpty);
}

// Clip names go into the "All Clips" text as they are, without escaping.
TEST(PlaylistCache, AllClipsWritesNamesUnescaped) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap playlists;
  std::list<Clip> clips = {makeClip("a\"b.mov", 1), makeClip("c\\d.mov", 2)};
  cache.addAllClipsPlaylistToPlaylistCache(playlists, clips);
  EXPECT_EQ(textOf(playlists["All Clips"]),
            "{\"name\":\"All Clips\",\"cliplist\":[\"a\"b.mov\",\"c\\d.mov\"]}");
}

// Clips whose names make an "All Clips" text of exactly `length` characters.
std::list<Clip> clipsForAllClipsText(std::size_t length) {
  // Text: 32 characters of head, "]}" and per clip its quoted name, with commas between.
  const std::size_t fixed = std::strlen("{\"name\":\"All Clips\",\"cliplist\":[") + 2;
  std::list<Clip> clips;
  std::size_t used = fixed;
  int i = 0;
  while (used < length) {
    const std::size_t separator = clips.empty() ? 0 : 1;
    std::size_t nameLength = std::min<std::size_t>(4000, length - used - separator - 2);
    std::string name = "clip" + std::to_string(i++);
    name.resize(nameLength, 'x');
    clips.push_back(makeClip(name, i));
    used += separator + 2 + nameLength;
  }
  return clips;
}

// At 49216 characters the text no longer fits: a message, and an entry without text.
TEST(PlaylistCache, AllClipsTextReaching49216CharactersIsRefused) {
  ScopedNames names;
  MediaCache cache(names.options);

  std::list<Clip> fits = clipsForAllClipsText(49215);
  PlaylistMap playlists;
  testing::internal::CaptureStderr();
  cache.addAllClipsPlaylistToPlaylistCache(playlists, fits);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(textOf(playlists["All Clips"]).size(), 49215u);
  EXPECT_EQ(playlists["All Clips"].text[49215], '\0');

  std::list<Clip> tooMany = clipsForAllClipsText(49216);
  playlists.clear();
  playlists["All Clips"] = makeEntry("/m/All Clips.playlist", "old", 9);
  testing::internal::CaptureStderr();
  cache.addAllClipsPlaylistToPlaylistCache(playlists, tooMany);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "addAllClipsPlaylistToPlaylistCache: Too Many Files! Refusing to create all clips playlist.\n");
  ASSERT_EQ(keysOf(playlists), std::vector<std::string>{"All Clips"});
  EXPECT_TRUE(allZero(&playlists["All Clips"], sizeof(PlaylistCacheEntry)));

  // The same through GetPlaylists, with the catalogue in the clip image.
  ScopedNames large(tooMany.size(), 1);
  MediaCache big(large.options);
  big.WriteClipCacheToSharedMemory(tooMany);
  testing::internal::CaptureStderr();
  const PlaylistMap listed = big.GetPlaylists();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "addAllClipsPlaylistToPlaylistCache: Too Many Files! Refusing to create all clips playlist.\n");
  ASSERT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
  EXPECT_TRUE(allZero(&listed.at("All Clips"), sizeof(PlaylistCacheEntry)));
}

// Adding a valid file stores its path, text and modification time under its key.
TEST(PlaylistCache, AddPlaylistStoresTheFileUnderItsKey) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  const std::string text = "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\",\"B.mov\",\"A.mov\"]}";
  writeFileAt(dir.file("Day 1.playlist"), text, 1600000000);
  EXPECT_EQ(cache.AddPlaylist(dir.file("Day 1.playlist")), 1);

  PlaylistMap stored;
  ASSERT_EQ(cache.ReadPlaylistCacheFromSharedMemory(stored), 1);
  ASSERT_EQ(keysOf(stored), std::vector<std::string>{"Day 1"});
  const PlaylistCacheEntry expected = makeEntry(dir.file("Day 1.playlist"), text, 1600000000);
  EXPECT_TRUE(sameBytes(&stored["Day 1"], &expected, sizeof expected));
}

// A file that is not a playlist is refused and the cache is left as it was.
TEST(PlaylistCache, AddPlaylistOfAnInvalidFileLeavesTheCache) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  writeFileAt(dir.file("good.playlist"), "{\"name\":\"g\",\"cliplist\":[]}", 1);
  writeFileAt(dir.file("bad.playlist"), "{\"name\":\"b\",\"cliplist\":[\"A.mov\",3]}", 1);
  cache.AddPlaylist(dir.file("good.playlist"));
  const std::vector<unsigned char> before = segmentBytes(names.options.playlistSegment);
  EXPECT_EQ(cache.AddPlaylist(dir.file("bad.playlist")), 0);
  EXPECT_EQ(cache.AddPlaylist(dir.file("missing.playlist")), 0);
  EXPECT_TRUE(segmentBytes(names.options.playlistSegment) == before);
}

// Removing with a string that holds no stored path removes nothing but still rewrites the image.
TEST(PlaylistCache, RemoveWithoutMatchRemovesNothingAndStillRewrites) {
  ScopedNames names;
  MediaCache cache(names.options);
  TempDir dir;
  writeFileAt(dir.file("A.playlist"), "{\"name\":\"A\",\"cliplist\":[]}", 1);
  cache.AddPlaylist(dir.file("A.playlist"));
  EXPECT_FALSE(cache.RemovePlaylist("/somewhere/else/A.playlist"));
  PlaylistMap stored;
  cache.ReadPlaylistCacheFromSharedMemory(stored);
  EXPECT_EQ(keysOf(stored), std::vector<std::string>{"A"});

  // The rewrite shows on a flushed image: it becomes a valid, empty one.
  cache.FlushPlaylists();
  EXPECT_FALSE(cache.RemovePlaylist("nothing"));
  stored.clear();
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(stored), 1);
  EXPECT_TRUE(stored.empty());
}

// The first entry in key order whose path occurs in the argument is removed, and only that one.
TEST(PlaylistCache, RemoveTakesTheFirstEntryWhosePathOccursInTheArgument) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap written;
  written["1"] = makeEntry("/m/A.playlist", "a", 1);
  written["2"] = makeEntry("/m/B.playlist", "b", 2);
  written["3"] = makeEntry("/m/C.playlist", "c", 3);
  cache.WritePlaylistCacheToSharedMemory(written);

  EXPECT_TRUE(cache.RemovePlaylist("rm /m/C.playlist /m/B.playlist"));
  PlaylistMap stored;
  cache.ReadPlaylistCacheFromSharedMemory(stored);
  EXPECT_EQ(keysOf(stored), (std::vector<std::string>{"A", "C"}));
  EXPECT_TRUE(cache.RemovePlaylist("/m/C.playlist"));
  stored.clear();
  cache.ReadPlaylistCacheFromSharedMemory(stored);
  EXPECT_EQ(keysOf(stored), std::vector<std::string>{"A"});
}

// Entries with an empty path, or a path that fills its field unterminated, never match.
TEST(PlaylistCache, RemoveIgnoresEmptyAndUnterminatedPaths) {
  ScopedNames names;
  MediaCache cache(names.options);
  PlaylistMap written;
  written["1"] = makeEntry("", "empty", 1);
  written["2"] = makeEntry(std::string(4096, 'p'), "full", 2);
  cache.WritePlaylistCacheToSharedMemory(written);
  EXPECT_FALSE(cache.RemovePlaylist(std::string(5000, 'p')));
  PlaylistMap stored;
  cache.ReadPlaylistCacheFromSharedMemory(stored);
  EXPECT_EQ(stored.size(), 2u);
}

// A playlist write that would not fit throws and leaves the old image.
TEST(PlaylistCache, WriteThatDoesNotFitThrowsAndKeepsTheOldImage) {
  ScopedNames names(1, 1);
  MediaCache cache(names.options);
  PlaylistMap one;
  one["A"] = makeEntry("/m/A.playlist", "a", 1);
  cache.WritePlaylistCacheToSharedMemory(one);
  const std::vector<unsigned char> before = segmentBytes(names.options.playlistSegment);

  PlaylistMap two = one;
  two["B"] = makeEntry("/m/B.playlist", "b", 2);
  try {
    cache.WritePlaylistCacheToSharedMemory(two);
    FAIL() << "a write of 2 playlists into a segment for 1 must throw";
  } catch (const boost::interprocess::interprocess_exception& e) {
    EXPECT_EQ(e.get_error_code(), boost::interprocess::size_error);
    EXPECT_STREQ(
        e.what(),
        "WritePlaylistCacheToSharedMemory: 2 playlists need 106655 bytes but the segment holds 53339");
  }
  EXPECT_TRUE(segmentBytes(names.options.playlistSegment) == before);

  // Adding through the cache throws the same way and keeps the image.
  TempDir dir;
  writeFileAt(dir.file("C.playlist"), "{\"name\":\"C\",\"cliplist\":[]}", 1);
  EXPECT_THROW(cache.AddPlaylist(dir.file("C.playlist")), boost::interprocess::interprocess_exception);
  PlaylistMap stored;
  EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(stored), 1);
  EXPECT_EQ(keysOf(stored), std::vector<std::string>{"A"});
}

// A stored count that runs past the segment makes the playlist image invalid.
TEST(PlaylistCache, CountRunningPastTheSegmentIsRefused) {
  ScopedNames names(1, 1);
  MediaCache cache(names.options);
  cache.InitializePlaylists();
  for (std::uint32_t count : {2u, 0xFFFFFFFFu}) {
    patchSegment(names.options.playlistSegment, 19, native32(count));
    PlaylistMap stored;
    stored["kept"] = PlaylistCacheEntry{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(cache.ReadPlaylistCacheFromSharedMemory(stored), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ReadPlaylistCacheFromSharedMemory: stored count " + std::to_string(count) +
                  " runs past the segment of 53339 bytes; image ignored\n");
    EXPECT_EQ(keysOf(stored), std::vector<std::string>{"kept"});
  }
  // GetPlaylists still lists "All Clips".
  testing::internal::CaptureStderr();
  const PlaylistMap listed = cache.GetPlaylists();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(keysOf(listed), std::vector<std::string>{"All Clips"});
}

}  // namespace

// "All Clips" from the clips' names gives the very entry the clips give, up to
// and including the refusal at 49216 characters.
TEST(PlaylistCache, AllClipsFromNamesIsTheEntryTheClipsGive) {
  ScopedNames names;
  MediaCache cache(names.options);
  for (std::size_t length : {std::size_t(49215), std::size_t(49216)}) {
    std::list<Clip> clips = clipsForAllClipsText(length);
    std::vector<std::string> clipNames = namesOf(clips);
    PlaylistMap fromClips, fromNames;
    testing::internal::CaptureStderr();
    cache.addAllClipsPlaylistToPlaylistCache(fromClips, clips);
    const std::string clipsMessage = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    cache.addAllClipsPlaylistToPlaylistCache(fromNames, clipNames);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), clipsMessage);
    EXPECT_EQ(clipsMessage.empty(), length == 49215);
    ASSERT_EQ(keysOf(fromNames), std::vector<std::string>{"All Clips"});
    EXPECT_TRUE(sameBytes(&fromNames["All Clips"], &fromClips["All Clips"], sizeof(PlaylistCacheEntry)));
  }
  // Names go in as they are: quotes and all.
  PlaylistMap playlists;
  cache.addAllClipsPlaylistToPlaylistCache(playlists, std::vector<std::string>{"a\"b.mov", "c.mov"});
  EXPECT_EQ(textOf(playlists["All Clips"]), "{\"name\":\"All Clips\",\"cliplist\":[\"a\"b.mov\",\"c.mov\"]}");
  cache.addAllClipsPlaylistToPlaylistCache(playlists, std::vector<std::string>{});
  EXPECT_EQ(textOf(playlists["All Clips"]), "{\"name\":\"All Clips\",\"cliplist\":[]}");
}

// SPDX-License-Identifier: MIT
// Tests of reading one playlist file: valid files, and every kind of bad file a medium can hold.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "cache_test_support.h"
#include "fail_alloc.h"

namespace {

using namespace cache_test;
using vorta_test::TempDir;

// Each test reads files through a cache object on names of its own.
class PlaylistFile : public testing::Test {
 protected:
  PlaylistFile() : cache(names.options) { std::memset(&untouched, 0xCC, sizeof untouched); }

  // Reads the file into an entry filled with 0xCC; returns the result and keeps stderr.
  int grok(const std::string& path) {
    entry = untouched;
    testing::internal::CaptureStderr();
    const int result = cache.GrokPlaylist(entry, path);
    errors = testing::internal::GetCapturedStderr();
    return result;
  }
  bool entryUntouched() const { return sameBytes(&entry, &untouched, sizeof entry); }

  ScopedNames names;
  MediaCache cache;
  TempDir dir;
  PlaylistCacheEntry untouched;
  PlaylistCacheEntry entry;
  std::string errors;
};

TEST_F(PlaylistFile, ValidFileFillsPathTextAndTime) {
  const std::string text = "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\",\"B.mov\",\"A.mov\"],\"colour\":3}";
  writeFileAt(dir.file("Day 1.playlist"), text, 1600000000);
  EXPECT_EQ(grok(dir.file("Day 1.playlist")), 1);
  EXPECT_EQ(errors, "");
  const PlaylistCacheEntry expected = makeEntry(dir.file("Day 1.playlist"), text, 1600000000);
  EXPECT_TRUE(sameBytes(&entry, &expected, sizeof entry));
}

// Only the first line is parsed: JSON spread over lines fails unless its first line is whole.
TEST_F(PlaylistFile, JsonOverSeveralLinesFailsUnlessTheFirstLineIsWhole) {
  writeFileAt(dir.file("multi.playlist"), "{\"name\":\"m\",\n\"cliplist\":[]}\n", 1);
  EXPECT_EQ(grok(dir.file("multi.playlist")), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());

  // A complete first line is enough; later lines stay part of the stored text.
  const std::string text = "{\"name\":\"m\",\"cliplist\":[\"A.mov\"]}\nnot json at all\n";
  writeFileAt(dir.file("lines.playlist"), text, 1);
  EXPECT_EQ(grok(dir.file("lines.playlist")), 1);
  EXPECT_EQ(std::string(entry.text), text);

  // A Windows line end leaves a carriage return, which the parser takes as blank space.
  writeFileAt(dir.file("crlf.playlist"), "{\"name\":\"c\",\"cliplist\":[]}\r\n", 1);
  EXPECT_EQ(grok(dir.file("crlf.playlist")), 1);
}

// A number among the clip names makes the whole file invalid.
TEST_F(PlaylistFile, NonStringCliplistElementMakesTheFileInvalid) {
  writeFileAt(dir.file("n.playlist"), "{\"name\":\"n\",\"cliplist\":[\"A.mov\",7,\"B.mov\"]}", 1);
  EXPECT_EQ(grok(dir.file("n.playlist")), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());
  for (const char* item : {"null", "true", "[\"A.mov\"]", "{\"a\":\"b\"}"}) {
    writeFileAt(dir.file("o.playlist"), std::string("{\"name\":\"o\",\"cliplist\":[") + item + "]}", 1);
    EXPECT_EQ(grok(dir.file("o.playlist")), 0) << item;
  }
}

// "name" must be present; one that is not a string leaves the playlist unnamed but valid.
TEST_F(PlaylistFile, NameMustBePresent) {
  writeFileAt(dir.file("a.playlist"), "{\"cliplist\":[\"A.mov\"]}", 1);
  EXPECT_EQ(grok(dir.file("a.playlist")), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());

  writeFileAt(dir.file("b.playlist"), "{\"name\":42,\"cliplist\":[]}", 1);
  EXPECT_EQ(grok(dir.file("b.playlist")), 1);
  writeFileAt(dir.file("c.playlist"), "{\"name\":null,\"cliplist\":[]}", 1);
  EXPECT_EQ(grok(dir.file("c.playlist")), 1);
}

// "cliplist" must be present; its items are walked whatever its JSON type.
TEST_F(PlaylistFile, CliplistMustBePresent) {
  writeFileAt(dir.file("a.playlist"), "{\"name\":\"a\"}", 1);
  EXPECT_EQ(grok(dir.file("a.playlist")), 0);
  EXPECT_TRUE(entryUntouched());
  // A string has no items: an empty playlist.
  writeFileAt(dir.file("b.playlist"), "{\"name\":\"b\",\"cliplist\":\"A.mov\"}", 1);
  EXPECT_EQ(grok(dir.file("b.playlist")), 1);
}

TEST_F(PlaylistFile, NotJsonIsRefused) {
  for (const char* text :
       {"name=Day 1", "{\"name\":\"a\",\"cliplist\":[}", "[\"name\",\"cliplist\"]", "\"text\"", " "}) {
    writeFileAt(dir.file("x.playlist"), text, 1);
    EXPECT_EQ(grok(dir.file("x.playlist")), 0) << text;
    EXPECT_EQ(errors, "") << text;
    EXPECT_TRUE(entryUntouched()) << text;
  }
}

TEST_F(PlaylistFile, EmptyFileIsRefused) {
  writeFileAt(dir.file("empty.playlist"), "", 1);
  EXPECT_EQ(grok(dir.file("empty.playlist")), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());
}

TEST_F(PlaylistFile, BinaryFileIsRefused) {
  std::string bytes;
  for (int i = 0; i < 70000; ++i) bytes += static_cast<char>((i * 7919 + 13) & 0xFF);
  writeFileAt(dir.file("bin.playlist"), bytes, 1);
  EXPECT_EQ(grok(dir.file("bin.playlist")), 0);
  EXPECT_TRUE(entryUntouched());
}

// The text ends at a NUL byte: a valid line followed by binary data keeps only the line.
TEST_F(PlaylistFile, TextEndsAtTheFirstNulByte) {
  const std::string line = "{\"name\":\"z\",\"cliplist\":[\"A.mov\"]}";
  writeFileAt(dir.file("z.playlist"), line + std::string("\0\xFF\xFE junk", 8), 1);
  EXPECT_EQ(grok(dir.file("z.playlist")), 1);
  EXPECT_EQ(std::string(entry.text), line);
  EXPECT_TRUE(allZero(entry.text + line.size(), sizeof entry.text - line.size()));

  writeFileAt(dir.file("y.playlist"), std::string(1, '\0') + "{\"name\":\"y\",\"cliplist\":[]}", 1);
  EXPECT_EQ(grok(dir.file("y.playlist")), 0);
}

// A file larger than the text field is valid when its first line is; the text is cut, unterminated.
TEST_F(PlaylistFile, FileLargerThanTheTextFieldIsCut) {
  std::string text = "{\"name\":\"long\",\"cliplist\":[\"A.mov\"]}\n";
  while (text.size() < 60000) text += "padding line that is never parsed\n";
  writeFileAt(dir.file("long.playlist"), text, 5);
  EXPECT_EQ(grok(dir.file("long.playlist")), 1);
  EXPECT_TRUE(sameBytes(entry.text, text.data(), sizeof entry.text));
  EXPECT_EQ(entry.modTime, 5);
}

// Only the first 544767 characters of the first line are parsed.
TEST_F(PlaylistFile, FirstLineIsParsedUpTo544767Characters) {
  const std::string head = "{\"name\":\"wide\",\"cliplist\":[\"A.mov\"";
  const std::string tail = "]}";
  std::string fits = head + std::string(544767 - head.size() - tail.size(), ' ') + tail;
  ASSERT_EQ(fits.size(), 544767u);
  writeFileAt(dir.file("fits.playlist"), fits, 1);
  EXPECT_EQ(grok(dir.file("fits.playlist")), 1);
  EXPECT_TRUE(sameBytes(entry.text, fits.data(), sizeof entry.text));

  std::string cut = head + std::string(544768 - head.size() - tail.size(), ' ') + tail;
  writeFileAt(dir.file("cut.playlist"), cut + "\n", 1);
  EXPECT_EQ(grok(dir.file("cut.playlist")), 0);
  EXPECT_TRUE(entryUntouched());

  // A huge file costs no more than its first line: the rest is never read.
  std::string huge = "{\"name\":\"huge\",\"cliplist\":[]}\n" + std::string(3 * 1024 * 1024, 'x');
  writeFileAt(dir.file("huge.playlist"), huge, 1);
  EXPECT_EQ(grok(dir.file("huge.playlist")), 1);
}

// A missing file is reported with the system's error text after its path.
TEST_F(PlaylistFile, MissingFileIsReportedWithItsPath) {
  EXPECT_EQ(grok(dir.file("gone.playlist")), 0);
  EXPECT_EQ(errors, dir.file("gone.playlist") + ": No such file or directory\n");
  EXPECT_TRUE(entryUntouched());

  ASSERT_EQ(symlink(dir.file("nowhere").c_str(), dir.file("dangling.playlist").c_str()), 0);
  EXPECT_EQ(grok(dir.file("dangling.playlist")), 0);
  EXPECT_EQ(errors, dir.file("dangling.playlist") + ": No such file or directory\n");
}

// A file that can be looked at but not opened (here a socket) is refused silently.
TEST_F(PlaylistFile, FileThatCannotBeOpenedIsRefusedSilently) {
  const std::string path = dir.file("s.playlist");
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(grok(path), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());
  close(fd);
}

// A playlist file that cannot be opened for want of a descriptor is not
// refused silently as a file of the wrong kind: 0 with the open's error.
TEST_F(PlaylistFile, NoDescriptorLeftGivesTheOpensError) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  const std::string path = dir.file("p.playlist");
  writeFileAt(path, "{\"name\":\"p\",\"cliplist\":[\"A.mov\"]}", 1);
  EXPECT_EQ(vorta_test::inChild([&]() -> int {
              if (!vorta_test::limitDescriptors(0)) return 10;
              entry = untouched;
              errno = 0;
              const int result = cache.GrokPlaylist(entry, path);
              const int error = errno;
              if (result != 0) return 1;
              if (error != EMFILE) return 2;
              return entryUntouched() ? 0 : 3;
            }),
            0)
      << "2: errno is not EMFILE";
}

// A directory named like a playlist is not a regular file: refused
// silently, without being opened for reading.
TEST_F(PlaylistFile, DirectoryIsRefused) {
  const std::string path = dir.file("d.playlist");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  EXPECT_EQ(grok(path), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());
}

// A FIFO named like a playlist does not block the reader.
TEST_F(PlaylistFile, FifoDoesNotBlock) {
  const std::string path = dir.file("f.playlist");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(grok(path), 0);
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(entryUntouched());
}

// A file without read permission is refused silently (root reads it anyway).
TEST_F(PlaylistFile, UnreadableFile) {
  const std::string path = dir.file("locked.playlist");
  writeFileAt(path, "{\"name\":\"l\",\"cliplist\":[]}", 1);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const bool canRead = access(path.c_str(), R_OK) == 0;
  EXPECT_EQ(grok(path), canRead ? 1 : 0);
  EXPECT_EQ(errors, "");
}

}  // namespace

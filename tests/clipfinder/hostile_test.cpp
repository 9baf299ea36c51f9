// SPDX-License-Identifier: MIT
// Hostile surroundings for ClipFinder's names and playlist files: special files named like playlists, no
// descriptor to spare.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "clipfinder_support.h"
#include "fail_alloc.h"

namespace {

using clipfinder_test::clip;
using clipfinder_test::RecordingParams;
using clipfinder_test::UniqueCaches;

// Runs fn in a child and gives its exit code, or -1 when it was still
// running after `seconds` (it is then killed): an open that blocks shows up
// as a failure instead of hanging the suite.
int inChildWithin(int seconds, const std::function<int()>& fn) { return vorta_test::inChild(fn, seconds); }

// Takes every descriptor the process may still open (the limit is lowered
// first, so that this is quick); false when that could not be arranged.
bool useUpDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  limit.rlim_cur = 64;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  while (::dup(2) >= 0) {
  }
  return errno == EMFILE;
}

class ClipFinderHostile : public ::testing::Test {
 protected:
  ClipFinderHostile() : finder(&params, caches.config), cache(caches.config) {
    zev = dir.file("ZEV");
    ::mkdir(zev.c_str(), 0755);
    params.setParamString(eParamMediaDir, zev);
  }
  // writePlaylist of name in a child, within 20 seconds: its result and
  // what it wrote on standard error.
  int writeInChild(const std::string& name, const std::string& expectedError, bool expected = false) {
    return inChildWithin(20, [&] {
      std::string n = name, text = R"({"name":"x","cliplist":[]})";
      testing::internal::CaptureStderr();
      const bool ok = finder.writePlaylist(n, text);
      const std::string err = testing::internal::GetCapturedStderr();
      if (ok != expected) return 1;
      return err == expectedError ? 0 : 2;
    });
  }

  vorta_test::TempDir dir;
  std::string zev;
  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder;
  zev::media::MediaCache cache;
};

// What a refused special file says: the reason as errno gives it.
std::string refused(const char* reason) {
  return std::string("ClipFinder::writePlaylist - call to zev::utils::file::File::write_file failed: ") +
         reason + "\n";
}

// A FIFO with no writer named like a playlist: the open used to wait for a
// writer for ever. It is refused at once.
TEST_F(ClipFinderHostile, WriteToAFifoIsRefusedWithoutBlocking) {
  const std::string path = zev + "/pipe.playlist";
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  const int status = writeInChild("pipe.playlist", refused("Invalid argument"));
  EXPECT_EQ(status, 0) << (status == -1 ? "writePlaylist blocked on the FIFO" : "wrong result");
}

TEST_F(ClipFinderHostile, WriteToASocketIsRefused) {
  const std::string path = zev + "/sock.playlist";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const int status =
      writeInChild("sock.playlist",
                   "ClipFinder::writePlaylist - call to zev::utils::file::File::write_file failed: "
                   "No such device or address\n");
  ::close(fd);
  EXPECT_EQ(status, 0);
}

TEST_F(ClipFinderHostile, WriteToADirectoryOrADeviceIsRefused) {
  ASSERT_EQ(::mkdir((zev + "/dir.playlist").c_str(), 0755), 0);
  EXPECT_EQ(writeInChild("dir.playlist", refused("Is a directory")), 0);
  ASSERT_EQ(::symlink("/dev/null", (zev + "/null.playlist").c_str()), 0);
  EXPECT_EQ(writeInChild("null.playlist", refused("Invalid argument")), 0);
}

TEST_F(ClipFinderHostile, WriteThroughLinks) {
  ASSERT_EQ(::symlink((zev + "/nowhere.playlist").c_str(), (zev + "/dangling.playlist").c_str()), 0);
  EXPECT_EQ(
      writeInChild("dangling.playlist",
                   "ClipFinder::writePlaylist - call to zev::utils::file::File::write_file failed: No such "
                   "file or directory\n"),
      0);
  // A link to a regular file is that file: opened, left unchanged.
  vorta_test::writeFile(zev + "/real.playlist", "BEFORE");
  ASSERT_EQ(::symlink((zev + "/real.playlist").c_str(), (zev + "/link.playlist").c_str()), 0);
  EXPECT_EQ(writeInChild("link.playlist", "", true), 0);
  EXPECT_EQ(vorta_test::readFile(zev + "/real.playlist"), "BEFORE");
}

// With no descriptor to spare, the write reports the system's reason and
// returns false; the busy parameter still goes back to 2.
TEST_F(ClipFinderHostile, WriteWithNoDescriptorToSpareFails) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  vorta_test::writeFile(zev + "/full.playlist", "BEFORE");
  const int status = inChildWithin(20, [&] {
    if (!useUpDescriptors()) return 3;
    std::string n = "full.playlist", text = "x";
    const bool ok = finder.writePlaylist(n, text);
    if (ok) return 1;
    return params.getParam(eParamMediaBusy) == 2 ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(vorta_test::readFile(zev + "/full.playlist"), "BEFORE");
}

// Building a name opens nothing: every schema, the slave one reading the
// shared clip cache among them, gives the same name with no descriptor to
// spare.
TEST_F(ClipFinderHostile, NamesAreBuiltWithNoDescriptorToSpare) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  params.setParam(eParamClipNameScene, 1);
  params.setParam(eParamClipNameNumber, 12);
  params.setParam(eParamClipNameLetterOn, 1);
  params.setParam(eParamClipNameLetter, 'A');
  params.setParam(eParamTake, 3);
  std::list<Clip> clips{clip("SC12ATK1.mov"), clip("SC12ATK2.mov")};
  const int status = inChildWithin(20, [&] {
    if (!useUpDescriptors()) return 3;
    std::string name;
    if (finder.buildClipName(name, &clips) != 0 || name != "SC12ATK3.mov") return 1;
    params.setParam(eParamLinkMode, 1);
    params.setParam(eParamLinkRole, 0);
    params.setParam(eParamLinkClipName, 0);
    params.setParamString(eParamMasterClipName, "A001TK2");
    std::list<Clip> onMedia{clip("A001TK2.mov")};
    cache.WriteClipCacheToSharedMemory(onMedia);
    if (finder.buildClipName(name, &clips) != 0 || name != "A001TK3.mov") return 2;
    return 0;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace

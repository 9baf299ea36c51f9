// SPDX-License-Identifier: MIT
// Hostile media: FIFOs, sockets, directories and links named like clips and playlists, exhausted
// descriptors and heap, and scans killed part-way; nothing may hang, and a scan that cannot read the
// whole medium must not publish part of it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "clipfinder_support.h"
#include "fail_alloc.h"
#include "fileparams.h"
#include "media_cache.h"
#include "paramstore.h"
#include "test_support.h"

namespace {

using clipfinder_test::clip;
using clipfinder_test::names;
using clipfinder_test::RecordingParams;
using clipfinder_test::UniqueCaches;
using vorta_test::dataPath;
using vorta_test::inChild;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;
using zev::media::MediaCache;
using Names = std::vector<std::string>;

void place(const std::string& fixture, const std::string& path, time_t modTime) {
  writeFile(path, readFile(dataPath("qt/" + fixture)));
  struct timespec times[2] = {{modTime, 0}, {modTime, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// A bound AF_UNIX socket at path; the descriptor stays open for the test.
int bindSocket(const std::string& path) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

const char* kPlaylistText = R"({"name":"Reel","cliplist":["A.mov","B.mov"]})";

// A medium with two clips and one playlist among special files named like
// clips and playlists: FIFOs, a bound socket, directories, dangling links,
// a link to a FIFO, and a link to a clip (which counts, under its own name).
class HostileMedium {
 public:
  HostileMedium() {
    place("hd1080_p25.mov", media.file("A.mov"), 1000);
    place("prores_proxy_25.mov", media.file("B.mov"), 2000);
    writeFile(media.file("Reel.playlist"), kPlaylistText);
    for (const char* name : {"fifo.mov", "fifo.MOV", "fifo.playlist"})
      EXPECT_EQ(mkfifo(media.file(name).c_str(), 0644), 0) << name;
    for (const char* name : {"socket.mov", "socket.playlist"}) {
      sockets.push_back(bindSocket(media.file(name)));
      EXPECT_GE(sockets.back(), 0) << name;
    }
    for (const char* name : {"dir.mov", "dir.playlist"}) EXPECT_EQ(mkdir(media.file(name).c_str(), 0755), 0);
    for (const char* name : {"dangling.mov", "dangling.playlist"})
      EXPECT_EQ(symlink(media.file("nothing-here").c_str(), media.file(name).c_str()), 0);
    EXPECT_EQ(symlink(media.file("fifo.mov").c_str(), media.file("tofifo.mov").c_str()), 0);
    EXPECT_EQ(symlink(media.file("fifo.playlist").c_str(), media.file("tofifo.playlist").c_str()), 0);
    EXPECT_EQ(symlink("/dev/zero", media.file("zero.mov").c_str()), 0);
    EXPECT_EQ(symlink("/dev/zero", media.file("zero.playlist").c_str()), 0);
    EXPECT_EQ(symlink(media.file("B.mov").c_str(), media.file("link.mov").c_str()), 0);
  }
  ~HostileMedium() {
    for (int fd : sockets)
      if (fd >= 0) close(fd);
  }
  TempDir media;
  std::vector<int> sockets;
};

const Names kExpectedClips = {"A.mov", "B.mov", "link.mov"};  // link.mov has B's time; found order decides

Names sortedNames(const std::list<Clip>& clips) {
  Names out = names(clips);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

// MediaCache::ScanMedia on the hostile medium: returns at once with exactly
// the two clips, the link to a clip, and the one playlist.
TEST(HostileMedia, ScanSkipsSpecialFilesNamedLikeClipsAndPlaylists) {
  HostileMedium medium;
  UniqueCaches caches;
  MediaCache cache(caches.config);
  cache.WriteClipCacheToSharedMemory({clip("old.mov")});
  const int result = inChild([&] {
    MediaCache scanner(caches.config);
    std::string dir = medium.media.path();
    return scanner.ScanMedia(dir, ENCODE_PRORES_422) == 1 ? 0 : 1;
  });
  ASSERT_EQ(result, 0) << "-1: the scan hung";
  const std::list<Clip> clips = cache.GetClips();
  EXPECT_EQ(clips.size(), 3u);
  EXPECT_EQ(sortedNames(clips), kExpectedClips);
  EXPECT_EQ(clips.front().modTime, 1000);
  // The playlist read, besides the "All Clips" the cache adds.
  const auto playlists = cache.GetPlaylists();
  EXPECT_EQ(playlists.size(), 2u);
  ASSERT_EQ(playlists.count("Reel"), 1u);
  EXPECT_STREQ(playlists.at("Reel").text, kPlaylistText);
}

// The same through ClipFinder::scanMedia: 0, the busy parameter 1 then 2,
// three clips and the playlist besides "All Clips".
TEST(HostileMedia, ClipFinderScanOfTheHostileMediumEndsWithBusyBackToTwo) {
  HostileMedium medium;
  UniqueCaches caches;
  const int result = inChild([&] {
    RecordingParams params;
    params.setParam(eParamEncodeType, ENCODE_PRORES_422);
    params.writes.clear();
    ClipFinder finder(&params, caches.config);
    if (finder.scanMedia(medium.media.path()) != 0) return 1;
    if (params.busyWrites() != std::vector<uint32_t>{1, 2}) return 2;
    if (finder.findClips(true, false, true).size() != 3) return 3;
    if (finder.findPlaylists().size() != 2) return 4;
    return 0;
  });
  EXPECT_EQ(result, 0) << "-1: the scan hung";
}

// Intake of one special file through GrokClip, AddClip and GrokPlaylist.
TEST(HostileMedia, IntakeOfOneSpecialFileFailsWithoutBlocking) {
  HostileMedium medium;
  UniqueCaches caches;
  const int result = inChild([&] {
    MediaCache cache(caches.config);
    int code = 0;
    for (const char* name : {"fifo.mov", "socket.mov", "dir.mov", "dangling.mov", "tofifo.mov", "zero.mov"}) {
      ++code;
      Clip fresh;
      errno = EBADF;
      if (cache.GrokClip(fresh, medium.media.file(name), false)) return code;
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) return 50 + code;
      int index = -7;
      if (cache.AddClip(medium.media.file(name), 0, index, false) != 0 || index != -7) return 20 + code;
    }
    for (const char* name : {"fifo.playlist", "socket.playlist", "dir.playlist", "dangling.playlist",
                             "tofifo.playlist", "zero.playlist"}) {
      ++code;
      PlaylistCacheEntry entry{};
      if (cache.GrokPlaylist(entry, medium.media.file(name)) != 0) return code;
      if (entry.text[0] != '\0' || entry.path[0] != '\0') return 20 + code;
    }
    return 0;
  });
  EXPECT_EQ(result, 0) << "-1: an intake hung";
}

// Descriptors this process has open now.
int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd)
    if (fcntl(fd, F_GETFD) != -1) ++count;
  return count;
}

// A FIFO under the name given to writePlaylist is refused without blocking,
// and the regular file's stream is closed again.
TEST(HostileMedia, WritePlaylistRefusesAFifoWithoutBlocking) {
  TempDir media;
  ASSERT_EQ(mkfifo(media.file("fifo.playlist").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(media.file("dir.playlist").c_str(), 0755), 0);
  writeFile(media.file("real.playlist"), "kept");
  UniqueCaches caches;
  const int result = inChild([&] {
    RecordingParams params;
    params.setParamString(eParamMediaDir, media.path());
    ClipFinder finder(&params, caches.config);
    std::string text = "{}";
    for (const char* name : {"fifo.playlist", "dir.playlist"}) {
      std::string file = name;
      if (finder.writePlaylist(file, text)) return 1;
    }
    std::string real = "real.playlist";
    const int descriptors = openDescriptors();
    if (!finder.writePlaylist(real, text)) return 2;  // opened (read-only): true, file unchanged
    if (openDescriptors() != descriptors) return 4;   // the stream is closed again
    if (params.busyWrites() != std::vector<uint32_t>{1, 2, 1, 2, 1, 2}) return 3;
    return 0;
  });
  EXPECT_EQ(result, 0) << "-1: writePlaylist hung";
  EXPECT_EQ(readFile(media.file("real.playlist")), "kept");
}

// With no descriptor left the scan gives up: -1 from ClipFinder, the busy
// parameter back to 2 and the catalogue as it was, whether the directory
// itself could not be opened or only the files in it.
TEST(HostileMedia, DescriptorExhaustionAbandonsTheScanAndKeepsTheCatalogue) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  HostileMedium medium;
  UniqueCaches caches;
  MediaCache cache(caches.config);
  vorta_test::TempDir dir;
  const std::string said = dir.file("stderr");
  for (int spare = 0; spare <= 1; ++spare) {
    cache.WriteClipCacheToSharedMemory({clip("old.mov")});
    const int result = inChild([&] {
      RecordingParams params;
      params.setParam(eParamEncodeType, ENCODE_PRORES_422);
      params.writes.clear();
      ClipFinder finder(&params, caches.config);
      finder.findClips(true, false, true);  // the cache is open before the limit
      if (std::freopen(said.c_str(), "w", stderr) == nullptr) return 13;
      std::setvbuf(stderr, nullptr, _IONBF, 0);  // as standard error always is
      // spare 0: not even the directory opens; 1: the directory and nothing else.
      if (!vorta_test::limitDescriptors(spare)) return 12;
      if (finder.scanMedia(medium.media.path()) != -1) return 1;
      if (params.busyWrites() != std::vector<uint32_t>{1, 2}) return 2;
      return 0;
    });
    EXPECT_EQ(result, 0) << "spare descriptors " << spare;
    EXPECT_EQ(names(cache.GetClips()), (Names{"old.mov"})) << "spare descriptors " << spare;
    // Said once, with the reason and the directory or the file that could
    // not be opened, before the front end's own line.
    const std::string text = vorta_test::readFile(said);
    const std::string tail =
        ": Too many open files; scan abandoned, caches left as they were\n"
        "classes/fileutils: ScanMedia failed\n";
    EXPECT_EQ(text.rfind("ScanMedia: " + medium.media.path(), 0), 0u) << text;
    ASSERT_GE(text.size(), tail.size()) << text;
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
  }
}

// Every allocation of a scan made to fail in turn: the scan either finishes
// with the whole medium or gives up with the catalogue as it was; it never
// ends the process and never publishes part of the medium.
TEST(HostileMedia, AllocationFailureAtEveryPointGivesAWholeScanOrNone) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  HostileMedium medium;
  UniqueCaches caches;
  const int result = inChild([&]() -> int {
    MediaCache cache(caches.config);
    std::string dir = medium.media.path();
    cache.InitializePlaylists();
    int wholeScans = 0, abandoned = 0;
    for (long budget = 0; budget < 20000; ++budget) {
      cache.WriteClipCacheToSharedMemory({clip("old.mov")});
      int scanned = -1;
      long refused = 0;
      try {
        vorta_test::FailAlloc failing(budget);
        scanned = cache.ScanMedia(dir, ENCODE_PRORES_422);
        refused = vorta_test::FailAlloc::failures();
      } catch (const std::bad_alloc&) {
        return 1;  // an allocation failure escaped the scan
      }
      const Names found = sortedNames(cache.GetClips());
      if (scanned == 1) {
        if (found != kExpectedClips) return 2;
        ++wholeScans;
        if (refused == 0) break;  // the budget was never used up: every point has been tried
      } else if (scanned == 0) {
        if (found != Names{"old.mov"}) return 3;
        ++abandoned;
      } else {
        return 4;
      }
    }
    if (abandoned == 0 || wholeScans == 0) return 5;
    return 0;
  });
  EXPECT_EQ(result, 0)
      << "1 escaped, 2 partial catalogue, 3 abandoned scan changed the cache, 5 sweep incomplete";
}

// A scan killed at random moments: the next scan works, and the busy
// parameter, left at 1 by the killed process, is 2 again after it.
TEST(HostileMedia, AScanKilledAtRandomMomentsLeavesTheNextScanWorking) {
  TempDir media;
  Names expected;
  for (int i = 0; i < 40; ++i) {
    const std::string name = "C" + std::to_string(100 + i) + ".mov";
    place("prores_proxy_25.mov", media.file(name), 1000 + i);
    expected.push_back(name);
  }
  TempDir state;
  const std::string paramsPath = state.file("params.json");
  UniqueCaches caches;
  std::mt19937 random(4242);
  const int rounds = vorta_test::underEmulation() ? 3 : 8;
  for (int round = 0; round < rounds; ++round) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      FileParamStore params(paramsPath);
      params.setParam(eParamEncodeType, ENCODE_PRORES_422);
      ClipFinder finder(&params, caches.config);
      for (;;) finder.scanMedia(media.path());
    }
    usleep(std::uniform_int_distribution<unsigned>(1000, 60000)(random));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    FileParamStore params(paramsPath);
    const uint32_t left = params.getParam(eParamMediaBusy);
    EXPECT_TRUE(left == 1 || left == 2) << left;
    ClipFinder finder(&params, caches.config);
    ASSERT_EQ(finder.scanMedia(media.path()), 0) << "round " << round;
    EXPECT_EQ(params.getParam(eParamMediaBusy), 2u);
    EXPECT_EQ(names(finder.findClips(true, false, true)), expected);
  }
}

// A clip whose name is as long as the file system allows (255 bytes) is
// taken with its whole name; the record's name field has room for it.
TEST(HostileMedia, AClipNameOfTheLongestAllowedLengthIsKeptWhole) {
  TempDir media;
  const std::string longest = std::string(255 - 4, 'n') + ".mov";
  place("prores_proxy_25.mov", media.file(longest), 1000);
  ASSERT_EQ(::access(media.file(longest).c_str(), F_OK), 0);
  std::string tooLong = media.file(std::string(256 - 4, 'n') + ".mov");
  EXPECT_EQ(::open(tooLong.c_str(), O_WRONLY | O_CREAT, 0644), -1);  // 256 bytes: the system refuses it
  EXPECT_EQ(errno, ENAMETOOLONG);
  UniqueCaches caches;
  MediaCache cache(caches.config);
  std::string dir = media.path();
  ASSERT_EQ(cache.ScanMedia(dir, ENCODE_PRORES_422), 1);
  EXPECT_EQ(names(cache.GetClips()), (Names{longest}));
  static_assert(Clip::kNameSize > 255, "a clip name field holds the longest file name");
}

// SPDX-License-Identifier: MIT
// Tests of the scan's read-ahead: the catalogue is the same byte for byte with and without it,
// through io_uring and through its fallback, cold and warm, near the descriptor limit.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <liburing.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "../qt/mov_builder.h"
#include "fail_alloc.h"
#include "fileparams.h"
#include "internal/scan_prefetch.h"
#include "media_cache.h"
#include "test_support.h"

namespace {

using vorta_test::dataPath;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;
using zev::detail::ScanPrefetch;
using zev::detail::scanPrefetchEngineHook;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;
using Engine = ScanPrefetch::Engine;

// Sets the read-ahead's hooks for a scope: the most it may use, and whether
// reads are tried without waiting first (without, every read goes through
// the engine, as on a medium nothing of which is cached).
struct EngineLimit {
  explicit EngineLimit(Engine most, bool probes = true) {
    scanPrefetchEngineHook = most;
    zev::detail::scanPrefetchProbeHook = probes;
  }
  ~EngineLimit() {
    scanPrefetchEngineHook = Engine::Ring;
    zev::detail::scanPrefetchProbeHook = true;
  }
};

// A cache of its own, removed afterwards.
struct FreshCache {
  explicit FreshCache(std::size_t clips = 256)
      : options(MediaCacheOptions::named(vorta_test::uniqueName("vorta_ahead"))) {
    options.maxClips = clips;
    options.maxPlaylists = 8;
  }
  ~FreshCache() { MediaCache::Remove(options); }
  MediaCacheOptions options;
};

// The bytes of a shared-memory object.
std::string segmentBytes(const std::string& name) {
  const int fd = shm_open(("/" + name).c_str(), O_RDONLY, 0);
  if (fd < 0) return "";
  struct stat st;
  std::string bytes;
  if (fstat(fd, &st) == 0) {
    bytes.resize(static_cast<std::size_t>(st.st_size));
    std::size_t got = 0;
    while (got < bytes.size()) {
      const ssize_t n = pread(fd, &bytes[got], bytes.size() - got, static_cast<off_t>(got));
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
  }
  close(fd);
  return bytes;
}

void setTime(const std::string& path, time_t when) {
  struct timespec times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// A medium of `clips` clips: built movies with the moov at the end (out of
// the reader's first window, as in a recording), at the start, with 64-bit
// chunk offsets, fragmented with the timecode sample in a fragment, and the
// committed clips (ffmpeg, GStreamer and libquicktime layouts, fragmented
// ones among them); then what the scan leaves out: malformed clips, a FIFO
// and a directory named like clips, a dangling link, and a playlist.
class Medium {
 public:
  explicit Medium(int clips) {
    std::vector<std::string> fixtures;
    DIR* d = opendir(dataPath("qt").c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
      const std::string name = e->d_name;
      if (name.size() > 4 &&
          (name.substr(name.size() - 4) == ".mov" || name.substr(name.size() - 4) == ".MOV"))
        fixtures.push_back(name);
    }
    if (d) closedir(d);
    std::sort(fixtures.begin(), fixtures.end());
    const char* codecs[] = {"apcn", "apch", "apcs", "apco", "ap4h", "2vuy", "v210"};
    for (int i = 0; i < clips; ++i) {
      std::string name = "clip" + std::to_string(i);
      std::string bytes;
      movbuild::Movie m;
      m.codec = codecs[i % 7];
      m.frames = 2 + static_cast<uint32_t>(i % 11);
      m.timecode = true;
      m.startFrame = 1000u * static_cast<uint32_t>(i);
      m.audio = {{1, static_cast<uint32_t>(1 + i % 3)}};
      switch (i % 5) {
        case 0:  // moov at the end, past a gap
          bytes = movbuild::gapBeforeMoov(movbuild::build(m), 600 + 37 * i);
          name += "_end.mov";
          break;
        case 1:  // moov first
          m.moovFirst = true;
          bytes = movbuild::build(m);
          name += "_fast.mov";
          break;
        case 2:  // moov at the end, 64-bit chunk offsets
          m.timecodeCo64 = true;
          bytes = movbuild::gapBeforeMoov(movbuild::build(m), 900 + 13 * i);
          name += "_co64.MOV";
          break;
        case 3: {  // fragmented, the timecode sample in the first fragment
          movbuild::FragmentedMovie f;
          f.timecode = true;
          bytes = movbuild::fragmentedHead(f);
          for (uint32_t s = 1; s <= 3; ++s) {
            std::vector<movbuild::Run> runs = {{1, movbuild::samples(1 + s, 1, 300), ""}};
            if (s == 1) runs.push_back({2, {{1, 4}}, movbuild::be32(777u * static_cast<uint32_t>(i))});
            bytes += movbuild::fragment(s, runs);
          }
          name += "_frag.mov";
          break;
        }
        default:  // a committed clip
          bytes = readFile(dataPath("qt/" + fixtures[static_cast<std::size_t>(i / 5) % fixtures.size()]));
          name += "_" + fixtures[static_cast<std::size_t>(i / 5) % fixtures.size()];
      }
      add(name, bytes, 1700000000 + (i * 7919) % 100000);
    }
    int n = 0;
    for (const char* bad :
         {"trunc_moov.mov", "moov_beyond_file.mov", "tc_sample_cut.mov", "frag_cut_last.mov"})
      add("bad" + std::to_string(n++) + "_" + bad, readFile(dataPath(std::string("qt/bad/") + bad)),
          1700000001);
    EXPECT_EQ(mkfifo(dir.file("fifo.mov").c_str(), 0644), 0);
    EXPECT_EQ(mkdir(dir.file("folder.mov").c_str(), 0755), 0);
    EXPECT_EQ(symlink("nowhere", dir.file("dangling.mov").c_str()), 0);
    add("Selects.playlist", R"({"name":"Selects","cliplist":["clip1_fast.mov"]})", 1700000002);
  }
  const std::string& path() const { return dir.path(); }
  const std::vector<std::string>& files() const { return files_; }

  // Every file of the medium out of the page cache, where the file system
  // lets go of it (not a file system held in memory).
  void dropCaches() const {
    for (const auto& file : files_) {
      const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      fdatasync(fd);
      posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
      close(fd);
    }
  }

 private:
  void add(const std::string& name, const std::string& bytes, time_t when) {
    files_.push_back(dir.file(name));
    writeFile(files_.back(), bytes);
    setTime(files_.back(), when);
  }
  TempDir dir;
  std::vector<std::string> files_;
};

// The clip and playlist images of a scan of the medium into a fresh cache,
// reading ahead through at most `most`, from cold when asked.
struct Images {
  std::string clips, playlists;
  std::size_t count = 0;
  std::string messages;  // what the scan wrote on standard error
};
Images scanImages(const Medium& medium, Engine most, bool cold, bool probes = true) {
  EngineLimit limit(most, probes);
  FreshCache fresh;
  Images images;
  {
    MediaCache cache(fresh.options);
    if (cold) medium.dropCaches();
    std::string dir = medium.path();
    testing::internal::CaptureStderr();
    EXPECT_EQ(cache.ScanMedia(dir, ENCODE_PRORES_422_HQ), 1);
    images.messages = testing::internal::GetCapturedStderr();
    images.count = cache.GetClips().size();
  }
  images.clips = segmentBytes(fresh.options.clipSegment);
  images.playlists = segmentBytes(fresh.options.playlistSegment);
  return images;
}

// The clip candidates of a directory stream, from where it is, as the scan
// reads them.
std::vector<struct dirent64> candidatesOf(DIR* d) {
  std::vector<struct dirent64> out;
  while (const struct dirent64* e = readdir64(d))
    if (std::strstr(e->d_name, ".mov") != nullptr) out.push_back(*e);
  return out;
}

// What the system offers here: io_uring (not under qemu-user or a seccomp
// filter, say) and reads that do not wait.
bool kernelHasRing() {
  io_uring ring;
  if (io_uring_queue_init(4, &ring, 0) != 0) return false;
  io_uring_queue_exit(&ring);
  return true;
}

// The catalogue a scan publishes, and what it says on standard error, are
// the same byte for byte whether the scan reads ahead through io_uring,
// through posix_fadvise or not at all, cold or warm, on a medium of 200
// clips of every layout (and of what is left out).
TEST(ScanReadAhead, TheCatalogueIsByteForByteTheSameWithAndWithout) {
  Medium medium(200);
  const Images plain = scanImages(medium, Engine::Off, false);
  ASSERT_GE(plain.count, 150u);
  EXPECT_EQ(plain.messages, medium.path() + "/dangling.mov: No such file or directory\n");
  ASSERT_GT(plain.clips.size(), MediaCache::ClipImageSize(plain.count) - 1);
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    for (const int run : {0, 1, 2}) {  // cold, warm, every read through the engine
      SCOPED_TRACE(std::string(engine == Engine::Ring ? "io_uring" : "posix_fadvise") +
                   (run == 0   ? ", cold"
                    : run == 1 ? ", warm"
                               : ", without probes"));
      const Images ahead = scanImages(medium, engine, run == 0, run != 2);
      EXPECT_EQ(ahead.count, plain.count);
      EXPECT_TRUE(ahead.clips == plain.clips) << "the clip images differ";
      EXPECT_TRUE(ahead.playlists == plain.playlists) << "the playlist images differ";
      EXPECT_EQ(ahead.messages, plain.messages);
    }
  }
}

// The engine: io_uring where the kernel has it, posix_fadvise where it has
// not or where the hook asks for the fallback, nothing when turned off.
TEST(ScanReadAhead, UsesIoUringWhereTheKernelHasItAndFallsBackElsewhere) {
  TempDir dir;
  writeFile(dir.file("a.mov"), readFile(dataPath("qt/tc_ndf_25.mov")));
  DIR* d = opendir(dir.path().c_str());
  ASSERT_NE(d, nullptr);
  {
    EngineLimit limit(Engine::Ring, false);  // the read has to go through the ring
    ScanPrefetch ahead(dir.path(), d);
    // Until a read needs it; never on a processor where the ring is not used.
    EXPECT_EQ(ahead.engine(), ScanPrefetch::kRingUsable ? Engine::Ring : Engine::Advice);
    const auto entries = candidatesOf(d);
    ASSERT_EQ(entries.size(), 1u);
    ahead.ready(entries[0]);
    EXPECT_EQ(ahead.filesRead(), 1u);
    if (ScanPrefetch::kRingUsable && kernelHasRing()) {
      EXPECT_EQ(ahead.engine(), Engine::Ring);
    } else {
      std::printf("io_uring is not used here (%s): the fallback is used\n",
                  !ScanPrefetch::kRingUsable     ? "32-bit PowerPC"
                  : vorta_test::underEmulation() ? "emulated kernel"
                                                 : "refused by the kernel");
      EXPECT_EQ(ahead.engine(), Engine::Advice);
    }
  }
  {
    EngineLimit limit(Engine::Advice);
    ScanPrefetch ahead(dir.path(), d);
    EXPECT_EQ(ahead.engine(), Engine::Advice);
  }
  {
    EngineLimit limit(Engine::Off);
    ScanPrefetch ahead(dir.path(), d);
    EXPECT_EQ(ahead.engine(), Engine::Off);
    rewinddir(d);
    ahead.ready(candidatesOf(d).at(0));  // does nothing
    EXPECT_EQ(ahead.filesRead(), 0u);
  }
  closedir(d);
}

// ready() walks the candidates in the directory's order and reads each one
// ahead; a name out of step with the directory stops the read-ahead, which
// then does nothing more.
TEST(ScanReadAhead, FollowsTheScanAndStopsWhenOutOfStep) {
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    EngineLimit limit(engine, false);  // every file as if not cached: all are taken in hand at once
    TempDir dir;
    for (int i = 0; i < 6; ++i)
      writeFile(dir.file("c" + std::to_string(i) + ".mov"), readFile(dataPath("qt/prores_422_25.mov")));
    writeFile(dir.file("notes.txt"), "not a clip");
    DIR* d = opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    ScanPrefetch ahead(dir.path(), d);
    const auto order = candidatesOf(d);
    ASSERT_EQ(order.size(), 6u);
    for (std::size_t i = 0; i < 3; ++i) ahead.ready(order[i]);
    EXPECT_NE(ahead.engine(), Engine::Off);
    EXPECT_EQ(ahead.filesRead(), 6u);  // the first three and the three after them
    ahead.ready(order[4]);             // the scan skipped one: out of step
    EXPECT_EQ(ahead.engine(), Engine::Off);
    ahead.ready(order[5]);
    EXPECT_EQ(ahead.engine(), Engine::Off);
    closedir(d);
  }
}

// A medium already in the page cache is probed one file in many only, so a
// warm scan does not pay for reading ahead; where reads cannot be tried
// without waiting, every file is read ahead.
TEST(ScanReadAhead, ACachedMediumIsProbedOneFileInMany) {
  TempDir dir;
  const std::string clip = readFile(dataPath("qt/prores_422_25.mov"));
  for (int i = 0; i < 300; ++i) writeFile(dir.file("c" + std::to_string(i) + ".mov"), clip);
  // Whether this system tries reads without waiting.
  const int fd = open(dir.file("c0.mov").c_str(), O_RDONLY | O_CLOEXEC);
  char byte;
  iovec one{&byte, 1};
  const bool probes = preadv2(fd, &one, 1, 0, RWF_NOWAIT) == 1;
  close(fd);
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    EngineLimit limit(engine);
    DIR* d = opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    ScanPrefetch ahead(dir.path(), d);
    for (const auto& entry : candidatesOf(d)) ahead.ready(entry);
    if (probes) {
      EXPECT_LT(ahead.filesRead(), 75u);
      EXPECT_EQ(ahead.filesCached(), ahead.filesRead());
    } else {
      std::printf("reads cannot be tried without waiting here: every file is read ahead\n");
      EXPECT_EQ(ahead.filesRead(), 300u);
    }
    closedir(d);
  }
}

// A clip whose moov is larger than the read-ahead holds at once is left to
// the intake (the kernel is only told to fetch it): the clip is taken all
// the same, with the same record.
TEST(ScanReadAhead, AMoovLargerThanTheBudgetIsLeftToTheIntake) {
  TempDir dir;
  movbuild::Movie m;
  m.timecode = true;
  m.startFrame = 4242;
  std::string big = movbuild::build(m);
  const std::size_t moov = big.find("moov") - 4;
  const std::string pad = movbuild::atom("free", std::string(ScanPrefetch::kMaxBytes + 4096, '\0'));
  // The free atom inside the moov, after its tracks.
  const uint32_t size = (static_cast<uint8_t>(big[moov]) << 24 | static_cast<uint8_t>(big[moov + 1]) << 16 |
                         static_cast<uint8_t>(big[moov + 2]) << 8 | static_cast<uint8_t>(big[moov + 3]));
  big.replace(moov, 4, movbuild::be32(static_cast<uint32_t>(size + pad.size())));
  big.insert(moov + size, pad);
  writeFile(dir.file("big.mov"), big);
  writeFile(dir.file("small.mov"), readFile(dataPath("qt/tc_ndf_25.mov")));
  std::vector<std::string> records[2];
  int k = 0;
  for (const Engine engine : {Engine::Off, Engine::Ring}) {
    EngineLimit limit(engine);
    FreshCache fresh(8);
    MediaCache cache(fresh.options);
    std::string path = dir.path();
    ASSERT_EQ(cache.ScanMedia(path, ENCODE_PRORES_422_HQ), 1);
    for (const Clip& c : cache.GetClips())
      records[k].emplace_back(reinterpret_cast<const char*>(&c), Clip::kStoredSize);
    ++k;
  }
  ASSERT_EQ(records[0].size(), 2u);
  EXPECT_TRUE(records[0] == records[1]);
}

// Near the descriptor limit the read-ahead takes only what it can spare and
// always leaves one descriptor for the intake: with two to six descriptors
// free the scan takes every clip, as it does without reading ahead.
TEST(ScanReadAhead, NearTheDescriptorLimitTheIntakeKeepsADescriptor) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  Medium medium(20);
  const std::size_t expected = scanImages(medium, Engine::Off, false).count;
  ASSERT_GE(expected, 16u);
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    for (int spare = 2; spare <= 6; ++spare) {
      SCOPED_TRACE(std::to_string(spare) + " spare descriptors, " +
                   (engine == Engine::Ring ? "io_uring" : "advice"));
      EngineLimit limit(engine);
      FreshCache fresh(64);
      const int result = vorta_test::inChild([&] {
        MediaCache cache(fresh.options);
        cache.GetClips();  // the cache's own descriptors are open before the limit
        medium.dropCaches();
        if (!vorta_test::limitDescriptors(spare)) return 12;
        std::string dir = medium.path();
        if (cache.ScanMedia(dir, ENCODE_PRORES_422_HQ) != 1) return 1;
        return cache.GetClips().size() == expected ? 0 : 2;
      });
      EXPECT_EQ(result, 0) << "1: the scan gave up, 2: clips were missing";
    }
  }
}

}  // namespace

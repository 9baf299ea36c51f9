// SPDX-License-Identifier: MIT
// Tests of the scan's read-ahead: the catalogue is the same byte for byte with and without it,
// through io_uring and through its fallback, cold and warm, near the descriptor limit.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <dlfcn.h>
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
#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "../qt/mov_builder.h"
#include "alloc_failure.h"
#include "fail_alloc.h"
#include "fileparams.h"
#include "internal/scan_prefetch.h"
#include "media_cache.h"
#include "qtstreaming.h"
#include "test_support.h"

// What the kernel answers to reads tried without waiting, as a test wants it,
// and the announcements the read-ahead makes: this binary's own
// preadv64v2 and posix_fadvise64 come before the C library's.
namespace kernel {
// While set, a read tried without waiting (RWF_NOWAIT) of the file open as fd
// first asks this: a negative errno fails the read with it, 0 lets it be made.
std::function<int(int fd)> nowait;
// While set, a read tried without waiting of more than one byte comes back
// one byte short (the rest comes with the next read).
bool shortReads = false;
// Announcements (POSIX_FADV_WILLNEED) made, and the files they were made of.
unsigned long announcements = 0;
// (a table of its own: the fake kernel never allocates, which a test making
// allocations fail would notice)
struct Announced {
  std::pair<dev_t, ino_t> files[1024];
  std::size_t count = 0;
  bool has(const std::pair<dev_t, ino_t>& file) const {
    return std::find(files, files + count, file) != files + count;
  }
  void add(const std::pair<dev_t, ino_t>& file) {
    if (!has(file) && count < 1024) files[count++] = file;
  }
  void clear() { count = 0; }
} announced;

std::pair<dev_t, ino_t> fileOf(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return {0, 0};
  return {st.st_dev, st.st_ino};
}
// While set, closes of a number that is no open descriptor (EBADF) are counted.
bool countBadCloses = false;
unsigned long badCloses = 0;
}  // namespace kernel

extern "C" int close(int fd) {
  using Real = int (*)(int);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "close"));
  const int result = real(fd);
  if (result != 0 && errno == EBADF && kernel::countBadCloses) ++kernel::badCloses;
  return result;
}

extern "C" ssize_t preadv64v2(int fd, const struct iovec* iov, int count, off64_t offset, int flags) {
  using Real = ssize_t (*)(int, const struct iovec*, int, off64_t, int);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "preadv64v2"));
  if ((flags & RWF_NOWAIT) != 0 && kernel::nowait) {
    const int answer = kernel::nowait(fd);
    if (answer < 0) {
      errno = -answer;
      return -1;
    }
    // A call that succeeds may leave errno as it likes; the caller must not
    // read it then.
    errno = EAGAIN;
    // The answer says the bytes are there: read them so, without the flag,
    // also where the kernel or an emulator knows no reads without waiting.
    flags &= ~RWF_NOWAIT;
    if (kernel::shortReads && count == 1 && iov[0].iov_len > 1) {
      struct iovec shorter = iov[0];
      --shorter.iov_len;
      return real(fd, &shorter, 1, offset, flags);
    }
  }
  return real(fd, iov, count, offset, flags);
}

extern "C" int posix_fadvise64(int fd, off64_t offset, off64_t length, int advice) {
  using Real = int (*)(int, off64_t, off64_t, int);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "posix_fadvise64"));
  if (advice == POSIX_FADV_WILLNEED) {
    ++kernel::announcements;
    kernel::announced.add(kernel::fileOf(fd));
  }
  return real(fd, offset, length, advice);
}

namespace {

using vorta_test::dataPath;
using vorta_test::readFile;
using vorta_test::TempDir;
using vorta_test::writeFile;
using zev::detail::isClipCandidate;
using zev::detail::ScanPrefetch;
using zev::detail::scanPrefetchEngineHook;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;
using Engine = ScanPrefetch::Engine;
using Stats = ScanPrefetch::Stats;

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

// Sets what reads tried without waiting get, for a scope, and forgets the
// announcements made before it.
struct KernelAnswers {
  explicit KernelAnswers(std::function<int(int fd)> answer) {
    kernel::nowait = std::move(answer);
    kernel::announced.clear();
    kernel::announcements = 0;
  }
  ~KernelAnswers() {
    kernel::nowait = nullptr;
    kernel::shortReads = false;
    kernel::announced.clear();
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
  // A link named name to target, a clip of the medium.
  void link(const std::string& name, const std::string& target) {
    EXPECT_EQ(symlink(target.c_str(), dir.file(name).c_str()), 0);
  }

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
    if (e->d_name[0] != '.' && isClipCandidate(e->d_name)) out.push_back(*e);
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

// The movie with a free atom of `bytes` bytes (its header included) in its
// moov, after the tracks.
std::string withMoovPadding(std::string movie, std::size_t bytes) {
  const std::size_t moov = movie.find("moov") - 4;
  const uint32_t size =
      (static_cast<uint8_t>(movie[moov]) << 24 | static_cast<uint8_t>(movie[moov + 1]) << 16 |
       static_cast<uint8_t>(movie[moov + 2]) << 8 | static_cast<uint8_t>(movie[moov + 3]));
  movie.replace(moov, 4, movbuild::be32(static_cast<uint32_t>(size + bytes)));
  movie.insert(moov + size, movbuild::atom("free", std::string(bytes - 8, '\0')));
  return movie;
}

// What the movie reader reads of one clip candidate, and so what the
// read-ahead reads of it: its reads, their bytes, the first one's length, and
// the read calls they take (a read the end of the file cuts short takes one
// more, which finds the end).
struct ReaderReads {
  bool started = false;  // a regular file of which the reader wants a read
  unsigned long reads = 0, calls = 0;
  unsigned long long bytes = 0;
  std::size_t first = 0;
  std::vector<std::size_t> lengths;  // of each read
};

// The reader's reads of a file found `size` bytes long when it was opened
// (-1: as long as it is now).
ReaderReads readerReads(const std::string& path, long long size = -1) {
  ReaderReads out;
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return out;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  CQTReadSequence sequence(static_cast<uint64_t>(size < 0 ? st.st_size : size));
  out.started = !sequence.Finished();
  uint64_t offset = 0;
  std::size_t length = 0;
  while (sequence.NextRead(offset, length)) {
    unsigned char* buffer = sequence.ReadBuffer();
    if (buffer == nullptr) break;
    ++out.reads;
    out.bytes += length;
    if (out.reads == 1) out.first = length;
    out.lengths.push_back(length);
    std::size_t got = 0;
    int error = 0;
    while (got < length) {
      ++out.calls;
      const ssize_t n = pread(fd, buffer + got, length - got, static_cast<off_t>(offset + got));
      if (n < 0) error = errno;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    sequence.ReadDone(got == length, error);
  }
  close(fd);
  return out;
}

// A medium's clip candidates in the scan's order, with what the reader reads
// of each.
struct Pass {
  Pass(const std::string& dir, std::vector<struct dirent64> found) : entries(std::move(found)) {
    for (const auto& e : entries) reads.push_back(readerReads(dir + "/" + e.d_name));
    while (first < reads.size() && !reads[first].started) ++first;
  }
  std::vector<struct dirent64> entries;
  std::vector<ReaderReads> reads;
  std::size_t first = 0;  // the first candidate the reader reads: reading ahead starts there
};

// Every figure of a read-ahead's stats, for comparing them all at once.
std::string show(const Stats& s) {
  return "filesRead " + std::to_string(s.filesRead) + ", filesCached " + std::to_string(s.filesCached) +
         ", reads " + std::to_string(s.reads) + ", bytes " + std::to_string(s.bytes) + ", leftToIntake " +
         std::to_string(s.leftToIntake) + ", probes " + std::to_string(s.probes) + ", polls " +
         std::to_string(s.polls) + ", waits " + std::to_string(s.waits) + ", advised " +
         std::to_string(s.advised) + ", queued " + std::to_string(s.queued) + ", completions " +
         std::to_string(s.completions) + ", descriptorCounts " + std::to_string(s.descriptorCounts) +
         ", inHand " + std::to_string(s.inHand) + "/" + std::to_string(s.mostInHand) + ", open " +
         std::to_string(s.open) + "/" + std::to_string(s.mostOpen) + " of " + std::to_string(s.openable) +
         ", held " + std::to_string(s.held) + "/" + std::to_string(s.mostHeld) + ", inFlight " +
         std::to_string(s.inFlight) + ", stride " + std::to_string(s.stride) +
         (s.readingAhead ? ", reading ahead" : "");
}

// The stats of a read-ahead through posix_fadvise, on a medium nothing of
// which is cached and with descriptors to spare, once the scan has taken the
// first `taken` candidates. Nothing happens before the first file the reader
// reads; that file has to wait, and from there on every file the scan has
// taken has had all its reads made, each announced and then made when the
// scan came to it, and the kMaxFiles candidates after the last one taken are
// in hand, the readable ones open with their first read announced.
Stats adviceFigures(const Pass& pass, std::size_t taken) {
  Stats x;
  x.descriptorCounts = 1;  // when the read-ahead starts: one descriptor to spare
  if (taken <= pass.first) return x;
  const std::size_t n = pass.reads.size(), k = ScanPrefetch::kMaxFiles;
  // Reading ahead needs a descriptor of its own (counted), and then files
  // open at once are counted as soon as there is a second candidate.
  x.readingAhead = true;
  x.descriptorCounts = n > pass.first + 1 ? 3 : 2;
  x.openable = n > pass.first + 1 ? k : 1;
  x.mostInHand = static_cast<unsigned>(std::min(k, n - pass.first));
  auto started = [&](std::size_t from, std::size_t to, bool firstRead) {
    unsigned long long sum = 0;
    for (std::size_t j = from; j < std::min(to, n); ++j)
      if (pass.reads[j].started) sum += firstRead ? pass.reads[j].first : 1;
    return sum;
  };
  for (std::size_t j = pass.first; j < taken; ++j) {
    const ReaderReads& r = pass.reads[j];
    x.filesRead += r.started ? 1 : 0;
    x.reads += r.reads;
    x.bytes += r.bytes;
    x.advised += r.calls;
    x.waits += r.calls;
    // While the scan is at file j, it holds all of j's reads and the first
    // read of each file after it.
    x.mostHeld = std::max<std::size_t>(x.mostHeld, r.bytes + started(j + 1, j + k, true));
    x.mostOpen = std::max<unsigned>(x.mostOpen, static_cast<unsigned>(started(j, j + k, false)));
  }
  const std::size_t end = std::min(taken + k, n);
  x.inHand = static_cast<unsigned>(end - taken);
  x.open = static_cast<unsigned>(started(taken, end, false));
  x.held = started(taken, end, true);
  x.filesRead += x.open;
  x.reads += x.open;
  x.advised += x.open;
  x.bytes += x.held;
  x.mostOpen = std::max(x.mostOpen, x.open);
  x.mostHeld = std::max(x.mostHeld, x.held);
  return x;
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
    EXPECT_EQ(ahead.stats().filesRead, 1u);
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
    EXPECT_EQ(ahead.stats().filesRead, 0u);
  }
  closedir(d);
}

// A ring set up and taken down gives back all the heap memory it took (the
// kernel's list of what the ring can do included): read-aheads that each set
// one up leave the heap as they found it.
TEST(ScanReadAhead, SettingUpTheRingLeavesNoHeapMemoryBehind) {
  TempDir dir;
  writeFile(dir.file("a.mov"), readFile(dataPath("qt/tc_ndf_25.mov")));
  DIR* d = opendir(dir.path().c_str());
  ASSERT_NE(d, nullptr);
  const auto entries = candidatesOf(d);
  ASSERT_EQ(entries.size(), 1u);
  EngineLimit limit(Engine::Ring, false);  // the read has to go through the ring
  const auto readAhead = [&] {
    ScanPrefetch ahead(dir.path(), d);
    ahead.ready(entries[0]);
    return ahead.engine();
  };
  const Engine engine = readAhead();  // whatever the C library sets up once is set up
  if (engine != Engine::Ring)
    std::printf("io_uring is not used here (%s): the fallback's memory is checked\n",
                !ScanPrefetch::kRingUsable ? "32-bit PowerPC" : "no ring from this kernel");
  const std::size_t before = vorta_test::heapInUse();
  for (int i = 0; i < 50; ++i) ASSERT_EQ(readAhead(), engine);
  const std::size_t after = vorta_test::heapInUse();
  EXPECT_EQ(after, before) << "50 read-aheads kept " << static_cast<long long>(after - before) << " bytes";
  closedir(d);
}

// The read-ahead closes only descriptors it opened: none of its closes, on
// either engine, is of a number that is no open descriptor.
TEST(ScanReadAhead, ClosesOnlyDescriptorsItOpened) {
  Medium medium(12);
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    SCOPED_TRACE(engine == Engine::Ring ? "io_uring" : "posix_fadvise");
    EngineLimit limit(engine, false);
    DIR* d = opendir(medium.path().c_str());
    ASSERT_NE(d, nullptr);
    const auto entries = candidatesOf(d);
    // The clips, four bad ones, and a FIFO, a directory and a dangling link, which are not opened.
    ASSERT_EQ(entries.size(), 19u);
    kernel::badCloses = 0;
    kernel::countBadCloses = true;
    unsigned long filesRead = 0;
    {
      ScanPrefetch ahead(medium.path(), d);
      for (const struct dirent64& entry : entries) ahead.ready(entry);
      filesRead = ahead.stats().filesRead;
    }
    kernel::countBadCloses = false;
    EXPECT_EQ(filesRead, 16u);
    EXPECT_EQ(kernel::badCloses, 0u);
    closedir(d);
  }
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
    EXPECT_EQ(ahead.stats().filesRead, 6u);  // the first three and the three after them
    ahead.ready(order[4]);                   // the scan skipped one: out of step
    EXPECT_EQ(ahead.engine(), Engine::Off);
    ahead.ready(order[5]);
    EXPECT_EQ(ahead.engine(), Engine::Off);
    closedir(d);
  }
}

// A medium already in the page cache is probed one file in many only, so a
// warm scan does not pay for reading ahead: the first four files are probed,
// and each one found cached makes the gap to the next fourfold larger, up to
// one file in 128 (files 0, 1, 2, 3, 4, 8, 24, 88 and 216 of 300). The probes
// are answered by this test binary, also where the kernel or an emulator knows
// no reads without waiting.
TEST(ScanReadAhead, ACachedMediumIsProbedOneFileInMany) {
  TempDir dir;
  const std::string clip = readFile(dataPath("qt/prores_422_25.mov"));
  for (int i = 0; i < 300; ++i) writeFile(dir.file("c" + std::to_string(i) + ".mov"), clip);
  const ReaderReads one = readerReads(dir.file("c0.mov"));
  ASSERT_EQ(one.calls, one.reads);  // each read whole at once
  for (const int round : {0, 1, 2}) {
    const bool interrupt = round == 1, shorten = round == 2;
    for (const Engine engine : {Engine::Ring, Engine::Advice}) {
      SCOPED_TRACE(std::string(engine == Engine::Ring ? "io_uring" : "advice") +
                   (interrupt ? ", each file's first probe interrupted by a signal" : "") +
                   (shorten ? ", each read coming one byte short" : ""));
      EngineLimit limit(engine);
      std::set<std::pair<dev_t, ino_t>> interrupted;
      KernelAnswers answers([&](int file) {
        return interrupt && interrupted.insert(kernel::fileOf(file)).second ? -EINTR : 0;
      });
      kernel::shortReads = shorten;
      DIR* d = opendir(dir.path().c_str());
      ASSERT_NE(d, nullptr);
      ScanPrefetch ahead(dir.path(), d);
      for (const auto& entry : candidatesOf(d)) ahead.ready(entry);
      const Stats s = ahead.stats();
      {
        Stats x;  // nothing but probes of the scan's own file, every one of them cached
        x.filesRead = x.filesCached = 9;
        x.reads = 9 * one.reads;
        x.bytes = 9 * one.bytes;
        // An interrupted probe is made again; a read that came short is made
        // again for the rest.
        x.probes = 9 * (one.calls + (interrupt ? 1 : 0) + (shorten ? one.reads : 0));
        x.descriptorCounts = 1;
        x.mostOpen = 1;
        x.mostHeld = one.bytes;
        x.stride = ScanPrefetch::kMaxStride;
        EXPECT_EQ(show(s), show(x));
        EXPECT_EQ(ahead.engine(),
                  engine == Engine::Ring && ScanPrefetch::kRingUsable ? Engine::Ring : Engine::Advice);
      }
      closedir(d);
    }
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
  writeFile(dir.file("big.mov"), withMoovPadding(movbuild::build(m), ScanPrefetch::kMaxBytes + 4096 + 8));
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

// The read buffers held never pass kMaxBytes: a read that would pass it by a
// single byte is only announced, its file left to the intake; a read that
// fills the budget to the byte is made.
TEST(ScanReadAhead, ReadBuffersNeverPassTheBudgetByAByte) {
  const std::string movie = movbuild::build(movbuild::Movie());  // no timecode: the moov is the last read
  TempDir dir;
  const std::string path = dir.file("big.mov");
  const std::size_t pad = std::size_t(1) << 20;
  writeFile(path, withMoovPadding(movie, pad));
  const ReaderReads padded = readerReads(path);
  ASSERT_GE(padded.lengths.size(), 2u);
  ASSERT_GT(padded.lengths.back(), pad);                            // the moov, padding and all
  const std::size_t before = padded.bytes - padded.lengths.back();  // the reads before the moov
  const std::size_t fit = ScanPrefetch::kMaxBytes - before;         // the moov read that fills the budget
  for (const std::size_t over : {0, 1}) {
    SCOPED_TRACE(over ? "one byte over" : "to the byte");
    writeFile(path, withMoovPadding(movie, pad + fit + over - padded.lengths.back()));
    const ReaderReads r = readerReads(path);
    ASSERT_EQ(r.lengths.back(), fit + over);
    ASSERT_EQ(r.bytes - r.lengths.back(), before);
    EngineLimit limit(Engine::Advice, false);
    DIR* d = opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    ScanPrefetch ahead(dir.path(), d);
    ahead.ready(candidatesOf(d).at(0));
    const Stats s = ahead.stats();
    EXPECT_EQ(s.leftToIntake, over);
    EXPECT_EQ(s.reads, r.reads - over);
    EXPECT_EQ(s.bytes, r.bytes - over * r.lengths.back());
    EXPECT_EQ(s.mostHeld, over ? before : ScanPrefetch::kMaxBytes);
    EXPECT_EQ(s.held + s.open + s.inHand, 0u);
    closedir(d);
  }
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

// A read-ahead through `most` (reads not tried without waiting) that follows
// a whole scan of dir in a child process with exactly `spare` descriptors
// free: its stats and engine at the end, and how many times the intake could
// not open its file for want of a descriptor after ready().
struct LimitedRun {
  Stats stats;
  Engine atStart = Engine::Off;  // the engine before the first file
  Engine engine = Engine::Off;
  int intakeFailures = -1;
  int code = -3;
};
LimitedRun limitedRun(const std::string& dir, Engine most, int spare, bool closeStdin = false) {
  LimitedRun run;
  int fds[2];
  if (pipe(fds) != 0) return run;
  EngineLimit limit(most, false);
  run.code = vorta_test::inChild([&] {
    // The way back out of the way, and nothing else open but the standard
    // streams: a descriptor above the lowest free one would take a spare one.
    const int back = fcntl(fds[1], F_DUPFD_CLOEXEC, 512);
    if (back < 0) return 9;
    for (int fd = 3; fd < 512; ++fd) close(fd);
    DIR* order = opendir(dir.c_str());
    if (order == nullptr) return 10;
    const auto entries = candidatesOf(order);
    closedir(order);
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return 11;
    if (closeStdin) {
      // A daemon's standard input is closed: descriptor 0 is then the one free below the limit.
      close(0);
      struct rlimit rl;
      if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return 12;
      rl.rlim_cur = static_cast<rlim_t>(spare);
      if (setrlimit(RLIMIT_NOFILE, &rl) != 0) return 12;
    } else if (!vorta_test::limitDescriptors(spare)) {
      return 12;
    }
    LimitedRun out;
    out.intakeFailures = 0;
    {
      ScanPrefetch ahead(dir, d);
      out.atStart = ahead.engine();
      for (const auto& entry : entries) {
        ahead.ready(entry);
        const int fd = openat(dirfd(d), entry.d_name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // the intake's
        if (fd >= 0)
          close(fd);
        else if (errno == EMFILE || errno == ENFILE)
          ++out.intakeFailures;
      }
      out.stats = ahead.stats();
      out.engine = ahead.engine();
    }
    out.code = 0;
    return write(back, &out, sizeof out) == static_cast<ssize_t>(sizeof out) ? 0 : 13;
  });
  close(fds[1]);
  LimitedRun got;
  if (read(fds[0], &got, sizeof got) == static_cast<ssize_t>(sizeof got) && run.code == 0) run = got;
  close(fds[0]);
  return run;
}

// Near the descriptor limit, the read-ahead counts what it may open once and
// always leaves the intake a descriptor: with none to spare it does not start;
// with one or two it reads only the scan's own file; with three or more it
// reads ahead through a directory stream of its own, up to two fewer files at
// once than are free (three fewer while the ring, which needs one, is not set
// up), never more than 32.
TEST(ScanReadAhead, NearTheDescriptorLimitItOpensWhatItCanSpareAndNoMore) {
  if (vorta_test::builtWithSanitizer())
    GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own (it probes memory through a pipe)";
  Medium medium(40);
  unsigned long started = 0, reads = 0;
  {
    DIR* d = opendir(medium.path().c_str());
    ASSERT_NE(d, nullptr);
    for (const auto& entry : candidatesOf(d)) {
      const ReaderReads r = readerReads(medium.path() + "/" + entry.d_name);
      started += r.started ? 1 : 0;
      reads += r.reads;
    }
    closedir(d);
  }
  ASSERT_EQ(started, 44u);  // 40 clips and the 4 bad ones
  const bool ring = ScanPrefetch::kRingUsable && kernelHasRing();
  for (const Engine most : {Engine::Advice, Engine::Ring}) {
    // Descriptors the ring takes, when it is set up.
    const int forRing = most == Engine::Ring && ring ? 1 : 0;
    const unsigned ringTried = most == Engine::Ring && ScanPrefetch::kRingUsable ? 1 : 0;
    for (const int spare : {0, 1, 2, 3, 4, 5, 6, 7, 40}) {
      SCOPED_TRACE(std::to_string(spare) + " spare descriptors, " +
                   (most == Engine::Ring ? "io_uring" : "advice"));
      const LimitedRun run = limitedRun(medium.path(), most, spare);
      ASSERT_EQ(run.code, 0);
      const Stats& s = run.stats;
      if (spare > 0) {
        EXPECT_EQ(run.intakeFailures, 0);
      }
      if (spare == 0) {
        EXPECT_EQ(run.atStart, Engine::Off);
        EXPECT_EQ(run.engine, Engine::Off);
        EXPECT_EQ(s.filesRead, 0u);
        EXPECT_EQ(s.descriptorCounts, 1u);
        continue;
      }
      EXPECT_EQ(s.open + s.held + s.inFlight, 0u);
      EXPECT_EQ(run.engine, forRing && spare >= 3 ? Engine::Ring : Engine::Advice);
      // Beyond the scan's file, the stream, the intake's descriptor and the ring's.
      const int ahead = spare - 3 - forRing;
      EXPECT_EQ(s.readingAhead, ahead >= 0);
      if (ahead < 0 || spare == 40) {  // every file read
        EXPECT_EQ(s.filesRead, started);
        EXPECT_EQ(s.reads, reads);
      } else {  // the files that found no descriptor are left to the intake
        EXPECT_LT(s.filesRead, started);
      }
      if (ahead < 0) {
        EXPECT_EQ(s.mostOpen, 1u);
        EXPECT_EQ(s.mostInHand, 1u);
        EXPECT_EQ(s.descriptorCounts,
                  1 + started + ringTried);  // at the start, for each stream, for the ring
        continue;
      }
      const unsigned openable = std::min<unsigned>(static_cast<unsigned>(ahead) + 1, ScanPrefetch::kMaxFiles);
      EXPECT_EQ(s.openable, openable);
      if (spare == 40)
        EXPECT_GE(s.mostOpen,
                  ScanPrefetch::kMaxFiles - 3);  // a FIFO, a directory or a dangling link among them
      else
        EXPECT_EQ(s.mostOpen, openable);
      EXPECT_EQ(s.descriptorCounts, 3u + ringTried);
      EXPECT_EQ(s.mostInHand, ScanPrefetch::kMaxFiles);
    }
  }
  // Descriptor 0 free (standard input closed) is a spare one like any other.
  const LimitedRun run = limitedRun(medium.path(), Engine::Advice, 1, true);
  ASSERT_EQ(run.code, 0);
  EXPECT_EQ(run.atStart, Engine::Advice);
  EXPECT_EQ(run.stats.filesRead, started);
}

// Through posix_fadvise, on a medium nothing of which is cached, the
// read-ahead makes exactly the movie reader's reads, figure by figure: after
// each candidate the scan takes, the next 32 candidates are in hand and open,
// each with its first read announced, and the files the scan has passed are
// closed with all their reads announced and made. A link to a clip is read
// through, whatever the length of its name; a FIFO, a directory and a
// dangling link are passed by unopened.
TEST(ScanReadAhead, ThroughAdviceItMakesExactlyTheReadersReadsThirtyTwoFilesAhead) {
  Medium medium(60);
  medium.link("link.mov", "clip1_fast.mov");
  medium.link(std::string(251, 'n') + ".mov", "clip1_fast.mov");  // a name as long as names go
  medium.link(".hidden.mov", "clip1_fast.mov");                   // skipped by the scan, so by the read-ahead
  EngineLimit limit(Engine::Advice, false);  // every read announced first, as on a cold medium
  DIR* d = opendir(medium.path().c_str());
  ASSERT_NE(d, nullptr);
  ScanPrefetch ahead(medium.path(), d);
  const Pass pass(medium.path(), candidatesOf(d));
  ASSERT_EQ(pass.entries.size(), 69u);
  EXPECT_EQ(show(ahead.stats()), show(adviceFigures(pass, 0)));
  kernel::announcements = 0;
  for (std::size_t i = 0; i < pass.entries.size(); ++i) {
    ahead.ready(pass.entries[i]);
    ASSERT_EQ(show(ahead.stats()), show(adviceFigures(pass, i + 1))) << "after " << pass.entries[i].d_name;
    ASSERT_EQ(kernel::announcements, ahead.stats().advised);  // each one made
  }
  EXPECT_EQ(ahead.engine(), Engine::Advice);
  EXPECT_EQ(ahead.stats().filesRead, 66u);  // 60 clips, 4 bad ones, the links
  EXPECT_EQ(ahead.stats().mostInHand, ScanPrefetch::kMaxFiles);
  closedir(d);
}

// Through io_uring the same reads are made, each queued once and each
// completion taken: whatever order the reads complete in, the scan's files are
// read whole before it takes them, and once it has taken every candidate
// nothing is open, held or in flight.
TEST(ScanReadAhead, ThroughIoUringEveryReadIsQueuedOnceAndReaped) {
  Medium medium(60);
  medium.link("link.mov", "clip1_fast.mov");
  EngineLimit limit(Engine::Ring, false);
  const bool ring = ScanPrefetch::kRingUsable && kernelHasRing();
  if (!ring) std::printf("io_uring is not used here: the figures are those of posix_fadvise\n");
  DIR* d = opendir(medium.path().c_str());
  ASSERT_NE(d, nullptr);
  ScanPrefetch ahead(medium.path(), d);
  const Pass pass(medium.path(), candidatesOf(d));
  const std::size_t n = pass.entries.size();
  ASSERT_EQ(n, 68u);
  for (std::size_t i = 0; i < n; ++i) {
    ahead.ready(pass.entries[i]);
    Stats least = adviceFigures(pass, i + 1);
    if (ScanPrefetch::kRingUsable && i >= pass.first) ++least.descriptorCounts;  // for the ring
    const Stats now = ahead.stats();
    SCOPED_TRACE("after " + std::string(pass.entries[i].d_name) + ": " + show(now));
    if (!ring) {
      ASSERT_EQ(show(now), show(least));
      continue;
    }
    // What does not depend on the order of completions is as through posix_fadvise.
    ASSERT_EQ(now.filesRead, least.filesRead);
    ASSERT_EQ(now.inHand, least.inHand);
    ASSERT_EQ(now.mostInHand, least.mostInHand);
    ASSERT_EQ(now.openable, least.openable);
    ASSERT_EQ(now.descriptorCounts, least.descriptorCounts);
    ASSERT_EQ(now.readingAhead, least.readingAhead);
    ASSERT_EQ(now.stride, 1u);
    ASSERT_EQ(now.filesCached + now.probes + now.polls + now.waits + now.advised + now.leftToIntake, 0u);
    // The files ahead may have gone on reading, and may be done.
    ASSERT_GE(now.reads, least.reads);
    ASSERT_LE(now.open, least.open);
    ASSERT_EQ(now.queued, now.completions + now.inFlight);
    ASSERT_EQ(now.inFlight, now.open);  // every open file has one read under way
    ASSERT_LE(now.mostHeld, ScanPrefetch::kMaxBytes);
  }
  if (ring) {
    unsigned long reads = 0, calls = 0;
    unsigned long long bytes = 0;
    for (const ReaderReads& r : pass.reads) {
      reads += r.reads;
      calls += r.calls;
      bytes += r.bytes;
    }
    const Stats end = ahead.stats();
    EXPECT_EQ(ahead.engine(), Engine::Ring);
    EXPECT_EQ(end.reads, reads);
    EXPECT_EQ(end.bytes, bytes);
    EXPECT_EQ(end.queued, calls);
    EXPECT_EQ(end.completions, calls);
    EXPECT_EQ(end.inFlight + end.open + end.held + end.inHand, 0u);
    // The first candidates are all taken in hand before any read completes.
    EXPECT_EQ(end.mostOpen, adviceFigures(pass, pass.first + 1).mostOpen);
  }
  closedir(d);
}

// A medium of `clips` fragmented clips of many fragments each, but for its
// first candidate in the scan's order, a clip with its moov first: when the
// scan has taken that one, every file after it still has many reads to make.
struct LongMedium {
  explicit LongMedium(int clips) {
    movbuild::FragmentedMovie f;
    std::string bytes = movbuild::fragmentedHead(f);
    for (uint32_t s = 1; s <= 24; ++s)
      bytes += movbuild::fragment(s, {{1, movbuild::samples(2, 1, 300), ""}});
    for (int i = 0; i < clips; ++i) writeFile(dir.file("long" + std::to_string(i) + ".mov"), bytes);
    DIR* d = opendir(dir.path().c_str());
    const auto order = d ? candidatesOf(d) : std::vector<struct dirent64>();
    if (d) closedir(d);
    movbuild::Movie m;
    m.moovFirst = true;
    if (!order.empty()) writeFile(dir.file(order[0].d_name), movbuild::build(m));
  }
  TempDir dir;
};

// Out of step with the scan, the read-ahead stops at once: the reads under
// way complete and are taken, and every descriptor and buffer it had is given
// back (its directory stream and its ring too), before it is destroyed.
TEST(ScanReadAhead, StoppingTakesEveryReadUnderWayAndGivesBackEveryDescriptor) {
  LongMedium medium(40);
  const bool ring = ScanPrefetch::kRingUsable && kernelHasRing();
  for (const Engine engine : {Engine::Ring, Engine::Advice}) {
    SCOPED_TRACE(engine == Engine::Ring ? "io_uring" : "posix_fadvise");
    EngineLimit limit(engine, false);
    DIR* d = opendir(medium.dir.path().c_str());
    ASSERT_NE(d, nullptr);
    const int before = vorta_test::openDescriptors();
    {
      ScanPrefetch ahead(medium.dir.path(), d);
      const auto order = candidatesOf(d);
      ASSERT_EQ(order.size(), 40u);
      ahead.ready(order[0]);
      const Stats running = ahead.stats();
      EXPECT_TRUE(running.readingAhead);
      EXPECT_EQ(running.inHand, ScanPrefetch::kMaxFiles);
      EXPECT_EQ(running.open, ScanPrefetch::kMaxFiles);  // none of them is done
      // Every open file has one read under way: on the ring, or announced.
      if (engine == Engine::Ring && ring)
        EXPECT_EQ(running.inFlight, ScanPrefetch::kMaxFiles);
      else
        EXPECT_EQ(running.advised - running.waits, ScanPrefetch::kMaxFiles);
      // Its files, its directory stream and its ring.
      EXPECT_EQ(vorta_test::openDescriptors(), before + static_cast<int>(ScanPrefetch::kMaxFiles) + 1 +
                                                   (engine == Engine::Ring && ring ? 1 : 0));
      ahead.ready(order[2]);  // one skipped: out of step
      const Stats stopped = ahead.stats();
      EXPECT_EQ(ahead.engine(), Engine::Off);
      EXPECT_EQ(stopped.inHand, 0u);
      EXPECT_EQ(stopped.open, 0u);
      EXPECT_EQ(stopped.held, 0u);
      EXPECT_EQ(stopped.inFlight, 0u);
      EXPECT_EQ(stopped.completions, stopped.queued);
      EXPECT_EQ(vorta_test::openDescriptors(), before);
      ahead.ready(order[3]);  // stopped: does nothing more
      EXPECT_EQ(show(ahead.stats()), show(stopped));
    }
    EXPECT_EQ(vorta_test::openDescriptors(), before);
    {  // destroyed while reading ahead, its reads under way
      rewinddir(d);
      ScanPrefetch ahead(medium.dir.path(), d);
      const auto order = candidatesOf(d);
      ahead.ready(order[0]);
      EXPECT_EQ(ahead.stats().open, ScanPrefetch::kMaxFiles);
    }
    EXPECT_EQ(vorta_test::openDescriptors(), before);
    closedir(d);
  }
}

// Where reads cannot be tried without waiting (the file system or the kernel
// refuses RWF_NOWAIT with EOPNOTSUPP, EINVAL or ENOSYS), the first probe finds
// it out and every read after it is announced: the figures are those of a
// read-ahead that never probes, but for that one probe.
TEST(ScanReadAhead, WhereProbesAreNotUnderstoodOneIsMadeAndThenNone) {
  Medium medium(40);
  for (const int error : {EOPNOTSUPP, EINVAL, ENOSYS}) {
    SCOPED_TRACE(std::strerror(error));
    KernelAnswers answers([error](int) { return -error; });
    EngineLimit limit(Engine::Advice);
    DIR* d = opendir(medium.path().c_str());
    ASSERT_NE(d, nullptr);
    ScanPrefetch ahead(medium.path(), d);
    const Pass pass(medium.path(), candidatesOf(d));
    for (std::size_t i = 0; i < pass.entries.size(); ++i) {
      ahead.ready(pass.entries[i]);
      Stats x = adviceFigures(pass, i + 1);
      if (i >= pass.first) x.probes = 1;
      ASSERT_EQ(show(ahead.stats()), show(x)) << "after " << pass.entries[i].d_name;
    }
    EXPECT_EQ(kernel::announcements, ahead.stats().advised);
    closedir(d);
  }
}

// On a medium nothing of which is cached, the read-ahead probes the scan's
// file and then one file in 16 ahead, announces every read, and makes each
// announced read without waiting as soon as it has been fetched (here: as
// soon as it is announced). The files ahead go on with their reads while the
// scan waits for its own, so that once the scan is past its first 32 files it
// never waits again; every read is made once and no file passes for cached.
// A file emptied after it was taken in hand ends at its first read; one cut
// inside its last fragment ends its walk of the fragments there.
TEST(ScanReadAhead, OnAColdMediumAnnouncedReadsAreMadeAsSoonAsFetched) {
  Medium medium(60);
  medium.link("link.mov", "clip1_fast.mov");
  const std::size_t k = ScanPrefetch::kMaxFiles;
  for (const Engine engine : {Engine::Advice, Engine::Ring}) {
    SCOPED_TRACE(engine == Engine::Ring ? "io_uring" : "advice");
    std::vector<std::pair<dev_t, ino_t>> probedFiles;  // in the order probed
    KernelAnswers answers([&](int fd) {
      if (kernel::announced.has(kernel::fileOf(fd))) return 0;
      probedFiles.push_back(kernel::fileOf(fd));
      return -EAGAIN;
    });
    EngineLimit limit(engine);
    const bool ring = engine == Engine::Ring && ScanPrefetch::kRingUsable && kernelHasRing();
    TempDir copy;  // the medium, copied: one of its files is emptied
    DIR* source = opendir(medium.path().c_str());
    ASSERT_NE(source, nullptr);
    for (const auto& entry : candidatesOf(source)) {
      const std::string from = medium.path() + "/" + entry.d_name;
      struct stat st;
      if (lstat(from.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        writeFile(copy.file(entry.d_name), readFile(from));
    }
    closedir(source);
    DIR* d = opendir(copy.path().c_str());
    ASSERT_NE(d, nullptr);
    ScanPrefetch ahead(copy.path(), d);
    Pass pass(copy.path(), candidatesOf(d));
    const std::size_t n = pass.entries.size();
    ASSERT_EQ(n, 64u);
    // The file to empty: one taken in hand after the first 40.
    std::size_t emptied = pass.first + 40;
    while (emptied < n && !pass.reads[emptied].started) ++emptied;
    ASSERT_LT(emptied, n);
    const std::string emptiedPath = copy.path() + "/" + pass.entries[emptied].d_name;
    struct stat st;
    ASSERT_EQ(stat(emptiedPath.c_str(), &st), 0);
    // And a fragmented one, cut inside its last fragment's moof: the reader
    // ends its walk of the fragments there and reads the timecode sample.
    std::size_t fragmented = pass.first + k;
    while (fragmented < n && std::strstr(pass.entries[fragmented].d_name, "_frag.mov") == nullptr)
      ++fragmented;
    ASSERT_LT(fragmented, n);
    const std::string fragmentedPath = copy.path() + "/" + pass.entries[fragmented].d_name;
    const std::string fragmentedBytes = readFile(fragmentedPath);
    unsigned long window = 0;  // the files read ahead of the scan's first one
    for (std::size_t j = pass.first + 1; j < std::min(n, pass.first + k); ++j)
      window += pass.reads[j].started;
    unsigned long waited = 0;  // reads made waiting, once the scan is past its first 32 files
    for (std::size_t i = 0; i < n; ++i) {
      ahead.ready(pass.entries[i]);
      // While the scan waited for its first file, each file ahead had its
      // first read made.
      if (i == pass.first && !ring) {
        EXPECT_GE(ahead.stats().polls, window);
      }
      if (i == pass.first + k - 1) waited = ahead.stats().waits;
      // It has just been taken in hand, its first read announced (on the
      // ring, that read may be made already).
      if (i + k == emptied && !ring) {
        ASSERT_EQ(truncate(emptiedPath.c_str(), 0), 0);
        pass.reads[emptied] = readerReads(emptiedPath, st.st_size);
      }
      if (i + k == fragmented && !ring) {
        ASSERT_EQ(truncate(fragmentedPath.c_str(), static_cast<off_t>(fragmentedBytes.rfind("moof") + 8)), 0);
        pass.reads[fragmented] = readerReads(fragmentedPath, static_cast<long long>(fragmentedBytes.size()));
      }
    }
    unsigned long started = 0, reads = 0, calls = 0, probed = 0, most = 0;
    std::vector<std::pair<dev_t, ino_t>> expectedProbes;
    unsigned long long bytes = 0;
    for (std::size_t j = pass.first; j < n; ++j) {
      const ReaderReads& r = pass.reads[j];
      started += r.started ? 1 : 0;
      reads += r.reads;
      calls += r.calls;
      bytes += r.bytes;
      most = std::max(most, r.calls);
      // The scan's first file, and one candidate in 16 after it.
      if (r.started && (j - pass.first) % 16 == 0) {
        ++probed;
        struct stat info;
        if (stat((copy.path() + "/" + pass.entries[j].d_name).c_str(), &info) == 0)
          expectedProbes.emplace_back(info.st_dev, info.st_ino);
      }
    }
    if (!ring) {
      ASSERT_EQ(pass.reads[emptied].calls, 1u);
    }
    ASSERT_LE(most, k);  // a file ahead has a read made each time the scan takes a file
    const Stats s = ahead.stats();
    SCOPED_TRACE(show(s));
    EXPECT_EQ(s.filesRead, started);
    EXPECT_EQ(s.filesCached, 0u);
    EXPECT_EQ(s.stride, 1u);
    EXPECT_EQ(s.probes, probed);
    EXPECT_TRUE(probedFiles == expectedProbes) << "other files were probed";
    EXPECT_EQ(s.reads, reads);
    EXPECT_EQ(s.bytes, bytes);
    EXPECT_EQ(s.open + s.held + s.inHand + s.inFlight, 0u);
    if (ring) {
      EXPECT_EQ(s.queued, calls);
      EXPECT_EQ(s.completions, calls);
      EXPECT_EQ(s.advised + s.polls + s.waits, 0u);
    } else {
      EXPECT_EQ(s.advised, calls);
      EXPECT_EQ(s.advised, kernel::announcements);
      EXPECT_EQ(s.polls + s.waits, calls);
      EXPECT_EQ(s.waits, waited);  // the files after the first 32 were read whole while ahead
    }
    closedir(d);
  }
}

// A file cut short while it is read ahead: the read that finds the cut ends
// the file's reads where the movie reader's own would end on that file, no
// read is made of what is no longer there, and the scan goes on.
TEST(ScanReadAhead, AFileCutShortWhileReadAheadEndsItsReadsAtTheCut) {
  Medium medium(40);
  EngineLimit limit(Engine::Advice, false);
  DIR* d = opendir(medium.path().c_str());
  ASSERT_NE(d, nullptr);
  ScanPrefetch ahead(medium.path(), d);
  Pass pass(medium.path(), candidatesOf(d));
  const std::size_t n = pass.entries.size();
  for (std::size_t i = 0; i <= pass.first; ++i) ahead.ready(pass.entries[i]);
  // Three files ahead, their first read announced: one cut inside that read,
  // one emptied, and a fragmented one cut inside its last fragment's moof
  // (the reader then ends its walk of the fragments and reads the timecode
  // sample of the first one).
  std::vector<std::size_t> cut;
  std::size_t fragmented = n;
  for (std::size_t j = pass.first + 2; j < std::min(n, pass.first + ScanPrefetch::kMaxFiles); ++j) {
    const std::string name = pass.entries[j].d_name;
    if (fragmented == n && name.find("_frag.mov") != std::string::npos)
      fragmented = j;
    else if (cut.size() < 2 && pass.reads[j].started && pass.reads[j].first > 100)
      cut.push_back(j);
  }
  ASSERT_EQ(cut.size(), 2u);
  ASSERT_LT(fragmented, n);
  cut.push_back(fragmented);
  const ReaderReads whole = pass.reads[fragmented];
  for (std::size_t c = 0; c < 3; ++c) {
    const std::string path = medium.path() + "/" + pass.entries[cut[c]].d_name;
    const std::string bytes = readFile(path);
    const off_t at = c == 0 ? 100 : c == 1 ? 0 : static_cast<off_t>(bytes.rfind("moof") + 8);
    ASSERT_EQ(truncate(path.c_str(), at), 0);
    pass.reads[cut[c]] = readerReads(path, static_cast<long long>(bytes.size()));
  }
  EXPECT_EQ(pass.reads[cut[0]].calls, 2u);  // the read cut short, and the one that finds the end
  EXPECT_EQ(pass.reads[cut[1]].calls, 1u);
  EXPECT_EQ(pass.reads[fragmented].reads, whole.reads);  // the last moof's read fails; the timecode's is made
  EXPECT_EQ(pass.reads[fragmented].calls, whole.calls + 1);  // the cut read, and the one that finds the end
  for (std::size_t i = pass.first + 1; i < n; ++i) {
    errno = EIO;  // what errno holds is no read's result
    ahead.ready(pass.entries[i]);
    ASSERT_EQ(show(ahead.stats()), show(adviceFigures(pass, i + 1))) << "after " << pass.entries[i].d_name;
  }
  closedir(d);
}

// Where the read-ahead cannot open a directory stream of its own (here: the
// directory made unreadable, though still searchable, after the scan opened
// it), it reads the scan's own file alone, file after file, as it does near
// the descriptor limit.
TEST(ScanReadAhead, WithoutAStreamOfItsOwnItReadsOnlyTheScansFile) {
  if (geteuid() != 0) GTEST_SKIP() << "acting as a user the directory's mode applies to needs root";
  TempDir dir;
  const std::string media = dir.file("media");
  ASSERT_EQ(mkdir(media.c_str(), 0700), 0);
  for (int i = 0; i < 6; ++i)
    writeFile(media + "/c" + std::to_string(i) + ".mov", readFile(dataPath("qt/prores_422_25.mov")));
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(chown(media.c_str(), 65534, 65534), 0);
  EngineLimit limit(Engine::Advice, false);
  const int code = vorta_test::inChild([&] {
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return 10;
    DIR* d = opendir(media.c_str());
    if (d == nullptr) return 11;
    ScanPrefetch ahead(media, d);
    const auto order = candidatesOf(d);
    if (order.size() != 6) return 12;
    if (chmod(media.c_str(), 0100) != 0) return 13;  // searchable, no longer readable
    for (const auto& entry : order) ahead.ready(entry);
    const Stats s = ahead.stats();
    if (s.readingAhead || s.mostInHand != 1 || s.mostOpen != 1) return 1;
    if (s.filesRead != 6) return 2;
    if (s.descriptorCounts != 7) return 3;  // at the start, and a stream tried for each file
    return 0;
  });
  EXPECT_EQ(code, 0) << "1: it read ahead all the same, 2: a file was not read, 3: streams were not tried";
}

// Memory running out at any point while the scan takes its first files
// leaves no file held without a read under way: a file whose next read finds
// no memory for its buffer is given up at once, its descriptor closed.
TEST(ScanReadAhead, MemoryRunningOutLeavesNoFileHeldWithoutAReadUnderWay) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  Medium medium(40);
  std::size_t first = 0;
  {
    DIR* d = opendir(medium.path().c_str());
    ASSERT_NE(d, nullptr);
    first = Pass(medium.path(), candidatesOf(d)).first;
    closedir(d);
  }
  KernelAnswers answers([](int fd) { return kernel::announced.has(kernel::fileOf(fd)) ? 0 : -EAGAIN; });
  EngineLimit limit(Engine::Advice);
  EXPECT_EQ(vorta_test::inChild([&]() -> int {
              bool refusedRunning = false;
              for (long budget = 0; budget < 2000; ++budget) {
                DIR* d = opendir(medium.path().c_str());
                if (d == nullptr) return 10;
                long refused = 0;
                Stats s;
                Engine engine;
                kernel::announced.clear();
                const int base = vorta_test::openDescriptors();
                bool agree = true;  // its count of open files is what it holds
                {
                  ScanPrefetch ahead(medium.path(), d);
                  const auto entries = candidatesOf(d);
                  for (std::size_t i = 0; i < first; ++i) ahead.ready(entries[i]);
                  {
                    vorta_test::FailAlloc failing(budget);
                    ahead.ready(entries[first]);
                    ahead.ready(entries[first + 1]);
                    refused = vorta_test::FailAlloc::failures();
                  }
                  // Memory is back: it goes on as if nothing happened, or has stopped.
                  for (std::size_t i = first + 2; i < first + 6 && i < entries.size(); ++i) {
                    ahead.ready(entries[i]);
                    const Stats now = ahead.stats();
                    if (ahead.engine() != Engine::Off &&
                        vorta_test::openDescriptors() !=
                            base + static_cast<int>(now.open) + (now.readingAhead ? 1 : 0))
                      agree = false;
                  }
                  s = ahead.stats();
                  engine = ahead.engine();
                }
                closedir(d);
                if (!agree) return 5;
                if (engine == Engine::Off) continue;  // gave up as a whole: nothing is held
                if (refused > 0) refusedRunning = true;
                // Every open file has one announced read not yet made.
                if (s.open != s.advised - s.waits - s.polls) return 1;
                if (refused == 0) return refusedRunning ? 0 : 3;
              }
              return 4;
            }),
            0)
      << "1: a file held without a read under way, 3: no allocation refused while reading ahead, 5: files "
         "held "
         "that it does not count, 99: an exception escaped";
}

}  // namespace

// SPDX-License-Identifier: MIT
// Benchmark: a scan of a medium nothing of which is cached, beside the serial and parallel floors of the same
// reads.
//
// The medium is made in the benchmark's own directory from the committed
// fixtures (tests/data/qt): every clip that is not fragmented in three
// layouts, its moov after the media data, before it (fast start), and after
// it with 64-bit chunk offsets ('co64'), and the fragmented ones as they are.
// Each clip's media data is grown by a hole, so that a moov at the end lies
// well past what the kernel reads ahead from the head of the file, as in a
// real recording; every clip is checked to read back as its fixture does.
//
// Cold: before every run each file of the medium is dropped from the page
// cache with posix_fadvise(POSIX_FADV_DONTNEED) (and, when run as root, the
// page, dentry and inode caches with /proc/sys/vm/drop_caches). Each round
// measures, in turn and each from cold:
//   - the serial floor: the directory read once and, file after file, what
//     the intake must do at the least (stat, open, exactly the movie
//     reader's reads, close);
//   - the parallel floor: the same work spread over 16 threads;
//   - ScanMedia reading ahead through io_uring, through posix_fadvise (the
//     fallback where io_uring is missing), and not reading ahead.
// The counters are the medians of the rounds and their ratios. 1,000 and
// 10,000 clips: the time per clip should stay flat.
//
// Warm: ScanMedia with and without reading ahead, the floor beside them; and
// the whole `vorta scan` process (its table to /dev/null) beside a process
// that makes the floor's reads and nothing else (scan_floor_process).
#define _FILE_OFFSET_BITS 64

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "internal/scan_prefetch.h"
#include "media_cache.h"

extern char** environ;

namespace {

using zev::detail::ScanPrefetch;
using zev::media::MediaCache;

// ---------------------------------------------------------------------------
// The medium

constexpr uint64_t kHole = 136 * 1024;  // added to each clip's media data
constexpr int kParallelWorkers = 16;

uint32_t be32(const std::string& s, std::size_t at) {
  return bench_support::be32(reinterpret_cast<const unsigned char*>(s.data()) + at);
}
uint64_t be64(const std::string& s, std::size_t at) {
  return (static_cast<uint64_t>(be32(s, at)) << 32) | be32(s, at + 4);
}
std::string put32(uint64_t v) {
  return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                     static_cast<char>(v)};
}
std::string put64(uint64_t v) { return put32(v >> 32) + put32(v & 0xFFFFFFFFu); }
std::string atom(const std::string& type, const std::string& body) {
  return put32(8 + body.size()) + type + body;
}

struct Atom {
  std::string type;
  uint64_t offset = 0;
  std::string bytes;  // the whole atom, header included
  std::size_t header = 8;
};

/// The atoms of region, in order; empty when one is malformed.
std::vector<Atom> atomsOf(const std::string& region) {
  std::vector<Atom> atoms;
  std::size_t at = 0;
  while (region.size() - at >= 8) {
    Atom a;
    uint64_t size = be32(region, at);
    if (size == 1) {
      size = be64(region, at + 8);
      a.header = 16;
    } else if (size == 0) {
      size = region.size() - at;
    }
    if (size < a.header || size > region.size() - at) return {};
    a.type = region.substr(at + 4, 4);
    a.offset = at;
    a.bytes = region.substr(at, static_cast<std::size_t>(size));
    atoms.push_back(a);
    at += static_cast<std::size_t>(size);
  }
  return atoms;
}

/// A moov (or one of its containers) rebuilt with every chunk offset mapped,
/// written as 'co64' when wide.
std::string rebuilt(const std::string& body, bool wide, const std::function<uint64_t(uint64_t)>& map) {
  std::string out;
  for (const Atom& a : atomsOf(body)) {
    const std::string inner = a.bytes.substr(a.header);
    if (a.type == "trak" || a.type == "mdia" || a.type == "minf" || a.type == "stbl") {
      out += atom(a.type, rebuilt(inner, wide, map));
    } else if (a.type == "stco" || a.type == "co64") {
      const bool was64 = a.type == "co64";
      const uint32_t count = be32(inner, 4);
      std::string table = inner.substr(0, 8);
      for (uint32_t i = 0; i < count; ++i) {
        const uint64_t old =
            was64 ? be64(inner, 8 + 8 * std::size_t{i}) : be32(inner, 8 + 4 * std::size_t{i});
        table += wide ? put64(map(old)) : put32(map(old));
      }
      out += atom(wide ? "co64" : "stco", table);
    } else {
      out += a.bytes;
    }
  }
  return out;
}

/// One clip file: head, then a hole, then tail.
struct Layout {
  std::string name;  // the layout and the fixture, for the clip's file name
  std::string head, tail;
  uint64_t hole = 0;
};

/// The fixture laid out with its moov first or last, its media data grown by
/// kHole (a hole at the end of the mdat), its chunk offsets as co64 when wide.
bool layOut(const std::string& file, bool moovFirst, bool wide, Layout& out) {
  const std::vector<Atom> atoms = atomsOf(file);
  const auto moov = std::find_if(atoms.begin(), atoms.end(), [](const Atom& a) { return a.type == "moov"; });
  if (atoms.empty() || moov == atoms.end()) return false;
  std::vector<const Atom*> order;
  for (const Atom& a : atoms)
    if (a.type == "ftyp") order.push_back(&a);
  if (moovFirst) order.push_back(&*moov);
  for (const Atom& a : atoms)
    if (a.type != "ftyp" && a.type != "moov") order.push_back(&a);
  if (!moovFirst) order.push_back(&*moov);
  const std::size_t moovSize =
      8 + rebuilt(moov->bytes.substr(moov->header), wide, [](uint64_t v) { return v; }).size();
  // Where each atom lands.
  std::map<const Atom*, uint64_t> placed;
  uint64_t at = 0;
  for (const Atom* a : order) {
    placed[a] = at;
    at += (a == &*moov ? moovSize : a->bytes.size()) + (a->type == "mdat" ? kHole : 0);
  }
  const auto map = [&](uint64_t old) {
    for (const Atom& a : atoms)
      if (old >= a.offset && old < a.offset + a.bytes.size()) return placed[&a] + (old - a.offset);
    return old;
  };
  const std::string newMoov = atom("moov", rebuilt(moov->bytes.substr(moov->header), wide, map));
  if (newMoov.size() != moovSize) return false;
  out.head.clear();
  out.tail.clear();
  bool afterHole = false;
  for (const Atom* a : order) {
    std::string bytes = a == &*moov ? newMoov : a->bytes;
    if (a->type == "mdat") {
      if (a->header != 8 || bytes.size() + kHole > 0xFFFFFFFFu) return false;
      bytes.replace(0, 4, put32(bytes.size() + kHole));
      out.head += bytes;
      out.hole = kHole;
      afterHole = true;
      continue;
    }
    (afterHole ? out.tail : out.head) += bytes;
  }
  return true;
}

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// What the reader makes of a movie, for checking a layout against its fixture.
std::string readerView(const std::string& path) {
  CQTStreaming reader;
  if (!reader.OpenForReading(path)) return "refused";
  CQTVideoConfiguration video;
  CQTAudioConfiguration audio;
  reader.GetConfiguration(video);
  reader.GetConfiguration(audio);
  uint32_t tc = 0;
  const bool hasTc = reader.GetStartingTimecode(tc);
  char text[200];
  std::snprintf(text, sizeof text, "%d %d %u %u %u/%u %u %u %u %d %u", video.width, video.height,
                video.fieldMode, video.codecType, video.frameRateNumerator, video.frameRateDenominator,
                video.videoLength, audio.audioChannelsPerTrack, reader.audioTrackCount, hasTc, tc);
  return text;
}

void writeClip(const std::string& path, const Layout& layout) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 ||
      pwrite(fd, layout.head.data(), layout.head.size(), 0) != static_cast<ssize_t>(layout.head.size()) ||
      pwrite(fd, layout.tail.data(), layout.tail.size(),
             static_cast<off_t>(layout.head.size() + layout.hole)) !=
          static_cast<ssize_t>(layout.tail.size()) ||
      ftruncate(fd, static_cast<off_t>(layout.head.size() + layout.hole + layout.tail.size())) != 0) {
    std::perror(path.c_str());
    std::abort();
  }
  close(fd);
}

/// The layouts of every well-formed fixture, checked against the fixture.
const std::vector<Layout>& layouts() {
  static const std::vector<Layout> all = [] {
    const std::string source = bench_support::fixtureDir();
    char scratchDir[] = "/tmp/bench_cold_check_XXXXXX";
    if (!mkdtemp(scratchDir)) std::abort();
    const std::string scratch = std::string(scratchDir) + "/clip.mov";
    std::vector<Layout> out;
    for (const std::string& name : bench_support::fixtureNames()) {
      const std::string path = source + "/" + name;
      const std::string file = readWhole(path);
      const std::string expected = readerView(path);
      const bool fragmented =
          file.find("moof") != std::string::npos && file.find("mvex") != std::string::npos;
      if (fragmented) {
        out.push_back(Layout{"frag_" + name, file, "", 0});
        continue;
      }
      const struct {
        const char* name;
        bool first, wide;
      } kinds[] = {{"end_", false, false}, {"fast_", true, false}, {"co64_", false, true}};
      for (const auto& kind : kinds) {
        Layout layout;
        if (!layOut(file, kind.first, kind.wide, layout)) continue;
        layout.name = kind.name + name;
        writeClip(scratch, layout);
        const std::string seen = readerView(scratch);
        if (seen != expected) {
          std::fprintf(stderr, "%s laid out as %s reads as '%s', not '%s'\n", name.c_str(), kind.name,
                       seen.c_str(), expected.c_str());
          std::abort();
        }
        out.push_back(layout);
      }
    }
    unlink(scratch.c_str());
    rmdir(scratchDir);
    return out;
  }();
  return all;
}

class Medium {
 public:
  explicit Medium(int clips) {
    // On a file system of the disk, not one held in memory.
    char pattern[] = "/var/tmp/bench_cold_XXXXXX";
    char fallback[] = "/tmp/bench_cold_XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) made = mkdtemp(fallback);
    if (made == nullptr) std::abort();
    dir_ = made;
    struct statfs fs;
    if (statfs(dir_.c_str(), &fs) == 0 && fs.f_type == 0x01021994)  // TMPFS_MAGIC
      std::fprintf(stderr, "%s is in memory (tmpfs): the cold figures are warm ones\n", dir_.c_str());
    const auto& all = layouts();
    for (int i = 0; i < clips; ++i) {
      const Layout& layout = all[static_cast<std::size_t>(i) % all.size()];
      paths_.push_back(dir_ + "/" + std::to_string(i) + "_" + layout.name);
      writeClip(paths_.back(), layout);
      bytes_ += layout.head.size() + layout.hole + layout.tail.size();
    }
    // Written out, so that the pages can be dropped.
    const int fd = open(dir_.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
      syncfs(fd);
      close(fd);
    }
  }
  ~Medium() {
    for (const auto& p : paths_) unlink(p.c_str());
    rmdir(dir_.c_str());
  }
  const std::string& dir() const { return dir_; }
  std::size_t clips() const { return paths_.size(); }
  uint64_t bytes() const { return bytes_; }

  /// Nothing of the medium cached any more.
  void dropCaches() const {
    for (const auto& p : paths_) {
      const int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
      close(fd);
    }
    if (geteuid() == 0) {
      const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
      if (fd >= 0) {
        if (write(fd, "3", 1) != 1) {
          // Not allowed here (a container): the per-file advice stands alone.
        }
        close(fd);
      }
    }
  }

 private:
  std::string dir_;
  std::vector<std::string> paths_;
  uint64_t bytes_ = 0;
};

Medium& medium(int clips) {
  static std::map<int, std::unique_ptr<Medium>> media;
  auto& m = media[clips];
  if (!m) m.reset(new Medium(clips));
  return *m;
}

// ---------------------------------------------------------------------------
// What is measured

/// The clip candidates of the directory, read once, in its order.
std::vector<std::string> candidates(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) std::abort();
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string path = dir + "/" + e->d_name;
    if (zev::detail::isClipCandidate(path.c_str())) out.push_back(std::move(path));
  }
  closedir(d);
  return out;
}

void serialFloor(const Medium& m) {
  std::size_t bytes = 0;
  for (const auto& path : candidates(m.dir())) bytes += bench_support::readerFloor(path);
  benchmark::DoNotOptimize(bytes);
}

void parallelFloor(const Medium& m) {
  const std::vector<std::string> paths = candidates(m.dir());
  std::atomic<std::size_t> next{0};
  std::vector<std::thread> workers;
  for (int w = 0; w < kParallelWorkers; ++w)
    workers.emplace_back([&] {
      std::size_t bytes = 0;
      for (std::size_t i = next++; i < paths.size(); i = next++)
        bytes += bench_support::readerFloor(paths[i]);
      benchmark::DoNotOptimize(bytes);
    });
  for (auto& w : workers) w.join();
}

using Catalogue = bench_support::BenchCache;

void scan(const Medium& m, Catalogue& catalogue, ScanPrefetch::Engine engine) {
  zev::detail::scanPrefetchEngineHook = engine;
  std::string dir = m.dir();
  catalogue.cache->ScanMedia(dir, 1);
  zev::detail::scanPrefetchEngineHook = ScanPrefetch::Engine::Ring;
}

double millisecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

/// Medians of interleaved rounds: each round runs every measure once, in order.
class Rounds {
 public:
  void add(const std::string& name, std::function<void()> before, std::function<void()> work) {
    measures_.push_back({name, std::move(before), std::move(work), {}, {}});
  }
  /// One round; the time of the measure named `timed`.
  double run(const std::string& timed) {
    double result = 0;
    for (auto& m : measures_) {
      if (m.before) m.before();
      const double cpu = threadCpuMs();
      const double ms = millisecondsOf(m.work);
      m.cpu.push_back(threadCpuMs() - cpu);
      m.times.push_back(ms);
      if (m.name == timed) result = ms;
    }
    return result;
  }
  double operator[](const std::string& name) const {
    for (const auto& m : measures_)
      if (m.name == name) return median(m.times);
    return 0;
  }
  /// The processor time the calling thread spent in the measure (median).
  double cpu(const std::string& name) const {
    for (const auto& m : measures_)
      if (m.name == name) return median(m.cpu);
    return 0;
  }

 private:
  static double threadCpuMs() {
    struct rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  }
  struct Measure {
    std::string name;
    std::function<void()> before, work;
    std::vector<double> times, cpu;
  };
  std::vector<Measure> measures_;
};

/// One line of figures, printed as it is measured.
template <typename... Args>
void summarise(const char* format, Args... args) {
  std::printf(format, args...);
  std::printf("\n");
  std::fflush(stdout);
}

// ---------------------------------------------------------------------------
// Cold

void BM_ColdScan(benchmark::State& state) {
  const int clips = static_cast<int>(state.range(0));
  Medium& m = medium(clips);
  Catalogue catalogue("vorta_bench_cold", m.clips(), 4);
  const auto drop = [&m] { m.dropCaches(); };
  Rounds rounds;
  rounds.add("serial", drop, [&] { serialFloor(m); });
  rounds.add("parallel", drop, [&] { parallelFloor(m); });
  rounds.add("ring", drop, [&] { scan(m, catalogue, ScanPrefetch::Engine::Ring); });
  rounds.add("advice", drop, [&] { scan(m, catalogue, ScanPrefetch::Engine::Advice); });
  rounds.add("off", drop, [&] { scan(m, catalogue, ScanPrefetch::Engine::Off); });
  for (auto _ : state) state.SetIterationTime(rounds.run("ring") / 1000.0);
  const double serial = rounds["serial"], parallel = rounds["parallel"], ring = rounds["ring"];
  state.counters["clips"] = static_cast<double>(catalogue.cache->GetClips().size());
  state.counters["MB"] = static_cast<double>(m.bytes()) / 1e6;
  state.counters["serial_ms"] = serial;
  state.counters["parallel_ms"] = parallel;
  state.counters["ring_ms"] = ring;
  state.counters["advice_ms"] = rounds["advice"];
  state.counters["off_ms"] = rounds["off"];
  state.counters["ring_cpu_ms"] = rounds.cpu("ring");
  state.counters["us_per_clip"] = ring * 1000.0 / clips;
  state.counters["x_parallel"] = ring / parallel;
  state.counters["serial_over_scan"] = serial / ring;
  summarise(
      "cold, %5d clips (%4.0f MB): scan %6.1f ms (%5.1f us a clip) = %.2fx the parallel floor "
      "(%.1f ms), %.2fx faster than the serial floor (%.1f ms); fallback %.1f ms (%.2fx), "
      "no read-ahead %.1f ms (%.2fx)",
      clips, static_cast<double>(m.bytes()) / 1e6, ring, ring * 1000.0 / clips, ring / parallel, parallel,
      serial / ring, serial, rounds["advice"], rounds["advice"] / parallel, rounds["off"],
      rounds["off"] / parallel);
}
BENCHMARK(BM_ColdScan)->Arg(1000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColdScan)->Arg(10000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Warm

void BM_WarmScan(benchmark::State& state) {
  Medium& m = medium(static_cast<int>(state.range(0)));
  Catalogue catalogue("vorta_bench_warm", m.clips(), 4);
  scan(m, catalogue, ScanPrefetch::Engine::Off);  // everything cached
  Rounds rounds;
  rounds.add("floor", nullptr, [&] { serialFloor(m); });
  rounds.add("off", nullptr, [&] { scan(m, catalogue, ScanPrefetch::Engine::Off); });
  rounds.add("ring", nullptr, [&] { scan(m, catalogue, ScanPrefetch::Engine::Ring); });
  for (auto _ : state) state.SetIterationTime(rounds.run("ring") / 1000.0);
  const double floor = rounds["floor"], off = rounds["off"], ring = rounds["ring"];
  state.counters["floor_ms"] = floor;
  state.counters["off_ms"] = off;
  state.counters["ring_ms"] = ring;
  state.counters["x_off"] = ring / off;
  summarise("warm, %5d clips: scan %.1f ms reading ahead, %.1f ms not (%.2fx); the floor %.1f ms",
            static_cast<int>(state.range(0)), ring, off, ring / off, floor);
}
BENCHMARK(BM_WarmScan)->Arg(1000)->Iterations(31)->UseManualTime()->Unit(benchmark::kMillisecond);

#if defined(VORTA_BENCH_TOOL) && defined(VORTA_BENCH_FLOOR_PROCESS)

/// Runs argv with its output to /dev/null; its exit status.
int runProcess(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void BM_WarmProcess(benchmark::State& state) {
  Medium& m = medium(static_cast<int>(state.range(0)));
  const std::string prefix = "vorta_bench_proc_" + std::to_string(getpid());
  const std::string params = m.dir() + ".params.json";
  const std::vector<std::string> scan = {VORTA_BENCH_TOOL, "--prefix", prefix, "--params",
                                         params,           "scan",     m.dir()};
  const std::vector<std::string> cache = {VORTA_BENCH_TOOL, "--prefix", prefix, "cache"};
  const auto cacheCommand = [&](std::vector<std::string> tail) {
    std::vector<std::string> args = cache;
    args.insert(args.end(), tail.begin(), tail.end());
    return runProcess(args);
  };
  if (cacheCommand({"create", "--clips", std::to_string(m.clips()), "--quiet"}) != 0 ||
      runProcess(scan) != 0) {
    state.SkipWithError("vorta scan failed");
    return;
  }
  Rounds rounds;
  rounds.add("floor", nullptr, [&] { runProcess({VORTA_BENCH_FLOOR_PROCESS, m.dir()}); });
  rounds.add("vorta", nullptr, [&] { runProcess(scan); });
  for (auto _ : state) state.SetIterationTime(rounds.run("vorta") / 1000.0);
  cacheCommand({"remove", "--quiet"});
  unlink(params.c_str());
  unlink((params + ".lock").c_str());
  const double floor = rounds["floor"], vorta_ms = rounds["vorta"];
  state.counters["floor_ms"] = floor;
  state.counters["vorta_ms"] = vorta_ms;
  state.counters["x_floor"] = vorta_ms / floor;
  summarise("warm, %5d clips: the vorta scan process %.1f ms = %.2fx the floor process (%.1f ms)",
            static_cast<int>(state.range(0)), vorta_ms, vorta_ms / floor, floor);
}
BENCHMARK(BM_WarmProcess)->Arg(1000)->Iterations(31)->UseManualTime()->Unit(benchmark::kMillisecond);

#endif

}  // namespace

BENCHMARK_MAIN();

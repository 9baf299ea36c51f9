// SPDX-License-Identifier: MIT
// Benchmarks of the shared clip and playlist caches, each beside a plain copy of the same bytes.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <semaphore.h>
#include <unistd.h>

#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "media_cache.h"

namespace {

namespace bip = boost::interprocess;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;

constexpr std::size_t kMostClips = 4000;
constexpr std::size_t kPlaylists = 100;
constexpr std::size_t kPlaylistClips = 1000;

// One cache for the whole run, under names of this process, removed at exit.
struct BenchCache {
  BenchCache() : options(makeOptions()), cache(options) {}
  ~BenchCache() { MediaCache::Remove(options); }
  static MediaCacheOptions makeOptions() {
    MediaCacheOptions o = MediaCacheOptions::named("vorta_bench_" + std::to_string(getpid()));
    o.maxClips = kMostClips;
    o.maxPlaylists = kPlaylists;
    o.permissions = 0600;
    MediaCache::Remove(o);
    return o;
  }
  MediaCacheOptions options;
  MediaCache cache;
};

BenchCache& bench() {
  static BenchCache instance;
  return instance;
}

std::list<Clip> makeClips(std::size_t n) {
  std::list<Clip> clips;
  for (std::size_t i = 0; i < n; ++i) {
    Clip c;
    std::snprintf(c.name, sizeof c.name, "A%03zu_C%03zu_0725XY_TK%zu.mov", i / 100, i % 1000, i % 7);
    c.modTime = static_cast<int32_t>(1600000000 + i);
    std::memcpy(c.fourCC, "apcn", 5);
    c.width = 1920;
    c.height = 1080;
    c.videoLength = 1000;
    c.frameRate = 23.976;
    std::snprintf(c.attributes.block, sizeof c.attributes.block,
                  "Format\n1920x1080p23.98\nEncode Type\n1\nAudio Chan\n4\nStarting TC\n01:00:00:00\n");
    clips.push_back(c);
  }
  return clips;
}

// A copy of the bytes of a segment's first `bytes` bytes, from a mapping kept for the run.
class Floor {
 public:
  Floor(const std::string& segment, std::size_t bytes)
      : object_(bip::open_only, segment.c_str(), bip::read_write),
        region_(object_, bip::read_write),
        target_(bytes) {}
  void copy() {
    std::memcpy(target_.data(), region_.get_address(), target_.size());
    benchmark::DoNotOptimize(target_.data());
    benchmark::ClobberMemory();
  }

 private:
  bip::shared_memory_object object_;
  bip::mapped_region region_;
  std::vector<unsigned char> target_;
};

// Reference: what taking a new mapping costs on its own. Each call of the
// cache maps its segment anew (no mapping is ever kept), and the first touch
// of every page of a new mapping costs a page-table update; on a machine
// whose hypervisor keeps shadow page tables that dominates everything else.
class MappedCopy {
 public:
  MappedCopy(const std::string& segment, std::size_t bytes)
      : object_(bip::open_only, segment.c_str(), bip::read_write), target_(bytes) {}
  void copy() {
    bip::mapped_region region(object_, bip::read_write);
    std::memcpy(target_.data(), region.get_address(), target_.size());
    benchmark::DoNotOptimize(target_.data());
    benchmark::ClobberMemory();
  }

 private:
  bip::shared_memory_object object_;
  std::vector<unsigned char> target_;
};

void BM_WriteClips(benchmark::State& state) {
  const std::list<Clip> clips = makeClips(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) bench().cache.WriteClipCacheToSharedMemory(clips);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(MediaCache::ClipImageSize(clips.size())));
}
BENCHMARK(BM_WriteClips)->Arg(100)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);

void BM_ReadClips(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  bench().cache.WriteClipCacheToSharedMemory(makeClips(n));
  for (auto _ : state) {
    std::list<Clip> clips;
    bench().cache.ReadClipCacheFromSharedMemory(clips);
    benchmark::DoNotOptimize(clips.back().modTime);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(MediaCache::ClipImageSize(n)));
}
BENCHMARK(BM_ReadClips)->Arg(100)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);

// Floor: memcpy of the same number of bytes out of the clip segment.
void BM_Floor_CopyClipImage(benchmark::State& state) {
  const std::size_t bytes = MediaCache::ClipImageSize(static_cast<std::size_t>(state.range(0)));
  Floor floor(bench().options.clipSegment, bytes);
  for (auto _ : state) floor.copy();
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_Floor_CopyClipImage)->Arg(100)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);

// Reference: map the clip segment anew, copy the same bytes, unmap.
void BM_Ref_MapAndCopyClipImage(benchmark::State& state) {
  const std::size_t bytes = MediaCache::ClipImageSize(static_cast<std::size_t>(state.range(0)));
  MappedCopy copy(bench().options.clipSegment, bytes);
  for (auto _ : state) copy.copy();
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_Ref_MapAndCopyClipImage)->Arg(100)->Arg(1000)->Arg(4000)->Unit(benchmark::kMicrosecond);

std::map<std::string, PlaylistCacheEntry> makePlaylists() {
  std::map<std::string, PlaylistCacheEntry> playlists;
  for (std::size_t p = 0; p < kPlaylists; ++p) {
    std::string text = "{\"name\":\"Day " + std::to_string(p) + "\",\"cliplist\":[";
    for (std::size_t i = 0; i < 40; ++i)
      text += std::string(i ? "," : "") + "\"A001_C" + std::to_string((p * 40 + i) % 1000) + "_0725XY.mov\"";
    text += "]}";
    PlaylistCacheEntry e{};
    const std::string path = "/media/ZEV/Day " + std::to_string(p) + ".playlist";
    std::memcpy(e.path, path.c_str(), path.size());
    std::memcpy(e.text, text.c_str(), text.size());
    e.modTime = static_cast<int32_t>(1600000000 + p);
    playlists["Day " + std::to_string(p)] = e;
  }
  return playlists;
}

void BM_GetPlaylists(benchmark::State& state) {
  bench().cache.WriteClipCacheToSharedMemory(makeClips(kPlaylistClips));
  bench().cache.WritePlaylistCacheToSharedMemory(makePlaylists());
  for (auto _ : state) {
    const auto playlists = bench().cache.GetPlaylists();
    benchmark::DoNotOptimize(playlists.size());
  }
}
BENCHMARK(BM_GetPlaylists)->Unit(benchmark::kMicrosecond);

// Floor: memcpy of the clip image of 1,000 clips and the playlist image of 100 playlists.
void BM_Floor_CopyBothImages(benchmark::State& state) {
  bench().cache.WriteClipCacheToSharedMemory(makeClips(kPlaylistClips));
  bench().cache.WritePlaylistCacheToSharedMemory(makePlaylists());
  Floor clips(bench().options.clipSegment, MediaCache::ClipImageSize(kPlaylistClips));
  Floor playlists(bench().options.playlistSegment, MediaCache::PlaylistImageSize(kPlaylists));
  for (auto _ : state) {
    clips.copy();
    playlists.copy();
  }
}
BENCHMARK(BM_Floor_CopyBothImages)->Unit(benchmark::kMicrosecond);

// Reference: the same two copies, each through a new mapping.
void BM_Ref_MapAndCopyBothImages(benchmark::State& state) {
  bench().cache.WriteClipCacheToSharedMemory(makeClips(kPlaylistClips));
  bench().cache.WritePlaylistCacheToSharedMemory(makePlaylists());
  MappedCopy clips(bench().options.clipSegment, MediaCache::ClipImageSize(kPlaylistClips));
  MappedCopy playlists(bench().options.playlistSegment, MediaCache::PlaylistImageSize(kPlaylists));
  for (auto _ : state) {
    clips.copy();
    playlists.copy();
  }
}
BENCHMARK(BM_Ref_MapAndCopyBothImages)->Unit(benchmark::kMicrosecond);

// The same reads in a process that keeps its freed heap (as a resident
// process reading the catalogue often is advised to): the list or map a
// call hands out comes from pages already faulted in, so what remains is the
// cache's own work. glibc's default hands the freed megabytes back to the
// kernel, and each call then faults them in afresh. Registered last: the
// setting holds for the rest of the run.
void keepHeap() { mallopt(M_TRIM_THRESHOLD, 512 << 20); }

void BM_ReadClips_KeptHeap(benchmark::State& state) {
  keepHeap();
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  bench().cache.WriteClipCacheToSharedMemory(makeClips(n));
  for (auto _ : state) {
    std::list<Clip> clips;
    bench().cache.ReadClipCacheFromSharedMemory(clips);
    benchmark::DoNotOptimize(clips.back().modTime);
  }
}
BENCHMARK(BM_ReadClips_KeptHeap)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_GetPlaylists_KeptHeap(benchmark::State& state) {
  keepHeap();
  bench().cache.WriteClipCacheToSharedMemory(makeClips(kPlaylistClips));
  bench().cache.WritePlaylistCacheToSharedMemory(makePlaylists());
  for (auto _ : state) {
    const auto playlists = bench().cache.GetPlaylists();
    benchmark::DoNotOptimize(playlists.size());
  }
}
BENCHMARK(BM_GetPlaylists_KeptHeap)->Unit(benchmark::kMicrosecond);

// The lock around an empty piece of work, as every operation takes it (the segment is mapped for
// the call), beside the floor of the same pattern with a bare semaphore: wait, map, unmap, post.
// The difference is the gate and the owner record that let a dead holder be told from a live one.
void BM_HoldClipLock(benchmark::State& state) {
  MediaCache& cache = bench().cache;
  int n = 0;
  for (auto _ : state) cache.HoldClipLock([&n] { benchmark::DoNotOptimize(++n); });
}
BENCHMARK(BM_HoldClipLock);

void BM_Floor_SemaphoreAndMapping(benchmark::State& state) {
  sem_t* sem = sem_open(("/" + bench().options.clipLock).c_str(), 0);
  bip::shared_memory_object segment(bip::open_only, bench().options.clipSegment.c_str(), bip::read_write);
  if (sem == SEM_FAILED) {
    state.SkipWithError("cannot open the clip mutex");
    return;
  }
  int n = 0;
  for (auto _ : state) {
    sem_wait(sem);
    {
      bip::mapped_region region(segment, bip::read_write, 0, 0);
      benchmark::DoNotOptimize(region.get_address());
      benchmark::DoNotOptimize(++n);
    }
    sem_post(sem);
  }
  sem_close(sem);
}
BENCHMARK(BM_Floor_SemaphoreAndMapping);

// Prints the runs as usual and, at the end, each figure against its floor.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration) times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf(
        "\nagainst the floor, a memcpy of the same bytes (target: within 3x for reading 1,000 clips and\n"
        "for GetPlaylists), and against a memcpy through a new mapping:\n");
    for (const char* n : {"100", "1000", "4000"}) {
      ratio(std::string("BM_WriteClips/") + n, std::string("BM_Floor_CopyClipImage/") + n,
            std::string("BM_Ref_MapAndCopyClipImage/") + n);
      ratio(std::string("BM_ReadClips/") + n, std::string("BM_Floor_CopyClipImage/") + n,
            std::string("BM_Ref_MapAndCopyClipImage/") + n);
    }
    ratio("BM_GetPlaylists", "BM_Floor_CopyBothImages", "BM_Ref_MapAndCopyBothImages");
    std::printf("in a process that keeps its freed heap:\n");
    ratio("BM_ReadClips_KeptHeap/1000", "BM_Floor_CopyClipImage/1000", "BM_Ref_MapAndCopyClipImage/1000");
    ratio("BM_GetPlaylists_KeptHeap", "BM_Floor_CopyBothImages", "BM_Ref_MapAndCopyBothImages");
    const auto lock = times_.find("BM_HoldClipLock");
    const auto sem = times_.find("BM_Floor_SemaphoreAndMapping");
    if (lock != times_.end() && sem != times_.end() && sem->second > 0)
      std::printf(
          "a cache lock around a new mapping: %.0f ns, a bare semaphore around one: %.0f ns, ratio %.2f\n",
          lock->second, sem->second, lock->second / sem->second);
  }

 private:
  void ratio(const std::string& name, const std::string& floor, const std::string& mapped) {
    const auto a = times_.find(name);
    const auto b = times_.find(floor);
    const auto c = times_.find(mapped);
    if (a == times_.end() || b == times_.end() || c == times_.end() || b->second <= 0 || c->second <= 0)
      return;
    std::printf("  %-26s %10.1f us   floor %9.1f us  ratio %6.2f   new mapping %9.1f us  ratio %5.2f\n",
                name.c_str(), a->second, b->second, a->second / b->second, c->second, a->second / c->second);
  }
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

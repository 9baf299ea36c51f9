// SPDX-License-Identifier: MIT
// Benchmark: ScanMedia of a medium of 1,000 clips and 20 playlists beside the I/O floor of the same files.
#include <benchmark/benchmark.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "bench_support.h"
#include "media_cache.h"

namespace {

using bench_support::ClipDir;
using bench_support::ioFloor;
using bench_support::kClips;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;

constexpr int kPlaylists = 20;

ClipDir& medium() {
  static ClipDir* dir = [] {
    ClipDir* d = new ClipDir;
    for (int i = 0; i < kPlaylists; ++i)
      d->addFile(
          "list" + std::to_string(i) + ".playlist",
          "{\"name\":\"List " + std::to_string(i) + "\",\"cliplist\":[\"0_audio_1x2.mov\",\"1_x.mov\"]}");
    return d;
  }();
  return *dir;
}

bench_support::BenchCache& sharedCache() {
  static bench_support::BenchCache cache("vorta_bench_scan", kClips, kPlaylists);
  return cache;
}

double gFloorNs = 0;

// The least a scan must do: read the directory once, and per clip stat,
// open, read the atom headers and the moov, close; per playlist read the file.
void BM_ScanFloor(benchmark::State& state) {
  const std::string dir = medium().dir();
  std::vector<unsigned char> buffer;
  std::size_t bytes = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) {
    DIR* d = opendir(dir.c_str());
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      const std::string path = dir + "/" + e->d_name;
      if (path.find(".playlist") != std::string::npos) {
        std::ifstream in(path, std::ios::binary);
        bytes += static_cast<std::size_t>(in.seekg(0, std::ios::end).tellg());
      } else {
        bytes += ioFloor(path, buffer);
      }
    }
    closedir(d);
  }
  gFloorNs = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count() /
             static_cast<double>(state.iterations());
  benchmark::DoNotOptimize(bytes);
}
BENCHMARK(BM_ScanFloor)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScanMedia(benchmark::State& state) {
  std::string dir = medium().dir();
  MediaCache& cache = *sharedCache().cache;
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) cache.ScanMedia(dir, 1);
  const double ns =
      std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count() /
      static_cast<double>(state.iterations());
  state.counters["clips"] = static_cast<double>(cache.GetClips().size());
  if (gFloorNs > 0) state.counters["x_floor"] = ns / gFloorNs;
}
BENCHMARK(BM_ScanMedia)->Unit(benchmark::kMillisecond)->UseRealTime();

long peakKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, 6, "VmHWM:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

// Peak memory a scan adds, measured in a fresh child process so that
// nothing earlier in the run counts: the growth of the resident high-water
// mark over the scan, against the size of the catalogue image it writes.
void BM_ScanPeakMemory(benchmark::State& state) {
  std::string dir = medium().dir();
  MediaCache& cache = *sharedCache().cache;
  cache.ScanMedia(dir, 1);  // the page cache and the segment are warm
  const double image = static_cast<double>(MediaCache::ClipImageSize(cache.GetClips().size()));
  double ratio = 0;
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
      close(fds[0]);
      MediaCache mine(sharedCache().options);
      const long before = peakKb();
      mine.ScanMedia(dir, 1);
      const long grown = peakKb() - before;
      if (write(fds[1], &grown, sizeof grown) != static_cast<ssize_t>(sizeof grown)) _exit(1);
      _exit(0);
    }
    close(fds[1]);
    long grown = 0;
    if (read(fds[0], &grown, sizeof grown) != static_cast<ssize_t>(sizeof grown)) std::abort();
    close(fds[0]);
    waitpid(child, nullptr, 0);
    ratio = static_cast<double>(grown) * 1024.0 / image;
    state.counters["peak_MB"] = static_cast<double>(grown) / 1024.0;
  }
  state.counters["image_MB"] = image / (1024.0 * 1024.0);
  state.counters["x_image"] = ratio;
}
BENCHMARK(BM_ScanPeakMemory)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

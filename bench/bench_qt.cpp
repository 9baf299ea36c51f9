// SPDX-License-Identifier: MIT
// Benchmark: scanning 1,000 QuickTime clips with CFileParams::create beside the I/O floor of the same files.
#define _FILE_OFFSET_BITS 64

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "zevqtfileparams.h"

namespace {

using bench_support::ClipDir;
using bench_support::ioFloor;
using bench_support::kClips;

ClipDir& clips() {
  static ClipDir dir;
  return dir;
}

double gFloorNsPerFile = 0;

double nsPerFile(std::chrono::steady_clock::duration total, benchmark::IterationCount iterations) {
  return std::chrono::duration<double, std::nano>(total).count() / (static_cast<double>(iterations) * kClips);
}

void BM_IoFloor(benchmark::State& state) {
  const auto& paths = clips().paths();
  std::vector<unsigned char> moov;
  std::size_t bytes = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state)
    for (const auto& p : paths) bytes += ioFloor(p, moov);
  gFloorNsPerFile = nsPerFile(std::chrono::steady_clock::now() - begin, state.iterations());
  state.counters["us_per_file"] = gFloorNsPerFile / 1000.0;
  benchmark::DoNotOptimize(bytes);
  state.SetItemsProcessed(state.iterations() * kClips);
}
BENCHMARK(BM_IoFloor)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScanClips(benchmark::State& state) {
  const auto& paths = clips().paths();
  int valid = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) {
    for (const auto& p : paths) {
      std::unique_ptr<CFileParams> params(CFileParams::create(p.c_str()));
      if (params && params->FileIsValid()) ++valid;
    }
  }
  const double ns = nsPerFile(std::chrono::steady_clock::now() - begin, state.iterations());
  benchmark::DoNotOptimize(valid);
  // How many times the I/O floor (measured just before, same files) a scan costs.
  state.counters["us_per_file"] = ns / 1000.0;
  if (gFloorNsPerFile > 0) state.counters["x_floor"] = ns / gFloorNsPerFile;
  state.SetItemsProcessed(state.iterations() * kClips);
}
BENCHMARK(BM_ScanClips)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

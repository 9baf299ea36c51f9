// SPDX-License-Identifier: MIT
// Benchmark of LUT_Utils::parse on a 4,096-line 12-bit table, beside its floor:
// reading the same file and converting its numbers with strtol.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "lut_utils.h"

namespace {

constexpr int kEntries = 4096;

// A 12-bit table: 4,096 entries with a header and a comment every 256 lines.
const std::string& lutFile() {
  static const std::string path = [] {
    char dir[] = "/tmp/bench_lut_XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    const std::string file = std::string(dir) + "/ramp12.lut";
    std::ofstream out(file);
    out << "# 12-bit table, 4096 entries\n// red green blue\n";
    for (int i = 0; i < kEntries; ++i) {
      if (i % 256 == 0) out << "# segment " << i / 256 << "\n";
      out << i << ' ' << (4095 - i) << ' ' << (i * 7) % 4096 << "\n";
    }
    out.close();
    std::atexit([] {
      const std::string& f = lutFile();
      std::remove(f.c_str());
      rmdir(f.substr(0, f.rfind('/')).c_str());
    });
    return file;
  }();
  return path;
}

struct Tables {
  std::vector<int16_t> red = std::vector<int16_t>(kEntries), green = red, blue = red;
};

bool parseOnce(Tables& t) {
  int32_t count = 0;
  std::string message;
  const bool ok = zev::utils::LUT_Utils::parse(lutFile(), t.red.data(), t.green.data(), t.blue.data(),
                                               kEntries, count, message);
  return ok && count == kEntries;
}

// The floor: read the whole file and convert every number of every entry
// line with strtol, skipping comment lines.
int floorOnce(Tables& t) {
  FILE* f = std::fopen(lutFile().c_str(), "rb");
  if (f == nullptr) std::abort();
  std::string text;
  char chunk[16384];
  std::size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, n);
  std::fclose(f);
  int index = 0;
  const char* p = text.c_str();
  while (*p != '\0') {
    const char* eol = std::strchr(p, '\n');
    if (eol == nullptr) eol = p + std::strlen(p);
    if (*p != '#' && *p != '/' && index < kEntries) {
      char* end;
      t.red[index] = static_cast<int16_t>(std::strtol(p, &end, 10));
      t.green[index] = static_cast<int16_t>(std::strtol(end, &end, 10));
      t.blue[index] = static_cast<int16_t>(std::strtol(end, &end, 10));
      ++index;
    }
    p = *eol ? eol + 1 : eol;
  }
  return index;
}

void BM_LutParse4096(benchmark::State& state) {
  Tables t;
  for (auto _ : state) {
    if (!parseOnce(t)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(t.red.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kEntries);
}
BENCHMARK(BM_LutParse4096)->Unit(benchmark::kMillisecond);

void BM_Floor_ReadStrtol4096(benchmark::State& state) {
  Tables t;
  for (auto _ : state) {
    if (floorOnce(t) != kEntries) state.SkipWithError("floor read the wrong number of entries");
    benchmark::DoNotOptimize(t.red.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kEntries);
}
BENCHMARK(BM_Floor_ReadStrtol4096)->Unit(benchmark::kMillisecond);

long vmHwmKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

// Peak resident memory that one call adds, measured in a fresh child process
// so that nothing earlier in this run has raised the high-water mark.
long peakAddedKb(bool parse) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    Tables t;
    floorOnce(t);  // touch the tables and the file once in both cases
    const long before = vmHwmKb();
    if (parse) parseOnce(t);
    const long added = vmHwmKb() - before;
    if (write(fds[1], &added, sizeof added) != static_cast<ssize_t>(sizeof added)) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  long added = -1;
  if (read(fds[0], &added, sizeof added) != static_cast<ssize_t>(sizeof added)) added = -1;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return added;
}

// Best of a number of runs of fn, in microseconds.
template <typename F>
double bestMicros(F fn) {
  double best = 1e18;
  for (int i = 0; i < 30; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    const auto t1 = std::chrono::steady_clock::now();
    best = std::min(best, std::chrono::duration<double, std::micro>(t1 - t0).count());
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  // Summary against the floor, measured in this same run.
  Tables t;
  const double parseUs = bestMicros([&] { parseOnce(t); });
  const double floorUs = bestMicros([&] { floorOnce(t); });
  std::cout << "LUT parse of " << kEntries << " lines: best " << parseUs / 1000.0
            << " ms, floor (read + strtol) " << floorUs / 1000.0 << " ms, ratio " << parseUs / floorUs
            << "x (target: under 20x and 10 ms)\n";
  std::cout << "peak memory added by one parse: " << peakAddedKb(true) << " kB (VmHWM; the same measurement "
            << "without the parse adds " << peakAddedKb(false) << " kB)\n";
  return 0;
}

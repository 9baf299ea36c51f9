// SPDX-License-Identifier: MIT
// Benchmarks of the display-text conversion and the take parser, each beside its floor.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "clip.h"
#include "fileparams.h"
#include "textconv.h"

namespace {

// A display line with accented letters, box drawing and plain ASCII.
const std::string kDisplayLine =
    "\xE2\x94\x8C\xE2\x94\x80 Sc\xC3\xA8ne 12 \xE2\x94\x80 Prise 3 \xE2\x94\x80 "
    "\xCF\x80 caf\xC3\xA9 \xE2\x96\x88\xE2\x96\x88 r\xC3\xA9gl\xC3\xA9 \xE2\x94\x90";

void BM_Cp437Copy(benchmark::State& state) {
  char dest[64];
  for (auto _ : state) {
    strncpyasutf8_map_cp437(dest, kDisplayLine.data(), static_cast<int>(kDisplayLine.size()), sizeof dest);
    benchmark::DoNotOptimize(dest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kDisplayLine.size()));
}
BENCHMARK(BM_Cp437Copy);

void BM_Utf8Copy(benchmark::State& state) {
  char dest[64];
  for (auto _ : state) {
    strncpyasutf8(dest, kDisplayLine.c_str(), sizeof dest);
    benchmark::DoNotOptimize(dest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kDisplayLine.size()));
}
BENCHMARK(BM_Utf8Copy);

// Floor: a plain bounded copy of the same bytes.
void BM_Floor_Memcpy(benchmark::State& state) {
  char dest[64];
  for (auto _ : state) {
    std::memcpy(dest, kDisplayLine.data(), sizeof dest - 1);
    dest[sizeof dest - 1] = 0;
    benchmark::DoNotOptimize(dest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kDisplayLine.size()));
}
BENCHMARK(BM_Floor_Memcpy);

void BM_ExtractTake(benchmark::State& state) {
  const std::string name = "A001_C003_0725XY_TK12.mov";
  for (auto _ : state) benchmark::DoNotOptimize(Clip::extractTake(name));
}
BENCHMARK(BM_ExtractTake);

// Floor: strtol of the digits alone.
void BM_Floor_Strtol(benchmark::State& state) {
  const char* digits = "12.mov";
  for (auto _ : state) benchmark::DoNotOptimize(std::strtol(digits, nullptr, 10));
}
BENCHMARK(BM_Floor_Strtol);

void BM_AttributesMap(benchmark::State& state) {
  CFileParams params("clip.mov");
  params.AddAttribute("Format", "1920x1080i29.97");
  params.AddAttribute("Encode Type", "1");
  params.AddAttribute("Audio Chan", "4");
  params.AddAttribute("Starting TC", "01:00:00;00");
  for (auto _ : state) benchmark::DoNotOptimize(params.attributes.getAttributesMap());
}
BENCHMARK(BM_AttributesMap);

}  // namespace

BENCHMARK_MAIN();

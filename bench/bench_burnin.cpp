// SPDX-License-Identifier: MIT
// Benchmarks of the time code burn-in, each format and size beside its floor: a plain row-by-row copy of the
// same glyph bytes into the same frame.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "rp188.h"

namespace {

struct Format {
  VexaFrameBufferFormat format;
  const char* name;
};
const Format kFormats[] = {{FBF10BitYCbCr, "v210"},
                           {FBF8BitYCbCr, "ycbcr8"},
                           {FBFARGB, "argb"},
                           {FBFRGBA, "rgba"},
                           {FBF10BitRGB, "rgb10"}};
const SIZE kSizes[] = {{1920, 1080}, {3840, 2160}};

int lineBytesOf(VexaFrameBufferFormat format, int width) {
  if (format == FBF10BitYCbCr) return (width + 47) / 48 * 128;
  return width * (format == FBF8BitYCbCr ? 2 : 4);
}

// A frame of the size, touched once so that no page faults are measured.
std::vector<char> frameFor(VexaFrameBufferFormat format, SIZE size, int& pitch) {
  pitch = lineBytesOf(format, size.cx);
  return std::vector<char>(static_cast<std::size_t>(pitch) * static_cast<std::size_t>(size.cy), 0x40);
}

// BurnTC of 01:23:45:29 (eleven cells) in timecode mode.
void burnTC(benchmark::State& state, Format f, SIZE size) {
  CRP188 tc(29, 45, 23, 1, TCFormat30fps);
  if (!tc.InitBurnIn(f.format, size, 0)) {
    state.SkipWithError("InitBurnIn failed");
    return;
  }
  BurnInGeometry g{};
  tc.GetBurnInGeometry(g);
  int pitch = 0;
  std::vector<char> frame = frameFor(f.format, size, pitch);
  for (auto _ : state) {
    benchmark::DoNotOptimize(tc.BurnTC(frame.data(), pitch, BurnTimecode, 0, false));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 11 * g.rowBytes * g.glyphHeight);
}

// Floor: the same eleven glyphs' bytes, from a buffer laid out like the
// glyph buffer, copied row by row with memcpy to the same places.
void floorCopy(benchmark::State& state, Format f, SIZE size) {
  CRP188 tc(0u, TCFormat30fps);
  if (!tc.InitBurnIn(f.format, size, 0)) {
    state.SkipWithError("InitBurnIn failed");
    return;
  }
  BurnInGeometry g{};
  tc.GetBurnInGeometry(g);
  const std::size_t glyphSize =
      static_cast<std::size_t>(g.rowBytes) * static_cast<std::size_t>(g.glyphHeight);
  std::vector<char> glyphs(15 * glyphSize, 0x11);
  int pitch = 0;
  std::vector<char> frame = frameFor(f.format, size, pitch);
  const int cells[11] = {0, 1, 10, 2, 3, 10, 4, 5, 10, 2, 9};
  for (auto _ : state) {
    char* dest = frame.data() + static_cast<std::ptrdiff_t>(pitch) * g.verticalStart + g.horizontalStart;
    for (int cell : cells) {
      const char* src = glyphs.data() + static_cast<std::size_t>(cell) * glyphSize;
      char* row = dest;
      for (int line = 0; line < g.glyphHeight; ++line) {
        std::memcpy(row, src, static_cast<std::size_t>(g.rowBytes));
        src += g.rowBytes;
        row += pitch;
      }
      dest += g.rowBytes;
    }
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 11 * g.rowBytes * g.glyphHeight);
}

// The whole set-up for a UHD frame: the font scaled 3 x 6 and converted.
void initBurnIn(benchmark::State& state, Format f) {
  for (auto _ : state) {
    CRP188 tc(0u, TCFormat30fps);
    benchmark::DoNotOptimize(tc.InitBurnIn(f.format, SIZE{3840, 2160}, 0));
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const SIZE& size : kSizes) {
    const std::string dims = std::to_string(size.cx) + "x" + std::to_string(size.cy);
    for (const Format& f : kFormats) {
      benchmark::RegisterBenchmark(("BurnTC/" + std::string(f.name) + "/" + dims).c_str(), burnTC, f, size);
      benchmark::RegisterBenchmark(("Floor_GlyphCopy/" + std::string(f.name) + "/" + dims).c_str(), floorCopy,
                                   f, size);
    }
  }
  for (const Format& f : kFormats)
    benchmark::RegisterBenchmark(("InitBurnIn/" + std::string(f.name) + "/3840x2160").c_str(), initBurnIn, f)
        ->Unit(benchmark::kMicrosecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

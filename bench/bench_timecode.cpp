// SPDX-License-Identifier: MIT
// Benchmarks of CRP188 (frame count to text, text to frame count, stepping,
// register encode and decode), each beside libavutil's timecode functions as
// the reference, with the ratio ours / libavutil printed at the end.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "rp188.h"

#ifdef VORTA_BENCH_HAVE_LIBAVUTIL
extern "C" {
#include <libavutil/timecode.h>
}
#endif

namespace {

struct FormatCase {
  const char* name;
  TimecodeFormat format;
  int rateNum, rateDen;
  bool drop;
};

const FormatCase kFormats[] = {
    {"25", TCFormat25fps, 25, 1, false},
    {"30df", TCFormat30fpsDF, 30000, 1001, true},
    {"60df", TCFormat60fpsDF, 60000, 1001, true},
};

// A fixed spread of frame counts over the day, the same for both sides.
constexpr std::size_t kCounts = 4096;

std::vector<unsigned int> frameCounts(const FormatCase& fc) {
  const unsigned int day = CRP188(0u, fc.format).MaxFramesPerDay();
  std::vector<unsigned int> counts(kCounts);
  uint32_t x = 12345;
  for (unsigned int& n : counts) {
    x = x * 1664525u + 1013904223u;
    n = x % day;
  }
  return counts;
}

std::vector<std::string> texts(const FormatCase& fc) {
  std::vector<std::string> out;
  CRP188 tc;
  for (unsigned int n : frameCounts(fc)) {
    tc.SetRP188(n, fc.format);
    out.push_back(tc.GetRP188CString());
  }
  return out;
}

void countToText(benchmark::State& state, const FormatCase& fc) {
  const std::vector<unsigned int> counts = frameCounts(fc);
  CRP188 tc;
  std::size_t i = 0;
  for (auto _ : state) {
    tc.SetRP188(counts[i], fc.format);
    benchmark::DoNotOptimize(tc.GetRP188CString());
    i = (i + 1) % kCounts;
  }
}

void textToCount(benchmark::State& state, const FormatCase& fc) {
  std::vector<std::string> all = texts(fc);
  CRP188 tc;
  std::size_t i = 0;
  for (auto _ : state) {
    tc.SetRP188(all[i], fc.format);
    unsigned int count = 0;
    tc.GetFrameCount(count);
    benchmark::DoNotOptimize(count);
    i = (i + 1) % kCounts;
  }
}

void addOneFrame(benchmark::State& state, const FormatCase& fc) {
  CRP188 tc(0u, fc.format);
  for (auto _ : state) benchmark::DoNotOptimize(tc.AddFrames(1));
}

struct Components {
  unsigned int h, m, s, f;
};

std::vector<Components> components(const FormatCase& fc) {
  std::vector<Components> out;
  CRP188 tc;
  for (unsigned int n : frameCounts(fc)) {
    Components c{};
    tc.ConvertFrameCount(n, fc.format, c.h, c.m, c.s, c.f);
    out.push_back(c);
  }
  return out;
}

void registerEncode(benchmark::State& state, const FormatCase& fc) {
  const std::vector<Components> all = components(fc);
  CRP188 tc(0u, fc.format);
  std::size_t i = 0;
  for (auto _ : state) {
    const Components& c = all[i];
    tc.SetRP188(c.f, c.s, c.m, c.h, fc.format);
    RP188_STRUCT regs;
    tc.GetRP188Reg(regs);
    benchmark::DoNotOptimize(regs);
    i = (i + 1) % kCounts;
  }
}

void registerDecode(benchmark::State& state, const FormatCase& fc) {
  std::vector<RP188_STRUCT> words;
  CRP188 tc;
  for (unsigned int n : frameCounts(fc)) {
    tc.SetRP188(n, fc.format);
    RP188_STRUCT regs;
    tc.GetRP188Reg(regs);
    words.push_back(regs);
  }
  std::size_t i = 0;
  for (auto _ : state) {
    tc.SetRP188(words[i], fc.format);
    benchmark::DoNotOptimize(tc.GetRP188CString());
    i = (i + 1) % kCounts;
  }
}

#ifdef VORTA_BENCH_HAVE_LIBAVUTIL
AVRational rateOf(const FormatCase& fc) { return AVRational{fc.rateNum, fc.rateDen}; }
int flagsOf(const FormatCase& fc) { return fc.drop ? AV_TIMECODE_FLAG_DROPFRAME : 0; }

// libavutil's frame number to SMPTE text: set up the time code, then print.
void refCountToText(benchmark::State& state, const FormatCase& fc) {
  const std::vector<unsigned int> counts = frameCounts(fc);
  char buf[AV_TIMECODE_STR_SIZE];
  std::size_t i = 0;
  for (auto _ : state) {
    AVTimecode avtc;
    av_timecode_init(&avtc, rateOf(fc), flagsOf(fc), 0, nullptr);
    benchmark::DoNotOptimize(av_timecode_make_string(&avtc, buf, static_cast<int>(counts[i])));
    i = (i + 1) % kCounts;
  }
}

void refTextToCount(benchmark::State& state, const FormatCase& fc) {
  const std::vector<std::string> all = texts(fc);
  std::size_t i = 0;
  for (auto _ : state) {
    AVTimecode avtc;
    av_timecode_init_from_string(&avtc, rateOf(fc), all[i].c_str(), nullptr);
    benchmark::DoNotOptimize(avtc.start);
    i = (i + 1) % kCounts;
  }
}

void refAddOneFrame(benchmark::State& state, const FormatCase& fc) {
  // libavutil keeps no value to step; the equivalent is the next frame
  // number turned into its SMPTE word.
  AVTimecode avtc;
  av_timecode_init(&avtc, rateOf(fc), flagsOf(fc) | AV_TIMECODE_FLAG_24HOURSMAX, 0, nullptr);
  const int day = static_cast<int>(CRP188(0u, fc.format).MaxFramesPerDay());
  int n = 0;
  for (auto _ : state) {
    n = n + 1 == day ? 0 : n + 1;
    benchmark::DoNotOptimize(av_timecode_get_smpte_from_framenum(&avtc, n));
  }
}

void refRegisterEncode(benchmark::State& state, const FormatCase& fc) {
  const std::vector<Components> all = components(fc);
  std::size_t i = 0;
  for (auto _ : state) {
    const Components& c = all[i];
    benchmark::DoNotOptimize(av_timecode_get_smpte(rateOf(fc), fc.drop ? 1 : 0, static_cast<int>(c.h),
                                                   static_cast<int>(c.m), static_cast<int>(c.s),
                                                   static_cast<int>(c.f)));
    i = (i + 1) % kCounts;
  }
}

void refRegisterDecode(benchmark::State& state, const FormatCase& fc) {
  AVTimecode avtc;
  av_timecode_init(&avtc, rateOf(fc), flagsOf(fc), 0, nullptr);
  std::vector<uint32_t> words;
  for (unsigned int n : frameCounts(fc))
    words.push_back(av_timecode_get_smpte_from_framenum(&avtc, static_cast<int>(n)));
  char buf[AV_TIMECODE_STR_SIZE];
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(av_timecode_make_smpte_tc_string2(buf, rateOf(fc), words[i], 0, 0));
    i = (i + 1) % kCounts;
  }
}
#endif

using BenchFn = void (*)(benchmark::State&, const FormatCase&);

struct Pair {
  const char* what;
  BenchFn ours;
  BenchFn reference;  // null without libavutil
};

// Prints the usual table and remembers each result's time per iteration.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        times_[run.benchmark_name()] = run.GetAdjustedRealTime();
  }
  bool has(const std::string& name) const { return times_.count(name) != 0; }
  double time(const std::string& name) const { return times_.at(name); }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
#ifdef VORTA_BENCH_HAVE_LIBAVUTIL
  const Pair pairs[] = {
      {"CountToText", countToText, refCountToText},
      {"TextToCount", textToCount, refTextToCount},
      {"AddFrames1", addOneFrame, refAddOneFrame},
      {"RegisterEncode", registerEncode, refRegisterEncode},
      {"RegisterDecode", registerDecode, refRegisterDecode},
  };
#else
  const Pair pairs[] = {
      {"CountToText", countToText, nullptr},       {"TextToCount", textToCount, nullptr},
      {"AddFrames1", addOneFrame, nullptr},        {"RegisterEncode", registerEncode, nullptr},
      {"RegisterDecode", registerDecode, nullptr},
  };
#endif
  for (const Pair& pair : pairs) {
    for (const FormatCase& fc : kFormats) {
      const std::string suffix = std::string(pair.what) + "/" + fc.name;
      benchmark::RegisterBenchmark(("vorta/" + suffix).c_str(), pair.ours, fc);
      if (pair.reference != nullptr)
        benchmark::RegisterBenchmark(("libavutil/" + suffix).c_str(), pair.reference, fc);
    }
  }

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  std::printf("\nours / libavutil (time per call; <= 1.0 means no slower):\n");
  bool any = false;
  for (const Pair& pair : pairs) {
    for (const FormatCase& fc : kFormats) {
      const std::string suffix = std::string(pair.what) + "/" + fc.name;
      if (!reporter.has("vorta/" + suffix) || !reporter.has("libavutil/" + suffix)) continue;
      const double ours = reporter.time("vorta/" + suffix);
      const double theirs = reporter.time("libavutil/" + suffix);
      std::printf("  %-22s %8.1f ns / %8.1f ns = %5.2f%s\n", suffix.c_str(), ours, theirs, ours / theirs,
                  suffix == "CountToText/30df" ? "  (target <= 1.0)" : "");
      any = true;
    }
  }
  if (!any) std::printf("  (no reference measured: libavutil not built in, or filtered out)\n");
  benchmark::Shutdown();
  return 0;
}

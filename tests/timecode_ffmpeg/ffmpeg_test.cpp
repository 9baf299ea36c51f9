// SPDX-License-Identifier: MIT
// Differential tests of CRP188 against FFmpeg's libavutil: for every frame
// count of a day in each format, the same text and the same time code bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#include "rp188.h"

extern "C" {
#include <libavutil/timecode.h>
}

namespace {

struct Reference {
  TimecodeFormat format;
  const char* name;
  AVRational rate;
  int flags;
};

// libavutil takes the rate as a fraction; the drop-frame formats are the
// NTSC rates with the drop flag, which libavutil accepts for 30000/1001 and
// 60000/1001 (dropping 2 and 4 frame numbers a minute).
const Reference kReferences[] = {
    {TCFormat24fps, "F24", {24, 1}, 0},
    {TCFormat25fps, "F25", {25, 1}, 0},
    {TCFormat30fps, "F30", {30, 1}, 0},
    {TCFormat30fpsDF, "F30DF", {30000, 1001}, AV_TIMECODE_FLAG_DROPFRAME},
    {TCFormat50fps, "F50", {50, 1}, 0},
    {TCFormat60fps, "F60", {60, 1}, 0},
    {TCFormat60fpsDF, "F60DF", {60000, 1001}, AV_TIMECODE_FLAG_DROPFRAME},
};

// Our words in libavutil's 32-bit SMPTE packing: drop flag in bit 30, then
// BCD frame, second, minute and hour digits from the top byte down. At 50
// and 60 frames both sides carry half the frame number in the digits and
// its lowest bit as a field mark: libavutil in bit 7 (the hours byte) for
// 50 and in bit 23 (the seconds byte) otherwise, which are exactly our high
// bit 27 in PAL formats and low bit 27 elsewhere. The colour-frame bit
// (libavutil's bit 31) is clear on both sides.
uint32_t ourWordsInFfmpegPacking(const RP188_STRUCT& regs, bool rate60_50, bool pal) {
  const uint32_t low = regs.low;
  const uint32_t high = regs.high;
  uint32_t tc = 0;
  tc |= ((low >> 10) & 1) << 30;
  tc |= ((low >> 8) & 3) << 28;
  tc |= (low & 0xF) << 24;
  tc |= ((low >> 24) & 7) << 20;
  tc |= ((low >> 16) & 0xF) << 16;
  tc |= ((high >> 8) & 7) << 12;
  tc |= (high & 0xF) << 8;
  tc |= ((high >> 24) & 3) << 4;
  tc |= (high >> 16) & 0xF;
  if (rate60_50) {
    if (pal) {
      tc |= ((high >> 27) & 1) << 7;
    } else {
      tc |= ((low >> 27) & 1) << 23;
    }
  }
  return tc;
}

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const Reference& ref, std::ostream* out) { *out << ref.name; }

class AgainstLibavutil : public ::testing::TestWithParam<Reference> {};

// av_timecode_make_string prints HH:MM:SS:FF with ";" before the frames in
// drop frame, the frames being the frame number within the second (0 to 59
// at 60 frames): the same form as our text, which at 50 and 60 frames also
// holds the full frame number. So the texts compare directly in every format.
TEST_P(AgainstLibavutil, TextOfEveryFrameCountOfADay) {
  const Reference& ref = GetParam();
  AVTimecode avtc;
  ASSERT_EQ(av_timecode_init(&avtc, ref.rate, ref.flags, 0, nullptr), 0);
  CRP188 tc(0u, ref.format);
  const unsigned int day = tc.MaxFramesPerDay();
  char buf[AV_TIMECODE_STR_SIZE];
  unsigned int failures = 0;
  for (unsigned int n = 0; n < day && failures < 10; ++n) {
    tc.SetRP188(n, ref.format);
    av_timecode_make_string(&avtc, buf, static_cast<int>(n));
    if (std::strcmp(tc.GetRP188CString(), buf) != 0) {
      ++failures;
      ADD_FAILURE() << "frame count " << n << ": ours " << tc.GetRP188CString() << ", libavutil " << buf;
    }
  }
}

TEST_P(AgainstLibavutil, TimecodeBitsOfEveryFrameCountOfADay) {
  const Reference& ref = GetParam();
  AVTimecode avtc;
  ASSERT_EQ(av_timecode_init(&avtc, ref.rate, ref.flags, 0, nullptr), 0);
  CRP188 tc(0u, ref.format);
  const unsigned int day = tc.MaxFramesPerDay();
  const bool rate60_50 = tc.FormatIs60_50fps();
  const bool pal = tc.FormatIsPAL();
  unsigned int failures = 0;
  for (unsigned int n = 0; n < day && failures < 10; ++n) {
    tc.SetRP188(n, ref.format);
    RP188_STRUCT regs{};
    tc.GetRP188Reg(regs);
    const uint32_t ours = ourWordsInFfmpegPacking(regs, rate60_50, pal);
    const uint32_t theirs = av_timecode_get_smpte_from_framenum(&avtc, static_cast<int>(n));
    if (ours != theirs) {
      ++failures;
      ADD_FAILURE() << "frame count " << n << " (" << tc.GetRP188CString() << "): ours " << std::hex << ours
                    << ", libavutil " << theirs;
    }
  }
}

std::string referenceName(const ::testing::TestParamInfo<Reference>& param) { return param.param.name; }

INSTANTIATE_TEST_SUITE_P(EveryFormat, AgainstLibavutil, ::testing::ValuesIn(kReferences), referenceName);

}  // namespace

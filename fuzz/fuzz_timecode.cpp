// SPDX-License-Identifier: MIT
// Fuzz target: CRP188 time code text, register words and components from arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "rp188.h"

namespace {

uint32_t word(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Every setter leaves the canonical 11-character text behind.
void checkText(const CRP188& tc) {
  if (std::strlen(tc.GetRP188CString()) != 11) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Byte 0: format (0 to 8); bytes 1-16: four words; the rest: a time code text.
  if (size < 17) return 0;
  const TimecodeFormat format = static_cast<TimecodeFormat>(data[0] % 9);
  const uint32_t w0 = word(data + 1), w1 = word(data + 5), w2 = word(data + 9), w3 = word(data + 13);
  std::string text(reinterpret_cast<const char*>(data + 17), size - 17);

  CRP188 tc(text, format);
  checkText(tc);
  tc.GetTimeCodeString(true);
  tc.GetRP188UserBitsCString();

  const RP188_STRUCT regs{w0, w1, w2};
  CRP188 decoded(regs, format);
  checkText(decoded);
  decoded.GetTimeCodeString(true);
  decoded.ConvertTcStrToReg();
  decoded.VaricamFrameRate();
  unsigned int count = 0;
  decoded.GetFrameCount(count);
  decoded.AddFrames(w3);
  checkText(decoded);
  decoded.SubtractFrames(w0);
  checkText(decoded);

  CRP188 parts(w0, w1, w2, w3, format);
  checkText(parts);
  parts.ConvertTimecode(count, format, w0, w1, w2, w3);
  unsigned int h, m, s, f;
  parts.ConvertFrameCount(w3, format, h, m, s, f);
  parts.SetRP188(w0 & 0xFFFF, w1 & 0xFFFF, w2 & 0xFFFF, w3 & 0xFFFF, static_cast<VexaFrameRate>(data[0] % 16),
                 (data[0] & 0x10) != 0, (data[0] & 0x20) != 0);
  checkText(parts);

  CRP188 copy(parts);
  copy = decoded;
  static_cast<void>(copy == parts);
  return 0;
}

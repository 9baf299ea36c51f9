// SPDX-License-Identifier: MIT
// vorta: UTF-8 copies into fixed-size buffers and the code page 437 mapping.
#include "textconv.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

// clang-format off
const unsigned char trailingBytesForUTF8[256] = {
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
  1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1, 1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,
  2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2, 3,3,3,3,3,3,3,3,4,4,4,4,5,5,5,5,
};
// clang-format on

namespace {

// The IBM code page 437 characters for codes 128 to 254, as Unicode code
// points, in code order. Code 255 (no-break space) is deliberately left out.
const uint16_t kCp437High[127] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7,  // 128
    0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE, 0x00EC, 0x00C4, 0x00C5,  // 136
    0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,  // 144
    0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192,  // 152
    0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA, 0x00BA,  // 160
    0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,  // 168
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556,  // 176
    0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510,  // 184
    0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,  // 192
    0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567,  // 200
    0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B,  // 208
    0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,  // 216
    0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,  // 224
    0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229,  // 232
    0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,  // 240
    0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0,          // 248
};

struct Cp437Entry {
  uint16_t codePoint;
  unsigned char code;
};

// The inverse table, sorted by code point, built once.
struct Cp437Index {
  Cp437Entry entries[127];
  Cp437Index() {
    for (int i = 0; i < 127; ++i) entries[i] = {kCp437High[i], static_cast<unsigned char>(128 + i)};
    std::sort(std::begin(entries), std::end(entries),
              [](const Cp437Entry& a, const Cp437Entry& b) { return a.codePoint < b.codePoint; });
  }
};

const Cp437Index& cp437Index() {
  static const Cp437Index index;
  return index;
}

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Decodes a well-formed two- or three-byte UTF-8 sequence; false for
// anything else (wrong lead byte, bad continuation, overlong, surrogate).
bool decodeShortSequence(const unsigned char* s, int length, uint32_t& codePoint) {
  if (length == 2) {
    if (s[0] < 0xC2 || s[0] > 0xDF || !isContinuation(s[1])) return false;
    codePoint = ((s[0] & 0x1Fu) << 6) | (s[1] & 0x3Fu);
    return true;
  }
  if (length == 3) {
    if ((s[0] & 0xF0) != 0xE0 || !isContinuation(s[1]) || !isContinuation(s[2])) return false;
    codePoint = ((s[0] & 0x0Fu) << 12) | ((s[1] & 0x3Fu) << 6) | (s[2] & 0x3Fu);
    return codePoint >= 0x800 && (codePoint < 0xD800 || codePoint > 0xDFFF);
  }
  return false;
}

int sequenceLength(const char* p) { return trailingBytesForUTF8[static_cast<unsigned char>(*p)] + 1; }

// The mapping copy. srcLimit bounds how many source bytes may be read; the
// unbounded public form passes the largest value.
void copyMapped(char* dest, const char* src, std::size_t srcLimit, int size) {
  if (dest == nullptr || size <= 0) return;
  int budget = size - 1;
  char* out = dest;
  if (src != nullptr && budget > 0) {
    std::size_t consumed = 0;
    do {
      if (consumed >= srcLimit) break;
      const int n = sequenceLength(src + consumed);
      if (static_cast<std::size_t>(n) > srcLimit - consumed) break;
      // A character that maps takes one byte of the budget, so it fits
      // where its UTF-8 form would not (é into a buffer of 2).
      unsigned char code;
      if (map_utf8_to_codepage437(src + consumed, n, &code)) {
        *out++ = static_cast<char>(code);
        budget -= 1;
      } else {
        if (n > budget) break;
        std::memcpy(out, src + consumed, static_cast<std::size_t>(n));
        out += n;
        budget -= n;
      }
      consumed += static_cast<std::size_t>(n);
    } while (budget > 0);
  }
  *out = '\0';
}

}  // namespace

void strncpyasutf8(char* dest, const char* src, int size) {
  if (dest == nullptr || size <= 0) return;
  std::memset(dest, 0, static_cast<std::size_t>(size));
  if (src == nullptr) return;
  int budget = size - 1;
  char* out = dest;
  while (*src != '\0' && budget > 0) {
    const int n = sequenceLength(src);
    if (n > budget) break;
    // A sequence cut short by the terminator is not copied: reading on
    // would leave the source string.
    if (std::memchr(src, '\0', static_cast<std::size_t>(n)) != nullptr) break;
    std::memcpy(out, src, static_cast<std::size_t>(n));
    out += n;
    src += n;
    budget -= n;
  }
}

int map_utf8_to_codepage437(const char* seq, int length, unsigned char* out) {
  if (out == nullptr) return 0;
  *out = 0;
  if (seq == nullptr) return 0;
  uint32_t codePoint;
  if (!decodeShortSequence(reinterpret_cast<const unsigned char*>(seq), length, codePoint)) return 0;
  const Cp437Index& index = cp437Index();
  const Cp437Entry* end = std::end(index.entries);
  const Cp437Entry* hit = std::lower_bound(std::begin(index.entries), end, codePoint,
                                           [](const Cp437Entry& e, uint32_t cp) { return e.codePoint < cp; });
  if (hit == end || hit->codePoint != codePoint) return 0;
  *out = hit->code;
  return 1;
}

void strncpyasutf8_map_cp437(char* dest, const char* src, int size) { copyMapped(dest, src, SIZE_MAX, size); }

void strncpyasutf8_map_cp437(char* dest, const char* src, int srcSize, int size) {
  copyMapped(dest, src, srcSize > 0 ? static_cast<std::size_t>(srcSize) : 0, size);
}

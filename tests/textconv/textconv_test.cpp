// SPDX-License-Identifier: MIT
// Tests of the UTF-8 copies and the code page 437 mapping.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "textconv.h"

namespace {

// The published IBM code page 437 table, codes 128 to 255, as Unicode code points.
const uint16_t kPublishedCp437[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
    0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
    0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
    0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510, 0x2514,
    0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C,
    0x2588, 0x2584, 0x258C, 0x2590, 0x2580, 0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,
    0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320,
    0x2321, 0x00F7, 0x2248, 0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0,
};

std::string utf8(uint32_t cp) {
  std::string s;
  if (cp < 0x80) {
    s += static_cast<char>(cp);
  } else if (cp < 0x800) {
    s += static_cast<char>(0xC0 | (cp >> 6));
    s += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    s += static_cast<char>(0xE0 | (cp >> 12));
    s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    s += static_cast<char>(0x80 | (cp & 0x3F));
  }
  return s;
}

// A heap buffer of exactly the given bytes, so that the address sanitizer
// catches any read past them.
std::unique_ptr<char[]> exact(const std::string& bytes) {
  std::unique_ptr<char[]> p(new char[bytes.size()]);
  std::memcpy(p.get(), bytes.data(), bytes.size());
  return p;
}

std::string copied(const std::string& src, int size) {
  auto source = exact(src + '\0');
  std::vector<char> dest(static_cast<std::size_t>(size) + 1, 'X');
  strncpyasutf8(dest.data(), source.get(), size);
  return std::string(dest.data(), static_cast<std::size_t>(size));
}

std::string mapped(const std::string& src, int size) {
  std::vector<char> dest(static_cast<std::size_t>(size), 'X');
  std::string padded = src;
  padded.resize(std::max<std::size_t>(src.size() + 1, 3u * static_cast<std::size_t>(size)), '\0');
  auto source = exact(padded);
  strncpyasutf8_map_cp437(dest.data(), source.get(), size);
  return std::string(dest.data(), dest.size());
}

TEST(TrailingBytes, FollowTheLeadByteRanges) {
  EXPECT_EQ(trailingBytesForUTF8[0x00], 0);
  EXPECT_EQ(trailingBytesForUTF8[0x7F], 0);
  EXPECT_EQ(trailingBytesForUTF8[0x80], 0);  // a continuation byte standing first
  EXPECT_EQ(trailingBytesForUTF8[0xBF], 0);
  EXPECT_EQ(trailingBytesForUTF8[0xC0], 1);
  EXPECT_EQ(trailingBytesForUTF8[0xDF], 1);
  EXPECT_EQ(trailingBytesForUTF8[0xE0], 2);
  EXPECT_EQ(trailingBytesForUTF8[0xEF], 2);
  EXPECT_EQ(trailingBytesForUTF8[0xF0], 3);
  EXPECT_EQ(trailingBytesForUTF8[0xF7], 3);
  EXPECT_EQ(trailingBytesForUTF8[0xF8], 4);
  EXPECT_EQ(trailingBytesForUTF8[0xFB], 4);
  EXPECT_EQ(trailingBytesForUTF8[0xFC], 5);
  EXPECT_EQ(trailingBytesForUTF8[0xFF], 5);
  // Every byte, not only the ends of each range.
  for (int byte = 0; byte < 256; ++byte) {
    const int expected = byte < 0xC0   ? 0
                         : byte < 0xE0 ? 1
                         : byte < 0xF0 ? 2
                         : byte < 0xF8 ? 3
                         : byte < 0xFC ? 4
                                       : 5;
    EXPECT_EQ(trailingBytesForUTF8[byte], expected) << "byte " << byte;
  }
}

TEST(Cp437Table, EveryCodeFrom128To254MapsBackFromItsUtf8Form) {
  for (int code = 128; code <= 254; ++code) {
    const std::string seq = utf8(kPublishedCp437[code - 128]);
    unsigned char out = 0xEE;
    ASSERT_EQ(map_utf8_to_codepage437(seq.data(), static_cast<int>(seq.size()), &out), 1) << code;
    EXPECT_EQ(out, code);
  }
}

TEST(Cp437Table, NoBreakSpaceIsDeliberatelyNotMapped) {
  unsigned char out = 0xEE;
  EXPECT_EQ(map_utf8_to_codepage437("\xC2\xA0", 2, &out), 0);
  EXPECT_EQ(out, 0);
}

// Every well-formed two- and three-byte character: exactly the 127 of the
// table map, and only to codes 128-254.
TEST(Cp437Table, NothingElseMapsAndNothingMapsBelow128) {
  int hits = 0;
  for (uint32_t cp = 0x80; cp <= 0xFFFF; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    const std::string seq = utf8(cp);
    unsigned char out = 0xEE;
    if (map_utf8_to_codepage437(seq.data(), static_cast<int>(seq.size()), &out)) {
      ++hits;
      ASSERT_GE(out, 128);
      ASSERT_LE(out, 254);
      ASSERT_EQ(kPublishedCp437[out - 128], cp);
    } else {
      ASSERT_EQ(out, 0);
    }
  }
  EXPECT_EQ(hits, 127);
}

TEST(Cp437Table, MapsOnlyTwoAndThreeByteLengths) {
  unsigned char out = 0xEE;
  EXPECT_EQ(map_utf8_to_codepage437("\xC3\xA9", 1, &out), 0);
  EXPECT_EQ(map_utf8_to_codepage437("\xF0\x9F\x98\x80", 4, &out), 0);
  EXPECT_EQ(map_utf8_to_codepage437("A", 1, &out), 0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(map_utf8_to_codepage437("\xC3\xA9", 2, nullptr), 0);
  EXPECT_EQ(map_utf8_to_codepage437(nullptr, 2, &out), 0);
}

TEST(Cp437Table, RefusesMalformedForms) {
  unsigned char out = 0xEE;
  EXPECT_EQ(map_utf8_to_codepage437("\xC3\x29", 2, &out), 0);      // bad continuation
  EXPECT_EQ(map_utf8_to_codepage437("\xE0\x83\xA9", 3, &out), 0);  // overlong é
  EXPECT_EQ(map_utf8_to_codepage437("\xE2\x94", 2, &out), 0);      // cut-off box line
  EXPECT_EQ(out, 0);
}

TEST(Cp437Table, NamedCharacters) {
  unsigned char out = 0;
  EXPECT_EQ(map_utf8_to_codepage437("\xE2\x94\x80", 3, &out), 1);  // U+2500 box horizontal
  EXPECT_EQ(out, 196);
  EXPECT_EQ(map_utf8_to_codepage437("\xE2\x96\x88", 3, &out), 1);  // U+2588 full block
  EXPECT_EQ(out, 219);
  EXPECT_EQ(map_utf8_to_codepage437("\xCF\x80", 2, &out), 1);  // pi
  EXPECT_EQ(out, 227);
  EXPECT_EQ(map_utf8_to_codepage437("\xC6\x92", 2, &out), 1);  // f with hook
  EXPECT_EQ(out, 159);
  EXPECT_EQ(map_utf8_to_codepage437("\xC3\xA9", 2, &out), 1);  // e acute
  EXPECT_EQ(out, 130);
}

TEST(CopyUtf8, NeverSplitsASequence) {
  EXPECT_EQ(copied("\xC3\xA9", 2), std::string(2, '\0'));
  EXPECT_EQ(copied("\xC3\xA9", 3), std::string("\xC3\xA9\0", 3));
}

TEST(CopyUtf8, SizeOneGivesAnEmptyString) { EXPECT_EQ(copied("abc", 1), std::string("\0", 1)); }

TEST(CopyUtf8, SizeZeroLeavesTheDestinationAlone) {
  char dest[4] = {'X', 'X', 'X', 'X'};
  strncpyasutf8(dest, "abc", 0);
  EXPECT_EQ(std::string(dest, 4), "XXXX");
  strncpyasutf8(dest, "abc", -5);
  EXPECT_EQ(std::string(dest, 4), "XXXX");
}

TEST(CopyUtf8, ZeroFillsTheWholeDestination) { EXPECT_EQ(copied("ab", 6), std::string("ab\0\0\0\0", 6)); }

TEST(CopyUtf8, StopsAtTheSourceTerminator) { EXPECT_EQ(copied("", 4), std::string(4, '\0')); }

TEST(CopyUtf8, CopiesLoneContinuationBytesOneByOne) {
  EXPECT_EQ(copied("\x80\xBF"
                   "a",
                   8),
            std::string("\x80\xBF"
                        "a\0\0\0\0\0",
                        8));
}

// A sequence cut short by the terminator would make the copy read past the
// source string: it is not copied.
TEST(CopyUtf8, StopsAtASequenceCutShortByTheTerminator) {
  EXPECT_EQ(copied("ab\xC3", 8), std::string("ab\0\0\0\0\0\0", 8));
  EXPECT_EQ(copied("\xE2\x94", 8), std::string(8, '\0'));
  EXPECT_EQ(copied("\xF0\x9F", 8), std::string(8, '\0'));
  EXPECT_EQ(copied("\xFF", 8), std::string(8, '\0'));
}

TEST(CopyUtf8, CutsALongNameAtASequenceBoundary) {
  std::string name;
  for (int i = 0; i < 50000; ++i) name += "\xC3\xA9";  // 100000 bytes
  const std::string out = copied(name, 64);
  EXPECT_EQ(std::strlen(out.c_str()), 62u);  // 31 whole characters in 63 bytes
  EXPECT_EQ(out.substr(0, 62), name.substr(0, 62));
}

TEST(CopyUtf8, NullSourceGivesAnEmptyString) {
  char dest[3] = {'X', 'X', 'X'};
  strncpyasutf8(dest, nullptr, 3);
  EXPECT_EQ(std::string(dest, 3), std::string(3, '\0'));
}

TEST(CopyCp437, WritesMappedCharactersAsOneByte) {
  EXPECT_EQ(mapped("\xC3\xA9", 2), std::string("\x82\0", 2));
  EXPECT_EQ(mapped("\xE2\x94\x80\xE2\x96\x88\xCF\x80\xC6\x92", 5), std::string("\xC4\xDB\xE3\x9F\0", 5));
}

TEST(CopyCp437, CopiesUnmappedCharactersUnchanged) {
  EXPECT_EQ(mapped("\xC2\xA0", 3), std::string("\xC2\xA0\0", 3));                  // no-break space
  EXPECT_EQ(mapped("\xF0\x9F\x98\x80", 5), std::string("\xF0\x9F\x98\x80\0", 5));  // four bytes
  EXPECT_EQ(mapped("\xE2\x82\xAC", 4), std::string("\xE2\x82\xAC\0", 4));          // euro sign
}

TEST(CopyCp437, SizeOneGivesAnEmptyString) { EXPECT_EQ(mapped("abc", 1), std::string("\0", 1)); }

TEST(CopyCp437, SizeZeroLeavesTheDestinationAlone) {
  char dest[2] = {'X', 'X'};
  strncpyasutf8_map_cp437(dest, "ab", 0);
  EXPECT_EQ(std::string(dest, 2), "XX");
}

// Deliberate: the terminator is copied like any byte and copying goes on
// until the budget is spent.
TEST(CopyCp437, CopiesOnPastTheSourceTerminator) {
  auto source = exact(std::string("a\0bc", 4));
  char dest[6] = {'X', 'X', 'X', 'X', 'X', 'X'};
  strncpyasutf8_map_cp437(dest, source.get(), 5);
  EXPECT_EQ(std::string(dest, 6), std::string("a\0bc\0X", 6));
}

// Deliberate: unlike strncpyasutf8, the destination is not cleared first.
TEST(CopyCp437, DoesNotClearTheDestination) {
  auto source = exact(std::string("a\xC3\xA9", 3));
  char dest[5] = {'X', 'X', 'X', 'X', 'X'};
  strncpyasutf8_map_cp437(dest, source.get(), 3);  // budget 2: "a" then é (one byte)
  EXPECT_EQ(std::string(dest, 5), std::string("a\x82\0XX", 5));
  char dest2[5] = {'X', 'X', 'X', 'X', 'X'};
  auto source2 = exact(std::string("a\xF0\x9F\x98\x80", 5));
  strncpyasutf8_map_cp437(dest2, source2.get(), 4);  // the 4-byte character does not fit
  EXPECT_EQ(std::string(dest2, 5), std::string("a\0XXX", 5));
}

TEST(CopyCp437Bounded, NeverReadsPastTheGivenSourceSize) {
  auto e = exact("\xC3\xA9");  // two bytes, no terminator
  char dest[8];
  strncpyasutf8_map_cp437(dest, e.get(), 2, 8);
  EXPECT_EQ(std::string(dest, 2), std::string("\x82\0", 2));

  auto cut = exact("\xE2\x94");  // a three-byte sequence cut after two
  strncpyasutf8_map_cp437(dest, cut.get(), 2, 8);
  EXPECT_EQ(dest[0], '\0');

  auto lead = exact("\xFF");  // a lead byte claiming six bytes
  strncpyasutf8_map_cp437(dest, lead.get(), 1, 8);
  EXPECT_EQ(dest[0], '\0');

  strncpyasutf8_map_cp437(dest, e.get(), 0, 8);
  EXPECT_EQ(dest[0], '\0');
}

TEST(CopyCp437Bounded, GivesTheSameBytesAsTheUnboundedCopyForWholeText) {
  const std::string text = "Caf\xC3\xA9 \xE2\x94\x80\xE2\x94\xBC \xE2\x82\xAC 5";
  auto source = exact(text);
  std::vector<char> dest(text.size() + 1);
  strncpyasutf8_map_cp437(dest.data(), source.get(), static_cast<int>(text.size()),
                          static_cast<int>(dest.size()));
  EXPECT_EQ(std::string(dest.data()), "Caf\x82 \xC4\xC5 \xE2\x82\xAC 5");
}

TEST(CopyCp437Bounded, EmptyInputGivesAnEmptyString) {
  char dest[4] = {'X', 'X', 'X', 'X'};
  strncpyasutf8_map_cp437(dest, "", 0, 4);
  EXPECT_EQ(dest[0], '\0');
  strncpyasutf8_map_cp437(dest, nullptr, 4);
  EXPECT_EQ(dest[0], '\0');
}

}  // namespace

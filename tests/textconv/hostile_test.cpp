// SPDX-License-Identifier: MIT
// Hostile input for the UTF-8 copies and the code page 437 mapping: malformed UTF-8 of every kind, empty and
// very long text, every size at and past a bound.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "textconv.h"

namespace {

// Every buffer here is a heap block of exactly its bytes, so that the
// address sanitizer reports any read or write past one.
std::unique_ptr<char[]> exactCopyOf(const std::string& bytes) {
  std::unique_ptr<char[]> p(new char[bytes.size() == 0 ? 1 : bytes.size()]);
  std::memcpy(p.get(), bytes.data(), bytes.size());
  return p;
}

// A destination of exactly size bytes, every one 'X' before the copy.
std::unique_ptr<char[]> freshDest(int size) {
  std::unique_ptr<char[]> p(new char[size > 0 ? size : 1]);
  std::memset(p.get(), 'X', static_cast<std::size_t>(size > 0 ? size : 1));
  return p;
}

// strncpyasutf8 of src (with its terminator) into size bytes: all of them.
std::string plain(const std::string& src, int size) {
  auto source = exactCopyOf(src + '\0');
  auto dest = freshDest(size);
  strncpyasutf8(dest.get(), source.get(), size);
  return std::string(dest.get(), static_cast<std::size_t>(size));
}

// The unbounded mapping copy: it reads on past the terminator until its
// budget is spent, so the source is padded with NULs for as much as the
// budget can consume (three source bytes for each output byte).
std::string mapped(const std::string& src, int size) {
  std::string padded = src;
  padded.resize(std::max(src.size() + 1, 3 * static_cast<std::size_t>(size) + 8), '\0');
  auto source = exactCopyOf(padded);
  auto dest = freshDest(size);
  strncpyasutf8_map_cp437(dest.get(), source.get(), size);
  return std::string(dest.get(), static_cast<std::size_t>(size));
}

// The bounded mapping copy of exactly src's bytes (no terminator).
std::string bounded(const std::string& src, int size) {
  auto source = exactCopyOf(src);
  auto dest = freshDest(size);
  strncpyasutf8_map_cp437(dest.get(), source.get(), static_cast<int>(src.size()), size);
  return std::string(dest.get(), static_cast<std::size_t>(size));
}

std::string zeros(std::size_t n) { return std::string(n, '\0'); }
std::string xs(std::size_t n) { return std::string(n, 'X'); }

// One sequence of each length the lead-byte table knows, 1 to 6 bytes,
// none of them mapped.
const char* const kSequenceOfLength[7] = {
    nullptr,
    "a",
    "\xC2\xA0",
    "\xE2\x82\xAC",
    "\xF0\x9F\x98\x80",
    "\xF8\x88\x80\x80\x80",
    "\xFC\x84\x80\x80\x80\x80",
};

// Malformed UTF-8, each kind: the copies follow the lead byte's length and
// check nothing else, so each is copied whole and unchanged.
struct Malformed {
  const char* what;
  std::string bytes;
};
const Malformed kMalformed[] = {
    {"overlong NUL", "\xC0\x80"},
    {"overlong slash in two bytes", "\xC0\xAF"},
    {"overlong i in two bytes", "\xC1\xA9"},
    {"overlong e acute in three bytes", "\xE0\x83\xA9"},
    {"overlong box line in four bytes", "\xF0\x82\x94\x80"},
    {"first high surrogate", "\xED\xA0\x80"},
    {"last low surrogate", "\xED\xBF\xBF"},
    {"just past U+10FFFF", "\xF4\x90\x80\x80"},
    {"largest four-byte form", "\xF7\xBF\xBF\xBF"},
    {"five-byte form", "\xF8\x88\x80\x80\x80"},
    {"six-byte form", "\xFC\x84\x80\x80\x80\x80"},
    {"bytes FE and FF", "\xFE\xBF\xBF\xBF\xBF\xBF"},
    {"lead byte before ASCII",
     "\xC3"
     "A"},
    {"three-byte lead before ASCII",
     "\xE2"
     "ab"},
};

// ---- strncpyasutf8 --------------------------------------------------------

TEST(CopyUtf8Hostile, MalformedSequencesAreCopiedWholeAndUnchanged) {
  for (const Malformed& m : kMalformed) {
    const int size = 16;
    EXPECT_EQ(plain(m.bytes, size), m.bytes + zeros(size - m.bytes.size())) << m.what;
    EXPECT_EQ(plain("<" + m.bytes + ">", size), "<" + m.bytes + ">" + zeros(size - m.bytes.size() - 2))
        << m.what;
  }
}

TEST(CopyUtf8Hostile, LoneContinuationBytesAreOneByteEach) {
  EXPECT_EQ(plain("\x80", 4), std::string("\x80\0\0\0", 4));
  EXPECT_EQ(plain("\xBF\x80\xBF", 4), std::string("\xBF\x80\xBF\0", 4));
  EXPECT_EQ(plain("\x80\x80\x80\x80", 4), std::string("\x80\x80\x80\0", 4));  // budget 3
  EXPECT_EQ(plain("\xC3\xA9\xA9", 8), std::string("\xC3\xA9\xA9\0\0\0\0\0", 8));
}

// A sequence the terminator cuts short, at the very end of the source: for
// every lead length and every cut, nothing of it is copied and nothing
// after the terminator is read.
TEST(CopyUtf8Hostile, SequenceCutShortAtTheEndOfTheSourceIsLeftOut) {
  for (int length = 2; length <= 6; ++length) {
    const std::string whole = kSequenceOfLength[length];
    for (int cut = 1; cut < length; ++cut) {
      EXPECT_EQ(plain("ok" + whole.substr(0, cut), 12), "ok" + zeros(10)) << length << "/" << cut;
      EXPECT_EQ(plain(whole.substr(0, cut), 12), zeros(12)) << length << "/" << cut;
    }
  }
}

TEST(CopyUtf8Hostile, EmptySourceGivesAllZeros) {
  EXPECT_EQ(plain("", 1), zeros(1));
  EXPECT_EQ(plain("", 2), zeros(2));
  EXPECT_EQ(plain("", 64), zeros(64));
}

// A sequence of n bytes needs a budget of n (size n + 1): at that size it
// is copied, one byte less and it is not.
TEST(CopyUtf8Hostile, EverySequenceLengthAtAndJustPastTheBudget) {
  for (int n = 1; n <= 6; ++n) {
    const std::string s = kSequenceOfLength[n];
    EXPECT_EQ(plain(s, n + 1), s + zeros(1)) << n;
    EXPECT_EQ(plain(s, n), zeros(static_cast<std::size_t>(n))) << n;
    EXPECT_EQ(plain("a" + s, n + 2), "a" + s + zeros(1)) << n;
    EXPECT_EQ(plain("a" + s, n + 1), "a" + zeros(static_cast<std::size_t>(n))) << n;
    EXPECT_EQ(plain(s + s, 2 * n + 1), s + s + zeros(1)) << n;
    EXPECT_EQ(plain(s + s, 2 * n), s + zeros(static_cast<std::size_t>(n))) << n;
  }
}

TEST(CopyUtf8Hostile, NegativeAndZeroSizesLeaveTheDestinationAlone) {
  char dest[4] = {'X', 'X', 'X', 'X'};
  for (int size : {0, -1, INT_MIN}) {
    strncpyasutf8(dest, "abc", size);
    EXPECT_EQ(std::string(dest, 4), "XXXX") << size;
  }
  strncpyasutf8(nullptr, "abc", 4);  // no destination: nothing happens
}

// Several megabytes of three-byte characters into a buffer that holds
// exactly k of them, and one byte less.
TEST(CopyUtf8Hostile, VeryLongTextIsCutAtTheLastWholeSequence) {
  const int k = 1 << 20;
  std::string text;
  text.reserve(3u * k + 3);
  for (int i = 0; i < k + 1; ++i) text += "\xE2\x82\xAC";
  const std::string fits = plain(text, 3 * k + 1);
  EXPECT_EQ(fits.compare(0, 3u * k, text, 0, 3u * k), 0);
  EXPECT_EQ(fits[3u * k], '\0');
  const std::string shorter = plain(text, 3 * k);
  EXPECT_EQ(shorter.compare(0, 3u * (k - 1), text, 0, 3u * (k - 1)), 0);
  EXPECT_EQ(shorter.substr(3u * (k - 1)), zeros(3));
}

// ---- map_utf8_to_codepage437 ---------------------------------------------

TEST(Cp437Hostile, MalformedSequencesNeverMap) {
  const struct {
    const char* what;
    const char* bytes;
    int length;
  } cases[] = {
      {"overlong e acute", "\xE0\x83\xA9", 3},
      {"overlong box line", "\xF0\x82\x94\x80", 4},
      {"C0 lead", "\xC0\x80", 2},
      {"C1 lead", "\xC1\xA9", 2},
      {"high surrogate", "\xED\xA0\x80", 3},
      {"low surrogate", "\xED\xBF\xBF", 3},
      {"past U+10FFFF", "\xF4\x90\x80\x80", 4},
      {"five bytes", "\xF8\x88\x80\x80\x80", 5},
      {"six bytes", "\xFC\x84\x80\x80\x80\x80", 6},
      {"ASCII second byte", "\xC3\x29", 2},
      {"lead as second byte", "\xC3\xC3", 2},
      {"bad third byte", "\xE2\x94\x29", 3},
      {"bad second byte", "\xE2\x29\x80", 3},
      {"ASCII second byte, box line bits", "\xE2\x54\x80", 3},  // E2 94 80 is U+2500, a box line
      {"box line cut to two", "\xE2\x94", 2},
      {"e acute cut to one", "\xC3", 1},
      {"lone continuation", "\xA9", 1},
      {"two continuations", "\x80\x80", 2},
      {"three continuations", "\x94\x80\x80", 3},
      {"two-byte lead with three bytes", "\xC3\xA9\x80", 3},
      {"three-byte lead with two bytes", "\xE2\x94\x80", 2},
      {"zero length", "\xC3\xA9", 0},
      {"negative length", "\xC3\xA9", -1},
      {"smallest length", "\xC3\xA9", INT_MIN},
  };
  for (const auto& c : cases) {
    unsigned char out = 0xEE;
    EXPECT_EQ(map_utf8_to_codepage437(c.bytes, c.length, &out), 0) << c.what;
    EXPECT_EQ(out, 0) << c.what;
  }
}

// ---- strncpyasutf8_map_cp437, unbounded ------------------------------------

TEST(CopyCp437Hostile, MalformedSequencesAreCopiedUnchangedAndTheNulsAfterThem) {
  for (const Malformed& m : kMalformed) {
    const int size = 16;
    // Deliberate: the copy goes on through the NULs after the text.
    EXPECT_EQ(mapped(m.bytes, size), m.bytes + zeros(size - m.bytes.size())) << m.what;
  }
}

// A sequence cut by the terminator is taken whole with the NUL (and what
// follows) inside it, as the lead byte says, and copied unchanged.
TEST(CopyCp437Hostile, SequenceCutByTheTerminatorIsCopiedWithIt) {
  EXPECT_EQ(mapped("ab\xE2\x94", 8), std::string("ab\xE2\x94\0\0\0\0", 8));
  EXPECT_EQ(mapped("\xC3", 4), std::string("\xC3\0\0\0", 4));
  EXPECT_EQ(mapped("\xFF", 8), std::string("\xFF\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(mapped("\xFF", 6), std::string("\0XXXXX", 6));  // six bytes do not fit a budget of 5
}

TEST(CopyCp437Hostile, LoneContinuationBytesAreCopiedOneByOne) {
  EXPECT_EQ(mapped("\x80\xBF", 4), std::string("\x80\xBF\0\0", 4));
  EXPECT_EQ(mapped("\xA9\xC3\xA9", 4), std::string("\xA9\x82\0\0", 4));
}

// A mapped character takes one byte of the budget whatever its UTF-8
// length; one that is not mapped takes all of its bytes.
TEST(CopyCp437Hostile, MappedAndUnmappedCharactersAtAndJustPastTheBudget) {
  EXPECT_EQ(mapped("\xC3\xA9", 2), std::string("\x82\0", 2));      // budget 1: e acute as one byte
  EXPECT_EQ(mapped("\xE2\x94\x80", 2), std::string("\xC4\0", 2));  // budget 1: box line as one byte
  EXPECT_EQ(mapped("a\xC3\xA9", 3), std::string("a\x82\0", 3));    // budget 2: both
  EXPECT_EQ(mapped("a\xC3\xA9", 2), std::string("a\0", 2));        // budget 1: only a
  for (int n = 2; n <= 6; ++n) {
    const std::string s = kSequenceOfLength[n];
    EXPECT_EQ(mapped(s, n + 1), s + zeros(1)) << n;                                // budget n: fits
    EXPECT_EQ(mapped(s, n), zeros(1) + xs(static_cast<std::size_t>(n - 1))) << n;  // budget n-1: not
  }
}

TEST(CopyCp437Hostile, EmptySourceGivesNulsUpToTheBudget) {
  EXPECT_EQ(mapped("", 1), zeros(1));
  EXPECT_EQ(mapped("", 5), zeros(5));
}

TEST(CopyCp437Hostile, NegativeAndZeroSizesLeaveTheDestinationAlone) {
  char dest[4] = {'X', 'X', 'X', 'X'};
  for (int size : {0, -1, INT_MIN}) {
    strncpyasutf8_map_cp437(dest, "abc", size);
    EXPECT_EQ(std::string(dest, 4), "XXXX") << size;
    strncpyasutf8_map_cp437(dest, "abc", 3, size);
    EXPECT_EQ(std::string(dest, 4), "XXXX") << size;
  }
  strncpyasutf8_map_cp437(nullptr, "abc", 4);
  strncpyasutf8_map_cp437(nullptr, "abc", 3, 4);
}

// ---- strncpyasutf8_map_cp437, bounded --------------------------------------

TEST(CopyCp437BoundedHostile, MalformedSequencesAreCopiedUnchangedAndNothingPastTheSource) {
  for (const Malformed& m : kMalformed) {
    const int size = 16;
    EXPECT_EQ(bounded(m.bytes, size), m.bytes + zeros(1) + xs(size - m.bytes.size() - 1)) << m.what;
  }
}

// A sequence that the end of the source cuts, for every lead length and
// every cut: the copy ends before it, and no byte past the source is read.
TEST(CopyCp437BoundedHostile, SequenceCutAtTheVeryEndOfTheSourceEndsTheCopy) {
  for (int length = 2; length <= 6; ++length) {
    const std::string whole = kSequenceOfLength[length];
    for (int cut = 1; cut < length; ++cut) {
      EXPECT_EQ(bounded("ok" + whole.substr(0, cut), 8), std::string("ok\0XXXXX", 8)) << length << "/" << cut;
      EXPECT_EQ(bounded(whole.substr(0, cut), 8), std::string("\0XXXXXXX", 8)) << length << "/" << cut;
    }
  }
  // A mapped character cut short is not mapped either.
  EXPECT_EQ(bounded("\xE2\x94", 4), std::string("\0XXX", 4));
  EXPECT_EQ(bounded("\xC3", 4), std::string("\0XXX", 4));
}

TEST(CopyCp437BoundedHostile, SourceSizeAtAndJustShortOfASequence) {
  auto e = exactCopyOf("\xC3\xA9");
  char dest[4] = {'X', 'X', 'X', 'X'};
  strncpyasutf8_map_cp437(dest, e.get(), 2, 4);
  EXPECT_EQ(std::string(dest, 4), std::string("\x82\0XX", 4));
  std::memset(dest, 'X', sizeof dest);
  strncpyasutf8_map_cp437(dest, e.get(), 1, 4);
  EXPECT_EQ(std::string(dest, 4), std::string("\0XXX", 4));
  for (int srcSize : {0, -1, INT_MIN}) {
    std::memset(dest, 'X', sizeof dest);
    strncpyasutf8_map_cp437(dest, e.get(), srcSize, 4);
    EXPECT_EQ(std::string(dest, 4), std::string("\0XXX", 4)) << srcSize;
  }
}

// NULs inside the given bytes are copied like any byte.
TEST(CopyCp437BoundedHostile, NulsInsideTheSourceAreCopied) {
  EXPECT_EQ(bounded(std::string("a\0\xC3\xA9", 4), 8), std::string("a\0\x82\0XXXX", 8));
}

// Several megabytes of box lines (three bytes each, one byte in code page
// 437) into a buffer of exactly their count, and of one less.
TEST(CopyCp437BoundedHostile, VeryLongTextMapsIntoAnExactBuffer) {
  const int k = 1 << 20;
  std::string text;
  text.reserve(3u * k);
  for (int i = 0; i < k; ++i) text += "\xE2\x94\x80";
  const std::string all = bounded(text, k + 1);
  EXPECT_EQ(all, std::string(static_cast<std::size_t>(k), '\xC4') + zeros(1));
  const std::string less = bounded(text, k);
  EXPECT_EQ(less, std::string(static_cast<std::size_t>(k - 1), '\xC4') + zeros(1));
  // And a source of k plain bytes into a budget larger than the source.
  const std::string ascii(static_cast<std::size_t>(k), 'a');
  EXPECT_EQ(bounded(ascii, k + 2), ascii + zeros(1) + xs(1));
}

}  // namespace

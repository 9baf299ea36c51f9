// SPDX-License-Identifier: MIT
// LUT files read through LUT_Utils::parse: entries stored, counts, and the error texts.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "internal/work_arena.h"
#include "lut_utils.h"
#include "test_support.h"

using zev::utils::LUT_Utils;

namespace {

struct Result {
  bool ok = false;
  int32_t count = -7;
  std::string message = "untouched";
  std::vector<int16_t> red, green, blue;
};

Result parseFile(const std::string& path, int32_t size = 16) {
  Result r;
  const std::size_t n = size > 0 ? static_cast<std::size_t>(size) : 1;
  r.red.assign(n, 0x5555);
  r.green.assign(n, 0x5555);
  r.blue.assign(n, 0x5555);
  r.ok = LUT_Utils::parse(path, r.red.data(), r.green.data(), r.blue.data(), size, r.count, r.message);
  return r;
}

// A file written for the test; path() is what parser errors are named by.
class LutText : public testing::Test {
 protected:
  Result parseText(const std::string& content, int32_t size = 16) {
    vorta_test::writeFile(path(), content);
    return parseFile(path(), size);
  }
  std::string path() const { return dir_.file("table.lut"); }

 private:
  vorta_test::TempDir dir_;
};

std::string data(const std::string& name) { return vorta_test::dataPath("lut/" + name); }

void expectEntry(const Result& r, std::size_t i, int16_t red, int16_t green, int16_t blue) {
  EXPECT_EQ(r.red[i], red) << "red of entry " << i;
  EXPECT_EQ(r.green[i], green) << "green of entry " << i;
  EXPECT_EQ(r.blue[i], blue) << "blue of entry " << i;
}

// The library's globals as this program found them, read before main and so
// before any parse.
const int32_t kLutSizeAtStart = g_lut_size;
const int32_t kLutIndexAtStart = g_lut_index;
const uint32_t kErrorAtStart = g_error;
const bool kTablesUnsetAtStart = g_red_lut == nullptr && g_green_lut == nullptr && g_blue_lut == nullptr;

// ---- lines and entries

// A program that has parsed nothing sees no table, no entries and no error.
TEST(LutParse, GlobalsStartEmpty) {
  EXPECT_EQ(kLutSizeAtStart, 0);
  EXPECT_EQ(kLutIndexAtStart, 0);
  EXPECT_EQ(kErrorAtStart, 0u);
  EXPECT_TRUE(kTablesUnsetAtStart);
}

TEST(LutParse, TwoLinesStoreTwoEntries) {
  const Result r = parseFile(data("two_lines.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.message, "");
  expectEntry(r, 0, 0, 0, 0);
  expectEntry(r, 1, 1023, 1023, 1023);
  EXPECT_EQ(r.red[2], 0x5555) << "nothing stored past the entries read";
}

TEST(LutParse, LastLineWithoutNewlineIsStoredToo) {
  const Result r = parseFile(data("two_lines_no_final_newline.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.message, "");
  expectEntry(r, 0, 0, 0, 0);
  expectEntry(r, 1, 1023, 1023, 1023);
}

TEST(LutParse, LeadingAndTrailingBlanksAndTabsAreAccepted) {
  const Result r = parseFile(data("blanks.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.message, "");
  expectEntry(r, 0, 0, 0, 0);
  expectEntry(r, 1, 1, 2, 3);
}

TEST(LutParse, CommentsAndBlankLinesStoreNothingAndReportNothing) {
  const Result r = parseFile(data("comments_only.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message, "");
  EXPECT_EQ(g_error, 0u);
}

TEST(LutParse, CrLfLineEndsParseCleanly) {
  // CR and LF are each a line end, so an empty record sits between them.
  const Result r = parseFile(data("crlf.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.message, "");
  expectEntry(r, 0, 1, 2, 3);
  expectEntry(r, 1, 4, 5, 6);
}

TEST(LutParse, CapacityTwoStoresTwoOfThreeLinesWithoutError) {
  const Result r = parseFile(data("three_lines.lut"), 2);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 2);
  EXPECT_EQ(r.message, "");
  EXPECT_EQ(g_lut_index, 2);
  expectEntry(r, 0, 10, 20, 30);
  expectEntry(r, 1, 40, 50, 60);
}

TEST(LutParse, MoreLinesThanSizeReturnsTrueWithCountEqualToSize) {
  const Result r = parseFile(data("ramp_4096.lut"), 100);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 100);
  EXPECT_EQ(r.message, "");
  expectEntry(r, 99, 99, 4095 - 99, (99 * 7) % 4096);
}

TEST(LutParse, FullTwelveBitTableOf4096Entries) {
  const Result r = parseFile(data("ramp_4096.lut"), 4096);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 4096);
  EXPECT_EQ(r.message, "");
  for (int i = 0; i < 4096; ++i) {
    ASSERT_EQ(r.red[i], i);
    ASSERT_EQ(r.green[i], 4095 - i);
    ASSERT_EQ(r.blue[i], (i * 7) % 4096);
  }
}

TEST(LutParse, ValuesPastSixteenBitsAreCutToTheirLowBits) {
  const Result r = parseFile(data("past_16_bits.lut"));
  EXPECT_TRUE(r.ok);
  ASSERT_EQ(r.count, 1);
  EXPECT_EQ(r.red[0], -1);      // 65535
  EXPECT_EQ(r.green[0], 4464);  // 70000 - 65536
  // 99999999999 saturates to LONG_MAX first: 0x7FFFFFFF on a 32-bit long,
  // 0x7FFFFFFFFFFFFFFF on a 64-bit one; both cut to their low 16 bits.
  EXPECT_EQ(r.blue[0], sizeof(long) == 8 ? -6145 : -1);
}

TEST(LutParse, LowSixteenBitsOfAValue) {
  EXPECT_EQ(lutLow16(0), 0);
  EXPECT_EQ(lutLow16(32767), 32767);
  EXPECT_EQ(lutLow16(32768), -32768);
  EXPECT_EQ(lutLow16(65535), -1);
  EXPECT_EQ(lutLow16(65536), 0);
  EXPECT_EQ(lutLow16(70000), 4464);
  EXPECT_EQ(lutLow16(-1), -1);
  EXPECT_EQ(lutLow16(0x7FFFFFFFL), -1);
}

TEST(LutParse, EmptyFileReturnsTrueWithNoEntries) {
  const Result r = parseFile(data("empty.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message, "");
}

TEST(LutParse, ByteOrderMarkIsSkipped) {
  const Result r = parseFile(data("bom.lut"));
  EXPECT_TRUE(r.ok);
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST(LutParse, Utf8TextInCommentsIsAccepted) {
  const Result r = parseFile(data("utf8_comment.lut"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.message, "");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST(LutParse, NegativeSizeStoresNothing) {
  std::vector<int16_t> red(4, 9), green(4, 9), blue(4, 9);
  int32_t count = -7;
  std::string message = "x";
  EXPECT_TRUE(
      LUT_Utils::parse(data("two_lines.lut"), red.data(), green.data(), blue.data(), -3, count, message));
  EXPECT_EQ(count, 0);
  EXPECT_EQ(message, "");
  EXPECT_EQ(red, std::vector<int16_t>(4, 9));
}

// ---- set-up failures

TEST(LutParse, NullTableOrZeroSizeFailsAtOnceLeavingOutputsAlone) {
  std::vector<int16_t> t(4, 0);
  int32_t count = -7;
  std::string message = "untouched";
  EXPECT_FALSE(LUT_Utils::parse(data("two_lines.lut"), nullptr, t.data(), t.data(), 4, count, message));
  EXPECT_FALSE(LUT_Utils::parse(data("two_lines.lut"), t.data(), nullptr, t.data(), 4, count, message));
  EXPECT_FALSE(LUT_Utils::parse(data("two_lines.lut"), t.data(), t.data(), nullptr, 4, count, message));
  EXPECT_EQ(g_lut_size, 4) << "the size is stored before the check";
  EXPECT_FALSE(LUT_Utils::parse(data("two_lines.lut"), t.data(), t.data(), t.data(), 0, count, message));
  EXPECT_EQ(count, -7);
  EXPECT_EQ(message, "untouched");
  EXPECT_EQ(g_lut_size, 0);
  EXPECT_EQ(g_red_lut, t.data());
}

TEST(LutParse, MissingFileFailsWithUnableToOpen) {
  vorta_test::TempDir dir;
  const std::string path = dir.file("absent.lut");
  int16_t t[2];
  int32_t count = -7;
  std::string message;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(LUT_Utils::parse(path, t, t, t, 2, count, message));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to open file " + path + "\n");
  EXPECT_EQ(message, "Unable to open file");
  EXPECT_EQ(count, -7);
}

TEST(LutParse, DirectoryFailsWithUnableToOpen) {
  vorta_test::TempDir dir;
  int16_t t[2];
  int32_t count = -7;
  std::string message;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(LUT_Utils::parse(dir.path(), t, t, t, 2, count, message));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to open file " + dir.path() + "\n");
  EXPECT_EQ(message, "Unable to open file");
}

// ---- lexer errors

TEST(LutParse, LetterIsALexerErrorNamedByTheFilesBaseName) {
  const Result r = parseFile(data("letter.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message.rfind("letter.lut(line:", 0), 0u) << r.message;
  EXPECT_NE(r.message.find(": lexer error "), std::string::npos);
  EXPECT_EQ(r.message, "letter.lut(line:2, col:1) : lexer error 3 :  - near 'x':\nx\n4 5 6\n...");
  // The letter is skipped, which leaves an empty line: both entries are stored.
  EXPECT_EQ(r.count, 2);
  expectEntry(r, 0, 1, 2, 3);
  expectEntry(r, 1, 4, 5, 6);
}

TEST(LutParse, MinusSignIsALexerErrorAndTheRestOfTheLineIsRead) {
  // '-' starts no token: the lexer reports it and skips it, so "1 0 0" is stored.
  const Result r = parseFile(data("negative.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "negative.lut(line:1, col:0) : lexer error 3 :  - near '-':\n-1 0 0\n...");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 0, 0);
}

TEST_F(LutText, LexerErrorTextOnALaterLine) {
  // Columns count from 1 on later lines (line 1 starts one lower).
  const Result r = parseText("1 2 3\n4 5 6 ;\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "table.lut(line:2, col:7) : lexer error 3 :  - near ';':\n;\n...");
  EXPECT_EQ(r.count, 2);
}

TEST_F(LutText, LexerErrorShowsAtMost150CharactersOfWhatFollows) {
  const std::string tail(200, 'z');
  const Result r = parseText("1 2 3\n" + tail + "\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message,
            "table.lut(line:2, col:1) : lexer error 3 :  - near 'z':\n" + std::string(150, 'z') + "...");
}

// A character that is not printable is written raw. DEL (0x7F) is among
// them: ASCII, so well-formed UTF-8, it is the lexer that refuses it, not
// the UTF-8 check.
TEST_F(LutText, NonPrintableCharacterIsWrittenRawInTheLexerError) {
  for (const char c : {'\x01', '\x7F'}) {
    const Result r = parseText(std::string("1 2 3 ") + c + "\n");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "table.lut(line:1, col:6) : lexer error 3 :  - near char(" + std::string(1, c) +
                             ") :\n" + std::string(1, c) + "\n...");
    EXPECT_EQ(r.count, 1);
  }
}

// A bad character that is the file's last byte is still shown with the
// text from it on, not as the end of the input.
TEST_F(LutText, LexerErrorAtTheLastByteShowsThatByte) {
  const Result r = parseText("1 2 3\nz");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "table.lut(line:2, col:1) : lexer error 3 :  - near 'z':\nz...");
  EXPECT_EQ(r.count, 1);
}

TEST(LutParse, CommaIsALexerErrorAndTheLineIsNotStored) {
  // The lexer reports the first comma and drops both; the parser then sees
  // "000" as a red value with nothing after it. Its report is the last one.
  const Result r = parseFile(data("commas.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message, data("commas.lut") + "1)  : error 5 : Unexpected token, at offset 1\n    near 0\n" +
                           "     : missing elements...\n");
}

TEST_F(LutText, CommentOnTheLastLineWithoutNewlineIsALexerError) {
  const Result r = parseText("1 2 3\n# no line end");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 1);
  EXPECT_EQ(r.message,
            "table.lut(line:2, col:14) : lexer error 1 : Unexpected character - (end of input).\n"
            "\t This indicates a poorly specified lexer RULE\n"
            "\t or unterminated input element such as: \"STRING[\"]\n"
            "\t The lexer was matching from line 2, offset 0, which\n"
            "\t looks like this:\n"
            "\t\t# no line end\n");
}

TEST_F(LutText, CharacterAboveTheBasicPlaneInACommentIsALexerError) {
  // Valid UTF-8, but comments take code points up to U+FFFF only. The raw
  // character written is the low byte of U+1F600, a zero byte.
  const Result r = parseText("1 2 3\n# \xF0\x9F\x98\x80\n4 5 6\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message.rfind(
                std::string("table.lut(line:2, col:3) : lexer error 1 : Unexpected character - near char(") +
                    '\0' + ") :\n\xF0\x9F\x98\x80\n4 5 6\n...",
                0),
            0u);
}

// ---- parser errors, each exception this grammar can reach. A parser error
// is named by the path as given, run straight into the line number.

TEST_F(LutText, EarlyExitWhenALineEndsAfterGreen) {
  const Result r = parseText("1 2\n5 6 7\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(
      r.message,
      path() + "1)  : error 5 : Unexpected token, at offset 2\n    near \n\n     : missing elements...\n");
  // The broken record is dropped; the parse goes on with the next line.
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 5, 6, 7);
}

TEST_F(LutText, EarlyExitAtTheEndOfInputNamesNoSource) {
  const Result r = parseText("1 \n 2 3");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message,
            "-end of input-(2)  : error 5 : Unexpected token, at offset 0, at <EOF> : missing elements...\n");
  EXPECT_EQ(r.count, 0);
}

TEST_F(LutText, MissingTokenWhenBlueIsAbsent) {
  // The parser makes up the missing INT and completes the record, but the
  // made-up token has no text in the file, so the entry is not stored.
  const Result r = parseText("1 2 \n\n4 5 6\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, path() + "1)  : error 10 : org.antlr.runtime.MissingTokenException, at offset 3\n" +
                           "    near <missing INT>\n     : Missing INT \n");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 4, 5, 6);
  EXPECT_EQ(g_error, 1u);
}

TEST_F(LutText, ExtraneousTokenIsDroppedAndTheRecordStored) {
  // A line end between red and green is extra input: deleted in place.
  const Result r = parseText("1 \n2 3\n");
  EXPECT_FALSE(r.ok);
  // No line end after the expected name (unlike the mismatched-token text).
  EXPECT_EQ(r.message, path() + "1)  : error 9 : org.antlr.runtime.UnwantedTokenException, at offset 1\n" +
                           "    near \n\n     : Extraneous input - expected INT");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST_F(LutText, RepairedValueTakesTheTextOfEveryTokenItSpans) {
  // After the extra line end is deleted, green's text runs from that line
  // end to the INT: "\n2" reads as 2. A character the lexer dropped ('-')
  // belongs to no token and is not part of it.
  Result r = parseText("1 \n-2 3\n");
  EXPECT_FALSE(r.ok);
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
  // A hidden comment in between is part of the text, and strtol stops at
  // its '#': "\n# c\n2" reads as 0.
  r = parseText("1 \n# c\n2 3\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, path() + "1)  : error 9 : org.antlr.runtime.UnwantedTokenException, at offset 1\n" +
                           "    near \n\n     : Extraneous input - expected INT");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 0, 3);
}

TEST_F(LutText, ExtraneousTokenBeforeTheEndOfInput) {
  const Result r = parseText("1 2 3 4");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, path() + "1)  : error 9 : org.antlr.runtime.UnwantedTokenException, at offset 5\n" +
                           "    near 4\n     : Extraneous input - expected <EOF>\n");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST_F(LutText, FourthValueIsASyntaxError) {
  const Result r = parseText("1 2 3 4\n5 6 7\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message,
            path() + "1)  : error 1 : Unexpected token, at offset 5\n    near 4\n     : syntax error...\n");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST(LutParse, CommentAfterARecordJoinsTheNextLine) {
  // The comment takes its line end with it, so "4 5 6" continues the first
  // record: a syntax error, and the second entry is lost.
  const Result r = parseFile(data("comment_joins_next_line.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message,
            data("comment_joins_next_line.lut") +
                "2)  : error 1 : Unexpected token, at offset 0\n    near 4\n     : syntax error...\n");
  ASSERT_EQ(r.count, 1);
  expectEntry(r, 0, 1, 2, 3);
}

TEST_F(LutText, CommentAfterTheLastRecordIsFine) {
  const Result r = parseText("1 2 3 # last\n");
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 1);
}

TEST_F(LutText, OnlyTheLastErrorIsKept) {
  const Result r = parseText("1 2\n-4 5 6\n7 8\n9 9 9\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(
      r.message,
      path() + "3)  : error 5 : Unexpected token, at offset 3\n    near \n\n     : missing elements...\n");
  ASSERT_EQ(r.count, 2);
  expectEntry(r, 0, 4, 5, 6);
  expectEntry(r, 1, 9, 9, 9);
}

// An errno of EINTR left over from before the parse does not make the end
// of the file look like an interrupted read: the file is read and parsed.
TEST_F(LutText, LeftOverInterruptedErrnoDoesNotStopTheRead) {
  vorta_test::writeFile(path(), "1 2 3\n");
  errno = EINTR;
  const Result r = parseFile(path());
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.count, 1);
}

// A regular file whose read fails (the process's own memory at address 0
// gives EIO) cannot be read: false, "Unable to open file", nothing stored.
TEST(LutParse, FileWhoseReadFailsIsUnableToOpen) {
  testing::internal::CaptureStderr();
  const Result r = parseFile("/proc/self/mem");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.message, "Unable to open file");
  EXPECT_EQ(r.count, -7) << "count untouched";
  EXPECT_EQ(err, "Failed to open file /proc/self/mem\n");
  EXPECT_EQ(r.red[0], 0x5555);
}

// ---- state between parses

TEST_F(LutText, ParseAfterAFailedOneStartsClean) {
  const Result bad = parseText("1 2\n");
  ASSERT_FALSE(bad.ok);
  ASSERT_EQ(g_error, 1u);
  const Result good = parseFile(data("two_lines.lut"));
  EXPECT_TRUE(good.ok);
  EXPECT_EQ(good.count, 2);
  EXPECT_EQ(good.message, "");
  EXPECT_EQ(g_error, 0u);
  EXPECT_EQ(g_error_message, "");
  EXPECT_EQ(g_lut_index, 2);
}

// A file refused whole after a parse that stored entries: the entries the
// last parse stored (g_lut_index) are none, not the previous parse's count.
TEST_F(LutText, RefusedFileAfterAGoodParseLeavesNoEntriesCounted) {
  const Result good = parseFile(data("two_lines.lut"));
  ASSERT_TRUE(good.ok);
  ASSERT_EQ(g_lut_index, 2);
  const Result refused = parseText("1 2 3\n\xFF\n");
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(refused.count, 0);
  EXPECT_EQ(g_lut_index, 0);
  EXPECT_EQ(g_error, 1u);
}

// ---- input that is not UTF-8 is refused whole, with a clear text

TEST(LutParse, CutOffSequenceBeforeALineEndIsRefused) {
  // The runtime's decoder would take "\xC3\n" as one letter, so the comment
  // would swallow the next line and its entry silently.
  const Result r = parseFile(data("cut_sequence_before_newline.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message,
            "cut_sequence_before_newline.lut(line:1, col:6) : invalid UTF-8 at byte 0xC3 - the file is "
            "not a LUT text file and nothing was read\n");
  EXPECT_EQ(g_error, 1u);
  EXPECT_EQ(g_error_message, r.message);
  EXPECT_EQ(r.red[0], 0x5555) << "nothing stored";
}

TEST(LutParse, ByteFFIsRefused) {
  const Result r = parseFile(data("byte_ff.lut"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(
      r.message,
      "byte_ff.lut(line:2, col:5) : invalid UTF-8 at byte 0xFF - the file is not a LUT text file and nothing "
      "was read\n");
}

// Well-formed sequences at each lead byte's bounds pass the UTF-8 check:
// in a comment, U+0080, U+07FF, U+0800 and U+FFFD are read; U+10000 and
// U+10FFFF are well-formed too, and only the grammar's lexer, whose
// characters end at U+FFFF, refuses them.
TEST_F(LutText, WellFormedSequencesAtEveryLeadByteBoundaryPassTheUtf8Check) {
  const Result r = parseText("1 2 3 # \xC2\x80 \xDF\xBF \xE0\xA0\x80 \xEF\xBF\xBD\n");
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.count, 1);
  for (const char* text :
       {"1 2 3 # \xF0\x90\x80\x80\n", "1 2 3 # \xF1\x80\x80\x80\n", "1 2 3 # \xF4\x8F\xBF\xBF\n"}) {
    const Result four = parseText(text);
    EXPECT_FALSE(four.ok);
    EXPECT_EQ(four.message.find("invalid UTF-8"), std::string::npos) << four.message;
    EXPECT_NE(four.message.find("lexer error"), std::string::npos) << four.message;
  }
}

// The column of a bad byte counts characters, not bytes: two-, three- and
// four-byte characters before it on its line are one column each.
TEST_F(LutText, TheColumnOfABadByteCountsCharacters) {
  const Result r = parseText("1 2 3\n# \xC3\xA9\xE2\x94\x80\xF0\x9F\x98\x80\xFF\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(
      r.message,
      "table.lut(line:2, col:6) : invalid UTF-8 at byte 0xFF - the file is not a LUT text file and nothing "
      "was read\n");
}

// A line end at the file's very first byte counts like any other: the bad
// byte after it is on line 2.
TEST_F(LutText, ALineEndAtTheFirstByteCountsAsALine) {
  const Result r = parseText("\n\xFF\n");
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(
      r.message,
      "table.lut(line:2, col:1) : invalid UTF-8 at byte 0xFF - the file is not a LUT text file and nothing "
      "was read\n");
}

TEST_F(LutText, MalformedSequencesAreRefused) {
  const char* const cases[] = {
      "1 2 3 # \xC3",                // cut off by the end of the file
      "1 2 3 # \xC0\xAF\n",          // overlong '/'
      "1 2 3 # \xE0\x80\xAF\n",      // overlong three-byte form
      "1 2 3 # \xED\xA0\x80\n",      // a surrogate
      "1 2 3 # \xF0\x8F\xBF\xBF\n",  // overlong four-byte form
      "1 2 3 # \xF4\x90\x80\x80\n",  // past U+10FFFF
      "1 2 3 # \x80\n",              // a lone continuation byte
      "1 2 3 # \xE2\x94\n",          // three-byte form cut before the line end
  };
  for (const char* text : cases) {
    const Result r = parseText(text);
    EXPECT_FALSE(r.ok) << text;
    EXPECT_EQ(r.count, 0) << text;
    EXPECT_EQ(r.message.rfind("table.lut(line:1, col:9) : invalid UTF-8 at byte 0x", 0), 0u) << r.message;
  }
}

}  // namespace

// ---- the parse's memory for tokens

namespace {

int mappingCount() {
  std::ifstream maps("/proc/self/maps");
  int lines = 0;
  for (std::string line; std::getline(maps, line);) ++lines;
  return lines;
}

}  // namespace

// Every blank is a token of its own: 40,000 of them on 40,000 lines take the
// tokens past several blocks of the parse's token memory.
TEST_F(LutText, AFileOfOnlyBlanksAndLineEndsStoresNothing) {
  std::string text;
  for (int i = 0; i < 40000; ++i) text += i % 2 ? "\t\n" : " \n";
  const Result r = parseText(text);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.count, 0);
  EXPECT_EQ(r.message, "");
}

// Entries after tens of thousands of tokens, with errors among them, are
// stored and reported as near the start.
TEST_F(LutText, RecordsAndErrorsFarIntoALongFileAreKept) {
  std::string text;
  for (int i = 0; i < 6000; ++i) text += std::to_string(i % 4096) + " 1 \t 2\n";
  text += "7 8\n9 9 9\n";
  const Result r = parseText(text, 8000);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.count, 6001);  // the record missing its blue value is not stored
  expectEntry(r, 5999, 5999 % 4096, 1, 2);
  expectEntry(r, 6000, 9, 9, 9);
  EXPECT_EQ(
      r.message,
      path() + "6001)  : error 5 : Unexpected token, at offset 3\n    near \n\n     : missing elements...\n");
}

// Failed and successful parses alike hand their token memory back: a
// hundred more rounds of them leave no more mappings than the first ten (a
// sanitizer's or valgrind's own allocator may map a few dozen regions of its
// own as it warms up; a parse that kept its tokens would add hundreds).
TEST_F(LutText, ParsesLeaveNoMappingBehind) {
  std::string good, bad;
  for (int i = 0; i < 3000; ++i) good += "1 2 3\n";
  bad = good + "1 2 x\n" + good;
  const auto rounds = [&](int n) {
    for (int i = 0; i < n; ++i) {
      EXPECT_TRUE(parseText(good, 4096).ok);
      EXPECT_FALSE(parseText(bad, 8000).ok);
    }
  };
  rounds(10);
  const int before = mappingCount();
  const std::size_t arenas = zev::detail::WorkArena::mappedInProcess();
  rounds(100);
  EXPECT_LT(mappingCount() - before, 64);
  // Exactly: every token arena is unmapped when its parse ends.
  EXPECT_EQ(zev::detail::WorkArena::mappedInProcess(), arenas);
}

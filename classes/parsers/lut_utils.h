// SPDX-License-Identifier: MIT
// vorta: reading colour look-up table (LUT) files into three 16-bit tables, with the parser's error reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The recognition runtime's base recogniser (antlr3baserecognizer.h); only
// pointers to it appear here, so users of this header need not include the runtime.
struct ANTLR3_BASE_RECOGNIZER_struct;
struct ANTLR3_TOKEN_STREAM_struct;
struct ANTLR3_COMMON_TOKEN_struct;

// State of the one parse that may run at a time in a process. parse() sets
// the tables and the capacity; the grammar's rules fill in the rest.

/// Red output table handed to parse(), at least g_lut_size entries.
extern int16_t* g_red_lut;
/// Green output table handed to parse().
extern int16_t* g_green_lut;
/// Blue output table handed to parse().
extern int16_t* g_blue_lut;
/// Capacity of each table in entries; lines past it are checked but not stored.
extern int32_t g_lut_size;
/// Number of entries stored so far by the running (or last) parse.
extern int32_t g_lut_index;
/// 1 once an error has been reported during the parse, else 0.
extern uint32_t g_error;
/// Text of the last error displayed during the parse; empty when there was none.
extern std::string g_error_message;

/// The low 16 bits of value as a signed entry (65535 gives -1, 70000 gives 4464).
int16_t lutLow16(long value);

/// The store action of a full record: when g_lut_index < g_lut_size and none
/// of the three texts (tokens start to stop of each value's rule) is empty,
/// stores each text's strtol value cut to 16 bits at g_lut_index and advances it.
void lutStoreRecord(ANTLR3_TOKEN_STREAM_struct* tokens, ANTLR3_COMMON_TOKEN_struct* redStart,
                    ANTLR3_COMMON_TOKEN_struct* redStop, ANTLR3_COMMON_TOKEN_struct* greenStart,
                    ANTLR3_COMMON_TOKEN_struct* greenStop, ANTLR3_COMMON_TOKEN_struct* blueStart,
                    ANTLR3_COMMON_TOKEN_struct* blueStop);

namespace zev {
namespace utils {

/// Entry point for LUT files and the error hooks its recognisers use. Not
/// reentrant: the parse state is process-wide, so one parse at a time.
class LUT_Utils {
 public:
  /// Largest LUT file read, in bytes: 8 MiB. The largest table a device
  /// uses, 65,536 entries of 16-bit values, is at most 19 bytes a line
  /// ("65535 65535 65535" and CR LF), 1,245,184 bytes; the bound leaves more
  /// than six times that for blanks and comments. A larger file is refused
  /// before any of it is read.
  static constexpr std::size_t kMaxLutFileBytes = std::size_t(8) << 20;
  /// Most tokens (each blank, tab and line-end character, each number, each
  /// comment) a LUT file may have: 1,048,576. The recogniser keeps every
  /// token of the file at once, a few hundred bytes each, so this bounds the
  /// memory of a parse (some 300 MB on a 64-bit machine, half that on the
  /// device). The largest table needs 458,752 (seven a line with CR LF),
  /// leaving room for sixteen a line.
  static constexpr std::size_t kMaxLutTokens = std::size_t(1) << 20;

  /// Reads fileName into red, green and blue (size entries each). Sets count
  /// to the entries stored and errorMessage to the last error (empty when
  /// none); returns true when the file had no error. Null tables or size 0
  /// return false at once with count and errorMessage untouched.
  ///
  /// Only a regular file is read; it is opened without blocking, so a FIFO,
  /// socket, device or directory fails at once as a file that cannot be
  /// opened ("Unable to open file"). A file larger than kMaxLutFileBytes, or
  /// with more than kMaxLutTokens tokens, or not valid UTF-8, is refused
  /// whole: false, count 0, nothing stored, and errorMessage (also
  /// g_error_message) says why, naming the file's base name. When memory
  /// runs out during the parse it returns false with errorMessage
  /// "Internal error - out of memory reading file" and a line on standard
  /// error; no exception leaves it.
  static bool parse(const std::string& fileName, int16_t* red, int16_t* green, int16_t* blue, int32_t size,
                    int32_t& count, std::string& errorMessage);

  /// Lexer's report hook: one report per error-recovery episode, sets g_error.
  static void reportLexerError(ANTLR3_BASE_RECOGNIZER_struct* recognizer);
  /// Parser's report hook: one report per error-recovery episode, sets g_error.
  static void reportParserError(ANTLR3_BASE_RECOGNIZER_struct* recognizer);
  /// Lexer's display hook: composes the lexer error text into g_error_message.
  static void displayLexerRecognitionError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** tokenNames);
  /// Parser's display hook: composes the parser error text into g_error_message.
  static void displayParserRecognitionError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** tokenNames);

 private:
  // The display hooks' bodies; they may throw std::bad_alloc, which the
  // hooks catch before it could reach the runtime's C code.
  static void displayLexerError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** tokenNames);
  static void displayParserError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** tokenNames);
};

}  // namespace utils
}  // namespace zev

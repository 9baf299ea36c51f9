// SPDX-License-Identifier: MIT
// vorta: the LUT file parse entry, the UTF-8 check in front of it, and the recognisers' error hooks.
#include "lut_utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <type_traits>
#include <vector>

#include "internal/regular_file.h"
#include "internal/work_arena.h"
#include "lut_recognizer.h"

int16_t* g_red_lut = nullptr;
int16_t* g_green_lut = nullptr;
int16_t* g_blue_lut = nullptr;
int32_t g_lut_size = 0;
int32_t g_lut_index = 0;
uint32_t g_error = 0;
std::string g_error_message;

static_assert(std::is_same<pANTLR3_UINT8, uint8_t*>::value, "token names are uint8_t strings");
static_assert(std::is_same<pANTLR3_BASE_RECOGNIZER, ANTLR3_BASE_RECOGNIZER_struct*>::value,
              "hooks take the runtime's base recogniser");

int16_t lutLow16(long value) {
  const unsigned low = static_cast<unsigned>(static_cast<unsigned long>(value) & 0xFFFFu);
  return static_cast<int16_t>(low >= 0x8000u ? static_cast<int>(low) - 0x10000 : static_cast<int>(low));
}

namespace {

// The lexer's tokens, for one parse: a table of 4,096 lines makes some
// 25,000 of them, 6.5 MB that the runtime would take in pools from the heap
// and fault in page by page on every parse. They come instead from an arena
// of the parse's own (huge pages where the kernel offers them), given back
// whole when the parse ends. A token is set up as the runtime's own factory
// sets up a pool token; the runtime's factory keeps its pools (unused) and
// frees them as usual.
struct TokenSupply {
  zev::detail::WorkArena arena;
  pANTLR3_COMMON_TOKEN (*runtimeNewToken)(pANTLR3_TOKEN_FACTORY) = nullptr;
};
thread_local TokenSupply* t_tokenSupply = nullptr;

pANTLR3_COMMON_TOKEN newArenaToken(pANTLR3_TOKEN_FACTORY factory) {
  TokenSupply* supply = t_tokenSupply;
  void* memory = nullptr;
  try {
    memory = supply->arena.allocate(sizeof(ANTLR3_COMMON_TOKEN), alignof(ANTLR3_COMMON_TOKEN));
  } catch (const std::bad_alloc&) {
    return supply->runtimeNewToken(factory);  // the runtime's own pools, as a last resort
  }
  // Fresh arena memory is zero, as the runtime's calloc'd pools are: no
  // token is ever handed back, so none is handed out twice.
  pANTLR3_COMMON_TOKEN token = static_cast<pANTLR3_COMMON_TOKEN>(memory);
  antlr3SetTokenAPI(token);
  token->factoryMade = ANTLR3_TRUE;  // the token stream does not free it
  token->strFactory = factory->input == nullptr ? nullptr : factory->input->strFactory;
  token->input = factory->input;
  return token;
}

// Installs the arena token supply on a lexer's factory for the life of this object.
class ArenaTokens {
 public:
  explicit ArenaTokens(pANTLR3_LEXER lexer) {
    pANTLR3_TOKEN_FACTORY factory = lexer->rec->state->tokFactory;
    if (factory == nullptr || t_tokenSupply != nullptr) return;
    supply_.runtimeNewToken = factory->newToken;
    t_tokenSupply = &supply_;
    factory->newToken = newArenaToken;
  }
  // Called once the lexer (and with it the factory) is freed: nothing may
  // touch the tokens after this.
  ~ArenaTokens() {
    if (t_tokenSupply == &supply_) t_tokenSupply = nullptr;
  }
  // Maps memory for `count` tokens now, so that a file whose tokens do not
  // fit fails here (std::bad_alloc) rather than inside the runtime, which
  // does not survive an allocation that fails. The token stream's table of
  // them (two pointers a token, doubled as it grows) is tried for too.
  void reserve(std::size_t count) {
    if (t_tokenSupply != &supply_ || count == 0) return;
    const std::size_t bytes = count * sizeof(ANTLR3_COMMON_TOKEN);
    supply_.arena.deallocate(supply_.arena.allocate(bytes, alignof(ANTLR3_COMMON_TOKEN)), bytes);
    void* table = std::malloc(2 * count * sizeof(ANTLR3_VECTOR_ELEMENT) + (std::size_t(1) << 20));
    if (table == nullptr) throw std::bad_alloc();
    std::free(table);
  }
  ArenaTokens(const ArenaTokens&) = delete;
  ArenaTokens& operator=(const ArenaTokens&) = delete;

 private:
  TokenSupply supply_;
};

// Appends the text of one token: its own text when it was given one, else
// its characters in the input (addresses within the input's UTF-8 data).
void appendTokenText(pANTLR3_COMMON_TOKEN token, std::string& out) {
  if (token->textState != ANTLR3_TEXT_NONE) {
    pANTLR3_STRING text = token->getText(token);
    if (text != nullptr && text->chars != nullptr)
      out.append(reinterpret_cast<const char*>(text->chars), text->len);
    return;
  }
  const char* first = reinterpret_cast<const char*>(token->start);
  const char* last = reinterpret_cast<const char*>(token->stop);
  if (first != nullptr && last >= first) out.append(first, static_cast<std::size_t>(last - first) + 1);
}

// The text a rule matched: every token from start to stop, hidden ones
// included, as the token stream would give it. Empty when the rule consumed
// nothing (start comes after stop).
void ruleText(pANTLR3_TOKEN_STREAM tokens, pANTLR3_COMMON_TOKEN start, pANTLR3_COMMON_TOKEN stop,
              std::string& out) {
  out.clear();
  if (start == nullptr || stop == nullptr) return;
  const ANTLR3_MARKER first = start->getTokenIndex(start), last = stop->getTokenIndex(stop);
  if (first < 0 || last < first) return;
  if (first == last) {
    appendTokenText(start, out);
    return;
  }
  for (ANTLR3_MARKER i = first; i <= last; ++i) {
    pANTLR3_COMMON_TOKEN t = tokens->get(tokens, static_cast<ANTLR3_UINT32>(i));
    if (t == nullptr) break;
    appendTokenText(t, out);
  }
}

// Zero bytes kept after the file's contents in the buffer given to the
// runtime. Its UTF-8 reader looks a few bytes ahead of the data (the
// byte-order-mark check, the character after the last one); those reads
// must land in memory this code owns.
constexpr std::size_t kPadding = 8;

// Name of the parser's token types, or "<invalid>" for a type outside the table.
const char* tokenName(pANTLR3_UINT8* tokenNames, ANTLR3_UINT32 type) {
  const ANTLR3_UINT32 known =
      tokenNames == LUTParserTokenNames
          ? static_cast<ANTLR3_UINT32>(sizeof LUTParserTokenNames / sizeof *LUTParserTokenNames)
          : 0xFFFFFFFFu;
  if (type >= known || tokenNames[type] == nullptr) return "<invalid>";
  return reinterpret_cast<const char*>(tokenNames[type]);
}

const char* text(const void* message) { return message ? static_cast<const char*>(message) : ""; }

// Common body of the two report hooks.
void reportError(pANTLR3_BASE_RECOGNIZER recognizer) {
  if (recognizer->debugger != nullptr)
    recognizer->debugger->recognitionException(recognizer->debugger, recognizer->state->exception);
  // One report per error: follow-on errors while recovering are not shown.
  if (recognizer->state->errorRecovery == ANTLR3_TRUE) return;
  recognizer->state->errorRecovery = ANTLR3_TRUE;
  recognizer->state->errorCount++;
  recognizer->displayRecognitionError(recognizer, recognizer->state->tokenNames);
  g_error = 1;
}

// Length in bytes of the first `chars` characters of the UTF-8 text at p (at most n bytes).
std::size_t utf8Prefix(const uint8_t* p, std::size_t n, std::size_t chars) {
  std::size_t i = 0;
  while (i < n && chars > 0) {
    ++i;
    while (i < n && (p[i] & 0xC0u) == 0x80u) ++i;
    --chars;
  }
  return i;
}

// Offset of the first byte of data that is not part of well-formed UTF-8
// (no overlong forms, surrogates or values past U+10FFFF), or size when all is.
std::size_t firstInvalidUtf8(const uint8_t* data, std::size_t size) {
  std::size_t i = 0;
  while (i < size) {
    const uint8_t b = data[i];
    if (b < 0x80u) {
      ++i;
      continue;
    }
    std::size_t n;
    uint8_t lo = 0x80u, hi = 0xBFu;  // allowed range of the second byte
    if (b >= 0xC2u && b <= 0xDFu) {
      n = 1;
    } else if (b >= 0xE0u && b <= 0xEFu) {
      n = 2;
      if (b == 0xE0u) lo = 0xA0u;
      if (b == 0xEDu) hi = 0x9Fu;
    } else if (b >= 0xF0u && b <= 0xF4u) {
      n = 3;
      if (b == 0xF0u) lo = 0x90u;
      if (b == 0xF4u) hi = 0x8Fu;
    } else {
      return i;
    }
    if (size - i <= n) return i;
    if (data[i + 1] < lo || data[i + 1] > hi) return i;
    for (std::size_t k = 2; k <= n; ++k)
      if ((data[i + k] & 0xC0u) != 0x80u) return i;
    i += n + 1;
  }
  return size;
}

// "name(line:L, col:C) : invalid UTF-8 ..." for the byte at offset bad.
std::string invalidUtf8Message(const std::string& fileName, const uint8_t* data, std::size_t bad) {
  std::size_t line = 1, lineStart = 0;
  for (std::size_t i = 0; i < bad; ++i)
    if (data[i] == '\n') {
      ++line;
      lineStart = i + 1;
    }
  std::size_t column = 1;
  for (std::size_t i = lineStart; i < bad; ++i)
    if ((data[i] & 0xC0u) != 0x80u) ++column;
  const std::size_t slash = fileName.find_last_of('/');
  char hex[8];
  std::snprintf(hex, sizeof hex, "0x%02X", static_cast<unsigned>(data[bad]));
  std::ostringstream out;
  out << (slash == std::string::npos ? fileName : fileName.substr(slash + 1)) << "(line:" << line
      << ", col:" << column << ") : invalid UTF-8 at byte " << hex << " - the file is not a LUT text file"
      << " and nothing was read\n";
  return out.str();
}

// Base name of a path, for the messages that name the file.
std::string baseName(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Why readWhole gave no contents.
enum class ReadResult { Ok, CannotOpen, TooLarge };

// The whole file, followed by kPadding zero bytes. Only a regular file is
// read: it is opened without blocking, so that a FIFO, socket or device
// named like a LUT file cannot hang the caller, and refused unless fstat
// says it is a regular file. A file larger than kMaxLutFileBytes is refused
// before anything is read; `bytes` then holds its size.
ReadResult readWhole(const std::string& fileName, std::vector<uint8_t>& buffer, long long& bytes) {
  struct stat64 st {};
  const zev::detail::UniqueFd fd = zev::detail::openRegularFile(fileName.c_str(), O_RDONLY, 0, &st);
  if (!fd) return ReadResult::CannotOpen;
  bytes = static_cast<long long>(st.st_size);
  if (st.st_size > static_cast<off64_t>(zev::utils::LUT_Utils::kMaxLutFileBytes)) return ReadResult::TooLarge;
  buffer.clear();
  buffer.reserve(static_cast<std::size_t>(st.st_size) + kPadding);
  uint8_t chunk[16384];
  for (;;) {
    const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return ReadResult::CannotOpen;
    if (n == 0) break;
    // A file that grew after fstat is held to the same bound.
    if (buffer.size() + static_cast<std::size_t>(n) > zev::utils::LUT_Utils::kMaxLutFileBytes) {
      bytes = static_cast<long long>(buffer.size()) + n;
      return ReadResult::TooLarge;
    }
    buffer.insert(buffer.end(), chunk, chunk + n);
  }
  buffer.insert(buffer.end(), kPadding, 0);
  return ReadResult::Ok;
}

// Tokens the lexer will make of the text, counted the way it makes them:
// one per blank, tab and line-end character, one per run of digits, one per
// comment; characters that start no token make none.
std::size_t countTokens(const uint8_t* data, std::size_t size) {
  std::size_t tokens = 0;
  std::size_t i = 0;
  while (i < size) {
    const uint8_t c = data[i];
    if (c == '#' || (c == '/' && i + 1 < size && data[i + 1] == '/')) {
      while (i < size && data[i] != '\n') ++i;
      ++i;
      ++tokens;
    } else if (c >= '0' && c <= '9') {
      while (i < size && data[i] >= '0' && data[i] <= '9') ++i;
      ++tokens;
    } else {
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') ++tokens;
      ++i;
    }
  }
  return tokens;
}

// Set when a hook or the store action could not get memory; parse() then
// reports the parse as failed for want of memory.
bool g_out_of_memory = false;
// Set once the start rule runs: from then on g_lut_index counts this parse.
bool g_parse_started = false;

}  // namespace

void lutStoreRecord(ANTLR3_TOKEN_STREAM_struct* tokens, ANTLR3_COMMON_TOKEN_struct* redStart,
                    ANTLR3_COMMON_TOKEN_struct* redStop, ANTLR3_COMMON_TOKEN_struct* greenStart,
                    ANTLR3_COMMON_TOKEN_struct* greenStop, ANTLR3_COMMON_TOKEN_struct* blueStart,
                    ANTLR3_COMMON_TOKEN_struct* blueStop) {
  if (g_lut_index >= g_lut_size) return;  // past the capacity: checked, not stored
  // Reused between records, so that a table costs no allocation per value.
  static std::string red, green, blue;
  // Called from the generated C parser, which no exception may cross.
  try {
    ruleText(tokens, redStart, redStop, red);
    ruleText(tokens, greenStart, greenStop, green);
    ruleText(tokens, blueStart, blueStop, blue);
  } catch (const std::bad_alloc&) {
    g_out_of_memory = true;
    g_error = 1;
    return;
  }
  if (red.empty() || green.empty() || blue.empty()) return;
  g_red_lut[g_lut_index] = lutLow16(std::strtol(red.c_str(), nullptr, 10));
  g_green_lut[g_lut_index] = lutLow16(std::strtol(green.c_str(), nullptr, 10));
  g_blue_lut[g_lut_index] = lutLow16(std::strtol(blue.c_str(), nullptr, 10));
  g_lut_index++;
}

namespace zev {
namespace utils {

namespace {

// The runtime's objects of one parse, freed in the order the runtime needs
// (parser, token stream, lexer, input) on every path out, an exception included.
// The lexer's tokens live in `arena`, which is dropped only after
// everything that holds them.
struct RuntimeObjects {
  pANTLR3_INPUT_STREAM input = nullptr;
  pLUTLexer lexer = nullptr;
  std::unique_ptr<ArenaTokens> arena;
  pANTLR3_COMMON_TOKEN_STREAM tokens = nullptr;
  pLUTParser parser = nullptr;
  RuntimeObjects() = default;
  RuntimeObjects(const RuntimeObjects&) = delete;
  RuntimeObjects& operator=(const RuntimeObjects&) = delete;
  ~RuntimeObjects() {
    if (parser != nullptr) parser->free(parser);
    if (tokens != nullptr) tokens->free(tokens);
    if (lexer != nullptr) lexer->free(lexer);
    arena.reset();
    if (input != nullptr) input->close(input);
  }
};

// A refusal of the whole file before the runtime sees it: reported as a
// parse error (g_error and the message set), nothing stored.
bool refuseWhole(const std::string& message, int32_t& count, std::string& errorMessage) {
  g_lut_index = 0;
  g_error = 1;
  g_error_message = message;
  errorMessage = g_error_message;
  count = 0;
  return false;
}

bool parseChecked(const std::string& fileName, int32_t& count, std::string& errorMessage) {
  // The runtime reads from a copy of the file held here, so that the bytes
  // it looks at past the end are ours, and only after the copy has been
  // checked to be UTF-8: its own decoder takes malformed sequences apart in
  // ways that can swallow a line end, and with it a whole entry, silently.
  std::vector<uint8_t> buffer;
  long long fileBytes = 0;
  const ReadResult read = readWhole(fileName, buffer, fileBytes);
  if (read == ReadResult::TooLarge) {
    std::ostringstream out;
    out << baseName(fileName) << " : " << fileBytes << " bytes is larger than a LUT file can be (at most "
        << LUT_Utils::kMaxLutFileBytes << " bytes) - nothing was read\n";
    return refuseWhole(out.str(), count, errorMessage);
  }
  if (read != ReadResult::Ok) {
    std::fprintf(stderr, "Failed to open file %s\n", fileName.c_str());
    errorMessage = "Unable to open file";
    return false;
  }
  const std::size_t length = buffer.size() - kPadding;
  const std::size_t bad = firstInvalidUtf8(buffer.data(), length);
  if (bad != length)
    return refuseWhole(invalidUtf8Message(fileName, buffer.data(), bad), count, errorMessage);
  // The runtime holds every token of the file at once (a few hundred bytes
  // each); a file of nothing but blanks or line ends would need hundreds of
  // times its size.
  const std::size_t tokens = countTokens(buffer.data(), length);
  if (tokens > LUT_Utils::kMaxLutTokens) {
    std::ostringstream out;
    out << baseName(fileName) << " : " << tokens
        << " blanks, line ends, numbers and comments are more than a LUT file can have (at most "
        << LUT_Utils::kMaxLutTokens << ") - nothing was read\n";
    return refuseWhole(out.str(), count, errorMessage);
  }

  // Text that is all ASCII decodes to the same code points either way; the
  // runtime's 8-bit reader gives them several times faster than its UTF-8 one.
  bool ascii = true;
  for (std::size_t i = 0; i < length && ascii; ++i) ascii = buffer[i] < 0x80u;
  RuntimeObjects rt;
  rt.input = antlr3StringStreamNew(buffer.data(), ascii ? ANTLR3_ENC_8BIT : ANTLR3_ENC_UTF8,
                                   static_cast<ANTLR3_UINT32>(length),
                                   reinterpret_cast<pANTLR3_UINT8>(const_cast<char*>(fileName.c_str())));
  if (rt.input == nullptr) {
    std::fprintf(stderr, "Failed to open file %s\n", fileName.c_str());
    errorMessage = "Unable to open file";
    return false;
  }

  rt.lexer = LUTLexerNew(rt.input);
  if (rt.lexer == nullptr) {
    std::fprintf(stderr, "Unable to create the lexer due to malloc() failure1\n");
    errorMessage = "Internal error - unable to create lexer";
    return false;
  }

  rt.arena.reset(new ArenaTokens(rt.lexer->pLexer));
  rt.arena->reserve(tokens);
  rt.tokens = antlr3CommonTokenStreamSourceNew(ANTLR3_SIZE_HINT, TOKENSOURCE(rt.lexer));
  if (rt.tokens == nullptr) {
    std::fprintf(stderr, "Out of memory trying to allocate token stream\n");
    errorMessage = "Internal error - out of memory allocating token stream";
    return false;
  }

  rt.parser = LUTParserNew(rt.tokens);
  if (rt.parser == nullptr) {
    std::fprintf(stderr, "Out of memory trying to allocate parser\n");
    errorMessage = "Internal error - out of memory allocating parser";
    return false;
  }

  g_out_of_memory = false;
  g_parse_started = true;
  rt.parser->file(rt.parser);
  if (g_out_of_memory) throw std::bad_alloc();

  errorMessage = g_error_message;
  count = g_lut_index;
  return g_error == 0;
}

}  // namespace

bool LUT_Utils::parse(const std::string& fileName, int16_t* red, int16_t* green, int16_t* blue, int32_t size,
                      int32_t& count, std::string& errorMessage) {
  g_red_lut = red;
  g_green_lut = green;
  g_blue_lut = blue;
  g_lut_size = size;
  if (red == nullptr || green == nullptr || blue == nullptr || size == 0) return false;
  g_parse_started = false;
  try {
    return parseChecked(fileName, count, errorMessage);
  } catch (const std::bad_alloc&) {
    // Memory ran out on the way (the file's copy, a message, an entry's
    // text): the parse fails, nothing escapes. The texts are short enough
    // to need no allocation where the strings already have room.
    std::fprintf(stderr, "Out of memory reading file %s\n", fileName.c_str());
    g_error = 1;
    if (!g_parse_started) g_lut_index = 0;
    count = g_lut_index;
    try {
      g_error_message = "Internal error - out of memory reading file";
      errorMessage = g_error_message;
    } catch (const std::bad_alloc&) {
      g_error_message.clear();
      errorMessage.clear();
    }
    return false;
  }
}

void LUT_Utils::reportLexerError(ANTLR3_BASE_RECOGNIZER_struct* recognizer) { reportError(recognizer); }

void LUT_Utils::reportParserError(ANTLR3_BASE_RECOGNIZER_struct* recognizer) { reportError(recognizer); }

void LUT_Utils::displayLexerRecognitionError(ANTLR3_BASE_RECOGNIZER_struct* recognizer,
                                             uint8_t** tokenNames) {
  // Called from the runtime's C code, which no exception may cross.
  try {
    displayLexerError(recognizer, tokenNames);
  } catch (const std::bad_alloc&) {
    g_out_of_memory = true;
  }
}

void LUT_Utils::displayLexerError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** /*tokenNames*/) {
  pANTLR3_LEXER lexer = static_cast<pANTLR3_LEXER>(recognizer->super);
  pANTLR3_EXCEPTION ex = recognizer->state->exception;
  pANTLR3_INPUT_STREAM input = lexer->input;
  std::ostringstream out;

  if (ex->name != nullptr && input->fileName != nullptr) {
    pANTLR3_STRING name = input->fileName->to8(input->fileName);
    const std::string path = name ? reinterpret_cast<const char*>(name->chars) : "";
    const std::size_t slash = path.find_last_of('/');
    out << (slash == std::string::npos ? path : path.substr(slash + 1)) << "(line:";
  } else {
    out << "-unknown source-(";
  }
  out << ex->line << ", col:" << ex->charPositionInLine + 1 << ") "
      << ": lexer error " << ex->type << " : " << text(ex->message) << " - ";

  // Positions in a UTF-8 stream are addresses within the input's data.
  const uint8_t* data = static_cast<const uint8_t*>(input->data);
  const uint8_t* end = data + input->sizeBuf;
  const auto remaining = [&](ANTLR3_MARKER at) -> std::size_t {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(at);
    return (p >= data && p < end) ? static_cast<std::size_t>(end - p) : 0;
  };

  const std::size_t left = remaining(ex->index);
  if (left >= 1) {
    if (ex->c <= 0xFFu && std::isprint(static_cast<int>(ex->c)))
      out << "near '" << static_cast<char>(ex->c) << "':\n";
    else  // the character itself, although the stream is in hexadecimal around it
      out << "near char(" << std::hex << static_cast<ANTLR3_UINT8>(ex->c) << std::dec << ") :\n";
    const uint8_t* p = reinterpret_cast<const uint8_t*>(ex->index);
    out.write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(utf8Prefix(p, left, 150)));
    out << "...";
  } else {
    out << "(end of input).\n\t This indicates a poorly specified lexer RULE\n\t or unterminated input "
           "element such "
           "as: \"STRING[\"]\n";
    out << "\t The lexer was matching from line " << recognizer->state->tokenStartLine << ", offset "
        << recognizer->state->tokenStartCharPositionInLine << ", which\n\t ";
    const std::size_t fromStart = remaining(recognizer->state->tokenStartCharIndex);
    if (fromStart >= 1) {
      out << "looks like this:\n\t\t";
      out.write(reinterpret_cast<const char*>(recognizer->state->tokenStartCharIndex),
                static_cast<std::streamsize>(fromStart));
      out << "\n";
    } else {
      out << "is also the end of the line, so you must check your lexer rules\n";
    }
  }
  g_error_message = out.str();
}

void LUT_Utils::displayParserRecognitionError(ANTLR3_BASE_RECOGNIZER_struct* recognizer,
                                              uint8_t** tokenNames) {
  // Called from the runtime's C code, which no exception may cross.
  try {
    displayParserError(recognizer, tokenNames);
  } catch (const std::bad_alloc&) {
    g_out_of_memory = true;
  }
}

void LUT_Utils::displayParserError(ANTLR3_BASE_RECOGNIZER_struct* recognizer, uint8_t** tokenNames) {
  pANTLR3_EXCEPTION ex = recognizer->state->exception;
  std::ostringstream out;

  pANTLR3_COMMON_TOKEN exToken = static_cast<pANTLR3_COMMON_TOKEN>(ex->token);
  if (ex->streamName != nullptr) {
    // The name runs straight into the line number: no "(" here.
    pANTLR3_STRING name = ex->streamName->to8(ex->streamName);
    if (name != nullptr) out << reinterpret_cast<const char*>(name->chars);
  } else if (recognizer->type == ANTLR3_TYPE_PARSER && exToken != nullptr &&
             exToken->type == ANTLR3_TOKEN_EOF) {
    out << "-end of input-(";
  } else {
    out << "-unknown source-(";
  }
  out << ex->line << ") "
      << " : error " << ex->type << " : " << text(ex->message);

  switch (recognizer->type) {
    case ANTLR3_TYPE_PARSER: {
      out << ", at offset " << ex->charPositionInLine;
      if (exToken != nullptr) {
        if (exToken->type == ANTLR3_TOKEN_EOF) {
          out << ", at <EOF>";
        } else {
          pANTLR3_STRING tokenText = exToken->getText(exToken);
          out << "\n    near "
              << (tokenText != nullptr && tokenText->chars != nullptr
                      ? reinterpret_cast<const char*>(tokenText->chars)
                      : "<no text for the token>")
              << "\n    ";
        }
      }
      break;
    }
    case ANTLR3_TYPE_TREE_PARSER: {
      pANTLR3_BASE_TREE node = static_cast<pANTLR3_BASE_TREE>(ex->token);
      if (node != nullptr) {
        pANTLR3_STRING nodeText = node->toStringTree(node);
        out << ", at offset " << node->getCharPositionInLine(node) << ", near "
            << (nodeText != nullptr && nodeText->chars != nullptr
                    ? reinterpret_cast<const char*>(nodeText->chars)
                    : "");
      }
      break;
    }
    default:
      // Not a recogniser this hook knows: the composed text is dropped and
      // g_error_message keeps what it had.
      out << "Base recognizer function displayRecognitionError called by unknown parser type - provide "
             "override "
             "for this function\n";
      return;
  }

  switch (ex->type) {
    case ANTLR3_RECOGNITION_EXCEPTION:
      out << " : syntax error...\n";
      break;
    case ANTLR3_MISMATCHED_TOKEN_EXCEPTION:
      if (tokenNames == nullptr)
        out << " : syntax error...\n";
      else if (ex->expecting == ANTLR3_TOKEN_EOF)
        out << " : expected <EOF>\n";
      else
        out << " : expected " << tokenName(tokenNames, ex->expecting) << " ...\n";
      break;
    case ANTLR3_NO_VIABLE_ALT_EXCEPTION:
      out << " : cannot match to any predicted input...\n";
      break;
    case ANTLR3_MISMATCHED_SET_EXCEPTION: {
      out << " : unexpected input...\n  expected one of : ";
      pANTLR3_BITSET bits = ex->expectingSet ? antlr3BitsetLoad(ex->expectingSet) : nullptr;
      const ANTLR3_UINT32 size = bits ? bits->size(bits) : 0;
      if (size == 0) {
        out << "size < 0";
      } else if (tokenNames != nullptr) {
        // Names are listed from type 1 up, whether or not the type is in
        // the set; the list stops after 8, or after as many as the set has.
        const ANTLR3_UINT32 numBits = bits->numBits(bits);
        const ANTLR3_UINT32 tableEnd =
            tokenNames == LUTParserTokenNames
                ? static_cast<ANTLR3_UINT32>(sizeof LUTParserTokenNames / sizeof *LUTParserTokenNames)
                : numBits;
        ANTLR3_UINT32 written = 0;
        for (ANTLR3_UINT32 bit = 1; bit < numBits && bit < tableEnd && written < 8 && written < size; ++bit) {
          if (tokenNames[bit] != nullptr) {
            out << (written > 0 ? ", " : "") << reinterpret_cast<const char*>(tokenNames[bit]);
            ++written;
          }
        }
      }
      out << "\n";
      if (bits) bits->free(bits);
      break;
    }
    case ANTLR3_EARLY_EXIT_EXCEPTION:
      out << " : missing elements...\n";
      break;
    case ANTLR3_UNWANTED_TOKEN_EXCEPTION:
      if (tokenNames == nullptr)
        out << " : Extraneous input...";
      else if (ex->expecting == ANTLR3_TOKEN_EOF)
        out << " : Extraneous input - expected <EOF>\n";
      else
        out << " : Extraneous input - expected " << tokenName(tokenNames, ex->expecting);
      break;
    case ANTLR3_MISSING_TOKEN_EXCEPTION:
      if (tokenNames == nullptr)
        out << " : Missing token (" << ex->expecting << ")...\n";
      else if (ex->expecting == ANTLR3_TOKEN_EOF)
        out << " : Missing <EOF>\n";
      else
        out << " : Missing " << tokenName(tokenNames, ex->expecting) << " \n";
      break;
    default:
      out << " : syntax not recognized...\n";
      break;
  }
  g_error_message = out.str();
}

}  // namespace utils
}  // namespace zev

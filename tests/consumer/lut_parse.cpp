// SPDX-License-Identifier: MIT
// A program of another project that runs its own LUT parse over the library's exported recognisers.
#include <vorta/lut_recognizer.h>
#include <vorta/lut_utils.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int failures = 0;

void expect(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAIL: %s\n", what);
    ++failures;
  }
}

// A file of the given text in a fresh temporary directory.
std::string writeFile(const char* dir, const char* name, const char* text) {
  const std::string path = std::string(dir) + "/" + name;
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr || std::fputs(text, f) < 0 || std::fclose(f) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  return path;
}

// One parse of path into the three tables, with the given constructors:
// the plain ones, or the ones taking a shared state (null: their own).
void parseFile(const std::string& path, int16_t* red, int16_t* green, int16_t* blue, int32_t size,
               bool sharedState) {
  g_red_lut = red;
  g_green_lut = green;
  g_blue_lut = blue;
  g_lut_size = size;
  pANTLR3_INPUT_STREAM input =
      antlr3FileStreamNew(reinterpret_cast<pANTLR3_UINT8>(const_cast<char*>(path.c_str())), ANTLR3_ENC_UTF8);
  if (input == nullptr) {
    std::printf("FAIL: cannot open %s\n", path.c_str());
    std::exit(1);
  }
  pLUTLexer lexer = sharedState ? LUTLexerNewSSD(input, nullptr) : LUTLexerNew(input);
  pANTLR3_COMMON_TOKEN_STREAM tokens = antlr3CommonTokenStreamSourceNew(1025, TOKENSOURCE(lexer));
  pLUTParser parser = sharedState ? LUTParserNewSSD(tokens, nullptr) : LUTParserNew(tokens);
  if (lexer == nullptr || tokens == nullptr || parser == nullptr) {
    std::printf("FAIL: cannot create the recognisers\n");
    std::exit(1);
  }
  parser->file(parser);
  parser->free(parser);
  tokens->free(tokens);
  lexer->free(lexer);
  input->close(input);
}

}  // namespace

int main() {
  char dir[] = "/tmp/vorta-lut-consumer-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  int16_t red[4] = {}, green[4] = {}, blue[4] = {};

  // A valid table: a comment line stores nothing, values are cut to 16 bits.
  const std::string good = writeFile(dir, "good.lut", "0 0 0\n1023 512 7\n# white point\n\t65535 70000 1\n");
  parseFile(good, red, green, blue, 4, false);
  std::printf("good.lut: %d entries, error %u\n", g_lut_index, g_error);
  expect(g_lut_index == 3, "three entries stored");
  expect(g_error == 0 && g_error_message.empty(), "no error");
  expect(red[1] == 1023 && green[1] == 512 && blue[1] == 7, "second entry 1023 512 7");
  expect(red[2] == -1 && green[2] == 4464 && blue[2] == 1, "third entry cut to -1 4464 1");

  // A letter is a lexer error, reported through the hooks that the
  // constructors install; the entry before it is still stored.
  const std::string bad = writeFile(dir, "letter.lut", "4 5 6\nx\n");
  parseFile(bad, red, green, blue, 4, true);
  std::printf("letter.lut: %d entries, error %u: %s\n", g_lut_index, g_error, g_error_message.c_str());
  expect(g_lut_index == 1 && red[0] == 4 && green[0] == 5 && blue[0] == 6, "entry before the error stored");
  expect(g_error == 1, "error flagged");
  expect(g_error_message.rfind("letter.lut(line:2, col:1) : lexer error ", 0) == 0,
         "lexer error text from the library's display hook");

  // The parser's token names, indexed by token type.
  expect(std::strcmp(reinterpret_cast<const char*>(LUTParserTokenNames[EOL]), "EOL") == 0 &&
             std::strcmp(reinterpret_cast<const char*>(LUTParserTokenNames[COMMENT]), "COMMENT") == 0,
         "token names EOL and COMMENT at types 4 and 7");

  unlink(good.c_str());
  unlink(bad.c_str());
  rmdir(dir);
  if (failures == 0) std::printf("own LUT parse: ok\n");
  return failures == 0 ? 0 : 1;
}

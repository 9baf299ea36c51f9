// SPDX-License-Identifier: MIT
// The LUT recognisers' error hooks, driven with exceptions made by hand for
// the cases this grammar never produces (with the runtime in use here a
// failed match is reported as a plain recognition error, so "mismatched
// token" never comes out of a parse; the parser has no sets, and no input
// reaches the no-viable-alternative path of its one decision).
#include <gtest/gtest.h>

#include <antlr3.h>

#include <cstring>
#include <string>

#include "LUTLexer.h"
#include "LUTParser.h"
#include "lut_recognizer.h"
#include "lut_utils.h"

using zev::utils::LUT_Utils;

namespace {

pANTLR3_UINT8 u8(const char* text) { return reinterpret_cast<pANTLR3_UINT8>(const_cast<char*>(text)); }

// A recogniser holding one exception, with a token (from a real input
// stream's token factory) for the exception to point at.
class Crafted {
 public:
  explicit Crafted(ANTLR3_UINT32 recognizerType, const char* streamName = "crafted.lut") {
    input_ = antlr3StringStreamNew(u8(source_), ANTLR3_ENC_UTF8,
                                   static_cast<ANTLR3_UINT32>(std::strlen(source_)), u8(streamName));
    factory_ = antlr3TokenFactoryNew(input_);
    token_ = factory_->newToken(factory_);
    recognizer_ = antlr3BaseRecognizerNew(recognizerType, 1025, nullptr);
    recognizer_->displayRecognitionError = LUT_Utils::displayParserRecognitionError;
    recognizer_->state->tokenNames = LUTParserTokenNames;
  }
  ~Crafted() {
    if (arboretum_) arboretum_->close(arboretum_);
    recognizer_->free(recognizer_);  // frees the exception too
    factory_->close(factory_);
    input_->close(input_);
  }

  // An exception of the given type at line 3, offset 4, naming the input.
  pANTLR3_EXCEPTION raise(ANTLR3_UINT32 type, const char* message = "crafted") {
    pANTLR3_EXCEPTION ex =
        antlr3ExceptionNew(type, const_cast<char*>("Crafted"), const_cast<char*>(message), ANTLR3_FALSE);
    ex->line = 3;
    ex->charPositionInLine = 4;
    ex->streamName = input_->fileName;
    ex->token = token_;
    token_->setType(token_, 6);
    token_->setText8(token_, u8("42"));
    recognizer_->state->exception = ex;
    return ex;
  }

  void atEndOfInput(pANTLR3_EXCEPTION ex) {
    ex->streamName = nullptr;
    token_->setType(token_, ANTLR3_TOKEN_EOF);
  }

  void onTreeNode(pANTLR3_EXCEPTION ex) {
    arboretum_ = antlr3ArboretumNew(input_->strFactory);
    token_->setCharPositionInLine(token_, 9);
    ex->token = arboretum_->newFromToken(arboretum_, token_);
  }

  std::string display(pANTLR3_UINT8* names = LUTParserTokenNames) {
    LUT_Utils::displayParserRecognitionError(recognizer_, names);
    return g_error_message;
  }

  pANTLR3_BASE_RECOGNIZER recognizer() { return recognizer_; }

 private:
  const char* source_ = "1 2 3\n";
  pANTLR3_INPUT_STREAM input_;
  pANTLR3_TOKEN_FACTORY factory_;
  pANTLR3_COMMON_TOKEN token_;
  pANTLR3_BASE_RECOGNIZER recognizer_;
  pANTLR3_ARBORETUM arboretum_ = nullptr;
};

const std::string kHead = "crafted.lut3)  : error ";

TEST(LutParserHook, MismatchedTokenNamesTheExpectedToken) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_MISMATCHED_TOKEN_EXCEPTION)->expecting = 5;
  EXPECT_EQ(c.display(), kHead + "2 : crafted, at offset 4\n    near 42\n     : expected WS ...\n");
}

TEST(LutParserHook, MismatchedTokenExpectingEndOfInput) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_MISMATCHED_TOKEN_EXCEPTION)->expecting = ANTLR3_TOKEN_EOF;
  EXPECT_EQ(c.display(), kHead + "2 : crafted, at offset 4\n    near 42\n     : expected <EOF>\n");
}

TEST(LutParserHook, MismatchedTokenWithoutNames) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_MISMATCHED_TOKEN_EXCEPTION)->expecting = 5;
  EXPECT_EQ(c.display(nullptr), kHead + "2 : crafted, at offset 4\n    near 42\n     : syntax error...\n");
}

TEST(LutParserHook, NoViableAlternative) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_NO_VIABLE_ALT_EXCEPTION,
          "58:1: record : ( ( WS )* red ( WS )+ green ( WS )+ blue ( WS )* | ( WS )* );");
  EXPECT_EQ(c.display(),
            kHead +
                "3 : 58:1: record : ( ( WS )* red ( WS )+ green ( WS )+ blue ( WS )* | ( WS )* );, at "
                "offset 4\n    near 42\n     : cannot match to any predicted input...\n");
}

TEST(LutParserHook, MismatchedSetListsNamesFromTypeOneWhateverTheMembers) {
  Crafted c(ANTLR3_TYPE_PARSER);
  pANTLR3_EXCEPTION ex = c.raise(ANTLR3_MISMATCHED_SET_EXCEPTION);
  ANTLR3_BITWORD words[1] = {(ANTLR3_BITWORD(1) << 4) | (ANTLR3_BITWORD(1) << 6)};  // EOL and INT
  ANTLR3_BITSET_LIST list = {words, 1};
  ex->expectingSet = &list;
  EXPECT_EQ(c.display(), kHead +
                             "4 : crafted, at offset 4\n    near 42\n     : unexpected input...\n"
                             "  expected one of : <EOR>, <DOWN>\n");
  ex->expectingSet = nullptr;
}

TEST(LutParserHook, MismatchedSetStopsAtTheEndOfTheNameTable) {
  Crafted c(ANTLR3_TYPE_PARSER);
  pANTLR3_EXCEPTION ex = c.raise(ANTLR3_MISMATCHED_SET_EXCEPTION);
  ANTLR3_BITWORD words[1] = {0x3FFF};  // 14 members, more than there are names
  ANTLR3_BITSET_LIST list = {words, 1};
  ex->expectingSet = &list;
  EXPECT_EQ(c.display(), kHead +
                             "4 : crafted, at offset 4\n    near 42\n     : unexpected input...\n"
                             "  expected one of : <EOR>, <DOWN>, <UP>, EOL, WS, INT, COMMENT\n");
  ex->expectingSet = nullptr;
}

TEST(LutParserHook, MismatchedSetThatIsEmpty) {
  Crafted c(ANTLR3_TYPE_PARSER);
  pANTLR3_EXCEPTION ex = c.raise(ANTLR3_MISMATCHED_SET_EXCEPTION);
  ANTLR3_BITWORD words[1] = {0};
  ANTLR3_BITSET_LIST list = {words, 1};
  ex->expectingSet = &list;
  EXPECT_EQ(c.display(), kHead +
                             "4 : crafted, at offset 4\n    near 42\n     : unexpected input...\n"
                             "  expected one of : size < 0\n");
  ex->expectingSet = nullptr;
}

TEST(LutParserHook, RecognitionError) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_RECOGNITION_EXCEPTION);
  EXPECT_EQ(c.display(), kHead + "1 : crafted, at offset 4\n    near 42\n     : syntax error...\n");
}

TEST(LutParserHook, EarlyExit) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_EARLY_EXIT_EXCEPTION);
  EXPECT_EQ(c.display(), kHead + "5 : crafted, at offset 4\n    near 42\n     : missing elements...\n");
}

TEST(LutParserHook, UnwantedTokenVariants) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_UNWANTED_TOKEN_EXCEPTION)->expecting = 6;
  EXPECT_EQ(c.display(),
            kHead + "9 : crafted, at offset 4\n    near 42\n     : Extraneous input - expected INT");
  EXPECT_EQ(c.display(nullptr), kHead + "9 : crafted, at offset 4\n    near 42\n     : Extraneous input...");
  c.recognizer()->state->exception->expecting = ANTLR3_TOKEN_EOF;
  EXPECT_EQ(c.display(),
            kHead + "9 : crafted, at offset 4\n    near 42\n     : Extraneous input - expected <EOF>\n");
}

TEST(LutParserHook, MissingTokenVariants) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_MISSING_TOKEN_EXCEPTION)->expecting = 4;
  EXPECT_EQ(c.display(), kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing EOL \n");
  EXPECT_EQ(c.display(nullptr),
            kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing token (4)...\n");
  c.recognizer()->state->exception->expecting = ANTLR3_TOKEN_EOF;
  EXPECT_EQ(c.display(), kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing <EOF>\n");
}

// The type just past the parser's name table (it has 8 names, 0 to 7) has no
// name: it is shown as "<invalid>", nothing is read past the table.
TEST(LutParserHook, TypeJustPastTheNameTableIsInvalid) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_MISSING_TOKEN_EXCEPTION)->expecting = 8;
  EXPECT_EQ(c.display(), kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing <invalid> \n");
  c.recognizer()->state->exception->expecting = 7;
  EXPECT_EQ(c.display(), kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing COMMENT \n");
}

// Another recogniser's name table (not the parser's) is read for any type:
// its own names come out, and a set lists at most eight of them.
TEST(LutParserHook, AnotherNameTableIsReadForEveryType) {
  pANTLR3_UINT8 names[] = {u8("<invalid>"), u8("ONE"),   u8("TWO"),   u8("THREE"), u8("FOUR"), u8("FIVE"),
                           u8("SIX"),       u8("SEVEN"), u8("EIGHT"), u8("NINE"),  u8("TEN"),  u8("ELEVEN")};
  Crafted missing(ANTLR3_TYPE_PARSER);
  missing.raise(ANTLR3_MISSING_TOKEN_EXCEPTION)->expecting = 2;
  EXPECT_EQ(missing.display(names), kHead + "10 : crafted, at offset 4\n    near 42\n     : Missing TWO \n");
  Crafted c(ANTLR3_TYPE_PARSER);
  pANTLR3_EXCEPTION ex = c.raise(ANTLR3_MISMATCHED_SET_EXCEPTION);
  ANTLR3_BITWORD words[1] = {0xFFE};  // types 1 to 11
  ANTLR3_BITSET_LIST list = {words, 1};
  ex->expectingSet = &list;
  EXPECT_EQ(c.display(names), kHead +
                                  "4 : crafted, at offset 4\n    near 42\n     : unexpected input...\n"
                                  "  expected one of : ONE, TWO, THREE, FOUR, FIVE, SIX, SEVEN, EIGHT\n");
  ex->expectingSet = nullptr;
}

// A recogniser with a debugger attached tells it of every error reported,
// those not displayed while recovering included.
TEST(LutReportHook, TellsTheDebuggerOfEveryError) {
  static int told;
  static pANTLR3_EXCEPTION toldOf;
  told = 0;
  toldOf = nullptr;
  ANTLR3_DEBUG_EVENT_LISTENER debugger;
  std::memset(&debugger, 0, sizeof debugger);
  debugger.recognitionException = [](pANTLR3_DEBUG_EVENT_LISTENER, pANTLR3_EXCEPTION e) {
    ++told;
    toldOf = e;
  };
  Crafted c(ANTLR3_TYPE_PARSER);
  pANTLR3_EXCEPTION ex = c.raise(ANTLR3_EARLY_EXIT_EXCEPTION);
  pANTLR3_BASE_RECOGNIZER rec = c.recognizer();
  rec->debugger = &debugger;
  rec->state->errorRecovery = ANTLR3_FALSE;
  LUT_Utils::reportParserError(rec);
  LUT_Utils::reportParserError(rec);  // while recovering: told, not displayed
  rec->debugger = nullptr;
  EXPECT_EQ(told, 2);
  EXPECT_EQ(toldOf, ex);
  EXPECT_EQ(rec->state->errorCount, 1u);
}

// ---- the store action

// A token that carries a text of its own (as the runtime gives tokens it
// makes up while recovering) is stored by that text, not by the characters
// of the input it would span.
TEST(LutStoreRecord, TokensWithTextOfTheirOwnAreStoredByThatText) {
  const char* source = "9 9 9\n";
  pANTLR3_INPUT_STREAM input = antlr3StringStreamNew(
      u8(source), ANTLR3_ENC_UTF8, static_cast<ANTLR3_UINT32>(std::strlen(source)), u8("own.lut"));
  pANTLR3_TOKEN_FACTORY factory = antlr3TokenFactoryNew(input);
  pANTLR3_COMMON_TOKEN tokens[3];
  const char* texts[3] = {"12", "-3", "70000"};
  for (int i = 0; i < 3; ++i) {
    tokens[i] = factory->newToken(factory);
    tokens[i]->setTokenIndex(tokens[i], i);
    tokens[i]->setStartIndex(tokens[i], 2 * i);
    tokens[i]->setStopIndex(tokens[i], 2 * i);
    tokens[i]->setText8(tokens[i], u8(texts[i]));
  }
  int16_t red[2] = {0x5555, 0x5555}, green[2] = {0x5555, 0x5555}, blue[2] = {0x5555, 0x5555};
  g_red_lut = red;
  g_green_lut = green;
  g_blue_lut = blue;
  g_lut_size = 2;
  g_lut_index = 0;
  lutStoreRecord(nullptr, tokens[0], tokens[0], tokens[1], tokens[1], tokens[2], tokens[2]);
  EXPECT_EQ(g_lut_index, 1);
  EXPECT_EQ(red[0], 12);
  EXPECT_EQ(green[0], -3);
  EXPECT_EQ(blue[0], 4464);  // 70000 cut to its low 16 bits
  EXPECT_EQ(red[1], 0x5555);
  g_red_lut = g_green_lut = g_blue_lut = nullptr;
  g_lut_size = 0;
  g_lut_index = 0;
  factory->close(factory);
  input->close(input);
}

TEST(LutParserHook, OtherExceptionTypes) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_FAILED_PREDICATE_EXCEPTION);
  EXPECT_EQ(c.display(), kHead + "6 : crafted, at offset 4\n    near 42\n     : syntax not recognized...\n");
}

TEST(LutParserHook, EndOfInputHasNoSourceName) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.atEndOfInput(c.raise(ANTLR3_EARLY_EXIT_EXCEPTION));
  EXPECT_EQ(c.display(),
            "-end of input-(3)  : error 5 : crafted, at offset 4, at <EOF> : missing elements...\n");
}

TEST(LutParserHook, UnknownSourceWhenNotAtTheEnd) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_EARLY_EXIT_EXCEPTION)->streamName = nullptr;
  EXPECT_EQ(
      c.display(),
      "-unknown source-(3)  : error 5 : crafted, at offset 4\n    near 42\n     : missing elements...\n");
}

TEST(LutParserHook, TreeParserShowsTheNode) {
  Crafted c(ANTLR3_TYPE_TREE_PARSER);
  c.onTreeNode(c.raise(ANTLR3_NO_VIABLE_ALT_EXCEPTION));
  EXPECT_EQ(c.display(),
            kHead + "3 : crafted, at offset 9, near 42 : cannot match to any predicted input...\n");
}

TEST(LutParserHook, UnknownRecogniserLeavesThePreviousMessage) {
  Crafted c(ANTLR3_TYPE_LEXER);
  c.raise(ANTLR3_EARLY_EXIT_EXCEPTION);
  g_error_message = "earlier";
  EXPECT_EQ(c.display(), "earlier");
}

TEST(LutReportHook, ReportsOncePerRecoveryAndSetsTheFlag) {
  Crafted c(ANTLR3_TYPE_PARSER);
  c.raise(ANTLR3_EARLY_EXIT_EXCEPTION);
  g_error = 0;
  g_error_message.clear();
  pANTLR3_BASE_RECOGNIZER rec = c.recognizer();
  LUT_Utils::reportParserError(rec);
  EXPECT_EQ(g_error, 1u);
  EXPECT_EQ(rec->state->errorCount, 1u);
  EXPECT_TRUE(rec->state->errorRecovery);
  EXPECT_EQ(g_error_message, kHead + "5 : crafted, at offset 4\n    near 42\n     : missing elements...\n");

  // While recovering, further errors are neither counted nor displayed.
  g_error = 0;
  g_error_message = "kept";
  LUT_Utils::reportParserError(rec);
  EXPECT_EQ(g_error, 0u);
  EXPECT_EQ(rec->state->errorCount, 1u);
  EXPECT_EQ(g_error_message, "kept");
}

// ---- the lexer's hook, on the generated lexer

class LexerRun {
 public:
  explicit LexerRun(const std::string& text, const char* name = "dir/sub/run.lut") : text_(text) {
    input_ = antlr3StringStreamNew(u8(text_.c_str()), ANTLR3_ENC_UTF8,
                                   static_cast<ANTLR3_UINT32>(text_.size()), u8(name));
    lexer_ = LUTLexerNew(input_);
  }
  ~LexerRun() {
    lexer_->free(lexer_);
    input_->close(input_);
  }
  // Runs the lexer alone to the end of the input; returns the token types.
  std::string tokens() {
    g_error = 0;
    g_error_message.clear();
    std::string types;
    pANTLR3_TOKEN_SOURCE source = TOKENSOURCE(lexer_);
    for (;;) {
      pANTLR3_COMMON_TOKEN t = source->nextToken(source);
      if (t == nullptr || t->type == ANTLR3_TOKEN_EOF) break;
      types += static_cast<char>('0' + t->type);
    }
    return types;
  }
  pANTLR3_BASE_RECOGNIZER recognizer() { return lexer_->pLexer->rec; }

 private:
  std::string text_;
  pANTLR3_INPUT_STREAM input_;
  pLUTLexer lexer_;
};

TEST(LutLexerHook, CommaIsALexerErrorAtTheComma) {
  LexerRun run("0,0,0\n");
  // INT INT INT EOL: the commas are reported and dropped.
  EXPECT_EQ(run.tokens(), "6664");
  EXPECT_EQ(g_error, 1u);
  EXPECT_EQ(g_error_message, "run.lut(line:1, col:1) : lexer error 3 :  - near ',':\n,0,0\n...");
}

TEST(LutLexerHook, TokenTypes) {
  LexerRun run("1 \t22\r\n# c\n// d\r\n");
  // INT WS WS INT EOL EOL; comments are hidden but still come out of the lexer.
  EXPECT_EQ(run.tokens(),
            "655644"
            "77");
  EXPECT_EQ(g_error, 0u);
}

TEST(LutLexerHook, UnknownSourceWhenTheExceptionHasNoName) {
  LexerRun run("1 2 3\n");
  pANTLR3_BASE_RECOGNIZER rec = run.recognizer();
  pANTLR3_EXCEPTION ex =
      antlr3ExceptionNew(ANTLR3_RECOGNITION_EXCEPTION, nullptr, const_cast<char*>("odd"), ANTLR3_FALSE);
  ex->line = 1;
  ex->charPositionInLine = 1;
  ex->c = '2';
  ex->index = static_cast<ANTLR3_MARKER>(reinterpret_cast<uintptr_t>(
                  static_cast<pANTLR3_INPUT_STREAM>(static_cast<pANTLR3_LEXER>(rec->super)->input)->data)) +
              2;
  rec->state->exception = ex;
  LUT_Utils::displayLexerRecognitionError(rec, nullptr);
  EXPECT_EQ(g_error_message, "-unknown source-(1, col:2) : lexer error 1 : odd - near '2':\n2 3\n...");
  ex->freeEx(ex);
  rec->state->exception = nullptr;
}

}  // namespace

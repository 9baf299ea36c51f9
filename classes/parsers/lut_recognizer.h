// SPDX-License-Identifier: MIT
// vorta: the LUT grammar's generated lexer and parser, for programs that run a parse of their own over them.
#pragma once

// LUTLexer.h and LUTParser.h are generated from LUT.g when the library is
// built and are installed beside this header. They declare the recognisers'
// constructors, which libvorta.so exports:
//
//   pLUTLexer  LUTLexerNew(pANTLR3_INPUT_STREAM input);
//   pLUTLexer  LUTLexerNewSSD(pANTLR3_INPUT_STREAM input, pANTLR3_RECOGNIZER_SHARED_STATE state);
//   pLUTParser LUTParserNew(pANTLR3_COMMON_TOKEN_STREAM tokens);
//   pLUTParser LUTParserNewSSD(pANTLR3_COMMON_TOKEN_STREAM tokens, pANTLR3_RECOGNIZER_SHARED_STATE state);
//
// (a null state makes the recogniser its own), the parser's rules
// parser->file, ->record, ->red, ->green, ->blue, and the token types as
// macros: EOL 4, WS 5, INT 6, COMMENT 7 (and EOF as the runtime's end of
// input). Both constructors install LUT_Utils's report and display hooks.
//
// A parse of one's own: set g_red_lut, g_green_lut, g_blue_lut and
// g_lut_size (lut_utils.h); make an input stream, the lexer over it, a
// common token stream over TOKENSOURCE(lexer) and the parser over that; run
// parser->file(parser). Then g_lut_index is the number of entries stored,
// g_error is 1 when an error was reported and g_error_message holds the last
// one. Free the parser, the token stream, the lexer and the input, in that
// order. The parse state is process-wide: one parse at a time per process.
// The program calls the ANTLR 3 C runtime (libantlr3c) itself and links it.
// LUT_Utils::parse does all of this, with bounds on the file's size and
// tokens and a check that it is UTF-8, which a parse of one's own is without.
#include "LUTLexer.h"
#include "LUTParser.h"

/// The parser's token names, indexed by token type: "<invalid>", "<EOR>",
/// "<DOWN>", "<UP>", "EOL", "WS", "INT", "COMMENT".
extern pANTLR3_UINT8 LUTParserTokenNames[8];

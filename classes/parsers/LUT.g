// SPDX-License-Identifier: MIT
// LUT.g: colour look-up table files, one "red green blue" entry per line.
//
// A line holds three decimal integers separated by blanks, or nothing but
// blanks. Comments start with "#" or "//" and run to the end of the line,
// line end included. Entries are stored into the tables that
// zev::utils::LUT_Utils::parse hands over through the g_* globals.
//
// The token types are fixed by LUTVocab.tokens (EOL=4, WS=5, INT=6,
// COMMENT=7), and the rule "record" must begin on line 58, column 1: its
// line and column are part of the text the parser reports for it.

grammar LUT;

options {
    language = C;
    tokenVocab = LUTVocab;
}

@lexer::includes {
#include "lut_utils.h"
}

@parser::includes {
#include "lut_utils.h"
}

@lexer::apifuncs {
    RECOGNIZER->reportError = zev::utils::LUT_Utils::reportLexerError;
    RECOGNIZER->displayRecognitionError = zev::utils::LUT_Utils::displayLexerRecognitionError;
}

@parser::apifuncs {
    RECOGNIZER->reportError = zev::utils::LUT_Utils::reportParserError;
    RECOGNIZER->displayRecognitionError = zev::utils::LUT_Utils::displayParserRecognitionError;
}

// The whole file: records separated by line ends. Resets the parse state.
file
@init {
    g_lut_index = 0;
    g_error = 0;
    g_error_message.clear();
}
    : record ( EOL record )* EOF
    ;

// One line. The first alternative stores an entry (lutStoreRecord): unless
// the tables are full, each value's text is converted with strtol and cut to
// its low 16 bits; lines past the capacity are still checked but not stored.
// A value with no text (a token the parser made up while recovering from an
// error) stores nothing.
//
//
// Keep this rule starting on line 58, column 1: the parser's description of
// its decision, which error reports may show, carries that position.
//
//
record
    : WS* red WS+ green WS+ blue WS*
        {
            lutStoreRecord(INPUT, $red.start, $red.stop, $green.start, $green.stop, $blue.start, $blue.stop);
        }
    | WS*
    ;

red   : INT ;
green : INT ;
blue  : INT ;

INT : '0'..'9'+ ;

WS : ' ' | '\t' ;

// CR LF is two line ends, so it makes an empty record between them.
EOL : '\n' | '\r' ;

// A comment takes its line end with it: after a record it joins the next
// line to that record, and on a last line without a line end it is an error.
COMMENT : ( '#' | '//' ) ~( '\n' | '\r' )* '\r'? '\n' { $channel = HIDDEN; } ;

# SPDX-License-Identifier: MIT
set(_lut ${VORTA_TEST_DATA_DIR}/lut)
vorta_cli_test(lut_ok RC 0 ARGS lut ${_lut}/two_lines.lut STDOUT "^entries: 2\nok\n$")
vorta_cli_test(lut_dump RC 0 ARGS lut --dump ${_lut}/two_lines.lut
  STDOUT "^INDEX +RED +GREEN +BLUE\n +0 +0 +0 +0\n +1 +1023 +1023 +1023\nentries: 2\nok\n$")
vorta_cli_test(lut_size RC 0 ARGS lut --size 2 ${_lut}/three_lines.lut STDOUT "^entries: 2\nok\n$")
# Parse errors: the result on standard output, a one-line FILE:LINE:COLUMN
# summary and then the parser's own text on standard error.
vorta_cli_test(lut_lexer_error RC 1 ARGS lut ${_lut}/letter.lut STDOUT "^entries: 2\n$"
  STDERR "^[^\n]*letter.lut:2:1: lexer error 3 : - near 'x'\n[^\n]*letter.lut\\(line:2, col:1\\) : lexer error 3 :  - near 'x':\nx\n4 5 6\n\\.\\.\\.\n$")
vorta_cli_test(lut_syntax_error RC 1 ARGS lut ${_lut}/comment_joins_next_line.lut STDOUT "^entries: 1\n$"
  STDERR "^[^\n]*comment_joins_next_line.lut:2:1: Unexpected token near '4'\n.*comment_joins_next_line.lut2\\)  : error 1 : Unexpected token, at offset 0\n    near 4\n     : syntax error\\.\\.\\.\n$")
vorta_cli_test(lut_invalid_utf8 RC 1 ARGS lut ${_lut}/cut_sequence_before_newline.lut STDOUT "^entries: 0\n$"
  STDERR "^[^\n]*cut_sequence_before_newline.lut:1:6: invalid UTF-8 at byte 0xC3")
vorta_cli_test(lut_json RC 0 ARGS lut --json --dump ${_lut}/crlf.lut
  STDOUT "\"ok\":[ \t]*true,.*\"count\":[ \t]*2,.*\"error\":[ \t]*null,.*\"entries\":[ \t]*\\[\\[1, 2, 3\\], \\[4, 5, 6\\]\\]")
get_property(_has_png GLOBAL PROPERTY VORTA_CLI_HAS_PNG)
if(_has_png)
  vorta_cli_test(lut_plot RC 0 ARGS lut --plot ${CMAKE_CURRENT_BINARY_DIR}/lut_ramp.png ${_lut}/ramp_4096.lut
    STDOUT "^entries: 4096\nok\n$")
endif()
vorta_cli_test(lut_missing_file RC 1 ARGS lut ${_lut}/absent.lut
  STDERR "Failed to open file .*absent.lut\nvorta lut: .*absent.lut: Unable to open file\n$")
vorta_cli_test(lut_bad_size RC 2 ARGS lut --size 0 ${_lut}/two_lines.lut
  STDERR "^vorta lut: --size must be between 1 and 1048576; see 'vorta lut --help'\n$")
vorta_cli_test(lut_help RC 0 ARGS lut --help STDOUT "^usage: vorta lut \\[options\\] FILE\n")

# SPDX-License-Identifier: MIT
vorta_cli_test(cp437_hex RC 0 ARGS cp437 "é─π€"
  STDOUT "input  10 bytes UTF-8: C3 A9 E2 94 80 CF 80 E2 82 AC\ncp437  6 bytes: 82 C4 E3 E2 82 AC\n")
vorta_cli_test(cp437_size RC 0 ARGS cp437 --size 3 "aé€"
  STDOUT "cp437  2 bytes \\(buffer of 3\\): 61 82\n")
vorta_cli_test(cp437_table RC 0 ARGS cp437 --table "π€"
  STDOUT "CHAR +UTF-8 +CP437\nπ +CF 80 +E3 \\(227\\)\n€ +E2 82 AC +not in code page 437: kept as UTF-8\n")
vorta_cli_test(cp437_json RC 0 ARGS cp437 --json "é" STDOUT "\"cp437\":[ \t]*\"82\"")
vorta_cli_test(cp437_bad_size RC 2 ARGS cp437 --size 0 abc STDERR "^vorta cp437: --size must be between 1 and 1048576; see 'vorta cp437 --help'\n$")
vorta_cli_test(cp437_size_not_number RC 2 ARGS cp437 --size ten abc STDERR "^vorta cp437: --size must be a whole number, not 'ten'; see 'vorta cp437 --help'\n$")
vorta_cli_test(cp437_two_texts RC 2 ARGS cp437 a b STDERR "^vorta cp437: too many arguments; see 'vorta cp437 --help'\n$")

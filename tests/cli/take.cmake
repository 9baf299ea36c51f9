# SPDX-License-Identifier: MIT
vorta_cli_test(take_table RC 0 ARGS take A001_003.mov SHOT_TK12.mov Clip.mov
  STDOUT "^NAME +TAKE  NOTE\nA001_003.mov +3\nSHOT_TK12.mov +12\nClip.mov +-1  no take marker \\(TK or _\\)\n$")
vorta_cli_test(take_json RC 0 ARGS take --json A001_C003.mov
  STDOUT "\"name\":[ \t]*\"A001_C003.mov\",[ \t\n]*\"take\":[ \t]*0")
vorta_cli_test(take_help RC 0 ARGS take --help STDOUT "^usage: vorta take \\[options\\] NAME\\.\\.\\.\n")
vorta_cli_test(take_missing_name RC 2 ARGS take
  STDERR "^vorta take: missing argument; see 'vorta take --help'\n$")
vorta_cli_test(take_bad_option RC 2 ARGS take --frobnicate X_1 STDERR "^vorta take: unknown option '--frobnicate'; see 'vorta take --help'\n$")

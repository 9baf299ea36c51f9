# SPDX-License-Identifier: MIT
# The tool's own conventions: help, version, unknown commands.
vorta_cli_test(help RC 0 ARGS --help STDOUT "usage: vorta \\[--prefix NAME\\] \\[--params FILE\\] COMMAND.*commands:.*  cp437 .*  take ")
vorta_cli_test(help_word RC 0 ARGS help take STDOUT "^usage: vorta take \\[options\\] NAME\\.\\.\\.")
vorta_cli_test(version RC 0 ARGS --version STDOUT "^vorta [0-9]+\\.[0-9]+\\.[0-9]+\n$")
vorta_cli_test(no_command RC 2 ARGS STDERR "^vorta: no command given; see 'vorta --help'\n$")
vorta_cli_test(unknown_command RC 2 ARGS frobnicate STDERR "^vorta: unknown command 'frobnicate'; see 'vorta --help'\n$")
vorta_cli_test(unknown_help_topic RC 2 ARGS help frobnicate STDERR "^vorta help: unknown command 'frobnicate'; see 'vorta --help'\n$")
# help and version are commands like the others.
vorta_cli_test(help_help RC 0 ARGS help help STDOUT "^usage: vorta help \\[COMMAND\\]\n\nshow the commands")
vorta_cli_test(help_version RC 0 ARGS help version STDOUT "^usage: vorta version\n\nprint the version of vorta\n")
vorta_cli_test(version_word RC 0 ARGS version STDOUT "^vorta [0-9]+\\.[0-9]+\\.[0-9]+\n$")
# The options common to the cache commands, before the command's name.
vorta_cli_test(global_option_needs_value RC 2 ARGS --prefix STDERR "^vorta: option '--prefix' needs a value; see 'vorta --help'\n$")
vorta_cli_test(global_option_not_taken RC 2 ARGS --prefix x tc 01:00:00:00
  STDERR "^vorta tc: unknown option '--prefix'; see 'vorta tc --help'\n$")

# SPDX-License-Identifier: MIT
# The tool's own conventions: help, version, unknown commands.
vorta_cli_test(help RC 0 ARGS --help STDOUT "usage: vorta COMMAND.*commands:.*  cp437 .*  take ")
vorta_cli_test(help_word RC 0 ARGS help take STDOUT "^usage: vorta take \\[options\\] NAME\\.\\.\\.")
vorta_cli_test(version RC 0 ARGS --version STDOUT "^vorta [0-9]+\\.[0-9]+\\.[0-9]+\n$")
vorta_cli_test(no_command RC 2 ARGS STDERR "^vorta: no command given\nusage: vorta COMMAND")
vorta_cli_test(unknown_command RC 2 ARGS frobnicate STDERR "^vorta: unknown command 'frobnicate'\nusage: vorta COMMAND")
vorta_cli_test(unknown_help_topic RC 2 ARGS help frobnicate STDERR "^vorta: unknown command 'frobnicate'")

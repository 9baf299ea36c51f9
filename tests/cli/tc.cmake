# SPDX-License-Identifier: MIT
# vorta tc: time codes by hand. The drop-frame separator is matched as
# "[^:]" because a semicolon cannot pass through these argument lists.
vorta_cli_test(tc_add_drop_frame RC 0 ARGS tc 01:00:00:00 --format 30df --add 1800
  STDOUT "^timecode   01:01:00[^:]02\nframes     109692\nformat     30df\n$")
vorta_cli_test(tc_subtract_wraps RC 0 ARGS tc 00:00:00:00 --format 30df --subtract 1
  STDOUT "^timecode   23:59:59[^:]29\nframes     2589407\n")
vorta_cli_test(tc_add_wraps RC 0 ARGS tc 23:59:59:29 --format 30 --add 1
  STDOUT "^timecode   00:00:00:00\nframes     0\nformat     30\n$")
vorta_cli_test(tc_frames RC 0 ARGS tc --frames 107892 --format 30df
  STDOUT "^timecode   01:00:00[^:]00\nframes     107892\nformat     30df\n$")
vorta_cli_test(tc_frames_sixty RC 0 ARGS tc --frames 3600 --format 60df
  STDOUT "^timecode   00:01:00[^:]04\n")
vorta_cli_test(tc_regs RC 0 ARGS tc 10:20:30:40 --format 30 --regs --unchecked
  STDOUT "^timecode   10:20:31:10\nframes     1116940\nformat     30\ndbb        0x00000000\nlow        0x33010100\nhigh       0x01000200\nuser bits  00 00 30 00\n$")
vorta_cli_test(tc_decode RC 0 ARGS tc --decode 0xAB020000 DBC0B9A2 45302A10 --format 25
  STDOUT "^timecode   10:20:30:12\nframes     930762\nformat     25\ndbb        0xAB020000\nlow        0xDBC0B9A2\nhigh       0x45302A10\nuser bits  43 21 DC BA\n$")
vorta_cli_test(tc_decode_sixty RC 0 ARGS tc --decode 0 0x68000202 0x01020000 --format 60
  STDOUT "^timecode   12:00:00:45\n")
vorta_cli_test(tc_json RC 0 ARGS tc 00:01:00:00 --format 30df --json --unchecked
  STDOUT "\"frames\":[ \t]*1800,[ \t\n]*\"format\":[ \t]*\"30df\",[ \t\n]*\"dropFrame\":[ \t]*true,[ \t\n]*\"dbb\":[ \t]*\"0x00000000\",[ \t\n]*\"low\":[ \t]*\"0x30000402\"")
vorta_cli_test(tc_default_format RC 0 ARGS tc 00:00:01:00 STDOUT "^timecode   00:00:01:00\nframes     30\nformat     30\n$")
vorta_cli_test(tc_help RC 0 ARGS tc --help STDOUT "^usage: vorta tc \\[options\\] ")
vorta_cli_test(tc_unknown_format RC 2 ARGS tc 01:00:00:00 --format 29
  STDERR "^vorta tc: unknown format '29' \\(use 24, 25, 30, 30df, 50, 60 or 60df\\); see 'vorta tc --help'\n$")
vorta_cli_test(tc_not_a_timecode RC 2 ARGS tc 1:2:3:4
  STDERR "^vorta tc: not a time code: '1:2:3:4' \\(expected HH:MM:SS:FF\\); see 'vorta tc --help'\n$")
vorta_cli_test(tc_letters_in_timecode RC 2 ARGS tc 01:0a:00:00 STDERR "^vorta tc: not a time code: '01:0a:00:00'")
vorta_cli_test(tc_too_long RC 2 ARGS tc 01:00:00:000 STDERR "^vorta tc: not a time code")
vorta_cli_test(tc_bad_word RC 2 ARGS tc --decode 1 2 zz
  STDERR "^vorta tc: not a register word: 'zz' \\(up to 8 hexadecimal digits\\); see 'vorta tc --help'\n$")
vorta_cli_test(tc_no_input RC 2 ARGS tc STDERR "^vorta tc: give a time code, --frames N or --decode DBB LOW HIGH; see 'vorta tc --help'\n$")
vorta_cli_test(tc_negative_frames RC 2 ARGS tc --frames -1 STDERR "^vorta tc: --frames must be between 0 and 4294967295; see 'vorta tc --help'\n$")

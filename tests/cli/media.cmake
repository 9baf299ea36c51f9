# SPDX-License-Identifier: MIT
# The media commands: argument errors here, the whole session in media_cli.sh.
vorta_cli_test(scan_help RC 0 ARGS scan --help STDOUT "^usage: vorta scan \\[options\\] DIR\n")
vorta_cli_test(scan_no_dir RC 2 ARGS scan STDERR "^vorta scan: missing argument; see 'vorta scan --help'\n$")
vorta_cli_test(clips_bad_encode_type RC 2 ARGS clips --encode-type x
  STDERR "^vorta clips: --encode-type must be a whole number, not 'x'; see 'vorta clips --help'\n$")
vorta_cli_test(next_name_extra RC 2 ARGS next-name foo STDERR "^vorta next-name: too many arguments; see 'vorta next-name --help'\n$")
vorta_cli_test(after_delete_missing RC 2 ARGS after-delete A.mov STDERR "^vorta after-delete: missing argument; see 'vorta after-delete --help'\n$")
vorta_cli_test(playlist_bad_action RC 2 ARGS playlist frob x --params /nonexistent/p.json
  STDERR "^vorta playlist: unknown action 'frob' \\(create, write, rename or delete\\); see 'vorta playlist --help'\n$")

find_program(VORTA_BASH bash)
if(VORTA_BASH)
  string(REPLACE "|" ";" _media_emulator "${_emulator}")
  add_test(NAME cli.media_session
    COMMAND ${VORTA_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/media_cli.sh $<TARGET_FILE:vorta_cli> ${VORTA_TEST_DATA_DIR}
            ${_media_emulator})
  set_tests_properties(cli.media_session PROPERTIES LABELS cli TIMEOUT 180)
endif()

# SPDX-License-Identifier: MIT
# vorta scan on a medium holding FIFOs, sockets, directories and links named like clips and
# playlists: it must finish (under a time limit) with exactly the real clips and playlist.
find_program(VORTA_BASH bash)
if(VORTA_BASH)
  string(REPLACE "|" ";" _hostile_emulator "${_emulator}")
  add_test(NAME cli.scan_hostile_medium
    COMMAND ${VORTA_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/hostile_media_cli.sh $<TARGET_FILE:vorta_cli>
            ${VORTA_TEST_DATA_DIR} ${_hostile_emulator})
  set_tests_properties(cli.scan_hostile_medium PROPERTIES LABELS cli TIMEOUT 300)
endif()

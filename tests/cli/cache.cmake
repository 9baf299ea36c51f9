# SPDX-License-Identifier: MIT
# The cache and playlists commands. Names are unique per build tree, so that
# parallel runs never share a segment.
string(MD5 _cache_tree "${CMAKE_BINARY_DIR}")
string(SUBSTRING "${_cache_tree}" 0 10 _cache_tree)
set(_cache_prefix "vorta_cli_${_cache_tree}")

vorta_cli_test(cache_bad_action RC 2 ARGS cache frob STDERR "^vorta cache: unknown action 'frob' \\(create, info, flush, repair, hold or remove\\); see 'vorta cache --help'\n$")
vorta_cli_test(cache_missing_action RC 2 ARGS cache STDERR "^vorta cache: missing argument; see 'vorta cache --help'\n$")
vorta_cli_test(cache_info_missing RC 1 ARGS cache info --prefix ${_cache_prefix}_missing
  STDERR "^vorta cache: no catalogue '${_cache_prefix}_missing': run vorta scan or vorta cache create\n$")
vorta_cli_test(cache_bad_name RC 2 ARGS cache info --clip-segment a/b STDERR "^vorta cache: --clip-segment must be a name without '/'; see 'vorta cache --help'\n$")
vorta_cli_test(cache_clips_only_for_create RC 2 ARGS cache info --clips 3 STDERR "^vorta cache: --clips and --playlists are for 'create'; see 'vorta cache --help'\n$")
vorta_cli_test(playlists_help RC 0 ARGS playlists --help STDOUT "^usage: vorta playlists \\[options\\] \\[add FILE... \\| remove PATH\\]")
vorta_cli_test(playlists_missing_cache RC 1 ARGS playlists --prefix ${_cache_prefix}_missing STDERR "^vorta playlists: no catalogue '${_cache_prefix}_missing'")

# A whole session, each step a separate run of the tool: create, add, list
# from another process, flush, remove.
add_test(NAME cli.cache_session
  COMMAND ${CMAKE_COMMAND}
    "-DVORTA=$<TARGET_FILE:vorta_cli>"
    "-DEMULATOR=${_emulator}"
    "-DPREFIX=${_cache_prefix}"
    "-DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/cache_session"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/cache/session.cmake)
set_tests_properties(cli.cache_session PROPERTIES LABELS cli TIMEOUT 120)

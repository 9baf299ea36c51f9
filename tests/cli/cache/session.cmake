# SPDX-License-Identifier: MIT
# A session of separate vorta runs on one shared cache: what one run writes,
# the next one sees. The segments are removed at the end, also on failure.
# -DVORTA=path -DEMULATOR=a|b -DPREFIX=name -DWORK_DIR=dir
string(REPLACE "|" ";" _emulator "${EMULATOR}")
string(RANDOM LENGTH 8 ALPHABET "0123456789abcdef" _run)
set(P "${PREFIX}_${_run}")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(cleanup)
  execute_process(COMMAND ${_emulator} ${VORTA} cache remove --prefix ${P} OUTPUT_QUIET ERROR_QUIET)
endfunction()

# step(<expected status> <stdout regex> <stderr regex> <words...>)
function(step rc out err)
  execute_process(COMMAND ${_emulator} ${VORTA} ${ARGN} --prefix ${P}
    RESULT_VARIABLE _rc OUTPUT_VARIABLE _out ERROR_VARIABLE _err)
  set(_shown "vorta ${ARGN}\n--- exit status: ${_rc}\n--- stdout:\n${_out}--- stderr:\n${_err}")
  if(NOT "${_rc}" STREQUAL "${rc}")
    cleanup()
    message(FATAL_ERROR "expected exit status ${rc}\n${_shown}")
  endif()
  if(NOT "${_out}" MATCHES "${out}")
    cleanup()
    message(FATAL_ERROR "stdout does not match '${out}'\n${_shown}")
  endif()
  if(NOT "${_err}" MATCHES "${err}")
    cleanup()
    message(FATAL_ERROR "stderr does not match '${err}'\n${_shown}")
  endif()
endfunction()

# Playlists are added from the medium only: the work directory is one.
set(ENV{VORTA_PARAMS} "${WORK_DIR}/params.json")
execute_process(COMMAND ${_emulator} ${VORTA} param set media-dir "${WORK_DIR}" RESULT_VARIABLE _rc)
if(NOT _rc EQUAL 0)
  message(FATAL_ERROR "param set media-dir failed")
endif()

set(_playlist "${WORK_DIR}/Day 1.playlist")
file(WRITE "${_playlist}" "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\",\"B.mov\",7]}")
file(WRITE "${WORK_DIR}/Best.playlist" "{\"name\":\"Best\",\"cliplist\":[\"A.mov\"]}")
file(WRITE "${WORK_DIR}/bad.playlist" "{\"name\":\"Bad\",\n\"cliplist\":[]}")

step(1 "^$" "^vorta cache: no catalogue '${P}': run vorta scan or vorta cache create\n$" cache info)
step(0 "^clip segment ${P}.clips: 65379 bytes\nplaylist segment ${P}.playlists: 159971 bytes\n$" "^$"
  cache create --clips 10 --playlists 3)
step(0 "^clip image in ${P}.clips: invalid \\(never written or flushed\\), segment of 65379 bytes, room for 10 clips; lock free; mutex mode 0[0-7]+\nplaylist image in ${P}.playlists: invalid \\(never written or flushed\\), segment of 159971 bytes, room for 3 playlists; lock free; mutex mode 0[0-7]+\n$"
  "^$" cache info)
# A cliplist element that is not a string makes the file invalid.
step(1 "^$" "^vorta playlists: ${WORK_DIR}/Day 1.playlist is not a playlist file\n$" playlists add "${_playlist}")
file(WRITE "${_playlist}" "{\"name\":\"Day 1\",\"cliplist\":[\"A.mov\",\"B.mov\"]}")
step(0 "^added Day 1 \\(${WORK_DIR}/Day 1.playlist\\)\nadded Best \\(${WORK_DIR}/Best.playlist\\)\n$" "^$"
  playlists add "${_playlist}" "${WORK_DIR}/Best.playlist")
step(1 "^$" "^vorta playlists: ${WORK_DIR}/bad.playlist is not a playlist file\n$" playlists add "${WORK_DIR}/bad.playlist")
step(0 "^NAME +CLIPS +MODIFIED +PATH\nAll Clips +0  -\nBest +1  [0-9-]+T[0-9:+-]+ +${WORK_DIR}/Best.playlist\nDay 1 +2  [0-9-]+T[0-9:+-]+ +${WORK_DIR}/Day 1.playlist\n$"
  "^$" playlists --wide)
step(0 "\"name\":\t\"All Clips\",\n\t\t\"clips\":\t0,\n\t\t\"modified\":\tnull,\n\t\t\"path\":\t\"\"" "^$" playlists --json)
step(0 "\"playlists\":\t{\n\t\t\"segment\":\t\"${P}.playlists\",\n\t\t\"read\":\ttrue,\n\t\t\"valid\":\ttrue,\n\t\t\"count\":\t2,\n\t\t\"imageBytes\":\t106655,.*\"names\":\t\\[\"Best\", \"Day 1\"\\]"
  "^$" cache info --json)
step(1 "^$" "^vorta playlists: no cached playlist has its path in 'nothing'\n$" playlists remove nothing)
step(0 "^removed Best\n$" "^$" playlists remove "rm ${WORK_DIR}/Best.playlist")
step(0 "playlist image in ${P}.playlists: valid, 1 playlist, 53339 of 159971 bytes, room for 3 playlists; lock free; mutex mode 0[0-7]+\n  Day 1\n$" "^$" cache info)
step(0 "^took over 0 locks left held by processes that ended\n$" "^$" cache repair)
step(0 "\"lock\":\t{\n\t\t\t\"state\":\t\"free\",\n\t\t\t\"recorded\":\tfalse,\n\t\t\t\"takeovers\":\t0,\n\t\t\t\"mutexMode\":\t\"0[0-7]+\"\n\t\t}" "^$" cache info --json)
step(0 "^flushed ${P}.clips and ${P}.playlists\n$" "^$" cache flush)
step(0 "^NAME +CLIPS +MODIFIED\nAll Clips +0  -\n$" "^$" playlists)
step(0 "playlist image in ${P}.playlists: invalid" "^$" cache info)
step(0 "^removed 4 of 4 \\(${P}.clips, ${P}.clips.lock, ${P}.playlists, ${P}.playlists.lock\\)\n$" "^$" cache remove)
step(0 "^removed 0 of 4" "^$" cache remove)
file(REMOVE_RECURSE "${WORK_DIR}")

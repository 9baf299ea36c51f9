# SPDX-License-Identifier: MIT
# The tool's face, one test per habit: reads without side effects, exit
# statuses, one JSON vocabulary, scans that say what they did, remove and
# playlist create, ranges, pictures, help and version.
find_program(VORTA_FACE_BASH bash)
if(VORTA_FACE_BASH)
  string(REPLACE "|" ";" _face_emulator "${_emulator}")
  foreach(_face reads exits json scan commands ranges pictures habits medium tables names python)
    add_test(NAME cli.face_${_face}
      COMMAND ${VORTA_FACE_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/face_${_face}.sh $<TARGET_FILE:vorta_cli>
              ${VORTA_TEST_DATA_DIR} ${PROJECT_SOURCE_DIR} ${_face_emulator})
    set_tests_properties(cli.face_${_face} PROPERTIES LABELS cli TIMEOUT 180)
  endforeach()
endif()

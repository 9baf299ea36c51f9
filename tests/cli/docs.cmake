# SPDX-License-Identifier: MIT
# The manual page and the bash completion the build generates from the tool's
# command table: the page renders, every command and option is in both, and
# the completion completes commands, options and their values.
foreach(_mode man completion)
  add_test(NAME cli.docs_${_mode}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/docs_cli.sh ${_mode} ${PROJECT_BINARY_DIR}/tools/vorta
      $<TARGET_FILE:vorta_cli> ${CMAKE_CROSSCOMPILING_EMULATOR})
  set_tests_properties(cli.docs_${_mode} PROPERTIES LABELS cli TIMEOUT 120)
endforeach()

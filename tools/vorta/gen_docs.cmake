# SPDX-License-Identifier: MIT
# Writes vorta.1 (and vorta.1.gz, compressed as Debian installs manual pages)
# and vorta.bash-completion into OUT_DIR by running COMMAND (the tool, after
# the emulator on a cross build) with --man and --bash-completion.
function(run_to option file)
  execute_process(COMMAND ${COMMAND} ${option} OUTPUT_FILE ${file} RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    file(REMOVE ${file})
    message(FATAL_ERROR "'${COMMAND} ${option}' failed (${rc}): ${err}")
  endif()
endfunction()

run_to(--man ${OUT_DIR}/vorta.1)
run_to(--bash-completion ${OUT_DIR}/vorta.bash-completion)
# -n: no name or time stamp in the header, so the file is reproducible.
execute_process(COMMAND gzip -9nc ${OUT_DIR}/vorta.1 OUTPUT_FILE ${OUT_DIR}/vorta.1.gz RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip of vorta.1 failed")
endif()

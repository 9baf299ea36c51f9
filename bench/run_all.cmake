# SPDX-License-Identifier: MIT
# Runs every benchmark binary in turn.
string(REPLACE "," ";" _benches "${BENCHES}")
foreach(_b IN LISTS _benches)
  message(STATUS "== ${_b}")
  execute_process(COMMAND ${DIR}/${_b} --benchmark_min_time=0.2 RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${_b} failed")
  endif()
endforeach()

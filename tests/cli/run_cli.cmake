# SPDX-License-Identifier: MIT
# Runs the vorta tool once and checks its exit status and output.
# -DVORTA=path -DEMULATOR=a|b -DARGS=w1|w2 -DRC=n -DSTDOUT=regex -DSTDERR=regex
string(REPLACE "|" ";" _args "${ARGS}")
# Tables are fitted to 80 columns, as where standard output is no terminal.
set(ENV{COLUMNS} 80)
string(REPLACE "|" ";" _emulator "${EMULATOR}")
execute_process(
  COMMAND ${_emulator} ${VORTA} ${_args}
  RESULT_VARIABLE _rc
  OUTPUT_VARIABLE _out
  ERROR_VARIABLE _err)
set(_shown "vorta ${ARGS}\n--- exit status: ${_rc}\n--- stdout:\n${_out}--- stderr:\n${_err}")
if(NOT "${_rc}" STREQUAL "${RC}")
  message(FATAL_ERROR "expected exit status ${RC}\n${_shown}")
endif()
# A usage error is one line that points to the help.
if("${RC}" STREQUAL "2" AND NOT "${_err}" MATCHES "^[^\n]*--help'\n$")
  message(FATAL_ERROR "a usage error is not one line with a pointer to --help\n${_shown}")
endif()
if(DEFINED STDOUT AND NOT "${STDOUT}" STREQUAL "")
  if(NOT "${_out}" MATCHES "${STDOUT}")
    message(FATAL_ERROR "stdout does not match '${STDOUT}'\n${_shown}")
  endif()
endif()
if(DEFINED STDERR AND NOT "${STDERR}" STREQUAL "")
  if(NOT "${_err}" MATCHES "${STDERR}")
    message(FATAL_ERROR "stderr does not match '${STDERR}'\n${_shown}")
  endif()
elseif("${RC}" STREQUAL "0" AND NOT "${_err}" STREQUAL "")
  message(FATAL_ERROR "unexpected output on stderr\n${_shown}")
endif()

# SPDX-License-Identifier: MIT
set(_params ${CMAKE_CURRENT_BINARY_DIR}/param_cases.json)
file(REMOVE ${_params})
vorta_cli_test(param_default RC 0 ARGS param --params ${CMAKE_CURRENT_BINARY_DIR}/never_written.json get take STDOUT "^1\n$")
vorta_cli_test(param_list RC 0 ARGS param --params ${CMAKE_CURRENT_BINARY_DIR}/never_written.json list --wide
  STDOUT "NAME +ID +VALUE +MEANING\n.*take +0x1108000A +1 +take of the standard name\n.*red-clip-name +0x7D04040A +\"InvalidRED\"")
vorta_cli_test(param_unknown RC 2 ARGS param --params ${_params} get colour
  STDERR "^vorta param: unknown parameter 'colour' \\('vorta param list' lists them\\); see 'vorta param --help'\n$")
vorta_cli_test(param_bad_value RC 2 ARGS param --params ${_params} set take -3
  STDERR "^vorta param: take must be between 0 and 4294967295; see 'vorta param --help'\n$")
vorta_cli_test(param_bad_action RC 2 ARGS param --params ${_params} frob STDERR "^vorta param: unknown action 'frob'")

# SPDX-License-Identifier: MIT
# vorta shm and vorta daemon-demo.
vorta_cli_test(shm_help RC 0 ARGS shm --help STDOUT "^usage: vorta shm \\[options\\] create NAME CAPACITY")
vorta_cli_test(shm_get_missing RC 1 ARGS shm get /vorta-cli-never-created
  STDERR "^vorta shm: no shared string /vorta-cli-never-created \\(is 'vorta shm create' running\\?\\)\n$")
vorta_cli_test(shm_set_missing RC 1 ARGS shm set /vorta-cli-never-created text
  STDERR "^vorta shm: no shared string /vorta-cli-never-created")
vorta_cli_test(shm_create_zero RC 2 ARGS shm create /vorta-cli-never-created 0
  STDERR "^vorta shm: CAPACITY must be between 1 and 16777216; see 'vorta shm --help'\n$")
vorta_cli_test(shm_create_not_a_number RC 2 ARGS shm create /vorta-cli-never-created lots
  STDERR "^vorta shm: CAPACITY must be a whole number, not 'lots'; see 'vorta shm --help'\n$")
vorta_cli_test(shm_create_bad_name RC 1 ARGS shm create /no/such/dir 8
  STDERR "^vorta shm: cannot create the shared string /no/such/dir\n$")
vorta_cli_test(shm_bad_action RC 2 ARGS shm frob x STDERR "^vorta shm: unknown action 'frob' \\(create, set or get\\); see 'vorta shm --help'\n$")
vorta_cli_test(shm_get_extra RC 2 ARGS shm get a b STDERR "^vorta shm: 'get' takes a name; see 'vorta shm --help'\n$")
vorta_cli_test(daemon_demo_help RC 0 ARGS daemon-demo --help STDOUT "^usage: vorta daemon-demo \\[options\\]\n.*kill -TERM")
vorta_cli_test(daemon_demo_bad_name RC 2 ARGS daemon-demo --name a/b
  STDERR "^vorta daemon-demo: --name must be 1 to 100 printable characters, without '/' or a backslash; see 'vorta daemon-demo --help'\n$")

# The long-running commands, driven from a script that runs them in the background.
find_program(VORTA_BASH bash)
if(VORTA_BASH)
  string(REPLACE "|" ";" _process_emulator "${_emulator}")
  foreach(_mode shm daemon)
    add_test(NAME cli.process_${_mode}
      COMMAND ${VORTA_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/process_cli.sh ${_mode} $<TARGET_FILE:vorta_cli>
              ${_process_emulator})
    set_tests_properties(cli.process_${_mode} PROPERTIES LABELS cli TIMEOUT 120 SKIP_RETURN_CODE 77)
  endforeach()
endif()

# A cache lock held, killed and taken over, through the tool.
if(VORTA_BASH)
  add_test(NAME cli.cache_lock
    COMMAND ${VORTA_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/lock_cli.sh $<TARGET_FILE:vorta_cli> ${_process_emulator})
  set_tests_properties(cli.cache_lock PROPERTIES LABELS cli TIMEOUT 120)
endif()

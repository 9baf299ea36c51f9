# SPDX-License-Identifier: MIT
# The LUT tests also drive the generated lexer and craft runtime exceptions
# for the error hooks, so they see the generated headers and the runtime.
set(VORTA_FAMILY_LIBS vorta_lut_internal)

# The whole family once more under valgrind: no read outside memory the
# parse owns, no leak. Native, unsanitized builds with valgrind installed.
find_program(VORTA_VALGRIND valgrind)
if(VORTA_VALGRIND AND NOT CMAKE_CROSSCOMPILING AND NOT VORTA_SANITIZE)
  add_test(NAME lut.valgrind
    COMMAND ${VORTA_VALGRIND} -q --error-exitcode=99 --leak-check=full
            --errors-for-leak-kinds=definite,indirect $<TARGET_FILE:test_lut>
            # Address-space limits mean nothing under valgrind's own memory,
            # and tables of a million tokens would take minutes there.
            --gtest_filter=-LutHostile.*AddressSpace*:LutHostile.TokensAtTheLimitAreRead:LutHostile.LargestSixteenBitTableIsRead)
  set_tests_properties(lut.valgrind PROPERTIES LABELS lut TIMEOUT 300)
endif()

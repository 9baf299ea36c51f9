# SPDX-License-Identifier: MIT
# Checks that the ANTLR 3 C runtime's headers suit the target's pointer size.
# The runtime keeps pointers in its marker and key types, sized by
# ANTLR3_USE_64BIT in antlr3config.h; a header configured for another
# machine (the host's 64-bit one seen by a 32-bit cross build) compiles
# cleanly and corrupts memory at run time.
include(CheckCSourceCompiles)
include(CMakePushCheckState)

find_path(VORTA_ANTLR3C_INCLUDE_DIR antlr3.h)
if(VORTA_ANTLR3C_INCLUDE_DIR)
  cmake_push_check_state(RESET)
  set(CMAKE_REQUIRED_INCLUDES ${VORTA_ANTLR3C_INCLUDE_DIR})
  set(CMAKE_REQUIRED_QUIET ON)
  check_c_source_compiles([=[
#include <antlr3.h>
typedef char marker_holds_a_pointer[sizeof(ANTLR3_MARKER) == sizeof(void*) ? 1 : -1];
typedef char intkey_holds_a_pointer[sizeof(ANTLR3_INTKEY) == sizeof(void*) ? 1 : -1];
#if defined(ANTLR3_USE_64BIT)
typedef char pointers_are_64_bit[sizeof(void*) == 8 ? 1 : -1];
#else
typedef char pointers_are_32_bit[sizeof(void*) == 4 ? 1 : -1];
#endif
int main(void) { return 0; }
]=] VORTA_ANTLR3C_WORD_SIZE_OK)
  cmake_pop_check_state()
  if(NOT VORTA_ANTLR3C_WORD_SIZE_OK)
    unset(VORTA_ANTLR3C_WORD_SIZE_OK CACHE)
    math(EXPR _bits "${CMAKE_SIZEOF_VOID_P} * 8")
    message(FATAL_ERROR
      "${VORTA_ANTLR3C_INCLUDE_DIR}/antlr3config.h does not match this target's ${_bits}-bit pointers "
      "(ANTLR3_USE_64BIT). For the PowerPC build, build the target's runtime with scripts/ppc-deps.sh.")
  endif()
  message(STATUS "ANTLR 3 C runtime headers: ${VORTA_ANTLR3C_INCLUDE_DIR} (match ${CMAKE_SIZEOF_VOID_P}-byte pointers)")
endif()

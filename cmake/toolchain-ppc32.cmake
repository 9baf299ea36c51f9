# SPDX-License-Identifier: MIT
# Cross build for the recorder's processor: 32-bit big-endian PowerPC
# (Debian's powerpc-linux-gnu toolchain), run under qemu-user.
#
# The target's own copies of cJSON, the ANTLR 3 C runtime and GoogleTest, and
# a link to the host's Boost headers, live in a staging prefix made by
# scripts/ppc-deps.sh. Its path comes from the cache variable
# VORTA_PPC_STAGING, else the environment variable of that name, else
# build/ppc-staging in this source tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

if(NOT VORTA_PPC_STAGING)
  if(DEFINED ENV{VORTA_PPC_STAGING} AND NOT "$ENV{VORTA_PPC_STAGING}" STREQUAL "")
    set(VORTA_PPC_STAGING "$ENV{VORTA_PPC_STAGING}")
  else()
    get_filename_component(VORTA_PPC_STAGING "${CMAKE_CURRENT_LIST_DIR}/../build/ppc-staging" ABSOLUTE)
  endif()
endif()
# try_compile projects read this file again: hand them the same prefix.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORTA_PPC_STAGING)

# The staging prefix comes first so that its headers win over anything the
# cross compiler would otherwise find in the host's /usr/include (which it
# searches last: the host's antlr3config.h there is configured for 64 bits).
set(CMAKE_FIND_ROOT_PATH "${VORTA_PPC_STAGING}" /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_PREFIX_PATH "${VORTA_PPC_STAGING}")
# Every compile searches the staging headers before the system's, even one
# whose target forgot to add them.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${VORTA_PPC_STAGING}/include")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${VORTA_PPC_STAGING}/include")

# Target binaries (tests, test discovery, the tool in tests/cli) run through
# user-mode emulation; -L points the emulator at the target's C library.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-ppc-static -L /usr/powerpc-linux-gnu)

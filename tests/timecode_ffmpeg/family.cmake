# SPDX-License-Identifier: MIT
# Differential tests against FFmpeg's libavutil timecode functions: a
# test-only host dependency, so the family is left out of cross builds and
# when libavutil's development files are missing.
if(CMAKE_CROSSCOMPILING)
  set(VORTA_FAMILY_SKIP "cross build (libavutil is a host-only test dependency)")
else()
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(VORTA_TEST_LIBAVUTIL QUIET IMPORTED_TARGET libavutil)
  endif()
  if(TARGET PkgConfig::VORTA_TEST_LIBAVUTIL)
    set(VORTA_FAMILY_LIBS PkgConfig::VORTA_TEST_LIBAVUTIL)
  else()
    set(VORTA_FAMILY_SKIP "libavutil not found (Debian package libavutil-dev)")
  endif()
endif()

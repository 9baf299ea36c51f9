# SPDX-License-Identifier: MIT
# Installation: the library, its headers, a CMake package (find_package(vorta))
# and a pkg-config file (pkg-config vorta); and the Debian packages made of
# them (make package): libvorta0 (the runtime libraries), libvorta-dev
# (headers, .so links, CMake and pkg-config files) and vorta (the tool, its
# manual page and completion), one install component each.
include(CMakePackageConfigHelpers)

set(VORTA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorta)

get_property(_vorta_platform_libs GLOBAL PROPERTY VORTA_PLATFORM_LIBRARIES)

# Installed programs and libraries find the project's libraries relative to
# their own place ($ORIGIN), so an installation works from any prefix and
# after being moved, with no LD_LIBRARY_PATH. The libraries all live in one
# directory; the tool looks there from its bin directory. The Debian
# packages install into /usr, where the dynamic loader looks anyway, and are
# built without it (VORTA_INSTALL_RPATH=OFF), as Debian's policy asks.
option(VORTA_INSTALL_RPATH "Give installed programs and libraries an \$ORIGIN-relative run path" ON)
if(VORTA_INSTALL_RPATH)
  file(RELATIVE_PATH _vorta_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  # The build tree lays them out as an installation does (the tool in bin/
  # beside the library directory) and, built for this machine, they carry
  # the installed run paths from the start. A run path that installation
  # rewrites would otherwise end, in the build tree, with an empty entry
  # CMake leaves as room for the installed one: the dynamic loader takes an
  # empty entry for the current directory, and looks for every library
  # there and in each build directory, hundreds of failed opens, before it
  # finds it. A cross build keeps the build tree's run paths, which name the
  # target's libraries in the staging prefix for the emulator.
  set_target_properties(vorta ${_vorta_platform_libs} PROPERTIES INSTALL_RPATH "$ORIGIN")
  if(TARGET vorta_cli)
    set_target_properties(vorta_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_vorta_bin_to_lib}"
                                               RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_BINDIR})
  endif()
  if(NOT CMAKE_CROSSCOMPILING)
    set_target_properties(vorta ${_vorta_platform_libs} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
    if(TARGET vorta_cli)
      set_target_properties(vorta_cli PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
    endif()
  endif()
endif()

# Consumers name the platform libraries vorta::params, vorta::qt and
# vorta::productid.
foreach(_lib IN LISTS _vorta_platform_libs)
  string(REGEX REPLACE "^vorta_" "" _name ${_lib})
  set_target_properties(${_lib} PROPERTIES EXPORT_NAME ${_name})
endforeach()

install(TARGETS vorta
  EXPORT vortaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libs NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT libs
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorta COMPONENT dev)

if(_vorta_platform_libs)
  install(TARGETS ${_vorta_platform_libs}
    EXPORT vortaTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libs NAMELINK_COMPONENT dev
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorta COMPONENT dev)
endif()

install(EXPORT vortaTargets NAMESPACE vorta:: DESTINATION ${VORTA_CMAKE_DIR} COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vortaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfig.cmake
  INSTALL_DESTINATION ${VORTA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vortaConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfigVersion.cmake
  DESTINATION ${VORTA_CMAKE_DIR} COMPONENT dev)

# The pkg-config file finds its prefix from its own place, so an install to
# another prefix (cmake --install --prefix) stays usable. The packages' file
# names /usr itself, which pkg-config then leaves out of the flags.
if(VORTA_INSTALL_RPATH)
  file(RELATIVE_PATH VORTA_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" VORTA_PC_PREFIX "${VORTA_PC_PREFIX}")
  set(VORTA_PC_PREFIX "\${pcfiledir}/${VORTA_PC_PREFIX}")
else()
  set(VORTA_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/vorta.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vorta.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)


# ---- Debian packages (CPack's DEB generator) --------------------------------
set(VORTA_DEB_LIBS_PACKAGE libvorta${VORTA_SOVERSION})
set(VORTA_DEB_DEV_PACKAGE libvorta-dev)
set(VORTA_DEB_TOOL_PACKAGE vorta)

# Each package's licence, as Debian keeps it: /usr/share/doc/PACKAGE/copyright
# in the machine-readable format, its licence text made of LICENSE.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE _vorta_licence)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" _ ${_vorta_licence})
set(_vorta_holder ${CMAKE_MATCH_1})
string(REGEX REPLACE "^MIT License\n\nCopyright [^\n]*\n\n" "" _vorta_terms "${_vorta_licence}")
string(REGEX REPLACE "\n+$" "" _vorta_terms "${_vorta_terms}")
string(REPLACE "\n\n" "\n.\n" _vorta_terms "${_vorta_terms}")
string(REPLACE "\n" "\n " _vorta_terms "${_vorta_terms}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian-copyright
  "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
  "Upstream-Name: ${PROJECT_NAME}\n\n"
  "Files: *\nCopyright: ${_vorta_holder}\nLicense: MIT\n ${_vorta_terms}\n")

# The packages' maintainer, in the changelog and the Maintainer field. By
# default the person Debian's own tools would name (DEBFULLNAME and DEBEMAIL,
# as dch takes them), else a placeholder; whoever publishes the packages sets
# it: cmake -DVORTA_DEB_MAINTAINER="Name <address>".
if(NOT "$ENV{DEBFULLNAME}" STREQUAL "" AND NOT "$ENV{DEBEMAIL}" STREQUAL "")
  set(_vorta_maintainer "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
else()
  set(_vorta_maintainer "The vorta authors <vorta@example.org>")
endif()
set(VORTA_DEB_MAINTAINER "${_vorta_maintainer}" CACHE STRING "Maintainer of the Debian packages (\"Name <address>\")")
set(VORTA_DEB_REVISION 1)

# Each package's changelogs, as Debian keeps them: the project's own
# (CHANGELOG.md) as changelog.gz, and changelog.Debian.gz, one entry for the
# packaging of this version. The entry's date is SOURCE_DATE_EPOCH when set,
# else the time of the checkout's last commit, else now, so that packages
# built from one commit are alike.
set(_vorta_epoch "$ENV{SOURCE_DATE_EPOCH}")
if(_vorta_epoch STREQUAL "")
  find_package(Git QUIET)
  if(GIT_FOUND)
    execute_process(COMMAND ${GIT_EXECUTABLE} log -1 --format=%ct
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      OUTPUT_VARIABLE _vorta_epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
endif()
# string(TIMESTAMP) takes its time from SOURCE_DATE_EPOCH when that is set.
if("$ENV{SOURCE_DATE_EPOCH}" STREQUAL "" AND _vorta_epoch MATCHES "^[0-9]+$")
  set(ENV{SOURCE_DATE_EPOCH} ${_vorta_epoch})
  string(TIMESTAMP _vorta_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  unset(ENV{SOURCE_DATE_EPOCH})
else()
  string(TIMESTAMP _vorta_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian-changelog
  "${PROJECT_NAME} (${PROJECT_VERSION}-${VORTA_DEB_REVISION}) unstable; urgency=medium\n\n"
  "  * Packages of ${PROJECT_NAME} ${PROJECT_VERSION}, made by CPack from the project's\n"
  "    own install rules; the changes of the release are in changelog.gz.\n\n"
  " -- ${VORTA_DEB_MAINTAINER}  ${_vorta_deb_date}\n")
# gzip -n: no name or time in the header, as Debian asks.
set(_vorta_changelogs ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
add_custom_command(
  OUTPUT ${_vorta_changelogs}
  COMMAND gzip -9 -n -c ${PROJECT_SOURCE_DIR}/CHANGELOG.md > ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
  COMMAND gzip -9 -n -c ${CMAKE_CURRENT_BINARY_DIR}/debian-changelog > ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${CMAKE_CURRENT_BINARY_DIR}/debian-changelog
  COMMENT "Compressing the changelogs for the Debian packages"
  VERBATIM)
add_custom_target(vorta_changelogs ALL DEPENDS ${_vorta_changelogs})

# The packaging's only changelog entry is a first one that closes no bug:
# lintian asks that of an initial upload to Debian's archive, which closes
# the package's ITP bug. These packages are not uploaded there, so there is
# no such bug; each package says so to lintian.
foreach(_component libs dev tool)
  string(TOUPPER ${_component} _upper)
  set(_package ${VORTA_DEB_${_upper}_PACKAGE})
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/lintian-overrides/${_package}
    "# Not uploaded to Debian's archive: there is no ITP bug to close.\n"
    "${_package}: initial-upload-closes-no-bugs\n")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian-copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${_package}
    RENAME copyright COMPONENT ${_component})
  # Only in the packages: a plain installation (cmake --install) leaves out
  # what is Debian's own.
  install(FILES ${_vorta_changelogs}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${_package} COMPONENT ${_component} EXCLUDE_FROM_ALL)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lintian-overrides/${_package}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${_component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VENDOR "The vorta authors")
set(CPACK_PACKAGE_CONTACT "${VORTA_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SOURCE ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libs dev)
if(TARGET vorta_cli)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VORTA_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The target's architecture (powerpc for the cross build), not the host's.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "powerpc")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE powerpc)
endif()

# Dependencies on other packages come from dpkg-shlibdeps, from the
# libraries each binary really needs. For a cross build the target's
# libraries belong to no installed package of the target architecture, so
# there they are named by hand (the device image's Debian packages).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_LIBS_PACKAGE_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1 (>= 3.0), libcjson1 (>= 1.7.15), libantlr3c-3.4-0 (>= 3.4), liburing2 (>= 2.1)")
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1 (>= 3.0), libcjson1 (>= 1.7.15)")
  get_property(_vorta_cli_png GLOBAL PROPERTY VORTA_CLI_HAS_PNG)
  if(_vorta_cli_png)
    string(APPEND CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ", libpng16-16 (>= 1.6)")
  endif()
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The tool's own libraries come from libvorta0, staged beside it (the
  # dependency on that package is the component dependency below).
  set(CPACK_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/_CPack_Packages/${CMAKE_SYSTEM_NAME}/DEB/${CPACK_PACKAGE_FILE_NAME}/libs${CMAKE_INSTALL_FULL_LIBDIR})
endif()
# A shlibs file in libvorta0, so that other packages' dpkg-shlibdeps find
# their dependency on it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The dynamic loader's cache is refreshed by dpkg's ldconfig trigger, which
# libvorta0 activates, rather than by maintainer scripts calling ldconfig.
# CPack still writes such scripts for any package with libraries in /usr/lib;
# VortaDebLdconfig.cmake takes them out again once the packages are built.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian-control/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBS_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/debian-control/triggers)
set(CPACK_DEBIAN_LIBS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/VortaDebLdconfig.cmake)
# libvorta-dev and vorta depend on exactly this libvorta0.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS libs)
set(CPACK_COMPONENT_TOOL_DEPENDS libs)

set(CPACK_DEBIAN_LIBS_PACKAGE_NAME ${VORTA_DEB_LIBS_PACKAGE})
set(CPACK_DEBIAN_LIBS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBS_DESCRIPTION "clip catalogue, timecode and process support for a video recorder
libvorta gives the resident processes of a file-based video recorder one
view of its medium through records in POSIX shared memory: the clip
catalogue, the playlist cache, clip names and takes; with SMPTE RP188
timecode, look-up-table files, daemon support and code page 437 text.
This package holds the shared libraries libvorta, libvorta-params,
libvorta-qt and libvorta-productid.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${VORTA_DEB_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers include Boost.Interprocess, and the LUT recognisers'
# headers the ANTLR 3 C runtime's.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-dev (>= 1.74), libantlr3c-dev (>= 3.4)")
set(CPACK_DEBIAN_DEV_DESCRIPTION "clip catalogue and timecode library for a video recorder (development files)
The headers of libvorta and its platform libraries, the .so links, the CMake
package (find_package(vorta)) and the pkg-config file (pkg-config vorta).")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${VORTA_DEB_TOOL_PACKAGE})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "console tool of a file-based video recorder
vorta reads and changes the recorder's shared clip catalogue and playlist
cache, scans media, names clips, converts timecode and reads LUT files.
With its manual page and bash completion.")

# Each package's description below is its own, first line the summary. A
# summary CPack does not take for its default would be put above each.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
include(CPack)

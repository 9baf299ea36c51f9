# Installation: the library, its headers, a CMake package (find_package(vorta))
# and a pkg-config file (pkg-config vorta).
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
  set_target_properties(vorta ${_vorta_platform_libs} PROPERTIES INSTALL_RPATH "$ORIGIN")
  if(TARGET vorta_cli)
    set_target_properties(vorta_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_vorta_bin_to_lib}")
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
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorta)

if(_vorta_platform_libs)
  install(TARGETS ${_vorta_platform_libs}
    EXPORT vortaTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorta)
endif()

install(EXPORT vortaTargets NAMESPACE vorta:: DESTINATION ${VORTA_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vortaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfig.cmake
  INSTALL_DESTINATION ${VORTA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vortaConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/vortaConfigVersion.cmake
  DESTINATION ${VORTA_CMAKE_DIR})

# The pkg-config file finds its prefix from its own place, so an install to
# another prefix (cmake --install --prefix) stays usable.
file(RELATIVE_PATH VORTA_PC_PREFIX_REL "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" VORTA_PC_PREFIX_REL "${VORTA_PC_PREFIX_REL}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vorta.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vorta.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Installation: the library, its headers, a CMake package (find_package(vorta))
# and a pkg-config file (pkg-config vorta).
include(CMakePackageConfigHelpers)

set(VORTA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorta)

install(TARGETS vorta
  EXPORT vortaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorta)

get_property(_vorta_platform_libs GLOBAL PROPERTY VORTA_PLATFORM_LIBRARIES)
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

# SPDX-License-Identifier: MIT
# Run by cpack once the Debian packages are built (CPACK_POST_BUILD_SCRIPTS):
# takes out of a package that activates dpkg's ldconfig trigger the postinst
# and postrm that CPack writes to call ldconfig, since the trigger does that
# job. Each such package is unpacked and packed again with dpkg-deb; a script
# that is not CPack's plain ldconfig call stops the packaging instead.
find_program(VORTA_DPKG_DEB dpkg-deb REQUIRED)

foreach(_deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT _deb MATCHES "\\.deb$")
    continue()
  endif()
  get_filename_component(_name ${_deb} NAME)
  set(_tree ${_deb}.tree)
  file(REMOVE_RECURSE ${_tree})
  execute_process(COMMAND ${VORTA_DPKG_DEB} --raw-extract ${_deb} ${_tree} RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "${_name}: dpkg-deb --raw-extract failed")
  endif()
  set(_triggers "")
  if(EXISTS ${_tree}/DEBIAN/triggers)
    file(READ ${_tree}/DEBIAN/triggers _triggers)
  endif()
  if(NOT _triggers MATCHES "(^|\n)activate-noawait ldconfig\n")
    file(REMOVE_RECURSE ${_tree})
    continue()
  endif()
  foreach(_script postinst postrm)
    if(EXISTS ${_tree}/DEBIAN/${_script})
      file(READ ${_tree}/DEBIAN/${_script} _text)
      if(NOT _text MATCHES "^#!/bin/sh\n+set -e\n+if \\[ \"\\$1\" = \"[a-z]+\" \\]; then\n\tldconfig\nfi\n*$")
        message(FATAL_ERROR "${_name}: its ${_script} is not CPack's ldconfig call, which this script expects:\n${_text}")
      endif()
      file(REMOVE ${_tree}/DEBIAN/${_script})
    endif()
  endforeach()
  execute_process(COMMAND ${VORTA_DPKG_DEB} --root-owner-group --build ${_tree} ${_deb}
    OUTPUT_QUIET RESULT_VARIABLE _rc)
  file(REMOVE_RECURSE ${_tree})
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "${_name}: dpkg-deb --build failed")
  endif()
  message(STATUS "${_name}: the ldconfig trigger in place of CPack's ldconfig scripts")
endforeach()

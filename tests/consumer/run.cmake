# Installs the build into a scratch prefix, builds the consumer project
# against it and runs both of its programs.
file(REMOVE_RECURSE ${WORK_DIR})
set(_prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${VORTA_BINARY_DIR} --prefix ${_prefix})
file(GLOB_RECURSE _pc ${_prefix}/*/vorta.pc)
get_filename_component(_pcdir "${_pc}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${_pcdir})
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${WORK_DIR}/build -G ${CMAKE_GENERATOR}
    -DCMAKE_PREFIX_PATH=${_prefix} -DCMAKE_BUILD_RPATH=${_prefix}/lib)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(GLOB_RECURSE _libdirs LIST_DIRECTORIES false ${_prefix}/libvorta.so)
get_filename_component(_libdir "${_libdirs}" DIRECTORY)
set(ENV{LD_LIBRARY_PATH} ${_libdir})
run(${WORK_DIR}/build/consumer_cmake)
run(${WORK_DIR}/build/consumer_pkgconfig)

# Installs the built library into a scratch prefix, then configures, builds and
# runs two outside consumers against it: one through find_package, one through
# pkg-config.
foreach(var SOURCE_DIR BINARY_DIR WORK_DIR GENERATOR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} not set")
  endif()
endforeach()
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
if(NOT EXISTS ${prefix}/include/ZMXUTI_CoreUtils/ZMXUTI_CoreUtils.h)
  message(FATAL_ERROR "umbrella header not installed")
endif()
file(GLOB_RECURSE internal_headers ${prefix}/include/ZMXUTI_CoreUtils/*/internal/*)
if(internal_headers)
  message(FATAL_ERROR "internal headers installed: ${internal_headers}")
endif()

# find_package consumer
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/packaging/consumer -B ${WORK_DIR}/cmake-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
if(NOT LAST_OUTPUT STREQUAL "consumer: depth 6, block ok, depth 0\n")
  message(FATAL_ERROR "unexpected consumer output: ${LAST_OUTPUT}")
endif()

# pkg-config consumer
find_program(PKG_CONFIG pkg-config)
find_program(CXX_COMPILER NAMES c++ g++ clang++)
if(PKG_CONFIG AND CXX_COMPILER)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig:${prefix}/lib64/pkgconfig)
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs ZMXUTI_CoreUtils
                  OUTPUT_VARIABLE flags RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know ZMXUTI_CoreUtils")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  execute_process(COMMAND ${PKG_CONFIG} --variable=libdir ZMXUTI_CoreUtils OUTPUT_VARIABLE libdir
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  run(${CXX_COMPILER} ${SOURCE_DIR}/tests/packaging/consumer/consumer.cpp ${flags} -Wl,-rpath,${libdir}
      -o ${WORK_DIR}/pkgconfig-consumer)
  run(${WORK_DIR}/pkgconfig-consumer)
  if(NOT LAST_OUTPUT STREQUAL "consumer: depth 6, block ok, depth 0\n")
    message(FATAL_ERROR "unexpected pkg-config consumer output: ${LAST_OUTPUT}")
  endif()
else()
  message(FATAL_ERROR "pkg-config or a C++ compiler is missing")
endif()

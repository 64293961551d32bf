# Installs the build into a fresh prefix, builds examples/stream against the
# installed package with find_package, runs it on a model, and checks that
# the pkg-config file names the same header and library.
#   cmake -DBUILD=... -DSOURCE=... -DWORK=... -DMODEL=... -DGENERATOR=... -P install_example.cmake
foreach(var BUILD SOURCE WORK MODEL GENERATOR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${ARGN}\nexited with ${rc}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE}/examples/stream -B ${WORK}/example -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK}/example)

run(${WORK}/example/velmora-stream ${MODEL} "Once upon a time")
string(STRIP "${out}" text)
string(LENGTH "${text}" length)
if(length LESS 10)
  message(FATAL_ERROR "the example streamed too little: '${out}'")
endif()
message(STATUS "streamed: ${text}")

find_program(PKG_CONFIG NAMES pkgconf pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(${PKG_CONFIG} --cflags TarvikVelmoraOpenVINOBindings)
string(STRIP "${out}" cflags)
run(${PKG_CONFIG} --variable=library TarvikVelmoraOpenVINOBindings)
string(STRIP "${out}" library)
file(REAL_PATH "${library}" library)
string(REGEX REPLACE "^-I" "" include "${cflags}")
file(REAL_PATH "${include}" include)
if(NOT EXISTS ${include}/openvino_bindings.h OR NOT library STREQUAL "${prefix}/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so")
  message(FATAL_ERROR "pkg-config gives include '${include}' and library '${library}'")
endif()

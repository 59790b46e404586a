# Driven by the install_consumer test: install, then build and run the
# consumer through find_package and through pkg-config.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(required include/foundation/foundation.h lib/cmake/ZorvFoundation/ZorvFoundationConfig.cmake)
  if(NOT EXISTS ${prefix}/${required})
    message(FATAL_ERROR "not installed: ${required}")
  endif()
endforeach()
file(GLOB pcfiles ${prefix}/lib*/pkgconfig/zorv-foundation.pc)
if(NOT pcfiles)
  message(FATAL_ERROR "zorv-foundation.pc not installed")
endif()
list(GET pcfiles 0 pcfile)
get_filename_component(pcdir ${pcfile} DIRECTORY)
get_filename_component(libdir ${pcdir} DIRECTORY)

# Through find_package.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" ${CONSUMER_ARGS})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${EMULATOR} ${WORK_DIR}/cmake-build/consumer)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "find_package consumer printed: ${last_output}")
endif()

# Through pkg-config.
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs zorv-foundation
  OUTPUT_VARIABLE flags RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know zorv-foundation")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(cxxflags UNIX_COMMAND "${CXX_FLAGS}")
run(${CXX_COMPILER} -std=c++17 ${cxxflags} ${CONSUMER_DIR}/main.cpp -o ${WORK_DIR}/pc-consumer
    ${flags} -Wl,-rpath,${libdir})
run(${EMULATOR} ${WORK_DIR}/pc-consumer)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed: ${last_output}")
endif()
message(STATUS "installed package works through find_package and pkg-config")

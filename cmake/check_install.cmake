# Installs the built tree into a scratch prefix, then builds and runs a small
# C host against it twice: once through find_package and once through
# pkg-config.
foreach(var BUILD_DIR SOURCE_DIR C_COMPILER)
  if(NOT ${var})
    message(FATAL_ERROR "check_install.cmake needs -D${var}=...")
  endif()
endforeach()

set(prefix ${BUILD_DIR}/install-check/prefix)
set(work ${BUILD_DIR}/install-check)
file(REMOVE_RECURSE ${work})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

# find_package
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install -B ${work}/cmake -G Ninja
    -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_C_FLAGS=${flags}"
    "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${work}/cmake)
run(${work}/cmake/tn_install_consumer)
if(NOT last_output MATCHES "tarnel_util works")
  message(FATAL_ERROR "the find_package consumer printed: ${last_output}")
endif()

# pkg-config
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB pcdirs ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
list(JOIN pcdirs ":" pcpath)
set(ENV{PKG_CONFIG_PATH} ${pcpath})
run(${PKG_CONFIG} --cflags --libs tarnel_util)
string(STRIP "${last_output}" pcflags)
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
set(libdirs ${pcflags})
list(FILTER libdirs INCLUDE REGEX "^-L")
list(TRANSFORM libdirs REPLACE "^-L" "-Wl,-rpath,")
separate_arguments(flaglist UNIX_COMMAND "${flags}")
run(${C_COMPILER} -std=c99 -pedantic-errors -Wall -Werror ${flaglist}
    ${SOURCE_DIR}/tests/install/consumer.c ${pcflags} ${libdirs} -o ${work}/pc_consumer)
run(${work}/pc_consumer)
if(NOT last_output MATCHES "tarnel_util works")
  message(FATAL_ERROR "the pkg-config consumer printed: ${last_output}")
endif()
message(STATUS "installed tree works through find_package and pkg-config")

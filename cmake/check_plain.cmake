# The suite runs on sanitized builds, whose runtimes add load-time code of
# their own. This builds the library once more without them, as hosts get it,
# and checks that one for exports, C++ runtime references and load-time code.
foreach(var BUILD_DIR SOURCE_DIR C_COMPILER CXX_COMPILER)
  if(NOT ${var})
    message(FATAL_ERROR "check_plain.cmake needs -D${var}=...")
  endif()
endforeach()
set(work ${BUILD_DIR}/plain-check)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${work} -G Ninja
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DTN_SANITIZE= -DTN_BUILD_TESTS=OFF -DTN_BUILD_EXAMPLES=OFF -DTN_BUILD_BENCH=OFF -DTN_WERROR=ON
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc)
  message(FATAL_ERROR "configuring the plain build failed\n${out}\n${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${work} --target tarnel_util
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc)
  message(FATAL_ERROR "building the plain library failed\n${out}\n${err}")
endif()
file(GLOB lib ${work}/libtarnel_util.so.*.*.*)
execute_process(COMMAND ${CMAKE_COMMAND} -DLIB=${lib} -DPLAIN=1 -P ${SOURCE_DIR}/cmake/check_exports.cmake
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(rc)
  message(FATAL_ERROR "the plain library fails its checks")
endif()

# Fails unless the shared library exports tn_ names only and refers to
# nothing of the C++ runtime (operator new and delete, the exception and RTTI
# support, the unwinder).
if(NOT LIB)
  message(FATAL_ERROR "usage: cmake -DLIB=path -P check_exports.cmake")
endif()
find_program(NM nm REQUIRED)

execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE defined RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" defined "${defined}")
set(count 0)
foreach(line IN LISTS defined)
  if(line MATCHES "^[0-9a-f]+ ([A-Za-z]) (.+)$")
    set(kind ${CMAKE_MATCH_1})
    set(name ${CMAKE_MATCH_2})
    # Absolute symbols are the version nodes of the linker, not code.
    if(kind STREQUAL "A")
      continue()
    endif()
    if(NOT name MATCHES "^tn_")
      message(SEND_ERROR "exported symbol outside the tn_ namespace: ${name}")
    endif()
    math(EXPR count "${count} + 1")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "no tn_ symbol is exported at all")
endif()

execute_process(COMMAND ${NM} -D --undefined-only ${LIB} OUTPUT_VARIABLE undefined)
string(REPLACE "\n" ";" undefined "${undefined}")
foreach(line IN LISTS undefined)
  string(STRIP "${line}" line)
  # glibc's own __cxa_finalize and __cxa_atexit belong to the C library; a
  # sanitizer runtime supplies them unversioned.
  if(line MATCHES "@GLIBC_" OR line MATCHES "^U __cxa_(atexit|finalize)$")
    continue()
  endif()
  if(line MATCHES "(_Znw|_Zna|_Zdl|_Zda|__cxa_|__gxx_personality|_Unwind_|_ZTI|_ZTV|_ZTS|_ZSt)")
    message(SEND_ERROR "reference to the C++ runtime: ${line}")
  endif()
endforeach()
message(STATUS "${count} tn_ symbols exported, no C++ runtime referenced")

# Loading the library runs no code of ours: the only initialiser is the
# toolchain's own frame_dummy, and nothing but the C library is needed.
# Sanitized builds add their own constructors and runtimes, so only plain
# builds are held to this.
if(PLAIN)
  find_program(READELF readelf REQUIRED)
  execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dynamic)
  if(dynamic MATCHES "INIT_ARRAYSZ\\)[ \t]+([0-9]+)")
    if(CMAKE_MATCH_1 GREATER 8)
      message(SEND_ERROR "the library has load-time initialisers (${CMAKE_MATCH_1} bytes of INIT_ARRAY)")
    endif()
  endif()
  if(dynamic MATCHES "libstdc\\+\\+|libgcc_s")
    message(SEND_ERROR "the library needs the C++ runtime")
  endif()
  message(STATUS "no load-time code, no C++ runtime needed")
endif()

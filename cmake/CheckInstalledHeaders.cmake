# Checks an installed copy of the library's headers, as a client sees them:
#   - nothing from Orvix/internal/ (or any other internal/ folder) is installed;
#   - every installed header compiles on its own, with only the include folders a client gets
#     (<prefix>/include and <prefix>/include/platform, as in orvix.pc and the CMake package);
#   - the umbrella header Orvix/Orvix.hpp includes every other installed Orvix/ header.
#
#   cmake [-DBUILD_DIR=<build tree to install first>] -DPREFIX=<prefix> -DCOMPILER=<c++ compiler>
#         -DFLAGS=<;-separated compiler flags> -P CheckInstalledHeaders.cmake
cmake_minimum_required(VERSION 3.22)

foreach(var PREFIX COMPILER FLAGS)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckInstalledHeaders: ${var} is not set")
  endif()
endforeach()

if(DEFINED BUILD_DIR)
  file(REMOVE_RECURSE ${PREFIX})
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
    OUTPUT_QUIET RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "installing ${BUILD_DIR} into ${PREFIX} failed")
  endif()
endif()

set(include ${PREFIX}/include)
if(NOT EXISTS ${include}/Orvix/Orvix.hpp)
  message(FATAL_ERROR "${include}/Orvix/Orvix.hpp is not installed")
endif()

file(GLOB_RECURSE internal RELATIVE ${include} ${include}/*)
list(FILTER internal INCLUDE REGEX "(^|/)internal/")
if(internal)
  message(FATAL_ERROR "internal headers are installed: ${internal}")
endif()

file(GLOB_RECURSE headers RELATIVE ${include} ${include}/*.hpp ${include}/*.h)
list(SORT headers)
file(READ ${include}/Orvix/Orvix.hpp umbrella)
set(failed "")
foreach(header ${headers})
  if(header MATCHES "^Orvix/" AND NOT header STREQUAL "Orvix/Orvix.hpp")
    string(FIND "${umbrella}" "#include \"${header}\"" at)
    if(at EQUAL -1)
      list(APPEND failed "${header} (not in Orvix/Orvix.hpp)")
    endif()
  endif()
  # An empty translation unit that includes just this header, resolved from the prefix (the
  # compiler looks for -include files in its working folder first).
  execute_process(
    COMMAND ${COMPILER} ${FLAGS} -fsyntax-only -I${include} -I${include}/platform
      -x c++ -include ${header} /dev/null
    WORKING_DIRECTORY ${include}
    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(result EQUAL 0)
    message(STATUS "stands alone: ${header}")
  else()
    message("${out}")
    list(APPEND failed ${header})
  endif()
endforeach()

list(LENGTH headers count)
if(failed)
  message(FATAL_ERROR "headers that fail on their own: ${failed}")
endif()
message(STATUS "all ${count} installed headers compile on their own")

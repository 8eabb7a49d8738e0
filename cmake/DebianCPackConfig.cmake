# Read by cpack before it builds the Debian packages (CPACK_PROJECT_CONFIG_FILE), with the
# CPACK_ORVIX_* settings of cmake/DebianPackages.cmake.

# dpkg-shlibdeps reads the symbols files and uses the binutils of the target architecture.
set(ENV{DEB_HOST_ARCH} "${CPACK_ORVIX_DEB_ARCH}")

# The stand-ins' symbols file is kept by hand, each symbol with the version it first appeared
# in. It has to name every stand-in and exactly the symbols each one exports, or the
# dependencies computed for liborvix1 and for clients come out wrong. Weak symbols are left out:
# they are instances of the C++ runtime's templates, not the stand-ins' interface.
file(STRINGS "${CPACK_ORVIX_STANDINS_SYMBOLS}" orvix_lines)
set(orvix_listed_libs "")
foreach(line IN LISTS orvix_lines)
  if(line MATCHES "^([^ |*#][^ ]*) ")
    set(orvix_lib "${CMAKE_MATCH_1}")
    list(APPEND orvix_listed_libs "${orvix_lib}")
    set(orvix_listed_${orvix_lib} "")
  elseif(line MATCHES "^ ([^@ ]+)@Base ")
    list(APPEND orvix_listed_${orvix_lib} "${CMAKE_MATCH_1}")
  endif()
endforeach()

file(GLOB orvix_built_libs RELATIVE "${CPACK_ORVIX_STANDINS_DIR}" "${CPACK_ORVIX_STANDINS_DIR}/*.so")
list(SORT orvix_built_libs)
list(SORT orvix_listed_libs)
if(NOT orvix_built_libs STREQUAL orvix_listed_libs)
  message(FATAL_ERROR "the stand-ins built in ${CPACK_ORVIX_STANDINS_DIR} are "
    "[${orvix_built_libs}], ${CPACK_ORVIX_STANDINS_SYMBOLS} lists [${orvix_listed_libs}]")
endif()

foreach(lib IN LISTS orvix_built_libs)
  execute_process(COMMAND "${CPACK_ORVIX_NM}" -D --defined-only "${CPACK_ORVIX_STANDINS_DIR}/${lib}"
    OUTPUT_VARIABLE orvix_nm COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]+" orvix_nm "${orvix_nm}")
  set(orvix_exported "")
  foreach(line IN LISTS orvix_nm)
    if(line MATCHES "^[0-9a-f]* [BDGRST] (.+)$")
      list(APPEND orvix_exported "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  list(SORT orvix_exported)
  list(SORT orvix_listed_${lib})
  if(NOT orvix_exported STREQUAL orvix_listed_${lib})
    message(FATAL_ERROR "${lib} exports [${orvix_exported}], "
      "${CPACK_ORVIX_STANDINS_SYMBOLS} lists [${orvix_listed_${lib}}]")
  endif()
endforeach()

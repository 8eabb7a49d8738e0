# Debian packages of the library for the architecture the compiler builds for (./run package, or
# `cmake --build <tree> --target package` in a tree configured with ORVIX_DEB_PACKAGES=ON):
#   liborvix<major>             the shared library under its SONAME
#   liborvix-dev                headers, the CMake package, orvix.pc, the unversioned link
#   liborvix-platform-standins  the stand-ins of platform/, until the controller's own libraries
#                               take their place
# Included before GNUInstallDirs: the packages install under /usr with the multiarch library
# folder of the target, so that packages of both architectures can be unpacked side by side.

set(ORVIX_DEB_OUTPUT_DIR "${CMAKE_BINARY_DIR}/packages" CACHE PATH
  "Folder the .deb files are written to")
set(ORVIX_DEB_MAINTAINER "Orvix developers <orvix@example.invalid>" CACHE STRING
  "Maintainer field of the packages")
set(ORVIX_DEB_SHLIBS_ROOT "" CACHE PATH
  "Cross builds: folder with one `dpkg-deb -R` tree per target runtime package (libc6, ...)")

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages install under /usr: configure with CMAKE_INSTALL_PREFIX=/usr")
endif()

# The target's Debian architecture and multiarch folder follow from the compiler's GNU triplet.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine
  OUTPUT_VARIABLE orvix_triplet OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
foreach(field ARCH MULTIARCH)
  execute_process(COMMAND dpkg-architecture -t ${orvix_triplet} -qDEB_HOST_${field}
    OUTPUT_VARIABLE ORVIX_DEB_${field} OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
set(CMAKE_INSTALL_LIBDIR "lib/${ORVIX_DEB_MULTIARCH}" CACHE PATH "Object code libraries (lib)")
if(NOT CMAKE_INSTALL_LIBDIR STREQUAL "lib/${ORVIX_DEB_MULTIARCH}")
  message(FATAL_ERROR "Debian packages for ${ORVIX_DEB_ARCH} install into lib/${ORVIX_DEB_MULTIARCH}, "
    "not CMAKE_INSTALL_LIBDIR=${CMAKE_INSTALL_LIBDIR}")
endif()

set(ORVIX_DEB_RUNTIME_PACKAGE liborvix${PROJECT_VERSION_MAJOR})
set(ORVIX_DEB_STANDINS_PACKAGE liborvix-platform-standins)
# Virtual packages, one per controller library: the stand-ins provide all three, and a package of
# the real library provides its own and replaces the stand-ins.
set(ORVIX_DEB_PLATFORM_VIRTUALS "librolog, libcheckbuildversion, libeasyasync")

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev platform)
# An install rule of another component (an install() without COMPONENT is "Unspecified") would
# go into no package unnoticed: checked once every rule is known.
function(orvix_deb_check_components)
  get_cmake_property(components COMPONENTS)
  list(REMOVE_ITEM components ${CPACK_COMPONENTS_ALL})
  if(components)
    message(FATAL_ERROR "install component(s) ${components} belong to no Debian package: give "
      "each install() rule COMPONENT runtime, dev or platform")
  endif()
endfunction()
cmake_language(DEFER CALL orvix_deb_check_components)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_NAME orvix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ORVIX_DEB_MAINTAINER}")
set(CPACK_OUTPUT_FILE_PREFIX "${ORVIX_DEB_OUTPUT_DIR}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ORVIX_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# Dependencies on shared libraries as dpkg-shlibdeps computes them from the symbols and shlibs
# files of the packages that ship those libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# liborvix1 gets a shlibs file, so that packages built against it depend on it in turn. (CPack
# warns that the stand-ins get none: their SONAMEs carry no version, as the controller's own
# libraries' do not, so their dependency information is their symbols file.)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Binutils of the target for the detached debug symbols.
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})

# The stand-ins are built here, not installed from a package: their folder in the build tree
# becomes a package tree of its own (a DEBIAN folder with their symbols file) and is searched
# with -l, so liborvix1's dependency on them is computed like any other. The symbols file lists
# each symbol with the version it first appeared in.
set(orvix_standins_dir "${CMAKE_BINARY_DIR}/platform")
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/platform-standins.symbols.in
  "${orvix_standins_dir}/DEBIAN/symbols" @ONLY)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${orvix_standins_dir}")

# A cross build finds no target libraries in the host's dpkg database: the target's runtime
# packages are unpacked with their control files (./run downloads them), and dpkg-shlibdeps
# reads their symbols files where it finds the libraries.
if(CMAKE_CROSSCOMPILING)
  set(orvix_shlibs_trees "")
  set(orvix_found_trees "")
  if(ORVIX_DEB_SHLIBS_ROOT)
    file(GLOB orvix_shlibs_trees LIST_DIRECTORIES true "${ORVIX_DEB_SHLIBS_ROOT}/*")
  endif()
  foreach(tree IN LISTS orvix_shlibs_trees)
    if(EXISTS "${tree}/DEBIAN/control")
      list(APPEND orvix_found_trees "${tree}")
      list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        "${tree}/lib/${ORVIX_DEB_MULTIARCH}" "${tree}/usr/lib/${ORVIX_DEB_MULTIARCH}")
    endif()
  endforeach()
  if(NOT orvix_found_trees)
    message(FATAL_ERROR "cross-built packages need the ${ORVIX_DEB_ARCH} runtime packages "
      "unpacked with `dpkg-deb -R` under ORVIX_DEB_SHLIBS_ROOT (./run package does it)")
  endif()
endif()

# Settings cpack needs at packaging time (cmake/DebianCPackConfig.cmake): dpkg-shlibdeps must
# read the target's symbols files, and the stand-ins' symbols file is checked against what they
# export. Multi-Arch is added to the finished packages.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/DebianCPackConfig.cmake)
set(CPACK_ORVIX_DEB_ARCH ${ORVIX_DEB_ARCH})
set(CPACK_ORVIX_NM ${CMAKE_NM})
set(CPACK_ORVIX_STANDINS_DIR "${orvix_standins_dir}")
set(CPACK_ORVIX_STANDINS_SYMBOLS "${orvix_standins_dir}/DEBIAN/symbols")
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianMultiArch.cmake)

# ---- liborvix1 --------------------------------------------------------------------------
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ORVIX_DEB_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"systems utilities for the printer controller firmware
Orvix gives the controller's application processes checked system calls and
exceptions with exact messages, serialised console output, time values and
blocking primitives, real-time threads and timers, locked region heaps, a
profiling facility, bounded trace buffers, bit streams and bitmaps, strings,
sockets, an SQLite wrapper, child processes and core-dump support.
.
This package contains the shared library.")

# ---- liborvix-dev -----------------------------------------------------------------------
set(CPACK_DEBIAN_DEV_PACKAGE_NAME liborvix-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# sqlite3cpp.hpp includes sqlite3.h, and both the CMake package and orvix.pc require SQLite.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${ORVIX_DEB_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), libsqlite3-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"systems utilities for the printer controller firmware (development files)
Headers, the CMake package (find_package(Orvix CONFIG), target Orvix::orvix)
and the pkg-config file (orvix) of the Orvix library, with the headers of the
controller libraries it links against.")

# ---- liborvix-platform-standins ---------------------------------------------------------
set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME ${ORVIX_DEB_STANDINS_PACKAGE})
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLATFORM_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_PROVIDES "${ORVIX_DEB_PLATFORM_VIRTUALS}")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONFLICTS "${ORVIX_DEB_PLATFORM_VIRTUALS}")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONTROL_EXTRA "${orvix_standins_dir}/DEBIAN/symbols")
set(CPACK_DEBIAN_PLATFORM_DESCRIPTION
"stand-ins for the controller libraries Orvix links against
libRoLog.so (log groups), libCheckBuildVersion.so (build-interface check at
load) and libEasyAsync.so (keeps futures of asynchronous tasks until they
finish), for development machines and emulation.
.
On the controller the real libraries take their place: a package that ships
one of them provides librolog, libcheckbuildversion or libeasyasync and
declares Conflicts and Replaces on this package.")

include(CPack)

# Cross build for the controller's ABI: 32-bit ARM hard-float, glibc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Programs built here run under user-mode emulation, with the cross toolchain's libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)

# Extra armhf libraries (SQLite) unpacked from Debian packages into a sysroot of the build tree.
set(ORVIX_ARMHF_SYSROOT "" CACHE PATH "Folder with armhf packages unpacked by dpkg -x")
if(ORVIX_ARMHF_SYSROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH ${ORVIX_ARMHF_SYSROOT})
  set(CMAKE_LIBRARY_PATH ${ORVIX_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf)
  set(CMAKE_INCLUDE_PATH ${ORVIX_ARMHF_SYSROOT}/usr/include)
endif()
list(APPEND CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

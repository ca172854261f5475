# Cross-builds to 32-bit ARM with Debian's compiler and the sysroot of tools/armhf-sysroot.sh,
# whose place ARMHF_SYSROOT names. What is built runs in qemu-user.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

# Compiler checks read this file again, in projects of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)
if(NOT EXISTS "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "ARMHF_SYSROOT '${ARMHF_SYSROOT}' is no sysroot: ./dev test armhf makes one")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
list(APPEND CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig"
)

# Not "qemu-arm -L": that would also redirect every path of a program that happens to exist in the
# sysroot. Starting the sysroot's loader keeps the machine's own root directory.
set(_libraries "${ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
string(APPEND _libraries ":${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_CROSSCOMPILING_EMULATOR
  "qemu-arm-static;${ARMHF_SYSROOT}/lib/ld-linux-armhf.so.3;--library-path;${_libraries}"
)

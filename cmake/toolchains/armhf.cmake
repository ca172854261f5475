# SPDX-License-Identifier: Apache-2.0
# Cross-builds to 32-bit ARM with Debian's compiler and the sysroot of tools/armhf-sysroot.sh in
# ARMHF_SYSROOT. armhf-run starts the programs.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

# Compiler checks read this file again in projects of their own: pass them the variable.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)
if(NOT EXISTS "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "ARMHF_SYSROOT '${ARMHF_SYSROOT}' is no sysroot: run ./dev test armhf first")
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

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/armhf-run;${ARMHF_SYSROOT}")

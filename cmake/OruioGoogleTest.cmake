# SPDX-License-Identifier: Apache-2.0
# Provides GoogleTest as the targets GTest::gtest, GTest::gtest_main, GTest::gmock and
# GTest::gmock_main: the installed library, or Debian's package of its source, built with the
# project. A cross build always uses the source.

include(GoogleTest)

if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest QUIET)
endif()
if(NOT TARGET GTest::gmock_main)
  set(ORUIO_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Source tree of GoogleTest")
  if(NOT EXISTS "${ORUIO_GOOGLETEST_SOURCE}/CMakeLists.txt")
    message(FATAL_ERROR "The tests need GoogleTest (Debian: libgmock-dev; to cross-build: googletest)")
  endif()
  enable_language(C) # GoogleTest's build needs it
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory("${ORUIO_GOOGLETEST_SOURCE}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL)
endif()

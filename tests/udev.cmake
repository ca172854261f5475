# Block devices and their monitor, without disks and without privilege.

oruio_test(blockdevice_test SOURCES support/childprocess.cpp)

# The sysroot of a cross build lacks umockdev with what its headers need; the device, where that
# build's tests run, has hardware for the monitor.
if(NOT CMAKE_CROSSCOMPILING)
  pkg_check_modules(UMOCKDEV IMPORTED_TARGET umockdev-1.0)
  find_library(UMOCKDEV_PRELOAD umockdev-preload)
  find_package(Qt5 5.15 QUIET COMPONENTS Test)
  if(UMOCKDEV_FOUND AND UMOCKDEV_PRELOAD AND TARGET Qt5::Test)
    oruio_test(bdmon_test MAIN
      SOURCES support/childprocess.cpp support/udevcalls.cpp support/udevtestbed.cpp
      # The stand-in for calls of the C library comes before that; nothing of it is called by name.
      LINKS oruio_test_support Qt5::Test PkgConfig::UMOCKDEV PkgConfig::LIBUDEV ${CMAKE_DL_LIBS}
        -Wl,--push-state,--no-as-needed ${UMOCKDEV_PRELOAD} -Wl,--pop-state
    )
  else()
    message(STATUS "No tests of the block device monitor: they need umockdev and Qt's test library")
  endif()
endif()

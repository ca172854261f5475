# Tests on real disks: of root, with mounts and a udevd of their own.
if(NOT CMAKE_CROSSCOMPILING) # they need the disks and tools of this system
  oruio_test(bdmon_disk_test LABEL root
    SOURCES support/childprocess.cpp support/loopdisk.cpp support/udevd.cpp
  )
  target_compile_definitions(bdmon_disk_test PRIVATE
    ORUIO_SYSUTILS="${PROJECT_SOURCE_DIR}/tools/sysutils/oruio_sysutils"
  )
endif()

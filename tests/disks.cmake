# Tests on real disks: of root, with mounts and a udevd of their own.
function(oruio_disk_test name)
  oruio_test(${name} SYSTEM LABEL root
    SOURCES support/childprocess.cpp support/disktest.cpp support/loopdisk.cpp support/udevd.cpp
  )
  target_compile_definitions(${name} PRIVATE
    ORUIO_SYSUTILS="${PROJECT_SOURCE_DIR}/tools/sysutils/oruio_sysutils"
  )
  if(CMAKE_CROSSCOMPILING) # the device has a card and sticks
    set_property(TEST ${name} APPEND PROPERTY LABELS again)
  endif()
endfunction()

oruio_disk_test(bdmon_disk_test)
oruio_disk_test(location_disk_test)

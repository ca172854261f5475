# Tests with the hardware of the emulated device, of which there is one for all.

# For other programs, to be loaded before the C library.
add_library(ufsd MODULE device/ufsd.cpp)
target_link_libraries(ufsd PRIVATE Qt5::Core oruio_options ${CMAKE_DL_LIBS})

# oruio_device_test(NAME [SOURCES source...])
#
# A test program NAME from device/NAME.cpp and further sources. It may mount exFAT as the library
# does.
function(oruio_device_test name)
  cmake_parse_arguments(arg "" "" "SOURCES" ${ARGN})
  oruio_test(${name} SYSTEM LABEL root DIRECTORY device
    SOURCES device/ufsd.cpp support/childprocess.cpp ${arg_SOURCES}
  )
  target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
  # They come first: they take turns, and while one waits for the hardware others can run.
  set_tests_properties(${name} PROPERTIES RESOURCE_LOCK hardware COST 100)
endfunction()

# oruio_hardware_test(NAME [SOURCES source...]): one that also handles the hardware.
function(oruio_hardware_test name)
  cmake_parse_arguments(arg "" "" "SOURCES" ${ARGN})
  oruio_device_test(${name} SOURCES device/hardware.cpp support/loopdisk.cpp ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE PkgConfig::LIBUDEV)
endfunction()

oruio_hardware_test(location_device_test SOURCES support/disktest.cpp support/udevd.cpp)
target_compile_definitions(location_device_test PRIVATE
  ORUIO_SYSUTILS="${PROJECT_SOURCE_DIR}/tools/sysutils/oruio_sysutils"
)
oruio_hardware_test(media_device_test)

oruio_device_test(conformance_device_test SOURCES device/nfsserver.cpp support/loopdisk.cpp)
oruio_device_test(nfs_device_test SOURCES device/nfsserver.cpp support/loopdisk.cpp)

if(TARGET recorder)
  oruio_hardware_test(powercut_device_test SOURCES device/recordings.cpp)
  # Apart from the others with the hardware, so in the other device.
  set_property(TEST powercut_device_test APPEND PROPERTY LABELS slow)
  target_link_libraries(powercut_device_test PRIVATE PkgConfig::XXHASH)
  # In a device of its own, whose power was cut.
  oruio_hardware_test(aftercut_device_test SOURCES device/recordings.cpp)
  set_property(TEST aftercut_device_test APPEND PROPERTY LABELS cut)
  target_link_libraries(aftercut_device_test PRIVATE PkgConfig::XXHASH)
  target_compile_definitions(powercut_device_test PRIVATE
    ORUIO_RECORDER="$<TARGET_FILE:recorder>"
  )
endif()

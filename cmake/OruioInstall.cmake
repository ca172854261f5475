# SPDX-License-Identifier: Apache-2.0
# Installation: the libraries, their headers, the CMake package, the pkg-config file and the
# maintenance program.

include(CMakePackageConfigHelpers)

set(_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/oruio")

install(TARGETS oruio orulog EXPORT oruio-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/oruio"
                  "${PROJECT_SOURCE_DIR}/liborulog/include/orulog"
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
)
# The library starts it as /usr/local/bin/oruio_sysutils, which is where the default prefix puts it.
install(TARGETS oruio_sysutils RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES "${PROJECT_SOURCE_DIR}/sysutils/oruio_sysutils.8"
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
)
install(EXPORT oruio-targets NAMESPACE oruio:: DESTINATION ${_package_dir})

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/oruio-config.cmake.in"
  "${PROJECT_BINARY_DIR}/oruio-config.cmake"
  INSTALL_DESTINATION ${_package_dir}
)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/oruio-config-version.cmake"
  COMPATIBILITY SameMajorVersion
)
# The prefix in the file is relative to the file, so an installed tree can be moved.
file(RELATIVE_PATH ORUIO_PC_TO_PREFIX
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix"
)
configure_file("${PROJECT_SOURCE_DIR}/cmake/oruio.pc.in" "${PROJECT_BINARY_DIR}/oruio.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/oruio.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES
  "${PROJECT_BINARY_DIR}/oruio-config.cmake"
  "${PROJECT_BINARY_DIR}/oruio-config-version.cmake"
  DESTINATION ${_package_dir}
)

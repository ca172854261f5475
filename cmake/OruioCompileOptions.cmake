# SPDX-License-Identifier: Apache-2.0
# Compile options of all targets of the project.

add_library(oruio_options INTERFACE)
target_compile_options(oruio_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wvla
  # Log messages and test failures contain paths relative to the project.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/="
)
target_compile_definitions(oruio_options INTERFACE QT_NO_KEYWORDS QT_NO_FOREACH)

option(ORUIO_WERROR "Treat warnings as errors" OFF)
if(ORUIO_WERROR)
  target_compile_options(oruio_options INTERFACE -Werror)
endif()

set(ORUIO_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=")
if(ORUIO_SANITIZE)
  add_compile_options(-fsanitize=${ORUIO_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORUIO_SANITIZE})
endif()

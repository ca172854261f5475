# Where file offsets have 32 bits by default, the records of a source that does not ask for 64 are
# not the library's, nor are those of one that asks for times of 64 bits: the header has to refuse
# them, and to say what to ask for. Included by the tests' CMakeLists.txt.

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(_flags -std=c++17 -fPIC -fsyntax-only "-I${PROJECT_SOURCE_DIR}/include")
  foreach(_directory IN LISTS Qt5Core_INCLUDE_DIRS)
    list(APPEND _flags -isystem "${_directory}")
  endforeach()
  if(CMAKE_SYSROOT)
    list(APPEND _flags "--sysroot=${CMAKE_SYSROOT}")
  endif()
  list(APPEND _flags -x c++ /dev/null -include oruio/fs.h)

  add_test(NAME Consumer.SmallFiles_Refused COMMAND "${CMAKE_CXX_COMPILER}" ${_flags})
  set_tests_properties(Consumer.SmallFiles_Refused PROPERTIES
    PASS_REGULAR_EXPRESSION "compile with -D_FILE_OFFSET_BITS=64"
    LABELS unit
  )
  add_test(NAME Consumer.LargeFiles_Accepted
    COMMAND "${CMAKE_CXX_COMPILER}" -D_FILE_OFFSET_BITS=64 ${_flags}
  )
  set_tests_properties(Consumer.LargeFiles_Accepted PROPERTIES LABELS unit)
  add_test(NAME Consumer.LongTimes_Refused
    COMMAND "${CMAKE_CXX_COMPILER}" -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 ${_flags}
  )
  set_tests_properties(Consumer.LongTimes_Refused PROPERTIES
    PASS_REGULAR_EXPRESSION "compile without -D_TIME_BITS=64"
    LABELS unit
  )
endif()

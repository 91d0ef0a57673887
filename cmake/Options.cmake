include(CMakeDependentOption)

option(QUORVEL_BUILD_TOOLS "Build qvctl" ${PROJECT_IS_TOP_LEVEL})
option(QUORVEL_BUILD_BENCHMARKS "Build the benchmarks" ${PROJECT_IS_TOP_LEVEL})
option(QUORVEL_BUILD_EXAMPLES "Build the examples" ${PROJECT_IS_TOP_LEVEL})
cmake_dependent_option(QUORVEL_BUILD_TESTS "Build the tests, which need qvctl" ${PROJECT_IS_TOP_LEVEL}
  "QUORVEL_BUILD_TOOLS;NOT DEFINED BUILD_TESTING OR BUILD_TESTING" OFF)
cmake_dependent_option(QUORVEL_BUILD_FUZZERS "Build the fuzz targets, which need Clang and the tools"
  OFF "QUORVEL_BUILD_TOOLS" OFF)

set(known QUORVEL_BUILD_TOOLS QUORVEL_BUILD_TESTS QUORVEL_BUILD_BENCHMARKS QUORVEL_BUILD_EXAMPLES
  QUORVEL_BUILD_FUZZERS)
get_cmake_property(unknown CACHE_VARIABLES)
list(FILTER unknown INCLUDE REGEX "^QUORVEL_BUILD_")
list(REMOVE_ITEM unknown ${known})
if(unknown)
  foreach(variable IN LISTS unknown)
    unset(${variable} CACHE)  # or every later run would fail as well
  endforeach()
  list(JOIN unknown ", " unknown)
  list(JOIN known ", " known)
  message(FATAL_ERROR "Quorvel has no option ${unknown}. Its options are ${known}.")
endif()

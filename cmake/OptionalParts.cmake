# The tests and the benchmarks are optional: the plug-in, the host library
# and gpumon build without GoogleTest or Google Benchmark. Each part has a
# setting:
#   AUTO (the default)  built when its packages are found, skipped otherwise
#   ON                  built; a missing package stops the configure
#   OFF                 not built, and its packages are not looked for
set(ZEV_BUILD_TESTS AUTO CACHE STRING
  "Build the tests: AUTO (when GoogleTest and gmock are found), ON or OFF")
set(ZEV_BUILD_BENCHMARKS AUTO CACHE STRING
  "Build the benchmarks: AUTO (when Google Benchmark is found), ON or OFF")
set_property(CACHE ZEV_BUILD_TESTS PROPERTY STRINGS AUTO ON OFF)
set_property(CACHE ZEV_BUILD_BENCHMARKS PROPERTY STRINGS AUTO ON OFF)

# zev_optional_part(<setting> <what> [MISSING <package>...])
#   Settles <setting> to ON or OFF for this configure, given the packages of
#   the part that were not found.
function(zev_optional_part setting what)
  cmake_parse_arguments(ARG "" "" "MISSING" ${ARGN})
  list(JOIN ARG_MISSING ", " missing)
  string(TOUPPER "${${setting}}" value)
  if(value STREQUAL "AUTO")
    if(missing)
      message(STATUS "${what} skipped: ${missing} not found (tools/install-deps.sh installs the packages)")
      set(${setting} OFF PARENT_SCOPE)
    else()
      set(${setting} ON PARENT_SCOPE)
    endif()
  elseif(${setting})
    if(missing)
      message(FATAL_ERROR "${setting} is ${${setting}}, but ${missing} was not found: "
        "run tools/install-deps.sh, or configure with -D${setting}=OFF")
    endif()
    set(${setting} ON PARENT_SCOPE)
  else()
    set(${setting} OFF PARENT_SCOPE)
  endif()
endfunction()

if(ZEV_PLUGIN_ONLY)
  set(ZEV_BUILD_TESTS OFF)
  set(ZEV_BUILD_BENCHMARKS OFF)
endif()

# A setting of AUTO or ON is true here: look for the part's packages.
set(zev_tests_missing)
if(ZEV_BUILD_TESTS)
  find_package(GTest QUIET)
  if(NOT TARGET GTest::gtest_main)
    list(APPEND zev_tests_missing GoogleTest)
  endif()
  if(NOT TARGET GTest::gmock)
    list(APPEND zev_tests_missing gmock)
  endif()
endif()
zev_optional_part(ZEV_BUILD_TESTS "Tests" MISSING ${zev_tests_missing})

set(zev_benchmarks_missing)
if(ZEV_BUILD_BENCHMARKS)
  find_package(benchmark QUIET)
  if(NOT TARGET benchmark::benchmark)
    list(APPEND zev_benchmarks_missing "Google Benchmark")
  endif()
endif()
zev_optional_part(ZEV_BUILD_BENCHMARKS "Benchmarks" MISSING ${zev_benchmarks_missing})

# Small helpers that keep every CMakeLists.txt of the tree short.

# Sanitizer builds apply to everything we compile, so they are set once here.
if(QUARN_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(QUARN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT QUARN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QUARN_SANITIZE must be empty, 'address' or 'thread', not '${QUARN_SANITIZE}'")
endif()

# A fuzzing build instruments everything for libFuzzer's coverage and checks it with ASan + UBSan;
# only the harnesses link libFuzzer's driver (fuzz/CMakeLists.txt).
if(QUARN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QUARN_FUZZ needs clang (libFuzzer), e.g. -DCMAKE_CXX_COMPILER=clang++-14")
  endif()
  if(NOT QUARN_SANITIZE STREQUAL "")
    message(FATAL_ERROR "QUARN_FUZZ brings its own sanitizers; leave QUARN_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# Warnings for code we own; third-party headers are pulled in as SYSTEM by their imported targets.
function(quarn_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(QUARN_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Every test executable labelled "threaded" is also gathered under this target, so that a
# ThreadSanitizer build can compile and run only the tests that start threads.
if(QUARN_BUILD_TESTS AND NOT TARGET quarn_threaded_tests)
  add_custom_target(quarn_threaded_tests)
endif()

# GoogleTest's headers cost more to compile than most tests; they are precompiled once and reused by
# every test target. The carrier is an executable like the tests (with no tests of its own) so that
# it is compiled with exactly their flags; otherwise the compiler would refuse the precompiled header.
if(QUARN_BUILD_TESTS AND NOT TARGET quarn_test_pch)
  add_executable(quarn_test_pch ${CMAKE_CURRENT_LIST_DIR}/quarn_test_pch.cpp)
  target_link_libraries(quarn_test_pch PRIVATE GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(quarn_test_pch PRIVATE QUARN_TESTDATA_DIR="${PROJECT_SOURCE_DIR}/testdata")
  target_precompile_headers(quarn_test_pch PRIVATE <gtest/gtest.h> <gmock/gmock.h> <cmath> <string> <vector>)
  quarn_target_warnings(quarn_test_pch)
endif()

# quarn_cc_test(NAME <name> SOURCES <files...> [DEPS <targets...>] [THREADED])
#
# One GoogleTest executable; its cases are registered with ctest one by one. THREADED marks a test
# that exercises worker threads (label "threaded"), which the ThreadSanitizer job runs. A threaded
# test runs with QUARN_NUM_PROCESSORS=8: the dispatchers size their pools by the processor count, so
# on a two-core machine a test asking for 3 or 8 workers would otherwise get 2.
function(quarn_cc_test)
  if(NOT QUARN_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(QT "THREADED" "NAME;TIMEOUT" "SOURCES;DEPS" ${ARGN})
  add_executable(${QT_NAME} ${QT_SOURCES})
  target_link_libraries(${QT_NAME} PRIVATE ${QT_DEPS} QuarnTesting GTest::gtest GTest::gmock GTest::gtest_main)
  # Real measured data (with its licences) lives in testdata/ of the source tree.
  target_compile_definitions(${QT_NAME} PRIVATE QUARN_TESTDATA_DIR="${PROJECT_SOURCE_DIR}/testdata")
  target_precompile_headers(${QT_NAME} REUSE_FROM quarn_test_pch)
  quarn_target_warnings(${QT_NAME})
  # One label per test: a list would not survive the discovery script.
  set(label unit)
  set(environment "")
  if(QT_THREADED)
    set(label threaded)
    set(environment ENVIRONMENT QUARN_NUM_PROCESSORS=8)
    add_dependencies(quarn_threaded_tests ${QT_NAME})
  endif()
  if(NOT QT_TIMEOUT)
    set(QT_TIMEOUT 300)
  endif()
  gtest_discover_tests(${QT_NAME}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${label} TIMEOUT ${QT_TIMEOUT} ${environment})
endfunction()

# quarn_cc_benchmark(NAME <name> SOURCES <files...> [DEPS <targets...>])
#
# A Google Benchmark program; built only with QUARN_BUILD_BENCHMARKS and never run by ctest.
function(quarn_cc_benchmark)
  if(NOT QUARN_BUILD_BENCHMARKS)
    return()
  endif()
  cmake_parse_arguments(QB "" "NAME" "SOURCES;DEPS" ${ARGN})
  add_executable(${QB_NAME} ${QB_SOURCES})
  target_link_libraries(${QB_NAME} PRIVATE ${QB_DEPS} QuarnTesting benchmark::benchmark benchmark::benchmark_main)
  quarn_target_warnings(${QB_NAME})
endfunction()

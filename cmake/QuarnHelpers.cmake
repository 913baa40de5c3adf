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

# quarn_cc_test(NAME <name> SOURCES <files...> [DEPS <targets...>] [THREADED])
#
# One GoogleTest executable; its cases are registered with ctest one by one. THREADED marks a test
# that exercises worker threads (label "threaded"), which the ThreadSanitizer job runs.
function(quarn_cc_test)
  if(NOT QUARN_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(QT "THREADED" "NAME;TIMEOUT" "SOURCES;DEPS" ${ARGN})
  add_executable(${QT_NAME} ${QT_SOURCES})
  target_link_libraries(${QT_NAME} PRIVATE ${QT_DEPS} QuarnTesting GTest::gtest GTest::gmock GTest::gtest_main)
  # Real measured data (with its licences) lives in testdata/ of the source tree.
  target_compile_definitions(${QT_NAME} PRIVATE QUARN_TESTDATA_DIR="${PROJECT_SOURCE_DIR}/testdata")
  quarn_target_warnings(${QT_NAME})
  # One label per test: a list would not survive the discovery script.
  set(label unit)
  if(QT_THREADED)
    set(label threaded)
    add_dependencies(quarn_threaded_tests ${QT_NAME})
  endif()
  if(NOT QT_TIMEOUT)
    set(QT_TIMEOUT 300)
  endif()
  gtest_discover_tests(${QT_NAME}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${label} TIMEOUT ${QT_TIMEOUT})
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

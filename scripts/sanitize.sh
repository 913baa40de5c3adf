#!/usr/bin/env bash
# Sanitizer runs in their own build folders:
#   scripts/sanitize.sh address   every test under AddressSanitizer + UndefinedBehaviorSanitizer,
#                                 built with clang
#   scripts/sanitize.sh thread    the multi-threaded tests under ThreadSanitizer, built with GCC
# The tests thus run under both compilers: a fast path promised equal to its reference bit for bit
# must stay so however a compiler schedules, contracts or orders its arithmetic, and clang's
# UndefinedBehaviorSanitizer checks what GCC's does not.
set -euo pipefail
cd "$(dirname "$0")/.."
kind="${1:?usage: scripts/sanitize.sh address|thread}"
compilers=()
if [[ "$kind" == "address" ]]; then
  scripts/deps.sh --test --fuzz
  dir="build-address-clang"
  compilers=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14)
else
  scripts/deps.sh --test
  dir="build-${kind}"
fi
cmake -S . -B "$dir" "${compilers[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARN_SANITIZE="$kind" \
  -DQUARN_WARNINGS_AS_ERRORS=ON -DQUARN_BUILD_BENCHMARKS=OFF
if [[ "$kind" == "thread" ]]; then
  cmake --build "$dir" -j"$(nproc)" --target quarn_threaded_tests
  # ThreadSanitizer sleeps a second before every process exits to catch races with exit handlers; the
  # tests join every thread they start, so that second per test process is only waiting.
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 atexit_sleep_ms=0" \
    ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" -L threaded
else
  cmake --build "$dir" -j"$(nproc)"
  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
fi

#!/usr/bin/env bash
# libFuzzer harnesses of fuzz/ in their own clang build (everything instrumented, ASan + UBSan):
#   scripts/fuzz.sh            each harness for FUZZ_RUNS runs (default 10000) from its seed corpus,
#                              then every seed and every past failure (fuzz/regressions/) replayed;
#                              the mutations follow FUZZ_SEED (default 1), so that a run that passes
#                              passes again: set another seed, or more runs, to search further
#   scripts/fuzz.sh replay     only the replay
# New inputs found on the way are kept in build-fuzz/corpus/, never in the repository; an input that
# breaks a harness is written to build-fuzz/ (crash-*) and belongs in fuzz/regressions/<harness>/ once
# the fault is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
mode="${1:-fuzz}"
scripts/deps.sh --fuzz
dir=build-fuzz
harnesses=(tiff_reader_fuzzer converter_generator_fuzzer kinephase_fuzzer align_spot_detector_fuzzer
           swli_phase_generator_fuzzer film_stack_json_fuzzer)
CC=clang-14 CXX=clang++-14 cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARN_FUZZ=ON \
  -DQUARN_BUILD_TESTS=OFF -DQUARN_BUILD_BENCHMARKS=OFF -DQUARN_WARNINGS_AS_ERRORS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target "${harnesses[@]}"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
for harness in "${harnesses[@]}"; do
  binary="$dir/fuzz/$harness"
  seeds="fuzz/corpus/$harness"
  if [[ "$mode" != "replay" ]]; then
    work="$dir/corpus/$harness"
    mkdir -p "$work"
    # -rss_limit_mb: a small file must not make a reader claim gigabytes.
    log="$dir/$harness.fuzz.log"
    if ! "$binary" -runs="${FUZZ_RUNS:-10000}" -seed="${FUZZ_SEED:-1}" -max_len=8192 -rss_limit_mb=1024 -timeout=20 -print_final_stats=1 \
        -artifact_prefix="$dir/$harness-" "$work" "$seeds" >"$log" 2>&1; then
      tail -n 60 "$log" >&2
      echo "== $harness failed; the input is in $dir/$harness-*" >&2
      exit 1
    fi
    echo "== $harness: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1)," \
      "peak $(grep -E 'stat::peak_rss_mb' "$log" | awk '{print $2}') MB"
  fi
  replay=("$seeds")
  [[ -d "fuzz/regressions/$harness" ]] && replay+=("fuzz/regressions/$harness")
  # -runs=0 with folders runs each file in them once.
  "$binary" -runs=0 -rss_limit_mb=1024 "${replay[@]}" >"$dir/$harness.replay.log" 2>&1 ||
    { cat "$dir/$harness.replay.log" >&2; echo "== $harness: a seed or a regression fails" >&2; exit 1; }
  echo "== $harness: corpus and regressions replayed"
done

#!/usr/bin/env bash
# Builds the library and the qphase tool in build/ and runs `qphase demo`: synthetic measurements
# with known truth through every algorithm, a table of accuracy and speed, maps and previews in
# demo-out/. Extra arguments go to the demo (e.g. --size 1024).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DQUARN_WARNINGS_AS_ERRORS=ON > /dev/null
cmake --build build -j"$(nproc)" --target qphase
build/tools/qphase/qphase demo --out demo-out "$@"

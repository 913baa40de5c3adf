#!/usr/bin/env bash
# Builds the library, the tool and every test in build/, and runs the tests.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh --test
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DQUARN_WARNINGS_AS_ERRORS=ON
cmake --build build -j"$(nproc)"
ctest --test-dir build --output-on-failure -j"$(nproc)"

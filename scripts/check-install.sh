#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds the consumer project against it with
# find_package, as a host application would.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix="$(pwd)/build-install/prefix"
rm -rf build-install
cmake --install build --prefix "$prefix" > /dev/null
cmake -S tests/consumer -B build-install/consumer -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build build-install/consumer -j"$(nproc)"
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" build-install/consumer/quarn_consumer

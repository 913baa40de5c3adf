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
# The Python package, where it was built, imports from the prefix (its extension finds the libraries
# through its run path).
if [[ -d "$prefix/lib/python3/dist-packages/quarn" ]]; then
  (cd /tmp && PYTHONPATH="$prefix/lib/python3/dist-packages" /usr/bin/python3 -c "import quarn; print('quarn', quarn.__version__)")
fi

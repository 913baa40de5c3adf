#!/usr/bin/env bash
# Formats every C++ source with the repository's .clang-format; --check only reports.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=(-i)
[[ "${1:-}" == "--check" ]] && mode=(--dry-run --Werror)
git ls-files '*.cpp' '*.h' | xargs clang-format "${mode[@]}"

#!/usr/bin/env bash
# Builds everything and runs the whole test suite (unit, black-box and end-to-end).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build_dir=${KB_BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKB_DEVELOPER_MODE=ON
cmake --build "$build_dir" -j "$jobs"
ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" --timeout 600 "$@"

#!/usr/bin/env bash
# The whole test suite: set-up, a warnings-as-errors build with its tests,
# then the address and undefined sanitizer build with its tests.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1

echo "== developer build (-Werror)"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$jobs"
ctest --preset dev -j"$jobs"

echo "== sanitizer build (address, undefined)"
cmake --preset asan >/dev/null
cmake --build --preset asan -j"$jobs"
ctest --preset asan -j"$jobs"

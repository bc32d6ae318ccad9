#!/usr/bin/env bash
# The whole test suite: set-up, a warnings-as-errors build with its tests,
# the address and undefined sanitizer build with its tests, then the thread
# sanitizer on the threaded test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1

# A throwaway ZooKeeper server for the tests labelled "zookeeper".
export ZK_DIR=$(mktemp -d "${TMPDIR:-/tmp}/prsr-zk.XXXXXX")
trap 'scripts/zk.sh stop "$ZK_DIR" >/dev/null; rm -rf "$ZK_DIR"' EXIT
scripts/zk.sh start "$ZK_DIR"
export HVS_TEST_ZK=$(scripts/zk.sh address "$ZK_DIR")

# Both passes run the fault rig too (label faultrig, alone, about 2.5
# minutes; skipped without root): scripts/faultrig.sh short.
echo "== developer build (-Werror)"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$jobs"
ctest --preset dev -j"$jobs"

echo "== sanitizer build (address, undefined)"
cmake --preset asan >/dev/null
cmake --build --preset asan -j"$jobs"
ctest --preset asan -j"$jobs"

# The thread sanitizer on the threaded test alone (label threads): it
# builds only test_threads and what it links; about a minute with a warm
# ccache, a few minutes cold.
echo "== thread sanitizer build (label threads)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j"$jobs"
ctest --preset tsan

#!/usr/bin/env bash
# The main job on the embedded default: build, load the sample cluster into a
# fresh SQLite registry, and show it through prsrctl.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --build-only
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPRSR_BUILD_TESTS=OFF \
      -DPRSR_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc)" --target prsrctl hvsctl >/dev/null
export HVS_REGISTRY="sqlite:$PWD/build/demo/registry.db"
rm -rf build/demo && mkdir -p build/demo
prsrctl=build/tools/prsrctl/prsrctl
hvsctl=build/tools/hvsctl/hvsctl

show() { printf '\n$ %s\n' "$*"; "$@"; }
show "$hvsctl" import examples/sample-cluster.json
show "$prsrctl" config database
show "$prsrctl" config database -d SALES
show "$prsrctl" get enabled -d sales
show "$prsrctl" disable database -d Sales
show "$prsrctl" --json get enabled -d sales
show "$prsrctl" enable database -d sales
printf '\nThe registry is %s; try: %s --help\n' "$HVS_REGISTRY" "$prsrctl"

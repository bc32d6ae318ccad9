#!/usr/bin/env bash
# The main job on the embedded default: build, load the sample cluster into a
# fresh SQLite registry, and show it through prsrctl.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPRSR_BUILD_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target prsrctl hvsctl >/dev/null
export HVS_REGISTRY="sqlite:$PWD/build/demo/registry.db"
rm -rf build/demo && mkdir -p build/demo
build/tools/hvsctl/hvsctl import examples/sample-cluster.json
echo "== registry at $HVS_REGISTRY"
set -x
build/tools/prsrctl/prsrctl get enabled -d SALES
build/tools/prsrctl/prsrctl disable database -d sales
build/tools/prsrctl/prsrctl --json get enabled -d sales
build/tools/prsrctl/prsrctl enable database -d Sales

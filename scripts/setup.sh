#!/usr/bin/env bash
# Installs what the project needs on a Debian machine: to build it, and
# unless --build-only is given, to test it (GoogleTest, Google Benchmark, a
# ZooKeeper server, and dpkg-dev and file for the Debian packages' system
# dependencies).
set -euo pipefail
PKGS=(build-essential cmake pkg-config git
      libsqlite3-dev sqlite3
      nlohmann-json3-dev libcli11-dev libfmt-dev
      libzookeeper-mt-dev)
if [ "${1:-}" != "--build-only" ]; then
  PKGS+=(libgtest-dev libgmock-dev libbenchmark-dev zookeeper dpkg-dev file)
fi
SUDO=""
if [ "$(id -u)" -ne 0 ] && command -v sudo >/dev/null; then SUDO=sudo; fi
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get install -y -q "${missing[@]}" || { $SUDO apt-get update -q && $SUDO apt-get install -y -q "${missing[@]}"; }
fi

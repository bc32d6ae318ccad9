#!/usr/bin/env bash
# package_test.sh SOURCE_DIR WORK_DIR CMAKE
#
# 1. configures and builds the installable targets for /usr in
#    WORK_DIR/build (kept between runs), and makes the Debian packages;
# 2. installs them with dpkg and runs the install test's client checks on
#    them (tests/tools/install_example.cmake with PREFIX=/usr), the tools
#    (prsrctl --help, hvsctl import, prsrctl config database);
# 3. purges them, and checks that every path the packages hold is as it was
#    before: gone, or there already (the shared folders of /usr).
# Exit 77 (skipped) without root or dpkg. Packages of ours installed already
# are a failure: the test would remove what it did not install.
set -euo pipefail
src=$1 work=$2 cmake=$3
pkgs=(libprsr1 libprsr-dev prsr-tools)

if [ "$(id -u)" -ne 0 ] || ! command -v dpkg >/dev/null || ! command -v dpkg-deb >/dev/null; then
  echo "package test: needs root and dpkg; skipped"
  exit 77
fi
# present PKG: dpkg knows the package as installed, in part or by its
# configuration files.
present() {
  local s
  s=$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null || true)
  [ -n "$s" ] && [ "$s" != not-installed ]
}
for p in "${pkgs[@]}"; do
  if present "$p"; then
    echo "package test: $p is installed already; remove it first (dpkg --purge $p)" >&2
    exit 1
  fi
done

mkdir -p "$work"
rm -rf "$work/debs" "$work/client"
"$cmake" -S "$src" -B "$work/build" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE= \
  -DPRSR_BUILD_TESTS=OFF -DPRSR_BUILD_BENCH=OFF >"$work/configure.log"
"$cmake" --build "$work/build" --parallel 2 >"$work/build.log" \
  || { tail -40 "$work/build.log"; exit 1; }
(cd "$work/build" && cpack -G DEB -B "$work/debs" >"$work/cpack.log") \
  || { cat "$work/cpack.log"; exit 1; }

debs=()
for p in "${pkgs[@]}"; do
  f=$(ls "$work"/debs/"${p}"_*.deb)
  debs+=("$f")
done

# Each package holds its part: the runtime no header, the tools no library.
contents() { dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./|/|; s|/$||'; }
ma=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
expect() { # deb path...
  local deb=$1; shift
  for f in "$@"; do
    contents "$deb" | grep -qx "$f" || { echo "$(basename "$deb") lacks $f" >&2; exit 1; }
  done
}
expect "${debs[0]}" "/usr/lib/$ma/libprsr.so.1" "/usr/lib/$ma/prsr/libhvsapi.so.1" \
  /usr/share/prsr/hvs.msg
expect "${debs[1]}" /usr/include/prsr/prsr.h /usr/include/prsr/util/keypath.h \
  "/usr/lib/$ma/libprsr.a" "/usr/lib/$ma/libprsrutil.a" "/usr/lib/$ma/libprsr.so" \
  "/usr/lib/$ma/prsr/libhvsapi.so" "/usr/lib/$ma/pkgconfig/libprsr.pc" \
  "/usr/lib/$ma/cmake/prsr/prsrConfig.cmake"
expect "${debs[2]}" /usr/bin/prsrctl /usr/bin/hvsctl
if contents "${debs[0]}" | grep -q '^/usr/include'; then echo "libprsr1 holds headers" >&2; exit 1; fi
if contents "${debs[2]}" | grep -q '\.so'; then echo "prsr-tools holds libraries" >&2; exit 1; fi

# What was there before, of every path the packages hold.
for d in "${debs[@]}"; do contents "$d"; done | sort -u >"$work/paths"
while read -r p; do [ -e "$p" ] && echo "$p"; done <"$work/paths" >"$work/before" || true

cleanup() {
  dpkg --purge "${pkgs[@]}" >"$work/purge.log" 2>&1 || { cat "$work/purge.log"; }
}
trap cleanup EXIT
dpkg -i "${debs[@]}" >"$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }

# The client builds and the tools, as a user of the packages has them.
"$cmake" -DSOURCE_DIR="$src" -DWORK_DIR="$work/client" -DPREFIX=/usr \
  -P "$src/tests/tools/install_example.cmake"
prsrctl --help >/dev/null
reg=$work/client/tools.db
rm -f "$reg"
HVS_REGISTRY=sqlite:$reg hvsctl import "$src/examples/sample-cluster.json"
out=$(HVS_REGISTRY=sqlite:$reg LKS_TIMEOUT_MS=5000 prsrctl config database)
for db in HR Sales SalesDR; do
  grep -qx "$db" <<<"$out" || { echo "prsrctl config database: no $db in:"; echo "$out"; exit 1; } >&2
done

trap - EXIT
dpkg --purge "${pkgs[@]}" >"$work/purge.log" 2>&1 || { cat "$work/purge.log"; exit 1; }
while read -r p; do [ -e "$p" ] && echo "$p"; done <"$work/paths" >"$work/after" || true
if ! diff -u "$work/before" "$work/after"; then
  echo "package test: the paths above differ after the purge" >&2
  exit 1
fi
for p in "${pkgs[@]}"; do
  if present "$p"; then echo "package test: $p still known to dpkg" >&2; exit 1; fi
done
echo "package test: packages built, installed, used and purged"

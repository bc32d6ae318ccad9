#!/usr/bin/env bash
# package_test.sh STEP SOURCE_DIR WORK_DIR CMAKE    (tests/package/CMakeLists.txt)
#
# build    configures WORK_DIR/build for prefix /usr and the library folder
#          lib/<multiarch>, builds what it installs, makes the Debian packages
#          in WORK_DIR/debs;
# install  `cmake --install` of that build into a temporary prefix, then the
#          client checks of tests/tools/install_example.cmake; and once more
#          configured without run paths (PRSR_INSTALL_RPATH=OFF);
# deb      installs the packages with dpkg, checks what each holds, runs the
#          client checks against /usr, purges them and checks that dpkg and
#          every path the packages hold are as they were. Exit 77 (skipped)
#          without root or dpkg. Packages of ours installed already are a
#          failure: the test would remove what it did not install.
set -euo pipefail
step=$1 src=$2 work=$3 cmake=$4
build=$work/build
ma=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
libdir=lib/$ma

case $step in
build)
  mkdir -p "$work"
  rm -rf "$work/debs"
  "$cmake" -S "$src" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="$libdir" \
    -DCMAKE_BUILD_TYPE= -DPRSR_BUILD_TESTS=OFF -DPRSR_BUILD_BENCH=OFF \
    -DPRSR_INSTALL_RPATH=ON >"$work/configure.log" \
    || { cat "$work/configure.log"; exit 1; }
  "$cmake" --build "$build" --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" >"$work/build.log" 2>&1 \
    || { tail -40 "$work/build.log"; exit 1; }
  (cd "$build" && cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) \
    || { cat "$work/cpack.log"; exit 1; }
  exit 0 ;;
install)
  "$cmake" -DSOURCE_DIR="$src" -DWORK_DIR="$work/install" -DBUILD_DIR="$build" \
    -DLIBDIR="$libdir" -P "$src/tests/tools/install_example.cmake"
  # The same build without run paths: none in any installed program or
  # library, and the loader's file names the private folder instead.
  norpath=$work/norpath
  rm -rf "$norpath"
  # (Relinked: the first link left room in each file for the run path.)
  "$cmake" -DPRSR_INSTALL_RPATH=OFF "$build" >/dev/null
  "$cmake" --build "$build" --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" >"$work/relink.log"
  DESTDIR=$norpath "$cmake" --install "$build" >/dev/null
  "$cmake" -DPRSR_INSTALL_RPATH=ON "$build" >/dev/null
  for f in "$norpath"/usr/bin/* "$norpath/usr/$libdir"/libprsr.so.1 "$norpath/usr/$libdir"/prsr/*.so.1; do
    if readelf -d "$f" | grep -q 'R.*PATH'; then echo "run path left in $f" >&2; exit 1; fi
  done
  conf=$(cat "$norpath/etc/ld.so.conf.d/prsr-$ma.conf")
  [ "$conf" = "/usr/$libdir/prsr" ] || { echo "ld.so.conf.d file: $conf" >&2; exit 1; }
  exit 0 ;;
deb) ;;
*) echo "package_test.sh: unknown step $step" >&2; exit 2 ;;
esac

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
debs=()
for p in "${pkgs[@]}"; do
  debs+=("$(ls "$work"/debs/"${p}"_*.deb)")
done

# Each package holds its part: the runtime no header, the tools no library.
contents() { dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./|/|; s|/$||'; }
expect() { # deb path...
  local deb=$1; shift
  for f in "$@"; do
    contents "$deb" | grep -qx "$f" || { echo "$(basename "$deb") lacks $f" >&2; exit 1; }
  done
}
expect "${debs[0]}" "/usr/$libdir/libprsr.so.1" "/usr/$libdir/prsr/libhvsapi.so.1" \
  /usr/share/prsr/hvs.msg
expect "${debs[1]}" /usr/include/prsr/prsr.h /usr/include/prsr/util/keypath.h \
  "/usr/$libdir/libprsr.a" "/usr/$libdir/libprsrutil.a" "/usr/$libdir/libprsr.so" \
  "/usr/$libdir/prsr/libhvsapi.so" "/usr/$libdir/pkgconfig/libprsr.pc" \
  "/usr/$libdir/cmake/prsr/prsrConfig.cmake"
expect "${debs[2]}" /usr/bin/prsrctl /usr/bin/hvsctl /usr/share/man/man1/prsrctl.1 \
  /usr/share/bash-completion/completions/hvsctl
if contents "${debs[0]}" | grep -q '^/usr/include'; then echo "libprsr1 holds headers" >&2; exit 1; fi
if contents "${debs[2]}" | grep -q '\.so'; then echo "prsr-tools holds libraries" >&2; exit 1; fi

# What was there before: every path the packages hold, and dpkg's list.
for d in "${debs[@]}"; do contents "$d"; done | sort -u >"$work/paths"
exists() { while read -r p; do [ -e "$p" ] && echo "$p"; done <"$work/paths" || true; }
exists >"$work/before"
dpkg-query -W -f='${Package} ${db:Status-Status}\n' | sort >"$work/dpkg-before"

purge() { dpkg --purge "${pkgs[@]}" >"$work/purge.log" 2>&1; }
trap 'purge || cat "$work/purge.log"' EXIT
dpkg -i "${debs[@]}" >"$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }
"$cmake" -DSOURCE_DIR="$src" -DWORK_DIR="$work/deb" -DPREFIX=/usr -DLIBDIR="$libdir" \
  -P "$src/tests/tools/install_example.cmake"

trap - EXIT
purge || { cat "$work/purge.log"; exit 1; }
exists >"$work/after"
dpkg-query -W -f='${Package} ${db:Status-Status}\n' | sort >"$work/dpkg-after"
if ! diff -u "$work/before" "$work/after" || ! diff -u "$work/dpkg-before" "$work/dpkg-after"; then
  echo "package test: the system differs after the purge (above)" >&2
  exit 1
fi
echo "package test: packages installed, used and purged"

#!/usr/bin/env bash
# Installs the built library into a private prefix, then builds and runs a C
# host against the installed header and library. "deb" installs it the way a
# Debian user would get it instead: cpack builds the .deb, dpkg -x unpacks it
# into a scratch root, and the host is built through find_package.
#   run_consumer.sh <find_package|pkg-config|deb> <build-dir> <work-dir> <host.c> <cflags> <sanflags>
set -euo pipefail
method=$1 build=$2 work=$3 host=$4 cflags=${5:-} san=${6:-}
san=${san//;/ }
prefix=$work/prefix
rm -rf "$work" && mkdir -p "$work"
if [ "$method" = deb ]; then
  cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/pkg" > "$work/cpack.log"
  debs=("$work"/pkg/*.deb)
  [ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "no .deb was built" >&2; exit 1; }
  dpkg-deb --info "${debs[0]}" > "$work/info.log"
  dpkg -x "${debs[0]}" "$work/root"
  prefix=$work/root/usr
  # Everything a host and a user need must be in the package.
  for f in include/wrapperVantrelClass.h lib/cmake/Vantrel/VantrelConfig.cmake \
           lib/pkgconfig/vantrel.pc bin/vantrel-analyze bin/vantrel-siggen; do
    [ -e "$prefix/$f" ] || { echo "package lacks $f" >&2; exit 1; }
  done
  method=find_package
else
  cmake --install "$build" --prefix "$prefix" > "$work/install.log"
fi
libdir=$(find "$prefix" -name 'libvantrel.so*' -printf '%h\n' | head -n1)
case $method in
  find_package)
    mkdir -p "$work/src"
    cp "$host" "$work/src/host.c"
    cat > "$work/src/CMakeLists.txt" <<'CMK'
cmake_minimum_required(VERSION 3.25)
project(vantrel_consumer C)
find_package(Vantrel 1.0 REQUIRED)
add_executable(host host.c)
target_link_libraries(host PRIVATE Vantrel::vantrel m)
CMK
    cmake -S "$work/src" -B "$work/bin" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
          -DCMAKE_C_FLAGS="$cflags $san" -DCMAKE_EXE_LINKER_FLAGS="$san" > "$work/configure.log"
    cmake --build "$work/bin" > "$work/build.log"
    exe=$work/bin/host
    ;;
  pkg-config)
    export PKG_CONFIG_PATH=$libdir/pkgconfig
    # shellcheck disable=SC2046
    cc -std=c99 $cflags $san -o "$work/host" "$host" $(pkg-config --cflags --libs vantrel) -lm
    exe=$work/host
    ;;
  *) echo "unknown method $method" >&2; exit 2 ;;
esac
cd "$work"
LD_LIBRARY_PATH=$libdir "$exe" | tee "$work/run.log"
grep -q '^return code' "$work/run.log"
grep -q 'V1.0.0.202600811_X86_WIN64' "$work/run.log"
if [ -x "$prefix/bin/vantrel-analyze" ]; then
  LD_LIBRARY_PATH=$libdir "$prefix/bin/vantrel-analyze" --help | grep -q -- '--replay'
fi

#!/usr/bin/env bash
# Installs the built library into a private prefix, then builds and runs a C
# host against the installed header and library.
#   run_consumer.sh <find_package|pkg-config> <build-dir> <work-dir> <host.c> <cflags> <sanflags>
set -euo pipefail
method=$1 build=$2 work=$3 host=$4 cflags=${5:-} san=${6:-}
san=${san//;/ }
prefix=$work/prefix
rm -rf "$work" && mkdir -p "$work"
cmake --install "$build" --prefix "$prefix" > "$work/install.log"
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
    cmake -S "$work/src" -B "$work/bin" -DCMAKE_PREFIX_PATH="$prefix" \
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

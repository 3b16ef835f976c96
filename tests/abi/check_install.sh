#!/bin/sh
# Installs the build into a scratch prefix and builds a C program against
# the installed files three ways: pkg-config with the shared libraries, the
# static archives with the C driver alone, and the CMake package (a Release
# build); and a C++20 program over l2vfib.hpp, without exceptions or RTTI,
# through pkg-config and the CMake package. Each program runs with no device
# to talk to. CC and CXX name the compilers (gcc and g++ by default).
# Usage: check_install.sh <build dir> <consumer source dir>
set -eu
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
export L2VFIB_DEVICE_DIR="$tmp/device"
mkdir -p "$L2VFIB_DEVICE_DIR"
cc=${CC:-gcc} cxx=${CXX:-g++}
cflags="-std=c11 -Wall -Wextra -Wpedantic -Werror"
cxxflags="-std=c++20 -fno-exceptions -fno-rtti -Wall -Wextra -Werror"
pcdir=$(dirname "$(find "$prefix" -name l2vfib.pc)")
libdir=$(dirname "$pcdir")

PKG_CONFIG_PATH=$pcdir
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
$cc $cflags "$src/consumer.c" -o "$tmp/shared" $(pkg-config --cflags --libs l2vfib-host)
LD_LIBRARY_PATH=$libdir "$tmp/shared"
# shellcheck disable=SC2046
$cxx $cxxflags "$src/consumer.cpp" -o "$tmp/shared_cpp" $(pkg-config --cflags --libs l2vfib-host)
LD_LIBRARY_PATH=$libdir "$tmp/shared_cpp"

$cc $cflags -I"$prefix/include" "$src/consumer.c" -o "$tmp/static" \
    "$libdir/libl2vfib.a" "$libdir/libl2vfib_host.a"
"$tmp/static"

cmake -S "$src" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$tmp/cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$tmp/cmake/consumer"
LD_LIBRARY_PATH=$libdir "$tmp/cmake/consumer_cpp"
echo "check_install: ok"

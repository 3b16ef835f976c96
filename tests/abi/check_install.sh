#!/bin/sh
# Installs the build into a scratch prefix and builds a C program against
# the installed files three ways: pkg-config with the shared libraries, the
# static archives with the C driver alone, and the CMake package. Each
# program runs with no device to talk to.
# Usage: check_install.sh <build dir> <consumer source dir>
set -eu
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
export L2VFIB_DEVICE_DIR="$tmp/device"
mkdir -p "$L2VFIB_DEVICE_DIR"
cflags="-std=c11 -Wall -Wextra -Wpedantic -Werror"
pcdir=$(dirname "$(find "$prefix" -name l2vfib.pc)")
libdir=$(dirname "$pcdir")

PKG_CONFIG_PATH=$pcdir
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
gcc $cflags "$src/consumer.c" -o "$tmp/shared" $(pkg-config --cflags --libs l2vfib-host)
LD_LIBRARY_PATH=$libdir "$tmp/shared"

gcc $cflags -I"$prefix/include" "$src/consumer.c" -o "$tmp/static" \
    "$libdir/libl2vfib.a" "$libdir/libl2vfib_host.a"
"$tmp/static"

cmake -S "$src" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER=gcc >/dev/null
cmake --build "$tmp/cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$tmp/cmake/consumer"
echo "check_install: ok"

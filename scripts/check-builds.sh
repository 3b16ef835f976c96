#!/bin/sh
# A user's build, every way: each CMake build type with GCC and with Clang,
# configured with nothing but the build type (no warnings as errors), built,
# installed, and a C and a C++ program built against the installed tree
# (tests/abi/check_install.sh). Each in a fresh build directory, removed
# after.
# Usage: check-builds.sh [JOBS]
set -eu
jobs=${1:-2}
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=""
for compilers in gcc:g++ clang-14:clang++-14; do
    cc=${compilers%%:*} cxx=${compilers#*:}
    for type in Debug Release RelWithDebInfo MinSizeRel; do
        build="$work/$cc-$type"
        printf '== %s %s: ' "$cc" "$type"
        if CC=$cc CXX=$cxx cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=$type >"$build.log" 2>&1 &&
            cmake --build "$build" -j"$jobs" >>"$build.log" 2>&1 &&
            CC=$cc CXX=$cxx sh "$top/tests/abi/check_install.sh" "$build" "$top/tests/abi/consumer" \
                >>"$build.log" 2>&1; then
            echo "built, installed, consumers ok ($(grep -c 'warning:' "$build.log") warnings)"
        else
            echo "FAILED"
            tail -20 "$build.log"
            failed="$failed $cc-$type"
        fi
        rm -rf "$build"
    done
done
if [ -n "$failed" ]; then
    echo "check-builds: failed:$failed" >&2
    exit 1
fi
echo "check-builds: every build type with both compilers: ok"

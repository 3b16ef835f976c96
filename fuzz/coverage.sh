#!/bin/sh
# Branch coverage of each parser's source, reached by its fuzzer's corpus:
# the seeds in fuzz/corpus/<name> and what the runs kept in
# build-fuzz/fuzz/run/<name>/corpus. Builds build-cov/ with clang's
# source-based coverage, replays every input once and prints llvm-cov's
# report per function of the sources that target parses (a source may hold
# functions its target does not reach: the sending half of reply.cpp).
#
#   sh fuzz/coverage.sh
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
cov=$root/build-cov
flags="-fprofile-instr-generate -fcoverage-mapping"
CC=clang CXX=clang++ cmake -S "$root" -B "$cov" -DL2VFIB_FUZZ=ON -DL2VFIB_TESTS=OFF \
    -DL2VFIB_EXAMPLES=OFF -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate >/dev/null
cmake --build "$cov" -j2 --target fuzz_reply fuzz_notice fuzz_frames fuzz_event fuzz_acdata >/dev/null
mkdir -p "$cov/prof"

sources() {
    case $1 in
    reply | notice) echo src/msg/reply.cpp ;;
    acdata) echo src/entry/acdata.cpp ;;
    event) echo src/event/dispatch.cpp ;;
    frames) echo src/msg/catalogue.cpp src/msg/head.cpp src/enc/*.cpp ;;
    esac
}

for name in reply notice frames event acdata; do
    dirs=$root/fuzz/corpus/$name
    run=$root/build-fuzz/fuzz/run/$name/corpus
    [ -d "$run" ] && dirs="$dirs $run"
    # shellcheck disable=SC2086
    LLVM_PROFILE_FILE=$cov/prof/$name.profraw "$cov/fuzz/fuzz_$name" -runs=0 $dirs \
        >/dev/null 2>&1
    llvm-profdata merge -sparse "$cov/prof/$name.profraw" -o "$cov/prof/$name.profdata"
    echo "== fuzz_$name"
    # shellcheck disable=SC2046
    (cd "$root" && llvm-cov report "$cov/fuzz/fuzz_$name" -instr-profile="$cov/prof/$name.profdata" \
        -show-functions $(sources "$name")) | grep -v -e '^---' -e '^$' -e '^TOTAL'
done

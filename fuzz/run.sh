#!/bin/sh
# Runs each fuzzer for a while from its seed corpus.
#
#   sh fuzz/run.sh BUILD_FUZZ_DIR [SECONDS] [FUZZER...]
#
# BUILD_FUZZ_DIR is the build tree's fuzz/ folder (where fuzz_reply lies).
# New inputs go to BUILD_FUZZ_DIR/run/<name>/corpus, crashes to
# BUILD_FUZZ_DIR/run/<name>/; the seeds in fuzz/corpus/<name> are only read.
# Stops at the first fuzzer that fails.
set -eu
bin=${1:?usage: run.sh BUILD_FUZZ_DIR [SECONDS] [FUZZER...]}
seconds=${2:-20}
[ $# -ge 2 ] && shift 2 || shift $#
fuzzers=${*:-reply notice frames event decode}
src=$(cd "$(dirname "$0")" && pwd)

for name in $fuzzers; do
    name=${name#fuzz_}
    work=$bin/run/$name
    mkdir -p "$work/corpus"
    seeds=$src/corpus/$name
    [ -d "$seeds" ] || seeds=
    echo "== fuzz_$name, ${seconds} s"
    # shellcheck disable=SC2086
    "$bin/fuzz_$name" -max_total_time="$seconds" -timeout=10 -max_len=4096 \
        -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" $seeds
done

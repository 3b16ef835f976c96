#!/bin/sh
# Counts the instructions of every benchmark case under callgrind and prints
# one table: instructions per message for the library, libmnl and the copy
# limit, their ratios, and the sends per message of the library against the
# limit's. libmnl is measured twice: as a daemon uses it, converting the
# same host-order records (the baseline), and, in the columns marked
# "ready", handed its values ready in network order (the baseline before;
# kept for one release). Each call is measured through the C function and through the C++
# face (the row named with _cpp behind); a second table sets the two side by
# side.
#
#   sh bench/callgrind.sh BUILD_BENCH_DIR [CALLS]
#
# BUILD_BENCH_DIR is the build tree's bench/ folder (where l2vfib_bench
# lies). Each case runs CALLS calls (default 2000; a case that yields several
# messages a call runs CALLS / messages calls), counted inside bench_loop
# alone, so start-up and capture cost nothing.
set -eu
bin=${1:?usage: callgrind.sh BUILD_BENCH_DIR [CALLS]}/l2vfib_bench
calls=${2:-2000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Instructions counted inside bench_loop, and what the loop printed.
count() {
    out=$(valgrind --tool=callgrind --callgrind-out-file="$work/cg" \
        --collect-atstart=no --toggle-collect=bench_loop "$bin" --loop "$1" "$2" "$3" 2>/dev/null)
    ir=$(sed -n 's/^totals: \([0-9]*\).*/\1/p' "$work/cg")
    echo "$ir $out"
}

for name in $("$bin" --cases); do
    # Messages one call yields, from a short run of the copy limit.
    set -- $("$bin" --loop "$name" limit 1)
    per=$1
    n=$((calls / per))
    [ "$n" -ge 10 ] || n=10
    echo "$name $per $n $(count "$name" l2vfib $n) $(count "$name" libmnl $n)" \
        "$(count "$name" libmnl_ready $n) $(count "$name" limit $n)"
done > "$work/rows"

awk '
function r(a, b) { return b > 0 ? sprintf("%.2f", a / b) : "-" }
function s(x) { return x > 0 ? sprintf("%.4f", x) : "-" }
BEGIN {
    f = "%-20s %5s %9s %9s %9s %9s %8s %8s %8s %9s %9s\n"
    printf f, "case", "msg/c", "l2vfib", "libmnl", "libmnl", "limit", "/libmnl", "/libmnl",
        "/limit", "sends/msg", "limit"
    printf f, "", "", "", "", "ready", "", "", "ready", "", "l2vfib", "sends/msg"
    printf f, "", "", "instr/msg", "instr/msg", "instr/msg", "instr/msg", "", "", "", "", ""
}
{
    # name per calls | ir msgs sends: l2vfib | libmnl | libmnl ready | limit
    m = $2 * $3
    lib = $4 / m; mnl = $7 / m; ready = $10 / m; lim = $13 / m
    printf "%-20s %5d %9.1f %9.1f %9.1f %9.1f %8s %8s %8s %9s %9s\n", $1, $2, lib, mnl, ready,
        lim, r(lib, mnl), r(lib, ready), r(lib, lim), s($6 / m), s($15 / m)
    perMsg[$1] = lib
    if ($1 !~ /_cpp$/) order[++n] = $1
}
END {
    printf "\n%-20s %9s %9s %9s\n", "call", "C", "C++ face", "C++ - C"
    printf "%-20s %9s %9s %9s\n", "", "instr/msg", "instr/msg", ""
    for (i = 1; i <= n; i++) {
        c = order[i]; f = c "_cpp"
        if (!(f in perMsg)) continue
        printf "%-20s %9.1f %9.1f %9.1f\n", c, perMsg[c], perMsg[f], perMsg[f] - perMsg[c]
    }
}' "$work/rows"

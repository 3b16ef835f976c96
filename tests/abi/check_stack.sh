#!/bin/sh
# The stack each exported function needs, from the compiler's call graphs
# (-fcallgraph-info=su): its own frame, and its deepest chain of calls inside
# the library. An indirect call (the catalogue's encoder table) counts as the
# deepest of the catalogue encoders; the platform, libc and the caller's
# callbacks count nothing. Prints one line per export; fails when a frame or
# a chain exceeds LIMIT bytes, or when an export has no frame on record.
#
#   sh check_stack.sh CORE_OBJECT_DIR VERSION_MAP [LIMIT]
set -eu
dir=${1:?usage: check_stack.sh CORE_OBJECT_DIR VERSION_MAP [LIMIT]}
map=${2:?usage: check_stack.sh CORE_OBJECT_DIR VERSION_MAP [LIMIT]}
limit=${3:-6144}
names=$(sed -n 's/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$map")
# shellcheck disable=SC2046
find "$dir" -name '*.ci' | sort | xargs cat | awk -v names="$names" -v limit="$limit" '
function title(line) { sub(/.*title: "/, "", line); sub(/".*/, "", line); return line }
function deepest(f,    i, d, best, t) {
    if (f in memo) return memo[f]
    if (f in busy) { recursive = recursive " " f; return 0 }
    busy[f] = 1
    best = 0
    for (i = 1; i <= ncalls[f]; i++) {
        t = callee[f, i]
        d = (t == "__indirect_call") ? deepestEncoder() : deepest(t)
        if (d > best) best = d
    }
    delete busy[f]
    memo[f] = frame[f] + best
    return memo[f]
}
function deepestEncoder(    f, d, best) {
    if (encoderDepth >= 0) return encoderDepth
    encoderDepth = 0
    for (f in frame) if (f ~ /^l2vfib_Enc/ && f != "l2vfib_EncodeCmd") { d = deepest(f); if (d > best) best = d }
    encoderDepth = best
    return best
}
BEGIN { encoderDepth = -1 }
/^node:/ {
    t = title($0)
    if (match($0, /[0-9]+ bytes \(/)) frame[t] = substr($0, RSTART, RLENGTH - 8) + 0
}
/^edge:/ {
    s = $0; sub(/.*sourcename: "/, "", s); sub(/".*/, "", s)
    t = $0; sub(/.*targetname: "/, "", t); sub(/".*/, "", t)
    callee[s, ++ncalls[s]] = t
}
END {
    n = split(names, list, "\n")
    printf "%-32s %7s %7s\n", "function", "frame", "deepest"
    for (i = 1; i <= n; i++) {
        f = list[i]
        if (!(f in frame)) { printf "%-32s no frame on record\n", f; bad = 1; continue }
        d = deepest(f)
        mark = (frame[f] > limit || d > limit) ? "  over " limit : ""
        if (mark != "") bad = 1
        printf "%-32s %7d %7d%s\n", f, frame[f], d, mark
    }
    if (recursive != "") print "note: recursion cut at its second visit:" recursive
    exit bad
}'

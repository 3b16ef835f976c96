#!/bin/sh
# Checks the built libraries' binary interface:
#   - libl2vfib.so exports exactly the names of the version script;
#   - libl2vfib.so needs no C++ runtime;
#   - libl2vfib.a defines none of the platform's names and needs them all
#     that the core uses;
#   - no object of the core has static constructors.
# Usage: check_binary.sh <libl2vfib.so> <libl2vfib.a> <version script> <platform header>
set -eu
so=$1 archive=$2 map=$3 header=$4
fail=0
say() { echo "check_binary: $*" >&2; fail=1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

sed -n '/global:/,/local:/p' "$map" | grep -oE '[A-Za-z_][A-Za-z0-9_]*;' | tr -d ';' | sort >"$tmp/want"
nm -D --defined-only "$so" | awk '$2 ~ /^[TDBRW]$/ {print $3}' | sed 's/@.*//' | sort >"$tmp/have"
if ! cmp -s "$tmp/want" "$tmp/have"; then
    say "exported names differ from the version script:"
    diff "$tmp/want" "$tmp/have" >&2 || true
fi
[ -s "$tmp/want" ] || say "version script lists no names"

if readelf -d "$so" | grep NEEDED | grep -qE 'libstdc\+\+|libc\+\+'; then
    say "$so needs a C++ runtime:"
    readelf -d "$so" | grep NEEDED >&2
fi

grep -oE '\b(CIOCTL|(STLV|CIOCTL|DEV|IF|LIP|TUNNEL|SKT)_[A-Za-z_]*)\(' "$header" | tr -d '(' |
    sort -u >"$tmp/platform"
[ "$(wc -l <"$tmp/platform")" -eq 14 ] || say "expected 14 platform names in $header"
nm --defined-only "$archive" 2>/dev/null | awk 'NF == 3 {print $3}' | sort -u >"$tmp/defined"
defined=$(comm -12 "$tmp/platform" "$tmp/defined")
[ -z "$defined" ] || say "libl2vfib.a defines platform names: $defined"
nm --undefined-only "$archive" 2>/dev/null | awk '{print $NF}' | sort -u >"$tmp/undefined"
for name in STLV_Set STLV_Get SKT_Socket SKT_Connect SKT_Send SKT_Recv CIOCTL; do
    grep -qx "$name" "$tmp/undefined" || say "libl2vfib.a does not call $name through the platform"
done

if readelf -S -W "$archive" | grep -qE '\.init_array|\.ctors'; then
    say "an object of libl2vfib.a has static constructors"
fi

[ $fail -eq 0 ] && echo "check_binary: ok"
exit $fail

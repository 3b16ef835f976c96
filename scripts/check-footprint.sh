#!/bin/sh
# Prints the text size of a built libl2vfib.so (code, read-only data and the
# dynamic tables: the "text" of size(1)) and fails when it exceeds BUDGET
# bytes.
#
#   sh scripts/check-footprint.sh LIBRARY [BUDGET] [SIZE_TOOL]
set -eu
lib=${1:?usage: check-footprint.sh LIBRARY [BUDGET] [SIZE_TOOL]}
budget=${2:-24576}
size=${3:-size}
text=$("$size" -B "$lib" | awk 'NR == 2 { print $1 }')
code=$("$size" -A "$lib" | awk '$1 == ".text" { print $2 }')
echo "footprint: $(basename "$lib") text $text bytes (.text $code), budget $budget"
if [ "$text" -gt "$budget" ]; then
    echo "footprint: over budget by $((text - budget)) bytes" >&2
    exit 1
fi

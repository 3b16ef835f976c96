#!/bin/sh
# Writes the seed corpora of fuzz_reply and fuzz_notice (a few hand-made
# messages each) into corpus/. Run again after changing a seed.
#
# Every seed is an 8-byte header (object type, payload length, tag, opcode,
# byte 7) followed by items of a 2-byte type and a 2-byte length.
set -eu
cd "$(dirname "$0")/corpus"
rm -rf reply notice
mkdir -p reply notice

seed() { printf "$2" > "$1"; }

# Replies.
seed reply/result-ok          '\000\001\000\010\000\000\001\010\000\045\000\004\000\000\000\000'
seed reply/result-error       '\000\001\000\010\000\000\001\010\000\045\000\004\100\001\000\001'
seed reply/identifier         '\000\035\000\010\000\000\005\010\000\270\000\004\000\000\022\064'
seed reply/two-items          '\000\001\000\020\000\000\001\010\000\045\000\004\000\000\000\007\000\270\000\004\000\000\000\011'
seed reply/other-item         '\000\001\000\010\000\000\001\010\000\044\000\004\000\000\000\001'
seed reply/eleven-bytes       '\000\001\000\003\000\000\001\010\000\045\000'
seed reply/length-overrun     '\000\001\000\011\000\000\001\010\000\045\000\004\000\000\000\000'
seed reply/item-overrun       '\000\001\000\010\000\000\001\010\000\045\000\010\000\000\000\000'
seed reply/short-value        '\000\001\000\006\000\000\001\010\000\045\000\002\000\001'

# Notices.
seed notice/value             '\000\000\000\010\000\000\000\000\000\044\000\004\000\000\000\007'
seed notice/value-and-more    '\000\000\000\014\000\000\000\000\000\044\000\004\377\377\377\377\000\045\000\000'
seed notice/result-item       '\000\000\000\010\000\000\000\000\000\045\000\004\000\000\000\007'
seed notice/ten-bytes         '\000\000\000\002\000\000\000\000\000\044'
seed notice/eight-bytes       '\000\000\000\000\000\000\000\000'
seed notice/length-overrun    '\000\000\000\011\000\000\000\000\000\044\000\004\000\000\000\007'
seed notice/item-overrun      '\000\000\000\010\000\000\000\000\000\044\000\005\000\000\000\007'
seed notice/short-value       '\000\000\000\006\000\000\000\000\000\044\000\002\000\007'

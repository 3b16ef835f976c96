#!/bin/sh
# Writes the seed corpora of fuzz_reply, fuzz_notice, fuzz_event, fuzz_acdata
# and fuzz_decode (a few hand-made messages each) into corpus/. Run again after
# changing a seed.
#
# Every seed is an 8-byte header (object type, payload length, tag, opcode,
# byte 7) followed by items of a 2-byte type and a 2-byte length.
set -eu
cd "$(dirname "$0")/corpus"
rm -rf reply notice event acdata decode
mkdir -p reply notice event acdata decode

seed() { printf "$2" > "$1"; }
# The same from hex bytes, in one argument or many: hexseed FILE "00 0a ..."
hexseed() {
    name=$1
    shift
    # shellcheck disable=SC2048
    for b in $*; do printf "\\$(printf %03o "0x$b")"; done > "$name"
}

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

# Events.
seed event/three-items    '\000\024\000\104\001\002\007\011\000\003\000\006\012\013\014\015\001\002\000\011\000\002\377\377\000\002\000\060\000\000\000\001\000\000\000\002\135\253\003\004\000\000\000\005\000\000\000\006\000\000\000\007\010\011\315\357\012\013\014\015\020\021\022\023\024\025\026\027\030\031\032\033\034\035\036\037'
seed event/long-value     '\253\315\000\064\377\376\000\000\000\006\000\054\021\022\023\024\041\042\043\044\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\063\104\104\104\104\000\003\000\000'
seed event/unknown-only   '\000\024\000\010\000\000\000\000\000\007\000\004\000\000\000\001'
seed event/short-payload  '\000\024\000\004\000\000\000\000\000\003\000\000\000\000\000\000'
seed event/length-overrun '\000\024\000\015\000\000\000\000\000\003\000\006\012\013\014\015\001\002\000\000'
seed event/item-cut       '\000\024\000\015\000\000\000\000\000\003\000\006\012\013\014\015\001\002\000\003\000'

# AC data answers: 12-byte head (length L), 8-byte head (length P), count
# item (N), entry item (N entries).
hexseed acdata/entries-16 "00 00 00 34 00 00 00 00 00 00 00 00 00 00 00 2c 00 00 00 00
  00 01 00 04 00 00 00 02 00 02 00 20 00 00 00 01 00 05 06 07 00 08 00 09 00 00 00 0a
  8a 8b 8c 8d 8e 8f 90 91 92 93 94 95 96 97 98 99"
hexseed acdata/entries-5 "00 00 00 1f 00 00 00 00 00 00 00 00 00 00 00 17 00 00 00 00
  00 01 00 04 00 00 00 02 00 02 00 0b 01 02 03 04 05 11 12 13 14 15 ff"
hexseed acdata/no-entries "00 00 00 10 00 00 00 00 00 00 00 00 00 00 00 08 00 00 00 00
  00 01 00 04 00 00 00 00"
hexseed acdata/count-short "00 00 00 0f 00 00 00 00 00 00 00 00 00 00 00 07 00 00 00 00
  00 01 00 03 00 00 00"
hexseed acdata/too-many "00 00 00 14 00 00 00 00 00 00 00 00 00 00 00 0c 00 00 00 00
  00 01 00 04 00 00 00 ff 00 02 00 00"

# Decoder: a direction byte (0 to the service, 1 from it, 2 to the event
# service, 3 from it; 4 a control input, 5 a control answer, the code
# chosen by byte / 6), then the datagram, written in hex.
hexseed decode/pw-add 00 00 03 00 2c 00 00 05 03 00 0a 00 08 00 00 00 07 00 01 00 00 \
    00 0d 00 1c 01 02 03 04 05 06 07 08 00 00 00 00 00 00 00 09 00 00 00 0a 00 0b 00 0c 00 0d 0e 00
hexseed decode/two-messages 00 00 03 00 0c 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 00 \
    00 20 00 10 00 00 05 08 00 9a 00 04 00 00 00 2a 00 9c 00 04 00 00 00 01
hexseed decode/catalogue 00 00 01 00 08 00 00 01 08 00 64 00 04 00 00 00 07
hexseed decode/ac-flag 00 00 10 00 04 00 03 11 00 00 00 00 00 00 0d 00 00
hexseed decode/ac-data-answer 01 00 11 00 24 00 20 12 00 00 00 00 00 00 11 00 1c 00 00 12 00 \
    00 01 00 04 00 00 00 01 00 14 00 10 00 00 00 01 00 02 03 04 00 05 00 06 00 00 00 07
hexseed decode/reply 01 00 01 00 08 00 00 01 08 00 25 00 04 00 00 00 00
hexseed decode/event-reg 02 00 14 00 20 00 00 05 00 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 \
    10 10 00 03 00 04 00 08 00 00 00 09 10 10 00 03
hexseed decode/event 03 00 14 00 1f 01 02 05 00 00 03 00 06 00 00 00 01 00 02 00 09 00 01 ab \
    00 02 00 0c 00 00 00 05 00 00 00 06 5d 00 00 07
hexseed decode/mac-reset 0a 00 0a 00 08 00 00 01 08 00 22 00 04 00 00 01 02
hexseed decode/caps 05 00 00 00 00 00 00 00 00 04 02 05 06 00 00 00 00 00 00 00 00 00 00 00 00 \
    00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03

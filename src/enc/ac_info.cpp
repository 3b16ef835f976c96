// The attachment circuit's information value (TLV 22):
//
//    0      2      4        8    9       12       16          24
//   +------+------+--------+----+-------+--------+-----------+
//   | half0| 00 00| word0  |byte| 00x3  | word1  | 00 x 8    |
//   | be16 |      | be32   |  0 |       | be32   |           |
//   +------+------+--------+----+-------+--------+-----------+
//    24            32       36       40      42      44      48       48 + 4c
//   +-------------+--------+--------+-------+-------+-------+----------+
//   | attr64 be64 | word2  | 00 x 4 | half1 | half2 | 00 x 4| FF x 4c  |
//   +-------------+--------+--------+-------+-------+-------+----------+
//
// The record's two reserved areas are never read; their bytes go as 0.
#include "enc/ac_info.h"

#include <cstring>

#include "msg/wire.h"

namespace l2vfib {

void PutAcInfo(uint8_t *value, const L2VFIB_AcInfo &info, uint32_t fillWords) {
    std::memset(value, 0, kAcInfoFixed);
    PutBe16(value, info.half0);
    PutBe32(value + 4, info.word0);
    value[8] = info.byte0;
    PutBe32(value + 12, info.word1);
    PutBe64(value + 24, info.attr64);
    PutBe32(value + 32, info.word2);
    PutBe16(value + 40, info.half1);
    PutBe16(value + 42, info.half2);
    if (fillWords != 0) std::memset(value + kAcInfoFixed, 0xFF, 4 * fillWords);
}

}  // namespace l2vfib

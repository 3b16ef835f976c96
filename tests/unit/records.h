// Argument records shared by the encoder and catalogue tests. Every number
// has its top bit set, so a sign extension or a swapped byte shows, and the
// two records of each kind differ, so reading arg1 for arg2 shows.
#ifndef L2VFIB_TESTS_RECORDS_H
#define L2VFIB_TESTS_RECORDS_H

#include <cstdint>
#include <cstring>

#include "l2vfib.h"

namespace l2vt {

inline const uint32_t kWordA = 0x8899AABBu;  // wire: 88 99 aa bb
inline const uint32_t kWordB = 0xF1E2D3C4u;  // wire: f1 e2 d3 c4
inline const uint16_t kHalf = 0x8A1B;        // wire: 8a 1b
inline const uint16_t kHalfDecoy = 0x0102;
inline const L2VFIB_WordPair kPairA = {0x0A0B0C0Du, 0x8E8F9091u};
inline const L2VFIB_WordPair kPairB = {0x91929394u, 0x05060708u};  // wire: 91 92 93 94 05 06 07 08

// Keys whose bytes behind subId are all 0xFF: only id and subId are read.
struct Keys {
    L2VFIB_EntryKey a, b;
    Keys() {
        std::memset(&a, 0xFF, sizeof a);
        std::memset(&b, 0xFF, sizeof b);
        a.id = 0x01020304u;  // wire: 01 02 03 04 05 06 00 00
        a.subId = 0x0506;
        b.id = 0xC1C2C3C4u;  // wire: c1 c2 c3 c4 c5 c6 00 00
        b.subId = 0xC5C6;
    }
};
inline const Keys kKeys;

}  // namespace l2vt

#endif

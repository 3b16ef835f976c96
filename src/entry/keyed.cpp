// Keyed messages: the pseudowire, MAC-in-MAC and MAC withdraw messages are
// a header, one key item and an optional block of the caller's.
//
//    0          8              12                  20               20 + n
//   +----------+--------------+---------+----+----+----------------+
//   | header   | type | 00 08 | id      |subId|0 0| block (n bytes) |
//   | 8 bytes  | be16 |       | be32    |be16 |   | unchanged       |
//   +----------+--------------+---------+----+----+----------------+
//
// The key type is 10 for pseudowires and withdraws, 40 for MAC-in-MAC.
#include <cstring>

#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/state.h"
#include "msg/wire.h"

namespace l2vfib {

namespace {
constexpr uint32_t kKeySize = 8;
constexpr uint32_t kKeyedSize = 8 + 4 + kKeySize;
}  // namespace

uint32_t QueueKeyed(int32_t socket, uint32_t kind, uint32_t byte7,
                    const L2VFIB_EntryKey *key, const void *block, uint32_t length) {
    if (key == nullptr || (block == nullptr && length != 0)) return L2VFIB_ERR_FAIL;
    // Counted in 32 bits: a block near 65535 bytes is too long, never short.
    Append append{};
    const uint32_t result = AppendBegin(socket, kKeyedSize + length, &append);
    if (result != L2VFIB_OK) return result;
    PutKey(AppendItem(append, kind & 0xFF, kKeySize), *key);
    if (length != 0) std::memcpy(append.pos, block, length);
    append.pos += length;
    AppendEnd(append, kind >> 16, kind >> 8 & 0xFF, byte7);
    return L2VFIB_OK;
}

}  // namespace l2vfib

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

// Writes the message at msg, which has room for it: the header, the key's
// value and the block first, then the key item's header through the codec,
// its last call, so nothing is kept across a call but the block's copy.
// (Inline: the path of a message that fits ends in it.)
inline void WriteKeyed(uint8_t *msg, uint32_t kind, uint32_t byte7, const L2VFIB_EntryKey &key,
                       const void *block, uint32_t length) {
    PutMsgHead(msg, kind >> 16, kItemHead + kKeySize + length, kind >> 8 & 0xFF, byte7);
    PutKey(msg + kHeadSize + kItemHead, key);
    if (length != 0) std::memcpy(msg + kKeyedSize, block, length);
    (void)STLV_Set(msg + kHeadSize, kItemHead + kKeySize, kind & 0xFF, kKeySize, nullptr);
}

// The message that does not fit behind the queue: the queue is sent without
// blocking (a message longer than the whole area is refused first) and the
// message goes at the start of the emptied area. Out of line, so the path
// of a message that fits saves no register.
[[gnu::noinline]] uint32_t QueueKeyedAfterFlush(int32_t socket, uint32_t kind, uint32_t byte7,
                                                const L2VFIB_EntryKey *key, const void *block,
                                                uint32_t length) {
    const uint32_t result = AppendMakeRoom(socket, kKeyedSize + length);
    if (result != L2VFIB_OK) return result;
    l2vfib_Batch->used = static_cast<uint16_t>(kKeyedSize + length);
    WriteKeyed(l2vfib_Batch->area, kind, byte7, *key, block, length);
    return L2VFIB_OK;
}

}  // namespace

uint32_t QueueKeyed(int32_t socket, uint32_t kind, uint32_t byte7,
                    const L2VFIB_EntryKey *key, const void *block, uint32_t length) {
    if (key == nullptr || (block == nullptr && length != 0)) return L2VFIB_ERR_FAIL;
    L2VFIB_BatchBuf *batch = l2vfib_Batch;
    if (batch == nullptr) return L2VFIB_ERR_NOT_OPEN;
    // Counted in 32 bits: a block near 65535 bytes is too long, never short.
    const uint32_t needed = kKeyedSize + length;
    const uint32_t used = batch->used;
    if (needed > L2VFIB_BATCH_SIZE - used)
        return QueueKeyedAfterFlush(socket, kind, byte7, key, block, length);
    batch->used = static_cast<uint16_t>(used + needed);
    WriteKeyed(batch->area + used, kind, byte7, *key, block, length);
    return L2VFIB_OK;
}

}  // namespace l2vfib

// EBG designated forwarder entries: one 28-byte message each, object type
// 31, opcode 5 add or 7 delete.
//
//    0        8           12      16      20      24      28
//   +--------+-----------+-------+-------+-------+-------+
//   | header | 153, 16   | word0 | word1 | word2 | word3 |
//   |        |           | be32  | be32  | be32  | be32  |
//   +--------+-----------+-------+-------+-------+-------+
#include "l2vfib.h"
#include "msg/state.h"
#include "msg/wire.h"
#include "overlay/overlay.h"

namespace {

constexpr uint32_t kObjType = 31;
constexpr uint32_t kItem = 153, kLength = 16;
constexpr uint32_t kNeeded = 28;

}  // namespace

extern "C" {

// L2VFIB_OK; L2VFIB_ERR_FAIL for a null entry (nothing sent or written) or a
// failed flush for room (nothing written); L2VFIB_ERR_NOT_OPEN with no
// batch buffer.
L2VFIB_API uint32_t l2vfib_SendEbgDfEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                          const L2VFIB_EbgDfEntry *entry) {
    if (entry == nullptr) return L2VFIB_ERR_FAIL;
    l2vfib::Append append{};
    const uint32_t result = l2vfib::AppendBegin(socket, kNeeded, &append);
    if (result != L2VFIB_OK) return result;
    uint8_t *value = l2vfib::AppendItem(append, kItem, kLength);
    l2vfib::PutBe32(value, entry->word0);
    l2vfib::PutBe32(value + 4, entry->word1);
    l2vfib::PutBe32(value + 8, entry->word2);
    l2vfib::PutBe32(value + 12, entry->word3);
    l2vfib::AppendEnd(append, kObjType, opcode, byte7);
    return L2VFIB_OK;
}

// Opcode 5 and 7. Results as l2vfib_SendEbgDfEntry.
L2VFIB_API uint32_t L2VFIB_AddEBGDf(int32_t socket, uint32_t byte7, const L2VFIB_EbgDfEntry *entry) {
    return l2vfib_SendEbgDfEntry(socket, byte7, 5, entry);
}

L2VFIB_API uint32_t L2VFIB_DelEBGDf(int32_t socket, uint32_t byte7, const L2VFIB_EbgDfEntry *entry) {
    return l2vfib_SendEbgDfEntry(socket, byte7, 7, entry);
}

}  // extern "C"

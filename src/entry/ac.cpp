// Attachment circuits: add (opcode 5) and delete (opcode 7) of object type
// 6, header byte 7 always 0. Whether a message is an add is decided by the
// information record alone: without one it is a delete.
//
//    0        8              20              24           72 + 4c        84 + 4c
//   +--------+--------------+---------------+------------+--------------+
//   | header | TLV 20, 8    | TLV 22 header | TLV 22     | TLV 144, 8   |
//   |        | key          | 48 + 4c       | value      | option       |
//   +--------+--------------+---------------+------------+--------------+
//             (a delete ends here)           c = fillWords22; the option
//                                            item only when one is given
//
// TLV 22's value is drawn in src/enc/ac_info.cpp. TLV 144: half0, half1,
// half2, half3, each big-endian.
#include "enc/ac_info.h"
#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/state.h"
#include "msg/wire.h"

namespace {

constexpr uint32_t kObjAc = 6;
constexpr uint32_t kKeyItem = 20;
constexpr uint32_t kInfoItem = 22;
constexpr uint32_t kOptionItem = 144;

}  // namespace

extern "C" {

// The worker behind both exported functions. Returns L2VFIB_OK;
// L2VFIB_ERR_NOT_OPEN when the library is not open; L2VFIB_ERR_FAIL for a
// null key, a fillWords22 above 52 on an add, or a flush for room that
// failed. The count bound is tested before the batch is touched.
uint32_t l2vfib_SendAcEntry(int32_t socket, const L2VFIB_EntryKey *key, const L2VFIB_AcInfo *info,
                            const L2VFIB_AcOption *option) {
    if (key == nullptr) return L2VFIB_ERR_FAIL;
    if (info == nullptr)
        return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjAc, l2vfib::kOpDelete, kKeyItem), 0, key, nullptr, 0);

    const uint32_t c = l2vfib_Caps.fillWords22;
    const uint32_t infoLength = l2vfib::AcInfoLength(c);
    if (infoLength == 0) return L2VFIB_ERR_FAIL;
    l2vfib::Append append{};
    const uint32_t needed = 8 + 12 + 4 + infoLength + (option != nullptr ? 12 : 0);
    const uint32_t result = l2vfib::AppendBegin(socket, needed, &append);
    if (result != L2VFIB_OK) return result;

    l2vfib::PutKey(l2vfib::AppendItem(append, kKeyItem, 8), *key);
    l2vfib::PutAcInfo(l2vfib::AppendItem(append, kInfoItem, infoLength), *info, c);
    if (option != nullptr) {
        uint8_t *opt = l2vfib::AppendItem(append, kOptionItem, 8);
        l2vfib::PutBe16(opt, option->half0);
        l2vfib::PutBe16(opt + 2, option->half1);
        l2vfib::PutBe16(opt + 4, option->half2);
        l2vfib::PutBe16(opt + 6, option->half3);
    }
    l2vfib::AppendEnd(append, kObjAc, l2vfib::kOpAdd, 0);
    return L2VFIB_OK;
}

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key, a fillWords22 above 52 on an add, or a
// flush for room that failed.
L2VFIB_API uint32_t L2VFIB_AddAcEntry(int32_t socket, const L2VFIB_EntryKey *key,
                                      const L2VFIB_AcInfo *info, const L2VFIB_AcOption *option) {
    return l2vfib_SendAcEntry(socket, key, info, option);
}

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key or a flush for room that failed.
L2VFIB_API uint32_t L2VFIB_DelAcEntry(int32_t socket, const L2VFIB_EntryKey *key) {
    return l2vfib_SendAcEntry(socket, key, nullptr, nullptr);
}

}  // extern "C"

// The TLV codec of the device's platform.
//
//    0        2         4
//   +--------+---------+---------------------+
//   | type   | length  | value               |
//   | be16   | be16    | length bytes        |
//   +--------+---------+---------------------+
//
// STLV_Set refuses before it writes: nothing is stored unless the whole
// item fits the room and both numbers fit 16 bits.
#include <cstdint>
#include <cstring>

#include "l2vfib_platform.h"

namespace {
constexpr uint32_t kItemHead = 4;
}

extern "C" uint32_t STLV_Set(void *buffer, uint32_t room, uint32_t type, uint32_t length,
                             const void *value) {
    if (buffer == nullptr || type > 0xFFFFu || length > 0xFFFFu) return 0;
    if (room < kItemHead || room - kItemHead < length) return 0;
    auto *p = static_cast<uint8_t *>(buffer);
    p[0] = static_cast<uint8_t>(type >> 8);
    p[1] = static_cast<uint8_t>(type);
    p[2] = static_cast<uint8_t>(length >> 8);
    p[3] = static_cast<uint8_t>(length);
    if (value != nullptr && length != 0) std::memmove(p + kItemHead, value, length);
    return kItemHead + length;
}

extern "C" uint32_t STLV_Get(const void *buffer, uint32_t length, uint32_t *type,
                             uint32_t *itemLength, const void **value) {
    if (value != nullptr) *value = nullptr;
    if (buffer == nullptr || length < kItemHead) return 0;
    const auto *p = static_cast<const uint8_t *>(buffer);
    const uint32_t itemType = (static_cast<uint32_t>(p[0]) << 8) | p[1];
    const uint32_t valueLength = (static_cast<uint32_t>(p[2]) << 8) | p[3];
    if (length - kItemHead < valueLength) return 0;
    if (type != nullptr) *type = itemType;
    if (itemLength != nullptr) *itemLength = valueLength;
    if (value != nullptr) *value = p + kItemHead;
    return 1;
}

// Event reception: one datagram from the event socket, read without
// waiting, whose items of types 2, 3 and 6 reach the event callback as
// fixed records in host byte order.
//
// Event datagram (at most 1400 bytes are read):
//
//    0        2          4       6        8
//   +--------+----------+-------+--------+---------------------------+
//   | any    |payloadLen| tag   | any    | TLV items, payloadLen     |
//   |        | be16     | be16  |        | bytes                     |
//   +--------+----------+-------+--------+---------------------------+
//
// Item values, as far as the library converts them (b = big-endian, turned
// to host order; r = raw, left as received). A value shorter than its
// record is padded with zeros, a longer one is cut.
//
//   type 3, 12 bytes      0      4      8    10   12
//                         | b32  | b32  | b16| r  |
//
//   type 6, 40 bytes      0      4      8                     40
//                         | b32  | b32  | r (32 bytes)        |
//
//   type 2, 48 bytes      0      4      8    9    10   12     16     20
//                         | b32  | b32  |kind| r  | b16| b32  | b32  |
//                        20     24   26   28     32     36     40     44     48
//                         | b32  | b16| r  | k32  | k32  | r    | k32  | k32  |
//
//   k32: big-endian when kind is 93, otherwise raw.
#include <sys/socket.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "event/event.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/wire.h"

namespace {

constexpr uint32_t kItemRecord2 = 2;
constexpr uint32_t kItemRecord3 = 3;
constexpr uint32_t kItemRecord6 = 6;
constexpr uint8_t kKindNumbers = 93;

static_assert(sizeof(L2VFIB_EvtRecord2) == 48 && offsetof(L2VFIB_EvtRecord2, kind) == 8 &&
              offsetof(L2VFIB_EvtRecord2, half1) == 24 &&
              offsetof(L2VFIB_EvtRecord2, word5) == 28 && offsetof(L2VFIB_EvtRecord2, word7) == 40);
static_assert(sizeof(L2VFIB_EvtRecord3) == 12 && offsetof(L2VFIB_EvtRecord3, half0) == 8);
static_assert(sizeof(L2VFIB_EvtRecord6) == 40 && offsetof(L2VFIB_EvtRecord6, raw0) == 8);

// Zeroes the record and copies as much of the value into it as both hold.
template <typename Record>
void Fill(Record *record, const void *value, uint32_t length) {
    std::memset(record, 0, sizeof *record);
    std::memcpy(record, value, length < sizeof *record ? length : sizeof *record);
}

// Turns a field holding wire bytes into its host-order number.
void ToHost(uint32_t *field) {
    uint8_t bytes[4];
    std::memcpy(bytes, field, sizeof bytes);
    *field = l2vfib::GetBe32(bytes);
}
void ToHost(uint16_t *field) {
    uint8_t bytes[2];
    std::memcpy(bytes, field, sizeof bytes);
    *field = l2vfib::GetBe16(bytes);
}

// Decodes a known item and hands it to the event callback: the callback's
// result, or L2VFIB_OK when none is installed. Any other item is passed
// over and leaves result as it was.
uint32_t Dispatch(uint32_t tag, uint32_t type, const void *value, uint32_t length,
                  uint32_t result) {
    union {
        L2VFIB_EvtRecord2 r2;
        L2VFIB_EvtRecord3 r3;
        L2VFIB_EvtRecord6 r6;
    } record;
    const void *decoded = &record;
    switch (type) {
        case kItemRecord3:
            Fill(&record.r3, value, length);
            ToHost(&record.r3.word0);
            ToHost(&record.r3.word1);
            ToHost(&record.r3.half0);
            break;
        case kItemRecord6:
            Fill(&record.r6, value, length);
            ToHost(&record.r6.word0);
            ToHost(&record.r6.word1);
            break;
        case kItemRecord2: {
            L2VFIB_EvtRecord2 *r = &record.r2;
            Fill(r, value, length);
            for (uint32_t *word : {&r->word0, &r->word1, &r->word2, &r->word3, &r->word4})
                ToHost(word);
            ToHost(&r->half0);
            ToHost(&r->half1);
            if (r->kind == kKindNumbers)
                for (uint32_t *word : {&r->word5, &r->word6, &r->word7, &r->word8}) ToHost(word);
            break;
        }
        default:
            return result;
    }
    L2VFIB_EvtCallback *callback = l2vfib_EventCallback;
    return callback == nullptr ? L2VFIB_OK : callback(tag, decoded);
}

}  // namespace

extern "C" {

// Reads one event datagram without waiting and dispatches its items, in
// order, one callback call per item of type 2, 3 or 6. Returns:
//   L2VFIB_ERR_NO_DATA  nothing to read, or the receive failed;
//   L2VFIB_ERR_FAIL     payloadLen below 8, no whole first item, or no
//                       item of a known type;
//   L2VFIB_ERR_BAD_MSG  payloadLen beyond the bytes received after the
//                       header (no callback is called);
//   L2VFIB_OK           known items but no callback installed;
//   otherwise what the callback returned for the last known item.
L2VFIB_API uint32_t L2VFIB_HandleEvtMsg(int32_t socket) {
    // Only the header is zeroed: a datagram shorter than 8 bytes reads as one
    // padded with zeros; nothing else past the bytes received is read.
    uint8_t msg[L2VFIB_BATCH_SIZE];
    std::memset(msg, 0, l2vfib::kHeadSize);
    const ssize_t received = SKT_Recv(socket, msg, sizeof msg, MSG_DONTWAIT);
    if (received <= 0) return L2VFIB_ERR_NO_DATA;
    const L2VFIB_MsgHead head = l2vfib::ReadMsgHead(msg);
    if (head.payloadLen < 8) return L2VFIB_ERR_FAIL;
    if (l2vfib::kHeadSize + head.payloadLen > received) return L2VFIB_ERR_BAD_MSG;

    // Each item must end past the one before and within the payload, so the
    // walk always moves on and never leaves the bytes received. Fewer bytes
    // than an item header end it without asking the codec, which finds no
    // item there.
    const uint8_t *const payload = msg + l2vfib::kHeadSize;
    const uint8_t *const end = payload + head.payloadLen;
    const uint8_t *pos = payload;
    uint32_t result = L2VFIB_ERR_FAIL;
    while (end - pos >= static_cast<ptrdiff_t>(l2vfib::kItemHead)) {
        uint32_t type = 0;
        uint32_t length = 0;
        const void *value = nullptr;
        const auto left = static_cast<uint16_t>(end - pos);
        if (STLV_Get(pos, left, &type, &length, &value) == 0 || value == nullptr) break;
        const auto *at = static_cast<const uint8_t *>(value);
        if (at <= pos || at > end || length > static_cast<size_t>(end - at)) break;
        result = Dispatch(head.tag, type, value, length, result);
        pos = at + length;
    }
    return result;
}

}  // extern "C"

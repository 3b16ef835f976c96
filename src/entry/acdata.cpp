// The AC flag message and the AC data query, sent at once on the caller's
// socket with the 12-byte header; the query's answer is read back from the
// same socket.
//
// 12-byte header:
//    0       2          4     6      7       8          12
//   +-------+----------+-----+------+-------+----------+-----------
//   |objType|payloadLen| tag |opcode| byte7 | extWord  | items ...
//   | be16  | be16     |be16 |  u8  |  u8   | be32     | payloadLen
//   +-------+----------+-----+------+-------+----------+-----------
//
//   AC flag, 16 bytes:  16, 4, tag 3, opcode 17 (flag 1) or 16, 0, 0 | TLV 13, 0
//   AC data query, 20:  17, 8, tag 32, opcode 18, 0, 0 | TLV 1, 0 | TLV 20, 0
//
// AC data answer, at most 4096 bytes:
//    0              12             20
//   +--------------+--------------+--------------+----------------------------+
//   | 12-byte head | 8-byte head  | count item   | entry item: N entries of   |
//   | length L     | length P     | N be32, ...  | S = length / N bytes each  |
//   +--------------+--------------+--------------+----------------------------+
//   L >= 12 and 12 + L within the bytes received; P <= L - 8; the items lie
//   within P. An entry: word0 be32, half0 be16, byte0, byte1, half1 be16,
//   half2 be16, word1 be32; of a longer entry the first 16 bytes are read.
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>

#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/transport.h"
#include "msg/wire.h"

namespace {

using l2vfib::GetBe16;
using l2vfib::GetBe32;

constexpr uint32_t kRequestArea = 512;
constexpr uint32_t kEntrySize = 16;

static_assert(sizeof(L2VFIB_AcData) == kEntrySize && offsetof(L2VFIB_AcData, half0) == 4 &&
                  offsetof(L2VFIB_AcData, byte0) == 6 && offsetof(L2VFIB_AcData, half1) == 8 &&
                  offsetof(L2VFIB_AcData, half2) == 10 && offsetof(L2VFIB_AcData, word1) == 12,
              "an entry lies in memory as on the wire");

// Builds a request of empty items of the given types behind the 12-byte
// header and sends it whole. False when the send fails or is short.
template <size_t N>
bool SendRequest(int32_t socket, L2VFIB_ExtMsgHead head, const uint16_t (&types)[N]) {
    uint8_t msg[kRequestArea] = {};
    uint32_t length = l2vfib::kExtHeadSize;
    for (uint16_t type : types)
        length += STLV_Set(msg + length, kRequestArea - length, type, 0, nullptr);
    head.payloadLen = static_cast<uint16_t>(length - l2vfib::kExtHeadSize);
    l2vfib::WriteExtMsgHead(head, msg);
    return l2vfib::SendBlocking(socket, msg, length);
}

// Slot i gets the first min(S, 16) bytes of answer entry i over what it
// held, every number then read big-endian.
void ReadEntry(const uint8_t *entry, uint32_t size, L2VFIB_AcData *slot) {
    uint8_t raw[kEntrySize];
    std::memcpy(raw, slot, kEntrySize);
    std::memcpy(raw, entry, size < kEntrySize ? size : kEntrySize);
    slot->word0 = GetBe32(raw);
    slot->half0 = GetBe16(raw + 4);
    slot->byte0 = raw[6];
    slot->byte1 = raw[7];
    slot->half1 = GetBe16(raw + 8);
    slot->half2 = GetBe16(raw + 10);
    slot->word1 = GetBe32(raw + 12);
}

}  // namespace

namespace l2vfib {

// The 8-byte header, then the extra word.
void WriteExtMsgHead(const L2VFIB_ExtMsgHead &head, uint8_t *out) {
    WriteMsgHead({head.objType, head.payloadLen, head.tag, head.opcode, head.byte7}, out);
    PutBe32(out + 8, head.extWord);
}

uint32_t ParseAcData(const uint8_t *answer, uint32_t received, L2VFIB_AcDataList *list) {
    if (received < kExtHeadSize) return L2VFIB_ERR_FAIL;
    const uint32_t outer = GetBe16(answer + 2);
    if (outer < 12 || kExtHeadSize + outer > received) return L2VFIB_ERR_FAIL;
    const uint32_t inner = GetBe16(answer + kExtHeadSize + 2);
    if (inner > outer - 8) return L2VFIB_ERR_FAIL;

    const uint8_t *items = answer + kExtHeadSize + 8;
    uint32_t type = 0, length = 0;
    const void *value = nullptr;
    if (STLV_Get(items, inner, &type, &length, &value) == 0 || value == nullptr || length < 4)
        return L2VFIB_ERR_FAIL;
    const uint32_t count = GetBe32(static_cast<const uint8_t *>(value));
    if (count == 0) return L2VFIB_OK;
    if (count > L2VFIB_AC_DATA_MAX || list->entries == nullptr) return L2VFIB_ERR_FAIL;

    const uint32_t rest = 4 + length;  // the count item lies within inner
    if (STLV_Get(items + rest, inner - rest, &type, &length, &value) == 0 || value == nullptr)
        return L2VFIB_ERR_FAIL;
    const uint32_t size = length / count;
    if (size == 0) return L2VFIB_OK;
    for (uint32_t i = 0; i < count; ++i)
        ReadEntry(static_cast<const uint8_t *>(value) + i * size, size, &list->entries[i]);
    list->count = count;
    return L2VFIB_OK;
}

}  // namespace l2vfib

extern "C" {

// Returns L2VFIB_OK, or L2VFIB_ERR_FAIL when the send fails or hands over
// less than the 16 bytes. No answer is read.
L2VFIB_API uint32_t L2VFIB_SetAcFlagClear(int32_t socket, int32_t flag) {
    const L2VFIB_ExtMsgHead head = {16, 0, 3, static_cast<uint8_t>(flag == 1 ? 17 : 16), 0, 0};
    const uint16_t types[] = {13};
    return SendRequest(socket, head, types) ? L2VFIB_OK : L2VFIB_ERR_FAIL;
}

// Returns L2VFIB_OK (see l2vfib::ParseAcData for when list is left
// unwritten), or L2VFIB_ERR_FAIL: a null list (nothing sent), a failed or
// short send (nothing read), a failed receive, or an answer that
// l2vfib::ParseAcData refuses (list unwritten).
L2VFIB_API uint32_t L2VFIB_GetAcData(int32_t socket, L2VFIB_AcDataList *list) {
    if (list == nullptr) return L2VFIB_ERR_FAIL;
    const L2VFIB_ExtMsgHead head = {17, 0, 32, 18, 0, 0};
    const uint16_t types[] = {1, 20};
    if (!SendRequest(socket, head, types)) return L2VFIB_ERR_FAIL;
    uint8_t answer[l2vfib::kAcAnswerRoom] = {};
    ssize_t received;
    do {
        received = SKT_Recv(socket, answer, sizeof answer, MSG_WAITALL);
    } while (received < 0 && errno == EINTR);
    if (received < 0) return L2VFIB_ERR_FAIL;
    return l2vfib::ParseAcData(answer, static_cast<uint32_t>(received), list);
}

}  // extern "C"

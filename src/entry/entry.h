// Forwarding entries: what the units of this folder share, and the pieces
// the tests and fuzzers reach below the exported functions.
#ifndef L2VFIB_ENTRY_ENTRY_H
#define L2VFIB_ENTRY_ENTRY_H

#include <cstdint>

#include "l2vfib.h"
#include "msg/wire.h"

extern "C" {

// The 12-byte header of the AC flag message, the AC data query and its
// answer, held in host order until it is written.
typedef struct L2VFIB_ExtMsgHead {
    uint16_t objType;
    uint16_t payloadLen;  // the bytes after these 12
    uint16_t tag;
    uint8_t opcode;
    uint8_t byte7;
    uint32_t extWord;
} L2VFIB_ExtMsgHead;

// Queues an attachment-circuit add (info set) or delete (info null; option
// is then ignored). Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library
// is not open; L2VFIB_ERR_FAIL for a null key, a fillWords22 above 52 on an
// add, or a flush for room that failed. Nothing is written on failure.
uint32_t l2vfib_SendAcEntry(int32_t socket, const L2VFIB_EntryKey *key, const L2VFIB_AcInfo *info,
                            const L2VFIB_AcOption *option);
}

namespace l2vfib {

// Opcodes of every add and delete pair.
constexpr uint32_t kOpAdd = 5;
constexpr uint32_t kOpDelete = 7;
constexpr uint16_t kExtHeadSize = 12;
// The largest AC data answer read.
constexpr uint32_t kAcAnswerRoom = 4096;

// Writes head at out: objType, payloadLen and tag big-endian at 0, 2 and 4,
// opcode and byte7 at 6 and 7, extWord big-endian at 8.
void WriteExtMsgHead(const L2VFIB_ExtMsgHead &head, uint8_t *out);

// Stores key as the 8-byte value of a key item: id and subId big-endian,
// two zero bytes.
inline void PutKey(uint8_t *value, const L2VFIB_EntryKey &key) {
    PutBe32(value, key.id);
    PutBe16(value + 4, key.subId);
    PutBe16(value + 6, 0);
}

// What a keyed message is, in one argument: its object type, its opcode
// (low 8 bits) and its key item's type (below 256).
constexpr uint32_t Keyed(uint32_t objType, uint32_t opcode, uint32_t keyType) {
    return objType << 16 | (opcode & 0xFF) << 8 | keyType;
}

// Queues one message: header (the object type and opcode of kind, byte7),
// one key item of the key type of kind, then length bytes of block
// unchanged.
// (Six arguments, so the exported functions hand over with a jump.)
// Returns L2VFIB_OK;
// L2VFIB_ERR_NOT_OPEN when the library is not open; L2VFIB_ERR_FAIL for a
// null key, a null block of nonzero length, a message longer than the
// batch area (20 + length above 1400), or a flush for room that failed.
// Nothing is written or sent on failure but that flush.
uint32_t QueueKeyed(int32_t socket, uint32_t kind, uint32_t byte7,
                    const L2VFIB_EntryKey *key, const void *block, uint32_t length);

// Reads an AC data answer of received bytes into list. Returns L2VFIB_OK
// (list->count set to N; or, for N of 0 or an entry size of 0, list
// unwritten) or L2VFIB_ERR_FAIL with list unwritten: fewer than 12 bytes;
// an outer length below 12 or past the bytes received; an inner length
// above the outer one less 8; no count item, or one shorter than 4 bytes;
// N above L2VFIB_AC_DATA_MAX; no entry item; a null entries array for N
// above 0. Reads nothing outside the received bytes.
uint32_t ParseAcData(const uint8_t *answer, uint32_t received, L2VFIB_AcDataList *list);

}  // namespace l2vfib

#endif

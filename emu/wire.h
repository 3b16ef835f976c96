// The messages the emulated device writes: replies, notices, the AC data
// answer and events. Each is an 8-byte header (the AC data answer has the
// 12-byte one around it) and TLV items:
//
//    0          2             4       6        7        8
//   +----------+-------------+-------+--------+--------+------------------
//   | objType  | payloadLen  | tag   | opcode | byte7  | items
//   | be16     | be16        | be16  | u8     | u8     |
//   +----------+-------------+-------+--------+--------+------------------
//   item: | type be16 | length be16 | value |
//
//   reply    item 37: be32 result, or item 184: be32 identifier
//   notice   item 36: be32 value
//   event    items 2, 3 or 6, the tag in bytes 4-5
//
// AC data answer:
//
//    0                 12               20            28          32
//   +-----------------+----------------+-------------+-----------+-----------
//   | 12-byte header  | 8-byte header  | item 1, 4   | count N   | item 20,
//   | obj 17, len L   | obj 17, len P  |             | be32      | 16 x N
//   +-----------------+----------------+-------------+-----------+-----------
#ifndef L2VFIB_EMU_WIRE_H
#define L2VFIB_EMU_WIRE_H

#include <cstdint>
#include <span>
#include <vector>

namespace l2vfib::emu::wire {

using Bytes = std::vector<uint8_t>;

void Put16(Bytes &out, uint16_t value);
void Put32(Bytes &out, uint32_t value);
uint16_t Get16(const uint8_t *in);
uint32_t Get32(const uint8_t *in);

// Appends one item (header and value).
void PutItem(Bytes &out, uint16_t type, std::span<const uint8_t> value);

// A message: the 8-byte header in front of payload.
Bytes Message(uint16_t objType, uint16_t tag, uint8_t opcode, uint8_t byte7,
              std::span<const uint8_t> payload);

// A message with one item holding a be32 value (replies and notices).
Bytes WordMessage(uint16_t objType, uint8_t opcode, uint16_t itemType, uint32_t value);

// The AC data answer around entries, 16 bytes each.
Bytes AcDataAnswer(std::span<const uint8_t> entries, uint32_t count);

}  // namespace l2vfib::emu::wire

#endif

#include "wire.h"

namespace l2vfib::emu::wire {

void Put16(Bytes &out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void Put32(Bytes &out, uint32_t value) {
    Put16(out, static_cast<uint16_t>(value >> 16));
    Put16(out, static_cast<uint16_t>(value));
}

uint16_t Get16(const uint8_t *in) { return static_cast<uint16_t>((in[0] << 8) | in[1]); }

uint32_t Get32(const uint8_t *in) {
    return (static_cast<uint32_t>(Get16(in)) << 16) | Get16(in + 2);
}

void PutItem(Bytes &out, uint16_t type, std::span<const uint8_t> value) {
    Put16(out, type);
    Put16(out, static_cast<uint16_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
}

Bytes Message(uint16_t objType, uint16_t tag, uint8_t opcode, uint8_t byte7,
              std::span<const uint8_t> payload) {
    Bytes out;
    Put16(out, objType);
    Put16(out, static_cast<uint16_t>(payload.size()));
    Put16(out, tag);
    out.push_back(opcode);
    out.push_back(byte7);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

Bytes WordMessage(uint16_t objType, uint8_t opcode, uint16_t itemType, uint32_t value) {
    Bytes word;
    Put32(word, value);
    Bytes payload;
    PutItem(payload, itemType, word);
    return Message(objType, 0, opcode, 8, payload);
}

Bytes AcDataAnswer(std::span<const uint8_t> entries, uint32_t count) {
    Bytes items;
    Bytes n;
    Put32(n, count);
    PutItem(items, 1, n);
    PutItem(items, 20, entries);
    const Bytes inner = Message(17, 0, 18, 0, items);
    Bytes out;
    Put16(out, 17);
    Put16(out, static_cast<uint16_t>(inner.size()));
    Put16(out, 32);
    out.push_back(18);
    out.push_back(0);
    Put32(out, 0);
    out.insert(out.end(), inner.begin(), inner.end());
    return out;
}

}  // namespace l2vfib::emu::wire

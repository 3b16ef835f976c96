// Byte stores for the wire: every multi-byte number travels big-endian and
// messages start at any byte of the batch area, so fields are written and
// read one byte at a time, never through a wider pointer.
#ifndef L2VFIB_MSG_WIRE_H
#define L2VFIB_MSG_WIRE_H

#include <cstdint>
#include <cstring>

namespace l2vfib {

inline void PutBe16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline void PutBe32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline void PutBe64(uint8_t *p, uint64_t v) {
    PutBe32(p, static_cast<uint32_t>(v >> 32));
    PutBe32(p + 4, static_cast<uint32_t>(v));
}

inline uint16_t GetBe16(const uint8_t *p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t GetBe32(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// A caller's host-order word read from memory it handed us. Caller records
// are its own aligned objects, but a copy costs nothing and keeps the read
// safe whatever the caller passed.
template <typename T>
inline T Load(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace l2vfib

#endif

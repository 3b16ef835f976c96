// Byte stores for the wire: every multi-byte number travels big-endian and
// messages start at any byte of the batch area, so fields are written and
// read through memcpy of the swapped value, never through a wider pointer.
// (The compilers turn each into one swap and one unaligned store or load.)
#ifndef L2VFIB_MSG_WIRE_H
#define L2VFIB_MSG_WIRE_H

#include <bit>
#include <cstdint>
#include <cstring>

namespace l2vfib {

// The value in big-endian byte order (a swap on a little-endian host).
inline uint16_t ToBe16(uint16_t v) {
    return std::endian::native == std::endian::little ? __builtin_bswap16(v) : v;
}
inline uint32_t ToBe32(uint32_t v) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(v) : v;
}

inline void PutBe16(uint8_t *p, uint16_t v) {
    const uint16_t be = ToBe16(v);
    std::memcpy(p, &be, sizeof be);
}

inline void PutBe32(uint8_t *p, uint32_t v) {
    const uint32_t be = ToBe32(v);
    std::memcpy(p, &be, sizeof be);
}

inline void PutBe64(uint8_t *p, uint64_t v) {
    const uint64_t be = std::endian::native == std::endian::little ? __builtin_bswap64(v) : v;
    std::memcpy(p, &be, sizeof be);
}

inline uint16_t GetBe16(const uint8_t *p) {
    uint16_t be;
    std::memcpy(&be, p, sizeof be);
    return ToBe16(be);
}

inline uint32_t GetBe32(const uint8_t *p) {
    uint32_t be;
    std::memcpy(&be, p, sizeof be);
    return ToBe32(be);
}

template <typename T>
inline T Load(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace l2vfib

#endif

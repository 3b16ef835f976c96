// The attachment circuit's information value (TLV 22). The catalogue's
// encoder for object type 22 and the attachment-circuit add send the same
// value, so both write it here.
#ifndef L2VFIB_ENC_AC_INFO_H
#define L2VFIB_ENC_AC_INFO_H

#include <cstdint>

#include "l2vfib.h"

namespace l2vfib {

// No item value is longer than this (the bound of the all-ones tails).
constexpr uint32_t kValueArea = 256;
// The fixed part of the value, before the all-ones words.
constexpr uint32_t kAcInfoFixed = 48;
// The most all-ones words within that bound: 48 + 4 x 52 = 256.
constexpr uint32_t kAcInfoMaxFill = (kValueArea - kAcInfoFixed) / 4;

// The value's length with fillWords all-ones words, 48 + 4 x fillWords, or
// 0 when fillWords is above kAcInfoMaxFill.
constexpr uint32_t AcInfoLength(uint32_t fillWords) {
    return fillWords > kAcInfoMaxFill ? 0 : kAcInfoFixed + 4 * fillWords;
}

// Writes every byte of the value from info, ending in fillWords all-ones
// words, at value; fillWords is at most kAcInfoMaxFill.
void PutAcInfo(uint8_t *value, const L2VFIB_AcInfo &info, uint32_t fillWords);

}  // namespace l2vfib

#endif

// The attachment circuit's information value (TLV 22). The catalogue's
// encoder for object type 22 and the attachment-circuit add send the same
// value, so both stage it here.
#ifndef L2VFIB_ENC_AC_INFO_H
#define L2VFIB_ENC_AC_INFO_H

#include <cstdint>

#include "l2vfib.h"

namespace l2vfib {

// Item values are staged in local areas of this size.
constexpr uint32_t kValueArea = 256;
// The fixed part of the value, before the all-ones words.
constexpr uint32_t kAcInfoFixed = 48;
// The most all-ones words that still fit a staging area: 48 + 4 x 52 = 256.
constexpr uint32_t kAcInfoMaxFill = (kValueArea - kAcInfoFixed) / 4;

// Stages the value from info, ending in fillWords all-ones words, into
// value. Returns its length, 48 + 4 x fillWords, or 0 (value untouched)
// when fillWords is above kAcInfoMaxFill.
uint32_t StageAcInfo(const L2VFIB_AcInfo &info, uint32_t fillWords, uint8_t (&value)[kValueArea]);

}  // namespace l2vfib

#endif

// Catalogue payload encoders. Each writes the TLV items of one message's
// payload at out, within room bytes, and returns the payload length, or 0
// when it refuses (too little room, or a record it needs is null). A
// refused payload is never sent.
#ifndef L2VFIB_ENC_ENCODERS_H
#define L2VFIB_ENC_ENCODERS_H

#include <cstdint>

extern "C" {

typedef uint16_t (*L2VFIB_CmdEncoder)(const void *arg1, const void *arg2, uint16_t room,
                                      uint8_t *out);

// One item of a 16-bit number (TLV 83 widens it to 32 bits).
uint16_t l2vfib_EncTlv83(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv218(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv234(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv235(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv238(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// One empty item.
uint16_t l2vfib_EncTlv105(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv106(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// One 8-byte item: an entry key or a word pair.
uint16_t l2vfib_EncTlv10(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv20(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv70(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv180(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// Two items.
uint16_t l2vfib_EncTlv181Mark182(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv181Mark183(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv181Mark186(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv143With142(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);

// The variant entry: key, common item and the items of its kind.
uint16_t l2vfib_EncVariantEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// A key, then a record ending in all-ones words sized by a capability count.
uint16_t l2vfib_EncInstanceCfg(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncHostEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncAcInfo(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// Address and data records.
uint16_t l2vfib_EncAddrParam(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncAddrSet(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncAddrTriple(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncAddrFill(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncMacEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv201(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv239With146(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
// Lists and word records.
uint16_t l2vfib_EncRangeOrList(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv141With142(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv145With146(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv184(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
uint16_t l2vfib_EncTlv236(const void *arg1, const void *arg2, uint16_t room, uint8_t *out);
}

#endif

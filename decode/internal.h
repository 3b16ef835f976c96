// What the decoder's source files share: the error helper and the reader of
// item layouts (layout.cpp).
#ifndef L2VFIB_DECODE_INTERNAL_H
#define L2VFIB_DECODE_INTERNAL_H

#include <span>
#include <string>
#include <string_view>

#include "l2vfib_decode.h"

namespace l2vfib::decode::detail {

Error Fault(Errc code, size_t offset, std::string text);

// Decodes item.value by a layout, a line of space-separated tokens read in
// value order:
//
//   name:u8 name:u16 name:u32 name:u64   big-endian number
//   name:h32                              32-bit number in the host's order
//   name:mac  name:hexN  name:strN        6 bytes, N bytes, N-byte string
//   name:addr                             address block: family (be16),
//                                         reserved (be16), 16 address bytes
//   name:addrz                            the same with reserved sent as 0
//   -N                                    N zero bytes
//   ffN                                   N bytes of 0xFF
//   name:ff                               all-ones words to the value's end;
//                                         the field holds their number
//   label[tokens]N  label[tokens]*        a record N times, or as often as
//                                         the rest of the value holds;
//                                         fields are named label.i.name
//
// The value's length must be exactly what the layout takes (a fill or a
// '*' record makes it a multiple beyond the fixed part). On a fault the
// fields read so far stay and the error names the byte.
Error DecodeLayout(std::string_view layout, Item &item);

// The big-endian number of size bytes at p.
uint64_t ReadBe(const uint8_t *p, size_t size);

// A field of one number.
Field NumberField(std::string name, uint64_t value);

}  // namespace l2vfib::decode::detail

#endif

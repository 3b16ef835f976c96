// What the decoder's source files share: the error helper, the reader of
// item layouts (layout.cpp) and the format tables (tables.cpp), which
// lua_tables.cpp also writes out for the Wireshark dissector.
#ifndef L2VFIB_DECODE_INTERNAL_H
#define L2VFIB_DECODE_INTERNAL_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

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

// ---------------------------------------------------------------------------
// The format tables (tables.cpp). A message is told by its direction, header
// size, object type, opcode and, where rows share those, its first item; its
// format names it, fixes header fields, lists its item slots and names a
// rule across its items. Every reader goes by these rows: the decoder, and
// through it the emulated device, and the Wireshark dissector, whose Lua
// tables lua_tables.cpp writes from them at build time.
// ---------------------------------------------------------------------------

// A header field or a match that a row leaves free.
constexpr int32_t kAny = -1;
// A slot that repeats without bound.
constexpr uint8_t kMany = 0xFF;

// Which table an item's layout comes from.
enum class Family : uint8_t { kEntry, kEventReg, kReply };

struct ItemLayout {
    Family family;
    uint16_t type;
    const char *layout;
};
std::span<const ItemLayout> ItemLayouts();
// The layout of an item type in a family; nullptr for an unknown item.
const char *LayoutFor(Family family, uint16_t type);
std::string_view FamilyName(Family family);

// An event item: a record of fixed size, read as if padded with zeros or cut
// to it. When the byte at switchAt is switchByte, switchLayout reads it.
struct EventRecord {
    uint16_t type;
    size_t size;
    const char *layout;
    size_t switchAt = 0;
    uint8_t switchByte = 0;
    const char *switchLayout = nullptr;
};
std::span<const EventRecord> EventRecords();
const EventRecord *FindEventRecord(uint16_t type);

// The AC data answer: a count item, then one item of count entries of equal
// size; an entry of kAcEntrySize bytes or more starts with kAcEntryLayout.
constexpr const char *kAcCountLayout = "count:u32";
constexpr const char *kAcEntryLayout = "word0:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word1:u32";
constexpr size_t kAcEntrySize = 16;

// What a kind is called, and whether its trace line shows byte 7 (the
// kinds whose header byte 7 the daemon chooses).
struct KindInfo {
    Kind kind;
    const char *name;
    bool showsByte7;
};
std::span<const KindInfo> Kinds();

// A check beyond the slots. Before the slots: kTunnelByte7 (byte 7 is 7
// exactly for object type 18), kFirstItem (no row above took the first
// item: always a fault). Instead of the slots: kAcAnswer, kEvents. After
// them: kVariant, kRangeOrList, kMinmMembers, kEventMask.
enum class Rule : uint8_t {
    kNone, kTunnelByte7, kFirstItem, kAcAnswer, kEvents, kVariant, kRangeOrList, kMinmMembers, kEventMask,
};
std::string_view RuleName(Rule rule);

// One place in a format: an item type, how often it may occur in a row,
// and its layout when it differs from the item type's own.
struct Slot {
    uint16_t type;
    uint8_t min = 1;
    uint8_t max = 1;
    const char *layout = nullptr;
};

// Header fields a direction fixes for every message of a header size,
// checked before the message is looked up.
struct HeadRule {
    Channel channel;
    uint8_t headSize;
    int32_t tag = kAny;
    int32_t byte7 = kAny;
    int64_t extWord = kAny;
};
std::span<const HeadRule> HeadRules();

// A message format. The first row that matches a message is its format;
// a name with "{op}" reads "add" for opcode 5, "del" for 7, "op N" else.
// A to-service message that no row takes is a catalogue command.
struct Format {
    Channel channel;
    uint8_t headSize = 8;
    int32_t objType = kAny;
    int32_t opcode = kAny;
    int32_t first = kAny;  // the first item's type, where rows share the rest
    Kind kind;
    const char *name;
    int32_t tag = kAny;    // header fields the format fixes, checked once named
    int32_t byte7 = kAny;
    std::vector<Slot> slots = {};
    uint16_t keyType = 0;  // the item that names the object, 0 for none
    Rule rule = Rule::kNone;
    Family family = Family::kEntry;
};
const std::vector<Format> &Formats();
// The header size of a message by direction and object type: 12 where a
// row says so, else 8.
size_t HeadSize(Channel channel, uint16_t objType);

// The catalogue: each code's object type, opcode, byte 7, whether it is
// answered when sent alone, and its shape. Codes of one object type and
// opcode are told apart by their items.
struct Shape {
    std::vector<Slot> slots = {};
    uint16_t keyType = 0;
    Rule rule = Rule::kNone;
};
struct CatalogueCode {
    uint8_t code;
    uint16_t objType;
    uint8_t opcode;
    uint8_t byte7;
    bool answered;
    uint8_t shape;  // index in Shapes()
};
std::span<const CatalogueCode> CatalogueCodes();
const std::vector<Shape> &Shapes();

}  // namespace l2vfib::decode::detail

#endif

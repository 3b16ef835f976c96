// The message decoder: reads every datagram that a daemon and the
// forwarding, event and control-call services exchange, and turns it into
// named values that a table can be built from, a trace line can show and a
// test can compare.
//
// A datagram is whole messages back to back; each starts with the 8-byte
// header (the AC flag message, the AC data query and its answer with the
// 12-byte one) and carries TLV items:
//
//    0          2             4       6        7        8 (12)
//   +----------+-------------+-------+--------+--------+----------------
//   | objType  | payloadLen  | tag   | opcode | byte7  | [extWord] items
//   | be16     | be16        | be16  | u8     | u8     | [be32]
//   +----------+-------------+-------+--------+--------+----------------
//
//   item:  | type be16 | length be16 | value, length bytes |
//
// Errors are values: a code, the byte offset in the datagram where the
// fault lies, and a line of text that names both. The decoder never reads
// outside the datagram it is given and never throws for bad bytes.
//
// Host tool code: the standard library, fmt and nlohmann-json are fine here;
// nothing of it reaches the core.
#ifndef L2VFIB_DECODE_H
#define L2VFIB_DECODE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace l2vfib::decode {

// Which way a datagram travelled; each direction has formats of its own.
enum class Channel : uint8_t {
    kToService,    // daemon -> forwarding service: batch datagrams, messages
                   // sent alone, answered requests, the AC flag and AC query
    kFromService,  // forwarding service -> daemon: replies (item 37 or 184),
                   // notices (item 36), and the AC data answer, which is
                   // told by its object type 17 (the query's)
    kToEvent,      // daemon -> event service: channel open and close,
                   // registrations
    kFromEvent,    // event service -> daemon: events (items 2, 3, 6)
};

enum class Errc : uint8_t {
    kOk = 0,
    kShortHeader,        // fewer bytes left than a message header
    kLengthPastEnd,      // a payload length that runs past the datagram
    kTruncatedItem,      // an item header or value that runs past its payload
    kUnknownObjectType,  // no message format has this object type here
    kUnknownOpcode,      // the object type is known, the opcode is not
    kMissingItem,        // a required item is absent
    kUnexpectedItem,     // an item that the format does not have (or twice)
    kBadItemLength,      // an item whose value length its type does not allow
    kBadValue,           // a value that breaks its format (a fill that is
                         // not all ones, nonzero padding, a header field
                         // the format fixes, inner lengths that disagree)
};

struct Error {
    Errc code = Errc::kOk;
    size_t offset = 0;  // in the datagram
    std::string text;   // "truncated item at offset 20"
    explicit operator bool() const { return code != Errc::kOk; }
};

// A named value inside an item (or a key, or a header field).
enum class FieldKind : uint8_t {
    kNumber,  // number
    kHex,     // bytes, shown as hex
    kMac,     // 6 bytes
    kIp,      // bytes: 4 (IPv4) or 16 (IPv6)
    kString,  // bytes up to the first zero
};

struct Field {
    std::string name;
    FieldKind kind = FieldKind::kNumber;
    uint64_t number = 0;         // kNumber
    std::vector<uint8_t> bytes;  // every other kind
    // The value as the trace shows it: numbers in decimal ("17"), bytes in
    // hex ("de ad"), "00:11:22:33:44:55", "10.0.0.1", "eth0".
    std::string Text() const;
    bool operator==(const Field &) const = default;
};

struct Item {
    uint16_t type = 0;
    size_t offset = 0;           // of the item header, in the datagram
    std::vector<uint8_t> value;  // the raw value bytes
    std::vector<Field> fields;   // decoded, in value order
    const Field *Find(std::string_view name) const;
    uint64_t Number(std::string_view name, uint64_t otherwise = 0) const;
};

// What a message is, by its object type and opcode (and direction).
enum class Kind : uint8_t {
    kCatalogue,       // a catalogue command; codes says which
    kPw,              // pseudowire add or delete (object type 3)
    kMinM,            // MAC-in-MAC entry (12)
    kAc,              // attachment-circuit add or delete (6, opcodes 5, 7)
    kAcFlag,          // AC flag message, 12-byte header (16)
    kAcQuery,         // AC data query, 12-byte header (17)
    kMacWithdraw,     // MAC withdraw (9)
    kMacReset,        // MAC reset (10), control-call input
    kGrEvent,         // graceful-restart event (7)
    kOverlayTunnel,   // overlay tunnel add or delete (14 or 18); a switch
                      // is a delete and an add of object type 14
    kTunnelIfDel,     // tunnel interface deletion (14 or 18, opcode 10)
    kEbgMember,       // EBG member list (32)
    kMplsEbgMember,   // MPLS EBG member list (35)
    kEbgDf,           // EBG designated forwarder (31)
    kEventChannel,    // event channel open or close (20, item 0)
    kEventReg,        // event registration or deregistration (20, item 1)
    kReply,           // reply: item 37 (result) or 184 (identifier)
    kNotice,          // notice: item 36
    kAcDataAnswer,    // AC data answer, 12-byte header around an 8-byte one
    kEvent,           // event message: items 2, 3, 6 (others passed over)
    kControl,         // a control call's input or answer (DecodeControl)
};

struct Message {
    size_t offset = 0;     // first byte, in the datagram
    size_t size = 0;       // header and payload
    uint8_t headSize = 8;  // 12 for the AC flag, AC query and AC data answer
    uint16_t objType = 0;
    uint16_t payloadLen = 0;
    uint16_t tag = 0;
    uint8_t opcode = 0;
    uint8_t byte7 = 0;
    uint32_t extWord = 0;  // 12-byte header only
    // The AC data answer's inner 8-byte header: objType, payloadLen, tag,
    // opcode, byte7. Empty for every other message.
    std::vector<Field> inner;

    Kind kind = Kind::kCatalogue;
    std::string name;            // "pw add", "ac del", "ebg-member add", "cfg 18"
    std::vector<uint8_t> codes;  // catalogue codes that build exactly this message
    bool answered = false;       // one of codes is answered when sent alone
    std::vector<Field> key;      // the entry's key, as numbers; empty if none
    std::vector<Item> items;     // in wire order
    Error error;                 // set when the header is sound but the
                                 // content is not; the items read so far stay

    const Item *FindItem(uint16_t type) const;
};

struct Decoded {
    std::vector<Message> messages;  // every message whose header could be
                                    // read, in order, faulty ones included
    Error error;                    // the first fault, if any
    bool ok() const { return !error; }
};

// Splits the datagram into messages, checks each and decodes it. A fault
// in one message's content marks that message and the next one is still
// read; a fault in the framing ends the split there. The first fault:
//   kShortHeader        an empty datagram, or fewer bytes left than a header
//   kLengthPastEnd      a payload length past the datagram (for the AC data
//                       answer also the inner length past the outer payload)
//   kTruncatedItem      an item header or value past its payload
//   kUnknownObjectType  no format of this direction has the object type
//   kUnknownOpcode      the object type has no such opcode
//   kMissingItem        a required item is absent
//   kUnexpectedItem     an item the format does not have, or an unknown one
//   kBadItemLength      a value length its item type does not allow
//   kBadValue           padding not zero, a fill not all ones, a header field
//                       the format fixes (tag, byte 7, extWord), or items
//                       that contradict each other
// kOk when every byte made whole, well-formed messages.
Decoded Decode(std::span<const uint8_t> datagram, Channel channel);

// The control calls' inputs (code 0x440002 the capability query, 0x440003
// MAC reset, 0x440005 start, 0x440006 stop, 0x44000c VLAN range check) and
// the capability answer (code 0x440002 with answer set). One message of kind
// kControl, or the MAC reset's own. Faults: kBadItemLength (the capability
// query takes no bytes, start and stop 4, the capability answer at least
// 41), kBadValue (a stop input not zero), kUnknownOpcode (any other code, or
// an answer to another code), and for the MAC reset those of Decode, or
// kUnexpectedItem when the bytes are not one MAC reset message.
Decoded DecodeControl(uint32_t code, std::span<const uint8_t> bytes, bool answer = false);

// One line, key first, like `ip`/`bridge` output:
//   "pw add id 7 subId 1 byte7 3 | 13: ... | 12: ..."
std::string Render(const Message &message);
// "error: truncated item at offset 20"
std::string Render(const Error &error);
// Every message on its own line, then the error, if any.
std::vector<std::string> RenderLines(const Decoded &decoded);

nlohmann::json ToJson(const Field &field);
nlohmann::json ToJson(const Item &item);
nlohmann::json ToJson(const Message &message);
nlohmann::json ToJson(const Error &error);
nlohmann::json ToJson(const Decoded &decoded);

// "truncated-item", "length-past-end", ...
std::string_view ErrcName(Errc code);
std::string_view ChannelName(Channel channel);
// "pw", "cfg", "ebg-member", ...
std::string_view KindName(Kind kind);
std::optional<Channel> ParseChannel(std::string_view name);

// "00 0e 00 0c | 00 00 17 05": hex digit pairs; spaces, ':', '|' and
// newlines separate. Nothing for an odd digit count or any other character.
std::optional<std::vector<uint8_t>> ParseHex(std::string_view text);
std::string ToHex(std::span<const uint8_t> bytes);

}  // namespace l2vfib::decode

#endif

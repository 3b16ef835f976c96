// The host's control protocol: how the platform's control calls and device
// services reach the emulated device, one datagram each way, at the
// control endpoint of the device directory (see host_addr.h).
//
// Request, 24 bytes and the input:
//
//    0     1     2      4          8        12       16       20         24
//   +-----+-----+------+----------+--------+--------+--------+----------+-------
//   | ver | op  | 0  0 | sequence | arg0   | arg1   | arg2   | inputLen | input
//   |  1  | 1-6 |      | be32     | be32   | be32   | be32   | be32     | ...
//   +-----+-----+------+----------+--------+--------+--------+----------+-------
//
// Answer, 16 bytes and the data:
//
//    0     1           2      4          8          12         16
//   +-----+-----------+------+----------+----------+----------+-------
//   | ver | op | 0x80 | 0  0 | sequence | result   | dataLen  | data
//   |  1  |           |      | be32     | be32     | be32     | ...
//   +-----+-----------+------+----------+----------+----------+-------
//
// The answer echoes the request's op (with bit 0x80 set) and sequence. A
// datagram is whole: its length is exactly the head plus inputLen (or
// dataLen), and at most kMaxDatagram bytes.
//
//   op  call             arg0     arg1  arg2        input  result        data
//   1   CIOCTL           target   code  answerRoom  bytes  call result   answer, <= answerRoom
//   2   CIOCTL_Async     target   code  0           bytes  (no answer)
//   3   DEV_GetAllNodes  0        0     0           -      0: success    be16 node numbers
//   4   IF_IsNodeUp      node     0     0           -      1: up         -
//   5   LIP_GetLocalLip  which    0     0           -      the address   -
//   6   TUNNEL_GetMode   ifIndex  0     0           -      0: success    be32 mode
//
// Pure functions over buffers: no socket, no allocation. The client side
// (device.cpp) and the emulated device both use them.
#ifndef L2VFIB_HOST_CONTROL_PROTO_H
#define L2VFIB_HOST_CONTROL_PROTO_H

#include <cstddef>
#include <cstdint>

namespace l2vfib::host {

constexpr uint8_t kControlVersion = 1;
constexpr uint8_t kAnswerBit = 0x80;
constexpr size_t kRequestHead = 24;
constexpr size_t kAnswerHead = 16;
constexpr size_t kMaxDatagram = 4096;

enum ControlOp : uint8_t {
    kOpIoctl = 1,
    kOpIoctlAsync = 2,
    kOpGetAllNodes = 3,
    kOpIsNodeUp = 4,
    kOpGetLocalLip = 5,
    kOpTunnelGetMode = 6,
};

// What the client reports when no usable answer came (no endpoint, no
// answer in time, a malformed answer), and when the call's own arguments
// cannot be sent (a null pointer with a length, an input too large for a
// datagram).
constexpr uint32_t kNoDevice = 0xFFFFFFFFu;
constexpr uint32_t kBadRequest = 0xFFFFFFFEu;

// The local node address LIP_GetLocalLip reports when no device answers.
constexpr uint32_t kFallbackLocalLip = 0x0001;

struct ControlRequest {
    uint8_t op;
    uint32_t sequence;
    uint32_t arg0;
    uint32_t arg1;
    uint32_t arg2;
    const uint8_t *input;  // inputLength bytes; inside the datagram once decoded
    uint32_t inputLength;
};

struct ControlAnswer {
    uint8_t op;  // the request's op, without the answer bit
    uint32_t sequence;
    uint32_t result;
    const uint8_t *data;  // dataLength bytes; inside the datagram once decoded
    uint32_t dataLength;
};

// Writes the datagram into out and returns its length; 0, with nothing
// written, for an unknown op, a null input or data with a nonzero length,
// or a datagram longer than room or kMaxDatagram.
size_t EncodeRequest(const ControlRequest &request, uint8_t *out, size_t room);
size_t EncodeAnswer(const ControlAnswer &answer, uint8_t *out, size_t room);

// Reads the length bytes at in. False for anything but one whole, well-
// formed datagram of the right kind: short, too long, another version, a
// nonzero reserved field, an unknown op, a request with the answer bit or
// an answer without it, a length field that disagrees with the datagram.
// Never reads outside [in, in + length).
bool DecodeRequest(const uint8_t *in, size_t length, ControlRequest *request);
bool DecodeAnswer(const uint8_t *in, size_t length, ControlAnswer *answer);

// Node list data (op 3): count big-endian 16-bit node numbers. Encoding
// returns the bytes written, or 0 when they do not fit room (nothing
// written; an empty list is also 0 bytes). Decoding reads length bytes
// into nodes and stores their number in *count; false when length is odd
// or the list has more than room entries.
size_t EncodeNodeList(const uint16_t *nodes, uint32_t count, uint8_t *out, size_t room);
bool DecodeNodeList(const uint8_t *data, uint32_t length, uint16_t *nodes, uint32_t room,
                    uint32_t *count);

// The 32-bit data of op 6: big-endian.
void PutWord(uint32_t word, uint8_t out[4]);
uint32_t GetWord(const uint8_t in[4]);

}  // namespace l2vfib::host

#endif

// Encoding and decoding of the host's control protocol (layouts and op
// codes in control_proto.h). Every length is checked before a byte is
// read or written.
#include "control_proto.h"

#include <cstring>

namespace l2vfib::host {

namespace {

void Put32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

uint32_t Get32(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

bool KnownOp(uint8_t op) { return op >= kOpIoctl && op <= kOpTunnelGetMode; }

// The whole datagram's length, or 0 when it cannot be written.
size_t Fits(size_t head, const uint8_t *body, uint32_t bodyLength, size_t room) {
    if (body == nullptr && bodyLength != 0) return 0;
    if (bodyLength > kMaxDatagram - head) return 0;
    const size_t total = head + bodyLength;
    return total <= room ? total : 0;
}

// The first four bytes common to both kinds; false when they are wrong.
bool ReadStart(const uint8_t *in, size_t length, size_t head, bool answer, uint8_t *op) {
    if (in == nullptr || length < head || length > kMaxDatagram) return false;
    if (in[0] != kControlVersion || in[2] != 0 || in[3] != 0) return false;
    if (((in[1] & kAnswerBit) != 0) != answer) return false;
    *op = static_cast<uint8_t>(in[1] & ~kAnswerBit);
    return KnownOp(*op);
}

}  // namespace

size_t EncodeRequest(const ControlRequest &request, uint8_t *out, size_t room) {
    if (!KnownOp(request.op) || out == nullptr) return 0;
    const size_t total = Fits(kRequestHead, request.input, request.inputLength, room);
    if (total == 0) return 0;
    out[0] = kControlVersion;
    out[1] = request.op;
    out[2] = 0;
    out[3] = 0;
    Put32(out + 4, request.sequence);
    Put32(out + 8, request.arg0);
    Put32(out + 12, request.arg1);
    Put32(out + 16, request.arg2);
    Put32(out + 20, request.inputLength);
    if (request.inputLength != 0) std::memcpy(out + kRequestHead, request.input, request.inputLength);
    return total;
}

size_t EncodeAnswer(const ControlAnswer &answer, uint8_t *out, size_t room) {
    if (!KnownOp(answer.op) || out == nullptr) return 0;
    const size_t total = Fits(kAnswerHead, answer.data, answer.dataLength, room);
    if (total == 0) return 0;
    out[0] = kControlVersion;
    out[1] = static_cast<uint8_t>(answer.op | kAnswerBit);
    out[2] = 0;
    out[3] = 0;
    Put32(out + 4, answer.sequence);
    Put32(out + 8, answer.result);
    Put32(out + 12, answer.dataLength);
    if (answer.dataLength != 0) std::memcpy(out + kAnswerHead, answer.data, answer.dataLength);
    return total;
}

bool DecodeRequest(const uint8_t *in, size_t length, ControlRequest *request) {
    uint8_t op = 0;
    if (!ReadStart(in, length, kRequestHead, false, &op)) return false;
    const uint32_t inputLength = Get32(in + 20);
    if (inputLength != length - kRequestHead) return false;
    request->op = op;
    request->sequence = Get32(in + 4);
    request->arg0 = Get32(in + 8);
    request->arg1 = Get32(in + 12);
    request->arg2 = Get32(in + 16);
    request->inputLength = inputLength;
    request->input = inputLength != 0 ? in + kRequestHead : nullptr;
    return true;
}

bool DecodeAnswer(const uint8_t *in, size_t length, ControlAnswer *answer) {
    uint8_t op = 0;
    if (!ReadStart(in, length, kAnswerHead, true, &op)) return false;
    const uint32_t dataLength = Get32(in + 12);
    if (dataLength != length - kAnswerHead) return false;
    answer->op = op;
    answer->sequence = Get32(in + 4);
    answer->result = Get32(in + 8);
    answer->dataLength = dataLength;
    answer->data = dataLength != 0 ? in + kAnswerHead : nullptr;
    return true;
}

size_t EncodeNodeList(const uint16_t *nodes, uint32_t count, uint8_t *out, size_t room) {
    if (count == 0 || nodes == nullptr || out == nullptr || count > room / 2) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        out[2 * i] = static_cast<uint8_t>(nodes[i] >> 8);
        out[2 * i + 1] = static_cast<uint8_t>(nodes[i]);
    }
    return size_t{count} * 2;
}

bool DecodeNodeList(const uint8_t *data, uint32_t length, uint16_t *nodes, uint32_t room,
                    uint32_t *count) {
    if (length % 2 != 0 || length / 2 > room) return false;
    if (length != 0 && (data == nullptr || nodes == nullptr)) return false;
    for (uint32_t i = 0; i < length / 2; ++i)
        nodes[i] = static_cast<uint16_t>((data[2 * i] << 8) | data[2 * i + 1]);
    *count = length / 2;
    return true;
}

void PutWord(uint32_t word, uint8_t out[4]) { Put32(out, word); }

uint32_t GetWord(const uint8_t in[4]) { return Get32(in); }

}  // namespace l2vfib::host

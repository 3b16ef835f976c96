// The no-I/O platform of the benchmarks and the zero-heap test.
//
// TLV item, as STLV_Set writes it and STLV_Get reads it:
//
//    0       2       4
//   +-------+-------+------------------------+
//   | type  | length| value (length bytes)   |
//   | be16  | be16  |                        |
//   +-------+-------+------------------------+
//
// SKT_Send counts datagrams and bytes only: walking the messages in each
// would be the harness's cost inside the library's column. The loops know
// how many messages their calls queued.
#include "bench_platform.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>

#include "l2vfib_platform.h"

namespace bench {
namespace {

Counters counters;
const uint8_t *recvData;
size_t recvLength;
uint8_t *copyTo;
size_t copyRoom;

// The value copy of STLV_Set, out of line so that a header-only call saves
// no register.
[[gnu::noinline]] uint32_t CopyValue(uint8_t *to, const void *value, uint32_t length) {
    std::memcpy(to, value, length);
    return 4 + length;
}

}  // namespace

Counters &Count() { return counters; }
void ResetCount() { counters = Counters{}; }

void SetRecv(const void *datagram, size_t length) {
    recvData = static_cast<const uint8_t *>(datagram);
    recvLength = length;
}

void CopySends(uint8_t *copy, size_t room) {
    copyTo = copy;
    copyRoom = room;
}

}  // namespace bench

using bench::counters;

extern "C" {

uint32_t STLV_Set(void *buffer, uint32_t room, uint32_t type, uint32_t length, const void *value) {
    if (((type | length) >> 16) != 0 || room < 4 + length) return 0;
    const uint32_t head = htonl(type << 16 | length);
    std::memcpy(buffer, &head, sizeof head);
    if (value == nullptr) return 4 + length;
    return bench::CopyValue(static_cast<uint8_t *>(buffer) + 4, value, length);
}

uint32_t STLV_Get(const void *buffer, uint32_t length, uint32_t *type, uint32_t *itemLength,
                  const void **value) {
    const auto *in = static_cast<const uint8_t *>(buffer);
    *value = nullptr;
    if (in == nullptr || length < 4) return 0;
    const uint32_t n = uint32_t{in[2]} << 8 | in[3];
    if (length - 4 < n) return 0;
    *type = uint32_t{in[0]} << 8 | in[1];
    *itemLength = n;
    *value = in + 4;
    return 1;
}

uint32_t CIOCTL(uint32_t, uint32_t, uint32_t, const void *, uint32_t, void *,
                uint32_t *answerLength) {
    if (answerLength != nullptr) *answerLength = 0;
    return 0;
}

uint32_t CIOCTL_Async(uint32_t, uint32_t, uint32_t, const void *) { return 0; }

uint16_t *DEV_GetAllNodes(uint32_t *count) {
    auto *nodes = static_cast<uint16_t *>(std::malloc(2 * sizeof(uint16_t)));
    if (nodes == nullptr) return nullptr;
    nodes[0] = 1;
    nodes[1] = 2;
    *count = 2;
    ++counters.nodeLists;
    return nodes;
}

uint32_t IF_IsNodeUp(uint32_t) { return 1; }
uint32_t LIP_GetLocalLip(uint32_t) { return 0x0a000001; }

uint32_t TUNNEL_GetMode(uint32_t, uint32_t *mode) {
    *mode = 24;
    return 0;
}

int SKT_Socket(int, int, int) { return 7; }
int SKT_Connect(int, const void *, uint32_t) { return 0; }

ssize_t SKT_Send(int, const void *data, size_t length, int) {
    const auto *p = static_cast<const uint8_t *>(data);
    ++counters.sends;
    if (bench::copyTo != nullptr && length <= bench::copyRoom) {
        std::memcpy(bench::copyTo, p, length);
        bench::copyTo += length;
        bench::copyRoom -= length;
    }
    counters.bytes += length;
    return static_cast<ssize_t>(length);
}

ssize_t SKT_Recv(int, void *data, size_t length, int) {
    if (bench::recvLength == 0) {
        errno = EAGAIN;
        return -1;
    }
    const size_t n = bench::recvLength < length ? bench::recvLength : length;
    std::memcpy(data, bench::recvData, n);
    return static_cast<ssize_t>(n);
}

int SKT_SetOpt(int, int, int, const void *, uint32_t) { return 0; }
int SKT_Close(int) { return 0; }

}  // extern "C"

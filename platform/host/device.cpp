// The control calls and device services of the platform, answered by the
// emulated device at the control endpoint of the device directory over
// the host's control protocol (control_proto.h).
//
// Each call opens a fresh autobound AF_UNIX datagram socket connected to
// the endpoint, sends one request and, except CIOCTL_Async, waits for the
// answer that echoes the request's op and sequence, for at most
// $L2VFIB_CONTROL_TIMEOUT_MS milliseconds (3000 when unset or not a
// number). Datagrams that are not that answer are dropped.
//
// With no device (no endpoint, a device directory that is not trusted, no
// answer in time, or a malformed answer) the calls fail as a device would:
// CIOCTL and CIOCTL_Async return kNoDevice, DEV_GetAllNodes returns null
// with a count of 0, IF_IsNodeUp returns 0, TUNNEL_GetMode returns
// kNoDevice and leaves the mode alone, and LIP_GetLocalLip returns
// kFallbackLocalLip (node 0x0001).
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "control_proto.h"
#include "host_addr.h"
#include "l2vfib_platform.h"

using namespace l2vfib::host;

namespace {

constexpr long kDefaultTimeoutMs = 3000;
constexpr long kLongestTimeoutMs = 3600 * 1000;

constinit std::atomic<uint32_t> gSequence{1};

long TimeoutMs() {
    const char *text = std::getenv("L2VFIB_CONTROL_TIMEOUT_MS");
    if (text == nullptr || text[0] == '\0') return kDefaultTimeoutMs;
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*end != '\0' || value <= 0) return kDefaultTimeoutMs;
    return value < kLongestTimeoutMs ? value : kLongestTimeoutMs;
}

long NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000L;
}

// A socket connected to the control endpoint, or -1 when there is none or
// the device directory is not trusted.
int OpenControl() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (!BindIfUnbound(fd) || ConnectInDeviceDir(fd, kControlName) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Waits on fd until the answer to (op, sequence) arrives or time runs out.
bool AwaitAnswer(int fd, uint8_t op, uint32_t sequence, uint8_t (&buffer)[kMaxDatagram],
                 ControlAnswer *answer) {
    const long deadline = NowMs() + TimeoutMs();
    for (;;) {
        const long left = deadline - NowMs();
        if (left <= 0) return false;
        pollfd readable{fd, POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        // MSG_TRUNC reports a datagram's real length, so an oversized one
        // is recognised and dropped rather than read in part.
        const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        if (static_cast<size_t>(n) > sizeof buffer) continue;
        if (DecodeAnswer(buffer, static_cast<size_t>(n), answer) && answer->op == op &&
            answer->sequence == sequence)
            return true;
    }
}

// Sends the request and, when answer is not null, waits for its answer,
// whose data then points into buffer. Returns 0, kBadRequest or kNoDevice.
uint32_t Call(ControlRequest request, uint8_t (&buffer)[kMaxDatagram], ControlAnswer *answer) {
    request.sequence = gSequence.fetch_add(1, std::memory_order_relaxed);
    const size_t length = EncodeRequest(request, buffer, sizeof buffer);
    if (length == 0) return kBadRequest;
    const int fd = OpenControl();
    if (fd < 0) return kNoDevice;
    bool done = false;
    ssize_t sent;
    do {
        sent = send(fd, buffer, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0 && static_cast<size_t>(sent) == length)
        done = answer == nullptr || AwaitAnswer(fd, request.op, request.sequence, buffer, answer);
    close(fd);
    return done ? 0 : kNoDevice;
}

ControlRequest Request(uint8_t op, uint32_t arg0) {
    ControlRequest request{};
    request.op = op;
    request.arg0 = arg0;
    return request;
}

}  // namespace

extern "C" uint32_t CIOCTL(uint32_t target, uint32_t code, uint32_t inputLength, const void *input,
                           uint32_t answerRoom, void *answer, uint32_t *answerLength) {
    if (answerLength != nullptr) *answerLength = 0;
    if (answer == nullptr) answerRoom = 0;
    ControlRequest request = Request(kOpIoctl, target);
    request.arg1 = code;
    request.arg2 = answerRoom;
    request.input = static_cast<const uint8_t *>(input);
    request.inputLength = inputLength;
    uint8_t buffer[kMaxDatagram];
    ControlAnswer reply{};
    const uint32_t status = Call(request, buffer, &reply);
    if (status != 0) return status;
    // The device answers at most answerRoom bytes; more is cut, never written.
    const uint32_t copied = reply.dataLength < answerRoom ? reply.dataLength : answerRoom;
    if (copied != 0) std::memcpy(answer, reply.data, copied);
    if (answerLength != nullptr) *answerLength = copied;
    return reply.result;
}

extern "C" uint32_t CIOCTL_Async(uint32_t target, uint32_t code, uint32_t inputLength,
                                 const void *input) {
    ControlRequest request = Request(kOpIoctlAsync, target);
    request.arg1 = code;
    request.input = static_cast<const uint8_t *>(input);
    request.inputLength = inputLength;
    uint8_t buffer[kMaxDatagram];
    return Call(request, buffer, nullptr);
}

extern "C" uint16_t *DEV_GetAllNodes(uint32_t *count) {
    if (count == nullptr) return nullptr;
    *count = 0;
    uint8_t buffer[kMaxDatagram];
    ControlAnswer reply{};
    if (Call(Request(kOpGetAllNodes, 0), buffer, &reply) != 0 || reply.result != 0 ||
        reply.dataLength % 2 != 0)
        return nullptr;
    const uint32_t room = reply.dataLength / 2;
    // Never a zero-byte allocation: an empty list is still a list to free.
    auto *nodes = static_cast<uint16_t *>(std::malloc((room != 0 ? room : 1) * sizeof(uint16_t)));
    if (nodes == nullptr) return nullptr;
    uint32_t decoded = 0;
    if (!DecodeNodeList(reply.data, reply.dataLength, nodes, room, &decoded)) {
        std::free(nodes);
        return nullptr;
    }
    *count = decoded;
    return nodes;
}

extern "C" uint32_t IF_IsNodeUp(uint32_t node) {
    uint8_t buffer[kMaxDatagram];
    ControlAnswer reply{};
    if (Call(Request(kOpIsNodeUp, node), buffer, &reply) != 0) return 0;
    return reply.result;
}

extern "C" uint32_t LIP_GetLocalLip(uint32_t which) {
    uint8_t buffer[kMaxDatagram];
    ControlAnswer reply{};
    if (Call(Request(kOpGetLocalLip, which), buffer, &reply) != 0) return kFallbackLocalLip;
    return reply.result;
}

extern "C" uint32_t TUNNEL_GetMode(uint32_t ifIndex, uint32_t *mode) {
    if (mode == nullptr) return kBadRequest;
    uint8_t buffer[kMaxDatagram];
    ControlAnswer reply{};
    const uint32_t status = Call(Request(kOpTunnelGetMode, ifIndex), buffer, &reply);
    if (status != 0) return status;
    if (reply.result != 0) return reply.result;
    if (reply.dataLength != 4) return kNoDevice;
    *mode = GetWord(reply.data);
    return 0;
}

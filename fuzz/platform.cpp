// The fuzzers' platform. Sockets are numbers from a small table: a
// descriptor is valid from SKT_Socket to SKT_Close, and any call on another
// number fails with EBADF, so a library that uses a closed or unknown
// descriptor is noticed. Sends are accepted whole; the one pending datagram
// is returned by the first receive on any open descriptor. Control calls
// succeed with an empty answer, so the capability counts stay as they are.
#include "platform.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/types.h>

#include "l2vfib_platform.h"

namespace {

constexpr int kFirstFd = 100;
constexpr int kMaxFds = 8;
constexpr int kFamily = 37;
constexpr size_t kMaxDatagram = 65536;

bool g_open[kMaxFds] = {};
uint8_t g_datagram[kMaxDatagram];
size_t g_datagramSize = 0;
bool g_pending = false;
int g_recvCalls = 0;

bool Valid(int fd) {
    return fd >= kFirstFd && fd < kFirstFd + kMaxFds && g_open[fd - kFirstFd];
}

}  // namespace

namespace fuzzplat {

void SetDatagram(const uint8_t *data, size_t size) {
    if (size > kMaxDatagram) size = kMaxDatagram;
    if (size != 0) std::memcpy(g_datagram, data, size);
    g_datagramSize = size;
    g_pending = true;
}

bool DatagramPending() { return g_pending; }

void Reset() {
    g_pending = false;
    g_datagramSize = 0;
    g_recvCalls = 0;
}

int OpenSockets() {
    int n = 0;
    for (bool open : g_open) n += open ? 1 : 0;
    return n;
}

int RecvCalls() { return g_recvCalls; }

}  // namespace fuzzplat

extern "C" {

int SKT_Socket(int family, int, int) {
    if (family != kFamily) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    for (int i = 0; i < kMaxFds; ++i) {
        if (!g_open[i]) {
            g_open[i] = true;
            return kFirstFd + i;
        }
    }
    errno = EMFILE;
    return -1;
}

int SKT_Connect(int fd, const void *address, uint32_t addressLength) {
    if (!Valid(fd)) {
        errno = EBADF;
        return -1;
    }
    if (address == nullptr || addressLength != 16) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

ssize_t SKT_Send(int fd, const void *data, size_t length, int) {
    if (!Valid(fd)) {
        errno = EBADF;
        return -1;
    }
    if (data == nullptr && length != 0) {
        errno = EFAULT;
        return -1;
    }
    return static_cast<ssize_t>(length);
}

ssize_t SKT_Recv(int fd, void *data, size_t length, int) {
    ++g_recvCalls;
    if (!Valid(fd)) {
        errno = EBADF;
        return -1;
    }
    if (!g_pending) {
        errno = EAGAIN;
        return -1;
    }
    g_pending = false;
    const size_t n = g_datagramSize < length ? g_datagramSize : length;
    if (n != 0) std::memcpy(data, g_datagram, n);
    return static_cast<ssize_t>(n);
}

int SKT_SetOpt(int fd, int, int, const void *value, uint32_t) {
    if (!Valid(fd)) {
        errno = EBADF;
        return -1;
    }
    if (value == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return 0;
}

int SKT_Close(int fd) {
    if (!Valid(fd)) {
        errno = EBADF;
        return -1;
    }
    g_open[fd - kFirstFd] = false;
    return 0;
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
    nodes[0] = 0x8000;
    nodes[1] = 0x8001;
    if (count != nullptr) *count = 2;
    return nodes;
}

uint32_t IF_IsNodeUp(uint32_t) { return 1; }

uint32_t LIP_GetLocalLip(uint32_t) { return 0x0A008001u; }

uint32_t TUNNEL_GetMode(uint32_t, uint32_t *mode) {
    if (mode != nullptr) *mode = 0;
    return 0;
}

}  // extern "C"

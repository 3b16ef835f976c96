// The device's datagram sockets (family 37), emulated with connected
// AF_UNIX SOCK_SEQPACKET sockets in the device directory (see host_addr.h).
//
// Why packets and not datagrams: a datagram socket's queue is counted in
// datagrams (net.unix.max_dgram_qlen, 10 on most hosts), so a daemon that
// loads in bulk would be refused as busy after ten batches even by a
// service that keeps up. A connected packet socket keeps message
// boundaries like a datagram, but its queue is counted in bytes (the send
// buffer: about 90 batches of 1400 bytes at the default size), as deep as
// a device's. The service accepts one connection per socket and answers
// on it; a service that goes away closes it, so the next send fails with
// EPIPE, as on a device whose service restarted.
//
// - SKT_Socket: an AF_UNIX SOCK_SEQPACKET socket, close-on-exec.
// - SKT_Connect: the 16-byte device address names the socket file of
//   (node, port), which is connected through the device directory, checked
//   and opened for this connect alone (host_addr.h).
// - SKT_SetOpt: the device's time-out options (level 1, 0x1005 send and
//   0x1006 receive, two host-order u32: seconds, microseconds) become
//   SO_SNDTIMEO and SO_RCVTIMEO with a struct timeval; any other option
//   goes to setsockopt unchanged.
// - SKT_Send, SKT_Recv, SKT_Close: send, recv and close; flags pass through
//   (MSG_NOSIGNAL is added to every send so that a vanished service never
//   raises SIGPIPE in the daemon).
// errno is always the system's, or set here for what the device refuses.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "host_addr.h"
#include "l2vfib_platform.h"

namespace l2vfib::host {

bool BindIfUnbound(int fd) {
    sockaddr_un self{};
    socklen_t length = sizeof self;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&self), &length) != 0) return false;
    if (self.sun_family != AF_UNIX) {
        errno = EAFNOSUPPORT;
        return false;
    }
    if (length > sizeof(sa_family_t)) return true;
    // An address of the family alone asks the kernel for an abstract name.
    sockaddr_un any{};
    any.sun_family = AF_UNIX;
    return bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof(sa_family_t)) == 0;
}

}  // namespace l2vfib::host

using namespace l2vfib::host;

extern "C" int SKT_Socket(int family, int type, int protocol) {
    if (family != kDeviceFamily) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    if ((type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != SOCK_DGRAM) {
        errno = ESOCKTNOSUPPORT;
        return -1;
    }
    if (protocol != 0 && protocol != kDeviceProtocol) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    const int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | flags | SOCK_CLOEXEC, 0);
    // The deepest queue the host lets a user ask for (net.core.wmem_max,
    // which the kernel doubles): twice the default, about 180 batches.
    const int depth = 1 << 22;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &depth, sizeof depth);
    return fd;
}

extern "C" int SKT_Connect(int fd, const void *address, uint32_t addressLength) {
    uint16_t node = 0;
    uint16_t port = 0;
    if (!ParseDeviceAddress(address, addressLength, &node, &port)) return -1;
    char name[32];
    if (NodePortName(node, port, name, sizeof name) < 0) return -1;
    // EACCES: the device directory is not this user's alone.
    return ConnectInDeviceDir(fd, name);
}

extern "C" ssize_t SKT_Send(int fd, const void *data, size_t length, int flags) {
    return send(fd, data, length, flags | MSG_NOSIGNAL);
}

extern "C" ssize_t SKT_Recv(int fd, void *data, size_t length, int flags) {
    return recv(fd, data, length, flags);
}

extern "C" int SKT_SetOpt(int fd, int level, int name, const void *value, uint32_t valueLength) {
    if (level != kDeviceOptLevel ||
        (name != kDeviceOptSendTimeout && name != kDeviceOptRecvTimeout))
        return setsockopt(fd, level, name, value, valueLength);
    uint32_t words[2] = {};
    if (value == nullptr || valueLength != sizeof words) {
        errno = EINVAL;
        return -1;
    }
    std::memcpy(words, value, sizeof words);
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(words[0]);
    limit.tv_usec = static_cast<suseconds_t>(words[1]);
    const int option = name == kDeviceOptSendTimeout ? SO_SNDTIMEO : SO_RCVTIMEO;
    return setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
}

extern "C" int SKT_Close(int fd) { return close(fd); }

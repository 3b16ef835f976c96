// The thin socket layer over the platform's family-37 calls.
#ifndef L2VFIB_MSG_TRANSPORT_H
#define L2VFIB_MSG_TRANSPORT_H

#include <cstddef>
#include <cstdint>

namespace l2vfib {

constexpr int kFamily = 37;
constexpr int kProtocol = 1;
constexpr int kOptLevel = 1;
constexpr int kOptSendTimeout = 0x1005;
constexpr int kOptRecvTimeout = 0x1006;

// Connects fd to (port, node), calling connect again on EINTR; EISCONN
// counts as connected. False on any other failure (fd is left open).
bool ConnectTo(int fd, uint16_t port, uint16_t node);

// Creates a datagram socket and connects it to (port, node): the
// descriptor, or -1 with nothing left open.
int OpenConnected(uint16_t port, uint16_t node);

// Sets a time-out option (send or receive) of whole seconds on fd.
bool SetTimeout(int fd, int name, uint32_t seconds);

// Sends length bytes with a blocking send, sending again while it fails
// with EINTR. True only when the whole message was handed over.
bool SendBlocking(int fd, const void *data, size_t length);

// Sends length bytes once with the given flags. True only when the whole
// message was handed over.
bool SendOnce(int fd, const void *data, size_t length, int flags);

}  // namespace l2vfib

#endif

// Sockets of the device's address family.
//
// Address given to connect, 16 bytes:
//
//    0     1      2        4        6
//   +-----+------+--------+--------+----------------+
//   | 16  |  37  | port   | node   | 10 zero bytes  |
//   |     |      | be16   | be16   |                |
//   +-----+------+--------+--------+----------------+
#include "msg/transport.h"

#include <cerrno>
#include <sys/socket.h>

#include "l2vfib_platform.h"
#include "msg/wire.h"

namespace l2vfib {

bool ConnectTo(int fd, uint16_t port, uint16_t node) {
    uint8_t address[16] = {};
    address[0] = 16;
    address[1] = static_cast<uint8_t>(kFamily);
    PutBe16(address + 2, port);
    PutBe16(address + 4, node);
    for (;;) {
        if (SKT_Connect(fd, address, sizeof address) == 0) return true;
        if (errno == EISCONN) return true;
        if (errno != EINTR) return false;
    }
}

int OpenConnected(uint16_t port, uint16_t node) {
    int fd = SKT_Socket(kFamily, SOCK_DGRAM, kProtocol);
    if (fd < 0) return -1;
    if (!ConnectTo(fd, port, node)) {
        SKT_Close(fd);
        return -1;
    }
    return fd;
}

bool SetTimeout(int fd, int name, uint32_t seconds) {
    // Two host-order words: seconds, then microseconds.
    const uint32_t value[2] = {seconds, 0};
    return SKT_SetOpt(fd, kOptLevel, name, value, sizeof value) == 0;
}

bool SendBlocking(int fd, const void *data, size_t length) {
    ssize_t sent;
    do {
        sent = SKT_Send(fd, data, length, 0);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0 && static_cast<size_t>(sent) == length;
}

bool SendOnce(int fd, const void *data, size_t length, int flags) {
    ssize_t sent = SKT_Send(fd, data, length, flags);
    return sent >= 0 && static_cast<size_t>(sent) == length;
}

}  // namespace l2vfib

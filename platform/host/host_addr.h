// Where the emulated device's sockets live on a Linux host.
//
// Every address of the device, (node, port), is a socket file in one
// device directory, and so is the control-call endpoint:
//
//   <device directory>/node-8000.port-2670   port 2670 on node 0x8000
//   <device directory>/node-0001.port-12566  port 12566 on node 0x0001
//   <device directory>/control               the control-call endpoint
//
// The node is four lower-case hex digits, the port decimal. The device
// directory is $L2VFIB_DEVICE_DIR; when that is unset or empty,
// $XDG_RUNTIME_DIR/l2vfib; when that is unset or empty too,
// /tmp/l2vfib-<uid>. The client side never creates it: the emulated device
// does.
//
// The device directory is trusted only when, after following symlinks, it
// is a directory owned by the effective user and writable by neither group
// nor others: whoever else can write it can put a socket of their own in
// place of a service's file and read or answer everything a daemon sends.
//
// No exceptions, no heap: every function writes into memory it is given
// and reports failure through errno.
#ifndef L2VFIB_HOST_ADDR_H
#define L2VFIB_HOST_ADDR_H

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

namespace l2vfib::host {

// The device's socket numbers.
constexpr int kDeviceFamily = 37;
constexpr int kDeviceProtocol = 1;
constexpr int kDeviceOptLevel = 1;
constexpr int kDeviceOptSendTimeout = 0x1005;
constexpr int kDeviceOptRecvTimeout = 0x1006;
constexpr uint32_t kDeviceAddressSize = 16;

// Longest path a socket address holds, NUL excluded.
constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

// Writes the device directory into out, NUL-terminated. Returns its length,
// or -1 with errno ENAMETOOLONG (nothing usable written) when it needs more
// than room bytes.
int DeviceDir(char *out, size_t room);

// Writes the socket path of (node, port) into out, NUL-terminated. Returns
// its length, or -1 with errno ENAMETOOLONG.
int NodePortPath(uint16_t node, uint16_t port, char *out, size_t room);

// Writes the path of the control endpoint into out. Returns its length, or
// -1 with errno ENAMETOOLONG.
int ControlPath(char *out, size_t room);

// Why a directory is not trusted as the device directory.
enum class DirFault : uint8_t {
    kNone,            // trusted
    kMissing,         // stat failed: missing, or not reachable
    kNotDirectory,
    kOtherOwner,      // owned by a user other than the effective one
    kOthersWritable,
    kGroupWritable,
};

// Checks the directory at path against the rule above and returns the
// first fault found, or kNone. On a fault errno is stat's own for kMissing
// (ENOENT when missing) and EACCES for the others, and, when text is not
// null, a short reason is written into it, NUL-terminated and cut to room:
// "missing" (or stat's error text), "not a directory", "owned by uid N",
// "writable by others", "writable by group".
DirFault CheckDir(const char *path, char *text, size_t room);

// The device directory checked with CheckDir: true when it is trusted;
// false with errno set as CheckDir sets it, or ENAMETOOLONG.
bool DeviceDirTrusted();

// Fills an AF_UNIX address for (node, port) or for the control endpoint.
// False with errno ENAMETOOLONG when the path does not fit sun_path.
bool NodePortAddress(uint16_t node, uint16_t port, sockaddr_un *address, socklen_t *length);
bool ControlAddress(sockaddr_un *address, socklen_t *length);

// Reads the device's 16-byte address: byte 0 is 16, byte 1 the family 37,
// bytes 2-3 the port and 4-5 the node (both big-endian), bytes 6-15 zero.
// False with errno EAFNOSUPPORT for another family, EINVAL for anything
// else that is wrong (null, another length, a bad first byte, a nonzero
// tail).
bool ParseDeviceAddress(const void *address, uint32_t length, uint16_t *node, uint16_t *port);

// Binds an unbound AF_UNIX socket to an abstract address the kernel picks
// (autobind), so that a service can answer it with sendto; a bound socket
// is left as it is. False with errno set when that fails.
bool BindIfUnbound(int fd);

}  // namespace l2vfib::host

#endif

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
// directory is $L2VFIB_DEVICE_DIR (a relative one is taken from the
// current directory when it is read); when that is unset or empty,
// $XDG_RUNTIME_DIR/l2vfib; when that is unset or empty too,
// /tmp/l2vfib-<uid>. The client side never creates it: the emulated device
// does.
//
// Whoever else can write the device directory, or swap it for another,
// can put a socket of their own in place of a service's file and read or
// answer everything a daemon sends. So the directory is checked without
// following a symlink at its last component, opened once, checked again
// through the descriptor, and every socket in it is reached through that
// descriptor (/proc/self/fd/N/name): what the path names after the check
// no longer matters.
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

// Longest directory path the device directory may have, NUL excluded.
constexpr size_t kMaxDirPath = 1023;

// Writes the device directory into out, NUL-terminated: an absolute path
// without a trailing slash. Returns its length, or -1 with errno
// ENAMETOOLONG (nothing usable written) when it needs more than room bytes,
// or getcwd's errno when a relative one cannot be made absolute.
int DeviceDir(char *out, size_t room);

// Opens the directory at path when it can be trusted as a device
// directory, and returns its descriptor (read-only, close-on-exec). It is
// trusted when lstat finds a directory (a symlink is not followed, and
// refused), owned by the effective user, with no permission for group or
// others, in a parent that others cannot write unless it is sticky; and
// when the descriptor opened (O_NOFOLLOW) is that same directory, still so.
// Otherwise -1, with errno lstat's own when it fails (ENOENT when missing)
// and EACCES for the others; when why is not null, the reason is written
// into it, NUL-terminated and cut to room: "missing" (or lstat's error
// text), "a symlink", "not a directory", "owned by uid N", "open to group
// or others (mode 0NNN)", "parent writable by others", "changed while it
// was checked".
int OpenTrustedDir(const char *path, char *why, size_t room);

// The device directory opened with OpenTrustedDir: its descriptor, or -1
// with errno set as that sets it, or ENAMETOOLONG.
int OpenDeviceDir(char *why, size_t room);

// Writes the socket file's name of (node, port), "node-8000.port-2670",
// into out. Returns its length, or -1 with errno ENAMETOOLONG.
int NodePortName(uint16_t node, uint16_t port, char *out, size_t room);

// The control endpoint's file name.
inline constexpr char kControlName[] = "control";

// Fills an AF_UNIX address for the file name in the directory open at
// dirFd: /proc/self/fd/<dirFd>/<name>, which always fits sun_path for the
// device's names. False with errno ENAMETOOLONG for a name that does not.
bool AddressAt(int dirFd, const char *name, sockaddr_un *address, socklen_t *length);

// Connects fd to the socket file name in the directory open at dirFd,
// through the descriptor. 0, or -1 with connect's errno (ENAMETOOLONG for
// a name too long).
int ConnectAt(int dirFd, int fd, const char *name);

// Connects fd to the socket file name of the device directory: the
// directory is opened and checked (OpenDeviceDir), connected through, and
// closed again. 0, or -1 with connect's errno, or OpenDeviceDir's (EACCES
// when the directory is not trusted).
int ConnectInDeviceDir(int fd, const char *name);

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

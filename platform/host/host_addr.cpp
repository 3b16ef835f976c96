// Socket paths of the emulated device, the check that its directory can be
// trusted, and the reading of the device's 16-byte address (the layout is
// given in host_addr.h).
#include "host_addr.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vfib::host {

namespace {

// snprintf's result as a length, or -1/ENAMETOOLONG when it was cut.
int Fitted(int written, size_t room) {
    if (written < 0 || static_cast<size_t>(written) >= room) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return written;
}

const char *NonEmptyEnv(const char *name) {
    const char *value = std::getenv(name);
    return (value != nullptr && value[0] != '\0') ? value : nullptr;
}

bool FillAddress(const char *path, int length, sockaddr_un *address, socklen_t *addressLength) {
    if (length < 0) return false;
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path, static_cast<size_t>(length) + 1);
    *addressLength =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(length) + 1);
    return true;
}

}  // namespace

int DeviceDir(char *out, size_t room) {
    if (const char *dir = NonEmptyEnv("L2VFIB_DEVICE_DIR"))
        return Fitted(std::snprintf(out, room, "%s", dir), room);
    if (const char *runtime = NonEmptyEnv("XDG_RUNTIME_DIR"))
        return Fitted(std::snprintf(out, room, "%s/l2vfib", runtime), room);
    return Fitted(std::snprintf(out, room, "/tmp/l2vfib-%u", static_cast<unsigned>(getuid())),
                  room);
}

DirFault CheckDir(const char *path, char *text, size_t room) {
    struct stat seen{};
    DirFault fault = DirFault::kNone;
    if (stat(path, &seen) != 0)
        fault = DirFault::kMissing;
    else if (!S_ISDIR(seen.st_mode))
        fault = DirFault::kNotDirectory;
    else if (seen.st_uid != geteuid())
        fault = DirFault::kOtherOwner;
    else if ((seen.st_mode & S_IWOTH) != 0)
        fault = DirFault::kOthersWritable;
    else if ((seen.st_mode & S_IWGRP) != 0)
        fault = DirFault::kGroupWritable;
    if (fault == DirFault::kNone) return fault;
    const int error = fault == DirFault::kMissing ? errno : EACCES;
    if (text != nullptr && room != 0) {
        static constexpr const char *kReasons[] = {"", "missing", "not a directory", "",
                                                   "writable by others", "writable by group"};
        if (fault == DirFault::kOtherOwner)
            std::snprintf(text, room, "owned by uid %u", static_cast<unsigned>(seen.st_uid));
        else if (fault == DirFault::kMissing && error != ENOENT)
            std::snprintf(text, room, "%s", std::strerror(error));
        else
            std::snprintf(text, room, "%s", kReasons[static_cast<int>(fault)]);
    }
    errno = error;
    return fault;
}

bool DeviceDirTrusted() {
    char dir[kMaxSocketPath + 1];
    return DeviceDir(dir, sizeof dir) >= 0 && CheckDir(dir, nullptr, 0) == DirFault::kNone;
}

namespace {

// The device directory followed by /name: the path's length, or -1 when it
// does not fit room.
int InDeviceDir(const char *name, char *out, size_t room) {
    const int dir = DeviceDir(out, room);
    if (dir < 0) return -1;
    const size_t used = static_cast<size_t>(dir);
    const int tail = Fitted(std::snprintf(out + used, room - used, "/%s", name), room - used);
    return tail < 0 ? -1 : dir + tail;
}

}  // namespace

int NodePortPath(uint16_t node, uint16_t port, char *out, size_t room) {
    char name[32];
    std::snprintf(name, sizeof name, "node-%04x.port-%u", static_cast<unsigned>(node),
                  static_cast<unsigned>(port));
    return InDeviceDir(name, out, room);
}

int ControlPath(char *out, size_t room) { return InDeviceDir("control", out, room); }

bool NodePortAddress(uint16_t node, uint16_t port, sockaddr_un *address, socklen_t *length) {
    char path[kMaxSocketPath + 1];
    return FillAddress(path, NodePortPath(node, port, path, sizeof path), address, length);
}

bool ControlAddress(sockaddr_un *address, socklen_t *length) {
    char path[kMaxSocketPath + 1];
    return FillAddress(path, ControlPath(path, sizeof path), address, length);
}

bool ParseDeviceAddress(const void *address, uint32_t length, uint16_t *node, uint16_t *port) {
    if (address == nullptr || length != kDeviceAddressSize) {
        errno = EINVAL;
        return false;
    }
    const auto *p = static_cast<const uint8_t *>(address);
    if (p[1] != kDeviceFamily) {
        errno = EAFNOSUPPORT;
        return false;
    }
    bool valid = p[0] == kDeviceAddressSize;
    for (uint32_t i = 6; i < kDeviceAddressSize; ++i) valid = valid && p[i] == 0;
    if (!valid) {
        errno = EINVAL;
        return false;
    }
    *port = static_cast<uint16_t>((p[2] << 8) | p[3]);
    *node = static_cast<uint16_t>((p[4] << 8) | p[5]);
    return true;
}

}  // namespace l2vfib::host

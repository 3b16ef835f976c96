// The emulated device's directory: named, checked and opened once; its
// socket files reached through the descriptor; and the reading of the
// device's 16-byte address (the layout is given in host_addr.h).
#include "host_addr.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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

// Writes path into out, made absolute from the current directory when it
// is relative, without trailing slashes.
int Absolute(const char *path, char *out, size_t room) {
    int length;
    if (path[0] == '/') {
        length = Fitted(std::snprintf(out, room, "%s", path), room);
    } else {
        if (getcwd(out, room) == nullptr) return -1;
        const size_t cwd = std::strlen(out);
        const int tail = Fitted(std::snprintf(out + cwd, room - cwd, "%s%s",
                                              out[cwd - 1] == '/' ? "" : "/", path),
                                room - cwd);
        length = tail < 0 ? -1 : static_cast<int>(cwd) + tail;
    }
    while (length > 1 && out[length - 1] == '/') out[--length] = '\0';
    return length;
}

// Sets errno to error and writes reason into why (when not null).
int Refuse(int error, const char *reason, char *why, size_t room) {
    if (why != nullptr && room != 0) std::snprintf(why, room, "%s", reason);
    errno = error;
    return -1;
}

// Writes into why what in a directory's own status makes it untrusted;
// false when nothing does.
bool Unfit(const struct stat &seen, char *why, size_t room) {
    char reason[48];
    if (S_ISLNK(seen.st_mode))
        std::snprintf(reason, sizeof reason, "a symlink");
    else if (!S_ISDIR(seen.st_mode))
        std::snprintf(reason, sizeof reason, "not a directory");
    else if (seen.st_uid != geteuid())
        std::snprintf(reason, sizeof reason, "owned by uid %u", static_cast<unsigned>(seen.st_uid));
    else if ((seen.st_mode & 077) != 0)
        std::snprintf(reason, sizeof reason, "open to group or others (mode 0%o)",
                      static_cast<unsigned>(seen.st_mode & 07777));
    else
        return false;
    Refuse(EACCES, reason, why, room);
    return true;
}

// The parent of path (its text up to the last slash; "/" for a top-level
// one, "." for a bare name) is writable by others and not sticky.
bool ParentOpen(const char *path) {
    char parent[kMaxDirPath + 1];
    const int length = Fitted(std::snprintf(parent, sizeof parent, "%s", path), sizeof parent);
    if (length < 0) return true;
    char *slash = std::strrchr(parent, '/');
    if (slash == nullptr) std::snprintf(parent, sizeof parent, ".");
    else slash[slash == parent ? 1 : 0] = '\0';
    struct stat seen{};
    if (stat(parent, &seen) != 0) return true;
    return (seen.st_mode & S_IWOTH) != 0 && (seen.st_mode & S_ISVTX) == 0;
}

}  // namespace

int DeviceDir(char *out, size_t room) {
    if (const char *dir = NonEmptyEnv("L2VFIB_DEVICE_DIR")) return Absolute(dir, out, room);
    if (const char *runtime = NonEmptyEnv("XDG_RUNTIME_DIR")) {
        char dir[kMaxDirPath + 1];
        if (Fitted(std::snprintf(dir, sizeof dir, "%s/l2vfib", runtime), sizeof dir) < 0) return -1;
        return Absolute(dir, out, room);
    }
    return Fitted(std::snprintf(out, room, "/tmp/l2vfib-%u", static_cast<unsigned>(getuid())),
                  room);
}

int OpenTrustedDir(const char *path, char *why, size_t room) {
    struct stat seen{};
    if (lstat(path, &seen) != 0) {
        const int error = errno;
        return Refuse(error, error == ENOENT ? "missing" : std::strerror(error), why, room);
    }
    if (Unfit(seen, why, room)) return -1;
    if (ParentOpen(path)) return Refuse(EACCES, "parent writable by others", why, room);
    // The directory opened is the one checked, and still fit: a swap
    // between the check and the open is seen here.
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat opened{};
    if (fd >= 0 && fstat(fd, &opened) == 0 && opened.st_dev == seen.st_dev &&
        opened.st_ino == seen.st_ino) {
        if (!Unfit(opened, why, room)) return fd;
        close(fd);
        return -1;
    }
    if (fd >= 0) close(fd);
    return Refuse(EACCES, "changed while it was checked", why, room);
}

int OpenDeviceDir(char *why, size_t room) {
    char dir[kMaxDirPath + 1];
    if (DeviceDir(dir, sizeof dir) < 0) return -1;
    return OpenTrustedDir(dir, why, room);
}

int NodePortName(uint16_t node, uint16_t port, char *out, size_t room) {
    return Fitted(std::snprintf(out, room, "node-%04x.port-%u", static_cast<unsigned>(node),
                                static_cast<unsigned>(port)),
                  room);
}

bool AddressAt(int dirFd, const char *name, sockaddr_un *address, socklen_t *length) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const int used = Fitted(std::snprintf(address->sun_path, sizeof address->sun_path,
                                          "/proc/self/fd/%d/%s", dirFd, name),
                            sizeof address->sun_path);
    if (used < 0) return false;
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(used) + 1);
    return true;
}

int ConnectAt(int dirFd, int fd, const char *name) {
    sockaddr_un target{};
    socklen_t targetLength = 0;
    if (!AddressAt(dirFd, name, &target, &targetLength)) return -1;
    return connect(fd, reinterpret_cast<const sockaddr *>(&target), targetLength);
}

int ConnectInDeviceDir(int fd, const char *name) {
    const int dir = OpenDeviceDir(nullptr, 0);
    if (dir < 0) return -1;
    const int result = ConnectAt(dir, fd, name);
    const int error = errno;
    close(dir);
    errno = error;
    return result;
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

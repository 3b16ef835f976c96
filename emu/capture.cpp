#include "capture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace l2vfib::emu {

namespace {
constexpr int kSnapLength = 65536 + 8;
constexpr uint16_t kNodes[] = {0x8000, 0x0001, 0};
constexpr uint16_t kPorts[] = {2670, 12566, 0};
// A pcap file's header, and each record's before its bytes.
constexpr uint64_t kFileHead = 24;
constexpr uint64_t kRecordHead = 16;

std::string ErrorText() { return std::strerror(errno); }
}  // namespace

Capture::~Capture() {
    End();
    if (pcap_ != nullptr) pcap_close(pcap_);
    if (dir_ >= 0) close(dir_);
}

bool Capture::Open(const std::string &path, uint64_t maxBytes, std::string *error) {
    path_ = path;
    maxBytes_ = maxBytes;
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name_ = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name_.empty() || name_ == "." || name_ == "..") {
        *error = "not a file name";
        return false;
    }
    dir_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_ < 0) {
        *error = dir + ": " + ErrorText();
        return false;
    }
    // Not emptied before it is known to be a file of this user's.
    const int fd = openat(dir_, name_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = errno == ELOOP ? "a symlink" : ErrorText();
        return false;
    }
    struct stat seen{};
    std::string why;
    if (fstat(fd, &seen) != 0) why = ErrorText();
    else if (!S_ISREG(seen.st_mode)) why = "not a regular file";
    else if (seen.st_uid != geteuid()) why = fmt::format("owned by uid {}", seen.st_uid);
    else if (fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0) why = ErrorText();
    else if ((pcap_ = pcap_open_dead(DLT_USER0, kSnapLength)) == nullptr) why = "pcap cannot start";
    if (why.empty()) return Begin(fd, error);
    *error = why;
    close(fd);
    return false;
}

bool Capture::Begin(int fd, std::string *error) {
    std::FILE *file = fdopen(fd, "wb");
    if (file == nullptr) {
        *error = ErrorText();
        close(fd);
        return false;
    }
    dumper_ = pcap_dump_fopen(pcap_, file);
    if (dumper_ == nullptr) {
        *error = pcap_geterr(pcap_);
        std::fclose(file);
        return false;
    }
    pcap_dump_flush(dumper_);
    written_ = kFileHead;
    return true;
}

void Capture::End() {
    if (dumper_ != nullptr) pcap_dump_close(dumper_);
    dumper_ = nullptr;
}

// FILE.2 becomes FILE.3, FILE.1 FILE.2, FILE FILE.1, and a new FILE begins
// (one that appeared meanwhile is not written). When any step fails the
// capture stops: it never grows past its bound.
void Capture::Rotate() {
    End();
    std::string why;
    for (int i = kKeptFiles; i >= 1 && why.empty(); --i) {
        const std::string from = i == 1 ? name_ : fmt::format("{}.{}", name_, i - 1);
        const std::string to = fmt::format("{}.{}", name_, i);
        if (renameat(dir_, from.c_str(), dir_, to.c_str()) != 0 && (errno != ENOENT || i == 1))
            why = fmt::format("cannot rename {} to {}: {}", from, to, ErrorText());
    }
    if (why.empty()) {
        const int fd = openat(dir_, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) why = ErrorText();
        else Begin(fd, &why);
    }
    if (!why.empty()) log_(fmt::format("capture to {} stopped: {}", path_, why));
}

void Capture::Record(bool fromDevice, int service, std::span<const uint8_t> datagram) {
    if (dumper_ == nullptr || service < 0 || service > 2) return;
    std::vector<uint8_t> record{static_cast<uint8_t>(fromDevice ? 1 : 0), static_cast<uint8_t>(service),
                                static_cast<uint8_t>(kNodes[service] >> 8), static_cast<uint8_t>(kNodes[service]),
                                static_cast<uint8_t>(kPorts[service] >> 8), static_cast<uint8_t>(kPorts[service]),
                                0, 0};
    record.insert(record.end(), datagram.begin(), datagram.end());
    const uint64_t bytes = kRecordHead + record.size();
    if (written_ > kFileHead && written_ + bytes > maxBytes_) {
        Rotate();
        if (dumper_ == nullptr) return;
    }
    pcap_pkthdr head{};
    gettimeofday(&head.ts, nullptr);
    head.caplen = head.len = static_cast<bpf_u_int32>(record.size());
    pcap_dump(reinterpret_cast<u_char *>(dumper_), &head, record.data());
    pcap_dump_flush(dumper_);
    written_ += bytes;
}

}  // namespace l2vfib::emu

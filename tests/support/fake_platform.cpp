#include "fake_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "l2vfib_platform.h"

namespace fake {

namespace {
Platform g_platform;

Bytes Copy(const void *data, size_t length) {
    if (data == nullptr || length == 0) return {};
    const auto *p = static_cast<const uint8_t *>(data);
    return Bytes(p, p + length);
}

void Trace(const char *what, int fd) { g_platform.trace.push_back(what + (" " + std::to_string(fd))); }

int Fail(int error) {
    errno = error;
    return -1;
}
}  // namespace

Platform &Get() { return g_platform; }

void Reset() { g_platform = Platform{}; }

}  // namespace fake

using fake::g_platform;

extern "C" {

int SKT_Socket(int family, int type, int protocol) {
    g_platform.sockets.push_back({family, type, protocol});
    if (g_platform.socketFailures > 0) {
        --g_platform.socketFailures;
        g_platform.trace.push_back("socket failed");
        return fake::Fail(EMFILE);
    }
    const int fd = g_platform.nextFd++;
    fake::Trace("socket", fd);
    return fd;
}

int SKT_Connect(int fd, const void *address, uint32_t addressLength) {
    fake::Trace("connect", fd);
    g_platform.connects.push_back({fd, fake::Copy(address, addressLength)});
    if (g_platform.connectErrors.empty()) return 0;
    const int error = g_platform.connectErrors.front();
    g_platform.connectErrors.pop_front();
    return error == 0 ? 0 : fake::Fail(error);
}

ssize_t SKT_Send(int fd, const void *data, size_t length, int flags) {
    fake::Trace("send", fd);
    g_platform.sends.push_back({fd, fake::Copy(data, length), flags});
    if (g_platform.sendResults.empty()) return static_cast<ssize_t>(length);
    const fake::SendResult r = g_platform.sendResults.front();
    g_platform.sendResults.pop_front();
    switch (r.kind) {
        case fake::SendResult::kShort: return static_cast<ssize_t>(r.count);
        case fake::SendResult::kError: return fake::Fail(r.error);
        default: return static_cast<ssize_t>(length);
    }
}

ssize_t SKT_Recv(int fd, void *data, size_t length, int flags) {
    fake::Trace("recv", fd);
    g_platform.recvs.push_back({fd, length, flags});
    if (g_platform.recvResults.empty()) return fake::Fail(EAGAIN);
    const fake::RecvResult r = g_platform.recvResults.front();
    g_platform.recvResults.pop_front();
    if (r.error != 0) return fake::Fail(r.error);
    const size_t n = std::min(length, r.datagram.size());
    if (n != 0) std::memcpy(data, r.datagram.data(), n);
    return static_cast<ssize_t>(n);
}

int SKT_SetOpt(int fd, int level, int name, const void *value, uint32_t valueLength) {
    fake::Trace("setopt", fd);
    g_platform.opts.push_back({fd, level, name, fake::Copy(value, valueLength)});
    if (g_platform.optFailures > 0) {
        --g_platform.optFailures;
        return fake::Fail(ENOPROTOOPT);
    }
    return 0;
}

int SKT_Close(int fd) {
    fake::Trace("close", fd);
    g_platform.closes.push_back(fd);
    return g_platform.closeResult;
}

uint32_t CIOCTL(uint32_t target, uint32_t code, uint32_t inputLength, const void *input,
                uint32_t answerRoom, void *answer, uint32_t *answerLength) {
    g_platform.controls.push_back({false, target, code, fake::Copy(input, inputLength), answerRoom,
                                   answer != nullptr, answerLength != nullptr});
    if (g_platform.controlResults.empty()) {
        if (answerLength != nullptr) *answerLength = 0;
        return 0;
    }
    const fake::ControlResult r = g_platform.controlResults.front();
    g_platform.controlResults.pop_front();
    const size_t n = std::min<size_t>(answerRoom, r.answer.size());
    if (answer != nullptr && n != 0) std::memcpy(answer, r.answer.data(), n);
    if (answerLength != nullptr)
        *answerLength = r.answerLength.value_or(static_cast<uint32_t>(r.answer.size()));
    return r.result;
}

uint32_t CIOCTL_Async(uint32_t target, uint32_t code, uint32_t inputLength, const void *input) {
    g_platform.controls.push_back(
        {true, target, code, fake::Copy(input, inputLength), 0, false, false});
    return g_platform.asyncResult;
}

uint16_t *DEV_GetAllNodes(uint32_t *count) {
    ++g_platform.nodeQueries;
    if (!g_platform.nodes) return nullptr;
    const std::vector<uint16_t> &nodes = *g_platform.nodes;
    // Never a zero-sized allocation, so that null always means failure.
    auto *list = static_cast<uint16_t *>(std::malloc(sizeof(uint16_t) * (nodes.size() + 1)));
    if (list == nullptr) return nullptr;
    std::copy(nodes.begin(), nodes.end(), list);
    *count = static_cast<uint32_t>(nodes.size());
    return list;
}

uint32_t IF_IsNodeUp(uint32_t node) {
    g_platform.upQueries.push_back(node);
    return g_platform.upNodes.count(node) != 0 ? 1 : 0;
}

uint32_t LIP_GetLocalLip(uint32_t which) {
    g_platform.lipQueries.push_back(which);
    return g_platform.localLip;
}

uint32_t TUNNEL_GetMode(uint32_t ifIndex, uint32_t *mode) {
    g_platform.tunnelQueries.push_back(ifIndex);
    if (mode != nullptr) *mode = g_platform.tunnelMode;
    return g_platform.tunnelResult;
}

}  // extern "C"

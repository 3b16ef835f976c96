#include "fake_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "l2vfib_platform.h"

namespace fake {

namespace {
Platform g;

Bytes Copy(const void *data, size_t length) {
    const auto *p = static_cast<const uint8_t *>(data);
    return p == nullptr ? Bytes{} : Bytes(p, p + length);
}

void Trace(const char *what, int fd) { g.trace.push_back(what + (" " + std::to_string(fd))); }

int Fail(int error) {
    errno = error;
    return -1;
}

// The next scripted entry, or fallback when none is left.
template <typename T>
T Next(std::deque<T> &script, T fallback) {
    if (script.empty()) return fallback;
    T next = std::move(script.front());
    script.pop_front();
    return next;
}
}  // namespace

Platform &Get() { return g; }

void Reset() { g = Platform{}; }

}  // namespace fake

using fake::g;

extern "C" {

int SKT_Socket(int family, int type, int protocol) {
    g.sockets.push_back({family, type, protocol});
    if (g.socketFailures > 0) {
        --g.socketFailures;
        g.trace.push_back("socket failed");
        return fake::Fail(EMFILE);
    }
    fake::Trace("socket", g.nextFd);
    return g.nextFd++;
}

int SKT_Connect(int fd, const void *address, uint32_t addressLength) {
    fake::Trace("connect", fd);
    g.connects.push_back({fd, fake::Copy(address, addressLength)});
    const int error = fake::Next(g.connectErrors, 0);
    return error == 0 ? 0 : fake::Fail(error);
}

ssize_t SKT_Send(int fd, const void *data, size_t length, int flags) {
    fake::Trace("send", fd);
    g.sends.push_back({fd, fake::Copy(data, length), flags});
    const long r = fake::Next(g.sendResults, static_cast<long>(length));
    return r < 0 ? fake::Fail(static_cast<int>(-r)) : r;
}

ssize_t SKT_Recv(int fd, void *data, size_t length, int flags) {
    fake::Trace("recv", fd);
    g.recvs.push_back({fd, length, flags});
    const fake::RecvResult r = fake::Next(g.recvResults, fake::RecvResult::Error(EAGAIN));
    if (r.error != 0) return fake::Fail(r.error);
    const size_t n = std::min(length, r.datagram.size());
    if (n != 0) std::memcpy(data, r.datagram.data(), n);
    return static_cast<ssize_t>(n);
}

int SKT_SetOpt(int fd, int level, int name, const void *value, uint32_t valueLength) {
    fake::Trace("setopt", fd);
    g.opts.push_back({fd, level, name, fake::Copy(value, valueLength)});
    if (g.optFailNames.count(name) != 0) return fake::Fail(ENOPROTOOPT);
    return g.optFailures-- > 0 ? fake::Fail(ENOPROTOOPT) : 0;
}

int SKT_Close(int fd) {
    fake::Trace("close", fd);
    g.closes.push_back(fd);
    return g.closeResult;
}

uint32_t CIOCTL(uint32_t target, uint32_t code, uint32_t inputLength, const void *input,
                uint32_t answerRoom, void *answer, uint32_t *answerLength) {
    g.controls.push_back({false, target, code, fake::Copy(input, inputLength), answerRoom,
                          answer != nullptr, answerLength != nullptr});
    const fake::ControlResult r = fake::Next(g.controlResults, fake::ControlResult{});
    const size_t n = std::min<size_t>(answerRoom, r.answer.size());
    if (answer != nullptr && n != 0) std::memcpy(answer, r.answer.data(), n);
    if (answerLength != nullptr)
        *answerLength = r.answerLength.value_or(static_cast<uint32_t>(r.answer.size()));
    return r.result;
}

uint32_t CIOCTL_Async(uint32_t target, uint32_t code, uint32_t inputLength, const void *input) {
    g.controls.push_back({true, target, code, fake::Copy(input, inputLength), 0, false, false});
    return g.asyncResult;
}

uint16_t *DEV_GetAllNodes(uint32_t *count) {
    ++g.nodeQueries;
    if (!g.nodes) return nullptr;
    // Never a zero-sized allocation, so that null always means failure.
    auto *list = static_cast<uint16_t *>(std::malloc(sizeof(uint16_t) * (g.nodes->size() + 1)));
    if (list == nullptr) return nullptr;
    std::copy(g.nodes->begin(), g.nodes->end(), list);
    *count = static_cast<uint32_t>(g.nodes->size());
    return list;
}

uint32_t IF_IsNodeUp(uint32_t node) {
    g.upQueries.push_back(node);
    return g.upNodes.count(node) != 0 ? 1 : 0;
}

uint32_t LIP_GetLocalLip(uint32_t which) {
    g.lipQueries.push_back(which);
    return g.localLip;
}

uint32_t TUNNEL_GetMode(uint32_t ifIndex, uint32_t *mode) {
    g.tunnelQueries.push_back(ifIndex);
    if (mode != nullptr && !g.tunnelModeUntouched) *mode = g.tunnelMode;
    return g.tunnelResult;
}

}  // extern "C"

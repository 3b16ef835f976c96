// The unit tests' own device platform: every call of l2vfib_platform.h but
// the TLV codec (the platform's real codec is linked beside it). It records
// what the library asked for and answers from a script that each test sets
// up; Reset() empties both between tests.
#ifndef L2VFIB_TESTS_FAKE_PLATFORM_H
#define L2VFIB_TESTS_FAKE_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake {

using Bytes = std::vector<uint8_t>;

// What one send does: hands over the whole message, reports fewer bytes,
// or fails with an errno.
struct SendResult {
    enum Kind { kWhole, kShort, kError } kind = kWhole;
    size_t count = 0;
    int error = 0;
    static SendResult Short(size_t n) { return {kShort, n, 0}; }
    static SendResult Error(int e) { return {kError, 0, e}; }
};

// What one receive does: delivers a datagram (cut to the room), or fails.
struct RecvResult {
    Bytes datagram;
    int error = 0;
    static RecvResult Datagram(Bytes d) { return {std::move(d), 0}; }
    static RecvResult Error(int e) { return {{}, e}; }
};

// What one CIOCTL does: its result, the answer it writes (cut to the
// room) and the length it reports (the answer's size unless given).
struct ControlResult {
    uint32_t result = 0;
    Bytes answer;
    std::optional<uint32_t> answerLength;
};

struct SocketCall { int family, type, protocol; };
struct ConnectCall { int fd; Bytes address; };
struct SendCall { int fd; Bytes data; int flags; };
struct RecvCall { int fd; size_t room; int flags; };
struct OptCall { int fd; int level; int name; Bytes value; };
struct ControlCall {
    bool async;
    uint32_t target, code;
    Bytes input;
    uint32_t answerRoom;
    bool hasAnswer, hasAnswerLength;
};

// What the coming calls do.
struct Script {
    int nextFd = 40;                       // descriptors are handed out in order
    int socketFailures = 0;                // the next n socket calls fail
    std::deque<int> connectErrors;         // errno of each coming connect, 0 = success
    std::deque<SendResult> sendResults;    // none left: whole
    std::deque<RecvResult> recvResults;    // none left: fails with EAGAIN
    int optFailures = 0;                   // the next n setsockopt calls fail
    int closeResult = 0;
    std::deque<ControlResult> controlResults;  // none left: 0, no answer
    uint32_t asyncResult = 0;
    std::optional<std::vector<uint16_t>> nodes;  // DEV_GetAllNodes; none: fails
    std::set<uint32_t> upNodes;
    uint32_t localLip = 0;
    uint32_t tunnelMode = 0;
    uint32_t tunnelResult = 0;
};

// What the library called. trace holds every socket-layer call in order:
// "socket 40", "connect 40", "setopt 40", "send 40", "recv 40", "close 40".
struct Records {
    std::vector<std::string> trace;
    std::vector<SocketCall> sockets;
    std::vector<ConnectCall> connects;
    std::vector<SendCall> sends;
    std::vector<RecvCall> recvs;
    std::vector<OptCall> opts;
    std::vector<int> closes;
    std::vector<ControlCall> controls;
    int nodeQueries = 0;
    std::vector<uint32_t> upQueries;
    std::vector<uint32_t> lipQueries;
    std::vector<uint32_t> tunnelQueries;
};

struct Platform : Script, Records {
    void ClearRecords() { static_cast<Records &>(*this) = Records{}; }
};

Platform &Get();
void Reset();

}  // namespace fake

#endif

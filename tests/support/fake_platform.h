// The tests' own device platform: the socket and control calls of
// l2vfib_platform.h (the platform's real TLV codec is linked beside it). It
// records what the library asked for and answers from a script that each
// test sets up; Reset() empties both.
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

// What one receive does: delivers a datagram (cut to the room), or fails.
struct RecvResult {
    Bytes datagram;
    int error = 0;
    static RecvResult Datagram(Bytes d) { return {std::move(d), 0}; }
    static RecvResult Error(int e) { return {{}, e}; }
};

// What one CIOCTL does: its result, the answer it writes (cut to the room)
// and the length it reports (the answer's size unless given).
struct ControlResult {
    uint32_t result = 0;
    Bytes answer;
    std::optional<uint32_t> answerLength;
};

struct SocketCall { int family, type, protocol; };
struct ConnectCall { int fd; Bytes address; };
struct SendCall { int fd; Bytes data; int flags; };
struct RecvCall { int fd; size_t room; int flags; };
struct OptCall { int fd, level, name; Bytes value; };
struct ControlCall {
    bool async;
    uint32_t target, code;
    Bytes input;
    uint32_t answerRoom;
    bool hasAnswer, hasAnswerLength;
};

// What the coming calls do.
struct Script {
    int nextFd = 40;                         // descriptors are handed out in order
    int socketFailures = 0;                  // the next n socket calls fail
    std::deque<int> connectErrors{};         // errno of each coming connect, 0 = success
    std::deque<long> sendResults{};          // n >= 0: reports n bytes sent; -e: fails with
                                             // errno e; none left: the whole message
    std::deque<RecvResult> recvResults{};    // none left: fails with EAGAIN
    int optFailures = 0;                     // the next n setsockopt calls fail
    std::set<int> optFailNames{};            // setsockopt of these option names fails
    int closeResult = 0;
    std::deque<ControlResult> controlResults{};  // none left: 0, no answer
    uint32_t asyncResult = 0;
    std::optional<std::vector<uint16_t>> nodes{};  // DEV_GetAllNodes' list; none: it fails
    std::set<uint32_t> upNodes{};                   // IF_IsNodeUp answers 1 for these
    uint32_t localLip = 0;                          // LIP_GetLocalLip's answer
    uint32_t tunnelMode = 0;                        // TUNNEL_GetMode's mode and result
    uint32_t tunnelResult = 0;
    bool tunnelModeUntouched = false;               // TUNNEL_GetMode leaves the mode as it was
};

// What the library called. trace holds every socket call in order:
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

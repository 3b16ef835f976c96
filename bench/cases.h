// The measured calls, and the two baselines each is held against.
//
// A case is one call of the library (Lib) that yields one or more messages,
// through the C function or through the C++ face (l2vfib.hpp) that wraps
// it: a face case is named as its C case with "_cpp" behind.
// Its messages' bytes are captured once; then
//   Limit     copies those bytes into a 1400-byte area, sending when the next
//             message does not fit: the least any batching can cost;
//   Mnl       builds netlink messages with the same attributes (types, value
//             lengths and bytes) from the same host-order records, as a
//             daemon writes them with libmnl (mnl_daemon.h), into a
//             1400-byte mnl_nlmsg_batch; for the receiving cases, copies the
//             datagram in, walks its attributes and converts each value to
//             the record the library's callback gets;
//   MnlReady  the baseline before: netlink messages put from the captured
//             value bytes, ready in network order, and received values
//             copied out unconverted. Kept beside Mnl for one release.
#ifndef L2VFIB_BENCH_CASES_H
#define L2VFIB_BENCH_CASES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mnl_daemon.h"

namespace bench {

enum class Impl { kLib, kMnl, kMnlReady, kLimit };

enum class Kind {
    kBatched,  // queues messages in the batch; sends are counted
    kEncoder,  // writes a block into the caller's buffer
    kReceive,  // reads and handles one datagram
};

struct Case {
    const char *name;
    Kind kind;
    uint32_t (*call)();  // one call of the library: L2VFIB_OK when it did its work
    MnlBuild mnl;        // the same call with libmnl (batched and encoder cases)
    mnl_attr_cb_t mnlAttr;  // the receiving cases' libmnl attribute callback
    bool face = false;   // through the C++ face: needs the library opened by it
    bool keyed = false;  // a key item, then the caller's block as it is
};

const std::vector<Case> &Cases();
const Case *FindCase(const char *name);
const char *ImplName(Impl impl);

// What a run of calls did.
struct Run {
    uint64_t messages;
    uint64_t sends;
};

// How many messages one call of the case yields.
uint64_t MessagesPerCall(const Case &c);

// Opens the library, through the C++ face (a session and an event channel
// with lambdas for callbacks) or with the C calls and C callbacks, and
// prepares the captured messages of every case that can run so; call once.
// Exits with a message when a case fails or its libmnl side does not carry
// what the library sends (or, receiving, hands its callback).
void Prepare(bool face);

// Runs calls calls of one case with one implementation, then flushes what
// is left. Kept out of line under this C name so that callgrind can count
// the instructions inside it alone.
extern "C" Run bench_loop(const Case *c, Impl impl, uint64_t calls);

}  // namespace bench

#endif

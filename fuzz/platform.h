// The fuzzers' platform: the device services of l2vfib_platform.h, minus the
// TLV codec (the real one is linked), answering from memory. The service
// socket carries at most one pending datagram, which the fuzzer sets; every
// other call succeeds with a fake descriptor or an empty answer.
#ifndef L2VFIB_FUZZ_PLATFORM_H
#define L2VFIB_FUZZ_PLATFORM_H

#include <cstddef>
#include <cstdint>

namespace fuzzplat {

// Makes data the one datagram the next SKT_Recv returns (copied; cut to the
// receiver's length like a datagram socket does).
void SetDatagram(const uint8_t *data, size_t size);
// True while the datagram has not been read.
bool DatagramPending();
// Drops a datagram nobody read and forgets the counts below.
void Reset();
// Descriptors handed out by SKT_Socket and not yet closed.
int OpenSockets();
// Calls of SKT_Recv since the last Reset.
int RecvCalls();

}  // namespace fuzzplat

#endif

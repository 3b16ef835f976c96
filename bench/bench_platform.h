// A device platform that does no I/O, for measuring the library alone: the
// TLV codec, sockets whose sends are counted rather than made and whose
// receives hand back one datagram set beforehand, and control calls and
// device services that answer at once. It keeps nothing on the heap except
// the node list DEV_GetAllNodes must allocate, so the zero-heap test runs
// the library over it too.
#ifndef L2VFIB_BENCH_PLATFORM_H
#define L2VFIB_BENCH_PLATFORM_H

#include <cstddef>
#include <cstdint>

namespace bench {

struct Counters {
    uint64_t sends;      // datagrams handed to SKT_Send
    uint64_t bytes;      // bytes in them
    uint64_t nodeLists;  // node lists DEV_GetAllNodes allocated
};

Counters &Count();
void ResetCount();

// Every following SKT_Recv delivers these bytes (cut to the room); with
// length 0 it fails with EAGAIN, as an empty socket does.
void SetRecv(const void *datagram, size_t length);

// Keeps a copy of each sent datagram, at most room bytes in all, at copy;
// null stops copying. Returns nothing: Count().bytes tells what came.
void CopySends(uint8_t *copy, size_t room);

}  // namespace bench

#endif

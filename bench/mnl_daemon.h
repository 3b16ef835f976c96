// The benchmark's calls as a daemon writes them with libmnl: the same
// host-order records as the library's calls (records.h), each number turned
// to network order as it is put, in the loop that measures the call. This is
// the fair baseline. The old one, kept beside it for a release, is handed
// the captured value bytes ready in network order (cases.cpp).
//
// A message of ours becomes a netlink message: the object type in
// nlmsg_type, the opcode and header byte 7 in nlmsg_flags, each item an
// attribute of the same type, length and value bytes. An entry's block of
// the caller's (already encoded, opaque) goes behind its key attribute as
// it is.
#ifndef L2VFIB_BENCH_MNL_DAEMON_H
#define L2VFIB_BENCH_MNL_DAEMON_H

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>

#include "l2vfib.h"

namespace bench {

// Where the daemon's messages go: a batch that is sent when full.
struct MnlOut {
    mnl_nlmsg_batch *batch;
    uint64_t sends;
};

// Hands a full batch to the send counter (defined with the loops).
void SendArea(const void *data, size_t length);

// One call's messages, appended to out (an encoder case writes its block
// into g_encOut instead and leaves out alone).
using MnlBuild = void (*)(MnlOut &out);

void MnlSendCfgWord(MnlOut &out);
void MnlSendCfgVariant(MnlOut &out);
void MnlPwAdd(MnlOut &out);
void MnlPwDel(MnlOut &out);
void MnlMinMAdd(MnlOut &out);
void MnlAcAdd(MnlOut &out);
void MnlTunnelAdd(MnlOut &out);
void MnlEbgMembers(MnlOut &out);
void MnlDfAdd(MnlOut &out);
void MnlEncLpw(MnlOut &out);

// The receiving cases: mnl_attr_parse callbacks that convert each value to
// the record the library's callback gets and call OnNotice or OnEvent with
// it. The event callback's data is the tag (a uint32_t), which travels in
// nlmsg_seq.
int MnlNoticeAttr(const nlattr *attr, void *data);
int MnlEventAttr(const nlattr *attr, void *tag);

// An event record as the library hands it to the event callback.
union EventRecord {
    L2VFIB_EvtRecord2 r2;
    L2VFIB_EvtRecord3 r3;
    L2VFIB_EvtRecord6 r6;
};

// Converts one event attribute into its record; false for a type that is
// no event (the attribute is passed over).
bool MnlEventRecord(const nlattr *attr, EventRecord *record);

}  // namespace bench

#endif

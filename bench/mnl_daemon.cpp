// The libmnl daemon's side of each case. See mnl_daemon.h.
//
// Values go out as a daemon writes them: a struct of the value's layout,
// each field filled with htonl, htons or htobe64 from the host-order record,
// then mnl_attr_put; a single word with mnl_attr_put_u32. The item layouts
// are those of the library's messages (drawn in src/), with the devices'
// all-ones tails empty, as the benchmark platform's capability counts are 0.
#include "mnl_daemon.h"

#include <arpa/inet.h>
#include <endian.h>

#include <cstring>

#include "records.h"

namespace bench {
namespace {

// ---- values, in network order --------------------------------------------

struct KeyValue {
    uint32_t id;
    uint16_t subId;
    uint16_t zero;
};

struct EntryValue {  // TLV 21
    uint32_t word0;
    uint16_t half0;
    uint8_t byte0, kind, byte1, zero[3];
};

struct Variant1Value {  // TLV 23
    uint32_t word0;
    uint16_t half0, half1, count0, half2, half3, count1;
};

struct SubValue {
    uint32_t word0;
    uint16_t half[6];
};

struct ExtValue {  // TLV 24
    uint32_t word0;
    uint16_t half0, zero;
    SubValue sub[2];
};

struct AcInfoValue {  // TLV 22
    uint16_t half0, zero0;
    uint32_t word0;
    uint8_t byte0, zero1[3];
    uint32_t word1;
    uint8_t zero2[8];
    uint64_t attr64;
    uint32_t word2, zero3;
    uint16_t half1, half2;
    uint32_t zero4;
};

struct [[gnu::packed]] LpwValue {  // TLV 13
    uint64_t attr64[2];
    uint32_t attr32;
    uint16_t attr16[3];
    uint8_t attr8, zero;
};

struct LpwSubValue {  // TLV 12, one of up to two
    uint32_t word0, word1, word2;
    uint16_t half0;
    uint8_t byte0, byte1;
    uint16_t half1, half2;
    uint32_t word3;
};

static_assert(sizeof(EntryValue) == 12 && sizeof(Variant1Value) == 16 &&
              sizeof(ExtValue) == 40 && sizeof(AcInfoValue) == 48 && sizeof(LpwValue) == 28 &&
              sizeof(LpwSubValue) == 24);

// At most this many pairs in a list, as the daemon's lists are bounded.
constexpr uint16_t kMaxPairs = 64;
// EBG members in one message: what fits behind the header and the key item
// in 1400 bytes of ours.
constexpr uint32_t kMembersPerMessage = (L2VFIB_BATCH_SIZE - 16) / 8;

// ---- messages --------------------------------------------------------------

nlmsghdr *Open(MnlOut &out, uint16_t objType, uint8_t opcode, uint8_t byte7) {
    nlmsghdr *nlh = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(out.batch));
    nlh->nlmsg_type = objType;
    nlh->nlmsg_flags = static_cast<uint16_t>(byte7 << 8 | opcode);
    return nlh;
}

void Close(MnlOut &out) {
    if (mnl_nlmsg_batch_next(out.batch)) return;
    SendArea(mnl_nlmsg_batch_head(out.batch), mnl_nlmsg_batch_size(out.batch));
    ++out.sends;
    mnl_nlmsg_batch_reset(out.batch);
}

void PutKey(nlmsghdr *nlh, uint16_t type, const L2VFIB_EntryKey &key) {
    const KeyValue v = {htonl(key.id), htons(key.subId), 0};
    mnl_attr_put(nlh, type, sizeof v, &v);
}

// The caller's block, as it is, behind the attributes.
void PutBlock(nlmsghdr *nlh, const void *block, uint16_t length) {
    std::memcpy(mnl_nlmsg_get_payload_tail(nlh), block, length);
    nlh->nlmsg_len += MNL_ALIGN(length);
}

void PutPairs(nlmsghdr *nlh, uint16_t type, const L2VFIB_HalfPair *list, uint16_t count) {
    uint16_t pairs[2 * kMaxPairs];
    for (uint16_t i = 0; i < count; ++i) {
        pairs[2 * i] = htons(list[i].half0);
        pairs[2 * i + 1] = htons(list[i].half1);
    }
    mnl_attr_put(nlh, type, 4 * count, pairs);
}

void PutVariant1(nlmsghdr *nlh, const L2VFIB_Variant1 &v) {
    const Variant1Value head = {htonl(v.word0), htons(v.half0), htons(v.half1),
                                htons(v.count0), htons(v.half2), htons(v.half3),
                                htons(v.count1)};
    mnl_attr_put(nlh, 23, sizeof head, &head);
    if (v.ext != nullptr) {
        ExtValue ext = {htonl(v.ext->word0), htons(v.ext->half0), 0, {}};
        for (int i = 0; i < 2; ++i) {
            const L2VFIB_Variant1Sub &s = v.ext->sub[i];
            ext.sub[i] = {htonl(s.word0),
                          {htons(s.half0), htons(s.half1), htons(s.half2), htons(s.half3),
                           htons(s.half4), htons(s.half5)}};
        }
        mnl_attr_put(nlh, 24, sizeof ext, &ext);
    }
    if (v.list0 != nullptr) PutPairs(nlh, 25, v.list0, v.count0);
    if (v.list1 != nullptr) PutPairs(nlh, 26, v.list1, v.count1);
}

LpwSubValue LpwSub(const L2VFIB_LpwSubEntry &s) {
    return {htonl(s.word0), htonl(s.word1), htonl(s.word2), htons(s.half0), s.byte0,
            s.byte1,        htons(s.half1), htons(s.half2), htonl(s.word3)};
}

template <typename Record>
void Fill(Record *record, const void *value, uint16_t length) {
    std::memset(record, 0, sizeof *record);
    std::memcpy(record, value, length < sizeof *record ? length : sizeof *record);
}

}  // namespace

void MnlSendCfgWord(MnlOut &out) {
    mnl_attr_put_u32(Open(out, 2, 1, 8), 102, htonl(kWord));
    Close(out);
}

void MnlSendCfgVariant(MnlOut &out) {
    const L2VFIB_VariantEntry &e = g_variantEntry;
    nlmsghdr *nlh = Open(out, 5, 1, 8);
    PutKey(nlh, 20, kKey);
    const EntryValue entry = {htonl(e.word0), htons(e.half0), e.byte0, e.kind, e.byte1, {}};
    mnl_attr_put(nlh, 21, sizeof entry, &entry);
    PutVariant1(nlh, *static_cast<const L2VFIB_Variant1 *>(e.variant));
    Close(out);
}

void MnlPwAdd(MnlOut &out) {
    nlmsghdr *nlh = Open(out, 3, 5, 0);
    PutKey(nlh, 10, kKey);
    PutBlock(nlh, g_pwBlock, sizeof g_pwBlock);
    Close(out);
}

void MnlPwDel(MnlOut &out) {
    PutKey(Open(out, 3, 7, 0), 10, kKey);
    Close(out);
}

void MnlMinMAdd(MnlOut &out) {
    nlmsghdr *nlh = Open(out, 12, 5, 0);
    PutKey(nlh, 40, kKey);
    PutBlock(nlh, g_minmBlock, g_minmLength);
    Close(out);
}

void MnlAcAdd(MnlOut &out) {
    const L2VFIB_AcInfo &a = g_acInfo;
    nlmsghdr *nlh = Open(out, 6, 5, 0);
    PutKey(nlh, 20, kKey);
    const AcInfoValue info = {htons(a.half0), 0,  htonl(a.word0), a.byte0,        {},
                              htonl(a.word1), {}, htobe64(a.attr64), htonl(a.word2), 0,
                              htons(a.half1), htons(a.half2), 0};
    mnl_attr_put(nlh, 22, sizeof info, &info);
    const uint16_t option[4] = {htons(g_acOption.half0), htons(g_acOption.half1),
                                htons(g_acOption.half2), htons(g_acOption.half3)};
    mnl_attr_put(nlh, 144, sizeof option, option);
    Close(out);
}

void MnlTunnelAdd(MnlOut &out) {
    nlmsghdr *nlh = Open(out, 14, 5, 5);
    const uint32_t key[2] = {htonl(g_tunnel.tunnelKey.word0), htonl(g_tunnel.tunnelKey.word1)};
    mnl_attr_put(nlh, 70, sizeof key, key);
    uint32_t attr[12];
    for (int i = 0; i < 4; ++i) attr[i] = htonl(g_tunnel.tunnelAttr[i]);
    std::memset(attr + 4, 0xFF, 32);
    mnl_attr_put(nlh, 71, sizeof attr, attr);
    Close(out);
}

void MnlEbgMembers(MnlOut &out) {
    constexpr uint32_t count = sizeof g_members / sizeof g_members[0];
    for (uint32_t first = 0; first < count; first += kMembersPerMessage) {
        nlmsghdr *nlh = Open(out, 32, 5, 5);
        mnl_attr_put_u32(nlh, 154, htonl(g_ebgKey.ebgId));
        const uint32_t end = first + kMembersPerMessage < count ? first + kMembersPerMessage : count;
        for (uint32_t i = first; i < end; ++i) mnl_attr_put_u32(nlh, 156, htonl(g_members[i]));
        Close(out);
    }
}

void MnlDfAdd(MnlOut &out) {
    const uint32_t v[4] = {htonl(g_df.word0), htonl(g_df.word1), htonl(g_df.word2),
                           htonl(g_df.word3)};
    mnl_attr_put(Open(out, 31, 5, 5), 153, sizeof v, v);
    Close(out);
}

void MnlEncLpw(MnlOut &) {
    const L2VFIB_LpwEntry &e = g_lpw;
    nlmsghdr *nlh = mnl_nlmsg_put_header(g_encOut);
    const LpwValue attr = {{htobe64(e.attr64[0]), htobe64(e.attr64[1])},
                           htonl(e.attr32),
                           {htons(e.attr16[0]), htons(e.attr16[1]), htons(e.attr16[2])},
                           e.attr8,
                           0};
    mnl_attr_put(nlh, 13, sizeof attr, &attr);
    LpwSubValue subs[2];
    uint16_t n = 0;
    for (const L2VFIB_LpwSubEntry *sub : e.sub)
        if (sub != nullptr) subs[n++] = LpwSub(*sub);
    if (n != 0) mnl_attr_put(nlh, 12, n * sizeof subs[0], subs);
    g_encLength = nlh->nlmsg_len;
}

int MnlNoticeAttr(const nlattr *attr, void *) {
    if (mnl_attr_get_type(attr) != 36 || mnl_attr_get_payload_len(attr) < 4) return MNL_CB_ERROR;
    uint32_t value = ntohl(mnl_attr_get_u32(attr));
    OnNotice(1, &value);
    return MNL_CB_OK;
}

bool MnlEventRecord(const nlattr *attr, EventRecord *record) {
    const void *value = mnl_attr_get_payload(attr);
    const uint16_t n = mnl_attr_get_payload_len(attr);
    switch (mnl_attr_get_type(attr)) {
    case 3: {
        L2VFIB_EvtRecord3 &r = record->r3;
        Fill(&r, value, n);
        r.word0 = ntohl(r.word0);
        r.word1 = ntohl(r.word1);
        r.half0 = ntohs(r.half0);
        return true;
    }
    case 6:
        Fill(&record->r6, value, n);
        record->r6.word0 = ntohl(record->r6.word0);
        record->r6.word1 = ntohl(record->r6.word1);
        return true;
    case 2: {
        L2VFIB_EvtRecord2 &r = record->r2;
        Fill(&r, value, n);
        r.word0 = ntohl(r.word0);
        r.word1 = ntohl(r.word1);
        r.word2 = ntohl(r.word2);
        r.word3 = ntohl(r.word3);
        r.word4 = ntohl(r.word4);
        r.half0 = ntohs(r.half0);
        r.half1 = ntohs(r.half1);
        if (r.kind == 93) {
            r.word5 = ntohl(r.word5);
            r.word6 = ntohl(r.word6);
            r.word7 = ntohl(r.word7);
            r.word8 = ntohl(r.word8);
        }
        return true;
    }
    default:
        return false;
    }
}

int MnlEventAttr(const nlattr *attr, void *tag) {
    EventRecord record;
    if (MnlEventRecord(attr, &record)) OnEvent(*static_cast<const uint32_t *>(tag), &record);
    return MNL_CB_OK;
}

}  // namespace bench

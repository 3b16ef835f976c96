// The measured calls and their baselines. See cases.h.
#include "cases.h"

#include <libmnl/libmnl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_platform.h"
#include "l2vfib.h"
#include "l2vfib.hpp"

namespace bench {
namespace {

constexpr size_t kBatch = 1400;
int32_t g_socket = -1;
int32_t g_eventSocket = -1;

// ---- the library's calls, with records filled once -----------------------

const L2VFIB_EntryKey kKey = {0x01020304, 0x0506};
const uint32_t kWord = 0x11223344;
uint8_t g_pwBlock[200];
uint8_t g_minmBlock[512];
uint16_t g_minmLength;
L2VFIB_HalfPair g_pairs[60];
L2VFIB_Variant1Ext g_ext;
L2VFIB_Variant1 g_variant1;
L2VFIB_VariantEntry g_variantEntry;
L2VFIB_AcInfo g_acInfo;
L2VFIB_AcOption g_acOption = {1, 2, 3, 4};
L2VFIB_OverlayTunnelEntry g_tunnel = {{0x0a000001, 0x0a000002}, {1, 2, 3, 4}};
L2VFIB_EbgKey g_ebgKey = {77};
uint32_t g_members[1000];
L2VFIB_EbgDfEntry g_df = {1, 2, 3, 4};
L2VFIB_LpwSubEntry g_lpwSub = {1, 2, 3, 4, 5, 6, 7, 8, 9};
L2VFIB_LpwEntry g_lpw;
uint8_t g_encOut[512];
uint32_t g_encLength;

// A notice (item 36, one word) and an event datagram of three items.
const uint8_t kNotice[] = {0, 0, 0, 8, 0, 0, 0, 0, 0, 0x24, 0, 4, 0, 0, 0, 7};
const uint8_t kEvent[] = {
    0x00, 0x14, 0x00, 0x44, 0x01, 0x02, 0x07, 0x09, 0x00, 0x03, 0x00, 0x06, 0x0a, 0x0b, 0x0c,
    0x0d, 0x01, 0x02, 0x00, 0x09, 0x00, 0x02, 0xff, 0xff, 0x00, 0x02, 0x00, 0x30, 0x00, 0x00,
    0x00, 0x01, 0x00, 0x00, 0x00, 0x02, 0x5d, 0xab, 0x03, 0x04, 0x00, 0x00, 0x00, 0x05, 0x00,
    0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x07, 0x08, 0x09, 0xcd, 0xef, 0x0a, 0x0b, 0x0c, 0x0d,
    0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e,
    0x1f};

uint64_t g_seen;
uint32_t OnNotice(uint32_t, uint32_t *value) {
    g_seen += *value;
    return 0;
}
uint32_t OnEvent(uint32_t tag, const void *) {
    g_seen += tag;
    return L2VFIB_OK;
}

void FillRecords() {
    for (size_t i = 0; i < sizeof g_pwBlock; ++i) g_pwBlock[i] = static_cast<uint8_t>(i);
    for (uint16_t i = 0; i < 60; ++i) g_pairs[i] = {i, static_cast<uint16_t>(i + 1)};
    g_ext = {1, 2, {{3, 4, 5, 6, 7, 8, 9}, {10, 11, 12, 13, 14, 15, 16}}};
    g_variant1 = {1, 2, 3, 60, g_pairs, 4, 5, 60, g_pairs, &g_ext};
    g_variantEntry = {9, &g_variant1, 2, 3, 1, 4};
    g_acInfo.half0 = 1;
    g_acInfo.word0 = 2;
    g_acInfo.word1 = 3;
    g_acInfo.attr64 = 4;
    g_acInfo.word2 = 5;
    for (uint32_t i = 0; i < 1000; ++i) g_members[i] = 0x0a000000 + i;
    g_lpw = {{1, 2}, 3, {4, 5, 6}, 7, {&g_lpwSub, &g_lpwSub}};
    static const L2VFIB_MinMMember members[2] = {{1, {1, 2, 3, 4, 5, 6, 7, 8}},
                                                 {2, {8, 7, 6, 5, 4, 3, 2, 1}}};
    L2VFIB_MinMEntry minm{};
    minm.memberCount = 2;
    minm.members = members;
    g_minmLength = static_cast<uint16_t>(L2VFIB_EncMinMEntry(&minm, sizeof g_minmBlock,
                                                             g_minmBlock));
}

uint32_t SendCfgWord() { return L2VFIB_Send_Cfg(g_socket, 28, 1, nullptr, &kWord); }
uint32_t SendCfgVariant() { return L2VFIB_Send_Cfg(g_socket, 12, 1, &kKey, &g_variantEntry); }
uint32_t PwAdd() { return L2VFIB_AddPwEntry(g_socket, 0, &kKey, g_pwBlock, sizeof g_pwBlock); }
uint32_t PwDel() { return L2VFIB_DelPwEntry(g_socket, 0, &kKey); }
uint32_t MinMAdd() { return L2VFIB_AddMinMEntry(g_socket, 0, 5, &kKey, g_minmBlock, g_minmLength); }
uint32_t AcAdd() { return L2VFIB_AddAcEntry(g_socket, &kKey, &g_acInfo, &g_acOption); }
uint32_t TunnelAdd() { return L2VFIB_AddOverlayTunnel(g_socket, 5, &g_tunnel); }
uint32_t EbgMembers() { return L2VFIB_AddEBGMember(g_socket, 5, &g_ebgKey, g_members, 1000); }
uint32_t DfAdd() { return L2VFIB_AddEBGDf(g_socket, 5, &g_df); }
uint32_t EncLpw() {
    g_encLength = L2VFIB_EncLpwEntry(&g_lpw, sizeof g_encOut, g_encOut);
    return g_encLength != 0 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
}
uint32_t HandleMsg() { return L2VFIB_HandleMsg(g_socket); }
uint32_t HandleEvtMsg() { return L2VFIB_HandleEvtMsg(g_eventSocket); }

// The same calls through the C++ face, with the same records. The block
// lengths and counts are as well known to the compiler as the C calls'
// (a constant, a 16-bit number).
l2vfib::Session g_session;
l2vfib::EventChannel g_channel;
uint32_t Code(std::error_code ec) { return static_cast<uint32_t>(ec.value()); }
uint32_t SendCfgWordCpp() { return Code(g_session.send_cfg(28, 1, nullptr, &kWord)); }
uint32_t SendCfgVariantCpp() { return Code(g_session.send_cfg(12, 1, &kKey, &g_variantEntry)); }
uint32_t PwAddCpp() { return Code(g_session.add_pw(0, kKey, std::as_bytes(std::span(g_pwBlock)))); }
uint32_t PwDelCpp() { return Code(g_session.del_pw(0, kKey)); }
uint32_t MinMAddCpp() {
    return Code(g_session.add_minm(0, 5, kKey, std::as_bytes(std::span(g_minmBlock).first(g_minmLength))));
}
uint32_t AcAddCpp() { return Code(g_session.add_ac(kKey, g_acInfo, g_acOption)); }
uint32_t TunnelAddCpp() { return Code(g_session.add_tunnel(5, g_tunnel)); }
uint32_t EbgMembersCpp() { return Code(g_session.add_ebg_members(5, g_ebgKey, g_members)); }
uint32_t DfAddCpp() { return Code(g_session.add_ebg_df(5, g_df)); }
uint32_t EncLpwCpp() {
    const auto block = l2vfib::encode(g_lpw, std::as_writable_bytes(std::span(g_encOut)));
    g_encLength = static_cast<uint32_t>(block.size());
    return block.empty() ? L2VFIB_ERR_FAIL : L2VFIB_OK;
}
uint32_t HandleMsgCpp() { return Code(g_session.handle_msg()); }
uint32_t HandleEvtMsgCpp() { return Code(g_channel.handle()); }

const std::vector<Case> kCases = {
    {"send_cfg_word", Kind::kBatched, SendCfgWord},
    {"send_cfg_word_cpp", Kind::kBatched, SendCfgWordCpp, true},
    {"send_cfg_variant", Kind::kBatched, SendCfgVariant},
    {"send_cfg_variant_cpp", Kind::kBatched, SendCfgVariantCpp, true},
    {"pw_add_200", Kind::kBatched, PwAdd},
    {"pw_add_200_cpp", Kind::kBatched, PwAddCpp, true},
    {"pw_del", Kind::kBatched, PwDel},
    {"pw_del_cpp", Kind::kBatched, PwDelCpp, true},
    {"minm_add", Kind::kBatched, MinMAdd},
    {"minm_add_cpp", Kind::kBatched, MinMAddCpp, true},
    {"ac_add", Kind::kBatched, AcAdd},
    {"ac_add_cpp", Kind::kBatched, AcAddCpp, true},
    {"tunnel_add", Kind::kBatched, TunnelAdd},
    {"tunnel_add_cpp", Kind::kBatched, TunnelAddCpp, true},
    {"ebg_members_1000", Kind::kBatched, EbgMembers},
    {"ebg_members_1000_cpp", Kind::kBatched, EbgMembersCpp, true},
    {"df_add", Kind::kBatched, DfAdd},
    {"df_add_cpp", Kind::kBatched, DfAddCpp, true},
    {"enc_lpw", Kind::kEncoder, EncLpw},
    {"enc_lpw_cpp", Kind::kEncoder, EncLpwCpp, true},
    {"handle_msg", Kind::kReceive, HandleMsg},
    {"handle_msg_cpp", Kind::kReceive, HandleMsgCpp, true},
    {"handle_evt_msg", Kind::kReceive, HandleEvtMsg},
    {"handle_evt_msg_cpp", Kind::kReceive, HandleEvtMsgCpp, true},
};

// ---- what each case's messages look like, captured once ------------------

struct Attr {
    uint16_t type;
    uint16_t length;
    const uint8_t *value;
};
struct Message {
    std::vector<uint8_t> bytes;
    uint16_t objType;
    std::vector<Attr> attrs;  // point into bytes
};
struct Captured {
    std::vector<Message> messages;  // one call's messages
    uint8_t netlink[kBatch];        // receiving cases: the same as netlink
    size_t mnlLimit;                // netlink batch limit
};
std::vector<Captured> g_captured;

uint16_t Be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

void AddMessage(Captured &cap, const uint8_t *p, size_t length, size_t itemsFrom) {
    Message &m = cap.messages.emplace_back();
    m.bytes.assign(p, p + length);
    m.objType = itemsFrom == 0 ? 0 : Be16(p);
    for (size_t at = itemsFrom; at + 4 <= length;) {
        const uint16_t n = Be16(&m.bytes[at + 2]);
        m.attrs.push_back({Be16(&m.bytes[at]), n, &m.bytes[at + 4]});
        at += 4 + n;
    }
}

void Capture(const Case &c, Captured &cap) {
    static uint8_t sent[1 << 16];
    const bool notice = c.call == HandleMsg || c.call == HandleMsgCpp;
    if (c.kind == Kind::kReceive) SetRecv(notice ? kNotice : kEvent,
                                          notice ? sizeof kNotice : sizeof kEvent);
    uint32_t result = L2VFIB_OK;
    switch (c.kind) {
    case Kind::kBatched: {
        L2VFIB_FlushEntry(g_socket);
        ResetCount();
        CopySends(sent, sizeof sent);
        result = c.call();
        L2VFIB_FlushEntry(g_socket);
        CopySends(nullptr, 0);
        for (size_t at = 0; at + 8 <= Count().bytes;) {
            const size_t n = 8 + size_t{Be16(sent + at + 2)};
            AddMessage(cap, sent + at, n, 8);
            at += n;
        }
        break;
    }
    case Kind::kEncoder:
        result = c.call();
        AddMessage(cap, g_encOut, g_encLength, 0);
        break;
    case Kind::kReceive:
        result = c.call();
        if (notice)
            AddMessage(cap, kNotice, sizeof kNotice, 8);
        else
            AddMessage(cap, kEvent, sizeof kEvent, 8);
        break;
    }
    if (result != L2VFIB_OK || cap.messages.empty()) {
        std::fprintf(stderr, "bench: case %s fails (%#x) or yields no message\n", c.name,
                     result);
        std::exit(1);
    }
    cap.mnlLimit = kBatch;
    for (const Message &m : cap.messages) {
        size_t n = MNL_NLMSG_HDRLEN;
        for (const Attr &a : m.attrs) n += MNL_ALIGN(MNL_ATTR_HDRLEN + a.length);
        if (n > kBatch) cap.mnlLimit = 2 * n;
    }
    if (c.kind == Kind::kReceive) {
        nlmsghdr *nlh = mnl_nlmsg_put_header(cap.netlink);
        for (const Attr &a : cap.messages[0].attrs) mnl_attr_put(nlh, a.type, a.length, a.value);
    }
}

// ---- the loops -------------------------------------------------------------

// The batch datagrams of the baselines go here; its address escapes, so the
// copies into it stay.
uint8_t g_area[4096];
uint64_t g_sink;

[[gnu::noinline]] void SendArea(const void *data, size_t length) {
    g_sink += length + static_cast<const uint8_t *>(data)[0];
}

Run LimitLoop(const Captured &cap, uint64_t calls) {
    Run run{};
    size_t used = 0;
    for (uint64_t i = 0; i < calls; ++i) {
        for (const Message &m : cap.messages) {
            const size_t n = m.bytes.size();
            if (kBatch - used < n) {
                SendArea(g_area, used);
                ++run.sends;
                used = 0;
            }
            std::memcpy(g_area + used, m.bytes.data(), n);
            used += n;
            ++run.messages;
        }
    }
    if (used != 0) {
        SendArea(g_area, used);
        ++run.sends;
    }
    return run;
}

// A netlink header is 8 bytes longer than ours, so a message that fills our
// batch overflows netlink's: such a case gets a batch limit of two messages.
// (Not one: when the batch overflows, libmnl moves the last message to the
// front with memcpy, which must not overlap.)
Run MnlBuildLoop(const Captured &cap, uint64_t calls) {
    Run run{};
    mnl_nlmsg_batch *b = mnl_nlmsg_batch_start(g_area, cap.mnlLimit);
    for (uint64_t i = 0; i < calls; ++i) {
        for (const Message &m : cap.messages) {
            nlmsghdr *nlh = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(b));
            nlh->nlmsg_type = m.objType;
            for (const Attr &a : m.attrs) mnl_attr_put(nlh, a.type, a.length, a.value);
            if (!mnl_nlmsg_batch_next(b)) {
                SendArea(mnl_nlmsg_batch_head(b), mnl_nlmsg_batch_size(b));
                ++run.sends;
                mnl_nlmsg_batch_reset(b);
            }
            ++run.messages;
        }
    }
    if (!mnl_nlmsg_batch_is_empty(b)) {
        SendArea(mnl_nlmsg_batch_head(b), mnl_nlmsg_batch_size(b));
        ++run.sends;
    }
    mnl_nlmsg_batch_stop(b);
    return run;
}

int OnAttr(const nlattr *attr, void *data) {
    uint8_t value[256];
    const uint16_t n = mnl_attr_get_payload_len(attr);
    if (n > sizeof value) return MNL_CB_ERROR;
    std::memcpy(value, mnl_attr_get_payload(attr), n);
    *static_cast<uint64_t *>(data) += mnl_attr_get_type(attr) + value[0];
    return MNL_CB_OK;
}

// The receiving side of netlink: the datagram copied in, checked, and each
// attribute handed to a callback that copies its value out.
Run MnlParseLoop(const Captured &cap, uint64_t calls) {
    const auto *src = reinterpret_cast<const nlmsghdr *>(cap.netlink);
    for (uint64_t i = 0; i < calls; ++i) {
        std::memcpy(g_area, src, src->nlmsg_len);
        const auto *nlh = reinterpret_cast<const nlmsghdr *>(g_area);
        if (mnl_nlmsg_ok(nlh, static_cast<int>(src->nlmsg_len)))
            mnl_attr_parse(nlh, 0, OnAttr, &g_sink);
    }
    return {calls, 0};
}

}  // namespace

const std::vector<Case> &Cases() { return kCases; }

const Case *FindCase(const char *name) {
    for (const Case &c : kCases)
        if (std::strcmp(c.name, name) == 0) return &c;
    return nullptr;
}

const char *ImplName(Impl impl) {
    switch (impl) {
    case Impl::kLib: return "l2vfib";
    case Impl::kMnl: return "libmnl";
    case Impl::kLimit: return "limit";
    }
    return "?";
}

void Prepare(bool face) {
    if (face) {
        // The callbacks do what OnNotice and OnEvent do.
        auto session = l2vfib::Session::open([](uint32_t, uint32_t value) { g_seen += value; });
        auto channel = l2vfib::EventChannel::open(1);
        if (session && channel) {
            g_session = std::move(*session);
            g_channel = std::move(*channel);
            g_socket = g_session.socket();
            g_eventSocket = g_channel.socket();
            (void)g_channel.reg(0x0010, 0, [](uint32_t tag, const void *) { g_seen += tag; });
        }
    } else {
        g_socket = L2VFIB_Open(OnNotice);
        g_eventSocket = L2VFIB_InitEvent(1);
        L2VFIB_RegEvent(g_eventSocket, 0x0010, nullptr, 0, OnEvent, 0);
    }
    if (g_socket < 0 || g_eventSocket < 0) {
        std::fprintf(stderr, "bench: the library does not open over the bench platform\n");
        std::exit(1);
    }
    FillRecords();
    g_captured.resize(kCases.size());
    for (size_t i = 0; i < kCases.size(); ++i)
        if (face || !kCases[i].face) Capture(kCases[i], g_captured[i]);
}

extern "C" [[gnu::noinline]] Run bench_loop(const Case *c, Impl impl, uint64_t calls) {
    const Captured &cap = g_captured[static_cast<size_t>(c - kCases.data())];
    if (impl == Impl::kLimit) return LimitLoop(cap, calls);
    if (impl == Impl::kMnl)
        return c->kind == Kind::kReceive ? MnlParseLoop(cap, calls) : MnlBuildLoop(cap, calls);
    if (c->kind == Kind::kReceive)
        SetRecv(cap.messages[0].bytes.data(), cap.messages[0].bytes.size());
    if (c->kind != Kind::kBatched) {
        for (uint64_t i = 0; i < calls; ++i) c->call();
        return {calls, 0};
    }
    L2VFIB_FlushEntry(g_socket);
    ResetCount();
    for (uint64_t i = 0; i < calls; ++i) c->call();
    L2VFIB_FlushEntry(g_socket);
    return {calls * cap.messages.size(), Count().sends};
}

uint64_t MessagesPerCall(const Case &c) {
    return g_captured[static_cast<size_t>(&c - kCases.data())].messages.size();
}

}  // namespace bench

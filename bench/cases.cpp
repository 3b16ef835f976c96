// The measured calls and their baselines. See cases.h.
#include "cases.h"

#include <libmnl/libmnl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_platform.h"
#include "records.h"
#include "l2vfib.h"
#include "l2vfib.hpp"

namespace bench {
namespace {

constexpr size_t kBatch = 1400;
int32_t g_socket = -1;
int32_t g_eventSocket = -1;

// ---- the library's calls, with the records of records.h -----------------

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
    {"send_cfg_word", Kind::kBatched, SendCfgWord, MnlSendCfgWord, nullptr},
    {"send_cfg_word_cpp", Kind::kBatched, SendCfgWordCpp, MnlSendCfgWord, nullptr, true},
    {"send_cfg_variant", Kind::kBatched, SendCfgVariant, MnlSendCfgVariant, nullptr},
    {"send_cfg_variant_cpp", Kind::kBatched, SendCfgVariantCpp, MnlSendCfgVariant, nullptr, true},
    {"pw_add_200", Kind::kBatched, PwAdd, MnlPwAdd, nullptr, false, true},
    {"pw_add_200_cpp", Kind::kBatched, PwAddCpp, MnlPwAdd, nullptr, true, true},
    {"pw_del", Kind::kBatched, PwDel, MnlPwDel, nullptr},
    {"pw_del_cpp", Kind::kBatched, PwDelCpp, MnlPwDel, nullptr, true},
    {"minm_add", Kind::kBatched, MinMAdd, MnlMinMAdd, nullptr, false, true},
    {"minm_add_cpp", Kind::kBatched, MinMAddCpp, MnlMinMAdd, nullptr, true, true},
    {"ac_add", Kind::kBatched, AcAdd, MnlAcAdd, nullptr},
    {"ac_add_cpp", Kind::kBatched, AcAddCpp, MnlAcAdd, nullptr, true},
    {"tunnel_add", Kind::kBatched, TunnelAdd, MnlTunnelAdd, nullptr},
    {"tunnel_add_cpp", Kind::kBatched, TunnelAddCpp, MnlTunnelAdd, nullptr, true},
    {"ebg_members_1000", Kind::kBatched, EbgMembers, MnlEbgMembers, nullptr},
    {"ebg_members_1000_cpp", Kind::kBatched, EbgMembersCpp, MnlEbgMembers, nullptr, true},
    {"df_add", Kind::kBatched, DfAdd, MnlDfAdd, nullptr},
    {"df_add_cpp", Kind::kBatched, DfAddCpp, MnlDfAdd, nullptr, true},
    {"enc_lpw", Kind::kEncoder, EncLpw, MnlEncLpw, nullptr},
    {"enc_lpw_cpp", Kind::kEncoder, EncLpwCpp, MnlEncLpw, nullptr, true},
    {"handle_msg", Kind::kReceive, HandleMsg, nullptr, MnlNoticeAttr},
    {"handle_msg_cpp", Kind::kReceive, HandleMsgCpp, nullptr, MnlNoticeAttr, true},
    {"handle_evt_msg", Kind::kReceive, HandleEvtMsg, nullptr, MnlEventAttr},
    {"handle_evt_msg_cpp", Kind::kReceive, HandleEvtMsgCpp, nullptr, MnlEventAttr, true},
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
    uint16_t flags;           // as netlink carries them: opcode, byte 7 above it
    std::vector<Attr> attrs;  // point into bytes
    size_t tail;              // where the items end; the caller's block follows
};
struct Captured {
    std::vector<Message> messages;  // one call's messages
    uint8_t netlink[kBatch];        // receiving cases: the same as netlink
    size_t mnlLimit;                // netlink batch limit
    bool block;                     // a message ends in a caller's block
};
std::vector<Captured> g_captured;

uint16_t Be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// Reads the items from itemsFrom up to the first that would run past the
// message: a block of the caller's starts there (its bytes need not be
// items).
void AddMessage(Captured &cap, const uint8_t *p, size_t length, size_t itemsFrom) {
    Message &m = cap.messages.emplace_back();
    m.bytes.assign(p, p + length);
    m.objType = itemsFrom == 0 ? 0 : Be16(p);
    m.flags = itemsFrom == 0 ? 0 : static_cast<uint16_t>(p[7] << 8 | p[6]);
    size_t at = itemsFrom;
    while (at + 4 <= length && at + 4 + Be16(&m.bytes[at + 2]) <= length) {
        const uint16_t n = Be16(&m.bytes[at + 2]);
        m.attrs.push_back({Be16(&m.bytes[at]), n, &m.bytes[at + 4]});
        at += 4 + n;
    }
    m.tail = at;
    cap.block = cap.block || at < length;
}

void Capture(const Case &c, Captured &cap) {
    static uint8_t sent[1 << 16];
    const bool notice = c.mnlAttr == MnlNoticeAttr;
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
        size_t n = MNL_NLMSG_HDRLEN + MNL_ALIGN(m.bytes.size() - m.tail);
        for (const Attr &a : m.attrs) n += MNL_ALIGN(MNL_ATTR_HDRLEN + a.length);
        if (n > kBatch) cap.mnlLimit = 2 * n;
    }
    if (c.kind == Kind::kReceive) {
        const Message &m = cap.messages[0];
        nlmsghdr *nlh = mnl_nlmsg_put_header(cap.netlink);
        nlh->nlmsg_type = m.objType;
        nlh->nlmsg_seq = Be16(&m.bytes[4]);  // the tag
        for (const Attr &a : m.attrs) mnl_attr_put(nlh, a.type, a.length, a.value);
    }
}

// ---- the libmnl daemon against the library ---------------------------------

// True when nlh carries message m: its object type, opcode and byte 7; its
// items as attributes of the same types, lengths and value bytes, at most
// items of them; then every byte of m after those as it is.
bool Carries(const nlmsghdr *nlh, const Message &m, size_t items) {
    if (nlh->nlmsg_type != m.objType || nlh->nlmsg_flags != m.flags) return false;
    const auto *p = static_cast<const uint8_t *>(mnl_nlmsg_get_payload(nlh));
    const uint8_t *end = reinterpret_cast<const uint8_t *>(nlh) + nlh->nlmsg_len;
    size_t from = m.tail;
    for (size_t i = 0; i < m.attrs.size(); ++i) {
        const Attr &a = m.attrs[i];
        if (i == items) {
            from = static_cast<size_t>(a.value - MNL_ATTR_HDRLEN - m.bytes.data());
            break;
        }
        const auto *attr = reinterpret_cast<const nlattr *>(p);
        if (end - p < static_cast<ptrdiff_t>(MNL_ATTR_HDRLEN) || attr->nla_len > end - p ||
            mnl_attr_get_type(attr) != a.type || mnl_attr_get_payload_len(attr) != a.length ||
            std::memcmp(mnl_attr_get_payload(attr), a.value, a.length) != 0)
            return false;
        p += MNL_ALIGN(attr->nla_len);
    }
    const size_t block = m.bytes.size() - from;
    return static_cast<size_t>(end - p) == MNL_ALIGN(block) &&
           std::memcmp(p, m.bytes.data() + from, block) == 0;
}

// One call of the daemon's side, into a batch large enough never to send.
bool SameMessages(const Case &c, const Captured &cap) {
    static uint8_t area[1 << 15];
    MnlOut out{mnl_nlmsg_batch_start(area, sizeof area / 2), 0};
    c.mnl(out);
    const bool encoder = c.kind == Kind::kEncoder;
    const uint8_t *p = encoder ? g_encOut : area;
    size_t left = encoder ? sizeof g_encOut : mnl_nlmsg_batch_size(out.batch);
    mnl_nlmsg_batch_stop(out.batch);
    for (const Message &m : cap.messages) {
        const auto *nlh = reinterpret_cast<const nlmsghdr *>(p);
        if (!mnl_nlmsg_ok(nlh, static_cast<int>(left)) ||
            !Carries(nlh, m, c.keyed ? 1 : m.attrs.size()))
            return false;
        p += nlh->nlmsg_len;
        left -= nlh->nlmsg_len;
    }
    return out.sends == 0 && (encoder || left == 0);
}

Run MnlParseLoop(const Captured &cap, uint64_t calls, mnl_attr_cb_t onAttr);

// The notice callback's sums: the library's call and the daemon's add the
// same value.
bool SameNotice(const Case &c, const Captured &cap) {
    const uint64_t before = g_seen;
    SetRecv(kNotice, sizeof kNotice);
    c.call();
    const uint64_t library = g_seen - before;
    MnlParseLoop(cap, 1, c.mnlAttr);
    return library != 0 && g_seen - before == 2 * library;
}

EventRecord g_kept[4];
uint32_t g_keptTag;
size_t g_keptCount;

uint32_t KeepEvent(uint32_t tag, const void *record) {
    if (g_keptCount < 4) std::memcpy(&g_kept[g_keptCount], record, sizeof g_kept[0]);
    ++g_keptCount;
    g_keptTag = tag;
    return L2VFIB_OK;
}

// The records the library hands its event callback, against the daemon's.
// The library is opened by the C calls, so its callback can be swapped.
bool SameEvents(const Captured &cap) {
    g_keptCount = 0;
    L2VFIB_RegEvent(g_eventSocket, 0x0010, nullptr, 0, KeepEvent, 0);
    SetRecv(kEvent, sizeof kEvent);
    (void)L2VFIB_HandleEvtMsg(g_eventSocket);
    L2VFIB_RegEvent(g_eventSocket, 0x0010, nullptr, 0, OnEvent, 0);
    const auto *nlh = reinterpret_cast<const nlmsghdr *>(cap.netlink);
    size_t i = 0;
    const auto *end = reinterpret_cast<const char *>(mnl_nlmsg_get_payload_tail(nlh));
    for (auto *attr = static_cast<const nlattr *>(mnl_nlmsg_get_payload(nlh));
         mnl_attr_ok(attr, static_cast<int>(end - reinterpret_cast<const char *>(attr)));
         attr = mnl_attr_next(attr)) {
        EventRecord r;
        if (!MnlEventRecord(attr, &r)) continue;
        const uint16_t type = mnl_attr_get_type(attr);
        const size_t n = type == 3 ? sizeof r.r3 : type == 6 ? sizeof r.r6 : sizeof r.r2;
        if (i >= g_keptCount || i >= 4 || std::memcmp(&r, &g_kept[i], n) != 0) return false;
        ++i;
    }
    return i != 0 && i == g_keptCount && g_keptTag == nlh->nlmsg_seq;
}

void CheckMnl(const Case &c, const Captured &cap, bool face) {
    bool same = true;
    if (c.kind != Kind::kReceive)
        same = SameMessages(c, cap);
    else if (c.mnlAttr == MnlNoticeAttr)
        same = SameNotice(c, cap);
    else if (!face)
        same = SameEvents(cap);
    if (!same) {
        std::fprintf(stderr, "bench: the libmnl side of %s does not do what the library does\n",
                     c.name);
        std::exit(1);
    }
}

// ---- the loops -------------------------------------------------------------

// The batch datagrams of the baselines go here; its address escapes, so the
// copies into it stay. A batch may hold a message past its limit: twice the
// largest limit (two of the longest messages).
uint8_t g_area[8192];
uint64_t g_sink;

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

// Sends what is left in a batch and ends it.
void EndBatch(mnl_nlmsg_batch *b, Run &run) {
    if (!mnl_nlmsg_batch_is_empty(b)) {
        SendArea(mnl_nlmsg_batch_head(b), mnl_nlmsg_batch_size(b));
        ++run.sends;
    }
    mnl_nlmsg_batch_stop(b);
}

// A netlink header is 8 bytes longer than ours, so a message that fills our
// batch overflows netlink's: such a case gets a batch limit of two messages.
// (Not one: when the batch overflows, libmnl moves the last message to the
// front with memcpy, which must not overlap.)
Run MnlLoop(const Case &c, const Captured &cap, uint64_t calls) {
    MnlOut out{mnl_nlmsg_batch_start(g_area, cap.mnlLimit), 0};
    for (uint64_t i = 0; i < calls; ++i) c.mnl(out);
    Run run{calls * cap.messages.size(), out.sends};
    EndBatch(out.batch, run);
    return run;
}

// The old baseline: the captured items put as they are, and a block behind
// them copied in (Block: some message has one).
template <bool Block>
Run MnlReadyLoop(const Captured &cap, uint64_t calls) {
    Run run{};
    mnl_nlmsg_batch *b = mnl_nlmsg_batch_start(g_area, cap.mnlLimit);
    for (uint64_t i = 0; i < calls; ++i) {
        for (const Message &m : cap.messages) {
            nlmsghdr *nlh = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(b));
            nlh->nlmsg_type = m.objType;
            for (const Attr &a : m.attrs) mnl_attr_put(nlh, a.type, a.length, a.value);
            if (Block) {
                const size_t n = m.bytes.size() - m.tail;
                std::memcpy(mnl_nlmsg_get_payload_tail(nlh), m.bytes.data() + m.tail, n);
                nlh->nlmsg_len += MNL_ALIGN(n);
            }
            if (!mnl_nlmsg_batch_next(b)) {
                SendArea(mnl_nlmsg_batch_head(b), mnl_nlmsg_batch_size(b));
                ++run.sends;
                mnl_nlmsg_batch_reset(b);
            }
            ++run.messages;
        }
    }
    EndBatch(b, run);
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
// attribute handed to the daemon's callback with the message's tag.
Run MnlParseLoop(const Captured &cap, uint64_t calls, mnl_attr_cb_t onAttr) {
    const auto *src = reinterpret_cast<const nlmsghdr *>(cap.netlink);
    for (uint64_t i = 0; i < calls; ++i) {
        std::memcpy(g_area, src, src->nlmsg_len);
        const auto *nlh = reinterpret_cast<const nlmsghdr *>(g_area);
        if (mnl_nlmsg_ok(nlh, static_cast<int>(src->nlmsg_len))) {
            uint32_t tag = nlh->nlmsg_seq;
            mnl_attr_parse(nlh, 0, onAttr, &tag);
        }
    }
    return {calls, 0};
}

// The old baseline: each attribute's value copied out as it is.
Run MnlReadyParseLoop(const Captured &cap, uint64_t calls) {
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
    case Impl::kMnlReady: return "libmnl_ready";
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
        if (face || !kCases[i].face) {
            Capture(kCases[i], g_captured[i]);
            CheckMnl(kCases[i], g_captured[i], face);
        }
}

[[gnu::noinline]] void SendArea(const void *data, size_t length) {
    g_sink += length + static_cast<const uint8_t *>(data)[0];
}

extern "C" [[gnu::noinline]] Run bench_loop(const Case *c, Impl impl, uint64_t calls) {
    const Captured &cap = g_captured[static_cast<size_t>(c - kCases.data())];
    const bool receive = c->kind == Kind::kReceive;
    switch (impl) {
    case Impl::kLimit: return LimitLoop(cap, calls);
    case Impl::kMnl: return receive ? MnlParseLoop(cap, calls, c->mnlAttr) : MnlLoop(*c, cap, calls);
    case Impl::kMnlReady:
        if (receive) return MnlReadyParseLoop(cap, calls);
        return cap.block ? MnlReadyLoop<true>(cap, calls) : MnlReadyLoop<false>(cap, calls);
    case Impl::kLib: break;
    }
    if (receive) SetRecv(cap.messages[0].bytes.data(), cap.messages[0].bytes.size());
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

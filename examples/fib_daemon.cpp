// fib_daemon (C++): the example control-plane daemon of fib_daemon.c,
// written against the C++ face. It programs one of each kind of forwarding
// entry the library knows, asks the service what it has, registers for
// events, and then serves its poll loop until it has handled one notice and
// one event (or its wait runs out).
//
//   fib_daemon_cpp [SECONDS]    wait up to SECONDS (default 10) for a notice
//                               and an event; 0 skips the wait
//
// Built without exceptions or RTTI, as daemons on the device are. The
// session and the event channel close themselves on every way out; it exits
// 1 as soon as a call fails, naming the call and what happened. When the
// service restarts under it, it recovers as fib_daemon.c does: close, open
// again with a back-off, program everything again, register again.
#include <poll.h>
#include <time.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "l2vfib.hpp"

namespace {

// Counts what the poll loop handled; its member functions are the callbacks.
class Daemon {
  public:
    void on_notice(uint32_t kind, uint32_t value) {
        std::printf("  notice: kind %u value 0x%08x\n", kind, value);
        ++notices;
    }
    // Records 2, 3 and 6 all begin with two words.
    void on_event(uint32_t tag, const void *record) {
        const auto *r = static_cast<const L2VFIB_EvtRecord3 *>(record);
        std::printf("  event: tag %u word0 %u word1 %u\n", tag, r->word0, r->word1);
        ++events;
    }
    int notices = 0;
    int events = 0;
};

// While programming again after a restart, successes are not printed.
bool gQuiet = false;

// Prints a call's outcome; false when it failed.
bool check(const char *what, std::error_code ec) {
    if (ec) {
        std::fprintf(stderr, "fib_daemon_cpp: %s failed: %s (0x%08x)\n", what,
                     ec.message().c_str(), static_cast<uint32_t>(ec.value()));
        return false;
    }
    if (!gQuiet) std::printf("  %-44s ok\n", what);
    return true;
}

long now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000L + t.tv_nsec / 1000000L;
}

// Everything that is queued, sent or asked, in fib_daemon.c's order.
bool configure(l2vfib::Session &s) {
    // Pseudowires: the attribute block is encoded first, then queued.
    const L2VFIB_LpwSubEntry sub = {.word0 = 100, .word1 = 200, .word2 = 300, .half0 = 1,
                                    .byte0 = 2, .byte1 = 3, .half1 = 4, .half2 = 5, .word3 = 6};
    const L2VFIB_LpwEntry pw = {.attr64 = {0x0102030405060708ull, 42}, .attr32 = 1500,
                                .attr16 = {10, 20, 30}, .attr8 = 1, .sub = {&sub, nullptr}};
    std::array<std::byte, 512> room;
    const auto pwBlock = l2vfib::encode(pw, room);
    if (pwBlock.empty()) return check("encode(L2VFIB_LpwEntry)", l2vfib::errc::fail);
    for (uint32_t id = 1; id <= 3; id++)
        if (!check("add_pw", s.add_pw(8, {.id = id, .subId = 1}, pwBlock))) return false;
    if (!check("del_pw", s.del_pw(8, {.id = 3, .subId = 1}))) return false;

    // Attachment circuits, one with its option.
    L2VFIB_AcInfo info = {.half0 = 100, .word0 = 7, .byte0 = 1, .word1 = 9, .reserved0 = {},
                          .attr64 = 0x1122334455667788ull, .word2 = 3, .reserved1 = {},
                          .half1 = 10, .half2 = 20};
    const L2VFIB_AcOption option = {.half0 = 1, .half1 = 2, .half2 = 3, .half3 = 4};
    if (!check("add_ac with option", s.add_ac({.id = 10, .subId = 1}, info, option))) return false;
    info.half1 = 11;
    if (!check("add_ac", s.add_ac({.id = 11, .subId = 2}, info))) return false;

    // A MAC-in-MAC entry with two members.
    const L2VFIB_MinMMember members[2] = {{.word0 = 1, .data = {1, 2, 3, 4, 5, 6, 7, 8}},
                                          {.word0 = 2, .data = {8, 7, 6, 5, 4, 3, 2, 1}}};
    const L2VFIB_MinMEntry minm = {.word0 = 1, .word1 = 2, .word2 = 3, .memberCount = 2, .word4 = 5,
                                   .macAddr = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55},
                                               {0x00, 0x11, 0x22, 0x33, 0x44, 0x66},
                                               {0x00, 0x11, 0x22, 0x33, 0x44, 0x77}},
                                   .opaque = {}, .members = members, .extra = nullptr};
    const auto minmBlock = l2vfib::encode(minm, room);
    if (minmBlock.empty()) return check("encode(L2VFIB_MinMEntry)", l2vfib::errc::fail);
    if (!check("add_minm", s.add_minm(8, 5, {.id = 20, .subId = 1}, minmBlock))) return false;

    // Overlay tunnels: one of each object type, then a switch.
    const L2VFIB_OverlayTunnelEntry t1 = {{1, 2}, {3, 4, 5, 6}}, t2 = {{7, 8}, {9, 10, 11, 12}},
                                    t3 = {{1, 3}, {3, 4, 5, 7}};
    if (!check("add_tunnel 5", s.add_tunnel(5, t1)) || !check("add_tunnel 7", s.add_tunnel(7, t2)) ||
        !check("switch_tunnel", s.switch_tunnel(5, t1, t3)))
        return false;

    // EBG and MPLS EBG member lists, and two designated forwarders.
    const L2VFIB_EbgKey ebg = {.ebgId = 42};
    const std::array<uint32_t, 3> ebgMembers = {1, 2, 3};
    const L2VFIB_MplsEbgKey mpls = {.word0 = 10, .word1 = 20};
    const std::array<L2VFIB_MplsEbgMember, 2> mplsMembers = {{{1, 2, 3}, {4, 5, 6}}};
    if (!check("add_ebg_members", s.add_ebg_members(8, ebg, ebgMembers)) ||
        !check("del_ebg_members", s.del_ebg_members(8, ebg, std::span(ebgMembers).last(1))) ||
        !check("add_mpls_ebg_members", s.add_mpls_ebg_members(8, mpls, mplsMembers)) ||
        !check("add_ebg_df", s.add_ebg_df(8, {1, 2, 3, 4})) ||
        !check("add_ebg_df", s.add_ebg_df(8, {1, 2, 3, 5})))
        return false;

    // Catalogue commands: batched (20, 57), alone (15) and answered (18).
    const uint32_t instance = 100, limit = 4096, word = 5;
    if (!check("send_cfg 20", s.send_cfg(20, 0, &instance)) ||
        !check("send_cfg 57", s.send_cfg(57, 0, nullptr, &limit)) ||
        !check("send_cfg 15", s.send_cfg(15, 0, &word)))
        return false;
    const auto answer = s.ask(18, &instance);
    if (!answer) return check("ask 18", answer.error());
    if (!check("ask 18: the service's result", l2vfib::to_error(*answer))) return false;

    // MAC withdraw (batched) and reset (to every node that is up).
    if (!check("withdraw_mac", s.withdraw_mac({.id = 10, .subId = 1})) ||
        !check("reset_mac", s.reset_mac(258)) || !check("flush", s.flush()))
        return false;

    // Sent at once: graceful restart, the AC flag, a tunnel interface.
    if (!check("send_gr_event", s.send_gr_event(0)) ||
        !check("set_ac_flag_clear", s.set_ac_flag_clear(1)) ||
        !check("del_tunnel_if", s.del_tunnel_if(261)))
        return false;

    // Ask: an identifier, and the attachment-circuit data table.
    const L2VFIB_WordTriple triple = {1, 2, 3};
    const auto id = s.alloc_ecid(54, nullptr, &triple);
    if (!id) return check("alloc_ecid", id.error());
    if (!gQuiet) std::printf("  %-44s %d\n", "alloc_ecid(54) identifier", *id);
    static std::array<L2VFIB_AcData, L2VFIB_AC_DATA_MAX> table;
    const auto data = s.ac_data(table);
    if (!check("ac_data", data.error())) return false;
    for (size_t i = 0; i < data->size() && !gQuiet; i++) {
        const L2VFIB_AcData &e = (*data)[i];
        std::printf("  ac data %zu: word0 %u half0 %u byte0 %u half1 %u\n", i, e.word0, e.half0,
                    e.byte0, e.half1);
    }

    // Control calls go to a node, not through the service socket.
    const std::array<std::byte, 4> range = {std::byte{0}, std::byte{10}, std::byte{0}, std::byte{20}};
    return check("start", l2vfib::start(0x0001, 5)) &&
           check("check_vlan_range", l2vfib::check_vlan_range(0x0001, range));
}

}  // namespace

int main(int argc, char **argv) {
    const long wait_ms = (argc > 1 ? std::atol(argv[1]) : 10) * 1000L;
    Daemon daemon;
    auto open_session = [&daemon] {
        return l2vfib::Session::open([&daemon](uint32_t kind, uint32_t value) { daemon.on_notice(kind, value); });
    };
    // Events: a channel of our own, one registration.
    auto open_channel = [&daemon]() -> l2vfib::result<l2vfib::EventChannel> {
        auto channel = l2vfib::EventChannel::open(5);
        if (!channel) return channel.error();
        const std::array<uint32_t, 3> selector = {1, 0, 0};
        if (auto ec = channel->reg(0x0010, selector, 0,
                                   [&daemon](uint32_t tag, const void *r) { daemon.on_event(tag, r); }))
            return ec;
        return channel;
    };

    auto session = open_session();
    if (!session) {
        std::fprintf(stderr, "fib_daemon_cpp: open failed: %s\n", session.error().message().c_str());
        return 1;
    }
    std::printf("fib_daemon_cpp: library open, service socket %d\n", session->socket());

    bool ok = configure(*session);
    auto channel = open_channel();
    if (ok) ok = check("EventChannel::open and reg", channel.error());
    if (ok) std::printf("fib_daemon_cpp: configured; waiting for a notice and an event\n");
    std::fflush(stdout);

    // The service restarted: the session opens again until the service is
    // back (waiting 50 ms, doubled up to a second, until the deadline) and
    // the daemon programs it all again, quietly, and registers again.
    auto recover = [&](long deadline) {
        std::printf("fib_daemon_cpp: the service is gone; opening the library again\n");
        (void)channel->close();
        gQuiet = true;
        const std::error_code ec = session->reopen(
            [&](l2vfib::Session &s) -> std::error_code {
                if (!configure(s)) return l2vfib::errc::fail;
                channel = open_channel();
                return channel.error();
            },
            std::chrono::milliseconds(deadline - now_ms()));
        gQuiet = false;
        if (!check("reopen, configure and reg", ec)) return false;
        std::printf("fib_daemon_cpp: recovered\n");
        return true;
    };

    // The poll loop: the service socket for notices, the event socket for
    // events. A real daemon stays here; this one leaves once it has seen one
    // of each. A socket whose peer hung up, or a receive that fails, means
    // the service restarted.
    for (long deadline = now_ms() + wait_ms;
         ok && wait_ms > 0 && (daemon.notices == 0 || daemon.events == 0);) {
        const long left = deadline - now_ms();
        if (left <= 0) {
            std::fprintf(stderr, "fib_daemon_cpp: no %s within the wait\n",
                         daemon.notices == 0 ? "notice" : "event");
            ok = false;
            break;
        }
        pollfd fds[2] = {{session->socket(), POLLIN, 0}, {channel->socket(), POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left)) <= 0) continue;
        bool gone = ((fds[0].revents | fds[1].revents) & (POLLHUP | POLLERR)) != 0;
        if (!gone && (fds[0].revents & POLLIN) != 0) {
            const std::error_code ec = session->handle_msg();
            gone = ec == l2vfib::errc::fail;
            if (!gone) ok = check("handle_msg", ec);
        }
        if (ok && !gone && (fds[1].revents & POLLIN) != 0) ok = check("handle", channel->handle());
        if (ok && gone) ok = recover(deadline);
        std::fflush(stdout);
    }

    // The channel, then the session, close as they go out of scope; the
    // session's close is checked here.
    (void)channel->close();
    if (session->close()) ok = false;
    std::printf("fib_daemon_cpp: %s\n", ok ? "done" : "FAILED");
    return ok ? 0 : 1;
}

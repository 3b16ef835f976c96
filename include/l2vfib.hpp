/*
 * l2vfib.hpp - the C++20 face of libl2vfib, for daemons written in C++.
 *
 * Header-only, over the C functions of l2vfib.h: it adds no exported name
 * and no library to link, compiles with -fno-exceptions -fno-rtti, and
 * allocates nothing (only std::error_code::message(), whose std::string is
 * the standard's interface, may; l2vfib_result_name() gives the same words
 * without it). Every wrapper is inline and compiles to the C call it wraps.
 *
 *   auto session = l2vfib::Session::open([&](uint32_t, uint32_t v) { ... });
 *   if (!session) return session.error();           // std::error_code
 *   if (auto ec = session->add_pw(8, key, block))    // [[nodiscard]]
 *       log(ec.message());
 *   session->flush();                                // closes when destroyed
 *
 * Results. A call that can fail returns std::error_code in l2vfib's category:
 * its value() is the C result code, so ec == l2vfib::errc::not_open reads as
 * it says, and a service's own result (answered commands, control calls)
 * keeps its number. A call that produces a value returns
 * l2vfib::result<T>: the value, or the error_code.
 *
 * Callbacks. The library's notice and event callbacks carry no context
 * pointer, so the callable given to Session::open and EventChannel::reg is
 * kept in a process-wide slot, one per callback kind (the library is open at
 * most once per process, and its event callback is one per process too). A
 * slot holds any callable of up to four pointers (a lambda with captures, a
 * member function called through a lambda capturing this, a plain function);
 * a larger one is refused at compile time: capture a pointer to it instead.
 * The C callback handed to the library is made for the callable's type, so
 * a notice or event reaches the callable with no more indirection than a C
 * callback has. The notice slot is the session's: a second Session::open
 * fails without touching it. The event slot is the last registration's, and
 * is emptied when its channel closes. A callback must not throw: the
 * library's C frames lie between it and the caller (one that does ends the
 * process).
 */
#ifndef L2VFIB_HPP
#define L2VFIB_HPP

#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <span>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "l2vfib.h"

namespace l2vfib {

// ---------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------

// The library's result codes; each value is the C code.
enum class errc : int {
    fail = static_cast<int>(L2VFIB_ERR_FAIL),
    not_open = static_cast<int>(L2VFIB_ERR_NOT_OPEN),
    bad_msg = static_cast<int>(L2VFIB_ERR_BAD_MSG),
    no_data = static_cast<int>(L2VFIB_ERR_NO_DATA),
};

}  // namespace l2vfib

// So that ec == l2vfib::errc::not_open reads as it says.
template <>
struct std::is_error_code_enum<l2vfib::errc> : std::true_type {};

namespace l2vfib {

namespace detail {

class Category final : public std::error_category {
  public:
    constexpr Category() noexcept = default;
    const char *name() const noexcept override { return "l2vfib"; }
    std::string message(int code) const override {
        const auto rc = static_cast<uint32_t>(code);
        const char *words = l2vfib_result_name(rc);
        switch (rc) {
        case L2VFIB_OK:
        case L2VFIB_ERR_FAIL:
        case L2VFIB_ERR_NOT_OPEN:
        case L2VFIB_ERR_BAD_MSG:
        case L2VFIB_ERR_NO_DATA: return words;
        default: break;
        }
        char text[64];
        std::snprintf(text, sizeof text, "%s: 0x%08x", words, rc);
        return text;
    }
};

// Constant-initialised: taking the category is taking an address.
inline constinit const Category category_object{};

}  // namespace detail

inline const std::error_category &category() noexcept { return detail::category_object; }

inline std::error_code make_error_code(errc e) noexcept {
    return {static_cast<int>(e), category()};
}

// A C result code as an error_code: L2VFIB_OK is no error, anything else
// keeps its number.
inline std::error_code to_error(uint32_t rc) noexcept {
    return {static_cast<int>(rc), category()};
}

// The value a call produced, or why it produced none.
template <typename T>
class [[nodiscard]] result {
  public:
    result(T value) noexcept(std::is_nothrow_move_constructible_v<T>) : value_(std::move(value)) {}
    result(std::error_code error) noexcept : error_(error) {}
    result(errc error) noexcept : error_(make_error_code(error)) {}

    bool has_value() const noexcept { return !error_; }
    explicit operator bool() const noexcept { return has_value(); }
    std::error_code error() const noexcept { return error_; }

    // Only when has_value(): otherwise a default-made T.
    T &value() & noexcept { return value_; }
    const T &value() const & noexcept { return value_; }
    T &&value() && noexcept { return std::move(value_); }
    T &operator*() & noexcept { return value_; }
    const T &operator*() const & noexcept { return value_; }
    T *operator->() noexcept { return &value_; }
    const T *operator->() const noexcept { return &value_; }
    template <typename U>
    T value_or(U &&other) const & {
        return has_value() ? value_ : static_cast<T>(std::forward<U>(other));
    }

  private:
    T value_{};
    std::error_code error_{};
};

// ---------------------------------------------------------------------------
// Callback slots
// ---------------------------------------------------------------------------

namespace detail {

// Room for one callable, process-wide. Trivially destructible and
// constant-initialised, so it costs no static constructor or destructor.
class Slot {
  public:
    static constexpr std::size_t kRoom = 4 * sizeof(void *);

    template <typename F>
    static constexpr bool kFits = sizeof(F) <= kRoom && alignof(F) <= alignof(std::max_align_t) &&
                                  std::is_nothrow_move_constructible_v<F>;

    template <typename F>
    void set(F &&f) noexcept {
        using D = std::decay_t<F>;
        static_assert(kFits<D>, "l2vfib: a callback may hold at most four pointers; "
                                "capture a pointer to a larger one");
        reset();
        ::new (static_cast<void *>(room_)) D(std::forward<F>(f));
        destroy_ = [](void *room) noexcept { std::launder(static_cast<D *>(room))->~D(); };
    }
    void reset() noexcept {
        if (destroy_ != nullptr) destroy_(room_);
        destroy_ = nullptr;
    }
    bool empty() const noexcept { return destroy_ == nullptr; }
    template <typename D>
    D &get() noexcept {
        return *std::launder(reinterpret_cast<D *>(room_));
    }

  private:
    alignas(std::max_align_t) unsigned char room_[kRoom]{};
    void (*destroy_)(void *) noexcept = nullptr;
};

inline constinit Slot notice_slot{};
inline constinit Slot event_slot{};

// The C notice callback for a callable of type D: the value, then nothing.
// The library holds it only while the slot holds a D (a session's life).
template <typename D>
uint32_t notice_thunk(uint32_t kind, uint32_t *value) noexcept {
    notice_slot.get<D>()(kind, *value);
    return 0;
}

// The C event callback for a callable of type D, installed only while the
// slot holds a D (from registration to the channel's close). What the
// callable returns becomes L2VFIB_HandleEvtMsg's result: nothing is
// L2VFIB_OK, an error_code its value, a number itself.
template <typename D>
uint32_t event_thunk(uint32_t tag, const void *record) noexcept {
    D &f = event_slot.get<D>();
    using R = std::invoke_result_t<D &, uint32_t, const void *>;
    if constexpr (std::is_void_v<R>) {
        f(tag, record);
        return L2VFIB_OK;
    } else if constexpr (std::is_convertible_v<R, std::error_code>) {
        return static_cast<uint32_t>(std::error_code(f(tag, record)).value());
    } else {
        return static_cast<uint32_t>(f(tag, record));
    }
}

// Lengths and counts above what the C call takes are refused, never cut.
constexpr bool fits16(std::size_t n) noexcept { return n <= UINT16_MAX; }
constexpr uint32_t room32(std::size_t n) noexcept {
    if constexpr (sizeof(std::size_t) > sizeof(uint32_t))
        if (n > UINT32_MAX) return UINT32_MAX;
    return static_cast<uint32_t>(n);
}

}  // namespace detail

// ---------------------------------------------------------------------------
// Records: the C structs, with names where a field's meaning is not plain
// ---------------------------------------------------------------------------

// An IPv4 address block (family 2; the address in network order).
constexpr L2VFIB_IpAddr ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) noexcept {
    L2VFIB_IpAddr ip{};
    ip.family = 2;
    ip.addr[0] = a;
    ip.addr[1] = b;
    ip.addr[2] = c;
    ip.addr[3] = d;
    return ip;
}

// A pseudowire's attribute block into out: the bytes written, or an empty
// span when out is too small or the entry cannot be encoded (nothing
// written). Encode after the library is open: the block is sized by the
// device's capabilities.
inline std::span<std::byte> encode(const L2VFIB_LpwEntry &entry, std::span<std::byte> out) noexcept {
    return out.first(L2VFIB_EncLpwEntry(&entry, detail::room32(out.size()), out.data()));
}

// A MAC-in-MAC entry's attribute block into out, as above.
inline std::span<std::byte> encode(const L2VFIB_MinMEntry &entry, std::span<std::byte> out) noexcept {
    return out.first(L2VFIB_EncMinMEntry(&entry, detail::room32(out.size()), out.data()));
}

// Marks type in select (0 to 7, or all eight for 8 and above) with value.
inline void select_type(L2VFIB_TypeSelect &select, uint32_t value, uint32_t type) noexcept {
    L2VFIB_SelectType_Set(value, type, &select);
}

// ---------------------------------------------------------------------------
// Control calls: no open library needed. A nonzero result is the control
// service's own.
// ---------------------------------------------------------------------------

[[nodiscard]] inline std::error_code start(uint32_t target, uint32_t value) noexcept {
    return to_error(L2VFIB_Start(target, value));
}
[[nodiscard]] inline std::error_code stop(uint32_t target) noexcept {
    return to_error(L2VFIB_Stop(target));
}
[[nodiscard]] inline std::error_code check_vlan_range(uint32_t target,
                                                      std::span<const std::byte> data) noexcept {
    return to_error(L2VFIB_CheckVlanRange(target, detail::room32(data.size()), data.data()));
}

// ---------------------------------------------------------------------------
// The session: the library opened, closed when destroyed
// ---------------------------------------------------------------------------

// What a session does when a direct entry call is refused because the
// service is busy (its flush for room was refused, nothing was queued):
// report it, or flush with the waiting flush and make the call once more.
// See "When the service is busy" in the daemon guide.
enum class Busy { report, retry };

template <Busy OnBusy>
class BasicSession {
  public:
    // Opens the library; on_notice is called as on_notice(kind, value) for
    // each notice L2VFIB_HandleMsg reads. errc::fail when the library is
    // open already (that session, its callback included, is left as it was)
    // or there is no service.
    template <typename F>
    [[nodiscard]] static result<BasicSession> open(F &&on_notice) noexcept {
        using D = std::decay_t<F>;
        if (!detail::notice_slot.empty()) return errc::fail;  // another session's
        detail::notice_slot.set(std::forward<F>(on_notice));
        const int32_t fd = L2VFIB_Open(&detail::notice_thunk<D>);
        if (fd < 0) {
            detail::notice_slot.reset();
            return errc::fail;
        }
        return BasicSession(fd, &detail::notice_thunk<D>);
    }
    // Opens the library without a notice callback.
    [[nodiscard]] static result<BasicSession> open() noexcept {
        const int32_t fd = L2VFIB_Open(nullptr);
        if (fd < 0) return errc::fail;
        return BasicSession(fd);
    }

    BasicSession() noexcept = default;  // not open
    BasicSession(const BasicSession &) = delete;
    BasicSession &operator=(const BasicSession &) = delete;
    BasicSession(BasicSession &&other) noexcept
        : fd_(std::exchange(other.fd_, -1)), notice_(std::exchange(other.notice_, nullptr)) {}
    BasicSession &operator=(BasicSession &&other) noexcept {
        if (this != &other) {
            (void)close();
            fd_ = std::exchange(other.fd_, -1);
            notice_ = std::exchange(other.notice_, nullptr);
        }
        return *this;
    }
    ~BasicSession() { (void)close(); }

    // Closes now: anything queued is dropped (flush first). errc::fail when
    // close failed; nothing to do on a session that is not open.
    std::error_code close() noexcept {
        if (fd_ < 0) return {};
        const int32_t rc = L2VFIB_Close(std::exchange(fd_, -1));
        if (notice_ != nullptr) detail::notice_slot.reset();
        notice_ = nullptr;
        return rc == 0 ? std::error_code{} : make_error_code(errc::fail);
    }

    // The service restarted under the session (a waiting flush failed, the
    // service socket hung up): everything it held is gone, and so is this
    // session's queue. Closes the library and opens it again with the same
    // notice callable, waiting 50 ms between tries, doubled up to a second,
    // until the service is back; then returns program(*this), where the
    // daemon programs its whole state again (its event channel is its own
    // to open and register again). errc::fail, and the session closed, when
    // the service is not back within patience. See "When the service
    // restarts" in the daemon guide.
    template <typename Program>
    [[nodiscard]] std::error_code reopen(Program &&program, std::chrono::milliseconds patience) noexcept {
        L2VFIB_MsgCallback *const notice = notice_;
        if (fd_ >= 0) (void)L2VFIB_Close(std::exchange(fd_, -1));  // the callable stays
        long pause = 50, waited = 0;
        while ((fd_ = L2VFIB_Open(notice)) < 0) {
            if (waited + pause > patience.count()) {
                if (notice != nullptr) detail::notice_slot.reset();
                notice_ = nullptr;
                return errc::fail;
            }
            const timespec wait = {pause / 1000, (pause % 1000) * 1000000L};
            nanosleep(&wait, nullptr);
            waited += pause;
            pause = pause * 2 > 1000 ? 1000 : pause * 2;
        }
        return program(*this);
    }

    bool is_open() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return is_open(); }
    // The service socket, for the daemon's poll loop.
    int32_t socket() const noexcept { return fd_; }

    // ---- batch ------------------------------------------------------------

    [[nodiscard]] std::error_code flush() noexcept { return to_error(L2VFIB_FlushEntry(fd_)); }

    // A catalogue command, batched (batch 1 or always batched), alone, or
    // answered: the service's own result then comes back in the error_code.
    [[nodiscard]] std::error_code send_cfg(L2VFIB_CmdId cmd, uint32_t batch, const void *arg1,
                                           const void *arg2 = nullptr) noexcept {
        return to_error(L2VFIB_Send_Cfg(fd_, cmd, batch, arg1, arg2));
    }
    // An answered command: the service's own result (0 is accepted), or
    // errc::fail / errc::not_open when no answer came.
    result<uint32_t> ask(L2VFIB_CmdId cmd, const void *arg1, const void *arg2 = nullptr) noexcept {
        const uint32_t rc = L2VFIB_Send_Cfg(fd_, cmd, 0, arg1, arg2);
        if (rc == L2VFIB_ERR_FAIL || rc == L2VFIB_ERR_NOT_OPEN) return to_error(rc);
        return rc;
    }
    // The identifier the service allocates.
    result<int32_t> alloc_ecid(L2VFIB_CmdId cmd, const void *arg1, const void *arg2 = nullptr) noexcept {
        const int32_t id = L2VFIB_AllocECID(cmd, arg1, arg2);
        if (id == -1) return errc::fail;
        return id;
    }
    // Reads one notice (waiting for it) and hands it to the callback.
    [[nodiscard]] std::error_code handle_msg() noexcept { return to_error(L2VFIB_HandleMsg(fd_)); }

    // ---- pseudowires and MAC-in-MAC ---------------------------------------

    [[nodiscard]] std::error_code add_pw(uint32_t byte7, const L2VFIB_EntryKey &key,
                                         std::span<const std::byte> block) noexcept {
        if (!detail::fits16(block.size())) return errc::fail;
        return append([&] {
            return L2VFIB_AddPwEntry(fd_, byte7, &key, block.data(),
                                     static_cast<uint16_t>(block.size()));
        });
    }
    [[nodiscard]] std::error_code del_pw(uint32_t byte7, const L2VFIB_EntryKey &key) noexcept {
        return append([&] { return L2VFIB_DelPwEntry(fd_, byte7, &key); });
    }
    [[nodiscard]] std::error_code add_minm(uint32_t byte7, uint32_t opcode, const L2VFIB_EntryKey &key,
                                           std::span<const std::byte> block) noexcept {
        if (!detail::fits16(block.size())) return errc::fail;
        return append([&] {
            return L2VFIB_AddMinMEntry(fd_, byte7, opcode, &key, block.data(),
                                       static_cast<uint16_t>(block.size()));
        });
    }
    [[nodiscard]] std::error_code del_minm(uint32_t byte7, uint32_t opcode,
                                           const L2VFIB_EntryKey &key) noexcept {
        return append([&] { return L2VFIB_DelMinMEntry(fd_, byte7, opcode, &key); });
    }

    // ---- attachment circuits ----------------------------------------------

    [[nodiscard]] std::error_code add_ac(const L2VFIB_EntryKey &key, const L2VFIB_AcInfo &info) noexcept {
        return append([&] { return L2VFIB_AddAcEntry(fd_, &key, &info, nullptr); });
    }
    [[nodiscard]] std::error_code add_ac(const L2VFIB_EntryKey &key, const L2VFIB_AcInfo &info,
                                         const L2VFIB_AcOption &option) noexcept {
        return append([&] { return L2VFIB_AddAcEntry(fd_, &key, &info, &option); });
    }
    [[nodiscard]] std::error_code del_ac(const L2VFIB_EntryKey &key) noexcept {
        return append([&] { return L2VFIB_DelAcEntry(fd_, &key); });
    }
    // Sent at once.
    [[nodiscard]] std::error_code set_ac_flag_clear(int32_t flag) noexcept {
        return to_error(L2VFIB_SetAcFlagClear(fd_, flag));
    }
    // The AC data table into out; the entries the answer held (none is no
    // error). The answer is the next datagram on the service socket: handle
    // waiting notices first.
    result<std::span<L2VFIB_AcData>> ac_data(std::span<L2VFIB_AcData, L2VFIB_AC_DATA_MAX> out) noexcept {
        L2VFIB_AcDataList list = {0, out.data()};
        const uint32_t rc = L2VFIB_GetAcData(fd_, &list);
        if (rc != L2VFIB_OK) return to_error(rc);
        return std::span<L2VFIB_AcData>(out.first(list.count));
    }

    // ---- MAC addresses, graceful restart, type selection ------------------

    [[nodiscard]] std::error_code withdraw_mac(const L2VFIB_EntryKey &key) noexcept {
        return append([&] { return L2VFIB_WithdrawMacAddr(fd_, &key); });
    }
    // To every node that is up, whatever they answer.
    [[nodiscard]] std::error_code reset_mac(uint32_t value) noexcept {
        return to_error(L2VFIB_ResetMacAddr(&value));
    }
    [[nodiscard]] std::error_code send_gr_event(uint32_t flag) noexcept {
        return to_error(L2VFIB_SendGrEvent(fd_, flag));
    }
    static void select_type(L2VFIB_TypeSelect &select, uint32_t value, uint32_t type) noexcept {
        l2vfib::select_type(select, value, type);
    }

    // ---- overlay tunnels --------------------------------------------------

    [[nodiscard]] std::error_code add_tunnel(uint32_t byte7, const L2VFIB_OverlayTunnelEntry &entry) noexcept {
        return append([&] { return L2VFIB_AddOverlayTunnel(fd_, byte7, &entry); });
    }
    [[nodiscard]] std::error_code del_tunnel(uint32_t byte7, const L2VFIB_OverlayTunnelEntry &entry) noexcept {
        return append([&] { return L2VFIB_DelOverlayTunnel(fd_, byte7, &entry); });
    }
    // The old tunnel's delete, then the new one's add. Retried when busy,
    // both are queued again.
    [[nodiscard]] std::error_code switch_tunnel(uint32_t byte7, const L2VFIB_OverlayTunnelEntry &old_entry,
                                                const L2VFIB_OverlayTunnelEntry &new_entry) noexcept {
        return append([&] { return L2VFIB_SwitchOverlayTunnel(fd_, byte7, &old_entry, &new_entry); });
    }
    // Sent at once.
    [[nodiscard]] std::error_code del_tunnel_if(uint32_t if_index) noexcept {
        return to_error(L2VFIB_SendTunnelIFDel(fd_, if_index));
    }

    // ---- EBG member lists and designated forwarders -----------------------
    // A list is split over as many messages as the batch needs; retried when
    // busy, the whole list is queued again. Lists longer than the C call
    // takes are refused (errc::fail, nothing queued).

    [[nodiscard]] std::error_code add_ebg_members(uint32_t byte7, const L2VFIB_EbgKey &group,
                                                  std::span<const uint32_t> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return L2VFIB_AddEBGMember(fd_, byte7, &group, members.data(),
                                       static_cast<uint16_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code del_ebg_members(uint32_t byte7, const L2VFIB_EbgKey &group,
                                                  std::span<const uint32_t> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return L2VFIB_DelEBGMember(fd_, byte7, &group, members.data(),
                                       static_cast<uint16_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code send_ebg_members(uint32_t byte7, uint32_t opcode, const L2VFIB_EbgKey &group,
                                                   std::span<const uint32_t> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return l2vfib_SendEbgMemberEntry(fd_, byte7, opcode, &group, members.data(),
                                             static_cast<uint16_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code add_mpls_ebg_members(uint32_t byte7, const L2VFIB_MplsEbgKey &group,
                                                       std::span<const L2VFIB_MplsEbgMember> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return L2VFIB_AddMplsEBGMember(fd_, byte7, &group, members.data(),
                                           static_cast<uint16_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code del_mpls_ebg_members(uint32_t byte7, const L2VFIB_MplsEbgKey &group,
                                                       std::span<const L2VFIB_MplsEbgMember> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return L2VFIB_DelMplsEBGMember(fd_, byte7, &group, members.data(),
                                           static_cast<uint32_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code send_mpls_ebg_members(uint32_t byte7, uint32_t opcode,
                                                        const L2VFIB_MplsEbgKey &group,
                                                        std::span<const L2VFIB_MplsEbgMember> members) noexcept {
        if (!detail::fits16(members.size())) return errc::fail;
        return append([&] {
            return l2vfib_SendMplsEbgMemberEntry(fd_, byte7, opcode, &group, members.data(),
                                                 static_cast<uint32_t>(members.size()));
        });
    }
    [[nodiscard]] std::error_code add_ebg_df(uint32_t byte7, const L2VFIB_EbgDfEntry &entry) noexcept {
        return append([&] { return L2VFIB_AddEBGDf(fd_, byte7, &entry); });
    }
    [[nodiscard]] std::error_code del_ebg_df(uint32_t byte7, const L2VFIB_EbgDfEntry &entry) noexcept {
        return append([&] { return L2VFIB_DelEBGDf(fd_, byte7, &entry); });
    }
    [[nodiscard]] std::error_code send_ebg_df(uint32_t byte7, uint32_t opcode,
                                              const L2VFIB_EbgDfEntry &entry) noexcept {
        return append([&] { return l2vfib_SendEbgDfEntry(fd_, byte7, opcode, &entry); });
    }

  private:
    BasicSession(int32_t fd, L2VFIB_MsgCallback *notice = nullptr) noexcept : fd_(fd), notice_(notice) {}

    // A direct entry call. Refused (L2VFIB_ERR_FAIL: its flush for room was
    // refused and nothing was written), a retrying session sends the queue
    // with the waiting flush and makes the call once more. A call refused
    // for its records (a block too long) is refused again, the queue sent.
    template <typename Call>
    std::error_code append(Call call) noexcept {
        if constexpr (OnBusy == Busy::report) {
            return to_error(call());
        } else {
            uint32_t rc = call();
            if (rc == L2VFIB_ERR_FAIL && L2VFIB_FlushEntry(fd_) == L2VFIB_OK) rc = call();
            return to_error(rc);
        }
    }

    int32_t fd_ = -1;
    // The C notice callback the library was opened with (null: none, and
    // the notice slot is not this session's).
    L2VFIB_MsgCallback *notice_ = nullptr;
};

// A session that reports a busy service; one that waits for it and retries.
using Session = BasicSession<Busy::report>;
using RetryingSession = BasicSession<Busy::retry>;

// ---------------------------------------------------------------------------
// The event channel: its own socket, closed when destroyed
// ---------------------------------------------------------------------------

class EventChannel {
  public:
    // Opens a channel to the local node's event service.
    [[nodiscard]] static result<EventChannel> open(uint32_t channel_word) noexcept {
        const int32_t fd = L2VFIB_InitEvent(channel_word);
        if (fd < 0) return errc::fail;
        return EventChannel(fd);
    }

    EventChannel() noexcept = default;  // not open
    EventChannel(const EventChannel &) = delete;
    EventChannel &operator=(const EventChannel &) = delete;
    EventChannel(EventChannel &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    EventChannel &operator=(EventChannel &&other) noexcept {
        if (this != &other) {
            (void)close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~EventChannel() { (void)close(); }

    // Sends the channel's close and closes the socket; the event callback
    // is taken out of the library and dropped. errc::fail when close failed.
    std::error_code close() noexcept {
        if (fd_ < 0) return {};
        const int32_t rc = L2VFIB_FiniEvent(std::exchange(fd_, -1));
        if (!detail::event_slot.empty()) {
            // A registration with no callback removes it; its message, on
            // socket -1, goes nowhere.
            (void)L2VFIB_RegEvent(-1, 0, nullptr, 0, nullptr, 0);
            detail::event_slot.reset();
        }
        return rc == 0 ? std::error_code{} : make_error_code(errc::fail);
    }

    bool is_open() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return is_open(); }
    int32_t socket() const noexcept { return fd_; }

    // Registers for events and makes on_event the process's event callback,
    // called as on_event(tag, record) per event item (record an
    // L2VFIB_EvtRecord2, 3 or 6, valid during the call). Registrations are
    // not answered.
    template <typename F>
    std::error_code reg(uint16_t mask, std::span<const uint32_t, 3> selector, uint32_t param,
                        F &&on_event, uint16_t extra16 = 0) noexcept {
        return reg_(mask, selector.data(), param, std::forward<F>(on_event), extra16);
    }
    // The same with the selector 0xFFFFFFFF, 0, 0.
    template <typename F>
    std::error_code reg(uint16_t mask, uint32_t param, F &&on_event, uint16_t extra16 = 0) noexcept {
        return reg_(mask, nullptr, param, std::forward<F>(on_event), extra16);
    }
    std::error_code dereg(uint16_t mask, uint32_t selector0, uint32_t param) noexcept {
        return to_error(L2VFIB_DeregEvent(fd_, mask, selector0, param));
    }

    // Reads one event datagram without waiting and dispatches its items:
    // errc::no_data when nothing was waiting, otherwise what the last
    // callback returned.
    [[nodiscard]] std::error_code handle() noexcept { return to_error(L2VFIB_HandleEvtMsg(fd_)); }

  private:
    explicit EventChannel(int32_t fd) noexcept : fd_(fd) {}

    template <typename F>
    std::error_code reg_(uint16_t mask, const uint32_t *selector, uint32_t param, F &&on_event,
                         uint16_t extra16) noexcept {
        using D = std::decay_t<F>;
        detail::event_slot.set(std::forward<F>(on_event));
        return to_error(L2VFIB_RegEvent(fd_, mask, selector, param, &detail::event_thunk<D>, extra16));
    }

    int32_t fd_ = -1;
};

}  // namespace l2vfib

#endif /* L2VFIB_HPP */

// A C++20 program built against the installed library through l2vfib.hpp,
// without exceptions or RTTI: with no device to talk to, the face reports
// the documented failures as error codes, and closes what it opened.
#include <l2vfib.hpp>

#include <array>
#include <cstdio>

namespace {

int failures = 0;

void expect(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "consumer_cpp: %s\n", what);
        ++failures;
    }
}

}  // namespace

int main() {
    int notices = 0;
    auto session = l2vfib::Session::open([&notices](uint32_t, uint32_t) { ++notices; });
    expect(session.error() == l2vfib::errc::fail, "open without a service must fail");
    expect(!session->is_open(), "a failed open leaves no session");
    expect(l2vfib::to_error(L2VFIB_FlushEntry(3)) == l2vfib::errc::not_open,
           "flush before open must answer not open");
    expect(l2vfib::check_vlan_range(0x8000, {}) == l2vfib::errc::fail,
           "VLAN range check without data must fail");
    expect(static_cast<bool>(l2vfib::start(0x8000, 1)), "start without a device must fail");
    expect(l2vfib::EventChannel::open(1).error() == l2vfib::errc::fail,
           "an event channel without a device must fail");
    const L2VFIB_LpwEntry pw = {};
    std::array<std::byte, 4> room{};
    expect(l2vfib::encode(pw, room).empty(), "a block into too small a room must be empty");
    expect(l2vfib::to_error(L2VFIB_ERR_NO_DATA).message() == l2vfib_result_name(L2VFIB_ERR_NO_DATA),
           "the category must say what l2vfib_result_name says");
    if (failures == 0) std::puts("consumer_cpp: ok");
    return failures == 0 ? 0 : 1;
}

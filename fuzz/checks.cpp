// The expected outcome of a reply or a notice is worked out here from the
// raw bytes, independently of the library, and compared with what the
// library did.
//
// Reply (length bytes): 11 or fewer, a payloadLen beyond length - 8 (as a
// 16-bit number) or a first item running past the end fail; item 37 gives
// its value as the result; item 184 stores its value in the identifier
// variable and fails; any other item fails.
//
// Notice (the datagram cut to 1400 bytes, n of them): 8 or fewer fail; 9 to
// 11, or a payloadLen beyond n - 8, are malformed; a first item running
// past the end fails; a first item other than 36 is malformed; otherwise
// the callback gets kind 1 and the item's value, exactly once.
//
// A first item shorter than four bytes is the one case where the library
// may refuse or read the value from the zeroed receive area; both are
// accepted, as long as nothing is read outside the message.
#include "checks.h"

#include <climits>
#include <cstring>
#include <memory>

#include "l2vfib.h"
#include "msg/state.h"
#include "platform.h"

namespace {

constexpr size_t kNoticeRoom = L2VFIB_BATCH_SIZE;
constexpr uint32_t kItemNotice = 36;
constexpr uint32_t kItemResult = 37;
constexpr uint32_t kItemIdentifier = 184;

uint32_t Be16(const uint8_t *p) { return (static_cast<uint32_t>(p[0]) << 8) | p[1]; }

uint32_t Be32(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

// The notice callback's view of the current L2VFIB_HandleMsg call.
bool g_inHandle = false;
int g_calls = 0;
uint32_t g_value = 0;

uint32_t OnNotice(uint32_t kind, uint32_t *value) {
    FUZZ_REQUIRE(g_inHandle);
    FUZZ_REQUIRE(kind == 1);
    FUZZ_REQUIRE(value != nullptr);
    ++g_calls;
    g_value = *value;
    // Whatever the callback answers, the handler's result stays its own.
    return L2VFIB_ERR_FAIL;
}

enum class Notice { kFail, kBadMsg, kDeliver, kShortItem };

Notice ExpectNotice(const uint8_t *msg, size_t n) {
    if (n <= 8) return Notice::kFail;
    if (n <= 11) return Notice::kBadMsg;
    if (Be16(msg + 2) > n - 8) return Notice::kBadMsg;
    const uint32_t itemLength = Be16(msg + 10);
    if (itemLength > n - 12) return Notice::kFail;
    if (Be16(msg + 8) != kItemNotice) return Notice::kBadMsg;
    return itemLength < 4 ? Notice::kShortItem : Notice::kDeliver;
}

}  // namespace

namespace fuzzcheck {

void Reply(const uint8_t *data, size_t size) {
    // An exact heap copy: one byte past it is outside any allocation.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
    if (size != 0) std::memcpy(copy.get(), data, size);
    const uint8_t *msg = copy.get();
    const int32_t length = size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);

    // What an identifier would be, and a variable that cannot hold it yet.
    const uint32_t word = length >= 16 ? Be32(msg + 12) : 0;
    const uint32_t untouched = ~word;
    uint32_t out = untouched;
    const uint32_t result = l2vfib_ParseReply(msg, length, &out);
    FUZZ_REQUIRE(l2vfib_ParseReply(msg, length, nullptr) == result);

    uint32_t negative = untouched;
    FUZZ_REQUIRE(l2vfib_ParseReply(msg, -length - 1, &negative) == L2VFIB_ERR_FAIL);
    FUZZ_REQUIRE(negative == untouched);

    if (length <= 11 || Be16(msg + 2) > static_cast<uint16_t>(length - 8) ||
        Be16(msg + 10) > static_cast<uint32_t>(length - 12)) {
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL);
        FUZZ_REQUIRE(out == untouched);
        return;
    }
    const uint32_t type = Be16(msg + 8);
    if (Be16(msg + 10) < 4) {
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL || type == kItemResult);
        FUZZ_REQUIRE(out == untouched || type == kItemIdentifier);
        return;
    }
    if (type == kItemResult) {
        FUZZ_REQUIRE(result == word);
        FUZZ_REQUIRE(out == untouched);
    } else if (type == kItemIdentifier) {
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL);
        FUZZ_REQUIRE(out == word);
    } else {
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL);
        FUZZ_REQUIRE(out == untouched);
    }
}

void Notice(const uint8_t *data, size_t size, bool withCallback) {
    fuzzplat::Reset();
    g_calls = 0;

    // Closed library: the socket is not read and nothing is called.
    fuzzplat::SetDatagram(data, size);
    FUZZ_REQUIRE(l2vfib_Batch == nullptr);
    FUZZ_REQUIRE(L2VFIB_HandleMsg(100) == L2VFIB_ERR_NOT_OPEN);
    FUZZ_REQUIRE(fuzzplat::RecvCalls() == 0);
    FUZZ_REQUIRE(g_calls == 0);

    const int32_t fd = L2VFIB_Open(withCallback ? OnNotice : nullptr);
    FUZZ_REQUIRE(fd >= 0);
    g_inHandle = true;
    const uint32_t result = L2VFIB_HandleMsg(fd);
    g_inHandle = false;
    FUZZ_REQUIRE(fuzzplat::RecvCalls() == 1);
    FUZZ_REQUIRE(!fuzzplat::DatagramPending());
    FUZZ_REQUIRE(L2VFIB_Close(fd) == 0);
    FUZZ_REQUIRE(l2vfib_Batch == nullptr);
    FUZZ_REQUIRE(fuzzplat::OpenSockets() == 0);

    // The bytes the library received, in its zeroed receive area.
    const size_t n = size < kNoticeRoom ? size : kNoticeRoom;
    uint8_t head[16] = {};
    std::memcpy(head, data, n < sizeof head ? n : sizeof head);
    const uint32_t value = Be32(head + 12);

    switch (ExpectNotice(head, n)) {
    case Notice::kFail:
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL);
        FUZZ_REQUIRE(g_calls == 0);
        break;
    case Notice::kBadMsg:
        FUZZ_REQUIRE(result == L2VFIB_ERR_BAD_MSG);
        FUZZ_REQUIRE(g_calls == 0);
        break;
    case Notice::kShortItem:
        FUZZ_REQUIRE(result == L2VFIB_ERR_BAD_MSG || result == L2VFIB_OK);
        if (result == L2VFIB_ERR_BAD_MSG) {
            FUZZ_REQUIRE(g_calls == 0);
            break;
        }
        [[fallthrough]];
    case Notice::kDeliver:
        FUZZ_REQUIRE(result == L2VFIB_OK);
        FUZZ_REQUIRE(g_calls == (withCallback ? 1 : 0));
        if (withCallback) FUZZ_REQUIRE(g_value == value);
        break;
    }
}

}  // namespace fuzzcheck

// Control calls through the device's control-call service.
//
//   code      call          input
//   0x440005  CIOCTL        4 bytes: the caller's value, big-endian  (start)
//   0x440006  CIOCTL_Async  4 bytes: zero                             (stop)
//   0x44000c  CIOCTL        the caller's bytes, unchanged   (VLAN range check)
//
// None needs an open library; each returns the service's result unchanged.
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/wire.h"

namespace {
constexpr uint32_t kStartCode = 0x440005;
constexpr uint32_t kStopCode = 0x440006;
constexpr uint32_t kVlanRangeCode = 0x44000c;
}  // namespace

extern "C" {

L2VFIB_API uint32_t L2VFIB_Start(uint32_t target, uint32_t value) {
    uint8_t input[4] = {};
    l2vfib::PutBe32(input, value);
    return CIOCTL(target, kStartCode, sizeof input, input, 0, nullptr, nullptr);
}

L2VFIB_API uint32_t L2VFIB_Stop(uint32_t target) {
    const uint8_t input[4] = {};
    return CIOCTL_Async(target, kStopCode, sizeof input, input);
}

L2VFIB_API uint32_t L2VFIB_CheckVlanRange(uint32_t target, uint32_t length, const void *data) {
    if (data == nullptr) return L2VFIB_ERR_FAIL;
    return CIOCTL(target, kVlanRangeCode, length, data, 0, nullptr, nullptr);
}

}  // extern "C"

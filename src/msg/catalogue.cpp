// The command catalogue and the message it builds.
//
//   out                      out + 8                          out + room
//   +------------------------+--------------------------------+ - - - +
//   | header (written last)  | payload from the code's encoder|       |
//   | objType, len, 0, op, b7|                                |       |
//   +------------------------+--------------------------------+ - - - +
//
// The header fields belong to the code, not to the encoder: several codes
// share one encoder under other object types or opcodes. A payload of one
// 32-bit number is no encoder's: its row names the item and the argument
// the number is read from. Codes 0, 1, 13 and 14 have neither and are
// refused.
#include "msg/catalogue.h"

#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/wire.h"

using l2vfib::CmdRow;
using l2vfib::Path;

namespace {
constexpr Path F = Path::kFails;
constexpr Path B = Path::kBatched;
constexpr Path A = Path::kAlone;
constexpr Path R = Path::kReply;
}  // namespace

// clang-format off
extern "C" const CmdRow l2vfib_CmdTable[l2vfib::kCmdCount] = {
    //  encoder                      obj  op  b7  path  word item: type, argument
    /*  0 */ {nullptr,                  0,  0, 8, F},
    /*  1 */ {nullptr,                  0,  0, 8, F},
    /*  2 */ {nullptr,                  0,  0, 8, A, { 31, 1}},
    /*  3 */ {nullptr,                  0,  0, 8, A, { 31, 1}},
    /*  4 */ {l2vfib_EncInstanceCfg,    1,  5, 8, R},
    /*  5 */ {l2vfib_EncInstanceCfg,    1,  7, 8, A},
    /*  6 */ {l2vfib_EncInstanceCfg,    1,  6, 8, R},
    /*  7 */ {l2vfib_EncVariantEntry,   4,  1, 8, R},
    /*  8 */ {l2vfib_EncVariantEntry,   4,  2, 8, R},
    /*  9 */ {l2vfib_EncVariantEntry,   4,  6, 8, A},
    /* 10 */ {nullptr,                  0,  0, 8, A, { 31, 1}},
    /* 11 */ {l2vfib_EncInstanceCfg,    2,  6, 8, B},
    /* 12 */ {l2vfib_EncVariantEntry,   5,  1, 8, B},
    /* 13 */ {nullptr,                  0,  0, 8, F},
    /* 14 */ {nullptr,                  0,  0, 8, F},
    /* 15 */ {nullptr,                 13,  1, 8, A, { 44, 1}},
    /* 16 */ {nullptr,                 13,  2, 8, A, { 44, 1}},
    /* 17 */ {l2vfib_EncTlv83,         15,  2, 8, A},
    /* 18 */ {nullptr,                  1,  1, 8, R, {100, 1}},
    /* 19 */ {nullptr,                  1,  2, 8, R, {100, 1}},
    /* 20 */ {nullptr,                  2,  1, 8, B, {100, 1}},
    /* 21 */ {nullptr,                  1, 23, 8, A, { 32, 1}},
    /* 22 */ {l2vfib_EncTlv10,          1, 23, 8, A},
    /* 23 */ {l2vfib_EncTlv20,          6, 23, 8, A},
    /* 24 */ {l2vfib_EncHostEntry,      1,  1, 8, A},
    /* 25 */ {l2vfib_EncHostEntry,      1,  2, 8, A},
    /* 26 */ {nullptr,                  1,  1, 8, R, {102, 2}},
    /* 27 */ {nullptr,                  1,  2, 8, R, {102, 2}},
    /* 28 */ {nullptr,                  2,  1, 8, B, {102, 2}},
    /* 29 */ {l2vfib_EncAddrParam,      1,  5, 8, R},
    /* 30 */ {l2vfib_EncAddrParam,      1,  7, 8, R},
    /* 31 */ {l2vfib_EncAddrParam,      2,  5, 8, B},
    /* 32 */ {l2vfib_EncRangeOrList,    1,  5, 8, A},
    /* 33 */ {l2vfib_EncRangeOrList,    1,  7, 8, A},
    /* 34 */ {l2vfib_EncAddrSet,        1,  5, 8, R},
    /* 35 */ {l2vfib_EncAddrSet,        1,  7, 8, R},
    /* 36 */ {l2vfib_EncAddrSet,        2,  5, 8, B},
    /* 37 */ {nullptr,                  1,  6, 8, A, {140, 2}},
    /* 38 */ {nullptr,                  2,  6, 8, B, {140, 2}},
    /* 39 */ {l2vfib_EncTlv143With142,  1,  6, 8, A},
    /* 40 */ {l2vfib_EncTlv141With142,  2,  2, 8, A},
    /* 41 */ {l2vfib_EncTlv141With142,  2,  1, 8, B},
    /* 42 */ {l2vfib_EncTlv181Mark182, 28,  1, 8, R},
    /* 43 */ {l2vfib_EncTlv181Mark182, 28,  2, 8, A},
    /* 44 */ {l2vfib_EncTlv181Mark183, 28,  1, 8, R},
    /* 45 */ {l2vfib_EncTlv181Mark183, 28,  2, 8, A},
    /* 46 */ {l2vfib_EncTlv180,        28,  6, 8, B},
    /* 47 */ {l2vfib_EncTlv145With146,  1,  1, 8, A},
    /* 48 */ {l2vfib_EncTlv145With146,  1,  2, 8, A},
    /* 49 */ {l2vfib_EncTlv145With146,  2,  1, 8, B},
    /* 50 */ {l2vfib_EncAcInfo,        22,  5, 8, R},
    /* 51 */ {l2vfib_EncAcInfo,        22,  7, 8, R},
    /* 52 */ {l2vfib_EncMacEntry,      21,  5, 8, R},
    /* 53 */ {l2vfib_EncMacEntry,      21,  7, 8, R},
    /* 54 */ {l2vfib_EncTlv184,        29,  5, 8, A},
    /* 55 */ {l2vfib_EncTlv184,        29,  7, 8, A},
    /* 56 */ {nullptr,                  1,  6, 8, A, {185, 2}},
    /* 57 */ {nullptr,                  2,  6, 8, B, {185, 2}},
    /* 58 */ {l2vfib_EncTlv181Mark186, 28,  1, 8, A},
    /* 59 */ {l2vfib_EncTlv181Mark186, 28,  2, 8, A},
    /* 60 */ {l2vfib_EncAddrTriple,    30,  5, 8, R},
    /* 61 */ {l2vfib_EncTlv105,         1,  1, 8, A},
    /* 62 */ {l2vfib_EncTlv105,         1,  2, 8, A},
    /* 63 */ {l2vfib_EncTlv105,         2,  1, 8, B},
    /* 64 */ {nullptr,                  1,  6, 8, A, {189, 2}},
    /* 65 */ {nullptr,                  2,  6, 8, B, {190, 2}},
    /* 66 */ {l2vfib_EncTlv201,        33,  5, 8, A},
    /* 67 */ {l2vfib_EncTlv201,        33,  7, 8, A},
    /* 68 */ {nullptr,                 36,  5, 8, A, {215, 2}},
    /* 69 */ {l2vfib_EncVariantEntry,  37,  1, 8, A},
    /* 70 */ {l2vfib_EncVariantEntry,  37,  2, 8, A},
    /* 71 */ {l2vfib_EncTlv106,         1,  1, 8, A},
    /* 72 */ {l2vfib_EncTlv106,         1,  2, 8, A},
    /* 73 */ {l2vfib_EncTlv106,         2,  1, 8, B},
    /* 74 */ {nullptr,                  1,  6, 8, A, {217, 2}},
    /* 75 */ {nullptr,                  1,  6, 8, A, {230, 2}},
    /* 76 */ {l2vfib_EncTlv218,        39,  5, 8, A},
    /* 77 */ {l2vfib_EncTlv234,         1,  6, 8, A},
    /* 78 */ {l2vfib_EncAddrFill,      40,  5, 8, A},
    /* 79 */ {l2vfib_EncAddrFill,      40,  7, 8, A},
    /* 80 */ {l2vfib_EncTlv70,         14, 23, 5, A},
    /* 81 */ {l2vfib_EncTlv235,        42,  6, 8, R},
    /* 82 */ {l2vfib_EncTlv236,        41,  5, 8, R},
    /* 83 */ {l2vfib_EncTlv236,        41,  7, 8, R},
    /* 84 */ {l2vfib_EncTlv236,        41,  5, 8, B},
    /* 85 */ {l2vfib_EncTlv235,        42,  6, 8, B},
    /* 86 */ {nullptr,                 43,  1, 8, R, {237, 2}},
    /* 87 */ {nullptr,                 43,  2, 8, R, {237, 2}},
    /* 88 */ {nullptr,                 43,  1, 8, B, {237, 2}},
    /* 89 */ {l2vfib_EncTlv238,         1,  6, 8, A},
    /* 90 */ {l2vfib_EncTlv238,         2,  6, 8, B},
    /* 91 */ {l2vfib_EncTlv239With146,  1,  6, 8, R},
};
// clang-format on

namespace l2vfib {

uint16_t EncodeWord(const CmdRow &row, const void *arg1, const void *arg2, uint16_t room,
                    uint8_t *out) {
    const void *record = WordRecord(row, arg1, arg2);
    if (row.word.type == 0 || record == nullptr || room < kWordPayload) return 0;
    PutBe32(out + kItemHead, Load<uint32_t>(record));
    return static_cast<uint16_t>(STLV_Set(out, room, row.word.type, 4, nullptr));
}

}  // namespace l2vfib

extern "C" uint16_t l2vfib_EncodeCmd(L2VFIB_CmdId cmd, const void *arg1, const void *arg2,
                                     uint16_t room, uint8_t *out) {
    return l2vfib::EncodeRow(l2vfib::FindCmd(cmd), arg1, arg2, room, out);
}

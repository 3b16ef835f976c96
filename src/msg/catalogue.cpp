// The command catalogue and the message it builds.
//
//   out                      out + 8                          out + room
//   +------------------------+--------------------------------+ - - - +
//   | header (written last)  | payload from the code's encoder|       |
//   | objType, len, 0, op, b7|                                |       |
//   +------------------------+--------------------------------+ - - - +
//
// The header fields belong to the code, not to the encoder: several codes
// share one encoder under other object types or opcodes. Codes 0, 1, 13
// and 14 have no encoder and are refused.
#include "msg/catalogue.h"

#include "msg/head.h"

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
    //  encoder                      obj  op  b7  path
    /*  0 */ {nullptr,                  0,  0, 8, F},
    /*  1 */ {nullptr,                  0,  0, 8, F},
    /*  2 */ {l2vfib_EncTlv31,          0,  0, 8, A},
    /*  3 */ {l2vfib_EncTlv31,          0,  0, 8, A},
    /*  4 */ {l2vfib_EncInstanceCfg,    1,  5, 8, R},
    /*  5 */ {l2vfib_EncInstanceCfg,    1,  7, 8, A},
    /*  6 */ {l2vfib_EncInstanceCfg,    1,  6, 8, R},
    /*  7 */ {l2vfib_EncVariantEntry,   4,  1, 8, R},
    /*  8 */ {l2vfib_EncVariantEntry,   4,  2, 8, R},
    /*  9 */ {l2vfib_EncVariantEntry,   4,  6, 8, A},
    /* 10 */ {l2vfib_EncTlv31,          0,  0, 8, A},
    /* 11 */ {l2vfib_EncInstanceCfg,    2,  6, 8, B},
    /* 12 */ {l2vfib_EncVariantEntry,   5,  1, 8, B},
    /* 13 */ {nullptr,                  0,  0, 8, F},
    /* 14 */ {nullptr,                  0,  0, 8, F},
    /* 15 */ {l2vfib_EncTlv44,         13,  1, 8, A},
    /* 16 */ {l2vfib_EncTlv44,         13,  2, 8, A},
    /* 17 */ {l2vfib_EncTlv83,         15,  2, 8, A},
    /* 18 */ {l2vfib_EncTlv100,         1,  1, 8, R},
    /* 19 */ {l2vfib_EncTlv100,         1,  2, 8, R},
    /* 20 */ {l2vfib_EncTlv100,         2,  1, 8, B},
    /* 21 */ {l2vfib_EncTlv32,          1, 23, 8, A},
    /* 22 */ {l2vfib_EncTlv10,          1, 23, 8, A},
    /* 23 */ {l2vfib_EncTlv20,          6, 23, 8, A},
    /* 24 */ {l2vfib_EncHostEntry,      1,  1, 8, A},
    /* 25 */ {l2vfib_EncHostEntry,      1,  2, 8, A},
    /* 26 */ {l2vfib_EncTlv102,         1,  1, 8, R},
    /* 27 */ {l2vfib_EncTlv102,         1,  2, 8, R},
    /* 28 */ {l2vfib_EncTlv102,         2,  1, 8, B},
    /* 29 */ {l2vfib_EncAddrParam,      1,  5, 8, R},
    /* 30 */ {l2vfib_EncAddrParam,      1,  7, 8, R},
    /* 31 */ {l2vfib_EncAddrParam,      2,  5, 8, B},
    /* 32 */ {l2vfib_EncRangeOrList,    1,  5, 8, A},
    /* 33 */ {l2vfib_EncRangeOrList,    1,  7, 8, A},
    /* 34 */ {l2vfib_EncAddrSet,        1,  5, 8, R},
    /* 35 */ {l2vfib_EncAddrSet,        1,  7, 8, R},
    /* 36 */ {l2vfib_EncAddrSet,        2,  5, 8, B},
    /* 37 */ {l2vfib_EncTlv140,         1,  6, 8, A},
    /* 38 */ {l2vfib_EncTlv140,         2,  6, 8, B},
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
    /* 56 */ {l2vfib_EncTlv185,         1,  6, 8, A},
    /* 57 */ {l2vfib_EncTlv185,         2,  6, 8, B},
    /* 58 */ {l2vfib_EncTlv181Mark186, 28,  1, 8, A},
    /* 59 */ {l2vfib_EncTlv181Mark186, 28,  2, 8, A},
    /* 60 */ {l2vfib_EncAddrTriple,    30,  5, 8, R},
    /* 61 */ {l2vfib_EncTlv105,         1,  1, 8, A},
    /* 62 */ {l2vfib_EncTlv105,         1,  2, 8, A},
    /* 63 */ {l2vfib_EncTlv105,         2,  1, 8, B},
    /* 64 */ {l2vfib_EncTlv189,         1,  6, 8, A},
    /* 65 */ {l2vfib_EncTlv190,         2,  6, 8, B},
    /* 66 */ {l2vfib_EncTlv201,        33,  5, 8, A},
    /* 67 */ {l2vfib_EncTlv201,        33,  7, 8, A},
    /* 68 */ {l2vfib_EncTlv215,        36,  5, 8, A},
    /* 69 */ {l2vfib_EncVariantEntry,  37,  1, 8, A},
    /* 70 */ {l2vfib_EncVariantEntry,  37,  2, 8, A},
    /* 71 */ {l2vfib_EncTlv106,         1,  1, 8, A},
    /* 72 */ {l2vfib_EncTlv106,         1,  2, 8, A},
    /* 73 */ {l2vfib_EncTlv106,         2,  1, 8, B},
    /* 74 */ {l2vfib_EncTlv217,         1,  6, 8, A},
    /* 75 */ {l2vfib_EncTlv230,         1,  6, 8, A},
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
    /* 86 */ {l2vfib_EncTlv237,        43,  1, 8, R},
    /* 87 */ {l2vfib_EncTlv237,        43,  2, 8, R},
    /* 88 */ {l2vfib_EncTlv237,        43,  1, 8, B},
    /* 89 */ {l2vfib_EncTlv238,         1,  6, 8, A},
    /* 90 */ {l2vfib_EncTlv238,         2,  6, 8, B},
    /* 91 */ {l2vfib_EncTlv239With146,  1,  6, 8, R},
};
// clang-format on

extern "C" uint16_t l2vfib_EncodeCmd(L2VFIB_CmdId cmd, const void *arg1, const void *arg2,
                                     uint16_t room, uint8_t *out) {
    return l2vfib::EncodeRow(l2vfib::FindCmd(cmd), arg1, arg2, room, out);
}

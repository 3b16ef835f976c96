// The command catalogue and the message it builds.
//
//   out                      out + 8                          out + room
//   +------------------------+--------------------------------+ - - - +
//   | header (written last)  | payload from the code's encoder|       |
//   | objType, len, 0, op, b7|                                |       |
//   +------------------------+--------------------------------+ - - - +
//
// The header fields belong to the code, not to the encoder: several codes
// share one encoder under other object types or opcodes. Codes whose rows
// have no encoder yet are refused like codes 0, 1, 13 and 14.
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
    /*  4 */ {nullptr,                  1,  5, 8, R},  // instance configuration
    /*  5 */ {nullptr,                  1,  7, 8, A},  // instance configuration
    /*  6 */ {nullptr,                  1,  6, 8, R},  // instance configuration
    /*  7 */ {nullptr,                  4,  1, 8, R},  // variant entry
    /*  8 */ {nullptr,                  4,  2, 8, R},  // variant entry
    /*  9 */ {nullptr,                  4,  6, 8, A},  // variant entry
    /* 10 */ {l2vfib_EncTlv31,          0,  0, 8, A},
    /* 11 */ {nullptr,                  2,  6, 8, B},  // instance configuration
    /* 12 */ {nullptr,                  5,  1, 8, B},  // variant entry
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
    /* 24 */ {nullptr,                  1,  1, 8, A},  // host entry
    /* 25 */ {nullptr,                  1,  2, 8, A},  // host entry
    /* 26 */ {l2vfib_EncTlv102,         1,  1, 8, R},
    /* 27 */ {l2vfib_EncTlv102,         1,  2, 8, R},
    /* 28 */ {l2vfib_EncTlv102,         2,  1, 8, B},
    /* 29 */ {nullptr,                  1,  5, 8, R},  // address parameter
    /* 30 */ {nullptr,                  1,  7, 8, R},  // address parameter
    /* 31 */ {nullptr,                  2,  5, 8, B},  // address parameter
    /* 32 */ {nullptr,                  1,  5, 8, A},  // range or list
    /* 33 */ {nullptr,                  1,  7, 8, A},  // range or list
    /* 34 */ {nullptr,                  1,  5, 8, R},  // address set
    /* 35 */ {nullptr,                  1,  7, 8, R},  // address set
    /* 36 */ {nullptr,                  2,  5, 8, B},  // address set
    /* 37 */ {l2vfib_EncTlv140,         1,  6, 8, A},
    /* 38 */ {l2vfib_EncTlv140,         2,  6, 8, B},
    /* 39 */ {l2vfib_EncTlv143With142,  1,  6, 8, A},
    /* 40 */ {nullptr,                  2,  2, 8, A},  // TLV 141 record + TLV 142
    /* 41 */ {nullptr,                  2,  1, 8, B},  // TLV 141 record + TLV 142
    /* 42 */ {l2vfib_EncTlv181Mark182, 28,  1, 8, R},
    /* 43 */ {l2vfib_EncTlv181Mark182, 28,  2, 8, A},
    /* 44 */ {l2vfib_EncTlv181Mark183, 28,  1, 8, R},
    /* 45 */ {l2vfib_EncTlv181Mark183, 28,  2, 8, A},
    /* 46 */ {l2vfib_EncTlv180,        28,  6, 8, B},
    /* 47 */ {nullptr,                  1,  1, 8, A},  // TLV 145 record + TLV 146
    /* 48 */ {nullptr,                  1,  2, 8, A},  // TLV 145 record + TLV 146
    /* 49 */ {nullptr,                  2,  1, 8, B},  // TLV 145 record + TLV 146
    /* 50 */ {nullptr,                 22,  5, 8, R},  // attachment-circuit info
    /* 51 */ {nullptr,                 22,  7, 8, R},  // attachment-circuit info
    /* 52 */ {nullptr,                 21,  5, 8, R},  // MAC entry
    /* 53 */ {nullptr,                 21,  7, 8, R},  // MAC entry
    /* 54 */ {nullptr,                 29,  5, 8, A},  // TLV 184 word triple
    /* 55 */ {nullptr,                 29,  7, 8, A},  // TLV 184 word triple
    /* 56 */ {l2vfib_EncTlv185,         1,  6, 8, A},
    /* 57 */ {l2vfib_EncTlv185,         2,  6, 8, B},
    /* 58 */ {l2vfib_EncTlv181Mark186, 28,  1, 8, A},
    /* 59 */ {l2vfib_EncTlv181Mark186, 28,  2, 8, A},
    /* 60 */ {nullptr,                 30,  5, 8, R},  // address triple
    /* 61 */ {l2vfib_EncTlv105,         1,  1, 8, A},
    /* 62 */ {l2vfib_EncTlv105,         1,  2, 8, A},
    /* 63 */ {l2vfib_EncTlv105,         2,  1, 8, B},
    /* 64 */ {l2vfib_EncTlv189,         1,  6, 8, A},
    /* 65 */ {l2vfib_EncTlv190,         2,  6, 8, B},
    /* 66 */ {nullptr,                 33,  5, 8, A},  // TLV 201 data entry
    /* 67 */ {nullptr,                 33,  7, 8, A},  // TLV 201 data entry
    /* 68 */ {l2vfib_EncTlv215,        36,  5, 8, A},
    /* 69 */ {nullptr,                 37,  1, 8, A},  // variant entry
    /* 70 */ {nullptr,                 37,  2, 8, A},  // variant entry
    /* 71 */ {l2vfib_EncTlv106,         1,  1, 8, A},
    /* 72 */ {l2vfib_EncTlv106,         1,  2, 8, A},
    /* 73 */ {l2vfib_EncTlv106,         2,  1, 8, B},
    /* 74 */ {l2vfib_EncTlv217,         1,  6, 8, A},
    /* 75 */ {l2vfib_EncTlv230,         1,  6, 8, A},
    /* 76 */ {l2vfib_EncTlv218,        39,  5, 8, A},
    /* 77 */ {l2vfib_EncTlv234,         1,  6, 8, A},
    /* 78 */ {nullptr,                 40,  5, 8, A},  // address with fill
    /* 79 */ {nullptr,                 40,  7, 8, A},  // address with fill
    /* 80 */ {l2vfib_EncTlv70,         14, 23, 5, A},
    /* 81 */ {l2vfib_EncTlv235,        42,  6, 8, R},
    /* 82 */ {nullptr,                 41,  5, 8, R},  // TLV 236 words and half
    /* 83 */ {nullptr,                 41,  7, 8, R},  // TLV 236 words and half
    /* 84 */ {nullptr,                 41,  5, 8, B},  // TLV 236 words and half
    /* 85 */ {l2vfib_EncTlv235,        42,  6, 8, B},
    /* 86 */ {l2vfib_EncTlv237,        43,  1, 8, R},
    /* 87 */ {l2vfib_EncTlv237,        43,  2, 8, R},
    /* 88 */ {l2vfib_EncTlv237,        43,  1, 8, B},
    /* 89 */ {l2vfib_EncTlv238,         1,  6, 8, A},
    /* 90 */ {l2vfib_EncTlv238,         2,  6, 8, B},
    /* 91 */ {nullptr,                  1,  6, 8, R},  // TLV 239 record + TLV 146
};
// clang-format on

extern "C" uint16_t l2vfib_EncodeCmd(L2VFIB_CmdId cmd, const void *arg1, const void *arg2,
                                     uint16_t room, uint8_t *out) {
    if (room <= 7 || cmd >= l2vfib::kCmdCount) return 0;
    const CmdRow &row = l2vfib_CmdTable[cmd];
    if (row.encoder == nullptr) return 0;
    const uint16_t payload =
        row.encoder(arg1, arg2, static_cast<uint16_t>(room - l2vfib::kHeadSize),
                    out + l2vfib::kHeadSize);
    if (payload == 0) return 0;
    L2VFIB_MsgHead head{};
    l2vfib_FillMsgHead(row.objType, payload, row.opcode, row.byte7, &head);
    l2vfib::WriteMsgHead(head, out);
    return static_cast<uint16_t>(payload + l2vfib::kHeadSize);
}

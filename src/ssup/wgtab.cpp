// The opcode table of the intermediate code: operand bytes, code size
// estimate and worst case, and what each instruction reads, writes and
// allows. The worst cases bound the code of one instruction including one
// later write-back of the object it leaves in a register; the generator
// checks every instruction against its row.
#include "ssup/vgint.h"

namespace vrta {

namespace {

constexpr unsigned A2 = IF_RA | IF_RB | IF_WR;          // r = a op b
constexpr unsigned A1 = IF_RA | IF_WR;                  // r = op a
constexpr unsigned CB2 = IF_RLAB | IF_RA | IF_RB;       // branch to r on a, b
constexpr unsigned CB1 = IF_RLAB | IF_RA;               // branch to r on a

constexpr IINFO I(int oplen, int est, int worst, unsigned flags) {
    return IINFO{static_cast<unsigned short>(oplen), static_cast<unsigned short>(est), static_cast<unsigned>(worst), flags, 0};
}

}  // namespace

const IINFO iinfo[WG_NOPCODES] = {
    I(0, 0, 0, 0),                                              // INVALID
    I(24, 288, 288, IF_TNUM | IF_T128 | A2 | IF_OVFL),          // ADD_
    I(24, 112, 112, IF_TINT | IF_T128 | A2),                    // ADDR_
    I(24, 96, 256, IF_TNUM | A2),                               // AND_
    I(24, 120, 336, IF_TNUM | CB2),                             // BEQ_
    I(16, 64, 192, IF_TNUM | CB1),                              // BF_
    I(24, 120, 336, IF_TNUM | CB2),                             // BGE_
    I(24, 120, 336, IF_TNUM | CB2),                             // BGT_
    I(16, 64, 160, IF_TINT | IF_RA | IF_BLOCK),                 // BI_
    I(24, 120, 336, IF_TNUM | CB2),                             // BLE_
    I(24, 120, 336, IF_TNUM | CB2),                             // BLT_
    I(24, 120, 336, IF_TNUM | CB2),                             // BNE_
    I(8, 5, 16, IF_TANY | IF_RLAB | IF_BLOCK),                  // BR_
    I(16, 48, 96, IF_TANY | IF_RA),                             // BREAK_
    I(16, 64, 192, IF_TNUM | CB1),                              // BT_
    I(8, 80, 160, IF_T128 | IF_RR | IF_WR | IF_P2 | IF_CALL),   // CAT_
    I(16, 32, 96, IF_T32 | A1),                                 // CVD_
    I(16, 48, 128, IF_T16 | IF_T256 | A1),                      // CVL_
    I(24, 160, 496, IF_TNUM | A2),                              // DIV_
    I(24, 64, 256, IF_TNUM | A2),                               // EQ_
    I(24, 160, 496, IF_TNUM | A2),                              // EXP_
    I(16, 96, 224, IF_TNUM | IF_RA | IF_WR | IF_CALL),          // FUNC_
    I(24, 64, 256, IF_TNUM | A2),                               // GE_
    I(24, 64, 256, IF_TNUM | A2),                               // GT_
    I(8, 0, 0, IF_TANY),                                        // LABEL_
    I(24, 64, 256, IF_TNUM | A2),                               // LE_
    I(8, 64, 128, IF_TANY | IF_RLAB),                           // LINK_
    I(24, 64, 256, IF_TNUM | A2),                               // LT_
    I(24, 96, 288, IF_TNUM | A2),                               // MAX_
    I(24, 96, 288, IF_TNUM | A2),                               // MIN_
    I(16, 48, 128, IF_TNUM | A1),                               // MISS_
    I(24, 32, 224, IF_TNUM | IF_T128 | A1 | IF_ALAB),           // MOV_
    I(24, 160, 288, IF_TNUM | A2 | IF_OVFL),                    // MUL_
    I(16, 48, 160, IF_TNUM | A1 | IF_OVFL),                     // NEG_
    I(24, 64, 256, IF_TNUM | A2),                               // NE_
    I(16, 48, 160, IF_TNUM | A1),                               // NOT_
    I(16, 0, 0, IF_TANY),                                       // OPID_
    I(24, 96, 256, IF_TNUM | A2),                               // OR_
    I(16, 0, 0, IF_TNUM | IF_RA),                               // PARM_
    I(16, 48, 96, IF_TANY | IF_RA | IF_BLOCK),                  // RET_
    I(16, 64, 128, IF_T128 | IF_RA | IF_P1),                    // SMEAR_
    I(16, 0, 0, IF_TANY),                                       // STMTID_
    I(24, 64, 288, IF_TNUM | IF_T128 | A2 | IF_OVFL),           // SUB_
    I(24, 128, 352, IF_TNUM | A2),                              // SUM_
    I(16, 48, 192, IF_TANY | IF_RR),                            // TERM_
    I(8, 6, 16, IF_TANY | IF_RLAB),                             // BFOVFL_
    I(8, 6, 16, IF_TANY | IF_RLAB),                             // BTOVFL_
    I(16, 48, 128, IF_T16 | IF_T256 | A1),                      // CVI_
    I(24, 0, 0, IF_TANY),                                       // IPARM_
    I(0, 64, 416, IF_T32 | IF_T128 | IF_P2),                    // MOVEGEN_
    I(16, 80, 160, IF_T32 | IF_T128 | IF_WR | IF_P2 | IF_CALL), // CMPGEN_
    I(8, 80, 160, IF_T32 | IF_WR | IF_P1 | IF_CALL),            // CVB_
    I(16, 80, 160, IF_T32 | IF_RA | IF_P1 | IF_CALL),           // CVS_
    I(24, 32, 96, IF_TINT | A2),                                // ANDB_
    I(24, 32, 96, IF_TINT | A2),                                // ORB_
    I(24, 32, 96, IF_TINT | A2),                                // XORB_
    I(24, 64, 192, IF_TINT | CB2),                              // BTM_
    I(24, 64, 192, IF_TINT | CB2),                              // BFM_
    I(24, 160, 496, IF_TNUM | A2),                              // MOD_
    I(24, 120, 352, IF_T2 | IF_T32 | IF_T128 | IF_P2 | IF_CALL),// TRANS_
    I(0, 48, 96, IF_TANY),                                      // RESET_
    I(0, 8, 16, IF_TANY),                                       // ALIGN_
    I(16, 0, 0, IF_TANY | IF_RA),                               // DROP_
    I(0, 16, 32, IF_TANY),                                      // MARK_
    I(16, 80, 160, IF_T128 | IF_RA | IF_P1 | IF_CALL),          // PAD_
    I(24, 32, 112, IF_TINT | IF_T128 | A2),                     // PTRDIF_
    I(16, 48, 192, IF_TNUM | CB1),                              // BFMISS_
    I(16, 48, 192, IF_TNUM | CB1),                              // BTMISS_
};

const char opname[WG_NOPCODES][10] = {
    "INVALID  ", "ADD_     ", "ADDR_    ", "AND_     ", "BEQ_     ", "BF_      ", "BGE_     ", "BGT_     ",
    "BI_      ", "BLE_     ", "BLT_     ", "BNE_     ", "BR_      ", "BREAK_   ", "BT_      ", "CAT_     ",
    "CVD_     ", "CVL_     ", "DIV_     ", "EQ_      ", "EXP_     ", "FUNC_    ", "GE_      ", "GT_      ",
    "LABEL_   ", "LE_      ", "LINK_    ", "LT_      ", "MAX_     ", "MIN_     ", "MISS_    ", "MOV_     ",
    "MUL_     ", "NEG_     ", "NE_      ", "NOT_     ", "OPID_    ", "OR_      ", "PARM_    ", "RET_     ",
    "SMEAR_   ", "STMTID_  ", "SUB_     ", "SUM_     ", "TERM_    ", "BFOVFL_  ", "BTOVFL_  ", "CVI_     ",
    "IPARM_   ", "MOVEGEN_ ", "CMPGEN_  ", "CVB_     ", "CVS_     ", "ANDB_    ", "ORB_     ", "XORB_    ",
    "BTM_     ", "BFM_     ", "MOD_     ", "TRANS_   ", "RESET_   ", "ALIGN_   ", "DROP_    ", "MARK_    ",
    "PAD_     ", "PTRDIF_  ", "BFMISS_  ", "BTMISS_  ",
};

}  // namespace vrta

// The x86-64 assembler of the code generator: an instruction table, an
// encoder driven by it, and the decoder that debug dumps and tests use to
// read machine code back into the same records.
#pragma once
#include <cstdint>

namespace vrta {

struct VGSEGHD;

// Registers: 0 to 15 the general registers in the machine's numbering, 32 up
// the XMM registers, 64 the condition flags.
enum : int {
    RAX = 0, RCX, RDX, RBX, RSP, RBP, RSI, RDI, R8, R9, R10, R11, R12, R13, R14, R15,
    XMM0 = 32, XMM1, XMM2, XMM3, XMM4, XMM5, XMM6, XMM7, XMM8, XMM9, XMM10, XMM11, XMM12, XMM13, XMM14, XMM15,
    VGFLAGS = 64,
    VG_NREGS = 66,
    VG_RIP = 16,  // base of an operand addressed relative to the next instruction
};

// Condition codes in the machine's numbering.
enum : int { CC_O = 0, CC_NO, CC_B, CC_AE, CC_E, CC_NE, CC_BE, CC_A, CC_S, CC_NS, CC_P, CC_NP, CC_L, CC_GE, CC_LE, CC_G };

// How the operands of a table row encode.
enum : unsigned char {
    IC_UNUSED = 0,
    IC_NONE,    // opcode bytes only
    IC_ALU,     // op1 r<-r/m, op2 r/m<-r, op3 the /digit of the 83/81 immediate forms
    IC_MOV,     // 8B, 89, C7 /0, B8+r, A1/A3 with a 64-bit address
    IC_TEST,    // 85, F7 /0
    IC_UNARY,   // op1 /op3 on r/m
    IC_IMUL,    // 0F AF, 6B, 69
    IC_LEA,
    IC_SHIFT,   // C1 /op3 ib
    IC_PUSH,    // op1+r
    IC_CALL,    // E8 cd or FF /2
    IC_JMP,     // EB cb, E9 cd or FF /4
    IC_JCC,     // 70+cc cb or 0F 80+cc cd
    IC_SETCC,   // 0F 90+cc /0
    IC_CMOV,    // 0F 40+cc
    IC_BT,      // 0F BA /op3 ib
    IC_MOVZX,   // 0F B6, byte source
    IC_BSWAP,   // 0F C8+r
    IC_SSE,     // op1 prefix (0 none), 0F, op3: xmm <- xmm/m
    IC_MOVSD,   // F2 0F 10 load, 11 store
    IC_CVTI,    // F2 REX.W 0F op3: xmm <- r/m64
    IC_CVTX,    // F2 REX.W 0F op3: r64 <- xmm/m64
    IC_MOVQ,    // 66 REX.W 0F 6E xmm <- r/m64, 7E r/m64 <- xmm
    IC_MXCSR,   // 0F AE /op3 on m32
    IC_XCHG,    // 87 /r
};

struct INSTINFO {
    const char* name;
    unsigned char num_op;
    unsigned char op1, op2, op3;
    unsigned char inst_case;
    // Scheduling columns: kept for the dumps; no decision here reads them.
    unsigned char latency, thruput, pipe, overlap, pair;
    unsigned int flags;
};
constexpr unsigned IN_REP = 0x1;   // the F3 prefix is part of the instruction
constexpr unsigned IN_W = 0x2;     // always 64-bit (REX.W)
constexpr unsigned IN_NOW = 0x4;   // never REX.W (CALL, JMP, PUSH, LDMXCSR)

constexpr int VG_NINSTS = 401;
extern const INSTINFO (&insts)[VG_NINSTS];

// Rows of insts.
enum : short {
    I_ADD = 6, I_AND = 7, I_BSWAP = 11, I_BT = 12, I_BTC = 13, I_BTR = 14, I_BTS = 15, I_CALL = 17, I_CMOV = 24,
    I_CMP = 25, I_CQO = 29, I_DEC = 32, I_IDIV = 36, I_IMUL = 37, I_INC = 39, I_JCC = 48, I_JMP = 51, I_LEA = 62,
    I_MOV = 75, I_MOVS = 76, I_MOVZX = 79, I_MUL = 80, I_NEG = 81, I_NOP = 82, I_NOT = 83, I_OR = 84, I_POP = 87,
    I_PUSH = 90, I_RET = 103, I_SAR = 109, I_SETCC = 112, I_SHL = 114, I_SHR = 116, I_STOS = 124, I_SUB = 126,
    I_TEST = 127, I_XCHG = 134, I_XOR = 136,
    I_ADDSD = 160, I_ANDPD = 163, I_COMISD = 190, I_CVTSD2SI = 200, I_CVTSI2SD = 202, I_CVTTSD2SI = 206,
    I_DIVSD = 220, I_LDMXCSR = 250, I_MAXSD = 260, I_MINSD = 265, I_MOVAPD = 285, I_MOVQ = 295, I_MOVSD = 299,
    I_MULSD = 310, I_SQRTSD = 345, I_STMXCSR = 350, I_SUBSD = 355, I_UCOMISD = 370, I_XORPD = 395,
};

// Operand kinds.
enum : char { OT_NONE = 0, OT_R, OT_X, OT_M, OT_I, OT_A, OT_L };

struct OPERAND {
    char type;
    char reg;                // register, or the base of a memory operand (VG_RIP: relative)
    unsigned char mod_r_m;   // as encoded; filled by gencode and by the decoder
    unsigned char sib;       // 0x80 | index register for [base + index]; 0 none
};

struct REL;

struct INST {
    short opcode;            // row of insts
    short rel_type;          // branch kind, for the branch records
    int flags;
    OPERAND source, dest;
    int add_disp;            // displacement of the memory operand
    REL* rel;
    union {
        long imm;            // immediate, absolute address, or branch displacement
        double dbl;
    } d;
};
// INST flags.
constexpr int INSTF_CC = 0x0f;       // condition code of JCC, SETCC, CMOV
constexpr int INSTF_W32 = 0x100;     // 32-bit operation (no REX.W)
constexpr int INSTF_SHORT = 0x200;   // 8-bit branch displacement
constexpr int INSTF_STORE = 0x400;   // MOVSD, MOVQ: to r/m

// A place to patch once code sizes are known.
struct REL {
    REL* link;
    int type;        // 0 JMP, 1 Jcc, 3 CALL, 4 LEA of an address
    int offset;      // where the instruction starts, from the code's start
    long ref;        // the label's index
    int relflag;     // INSTF_SHORT when space was kept for the short form; cc
    int regmask;     // kind 4: the register loaded
};

// Encodes count instructions at out; returns the bytes written. A form the
// table does not have is an assertion of the session (s may be null in tests:
// then -1 is returned).
int gencode(VGSEGHD* s, const INST* inst, int count, unsigned char* out);
// Reads one instruction; returns its length, or -1 when it is none of ours.
int vgdecode(const unsigned char* p, int avail, INST* out);
// One instruction as text; returns its length, or -1.
int disasm(const unsigned char* p, int avail, char* text, int textlen);
void printimm(char* text, int textlen, long v);
void print_mem_type(char* text, int textlen, const INST* in, const OPERAND* op);

inline OPERAND opr(int reg) { return OPERAND{OT_R, static_cast<char>(reg), 0, 0}; }
inline OPERAND opx(int reg) { return OPERAND{OT_X, static_cast<char>(reg - XMM0), 0, 0}; }
inline OPERAND opm(int base) { return OPERAND{OT_M, static_cast<char>(base), 0, 0}; }
inline OPERAND opmi(int base, int index) { return OPERAND{OT_M, static_cast<char>(base), 0, static_cast<unsigned char>(0x80 | index)}; }
inline OPERAND opi() { return OPERAND{OT_I, 0, 0, 0}; }

}  // namespace vrta

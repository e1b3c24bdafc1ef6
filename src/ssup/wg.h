// The run-time code generator: a session collects data objects and
// intermediate instructions, binds them into machine code once, and the
// caller then runs that code as often as it likes (once per row or once per
// block of rows). docs/codegen.md describes the instruction set.
#pragma once
#include <csetjmp>
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

struct VGSEGHD;
struct VGGCB;

// Object handle: offset in a data segment, segment number from bit 59 up.
using objloc = unsigned long;
constexpr int WG_SEGSHIFT = 59;
constexpr objloc WG_CONSTSEG = 1ul << WG_SEGSHIFT;  // bit of the constant segment

// Generated code: returns the value of TERM_ or RET_, or a stop result.
using WGFAST = long (*)();

// The application's exception function: cause 1 overflow, 2 division by zero,
// 4 a trap outside generated code, 5 anything else. Returns 0 to go on with
// *result as the instruction's result, a positive value to stop the run with
// it, -1 to give up (the trap then ends through hsabort), or another negative
// value to go on at *resume, a label address taken as data.
using WGEXCEPT = int (*)(int cause, double* result, jmp_buf** jmp, void** resume);

// Sizes a caller may preset, in instructions or records.
struct WG_INFO {
    long icodes;    // instructions in the first block of intermediate code
    long stmtids;
    long segis;     // initialisation records in the first block
    long segsize;
    long labels;
    long movegens;
    long cmpgens;
    long wgrelocs;
    long wgdfobjs;
    long wgdfoffs;
};

// Opcodes; the number is the index of the name in opname.
enum : unsigned short {
    INVALID = 0, ADD_, ADDR_, AND_, BEQ_, BF_, BGE_, BGT_, BI_, BLE_, BLT_, BNE_, BR_, BREAK_, BT_, CAT_,
    CVD_, CVL_, DIV_, EQ_, EXP_, FUNC_, GE_, GT_, LABEL_, LE_, LINK_, LT_, MAX_, MIN_, MISS_, MOV_, MUL_,
    NEG_, NE_, NOT_, OPID_, OR_, PARM_, RET_, SMEAR_, STMTID_, SUB_, SUM_, TERM_, BFOVFL_, BTOVFL_, CVI_,
    IPARM_, MOVEGEN_, CMPGEN_, CVB_, CVS_, ANDB_, ORB_, XORB_, BTM_, BFM_, MOD_, TRANS_, RESET_, ALIGN_,
    DROP_, MARK_, PAD_, PTRDIF_, BFMISS_, BTMISS_,
    WG_NOPCODES
};
static_assert(WG_NOPCODES == 68);

// Operand types.
constexpr unsigned short WG_TINT = 16;    // 8-byte integer, or a label
constexpr unsigned short WG_TDBL = 32;    // double
constexpr unsigned short WG_TCHAR = 128;  // character area (addresses of one)
constexpr unsigned short WG_TPTR = 256;   // pointer-sized value
constexpr unsigned short WG_TINTCV = 2;   // TRANS_ of integers

// Modifier bits.
constexpr unsigned long WG_MIMMA = 0x400;         // a is a constant, not an object
constexpr unsigned long WG_MIMMB = 0x800;         // b is a constant (IPARM_: a known length)
constexpr unsigned long WG_MLABEL = 0x1000;       // MOV_: r takes the address of label a
constexpr unsigned long WG_MCOND = 0x2000;        // TERM_: only when a is true
constexpr unsigned long WG_MNOTRAP = 0x4000;      // DIV_ of doubles: failures give a missing value
constexpr unsigned long WG_MVEC = 0x8000;         // AND_, OR_, MIN_, MAX_ over a vector
constexpr unsigned long WG_MPADC = 0x10000;       // MOVEGEN_: pad with the low byte of the modifier
constexpr unsigned long WG_MNEG = 0x20000;        // vector AND_/OR_ of negated elements
constexpr unsigned long WG_MTRIM = 0x40000;       // CAT_: trailing blanks of the source are dropped
constexpr unsigned long WG_MTABLE = 0x80000;      // CMPGEN_: a is a 256-byte collating table
constexpr unsigned long WG_MCOLL = 0x100000;      // MOVEGEN_: number to collatable form
constexpr unsigned long WG_MUPCASE = 0x200000;    // MOVEGEN_: upper-casing move
constexpr unsigned long WG_MDECOLL = 0x400000;    // MOVEGEN_: collatable form to number
constexpr unsigned long WG_MUNSIGNED = 0x800000;  // TRANS_ of integers: unsigned
constexpr unsigned long WG_MDESC = 0x20000000;    // MOVEGEN_: descending collation; area form
constexpr unsigned long WG_MHELPER = 0x20700000;  // any of these sends MOVEGEN_ to a helper

// Format words of TRANS_ parameters.
constexpr long WG_FNATIVE = 1;
constexpr long WG_FXPORT = 2;    // transport: IBM hexadecimal, missing values in ASCII
constexpr long WG_FVAX = 4;      // VAX D-floating
constexpr long WG_FIBM = 8;      // IBM hexadecimal, missing values in EBCDIC
constexpr long WG_FFOREIGN = 16; // the side that is not this machine's
constexpr long WG_FLITTLE = 32;  // little-endian
constexpr long WG_FBIG = 64;
constexpr long WG_FNT = 128;     // little-endian as well

// Codes.
constexpr wrcode WG_RC_NOMEM = static_cast<wrcode>(0x80010003u);
constexpr wrcode WG_RC_INTERNAL = static_cast<wrcode>(0x80010005u);  // with a substitution saying what
constexpr wrcode WG_RC_TRAP = static_cast<wrcode>(0x8001000fu);

void* wginit();
void wgterm(void* gcb);
wrcode wgsetopt(const char* opstr);
wrcode wgopen(VGSEGHD** codeparm, int flags, const WG_INFO* info, int tid);
wrcode wgdfobj(VGSEGHD* codeparm, const void* inptr, int is_constant, objloc* objret);
wrcode wgemit(VGSEGHD* codeparm, int opcode, int type, unsigned long modifier, unsigned long a, unsigned long b,
              unsigned long r);
wrcode wgclose(VGSEGHD* codeparm);
wrcode wgbind(VGSEGHD* codeparm);
wrcode wgexect(VGSEGHD* codeparm);
wrcode wginstl(VGSEGHD* codeparm, WGEXCEPT appexcept);
wrcode wgstop(VGSEGHD* codeparm, wrcode rc);
// Asks running code to stop at its next BREAK_; safe from any thread.
wrcode wgattn(VGSEGHD* codeparm);
// Once bound: the variable segment, where object o lives at o's offset.
void* wggudlp(VGSEGHD* codeparm);
// The session whose code this thread is running, or null.
VGSEGHD* wggthrcp();
// The bound code's entry.
WGFAST wgentry(VGSEGHD* codeparm);

// Asked by the trap handler whether this thread expected a trap (the
// group-by scan's guard); a layer above installs it.
void wgsetfpexc(int (*fpexc)());

}  // namespace vrta

// Inside the code generator: sessions, intermediate code, the machine
// instruction table and the generator's state. Clients use ssup/wg.h.
#pragma once
#include <csignal>
#include "ssup/thr.h"
#include "ssup/wg.h"
#include "ssup/xm.h"

namespace vrta {

// ---------------------------------------------------------------- sessions

struct VGGCB {
    thread_key_t streamKey;   // the session this thread runs
    mutex_t cglock;
    VGSEGHD* cglock_root;     // the session being generated under cglock
    VGSEGHD* codeparms;       // open sessions
    long physpagesize;
    void* zfile;              // unused: dumps go to the log
    int siginit;              // bound sessions relying on the trap handler
    char options[16];         // debug switches
    struct sigaction oldact;  // what the first bind replaced
};

// A block of intermediate code or of initialisation records.
struct VGCHAIN {
    VGCHAIN* next;
    VGCHAIN* prev;
    char* memblock;
    char* curpos;
    char* endpos;
    long capacity;   // in records
};

struct VGSEG {
    long length;
    char* address;   // null until bound
    char type;
};

struct WG_INIT {
    objloc object;
    long number;
    long length;
    unsigned long dataobj;  // the initial value, copied when declared
};
static_assert(sizeof(WG_INIT) == 32);

struct WG_CODEBUF {
    WG_CODEBUF* next;
    unsigned char* c_start;
    unsigned char* c_end;
    struct WG_STMTID* firstStmt;
    struct WG_STMTID* lastStmt;
};

struct WG_STMTID {
    unsigned char* codeaddr;
    long stmtid;
    int block;
    int offset;
};
static_assert(sizeof(WG_STMTID) == 24);

struct OPDESC;
struct WG_PARM_LIST {
    WG_PARM_LIST* next;
    OPDESC* op;
    unsigned long modifier;
};

// One intermediate instruction: 16 bytes, then r, a, b as far as iinfo says.
struct PINST {
    unsigned long modifier;
    unsigned short type;    // for opcode 0, a hole: its length in bytes
    unsigned short opcode;
    unsigned int pad;
    unsigned long r, a, b;
};
static_assert(sizeof(PINST) == 40);
constexpr int PINST_HEAD = 16;

struct IINFO {
    unsigned short oplen;     // 0, 8, 16 or 24
    unsigned short estimate;
    unsigned int worst;
    unsigned int flags;
    unsigned int pad;
};
static_assert(sizeof(IINFO) == 16);

// iinfo flags: allowed types, then what the instruction does.
constexpr unsigned IF_T16 = 0x1, IF_T32 = 0x2, IF_T128 = 0x4, IF_T256 = 0x8, IF_TANY = 0x10, IF_T2 = 0x20;
constexpr unsigned IF_TNUM = IF_T16 | IF_T32 | IF_T256;
constexpr unsigned IF_TINT = IF_T16 | IF_T256;
constexpr unsigned IF_RLAB = 0x100;     // r is a label
constexpr unsigned IF_WR = 0x200;       // r is written
constexpr unsigned IF_RA = 0x400;       // a is read
constexpr unsigned IF_RB = 0x800;       // b is read
constexpr unsigned IF_RR = 0x1000;      // r is read
constexpr unsigned IF_OVFL = 0x2000;    // leaves the overflow condition
constexpr unsigned IF_CALL = 0x4000;    // calls out of the code
constexpr unsigned IF_BLOCK = 0x8000;   // ends straight-line code
constexpr unsigned IF_P1 = 0x10000;     // consumes one IPARM_
constexpr unsigned IF_P2 = 0x20000;     // consumes two
constexpr unsigned IF_ALAB = 0x40000;   // a may name a label (MOV_ with WG_MLABEL)

extern const IINFO iinfo[WG_NOPCODES];
extern const char opname[WG_NOPCODES][10];

// Session states.
constexpr int VG_OPEN = 1, VG_CLOSED = 2, VG_BOUND = 3;
// Session flags.
constexpr int VG_FRESUME = 1;    // the resume stub is there
constexpr int VG_FEXCEPT = 2;    // the software-fault stub is there
constexpr int VG_FSPRESET = 8;   // TERM_ reloads the stack pointer
constexpr int VG_FLARGE = 0x100; // opened as a large session

// The generator's own slots in the third data segment (offsets).
constexpr int VG2_RUNNING = 0;   // 1 while a thread runs the code
constexpr int VG2_LINKDEPTH = 8;
constexpr int VG2_MARK = 16;
constexpr int VG2_ATTN = 24;
constexpr int VG2_MXCSR = 32;    // the caller's MXCSR, saved at entry
constexpr int VG2_ARMED = 36;    // MXCSR while generated code runs
constexpr int VG2_RESULT = 40;   // except_result, where the resume stub can reach it
constexpr int VG2_SIZE = 48;
constexpr int VG_MAXLINK = 64;   // LINK_ nesting

struct VGSEGHD {
    char eye[4];                  // "VGSH"
    int state;
    WGFAST entrypoint;
    unsigned char* curcode;
    unsigned char* stcode;        // start of the code block (exit sequence)
    unsigned char* basereg;       // start of the data segments
    int flags;
    long sp_restore;              // stack pointer after the entry's pushes
    WG_CODEBUF code;
    long stack_size;
    unsigned char* real_entry;
    long initial_sp;
    long gl_ret_rc;
    unsigned char* resume_at;
    double except_result;
    double fp_max, fp_min, fp_max_long, fp_min_long, zero, fp_one, macmiss;
    long macint, macnint;
    long sp_reset;
    VGSEGHD* next;
    thread_t code_tid;
    xmpid vgpool;
    unsigned char* except_lbl;
    unsigned char* fault_addr;
    VGCHAIN* cur_icodes;
    VGCHAIN* cur_initr;
    PINST* last;
    WGEXCEPT except_func;
    jmp_buf* err_jbuf;

    // Beyond the named fields: counts and the code's home.
    VGCHAIN* first_icodes;
    VGCHAIN* first_initr;
    VGSEG segs[3];
    WG_INFO info;
    long ninst, nstmt, nopid;
    long estimate, worst;
    xmpid codepool;
    unsigned char* block;         // the code pool's one block
    long blocksize;
    unsigned char* rx;            // first page made read+execute
    long rxsize;
    unsigned char* labtab;        // addresses of labels used as data
    long nlabtab;
    unsigned char* exit_rc;       // stub: leave with gl_ret_rc
    unsigned char* stub1;         // resume stub
    unsigned char* stub2;         // software-fault stub
    void* prevsess;               // thread key value before the run
    long codesize;                // bytes of machine code written
    xmpid genpool;                // scratch of one code generation
    void* gen;
    unsigned char* exit_pop;      // the exit sequence's pops
    long* dumpmap;                // for the dump: code offset << 8 | opcode of each instruction
    long ndumpmap;
    int tid;
    int nstubs;
};

VGGCB* vggcb();
// Walks the intermediate code, holes skipped.
struct VGITER {
    VGCHAIN* c;
    char* pos;
};
PINST* vgfirst(VGSEGHD* s, VGITER* it);
PINST* vgnextp(VGITER* it);
int vgreclen(const PINST* p);
// A failed bind or a bad instruction: 0x80010005 with the text as substitution.
wrcode vgfail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The pieces of wgbind.
void vvgprolog(VGSEGHD* s);
void vvgcodegen(VGSEGHD* s);
void vvgstartup(VGSEGHD* s);
[[noreturn]] void vvgassert(VGSEGHD* s, int line);

// Trap path and the run-time calls the prologue and stubs make.
wrcode vginstallsig(VGSEGHD* s);
void vgremovesig();
extern "C" void vvgenter(VGSEGHD* s);
extern "C" void vvgleave(VGSEGHD* s);
extern "C" int vvgcgunk(VGSEGHD* s);
int vvgdefexcept(int cause, double* result, jmp_buf** jmp, void** resume);
// Puts back what a run changed when it is left without its exit sequence.
void vgunwind(VGSEGHD* s);
bool vgislabel(VGSEGHD* s, const void* addr);

// Executable memory: write first, then read+execute.
int vgprotect(VGSEGHD* s);

// Debug dump of the code under the "D" option.
void vgdisasm(VGSEGHD* s);
bool vgoption(char c);

}  // namespace vrta

// Compression and encryption exits: the six-function contract, the exit
// manager that finds an exit by its 8-character name (built in or loaded from
// a shared object), and the per-table state the storage layer keeps for it.
// The storage layer never looks into a converted block, only at its length.
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"
#include "sda/daods.h"

extern "C" {
// The contract an exit module exports as <name>_init ... <name>_unconvert,
// with <name> the lower-cased exit name. Handles are the exit's own.
typedef int (*da_xc_init_t)(int* xcflags, void** xchdl);
typedef void (*da_xc_term_t)(void* xchdl);
// mode: 1 read, 2 create, 4 update, +8 when the key came from the table.
// *baglen/bagbuf: the stored bag on open (0 when none), the bag to store on
// create. bagbuf has room for 1024 bytes. Returns 0, -2 wrong key, other
// values refuse the open.
typedef int (*da_xc_open_hook_t)(void* xchdl, const char* libpath, const char* table, int mode,
                                 double cretime, int keylen, const char* keybuf, int* baglen,
                                 char* bagbuf, int rawmaxbuf, int* iomaxbuf, void** xcthdl);
typedef int (*da_xc_close_hook_t)(void* xcthdl, int* baglen, char* bagbuf);
// *iolen is the room in iobuf on entry and the converted length on return.
// Returns 0 converted, 1 keep the block raw (variable blocks only), other
// values fail.
typedef int (*da_xc_convert_t)(void* xcthdl, int blockno, const char* rawbuf, int rawlen,
                               char* iobuf, int* iolen);
// *rawlen is the room in rawbuf on entry and the raw length on return.
typedef int (*da_xc_unconvert_t)(void* xcthdl, int blockno, const char* iobuf, int iolen,
                                 char* rawbuf, int* rawlen);
}

namespace vrta {

struct DA_XCBMT {
    da_xc_init_t init;
    da_xc_term_t term;
    da_xc_open_hook_t open_hook;
    da_xc_close_hook_t close_hook;
    da_xc_convert_t convert;
    da_xc_unconvert_t unconvert;
};

// xcflags, given by init.
constexpr int DA_XCFIXED = 1;     // blocks stored fixed size (DA_SEMXCFBS), else variable
constexpr int DA_XCBAG = 2;       // keeps a DA_XCHEAD bag in the table
constexpr int DA_XCCOMP = 4;      // can compress
constexpr int DA_XCCRYPT = 8;     // can encrypt

// xcmode of a table.
constexpr int DA_XCMREAD = 1;
constexpr int DA_XCMCREATE = 2;
constexpr int DA_XCMUPDATE = 4;
constexpr int DA_XCMSTOREDKEY = 8;

// One per exit per process, on the list dagcb.xcbs.
struct DA_XCB {
    DA_XCB* next;
    DA_XCBMT mt;
    char name[8];       // blank padded, upper case
    void* dlhdl;        // null for a built-in exit
    void* xchdl;
    int refCount;
    int xcflags;
    int inited;
};

// One per open table.
struct DA_XCEXT {
    DA_XCB* xcb;
    void* xcthdl;
    int xcmode;
    int iomaxbuf;
    int keylen;
    char keybuf[40];
    DA_XCHEAD xchdr;
};

// Registers the built-in exits; called by dainit, idempotent.
[[nodiscard]] rctype daxcini();
// Resolves the exit name asked for at create into resname (8 bytes, blank
// padded, upper case): with flag 1 "DEFAULT " is the DEFCOMPRESS option, with
// flag 2 the DEFENCRYPT option.
[[nodiscard]] rctype daxcname(int flags, const char* xcname, char* resname);
// Finds or loads the exit, runs its init on first use, and counts a user.
// Any failure is DA_NOEXIT.
[[nodiscard]] rctype daldxcb(const char* algname, DA_XCB** rxcb);
// Drops a user; the last one runs term. The module stays loaded.
[[nodiscard]] rctype dafrxcb(DA_XCB* xcb);

// Helpers for the table layer, so every caller maps the exit's answers the
// same way.
// A name asked for by a user at create: names with a leading point are
// reserved (DA_BADARG); the exit must be able to do what flags ask
// (1 compress: DA_NOCOMPRESS, 2 encrypt: DA_NOENCRYPT).
[[nodiscard]] rctype daxccheck(const DA_XCB* xcb, int flags, const char* asked);
// Calls open_hook with xcext's mode, key and bag; -2 is DA_BADKEY, any other
// refusal DA_EXITREFUSED. Sets xcthdl and iomaxbuf.
[[nodiscard]] rctype daxcopen(DA_XCEXT* xcext, const char* libpath, const char* table, double cretime, int rawmaxbuf);
// Calls close_hook; the bag it leaves is in xcext->xchdr.
[[nodiscard]] rctype daxcclose(DA_XCEXT* xcext);
// 0 converted, 1 keep raw (only when allowraw), DA_CONVFAIL or DA_CONVBIG.
[[nodiscard]] rctype daxcconvert(DA_XCEXT* xcext, int64_t vbn, const void* raw, int rawlen, void* io, int* iolen, bool allowraw);
// 0 or DA_UNCONVFAIL; *rawlen is the room on entry.
[[nodiscard]] rctype daxcunconvert(DA_XCEXT* xcext, int64_t vbn, const void* io, int iolen, void* raw, int* rawlen);

// Word-wise scrambling of access tables with a running key; symmetric.
void dancode(uint32_t key, void* bufp, long bsize);

}  // namespace vrta

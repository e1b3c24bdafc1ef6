// Row cursors: how rows move between a table and a caller's buffers. A
// cursor is a DA_IOCB with five methods, chosen at getiocb by the table's
// storage form: plain rows, fixed or variable blocks through an exit,
// transfer-format rows and encoded rows. Row numbers are 1-based and stable.
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"
#include "ssup/thr.h"
#include "sda/dafid.h"

namespace vrta {

// One buffer of a cursor.
struct DA_IOB {
    void* bufptr;         // rows
    hs_obsno_t* obsvec;   // their row numbers, or null
    long numobs;          // rows held; -1 after a read that found none
    hs_obsno_t locator;   // row (or block, for a by-block cursor) to go to; -1 stays sequential
};

struct DA_IOCBMT {
    rctype (*freeiocb)(DA_IOCB* iocb) __attribute__((warn_unused_result));
    rctype (*dareadv)(DA_IOCB* iocb, int numbuf) __attribute__((warn_unused_result));
    rctype (*dawritev)(DA_IOCB* iocb, int numbuf) __attribute__((warn_unused_result));
    rctype (*setloc)(DA_IOCB* iocb, hs_obsno_t loc) __attribute__((warn_unused_result));
    rctype (*setbuf)(DA_IOCB* iocb, DA_IOB* iobvec, long bufsize) __attribute__((warn_unused_result));
};

struct DA_IOCB {
    const DA_IOCBMT* mt;
    DA_FID* fp;
    void* udata;
    hs_obsno_t curobs;      // next row
    int64_t curblock;
    int iom;
    DA_IOB* iobvec;
    int numbuf;
    long bufsize;
    long obsperbuf;
    rctype status;
    int bfi;                // last buffer done, -1 none
};

// iom open flags.
constexpr int DA_IOMREAD = 0x1;
constexpr int DA_IOMSEQ = 0x4;
constexpr int DA_IOMRANDOM = 0x8;
constexpr int DA_IOMBYROW = 0x10;
constexpr int DA_IOMBYBLOCK = 0x20;
constexpr int DA_IOMMAPPED = 0x40;
constexpr int DA_IOMDELETED = 0x80;     // include deleted rows
constexpr int DA_IOMLIVE = 0x100;       // writes may land on live rows
constexpr int DA_IOMSHARELK = 0x200;    // shares the updater's lock
constexpr int DA_IOMREFILL = 0x400;     // refills deleted rows
constexpr int DA_IOMFILLING = 0x800;
constexpr int DA_IOMLASTRUN = 0x1000;

// Block numbers meaning "none".
constexpr int64_t DA_NOVBN = static_cast<int64_t>(0x8000000000000001ULL);

// The only way to get a cursor; counts it on the opener.
[[nodiscard]] rctype getiocb(DA_FID* fp, int iom, DA_IOCB** iocb);

// Buffers for callers: numbuf DA_IOBs with their row space in one malloc,
// numobs -1 and locator -1. *bufsizret gets each buffer's size in bytes.
[[nodiscard]] rctype damkiob(int obslen, int blockfactor, int multiblock, int numbuf, DA_IOB** iobvec, long* bufsizret);
// The same with room for each buffer's obsvec.
[[nodiscard]] rctype damdiob(int obslen, int blockfactor, int multiblock, int numbuf, DA_IOB** iobvec, long* bufsizret);
void dafriob(DA_IOB* iobvec);
// Address of the row at relobs across the cursor's buffers (obsperbuf rows
// each), null when relobs < 0 or no buffers are set. The caller keeps relobs
// inside the vector it gave setbuf.
void* daobs2p(DA_IOCB* iocb, long relobs);
// Copies a row in at relobs, raising numobs of its buffer; returns the
// buffer number + 1, or 0 when daobs2p gives null.
int daadobs(DA_IOCB* iocb, const void* obsbuf, long relobs);

// Smallest buffers callers use, from the options.
long daseqiobufmin();
long daraniobufmin();

// ---------------------------------------------------------------- between cursor files

// Common private part of every cursor.
struct DA_GIOCB : DA_IOCB {
    DA_DMPBM* bmp;        // private delete bitmap
    void* extension;
    DA_IOB* savwriob;
};

// A block in memory.
struct DA_BLOCK {
    da_off_t blockOffset;   // -1 when not on disk
    char* blockbuf;         // raw rows
    char* iobuf;            // converted bytes
    int64_t vbn;            // 0-based, DA_NOVBN none
    hs_obsno_t blockobs;    // first row
    int32_t numobs;
    int dirty;
};

// What a block store (fixed or variable) gives the shared block cursor.
struct DA_BKOPS {
    // Unconverts block vbn into raw (room rawroom); *rawlen its bytes. 518 when absent.
    rctype (*getblock)(DA_FCB* fcb, void* cur, int64_t vbn, char* raw, int32_t rawroom, int32_t* rawlen) __attribute__((warn_unused_result));
    // Converts and writes blk (numobs rows at blockbuf).
    rctype (*putblock)(DA_FCB* fcb, DA_BLOCK* blk) __attribute__((warn_unused_result));
};

// Shared block state of an exit table: the part both block stores keep.
struct DA_BKCB {
    mutex_t lock;           // fblock / vblock
    int64_t maxvbn;         // highest block on disk, DA_NOVBN none
    DA_BLOCK ioblk;         // a block read for update
    DA_BLOCK newblk;        // the block being filled beyond maxvbn
    const DA_BKOPS* ops;
    int32_t bf;             // rows per block
    int32_t obslen;
    uint64_t gen;           // raised at every write, so cursors drop cached blocks
};

[[nodiscard]] rctype dabkinit(DA_FCB* fcb, DA_BKCB* bk, const DA_BKOPS* ops);
void dabkfree(DA_BKCB* bk);
// Writes ioblk then newblk when dirty; the caller holds bk->lock.
[[nodiscard]] rctype dabkflush(DA_FCB* fcb, DA_BKCB* bk, const char* who);
// Drops the blocks held and makes cursors drop theirs, after another
// process changed the table; the caller holds bk->lock.
void dabkstale(DA_BKCB* bk);
// Cursor over a block store; cur is the store's per-cursor state handed to getblock.
[[nodiscard]] rctype dabkgioc(DA_FID* fp, int iom, DA_BKCB* bk, void* cur, void (*freecur)(void*), DA_IOCB** iocb);

// Plain rows, or encoded rows when encoded (the plain cursor decodes).
[[nodiscard]] rctype dasgioc(DA_FID* fp, int iom, bool encoded, DA_IOCB** iocb);
// Encoded rows: n rows of obslen bytes from obsno to their odsreclen-byte
// disk form and back.
void daeniob(const DA_FCB* fcb, hs_obsno_t obsno, const char* rows, char* disk, long n);
void dadeiob(const DA_FCB* fcb, hs_obsno_t obsno, const char* disk, char* rows, long n);

// Delete-map helpers shared by the families.
// Rows [obs, obs+n) within numobs about to be written: without DA_IOMLIVE
// they must all be deleted (DA_NOTDELETED otherwise); deleted ones get their
// bits cleared.
[[nodiscard]] rctype dawrdelck(DA_FCB* fcb, int iom, hs_obsno_t obs, hs_obsno_t n);

}  // namespace vrta

// Index files of a table: the index records in the metadata file, the three
// files an index may have ("idx", "aux", "hbx"), the block interface the
// index layer reads and writes them through (DA_IDX), and the states that
// say whether an index can be trusted.
#pragma once
#include <cstdint>

#include "hs/hsnls.h"  // before the table layer, whose records name its type
#include "sda/dafid.h"

namespace vrta {

struct DA_IDX;
struct DA_ICB;
struct SKB_KEY;

// Kinds of key (DA_IDXODS.type).
constexpr int32_t DA_KEYNUM = 1;   // one numeric column
constexpr int32_t DA_KEYCHAR = 2;  // one character column
constexpr int32_t DA_KEYCOMP = 3;  // several columns

// Files of an index: their keyFlags bit, and the slot in DA_ICB.files.
constexpr int DA_IDXFIDX = 0x40;
constexpr int DA_IDXFAUX = 0x20;
constexpr int DA_IDXFHBX = 0x200;
constexpr int DA_IDXFILES = DA_IDXFIDX | DA_IDXFAUX | DA_IDXFHBX;
enum : int { DA_ICBIDX = 0, DA_ICBAUX = 1, DA_ICBHBX = 2, DA_ICBNFILES = 3 };

// daopidx flags besides the file kind.
constexpr int DA_IDXOWRITE = 0x1;  // open for building or updating
constexpr int DA_IDXOMAP = 0x2;    // a reader may have the file mapped

// Lock kinds of dalkidx.
constexpr int DA_IDXUNLK = 0;
constexpr int DA_IDXLKRD = 1;
constexpr int DA_IDXLKWR = 2;

// DA_ICB.flags: the record dirty, its statistics dirty, new; bit 31 is
// dackidx's verdict, the index is not to be trusted.
constexpr uint32_t DA_ICBDIRTY = 1;
constexpr uint32_t DA_ICBNEW = 4;
constexpr uint32_t DA_ICBKSTDIRTY = 8;
constexpr uint32_t DA_ICBBAD = 0x80000000u;
// DA_ICB.checks, what dackidx found, for idx, aux and hbx in turn: revision
// differs (1, 4, 128), partition missing or size changed (2, 8, 0x100),
// state not clean (16, 32, 0x200).
constexpr uint32_t DA_ICBREVIDX = 1, DA_ICBMISSIDX = 2, DA_ICBSTATEIDX = 16;

// A description of an index, as the table's callers see it.
struct DA_KEYSTR {
    int16_t name_l;
    char name[33];
    int32_t type;           // DA_KEYNUM, DA_KEYCHAR, DA_KEYCOMP
    int32_t keyflags;       // DA_IDXFIDX | DA_IDXFAUX | DA_IDXFHBX, and the caller's own bits
    int32_t keylen;         // sum of the columns' lengths
    int32_t nvar;
    int32_t nvar0[64];      // column numbers, 1-based
    hs_obsno_t highobs;     // rows indexed
    int32_t finstat;
    int32_t states[3];      // idx, aux, hbx
    uint32_t checks;        // dackidx's findings, with DA_ICBBAD
};
constexpr int DA_MAXKEYVARS = 64;

// Key statistics, as dastkst stores them.
struct DA_KEYSTAT {
    const void* minmax;     // 2 x key length: minimum then maximum key; null keeps them
    int64_t numvals;
    int64_t nummiss;
    hs_obsno_t highobs;
    int32_t finstat;
};

// Per file of an index.
struct DA_ICBFD {
    DA_FD* fd;
    int refcount;
    int32_t blksize;
    void* mapaddr;
    da_off_t mapsize;
    int64_t* fiboffset;     // into the record: idxFibOff, auxFibOff, hybFibOff
    int64_t* filesize;      // idxFilesize, auxFilesize, hybFilesize
    int32_t filesizeoff;    // offset of that field in the record
    int32_t* state;         // idxState, auxState, hybState
    int writers;            // openers for write
};

// One index of a table, on the FCB's list icbs.
struct DA_ICB {
    DA_ICB* next;
    DA_FCB* fcb;
    da_off_t headOff;       // of the DA_IDXODS in the MDF
    uint32_t flags;         // DA_ICBDIRTY ..
    uint32_t checks;        // what dackidx found
    DA_KEYSTR kstr;
    void* skb;              // key block, when one was made for the index
    DA_IDXODS* head;        // the whole record, malloc'ed
    DA_IDXKST* idxkst;      // inside head
    mutex_t lock;
    rwlock_t rwlock;
    int nreaders;
    int last_scbflags;
    DA_ICBFD files[DA_ICBNFILES];
};

// ---------------------------------------------------------------- block interface

struct DA_IDXMT {
    // Reads size bytes at offset; *nread gets how many (fewer at the end).
    rctype (*readidx)(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread) __attribute__((warn_unused_result));
    rctype (*writeidx)(DA_IDX* ip, const void* buf, long size, da_off_t offset) __attribute__((warn_unused_result));
    rctype (*truncidx)(DA_IDX* ip, da_off_t size) __attribute__((warn_unused_result));
    // Ends the use; state is what a writer leaves in the record (DA_IDXCLEAN ..).
    rctype (*closeidx)(DA_IDX* ip, int state) __attribute__((warn_unused_result));
    rctype (*lockidx)(DA_IDX* ip, int kind) __attribute__((warn_unused_result));
    rctype (*refidx)(DA_IDX* ip) __attribute__((warn_unused_result));
};

// What the index layer holds of one open index file.
struct DA_IDX {
    const DA_IDXMT* mt;
    int32_t blocksize;
    da_off_t filesize;      // size of the file as its user has made it
    int32_t nvar;
    int32_t nstrs;
    void* mapaddr;          // the file mapped read-only, or null
    da_off_t mapsize;
    void (*refreshcb)(void* anchor);
    void (*updatecb)(void* anchor);
    void* anchor;
    DA_KEYSTR* keystr;
    void* skb;
    int thrno;
    const char* name;       // file name, for diagnostics
};

struct DA_IDXP : DA_IDX {
    DA_FD* ixfd;
    da_off_t offset;
    da_off_t blockOffset;   // file offset of the block in bufpool, -1 none
    int32_t bufOffset;      // bytes of bufpool that hold file data
    DA_FID* fid;
    DA_ICB* icb;
    char* bufpool;          // one block
    int flags;              // 1 buffer dirty
    int opnflags;           // daopidx flags
    int32_t filesizeOff;
    int32_t timestamp;
    int32_t timestampOff;
    DA_ICBFD* icbfd;
    int lmode;              // lock held (DA_IDXLKRD, DA_IDXLKWR) or 0
    int kind;               // DA_ICBIDX ..
    char fname[1024];
    int pfd;                // a plain file's descriptor (daopidxf), else -1
    DA_IDXP* nextopen;      // on the opener's indexList
};

// ---------------------------------------------------------------- table side

// Index methods of a table (DA_FIDMT slots).
[[nodiscard]] rctype daadidx(DA_FID* fp, const char* name, int keyflags, int nvar, const int32_t* varnos);
[[nodiscard]] rctype dadridx(DA_FID* fp, const char* name, int drflags);
[[nodiscard]] rctype darpidx(DA_FID* fp, const char* target, const char* source, int drflags);
[[nodiscard]] rctype daopidx(DA_FID* fp, const char* name, int flags, DA_IDX** ip);
// Up to nkstr descriptions of the indexes whose first column is nvar0 (0: all);
// the result is how many the table has of them.
[[nodiscard]] rctype daqyidx(DA_FID* fp, int nvar0, int nkstr, DA_KEYSTR* kstr);
[[nodiscard]] rctype daqyicb(DA_FID* fp, const char* name, DA_KEYSTR* kstr);
[[nodiscard]] rctype dastkst(DA_FID* fp, const char* name, const DA_KEYSTAT* kstat);

// File methods.
[[nodiscard]] rctype daridxb(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread);
[[nodiscard]] rctype daridxd(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread);
[[nodiscard]] rctype dawidxb(DA_IDX* ip, const void* buf, long size, da_off_t offset);
[[nodiscard]] rctype dawidxd(DA_IDX* ip, const void* buf, long size, da_off_t offset);
[[nodiscard]] rctype datridx(DA_IDX* ip, da_off_t size);
[[nodiscard]] rctype daclidx(DA_IDX* ip, int state);
[[nodiscard]] rctype dalkidx(DA_IDX* ip, int kind);
[[nodiscard]] rctype darfidx(DA_IDX* ip);
// Marks the file dirty (or clean) and writes the record at once: a crash
// while pages are written then leaves a state on disk that says so.
[[nodiscard]] rctype dasetstate(DA_IDX* ip, int state);

// Closes what an opener left open of its indexes (at the table's close).
[[nodiscard]] rctype daclfidx(DA_FIDP* fp);
// Re-reads the index records another process may have changed.
[[nodiscard]] rctype darfidxrec(DA_FCB* fcb);

// The index records of a table in memory.
DA_ICB* daluicb(DA_FCB* fcb, const char* name, int name_l);
[[nodiscard]] rctype dafricb(DA_ICB* icb);
[[nodiscard]] rctype daflicb(DA_ICB* icb);
[[nodiscard]] rctype daclicb(DA_ICB* icb);
[[nodiscard]] rctype dawridx(DA_FD* fd, const DA_IDXODS* ixh, da_off_t offset);

// The key block of an index: its columns' bytes as keys that compare as
// bytes, the row number behind them.
[[nodiscard]] rctype daskbinit(SKB_KEY* skb, const DA_XOEODS* xoehdr, HS_NLSENV* nlsenv, const DA_KEYSTR* kstr,
                 const DA_NAMESTR* vars);
[[nodiscard]] rctype daicbskb(DA_ICB* icb);

// A plain file as an index file, for tools and tests: flags 1 write, 4 create.
[[nodiscard]] rctype daopidxf(const char* path, int flags, DA_IDX** ip);

}  // namespace vrta

// The index front end: what the rest of the system holds of an index.
// Readers hold an IX_INDEX_T, a vector of query operations on an open index
// whose answers are row lists; writers hold an IX_FILE_T, a vector of
// operations on an index being built. Both dispatch to the kind of index
// the file holds; the hybrid index is the kind there is.
//
// A scan asks in two steps: which segments hold a match (preseg, prepnt: a
// segment list, one bit per segment, without reading a bitmap), then, per
// segment and per thread, for the rows of the segment (initseg, pnt) as a
// row list. Thread n of a scan passes threadno n, below the max_threads of
// the open; each thread has its own tree handle and its own lists.
#pragma once
#include <cstdint>

#include "ix/ixlist.h"

namespace vrta {

struct DA_FID;
struct DA_IDX;
struct SKB_KEY;

// One end of a condition on a key, and where its answers go.
struct IX_SEGOP_T {
    ix_list_t* list;       // the rows of a segment (initseg, pnt); made when null
    const void* value;     // key bytes (from ixmkkey); null: no bound at this end
    int op;                // ix_compare_t
    hs_obsno_t segment;    // a row of the segment wanted; below 1 means the first segment
    int v_length;          // bytes of value: the key's length, or fewer for its leading columns
    ix_list_t* hy_list;    // the segment list (preseg, prepnt): row s + 1 stands for segment s
    void* ixpriv;          // a pre-evaluation (preeval, preevalpnt)
};

// What preseg and prepnt report. Zero it before the first call of a plan:
// the counts add up over calls.
struct IX_SEGSTATS_T {
    int segratio;          // percentage of segments with a match
    int maxsegratio;       // the index's limit: above it the segment list is dropped
    int64_t nsegs;         // segments matched
    int64_t nvalues;       // values seen
    int64_t nrows;         // rows of these values
};

// Limits in rows of a global scan.
struct IX_BOUNDS_T {
    hs_obsno_t first;
    hs_obsno_t last;
};

// What a summary scan of a range of values gives, from the index alone:
// the items asked for in stats. Missing keys count in nmiss only.
constexpr int IX_GS_MIN = 0x1;
constexpr int IX_GS_MAX = 0x2;
constexpr int IX_GS_NMISS = 0x4;
constexpr int IX_GS_COUNT = 0x8;
constexpr int IX_GS_COUNTD = 0x20;
constexpr int IX_GS_SUM = 0x40;
constexpr int IX_GS_SUMD = 0x80;
constexpr int IX_GS_USS = 0x100;
constexpr int IX_GS_USSD = 0x200;
struct IX_GSCAN {
    int stats;             // IX_GS_xxx wanted
    char* minc;            // a character key's MIN and MAX: caller's buffers as long as the column
    char* maxc;
    double min, max;       // a numeric key's; missing when the range has no value
    int64_t nmiss;         // rows of missing keys
    int64_t count;         // rows of the other keys
    int64_t countd;        // distinct keys that aren't missing
    double sum;            // over rows
    int sumexcp;           // set when a product or a sum overflowed; the item is then incomplete
    double sumd;           // over distinct keys
    int sumdexcp;
    double uss;            // sums of squares
    int ussexcp;
    double ussd;
    int ussdexcp;
};

// Called by vallist for each value of a range with its rows; non-zero stops.
using ix_valfn_t = int (*)(void* arg, const void* value, int64_t nrows);

// The query vector. The first argument of each is the index's ix_private.
struct IX_INDEXFP_T {
    rctype (*close)(void* h);
    // Rows of a value in the segment of row obs.
    rctype (*count)(void* h, const void* value, hs_obsno_t obs, int64_t* count);
    // The rows of a condition in the segment of segop->segment, into segop->list.
    rctype (*initseg)(void* h, IX_SEGOP_T* segop, int threadno, int cache);
    // The rows of a range (low: IX_GT or IX_GE, high: IX_LT or IX_LE) in the segment of low->segment.
    rctype (*pnt)(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high, int threadno, int cache);
    // Each value of a range and its rows, in key order.
    rctype (*vallist)(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high, ix_valfn_t each, void* arg);
    // The first value that isn't missing into value (key length); 1 when there is none.
    rctype (*minnomiss)(void* h, void* value);
    rctype (*gsetpnt)(void* h, const void* loval, int locomp, int lolen, const void* hival, int hicomp, int hilen,
                      int ignore);
    rctype (*ggetpnt)(void* h, const IX_BOUNDS_T* bounds, void* values, hs_obsno_t* obsno, int64_t* size);
    // Takes in what another opener added to the index.
    rctype (*resynch)(void* h);
    // The segment list of nsets conditions (ORed), into segop[0].hy_list.
    rctype (*preseg)(void* h, IX_SEGOP_T* segop, int nsets, IX_SEGSTATS_T* stats);
    // The segment list of nsets ranges (ORed), into l_segop[0].hy_list.
    rctype (*prepnt)(void* h, IX_SEGOP_T* l_segop, IX_SEGOP_T* h_segop, int nsets, IX_SEGSTATS_T* stats);
    // A condition or a range read once for all segments, into the low end's ixpriv;
    // a segment list in segop->hy_list (low->hy_list) limits it to those segments.
    rctype (*preeval)(void* h, IX_SEGOP_T* segop);
    rctype (*preevalpnt)(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high);
    // One segment's rows from a pre-evaluation (segop->ixpriv), into segop->list;
    // each segment can be taken once, by the thread that owns it.
    rctype (*preevallist)(void* h, IX_SEGOP_T* segop, int threadno);
    rctype (*preevalcln)(void* h, void* tree);
    // Global scan, one per handle: a range of values in key order, each with its rows in all
    // segments. gsetpnt opens it (locomp IX_GT or IX_GE, hicomp IX_LT or IX_LE, a null value an
    // open end, lengths below the key's for leading columns; ignore non-zero: values marked
    // deleted are stopped at too). ggetpnt: up to *size rows (in *size how many), each with its
    // value's key in values (null: not wanted); fewer than asked: the range is done. bounds (may
    // be null) keeps rows first..last.
    // ggetlist: the rows of the next value (its key into value), or with value null of all the
    // values left; 1 when none is left. gsetrng/ggetrng: value by value, only the rows' span
    // (obsrange non-zero: exact first and last row, else the span of the value's segments, cut
    // to the table); 1 at the end.
    // gcount: distinct values of a range; gscan: statistics of a range. low and high as in pnt;
    // either may be null for an open end.
    rctype (*gcount)(void* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, int64_t* count);
    rctype (*ggetlist)(void* h, const IX_BOUNDS_T* bounds, ix_list_t** list, void* value);
    rctype (*gsetrng)(void* h, const void* low, int low_comp, const void* high, int high_comp, int len);
    rctype (*ggetrng)(void* h, int obsrange, void* value, hs_obsno_t* low, hs_obsno_t* high, int64_t* n);
    rctype (*gscan)(void* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, IX_GSCAN* gscan);
};

struct IX_INDEX_T {
    void* ix_private;      // the kind's read handle
    DA_FID* fid;
    IX_INDEXFP_T fp;
    void* targenv;
    SKB_KEY* skbp;         // the index's key block
    int needs_xcoding;
    void* transpipeh;
    int32_t keylen;        // bytes of a key
    int32_t type;          // ix_itype_t of the file
};

// Options of ixopen.
constexpr int IX_OUPDATE = 1;
constexpr int IX_OPLAIN = 2;

// Opens an index of an open table for reading. 0, or 1282 when the index
// was left unfinished (the handle is open: the caller decides whether to
// use it), or a negative code and no handle. max_whthreads below 2 is 1.
rctype ixopen(DA_FID* data_set, const char* index_name, int options, int max_whthreads, void* targenv,
              IX_INDEX_T** handle);
rctype ixclose(IX_INDEX_T* handle);
// Segments the index covers (as of its last refresh) and rows a segment.
rctype ixinfo(IX_INDEX_T* handle, int64_t* nsegs, int64_t* segsize);

// The key of a row image: the index's columns at their places in row (a
// row of the table, or a buffer as long). key gets keylen bytes.
rctype ixmkkey(IX_INDEX_T* handle, const void* row, void* key);
// The same from values: vp[i] points at the i-th key column's value as it
// stands in a row, for the n leading columns of the key. *len gets the
// bytes of the key those columns make (v_length of a condition on them).
rctype ixgetkey(IX_INDEX_T* handle, const void* const* vp, int n, void* key, int* len);

// ---------------------------------------------------------------- writers

struct IX_FILE_T;
struct IX_COMMON_T;

// The write vector. delete is a word of the language: its slot is del.
struct IX_FILEFP_T {
    // n rows of obs_len bytes from obs_block, the first row number start; *n gets how many were taken.
    rctype (*add)(IX_FILE_T* f, const void* obs_block, hs_obsno_t start, int64_t* n);
    // Writes what is left, marks the index clean and records its statistics.
    rctype (*finish)(IX_FILE_T* f);
    // Gives up: a new index is removed, an appended one is left to be rebuilt.
    rctype (*abort)(IX_FILE_T* f);
    rctype (*del)(IX_FILE_T* f, const void* row, hs_obsno_t obs);
    // Rows start..start+n-1 whose rows are all in obs_block, in row order.
    rctype (*addran)(IX_FILE_T* f, const void* obs_block, hs_obsno_t start, int64_t* n);
    rctype (*update)(IX_FILE_T* f, const void* oldrow, const void* newrow, hs_obsno_t obs);
    rctype (*flush)(IX_FILE_T* f, int flags);
    // A unique index: 0 and *other when the key of row is held by another row, 1 when not.
    rctype (*find)(IX_FILE_T* f, const void* row, hs_obsno_t obs, hs_obsno_t* other);
    // A record of the sorter: the key, then the row number in 8 bytes, big-endian.
    rctype (*srtadd)(IX_FILE_T* f, const void* rec);
    rctype (*bucketadd)(IX_FILE_T* f, const void* recs, int64_t n);
    // The index's files: .idx (which 0) and .hbx (which 1).
    DA_IDX* (*getfile)(IX_FILE_T* f, int which);
    // The key of a row into slot's key buffer; 1 when every column is missing.
    rctype (*buildkey)(IX_FILE_T* f, const void* row, int slot, const void** key);
    rctype (*truncate)(IX_FILE_T* f, hs_obsno_t obs);
    void* (*keybuf)(IX_FILE_T* f, int slot);
};

struct IX_FILE_T {
    IX_COMMON_T* ix_private;
    IX_FILEFP_T fp;
};

// Option bits of ixcreat.
constexpr int IX_KUNIQUE = 1;
constexpr int IX_KNOMISS = 2;
constexpr int IX_KCONTINUOUS = 16;
constexpr int IX_KGLOBAL = 32;
constexpr int IX_KPLAIN = 64;
constexpr int IX_KHYBRID = 0x200;

// A new index of the table (opened in output or util mode) on nvar columns
// (1-based nvar0), to be filled through the vector. Hybrid indexes only:
// keyflags IX_KHYBRID | IX_KPLAIN, with IX_KUNIQUE and IX_KNOMISS as wanted.
rctype ixcreat(DA_FID* data_set, const char* name, int keyflags, int nvar, const int32_t* nvar0,
               const unsigned char* trntbl, volatile int* interrupt, int maxthreads, IX_FILE_T** handle);
// An index opened to take the rows added after it was last finished. 1282
// when it had been left unfinished (the handle is usable; the caller decides).
rctype ixappnd(DA_FID* data_set, const char* name, int options, volatile int* interrupt, int maxthreads,
               IX_FILE_T** handle);

}  // namespace vrta

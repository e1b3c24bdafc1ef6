// The hybrid index: a global B-tree (.idx) from each distinct key to a
// small record, and the .hbx file with each value's segments: for a value
// found in one segment the stored bitmap alone, for others chunks of
// segment entries chained from the newest back, each entry leading to the
// segment's stored form.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ix/bm.h"
#include "ix/bt.h"
#include "ix/ix.h"
#include "sda/daidx.h"
#include "ssubs/skb.h"
#include "ssubs/zavl.h"

namespace vrta {

constexpr int64_t IXH_MAXSEGS = 0x8000000;  // segment numbers have 27 bits

#pragma pack(push, 1)
// The B-tree's data for a value, 24 bytes.
struct IXHYBRID_BTDATA_D {
    int64_t data_loc;   // newest chunk, or the stored form of a one-segment value
    int64_t obs_data;   // rows of the value; the row for Bm_One_Bit_Set
    int32_t seg_data;   // segments; for one segment the stored length
    uint32_t bits;      // high_segno 27, one_segment 1, spare_segl 1, bm_type 3
};
static_assert(sizeof(IXHYBRID_BTDATA_D) == 24 && offsetof(IXHYBRID_BTDATA_D, bits) == 20);

struct IXHYBRID_UNIQ_BTDATA_D {
    int64_t obs_no;
};

struct IXH_HEADER_D {
    IX_HEADER_D common;
    int32_t n_segs;
    int32_t max_obslist_size;
    int64_t n_segl_values;
    int64_t n_chunks;
    int32_t is_unique;
    int32_t not_used_2;
    int32_t version;
    int32_t dstate;
    double discarded_bytes;
    int64_t n_values;
    uint8_t first_repair[200];
    int32_t n_spare_chunkslots;
    int32_t subversion;
    int64_t n_vdeletes;
    uint32_t pad[60];
};
static_assert(sizeof(IXH_HEADER_D) == 536 && offsetof(IXH_HEADER_D, n_segs) == 24 &&
              offsetof(IXH_HEADER_D, n_segl_values) == 32 && offsetof(IXH_HEADER_D, is_unique) == 48 &&
              offsetof(IXH_HEADER_D, version) == 56 && offsetof(IXH_HEADER_D, discarded_bytes) == 64 &&
              offsetof(IXH_HEADER_D, first_repair) == 80 && offsetof(IXH_HEADER_D, n_spare_chunkslots) == 280 &&
              offsetof(IXH_HEADER_D, n_vdeletes) == 288 && offsetof(IXH_HEADER_D, pad) == 296);

struct IXH_SEGCHUNK_D {
    int64_t next;        // the chunk before, 0 none
    int32_t max_segs;
    int32_t n_segs;
    int32_t low_segno;
    int32_t high_segno;
};
static_assert(sizeof(IXH_SEGCHUNK_D) == 24);

struct IXH_ST_ENTRY_D {
    uint32_t bits;       // seg_no 27, spare1 1, spare2 1, bm_type 3
    uint32_t pad;
    int64_t data;        // stored length, or the row for Bm_One_Bit_Set
    int64_t bm_offset;   // 0 for Bm_One_Bit_Set
};
static_assert(sizeof(IXH_ST_ENTRY_D) == 24 && offsetof(IXH_ST_ENTRY_D, data) == 8);
#pragma pack(pop)

constexpr int32_t IXH_VERSION = 1;
constexpr int32_t IXH_SUBVERSION = 1;
enum : int32_t { IXH_GOOD = 0, IXH_PARTIAL_REPAIR = 1, IXH_FULL_REPAIR = 2, IXH_CANNOT_BE_REPAIRED = 3 };
enum : int { IXH_INITIAL = 0, IXH_APPEND = 1, IXH_UPDATE = 2, IXH_INVALID = 3 };
// Options of ixhycreat and ixhyapnd.
constexpr int IXH_OUNIQUE = 1;
constexpr int IXH_OREPAIR = 32;

inline int32_t ixbt_high_segno(const IXHYBRID_BTDATA_D& d) { return static_cast<int32_t>(d.bits & 0x7ffffff); }
inline int ixbt_one_segment(const IXHYBRID_BTDATA_D& d) { return (d.bits >> 27) & 1; }
inline int ixbt_spare_segl(const IXHYBRID_BTDATA_D& d) { return (d.bits >> 28) & 1; }
inline int ixbt_bm_type(const IXHYBRID_BTDATA_D& d) { return static_cast<int>(d.bits >> 29); }
inline void ixbt_set(IXHYBRID_BTDATA_D& d, int32_t high, int one, int spare, int type) {
    d.bits = (static_cast<uint32_t>(high) & 0x7ffffff) | (static_cast<uint32_t>(one & 1) << 27) |
             (static_cast<uint32_t>(spare & 1) << 28) | (static_cast<uint32_t>(type & 7) << 29);
}
inline int32_t ixste_seg_no(const IXH_ST_ENTRY_D& e) { return static_cast<int32_t>(e.bits & 0x7ffffff); }
inline int ixste_bm_type(const IXH_ST_ENTRY_D& e) { return static_cast<int>(e.bits >> 29); }
inline void ixste_set(IXH_ST_ENTRY_D& e, int32_t seg, int type) {
    e.bits = (static_cast<uint32_t>(seg) & 0x7ffffff) | (static_cast<uint32_t>(type & 7) << 29);
}
// The 24-byte record of a unique index's 8 bytes: one segment, one row.
void ixhy_convert_uniq_btdata(const IXHYBRID_UNIQ_BTDATA_D* u, int64_t segsize, IXHYBRID_BTDATA_D* d);
// The threshold between a list of rows and a bitmap for maps of size bytes.
inline int32_t ixhy_max_obslist(int32_t bitmap_size) {
    int32_t q = bm_mincpr(bitmap_size) / 8;
    return 2 * (q > 1 ? q : 1);
}

// ---------------------------------------------------------------- a build

// One segment of a value in the hands of a build.
struct IXH_BITMAP_SEGMENT_B {
    IXH_ST_ENTRY_D ste;
    hs_obsno_t* obslist;    // max_obslist_size rows
    uint32_t* bitmap;       // bitmap_size bytes, then cprbuf of as many
    char* cprbuf;
    const void* store;      // what is to be written
    char* saved;            // the stored form of a closed segment, kept until the value is written
    int64_t storelen;
    hs_obsno_t high_obsno, low_obsno;
    int64_t n_obs;
    int flags;              // IXH_SEG_xxx
    da_off_t oldoff;        // the place the segment had, -1 none
    int64_t oldlen;
    IXH_BITMAP_SEGMENT_B* next;
};
constexpr int IXH_SEG_BITMAP = 1;    // rows are in bitmap
constexpr int IXH_SEG_COPIED = 2;    // the entry stands as it was, not written again
constexpr int IXH_SEG_REPLACES = 4;  // takes the place of the chain's last entry

// One value in the hands of a build.
struct IXH_VENTRY_B {
    AVLTREE t;              // its node in ventry_tree (first, for the tree)
    int flags;              // IXH_VE_xxx
    int64_t n_obs;          // rows added by this build
    int64_t n_segments;     // segments that are new to the value
    double discarded_bytes;
    int discarded_chunks;
    IXH_BITMAP_SEGMENT_B* stable;       // first segment
    IXH_BITMAP_SEGMENT_B* current_seg;  // last
    BT_PUTINFO putinfo;
    IXHYBRID_BTDATA_D btdata;
    char value[8];          // key bytes, as long as the key (allocated with the entry)
};
constexpr int IXH_VE_NEW = 0x2;
constexpr int IXH_VE_LOADED = 0x4;
constexpr int IXH_VE_NEWCHAIN = 0x8;
constexpr int IXH_VE_WROTECHUNK = 0x200;
constexpr int IXH_VE_COUNTED = 0x800;
constexpr int IXH_VE_KEEPFIRST = 0x8000;
constexpr int IXH_VE_UNDELETED = 0x10000;

// The write handle.
struct IXH_HEADER_B {
    IXH_HEADER_D disk;
    da_off_t filep;                     // next write in .hbx
    IXH_BITMAP_SEGMENT_B* bseg_cache;
    IXH_VENTRY_B* ventry;               // the value in hand of a sorted build
    AVLTREE* ventry_tree;               // the values of an unsorted build
    DA_IDX* iid;                        // .idx, the tree's file
    DA_IDX* hybiid;                     // .hbx
    DB* db_ptr;
    SKB_KEY* skb;
    int32_t keylen;
    int is_repair_append;
    int is_sorted_append;
    int need_to_flush;
    int ventry_tree_is_list;
    int is_seg_overflow;
    rctype add_error;
    int32_t bitmap_size;
    hs_obsno_t start_obsno;
    hs_obsno_t last_obsno;
    int64_t n_good_appends;
    int bstate;
    int max_threads;
    int64_t nrows;                      // rows added in all
    void* upd;                          // the changes waiting for ixhy_flush_update
    int did_append;                     // rows were added: they are covered up to last_obsno
    int is_truncate;                    // rows after last_obsno went
    int upd_failed;                     // a batch of changes failed half-way
};

// What a finished build reports.
struct IXH_STATS {
    hs_obsno_t rows;        // rows the index covers
    int64_t n_values;
    int has_minmax;
    char* minkey;           // keylen bytes each, caller's buffers (may be null)
    char* maxkey;
};

// A new index over both files (created empty, opened for writing).
rctype ixhycreat(DA_IDX* hbx, DA_IDX* idx, int32_t keylen, int64_t segsize, int options, SKB_KEY* skb,
                 hs_obsno_t last_obsno, int max_threads, IXH_HEADER_B** hp);
// An index opened for the rows after indexed, up to last_obsno.
rctype ixhyapnd(DA_IDX* hbx, DA_IDX* idx, int64_t segsize, int options, SKB_KEY* skb, hs_obsno_t indexed,
                hs_obsno_t last_obsno, int max_threads, IXH_HEADER_B** hp);
// A row in any order of value (rows rising); value is keylen bytes.
rctype ixhyadd(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no, int thrd_indx);
// A sorted record: key, then the row as 8 bytes in big-endian order
// (obsno 0 takes it from there).
rctype ixhysrtadd(IXH_HEADER_B* h, const void* value, hs_obsno_t obsno, int thrd_indx);
// The uniqueness probe: 0 and *obsret when the value has a row other than obs_no, 1 when not.
rctype ixhyfind(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no, hs_obsno_t* obsret);
// Flushes, writes the header clean (or what can be repaired), closes the tree.
rctype ixhyfin(IXH_HEADER_B* h, IXH_STATS* stats);
rctype ixhyabort(IXH_HEADER_B* h);

// Changes to an indexed table, collected per value and written as a batch
// by ixhy_flush_update (ixhyfin flushes what is left). A value that loses
// its last row stays in the tree, marked deleted. A delete of a value the
// index doesn't have is no error; a row missing from a value it has is.
rctype ixhydelete(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no);
// A row moving from old_key's value to new_key's; old_key null: the row joins new_key's.
rctype ixhyupdt(IXH_HEADER_B* h, const void* old_key, const void* new_key, hs_obsno_t obs_no);
// A unique index forgets the rows after obsno.
rctype ixhytruncate(IXH_HEADER_B* h, hs_obsno_t obsno);
rctype ixhy_prepare_for_update(IXH_HEADER_B* h, int32_t segno);
rctype ixhy_flush_update(IXH_HEADER_B* h);
void ixhy_free_update(IXH_HEADER_B* h);

// Shared by the writers.
rctype ixhy_write(IXH_HEADER_B* h, const void* buf, int64_t len, da_off_t off);
rctype ixhy_wrhdr(IXH_HEADER_B* h);
rctype ixhy_prepare_for_append(IXH_HEADER_B* h);
rctype ixhy_flush_append(IXH_HEADER_B* h);

// A hybrid index made over a table open in output or util mode: its record
// and files, then every live row's key. A failed build leaves no index.
constexpr int IX_BUNIQUE = 1;  // a value may have one row only
constexpr int IX_BNOMISS = 2;  // rows whose key is missing are left out
struct IX_BUILDREQ {
    const char* name;
    int nvar;
    const int32_t* varnos;     // 1-based columns
    int flags;                 // IX_BUNIQUE, IX_BNOMISS
    int64_t memsize;           // sort memory; 0: INDEX_SORTSIZE, SORTSIZE, else 64 MB (bins of 2 MB at most)
    volatile int* interrupt;   // polled; non-zero stops the build
    // phase 1 rows read into the sort, 2 keys into the index; done of total
    void (*progress)(void* arg, int phase, int64_t done, int64_t total);
    void* progress_arg;
};
rctype ixhybuild(DA_FID* fp, const IX_BUILDREQ* req);

// Reading.
rctype ixhy_rdhdr(DA_IDX* hbx, IXH_HEADER_D* header, int options);
// The segment entries of a value from its B-tree record, in rising segment
// order; *n set, the array malloc'ed (free it).
rctype ixhy_value_segs(DA_IDX* hbx, const IXH_HEADER_D* hdr, const IXHYBRID_BTDATA_D* bt, IXH_ST_ENTRY_D** segs,
                       int64_t* n);
// The same into out (its memory kept from call to call).
rctype ixhy_value_segv(DA_IDX* hbx, const IXH_HEADER_D* hdr, const IXHYBRID_BTDATA_D* bt,
                       std::vector<IXH_ST_ENTRY_D>* out);

}  // namespace vrta

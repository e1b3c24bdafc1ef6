// The read side of the hybrid index: the handle of an open index and the
// scan operations of its query vector. Readers take no lock: each works
// from its copy of the .hbx header and never looks past its n_segs, which
// a writer raises on disk only once a flush is complete.
#pragma once
#include <cstdint>
#include <vector>

#include "ix/ixfe.h"
#include "ix/ixhy.h"

namespace vrta {

// What one scan thread holds: its tree handle, its own handles on both
// files (slot 0 uses the index's), a buffer for a chunk's entries.
struct IXH_THREAD_R {
    DB* db;
    DA_IDX* idx;
    DA_IDX* hbx;
    bool ownfiles;
    std::vector<IXH_ST_ENTRY_D> chunk;
    std::vector<char> lowkey;
    uint64_t steps;            // moves of the tree's cursor: a saved place is stale once they change
};

struct IXH_HEADER_R {
    IXH_HEADER_D disk;         // as of the last refresh
    DA_IDX* iid;               // .hbx
    DA_IDX* hybiid;            // .idx
    int32_t bitmap_size;
    int max_seg_ratio;         // percentage; negative values count as 0
    int max_threads;
    DB** db_ptr_ptr;           // one tree handle per scan thread, opened at first use
    int is_updated;            // set by a refresh
    void* global;              // the global scan in hand
    int64_t max_glob_obsno;    // rows a pre-evaluation keeps as a list before a bitmap
    // Ours.
    IXH_THREAD_R* thr;         // max_threads slots
    DA_FID* fp;
    char name[33];
    SKB_KEY* skb;
    int32_t keylen;
    uint32_t datalen;          // 8 for a unique index, else 24
    rctype refresh_rc;         // what the last refresh from the storage layer found
};

// Opens both files of index name of fp; 0 or 1282 (left unfinished) with *hp.
rctype ixhyopen(DA_FID* fp, const char* name, int max_threads, IXH_HEADER_R** hp);
rctype ixhyclose(void* h);
// Re-reads the header after another opener changed the index.
rctype ixhy_refresh(IXH_HEADER_R* h);

rctype ixhycount(void* h, const void* value, hs_obsno_t obs, int64_t* count);
rctype ixhyseg(void* h, IX_SEGOP_T* segop, int threadno, int cache);
rctype ixhypnt(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high, int threadno, int cache);
rctype ixhyvlst(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high, ix_valfn_t each, void* arg);
rctype ixhyminnomiss(void* h, void* value);
rctype ixhyresync(void* h);
rctype ixhypreseg(void* h, IX_SEGOP_T* segop, int nsets, IX_SEGSTATS_T* stats);
rctype ixhyprepnt(void* h, IX_SEGOP_T* l_segop, IX_SEGOP_T* h_segop, int nsets, IX_SEGSTATS_T* stats);
rctype ixhypreeval(void* h, IX_SEGOP_T* segop);
rctype ixhypreevalpnt(void* h, IX_SEGOP_T* low, IX_SEGOP_T* high);
rctype ixhypreevallist(void* h, IX_SEGOP_T* segop, int threadno);
rctype ixhypreevalcln(void* h, void* tree);

// The global scan (see IX_INDEXFP_T), on tree slot 0.
rctype ixhygsetpnt(void* h, const void* loval, int locomp, int lolen, const void* hival, int hicomp, int hilen,
                   int ignore);
rctype ixhyggetpnt(void* h, const IX_BOUNDS_T* bounds, void* values, hs_obsno_t* obsno, int64_t* size);
rctype ixhyggetlist(void* h, const IX_BOUNDS_T* bounds, ix_list_t** list, void* value);
rctype ixhygsetrng(void* h, const void* low, int low_comp, const void* high, int high_comp, int len);
rctype ixhyggetrng(void* h, int obsrange, void* value, hs_obsno_t* low, hs_obsno_t* high, int64_t* n);
rctype ixhygcount(void* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, int64_t* count);
rctype ixhygscan(void* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, IX_GSCAN* gscan);
void ixhy_cleanup_global(IXH_HEADER_R* h);

// Segment lists: bit s + 1 stands for segment s.
rctype ixhy_set_segbit(ix_list_t* list, int64_t segno, int64_t segsize, int64_t* count);
int Isset_segbit(const ix_list_t* list, int64_t segno);


// Shared by the files of the hybrid read side.
namespace ixhyr {

// A cursor over the values of a range, on one thread's tree.
struct Seq {
    IXH_HEADER_R* h;
    IXH_THREAD_R* t;
    const unsigned char* lo = nullptr;
    int lolen = 0, locomp = IX_GE;
    const unsigned char* hi = nullptr;
    int hilen = 0, hicomp = IX_LE;
    const unsigned char* key = nullptr;  // the current value, valid until the next step
    IXHYBRID_BTDATA_D data{};
    bool exact = false;                  // the first value equals the low bound
    bool keepdeleted = false;            // values marked deleted are stopped at too
};

inline int64_t segsize(const IXH_HEADER_R* h) { return h->disk.common.segment_size; }
// The tree of thread slot n, opened at first use.
rctype ixhy_btrof(IXH_HEADER_R* h, int n);
// Steps (first: from the low bound) to the next value of the range: 0, 1 at the end, or a code.
rctype seqstep(Seq& q, bool first);
// The bounds of a range checked (0x80000519 for a relation a range can't have), into q.
rctype setbounds(IXH_HEADER_R* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, Seq* q);
// The entries of a value in rising segment order, below the header's n_segs.
rctype valuesegs(IXH_HEADER_R* h, const IXHYBRID_BTDATA_D& bt, std::vector<IXH_ST_ENTRY_D>* out);
// The list form of an entry of the segment at base.
IX_BITMAP_SEGMENT_D diskof(const IXH_ST_ENTRY_D& e, hs_obsno_t base);

}  // namespace ixhyr

}  // namespace vrta

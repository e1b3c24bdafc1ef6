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

// Segment lists: bit s + 1 stands for segment s.
rctype ixhy_set_segbit(ix_list_t* list, int64_t segno, int64_t segsize, int64_t* count);
int Isset_segbit(const ix_list_t* list, int64_t segno);

}  // namespace vrta

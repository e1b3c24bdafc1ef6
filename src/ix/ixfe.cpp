// The index front end: opening an index for reading and the dispatch of
// its query vector to the kind of index in the file; keys made from rows
// and values. Operations a kind does not offer answer with a refusal, never
// with a made-up result.
#include "ix/ixfe.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "ix/ixhyr.h"
#include "sda/daidx.h"
#include "sda/darc.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/ixfe";

// The defaults of a vector: an operation the kind of index lacks.
rctype ix_default_close(void*) { return 0; }
rctype ix_default_count(void*, const void*, hs_obsno_t, int64_t*) { return IX_BADOPTS; }
rctype ix_default_seg(void*, IX_SEGOP_T*, int, int) { return IX_BADOPTS; }
rctype ix_default_pnt(void*, IX_SEGOP_T*, IX_SEGOP_T*, int, int) { return IX_BADOPTS; }
rctype ix_dummy_vallist(void*, IX_SEGOP_T*, IX_SEGOP_T*, ix_valfn_t, void*) { return IX_BADOPTS; }
rctype ix_dummy_minnomiss(void*, void*) { return IX_BADOPTS; }
rctype ix_default_gsetpnt(void*, const void*, int, int, const void*, int, int, int) { return IX_BADOPTS; }
rctype ix_default_ggetpnt(void*, const IX_BOUNDS_T*, void*, hs_obsno_t*, int64_t*) { return IX_BADOPTS; }
rctype ix_default_resynch(void*) { return 0; }
rctype ix_default_preseg(void*, IX_SEGOP_T*, int, IX_SEGSTATS_T*) { return IX_BADOPTS; }
rctype ix_default_prepnt(void*, IX_SEGOP_T*, IX_SEGOP_T*, int, IX_SEGSTATS_T*) { return IX_BADOPTS; }
rctype ix_default_preeval(void*, IX_SEGOP_T*) { return IX_BADOPTS; }
rctype ix_default_preevalpnt(void*, IX_SEGOP_T*, IX_SEGOP_T*) { return IX_BADOPTS; }
rctype ix_default_preevallist(void*, IX_SEGOP_T*, int) { return IX_BADOPTS; }
rctype ix_default_preevalcln(void*, void*) { return IX_BADOPTS; }
rctype ix_default_gcount(void*, const IX_SEGOP_T*, const IX_SEGOP_T*, int64_t*) { return IX_BADOPTS; }
rctype ix_default_ggetlist(void*, const IX_BOUNDS_T*, ix_list_t**, void*) { return IX_BADOPTS; }
rctype ix_default_gsetrng(void*, const void*, int, const void*, int, int) { return IX_BADOPTS; }
rctype ix_default_ggetrng(void*, int, void*, hs_obsno_t*, hs_obsno_t*, int64_t*) { return IX_BADOPTS; }
rctype ix_default_gscan(void*, const IX_SEGOP_T*, const IX_SEGOP_T*, IX_GSCAN*) { return IX_BADOPTS; }

void defaults(IX_INDEXFP_T* fp) {
    *fp = IX_INDEXFP_T{ix_default_close,     ix_default_count,      ix_default_seg,        ix_default_pnt,
                       ix_dummy_vallist,     ix_dummy_minnomiss,    ix_default_gsetpnt,    ix_default_ggetpnt,
                       ix_default_resynch,   ix_default_preseg,     ix_default_prepnt,     ix_default_preeval,
                       ix_default_preevalpnt, ix_default_preevallist, ix_default_preevalcln, ix_default_gcount,
                       ix_default_ggetlist,  ix_default_gsetrng,    ix_default_ggetrng,    ix_default_gscan};
}

void hybrid(IX_INDEXFP_T* fp) {
    fp->close = ixhyclose;
    fp->count = ixhycount;
    fp->initseg = ixhyseg;
    fp->pnt = ixhypnt;
    fp->vallist = ixhyvlst;
    fp->minnomiss = ixhyminnomiss;
    fp->resynch = ixhyresync;
    fp->preseg = ixhypreseg;
    fp->prepnt = ixhyprepnt;
    fp->preeval = ixhypreeval;
    fp->preevalpnt = ixhypreevalpnt;
    fp->preevallist = ixhypreevallist;
    fp->preevalcln = ixhypreevalcln;
    fp->gsetpnt = ixhygsetpnt;
    fp->ggetpnt = ixhyggetpnt;
    fp->ggetlist = ixhyggetlist;
    fp->gsetrng = ixhygsetrng;
    fp->ggetrng = ixhyggetrng;
    fp->gcount = ixhygcount;
    fp->gscan = ixhygscan;
}

// The kind of index in a file: the first 24 bytes of its .hbx, which a
// hybrid index has; an index without one is of a kind not read here.
rctype kindof(DA_FID* fp, const char* name, int32_t* type) {
    DA_IDX* ip = nullptr;
    rctype rc = fp->mt->openidx(fp, name, DA_IDXFHBX, &ip);
    if (rc == DA_NOTFOUND) return IX_BADOPTS;
    if (rc < 0) return rc;
    IX_HEADER_D hd{};
    long nread = 0;
    rc = ip->mt->readidx(ip, &hd, sizeof hd, 0, &nread);
    rctype crc = ip->mt->closeidx(ip, DA_IDXIGNORE);
    if (rc < 0 || nread != static_cast<long>(sizeof hd)) return IX_READFAIL;
    if (crc < 0) return crc;
    if (hd.version != IX_VERSION) return IX_BADVERSION;
    *type = hd.type;
    return 0;
}

}  // namespace

rctype ixopen(DA_FID* data_set, const char* index_name, int options, int max_whthreads, void* targenv,
              IX_INDEX_T** handle) {
    if (!handle) return IX_BADOPTS;
    *handle = nullptr;
    if (!data_set || !index_name || (options & ~(IX_OUPDATE | IX_OPLAIN))) return IX_BADOPTS;
    // Writes go through the writers' handle; a plain tree is no kind read here.
    if (options) return IX_BADOPTS;
    DA_KEYSTR k{};
    rctype rc = data_set->mt->queryicb(data_set, index_name, &k);
    if (rc < 0) return rc;
    // The table's records say the index is behind or damaged: it must be rebuilt.
    if (k.checks & DA_ICBBAD) return IX_NEEDREPAIR;
    int32_t type = 0;
    if ((rc = kindof(data_set, index_name, &type)) < 0) return rc;
    auto* ix = static_cast<IX_INDEX_T*>(calloc(1, sizeof(IX_INDEX_T)));
    if (!ix) return IX_NOMEM;
    defaults(&ix->fp);
    ix->fid = data_set;
    ix->targenv = targenv;
    ix->type = type;
    switch (type) {
    case IX_HYBRID: {
        IXH_HEADER_R* h = nullptr;
        rc = ixhyopen(data_set, index_name, max_whthreads, &h);
        if (rc >= 0) {
            ix->ix_private = h;
            ix->skbp = h->skb;
            ix->keylen = h->keylen;
            hybrid(&ix->fp);
        }
        break;
    }
    default:
        rc = IX_BADOPTS;
        break;
    }
    if (rc < 0) {
        free(ix);
        return rc;
    }
    *handle = ix;
    return rc;
}

rctype ixclose(IX_INDEX_T* handle) {
    if (!handle) return 0;
    rctype rc = handle->fp.close(handle->ix_private);
    free(handle);
    return rc;
}

rctype ixinfo(IX_INDEX_T* handle, int64_t* nsegs, int64_t* segsize) {
    if (!handle || !nsegs || !segsize || handle->type != IX_HYBRID) return IX_BADOPTS;
    const auto* h = static_cast<const IXH_HEADER_R*>(handle->ix_private);
    *nsegs = h->disk.n_segs;
    *segsize = h->disk.common.segment_size;
    return 0;
}

rctype ixmkkey(IX_INDEX_T* handle, const void* row, void* key) {
    if (!handle || !row || !key || !handle->skbp) return IX_BADOPTS;
    SKB_KEY* skb = handle->skbp;
    std::vector<char> rec(static_cast<size_t>(skb->info.reclen) + 8);
    long n = 0;
    int miss = 0;
    rctype rc = skb->mt.makekey(skb, row, 0, rec.data(), &n, &miss);
    if (rc < 0) return rc;
    memcpy(key, rec.data(), static_cast<size_t>(handle->keylen));
    return 0;
}

rctype ixgetkey(IX_INDEX_T* handle, const void* const* vp, int n, void* key, int* len) {
    if (!handle || !vp || !key || !len || !handle->skbp) return IX_BADOPTS;
    const SKB_INFO& in = handle->skbp->info;
    if (n < 1 || n > in.ncols) return IX_BADOPTS;
    // A row image with the values at their columns' places; the rest stays zero.
    int32_t rowlen = 0;
    for (int i = 0; i < in.ncols; ++i) rowlen = std::max(rowlen, in.cols[i].npos + in.cols[i].nlng);
    std::vector<char> row(static_cast<size_t>(rowlen));
    for (int i = 0; i < n; ++i) {
        if (!vp[i]) return IX_BADOPTS;
        memcpy(row.data() + in.cols[i].npos, vp[i], static_cast<size_t>(in.cols[i].nlng));
    }
    rctype rc = ixmkkey(handle, row.data(), key);
    if (rc < 0) return rc;
    *len = n == in.ncols ? handle->keylen : in.cols[n].koff;
    return 0;
}

}  // namespace vrta

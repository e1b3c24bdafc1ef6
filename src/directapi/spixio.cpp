// Rows through an index for a host: an index opened by name, and the row
// pointer cursor walking a key range of it in key order. The index gives
// row numbers; sp_readobs fetches their rows in file order and hands them
// out in the index's.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "directapi/sp.h"
#include "directapi/sppnt.h"
#include "hs/hs.h"
#include "ix/ix.h"
#include "sda/darc.h"
#include "sda/daidx.h"

using namespace vrta;

namespace {

constexpr rctype SP_NOMORE = 1284;

bool dynamic(const SP_FID* s) { return (s->dafid->fidflags & DA_FIDDYNAMIC) != 0; }

SP_PNT* pntof(void* v) { return static_cast<SP_PNT*>(v); }

// Reads under the table's read share when another opener may change it.
struct ReadShare {
    DA_FID* fp = nullptr;
    rctype rc = 0;
    explicit ReadShare(SP_FID* s) {
        if (!dynamic(s)) return;
        rc = s->dafid->mt->setshare(s->dafid, DA_SHRREAD);
        if (rc >= 0) fp = s->dafid;
    }
    rctype end() {
        if (!fp) return 0;
        rctype r = fp->mt->setshare(fp, DA_SHRCLEAR);
        fp = nullptr;
        return r;
    }
    ~ReadShare() { daignore(end()); }
};

void dropscan(SP_PNT* p) {
    if (p->list) ixfreel(p->list);
    p->list = nullptr;
    p->eof = 1;
    p->markobs = 0;
    p->numobs = 0;
}

// One run of neighbouring rows, first..first+n-1, into the row buffer at slot.
rctype readrun(SP_PNT* p, int64_t first, long n, long slot, long* got) {
    DA_IOCB* iocb = p->iocb;
    int32_t obslen = p->spfid->dafid->xoehdr->ioreclen;
    p->iobvec.bufptr = p->rows + slot * obslen;
    p->iobvec.obsvec = nullptr;
    p->iobvec.numobs = 0;
    rctype rc = iocb->mt->setbuf(iocb, &p->iobvec, n * obslen);
    if (rc < 0) return rc;
    p->iobvec.locator = first;
    rc = iocb->mt->dareadv(iocb, 1);
    p->iobvec.locator = -1;
    *got = 0;
    if (rc == DA_EOF || rc == DA_PASTEND) return 0;
    if (rc < 0) return rc;
    *got = std::min<long>(n, p->iobvec.numobs > 0 ? p->iobvec.numobs : 0);
    return 0;
}

rctype setscan(SP_PNT* p, void* vixp, const SP_VALUE* lo, const SP_VALUE* hi, int64_t markobs) {
    auto* ix = static_cast<SP_INDEX*>(vixp);
    if (!p || !ix || !ix->ixfp || ix->spfid != p->spfid) return DA_BADARG;
    IX_INDEX_T* h = ix->ixfp;
    if ((lo && (!lo->valp || lo->len < 1 || lo->len > h->keylen)) ||
        (hi && (!hi->valp || hi->len < 1 || hi->len > h->keylen)))
        return DA_BADARG;
    dropscan(p);
    p->spix = ix;
    ReadShare share(p->spfid);
    if (share.rc < 0) return share.rc;
    rctype rc = h->fp.gsetpnt(h->ix_private, lo ? lo->valp : nullptr, lo ? lo->op : IX_GE, lo ? lo->len : 0,
                              hi ? hi->valp : nullptr, hi ? hi->op : IX_LE, hi ? hi->len : 0, 0);
    rctype src = share.end();
    if (rc < 0) return rc;
    if (src < 0) return src;
    p->eof = 0;
    p->markobs = markobs;
    p->nrows = p->nasked = p->ndropped = 0;
    return 0;
}

void failed(const SP_PNT* p, const char* what, rctype rc) {
    const u_sname& n = p->spix->ixname;
    hsprint("spptget: %s failed: Index=%.*s Reason=%s\n", what, n.len, n.name, hsstrer(rc));
}

}  // namespace

namespace vrta {

rctype sp_readobs(SP_PNT* p, long nobs, char* obsbuf, long* numobs) {
    *numobs = 0;
    if (nobs <= 0) return 0;
    if (nobs > p->obsperbuf) return DA_BADARG;
    SP_FID* s = p->spfid;
    DA_FID* fp = s->dafid;
    int32_t obslen = fp->xoehdr->ioreclen;
    // File order, each row once.
    std::copy(p->obsvec, p->obsvec + nobs, p->ordvec);
    std::sort(p->ordvec, p->ordvec + nobs);
    long nord = std::unique(p->ordvec, p->ordvec + nobs) - p->ordvec;
    // A row that could not be read (past the end) keeps number 0 in ordvec.
    rctype rc = 0;
    for (long i = 0; i < nord && rc >= 0;) {
        long j = i + 1;
        while (j < nord && p->ordvec[j] == p->ordvec[j - 1] + 1) j++;
        long got = 0;
        rc = p->ordvec[i] < 1 ? 0 : readrun(p, p->ordvec[i], j - i, i, &got);
        for (long k = i + got; k < j; k++) p->ordvec[k] = 0;
        i = j;
    }
    if (rc < 0) return rc;
    DA_FCB* fcb = fcbof(fp);
    DA_DMPBM* bmp = nullptr;
    if (fp->xoehdr->numdelete > 0) {
        bmp = dadmnewbm(fcb);
        if (!bmp) return SP_NOMEM;
    }
    long n = 0;
    for (long t = 0; t < nobs; t++) {
        int64_t o = p->obsvec[t];
        const int64_t* at = std::lower_bound(p->ordvec, p->ordvec + nord, o);
        if (o < 1 || at == p->ordvec + nord || *at != o || (bmp && dadmisdel(fcb, bmp, o))) {
            p->ndropped++;
            continue;
        }
        std::memcpy(obsbuf + n * obslen, p->rows + (at - p->ordvec) * obslen, obslen);
        p->obsvec[n++] = o;
    }
    dadmfreebm(bmp);
    if ((s->tpflags & SP_TPIN) && n > 0) {
        long done = 0;
        rc = spitptrans(s, obsbuf, n, &done);
        if (rc < 0) return rc;
    }
    *numobs = n;
    p->numobs = n;
    p->nrows += n;
    return 0;
}

}  // namespace vrta

extern "C" {

int spixopen(void* vfid, const char* ixname, int ixname_l, int /*mmap*/, void** newix) {
    if (!newix) return DA_BADARG;
    *newix = nullptr;
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !ixname) return DA_BADARG;
    size_t l = ixname_l < 0 ? std::strlen(ixname) : static_cast<size_t>(ixname_l);
    if (l < 1 || l > 32) return DA_BADARG;
    char name[33];
    std::memcpy(name, ixname, l);
    name[l] = 0;
    DA_KEYSTR k{};
    rctype rc = s->dafid->mt->queryicb(s->dafid, name, &k);
    if (rc < 0) return rc == DA_NOTFOUND ? DA_NOTFOUND : rc;
    auto* ix = static_cast<SP_INDEX*>(std::calloc(1, sizeof(SP_INDEX)));
    if (!ix) return SP_NOMEM;
    IX_INDEX_T* h = nullptr;
    rc = ixopen(s->dafid, name, 0, 1, nullptr, &h);
    if (rc == IX_LEFTDIRTY) {
        // A writer at work or dead: its rows can't be trusted here.
        daignore(ixclose(h));
        rc = IX_NEEDREPAIR;
    }
    if (rc < 0) {
        std::free(ix);
        return rc;
    }
    ix->spfid = s;
    ix->ixfp = h;
    ix->ixname.len = static_cast<int16_t>(k.name_l);
    std::memset(ix->ixname.name, ' ', sizeof ix->ixname.name);
    std::memcpy(ix->ixname.name, k.name, static_cast<size_t>(k.name_l));
    *newix = ix;
    return 0;
}

int spixclose(void* vixp) {
    auto* ix = static_cast<SP_INDEX*>(vixp);
    if (!ix) return DA_BADARG;
    rctype rc = ixclose(ix->ixfp);
    if (rc < 0) hsprint("spixclose: IXCLOSE failed: Index=%.*s Reason=%s\n", ix->ixname.len, ix->ixname.name, hsstrer(rc));
    std::free(ix);
    return rc;
}

int spixinfo(void* vfid, int ixno, spixinfo_t* ixinfo) {
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !ixinfo || ixno < 0) return DA_BADARG;
    int i = 0;
    for (auto* icb = static_cast<DA_ICB*>(fcbof(s->dafid)->icbs); icb; icb = icb->next, ++i) {
        if (i != ixno) continue;
        const DA_KEYSTR& k = icb->kstr;
        std::memset(ixinfo, 0, sizeof *ixinfo);
        ixinfo->name_l = k.name_l;
        std::memcpy(ixinfo->name, k.name, static_cast<size_t>(k.name_l));
        ixinfo->type = k.type;
        ixinfo->flags = k.keyflags;
        ixinfo->keylen = k.keylen;
        ixinfo->nvars = k.nvar;
        std::memcpy(ixinfo->nvar0, k.nvar0, sizeof(int32_t) * static_cast<size_t>(std::clamp(k.nvar, 0, 64)));
        return 0;
    }
    return DA_BADARG;
}

int spixsync(void* vixp) {
    auto* ix = static_cast<SP_INDEX*>(vixp);
    if (!ix || !ix->ixfp) return DA_BADARG;
    ReadShare share(ix->spfid);
    if (share.rc < 0) return share.rc;
    rctype rc = ix->ixfp->fp.resynch(ix->ixfp->ix_private);
    rctype src = share.end();
    return rc < 0 ? rc : src;
}

int spixkey(void* vixp, const void* row, void* key) {
    auto* ix = static_cast<SP_INDEX*>(vixp);
    if (!ix || !ix->ixfp || !row || !key) return DA_BADARG;
    return ixmkkey(ix->ixfp, row, key);
}

int spptset(void* vpnt, void* vixp, const SP_VALUE* lo, const SP_VALUE* hi) {
    return setscan(pntof(vpnt), vixp, lo, hi, 0);
}

int spptmark(void* vpnt, void* vixp, const SP_VALUE* lo, const SP_VALUE* hi, int64_t markobs) {
    if (markobs < 1) return DA_BADARG;
    return setscan(pntof(vpnt), vixp, lo, hi, markobs);
}

int spptget(void* vpnt, void* obsbuf, long* numobs) {
    if (numobs) *numobs = 0;
    SP_PNT* p = pntof(vpnt);
    if (!p || !obsbuf || !numobs) return DA_BADARG;
    if (p->eof) return SP_NOMORE;
    if (!p->spix) return DA_BADARG;
    IX_INDEX_T* h = p->spix->ixfp;
    ReadShare share(p->spfid);
    if (share.rc < 0) return share.rc;
    long n = 0;
    // Rows all deleted, or before the mark, give nothing: ask on.
    while (n == 0 && !p->eof) {
        int64_t size = p->obsperbuf;
        rctype rc = h->fp.ggetpnt(h->ix_private, p->bp, nullptr, p->obsvec, &size);
        if (rc < 0) {
            failed(p, "IXGGETPNT", rc);
            p->eof = 1;
            return rc;
        }
        if (size < p->obsperbuf) p->eof = 1;
        p->nasked += size;
        long from = 0;
        if (p->markobs > 0) {
            while (from < size && p->obsvec[from] != p->markobs) from++;
            if (from == size) continue;
            p->markobs = 0;
            std::memmove(p->obsvec, p->obsvec + from, sizeof(int64_t) * static_cast<size_t>(size - from));
        }
        rc = sp_readobs(p, static_cast<long>(size - from), static_cast<char*>(obsbuf), &n);
        if (rc < 0) {
            failed(p, "sp_readobs", rc);
            return rc;
        }
    }
    rctype src = share.end();
    if (src < 0) return src;
    *numobs = n;
    return n > 0 ? 0 : SP_NOMORE;
}

int spptinfo(void* vpnt, int what, void* where) {
    SP_PNT* p = pntof(vpnt);
    if (!p || !where) return DA_BADARG;
    switch (what) {
    case SP_PTROWS: *static_cast<int64_t*>(where) = p->nrows; return 0;
    case SP_PTASKED: *static_cast<int64_t*>(where) = p->nasked; return 0;
    case SP_PTDROPPED: *static_cast<int64_t*>(where) = p->ndropped; return 0;
    case SP_PTEOF: *static_cast<int32_t*>(where) = p->eof; return 0;
    case SP_PTOBSVEC: *static_cast<int64_t**>(where) = p->obsvec; return 0;
    default: return DA_BADARG;
    }
}

int spptgetlist(void* vpnt, void** bitmap) {
    if (bitmap) *bitmap = nullptr;
    SP_PNT* p = pntof(vpnt);
    if (!p || !bitmap || !p->spix) return DA_BADARG;
    if (p->list) ixfreel(p->list);
    p->list = nullptr;
    IX_INDEX_T* h = p->spix->ixfp;
    ReadShare share(p->spfid);
    if (share.rc < 0) return share.rc;
    ix_list_t* l = nullptr;
    rctype rc = p->eof ? 0 : h->fp.ggetlist(h->ix_private, p->bp, &l, nullptr);
    if (rc < 0) {
        failed(p, "IXGGETLIST", rc);
        return rc;
    }
    p->eof = 1;
    if (!l) {
        // Nothing left in the range: an empty list.
        if (ixgetl(&l) != 0) return SP_NOMEM;
    }
    ixrwndl(l);
    rctype src = share.end();
    p->list = l;
    *bitmap = l;
    return src < 0 ? src : 0;
}

int spptreadlist(void* vpnt, void* bitmap, void* obsbuf, long* numobs) {
    if (numobs) *numobs = 0;
    SP_PNT* p = pntof(vpnt);
    if (!p || !bitmap || !obsbuf || !numobs || bitmap != p->list) return DA_BADARG;
    ReadShare share(p->spfid);
    if (share.rc < 0) return share.rc;
    long n = 0;
    for (rctype more = 0; n == 0 && more == 0;) {
        int64_t size = p->obsperbuf;
        more = ixrtrve(p->list, p->obsvec, &size);
        if (more < 0) return more;
        p->nasked += size;
        long keep = 0;
        for (int64_t i = 0; i < size; i++) {
            int64_t o = p->obsvec[i];
            if (p->bp && (o < p->bp->first || o > p->bp->last)) continue;
            p->obsvec[keep++] = o;
        }
        if (rctype rc = sp_readobs(p, keep, static_cast<char*>(obsbuf), &n); rc < 0) return rc;
        if (size == 0) break;
    }
    rctype src = share.end();
    if (src < 0) return src;
    *numobs = n;
    return n > 0 ? 0 : SP_NOMORE;
}

}  // extern "C"

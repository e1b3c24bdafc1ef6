// Indexes of a table for a host: made, listed and dropped by name, the
// table opened at the storage layer for the length of the call.
#include <cstring>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "ix/ixfe.h"
#include "ix/ixhy.h"
#include "sda/daidx.h"
#include "sda/darc.h"

using namespace vrta;

namespace {

std::string nameof(const char* s, int l) { return l < 0 ? std::string(s ? s : "") : std::string(s, l); }

// The size of an index's files, partition by partition.
int64_t filebytes(DA_ICB* icb) {
    int64_t total = 0;
    for (auto& f : icb->files) {
        if (!f.fd) continue;
        for (int pno = 0;; ++pno) {
            DA_FDPSTAT ps;
            if (f.fd->fdpstat(f.fd, pno, &ps) < 0) break;
            struct stat st;
            if (dastatf(ps.name, &st) == 0) total += st.st_size;
        }
    }
    return total;
}

}  // namespace

extern "C" int vrtaidxcreate(void* vlib, const char* table, int table_l, const VRTAINDEXDEF* def) {
    if (!def || !def->name || def->ncols < 1 || def->ncols > DA_MAXKEYVARS || !def->cols ||
        (def->flags & ~(VRTAIX_UNIQUE | VRTAIX_NOMISS)) || def->memsize < 0)
        return DA_BADARG;
    std::string t = nameof(table, table_l);
    DA_FID* fp = nullptr;
    rctype rc = spdaopen(vlib, t.data(), static_cast<int>(t.size()), DA_OMUTIL, def->ekey, &fp);
    if (rc < 0) return spmkerr(t.data(), static_cast<int>(t.size()), rc);
    IX_BUILDREQ r{};
    r.name = def->name;
    r.nvar = def->ncols;
    r.varnos = def->cols;
    r.flags = ((def->flags & VRTAIX_UNIQUE) ? IX_BUNIQUE : 0) | ((def->flags & VRTAIX_NOMISS) ? IX_BNOMISS : 0);
    r.memsize = def->memsize;
    r.interrupt = def->interrupt;
    r.progress = def->progress;
    r.progress_arg = def->progress_arg;
    rc = ixhybuild(fp, &r);
    rctype crc = fp->mt->closefid(fp);
    if (rc >= 0 && crc < 0) rc = crc;
    return rc;
}

extern "C" int vrtaidxlist(void* vlib, const char* table, int table_l, const char* ekey, VRTAIDXINFO* out, int n) {
    if (n < 0 || (n > 0 && !out)) return DA_BADARG;
    std::string t = nameof(table, table_l);
    DA_FID* fp = nullptr;
    rctype rc = spdaopen(vlib, t.data(), static_cast<int>(t.size()), DA_OMINPUT, ekey, &fp);
    if (rc < 0) return spmkerr(t.data(), static_cast<int>(t.size()), rc);
    DA_FCB* fcb = fcbof(fp);
    int count = 0;
    for (DA_ICB* icb = static_cast<DA_ICB*>(fcb->icbs); icb; icb = icb->next, ++count) {
        if (count >= n) continue;
        VRTAIDXINFO& o = out[count];
        memset(&o, 0, sizeof o);
        const DA_KEYSTR& k = icb->kstr;
        memcpy(o.name, k.name, k.name_l);
        o.ncols = k.nvar;
        memcpy(o.cols, k.nvar0, sizeof(int32_t) * k.nvar);
        o.keyflags = k.keyflags;
        o.keylen = k.keylen;
        o.numvals = icb->idxkst->numvals;
        o.nummiss = icb->idxkst->nummiss;
        o.highobs = k.highobs;
        o.bytes = filebytes(icb);
        o.usable = !(k.checks & DA_ICBBAD);
    }
    rctype crc = fp->mt->closefid(fp);
    return crc < 0 ? crc : count;
}

extern "C" int vrtaidxdrop(void* vlib, const char* table, int table_l, const char* index, const char* ekey) {
    if (!index) return DA_BADARG;
    std::string t = nameof(table, table_l);
    DA_FID* fp = nullptr;
    rctype rc = spdaopen(vlib, t.data(), static_cast<int>(t.size()), DA_OMUTIL, ekey, &fp);
    if (rc < 0) return spmkerr(t.data(), static_cast<int>(t.size()), rc);
    rc = fp->mt->dropidx(fp, index, 0);
    rctype crc = fp->mt->closefid(fp);
    return rc < 0 ? rc : crc < 0 ? crc : rc;
}

namespace {

// Ranges of more values than this are pre-evaluated.
constexpr int64_t PREEVAL_VALUES = 4;

// The rows of the segments in seglist (every segment when null) that lie
// between lo and hi, handed to each.
rctype scanrows(IX_INDEX_T* ix, IX_SEGOP_T lo, IX_SEGOP_T hi, ix_list_t* seglist, int64_t nsegs, int64_t segsize,
                bool pre, int (*each)(void*, const int64_t*, long), void* arg) {
    constexpr int64_t BATCH = 4096;
    std::vector<hs_obsno_t> rows(BATCH), segs(BATCH);
    rctype rc = 0;
    bool stop = false;
    int64_t next = 0;  // the next segment when there is no list
    if (seglist) ixrwndl(seglist);
    while (rc >= 0 && !stop) {
        int64_t ns = 0;
        rctype end = 1;
        if (seglist) {
            ns = BATCH;
            end = ixrtrve(seglist, segs.data(), &ns);
            if (end < 0) return end;
            for (int64_t i = 0; i < ns; ++i) --segs[static_cast<size_t>(i)];  // row s + 1 stands for segment s
        } else {
            while (ns < BATCH && next < nsegs) segs[static_cast<size_t>(ns++)] = next++;
            end = next < nsegs ? 0 : 1;
        }
        for (int64_t i = 0; i < ns && rc >= 0 && !stop; ++i) {
            lo.segment = segs[static_cast<size_t>(i)] * segsize + 1;
            rc = pre ? ix->fp.preevallist(ix->ix_private, &lo, 0) : ix->fp.pnt(ix->ix_private, &lo, &hi, 0, 0);
            if (rc < 0) break;
            for (rctype more = 0; more == 0 && !stop;) {
                int64_t n = BATCH;
                more = ixrtrve(lo.list, rows.data(), &n);
                if (more < 0) {
                    rc = more;
                    break;
                }
                if (n > 0 && each(arg, rows.data(), static_cast<long>(n)) != 0) stop = true;
            }
        }
        if (end) break;
    }
    ixfreel(lo.list);
    return rc < 0 ? rc : 0;
}

}  // namespace

extern "C" int vrtaidxrows(void* vfid, const char* index, const VRTAIXCOND* cond,
                           int (*each)(void* arg, const int64_t* rows, long n), void* arg) {
    if (!vfid || !index || !cond || !each || (cond->op != VRTAIX_EQ && cond->op != VRTAIX_RANGE) ||
        (cond->op == VRTAIX_EQ && !cond->low) || cond->ncols < 0)
        return DA_BADARG;
    DA_FID* fp = spfidof(vfid)->dafid;
    IX_INDEX_T* ix = nullptr;
    rctype rc = ixopen(fp, index, 0, 1, nullptr, &ix);
    if (rc < 0) return rc;
    if (rc == IX_LEFTDIRTY) {
        // A writer at work or dead: its rows can't be trusted here.
        ixclose(ix);
        return IX_NEEDREPAIR;
    }
    int ncols = cond->ncols;
    if (ncols > ix->skbp->info.ncols) {
        ixclose(ix);
        return DA_BADARG;
    }
    if (ncols == 0) ncols = ix->skbp->info.ncols;
    int len = ncols == ix->skbp->info.ncols ? ix->keylen : ix->skbp->info.cols[ncols].koff;
    std::vector<char> lk(static_cast<size_t>(ix->keylen)), hk(static_cast<size_t>(ix->keylen));
    const void* low = cond->low;
    const void* high = cond->op == VRTAIX_EQ ? cond->low : cond->high;
    if ((low && (rc = ixmkkey(ix, low, lk.data())) < 0) || (high && (rc = ixmkkey(ix, high, hk.data())) < 0)) {
        ixclose(ix);
        return rc;
    }
    IX_SEGOP_T lo{nullptr, low ? lk.data() : nullptr, IX_GE, 0, len, nullptr, nullptr};
    IX_SEGOP_T hi{nullptr, high ? hk.data() : nullptr, IX_LE, 0, len, nullptr, nullptr};
    int64_t nsegs = 0, segsize = 0;
    IX_SEGSTATS_T st{};
    rc = ixinfo(ix, &nsegs, &segsize);
    // The segments with a match; none when the index is not selective enough to list them.
    if (rc == 0) rc = ix->fp.prepnt(ix->ix_private, &lo, &hi, 1, &st);
    ix_list_t* seglist = lo.hy_list;
    // A range of many values is read once for all segments, not value by value in each.
    bool pre = rc == 0 && st.nvalues > PREEVAL_VALUES;
    if (pre) rc = ix->fp.preevalpnt(ix->ix_private, &lo, &hi);
    lo.hy_list = nullptr;
    if (rc == 0) rc = scanrows(ix, lo, hi, seglist, nsegs, segsize, pre, each, arg);
    if (pre && lo.ixpriv) {
        rctype prc = ix->fp.preevalcln(ix->ix_private, lo.ixpriv);
        if (rc == 0) rc = prc;
    }
    ixfreel(seglist);
    rctype crc = ixclose(ix);
    return rc < 0 ? rc : crc;
}

// Indexes of a table for a host: made, listed and dropped by name, the
// table opened at the storage layer for the length of the call.
#include <cstring>
#include <string>

#include "directapi/sp.h"
#include "hs/hs.h"
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

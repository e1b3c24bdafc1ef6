// A hybrid index built over a table: every live row's key, made by the
// index's key block, goes to the index in key order, straight from a table
// known to be sorted by the key, else through the sorter. A build that
// fails leaves no index behind; one that is killed leaves its files marked
// dirty, so that the table's next open reports the index for rebuild.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "hs/sr.h"
#include "ix/ixhy.h"
#include "option/op.h"
#include "sda/daiocb.h"
#include "sda/darc.h"

namespace vrta {

namespace {

// Heap-sorted bins that stay in the processor's cache sort several times
// faster than large ones; the merge of their runs is cheap beside that.
constexpr int64_t BIN_MEMORY = 2ll << 20;
constexpr long IOBYTES = 1 << 20;

struct Build {
    DA_FID* fp = nullptr;
    const IX_BUILDREQ* req = nullptr;
    DA_IDX* idx = nullptr;
    DA_IDX* hbx = nullptr;
    SKB_KEY* skb = nullptr;
    IXH_HEADER_B* h = nullptr;
    SR_CTX* sp = nullptr;
    int64_t nummiss = 0;
    int64_t keyed = 0;
    std::vector<char> prev;
    bool outoforder = false;
    bool stopped() const { return req->interrupt && *req->interrupt; }
    void progress(int phase, int64_t done, int64_t total) const {
        if (req->progress) req->progress(req->progress_arg, phase, done, total);
    }
};

// Every live row of the table, in row order, to take(rows, obsvec or null, n, first).
template <class F>
rctype eachrows(DA_FID* fp, F take) {
    const DA_XOEODS& x = *fp->xoehdr;
    int32_t len = x.ioreclen > 0 ? x.ioreclen : x.obslen;
    if (len <= 0) return DA_INTERNAL;
    DA_IOCB* iocb = nullptr;
    rctype rc = getiocb(fp, DA_IOMREAD | DA_IOMRANDOM | DA_IOMBYROW, &iocb);
    if (rc < 0) return rc;
    long per = std::max<long>(IOBYTES / len, 1);
    long bufsize = per * len;
    if ((x.flags & (DA_XOECOMP | DA_XOECRYPT)) && fp->blocksize > 0)
        bufsize = std::max<long>(1, IOBYTES / fp->blocksize) * fp->blocksize;
    std::vector<char> rows(static_cast<size_t>(bufsize));
    std::vector<hs_obsno_t> obs(static_cast<size_t>(bufsize / len + 1));
    DA_IOB iob{};
    iob.bufptr = rows.data();
    iob.obsvec = x.numdelete > 0 ? obs.data() : nullptr;
    iob.locator = -1;
    if ((rc = iocb->mt->setbuf(iocb, &iob, bufsize)) < 0) {
        daignore(iocb->mt->freeiocb(iocb));
        return rc;
    }
    hs_obsno_t next = 1;
    for (;;) {
        rc = iocb->mt->dareadv(iocb, 1);
        if (rc == DA_EOF) {
            rc = 0;
            break;
        }
        if (rc < 0 || iob.numobs <= 0) break;
        rc = take(static_cast<const char*>(iob.bufptr), iob.obsvec, iob.numobs, next, len);
        if (rc < 0) break;
        next = (iob.obsvec ? iob.obsvec[iob.numobs - 1] : next + iob.numobs - 1) + 1;
    }
    rctype frc = iocb->mt->freeiocb(iocb);
    return rc < 0 ? rc : frc;
}

// A row's key record, key and big-endian row number; *skip for a missing
// key of an index that leaves those out.
rctype keyrow(Build& b, const char* row, hs_obsno_t obs, char* rec, bool* skip) {
    long n = 0;
    int miss = 0;
    rctype rc = b.skb->mt.makekey(b.skb, row, obs, rec, &n, &miss);
    if (rc < 0) return rc;
    if (miss) ++b.nummiss;
    *skip = miss && (b.req->flags & IX_BNOMISS);
    return 0;
}

// Rows straight to the index, in key order (the table says it is sorted):
// a key out of order stops it, and the build starts again through the sorter.
rctype direct(Build& b) {
    int32_t kl = b.skb->info.colkeylen;
    std::vector<char> rec(static_cast<size_t>(b.skb->info.reclen) + 8);
    int64_t numobs = b.fp->xoehdr->numobs, done = 0;
    b.prev.clear();
    return eachrows(b.fp, [&](const char* rows, const hs_obsno_t* ov, long n, hs_obsno_t first, int32_t len) {
        for (long i = 0; i < n; ++i) {
            hs_obsno_t o = ov ? ov[i] : first + i;
            bool skip;
            rctype rc = keyrow(b, rows + i * len, o, rec.data(), &skip);
            if (rc < 0) return rc;
            if (skip) continue;
            if (!b.prev.empty() && memcmp(b.prev.data(), rec.data(), kl) > 0) {
                b.outoforder = true;
                return IX_INCONSIST;
            }
            b.prev.assign(rec.data(), rec.data() + kl);
            if ((rc = ixhysrtadd(b.h, rec.data(), o, 0)) < 0) return rc;
            ++b.keyed;
        }
        done += n;
        if (b.stopped()) return IX_INTERRUPT;
        b.progress(2, done, numobs);
        return static_cast<rctype>(0);
    });
}

// Rows through the sorter, then to the index in key order.
rctype sorted(Build& b) {
    SR_PARMS p{};
    p.skb = b.skb;
    int64_t mem = srsortmemory(b.req->memsize, "INDEX_SORTSIZE");
    p.mem_size = static_cast<size_t>(std::min(mem, BIN_MEMORY));
    p.merge_size = static_cast<size_t>(mem);
    p.flags = SR_EXACTMEM;
    p.interrupt = b.req->interrupt;
    rctype rc = sropen(&p, &b.sp);
    if (rc < 0) return rc;
    int64_t numobs = b.fp->xoehdr->numobs, done = 0;
    rc = eachrows(b.fp, [&](const char* rows, const hs_obsno_t* ov, long n, hs_obsno_t first, int32_t len) {
        for (long i = 0; i < n;) {
            char* bin = nullptr;
            long room = 0;
            rctype r = sraddbin(b.sp, &bin, &room, nullptr);
            if (r < 0) return r;
            long put = 0;
            while (put < room && i < n) {
                hs_obsno_t o = ov ? ov[i] : first + i;
                long before = put;
                int miss = 0;
                r = b.skb->mt.makekey(b.skb, rows + i * len, o, bin, &put, &miss);
                if (r < 0) return r;
                if (miss) ++b.nummiss;
                if (miss && (b.req->flags & IX_BNOMISS)) put = before;  // left out
                ++i;
            }
            if ((r = srendbin(b.sp, put)) < 0) return r;
        }
        done += n;
        if (b.stopped()) return IX_INTERRUPT;
        b.progress(1, done, numobs);
        return static_cast<rctype>(0);
    });
    if (rc < 0) return rc;
    if ((rc = srfinish(b.sp)) < 0) return rc;
    int64_t total = srgetnrecs(b.sp), added = 0;
    char* rec = nullptr;
    long l;
    while ((l = srnextrec(b.sp, &rec)) > 0) {
        if ((rc = ixhysrtadd(b.h, rec, 0, 0)) < 0) return rc;
        ++b.keyed;
        if ((++added & 0xfff) == 0) {
            if (b.stopped()) return IX_INTERRUPT;
            if ((added & 0xffff) == 0) b.progress(2, added, total);
        }
    }
    if (l < 0) return static_cast<rctype>(l);
    b.progress(2, added, total);
    // A stop asked for at the very end still leaves no index.
    return b.stopped() ? IX_INTERRUPT : 0;
}

// The table is known to be sorted by the key's columns, rising, in order.
bool tablesorted(DA_FID* fp, const IX_BUILDREQ* r) {
    const DA_SORTINFO* si = fp->sortinfo;
    if (!si || si->nvars < r->nvar || (fp->xoehdr->flags & DA_ADDAVAIL)) return false;
    for (int i = 0; i < r->nvar; ++i) {
        int32_t v = r->varnos[i];
        if (si->nvar0[i] != v || v < 1 || v > fp->numvar || fp->allvars[v - 1].sort < 0) return false;
    }
    return true;
}

rctype openfiles(Build& b) {
    DA_FID* fp = b.fp;
    rctype rc = fp->mt->openidx(fp, b.req->name, DA_IDXFIDX | DA_IDXOWRITE, &b.idx);
    if (rc == 0) rc = fp->mt->openidx(fp, b.req->name, DA_IDXFHBX | DA_IDXOWRITE, &b.hbx);
    // Dirty on disk before a page is written.
    if (rc == 0) rc = dasetstate(b.idx, DA_IDXDIRTY);
    if (rc == 0) rc = dasetstate(b.hbx, DA_IDXDIRTY);
    if (rc == 0) b.skb = static_cast<SKB_KEY*>(b.idx->skb);
    if (rc == 0 && !b.skb) rc = DA_INTERNAL;
    return rc;
}

rctype run(Build& b, bool direct_first) {
    const IX_BUILDREQ* r = b.req;
    int opts = (r->flags & IX_BUNIQUE) ? IXH_OUNIQUE : 0;
    rctype rc = ixhycreat(b.hbx, b.idx, b.skb->info.colkeylen, b.fp->segsize, opts, b.skb, b.fp->xoehdr->numobs, 1,
                          &b.h);
    if (rc < 0) {
        b.h = nullptr;
        return rc;
    }
    b.nummiss = b.keyed = 0;
    rc = direct_first ? direct(b) : sorted(b);
    return rc;
}

}  // namespace

rctype ixhybuild(DA_FID* fp, const IX_BUILDREQ* r) {
    if (!fp || !r || !r->name || r->nvar < 1 || r->nvar > DA_MAXKEYVARS || !r->varnos) return DA_BADARG;
    for (int i = 0; i < r->nvar; ++i)
        if (r->varnos[i] < 1 || r->varnos[i] > fp->numvar) return DA_BADARG;
    if (fp->segsize <= 0) return IX_BADSEGSIZE;
    int keyflags = DA_IDXFIDX | DA_IDXFHBX | ((r->flags & IX_BUNIQUE) ? 1 : 0) | ((r->flags & IX_BNOMISS) ? 2 : 0);
    rctype rc = fp->mt->addidx(fp, r->name, keyflags, r->nvar, r->varnos);
    if (rc < 0) return rc;
    Build b;
    b.fp = fp;
    b.req = r;
    rc = openfiles(b);
    bool firstdirect = rc == 0 && tablesorted(fp, r);
    if (rc == 0) rc = run(b, firstdirect);
    if (rc == IX_INCONSIST && b.outoforder) {
        // Not in the order the table claims: again, through the sorter.
        ixhyabort(b.h);
        b.h = nullptr;
        b.outoforder = false;
        rc = run(b, false);
    }
    // The sorter says so in its own words.
    if (rc < 0 && b.stopped()) rc = IX_INTERRUPT;
    IXH_STATS st{};
    std::vector<char> minmax(2 * static_cast<size_t>(b.skb ? b.skb->info.colkeylen : 0) + 8);
    if (b.h) {
        if (rc == 0) {
            st.minkey = minmax.data();
            st.maxkey = minmax.data() + (minmax.size() - 8) / 2;
            rc = ixhyfin(b.h, &st);
        } else {
            ixhyabort(b.h);
        }
        b.h = nullptr;
    }
    if (b.sp) {
        rctype crc = srclose(b.sp);
        if (rc == 0) rc = crc;
    }
    bool good = rc == 0;
    if (b.idx) {
        rctype c = b.idx->mt->closeidx(b.idx, good ? DA_IDXCLEAN : DA_IDXDIRTY);
        if (good && c < 0) rc = c;
    }
    if (b.hbx) {
        rctype c = b.hbx->mt->closeidx(b.hbx, rc == 0 ? DA_IDXCLEAN : DA_IDXDIRTY);
        if (rc == 0 && c < 0) rc = c;
    }
    DA_KEYSTR k{};
    if (rc == 0) rc = fp->mt->queryicb(fp, r->name, &k);
    if (rc == 0) {
        DA_KEYSTAT ks{};
        // The statistics keep keys as long as the columns; a transcoded key may differ.
        ks.minmax = st.has_minmax && k.keylen == b.skb->info.colkeylen ? minmax.data() : nullptr;
        ks.numvals = st.n_values;
        ks.nummiss = b.nummiss;
        ks.highobs = st.rows;
        rc = fp->mt->setkeystat(fp, r->name, &ks);
    }
    if (rc < 0) {
        // A build that failed leaves nothing behind.
        rctype d = fp->mt->dropidx(fp, r->name, 0);
        if (d < 0) hsprint("ixhybuild: the index %s could not be removed: Reason=%s\n", r->name, hsstrer(d));
    }
    return rc;
}

}  // namespace vrta

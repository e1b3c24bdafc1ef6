// Finishing the group-by scan: every thread's bins and tree merged in key
// order, the partial rows of a group folded together, distinct values
// counted, statistics computed, HAVING tested, and the result rows handed to
// the caller directly or through the output sort.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/hsmem.h"
#include "hs/sr.h"
#include "ix/ixfe.h"
#include "sda/dafd.h"
#include "sda/dafid.h"
#include "sda/daidx.h"
#include "sda/daods.h"
#include "ssubs/hscsdbl.h"
#include "ssubs/skb.h"
#include "ssubs/vz.h"
#include "wh/wheval.h"
#include "wh/whgsint.h"

namespace vrta {

namespace {

constexpr long SORTBUF = 0x10000;

bool addguard(double* cell, double v) {
    if (v > 0 && *cell > DBL_MAX - v) return false;
    if (v < 0 && *cell < -(DBL_MAX - (-v))) return false;
    *cell += v;
    return true;
}

// The merge's order of keys: plain bytes, a multiple of 4 long, compared a
// word or two at a time instead of byte by byte.
int whgs_keycmp(const void* a, const void* b, size_t n) {
    auto* x = static_cast<const char*>(a);
    auto* y = static_cast<const char*>(b);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t u, v;
        memcpy(&u, x + i, 8);
        memcpy(&v, y + i, 8);
        if (u != v) return __builtin_bswap64(u) < __builtin_bswap64(v) ? -1 : 1;
    }
    for (; i + 4 <= n; i += 4) {
        uint32_t u, v;
        memcpy(&u, x + i, 4);
        memcpy(&v, y + i, 4);
        if (u != v) return __builtin_bswap32(u) < __builtin_bswap32(v) ? -1 : 1;
    }
    return i < n ? memcmp(x + i, y + i, n - i) : 0;
}

long whgsreadbin(SR_BIN* run, char** rec) {
    auto* bin = reinterpret_cast<WHGS_BIN*>(run);
    WHGS_HANDLE* gsh = bin->thr_handle->gsh_handle;
    const int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    char* r;
    if (bin->is_zavl_bin) {
        if (!bin->node) return 0;
        r = reinterpret_cast<char*>(bin->node) + WHGS_NODE;
        bin->node = zavl_next_node(bin->node);
    } else {
        if (bin->currow >= bin->lastrow) return 0;
        if (bin->curinbufrow >= bin->maxinbufrows) {
            long n = std::min(bin->maxinbufrows, bin->lastrow - bin->currow);
            DA_FD* fd = bin->thr_handle->binfid;
            da_off_t fpos = bin->startfpos + static_cast<da_off_t>(bin->currow) * rowlen;
            long got = 0;
            rctype rc = fd->fdread(fd, bin->inbuf, n * rowlen, fpos, &got);
            if (rc != 0 || got != n * rowlen) {
                hsprint("whgsreadbin Error: thrd=%d, nrows=%d, nbytes=%d, fpos=%f, binp->currow=%d, "
                        "binp->lastrow=%d, rc=0x%X\n",
                        bin->thr_handle->thrindx, static_cast<int>(n), static_cast<int>(got),
                        static_cast<double>(fpos), static_cast<int>(bin->currow), static_cast<int>(bin->lastrow),
                        static_cast<unsigned>(rc));
                return -1;
            }
            bin->curinbufrow = 0;
        }
        r = bin->inbuf + bin->curinbufrow * rowlen;
        bin->curinbufrow++;
        bin->currow++;
        // This bin's next row is wanted when this row has won: with hundreds
        // of bins it would by then have left the nearer caches.
        __builtin_prefetch(r + rowlen);
        __builtin_prefetch(r + 2 * rowlen - 1);
    }
    whgs_revwords(r, gsh->ztkey_len);
    *rec = r;
    return rowlen;
}

// The partial row src folded into the group's row.
void whgsaggrow(WHGS_HANDLE* gsh, char* aggrow, const char* src) {
    const int kl = gsh->ztkey_len;
    char* ad = aggrow + kl;
    const char* sd = src + kl;
    for (int i = 0; i < gsh->nusedcols; i++) {
        WHGS_COL* col = &gsh->cols[i];
        if (col->is_complex || col->fromkey || col->dist) continue;
        char* dst = ad + col->ztdataoff;
        const char* s = sd + col->ztdataoff;
        switch (col->gsfunc) {
        case PS_FT_BLANK:
            if (col->fmtkeypart) whgs_do_minmax(gsh, col, s, col->celllen, dst, false);
            continue;
        case PS_FT_MIN:
        case PS_FT_MAX: whgs_do_minmax(gsh, col, s, col->celllen, dst, false); continue;
        default: break;
        }
        double a, b;
        memcpy(&a, dst, 8);
        memcpy(&b, s, 8);
        switch (col->gsfunc) {
        case PS_FT_CNT:
        case PS_FT_FREQ:
        case PS_FT_NMISS: a += b; break;
        case PS_FT_SUM:
        case PS_FT_SUMWGT:
        case PS_FT_UWSUM:
        case PS_FT_USS:
            if (ad[col->excflg_off] || sd[col->excflg_off]) {
                a = gsh->missing;
                ad[col->excflg_off] = 1;
            } else if (vzismiss(b)) {
            } else if (vzismiss(a)) {
                a = b;
            } else if (!addguard(&a, b)) {
                a = gsh->missing;
                ad[col->excflg_off] = 1;
                col->math_excep = true;
                gsh->flags |= WHGS_HF_FPE;
            }
            break;
        default: break;
        }
        memcpy(dst, &a, 8);
    }
}

rctype whgs_do_distinct(WHGS_HANDLE* gsh, const char* rec) {
    for (int d = 0; d < gsh->ncntdgrpby; d++) {
        WHGS_DISTINCT& ds = gsh->dstnctp[d];
        const WHGS_KEYDESC& p = gsh->grpby[ds.keypart];
        const char* k = rec + p.keyoff;
        double v = 0;
        if (p.ntype == 1) {
            char tmp[8];
            memcpy(tmp, k, p.len);
            hsrsdbl(tmp, p.len);
            v = whgs_num(tmp, p.len);
            if (vzismiss(v)) continue;
        } else if (whgs_blank(gsh, k, p.len)) {
            continue;
        }
        if (!ds.entry) {
            ds.entry = xmalloc(gsh->dstnctmpool, ds.ztkeylen + 28, 0);
            if (!ds.entry) return WHGS_RC_NOPOOL;
        }
        char* e = static_cast<char*>(ds.entry);
        memset(e, 0, WHGS_NODE);
        memcpy(e + WHGS_NODE, k, ds.ztkeylen);
        zavlS* z = zavl_add_uinta(&ds.zavltree, static_cast<zavlS*>(ds.entry), WHGS_NODE, ds.ztkeylen / 4);
        if (z != ds.entry) continue;
        ds.entry = nullptr;
        ds.count += 1.0;
        if (ds.func == PS_FT_CNTD) continue;
        if (!ds.sumfpe && !addguard(&ds.sum, v)) ds.sumfpe = true;
        if (ds.func != PS_FT_SUMD && ds.func != PS_FT_AVGD && !ds.ussfpe) {
            if (std::fabs(v) > WHGS_SQRTMAX || !addguard(&ds.uss, v * v)) ds.ussfpe = true;
        }
    }
    return 0;
}

double cellof(const char* data, const WHGS_COL* c) {
    double d;
    memcpy(&d, data + c->ztdataoff, 8);
    return d;
}

// The result row of the group in row; true when it is to be kept.
rctype whgsresolvegrp(WHGS_HANDLE* gsh, const char* row, bool* keep) {
    const char* data = row + gsh->ztkey_len;
    char* out = gsh->rslvbuf;
    for (int i = 0; i < gsh->nmaincols; i++) {
        WHGS_COL* c = &gsh->cols[i];
        char* o = out + c->coldesc.off;
        int olen = c->coldesc.len;
        if (c->dist) {
            WHGS_DISTINCT& d = *c->dist;
            double v;
            switch (c->gsfunc) {
            case PS_FT_CNTD: v = d.count; break;
            case PS_FT_SUMD: v = d.sumfpe || d.count == 0 ? gsh->missing : d.sum; break;
            case PS_FT_USSD: v = d.ussfpe || d.count == 0 ? gsh->missing : d.uss; break;
            default: v = whgs_calc_stat(gsh, c, d.count, d.sum, d.uss, d.sumfpe, d.ussfpe);
            }
            if ((c->gsfunc == PS_FT_SUMD && d.sumfpe) || (c->gsfunc == PS_FT_USSD && d.ussfpe)) {
                c->math_excep = true;
                gsh->flags |= WHGS_HF_FPE;
            }
            whgs_putnum(o, olen, v);
            continue;
        }
        if (c->fromkey) {
            const WHGS_KEYDESC* kd = c->fmtkeypart ? c->fmtkeypart : c->keypart;
            int kl = c->fmtkeypart ? kd->nfl : kd->len;
            int n = std::min(kl, olen);
            memcpy(o, row + kd->keyoff, n);
            if (kd->flags & WHGS_KD_DESC)
                for (int j = 0; j < n; j++) o[j] = static_cast<char>(~o[j]);
            if (n < olen) memset(o + n, ' ', olen - n);
            continue;
        }
        if (c->is_complex) {
            double v;
            if (c->gsfunc == PS_FT_RANGE) {
                double mn = cellof(data, c->aux[WHGS_AUX_MIN]), mx = cellof(data, c->aux[WHGS_AUX_MAX]);
                v = vzismiss(mn) ? gsh->missing : mx - mn;
            } else {
                const WHGS_COL* s = c->aux[WHGS_AUX_SUM];
                const WHGS_COL* u = c->aux[WHGS_AUX_USS];
                double cnt = cellof(data, c->aux[WHGS_AUX_CNT]);
                double sum = cellof(data, s);
                double uss = u ? cellof(data, u) : 0.0;
                bool sx = data[s->excflg_off] != 0;
                bool ux = u && data[u->excflg_off] != 0;
                if (vzismiss(sum)) sum = 0.0;
                v = whgs_calc_stat(gsh, c, cnt, sum, uss, sx, ux);
            }
            whgs_putnum(o, olen, v);
            continue;
        }
        const char* cell = data + c->ztdataoff;
        if (c->coldesc.ntype == 2 || (c->nstr[0] && c->nstr[0]->type == 2)) {
            int n = std::min(c->celllen, olen);
            memcpy(o, cell, n);
            if (n < olen) memset(o + n, ' ', olen - n);
        } else if (c->celllen == olen) {
            memcpy(o, cell, olen);
        } else {
            whgs_putnum(o, olen, whgs_num(cell, c->celllen));
        }
    }
    for (int d = 0; d < gsh->ncntdgrpby; d++) {
        WHGS_DISTINCT& ds = gsh->dstnctp[d];
        ds.zavltree = nullptr;
        ds.entry = nullptr;
        ds.count = ds.sum = ds.uss = 0;
        ds.sumfpe = ds.ussfpe = false;
    }
    if (gsh->dstnctmpool) rcignore(xmpoolr(gsh->dstnctmpool));  // a variable pool of ours: cannot fail
    *keep = true;
    if (gsh->havtree) {
        int truth = 0;
        rctype rc = wheval(&gsh->whenv, gsh->havtree, out, nullptr, 0, &truth);
        if (rc) return rc;
        *keep = truth != 0;
    }
    return 0;
}

WHGS_ROWINFO rowinfo(WHGS_HANDLE* gsh, bool sorted) {
    if (sorted) return WHGS_ROWINFO{gsh->ordkey_len, gsh->skb->info.reclen, gsh->proj_len};
    return WHGS_ROWINFO{0, gsh->proj_len, gsh->proj_len};
}

rctype whgsstore(sr_runfp_t run_fp, void* run_data, void* store_data) {
    auto* gsh = static_cast<WHGS_HANDLE*>(store_data);
    WHGS_ROWINFO ri = rowinfo(gsh, true);
    for (;;) {
        if (gsh->interrupt && *gsh->interrupt) return SR_RC_INTERRUPT;
        char* loc = nullptr;
        long n = 0;
        rctype rc = run_fp(&loc, &n, run_data);
        if (rc == SR_MERGE_INTERRUPTED) return SR_RC_INTERRUPT;
        if (rc) return rc < 0 ? rc : WHGS_RC_NOMERGE;
        if (n <= 0 || !loc) return 0;
        rc = gsh->storefp(loc, n, &ri, gsh->cbdata);
        if (rc < 0) return rc;
        gsh->nrecsout += n;
    }
}

// Where finished groups go: the output sort, or a fill buffer handed to the
// caller when full.
struct SINK {
    WHGS_HANDLE* gsh;
    SR_CTX* sp;
    char* buf;
    long cap, n;
    WHGS_ROWINFO ri;
};

rctype sinkflush(SINK& s) {
    if (s.n == 0) return 0;
    rctype rc;
    if (s.sp) {
        rc = srsort2addbin(s.sp, s.buf, s.n);
    } else {
        rc = s.gsh->storefp(s.buf, s.n, &s.ri, s.gsh->cbdata);
        if (rc >= 0) s.gsh->nrecsout += s.n;
    }
    s.n = 0;
    return rc < 0 ? rc : 0;
}

rctype sinkgroup(SINK& s, const char* row) {
    WHGS_HANDLE* gsh = s.gsh;
    bool keep = false;
    rctype rc = whgsresolvegrp(gsh, row, &keep);
    if (rc || !keep) return rc;
    if (s.sp) {
        long nk = s.n;
        int miss = 0;
        rc = gsh->skb->mt.makekey(gsh->skb, gsh->rslvbuf, 0, s.buf, &nk, &miss);
        if (rc < 0) return rc;
    } else {
        memcpy(s.buf + s.n * gsh->proj_len, gsh->rslvbuf, gsh->proj_len);
    }
    if (++s.n == s.cap) return sinkflush(s);
    return 0;
}

}  // namespace

double whgs_calc_stat(WHGS_HANDLE* gsh, WHGS_COL* col, double count, double sum, double uss, bool sumexcp,
                      bool ussexcp) {
    PS_FuncTypes_t f = col->gsfunc;
    bool avg = f == PS_FT_AVG || f == PS_FT_AVGD;
    bool css = f == PS_FT_CSS || f == PS_FT_CSSD;
    auto failed = [&]() {
        col->math_excep = true;
        gsh->flags |= WHGS_HF_FPE;
        return gsh->missing;
    };
    if (sumexcp || (ussexcp && !avg)) return failed();
    if (count == 0.0) return gsh->missing;
    if (avg) {
        if (whgs_div_exception(sum, count)) return failed();
        return sum / count;
    }
    if (count == 1.0 && !css) return gsh->missing;
    if (std::fabs(sum) > WHGS_SQRTMAX) return failed();
    double s2 = sum * sum;
    if (whgs_div_exception(s2, count)) return failed();
    double c = uss;
    if (!addguard(&c, -(s2 / count))) return failed();
    if (c < 1.110223024625157e-16 * 1000 * std::fabs(sum / count)) return 0.0;
    if (css) return c;
    if (whgs_div_exception(c, count - 1)) return failed();
    double v = c / (count - 1);
    if (f == PS_FT_VAR || f == PS_FT_VARD) return v;
    double sd = std::sqrt(v);
    if (f == PS_FT_STD || f == PS_FT_STDD) return sd;
    double sq = std::sqrt(count);
    if (whgs_div_exception(sd, sq)) return failed();
    return sd / sq;
}

rctype whgsmerge(rctype (*fetch)(char**, long*, void*), void* data, WHGS_HANDLE* gsh) {
    const int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    if (gsh->ncntdgrpby && !gsh->dstnctmpool) {
        gsh->dstnctmpool = xmpoolc(0x200000, 0x200000, 0);
        if (!gsh->dstnctmpool) return WHGS_RC_NOPOOL;
    }
    SINK s{gsh, nullptr, nullptr, 0, 0, rowinfo(gsh, false)};
    rctype rc = 0;
    if (gsh->flags & WHGS_HF_SORT) {
        SR_PARMS p{};
        p.skb = gsh->skb;
        p.interrupt = gsh->interrupt;
        rc = srsort2init(&p, &gsh->sortctx);
        if (rc < 0) return rc;
        s.sp = gsh->sortctx;
        int rl = gsh->skb->info.reclen;
        s.cap = std::max(1L, SORTBUF / rl);
        s.buf = static_cast<char*>(malloc(s.cap * rl));
    } else {
        s.cap = std::max(1L, SORTBUF / std::max(1, gsh->proj_len));
        s.buf = static_cast<char*>(malloc(s.cap * std::max(1, gsh->proj_len)));
    }
    if (!s.buf) {
        hsprint("whgsmerge: cannot allocate fill buffer\n");
        rc = WHGS_RC_NOMEM;
    }
    while (rc == 0) {
        char* loc = nullptr;
        long n = 0;
        rc = fetch(&loc, &n, data);
        if (rc) {
            hsprint("whgsmerge:  Fetch Error = 0X%x\n", static_cast<unsigned>(rc));
            if (rc == SR_MERGE_INTERRUPTED) rc = SR_RC_INTERRUPT;
            else if (rc > 0) rc = WHGS_RC_NOMERGE;
            break;
        }
        if (n <= 0 || !loc) break;
        for (long i = 0; i < n && rc == 0; i++) {
            const char* r = loc + i * rowlen;
            gsh->total_whgsmerge_recs++;
            if (gsh->flags & WHGS_HF_FIRST) {
                memcpy(gsh->rowbuf, r, rowlen);
                gsh->flags &= ~WHGS_HF_FIRST;
            } else if (memcmp(r, gsh->rowbuf, gsh->ztkey_grpby_len) != 0) {
                rc = sinkgroup(s, gsh->rowbuf);
                memcpy(gsh->rowbuf, r, rowlen);
            } else {
                whgsaggrow(gsh, gsh->rowbuf, r);
            }
            if (rc == 0) rc = whgs_do_distinct(gsh, r);
        }
    }
    if (rc == 0 && !(gsh->flags & WHGS_HF_FIRST)) rc = sinkgroup(s, gsh->rowbuf);
    if (rc == 0) rc = sinkflush(s);
    free(s.buf);
    if (s.sp) {
        if (rc == 0) rc = srfinish(s.sp);
        if (rc == 0) rc = srrdrun(s.sp, whgsstore, gsh);
        rctype crc = srclose(s.sp);
        gsh->sortctx = nullptr;
        if (rc == 0 && crc < 0) rc = crc;
    }
    return rc;
}

rctype whgsgetr(WHGS_HANDLE* gsh, whgs_storefp_t storefp, void* cbdata) {
    if (!gsh || !storefp) return WHGS_RC_BADREQ;
    gsh->storefp = storefp;
    gsh->cbdata = cbdata;
    rctype rc = 0;
    whgs_setthread(&gsh->thrd_data[0]);
    if (gsh->flags & WHGS_HF_MRUN) return whgsdometascan(gsh);
    const int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    WHGS_BIN* first = nullptr;
    WHGS_BIN** tail = &first;
    int nfile = 0, nbins = 0;
    for (int i = 0; i < gsh->nthreads; i++) {
        WHGS_PTHREAD& t = gsh->thrd_data[i];
        free(t.outbuf);
        t.outbuf = nullptr;
        if (t.nrows == 0 && t.nflushes == 0) continue;
        if (t.nrows > 0) {
            auto* b = static_cast<WHGS_BIN*>(calloc(1, sizeof(WHGS_BIN)));
            if (!b) {
                hsprint("whgsgetr: cannot allocate sortbin\n");
                return WHGS_RC_NOMEM;
            }
            b->thr_handle = &t;
            b->is_zavl_bin = true;
            b->lastrow = t.nrows;
            b->node = zavl2list(t.zavltree);
            if (t.lastbin) t.lastbin->next = b;
            else t.binhead = b;
            t.lastbin = b;
        }
        nfile += t.nflushes;
        for (WHGS_BIN* b = t.binhead; b; b = b->next) {
            *tail = b;
            tail = reinterpret_cast<WHGS_BIN**>(&b->run.next);
            nbins++;
        }
        *tail = nullptr;
    }
    gsh->nbins = nbins;
    char* inbufs = nullptr;
    size_t insize = 0;
    SKB_KEY keyorder{};
    if (nbins > 0) {
        if ((rc = skbmeminit(&keyorder, gsh->ztkey_len, rowlen)) < 0) return rc;
        keyorder.mt.cmp = whgs_keycmp;
        if (nfile > 0) {
            long bb = std::max(whgs_optlong("BINBUFSIZE", 32768), static_cast<long>(rowlen));
            insize = static_cast<size_t>(nfile) * bb;
            while (!(inbufs = static_cast<char*>(hshimalloc(insize))) && insize / 2 >= static_cast<size_t>(nfile) * rowlen)
                insize /= 2;
            if (!inbufs) {
                hsprint("whgsgetr: cannot allocate bin input buffers\n");
                return WHGS_RC_NOMEM;
            }
            size_t per = insize / nfile;
            long k = 0;
            for (WHGS_BIN* b = first; b; b = reinterpret_cast<WHGS_BIN*>(b->run.next)) {
                if (b->is_zavl_bin) continue;
                b->inbuf = inbufs + k++ * per;
                b->maxinbufrows = static_cast<long>(per / rowlen);
                b->curinbufrow = b->maxinbufrows;
            }
        }
        SR_CTX ctx{};
        ctx.keylen = gsh->ztkey_len;
        ctx.reclen = rowlen;
        ctx.parms.interrupt = gsh->interrupt;
        ctx.parms.skb = &keyorder;
        long recs = std::max(2L, SORTBUF / rowlen);
        char* sortbuf = static_cast<char*>(malloc(recs * rowlen));
        TREEHEAD* merge = sortbuf ? sor_init_merge(&ctx, &first->run, whgsreadbin) : nullptr;
        if (!sortbuf) {
            hsprint("whgsgetr: cannot allocate sortfile list\n");
            rc = WHGS_RC_NOMEM;
        } else if (!merge) {
            rc = WHGS_RC_NOMERGE;
        } else {
            SR_RUNDATA rd{rowlen, recs, sortbuf, merge};
            rc = whgsmerge(sor_read_run_file, &rd, gsh);
            rctype trc = sor_term_merge(merge);
            if (rc == 0) rc = trc;
        }
        free(sortbuf);
        if (inbufs) hshifree(inbufs, insize);
        if (rc) return rc;
    }
    if (gsh->nrecsout == 0 && !gsh->havtree && (gsh->grpby[0].flags & WHGS_KD_CONST) &&
        gsh->total_whgsmerge_recs == 0) {
        // No rows at all and no groups: the one row of an empty table.
        for (int i = 0; i < gsh->nmaincols; i++) {
            WHGS_COL& c = gsh->cols[i];
            char* o = gsh->rslvbuf + c.coldesc.off;
            if (c.coldesc.ntype == 2) {
                HS_NLSENV* env = gsh->whenv.targenv;
                if (env && env->nls_blankfill) env->nls_blankfill(env, o, c.coldesc.len);
                else memset(o, ' ', c.coldesc.len);
                continue;
            }
            bool zero = c.gsfunc == PS_FT_CNT || c.gsfunc == PS_FT_CNTD || c.gsfunc == PS_FT_FREQ ||
                        c.gsfunc == PS_FT_NMISS;
            whgs_putnum(o, c.coldesc.len, zero ? 0.0 : gsh->missing);
        }
        WHGS_ROWINFO ri = rowinfo(gsh, false);
        rc = storefp(gsh->rslvbuf, 1, &ri, cbdata);
        if (rc >= 0) {
            gsh->nrecsout = 1;
            rc = 0;
        }
    }
    return rc;
}

// ---------------------------------------------------------------- metascan
// A query with no groups whose every aggregate an index's statistics can
// give is answered from those statistics without reading a row.

namespace {

// The statistics a function needs of its column's index; 0 none will do.
int metastats(PS_FuncTypes_t f) {
    switch (f) {
    case PS_FT_AVG: return IX_GS_COUNT | IX_GS_SUM;
    case PS_FT_CSS:
    case PS_FT_STD:
    case PS_FT_STDERR:
    case PS_FT_VAR: return IX_GS_COUNT | IX_GS_SUM | IX_GS_USS;
    case PS_FT_CNT:
    case PS_FT_FREQ: return IX_GS_COUNT;
    case PS_FT_MIN: return IX_GS_MIN;
    case PS_FT_MAX: return IX_GS_MAX;
    case PS_FT_RANGE: return IX_GS_MIN | IX_GS_MAX;
    case PS_FT_SUM: return IX_GS_SUM;
    case PS_FT_NMISS: return IX_GS_NMISS;
    case PS_FT_USS: return IX_GS_USS;
    case PS_FT_CNTD: return IX_GS_COUNTD;
    case PS_FT_SUMD: return IX_GS_SUMD;
    case PS_FT_AVGD: return IX_GS_COUNTD | IX_GS_SUMD;
    case PS_FT_VARD:
    case PS_FT_CSSD:
    case PS_FT_STDD:
    case PS_FT_STDERRD: return IX_GS_COUNTD | IX_GS_SUMD | IX_GS_USSD;
    case PS_FT_USSD: return IX_GS_USSD;
    default: return 0;
    }
}

// A single-column index on nvar0 that covers every row and is in a clean
// state, into *ks; false when the table has none.
bool whgsgetindex(DA_FID* fid, int nvar0, DA_KEYSTR* ks) {
    DA_KEYSTR found[8];
    rctype n = fid->mt->queryidx(fid, nvar0, 8, found);
    if (n <= 0) return false;
    for (int i = 0; i < std::min<int>(n, 8); i++) {
        const DA_KEYSTR& k = found[i];
        if (k.nvar != 1 || k.nvar0[0] != nvar0 || (k.checks & DA_ICBBAD)) continue;
        if (!fid->xoehdr || k.highobs < fid->xoehdr->numobs) continue;
        *ks = k;
        return true;
    }
    return false;
}

void dropmetascan(WHGS_HANDLE* gsh) {
    gsh->flags &= ~(WHGS_HF_MCOUNT | WHGS_HF_MINDEX);
    for (WHGS_IDXSCAN* s = gsh->idxscanp; s;) {
        WHGS_IDXSCAN* n = s->next;
        whgs_freeidxscan(s);
        s = n;
    }
    gsh->idxscanp = nullptr;
}

}  // namespace

void whgs_freeidxscan(WHGS_IDXSCAN* s) {
    if (auto* g = static_cast<IX_GSCAN*>(s->gscan)) {
        free(g->minc);
        free(g->maxc);
        free(g);
    }
    free(s->keystrp);
    free(s);
}

void whgs_prepmetascan(WHGS_HANDLE* gsh, int gsflags) {
    if (!gsh->fid || !(gsflags & GS_F_META) || gsh->ngrpby != 1 || !(gsh->grpby[0].flags & WHGS_KD_CONST)) return;
    const DA_XOEODS* x = gsh->fid->xoehdr;
    if (!x || x->numobs - x->numdelete <= 0) return;
    for (int i = 0; i < gsh->nmaincols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if ((c.gsfunc == PS_FT_CNT || c.gsfunc == PS_FT_FREQ) && !c.nstr[0]) {
            gsh->flags |= WHGS_HF_MCOUNT;
            continue;
        }
        int want = metastats(c.gsfunc);
        const da_namestr_t* ns = c.nstr[0];
        // Index statistics are unweighted, and a character column has only
        // its count, missing count and extremes there.
        bool chr = ns && ns->type == 2;
        if (!want || !ns || c.nstr[1] || (chr && (want & ~(IX_GS_COUNT | IX_GS_NMISS | IX_GS_MIN | IX_GS_MAX))) ||
            (chr && (want & (IX_GS_MIN | IX_GS_MAX)) && (gsh->flags & WHGS_HF_XCODE))) {
            dropmetascan(gsh);
            return;
        }
        int nvar0 = ns->nvar0;  // from 1, as the index records name columns
        WHGS_IDXSCAN* s = gsh->idxscanp;
        while (s && s->nvar0 != nvar0) s = s->next;
        if (!s) {
            DA_KEYSTR ks;
            if (!whgsgetindex(gsh->fid, nvar0, &ks)) {
                dropmetascan(gsh);
                return;
            }
            s = static_cast<WHGS_IDXSCAN*>(calloc(1, sizeof(WHGS_IDXSCAN)));
            auto* kp = static_cast<DA_KEYSTR*>(malloc(sizeof(DA_KEYSTR)));
            auto* g = static_cast<IX_GSCAN*>(calloc(1, sizeof(IX_GSCAN)));
            if (!s || !kp || !g) {
                free(s);
                free(kp);
                free(g);
                dropmetascan(gsh);
                return;
            }
            *kp = ks;
            s->nvar0 = nvar0;
            s->keystrp = kp;
            s->gscan = g;
            WHGS_IDXSCAN** tail = &gsh->idxscanp;
            while (*tail) tail = &(*tail)->next;
            *tail = s;
        }
        auto* g = static_cast<IX_GSCAN*>(s->gscan);
        if (chr && (want & (IX_GS_MIN | IX_GS_MAX)) && !g->minc) {
            g->minc = static_cast<char*>(malloc(ns->nlng));
            g->maxc = static_cast<char*>(malloc(ns->nlng));
            if (!g->minc || !g->maxc) {
                dropmetascan(gsh);
                return;
            }
        }
        g->stats |= want;
        c.scanp = s;
    }
    if (gsh->idxscanp) {
        // Counts of rows without a column come from the first index: the
        // rows of its keys and of its missing keys.
        gsh->flags |= WHGS_HF_MINDEX;
        static_cast<IX_GSCAN*>(gsh->idxscanp->gscan)->stats |= IX_GS_COUNT | IX_GS_NMISS;
    }
}

bool whgsplanmetascan(WHGS_HANDLE* gsh, WH_HANDLE* wh) {
    if (!gsh || !(gsh->flags & (WHGS_HF_MCOUNT | WHGS_HF_MINDEX))) return false;
    if (!(gsh->flags & WHGS_HF_MPLANNED)) {
        bool notree = !wh || !wh->tree;
        if (notree && !(gsh->flags & WHGS_HF_MINDEX)) gsh->flags |= WHGS_HF_MGIVEUP;
        gsh->flags |= WHGS_HF_MPLANNED;
    }
    return (gsh->flags & (WHGS_HF_MWHERE | WHGS_HF_MGIVEUP)) != 0;
}

rctype whgsismetascan(WHGS_HANDLE* gsh, WH_HANDLE* wh, DA_FID* mfid, int whflags, int* is_mscan) {
    if (!gsh || !is_mscan) return WHGS_RC_BADREQ;
    *is_mscan = 0;
    if (whflags & (WHF_FALSE | WHF_EVAL2)) return 0;
    bool nowhere = !wh || !wh->tree;
    if (!nowhere || (whflags & (WHF_EVAL3 | WHF_EVAL4))) return 0;
    if (!(gsh->flags & (WHGS_HF_MCOUNT | WHGS_HF_MINDEX))) return 0;
    DA_FID* f = mfid ? mfid : gsh->fid;
    if (!f || !f->xoehdr) return 0;
    if (!(gsh->flags & WHGS_HF_MINDEX)) {
        gsh->thrd_data[0].count += static_cast<double>(f->xoehdr->numobs - f->xoehdr->numdelete);
    } else {
        // Every index over all its values; one that cannot be read leaves
        // the query to the rows.
        for (WHGS_IDXSCAN* s = gsh->idxscanp; s; s = s->next) {
            auto* ks = static_cast<DA_KEYSTR*>(s->keystrp);
            auto* g = static_cast<IX_GSCAN*>(s->gscan);
            IX_INDEX_T* ix = nullptr;
            if (ixopen(f, ks->name, 0, 1, gsh->whenv.targenv, &ix) != 0) {
                if (ix) ixclose(ix);
                return 0;
            }
            IX_GSCAN r = *g;
            rctype rc = ix->fp.gscan(ix->ix_private, nullptr, nullptr, &r);
            rctype crc = ixclose(ix);
            if (rc < 0 || crc < 0) return 0;
            *g = r;
        }
    }
    gsh->thrd_data[0].initialized = true;
    gsh->flags |= WHGS_HF_MRUN;
    *is_mscan = 1;
    return 0;
}

rctype whgsdometascan(WHGS_HANDLE* gsh) {
    double rows = 0;
    for (int i = 0; i < gsh->nthreads; i++) rows += gsh->thrd_data[i].count;
    if (gsh->flags & WHGS_HF_MINDEX) {
        const auto* g = static_cast<const IX_GSCAN*>(gsh->idxscanp->gscan);
        rows = static_cast<double>(g->count + g->nmiss);
    }
    for (int i = 0; i < gsh->nmaincols; i++) {
        WHGS_COL& c = gsh->cols[i];
        char* o = gsh->rslvbuf + c.coldesc.off;
        int olen = c.coldesc.len;
        if (!c.scanp) {
            whgs_putnum(o, olen, rows);
            continue;
        }
        const auto* g = static_cast<const IX_GSCAN*>(c.scanp->gscan);
        const da_namestr_t* ns = c.nstr[0];
        if (ns->type == 2 && (c.gsfunc == PS_FT_MIN || c.gsfunc == PS_FT_MAX)) {
            const char* v = c.gsfunc == PS_FT_MIN ? g->minc : g->maxc;
            int n = std::min<int>(ns->nlng, olen);
            if (g->count > 0) memcpy(o, v, n);
            else memset(o, ' ', n);
            if (n < olen) memset(o + n, ' ', olen - n);
            continue;
        }
        double cnt = static_cast<double>(g->count), cntd = static_cast<double>(g->countd);
        double v;
        auto failed = [&]() {
            c.math_excep = true;
            gsh->flags |= WHGS_HF_FPE;
            return gsh->missing;
        };
        switch (c.gsfunc) {
        case PS_FT_CNT:
        case PS_FT_FREQ: v = cnt; break;
        case PS_FT_NMISS: v = static_cast<double>(g->nmiss); break;
        case PS_FT_MIN: v = g->min; break;
        case PS_FT_MAX: v = g->max; break;
        case PS_FT_RANGE: v = vzismiss(g->min) || vzismiss(g->max) ? gsh->missing : g->max - g->min; break;
        case PS_FT_SUM: v = g->sumexcp ? failed() : cnt == 0 ? gsh->missing : g->sum; break;
        case PS_FT_USS: v = g->ussexcp ? failed() : g->uss; break;
        case PS_FT_CNTD: v = cntd; break;
        case PS_FT_SUMD: v = g->sumdexcp ? failed() : cntd == 0 ? gsh->missing : g->sumd; break;
        case PS_FT_USSD: v = g->ussdexcp ? failed() : cntd == 0 ? gsh->missing : g->ussd; break;
        case PS_FT_AVGD:
        case PS_FT_VARD:
        case PS_FT_CSSD:
        case PS_FT_STDD:
        case PS_FT_STDERRD:
            v = whgs_calc_stat(gsh, &c, cntd, g->sumd, g->ussd, g->sumdexcp != 0, g->ussdexcp != 0);
            break;
        default: v = whgs_calc_stat(gsh, &c, cnt, g->sum, g->uss, g->sumexcp != 0, g->ussexcp != 0);
        }
        whgs_putnum(o, olen, v);
    }
    if (gsh->havtree) {
        int truth = 0;
        rctype rc = wheval(&gsh->whenv, gsh->havtree, gsh->rslvbuf, nullptr, 0, &truth);
        if (rc) return rc;
        if (!truth) return 0;
    }
    WHGS_ROWINFO ri = rowinfo(gsh, false);
    rctype rc = gsh->storefp(gsh->rslvbuf, 1, &ri, gsh->cbdata);
    if (rc < 0) return rc;
    gsh->nrecsout = 1;
    return 0;
}

}  // namespace vrta

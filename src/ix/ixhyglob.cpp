// The global scan of the hybrid index: a range of values walked in key
// order on tree slot 0, each value with its rows in every segment below the
// reader's n_segs; the spans of values' rows; counts and statistics of a
// range from the tree alone.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "hs/hs.h"
#include "ix/ixhyr.h"
#include "ssubs/skb.h"
#include "ssubs/vz.h"

namespace vrta {

using namespace ixhyr;

namespace {

const char TRACEFILE[] = "ix/src/ixhyglob";

}  // namespace

// The cursor of a global scan.
struct IXH_GLOBAL_R {
    ix_list_t* glist;                 // rows of the segment in hand (inseg), or of the value for ggetlist
    std::vector<unsigned char> hival; // upper bound, hilen bytes; empty: none
    int hicomp;
    int hilen;
    std::vector<unsigned char> cur_val;
    IXHYBRID_BTDATA_D cur_data;
    int has_data;
    int include_deleted;
    std::vector<unsigned char> last_val;
    hs_obsno_t startobs, endobs, nobs;
    bool listed;                      // ents holds the current value's entries, ei the next
    std::vector<IXH_ST_ENTRY_D> ents;
    size_t ei;
    bool inseg;                       // glist holds the segment of entry ei - 1, cursor in it
    uint64_t steps;                   // slot 0's cursor moves after our last step
};

namespace {

IXH_GLOBAL_R* global(IXH_HEADER_R* h) { return static_cast<IXH_GLOBAL_R*>(h->global); }

rctype ixhy_alloc_global(IXH_HEADER_R* h, IXH_GLOBAL_R** gp) {
    auto* g = new (std::nothrow) IXH_GLOBAL_R();
    if (!g) return IX_NOMEM;
    try {
        g->cur_val.resize(static_cast<size_t>(h->keylen));
        g->last_val.resize(static_cast<size_t>(h->keylen));
    } catch (const std::bad_alloc&) {
        delete g;
        return IX_NOMEM;
    }
    if (ixgetl(&g->glist) != 0) {
        delete g;
        return IX_NOMEM;
    }
    ixbindl(g->glist, h->iid, segsize(h));
    *gp = g;
    return 0;
}

// Takes the value q stands at as the cursor's.
void takevalue(IXH_GLOBAL_R* g, const Seq& q) {
    memcpy(g->cur_val.data(), q.key, g->cur_val.size());
    g->cur_data = q.data;
    g->has_data = 1;
    g->steps = q.t->steps;
}

// Moves the cursor to the next value of the range. The tree's own cursor is
// followed while nobody else has moved it; otherwise the search starts again
// above the current value.
rctype ixhy_seq_next(IXH_HEADER_R* h, IXH_GLOBAL_R* g) {
    if (!g->has_data) return 1;
    ixclearl(g->glist);
    g->listed = g->inseg = false;
    memcpy(g->last_val.data(), g->cur_val.data(), g->cur_val.size());
    Seq q;
    q.h = h;
    q.t = &h->thr[0];
    q.keepdeleted = g->include_deleted != 0;
    if (!g->hival.empty()) {
        q.hi = g->hival.data();
        q.hilen = g->hilen;
        q.hicomp = g->hicomp;
    }
    rctype rc;
    if (q.t->steps == g->steps && q.t->db) {
        rc = seqstep(q, false);
    } else {
        if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
        q.lo = g->cur_val.data();
        q.lolen = h->keylen;
        q.locomp = IX_GT;
        rc = seqstep(q, true);
    }
    if (rc != 0) {
        g->has_data = 0;
        return rc;
    }
    takevalue(g, q);
    return 0;
}

bool onebit(const IXHYBRID_BTDATA_D& d) { return ixbt_bm_type(d) == Bm_One_Bit_Set; }

// A one-segment value's segment is below the reader's bound.
bool onevisible(const IXH_HEADER_R* h, const IXHYBRID_BTDATA_D& d) { return ixbt_high_segno(d) < h->disk.n_segs; }

// The rows of the current value into glist, limited to the segments of bounds.
rctype ixhy_get_cursor_value_seglist(IXH_HEADER_R* h, IXH_GLOBAL_R* g, const IX_BOUNDS_T* bounds) {
    ixclearl(g->glist);
    ixbindl(g->glist, h->iid, segsize(h));
    int64_t ss = segsize(h);
    int64_t lo = 0, hi = h->disk.n_segs - 1;
    if (bounds) {
        lo = bounds->first < 1 ? 0 : (bounds->first - 1) / ss;
        if (bounds->last < 1) return 0;
        hi = std::min<int64_t>(hi, (bounds->last - 1) / ss);
    }
    rctype rc = valuesegs(h, g->cur_data, &g->ents);
    g->listed = false;
    if (rc < 0) return rc;
    for (const IXH_ST_ENTRY_D& e : g->ents) {
        int32_t s = ixste_seg_no(e);
        if (s < lo || s > hi) continue;
        rc = ixaddseg(g->glist, diskof(e, static_cast<hs_obsno_t>(s) * ss + 1));
        if (rc != 0) {
            ixclearl(g->glist);
            return rc < 0 ? rc : hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        }
    }
    ixrwndl(g->glist);
    return 0;
}

bool inbounds(const IX_BOUNDS_T* b, hs_obsno_t r) { return !b || (r >= b->first && r <= b->last); }

// Rows of a value below the reader's bound: from the tree when its highest
// segment is, else counted from its segments.
rctype valuerows(IXH_HEADER_R* h, const IXHYBRID_BTDATA_D& d, int64_t* n) {
    if (ixbt_high_segno(d) < h->disk.n_segs) {
        *n = onebit(d) ? 1 : d.obs_data;
        return 0;
    }
    *n = 0;
    std::vector<IXH_ST_ENTRY_D> segs;
    rctype rc = valuesegs(h, d, &segs);
    if (rc < 0 || segs.empty()) return rc;
    ix_list_t* l = nullptr;
    if (ixgetl(&l) != 0) return IX_NOMEM;
    ixbindl(l, h->iid, segsize(h));
    for (const IXH_ST_ENTRY_D& e : segs)
        if ((rc = ixaddseg(l, diskof(e, static_cast<hs_obsno_t>(ixste_seg_no(e)) * segsize(h) + 1))) != 0) break;
    if (rc == 0) rc = ixcntl(l, n);
    ixfreel(l);
    return rc > 0 ? hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST) : rc;
}

// The first and last row of an entry's segment.
rctype entryspan(IXH_HEADER_R* h, const IXH_ST_ENTRY_D& e, hs_obsno_t* lo, hs_obsno_t* hi) {
    hs_obsno_t base = static_cast<hs_obsno_t>(ixste_seg_no(e)) * segsize(h) + 1;
    if (ixste_bm_type(e) == Bm_One_Bit_Set) {
        *lo = *hi = e.data;
        return 0;
    }
    IX_BITMAP_SEGMENT_R* b = bseg_create(base);
    if (!b) return IX_NOMEM;
    b->disk = diskof(e, base);
    rctype rc = ix_get_bitmap(h->iid, segsize(h), b, 1);
    int64_t nbits = 0;
    if (rc == 0 && (bm_info(b->bitmap, h->bitmap_size, base, &nbits, lo, hi) != 0 || nbits < 1 ||
                    *hi - base >= segsize(h)))
        rc = hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    bseg_destroy(b);
    return rc;
}

// The span of the current value's rows: exact (obsrange) or by its segments.
rctype ixhy_get_cursor_value_range(IXH_HEADER_R* h, IXH_GLOBAL_R* g, int obsrange) {
    const IXHYBRID_BTDATA_D& d = g->cur_data;
    if (onebit(d) && onevisible(h, d)) {
        g->startobs = g->endobs = d.obs_data;
        g->nobs = 1;
        return 0;
    }
    std::vector<IXH_ST_ENTRY_D>& segs = g->ents;
    g->listed = false;
    rctype rc = valuesegs(h, d, &segs);
    if (rc < 0) return rc;
    g->startobs = g->endobs = g->nobs = 0;
    if (segs.empty()) return 0;
    if ((rc = valuerows(h, d, &g->nobs)) < 0) return rc;
    int64_t ss = segsize(h);
    if (obsrange) {
        hs_obsno_t lo, hi;
        if ((rc = entryspan(h, segs.front(), &g->startobs, &hi)) < 0) return rc;
        if ((rc = entryspan(h, segs.back(), &lo, &g->endobs)) < 0) return rc;
        return 0;
    }
    g->startobs = static_cast<hs_obsno_t>(ixste_seg_no(segs.front())) * ss + 1;
    g->endobs = std::min<hs_obsno_t>((static_cast<hs_obsno_t>(ixste_seg_no(segs.back())) + 1) * ss,
                                     h->fp->xoehdr->numobs);
    return 0;
}

// A value that has no rows below the reader's bound is one the reader can't see yet.
rctype visible(IXH_HEADER_R* h, const IXHYBRID_BTDATA_D& d, bool* yes) {
    if (ixbt_bm_type(d) == Bm_Deleted) {
        *yes = true;  // kept on request; it has no rows
        return 0;
    }
    if (ixbt_one_segment(d)) {
        *yes = onevisible(h, d);
        return 0;
    }
    if (ixbt_high_segno(d) < h->disk.n_segs) {
        *yes = true;
        return 0;
    }
    std::vector<IXH_ST_ENTRY_D> segs;
    rctype rc = valuesegs(h, d, &segs);
    *yes = !segs.empty();
    return rc;
}

// Steps the cursor on until a value the reader can see: 0, 1 at the end.
rctype settle(IXH_HEADER_R* h, IXH_GLOBAL_R* g) {
    for (;;) {
        if (!g->has_data) return 1;
        bool yes = false;
        rctype rc = visible(h, g->cur_data, &yes);
        if (rc < 0) return rc;
        if (yes) return 0;
        if ((rc = ixhy_seq_next(h, g)) != 0) return rc;
    }
}

// A failure ends the scan.
rctype endscan(IXH_GLOBAL_R* g, rctype rc) {
    if (rc < 0) {
        g->has_data = 0;
        g->listed = g->inseg = false;
        ixclearl(g->glist);
    }
    return rc;
}

}  // namespace

void ixhy_cleanup_global(IXH_HEADER_R* h) {
    IXH_GLOBAL_R* g = global(h);
    if (!g) return;
    ixfreel(g->glist);
    delete g;
    h->global = nullptr;
}

rctype ixhygsetpnt(void* vh, const void* loval, int locomp, int lolen, const void* hival, int hicomp, int hilen,
                   int ignore) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if ((locomp != IX_GT && locomp != IX_GE) || (hicomp != IX_LT && hicomp != IX_LE)) return IX_BADCOMPARE;
    if ((loval && lolen > h->keylen) || (hival && hilen > h->keylen)) return IX_KEYTOOLONG;
    if ((loval && lolen < 1) || (hival && hilen < 1)) return IX_BADCOMPARE;
    rctype rc = ixhy_btrof(h, 0);
    if (rc < 0) return rc;
    // The previous scan's cursor is cleaned and its memory taken again.
    IXH_GLOBAL_R* g = global(h);
    if (g) {
        ixclearl(g->glist);
        g->has_data = 0;
        g->listed = g->inseg = false;
        g->hival.clear();
        g->hilen = 0;
    } else {
        if ((rc = ixhy_alloc_global(h, &g)) < 0) return rc;
        h->global = g;
    }
    g->include_deleted = ignore != 0;
    g->hicomp = hicomp;
    if (hival) {
        g->hival.assign(static_cast<const unsigned char*>(hival), static_cast<const unsigned char*>(hival) + hilen);
        g->hilen = hilen;
    }
    Seq q;
    q.h = h;
    q.t = &h->thr[0];
    q.keepdeleted = g->include_deleted != 0;
    q.lo = static_cast<const unsigned char*>(loval);
    q.lolen = lolen;
    q.locomp = locomp;
    if (hival) {
        q.hi = g->hival.data();
        q.hilen = hilen;
        q.hicomp = hicomp;
    }
    rc = seqstep(q, true);
    if (rc < 0) return rc;
    // Nothing in the range is no error: the first read gives no rows.
    if (rc == 0) takevalue(g, q);
    rc = settle(h, g);
    return rc < 0 ? endscan(g, rc) : 0;
}

rctype ixhygsetrng(void* h, const void* low, int low_comp, const void* high, int high_comp, int len) {
    return ixhygsetpnt(h, low, low_comp, len, high, high_comp, len, 0);
}

rctype ixhyggetpnt(void* vh, const IX_BOUNDS_T* bounds, void* values, hs_obsno_t* obsno, int64_t* size) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!obsno || !size || *size < 0) return 1;
    int64_t room = *size, n = 0;
    *size = 0;
    IXH_GLOBAL_R* g = global(h);
    if (!g) return 0;
    auto* vals = static_cast<unsigned char*>(values);
    size_t kl = static_cast<size_t>(h->keylen);
    rctype rc = 0;
    while (n < room && g->has_data) {
        int64_t got = 0;
        bool done = false;  // the value has no more rows for us
        if (onebit(g->cur_data)) {
            hs_obsno_t r = g->cur_data.obs_data;
            if (inbounds(bounds, r) && onevisible(h, g->cur_data)) obsno[n] = r, got = 1;
            done = true;
        } else if (g->inseg) {
            got = room - n;
            rc = ixrtrve(g->glist, obsno + n, &got);
            if (rc < 0) return endscan(g, rc);
            g->inseg = rc == 0;
            // Rows rise: those below first are dropped, one past last ends the value.
            int64_t keep = 0;
            for (int64_t i = 0; i < got; ++i) {
                hs_obsno_t r = obsno[n + i];
                if (bounds && r > bounds->last) {
                    done = true;
                    break;
                }
                if (inbounds(bounds, r)) obsno[n + keep++] = r;
            }
            got = keep;
        } else {
            if (!g->listed) {
                if ((rc = valuesegs(h, g->cur_data, &g->ents)) < 0) return endscan(g, rc);
                g->listed = true;
                g->ei = 0;
                // Entries of segments before first are passed over.
                if (bounds)
                    while (g->ei < g->ents.size() &&
                           (static_cast<hs_obsno_t>(ixste_seg_no(g->ents[g->ei])) + 1) * segsize(h) < bounds->first)
                        ++g->ei;
            }
            if (g->ei == g->ents.size()) {
                done = true;
            } else {
                const IXH_ST_ENTRY_D& e = g->ents[g->ei++];
                hs_obsno_t base = static_cast<hs_obsno_t>(ixste_seg_no(e)) * segsize(h) + 1;
                if (bounds && base > bounds->last) {
                    done = true;
                } else if (ixste_bm_type(e) == Bm_One_Bit_Set) {
                    // A row kept in the entry itself: no list to make.
                    if (inbounds(bounds, e.data)) obsno[n] = e.data, got = 1;
                } else {
                    ixclearl(g->glist);
                    ixbindl(g->glist, h->iid, segsize(h));
                    rc = ixaddseg(g->glist, diskof(e, base));
                    if (rc != 0) return endscan(g, rc < 0 ? rc : hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST));
                    ixrwndl(g->glist);
                    g->inseg = true;
                }
            }
        }
        if (vals)
            for (int64_t i = 0; i < got; ++i) memcpy(vals + static_cast<size_t>(n + i) * kl, g->cur_val.data(), kl);
        n += got;
        if (done) {
            rc = ixhy_seq_next(h, g);
            if (rc == 0) rc = settle(h, g);
            if (rc < 0) {
                *size = n;
                return endscan(g, rc);
            }
        }
    }
    *size = n;
    return 0;
}

rctype ixhyggetlist(void* vh, const IX_BOUNDS_T* bounds, ix_list_t** list, void* value) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!list) return 1;
    if (!*list && ixgetl(list) != 0) return IX_NOMEM;
    ixclearl(*list);
    ixbindl(*list, h->iid, segsize(h));
    IXH_GLOBAL_R* g = global(h);
    if (!g || !g->has_data) return 1;
    rctype rc = 0;
    do {
        if ((rc = ixhy_get_cursor_value_seglist(h, g, bounds)) < 0) break;
        if (value) {
            memcpy(value, g->cur_val.data(), g->cur_val.size());
            rc = ixcopyl(g->glist, *list);
        } else {
            rc = ixop(*list, g->glist, *list, IX_OR);
        }
        if (rc != 0) {
            if (rc > 0) rc = hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
            break;
        }
        if ((rc = ixhy_seq_next(h, g)) == 0) rc = settle(h, g);
        if (rc < 0) break;
        rc = 0;
    } while (!value && g->has_data);
    if (rc == 0 && bounds) rc = ixcutl(*list, bounds->first, bounds->last);
    if (rc != 0) {
        ixclearl(*list);
        return endscan(g, rc < 0 ? rc : hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST));
    }
    ixrwndl(*list);
    return 0;
}

rctype ixhyggetrng(void* vh, int obsrange, void* value, hs_obsno_t* low, hs_obsno_t* high, int64_t* n) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!low || !high || !n) return 1;
    IXH_GLOBAL_R* g = global(h);
    if (!g || !g->has_data) return 1;
    rctype rc = ixhy_get_cursor_value_range(h, g, obsrange);
    if (rc < 0) return endscan(g, rc);
    *low = g->startobs;
    *high = g->endobs;
    *n = g->nobs;
    if (value) memcpy(value, g->cur_val.data(), g->cur_val.size());
    if ((rc = ixhy_seq_next(h, g)) == 0) rc = settle(h, g);
    return rc < 0 ? endscan(g, rc) : 0;
}

namespace {

// The bounds of gcount and gscan into a cursor: a null end is open.
rctype rangeof(IXH_HEADER_R* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, Seq* q) {
    IX_SEGOP_T lo{}, hi{};
    lo.op = IX_GE;
    hi.op = IX_LE;
    if (low) lo = *low;
    if (high) hi = *high;
    rctype rc = setbounds(h, &lo, &hi, q);
    if (rc != 0) return rc;
    if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
    q->t = &h->thr[0];
    return 0;
}

// Products and sums that would leave the doubles are exceptions.
bool mul_exception(double a, double b) {
    if (a == 0 || b == 0) return false;
    double l = std::log(std::fabs(a)) + std::log(std::fabs(b));
    return l < -709.78271289338 || l > 709.78271289338;
}
bool add_exception(double cell, double v) {
    return v > 0 ? cell > DBL_MAX - v : cell < -(DBL_MAX + v);
}
// cell += a * b unless an exception was seen, which is flagged.
void accumulate(double* cell, int* excp, double a, double b) {
    if (*excp) return;
    if (mul_exception(a, b) || add_exception(*cell, a * b)) {
        *excp = 1;
        return;
    }
    *cell += a * b;
}

// A numeric key back into its double.
double numvalue(const SKB_COL& c, const unsigned char* key) {
    unsigned char v[8] = {}, w[8];
    memcpy(v, key + c.koff, static_cast<size_t>(c.nlng));
    if (c.order)
        for (int i = 0; i < c.nlng; ++i) v[i] = static_cast<unsigned char>(~v[i]);
    hsrsdbl(v, c.nlng);
    vzrftrc(v, c.nlng, w);
    double d;
    memcpy(&d, w, 8);
    return d;
}

}  // namespace

rctype ixhygcount(void* vh, const IX_SEGOP_T* low, const IX_SEGOP_T* high, int64_t* count) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!count) return 1;
    *count = 0;
    Seq q;
    rctype rc = rangeof(h, low, high, &q);
    if (rc != 0) return rc;
    for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
        bool yes = false;
        if ((rc = visible(h, q.data, &yes)) < 0) return rc;
        if (yes) ++*count;
    }
    return rc < 0 ? rc : 0;
}

rctype ixhygscan(void* vh, const IX_SEGOP_T* low, const IX_SEGOP_T* high, IX_GSCAN* gs) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!gs) return 1;
    const SKB_INFO& in = h->skb->info;
    const int valstats = IX_GS_MIN | IX_GS_MAX | IX_GS_SUM | IX_GS_SUMD | IX_GS_USS | IX_GS_USSD;
    // Statistics of values are those of a single column.
    if ((gs->stats & valstats) && in.ncols != 1) return IX_BADOPTS;
    const SKB_COL* col = in.ncols == 1 ? &in.cols[0] : nullptr;
    bool numeric = col && col->ntype == 1;
    if ((gs->stats & (IX_GS_SUM | IX_GS_SUMD | IX_GS_USS | IX_GS_USSD)) && !numeric) return IX_BADOPTS;
    if (!numeric && ((gs->stats & IX_GS_MIN && !gs->minc) || (gs->stats & IX_GS_MAX && !gs->maxc))) return 1;
    Seq q;
    rctype rc = rangeof(h, low, high, &q);
    if (rc != 0) return rc;
    gs->min = gs->max = VZ_MISSING;
    gs->nmiss = gs->count = gs->countd = 0;
    gs->sum = gs->sumd = gs->uss = gs->ussd = 0;
    gs->sumexcp = gs->sumdexcp = gs->ussexcp = gs->ussdexcp = 0;
    bool first = true;
    std::vector<unsigned char> row;
    for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
        int64_t rows = 0;
        if ((rc = valuerows(h, q.data, &rows)) < 0) return rc;
        if (rows == 0) continue;
        if (h->skb->mt.ismissing && h->skb->mt.ismissing(h->skb, q.key)) {
            gs->nmiss += rows;
            continue;
        }
        gs->count += rows;
        ++gs->countd;
        if (numeric) {
            double v = numvalue(*col, q.key);
            if (first || v < gs->min) gs->min = v;
            if (first || v > gs->max) gs->max = v;
            if (gs->stats & IX_GS_SUM) accumulate(&gs->sum, &gs->sumexcp, v, static_cast<double>(rows));
            if (gs->stats & IX_GS_SUMD) accumulate(&gs->sumd, &gs->sumdexcp, v, 1);
            // A square past the largest double is an exception of its own.
            bool big = std::fabs(v) > 1.3407807929943e+154;
            if (gs->stats & IX_GS_USS) {
                if (big) gs->ussexcp = 1;
                else accumulate(&gs->uss, &gs->ussexcp, v * v, static_cast<double>(rows));
            }
            if (gs->stats & IX_GS_USSD) {
                if (big) gs->ussdexcp = 1;
                else accumulate(&gs->ussd, &gs->ussdexcp, v * v, 1);
            }
        } else if (gs->stats & (IX_GS_MIN | IX_GS_MAX)) {
            // Keys rise: the first is the least and the last the greatest, read back into the column.
            if (row.empty()) row.resize(static_cast<size_t>(col->npos + col->nlng));
            if ((rc = h->skb->mt.extractkey(h->skb, q.key, row.data(), nullptr)) < 0) return rc;
            bool asc = col->order == 0;
            if ((gs->stats & IX_GS_MIN) && (asc ? first : true))
                memcpy(gs->minc, row.data() + col->npos, static_cast<size_t>(col->nlng));
            if ((gs->stats & IX_GS_MAX) && (asc ? true : first))
                memcpy(gs->maxc, row.data() + col->npos, static_cast<size_t>(col->nlng));
        }
        first = false;
    }
    return rc < 0 ? rc : 0;
}

}  // namespace vrta

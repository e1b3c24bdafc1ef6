// The hybrid index scan: conditions on a key turned into the segment list,
// then segment by segment, thread by thread, into row lists; and the
// pre-evaluation that reads each value's chain once for a wide range.
// Everything read from the files is checked before it is used, so that a
// damaged index gives a code and never a wrong row or an endless walk.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <vector>

#include "hs/hs.h"
#include "ix/ixhyr.h"
#include "option/op.h"
#include "sda/daidx.h"
#include "sda/darc.h"

namespace vrta {

namespace ixhyr {

const char TRACEFILE[] = "ix/src/ixhyscan";

// An integer option (4 bytes) or a number option (8); dflt when unset.
int64_t optint(const char* name, int64_t dflt) {
    void* opt = opgtgbl();
    if (!opt) return dflt;
    alignas(8) char v[64] = {};
    int len = 0;
    if (opgetop(opt, name, v, &len) < 0) return dflt;
    if (len == 4) {
        int32_t i;
        memcpy(&i, v, 4);
        return i;
    }
    if (len == 8) {
        double d;
        memcpy(&d, v, 8);
        return static_cast<int64_t>(d);
    }
    return dflt;
}

rctype badthread(int threadno, const IXH_HEADER_R* h, const char* who) {
    hsprint("%s: Hybrid Bitmap Error: maximum number of %d segment threads exceeded\n", who, h->max_threads);
    (void)threadno;
    return IX_INCONSIST;
}

// The tree of thread slot n, with its own file handles past slot 0.
rctype ixhy_btrof(IXH_HEADER_R* h, int n) {
    IXH_THREAD_R& t = h->thr[n];
    if (t.db) return 0;
    rctype rc = 0;
    if (n == 0) {
        t.idx = h->hybiid;
        t.hbx = h->iid;
    } else if (!t.idx) {
        t.ownfiles = true;
        // The tree's file is read through the page cache: a mapped page would be checked at every visit.
        rc = h->fp->mt->openidx(h->fp, h->name, DA_IDXFIDX, &t.idx);
        if (rc == 0) rc = h->fp->mt->openidx(h->fp, h->name, DA_IDXFHBX | DA_IDXOMAP, &t.hbx);
        if (rc < 0) return rc;
    }
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    info.keylen = static_cast<uint32_t>(h->keylen);
    info.datalen = h->datalen;
    int64_t cache = optint("INDEX_MAXMEMORY", 0);
    info.cachesize = static_cast<uint32_t>(cache < 0 ? 0 : cache > (1ll << 30) ? (1ll << 30) : cache);
    info.skbp = h->skb;
    IX_HEADER_D th{};
    DB* db = nullptr;
    int brc = __bt_open(t.idx, BT_OREAD, &info, &th, &db, 0);
    if (brc == 0) brc = __bt_open(t.idx, BT_OREAD, &info, &th, &db, 1);
    if (brc != 0) {
        if (db) db->close(db, -1, nullptr, 1);
        return bt_openrc(brc);
    }
    if (th.type != IX_GLOBAL_BTREE || th.value_len != h->keylen || db->internal->bt_data_len != h->datalen) {
        db->close(db, -1, nullptr, 1);
        return hs_trace_error(TRACEFILE, __LINE__, IX_BADVERSION);
    }
    t.db = db;
    h->db_ptr_ptr[n] = db;
    if (t.lowkey.size() < static_cast<size_t>(h->keylen)) t.lowkey.resize(static_cast<size_t>(h->keylen));
    return 0;
}

// The value in hand passes the bounds: 0, 1 past the high end, 2 to be passed over.
int judge(Seq& q) {
    if (q.lo) {
        int c = memcmp(q.key, q.lo, q.lolen);
        if (c < 0 || (c == 0 && q.locomp == IX_GT)) return 2;
    }
    if (q.hi) {
        int c = memcmp(q.key, q.hi, q.hilen);
        if (c > 0 || (c == 0 && q.hicomp == IX_LT)) return 1;
    }
    return 0;
}

rctype takedata(Seq& q, const DBT& d) {
    if (d.size != q.h->datalen) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    if (q.h->datalen == 8) {
        IXHYBRID_UNIQ_BTDATA_D u;
        memcpy(&u, d.data, 8);
        // Row 0 marks a value whose row was deleted.
        if (u.obs_no < 0) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        ixhy_convert_uniq_btdata(&u, segsize(q.h), &q.data);
    } else {
        memcpy(&q.data, d.data, sizeof q.data);
    }
    return 0;
}

// Steps (first: from the low bound) to the next value of the range that
// isn't deleted: 0, 1 at the end, or a code.
rctype seqstep(Seq& q, bool first) {
    DB* db = q.t->db;
    ++q.t->steps;
    DBT k{}, d{};
    rctype rc;
    if (first && q.lo) {
        char* buf = q.t->lowkey.data();
        memset(buf, 0, static_cast<size_t>(q.h->keylen));
        memcpy(buf, q.lo, static_cast<size_t>(q.lolen));
        k = {buf, static_cast<size_t>(q.h->keylen)};
        rc = db->seq(db, &k, &d, R_CURSOR);
    } else {
        rc = db->seq(db, &k, &d, first ? R_FIRST : R_NEXT);
    }
    bool atfirst = first;
    for (;;) {
        if (rc != 0) return rc < 0 ? rc : 1;
        if (k.size != static_cast<size_t>(q.h->keylen)) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        q.key = static_cast<const unsigned char*>(k.data);
        if (atfirst) q.exact = q.lo && memcmp(q.key, q.lo, q.lolen) == 0;
        atfirst = false;
        int j = judge(q);
        if (j == 1) return 1;
        if (j == 0) {
            if ((rc = takedata(q, d)) < 0) return rc;
            if (q.keepdeleted || ixbt_bm_type(q.data) != Bm_Deleted) return 0;
        }
        rc = db->seq(db, &k, &d, R_NEXT);
    }
}

// The bounds of a range checked, into q.
rctype setbounds(IXH_HEADER_R* h, const IX_SEGOP_T* low, const IX_SEGOP_T* high, Seq* q) {
    if (!low || !high) return 1;
    if ((low->op != IX_GT && low->op != IX_GE) || (high->op != IX_LT && high->op != IX_LE)) return IX_BADCOMPARE;
    for (const IX_SEGOP_T* e : {low, high}) {
        if (!e->value) continue;
        if (e->v_length > h->keylen) return IX_KEYTOOLONG;
        if (e->v_length < 1) return IX_BADCOMPARE;
    }
    q->h = h;
    q->lo = static_cast<const unsigned char*>(low->value);
    q->lolen = low->v_length;
    q->locomp = low->op;
    q->hi = static_cast<const unsigned char*>(high->value);
    q->hilen = high->v_length;
    q->hicomp = high->op;
    return 0;
}

rctype segof(IXH_HEADER_R* h, hs_obsno_t row, int32_t* s) {
    int64_t seg = row < 1 ? 0 : (row - 1) / segsize(h);
    if (seg >= h->disk.n_segs) return IX_SEGRANGE;
    *s = static_cast<int32_t>(seg);
    return 0;
}

rctype checkthread(IXH_HEADER_R* h, int threadno, const char* who) {
    if (threadno < 0 || threadno >= h->max_threads) return badthread(threadno, h, who);
    return ixhy_btrof(h, threadno);
}

// An entry is sound for segment s.
bool soundste(const IXH_HEADER_R* h, const IXH_ST_ENTRY_D& e, int32_t s) {
    int t = ixste_bm_type(e);
    int64_t ss = segsize(h);
    if (ixste_seg_no(e) != s) return false;
    if (t == Bm_One_Bit_Set) return e.data > static_cast<int64_t>(s) * ss && e.data <= static_cast<int64_t>(s + 1) * ss;
    return (t == Bm_Not_Compressed || t == Bm_Compression_1 || t == Bm_Bit_List) && e.data > 0 &&
           e.bm_offset >= static_cast<int64_t>(sizeof(IXH_HEADER_D));
}

// The entry of segment s of a value: 0 and *ste, 1 when the value has none.
rctype ixhy_get_value_ste(IXH_HEADER_R* h, IXH_THREAD_R& t, const IXHYBRID_BTDATA_D& bt, int32_t s,
                          IXH_ST_ENTRY_D* ste) {
    int type = ixbt_bm_type(bt);
    if (ixbt_one_segment(bt)) {
        if (ixbt_high_segno(bt) != s) return 1;
        ixste_set(*ste, s, type);
        ste->pad = 0;
        ste->data = type == Bm_One_Bit_Set ? bt.obs_data : bt.seg_data;
        ste->bm_offset = type == Bm_One_Bit_Set ? 0 : bt.data_loc;
        return soundste(h, *ste, s) ? 0 : hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    }
    if (s > ixbt_high_segno(bt)) return 1;
    int64_t left = bt.seg_data;
    int32_t below = ixbt_high_segno(bt) + 1;
    for (da_off_t at = bt.data_loc; at != 0;) {
        IXH_SEGCHUNK_D c;
        if (at < static_cast<da_off_t>(sizeof(IXH_HEADER_D))) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        rctype rc = Read_Bitmap(t.hbx, at, sizeof c, &c);
        if (rc < 0) return rc;
        // Chunks go down from the newest, each below the one before.
        if (c.n_segs < 1 || c.n_segs > c.max_segs || c.n_segs > left || c.low_segno > c.high_segno ||
            c.high_segno >= below || c.low_segno < 0)
            return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        if (c.high_segno < s) return 1;
        if (c.low_segno <= s) {
            t.chunk.resize(static_cast<size_t>(c.n_segs));
            rc = Read_Bitmap(t.hbx, at + static_cast<da_off_t>(sizeof c),
                             static_cast<int64_t>(t.chunk.size() * sizeof(IXH_ST_ENTRY_D)), t.chunk.data());
            if (rc < 0) return rc;
            size_t lo = 0, hi = t.chunk.size();
            while (lo < hi) {
                size_t mid = (lo + hi) / 2;
                if (ixste_seg_no(t.chunk[mid]) < s) lo = mid + 1;
                else hi = mid;
            }
            if (lo == t.chunk.size() || ixste_seg_no(t.chunk[lo]) != s) return 1;
            *ste = t.chunk[lo];
            return soundste(h, *ste, s) ? 0 : hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        }
        below = c.low_segno;
        left -= c.n_segs;
        at = c.next;
    }
    return 1;
}

IX_BITMAP_SEGMENT_D diskof(const IXH_ST_ENTRY_D& e, hs_obsno_t base) {
    IX_BITMAP_SEGMENT_D d{};
    d.segment_loc = e.bm_offset;
    d.base = base;
    d.data = e.data;
    d.cpr_t = ixste_bm_type(e);
    return d;
}

// The list of a segment's answer, bound to the thread's file and cleared.
rctype takelist(IXH_HEADER_R* h, IX_SEGOP_T* op, int threadno) {
    if (!op->list && ixgetl(&op->list) != 0) return IX_NOMEM;
    ixclearl(op->list);
    ixbindl(op->list, h->thr[threadno].hbx, segsize(h));
    return 0;
}

// The entries of a value, in rising segment order, limited to the header's segments.
rctype valuesegs(IXH_HEADER_R* h, const IXHYBRID_BTDATA_D& bt, std::vector<IXH_ST_ENTRY_D>* out) {
    rctype rc;
    try {
        rc = ixhy_value_segv(h->iid, &h->disk, &bt, out);
    } catch (const std::bad_alloc&) {
        rc = IX_NOMEM;
    }
    if (rc < 0) return rc;
    // Rising: what lies past the reader's segments is at the end.
    while (!out->empty() && ixste_seg_no(out->back()) >= h->disk.n_segs) out->pop_back();
    return 0;
}

// The low and high end of a condition, as ixhyseg maps them.
void mapop(const IX_SEGOP_T& c, IX_SEGOP_T* low, IX_SEGOP_T* high) {
    *low = IX_SEGOP_T{};
    *high = IX_SEGOP_T{};
    low->list = c.list;
    low->segment = c.segment;
    low->hy_list = c.hy_list;
    low->ixpriv = c.ixpriv;
    switch (c.op) {
    case IX_EQ:
    case IX_NE:
        *low = IX_SEGOP_T{c.list, c.value, IX_GE, c.segment, c.v_length, c.hy_list, c.ixpriv};
        *high = IX_SEGOP_T{nullptr, c.value, IX_LE, c.segment, c.v_length, nullptr, nullptr};
        break;
    case IX_GT:
    case IX_GE:
        *low = IX_SEGOP_T{c.list, c.value, c.op, c.segment, c.v_length, c.hy_list, c.ixpriv};
        high->op = IX_LE;
        break;
    case IX_LT:
    case IX_LE:
        low->op = IX_GE;
        *high = IX_SEGOP_T{nullptr, c.value, c.op, c.segment, c.v_length, nullptr, nullptr};
        break;
    default:
        low->op = -1;  // refused by the bounds check
        break;
    }
}

// ---------------------------------------------------------------- pre-evaluation

struct PevEntry {
    uint32_t* bitmap = nullptr;
    std::vector<hs_obsno_t> obsnos;
    std::vector<IXH_ST_ENTRY_D> stes;
    bool used = false;
};
struct PevTree {
    std::map<int32_t, PevEntry> segs;
    bool negate = false;  // IX_NE: each segment's answer is inverted
    ~PevTree() {
        for (auto& [s, e] : segs) free(e.bitmap);
    }
};

rctype addsegment(IXH_HEADER_R* h, PevEntry& e, const IXH_ST_ENTRY_D& ste, hs_obsno_t base) {
    if (ixste_bm_type(ste) != Bm_One_Bit_Set) {
        e.stes.push_back(ste);
        return 0;
    }
    if (!e.bitmap && static_cast<int64_t>(e.obsnos.size()) < h->max_glob_obsno) {
        e.obsnos.push_back(ste.data);
        return 0;
    }
    if (!e.bitmap) {
        if (!bm_alloc_bitmap(segsize(h), &e.bitmap)) return IX_NOMEM;
        for (hs_obsno_t r : e.obsnos) bm_set_bit(e.bitmap, base, r);
        e.obsnos.clear();
        e.obsnos.shrink_to_fit();
    }
    bm_set_bit(e.bitmap, base, ste.data);
    return 0;
}

}  // namespace ixhyr

using namespace ixhyr;

rctype ixhy_set_segbit(ix_list_t* list, int64_t segno, int64_t ss, int64_t* count) {
    if (Isset_segbit(list, segno)) return 0;
    rctype rc = ixadnum(list, segno + 1, ss);
    if (rc != 0) return rc < 0 ? rc : IX_INCONSIST;
    ++*count;
    return 0;
}

int Isset_segbit(const ix_list_t* list, int64_t segno) {
    if (!list || list->segsize < 1) return 0;
    hs_obsno_t row = segno + 1;
    hs_obsno_t base = segno / list->segsize * list->segsize + 1;
    IX_BITMAP_SEGMENT_R* s = bseg_find(const_cast<IX_BITMAP_SEGMENT_R*>(&list->head), base);
    return s && s->bitmap && s->disk.cpr_t != Bm_Bit_List && bm_isset_bit(s->bitmap, base, row);
}

rctype ixhy_refresh(IXH_HEADER_R* h) {
    IXH_HEADER_D d;
    rctype rc = ixhy_rdhdr(h->iid, &d, 0);
    if (rc < 0) return rc;
    if (d.n_segs < h->disk.n_segs || d.common.segment_size != h->disk.common.segment_size ||
        d.common.value_len != h->disk.common.value_len)
        return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    for (int n = 0; n < h->max_threads; ++n) {
        IXH_THREAD_R& t = h->thr[n];
        if (t.hbx && t.hbx != h->iid) {
            if ((rc = t.hbx->mt->refidx(t.hbx)) < 0) return rc;
        }
        if (t.db) {
            ++t.steps;
            if ((rc = __bt_reread(t.db)) < 0) return rc;
        }
    }
    h->disk = d;
    h->is_updated = 1;
    return 0;
}

namespace {

void refreshcb(void* anchor) {
    auto* h = static_cast<IXH_HEADER_R*>(anchor);
    h->refresh_rc = ixhy_refresh(h);
}

}  // namespace

rctype ixhyresync(void* vh) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    h->refresh_rc = 0;
    rctype rc = h->iid->mt->refidx(h->iid);
    if (rc < 0) return rc;
    if (h->refresh_rc < 0) return h->refresh_rc;
    return ixhy_refresh(h);
}

rctype ixhyopen(DA_FID* fp, const char* name, int max_threads, IXH_HEADER_R** hp) {
    *hp = nullptr;
    if (max_threads < 2) max_threads = 1;
    auto* h = static_cast<IXH_HEADER_R*>(calloc(1, sizeof(IXH_HEADER_R)));
    if (!h) return IX_NOMEM;
    h->db_ptr_ptr = static_cast<DB**>(calloc(static_cast<size_t>(max_threads), sizeof(DB*)));
    h->thr = new (std::nothrow) IXH_THREAD_R[static_cast<size_t>(max_threads)]();
    if (!h->db_ptr_ptr || !h->thr) {
        free(h->db_ptr_ptr);
        delete[] h->thr;
        free(h);
        return IX_NOMEM;
    }
    h->max_threads = max_threads;
    h->fp = fp;
    snprintf(h->name, sizeof h->name, "%s", name);
    rctype rc = fp->mt->openidx(fp, name, DA_IDXFHBX | DA_IDXOMAP, &h->iid);
    if (rc == 0) rc = ixhy_rdhdr(h->iid, &h->disk, 0);
    if (rc == 0) rc = fp->mt->openidx(fp, name, DA_IDXFIDX, &h->hybiid);
    if (rc == 0 && !(h->skb = static_cast<SKB_KEY*>(h->iid->skb))) rc = hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    if (rc == 0 && (h->disk.common.value_len != h->skb->info.colkeylen || h->disk.n_segs < 0))
        rc = hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    if (rc < 0) {
        ixhyclose(h);
        return rc;
    }
    h->keylen = h->disk.common.value_len;
    h->datalen = h->disk.is_unique ? 8 : 24;
    h->bitmap_size = bm_bitmap_size(segsize(h));
    // The table's own ratio when it has one (the storage layer leaves 0 for none).
    int64_t ratio = fp->maxsegratio > 0 ? fp->maxsegratio : optint("MAXSEGRATIO", 75);
    h->max_seg_ratio = static_cast<int>(ratio < 0 ? 0 : ratio > 100 ? 100 : ratio);
    h->max_glob_obsno = h->bitmap_size / 144 * 16;
    h->iid->refreshcb = refreshcb;
    h->iid->anchor = h;
    *hp = h;
    return h->disk.common.state == IX_DIRTY ? IX_LEFTDIRTY : 0;
}

rctype ixhyclose(void* vh) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!h) return 0;
    rctype rc = 0;
    ixhy_cleanup_global(h);
    for (int n = 0; h->thr && n < h->max_threads; ++n) {
        IXH_THREAD_R& t = h->thr[n];
        if (t.db && t.db->close(t.db, -1, nullptr, 1) < 0 && rc == 0) rc = IX_CLOSEFAIL;
        if (t.ownfiles) {
            if (t.idx && t.idx->mt->closeidx(t.idx, DA_IDXIGNORE) < 0 && rc == 0) rc = IX_CLOSEFAIL;
            if (t.hbx && t.hbx->mt->closeidx(t.hbx, DA_IDXIGNORE) < 0 && rc == 0) rc = IX_CLOSEFAIL;
        }
    }
    if (h->iid) {
        h->iid->refreshcb = nullptr;
        if (h->iid->mt->closeidx(h->iid, DA_IDXIGNORE) < 0 && rc == 0) rc = IX_CLOSEFAIL;
    }
    if (h->hybiid && h->hybiid->mt->closeidx(h->hybiid, DA_IDXIGNORE) < 0 && rc == 0) rc = IX_CLOSEFAIL;
    delete[] h->thr;
    free(h->db_ptr_ptr);
    free(h);
    return rc;
}

rctype ixhypnt(void* vh, IX_SEGOP_T* low, IX_SEGOP_T* high, int threadno, int) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    Seq q;
    rctype rc = setbounds(h, low, high, &q);
    if (rc != 0) return rc;
    int32_t s;
    if ((rc = segof(h, low->segment, &s)) < 0) return rc;
    if ((rc = checkthread(h, threadno, "ixhypnt")) < 0) return rc;
    if ((rc = takelist(h, low, threadno)) < 0) return rc;
    IXH_THREAD_R& t = h->thr[threadno];
    q.t = &t;
    hs_obsno_t base = static_cast<hs_obsno_t>(s) * segsize(h) + 1;
    for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
        IXH_ST_ENTRY_D e;
        rctype r = ixhy_get_value_ste(h, t, q.data, s, &e);
        if (r == 1) continue;
        if (r == 0) r = ixorseg(low->list, diskof(e, base));
        if (r != 0) {
            rc = r < 0 ? r : IX_INCONSIST;
            break;
        }
    }
    if (rc < 0) {
        ixclearl(low->list);
        return rc;
    }
    return 0;
}

rctype ixhyseg(void* vh, IX_SEGOP_T* segop, int threadno, int cache) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!segop) return 1;
    IX_SEGOP_T low, high;
    mapop(*segop, &low, &high);
    rctype rc = ixhypnt(h, &low, &high, threadno, cache);
    segop->list = low.list;
    if (rc != 0 || segop->op != IX_NE) return rc;
    int32_t s;
    if ((rc = segof(h, segop->segment, &s)) < 0) return rc;
    rc = ixunary(segop->list, segop->list, IX_NOT, s, segsize(h), h->fp->xoehdr->numobs);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ixhyprepnt(void* vh, IX_SEGOP_T* l, IX_SEGOP_T* hs, int nsets, IX_SEGSTATS_T* stats) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!l || !hs || !stats || nsets < 1) return 1;
    std::vector<Seq> qs(static_cast<size_t>(nsets));
    rctype rc;
    for (int i = 0; i < nsets; ++i)
        if ((rc = setbounds(h, &l[i], &hs[i], &qs[static_cast<size_t>(i)])) != 0) return rc;
    if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
    int64_t nsegs = h->disk.n_segs;
    int64_t ss = segsize(h);
    bool over = stats->nsegs * 100 > static_cast<int64_t>(h->max_seg_ratio) * nsegs;
    ix_list_t* list = l[0].hy_list;
    if (!list && ixgetl(&list) != 0) return IX_NOMEM;
    ixclearl(list);
    ixbindl(list, nullptr, ss);
    std::vector<IXH_ST_ENTRY_D> segs;
    for (int i = 0; i < nsets && rc >= 0; ++i) {
        Seq& q = qs[static_cast<size_t>(i)];
        q.t = &h->thr[0];
        for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
            stats->nrows += ixbt_bm_type(q.data) == Bm_One_Bit_Set ? 1 : q.data.obs_data;
            ++stats->nvalues;
            if (over) continue;
            if ((rc = valuesegs(h, q.data, &segs)) < 0) break;
            int64_t before = stats->nsegs;
            for (const IXH_ST_ENTRY_D& e : segs)
                if ((rc = ixhy_set_segbit(list, ixste_seg_no(e), ss, &stats->nsegs)) < 0) break;
            if (rc < 0) break;
            if (stats->nsegs != before && nsegs > 0) {
                stats->segratio = static_cast<int>(stats->nsegs * 100 / nsegs);
                // Not selective enough: reading more entries is pointless.
                if (stats->nsegs * 100 > static_cast<int64_t>(h->max_seg_ratio) * nsegs) over = true;
            }
        }
    }
    stats->maxsegratio = h->max_seg_ratio;
    if (rc < 0 || over) {
        ixfreel(list);
        l[0].hy_list = nullptr;
        return rc < 0 ? rc : 0;
    }
    l[0].hy_list = list;
    return 0;
}

rctype ixhypreseg(void* vh, IX_SEGOP_T* segop, int nsets, IX_SEGSTATS_T* stats) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!segop || !stats || nsets < 1) return 1;
    std::vector<IX_SEGOP_T> lo(static_cast<size_t>(nsets)), hi(static_cast<size_t>(nsets));
    bool ne = false;
    for (int i = 0; i < nsets; ++i) {
        mapop(segop[i], &lo[static_cast<size_t>(i)], &hi[static_cast<size_t>(i)]);
        ne = ne || segop[i].op == IX_NE;
    }
    lo[0].hy_list = segop[0].hy_list;
    rctype rc = ixhyprepnt(h, lo.data(), hi.data(), nsets, stats);
    segop[0].hy_list = lo[0].hy_list;
    // Segments without the value match a not-equal too: no list can be had.
    if (rc == 0 && ne && segop[0].hy_list) {
        ixfreel(segop[0].hy_list);
        segop[0].hy_list = nullptr;
    }
    return rc;
}

rctype ixhypreevalpnt(void* vh, IX_SEGOP_T* low, IX_SEGOP_T* high) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    Seq q;
    rctype rc = setbounds(h, low, high, &q);
    if (rc != 0) return rc;
    if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
    q.t = &h->thr[0];
    auto* tree = new (std::nothrow) PevTree();
    if (!tree) return IX_NOMEM;
    const ix_list_t* only = low->hy_list;
    std::vector<IXH_ST_ENTRY_D> segs;
    try {
        for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
            if ((rc = valuesegs(h, q.data, &segs)) < 0) break;
            for (const IXH_ST_ENTRY_D& e : segs) {
                int32_t s = ixste_seg_no(e);
                if (only && !Isset_segbit(only, s)) continue;
                if ((rc = addsegment(h, tree->segs[s], e, static_cast<hs_obsno_t>(s) * segsize(h) + 1)) < 0) break;
            }
            if (rc < 0) break;
        }
    } catch (const std::bad_alloc&) {
        rc = IX_NOMEM;
    }
    if (rc < 0) {
        delete tree;
        return rc;
    }
    if (low->ixpriv) ixhypreevalcln(h, low->ixpriv);
    low->ixpriv = tree;
    return 0;
}

rctype ixhypreeval(void* vh, IX_SEGOP_T* segop) {
    if (!segop) return 1;
    IX_SEGOP_T low, high;
    mapop(*segop, &low, &high);
    low.ixpriv = nullptr;
    rctype rc = ixhypreevalpnt(vh, &low, &high);
    if (rc != 0) return rc;
    static_cast<PevTree*>(low.ixpriv)->negate = segop->op == IX_NE;
    if (segop->ixpriv) ixhypreevalcln(vh, segop->ixpriv);
    segop->ixpriv = low.ixpriv;
    return 0;
}

rctype ixhypreevallist(void* vh, IX_SEGOP_T* segop, int threadno) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!segop || !segop->ixpriv) return 1;
    auto* tree = static_cast<PevTree*>(segop->ixpriv);
    int32_t s;
    rctype rc = segof(h, segop->segment, &s);
    if (rc < 0) return rc;
    if ((rc = checkthread(h, threadno, "ixhypreevallist")) < 0) return rc;
    if ((rc = takelist(h, segop, threadno)) < 0) return rc;
    hs_obsno_t base = static_cast<hs_obsno_t>(s) * segsize(h) + 1;
    // The tree's shape is not changed here, so that threads can look up
    // their own segments side by side.
    auto it = tree->segs.find(s);
    if (it != tree->segs.end()) {
        PevEntry& e = it->second;
        if (e.used) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        e.used = true;
        if (e.bitmap || !e.obsnos.empty()) {
            IX_BITMAP_SEGMENT_R* b = bseg_create(base);
            if (!b) return IX_NOMEM;
            b->bitmap = e.bitmap;
            e.bitmap = nullptr;
            if (!b->bitmap && !bm_alloc_bitmap(segsize(h), &b->bitmap)) {
                free(b);
                return IX_NOMEM;
            }
            for (hs_obsno_t r : e.obsnos) bm_set_bit(b->bitmap, base, r);
            b->disk.cpr_t = Bm_Not_Compressed;
            b->disk.data = h->bitmap_size;
            bseg_insert(&segop->list->head, b);
        }
        for (const IXH_ST_ENTRY_D& ste : e.stes)
            if ((rc = ixorseg(segop->list, diskof(ste, base))) != 0) break;
        e.obsnos = {};
        e.stes = {};
        if (rc != 0) {
            ixclearl(segop->list);
            return rc < 0 ? rc : IX_INCONSIST;
        }
    }
    if (!tree->negate) return 0;
    rc = ixunary(segop->list, segop->list, IX_NOT, s, segsize(h), h->fp->xoehdr->numobs);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ixhypreevalcln(void*, void* tree) {
    delete static_cast<PevTree*>(tree);
    return 0;
}

rctype ixhycount(void* vh, const void* value, hs_obsno_t obs, int64_t* count) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!value || !count) return 1;
    *count = 0;
    int32_t s;
    rctype rc = segof(h, obs, &s);
    if (rc < 0) return rc;
    if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
    Seq q;
    q.h = h;
    q.t = &h->thr[0];
    q.lo = q.hi = static_cast<const unsigned char*>(value);
    q.lolen = q.hilen = h->keylen;
    rc = seqstep(q, true);
    if (rc != 0) return rc < 0 ? rc : 0;
    IXH_ST_ENTRY_D e;
    if ((rc = ixhy_get_value_ste(h, h->thr[0], q.data, s, &e)) != 0) return rc < 0 ? rc : 0;
    switch (ixste_bm_type(e)) {
    case Bm_One_Bit_Set:
        *count = 1;
        return 0;
    case Bm_Bit_List:
        // The byte length over 4, twice the rows of 8-byte entries: callers
        // know this count as an estimate with that factor, so it stays.
        *count = e.data >> 2;
        return 0;
    default: {
        ix_list_t* l = nullptr;
        if (ixgetl(&l) != 0) return IX_NOMEM;
        ixbindl(l, h->iid, segsize(h));
        rc = ixaddseg(l, diskof(e, static_cast<hs_obsno_t>(s) * segsize(h) + 1));
        if (rc == 0) rc = ixcntl(l, count);
        ixfreel(l);
        return rc > 0 ? IX_INCONSIST : rc;
    }
    }
}

rctype ixhyvlst(void* vh, IX_SEGOP_T* low, IX_SEGOP_T* high, ix_valfn_t each, void* arg) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    Seq q;
    rctype rc = setbounds(h, low, high, &q);
    if (rc != 0) return rc;
    if (!each) return 1;
    if ((rc = ixhy_btrof(h, 0)) < 0) return rc;
    q.t = &h->thr[0];
    for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
        int64_t n = ixbt_bm_type(q.data) == Bm_One_Bit_Set ? 1 : q.data.obs_data;
        if (each(arg, q.key, n) != 0) return 0;
    }
    return rc < 0 ? rc : 0;
}

rctype ixhyminnomiss(void* vh, void* value) {
    auto* h = static_cast<IXH_HEADER_R*>(vh);
    if (!value) return 1;
    rctype rc = ixhy_btrof(h, 0);
    if (rc < 0) return rc;
    Seq q;
    q.h = h;
    q.t = &h->thr[0];
    for (rc = seqstep(q, true); rc == 0; rc = seqstep(q, false)) {
        if (h->skb->mt.ismissing && h->skb->mt.ismissing(h->skb, q.key)) continue;
        memcpy(value, q.key, static_cast<size_t>(h->keylen));
        return 0;
    }
    return rc;
}

}  // namespace vrta

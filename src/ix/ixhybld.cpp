// Building a hybrid index: rows come in by value (sorted) or in any order
// of value (kept in an AVL tree until the end); each value's rows are
// gathered per segment, each closed segment takes its stored form, and when
// the value is done its segments are written (one bitmap, or a chunk of
// entries and their bitmaps) and its record goes to the B-tree in key
// order, through the fast path.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "ix/ixhy.h"
#include "option/op.h"
#include "sda/darc.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/ixhybld";

int64_t seglen(IXH_HEADER_B* h) { return h->disk.common.segment_size; }
int32_t maxlist(IXH_HEADER_B* h) { return h->disk.max_obslist_size; }
bool unique(IXH_HEADER_B* h) { return h->disk.is_unique != 0; }

int32_t intoption(const char* name, int32_t dflt) {
    void* opt = opgtgbl();
    int32_t v = 0;
    int len = 0;
    if (opt && opgetop(opt, name, &v, &len) >= 0 && v > 0) return v;
    return dflt;
}

}  // namespace

rctype ixhy_write(IXH_HEADER_B* h, const void* buf, int64_t len, da_off_t off) {
    if (len <= 0) return 0;
    rctype rc = h->hybiid->mt->writeidx(h->hybiid, buf, static_cast<long>(len), off);
    if (rc < 0) {
        hsprint("ixhywrite: Index file %s: write of %ld bytes at %ld failed: Reason=%s\n",
                h->hybiid->name ? h->hybiid->name : "?", static_cast<long>(len), static_cast<long>(off), hsstrer(rc));
        return rc == DA_NOSPACE ? rc : IX_WRITEFAIL;
    }
    return 0;
}

rctype ixhy_wrhdr(IXH_HEADER_B* h) { return ixhy_write(h, &h->disk, sizeof h->disk, 0); }

namespace {

// ---------------------------------------------------------------- segments

IXH_BITMAP_SEGMENT_B* ixhy_alloc_bseg(IXH_HEADER_B* h, int32_t seg) {
    IXH_BITMAP_SEGMENT_B* s = h->bseg_cache;
    if (s) {
        h->bseg_cache = s->next;
    } else {
        s = static_cast<IXH_BITMAP_SEGMENT_B*>(calloc(1, sizeof(IXH_BITMAP_SEGMENT_B)));
        if (!s) return nullptr;
        s->obslist = static_cast<hs_obsno_t*>(malloc(sizeof(hs_obsno_t) * (maxlist(h) + 1)));
        if (!unique(h)) {
            // The bitmap and, behind it, room for its compressed form.
            s->bitmap = static_cast<uint32_t*>(calloc(2, h->bitmap_size));
            s->cprbuf = reinterpret_cast<char*>(s->bitmap) + h->bitmap_size;
        }
        if (!s->obslist || (!unique(h) && !s->bitmap)) {
            free(s->obslist);
            free(s->bitmap);
            free(s);
            return nullptr;
        }
    }
    // A map is cleared only when it was used.
    if (s->flags & IXH_SEG_BITMAP) memset(s->bitmap, 0, h->bitmap_size);
    memset(&s->ste, 0, sizeof s->ste);
    ixste_set(s->ste, seg, Bm_Not_Defined);
    s->store = nullptr;
    s->saved = nullptr;
    s->storelen = 0;
    s->low_obsno = 0x7FFFFFFFFFFFFFFFLL;
    s->high_obsno = -1;
    s->n_obs = 0;
    s->flags = 0;
    s->oldoff = -1;
    s->oldlen = 0;
    s->next = nullptr;
    return s;
}

void freebseg(IXH_HEADER_B* h, IXH_BITMAP_SEGMENT_B* s) {
    free(s->saved);
    s->saved = nullptr;
    s->next = h->bseg_cache;
    h->bseg_cache = s;
}

void setrow(IXH_HEADER_B* h, IXH_BITMAP_SEGMENT_B* s, hs_obsno_t row) {
    hs_obsno_t base = static_cast<hs_obsno_t>(ixste_seg_no(s->ste)) * seglen(h) + 1;
    if (s->n_obs < maxlist(h)) {
        s->obslist[s->n_obs] = row;
    } else {
        if (!(s->flags & IXH_SEG_BITMAP)) {
            for (int64_t i = 0; i < s->n_obs; ++i) bm_set_bit(s->bitmap, base, s->obslist[i]);
            s->flags |= IXH_SEG_BITMAP;
        }
        bm_set_bit(s->bitmap, base, row);
    }
    ++s->n_obs;
    if (row < s->low_obsno) s->low_obsno = row;
    if (row > s->high_obsno) s->high_obsno = row;
}

// The stored form of a closed segment, kept in s->saved until the value is
// written; an old place it fits is taken again.
rctype ixhycprbm(IXH_HEADER_B* h, IXH_VENTRY_B* v, IXH_BITMAP_SEGMENT_B* s, int reuse) {
    if (s->flags & IXH_SEG_COPIED) return 0;
    int32_t seg = ixste_seg_no(s->ste);
    hs_obsno_t base = static_cast<hs_obsno_t>(seg) * seglen(h) + 1;
    int type;
    int64_t len = 0;
    const void* store = nullptr;
    if (s->n_obs == 0) {
        hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        return IX_INCONSIST;
    }
    if (s->n_obs == 1) {
        type = Bm_One_Bit_Set;
        s->ste.data = s->low_obsno;
        s->ste.bm_offset = 0;
    } else if (s->n_obs > maxlist(h)) {
        int32_t t;
        len = bm_compress(s->bitmap, s->cprbuf, h->bitmap_size, base, s->low_obsno, s->high_obsno, &t);
        type = t;
        if (t == Bm_Not_Compressed) {
            store = s->bitmap;
            len = h->bitmap_size;
        } else {
            store = s->cprbuf;
        }
    } else {
        for (int64_t i = 0; i < s->n_obs; ++i)
            if (s->obslist[i] < base || s->obslist[i] >= base + seglen(h)) ix_assertion_failure(TRACEFILE, __LINE__);
        type = Bm_Bit_List;
        store = s->obslist;
        len = s->n_obs * 8;
    }
    ixste_set(s->ste, seg, type);
    if (type != Bm_One_Bit_Set) {
        s->saved = static_cast<char*>(malloc(static_cast<size_t>(len)));
        if (!s->saved) return IX_NOMEM;
        memcpy(s->saved, store, static_cast<size_t>(len));
        s->storelen = len;
        s->store = s->saved;
        s->ste.data = len;
        if (reuse && s->oldoff > 0 && s->oldlen >= len) {
            s->ste.bm_offset = s->oldoff;
            v->discarded_bytes += static_cast<double>(s->oldlen - len);
        } else {
            s->ste.bm_offset = 0;
            if (s->oldoff > 0) v->discarded_bytes += static_cast<double>(s->oldlen);
        }
    } else if (s->oldoff > 0) {
        v->discarded_bytes += static_cast<double>(s->oldlen);
    }
    return 0;
}

// ---------------------------------------------------------------- values

IXH_VENTRY_B* ixhy_alloc_ventry(IXH_HEADER_B* h, const void* value) {
    size_t sz = offsetof(IXH_VENTRY_B, value) + static_cast<size_t>(h->keylen) + 8;
    auto* v = static_cast<IXH_VENTRY_B*>(calloc(1, sz));
    if (v) memcpy(v->value, value, h->keylen);
    return v;
}

void ixhy_reset_ventry(IXH_HEADER_B* h, IXH_VENTRY_B* v) {
    for (IXH_BITMAP_SEGMENT_B* s = v->stable; s;) {
        IXH_BITMAP_SEGMENT_B* n = s->next;
        freebseg(h, s);
        s = n;
    }
    free(v);
}

rctype readentry(IXH_HEADER_B* h, da_off_t chunk, int32_t i, IXH_ST_ENTRY_D* e) {
    return Read_Bitmap(h->hybiid, chunk + sizeof(IXH_SEGCHUNK_D) + static_cast<da_off_t>(i) * sizeof *e, sizeof *e, e);
}

rctype readchunk(IXH_HEADER_B* h, da_off_t at, IXH_SEGCHUNK_D* c) {
    rctype rc = Read_Bitmap(h->hybiid, at, sizeof *c, c);
    if (rc < 0) return rc;
    if (c->max_segs < 1 || c->n_segs < 1 || c->n_segs > c->max_segs || c->low_segno > c->high_segno)
        return IX_INCONSIST;
    return 0;
}

// The entry of the value's last segment: from the record itself for a
// one-segment value, else the last of its newest chunk.
rctype ixhy_get_value_ste(IXH_HEADER_B* h, IXH_VENTRY_B* v, IXH_ST_ENTRY_D* e) {
    const IXHYBRID_BTDATA_D& b = v->btdata;
    if (ixbt_one_segment(b)) {
        memset(e, 0, sizeof *e);
        int type = ixbt_bm_type(b);
        ixste_set(*e, ixbt_high_segno(b), type);
        e->data = type == Bm_One_Bit_Set ? b.obs_data : b.seg_data;
        e->bm_offset = type == Bm_One_Bit_Set ? 0 : b.data_loc;
        return 0;
    }
    IXH_SEGCHUNK_D c;
    rctype rc = readchunk(h, b.data_loc, &c);
    if (rc == 0) rc = readentry(h, b.data_loc, c.n_segs - 1, e);
    if (rc == 0 && ixste_seg_no(*e) != ixbt_high_segno(b)) rc = IX_INCONSIST;
    return rc;
}

// The value's last segment, seg_no, back in memory to take more rows.
rctype ixhy_merge_segment(IXH_HEADER_B* h, IXH_VENTRY_B* v, int32_t seg_no) {
    IXH_ST_ENTRY_D e;
    rctype rc = ixhy_get_value_ste(h, v, &e);
    if (rc < 0) return rc;
    IXH_BITMAP_SEGMENT_B* s = ixhy_alloc_bseg(h, seg_no);
    if (!s) return IX_NOMEM;
    v->stable = v->current_seg = s;
    if (ixbt_one_segment(v->btdata)) v->flags |= IXH_VE_NEWCHAIN;
    else s->flags |= IXH_SEG_REPLACES;
    hs_obsno_t base = static_cast<hs_obsno_t>(seg_no) * seglen(h) + 1;
    int type = ixste_bm_type(e);
    if (type == Bm_One_Bit_Set) {
        if (e.data < base || e.data >= base + seglen(h)) return IX_INCONSIST;
        setrow(h, s, e.data);
        return 0;
    }
    s->oldoff = e.bm_offset;
    s->oldlen = e.data;
    IX_BITMAP_SEGMENT_R r{};
    r.disk.segment_loc = e.bm_offset;
    r.disk.base = base;
    r.disk.data = e.data;
    r.disk.cpr_t = type;
    if ((rc = ix_get_bitmap(h->hybiid, seglen(h), &r, 1)) < 0) return rc;
    int64_t n;
    hs_obsno_t lo, hi;
    bm_info(r.bitmap, h->bitmap_size, base, &n, &lo, &hi);
    if (n == 0) {
        free(r.bitmap);
        return IX_INCONSIST;
    }
    if (n <= maxlist(h)) {
        // Few rows go back to a list, in row order.
        const uint32_t* w = r.bitmap;
        for (int32_t i = 0; i < h->bitmap_size / 4; ++i)
            for (uint32_t x = w[i]; x;) {
                int b = __builtin_clz(x);
                setrow(h, s, base + i * 32 + b);
                x &= ~(0x80000000u >> b);
            }
    } else {
        memcpy(s->bitmap, r.bitmap, h->bitmap_size);
        s->flags |= IXH_SEG_BITMAP;
        s->n_obs = n;
        s->low_obsno = lo;
        s->high_obsno = hi;
    }
    free(r.bitmap);
    return 0;
}

// Looks the value up in the tree and makes ready for its rows in segment seg.
rctype startvalue(IXH_HEADER_B* h, IXH_VENTRY_B* v, int32_t seg) {
    DBT k{v->value, static_cast<size_t>(h->keylen)}, d{};
    rctype rc = __bt_hyget(h->db_ptr, &k, &d, &v->putinfo);
    if (rc < 0) return rc == IX_TREEREAD ? IX_TREEREAD : rc;
    if (rc == 1) {
        v->flags |= IXH_VE_NEW;
        return 0;
    }
    if (unique(h)) {
        // A unique value whose row went is taken again.
        IXHYBRID_UNIQ_BTDATA_D u;
        memcpy(&u, d.data, sizeof u);
        if (u.obs_no != 0) return IX_DUPKEY;
        v->flags |= IXH_VE_NEW | IXH_VE_UNDELETED;
        return 0;
    }
    memcpy(&v->btdata, d.data, sizeof v->btdata);
    if (ixbt_bm_type(v->btdata) == Bm_Deleted) {
        v->flags |= IXH_VE_NEW | IXH_VE_UNDELETED;
        memset(&v->btdata, 0, sizeof v->btdata);
        return 0;
    }
    v->flags |= IXH_VE_LOADED;
    if (ixbt_high_segno(v->btdata) > seg) return IX_INCONSIST;  // rows must come after the index's
    if (ixbt_high_segno(v->btdata) == seg) return ixhy_merge_segment(h, v, seg);
    if (ixbt_one_segment(v->btdata)) {
        // The old segment moves into a chunk as it stands, its bitmap left in place.
        IXH_BITMAP_SEGMENT_B* s = ixhy_alloc_bseg(h, ixbt_high_segno(v->btdata));
        if (!s) return IX_NOMEM;
        if ((rc = ixhy_get_value_ste(h, v, &s->ste)) < 0) {
            freebseg(h, s);
            return rc;
        }
        s->flags |= IXH_SEG_COPIED;
        v->stable = v->current_seg = s;
        v->flags |= IXH_VE_KEEPFIRST | IXH_VE_NEWCHAIN;
    }
    return 0;
}

// A row of the value in hand.
rctype valuerow(IXH_HEADER_B* h, IXH_VENTRY_B* v, hs_obsno_t row, int32_t seg) {
    IXH_BITMAP_SEGMENT_B* cur = v->current_seg;
    if (!cur || ixste_seg_no(cur->ste) != seg) {
        if (cur && ixste_seg_no(cur->ste) > seg) return IX_INCONSIST;
        if (cur) {
            rctype rc = ixhycprbm(h, v, cur, 1);
            if (rc < 0) return rc;
        }
        IXH_BITMAP_SEGMENT_B* s = ixhy_alloc_bseg(h, seg);
        if (!s) return IX_NOMEM;
        if (cur) cur->next = s;
        else v->stable = s;
        v->current_seg = s;
        ++v->n_segments;
    }
    setrow(h, v->current_seg, row);
    ++v->n_obs;
    ++h->nrows;
    return 0;
}

void putbytes(std::vector<char>& buf, const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    buf.insert(buf.end(), c, c + n);
}

// A chunk at filep: its head, its entries, the bitmaps it leads to.
rctype writechunk(IXH_HEADER_B* h, IXH_VENTRY_B* v, IXH_BITMAP_SEGMENT_B* first, int64_t n, int64_t next,
                  da_off_t* at) {
    int64_t slots = n + h->disk.n_spare_chunkslots;
    da_off_t pos = h->filep;
    da_off_t cur = pos + static_cast<da_off_t>(sizeof(IXH_SEGCHUNK_D) + slots * sizeof(IXH_ST_ENTRY_D));
    std::vector<char> tail;
    IXH_SEGCHUNK_D c{next, static_cast<int32_t>(slots), static_cast<int32_t>(n), ixste_seg_no(first->ste), 0};
    std::vector<IXH_ST_ENTRY_D> ents(static_cast<size_t>(slots));
    IXH_BITMAP_SEGMENT_B* s = first;
    for (int64_t i = 0; i < n; ++i, s = s->next) {
        IXH_ST_ENTRY_D& e = ents[static_cast<size_t>(i)];
        e = s->ste;
        c.high_segno = ixste_seg_no(s->ste);
        if ((s->flags & IXH_SEG_COPIED) || ixste_bm_type(s->ste) == Bm_One_Bit_Set) continue;
        if (s->ste.bm_offset > 0) {
            rctype rc = ixhy_write(h, s->saved, s->storelen, s->ste.bm_offset);  // over its old place
            if (rc < 0) return rc;
            continue;
        }
        e.bm_offset = cur;
        cur += s->storelen;
        putbytes(tail, s->saved, static_cast<size_t>(s->storelen));
    }
    std::vector<char> buf;
    buf.reserve(sizeof c + ents.size() * sizeof(IXH_ST_ENTRY_D) + tail.size());
    putbytes(buf, &c, sizeof c);
    putbytes(buf, ents.data(), ents.size() * sizeof(IXH_ST_ENTRY_D));
    buf.insert(buf.end(), tail.begin(), tail.end());
    rctype rc = ixhy_write(h, buf.data(), static_cast<int64_t>(buf.size()), pos);
    if (rc < 0) return rc;
    h->filep = pos + static_cast<da_off_t>(buf.size());
    ++h->disk.n_chunks;
    v->flags |= IXH_VE_WROTECHUNK;
    *at = pos;
    return 0;
}

int64_t countsegs(IXH_BITMAP_SEGMENT_B* s) {
    int64_t n = 0;
    for (; s; s = s->next) ++n;
    return n;
}

rctype ixhy_create_value_seglist(IXH_HEADER_B* h, IXH_VENTRY_B* v) {
    int64_t n = countsegs(v->stable);
    IXHYBRID_BTDATA_D& b = v->btdata;
    // Rows the value had: a one-row value keeps its row, not a count.
    int64_t oldrows = 0;
    if (v->flags & IXH_VE_LOADED)
        oldrows = ixbt_one_segment(b) && ixbt_bm_type(b) == Bm_One_Bit_Set ? 1 : b.obs_data;
    if (n == 1) {
        IXH_BITMAP_SEGMENT_B* s = v->stable;
        int type = ixste_bm_type(s->ste);
        if (type == Bm_One_Bit_Set) {
            b.data_loc = 0;
            b.obs_data = s->ste.data;
            b.seg_data = 0;
        } else {
            da_off_t at = s->ste.bm_offset > 0 ? s->ste.bm_offset : h->filep;
            rctype rc = ixhy_write(h, s->saved, s->storelen, at);
            if (rc < 0) return rc;
            if (at == h->filep) h->filep += s->storelen;
            b.data_loc = at;
            b.obs_data = oldrows + v->n_obs;
            b.seg_data = static_cast<int32_t>(s->storelen);
        }
        ixbt_set(b, ixste_seg_no(s->ste), 1, 0, type);
        return 0;
    }
    da_off_t at;
    rctype rc = writechunk(h, v, v->stable, n, 0, &at);
    if (rc < 0) return rc;
    b.data_loc = at;
    b.obs_data = oldrows + v->n_obs;
    b.seg_data = static_cast<int32_t>(n);
    ixbt_set(b, ixste_seg_no(v->current_seg->ste), 0, h->disk.n_spare_chunkslots > 0, 0);
    if (!(v->flags & IXH_VE_COUNTED)) {
        ++h->disk.n_segl_values;
        v->flags |= IXH_VE_COUNTED;
    }
    return 0;
}

rctype ixhy_append_value_seglist(IXH_HEADER_B* h, IXH_VENTRY_B* v) {
    if (v->flags & (IXH_VE_NEW | IXH_VE_NEWCHAIN)) return ixhy_create_value_seglist(h, v);
    IXHYBRID_BTDATA_D& b = v->btdata;
    IXH_SEGCHUNK_D c;
    rctype rc = readchunk(h, b.data_loc, &c);
    if (rc < 0) return rc;
    IXH_BITMAP_SEGMENT_B* s = v->stable;
    bool replaces = s && (s->flags & IXH_SEG_REPLACES);
    int64_t room = 0;
    if (ixbt_spare_segl(b) || replaces) room = c.max_segs - c.n_segs + (replaces ? 1 : 0);
    int64_t n = countsegs(s);
    int64_t fit = std::min(room, n);
    int32_t slot = c.n_segs - (replaces ? 1 : 0);
    // What fits goes into the newest chunk: bitmaps first, then its head, then the entries.
    std::vector<IXH_ST_ENTRY_D> ents;
    bool headchanged = false;
    for (int64_t i = 0; i < fit; ++i, s = s->next) {
        IXH_ST_ENTRY_D e = s->ste;
        if (ixste_bm_type(e) != Bm_One_Bit_Set) {
            if (e.bm_offset <= 0) {
                e.bm_offset = h->filep;
                h->filep += s->storelen;
            }
            if ((rc = ixhy_write(h, s->saved, s->storelen, e.bm_offset)) < 0) return rc;
        }
        ents.push_back(e);
        if (!(i == 0 && replaces)) {
            ++c.n_segs;
            headchanged = true;
        }
        c.high_segno = ixste_seg_no(e);
    }
    if (headchanged && (rc = ixhy_write(h, &c, sizeof c, b.data_loc)) < 0) return rc;
    if (!ents.empty()) {
        da_off_t at = b.data_loc + static_cast<da_off_t>(sizeof c + static_cast<size_t>(slot) * sizeof(IXH_ST_ENTRY_D));
        if ((rc = ixhy_write(h, ents.data(), static_cast<int64_t>(ents.size() * sizeof(IXH_ST_ENTRY_D)), at)) < 0)
            return rc;
    }
    bool spare = c.max_segs > c.n_segs;
    if (n > fit) {
        da_off_t at;
        if ((rc = writechunk(h, v, s, n - fit, b.data_loc, &at)) < 0) return rc;
        b.data_loc = at;
        spare = h->disk.n_spare_chunkslots > 0;
    }
    b.seg_data += static_cast<int32_t>(v->n_segments);
    b.obs_data += v->n_obs;
    ixbt_set(b, ixste_seg_no(v->current_seg->ste), 0, spare, 0);
    return 0;
}

rctype ixhy_put_bt_btdata(IXH_HEADER_B* h, IXH_VENTRY_B* v) {
    DBT k{v->value, static_cast<size_t>(h->keylen)};
    IXHYBRID_UNIQ_BTDATA_D u{};
    DBT d;
    if (unique(h)) {
        u.obs_no = v->stable->low_obsno;
        d = DBT{&u, sizeof u};
    } else {
        d = DBT{&v->btdata, sizeof v->btdata};
    }
    rctype rc = __bt_hyput(h->db_ptr, &k, &d, &v->putinfo);
    return rc < 0 ? IX_APPENDFAIL : 0;
}

// The flush of one value: its segments written, its record in the tree.
rctype flushvalue(IXH_HEADER_B* h, IXH_VENTRY_B* v) {
    da_off_t start = h->filep;
    rctype rc = 0;
    if (!unique(h)) {
        if (v->current_seg) rc = ixhycprbm(h, v, v->current_seg, 1);
        if (rc == 0) rc = ixhy_append_value_seglist(h, v);
    } else if (!v->stable || v->stable->n_obs != 1) {
        rc = IX_DUPKEY;
    }
    if (rc == 0) rc = ixhy_put_bt_btdata(h, v);
    if (rc < 0) {
        // Cut back to where the value began; what the tree holds is older.
        if (h->filep != start && h->hybiid->mt->truncidx(h->hybiid, start) == 0) h->filep = start;
        return rc;
    }
    ++h->n_good_appends;
    h->disk.discarded_bytes += v->discarded_bytes;
    if (v->flags & IXH_VE_NEW) ++h->disk.n_values;
    if (v->flags & IXH_VE_UNDELETED) --h->disk.n_vdeletes;
    return 0;
}

}  // namespace

rctype ixhy_prepare_for_append(IXH_HEADER_B* h) {
    if (h->bstate == IXH_UPDATE) {
        // Changes go out before appends start.
        rctype rc = ixhy_flush_update(h);
        if (rc < 0) return h->add_error = rc;
    }
    if (h->bstate != IXH_INITIAL) return 0;
    h->did_append = 1;
    h->add_error = 0;
    h->n_good_appends = 0;
    h->bstate = IXH_APPEND;
    h->filep = h->hybiid->filesize;
    h->disk.common.state = IX_DIRTY;
    return ixhy_wrhdr(h);
}

namespace {

rctype rowcheck(IXH_HEADER_B* h, hs_obsno_t row, int32_t* seg) {
    if (h->add_error) return h->add_error;
    if (row < h->start_obsno || row > h->last_obsno) {
        hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        return IX_INCONSIST;
    }
    int64_t s = (row - 1) / seglen(h);
    if (s >= IXH_MAXSEGS) {
        h->is_seg_overflow = 1;
        return IX_SEGOVERFLOW;
    }
    *seg = static_cast<int32_t>(s);
    return ixhy_prepare_for_append(h);
}

rctype opentree(IXH_HEADER_B* h, int mode, int32_t keylen) {
    BTREEINFO info{};
    info.flags = B_GLOBAL;
    info.noequals = 1;
    info.psize = static_cast<uint32_t>(intoption("BTREE_PAGESIZE", 8192));
    info.cachesize = static_cast<uint32_t>(intoption("INDEX_READSIZE", 0x800000));
    info.keylen = static_cast<uint32_t>(keylen);
    info.datalen = unique(h) ? 8 : 24;
    info.segsize = BT_GLOBALSEGSIZE;
    info.openmode = mode;
    info.options_present = 1;
    info.skbp = h->skb;
    IX_HEADER_D th{IX_VERSION, IX_GLOBAL_BTREE, BT_GLOBALSEGSIZE, keylen, IX_DIRTY};
    int rc = __bt_open(h->iid, mode, &info, &th, &h->db_ptr, 0);
    if (rc == 0) rc = __bt_open(h->iid, mode, &info, &th, &h->db_ptr, 1);
    if (rc != 0) {
        if (h->db_ptr) h->db_ptr->close(h->db_ptr, -1, nullptr, 1);
        h->db_ptr = nullptr;
        return bt_openrc(rc);
    }
    if (mode != BT_OCREATE && (th.type != IX_GLOBAL_BTREE || th.value_len != keylen ||
                               h->db_ptr->internal->bt_data_len != info.datalen))
        return IX_BADVERSION;
    h->db_ptr->internal->header.state = IX_DIRTY;
    return 0;
}

rctype newhandle(DA_IDX* hbx, DA_IDX* idx, SKB_KEY* skb, int max_threads, IXH_HEADER_B** hp) {
    if (!hbx || !idx || max_threads < 1) ix_assertion_failure(TRACEFILE, __LINE__);
    auto* h = static_cast<IXH_HEADER_B*>(calloc(1, sizeof(IXH_HEADER_B)));
    if (!h) return IX_NOMEM;
    h->hybiid = hbx;
    h->iid = idx;
    h->skb = skb;
    h->max_threads = max_threads;
    *hp = h;
    return 0;
}

void freehandle(IXH_HEADER_B* h) {
    ixhy_free_update(h);
    if (h->ventry) ixhy_reset_ventry(h, h->ventry);
    for (AVLTREE* n = h->ventry_tree ? zavl_first_node(h->ventry_tree) : nullptr; n;) {
        AVLTREE* next = zavl_next_node(n);
        ixhy_reset_ventry(h, reinterpret_cast<IXH_VENTRY_B*>(n));
        n = next;
    }
    while (h->bseg_cache) {
        IXH_BITMAP_SEGMENT_B* s = h->bseg_cache;
        h->bseg_cache = s->next;
        free(s->obslist);
        free(s->bitmap);
        free(s);
    }
    free(h);
}

}  // namespace

void ixhy_convert_uniq_btdata(const IXHYBRID_UNIQ_BTDATA_D* u, int64_t segsize, IXHYBRID_BTDATA_D* d) {
    memset(d, 0, sizeof *d);
    if (u->obs_no == 0) {
        ixbt_set(*d, 0, 0, 0, Bm_Deleted);
        return;
    }
    d->obs_data = u->obs_no;
    ixbt_set(*d, static_cast<int32_t>((u->obs_no - 1) / segsize), 1, 0, Bm_One_Bit_Set);
}

rctype ixhycreat(DA_IDX* hbx, DA_IDX* idx, int32_t keylen, int64_t segsize, int options, SKB_KEY* skb,
                 hs_obsno_t last_obsno, int max_threads, IXH_HEADER_B** hp) {
    if (segsize <= 0) return IX_BADSEGSIZE;
    if (keylen <= 0 || last_obsno < 0 || (options & ~(IXH_OUNIQUE | IXH_OREPAIR))) return IX_BADOPTS;
    IXH_HEADER_B* h;
    rctype rc = newhandle(hbx, idx, skb, max_threads, &h);
    if (rc < 0) return rc;
    IXH_HEADER_D& d = h->disk;
    d.common = IX_HEADER_D{IX_VERSION, IX_HYBRID, segsize, keylen, IX_DIRTY};
    h->bitmap_size = bm_bitmap_size(segsize);
    d.max_obslist_size = ixhy_max_obslist(h->bitmap_size);
    d.version = IXH_VERSION;
    d.subversion = IXH_SUBVERSION;
    d.is_unique = (options & IXH_OUNIQUE) ? 1 : 0;
    d.dstate = IXH_GOOD;
    h->keylen = keylen;
    h->start_obsno = 1;
    h->last_obsno = last_obsno;
    // The header, then the repair value's slot.
    std::vector<char> zeros(static_cast<size_t>(keylen));
    if ((hbx->filesize != 0 && hbx->mt->truncidx(hbx, 0) < 0) || (rc = ixhy_wrhdr(h)) < 0 ||
        (rc = ixhy_write(h, zeros.data(), keylen, sizeof d)) < 0 || (rc = opentree(h, BT_OCREATE, keylen)) < 0) {
        ixhyabort(h);
        return rc < 0 ? rc : IX_OPENFAIL;
    }
    h->filep = hbx->filesize;
    *hp = h;
    return 0;
}

rctype ixhy_rdhdr(DA_IDX* hbx, IXH_HEADER_D* header, int options) {
    long nread = 0;
    rctype rc = hbx->mt->readidx(hbx, header, sizeof *header, 0, &nread);
    if (rc < 0 || nread != static_cast<long>(sizeof *header)) return IX_READFAIL;
    const IX_HEADER_D& c = header->common;
    if (c.version != IX_VERSION || c.type != IX_HYBRID || header->version != IXH_VERSION) return IX_BADVERSION;
    if (c.segment_size <= 0) return IX_BADSEGSIZE;
    if (c.value_len <= 0 || c.value_len > 65536 || header->max_obslist_size < 2 ||
        header->max_obslist_size > bm_bitmap_size(c.segment_size) + 2 || header->n_spare_chunkslots < 0)
        return IX_INCONSIST;
    if (header->dstate == IXH_CANNOT_BE_REPAIRED) return IX_NOREPAIR;
    if ((header->dstate == IXH_PARTIAL_REPAIR || header->dstate == IXH_FULL_REPAIR) && !(options & IXH_OREPAIR))
        return IX_NEEDREPAIR;
    if (header->dstate < 0 || header->dstate > IXH_CANNOT_BE_REPAIRED) return IX_INCONSIST;
    return 0;
}

rctype ixhyapnd(DA_IDX* hbx, DA_IDX* idx, int64_t segsize, int options, SKB_KEY* skb, hs_obsno_t indexed,
                hs_obsno_t last_obsno, int max_threads, IXH_HEADER_B** hp) {
    // Appending after a failed build is a rebuild: the repair is not offered.
    if (options & ~IXH_OUNIQUE) return IX_BADOPTS;
    IXH_HEADER_B* h;
    rctype rc = newhandle(hbx, idx, skb, max_threads, &h);
    if (rc < 0) return rc;
    if ((rc = ixhy_rdhdr(hbx, &h->disk, options)) < 0) {
        freehandle(h);
        return rc;
    }
    if (h->disk.common.segment_size != segsize) {
        freehandle(h);
        return IX_INCONSIST;
    }
    if (((options & IXH_OUNIQUE) != 0) != (h->disk.is_unique != 0)) {
        freehandle(h);
        return IX_BADOPTS;
    }
    h->keylen = h->disk.common.value_len;
    h->bitmap_size = bm_bitmap_size(segsize);
    h->start_obsno = indexed + 1;
    h->last_obsno = last_obsno;
    if (indexed < 0 || last_obsno < indexed || (rc = opentree(h, BT_OAPPEND, h->keylen)) < 0) {
        if (h->db_ptr) h->db_ptr->close(h->db_ptr, -1, nullptr, 1);
        freehandle(h);
        return rc < 0 ? rc : IX_BADOPTS;
    }
    *hp = h;
    return 0;
}

rctype ixhysrtadd(IXH_HEADER_B* h, const void* value, hs_obsno_t obsno, int) {
    const char* key = static_cast<const char*>(value);
    if (obsno <= 0) {
        uint64_t be;
        memcpy(&be, key + h->keylen, 8);
        obsno = static_cast<hs_obsno_t>(__builtin_bswap64(be));
    }
    int32_t seg = 0;
    rctype rc = rowcheck(h, obsno, &seg);
    if (rc < 0) return rc;
    h->is_sorted_append = 1;
    h->need_to_flush = 1;
    IXH_VENTRY_B* v = h->ventry;
    if (v && memcmp(v->value, key, h->keylen) == 0) {
        if (unique(h)) return h->add_error = IX_DUPKEY;
    } else {
        if (v) {
            h->ventry = nullptr;
            rc = flushvalue(h, v);
            ixhy_reset_ventry(h, v);
            if (rc < 0) return h->add_error = rc;
        }
        if (!(v = ixhy_alloc_ventry(h, key))) return h->add_error = IX_NOMEM;
        h->ventry = v;
        if ((rc = startvalue(h, v, seg)) < 0) return h->add_error = rc;
    }
    rc = valuerow(h, v, obsno, seg);
    return rc < 0 ? (h->add_error = rc) : 0;
}

rctype ixhyadd(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no, int) {
    int32_t seg = 0;
    rctype rc = rowcheck(h, obs_no, &seg);
    if (rc < 0) return rc;
    if (!h->skb) return h->add_error = IX_BADOPTS;
    h->need_to_flush = 1;
    IXH_VENTRY_B* v = ixhy_alloc_ventry(h, value);
    if (!v) return h->add_error = IX_NOMEM;
    auto* got = reinterpret_cast<IXH_VENTRY_B*>(
        zavl_add_skb(&h->ventry_tree, &v->t, static_cast<int>(offsetof(IXH_VENTRY_B, value)), h->skb, h->keylen));
    if (got != v) {
        free(v);
        v = got;
        if (unique(h)) return h->add_error = IX_DUPKEY;
    } else if ((rc = startvalue(h, v, seg)) < 0) {
        return h->add_error = rc;
    }
    rc = valuerow(h, v, obs_no, seg);
    return rc < 0 ? (h->add_error = rc) : 0;
}

rctype ixhyfind(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no, hs_obsno_t* obsret) {
    if (!unique(h)) return IX_INCONSIST;
    if (h->ventry && memcmp(h->ventry->value, value, h->keylen) == 0 && h->ventry->stable) {
        *obsret = h->ventry->stable->low_obsno;
        return *obsret != obs_no ? 0 : 1;
    }
    if (h->ventry_tree) {
        auto* v = reinterpret_cast<IXH_VENTRY_B*>(zavl_find_skb(
            h->ventry_tree, value, static_cast<int>(offsetof(IXH_VENTRY_B, value)), h->skb, h->keylen));
        if (v && v->stable) {
            *obsret = v->stable->low_obsno;
            return *obsret != obs_no ? 0 : 1;
        }
    }
    DBT k{const_cast<void*>(value), static_cast<size_t>(h->keylen)}, d{};
    BT_PUTINFO pi{};
    rctype rc = __bt_hyget(h->db_ptr, &k, &d, &pi);
    if (rc != 0) return rc < 0 ? rc : 1;
    IXHYBRID_UNIQ_BTDATA_D u;
    memcpy(&u, d.data, sizeof u);
    if (u.obs_no == 0) return 1;  // deleted
    *obsret = u.obs_no;
    return u.obs_no != obs_no ? 0 : 1;
}

rctype ixhy_flush_append(IXH_HEADER_B* h) {
    rctype rc = 0;
    if (h->need_to_flush && !h->add_error && !h->is_seg_overflow) {
        if (h->ventry) {
            IXH_VENTRY_B* v = h->ventry;
            h->ventry = nullptr;
            rc = flushvalue(h, v);
            ixhy_reset_ventry(h, v);
        }
        if (h->ventry_tree) {
            AVLTREE* n = zavl2list(h->ventry_tree);
            h->ventry_tree = nullptr;
            while (n) {
                AVLTREE* next = zavl_next_node(n);
                if (rc == 0) rc = flushvalue(h, reinterpret_cast<IXH_VENTRY_B*>(n));
                ixhy_reset_ventry(h, reinterpret_cast<IXH_VENTRY_B*>(n));
                n = next;
            }
        }
        h->need_to_flush = 0;
    }
    if (rc == 0 && h->bstate == IXH_APPEND) h->bstate = IXH_INITIAL;
    return rc;
}

namespace {

bool deletedrec(IXH_HEADER_B* h, const DBT& d) {
    if (unique(h)) {
        IXHYBRID_UNIQ_BTDATA_D u;
        memcpy(&u, d.data, sizeof u);
        return u.obs_no == 0;
    }
    IXHYBRID_BTDATA_D b;
    memcpy(&b, d.data, sizeof b);
    return ixbt_bm_type(b) == Bm_Deleted;
}

// The first (or last) value that has rows into key; false when none has.
bool endvalue(IXH_HEADER_B* h, bool last, char* key) {
    DBT k, d;
    for (rctype rc = h->db_ptr->seq(h->db_ptr, &k, &d, last ? R_LAST : R_FIRST); rc == 0;
         rc = h->db_ptr->seq(h->db_ptr, &k, &d, last ? R_PREV : R_NEXT)) {
        if (deletedrec(h, d)) continue;
        if (key) memcpy(key, k.data, h->keylen);
        return true;
    }
    return false;
}

}  // namespace

rctype ixhyfin(IXH_HEADER_B* h, IXH_STATS* stats) {
    rctype rc = 0;
    if (h->bstate == IXH_UPDATE) {
        rc = ixhy_flush_update(h);
        if (rc < 0) h->upd_failed = 1;
    } else {
        rc = ixhy_prepare_for_append(h);
        if (rc == 0) rc = ixhy_flush_append(h);
    }
    bool good = rc == 0 && !h->add_error && !h->is_seg_overflow;
    // The lowest and highest values with rows, while the tree is open.
    if (good && stats) stats->has_minmax = endvalue(h, false, stats->minkey) && endvalue(h, true, stats->maxkey);
    h->db_ptr->internal->header.state = good ? IX_CLEAN : IX_DIRTY;
    rctype crc = h->db_ptr->close(h->db_ptr, -1, nullptr, 1);
    h->db_ptr = nullptr;
    if (crc < 0) {
        good = false;
        if (rc == 0) rc = IX_CLOSEFAIL;
    }
    IXH_HEADER_D& d = h->disk;
    // Changes alone leave the rows covered as they were; appends and a truncate set them.
    bool moved = h->did_append || h->is_truncate;
    hs_obsno_t covered = moved ? h->last_obsno : h->start_obsno - 1;
    if (good) {
        if (moved) d.n_segs = covered > 0 ? static_cast<int32_t>((covered - 1) / seglen(h) + 1) : 0;
        d.common.state = IX_CLEAN;
        d.dstate = IXH_GOOD;
    } else {
        rctype why = rc ? rc : h->add_error ? h->add_error : IX_SEGOVERFLOW;
        if (crc < 0 || h->is_seg_overflow || h->upd_failed || why == IX_NOREPAIR) d.dstate = IXH_CANNOT_BE_REPAIRED;
        else if (h->n_good_appends > 0) d.dstate = IXH_PARTIAL_REPAIR;
        else d.dstate = IXH_FULL_REPAIR;
        if (rc == 0) rc = why;
    }
    rctype hrc = ixhy_wrhdr(h);
    if (rc == 0) rc = hrc;
    if (stats) {
        stats->rows = rc == 0 ? covered : h->start_obsno - 1;
        stats->n_values = d.n_values;
    }
    freehandle(h);
    return rc;
}

rctype ixhyabort(IXH_HEADER_B* h) {
    rctype rc = 0;
    if (h->bstate != IXH_INITIAL) {
        h->disk.dstate = IXH_CANNOT_BE_REPAIRED;
        h->disk.common.state = IX_DIRTY;
        rc = ixhy_wrhdr(h);
    }
    if (h->db_ptr) {
        __bt_abort(h->db_ptr);
        h->db_ptr->close(h->db_ptr, -1, nullptr, 1);
    }
    freehandle(h);
    return rc;
}

}  // namespace vrta

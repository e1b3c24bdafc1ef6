// Changing a hybrid index in place: rows leave a value (a delete, or the
// old side of an update) or join one (the new side). Changes are kept in
// memory per value and per segment, and written as a batch in two passes:
// the first writes every new stored form and every new chunk past the end
// of the .hbx file, where nothing reachable is touched, so that all that
// can fail for lack of room or data fails there; the second points each
// value at its new data (entries rewritten in place, then the tree record),
// value by value, so that a reader sees a value's old or new segments,
// never half of each. The index stays marked dirty until the writer's
// finish, so a writer that dies leaves it to be rebuilt, never clean and
// wrong.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "ix/ixhy.h"
#include "sda/darc.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/ixhyupd";

constexpr int UV_NEW = 0x2;          // the value had no rows before the batch
constexpr int UV_LOST = 0x20;        // rows left it
constexpr int UV_GAINED = 0x40;      // rows joined it
constexpr int UV_ABSENT = 0x100;     // not in the index: deletes pass it by
constexpr int UV_UNDELETED = 0x10000;  // its key stood in the tree, marked deleted

// One changed segment of a value: its rows as a list (at most
// max_obslist_size of them, rising) or as a bitmap.
struct UpdSeg {
    bool isbitmap = false;
    std::vector<hs_obsno_t> rows;
    std::vector<uint32_t> bm;
    int64_t n = 0;
    bool existed = false;        // the value had the segment before
    IXH_ST_ENTRY_D old{};        // its entry then
    da_off_t entpos = 0;         // where that entry stands in a chunk, 0 in the record
    IXH_ST_ENTRY_D ste{};        // the new entry (first pass)
};

struct OldEnt {
    IXH_ST_ENTRY_D e;
    da_off_t pos;                // of the entry in its chunk; 0 for a one-segment value
};

struct UpdVal {
    std::string key;
    int flags = 0;
    IXHYBRID_BTDATA_D bt{};      // the record as found
    hs_obsno_t uobs = 0;         // a unique value's row now, 0 none
    hs_obsno_t uorig = 0;        // and before the batch
    std::vector<OldEnt> ents;    // the value's entries, rising
    std::vector<std::pair<da_off_t, int32_t>> chunks;  // its chunks and their slots
    std::map<int32_t, UpdSeg> segs;
    int64_t delta = 0;           // rows joined less rows left
    // The first pass's result.
    IXHYBRID_BTDATA_D nbt{};
    std::vector<std::pair<da_off_t, IXH_ST_ENTRY_D>> inplace;
    bool dropchain = false;      // the old chunks are given up
    bool newchain = false;       // the value takes a chain it didn't have
    int remaining = 0;           // segments left with rows
    double discarded = 0;
};

struct UpdBatch {
    std::map<std::string, UpdVal> vals;
};

UpdBatch* batch(IXH_HEADER_B* h) { return static_cast<UpdBatch*>(h->upd); }
int64_t seglen(IXH_HEADER_B* h) { return h->disk.common.segment_size; }
int32_t maxlist(IXH_HEADER_B* h) { return h->disk.max_obslist_size; }
bool unique(IXH_HEADER_B* h) { return h->disk.is_unique != 0; }

rctype inconsistent(int line) {
    hs_trace_error(TRACEFILE, line, IX_INCONSIST);
    return IX_INCONSIST;
}

bool stored(int type) { return type == Bm_Not_Compressed || type == Bm_Compression_1 || type == Bm_Bit_List; }

// The value's entries with their places, read along its chain and checked.
rctype loadents(IXH_HEADER_B* h, UpdVal& v) {
    const IXHYBRID_BTDATA_D& b = v.bt;
    if (ixbt_one_segment(b)) {
        IXH_ST_ENTRY_D e{};
        int type = ixbt_bm_type(b);
        ixste_set(e, ixbt_high_segno(b), type);
        e.data = type == Bm_One_Bit_Set ? b.obs_data : b.seg_data;
        e.bm_offset = type == Bm_One_Bit_Set ? 0 : b.data_loc;
        v.ents.push_back({e, 0});
        return 0;
    }
    int64_t want = b.seg_data;
    if (want < 2 || want > IXH_MAXSEGS) return inconsistent(__LINE__);
    std::vector<std::vector<OldEnt>> parts;
    int64_t have = 0;
    int32_t below = ixbt_high_segno(b) + 1;
    for (da_off_t at = b.data_loc; at != 0;) {
        IXH_SEGCHUNK_D c;
        if (at < static_cast<da_off_t>(sizeof(IXH_HEADER_D))) return inconsistent(__LINE__);
        rctype rc = Read_Bitmap(h->hybiid, at, sizeof c, &c);
        if (rc < 0) return rc;
        if (c.n_segs < 1 || c.n_segs > c.max_segs || have + c.n_segs > want || c.high_segno >= below ||
            c.low_segno > c.high_segno)
            return inconsistent(__LINE__);
        std::vector<IXH_ST_ENTRY_D> raw(static_cast<size_t>(c.n_segs));
        da_off_t first = at + static_cast<da_off_t>(sizeof c);
        rc = Read_Bitmap(h->hybiid, first, static_cast<int64_t>(raw.size() * sizeof raw[0]), raw.data());
        if (rc < 0) return rc;
        std::vector<OldEnt> part;
        int32_t prev = c.low_segno - 1;
        for (size_t i = 0; i < raw.size(); ++i) {
            int32_t s = ixste_seg_no(raw[i]);
            int t = ixste_bm_type(raw[i]);
            if (s <= prev || s > c.high_segno || (!stored(t) && t != Bm_One_Bit_Set)) return inconsistent(__LINE__);
            prev = s;
            part.push_back({raw[i], first + static_cast<da_off_t>(i * sizeof(IXH_ST_ENTRY_D))});
        }
        v.chunks.emplace_back(at, c.max_segs);
        below = c.low_segno;
        have += c.n_segs;
        parts.push_back(std::move(part));
        at = c.next;
    }
    if (have != want) return inconsistent(__LINE__);
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) v.ents.insert(v.ents.end(), it->begin(), it->end());
    return 0;
}

// The value of key in the batch, looked up in the tree at its first touch.
rctype getvalue(IXH_HEADER_B* h, const void* key, bool is_delete, UpdVal** out) {
    UpdBatch* ub = batch(h);
    std::string k(static_cast<const char*>(key), static_cast<size_t>(h->keylen));
    auto it = ub->vals.find(k);
    if (it == ub->vals.end()) {
        UpdVal nv;
        nv.key = k;
        DBT kk{nv.key.data(), nv.key.size()}, d{};
        BT_PUTINFO pi{};
        rctype rc = __bt_hyget(h->db_ptr, &kk, &d, &pi);
        if (rc < 0) return rc;
        if (rc == 1) {
            nv.flags |= UV_ABSENT;
        } else if (unique(h)) {
            IXHYBRID_UNIQ_BTDATA_D u;
            memcpy(&u, d.data, sizeof u);
            nv.uobs = nv.uorig = u.obs_no;
            if (u.obs_no < 0) return inconsistent(__LINE__);
            if (u.obs_no == 0) nv.flags |= UV_ABSENT | UV_UNDELETED;
        } else {
            memcpy(&nv.bt, d.data, sizeof nv.bt);
            if (ixbt_bm_type(nv.bt) == Bm_Deleted) nv.flags |= UV_ABSENT | UV_UNDELETED;
            else if ((rc = loadents(h, nv)) < 0) return rc;
        }
        it = ub->vals.emplace(k, std::move(nv)).first;
    }
    UpdVal& v = it->second;
    // A value gaining rows that it didn't have is new.
    if (!is_delete && (v.flags & UV_ABSENT)) v.flags = (v.flags & ~UV_ABSENT) | UV_NEW;
    *out = &v;
    return 0;
}

void tobitmap(IXH_HEADER_B* h, UpdSeg& s, hs_obsno_t base) {
    s.bm.assign(static_cast<size_t>(h->bitmap_size / 4), 0);
    for (hs_obsno_t r : s.rows) bm_set_bit(s.bm.data(), base, r);
    s.rows.clear();
    s.isbitmap = true;
}

void tolist(UpdSeg& s, hs_obsno_t base) {
    s.rows.clear();
    for (size_t i = 0; i < s.bm.size(); ++i)
        for (uint32_t x = s.bm[i]; x;) {
            int b = __builtin_clz(x);
            s.rows.push_back(base + static_cast<hs_obsno_t>(i) * 32 + b);
            x &= ~(0x80000000u >> b);
        }
    s.bm.clear();
    s.bm.shrink_to_fit();
    s.isbitmap = false;
}

// Segment seg of the value in memory, as it stands (an empty one when the
// value has none).
rctype getseg(IXH_HEADER_B* h, UpdVal& v, int32_t seg, UpdSeg** out) {
    auto it = v.segs.find(seg);
    if (it != v.segs.end()) {
        *out = &it->second;
        return 0;
    }
    UpdSeg s;
    hs_obsno_t base = static_cast<hs_obsno_t>(seg) * seglen(h) + 1;
    auto e = std::lower_bound(v.ents.begin(), v.ents.end(), seg,
                              [](const OldEnt& o, int32_t sg) { return ixste_seg_no(o.e) < sg; });
    if (!(v.flags & UV_NEW) && e != v.ents.end() && ixste_seg_no(e->e) == seg) {
        s.existed = true;
        s.old = e->e;
        s.entpos = e->pos;
        int type = ixste_bm_type(e->e);
        if (type == Bm_One_Bit_Set) {
            if (e->e.data < base || e->e.data >= base + seglen(h)) return inconsistent(__LINE__);
            s.rows.push_back(e->e.data);
        } else {
            IX_BITMAP_SEGMENT_R r{};
            r.disk.segment_loc = e->e.bm_offset;
            r.disk.base = base;
            r.disk.data = e->e.data;
            r.disk.cpr_t = type;
            rctype rc = ix_get_bitmap(h->hybiid, seglen(h), &r, 1);
            if (rc < 0) return rc;
            s.bm.assign(r.bitmap, r.bitmap + h->bitmap_size / 4);
            free(r.bitmap);
            s.isbitmap = true;
        }
        if (s.isbitmap) {
            hs_obsno_t lo, hi;
            bm_info(s.bm.data(), h->bitmap_size, base, &s.n, &lo, &hi);
            if (s.n <= maxlist(h)) tolist(s, base);
        } else {
            s.n = static_cast<int64_t>(s.rows.size());
        }
        if (s.n == 0) return inconsistent(__LINE__);
    }
    *out = &v.segs.emplace(seg, std::move(s)).first->second;
    return 0;
}

rctype segrow(IXH_HEADER_B* h, hs_obsno_t obs, int32_t* seg) {
    if (obs < 1 || obs > h->last_obsno) return inconsistent(__LINE__);
    int64_t s = (obs - 1) / seglen(h);
    if (s >= IXH_MAXSEGS) return IX_SEGOVERFLOW;
    *seg = static_cast<int32_t>(s);
    return 0;
}

rctype droprow(IXH_HEADER_B* h, UpdVal& v, hs_obsno_t obs, int32_t seg) {
    if (unique(h)) {
        // The row must be the value's.
        if (v.uobs != obs) return inconsistent(__LINE__);
        v.uobs = 0;
        return 0;
    }
    UpdSeg* s;
    rctype rc = getseg(h, v, seg, &s);
    if (rc < 0) return rc;
    hs_obsno_t base = static_cast<hs_obsno_t>(seg) * seglen(h) + 1;
    if (s->isbitmap) {
        if (!bm_clear_bit(s->bm.data(), base, obs)) return inconsistent(__LINE__);
        if (--s->n == maxlist(h)) tolist(*s, base);
    } else {
        auto it = std::lower_bound(s->rows.begin(), s->rows.end(), obs);
        if (it == s->rows.end() || *it != obs) return inconsistent(__LINE__);
        s->rows.erase(it);
        --s->n;
    }
    --v.delta;
    return 0;
}

rctype addrow(IXH_HEADER_B* h, UpdVal& v, hs_obsno_t obs, int32_t seg) {
    if (unique(h)) {
        if (v.uobs != 0) return v.uobs == obs ? inconsistent(__LINE__) : IX_DUPKEY;
        v.uobs = obs;
        return 0;
    }
    UpdSeg* s;
    rctype rc = getseg(h, v, seg, &s);
    if (rc < 0) return rc;
    hs_obsno_t base = static_cast<hs_obsno_t>(seg) * seglen(h) + 1;
    if (s->isbitmap) {
        if (bm_set_bit(s->bm.data(), base, obs)) return inconsistent(__LINE__);
    } else {
        auto it = std::lower_bound(s->rows.begin(), s->rows.end(), obs);
        if (it != s->rows.end() && *it == obs) return inconsistent(__LINE__);
        s->rows.insert(it, obs);
        // A full list becomes a bitmap.
        if (static_cast<int64_t>(s->rows.size()) > maxlist(h)) tobitmap(h, *s, base);
    }
    ++s->n;
    ++v.delta;
    return 0;
}

rctype begin(IXH_HEADER_B* h, hs_obsno_t obs) {
    if (h->add_error) return h->add_error;
    if (h->bstate == IXH_APPEND) {
        rctype rc = ixhy_flush_append(h);
        if (rc < 0) return h->add_error = rc;
    }
    int32_t seg = 0;
    rctype rc = segrow(h, obs, &seg);
    if (rc < 0) return rc;
    return ixhy_prepare_for_update(h, seg);
}

// ---------------------------------------------------------------- flush

// The stored form of a changed segment, written past the end of the file.
rctype placeseg(IXH_HEADER_B* h, UpdVal& v, int32_t seg, UpdSeg& s, std::vector<char>& cpr) {
    hs_obsno_t base = static_cast<hs_obsno_t>(seg) * seglen(h) + 1;
    if (s.existed && stored(ixste_bm_type(s.old))) v.discarded += static_cast<double>(s.old.data);
    memset(&s.ste, 0, sizeof s.ste);
    if (s.n == 1) {
        ixste_set(s.ste, seg, Bm_One_Bit_Set);
        if (s.isbitmap) tolist(s, base);
        s.ste.data = s.rows[0];
        return 0;
    }
    const void* p;
    int64_t len;
    int type;
    if (!s.isbitmap) {
        type = Bm_Bit_List;
        p = s.rows.data();
        len = s.n * 8;
    } else {
        int32_t t;
        cpr.resize(static_cast<size_t>(h->bitmap_size));
        len = bm_compress(s.bm.data(), cpr.data(), h->bitmap_size, base, 0, 0, &t);
        type = t;
        if (t == Bm_Not_Compressed) {
            p = s.bm.data();
            len = h->bitmap_size;
        } else {
            p = cpr.data();
        }
    }
    ixste_set(s.ste, seg, type);
    s.ste.data = len;
    s.ste.bm_offset = h->filep;
    rctype rc = ixhy_write(h, p, len, h->filep);
    if (rc < 0) return rc;
    h->filep += len;
    return 0;
}

// The first pass for one value: new data written where nothing points yet,
// and what the second pass is to do.
rctype prepvalue(IXH_HEADER_B* h, UpdVal& v, std::vector<char>& cpr) {
    if (unique(h)) return 0;
    bool chained = !(v.flags & (UV_NEW | UV_ABSENT)) && !ixbt_one_segment(v.bt);
    // The entries after the changes, rising.
    std::vector<IXH_ST_ENTRY_D> out;
    bool sameset = true;
    auto e = v.ents.begin();
    if (v.flags & UV_NEW) e = v.ents.end();
    for (auto& [seg, s] : v.segs) {
        for (; e != v.ents.end() && ixste_seg_no(e->e) < seg; ++e) out.push_back(e->e);
        if (e != v.ents.end() && ixste_seg_no(e->e) == seg) ++e;
        if (s.n == 0) {
            if (s.existed) {
                sameset = false;
                if (stored(ixste_bm_type(s.old))) v.discarded += static_cast<double>(s.old.data);
            }
            continue;
        }
        if (!s.existed) sameset = false;
        rctype rc = placeseg(h, v, seg, s, cpr);
        if (rc < 0) return rc;
        out.push_back(s.ste);
        if (s.existed && s.entpos > 0) v.inplace.emplace_back(s.entpos, s.ste);
    }
    for (; e != v.ents.end(); ++e) out.push_back(e->e);
    v.remaining = static_cast<int>(out.size());
    int64_t oldrows = 0;
    if (!(v.flags & (UV_NEW | UV_ABSENT)))
        oldrows = ixbt_one_segment(v.bt) && ixbt_bm_type(v.bt) == Bm_One_Bit_Set ? 1 : v.bt.obs_data;
    int64_t rows = oldrows + v.delta;
    IXHYBRID_BTDATA_D& b = v.nbt;
    memset(&b, 0, sizeof b);
    if (out.empty()) {
        if (rows != 0) return inconsistent(__LINE__);
        ixbt_set(b, 0, 0, 0, Bm_Deleted);
        v.dropchain = chained;
        v.inplace.clear();
        return 0;
    }
    if (rows < static_cast<int64_t>(out.size())) return inconsistent(__LINE__);
    if (out.size() == 1) {
        const IXH_ST_ENTRY_D& s = out[0];
        int type = ixste_bm_type(s);
        b.data_loc = type == Bm_One_Bit_Set ? 0 : s.bm_offset;
        b.obs_data = type == Bm_One_Bit_Set ? s.data : rows;
        b.seg_data = type == Bm_One_Bit_Set ? 0 : static_cast<int32_t>(s.data);
        ixbt_set(b, ixste_seg_no(s), 1, 0, type);
        v.dropchain = chained;
        v.inplace.clear();
        return 0;
    }
    if (chained && sameset) {
        // The same segments: entries are rewritten where they stand.
        b = v.bt;
        b.obs_data = rows;
        return 0;
    }
    // Another set of segments: one new chunk holds them all.
    v.inplace.clear();
    size_t n = out.size();
    IXH_SEGCHUNK_D c{0, static_cast<int32_t>(n), static_cast<int32_t>(n), ixste_seg_no(out.front()),
                     ixste_seg_no(out.back())};
    std::vector<char> buf(sizeof c + n * sizeof(IXH_ST_ENTRY_D));
    memcpy(buf.data(), &c, sizeof c);
    memcpy(buf.data() + sizeof c, out.data(), n * sizeof(IXH_ST_ENTRY_D));
    da_off_t at = h->filep;
    rctype rc = ixhy_write(h, buf.data(), static_cast<int64_t>(buf.size()), at);
    if (rc < 0) return rc;
    h->filep += static_cast<da_off_t>(buf.size());
    b.data_loc = at;
    b.obs_data = rows;
    b.seg_data = static_cast<int32_t>(n);
    ixbt_set(b, ixste_seg_no(out.back()), 0, 0, 0);
    v.dropchain = chained;
    v.newchain = true;
    return 0;
}

// The second pass for one value: entries in place, then its tree record;
// the header's counts follow.
rctype applyvalue(IXH_HEADER_B* h, UpdVal& v) {
    IXH_HEADER_D& d = h->disk;
    bool had = !(v.flags & (UV_NEW | UV_ABSENT));
    bool has;
    DBT dd;
    IXHYBRID_UNIQ_BTDATA_D u{};
    if (unique(h)) {
        if (v.uobs == v.uorig) return 0;
        had = v.uorig != 0;
        has = v.uobs != 0;
        u.obs_no = v.uobs;
        dd = DBT{&u, sizeof u};
    } else {
        if (v.segs.empty()) return 0;
        for (auto& [pos, e] : v.inplace) {
            rctype rc = ixhy_write(h, &e, sizeof e, pos);
            if (rc < 0) return rc;
        }
        has = v.remaining > 0;
        dd = DBT{&v.nbt, sizeof v.nbt};
    }
    if (!had && !has) return 0;  // a value that came and went in the batch
    DBT k{v.key.data(), v.key.size()};
    BT_PUTINFO pi{};
    rctype rc = __bt_hyget(h->db_ptr, &k, nullptr, &pi);
    if (rc >= 0) rc = __bt_hyput(h->db_ptr, &k, &dd, &pi);
    if (rc < 0) return IX_UPDATEFAIL;
    if (had && !has) {
        --d.n_values;
        ++d.n_vdeletes;
    } else if (!had && has) {
        ++d.n_values;
        if (v.flags & UV_UNDELETED) --d.n_vdeletes;
    }
    if (v.dropchain) {
        for (auto& [at, slots] : v.chunks) {
            --d.n_chunks;
            v.discarded += static_cast<double>(sizeof(IXH_SEGCHUNK_D) + static_cast<size_t>(slots) * sizeof(IXH_ST_ENTRY_D));
        }
        if (!v.newchain) --d.n_segl_values;
    }
    if (v.newchain) {
        ++d.n_chunks;
        if (!v.dropchain) ++d.n_segl_values;
    }
    d.discarded_bytes += v.discarded;
    return 0;
}

}  // namespace

rctype ixhy_prepare_for_update(IXH_HEADER_B* h, int32_t) {
    if (!h->upd) {
        h->upd = new (std::nothrow) UpdBatch;
        if (!h->upd) return IX_NOMEM;
    }
    if (h->bstate == IXH_UPDATE) return 0;
    h->bstate = IXH_UPDATE;
    h->need_to_flush = 1;
    h->filep = h->hybiid->filesize;
    h->disk.common.state = IX_DIRTY;
    return ixhy_wrhdr(h);
}

rctype ixhydelete(IXH_HEADER_B* h, const void* value, hs_obsno_t obs_no) {
    rctype rc = begin(h, obs_no);
    if (rc < 0) return rc;
    UpdVal* v;
    int32_t seg = static_cast<int32_t>((obs_no - 1) / seglen(h));
    if ((rc = getvalue(h, value, true, &v)) < 0) return h->add_error = rc;
    if (v->flags & UV_ABSENT) return 0;
    v->flags |= UV_LOST;
    if ((rc = droprow(h, *v, obs_no, seg)) < 0) return h->add_error = rc;
    return 0;
}

rctype ixhyupdt(IXH_HEADER_B* h, const void* old_key, const void* new_key, hs_obsno_t obs_no) {
    rctype rc = begin(h, obs_no);
    if (rc < 0) return rc;
    if (old_key && memcmp(old_key, new_key, static_cast<size_t>(h->keylen)) == 0) return 0;
    UpdVal* v;
    int32_t seg = static_cast<int32_t>((obs_no - 1) / seglen(h));
    if ((rc = getvalue(h, new_key, false, &v)) < 0) return h->add_error = rc;
    // A unique value held by another row refuses the update, and nothing changes.
    if (unique(h) && v->uobs != 0) return IX_DUPKEY;
    if (old_key && (rc = ixhydelete(h, old_key, obs_no)) < 0) return rc;
    v->flags |= UV_GAINED;
    if ((rc = addrow(h, *v, obs_no, seg)) < 0) return h->add_error = rc;
    return 0;
}

rctype ixhy_flush_update(IXH_HEADER_B* h) {
    if (h->bstate != IXH_UPDATE) return 0;
    if (h->add_error) return h->add_error;
    UpdBatch* ub = batch(h);
    rctype rc = 0;
    if (ub) {
        std::vector<char> cpr;
        for (auto& [k, v] : ub->vals)
            if ((rc = prepvalue(h, v, cpr)) < 0) break;
        for (auto it = ub->vals.begin(); rc == 0 && it != ub->vals.end(); ++it) rc = applyvalue(h, it->second);
        if (rc == 0 && h->db_ptr->sync(h->db_ptr, 0) < 0) rc = IX_UPDATEFAIL;
        delete ub;
        h->upd = nullptr;
    }
    if (rc < 0) {
        h->upd_failed = 1;
        h->disk.dstate = IXH_CANNOT_BE_REPAIRED;
        daignore(ixhy_wrhdr(h));
        return h->add_error = rc;
    }
    h->bstate = IXH_INITIAL;
    h->need_to_flush = 0;
    return ixhy_wrhdr(h);
}

rctype ixhytruncate(IXH_HEADER_B* h, hs_obsno_t obsno) {
    if (!unique(h) || obsno < 0 || obsno > h->last_obsno) return inconsistent(__LINE__);
    rctype rc = begin(h, std::max<hs_obsno_t>(obsno, 1));
    if (rc == 0) rc = ixhy_flush_update(h);
    if (rc == 0) rc = ixhy_prepare_for_update(h, 0);
    if (rc < 0) return rc;
    // The keys to go first, then each marked: the tree isn't changed under its cursor.
    std::vector<std::string> gone;
    DBT k, d;
    for (rc = h->db_ptr->seq(h->db_ptr, &k, &d, R_FIRST); rc == 0; rc = h->db_ptr->seq(h->db_ptr, &k, &d, R_NEXT)) {
        IXHYBRID_UNIQ_BTDATA_D u;
        memcpy(&u, d.data, sizeof u);
        if (u.obs_no > obsno) gone.emplace_back(static_cast<const char*>(k.data), k.size);
    }
    if (rc < 0) return h->add_error = rc;
    IXHYBRID_UNIQ_BTDATA_D none{};
    for (auto& key : gone) {
        DBT kk{key.data(), key.size()}, dd{&none, sizeof none};
        BT_PUTINFO pi{};
        rc = __bt_hyget(h->db_ptr, &kk, nullptr, &pi);
        if (rc == 0) rc = __bt_hyput(h->db_ptr, &kk, &dd, &pi);
        if (rc < 0) {
            h->upd_failed = 1;
            return h->add_error = IX_UPDATEFAIL;
        }
        --h->disk.n_values;
        ++h->disk.n_vdeletes;
    }
    h->is_truncate = 1;
    h->last_obsno = obsno;
    return ixhy_flush_update(h);
}

void ixhy_free_update(IXH_HEADER_B* h) {
    delete batch(h);
    h->upd = nullptr;
}

}  // namespace vrta

// Changing the tree in hand: inserting an entry, splitting a full page up
// the search path, deleting, and keys too long for an internal page kept on
// overflow pages. New pages are always taken at the file's end, which is
// where a growing tree stands, so its pages stay together.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"

namespace vrta {

namespace {

struct Span {
    const char* p;
    uint32_t len;
};

uint32_t entrylen(BTREE* t, const char* page, uint32_t i) {
    if ((pg_flags(page) & P_TYPE) == P_BLEAF) return t->bt_lsize;
    const char* e = pg_entry(page, i);
    return bt_inlen((bt_get32(e + 8) & P_BIGKEY) ? NOVFLSIZE : bt_get32(e));
}

// Lays entries out on a page from its top down.
void fillpage(BTREE* t, char* h, pgno_t pgno, pgno_t prev, pgno_t next, uint32_t type, const Span* v, size_t n) {
    memset(h, 0, t->bt_psize);
    pg_setpgno(h, pgno);
    pg_setprev(h, prev);
    pg_setnext(h, next);
    pg_setflags(h, type);
    uint32_t upper = bt_pagetop(t->bt_psize);
    for (size_t i = 0; i < n; ++i) {
        upper -= v[i].len;
        memcpy(h + upper, v[i].p, v[i].len);
        pg_setlinp(h, static_cast<uint32_t>(i), static_cast<indx_t>(upper));
    }
    pg_setlower(h, static_cast<indx_t>(BTDATAOFF + 2 * n));
    pg_setupper(h, static_cast<indx_t>(upper));
}

// Puts an entry at index of a page that has room.
void insertat(char* h, indx_t index, const void* entry, uint32_t len) {
    uint32_t n = pg_nentries(h);
    indx_t upper = static_cast<indx_t>(pg_upper(h) - len);
    memmove(h + BTDATAOFF + 2 * (index + 1), h + BTDATAOFF + 2 * index, 2 * (n - index));
    memcpy(h + upper, entry, len);
    pg_setlinp(h, index, upper);
    pg_setlower(h, static_cast<indx_t>(pg_lower(h) + 2));
    pg_setupper(h, upper);
}

bool fits(const char* h, uint32_t len) { return static_cast<uint32_t>(pg_upper(h) - pg_lower(h)) >= len + 2; }

// The internal entry that leads to child, for the key of a separator.
rctype separator(BTREE* t, const char* key, pgno_t child, std::vector<char>* out) {
    uint32_t ks = t->bt_cmplen;
    if (ks > t->bt_ovflsize) {
        pgno_t ov;
        rctype rc = __ovfl_put(t, key, ks, &ov);
        if (rc < 0) return rc;
        out->assign(bt_inlen(NOVFLSIZE), 0);
        bt_put32(out->data(), ks);
        bt_put32(out->data() + 4, child);
        bt_put32(out->data() + 8, P_BIGKEY);
        bt_put32(out->data() + 12, ov);
        bt_put32(out->data() + 16, ks);
        return 0;
    }
    out->assign(bt_inlen(ks), 0);
    bt_put32(out->data(), ks);
    bt_put32(out->data() + 4, child);
    memcpy(out->data() + BINTERNAL_HEAD, key, ks);
    return 0;
}

// The separator for a right page whose first entry is e: a leaf's key, or
// an internal page's stored key (an overflow key is shared, not copied).
rctype sepof(BTREE* t, const char* e, uint32_t type, pgno_t child, std::vector<char>* out) {
    if (type == P_BLEAF) {
        std::vector<char> k(t->bt_cmplen);
        bt_leafkey(t, e, k.data());
        return separator(t, k.data(), child, out);
    }
    uint32_t flags = bt_get32(e + 8);
    uint32_t len = bt_inlen((flags & P_BIGKEY) ? NOVFLSIZE : bt_get32(e));
    if (!(flags & P_BIGKEY) && bt_get32(e) == 0) return IX_INCONSIST;  // a first key never moves right
    out->assign(e, e + len);
    bt_put32(out->data() + 4, child);
    return 0;
}

rctype split(BTREE* t, char* h, const char* entry, uint32_t elen, indx_t skip, int level);

// Adds the separator of a new right page to the parent at level.
rctype toparent(BTREE* t, int level, const std::vector<char>& sep) {
    if (level <= 0) return bt_fail(t, t->bt_root, IX_INCONSIST, "split below a page without a parent");
    EPGNO parent = t->bt_stack[level - 1];
    char* p = static_cast<char*>(bt_getpage(t, parent.pgno, IX_APPENDFAIL));
    if (!p) return IX_APPENDFAIL;
    indx_t at = static_cast<indx_t>(parent.index + 1);
    if (at > pg_nentries(p)) {
        mpool_put(t->bt_mp, p, 0);
        return bt_fail(t, parent.pgno, IX_INCONSIST, "search path no longer matches the page");
    }
    if (fits(p, static_cast<uint32_t>(sep.size()))) {
        insertat(p, at, sep.data(), static_cast<uint32_t>(sep.size()));
        mpool_put(t->bt_mp, p, MPOOL_DIRTY);
        return 0;
    }
    rctype rc = split(t, p, sep.data(), static_cast<uint32_t>(sep.size()), at, level - 1);
    mpool_put(t->bt_mp, p, MPOOL_DIRTY);
    return rc;
}

rctype split(BTREE* t, char* h, const char* entry, uint32_t elen, indx_t skip, int level) {
    uint32_t type = pg_flags(h) & P_TYPE;
    uint32_t n = pg_nentries(h);
    std::vector<char> copy(h, h + t->bt_psize);
    std::vector<Span> v;
    v.reserve(n + 1);
    uint32_t total = 0;
    for (uint32_t i = 0; i <= n; ++i) {
        if (i == skip) v.push_back({entry, elen});
        if (i < n) v.push_back({copy.data() + pg_linp(copy.data(), i), entrylen(t, copy.data(), i)});
    }
    for (auto& s : v) total += s.len + 2;
    uint32_t room = bt_pagetop(t->bt_psize) - BTDATAOFF;
    pgno_t pgno = pg_pgno(h);
    bool isroot = pgno == t->bt_root;
    // Keys arriving in order at the right edge leave full pages behind.
    size_t s = 0;
    if (skip == n && pg_next(h) == 0 && !isroot) {
        s = n;
    } else {
        uint32_t acc = 0;
        while (s < v.size() && acc + v[s].len + 2 <= total / 2) acc += v[s++].len + 2;
        if (s == 0) s = 1;
        if (s == v.size()) s = v.size() - 1;
    }
    uint32_t left = 0;
    for (size_t i = 0; i < s; ++i) left += v[i].len + 2;
    if (left > room || total - left > room) return bt_fail(t, pgno, IX_INCONSIST, "entries do not fit two pages");

    pgno_t rp;
    char* r = static_cast<char*>(mpool_new(t->bt_mp, &rp));
    if (!r) return bt_fail(t, t->bt_mp->npages, IX_APPENDFAIL, "no page for a split");
    std::vector<char> sep;
    if (isroot) {
        // The root stays where it is: its entries move to two new pages.
        pgno_t lp;
        char* l = static_cast<char*>(mpool_new(t->bt_mp, &lp));
        if (!l) {
            mpool_put(t->bt_mp, r, MPOOL_DIRTY);
            return bt_fail(t, t->bt_mp->npages, IX_APPENDFAIL, "no page for a split");
        }
        // New pages come in order: the left one must be the lower number.
        std::swap(l, r);
        std::swap(lp, rp);
        fillpage(t, l, lp, 0, rp, type, v.data(), s);
        fillpage(t, r, rp, lp, 0, type, v.data() + s, v.size() - s);
        rctype rc = sepof(t, v[s].p, type, rp, &sep);
        mpool_put(t->bt_mp, l, MPOOL_DIRTY);
        mpool_put(t->bt_mp, r, MPOOL_DIRTY);
        if (rc < 0) return rc;
        std::vector<char> first(BINTERNAL_HEAD, 0);
        bt_put32(first.data() + 4, lp);
        Span two[2] = {{first.data(), BINTERNAL_HEAD}, {sep.data(), static_cast<uint32_t>(sep.size())}};
        fillpage(t, h, pgno, 0, 0, P_BINTERNAL, two, 2);
        return 0;
    }
    pgno_t next = pg_next(h);
    fillpage(t, r, rp, pgno, next, type, v.data() + s, v.size() - s);
    rctype rc = sepof(t, v[s].p, type, rp, &sep);
    if (rc < 0) {
        mpool_put(t->bt_mp, r, MPOOL_DIRTY);
        return rc;
    }
    fillpage(t, h, pgno, pg_prev(copy.data()), rp, type, v.data(), s);
    mpool_put(t->bt_mp, r, MPOOL_DIRTY);
    if (next) {
        char* nx = static_cast<char*>(bt_getpage(t, next, IX_APPENDFAIL));
        if (!nx) return IX_APPENDFAIL;
        pg_setprev(nx, rp);
        mpool_put(t->bt_mp, nx, MPOOL_DIRTY);
    }
    return toparent(t, level, sep);
}

// Whether another leaf entry next to index (the place of a new entry, or
// of one going) has the same key: then the key's count of distinct values
// does not change. skipself passes over the entry at index itself.
bool sharedkey(BTREE* t, char* h, indx_t index, const void* key, bool skipself) {
    uint32_t n = pg_nentries(h);
    auto same = [&](const void* page, uint32_t i) { return bt_keyeq(t, key, pg_entry(page, i) + t->bt_data_len); };
    if (index > 0 && same(h, index - 1)) return true;
    uint32_t after = index + (skipself ? 1 : 0);
    if (after < n) return same(h, after);
    // The neighbours may stand on the next or previous leaf.
    for (int dir : {1, -1}) {
        if (dir < 0 && index > 0) continue;
        pgno_t pg = dir > 0 ? pg_next(h) : pg_prev(h);
        pgno_t limit = bt_treeend(t) - t->bt_root + 1;
        for (pgno_t steps = 0; pg && steps <= limit; ++steps) {
            char* p = static_cast<char*>(bt_getpage(t, pg, IX_TREEREAD));
            if (!p) return false;
            uint32_t m = pg_nentries(p);
            bool got = m && same(p, dir > 0 ? 0 : m - 1);
            pgno_t nx = dir > 0 ? pg_next(p) : pg_prev(p);
            mpool_put(t->bt_mp, p, 0);
            if (m) {
                if (got) return true;
                break;
            }
            pg = nx;
        }
    }
    return false;
}

void removeat(BTREE* t, char* h, indx_t index) {
    uint32_t n = pg_nentries(h);
    indx_t off = pg_linp(h, index);
    indx_t upper = pg_upper(h);
    uint32_t len = t->bt_lsize;
    memmove(h + upper + len, h + upper, off - upper);
    for (uint32_t j = 0; j < n; ++j)
        if (pg_linp(h, j) < off) pg_setlinp(h, j, static_cast<indx_t>(pg_linp(h, j) + len));
    memmove(h + BTDATAOFF + 2 * index, h + BTDATAOFF + 2 * (index + 1), 2 * (n - index - 1));
    pg_setlower(h, static_cast<indx_t>(pg_lower(h) - 2));
    pg_setupper(h, static_cast<indx_t>(upper + len));
}

}  // namespace

rctype bt_nroot(BTREE* t) {
    pgno_t pg;
    char* h = static_cast<char*>(mpool_new(t->bt_mp, &pg));
    if (!h) return bt_fail(t, t->bt_mp->npages, IX_APPENDFAIL, "no page for a new root");
    fillpage(t, h, pg, 0, 0, P_BLEAF, nullptr, 0);
    mpool_put(t->bt_mp, h, MPOOL_DIRTY);
    t->bt_root = pg;
    t->bt_treelen = 0;
    t->bt_nroot = 1;
    t->bt_last_is_meta = 0;
    return 0;
}

rctype __bt_newroot(BTREE* t, pgno_t* root) {
    rctype rc = bt_nroot(t);
    if (rc == 0) *root = t->bt_root;
    return rc;
}

rctype __bt_split(BTREE* t, void* leaf, const void* entry, uint32_t elen, indx_t skip) {
    return split(t, static_cast<char*>(leaf), static_cast<const char*>(entry), elen, skip, t->bt_sp);
}

rctype __bt_lput(BTREE* t, void* page, indx_t index, const void* key, const void* data) {
    char* h = static_cast<char*>(page);
    char* e = t->bt_ebuf;
    memset(e, 0, t->bt_lsize);
    memcpy(e, data, t->bt_data_len);
    memcpy(e + t->bt_data_len, key, t->bt_keylen);
    if (fits(h, t->bt_lsize)) {
        insertat(h, index, e, t->bt_lsize);
        return 0;
    }
    std::vector<char> copy(e, e + t->bt_lsize);
    return __bt_split(t, h, copy.data(), t->bt_lsize, index);
}

rctype __bt_put(DB* dbp, const DBT* key, const DBT* data, int flags) {
    BTREE* t = dbp->internal;
    if (t->bt_openmode == BT_OREAD || (dbp->current_op != BT_OPAPPEND && dbp->current_op != BT_OPUPDATE))
        return IX_BADOPTS;
    if (!key || !data || key->size != t->bt_keylen || data->size != t->bt_data_len) return IX_BADCOMPARE;
    bt_release(t);
    rctype code = dbp->current_op == BT_OPAPPEND ? IX_APPENDFAIL : IX_UPDATEFAIL;
    if (dbp->current_op == BT_OPAPPEND && !(t->bt_flags & B_GLOBAL) && !(t->bt_flags & B_NOEQUALS)) {
        rctype rc = __bt_append_row(dbp, bt_rowof(data->data));
        if (rc < 0) return rc;
    }
    if (t->bt_root == 0) return bt_fail(t, 0, code, "no tree to put into");
    void* h;
    indx_t idx;
    int exact;
    rctype rc = __bt_search(t, key->data, data->data, &h, &idx, &exact);
    if (rc < 0) return rc;
    if (exact) {
        if ((flags & R_NOOVERWRITE) || !(t->bt_flags & B_NOEQUALS)) {
            mpool_put(t->bt_mp, h, 0);
            return 1;
        }
        memcpy(pg_entry(h, idx), data->data, t->bt_data_len);
        mpool_put(t->bt_mp, h, MPOOL_DIRTY);
        t->bt_flags |= B_MODIFIED;
        return 0;
    }
    bool newkey = (t->bt_flags & B_NOEQUALS) || !sharedkey(t, static_cast<char*>(h), idx, key->data, false);
    rc = __bt_lput(t, h, idx, key->data, data->data);
    mpool_put(t->bt_mp, h, MPOOL_DIRTY);
    if (rc < 0) return rc;
    ++t->bt_nrecs;
    if (newkey) ++t->bt_unique_count;
    t->bt_flags |= B_MODIFIED;
    t->bt_flags &= ~B_NODUPS_CURSOR;
    return 0;
}

rctype bt_dleaf(BTREE* t, void* page, indx_t index) {
    char* h = static_cast<char*>(page);
    std::vector<char> key(pg_entry(h, index) + t->bt_data_len, pg_entry(h, index) + t->bt_data_len + t->bt_keylen);
    bool last = (t->bt_flags & B_NOEQUALS) || !sharedkey(t, h, index, key.data(), true);
    removeat(t, h, index);
    if (t->bt_nrecs) --t->bt_nrecs;
    if (last) __bt_decrement_unique_count(t);
    t->bt_flags |= B_MODIFIED;
    t->bt_flags &= ~B_NODUPS_CURSOR;
    return 0;
}

void __bt_decrement_unique_count(BTREE* t) {
    if (t->bt_unique_count > 0) --t->bt_unique_count;
}

rctype __bt_delete(DB* dbp, const DBT* key, const DBT* data, int flags) {
    BTREE* t = dbp->internal;
    if (t->bt_openmode == BT_OREAD || (dbp->current_op != BT_OPAPPEND && dbp->current_op != BT_OPUPDATE))
        return IX_BADOPTS;
    bt_release(t);
    if (t->bt_root == 0) return 1;
    if (flags == R_CURSOR) {
        if (!(t->bt_flags & B_NODUPS_CURSOR) || t->bt_cursor_pending) return 1;
        void* h = bt_getpage(t, t->bt_cursor.pgno, IX_UPDATEFAIL);
        if (!h) return IX_UPDATEFAIL;
        if ((pg_flags(h) & P_TYPE) != P_BLEAF || t->bt_cursor.index >= pg_nentries(h)) {
            mpool_put(t->bt_mp, h, 0);
            return 1;
        }
        EPGNO at = t->bt_cursor;
        bt_dleaf(t, h, at.index);
        mpool_put(t->bt_mp, h, MPOOL_DIRTY);
        // The entry after the deleted one now stands at its place.
        t->bt_cursor = at;
        t->bt_cursor_pending = 1;
        t->bt_flags |= B_NODUPS_CURSOR;
        return 0;
    }
    if (!key || key->size != t->bt_keylen) return IX_BADCOMPARE;
    const void* d = (!(t->bt_flags & B_NOEQUALS) && data && data->data) ? data->data : nullptr;
    if (d && data->size != t->bt_data_len) return IX_BADCOMPARE;
    int deleted = 0;
    for (;;) {
        void* h;
        indx_t idx;
        int exact;
        rctype rc = bt_findfirst(t, key->data, d, &h, &idx, &exact);
        if (rc < 0) return rc;
        if (!h) break;
        bool hit = d || (t->bt_flags & B_NOEQUALS) ? exact : bt_keyeq(t, key->data, pg_entry(h, idx) + t->bt_data_len);
        if (!hit) {
            mpool_put(t->bt_mp, h, 0);
            break;
        }
        bt_dleaf(t, h, idx);
        mpool_put(t->bt_mp, h, MPOOL_DIRTY);
        ++deleted;
        if (d || (t->bt_flags & B_NOEQUALS)) break;
    }
    return deleted ? 0 : 1;
}

rctype __ovfl_put(BTREE* t, const void* bytes, uint32_t size, pgno_t* pg) {
    uint32_t plen = bt_pagetop(t->bt_psize) - BTDATAOFF;
    const char* p = static_cast<const char*>(bytes);
    char* prev = nullptr;
    pgno_t first = 0;
    for (uint32_t done = 0; done < size;) {
        pgno_t np;
        char* h = static_cast<char*>(mpool_new(t->bt_mp, &np));
        if (!h) {
            if (prev) mpool_put(t->bt_mp, prev, MPOOL_DIRTY);
            return bt_fail(t, t->bt_mp->npages, IX_APPENDFAIL, "no page for an overflow key");
        }
        pg_setpgno(h, np);
        pg_setflags(h, P_OVERFLOW);
        uint32_t n = size - done < plen ? size - done : plen;
        memcpy(h + BTDATAOFF, p + done, n);
        done += n;
        if (prev) {
            pg_setnext(prev, np);
            pg_setprev(h, pg_pgno(prev));
            mpool_put(t->bt_mp, prev, MPOOL_DIRTY);
        } else {
            first = np;
        }
        prev = h;
    }
    if (prev) mpool_put(t->bt_mp, prev, MPOOL_DIRTY);
    *pg = first;
    return 0;
}

rctype __ovfl_get(BTREE* t, pgno_t pg, uint32_t size, char* out) {
    uint32_t plen = bt_pagetop(t->bt_psize) - BTDATAOFF;
    for (uint32_t done = 0; done < size;) {
        if (!pg) return bt_fail(t, 0, IX_TREEREAD, "overflow key ends early");
        char* h = static_cast<char*>(bt_getpage(t, pg, IX_TREEREAD));
        if (!h) return IX_TREEREAD;
        if ((pg_flags(h) & P_TYPE) != P_OVERFLOW) {
            mpool_put(t->bt_mp, h, 0);
            return bt_fail(t, pg, IX_TREEREAD, "overflow key on a page of another kind");
        }
        uint32_t n = size - done < plen ? size - done : plen;
        memcpy(out + done, h + BTDATAOFF, n);
        done += n;
        pgno_t next = pg_next(h);
        mpool_put(t->bt_mp, h, 0);
        pg = next;
    }
    return 0;
}

}  // namespace vrta

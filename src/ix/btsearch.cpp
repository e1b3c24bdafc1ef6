// Finding keys in the tree in hand: the descent, the lookup, and the
// cursor that walks the leaves in key order. Every walk is bounded by the
// tree's size, so a damaged link ends in an error, never in a loop.
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"

namespace vrta {

namespace {

// Pages a walk along the leaves may visit before it must be going round.
pgno_t walklimit(BTREE* t) { return bt_treeend(t) - t->bt_root + 1; }

void copyout(BTREE* t, const void* page, uint32_t i, DBT* key, DBT* data) {
    const char* e = pg_entry(page, i);
    if (key) {
        memcpy(t->bt_rkey, e + t->bt_data_len, t->bt_keylen);
        key->data = t->bt_rkey;
        key->size = t->bt_keylen;
    }
    if (data) {
        memcpy(t->bt_rdata, e, t->bt_data_len);
        data->data = t->bt_rdata;
        data->size = t->bt_data_len;
    }
}

// From a leaf, the next (dir 1) or previous (dir -1) leaf that has an
// entry; the page comes back pinned, or null at the end (*rc 0) or on a
// damaged link (*rc the code).
void* step(BTREE* t, void* h, int dir, rctype* rc) {
    pgno_t limit = walklimit(t);
    *rc = 0;
    for (pgno_t n = 0;; ++n) {
        pgno_t cur = pg_pgno(h);
        pgno_t nx = dir > 0 ? pg_next(h) : pg_prev(h);
        mpool_put(t->bt_mp, h, 0);
        if (!nx) return nullptr;
        if (n > limit) {
            *rc = bt_fail(t, cur, IX_TREEREAD, "sibling links loop");
            return nullptr;
        }
        h = bt_getpage(t, nx, IX_TREEREAD);
        if (!h) {
            *rc = IX_TREEREAD;
            return nullptr;
        }
        if ((pg_flags(h) & P_TYPE) != P_BLEAF || (dir > 0 ? pg_prev(h) : pg_next(h)) != cur) {
            mpool_put(t->bt_mp, h, 0);
            *rc = bt_fail(t, nx, IX_TREEREAD, "sibling links disagree");
            return nullptr;
        }
        if (pg_nentries(h)) return h;
    }
}

// Descends along the first (dir -1) or last (dir 1) child to a leaf.
void* edge(BTREE* t, int dir, rctype* rc) {
    pgno_t pgno = t->bt_root;
    *rc = 0;
    for (int depth = 0;; ++depth) {
        if (depth >= BT_MAXDEPTH) {
            *rc = bt_fail(t, pgno, IX_TREEREAD, "tree deeper than a sound tree can be");
            return nullptr;
        }
        void* h = bt_getpage(t, pgno, IX_TREEREAD);
        if (!h) {
            *rc = IX_TREEREAD;
            return nullptr;
        }
        if ((pg_flags(h) & P_TYPE) == P_BLEAF) return h;
        if ((pg_flags(h) & P_TYPE) != P_BINTERNAL) {
            mpool_put(t->bt_mp, h, 0);
            *rc = bt_fail(t, pgno, IX_TREEREAD, "overflow page where a tree page belongs");
            return nullptr;
        }
        uint32_t i = dir < 0 ? 0 : pg_nentries(h) - 1;
        pgno_t child = bt_get32(pg_entry(h, i) + 4);
        mpool_put(t->bt_mp, h, 0);
        pgno = child;
    }
}

}  // namespace

rctype bt_edgekey(BTREE* t, int dir, char* out, int* found) {
    *found = 0;
    if (!t->bt_root) return 0;
    rctype rc;
    void* h = edge(t, dir, &rc);
    if (!h) return rc;
    if (pg_nentries(h) == 0) {
        h = step(t, h, -dir, &rc);
        if (!h) return rc;
    }
    uint32_t i = dir < 0 ? 0 : pg_nentries(h) - 1;
    memset(out, 0, 4);
    memcpy(out, pg_entry(h, i) + t->bt_data_len, t->bt_keylen < 4 ? t->bt_keylen : 4);
    mpool_put(t->bt_mp, h, 0);
    *found = 1;
    return 0;
}

rctype __bt_search(BTREE* t, const void* key, const void* data, void** pagep, indx_t* indexp, int* exactp) {
    pgno_t pgno = t->bt_root;
    t->bt_sp = 0;
    for (int depth = 0;; ++depth) {
        if (depth >= BT_MAXDEPTH) return bt_fail(t, pgno, IX_TREEREAD, "tree deeper than a sound tree can be");
        void* h = bt_getpage(t, pgno, IX_TREEREAD);
        if (!h) return IX_TREEREAD;
        uint32_t type = pg_flags(h) & P_TYPE;
        uint32_t n = pg_nentries(h);
        int err = 0;
        if (type == P_BLEAF) {
            // The first entry not below the key.
            uint32_t lo = 0, hi = n;
            while (lo < hi) {
                uint32_t mid = (lo + hi) / 2;
                if (__bt_cmp(t, key, data, h, mid, pgno, &err) > 0) lo = mid + 1;
                else hi = mid;
            }
            *pagep = h;
            *indexp = static_cast<indx_t>(lo);
            *exactp = lo < n && __bt_cmp(t, key, data, h, lo, pgno, &err) == 0;
            return 0;
        }
        if (type != P_BINTERNAL) {
            mpool_put(t->bt_mp, h, 0);
            return bt_fail(t, pgno, IX_TREEREAD, "overflow page where a tree page belongs");
        }
        // The last entry whose key is not above the search key.
        uint32_t lo = 1, hi = n;
        while (lo < hi && !err) {
            uint32_t mid = (lo + hi) / 2;
            if (__bt_cmp(t, key, data, h, mid, pgno, &err) >= 0) lo = mid + 1;
            else hi = mid;
        }
        if (err) {
            mpool_put(t->bt_mp, h, 0);
            return IX_TREEREAD;
        }
        uint32_t idx = lo - 1;
        if (t->bt_sp >= BT_MAXDEPTH) {
            mpool_put(t->bt_mp, h, 0);
            return bt_fail(t, pgno, IX_TREEREAD, "tree deeper than a sound tree can be");
        }
        t->bt_stack[t->bt_sp++] = {pgno, static_cast<indx_t>(idx)};
        pgno_t child = bt_get32(pg_entry(h, idx) + 4);
        mpool_put(t->bt_mp, h, 0);
        pgno = child;
    }
}

// The leaf position of the first entry with key; *h null when there is none past it.
rctype bt_findfirst(BTREE* t, const void* key, const void* data, void** hp, indx_t* idxp, int* exactp) {
    void* h;
    indx_t idx;
    int exact;
    rctype rc = __bt_search(t, key, data, &h, &idx, &exact);
    if (rc < 0) return rc;
    if (idx >= pg_nentries(h)) {
        h = step(t, h, 1, &rc);
        if (!h) {
            *hp = nullptr;
            return rc;
        }
        idx = 0;
        int err = 0;
        exact = __bt_cmp(t, key, data, h, 0, pg_pgno(h), &err) == 0;
        if (err) {
            mpool_put(t->bt_mp, h, 0);
            return IX_TREEREAD;
        }
    }
    *hp = h;
    *idxp = idx;
    *exactp = exact;
    return 0;
}

rctype __bt_get(DB* dbp, const DBT* key, DBT* data, int) {
    BTREE* t = dbp->internal;
    if (!key || key->size != t->bt_keylen) return IX_BADCOMPARE;
    if (t->bt_root == 0) return 1;
    void* h;
    indx_t idx;
    int exact;
    rctype rc = bt_findfirst(t, key->data, nullptr, &h, &idx, &exact);
    if (rc < 0) return rc;
    if (!h) return 1;
    // A key-only search stands before the key's entries: compare the key alone.
    if (!(t->bt_flags & B_NOEQUALS)) exact = bt_keyeq(t, key->data, pg_entry(h, idx) + t->bt_data_len);
    if (exact) copyout(t, h, idx, nullptr, data);
    mpool_put(t->bt_mp, h, 0);
    return exact ? 0 : 1;
}

rctype __bt_seq(DB* dbp, DBT* key, DBT* data, int flags) {
    BTREE* t = dbp->internal;
    if (t->bt_root == 0) return 1;
    rctype rc = 0;
    void* h = nullptr;
    int idx = 0;
    bool valid = (t->bt_flags & B_NODUPS_CURSOR) != 0;
    if (flags == R_NEXT && !valid) flags = R_FIRST;
    if (flags == R_PREV && !valid) flags = R_LAST;
    switch (flags) {
    case R_FIRST:
    case R_LAST:
        h = edge(t, flags == R_FIRST ? -1 : 1, &rc);
        if (!h) return rc < 0 ? rc : 1;
        if (pg_nentries(h) == 0) {
            h = step(t, h, flags == R_FIRST ? 1 : -1, &rc);
            if (!h) return rc < 0 ? rc : 1;
        }
        idx = flags == R_FIRST ? 0 : static_cast<int>(pg_nentries(h)) - 1;
        break;
    case R_CURSOR: {
        if (!key || key->size != t->bt_keylen) return IX_BADCOMPARE;
        indx_t ix;
        int exact;
        rc = bt_findfirst(t, key->data, (data && data->data && !(t->bt_flags & B_NOEQUALS)) ? data->data : nullptr, &h,
                          &ix, &exact);
        if (rc < 0) return rc;
        if (!h) {
            t->bt_flags &= ~B_NODUPS_CURSOR;
            return 1;
        }
        idx = ix;
        break;
    }
    case R_NEXT:
    case R_PREV: {
        h = bt_getpage(t, t->bt_cursor.pgno, IX_TREEREAD);
        if (!h) return IX_TREEREAD;
        if ((pg_flags(h) & P_TYPE) != P_BLEAF) {
            mpool_put(t->bt_mp, h, 0);
            return bt_fail(t, t->bt_cursor.pgno, IX_TREEREAD, "cursor page is no leaf");
        }
        idx = t->bt_cursor.index;
        if (t->bt_cursor_pending) idx += flags == R_NEXT ? 0 : -1;
        else idx += flags == R_NEXT ? 1 : -1;
        int n = static_cast<int>(pg_nentries(h));
        if (idx >= n) {
            h = step(t, h, 1, &rc);
            if (!h) return rc < 0 ? rc : 1;
            idx = 0;
        } else if (idx < 0) {
            h = step(t, h, -1, &rc);
            if (!h) return rc < 0 ? rc : 1;
            idx = static_cast<int>(pg_nentries(h)) - 1;
        }
        break;
    }
    default:
        return IX_BADOPTS;
    }
    t->bt_cursor = {pg_pgno(h), static_cast<indx_t>(idx)};
    t->bt_cursor_pending = 0;
    t->bt_flags |= B_NODUPS_CURSOR;
    copyout(t, h, idx, key, data);
    mpool_put(t->bt_mp, h, 0);
    return 0;
}

rctype __bt_range(DB* dbp, const void* key, size_t len) {
    BTREE* t = dbp->internal;
    if (len > t->bt_keylen) return IX_BADCOMPARE;
    t->bt_flags &= ~B_NODUPS_CURSOR;
    if (t->bt_root == 0) return 1;
    // The lowest key with this prefix: key blocks compare as bytes.
    char* probe = t->bt_rkey + t->bt_cmplen;
    memset(probe, 0, t->bt_keylen);
    memcpy(probe, key, len);
    void* h;
    indx_t idx;
    int exact;
    rctype rc = bt_findfirst(t, probe, nullptr, &h, &idx, &exact);
    if (rc < 0) return rc;
    if (!h) return 1;
    t->bt_cursor = {pg_pgno(h), idx};
    t->bt_cursor_pending = 1;
    t->bt_flags |= B_NODUPS_CURSOR;
    mpool_put(t->bt_mp, h, 0);
    return 0;
}

}  // namespace vrta

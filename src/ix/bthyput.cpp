// The fast pair for a global tree filled in key order: the leaf of the last
// call stays pinned, and a key that belongs on it is found or put there
// with no descent from the root.
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/bthyput";

// Where key stands on the pinned leaf; false when it belongs elsewhere.
bool onfastpath(BTREE* t, const void* key, indx_t* idx, int* exact) {
    char* h = static_cast<char*>(t->bt_fastpath_h);
    if (!h) return false;
    uint32_t n = pg_nentries(h);
    pgno_t pgno = pg_pgno(h);
    int err = 0;
    if (n == 0) return false;
    int last = __bt_cmp(t, key, nullptr, h, n - 1, pgno, &err);
    if (last > 0) {
        if (pg_next(h)) return false;
        *idx = static_cast<indx_t>(n);
        *exact = 0;
        return true;
    }
    if (__bt_cmp(t, key, nullptr, h, 0, pgno, &err) < 0) return false;
    uint32_t lo = 0, hi = n - 1;  // the last entry is not below the key
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        if (__bt_cmp(t, key, nullptr, h, mid, pgno, &err) > 0) lo = mid + 1;
        else hi = mid;
    }
    *idx = static_cast<indx_t>(lo);
    *exact = __bt_cmp(t, key, nullptr, h, lo, pgno, &err) == 0;
    return true;
}

// The leaf of key, pinned as the fast path's.
rctype position(BTREE* t, const void* key, indx_t* idx, int* exact) {
    if (onfastpath(t, key, idx, exact)) return 0;
    bt_release(t);
    void* h;
    rctype rc = __bt_search(t, key, nullptr, &h, idx, exact);
    if (rc < 0) return rc;
    t->bt_fastpath_h = h;
    return 0;
}

}  // namespace

rctype __bt_hyget(DB* dbp, const DBT* key, DBT* data, BT_PUTINFO* putinfop) {
    BTREE* t = dbp->internal;
    if (!(t->bt_flags & B_NOEQUALS)) return IX_BADOPTS;
    if (!key || key->size != t->bt_keylen) return IX_BADCOMPARE;
    if (t->bt_root == 0) return 1;
    indx_t idx;
    int exact;
    rctype rc = position(t, key->data, &idx, &exact);
    if (rc < 0) return rc;
    char* h = static_cast<char*>(t->bt_fastpath_h);
    t->bt_bcursor_put = {pg_pgno(h), idx};
    if (putinfop) *putinfop = {pg_pgno(h), idx, exact};
    if (!exact) return 1;
    if (data) {
        memcpy(t->bt_rdata, pg_entry(h, idx), t->bt_data_len);
        data->data = t->bt_rdata;
        data->size = t->bt_data_len;
    }
    return 0;
}

rctype __bt_hyput(DB* dbp, const DBT* key, const DBT* data, BT_PUTINFO* putinfop) {
    BTREE* t = dbp->internal;
    if (!(t->bt_flags & B_NOEQUALS) || t->bt_openmode == BT_OREAD ||
        (dbp->current_op != BT_OPAPPEND && dbp->current_op != BT_OPUPDATE))
        return IX_BADOPTS;
    if (!key || !data || key->size != t->bt_keylen || data->size != t->bt_data_len) return IX_BADCOMPARE;
    // Leaf entries have no overflow form: a key must fit a page as it is.
    if (t->bt_cmplen > t->bt_ovflsize) ix_assertion_failure(TRACEFILE, __LINE__);
    if (t->bt_root == 0) return bt_fail(t, 0, IX_APPENDFAIL, "no tree to put into");
    indx_t idx;
    int exact;
    rctype rc = position(t, key->data, &idx, &exact);
    if (rc < 0) return rc;
    char* h = static_cast<char*>(t->bt_fastpath_h);
    int found = exact;
    // Keys arriving at the right edge are a sorted run: the cache may grow.
    if (!exact && idx == pg_nentries(h) && !pg_next(h) && t->bt_grow_ncache > t->bt_mp->maxcache)
        mpool_growcache(t->bt_mp, t->bt_grow_ncache);
    if (exact) {
        memcpy(pg_entry(h, idx), data->data, t->bt_data_len);
        mpool_dirty_page(t->bt_mp, h);
    } else if (static_cast<uint32_t>(pg_upper(h) - pg_lower(h)) >= t->bt_lsize + 2) {
        rc = __bt_lput(t, h, idx, key->data, data->data);
        if (rc < 0) return rc;
        mpool_dirty_page(t->bt_mp, h);
        ++t->bt_nrecs;
        ++t->bt_unique_count;
    } else {
        // A split needs the path from the root.
        bt_release(t);
        void* sh;
        rc = __bt_search(t, key->data, nullptr, &sh, &idx, &exact);
        if (rc < 0) return rc;
        rc = __bt_lput(t, sh, idx, key->data, data->data);
        mpool_put(t->bt_mp, sh, MPOOL_DIRTY);
        if (rc < 0) return rc;
        ++t->bt_nrecs;
        ++t->bt_unique_count;
        // The key's page after the split becomes the fast path's.
        rc = position(t, key->data, &idx, &exact);
        if (rc < 0) return rc;
        h = static_cast<char*>(t->bt_fastpath_h);
    }
    t->bt_flags |= B_MODIFIED | B_FASTPUT;
    t->bt_flags &= ~B_NODUPS_CURSOR;
    t->bt_bcursor_put = {pg_pgno(h), idx};
    if (putinfop) *putinfop = {pg_pgno(h), idx, 1};
    return found ? 1 : 0;
}

}  // namespace vrta

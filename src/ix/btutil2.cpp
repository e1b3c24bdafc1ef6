// Many trees in one file. Trees follow each other in row order, each
// described in a segment page by its root and length; the segment pages
// are the meta page's own, then pages named by the meta page's directory
// and, past its last slot, chained. Only the tree at the file's end can
// grow: the last tree is moved there to take more rows, and brought back
// when it did not grow. What an append changed reaches the meta page only
// at its commit, pages first, so the old trees stay readable until then.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/btutil2";

// Segment page and entry of tree n.
void locate(BTREE* t, int64_t n, int* idx, uint32_t* i) {
    int64_t m0 = bt_metamaxindex(t->bt_psize), m1 = bt_segmaxindex(t->bt_psize);
    if (n < m0) {
        *idx = 0;
        *i = static_cast<uint32_t>(n);
        return;
    }
    *idx = static_cast<int>(1 + (n - m0) / m1);
    *i = static_cast<uint32_t>((n - m0) % m1);
}

void shiftpage(BTREE* t, char* h, int64_t delta) {
    auto mv = [&](pgno_t p) { return static_cast<pgno_t>(static_cast<int64_t>(p) + delta); };
    pg_setpgno(h, mv(pg_pgno(h)));
    if (pg_prev(h)) pg_setprev(h, mv(pg_prev(h)));
    if (pg_next(h)) pg_setnext(h, mv(pg_next(h)));
    if ((pg_flags(h) & P_TYPE) != P_BINTERNAL) return;
    for (uint32_t i = 0, n = pg_nentries(h); i < n; ++i) {
        char* e = pg_entry(h, i);
        bt_put32(e + 4, mv(bt_get32(e + 4)));
        if (bt_get32(e + 8) & P_BIGKEY) bt_put32(e + 12, mv(bt_get32(e + 12)));
    }
    (void)t;
}

// The tree at root moves to the file's end; the old pages stay as they
// were, so that a reader keeps seeing the old tree until the commit.
rctype goout(BTREE* t, pgno_t root, pgno_t len) {
    pgno_t newroot = t->bt_mp->npages;
    int64_t delta = static_cast<int64_t>(newroot) - root;
    t->bt_root = root;
    t->bt_treelen = len;
    for (pgno_t i = 0; i < len; ++i) {
        char* src = static_cast<char*>(bt_getpage(t, root + i, IX_APPENDFAIL));
        if (!src) return IX_APPENDFAIL;
        pgno_t np;
        char* dst = static_cast<char*>(mpool_new(t->bt_mp, &np));
        if (!dst || np != newroot + i) {
            mpool_put(t->bt_mp, src, 0);
            if (dst) mpool_put(t->bt_mp, dst, MPOOL_DIRTY);
            return bt_fail(t, root + i, IX_APPENDFAIL, "tree cannot be moved to the file's end");
        }
        memcpy(dst, src, t->bt_psize);
        shiftpage(t, dst, delta);
        mpool_put(t->bt_mp, src, 0);
        mpool_put(t->bt_mp, dst, MPOOL_DIRTY);
    }
    t->bt_oldroot = root;
    t->bt_oldlen = len;
    t->bt_root = newroot;
    t->bt_treelen = 0;
    t->bt_gone_out = 1;
    return 0;
}

// The tree returns to where it was: only a page that differs from the old
// one is written, and the copy at the end is cut off. A tree that was at the
// file's end may come back grown: it then takes the pages after its old
// place, which its copy had begun at.
rctype comeback(BTREE* t, pgno_t newroot, pgno_t oldroot, pgno_t length) {
    if (static_cast<uint64_t>(newroot) + length != t->bt_mp->npages || oldroot >= newroot ||
        (oldroot + length > newroot && oldroot + t->bt_oldlen != newroot))
        return bt_fail(t, newroot, IX_INCONSIST, "a moved tree cannot go back");
    int64_t delta = static_cast<int64_t>(newroot) - oldroot;
    std::vector<char> tmp(t->bt_psize);
    for (pgno_t i = 0; i < length; ++i) {
        char* p = static_cast<char*>(mpool_get(t->bt_mp, newroot + i, 0));
        if (!p) return bt_fail(t, newroot + i, IX_APPENDFAIL, "moved tree page cannot be read");
        memcpy(tmp.data(), p, t->bt_psize);
        mpool_put(t->bt_mp, p, 0);
        shiftpage(t, tmp.data(), -delta);
        char* old = static_cast<char*>(mpool_get(t->bt_mp, oldroot + i, 0));
        if (!old) return bt_fail(t, oldroot + i, IX_APPENDFAIL, "tree page cannot be read");
        bool same = memcmp(old, tmp.data(), t->bt_psize) == 0;
        if (!same) memcpy(old, tmp.data(), t->bt_psize);
        mpool_put(t->bt_mp, old, same ? 0 : MPOOL_DIRTY);
    }
    pgno_t keep = oldroot + length > newroot ? oldroot + length : newroot;
    if (mpool_trim_back(t->bt_mp, t->bt_mp->npages - keep) != 0)
        return bt_fail(t, newroot, IX_WRITEFAIL, "the moved copy cannot be cut off");
    t->bt_root = oldroot;
    t->bt_treelen = length;
    t->bt_gone_out = 0;
    return 0;
}

// A segment page after the last, at the file's end, named by the directory
// or, past its last slot, chained from the page before.
rctype newsegpage(BTREE* t) {
    char* p = static_cast<char*>(calloc(1, t->bt_psize));
    if (!p) return IX_NOMEM;
    _btdesc d;
    memset(&d, 0, sizeof d);
    d.m_maxindex = bt_segmaxindex(t->bt_psize);
    memcpy(p, &d, sizeof d);
    int64_t pg = mpool_writenext(t->bt_mp, p);
    if (pg < 0) {
        free(p);
        return bt_fail(t, t->bt_mp->npages, IX_WRITEFAIL, "segment page cannot be written");
    }
    rctype rc = bt_addsegp(t, static_cast<pgno_t>(pg), p);
    if (rc < 0) {
        free(p);
        return rc;
    }
    int k = t->bt_nsegpages - 1;  // 1 for the first page past the meta page's
    _btmeta* m = reinterpret_cast<_btmeta*>(t->metapage);
    if (k <= BT_DIRSLOTS) {
        m->m_segp_directory[k - 1] = static_cast<pgno_t>(pg);
        m->m_segp_dircount = k - 1;
        t->bt_dircount = k - 1;
    } else {
        bt_desc(t, k - 1)->m_next = static_cast<pgno_t>(pg);
        t->bt_segpages[k - 1].dirty = 1;
    }
    t->bt_segpages[k].dirty = 1;
    t->bt_last_is_meta = 1;
    return 0;
}

// A moved tree that is done taking rows goes back when it did not grow, or
// when it had stood at the file's end; otherwise it stays where it grew.
rctype settle(BTREE* t) {
    if (!t->bt_gone_out) return 0;
    pgno_t len = t->bt_mp->npages - t->bt_root;
    t->bt_gone_out = 0;
    if (len == t->bt_oldlen || !t->bt_inner_update) {
        t->bt_gone_out = 1;
        return comeback(t, t->bt_root, t->bt_oldroot, len);
    }
    return 0;
}

int64_t lastcountof(BTREE* t) {
    if (t->bt_segcount == 0) return 0;
    int idx;
    uint32_t i;
    locate(t, t->bt_segcount - 1, &idx, &i);
    return bt_desc(t, idx)->m_lastcount;
}


}  // namespace

rctype __bt_tree(DB* dbp, int64_t treeno, pgno_t* root, pgno_t* len) {
    BTREE* t = dbp->internal;
    if (treeno < 0 || treeno >= t->bt_segcount) return 1;
    int idx;
    uint32_t i;
    locate(t, treeno, &idx, &i);
    if (idx >= t->bt_nsegpages || i >= bt_desc(t, idx)->m_curindex) return 1;
    _btsegtree* e = bt_entry(t, idx, i);
    *root = e->m_rootpageno;
    *len = e->m_treelen;
    return 0;
}

int64_t __bt_ntrees(DB* dbp) { return dbp->internal->bt_segcount; }

rctype __bt_settree(DB* dbp, int64_t treeno) {
    BTREE* t = dbp->internal;
    pgno_t root, len;
    if (__bt_tree(dbp, treeno, &root, &len) != 0) return BT_ENOTREE;
    bt_release(t);
    t->bt_root = root;
    t->bt_treelen = len;
    t->bt_curtree = treeno;
    t->bt_flags &= ~B_NODUPS_CURSOR;
    return 0;
}

int64_t __bt_lastpage(BTREE* t, int segp) {
    int64_t last = 0;
    for (int k = 0; k < t->bt_nsegpages; ++k) {
        if (segp && static_cast<int64_t>(t->bt_segpages[k].pgno) > last) last = t->bt_segpages[k].pgno;
        _btdesc* d = bt_desc(t, k);
        for (uint32_t i = 0; i < d->m_curindex; ++i) {
            _btsegtree* e = bt_entry(t, k, i);
            int64_t end = static_cast<int64_t>(e->m_rootpageno) + e->m_treelen - 1;
            if (end > last) last = end;
        }
    }
    return last;
}

rctype __bt_minmax(BTREE* t, uint8_t* minp, uint8_t* maxp) {
    memset(minp, 0, 4);
    memset(maxp, 0, 4);
    char lo[4] = {}, hi[4] = {};
    int found = 0;
    rctype rc = bt_edgekey(t, -1, lo, &found);
    if (rc == 0 && found) rc = bt_edgekey(t, 1, hi, &found);
    if (rc < 0) return rc;
    if (found) {
        memcpy(minp, lo, 4);
        memcpy(maxp, hi, 4);
    }
    return 0;
}

rctype __bt_meta_prep(DB* db) {
    BTREE* t = db->internal;
    if (db->current_op == BT_OPUPDATE) {
        rctype rc = __bt_update_commit(db);
        if (rc < 0) return rc;
    }
    db->current_op = BT_OPAPPEND;
    t->bt_appflag = 1;
    int64_t count = 0;
    bool first = true;
    for (int k = 0; k < t->bt_nsegpages; ++k) {
        _btdesc* d = bt_desc(t, k);
        count += d->m_curindex;
        for (uint32_t i = 0; i < d->m_curindex; ++i) {
            _btsegtree* e = bt_entry(t, k, i);
            if (first || memcmp(e->m_minval, t->bt_filemin, 4) < 0) memcpy(t->bt_filemin, e->m_minval, 4);
            if (first || memcmp(e->m_maxval, t->bt_filemax, 4) > 0) memcpy(t->bt_filemax, e->m_maxval, 4);
            first = false;
        }
    }
    t->bt_segcount = count;
    // Pages past the last the trees use were left by an append that died.
    pgno_t used = static_cast<pgno_t>(__bt_lastpage(t, 1) + 1);
    if (t->bt_mp->npages > used && mpool_trim_back(t->bt_mp, t->bt_mp->npages - used) != 0)
        return bt_fail(t, used, IX_WRITEFAIL, "pages of an unfinished append cannot be cut off");
    t->bt_mp->npages = used;
    t->bt_prepsize = used;
    t->bt_oldroot = t->bt_oldlen = 0;
    t->bt_gone_out = 0;
    t->bt_inner_update = 0;
    t->bt_lastcount = lastcountof(t);
    t->bt_last_is_meta = t->bt_nsegpages > 1 && t->bt_segpages[t->bt_nsegpages - 1].pgno == used - 1;
    return 0;
}

rctype __bt_meta_append(DB* db) {
    BTREE* t = db->internal;
    rctype rc = 0;
    bool global = (t->bt_flags & B_GLOBAL) != 0;
    if (t->bt_segcount == 0 || (!global && t->bt_lastcount >= t->bt_segsize)) {
        if ((rc = bt_nroot(t)) < 0) return rc;
        t->bt_curtree = t->bt_segcount;
        t->bt_lastcount = 0;
    } else {
        int idx;
        uint32_t i;
        locate(t, t->bt_segcount - 1, &idx, &i);
        _btsegtree* e = bt_entry(t, idx, i);
        pgno_t root = e->m_rootpageno, len = e->m_treelen;
        bt_desc(t, idx)->m_curindex = i;
        --t->bt_segcount;
        t->bt_curtree = t->bt_segcount;
        t->bt_nroot = 0;
        bool atend = static_cast<int64_t>(root) + len - 1 == mpool_lastpage(t->bt_mp);
        if (global) {
            // The one tree of the file grows where it stands.
            if (!atend) return bt_fail(t, root, IX_INCONSIST, "the global tree is not at the file's end");
            t->bt_root = root;
            t->bt_treelen = 0;
        } else {
            // A copy takes the rows, so the committed tree stays as it was
            // until the commit, and an append dropped leaves it whole.
            if ((rc = goout(t, root, len)) < 0) return rc;
            t->bt_inner_update = !atend;
        }
    }
    db->next_append = global ? 0 : t->bt_lastcount + t->bt_curtree * t->bt_segsize + 1;
    t->bt_last_committed_obs = global ? 0 : db->next_append - 1;
    return 0;
}

rctype __bt_append_row(DB* db, int64_t obsnum) {
    BTREE* t = db->internal;
    if (db->current_op != BT_OPAPPEND) return IX_BADOPTS;
    if (t->bt_flags & B_GLOBAL) return 0;
    if (obsnum < 1 || obsnum < db->next_append - 1)
        return bt_fail(t, t->bt_root, IX_APPENDFAIL, "rows appended out of order");
    while (obsnum > (t->bt_curtree + 1) * t->bt_segsize) {
        bt_release(t);
        t->bt_lastcount = t->bt_segsize;
        // A moved tree that fills up stays where it grew: going back now
        // would change committed pages before the commit.
        t->bt_gone_out = 0;
        rctype rc = __bt_meta_addtree(db);
        if (rc == 0) rc = bt_nroot(t);
        if (rc < 0) return rc;
        ++t->bt_curtree;
        t->bt_lastcount = 0;
    }
    int64_t inthis = obsnum - t->bt_curtree * t->bt_segsize;
    if (inthis > t->bt_lastcount) t->bt_lastcount = inthis;
    if (obsnum + 1 > db->next_append) db->next_append = obsnum + 1;
    return 0;
}

rctype __bt_meta_addtree(DB* dbp) {
    BTREE* t = dbp->internal;
    int64_t last = mpool_lastpage(t->bt_mp);
    // A segment page written behind the tree is not part of it.
    t->bt_last_is_meta = t->bt_nsegpages > 1 && t->bt_segpages[t->bt_nsegpages - 1].pgno == last;
    int64_t len = last - t->bt_root + 1;
    if (t->bt_last_is_meta && last > t->bt_root) --len;
    if (t->bt_root == 0 || len <= 0) return bt_fail(t, t->bt_root, IX_INCONSIST, "no tree to enter");
    uint8_t mn[4], mx[4];
    t->bt_treelen = static_cast<pgno_t>(len);
    rctype rc = __bt_minmax(t, mn, mx);
    if (rc < 0) return rc;
    int idx;
    uint32_t i;
    locate(t, t->bt_segcount, &idx, &i);
    if ((t->bt_flags & B_GLOBAL) && (idx != 0 || i != 0)) return bt_fail(t, 0, IX_INCONSIST, "a second global tree");
    if (idx >= t->bt_nsegpages) {
        if (idx != t->bt_nsegpages) return bt_fail(t, 0, IX_INCONSIST, "segment pages missing");
        if ((rc = newsegpage(t)) < 0) return rc;
    }
    _btdesc* d = bt_desc(t, idx);
    _btsegtree* e = bt_entry(t, idx, i);
    e->m_rootpageno = t->bt_root;
    e->m_treelen = static_cast<pgno_t>(len);
    memcpy(e->m_minval, mn, 4);
    memcpy(e->m_maxval, mx, 4);
    d->m_curindex = i + 1;
    d->m_lastcount = t->bt_lastcount;
    d->m_index_filemax = i;
    if (i == 0 || e->m_treelen > d->m_treemax) d->m_treemax = e->m_treelen;
    if (i == 0 || memcmp(mn, bt_entry(t, idx, d->m_index_small)->m_minval, 4) < 0) d->m_index_small = i;
    if (i == 0 || memcmp(mx, bt_entry(t, idx, d->m_index_large)->m_maxval, 4) > 0) d->m_index_large = i;
    if (t->bt_segcount == 0 || memcmp(mn, t->bt_filemin, 4) < 0) memcpy(t->bt_filemin, mn, 4);
    if (t->bt_segcount == 0 || memcmp(mx, t->bt_filemax, 4) > 0) memcpy(t->bt_filemax, mx, 4);
    if (idx == 0) {
        memcpy(t->bt_metamin, bt_entry(t, 0, d->m_index_small)->m_minval, 4);
        memcpy(t->bt_metamax, bt_entry(t, 0, d->m_index_large)->m_maxval, 4);
    }
    memcpy(t->bt_segmin, bt_entry(t, idx, d->m_index_small)->m_minval, 4);
    memcpy(t->bt_segmax, bt_entry(t, idx, d->m_index_large)->m_maxval, 4);
    t->bt_segpages[idx].dirty = 1;
    ++t->bt_segcount;
    t->bt_nroot = 0;
    return 0;
}

rctype bt_commit(BTREE* t) {
    if (mpool_sync(t->bt_mp) != 0) return bt_fail(t, 0, IX_WRITEFAIL, "tree pages cannot be written");
    for (int k = 1; k < t->bt_nsegpages; ++k) {
        if (!t->bt_segpages[k].dirty) continue;
        if (mpool_writeagain(t->bt_mp, t->bt_segpages[k].page, t->bt_segpages[k].pgno) != 0)
            return bt_fail(t, t->bt_segpages[k].pgno, IX_WRITEFAIL, "segment page cannot be written");
        t->bt_segpages[k].dirty = 0;
    }
    return bt_meta(t);
}

rctype bt_meta(BTREE* t) {
    _btmeta* m = reinterpret_cast<_btmeta*>(t->metapage);
    m->header = t->header;
    m->m_nrecs = t->bt_nrecs;
    m->m_unique_count = t->bt_unique_count;
    m->m_flags = t->bt_flags & SAVEMETA;
    m->m_segp_dircount = t->bt_dircount;
    if (mpool_writeagain(t->bt_mp, t->metapage, 0) != 0) return bt_fail(t, 0, IX_WRITEFAIL, "meta page cannot be written");
    t->bt_segpages[0].dirty = 0;
    t->bt_flags &= ~B_METADIRTY;
    return 0;
}

rctype bt_writesegp(BTREE* t, int idx) {
    if (idx == 0) return bt_meta(t);
    if (mpool_writeagain(t->bt_mp, t->bt_segpages[idx].page, t->bt_segpages[idx].pgno) != 0)
        return bt_fail(t, t->bt_segpages[idx].pgno, IX_WRITEFAIL, "segment page cannot be written");
    t->bt_segpages[idx].dirty = 0;
    return 0;
}

rctype __bt_stop_append(DB* db, int rollback) {
    BTREE* t = db->internal;
    if (db->current_op != BT_OPAPPEND) return 0;
    bt_release(t);
    if (rollback) return bt_discard(t);
    bool global = (t->bt_flags & B_GLOBAL) != 0;
    rctype rc = 0;
    if (!global && db->ds_numobs > 0 && db->ds_numobs >= db->next_append) rc = __bt_append_row(db, db->ds_numobs);
    if (rc < 0) return rc;
    if ((rc = settle(t)) < 0) return rc;
    if (!global && t->bt_nroot && t->bt_lastcount == 0) {
        // A root made for rows that never came.
        if (mpool_trim_back(t->bt_mp, 1) != 0) return bt_fail(t, t->bt_root, IX_WRITEFAIL, "empty root cannot be cut off");
        t->bt_root = 0;
        t->bt_nroot = 0;
    } else if ((rc = __bt_meta_addtree(db)) < 0) {
        return rc;
    }
    if ((rc = bt_commit(t)) < 0) return rc;
    t->bt_last_committed_obs = global ? 0 : db->next_append - 1;
    db->current_op = BT_OPIDLE;
    t->bt_appflag = 0;
    if (global && t->bt_segcount) __bt_settree(db, 0);
    return 0;
}

rctype __bt_set_update(DB* db, int64_t segno) {
    BTREE* t = db->internal;
    if (t->bt_openmode == BT_OREAD || (db->current_op != BT_OPIDLE && db->current_op != BT_OPOPENED))
        return IX_BADOPTS;
    rctype rc = __bt_meta_prep(db);  // counts the trees and sizes the pool
    if (rc < 0) return rc;
    pgno_t root, len;
    if (__bt_tree(db, segno, &root, &len) != 0) return bt_fail(t, 0, IX_SEGRANGE, "no tree of that number");
    db->current_op = BT_OPUPDATE;
    t->bt_curtree = segno;
    t->bt_nroot = 0;
    bool atend = static_cast<int64_t>(root) + len - 1 == mpool_lastpage(t->bt_mp);
    if (t->bt_flags & B_GLOBAL) {
        t->bt_root = root;
        t->bt_treelen = 0;
    } else {
        if ((rc = goout(t, root, len)) < 0) return rc;
        t->bt_inner_update = !atend;
    }
    return 0;
}

rctype __bt_update_commit(DB* db) {
    BTREE* t = db->internal;
    if (db->current_op != BT_OPUPDATE) return 0;
    bt_release(t);
    rctype rc = 0;
    pgno_t len = t->bt_mp->npages - t->bt_root;
    if (t->bt_gone_out && (len == t->bt_oldlen || !t->bt_inner_update)) {
        if ((rc = comeback(t, t->bt_root, t->bt_oldroot, len)) < 0) return rc;
        len = t->bt_treelen;
    }
    t->bt_gone_out = 0;
    int idx;
    uint32_t i;
    locate(t, t->bt_curtree, &idx, &i);
    _btsegtree* e = bt_entry(t, idx, i);
    uint8_t mn[4], mx[4];
    t->bt_treelen = len;
    if ((rc = __bt_minmax(t, mn, mx)) < 0) return rc;
    e->m_rootpageno = t->bt_root;
    e->m_treelen = len;
    memcpy(e->m_minval, mn, 4);
    memcpy(e->m_maxval, mx, 4);
    _btdesc* d = bt_desc(t, idx);
    if (len > d->m_treemax) d->m_treemax = len;
    t->bt_segpages[idx].dirty = 1;
    if ((rc = bt_commit(t)) < 0) return rc;
    db->current_op = BT_OPIDLE;
    return 0;
}

rctype __bt_set_commit(DB* db) {
    if (db->current_op == BT_OPAPPEND) return __bt_stop_append(db, 0);
    if (db->current_op == BT_OPUPDATE) return __bt_update_commit(db);
    return 0;
}

rctype __bt_hard_rollback(DB* db, int64_t rollback) {
    BTREE* t = db->internal;
    if (t->bt_openmode == BT_OREAD) return IX_BADOPTS;
    if (t->bt_flags & B_GLOBAL) return 0;  // a global tree holds no row counts
    if (db->current_op == BT_OPAPPEND && (__bt_stop_append(db, 1)) < 0) return IX_APPENDFAIL;
    rctype rc = __bt_meta_prep(db);
    if (rc < 0) return rc;
    db->current_op = BT_OPUPDATE;
    if (rollback < 0) rollback = 0;
    // Trees that begin past the row are forgotten whole.
    int idx = 0;
    uint32_t i = 0;
    bool changed = false;
    while (t->bt_segcount > 0 && (t->bt_segcount - 1) * t->bt_segsize + 1 > rollback) {
        locate(t, t->bt_segcount - 1, &idx, &i);
        bt_desc(t, idx)->m_curindex = i;
        t->bt_segpages[idx].dirty = 1;
        --t->bt_segcount;
        changed = true;
    }
    if (t->bt_segcount > 0) {
        locate(t, t->bt_segcount - 1, &idx, &i);
        _btdesc* d = bt_desc(t, idx);
        int64_t start = (t->bt_segcount - 1) * t->bt_segsize;  // rows before the last tree
        int64_t keep = rollback - start;
        int64_t have = changed ? t->bt_segsize : d->m_lastcount;
        if (changed) d->m_lastcount = t->bt_segsize;
        if (keep < have) {
            // Entries of rows past the row go, one by one in key order.
            if ((rc = __bt_settree(db, t->bt_segcount - 1)) < 0) return rc;
            t->bt_treelen = bt_entry(t, idx, i)->m_treelen;
            int64_t gone = 0;
            DBT k, v;
            for (rc = __bt_seq(db, &k, &v, R_FIRST); rc == 0; rc = __bt_seq(db, &k, &v, R_NEXT)) {
                if (bt_rowof(v.data) <= rollback) continue;
                if ((rc = __bt_delete(db, nullptr, nullptr, R_CURSOR)) < 0) return rc;
                ++gone;
            }
            if (rc < 0) return rc;
            if (gone != have - keep) hs_trace_error(TRACEFILE, __LINE__, -1);
            d->m_lastcount = keep;
            uint8_t mn[4], mx[4];
            if ((rc = __bt_minmax(t, mn, mx)) < 0) return rc;
            memcpy(bt_entry(t, idx, i)->m_minval, mn, 4);
            memcpy(bt_entry(t, idx, i)->m_maxval, mx, 4);
            changed = true;
        }
        // The highest tree end of what remains.
        uint32_t top = 0;
        for (uint32_t j = 0; j < d->m_curindex; ++j) {
            _btsegtree* e = bt_entry(t, idx, j);
            if (e->m_rootpageno + e->m_treelen > bt_entry(t, idx, top)->m_rootpageno + bt_entry(t, idx, top)->m_treelen)
                top = j;
        }
        d->m_index_filemax = top;
        t->bt_segpages[idx].dirty = 1;
    }
    if (changed && (rc = bt_commit(t)) < 0) return rc;
    db->current_op = BT_OPIDLE;
    t->bt_root = 0;
    t->bt_treelen = 0;
    return 0;
}

rctype __bt_prep_get(DB* dbp, DB** newdbp, int64_t obsnum, uint32_t* lenptr, int64_t* obsperseg) {
    BTREE* t = dbp->internal;
    if (obsnum < 1) return BT_ENOTREE;
    int64_t s = (t->bt_flags & B_GLOBAL) ? 0 : (obsnum - 1) / t->bt_segsize;
    pgno_t root, len;
    if (__bt_tree(dbp, s, &root, &len) != 0) return BT_ENOTREE;
    auto* nd = static_cast<DB*>(calloc(1, sizeof(DB)));
    auto* nt = static_cast<BTREE*>(calloc(1, sizeof(BTREE)));
    if (!nd || !nt) {
        free(nd);
        free(nt);
        return BT_ENOMEM;
    }
    *nd = *dbp;
    *nt = *t;
    nd->internal = nt;
    nt->bt_dbp = nd;
    nt->bt_fastpath_h = nullptr;
    nt->bt_openmode = BT_OREAD;
    nd->current_op = BT_OPOPENED;
    // Buffers and the pool are the copy's own; segment pages stay shared.
    nt->bt_segpages = nullptr;
    nt->bt_nsegpages = nt->bt_nsegpalloc = 0;
    nt->metapage = nullptr;
    nt->bt_mp = mpool_open(t->bt_fname, t->bt_fd, t->bt_psize, 20, MPOOL_READ, 0, t->bt_mmap);
    if (bt_allocbufs(nt) != 0 || !nt->bt_mp) {
        __bt_term_get(nd);
        return BT_ENOMEM;
    }
    nt->bt_mp->npages = t->bt_mp->npages;
    mpool_filter(nt->bt_mp, bt_pgin, nullptr, nt);
    nt->bt_root = root;
    nt->bt_treelen = len;
    nt->bt_curtree = s;
    nt->bt_flags &= ~B_NODUPS_CURSOR;
    if (lenptr) *lenptr = len;
    if (obsperseg) *obsperseg = t->bt_segsize;
    *newdbp = nd;
    return 0;
}

rctype __bt_term_get(DB* dbp) {
    if (!dbp) return 0;
    BTREE* t = dbp->internal;
    bt_release(t);
    mpool_close(t->bt_mp);
    bt_freebufs(t);
    free(t);
    free(dbp);
    return 0;
}

}  // namespace vrta

// Ending the use of a tree: commit or roll back what is in hand, write out
// the pages, free the handle; and the lock with the re-read it may ask for.
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"
#include "ix/btmpint.h"
#include "sda/darc.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/btclose";

void freeall(DB* dbp) {
    BTREE* t = dbp->internal;
    bt_release(t);
    mpool_close(t->bt_mp);
    bt_freesegp(t);
    free(t->bt_segpages);
    free(t->metapage);
    bt_freebufs(t);
    free(t);
    free(dbp);
}

// The meta page and segment pages as the file holds them.
rctype reload(BTREE* t) {
    const char* why = "";
    int rc = bt_readmeta(t, &why);
    if (rc != 0) return bt_fail(t, 0, bt_openrc(rc), why);
    rctype r = __bt_load_desc(t->bt_dbp);
    if (r < 0) return r;
    t->bt_root = 0;
    t->bt_treelen = 0;
    if ((t->bt_flags & B_GLOBAL) && t->bt_segcount) __bt_settree(t->bt_dbp, 0);
    return 0;
}

}  // namespace

void bt_release(BTREE* t) {
    if (t->bt_fastpath_h) {
        mpool_put(t->bt_mp, t->bt_fastpath_h, 0);
        t->bt_fastpath_h = nullptr;
    }
}

rctype bt_discard(BTREE* t) {
    DB* db = t->bt_dbp;
    bt_release(t);
    MPOOL* mp = t->bt_mp;
    for (BKT* b = mp->lru.cnext; b != &mp->lru;) {
        BKT* n = b->cnext;
        mpool_bkt_free(mp, b);
        b = n;
    }
    mp->npages = static_cast<pgno_t>(t->bt_fd->filesize / t->bt_psize);
    mp->max_written = static_cast<int64_t>(mp->npages) - 1;
    rctype rc = 0;
    if (t->bt_prepsize && mp->npages > t->bt_prepsize && mpool_trim_back(mp, mp->npages - t->bt_prepsize) != 0)
        rc = bt_fail(t, t->bt_prepsize, IX_WRITEFAIL, "pages of a dropped append cannot be cut off");
    db->current_op = BT_OPIDLE;
    t->bt_appflag = 0;
    t->bt_gone_out = 0;
    t->bt_nroot = 0;
    rctype r2 = reload(t);
    return rc < 0 ? rc : r2;
}

rctype __bt_abort(DB* dbp) {
    BTREE* t = dbp->internal;
    if (t->bt_openmode == BT_OREAD || (dbp->current_op != BT_OPAPPEND && dbp->current_op != BT_OPUPDATE)) return 0;
    return bt_discard(t);
}

rctype __bt_flush_internal(BTREE* t) {
    if (t->bt_openmode == BT_OREAD) return 0;
    if (mpool_sync(t->bt_mp) != 0) {
        hs_trace_error(TRACEFILE, __LINE__, -1);
        return bt_fail(t, 0, IX_WRITEFAIL, "tree pages cannot be written");
    }
    return 0;
}

rctype __bt_flush(DB* dbp) { return __bt_flush_internal(dbp->internal); }

rctype __bt_sync(DB* dbp, int) { return __bt_flush_internal(dbp->internal); }

rctype __bt_reread(DB* db) {
    BTREE* t = db->internal;
    bt_release(t);
    if (t->bt_fd->mt->refidx(t->bt_fd) < 0) return bt_fail(t, 0, IX_READFAIL, "the file's size cannot be had");
    char head[sizeof(IX_HEADER_D)];
    long nread = 0;
    if (t->bt_fd->mt->readidx(t->bt_fd, head, sizeof head, 0, &nread) < 0 || nread != static_cast<long>(sizeof head))
        return bt_fail(t, 0, IX_READFAIL, "the header cannot be read");
    mpool_force_resynch(t->bt_mp);
    return reload(t);
}

rctype __bt_lock(DB* dbp, int locktype) {
    BTREE* t = dbp->internal;
    if (locktype == DA_IDXLKWR) {
        rctype rc = __bt_flush_internal(t);
        if (rc < 0) return rc;
    }
    rctype rc = t->bt_fd->mt->lockidx(t->bt_fd, locktype);
    if (rc == DA_IDXCHANGED) return __bt_reread(dbp);
    return rc;
}

rctype __bt_close(DB* dbp, int64_t rollback, void* stats, int fullclose) {
    if (!dbp) return 0;
    BTREE* t = dbp->internal;
    rctype rc = 0;
    if (t->bt_openmode != BT_OREAD) {
        if (rollback >= 0) rc = __bt_hard_rollback(dbp, rollback);
        else rc = __bt_set_commit(dbp);
    }
    if (stats) {
        auto* st = static_cast<BT_STATS*>(stats);
        st->nrecs = t->bt_nrecs;
        st->unique_count = t->bt_unique_count;
        st->ntrees = t->bt_segcount;
        st->npages = t->bt_mp->npages;
        st->psize = t->bt_psize;
    }
    if (fullclose) freeall(dbp);
    return rc;
}

}  // namespace vrta

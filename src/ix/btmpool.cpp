// The page pool: a cache of the pages of one index file, by page number,
// with a least-recently-used list. Pages are read through the file's
// DA_IDX; writing, and the order it keeps, is in btmpoo2.cpp.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btmpint.h"

namespace vrta {

namespace {

void ring(BKT* head, bool hash) {
    if (hash) head->hnext = head->hprev = head;
    else head->cnext = head->cprev = head;
}

BKT* lookup(MPOOL* mp, pgno_t pgno) {
    BKT* head = &mp->hashtable[mpool_hash(pgno)];
    for (BKT* b = head->hnext; b != head; b = b->hnext)
        if (b->pgno == pgno) return b;
    return nullptr;
}

// Reads page pgno from the file; errno 666 on a short read.
int rawpage(MPOOL* mp, void* buffer, pgno_t pgno) {
    long nread = 0;
    rctype rc = mp->fd->mt->readidx(mp->fd, buffer, mp->pagesize, static_cast<da_off_t>(pgno) * mp->pagesize, &nread);
    if (rc < 0) {
        errno = EIO;
        return -1;
    }
    if (nread != static_cast<long>(mp->pagesize)) {
        errno = EPAGESHORT;
        return -1;
    }
    return 0;
}

// The same into the bucket's memory, checked by the pool's filter.
int readpage(MPOOL* mp, BKT* bp, pgno_t pgno) {
    if (rawpage(mp, bp->page, pgno) != 0) return -1;
    if (mp->pgin && mp->pgin(mp->pgcookie, pgno, bp->page) != 0) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

}  // namespace

MPOOL* mpool_open(const char* key, DA_IDX* fd, uint32_t pagesize, pgno_t maxcache, int writemode,
                  int sorted_append, const char* mmap) {
    auto* mp = static_cast<MPOOL*>(calloc(1, sizeof(MPOOL)));
    if (!mp) return nullptr;
    ring(&mp->freehead, false);
    ring(&mp->lru, false);
    for (auto& h : mp->hashtable) ring(&h, true);
    mp->maxcache = maxcache < 4 ? 4 : maxcache;
    mp->pagesize = pagesize;
    mp->fd = fd;
    mp->npages = static_cast<pgno_t>(fd->filesize / pagesize);
    mp->max_written = static_cast<int64_t>(mp->npages) - 1;
    mp->writemode = writemode;
    mp->sorted_append = sorted_append;
    mp->mmap = mmap;
    mp->name = key ? key : (fd->name ? fd->name : "index file");
    return mp;
}

void mpool_filter(MPOOL* mp, mpool_filter_t pgin, mpool_filter_t pgout, void* pgcookie) {
    mp->pgin = pgin;
    mp->pgout = pgout;
    mp->pgcookie = pgcookie;
}

void mpool_lru_touch(MPOOL* mp, BKT* bp) {
    bp->cprev->cnext = bp->cnext;
    bp->cnext->cprev = bp->cprev;
    bp->cprev = mp->lru.cprev;
    bp->cnext = &mp->lru;
    mp->lru.cprev->cnext = bp;
    mp->lru.cprev = bp;
}

void mpool_hash_insert(MPOOL* mp, BKT* bp) {
    BKT* head = &mp->hashtable[mpool_hash(bp->pgno)];
    bp->hnext = head->hnext;
    bp->hprev = head;
    head->hnext->hprev = bp;
    head->hnext = bp;
}

void mpool_hash_remove(BKT* bp) {
    bp->hprev->hnext = bp->hnext;
    bp->hnext->hprev = bp->hprev;
    bp->hnext = bp->hprev = bp;
}

// Takes a bucket off every list and puts it on the free list.
void mpool_bkt_free(MPOOL* mp, BKT* bp) {
    mpool_hash_remove(bp);
    bp->cprev->cnext = bp->cnext;
    bp->cnext->cprev = bp->cprev;
    bp->flags = 0;
    bp->pins = 0;
    bp->cnext = mp->freehead.cnext;
    bp->cprev = &mp->freehead;
    mp->freehead.cnext->cprev = bp;
    mp->freehead.cnext = bp;
}

void* mpool_new(MPOOL* mp, pgno_t* pgno) {
    if (mp->mmap || mp->writemode == MPOOL_READ) {
        errno = EINVAL;
        return nullptr;
    }
    if (mp->npages == 0xffffffffu) {
        errno = EFBIG;
        return nullptr;
    }
    BKT* bp = mpool_bkt(mp);
    if (!bp) return nullptr;
    bp->pgno = mp->npages;
    memset(bp->page, 0, mp->pagesize);
    bp->flags = MPOOL_DIRTY | MPOOL_PINNED;
    bp->pins = 1;
    mpool_hash_insert(mp, bp);
    ++mp->npages;
    // Outside a create the file grows at once with the pool, so that a
    // reader sizing the file and the pool's page count agree.
    if (mp->writemode != MPOOL_CREATE && static_cast<int64_t>(bp->pgno) > mp->max_written) {
        if (mpool_write(mp, bp) != 0) {
            --mp->npages;
            mpool_bkt_free(mp, bp);
            return nullptr;
        }
        bp->flags |= MPOOL_DIRTY;
    }
    *pgno = bp->pgno;
    return bp->page;
}

void* mpool_get(MPOOL* mp, pgno_t pgno, int flags) {
    if (pgno >= mp->npages && !(flags & MPOOL_PAGE_NEW)) {
        errno = EINVAL;
        return nullptr;
    }
    if (mp->mmap) {
        void* p = const_cast<char*>(mp->mmap) + static_cast<size_t>(pgno) * mp->pagesize;
        if (mp->pgin && mp->pgin(mp->pgcookie, pgno, p) != 0) {
            errno = EINVAL;
            return nullptr;
        }
        return p;
    }
    BKT* bp = lookup(mp, pgno);
    if (bp) {
        if (bp->flags & MPOOL_REREAD) {
            if (readpage(mp, bp, pgno) != 0) return nullptr;
            bp->flags &= ~(MPOOL_REREAD | MPOOL_DIRTY);
        }
        mpool_lru_touch(mp, bp);
        ++bp->pins;
        bp->flags |= MPOOL_PINNED;
        return bp->page;
    }
    bp = mpool_bkt(mp);
    if (!bp) return nullptr;
    bp->pgno = pgno;
    if (flags & MPOOL_PAGE_NEW) {
        memset(bp->page, 0, mp->pagesize);
        bp->flags = 0;
    } else if (readpage(mp, bp, pgno) != 0) {
        int e = errno;
        mpool_hash_insert(mp, bp);  // so that freeing takes it off the lists it is on
        mpool_bkt_free(mp, bp);
        errno = e;
        return nullptr;
    } else {
        bp->flags = 0;
    }
    bp->pins = 1;
    bp->flags |= MPOOL_PINNED;
    mpool_hash_insert(mp, bp);
    return bp->page;
}

int mpool_put(MPOOL* mp, void* page, int flags) {
    if (mp->mmap || !page) return 0;
    BKT* bp = mpool_bktof(page);
    if (bp->pins > 0) --bp->pins;
    if (bp->pins == 0) bp->flags &= ~MPOOL_PINNED;
    if (flags & MPOOL_DIRTY) bp->flags |= MPOOL_DIRTY;
    return 0;
}

void mpool_pin_page(MPOOL* mp, void* page) {
    if (mp->mmap || !page) return;
    BKT* bp = mpool_bktof(page);
    ++bp->pins;
    bp->flags |= MPOOL_PINNED;
}

void mpool_dirty_page(MPOOL* mp, void* page) {
    if (mp->mmap || !page) return;
    mpool_bktof(page)->flags |= MPOOL_DIRTY;
}

void mpool_releasepage(MPOOL* mp, void* page) {
    if (mp->mmap || !page) return;
    BKT* bp = mpool_bktof(page);
    bp->flags &= ~(MPOOL_PINNED | MPOOL_DIRTY);
    bp->pins = 0;
}

int mpool_read(MPOOL* mp, void* buffer, pgno_t pgno) {
    if (pgno >= mp->npages) {
        errno = EINVAL;
        return -1;
    }
    if (mp->mmap) {
        memcpy(buffer, mp->mmap + static_cast<size_t>(pgno) * mp->pagesize, mp->pagesize);
        return 0;
    }
    return rawpage(mp, buffer, pgno);
}

void mpool_setsize(MPOOL* mp, pgno_t npages) { mp->npages = npages; }

pgno_t mpool_filesize(MPOOL* mp) { return mp->npages; }

int64_t mpool_lastpage(MPOOL* mp) { return static_cast<int64_t>(mp->npages) - 1; }

void mpool_force_resynch(MPOOL* mp) {
    for (BKT* b = mp->lru.cnext; b != &mp->lru; b = b->cnext) b->flags |= MPOOL_REREAD;
    mp->npages = static_cast<pgno_t>(mp->fd->filesize / mp->pagesize);
    mp->max_written = static_cast<int64_t>(mp->npages) - 1;
}

void mpool_unpin(MPOOL* mp) {
    for (BKT* b = mp->lru.cnext; b != &mp->lru; b = b->cnext) {
        b->pins = 0;
        b->flags &= ~MPOOL_PINNED;
    }
}

void mpool_growcache(MPOOL* mp, pgno_t npages) {
    if (npages > mp->maxcache) mp->maxcache = npages;
}

int mpool_close(MPOOL* mp) {
    if (!mp) return 0;
    auto drop = [](BKT* head) {
        for (BKT* b = head->cnext; b != head;) {
            BKT* n = b->cnext;
            free(b);
            b = n;
        }
    };
    drop(&mp->lru);
    drop(&mp->freehead);
    free(mp->zeropage);
    free(mp);
    return 0;
}

}  // namespace vrta

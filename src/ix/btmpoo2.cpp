// The page pool's writes. A page is written only when every page before it
// is on disk already (max_written + 1 at most), so the file grows without a
// hole whatever the order in which pages leave the cache: a reader that
// sizes the file never meets a page that was never written.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btmpint.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/btmpoo2";

// How far from the least recently used end the cheap choices look before a
// bucket is written out or made: the cache may be thousands of pages.
constexpr int CHEAPSCAN = 64;

bool isleaf(const void* page) { return (pg_flags(page) & P_TYPE) == P_BLEAF; }

BKT* take(MPOOL* mp, BKT* bp) {
    mpool_hash_remove(bp);
    bp->flags = 0;
    bp->pins = 0;
    mpool_lru_touch(mp, bp);
    return bp;
}

int writeraw(MPOOL* mp, const void* page, pgno_t pgno) {
    if (static_cast<int64_t>(pgno) > mp->max_written + 1) {
        errno = EINVAL;
        hs_trace_error(TRACEFILE, __LINE__, -1);
        return -1;
    }
    rctype rc = mp->fd->mt->writeidx(mp->fd, page, mp->pagesize, static_cast<da_off_t>(pgno) * mp->pagesize);
    if (rc < 0) {
        errno = EIO;
        return -1;
    }
    if (static_cast<int64_t>(pgno) > mp->max_written) mp->max_written = pgno;
    return 0;
}

// Writes, in page order, every dirty page past what the file holds; a page
// dropped before it was ever written goes out as zeros, so no hole is left.
int flushtail(MPOOL* mp) {
    std::vector<BKT*> tail;
    for (BKT* b = mp->lru.cnext; b != &mp->lru; b = b->cnext)
        if (static_cast<int64_t>(b->pgno) > mp->max_written && b->pgno < mp->npages) tail.push_back(b);
    std::sort(tail.begin(), tail.end(), [](BKT* a, BKT* b) { return a->pgno < b->pgno; });
    size_t i = 0;
    while (mp->max_written + 1 < static_cast<int64_t>(mp->npages)) {
        pgno_t next = static_cast<pgno_t>(mp->max_written + 1);
        if (i < tail.size() && tail[i]->pgno == next) {
            if (mpool_write(mp, tail[i]) != 0) return -1;
            ++i;
            continue;
        }
        if (!mp->zeropage && !(mp->zeropage = static_cast<char*>(calloc(1, mp->pagesize)))) {
            errno = ENOMEM;
            return -1;
        }
        if (writeraw(mp, mp->zeropage, next) != 0) return -1;
    }
    return 0;
}

}  // namespace

int mpool_write(MPOOL* mp, BKT* bp) {
    if (mp->mmap) {
        hs_trace_error(TRACEFILE, __LINE__, -1);
        errno = EINVAL;
        return -1;
    }
    if (mp->pgout && mp->pgout(mp->pgcookie, bp->pgno, bp->page) != 0) {
        errno = EINVAL;
        return -1;
    }
    if (writeraw(mp, bp->page, bp->pgno) != 0) return -1;
    bp->flags &= ~MPOOL_DIRTY;
    return 0;
}

BKT* mpool_bkt(MPOOL* mp) {
    if (mp->freehead.cnext != &mp->freehead) {
        BKT* bp = mp->freehead.cnext;
        bp->cprev->cnext = bp->cnext;
        bp->cnext->cprev = bp->cprev;
        bp->cnext = bp->cprev = bp;
        // Not on the LRU list yet: link it at the end, as take() expects.
        bp->cprev = mp->lru.cprev;
        bp->cnext = &mp->lru;
        mp->lru.cprev->cnext = bp;
        mp->lru.cprev = bp;
        bp->hnext = bp->hprev = bp;
        bp->flags = 0;
        bp->pins = 0;
        return bp;
    }
    int64_t limit = mp->max_written + 1;
    // A clean page that nobody holds costs nothing to give up.
    if (mp->writemode != MPOOL_READ) {
        int n = 0;
        for (BKT* b = mp->lru.cnext; b != &mp->lru && n < CHEAPSCAN; b = b->cnext, ++n)
            if (!(b->flags & (MPOOL_DIRTY | MPOOL_PINNED))) return take(mp, b);
    }
    // In a sorted build the oldest leaves are the next pages of the file.
    if (mp->sorted_append) {
        int n = 0;
        for (BKT* b = mp->lru.cnext; b != &mp->lru && n < CHEAPSCAN; b = b->cnext, ++n)
            if ((b->flags & MPOOL_DIRTY) && !(b->flags & MPOOL_PINNED) && static_cast<int64_t>(b->pgno) <= limit &&
                isleaf(b->page)) {
                if (mpool_write(mp, b) != 0) return nullptr;
                return take(mp, b);
            }
    }
    if (mp->curcache < mp->maxcache) {
        auto* bp = static_cast<BKT*>(malloc(sizeof(BKT) + mp->pagesize));
        if (!bp) {
            errno = ENOMEM;
            return nullptr;
        }
        memset(bp, 0, sizeof(BKT));
        bp->page = reinterpret_cast<char*>(bp) + sizeof(BKT);
        bp->hnext = bp->hprev = bp;
        bp->cprev = mp->lru.cprev;
        bp->cnext = &mp->lru;
        mp->lru.cprev->cnext = bp;
        mp->lru.cprev = bp;
        ++mp->curcache;
        return bp;
    }
    // Anything at or below the first unwritten page may go; writing the
    // first unwritten page itself, even while it is held, lets the next go.
    for (;;) {
        bool moved = false;
        for (BKT* b = mp->lru.cnext; b != &mp->lru; b = b->cnext) {
            int64_t limitnow = mp->max_written + 1;
            if (!(b->flags & MPOOL_PINNED) && static_cast<int64_t>(b->pgno) <= limitnow) {
                if ((b->flags & MPOOL_DIRTY) && mpool_write(mp, b) != 0) return nullptr;
                return take(mp, b);
            }
            if ((b->flags & MPOOL_PINNED) && (b->flags & MPOOL_DIRTY) && static_cast<int64_t>(b->pgno) == limitnow) {
                if (mpool_write(mp, b) != 0) return nullptr;
                moved = true;
                break;
            }
        }
        if (!moved) break;
    }
    errno = EAGAIN;
    hs_trace_error(TRACEFILE, __LINE__, -1);
    return nullptr;
}

int mpool_sync(MPOOL* mp) {
    if (mp->mmap) return 0;
    if (flushtail(mp) != 0) return -1;
    std::vector<BKT*> dirty;
    for (BKT* b = mp->lru.cnext; b != &mp->lru; b = b->cnext)
        if ((b->flags & MPOOL_DIRTY) && b->pgno < mp->npages) dirty.push_back(b);
    std::sort(dirty.begin(), dirty.end(), [](BKT* a, BKT* b) { return a->pgno < b->pgno; });
    for (BKT* b : dirty)
        if (mpool_write(mp, b) != 0) return -1;
    return 0;
}

int64_t mpool_writenext(MPOOL* mp, const void* buffer) {
    if (mp->mmap || mp->npages == 0xffffffffu) {
        errno = EINVAL;
        return -1;
    }
    if (flushtail(mp) != 0) return -1;
    pgno_t pgno = mp->npages;
    if (writeraw(mp, buffer, pgno) != 0) return -1;
    ++mp->npages;
    return pgno;
}

int mpool_writeagain(MPOOL* mp, const void* buffer, pgno_t pgno) {
    if (mp->mmap || pgno >= mp->npages) {
        errno = EINVAL;
        return -1;
    }
    if (static_cast<int64_t>(pgno) > mp->max_written && flushtail(mp) != 0) return -1;
    return writeraw(mp, buffer, pgno);
}

int mpool_trim_back(MPOOL* mp, pgno_t npages) {
    if (npages > mp->npages) {
        errno = EINVAL;
        return -1;
    }
    mp->npages -= npages;
    for (BKT* b = mp->lru.cnext; b != &mp->lru;) {
        BKT* n = b->cnext;
        if (b->pgno >= mp->npages) mpool_bkt_free(mp, b);
        b = n;
    }
    if (mp->max_written >= static_cast<int64_t>(mp->npages)) mp->max_written = static_cast<int64_t>(mp->npages) - 1;
    rctype rc = mp->fd->mt->truncidx(mp->fd, static_cast<da_off_t>(mp->npages) * mp->pagesize);
    if (rc < 0) {
        errno = EIO;
        return -1;
    }
    return 0;
}

}  // namespace vrta

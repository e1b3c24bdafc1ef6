// Inside the page pool: what its two files share.
#pragma once
#include "ix/bt.h"

namespace vrta {

inline int mpool_hash(pgno_t pgno) { return static_cast<int>((pgno - 1) & (MPOOL_HASHSIZE - 1)); }
inline BKT* mpool_bktof(void* page) { return reinterpret_cast<BKT*>(static_cast<char*>(page) - sizeof(BKT)); }

// A bucket for a page not in the cache, chosen so that the file is written
// in order; null when none can be had (errno set).
BKT* mpool_bkt(MPOOL* mp);
// Writes the bucket's page; refuses (EINVAL) a page past the first unwritten one.
int mpool_write(MPOOL* mp, BKT* bp);
void mpool_lru_touch(MPOOL* mp, BKT* bp);
void mpool_hash_insert(MPOOL* mp, BKT* bp);
void mpool_hash_remove(BKT* bp);
void mpool_bkt_free(MPOOL* mp, BKT* bp);

}  // namespace vrta

// Inside the tree: what its files share and no caller needs.
#pragma once
#include "ix/bt.h"

namespace vrta {

// The handle's own buffers for keys and data handed back and entries built.
rctype bt_allocbufs(BTREE* t);
void bt_freebufs(BTREE* t);
rctype bt_addsegp(BTREE* t, pgno_t pgno, char* page);
void bt_freesegp(BTREE* t);
// Walks the free page list, which a sound file keeps inside itself and
// without a loop.
rctype bt_checkfree(BTREE* t);
// The last page a tree in hand may use.
inline pgno_t bt_treeend(BTREE* t) {
    return t->bt_treelen ? t->bt_root + t->bt_treelen : t->bt_mp->npages;
}
// A new, empty leaf at the file's end: the root of the next tree.
rctype bt_nroot(BTREE* t);
// Commits what an append or update changed: pages in order, then segment
// pages, then the meta page.
rctype bt_commit(BTREE* t);
// Drops the pin the fast path holds, and the cursor.
void bt_release(BTREE* t);
// The position of the first entry not below key (and data); *hp null past the end.
rctype bt_findfirst(BTREE* t, const void* key, const void* data, void** hp, indx_t* idxp, int* exactp);
inline bool bt_keyeq(BTREE* t, const void* a, const void* b) {
    return (t->bt_cmp ? t->bt_cmp(t->skbp, a, b, t->bt_keylen) : __builtin_memcmp(a, b, t->bt_keylen)) == 0;
}
// The first 4 bytes of the tree's first (dir -1) or last (dir 1) key.
rctype bt_edgekey(BTREE* t, int dir, char* out, int* found);
// Drops everything an append or update changed since it began.
rctype bt_discard(BTREE* t);
// Reads page 0 again into the meta page buffer, and checks it.
int bt_readmeta(BTREE* t, const char** why);
// Key of a leaf entry as it compares: key, then data unless B_NOEQUALS.
void bt_leafkey(BTREE* t, const char* entry, char* out);

}  // namespace vrta

// The threaded AVL tree in which index builds and group-by keep values in
// memory. Its node head sits at the start of the caller's record; a link with
// bit 0 set is no child but a thread to the predecessor (left) or successor
// (right) in key order, so the tree walks in order without a stack and turns
// into a sorted list without allocating anything.
#pragma once
#include <cstddef>

#include "ssubs/skb.h"

namespace vrta {

struct AVLTREE;
using zavlS = AVLTREE;

struct AVLTREE {
    AVLTREE* llink;  // rlink follows at once: the search indexes the pair
    AVLTREE* rlink;
    short bal;  // height of the right subtree less that of the left
};
static_assert(offsetof(AVLTREE, rlink) == sizeof(AVLTREE*));

// Adds now, whose key lies off bytes into the record and is n bytes long,
// compared by the key block's cmp. Returns now when it was added, or the
// node already in the tree with an equal key (the tree is then unchanged).
AVLTREE* zavl_add_skb(AVLTREE** head, AVLTREE* now, int off, SKB_KEY* skbkey, int n);
AVLTREE* zavl_find_skb(AVLTREE* head, const void* key, int off, SKB_KEY* skbkey, int n);
// Takes the node with an equal key out of the tree and returns it, or null.
AVLTREE* zavl_rem_skb(AVLTREE** head, const void* key, int off, SKB_KEY* skbkey, int n);

// The same with keys of n unsigned 32-bit words, compared word by word.
AVLTREE* zavl_add_uinta(AVLTREE** head, AVLTREE* now, int off, int n);
AVLTREE* zavl_find_uinta(AVLTREE* head, const void* key, int off, int n);
AVLTREE* zavl_rem_uinta(AVLTREE** head, const void* key, int off, int n);

// The tree relinked as a doubly linked list in key order, every link a
// thread; returns the first node. The walks below work on both forms.
AVLTREE* zavl2list(AVLTREE* head);
AVLTREE* zavl_first_node(AVLTREE* head);
AVLTREE* zavl_last_node(AVLTREE* head);
AVLTREE* zavl_next_node(AVLTREE* node);
AVLTREE* zavl_prev_node(AVLTREE* node);

}  // namespace vrta

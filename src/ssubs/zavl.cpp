// Threaded AVL tree: add, find, remove, and in-order walks.
#include <cstdint>
#include <cstring>

#include "ssubs/zavl.h"

namespace vrta {

namespace {

// Deep enough for any tree that fits in memory: an AVL tree of height 90
// holds more nodes than an address space.
constexpr int MAXDEPTH = 96;

inline bool isthread(const AVLTREE* l) { return reinterpret_cast<uintptr_t>(l) & 1; }
inline AVLTREE* thread(AVLTREE* n) { return reinterpret_cast<AVLTREE*>(reinterpret_cast<uintptr_t>(n) | 1); }
inline AVLTREE* unmark(AVLTREE* l) { return reinterpret_cast<AVLTREE*>(reinterpret_cast<uintptr_t>(l) & ~uintptr_t{1}); }

inline AVLTREE*& link(AVLTREE* n, int dir) { return dir ? n->rlink : n->llink; }
// The real child on one side, or null where the link is a thread.
inline AVLTREE* child(AVLTREE* n, int dir) {
    AVLTREE* l = link(n, dir);
    return isthread(l) ? nullptr : l;
}

// Rotates the subtree at y towards !dir: its child on side dir takes its
// place. A link left empty becomes the thread to the node that moved.
AVLTREE* rotate(AVLTREE* y, int dir) {
    AVLTREE* x = link(y, dir);
    AVLTREE* inner = link(x, !dir);
    link(y, dir) = isthread(inner) ? thread(x) : inner;
    link(x, !dir) = y;
    return x;
}

// Single or double rotation at y, heavy on side dir (bal of y is +-2).
// Returns the new root of the subtree and whether its height dropped by one
// compared with before the operation that unbalanced it (for removal).
AVLTREE* rebalance(AVLTREE* y, int dir, bool* shorter) {
    short s = dir ? 1 : -1;
    AVLTREE* x = link(y, dir);
    if (x->bal == -s) {
        AVLTREE* w = link(x, !dir);
        link(y, dir) = rotate(x, !dir);
        rotate(y, dir);
        if (w->bal == s) {
            y->bal = -s;
            x->bal = 0;
        } else if (w->bal == -s) {
            y->bal = 0;
            x->bal = s;
        } else {
            y->bal = x->bal = 0;
        }
        w->bal = 0;
        *shorter = true;
        return w;
    }
    rotate(y, dir);
    if (x->bal == 0) {
        x->bal = -s;
        y->bal = s;
        *shorter = false;
    } else {
        x->bal = y->bal = 0;
        *shorter = true;
    }
    return x;
}

template <typename Cmp>
AVLTREE* addnode(AVLTREE** head, AVLTREE* now, Cmp cmp) {
    AVLTREE* pa[MAXDEPTH];
    int da[MAXDEPTH];
    int k = 0;
    if (!*head) {
        now->bal = 0;
        now->llink = thread(nullptr);
        now->rlink = thread(nullptr);
        *head = now;
        return now;
    }
    AVLTREE* p = *head;
    for (;;) {
        // Both children are fetched while this node is compared: a large
        // tree misses the cache on every level, and this hides half of it.
        __builtin_prefetch(p->llink);
        __builtin_prefetch(p->rlink);
        int c = cmp(p);
        if (c == 0) return p;
        int dir = c < 0;  // the new key is greater: go right
        pa[k] = p;
        da[k++] = dir;
        // The side is picked by address, not by a branch the keys make random.
        AVLTREE* n = (&p->llink)[dir];
        if (isthread(n)) break;
        p = n;
    }
    int dir = da[k - 1];
    now->bal = 0;
    link(now, dir) = link(p, dir);
    link(now, !dir) = thread(p);
    link(p, dir) = now;
    // Back up the path: the first node whose balance was even absorbs the growth.
    for (int i = k - 1; i >= 0; --i) {
        AVLTREE* y = pa[i];
        y->bal += da[i] ? 1 : -1;
        if (y->bal == 0) break;
        if (y->bal == 1 || y->bal == -1) continue;
        bool shorter;
        AVLTREE* r = rebalance(y, da[i], &shorter);
        if (i == 0) *head = r;
        else link(pa[i - 1], da[i - 1]) = r;
        break;
    }
    return now;
}

template <typename Cmp>
AVLTREE* findnode(AVLTREE* head, Cmp cmp) {
    AVLTREE* p = head;
    while (p) {
        int c = cmp(p);
        if (c == 0) return p;
        p = child(p, c < 0);
    }
    return nullptr;
}

AVLTREE* extreme(AVLTREE* n, int dir) {
    AVLTREE* c;
    while ((c = child(n, dir)) != nullptr) n = c;
    return n;
}

template <typename Cmp>
AVLTREE* remnode(AVLTREE** head, Cmp cmp) {
    AVLTREE* pa[MAXDEPTH];
    int da[MAXDEPTH];
    int k = 0;
    AVLTREE* p = *head;
    for (;;) {
        if (!p) return nullptr;
        int c = cmp(p);
        if (c == 0) break;
        int dir = c < 0;
        pa[k] = p;
        da[k++] = dir;
        p = child(p, dir);
    }
    auto setslot = [&](int level, AVLTREE* n) {
        if (level == 0) *head = n;
        else link(pa[level - 1], da[level - 1]) = n;
    };
    int plevel = k;  // where p hangs: slot of pa[k-1] side da[k-1], or the head
    AVLTREE* l = child(p, 0);
    AVLTREE* r = child(p, 1);
    if (!r) {
        if (l) {
            // The predecessor threaded to p now threads to p's successor.
            extreme(l, 1)->rlink = p->rlink;
            setslot(plevel, l);
        } else if (plevel == 0) {
            *head = nullptr;
        } else {
            // A leaf: its parent's link on that side takes over p's thread.
            AVLTREE* q = pa[plevel - 1];
            int d = da[plevel - 1];
            link(q, d) = link(p, d);
        }
    } else if (!child(r, 0)) {
        r->llink = p->llink;
        if (l) extreme(l, 1)->rlink = thread(r);
        r->bal = p->bal;
        setslot(plevel, r);
        pa[k] = r;
        da[k++] = 1;
    } else {
        // The successor s, leftmost under r, takes p's place.
        int slevel = k;
        pa[k] = nullptr;  // filled with s below
        da[k++] = 1;
        AVLTREE* sp = r;
        for (;;) {
            pa[k] = sp;
            da[k++] = 0;
            AVLTREE* n = child(sp, 0);
            if (!child(n, 0)) break;
            sp = n;
        }
        AVLTREE* s = child(sp, 0);
        AVLTREE* sr = child(s, 1);
        sp->llink = sr ? sr : thread(s);
        s->llink = p->llink;
        s->rlink = p->rlink;
        s->bal = p->bal;
        if (l) extreme(l, 1)->rlink = thread(s);
        setslot(plevel, s);
        pa[slevel] = s;
    }
    // Back up the path: a side of pa[i] lost one level of height.
    for (int i = k - 1; i >= 0; --i) {
        AVLTREE* y = pa[i];
        int dir = da[i];
        y->bal += dir ? -1 : 1;
        if (y->bal == 1 || y->bal == -1) break;  // height unchanged
        if (y->bal == 0) continue;               // shorter: go on up
        bool shorter;
        AVLTREE* n = rebalance(y, !dir, &shorter);
        setslot(i, n);
        if (!shorter) break;
    }
    p->llink = p->rlink = nullptr;
    p->bal = 0;
    return p;
}

inline const void* keyof(const AVLTREE* n, int off) { return reinterpret_cast<const char*>(n) + off; }

// Two words at a time: a pair loaded as one little-endian 64-bit value and
// rotated by 32 bits puts the first word high, which orders like the words.
int cmpuinta(const void* a, const void* b, int n) {
    auto* x = static_cast<const char*>(a);
    auto* y = static_cast<const char*>(b);
    int i = 0;
    for (; i + 2 <= n; i += 2) {
        uint64_t u, v;
        memcpy(&u, x + 4 * i, 8);
        memcpy(&v, y + 4 * i, 8);
        if (u != v) {
            u = u << 32 | u >> 32;
            v = v << 32 | v >> 32;
            return u < v ? -1 : 1;
        }
    }
    if (i < n) {
        uint32_t u, v;
        memcpy(&u, x + 4 * i, 4);
        memcpy(&v, y + 4 * i, 4);
        if (u != v) return u < v ? -1 : 1;
    }
    return 0;
}

}  // namespace

// The comparators give the order of the searched key against node p:
// negative when the key is greater (go right).
AVLTREE* zavl_add_skb(AVLTREE** head, AVLTREE* now, int off, SKB_KEY* skbkey, int n) {
    const void* key = keyof(now, off);
    auto cmp = skbkey->mt.cmp;
    return addnode(head, now, [&](AVLTREE* p) { return cmp(keyof(p, off), key, n); });
}

AVLTREE* zavl_find_skb(AVLTREE* head, const void* key, int off, SKB_KEY* skbkey, int n) {
    auto cmp = skbkey->mt.cmp;
    return findnode(head, [&](AVLTREE* p) { return cmp(keyof(p, off), key, n); });
}

AVLTREE* zavl_rem_skb(AVLTREE** head, const void* key, int off, SKB_KEY* skbkey, int n) {
    auto cmp = skbkey->mt.cmp;
    return remnode(head, [&](AVLTREE* p) { return cmp(keyof(p, off), key, n); });
}

AVLTREE* zavl_add_uinta(AVLTREE** head, AVLTREE* now, int off, int n) {
    const void* key = keyof(now, off);
    return addnode(head, now, [&](AVLTREE* p) { return cmpuinta(keyof(p, off), key, n); });
}

AVLTREE* zavl_find_uinta(AVLTREE* head, const void* key, int off, int n) {
    return findnode(head, [&](AVLTREE* p) { return cmpuinta(keyof(p, off), key, n); });
}

AVLTREE* zavl_rem_uinta(AVLTREE** head, const void* key, int off, int n) {
    return remnode(head, [&](AVLTREE* p) { return cmpuinta(keyof(p, off), key, n); });
}

AVLTREE* zavl_first_node(AVLTREE* head) { return head ? extreme(head, 0) : nullptr; }
AVLTREE* zavl_last_node(AVLTREE* head) { return head ? extreme(head, 1) : nullptr; }

AVLTREE* zavl_next_node(AVLTREE* node) {
    if (!node) return nullptr;
    AVLTREE* r = node->rlink;
    if (isthread(r)) return unmark(r);
    return extreme(r, 0);
}

AVLTREE* zavl_prev_node(AVLTREE* node) {
    if (!node) return nullptr;
    AVLTREE* l = node->llink;
    if (isthread(l)) return unmark(l);
    return extreme(l, 1);
}

AVLTREE* zavl2list(AVLTREE* head) {
    AVLTREE* first = zavl_first_node(head);
    AVLTREE* prev = nullptr;
    for (AVLTREE* n = first; n;) {
        // The successor must be found before this node's links are rewritten;
        // its left link still leads down while this node is not yet relinked.
        AVLTREE* next = zavl_next_node(n);
        n->llink = thread(prev);
        n->rlink = thread(next);
        prev = n;
        n = next;
    }
    return first;
}

}  // namespace vrta

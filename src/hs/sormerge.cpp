// The merge of spilled runs: a tournament tree over the runs, read into one
// buffer, or into two that a reader thread fills while the consumer drains.
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/sr.h"
#include "option/op.h"

namespace vrta {

struct TREENODE {
    intptr_t fd;    // a leaf's SR_BIN; 1 an inner node, 2 an unused leaf
    char* buf;      // a leaf's current key, null when exhausted
    char* binrec;   // a leaf's current record
    long who;       // an inner node's loser: a leaf
};

struct TREEBUF {
    TREEBUF* list;
    char* buf;
    long n_recs;    // room
    long n_read;    // filled
};

struct TREEHEAD {
    TREENODE* tree;  // 1-based, 2P nodes
    SR_BIN* bp;
    int keylen;
    int reclen;
    long mbrecs;
    int merge;       // 1 with a thread, 2 without
    long P;          // leaves
    long winner;     // the leaf whose record is next
    char* keys;      // one key area per run
    bool started;
    thread_t tid;
    int fullWaiters;
    mutex_t fullLock;
    cond_t fullReady;
    TREEBUF* fullList;
    int freeWaiters;
    mutex_t freeLock;
    cond_t freeReady;
    TREEBUF* freeList;
    volatile int* interrupt;
    rctype rc;       // set by the reader: an error, or MERGE_END
    bool stop;       // the consumer is closing
    TREEBUF* curbuf;
    TREEBUF bufs[2];
    sr_binrdfp_t binrdfp;
    SKB_KEY* skb;
    SKB_KEY memcmp;  // for a sorter without a key block of its own
};

namespace {

constexpr rctype MERGE_END = 1;  // the reader ran out of records

TREEBUF* pop(TREEBUF** l) {
    TREEBUF* b = *l;
    if (b) *l = b->list;
    return b;
}
void pushtail(TREEBUF** l, TREEBUF* b) {
    b->list = nullptr;
    while (*l) l = &(*l)->list;
    *l = b;
}

rctype NextBinRec(TREEHEAD* th, long leaf) {
    TREENODE& n = th->tree[leaf];
    auto* bin = reinterpret_cast<SR_BIN*>(n.fd);
    char* rec = nullptr;
    long l = th->binrdfp(bin, &rec);
    if (l < 0) {
        n.buf = nullptr;
        return SR_RC_MERGEREAD;
    }
    if (l == 0) {
        n.buf = nullptr;
        n.binrec = nullptr;
        return 0;
    }
    char* key = th->keys + (leaf - th->P) * static_cast<long>(th->keylen);
    memcpy(key, rec, th->keylen);
    n.buf = key;
    n.binrec = rec;
    return 0;
}

// A loser tree: each inner node keeps the leaf that lost the match there,
// so replaying the winner's path costs one comparison per level. Equal keys:
// the earlier run (lower leaf) wins, so the merge keeps run order. An
// exhausted leaf loses to any other.
bool beats(const TREEHEAD* th, long a, long b) {
    const char* ka = th->tree[a].buf;
    const char* kb = th->tree[b].buf;
    if (!ka) return false;
    if (!kb) return true;
    int c = th->skb->mt.cmp(ka, kb, th->keylen);
    return c < 0 || (c == 0 && a < b);
}

// Fills the subtree at i and returns its winning leaf.
long init_tree(TREEHEAD* th, long i, rctype* rc) {
    if (i >= th->P) {
        if (th->tree[i].fd == 2) {
            th->tree[i].buf = nullptr;
            return i;
        }
        rctype r = NextBinRec(th, i);
        if (r < 0 && *rc == 0) *rc = r;
        return i;
    }
    long l = init_tree(th, 2 * i, rc);
    long r = init_tree(th, 2 * i + 1, rc);
    if (beats(th, r, l)) {
        th->tree[i].who = l;
        return r;
    }
    th->tree[i].who = r;
    return l;
}

// The winner has been taken: its leaf reads on and replays its path.
rctype promote(TREEHEAD* th) {
    long c = th->winner;
    rctype rc = NextBinRec(th, c);
    for (long i = c / 2; i >= 1; i /= 2) {
        long o = th->tree[i].who;
        if (beats(th, o, c)) {
            th->tree[i].who = c;
            c = o;
        }
    }
    th->winner = c;
    return rc;
}

rctype ReadRunFile(TREEHEAD* th, TREEBUF* tb) {
    tb->n_read = 0;
    while (tb->n_read < tb->n_recs && th->tree[th->winner].buf) {
        if (th->interrupt && *th->interrupt) return SR_MERGE_INTERRUPTED;
        memcpy(tb->buf + tb->n_read * th->reclen, th->tree[th->winner].binrec, th->reclen);
        tb->n_read++;
        rctype rc = promote(th);
        if (rc < 0) return rc;
    }
    return th->tree[th->winner].buf ? 0 : MERGE_END;
}

void* MergeThread(void* arg) {
    auto* th = static_cast<TREEHEAD*>(arg);
    for (;;) {
        mutex_lock(&th->freeLock);
        while (!th->freeList && !th->stop) {
            th->freeWaiters++;
            cond_wait(&th->freeReady, &th->freeLock);
            th->freeWaiters--;
        }
        TREEBUF* b = th->stop ? nullptr : pop(&th->freeList);
        mutex_unlock(&th->freeLock);
        rctype rc = b ? ReadRunFile(th, b) : MERGE_END;
        mutex_lock(&th->fullLock);
        if (b && b->n_read > 0) pushtail(&th->fullList, b);
        if (rc != 0) th->rc = rc;
        if (th->fullWaiters) cond_signal(&th->fullReady);
        mutex_unlock(&th->fullLock);
        if (rc != 0) return nullptr;
    }
}

}  // namespace

int srqrymerge() {
    void* opt = opgtgbl();
    int b = opt ? opbingt(opt, "MTMERGE") : -2;
    return b == 0 ? 2 : 1;
}

TREEHEAD* sor_init_merge(SR_CTX* srp, SR_BIN* head, sr_binrdfp_t binrdfp) {
    long n = 0;
    for (SR_BIN* b = head; b; b = b->next) n++;
    if (n == 0) return nullptr;
    long P = 1;
    while (P < n) P *= 2;
    int keylen = srp->keylen > 0 ? srp->keylen : 1;
    size_t size = sizeof(TREEHEAD) + n * static_cast<size_t>(keylen) + 2 * P * sizeof(TREENODE) + 16;
    auto* th = static_cast<TREEHEAD*>(calloc(1, size));
    if (!th) return nullptr;
    th->tree = reinterpret_cast<TREENODE*>(reinterpret_cast<char*>(th) + sizeof(TREEHEAD));
    th->keys = reinterpret_cast<char*>(th->tree + 2 * P);
    th->bp = head;
    th->keylen = srp->keylen;
    th->reclen = srp->reclen;
    th->P = P;
    th->interrupt = srp->parms.interrupt;
    th->binrdfp = binrdfp;
    th->skb = srp->parms.skb;
    if (!th->skb) {
        if (skbmeminit(&th->memcmp, srp->keylen, srp->reclen) < 0) {
            free(th);
            return nullptr;
        }
        th->skb = &th->memcmp;
    }
    if (mutex_init(&th->fullLock) || mutex_init(&th->freeLock) || cond_init(&th->fullReady) ||
        cond_init(&th->freeReady)) {
        free(th);
        return nullptr;
    }
    for (int i = 0; i < 2; ++i) pushtail(&th->freeList, &th->bufs[i]);
    th->merge = srp->parms.flags & SR_MERGEMASK;
    if (th->merge == 0) th->merge = srqrymerge();
    if (th->merge != 1 && th->merge != 2) {
        hsprint("MERGE TYPE UNDEFINED\n");
        th->merge = 1;
    }
    for (long i = 1; i < P; ++i) th->tree[i].fd = 1;
    long k = 0;
    for (SR_BIN* b = head; b; b = b->next, ++k) th->tree[P + k].fd = reinterpret_cast<intptr_t>(b);
    for (long i = P + n; i < 2 * P; ++i) th->tree[i].fd = 2;
    rctype irc = 0;
    th->winner = init_tree(th, 1, &irc);
    if (irc < 0) {
        rcignore(sor_term_merge(th));  // frees the half-made tree; the null result is the failure
        return nullptr;
    }
    return th;
}

rctype sor_term_merge(TREEHEAD* th) {
    if (!th) return 0;
    if (th->started) {
        mutex_lock(&th->freeLock);
        th->stop = true;
        cond_broadcast(&th->freeReady);
        mutex_unlock(&th->freeLock);
        thr_join(th->tid, nullptr);
    }
    mutex_destroy(&th->fullLock);
    mutex_destroy(&th->freeLock);
    cond_destroy(&th->fullReady);
    cond_destroy(&th->freeReady);
    free(th);
    return 0;
}

rctype sor_read_run_buf(char** loc, long* n_recs, void* data) {
    auto* rd = static_cast<SR_RUNDATA*>(data);
    *loc = nullptr;
    *n_recs = 0;
    if (rd->n_recs == 0) return 0;
    if (!rd->buf) return 1;
    // The sorted bin in one piece; the next call finds nothing more.
    *loc = rd->buf;
    *n_recs = rd->n_recs;
    rd->n_recs = 0;
    return 0;
}

rctype sor_read_run_file(char** loc, long* n_recs, void* data) {
    auto* rd = static_cast<SR_RUNDATA*>(data);
    TREEHEAD* th = rd->tree;
    *loc = nullptr;
    *n_recs = 0;
    if (rd->n_recs == 0) return 0;
    if (!rd->buf || !th) return 1;
    if (!th->bufs[0].buf) {
        th->mbrecs = rd->n_recs / 2;
        if (th->mbrecs == 0 || th->merge == 2) {
            th->merge = 2;
            th->bufs[0].buf = rd->buf;
            th->bufs[0].n_recs = rd->n_recs;
        } else {
            th->bufs[0].buf = rd->buf;
            th->bufs[0].n_recs = th->mbrecs;
            th->bufs[1].buf = rd->buf + th->mbrecs * static_cast<long>(th->reclen);
            th->bufs[1].n_recs = rd->n_recs - th->mbrecs;
            // The reader needs no control block of its own: it touches only
            // the tree, the runs and the two buffers.
            int e = thr_create(nullptr, 0, MergeThread, th, 0, &th->tid);
            if (e != 0) {
                hsprint("sor_read_run_file: thr_create failed: Reason=%s\n", strerror(e));
                return SR_RC_MERGEREAD;
            }
            th->started = true;
        }
    }
    if (th->merge == 2) {
        TREEBUF* b = &th->bufs[0];
        if (th->rc == MERGE_END) return 0;
        if (th->rc) return th->rc;
        rctype rc = ReadRunFile(th, b);
        if (rc != 0 && rc != MERGE_END) {
            th->rc = rc;
            return rc;
        }
        th->rc = rc;
        *loc = b->n_read ? b->buf : nullptr;
        *n_recs = b->n_read;
        return 0;
    }
    if (th->curbuf) {
        mutex_lock(&th->freeLock);
        pushtail(&th->freeList, th->curbuf);
        if (th->freeWaiters) cond_signal(&th->freeReady);
        mutex_unlock(&th->freeLock);
        th->curbuf = nullptr;
    }
    rctype rc = 0;
    mutex_lock(&th->fullLock);
    while (!th->fullList && th->rc == 0) {
        th->fullWaiters++;
        int e = cond_wait(&th->fullReady, &th->fullLock);
        th->fullWaiters--;
        if (e) {
            th->rc = SR_RC_CONDWAIT;
            break;
        }
    }
    TREEBUF* b = pop(&th->fullList);
    if (!b && th->rc != MERGE_END) rc = th->rc;
    mutex_unlock(&th->fullLock);
    if (rc != 0) return rc;
    th->curbuf = b;
    if (b) {
        *loc = b->buf;
        *n_recs = b->n_read;
    }
    return 0;
}

}  // namespace vrta

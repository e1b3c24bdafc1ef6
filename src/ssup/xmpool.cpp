// The memory manager: pools made of puddles, drawn from one global account.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>
#include "hs/hsgcb.h"
#include "hs/hsmem.h"
#include "ssup/vv.h"
#include "ssup/xmint.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define XM_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define XM_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define XM_POISON(p, n) ((void)(p), (void)(n))
#define XM_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace vrta {

long xm_pool_isa = 0x8000;
long xm_pool_osa = 0x4000;
long xm_pudl_isa = 0x8000;
long xm_pudl_osa = 0x4000;
long xm_supv_isa = 0x10000;
long xm_supv_osa = 0x100000;
mutex_t xm_startlock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

namespace {

constexpr long XM_HDRLEN = 8;
constexpr unsigned long XM_NOLIMIT = 0x20000000000000UL;

// Both forms give the same value; the power-of-two one is the cheap one.
long roundup(long n, long u) {
    if (u <= 0) return n;
    if ((u & (u - 1)) == 0) return (n + u - 1) & ~(u - 1);
    return n + u - 1 - ((n - 1) % u);
}

// The manager is published only when it is complete. While it is being
// built only the building thread sees it, since building it allocates from
// its own pools; any other thread waits for the start lock instead of
// taking items from pools that are not set up yet.
thread_local XMGCB* xm_building = nullptr;
XMGCB* gcbnow() {
    if (HSGCB)
        if (XMGCB* g = __atomic_load_n(&HSGCB->xmgcb, __ATOMIC_ACQUIRE)) return g;
    return xm_building;
}

// The manager comes up on first use when nobody started it: a layer may
// allocate before the engine entry has run hsgblinit.
XMGCB* gcb() {
    if (XMGCB* g = gcbnow()) return g;
    return xminit();
}

inline void cpurelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// A pool id that is a record needs no lookup: the common case.
inline XMPOOL* resolve(xmpid pid) {
    return reinterpret_cast<intptr_t>(pid) > 0 ? pid : xmresolve(pid);
}

// The caller's id, kept where the thread pointer finds it: the lock asks for
// it at every call.
thread_local thread_t xm_self __attribute__((tls_model("initial-exec"))) = thread_t{};
inline thread_t selfid() {
    thread_t t = xm_self;
    if (t == thread_t{}) xm_self = t = thr_self();
    return t;
}

// The recursive pool lock: xmrealc calls xmalloc, and xmgpudl may recurse,
// while the lock is held. The holder's id in ptid is the lock itself: taking
// a free pool is one compare-and-swap and letting it go one store, which is
// what keeps a pool's every call cheap. Threads that find it held queue on
// plock, and the first of them waits for the holder to let go.
[[gnu::noinline]] void plockwait(XMPOOL* p, thread_t self) {
    mutex_lock(&p->plock);
    for (int spins = 0;; ++spins) {
        thread_t none{};
        if (__atomic_load_n(&p->ptid, __ATOMIC_RELAXED) == none &&
            __atomic_compare_exchange_n(&p->ptid, &none, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            break;
        if (spins < 100) cpurelax();
        else sched_yield();
    }
    mutex_unlock(&p->plock);
}
inline void plock(XMPOOL* p) {
    thread_t self = selfid();
    if (__atomic_load_n(&p->ptid, __ATOMIC_RELAXED) == self) {
        p->selflocked++;
        return;
    }
    thread_t none{};
    if (!__atomic_compare_exchange_n(&p->ptid, &none, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        plockwait(p, self);
    p->selflocked = 1;
}
inline void punlock(XMPOOL* p) {
    if (--p->selflocked == 0) __atomic_store_n(&p->ptid, thread_t{}, __ATOMIC_RELEASE);
}
class PoolGuard {
public:
    explicit PoolGuard(XMPOOL* p) : p_(p) { plock(p_); }
    ~PoolGuard() { punlock(p_); }
    PoolGuard(const PoolGuard&) = delete;
    PoolGuard& operator=(const PoolGuard&) = delete;
private:
    XMPOOL* p_;
};

bool userpool(const XMPOOL* p) { return p->type != XM_TYPE_FIXED; }

// A free block keeps its header readable for the chain walk; the rest is
// poisoned so that a use after xmfree is caught by the sanitizer.
void markfree(XMFREE* f) {
    XM_UNPOISON(f, sizeof(XMFREE));
    if (f->size > static_cast<long>(sizeof(XMFREE)))
        XM_POISON(reinterpret_cast<char*>(f) + sizeof(XMFREE), f->size - sizeof(XMFREE));
}
XMFREE* newfree(char* at, long size, XMFREE* next) {
    XM_UNPOISON(at, sizeof(XMFREE));
    auto* f = reinterpret_cast<XMFREE*>(at);
    f->size = size;
    f->next = next;
    markfree(f);
    return f;
}

inline XMPUDL* findpudl(XMPOOL* p, const char* blk) {
    for (XMPUDL* u = p->puddles; u; u = u->next)
        if (u->start <= blk && blk < u->end) return u;
    return nullptr;
}

void* gpage(XMGCB* g, long size, int* zeroed) {
    MutexGuard hold(&g->gcblock);
    if (size <= 0 || g->memsize < static_cast<unsigned long>(size) + g->cur_usage) return nullptr;
    void* m = malloc(size);
    if (!m) return nullptr;
    if (zeroed && *zeroed) memset(m, 0, size);
    g->cur_usage += size;
    if (g->cur_usage > g->max_usage) g->max_usage = g->cur_usage;
    return m;
}
void ppage(XMGCB* g, void* storage, long size) {
    MutexGuard hold(&g->gcblock);
    free(storage);
    g->cur_usage -= size;
}

// Gives a puddle's memory back to where it came from.
void releasemem(XMGCB* g, const XMPOOL* p, XMPUDL* u) {
    long size = u->end - u->start;
    XM_UNPOISON(u->start, size);
    if (p->flags & XM_HIMEM) hshifree(u->start, size);
    else if (p->flags & XM_CODEGEN) hscgfree(u->start, size);
    else ppage(g, u->start, size);
}

// Takes one item of a fixed pool from its puddles; null when they are full.
// When exactly one item's room is left behind hwmark the puddle is closed,
// so its last slot is never handed out.
void* fixedtake(XMPOOL* p) {
    for (XMPUDL* u = p->puddles; u; u = u->next) {
        if (u->free) {
            XMFREE* it = u->free;
            u->free = it->next;
            return it;
        }
        if (u->hwmark && u->hwmark + p->size <= u->end) {
            char* it = u->hwmark;
            u->hwmark += p->size;
            if (u->end - u->hwmark == p->size) u->hwmark = nullptr;
            XM_UNPOISON(it, p->size);
            return it;
        }
    }
    return nullptr;
}

// The pudl pool grows by pages whose first record describes the page itself.
XMPUDL* pudlgrow(XMGCB* g) {
    XMPOOL* pp = &g->pudlpool;
    PoolGuard hold(pp);
    int zeroed = 1;
    char* page = static_cast<char*>(gpage(g, pp->osa, &zeroed));
    if (!page) return nullptr;
    auto* self = reinterpret_cast<XMPUDL*>(page);
    self->flags = XM_PUDL_ZERO;
    self->start = page;
    self->end = page + pp->osa;
    self->hwmark = page + 2 * sizeof(XMPUDL);
    self->free = nullptr;
    self->pool = pp;
    self->next = nullptr;
    XMPUDL** tail = &pp->puddles;
    while (*tail) tail = &(*tail)->next;
    *tail = self;
    return reinterpret_cast<XMPUDL*>(page + sizeof(XMPUDL));
}

// The index keeps offsets and sizes in 16-byte units as 32-bit numbers, and
// is searched by counting rather than by branching on where the answer
// lies. Unused slots hold a place past every block and a size no request
// matches.
constexpr int32_t XM_IDXNONE = 0x7fffffff;
constexpr long XM_IDXMAX = 1L << 35;  // a puddle this large is walked instead

// Bit i set when a[i] > x, over the n slots in use. Four words, so that the
// compares do not wait on one another.
inline uint32_t maskgt(const int32_t* v, int n, int32_t x) {
    uint32_t m0 = 0, m1 = 0, m2 = 0, m3 = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        m0 |= static_cast<uint32_t>(v[i] > x) << i;
        m1 |= static_cast<uint32_t>(v[i + 1] > x) << (i + 1);
        m2 |= static_cast<uint32_t>(v[i + 2] > x) << (i + 2);
        m3 |= static_cast<uint32_t>(v[i + 3] > x) << (i + 3);
    }
    for (; i < n; ++i) m0 |= static_cast<uint32_t>(v[i] > x) << i;
    return m0 | m1 | m2 | m3;
}

inline char* iaddr(const XMPUDL* u, int i) { return u->start + (static_cast<long>(u->ioff[i]) << 4); }
inline long isize(const XMPUDL* u, int i) { return static_cast<long>(u->isz[i]) << 4; }
inline int32_t units(long n) { return static_cast<int32_t>(n >> 4); }
inline void iset(XMPUDL* u, int i, const char* addr, long size) {
    u->ioff[i] = units(addr - u->start);
    u->isz[i] = units(size);
}

// An empty index, or none for a puddle it cannot describe.
void idxclear(XMPUDL* u) {
    for (int i = 0; i < XM_NIDX; ++i) {
        u->ioff[i] = XM_IDXNONE;
        u->isz[i] = -1;
    }
    bool fits = u->end - u->start < XM_IDXMAX && (reinterpret_cast<uintptr_t>(u->start) & 15) == 0;
    u->nidx = fits ? 0 : -1;
}

// Both arrays move in one loop of a few slots: a library copy for each
// would cost more in the call than the move.
inline void idxdrop(XMPUDL* u, int i) {
    int n = u->nidx;
    for (int k = i; k < n - 1; ++k) {
        u->ioff[k] = u->ioff[k + 1];
        u->isz[k] = u->isz[k + 1];
        asm("" ::: "memory");  // a loop, not two calls to memmove
    }
    u->ioff[n - 1] = XM_IDXNONE;
    u->isz[n - 1] = -1;
    u->nidx = n - 1;
}
inline void idxput(XMPUDL* u, int i, const char* addr, long size) {
    int n = u->nidx;
    for (int k = n; k > i; --k) {
        u->ioff[k] = u->ioff[k - 1];
        u->isz[k] = u->isz[k - 1];
        asm("" ::: "memory");
    }
    u->ioff[i] = units(addr - u->start);
    u->isz[i] = units(size);
    u->nidx = n + 1;
}

// Copies the chain into the index when it fits; called now and then, before
// a walk changes anything, so that a chain that shrank is indexed again.
void reindex(XMPUDL* u) {
    u->stale = 0;
    idxclear(u);
    if (u->nidx < 0) return;
    int n = 0;
    for (XMFREE* f = u->free; f; f = f->next) {
        if (n == XM_NIDX) {
            idxclear(u);
            u->nidx = -1;
            return;
        }
        iset(u, n++, reinterpret_cast<char*>(f), f->size);
    }
    u->nidx = n;
}
inline void walked(XMPUDL* u) {
    if (++u->stale >= 64) reindex(u);
}

// First fit through the index: the same block the chain walk would find.
[[gnu::always_inline]] inline char* idxtake(XMPUDL* u, long size) {
    int n = u->nidx;
    uint32_t fits = maskgt(u->isz, n, units(size) - 1);
    int i;
    if (fits) {
        i = __builtin_ctz(fits);
    } else {
        // Only the last block may take the never-used tail behind it as well.
        i = n - 1;
        if (n == 0 || iaddr(u, i) + isize(u, i) != u->hwmark || isize(u, i) + (u->end - u->hwmark) < size)
            return nullptr;
    }
    char* b = iaddr(u, i);
    long have = isize(u, i);
    if (have > size) {
        iset(u, i, b + size, have - size);
    } else {
        if (have < size) u->hwmark = b + size;
        idxdrop(u, i);
    }
    XM_UNPOISON(b, size);
    return b;
}

// Variable pool: first fit in the free chains, then the tails, then a new
// puddle. zero is cleared when the memory handed out is known to be clean.
[[gnu::always_inline]] inline char* vartake(XMPOOL* p, long size, bool& zero) {
    for (XMPUDL* u = p->puddles; u; u = u->next) {
        if (u->nidx < 0) walked(u);
        if (u->nidx >= 0) {
            if (char* b = idxtake(u, size)) return b;
            if (u->hwmark && u->end - u->hwmark >= size) {
                char* b = u->hwmark;
                u->hwmark += size;
                if (u->flags & XM_PUDL_ZERO) zero = false;
                XM_UNPOISON(b, size);
                return b;
            }
            continue;
        }
        XMFREE** link = &u->free;
        for (XMFREE* f = u->free; f; link = &f->next, f = f->next) {
            char* b = reinterpret_cast<char*>(f);
            if (f->size > size) {
                *link = newfree(b + size, f->size - size, f->next);
                XM_UNPOISON(b, size);
                return b;
            }
            if (f->size == size) {
                *link = f->next;
                XM_UNPOISON(b, size);
                return b;
            }
            if (!f->next && b + f->size == u->hwmark && f->size + (u->end - u->hwmark) >= size) {
                *link = nullptr;
                u->hwmark = b + size;
                XM_UNPOISON(b, size);
                return b;
            }
        }
        if (u->hwmark && u->end - u->hwmark >= size) {
            char* b = u->hwmark;
            u->hwmark += size;
            if (u->flags & XM_PUDL_ZERO) zero = false;
            XM_UNPOISON(b, size);
            return b;
        }
    }
    if (p->osa == 0) return nullptr;
    XMPUDL* u = xmgpudl(p, roundup(size, p->osa));
    if (!u || !u->hwmark || u->end - u->hwmark < size) return nullptr;
    char* b = u->hwmark;
    u->hwmark += size;
    if (u->flags & XM_PUDL_ZERO) zero = false;
    XM_UNPOISON(b, size);
    return b;
}

// Stack pool: bump from the head puddle; a later puddle with room moves to
// the head so that the next request stops at the first test.
char* stacktake(XMPOOL* p, long size, bool& zero) {
    auto room = [size](XMPUDL* u) { return u->hwmark && u->end - u->hwmark >= size; };
    XMPUDL* u = p->puddles;
    if (!(u && room(u))) {
        XMPUDL* prev = u;
        XMPUDL* c = u ? u->next : nullptr;
        for (; c; prev = c, c = c->next) {
            if (room(c)) {
                prev->next = c->next;
                c->next = p->puddles;
                p->puddles = c;
                break;
            }
        }
        u = c;
        if (!u) {
            if (p->osa == 0) return nullptr;
            u = xmgpudl(p, roundup(size, p->osa));
            if (!u || !room(u)) return nullptr;
        }
    }
    char* b = u->hwmark;
    u->hwmark += size;
    if (u->flags & XM_PUDL_ZERO) zero = false;
    XM_UNPOISON(b, size);
    return b;
}

void overlap() {
    static const char msg[] = "xmfree() ERROR: free chain overlap detected!";
    ssize_t w = write(2, msg, sizeof(msg) - 1);
    (void)w;
}

// freeblock through the index: the same chain as the walk below makes.
// False when the block needs an entry the index has no room for.
[[gnu::always_inline]] inline bool idxfree(XMPUDL* u, char* blk, long size) {
    int n = u->nidx;
    // The blocks at or below blk are a prefix: the first one past it is where blk goes.
    uint32_t past = maskgt(u->ioff, n, units(blk - u->start));
    int pos = past ? __builtin_ctz(past) : n;
    bool hasprev = pos > 0, hasnext = pos < n;
    char* pv = hasprev ? iaddr(u, pos - 1) : nullptr;
    char* nv = hasnext ? iaddr(u, pos) : nullptr;
    long psz = hasprev ? isize(u, pos - 1) : 0, nsz = hasnext ? isize(u, pos) : 0;
    if ((hasprev && pv + psz > blk) || (hasnext && blk + size > nv) || blk + size > u->end) overlap();
    if (hasprev && pv == blk) return true;
    if (hasprev && pv + psz == blk) {
        psz += size;
        if (hasnext && pv + psz == nv) {
            psz += nsz;
            idxdrop(u, pos);
        }
        u->isz[pos - 1] = units(psz);
    } else if (hasnext && blk + size == nv) {
        iset(u, pos, blk, size + nsz);
    } else {
        if (n == XM_NIDX) return false;
        idxput(u, pos, blk, size);
    }
    // While the index holds the chain, the blocks themselves are left alone
    // (no cold memory is touched to free or take one); xmchain writes the
    // chain into them when something is to walk it.
    XM_POISON(blk, size);
    return true;
}

}  // namespace

void xmchain(XMPUDL* u) {
    if (u->nidx < 0) return;
    XMFREE* next = nullptr;
    for (int i = u->nidx - 1; i >= 0; --i) next = newfree(iaddr(u, i), isize(u, i), next);
    u->free = next;
}

namespace {

// Puts a block on its puddle's free chain, ascending, merging with the
// neighbours it touches.
[[gnu::always_inline]] inline void freeblock(XMPUDL* u, char* blk, long size) {
    if (u->nidx < 0) walked(u);
    if (u->nidx >= 0) {
        if (idxfree(u, blk, size)) return;
        xmchain(u);  // more blocks than the index holds: walk from now on
        u->nidx = -1;
    }
    XMFREE* prev = nullptr;
    XMFREE* nx = u->free;
    while (nx && reinterpret_cast<char*>(nx) <= blk) {
        prev = nx;
        nx = nx->next;
    }
    char* pv = reinterpret_cast<char*>(prev);
    char* nv = reinterpret_cast<char*>(nx);
    if ((prev && pv + prev->size > blk) || (nx && blk + size > nv) || blk + size > u->end) overlap();
    // The very block already on the chain: linking it again would loop the chain.
    if (pv == blk) return;
    if (prev && pv + prev->size == blk) {
        prev->size += size;
        if (nx && pv + prev->size == nv) {
            prev->size += nx->size;
            prev->next = nx->next;
        }
        markfree(prev);
        return;
    }
    XMFREE* b;
    if (nx && blk + size == nv) {
        long nsize = nx->size;
        XMFREE* nnext = nx->next;
        b = newfree(blk, size + nsize, nnext);
    } else {
        b = newfree(blk, size, nx);
    }
    if (prev) prev->next = b;
    else u->free = b;
}

[[noreturn]] void badlen() {
    fputs("BAD LEN ****\n", stdout);
    fputs("BAD LEB ****\n", stdout);
    fflush(stdout);
    fflush(stderr);
    // A zero size means the caller's bookkeeping is broken: die where it shows.
    *static_cast<volatile int*>(nullptr) = 0;
    abort();
}

bool goodtag(const XMPOOL* p) { return memcmp(p->tag, "POOL", 4) == 0; }

// Gives all of a pool's memory back and its record to the pool-record pool.
void releasepool(XMGCB* g, XMPOOL* p) {
    for (XMPUDL* u = p->puddles; u;) {
        XMPUDL* next = u->next;
        releasemem(g, p, u);
        memset(u, 0x11, sizeof(*u));
        xmpitem(&g->pudlpool, u);
        u = next;
    }
    {
        MutexGuard hold(&g->gcblock);
        if (p->prev) p->prev->next = p->next;
        else if (g->poolchain == p) g->poolchain = p->next;
        if (p->next) p->next->prev = p->prev;
    }
    mutex_destroy(&p->plock);
    memset(p, 0x11, sizeof(*p));
    xmpitem(&g->poolpool, p);
}

void initpool(XMPOOL* p, const char* tag, int type, int flags) {
    memset(p, 0, sizeof(*p));
    memcpy(p->tag, tag, 4);
    p->type = type;
    p->flags = flags;
    p->owner = thr_self();
}

}  // namespace

XMPOOL* xmresolve(xmpid pid) {
    if (pid == XM_NOPOOL) return nullptr;
    if (pid == XM_THREADPOOL) {
        if (XMPOOL* own = vvxmpid()) return own;
        XMGCB* g = gcb();
        return g ? g->defpool : nullptr;
    }
    if (pid == XM_SUPVPOOL) {
        XMGCB* g = gcb();
        return g ? &g->supvpool : nullptr;
    }
    return pid;
}

void* xmgpage(long size, int* zeroed) {
    XMGCB* g = gcb();
    return g ? gpage(g, size, zeroed) : nullptr;
}

void xmppage(void* storage, long size) {
    if (XMGCB* g = gcbnow()) ppage(g, storage, size);
}

void* xmgitem(XMPOOL* pool) {
    XMGCB* g = gcbnow();
    PoolGuard hold(pool);
    void* it = fixedtake(pool);
    // The pudl pool is not grown here: xmgpudl does that itself, since a new
    // puddle record would need a puddle record.
    if (!it && g && pool != &g->pudlpool && pool->osa) {
        if (xmgpudl(pool, pool->osa)) it = fixedtake(pool);
    }
    return it;
}

void xmpitem(XMPOOL* pool, void* elem) {
    if (!elem) return;
    PoolGuard hold(pool);
    XMPUDL* u = findpudl(pool, static_cast<char*>(elem));
    if (!u) return;
    auto* f = static_cast<XMFREE*>(elem);
    f->next = u->free;
    u->free = f;
}

XMPUDL* xmgpudl(XMPOOL* pool, long size) {
    XMGCB* g = gcbnow();
    if (!g || size <= 0) return nullptr;
    auto* rec = static_cast<XMPUDL*>(xmgitem(&g->pudlpool));
    if (!rec) rec = pudlgrow(g);
    if (!rec) return nullptr;
    memset(rec, 0, sizeof(*rec));

    bool zero = (pool->flags & XM_ZERO) != 0;
    int zeroed = zero ? 1 : 0;
    char* mem;
    if (pool->flags & XM_HIMEM) {
        mem = static_cast<char*>(hshimalloc(size));
        zeroed = 0;
        if (mem && hshimemenabled() != 0) zeroed = 1;  // fresh anonymous maps
        else if (mem && zero) {
            memset(mem, 0, size);
            zeroed = 1;
        }
    } else if (pool->flags & XM_CODEGEN) {
        mem = static_cast<char*>(hscgmalloc(size, &zeroed));
    } else {
        mem = static_cast<char*>(gpage(g, size, &zeroed));
    }
    if (!mem) {
        xmpitem(&g->pudlpool, rec);
        return nullptr;
    }
    if (userpool(pool)) XM_POISON(mem, size);
    rec->start = mem;
    rec->end = mem + size;
    rec->hwmark = mem;
    rec->flags = zeroed ? XM_PUDL_ZERO : 0;
    idxclear(rec);

    if (!pool->puddles) {
        pool->puddles = rec;
        return rec;
    }
    // Memory that continues a puddle extends it, so that a pool grown piece
    // by piece can still serve one large block.
    for (XMPUDL* u = pool->puddles; u; u = u->next) {
        if ((u->flags & XM_PUDL_INITIAL) || u->end != mem) continue;
        u->end = mem + size;
        if (u->end - u->start >= XM_IDXMAX) u->nidx = -1;  // too far for the index: walked
        if (!u->hwmark) {
            u->hwmark = mem;
            u->flags = (u->flags & ~XM_PUDL_ZERO) | (zeroed ? XM_PUDL_ZERO : 0);
        } else if (!zero || !zeroed) {
            u->flags &= ~XM_PUDL_ZERO;
        } else {
            if (!(u->flags & XM_PUDL_ZERO)) {
                XM_UNPOISON(u->hwmark, mem - u->hwmark);
                memset(u->hwmark, 0, mem - u->hwmark);
                if (userpool(pool)) XM_POISON(u->hwmark, mem - u->hwmark);
            }
            u->flags |= XM_PUDL_ZERO;
        }
        xmpitem(&g->pudlpool, rec);
        return u;
    }
    if (pool->type == XM_TYPE_STACK) {
        rec->next = pool->puddles;
        pool->puddles = rec;
    } else {
        XMPUDL* t = pool->puddles;
        while (t->next) t = t->next;
        t->next = rec;
    }
    return rec;
}

XMGCB* xminit() {
    MutexGuard hold(&xm_startlock);
    if (!HSGCB) {
        // hsgblinit makes the process block and calls back in here; when it
        // fails there is no manager, and the null result says so.
        rcignore(hsgblinit());
        return gcbnow();
    }
    if (XMGCB* g = gcbnow()) return g;

    auto* g = static_cast<XMGCB*>(calloc(1, sizeof(XMGCB)));
    if (!g) return nullptr;
    g->physpagesize = sysconf(_SC_PAGESIZE);
    g->pagesize = 1024;
    mutex_init(&g->gcblock);
    xm_building = g;

    struct rlimit rl;
    if (getrlimit(RLIMIT_DATA, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY) g->memsize = XM_NOLIMIT;
    else g->memsize = rl.rlim_cur;
    g->max_memsize = g->memsize;

    for (long* c : {&xm_pool_isa, &xm_pool_osa, &xm_pudl_isa, &xm_pudl_osa, &xm_supv_isa, &xm_supv_osa})
        *c = roundup(*c, g->pagesize);

    // The puddle-record pool holds its own first record.
    XMPOOL* pp = &g->pudlpool;
    initpool(pp, "PUDL", XM_TYPE_FIXED, 0);
    mutex_init(&pp->plock);
    pp->isa = xm_pudl_isa;
    pp->osa = xm_pudl_osa;
    pp->size = sizeof(XMPUDL);
    int zeroed = 1;
    char* page = static_cast<char*>(gpage(g, xm_pudl_isa, &zeroed));
    if (!page) {
        xmterm(g);
        return nullptr;
    }
    auto* first = reinterpret_cast<XMPUDL*>(page);
    first->flags = XM_PUDL_ZERO;
    first->start = page;
    first->hwmark = page + sizeof(XMPUDL);
    first->end = page + xm_pudl_isa;
    first->pool = pp;
    pp->puddles = first;

    XMPOOL* po = &g->poolpool;
    initpool(po, "POOH", XM_TYPE_FIXED, 0);
    mutex_init(&po->plock);
    po->isa = xm_pool_isa;
    po->osa = xm_pool_osa;
    po->size = roundup(sizeof(XMPOOL), 16);
    zeroed = 1;
    page = static_cast<char*>(gpage(g, xm_pool_isa, &zeroed));
    auto* prec = page ? static_cast<XMPUDL*>(xmgitem(pp)) : nullptr;
    if (!prec) {
        if (page) ppage(g, page, xm_pool_isa);
        xmterm(g);
        return nullptr;
    }
    memset(prec, 0, sizeof(*prec));
    prec->flags = XM_PUDL_ZERO;
    prec->start = page;
    prec->hwmark = page;
    prec->end = page + xm_pool_isa;
    po->puddles = prec;

    XMPOOL* sp = &g->supvpool;
    initpool(sp, "SUPV", XM_TYPE_VAR, XM_HEADER);
    mutex_init(&sp->plock);
    sp->isa = xm_supv_isa;
    sp->osa = xm_supv_osa;
    XMPUDL* su = xmgpudl(sp, xm_supv_isa);
    if (!su) {
        xmterm(g);
        return nullptr;
    }
    su->flags |= XM_PUDL_INITIAL;

    g->defpool = xmpoolc(8192, 4096, XM_HEADER);
    if (!g->defpool) {
        xmterm(g);
        return nullptr;
    }
    g->initialized = 1;
    __atomic_store_n(&HSGCB->xmgcb, g, __ATOMIC_RELEASE);
    xm_building = nullptr;
    return g;
}

void xmterm(XMGCB* g) {
    if (!g) return;
    // Every pool still made goes with the manager; the default one first.
    if (g->defpool) releasepool(g, g->defpool);
    g->defpool = nullptr;
    while (g->poolchain) releasepool(g, g->poolchain);
    for (XMPUDL* u = g->supvpool.puddles; u; u = u->next) releasemem(g, &g->supvpool, u);
    g->supvpool.puddles = nullptr;
    for (XMPUDL* u = g->poolpool.puddles; u; u = u->next) ppage(g, u->start, u->end - u->start);
    g->poolpool.puddles = nullptr;
    // The pudl pool's records live in its own pages: read the link first.
    for (XMPUDL* u = g->pudlpool.puddles; u;) {
        XMPUDL* next = u->next;
        ppage(g, u->start, u->end - u->start);
        u = next;
    }
    g->pudlpool.puddles = nullptr;
    mutex_destroy(&g->supvpool.plock);
    mutex_destroy(&g->poolpool.plock);
    mutex_destroy(&g->pudlpool.plock);
    mutex_destroy(&g->gcblock);
    if (HSGCB && HSGCB->xmgcb == g) HSGCB->xmgcb = nullptr;
    if (xm_building == g) xm_building = nullptr;
    free(g);
}

rctype xmemsize(unsigned long memsize) {
    XMGCB* g = gcb();
    if (!g) return XM_RC_NOSTORAGE;
    MutexGuard hold(&g->gcblock);
    g->memsize = memsize;
    return 0;
}

namespace {

// xmalloc with the pool locked; the whole of it, every pool type.
[[gnu::noinline]] void* allocin(XMPOOL* p, long len, int flags) {
    flags |= p->flags;
    bool zero = (flags & XM_ZERO) != 0;
    char* b = nullptr;
    char* user = nullptr;
    long size = 0;
    switch (p->type) {
    case XM_TYPE_VAR: {
        bool hdr = (flags & XM_HEADER) != 0;
        size = ((hdr ? len + XM_HDRLEN : len) + 15) & ~15L;
        b = vartake(p, size, zero);
        if (!b) return nullptr;
        user = b;
        if (hdr) {
            *reinterpret_cast<long*>(b) = size;
            user = b + XM_HDRLEN;
            size -= XM_HDRLEN;
        }
        break;
    }
    case XM_TYPE_FIXED:
        size = p->size;
        user = static_cast<char*>(xmgitem(p));
        break;
    case XM_TYPE_STACK:
        size = (len + 7) & ~7L;
        user = stacktake(p, size, zero);
        break;
    default:
        return nullptr;
    }
    if (user && zero) memset(user, 0, size);
    return user;
}

// xmfree with the pool locked.
[[gnu::noinline]] void freein(XMPOOL* p, void* addr, long len) {
    int flags = p->flags | (len == -1 ? XM_HEADER : 0);
    char* a = static_cast<char*>(addr);
    switch (p->type) {
    case XM_TYPE_VAR: {
        char* blk = a;
        long size;
        if (flags & XM_HEADER) {
            blk = a - XM_HDRLEN;
            size = *reinterpret_cast<long*>(blk);
        } else {
            size = (len + 15) & ~15L;
        }
        if (size <= 0) badlen();
        XMPUDL* u = findpudl(p, blk);
        if (!u) return;  // not ours: ignored, as it always was
        freeblock(u, blk, size);
        break;
    }
    case XM_TYPE_FIXED: {
        XMPUDL* u = findpudl(p, a);
        if (!u) return;
        auto* f = reinterpret_cast<XMFREE*>(a);
        f->next = u->free;
        u->free = f;
        break;
    }
    default:
        break;  // a stack pool gets space back only by reset or destruction
    }
}

}  // namespace

// The calls most made go the short way first: a variable pool whose first
// puddle has its free chain indexed. What that way cannot serve goes the
// whole way, which starts over and finds the same.
void* xmalloc(xmpid pid, long len, int flags) {
    if (pid == XM_NOPOOL) return nullptr;
    if (len == 0) return XM_EMPTY;
    if (len < 0) return nullptr;
    XMPOOL* p = resolve(pid);
    if (!p) return nullptr;
    PoolGuard hold(p);
    XMPUDL* u = p->puddles;
    int fl = flags | p->flags;
    if (p->type == XM_TYPE_VAR && u && u->nidx >= 0 && !(fl & XM_ZERO)) {
        bool hdr = (fl & XM_HEADER) != 0;
        long size = ((hdr ? len + XM_HDRLEN : len) + 15) & ~15L;
        char* b = idxtake(u, size);
        if (!b && u->hwmark && u->end - u->hwmark >= size) {
            b = u->hwmark;
            u->hwmark += size;
            XM_UNPOISON(b, size);
        }
        if (b) {
            if (!hdr) return b;
            *reinterpret_cast<long*>(b) = size;
            return b + XM_HDRLEN;
        }
    }
    return allocin(p, len, flags);
}

void xmfree(xmpid pid, void* addr, long len) {
    if (pid == XM_NOPOOL || !addr || addr == XM_EMPTY) return;
    XMPOOL* p = resolve(pid);
    if (!p) return;
    PoolGuard hold(p);
    XMPUDL* u = p->puddles;
    char* a = static_cast<char*>(addr);
    if (p->type == XM_TYPE_VAR && len > 0 && !(p->flags & XM_HEADER) && u && static_cast<unsigned>(u->nidx) < XM_NIDX &&
        static_cast<unsigned long>(a - u->start) < static_cast<unsigned long>(u->end - u->start)) {
        idxfree(u, a, (len + 15) & ~15L);
        return;
    }
    freein(p, addr, len);
}

void* xmrealc(xmpid pid, void* oaddr, long olen, long nlen, int flags) {
    if (!oaddr || oaddr == XM_EMPTY) return xmalloc(pid, nlen, flags);
    if (nlen == 0) {
        xmfree(pid, oaddr, olen);
        return XM_EMPTY;
    }
    if (nlen < 0) return nullptr;
    XMPOOL* p = xmresolve(pid);
    if (!p) return nullptr;
    PoolGuard hold(p);
    flags |= p->flags;
    if (olen == -1) flags |= XM_HEADER;
    if (p->type != XM_TYPE_VAR) return nullptr;

    bool hdr = (flags & XM_HEADER) != 0;
    char* a = static_cast<char*>(oaddr);
    char* blk = a;
    long osz, nsz;
    if (hdr) {
        blk = a - XM_HDRLEN;
        osz = *reinterpret_cast<long*>(blk);
        nsz = (nlen + 39) & ~31L;
        // Small changes leave the block where it is: growth by at least 64
        // and no shrink under 64 damp a caller that grows a little at a time.
        if (nsz < osz && osz - nsz < 64) {
            if (blk + osz > a + nlen) memset(a + nlen, 0, blk + osz - (a + nlen));
            return oaddr;
        }
        if (nsz > osz && nsz - osz < 64) nsz = osz + 64;
    } else {
        osz = (olen + 15) & ~15L;
        nsz = (nlen + 15) & ~15L;
    }
    if (osz <= 0) badlen();
    if (nsz == osz) return oaddr;

    XMPUDL* u = findpudl(p, blk);
    if (nsz > osz) {
        long diff = nsz - osz;
        bool grown = false;
        if (u && blk + osz == u->hwmark && blk + nsz < u->end) {
            u->hwmark = blk + nsz;
            grown = true;
        } else if (u) {
            // A rare path: the chain is changed here directly and indexed
            // again later.
            xmchain(u);
            XMFREE** link = &u->free;
            for (XMFREE* f = u->free; f; link = &f->next, f = f->next) {
                char* fb = reinterpret_cast<char*>(f);
                if (fb > blk + osz) break;
                if (fb != blk + osz || f->size < diff) continue;
                if (f->size > diff) *link = newfree(fb + diff, f->size - diff, f->next);
                else *link = f->next;
                u->nidx = -1;
                grown = true;
                break;
            }
        }
        if (grown) {
            XM_UNPOISON(blk + osz, diff);
            if (hdr) *reinterpret_cast<long*>(blk) = nsz;
            if (flags & XM_ZERO) memset(blk + osz, 0, diff);
            return oaddr;
        }
        if (flags & XM_NOMOVE) return nullptr;
        void* nb = hdr ? xmalloc(p, nsz - XM_HDRLEN, flags | XM_HEADER) : xmalloc(p, nsz, flags);
        if (!nb) return nullptr;
        memcpy(nb, oaddr, hdr ? osz - XM_HDRLEN : osz);
        xmfree(p, oaddr, hdr ? -1 : olen);
        return nb;
    }
    if (hdr) *reinterpret_cast<long*>(blk) = nsz;
    if (u) freeblock(u, blk + nsz, osz - nsz);
    return oaddr;
}

void* xmemex(long len) {
    void* m = xmalloc(XM_THREADPOOL, len, XM_HEADER | XM_ZERO);
    if (!m) exit(1);
    return m;
}

xmpid xmpoolc(long isa, long osa, int flags) {
    if (isa < 0 || osa < 0) return nullptr;
    XMGCB* g = gcb();
    if (!g) return nullptr;
    auto* p = static_cast<XMPOOL*>(xmgitem(&g->poolpool));
    if (!p) return nullptr;
    initpool(p, "POOL", (flags & XM_STACK) ? XM_TYPE_STACK : XM_TYPE_VAR, flags);
    p->osa = roundup(osa, g->pagesize);
    if (mutex_init(&p->plock) != 0) {
        xmpitem(&g->poolpool, p);
        return nullptr;
    }
    if (isa) {
        p->isa = roundup(isa, g->pagesize);
        XMPUDL* u = xmgpudl(p, p->isa);
        if (!u) {
            mutex_destroy(&p->plock);
            memset(p, 0x11, sizeof(*p));
            xmpitem(&g->poolpool, p);
            return nullptr;
        }
        u->flags |= XM_PUDL_INITIAL;
    }
    MutexGuard hold(&g->gcblock);
    p->next = g->poolchain;
    if (g->poolchain) g->poolchain->prev = p;
    g->poolchain = p;
    return p;
}

void xmpoold(xmpid pid) {
    if (pid == XM_NOPOOL) return;
    XMGCB* g = gcbnow();
    XMPOOL* p = xmresolve(pid);
    // The manager's own pools and the default pool live as long as it does.
    if (!g || !p || !goodtag(p) || p == g->defpool) return;
    releasepool(g, p);
}

rctype xmpoolr(xmpid pid) {
    if (pid == XM_NOPOOL) return XM_RC_BADPOOL;
    XMPOOL* p = xmresolve(pid);
    if (!p || p->type == XM_TYPE_FIXED) return XM_RC_BADPOOL;
    PoolGuard hold(p);
    for (XMPUDL* u = p->puddles; u; u = u->next) {
        u->hwmark = u->start;
        u->free = nullptr;
        idxclear(u);
        u->flags &= ~XM_PUDL_ZERO;
        XM_POISON(u->start, u->end - u->start);
    }
    return 0;
}

rctype xmpcfxd(xmpid* pid, long, long n_isa, long n_osa, int flags, int) {
    // Despite its name this makes a variable pool: size and tid are not used.
    *pid = xmpoolc(n_isa, n_osa, flags);
    return *pid ? 0 : XM_RC_NOSTORAGE;
}

}  // namespace vrta

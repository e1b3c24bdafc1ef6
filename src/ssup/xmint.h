// Inside the memory manager: its records, for the manager itself and for
// tests that look at the state of a pool. Callers use ssup/xm.h.
#pragma once
#include "ssup/thr.h"
#include "ssup/xm.h"

namespace vrta {

constexpr int XM_TYPE_VAR = 0;
constexpr int XM_TYPE_FIXED = 1;
constexpr int XM_TYPE_STACK = 2;

// Puddle flags.
constexpr int XM_PUDL_ZERO = 0x1;           // memory from hwmark on is known to be zero
constexpr int XM_PUDL_INITIAL = 0x40000000; // the pool's first puddle: never merged with

// A free block; it lies inside the free memory itself.
struct XMFREE {
    long size;
    XMFREE* next;
};

constexpr int XM_NIDX = 32;

struct XMPUDL {
    int flags;
    char* start;
    char* end;       // one past
    char* hwmark;    // next never-used byte; null: no tail left
    XMFREE* free;    // ascending by address in a variable pool
    XMPOOL* pool;    // only in the puddle-record pool's own puddles
    XMPUDL* next;
    // A variable pool's free chain, copied in its order: first fit and the
    // place of a freed block are found without walking the blocks
    // themselves. nidx -1 means the chain grew past XM_NIDX and is walked.
    int nidx;
    int stale;                // calls since the copy was given up
    int32_t ioff[XM_NIDX];   // the blocks, ascending: offset from start in 16-byte units
    int32_t isz[XM_NIDX];    // and their sizes in the same units
};

struct XMPOOL {
    char tag[4];     // "POOL", "POOH", "PUDL", "SUPV"
    int type;
    int flags;       // OR'ed into every allocation's flags
    int selflocked;  // depth of the recursive lock
    mutex_t plock;
    thread_t ptid;   // holder of plock; 0 when free
    long isa;
    long osa;        // growth unit; 0: never grows
    long size;       // item size of a fixed pool
    XMPUDL* puddles;
    thread_t owner;
    XMPOOL* next;
    XMPOOL* prev;
};

struct XMGCB {
    int initialized;
    long physpagesize;
    long pagesize;           // rounding unit of the manager: 1024
    XMPOOL* poolchain;
    unsigned long memsize;   // limit of the account
    unsigned long max_memsize;
    unsigned long cur_usage; // bytes drawn through xmgpage
    unsigned long max_usage;
    XMPOOL poolpool;         // items: pool records
    XMPOOL pudlpool;         // items: puddle records
    XMPOOL supvpool;         // the supervisor pool
    XMPOOL* defpool;         // the default pool
    mutex_t gcblock;         // guards poolchain and the account
};

// Start-up constants; xminit rounds them to pagesize.
extern long xm_pool_isa, xm_pool_osa, xm_pudl_isa, xm_pudl_osa, xm_supv_isa, xm_supv_osa;

// Held while the hs process block or the manager is being started. They
// start each other, hence one lock for both, and recursive.
extern mutex_t xm_startlock;

// The manager's own calls.
void* xmgitem(XMPOOL* pool);
void xmpitem(XMPOOL* pool, void* elem);
void* xmgpage(long size, int* zeroed);
void xmppage(void* storage, long size);
XMPUDL* xmgpudl(XMPOOL* pool, long size);
// Writes a variable puddle's free chain into its blocks from the index that
// holds it (nothing when the chain is walked already): call it before
// looking at u->free.
void xmchain(XMPUDL* u);
// The record behind a pool id (-1, -2 resolved), or null for id 0.
XMPOOL* xmresolve(xmpid pid);

}  // namespace vrta

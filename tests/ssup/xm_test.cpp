#include <gtest/gtest.h>
#include <sys/mman.h>
#include <algorithm>
#include <unistd.h>
#include <cstring>
#include <utility>
#include <vector>
#include "hs/hsgcb.h"
#include "ssup/thr.h"
#include "ssup/xmint.h"

using namespace vrta;

namespace {

XMGCB* manager() {
    EXPECT_EQ(0, hsgblinit());
    return HSGCB->xmgcb;
}

// (offset from the puddle start, size) of each block on the free chain.
std::vector<std::pair<long, long>> chain(XMPUDL* u) {
    std::vector<std::pair<long, long>> out;
    xmchain(u);
    for (XMFREE* f = u->free; f; f = f->next) out.emplace_back(reinterpret_cast<char*>(f) - u->start, f->size);
    return out;
}

char* at(void* p) { return static_cast<char*>(p); }

}  // namespace

TEST(MemoryPools, EmptyAndNullPoolsAreHarmless) {
    manager();
    xmpid pid = xmpoolc(1024, 1024, 0);
    ASSERT_NE(nullptr, pid);
    EXPECT_EQ(XM_EMPTY, xmalloc(pid, 0, 0));
    xmfree(pid, XM_EMPTY, 0);
    void* p = xmrealc(pid, XM_EMPTY, 0, 100, 0);
    ASSERT_NE(nullptr, p);
    EXPECT_NE(XM_EMPTY, p);
    EXPECT_EQ(XM_EMPTY, xmrealc(pid, p, 100, 0, 0));
    EXPECT_EQ(nullptr, xmalloc(XM_NOPOOL, 16, 0));
    EXPECT_EQ(XM_RC_BADPOOL, xmpoolr(XM_NOPOOL));
    xmpoold(XM_NOPOOL);
    xmpid fx = nullptr;
    EXPECT_EQ(0, xmpcfxd(&fx, 64, 2048, 0, 0, 0));
    ASSERT_NE(nullptr, fx);
    EXPECT_EQ(XM_TYPE_VAR, fx->type);  // a variable pool, whatever the name says
    xmpoold(fx);
    xmpoold(pid);
}

TEST(MemoryPools, PuddleIsUsedToItsEndAndPoolWithoutGrowthStops) {
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    ASSERT_NE(nullptr, pid);
    char* a = at(xmalloc(pid, 1000, 0));  // rounds to 1008
    char* b = at(xmalloc(pid, 16, 0));
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(a + 1008, b);
    EXPECT_EQ(pid->puddles->end, b + 16);
    EXPECT_EQ(nullptr, xmalloc(pid, 1, 0));
    xmpoold(pid);

    xmpid none = xmpoolc(0, 0, 0);
    ASSERT_NE(nullptr, none);
    EXPECT_EQ(nullptr, xmalloc(none, 16, 0));
    xmpoold(none);
}

TEST(MemoryPools, FreeMergesAdjacentBlocksInEitherOrder) {
    manager();
    for (int order = 0; order < 3; order++) {
        xmpid pid = xmpoolc(1024, 0, 0);
        char* a = at(xmalloc(pid, 64, 0));
        char* b = at(xmalloc(pid, 64, 0));
        char* c = at(xmalloc(pid, 64, 0));
        char* guard = at(xmalloc(pid, 16, 0));
        ASSERT_NE(nullptr, guard);
        XMPUDL* u = pid->puddles;
        if (order == 0) {
            xmfree(pid, a, 64);
            xmfree(pid, b, 64);
            EXPECT_EQ((std::vector<std::pair<long, long>>{{a - u->start, 128}}), chain(u));
        } else if (order == 1) {
            xmfree(pid, b, 64);
            xmfree(pid, a, 64);
            EXPECT_EQ((std::vector<std::pair<long, long>>{{a - u->start, 128}}), chain(u));
        } else {
            // a and c first: two blocks; b then joins all three.
            xmfree(pid, a, 64);
            xmfree(pid, c, 64);
            EXPECT_EQ(2u, chain(u).size());
            xmfree(pid, b, 64);
            EXPECT_EQ((std::vector<std::pair<long, long>>{{a - u->start, 192}}), chain(u));
        }
        xmpoold(pid);
    }
}

TEST(MemoryPools, FirstFitSplitsAndLastFreeBlockJoinsTheTail) {
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    char* a = at(xmalloc(pid, 128, 0));
    xmalloc(pid, 16, 0);  // keeps b from merging with what is left of a
    char* b = at(xmalloc(pid, 32, 0));
    XMPUDL* u = pid->puddles;
    xmfree(pid, a, 128);
    char* c = at(xmalloc(pid, 40, 0));  // 48 from the front of a
    EXPECT_EQ(a, c);
    EXPECT_EQ((std::vector<std::pair<long, long>>{{48, 80}}), chain(u));
    // b ends at hwmark: once free, a request larger than b takes b with the tail.
    xmfree(pid, b, 32);
    char* d = at(xmalloc(pid, 200, 0));
    EXPECT_EQ(b, d);
    EXPECT_EQ(b + 208, u->hwmark);
    EXPECT_EQ((std::vector<std::pair<long, long>>{{48, 80}}), chain(u));
    EXPECT_EQ(a + 48, xmalloc(pid, 80, 0));  // an exact fit is unlinked
    EXPECT_TRUE(chain(u).empty());
    xmpoold(pid);
}

TEST(MemoryPools, ZeroRequestClearsReusedMemory) {
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    char* a = at(xmalloc(pid, 64, 0));
    xmalloc(pid, 16, 0);
    memset(a, 0xAB, 64);
    xmfree(pid, a, 64);
    char* b = at(xmalloc(pid, 64, XM_ZERO));
    ASSERT_EQ(a, b);
    for (int i = 0; i < 64; i++) ASSERT_EQ(0, b[i]) << i;
    xmpoold(pid);
}

TEST(MemoryPools, HeaderReallocGrowsByAtLeast64AndKeepsSmallShrinks) {
    manager();
    xmpid pid = xmpoolc(4096, 0, 0);
    char* p = at(xmalloc(pid, 100, XM_HEADER));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(112, *reinterpret_cast<long*>(p - 8));
    memset(p, 'x', 100);
    char* blocker = at(xmalloc(pid, 16, 0));  // nothing free behind p
    ASSERT_NE(nullptr, blocker);
    char* q = at(xmrealc(pid, p, -1, 120, 0));
    ASSERT_NE(nullptr, q);
    EXPECT_NE(p, q);
    EXPECT_EQ(112 + 64, *reinterpret_cast<long*>(q - 8));
    for (int i = 0; i < 100; i++) ASSERT_EQ('x', q[i]);
    // Shrinking by less than 64 keeps the block and clears what lies behind.
    char* r = at(xmrealc(pid, q, -1, 130, 0));
    EXPECT_EQ(q, r);
    EXPECT_EQ(112 + 64, *reinterpret_cast<long*>(r - 8));
    // q is at hwmark now: growing by a lot stays in place.
    char* s = at(xmrealc(pid, r, -1, 1000, 0));
    EXPECT_EQ(r, s);
    EXPECT_EQ((1000 + 39) & ~31L, *reinterpret_cast<long*>(s - 8));
    xmfree(pid, s, -1);
    xmpoold(pid);
}

TEST(MemoryPools, PlainReallocInPlaceMoveAndNoMove) {
    manager();
    xmpid pid = xmpoolc(4096, 0, 0);
    char* a = at(xmalloc(pid, 32, 0));
    char* b = at(xmalloc(pid, 64, 0));
    char* c = at(xmalloc(pid, 16, 0));
    XMPUDL* u = pid->puddles;
    memcpy(a, "0123456789abcdefghijklmnopqrstu", 32);
    // Blocked by b: no move allowed gives null and a stays good.
    EXPECT_EQ(nullptr, xmrealc(pid, a, 32, 48, XM_NOMOVE));
    EXPECT_EQ(0, memcmp(a, "0123456789abcdefghijklmnopqrstu", 32));
    // b free: a grows into its front, the rest of b stays on the chain.
    xmfree(pid, b, 64);
    EXPECT_EQ(a, xmrealc(pid, a, 32, 48, XM_NOMOVE | XM_ZERO));
    EXPECT_EQ((std::vector<std::pair<long, long>>{{(a - u->start) + 48, 48}}), chain(u));
    for (int i = 32; i < 48; i++) ASSERT_EQ(0, a[i]);
    // Shrinking gives the tail back and it merges with the free block after it.
    EXPECT_EQ(a, xmrealc(pid, a, 48, 16, 0));
    EXPECT_EQ((std::vector<std::pair<long, long>>{{(a - u->start) + 16, 80}}), chain(u));
    // Too big for the gap: the block moves and keeps its bytes.
    char* m = at(xmrealc(pid, a, 16, 500, 0));
    ASSERT_NE(nullptr, m);
    EXPECT_NE(a, m);
    EXPECT_EQ(0, memcmp(m, "0123456789abcdef", 16));
    (void)c;
    xmpoold(pid);
}

TEST(MemoryPools, DoubleFreeIsReportedAndDoesNotLoopTheChain) {
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    char* a = at(xmalloc(pid, 64, 0));
    xmalloc(pid, 16, 0);
    xmfree(pid, a, 64);
    testing::internal::CaptureStderr();
    xmfree(pid, a, 64);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("xmfree() ERROR: free chain overlap detected!"));
    EXPECT_EQ(1u, chain(pid->puddles).size());
    EXPECT_EQ(a, xmalloc(pid, 64, 0));
    // An address outside every puddle is ignored.
    char other[64];
    xmfree(pid, other, 64);
    xmpoold(pid);
}

TEST(MemoryPoolsDeath, FreeOfZeroLengthKillsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    void* a = xmalloc(pid, 64, 0);
    EXPECT_DEATH(xmfree(pid, a, 0), "");
    xmpoold(pid);
}

TEST(MemoryPools, StackPoolBumpsResetsAndGrowsAtTheHead) {
    manager();
    xmpid pid = xmpoolc(1024, 1024, XM_STACK);
    ASSERT_EQ(XM_TYPE_STACK, pid->type);
    char* a = at(xmalloc(pid, 3, 0));
    char* b = at(xmalloc(pid, 9, 0));
    EXPECT_EQ(a + 8, b);
    xmfree(pid, a, 3);  // nothing comes back before a reset
    char* c = at(xmalloc(pid, 8, 0));
    EXPECT_EQ(b + 16, c);
    XMPUDL* first = pid->puddles;
    char* big = at(xmalloc(pid, 1020, 0));
    ASSERT_NE(nullptr, big);
    EXPECT_NE(first, pid->puddles);  // the new puddle went to the head
    EXPECT_EQ(0, xmpoolr(pid));
    for (XMPUDL* u = pid->puddles; u; u = u->next) {
        EXPECT_EQ(u->start, u->hwmark);
        EXPECT_EQ(0, u->flags & XM_PUDL_ZERO);
    }
    EXPECT_EQ(pid->puddles->start, xmalloc(pid, 8, 0));
    xmpoold(pid);
}

TEST(MemoryPools, FixedPoolNeverHandsOutTheLastSlot) {
    manager();
    // A fixed pool is the manager's own kind; make one from a fresh pool record.
    xmpid pid = xmpoolc(1024, 0, 0);
    pid->type = XM_TYPE_FIXED;
    pid->size = 64;
    std::vector<void*> got;
    while (void* it = xmalloc(pid, 1, 0)) got.push_back(it);
    EXPECT_EQ(1024u / 64 - 1, got.size());
    xmfree(pid, got[3], 64);
    EXPECT_EQ(got[3], xmalloc(pid, 1, 0));
    pid->type = XM_TYPE_VAR;
    xmpoold(pid);
}

TEST(MemoryPools, AccountLimitStopsNewPagesOnly) {
    XMGCB* g = manager();
    xmpid pid = xmpoolc(1024, 1024, 0);
    unsigned long before = g->memsize;
    ASSERT_EQ(0, xmemsize(g->cur_usage));
    EXPECT_EQ(nullptr, xmpoolc(1024, 0, 0));
    EXPECT_NE(nullptr, xmalloc(pid, 100, 0));     // room in the puddle it has
    EXPECT_EQ(nullptr, xmalloc(pid, 2000, 0));    // a new puddle would be a new page
    ASSERT_EQ(0, xmemsize(before));
    EXPECT_NE(nullptr, xmalloc(pid, 2000, 0));
    unsigned long used = g->cur_usage;
    xmpoold(pid);
    EXPECT_LT(g->cur_usage, used);
    EXPECT_GE(g->max_usage, used);
}

TEST(MemoryPools, SpecialIdsResolveToSharedPools) {
    XMGCB* g = manager();
    ASSERT_EQ(nullptr, vvxmpid());  // this thread has no local block
    void* d = xmalloc(XM_THREADPOOL, 40, 0);
    ASSERT_NE(nullptr, d);
    bool indef = false;
    for (XMPUDL* u = g->defpool->puddles; u; u = u->next) indef |= (at(d) >= u->start && at(d) < u->end);
    EXPECT_TRUE(indef);
    // The default pool keeps a length header, so a free needs no length.
    xmfree(XM_THREADPOOL, d, -1);
    void* s = xmalloc(XM_SUPVPOOL, 40, XM_ZERO);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(0, memcmp(s, std::string(40, '\0').data(), 40));
    xmfree(XM_SUPVPOOL, s, -1);
    // Neither the default nor the supervisor pool can be destroyed by callers.
    xmpoold(XM_THREADPOOL);
    xmpoold(XM_SUPVPOOL);
    EXPECT_NE(nullptr, xmalloc(XM_THREADPOOL, 8, 0));
    EXPECT_NE(nullptr, xmemex(8));
}

TEST(MemoryPools, CodegenPuddlesRunOnceMadeExecutableAndHighMemoryWorks) {
    manager();
    xmpid cg = xmpoolc(4096, 4096, XM_CODEGEN);
    ASSERT_NE(nullptr, cg);
    auto* code = static_cast<unsigned char*>(xmalloc(cg, 16, 0));
    ASSERT_NE(nullptr, code);
    const unsigned char ret42[] = {0xB8, 42, 0, 0, 0, 0xC3};  // mov eax, 42; ret
    memcpy(code, ret42, sizeof(ret42));
    // Written while writable, then read+execute: never both.
    long page = sysconf(_SC_PAGESIZE);
    void* start = reinterpret_cast<void*>(reinterpret_cast<unsigned long>(code) & ~static_cast<unsigned long>(page - 1));
    ASSERT_EQ(0, mprotect(start, page, PROT_READ | PROT_EXEC));
    int (*fn)() = reinterpret_cast<int (*)()>(code);
    EXPECT_EQ(42, fn());
    xmpoold(cg);

    xmpid hi = xmpoolc(8192, 8192, XM_HIMEM | XM_ZERO);
    ASSERT_NE(nullptr, hi);
    std::vector<char*> blocks;
    for (int i = 0; i < 10; i++) {
        char* b = at(xmalloc(hi, 3000, 0));
        ASSERT_NE(nullptr, b);
        for (int j = 0; j < 3000; j++) ASSERT_EQ(0, b[j]);
        memset(b, i, 3000);
        blocks.push_back(b);
    }
    for (int i = 0; i < 10; i++) EXPECT_EQ(i, blocks[i][2999]);
    xmpoold(hi);
}

TEST(MemoryPools, ThreadsSharingAPoolKeepItConsistent) {
    manager();
    xmpid pid = xmpoolc(0x4000, 0x4000, 0);
    struct Ctx {
        xmpid pid;
        int id;
        bool ok = true;
    };
    auto work = [](void* arg) -> void* {
        auto* c = static_cast<Ctx*>(arg);
        std::vector<std::pair<unsigned char*, long>> live;
        unsigned seed = 7 + c->id;
        for (int i = 0; i < 4000; i++) {
            seed = seed * 1103515245 + 12345;
            if (live.size() < 40 && (seed >> 16) % 3 != 0) {
                long len = 1 + (seed >> 8) % 300;
                auto* p = static_cast<unsigned char*>(xmalloc(c->pid, len, 0));
                if (!p) { c->ok = false; break; }
                memset(p, c->id, len);
                live.emplace_back(p, len);
            } else if (!live.empty()) {
                auto [p, len] = live.back();
                live.pop_back();
                for (long k = 0; k < len; k++) if (p[k] != c->id) c->ok = false;
                xmfree(c->pid, p, len);
            }
        }
        for (auto [p, len] : live) xmfree(c->pid, p, len);
        return nullptr;
    };
    Ctx ctx[4];
    thread_t tid[4];
    for (int i = 0; i < 4; i++) {
        ctx[i].pid = pid;
        ctx[i].id = i + 1;
        ASSERT_EQ(0, thr_create(nullptr, 0, work, &ctx[i], 0, &tid[i]));
    }
    for (int i = 0; i < 4; i++) thr_join(tid[i], nullptr);
    for (int i = 0; i < 4; i++) EXPECT_TRUE(ctx[i].ok) << i;
    // Everything came back: each puddle's chain is one block up to its hwmark,
    // or nothing at all.
    for (XMPUDL* u = pid->puddles; u; u = u->next) {
        auto c = chain(u);
        ASSERT_LE(c.size(), 1u);
        if (c.size() == 1) {
            EXPECT_EQ(0, c[0].first);
            EXPECT_EQ(u->hwmark - u->start, c[0].second);
        }
    }
    xmpoold(pid);
}

namespace {

// The free chain as the first-fit rules have it, on offsets of one puddle.
struct ChainModel {
    std::vector<std::pair<long, long>> free;  // (offset, size), ascending
    long hwmark = 0, end = 0;

    long take(long size) {
        for (size_t i = 0; i < free.size(); i++) {
            auto& f = free[i];
            if (f.second > size) {
                long at = f.first;
                f.first += size;
                f.second -= size;
                return at;
            }
            bool last = i + 1 == free.size();
            if (f.second == size || (last && f.first + f.second == hwmark && f.second + (end - hwmark) >= size)) {
                long at = f.first;
                if (f.second != size) hwmark = at + size;
                free.erase(free.begin() + i);
                return at;
            }
        }
        if (end - hwmark < size) return -1;
        hwmark += size;
        return hwmark - size;
    }
    void give(long at, long size) {
        size_t pos = 0;
        while (pos < free.size() && free[pos].first <= at) pos++;
        if (pos > 0 && free[pos - 1].first + free[pos - 1].second == at) {
            free[pos - 1].second += size;
            if (pos < free.size() && free[pos - 1].first + free[pos - 1].second == free[pos].first) {
                free[pos - 1].second += free[pos].second;
                free.erase(free.begin() + pos);
            }
        } else if (pos < free.size() && at + size == free[pos].first) {
            free[pos] = {at, size + free[pos].second};
        } else {
            free.insert(free.begin() + pos, {at, size});
        }
    }
};

}  // namespace

// Random takes and gives of random sizes against the rules: the same blocks
// and the same chain whether it is short enough to be indexed, or grows past
// the index and is walked, and after it has shrunk back.
TEST(MemoryPools, FreeChainFollowsFirstFitAtAnyLength) {
    manager();
    xmpid pid = xmpoolc(0x40000, 0, 0);
    XMPUDL* u = pid->puddles;
    ChainModel m;
    m.end = u->end - u->start;
    std::vector<std::pair<char*, long>> live;
    unsigned seed = 12345;
    auto rnd = [&](unsigned n) {
        seed = seed * 1103515245 + 12345;
        return (seed >> 8) % n;
    };
    bool wentlong = false;
    for (int step = 0; step < 20000; step++) {
        // Phases: mostly takes, mostly gives (a long chain), then even.
        int phase = (step / 2500) % 4;
        bool give = !live.empty() && (phase == 1 ? rnd(4) != 0 : phase == 0 ? rnd(5) == 0 : rnd(2) == 0);
        if (give) {
            size_t k = rnd(static_cast<unsigned>(live.size()));
            auto [p, len] = live[k];
            live.erase(live.begin() + k);
            xmfree(pid, p, len);
            m.give(p - u->start, (len + 15) & ~15L);
        } else {
            long len = 1 + rnd(700);
            char* p = static_cast<char*>(xmalloc(pid, len, 0));
            long want = m.take((len + 15) & ~15L);
            ASSERT_EQ(want, p ? p - u->start : -1) << "step " << step;
            if (p) live.emplace_back(p, len);
        }
        wentlong |= u->nidx < 0;
        if (step % 97 == 0 || step > 19900) {
            auto have = chain(u);
            auto d = std::mismatch(m.free.begin(), m.free.end(), have.begin(), have.end());
            ASSERT_TRUE(d.first == m.free.end() && d.second == have.end())
                << "step " << step << ": at entry " << (d.first - m.free.begin()) << " of " << m.free.size() << "/"
                << have.size() << " nidx " << u->nidx;
        }
    }
    EXPECT_TRUE(wentlong);  // the chain outgrew the index at some point
    for (auto [p, len] : live) xmfree(pid, p, len);
    xmpoold(pid);
}

TEST(MemoryPools, OnlyVariablePoolsResizeAndADestroyedIdIsIgnored) {
    manager();
    xmpid st = xmpoolc(1024, 0, XM_STACK);
    void* a = xmalloc(st, 16, 0);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(nullptr, xmrealc(st, a, 16, 32, 0));
    xmpoold(st);
    xmpoold(st);  // the record no longer says "POOL": nothing happens
    EXPECT_NE(0, memcmp(st->tag, "POOL", 4));
}

#if defined(__SANITIZE_ADDRESS__)
TEST(MemoryPoolsDeath, SanitizerSeesFreedAndResetMemory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    manager();
    xmpid pid = xmpoolc(1024, 0, 0);
    auto* a = static_cast<volatile char*>(xmalloc(pid, 64, 0));
    xmalloc(pid, 16, 0);
    a[63] = 1;  // fine while it is ours
    xmfree(pid, const_cast<char*>(a), 64);
    EXPECT_DEATH(a[40] = 2, "use-after-poison");
    auto* b = static_cast<volatile char*>(xmalloc(pid, 32, 0));
    EXPECT_DEATH(b[56] = 2, "use-after-poison");  // past the block, in what is still free
    EXPECT_EQ(0, xmpoolr(pid));
    EXPECT_DEATH(b[0] = 2, "use-after-poison");
    xmpoold(pid);
}
#endif

// The group-by's tree memory: blocks as large as the pool's growth unit,
// taken and given back in turns by several threads' worth of trees.
TEST(MemoryPools, BlocksOfTheGrowthUnitComeAndGoWithoutOverlap) {
    manager();
    constexpr long OSA = 0x200000;
    xmpid pid = xmpoolc(2L << 16, OSA, 0);
    ASSERT_NE(nullptr, pid);
    std::vector<char*> live;
    for (int round = 0; round < 6; round++) {
        for (int i = 0; i < 4; i++) {
            char* p = static_cast<char*>(xmalloc(pid, OSA, 0));
            ASSERT_NE(nullptr, p) << "round " << round << " block " << i;
            for (char* q : live) ASSERT_TRUE(p + OSA <= q || q + OSA <= p) << "round " << round;
            memset(p, round * 4 + i + 1, OSA);
            live.push_back(p);
        }
        // Give back every other one first, then the rest in reverse.
        for (size_t i = 0; i < live.size(); i += 2) {
            EXPECT_EQ(static_cast<char>(round * 4 + i + 1), live[i][OSA - 1]);
            xmfree(pid, live[i], OSA);
        }
        for (size_t i = live.size(); i-- > 0;)
            if (i % 2) xmfree(pid, live[i], OSA);
        live.clear();
        for (XMPUDL* u = pid->puddles; u; u = u->next) chain(u);  // the chains stay walkable
    }
    xmpoold(pid);
}

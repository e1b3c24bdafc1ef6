// Allocation fast path: xmalloc/xmfree in a private variable pool against
// malloc/free, sizes 16 to 1024 bytes, in one run.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "ssup/xm.h"

using namespace vrta;

namespace {

// A fixed mix of sizes so that both allocators see the same requests.
std::vector<long> sizes(size_t n, long lo, long hi) {
    std::mt19937 rng(42);
    std::uniform_int_distribution<long> d(lo, hi);
    std::vector<long> v(n);
    for (auto& s : v) s = d(rng);
    return v;
}

constexpr size_t kLive = 64;     // blocks held at once: a working set, not one block
constexpr size_t kSizes = 4096;  // a power of two, so that picking the next size costs no division

void BM_xmalloc(benchmark::State& state) {
    long lo = state.range(0), hi = state.range(1);
    auto sz = sizes(kSizes, lo, hi);
    xmpid pool = xmpoolc(0x20000, 0x20000, 0);
    std::vector<void*> live(kLive, nullptr);
    std::vector<long> lens(kLive, 0);
    size_t i = 0;
    for (auto _ : state) {
        size_t slot = i % kLive;
        if (live[slot]) xmfree(pool, live[slot], lens[slot]);
        lens[slot] = sz[i & (kSizes - 1)];
        live[slot] = xmalloc(pool, lens[slot], 0);
        benchmark::DoNotOptimize(live[slot]);
        ++i;
    }
    xmpoold(pool);
    state.SetItemsProcessed(state.iterations());
}

void BM_malloc(benchmark::State& state) {
    long lo = state.range(0), hi = state.range(1);
    auto sz = sizes(kSizes, lo, hi);
    std::vector<void*> live(kLive, nullptr);
    size_t i = 0;
    for (auto _ : state) {
        size_t slot = i % kLive;
        std::free(live[slot]);
        live[slot] = std::malloc(static_cast<size_t>(sz[i & (kSizes - 1)]));
        benchmark::DoNotOptimize(live[slot]);
        ++i;
    }
    for (void* p : live) std::free(p);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_xmalloc)->Args({16, 16})->Args({64, 64})->Args({256, 256})->Args({1024, 1024})->Args({16, 1024});
BENCHMARK(BM_malloc)->Args({16, 16})->Args({64, 64})->Args({256, 256})->Args({1024, 1024})->Args({16, 1024});
BENCHMARK_MAIN();

// A row conversion shaped program (50 columns of numbers from a big-endian
// host and of text) run three ways on the same blocks of rows in one
// process: as generated code, through the reference interpreter of the
// intermediate code, and as a loop written by hand for exactly these
// columns, once calling the same conversion helper per number and once with
// the byte swap written inline. Rates are rows per second.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "hs/hs.h"
#include "ssup/vghelp.h"
#include "ssup/wg.h"
#include "wgref.h"
#include "wgrow.h"

using namespace vrta;

namespace {

constexpr int NCOLS = 50;
constexpr long BLOCK = 1000;  // rows per call, as a block of rows arrives

// The same layout as wgrow::layout, known when this file is compiled.
struct Op {
    bool number;
    int pos, len;
};
constexpr std::array<wgrow::Col, NCOLS> cols() {
    std::array<wgrow::Col, NCOLS> c{};
    int pos = 0;
    unsigned x = 12345;
    for (int i = 0; i < NCOLS; i++) {
        x = x * 1103515245 + 12345;
        bool number = (x >> 16) % 5 < 3;
        int len = number ? 8 : 4 + static_cast<int>((x >> 8) % 13);
        c[i] = {number, pos, len};
        pos += len;
    }
    return c;
}
constexpr int rowsize() { return cols()[NCOLS - 1].pos + cols()[NCOLS - 1].len; }
// Neighbouring text columns merged, as the program merges them.
constexpr int nops() {
    int n = 0;
    auto c = cols();
    for (int i = 0; i < NCOLS; i++, n++)
        if (!c[i].number)
            while (i + 1 < NCOLS && !c[i + 1].number) i++;
    return n;
}
constexpr std::array<Op, nops()> ops() {
    std::array<Op, nops()> o{};
    auto c = cols();
    int n = 0;
    for (int i = 0; i < NCOLS; i++) {
        Op op{c[i].number, c[i].pos, c[i].len};
        if (!c[i].number)
            while (i + 1 < NCOLS && !c[i + 1].number) op.len += c[++i].len;
        o[n++] = op;
    }
    return o;
}

template <size_t... I>
void handrow(const unsigned char* from, unsigned char* to, std::index_sequence<I...>) {
    constexpr auto o = ops();
    auto one = [&](const Op& op) {
        if (op.number) vvgredbl(from + op.pos, 8, to + op.pos, 8, wgrow::FOREIGN);
        else memcpy(to + op.pos, from + op.pos, op.len);
    };
    (one(o[I]), ...);
}

template <size_t... I>
void inlinerow(const unsigned char* from, unsigned char* to, std::index_sequence<I...>) {
    constexpr auto o = ops();
    auto one = [&](const Op& op) {
        if (op.number) {
            uint64_t u;
            memcpy(&u, from + op.pos, 8);
            u = __builtin_bswap64(u);
            memcpy(to + op.pos, &u, 8);
        } else {
            memcpy(to + op.pos, from + op.pos, op.len);
        }
    };
    (one(o[I]), ...);
}

struct Fixture {
    std::vector<wgrow::Col> layout;
    int size = 0;
    std::vector<unsigned char> in, out;
    VGSEGHD* s = nullptr;
    wgrow::Block b{};
    std::vector<wgref::Inst> code;
    Fixture() {
        if (hsgblinit() != 0) {
            std::fputs("bench_codegen: the runtime does not start\n", stderr);
            std::exit(1);
        }
        layout = wgrow::layout(NCOLS, &size);
        in.resize(BLOCK * size);
        out.resize(BLOCK * size);
        wgrow::fill(in.data(), BLOCK, size, layout);
        if (wgopen(&s, 1, nullptr, 0) != 0 || wgrow::build(s, layout, &b, &code) != 0) abort();
        wgrow::setblock(s, b, in.data(), out.data(), BLOCK, size);
    }
};

Fixture& fx() {
    static Fixture f;
    return f;
}

void BM_Generated(benchmark::State& st) {
    Fixture& f = fx();
    WGFAST entry = wgentry(f.s);
    for (auto _ : st) {
        wgrow::setblock(f.s, f.b, f.in.data(), f.out.data(), BLOCK, f.size);
        benchmark::DoNotOptimize(entry());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * BLOCK);
}

void BM_Interpreter(benchmark::State& st) {
    Fixture& f = fx();
    wgref::Machine m;
    m.code = f.code;
    m.seg0.assign(10, 0);
    for (auto _ : st) {
        m.seg0[f.b.basefrom / 8] = reinterpret_cast<uint64_t>(f.in.data());
        m.seg0[f.b.baseto / 8] = reinterpret_cast<uint64_t>(f.out.data());
        m.seg0[f.b.numobs / 8] = BLOCK;
        m.seg0[f.b.obssize / 8] = f.size;
        benchmark::DoNotOptimize(m.run().ret);
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * BLOCK);
}

void BM_HandLoop(benchmark::State& st) {
    static_assert(rowsize() > 0);
    Fixture& f = fx();
    if (f.size != rowsize()) st.SkipWithError("layouts differ");
    for (auto _ : st) {
        const unsigned char* from = f.in.data();
        unsigned char* to = f.out.data();
        for (long r = 0; r < BLOCK; r++, from += rowsize(), to += rowsize())
            handrow(from, to, std::make_index_sequence<nops()>());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * BLOCK);
}

void BM_HandInline(benchmark::State& st) {
    Fixture& f = fx();
    for (auto _ : st) {
        const unsigned char* from = f.in.data();
        unsigned char* to = f.out.data();
        for (long r = 0; r < BLOCK; r++, from += rowsize(), to += rowsize())
            inlinerow(from, to, std::make_index_sequence<nops()>());
        benchmark::ClobberMemory();
    }
    st.SetItemsProcessed(st.iterations() * BLOCK);
}

}  // namespace

// 10 million rows each, the interpreter a tenth of them.
BENCHMARK(BM_Generated)->Iterations(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HandLoop)->Iterations(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HandInline)->Iterations(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Interpreter)->Iterations(1000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

// The cost of calling a library function or format through its code, as the
// WHERE evaluator and the group-by key builder do, against the same work
// done by a direct call in the same run: the ratio is what the table, the
// argument check and the dispatch add.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sfmt/fmt.h"
#include "sfnc/xf.h"
#include "ssubs/vz.h"

using namespace vrta;

namespace {

long fcode(const char* name) {
    long c = 0;
    FNCSTR a{};
    if (find_fnc(name, static_cast<int>(strlen(name)), 'U', &a, &c) != 0) {
        std::fprintf(stderr, "bench_fnc: no function %s\n", name);
        std::exit(1);
    }
    return c;
}

// A block of n numeric arguments over vals.
std::vector<char> block(std::vector<double>& vals) {
    std::vector<char> mem(static_cast<size_t>(xfparsize(static_cast<long>(vals.size()))));
    FNCPAR* p = reinterpret_cast<FNCPAR*>(mem.data());
    p->par[0].loc.n = static_cast<long>(vals.size());
    for (size_t i = 0; i < vals.size(); i++) {
        p->par[i + 1].type = XF_NUM;
        p->par[i + 1].loc.dp = &vals[i];
    }
    return mem;
}

void BM_DirectNorm(benchmark::State& st) {
    double x = 0.3, r = 0;
    for (auto _ : st) {
        r = 0.5 * std::erfc(-x / M_SQRT2);
        benchmark::DoNotOptimize(r);
        x += 1e-9;
    }
}

void BM_CodeNorm(benchmark::State& st) {
    std::vector<double> v{0.3};
    auto mem = block(v);
    FNCPAR* p = reinterpret_cast<FNCPAR*>(mem.data());
    long code = fcode("PROBNORM");
    double r = 0;
    for (auto _ : st) {
        xfxfn(code, p, &r);
        benchmark::DoNotOptimize(r);
        v[0] += 1e-9;
    }
}

void BM_DirectMean(benchmark::State& st) {
    std::vector<double> v{1, 2, 3, 4, 5, 6};
    for (auto _ : st) {
        double s = 0;
        int n = 0;
        for (double x : v)
            if (!vzismiss(x)) s += x, n++;
        benchmark::DoNotOptimize(s / n);
        v[0] += 1e-9;
    }
}

void BM_CodeMean(benchmark::State& st) {
    std::vector<double> v{1, 2, 3, 4, 5, 6};
    auto mem = block(v);
    FNCPAR* p = reinterpret_cast<FNCPAR*>(mem.data());
    long code = fcode("MEAN");
    double r = 0;
    for (auto _ : st) {
        xfxfn(code, p, &r);
        benchmark::DoNotOptimize(r);
        v[0] += 1e-9;
    }
}

void BM_DirectDate(benchmark::State& st) {
    char buf[16];
    int d = 1;
    for (auto _ : st) {
        snprintf(buf, sizeof buf, "%02d%s%04d", d % 28 + 1, "FEB", 2000);
        benchmark::DoNotOptimize(buf);
        d++;
    }
}

void BM_CodeDate(benchmark::State& st) {
    char buf[16];
    long code = 0;
    FMTSTR a{};
    if (xfname("DATE", 4, 'F', &a, &code) != 0) {
        st.SkipWithError("no format DATE");
        return;
    }
    double d = 14600;
    for (auto _ : st) {
        xfxpn(nullptr, d, 9, 0, code, buf);
        benchmark::DoNotOptimize(buf);
        d += 1;
        if (d > 15000) d = 14600;
    }
}

}  // namespace

BENCHMARK(BM_DirectNorm);
BENCHMARK(BM_CodeNorm);
BENCHMARK(BM_DirectMean);
BENCHMARK(BM_CodeMean);
BENCHMARK(BM_DirectDate);
BENCHMARK(BM_CodeDate);
BENCHMARK_MAIN();

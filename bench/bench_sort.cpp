// The external sorter on fixed-length records.
//
//   bench_sort IN OUT KEYLEN RECLEN MEMBYTES [WORKDIR]
//       sorts the records of IN by their first KEYLEN bytes into OUT, in
//       MEMBYTES of sort memory, spilling to WORKDIR; what bench_sort.sh
//       times against GNU sort on the same bytes.
//   bench_sort [benchmark flags]
//       in-process figures: a bin of 100-byte records sorted by the sorter,
//       against std::sort of the same records through an index.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "hs/sr.h"
#include "option/op.h"

using namespace vrta;

namespace {

bool readall(int fd, char* buf, long n, long* got) {
    *got = 0;
    while (*got < n) {
        ssize_t r = read(fd, buf + *got, n - *got);
        if (r < 0) return false;
        if (r == 0) break;
        *got += r;
    }
    return true;
}

bool writeall(int fd, const char* buf, long n) {
    for (long done = 0; done < n;) {
        ssize_t w = write(fd, buf + done, n - done);
        if (w <= 0) return false;
        done += w;
    }
    return true;
}

int sortfile(int argc, char** argv) {
    const char* in = argv[1];
    const char* out = argv[2];
    int keylen = atoi(argv[3]), reclen = atoi(argv[4]);
    long long mem = atoll(argv[5]);
    if (keylen <= 0 || reclen < keylen || mem <= 0) {
        fprintf(stderr, "bench_sort: bad KEYLEN, RECLEN or MEMBYTES\n");
        return 2;
    }
    opinitgbl();
    if (argc > 6) opsetop(opgtgbl(), "WORKPATH", argv[6], static_cast<int>(strlen(argv[6])));
    int ifd = open(in, O_RDONLY), ofd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (ifd < 0 || ofd < 0) {
        perror("bench_sort: open");
        return 1;
    }
    SR_PARMS p{};
    p.key_size = keylen;
    p.aux_size = reclen - keylen;
    p.mem_size = static_cast<size_t>(mem);
    p.merge_size = static_cast<size_t>(mem);
    p.flags = SR_EXACTMEM;
    SR_CTX* sp = nullptr;
    rctype rc = sropen(&p, &sp);
    for (bool more = rc >= 0; more;) {
        char* bin;
        long room;
        if ((rc = sraddbin(sp, &bin, &room, nullptr)) < 0) break;
        long got = 0;
        if (!readall(ifd, bin, room * reclen, &got)) {
            perror("bench_sort: read");
            return 1;
        }
        more = got == room * reclen;
        if ((rc = srendbin(sp, got / reclen)) < 0) break;
    }
    if (rc >= 0) rc = srfinish(sp);
    std::vector<char> obuf(1 << 20);
    long used = 0;
    char* rec;
    long l = 0;
    while (rc >= 0 && (l = srnextrec(sp, &rec)) > 0) {
        if (used + l > static_cast<long>(obuf.size())) {
            if (!writeall(ofd, obuf.data(), used)) return 1;
            used = 0;
        }
        memcpy(obuf.data() + used, rec, l);
        used += l;
    }
    if (l < 0) rc = static_cast<rctype>(l);
    if (rc >= 0 && !writeall(ofd, obuf.data(), used)) return 1;
    if (srclose(sp) < 0) return 1;
    close(ifd);
    if (close(ofd) != 0) return 1;
    if (rc < 0) {
        fprintf(stderr, "bench_sort: %s\n", hsstrer(rc));
        return 1;
    }
    return 0;
}

std::vector<char> records(long n) {
    std::vector<char> v(n * 100);
    std::mt19937 rng(1);
    for (long i = 0; i < n; ++i)
        for (int k = 0; k < 100; ++k) v[i * 100 + k] = static_cast<char>(' ' + rng() % 95);
    return v;
}

void BM_SorterBin(benchmark::State& st) {
    long n = st.range(0);
    auto data = records(n);
    opinitgbl();
    for (auto _ : st) {
        SR_PARMS p{};
        p.key_size = 10;
        p.aux_size = 90;
        p.mem_size = n * 100 + 4096;
        p.flags = SR_EXACTMEM;
        SR_CTX* sp = nullptr;
        if (sropen(&p, &sp) < 0) {
            st.SkipWithError("sropen");
            break;
        }
        char* bin;
        long room;
        if (sraddbin(sp, &bin, &room, nullptr) < 0 || room < n) {
            st.SkipWithError("sraddbin");
            rcignore(srclose(sp));
            break;
        }
        memcpy(bin, data.data(), n * 100);
        if (srendbin(sp, n) < 0 || srfinish(sp) < 0) {
            st.SkipWithError("srendbin/srfinish");
            rcignore(srclose(sp));
            break;
        }
        char* rec;
        long sum = 0;
        while (srnextrec(sp, &rec) > 0) sum += rec[0];
        benchmark::DoNotOptimize(sum);
        if (srclose(sp) < 0) {
            st.SkipWithError("srclose");
            break;
        }
    }
    st.SetItemsProcessed(st.iterations() * n);
}
BENCHMARK(BM_SorterBin)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

// The baseline: an index sorted by std::sort, records then copied in order.
void BM_StdSortIndex(benchmark::State& st) {
    long n = st.range(0);
    auto data = records(n);
    for (auto _ : st) {
        std::vector<char> copy = data;
        std::vector<const char*> idx(n);
        for (long i = 0; i < n; ++i) idx[i] = copy.data() + i * 100;
        std::sort(idx.begin(), idx.end(), [](const char* a, const char* b) { return memcmp(a, b, 10) < 0; });
        long sum = 0;
        for (const char* r : idx) sum += r[0];
        benchmark::DoNotOptimize(sum);
    }
    st.SetItemsProcessed(st.iterations() * n);
}
BENCHMARK(BM_StdSortIndex)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 6 && argv[1][0] != '-') return sortfile(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

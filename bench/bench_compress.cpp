// Throughput and ratio of the three block compressors on table rows.
//
//   bench_compress --gen FILE MIB     write MIB MiB of realistic table rows
//   bench_compress --file FILE        code FILE in 64 KiB blocks with each
//                                     compressor; one line per compressor
//   bench_compress [benchmark flags]  Google Benchmark runs on a 4 MiB sample
//
// Blocks that do not shrink are counted at their raw size, as a table keeps
// them raw.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "hs/hscmp.h"

using namespace vrta;

namespace {

constexpr long BLOCK = 65536;

// One 96-byte row: key, amount, date and quantity as doubles, then blank
// padded text columns, as a typical fact table holds them.
void makeRows(std::vector<unsigned char>& out, size_t bytes, unsigned seed) {
    std::mt19937_64 rng(seed);
    static const char* const names[] = {"ANDERSEN", "BAKER", "CHEN", "DUBOIS", "EVANS", "FISCHER", "GARCIA",
                                        "HUANG", "IVANOVA", "JOHNSON", "KOWALSKI", "LOPEZ", "MUELLER", "NGUYEN"};
    static const char* const cities[] = {"OSLO", "LYON", "PORTO", "DENVER", "OSAKA", "PERTH", "LEEDS", "GRAZ"};
    static const char* const codes[] = {"A1", "B7", "C3", "Z9"};
    out.resize(bytes);
    size_t at = 0;
    double key = 1;
    unsigned char row[96];
    while (at < bytes) {
        std::memset(row, ' ', sizeof row);
        double amount = static_cast<double>(rng() % 1000000) / 100.0;
        double date = 22000 + static_cast<double>(rng() % 1500);
        double qty = static_cast<double>(rng() % 20 + 1);
        std::memcpy(row, &key, 8);
        std::memcpy(row + 8, &amount, 8);
        std::memcpy(row + 16, &date, 8);
        std::memcpy(row + 24, &qty, 8);
        const char* n = names[rng() % 14];
        std::memcpy(row + 32, n, std::strlen(n));
        const char* c = cities[rng() % 8];
        std::memcpy(row + 64, c, std::strlen(c));
        std::memcpy(row + 88, codes[rng() % 4], 2);
        row[95] = (rng() % 10 == 0) ? 'Y' : 'N';
        const size_t n2 = bytes - at < sizeof row ? bytes - at : sizeof row;
        std::memcpy(out.data() + at, row, n2);
        at += n2;
        key += 1;
    }
}

struct Coder {
    const char* name;
    // Coded length, or -1 when the block is kept raw.
    long (*pack)(HS_CBLK*, const unsigned char*, long, unsigned char*);
    long (*unpack)(HS_CBLK*, const unsigned char*, long, unsigned char*, long);
};

long rl1pack(HS_CBLK*, const unsigned char* in, long n, unsigned char* out) {
    long r = hsrcmp1(0, out, in, n, n);
    return r < 0 ? -1 : r;
}
long rl1unpack(HS_CBLK*, const unsigned char* in, long n, unsigned char* out, long room) {
    return hsrcmp1(1, out, in, room, n);
}
long rl2pack(HS_CBLK*, const unsigned char* in, long n, unsigned char* out) {
    long r = hsrcmp2(0, out, in, n, n);
    return r < 1 ? -1 : r;
}
long rl2unpack(HS_CBLK*, const unsigned char* in, long n, unsigned char* out, long room) {
    return hsrcmp2(1, out, in, room, n);
}
long lzwpack(HS_CBLK* cb, const unsigned char* in, long n, unsigned char* out) {
    cb->mode = XZC_COMPRESS;
    cb->from = in;
    cb->textlen = n;
    cb->to = out;
    cb->cyphlen = n;
    return hsclzw(cb) == 0 ? cb->cyphlen : -1;
}
long lzwunpack(HS_CBLK* cb, const unsigned char* in, long n, unsigned char* out, long room) {
    cb->mode = XZC_EXPAND;
    cb->from = in;
    cb->cyphlen = n;
    cb->to = out;
    cb->textlen = room;
    return hsclzw(cb) == 0 ? cb->textlen : -1;
}

const Coder coders[] = {
    {"VRTARLC2", rl2pack, rl2unpack},
    {"VRTARLLC", rl1pack, rl1unpack},
    {"VRTALZWC", lzwpack, lzwunpack},
};

struct Lzw {
    HS_CBLK cb{};
    Lzw() {
        cb.mode = XZC_INIT;
        if (hsclzw(&cb) != 0) {
            std::fputs("bench_compress: the coder does not start\n", stderr);
            std::exit(1);
        }
    }
    ~Lzw() {
        cb.mode = XZC_TERM;
        rcignore(hsclzw(&cb));  // ending only frees the coder's tables
    }
};

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int runFile(const char* path) {
    FILE* f = std::fopen(path, "rb");
    if (!f) {
        std::perror(path);
        return 1;
    }
    std::vector<unsigned char> data;
    unsigned char buf[1 << 16];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.insert(data.end(), buf, buf + n);
    std::fclose(f);
    const long total = static_cast<long>(data.size());
    const long nblocks = (total + BLOCK - 1) / BLOCK;
    std::vector<unsigned char> coded(static_cast<size_t>(nblocks) * BLOCK);
    std::vector<long> lens(static_cast<size_t>(nblocks));
    std::vector<unsigned char> back(BLOCK);
    for (const Coder& c : coders) {
        Lzw z;
        long out = 0;
        double t0 = seconds();
        for (long b = 0; b < nblocks; ++b) {
            const long len = std::min(BLOCK, total - b * BLOCK);
            long r = c.pack(&z.cb, data.data() + b * BLOCK, len, coded.data() + b * BLOCK);
            lens[b] = r;
            out += r < 0 ? len : r;
        }
        double t1 = seconds();
        for (long b = 0; b < nblocks; ++b) {
            const long len = std::min(BLOCK, total - b * BLOCK);
            if (lens[b] < 0) continue;
            long r = c.unpack(&z.cb, coded.data() + b * BLOCK, lens[b], back.data(), BLOCK);
            if (r != len || std::memcmp(back.data(), data.data() + b * BLOCK, static_cast<size_t>(len)) != 0) {
                std::fprintf(stderr, "%s: block %ld does not round trip\n", c.name, b);
                return 2;
            }
        }
        double t2 = seconds();
        const double mb = static_cast<double>(total) / 1e6;
        std::printf("%s %.1f %.1f %.4f\n", c.name, mb / (t1 - t0), mb / (t2 - t1),
                    static_cast<double>(out) / static_cast<double>(total));
    }
    return 0;
}

int genFile(const char* path, long mib) {
    FILE* f = std::fopen(path, "wb");
    if (!f) {
        std::perror(path);
        return 1;
    }
    std::vector<unsigned char> chunk;
    for (long i = 0; i < mib; ++i) {
        // Each MiB is a whole number of rows away from the last, so rows stay aligned.
        makeRows(chunk, 96 * 10923, static_cast<unsigned>(i + 1));
        std::fwrite(chunk.data(), 1, chunk.size(), f);
    }
    std::fclose(f);
    return 0;
}

std::vector<unsigned char>& sample() {
    static std::vector<unsigned char> s = [] {
        std::vector<unsigned char> v;
        makeRows(v, 4 << 20, 42);
        return v;
    }();
    return s;
}

void BM_Compress(benchmark::State& st) {
    const Coder& c = coders[st.range(0)];
    st.SetLabel(c.name);
    auto& in = sample();
    std::vector<unsigned char> out(BLOCK);
    Lzw z;
    for (auto _ : st)
        for (size_t b = 0; b + BLOCK <= in.size(); b += BLOCK)
            benchmark::DoNotOptimize(c.pack(&z.cb, in.data() + b, BLOCK, out.data()));
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_Compress)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

void BM_Expand(benchmark::State& st) {
    const Coder& c = coders[st.range(0)];
    st.SetLabel(c.name);
    auto& in = sample();
    Lzw z;
    std::vector<std::vector<unsigned char>> blocks;
    for (size_t b = 0; b + BLOCK <= in.size(); b += BLOCK) {
        std::vector<unsigned char> out(BLOCK);
        long r = c.pack(&z.cb, in.data() + b, BLOCK, out.data());
        if (r < 0) continue;
        out.resize(static_cast<size_t>(r));
        blocks.push_back(std::move(out));
    }
    std::vector<unsigned char> back(BLOCK);
    for (auto _ : st)
        for (auto& b : blocks)
            benchmark::DoNotOptimize(c.unpack(&z.cb, b.data(), static_cast<long>(b.size()), back.data(), BLOCK));
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(blocks.size()) * BLOCK);
}
BENCHMARK(BM_Expand)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--gen") == 0) return genFile(argv[2], std::atol(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "--file") == 0) return runFile(argv[2]);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// The index B-tree next to SQLite's, in one program: N 8-byte keys put in
// sorted order and in random order, then M random point lookups, each into
// a fresh file; SQLite does the same with a table whose 8-byte integer is
// its primary key, in one transaction. Prints seconds and the ratios.
//
//   bench_btree [N [M [DIR]]]      (defaults 10000000, 1000000, $TMPDIR)
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ix/bt.h"
#include "sda/daidx.h"

using namespace vrta;

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

[[noreturn]] void die(const char* what, long code) {
    std::fprintf(stderr, "bench_btree: %s (%ld)\n", what, code);
    std::exit(1);
}

// Keys as the index stores them: bytes that order as the numbers do.
void keybytes(uint64_t v, char* out) {
    uint64_t b = __builtin_bswap64(v);
    std::memcpy(out, &b, 8);
}

struct Times {
    double put = 0, get = 0;
    long long bytes = 0;
};

Times vrtatree(const std::string& path, const std::vector<uint64_t>& keys, const std::vector<uint64_t>& probes,
               bool sorted) {
    Times tm;
    unlink(path.c_str());
    DA_IDX* ip = nullptr;
    if (daopidxf(path.c_str(), 5, &ip) < 0) die("cannot make the index file", 0);
    BTREEINFO info{};
    info.flags = B_GLOBAL;
    info.noequals = 1;
    info.keylen = 8;
    info.datalen = 8;
    info.segsize = BT_GLOBALSEGSIZE;
    info.openmode = BT_OCREATE;
    info.options_present = 1;
    IX_HEADER_D h{IX_VERSION, IX_GLOBAL_BTREE, BT_GLOBALSEGSIZE, 8, IX_DIRTY};
    DB* db = nullptr;
    double t0 = now();
    int rc = __bt_open(ip, BT_OCREATE, &info, &h, &db, 0);
    if (rc == 0) rc = __bt_open(ip, BT_OCREATE, &info, &h, &db, 1);
    if (rc != 0) die("open for create failed", rc);
    char k[8], d[8];
    DBT kk{k, 8}, dd{d, 8};
    BT_PUTINFO pi{};
    for (size_t i = 0; i < keys.size(); ++i) {
        keybytes(keys[i], k);
        std::memcpy(d, &i, 8);
        rctype r = sorted ? __bt_hyput(db, &kk, &dd, &pi) : db->put(db, &kk, &dd, 0);
        if (r < 0) die("put failed", r);
    }
    db->internal->header.state = IX_CLEAN;
    if ((rc = db->close(db, -1, nullptr, 1)) != 0) die("close failed", rc);
    if ((rc = ip->mt->closeidx(ip, DA_IDXCLEAN)) != 0) die("file close failed", rc);
    tm.put = now() - t0;

    if (daopidxf(path.c_str(), 0, &ip) < 0) die("cannot open the index file", 0);
    tm.bytes = ip->filesize;
    info = BTREEINFO{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    t0 = now();
    rc = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 0);
    if (rc == 0) rc = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 1);
    if (rc != 0) die("open for read failed", rc);
    DBT out{};
    for (uint64_t p : probes) {
        keybytes(p, k);
        if (db->get(db, &kk, &out, 0) != 0) die("a key was not found", static_cast<long>(p));
    }
    if ((rc = db->close(db, -1, nullptr, 1)) != 0) die("close failed", rc);
    if ((rc = ip->mt->closeidx(ip, 0)) != 0) die("file close failed", rc);
    tm.get = now() - t0;
    unlink(path.c_str());
    return tm;
}

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "bench_btree: sqlite %s: %s\n", what, sqlite3_errmsg(db));
        std::exit(1);
    }
}

Times sqlitetree(const std::string& path, const std::vector<uint64_t>& keys, const std::vector<uint64_t>& probes) {
    Times tm;
    unlink(path.c_str());
    sqlite3* db = nullptr;
    double t0 = now();
    check(sqlite3_open(path.c_str(), &db), db, "open");
    check(sqlite3_exec(db, "CREATE TABLE t(k INTEGER PRIMARY KEY, v INTEGER)", nullptr, nullptr, nullptr), db, "create");
    check(sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr), db, "begin");
    sqlite3_stmt* ins = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO t VALUES(?, ?)", -1, &ins, nullptr), db, "prepare");
    for (size_t i = 0; i < keys.size(); ++i) {
        sqlite3_bind_int64(ins, 1, static_cast<sqlite3_int64>(keys[i]));
        sqlite3_bind_int64(ins, 2, static_cast<sqlite3_int64>(i));
        check(sqlite3_step(ins), db, "insert");
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
    check(sqlite3_close(db), db, "close");
    tm.put = now() - t0;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f) {
        std::fseek(f, 0, SEEK_END);
        tm.bytes = std::ftell(f);
        std::fclose(f);
    }
    t0 = now();
    check(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), db, "open");
    sqlite3_stmt* sel = nullptr;
    check(sqlite3_prepare_v2(db, "SELECT v FROM t WHERE k = ?", -1, &sel, nullptr), db, "prepare");
    for (uint64_t p : probes) {
        sqlite3_bind_int64(sel, 1, static_cast<sqlite3_int64>(p));
        if (sqlite3_step(sel) != SQLITE_ROW) die("sqlite: a key was not found", static_cast<long>(p));
        sqlite3_reset(sel);
    }
    sqlite3_finalize(sel);
    sqlite3_close(db);
    tm.get = now() - t0;
    unlink(path.c_str());
    return tm;
}

}  // namespace

int main(int argc, char** argv) {
    long n = argc > 1 ? std::atol(argv[1]) : 10000000;
    long m = argc > 2 ? std::atol(argv[2]) : 1000000;
    std::string dir = argc > 3 ? argv[3] : (getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp");
    if (n < 1 || m < 1) die("N and M must be positive", 0);
    std::mt19937_64 rng(20240601);
    // Distinct keys below 2^62, so that SQLite's signed integers keep their order.
    std::vector<uint64_t> sorted(n);
    uint64_t v = 0;
    for (long i = 0; i < n; ++i) sorted[i] = v += 1 + rng() % 1000;
    std::vector<uint64_t> shuffled = sorted;
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    std::vector<uint64_t> probes(m);
    for (long i = 0; i < m; ++i) probes[i] = sorted[rng() % n];
    std::string base = dir + "/bench_btree." + std::to_string(getpid());

    std::printf("%ld keys of 8 bytes, %ld random point lookups\n", n, m);
    std::printf("%-8s %-7s %10s %10s %12s\n", "order", "engine", "put s", "lookup s", "file bytes");
    for (int s = 1; s >= 0; --s) {
        const auto& keys = s ? sorted : shuffled;
        Times a = vrtatree(base + ".idx", keys, probes, s);
        Times b = sqlitetree(base + ".db", keys, probes);
        const char* order = s ? "sorted" : "random";
        std::printf("%-8s %-7s %10.3f %10.3f %12lld\n", order, "vrta", a.put, a.get, a.bytes);
        std::printf("%-8s %-7s %10.3f %10.3f %12lld\n", order, "sqlite", b.put, b.get, b.bytes);
        std::printf("%-8s ratio vrta/sqlite: put %.3f, lookup %.3f, size %.3f\n", order, a.put / b.put, a.get / b.get,
                    static_cast<double>(a.bytes) / static_cast<double>(b.bytes));
        std::fflush(stdout);
    }
    return 0;
}

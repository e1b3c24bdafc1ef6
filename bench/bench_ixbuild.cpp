// Index builds next to SQLite's CREATE INDEX, in one program: a table of N
// rows with a column of 100 distinct values and one of N/2 (each value on
// two rows), both in random order; each engine indexes each column, with the same sort memory. Prints
// seconds, index bytes and the ratios. Loading the tables is not timed.
// Both get 64 MB: SQLite as its cache, the index build for its sort.
//
//   bench_ixbuild [N [DIR]]      (defaults 10000000, $TMPDIR)
#include <sqlite3.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ix/ixhy.h"
#include "benchsda.h"
#include "sda/da.h"
#include "sda/dafid.h"
#include "sda/daidx.h"

using namespace vrta;

namespace {

constexpr int ROWLEN = 24;
constexpr int64_t MEMORY = 64ll << 20;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

[[noreturn]] void die(const char* what, long code) {
    std::fprintf(stderr, "bench_ixbuild: %s (%ld)\n", what, code);
    std::exit(1);
}

struct Data {
    std::vector<double> few, many;
};

Data makedata(int64_t n) {
    Data d;
    std::mt19937_64 rng(42);
    d.few.resize(n);
    d.many.resize(n);
    for (int64_t i = 0; i < n; ++i) {
        d.few[i] = static_cast<double>(rng() % 100);
        d.many[i] = static_cast<double>(i / 2);
    }
    std::shuffle(d.many.begin(), d.many.end(), rng);
    return d;
}

int64_t dirbytes(const std::string& dir, const std::string& prefix) {
    int64_t total = 0;
    DIR* dp = opendir(dir.c_str());
    if (!dp) die("cannot list the work directory", errno);
    while (const dirent* e = readdir(dp)) {
        std::string f(e->d_name);
        if (f.rfind(prefix, 0) != 0) continue;
        struct stat st;
        if (stat((dir + "/" + f).c_str(), &st) != 0) die("cannot stat an index file", errno);
        total += st.st_size;
    }
    closedir(dp);
    return total;
}

// The table, then each index timed.
// bytes: both files of an index; tree: its .idx file alone.
void vrtarun(const std::string& dir, const Data& d, double secs[2], int64_t bytes[2], int64_t tree[2]) {
    DA_LIB* lp = benchsda::assign(dir);
    if (!lp) die("library", 0);
    DA_OPNSTR o = benchsda::request("t", DA_OMOUTPUT);
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) die("create", 0);
    std::vector<DA_NAMESTR> v(3);
    memset(v.data(), 0, sizeof(DA_NAMESTR) * 3);
    static char na[] = "A", nb[] = "B", nc[] = "C";
    char* names[] = {na, nb, nc};
    for (int i = 0; i < 3; ++i) {
        v[i].name = names[i];
        v[i].name_l = 1;
        v[i].type = i < 2 ? 1 : 2;
        v[i].nlng = 8;
        v[i].npos = 8 * i;
    }
    if (fp->mt->defvars(fp, 3, v.data()) < 0) die("columns", 0);
    const int64_t n = static_cast<int64_t>(d.few.size());
    std::vector<char> buf(1 << 20);
    long per = static_cast<long>(buf.size() / ROWLEN);
    for (int64_t r = 0; r < n; r += per) {
        long k = static_cast<long>(std::min<int64_t>(per, n - r));
        for (long i = 0; i < k; ++i) {
            char* row = buf.data() + i * ROWLEN;
            memcpy(row, &d.few[r + i], 8);
            memcpy(row + 8, &d.many[r + i], 8);
            memcpy(row + 16, "filler  ", 8);
        }
        if (dawrobs(fp, r + 1, buf.data(), k) < 0) die("rows", 0);
    }
    if (darclos(fp) < 0) die("close", 0);
    for (int c = 0; c < 2; ++c) {
        o = benchsda::request("t", DA_OMUTIL);
        double t0 = now();
        if (daopen(lp, &o, &fp) < 0) die("open", 0);
        int32_t col[] = {c + 1};
        IX_BUILDREQ r{};
        r.name = c == 0 ? "few" : "many";
        r.nvar = 1;
        r.varnos = col;
        r.memsize = MEMORY;
        rctype rc = ixhybuild(fp, &r);
        if (rc < 0) die("index build", rc);
        if (darclos(fp) < 0) die("close", 0);
        secs[c] = now() - t0;
        tree[c] = dirbytes(dir, std::string("t.idx") + r.name + ".");
        bytes[c] = tree[c] + dirbytes(dir, std::string("t.hbx") + r.name + ".");
    }
    if (dafrlib(lp) < 0) die("library close", 0);
}

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "bench_ixbuild: sqlite %s: %s\n", what, sqlite3_errmsg(db));
        std::exit(1);
    }
}

int64_t pages(sqlite3* db) {
    sqlite3_stmt* s = nullptr;
    check(sqlite3_prepare_v2(db, "PRAGMA page_count", -1, &s, nullptr), db, "page_count");
    check(sqlite3_step(s), db, "page_count");
    int64_t n = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    return n;
}

void sqliterun(const std::string& path, const Data& d, double secs[2], int64_t bytes[2]) {
    unlink(path.c_str());
    sqlite3* db = nullptr;
    check(sqlite3_open(path.c_str(), &db), db, "open");
    std::string mem = "PRAGMA cache_size = -" + std::to_string(MEMORY / 1024);
    check(sqlite3_exec(db, mem.c_str(), nullptr, nullptr, nullptr), db, "cache");
    check(sqlite3_exec(db, "CREATE TABLE t(a REAL, b REAL, c TEXT)", nullptr, nullptr, nullptr), db, "create");
    check(sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr), db, "begin");
    sqlite3_stmt* ins = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO t VALUES(?, ?, 'filler')", -1, &ins, nullptr), db, "prepare");
    for (size_t i = 0; i < d.few.size(); ++i) {
        check(sqlite3_bind_double(ins, 1, d.few[i]), db, "bind");
        check(sqlite3_bind_double(ins, 2, d.many[i]), db, "bind");
        check(sqlite3_step(ins), db, "insert");
        check(sqlite3_reset(ins), db, "reset");
    }
    sqlite3_finalize(ins);
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
    const char* sql[] = {"CREATE INDEX few ON t(a)", "CREATE INDEX many ON t(b)"};
    int64_t psize = 4096;
    {
        sqlite3_stmt* s = nullptr;
        check(sqlite3_prepare_v2(db, "PRAGMA page_size", -1, &s, nullptr), db, "page_size");
        check(sqlite3_step(s), db, "page_size");
        psize = sqlite3_column_int64(s, 0);
        sqlite3_finalize(s);
    }
    for (int c = 0; c < 2; ++c) {
        int64_t before = pages(db);
        double t0 = now();
        check(sqlite3_exec(db, sql[c], nullptr, nullptr, nullptr), db, sql[c]);
        secs[c] = now() - t0;
        bytes[c] = (pages(db) - before) * psize;
    }
    sqlite3_close(db);
    unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    int64_t n = argc > 1 ? std::atoll(argv[1]) : 10000000;
    std::string base = argc > 2 ? argv[2] : (getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp");
    if (n < 2) die("N must be 2 or more", n);
    std::string dir = base + "/bench_ixbuild." + std::to_string(getpid());
    if (mkdir(dir.c_str(), 0700) != 0) die("cannot make the work directory", errno);
    Data d = makedata(n);
    double vs[2], ss[2];
    int64_t vb[2], vt[2], sb[2];
    vrtarun(dir, d, vs, vb, vt);
    if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) die("cannot remove the work directory", 0);
    sqliterun(base + "/bench_ixbuild." + std::to_string(getpid()) + ".db", d, ss, sb);
    std::printf("%lld rows; index over a column of 100 values, then of %lld values; memory %lld MB\n",
                static_cast<long long>(n), static_cast<long long>(n / 2), static_cast<long long>(MEMORY >> 20));
    const char* what[] = {"100 values", "N/2 values"};
    for (int c = 0; c < 2; ++c) {
        std::printf("%-11s vrta %8.3f s %12lld bytes (tree %lld)   sqlite %8.3f s %12lld bytes   ratio vrta/sqlite: "
                    "time %.3f, size %.3f\n",
                    what[c], vs[c], static_cast<long long>(vb[c]), static_cast<long long>(vt[c]), ss[c],
                    static_cast<long long>(sb[c]), vs[c] / ss[c], static_cast<double>(vb[c]) / static_cast<double>(sb[c]));
    }
    return 0;
}

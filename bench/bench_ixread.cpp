// Lookups through an index next to SQLite's, in one program: a table of N
// rows whose column holds N/2 distinct values in random order, indexed by
// each engine (not timed); then 10,000 point lookups of random values and
// 1,000 range lookups of about 1% of the rows each, both answering with the
// row numbers (SQLite's rowid from its index alone). Both find the same rows:
// the counts and sums of row numbers are compared before any figure is shown.
// Prints lookups per second and the ratios vrta/sqlite.
//
//   bench_ixread [N [DIR]]      (defaults 10000000, $TMPDIR)
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ix/ixfe.h"
#include "ix/ixhy.h"
#include "ix/ixhyr.h"
#include "benchsda.h"
#include "sda/da.h"
#include "sda/dafid.h"
#include "sda/daidx.h"

using namespace vrta;

namespace {

constexpr int ROWLEN = 16;
constexpr int NPOINT = 10000;
constexpr int NRANGE = 1000;
// Ranges of more values than this are pre-evaluated.
constexpr int64_t PREEVAL_VALUES = 4;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

[[noreturn]] void die(const char* what, long code) {
    std::fprintf(stderr, "bench_ixread: %s (%ld)\n", what, code);
    std::exit(1);
}

struct Work {
    std::vector<double> col;
    std::vector<double> points;
    std::vector<std::pair<double, double>> ranges;
};

Work makework(int64_t n) {
    Work w;
    std::mt19937_64 rng(7);
    int64_t distinct = n / 2 > 0 ? n / 2 : 1;
    w.col.resize(static_cast<size_t>(n));
    for (auto& v : w.col) v = static_cast<double>(rng() % distinct);
    for (int i = 0; i < NPOINT; ++i) w.points.push_back(static_cast<double>(rng() % distinct));
    int64_t width = distinct / 100 > 0 ? distinct / 100 : 1;
    for (int i = 0; i < NRANGE; ++i) {
        double lo = static_cast<double>(rng() % (distinct - width + 1));
        w.ranges.emplace_back(lo, lo + static_cast<double>(width - 1));
    }
    return w;
}

struct Found {
    int64_t rows = 0, sum = 0;
};

// The rows of low..high (both included) through the index: the segment
// list first, then each listed segment's rows.
void lookup(IX_INDEX_T* ix, double low, double high, int64_t nsegs, int64_t segsize, Found* f) {
    char row[ROWLEN] = {}, lk[64], hk[64];
    memcpy(row, &low, 8);
    if (ixmkkey(ix, row, lk) < 0) die("key", 0);
    memcpy(row, &high, 8);
    if (ixmkkey(ix, row, hk) < 0) die("key", 0);
    IX_SEGOP_T lo{nullptr, lk, IX_GE, 0, ix->keylen, nullptr, nullptr};
    IX_SEGOP_T hi{nullptr, hk, IX_LE, 0, ix->keylen, nullptr, nullptr};
    IX_SEGSTATS_T st{};
    rctype rc = ix->fp.prepnt(ix->ix_private, &lo, &hi, 1, &st);
    if (rc < 0) die("segment list", rc);
    ix_list_t* segs = lo.hy_list;
    lo.hy_list = nullptr;
    // A range of many values is read once for all segments.
    bool pre = st.nvalues > PREEVAL_VALUES;
    if (pre) {
        lo.hy_list = segs;
        if ((rc = ix->fp.preevalpnt(ix->ix_private, &lo, &hi)) < 0) die("pre-evaluation", rc);
        lo.hy_list = nullptr;
    }
    hs_obsno_t buf[4096], sb[1024];
    auto rowsof = [&](int64_t s) {
        lo.segment = s * segsize + 1;
        rctype r = pre ? ix->fp.preevallist(ix->ix_private, &lo, 0) : ix->fp.pnt(ix->ix_private, &lo, &hi, 0, 0);
        if (r < 0) die("scan", r);
        for (rctype more = 0; more == 0;) {
            int64_t n = 4096;
            if ((more = ixrtrve(lo.list, buf, &n)) < 0) die("read", more);
            for (int64_t i = 0; i < n; ++i) f->sum += buf[i];
            f->rows += n;
        }
    };
    if (segs) {
        for (rctype more = 0; more == 0;) {
            int64_t n = 1024;
            if ((more = ixrtrve(segs, sb, &n)) < 0) die("segment list", more);
            for (int64_t i = 0; i < n; ++i) rowsof(sb[i] - 1);
        }
        ixfreel(segs);
    } else {
        for (int64_t s = 0; s < nsegs; ++s) rowsof(s);
    }
    if (pre && ix->fp.preevalcln(ix->ix_private, lo.ixpriv) < 0) die("pre-evaluation", 0);
    ixfreel(lo.list);
}

// The same through the global scan: the values of low..high in key order,
// each with its rows, as SQLite hands them out.
void lookupglobal(IX_INDEX_T* ix, double low, double high, Found* f) {
    char row[ROWLEN] = {}, lk[64], hk[64];
    memcpy(row, &low, 8);
    if (ixmkkey(ix, row, lk) < 0) die("key", 0);
    memcpy(row, &high, 8);
    if (ixmkkey(ix, row, hk) < 0) die("key", 0);
    rctype rc = ix->fp.gsetpnt(ix->ix_private, lk, IX_GE, ix->keylen, hk, IX_LE, ix->keylen, 0);
    if (rc < 0) die("global scan", rc);
    static hs_obsno_t buf[4096];
    for (;;) {
        int64_t n = 4096;
        if ((rc = ix->fp.ggetpnt(ix->ix_private, nullptr, nullptr, buf, &n)) < 0) die("global scan", rc);
        for (int64_t i = 0; i < n; ++i) f->sum += buf[i];
        f->rows += n;
        if (n < 4096) break;
    }
}

void vrtarun(const std::string& dir, const Work& w, double secs[4], Found f[4]) {
    DA_LIB* lp = benchsda::assign(dir);
    if (!lp) die("library", 0);
    DA_OPNSTR o = benchsda::request("t", DA_OMOUTPUT);
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) die("create", 0);
    std::vector<DA_NAMESTR> v(2);
    memset(v.data(), 0, sizeof(DA_NAMESTR) * 2);
    static char na[] = "K", nb[] = "C";
    char* names[] = {na, nb};
    for (int i = 0; i < 2; ++i) {
        v[i].name = names[i];
        v[i].name_l = 1;
        v[i].type = i == 0 ? 1 : 2;
        v[i].nlng = 8;
        v[i].npos = 8 * i;
    }
    if (fp->mt->defvars(fp, 2, v.data()) < 0) die("columns", 0);
    const int64_t n = static_cast<int64_t>(w.col.size());
    std::vector<char> buf(1 << 20);
    long per = static_cast<long>(buf.size() / ROWLEN);
    for (int64_t r = 0; r < n; r += per) {
        long k = static_cast<long>(std::min<int64_t>(per, n - r));
        for (long i = 0; i < k; ++i) {
            memcpy(buf.data() + i * ROWLEN, &w.col[static_cast<size_t>(r + i)], 8);
            memcpy(buf.data() + i * ROWLEN + 8, "filler  ", 8);
        }
        if (dawrobs(fp, r + 1, buf.data(), k) < 0) die("rows", 0);
    }
    if (darclos(fp) < 0) die("close", 0);
    o = benchsda::request("t", DA_OMUTIL);
    if (daopen(lp, &o, &fp) < 0) die("open", 0);
    int32_t col[] = {1};
    IX_BUILDREQ r{};
    r.name = "k";
    r.nvar = 1;
    r.varnos = col;
    if (rctype rc = ixhybuild(fp, &r); rc < 0) die("index build", rc);
    if (darclos(fp) < 0) die("close", 0);
    o = benchsda::request("t", DA_OMINPUT);
    if (daopen(lp, &o, &fp) < 0) die("open", 0);
    IX_INDEX_T* ix = nullptr;
    if (rctype rc = ixopen(fp, "k", 0, 1, nullptr, &ix); rc != 0) die("index open", rc);
    int64_t nsegs = 0, segsize = 0;
    if (ixinfo(ix, &nsegs, &segsize) < 0) die("index info", 0);
    double t0 = now();
    for (double p : w.points) lookup(ix, p, p, nsegs, segsize, &f[0]);
    secs[0] = now() - t0;
    t0 = now();
    for (auto& [lo, hi] : w.ranges) lookup(ix, lo, hi, nsegs, segsize, &f[1]);
    secs[1] = now() - t0;
    t0 = now();
    for (double p : w.points) lookupglobal(ix, p, p, &f[2]);
    secs[2] = now() - t0;
    t0 = now();
    for (auto& [lo, hi] : w.ranges) lookupglobal(ix, lo, hi, &f[3]);
    secs[3] = now() - t0;
    if (ixclose(ix) < 0) die("index close", 0);
    if (darclos(fp) < 0) die("close", 0);
    if (dafrlib(lp) < 0) die("library close", 0);
}

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "bench_ixread: sqlite %s: %s\n", what, sqlite3_errmsg(db));
        std::exit(1);
    }
}

void sqliterun(const std::string& path, const Work& w, double secs[2], Found f[2]) {
    unlink(path.c_str());
    sqlite3* db = nullptr;
    check(sqlite3_open(path.c_str(), &db), db, "open");
    check(sqlite3_exec(db, "PRAGMA cache_size = -65536", nullptr, nullptr, nullptr), db, "cache");
    check(sqlite3_exec(db, "CREATE TABLE t(k REAL, c TEXT)", nullptr, nullptr, nullptr), db, "create");
    check(sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr), db, "begin");
    sqlite3_stmt* ins = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO t VALUES(?, 'filler')", -1, &ins, nullptr), db, "prepare");
    for (double v : w.col) {
        sqlite3_bind_double(ins, 1, v);
        check(sqlite3_step(ins), db, "insert");
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
    check(sqlite3_exec(db, "CREATE INDEX k ON t(k)", nullptr, nullptr, nullptr), db, "index");
    sqlite3_stmt* q = nullptr;
    check(sqlite3_prepare_v2(db, "SELECT rowid FROM t WHERE k BETWEEN ? AND ?", -1, &q, nullptr), db, "prepare");
    auto run = [&](double lo, double hi, Found* out) {
        sqlite3_bind_double(q, 1, lo);
        sqlite3_bind_double(q, 2, hi);
        int rc;
        while ((rc = sqlite3_step(q)) == SQLITE_ROW) {
            out->sum += sqlite3_column_int64(q, 0);
            ++out->rows;
        }
        check(rc, db, "select");
        sqlite3_reset(q);
    };
    double t0 = now();
    for (double p : w.points) run(p, p, &f[0]);
    secs[0] = now() - t0;
    t0 = now();
    for (auto& [lo, hi] : w.ranges) run(lo, hi, &f[1]);
    secs[1] = now() - t0;
    sqlite3_finalize(q);
    sqlite3_close(db);
    unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    int64_t n = argc > 1 ? std::atoll(argv[1]) : 10000000;
    std::string base = argc > 2 ? argv[2] : (getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp");
    if (n < 200) die("N must be 200 or more", n);
    std::string dir = base + "/bench_ixread." + std::to_string(getpid());
    if (mkdir(dir.c_str(), 0700) != 0) die("cannot make the work directory", errno);
    Work w = makework(n);
    double vs[4], ss[2];
    Found vf[4], sf[2];
    vrtarun(dir, w, vs, vf);
    std::system(("rm -rf '" + dir + "'").c_str());
    sqliterun(base + "/bench_ixread." + std::to_string(getpid()) + ".db", w, ss, sf);
    for (int c = 0; c < 4; ++c)
        if (vf[c].rows != sf[c % 2].rows || vf[c].sum != sf[c % 2].sum) {
            std::fprintf(stderr, "bench_ixread: the engines found different rows: %lld/%lld against %lld/%lld\n",
                         static_cast<long long>(vf[c].rows), static_cast<long long>(vf[c].sum),
                         static_cast<long long>(sf[c % 2].rows), static_cast<long long>(sf[c % 2].sum));
            return 1;
        }
    std::printf("%lld rows, a column of %lld values in random order\n", static_cast<long long>(n),
                static_cast<long long>(n / 2));
    // By segments: segment list, then each segment's rows (row order within a segment);
    // global: value by value in key order, like SQLite's answer.
    const char* what[] = {"point", "range ~1%", "point", "range ~1%"};
    const char* road[] = {"segments", "segments", "global", "global"};
    const int count[] = {NPOINT, NRANGE, NPOINT, NRANGE};
    for (int c = 0; c < 4; ++c)
        std::printf("%-10s %-8s %5d lookups, %9lld rows   vrta %10.0f /s   sqlite %10.0f /s   ratio vrta/sqlite %.2f\n",
                    what[c], road[c], count[c], static_cast<long long>(vf[c].rows), count[c] / vs[c],
                    count[c % 2] / ss[c % 2], ss[c % 2] / vs[c]);
    return 0;
}

// Group-by queries on a large table through the module's query call, and the
// same queries through SQLite and DuckDB (their C libraries) on the same rows.
// bench_groupby.sh times each command as a whole process and prints ratios.
//
//   bench_groupby make DIR NROWS        the table T (K1 about 100 values, K2
//                                       about a million, X, Y), a SQLite file
//                                       and DIR/t.csv for DuckDB
//   bench_groupby duckmake DIR          DIR/t.duckdb from DIR/t.csv
//   bench_groupby vrta|sqlite|duckdb DIR g100|g1m|distinct [THREADS [MEM]]
//                                       MEM: the module's group-by memory in
//                                       bytes for all threads (0: its default,
//                                       2 MB a thread)
//
// Every run prints "rows=N n=C x=S y=A": result rows, and the sums over them
// of the count, SUM(X) and AVG(Y) columns, so that the script can check that
// all three engines gave the same answer whatever order the rows came in.
#include <sqlite3.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchduck.h"
#include "vrta/directapi.h"
#include "vrta/vrtasql.h"

namespace {

constexpr int ROWLEN = 32;  // K1, K2, X, Y: numbers

struct Query {
    const char* name;
    const char* sql;
    int ncols;  // 4: key, count, sum, avg; 1: a count
};
const Query QUERIES[] = {
    {"g100", "SELECT k1, COUNT(*), SUM(x), AVG(y) FROM t GROUP BY k1", 4},
    {"g1m", "SELECT k2, COUNT(*), SUM(x), AVG(y) FROM t GROUP BY k2", 4},
    {"distinct", "SELECT COUNT(DISTINCT k2) FROM t", 1},
};

const Query* query(const char* name) {
    for (const Query& q : QUERIES)
        if (std::strcmp(q.name, name) == 0) return &q;
    return nullptr;
}

int die(const std::string& what, int rc = 0) {
    char t[300] = "";
    if (rc) vrtaerrtext(rc, t, sizeof t);
    std::fprintf(stderr, "bench_groupby: %s %s\n", what.c_str(), t);
    return 1;
}

uint64_t next(uint64_t* s) {
    *s = *s * 6364136223846793005ull + 1442695040888963407ull;
    return *s >> 33;
}

// The answer's fingerprint: sums over the result rows. X and Y are whole
// numbers, so every SUM is exact and every AVG correctly rounded in any engine;
// only the sum of the averages depends on the order, well below the digits shown.
struct Sums {
    int64_t rows = 0;
    double n = 0, x = 0, y = 0;
    void add(const double* v, int ncols) {
        rows++;
        n += v[ncols == 4 ? 1 : 0];
        if (ncols == 4) {
            x += v[2];
            y += v[3];
        }
    }
    void print() const { std::printf("rows=%" PRId64 " n=%.0f x=%.0f y=%.4f\n", rows, n, x, y); }
};

int make(const char* dir, long nrows) {
    void* lib = nullptr;
    if (int rc = splasgn(dir, &lib)) return die("splasgn", rc);
    VRTACOLDEF cols[] = {{"K1", -1, nullptr, 0, 1, 8}, {"K2", -1, nullptr, 0, 1, 8}, {"X", -1, nullptr, 0, 1, 8},
                         {"Y", -1, nullptr, 0, 1, 8}};
    VRTACREATE cr{};
    cr.ncols = 4;
    cr.cols = cols;
    void* fid = nullptr;
    if (int rc = vrtacreate(lib, "T", 1, &cr, &fid)) return die("vrtacreate", rc);
    constexpr long CHUNK = 4096;
    std::vector<char> buf(CHUNK * ROWLEN);
    void* wr = nullptr;
    if (int rc = spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &wr)) return die("spnewwr", rc);

    std::string db = std::string(dir) + "/t.sqlite";
    std::remove(db.c_str());
    sqlite3* s = nullptr;
    if (sqlite3_open(db.c_str(), &s) != SQLITE_OK) return die("sqlite3_open");
    if (sqlite3_exec(s, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                        "CREATE TABLE t(k1 REAL, k2 REAL, x REAL, y REAL); BEGIN",
                     nullptr, nullptr, nullptr) != SQLITE_OK)
        return die(sqlite3_errmsg(s));
    sqlite3_stmt* ins = nullptr;
    if (sqlite3_prepare_v2(s, "INSERT INTO t VALUES(?,?,?,?)", -1, &ins, nullptr) != SQLITE_OK)
        return die(sqlite3_errmsg(s));
    std::string csvname = std::string(dir) + "/t.csv";
    FILE* csv = std::fopen(csvname.c_str(), "w");
    if (!csv) return die("cannot write " + csvname);
    std::fprintf(csv, "k1,k2,x,y\n");

    uint64_t seed = 4242;
    for (long i = 0; i < nrows; i++) {
        double v[4] = {static_cast<double>(next(&seed) % 100), static_cast<double>(next(&seed) % 1000000),
                       static_cast<double>(next(&seed) % 1000), static_cast<double>(next(&seed) % 100)};
        std::memcpy(buf.data() + (i % CHUNK) * ROWLEN, v, ROWLEN);
        if (i % CHUNK == CHUNK - 1 || i == nrows - 1) {
            if (int rc = spwritev(wr, i % CHUNK + 1)) return die("spwritev", rc);
        }
        for (int c = 0; c < 4; c++) sqlite3_bind_double(ins, c + 1, v[c]);
        if (sqlite3_step(ins) != SQLITE_DONE) return die("sqlite insert");
        sqlite3_reset(ins);
        std::fprintf(csv, "%.0f,%.0f,%.0f,%.0f\n", v[0], v[1], v[2], v[3]);
    }
    sqlite3_finalize(ins);
    if (sqlite3_exec(s, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) return die("sqlite commit");
    sqlite3_close(s);
    if (std::fclose(csv) != 0) return die("cannot write " + csvname);
    if (int rc = spfreeio(wr)) return die("spfreeio", rc);
    if (int rc = vrtaclose(fid)) return die("vrtaclose", rc);
    spldeasgn(lib);
    return 0;
}

int runvrta(const char* dir, const Query& q, int threads, double mem) {
    void* lib = nullptr;
    if (int rc = splasgn(dir, &lib)) return die("splasgn", rc);
    VRTASQLOPT opt{threads, mem, nullptr, nullptr};
    VRTASQLRES* res = nullptr;
    char msg[512];
    if (int rc = vrtasql(lib, q.sql, -1, &opt, &res, msg, sizeof msg)) return die(msg, rc);
    if (res->ncols != q.ncols) return die("unexpected columns");
    Sums s;
    for (int64_t r = 0; r < res->nrows; r++) {
        double v[4];
        for (int c = 0; c < q.ncols; c++) std::memcpy(&v[c], res->rows + r * res->rowlen + res->cols[c].offset, 8);
        s.add(v, q.ncols);
    }
    s.print();
    if (std::getenv("VRTA_BENCH_PLAN")) std::fprintf(stderr, "%s", res->plan);
    vrtasqlfree(res);
    spldeasgn(lib);
    return 0;
}

int runsqlite(const char* dir, const Query& q) {
    sqlite3* s = nullptr;
    std::string db = std::string(dir) + "/t.sqlite";
    if (sqlite3_open_v2(db.c_str(), &s, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return die("sqlite3_open");
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(s, q.sql, -1, &st, nullptr) != SQLITE_OK) return die(sqlite3_errmsg(s));
    Sums sums;
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        double v[4];
        for (int c = 0; c < q.ncols; c++) v[c] = sqlite3_column_double(st, c);
        sums.add(v, q.ncols);
    }
    if (rc != SQLITE_DONE) return die(sqlite3_errmsg(s));
    sqlite3_finalize(st);
    sqlite3_close(s);
    sums.print();
    return 0;
}

int runduck(const char* dir, const char* what, int threads) {
    Duck d{};
    if (!loadduck(&d, "bench_groupby")) return die("DuckDB's library is not usable");
    std::string file = std::string(dir) + "/t.duckdb";
    void* db = nullptr;
    void* con = nullptr;
    if (d.open(file.c_str(), &db) != 0 || d.connect(db, &con) != 0) return die("duckdb_open");
    duckdb_result r{};
    const Query* q = query(what);
    auto run = [&](const std::string& sql) {
        if (d.query(con, sql.c_str(), &r) == 0) return true;
        std::fprintf(stderr, "bench_groupby: duckdb: %s\n", d.result_error(&r) ? d.result_error(&r) : "?");
        return false;
    };
    bool ok;
    if (!q) {
        ok = run("CREATE OR REPLACE TABLE t AS SELECT * FROM read_csv('" + std::string(dir) +
                 "/t.csv', header=true, columns={'k1':'DOUBLE','k2':'DOUBLE','x':'DOUBLE','y':'DOUBLE'})");
    } else {
        ok = run("SET threads TO " + std::to_string(threads));
        d.destroy_result(&r);
        ok = ok && run(q->sql);
        if (ok) {
            Sums s;
            for (uint64_t i = 0; i < d.row_count(&r); i++) {
                double v[4];
                for (int c = 0; c < q->ncols; c++) v[c] = d.value_double(&r, c, i);
                s.add(v, q->ncols);
            }
            s.print();
        }
    }
    d.destroy_result(&r);
    d.disconnect(&con);
    d.close(&db);
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "make") == 0) return make(argv[2], std::atol(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "duckmake") == 0) return runduck(argv[2], "duckmake", 0);
    if (argc >= 4 && argc <= 6 && query(argv[3])) {
        int threads = argc >= 5 ? std::atoi(argv[4]) : 2;
        if (threads < 1) threads = 1;
        double mem = argc == 6 ? std::atof(argv[5]) : 0;
        if (mem < 0) return die("MEM must not be negative");
        if (std::strcmp(argv[1], "vrta") == 0) return runvrta(argv[2], *query(argv[3]), threads, mem);
        if (std::strcmp(argv[1], "sqlite") == 0) return runsqlite(argv[2], *query(argv[3]));
        if (std::strcmp(argv[1], "duckdb") == 0) return runduck(argv[2], argv[3], threads);
    }
    std::fprintf(stderr,
                 "usage: bench_groupby make DIR NROWS | duckmake DIR | vrta|sqlite|duckdb DIR g100|g1m|distinct "
                 "[THREADS [MEM]]\n");
    return 2;
}

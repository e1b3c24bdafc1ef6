// WHERE clauses on a large table through the WHERE cursor, and the same
// queries through SQLite and DuckDB (their C libraries) on the same rows.
// bench_where.sh times each command as a whole process and prints ratios.
//
//   bench_where make DIR NROWS        the table, a SQLite file with an index
//                                     on A, and DIR/t.csv for DuckDB
//   bench_where duckmake DIR          DIR/t.duckdb from DIR/t.csv
//   bench_where vrta|sqlite|duckdb DIR sel|scan|count
//
// Every run prints "rows=N sum=S" (S the sum of ID over the rows, where the
// engine hands rows back) so that the script can check that all agree.
#include <sqlite3.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchduck.h"
#include "vrta/directapi.h"
#include "vrta/vrtawh.h"

namespace {

constexpr int ROWLEN = 40;  // ID, A, B: numbers; CITY: 8 characters; X: number
const char* CITIES[] = {"LIMA", "OSLO", "KYIV", "ROMA", "BERN", "RIGA", "BAKU", "DOHA"};

struct Query {
    const char* name;
    const char* clause;  // for the module
    const char* sql;     // for the others
    bool count;
};
const Query QUERIES[] = {
    {"sel", "a < 1000", "SELECT id, a, b, city, x FROM t WHERE a < 1000", false},
    {"scan", "b < 50", "SELECT id, a, b, city, x FROM t WHERE b < 50", false},
    {"count", "(b < 30 and city = 'LIMA') or (x > 0.9 and a > 500000)",
     "SELECT count(*) FROM t WHERE (b < 30 AND city = 'LIMA') OR (x > 0.9 AND a > 500000)", true},
};

int die(const std::string& what, int rc = 0) {
    char t[300] = "";
    if (rc) vrtaerrtext(rc, t, sizeof t);
    std::fprintf(stderr, "bench_where: %s %s\n", what.c_str(), t);
    return 1;
}

uint64_t next(uint64_t* s) {
    *s = *s * 6364136223846793005ull + 1442695040888963407ull;
    return *s >> 33;
}

int make(const char* dir, long nrows) {
    void* lib = nullptr;
    if (int rc = splasgn(dir, &lib)) return die("splasgn", rc);
    VRTACOLDEF cols[] = {{"ID", -1, nullptr, 0, 1, 8}, {"A", -1, nullptr, 0, 1, 8}, {"B", -1, nullptr, 0, 1, 8},
                         {"CITY", -1, nullptr, 0, 2, 8}, {"X", -1, nullptr, 0, 1, 8}};
    VRTACREATE cr{};
    cr.ncols = 5;
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
                        "CREATE TABLE t(id INTEGER, a REAL, b REAL, city TEXT, x REAL); BEGIN",
                     nullptr, nullptr, nullptr) != SQLITE_OK)
        return die(sqlite3_errmsg(s));
    sqlite3_stmt* ins = nullptr;
    if (sqlite3_prepare_v2(s, "INSERT INTO t VALUES(?,?,?,?,?)", -1, &ins, nullptr) != SQLITE_OK)
        return die(sqlite3_errmsg(s));
    std::string csvname = std::string(dir) + "/t.csv";
    FILE* csv = std::fopen(csvname.c_str(), "w");
    if (!csv) return die("cannot write " + csvname);
    std::fprintf(csv, "id,a,b,city,x\n");

    uint64_t seed = 12345;
    for (long i = 0; i < nrows; i++) {
        double id = static_cast<double>(i + 1);
        double a = static_cast<double>(next(&seed) % 1000000);
        double b = static_cast<double>(next(&seed) % 100);
        const char* city = CITIES[next(&seed) % 8];
        double x = static_cast<double>(next(&seed) % 1000000) / 1e6;
        char* row = buf.data() + (i % CHUNK) * ROWLEN;
        std::memcpy(row, &id, 8);
        std::memcpy(row + 8, &a, 8);
        std::memcpy(row + 16, &b, 8);
        std::memset(row + 24, ' ', 8);
        std::memcpy(row + 24, city, std::strlen(city));
        std::memcpy(row + 32, &x, 8);
        if (i % CHUNK == CHUNK - 1 || i == nrows - 1) {
            if (int rc = spwritev(wr, i % CHUNK + 1)) return die("spwritev", rc);
        }
        sqlite3_bind_int64(ins, 1, i + 1);
        sqlite3_bind_double(ins, 2, a);
        sqlite3_bind_double(ins, 3, b);
        sqlite3_bind_text(ins, 4, city, -1, SQLITE_STATIC);
        sqlite3_bind_double(ins, 5, x);
        if (sqlite3_step(ins) != SQLITE_DONE) return die("sqlite insert");
        sqlite3_reset(ins);
        std::fprintf(csv, "%ld,%.0f,%.0f,%s,%.6f\n", i + 1, a, b, city, x);
    }
    sqlite3_finalize(ins);
    if (sqlite3_exec(s, "COMMIT; CREATE INDEX ta ON t(a);", nullptr, nullptr, nullptr) != SQLITE_OK)
        return die("sqlite index");
    sqlite3_close(s);
    std::fclose(csv);
    if (int rc = spfreeio(wr)) return die("spfreeio", rc);
    if (int rc = vrtaclose(fid)) return die("vrtaclose", rc);
    // The same index as SQLite's.
    int32_t acol = 2;
    VRTAINDEXDEF def{};
    def.name = "TA";
    def.ncols = 1;
    def.cols = &acol;
    if (int rc = vrtaidxcreate(lib, "T", 1, &def)) return die("vrtaidxcreate", rc);
    spldeasgn(lib);
    return 0;
}

const Query* query(const char* name) {
    for (const Query& q : QUERIES)
        if (std::strcmp(q.name, name) == 0) return &q;
    return nullptr;
}

int runvrta(const char* dir, const Query& q) {
    void* lib = nullptr;
    if (int rc = splasgn(dir, &lib)) return die("splasgn", rc);
    void* fid = nullptr;
    if (int rc = vrtaopen(lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid)) return die("vrtaopen", rc);
    VRTAWHCOL cols[] = {{"ID", -1, 1, 8, 0}, {"A", -1, 1, 8, 8}, {"B", -1, 1, 8, 16}, {"CITY", -1, 2, 8, 24},
                        {"X", -1, 1, 8, 32}};
    void* wire = nullptr;
    int wl = 0;
    char msg[300];
    if (int rc = vrtawhparse(q.clause, -1, cols, 5, &wire, &wl, msg, sizeof msg)) return die(msg, rc);
    constexpr long ROWS = 8192;
    void* wh = nullptr;
    if (int rc = spnewwh(fid, ROWS * (ROWLEN + 8), 0, 0, &wh)) return die("spnewwh", rc);
    int flags = 0, st = 0;
    // Read in one stream, as the other engines' clients do: the plan may
    // take row numbers straight from the index.
    if (int rc = spwhset(wh, wire, 0x02, 0, nullptr, &flags, &st)) return die("spwhset", rc);
    std::vector<char> buf(ROWS * ROWLEN);
    int64_t rows = 0;
    double sum = 0;
    for (;;) {
        long n = 0;
        int rc = spwhget(wh, buf.data(), &n);
        if (rc == VRTA_RC_NOMORE) break;
        if (rc) return die("spwhget", rc);
        rows += n;
        if (!q.count)
            for (long i = 0; i < n; i++) {
                double id;
                std::memcpy(&id, buf.data() + i * ROWLEN, 8);
                sum += id;
            }
    }
    std::printf("rows=%" PRId64 " sum=%.0f\n", rows, q.count ? 0.0 : sum);
    spfreewh(wh);
    vrtawhfree(wire);
    vrtaclose(fid);
    spldeasgn(lib);
    return 0;
}

int runsqlite(const char* dir, const Query& q) {
    sqlite3* s = nullptr;
    std::string db = std::string(dir) + "/t.sqlite";
    if (sqlite3_open_v2(db.c_str(), &s, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return die("sqlite3_open");
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(s, q.sql, -1, &st, nullptr) != SQLITE_OK) return die(sqlite3_errmsg(s));
    int64_t rows = 0;
    double sum = 0;
    while (sqlite3_step(st) == SQLITE_ROW) {
        if (q.count) {
            rows = sqlite3_column_int64(st, 0);
            continue;
        }
        rows++;
        sum += static_cast<double>(sqlite3_column_int64(st, 0));
        // The other columns are fetched as a client would.
        (void)sqlite3_column_double(st, 1);
        (void)sqlite3_column_double(st, 2);
        (void)sqlite3_column_text(st, 3);
        (void)sqlite3_column_double(st, 4);
    }
    sqlite3_finalize(st);
    sqlite3_close(s);
    std::printf("rows=%" PRId64 " sum=%.0f\n", rows, q.count ? 0.0 : sum);
    return 0;
}

int runduck(const char* dir, const char* what) {
    Duck d{};
    if (!loadduck(&d, "bench_where")) return die("DuckDB's library is not usable");
    std::string file = std::string(dir) + "/t.duckdb";
    void* db = nullptr;
    void* con = nullptr;
    if (d.open(file.c_str(), &db) != 0 || d.connect(db, &con) != 0) return die("duckdb_open");
    duckdb_result r{};
    std::string sql;
    const Query* q = nullptr;
    if (std::strcmp(what, "duckmake") == 0) {
        sql = "CREATE OR REPLACE TABLE t AS SELECT * FROM read_csv('" + std::string(dir) +
              "/t.csv', header=true, columns={'id':'BIGINT','a':'DOUBLE','b':'DOUBLE','city':'VARCHAR',"
              "'x':'DOUBLE'})";
    } else {
        q = query(what);
        sql = q->sql;
    }
    if (d.query(con, sql.c_str(), &r) != 0) {
        std::string e = d.result_error(&r) ? d.result_error(&r) : "?";
        d.destroy_result(&r);
        return die("duckdb: " + e);
    }
    if (q) {
        int64_t rows = q->count ? d.value_int64(&r, 0, 0) : static_cast<int64_t>(d.row_count(&r));
        double sum = 0;
        if (!q->count)
            for (uint64_t i = 0; i < d.row_count(&r); i++) sum += static_cast<double>(d.value_int64(&r, 0, i));
        std::printf("rows=%" PRId64 " sum=%.0f\n", rows, q->count ? 0.0 : sum);
    }
    d.destroy_result(&r);
    d.disconnect(&con);
    d.close(&db);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "make") == 0) return make(argv[2], std::atol(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "duckmake") == 0) return runduck(argv[2], "duckmake");
    if (argc == 4 && query(argv[3])) {
        if (std::strcmp(argv[1], "vrta") == 0) return runvrta(argv[2], *query(argv[3]));
        if (std::strcmp(argv[1], "sqlite") == 0) return runsqlite(argv[2], *query(argv[3]));
        if (std::strcmp(argv[1], "duckdb") == 0) return runduck(argv[2], argv[3]);
    }
    std::fprintf(stderr,
                 "usage: bench_where make DIR NROWS | duckmake DIR | vrta|sqlite|duckdb DIR sel|scan|count\n");
    return 2;
}

// Random tables and random clauses: every clause's rows through the planner
// and the WHERE cursor must be the rows a plain evaluation written here, from
// the language's rules, picks; and for clauses that touch no missing value,
// the rows SQLite picks from the same live rows.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "testutil.h"
#include "vrta/directapi.h"
#include "vrta/vrtawh.h"

namespace {

bool longMode() {
    const char* e = std::getenv("VRTA_LONG");
    return e && *e && std::strcmp(e, "0") != 0;
}

// ---------------------------------------------------------------- values
// A number or a missing value of a rank: "._" 1, "." 2, ".A" to ".Z" 3 to 28.
struct Num {
    int rank = 0;
    double v = 0;
};
// Numbers sort above every missing value; missing values by rank.
int cmp(const Num& a, const Num& b) {
    if (a.rank || b.rank) {
        if (!a.rank) return 1;
        if (!b.rank) return -1;
        return a.rank < b.rank ? -1 : a.rank > b.rank;
    }
    return a.v < b.v ? -1 : a.v > b.v;
}
double bits(const Num& n) {
    if (!n.rank) return n.v;
    uint64_t u = 0xFFFF000000000000ull | (uint64_t(0x100 - n.rank) << 40);
    double d;
    std::memcpy(&d, &u, 8);
    return d;
}
std::string numtext(const Num& n) {
    if (n.rank == 1) return "._";
    if (n.rank == 2) return ".";
    if (n.rank > 2) return std::string(".") + char('A' + n.rank - 3);
    char b[40];
    std::snprintf(b, sizeof b, "%.17g", n.v);
    return b;
}
std::string rtrim(std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}
// Blank-padded order of strings of letters and blanks.
int scmp(const std::string& a, const std::string& b) {
    std::string x = rtrim(a), y = rtrim(b);
    return x < y ? -1 : x > y;
}

// ---------------------------------------------------------------- the table
// N1 number with missing values, N2 number without, S3 a 4-byte number with
// missing values, N4 number without, C1 8 characters (blank at times), C2 3.
struct Col {
    const char* name;
    int type, len, pos;
    bool missing;  // numbers: may hold missing values
};
const Col COLS[] = {{"N1", 1, 8, 0, false}, {"N2", 1, 8, 8, false}, {"S3", 1, 4, 16, false},
                    {"N4", 1, 8, 20, false}, {"C1", 2, 8, 28, false}, {"C2", 2, 3, 36, false}};
constexpr int NCOL = 6;
constexpr int ROWLEN = 39;
bool hasMissing(int c) { return c == 0 || c == 2; }

struct Row {
    Num n[4];  // N1 N2 S3 N4 by their column
    std::string c1, c2;
    bool live = true;
};

const char* WORDS[] = {"", "A", "AB", "ABC", "B", "BA", "BAB", "C", "CAB", "ABCDEFGH", "A B", "AA"};

Num randnum(std::mt19937& r, bool missing) {
    Num n;
    if (missing && r() % 8 == 0) {
        int k = r() % 4;
        n.rank = k == 0 ? 1 : k == 1 ? 2 : k == 2 ? 3 : 28;
        return n;
    }
    n.v = static_cast<int>(r() % 13) - 6 + ((r() % 4 == 0) ? 0.5 : 0.0);
    return n;
}

std::string randword(std::mt19937& r, size_t width) {
    std::string w = WORDS[r() % (sizeof WORDS / sizeof WORDS[0])];
    if (w.size() > width) w.resize(width);
    return w;
}

void pack(const Row& row, char* out) {
    std::memset(out, ' ', ROWLEN);
    for (int k : {0, 1, 3}) {
        double d = bits(row.n[k]);
        std::memcpy(out + COLS[k].pos, &d, 8);
    }
    double d = bits(row.n[2]);
    std::memcpy(out + COLS[2].pos, reinterpret_cast<char*>(&d) + 4, 4);
    std::memcpy(out + COLS[4].pos, row.c1.data(), row.c1.size());
    std::memcpy(out + COLS[5].pos, row.c2.data(), row.c2.size());
}

// ---------------------------------------------------------------- clauses
struct Expr;
using P = std::unique_ptr<Expr>;
enum Kind { CMPN, CMPC, TCMP, INN, INC, BETW, MISS, LIKE, ARITH, AND, OR, NOT };
const char* OPS[] = {"=", "^=", "<", "<=", ">", ">="};
const char* SQLOPS[] = {"=", "<>", "<", "<=", ">", ">="};

struct Expr {
    Kind k;
    int col = 0, col2 = -1, op = 0;
    Num lit, lit2;
    std::vector<Num> nset;
    std::string s;
    std::vector<std::string> cset;
    bool neg = false;
    char aop = '+';
    std::vector<P> kids;
};

bool opres(int c, int op) {
    switch (op) {
    case 0: return c == 0;
    case 1: return c != 0;
    case 2: return c < 0;
    case 3: return c <= 0;
    case 4: return c > 0;
    default: return c >= 0;
    }
}

bool like(const std::string& value, const std::string& pat) {
    std::string re;
    for (char c : pat) re += c == '%' ? ".*" : c == '_' ? "." : std::string(1, c);
    return std::regex_match(value, std::regex(re + " *"));
}

std::string padded(const std::string& s, int width) { return s + std::string(width - s.size(), ' '); }

bool eval(const Expr& e, const Row& r) {
    switch (e.k) {
    case CMPN: {
        Num right = e.col2 >= 0 ? r.n[e.col2] : e.lit;
        return opres(cmp(r.n[e.col], right), e.op);
    }
    case CMPC: return opres(scmp(e.col == 4 ? r.c1 : r.c2, e.s), e.op);
    case TCMP: {
        // Both cut to the shorter length, blanks of the column included.
        std::string v = padded(e.col == 4 ? r.c1 : r.c2, e.col == 4 ? 8 : 3);
        size_t n = std::min(v.size(), e.s.size());
        return opres(v.substr(0, n).compare(e.s.substr(0, n)) < 0 ? -1 : v.substr(0, n) > e.s.substr(0, n), e.op);
    }
    case INN: {
        bool in = false;
        for (const Num& x : e.nset) in = in || cmp(r.n[e.col], x) == 0;
        return in != e.neg;
    }
    case INC: {
        bool in = false;
        for (const std::string& x : e.cset) in = in || scmp(e.col == 4 ? r.c1 : r.c2, x) == 0;
        return in != e.neg;
    }
    case BETW: {
        Num lo = e.lit, hi = e.lit2;
        if (cmp(lo, hi) > 0) std::swap(lo, hi);
        bool in = cmp(r.n[e.col], lo) >= 0 && cmp(r.n[e.col], hi) <= 0;
        return in != e.neg;
    }
    case MISS: return (r.n[e.col].rank != 0) != e.neg;
    case LIKE: return like(padded(e.col == 4 ? r.c1 : r.c2, e.col == 4 ? 8 : 3), e.s) != e.neg;
    case ARITH: {
        // col aop lit compared with lit2; missing in, missing out.
        const Num& a = r.n[e.col];
        Num res;
        if (a.rank || e.lit.rank || (e.aop == '/' && e.lit.v == 0)) {
            res.rank = 2;
        } else {
            res.v = e.aop == '+' ? a.v + e.lit.v : e.aop == '-' ? a.v - e.lit.v : e.aop == '*' ? a.v * e.lit.v
                                                                                              : a.v / e.lit.v;
        }
        return opres(cmp(res, e.lit2), e.op);
    }
    case AND:
        for (const P& k : e.kids)
            if (!eval(*k, r)) return false;
        return true;
    case OR:
        for (const P& k : e.kids)
            if (eval(*k, r)) return true;
        return false;
    case NOT: return !eval(*e.kids[0], r);
    }
    return false;
}

std::string quote(const std::string& s) { return "'" + s + "'"; }

std::string text(const Expr& e) {
    std::string c = COLS[e.col].name;
    switch (e.k) {
    case CMPN: return c + " " + OPS[e.op] + " " + (e.col2 >= 0 ? std::string(COLS[e.col2].name) : numtext(e.lit));
    case CMPC: return c + " " + OPS[e.op] + " " + quote(e.s);
    case TCMP: return c + " " + OPS[e.op] + ": " + quote(e.s);
    case INN:
    case INC: {
        std::string t = c + (e.neg ? " not in (" : " in (");
        size_t n = e.k == INN ? e.nset.size() : e.cset.size();
        for (size_t i = 0; i < n; i++) t += (i ? ", " : "") + (e.k == INN ? numtext(e.nset[i]) : quote(e.cset[i]));
        return t + ")";
    }
    case BETW: return c + (e.neg ? " not between " : " between ") + numtext(e.lit) + " and " + numtext(e.lit2);
    case MISS: return c + (e.neg ? " is not missing" : " is missing");
    case LIKE: return c + (e.neg ? " not like " : " like ") + quote(e.s);
    case ARITH:
        return c + " " + e.aop + " " + numtext(e.lit) + " " + OPS[e.op] + " " + numtext(e.lit2);
    case AND:
    case OR: {
        std::string t = "(";
        for (size_t i = 0; i < e.kids.size(); i++) t += (i ? (e.k == AND ? " and " : " or ") : "") + text(*e.kids[i]);
        return t + ")";
    }
    case NOT: return "not " + text(*e.kids[0]);
    }
    return "";
}

std::string sqlnum(const Num& n) { return numtext(n); }

// The same clause for SQLite; false when it has no faithful SQL form (it
// touches missing values, or a pattern's '_' could meet trailing blanks).
bool sql(const Expr& e, std::string* out) {
    std::string c = COLS[e.col].name;
    auto anymiss = [](const Num& n) { return n.rank != 0; };
    switch (e.k) {
    case CMPN:
        if (hasMissing(e.col) || (e.col2 >= 0 && hasMissing(e.col2)) || (e.col2 < 0 && anymiss(e.lit))) return false;
        *out = c + SQLOPS[e.op] + (e.col2 >= 0 ? std::string(COLS[e.col2].name) : sqlnum(e.lit));
        return true;
    case CMPC: *out = c + SQLOPS[e.op] + quote(rtrim(e.s)); return true;
    case INN: {
        if (hasMissing(e.col) || std::any_of(e.nset.begin(), e.nset.end(), anymiss)) return false;
        std::string t = c + (e.neg ? " NOT IN (" : " IN (");
        for (size_t i = 0; i < e.nset.size(); i++) t += (i ? "," : "") + sqlnum(e.nset[i]);
        *out = t + ")";
        return true;
    }
    case INC: {
        std::string t = c + (e.neg ? " NOT IN (" : " IN (");
        for (size_t i = 0; i < e.cset.size(); i++) t += (i ? "," : "") + quote(rtrim(e.cset[i]));
        *out = t + ")";
        return true;
    }
    case BETW: {
        if (hasMissing(e.col) || anymiss(e.lit) || anymiss(e.lit2)) return false;
        Num lo = e.lit, hi = e.lit2;
        if (cmp(lo, hi) > 0) std::swap(lo, hi);
        *out = c + (e.neg ? " NOT BETWEEN " : " BETWEEN ") + sqlnum(lo) + " AND " + sqlnum(hi);
        return true;
    }
    case LIKE:
        if (e.s.find('_') != std::string::npos) return false;
        *out = c + (e.neg ? " NOT LIKE " : " LIKE ") + quote(e.s);
        return true;
    case AND:
    case OR:
    case NOT: {
        std::string t = e.k == NOT ? "NOT (" : "(";
        for (size_t i = 0; i < e.kids.size(); i++) {
            std::string k;
            if (!sql(*e.kids[i], &k)) return false;
            t += (i ? (e.k == AND ? " AND " : " OR ") : "") + k;
        }
        *out = t + ")";
        return true;
    }
    default: return false;
    }
}

int numcol(std::mt19937& r) {
    static const int n[] = {0, 1, 2, 3};
    return n[r() % 4];
}

P gen(std::mt19937& r, int depth) {
    auto e = std::make_unique<Expr>();
    int pick = depth > 2 ? static_cast<int>(r() % 9) : static_cast<int>(r() % 12);
    switch (pick) {
    case 0:
    case 1:
        e->k = CMPN;
        e->col = numcol(r);
        e->op = r() % 6;
        if (r() % 5 == 0) e->col2 = numcol(r);
        else e->lit = randnum(r, r() % 3 == 0);
        break;
    case 2:
        e->k = CMPC;
        e->col = 4 + r() % 2;
        e->op = r() % 6;
        e->s = randword(r, 10);
        break;
    case 3:
        e->k = TCMP;
        e->col = 4 + r() % 2;
        e->op = r() % 6;
        e->s = randword(r, 10);
        if (e->s.empty()) e->s = "A";
        break;
    case 4: {
        e->k = INN;
        e->col = numcol(r);
        e->neg = r() % 3 == 0;
        int n = 1 + r() % 5;
        for (int i = 0; i < n; i++) e->nset.push_back(randnum(r, r() % 3 == 0));
        break;
    }
    case 5: {
        e->k = INC;
        e->col = 4 + r() % 2;
        e->neg = r() % 3 == 0;
        int n = 1 + r() % 4;
        for (int i = 0; i < n; i++) e->cset.push_back(randword(r, 8));
        break;
    }
    case 6:
        e->k = BETW;
        e->col = numcol(r);
        e->neg = r() % 4 == 0;
        e->lit = randnum(r, r() % 4 == 0);
        e->lit2 = randnum(r, r() % 4 == 0);
        break;
    case 7:
        e->k = r() % 2 ? MISS : ARITH;
        e->col = numcol(r);
        e->neg = r() % 2;
        if (e->k == ARITH) {
            e->aop = "+-*/"[r() % 4];
            e->lit = randnum(r, false);
            e->lit2 = randnum(r, r() % 5 == 0);
            e->op = r() % 6;
        }
        break;
    case 8: {
        e->k = LIKE;
        e->col = 4 + r() % 2;
        e->neg = r() % 4 == 0;
        const char* pats[] = {"A%", "%B", "%A%", "A_", "_A%", "AB", "%", "A%B", "B_B", "%C"};
        e->s = pats[r() % 10];
        break;
    }
    case 9:
    case 10: {
        e->k = r() % 2 ? AND : OR;
        int n = 2 + r() % 3;
        for (int i = 0; i < n; i++) e->kids.push_back(gen(r, depth + 1));
        break;
    }
    default:
        e->k = NOT;
        e->kids.push_back(gen(r, depth + 1));
        break;
    }
    return e;
}

// ---------------------------------------------------------------- the test

struct Fixture {
    vrtatest::TempDir dir;
    void* lib = nullptr;
    std::vector<Row> rows;
    sqlite3* db = nullptr;
    ~Fixture() {
        if (db) sqlite3_close(db);
        if (lib) spldeasgn(lib);
    }
};

void build(Fixture& f, int nrows, std::mt19937& r) {
    ASSERT_EQ(0, splasgn(f.dir.path().c_str(), &f.lib));
    VRTACOLDEF defs[NCOL];
    for (int i = 0; i < NCOL; i++) defs[i] = VRTACOLDEF{COLS[i].name, -1, nullptr, 0, COLS[i].type, COLS[i].len};
    VRTACREATE cr{};
    cr.ncols = NCOL;
    cr.cols = defs;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtacreate(f.lib, "T", 1, &cr, &fid));
    std::vector<char> buf(100 * ROWLEN);
    void* wr = nullptr;
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &wr));
    for (int i = 0; i < nrows; i++) {
        Row row;
        for (int k = 0; k < 4; k++) row.n[k] = randnum(r, hasMissing(k));
        row.c1 = randword(r, 8);
        row.c2 = randword(r, 3);
        f.rows.push_back(row);
        pack(row, buf.data() + (i % 100) * ROWLEN);
        if (i % 100 == 99 || i == nrows - 1) {
            ASSERT_EQ(0, spwritev(wr, i % 100 + 1));
        }
    }
    ASSERT_EQ(0, spfreeio(wr));
    ASSERT_EQ(0, vrtaclose(fid));
    // Every seventh row or so goes, through the delete context.
    ASSERT_EQ(0, vrtaupdate(f.lib, "T", 1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
    void* dc = nullptr;
    ASSERT_EQ(0, spnewdel(fid, &dc));
    for (int i = 0; i < nrows; i++)
        if (r() % 7 == 0) {
            ASSERT_EQ(0, spdelobs(dc, i + 1));
            f.rows[i].live = false;
        }
    ASSERT_EQ(0, spfreedel(dc, 0));
    ASSERT_EQ(0, vrtaclose(fid));

    ASSERT_EQ(SQLITE_OK, sqlite3_open(":memory:", &f.db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(f.db,
                                      "PRAGMA case_sensitive_like=ON;"
                                      "CREATE TABLE T(R INTEGER, N1 REAL, N2 REAL, S3 REAL, N4 REAL, C1 TEXT, C2 TEXT)",
                                      nullptr, nullptr, nullptr));
    sqlite3_stmt* ins = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(f.db, "INSERT INTO T VALUES(?,?,?,?,?,?,?)", -1, &ins, nullptr));
    sqlite3_exec(f.db, "BEGIN", nullptr, nullptr, nullptr);
    for (int i = 0; i < nrows; i++) {
        const Row& row = f.rows[i];
        if (!row.live) continue;
        sqlite3_bind_int64(ins, 1, i + 1);
        for (int k = 0; k < 4; k++) {
            if (row.n[k].rank) sqlite3_bind_null(ins, 2 + k);
            else sqlite3_bind_double(ins, 2 + k, row.n[k].v);
        }
        std::string a = rtrim(row.c1), b = rtrim(row.c2);
        sqlite3_bind_text(ins, 6, a.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(ins, 7, b.c_str(), -1, SQLITE_TRANSIENT);
        ASSERT_EQ(SQLITE_DONE, sqlite3_step(ins));
        sqlite3_reset(ins);
    }
    sqlite3_exec(f.db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_finalize(ins);
}

std::vector<int64_t> sqliteRows(sqlite3* db, const std::string& where) {
    std::vector<int64_t> out;
    sqlite3_stmt* st = nullptr;
    std::string q = "SELECT R FROM T WHERE " + where + " ORDER BY R";
    if (sqlite3_prepare_v2(db, q.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "sqlite refused " << q << ": " << sqlite3_errmsg(db);
        return out;
    }
    while (sqlite3_step(st) == SQLITE_ROW) out.push_back(sqlite3_column_int64(st, 0));
    sqlite3_finalize(st);
    return out;
}

// Rows of the clause through the module, or an empty list after a failure.
// bufrows, the rows of one spwhget, also sets the size of the chunks the
// cursor reads: small buffers make a table of many chunks.
std::vector<int64_t> moduleRows(void* fid, const std::string& clause, int threads, int* flags, long bufrows = 300,
                                int initflags = 0) {
    std::vector<int64_t> out;
    VRTAWHCOL wc[NCOL];
    for (int i = 0; i < NCOL; i++) wc[i] = VRTAWHCOL{COLS[i].name, -1, COLS[i].type, COLS[i].len, COLS[i].pos};
    void* wire = nullptr;
    int wl = 0;
    char msg[300];
    int rc = vrtawhparse(clause.c_str(), -1, wc, NCOL, &wire, &wl, msg, sizeof msg);
    if (rc != 0) {
        ADD_FAILURE() << clause << ": " << msg;
        return out;
    }
    void* wh = nullptr;
    EXPECT_EQ(0, spnewwh(fid, bufrows * (ROWLEN + 8), 0, 0, &wh));
    EXPECT_EQ(0, spwhthreads(wh, threads));
    int st = 0;
    rc = spwhset(wh, wire, initflags, 0, nullptr, flags, &st);
    EXPECT_EQ(rc, 0) << clause;
    std::vector<char> buf(bufrows * ROWLEN);
    for (int guard = 0; rc == 0 && guard < 100000; guard++) {
        long n = 0;
        rc = spwhget(wh, buf.data(), &n);
        if (rc == VRTA_RC_NOMORE) break;
        EXPECT_EQ(rc, 0) << clause;
        const int64_t* obs = spwhobsvec(wh);
        for (long i = 0; i < n; i++) out.push_back(obs[i]);
    }
    spfreewh(wh);
    vrtawhfree(wire);
    return out;
}

TEST(WhDiff, PlannerAgreesWithPlainEvaluationAndSqlite) {
    std::mt19937 r(20261124);
    Fixture f;
    int nrows = longMode() ? 40000 : 10000;
    int nclauses = longMode() ? 3000 : 200;
    build(f, nrows, r);
    if (HasFatalFailure()) return;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    int sqlchecked = 0, nonempty = 0, decided = 0;
    for (int k = 0; k < nclauses; k++) {
        P e = gen(r, 0);
        std::string clause = text(*e);
        std::vector<int64_t> want;
        for (size_t i = 0; i < f.rows.size(); i++)
            if (f.rows[i].live && eval(*e, f.rows[i])) want.push_back(static_cast<int64_t>(i) + 1);
        int flags = 0;
        static const long bufrows[] = {300, 17, 1000, 64};
        std::vector<int64_t> got = moduleRows(fid, clause, 1 + k % 3, &flags, bufrows[k % 4]);
        ASSERT_EQ(got, want) << clause << " (plan 0x" << std::hex << flags << ")";
        nonempty += !want.empty();
        decided += (flags & (VRTAWH_FTRUE | VRTAWH_FFALSE)) != 0;
        std::string q;
        if (sql(*e, &q)) {
            ASSERT_EQ(sqliteRows(f.db, q), want) << clause << "\n  sql: " << q;
            sqlchecked++;
        }
    }
    // The generator must really have exercised both sides.
    EXPECT_GT(sqlchecked, nclauses / 5);
    EXPECT_GT(nonempty, nclauses / 3);
    EXPECT_LT(nonempty, nclauses);
    ASSERT_EQ(0, vrtaclose(fid));
}

// Indexes on single columns and on two, built after the deletions: each
// clause planned with the indexes and without them gives the brute-force
// rows, and the planner really splits off index trees.
void addIndex(Fixture& f, const char* name, std::vector<int32_t> cols) {
    VRTAINDEXDEF d{};
    d.name = name;
    d.ncols = static_cast<int>(cols.size());
    d.cols = cols.data();
    ASSERT_EQ(0, vrtaidxcreate(f.lib, "T", 1, &d)) << name;
}

TEST(WhDiff, IndexPlansAgreeWithRowTests) {
    std::mt19937 r(77);
    Fixture f;
    build(f, 6000, r);
    if (HasFatalFailure()) return;
    addIndex(f, "IN1", {1});
    addIndex(f, "IN2", {2});
    addIndex(f, "IS3", {3});
    addIndex(f, "IC1", {5});
    addIndex(f, "IC2", {6});
    addIndex(f, "IN2C2", {2, 6});
    if (HasFatalFailure()) return;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    int planned = 0, byindex = 0, nclauses = longMode() ? 2000 : 150;
    for (int k = 0; k < nclauses; k++) {
        P e = gen(r, 0);
        std::string clause = text(*e);
        std::vector<int64_t> want;
        for (size_t i = 0; i < f.rows.size(); i++)
            if (f.rows[i].live && eval(*e, f.rows[i])) want.push_back(static_cast<int64_t>(i) + 1);
        int flags = 0, plain = 0;
        ASSERT_EQ(moduleRows(fid, clause, 1 + k % 2, &flags, 256), want) << clause << " (plan 0x" << std::hex << flags << ")";
        ASSERT_EQ(moduleRows(fid, clause, 1, &plain, 256, 0x01), want) << clause << " without indexes";
        EXPECT_EQ(plain & VRTAWH_FPLANNED, 0) << clause;
        planned += (flags & VRTAWH_FPLANNED) != 0;
        // A caller reading in one stream may get row numbers from the
        // index: in key order (EVAL3) or in row order (EVAL4).
        int seq = 0;
        // Costing (0x08) on half of them.
        std::vector<int64_t> got = moduleRows(fid, clause, 1 + k % 3, &seq, 97, k % 2 ? 0x0a : 0x02);
        if (seq & VRTAWH_FEVAL4) {
            EXPECT_TRUE(std::is_sorted(got.begin(), got.end())) << clause;
        }
        std::sort(got.begin(), got.end());
        ASSERT_EQ(got, want) << clause << " (sequential plan 0x" << std::hex << seq << ")";
        byindex += (seq & (VRTAWH_FEVAL3 | VRTAWH_FEVAL4)) != 0;
    }
    EXPECT_GT(planned, nclauses / 10);
    EXPECT_GT(byindex, nclauses / 20);
    // Clauses the indexes' stored bounds settle, and ones they cannot.
    double hi = -1e300, lo = 1e300;
    for (const Row& x : f.rows) hi = std::max(hi, x.n[1].v), lo = std::min(lo, x.n[1].v);
    int flags = 0;
    char c[200];
    std::snprintf(c, sizeof c, "n2 > %.17g", hi);
    EXPECT_EQ(moduleRows(fid, c, 2, &flags).size(), 0u);
    EXPECT_EQ(flags, VRTAWH_FFALSE) << c;
    std::snprintf(c, sizeof c, "n2 in (%.17g, %.17g) and n4 > 0", hi + 1, lo - 1);
    EXPECT_EQ(moduleRows(fid, c, 2, &flags).size(), 0u);
    EXPECT_EQ(flags, VRTAWH_FFALSE) << c;
    std::snprintf(c, sizeof c, "n2 >= %.17g", lo);
    int live = static_cast<int>(std::count_if(f.rows.begin(), f.rows.end(), [](const Row& x) { return x.live; }));
    EXPECT_EQ(static_cast<int>(moduleRows(fid, c, 2, &flags).size()), live);
    EXPECT_EQ(flags, VRTAWH_FTRUE) << c;
    // At the bounds themselves: strict compares leave the rows at the bound out.
    int below = 0, above = 0;
    for (const Row& x : f.rows) below += x.live && x.n[1].v < hi, above += x.live && x.n[1].v > lo;
    std::snprintf(c, sizeof c, "n2 < %.17g", hi);
    EXPECT_EQ(static_cast<int>(moduleRows(fid, c, 2, &flags).size()), below) << c;
    std::snprintf(c, sizeof c, "n2 > %.17g", lo);
    EXPECT_EQ(static_cast<int>(moduleRows(fid, c, 2, &flags).size()), above) << c;
    // N1 holds missing values: its bounds never claim every row.
    EXPECT_EQ(moduleRows(fid, "n1 >= .A and c2 = 'ZZZ'", 1, &flags).size(), 0u);
    EXPECT_NE(flags & VRTAWH_FTRUE, VRTAWH_FTRUE);
    // A conjunct on an indexed column and one on an unindexed one.
    EXPECT_EQ(moduleRows(fid, "n2 < 0.5 and n4 > 0.5", 1, &flags),
              moduleRows(fid, "n2 < 0.5 and n4 > 0.5", 1, &flags, 256, 0x01));
    moduleRows(fid, "n2 < 0.5 and n4 > 0.5", 1, &flags);
    EXPECT_EQ(flags & (VRTAWH_FPLANNED | VRTAWH_FEVAL1 | VRTAWH_FEVAL2),
              VRTAWH_FPLANNED | VRTAWH_FEVAL1 | VRTAWH_FEVAL2);
    ASSERT_EQ(0, vrtaclose(fid));
}

// The plan of a clause as spwhexplain tells it.
std::string explainOf(void* fid, const char* clause) {
    VRTAWHCOL wc[NCOL];
    for (int i = 0; i < NCOL; i++) wc[i] = VRTAWHCOL{COLS[i].name, -1, COLS[i].type, COLS[i].len, COLS[i].pos};
    void* wire = nullptr;
    int wl = 0;
    if (vrtawhparse(clause, -1, wc, NCOL, &wire, &wl, nullptr, 0) != 0) return "parse failed";
    void* wh = nullptr;
    std::string out = "open failed";
    if (spnewwh(fid, 64 * (ROWLEN + 8), 0, 0, &wh) == 0) {
        int flags = 0, st = 0;
        char buf[2000];
        if (spwhset(wh, wire, 0, 0, nullptr, &flags, &st) == 0 && spwhexplain(wh, buf, sizeof buf) > 0) out = buf;
        spfreewh(wh);
    }
    vrtawhfree(wire);
    return out;
}

// Which index each node takes: composite keys against single indexes, and
// what stays a row test.
TEST(WhDiff, IndexChoices) {
    std::mt19937 r(3);
    Fixture f;
    build(f, 2000, r);
    if (HasFatalFailure()) return;
    addIndex(f, "IN2", {2});
    addIndex(f, "IC2", {6});
    addIndex(f, "IN2C2", {2, 6});
    addIndex(f, "IN4S3", {4, 3});
    if (HasFatalFailure()) return;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    auto has = [](const std::string& t, const char* s) { return t.find(s) != std::string::npos; };
    // Both columns of the composite matched by equalities: one key.
    std::string e = explainOf(fid, "n2 = 1 and c2 = 'A'");
    EXPECT_TRUE(has(e, "plan: EVAL1 ALL\n")) << e;
    EXPECT_TRUE(has(e, "indexes: IN2C2 (2 columns)\n")) << e;
    EXPECT_TRUE(has(e, "row test: none\n")) << e;
    // Many key permutations: each column keeps its own index.
    e = explainOf(fid, "n2 in (1, 2, 3, 4, 5) and c2 in ('A', 'B')");
    EXPECT_TRUE(has(e, "indexes: IN2, IC2\n")) << e;
    // A conjunct no index answers stays a row test; not-equal takes the
    // index but cannot narrow the segments.
    e = explainOf(fid, "n2 <> 1 and c1 = 'AB'");
    EXPECT_TRUE(has(e, "plan: EVAL1 EVAL2 ALL\n")) << e;
    EXPECT_TRUE(has(e, "index tree: (N2 not = 1)\n")) << e;
    EXPECT_TRUE(has(e, "indexes: IN2\n")) << e;
    EXPECT_TRUE(has(e, "row test: (C1='AB')\n")) << e;
    // An OR is answered by indexes only when every branch is.
    e = explainOf(fid, "n2 = 1 or c1 = 'A'");
    EXPECT_TRUE(has(e, "index tree: none\n")) << e;
    e = explainOf(fid, "n2 = 1 or c2 = 'A'");
    EXPECT_TRUE(has(e, "indexes: IN2, IC2\n")) << e;
    // A composite whose first column has no condition is not used; one
    // whose first column has one serves it alone.
    e = explainOf(fid, "s3 = 1");
    EXPECT_TRUE(has(e, "index tree: none\n")) << e;
    e = explainOf(fid, "n4 > 2");
    EXPECT_TRUE(has(e, "indexes: IN4S3\n")) << e;
    // List members outside the index's lowest and highest key are dropped
    // from the INDEX tree; the rest stay.
    e = explainOf(fid, "n2 in (-100, 1, 100)");
    EXPECT_TRUE(has(e, "indexes: IN2\n")) << e;
    EXPECT_FALSE(has(e, "100")) << e;
    EXPECT_TRUE(has(e, "1")) << e;
    ASSERT_EQ(0, vrtaclose(fid));
    // An index dropped between two plans is no longer planned on.
    ASSERT_EQ(0, vrtaidxdrop(f.lib, "T", 1, "IN2C2", nullptr));
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    e = explainOf(fid, "n2 = 1 and c2 = 'A'");
    EXPECT_TRUE(has(e, "indexes: IN2, IC2\n")) << e;
    ASSERT_EQ(0, vrtaclose(fid));
}

// A table whose key rises with the row: index segment lists let the cursor
// read only the segments that can hold a match, and the rows stay those of
// a full scan.
TEST(WhDiff, SegmentListsSkipSegments) {
    vrtatest::TempDir dir;
    void* lib = nullptr;
    ASSERT_EQ(0, splasgn(dir.path().c_str(), &lib));
    VRTACOLDEF defs[2] = {VRTACOLDEF{"K", -1, nullptr, 0, 1, 8}, VRTACOLDEF{"G", -1, nullptr, 0, 1, 8}};
    VRTACREATE cr{};
    cr.ncols = 2;
    cr.cols = defs;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtacreate(lib, "S", 1, &cr, &fid));
    const int nrows = 8192 * 6 + 100;  // seven segments, the last one short
    std::vector<double> k(nrows), g(nrows);
    std::vector<char> buf(16 * 1000);
    void* wr = nullptr;
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &wr));
    for (int i = 0; i < nrows; i++) {
        k[i] = i + 1;
        g[i] = i % 7;
        std::memcpy(buf.data() + (i % 1000) * 16, &k[i], 8);
        std::memcpy(buf.data() + (i % 1000) * 16 + 8, &g[i], 8);
        if (i % 1000 == 999 || i == nrows - 1) {
            ASSERT_EQ(0, spwritev(wr, i % 1000 + 1));
        }
    }
    ASSERT_EQ(0, spfreeio(wr));
    ASSERT_EQ(0, vrtaclose(fid));
    for (auto [name, col] : {std::pair<const char*, int32_t>{"IK", 1}, {"IG", 2}}) {
        VRTAINDEXDEF d{};
        d.name = name;
        d.ncols = 1;
        d.cols = &col;
        ASSERT_EQ(0, vrtaidxcreate(lib, "S", 1, &d)) << name;
    }
    ASSERT_EQ(0, vrtaopen(lib, "S", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    VRTAWHCOL wc[2] = {VRTAWHCOL{"K", -1, 1, 8, 0}, VRTAWHCOL{"G", -1, 1, 8, 8}};
    struct Case {
        const char* clause;
        long segs;  // segments read, -1 all
        bool (*keep)(double k, double g);
    };
    const Case cases[] = {
        {"k < 1000", 1, [](double k, double) { return k < 1000; }},
        {"k >= 20000 and k <= 30000", 2, [](double k, double) { return k >= 20000 && k <= 30000; }},
        {"k in (5, 40000, 49200)", 3, [](double k, double) { return k == 5 || k == 40000 || k == 49200; }},
        {"k > 45000 or k <= 8192", 3, [](double k, double) { return k > 45000 || k <= 8192; }},
        {"k < 9000 and g = 3", 2, [](double k, double g) { return k < 9000 && g == 3; }},
        {"k > 60000", 0, [](double k, double) { return k > 60000; }},
        {"k = 30000 or g = 1", -1, [](double k, double g) { return k == 30000 || g == 1; }},
        {"k >= 16385 and k < 16390", 1, [](double k, double) { return k >= 16385 && k < 16390; }},
        // Each end alone touches 6 of 7 segments, over the 75% a list may
        // have; the range between them is asked as one and touches 5.
        {"k > 8192 and k <= 49152", 5, [](double k, double) { return k > 8192 && k <= 49152; }},
        {"k < 49153 and g = 2 and k >= 8193", 5, [](double k, double g) { return k < 49153 && g == 2 && k >= 8193; }},
    };
    for (const Case& c : cases) {
        void* wire = nullptr;
        int wl = 0;
        ASSERT_EQ(0, vrtawhparse(c.clause, -1, wc, 2, &wire, &wl, nullptr, 0)) << c.clause;
        for (long bufrows : {50L, 3000L}) {
            void* wh = nullptr;
            ASSERT_EQ(0, spnewwh(fid, bufrows * 24, 0, 0, &wh));
            int flags = 0, st = 0;
            ASSERT_EQ(0, spwhset(wh, wire, 0, 0, nullptr, &flags, &st)) << c.clause;
            char ex[2000];
            ASSERT_GT(spwhexplain(wh, ex, sizeof ex), 0);
            if (c.segs >= 0) {
                std::string want = "segments: " + std::to_string(c.segs) + " of 7 ";
                EXPECT_NE(std::string(ex).find(want), std::string::npos) << c.clause << "\n" << ex;
            } else {
                EXPECT_NE(std::string(ex).find("segments: 7 of 7 "), std::string::npos) << c.clause << "\n" << ex;
            }
            std::vector<int64_t> got, want;
            std::vector<char> out(static_cast<size_t>(bufrows) * 16);
            long n = 0;
            int rc = 0;
            for (int guard = 0; guard < 100000 && (rc = spwhget(wh, out.data(), &n)) == 0; guard++)
                for (long i = 0; i < n; i++) got.push_back(spwhobsvec(wh)[i]);
            EXPECT_EQ(rc, VRTA_RC_NOMORE) << c.clause;
            for (int i = 0; i < nrows; i++)
                if (c.keep(k[i], g[i])) want.push_back(i + 1);
            EXPECT_EQ(got, want) << c.clause << " bufrows " << bufrows;
            ASSERT_EQ(0, spfreewh(wh));
        }
        vrtawhfree(wire);
    }
    // Costing: an index that would not skip reading gives way to the row
    // test, threads are cut to the work, no segment with a match is FALSE.
    struct Cost {
        const char* clause;
        const char* want;  // in the plan's text
    };
    const Cost costs[] = {
        {"k > 100", "index tree: none\n"},
        {"k in (5, 40000, 49200)", "threads: 1\n"},
        {"k = 30000.5", "none: no row qualifies"},
    };
    for (const Cost& c : costs) {
        void* wire = nullptr;
        int wl = 0;
        ASSERT_EQ(0, vrtawhparse(c.clause, -1, wc, 2, &wire, &wl, nullptr, 0)) << c.clause;
        for (int iflags : {0x00, 0x08}) {
            void* wh = nullptr;
            ASSERT_EQ(0, spnewwh(fid, 50 * 24, 0, 0, &wh));
            ASSERT_EQ(0, spwhthreads(wh, 4));
            int flags = 0, st = 0;
            ASSERT_EQ(0, spwhset(wh, wire, iflags, 0, nullptr, &flags, &st)) << c.clause;
            char ex[2000];
            ASSERT_GT(spwhexplain(wh, ex, sizeof ex), 0);
            // Only costing makes these plans.
            EXPECT_EQ(iflags != 0, std::string(ex).find(c.want) != std::string::npos) << c.clause << "\n" << ex;
            std::vector<int64_t> got;
            std::vector<char> out(50 * 16);
            long n = 0;
            for (int guard = 0; guard < 10000 && spwhget(wh, out.data(), &n) == 0; guard++)
                for (long i = 0; i < n; i++) got.push_back(spwhobsvec(wh)[i]);
            size_t want = std::string(c.clause) == "k > 100" ? nrows - 100 : std::string(c.clause) == "k = 30000.5" ? 0 : 3;
            EXPECT_EQ(got.size(), want) << c.clause;
            ASSERT_EQ(0, spfreewh(wh));
        }
        vrtawhfree(wire);
    }
    // Row numbers from the index within a row range, one key at a time and
    // as one list, in calls of 7 rows.
    for (const char* clause : {"k = 12000", "k in (5, 12000, 19000, 25000) or (k >= 15000 and k <= 15010)"}) {
        void* wire = nullptr;
        int wl = 0;
        ASSERT_EQ(0, vrtawhparse(clause, -1, wc, 2, &wire, &wl, nullptr, 0)) << clause;
        void* wh = nullptr;
        ASSERT_EQ(0, spnewwh(fid, 7 * 24, 10000, 20000, &wh));
        int flags = 0, st = 0;
        ASSERT_EQ(0, spwhset(wh, wire, 0x02, 0, nullptr, &flags, &st)) << clause;
        EXPECT_NE(flags & (VRTAWH_FEVAL3 | VRTAWH_FEVAL4), 0) << clause << std::hex << " 0x" << flags;
        std::vector<int64_t> got;
        std::vector<char> out(7 * 16);
        long n = 0;
        int rc = 0;
        for (int guard = 0; guard < 1000 && (rc = spwhget(wh, out.data(), &n)) == 0; guard++)
            for (long i = 0; i < n; i++) {
                double kv;
                std::memcpy(&kv, out.data() + i * 16, 8);
                EXPECT_EQ(kv, static_cast<double>(spwhobsvec(wh)[i]));
                got.push_back(spwhobsvec(wh)[i]);
            }
        EXPECT_EQ(rc, VRTA_RC_NOMORE);
        std::vector<int64_t> want = {12000};
        if (std::strchr(clause, ',')) {
            want = {12000};
            for (int64_t v = 15000; v <= 15010; v++) want.push_back(v);
            want.push_back(19000);
        }
        EXPECT_EQ(got, want) << clause;
        ASSERT_EQ(0, spfreewh(wh));
        vrtawhfree(wire);
    }
    ASSERT_EQ(0, vrtaclose(fid));
    // Rows added after the builds: the indexes are behind, the plan tests
    // rows instead and says why, and the new rows are found.
    ASSERT_EQ(0, vrtaupdate(lib, "S", 1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &wr));
    ASSERT_EQ(0, spsetloc(wr, nrows + 1));
    double extra[2] = {5, 0};
    std::memcpy(buf.data(), extra, 16);
    ASSERT_EQ(0, spwritev(wr, 1));
    ASSERT_EQ(0, spfreeio(wr));
    ASSERT_EQ(0, vrtaclose(fid));
    // The open itself warns that an index needs a rebuild.
    ASSERT_EQ(515, vrtaopen(lib, "S", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    void* wire = nullptr;
    int wl = 0;
    ASSERT_EQ(0, vrtawhparse("k = 5", -1, wc, 2, &wire, &wl, nullptr, 0));
    void* wh = nullptr;
    ASSERT_EQ(0, spnewwh(fid, 50 * 24, 0, 0, &wh));
    int flags = 0, st = 0;
    ASSERT_EQ(0, spwhset(wh, wire, 0, 0, nullptr, &flags, &st));
    char ex[2000];
    ASSERT_GT(spwhexplain(wh, ex, sizeof ex), 0);
    EXPECT_NE(std::string(ex).find("indexes: none\nnot used, need rebuild: IK\n"), std::string::npos) << ex;
    std::vector<char> out(50 * 16);
    long n = 0;
    std::vector<int64_t> got;
    while (spwhget(wh, out.data(), &n) == 0)
        for (long i = 0; i < n; i++) got.push_back(spwhobsvec(wh)[i]);
    EXPECT_EQ(got, (std::vector<int64_t>{5, nrows + 1}));
    ASSERT_EQ(0, spfreewh(wh));
    vrtawhfree(wire);
    ASSERT_EQ(0, vrtaclose(fid));
    ASSERT_EQ(0, spldeasgn(lib));
}

// Clauses decided before any row is read, row ranges, and a table where
// every row is deleted.
TEST(WhDiff, DecidedClausesRangesAndEmptyTables) {
    std::mt19937 r(5);
    Fixture f;
    build(f, 3000, r);
    if (HasFatalFailure()) return;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    int live = static_cast<int>(std::count_if(f.rows.begin(), f.rows.end(), [](const Row& x) { return x.live; }));
    int flags = 0;
    EXPECT_EQ(moduleRows(fid, "1 = 2", 2, &flags).size(), 0u);
    EXPECT_EQ(flags, VRTAWH_FFALSE);
    EXPECT_EQ(moduleRows(fid, "'   '", 2, &flags).size(), 0u);
    EXPECT_EQ(flags, VRTAWH_FFALSE);
    EXPECT_EQ(static_cast<int>(moduleRows(fid, "'x' or n1 > 3", 2, &flags).size()), live);
    EXPECT_EQ(flags, VRTAWH_FTRUE);
    EXPECT_EQ(static_cast<int>(moduleRows(fid, "n2 = n2", 2, &flags).size()), live);
    EXPECT_EQ(flags, VRTAWH_FEVAL2 | VRTAWH_FALL);

    // Rows 1000 to 1500 only.
    VRTAWHCOL wc[NCOL];
    for (int i = 0; i < NCOL; i++) wc[i] = VRTAWHCOL{COLS[i].name, -1, COLS[i].type, COLS[i].len, COLS[i].pos};
    void* wire = nullptr;
    int wl = 0;
    ASSERT_EQ(0, vrtawhparse("n1 >= 0", -1, wc, NCOL, &wire, &wl, nullptr, 0));
    void* wh = nullptr;
    ASSERT_EQ(0, spnewwh(fid, 64 * (ROWLEN + 8), 1000, 1500, &wh));
    int st;
    ASSERT_EQ(0, spwhset(wh, wire, 0, 0, nullptr, &flags, &st));
    std::vector<int64_t> got, want;
    std::vector<char> buf(64 * ROWLEN);
    long n = 0;
    while (spwhget(wh, buf.data(), &n) == 0)
        for (long i = 0; i < n; i++) {
            got.push_back(spwhobsvec(wh)[i]);
            double d;
            std::memcpy(&d, buf.data() + i * ROWLEN, 8);
            EXPECT_EQ(d, f.rows[got.back() - 1].n[0].v);  // the row delivered is that row
        }
    for (int i = 999; i < 1500; i++)
        if (f.rows[i].live && !f.rows[i].n[0].rank && f.rows[i].n[0].v >= 0) want.push_back(i + 1);
    EXPECT_EQ(got, want);
    // Unbinding ends the cursor's rows; a bad range or buffer is refused.
    EXPECT_EQ(0, spwhset(wh, nullptr, 0, 0, nullptr, &flags, &st));
    EXPECT_NE(0, spwhget(wh, buf.data(), &n));
    EXPECT_EQ(0, spfreewh(wh));
    void* bad = nullptr;
    EXPECT_NE(0, spnewwh(fid, 64 * (ROWLEN + 8), 20, 10, &bad));
    EXPECT_NE(0, spnewwh(fid, ROWLEN, 0, 0, &bad));
    EXPECT_EQ(bad, nullptr);
    ASSERT_EQ(0, vrtaclose(fid));

    // All rows deleted: FALSE without reading a row.
    ASSERT_EQ(0, vrtaupdate(f.lib, "T", 1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
    void* dc = nullptr;
    ASSERT_EQ(0, spnewdel(fid, &dc));
    for (int i = 1; i <= 3000; i++) ASSERT_EQ(0, spdelobs(dc, i));
    EXPECT_EQ(0, spdelobs(dc, 17));  // a second time is no change
    EXPECT_NE(0, spdelobs(dc, 3001));
    ASSERT_EQ(0, spfreedel(dc, 0));
    ASSERT_EQ(0, vrtaclose(fid));
    ASSERT_EQ(0, vrtaopen(f.lib, "T", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    EXPECT_EQ(moduleRows(fid, "n1 > 0 or n1 <= 0 or n1 = .", 2, &flags).size(), 0u);
    EXPECT_EQ(flags, VRTAWH_FFALSE);
    // A table opened for input takes no deletions.
    EXPECT_NE(0, spnewdel(fid, &dc));
    vrtawhfree(wire);
    ASSERT_EQ(0, vrtaclose(fid));
}

}  // namespace

// An index that leaves missing keys out knows nothing of those rows: a
// clause a missing value meets must still find them, whatever the plan.
TEST(WhDiff, IndexWithoutMissingKeysNeverHidesRows) {
    vrtatest::TempDir dir;
    void* lib = nullptr;
    ASSERT_EQ(0, splasgn(dir.path().c_str(), &lib));
    VRTACOLDEF defs[1] = {VRTACOLDEF{"N", -1, nullptr, 0, 1, 8}};
    VRTACREATE cr{};
    cr.ncols = 1;
    cr.cols = defs;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtacreate(lib, "M", 1, &cr, &fid));
    const int nrows = 8192 * 2 + 50;
    std::vector<double> v(nrows);
    uint64_t miss = 0xfffffe0000000000ull;  // "."
    void* wr = nullptr;
    std::vector<char> buf(8 * static_cast<size_t>(nrows));
    for (int i = 0; i < nrows; i++) {
        v[i] = i + 1;
        if (i >= 8192 && i % 100 == 7) std::memcpy(&v[i], &miss, 8);  // only in the later segments
        std::memcpy(buf.data() + 8 * i, &v[i], 8);
    }
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &wr));
    ASSERT_EQ(0, spwritev(wr, nrows));
    ASSERT_EQ(0, spfreeio(wr));
    ASSERT_EQ(0, vrtaclose(fid));
    int32_t col = 1;
    VRTAINDEXDEF d{};
    d.name = "IN";
    d.ncols = 1;
    d.cols = &col;
    d.flags = VRTAIX_NOMISS;
    ASSERT_EQ(0, vrtaidxcreate(lib, "M", 1, &d));
    ASSERT_EQ(0, vrtaopen(lib, "M", 1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    VRTAWHCOL wc[1] = {VRTAWHCOL{"N", -1, 1, 8, 0}};
    for (const char* clause : {"n < 5", "n < 1", "n <= 3 or n > 16380", "n = .", "n in (., 2)", "n > 100"}) {
        void* wire = nullptr;
        int wl = 0;
        ASSERT_EQ(0, vrtawhparse(clause, -1, wc, 1, &wire, &wl, nullptr, 0)) << clause;
        std::vector<std::vector<int64_t>> results;
        for (int iflags : {0x01, 0x00, 0x02, 0x0a}) {
            void* wh = nullptr;
            ASSERT_EQ(0, spnewwh(fid, 100 * 16, 0, 0, &wh));
            int flags = 0, st = 0;
            ASSERT_EQ(0, spwhset(wh, wire, iflags, 0, nullptr, &flags, &st)) << clause;
            std::vector<int64_t> got;
            std::vector<char> out(100 * 8);
            long n = 0;
            for (int guard = 0; guard < 10000 && spwhget(wh, out.data(), &n) == 0; guard++)
                for (long i = 0; i < n; i++) got.push_back(spwhobsvec(wh)[i]);
            std::sort(got.begin(), got.end());
            results.push_back(got);
            ASSERT_EQ(0, spfreewh(wh));
        }
        // Without indexes the rows are tested one by one: the others must agree.
        EXPECT_FALSE(results[0].empty()) << clause;
        for (size_t k = 1; k < results.size(); k++) EXPECT_EQ(results[k], results[0]) << clause << " plan " << k;
        vrtawhfree(wire);
    }
    ASSERT_EQ(0, vrtaclose(fid));
    ASSERT_EQ(0, spldeasgn(lib));
}

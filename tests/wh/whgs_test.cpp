// The group-by scan against a brute-force evaluation of the same groups: every
// aggregate, one and two feeding threads, and tree memory so small that the
// threads spill; plus the edges of empty input, single rows, overflow, order,
// formatted keys and HAVING.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "../testutil.h"
#include "option/op.h"
#include "sda/daods.h"
#include "hs/hsnls.h"
#include "sda/dafid.h"
#include "ssubs/vz.h"
#include "wh/whgs.h"

using namespace vrta;
namespace fs = std::filesystem;

namespace {

class Options {
public:
    Options() {
        opinitgbl();
        old_ = opgtgbl();
        mine_ = opclonegbl();
        opstgbl(mine_);
    }
    ~Options() {
        opstgbl(old_);
        free(mine_);
    }
    void str(const char* name, const std::string& v) {
        ASSERT_EQ(0, opsetop(mine_, name, const_cast<char*>(v.data()), static_cast<int>(v.size())));
    }
private:
    void* old_ = nullptr;
    void* mine_ = nullptr;
};

// The table: k1 number, k2 char 4, x number, y number of 4 bytes, s char 6, w weight.
constexpr int RECLEN = 48;
struct Row {
    double k1;
    char k2[4];
    double x;
    double y;  // stored in 4 bytes: its high half
    char s[6];
    double w;
};

std::vector<DA_NAMESTR> tablecols() {
    static const char* names[] = {"K1", "K2", "X", "Y", "S", "W"};
    static const int pos[] = {0, 8, 16, 24, 28, 40}, len[] = {8, 4, 8, 4, 6, 8}, type[] = {1, 2, 1, 1, 2, 1};
    std::vector<DA_NAMESTR> v(6);
    for (int i = 0; i < 6; i++) {
        memset(&v[i], 0, sizeof v[i]);
        v[i].npos = pos[i];
        v[i].nlng = len[i];
        v[i].type = static_cast<int8_t>(type[i]);
        v[i].nvar0 = i + 1;
        v[i].name = const_cast<char*>(names[i]);
        v[i].name_l = static_cast<int16_t>(strlen(names[i]));
    }
    return v;
}

double hi4(double d) {
    // What a 4-byte column keeps of a double.
    unsigned char b[8];
    memcpy(b, &d, 8);
    memset(b, 0, 4);
    memcpy(&d, b, 8);
    return d;
}

std::string pack(const Row& r) {
    std::string s(RECLEN, '\0');
    memcpy(&s[0], &r.k1, 8);
    memcpy(&s[8], r.k2, 4);
    memcpy(&s[16], &r.x, 8);
    unsigned char yb[8];
    memcpy(yb, &r.y, 8);
    memcpy(&s[24], yb + 4, 4);
    memcpy(&s[28], r.s, 6);
    memcpy(&s[40], &r.w, 8);
    return s;
}

GS_ColDesc_t col(const char* func, int nvar0, int off, int len = 8, char ntype = 1, int wvar = 0) {
    GS_ColDesc_t c{};
    memset(c.func, ' ', 8);
    memcpy(c.func, func, strlen(func));
    c.nvar0[0] = nvar0;
    c.nvar0[1] = wvar;
    c.off = off;
    c.len = len;
    c.ntype = ntype;
    memset(c.colsym, ' ', 32);
    return c;
}

struct Query {
    std::vector<GS_ColDesc_t> cols;
    std::vector<int> grp, ord;
    int flags = 0;
    int projlen = 0;
    void* having = nullptr;
    volatile int* interrupt = nullptr;
};

struct Result {
    rctype rc = 0;
    std::vector<std::string> rows;  // result rows, in the order handed out
    std::string msg;
    int nbins = 0;
    int64_t spilled = 0;
};

rctype collect(char* buf, long n, const WHGS_ROWINFO* ri, void* cb) {
    auto* out = static_cast<std::vector<std::string>*>(cb);
    for (long i = 0; i < n; i++) out->emplace_back(buf + i * ri->reclen + ri->keylen, ri->rowlen);
    return 0;
}

Result run(const Query& q, const std::vector<std::string>& rows, int nthreads) {
    std::vector<DA_NAMESTR> vars = tablecols();
    GS_MainRec_t mr{static_cast<int>(q.cols.size()), RECLEN, static_cast<int>(q.cols.size()), q.projlen,
                    static_cast<int>(q.grp.size()), static_cast<int>(q.ord.size()), q.flags};
    std::vector<GS_ColDesc_t> cd = q.cols;
    std::vector<int> g = q.grp, o = q.ord;
    WHGS_HANDLE* gsh = nullptr;
    char* err = nullptr;
    Result r;
    r.rc = whgsvtinit(nullptr, &mr, cd.data(), 6, vars.data(), g.data(), o.data(), q.having, nthreads, &gsh, &err);
    if (r.rc) {
        r.msg = err ? err : "";
        free(err);
        return r;
    }
    std::string all;
    for (const std::string& s : rows) all += s;
    std::vector<rctype> rcs(nthreads, 0);
    std::vector<std::thread> ts;
    long per = (static_cast<long>(rows.size()) + nthreads - 1) / nthreads;
    for (int t = 0; t < nthreads; t++) {
        ts.emplace_back([&, t] {
            long from = std::min<long>(rows.size(), t * per), to = std::min<long>(rows.size(), (t + 1) * per);
            for (long i = from; i < to && rcs[t] == 0; i += 97)
                rcs[t] = whgsaggr(gsh, t, all.data() + i * RECLEN, RECLEN, std::min(97L, to - i));
        });
    }
    for (auto& t : ts) t.join();
    for (rctype c : rcs)
        if (c && !r.rc) r.rc = c;
    whgssetinterrupt(gsh, q.interrupt);
    if (!r.rc) r.rc = whgsgetr(gsh, collect, &r.rows);
    char m[2000];
    whgsmsg(gsh, m, sizeof m);
    r.msg = m;
    r.nbins = gsh->nbins;
    r.spilled = gsh->spillbytes;
    EXPECT_EQ(0, whgsfree(gsh));
    return r;
}

double num(const std::string& row, int off) {
    double d;
    memcpy(&d, row.data() + off, 8);
    return d;
}

bool close(double a, double b) {
    if (vzismiss(a) || vzismiss(b)) return vzismiss(a) && vzismiss(b);
    return std::fabs(a - b) <= 1e-9 * std::max(1.0, std::max(std::fabs(a), std::fabs(b)));
}

// What each aggregate of x should be for a group.
struct Expect {
    double n = 0, nmiss = 0, sum = 0, uss = 0, mn = 0, mx = 0, wsum = 0;
    std::set<double> distinct;
    bool any = false;
    void add(double x, double w) {
        if (vzismiss(x)) {
            nmiss++;
            return;
        }
        if (!any) mn = mx = x;
        any = true;
        n++;
        sum += x;
        uss += x * x;
        wsum += x * (vzismiss(w) ? 0.0 : w);
        mn = std::min(mn, x);
        mx = std::max(mx, x);
        distinct.insert(x);
    }
    double miss() const { return VZ_MISSING; }
    double css() const {
        double c = uss - sum * sum / n;
        return c < 1.110223024625157e-16 * 1000 * std::fabs(sum / n) ? 0.0 : c;
    }
    double var() const { return n < 2 ? miss() : css() / (n - 1); }
};

std::vector<Row> makerows(int n, int nkeys, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<Row> v(n);
    for (Row& r : v) {
        memset(&r, 0, sizeof r);
        int k = static_cast<int>(g() % nkeys);
        r.k1 = (k % 7 == 0) ? VZ_MISSING : k / 3 - 50.5;
        const char* tags[] = {"AAAA", "B   ", "    ", "ZZ  "};
        memcpy(r.k2, tags[k % 4], 4);
        r.x = (g() % 11 == 0) ? missing_tbl[g() % 3] : static_cast<double>(static_cast<int>(g() % 2001) - 1000) / 4;
        r.y = hi4(static_cast<double>(g() % 100));
        memcpy(r.s, (g() % 2) ? "pear  " : "apple ", 6);
        r.w = (g() % 5 == 0) ? 0.0 : 2.0;
    }
    return v;
}

Query fullquery() {
    Query q;
    const char* funcs[] = {"COUNT", "NMISS", "SUM", "MIN", "MAX", "AVG", "RANGE", "USS", "CSS",
                           "VAR",   "STD",   "STDERR", "COUNTD", "SUMD", "AVGD", "N"};
    int off = 0;
    q.cols.push_back(col("", 1, off));  // k1
    off += 8;
    q.cols.push_back(col("", 2, off, 4, 2));  // k2, read back out of the key
    off += 8;
    for (const char* f : funcs) {
        q.cols.push_back(col(f, 3, off));
        off += 8;
    }
    q.cols.push_back(col("COUNT", 0, off));  // COUNT(*)
    off += 8;
    q.cols.push_back(col("SUM", 3, off, 8, 1, 6));  // weighted
    off += 8;
    q.cols.push_back(col("MAX", 5, off, 6, 2));  // character
    off += 8;
    q.cols.push_back(col("SUM", 4, off, 4));  // short input, short output
    off += 8;
    q.projlen = off;
    q.grp = {1, 2};
    return q;
}

void checkfull(const Result& r, const std::vector<Row>& rows) {
    ASSERT_EQ(0, r.rc) << r.msg;
    std::map<std::pair<std::string, std::string>, Expect> want;
    std::map<std::pair<std::string, std::string>, std::pair<long, std::string>> more;  // rows, max s
    std::map<std::pair<std::string, std::string>, double> ysum;
    for (const Row& x : rows) {
        std::string a(reinterpret_cast<const char*>(&x.k1), 8), b(x.k2, 4);
        want[{a, b}].add(x.x, x.w);
        auto& m = more[{a, b}];
        m.first++;
        std::string s(x.s, 6);
        if (s > m.second) m.second = s;
        ysum[{a, b}] += x.y;
    }
    ASSERT_EQ(want.size(), r.rows.size());
    std::set<std::pair<std::string, std::string>> seen;
    double prev = -DBL_MAX;
    std::string prevk2;
    bool first = true;
    for (const std::string& row : r.rows) {
        std::pair<std::string, std::string> key{row.substr(0, 8), row.substr(8, 4)};
        ASSERT_TRUE(want.count(key)) << "a group that is not in the input";
        ASSERT_TRUE(seen.insert(key).second) << "a group handed out twice";
        // Groups come in key order: missing first, then ascending numbers.
        double k1 = num(row, 0);
        double k1o = vzismiss(k1) ? -DBL_MAX : k1;
        if (!first) {
            ASSERT_TRUE(k1o > prev || (k1o == prev && key.second >= prevk2));
        }
        first = false;
        prev = k1o;
        prevk2 = key.second;
        const Expect& e = want[key];
        double m = e.miss();
        double exp[] = {e.n,
                        e.nmiss,
                        e.n ? e.sum : m,
                        e.n ? e.mn : m,
                        e.n ? e.mx : m,
                        e.n ? e.sum / e.n : m,
                        e.n ? e.mx - e.mn : m,
                        e.uss,
                        e.n ? e.css() : m,
                        e.var(),
                        vzismiss(e.var()) ? m : std::sqrt(e.var()),
                        vzismiss(e.var()) ? m : std::sqrt(e.var()) / std::sqrt(e.n),
                        static_cast<double>(e.distinct.size()),
                        0,
                        0,
                        e.n};
        double dsum = 0;
        for (double d : e.distinct) dsum += d;
        exp[13] = e.distinct.empty() ? m : dsum;
        exp[14] = e.distinct.empty() ? m : dsum / e.distinct.size();
        for (int i = 0; i < 16; i++)
            EXPECT_TRUE(close(num(row, 16 + 8 * i), exp[i]))
                << "aggregate " << i << ": " << num(row, 16 + 8 * i) << " want " << exp[i];
        EXPECT_EQ(static_cast<double>(more[key].first), num(row, 16 + 8 * 16)) << "COUNT(*)";
        EXPECT_TRUE(close(num(row, 16 + 8 * 17), e.n ? e.wsum : m)) << "weighted sum";
        EXPECT_EQ(more[key].second, row.substr(16 + 8 * 18, 6)) << "character max";
        double ys;
        unsigned char yb[8] = {0};
        memcpy(yb + 4, row.data() + 16 + 8 * 19, 4);
        memcpy(&ys, yb, 8);
        EXPECT_EQ(hi4(ysum[key]), ys) << "short column";
    }
}

TEST(Whgs, AggregatesMatchBruteForceWithThreadsAndSpills) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    std::vector<Row> rows = makerows(6000, 400, 7);
    std::vector<std::string> packed;
    for (const Row& r : rows) packed.push_back(pack(r));
    Query q = fullquery();
    Result one = run(q, packed, 1);
    checkfull(one, rows);
    Result two = run(q, packed, 2);
    checkfull(two, rows);
    EXPECT_EQ(one.rows, two.rows) << "the thread count changed the answer";
    EXPECT_EQ(0, one.spilled);

    // Many groups in little memory: every thread spills several bins.
    std::vector<Row> big = makerows(60000, 30000, 11);
    std::vector<std::string> bp;
    for (const Row& r : big) bp.push_back(pack(r));
    whgssetcache(1);
    Result s1 = run(q, bp, 1);
    Result s2 = run(q, bp, 2);
    whgssetcache(-1);
    checkfull(s1, big);
    checkfull(s2, big);
    EXPECT_GT(s1.spilled, 0);
    EXPECT_GT(s2.nbins, 2);
    EXPECT_EQ(s1.rows, s2.rows);
    EXPECT_TRUE(fs::is_empty(work.path())) << "spill files left behind";
}

TEST(Whgs, EmptyInputSingleRowsAndHaving) {
    // No group columns, no rows: one row, counts 0 and the rest missing.
    Query q;
    q.cols = {col("COUNT", 0, 0), col("N", 3, 8), col("SUM", 3, 16), col("MAX", 5, 24, 6, 2), col("COUNTD", 3, 32)};
    q.projlen = 40;
    Result r = run(q, {}, 2);
    ASSERT_EQ(0, r.rc);
    ASSERT_EQ(1u, r.rows.size());
    EXPECT_EQ(0.0, num(r.rows[0], 0));
    EXPECT_EQ(0.0, num(r.rows[0], 8));
    EXPECT_TRUE(vzismiss(num(r.rows[0], 16)));
    EXPECT_EQ("      ", r.rows[0].substr(24, 6));
    EXPECT_EQ(0.0, num(r.rows[0], 32));

    // The same with a HAVING clause gives no row at all.
    WH_PCOL hc{"C", 1, 1, 8, 0, 1};
    SQLOP* tree = nullptr;
    WH_PERR e;
    ASSERT_EQ(0, whparse("c >= 0", 6, &hc, 1, &tree, &e));
    q.flags = GS_F_HAVING | GS_F_HAVTREE;
    q.having = tree;
    r = run(q, {}, 1);
    EXPECT_EQ(0, r.rc);
    EXPECT_TRUE(r.rows.empty());

    // A group of one row: VAR, STD, STDERR missing and CSS 0.
    Row one{};
    one.k1 = 3;
    memcpy(one.k2, "AAAA", 4);
    one.x = 2.5;
    Query s;
    s.cols = {col("", 1, 0), col("VAR", 3, 8), col("STD", 3, 16), col("STDERR", 3, 24), col("CSS", 3, 32)};
    s.grp = {1};
    s.projlen = 40;
    r = run(s, {pack(one), pack(one)}, 1);
    ASSERT_EQ(1u, r.rows.size());
    EXPECT_EQ(0.0, num(r.rows[0], 8));  // two equal rows: no spread
    r = run(s, {pack(one)}, 1);
    ASSERT_EQ(1u, r.rows.size());
    EXPECT_TRUE(vzismiss(num(r.rows[0], 8)));
    EXPECT_TRUE(vzismiss(num(r.rows[0], 16)));
    EXPECT_TRUE(vzismiss(num(r.rows[0], 24)));
    EXPECT_EQ(0.0, num(r.rows[0], 32));

    // HAVING on an aggregate keeps the groups that pass.
    std::vector<Row> rows = makerows(2000, 50, 3);
    std::vector<std::string> p;
    for (const Row& x : rows) p.push_back(pack(x));
    Query h;
    h.cols = {col("", 1, 0), col("COUNT", 0, 8)};
    h.grp = {1};
    h.projlen = 16;
    Result all = run(h, p, 2);
    ASSERT_EQ(0, all.rc);
    std::vector<double> counts;
    for (const std::string& x : all.rows) counts.push_back(num(x, 8));
    std::sort(counts.begin(), counts.end());
    double cut = counts[counts.size() / 2];
    WH_PCOL hcols[] = {{"K1", 2, 1, 8, 0, 1}, {"C", 1, 1, 8, 8, 2}};
    tree = nullptr;
    std::string clause = "c > " + std::to_string(cut);
    ASSERT_EQ(0, whparse(clause.c_str(), static_cast<int>(clause.size()), hcols, 2, &tree, &e));
    h.flags = GS_F_HAVING | GS_F_HAVTREE;
    h.having = tree;
    Result some = run(h, p, 2);
    free_tree(&tree, nullptr);
    ASSERT_EQ(0, some.rc);
    size_t want = 0;
    for (const std::string& x : all.rows) want += num(x, 8) > cut;
    EXPECT_EQ(want, some.rows.size());
    EXPECT_GT(want, 0u);
    EXPECT_LT(want, all.rows.size());
    for (const std::string& x : some.rows) EXPECT_GT(num(x, 8), cut);
}

TEST(Whgs, OverflowMakesOneGroupMissingWithOneWarning) {
    std::vector<std::string> p;
    for (int i = 0; i < 3; i++) {
        Row r{};
        r.k1 = 1;
        r.x = DBL_MAX / 2;
        p.push_back(pack(r));
        r.k1 = 2;
        r.x = 1;
        p.push_back(pack(r));
    }
    Query q;
    q.cols = {col("", 1, 0), col("SUM", 3, 8), col("AVG", 3, 16), col("COUNT", 3, 24)};
    memcpy(q.cols[1].colsym, "X", 1);
    q.grp = {1};
    q.projlen = 32;
    for (int threads : {1, 2}) {
        Result r = run(q, p, threads);
        ASSERT_EQ(0, r.rc);
        ASSERT_EQ(2u, r.rows.size());
        EXPECT_TRUE(vzismiss(num(r.rows[0], 8)));
        EXPECT_TRUE(vzismiss(num(r.rows[0], 16)));
        EXPECT_EQ(3.0, num(r.rows[0], 24));
        EXPECT_EQ(3.0, num(r.rows[1], 8));
        EXPECT_EQ(1.0, num(r.rows[1], 16));
        EXPECT_NE(std::string::npos, r.msg.find("VRTA_WARNING:  SUM(X) could not be computed")) << r.msg;
        EXPECT_EQ(r.msg.find("SUM("), r.msg.rfind("SUM(")) << "one warning for the column";
    }
}

TEST(Whgs, OrderFormattedKeysAndBadRequests) {
    std::vector<Row> rows = makerows(3000, 90, 5);
    std::vector<std::string> p;
    for (const Row& x : rows) p.push_back(pack(x));
    // Descending on the leading group column needs no sort; by a count it does.
    Query q;
    q.cols = {col("", 1, 0), col("COUNT", 0, 8)};
    q.grp = {1};
    q.ord = {-1};
    q.projlen = 16;
    Result d = run(q, p, 2);
    ASSERT_EQ(0, d.rc);
    for (size_t i = 1; i < d.rows.size(); i++) {
        double a = num(d.rows[i - 1], 0), b = num(d.rows[i], 0);
        EXPECT_TRUE(vzismiss(b) || (!vzismiss(a) && a > b)) << i;
    }
    q.ord = {-2, 1};
    Result c = run(q, p, 2);
    ASSERT_EQ(0, c.rc);
    ASSERT_EQ(d.rows.size(), c.rows.size());
    for (size_t i = 1; i < c.rows.size(); i++) EXPECT_GE(num(c.rows[i - 1], 8), num(c.rows[i], 8));

    // A key formatted to the same text merges rows of different values.
    Query f;
    f.cols = {col("", 3, 0, 4, 2), col("COUNT", 0, 8), col("SUM", 3, 16)};
    memcpy(f.cols[0].pgbfmt.name, "F", 1);
    f.cols[0].pgbfmt.len = 1;
    f.cols[0].pgbfmt.width = 4;
    f.grp = {3};
    f.flags = GS_F_FMTKEY;
    f.projlen = 24;
    std::vector<std::string> fp;
    for (double x : {1.2, 1.4, 0.9, 2.0, 250.25}) {
        Row r{};
        r.x = x;
        fp.push_back(pack(r));
    }
    Result fr = run(f, fp, 1);
    ASSERT_EQ(0, fr.rc) << fr.msg;
    ASSERT_EQ(3u, fr.rows.size());
    EXPECT_EQ("   1", fr.rows[0].substr(0, 4));
    EXPECT_EQ(3.0, num(fr.rows[0], 8));
    EXPECT_DOUBLE_EQ(3.5, num(fr.rows[0], 16));
    EXPECT_EQ("   2", fr.rows[1].substr(0, 4));
    EXPECT_EQ(" 250", fr.rows[2].substr(0, 4));

    // Refusals say why.
    Query b = f;
    memcpy(b.cols[0].pgbfmt.name, "NOSUCHF", 7);
    b.cols[0].pgbfmt.len = 7;
    Result br = run(b, fp, 1);
    EXPECT_EQ(WHGS_RC_BADREQ, br.rc);
    EXPECT_EQ("Format NOSUCHF not found", br.msg);
    b = f;
    b.grp = {1};
    br = run(b, fp, 1);
    EXPECT_EQ(WHGS_RC_BADREQ, br.rc);
    EXPECT_EQ("Groupby Column K1 not in select list", br.msg);
    b = q;
    memcpy(b.cols[1].func, "MEDIAN  ", 8);
    EXPECT_EQ(WHGS_RC_BADREQ, run(b, p, 1).rc);
    b = q;
    b.cols[1] = col("SUM", 2, 8);  // a sum of characters
    br = run(b, p, 1);
    EXPECT_EQ(WHGS_RC_BADREQ, br.rc);
    EXPECT_EQ("SUM needs a numeric column", br.msg);
}

TEST(Whgs, PoolSizingAndArithmeticGuards) {
    WHGS_ZTPOOLCFG c = whgsztpoolcfg(1, 1);
    EXPECT_EQ(8388608, c.osa_sz);
    EXPECT_EQ(1, c.max_osa);
    c = whgsztpoolcfg(1, 4);
    EXPECT_EQ(2097152, c.osa_sz);
    EXPECT_EQ(4, c.max_osa);
    c = whgsztpoolcfg(0, 3);
    EXPECT_EQ(0x200000, c.osa_sz);
    EXPECT_EQ(3, c.max_osa);
    c = whgsztpoolcfg(2.0 * 536870912 + 1, 2);  // k 3
    EXPECT_EQ(3 * 8388608, c.osa_sz);
    EXPECT_EQ(42, c.max_osa);
    EXPECT_TRUE(whgs_mul_exception(1e200, 1e200));
    EXPECT_FALSE(whgs_mul_exception(0, 1e300));
    EXPECT_TRUE(whgs_mul_exception(1e-200, 1e-200));
    EXPECT_TRUE(whgs_div_exception(1, 0));
    EXPECT_FALSE(whgs_div_exception(0, 5));
    EXPECT_TRUE(whgs_div_exception(1e300, 1e-300));
    PS_FuncTypes_t f;
    EXPECT_EQ(0, PSaggrfunc("mean", &f, 1));
    EXPECT_EQ(PS_FT_AVG, f);
    EXPECT_EQ(0, PSaggrfunc("N       ", &f, 0));
    EXPECT_EQ(PS_FT_FREQ, f);
    EXPECT_EQ(1, PSaggrfunc("SUMWGT", &f, 1));
}

std::vector<int32_t> xcoded;
rctype xcodeok(DA_FID*, int n, const int32_t* nvar0) {
    xcoded.insert(xcoded.end(), nvar0, nvar0 + n);
    return 0;
}
rctype xcodefails(DA_FID*, int, const int32_t*) { return static_cast<rctype>(0x80000417u); }

TEST(Whgs, CharacterKeysOfAnotherEncodingAreTranscodedByTheTable) {
    ASSERT_NE(nullptr, opinitgbl());
    vrta::HS_NLSENV *latin = nullptr, *utf8 = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_LATIN1, nullptr, 0, 0, &latin));
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_UTF8, nullptr, 0, 0, &utf8));
    std::vector<DA_NAMESTR> vars = tablecols();
    DA_FIDMT mt{};
    DA_FID fid{};
    fid.mt = &mt;
    fid.vars = vars.data();
    fid.numvar = 6;
    fid.nlsenv = latin;
    std::vector<GS_ColDesc_t> cd = {col("", 1, 0), col("", 2, 8, 4, 2), col("", 5, 16, 6, 2), col("COUNT", 0, 24)};
    std::vector<int> grp = {1, 2, 5};
    auto init = [&](vrta::HS_NLSENV* targ, WHGS_HANDLE** gsh, char** err) {
        GS_MainRec_t mr{4, RECLEN, 4, 32, 3, 0, 0};
        return whgsinit(targ, &fid, &mr, cd.data(), grp.data(), nullptr, nullptr, 1, gsh, err);
    };
    struct Case {
        const char* opt;
        vrta::HS_NLSENV* targ;
        std::vector<int32_t> want;  // the character keys, by column number
    } cases[] = {{"NLSTRANSCODE", utf8, {2, 5}}, {"NLSTRANSCODE", latin, {}}, {"NONLSTRANSCODE", utf8, {}}};
    for (const Case& c : cases) {
        opbinst(opgtgbl(), c.opt);
        mt.settranscodenvar0 = xcodeok;
        xcoded.clear();
        WHGS_HANDLE* gsh = nullptr;
        char* err = nullptr;
        ASSERT_EQ(0, init(c.targ, &gsh, &err)) << (err ? err : "");
        EXPECT_EQ(c.want, xcoded) << c.opt;
        whgsfree(gsh);
    }
    // The table refusing is the request failing, with the column named.
    opbinst(opgtgbl(), "NLSTRANSCODE");
    mt.settranscodenvar0 = xcodefails;
    WHGS_HANDLE* gsh = nullptr;
    char* err = nullptr;
    EXPECT_EQ(static_cast<rctype>(0x80000417u), init(utf8, &gsh, &err));
    EXPECT_EQ(nullptr, gsh);
    ASSERT_NE(nullptr, err);
    EXPECT_NE(nullptr, strstr(err, "K2")) << err;
    free(err);
    opbinst(opgtgbl(), "NONLSTRANSCODE");
    EXPECT_EQ(0, nls_release(latin));
    EXPECT_EQ(0, nls_release(utf8));
}

TEST(Whgs, InterruptedMergeGivesNoRowsAndLeavesNoFiles) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    std::vector<Row> big = makerows(40000, 30000, 2);
    std::vector<std::string> bp;
    for (const Row& r : big) bp.push_back(pack(r));
    volatile int stop = 1;
    Query q = fullquery();
    q.interrupt = &stop;
    whgssetcache(1);
    Result r = run(q, bp, 2);
    whgssetcache(-1);
    EXPECT_EQ(static_cast<rctype>(0x8000040d), r.rc);
    EXPECT_TRUE(r.rows.empty());
    EXPECT_TRUE(fs::is_empty(work.path()));
}

}  // namespace

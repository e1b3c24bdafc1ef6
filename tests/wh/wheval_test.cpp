// Evaluation of WHERE trees on rows: missing values and their order, blank
// padding, sets, patterns, arithmetic, functions and private tree copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "sda/daods.h"
#include "ssubs/vz.h"
#include "wh/wheval.h"

using namespace vrta;

namespace {

// A row: X numeric 8, CITY char 10, Y numeric 8, CODE char 6, SH numeric of
// 4 bytes (the high half of the double), NAME char 12.
const WH_PCOL COLS[] = {
    {"X", 1, 1, 8, 0, 1}, {"CITY", 4, 2, 10, 8, 2}, {"Y", 1, 1, 8, 18, 3},
    {"CODE", 4, 2, 6, 26, 4}, {"SH", 2, 1, 4, 32, 5}, {"NAME", 4, 2, 12, 36, 6},
};
constexpr int NCOLS = 6;
constexpr int ROWLEN = 48;

struct Row {
    char b[ROWLEN];
    Row(double x, const char* city, double y, const char* code = "", double sh = 0, const char* name = "") {
        std::memset(b, ' ', sizeof b);
        std::memcpy(b, &x, 8);
        std::memcpy(b + 8, city, std::min<size_t>(10, std::strlen(city)));
        std::memcpy(b + 18, &y, 8);
        std::memcpy(b + 26, code, std::min<size_t>(6, std::strlen(code)));
        unsigned char d[8];
        std::memcpy(d, &sh, 8);
        std::memcpy(b + 32, d + 4, 4);
        std::memcpy(b + 36, name, std::min<size_t>(12, std::strlen(name)));
    }
};

struct Tree {
    SQLOP* t = nullptr;
    explicit Tree(const std::string& clause) {
        WH_PERR err{};
        rctype rc = whparse(clause.data(), static_cast<int>(clause.size()), COLS, NCOLS, &t, &err);
        EXPECT_EQ(rc, 0) << clause << ": " << err.text;
    }
    ~Tree() { free_tree(&t, nullptr); }
    bool on(const Row& r) {
        int res = -1;
        EXPECT_EQ(wheval(nullptr, t, r.b, nullptr, 1, &res), 0);
        return res == 1;
    }
};

bool test(const std::string& clause, const Row& r) {
    Tree t(clause);
    return t.t && t.on(r);
}

double miss(char c) { return vzmissof(c); }

TEST(WhEval, MissingValuesOrderBelowEveryNumberAndByRank) {
    Row none(miss(' '), "Lima", 5), a(miss('A'), "Lima", 5), under(miss('_'), "Lima", 5), neg(-1e300, "Lima", 5);
    EXPECT_TRUE(test("x = .", none));
    EXPECT_FALSE(test("x = .", a));
    EXPECT_TRUE(test("x = .A", a));
    EXPECT_TRUE(test("x < -1e299", none));  // a number is greater than any missing value
    EXPECT_TRUE(test("x < .A", none));
    EXPECT_TRUE(test("x < .", under));
    EXPECT_TRUE(test("x > .Z", neg));
    EXPECT_FALSE(test("x >= -1e300", a));
    EXPECT_TRUE(test("x is missing", a));
    EXPECT_FALSE(test("x is missing", neg));
    EXPECT_FALSE(test("x", none));  // as a condition a missing value is false
    EXPECT_TRUE(test("y", none));
    EXPECT_TRUE(test("x in (., 3)", none));
    EXPECT_FALSE(test("x in (.A, 3)", none));
    EXPECT_TRUE(test("x not in (.A, 3)", none));
    // A short column keeps the top bytes: 2.5 survives, its missing value too.
    EXPECT_TRUE(test("sh = 2.5", Row(0, "", 0, "", 2.5)));
    EXPECT_TRUE(test("sh = .B", Row(0, "", 0, "", miss('B'))));
}

TEST(WhEval, ArithmeticFailuresAreMissingAndFalse) {
    Row r(6, "Oslo", 0);
    EXPECT_TRUE(test("x / y = .", r));
    EXPECT_FALSE(test("x / y", r));
    EXPECT_FALSE(test("x / y > -1e300", r));
    Row m(miss(' '), "Oslo", 2);
    EXPECT_TRUE(test("-x = .", m));
    EXPECT_TRUE(test("x + y = .", m));
    EXPECT_TRUE(test("y * 3 - 1 = 5 and y ** 3 = 8 and 2 ** 3 ** 2 = 512", m));
    EXPECT_TRUE(test("(-8) ** 0.5 = .", m));
    EXPECT_TRUE(test("x ** 0 = .", m));  // a missing base stays missing
    EXPECT_TRUE(test("-y = -2 and +y = 2", m));
}

TEST(WhEval, StringsCompareBlankPaddedAndTruncated) {
    Row r(1, "ABC", 0, "x");
    EXPECT_TRUE(test("city = 'ABC'", r));
    EXPECT_TRUE(test("city = 'ABC   '", r));
    EXPECT_FALSE(test("city = 'AB'", r));
    EXPECT_TRUE(test("city =: 'A'", r));
    EXPECT_TRUE(test("city >: 'AA'", r));
    EXPECT_FALSE(test("city =: 'ABD'", r));
    EXPECT_TRUE(test("city > 'AB' and city < 'ABD' and city ^= 'abc'", r));
    EXPECT_TRUE(test("city in ('X', 'ABC', 'B')", r));  // unordered sets are walked whole
    EXPECT_FALSE(test("city in ('X', 'B')", r));
    EXPECT_TRUE(test("city in: ('AB', 'Q')", r));
    EXPECT_TRUE(test("city in: ('Q', 'ABCD', 'AB')", r));  // the parser orders a truncated list
    EXPECT_FALSE(test("city not in: ('Q', 'ABCD', 'AB')", r));
    EXPECT_TRUE(test("code is missing", Row(1, "A", 0, "")));
    EXPECT_FALSE(test("code", Row(1, "A", 0, "")));
    EXPECT_TRUE(test("city between 'ABD' and 'AA'", r));  // ends in either order
    EXPECT_FALSE(test("city not between 'AA' and 'ABD'", r));
    EXPECT_TRUE(test("city contains 'BC' and city contains '' and not (city contains 'CB')", r));
    EXPECT_TRUE(test("city || code = 'ABC       x'", r));
    EXPECT_TRUE(test("min(x, 7) = 1 and max(x, 7) = 7", r));
}

TEST(WhEval, NumberSetsAndRanges) {
    for (double v : {-5.0, 0.0, 2.0, 3.0, 9.0, 10.0, 11.0}) {
        Row r(v, "", 0);
        bool want = v == 2 || v == 3 || v == 10;
        EXPECT_EQ(test("x in (10, 3, 2)", r), want) << v;
        EXPECT_EQ(test("x not in (10, 3, 2)", r), !want) << v;
        EXPECT_EQ(test("x between 3 and 10", r), v >= 3 && v <= 10) << v;
        EXPECT_EQ(test("x between 10 and 3", r), v >= 3 && v <= 10) << v;
    }
    // A large set: the parser's sorted order is what the evaluator relies on.
    std::string s = "x in (";
    for (int i = 200; i > 0; i--) s += std::to_string(i * 3) + (i > 1 ? "," : ")");
    Tree t(s);
    for (int v = -1; v < 610; v++) EXPECT_EQ(t.on(Row(v, "", 0)), v > 0 && v % 3 == 0 && v <= 600) << v;
}

// LIKE against a regular expression made from the same pattern, with the
// string's trailing blanks allowed to remain.
TEST(WhEval, LikeAgreesWithARegularExpression) {
    std::mt19937 rng(7);
    const char alpha[] = "ab_% ";
    int checked = 0;
    for (int k = 0; k < 3000; k++) {
        std::string pat, str;
        int lp = rng() % 6, ls = rng() % 8;
        for (int i = 0; i < lp; i++) pat += alpha[rng() % 5];
        for (int i = 0; i < ls; i++) str += "ab "[rng() % 3];
        std::string re;
        for (char c : pat) re += c == '%' ? ".*" : c == '_' ? "." : std::string(1, c);
        bool want = std::regex_match(str, std::regex(re + " *"));
        void* kept = nullptr;
        int got = whlike(str.data(), static_cast<int>(str.size()), pat.data(), static_cast<int>(pat.size()), 1,
                         &kept, 1);
        // A kept pattern answers the same the second time.
        int again = whlike(str.data(), static_cast<int>(str.size()), pat.data(), static_cast<int>(pat.size()), 1,
                           &kept, 1);
        whlikefree(&kept);
        ASSERT_EQ(got, want ? 1 : 0) << "'" << str << "' like '" << pat << "'";
        ASSERT_EQ(again, got);
        checked++;
    }
    EXPECT_EQ(checked, 3000);
    Row r(0, "Lima", 0, "", 0, "Lima Peru");
    EXPECT_TRUE(test("city like 'Li%'", r));
    EXPECT_TRUE(test("city like 'Lima'", r));  // the column's trailing blanks may remain
    EXPECT_TRUE(test("city like 'L_m_'", r));
    EXPECT_FALSE(test("city like 'L_m'", r));
    EXPECT_TRUE(test("name like '%P%u' and name not like '%x%'", r));
}

TEST(WhEval, SoundsLikeComparesFourCharacterCodes) {
    char code[20];
    EXPECT_EQ(whsoundx("Robert", 6, code), 4);
    EXPECT_EQ(std::string(code, 4), "R163");
    EXPECT_TRUE(whsndx("Rupert", 6, "ROBERT  ", 8));
    EXPECT_TRUE(whsndx("Tymczak", 7, "Tamsack", 7));
    EXPECT_FALSE(whsndx("Lee", 3, "Lim", 3));
    EXPECT_TRUE(test("name =* 'Rupert'", Row(0, "", 0, "", 0, "Robert")));
}

TEST(WhEval, FunctionCallsGoThroughTheLibrary) {
    Row r(-2.5, "lima", 9, "", 0, "  padded");
    EXPECT_TRUE(test("abs(x) = 2.5", r));
    EXPECT_TRUE(test("upcase(city) = 'LIMA'", r));
    EXPECT_TRUE(test("left(name) = 'padded'", r));
    EXPECT_TRUE(test("sqrt(y) = 3 and sqrt(x) = .", r));  // a failed call gives a missing value
    EXPECT_TRUE(test("length(upcase(city)) = 4", r));
    // The same tree on many rows: the parameter block is kept and refilled.
    Tree t("substr(name, 3, 3) = 'pad' and abs(x) > 1");
    EXPECT_TRUE(t.on(r));
    EXPECT_FALSE(t.on(Row(-2.5, "", 0, "", 0, "xxpqd")));
    EXPECT_TRUE(t.on(Row(7, "", 0, "", 0, "xxpadded")));
}

TEST(WhEval, LiteralResultsAndTheirCopies) {
    Tree t("upcase(city) || 'X'");
    SQLOP res{};
    int truth = 0;
    ASSERT_EQ(wheval(nullptr, t.t, Row(0, "ab", 0).b, &res, 1, &truth), 0);
    EXPECT_EQ(res.code, OP_LITC);
    EXPECT_EQ(std::string(res.u.cleaf.c, res.u.cleaf.leng), "AB        X");
    EXPECT_EQ(truth, 1);
    Tree n("x * 2");
    ASSERT_EQ(wheval(nullptr, n.t, Row(4, "", 0).b, &res, 1, &truth), 0);
    EXPECT_EQ(res.code, OP_LITN);
    EXPECT_EQ(res.u.nleaf.nbr, 8);
    EXPECT_EQ(wheval(nullptr, nullptr, nullptr, &res, 1, &truth), WH_RC_NULLARG);
}

// Trees with LIKE, CONC and calls are copied for each thread; each copy runs
// on its own thread with the same answers as the original.
TEST(WhEval, PrivateCopiesRunOnTheirOwnThreads) {
    WH_HANDLE* wh = nullptr;
    ASSERT_EQ(get_handle(&wh), 0);
    Tree t("name like '%a_' and upcase(city) || code contains 'MA' or x + 1 > 5");
    wh->tree = t.t;
    SQLOP* copies[3] = {};
    for (auto& c : copies) {
        ASSERT_EQ(whevalprep(wh, &c, WHP_COPY), 0);
        EXPECT_NE(c, t.t);
        EXPECT_TRUE(c->nodeflags & WH_NF_COPY);
    }
    std::vector<Row> rows;
    std::mt19937 rng(3);
    const char* names[] = {"banana", "ca", "xab", "a", "lima", "mama"};
    for (int i = 0; i < 300; i++)
        rows.emplace_back(rng() % 8, names[rng() % 6], 0, names[rng() % 6], 0, names[rng() % 6]);
    std::vector<int> want;
    for (const Row& r : rows) want.push_back(t.on(r));
    std::vector<std::thread> th;
    std::vector<std::vector<int>> got(3);
    for (int k = 0; k < 3; k++)
        th.emplace_back([&, k] {
            for (const Row& r : rows) {
                int res = -1;
                wheval(nullptr, copies[k], r.b, nullptr, 1, &res);
                got[k].push_back(res);
            }
        });
    for (auto& x : th) x.join();
    for (int k = 0; k < 3; k++) {
        EXPECT_EQ(got[k], want);
        EXPECT_EQ(whevalterm(&copies[k], 0), 0);
    }
    // A tree with nothing to keep is shared as it is.
    Tree plain("x > 1 and city = 'a'");
    wh->tree = plain.t;
    SQLOP* same = nullptr;
    ASSERT_EQ(whevalprep(wh, &same, WHP_COPY), 0);
    EXPECT_EQ(same, plain.t);
    EXPECT_EQ(whevalterm(&same, 0), 0);
    wh->tree = nullptr;
    free_handle(wh);
}

}  // namespace

namespace {

// A column's stored min and max decide some clauses before a row is read.
TEST(WhEval, MinAndMaxDecideWhatTheyCan) {
    double mn = 5, mx = 9;
    DA_NAMESTR col{};
    col.type = 1;
    col.nlng = 8;
    col.minptr = &mn;
    col.maxptr = &mx;
    struct Case {
        const char* clause;
        int want;
    } cases[] = {
        {"x > 9", 0x200}, {"x >= 9", 0}, {"x >= 5", 0x100}, {"x > 5", 0}, {"x < 5", 0x200},
        {"x <= 9", 0x100}, {"x < 9", 0}, {"x = 10", 0x200}, {"x = 4", 0x200}, {"x = 7", 0},
        {"x ^= 10", 0x100}, {"x = .", 0x200}, {"x > .", 0x100}, {"x in (1, 2, 10)", 0x200},
        {"x in (1, 7)", 0}, {"x in (., 12)", 0x200},
    };
    for (const Case& c : cases) {
        Tree t(c.clause);
        ASSERT_TRUE(t.t);
        SQLOP* valu = get_child(t.t, 1);
        EXPECT_EQ(whevalminmax(nullptr, t.t->code, valu, &col), c.want) << c.clause;
    }
    // Min, max and the value all equal: equality is always true.
    mn = mx = 7;
    Tree eq("x = 7");
    EXPECT_EQ(whevalminmax(nullptr, OP_CEQ, get_child(eq.t, 1), &col), 0x100);
    Tree in("x in (3, 7)");
    EXPECT_EQ(whevalminmax(nullptr, OP_IN, get_child(in.t, 1), &col), 0x100);
    // A range element: [6, 8] holds all of [7, 7]; (7, 8] none of it.
    SQLOP* lo = nullptr;
    SQLOP* hi = nullptr;
    SQLOP* ran = nullptr;
    SQLOP* set = nullptr;
    ASSERT_EQ(0, get_node(&lo));
    ASSERT_EQ(0, get_node(&hi));
    ASSERT_EQ(0, get_node(&ran));
    ASSERT_EQ(0, get_node(&set));
    lo->code = hi->code = OP_LITN;
    lo->type = hi->type = -8;
    lo->u.nleaf.nbr = 6;
    hi->u.nleaf.nbr = 8;
    ran->code = OP_RANB;
    set_child(ran, 0, lo);
    set_child(ran, 1, hi);
    set->code = OP_SET;
    set_child(set, 0, ran);
    EXPECT_EQ(whevalminmax(nullptr, OP_IN, set, &col), 0x100);
    lo->u.nleaf.nbr = 7;
    ran->code = OP_RANH;  // low end excluded
    EXPECT_EQ(whevalminmax(nullptr, OP_IN, set, &col), 0x200);
    free_tree(&set, nullptr);
    // Characters compare blank padded.
    char cmin[4] = {'B', 'B', ' ', ' '}, cmax[4] = {'D', ' ', ' ', ' '};
    DA_NAMESTR ccol{};
    ccol.type = 2;
    ccol.nlng = 4;
    ccol.minptr = cmin;
    ccol.maxptr = cmax;
    Tree c1("city = 'A'"), c2("city >= 'BB'"), c3("city < 'C'");
    EXPECT_EQ(whevalminmax(nullptr, OP_CEQ, get_child(c1.t, 1), &ccol), 0x200);
    EXPECT_EQ(whevalminmax(nullptr, OP_CGE, get_child(c2.t, 1), &ccol), 0x100);
    EXPECT_EQ(whevalminmax(nullptr, OP_CLT, get_child(c3.t, 1), &ccol), 0);
}

}  // namespace

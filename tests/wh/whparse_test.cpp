// The WHERE language: what it accepts, the trees it makes, what it refuses
// and where.
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <string>
#include <vector>

#include "whwire.h"

using namespace vrta;
using namespace whtest;

namespace {

const WH_PCOL COLS[] = {
    {"Amount", 6, 1, 8, 0, 1}, {"CITY", 4, 2, 10, 8, 2}, {"qty", 3, 1, 8, 18, 3},
    {"CODE", 4, 2, 6, 26, 4},  {"SHORT", 5, 1, 4, 32, 5}, {"A", 1, 1, 8, 36, 6},
    {"B", 1, 1, 8, 44, 7},     {"C", 1, 1, 8, 52, 8},     {"S", 1, 2, 3, 60, 9},
};
constexpr int NCOLS = sizeof COLS / sizeof COLS[0];

struct Parsed {
    rctype rc = 0;
    SQLOP* t = nullptr;
    WH_PERR err{};
    Parsed() = default;
    Parsed(const Parsed&) = delete;
    ~Parsed() { free_tree(&t, nullptr); }
};

void parse(const std::string& s, Parsed* p) {
    p->rc = whparse(s.data(), static_cast<int>(s.size()), COLS, NCOLS, &p->t, &p->err);
    if (p->rc) {
        EXPECT_EQ(p->t, nullptr);
    }
}

std::string rendered(const std::string& s) {
    Parsed p;
    parse(s, &p);
    if (p.rc) return "error: " + std::string(p.err.text);
    return say(p.t);
}

TEST(WhParse, ClausesBecomeTheTreesTheyMean) {
    struct Case {
        const char* in;
        const char* out;
    } cases[] = {
        {"amount > 100 and city in ('Lima','Oslo') and not missing(qty)",
         "((Amount>100) and CITY in ('Lima', 'Oslo') and (not (qty is null )))"},
        {"a + b * c - 1", "((A+(B*C))-1)"},
        {"a / b / c", "((A/B)/C)"},
        {"2 ** 3 ** 2", "(2**(3**2))"},
        {"-a ** 2", "(-A**2)"},
        {"-(a ** 2)", "-(A**2)"},
        {"a - -1 + -(2) - - - b", "(((A--1)+-2)---B)"},
        {"+a > +1", "(A>1)"},
        {"a = 1 or b = 2 and c = 3", "((A=1) or ((B=2) and (C=3)))"},
        {"(a = 1 or b = 2) and c = 3", "(((A=1) or (B=2)) and (C=3))"},
        {"((a = 1 and b = 2) and c = 3)", "(((A=1) and (B=2)) and (C=3))"},
        {"not a = 1 and not not b", "((not (A=1)) and (not (not B)))"},
        {"a between 1 and 5 and b not between c and 2", "(A between 1 and 5 and B not between C and 2)"},
        {"s like 'a%' or s not like 'b_'", "(S like 'a%' or S not like 'b_')"},
        {"s || 'x' || code = 'ab'", "(((S||'x')||CODE)='ab')"},
        // Every missing value renders as ".".
        {"a in (3, -1, 2, .A, ., ._, 2)", "A in (., ., ., -1, 2, 2, 3)"},
        {"a not in (1)", "A not in (1)"},
        {"s in: ('ab', 'c') or s not in: ('d')", "(S in: ('ab', 'c') or S not in: ('d'))"},
        {"a is missing or a is not null or a is NULL", "((A is null ) or (A is not null ) or (A is null ))"},
        {"a <> 1 or a ^= 1 or a != 1 or a ~= 1 or a not = 1", "((A not = 1) or (A not = 1) or (A not = 1) or (A not = 1) or (A not = 1))"},
        {"s =: 'ab' and s not =: 'a' and s <=: 'z' and s >:'a'", "((S=:'ab') and (S not =: 'a') and (S<=:'z') and (S>:'a'))"},
        {"s =* 'smith' or s not =* 'jones' or s contains 'x' or s not contains 'y'",
         "(S =* 'smith' or S not =* 'jones' or S contains 'x' or S not contains 'y')"},
        {"s = \"say \"\"hi\"\"\" or s = 'it''s'", "((S='say \"hi\"') or (S='it's'))"},
        {"s = \"'q\"", "(S=\"'q\")"},
        {"a = 1e3 or a = .5 or a = 2.5E-3 or a = 7.", "((A=1000) or (A=0.5) or (A=0.0025) or (A=7))"},
        {"a", "A"},
        {"a and s", "(A and S)"},
        {"  A\t>=\n1  ", "(A>=1)"},
        {"short < 3", "(SHORT<3)"},
    };
    for (const Case& c : cases) EXPECT_EQ(rendered(c.in), c.out) << c.in;
}

TEST(WhParse, LeavesAreBoundToTheirColumnsAndSetsAreReadyForTheEvaluator) {
    Parsed p;
    parse("short in (2, 1) and city in ('b', 'a') and code in ('x') and code = 'x'", &p);
    ASSERT_EQ(p.rc, 0) << p.err.text;
    SQLOP* in1 = get_child(p.t, 0);
    SQLOP* nm = get_child(in1, 0);
    EXPECT_EQ(nm->type, -4);
    EXPECT_EQ(nm->u.vleaf.leng, 4);
    EXPECT_EQ(nm->u.vleaf.offset, 32);
    EXPECT_EQ(nm->u.vleaf.nvar0, 5);
    // Numbers ascend; strings keep their order and say they are not sorted.
    SQLOP* nset = get_child(in1, 1);
    EXPECT_EQ(get_child(nset, 0)->u.nleaf.nbr, 1.0);
    SQLOP* cset = get_child(get_child(p.t, 1), 1);
    EXPECT_STREQ(get_child(cset, 0)->u.cleaf.c, "b");
    EXPECT_EQ(get_child(cset, 0)->nodeflags & WH_NF_UNORDERED, WH_NF_UNORDERED);
    EXPECT_EQ(get_child(get_child(get_child(p.t, 2), 1), 0)->nodeflags, 0);
    SQLOP* city = get_child(get_child(p.t, 1), 0);
    EXPECT_EQ(city->type, 10);
    EXPECT_EQ(std::string(city->u.vleaf.name, city->u.vleaf.namelen), "CITY");
    SQLOP* lit = get_child(get_child(p.t, 3), 1);
    EXPECT_EQ(lit->type, 1);
    EXPECT_EQ(lit->u.cleaf.leng, 1);
    // Missing values sort below numbers, by rank.
    Parsed ms;
    parse("a in (2, .A, ., ._)", &ms);
    ASSERT_EQ(ms.rc, 0) << ms.err.text;
    SQLOP* mset = get_child(ms.t, 1);
    const uint64_t order[] = {0xffffff0000000000ull, 0xfffffe0000000000ull, 0xfffffd0000000000ull};
    for (int i = 0; i < 3; i++) EXPECT_EQ(std::bit_cast<uint64_t>(get_child(mset, i)->u.nleaf.nbr), order[i]) << i;
    EXPECT_EQ(get_child(mset, 3)->u.nleaf.nbr, 2.0);
    // A missing literal keeps its rank; negating it keeps it missing.
    Parsed m;
    parse("a = -.Z", &m);
    ASSERT_EQ(m.rc, 0) << m.err.text;
    double z = get_child(m.t, 1)->u.nleaf.nbr;
    EXPECT_EQ(std::bit_cast<uint64_t>(z), 0xffffe40000000000ull);
}

struct Bad {
    const char* in;
    rctype rc;
    int col;
    const char* text;
};

template <size_t N>
void refused(const Bad (&cases)[N]) {
    for (const Bad& b : cases) {
        Parsed p;
        parse(b.in, &p);
        EXPECT_EQ(p.rc, b.rc) << b.in << ": " << p.err.text;
        EXPECT_EQ(p.err.col, b.col) << b.in;
        EXPECT_EQ(std::string(p.err.text), "at column " + std::to_string(b.col) + ": " + b.text) << b.in;
    }
}

TEST(WhParse, BadClausesSayWhereAndWhy) {
    const Bad cases[] = {
        {"a >", WH_RC_SYNTAX, 4, "expected a value, found the end of the clause"},
        {"a > 1 b", WH_RC_SYNTAX, 7, "expected 'and', 'or' or the end of the clause, found 'b'"},
        {"s = 'abc", WH_RC_SYNTAX, 5, "the string that starts here is not closed"},
        {"zz = 1", WH_RC_NOCOLUMN, 1, "the table has no column zz"},
        {"a = 'x'", WH_RC_TYPES, 5, "'=' compares a number with a character value"},
        {"s + 1 > 2", WH_RC_TYPES, 1, "an operand of '+' must be a number, not a character value"},
        {"(a > 1) + 1 = 2", WH_RC_TYPES, 1, "an operand of '+' must be a value, not a condition"},
        {"a in ()", WH_RC_SYNTAX, 7, "expected a number, a missing value or a string in the list, found ')'"},
        {"a in (1, 'x')", WH_RC_TYPES, 10, "'in' compares a number with a character value"},
        {"a in (1 2)", WH_RC_SYNTAX, 9, "expected ',' or ')' in the list, found '2'"},
        {"s in: ('a', -1)", WH_RC_TYPES, 13, "the list of 'in:' holds strings only"},
        {"a # 1", WH_RC_SYNTAX, 3, "the character '#' has no meaning here"},
        {"a = 1abc", WH_RC_SYNTAX, 5, "a number runs into 'a'"},
        {"a = 1e999", WH_RC_SYNTAX, 5, "the number 1e999 is out of range"},
        {"a = .ab", WH_RC_SYNTAX, 5, "a missing value is '.', '._' or '.' and one letter"},
        {"", WH_RC_SYNTAX, 1, "the clause is empty"},
        {"   ", WH_RC_SYNTAX, 4, "the clause is empty"},
        {"a not 1", WH_RC_SYNTAX, 7, "expected 'in', 'like', 'between', 'contains' or a comparison after 'not', found '1'"},
        {"a not < 1", WH_RC_SYNTAX, 7, "expected '=', '=:' or '=*' after 'not', found '<'"},
        {"a between 1 or 2", WH_RC_SYNTAX, 13, "expected 'and' of 'between', found 'or'"},
        {"a is 1", WH_RC_SYNTAX, 6, "expected 'null' or 'missing', found '1'"},
        {"s like 1", WH_RC_TYPES, 8, "a pattern must be a character value, not a number"},
        {"a like 'x'", WH_RC_TYPES, 1, "the left of 'like' must be a character value, not a number"},
        {"a =* 'x'", WH_RC_TYPES, 1, "the left of =* must be a character value, not a number"},
        {"and = 1", WH_RC_SYNTAX, 1, "expected a value, found 'and'"},
        {"(a = 1", WH_RC_SYNTAX, 7, "expected ')', found the end of the clause"},
        {"missing(a > 1)", WH_RC_SYNTAX, 11, "expected ')' of missing(), found '>'"},
        {"a = (b > 1)", WH_RC_TYPES, 5, "'=' must be a value, not a condition"},
        {"a = 1 =", WH_RC_SYNTAX, 7, "expected 'and', 'or' or the end of the clause, found '='"},
        {"s = 'a' || 1", WH_RC_TYPES, 12, "an operand of '||' must be a character value, not a number"},
    };
    refused(cases);
    // Bytes that are not text, and NUL inside the clause.
    Parsed nul;
    parse(std::string("a = 1\0", 6), &nul);
    EXPECT_EQ(nul.rc, WH_RC_SYNTAX);
    EXPECT_STREQ(nul.err.text, "at column 6: the byte 0x00 has no meaning here");
    EXPECT_EQ(whparse("a", 1, COLS, NCOLS, nullptr, nullptr), WH_RC_NULLARG);
}

TEST(WhParse, FunctionCallsAreCheckedAgainstTheLibrary) {
    Parsed p;
    parse("upcase(substr(code,1,2)) = 'AB' and abs(a) > length(city)", &p);
    ASSERT_EQ(p.rc, 0) << p.err.text;
    EXPECT_EQ(say(p.t), "((UPCASE(SUBSTR(CODE, 1, 2))='AB') and (ABS(A)>LENGTH(CITY)))");
    SQLOP* up = get_child(get_child(p.t, 0), 0);
    ASSERT_EQ(up->code, OP_FLST);
    SQLOP* f = get_child(up, 0);
    EXPECT_EQ(std::string(f->u.func.name, f->u.func.namelen), "UPCASE");
    EXPECT_EQ(f->u.func.type, 2);
    EXPECT_EQ(f->u.func.code & 0x7ff00000, 0x20000000);
    // A string function as long as its first argument: SUBSTR of a 6-byte column.
    EXPECT_EQ(up->type, 6);
    EXPECT_EQ(f->type, 6);
    SQLOP* abs = get_child(get_child(p.t, 1), 0);
    EXPECT_EQ(abs->type, -8);
    EXPECT_EQ(get_child(abs, 0)->u.func.type, 1);
    EXPECT_NE(get_child(abs, 0)->u.func.code, get_child(up, 0)->u.func.code);

    const Bad cases[] = {
        {"upcase(a) = 'x'", WH_RC_FNCWANTC, 8, "argument 1 of upcase must be a character value"},
        {"substr(code, 'x') = 'a'", WH_RC_FNCWANTN, 14, "argument 2 of substr must be a number"},
        {"substr(code) = 'a'", WH_RC_FNCFEW, 1, "substr takes at least 2 arguments"},
        {"abs(a, 1) > 0", WH_RC_FNCMANY, 1, "abs takes at most 1 argument"},
        {"lag(a) > 0", WH_RC_FNCREFUSED, 1, "the function lag cannot be used in a WHERE clause"},
        {"nosuch(1) = 1", WH_RC_NOFUNC, 1, "there is no function nosuch"},
        {"substring(code, 1) = 'a'", WH_RC_NOFUNC, 1, "there is no function substring"},
        {"length(code) = 'x'", WH_RC_TYPES, 16, "'=' compares a number with a character value"},
        {"abs(a > 1) = 1", WH_RC_SYNTAX, 7, "expected ',' or ')' of the call, found '>'"},
    };
    refused(cases);
}

TEST(WhParse, NestingAndLengthHaveLimits) {
    auto nested = [](int n) { return std::string(n, '(') + "a" + std::string(n, ')') + " = 1"; };
    Parsed ok;
    parse(nested(199), &ok);
    EXPECT_EQ(ok.rc, 0) << ok.err.text;
    Parsed deep;
    parse(nested(201), &deep);
    EXPECT_EQ(deep.rc, WH_RC_DEEP);
    Parsed nots;
    std::string n;
    for (int i = 0; i < 250; i++) n += "not ";
    parse(n + "a", &nots);
    EXPECT_EQ(nots.rc, WH_RC_DEEP);
    // A long chain of additions nests one level a term.
    std::string sum = "a";
    for (int i = 0; i < WH_MAXDEPTH; i++) sum += "+1";
    Parsed chain;
    parse(sum + " > 0", &chain);
    EXPECT_EQ(chain.rc, WH_RC_DEEP) << chain.err.text;
    // A long "and" is one node with many operands.
    std::string conj = "a = 0";
    for (int i = 1; i < 3000; i++) conj += " and a = " + std::to_string(i);
    Parsed wide;
    parse(conj, &wide);
    ASSERT_EQ(wide.rc, 0) << wide.err.text;
    EXPECT_EQ(wide.t->u.node.narg, 3000);
    EXPECT_EQ(get_child(get_child(wide.t, 2999), 1)->u.nleaf.nbr, 2999.0);
    // Strings reach the longest a node's type can tell, and no further.
    Parsed longs;
    parse("s = '" + std::string(32767, 'x') + "'", &longs);
    EXPECT_EQ(longs.rc, 0);
    Parsed toolong;
    parse("s = '" + std::string(32768, 'x') + "'", &toolong);
    EXPECT_EQ(toolong.rc, WH_RC_SYNTAX);
    Parsed conc;
    parse("s || '" + std::string(32765, 'x') + "' = 'a'", &conc);
    EXPECT_EQ(conc.rc, WH_RC_TYPES) << conc.err.text;
}

// Random clauses from the language's own words, and random bytes: every
// answer is a tree or a placed refusal.
TEST(WhParse, RandomInputNeverCrashesAndIsAlwaysAnswered) {
    const char* words[] = {"a", "s", "qty", "city", "zz", "1", "-2.5", ".", ".B", "'x'", "\"y\"", "'it''s'", "(",
                           ")", ",", "and", "or", "not", "in", "in:", "between", "like", "is", "null", "missing",
                           "contains", "=", "<>", "<", ">=", "=:", "=*", "+", "-", "*", "/", "**", "||", "upcase"};
    std::mt19937 rng(2020);
    const int rounds = std::getenv("VRTA_LONG") ? 300000 : 6000;
    int accepted = 0;
    for (int r = 0; r < rounds; r++) {
        std::string s;
        if (r % 5 == 4) {
            int n = static_cast<int>(rng() % 24);
            for (int i = 0; i < n; i++) s += static_cast<char>(rng() % 256);
        } else {
            int n = 1 + static_cast<int>(rng() % 12);
            for (int i = 0; i < n; i++) (s += words[rng() % (sizeof words / sizeof *words)]) += ' ';
        }
        Parsed p;
        parse(s, &p);
        if (p.rc == 0) {
            accepted++;
            ASSERT_NE(p.t, nullptr);
            EXPECT_NE(say(p.t), "<failed>");
        } else {
            EXPECT_TRUE(p.rc == WH_RC_SYNTAX || p.rc == WH_RC_TYPES || p.rc == WH_RC_NOCOLUMN ||
                        p.rc == WH_RC_DEEP || p.rc == WH_RC_NOFUNC || (p.rc & 0xffff0000) == 0x80040000)
                << std::hex << p.rc << " " << s;
            EXPECT_GE(p.err.col, 1) << s;
            EXPECT_LE(p.err.col, static_cast<int>(s.size()) + 1) << s;
        }
    }
    EXPECT_GT(accepted, 0);
}

}  // namespace

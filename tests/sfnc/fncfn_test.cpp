// Behaviour of the functions that reference tables do not cover: strings,
// missing values in statistics, rounding, bits, money, state kept between
// calls, and the state and ZIP lookups.
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <string>

#include "fnccall.h"
#include "hs/hsnls.h"

using namespace vrta;
using namespace fnctest;

namespace {

const double M = VZ_MISSING;

double f(const char* name, std::initializer_list<double> args) {
    Args a;
    for (double v : args) a.n(v);
    return num(name, a);
}

std::string s1(const char* name, const std::string& v, int room = 200) {
    Args a;
    a.s(v);
    return str(name, a, room);
}

}  // namespace

TEST(FncStrings, BlankPaddedValues) {
    Args len;
    len.s("abc  ");
    EXPECT_EQ(num("LENGTH", len), 3);
    len.sets(1, "    ");
    EXPECT_EQ(num("LENGTH", len), 1);
    EXPECT_EQ(s1("TRIM", "   "), " ");
    EXPECT_EQ(s1("TRIM", " a b  "), " a b");
    EXPECT_EQ(s1("STRIP", "  a b  "), "a b");
    EXPECT_EQ(s1("STRIP", "   "), "");
    EXPECT_EQ(s1("LEFT", "  ab"), "ab  ");
    EXPECT_EQ(s1("RIGHT", "ab  "), "  ab");
    EXPECT_EQ(s1("REVERSE", "ab "), " ba");
    EXPECT_EQ(s1("COMPBL", "a   b  c  "), "a b c ");
    EXPECT_EQ(s1("COMPRESS", " a b c "), "abc");
    Args cmp;
    cmp.s("a-b.c d").s("-.");
    EXPECT_EQ(str("COMPRESS", cmp), "abc d");
    EXPECT_EQ(s1("UPCASE", "aBc-z{"), "ABC-Z{");
    EXPECT_EQ(s1("LOWCASE", "AbC-Z["), "abc-z[");
    EXPECT_EQ(s1("DEQUOTE", "'it''s' tail"), "it's");
    EXPECT_EQ(s1("DEQUOTE", "\"open"), "open");
    EXPECT_EQ(s1("DEQUOTE", "plain'"), "plain'");
    EXPECT_EQ(s1("QUOTE", "say \"hi\"  "), "\"say \"\"hi\"\"\"");
}

TEST(FncStrings, PositionsAndLengthsAtTheEdges) {
    auto sub = [](const char* fn, const std::string& s, std::initializer_list<double> n) {
        Args a;
        a.s(s);
        for (double v : n) a.n(v);
        return str(fn, a);
    };
    EXPECT_EQ(sub("SUBSTR", "abcdef", {2, 3}), "bcd");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {6}), "f");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {0}), " ");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {7}), " ");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {M}), " ");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {2, 100}), "bcdef");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {2, -1}), "bcdef");
    EXPECT_EQ(sub("SUBSTR", "abcdef", {2.9, 2}), "bc");
    EXPECT_EQ(sub("SUBSTRN", "abcdef", {-1, 4}), "ab");
    EXPECT_EQ(sub("SUBSTRN", "abc", {5, 2}), "");
    EXPECT_EQ(sub("SUBSTRN", "abcdef", {2}), "bcdef");
    EXPECT_EQ(sub("SUBSTRN", "abcdef", {3, 0}), "");

    Args idx;
    idx.s("abc def").s("c d");
    EXPECT_EQ(num("INDEX", idx), 3);
    idx.sets(2, "c ");
    idx.sets(1, "abc");
    EXPECT_EQ(num("INDEX", idx), 0);
    idx.sets(2, "");
    EXPECT_EQ(num("INDEX", idx), 0);

    Args b;
    b.n(65);
    EXPECT_EQ(str("BYTE", b, 1), "A");
    b.setn(1, 256);
    EXPECT_EQ(str("BYTE", b, 1), " ");
    Args rk;
    rk.s("A");
    EXPECT_EQ(num("RANK", rk), 65);
    Args col;
    col.n(65).n(70);
    EXPECT_EQ(str("COLLATE", col), "ABCDEF");
    Args col3;
    col3.n(65).n(M).n(3);
    EXPECT_EQ(str("COLLATE", col3), "ABC");
    Args colend;
    colend.n(250);
    EXPECT_EQ(str("COLLATE", colend).size(), 6u);
}

// A result never passes the room it is given, however long the value
// would grow.
TEST(FncStrings, ResultsAreCutAtTheirRoom) {
    Args rep;
    rep.s("ab").n(500);
    std::string r = str("REPEAT", rep, 200);
    ASSERT_EQ(r.size(), 200u);
    EXPECT_EQ(r.substr(0, 6), "ababab");
    rep.setn(2, -1);
    EXPECT_EQ(str("REPEAT", rep), " ");
    EXPECT_EQ(s1("UPCASE", "abcdef", 2), "AB");
    EXPECT_EQ(s1("QUOTE", "abcdef", 4), "\"abc");
    Args tw;
    tw.s("a cat and a cat").s("cat").s("tiger");
    EXPECT_EQ(str("TRANWRD", tw), "a tiger and a tiger");
    EXPECT_EQ(str("TRANWRD", tw, 9), "a tiger a");
    Args ov;
    ov.s("aaa").s("aa").s("");
    EXPECT_EQ(str("TRANWRD", ov), " a");
    Args zero;
    zero.s("abc");
    EXPECT_EQ(s1("TRIM", "abc", 0), "");
}

namespace {
int fakeupper(HS_NLSENV*, char* dst, const char* src, int len) {
    for (int i = 0; i < len; i++) dst[i] = src[i] == 'e' ? 'E' : src[i] == 0x7f ? 'X' : src[i];
    return len;
}
}  // namespace

// Case mapping goes through the data's encoding when the call has one.
TEST(FncStrings, CaseMappingUsesTheDataEncoding) {
    HS_NLSENV env{};
    env.nls_upcase = fakeupper;
    XF_ENV xenv{&env, &env};
    Args a;
    a.s("e\x7f" "a");
    a.block()->xfenv = &xenv;
    EXPECT_EQ(str("UPCASE", a), "EXa");
}

TEST(FncStatistics, MissingValuesAreLeftOut) {
    EXPECT_EQ(f("N", {1, M, 3, vzmissof('A')}), 2);
    EXPECT_EQ(f("NMISS", {1, M, 3, vzmissof('A')}), 2);
    EXPECT_EQ(f("SUM", {1, M, 3}), 4);
    EXPECT_TRUE(vzismiss(f("SUM", {M, M})));
    EXPECT_TRUE(vzismiss(f("MEAN", {M})));
    EXPECT_EQ(f("MIN", {M, 4, -2}), -2);
    EXPECT_EQ(f("RANGE", {5}), 0);
    EXPECT_TRUE(vzismiss(f("VAR", {5, M})));
    EXPECT_TRUE(vzismiss(f("SKEWNESS", {1, 2, M})));
    EXPECT_TRUE(vzismiss(f("KURTOSIS", {1, 1, 1, 1})));
    EXPECT_TRUE(vzismiss(f("CV", {-1, 1})));
    EXPECT_EQ(f("FNONMISS", {M, M, 7, 8}), 7);
    // ORDINAL counts missing values as the smallest, by rank.
    EXPECT_EQ(f("ORDINAL", {3, 3, M, 1, vzmissof('_')}), 1);
    EXPECT_EQ(vzmisschar(f("ORDINAL", {1, 3, M, 1, vzmissof('_')})), '_');
    EXPECT_TRUE(vzismiss(f("ORDINAL", {5, 1, 2})));
    // The D forms take each distinct value once.
    EXPECT_EQ(f("DSUM", {1, 1, 2, M}), 3);
    EXPECT_EQ(f("DMEAN", {1, 1, 4}), 2.5);
    EXPECT_EQ(f("DVAR", {2, 2, 4}), 2);
    EXPECT_EQ(f("DMAX", {2, 9, 9}), 9);
    // More arguments than fit on the stack.
    Args many;
    for (int i = 1; i <= 100; i++) many.n(i);
    EXPECT_EQ(num("SUM", many), 5050);
    many.setn(1, 50);
    EXPECT_EQ(num("ORDINAL", many), 51);
}

TEST(FncArithmetic, RoundingBitsAndDomainErrors) {
    EXPECT_EQ(f("ROUND", {2.675, 0.01}), 2.68);
    EXPECT_EQ(f("ROUND", {-2.5}), -3);
    EXPECT_EQ(f("ROUND", {1234.5678, 100}), 1200);
    EXPECT_EQ(f("ROUND", {1.005, 0.01}), 1.01);
    EXPECT_EQ(f("ROUND", {7.3, 0}), 7.3);
    EXPECT_EQ(f("ROUND", {17, -5}), 15);
    EXPECT_EQ(f("MOD", {-7, 3}), -1);
    EXPECT_EQ(f("MOD", {0.3, 0.1}), 0);
    EXPECT_TRUE(vzismiss(f("MOD", {7, 0})));
    EXPECT_EQ(f("INT", {-2.7}), -2);
    EXPECT_EQ(f("INT", {2.9999999999999}), 3);
    EXPECT_EQ(f("CEIL", {1.0000000000001}), 1);
    EXPECT_EQ(f("CEIL", {1.1}), 2);
    EXPECT_EQ(f("FLOOR", {-0.5}), -1);
    EXPECT_EQ(f("FUZZ", {4.9999999999999}), 5);
    EXPECT_EQ(f("FUZZ", {4.9}), 4.9);
    EXPECT_EQ(f("SIGN", {-0.1}), -1);
    EXPECT_EQ(f("SIGNUM", {0}), 0);
    EXPECT_TRUE(vzismiss(f("RECIP", {0})));
    EXPECT_TRUE(vzismiss(f("ABS", {vzmissof('Z')})));
    EXPECT_EQ(f("BAND", {12, 10}), 8);
    EXPECT_EQ(f("BOR", {12, 10}), 14);
    EXPECT_EQ(f("BXOR", {12, 10}), 6);
    EXPECT_EQ(f("BNOT", {0}), 4294967295.0);
    EXPECT_EQ(f("BLSHIFT", {3, 31}), 2147483648.0);
    EXPECT_EQ(f("BRSHIFT", {4294967295.0, 28}), 15);
    EXPECT_TRUE(vzismiss(f("BLSHIFT", {1, 32})));
    EXPECT_TRUE(vzismiss(f("BAND", {-1, 1})));
    EXPECT_TRUE(vzismiss(f("BAND", {1.5, 1})));
    EXPECT_TRUE(vzismiss(f("BOR", {4294967296.0, 1})));
}

TEST(FncFinance, EachUnknownSolvesBack) {
    double pmt = f("MORT", {100000, M, 0.005, 360});
    EXPECT_NEAR(pmt, 599.5505251527, 1e-8);
    EXPECT_NEAR(f("MORT", {100000, pmt, M, 360}), 0.005, 1e-12);
    EXPECT_NEAR(f("MORT", {100000, pmt, 0.005, M}), 360, 1e-8);
    EXPECT_NEAR(f("MORT", {M, pmt, 0.005, 360}), 100000, 1e-6);
    EXPECT_NEAR(f("MORT", {1200, M, 0, 12}), 100, 1e-12);
    EXPECT_TRUE(vzismiss(f("MORT", {M, M, 0.005, 360})));
    EXPECT_TRUE(vzismiss(f("MORT", {1000, 1, 0.01, 10})));

    double fv = f("COMPOUND", {1000, M, 0.05, 10});
    EXPECT_NEAR(fv, 1628.894626777442, 1e-9);
    EXPECT_NEAR(f("COMPOUND", {1000, fv, M, 10}), 0.05, 1e-14);
    EXPECT_NEAR(f("COMPOUND", {1000, fv, 0.05, M}), 10, 1e-12);
    EXPECT_NEAR(f("COMPOUND", {M, fv, 0.05, 10}), 1000, 1e-9);

    double saved = f("SAVING", {M, 100, 0.01, 12});
    EXPECT_NEAR(saved, 100 * 1.01 * (std::pow(1.01, 12) - 1) / 0.01, 1e-9);
    EXPECT_NEAR(f("SAVING", {saved, M, 0.01, 12}), 100, 1e-10);
    EXPECT_NEAR(f("SAVING", {saved, 100, M, 12}), 0.01, 1e-12);
    EXPECT_NEAR(f("SAVING", {saved, 100, 0.01, M}), 12, 1e-9);

    double pv = 500 / 1.1 + 500 / 1.21 + 500 / 1.331 - 1000;
    EXPECT_NEAR(f("NETPV", {0.1, 1, -1000, 500, 500, 500}), pv, 1e-9);
    EXPECT_NEAR(f("NPV", {10, 1, -1000, 500, 500, 500}), pv, 1e-9);
    EXPECT_NEAR(f("NETPV", {0.1, 0, -100, 110}), -100 + 110 * std::exp(-0.1), 1e-12);
    EXPECT_NEAR(f("NETPV", {0.21, 2, -100, M, 121}), 0, 1e-9);
    double irr = f("IRR", {1, -1000, 500, 500, 500});
    double x = 1 / (1 + irr / 100);
    EXPECT_NEAR(-1000 + 500 * (x + x * x + x * x * x), 0, 1e-8);
    EXPECT_NEAR(f("INTRR", {1, -1000, 500, 500, 500}), irr / 100, 1e-12);
    EXPECT_NEAR(f("INTRR", {4, -100, 0, 0, 0, 110}), 0.1, 1e-10);
    EXPECT_TRUE(vzismiss(f("IRR", {1, 100, 200})));
}

TEST(FncFinance, DepreciationSchedules) {
    EXPECT_NEAR(f("DEPSL", {1, 1000, 100, 9}), 100, 1e-9);
    EXPECT_NEAR(f("DACCSL", {3, 1000, 100, 9}), 300, 1e-9);
    EXPECT_NEAR(f("DACCSL", {2.5, 1000, 100, 9}), 250, 1e-9);
    EXPECT_EQ(f("DEPSL", {10, 1000, 100, 9}), 0);
    EXPECT_NEAR(f("DEPSYD", {1, 1000, 100, 5}), 300, 1e-9);
    EXPECT_NEAR(f("DEPSYD", {5, 1000, 100, 5}), 60, 1e-9);
    EXPECT_NEAR(f("DACCSYD", {5, 1000, 100, 5}), 900, 1e-9);
    EXPECT_NEAR(f("DEPDB", {1, 2000, 10, 2}), 400, 1e-9);
    EXPECT_NEAR(f("DEPDB", {10, 2000, 10, 2}), 268.435456, 1e-9);
    EXPECT_NEAR(f("DACCDB", {10, 2000, 10, 2}), 2000, 1e-9);
    EXPECT_NEAR(f("DACCDB", {1.5, 2000, 10, 2}), 400 + 0.5 * 320, 1e-9);
    EXPECT_NEAR(f("DEPDB", {1.5, 2000, 10, 2}), 0.5 * 400 + 0.5 * 320, 1e-9);
    // Declining balance switching to straight line reaches the salvage value
    // at the end of the life and never goes below it.
    EXPECT_NEAR(f("DACCDBSL", {8, 1000, 100, 8, 2}), 900, 1e-9);
    for (double p = 1; p <= 8; p++) EXPECT_GE(f("DEPDBSL", {p, 1000, 100, 8, 2}), 0);
    EXPECT_NEAR(f("DEPDBSL", {1, 1000, 100, 8, 2}), 250, 1e-9);
    EXPECT_NEAR(f("DEPTAB", {2, 1000, 0.2, 0.3, 0.5}), 300, 1e-9);
    EXPECT_NEAR(f("DACCTAB", {3, 1000, 0.2, 0.3, 0.5}), 1000, 1e-9);
    EXPECT_TRUE(vzismiss(f("DEPTAB", {1, 1000, 0.7, 0.5})));
    EXPECT_TRUE(vzismiss(f("DEPSL", {1, 100, 200, 5})));
    EXPECT_TRUE(vzismiss(f("DEPSL", {-1, 1000, 100, 5})));
}

// The uniform stream: x <- 397204094 x mod (2^31 - 1), shown as x / (2^31 - 1).
TEST(FncState, RanuniFollowsTheFirstSeedOnly) {
    Args a;
    a.n(123);
    long x = 123;
    for (int i = 0; i < 5; i++) {
        x = static_cast<long>(static_cast<int64_t>(x) * 397204094 % 2147483647);
        EXPECT_DOUBLE_EQ(num("RANUNI", a), x / 2147483647.0);
        a.setn(1, 999);  // a later seed does not count
    }
    EXPECT_EQ(a.block()->fstate.fflags, 1);
    Args again;
    again.n(123);
    EXPECT_DOUBLE_EQ(num("RANUNI", again), (123L * 397204094L % 2147483647L) / 2147483647.0);
    Args clock;
    clock.n(0);
    double u = num("RANUNI", clock);
    EXPECT_GT(u, 0);
    EXPECT_LT(u, 1);
    EXPECT_LT(clock.block()->fstate.fflags, 0);
    // The internal form keeps the stream in its first argument.
    Args st;
    st.n(0).n(123);
    double first = num("RANUNI$", st);
    EXPECT_DOUBLE_EQ(first, (123L * 397204094L % 2147483647L) / 2147483647.0);
    EXPECT_EQ(*st.block()->par[1].loc.dp, 123L * 397204094L % 2147483647L);
}

TEST(FncState, LagAndDifRememberTheirCallSite) {
    Args lag;
    lag.n(2).n(1);
    std::vector<double> got;
    for (int i = 1; i <= 5; i++) {
        lag.setn(2, i * 10);
        got.push_back(num("LAG", lag));
    }
    EXPECT_TRUE(vzismiss(got[0]));
    EXPECT_TRUE(vzismiss(got[1]));
    EXPECT_EQ(got[2], 10);
    EXPECT_EQ(got[4], 30);
    Args slag;
    slag.n(1).s("first");
    EXPECT_EQ(str("LAG", slag, 8), " ");
    slag.sets(2, "second");
    EXPECT_EQ(str("LAG", slag, 8), "first");
    EXPECT_EQ(str("LAG", slag, 3), "sec");
    Args dif;
    dif.n(1).n(1);
    EXPECT_TRUE(vzismiss(num("DIF", dif)));
    dif.setn(2, 4);
    EXPECT_EQ(num("DIF", dif), 3);
    dif.setn(2, 9);
    EXPECT_EQ(num("DIF", dif), 5);
    // A lag count out of range is refused, not guessed.
    Args bad;
    bad.n(0).n(1);
    double r;
    EXPECT_EQ(xfxfn(code("LAG"), bad.block(), &r), XF_RC_BADCALL);
}

TEST(FncState, ArrayBoundsHostServicesAndNames) {
    double bounds[] = {2, 1, 5, -3, 3};
    Args a;
    a.n(0).n(2);
    FNCPAR* p = a.block();
    p->par[1].loc.dp = bounds;
    p->par[1].flags = XF_ARG_BOUNDS;
    EXPECT_EQ(num("DIM", a), 7);
    EXPECT_EQ(num("LBOUND", a), -3);
    EXPECT_EQ(num("HBOUND", a), 3);
    a.setn(2, 3);
    EXPECT_TRUE(vzismiss(num("DIM", a)));
    p->par[1].flags = 0;
    a.setn(2, 1);
    EXPECT_TRUE(vzismiss(num("DIM", a)));

    Args isp;
    isp.s("CONTROL ERRORS RETURN");
    EXPECT_EQ(num("ISPEXEC", isp), 20);

    Args vn;
    vn.s("amount").s("........");
    EXPECT_EQ(num("VNAME$", vn), 0);
    const X_STRING* out = vn.block()->par[2].loc.xs;
    EXPECT_EQ(std::string(out->data, static_cast<size_t>(out->curlen)), "amount");
}

TEST(FncGeography, FipsPostalAndZipCodes) {
    Args nc;
    nc.s(" nc ");
    EXPECT_EQ(num("STFIPS", nc), 37);
    EXPECT_EQ(str("STNAME", nc, 20), "NORTH CAROLINA");
    EXPECT_EQ(str("STNAMEL", nc, 20), "North Carolina");
    Args dc;
    dc.n(11);
    EXPECT_EQ(str("FIPNAME", dc, 20), "DISTRICT OF COLUMBIA");
    EXPECT_EQ(str("FIPSTATE", dc, 20), "DC");
    dc.setn(1, 3);
    EXPECT_EQ(str("FIPNAMEL", dc, 20), " ");
    auto zip = [](const char* fn, const char* z) {
        Args a;
        a.s(z);
        return str(fn, a, 20);
    };
    EXPECT_EQ(zip("ZIPSTATE", "27513"), "NC");
    EXPECT_EQ(zip("ZIPSTATE", "00601"), "PR");
    EXPECT_EQ(zip("ZIPSTATE", "96799"), "AS");
    EXPECT_EQ(zip("ZIPSTATE", "96910"), "GU");
    EXPECT_EQ(zip("ZIPSTATE", "05501"), "MA");
    EXPECT_EQ(zip("ZIPSTATE", "73301"), "TX");
    EXPECT_EQ(zip("ZIPNAME", "90210"), "CALIFORNIA");
    EXPECT_EQ(zip("ZIPNAMEL", "99501-1234"), "Alaska");
    EXPECT_EQ(zip("ZIPSTATE", "1234"), " ");
    EXPECT_EQ(zip("ZIPSTATE", "09012"), " ");
    EXPECT_EQ(zip("ZIPSTATE", "ab123"), " ");
    Args zf;
    zf.s("00601");
    EXPECT_EQ(num("ZIPFIPS", zf), 72);
    zf.sets(1, "34012");
    EXPECT_TRUE(vzismiss(num("ZIPFIPS", zf)));
}

namespace {

double intnx(const char* iv, double start, double n, const char* align = nullptr) {
    Args a;
    a.s(iv).n(start).n(n);
    if (align) a.s(align);
    return num("INTNX", a);
}

double intck(const char* iv, double from, double to) {
    Args a;
    a.s(iv).n(from).n(to);
    return num("INTCK", a);
}

}  // namespace

// Intervals the calendar table does not reach: weekdays, ten-day and
// half-year periods, multipliers and shifts, times, and alignments.
TEST(FncIntervals, KindsMultipliersShiftsAndAlignment) {
    // 1 January 1960 was a Friday.
    EXPECT_EQ(intnx("WEEKDAY", 0, 1), 3);
    EXPECT_EQ(intnx("WEEKDAY", 1, 0), 0);
    EXPECT_EQ(intnx("WEEKDAY", 2, 1), 3);
    EXPECT_EQ(intck("WEEKDAY", 0, 3), 1);
    EXPECT_EQ(intck("WEEKDAY", 0, 7), 5);
    EXPECT_EQ(intnx("WEEKDAY1W", 0, 1), 1);
    EXPECT_EQ(intnx("WEEKDAY67W", 0, 1), 2);  // Friday and Saturday off
    EXPECT_EQ(intnx("TENDAY", 14, 1), 20);
    EXPECT_EQ(intnx("TENDAY", 24, 1), 31);
    EXPECT_EQ(intnx("SEMIYEAR", 220, 0), 182);
    EXPECT_EQ(intnx("MONTH2", 40, 0), 0);
    EXPECT_EQ(intnx("MONTH2", 60, 0), 60);
    EXPECT_EQ(intnx("MONTH2.2", 14, 0), -31);
    EXPECT_EQ(intnx("WEEK.2", 0, 0), -4);  // weeks from Monday
    EXPECT_EQ(intnx("HOUR", 3723, 1), 7200);
    EXPECT_EQ(intnx("MINUTE2", 3723, 0), 3720);
    EXPECT_EQ(intnx("SECOND", 3723.5, 0), 3723);
    EXPECT_EQ(intck("HOUR", 3599, 3600), 1);
    EXPECT_EQ(intck("DTHOUR", 3600, 3599), -1);
    EXPECT_EQ(intnx("DTMONTH", 14 * 86400.0 + 43200, 1, "E"), 60 * 86400.0 - 1);
    EXPECT_EQ(intnx("MONTH", 0, 0, "M"), 15);
    EXPECT_EQ(intnx("MONTH", 0, 0, "middle"), 15);
    EXPECT_EQ(intnx("YEAR", 14669, 1, "S"), 14669 + 365);
    EXPECT_EQ(intnx("MONTH", 30, 1, "same"), 59);  // 31 January to 29 February
    EXPECT_EQ(intnx("DTDAY", 3723.5, 1, "S"), 86400 + 3723.5);
    EXPECT_EQ(intnx(" qtr ", 100, 1, " b "), 182);
    EXPECT_EQ(intnx("year", 0, 2.9), intnx("YEAR", 0, 2));
    for (const char* bad : {"", "DT", "MONTH0", "WEEK.8", "QTR.4", "DAY.2", "WEEKDAY1234567W", "MONTH.", "HOURS"})
        EXPECT_TRUE(vzismiss(intnx(bad, 0, 1))) << bad;
    EXPECT_TRUE(vzismiss(intnx("YEAR", 0, 1e12)));
    EXPECT_TRUE(vzismiss(intnx("YEAR", 0, 20000)));
    EXPECT_TRUE(vzismiss(intck("MONTH", M, 3)));
}

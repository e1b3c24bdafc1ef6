#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "fnccall.h"
#include "ssup/xp.h"

using namespace vrta;
using namespace fnctest;

namespace {

std::string trimmed(const char* s, size_t n) {
    std::string v(s, n);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\0')) v.pop_back();
    return v;
}

const FNCTBL_ENT* row(const char* name) {
    for (const FNCTBL_ENT& e : fnc_table)
        if (trimmed(e.name, 8) == name) return &e;
    return nullptr;
}

}  // namespace

TEST(FncTable, RowsGivenInFullAreExact) {
    struct Row {
        const char* name;
        int min, max;
        const char* input;
        const char* result;
        long fdesc, fargi;
    } rows[] = {
        {"ABS", 1, 1, "r", "r", 2048, 1},          {"ADDR", 1, 1, "b", "r", 0, 3},
        {"BAND", 2, 2, "rr", "r", 0, 9},           {"DATE", 0, 0, "n", "r", 0, 0},
        {"INDEX", 2, 2, "cc", "r", 0, 18},         {"INTNX", 3, 4, "crrc", "r", 0, 1098},
        {"LAG", 2, 2, "nb", "b", 9230, 24},        {"LEFT", 1, 1, "c", "c", 18, 2},
        {"LENGTH", 1, 1, "c", "r", 16384, 2},      {"MAX", 2, 0, "rrr", "r", 0, 73},
        {"MEAN", 1, 0, "rr", "r", 0, 9},           {"RANUNI", 1, 1, "r", "r", 1024, 1},
        {"RANUNI$", 2, 2, "RR", "", 1, 45},        {"REPEAT", 2, 2, "cr", "c", 10, 10},
        {"SUBSTR", 2, 3, "crr", "c", 18, 74},      {"TRANWRD", 3, 3, "ccc", "c", 10, 146},
        {"UPCASE", 1, 1, "c", "c", 16402, 2},      {"VNAME$", 2, 2, "bc", "", 8193, 19},
    };
    for (const Row& r : rows) {
        const FNCTBL_ENT* e = row(r.name);
        ASSERT_NE(e, nullptr) << r.name;
        EXPECT_EQ(e->min, r.min) << r.name;
        EXPECT_EQ(e->max, r.max) << r.name;
        EXPECT_EQ(trimmed(e->input, 8), r.input) << r.name;
        EXPECT_EQ(trimmed(e->result, 8), r.result) << r.name;
        EXPECT_EQ(e->fdesc, r.fdesc) << r.name;
        EXPECT_EQ(e->fargi, r.fargi) << r.name;
    }
}

// The whole table: every name once, in the order of the list, blank padded,
// the blank row last, and each row's words agreeing with one another.
TEST(FncTable, EveryRowIsConsistent) {
    const std::string names =
        "ABS ADDR ARCOS ARSIN ATAN BAND BETAINV BLSHIFT BNOT BOR BRSHIFT BXOR BYTE CEIL CINV COLLATE COMPBL "
        "COMPOUND COMPRESS COS COSH CSS CV DACCDB DACCDBSL DACCSL DACCSYD DACCTAB DATE DATEJUL DATEPART DATETIME "
        "DAY DCSS DEPDB DEPDBSL DEPSL DEPSYD DEPTAB DEQUOTE DHMS DIF DIGAMMA DIM DMAX DMEAN DMIN DRANGE DSTD "
        "DSTDERR DSUM DUSS DVAR ERF ERFC EXP FINV FIPNAME FIPNAMEL FIPSTATE FLOOR FNONMISS FUZZ GAMINV GAMMA "
        "HBOUND HMS HOUR INDEX INT INTCK INTNX INTRR IRR ISPEXEC ISPEXEC$ ISPLINK ISPLINK$ KURTOSIS LABEL$ LAG "
        "LBOUND LEFT LENGTH LGAMMA LOG LOG10 LOG2 LOWCASE MAX MDY MEAN MIN MINUTE MOD MONTH MORT N NETPV NMISS "
        "NPV ORDINAL POISSON PROBBETA PROBBNML PROBCHI PROBF PROBGAM PROBHYPR PROBIT PROBNEGB PROBNORM PROBT QTR "
        "QUOTE RANGE RANK RANUNI RANUNI$ RECIP REPEAT REVERSE RIGHT ROUND SAVING SECOND SIGN SIGNUM SIN SINH "
        "SKEWNESS SQRT STD STDERR STFIPS STNAME STNAMEL STRIP SUBSTR SUBSTRN SUM TAN TANH TIME TIMEPART TINV "
        "TODAY TRANWRD TRIGAMMA TRIM UPCASE USS VAR VNAME$ WEEKDAY YEAR ZIPFIPS ZIPNAME ZIPNAMEL ZIPSTATE";
    std::istringstream in(names);
    std::string want;
    int i = 0;
    for (; in >> want; i++) {
        ASSERT_LT(i, FNC_NROWS - 1);
        const FNCTBL_ENT& e = fnc_table[i];
        EXPECT_EQ(trimmed(e.name, 8), want);
        EXPECT_EQ(std::string(e.name, 8).find('\0'), std::string::npos) << want << " is not blank padded";
        EXPECT_NE(e.entpt, nullptr) << want;
        // fargi is the input letters, 3 bits each from the low end.
        long fargi = 0, scale = 1;
        std::string input = trimmed(e.input, 8);
        for (char c : input) {
            fargi += scale * (c == 'r' ? 1 : c == 'c' ? 2 : c == 'b' ? 3 : c == 'R' ? 5 : 0);
            scale *= 8;
        }
        EXPECT_EQ(e.fargi, fargi) << want;
        // A limit lists every argument; no limit lists one past the least.
        EXPECT_EQ(static_cast<int>(input.size()), e.max ? e.max : std::max(e.min + 1, 1)) << want;
        std::string result = trimmed(e.result, 8);
        EXPECT_EQ(result.empty(), (e.fdesc & XF_D_INTERNAL) != 0) << want;
        EXPECT_EQ(result == "c" || result == "b", (e.fdesc & XF_D_STRING) != 0) << want;
        if (e.fdesc & XF_D_PLAIN) {
            EXPECT_EQ(input, "r") << want;
        }
        if (e.fdesc & XF_D_FIRSTARG) {
            EXPECT_EQ(input, "c") << want;
        }
    }
    EXPECT_EQ(i, FNC_NROWS - 1);
    EXPECT_EQ(std::string(fnc_table[FNC_NROWS - 1].name, 8), "        ");
    EXPECT_EQ(fnc_table[FNC_NROWS - 1].entpt, nullptr);
}

TEST(FncTable, LookupByNameAndByCode) {
    FNCSTR attr{};
    long c = 0;
    ASSERT_EQ(find_fnc("substr", 6, 'U', &attr, &c), 0);
    const FNCTBL_ENT* sub = row("SUBSTR");
    long index = sub - fnc_table;
    EXPECT_EQ(c, (index + 1) | 0x20000000);
    EXPECT_EQ(attr.fnum, index);
    EXPECT_EQ(attr.fmin, 2);
    EXPECT_EQ(attr.fmax, 3);
    EXPECT_EQ(attr.fdesc, 18);
    EXPECT_EQ(attr.fargi, 74);
    // Trailing blanks in the name do not matter; a longer name does not
    // match a prefix, nor a prefix a longer name.
    EXPECT_EQ(find_fnc("SuBsTr  ", 8, 'U', &attr, &c), 0);
    EXPECT_EQ(find_fnc("SUBSTRX", 7, 'U', &attr, &c), 1);
    EXPECT_EQ(find_fnc("SUBST", 5, 'U', &attr, &c), 1);
    EXPECT_EQ(find_fnc("", 0, 'U', &attr, &c), 1);
    EXPECT_EQ(find_fnc("RANUNI$", 7, 'U', &attr, &c), 0);
    EXPECT_EQ(attr.fdesc, 1);
    EXPECT_EQ(find_fnc("DACCDBSL", 8, 'U', &attr, &c), 0);

    // A nine-letter name is not looked up: the code given is checked.
    c = (index + 1) | 0x20000000;
    EXPECT_EQ(find_fnc("SUBSTRING", 9, 'U', &attr, &c), 0);
    EXPECT_EQ(attr.fnum, index);
    c = 0;
    EXPECT_EQ(find_fnc("SUBSTRING", 9, 'U', &attr, &c), 1);
    for (long bad : {0x20000000L, 0x20000000L + 162, 0x30000000L + 5, 0x10000000L + 5, 5L})
        EXPECT_EQ(find_fnc(nullptr, 0, 'U', &attr, &bad), 1) << std::hex << bad;
    long last = 0x20000000L + 161;
    EXPECT_EQ(find_fnc(nullptr, 0, 'U', &attr, &last), 0);
    long first = 0x20000000L + 1;
    ASSERT_EQ(find_fnc(nullptr, 0, 'U', &attr, &first), 0);
    EXPECT_EQ(attr.fdesc, 2048);

    // xfname sends 'U' and 'B' to functions, 'F' and 'I' to formats.
    EXPECT_EQ(xfname("mean", 4, 'B', &attr, &c), 0);
    EXPECT_EQ(xfname("mean", 4, 'X', &attr, &c), 1);
    EXPECT_EQ(xfname("mean", 4, 'F', nullptr, &c), 1);
}

TEST(FncTable, CallsCheckCodesCountsAndKinds) {
    double r = 0;
    Args none;
    EXPECT_EQ(xfxfn(0, none.block(), &r), -1);
    EXPECT_EQ(xfxfn(0x20000000L + 161, none.block(), &r), -1);
    EXPECT_EQ(xfxfn(0x20000000L + 162, none.block(), &r), -1);
    EXPECT_EQ(xfxfn(0x40000000L + 1, none.block(), &r), -1);

    Args one;
    one.n(1);
    EXPECT_EQ(xfxfn(code("MAX"), one.block(), &r), XF_RC_FEWARGS);
    const char* sub = nullptr;
    int sublen = 0;
    ASSERT_EQ(xrgtsub(&sub, &sublen), 0);
    EXPECT_EQ(std::string(sub, static_cast<size_t>(sublen)), "MAX");
    Args three;
    three.n(1).n(2).n(3);
    EXPECT_EQ(xfxfn(code("ABS"), three.block(), &r), XF_RC_MANYARGS);
    Args text;
    text.s("x");
    EXPECT_EQ(xfxfn(code("ABS"), text.block(), &r), XF_RC_WANTNUM);
    X_STRING out{10, 0, nullptr};
    char buf[10];
    out.data = buf;
    EXPECT_EQ(xfxfn(code("UPCASE"), one.block(), &out), XF_RC_WANTSTR);
    EXPECT_EQ(xfxfn(code("ABS"), nullptr, &r), XF_RC_BADCALL);
    EXPECT_EQ(xfxfn(code("ABS"), one.block(), nullptr), XF_RC_BADCALL);

    // Each way of calling an entry.
    Args neg;
    neg.n(-2.5);
    EXPECT_EQ(num("ABS", neg), 2.5);
    Args padded;
    padded.s("ab  ");
    EXPECT_EQ(str("TRIM", padded), "ab");
    Args sub3;
    sub3.s("abcdef").n(2).n(3);
    EXPECT_EQ(str("SUBSTR", sub3), "bcd");
    Args many;
    many.n(1).n(2).n(3).n(4).n(VZ_MISSING).n(10);
    EXPECT_EQ(num("MEAN", many), 4);
    EXPECT_EQ(num("MAX", many), 10);
}

// The argument check of the WHERE checker reads fargi as it stands: a group
// of 3 refuses both kinds, and the last group holds for all further ones.
TEST(FncTable, WhereArgumentCheckFollowsFargi) {
    int bad = 0;
    EXPECT_EQ(xfchkargi(3, 1, "\1", &bad), XF_RC_WANTSTR);
    EXPECT_EQ(xfchkargi(3, 1, "\2", &bad), XF_RC_WANTNUM);
    EXPECT_EQ(xfchkargi(73, 6, "\1\1\1\1\1\1", &bad), 0);
    EXPECT_EQ(xfchkargi(73, 6, "\1\1\1\1\1\2", &bad), XF_RC_WANTNUM);
    EXPECT_EQ(bad, 6);
    EXPECT_EQ(xfchkargi(1098, 4, "\2\1\1\2", &bad), 0);
    EXPECT_EQ(xfchkargi(1098, 4, "\2\1\1\1", &bad), XF_RC_WANTSTR);
    EXPECT_EQ(bad, 4);
    EXPECT_EQ(xfchkargi(0, 3, "\1\2\1", &bad), 0);
    EXPECT_EQ(xfchkargi(24, 2, "\2\1", &bad), XF_RC_WANTSTR);
    EXPECT_EQ(bad, 2);
}

TEST(FncTable, LayerBlockIsMadeAndFreed) {
    void* g = xfinit();
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(memcmp(static_cast<XFGCB*>(g)->eye, "XFGB", 4), 0);
    xfterm(g);
    xfterm(nullptr);
}

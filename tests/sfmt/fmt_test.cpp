#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <string>

#include "hs/hsgcb.h"
#include "sfmt/fmt.h"
#include "ssubs/vz.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

const double M = VZ_MISSING;

long fcode(const char* name, char type = 'F') {
    long c = 0;
    FMTSTR a{};
    EXPECT_EQ(xfname(name, static_cast<int>(strlen(name)), type, &a, &c), 0) << name;
    return c;
}

struct Out {
    int rc;
    std::string text;
};

// A number through a format at width w (0: the default one).
Out put(const char* name, double v, int w = 0, int d = 0) {
    FMTSTR a{};
    long c = 0;
    EXPECT_EQ(xfname(name, static_cast<int>(strlen(name)), 'F', &a, &c), 0) << name;
    int width = w ? w : a.defw;
    std::string buf(static_cast<size_t>(width) + 1, '#');
    int rc = xffmt(nullptr, &v, 8, width, d, buf.data(), width, c);
    EXPECT_EQ(buf.back(), '#') << name << " wrote past its width";
    buf.pop_back();
    return {rc, buf};
}

std::string putc(const char* name, const std::string& v, int w) {
    std::string buf(static_cast<size_t>(w) + 1, '#');
    EXPECT_EQ(xffmt(nullptr, v.data(), static_cast<int>(v.size()), w, 0, buf.data(), w, fcode(name)), 0) << name;
    EXPECT_EQ(buf.back(), '#');
    buf.pop_back();
    return buf;
}

// Text through a numeric informat.
Out readn(const char* name, const std::string& text, int d = 0, double* v = nullptr) {
    double r = 0;
    int rc = xffmt(nullptr, text.data(), static_cast<int>(text.size()), 8, d, &r, 8, fcode(name, 'I'));
    if (v) *v = r;
    return {rc, vzismiss(r) ? "." : std::to_string(r)};
}

double readv(const char* name, const std::string& text, int d = 0) {
    double v = 0;
    EXPECT_EQ(readn(name, text, d, &v).rc, 0) << name << " " << text;
    return v;
}

}  // namespace

TEST(FmtTable, RowsAndLookup) {
    std::set<std::string> seen;
    std::set<long> kinds;
    int unavailable = 0;
    for (const FMTTBL_ENT& e : fmt_table) {
        std::string name(e.name, 8);
        EXPECT_NE(name[0], ' ');
        EXPECT_TRUE(seen.insert(name + e.fmttype).second) << name;
        EXPECT_TRUE(kinds.insert(e.kind).second) << name;
        EXPECT_TRUE(e.fmttype == 'F' || e.fmttype == 'I') << name;
        EXPECT_EQ(e.chr, name[0] == '$') << name;
        EXPECT_LE(e.minw, e.defw) << name;
        EXPECT_LE(e.defw, e.maxw) << name;
        if (!e.entpt) {
            unavailable++;
            double v = 1;
            char buf[64];
            EXPECT_EQ(xffmt(nullptr, &v, 8, e.defw, 0, buf, sizeof buf, e.kind), XF_RC_FMTNA) << name;
            const char* sub;
            int len;
            ASSERT_EQ(0, xrgtsub(&sub, &len)) << name;
            EXPECT_EQ(std::string(sub, static_cast<size_t>(len)), name.substr(0, name.find(' ')));
        }
    }
    EXPECT_EQ(seen.size(), 110u);
    EXPECT_GT(unavailable, 0);
    EXPECT_EQ(fcode("F"), FMT_KIND_F);
    EXPECT_EQ(fcode("$"), FMT_KIND_CHAR);
    EXPECT_EQ(fcode("best"), FMT_KIND_BEST);
    EXPECT_EQ(fcode("F", 'I'), FMT_KIND_INF);
    EXPECT_EQ(fcode("$", 'I'), FMT_KIND_INCHAR);
    EXPECT_EQ(fcode("$HEX"), FMT_KIND_HEX);
    long c = 0;
    FMTSTR a{};
    EXPECT_EQ(xfname("", 0, 'F', &a, &c), 0);
    EXPECT_EQ(c, FMT_KIND_F);
    EXPECT_EQ(xfname("weekdate", 8, 'F', &a, &c), 0);
    EXPECT_EQ(a.defw, 29);
    EXPECT_EQ(a.avail, 1);
    EXPECT_EQ(xfname("WEEKDATE", 8, 'I', &a, &c), 1);
    EXPECT_EQ(xfname("NOSUCH", 6, 'F', &a, &c), 1);
    EXPECT_EQ(xfname("DATETIMEX", 9, 'F', &a, &c), 1);
}

TEST(FmtNumbers, FixedBestAndGrouped) {
    EXPECT_EQ(put("F", 3.14159, 8, 2).text, "    3.14");
    EXPECT_EQ(put("F", 2.675, 6, 2).text, "  2.68");
    EXPECT_EQ(put("F", -0.004, 6, 2).text, "  0.00");
    EXPECT_EQ(put("F", -12.5, 6, 0).text, "   -13");
    Out cut = put("F", 123456.789, 6, 2);
    EXPECT_EQ(cut.rc, 2);
    EXPECT_EQ(cut.text, "123457");
    Out big = put("F", 1e20, 6, 0);
    EXPECT_EQ(big.rc, 2);
    EXPECT_EQ(big.text, "  1E20");
    Out none = put("F", -1e300, 3, 0);
    EXPECT_EQ(none.rc, 1);
    EXPECT_EQ(none.text, "***");
    EXPECT_EQ(put("F", M, 4, 1).text, "   .");
    EXPECT_EQ(put("F", vzmissof('B'), 4, 1).text, "   B");
    EXPECT_EQ(put("F", vzmissof('_'), 2).text, " _");

    EXPECT_EQ(put("BEST", M_PI).text, "3.1415926536");
    EXPECT_EQ(put("BEST", 1e-5).text, "     0.00001");
    EXPECT_EQ(put("BEST", 1.234567890123456e-5).text, "1.2345679E-5");
    EXPECT_EQ(put("BEST", 123456789012345.0).text, "1.2345679E14");
    EXPECT_EQ(put("BEST", 123456789012.0).text, "123456789012");
    EXPECT_EQ(put("BEST", 0).text, "           0");
    EXPECT_EQ(put("BEST", -1.5, 4).text, "-1.5");
    EXPECT_EQ(put("BEST", 0.1 + 0.2).text, "         0.3");

    EXPECT_EQ(put("COMMA", 1234567.891, 12, 2).text, "1,234,567.89");
    Out narrow = put("COMMA", 1234567.891, 10, 2);
    EXPECT_EQ(narrow.rc, 2);
    EXPECT_EQ(narrow.text, "1234567.89");
    EXPECT_EQ(put("COMMA", -999, 6).text, "  -999");
    EXPECT_EQ(put("COMMA", -1000, 6).text, "-1,000");
    EXPECT_EQ(put("COMMAX", 1234567.891, 12, 2).text, "1.234.567,89");
    EXPECT_EQ(put("DOLLAR", -1234.5, 10, 2).text, "-$1,234.50");
    EXPECT_EQ(put("DOLLARX", 1234.5, 10, 2).text, " $1.234,50");
    EXPECT_EQ(put("NEGPAREN", -1234, 8).text, " (1,234)");
    EXPECT_EQ(put("NEGPAREN", 1234, 8).text, "  1,234 ");
    EXPECT_EQ(put("NUMX", 3.5, 6, 2).text, "  3,50");
    EXPECT_EQ(put("PERCENT", 0.1234, 8, 1).text, "  12.3% ");
    EXPECT_EQ(put("PERCENT", -0.05, 7).text, "   (5%)");
    EXPECT_EQ(put("E", 1257, 10).text, " 1.257E+03");
    EXPECT_EQ(put("E", -1257, 10).text, "-1.257E+03");
    EXPECT_EQ(put("Z", 3.5, 6, 2).text, "003.50");
    EXPECT_EQ(put("Z", -3.5, 6, 2).text, "-03.50");
    EXPECT_EQ(put("HEX", 255).text, "000000FF");
    EXPECT_EQ(put("HEX", -1, 4).text, "FFFF");
    EXPECT_EQ(put("HEX", 65536, 4).rc, 1);
    EXPECT_EQ(put("HEX", 1.0, 16).text, "3FF0000000000000");
    EXPECT_EQ(put("OCTAL", 8).text, "010");
    EXPECT_EQ(put("BINARY", 5, 4).text, "0101");
    EXPECT_EQ(put("ROMAN", 1994, 8).text, "MCMXCIV ");
    EXPECT_EQ(put("ROMAN", 0).rc, 1);
    EXPECT_EQ(put("SSN", 123456789).text, "123-45-6789");
    EXPECT_EQ(put("PVALUE", 0.00001, 6, 4).text, "<.0001");
    EXPECT_EQ(put("PVALUE", 0.0123, 6, 4).text, "0.0123");
}

TEST(FmtDates, DatesTimesAndDatetimes) {
    EXPECT_EQ(put("DATE", 0, 9).text, "01JAN1960");
    EXPECT_EQ(put("DATE", 0).text, "01JAN60");
    EXPECT_EQ(put("DATE", 0, 11).text, "01-JAN-1960");
    EXPECT_EQ(put("DATE", 0, 5).text, "01JAN");
    EXPECT_EQ(put("DATE", 14669, 9).text, "29FEB2000");
    EXPECT_EQ(put("DATE", -1, 9).text, "31DEC1959");
    EXPECT_EQ(put("DATE", 1e9, 9).rc, 1);
    EXPECT_EQ(put("DATE", 14669.7, 9).text, "29FEB2000");
    EXPECT_EQ(put("MMDDYY", 14669, 10).text, "02/29/2000");
    EXPECT_EQ(put("MMDDYY", 14669).text, "02/29/00");
    EXPECT_EQ(put("MMDDYY", 14669, 6).text, "022900");
    EXPECT_EQ(put("DDMMYYN", 14669, 8).text, "29022000");
    EXPECT_EQ(put("DDMMYYD", 14669, 10).text, "29-02-2000");
    EXPECT_EQ(put("YYMMDD", 14669, 10).text, "2000-02-29");
    EXPECT_EQ(put("YYMMDDP", 14669, 10).text, "2000.02.29");
    EXPECT_EQ(put("MONYY", 14669, 7).text, "FEB2000");
    EXPECT_EQ(put("WEEKDATE", 0).text, "      Friday, January 1, 1960");
    EXPECT_EQ(put("WEEKDATE", 0, 16).text, "Fri, Jan 1, 1960");
    EXPECT_EQ(put("WEEKDATX", 14669).text, "    Tuesday, 29 February 2000");
    EXPECT_EQ(put("WORDDATE", 0).text, "   January 1, 1960");
    EXPECT_EQ(put("WORDDATX", 0, 10).text, "1 Jan 1960");
    EXPECT_EQ(put("JULIAN", 14669, 7).text, "2000060");
    EXPECT_EQ(put("YYQ", 14669).text, "2000Q1");
    EXPECT_EQ(put("DOWNAME", 0).text, "   Friday");
    EXPECT_EQ(put("MONNAME", 14669, 3).text, "Feb");
    EXPECT_EQ(put("QTRR", 14669 + 200).text, "III");
    EXPECT_EQ(put("WEEKDAY", 0).text, "6");
    EXPECT_EQ(put("DTDATE", 14669 * 86400.0 + 5, 9).text, "29FEB2000");
    EXPECT_EQ(put("DTYEAR", -86400.0).text, "1959");

    EXPECT_EQ(put("DATETIME", 3723.5, 18).text, "01JAN1960:01:02:03");
    EXPECT_EQ(put("DATETIME", 3723.5, 20, 1).text, "01JAN1960:01:02:03.5");
    EXPECT_EQ(put("DATETIME", 86399.96, 18).text, "01JAN1960:23:59:59");
    EXPECT_EQ(put("DATETIME", 86399.96, 21, 1).text, " 01JAN1960:23:59:59.9");
    EXPECT_EQ(put("DATETIME", 2.3, 21, 1).text, " 01JAN1960:00:00:02.3");
    EXPECT_EQ(put("DATEAMPM", 13 * 3600.0).text, "01JAN60:01:00:00 PM");
    EXPECT_EQ(put("TIME", 3723).text, " 1:02:03");
    EXPECT_EQ(put("TIME", 100000).text, "27:46:40");
    EXPECT_EQ(put("TIME", -3723).text, "-1:02:03");
    EXPECT_EQ(put("TIME", 3723, 5).text, " 1:02");
    EXPECT_EQ(put("TIME", 59.9996, 12, 3).text, " 0:00:59.999");
    EXPECT_EQ(put("TOD", 3 * 86400.0 + 3723).text, "01:02:03");
    EXPECT_EQ(put("HHMM", 3723).text, " 1:02");
    EXPECT_EQ(put("HOUR", 5400, 4, 1).text, " 1.5");
    EXPECT_EQ(put("MMSS", 3723).text, "62:03");
    EXPECT_EQ(put("TIMEAMPM", 13 * 3600.0).text, " 1:00:00 PM");
    EXPECT_EQ(put("TIMEAMPM", 0).text, "12:00:00 AM");
    EXPECT_EQ(put("E8601DA", 14669).text, "2000-02-29");
    EXPECT_EQ(put("B8601DA", 14669).text, "20000229");
    EXPECT_EQ(put("E8601DT", 3723.5).text, "1960-01-01T01:02:03");
    EXPECT_EQ(put("E8601DT", 3723.5, 21, 1).text, "1960-01-01T01:02:03.5");
    EXPECT_EQ(put("E8601TM", 3723).text, "01:02:03");
}

TEST(FmtCharacter, FormatsOfText) {
    EXPECT_EQ(putc("$", "abcdefg", 5), "abcde");
    EXPECT_EQ(putc("$CHAR", "ab", 4), "ab  ");
    EXPECT_EQ(putc("$HEX", "AB\xff", 6), "4142FF");
    EXPECT_EQ(putc("$HEX", "AB\xff", 5), "4142 ");
    EXPECT_EQ(putc("$UPCASE", "aBc", 3), "ABC");
    EXPECT_EQ(putc("$QUOTE", "a\"b  ", 8), "\"a\"\"b\"  ");
    EXPECT_EQ(putc("$REVERJ", "ab", 5), "   ba");
    EXPECT_EQ(putc("$REVERS", "ab ", 5), "ba   ");
}

TEST(FmtInformats, TextIntoValues) {
    EXPECT_EQ(readv("F", "  12.5"), 12.5);
    EXPECT_EQ(readv("F", "125", 1), 12.5);
    EXPECT_EQ(readv("F", "12.5", 3), 12.5);
    EXPECT_EQ(readv("F", "-1E3"), -1000);
    EXPECT_TRUE(vzismiss(readv("F", "   ")));
    EXPECT_TRUE(vzismiss(readv("F", ".")));
    for (const char* bad : {"abc", "12 3", "inf", "nan", "1e", "--1", "1.2.3"}) {
        Out o = readn("F", bad);
        EXPECT_EQ(o.rc, 1) << bad;
        EXPECT_EQ(o.text, ".") << bad;
    }
    EXPECT_EQ(readv("COMMA", "$1,234.50"), 1234.5);
    EXPECT_EQ(readv("DOLLAR", "(1,000)"), -1000);
    EXPECT_EQ(readv("COMMA", "12%"), 0.12);
    EXPECT_EQ(readv("PERCENT", "12.5"), 0.125);
    EXPECT_EQ(readv("COMMAX", "1.234,5"), 1234.5);
    EXPECT_EQ(readv("HEX", "FF"), 255);
    EXPECT_EQ(readv("HEX", "3FF0000000000000"), 1.0);
    EXPECT_EQ(readn("HEX", "FG").rc, 1);

    EXPECT_EQ(readv("DATE", "01JAN1960"), 0);
    EXPECT_EQ(readv("DATE", "1jan60"), 0);
    EXPECT_EQ(readv("DATE", "29-Feb-2000"), 14669);
    EXPECT_EQ(readn("DATE", "31FEB2000").rc, 1);
    EXPECT_EQ(readn("DATE", "01XYZ2000").rc, 1);
    EXPECT_EQ(readv("DDMMYY", "29/02/2000"), 14669);
    EXPECT_EQ(readv("DDMMYY", "290200"), 14669);
    EXPECT_EQ(readv("MMDDYY", "02-29-00"), 14669);
    EXPECT_EQ(readv("MMDDYY", "2/29/2000"), 14669);
    EXPECT_EQ(readv("YYMMDD", "20000229"), 14669);
    EXPECT_EQ(readv("YYMMDD", "00.02.29"), 14669);
    EXPECT_EQ(readv("MONYY", "feb2000"), 14641);
    EXPECT_EQ(readv("JULIAN", "2000060"), 14669);
    EXPECT_EQ(readv("JULIAN", "00060"), 14669);
    EXPECT_EQ(readv("E8601DA", "2000-02-29"), 14669);
    EXPECT_EQ(readn("E8601DA", "2000/02/29").rc, 1);
    EXPECT_EQ(readv("TIME", "1:02:03.5"), 3723.5);
    EXPECT_EQ(readv("TIME", "2:00 PM"), 50400);
    EXPECT_EQ(readv("TIME", "12:30am"), 1800);
    EXPECT_EQ(readv("TIME", "25:00"), 90000);
    EXPECT_EQ(readn("TIME", "1:60").rc, 1);
    EXPECT_EQ(readn("TIME", "13:00 PM").rc, 1);
    EXPECT_EQ(readv("DATETIME", "01JAN1960:01:02:03"), 3723);
    EXPECT_EQ(readv("DATETIME", "02jan1960 00:00:01.5"), 86401.5);
    EXPECT_EQ(readv("DATETIME", "01OCT1960T00:00"), 274 * 86400.0);

    auto readc = [](const char* name, const std::string& text, int w) {
        std::string buf(static_cast<size_t>(w), '#');
        EXPECT_EQ(xffmt(nullptr, text.data(), static_cast<int>(text.size()), w, 0, buf.data(), w, fcode(name, 'I')), 0);
        return buf;
    };
    EXPECT_EQ(readc("$", "  ab", 4), "ab  ");
    EXPECT_EQ(readc("$", " . ", 3), "   ");
    EXPECT_EQ(readc("$CHAR", "  ab", 4), "  ab");
    EXPECT_EQ(readc("$UPCASE", "ab", 3), "AB ");
}

// What a format prints, its informat reads back.
TEST(FmtInformats, PrintedValuesReadBack) {
    std::mt19937_64 rng(42);
    std::uniform_int_distribution<int> day(-137000, 2900000);
    for (int i = 0; i < 500; i++) {
        double d = day(rng);
        for (auto [f, w] : {std::pair{"DATE", 9}, {"MMDDYY", 10}, {"DDMMYY", 10}, {"YYMMDD", 10}, {"E8601DA", 10}}) {
            Out o = put(f, d, w);
            ASSERT_EQ(o.rc, 0) << f << " " << d;
            EXPECT_EQ(readv(f, o.text), d) << f << " " << o.text;
        }
    }
    std::uniform_real_distribution<double> mant(-10, 10);
    std::uniform_int_distribution<int> exp(-30, 30);
    for (int i = 0; i < 500; i++) {
        double v = mant(rng) * std::pow(10.0, exp(rng));
        Out o = put("BEST", v, 32);
        ASSERT_EQ(o.rc, 0);
        EXPECT_NEAR(readv("F", o.text), v, std::fabs(v) * 1e-14) << o.text;
        Out t = put("TIME", std::fabs(v) < 1e6 ? v : 1, 16, 3);
        EXPECT_EQ(t.rc, 0) << v;
    }
}

TEST(FmtCalls, BadCodesWidthsAndWideKeys) {
    double v = 1;
    char buf[256];
    EXPECT_EQ(xffmt(nullptr, &v, 8, 8, 0, buf, 8, 0), XF_RC_FMTCODE);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 8, 0, buf, 8, 100 + FMT_NROWS), XF_RC_FMTCODE);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 8, 0, buf, 8, 0x80000005L), XF_RC_FMTCODE);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 6, 0, buf, 8, 6), XF_RC_FMTCODE);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 40, 0, buf, 40, FMT_KIND_F), XF_RC_FMTWIDTH);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 4, 4, buf, 8, FMT_KIND_F), XF_RC_FMTWIDTH);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 8, 0, buf, 4, FMT_KIND_F), XF_RC_FMTWIDTH);
    EXPECT_EQ(xffmt(nullptr, &v, 8, 4, 0, nullptr, 4, FMT_KIND_F), XF_RC_BADCALL);
    // A short number holds the high bytes of the double.
    char shortnum[3];
    hscftrc(shortnum, 3, 5.0);
    EXPECT_EQ(xffmt(nullptr, shortnum, 3, 2, 0, buf, 2, FMT_KIND_F), 0);
    EXPECT_EQ(std::string(buf, 2), " 5");
    EXPECT_EQ(xffmt(nullptr, shortnum, 1, 2, 0, buf, 2, FMT_KIND_F), XF_RC_BADCALL);

    // Group keys: a width past the format's own is filled around the
    // default form; a value too wide is starred, not a failure.
    std::string key(128, '#');
    EXPECT_EQ(xfxpn(nullptr, 14669, 128, 0, fcode("DATE"), key.data()), 0);
    EXPECT_EQ(key, std::string(121, ' ') + "29FEB00");
    std::string small(3, '#');
    EXPECT_EQ(xfxpn(nullptr, -1e300, 3, 0, FMT_KIND_F, small.data()), 0);
    EXPECT_EQ(small, "***");
    EXPECT_EQ(xfxpn(nullptr, 1, 8, 0, FMT_KIND_CHAR, small.data()), XF_RC_FMTCODE);
    std::string ckey(10, '#');
    EXPECT_EQ(xfxpc(nullptr, "abc", 3, fcode("$UPCASE"), ckey.data(), 10), 0);
    EXPECT_EQ(ckey, "ABC       ");
    EXPECT_EQ(xfxpc(nullptr, "abc", 3, FMT_KIND_F, ckey.data(), 10), XF_RC_FMTCODE);
    EXPECT_EQ(xfxpn(nullptr, 1, 8, 0, fcode("WORDS"), small.data()), XF_RC_FMTNA);
}

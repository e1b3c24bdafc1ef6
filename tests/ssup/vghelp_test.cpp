// The run-time helpers against values worked out by hand from the number
// forms, and the choice of helper a conversion gets.
#include <gtest/gtest.h>
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>
#include <xmmintrin.h>
#include "ssubs/vz.h"
#include "ssup/vghelp.h"
#include "ssup/wg.h"

using namespace vrta;

namespace {

std::string hex(const void* p, int n) {
    std::string s;
    char b[4];
    for (int i = 0; i < n; i++) {
        snprintf(b, sizeof(b), "%02X", static_cast<const unsigned char*>(p)[i]);
        s += b;
    }
    return s;
}

std::string to(VGHELP f, double v, int dl, long fmt = 0) {
    unsigned char out[8];
    f(&v, 8, out, dl, fmt);
    return hex(out, dl);
}

double from(VGHELP f, const unsigned char* in, int sl, long fmt = 0) {
    double d = 0;
    f(in, sl, &d, 8, fmt);
    return d;
}

uint64_t bits(double d) { return std::bit_cast<uint64_t>(d); }

}  // namespace

TEST(Helpers, StoredNumberFormsOfOtherMachines) {
    // IBM hexadecimal: 1.0 is 0.1 (hex) times 16, -118.625 the classic example.
    EXPECT_EQ("4110000000000000", to(vvgctdbl, 1.0, 8));
    EXPECT_EQ("C276A000", to(vvgctdbl, -118.625, 4));
    const unsigned char ibm[] = {0xC2, 0x76, 0xA0, 0x00};
    EXPECT_EQ(-118.625, from(vvgrtdbl, ibm, 4));
    // Missing values: transport spells them in ASCII, an IBM host in EBCDIC.
    EXPECT_EQ("2E00000000000000", to(vvgctdbl, VZ_MISSING, 8));
    EXPECT_EQ("4B00000000000000", to(vvgcidbl, VZ_MISSING, 8));
    EXPECT_EQ("C100000000000000", to(vvgcidbl, vzmissof('A'), 8));
    EXPECT_EQ("E900000000000000", to(vvgcidbl, vzmissof('Z'), 8));
    EXPECT_EQ("4110000000000000", to(vvgcidbl, 1.0, 8));
    const unsigned char ebc[] = {0xE9, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(bits(vzmissof('Z')), bits(from(vvgridbl, ebc, 8)));
    const unsigned char ebczero[] = {0x80, 0, 0, 0};
    EXPECT_EQ(bits(-0.0), bits(from(vvgridbl, ebczero, 4)));
    // VAX D-floating: 1.0 is 0.1 (binary) times 2, in 16-bit little-endian words.
    EXPECT_EQ("8040000000000000", to(vvgcvdbl, 1.0, 8));
    EXPECT_EQ("20C1000000000000", to(vvgcvdbl, -2.5, 8));
    EXPECT_EQ("0080000000004100", to(vvgcvdbl, vzmissof('A'), 8));
    const unsigned char vax[] = {0x20, 0xC1, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(-2.5, from(vvgrvdbl, vax, 8));
    const unsigned char vaxmiss[] = {0x00, 0x80, 0, 0, 0, 0, 0x41, 0};
    EXPECT_EQ(bits(vzmissof('A')), bits(from(vvgrvdbl, vaxmiss, 8)));
    EXPECT_EQ("FF7FFFFFFFFFFFFF", to(vvgcvdbl, 1e300, 8));  // past the form's range: its largest
    EXPECT_EQ("0000000000000000", to(vvgcvdbl, 1e-300, 8));
    // IEEE of another host: the format says the byte order.
    EXPECT_EQ("3FF8000000000000", to(vvgcedbl, 1.5, 8, WG_FFOREIGN | WG_FBIG));
    EXPECT_EQ("000000000000F83F", to(vvgcedbl, 1.5, 8, WG_FFOREIGN | WG_FLITTLE));
    EXPECT_EQ("3FF8", to(vvgcedbl, 1.5, 2, WG_FFOREIGN | WG_FBIG));
    const unsigned char be[] = {0x40, 0x09, 0x21, 0xFB, 0x54, 0x44, 0x2D, 0x18};
    EXPECT_EQ(M_PI, from(vvgredbl, be, 8, WG_FBIG));
    // Shorter native numbers are the high bytes: 3 bytes of pi.
    unsigned char pi3[3] = {0x21, 0x09, 0x40};
    double p3 = 0;
    vvgcedbl(pi3, 3, &p3, 8, WG_FLITTLE);
    EXPECT_EQ(0x4009210000000000ull, bits(p3));
    // A length no number has leaves the target alone.
    unsigned char keep[10];
    memset(keep, 0x55, sizeof(keep));
    double one = 1.0;
    vvgctdbl(&one, 8, keep, 9, 0);
    vvgrvdbl(vax, 0, keep, 8, 0);
    EXPECT_EQ(std::string(20, '5'), hex(keep, 10));
}

TEST(Helpers, IntegersBetweenByteOrdersAndLengths) {
    unsigned char out[8];
    long v = -2;
    vvgsrtint(&v, 4, out, 2, 0);
    EXPECT_EQ("FFFE", hex(out, 2));
    v = 70000;
    vvgsrtint(&v, 8, out, 2, 0);  // two bytes clip, as on the wire
    EXPECT_EQ("7FFF", hex(out, 2));
    vvgsrtinu(&v, 8, out, 2, 0);
    EXPECT_EQ("1170", hex(out, 2));
    const unsigned char be3[] = {0xFF, 0xFF, 0xFE};
    long r = 0;
    vvgsctint(be3, 3, &r, 8, 0);
    EXPECT_EQ(-2, r);
    vvgsctinu(be3, 3, &r, 8, 0);
    EXPECT_EQ(0xFFFFFE, r);
    short s = -3;
    vvgnbint(&s, 2, &r, 8, 0);
    EXPECT_EQ(-3, r);
    vvgbsinu(&s, 2, &r, 8, 0);
    EXPECT_EQ(0xFFFD, r);
    r = 0x1122334455667788;
    vvgnbint(&r, 8, out, 3, 0);
    EXPECT_EQ("887766", hex(out, 3));
}

TEST(Helpers, CharacterMovesTranslationAndPadding) {
    unsigned char up[256];
    for (int i = 0; i < 256; i++) up[i] = static_cast<unsigned char>(i >= 'a' && i <= 'z' ? i - 32 : i == ' ' ? '_' : i);
    char out[12];
    memset(out, '#', sizeof(out));
    vvgtxxlt("ab c", 4, out, 7, reinterpret_cast<long>(up));
    EXPECT_EQ("AB_C___#", std::string(out, 8));
    vvgtxxlt("abcdef", 6, out, 3, 0);  // no table: bytes as they are, cut
    EXPECT_EQ("abcC___#", std::string(out, 8));
    vvgmvch("xy", 2, out, 5, 0);
    EXPECT_EQ("xy   ", std::string(out, 5));
    vvgmvchar("xy", 2, out, 5, '*');
    EXPECT_EQ("xy***", std::string(out, 5));
    vvgnechup("aBz!", 4, out, 6, 0);
    EXPECT_EQ("ABZ!  ", std::string(out, 6));
    vvgpadb(nullptr, 2, out, 6, '.');
    EXPECT_EQ("AB....", std::string(out, 6));
    vvgpadb(nullptr, 7, out, 6, '-');  // a used length past the end changes nothing
    EXPECT_EQ("AB....", std::string(out, 6));
    vvgexpand(nullptr, 0, out, 4, 'q');
    EXPECT_EQ("qqqq..", std::string(out, 6));
    // Overlapping moves go forward a byte at a time.
    char run[8] = "a......";
    vvgmvch(run, 6, run + 1, 6, 0);
    EXPECT_EQ("aaaaaaa", std::string(run, 7));
    // Numbers: the source's bytes at the high end of a zeroed double.
    const unsigned char three[] = {0x21, 0x09, 0x40};
    unsigned char eight[8];
    vvgmvdbl(three, 3, eight, 8, 0);
    EXPECT_EQ("0000000000210940", hex(eight, 8));
    vvgmvdbl(eight, 8, out, 2, 0);
    EXPECT_EQ("0940", hex(out, 2));
}

TEST(Helpers, CollatableFormsSortAsTheNumbersDo) {
    std::vector<double> v = {vzmissof('_'), VZ_MISSING, vzmissof('A'), vzmissof('Z'), -HUGE_VAL, -1e300, -2.5, -1e-310,
                             -0.0, 0.0, 1e-310, 1.0, 2.5, 1e300, HUGE_VAL};
    std::vector<std::string> asc, desc;
    for (double d : v) {
        unsigned char k[8];
        vvgmvcoll(&d, 8, k, 8, 0);
        asc.push_back(hex(k, 8));
        double back = 0;
        vvgmvdecoll(k, 8, &back, 8, 0);
        EXPECT_EQ(bits(d), bits(back));
        vvgmvcolldesc(&d, 8, k, 8, 0);
        desc.push_back(hex(k, 8));
        vvgmvdecolldesc(k, 8, &back, 8, 0);
        EXPECT_EQ(bits(d), bits(back));
    }
    EXPECT_TRUE(std::is_sorted(asc.begin(), asc.end()));
    EXPECT_TRUE(std::adjacent_find(asc.begin(), asc.end()) == asc.end());
    EXPECT_TRUE(std::is_sorted(desc.rbegin(), desc.rend()));
    // An area for a descending key: its bytes turned round, blanks too.
    unsigned char a[4];
    vvgmvcollarea("AB", 2, a, 4, 1);
    EXPECT_EQ("BEBDDFDF", hex(a, 4));
}

TEST(Helpers, StringsVectorsAndText) {
    char buf[10];
    memset(buf, '.', sizeof(buf));
    long used = vvgcatf("ab  ", 4, buf, 8, 0);
    used = vvgcatv("cd  ", 4, buf, 8, used);
    EXPECT_EQ(6, used);
    EXPECT_EQ("ab  cd..", std::string(buf, 8));
    EXPECT_EQ(8, vvgcatf("xyz", 3, buf, 8, used));  // cut at the end
    EXPECT_EQ(-1, vvgcatf("xyz", 3, buf, 8, -1));   // a used length outside the area: nothing
    char ab[] = "ab";
    EXPECT_EQ(0, vvgcmps("ab  ", 4, ab, 2, 0));
    EXPECT_EQ(-1, vvgcmps("ab", 2, const_cast<char*>("ab!"), 3, 0));
    unsigned char rev[256];
    for (int i = 0; i < 256; i++) rev[i] = static_cast<unsigned char>(255 - i);
    EXPECT_EQ(1, vvgcmpst("ab", 2, const_cast<char*>("ab!"), 3, reinterpret_cast<long>(rev)));
    char keep[4] = {'b', 'b', 'b', 'b'};
    vvgmaxv("c", 1, keep, 4, 0);
    EXPECT_EQ("c   ", std::string(keep, 4));
    vvgminv("c   a", 5, keep, 4, 0);  // "c   " + "a" is larger than "c   " padded
    EXPECT_EQ("c   ", std::string(keep, 4));

    const double v[] = {0.0, VZ_MISSING, -3.0, 7.5, vzmissof('B')};
    EXPECT_EQ(0, vvgandr(v + 2, 3, nullptr, 0, 0));
    EXPECT_EQ(1, vvgandr(v + 2, 2, nullptr, 0, 0));
    EXPECT_EQ(1, vvgorr(v, 3, nullptr, 0, 0));
    EXPECT_EQ(1, vvgandrn(v, 2, nullptr, 0, 0));  // zero and missing are both false
    EXPECT_EQ(0, vvgorrn(v + 2, 2, nullptr, 0, 0));
    EXPECT_EQ(-3.0, vvgminr(v, 5, nullptr, 0, 0));
    EXPECT_EQ(7.5, vvgmaxr(v, 5, nullptr, 0, 0));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgmaxr(v + 1, 1, nullptr, 0, 0)));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgminr(v, 0, nullptr, 0, 0)));
    EXPECT_EQ(-1, vvgcmpr(v, 2, const_cast<double*>(v), 3, 0));
    EXPECT_EQ(1, vvgcmpr(v, 1, const_cast<double*>(v + 1), 1, 0));  // a missing value is below every number

    char text[8];
    double x = 1.5;
    vvgn2t(reinterpret_cast<void*>(std::bit_cast<long>(x)), 8, text, 6, 0);
    EXPECT_EQ("   1.5", std::string(text, 6));
    x = vzmissof('A');
    vvgn2t(reinterpret_cast<void*>(std::bit_cast<long>(x)), 8, text, 3, 0);
    EXPECT_EQ("  A", std::string(text, 3));
    x = -123456.0;
    vvgn2t(reinterpret_cast<void*>(std::bit_cast<long>(x)), 8, text, 4, 0);
    EXPECT_EQ("****", std::string(text, 4));
    x = 2.0 / 3.0;
    vvgn2t(reinterpret_cast<void*>(std::bit_cast<long>(x)), 8, text, 5, 0);
    EXPECT_EQ("0.667", std::string(text, 5));
    EXPECT_EQ(12.5, vvgt2n("  12.5 ", 7, nullptr, 0, 0));
    EXPECT_EQ(-300.0, vvgt2n("-3e2", 4, nullptr, 0, 0));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgt2n("   ", 3, nullptr, 0, 0)));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgt2n(" . ", 3, nullptr, 0, 0)));
    EXPECT_EQ(bits(vzmissof('Q')), bits(vvgt2n("Q", 1, nullptr, 0, 0)));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgt2n("12x", 3, nullptr, 0, 0)));
    EXPECT_EQ(bits(VZ_MISSING), bits(vvgt2n("1e999", 5, nullptr, 0, 0)));
}

TEST(Helpers, ArithmeticThatGivesMissingValuesAndNeverTraps) {
    // Generated code calls these with invalid, divide-by-zero and overflow
    // traps armed: none of them may set one off.
    unsigned saved = _mm_getcsr();
    _mm_setcsr(0x1900);
    double snan = std::bit_cast<double>(0x7FF0000000000001ull);
    double r1 = vvgdiv(1.0, 0.0), r2 = vvgdiv(1e308, 1e-308), r3 = vvgdiv(vzmissof('C'), 0.0), r4 = vvgdiv(snan, 2.0);
    double r5 = vvgmodr(7.5, 2.0), r6 = vvgmodr(1.0, 0.0), r7 = vvgmodr(HUGE_VAL, 2.0);
    long c1 = vvgcvlr(2.5), c2 = vvgcvlr(3.5), c3 = vvgcvlr(snan), c4 = vvgcvlr(1e19), c5 = vvgcvlr(VZ_MISSING);
    unsigned char out[8];
    vvgctdbl(&snan, 8, out, 8, 0);
    vvgcvdbl(&snan, 8, out, 8, 0);
    char text[8];
    vvgn2t(reinterpret_cast<void*>(std::bit_cast<long>(1e308)), 8, text, 8, 0);
    double t1 = vvgt2n("1e400", 5, nullptr, 0, 0);
    _mm_setcsr(saved);
    EXPECT_EQ(bits(VZ_MISSING), bits(r1));
    EXPECT_EQ(bits(VZ_MISSING), bits(r2));
    EXPECT_EQ(bits(vzmissof('C')), bits(r3));
    EXPECT_EQ(bits(VZ_MISSING), bits(r4));
    EXPECT_EQ(1.5, r5);
    EXPECT_EQ(bits(VZ_MISSING), bits(r6));
    EXPECT_EQ(bits(VZ_MISSING), bits(r7));
    EXPECT_EQ(2, c1);  // halves go to the even neighbour
    EXPECT_EQ(4, c2);
    EXPECT_EQ(INT64_MIN, c3);
    EXPECT_EQ(INT64_MIN, c4);
    EXPECT_EQ(INT64_MIN, c5);
    EXPECT_EQ(bits(VZ_MISSING), bits(t1));
}

TEST(Helpers, EachConversionGetsItsHelper) {
    const long N = WG_FNATIVE, F = WG_FFOREIGN;
    EXPECT_EQ(vvgctdbl, vgtranshelper(WG_TDBL, N, WG_FXPORT, 0));
    EXPECT_EQ(vvgridbl, vgtranshelper(WG_TDBL, WG_FIBM, N, 0));
    EXPECT_EQ(vvgcvdbl, vgtranshelper(WG_TDBL, N, WG_FVAX | F, 0));
    EXPECT_EQ(vvgredbl, vgtranshelper(WG_TDBL, F | WG_FBIG, N, 0));
    EXPECT_EQ(nullptr, vgtranshelper(WG_TDBL, N, N, 0));
    EXPECT_EQ(nullptr, vgtranshelper(WG_TDBL, F, F | WG_FBIG, 0));
    EXPECT_EQ(vvgbsint, vgtranshelper(WG_TINTCV, N, F | WG_FLITTLE, 0));
    EXPECT_EQ(vvgbsinu, vgtranshelper(WG_TINTCV, F | WG_FLITTLE, N, WG_MUNSIGNED));
    EXPECT_EQ(vvgsrtint, vgtranshelper(WG_TINTCV, N, F | WG_FBIG, 0));
    EXPECT_EQ(vvgsctinu, vgtranshelper(WG_TINTCV, F | WG_FBIG, N, WG_MUNSIGNED));
    EXPECT_EQ(vvgnbint, vgtranshelper(WG_TINTCV, N, N, 0));
    EXPECT_EQ(nullptr, vgtranshelper(WG_TINTCV, F, F, 0));
    EXPECT_EQ(vvgtxxlt, vgtranshelper(WG_TCHAR, 0, 0, 0));
}

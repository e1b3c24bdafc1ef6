#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "testutil.h"

using namespace vrta;

namespace {

// Points VRTA_NLSPATH at a directory for one test and restores it after.
class NlsPath {
public:
    explicit NlsPath(const std::string& value) {
        const char* old = std::getenv("VRTA_NLSPATH");
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv("VRTA_NLSPATH", value.c_str(), 1);
    }
    ~NlsPath() {
        if (had_) setenv("VRTA_NLSPATH", old_.c_str(), 1);
        else unsetenv("VRTA_NLSPATH");
    }
private:
    bool had_ = false;
    std::string old_;
};

std::string byteTable(const char* name, int count, int shift) {
    std::string s = std::string(name) + ": 256\n";
    for (int i = 0; i < count; ++i) s += std::to_string((i + shift) & 0xff) + ((i % 16 == 15) ? "\n" : " ");
    return s + "\n";
}

}  // namespace

TEST(Nls, SameEncodingAndLocaleShareOneCountedEnvironment) {
    HS_NLSENV* a = nullptr;
    HS_NLSENV* b = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_UTF8, "en_US   ", -1, 0, &a));
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_UTF8, "en_US", 5, 0, &b));
    EXPECT_EQ(a, b);
    EXPECT_EQ(2, hsnlsrefcount(a));
    EXPECT_EQ(5, a->locale_l);
    HS_NLSENV* c = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_LATIN1, "en_US", 5, 0, &c));
    EXPECT_NE(a, c);
    EXPECT_FALSE(hsnlsissame(a, c));
    // Equal encodings never need transcoding, whatever the option says.
    EXPECT_FALSE(hsnlstpneeded(a, b));
    EXPECT_FALSE(hsnlstpneeded(a, nullptr));
    EXPECT_EQ(0, nls_release(b));
    EXPECT_EQ(1, hsnlsrefcount(a));
    EXPECT_EQ(0, nls_release(a));
    EXPECT_EQ(0, nls_release(c));
    HS_NLSENV* bad = nullptr;
    EXPECT_EQ(NLS_RC_BADCEI, hsnlsgetenv(9999, nullptr, 0, 0, &bad));
    EXPECT_EQ(nullptr, bad);
    EXPECT_EQ(NLS_RC_BADLOCALE, hsnlsgetenv(NLS_CEI_UTF8, "en US;x", 7, 0, &bad));
}

TEST(Nls, FamiliesCompareCaseAndPadAsTheirEncodingDemands) {
    HS_NLSENV* ascii = nullptr;
    HS_NLSENV* latin = nullptr;
    HS_NLSENV* utf8 = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_ASCII, nullptr, 0, 0, &ascii));
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_LATIN1, nullptr, 0, 0, &latin));
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_UTF8, nullptr, 0, 0, &utf8));

    // Blank padding: "ab" equals "ab  ", and "ab" sorts before "ab!" but after "ab\x01".
    EXPECT_EQ(0, ascii->nls_strcom(ascii, "ab", 2, "ab  ", 4));
    EXPECT_LT(ascii->nls_strcom(ascii, "ab", 2, "ab!", 3), 0);
    EXPECT_GT(ascii->nls_strcom(ascii, "ab", 2, "ab\x01", 3), 0);
    EXPECT_EQ(1, ascii->nls_streq(ascii, "x ", 2, "x", 1));
    EXPECT_EQ(0, ascii->nls_casecmp(ascii, "HeLLo", 5, "hello   ", 8));

    // Latin-1 upper case of e-acute is E-acute, a byte ASCII leaves alone.
    char out[4];
    latin->nls_upcase(latin, out, "\xe9z", 2);
    EXPECT_EQ(std::string("\xc9Z"), std::string(out, 2));
    ascii->nls_upcase(ascii, out, "\xe9z", 2);
    EXPECT_EQ(std::string("\xe9Z"), std::string(out, 2));

    // UTF-8 case mapping works on characters, not bytes.
    char u[8];
    utf8->nls_upcase(utf8, u, "\xc3\xa9t\xc3\xa9", 5);
    EXPECT_EQ(std::string("\xc3\x89T\xc3\x89"), std::string(u, 5));
    EXPECT_EQ(0, utf8->nls_casecmp(utf8, "\xc3\x89T\xc3\x89", 5, "\xc3\xa9t\xc3\xa9", 5));

    char fill[3];
    latin->nls_fillstr(latin, fill, 3, 1);
    EXPECT_EQ(std::string(3, '\0'), std::string(fill, 3));
    latin->nls_blankfill(latin, fill, 3);
    EXPECT_EQ(1, latin->nls_missing(latin, fill, 3));
    EXPECT_EQ(0, nls_release(ascii));
    EXPECT_EQ(0, nls_release(latin));
    EXPECT_EQ(0, nls_release(utf8));
}

TEST(Nls, MultiByteEnvironmentComparesCodePoints) {
    HS_NLSENV* sjis = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(40, "ja_JP", 5, 0, &sjis));
    EXPECT_EQ(2, sjis->maxbyteschar);
    // Shift-JIS "A" (0x41) and full-width A (0x82 0x60): code points 0x41 < 0xFF21.
    EXPECT_LT(sjis->nls_strcoll(sjis, "A", 1, "\x82\x60", 2), 0);
    EXPECT_EQ(1, sjis->nls_streq(sjis, "ab", 2, "ab ", 3));
    void* sm = nullptr;
    EXPECT_EQ(0, sjis->nls_getsm(sjis, &sm));
    EXPECT_NE(nullptr, sm);
    EXPECT_EQ(0, nls_release(sjis));
}

TEST(Nls, TranscoderReportsLossAndShortBuffers) {
    NLS_PIPE* p = nullptr;
    ASSERT_EQ(0, hsnlstpopen(NLS_CEI_LATIN1, NLS_CEI_UTF8, &p));
    ASSERT_NE(nullptr, p);
    char out[16];
    long n = 0;
    EXPECT_EQ(0, hsnlstpconv(p, "caf\xe9", 4, out, sizeof out, &n));
    EXPECT_EQ(std::string("caf\xc3\xa9"), std::string(out, static_cast<size_t>(n)));
    EXPECT_EQ(NLS_RC_TRANSCODE, hsnlstpconv(p, "caf\xe9", 4, out, 4, &n));
    EXPECT_LE(n, 4);
    EXPECT_GE(hsnlstplongest(p, 4), 8);
    hsnlstpclose(p);

    ASSERT_EQ(0, hsnlstpopen(NLS_CEI_UTF8, NLS_CEI_ASCII, &p));
    EXPECT_EQ(NLS_RC_TRANSCODE, hsnlstpconv(p, "\xc3\xa9", 2, out, sizeof out, &n));
    hsnlstpclose(p);

    // The same encoding needs no pipeline at all.
    ASSERT_EQ(0, hsnlstpopen(NLS_CEI_UTF8, NLS_CEI_UTF8, &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(NLS_RC_BADCEI, hsnlstpopen(NLS_CEI_UTF8, 12345, &p));
}

TEST(Nls, TableFilesAreReadAndTheirFaultsReported) {
    vrtatest::TempDir dir;
    std::filesystem::create_directories(dir.file("CEI_29"));
    // A case file that maps every byte to byte + 1 going up and byte - 1 going down.
    vrtatest::writeFile(dir.file("CEI_29/xx_YY.case"), byteTable("TO_UPPER", 256, 1) + byteTable("to_lower", 256, -1 + 256));
    vrtatest::writeFile(dir.file("CEI_29/xx_YY.sort"), byteTable("SORTSEQ", 256, 0));
    vrtatest::writeFile(dir.file("CEI_29/up_ONLY.case"), byteTable("TO_UPPER", 256, 0));
    vrtatest::writeFile(dir.file("CEI_29/short_TAB.case"), byteTable("TO_UPPER", 255, 0));
    vrtatest::writeFile(dir.file("CEI_29/bad_COUNT.case"), "TO_UPPER: 255\n1 2 3\n");
    vrtatest::writeFile(dir.file("CEI_29/big_VAL.case"), "TO_UPPER: 256\n300\n");
    unsigned char lc[256], uc[256];
    {
        NlsPath np("/nonexistent/dir:" + dir.path());
        ASSERT_EQ(0, hsnlsldlcuc(hsnlsgcb(), 29, "xx_YY", 5, lc, uc));
        EXPECT_EQ('b', uc['a']);
        EXPECT_EQ('`', lc['a']);
        EXPECT_EQ(NLS_RC_BADTABLES, hsnlsldlcuc(hsnlsgcb(), 29, "up_ONLY", 7, lc, uc));
        EXPECT_EQ(NLS_RC_BADBYTETAB, hsnlsldlcuc(hsnlsgcb(), 29, "short_TAB", 9, lc, uc));
        EXPECT_EQ(NLS_RC_BADBYTETAB, hsnlsldlcuc(hsnlsgcb(), 29, "bad_COUNT", 9, lc, uc));
        EXPECT_EQ(NLS_RC_BADBYTETAB, hsnlsldlcuc(hsnlsgcb(), 29, "big_VAL", 7, lc, uc));
        // No file at all: the built-in tables of the encoding.
        ASSERT_EQ(0, hsnlsldlcuc(hsnlsgcb(), 29, "none", 4, lc, uc));
        EXPECT_EQ(0xc9, uc[0xe9]);

        HS_NLSENV* env = nullptr;
        ASSERT_EQ(0, hsnlsgetenv(29, "xx_YY", 5, 0, &env));
        char out[2];
        env->nls_upcase(env, out, "ab", 2);
        EXPECT_EQ(std::string("bc"), std::string(out, 2));
        EXPECT_EQ(0, nls_release(env));
    }
    {
        NlsPath np(dir.path() + "::/tmp");
        EXPECT_EQ(NLS_RC_BADPATH, hsnlsldlcuc(hsnlsgcb(), 29, "xx_YY", 5, lc, uc));
    }
}

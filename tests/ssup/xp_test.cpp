#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ssup/vv.h"
#include "ssup/xp.h"
#include "testutil.h"

using namespace vrta;

namespace {

struct Line {
    int type;
    std::string text;
};

void sink(void* data, int type, const char* buf, int len) {
    static_cast<std::vector<Line>*>(data)->push_back({type, std::string(buf, len)});
}

// The printer with a sink that collects lines, its own message files, and
// every setting the tests touch put back afterwards.
class Printer : public ::testing::Test {
protected:
    void SetUp() override {
        g_ = xpgcb();
        saved_ = *g_;
        savedLog_ = g_->task.llinestr;
        xpsetpm(sink, &lines_);
        const char* old = getenv("MSGPATH");
        hadOld_ = old != nullptr;
        if (old) old_ = old;
        vrtatest::writeFile(dir_.file("vrtamsg.m"),
                            "#437 %1zFile %s not found.\n"
                            "#406 %2zEnd of file.\n");
        vrtatest::writeFile(dir_.file("wglobal.m"),
                            "#5 Internal failure: %s and %s.\n"
                            "#7 Plain seven.\n"
                            "#8 Count %d of %s\n");
        vrtatest::writeFile(dir_.file("engmsg.m"), "#79 %1zLost connection to %s.\n");
        setenv("MSGPATH", dir_.path().c_str(), 1);
        xkreset();
        testing::internal::CaptureStdout();  // the loader names the absent files
        xkinit();
        testing::internal::GetCapturedStdout();
    }
    void TearDown() override {
        g_->task.llinestr.linesize = savedLog_.linesize;
        g_->task.mlinestr.linesize = saved_.task.mlinestr.linesize;
        g_->notes = saved_.notes;
        g_->pmfp = saved_.pmfp;
        g_->pmdata = saved_.pmdata;
        g_->clinestr = saved_.clinestr;
        g_->lssp = saved_.lssp;
        xrholds(0);
        if (hadOld_) setenv("MSGPATH", old_.c_str(), 1);
        else unsetenv("MSGPATH");
        xkreset();
    }
    static std::string fmt(const char* format, ...) {
        char buf[512];
        memset(buf, '#', sizeof buf);
        va_list ap;
        va_start(ap, format);
        // Goes through the same road as xpsstr.
        YPGCBSTR* g = xpgcb();
        LINESTR ls{};
        ls.linesize = 400;
        ls.lmargin = 1;
        ls.type = 'd';
        ls.dest = XP_DEST_STR;
        ls.outalen = 402;
        std::vector<char> out(402, ' ');
        ls.out = out.data();
        LINESTR* saved = g->clinestr;
        g->clinestr = &ls;
        xpsfi(g, format, -1, &ap);
        g->clinestr = saved;
        va_end(ap);
        return std::string(out.data() + 1, ls.colnum);
    }

    YPGCBSTR* g_ = nullptr;
    YPGCBSTR saved_{};
    LINESTR savedLog_{};
    std::vector<Line> lines_;
    vrtatest::TempDir dir_;
    bool hadOld_ = false;
    std::string old_;
};

TEST_F(Printer, NumbersStringsAndNames) {
    int v = 42;
    long big = 1234567890123L;
    EXPECT_EQ("42|   42|42|-7|1234567890123|0042", fmt("%d|%5d|%-5d|%i|%ld|%.4d", 42, 42, 42, -7, big, 42));
    EXPECT_EQ("42 9", fmt("%@d %*d", &v, 1, 9));
    EXPECT_EQ("-9223372036854775807", fmt("%l", -9223372036854775807LL));
    // l before a letter is a length; alone it is the 64-bit directive.
    EXPECT_EQ("5|2.50|ab|0000000000000007|9", fmt("%lld|%lf|%ls|%lx|%l", 5LL, 2.5, "ab", 7L, 9LL));
    EXPECT_EQ("ab|   ab|ab   |ab|", fmt("%s|%5s|%-5s|%.2s|%s", "ab", "ab", "ab", "abcdef", ""));
    // A blank-padded name: up to the first blank; with a negative width the
    // inner blank stays and only the trailing ones go.
    EXPECT_EQ("AB|AB CD|XY|LONGNAME", fmt("%8b|%-8b|%b|%8b", "AB CD   ", "AB CD   ", "XY", "LONGNAMEandmore"));
    EXPECT_EQ("000000ff|0000000000abcdef|000000FF|00ff", fmt("%x|%lx|%X|%4x", 255, 0xabcdefL, 255, 255));
    EXPECT_EQ("01FF7F", fmt("%3o", "\x01\xff\x7f"));
    EXPECT_EQ("A|%|x", fmt("%c|%%|%/why not/c", 'A', 'x'));
    EXPECT_EQ("LIB.MEMBER.DATA", fmt("%y", ("LIB     MEMBER" + std::string(58, ' ') + "DATA    ").c_str()));
    EXPECT_EQ("LIB", fmt("%y", ("LIB     " + std::string(72, ' ')).c_str()));
}

TEST_F(Printer, DoublesAndMissingValues) {
    EXPECT_EQ("3.14|3.142|0.1|2.50e+00|  1.50", fmt("%f|%.3f|%g|%.2e|%6f", 3.14159, 3.14159, 0.1, 2.5, 1.5));
    double missing;
    uint64_t bits = 0xffff2e0000000000ull;
    memcpy(&missing, &bits, sizeof missing);
    EXPECT_EQ(".", fmt("%f", missing));
}

TEST_F(Printer, SourcePositions) {
    EXPECT_EQ("<no line/column information available>", fmt("%q", 0L));
    EXPECT_EQ("1     :1  ", fmt("%q", 257L));
    EXPECT_EQ("3     :255", fmt("%1q", 3L * 256 + 255));
    EXPECT_EQ("line 1      column 2  ", fmt("%2q", 258L));
}

TEST_F(Printer, TabsMoveTheColumnAndNeverLoseText) {
    EXPECT_EQ("ab  c", fmt("ab%tc"));         // next multiple of four plus one
    EXPECT_EQ("abcd    e", fmt("abcd%te"));
    EXPECT_EQ("ab       X", fmt("ab%10tX"));  // absolute column 10
    EXPECT_EQ("ab   c", fmt("ab%+3tc"));      // relative
    // Back over text: what lies behind the new position is not lost.
    EXPECT_EQ("aXcdef", fmt("abcdef%2tX"));
    int stops[] = {7, 12, 0};
    LINESTR& ls = g_->task.llinestr;
    int* old = ls.tabptr;
    ls.tabptr = stops;
    xpslog("a%tb%tc%td");
    ls.tabptr = old;
    ASSERT_EQ(1u, lines_.size());
    EXPECT_EQ("a     b    c    d", lines_[0].text);
}

TEST_F(Printer, PrefixesTypesAndHangingIndent) {
    EXPECT_EQ("VRTA_ERROR: a|VRTA_WARNING: b|VRTA_NOTE: c|VRTA_FATAL: d", fmt("%1za|%2zb|%3zc|%4zd"));
    EXPECT_EQ("VRTA_ERROR: x", fmt("%zx"));
    EXPECT_EQ(std::string(12, ' ') + "moved", fmt("%-1zmoved"));
    EXPECT_EQ("typed only", fmt("%1.0ztyped only"));

    xpslog("%2zcareful");
    xpslog("plain");
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ('w', lines_[0].type);
    EXPECT_EQ("VRTA_WARNING: careful", lines_[0].text);
    EXPECT_EQ('d', lines_[1].type);  // the type belongs to the line that set it
    lines_.clear();

    // Wrapped text continues under the text, not under the prefix.
    g_->task.llinestr.linesize = 20;
    const std::string words = "the quick brown fox jumps over the lazy dog";
    xpslog("%1z%s", words.c_str());
    ASSERT_GE(lines_.size(), 4u);
    EXPECT_EQ("VRTA_ERROR: the", lines_[0].text);
    std::string joined = lines_[0].text.substr(12);
    for (size_t i = 1; i < lines_.size(); ++i) {
        const std::string& t = lines_[i].text;
        EXPECT_LE(t.size(), 20u) << t;
        ASSERT_GT(t.size(), 12u);
        EXPECT_EQ(std::string(12, ' '), t.substr(0, 12)) << t;
        EXPECT_NE(' ', t[12]) << t;
        EXPECT_EQ('e', lines_[i].type);
        joined += " " + t.substr(12);
    }
    EXPECT_EQ(words, joined);
    lines_.clear();

    // %m sets the hanging indent anywhere in the line.
    xpslog("key:%m aaaa bbbb cccc dddd eeee");
    ASSERT_GE(lines_.size(), 2u);
    EXPECT_EQ("key: aaaa bbbb cccc", lines_[0].text);
    EXPECT_EQ("    dddd eeee", lines_[1].text);
}

TEST_F(Printer, CenteringAndLineTypesLastOneLine) {
    g_->task.llinestr.linesize = 20;
    xpslog("%ahello");
    xpslog("%7hx");
    xpslog("%hy");
    xpslog("z");
    ASSERT_EQ(4u, lines_.size());
    EXPECT_EQ("       hello", lines_[0].text);
    EXPECT_EQ("x", lines_[1].text);
    EXPECT_EQ('w', lines_[1].type);
    EXPECT_EQ('h', lines_[2].type);
    EXPECT_EQ('d', lines_[3].type);
}

TEST_F(Printer, SplitMarksAndWordsWithoutBlanks) {
    g_->task.llinestr.linesize = 20;
    xpslog("aaaaaaaaaa%Wbbbbbbbbbbbbbbb");
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("aaaaaaaaaa", lines_[0].text);
    EXPECT_EQ("bbbbbbbbbbbbbbb", lines_[1].text);
    lines_.clear();

    // No blank and no mark: cut at the line size, nothing lost.
    std::string s(45, 'z');
    xpslog("%s", s.c_str());
    ASSERT_EQ(3u, lines_.size());
    EXPECT_EQ(20u, lines_[0].text.size());
    EXPECT_EQ(20u, lines_[1].text.size());
    EXPECT_EQ(5u, lines_[2].text.size());
    lines_.clear();

    // A directive's text that fits the next line is not broken up.
    xpslog("0123456789ab %s", "ABCDEFGHIJ");
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("0123456789ab", lines_[0].text);
    EXPECT_EQ("ABCDEFGHIJ", lines_[1].text);
    lines_.clear();

    // %n: one, three, and one that keeps the column.
    g_->task.llinestr.linesize = 256;
    xpslog("one%ntwo%3nthree%-1nfour");
    ASSERT_EQ(6u, lines_.size());
    EXPECT_EQ("one", lines_[0].text);
    EXPECT_EQ("two", lines_[1].text);
    EXPECT_EQ("", lines_[2].text);
    EXPECT_EQ("", lines_[3].text);
    EXPECT_EQ("three", lines_[4].text);
    EXPECT_EQ("     four", lines_[5].text);
}

TEST_F(Printer, NotesOffDropsNoteLinesOnTheLogOnly) {
    g_->notes = 0;
    xpslog("%-3zhidden note");
    xpslog("shown");
    ASSERT_EQ(1u, lines_.size());
    EXPECT_EQ("shown", lines_[0].text);
    lines_.clear();
    xpdest(-3);
    xpsout("%-3zon the message line");
    xpdest(0);
    ASSERT_EQ(1u, lines_.size());
    EXPECT_EQ(std::string(11, ' ') + "on the message line", lines_[0].text);
    EXPECT_EQ('n', lines_[0].type);
}

TEST_F(Printer, DestinationStack) {
    EXPECT_EQ(1, xpdest(100));
    EXPECT_EQ(1, xpdest(-3));
    EXPECT_EQ(3, xpdest(100));
    xps("pending ");  // stays on the message line while the log is used
    EXPECT_EQ(3, xpdest(-1));
    xpsout("to the log");
    EXPECT_EQ(3, xpdest(0));  // the line popped back
    EXPECT_EQ(3, xpdest(100));
    xpsout("text");
    EXPECT_EQ(1, xpdest(0));
    EXPECT_EQ(1, xpdest(100));
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("to the log", lines_[0].text);
    EXPECT_EQ("pending text", lines_[1].text);
    // Ten deep at most: the eleventh push changes nothing.
    for (int i = 0; i < XP_STACK; ++i) xpdest(i % 2 ? -1 : -3);
    EXPECT_EQ(1, xpdest(100));
    xpdest(-3);
    EXPECT_EQ(1, xpdest(100));
    for (int i = 0; i < XP_STACK; ++i) xpdest(0);
    EXPECT_EQ(1, xpdest(100));
    EXPECT_EQ(1, xpdest(0));  // popping an empty stack keeps the line
}

TEST_F(Printer, ReturnCodesWithSubstitutions) {
    char buf[80];
    ASSERT_EQ(0, xrmksub(2, "alpha", 5, "beta", -1));
    int n = xprstr(buf, static_cast<rctype>(0x80010005u), sizeof buf);
    EXPECT_EQ("VRTA_ERROR: Internal failure: alpha and beta.", std::string(buf, n));
    EXPECT_EQ(' ', buf[sizeof buf - 1]);  // blank padded
    // The substitutions were used up.
    n = xprstr(buf, static_cast<rctype>(0x80010005u), sizeof buf);
    EXPECT_EQ("VRTA_ERROR: Internal failure:  and .", std::string(buf, n));
    n = xprstr(buf, 0x00010007, sizeof buf);
    EXPECT_EQ("VRTA_WARNING: Plain seven.", std::string(buf, n));
    n = xprstr(buf, 0x20010007, sizeof buf);
    EXPECT_EQ("VRTA_NOTE: Plain seven.", std::string(buf, n));
    // Group 0 numbers count 200 per high byte and carry their own prefix.
    xrmksub(1, "t.mdf", 5);
    n = xprstr(buf, static_cast<rctype>(0x80000225u), sizeof buf);
    EXPECT_EQ("VRTA_ERROR: File t.mdf not found.", std::string(buf, n));
    n = xprstr(buf, 518, sizeof buf);
    EXPECT_EQ("VRTA_WARNING: End of file.", std::string(buf, n));
    // A literal text code prints its first substitution as it is.
    xrmksub(1, "100% literal %d", -1);
    n = xprstr(buf, static_cast<rctype>(0xC0000000u), sizeof buf);
    EXPECT_EQ("100% literal %d", std::string(buf, n));
    // Cut at the caller's length.
    char small[10];
    EXPECT_EQ(10, xprstr(small, static_cast<rctype>(0x80010007u), sizeof small));
    EXPECT_EQ("VRTA_ERROR", std::string(small, 10));

    xprelog(nullptr, nullptr, static_cast<rctype>(0x80010007u));
    xprlog(0);
    xprlog(static_cast<rctype>(0x80010063u));  // no such message: the prefix alone
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("VRTA_ERROR 7-1: Plain seven.", lines_[0].text);
    EXPECT_EQ("VRTA_ERROR:", lines_[1].text);
    n = xprstr(buf, static_cast<rctype>(0x00010063u), sizeof buf);
    EXPECT_EQ("VRTA_WARNING: ", std::string(buf, n));
    EXPECT_EQ(0, xprstr(buf, static_cast<rctype>(0x80000299u), sizeof buf));  // group 0 has no prefix
}

TEST_F(Printer, NumberedMessages) {
    char buf[64];
    memset(buf, '#', sizeof buf);
    int n = xpmstr(buf, sizeof buf, 1, 8, 3, "ten");
    EXPECT_EQ("Count 3 of ten", std::string(buf, n));
    EXPECT_EQ('#', buf[n]);  // no terminator added
    EXPECT_EQ(0, xpmstr(buf, sizeof buf, 1, 99));
    n = xpsstr(buf, 5, "%s", "truncated");
    EXPECT_EQ(5, n);
    EXPECT_EQ("trunc", std::string(buf, 5));
    xpmlog(2, 79, "host1");
    xpmlog(1, 99);
    xpmout(1, 99);  // a failed lookup writes nothing here
    ASSERT_EQ(2u, lines_.size());
    EXPECT_EQ("VRTA_ERROR: Lost connection to host1.", lines_[0].text);
    EXPECT_EQ('e', lines_[0].type);
    EXPECT_EQ("***BAD MESSAGE NUMBER*** (message 99-1)", lines_[1].text);
    lines_.clear();
    xpmelog(nullptr, nullptr, 2, 79, "host2");
    ASSERT_EQ(1u, lines_.size());
    EXPECT_EQ("VRTA_ERROR 79-2: Lost connection to host2.", lines_[0].text);
}

TEST_F(Printer, SubstitutionBufferHoldGrowthAndEnd) {
    const char* p;
    int len;
    ASSERT_EQ(0, xrmksub(1, "first", 5));
    xrholds(1);
    EXPECT_EQ(0, xrmksub(1, "second", 6));  // kept out while held
    xrholds(7);                              // ignored: still held
    EXPECT_EQ(0, xrmksub(1, "third", 5));
    xrholds(0);
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ("first", std::string(p, len));
    EXPECT_EQ(XR_RC_NOMORE, xrgtsub(&p, &len));

    std::string big(3000, 'q');
    big[1234] = 'X';
    ASSERT_EQ(0, xrmksub(3, big.c_str(), 3000, "", 0, "abc", 3));
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ(big, std::string(p, len));
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ(0, len);
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ("abc", std::string(p, len));
    EXPECT_EQ(XR_RC_NOMORE, xrgtsub(&p, &len));
}

TEST(PrinterThreads, ThreadWithItsOwnStateKeepsSubstitutionsApart) {
    if (!vvgcbp()->lcbkey) {
        testing::internal::CaptureStdout();
        int rc = vvinit();
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(0, rc);
    }
    YPGCBSTR* mine = xpgcb();
    ASSERT_EQ(0, xrmksub(1, "main", 4));
    struct Ctx {
        YPGCBSTR* g = nullptr;
        rctype rc = -1;
    };
    auto body = [](void* a) -> void* {
        auto* c = static_cast<Ctx*>(a);
        c->g = xpgcb();
        c->rc = xrmksub(1, "child", 5);
        return nullptr;
    };
    Ctx own, shared;
    thread_t t1, t2;
    ASSERT_EQ(0, vvcthrl(nullptr, 0, body, &own, 0, &t1, VV_LCB_XP));
    thr_join(t1, nullptr);
    EXPECT_EQ(0, own.rc);
    EXPECT_NE(nullptr, own.g);
    EXPECT_NE(mine, own.g);
    const char* p;
    int len;
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ("main", std::string(p, len));

    // Without its own state a thread shares the process's.
    ASSERT_EQ(0, vvcthrl(nullptr, 0, body, &shared, 0, &t2, 0));
    thr_join(t2, nullptr);
    EXPECT_EQ(mine, shared.g);
    ASSERT_EQ(0, xrgtsub(&p, &len));
    EXPECT_EQ("child", std::string(p, len));
}

}  // namespace

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>

#include "hs/hs.h"
#include "ssup/xp.h"
#include "testutil.h"

using namespace vrta;

namespace {

class HsPrint : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = getenv("MSGPATH");
        hadOld_ = old != nullptr;
        if (old) old_ = old;
        vrtatest::writeFile(dir_.file("vrtamsg.m"),
                            "#437 %1zFile not found.\n"
                            "#406 %2zEnd of file.\n"
                            "#407 %1\n"          // too short to be a prefix
                            "#408 %%z percent\n"
                            "#409 %1zValue %d of %s\n");
        vrtatest::writeFile(dir_.file("wglobal.m"), "#3 Out of memory.\n");
        setenv("MSGPATH", dir_.path().c_str(), 1);
        xkreset();
        testing::internal::CaptureStdout();
        xkinit();
        testing::internal::GetCapturedStdout();
    }
    void TearDown() override {
        hssetpl("VRTA");
        if (hadOld_) setenv("MSGPATH", old_.c_str(), 1);
        else unsetenv("MSGPATH");
        xkreset();
    }
    vrtatest::TempDir dir_;
    bool hadOld_ = false;
    std::string old_;
};

TEST_F(HsPrint, CodeTextsSkipOnlyARealPrefix) {
    EXPECT_STREQ("File not found.", hsstrer(static_cast<rctype>(0x80000225u)));
    EXPECT_STREQ("End of file.", hsstrer(518));
    EXPECT_STREQ("%1", hsstrer(519));
    EXPECT_STREQ(" percent", hsstrer(520));  // any %?z head is taken for a prefix
    EXPECT_STREQ("Out of memory.", hsstrer(static_cast<rctype>(0x80010003u)));
    // A group without a file says so.
    EXPECT_STREQ("***MESSAGE NOT FOUND***", hsstrer(static_cast<rctype>(0x80050001u)));
    // No file could hold group 11.
    EXPECT_STREQ("No error text. Code=-2146762751(0x800B0001)\n", hsstrer(static_cast<rctype>(0x800b0001u)));
}

TEST_F(HsPrint, UnknownCodesUseOneBufferPerThread) {
    const char* a = hsstrer(0);
    EXPECT_STREQ("No error text. Code=0(0x0)\n", a);
    const char* b = hsstrer(static_cast<rctype>(0x80000299u));  // no such message
    EXPECT_EQ(a, b);
    EXPECT_STREQ("No error text. Code=-2147482983(0x80000299)\n", b);
    const char* other = nullptr;
    std::string otherText;
    std::thread t([&] {
        other = hsstrer(12345);
        otherText = other;
    });
    t.join();
    EXPECT_NE(a, other);
    EXPECT_EQ("No error text. Code=12345(0x3039)\n", otherText);
    EXPECT_STREQ("No error text. Code=-2147482983(0x80000299)\n", a);  // untouched by the other thread
}

TEST_F(HsPrint, UnknownCodesUseTheRuntimeKeyOnceItExists) {
    ASSERT_EQ(0, hsgblinit());
    const char* a = hsstrer(1);
    EXPECT_EQ(a, hsstrer(2));
    EXPECT_STREQ("No error text. Code=2(0x2)\n", a);
    std::string otherText;
    const char* other = nullptr;
    std::thread t([&] {
        other = hsstrer(3);
        otherText = other;
    });
    t.join();
    EXPECT_NE(a, other);
    EXPECT_EQ("No error text. Code=3(0x3)\n", otherText);
    EXPECT_STREQ("No error text. Code=2(0x2)\n", a);
}

TEST_F(HsPrint, StampedLines) {
    testing::internal::CaptureStdout();
    hsprint("hello %d\n", 7);
    hssetpl("SRV1");
    hsprint("x\n");
    errno = 5;
    rctype rc = hs_trace_error("dafile.cpp", 12, static_cast<rctype>(0x80000225u));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(static_cast<rctype>(0x80000225u), rc);
    EXPECT_EQ(5, errno);
    std::string pid = std::to_string(getpid());
    std::smatch m;
    std::regex line1("^[^\\n(]*:\\(" + pid + "\\) VRTA- hello 7\\n");
    EXPECT_TRUE(std::regex_search(out, m, line1)) << out;
    EXPECT_NE(std::string::npos, out.find("(" + pid + ") SRV1- x\n")) << out;
    EXPECT_NE(std::string::npos,
              out.find("SRV1- HS_TRACE: file=dafile.cpp line=12 errno=5 errc=0x80000225 text=File not found.\n"))
        << out;
}

TEST_F(HsPrint, MessageAsFormat) {
    testing::internal::CaptureStdout();
    hsmprnt(static_cast<rctype>(0x80000209u), 3, "ten");  // 409 = 2*200 + 9
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find(": (" + std::to_string(getpid()) + ") VRTA- Value 3 of ten\n")) << out;
    char buf[64];
    int n = hssprrc(buf, static_cast<rctype>(0x80000209u), 4, "five");
    EXPECT_EQ("Value 4 of five", std::string(buf, n));
}

}  // namespace

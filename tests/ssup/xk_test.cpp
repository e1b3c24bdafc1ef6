#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ssup/xp.h"
#include "testutil.h"

using namespace vrta;

namespace {

// Points MSGPATH at a directory of the test's own message files and makes
// the next lookup read them.
class MsgFiles : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = getenv("MSGPATH");
        hadOld_ = old != nullptr;
        if (old) old_ = old;
        setenv("MSGPATH", dir_.path().c_str(), 1);
        xkreset();
    }
    void TearDown() override {
        if (hadOld_) setenv("MSGPATH", old_.c_str(), 1);
        else unsetenv("MSGPATH");
        xkreset();
    }
    void write(const std::string& name, const std::string& text) { vrtatest::writeFile(dir_.file(name), text); }
    // Loads and returns what the loader printed.
    std::string load(void** gcb) {
        testing::internal::CaptureStdout();
        *gcb = xkinit();
        return testing::internal::GetCapturedStdout();
    }
    std::string read(int group, int number, rctype* rc) {
        const char* t = nullptr;
        int len = -7;
        *rc = xkread(group, number, &t, &len);
        if (!t) return "<null>";
        EXPECT_EQ(static_cast<size_t>(len), strlen(t));
        return std::string(t, len);
    }

    vrtatest::TempDir dir_;
    bool hadOld_ = false;
    std::string old_;
};

TEST_F(MsgFiles, ParsesNumbersWordsContinuationsAndComments) {
    write("wglobal.m",
          "comment line, ignored\n"
          "#  3 first text   \n"
          "#\tsecond without number\n"     // a word, then the text: number 4
          "# ALPHA_B 9 named one\t \n"
          "! continued   \n"
          "!more\n"
          "* another comment\n"
          "#next\n");                      // "next" is a word; nothing is left
    void* gcb = nullptr;
    std::string out = load(&gcb);
    // "#next" has only a word and no text: the load stops.
    EXPECT_EQ(nullptr, gcb);
    EXPECT_NE(std::string::npos, out.find("Missing message")) << out;

    write("wglobal.m",
          "comment line, ignored\n"
          "#  3 first text   \n"
          "#\tsecond without number\n"
          "# ALPHA_B 9 named one\t \n"
          "! continued   \n"
          "!more\n"
          "* another comment\n"
          "# 42 then\n");
    out = load(&gcb);
    ASSERT_NE(nullptr, gcb) << out;
    rctype rc;
    EXPECT_EQ("first text", read(1, 3, &rc));
    EXPECT_EQ(0, rc);
    EXPECT_EQ("without number", read(1, 4, &rc));
    EXPECT_EQ("named one continued more", read(1, 9, &rc));
    EXPECT_EQ("then", read(1, 42, &rc));
    // Gaps, zero and numbers past the last message have no text.
    for (int n : {0, 1, 5, 43, 100, 101}) {
        EXPECT_EQ("***BAD MESSAGE NUMBER***", read(1, n, &rc)) << n;
        EXPECT_EQ(-1, rc);
    }
    EXPECT_EQ(42, YKGCB->msggrp[1]->msgmax);
}

TEST_F(MsgFiles, MissingFilesAndBadGroups) {
    write("vrtamsg.m", "#1 only group zero\n");
    void* gcb = nullptr;
    std::string out = load(&gcb);
    ASSERT_NE(nullptr, gcb);
    // Every other group is reported and stays empty; that is no failure.
    EXPECT_NE(std::string::npos, out.find("Message file attrbm.m open failed: errno=2\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("vrtamsg.m open failed"));
    rctype rc;
    EXPECT_EQ("***MESSAGE NOT FOUND***", read(10, 1, &rc));
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("***BAD MESSAGE GROUP***", read(11, 1, &rc));
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("***BAD MESSAGE GROUP***", read(-1, 1, &rc));
    EXPECT_EQ("only group zero", read(0, 1, &rc));
    // Idempotent: the same block again.
    EXPECT_EQ(gcb, xkinit());
}

TEST_F(MsgFiles, SearchListTakesFirstDirectoryThatHasTheFile) {
    vrtatest::TempDir second;
    vrtatest::writeFile(second.file("zsem.m"), "#2 from second\n");
    write("zsem.m", "#2 from first\n");
    std::string path = "/nonexistent/dir:" + second.path() + ":" + dir_.path() + "/";
    setenv("MSGPATH", path.c_str(), 1);
    rctype rc;
    testing::internal::CaptureStdout();
    std::string text = read(7, 2, &rc);  // loads on first use
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, rc);
    EXPECT_EQ("from second", text);
}

TEST_F(MsgFiles, EachMalformedFileStopsTheLoadWithItsOwnText) {
    struct Case {
        const char* file;
        std::string body;
        const char* expect;
    };
    std::string long500(500, 'x');
    const Case cases[] = {
        {"wglobal.m", "#1 ok\n#   \n", "Missing message"},
        {"xffile.m", "#10 last allowed\n#11 one too many\n", "Reached max number of msgs 10\n"},
        {"xffile.m", "#3 a\n#\n", "Missing message"},
        // 1 + 500 + 1 + 10 = 512 bytes with the joining blank: one too many.
        {"dates.m", "#1 x" + long500 + "\n!" + std::string(10, 'y') + "\n", "Reached max size of msg 512\n"},
        {"dates.m", "#1 " + std::string(600, 'z') + "\n", "- Reached max size of msg"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expect);
        xkreset();
        // Start from a good set so that only the case's file is at fault.
        for (int g = 0; g < XK_NGROUPS; ++g) write(xkgrpnames[g].name, "#1 fine\n");
        write(c.file, c.body);
        void* gcb = nullptr;
        std::string out = load(&gcb);
        EXPECT_EQ(nullptr, gcb);
        EXPECT_EQ(nullptr, YKGCB);
        EXPECT_NE(std::string::npos, out.find(c.expect)) << out;
        // The text of an over-long line is the last thing printed, without a line end.
        if (c.expect[0] == '-') {
            EXPECT_TRUE(out.ends_with(c.expect)) << out;
        }
        // A lookup retries the load and reports out of memory.
        const char* t;
        int len;
        testing::internal::CaptureStdout();
        EXPECT_EQ(static_cast<rctype>(0x80010003u), xkread(1, 1, &t, &len));
        testing::internal::GetCapturedStdout();
    }
}

TEST_F(MsgFiles, ContinuationUpToTheLimitIsKept) {
    // 1 + 499 + 1 + 10 = 511 bytes: the longest message there may be.
    std::string body = "#1 x" + std::string(499, 'a') + "\n!" + std::string(10, 'b') + "\n#2 after\n";
    write("dates.m", body);
    rctype rc;
    testing::internal::CaptureStdout();
    std::string t = read(8, 1, &rc);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(0, rc);
    EXPECT_EQ(511u, t.size());
    EXPECT_EQ("x" + std::string(499, 'a') + " " + std::string(10, 'b'), t);
    EXPECT_EQ("after", read(8, 2, &rc));
}

TEST(MsgFilesShipped, EveryGroupLoadsAndTheEngineCodesHaveTexts) {
    // The module's own files, as installed with it.
    const char* old = getenv("MSGPATH");
    std::string saved = old ? old : "";
    setenv("MSGPATH", VRTA_SRC_MSGDIR, 1);
    xkreset();
    testing::internal::CaptureStdout();
    void* gcb = xkinit();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_NE(nullptr, gcb) << out;
    EXPECT_EQ(std::string::npos, out.find("failed")) << out;
    const char* t;
    int len;
    for (rctype code : {0x80010003u, 0x80010005u, 0x80010014u, 0x80040001u, 0x80000225u, 0x80000407u, 0x80000520u}) {
        uint32_t u = code;
        int group = (u >> 16) & 0xff;
        int number = ((u >> 8) & 0xff) * 200 + (u & 0xff);
        EXPECT_EQ(0, xkread(group, number, &t, &len)) << std::hex << code;
    }
    if (old) setenv("MSGPATH", saved.c_str(), 1);
    else unsetenv("MSGPATH");
    xkreset();
}

}  // namespace

// Without MSGPATH the list is empty: nothing opens, the loader still
// succeeds, and every lookup says its file was not found.
TEST_F(MsgFiles, UnsetPathIsAnEmptyList) {
    write("vrtamsg.m", "# 1 %1zThe operation failed.\n");
    unsetenv("MSGPATH");
    xkreset();
    void* gcb = nullptr;
    std::string out = load(&gcb);
    ASSERT_NE(nullptr, gcb);
    EXPECT_NE(std::string::npos, out.find("Message file vrtamsg.m open failed")) << out;
    rctype rc;
    EXPECT_EQ("***MESSAGE NOT FOUND***", read(0, 1, &rc));
    EXPECT_EQ(-1, rc);
}

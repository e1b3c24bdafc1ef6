// Temporary files and work paths of the direct access API.
#include <gtest/gtest.h>
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "option/op.h"
#include "testutil.h"
#include "vrta/directapi.h"

namespace {

using namespace vrta;

// A private option table for one test, put back after.
struct Options {
    void* old_ = nullptr;
    void* mine_ = nullptr;
    Options() {
        opinitgbl();
        old_ = opgtgbl();
        mine_ = opclonegbl();
    }
    ~Options() {
        opstgbl(old_);
        free(mine_);
    }
    void str(const char* name, const std::string& v) {
        ASSERT_EQ(0, opsetop(mine_, name, const_cast<char*>(v.data()), static_cast<int>(v.size())));
    }
};

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> v;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') v.push_back(e->d_name);
        closedir(d);
    }
    return v;
}

TEST(SpTmp, FilesLiveOnTheWorkPathUntilClosed) {
    vrtatest::TempDir a, b;
    Options o;
    o.str("WORKPATH", "(\"" + a.path() + "\" \"" + b.path() + "\")");
    void* t = nullptr;
    ASSERT_EQ(0, sptmpfil(&t));
    std::vector<std::string> files = entries(a.path());
    for (const std::string& f : entries(b.path())) files.push_back(f);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].rfind("vrta_", 0), 0u) << files[0];

    // Write 3 pieces, overwrite the middle, read it all back.
    std::string big(100000, 'x');
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(sptmpwr(t, big.data(), 100000), 100000);
    EXPECT_EQ(sptmpwr(t, "tail", 4), 4);
    EXPECT_EQ(sptmpseek(t, 0, SEEK_END), 100004);
    EXPECT_EQ(sptmpseek(t, 50000, SEEK_SET), 50000);
    EXPECT_EQ(sptmpwr(t, "MID", 3), 3);
    EXPECT_EQ(sptmpseek(t, -50003, SEEK_CUR), 0);
    EXPECT_EQ(sptmpseek(t, -1, SEEK_SET), -1);
    std::string back(100010, '?');
    long got = 0, n;
    while ((n = sptmprd(t, back.data() + got, 7000)) > 0) got += n;
    EXPECT_EQ(n, 0);
    ASSERT_EQ(got, 100004);
    back.resize(got);
    std::string want = big + "tail";
    want.replace(50000, 3, "MID");
    EXPECT_TRUE(back == want);
    EXPECT_EQ(sptmprd(t, back.data(), 10), 0);  // at the end: nothing, and no failure

    // Two files at once have different names; closing removes each.
    void* t2 = nullptr;
    ASSERT_EQ(0, sptmpfil(&t2));
    EXPECT_EQ(entries(a.path()).size() + entries(b.path()).size(), 2u);
    EXPECT_EQ(0, sptmpclose(t));
    EXPECT_EQ(0, sptmpclose(t2));
    EXPECT_EQ(entries(a.path()).size() + entries(b.path()).size(), 0u);
    EXPECT_EQ(-1, sptmprd(nullptr, back.data(), 1));
    EXPECT_NE(0, sptmpfil(nullptr));
}

TEST(SpTmp, WorkPathsAndTheTemporaryDomain) {
    vrtatest::TempDir a, b;
    Options o;
    o.str("WORKPATH", "(\"" + a.path() + "\" \"" + b.path() + "\")");
    int n = 0;
    char** v = nullptr;
    ASSERT_EQ(0, spworkpath(2, &n, &v));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(std::string(v[0]).find(a.path()), 0u) << v[0];
    EXPECT_EQ(std::string(v[1]).find(b.path()), 0u) << v[1];
    EXPECT_EQ(0, spworkfree(n, v));
    ASSERT_EQ(0, spworkpath(1, &n, &v));
    EXPECT_EQ(n, 1);
    EXPECT_EQ(0, spworkfree(n, v));

    char dom[40];
    int len = sizeof dom;
    ASSERT_EQ(0, sptmpdomain(dom, &len));
    EXPECT_EQ(len, 0);
    o.str("TMPDOMAIN", "SCRATCH");
    len = sizeof dom;
    ASSERT_EQ(0, sptmpdomain(dom, &len));
    EXPECT_EQ(std::string(dom, len), "SCRATCH");
    len = 3;
    EXPECT_NE(0, sptmpdomain(dom, &len));  // no room: refused, not cut

    // A work path that does not exist leaves nothing to work on.
    o.str("WORKPATH", a.path() + "/missing/deeper");
    void* t = nullptr;
    EXPECT_NE(0, sptmpfil(&t));
    EXPECT_EQ(t, nullptr);
}

}  // namespace

// vrta mdf and vrta idx on a table with an index: the index record in the
// metadata file, the index file's trees, and a damaged file named with its page.
#include <gtest/gtest.h>

#include <dirent.h>

#include <string>

#include "../ix/ixtable.h"
#include "cliutil.h"
#include "testutil.h"

using namespace ixtest;

namespace {

using vrtatest::has;
vrtatest::Result runvrta(const std::string& args) { return vrtatest::vrta(args); }

size_t count(const std::string& s, const std::string& what) {
    size_t n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
}

std::string partition(const std::string& dir, const std::string& prefix) {
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0) found = dir + "/" + e->d_name;
        closedir(d);
    }
    return found;
}

}  // namespace

TEST(CliIndex, MdfShowsTheRecordAndIdxShowsTheTrees) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "Tab", SEGSIZE);
    ASSERT_NE(nullptr, fp);
    auto r = rows(1, 200);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 200));
    int32_t col[] = {1};
    ASSERT_EQ(0, fp->mt->addidx(fp, "ix", DA_IDXFIDX, 1, col));
    ASSERT_EQ(0, buildindex(fp));
    ASSERT_EQ(0, darclos(fp));
    dafrlib(lp);

    vrtatest::Result m = runvrta("mdf " + tmp.path() + "/tab");
    ASSERT_EQ(0, m.status) << m.err;
    EXPECT_TRUE(has(m.out, "index \"ix\" numeric key of 8 bytes on column(s) 1\n")) << m.out;
    EXPECT_TRUE(has(m.out, "rows indexed 200")) << m.out;
    EXPECT_TRUE(has(m.out, "idx file: FIB at")) << m.out;
    EXPECT_TRUE(has(m.out, "state 0 (clean)")) << m.out;

    vrtatest::Result i = runvrta("idx " + tmp.path() + "/tab.idxix --entries 2");
    ASSERT_EQ(0, i.status) << i.err;
    EXPECT_TRUE(has(i.out, "type 1 (continuous) segment_size 64 value_len 8 state 7 (clean)")) << i.out;
    EXPECT_TRUE(has(i.out, "psize 512")) << i.out;
    EXPECT_EQ(4u, count(i.out, "\ntree ")) << i.out;  // 200 rows, 64 a tree
    EXPECT_TRUE(has(i.out, "entries 64\n")) << i.out;
    EXPECT_TRUE(has(i.out, "entries 8\n")) << i.out;
    EXPECT_EQ(8u, count(i.out, " row ")) << i.out;
    vrtatest::Result one = runvrta("idx " + tmp.path() + "/tab.idxix --tree 3 --pages");
    ASSERT_EQ(0, one.status) << one.err;
    EXPECT_EQ(1u, count(one.out, "\ntree ")) << one.out;
    EXPECT_TRUE(has(one.out, ": leaf prev 0 next 0 entries 8")) << one.out;

    // A file cut short is named with the page that is missing.
    std::string part = partition(tmp.path(), "tab.idxix.");
    std::string bytes = vrtatest::readFile(part);
    vrtatest::writeFile(part, bytes.substr(0, bytes.size() - 512));
    vrtatest::Result bad = runvrta("idx " + part);
    EXPECT_EQ(1, bad.status);
    EXPECT_TRUE(has(bad.err, "page ")) << bad.err;
    EXPECT_EQ(2, runvrta("idx").status);
    EXPECT_EQ(2, runvrta("idx " + part + " --entries x").status);
    EXPECT_EQ(1, runvrta("idx " + tmp.path() + "/nothing").status);
}

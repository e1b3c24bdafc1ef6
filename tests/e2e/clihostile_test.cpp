// The vrta tool fed what a careless or hostile user gives it: values it
// cannot keep, names too long, blank keys, reserved exits, an exit that
// loses rows. Each is a clear error and leaves no table behind.
#include <gtest/gtest.h>

#include <string>

#include "cliutil.h"

namespace {

using vrtatest::files;
using vrtatest::has;
using vrtatest::Result;
using vrtatest::vrta;

TEST(CliHostile, OneColumnTableWithEmptyValuesRoundTrips) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    vrtatest::writeFile(tmp.file("a.csv"), "note\n\"\"\nx\n\"\"\n");
    Result r = vrta("load " + dom + " t " + tmp.file("a.csv"));
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "loaded 3 rows")) << r.out;
    r = vrta("print " + dom + " t --csv");
    EXPECT_EQ("note\n\"\"\nx\n\"\"\n", r.out);
    vrtatest::writeFile(tmp.file("b.csv"), r.out);
    ASSERT_EQ(0, vrta("load " + dom + " u " + tmp.file("b.csv")).status);
    EXPECT_EQ(r.out, vrta("print " + dom + " u --csv").out);
}

TEST(CliHostile, ValuesAndNamesThatCannotBeKeptAreRefused) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    vrtatest::writeFile(tmp.file("nul.csv"), std::string("a,b\n1,x\0y\n", 11));
    Result r = vrta("load " + dom + " t " + tmp.file("nul.csv"));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "nul.csv:2: column 2 holds a NUL byte")) << r.err;
    // A file of NULs and no line end is refused at once, not read into memory.
    r = vrta("load " + dom + " t /dev/zero");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "/dev/zero:1: column 1 holds a NUL byte")) << r.err;

    vrtatest::writeFile(tmp.file("long.csv"), std::string(5000, 'n') + ",b\n1,2\n");
    r = vrta("load " + dom + " t " + tmp.file("long.csv"));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "'" + std::string(64, 'n') + "...' is longer than 32")) << r.err.size();
    EXPECT_LT(r.err.size(), 200u);

    vrtatest::writeFile(tmp.file("ok.csv"), "a\n1\n");
    r = vrta("load " + dom + " t " + tmp.file("ok.csv") + " --encrypt VRTACRYP --key '   '");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "the key is blank")) << r.err;
    r = vrta("load " + dom + " t " + tmp.file("ok.csv") + " --encrypt .VRTACR6 --key KEY");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "names starting with a point")) << r.err;
    EXPECT_TRUE(files(dom, "t.").empty());
}

TEST(CliHostile, ExitThatConvertsBlocksToNothingFailsTheLoad) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    vrtatest::writeFile(tmp.file("ok.csv"), "a,b\n1,x\n2,y\n");
    vrtatest::CmdResult c = vrtatest::runCommand("VRTA_LIBRARY_PATH=" VRTA_BINARY_DIR "/exits " VRTA_TOOLS_DIR
                                                 "/vrta load " + dom + " t " + tmp.file("ok.csv") +
                                                 " --compress LIBXZERO 2>&1");
    EXPECT_EQ(1, c.status);
    EXPECT_TRUE(has(c.out, "bytes to none")) << c.out;
    EXPECT_FALSE(has(c.out, "loaded")) << c.out;
    EXPECT_TRUE(files(dom, "t.").empty());
}

}  // namespace

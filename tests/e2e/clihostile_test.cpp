// The vrta tool fed what a careless or hostile user gives it: values it
// cannot keep, names too long, blank keys, reserved exits, an exit that
// loses rows. Each is a clear error and leaves no table behind.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <cstring>
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

namespace {

// The header flag a killed load leaves set: what create writes and only a
// clean close clears.
void markUnfinished(const std::string& mdf) {
    std::string m = vrtatest::readFile(mdf);
    int32_t pdesize;
    std::memcpy(&pdesize, m.data() + 164, 4);
    m[pdesize + 272 + 16] |= 1;
    vrtatest::writeFile(mdf, m);
}

TEST(CliHostile, DropFindsEveryFileWhateverTheDomainSpelling) {
    vrtatest::TempDir tmp;
    ASSERT_EQ(0, mkdir(tmp.file("a").c_str(), 0777));
    vrtatest::writeFile(tmp.file("ok.csv"), "a,b\n1,x\n");
    std::string dom = tmp.file("a/c");
    ASSERT_EQ(0, vrta("load " + tmp.file("a/./x//../c") + " t " + tmp.file("ok.csv")).status);
    Result r = vrta("drop " + dom + " t");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(files(dom, "t.").empty());
    // The name is free again under yet another spelling.
    vrtatest::CmdResult c = vrtatest::runCommand("cd " + tmp.file("a") + " && " VRTA_TOOLS_DIR "/vrta load c t " +
                                                 tmp.file("ok.csv") + " 2>&1 && " VRTA_TOOLS_DIR "/vrta drop " + dom +
                                                 " t 2>&1");
    EXPECT_EQ(0, c.status) << c.out;
    EXPECT_TRUE(files(dom, "t.").empty());

    std::string deep = tmp.path();
    for (int i = 0; i < 5; ++i) deep += "/" + std::string(60, 'd');
    r = vrta("load " + deep + " t " + tmp.file("ok.csv"));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "is too long: its data file names would be")) << r.err;
}

TEST(CliHostile, UnfinishedTableIsReportedAndReplacedByTheNextLoad) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    vrtatest::writeFile(tmp.file("one.csv"), "a\n1\n");
    vrtatest::writeFile(tmp.file("two.csv"), "a\n1\n2\n");
    ASSERT_EQ(0, vrta("load " + dom + " t " + tmp.file("one.csv")).status);
    markUnfinished(dom + "/t.mdf.0.0.0.vrta9");
    Result r = vrta("tables " + dom);
    EXPECT_TRUE(has(r.out, "(incomplete: never finished by its creator)")) << r.out;
    r = vrta("print " + dom + " t");
    EXPECT_TRUE(has(r.err, "warning: the table 't' is incomplete")) << r.err;
    r = vrta("load " + dom + " t " + tmp.file("two.csv"));
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.err, "was never finished; replacing it")) << r.err;
    EXPECT_EQ("a\n1\n2\n", vrta("print " + dom + " t --csv").out);
    EXPECT_FALSE(has(vrta("tables " + dom).out, "incomplete"));
    // A finished table is never replaced.
    EXPECT_EQ(1, vrta("load " + dom + " t " + tmp.file("one.csv")).status);
}

TEST(CliHostile, NonRegularFilesInTheDomainAreSkippedAndEncryptedToldFromDamaged) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    vrtatest::writeFile(tmp.file("ok.csv"), "a\n1\n");
    ASSERT_EQ(0, vrta("load " + dom + " e " + tmp.file("ok.csv") + " --encrypt VRTACRYP --key k1").status);
    ASSERT_EQ(0, vrta("load " + dom + " p " + tmp.file("ok.csv")).status);
    std::string mdf = dom + "/p.mdf.0.0.0.vrta9";
    std::string m = vrtatest::readFile(mdf);
    int32_t pdesize;
    std::memcpy(&pdesize, m.data() + 164, 4);
    int64_t names;
    std::memcpy(&names, m.data() + pdesize + 272 + 24 + 8, 8);
    m[names + 48] = '\x7f';  // a name length past any name
    vrtatest::writeFile(mdf, m);
    // A FIFO named like a table: reading it would wait for a writer forever.
    ASSERT_EQ(0, mkfifo((dom + "/f.mdf.0.0.0.vrta9").c_str(), 0666));
    ASSERT_EQ(0, mkfifo((dom + "/p.dpf.x.0.1.vrta9").c_str(), 0666));
    vrtatest::CmdResult c = vrtatest::runCommand("timeout 20 " VRTA_TOOLS_DIR "/vrta tables " + dom + " 2>&1");
    EXPECT_EQ(0, c.status) << c.out;
    EXPECT_TRUE(has(c.out, "f.mdf.0.0.0.vrta9 is not a regular file: skipped")) << c.out;
    EXPECT_TRUE(has(c.out, "(encrypted)")) << c.out;
    EXPECT_TRUE(has(c.out, "(cannot be read: ")) << c.out;
    c = vrtatest::runCommand("timeout 20 " VRTA_TOOLS_DIR "/vrta print " + dom + " f 2>&1");
    EXPECT_EQ(1, c.status) << c.out;
}

}  // namespace

// vrta where, run as a user runs it on a loaded table.
#include <gtest/gtest.h>

#include <string>

#include "testutil.h"

namespace {

struct Where {
    vrtatest::TempDir tmp;
    Where() {
        vrtatest::writeFile(tmp.file("t.csv"), "amount,city,qty,code\n150,Lima,3,ABX\n50,Oslo,,CDY\n");
        vrtatest::CmdResult r =
            vrtatest::runCommand(VRTA_TOOLS_DIR "/vrta load " + tmp.path() + " T " + tmp.file("t.csv") + " 2>&1");
        EXPECT_EQ(r.status, 0) << r.out;
    }
    vrtatest::CmdResult run(const std::string& clause, const std::string& more = "") {
        return vrtatest::runCommand(VRTA_TOOLS_DIR "/vrta where " + tmp.path() + " T '" + clause + "' " + more +
                                    " 2>&1");
    }
};

bool has(const std::string& s, const std::string& what) { return s.find(what) != std::string::npos; }

TEST(VrtaWhere, ShowsTheClauseAndTreeTheModuleReadsBack) {
    Where w;
    vrtatest::CmdResult r = w.run("amount > 100 and city in (\"Lima\",\"Oslo\") and not missing(qty) and code like \"AB%\"",
                                  "--wire");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r.out, "clause: ((amount>100) and city in ('Lima', 'Oslo') and (not (qty is null )) and "
                           "code like 'AB%')\n"))
        << r.out;
    EXPECT_TRUE(has(r.out, "TREE GRAPH :\n                    /--NAME[amount]\n          /--CGT\n")) << r.out;
    EXPECT_TRUE(has(r.out, " --LAND\n")) << r.out;
    EXPECT_TRUE(has(r.out, "wire: 325 bytes\n  000000  00 00 01 41 30 30 30 36 00")) << r.out;
}

TEST(VrtaWhere, RefusalsPointIntoTheClause) {
    Where w;
    vrtatest::CmdResult r = w.run("amount > \"x\"");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.out, "vrta: where: at column 10: '>' compares a number with a character value\n"
                           "  amount > \"x\"\n"
                           "           ^\n"))
        << r.out;
    r = w.run("qty in (1, 2");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.out, "expected ',' or ')' in the list, found the end of the clause")) << r.out;
    r = w.run("price = 1");
    EXPECT_TRUE(has(r.out, "at column 1: the table has no column price")) << r.out;
    EXPECT_EQ(w.run("").status, 1);
    vrtatest::CmdResult u =
        vrtatest::runCommand(VRTA_TOOLS_DIR "/vrta where " + w.tmp.path() + " NOPE 'a = 1' 2>&1");
    EXPECT_EQ(u.status, 1);
    EXPECT_TRUE(has(u.out, "no table 'NOPE'")) << u.out;
    EXPECT_EQ(vrtatest::runCommand(VRTA_TOOLS_DIR "/vrta where " + w.tmp.path() + " T 2>&1").status, 2);
    vrtatest::CmdResult h = vrtatest::runCommand(VRTA_TOOLS_DIR "/vrta where --help 2>&1");
    EXPECT_EQ(h.status, 0);
    EXPECT_TRUE(has(h.out, "usage: vrta where DOMAIN_DIR TABLE 'CLAUSE'")) << h.out;
}

}  // namespace

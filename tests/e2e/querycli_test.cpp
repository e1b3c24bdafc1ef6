// vrta query and vrta delete, run as a user runs them on a loaded table.
#include <gtest/gtest.h>

#include <string>

#include "cliutil.h"

namespace {

using vrtatest::has;

struct Loaded {
    vrtatest::TempDir tmp;
    Loaded() {
        vrtatest::writeFile(tmp.file("t.csv"),
                            "id,city,amount\n1,Lima,10.5\n2,Oslo,\n3,Lima,300\n4,Kyiv,7\n5,,42\n6,Oslo,-1\n");
        vrtatest::Result r = vrtatest::vrta("load " + tmp.path() + " T " + tmp.file("t.csv"));
        EXPECT_EQ(r.status, 0) << r.err;
    }
    vrtatest::Result q(const std::string& args) { return vrtatest::vrta("query " + tmp.path() + " T " + args); }
};

TEST(VrtaQuery, PrintsTheMatchingRowsCountsAndExplains) {
    Loaded t;
    vrtatest::Result r = t.q("--where \"city = 'Lima' or amount > 40\"");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "id  city  amount\n 1  Lima    10.5\n 3  Lima     300\n 5            42\n(3 rows)\n");
    // A value loaded as empty is the missing value ".", and sorts below every number.
    r = t.q("--where 'amount = . or amount < -100' --csv --columns CITY,id");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "city,id\nOslo,2\n");
    r = t.q("--where 'amount is missing' --count");
    EXPECT_EQ(r.out, "1\n");
    r = t.q("--where \"city = ''\" --csv");
    EXPECT_EQ(r.out, "id,city,amount\n5,\"\",42\n");
    r = t.q("--where 'amount > 1 and id ^= 3' --explain");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "plan: EVAL2 ALL\nindex tree: none\nindexes: none\nrow test: ((amount>1) and (id not = 3))\n")) << r.out;
    EXPECT_TRUE(has(r.out, "threads: 1\nsegments: 1 of 1")) << r.out;
    r = t.q("--where '2 < 1' --explain --count");
    EXPECT_TRUE(has(r.out, "plan: FALSE\n")) << r.out;
    EXPECT_TRUE(has(r.out, "segments: 0 of 1")) << r.out;
    EXPECT_TRUE(has(r.out, "\n0\n")) << r.out;
}

TEST(VrtaQuery, BadRequestsAreRefusedClearly) {
    Loaded t;
    vrtatest::Result r = t.q("--where 'price > 1'");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "query: at column 1: the table has no column price\n  price > 1\n  ^")) << r.err;
    r = t.q("--where \"amount = 'x'\"");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "compares a number with a character value")) << r.err;
    r = t.q("--where 'id > 1' --columns id,nope");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r.err, "no column nope")) << r.err;
    EXPECT_EQ(t.q("").status, 2);
    EXPECT_EQ(t.q("--where 'id > 1' --threads 0").status, 2);
    r = vrtatest::vrta("query " + t.tmp.path() + " NOPE --where 'id > 1'");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "no table 'NOPE'")) << r.err;
}

TEST(VrtaDelete, DeletesWhatTheClauseSelectsAndNothingElse) {
    Loaded t;
    vrtatest::Result r = vrtatest::vrta("delete " + t.tmp.path() + " T");
    EXPECT_EQ(r.status, 2);  // no clause is never "every row"
    r = vrtatest::vrta("delete " + t.tmp.path() + " T --where \"city = 'Lima' or amount = .\"");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "3 rows deleted\n");
    r = t.q("--where 1 --csv");
    EXPECT_EQ(r.out, "id,city,amount\n4,Kyiv,7\n5,\"\",42\n6,Oslo,-1\n");
    r = vrtatest::vrta("delete " + t.tmp.path() + " T --where \"city = 'Lima'\"");
    EXPECT_EQ(r.out, "0 rows deleted\n");
    r = vrtatest::vrta("delete " + t.tmp.path() + " T --where 'nope = 1'");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "no column nope")) << r.err;
    EXPECT_EQ(t.q("--where 1 --count").out, "3\n");
}

// On an indexed table the indexes follow the deletions: they stay usable,
// count the values left, and the plans that read them find the rows left.
TEST(VrtaDelete, IndexesFollowTheDeletedRows) {
    Loaded t;
    vrtatest::Result r = vrtatest::vrta("index create " + t.tmp.path() + " T bycity --on city");
    ASSERT_EQ(r.status, 0) << r.err;
    r = vrtatest::vrta("delete " + t.tmp.path() + " T --where \"city = 'Lima' or amount = 7\"");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "3 rows deleted\n");
    r = vrtatest::vrta("index list " + t.tmp.path() + " T");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "bycity")) << r.out;
    EXPECT_TRUE(has(r.out, "usable")) << r.out;
    EXPECT_TRUE(has(r.out, " 2 ")) << r.out;  // Oslo and the empty city are left
    r = t.q("--where \"city = 'Oslo' or city = 'Lima'\" --explain");
    EXPECT_TRUE(has(r.out, "indexes: bycity")) << r.out;
    r = t.q("--where \"city = 'Oslo' or city = 'Lima'\" --csv");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "id,city,amount\n2,Oslo,\n6,Oslo,-1\n");
    EXPECT_EQ(t.q("--where \"city = 'Lima'\" --count").out, "0\n");
}

}  // namespace

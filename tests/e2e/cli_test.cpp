// The table commands of the vrta tool run as a user runs them: a CSV loaded,
// described, printed back, loaded again, dropped; bad input refused cleanly.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cliutil.h"

namespace {

using vrtatest::files;
using vrtatest::has;
using vrtatest::Result;
using vrtatest::vrta;

// The words of the output line that starts with first, without the last (a size).
std::vector<std::string> words(const std::string& out, const std::string& first) {
    size_t at = out.rfind("\n" + first + " ");
    if (at == std::string::npos) return {};
    std::string line = out.substr(at + 1, out.find('\n', at + 1) - at - 1);
    std::vector<std::string> w;
    size_t i = 0;
    while (i < line.size()) {
        size_t j = line.find(' ', i);
        if (j == std::string::npos) j = line.size();
        if (j > i) w.push_back(line.substr(i, j - i));
        i = j + 1;
    }
    if (!w.empty()) w.pop_back();
    return w;
}

const char* SAMPLE =
    "id,name,score,city\n"
    "1,alice,3.5,Oslo\n"
    "2,\"bob, jr\",,\"Rome\"\n"
    "3,\"say \"\"hi\"\"\",-7000,\n"
    "\n"
    "4,dora,0.25,New York\r\n"
    "5,eve,1e3,Lima\n";

const char* SAMPLE_CSV =
    "id,name,score,city\n"
    "1,alice,3.5,Oslo\n"
    "2,\"bob, jr\",,Rome\n"
    "3,\"say \"\"hi\"\"\",-7000,\"\"\n"
    "4,dora,0.25,New York\n"
    "5,eve,1000,Lima\n";

TEST(CliTables, LoadDescribePrintReloadAndDrop) {
    ASSERT_EQ(access(VRTA_TOOLS_DIR "/vrta", X_OK), 0) << "the vrta tool is not built";
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("a/domain");  // made by load
    vrtatest::writeFile(tmp.file("s.csv"), SAMPLE);

    Result r = vrta("load " + dom + " people " + tmp.file("s.csv"));
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "loaded 5 rows of 4 columns into people")) << r.out;

    r = vrta("describe " + dom + " people");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "rows:          5")) << r.out;
    EXPECT_TRUE(has(r.out, "row length:    32 bytes")) << r.out;  // widest name and city: 8
    EXPECT_TRUE(has(r.out, "name   char(8)")) << r.out;
    EXPECT_TRUE(has(r.out, "score  num")) << r.out;
    EXPECT_TRUE(has(r.out, "city   char(8)")) << r.out;
    EXPECT_TRUE(has(r.out, "compression:   none")) << r.out;
    EXPECT_TRUE(has(r.out, "data      0")) << r.out;
    EXPECT_TRUE(has(r.out, "metadata  0")) << r.out;

    r = vrta("print " + dom + " people --csv");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(SAMPLE_CSV, r.out);
    // What print writes, load reads back into the same rows.
    vrtatest::writeFile(tmp.file("back.csv"), r.out);
    ASSERT_EQ(0, vrta("load " + dom + " again " + tmp.file("back.csv")).status);
    EXPECT_EQ(SAMPLE_CSV, vrta("print " + dom + " again --csv").out);

    r = vrta("print " + dom + " people --last 2");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("id  name  score  city\n"
              " 4  dora   0.25  New York\n"
              " 5  eve    1000  Lima\n"
              "(2 rows)\n",
              r.out);
    r = vrta("print " + dom + " people --first 1 --csv");
    EXPECT_EQ("id,name,score,city\n1,alice,3.5,Oslo\n", r.out);

    r = vrta("tables " + dom);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ((std::vector<std::string>{"again", "5"}), words(r.out, "again")) << r.out;
    EXPECT_EQ((std::vector<std::string>{"people", "5"}), words(r.out, "people")) << r.out;

    EXPECT_FALSE(files(dom, "people.").empty());
    r = vrta("drop " + dom + " people");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(files(dom, "people.").empty());
    EXPECT_FALSE(files(dom, "again.").empty());
    r = vrta("drop " + dom + " people");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "no table 'people'")) << r.err;
}

TEST(CliTables, BadInputGivesItsLineAndLeavesNoTable) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.path();
    vrtatest::writeFile(tmp.file("short.csv"), "a,b\n1,2\n3\n");
    Result r = vrta("load " + dom + " t " + tmp.file("short.csv"));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "short.csv:3: expected 2 fields, found 1")) << r.err;

    // Found only while rows are written: the half-made table goes.
    vrtatest::writeFile(tmp.file("nan.csv"), "a,b\n1,x\n2,y\nzz,w\n");
    r = vrta("load " + dom + " t " + tmp.file("nan.csv") + " --types a:num");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "nan.csv:4: 'zz' in column 'a' is not a number")) << r.err;
    r = vrta("load " + dom + " t " + tmp.file("nan.csv") + " --types 'a:char,b:char(0)'");
    EXPECT_EQ(2, r.status);
    r = vrta("load " + dom + " t " + tmp.file("nan.csv") + " --types 'b:char(1),a:num'");
    EXPECT_TRUE(has(r.err, "nan.csv:4:")) << r.err;
    vrtatest::writeFile(tmp.file("wide.csv"), "a\nabc\nabcdef\n");
    r = vrta("load " + dom + " t " + tmp.file("wide.csv") + " --types 'a:char(4)'");
    EXPECT_TRUE(has(r.err, "wide.csv:3: the value in column 'a' is longer than 4 bytes")) << r.err;
    vrtatest::writeFile(tmp.file("quote.csv"), "a\n\"open\n");
    r = vrta("load " + dom + " t " + tmp.file("quote.csv"));
    EXPECT_TRUE(has(r.err, "a quoted field is not closed")) << r.err;
    EXPECT_TRUE(files(dom, "t.").empty());

    vrtatest::writeFile(tmp.file("ok.csv"), "a\n1\n");
    r = vrta("load " + dom + " this_name_is_far_too_long_for_a_table " + tmp.file("ok.csv"));
    EXPECT_NE(0, r.status);
    EXPECT_TRUE(has(r.err, "'this_name_is_far_too_long_for_a_table' is not a table name")) << r.err;
    vrtatest::writeFile(tmp.file("col.csv"), "a_column_name_that_is_much_too_long\n1\n");
    r = vrta("load " + dom + " t " + tmp.file("col.csv"));
    EXPECT_TRUE(has(r.err, "longer than 32")) << r.err;

    r = vrta("print " + tmp.file("nowhere") + " t");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "domain directory '" + tmp.file("nowhere") + "' does not exist")) << r.err;

    // An existing table is never replaced.
    ASSERT_EQ(0, vrta("load " + dom + " t " + tmp.file("ok.csv")).status);
    r = vrta("load " + dom + " t " + tmp.file("nan.csv"));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "already exists")) << r.err;
    EXPECT_EQ("a\n1\n", vrta("print " + dom + " t --csv").out);
}

// A column is a number only when a number keeps each value exactly; a
// column forced to num stops at the first value it would change.
TEST(CliTables, LoadNeverChangesAValueSilently) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.path();
    const char* csv =
        "zip,big,odd,price,small,n\n"
        "01234,12345678901234567890,9007199254740993,1.50,0.30000000000000004,7\n"
        "99,1,2,2,0.1,-8\n";
    vrtatest::writeFile(tmp.file("v.csv"), csv);
    Result r = vrta("load " + dom + " v " + tmp.file("v.csv"));
    ASSERT_EQ(0, r.status) << r.err;
    r = vrta("describe " + dom + " v");
    for (const char* col : {"zip    char(5)", "big    char(20)", "odd    char(16)", "price  num", "small  num", "n      num"})
        EXPECT_TRUE(has(r.out, col)) << col << "\n" << r.out;
    r = vrta("print " + dom + " v --csv");
    EXPECT_EQ("zip,big,odd,price,small,n\n"
              "01234,12345678901234567890,9007199254740993,1.5,0.30000000000000004,7\n"
              "99,1,2,2,0.1,-8\n",
              r.out);

    for (const char* forced : {"zip", "big", "odd"}) {
        r = vrta("load " + dom + " f " + tmp.file("v.csv") + " --types " + forced + ":num");
        EXPECT_EQ(1, r.status) << forced;
        EXPECT_TRUE(has(r.err, "v.csv:2: '")) << r.err;
        EXPECT_TRUE(has(r.err, "' in column '" + std::string(forced) + "' cannot be kept exactly as a number")) << r.err;
        EXPECT_TRUE(files(dom, "f.").empty()) << forced;
    }
    EXPECT_TRUE(has(vrta("load " + dom + " f " + tmp.file("v.csv") + " --types odd:num").err, "'9007199254740993'"));
    r = vrta("load --help");
    EXPECT_TRUE(has(r.out, "trailing\nblanks of a value are padding")) << r.out;
}

TEST(CliTables, CompressedAndEncryptedTablesPrintLikeThePlainOne) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.path(), csv = "id,word\n";
    for (int i = 1; i <= 3000; ++i) csv += std::to_string(i) + ",w" + std::to_string(i % 17) + "\n";
    vrtatest::writeFile(tmp.file("w.csv"), csv);
    ASSERT_EQ(0, vrta("load " + dom + " plain " + tmp.file("w.csv")).status);
    Result r = vrta("load " + dom + " packed " + tmp.file("w.csv") + " --compress vrtarlc2");
    ASSERT_EQ(0, r.status) << r.err;
    r = vrta("load " + dom + " hidden " + tmp.file("w.csv") + " --encrypt VRTACRYP --key s3cret");
    ASSERT_EQ(0, r.status) << r.err;

    std::string plain = vrta("print " + dom + " plain --csv").out;
    EXPECT_EQ(csv, plain);
    EXPECT_EQ(plain, vrta("print " + dom + " packed --csv").out);
    EXPECT_EQ(plain, vrta("print " + dom + " hidden --csv --key s3cret").out);
    EXPECT_TRUE(has(vrta("describe " + dom + " packed").out, "compression:   VRTARLC2"));
    EXPECT_TRUE(has(vrta("describe " + dom + " hidden --key s3cret").out, "encryption:    VRTACRYP"));
    r = vrta("print " + dom + " packed --last 2 --csv");
    EXPECT_EQ("id,word\n2999,w7\n3000,w8\n", r.out);

    r = vrta("print " + dom + " hidden --key wrong");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "key is not valid")) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    r = vrta("load " + dom + " x " + tmp.file("w.csv") + " --encrypt VRTACRYP");
    EXPECT_EQ(2, r.status);
    r = vrta("load " + dom + " x " + tmp.file("w.csv") + " --compress NOSUCHX");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(files(dom, "x.").empty());
}

}  // namespace

namespace {

// Table options in the host's form go through the engine's parser; an option
// a command cannot honour is refused, never dropped.
TEST(CliTables, TableOptionsInTheHostsForm) {
    vrtatest::TempDir tmp;
    const std::string dom = tmp.file("dom");
    vrtatest::writeFile(tmp.file("n.csv"), "n\n1\n2\n3\n4\n5\n");
    Result r = vrta("load " + dom + " t " + tmp.file("n.csv") + " --opt \"COMPRESS=VRTARLC2 LABEL='Five rows'\"");
    ASSERT_EQ(r.status, 0) << r.err;
    r = vrta("describe " + dom + " t");
    EXPECT_TRUE(has(r.out, "label:         Five rows")) << r.out;
    EXPECT_TRUE(has(r.out, "compression:   VRTARLC2")) << r.out;

    EXPECT_EQ(vrta("print " + dom + " t --csv --opt \"STARTOBS=2 ENDOBS=4\"").out, "n\n2\n3\n4\n");
    EXPECT_EQ(vrta("print " + dom + " t --csv --opt \"STARTOBS=4\"").out, "n\n4\n5\n");
    EXPECT_EQ(vrta("print " + dom + " t --csv --first 1 --opt \"STARTOBS=3\"").out, "n\n3\n");
    EXPECT_EQ(vrta("print " + dom + " t --csv --opt \"ENDOBS=9\"").out, "n\n1\n2\n3\n4\n5\n");

    for (const char* bad : {"STARTOBS=4 ENDOBS=2", "NUMGEN=1", "STARTOBS=0", "SERVER=x"}) {
        r = vrta("print " + dom + " t --opt \"" + bad + "\"");
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.out, "") << bad;
    }
    EXPECT_EQ(vrta("print " + dom + " t --last 1 --opt \"STARTOBS=2\"").status, 2);

    // The key of an encrypted table as PW: in quotes it keeps its case.
    ASSERT_EQ(vrta("load " + dom + " s " + tmp.file("n.csv") + " --encrypt VRTACRYP --key Secret").status, 0);
    EXPECT_EQ(vrta("print " + dom + " s --csv --opt \"PW='Secret' ENDOBS=1\"").out, "n\n1\n");
    EXPECT_TRUE(has(vrta("describe " + dom + " s --opt \"READ='Secret'\"").out, "rows:          5"));
    EXPECT_NE(vrta("print " + dom + " s --opt \"PW=Secret\"").status, 0);
    EXPECT_EQ(vrta("print " + dom + " s --key Secret --opt \"PW='Secret'\"").status, 2);
    r = vrta("load " + dom + " u " + tmp.file("n.csv") + " --opt \"COMPRESS=YES\"");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(files(dom, "u.").empty());
    EXPECT_EQ(vrta("load " + dom + " u " + tmp.file("n.csv") + " --compress VRTALZWC --opt \"COMPRESS=VRTARLC2\"").status,
              2);
}

}  // namespace

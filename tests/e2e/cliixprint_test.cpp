// vrta print --index: the rows an index finds for a value or a range are
// the rows a full print shows with that value, in the same order; and the
// mistakes a user can make get a clear message.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cliutil.h"
#include "testutil.h"

namespace {

using vrtatest::has;
vrtatest::Result runvrta(const std::string& args) { return vrtatest::vrta(args); }

std::vector<std::string> lines(const std::string& s) {
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// The lines of a CSV print (header first) whose field col passes keep.
template <class F>
std::string filtered(const std::string& csv, int col, F keep) {
    std::string out;
    auto ls = lines(csv);
    for (size_t i = 0; i < ls.size(); ++i) {
        std::vector<std::string> f;
        std::istringstream in(ls[i]);
        for (std::string x; std::getline(in, x, ',');) f.push_back(x);
        if (i == 0 || (static_cast<int>(f.size()) > col && keep(f[static_cast<size_t>(col)]))) out += ls[i] + "\n";
    }
    return out;
}

}  // namespace

TEST(CliIndexPrint, RowsThroughTheIndexAreTheRowsWithTheValue) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("dom"), csv = tmp.file("p.csv");
    std::string text = "id,name,score\n";
    for (int i = 1; i <= 900; ++i)
        text += std::to_string(i) + ",n" + std::to_string(i * 7 % 23) + "," + std::to_string((i * 37) % 101 - 20) + "\n";
    vrtatest::writeFile(csv, text);
    ASSERT_EQ(0, runvrta("load " + dom + " people " + csv + " --index score").status);
    ASSERT_EQ(0, runvrta("index create " + dom + " people byname --on name,id").status);
    vrtatest::Result all = runvrta("print " + dom + " people --csv");
    ASSERT_EQ(0, all.status) << all.err;

    for (int v : {-20, 0, 17, 80, 81, 500}) {
        vrtatest::Result r = runvrta("print " + dom + " people --csv --index score --eq " + std::to_string(v));
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(filtered(all.out, 2, [v](const std::string& x) { return std::stoi(x) == v; }), r.out) << v;
    }
    struct R {
        std::string arg;
        int lo, hi;
    };
    for (const R& q : {R{"-5..10", -5, 10}, R{"..-15", -1000, -15}, R{"70..", 70, 1000}, R{"3..3", 3, 3}, R{"90..95", 90, 95}}) {
        vrtatest::Result r = runvrta("print " + dom + " people --csv --index score --range " + q.arg);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(filtered(all.out, 2, [&q](const std::string& x) { return std::stoi(x) >= q.lo && std::stoi(x) <= q.hi; }),
                  r.out)
            << q.arg;
    }
    // A value of the first column of a two-column index, and --first.
    vrtatest::Result r = runvrta("print " + dom + " people --csv --index byname --eq n5");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(filtered(all.out, 1, [](const std::string& x) { return x == "n5"; }), r.out);
    r = runvrta("print " + dom + " people --csv --first 2 --index byname --eq n5");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(3u, lines(r.out).size()) << r.out;

    // Mistakes.
    r = runvrta("print " + dom + " people --index score --eq abc");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "is not a number")) << r.err;
    r = runvrta("print " + dom + " people --index score --range 9..2");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "above its high end")) << r.err;
    r = runvrta("print " + dom + " people --index byname --eq averyveryverylongname");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "longer than the column")) << r.err;
    r = runvrta("print " + dom + " people --index nosuch --eq 1");
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "no index 'nosuch'")) << r.err;
    EXPECT_EQ(2, runvrta("print " + dom + " people --index score").status);
    EXPECT_EQ(2, runvrta("print " + dom + " people --eq 3").status);
    EXPECT_EQ(2, runvrta("print " + dom + " people --index score --eq 3 --range 1..2").status);
    EXPECT_EQ(2, runvrta("print " + dom + " people --index score --range 12").status);
}

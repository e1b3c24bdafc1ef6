// vrta sort as a user runs it: a table sorted on mixed keys in a little
// memory and in plenty, its order recorded, bad requests refused cleanly.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cliutil.h"

namespace {

using vrtatest::files;
using vrtatest::has;
using vrtatest::Result;
using vrtatest::vrta;

struct Row {
    int id;
    std::string grp;
    bool missing;
    double val;
};

// The ids of a printed CSV, in order.
std::vector<int> ids(const std::string& csv) {
    std::vector<int> v;
    std::istringstream in(csv);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line))
        if (!line.empty()) v.push_back(std::stoi(line.substr(0, line.find(','))));
    return v;
}

}  // namespace

TEST(CliSort, SortsOnMixedKeysInLittleOrMuchMemoryAndRecordsTheOrder) {
    ASSERT_EQ(access(VRTA_TOOLS_DIR "/vrta", X_OK), 0) << "the vrta tool is not built";
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    std::mt19937 rng(5);
    std::vector<Row> rows;
    std::string csv = "id,grp,val,pad\n";
    const char* groups[] = {"ant", "bee", "b", "cat", "ab"};
    for (int i = 1; i <= 3000; ++i) {
        Row r{i, groups[rng() % 5], rng() % 7 == 0, static_cast<double>(static_cast<int>(rng() % 41) - 20) / 4};
        rows.push_back(r);
        csv += std::to_string(i) + "," + r.grp + "," + (r.missing ? "" : std::to_string(r.val)) + ",xxxxxxxxxxxxxxxx\n";
    }
    vrtatest::writeFile(tmp.file("in.csv"), csv);
    ASSERT_EQ(0, vrta("load " + dom + " t " + tmp.file("in.csv") + " --types val:num").status);

    // Group ascending, value descending (a missing value is the lowest, so it
    // comes last), equal keys in input order.
    auto want = rows;
    std::stable_sort(want.begin(), want.end(), [](const Row& a, const Row& b) {
        if (a.grp != b.grp) return a.grp < b.grp;
        if (a.missing != b.missing) return b.missing;
        return !a.missing && a.val > b.val;
    });
    std::vector<int> wantids;
    for (auto& r : want) wantids.push_back(r.id);

    // 64K holds a fraction of the rows: the sort spills and merges.
    for (const char* mem : {" --memory 64K", " --memory 1m", ""}) {
        SCOPED_TRACE(mem);
        Result r = vrta("sort " + dom + " t --by 'grp ,VAL desc' --out s" + mem);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(wantids, ids(vrta("print " + dom + " s --csv").out));
        Result d = vrta("describe " + dom + " s");
        EXPECT_TRUE(has(d.out, "sorted by:     grp, val DESC")) << d.out;
        EXPECT_TRUE(has(d.out, "rows:          3000"));
        ASSERT_EQ(0, vrta("drop " + dom + " s").status);
    }
    EXPECT_FALSE(has(vrta("describe " + dom + " t").out, "sorted by"));

    // Bad requests: a clear message, exit status 2 for bad usage, no table made.
    struct Bad { std::string args, msg; int status; };
    for (const Bad& b : {Bad{"--by nope --out s", "no column 'nope'", 2},
                         Bad{"--by 'grp,GRP' --out s", "named twice", 2},
                         Bad{"--by 'grp up' --out s", "ASC or DESC", 2},
                         Bad{"--by 'grp,' --out s", "empty item", 2},
                         Bad{"--by grp --out s --memory 12Q", "not a size", 2},
                         Bad{"--by grp --out s --memory 1K", "at least 64K", 2},
                         Bad{"--by grp --out T", "not the input", 2},
                         Bad{"--by grp --out t", "not the input", 2},
                         Bad{"--by grp", "needs DOMAIN_DIR", 2}}) {
        Result r = vrta("sort " + dom + " t " + b.args);
        EXPECT_EQ(b.status, r.status) << b.args;
        EXPECT_TRUE(has(r.err, b.msg)) << b.args << ": " << r.err;
    }
    EXPECT_TRUE(files(dom, "s.").empty());
    ASSERT_EQ(0, vrta("sort " + dom + " t --by id --out s").status);
    Result again = vrta("sort " + dom + " t --by id --out s");
    EXPECT_EQ(1, again.status);
    EXPECT_TRUE(has(again.err, "already exists"));
}

TEST(CliSort, CopyKeepsTheInputsExitAndKeyUnlessToldOtherwise) {
    ASSERT_EQ(access(VRTA_TOOLS_DIR "/vrta", X_OK), 0) << "the vrta tool is not built";
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    std::string csv = "id,word\n";
    for (int i = 1; i <= 500; ++i) csv += std::to_string((i * 37) % 500) + ",PLAINWORD" + std::to_string(i) + "\n";
    vrtatest::writeFile(tmp.file("in.csv"), csv);
    ASSERT_EQ(0, vrta("load " + dom + " e " + tmp.file("in.csv") + " --encrypt VRTACRYP --key tiger7").status);
    ASSERT_EQ(0, vrta("load " + dom + " c " + tmp.file("in.csv") + " --compress VRTARLC2").status);
    auto rawHasRows = [&](const std::string& table) {
        std::string all;
        for (const std::string& f : files(dom, table + "."))
            all += vrtatest::readFile(dom + "/" + f);
        return has(all, "PLAINWORD");
    };
    ASSERT_FALSE(rawHasRows("e"));

    // By default the copy is encrypted as the input is, with its key.
    Result r = vrta("sort " + dom + " e --by id --out s1 --key tiger7");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_FALSE(rawHasRows("s1"));
    EXPECT_NE(0, vrta("describe " + dom + " s1").status);
    Result d = vrta("describe " + dom + " s1 --key tiger7");
    EXPECT_TRUE(has(d.out, "encryption:    VRTACRYP")) << d.out;
    EXPECT_TRUE(has(d.out, "sorted by:     id")) << d.out;
    EXPECT_EQ("id,word\n0,PLAINWORD500\n1,PLAINWORD473\n",
              vrta("print " + dom + " s1 --key tiger7 --csv").out.substr(0, 38));

    // Asked otherwise: a new key, a plain copy, a compressed one.
    ASSERT_EQ(0, vrta("sort " + dom + " e --by id --out s2 --key tiger7 --out-key lion9").status);
    EXPECT_NE(0, vrta("describe " + dom + " s2 --key tiger7").status);
    EXPECT_TRUE(has(vrta("describe " + dom + " s2 --key lion9").out, "encryption:    VRTACRYP"));
    ASSERT_EQ(0, vrta("sort " + dom + " e --by id --out s3 --key tiger7 --encrypt no").status);
    EXPECT_TRUE(rawHasRows("s3"));
    ASSERT_EQ(0, vrta("sort " + dom + " c --by id --out s4").status);
    EXPECT_TRUE(has(vrta("describe " + dom + " s4").out, "compression:   VRTARLC2"));
    ASSERT_EQ(0, vrta("sort " + dom + " c --by id --out s5 --compress NO --encrypt VRTACRYP --key puma3").status);
    d = vrta("describe " + dom + " s5 --key puma3");
    EXPECT_TRUE(has(d.out, "compression:   none") && has(d.out, "encryption:    VRTACRYP")) << d.out;

    // Never a plain copy of an encrypted table by the way; clear refusals.
    struct Bad { std::string args, msg; };
    for (const Bad& b : {Bad{"e --by id --out x --key tiger7 --compress VRTARLC2", "add --encrypt NO"},
                         Bad{"c --by id --out x --encrypt VRTACRYP", "compressed with VRTARLC2 and encrypted"},
                         Bad{"c --by id --out x --compress NO --encrypt VRTACRYP", "needs --key or --out-key"},
                         Bad{"c --by id --out x --out-key k1", "only for an encrypted copy"},
                         Bad{"e --by id --out x --key tiger7 --out-key thirteenchars", "1 to 12 characters"},
                         Bad{"e --by id --out x --key '   '", "blank"},
                         Bad{"c --by id --out x --compress .HIDE", "kept for the system"},
                         Bad{"c --by id --out x --compress TOOLONGNAME", "not an exit name"}}) {
        Result x = vrta("sort " + dom + " " + b.args);
        EXPECT_EQ(2, x.status) << b.args;
        EXPECT_TRUE(has(x.err, b.msg)) << b.args << ": " << x.err;
    }
    Result nox = vrta("sort " + dom + " c --by id --out x --compress NOSUCHXC");
    EXPECT_EQ(1, nox.status);
    EXPECT_TRUE(files(dom, "x.").empty());
}

namespace {

// vrta run with its writes under prefix failing with ENOSPC after budget new
// bytes; pid gets the process id of vrta itself.
Result vrtaFull(const std::string& args, const std::string& prefix, long budget, long* pid) {
    vrtatest::TempDir tmp;
    std::string errf = tmp.file("err");
    vrtatest::CmdResult c = vrtatest::runCommand(
        "echo $$; exec env LD_PRELOAD=" VRTA_BINARY_DIR "/libvrtafull.so VRTA_TEST_FULL='" + prefix +
        "' VRTA_TEST_FULL_AFTER=" + std::to_string(budget) +
        " ASAN_OPTIONS=\"$ASAN_OPTIONS:verify_asan_link_order=0\" " VRTA_TOOLS_DIR "/vrta " + args + " 2>" + errf);
    Result r;
    r.status = c.status;
    size_t nl = c.out.find('\n');
    *pid = nl == std::string::npos ? 0 : std::stol(c.out.substr(0, nl));
    r.out = nl == std::string::npos ? c.out : c.out.substr(nl + 1);
    r.err = vrtatest::readFile(errf);
    return r;
}

}  // namespace

TEST(CliSort, AFullWorkOrDomainPathEndsTheSortClearlyAndLeavesNothing) {
    vrtatest::TempDir tmp;
    std::string dom = tmp.file("d");
    std::string csv = "id,word\n";
    for (int i = 1; i <= 20000; ++i) csv += std::to_string((i * 7919) % 20000) + ",w" + std::to_string(i) + "\n";
    vrtatest::writeFile(tmp.file("in.csv"), csv);
    ASSERT_EQ(0, vrta("load " + dom + " t " + tmp.file("in.csv")).status);
    std::string before = vrta("print " + dom + " t --csv").out;

    // The work path is the default one; only this process's writes fail.
    long pid = 0;
    Result r = vrtaFull("sort " + dom + " t --by id --out s --memory 64K", "/var/tmp/", 100000, &pid);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "no space left on the work path /var/tmp")) << r.err;
    EXPECT_TRUE(files(dom, "s.").empty());
    char mine[32];
    snprintf(mine, sizeof mine, "vrtasr_%8.8lX", pid);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(files("/var/tmp", mine).empty());

    // The copy fills the domain while the merge runs.
    r = vrtaFull("sort " + dom + " t --by id --out s --memory 64K", dom + "/", 50000, &pid);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "Member=s Reason=No space left on any path of the table")) << r.err;
    EXPECT_TRUE(files(dom, "s.").empty());
    snprintf(mine, sizeof mine, "vrtasr_%8.8lX", pid);
    EXPECT_TRUE(files("/var/tmp", mine).empty());
    EXPECT_EQ(before, vrta("print " + dom + " t --csv").out);
    EXPECT_EQ(0, vrta("sort " + dom + " t --by id --out s --memory 64K").status);
}

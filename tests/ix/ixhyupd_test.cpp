// Changes to a hybrid index (rows deleted, rows moved to another value,
// appends in between, a unique index cut back) against a model of value ->
// rows, read back by the independent reader: rows, forms at their
// thresholds, and the header's counts of values, chunks and deletions.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "hbxread.h"
#include "hyfiles.h"
#include "ix/ixhy.h"

using namespace vrta;
using namespace hbxtest;

namespace {

// The header's counts against what the reader met in the files.
void countsagree(Files& f, const Model& m, int64_t deleted_values) {
    Hbx seen(f.hbxpath);
    EXPECT_EQ(m, f.read(&seen));
    EXPECT_EQ(7, seen.state);
    EXPECT_EQ(IXH_GOOD, seen.dstate);
    EXPECT_EQ(static_cast<int64_t>(m.size()), seen.nvalues);
    EXPECT_EQ(deleted_values, seen.seendeleted);
    EXPECT_EQ(seen.seendeleted, seen.nvdeletes);
    EXPECT_EQ(seen.seensegl, seen.nsegl);
    EXPECT_EQ(seen.seenchunks, seen.nchunks);
}

}  // namespace

// Rounds of random deletes and moves of rows between values (old values,
// new ones, values deleted before), some rounds with appended rows before
// or after the changes, at segment sizes from one row up; every round is
// read back and compared with the model.
TEST(HybridIndexUpdate, RandomChangesMatchAModel) {
    int64_t n = getenv("VRTA_LONG") ? 20000 : 2500;
    int rounds = getenv("VRTA_LONG") ? 12 : 5;
    for (int64_t segsize : {1, 8, 33, 700, 16384}) {
        for (int distinct : {2, 40, 3000}) {
            SCOPED_TRACE("segsize " + std::to_string(segsize) + " distinct " + std::to_string(distinct));
            std::mt19937 rng(static_cast<unsigned>(segsize * 7 + distinct));
            std::vector<std::string> keys(n);
            for (auto& k : keys) k = keyof(static_cast<int>(rng() % distinct));
            int64_t cut = n / 2;
            Files f;
            f.open(true);
            IXH_HEADER_B* h = nullptr;
            ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, segsize, 0, &f.skb, cut, 1, &h));
            ASSERT_EQ(0, addsorted(h, keys, 1, cut));
            ASSERT_EQ(0, ixhyfin(h, nullptr));
            f.close();
            // Keys in the tree: a value stays there, marked, when its rows go.
            std::set<std::string> intree(keys.begin(), keys.begin() + cut);
            for (int round = 0; round < rounds; ++round) {
                SCOPED_TRACE("round " + std::to_string(round));
                int64_t from = cut;
                int64_t upto = round % 2 ? std::min(n, cut + n / 10) : cut;
                f.open(false);
                ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, segsize, 0, &f.skb, from, upto, 1, &h));
                bool appendfirst = round % 4 == 1;
                if (appendfirst) {
                    ASSERT_EQ(0, addunsorted(h, keys, from + 1, upto));
                    intree.insert(keys.begin() + from, keys.begin() + upto);
                }
                int64_t limit = appendfirst ? upto : from;
                int changes = static_cast<int>(rng() % (limit / 3 + 1));
                for (int c = 0; c < changes; ++c) {
                    int64_t r = 1 + static_cast<int64_t>(rng() % limit);
                    std::string& k = keys[r - 1];
                    if (k.empty()) {
                        // A deleted row is in no value: deleting it there is refused.
                        continue;
                    }
                    if (rng() % 3 == 0) {
                        ASSERT_EQ(0, ixhydelete(h, k.data(), r));
                        k.clear();
                    } else {
                        // Another value, at times one no row had yet.
                        std::string to = keyof(static_cast<int>(rng() % (distinct + distinct / 4 + 2)));
                        ASSERT_EQ(0, ixhyupdt(h, k.data(), to.data(), r));
                        k = to;
                    }
                }
                if (!appendfirst && upto > from) {
                    ASSERT_EQ(0, addsorted(h, keys, from + 1, upto));
                }
                IXH_STATS st{};
                ASSERT_EQ(0, ixhyfin(h, &st));
                EXPECT_EQ(upto, st.rows);
                f.close();
                cut = upto;
                Model m = modelof(keys, cut);
                for (auto& [k, rows] : m) intree.insert(k);
                countsagree(f, m, static_cast<int64_t>(intree.size() - m.size()));
            }
        }
    }
}

// The forms as rows leave and join: a map falling to the list size is
// stored as a list, a chain of segments brought down to one becomes a
// one-segment value with its chunk given up, the last row's going marks the
// value deleted, and a row joining it again takes the same key back. A row
// that isn't in its value, or a value that doesn't exist, is told apart.
TEST(HybridIndexUpdate, FormsFollowTheRowsBothWays) {
    const int64_t segsize = 16384;  // lists of up to 4 rows
    Files f;
    f.open(true);
    IXH_HEADER_B* h = nullptr;
    int64_t n = 3 * segsize;
    std::vector<std::string> keys(n);
    for (int64_t r : {100, 200, 300, 400, 500}) keys[r - 1] = keyof(3);  // a map of 5
    keys[5] = keyof(4);                                                    // two segments
    keys[segsize + 5] = keyof(4);
    keys[2 * segsize + 9] = keyof(4);
    keys[7] = keyof(5);
    ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, segsize, 0, &f.skb, n, 1, &h));
    ASSERT_EQ(0, addsorted(h, keys, 1, n));
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();
    Hbx before(f.hbxpath);
    f.read(&before);
    EXPECT_EQ(1, before.nchunks);
    EXPECT_EQ(1, before.nsegl);

    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, segsize, 0, &f.skb, n, n, 1, &h));
    std::string k3 = keyof(3), k4 = keyof(4), k5 = keyof(5), k9 = keyof(9);
    ASSERT_EQ(0, ixhydelete(h, k3.data(), 300));         // 5 rows to 4: a list
    ASSERT_EQ(0, ixhydelete(h, k4.data(), segsize + 6));  // three segments to two
    ASSERT_EQ(0, ixhydelete(h, k4.data(), 2 * segsize + 10));  // and to one
    ASSERT_EQ(0, ixhydelete(h, k5.data(), 8));            // the value's last row
    ASSERT_EQ(0, ixhydelete(h, k9.data(), 8));            // no such value: nothing
    keys[299].clear();
    keys[segsize + 5].clear();
    keys[2 * segsize + 9].clear();
    keys[7].clear();
    IXH_STATS st{};
    ASSERT_EQ(0, ixhyfin(h, &st));
    EXPECT_EQ(2, st.n_values);  // 3 and 4
    f.close();
    Model m = modelof(keys, n);
    countsagree(f, m, 1);
    Hbx after(f.hbxpath);
    f.read(&after);
    EXPECT_EQ(0, after.nchunks);
    EXPECT_EQ(0, after.nsegl);
    EXPECT_GT(at<double>(after.f, 64), at<double>(before.f, 64));  // the chunk's bytes given up

    // The deleted value back, through an update; a move to the same value changes nothing.
    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, segsize, 0, &f.skb, n, n, 1, &h));
    ASSERT_EQ(0, ixhyupdt(h, k3.data(), k5.data(), 100));
    ASSERT_EQ(0, ixhyupdt(h, k3.data(), k3.data(), 200));
    keys[99] = k5;
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();
    m = modelof(keys, n);
    countsagree(f, m, 0);

    // A row that isn't the value's is an inconsistency, and the index is left to be rebuilt.
    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, segsize, 0, &f.skb, n, n, 1, &h));
    EXPECT_EQ(IX_INCONSIST, ixhydelete(h, k3.data(), 101));
    EXPECT_EQ(IX_INCONSIST, ixhydelete(h, k3.data(), 200));  // the first refusal sticks
    EXPECT_EQ(IX_INCONSIST, ixhyfin(h, nullptr));
    f.close();
    Hbx broken(f.hbxpath);
    EXPECT_EQ(13, broken.state);
    EXPECT_EQ(IXH_CANNOT_BE_REPAIRED, broken.dstate);
}

// A unique index: a row deleted marks its value, an update to a value held
// by another row is refused and changes nothing, a freed value can be taken
// by another row, and a truncate forgets the rows after a point.
TEST(HybridIndexUpdate, UniqueIndexChangesAndTruncate) {
    Files f;
    f.open(true);
    IXH_HEADER_B* h = nullptr;
    const int64_t n = 300;
    std::vector<std::string> keys(n);
    for (int64_t i = 0; i < n; ++i) keys[i] = keyof(static_cast<int>(i * 7 % n));
    ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, 16, IXH_OUNIQUE, &f.skb, n, 1, &h));
    ASSERT_EQ(0, addsorted(h, keys, 1, n));
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();

    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, 16, IXH_OUNIQUE, &f.skb, n, n, 1, &h));
    ASSERT_EQ(0, ixhydelete(h, keys[9].data(), 10));
    std::string freed = keys[9];
    keys[9].clear();
    EXPECT_EQ(IX_DUPKEY, ixhyupdt(h, keys[19].data(), keys[29].data(), 20));
    ASSERT_EQ(0, ixhyupdt(h, keys[19].data(), freed.data(), 20));
    keys[19] = freed;
    std::string fresh = keyof(5000);
    ASSERT_EQ(0, ixhyupdt(h, keys[39].data(), fresh.data(), 40));
    keys[39] = fresh;
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();
    Model m = modelof(keys, n);
    countsagree(f, m, 2);  // the old values of rows 20 and 40

    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, 16, IXH_OUNIQUE, &f.skb, n, n, 1, &h));
    ASSERT_EQ(0, ixhytruncate(h, 250));
    IXH_STATS st{};
    ASSERT_EQ(0, ixhyfin(h, &st));
    EXPECT_EQ(250, st.rows);
    f.close();
    m = modelof(keys, 250);
    countsagree(f, m, 52);
    // A non-unique index is rebuilt, never cut back.
    Files g;
    g.open(true);
    ASSERT_EQ(0, ixhycreat(g.hbx, g.idx, KEYLEN, 16, 0, &g.skb, n, 1, &h));
    ASSERT_EQ(0, addsorted(h, keys, 1, 250));
    EXPECT_EQ(IX_INCONSIST, ixhytruncate(h, 10));
    EXPECT_EQ(0, ixhyabort(h));
}

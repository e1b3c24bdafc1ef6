// The hybrid index written from rows against the rows themselves: sorted,
// unsorted and appended builds at several segment sizes, read back by an
// independent reader of the files; unique indexes; the forms a segment
// takes at their thresholds.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "hbxread.h"
#include "hyfiles.h"
#include "ix/ixhy.h"
#include "testutil.h"

using namespace vrta;
using namespace hbxtest;

// Builds in one go, sorted or not, and builds appended in pieces (sorted and
// unsorted, through reopens) all give the files the rows say, at segment
// sizes from 1 row up, with few and with many values.
TEST(HybridIndex, BuildsAndAppendsMatchTheRows) {
    int64_t n = getenv("VRTA_LONG") ? 20000 : 3000;
    for (int64_t segsize : {1, 8, 33, 1000, 16384}) {
        for (int distinct : {3, 150, 100000}) {
            for (int how = 0; how < 3; ++how) {
                SCOPED_TRACE("segsize " + std::to_string(segsize) + " distinct " + std::to_string(distinct) +
                             " how " + std::to_string(how));
                std::mt19937 rng(static_cast<unsigned>(segsize * 31 + distinct + how));
                std::vector<std::string> keys(n);
                for (auto& k : keys) k = rng() % 11 == 0 ? "" : keyof(static_cast<int>(rng() % distinct));
                Files f;
                f.open(true);
                IXH_HEADER_B* h = nullptr;
                int64_t cut = how == 0 ? n : n / 3;
                ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, segsize, 0, &f.skb, cut, 1, &h));
                ASSERT_EQ(0, how == 1 ? addunsorted(h, keys, 1, cut) : addsorted(h, keys, 1, cut));
                IXH_STATS st{};
                ASSERT_EQ(0, ixhyfin(h, &st));
                EXPECT_EQ(cut, st.rows);
                f.close();
                Model m = modelof(keys, cut);
                EXPECT_EQ(m, f.read());
                EXPECT_EQ(static_cast<int64_t>(m.size()), st.n_values);
                for (int64_t from = cut + 1; from <= n; from = cut + 1) {
                    // More rows, some in the last segment again, some values new.
                    cut = std::min<int64_t>(n, from + static_cast<int64_t>(rng() % (n / 2)) + 1);
                    f.open(false);
                    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, segsize, 0, &f.skb, from - 1, cut, 1, &h));
                    ASSERT_EQ(0, rng() % 2 ? addunsorted(h, keys, from, cut) : addsorted(h, keys, from, cut));
                    ASSERT_EQ(0, ixhyfin(h, &st));
                    EXPECT_EQ(cut, st.rows);
                    f.close();
                    m = modelof(keys, cut);
                    ASSERT_EQ(m, f.read()) << "after rows " << from << ".." << cut;
                    Hbx hx(f.hbxpath);
                    EXPECT_EQ(7, hx.state);
                    EXPECT_EQ(0, hx.dstate);
                    EXPECT_EQ(static_cast<int64_t>(m.size()), hx.nvalues);
                }
            }
        }
    }
}

// A unique index keeps one row a value in the tree alone, and refuses a
// second row of a value, in one build or an append.
TEST(HybridIndex, UniqueIndexRefusesASecondRow) {
    Files f;
    f.open(true);
    IXH_HEADER_B* h = nullptr;
    ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, 64, IXH_OUNIQUE, &f.skb, 500, 1, &h));
    std::vector<std::string> keys(500);
    for (int i = 0; i < 500; ++i) keys[i] = keyof(i * 7 % 500);
    ASSERT_EQ(0, addsorted(h, keys, 1, 500));
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();
    EXPECT_EQ(modelof(keys, 500), f.read());
    EXPECT_EQ(static_cast<int64_t>(536 + KEYLEN), static_cast<int64_t>(vrtatest::readFile(f.hbxpath).size()));
    // A value again, in an append: refused, and the index says so.
    keys.push_back(keyof(3));
    f.open(false);
    ASSERT_EQ(0, ixhyapnd(f.hbx, f.idx, 64, IXH_OUNIQUE, &f.skb, 500, 501, 1, &h));
    hs_obsno_t other = 0;
    EXPECT_EQ(0, ixhyfind(h, keys[500].data(), 501, &other));
    EXPECT_EQ(430, other);  // the row whose key 7 x (row - 1) mod 500 is 3
    EXPECT_EQ(IX_DUPKEY, addsorted(h, keys, 501, 501));
    EXPECT_EQ(IX_DUPKEY, ixhyfin(h, nullptr));
    f.close();
    Hbx hx(f.hbxpath);
    EXPECT_EQ(13, hx.state);
    EXPECT_NE(0, hx.dstate);
    // Two rows of one value in one build.
    Files g;
    g.open(true);
    ASSERT_EQ(0, ixhycreat(g.hbx, g.idx, KEYLEN, 64, IXH_OUNIQUE, &g.skb, 2, 1, &h));
    std::vector<std::string> two = {keyof(1), keyof(1)};
    EXPECT_EQ(IX_DUPKEY, addsorted(h, two, 1, 2));
    EXPECT_EQ(IX_DUPKEY, ixhyfin(h, nullptr));
}

// The form of a segment at its thresholds: one row in the entry, up to the
// list size a list, one more a bitmap; a value with one row costs no space
// in .hbx, and a value in two segments makes a chunk of two entries.
TEST(HybridIndex, SegmentFormsFollowTheirThresholds) {
    const int64_t segsize = 16384;  // maps of 2048 bytes: lists of up to 4 rows
    Files f;
    f.open(true);
    IXH_HEADER_B* h = nullptr;
    int64_t n = 3 * segsize;
    ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, segsize, 0, &f.skb, n, 1, &h));
    EXPECT_EQ(4, h->disk.max_obslist_size);
    std::vector<std::string> keys(n);
    keys[9] = keyof(1);                                                  // one row
    for (int64_t r : {100, 200, 300, 400}) keys[r - 1] = keyof(2);      // a list of 4
    for (int64_t r : {100, 200, 300, 400, 500}) keys[r] = keyof(3);     // a map of 5
    keys[5] = keyof(4);                                                  // two segments
    keys[segsize + 5] = keyof(4);
    ASSERT_EQ(0, addsorted(h, keys, 1, n));
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    f.close();
    EXPECT_EQ(modelof(keys, n), f.read());  // the reader checks list and map sizes
    DA_IDX* i = nullptr;
    ASSERT_EQ(0, daopidxf(f.idxpath.c_str(), 0, &i));
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    ASSERT_EQ(0, __bt_open(i, BT_OREAD, &info, nullptr, &db, 0));
    ASSERT_EQ(0, __bt_open(i, BT_OREAD, &info, nullptr, &db, 1));
    auto btof = [&](int v) {
        std::string k = keyof(v);
        DBT kk{k.data(), KEYLEN}, d{};
        EXPECT_EQ(0, db->get(db, &kk, &d, 0));
        IXHYBRID_BTDATA_D b;
        memcpy(&b, d.data, sizeof b);
        return b;
    };
    IXHYBRID_BTDATA_D b1 = btof(1), b2 = btof(2), b3 = btof(3), b4 = btof(4);
    EXPECT_EQ(Bm_One_Bit_Set, ixbt_bm_type(b1));
    EXPECT_EQ(10, b1.obs_data);
    EXPECT_EQ(Bm_Bit_List, ixbt_bm_type(b2));
    EXPECT_EQ(32, b2.seg_data);
    EXPECT_NE(Bm_Bit_List, ixbt_bm_type(b3));
    EXPECT_EQ(0, ixbt_one_segment(b4));
    EXPECT_EQ(2, b4.seg_data);
    EXPECT_EQ(1, ixbt_high_segno(b4));
    db->close(db, -1, nullptr, 1);
    EXPECT_GE(i->mt->closeidx(i, 0), 0);
}

// What a build refuses and what an opener is told: a segment size of 0 or
// less, a row past the 27 bits of segment numbers (the index then needs a
// rebuild), a header cut short, of another version, or left by a failed
// build; and an append of no rows, which leaves the index clean.
TEST(HybridIndex, LimitsAndHeaderStates) {
    Files f;
    f.open(true);
    IXH_HEADER_B* h = nullptr;
    EXPECT_EQ(IX_BADSEGSIZE, ixhycreat(f.hbx, f.idx, KEYLEN, 0, 0, &f.skb, 10, 1, &h));
    EXPECT_EQ(IX_BADSEGSIZE, ixhycreat(f.hbx, f.idx, KEYLEN, -8, 0, &f.skb, 10, 1, &h));
    EXPECT_EQ(IX_BADOPTS, ixhycreat(f.hbx, f.idx, KEYLEN, 8, 4, &f.skb, 10, 1, &h));

    // Segment 0x7FFFFFF is the last one: row 0x8000000 at one row a segment
    // is taken, the row after it is not.
    const int64_t last = IXH_MAXSEGS + 1;
    ASSERT_EQ(0, ixhycreat(f.hbx, f.idx, KEYLEN, 1, 0, &f.skb, last, 1, &h));
    EXPECT_EQ(0, ixhysrtadd(h, record(keyof(1), last - 1).data(), 0, 0));
    EXPECT_EQ(IX_SEGOVERFLOW, ixhysrtadd(h, record(keyof(1), last).data(), 0, 0));
    EXPECT_EQ(IX_SEGOVERFLOW, ixhyfin(h, nullptr));
    f.close();
    {
        Hbx hx(f.hbxpath);
        EXPECT_EQ(13, hx.state);
        EXPECT_EQ(IXH_CANNOT_BE_REPAIRED, hx.dstate);
    }
    f.open(false);
    EXPECT_EQ(IX_NOREPAIR, ixhyapnd(f.hbx, f.idx, 1, 0, &f.skb, 0, last, 1, &h));
    f.close();

    // A good index of 100 rows, then its header spoiled one way at a time.
    Files g;
    g.open(true);
    std::vector<std::string> keys(100);
    for (int i = 0; i < 100; ++i) keys[i] = keyof(i % 7);
    ASSERT_EQ(0, ixhycreat(g.hbx, g.idx, KEYLEN, 16, 0, &g.skb, 100, 1, &h));
    ASSERT_EQ(0, addsorted(h, keys, 1, 100));
    ASSERT_EQ(0, ixhyfin(h, nullptr));
    g.close();
    const std::string good = vrtatest::readFile(g.hbxpath);
    auto with = [&](size_t off, int32_t v) {
        std::string b = good;
        memcpy(b.data() + off, &v, 4);
        return b;
    };
    struct Case {
        std::string bytes;
        rctype want;
    } cases[] = {
        {good.substr(0, 500), IX_READFAIL},
        {with(0, 999), IX_BADVERSION},           // the common header's version
        {with(56, 2), IX_BADVERSION},            // the file's own version
        {with(8, 0), IX_BADSEGSIZE},
        {with(60, IXH_PARTIAL_REPAIR), IX_NEEDREPAIR},
        {with(60, IXH_FULL_REPAIR), IX_NEEDREPAIR},
        {with(60, IXH_CANNOT_BE_REPAIRED), IX_NOREPAIR},
        {with(60, 9), IX_INCONSIST},
        {with(28, 1), IX_INCONSIST},             // a list threshold below 2
    };
    for (const Case& c : cases) {
        vrtatest::writeFile(g.hbxpath, c.bytes);
        g.open(false);
        h = nullptr;
        EXPECT_EQ(c.want, ixhyapnd(g.hbx, g.idx, 16, 0, &g.skb, 100, 100, 1, &h)) << std::hex << c.want;
        EXPECT_EQ(nullptr, h);
        g.close();
    }
    vrtatest::writeFile(g.hbxpath, good);
    g.open(false);
    EXPECT_EQ(IX_INCONSIST, ixhyapnd(g.hbx, g.idx, 32, 0, &g.skb, 100, 100, 1, &h));  // another segment size
    EXPECT_EQ(IX_BADOPTS, ixhyapnd(g.hbx, g.idx, 16, IXH_OUNIQUE, &g.skb, 100, 100, 1, &h));
    EXPECT_EQ(IX_BADOPTS, ixhyapnd(g.hbx, g.idx, 16, IXH_OREPAIR, &g.skb, 100, 100, 1, &h));
    // No rows to add: the index stays as it was, clean.
    ASSERT_EQ(0, ixhyapnd(g.hbx, g.idx, 16, 0, &g.skb, 100, 100, 1, &h));
    IXH_STATS st{};
    ASSERT_EQ(0, ixhyfin(h, &st));
    EXPECT_EQ(100, st.rows);
    g.close();
    Hbx hx(g.hbxpath);
    EXPECT_EQ(7, hx.state);
    EXPECT_EQ(IXH_GOOD, hx.dstate);
    EXPECT_EQ(modelof(keys, 100), g.read());
}

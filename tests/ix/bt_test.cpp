// The B-tree against models: a global tree against std::map, and many
// per-segment trees against the rows that made them, at several page sizes,
// with reopens, rollbacks and dropped appends in between.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "btutil.h"
#include "testutil.h"

using namespace vrta;
using namespace bttest;

namespace {

bool longrun() { return getenv("VRTA_LONG") != nullptr; }

// Walks the tree in hand both ways and compares with the model.
void expectwalk(DB* db, const std::map<std::string, std::string>& model, const std::string& what) {
    DBT k, d;
    auto it = model.begin();
    size_t n = 0;
    rctype rc;
    for (rc = db->seq(db, &k, &d, R_FIRST); rc == 0; rc = db->seq(db, &k, &d, R_NEXT), ++it, ++n) {
        ASSERT_NE(it, model.end()) << what << ": more entries than the model";
        ASSERT_EQ(it->first, str(k)) << what << " entry " << n;
        ASSERT_EQ(it->second, str(d)) << what << " entry " << n;
    }
    ASSERT_EQ(1, rc) << what;
    ASSERT_EQ(it, model.end()) << what << ": fewer entries than the model (" << n << ")";
    auto rit = model.rbegin();
    for (rc = db->seq(db, &k, &d, R_LAST); rc == 0; rc = db->seq(db, &k, &d, R_PREV), ++rit) {
        ASSERT_NE(rit, model.rend()) << what;
        ASSERT_EQ(rit->first, str(k)) << what;
    }
    ASSERT_EQ(1, rc);
    ASSERT_EQ(rit, model.rend()) << what;
}

}  // namespace

TEST(BtreeModel, GlobalTreeMatchesMapAcrossPageSizesAndReopens) {
    vrtatest::TempDir tmp;
    const int rounds = longrun() ? 12 : 5;
    const int ops = longrun() ? 20000 : 2500;
    for (uint32_t psize : {512u, 2048u, 8192u, 65536u}) {
        SCOPED_TRACE("psize " + std::to_string(psize));
        std::mt19937_64 rng(psize * 7919u);
        std::map<std::string, std::string> model;
        std::string path = tmp.file("g" + std::to_string(psize));
        Tree tr;
        ASSERT_TRUE(tr.open(path, BT_OCREATE, globalinfo(psize))) << std::hex << tr.rc;
        ASSERT_EQ(psize, tr.t()->bt_psize);
        for (int round = 0; round < rounds; ++round) {
            BT_PUTINFO pi{};
            for (int i = 0; i < ops; ++i) {
                uint64_t kv = rng() % (ops * 2);
                std::string key = key8(kv), data = key8(rng());
                DBT k = dbt(key), d = dbt(data), out{};
                int op = static_cast<int>(rng() % 100);
                if (op < 45) {
                    ASSERT_EQ(0, tr.db->put(tr.db, &k, &d, 0));
                    model[key] = data;
                } else if (op < 55) {
                    rctype rc = tr.db->put(tr.db, &k, &d, R_NOOVERWRITE);
                    ASSERT_EQ(model.count(key) ? 1 : 0, rc);
                    model.emplace(key, data);
                } else if (op < 70) {
                    // The fast pair: found or put where the last call left off.
                    rctype rc = __bt_hyput(tr.db, &k, &d, &pi);
                    ASSERT_EQ(model.count(key) ? 1 : 0, rc);
                    model[key] = data;
                    ASSERT_EQ(0, __bt_hyget(tr.db, &k, &out, &pi));
                    ASSERT_EQ(data, str(out));
                } else if (op < 85) {
                    rctype rc = tr.db->get(tr.db, &k, &out, 0);
                    auto it = model.find(key);
                    ASSERT_EQ(it == model.end() ? 1 : 0, rc);
                    if (it != model.end()) {
                        ASSERT_EQ(it->second, str(out));
                    }
                } else {
                    rctype rc = tr.db->del(tr.db, &k, nullptr, 0);
                    ASSERT_EQ(model.erase(key) ? 0 : 1, rc);
                }
            }
            expectwalk(tr.db, model, "round " + std::to_string(round));
            BT_STATS st{};
            ASSERT_EQ(0, tr.db->close(tr.db, -1, &st, 1));
            tr.db = nullptr;
            EXPECT_EQ(static_cast<int64_t>(model.size()), st.nrecs);
            EXPECT_EQ(static_cast<int64_t>(model.size()), st.unique_count);
            ASSERT_EQ(0, tr.close());
            // Read back on its own, then open for more.
            ASSERT_TRUE(tr.open(path, BT_OREAD)) << std::hex << tr.rc;
            expectwalk(tr.db, model, "reread " + std::to_string(round));
            ASSERT_TRUE(tr.open(path, BT_OAPPEND)) << std::hex << tr.rc;
        }
    }
}

namespace {

// Rows of a table: the key each row has, "" for a row without one.
struct Rows {
    std::vector<std::string> keys;  // keys[r - 1]
    int64_t segsize;
    // The entries of tree s in key, then row, order.
    std::map<std::string, std::string> tree(int64_t s) const {
        std::map<std::string, std::string> m;
        for (int64_t r = s * segsize + 1; r <= (s + 1) * segsize && r <= static_cast<int64_t>(keys.size()); ++r)
            if (!keys[r - 1].empty()) m[keys[r - 1] + rowdata(r)] = rowdata(r);
        return m;
    }
};

// Compares every tree of the file with the rows: walks, lookups, and the
// tree a row's lookup handle lands on.
void expecttrees(const std::string& path, const Rows& rows, const std::string& what) {
    Tree tr;
    ASSERT_TRUE(tr.open(path, BT_OREAD)) << what << std::hex << " rc " << tr.rc;
    int64_t n = static_cast<int64_t>(rows.keys.size());
    int64_t ntrees = (n + rows.segsize - 1) / rows.segsize;
    ASSERT_EQ(ntrees, __bt_ntrees(tr.db)) << what;
    for (int64_t s = 0; s < ntrees; ++s) {
        ASSERT_EQ(0, __bt_settree(tr.db, s));
        auto m = rows.tree(s);
        DBT k, d;
        auto it = m.begin();
        rctype rc;
        for (rc = tr.db->seq(tr.db, &k, &d, R_FIRST); rc == 0; rc = tr.db->seq(tr.db, &k, &d, R_NEXT), ++it) {
            ASSERT_NE(it, m.end()) << what << " tree " << s;
            ASSERT_EQ(it->first, str(k) + str(d)) << what << " tree " << s;
        }
        ASSERT_EQ(1, rc);
        ASSERT_EQ(it, m.end()) << what << " tree " << s;
        // A key's lookup gives its first row in the tree.
        if (!m.empty()) {
            std::string first = m.begin()->first;
            std::string key = first.substr(0, first.size() - 8);
            DBT kk = dbt(key), out{};
            ASSERT_EQ(0, tr.db->get(tr.db, &kk, &out, 0));
            ASSERT_EQ(first.substr(first.size() - 8), str(out));
        }
    }
    if (n > 0) {
        DB* h = nullptr;
        uint32_t len = 0;
        int64_t per = 0;
        int64_t row = (n + 1) / 2;
        ASSERT_EQ(0, __bt_prep_get(tr.db, &h, row, &len, &per));
        EXPECT_EQ(rows.segsize, per);
        EXPECT_EQ((row - 1) / rows.segsize, h->internal->bt_curtree);
        pgno_t root, tlen;
        ASSERT_EQ(0, __bt_tree(tr.db, (row - 1) / rows.segsize, &root, &tlen));
        EXPECT_EQ(root, h->internal->bt_root);
        EXPECT_EQ(tlen, len);
        __bt_term_get(h);
        EXPECT_EQ(BT_ENOTREE, __bt_prep_get(tr.db, &h, n + rows.segsize + 1, &len, &per));
    }
}

}  // namespace

// Appends in batches to per-segment trees with keys that repeat; each batch
// is committed, rolled back to a row, or dropped, and every tree is compared
// with the rows after each.
TEST(BtreeModel, SegmentTreesFollowAppendsRollbacksAndDrops) {
    vrtatest::TempDir tmp;
    const int batches = longrun() ? 200 : 40;
    for (uint32_t psize : {512u, 4096u}) {
        for (int64_t segsize : {7, 64}) {
            SCOPED_TRACE("psize " + std::to_string(psize) + " segsize " + std::to_string(segsize));
            std::mt19937_64 rng(psize + segsize);
            std::string path = tmp.file("s" + std::to_string(psize) + "_" + std::to_string(segsize));
            Rows rows{{}, segsize};
            Tree tr;
            ASSERT_TRUE(tr.open(path, BT_OCREATE, seginfo(psize, segsize))) << std::hex << tr.rc;
            ASSERT_EQ(0, tr.close());
            for (int b = 0; b < batches; ++b) {
                ASSERT_TRUE(tr.open(path, BT_OAPPEND)) << "batch " << b << std::hex << " rc " << tr.rc;
                Rows before = rows;
                int64_t add = static_cast<int64_t>(rng() % (3 * segsize)) + 1;
                for (int64_t i = 0; i < add; ++i) {
                    int64_t row = static_cast<int64_t>(rows.keys.size()) + 1;
                    std::string key;
                    if (rng() % 10) {
                        key = std::string(6, 'a');
                        key[5] = static_cast<char>('a' + rng() % 5);
                        key[4] = static_cast<char>('a' + rng() % 3);
                    }
                    rows.keys.push_back(key);
                    if (key.empty()) continue;  // a row without a key only counts
                    std::string d = rowdata(row);
                    DBT k = dbt(key), dd = dbt(d);
                    ASSERT_EQ(0, tr.db->put(tr.db, &k, &dd, 0)) << "row " << row;
                }
                tr.db->ds_numobs = static_cast<int64_t>(rows.keys.size());
                int what = static_cast<int>(rng() % 10);
                if (what < 6) {
                    ASSERT_EQ(0, tr.close());
                } else if (what < 8 && !rows.keys.empty()) {
                    // The table went back to a row, maybe one of an earlier batch.
                    int64_t to = static_cast<int64_t>(rng() % (rows.keys.size() + 1));
                    if (to < static_cast<int64_t>(rows.keys.size()) - 3 * segsize)
                        to = static_cast<int64_t>(rows.keys.size()) - 3 * segsize;
                    if (to < 0) to = 0;
                    // A rollback counts from what was committed.
                    ASSERT_EQ(0, tr.close(std::min<int64_t>(to, before.keys.size())));
                    rows.keys.resize(std::min<int64_t>(to, before.keys.size()));
                } else {
                    ASSERT_EQ(0, __bt_abort(tr.db));
                    ASSERT_EQ(0, tr.close());
                    rows = before;
                }
                expecttrees(path, rows, "batch " + std::to_string(b));
                if (HasFatalFailure()) return;
            }
        }
    }
}

// Fifty segment pages fill the directory; the fifty-first chains from the
// fiftieth through m_next, and the trees behind it are all found again.
TEST(BtreeModel, SegmentDirectoryFillsThenChains) {
    vrtatest::TempDir tmp;
    std::string path = tmp.file("dir");
    const uint32_t psize = 512;
    const int64_t segsize = 2;
    uint32_t m0 = bt_metamaxindex(psize), m1 = bt_segmaxindex(psize);
    int64_t ntrees = m0 + 52 * static_cast<int64_t>(m1);
    Rows rows{{}, segsize};
    Tree tr;
    ASSERT_TRUE(tr.open(path, BT_OCREATE, seginfo(psize, segsize)));
    for (int64_t row = 1; row <= ntrees * segsize; ++row) {
        std::string key = "k";
        key += std::to_string(10000 + row % 7);
        rows.keys.push_back(key);
        std::string d = rowdata(row);
        DBT k = dbt(key), dd = dbt(d);
        ASSERT_EQ(0, tr.db->put(tr.db, &k, &dd, 0));
    }
    ASSERT_EQ(0, tr.close());
    std::string file = vrtatest::readFile(path);
    ASSERT_GE(file.size(), psize);
    _btmeta m;
    memcpy(&m, file.data(), sizeof m);
    EXPECT_EQ(49, m.m_segp_dircount);
    auto desc = [&](pgno_t pg) {
        _btdesc d;
        memcpy(&d, file.data() + static_cast<size_t>(pg) * psize, sizeof d);
        return d;
    };
    EXPECT_EQ(0u, desc(m.m_segp_directory[48]).m_next);
    pgno_t fiftieth = m.m_segp_directory[49];
    pgno_t fiftyfirst = desc(fiftieth).m_next;
    ASSERT_NE(0u, fiftyfirst);
    pgno_t fiftysecond = desc(fiftyfirst).m_next;
    ASSERT_NE(0u, fiftysecond);
    EXPECT_EQ(0u, desc(fiftysecond).m_next);
    EXPECT_EQ(m1, desc(fiftysecond).m_curindex);
    expecttrees(path, rows, "chained");
}

// Page sizes in a meta page that no file may have, a key too long for any
// page, and a long key that still fits a large page.
TEST(BtreeOpen, RefusesBadPageSizesAndKeysTooLong) {
    vrtatest::TempDir tmp;
    std::string path = tmp.file("ps");
    {
        Tree tr;
        ASSERT_TRUE(tr.open(path, BT_OCREATE, globalinfo(512)));
    }
    std::string good = vrtatest::readFile(path);
    for (uint32_t bad : {511u, 513u, 70000u, 0u, 256u}) {
        std::string f = good;
        memcpy(f.data() + offsetof(_btmeta, m_psize), &bad, 4);
        vrtatest::writeFile(path, f);
        Tree tr;
        EXPECT_FALSE(tr.open(path, BT_OREAD)) << bad;
        EXPECT_EQ(IX_OPENFAIL, tr.rc) << bad;
    }
    std::string f = good;
    uint32_t v = 2;
    memcpy(f.data() + offsetof(_btmeta, m_version), &v, 4);
    vrtatest::writeFile(path, f);
    Tree tv;
    EXPECT_FALSE(tv.open(path, BT_OREAD));
    EXPECT_EQ(IX_BADTREEVER, tv.rc);
    f = good;
    v = 0x12345;
    memcpy(f.data() + offsetof(_btmeta, m_magic), &v, 4);
    vrtatest::writeFile(path, f);
    EXPECT_FALSE(tv.open(path, BT_OREAD));
    EXPECT_EQ(IX_OPENFAIL, tv.rc);
    vrtatest::writeFile(path, good.substr(0, 300));
    EXPECT_FALSE(tv.open(path, BT_OREAD));
    EXPECT_EQ(IX_OPENFAIL, tv.rc);

    Tree big;
    EXPECT_FALSE(big.open(tmp.file("k60000"), BT_OCREATE, globalinfo(8192, 60000, 8)));
    EXPECT_EQ(IX_KEYTOOLONG, big.rc);
    // A key of 20000 bytes raises the page to hold four of them.
    ASSERT_TRUE(big.open(tmp.file("k20000"), BT_OCREATE, globalinfo(8192, 20000, 8))) << std::hex << big.rc;
    EXPECT_EQ(0u, big.t()->bt_psize % 512);
    EXPECT_GE(big.t()->bt_psize, 3 * 20008u);  // four would pass the largest page
    std::map<std::string, std::string> model;
    for (int i = 0; i < 40; ++i) {
        std::string key(20000, static_cast<char>('a' + i % 26));
        key[19999] = static_cast<char>(i);
        std::string d = key8(i);
        DBT k = dbt(key), dd = dbt(d);
        ASSERT_EQ(0, big.db->put(big.db, &k, &dd, 0));
        model[key] = d;
    }
    expectwalk(big.db, model, "long keys");
}

// Internal keys past the overflow size go to overflow pages, and are found.
TEST(BtreeOpen, LongInternalKeysLiveOnOverflowPages) {
    vrtatest::TempDir tmp;
    Tree tr;
    ASSERT_TRUE(tr.open(tmp.file("ovfl"), BT_OCREATE, globalinfo(4096, 64, 8)));
    tr.t()->bt_ovflsize = 16;  // as if the page were small next to the key
    std::map<std::string, std::string> model;
    std::mt19937_64 rng(5);
    for (int i = 0; i < 3000; ++i) {
        std::string key(64, 'x');
        for (int j = 0; j < 8; ++j) key[40 + j] = static_cast<char>(rng());
        std::string d = key8(i);
        DBT k = dbt(key), dd = dbt(d);
        ASSERT_EQ(0, tr.db->put(tr.db, &k, &dd, 0));
        model[key] = d;
    }
    expectwalk(tr.db, model, "overflow keys");
    for (auto& [key, d] : model) {
        DBT k = dbt(key), out{};
        ASSERT_EQ(0, tr.db->get(tr.db, &k, &out, 0));
        ASSERT_EQ(d, str(out));
    }
}

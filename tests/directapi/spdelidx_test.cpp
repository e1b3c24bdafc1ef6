// Deleting rows of a table with indexes through the delete context: after
// random deletions every index holds exactly the live rows (read from its
// files by the independent reader and asked through the index's readers),
// and a deletion killed at any change to a file leaves each index either
// right or marked for rebuild.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "../ix/ixcheck.h"
#include "../ix/ixrows.h"
#include "../sda/killutil.h"
#include "../sda/lifeutil.h"
#include "directapi/sp.h"
#include "ix/ixfe.h"
#include "ix/ixhy.h"
#include "testutil.h"
#include "vrta/directapi.h"

using namespace vrta;
using namespace lifetest;
using namespace hbxtest;

namespace {

constexpr int64_t SEG = 32;

// A table of n rows: a number among `distinct` values (some missing) and a
// name of its own, indexed as "a" on the number and "u" (unique) on the name.
void maketable(const std::string& dir, int64_t n, int distinct, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<char> b(static_cast<size_t>(n) * ROWLEN);
    for (int64_t i = 0; i < n; ++i) {
        double d = static_cast<double>(rng() % distinct);
        if (rng() % 11 == 0) {
            uint64_t miss = 0xFFFF000000000000ull;
            memcpy(&d, &miss, 8);
        }
        memcpy(b.data() + i * ROWLEN, &d, 8);
        char t[16];
        snprintf(t, sizeof t, "r%011lld", static_cast<long long>(i * 7919 % 100003));
        memcpy(b.data() + i * ROWLEN + 8, t, 12);
    }
    DA_LIB* lp = assign(dir);
    DA_FID* fp = create(lp, "t", SEG);
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(0, dawrobs(fp, 1, b.data(), static_cast<long>(n)));
    ASSERT_EQ(0, darclos(fp));
    DA_OPNSTR o = request("t", DA_OMUTIL);
    ASSERT_GE(daopen(lp, &o, &fp), 0);
    for (int32_t col : {1, 2}) {
        IX_BUILDREQ r{};
        r.name = col == 1 ? "a" : "u";
        r.nvar = 1;
        r.varnos = &col;
        r.flags = col == 2 ? IX_BUNIQUE : 0;
        ASSERT_EQ(0, ixhybuild(fp, &r));
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

// Deletes rows through the delete context; 0 or the first failure.
int deleterows(const std::string& dir, const std::vector<int64_t>& rows) {
    void* lib = nullptr;
    int rc = splasgn(dir.c_str(), &lib);
    if (rc < 0) return rc;
    void* fid = nullptr;
    rc = vrtaupdate(lib, "t", -1, nullptr, nullptr, 0, nullptr, -1, 0, &fid);
    if (rc == 0) {
        void* dc = nullptr;
        rc = spnewdel(fid, &dc);
        for (size_t i = 0; rc == 0 && i < rows.size(); ++i) rc = spdelobs(dc, rows[i]);
        if (dc) {
            int frc = spfreedel(dc, rc < 0);
            if (rc == 0) rc = frc;
        }
        int crc = vrtaclose(fid);
        if (rc == 0) rc = crc;
    }
    int drc = spldeasgn(lib);
    return rc < 0 ? rc : drc;
}

using ixtest::readall;

// Each value of the model, and a value deleted from the table entirely,
// asked segment by segment through the index's readers.
void readersagree(DA_FID* fp, const char* name, const Model& m, const std::set<std::string>& gone) {
    IX_INDEX_T* ix = nullptr;
    ASSERT_EQ(0, ixopen(fp, name, 0, 1, nullptr, &ix));
    int64_t nsegs = 0, ss = 0;
    ASSERT_EQ(0, ixinfo(ix, &nsegs, &ss));
    ix_list_t* list = nullptr;
    auto ask = [&](const std::string& key, const Rows& want) {
        for (int64_t s = 0; s < nsegs; ++s) {
            IX_SEGOP_T op{list, key.data(), IX_EQ, s * ss + 1, ix->keylen, nullptr, nullptr};
            ASSERT_EQ(0, ix->fp.initseg(ix->ix_private, &op, 0, 0));
            list = op.list;
            Rows in;
            for (int64_t r : want)
                if (r > s * ss && r <= (s + 1) * ss) in.insert(r);
            ASSERT_EQ(in, readall(list)) << name << " segment " << s;
        }
    };
    for (auto& [k, rows] : m) ask(k, rows);
    for (auto& k : gone) ask(k, Rows{});
    if (list) ixfreel(list);
    EXPECT_EQ(0, ixclose(ix));
}

struct Checked {
    Model a, u;
};

// Both indexes trusted and right; their models back.
Checked indexesright(const std::string& dir, int64_t n) {
    Checked c;
    DA_LIB* lp = assign(dir);
    DA_OPNSTR o = request("t", DA_OMINPUT);
    DA_FID* fp = nullptr;
    EXPECT_EQ(0, daopen(lp, &o, &fp));
    if (!fp) return c;
    for (const char* name : {"a", "u"}) {
        DA_KEYSTR ks{};
        EXPECT_EQ(0, fp->mt->queryicb(fp, name, &ks));
        EXPECT_EQ(0u, ks.checks & DA_ICBBAD) << name;
        EXPECT_EQ(n, ks.highobs);
        int64_t nm;
        Model want = brute(fp, name, false, &nm);
        EXPECT_EQ(want, fromfiles(fp, name, dir, "t")) << name;
        (name[0] == 'a' ? c.a : c.u) = want;
    }
    EXPECT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
    return c;
}

}  // namespace

// Rounds of random deletions, the last taking every row of some values:
// every index keeps exactly the live rows, through its files and its
// readers; a row deleted twice is refused and changes nothing.
TEST(DeleteWithIndexes, IndexesKeepTheLiveRows) {
    vrtatest::TempDir tmp;
    const int64_t n = getenv("VRTA_LONG") ? 20000 : 1500;
    maketable(tmp.path(), n, 12, 5);
    std::mt19937 rng(9);
    std::set<int64_t> deleted;
    Checked before = indexesright(tmp.path(), n);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::vector<int64_t> rows;
        if (round < 2) {
            for (int64_t i = 0; i < n / 8; ++i) {
                int64_t r = 1 + static_cast<int64_t>(rng() % n);
                if (deleted.insert(r).second) rows.push_back(r);
            }
        } else {
            // Every row of two values.
            int taken = 0;
            for (auto& [k, rs] : before.a)
                if (taken++ < 2)
                    for (int64_t r : rs)
                        if (deleted.insert(r).second) rows.push_back(r);
        }
        ASSERT_EQ(0, deleterows(tmp.path(), rows));
        Checked now = indexesright(tmp.path(), n);
        std::set<std::string> gone, ugone;
        for (auto& [k, rs] : before.a)
            if (!now.a.count(k)) gone.insert(k);
        for (auto& [k, rs] : before.u)
            if (!now.u.count(k) && ugone.size() < 20) ugone.insert(k);
        if (round == 2) {
            EXPECT_GE(gone.size(), 2u);
        }
        DA_LIB* lp = assign(tmp.path());
        DA_OPNSTR o = request("t", DA_OMINPUT);
        DA_FID* fp = nullptr;
        ASSERT_EQ(0, daopen(lp, &o, &fp));
        readersagree(fp, "a", now.a, gone);
        Model someu;
        for (auto& [k, rs] : now.u)
            if (someu.size() < 40) someu[k] = rs;
        readersagree(fp, "u", someu, ugone);
        EXPECT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
        before = now;
    }
    // A row gone already: the deletion fails, the indexes are as they were.
    ASSERT_FALSE(deleted.empty());
    EXPECT_NE(0, deleterows(tmp.path(), {*deleted.begin()}));
    Checked after = indexesright(tmp.path(), n);
    EXPECT_EQ(before.a, after.a);
    EXPECT_EQ(before.u, after.u);
}

// A deletion killed at each change it makes to a file: the table's live
// rows are whole, and each index is right or marked for rebuild; once the
// deletion finishes, both are trusted again.
TEST(DeleteWithIndexes, KilledDeletionLeavesNoIndexCleanAndWrong) {
    vrtatest::TempDir tmp;
    const int64_t n = 200;
    std::vector<int64_t> rows;
    for (int64_t r = 3; r <= n; r += 9) rows.push_back(r);
    bool finished = false;
    long points = 0;
    for (long k = 1; k < 2000 && !finished; ++k) {
        std::string dir = tmp.path() + "/k" + std::to_string(k);
        maketable(dir, n, 5, 3);
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            killtest::armkiller(k);
            _exit(deleterows(dir, rows) == 0 ? 0 : 4);
        }
        int st = 0;
        waitpid(pid, &st, 0);
        bool killed = WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
        ASSERT_TRUE(killed || (WIFEXITED(st) && WEXITSTATUS(st) == 0)) << "k=" << k << " status " << st;
        finished = !killed;
        points += killed;
        DA_LIB* lp = assign(dir);
        DA_OPNSTR o = request("t", DA_OMINPUT);
        DA_FID* fp = nullptr;
        ASSERT_GE(daopen(lp, &o, &fp), 0) << "k=" << k;
        EXPECT_EQ(n, fp->xoehdr->numobs);
        int trusted = 0;
        for (const char* name : {"a", "u"}) {
            DA_KEYSTR ks{};
            ASSERT_EQ(0, fp->mt->queryicb(fp, name, &ks));
            if (ks.checks & DA_ICBBAD) continue;
            ++trusted;
            int64_t nm;
            EXPECT_EQ(brute(fp, name, false, &nm), fromfiles(fp, name, dir, "t")) << name << " k=" << k;
        }
        if (finished) {
            EXPECT_EQ(2, trusted);
        }
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
        if (HasFailure()) return;
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(points, 10);
}

// Hybrid indexes built over tables, checked against a brute-force map from
// each key to its rows, read back from the files by an independent reader:
// few and many values, several segment sizes, deleted rows, missing values,
// sorted and unsorted tables, spills of the sort; and the failures a user
// can meet, each leaving the table readable and no index that lies.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../sda/killutil.h"
#include "../sda/lifeutil.h"
#include "hbxread.h"
#include "ixcheck.h"
#include "ix/ixhy.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;
using namespace hbxtest;

namespace {

// Row r: a number among `distinct` values (missing for some rows), and a name.
std::vector<char> makerows(int64_t n, int distinct, unsigned seed, bool sortednum, bool withmiss) {
    std::mt19937 rng(seed);
    std::vector<int64_t> vals(n);
    for (auto& v : vals) v = static_cast<int64_t>(rng() % distinct) - distinct / 3;
    if (sortednum) std::sort(vals.begin(), vals.end());
    std::vector<char> b(static_cast<size_t>(n) * ROWLEN);
    for (int64_t i = 0; i < n; ++i) {
        double d = static_cast<double>(vals[i]);
        if (withmiss && rng() % 13 == 0) {
            uint64_t miss = 0xFFFF000000000000ull | (rng() % 27);
            memcpy(&d, &miss, 8);
        }
        memcpy(b.data() + i * ROWLEN, &d, 8);
        char t[16];
        snprintf(t, sizeof t, "n%011lld", static_cast<long long>(rng() % (distinct + 1)));
        memcpy(b.data() + i * ROWLEN + 8, t, 12);
    }
    return b;
}

IX_BUILDREQ request(const char* name, const std::vector<int32_t>& cols, int flags = 0, int64_t mem = 0) {
    IX_BUILDREQ r{};
    r.name = name;
    r.nvar = static_cast<int>(cols.size());
    r.varnos = cols.data();
    r.flags = flags;
    r.memsize = mem;
    return r;
}

}  // namespace

TEST(IndexBuild, MatchesTheRowsOfTheTable) {
    struct Case {
        int64_t rows, segsize;
        int distinct;
        bool sorted, deletes, miss;
        int64_t mem;
        std::vector<int32_t> cols;
        int flags;
    };
    int64_t big = getenv("VRTA_LONG") ? 60000 : 6000;
    std::vector<Case> cases = {
        {big, 64, 5, false, false, false, 0, {1}, 0},
        {big, 1000, 100000, false, true, true, 0, {1}, 0},
        {big, 32, 40, true, true, false, 0, {1}, 0},
        {big, 4096, 300, false, false, true, 64 << 10, {1}, IX_BNOMISS},  // a sort that spills
        {big, 100, 30, false, true, false, 0, {2, 1}, 0},
        {300, 7, 1000000, false, false, false, 0, {2}, IX_BUNIQUE},
    };
    for (size_t c = 0; c < cases.size(); ++c) {
        const Case& k = cases[c];
        SCOPED_TRACE("case " + std::to_string(c));
        vrtatest::TempDir tmp;
        DA_LIB* lp = assign(tmp.path());
        DA_FID* fp = create(lp, "t", k.segsize);
        ASSERT_NE(nullptr, fp);
        auto rows = makerows(k.rows, k.distinct, static_cast<unsigned>(c + 1), k.sorted, k.miss);
        if (k.flags & IX_BUNIQUE)
            for (int64_t i = 0; i < k.rows; ++i) {
                char t[16];
                snprintf(t, sizeof t, "u%011lld", static_cast<long long>(i * 7919 % 100003));
                memcpy(rows.data() + i * ROWLEN + 8, t, 12);
            }
        ASSERT_EQ(0, dawrobs(fp, 1, rows.data(), static_cast<long>(k.rows)));
        if (k.sorted) {
            DA_SORTINFO si{};
            memset(si.collate, ' ', 8);
            si.nvars = 1;
            si.nvar0[0] = 1;
            ASSERT_GE(fp->mt->setsortinfo(fp, &si), 0);
        }
        ASSERT_EQ(0, darclos(fp));
        if (k.deletes) {
            DA_OPNSTR o = request("t", DA_OMUPDATE);
            ASSERT_GE(daopen(lp, &o, &fp), 0);
            std::mt19937 rng(5);
            for (int i = 0; i < k.rows / 20; ++i) {
                EXPECT_GE(fp->mt->delobs(fp, 1 + rng() % k.rows), 0);
            }
            ASSERT_EQ(0, darclos(fp));
        }
        DA_OPNSTR o = request("t", DA_OMUTIL);
        ASSERT_GE(daopen(lp, &o, &fp), 0);
        IX_BUILDREQ req = request("ix", k.cols, k.flags, k.mem);
        ASSERT_EQ(0, ixhybuild(fp, &req));
        ASSERT_EQ(0, darclos(fp));
        o = request("t", DA_OMINPUT);
        ASSERT_EQ(0, daopen(lp, &o, &fp));  // no index to rebuild
        int64_t nummiss = 0;
        Model want = brute(fp, "ix", k.flags & IX_BNOMISS, &nummiss);
        EXPECT_EQ(want, fromfiles(fp, "ix", tmp.path(), "t"));
        DA_KEYSTR ks{};
        ASSERT_EQ(0, fp->mt->queryicb(fp, "ix", &ks));
        EXPECT_EQ(0u, ks.checks);
        EXPECT_EQ(k.rows, ks.highobs);
        DA_ICB* icb = daluicb(fcbof(fp), "ix", 2);
        ASSERT_NE(nullptr, icb);
        EXPECT_EQ(static_cast<int64_t>(want.size()), icb->idxkst->numvals);
        EXPECT_EQ(nummiss, icb->idxkst->nummiss);
        if (!want.empty()) {
            EXPECT_EQ(0, memcmp(icb->idxkst->minmax, want.begin()->first.data(), want.begin()->first.size()));
            EXPECT_EQ(0, memcmp(icb->idxkst->minmax + icb->head->length, want.rbegin()->first.data(),
                                want.rbegin()->first.size()));
        }
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
    }
}

// A column that is not there, a unique index over values that repeat, a
// disk that fills, an index that exists: a clear code, the table as it was,
// and no index left behind.
TEST(IndexBuild, FailuresLeaveTheTableAndNoIndex) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "t", 64);
    ASSERT_NE(nullptr, fp);
    auto rows = makerows(2000, 10, 3, false, false);
    ASSERT_EQ(0, dawrobs(fp, 1, rows.data(), 2000));
    ASSERT_EQ(0, darclos(fp));
    DA_OPNSTR o = request("t", DA_OMUTIL);
    ASSERT_GE(daopen(lp, &o, &fp), 0);
    std::vector<int32_t> none = {3}, zero = {0}, one = {1};
    IX_BUILDREQ r = request("ix", none);
    EXPECT_EQ(DA_BADARG, ixhybuild(fp, &r));
    r = request("ix", zero);
    EXPECT_EQ(DA_BADARG, ixhybuild(fp, &r));
    r = request("ix", one, IX_BUNIQUE);
    EXPECT_EQ(IX_DUPKEY, ixhybuild(fp, &r));
    EXPECT_EQ(0, fp->numindex);
    EXPECT_EQ("", partition(tmp.path(), "t.idxix."));
    EXPECT_EQ("", partition(tmp.path(), "t.hbxix."));
    r = request("ix", one);
    ASSERT_EQ(0, ixhybuild(fp, &r));
    EXPECT_EQ(DA_EXISTS, ixhybuild(fp, &r));
    EXPECT_EQ(1, fp->numindex);

    // Stopped by the user while sorting and while indexing.
    for (int stopat : {1, 2}) {
        struct Stop {
            volatile int flag = 0;
            int phase = 0;
            int64_t calls = 0;
        } stop;
        stop.phase = stopat;
        r = request("stopped", one, 0, 1 << 16);
        r.interrupt = &stop.flag;
        r.progress_arg = &stop;
        r.progress = [](void* arg, int phase, int64_t, int64_t) {
            auto* s = static_cast<Stop*>(arg);
            ++s->calls;
            if (phase == s->phase) s->flag = 1;
        };
        EXPECT_EQ(IX_INTERRUPT, ixhybuild(fp, &r)) << "phase " << stopat;
        EXPECT_GT(stop.calls, 0);
        DA_KEYSTR ks{};
        EXPECT_EQ(DA_NOTFOUND, fp->mt->queryicb(fp, "stopped", &ks));
        EXPECT_EQ("", partition(tmp.path(), "t.idxstopped."));
        EXPECT_EQ("", partition(tmp.path(), "t.hbxstopped."));
    }
    EXPECT_EQ(1, fp->numindex);

    // No room left on the disk at some write of the build.
    static long failat = 0, writes = 0;
    static const DA_UIODT* real = _UIODT;
    static DA_UIODT full = *real;
    full.pwrite = [](int f, const void* b, size_t n, off_t off) -> ssize_t {
        if (++writes >= failat) {
            errno = ENOSPC;
            return -1;
        }
        return real->pwrite(f, b, n, off);
    };
    for (failat = 1; failat < 400; failat += 37) {
        writes = 0;
        _UIODT = &full;
        r = request("full", one);
        rctype rc = ixhybuild(fp, &r);
        _UIODT = real;
        if (rc == 0) {
            ASSERT_EQ(0, fp->mt->dropidx(fp, "full", 0));
            break;
        }
        EXPECT_LT(rc, 0);
        DA_KEYSTR ks{};
        EXPECT_EQ(DA_NOTFOUND, fp->mt->queryicb(fp, "full", &ks)) << failat;
    }
    ASSERT_EQ(0, darclos(fp));
    o = request("t", DA_OMINPUT);
    ASSERT_GE(daopen(lp, &o, &fp), 0);
    EXPECT_EQ(2000, fp->xoehdr->numobs);
    EXPECT_EQ(1, fp->numindex);
    int64_t nm;
    EXPECT_EQ(brute(fp, "ix", false, &nm), fromfiles(fp, "ix", tmp.path(), "t"));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

// A build killed at each change it makes to a file: the table opens with
// all its rows, and the index is absent, reported for rebuild, or right.
TEST(IndexBuild, KilledBuildLeavesTableReadableAndIndexUntrusted) {
    vrtatest::TempDir tmp;
    bool finished = false;
    long points = 0;
    for (long k = 1; k < 3000 && !finished; ++k) {
        std::string dir = tmp.path() + "/k" + std::to_string(k);
        DA_LIB* lp = assign(dir);
        DA_FID* fp = create(lp, "t", 32);
        ASSERT_NE(nullptr, fp);
        auto rows = makerows(400, 7, 9, false, false);
        ASSERT_EQ(0, dawrobs(fp, 1, rows.data(), 400));
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            DA_LIB* l = assign(dir);
            killtest::armkiller(k);
            DA_OPNSTR o = request("t", DA_OMUTIL);
            DA_FID* f = nullptr;
            if (daopen(l, &o, &f) < 0) _exit(3);
            std::vector<int32_t> one = {1};
            IX_BUILDREQ r = request("ix", one);
            if (ixhybuild(f, &r) < 0) _exit(4);
            if (darclos(f) < 0) _exit(5);
            _exit(0);
        }
        int st = 0;
        waitpid(pid, &st, 0);
        bool killed = WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
        ASSERT_TRUE(killed || (WIFEXITED(st) && WEXITSTATUS(st) == 0)) << "k=" << k << " status " << st;
        finished = !killed;
        points += killed;
        lp = assign(dir);
        DA_OPNSTR o = request("t", DA_OMINPUT);
        rctype rc = daopen(lp, &o, &fp);
        ASSERT_GE(rc, 0) << "k=" << k;
        EXPECT_EQ(400, fp->xoehdr->numobs);
        std::vector<char> back(rows.size());
        long got = 0;
        EXPECT_EQ(0, dardobs(fp, 1, back.data(), 400, &got));
        EXPECT_EQ(rows, back) << "k=" << k;
        DA_KEYSTR ks{};
        if (fp->mt->queryicb(fp, "ix", &ks) == 0 && !(ks.checks & DA_ICBBAD)) {
            int64_t nm;
            EXPECT_EQ(brute(fp, "ix", false, &nm), fromfiles(fp, "ix", dir, "t")) << "k=" << k;
        } else if (finished) {
            ADD_FAILURE() << "a finished build left no trusted index";
        }
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
        if (HasFailure()) return;
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(points, 10);
}

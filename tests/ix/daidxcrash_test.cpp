// A writer building an index, killed at each change it makes to a file in
// turn: the table stays readable with every row, and the index is either
// absent, marked as not to be trusted, or complete and right. A survivor
// can drop it and build it again.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "ixtable.h"
#include "../sda/killutil.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;
using namespace ixtest;

namespace {

using killtest::armkiller;

constexpr int64_t ROWS = 300;

[[noreturn]] void writer(const std::string& dir, int out, long k) {
    DA_LIB* lp = assign(dir);
    if (!lp) _exit(3);
    armkiller(k);
    DA_OPNSTR o = request("crash", DA_OMUTIL);
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) _exit(4);
    int32_t col[] = {1};
    if (fp->mt->addidx(fp, "ix", DA_IDXFIDX, 1, col) < 0) _exit(5);
    if (buildindex(fp) < 0) _exit(6);
    if (darclos(fp) < 0) _exit(7);
    char done = 1;
    if (write(out, &done, 1) != 1) _exit(8);
    _exit(0);
}

}  // namespace

TEST(IndexCrash, WriterKilledAtEveryWriteLeavesTableReadableAndIndexUntrusted) {
    vrtatest::TempDir tmp;
    long points = 0;
    bool finished = false;
    for (long k = 1; k < 5000 && !finished; ++k) {
        std::string dir = tmp.path() + "/k" + std::to_string(k);
        {
            DA_LIB* lp = assign(dir);
            ASSERT_NE(nullptr, lp);
            DA_FID* fp = create(lp, "crash", ixtest::SEGSIZE);
            ASSERT_NE(nullptr, fp);
            auto r = rows(1, ROWS);
            ASSERT_EQ(0, dawrobs(fp, 1, r.data(), ROWS));
            ASSERT_EQ(0, darclos(fp));
            EXPECT_GE(dafrlib(lp), 0);
        }
        int p[2];
        ASSERT_EQ(0, pipe(p));
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            close(p[0]);
            writer(dir, p[1], k);
        }
        close(p[1]);
        char done = 0;
        bool closed = read(p[0], &done, 1) == 1;
        close(p[0]);
        int st = 0;
        waitpid(pid, &st, 0);
        bool killed = WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
        ASSERT_TRUE(killed || (WIFEXITED(st) && WEXITSTATUS(st) == 0)) << "k=" << k << " status " << st;
        finished = !killed;
        if (killed) ++points;

        DA_LIB* lp = assign(dir);
        DA_OPNSTR o = request("crash", DA_OMINPUT);
        DA_FID* fp = nullptr;
        rctype rc = daopen(lp, &o, &fp);
        ASSERT_GE(rc, 0) << "k=" << k << std::hex << " rc=" << rc;
        EXPECT_EQ(ROWS, fp->xoehdr->numobs) << "k=" << k;
        EXPECT_TRUE(rowsintact(fp)) << "k=" << k;
        DA_KEYSTR ks{};
        bool present = fp->mt->queryicb(fp, "ix", &ks) == 0;
        bool trusted = present && !(ks.checks & DA_ICBBAD);
        if (closed) {
            EXPECT_TRUE(trusted) << "k=" << k;
        }
        // Trusted means right: an index the check lets pass must be complete.
        if (trusted) {
            EXPECT_TRUE(indexright(fp)) << "k=" << k;
        } else if (present) {
            EXPECT_EQ(0, (rc == DA_IDXREBUILD || rc == DA_REVDIFF) ? 0 : rc) << "k=" << k;
        }
        ASSERT_EQ(0, darclos(fp));

        // A survivor drops what is left and builds it again.
        o = request("crash", DA_OMUTIL);
        ASSERT_GE(daopen(lp, &o, &fp), 0) << "k=" << k;
        if (present) {
            EXPECT_EQ(0, fp->mt->dropidx(fp, "ix", 0)) << "k=" << k;
        }
        int32_t col[] = {1};
        ASSERT_EQ(0, fp->mt->addidx(fp, "ix", DA_IDXFIDX, 1, col)) << "k=" << k;
        ASSERT_EQ(0, buildindex(fp)) << "k=" << k;
        ASSERT_EQ(0, darclos(fp));
        o = request("crash", DA_OMINPUT);
        ASSERT_GE(daopen(lp, &o, &fp), 0) << "k=" << k;
        ASSERT_EQ(0, fp->mt->queryicb(fp, "ix", &ks));
        EXPECT_EQ(0u, ks.checks) << "k=" << k;
        EXPECT_TRUE(indexright(fp)) << "k=" << k;
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
        if (HasFailure()) return;
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(points, 10);
    printf("kill points tried: %ld\n", points);
}

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

long killat = 0;
long nwrites = 0;
void killer(const char*) {
    if (++nwrites == killat) raise(SIGKILL);
}

// Messages of the writer to the test: -1 table complete, n rows committed, -2 closed.
void report(int fd, int64_t v) {
    ssize_t n = write(fd, &v, sizeof v);
    (void)n;
}

constexpr int BATCHES = 6;
constexpr long BATCH = 11;  // crosses the 32-row partitions at odd places

// The writer: create, define, append in batches each committed by a flush, close.
[[noreturn]] void writer(const std::string& dir, int out) {
    DA_LIB* lp = assign(dir);
    if (!lp) _exit(3);
    da_writehook = killer;
    DA_OPNSTR o = request("crash", DA_OMOUTPUT);
    o.partsize = 32 * ROWLEN;
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) _exit(4);
    auto cols = columns();
    if (fp->mt->defvars(fp, 2, cols.data()) < 0) _exit(5);
    report(out, -1);
    for (int b = 0; b < BATCHES; ++b) {
        auto r = rows(b * BATCH + 1, BATCH);
        if (dawrobs(fp, b * BATCH + 1, r.data(), BATCH) < 0) _exit(6);
        if (fp->mt->force(fp, 0) < 0) _exit(7);
        report(out, (b + 1) * BATCH);
    }
    if (darclos(fp) < 0) _exit(8);
    report(out, -2);
    dafrlib(lp);
    _exit(0);
}

struct Outcome {
    bool killed = false;
    bool complete = false;
    bool closed = false;
    int64_t committed = 0;
};

Outcome runwriter(const std::string& dir, long k) {
    Outcome oc;
    int p[2];
    if (pipe(p) != 0) return oc;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        killat = k;
        writer(dir, p[1]);
    }
    close(p[1]);
    int64_t v;
    while (read(p[0], &v, sizeof v) == sizeof v) {
        if (v == -1) oc.complete = true;
        else if (v == -2) oc.closed = true;
        else oc.committed = v;
    }
    close(p[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    oc.killed = WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
    EXPECT_TRUE(oc.killed || (WIFEXITED(st) && WEXITSTATUS(st) == 0)) << "k=" << k << " status " << st;
    return oc;
}

}  // namespace

// A writer killed after each of its writes in turn: every committed row is
// there, rows past numobs are not counted, and the table can be written on.
TEST(CrashSafety, WriterKilledAtEveryWriteLeavesACommittedPrefix) {
    vrtatest::TempDir tmp;
    long points = 0;
    for (long k = 1; k < 1000; ++k) {
        std::string dir = tmp.path() + "/k" + std::to_string(k);
        Outcome oc = runwriter(dir, k);
        if (!oc.killed) break;
        ++points;
        DA_LIB* lp = assign(dir);
        ASSERT_NE(nullptr, lp);
        DA_OPNSTR o = request("crash", DA_OMINPUT);
        DA_FID* fp = nullptr;
        rctype rc = daopen(lp, &o, &fp);
        if (!oc.complete) {
            // Killed before the columns were defined: no table to trust, but no crash either.
            if (rc >= 0) {
                EXPECT_EQ(0, fp->xoehdr->numobs) << "k=" << k;
                darclos(fp);
            }
            dafrlib(lp);
            continue;
        }
        ASSERT_GE(rc, 0) << "k=" << k << " rc=" << std::hex << rc;
        EXPECT_GE(fp->xoehdr->numobs, oc.committed) << "k=" << k;
        EXPECT_LE(fp->xoehdr->numobs, BATCHES * BATCH) << "k=" << k;
        EXPECT_TRUE(rowsintact(fp)) << "k=" << k;
        // The clean-close mark is gone only when the close got that far.
        if (oc.closed) {
            EXPECT_EQ(0, fcbof(fp)->dshdr.flags & 1) << "k=" << k;
        } else if (oc.committed < BATCHES * BATCH) {
            EXPECT_EQ(1, fcbof(fp)->dshdr.flags & 1) << "k=" << k;
        }
        hs_obsno_t n = fp->xoehdr->numobs;
        ASSERT_EQ(0, darclos(fp));

        // The survivor takes more rows over whatever lies past numobs.
        o = request("crash", DA_OMUPDATE);
        rc = daopen(lp, &o, &fp);
        ASSERT_GE(rc, 0) << "k=" << k;
        auto r = rows(n + 1, 40);
        ASSERT_EQ(0, dawrobs(fp, n + 1, r.data(), 40)) << "k=" << k;
        ASSERT_EQ(0, darclos(fp));
        o = request("crash", DA_OMINPUT);
        ASSERT_GE(daopen(lp, &o, &fp), 0);
        EXPECT_EQ(n + 40, fp->xoehdr->numobs);
        EXPECT_TRUE(rowsintact(fp)) << "k=" << k;
        ASSERT_EQ(0, darclos(fp));
        dafrlib(lp);
    }
    // Create, six appends with their flushes and the close: well over twenty writes.
    EXPECT_GT(points, 20);
    printf("kill points tried: %ld\n", points);
}

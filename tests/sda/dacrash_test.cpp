#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "killutil.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

using killtest::armkiller;

// Messages of the writer to the test: -1 table complete, n rows committed, -2 closed.
void report(int fd, int64_t v) {
    ssize_t n = write(fd, &v, sizeof v);
    (void)n;
}

constexpr int BATCHES = 6;
constexpr long BATCH = 11;  // crosses the 32-row partitions at odd places

// The writer: create, define, append in batches each committed by a flush
// but the last, which only the close commits.
[[noreturn]] void writer(const std::string& dir, int out, long k) {
    DA_LIB* lp = assign(dir);
    if (!lp) _exit(3);
    armkiller(k);
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
        if (b + 1 == BATCHES) break;
        if (fp->mt->force(fp, 0) < 0) _exit(7);
        report(out, (b + 1) * BATCH);
    }
    if (darclos(fp) < 0) _exit(8);
    report(out, BATCHES * BATCH);
    report(out, -2);
    if (dafrlib(lp) < 0) _exit(9);
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
        writer(dir, p[1], k);
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

// A writer killed at each change it makes to a file in turn (writes,
// renames, truncations, removals, the file layer's own and those of the
// library and lock files included): every committed row is there, rows past
// numobs are not counted, and the table can be written on.
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
                EXPECT_GE(darclos(fp), 0);
            }
            EXPECT_GE(dafrlib(lp), 0);
            continue;
        }
        ASSERT_GE(rc, 0) << "k=" << k << " rc=" << std::hex << rc;
        EXPECT_GE(fp->xoehdr->numobs, oc.committed) << "k=" << k;
        EXPECT_LE(fp->xoehdr->numobs, BATCHES * BATCH) << "k=" << k;
        EXPECT_TRUE(rowsintact(fp)) << "k=" << k;
        // The clean-close mark is gone only when the close got that far, and
        // then the close has committed every row: it comes after the flush.
        if (oc.closed) {
            EXPECT_EQ(0, fcbof(fp)->dshdr.flags & 1) << "k=" << k;
        } else if (oc.committed < BATCHES * BATCH - BATCH) {
            EXPECT_EQ(1, fcbof(fp)->dshdr.flags & 1) << "k=" << k;
        }
        if ((fcbof(fp)->dshdr.flags & 1) == 0) {
            EXPECT_EQ(BATCHES * BATCH, fp->xoehdr->numobs) << "k=" << k;
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
        EXPECT_GE(dafrlib(lp), 0);
    }
    // Create, six appends with their flushes and the close: well over twenty writes.
    EXPECT_GT(points, 20);
    printf("kill points tried: %ld\n", points);
}

namespace {

// Update of a closed table: more rows, deletions, and the close with its
// revision update, killed at each change to a file.
[[noreturn]] void updater(const std::string& dir, int out, long k) {
    DA_LIB* lp = assign(dir);
    if (!lp) _exit(3);
    armkiller(k);
    DA_OPNSTR o = request("upd", DA_OMUPDATE);
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) _exit(4);
    for (int b = 0; b < 3; ++b) {
        hs_obsno_t n = fp->xoehdr->numobs;
        auto r = rows(n + 1, 17);
        if (dawrobs(fp, n + 1, r.data(), 17) < 0) _exit(5);
        if (fp->mt->force(fp, 0) < 0) _exit(6);
        report(out, n + 17);
    }
    if (fp->mt->delobs(fp, 3) < 0 || fp->mt->delobs(fp, 40) < 0) _exit(7);
    report(out, -3);
    if (darclos(fp) < 0) _exit(8);
    report(out, -2);
    _exit(0);
}

}  // namespace

TEST(CrashSafety, UpdaterKilledAtEverySystemWriteLeavesAnOpenableTable) {
    vrtatest::TempDir tmp;
    long points = 0, revdiff = 0;
    for (long k = 1; k < 1000; ++k) {
        std::string dir = tmp.path() + "/u" + std::to_string(k);
        {
            DA_LIB* lp = assign(dir);
            DA_FID* fp = create(lp, "upd", 16, 32 * ROWLEN);
            auto r = rows(1, 45);
            ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 45));
            ASSERT_EQ(0, darclos(fp));
            EXPECT_GE(dafrlib(lp), 0);
        }
        int p[2];
        ASSERT_EQ(0, pipe(p));
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            close(p[0]);
            updater(dir, p[1], k);
        }
        close(p[1]);
        int64_t v, committed = 45;
        bool deleted = false, closed = false;
        while (read(p[0], &v, sizeof v) == sizeof v) {
            if (v == -3) {
                deleted = true;
            } else if (v == -2) {
                closed = true;
            } else {
                committed = v;
            }
        }
        close(p[0]);
        int st = 0;
        waitpid(pid, &st, 0);
        if (!(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL)) {
            EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
            EXPECT_TRUE(closed);
            break;
        }
        ++points;
        DA_LIB* lp = assign(dir);
        DA_OPNSTR o = request("upd", DA_OMINPUT);
        DA_FID* fp = nullptr;
        rctype rc = daopen(lp, &o, &fp);
        ASSERT_TRUE(rc == 0 || rc == DA_REVDIFF) << "k=" << k << " rc=" << std::hex << rc;
        if (rc == DA_REVDIFF) ++revdiff;
        EXPECT_GE(fp->xoehdr->numobs, committed) << "k=" << k;
        EXPECT_TRUE(rowsintact(fp)) << "k=" << k;
        // A deletion that was reported is there; the count never exceeds the bits.
        DA_DMPBM* bm = dadmnewbm(fcbof(fp));
        int64_t bits = dadmisdel(fcbof(fp), bm, 3) + dadmisdel(fcbof(fp), bm, 40);
        dadmfreebm(bm);
        if (deleted) {
            EXPECT_EQ(2, bits) << "k=" << k;
        }
        EXPECT_LE(fp->xoehdr->numdelete, bits) << "k=" << k;
        ASSERT_EQ(0, darclos(fp));
        EXPECT_GE(dafrlib(lp), 0);
    }
    printf("kill points tried: %ld, revision differs: %ld\n", points, revdiff);
    EXPECT_GT(points, 20);
    // An interrupted revision update must have been seen and reported.
    EXPECT_GT(revdiff, 0);
}

// ---------------------------------------------------------------- through row cursors

#include "curutil.h"

namespace {

// Plain rows, variable blocks, and fixed blocks through the encryption exit,
// whose flush rewrites a short last block and grows it in the same write: a
// kill inside that write must not leave the block torn.
const curtest::Kind KINDS[] = {{nullptr, false}, {"VRTARLC2", false}, {"VRTACRYP", true}};

[[noreturn]] void cursorwriter(const std::string& dir, int out, long k, const curtest::Kind& kind) {
    DA_LIB* lp = assign(dir);
    if (!lp) _exit(3);
    armkiller(k);
    DA_FID* fp = curtest::make(lp, "cur", kind, 0, kind.exit ? 0 : 32 * ROWLEN);
    if (!fp) _exit(4);
    report(out, -1);
    {
        curtest::Cur w(fp, DA_IOMBYROW, 40);
        if (!w.c) _exit(5);
        for (int b = 0; b < BATCHES; ++b) {
            if (w.write(b * 37 + 1, 37, 1) < 0) _exit(6);
            if (b + 1 == BATCHES) break;  // the close commits the last batch
            if (fp->mt->force(fp, 0) < 0) _exit(7);
            report(out, (b + 1) * 37);
        }
    }
    if (darclos(fp) < 0) _exit(8);
    report(out, BATCHES * 37);
    report(out, -2);
    _exit(0);
}

// Rows 1..numobs through a read cursor, each the row written there.
bool cursorrowsintact(DA_FID* fp) {
    hs_obsno_t n = fp->xoehdr->numobs;
    curtest::Cur r(fp, DA_IOMREAD | DA_IOMSEQ | DA_IOMBYROW, 64);
    if (!r.c) return false;
    hs_obsno_t seen = 0;
    for (;;) {
        rctype rc = r.read();
        if (rc == DA_EOF || (rc == 0 && r.iob[0].numobs < 1)) break;
        if (rc < 0) return false;
        for (long i = 0; i < r.iob[0].numobs; ++i) {
            char want[ROWLEN];
            curtest::makerow(seen + i + 1, 1, want);
            if (memcmp(want, r.row(0, i), ROWLEN) != 0) return false;
        }
        seen += r.iob[0].numobs;
    }
    return seen == n;
}

}  // namespace

TEST(CrashSafety, CursorWriterOfEachStorageFormKilledAtEverySystemWrite) {
    for (const auto& kind : KINDS) {
        vrtatest::TempDir tmp;
        long points = 0;
        for (long k = 1; k < 2000; ++k) {
            std::string dir = tmp.path() + "/c" + std::to_string(k);
            int p[2];
            ASSERT_EQ(0, pipe(p));
            fflush(nullptr);
            pid_t pid = fork();
            if (pid == 0) {
                close(p[0]);
                cursorwriter(dir, p[1], k, kind);
            }
            close(p[1]);
            Outcome oc;
            int64_t v;
            while (read(p[0], &v, sizeof v) == sizeof v) {
                if (v == -1) {
                    oc.complete = true;
                } else if (v == -2) {
                    oc.closed = true;
                } else {
                    oc.committed = v;
                }
            }
            close(p[0]);
            int st = 0;
            waitpid(pid, &st, 0);
            if (!(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL)) {
                EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
                break;
            }
            ++points;
            if (!oc.complete) continue;
            DA_LIB* lp = assign(dir);
            DA_OPNSTR o = curtest::kindreq("cur", DA_OMINPUT, kind);
            DA_FID* fp = nullptr;
            rctype rc = daopen(lp, &o, &fp);
            const char* what = kind.exit ? kind.exit : "plain";
            ASSERT_GE(rc, 0) << what << " k=" << k << " rc=" << std::hex << rc;
            EXPECT_GE(fp->xoehdr->numobs, oc.committed) << what << " k=" << k;
            if ((fcbof(fp)->dshdr.flags & 1) == 0) {
                EXPECT_EQ(BATCHES * 37, fp->xoehdr->numobs) << what << " k=" << k;
            }
            EXPECT_TRUE(cursorrowsintact(fp)) << what << " k=" << k << " numobs " << fp->xoehdr->numobs;
            EXPECT_GE(darclos(fp), 0);
            EXPECT_GE(dafrlib(lp), 0);
        }
        printf("%s: kill points tried: %ld\n", kind.exit ? kind.exit : "plain", points);
        EXPECT_GT(points, 20);
    }
}

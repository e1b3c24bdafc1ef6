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

#include "../sda/lifeutil.h"
#include "ix/bt.h"
#include "sda/daidx.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

// Every system call that changes a file, counted; the k-th one is never made.
DA_UIODT killiot;
const DA_UIODT* realiot = nullptr;
long syskill = 0, syscount = 0;
void tick() {
    if (++syscount == syskill) raise(SIGKILL);
}
ssize_t kpwrite(int fd, const void* b, size_t n, off_t o) {
    tick();
    return realiot->pwrite(fd, b, n, o);
}
int krename(const char* a, const char* b) {
    tick();
    return realiot->rename(a, b);
}
int kftruncate(int fd, off_t l) {
    tick();
    return realiot->ftruncate(fd, l);
}
int kunlink(const char* p) {
    tick();
    return realiot->unlink(p);
}
void armkiller(long k) {
    realiot = _UIODT;
    killiot = *realiot;
    killiot.pwrite = kpwrite;
    killiot.rename = krename;
    killiot.ftruncate = kftruncate;
    killiot.unlink = kunlink;
    syskill = k;
    _UIODT = &killiot;
}

constexpr int64_t ROWS = 300;
constexpr int64_t SEGSIZE = 64;

std::string keyof(const char* row) { return std::string(row, 8); }

// Builds the index "ix" on the first column: one tree per segment of rows.
rctype buildindex(DA_FID* fp) {
    DA_IDX* ip = nullptr;
    rctype rc = fp->mt->openidx(fp, "ix", DA_IDXFIDX | DA_IDXOWRITE, &ip);
    if (rc < 0) return rc;
    rc = dasetstate(ip, DA_IDXDIRTY);
    BTREEINFO info{};
    info.psize = 512;
    info.keylen = 8;
    info.datalen = 8;
    info.segsize = fp->segsize;
    info.openmode = BT_OCREATE;
    info.options_present = 1;
    IX_HEADER_D h{IX_VERSION, IX_CONTINUOUS, fp->segsize, 8, IX_DIRTY};
    DB* db = nullptr;
    if (rc == 0) rc = bt_openrc(__bt_open(ip, BT_OCREATE, &info, &h, &db, 0));
    if (rc == 0) rc = bt_openrc(__bt_open(ip, BT_OCREATE, &info, &h, &db, 1));
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> row(ROWLEN);
    for (hs_obsno_t r = 1; rc == 0 && r <= n; ++r) {
        long got = 0;
        rc = dardobs(fp, r, row.data(), 1, &got);
        std::string key = keyof(row.data()), d(8, '\0');
        bt_putrow(d.data(), r);
        DBT k{key.data(), 8}, dd{d.data(), 8};
        if (rc == 0) rc = db->put(db, &k, &dd, 0);
    }
    if (db) {
        db->ds_numobs = n;
        db->internal->header.state = rc == 0 ? IX_CLEAN : IX_DIRTY;
        rctype crc = db->close(db, -1, nullptr, 1);
        if (rc == 0) rc = crc;
    }
    rctype crc = ip->mt->closeidx(ip, rc == 0 ? DA_IDXCLEAN : DA_IDXDIRTY);
    if (rc == 0) rc = crc;
    if (rc < 0) return rc;
    DA_KEYSTAT ks{};
    ks.highobs = n;
    return fp->mt->setkeystat(fp, "ix", &ks);
}

// Every row's key leads to its row in its segment's tree.
bool indexright(DA_FID* fp) {
    DA_IDX* ip = nullptr;
    if (fp->mt->openidx(fp, "ix", DA_IDXFIDX, &ip) != 0) return false;
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    bool ok = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 0) == 0 && __bt_open(ip, BT_OREAD, &info, nullptr, &db, 1) == 0;
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> row(ROWLEN);
    ok = ok && __bt_ntrees(db) == (n + SEGSIZE - 1) / SEGSIZE;
    for (hs_obsno_t r = 1; ok && r <= n; ++r) {
        long got = 0;
        ok = dardobs(fp, r, row.data(), 1, &got) == 0;
        std::string key = keyof(row.data());
        DBT k{key.data(), 8}, out{};
        ok = ok && __bt_settree(db, (r - 1) / SEGSIZE) == 0 && db->get(db, &k, &out, 0) == 0 && bt_rowof(out.data) == r;
    }
    if (db) db->close(db, -1, nullptr, 1);
    ip->mt->closeidx(ip, 0);
    return ok;
}

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
            DA_FID* fp = create(lp, "crash", SEGSIZE);
            ASSERT_NE(nullptr, fp);
            auto r = rows(1, ROWS);
            ASSERT_EQ(0, dawrobs(fp, 1, r.data(), ROWS));
            ASSERT_EQ(0, darclos(fp));
            dafrlib(lp);
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
        dafrlib(lp);
        if (HasFailure()) return;
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(points, 10);
    printf("kill points tried: %ld\n", points);
}

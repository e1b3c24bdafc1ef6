#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lifeutil.h"
#include "sda/danames.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

int countfiles(const std::string& dir, const std::string& prefix) {
    int n = 0;
    DIR* d = opendir(dir.c_str());
    if (!d) return 0;
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) ++n;
    closedir(d);
    return n;
}

DA_DSFHEAD headerondisk(DA_LIB* lp, const char* name) {
    // The MDF's own FIB comes first; the header stands at its base offset.
    DA_OPNSTR o = request(name, DA_OMINPUT);
    DA_FID* fp = nullptr;
    DA_DSFHEAD h{};
    if (daopen(lp, &o, &fp) < 0) return h;
    h = fcbof(fp)->dshdr;
    EXPECT_GE(darclos(fp), 0);
    return h;
}

}  // namespace

TEST(TableLife, CreateAppendCloseReopenKeepsColumnsRowsAndCleanMark) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    ASSERT_NE(nullptr, lp);
    DA_FID* fp = create(lp, "Sales");
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(ROWLEN, fp->xoehdr->obslen);
    EXPECT_EQ(8192 / ROWLEN, fp->blockfactor);
    EXPECT_EQ(ROWLEN * (8192 / ROWLEN), fp->blocksize);
    // Defining the columns twice is refused.
    auto cols = columns();
    EXPECT_EQ(DA_BADARG, fp->mt->defvars(fp, 2, cols.data()));
    auto r = rows(1, 1000);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 1000));
    // Not the next row: there is no gap to write into.
    EXPECT_EQ(DA_PASTEND, dawrobs(fp, 1002, r.data(), 1));
    // Until close the header says the table was never closed cleanly.
    EXPECT_EQ(1, fcbof(fp)->dshdr.flags & 1);
    ASSERT_EQ(0, darclos(fp));

    DA_DSFHEAD h = headerondisk(lp, "sales");
    EXPECT_EQ(0, h.flags & 1);
    EXPECT_GE(h.links[DA_LNKSTRP], 0);
    EXPECT_GE(h.links[DA_LNKNAMES], 0);

    DA_OPNSTR o = request("SALES", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(1000, fp->xoehdr->numobs);
    ASSERT_EQ(2, fp->numvar);
    EXPECT_STREQ("ID", fp->vars[0].name);
    EXPECT_STREQ("NAME", fp->vars[1].name);
    EXPECT_STREQ("Name of the row", fp->vars[1].label);
    EXPECT_EQ(8, fp->vars[1].npos);
    EXPECT_TRUE(rowsintact(fp));
    // The request comes back with the table's properties.
    EXPECT_EQ(8192, o.idxsegsize);
    EXPECT_EQ(0, memcmp(o.dstype, "DATA    ", 8));
    // A reader cannot write.
    EXPECT_EQ(DA_BADARG, dawrobs(fp, 1001, r.data(), 1));
    long got = 0;
    char buf[ROWLEN];
    EXPECT_EQ(DA_EOF, dardobs(fp, 1001, buf, 1, &got));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, OpenersInOneProcessShareOneControlBlock) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* w = create(lp, "t");
    auto r = rows(1, 10);
    ASSERT_EQ(0, dawrobs(w, 1, r.data(), 10));
    ASSERT_EQ(0, darclos(w));

    DA_OPNSTR o1 = request("t", DA_OMINPUT), o2 = request("T", DA_OMINPUT);
    DA_FID *a = nullptr, *b = nullptr;
    ASSERT_EQ(0, daopen(lp, &o1, &a));
    ASSERT_EQ(0, daopen(lp, &o2, &b));
    EXPECT_NE(a, b);
    EXPECT_EQ(fcbof(a), fcbof(b));
    EXPECT_EQ(2, fcbof(a)->refCount);
    // A reader's sort information is its own.
    DA_SORTINFO si{};
    memcpy(si.collate, "ASCII   ", 8);
    EXPECT_EQ(0, a->mt->setsortinfo(a, &si));
    EXPECT_EQ(0, memcmp(a->sortinfo->collate, "ASCII   ", 8));
    EXPECT_NE(0, memcmp(b->sortinfo->collate, "ASCII   ", 8));
    ASSERT_EQ(0, darclos(a));
    EXPECT_EQ(1, fcbof(b)->refCount);
    EXPECT_TRUE(rowsintact(b));

    // Another thread asking to write while this one reads is refused by the lock layer.
    rctype other = 0;
    std::thread th([&] {
        DA_OPNSTR ou = request("t", DA_OMUPDATE);
        DA_FID* u = nullptr;
        other = daopen(lp, &ou, &u);
        if (other >= 0) {
            EXPECT_GE(darclos(u), 0);
        }
    });
    th.join();
    EXPECT_TRUE(other == DA_MODECONF || other == DA_LOCKCONF) << std::hex << other;
    ASSERT_EQ(0, darclos(b));

    // While one thread creates a table, another may not read it.
    DA_FID* c = create(lp, "u");
    ASSERT_NE(nullptr, c);
    std::thread th2([&] {
        DA_OPNSTR oi = request("u", DA_OMINPUT);
        DA_FID* i = nullptr;
        other = daopen(lp, &oi, &i);
        if (other >= 0) {
            EXPECT_GE(darclos(i), 0);
        }
    });
    th2.join();
    EXPECT_EQ(DA_LOCKCONF, other);
    ASSERT_EQ(0, darclos(c));
    // Creating a table that exists fails and leaves it as it was.
    DA_OPNSTR oc = request("t", DA_OMOUTPUT);
    DA_FID* x = nullptr;
    EXPECT_EQ(DA_EXISTS, daopen(lp, &oc, &x));
    DA_OPNSTR oi = request("t", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &oi, &x));
    EXPECT_EQ(10, x->xoehdr->numobs);
    EXPECT_GE(darclos(x), 0);
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, BadRequestsGiveTheirCodesAndLeaveNoFiles) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = nullptr;

    DA_OPNSTR o = request("noenc", DA_OMOUTPUT);
    o.encoding_cei = 0;
    EXPECT_EQ(DA_NOENCODING, daopen(lp, &o, &fp));
    o = request("noloc", DA_OMOUTPUT);
    memset(o.locale, 0, sizeof o.locale);
    EXPECT_EQ(DA_NOLOCALE, daopen(lp, &o, &fp));
    EXPECT_EQ(0, countfiles(tmp.path(), "noenc"));
    EXPECT_EQ(0, countfiles(tmp.path(), "noloc"));

    // A table whose columns were never defined cannot be opened.
    o = request("empty", DA_OMOUTPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    ASSERT_EQ(0, darclos(fp));
    o = request("empty", DA_OMINPUT);
    EXPECT_EQ(DA_INTERNAL, daopen(lp, &o, &fp));

    // Bad columns: none, zero length, overlapping the row's end.
    DA_FID* c = nullptr;
    o = request("cols", DA_OMOUTPUT);
    ASSERT_EQ(0, daopen(lp, &o, &c));
    auto cols = columns();
    EXPECT_EQ(DA_BADARG, c->mt->defvars(c, 0, cols.data()));
    cols[1].nlng = 0;
    EXPECT_EQ(DA_BADARG, c->mt->defvars(c, 2, cols.data()));
    cols = columns();
    cols[1].npos = 12;
    EXPECT_EQ(DA_BADARG, c->mt->defvars(c, 2, cols.data()));
    EXPECT_GE(darclos(c), 0);

    // A table whose data file went missing.
    DA_FID* t = create(lp, "nodata");
    auto r = rows(1, 5);
    ASSERT_EQ(0, dawrobs(t, 1, r.data(), 5));
    ASSERT_EQ(0, darclos(t));
    DIR* d = opendir(tmp.path().c_str());
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, "nodata.dpf", 10) == 0) unlink((tmp.path() + "/" + e->d_name).c_str());
    closedir(d);
    std::string mdfbefore;
    d = opendir(tmp.path().c_str());
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, "nodata.mdf", 10) == 0) mdfbefore = vrtatest::readFile(tmp.path() + "/" + e->d_name);
    closedir(d);
    o = request("nodata", DA_OMUPDATE);
    rctype rc = daopen(lp, &o, &fp);
    EXPECT_TRUE(rc == DA_NODPF || rc < 0) << std::hex << rc;
    std::string mdfafter;
    d = opendir(tmp.path().c_str());
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, "nodata.mdf", 10) == 0) mdfafter = vrtatest::readFile(tmp.path() + "/" + e->d_name);
    closedir(d);
    EXPECT_EQ(mdfbefore, mdfafter);
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, RevisionsThatDifferWarnAndReopenRenamesATemporary) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "tmpname");
    auto r = rows(1, 50);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 50));
    // Reopen after output renames the table to the name asked for now.
    DA_OPNSTR o = request("final", DA_OMUPDATE);
    ASSERT_EQ(0, darropn(fp, &o));
    EXPECT_STREQ("final", fcbof(fp)->iname);
    EXPECT_TRUE(rowsintact(fp));
    // An interrupted revision update: the data file moves on, the MDF does not.
    DA_FCB* fcb = fcbof(fp);
    ASSERT_EQ(0, fcb->dffd->fdrevise(fcb->dffd, fcb->dshdr.links[DA_LNKDPFFIB]));
    fp->fidflags |= DA_FIDNOREV;
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, countfiles(tmp.path(), "tmpname."));

    o = request("final", DA_OMINPUT);
    EXPECT_EQ(DA_REVDIFF, daopen(lp, &o, &fp));
    EXPECT_EQ(50, fp->xoehdr->numobs);
    EXPECT_TRUE(rowsintact(fp));
    // Output may not be reopened into, nor may a table with open cursors.
    DA_OPNSTR out = request("final", DA_OMOUTPUT);
    EXPECT_EQ(DA_BADARG, darropn(fp, &out));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, PartitionedAppendFillsWholePartitionsAndTruncateShrinks) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    // 32-row partitions: 640 bytes asked, rounded down to a multiple of 32 rows.
    DA_FID* fp = create(lp, "parts", 0, 700);
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(32, fp->xoehdr->partfactor);
    EXPECT_EQ(32 * ROWLEN, fp->xoehdr->partsize);
    auto r = rows(1, 100);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 31));
    ASSERT_EQ(0, dawrobs(fp, 32, r.data() + 31 * ROWLEN, 69));
    EXPECT_EQ(100, fp->xoehdr->numobs);
    EXPECT_EQ(4, countfiles(tmp.path(), "parts.dpf"));
    EXPECT_TRUE(rowsintact(fp));
    ASSERT_EQ(0, darclos(fp));

    DA_OPNSTR o = request("parts", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(DA_BADARG, fp->mt->truncobs(fp, 101));
    ASSERT_EQ(0, fp->mt->truncobs(fp, 40));
    ASSERT_EQ(0, darclos(fp));
    o = request("parts", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(40, fp->xoehdr->numobs);
    EXPECT_TRUE(rowsintact(fp));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

namespace {

DA_FID* opendyn(DA_LIB* lp, const char* name, int mode, DA_LOCK** lid) {
    pid_t owner = 0;
    if (dalkmem(lp, name, "DATA    ", DA_LKMEMBER, mode, thr_self(), DA_LKDYNAMIC | 1, lid, &owner) < 0) return nullptr;
    DA_OPNSTR o = request(name, mode);
    o.flags = DA_OFDYNAMIC;
    o.lcb = *lid;
    o.timeout = 30;
    DA_FID* fp = nullptr;
    if (daopen(lp, &o, &fp) < 0) return nullptr;
    return fp;
}

}  // namespace

// A writer in another process appends under dynamic sharing; the reader
// here sees each committed batch and never a row that is not all there.
TEST(TableLife, ReaderInAnotherProcessSeesCommittedGrowthOnly) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "shared", 0, 64 * ROWLEN);
    auto r0 = rows(1, 5);
    ASSERT_EQ(0, dawrobs(fp, 1, r0.data(), 5));
    ASSERT_EQ(0, darclos(fp));
    ASSERT_EQ(0, dafrlib(lp));

    constexpr int BATCHES = 40;
    constexpr long BATCH = 23;
    constexpr int PACED = 3;  // batches the writer holds back until the reader saw them
    int go[2], ack[2];
    ASSERT_EQ(0, pipe(go));
    ASSERT_EQ(0, pipe(ack));
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(go[1]);
        close(ack[1]);
        char c;
        if (read(go[0], &c, 1) != 1) _exit(2);
        DA_LIB* wl = assign(tmp.path());
        DA_LOCK* lid = nullptr;
        DA_FID* w = opendyn(wl, "shared", DA_OMUPDATE, &lid);
        if (!w) _exit(3);
        for (int b = 0; b < BATCHES; ++b) {
            if (w->mt->setshare(w, DA_SHRUPDATE) < 0) _exit(4);
            hs_obsno_t n = w->xoehdr->numobs;
            auto r = rows(n + 1, BATCH);
            if (dawrobs(w, n + 1, r.data(), BATCH) < 0) _exit(5);
            if (w->mt->setshare(w, DA_SHRCLEAR) < 0) _exit(6);
            // The first batches wait for the reader, however busy the
            // machine: it sees the table grow more than once.
            if (b < PACED) {
                pollfd pf{ack[0], POLLIN, 0};
                if (poll(&pf, 1, 60000) != 1 || read(ack[0], &c, 1) != 1) _exit(8);
            }
        }
        if (darclos(w) < 0) _exit(7);
        if (daulmem(wl, lid, DA_LKMEMBER, DA_OMUPDATE, thr_self()) < 0) _exit(9);
        if (dafrlib(wl) < 0) _exit(10);
        _exit(0);
    }
    close(go[0]);
    close(ack[0]);
    lp = assign(tmp.path());
    DA_LOCK* lid = nullptr;
    DA_FID* rd = opendyn(lp, "shared", DA_OMINPUT, &lid);
    ASSERT_NE(nullptr, rd);
    ASSERT_EQ(1, write(go[1], "g", 1));
    close(go[1]);
    const hs_obsno_t total = 5 + BATCHES * BATCH;
    hs_obsno_t last = 0;
    int views = 0, grew = 0, acked = 0;
    // Reading goes on until the writer has gone, so that its close (the last
    // flush and the revision update) happens while this process reads.
    int st = 0;
    bool gone = false;
    for (int i = 0; i < 200000 && (last < total || !gone); ++i) {
        if (!gone && waitpid(pid, &st, WNOHANG) == pid) gone = true;
        ASSERT_EQ(0, rd->mt->setshare(rd, DA_SHRREAD));
        hs_obsno_t n = rd->xoehdr->numobs;
        EXPECT_GE(n, last);
        EXPECT_EQ(0, (n - 5) % BATCH) << n;  // only whole committed batches
        EXPECT_TRUE(rowsintact(rd)) << n;
        ASSERT_EQ(0, rd->mt->setshare(rd, DA_SHRCLEAR));
        if (n > last) ++grew;
        last = n;
        ++views;
        if (n >= 5 + (acked + 1) * BATCH && acked < PACED) {
            ++acked;
            ASSERT_EQ(1, write(ack[1], "a", 1));
        }
    }
    close(ack[1]);
    if (!gone) waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    EXPECT_EQ(total, last);
    EXPECT_GE(grew, 2);
    ASSERT_EQ(0, darclos(rd));
    EXPECT_GE(daulmem(lp, lid, DA_LKMEMBER, DA_OMINPUT, thr_self()), 0);
    EXPECT_EQ(0, dafrlib(lp));
}

namespace {

std::string mdfbytes(const std::string& dir, const char* prefix) {
    std::string all;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, prefix, strlen(prefix)) == 0) all += vrtatest::readFile(dir + "/" + e->d_name);
    closedir(d);
    return all;
}

}  // namespace

TEST(TableLife, EncryptedTableRefusesAWrongKeyAndChangesNothing) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_OPNSTR o = request("secret", DA_OMOUTPUT);
    o.flags = DA_OFENCRYPT;
    memcpy(o.diskcomp, "DEFAULT ", 8);
    memcpy(o.encrypt_key, "opensesame", 10);
    o.keylen = 10;
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_TRUE(fp->xoehdr->flags & DA_XOECRYPT);
    EXPECT_EQ(DA_SEMXCFBS, fp->xoehdr->semtype);
    auto cols = columns();
    ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    ASSERT_EQ(0, darclos(fp));
    std::string before = mdfbytes(tmp.path(), "secret.mdf");
    ASSERT_FALSE(before.empty());

    for (int mode : {DA_OMINPUT, DA_OMUPDATE}) {
        o = request("secret", mode);
        o.flags = DA_OFKEYGIVEN;
        memcpy(o.encrypt_key, "opensesamf", 10);
        o.keylen = 10;
        memcpy(o.who_modified, "intruder", 8);
        EXPECT_EQ(DA_BADKEY, daopen(lp, &o, &fp)) << mode;
        EXPECT_EQ(before, mdfbytes(tmp.path(), "secret.mdf")) << mode;
    }
    o = request("secret", DA_OMINPUT);
    o.flags = DA_OFKEYGIVEN;
    memcpy(o.encrypt_key, "opensesame", 10);
    o.keylen = 10;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(2, fp->numvar);
    ASSERT_EQ(0, darclos(fp));

    // An exit name with a leading point is reserved.
    o = request("badexit", DA_OMOUTPUT);
    o.flags = DA_OFCOMPRESS;
    memcpy(o.diskcomp, ".HIDDEN ", 8);
    EXPECT_EQ(DA_BADARG, daopen(lp, &o, &fp));
    EXPECT_EQ(0, countfiles(tmp.path(), "badexit"));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, ConstraintTextInPiecesSurvivesReopenAndHasLimits) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "con");
    ASSERT_EQ(0, darclos(fp));
    fp = create(lp, "con1");
    ASSERT_EQ(0, darclos(fp));
    // Three pieces: two whole sections and a tail.
    std::string text;
    for (int i = 0; text.size() < 2 * 4096 + 100; ++i) {
        text += 'x';
        text += std::to_string(i);
        text += " > 0 and ";
    }
    ASSERT_EQ(0, dasetconstraint(lp, "con", text.data(), static_cast<long>(text.size())));
    EXPECT_EQ(DA_HASCONST, dasetconstraint(lp, "con", "a", 1));
    char* got = nullptr;
    long len = 0;
    ASSERT_EQ(0, dalistconstraint(lp, "con", &got, &len));
    EXPECT_EQ(text, std::string(got, len));
    free(got);
    DA_OPNSTR o = request("con", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    ASSERT_NE(nullptr, fp->constr);
    EXPECT_EQ(0, memcmp(fp->constr, text.data(), text.size()));
    ASSERT_EQ(0, darclos(fp));
    // One piece stays in the pool.
    ASSERT_EQ(0, dasetconstraint(lp, "con1", "y < 3", 5));
    ASSERT_EQ(0, dalistconstraint(lp, "con1", &got, &len));
    EXPECT_STREQ("y < 3", got);
    free(got);
    ASSERT_EQ(0, dadelconstraint(lp, "con"));
    EXPECT_EQ(DA_NOTFOUND, dalistconstraint(lp, "con", &got, &len));
    EXPECT_EQ(DA_NOTFOUND, dadelconstraint(lp, "con"));
    // The largest text that fits, and one byte more.
    std::string big(4096 * 257, 'c');
    EXPECT_EQ(DA_TOOLONG, dasetconstraint(lp, "con", big.data(), static_cast<long>(big.size()) + 1));
    ASSERT_EQ(0, dasetconstraint(lp, "con", big.data(), static_cast<long>(big.size())));
    ASSERT_EQ(0, dalistconstraint(lp, "con", &got, &len));
    EXPECT_EQ(static_cast<long>(big.size()), len);
    EXPECT_EQ(big, std::string(got, len));
    free(got);
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, MinAndMaxFollowRowsWrittenAcrossFlushesAndReopen) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_OPNSTR o = request("mm", DA_OMOUTPUT);
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    auto cols = columns();
    cols[0].flags = DA_NAMKEEPMM;  // the number keeps statistics, the name not yet
    ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    EXPECT_TRUE(fp->xoehdr->flags & DA_XOEVSTAT);
    auto r = rows(10, 5);  // 10..14
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 5));
    // A missing value is not a minimum.
    char miss[ROWLEN];
    makerow(0, miss);
    memset(miss, 0xff, 8);
    ASSERT_EQ(0, dawrobs(fp, 6, miss, 1));
    ASSERT_EQ(0, fp->mt->force(fp, 0));
    double mn = 0, mx = 0;
    ASSERT_NE(nullptr, fp->vars[0].minptr);
    memcpy(&mn, fp->vars[0].minptr, 8);
    memcpy(&mx, fp->vars[0].maxptr, 8);
    EXPECT_EQ(10.0, mn);
    EXPECT_EQ(14.0, mx);
    auto r2 = rows(3, 2);
    ASSERT_EQ(0, dawrobs(fp, 7, r2.data(), 2));
    ASSERT_EQ(0, darclos(fp));

    o = request("mm", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_TRUE(fp->vars[0].flags & DA_NAMHASMM);
    memcpy(&mn, fp->vars[0].minptr, 8);
    memcpy(&mx, fp->vars[0].maxptr, 8);
    EXPECT_EQ(3.0, mn);
    EXPECT_EQ(14.0, mx);
    EXPECT_EQ(nullptr, fp->vars[1].minptr);
    // The name column starts keeping them now; older rows are not counted.
    int32_t which = 2;
    ASSERT_EQ(0, dalupdminmax(fp, 1, &which));
    auto r3 = rows(100, 3);
    ASSERT_EQ(0, dawrobs(fp, 9, r3.data(), 3));
    ASSERT_EQ(0, darclos(fp));
    o = request("mm", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    ASSERT_NE(nullptr, fp->vars[1].minptr);
    EXPECT_EQ("row000000100", std::string(static_cast<char*>(fp->vars[1].minptr), 12));
    EXPECT_EQ("row000000102", std::string(static_cast<char*>(fp->vars[1].maxptr), 12));
    memcpy(&mx, fp->vars[0].maxptr, 8);
    EXPECT_EQ(102.0, mx);
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, NamelessTableGetsANameAndSortAndBackupRecordsPersist) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    // A table created without a name gets a made-up one that starts with "$".
    DA_OPNSTR o = request("", DA_OMOUTPUT);
    o.reuse = DA_ADDAVAILREUSE;
    o.flags = DA_OFBACKUP;
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ('$', fcbof(fp)->name[0]);
    EXPECT_EQ(17u, strlen(fcbof(fp)->name));
    auto cols = columns();
    ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    auto r = rows(1, 7);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 7));
    DA_OPNSTR keep = request("kept", DA_OMUPDATE);
    ASSERT_EQ(0, fp->mt->reopenfid(fp, &keep));
    // With reuse of deleted rows the sort order cannot be relied on.
    DA_SORTINFO si{};
    memcpy(si.collate, "LINGUIST", 8);
    si.nvars = 1;
    si.nvar0[0] = 2;
    EXPECT_EQ(DA_SORTLOST, fp->mt->setsortinfo(fp, &si));
    ASSERT_NE(nullptr, fp->backup);
    DA_BACKUPINFO bi{};
    bi.backup_seqno = 42;
    ASSERT_EQ(0, fp->mt->setbackup(fp, &bi));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, countfiles(tmp.path(), "$"));

    o = request("KEPT", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(7, fp->xoehdr->numobs);
    EXPECT_EQ(0, memcmp(fp->sortinfo->collate, "LINGUIST", 8));
    EXPECT_EQ(1, fp->sortinfo->nvars);
    ASSERT_NE(nullptr, fp->backup);
    EXPECT_EQ(42, fp->backup->backup_seqno);
    // A reader may not set backup information.
    EXPECT_EQ(DA_BADARG, fp->mt->setbackup(fp, &bi));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, ReaderAndLaterUpdaterOfOneThreadShareRowsAndDeletions) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* w = create(lp, "both");
    auto r = rows(1, 20);
    ASSERT_EQ(0, dawrobs(w, 1, r.data(), 20));
    ASSERT_EQ(0, darclos(w));

    DA_OPNSTR oi = request("both", DA_OMINPUT), ou = request("both", DA_OMUPDATE);
    DA_FID *rd = nullptr, *up = nullptr;
    ASSERT_EQ(0, daopen(lp, &oi, &rd));
    EXPECT_EQ(DA_BADARG, rd->mt->delobs(rd, 1));  // a reader cannot delete
    // The shared block turns writable for the updater; the reader keeps reading.
    ASSERT_EQ(0, daopen(lp, &ou, &up));
    ASSERT_EQ(fcbof(rd), fcbof(up));
    auto more = rows(21, 5);
    ASSERT_EQ(0, dawrobs(up, 21, more.data(), 5));
    ASSERT_EQ(0, up->mt->delobs(up, 22));
    EXPECT_EQ(25, rd->xoehdr->numobs);
    EXPECT_EQ(1, rd->xoehdr->numdelete);
    EXPECT_TRUE(rowsintact(rd));
    ASSERT_EQ(0, darclos(up));
    // The reader outlives the updater; what the updater wrote is on disk already.
    DA_XOEODS disk;
    ASSERT_EQ(0, dardxoe(fcbof(rd)->mdfio, &disk, fcbof(rd)->dshdr.links[DA_LNKXOE]));
    EXPECT_EQ(25, disk.numobs);
    EXPECT_EQ(1, disk.numdelete);
    EXPECT_TRUE(rowsintact(rd));
    ASSERT_EQ(0, darclos(rd));
    ASSERT_EQ(0, daopen(lp, &oi, &rd));
    EXPECT_EQ(25, rd->xoehdr->numobs);
    EXPECT_EQ(1, rd->xoehdr->numdelete);
    ASSERT_EQ(0, darclos(rd));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, UtilModeRedefinesColumnsOnlyOfAnEmptyTable) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "redef");
    ASSERT_EQ(0, darclos(fp));
    DA_OPNSTR o = request("redef", DA_OMUTIL);
    o.idxsegsize = 100;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(100, fp->xoehdr->idxsegsize);  // an empty table takes a new segment size
    auto cols = columns();
    cols[1].nlng = 30;
    ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    EXPECT_EQ(38, fp->xoehdr->obslen);
    std::vector<char> row(38, 'x');
    ASSERT_EQ(0, dawrobs(fp, 1, row.data(), 1));
    // With a row in it the columns stay.
    EXPECT_EQ(DA_BADARG, fp->mt->defvars(fp, 2, cols.data()));
    ASSERT_EQ(0, darclos(fp));
    o = request("redef", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(38, fp->xoehdr->obslen);
    EXPECT_EQ(30, fp->vars[1].nlng);
    EXPECT_STREQ("NAME", fp->vars[1].name);
    EXPECT_EQ(100, fp->segsize);
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(TableLife, OpenerInAnotherProcessInAConflictingModeIsRefusedAndNothingChanges) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "busy");
    auto r = rows(1, 30);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 30));
    ASSERT_EQ(0, darclos(fp));
    ASSERT_EQ(0, dafrlib(lp));

    int ready[2], done[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(done));
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        close(done[1]);
        DA_LIB* cl = assign(tmp.path());
        DA_OPNSTR o = request("busy", DA_OMUPDATE);
        DA_FID* u = nullptr;
        if (daopen(cl, &o, &u) < 0) _exit(3);
        if (write(ready[1], "r", 1) != 1) _exit(4);
        char c;
        if (read(done[0], &c, 1) != 1) _exit(5);
        if (darclos(u) < 0) _exit(6);
        if (dafrlib(cl) < 0) _exit(7);
        _exit(0);
    }
    close(ready[1]);
    close(done[0]);
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    std::string before = mdfbytes(tmp.path(), "busy.");
    lp = assign(tmp.path());
    for (int mode : {DA_OMINPUT, DA_OMUPDATE, DA_OMAPPEND}) {
        DA_OPNSTR o = request("busy", mode);
        rctype rc = daopen(lp, &o, &fp);
        EXPECT_TRUE(rc == DA_WRLOCKED || rc == DA_RDLOCKED) << mode << " " << std::hex << rc;
    }
    EXPECT_EQ(before, mdfbytes(tmp.path(), "busy."));
    ASSERT_EQ(1, write(done[1], "d", 1));
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    DA_OPNSTR o = request("busy", DA_OMINPUT);
    ASSERT_GE(daopen(lp, &o, &fp), 0);
    EXPECT_EQ(30, fp->xoehdr->numobs);
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

// Row cursors on plain tables: reads and writes at buffer, block and
// partition edges, deleted rows, update rules, mapped reads, buffers.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "curutil.h"
#include "testutil.h"

using namespace vrta;
using namespace curtest;

namespace {

const Kind PLAIN{nullptr, false};

bool rowis(const char* p, int64_t n, uint32_t v) {
    char want[ROWLEN];
    makerow(n, v, want);
    return memcmp(p, want, ROWLEN) == 0;
}

int countparts(const std::string& dir, const char* stem) {
    int n = 0;
    DIR* d = opendir(dir.c_str());
    if (!d) return -1;
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, stem, strlen(stem)) == 0) ++n;
    closedir(d);
    return n;
}

}  // namespace

TEST(PlainCursor, AppendAcrossPartitionsThenReadsStopAtNumobs) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "edge", PLAIN, 0, 700);
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(32, fp->xoehdr->partfactor);
    {
        // Three buffers in one call; the second starts inside partition 2
        // and crosses into 3 and 4.
        Cur w(fp, DA_IOMBYROW, 50, 3);
        EXPECT_EQ(1, w.c->curobs);
        for (int b = 0; b < 3; ++b) {
            for (int i = 0; i < 50; ++i) makerow(b * 50 + i + 1, 0, w.row(b, i));
            w.iob[b].numobs = b == 0 ? 31 : 50;
        }
        // First buffer short of the boundary by one row.
        for (int i = 0; i < 50; ++i) makerow(31 + i + 1, 0, w.row(1, i));
        for (int i = 0; i < 50; ++i) makerow(81 + i + 1, 0, w.row(2, i));
        ASSERT_EQ(0, w.c->mt->dawritev(w.c, 3));
        EXPECT_EQ(131, fp->xoehdr->numobs);
        EXPECT_EQ(132, w.c->curobs);
        EXPECT_EQ(2, w.c->bfi);
    }
    EXPECT_EQ(5, countparts(tmp.path(), "edge.dpf"));
    ASSERT_EQ(0, darclos(fp));

    fp = reopen(lp, "edge", DA_OMINPUT, PLAIN);
    ASSERT_NE(nullptr, fp);
    {
        Cur r(fp, DA_IOMBYROW, 100, 3);
        EXPECT_EQ(1, r.c->curobs);
        ASSERT_EQ(0, r.read(3));
        EXPECT_EQ(100, r.iob[0].numobs);
        EXPECT_EQ(31, r.iob[1].numobs);
        EXPECT_EQ(-1, r.iob[2].numobs);
        EXPECT_EQ(1, r.c->bfi);
        EXPECT_EQ(DA_EOF, r.c->status);
        for (int i = 0; i < 100; ++i) ASSERT_TRUE(rowis(r.row(0, i), i + 1, 0)) << i;
        for (int i = 0; i < 31; ++i) ASSERT_TRUE(rowis(r.row(1, i), i + 101, 0)) << i;
        EXPECT_EQ(131, r.iob[1].obsvec[30]);
        // At numobs + 1 there is nothing, not a short row.
        EXPECT_EQ(DA_EOF, r.read(1));
        EXPECT_EQ(-1, r.iob[0].numobs);
        // Locators: the last row, then one past it.
        r.iob[0].locator = 131;
        ASSERT_EQ(0, r.read(1));
        EXPECT_EQ(1, r.iob[0].numobs);
        EXPECT_TRUE(rowis(r.row(0, 0), 131, 0));
        r.iob[0].locator = 132;
        EXPECT_EQ(DA_PASTEND, r.read(1));
        r.iob[0].locator = -1;
        ASSERT_EQ(0, r.c->mt->setloc(r.c, 32));
        ASSERT_EQ(0, r.read(1));
        EXPECT_TRUE(rowis(r.row(0, 0), 32, 0));
        EXPECT_EQ(32, r.iob[0].obsvec[0]);
    }
    {
        // By block: the opener's blocking, the locator a block number.
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMRANDOM, &c));
        DA_IOB* iob = nullptr;
        long bs = 0;
        ASSERT_EQ(0, damkiob(ROWLEN, fp->blockfactor, 1, 1, &iob, &bs));
        EXPECT_EQ(DA_BADARG, c->mt->setbuf(c, iob, bs - ROWLEN));
        ASSERT_EQ(0, c->mt->setbuf(c, iob, bs));
        iob[0].locator = 0;
        ASSERT_EQ(0, c->mt->dareadv(c, 1));
        EXPECT_EQ(131, iob[0].numobs);
        iob[0].locator = 1;
        EXPECT_EQ(DA_PASTEND, c->mt->dareadv(c, 1));
        // A reader has no writes.
        EXPECT_EQ(DA_BADARG, c->mt->dawritev(c, 1));
        EXPECT_EQ(1, fidpof(fp)->iocbCount);
        EXPECT_GE(c->mt->freeiocb(c), 0);
        EXPECT_EQ(0, fidpof(fp)->iocbCount);
        dafriob(iob);
    }
    ASSERT_EQ(0, darclos(fp));

    // Reopen for append after a truncation: the cursor starts at numobs + 1.
    fp = reopen(lp, "edge", DA_OMUPDATE, PLAIN);
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(0, fp->mt->truncobs(fp, 40));
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "edge", DA_OMAPPEND, PLAIN);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW, 30);
        EXPECT_EQ(41, w.c->curobs);
        ASSERT_EQ(0, w.write(41, 30, 1));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "edge", DA_OMINPUT, PLAIN);
    ASSERT_NE(nullptr, fp);
    {
        Cur r(fp, DA_IOMBYROW, 100);
        ASSERT_EQ(0, r.read());
        ASSERT_EQ(70, r.iob[0].numobs);
        for (int i = 0; i < 70; ++i) ASSERT_TRUE(rowis(r.row(0, i), i + 1, i < 40 ? 0 : 1)) << i;
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(PlainCursor, DeletedRowsKeepNumbersAndGuardUpdates) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "del", PLAIN, 0, 0, 0, DA_ADDAVAILREUSE);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW, 100);
        ASSERT_EQ(0, w.write(1, 100, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "del", DA_OMUPDATE, PLAIN);
    ASSERT_NE(nullptr, fp);
    for (int n : {1, 2, 3, 50, 99, 100}) ASSERT_EQ(0, fp->mt->delobs(fp, n));
    {
        Cur r(fp, DA_IOMBYROW, 40, 3);
        ASSERT_EQ(0, r.read(3));
        EXPECT_EQ(40, r.iob[0].numobs);
        EXPECT_EQ(4, r.iob[0].obsvec[0]);
        EXPECT_TRUE(rowis(r.row(0, 0), 4, 0));
        EXPECT_EQ(40, r.iob[1].numobs);
        EXPECT_EQ(44, r.iob[1].obsvec[0]);  // 50 skipped inside this buffer
        EXPECT_EQ(51, r.iob[1].obsvec[6]);
        EXPECT_TRUE(rowis(r.row(1, 6), 51, 0));
        EXPECT_EQ(14, r.iob[2].numobs);
        EXPECT_EQ(98, r.iob[2].obsvec[13]);
        EXPECT_EQ(DA_EOF, r.read(1));

        Cur all(fp, DA_IOMBYROW | DA_IOMDELETED, 200);
        ASSERT_EQ(0, all.read());
        EXPECT_EQ(100, all.iob[0].numobs);
        EXPECT_EQ(1, all.iob[0].obsvec[0]);
    }
    {
        // Without the live flag a write may only land on deleted rows, which
        // come back to life.
        Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM, 10);
        EXPECT_EQ(DA_NOTDELETED, u.write(3, 2, 1, 3));
        ASSERT_EQ(0, u.write(1, 3, 1, 1));
        EXPECT_EQ(3, fp->xoehdr->numdelete);
        Cur l(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, 10);
        ASSERT_EQ(0, l.write(4, 2, 2, 4));
        EXPECT_EQ(DA_PASTEND, l.write(102, 1, 2, 102));
        ASSERT_EQ(0, l.write(101, 1, 2, 101));
        EXPECT_EQ(101, fp->xoehdr->numobs);
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "del", DA_OMINPUT, PLAIN);
    ASSERT_NE(nullptr, fp);
    {
        Cur r(fp, DA_IOMBYROW, 200);
        ASSERT_EQ(0, r.read());
        EXPECT_EQ(98, r.iob[0].numobs);
        EXPECT_TRUE(rowis(r.row(0, 0), 1, 1));
        EXPECT_TRUE(rowis(r.row(0, 3), 4, 2));
        EXPECT_TRUE(rowis(r.row(0, 5), 6, 0));
        EXPECT_EQ(101, r.iob[0].obsvec[97]);
        EXPECT_TRUE(rowis(r.row(0, 97), 101, 2));
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(PlainCursor, RefillPutsRowsIntoDeletedRunsFirst) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "refill", PLAIN, 0, 0, 0, DA_ADDAVAILREUSE);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW, 20);
        ASSERT_EQ(0, w.write(1, 20, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "refill", DA_OMUPDATE, PLAIN);
    for (int n : {5, 6, 12}) ASSERT_EQ(0, fp->mt->delobs(fp, n));
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "refill", DA_OMAPPEND, PLAIN);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW | DA_IOMREFILL, 20);
        EXPECT_TRUE(w.c->iom & DA_IOMFILLING);
        // Five rows: 5, 6, 12, then 21 and 22 at the end.
        for (int i = 0; i < 5; ++i) makerow(900 + i, 1, w.row(0, i));
        w.iob[0].numobs = 5;
        ASSERT_EQ(0, w.c->mt->dawritev(w.c, 1));
        EXPECT_FALSE(w.c->iom & DA_IOMFILLING);
    }
    EXPECT_EQ(22, fp->xoehdr->numobs);
    EXPECT_EQ(0, fp->xoehdr->numdelete);
    {
        Cur r(fp, DA_IOMBYROW, 30);
        // An appender's cursors start past the end.
        EXPECT_EQ(DA_EOF, r.read());
        ASSERT_EQ(0, r.c->mt->setloc(r.c, 1));
        ASSERT_EQ(0, r.read());
        ASSERT_EQ(22, r.iob[0].numobs);
        EXPECT_TRUE(rowis(r.row(0, 4), 900, 1));
        EXPECT_TRUE(rowis(r.row(0, 5), 901, 1));
        EXPECT_TRUE(rowis(r.row(0, 11), 902, 1));
        EXPECT_TRUE(rowis(r.row(0, 20), 903, 1));
        EXPECT_TRUE(rowis(r.row(0, 21), 904, 1));
        EXPECT_TRUE(rowis(r.row(0, 12), 13, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(PlainCursor, MappedReadAndBufferHelpers) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "map", PLAIN, 0, 700);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW, 100);
        ASSERT_EQ(0, w.write(1, 100, 1));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "map", DA_OMINPUT, PLAIN);
    ASSERT_NE(nullptr, fp);
    DA_IOCB* c = nullptr;
    // Sharing the updater's lock needs an updater.
    EXPECT_EQ(DA_BADARG, getiocb(fp, DA_IOMSHARELK, &c));
    EXPECT_EQ(0, fidpof(fp)->iocbCount);
    ASSERT_EQ(0, getiocb(fp, DA_IOMMAPPED, &c));
    EXPECT_TRUE(c->iom & DA_IOMBYROW);
    ASSERT_EQ(0, c->mt->setbuf(c, nullptr, 40 * ROWLEN));
    // Ranges inside one partition and across two.
    for (hs_obsno_t loc : {1, 20, 33, 90}) {
        ASSERT_EQ(0, c->mt->setloc(c, loc)) << loc;
        long want = std::min<long>(40, 100 - loc + 1);
        ASSERT_EQ(want, c->iobvec[0].numobs);
        for (long i = 0; i < want; ++i)
            ASSERT_TRUE(rowis(static_cast<char*>(c->iobvec[0].bufptr) + i * ROWLEN, loc + i, 1)) << loc << " " << i;
    }
    EXPECT_EQ(DA_EOF, c->mt->setloc(c, 101));
    EXPECT_EQ(DA_BADARG, c->mt->dareadv(c, 1));
    EXPECT_GE(c->mt->freeiocb(c), 0);

    {
    Cur r(fp, DA_IOMBYROW, 10, 2);
    EXPECT_EQ(nullptr, daobs2p(r.c, -1));
    EXPECT_EQ(r.row(1, 3), daobs2p(r.c, 13));
    char row[ROWLEN];
    makerow(7, 0, row);
    r.iob[1].numobs = 0;
    EXPECT_EQ(2, daadobs(r.c, row, 12));
    EXPECT_EQ(3, r.iob[1].numobs);
    EXPECT_TRUE(rowis(r.row(1, 2), 7, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(PlainCursor, EncodedAndTransferRowsRoundTrip) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    struct Form {
        const char* name;
        int semtype;
        int32_t transfersize;
    } forms[] = {{"enc", DA_SEMZCRYPT, 0}, {"xfer", DA_SEMDATA, 256}};
    for (const Form& f : forms) {
        SCOPED_TRACE(f.name);
        DA_OPNSTR o = lifetest::request(f.name, DA_OMOUTPUT);
        o.semtype = f.semtype;
        o.transfersize = f.transfersize;
        o.partsize = 2000;
        DA_FID* fp = nullptr;
        ASSERT_EQ(0, daopen(lp, &o, &fp));
        auto cols = lifetest::columns();
        ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
        if (f.semtype == DA_SEMZCRYPT) {
            EXPECT_EQ((ROWLEN + 5) / 3 * 4, fp->xoehdr->odsreclen);
        } else {
            EXPECT_EQ(12, fp->xoehdr->transferfactor);
            // A buffer not in whole rows is taken for the rows that fit.
            Cur w(fp, DA_IOMBYROW, 10);
            EXPECT_EQ(0, w.c->mt->setbuf(w.c, w.iob, 10 * ROWLEN + 7));
            EXPECT_EQ(10, w.c->obsperbuf);
            EXPECT_EQ(DA_BADARG, w.c->mt->setbuf(w.c, w.iob, ROWLEN - 1));
        }
        {
            Cur w(fp, DA_IOMBYROW, 100);
            ASSERT_EQ(0, w.write(1, 5, 0));
            ASSERT_EQ(0, w.write(6, 100, 1));
            ASSERT_EQ(0, w.write(106, 30, 0));
        }
        ASSERT_EQ(0, darclos(fp));
        // The row text is not in the data file as it stands.
        std::string all;
        DIR* d = opendir(tmp.path().c_str());
        while (dirent* e = readdir(d))
            if (strncmp(e->d_name, f.name, strlen(f.name)) == 0 && strstr(e->d_name, ".dpf"))
                all += vrtatest::readFile(tmp.file(e->d_name));
        closedir(d);
        char row[ROWLEN];
        makerow(3, 0, row);
        bool clear = all.find(std::string(row + 8, 12)) != std::string::npos;
        EXPECT_EQ(f.semtype != DA_SEMZCRYPT, clear);

        o = lifetest::request(f.name, DA_OMUPDATE);
        ASSERT_EQ(0, daopen(lp, &o, &fp));
        {
            Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM, 40);
            ASSERT_EQ(0, u.write(10, 20, 2, 10));
            ASSERT_EQ(0, u.write(130, 10, 2, 130));
        }
        ASSERT_EQ(0, darclos(fp));
        o = lifetest::request(f.name, DA_OMINPUT);
        ASSERT_EQ(0, daopen(lp, &o, &fp));
        EXPECT_EQ(139, fp->xoehdr->numobs);
        {
            Cur r(fp, DA_IOMBYROW, 13, 3);
            hs_obsno_t next = 1;
            while (r.read(3) == 0) {
                for (int b = 0; b <= r.c->bfi; ++b)
                    for (long i = 0; i < r.iob[b].numobs; ++i, ++next) {
                        uint32_t v = next >= 10 && next < 30 ? 2 : next >= 130 ? 2 : next <= 5 || next >= 106 ? 0 : 1;
                        ASSERT_TRUE(rowis(r.row(b, i), next, v)) << next;
                    }
            }
            EXPECT_EQ(140, next);
        }
        ASSERT_EQ(0, darclos(fp));
    }
    EXPECT_EQ(0, dafrlib(lp));
}

// Readers that pass over deleted rows while another opener appends: each
// buffer stops at the row count it started with, so no appended row is
// jumped over, and every row read holds what was written there.
TEST(PlainCursor, ReadersOfDeletedRunsMissNoRowAppendedDuringTheRead) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "race", PLAIN);
    ASSERT_NE(nullptr, fp);
    constexpr int64_t FIRST = 60, LAST = 600;
    {
        Cur w(fp, DA_IOMBYROW, FIRST);
        ASSERT_EQ(0, w.write(1, FIRST, 0));
    }
    ASSERT_EQ(0, darclos(fp));
    // The readers' handles are opened by this task, then the writer's, and
    // each is used by a thread of its own, as scan threads use theirs.
    DA_FID* rds[2] = {reopen(lp, "race", DA_OMINPUT, PLAIN), reopen(lp, "race", DA_OMINPUT, PLAIN)};
    ASSERT_TRUE(rds[0] && rds[1]);
    DA_FID* wr = reopen(lp, "race", DA_OMUPDATE, PLAIN);
    ASSERT_NE(nullptr, wr);
    const std::vector<int64_t> deleted = {5, 6, 7, 31, 59, 60};
    for (int64_t n : deleted) ASSERT_EQ(0, wr->mt->delobs(wr, n));

    std::atomic<bool> done{false};
    struct Seen {
        std::vector<int64_t> rows;
        std::string fault;
        std::atomic<long> eofs{0};  // reads that found no row
    };
    std::vector<Seen> seen(2);
    auto reader = [&](Seen* s, DA_FID* rd) {
        {
            Cur r(rd, DA_IOMBYROW | DA_IOMREAD | DA_IOMSEQ, 5);
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            for (;;) {
                bool last = done.load();
                rctype rc = r.read();
                if (rc < 0 && rc != DA_EOF) {
                    s->fault = "read rc " + std::to_string(rc);
                    break;
                }
                for (long i = 0; rc == 0 && i < r.iob[0].numobs; ++i) {
                    int64_t n = r.iob[0].obsvec[i];
                    if (!rowis(r.row(0, i), n, 0)) s->fault = "row " + std::to_string(n) + " not as written";
                    s->rows.push_back(n);
                }
                if ((rc == DA_EOF && last) || !s->fault.empty()) break;
                if (rc == DA_EOF) s->eofs++;
                if (std::chrono::steady_clock::now() > deadline) {
                    s->fault = "no end within the deadline";
                    break;
                }
            }
        }
    };
    std::thread t1(reader, &seen[0], rds[0]), t2(reader, &seen[1], rds[1]);
    char rows[3 * ROWLEN];
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int64_t written = FIRST;
    for (int64_t n = FIRST + 1; n + 2 <= LAST; n += 3) {
        // Each batch lands while both readers stand at the end, where a
        // reader that looks at the row count twice would jump past it.
        long e0 = seen[0].eofs, e1 = seen[1].eofs;
        while ((seen[0].eofs == e0 || seen[1].eofs == e1) && seen[0].fault.empty() && seen[1].fault.empty() &&
               std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        for (int i = 0; i < 3; ++i) makerow(n + i, 0, rows + i * ROWLEN);
        ASSERT_EQ(0, dawrobs(wr, n, rows, 3));
        written = n + 2;
    }
    done = true;
    t1.join();
    t2.join();
    for (DA_FID* rd : rds) ASSERT_EQ(0, darclos(rd));
    std::vector<int64_t> live;
    for (int64_t n = 1; n <= written; ++n)
        if (std::find(deleted.begin(), deleted.end(), n) == deleted.end()) live.push_back(n);
    for (const Seen& s : seen) {
        EXPECT_EQ("", s.fault);
        auto miss = std::mismatch(live.begin(), live.end(), s.rows.begin(), s.rows.end());
        EXPECT_TRUE(miss.first == live.end() && miss.second == s.rows.end())
            << "expected row " << (miss.first == live.end() ? -1 : *miss.first) << ", read "
            << (miss.second == s.rows.end() ? -1 : *miss.second);
    }
    ASSERT_EQ(0, darclos(wr));
    EXPECT_EQ(0, dafrlib(lp));
}

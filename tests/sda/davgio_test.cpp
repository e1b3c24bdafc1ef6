// Tables stored in blocks through an exit: every built-in exit end to end,
// blocks that grow and shrink under updates, and the vector tree of
// variable blocks past its first level.
#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "curutil.h"
#include "testutil.h"

using namespace vrta;
using namespace curtest;

namespace {

const Kind KINDS[] = {{"VRTARLC2", false}, {"VRTARLLC", false}, {"VRTALZWC", false}, {"VRTACRYP", true}};

// Variants of rows 1..n as the test believes they are.
struct Model {
    std::vector<uint32_t> v;
    void set(int64_t first, long n, uint32_t var) {
        if (static_cast<size_t>(first - 1 + n) > v.size()) v.resize(first - 1 + n);
        for (long i = 0; i < n; ++i) v[first - 1 + i] = var;
    }
};

// Reads the whole table in odd-sized buffers and checks every row.
void verify(DA_FID* fp, const Model& m, const char* what) {
    SCOPED_TRACE(what);
    ASSERT_EQ(static_cast<hs_obsno_t>(m.v.size()), fp->xoehdr->numobs);
    Cur r(fp, DA_IOMBYROW, 333, 2);
    ASSERT_EQ(0, r.c->mt->setloc(r.c, 1));
    hs_obsno_t next = 1;
    for (;;) {
        rctype rc = r.read(2);
        if (rc == DA_EOF) break;
        ASSERT_EQ(0, rc);
        for (int b = 0; b <= r.c->bfi; ++b) {
            for (long i = 0; i < r.iob[b].numobs; ++i, ++next) {
                char want[ROWLEN];
                makerow(next, m.v[next - 1], want);
                ASSERT_EQ(0, memcmp(want, r.row(b, i), ROWLEN)) << "row " << next;
            }
        }
    }
    EXPECT_EQ(static_cast<hs_obsno_t>(m.v.size()) + 1, next);
}

DA_VBHEAD vbhead(DA_FID* fp) {
    DA_FCB* fcb = fcbof(fp);
    DA_VBHEAD h{};
    EXPECT_EQ(0, dardvbh(fcb->mdfio, &h, fcb->dshdr.links[DA_LNKVBH]));
    return h;
}

}  // namespace

TEST(BlockCursor, EveryExitRoundTripsAppendsUpdatesAndReopens) {
    for (const Kind& k : KINDS) {
        for (int grow : {0, 200}) {
            SCOPED_TRACE(std::string(k.exit) + " grow " + std::to_string(grow));
            vrtatest::TempDir tmp;
            DA_LIB* lp = lifetest::assign(tmp.path());
            // Partitions of a few blocks each.
            DA_FID* fp = make(lp, "blk", k, 0, 3 * 8192, grow);
            ASSERT_NE(nullptr, fp);
            EXPECT_EQ(k.crypt ? DA_SEMXCFBS : DA_SEMXCVBS, fp->xoehdr->semtype);
            const int bf = fp->xoehdr->blockfactor;
            ASSERT_GT(bf, 8);
            Model m;
            {
                Cur w(fp, DA_IOMBYROW, 3 * bf);
                // Partial, completing, aligned whole, several whole plus a tail.
                long sizes[] = {1, 7, bf - 8, bf, 2 * bf + 5, 3, bf - 8, 1};
                int64_t at = 1;
                uint32_t var = 0;
                for (long n : sizes) {
                    ASSERT_EQ(0, w.write(at, n, var));
                    m.set(at, n, var);
                    at += n;
                    var = var ? 0 : 7;
                }
                // Rows still in the table's partial block are read back.
                verify(fp, m, "before close");
            }
            ASSERT_EQ(0, darclos(fp));
            fp = reopen(lp, "blk", DA_OMINPUT, k);
            ASSERT_NE(nullptr, fp);
            verify(fp, m, "reopened");
            ASSERT_EQ(0, darclos(fp));

            // Rewrites: noise makes a block grow, plain rows shrink it again.
            fp = reopen(lp, "blk", DA_OMUPDATE, k);
            ASSERT_NE(nullptr, fp);
            const hs_obsno_t n = fp->xoehdr->numobs;
            for (uint32_t round = 1; round <= 6; ++round) {
                Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM, 2 * bf);
                uint32_t var = round % 2 ? round : 0;
                struct {
                    hs_obsno_t at;
                    long n;
                } spots[] = {{1, bf}, {bf + 3, 10}, {2 * bf - 2, 5}, {3 * bf + 1, 2 * bf}, {n - 2, 3}, {n + 1, 4}};
                for (auto& s : spots) {
                    ASSERT_EQ(0, u.write(s.at, s.n, var, s.at)) << s.at;
                    m.set(s.at, s.n, var);
                }
                verify(fp, m, "after a round");
            }
            if (!k.crypt) {
                // Blocks that outgrew their place moved instead of making chains.
                ASSERT_EQ(0, fp->mt->force(fp, 0));
                EXPECT_EQ(0, vbhead(fp).stat.numoverflow);
            }
            ASSERT_EQ(0, darclos(fp));
            fp = reopen(lp, "blk", DA_OMINPUT, k);
            ASSERT_NE(nullptr, fp);
            verify(fp, m, "reopened after updates");
            // A partition every partfactor rows, each a whole number of blocks.
            EXPECT_EQ(0, fp->xoehdr->partfactor % bf);
            int parts = 0;
            DIR* d = opendir(tmp.path().c_str());
            while (dirent* e = readdir(d)) parts += strncmp(e->d_name, "blk.dpf", 7) == 0;
            closedir(d);
            EXPECT_EQ((fp->xoehdr->numobs - 1) / fp->xoehdr->partfactor + 1, parts);
            if (!k.crypt) {
                DA_VBHEAD h = vbhead(fp);
                EXPECT_EQ(1, h.numlevels);
                EXPECT_GE(h.vbvspan, 32);
                EXPECT_EQ(0, h.vbvspan % 32);
            }
            ASSERT_EQ(0, darclos(fp));
            EXPECT_EQ(0, dafrlib(lp));
        }
    }
}

TEST(BlockCursor, ReaderSeesAnotherCursorsWritesAndByBlockLocators) {
    const Kind k{"VRTARLC2", false};
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "two", k);
    ASSERT_NE(nullptr, fp);
    const int bf = fp->xoehdr->blockfactor;
    Model m;
    {
        Cur w(fp, DA_IOMBYROW, bf);
        Cur r(fp, DA_IOMBYROW | DA_IOMRANDOM, 5);
        ASSERT_EQ(0, w.write(1, bf, 0));
        m.set(1, bf, 0);
        ASSERT_EQ(0, w.write(bf + 1, 3, 9));
        m.set(bf + 1, 3, 9);
        // Row bf + 2 lives only in the table's new block so far.
        r.iob[0].locator = bf;
        ASSERT_EQ(0, r.read());
        ASSERT_EQ(4, r.iob[0].numobs);
        char want[ROWLEN];
        makerow(bf + 2, 9, want);
        EXPECT_EQ(0, memcmp(want, r.row(0, 2), ROWLEN));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "two", DA_OMINPUT, k);
    ASSERT_NE(nullptr, fp);
    {
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMRANDOM, &c));
        DA_IOB* iob = nullptr;
        long bs = 0;
        ASSERT_EQ(0, damkiob(ROWLEN, fp->blockfactor, 1, 1, &iob, &bs));
        ASSERT_EQ(0, c->mt->setbuf(c, iob, bs));
        iob[0].locator = 1;
        ASSERT_EQ(0, c->mt->dareadv(c, 1));
        EXPECT_EQ(3, iob[0].numobs);
        iob[0].locator = 2;
        EXPECT_EQ(DA_PASTEND, c->mt->dareadv(c, 1));
        iob[0].locator = 0;
        ASSERT_EQ(0, c->mt->dareadv(c, 1));
        EXPECT_EQ(bf, iob[0].numobs);
        char want[ROWLEN];
        makerow(bf, 0, want);
        EXPECT_EQ(0, memcmp(want, static_cast<char*>(iob[0].bufptr) + (bf - 1) * ROWLEN, ROWLEN));
        // Blocks are not rows in the file: no mapping.
        DA_IOCB* mc = nullptr;
        EXPECT_EQ(DA_BADARG, getiocb(fp, DA_IOMMAPPED, &mc));
        EXPECT_GE(c->mt->freeiocb(c), 0);
        dafriob(iob);
    }
    verify(fp, m, "reopened");
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(BlockCursor, VectorTreeGrowsALevelAndReadsAcrossIt) {
    // 8-byte rows in 512-byte blocks: 64 rows a block and 32 blocks a
    // vector, so the first level is full after 1024 vectors.
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_OPNSTR o = lifetest::request("deep", DA_OMOUTPUT);
    o.flags = DA_OFCOMPRESS;
    memcpy(o.diskcomp, "VRTARLC2", 8);
    o.blocksize = 512;
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    auto cols = lifetest::columns();
    ASSERT_EQ(0, fp->mt->defvars(fp, 1, cols.data()));
    ASSERT_EQ(64, fp->xoehdr->blockfactor);
    const int64_t perlevel = 1024LL * 32 * 64;
    const int64_t total = perlevel + 64 * 40 + 17;
    {
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMBYROW, &c));
        const long chunk = 64 * 256;
        std::vector<double> buf(chunk);
        DA_IOB iob{buf.data(), nullptr, 0, -1};
        ASSERT_EQ(0, c->mt->setbuf(c, &iob, chunk * 8));
        for (int64_t at = 1; at <= total; at += chunk) {
            long n = static_cast<long>(std::min<int64_t>(chunk, total - at + 1));
            for (long i = 0; i < n; ++i) buf[i] = static_cast<double>((at + i) / 7);
            iob.numobs = n;
            ASSERT_EQ(0, c->mt->dawritev(c, 1));
        }
        EXPECT_GE(c->mt->freeiocb(c), 0);
    }
    ASSERT_EQ(0, darclos(fp));
    o = lifetest::request("deep", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    EXPECT_EQ(total, fp->xoehdr->numobs);
    DA_VBHEAD h = vbhead(fp);
    EXPECT_EQ(2, h.numlevels);
    EXPECT_EQ(32, h.vbvspan);
    {
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMBYROW | DA_IOMRANDOM, &c));
        std::vector<double> buf(1000);
        DA_IOB iob{buf.data(), nullptr, 0, -1};
        ASSERT_EQ(0, c->mt->setbuf(c, &iob, 1000 * 8));
        // Sequentially over the level's edge, then by jumps on both sides.
        for (hs_obsno_t loc : {perlevel - 500, perlevel + 500, perlevel + 1500, hs_obsno_t{1}, perlevel - 64,
                               total - 3, perlevel / 2 + 1}) {
            iob.locator = loc;
            ASSERT_EQ(0, c->mt->dareadv(c, 1)) << loc;
            long want = static_cast<long>(std::min<int64_t>(1000, total - loc + 1));
            ASSERT_EQ(want, iob.numobs) << loc;
            for (long i = 0; i < want; ++i) ASSERT_EQ(static_cast<double>((loc + i) / 7), buf[i]) << loc + i;
        }
        EXPECT_GE(c->mt->freeiocb(c), 0);
    }
    ASSERT_EQ(0, darclos(fp));

    // Rewrites on both sides of the edge go through the two-level tree.
    o = lifetest::request("deep", DA_OMUPDATE);
    o.blockgrow = -1;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    const hs_obsno_t spots[] = {1, perlevel - 64 + 1, perlevel + 1, total - 10};
    {
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, &c));
        std::vector<double> buf(64);
        DA_IOB iob{buf.data(), nullptr, 64, -1};
        ASSERT_EQ(0, c->mt->setbuf(c, &iob, 64 * 8));
        for (hs_obsno_t at : spots) {
            long n = static_cast<long>(std::min<int64_t>(64, total - at + 1));
            // Values that do not repeat make each block longer than before.
            for (long i = 0; i < n; ++i) buf[i] = -static_cast<double>(at + i) * 1.000001;
            iob.numobs = n;
            iob.locator = at;
            ASSERT_EQ(0, c->mt->dawritev(c, 1)) << at;
        }
        EXPECT_GE(c->mt->freeiocb(c), 0);
    }
    ASSERT_EQ(0, darclos(fp));
    o = lifetest::request("deep", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    {
        DA_IOCB* c = nullptr;
        ASSERT_EQ(0, getiocb(fp, DA_IOMBYROW | DA_IOMRANDOM, &c));
        std::vector<double> buf(128);
        DA_IOB iob{buf.data(), nullptr, 0, -1};
        ASSERT_EQ(0, c->mt->setbuf(c, &iob, 128 * 8));
        for (hs_obsno_t at : spots) {
            iob.locator = at > 32 ? at - 32 : at;
            ASSERT_EQ(0, c->mt->dareadv(c, 1)) << at;
            for (long i = 0; i < iob.numobs; ++i) {
                hs_obsno_t r = iob.locator + i;
                bool rewritten = false;
                for (hs_obsno_t s : spots) rewritten = rewritten || (r >= s && r < s + 64);
                double want = rewritten ? -static_cast<double>(r) * 1.000001 : static_cast<double>(r / 7);
                ASSERT_EQ(want, buf[i]) << r;
            }
        }
        EXPECT_GE(c->mt->freeiocb(c), 0);
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

namespace {

// Offset and length of block ic as the table's only vector records them.
struct Slot {
    int64_t off;
    int32_t len;
};
Slot vecslot(DA_FID* fp, int ic) {
    DA_FCB* fcb = fcbof(fp);
    DA_VBHEAD h = vbhead(fp);
    std::vector<char> v(h.vbvecsize);
    long got = 0;
    EXPECT_GE(fcb->mdfd->fdread(fcb->mdfd, v.data(), h.vbvecsize, h.lastOffset, &got), 0);
    Slot sl{};
    int16_t l;
    memcpy(&sl.off, v.data() + 8 * ic, 8);
    memcpy(&l, v.data() + 8 * h.vbvspan + 4 * ((h.vbvspan + 31) / 32) + 2 * ic, 2);
    sl.len = l;
    return sl;
}

}  // namespace

// A block may hold committed rows, so it is rewritten in place only by one
// write that leaves its vector entry alone; any other rewrite puts it at the
// end of the data file and the vector follows once the block is on disk.
TEST(BlockCursor, RewrittenBlocksStayOnlyWhenOneWriteKeepsTheirEntry) {
    for (int grow : {0, 400}) {
        SCOPED_TRACE("grow " + std::to_string(grow));
        const Kind k{"VRTARLC2", false};
        vrtatest::TempDir tmp;
        DA_LIB* lp = lifetest::assign(tmp.path());
        DA_FID* fp = make(lp, "grow", k, 0, 0, grow);
        ASSERT_NE(nullptr, fp);
        const int bf = fp->xoehdr->blockfactor;
        Model m;
        {
            Cur w(fp, DA_IOMBYROW, 2 * bf);
            ASSERT_EQ(0, w.write(1, bf + 5, 0));
            m.set(1, bf + 5, 0);
        }
        ASSERT_EQ(0, darclos(fp));
        fp = reopen(lp, "grow", DA_OMUPDATE, k);
        ASSERT_NE(nullptr, fp);
        {
            Cur u(fp, DA_IOMBYROW | DA_IOMRANDOM, bf);
            auto put = [&](hs_obsno_t at, long n, uint32_t v) {
                ASSERT_EQ(0, u.write(at, n, v, at));
                m.set(at, n, v);
                ASSERT_EQ(0, fp->mt->force(fp, 0));
            };
            auto dpfsize = [&]() { return *fcbof(fp)->dffd->filesize; };
            // The same bytes again: one write where the block is.
            Slot b0 = vecslot(fp, 0);
            put(1, bf, 0);
            EXPECT_EQ(b0.off, vecslot(fp, 0).off);
            EXPECT_EQ(b0.len, vecslot(fp, 0).len);
            // Block 0 grows: without slack it moves behind everything; with
            // slack it grows inside its piece.
            int64_t end = dpfsize();
            put(1, 10, 5);
            Slot moved = vecslot(fp, 0);
            if (grow == 0) {
                EXPECT_EQ(end, moved.off);
                EXPECT_GT(dpfsize(), end);
            } else {
                EXPECT_EQ(b0.off, moved.off);
                EXPECT_EQ(end, dpfsize());
            }
            // The last block grows too, and moves as block 0 did.
            Slot b1 = vecslot(fp, 1);
            put(bf + 1, 5, 3);
            if (grow == 0) {
                EXPECT_NE(b1.off, vecslot(fp, 1).off);
            }
            // Rows with nothing to compress are stored raw, a negative length:
            // another form always moves.
            Slot before = vecslot(fp, 0);
            put(1, bf, 105);
            EXPECT_LT(vecslot(fp, 0).len, 0);
            EXPECT_NE(before.off, vecslot(fp, 0).off);
            put(1, bf, 0);
            EXPECT_GT(vecslot(fp, 0).len, 0);
            EXPECT_EQ(0, vbhead(fp).stat.numoverflow);
            verify(fp, m, "after rewrites");
        }
        ASSERT_EQ(0, darclos(fp));
        fp = reopen(lp, "grow", DA_OMINPUT, k);
        ASSERT_NE(nullptr, fp);
        verify(fp, m, "reopened");
        ASSERT_EQ(0, darclos(fp));
        EXPECT_EQ(0, dafrlib(lp));
    }
}

TEST(BlockCursor, RefillUsesWhollyDeletedBlocks) {
    const Kind k{"VRTALZWC", false};
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "refill", k, 0, 0, 0, DA_ADDAVAILREUSE);
    ASSERT_NE(nullptr, fp);
    const int bf = fp->xoehdr->blockfactor;
    Model m;
    {
        Cur w(fp, DA_IOMBYROW, 3 * bf);
        ASSERT_EQ(0, w.write(1, 3 * bf, 0));
        m.set(1, 3 * bf, 0);
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "refill", DA_OMUPDATE, k);
    // Block 1 wholly deleted, block 0 only in part.
    for (int i = 0; i < bf; ++i) ASSERT_EQ(0, fp->mt->delobs(fp, bf + 1 + i));
    ASSERT_EQ(0, fp->mt->delobs(fp, 2));
    // Rows of a block table do not sit at a row count's offset: cutting by
    // row count is refused and must leave every row in place.
    EXPECT_EQ(DA_BADARG, fp->mt->truncobs(fp, bf));
    EXPECT_EQ(3 * bf, fp->xoehdr->numobs);
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "refill", DA_OMAPPEND, k);
    ASSERT_NE(nullptr, fp);
    {
        Cur w(fp, DA_IOMBYROW | DA_IOMREFILL, bf + 10);
        ASSERT_TRUE(w.c->iom & DA_IOMFILLING);
        for (long i = 0; i < bf + 10; ++i) makerow(i < bf ? bf + 1 + i : 3 * bf + 1 + (i - bf), 4, w.row(0, i));
        w.iob[0].numobs = bf + 10;
        ASSERT_EQ(0, w.c->mt->dawritev(w.c, 1));
        EXPECT_FALSE(w.c->iom & DA_IOMFILLING);
        m.set(bf + 1, bf, 4);
        m.set(3 * bf + 1, 10, 4);
    }
    EXPECT_EQ(3 * bf + 10, fp->xoehdr->numobs);
    EXPECT_EQ(1, fp->xoehdr->numdelete);
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "refill", DA_OMINPUT, k);
    ASSERT_NE(nullptr, fp);
    {
        Cur r(fp, DA_IOMBYROW | DA_IOMDELETED, 4 * bf);
        ASSERT_EQ(0, r.read());
        ASSERT_EQ(3 * bf + 10, r.iob[0].numobs);
        for (long i = 0; i < r.iob[0].numobs; ++i) {
            char want[ROWLEN];
            makerow(i + 1, m.v[i], want);
            ASSERT_EQ(0, memcmp(want, r.row(0, i), ROWLEN)) << i + 1;
        }
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(BlockCursor, ThreadsReadWhileOneAppendsAndUpdates) {
    for (const Kind& k : {Kind{nullptr, false}, Kind{"VRTARLC2", false}, Kind{"VRTACRYP", true}}) {
        SCOPED_TRACE(k.exit ? k.exit : "plain");
        vrtatest::TempDir tmp;
        DA_LIB* lp = lifetest::assign(tmp.path());
        DA_FID* fp = make(lp, "mt", k);
        ASSERT_NE(nullptr, fp);
        {
            Cur w(fp, DA_IOMBYROW, 1000);
            ASSERT_EQ(0, w.write(1, 1000, 0));
        }
        ASSERT_EQ(0, darclos(fp));
        fp = reopen(lp, "mt", DA_OMUPDATE, k);
        ASSERT_NE(nullptr, fp);
        const int bf = fp->xoehdr->blockfactor;
        std::atomic<long> bad{0}, reads{0};
        // Every row the readers see is row n in variant 0 or 1: the writer
        // only ever turns a row into its variant 1 or appends variant 0.
        // Readers do a bounded number of reads: the updater's lock lets
        // readers in ahead of a waiting writer.
        auto reader = [&](unsigned seed) {
            // Sequential cursors read ahead; what they hold must not go stale.
            Cur r(fp, DA_IOMBYROW | (seed % 2 ? 0 : DA_IOMRANDOM), 50);
            std::mt19937 rng(seed);
            for (int i = 0; i < 200; ++i) {
                hs_obsno_t n = fp->xoehdr->numobs;
                r.iob[0].locator = std::uniform_int_distribution<hs_obsno_t>(1, n)(rng);
                if (r.read() != 0) {
                    ++bad;
                    continue;
                }
                ++reads;
                for (long i = 0; i < r.iob[0].numobs; ++i) {
                    char a[ROWLEN], b[ROWLEN];
                    makerow(r.iob[0].obsvec[i], 0, a);
                    makerow(r.iob[0].obsvec[i], 1, b);
                    if (memcmp(a, r.row(0, i), ROWLEN) && memcmp(b, r.row(0, i), ROWLEN)) ++bad;
                }
            }
        };
        std::vector<std::thread> th;
        for (unsigned t = 0; t < 3; ++t) th.emplace_back(reader, t + 1);
        {
            Cur w(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, bf);
            std::mt19937 rng(7);
            for (int i = 0; i < 300; ++i) {
                hs_obsno_t n = fp->xoehdr->numobs;
                if (i % 3 == 0) {
                    ASSERT_EQ(0, w.write(n + 1, 17, 0, n + 1));
                } else {
                    hs_obsno_t at = std::uniform_int_distribution<hs_obsno_t>(1, n - 20)(rng);
                    ASSERT_EQ(0, w.write(at, 20, 1, at));
                }
            }
        }
        for (auto& t : th) t.join();
        EXPECT_EQ(0, bad.load());
        EXPECT_GT(reads.load(), 0);
        ASSERT_EQ(0, darclos(fp));
        EXPECT_EQ(0, dafrlib(lp));
    }
}

TEST(BlockCursor, DeletedRunsAcrossSegmentAndBlockEdges) {
    for (const Kind& k : {Kind{nullptr, false}, Kind{"VRTARLC2", false}, Kind{"VRTACRYP", true}}) {
        SCOPED_TRACE(k.exit ? k.exit : "plain");
        vrtatest::TempDir tmp;
        DA_LIB* lp = lifetest::assign(tmp.path());
        // 32 rows a block, 64 a segment.
        DA_OPNSTR o = kindreq("seg", DA_OMOUTPUT, k);
        o.blocksize = 32 * ROWLEN;
        o.idxsegsize = 64;
        DA_FID* fp = nullptr;
        ASSERT_EQ(0, daopen(lp, &o, &fp));
        auto cols = lifetest::columns();
        ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
        ASSERT_EQ(32, fp->xoehdr->blockfactor);
        ASSERT_EQ(64, fp->xoehdr->idxsegsize);
        {
            Cur w(fp, DA_IOMBYROW, 300);
            ASSERT_EQ(0, w.write(1, 300, 1));
        }
        ASSERT_EQ(0, darclos(fp));
        fp = reopen(lp, "seg", DA_OMUPDATE, k);
        ASSERT_NE(nullptr, fp);
        std::vector<char> del(301, 0);
        for (int n : {1, 32, 33, 64, 65, 128, 300}) del[n] = 1;
        for (int n = 129; n <= 192; ++n) del[n] = 1;  // a whole segment
        for (int n = 1; n <= 300; ++n) {
            if (del[n]) {
                ASSERT_EQ(0, fp->mt->delobs(fp, n));
            }
        }
        std::vector<hs_obsno_t> live;
        for (int n = 1; n <= 300; ++n)
            if (!del[n]) live.push_back(n);
        {
            Cur r(fp, DA_IOMBYROW, 50);
            std::vector<hs_obsno_t> got;
            while (r.read() == 0)
                for (long i = 0; i < r.iob[0].numobs; ++i) {
                    got.push_back(r.iob[0].obsvec[i]);
                    char want[ROWLEN];
                    makerow(r.iob[0].obsvec[i], 1, want);
                    ASSERT_EQ(0, memcmp(want, r.row(0, i), ROWLEN));
                }
            EXPECT_EQ(live, got);
            // A locator on a deleted row goes on to the next live one.
            for (auto [loc, first] : {std::pair<hs_obsno_t, hs_obsno_t>{64, 66}, {128, 193}, {1, 2}, {33, 34}}) {
                r.iob[0].locator = loc;
                ASSERT_EQ(0, r.read());
                EXPECT_EQ(first, r.iob[0].obsvec[0]) << loc;
            }
            r.iob[0].locator = 300;
            EXPECT_EQ(DA_EOF, r.read());
        }
        ASSERT_EQ(0, darclos(fp));
        EXPECT_EQ(0, dafrlib(lp));
    }
}

TEST(BlockCursor, SequentialReaderSeesRewritesOfBlocksItReadAhead) {
    const Kind k{"VRTARLC2", false};
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "ahead", k);
    ASSERT_NE(nullptr, fp);
    const int bf = fp->xoehdr->blockfactor;
    auto fill = [&](Cur& c, long n, char ch) {
        for (long i = 0; i < n; ++i) memset(c.row(0, i), ch, ROWLEN);
        c.iob[0].numobs = n;
    };
    {
        Cur w(fp, DA_IOMBYROW, 4 * bf);
        fill(w, 4 * bf, 'x');
        ASSERT_EQ(0, w.c->mt->dawritev(w.c, 1));
    }
    ASSERT_EQ(0, darclos(fp));
    fp = reopen(lp, "ahead", DA_OMUPDATE, k);
    ASSERT_NE(nullptr, fp);
    {
        Cur r(fp, DA_IOMBYROW, 50);
        ASSERT_EQ(0, r.read());
        EXPECT_EQ('x', r.row(0, 0)[0]);
        // Same bytes, other letter: block 1 is rewritten where it is, then
        // block 2 takes the table's block buffer.
        Cur w(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, 2 * bf);
        fill(w, 2 * bf, 'y');
        w.iob[0].locator = bf + 1;
        ASSERT_EQ(0, w.c->mt->dawritev(w.c, 1));
        ASSERT_EQ(0, r.c->mt->setloc(r.c, bf + 1));
        ASSERT_EQ(0, r.read());
        EXPECT_EQ('y', r.row(0, 0)[0]);
        EXPECT_EQ(0, vbhead(fp).stat.numoverflow);
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

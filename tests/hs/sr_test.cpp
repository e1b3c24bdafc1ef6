#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "hs/sr.h"
#include "fullpath.h"
#include "option/op.h"
#include "sda/darc.h"
#include "testutil.h"

using namespace vrta;
namespace fs = std::filesystem;

namespace {

// A private copy of the option table for one test, put back after.
class Options {
public:
    Options() {
        opinitgbl();
        old_ = opgtgbl();
        mine_ = opclonegbl();
    }
    ~Options() {
        opstgbl(old_);
        free(mine_);
    }
    void str(const char* name, const std::string& v) {
        ASSERT_EQ(0, opsetop(mine_, name, const_cast<char*>(v.data()), static_cast<int>(v.size())));
    }
    void num(const char* name, int v) { ASSERT_EQ(0, opsetop(mine_, name, &v, 4)); }
    void dbl(const char* name, double v) { ASSERT_EQ(0, opsetop(mine_, name, &v, 8)); }
    void bin(const char* name) { ASSERT_EQ(0, opbinst(mine_, name)); }
private:
    void* old_ = nullptr;
    void* mine_ = nullptr;
};

// Records of reclen bytes: a key from a small alphabet, so that equal keys
// are common, then the record's input position, then filler.
std::vector<std::string> records(long n, int keylen, int reclen, unsigned seed, int alphabet = 4) {
    std::mt19937 rng(seed);
    std::vector<std::string> v;
    for (long i = 0; i < n; ++i) {
        std::string r(reclen, '\0');
        for (int k = 0; k < keylen; ++k) r[k] = static_cast<char>('a' + rng() % alphabet);
        int64_t pos = i;
        if (reclen - keylen >= 8) memcpy(r.data() + keylen, &pos, 8);
        for (int k = keylen + 8; k < reclen; ++k) r[k] = static_cast<char>(rng());
        v.push_back(r);
    }
    return v;
}

struct Result {
    rctype rc = 0;
    std::vector<std::string> out;
    long runs = 0;
    bool spilled = false;
    std::string spillname;
};

long countruns(SR_CTX* sp) {
    long n = 0;
    for (SR_BIN* b = sp->flist; b; b = b->next) n++;
    return n;
}

// Feeds the records through sraddbin/srendbin in uneven pieces, finishes and
// reads them all back with srnextrec.
Result runsort(SR_PARMS p, const std::vector<std::string>& in, long piece = 37) {
    Result r;
    SR_CTX* sp = nullptr;
    r.rc = sropen(&p, &sp);
    if (r.rc < 0) return r;
    int rl = sp->reclen;
    size_t i = 0;
    while (i < in.size()) {
        char* bin = nullptr;
        long room = 0;
        if ((r.rc = sraddbin(sp, &bin, &room, nullptr)) < 0) break;
        long n = std::min<long>({room, piece, static_cast<long>(in.size() - i)});
        for (long k = 0; k < n; ++k) memcpy(bin + k * rl, in[i + k].data(), rl);
        if ((r.rc = srendbin(sp, n)) < 0) break;
        i += n;
    }
    if (r.rc >= 0) r.rc = srfinish(sp);
    if (r.rc >= 0) {
        r.runs = countruns(sp);
        r.spilled = sp->file_handle != nullptr;
        if (sp->file_handle) r.spillname = sp->file_handle->filename;
        char* rec;
        long l;
        while ((l = srnextrec(sp, &rec)) > 0) r.out.emplace_back(rec, l);
        if (l < 0) r.rc = static_cast<rctype>(l);
    }
    rctype c = srclose(sp);
    if (r.rc >= 0) r.rc = c;
    return r;
}

// The output must hold the input's records with keys in stable_sort's
// order; within equal keys the heap may reorder, across runs it may not.
void expectSorted(const std::vector<std::string>& in, const std::vector<std::string>& out, int keylen) {
    auto want = in;
    std::stable_sort(want.begin(), want.end(),
                     [&](const std::string& a, const std::string& b) { return memcmp(a.data(), b.data(), keylen) < 0; });
    ASSERT_EQ(want.size(), out.size());
    for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(0, memcmp(want[i].data(), out[i].data(), keylen)) << i;
    auto a = want, b = out;
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    ASSERT_TRUE(a == b);
}

SR_PARMS parms(int keylen, int reclen, size_t mem, int flags, sr_mode_t mode = SR_DEFAULTMODE) {
    SR_PARMS p{};
    p.key_size = keylen;
    p.aux_size = reclen - keylen;
    p.mem_size = mem;
    p.flags = flags;
    p.mode = mode;
    return p;
}

std::vector<std::string> spillFiles(const std::string& dir) {
    std::vector<std::string> v;
    for (auto& e : fs::directory_iterator(dir))
        if (e.path().filename().string().rfind("vrtasr_", 0) == 0) v.push_back(e.path().filename().string());
    return v;
}

}  // namespace

TEST(Sorter, SortsLikeStableSortAtEveryBinEdgeInEachModeWithAndWithoutTheMergeThread) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    struct Shape { int keylen, reclen; sr_mode_t mode; };
    // 16-byte records move as words; 100-byte ones go by pointer, or move
    // through a buffer when the mode says so.
    for (Shape s : {Shape{8, 16, SR_DEFAULTMODE}, Shape{10, 100, SR_DEFAULTMODE}, Shape{10, 100, SR_MOVE_SORT},
                    Shape{3, 12, SR_DEFAULTMODE}}) {
        SR_PARMS probe = parms(s.keylen, s.reclen, 6000, 0x80 | 2, s.mode);
        SR_CTX* sp = nullptr;
        ASSERT_EQ(0, sropen(&probe, &sp));
        long rpb = sp->records_per_bin;
        EXPECT_EQ(0, srclose(sp));
        ASSERT_GT(rpb, 10);
        for (int merge : {1, 2}) {
            for (long n : {0L, 1L, 2L, rpb - 1, rpb, rpb + 1, 2 * rpb, 3 * rpb - 1, 7 * rpb + 3}) {
                SCOPED_TRACE("reclen " + std::to_string(s.reclen) + " mode " + std::to_string(s.mode) + " merge " +
                             std::to_string(merge) + " n " + std::to_string(n));
                auto in = records(n, s.keylen, s.reclen, static_cast<unsigned>(n * 31 + merge));
                Result r = runsort(parms(s.keylen, s.reclen, 6000, 0x80 | merge, s.mode), in);
                ASSERT_EQ(0, r.rc) << hsstrer(r.rc);
                expectSorted(in, r.out, s.keylen);
                // One bin never touches a file; one more record makes two runs.
                EXPECT_EQ(n > rpb, r.spilled);
                EXPECT_EQ(n > rpb ? (n + rpb - 1) / rpb : 0, r.runs);
            }
        }
    }
    EXPECT_TRUE(spillFiles(work.path()).empty());  // every spill file went at close
}

TEST(Sorter, EqualKeysFromEarlierRunsComeFirst) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    for (int merge : {1, 2}) {
        SR_PARMS p = parms(4, 16, 16 * 50, 0x80 | merge);
        auto in = records(150, 4, 16, 5, 1);  // every key "aaaa", three runs
        Result r = runsort(p, in);
        ASSERT_EQ(0, r.rc);
        ASSERT_EQ(3, r.runs);  // P is 4: the fourth leaf is empty and never wins
        ASSERT_EQ(150u, r.out.size());
        for (size_t i = 0; i < r.out.size(); ++i) {
            int64_t pos;
            memcpy(&pos, r.out[i].data() + 4, 8);
            EXPECT_EQ(static_cast<int64_t>(i / 50), pos / 50) << i;
        }
    }
}

TEST(Sorter, MemoryModeAndAlgorithmComeFromParametersOrOptions) {
    Options o;
    // Pointer mode reads a given size as moved records and adds the pointers.
    SR_PARMS p = parms(10, 100, 100000, 0);
    SR_CTX* sp = nullptr;
    ASSERT_EQ(0, sropen(&p, &sp));
    EXPECT_EQ(SR_POINTER_SORT, sp->parms.mode);
    EXPECT_EQ(8u + 1000u * 108u, sp->binsize);
    EXPECT_EQ(1000, sp->records_per_bin);
    EXPECT_EQ(srhsorp, sp->sortfp);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(sp->setup) % 8);
    EXPECT_GE(reinterpret_cast<char*>(sp->setup), sp->bin + 1000 * 100);
    EXPECT_EQ(0, srclose(sp));
    SR_PARMS f = p;
    f.mem_size = 8 + 1000 * 108;
    srfitmem(&f);
    EXPECT_EQ(100352u, f.mem_size);  // 100000 rounded up to 512

    // Small word-sized records move, and pick the member of their width.
    SR_PARMS m = parms(4, 20, 2000, 0x80);
    ASSERT_EQ(0, sropen(&m, &sp));
    EXPECT_EQ(SR_MOVE_SORT, sp->parms.mode);
    EXPECT_EQ(100, sp->records_per_bin);
    EXPECT_EQ(srhsr20, sp->sortfp);
    EXPECT_EQ(0, srclose(sp));
    char rec[40] = {};
    EXPECT_EQ(SR_RC_BADCOUNT, srhsr20(rec, 2, nullptr, 4, 16, nullptr, nullptr));  // wrong width refused

    // SORTMODE "MOVE" on 100-byte records: moved through a buffer.
    o.str("SORTMODE", "MOVE");
    ASSERT_EQ(0, sropen(&p, &sp));
    EXPECT_EQ(SR_MOVE_SORT, sp->parms.mode);
    EXPECT_EQ(srhsort, sp->sortfp);
    EXPECT_EQ(0, srclose(sp));

    // SORTSIZE caps what a caller asks for.
    o.dbl("SORTSIZE", 50000);
    EXPECT_EQ(50000, srmemsize());
    ASSERT_EQ(0, sropen(&p, &sp));
    EXPECT_EQ(50000u, sp->binsize);
    EXPECT_EQ(0, srclose(sp));
    SR_PARMS x = p;
    x.flags = 0x80;  // unless it is to be taken as it is
    ASSERT_EQ(0, sropen(&x, &sp));
    EXPECT_EQ(100000u, sp->binsize);
    EXPECT_EQ(0, srclose(sp));

    // Quicksort is accepted and still heap-sorts; the obsolete option is
    // ignored when set, so the default stands.
    o.str("SORT_ALGORITHM", "BUBBLE");
    auto in = records(300, 10, 100, 9);
    SR_PARMS q = parms(10, 100, 0, 0);
    q.algorithm = SR_QUICKSORT;
    Result r = runsort(q, in);
    ASSERT_EQ(0, r.rc);
    expectSorted(in, r.out, 10);
    SR_PARMS d = parms(10, 100, 5000, 0);
    ASSERT_EQ(0, sropen(&d, &sp));
    EXPECT_EQ(SR_HEAPSORT, sp->parms.algorithm);
    EXPECT_EQ(0, srclose(sp));
    SR_PARMS bad = p;
    bad.algorithm = static_cast<sr_stype_t>(5);
    EXPECT_EQ(SR_RC_BADALG, sropen(&bad, &sp));

    // No room for even one record, and a bin overfilled.
    SR_PARMS tiny = parms(4, 16, 8, 0x80);
    EXPECT_EQ(SR_RC_NOMEM, sropen(&tiny, &sp));
    SR_PARMS ok = parms(4, 16, 160, 0x80);
    ASSERT_EQ(0, sropen(&ok, &sp));
    char* bin;
    long room;
    ASSERT_EQ(0, sraddbin(sp, &bin, &room, nullptr));
    EXPECT_EQ(10, room);
    EXPECT_EQ(SR_RC_BADCOUNT, srendbin(sp, 11));
    EXPECT_EQ(0, srclose(sp));

    // Merge sizing.
    EXPECT_EQ(5, srmergerecs(1, 1000, 100));
    EXPECT_EQ(1, srmergerecs(1, 100, 100));
    EXPECT_EQ(10, srmergerecs(2, 1000, 100));
    SR_PARMS g = parms(4, 16, 0, 1);
    EXPECT_EQ(3200u, srgetmergesize(&g, 100));
    o.bin("NOMTMERGE");
    EXPECT_EQ(2, srqrymerge());
}

TEST(Sorter, SpillsOverManyRunsInBoundedMemoryThroughTheTransferWindow) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    o.num("TRANSFERSIZE", 8192);
    o.num("TRANSFERQUANTUM", 512);
    o.num("BINBUFSIZE", 1000);
    bool longrun = std::getenv("VRTA_LONG") != nullptr;
    long n = longrun ? 400000 : 20000;
    auto in = records(n, 10, 100, 21, 26);
    // A hundredth of the data in memory: a hundred runs and more.
    size_t mem = n * 100 / 100;
    for (int merge : {1, 2}) {
        SR_PARMS p = parms(10, 100, mem, 0x80 | merge);
        p.merge_size = 4000;
        Result r = runsort(p, in, 1000);
        ASSERT_EQ(0, r.rc) << hsstrer(r.rc);
        EXPECT_GE(r.runs, 100);
        expectSorted(in, r.out, 10);
    }
}

TEST(Sorter, BinFillersAndKeyBlocksDriveTheWholeSort) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    // Numbers keyed descending through a key block, by the fill-and-store form.
    SKB_KEY skb;
    ASSERT_EQ(0, skbinit(&skb, nullptr, nullptr, nullptr, SKB_MAKEKEY, 0, 1));
    ASSERT_EQ(0, skb.mt.addcol(&skb, 0, 8, 1, 1));
    ASSERT_EQ(0, skb.mt.addend(&skb, SKB_OBS));
    struct Fill { SKB_KEY* skb; std::vector<double> v; size_t next = 0; } fill{&skb, {}};
    std::mt19937 rng(4);
    for (int i = 0; i < 5000; ++i) fill.v.push_back(static_cast<double>(static_cast<int>(rng() % 2001) - 1000) / 8);
    auto filler = [](char* bin, long* nrecs, void* d) -> rctype {
        auto* f = static_cast<Fill*>(d);
        long room = *nrecs, n = 0;
        while (n < room && f->next < f->v.size()) {
            double x = f->v[f->next];
            rctype rc = f->skb->mt.makekey(f->skb, &x, static_cast<hs_obsno_t>(f->next + 1), bin, &n, nullptr);
            if (rc < 0) return rc;
            f->next++;
        }
        *nrecs = n;
        return f->next == f->v.size() ? 1 : 0;
    };
    struct Store { SKB_KEY* skb; std::vector<std::pair<double, hs_obsno_t>> got; } store{&skb, {}};
    auto storer = [](sr_runfp_t run, void* rd, void* d) -> rctype {
        auto* s = static_cast<Store*>(d);
        for (;;) {
            char* loc;
            long n;
            rctype rc = run(&loc, &n, rd);
            if (rc != 0) return rc < 0 ? rc : SR_RC_NOMERGE;
            if (n == 0) return 0;
            for (long i = 0; i < n; ++i) {
                double x;
                hs_obsno_t obs;
                s->skb->mt.extractkey(s->skb, loc + i * s->skb->info.reclen, &x, &obs);
                s->got.emplace_back(x, obs);
            }
        }
    };
    SR_PARMS p{};
    p.skb = &skb;
    p.mem_size = 16 * 700;
    p.flags = 0x80;
    ASSERT_EQ(0, srsort(&p, filler, &fill, storer, &store, nullptr));
    ASSERT_EQ(fill.v.size(), store.got.size());
    std::vector<std::pair<double, hs_obsno_t>> want;
    for (size_t i = 0; i < fill.v.size(); ++i) want.emplace_back(fill.v[i], i + 1);
    // Descending values, rising row numbers among equals: the key is total.
    std::sort(want.begin(), want.end(), [](auto& a, auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
    EXPECT_TRUE(want == store.got);

    // A filler's nonsense and an interrupt are clear codes.
    fill.next = 0;
    auto liar = [](char*, long* nrecs, void*) -> rctype {
        *nrecs = 0;
        return 7;
    };
    EXPECT_EQ(SR_RC_BADFILL, srsort(&p, liar, &fill, storer, &store, nullptr));
    volatile int stop = 1;
    EXPECT_EQ(SR_RC_INTERRUPT, srsort(&p, filler, &fill, storer, &store, &stop));
    skb.mt.destroy(&skb);
    EXPECT_TRUE(spillFiles(work.path()).empty());
}

TEST(Sorter, InterruptsAndDamagedOrUnwritableSpillFilesEndWithClearCodes) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    auto in = records(3000, 10, 100, 8, 26);
    for (int merge : {1, 2}) {
        // Interrupted in the merge: the stream ends, the code says why.
        volatile int stop = 0;
        SR_PARMS p = parms(10, 100, 50000, 0x80 | merge);
        p.interrupt = &stop;
        p.merge_size = 2000;
        SR_CTX* sp = nullptr;
        ASSERT_EQ(0, sropen(&p, &sp));
        ASSERT_EQ(0, srsort2addbin(sp, const_cast<char*>(std::string().data()), 0));
        for (auto& r : in) ASSERT_EQ(0, srsort2addbin(sp, const_cast<char*>(r.data()), 1));
        ASSERT_EQ(0, srfinish(sp));
        ASSERT_GT(countruns(sp), 1);
        char* rec;
        long got = 0, l;
        while ((l = srnextrec(sp, &rec)) > 0) {
            if (++got == 100) stop = 1;
        }
        EXPECT_EQ(SR_RC_INTERRUPT, l);
        EXPECT_EQ(SR_MERGE_INTERRUPTED, srgetrc(sp));
        EXPECT_EQ(0, srnextrec(sp, &rec));  // the stream stays ended
        EXPECT_LT(got, 3000);
        EXPECT_FALSE(spillFiles(work.path()).empty());
        EXPECT_EQ(0, srclose(sp));
        EXPECT_TRUE(spillFiles(work.path()).empty());
    }
    {
        // Interrupted while a bin sorts.
        volatile int stop = 1;
        SR_PARMS p = parms(10, 100, 50000, 0x80);
        p.interrupt = &stop;
        SR_CTX* sp = nullptr;
        ASSERT_EQ(0, sropen(&p, &sp));
        ASSERT_EQ(SR_RC_INTERRUPT, srsort2addbin(sp, const_cast<char*>(in[0].data()), 1));
        EXPECT_EQ(0, srclose(sp));
    }
    {
        // The spill file cut short under the merge.
        SR_PARMS p = parms(10, 100, 50000, 0x80 | 2);
        p.merge_size = 2000;
        SR_CTX* sp = nullptr;
        ASSERT_EQ(0, sropen(&p, &sp));
        for (auto& r : in) ASSERT_EQ(0, srsort2addbin(sp, const_cast<char*>(r.data()), 1));
        ASSERT_EQ(0, srfinish(sp));
        auto files = spillFiles(work.path());
        ASSERT_EQ(1u, files.size());
        ASSERT_EQ(0, truncate(work.file(files[0]).c_str(), 40000));
        char* rec;
        long l;
        while ((l = srnextrec(sp, &rec)) > 0) {}
        EXPECT_EQ(SR_RC_MERGEREAD, l);
        EXPECT_EQ(0, srclose(sp));
        EXPECT_TRUE(spillFiles(work.path()).empty());
    }
    {
        // A work path that cannot be written: the first spill fails clearly.
        std::string ro = work.file("ro");
        ASSERT_EQ(0, mkdir(ro.c_str(), 0555));
        if (geteuid() == 0) {
            // root writes anywhere: a path that is no directory fails the same way
            vrtatest::writeFile(work.file("plain"), "x");
            ro = work.file("plain");
        }
        o.str("WORKPATH", ro);
        SR_PARMS p = parms(10, 100, 50000, 0x80);
        SR_CTX* sp = nullptr;
        ASSERT_EQ(0, sropen(&p, &sp));
        rctype rc = 0;
        for (auto& r : in)
            if ((rc = srsort2addbin(sp, const_cast<char*>(r.data()), 1)) < 0) break;
        EXPECT_EQ(SR_RC_SPILL, rc);
        EXPECT_EQ(0, srclose(sp));
    }
}

TEST(Sorter, SpillFilesOfAKilledSortAreGoneOnTheNextStart) {
    vrtatest::TempDir work;
    Options o;
    o.str("WORKPATH", work.path());
    int ready[2], hold[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(hold));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Spill a run, say so, then wait to be killed.
        auto in = records(2000, 10, 100, 3);
        SR_PARMS p = parms(10, 100, 50000, 0x80);
        SR_CTX* sp = nullptr;
        if (sropen(&p, &sp) < 0) _exit(1);
        for (auto& r : in)
            if (srsort2addbin(sp, const_cast<char*>(r.data()), 1) < 0) _exit(2);
        char c = 'x';
        if (write(ready[1], &c, 1) != 1) _exit(3);
        if (read(hold[0], &c, 1) < 0) _exit(4);
        _exit(0);
    }
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    ASSERT_FALSE(spillFiles(work.path()).empty());
    kill(child, SIGKILL);
    int st;
    waitpid(child, &st, 0);
    close(ready[0]), close(ready[1]), close(hold[0]), close(hold[1]);
    auto stray = spillFiles(work.path());
    ASSERT_FALSE(stray.empty());

    // The next sort that spills there clears what the dead one left.
    auto in = records(2000, 10, 100, 4);
    SR_PARMS p = parms(10, 100, 50000, 0x80);
    SR_CTX* sp = nullptr;
    ASSERT_EQ(0, sropen(&p, &sp));
    for (auto& r : in) ASSERT_EQ(0, srsort2addbin(sp, const_cast<char*>(r.data()), 1));
    auto now = spillFiles(work.path());
    ASSERT_EQ(1u, now.size());
    EXPECT_EQ(std::string(sp->file_handle->filename), now[0].substr(0, strlen(sp->file_handle->filename)));
    for (auto& s : stray) EXPECT_NE(s, now[0]);
    EXPECT_EQ(0, srclose(sp));
}

// A work path that fills up while runs are spilled, at the first run, midway
// or at the last run srfinish writes: the sort ends with 0x8000040b, the
// cause is there to tell the user, and closing leaves no file behind. With a
// second path the spill moves on and the sort loses nothing.
TEST(Sorter, AFullWorkPathEndsTheSpillClearlyAndLeavesNoFile) {
    vrtatest::TempDir work;
    Options o;
    auto in = records(3000, 10, 100, 9, 26);
    const long total = 3000L * 100;
    for (sr_mode_t mode : {SR_MOVE_SORT, SR_POINTER_SORT}) {
        // A bin holds 500 records, so 6 runs; the first waits for the second.
        for (long budget : {0L, 1L, 120000L, total - 50000, total - 1}) {
            SCOPED_TRACE(std::to_string(mode) + " budget " + std::to_string(budget));
            o.str("WORKPATH", work.path());
            vrtatest::FullPath full(work.path() + "/", budget);
            SR_PARMS p = parms(10, 100, 50000, 0x80, mode);
            Result r = runsort(p, in, 500);
            EXPECT_EQ(SR_RC_SPILL, r.rc);
            EXPECT_LE(full.spent(), budget);
            EXPECT_TRUE(fs::is_empty(work.path()));
        }
        {
            // The cause, while the sort is still open.
            vrtatest::FullPath full(work.path() + "/", 120000);
            SR_PARMS p = parms(10, 100, 50000, 0x80, mode);
            SR_CTX* sp = nullptr;
            ASSERT_EQ(0, sropen(&p, &sp));
            EXPECT_EQ(0, srgetspillrc(sp));
            rctype rc = 0;
            for (auto& r : in)
                if ((rc = srsort2addbin(sp, const_cast<char*>(r.data()), 1)) < 0) break;
            EXPECT_EQ(SR_RC_SPILL, rc);
            EXPECT_EQ(DA_NOSPACE, srgetspillrc(sp));
            EXPECT_EQ(0, srclose(sp));
            EXPECT_TRUE(fs::is_empty(work.path()));
        }
        {
            // Two paths, the first full after one run: nothing is lost.
            std::string a = work.file("a"), b = work.file("b");
            ASSERT_EQ(0, mkdir(a.c_str(), 0755));
            ASSERT_EQ(0, mkdir(b.c_str(), 0755));
            o.str("WORKPATH", "('" + a + "' '" + b + "')");
            vrtatest::FullPath full(a + "/", 50000);
            SR_PARMS p = parms(10, 100, 50000, 0x80, mode);
            Result r = runsort(p, in, 500);
            ASSERT_EQ(0, r.rc);
            EXPECT_EQ(6, r.runs);
            expectSorted(in, r.out, 10);
            EXPECT_TRUE(fs::is_empty(a) && fs::is_empty(b));
            fs::remove(a);
            fs::remove(b);
        }
    }
}

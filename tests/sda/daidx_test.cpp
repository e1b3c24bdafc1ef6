// Index records and files of a table: add, query, open, state, the checks
// at open, replace and drop, and the block interface the index layer uses.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "sda/daidx.h"
#include "ssubs/skb.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

std::vector<std::string> filesof(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> v;
    DIR* d = opendir(dir.c_str());
    if (!d) return v;
    while (dirent* e = readdir(d))
        if (strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) v.push_back(e->d_name);
    closedir(d);
    return v;
}

DA_FID* openas(DA_LIB* lp, const char* name, int mode, rctype* rc) {
    DA_OPNSTR o = request(name, mode);
    DA_FID* fp = nullptr;
    *rc = daopen(lp, &o, &fp);
    return *rc < 0 ? nullptr : fp;
}

// What a finished build leaves: bytes in the file, the state clean, the
// rows counted.
void build(DA_FID* fp, const char* name, const std::string& bytes) {
    DA_IDX* ip = nullptr;
    ASSERT_EQ(0, fp->mt->openidx(fp, name, DA_IDXFIDX | DA_IDXOWRITE, &ip));
    ASSERT_EQ(0, dasetstate(ip, DA_IDXDIRTY));
    ASSERT_EQ(0, ip->mt->writeidx(ip, bytes.data(), static_cast<long>(bytes.size()), 0));
    ASSERT_EQ(0, ip->mt->closeidx(ip, DA_IDXCLEAN));
    DA_KEYSTAT ks{};
    ks.highobs = fp->xoehdr->numobs;
    ASSERT_EQ(0, fp->mt->setkeystat(fp, name, &ks));
}

std::string readall(DA_FID* fp, const char* name, int flags = 0) {
    DA_IDX* ip = nullptr;
    if (fp->mt->openidx(fp, name, DA_IDXFIDX | flags, &ip) != 0) return "?";
    std::string s(static_cast<size_t>(ip->filesize), '\0');
    long n = 0;
    rctype rc = ip->mt->readidx(ip, s.data(), static_cast<long>(s.size()), 0, &n);
    EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
    return rc == 0 && n == static_cast<long>(s.size()) ? s : "?";
}

}  // namespace

// The record of a new index, its file named like the table's others, the
// checks of an add, and a drop that takes files and record away.
TEST(TableIndex, AddQueryDropWithEveryCheck) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "Sales");
    ASSERT_NE(nullptr, fp);
    auto r = rows(1, 50);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 50));
    int32_t id[] = {1}, both[] = {2, 1}, name[] = {2};
    ASSERT_EQ(0, fp->mt->addidx(fp, "ById", DA_IDXFIDX, 1, id));
    ASSERT_EQ(0, fp->mt->addidx(fp, "ByBoth", DA_IDXFIDX | DA_IDXFHBX, 2, both));
    ASSERT_EQ(0, fp->mt->addidx(fp, "ByName", DA_IDXFIDX, 1, name));
    EXPECT_EQ(DA_EXISTS, fp->mt->addidx(fp, "BYID", DA_IDXFIDX, 1, id));
    int32_t zero[] = {0}, three[] = {3};
    EXPECT_EQ(DA_BADARG, fp->mt->addidx(fp, "Bad", DA_IDXFIDX, 1, zero));
    EXPECT_EQ(DA_BADARG, fp->mt->addidx(fp, "Bad", DA_IDXFIDX, 1, three));
    EXPECT_EQ(DA_BADARG, fp->mt->addidx(fp, "", DA_IDXFIDX, 1, id));
    EXPECT_EQ(DA_BADARG, fp->mt->addidx(fp, "NoFiles", 0, 1, id));
    EXPECT_EQ(3, fp->numindex);

    DA_KEYSTR k[4];
    ASSERT_EQ(3, fp->mt->queryidx(fp, 0, 4, k));
    EXPECT_EQ(2, fp->mt->queryidx(fp, 2, 4, k));  // by first column
    EXPECT_EQ(std::string("ByBoth"), std::string(k[0].name, k[0].name_l));
    EXPECT_EQ(DA_KEYCOMP, k[0].type);
    EXPECT_EQ(20, k[0].keylen);
    EXPECT_EQ(2, k[0].nvar);
    EXPECT_EQ(2, k[0].nvar0[0]);
    EXPECT_EQ(1, k[0].nvar0[1]);
    EXPECT_EQ(DA_IDXFIDX | DA_IDXFHBX, k[0].keyflags & DA_IDXFILES);
    ASSERT_EQ(0, fp->mt->queryicb(fp, "byname", k));
    EXPECT_EQ(DA_KEYCHAR, k[0].type);
    ASSERT_EQ(0, fp->mt->queryicb(fp, "BYID", k));
    EXPECT_EQ(DA_KEYNUM, k[0].type);
    EXPECT_EQ(8, k[0].keylen);
    EXPECT_EQ(DA_IDXDIRTY, k[0].states[DA_ICBIDX]);
    EXPECT_EQ(DA_NOTFOUND, fp->mt->queryicb(fp, "Nope", k));
    // The files sit beside the table's, named by table, kind and index.
    EXPECT_EQ(1u, filesof(tmp.path(), "sales.idxbyid.").size());
    EXPECT_EQ(1u, filesof(tmp.path(), "sales.hbxbyboth.").size());
    EXPECT_EQ(0u, filesof(tmp.path(), "sales.auxbyboth.").size());
    ASSERT_EQ(0, darclos(fp));

    // Read-only openers may not change the list; a file in use is not dropped.
    rctype rc;
    fp = openas(lp, "Sales", DA_OMINPUT, &rc);
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(DA_IDXREBUILD, rc);  // never built
    EXPECT_EQ(DA_WRONGKIND, fp->mt->addidx(fp, "More", DA_IDXFIDX, 1, id));
    EXPECT_EQ(DA_WRONGKIND, fp->mt->dropidx(fp, "ById", 0));
    ASSERT_EQ(0, darclos(fp));
    fp = openas(lp, "Sales", DA_OMUTIL, &rc);
    ASSERT_NE(nullptr, fp);
    DA_IDX* ip = nullptr;
    ASSERT_EQ(0, fp->mt->openidx(fp, "ById", DA_IDXFIDX, &ip));
    // Its key block: the column's number as bytes that compare as numbers
    // do, the row number behind it.
    auto* skb = static_cast<SKB_KEY*>(ip->skb);
    ASSERT_NE(nullptr, skb);
    EXPECT_EQ(8, skb->info.colkeylen);
    EXPECT_EQ(8, skb->info.obs_offset);
    std::vector<char> keys(2 * static_cast<size_t>(skb->info.reclen));
    long nk = 0;
    int miss = 0;
    char row[ROWLEN];
    makerow(-3, row);
    ASSERT_EQ(0, skb->mt.makekey(skb, row, 7, keys.data(), &nk, &miss));
    makerow(2, row);
    ASSERT_EQ(0, skb->mt.makekey(skb, row, 1, keys.data(), &nk, &miss));
    EXPECT_LT(memcmp(keys.data(), keys.data() + skb->info.reclen, 8), 0);
    EXPECT_EQ(DA_INUSE, fp->mt->dropidx(fp, "ById", 0));
    ASSERT_EQ(0, ip->mt->closeidx(ip, 0));
    EXPECT_EQ(DA_NOTFOUND, fp->mt->openidx(fp, "ById", DA_IDXFAUX, &ip));
    ASSERT_EQ(0, fp->mt->dropidx(fp, "ByBoth", 0));
    EXPECT_EQ(DA_NOTFOUND, fp->mt->dropidx(fp, "ByBoth", 0));
    ASSERT_EQ(0, fp->mt->dropidx(fp, "ById", 0));
    EXPECT_EQ(1, fp->numindex);
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0u, filesof(tmp.path(), "sales.idxbyid.").size());
    EXPECT_EQ(0u, filesof(tmp.path(), "sales.hbxbyboth.").size());
    fp = openas(lp, "Sales", DA_OMINPUT, &rc);
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(1, fp->xoehdr->nindexes);
    ASSERT_EQ(1, fp->mt->queryidx(fp, 0, 4, k));
    EXPECT_EQ(std::string("ByName"), std::string(k[0].name, k[0].name_l));
    EXPECT_TRUE(rowsintact(fp));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

// What the check at open finds: a dirty state, rows the index has not seen,
// a file grown by a block or more, a missing file; a size that differs by
// less than a block, or nothing at all, leaves the index trusted.
TEST(TableIndex, CheckAtOpenFlagsWhatCannotBeTrusted) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "t");
    ASSERT_NE(nullptr, fp);
    auto r = rows(1, 30);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 30));
    int32_t id[] = {1};
    ASSERT_EQ(0, fp->mt->addidx(fp, "i", DA_IDXFIDX, 1, id));
    build(fp, "i", std::string(1000, 'x'));
    ASSERT_EQ(0, darclos(fp));
    rctype rc;
    auto verdict = [&](const char* what) {
        DA_FID* f = openas(lp, "t", DA_OMINPUT, &rc);
        EXPECT_NE(nullptr, f) << what;
        DA_KEYSTR k{};
        if (f) {
            EXPECT_EQ(0, f->mt->queryicb(f, "i", &k));
            EXPECT_GE(darclos(f), 0);
        }
        return k.checks;
    };
    EXPECT_EQ(0u, verdict("clean"));
    EXPECT_EQ(0, rc);

    // A build that died: the state on disk says dirty.
    fp = openas(lp, "t", DA_OMUTIL, &rc);
    DA_IDX* ip = nullptr;
    ASSERT_EQ(0, fp->mt->openidx(fp, "i", DA_IDXFIDX | DA_IDXOWRITE, &ip));
    ASSERT_EQ(0, dasetstate(ip, DA_IDXDIRTY));
    std::string path = tmp.file(filesof(tmp.path(), "t.idxi.")[0]);
    ASSERT_EQ(DA_IDXDIRTY, *static_cast<DA_IDXP*>(ip)->icbfd->state);
    {
        // The dirty state is on disk before a page is written.
        int mfd = open(tmp.file("t.mdf.0.0.0.vrta9").c_str(), O_RDONLY);
        ASSERT_GE(mfd, 0);
        DA_ODSIO io = daodspfd(&mfd, "t.mdf");
        std::vector<char> rec(4096);
        auto* r = reinterpret_cast<DA_IDXODS*>(rec.data());
        ASSERT_EQ(0, dardidx(io, r, static_cast<int>(rec.size()), static_cast<DA_IDXP*>(ip)->icb->headOff));
        EXPECT_EQ(DA_IDXDIRTY, r->idxState);
        close(mfd);
    }
    ASSERT_EQ(0, ip->mt->closeidx(ip, DA_IDXDIRTY));
    ASSERT_EQ(0, darclos(fp));
    uint32_t c = verdict("dirty");
    EXPECT_EQ(DA_IDXREBUILD, rc);
    EXPECT_TRUE(c & DA_ICBSTATEIDX);
    EXPECT_TRUE(c & DA_ICBBAD);

    // Built again, then rows added that it has not seen.
    fp = openas(lp, "t", DA_OMUTIL, &rc);
    build(fp, "i", std::string(1000, 'y'));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0u, verdict("rebuilt"));
    fp = openas(lp, "t", DA_OMUPDATE, &rc);
    auto more = rows(31, 5);
    ASSERT_EQ(0, dawrobs(fp, 31, more.data(), 5));
    ASSERT_EQ(0, darclos(fp));
    c = verdict("behind");
    EXPECT_EQ(DA_IDXREBUILD, rc);
    EXPECT_EQ(DA_ICBBAD, c);

    // Sizes: less than a block off is no mismatch; a block or more is.
    fp = openas(lp, "t", DA_OMUTIL, &rc);
    build(fp, "i", std::string(8000, 'z'));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0u, verdict("8000"));
    path = tmp.file(filesof(tmp.path(), "t.idxi.")[0]);
    ASSERT_EQ(0, truncate(path.c_str(), 8100));
    EXPECT_EQ(0u, verdict("8100"));
    EXPECT_EQ(0, rc);
    ASSERT_EQ(0, truncate(path.c_str(), 8192 + 8100));
    c = verdict("16292");
    EXPECT_EQ(DA_IDXREBUILD, rc);
    EXPECT_TRUE(c & DA_ICBMISSIDX);
    ASSERT_EQ(0, unlink(path.c_str()));
    c = verdict("gone");
    EXPECT_EQ(DA_IDXREBUILD, rc);
    EXPECT_TRUE(c & DA_ICBMISSIDX);
    EXPECT_GE(dafrlib(lp), 0);
}

// Reads and writes of every size and place through the one-block buffer
// agree with a plain image of the file; a mapped reader sees the same.
TEST(TableIndex, BlockInterfaceMatchesAnImageOfTheFile) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "b");
    ASSERT_NE(nullptr, fp);
    int32_t id[] = {1};
    ASSERT_EQ(0, fp->mt->addidx(fp, "i", DA_IDXFIDX, 1, id));
    DA_IDX* ip = nullptr;
    ASSERT_EQ(0, fp->mt->openidx(fp, "i", DA_IDXFIDX | DA_IDXOWRITE, &ip));
    std::string image;
    std::mt19937 rng(1);
    for (int i = 0; i < 3000; ++i) {
        long size = static_cast<long>(rng() % (i % 7 == 0 ? 3 * ip->blocksize : 300)) + 1;
        da_off_t off = image.empty() || rng() % 3 == 0 ? static_cast<da_off_t>(image.size())
                                                      : static_cast<da_off_t>(rng() % image.size());
        std::string bytes(size, '\0');
        for (auto& ch : bytes) ch = static_cast<char>(rng());
        ASSERT_EQ(0, ip->mt->writeidx(ip, bytes.data(), size, off)) << i;
        if (image.size() < off + static_cast<size_t>(size)) image.resize(off + size);
        image.replace(off, size, bytes);
        ASSERT_EQ(static_cast<da_off_t>(image.size()), ip->filesize);
        da_off_t roff = static_cast<da_off_t>(rng() % (image.size() + 10));
        long rsize = static_cast<long>(rng() % 500) + 1;
        std::string got(rsize, '\0');
        long n = -1;
        ASSERT_EQ(0, ip->mt->readidx(ip, got.data(), rsize, roff, &n)) << i;
        long want = roff >= static_cast<da_off_t>(image.size()) ? 0 : std::min<long>(rsize, image.size() - roff);
        ASSERT_EQ(want, n) << i;
        ASSERT_EQ(image.substr(roff < static_cast<da_off_t>(image.size()) ? roff : 0, want), got.substr(0, n)) << i;
    }
    // A write past the end would leave a hole: refused.
    EXPECT_LT(ip->mt->writeidx(ip, "x", 1, ip->filesize + 10 * ip->blocksize), 0);
    ASSERT_EQ(0, ip->mt->truncidx(ip, 5000));
    image.resize(5000);
    ASSERT_EQ(0, ip->mt->closeidx(ip, DA_IDXCLEAN));
    ASSERT_EQ(0, darclos(fp));
    rctype rc;
    fp = openas(lp, "b", DA_OMINPUT, &rc);
    EXPECT_EQ(image, readall(fp, "i"));
    EXPECT_EQ(image, readall(fp, "i", DA_IDXOMAP));
    DA_IDX* a = nullptr;
    DA_IDX* b = nullptr;
    ASSERT_EQ(0, fp->mt->openidx(fp, "i", DA_IDXFIDX | DA_IDXOMAP, &a));
    ASSERT_EQ(0, fp->mt->openidx(fp, "i", DA_IDXFIDX | DA_IDXOMAP, &b));
    EXPECT_NE(nullptr, a->mapaddr);
    EXPECT_EQ(a->mapaddr, b->mapaddr);  // one mapping for the file's readers
    EXPECT_EQ(DA_WRONGKIND, fp->mt->openidx(fp, "i", DA_IDXFIDX | DA_IDXOWRITE, &ip));
    ASSERT_EQ(0, a->mt->closeidx(a, 0));
    // Left open: the table's close closes it.
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

// A replace gives the source's files and record the target's name, and
// what the target had is gone; revisions of index files follow the table's.
TEST(TableIndex, ReplaceTakesTheSourceUnderTheTargetsName) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "r");
    ASSERT_NE(nullptr, fp);
    int32_t id[] = {1};
    ASSERT_EQ(0, fp->mt->addidx(fp, "live", DA_IDXFIDX, 1, id));
    ASSERT_EQ(0, fp->mt->addidx(fp, "next", DA_IDXFIDX, 1, id));
    build(fp, "live", "old contents");
    build(fp, "next", "new contents");
    ASSERT_EQ(0, fp->mt->replaceidx(fp, "live", "next", 0));
    EXPECT_EQ(1, fp->numindex);
    EXPECT_EQ(DA_NOTFOUND, fp->mt->queryicb(fp, "next", nullptr));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0u, filesof(tmp.path(), "r.idxnext.").size());
    ASSERT_EQ(1u, filesof(tmp.path(), "r.idxlive.").size());
    rctype rc;
    fp = openas(lp, "r", DA_OMUTIL, &rc);
    ASSERT_EQ(0, rc);
    EXPECT_EQ("new contents", readall(fp, "live"));
    ASSERT_EQ(0, darclos(fp));
    // The close of a writer revised every file, the index's with them.
    fp = openas(lp, "r", DA_OMINPUT, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ("new contents", readall(fp, "live"));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

// Live runs from row 1 as the map reports them, against the model's deleted set.
void checkruns(DA_FCB* fcb, const std::set<hs_obsno_t>& del, hs_obsno_t remain) {
    DA_DMPBM* bm = dadmnewbm(fcb);
    hs_obsno_t cur = 1, n = fcb->xoe.numobs;
    std::vector<hs_obsno_t> seen;
    for (;;) {
        hs_obsno_t runobs = 0, numrun = 0;
        ASSERT_EQ(0, dadmrunbm(fcb, bm, cur, remain, n, &runobs, &numrun));
        if (numrun == 0) break;
        ASSERT_LE(numrun, remain);
        for (hs_obsno_t i = 0; i < numrun; ++i) seen.push_back(runobs + i);
        cur = runobs + numrun;
    }
    std::vector<hs_obsno_t> want;
    for (hs_obsno_t i = 1; i <= n; ++i)
        if (!del.count(i)) want.push_back(i);
    EXPECT_EQ(want, seen);
    for (hs_obsno_t i = 1; i <= n; ++i) EXPECT_EQ(del.count(i) > 0, dadmisdel(fcb, bm, i)) << i;
    dadmfreebm(bm);
}

}  // namespace

TEST(DeleteMap, EdgesOfSegmentsAndTableSurviveReopen) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "dm", 64);
    ASSERT_NE(nullptr, fp);
    auto r = rows(1, 300);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 300));
    ASSERT_EQ(0, darclos(fp));

    DA_OPNSTR o = request("dm", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    DA_FCB* fcb = fcbof(fp);
    EXPECT_EQ(DA_BADARG, fp->mt->delobs(fp, 0));
    EXPECT_EQ(DA_BADARG, fp->mt->delobs(fp, 301));
    // The first and last rows, both sides of segment edges, and a bit at a word edge.
    std::set<hs_obsno_t> del = {1, 32, 33, 64, 65, 128, 129, 300};
    for (hs_obsno_t d : del) ASSERT_EQ(0, fp->mt->delobs(fp, d)) << d;
    EXPECT_EQ(8, fcb->xoe.numdelete);
    // Deleting again changes nothing.
    EXPECT_EQ(0, fp->mt->delobs(fp, 64));
    EXPECT_EQ(8, fcb->xoe.numdelete);
    EXPECT_EQ(4, fcb->dmpcb->dmphdr.numbmap);  // segments 1, 65, 129 and 257
    checkruns(fcb, del, 1000);
    checkruns(fcb, del, 7);
    hs_obsno_t run = 0;
    ASSERT_EQ(0, dadmdelrun(fcb, 32, &run));
    EXPECT_EQ(2, run);
    ASSERT_EQ(0, dadmdelrun(fcb, 64, &run));  // crosses into the next segment
    EXPECT_EQ(2, run);
    ASSERT_EQ(0, dadmdelrun(fcb, 2, &run));
    EXPECT_EQ(0, run);
    hs_obsno_t first = 0;
    ASSERT_EQ(0, dadmfindbm(fcb, &first, &run));
    EXPECT_EQ(1, first);
    EXPECT_EQ(1, run);

    // A view for index code: a bitmap for a segment with deletions, none otherwise.
    DA_DMP* dmp = nullptr;
    ASSERT_EQ(0, fp->mt->getdelmap(fp, &dmp));
    uint32_t* bits = nullptr;
    int32_t bsize = -1;
    ASSERT_EQ(0, dmp->readdelmap(dmp, 65, &bits, &bsize));
    ASSERT_NE(nullptr, bits);
    EXPECT_EQ(8, bsize);
    // Row 65 is the first bit of the segment, row 128 the last: most significant first.
    EXPECT_EQ(0x80000000u, bits[0]);
    EXPECT_EQ(0x00000001u, bits[1]);
    ASSERT_EQ(0, dmp->readdelmap(dmp, 193, &bits, &bsize));
    EXPECT_EQ(nullptr, bits);
    EXPECT_EQ(0, bsize);
    ASSERT_EQ(0, dmp->freedelmap(dmp));
    ASSERT_EQ(0, darclos(fp));

    o = request("dm", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    fcb = fcbof(fp);
    EXPECT_EQ(8, fcb->xoe.numdelete);
    checkruns(fcb, del, 50);
    // Closing while a view is out is an error.
    ASSERT_EQ(0, fp->mt->getdelmap(fp, &dmp));
    EXPECT_EQ(DA_INTERNAL, darclos(fp));
    free(dmp);
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(DeleteMap, SixtyFifthSegmentMakesASecondDirectoryAndMatchesAModel) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "big", 32);
    const long n = 32 * 70 + 5;
    auto r = rows(1, n);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), n));
    ASSERT_EQ(0, darclos(fp));
    DA_OPNSTR o = request("big", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    std::set<hs_obsno_t> del;
    // One deletion in each of 70 segments, then random ones.
    for (int s = 0; s < 70; ++s) {
        hs_obsno_t obs = s * 32 + 1 + (s % 32);
        del.insert(obs);
        ASSERT_EQ(0, fp->mt->delobs(fp, obs));
    }
    EXPECT_EQ(2, fcbof(fp)->dmpcb->dmphdr.numdmpdir);
    std::mt19937 rng(7);
    for (int i = 0; i < 400; ++i) {
        hs_obsno_t obs = 1 + static_cast<hs_obsno_t>(rng() % n);
        del.insert(obs);
        ASSERT_EQ(0, fp->mt->delobs(fp, obs));
    }
    EXPECT_EQ(static_cast<int64_t>(del.size()), fp->xoehdr->numdelete);
    checkruns(fcbof(fp), del, 13);
    ASSERT_EQ(0, darclos(fp));

    o = request("big", DA_OMINPUT);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    DA_DMPCB* d = fcbof(fp)->dmpcb;
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(2, d->dmphdr.numdmpdir);
    std::set<hs_obsno_t> segs;
    for (hs_obsno_t x : del) segs.insert((x - 1) / 32);
    EXPECT_EQ(static_cast<int32_t>(segs.size()), d->dmphdr.numbmap);
    EXPECT_EQ(2 * 64 / 2 + 1, d->numht);
    checkruns(fcbof(fp), del, 1 << 20);
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(DeleteMap, ResetOfReusedRowsNeedsTheirBitsAndTheReuseFlag) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_OPNSTR o = request("ru", DA_OMOUTPUT);
    o.idxsegsize = 64;
    o.reuse = DA_ADDAVAILREUSE;
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    auto cols = columns();
    ASSERT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    auto r = rows(1, 200);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 200));
    ASSERT_EQ(0, darclos(fp));
    o = request("ru", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    DA_FCB* fcb = fcbof(fp);
    for (hs_obsno_t i = 60; i <= 70; ++i) ASSERT_EQ(0, fp->mt->delobs(fp, i));
    EXPECT_EQ(11, fcb->xoe.numdelete);
    ASSERT_EQ(0, dadmreset(fcb, 63, 4));  // across the segment edge at 65
    EXPECT_EQ(7, fcb->xoe.numdelete);
    std::set<hs_obsno_t> del = {60, 61, 62, 67, 68, 69, 70};
    checkruns(fcb, del, 100);
    // A row that is not deleted, or a segment without a bitmap, is an internal failure.
    EXPECT_EQ(DA_INTERNAL, dadmreset(fcb, 64, 1));
    EXPECT_EQ(DA_INTERNAL, dadmreset(fcb, 150, 1));
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

// ---------------------------------------------------------------- string pool

namespace {

struct MdfFile {
    DA_FD* fd = nullptr;
    std::string dir;
    explicit MdfFile(const std::string& d) : dir(d) {
        EXPECT_GE(daioini(), 0);
        DA_FDSTR fs{};
        const char* paths[1] = {dir.c_str()};
        fs.name = "p.mdf";
        fs.namelen = 5;
        fs.numpath = 1;
        fs.paths = paths;
        fs.flags = DA_FDCREATE;
        fs.perms = -1;
        fs.minfree = -1;
        fs.fiboff = -1;
        EXPECT_EQ(0, dafdopn(&fs, &fd));
    }
    ~MdfFile() {
        if (fd) {
            EXPECT_GE(fd->fdclose(fd), 0);
        }
    }
};

da_off_t moved = -1;
void onmove(void*, da_off_t off) { moved = off; }

}  // namespace

TEST(StringPool, AllocateFreeBestFitAndReloadKeepStrings) {
    vrtatest::TempDir tmp;
    MdfFile m(tmp.path());
    ASSERT_NE(nullptr, m.fd);
    DA_STRPHDL* h = nullptr;
    ASSERT_EQ(0, dastrpini(m.fd, onmove, nullptr, &h));
    da_off_t head = h->offset;
    int32_t id1 = 0, id2 = 0, id3 = 0;
    void* mem = nullptr;
    ASSERT_EQ(0, dastrpalloc(h, 5, &id1, &mem));
    memcpy(mem, "hello", 5);
    EXPECT_EQ(1, h->phd->numsects);
    EXPECT_EQ(4096 - 8, h->strpmem[0].freeSpace);
    // Freeing the only string gives back the whole section as one hole.
    ASSERT_EQ(0, dastrpfree(h, id1, 5));
    EXPECT_EQ(4096, h->strpmem[0].freeSpace);
    EXPECT_EQ(0, h->strpmem[0].freeOffset);
    EXPECT_EQ(4096, reinterpret_cast<DA_STRPHOLE*>(h->strpmem[0].pool)->hsize);
    EXPECT_EQ(-1, reinterpret_cast<DA_STRPHOLE*>(h->strpmem[0].pool)->nextHole);

    // Three strings, the middle one freed: best fit puts a same-size string there.
    ASSERT_EQ(0, dastrpalloc(h, 24, &id1, &mem));
    memcpy(mem, "aaaaaaaaaaaaaaaaaaaaaaaa", 24);
    ASSERT_EQ(0, dastrpalloc(h, 16, &id2, &mem));
    ASSERT_EQ(0, dastrpalloc(h, 40, &id3, &mem));
    memcpy(mem, "cccccccccccccccccccccccccccccccccccccccc", 40);
    ASSERT_EQ(0, dastrpfree(h, id2, 16));
    int32_t id4 = 0;
    ASSERT_EQ(0, dastrpalloc2(h, 13, &id4, &mem));
    EXPECT_EQ(id2, id4);
    memcpy(mem, "bbbbbbbbbbbbb", 13);
    // Frees that touch on both sides merge into one hole.
    ASSERT_EQ(0, dastrpfree(h, id1, 24));
    ASSERT_EQ(0, dastrpfree(h, id3, 40));
    ASSERT_EQ(0, dastrpfree(h, id4, 13));
    EXPECT_EQ(4096, h->strpmem[0].freeSpace);
    EXPECT_EQ(4096, reinterpret_cast<DA_STRPHOLE*>(h->strpmem[0].pool)->hsize);

    // Filling more than eight sections moves the head, and the owner is told.
    std::vector<int32_t> ids;
    for (int i = 0; i < 20; ++i) {
        int32_t id = 0;
        ASSERT_EQ(0, dastrpalloc(h, 4000, &id, &mem));
        memset(mem, 'A' + i, 4000);
        ids.push_back(id);
    }
    // The empty first section takes the first string, then one section each:
    // the offset vector doubled twice.
    EXPECT_EQ(20, h->phd->numsects);
    EXPECT_EQ(32, h->phd->numoffsets);
    EXPECT_NE(head, h->offset);
    EXPECT_EQ(h->offset, moved);
    EXPECT_EQ(DA_BADARG, dastrpalloc(h, 4097, &id1, &mem));
    ASSERT_EQ(0, daflstrp(h));
    da_off_t at = h->offset;
    ASSERT_EQ(0, dafrstrp(h));

    ASSERT_EQ(0, dastrpld(m.fd, at, onmove, nullptr, &h));
    for (int i = 0; i < 20; ++i) {
        auto* p = static_cast<const char*>(dastrpaddr(h, ids[i], 4000));
        ASSERT_NE(nullptr, p);
        EXPECT_EQ(std::string(4000, 'A' + i), std::string(p, 4000)) << i;
    }
    // A replace of the same rounded size stays in place; a longer one moves.
    int32_t nid = 0;
    ASSERT_EQ(0, dastrprep(h, ids[0], 4000, std::string(3999, 'z').data(), 3999, &nid));
    EXPECT_EQ(ids[0], nid);
    ASSERT_EQ(0, dastrprep(h, ids[1], 4000, "short", 5, &nid));
    ASSERT_EQ(0, dafrstrp(h));
    ASSERT_EQ(0, dastrpld(m.fd, at, onmove, nullptr, &h));
    EXPECT_EQ(std::string(3999, 'z'), std::string(static_cast<const char*>(dastrpaddr(h, ids[0], 3999)), 3999));
    EXPECT_EQ("short", std::string(static_cast<const char*>(dastrpaddr(h, nid, 5)), 5));
    EXPECT_EQ(nullptr, dastrpaddr(h, (99 << 12), 4));
    ASSERT_EQ(0, dafrstrp(h));
}

// The inspection command reads what this layer writes: names and labels out
// of the string pool, the delete map's head, directory and segments.
TEST(DeleteMap, MdfCommandShowsNamesPoolAndDeleteMap) {
    std::string tool = std::string(VRTA_TOOLS_DIR) + "/vrta";
    ASSERT_EQ(0, access(tool.c_str(), X_OK)) << "the vrta tool is not built";
    vrtatest::TempDir tmp;
    DA_LIB* lp = assign(tmp.path());
    DA_FID* fp = create(lp, "insp", 64);
    auto r = rows(1, 200);
    ASSERT_EQ(0, dawrobs(fp, 1, r.data(), 200));
    ASSERT_EQ(0, darclos(fp));
    DA_OPNSTR o = request("insp", DA_OMUPDATE);
    ASSERT_EQ(0, daopen(lp, &o, &fp));
    ASSERT_EQ(0, fp->mt->delobs(fp, 70));
    ASSERT_EQ(0, fp->mt->delobs(fp, 200));
    ASSERT_EQ(0, darclos(fp));
    ASSERT_EQ(0, dasetconstraint(lp, "insp", "ID > 0", 6));
    EXPECT_EQ(0, dafrlib(lp));
    std::string cmd = tool + " mdf '" + tmp.path() + "/insp' 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int st = pclose(p);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << out;
    EXPECT_NE(out.find("\"NAME\""), std::string::npos) << out;
    EXPECT_NE(out.find("label \"Name of the row\""), std::string::npos) << out;
    EXPECT_NE(out.find("numobs 200"), std::string::npos) << out;
    EXPECT_NE(out.find("numdmpdir 1 numbmap 2"), std::string::npos) << out;
    EXPECT_NE(out.find("segment from row 65:"), std::string::npos) << out;
    EXPECT_NE(out.find("segment from row 193:"), std::string::npos) << out;
    EXPECT_NE(out.find("text \"ID > 0\""), std::string::npos) << out;
}

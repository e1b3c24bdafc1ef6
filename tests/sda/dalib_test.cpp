#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sda/da.h"
#include "sda/dafd.h"
#include "sda/danames.h"
#include "sda/daods.h"
#include "sda/darc.h"
#include "fdutil.h"
#include "testutil.h"

using namespace vrta;

namespace {

// Built step by step: g++ 12 warns falsely on a chain of string + string.
std::string quoted(const std::string& s) {
    std::string q = "'";
    q += s;
    q += '\'';
    return q;
}
std::string numbered(const char* stem, int i) {
    std::string n = stem;
    n += std::to_string(i);
    return n;
}

DA_LIBSTR request(const std::string& path) {
    DA_LIBSTR ls{};
    memcpy(ls.name, "TESTLIB ", 8);
    ls.libpath = path.c_str();
    ls.libpath_l = static_cast<int>(path.size());
    ls.create = 1;
    return ls;
}

std::string pathOf(const DA_PATHINFO& p) { return std::string(p.path, p.pathlen); }

// A library with its metadata in tmp/meta and its data over tmp/d1 and tmp/d2.
rctype spreadlib(const vrtatest::TempDir& tmp, DA_LIB** lp) {
    std::string prim = tmp.file("meta"), d1 = tmp.file("d1"), d2 = tmp.file("d2");
    for (auto& d : {prim, d1, d2}) mkdir(d.c_str(), 0755);
    std::string dl = "'" + d1 + "' '" + d2 + "'";
    DA_LIBSTR ls = request(prim);
    ls.datapaths = dl.c_str();
    ls.datapaths_l = static_cast<int>(dl.size());
    return dagtlib(&ls, lp);
}

void touch(const std::string& path) { vrtatest::writeFile(path, "x"); }
using fdtest::there;

}  // namespace

TEST(Library, AssignCreatesDirectoryAndKeepsPathsInLibraryFile) {
    vrtatest::TempDir tmp;
    std::string prim = tmp.path() + "/dom/lib";
    std::string data1 = tmp.file("d1"), data2 = tmp.file("d2");
    mkdir(data1.c_str(), 0755);
    mkdir(data2.c_str(), 0755);
    std::string dl = "('" + data1 + "' \"" + data2 + "//\" '" + data1 + "/')";

    DA_LIBSTR ls = request(prim);
    ls.datapaths = dl.c_str();
    ls.datapaths_l = static_cast<int>(dl.size());
    DA_LIB* lp = nullptr;
    ASSERT_EQ(DA_NEWDIR, dagtlib(&ls, &lp));
    ASSERT_NE(nullptr, lp);
    EXPECT_EQ(prim + "/", pathOf(lp->lib));
    ASSERT_EQ(1, lp->nummeta);
    EXPECT_EQ(prim + "/", pathOf(lp->meta[0]));
    // Doubled separators and a repeated path collapse to two entries.
    ASSERT_EQ(2, lp->numdata);
    EXPECT_EQ(data1 + "/", pathOf(lp->data[0]));
    EXPECT_EQ(data2 + "/", pathOf(lp->data[1]));
    ASSERT_EQ(1, lp->numidx);
    EXPECT_EQ(prim + "/", pathOf(lp->idx[0]));
    EXPECT_EQ(DA_PERMRDWR, lp->perm);
    EXPECT_TRUE(lp->flags & DA_LFASSIGNED);
    EXPECT_FALSE(lp->flags & DA_LFDATADEF);
    EXPECT_TRUE(lp->flags & DA_LFIDXDEF);
    EXPECT_GE(lp->numwork, 1);
    DA_LIB* found = nullptr;
    EXPECT_EQ(0, daqylib("TESTLIB ", &found));
    EXPECT_EQ(lp, found);
    EXPECT_EQ(0, dafrlib(lp));
    EXPECT_EQ(DA_NOTFOUND, daqylib("TESTLIB ", &found));

    // The file's head: version, length, flags and the first link as a double.
    std::string bytes = vrtatest::readFile(prim + "/.vrtalib11");
    ASSERT_GE(bytes.size(), 272u + 16u);
    uint32_t ver, len;
    double l0, l1;
    memcpy(&ver, bytes.data(), 4);
    memcpy(&len, bytes.data() + 4, 4);
    memcpy(&l0, bytes.data() + 16, 8);
    memcpy(&l1, bytes.data() + 24, 8);
    EXPECT_EQ(0x01010004u, ver);
    EXPECT_EQ(272u, len);
    EXPECT_EQ(272.0, l0);
    EXPECT_GT(l1, 272.0);
    int32_t npaths;
    memcpy(&npaths, bytes.data() + static_cast<size_t>(l1) + 8, 4);
    EXPECT_EQ(2, npaths);

    // A second assignment without data paths gets them back from the file.
    DA_LIBSTR again = request(prim);
    ASSERT_EQ(0, dagtlib(&again, &lp));
    ASSERT_EQ(2, lp->numdata);
    EXPECT_EQ(data2 + "/", pathOf(lp->data[1]));
    // The util list has the primary first, then one path per filesystem.
    ASSERT_GE(lp->numutil, 1);
    EXPECT_EQ(prim + "/", pathOf(lp->util[0]));
    EXPECT_EQ(0, lp->datastripes);
    EXPECT_EQ(0, dafrlib(lp));

    // A striped library keeps its stripe count in the file.
    std::string sdir = tmp.file("striped");
    DA_LIBSTR st = request(sdir);
    st.datapaths = dl.c_str();
    st.datapaths_l = static_cast<int>(dl.size());
    st.pm_data = DA_PMODSTRIPED;
    ASSERT_EQ(DA_NEWDIR, dagtlib(&st, &lp));
    EXPECT_EQ(2, lp->datastripes);
    EXPECT_EQ(0, dafrlib(lp));
    DA_LIBSTR st2 = request(sdir);
    ASSERT_EQ(0, dagtlib(&st2, &lp));
    EXPECT_EQ(2, lp->numdata);
    EXPECT_EQ(2, lp->datastripes);
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(Library, BadDirectoriesAndDamagedLibraryFilesAreRefused) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = nullptr;
    DA_LIBSTR ls = request("");
    EXPECT_EQ(DA_BADARG, dagtlib(&ls, &lp));

    std::string missing = tmp.file("nothere");
    ls = request(missing);
    ls.flags = DA_LSNOCREATE;
    EXPECT_EQ(DA_NOTFOUND, dagtlib(&ls, &lp));
    EXPECT_FALSE(there(missing));

    std::string plain = tmp.file("plainfile");
    touch(plain);
    ls = request(plain);
    EXPECT_EQ(DA_NOTDIR, dagtlib(&ls, &lp));

    // A head of another version fails, and the file we did not make stays.
    std::string dir = tmp.file("badver");
    mkdir(dir.c_str(), 0755);
    std::string head(272, '\0');
    uint32_t ver = 0x01020004, len = 272;
    memcpy(head.data(), &ver, 4);
    memcpy(head.data() + 4, &len, 4);
    vrtatest::writeFile(dir + "/.vrtalib11", head);
    ls = request(dir);
    EXPECT_EQ(DA_BADLIBFILE, dagtlib(&ls, &lp));
    EXPECT_TRUE(there(dir + "/.vrtalib11"));

    // A good head whose links point past the end of the file: short read.
    std::string dir2 = tmp.file("short");
    mkdir(dir2.c_str(), 0755);
    ver = 0x01010004;
    memcpy(head.data(), &ver, 4);
    for (int k = 0; k < 32; k++) {
        double v = -1.0;
        memcpy(head.data() + 16 + 8 * k, &v, 8);
    }
    double meta = 272.0;
    memcpy(head.data() + 16, &meta, 8);
    vrtatest::writeFile(dir2 + "/.vrtalib11", head);
    ls = request(dir2);
    EXPECT_EQ(DA_LIBSHORT, dagtlib(&ls, &lp));

    // A failed assignment removes a library file that it created itself.
    std::string dir3 = tmp.file("pm");
    mkdir(dir3.c_str(), 0755);
    std::string d3 = "'" + dir3 + "/data'";
    mkdir((dir3 + "/data").c_str(), 0755);
    ls = request(dir3);
    ls.datapaths = d3.c_str();
    ls.datapaths_l = static_cast<int>(d3.size());
    ls.pm_data = DA_PMODLINEAR;
    ASSERT_GE(dagtlib(&ls, &lp), 0);
    EXPECT_EQ(0, dafrlib(lp));
    DA_LIBSTR again = request(dir3);
    again.pm_data = DA_PMODSTRIPED;  // the file says linear
    EXPECT_EQ(DA_BADARG, dagtlib(&again, &lp));
    EXPECT_TRUE(there(dir3 + "/.vrtalib11"));
    // A library file this assignment made goes again when it fails.
    std::string dir4 = tmp.file("fresh");
    mkdir(dir4.c_str(), 0755);
    std::string badq = "('unclosed";
    ls = request(dir4);
    ls.metapaths = badq.c_str();
    ls.metapaths_l = static_cast<int>(badq.size());
    EXPECT_EQ(DA_BADQUOTE, dagtlib(&ls, &lp));
    EXPECT_FALSE(there(dir4 + "/.vrtalib11"));
}

TEST(Library, PathListsParseQuotesDropRepeatsAndRespectLockedLibraries) {
    vrtatest::TempDir tmp;
    xmpid pool = xmpoolc(4096, 4096, 0);
    ASSERT_NE(nullptr, pool);
    int num = 0;
    DA_PATHINFO* vec = nullptr;
    std::string a = tmp.file("a"), b = tmp.file("b");
    mkdir(a.c_str(), 0755);
    std::string list = "( '" + a + "' \"" + b + "\" '" + a + "//' )";
    EXPECT_EQ(0, daparsp(static_cast<int>(list.size()), list.c_str(), 0, &num, &vec, pool));
    ASSERT_EQ(2, num);
    EXPECT_EQ(a + "/", pathOf(vec[0]));
    EXPECT_EQ(0, vec[0].status);
    EXPECT_EQ(b + "/", pathOf(vec[1]));
    EXPECT_EQ(DA_NOTFOUND, vec[1].status);  // kept, reported later by CheckPath
    EXPECT_NE(0, CheckPath("DATAPATH", R_OK, num, vec));

    // Unquoted: the rest of the text is one path; backslashes are separators.
    std::string un = "(" + a + "\\x )";
    EXPECT_EQ(0, daparsp(static_cast<int>(un.size()), un.c_str(), 0, &num, &vec, pool));
    ASSERT_EQ(3, num);
    EXPECT_EQ(a + "/x/", pathOf(vec[2]));

    std::string bad = "('" + a;
    EXPECT_EQ(DA_BADQUOTE, daparsp(static_cast<int>(bad.size()), bad.c_str(), 0, &num, &vec, pool));

    // A locked library keeps its paths: a new one is a warning, a known one is not.
    std::string more = "'" + a + "' '" + tmp.file("c") + "'";
    EXPECT_EQ(DA_PATHSKEPT, daparsp(static_cast<int>(more.size()), more.c_str(), 1, &num, &vec, pool));
    EXPECT_EQ(3, num);
    std::string known = "'" + a + "'";
    EXPECT_EQ(0, daparsp(static_cast<int>(known.size()), known.c_str(), 1, &num, &vec, pool));

    // Past the first block of 25 entries the vector grows.
    for (int i = 0; i < 30; i++) {
        std::string p = quoted(tmp.file(numbered("p", i)));
        ASSERT_EQ(0, daparsp(static_cast<int>(p.size()), p.c_str(), 0, &num, &vec, pool));
    }
    EXPECT_EQ(33, num);
    EXPECT_EQ(tmp.file("p29") + "/", pathOf(vec[32]));
    xmpoold(pool);
}

TEST(Library, DirectoryListsMembersByTheirFirstPartition) {
    vrtatest::TempDir tmp;
    DA_LIBSTR ls = request(tmp.path());
    DA_LIB* lp = nullptr;
    ASSERT_GE(dagtlib(&ls, &lp), 0);
    for (const char* f : {"abc.mdf.0.0.0.vrta9", "clu.cdf.0.0.0.vrta9", "u1.catalog.0.0.0.vrta9",
                          "abc.dpf._x.0.0.vrta9", "abc.mdf.0.1.0.vrta9", ".hid.mdf.0.0.0.vrta9",
                          "$tmp.mdf.0.0.0.vrta9", "old.mdf.0.0.0.vrta", "lim.lmt.0.0.0.vrta9",
                          "abc.data.vrta_lock9", "short.mdf", "toolongnametoolongnametoolongname1.mdf.0.0.0.vrta9"})
        touch(tmp.file(f));
    auto list = [&](int flags) {
        std::set<std::string> out;
        DA_DIRH* dh = nullptr;
        EXPECT_EQ(0, daopdir(lp, flags, &dh));
        DA_DIRENT e;
        rctype rc;
        while ((rc = darddir(dh, &e)) == 0) out.insert(std::string(e.name) + "/" + std::string(e.type, 8) +
                                                        "/" + std::to_string(e.memtype));
        EXPECT_EQ(DA_EOF, rc);
        EXPECT_GE(dacldir(dh), 0);
        return out;
    };
    std::set<std::string> plainset{"ABC/DATA    /0", "CLU/DATA    /6", "U1/CATALOG /4"};
    EXPECT_EQ(plainset, list(0));
    std::set<std::string> all = plainset;
    all.insert(".HID/DATA    /0");
    all.insert("$TMP/DATA    /0");
    all.insert("OLD/DATA    /0");
    EXPECT_EQ(all, list(DA_DIRDOT | DA_DIRDOLLAR | DA_DIROLDFMT));

    int kind = -1;
    EXPECT_EQ(0, dafindds(lp, "ABC", &kind));
    EXPECT_EQ(0, kind);
    EXPECT_EQ(0, dafindds(lp, "clu", &kind));
    EXPECT_EQ(6, kind);
    EXPECT_EQ(DA_NOTFOUND, dafindds(lp, "nope", &kind));
    EXPECT_EQ(0, daexist(lp, "U1", "CATALOG "));
    EXPECT_EQ(DA_NOTFOUND, daexist(lp, "U1", "DATA    "));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(Library, DeleteRemovesEveryPartitionOfTheMemberAndNothingElse) {
    vrtatest::TempDir tmp;
    std::string prim = tmp.file("meta"), d1 = tmp.file("d1"), d2 = tmp.file("d2");
    DA_LIB* lp = nullptr;
    ASSERT_GE(spreadlib(tmp, &lp), 0);
    char mpid[1024];
    ASSERT_GT(dagmpid(lp->meta[0].path, lp->meta[0].pathlen, mpid, sizeof mpid), 0);
    std::string id(mpid);
    std::vector<std::string> ours = {
        prim + "/t.mdf.0.0.0.vrta9",     prim + "/t.mdf." + id + ".1.0.vrta9", d1 + "/t.dpf." + id + ".0.0.vrta9",
        d2 + "/t.dpf." + id + ".1.0.vrta9", d2 + "/t.dpf." + id + ".2.3.vrta9", prim + "/t.idxk1." + id + ".0.0.vrta9",
        prim + "/t.hbxk1." + id + ".0.0.vrta9"};
    std::vector<std::string> others = {
        d1 + "/t.dpf._elsewhere.0.0.vrta9",  // another domain sharing the data path
        d1 + "/tt.dpf." + id + ".0.0.vrta9", prim + "/t.catalog.0.0.0.vrta9", prim + "/u.mdf.0.0.0.vrta9"};
    ASSERT_TRUE(fdtest::makemdf(lp->meta[0].path, "t.mdf"));
    for (size_t i = 1; i < ours.size(); i++) touch(ours[i]);
    ASSERT_TRUE(there(ours[0]));
    for (auto& f : others) touch(f);
    EXPECT_EQ(0, dadelet(lp, "T", "DATA    "));
    for (auto& f : ours) EXPECT_FALSE(there(f)) << f;
    for (auto& f : others) EXPECT_TRUE(there(f)) << f;
    EXPECT_FALSE(there(prim + "/t.data.vrta_lock9"));
    EXPECT_EQ(DA_NOTFOUND, dadelet(lp, "T", "DATA    "));

    // A utility member is one logical file of its own type.
    EXPECT_EQ(0, dadelet(lp, "t", "catalog"));
    EXPECT_FALSE(there(prim + "/t.catalog.0.0.0.vrta9"));
    EXPECT_TRUE(there(prim + "/u.mdf.0.0.0.vrta9"));
    EXPECT_EQ(0, dafrlib(lp));
}

namespace {

using fdtest::openfile;

std::string pattern(size_t n, int seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 7 + seed) & 0xff);
    return s;
}

std::vector<std::string> filesIn(const std::string& dir) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    while (struct dirent* e = d ? readdir(d) : nullptr)
        if (e->d_name[0] != '.') out.push_back(e->d_name);
    if (d) closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

TEST(Library, RenameMovesEveryComponentAndKeepsTheTableReadable) {
    vrtatest::TempDir tmp;
    std::string prim = tmp.file("meta"), d1 = tmp.file("d1"), d2 = tmp.file("d2");
    DA_LIB* lp = nullptr;
    ASSERT_GE(spreadlib(tmp, &lp), 0);
    std::vector<const char*> meta{lp->meta[0].path}, data{lp->data[0].path, lp->data[1].path};

    // A table of a metadata file, a data file of two partitions and one index.
    DA_FD* mdf = openfile("t.mdf", meta, DA_FDCREATE | DA_FDWRITE | DA_FDDIRECT | DA_FDFORCE1ST);
    ASSERT_NE(nullptr, mdf);
    DA_ODSIO io = daodsfd(mdf, "t.mdf");
    DA_DSFHEAD h;
    dainitdsfh(&h);
    da_off_t hoff = mdf->baseoff;
    ASSERT_GE(dawrods(io, &h, &hoff), 0);
    da_off_t dfib = -1;
    DA_FD* dpf = openfile("t.dpf", data, DA_FDCREATE | DA_FDWRITE | DA_FDINDIRECT, mdf, &dfib);
    ASSERT_NE(nullptr, dpf);
    std::string rows = pattern(5000, 1) + pattern(3000, 2);
    da_off_t woff = 0;
    ASSERT_GE(dpf->fdwrite(dpf, rows.data(), 5000, &woff), 0);
    ASSERT_GE(dpf->fdcntl(dpf, DA_FDNEWPART, nullptr), 0);
    woff = 5000;
    ASSERT_GE(dpf->fdwrite(dpf, rows.data() + 5000, 3000, &woff), 0);
    EXPECT_GE(dpf->fdclose(dpf), 0);
    da_off_t ifib = -1;
    DA_FD* idx = openfile("t.idxk1", meta, DA_FDCREATE | DA_FDWRITE | DA_FDINDIRECT, mdf, &ifib);
    ASSERT_NE(nullptr, idx);
    std::string keys = pattern(300, 3);
    woff = 0;
    ASSERT_GE(idx->fdwrite(idx, keys.data(), 300, &woff), 0);
    EXPECT_GE(idx->fdclose(idx), 0);
    DA_IDXODS ix;
    memset(&ix, 0, sizeof ix);
    ix.ods.version = DA_IDXODS_VER;
    ix.ods.length = sizeof ix;
    ix.nextOff = -1;
    ix.idxFibOff = ifib;
    ix.auxFibOff = -1;
    ix.hybFibOff = -1;
    ix.name_l = 2;
    memcpy(ix.name, "K1", 2);
    da_off_t ixoff = -1;
    ASSERT_GE(dawrods(io, &ix, &ixoff), 0);
    DA_XOEODS xoe;
    dainitxoe(&xoe);
    xoe.flags |= DA_XOEMEMF8;
    da_off_t xoff = -1;
    ASSERT_GE(dawrods(io, &xoe, &xoff), 0);
    h.links[DA_LNKXOE] = xoff;
    h.links[DA_LNKIDX] = ixoff;
    h.links[DA_LNKDPFFIB] = dfib;
    hoff = mdf->baseoff;
    ASSERT_GE(dawrods(io, &h, &hoff), 0);
    EXPECT_GE(mdf->fdclose(mdf), 0);
    size_t nfiles = filesIn(prim).size() + filesIn(d1).size() + filesIn(d2).size();
    EXPECT_EQ(2u, filesIn(d1).size() + filesIn(d2).size());  // two data partitions

    EXPECT_EQ(DA_NOTFOUND, darenam(lp, "nope", "DATA    ", "other"));
    EXPECT_EQ(DA_BADARG, darenam(lp, "T", "DATA    ", "a.b"));
    ASSERT_EQ(0, darenam(lp, "T", "DATA    ", "NewT"));
    EXPECT_EQ(DA_NOTFOUND, daexist(lp, "t", "DATA    "));
    EXPECT_EQ(0, daexist(lp, "newt", "DATA    "));
    size_t after = 0;
    for (auto& d : {prim, d1, d2})
        for (auto& f : filesIn(d)) {
            after++;
            EXPECT_EQ(0u, f.rfind(f == ".vrtalib11" ? "." : "newt.", 0)) << d << "/" << f;
        }
    EXPECT_EQ(nfiles, after);

    // Reopened under the new name, every component reads back what was written.
    mdf = openfile("newt.mdf", meta, DA_FDWRITE | DA_FDDIRECT);
    ASSERT_NE(nullptr, mdf);
    DA_ODSIO io2 = daodsfd(mdf, "newt.mdf");
    DA_DSFHEAD h2;
    ASSERT_GE(dardsfh(io2, &h2, mdf->baseoff), 0);
    da_off_t f2 = h2.links[DA_LNKDPFFIB];
    dpf = openfile("newt.dpf", data, DA_FDINDIRECT, mdf, &f2);
    ASSERT_NE(nullptr, dpf);
    std::string back(8000, '\0');
    long got = 0;
    ASSERT_GE(dpf->fdread(dpf, back.data(), 8000, 0, &got), 0);
    EXPECT_EQ(8000, got);
    EXPECT_TRUE(back == rows);
    EXPECT_GE(dpf->fdclose(dpf), 0);
    da_off_t f3 = ifib;
    idx = openfile("newt.idxk1", meta, DA_FDINDIRECT, mdf, &f3);
    ASSERT_NE(nullptr, idx);
    std::string kb(300, '\0');
    ASSERT_GE(idx->fdread(idx, kb.data(), 300, 0, &got), 0);
    EXPECT_TRUE(kb == keys);
    EXPECT_GE(idx->fdclose(idx), 0);
    EXPECT_GE(mdf->fdclose(mdf), 0);

    // The listing shows the renamed table with the member flag of its description.
    DA_DIRH* dh = nullptr;
    ASSERT_EQ(0, daopdir(lp, 0, &dh));
    DA_DIRENT e;
    ASSERT_EQ(0, darddir(dh, &e));
    EXPECT_STREQ("NEWT", e.name);
    EXPECT_EQ(8, e.memflags);
    EXPECT_EQ(DA_EOF, darddir(dh, &e));
    EXPECT_GE(dacldir(dh), 0);

    // The new name is taken now; a utility member renames by itself.
    DA_FD* u = openfile("u.catalog", meta, DA_FDCREATE | DA_FDWRITE | DA_FDDIRECT | DA_FDFORCE1ST);
    ASSERT_NE(nullptr, u);
    EXPECT_GE(u->fdclose(u), 0);
    touch(prim + "/v.catalog.0.0.0.vrta9");
    EXPECT_EQ(DA_EXISTS, darenam(lp, "u", "CATALOG ", "v"));
    unlink((prim + "/v.catalog.0.0.0.vrta9").c_str());
    EXPECT_EQ(0, darenam(lp, "u", "CATALOG ", "v"));
    EXPECT_EQ(0, daexist(lp, "V", "CATALOG "));
    EXPECT_EQ(DA_NOTFOUND, daexist(lp, "U", "CATALOG "));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(Library, UtilityFilesHideTheirHeadAndNamelessOnesGetFreshNames) {
    vrtatest::TempDir tmp;
    DA_LIBSTR ls = request(tmp.path());
    ls.flags = DA_LSOWNER;
    ls.owner_token.tokenLen = 28;
    memcpy(ls.owner_token.token, "owner-token-0123456789abcdef", 28);
    DA_LIB* lp = nullptr;
    ASSERT_GE(dagtlib(&ls, &lp), 0);

    // A reader of a member that does not exist fails and creates nothing.
    DA_UFILE* uf = nullptr;
    EXPECT_EQ(DA_NOTFOUND, daoputl(lp, "cat", "CATALOG ", 0, &uf));
    EXPECT_FALSE(there(tmp.file("cat.catalog.0.0.0.vrta9")));

    ASSERT_GE(daoputl(lp, "Cat", "CATALOG ", 5, &uf), 0);
    std::string payload = pattern(1000, 9);
    da_off_t off = 0;
    ASSERT_GE(uf->mt->daufwrite(uf, payload.data(), 1000, &off), 0);
    EXPECT_EQ(0, off);
    off = -1;  // append
    ASSERT_GE(uf->mt->daufwrite(uf, "tail", 4, &off), 0);
    EXPECT_EQ(1000, off);
    EXPECT_EQ(0, uf->mt->daufclo(uf));

    ASSERT_GE(daoputl(lp, "CAT", "catalog", 0, &uf), 0);
    EXPECT_EQ(0, memcmp(uf->owner.token, "owner-token-0123456789abcdef", 28));
    std::string back(1004, '\0');
    long got = 0;
    ASSERT_GE(uf->mt->daufread(uf, back.data(), 1004, 0, &got), 0);
    EXPECT_EQ(1004, got);
    EXPECT_TRUE(back == payload + "tail");
    // Offsets count from behind the head.
    char four[4];
    ASSERT_GE(uf->mt->daufread(uf, four, 4, 1000, &got), 0);
    EXPECT_EQ(0, memcmp(four, "tail", 4));
    EXPECT_EQ(0, uf->mt->daufclo(uf));

    // A file whose head is missing: a reader refuses it.
    ASSERT_TRUE(fdtest::makemdf(lp->meta[0].path, "bare.catalog"));
    EXPECT_EQ(DA_BADVERSION, daoputl(lp, "bare", "CATALOG", 0, &uf));

    // Nameless files never share a name.
    DA_UFILE *a = nullptr, *b = nullptr;
    ASSERT_GE(daoputl(lp, "  ", "SCRATCH", 4, &a), 0);
    ASSERT_GE(daoputl(lp, nullptr, "SCRATCH", 4, &b), 0);
    EXPECT_EQ('$', a->name[0]);
    EXPECT_EQ(8u, strlen(a->name));
    EXPECT_STRNE(a->name, b->name);
    std::string an = a->name;
    EXPECT_EQ(0, a->mt->daufren(a, "kept"));
    EXPECT_EQ(0, daexist(lp, "KEPT", "SCRATCH"));
    EXPECT_EQ(0, a->mt->daufclo(a));
    EXPECT_EQ(0, b->mt->daufdelete(b));
    EXPECT_EQ(0, b->mt->daufclo(b));
    DA_DIRH* dh = nullptr;
    ASSERT_EQ(0, daopdir(lp, DA_DIRDOLLAR, &dh));
    DA_DIRENT e;
    int scratch = 0;
    while (darddir(dh, &e) == 0) scratch += strncmp(e.type, "SCRATCH ", 8) == 0;
    EXPECT_GE(dacldir(dh), 0);
    EXPECT_EQ(1, scratch);

    // A work file lives on the work path and goes at close.
    DA_FD* wf = nullptr;
    ASSERT_GE(daworkf(lp, 0, &wf), 0);
    da_off_t woff = 0;
    ASSERT_GE(wf->fdwrite(wf, "work", 4, &woff), 0);
    std::vector<std::string> inwork = filesIn(std::string(lp->work[0].path));
    bool found = false;
    for (auto& f : inwork) found = found || f.rfind("vrta_", 0) == 0;
    EXPECT_TRUE(found);
    EXPECT_GE(wf->fdclose(wf), 0);
    for (auto& f : filesIn(std::string(lp->work[0].path)))
        EXPECT_FALSE(f.rfind("vrta_", 0) == 0 && std::find(inwork.begin(), inwork.end(), f) != inwork.end()) << f;
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(Library, WorkpathFallsBackWhenInvalidAndFreeClosesOpenTables) {
    vrtatest::TempDir tmp;
    std::string bad = quoted(tmp.file("no/such/dir"));
    DA_LIBSTR ls = request(tmp.path());
    ls.workpaths = bad.c_str();
    ls.workpaths_l = static_cast<int>(bad.size());
    DA_LIB* lp = nullptr;
    ASSERT_EQ(DA_WORKPATHBAD, dagtlib(&ls, &lp));
    ASSERT_GE(lp->numwork, 1);
    EXPECT_NE(tmp.file("no/such/dir") + "/", pathOf(lp->work[0]));
    EXPECT_TRUE(lp->flags & DA_LFWORKDEF);

    std::string good = "'" + tmp.path() + "'";
    DA_LIBSTR ls2 = request(tmp.path());
    memcpy(ls2.name, "OTHERLIB", 8);
    ls2.workpaths = good.c_str();
    ls2.workpaths_l = static_cast<int>(good.size());
    DA_LIB* lp2 = nullptr;
    ASSERT_EQ(0, dagtlib(&ls2, &lp2));
    EXPECT_EQ(tmp.path() + "/", pathOf(lp2->work[0]));
    EXPECT_FALSE(lp2->flags & DA_LFWORKDEF);
    EXPECT_EQ(0, dafrlib(lp2));

    // Tables still open at free are closed through the table layer's hook;
    // a failing close is reported and the free goes on.
    static int closed;
    closed = 0;
    DA_LINK t1, t2;
    auto* p = static_cast<DA_LIBP*>(lp);
    dalinkadd(&p->fids, &t1);
    dalinkadd(&p->fids, &t2);
    auto saved = dagcb.closefid;
    dagcb.closefid = [](DA_LINK* l) -> rctype {
        closed++;
        if (closed == 1) {
            dalinkdel(l);
            return 0;
        }
        return DA_INTERNAL;
    };
    EXPECT_EQ(DA_INTERNAL, dafrlib(lp));
    dagcb.closefid = saved;
    EXPECT_EQ(2, closed);
}

TEST(Library, ThreadsAssigningOneDirectoryShareItsLibraryFile) {
    vrtatest::TempDir tmp;
    std::string d1 = tmp.file("d1");
    mkdir(d1.c_str(), 0755);
    constexpr int nthreads = 6, rounds = 40;
    std::atomic<int> failures{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < nthreads; t++)
        ts.emplace_back([&, t] {
            std::string dl = "'" + d1 + "'";
            for (int i = 0; i < rounds; i++) {
                DA_LIBSTR ls = request(tmp.path());
                ls.name[7] = static_cast<char>('0' + t);
                // Half of them add a data path, which rewrites the file.
                if (t % 2) {
                    ls.datapaths = dl.c_str();
                    ls.datapaths_l = static_cast<int>(dl.size());
                }
                DA_LIB* lp = nullptr;
                rctype rc = dagtlib(&ls, &lp);
                if (rc < 0 || !lp || lp->nummeta != 1) {
                    failures++;
                    continue;
                }
                if (dafrlib(lp) != 0) failures++;
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(nullptr, dagcb.libFileList);
    DA_LIBSTR ls = request(tmp.path());
    DA_LIB* lp = nullptr;
    ASSERT_EQ(0, dagtlib(&ls, &lp));
    ASSERT_EQ(1, lp->numdata);
    EXPECT_EQ(d1 + "/", pathOf(lp->data[0]));
    EXPECT_EQ(0, dafrlib(lp));
}

TEST(Library, ProcessesAddingPathsAtOnceLoseNoneOfThem) {
    vrtatest::TempDir tmp;
    std::vector<std::string> dirs;
    for (int i = 0; i < 24; i++) {
        dirs.push_back(tmp.file(numbered("p", i)));
        mkdir(dirs.back().c_str(), 0755);
    }
    // Each process adds its own twelve paths, one assignment at a time.
    auto addall = [&](int first) {
        int bad = 0;
        for (int i = first; i < first + 12; i++) {
            std::string dl = "'" + dirs[i] + "'";
            DA_LIBSTR ls = request(tmp.path());
            ls.datapaths = dl.c_str();
            ls.datapaths_l = static_cast<int>(dl.size());
            DA_LIB* lp = nullptr;
            if (dagtlib(&ls, &lp) < 0) bad++;
            else if (dafrlib(lp) != 0) bad++;
        }
        return bad;
    };
    pid_t pid = fork();
    if (pid == 0) _exit(addall(0));
    EXPECT_EQ(0, addall(12));
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(0, WEXITSTATUS(st));
    DA_LIBSTR ls = request(tmp.path());
    DA_LIB* lp = nullptr;
    ASSERT_EQ(0, dagtlib(&ls, &lp));
    std::set<std::string> got;
    for (int i = 0; i < lp->numdata; i++) got.insert(pathOf(lp->data[i]));
    for (auto& d : dirs) EXPECT_TRUE(got.count(d + "/")) << d;
    EXPECT_EQ(24, lp->numdata);
    EXPECT_EQ(0, dafrlib(lp));
}

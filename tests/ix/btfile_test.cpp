// The B-tree's files: trees moved and brought back, files of the other
// byte order, the pool's order of writes, and damaged files.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "btutil.h"
#include "testutil.h"

using namespace vrta;
using namespace bttest;

namespace {

bool longrun() { return getenv("VRTA_LONG") != nullptr; }

// Every write a tree makes through its file, by page.
struct WriteLog {
    static inline std::vector<int64_t> pages;
    static inline int64_t holes = 0;
    static inline uint32_t psize = 0;
    static inline const DA_IDXMT* real = nullptr;
    static inline DA_IDXMT mt{};
    static rctype write(DA_IDX* ip, const void* b, long n, da_off_t off) {
        if (off > ip->filesize) ++holes;
        pages.push_back(off / psize);
        return real->writeidx(ip, b, n, off);
    }
    static void watch(DA_IDX* ip, uint32_t ps) {
        real = ip->mt;
        mt = *real;
        mt.writeidx = write;
        ip->mt = &mt;
        psize = ps;
        pages.clear();
        holes = 0;
    }
};

void putrows(Tree& tr, int64_t from, int64_t to, int distinct = 5) {
    for (int64_t r = from; r <= to; ++r) {
        std::string key = "key" + std::to_string(100 + r * 7 % distinct);
        std::string d = rowdata(r);
        DBT k = dbt(key), dd = dbt(d);
        ASSERT_EQ(0, tr.db->put(tr.db, &k, &dd, 0)) << r;
    }
}

// Key, then row, of every entry of every tree.
std::vector<std::string> dumpall(DB* db) {
    std::vector<std::string> out;
    int64_t n = __bt_ntrees(db);
    for (int64_t s = 0; s < n; ++s) {
        if (!(db->internal->bt_flags & B_GLOBAL)) {
            EXPECT_EQ(0, __bt_settree(db, s));
        }
        DBT k, d;
        rctype rc;
        for (rc = db->seq(db, &k, &d, R_FIRST); rc == 0; rc = db->seq(db, &k, &d, R_NEXT))
            out.push_back(std::to_string(s) + ":" + str(k) + str(d));
        EXPECT_EQ(1, rc);
    }
    return out;
}

}  // namespace

// The last tree, kept from the file's end by a segment page, moves there to
// take rows: with none it comes back and not one page of it is written; a
// tree that grew stays at the end, and the trees read the same either way.
TEST(BtreeFile, MovedTreeComesBackUnwrittenOrStaysWhenItGrew) {
    vrtatest::TempDir tmp;
    std::string path = tmp.file("move");
    const uint32_t psize = 512;
    const int64_t segsize = 100;
    int64_t nfull = bt_metamaxindex(psize);  // the next tree's entry needs a segment page
    Tree tr;
    ASSERT_TRUE(tr.open(path, BT_OCREATE, seginfo(psize, segsize)));
    putrows(tr, 1, nfull * segsize + 50);
    ASSERT_EQ(0, tr.close());
    ASSERT_TRUE(tr.open(path, BT_OREAD));
    pgno_t root, len;
    ASSERT_EQ(0, __bt_tree(tr.db, nfull, &root, &len));
    auto before = dumpall(tr.db);
    pgno_t filepages = static_cast<pgno_t>(tr.ip->filesize / psize);
    ASSERT_LT(root + len, filepages) << "the last tree should not be at the file's end";
    std::string bytes = vrtatest::readFile(path);

    ASSERT_TRUE(tr.open(path, BT_OAPPEND));
    ASSERT_EQ(BT_OPAPPEND, tr.db->current_op);
    ASSERT_EQ(1, tr.t()->bt_gone_out);
    WriteLog::watch(tr.ip, psize);
    ASSERT_EQ(0, tr.close());
    for (int64_t pg : WriteLog::pages) EXPECT_FALSE(pg >= root && pg < root + len) << "page " << pg << " written";
    EXPECT_EQ(0, WriteLog::holes);
    EXPECT_EQ(bytes, vrtatest::readFile(path)) << "a tree that took no rows changed the file";

    ASSERT_TRUE(tr.open(path, BT_OAPPEND));
    putrows(tr, nfull * segsize + 51, nfull * segsize + 100);
    ASSERT_EQ(0, tr.close());
    ASSERT_TRUE(tr.open(path, BT_OREAD));
    pgno_t root2, len2;
    ASSERT_EQ(0, __bt_tree(tr.db, nfull, &root2, &len2));
    EXPECT_GT(len2, len);
    EXPECT_GE(root2, filepages);
    EXPECT_EQ(static_cast<da_off_t>(root2 + len2) * psize, tr.ip->filesize);
    auto after = dumpall(tr.db);
    EXPECT_EQ(before.size() + 50, after.size());
    for (size_t i = 0; i < before.size(); ++i)
        if (before[i].compare(0, before[i].find(':'), std::to_string(nfull)) != 0) {
            EXPECT_NE(after.end(), std::find(after.begin(), after.end(), before[i]));
        }
}

namespace {

void swap32(std::string& f, size_t off) {
    uint32_t v;
    memcpy(&v, f.data() + off, 4);
    v = __builtin_bswap32(v);
    memcpy(f.data() + off, &v, 4);
}
void swap16(std::string& f, size_t off) {
    uint16_t v;
    memcpy(&v, f.data() + off, 2);
    v = __builtin_bswap16(v);
    memcpy(f.data() + off, &v, 2);
}
void swap64(std::string& f, size_t off) {
    uint64_t v;
    memcpy(&v, f.data() + off, 8);
    v = __builtin_bswap64(v);
    memcpy(f.data() + off, &v, 8);
}
uint32_t get32(const std::string& f, size_t off) {
    uint32_t v;
    memcpy(&v, f.data() + off, 4);
    return v;
}

// A file as the machine of the other byte order would have written it,
// converted from the layout of the format, not through the tree's code.
std::string otherorder(std::string f) {
    uint32_t ps = get32(f, 36);
    std::set<size_t> segp;
    int32_t dircount = static_cast<int32_t>(get32(f, 84));
    uint32_t pg = 0;
    for (int i = 0; i <= dircount; ++i) segp.insert(get32(f, 88 + 4 * i));
    if (dircount == 49)
        for (pg = get32(f, static_cast<size_t>(get32(f, 88 + 4 * 49)) * ps); pg; pg = get32(f, size_t(pg) * ps))
            segp.insert(pg);
    auto descs = [&](size_t base, uint32_t nent) {
        for (size_t o = 0; o < 24; o += 4) swap32(f, base + o);
        swap64(f, base + 24);
        for (size_t o = 32; o < 52; o += 4) swap32(f, base + o);
        for (uint32_t i = 0; i < nent; ++i) {
            swap32(f, base + 56 + 16 * i);
            swap32(f, base + 60 + 16 * i);
        }
    };
    for (size_t p = 1; p < f.size() / ps; ++p) {
        size_t b = p * ps;
        if (segp.count(p)) {
            descs(b, (ps - 56) / 16);
            continue;
        }
        uint32_t type = get32(f, b + 12) & 0x1f;
        uint16_t lower;
        memcpy(&lower, f.data() + b + 16, 2);
        for (size_t o = 0; o < 16; o += 4) swap32(f, b + o);
        swap16(f, b + 16);
        swap16(f, b + 18);
        if (type != 1 && type != 2) continue;
        for (size_t i = 0; i < (lower - 20u) / 2; ++i) {
            uint16_t at;
            memcpy(&at, f.data() + b + 20 + 2 * i, 2);
            swap16(f, b + 20 + 2 * i);
            if (type == 1) {
                uint32_t flags = get32(f, b + at + 8);
                for (size_t o = 0; o < 12; o += 4) swap32(f, b + at + o);
                if (flags & 1) {
                    swap32(f, b + at + 12);
                    swap32(f, b + at + 16);
                }
            }
        }
    }
    descs(296, (ps - 352) / 16);
    for (size_t o : {0, 4, 16, 20}) swap32(f, o);
    swap64(f, 8);
    for (size_t o = 24; o < 52; o += 4) swap32(f, o);
    swap64(f, 56);
    swap64(f, 64);
    for (size_t o = 72; o < 292; o += 4) swap32(f, o);
    return f;
}

}  // namespace

// Files made here and turned to the other byte order read back the same,
// with the swap flag; they are refused for writing.
TEST(BtreeFile, FileOfTheOtherByteOrderReadsTheSame) {
    vrtatest::TempDir tmp;
    struct Case {
        std::string name;
        BTREEINFO info;
        int64_t rows;
    };
    BTREEINFO ov = globalinfo(1024, 200, 24);
    std::vector<Case> cases = {{"global", globalinfo(512), 3000},
                               {"segs", seginfo(512, 9), 2000},
                               {"chained", seginfo(512, 1), 1500},
                               {"overflow", ov, 400}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = tmp.file(c.name);
        Tree tr;
        ASSERT_TRUE(tr.open(path, BT_OCREATE, c.info));
        if (c.name == "overflow") tr.t()->bt_ovflsize = 16;
        std::mt19937_64 rng(11);
        for (int64_t r = 1; r <= c.rows; ++r) {
            std::string key(c.info.keylen, 'k');
            uint64_t v = rng() % 5000;
            size_t n = key.size() < 8 ? key.size() : 8;
            memcpy(key.data() + key.size() - n, &v, n);
            std::string d(c.info.datalen, 'd');
            bt_putrow(d.data(), r);
            DBT k = dbt(key), dd = dbt(d);
            ASSERT_GE(tr.db->put(tr.db, &k, &dd, 0), 0);
        }
        ASSERT_EQ(0, tr.close());
        ASSERT_TRUE(tr.open(path, BT_OREAD));
        auto want = dumpall(tr.db);
        ASSERT_EQ(0, tr.close());
        ASSERT_FALSE(want.empty());
        vrtatest::writeFile(path, otherorder(vrtatest::readFile(path)));
        ASSERT_TRUE(tr.open(path, BT_OREAD)) << std::hex << tr.rc;
        EXPECT_TRUE(tr.t()->bt_flags & B_NEEDSWAP);
        EXPECT_EQ(want, dumpall(tr.db));
        ASSERT_EQ(0, tr.close());
        EXPECT_FALSE(tr.open(path, BT_OAPPEND));
        EXPECT_EQ(IX_OPENFAIL, tr.rc);
    }
}

// With a cache of a few pages and inserts all over the tree, pages leave
// the cache in any order, yet every write lands at or before the file's
// end, and the tree reads back whole.
TEST(BtreePool, WritesNeverLeaveAHole) {
    vrtatest::TempDir tmp;
    std::string path = tmp.file("pool");
    BTREEINFO info = globalinfo(512);
    info.cachesize = 1;  // the least: twenty pages
    Tree tr;
    ASSERT_TRUE(tr.open(path, BT_OCREATE, info));
    EXPECT_EQ(20u, tr.t()->bt_ncache);
    WriteLog::watch(tr.ip, 512);
    std::map<std::string, std::string> model;
    std::mt19937_64 rng(3);
    for (int i = 0; i < 20000; ++i) {
        std::string key = key8(rng() % 1000000), d = key8(i);
        DBT k = dbt(key), dd = dbt(d);
        ASSERT_EQ(0, tr.db->put(tr.db, &k, &dd, 0));
        model[key] = d;
    }
    ASSERT_EQ(0, tr.close());
    EXPECT_EQ(0, WriteLog::holes);
    EXPECT_GT(WriteLog::pages.size(), 100u);
    ASSERT_TRUE(tr.open(path, BT_OREAD));
    DBT k, d;
    auto it = model.begin();
    rctype rc;
    for (rc = tr.db->seq(tr.db, &k, &d, R_FIRST); rc == 0; rc = tr.db->seq(tr.db, &k, &d, R_NEXT), ++it) {
        ASSERT_NE(model.end(), it);
        ASSERT_EQ(it->first, str(k));
        ASSERT_EQ(it->second, str(d));
    }
    EXPECT_EQ(1, rc);
    EXPECT_EQ(model.end(), it);

    // A page at or past the pool's end is refused unless asked for as new,
    // and a page cut short reads as errno 666.
    MPOOL* mp = tr.t()->bt_mp;
    errno = 0;
    EXPECT_EQ(nullptr, mpool_get(mp, mp->npages, 0));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_EQ(0, tr.close());
    std::string f = vrtatest::readFile(path);
    vrtatest::writeFile(path, f.substr(0, f.size() - 100));
    DA_IDX* ip = nullptr;
    ASSERT_EQ(0, daopidxf(path.c_str(), 0, &ip));
    MPOOL* raw = mpool_open("cut", ip, 512, 20, MPOOL_READ, 0, nullptr);
    ASSERT_NE(nullptr, raw);
    raw->npages = static_cast<pgno_t>(f.size() / 512);
    errno = 0;
    EXPECT_EQ(nullptr, mpool_get(raw, raw->npages - 1, 0));
    EXPECT_EQ(EPAGESHORT, errno);
    mpool_close(raw);
    EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
}

namespace {

const std::set<rctype> kIndexCodes = {IX_OPENFAIL, IX_BADTREEVER, IX_BADDESC, IX_TREEREAD, IX_KEYTOOLONG,
                                      IX_NOMEM, IX_READFAIL, IX_INCONSIST};

// Opens, walks every tree and looks up keys of a possibly damaged file.
// True when something failed, with a code of the index layer; false when
// all of it read. A walk that would not end is a failure of the test.
bool damaged(const std::string& path, const std::vector<std::string>& keys, int64_t rows, std::string* why) {
    Tree tr;
    if (!tr.open(path, BT_OREAD)) {
        EXPECT_TRUE(kIndexCodes.count(tr.rc)) << std::hex << tr.rc;
        *why = "open";
        return true;
    }
    DB* db = tr.db;
    int64_t n = __bt_ntrees(db);
    bool bad = false;
    size_t limit = 4 * static_cast<size_t>(rows) + 100;
    for (int64_t s = 0; s < n && !bad; ++s) {
        if (!(db->internal->bt_flags & B_GLOBAL) && __bt_settree(db, s) != 0) return *why = "settree", true;
        DBT k, d;
        size_t steps = 0;
        rctype rc;
        for (rc = db->seq(db, &k, &d, R_FIRST); rc == 0 && steps < limit; rc = db->seq(db, &k, &d, R_NEXT)) ++steps;
        EXPECT_LT(steps, limit) << "a walk that does not end";
        if (rc < 0) {
            EXPECT_TRUE(kIndexCodes.count(rc)) << std::hex << rc;
            EXPECT_NE(0, db->internal->bt_errtext[0]);
            bad = true;
            *why = "walk";
        }
        for (const auto& key : keys) {
            if (bad) break;
            DBT kk = dbt(key), out{};
            rc = db->get(db, &kk, &out, 0);
            if (rc < 0) {
                EXPECT_TRUE(kIndexCodes.count(rc)) << std::hex << rc;
                bad = true;
                *why = "get";
            }
        }
    }
    return bad;
}

}  // namespace

// Files cut at every page boundary, and with bytes changed at random: a
// code of the index layer or a plain result, never a read past a page, a
// walk without end or a crash (the sanitizers watch).
TEST(BtreeFile, DamagedFilesGiveCodesNotCrashes) {
    vrtatest::TempDir tmp;
    struct Base {
        std::string name;
        BTREEINFO info;
        int64_t rows;
    };
    std::vector<Base> bases = {{"global", globalinfo(512), 3000}, {"segs", seginfo(512, 40), 1200}};
    const int flips = longrun() ? 3000 : 300;
    for (auto& b : bases) {
        SCOPED_TRACE(b.name);
        std::string path = tmp.file(b.name);
        std::vector<std::string> keys;
        {
            Tree tr;
            ASSERT_TRUE(tr.open(path, BT_OCREATE, b.info));
            std::mt19937_64 rng(17);
            for (int64_t r = 1; r <= b.rows; ++r) {
                std::string key(b.info.keylen, 'k');
                uint64_t v = rng() % 100000;
                memcpy(key.data() + key.size() - (b.info.keylen < 8 ? b.info.keylen : 8), &v,
                       b.info.keylen < 8 ? b.info.keylen : 8);
                if (keys.size() < 200) keys.push_back(key);
                std::string d(b.info.datalen, 'd');
                bt_putrow(d.data(), r);
                DBT k = dbt(key), dd = dbt(d);
                ASSERT_GE(tr.db->put(tr.db, &k, &dd, 0), 0);
            }
        }
        std::string good = vrtatest::readFile(path);
        std::string why;
        ASSERT_FALSE(damaged(path, keys, b.rows, &why)) << why;
        std::string cut = tmp.file(b.name + ".cut");
        for (size_t end = 0; end < good.size(); end += 512) {
            vrtatest::writeFile(cut, good.substr(0, end));
            EXPECT_TRUE(damaged(cut, keys, b.rows, &why)) << "cut at " << end;
        }
        std::mt19937_64 rng(99);
        for (int i = 0; i < flips; ++i) {
            std::string f = good;
            int nbytes = 1 + static_cast<int>(rng() % 3);
            for (int j = 0; j < nbytes; ++j) f[rng() % f.size()] = static_cast<char>(rng());
            vrtatest::writeFile(cut, f);
            damaged(cut, keys, b.rows, &why);
            if (HasFailure()) {
                ADD_FAILURE() << "flip " << i;
                return;
            }
        }
    }
}

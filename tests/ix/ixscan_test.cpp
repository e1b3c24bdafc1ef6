// Index scans against a brute-force filter of the table: equal, not equal,
// open and closed ranges, lists of values, the segment list and the
// pre-evaluation, on tables with deleted and missing rows, several segment
// sizes, and several threads at once; and what a reader must refuse.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "../sda/lifeutil.h"
#include "ix/ixfe.h"
#include "ix/ixhyr.h"
#include "ixrows.h"
#include "sda/daidx.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

using Rows = std::set<int64_t>;
constexpr int NTHREADS = 3;

struct Table {
    vrtatest::TempDir tmp;
    DA_LIB* lp = nullptr;
    DA_FID* fp = nullptr;
    int64_t numobs = 0;
    std::vector<char> rows;
    std::set<int64_t> deleted;
    ~Table() {
        if (fp) {
            EXPECT_EQ(0, darclos(fp));
        }
        if (lp) {
            EXPECT_GE(dafrlib(lp), 0);
        }
    }
};

// A table of n rows whose first column takes `distinct` values (some
// missing), indexed as "ix" on it; a twentieth of the rows deleted.
// gen, when given, makes row i's value instead.
void maketable(Table* t, int64_t n, int64_t segsize, int distinct, unsigned seed, bool deletes,
               double (*gen)(int64_t) = nullptr) {
    t->lp = assign(t->tmp.path());
    t->fp = create(t->lp, "t", segsize);
    ASSERT_NE(nullptr, t->fp);
    std::mt19937 rng(seed);
    t->rows.resize(static_cast<size_t>(n) * ROWLEN);
    for (int64_t i = 0; i < n; ++i) {
        double d = static_cast<double>(static_cast<int64_t>(rng() % distinct) - distinct / 4);
        if (rng() % 17 == 0) {
            uint64_t miss = 0xFFFF000000000000ull;
            memcpy(&d, &miss, 8);
        }
        if (gen) d = gen(i);
        memcpy(t->rows.data() + i * ROWLEN, &d, 8);
        memcpy(t->rows.data() + i * ROWLEN + 8, "abcdefghijkl", 12);
    }
    ASSERT_EQ(0, dawrobs(t->fp, 1, t->rows.data(), static_cast<long>(n)));
    ASSERT_EQ(0, darclos(t->fp));
    t->fp = nullptr;
    if (deletes) {
        DA_OPNSTR o = request("t", DA_OMUPDATE);
        ASSERT_GE(daopen(t->lp, &o, &t->fp), 0);
        for (int64_t i = 0; i < n / 20; ++i) {
            int64_t r = 1 + static_cast<int64_t>(rng() % n);
            ASSERT_GE(t->fp->mt->delobs(t->fp, r), 0);
            t->deleted.insert(r);
        }
        ASSERT_EQ(0, darclos(t->fp));
        t->fp = nullptr;
    }
    DA_OPNSTR o = request("t", DA_OMUTIL);
    ASSERT_GE(daopen(t->lp, &o, &t->fp), 0);
    int32_t col = 1;
    IX_BUILDREQ req{};
    req.name = "ix";
    req.nvar = 1;
    req.varnos = &col;
    ASSERT_EQ(0, ixhybuild(t->fp, &req));
    ASSERT_EQ(0, darclos(t->fp));
    o = request("t", DA_OMINPUT);
    t->fp = nullptr;
    ASSERT_EQ(0, daopen(t->lp, &o, &t->fp));
    t->numobs = n;
}

// Each live row's key, made by the index.
std::map<std::string, Rows> keys(Table& t, IX_INDEX_T* ix) {
    std::map<std::string, Rows> m;
    std::string k(static_cast<size_t>(ix->keylen), '\0');
    for (int64_t r = 1; r <= t.numobs; ++r) {
        if (t.deleted.count(r)) continue;
        EXPECT_EQ(0, ixmkkey(ix, t.rows.data() + (r - 1) * ROWLEN, k.data()));
        m[k].insert(r);
    }
    return m;
}

// One condition: a range by its ends (empty string: open), or a value with a comparison.
struct Cond {
    int op;             // an ix_compare_t, or -1 for a range lo..hi
    std::string v, lo, hi;
    int loop = IX_GE, hiop = IX_LE;
};

bool matches(const Cond& c, const std::string& k) {
    if (c.op < 0) {
        if (!c.lo.empty()) {
            int x = memcmp(k.data(), c.lo.data(), k.size());
            if (x < 0 || (x == 0 && c.loop == IX_GT)) return false;
        }
        if (!c.hi.empty()) {
            int x = memcmp(k.data(), c.hi.data(), k.size());
            if (x > 0 || (x == 0 && c.hiop == IX_LT)) return false;
        }
        return true;
    }
    int x = memcmp(k.data(), c.v.data(), k.size());
    switch (c.op) {
    case IX_EQ: return x == 0;
    case IX_NE: return x != 0;
    case IX_GT: return x > 0;
    case IX_GE: return x >= 0;
    case IX_LT: return x < 0;
    default: return x <= 0;
    }
}

// What the index must answer in segment s: the live rows that match; for a
// not-equal every row of the segment up to the table's end but the live rows
// equal to the value (a deleted row is for the row reader to skip).
Rows brute(const Cond& c, const std::map<std::string, Rows>& m, int64_t s, int64_t ss, int64_t numobs) {
    Rows out;
    int64_t lo = s * ss + 1, hi = std::min((s + 1) * ss, numobs);
    if (c.op == IX_NE) {
        for (int64_t r = lo; r <= hi; ++r) out.insert(r);
        auto it = m.find(c.v);
        if (it != m.end())
            for (int64_t r : it->second) out.erase(r);
        return out;
    }
    for (auto& [k, rows] : m)
        if (matches(c, k))
            for (int64_t r : rows)
                if (r >= lo && r <= hi) out.insert(r);
    return out;
}

using ixtest::readall;

// The rows of segment s by initseg (a value) or pnt (a range), on thread th.
rctype segrows(IX_INDEX_T* ix, const Cond& c, int64_t s, int64_t ss, int th, ix_list_t** list, Rows* out) {
    rctype rc;
    if (c.op < 0) {
        IX_SEGOP_T lo{*list, c.lo.empty() ? nullptr : c.lo.data(), c.loop, s * ss + 1, ix->keylen, nullptr, nullptr};
        IX_SEGOP_T hi{nullptr, c.hi.empty() ? nullptr : c.hi.data(), c.hiop, s * ss + 1, ix->keylen, nullptr, nullptr};
        rc = ix->fp.pnt(ix->ix_private, &lo, &hi, th, 0);
        *list = lo.list;
    } else {
        // A row in the middle of the segment names it as well as its first.
        IX_SEGOP_T op{*list, c.v.data(), c.op, s * ss + 1 + (s % 2 ? ss / 2 : 0), ix->keylen, nullptr, nullptr};
        rc = ix->fp.initseg(ix->ix_private, &op, th, 0);
        *list = op.list;
    }
    if (rc == 0) *out = readall(*list);
    return rc;
}

std::string keyof(IX_INDEX_T* ix, double d) {
    char row[ROWLEN] = {};
    memcpy(row, &d, 8);
    std::string k(static_cast<size_t>(ix->keylen), '\0');
    EXPECT_EQ(0, ixmkkey(ix, row, k.data()));
    return k;
}

std::vector<Cond> conditions(IX_INDEX_T* ix, const std::map<std::string, Rows>& m, std::mt19937& rng, int n) {
    std::vector<std::string> ks;
    for (auto& [k, r] : m) ks.push_back(k);
    auto pick = [&] { return ks.empty() || rng() % 5 == 0 ? keyof(ix, static_cast<double>(rng() % 1000) + 0.5) : ks[rng() % ks.size()]; };
    std::vector<Cond> cs;
    for (int i = 0; i < n; ++i) {
        Cond c;
        int kind = static_cast<int>(rng() % 8);
        if (kind < 6) {
            c.op = kind;
            c.v = pick();
        } else {
            c.op = -1;
            c.lo = rng() % 4 ? pick() : "";
            c.hi = rng() % 4 ? pick() : "";
            if (!c.lo.empty() && !c.hi.empty() && c.lo > c.hi && rng() % 3) std::swap(c.lo, c.hi);
            c.loop = rng() % 2 ? IX_GE : IX_GT;
            c.hiop = rng() % 2 ? IX_LE : IX_LT;
        }
        cs.push_back(c);
    }
    return cs;
}

IXH_HEADER_R* hdr(IX_INDEX_T* ix) { return static_cast<IXH_HEADER_R*>(ix->ix_private); }

}  // namespace

TEST(IndexScan, MatchesBruteForce) {
    struct Case {
        int64_t rows, segsize;
        int distinct;
        bool deletes;
    };
    bool longrun = getenv("VRTA_LONG") != nullptr;
    std::vector<Case> cases = {{3000, 64, 6, true}, {2500, 32, 3000, true}, {4001, 1000, 40, false}, {700, 7, 90, true}};
    for (size_t ci = 0; ci < cases.size(); ++ci) {
        const Case& k = cases[ci];
        SCOPED_TRACE("case " + std::to_string(ci));
        Table t;
        ASSERT_NO_FATAL_FAILURE(maketable(&t, k.rows, k.segsize, k.distinct, static_cast<unsigned>(ci + 7), k.deletes));
        IX_INDEX_T* ix = nullptr;
        ASSERT_EQ(0, ixopen(t.fp, "ix", 0, NTHREADS, nullptr, &ix));
        auto m = keys(t, ix);
        int64_t nsegs = hdr(ix)->disk.n_segs, ss = k.segsize;
        ASSERT_EQ((k.rows - 1) / ss + 1, nsegs) << "the last row is live or the segment has others";
        std::mt19937 rng(static_cast<unsigned>(ci));
        for (const Cond& c : conditions(ix, m, rng, longrun ? 120 : 30)) {
            SCOPED_TRACE("op " + std::to_string(c.op));
            // Segment by segment, the segments dealt out to threads.
            std::vector<Rows> got(static_cast<size_t>(nsegs));
            std::vector<rctype> rcs(static_cast<size_t>(nsegs), 0);
            std::vector<std::thread> ths;
            for (int th = 0; th < NTHREADS; ++th)
                ths.emplace_back([&, th] {
                    ix_list_t* l = nullptr;
                    for (int64_t s = th; s < nsegs; s += NTHREADS)
                        rcs[static_cast<size_t>(s)] = segrows(ix, c, s, ss, th, &l, &got[static_cast<size_t>(s)]);
                    ixfreel(l);
                });
            for (auto& th : ths) th.join();
            for (int64_t s = 0; s < nsegs; ++s) {
                ASSERT_EQ(0, rcs[static_cast<size_t>(s)]) << "segment " << s;
                EXPECT_EQ(brute(c, m, s, ss, t.numobs), got[static_cast<size_t>(s)]) << "segment " << s;
            }
            if (c.op == IX_NE) continue;
            // The segment list: exactly the segments with a match, when the index is selective.
            IX_SEGOP_T lo{}, hi{};
            IX_SEGSTATS_T st{};
            rctype rc;
            if (c.op < 0) {
                lo = {nullptr, c.lo.empty() ? nullptr : c.lo.data(), c.loop, 0, ix->keylen, nullptr, nullptr};
                hi = {nullptr, c.hi.empty() ? nullptr : c.hi.data(), c.hiop, 0, ix->keylen, nullptr, nullptr};
                rc = ix->fp.prepnt(ix->ix_private, &lo, &hi, 1, &st);
            } else {
                lo = {nullptr, c.v.data(), c.op, 0, ix->keylen, nullptr, nullptr};
                rc = ix->fp.preseg(ix->ix_private, &lo, 1, &st);
            }
            ASSERT_EQ(0, rc);
            int64_t want = 0, nrows = 0;
            for (int64_t s = 0; s < nsegs; ++s) {
                bool any = !brute(c, m, s, ss, t.numobs).empty();
                want += any;
                nrows += static_cast<int64_t>(brute(c, m, s, ss, t.numobs).size());
                if (lo.hy_list) {
                    EXPECT_EQ(any, Isset_segbit(lo.hy_list, s) != 0) << "segment " << s;
                }
            }
            EXPECT_EQ(nrows, st.nrows);
            if (lo.hy_list) {
                EXPECT_EQ(want, st.nsegs);
            } else {
                EXPECT_GT(want * 100, 75 * nsegs) << "a list dropped although the index is selective";
            }
            // The pre-evaluation gives each segment's rows from memory.
            IX_SEGOP_T pe = c.op < 0 ? lo : IX_SEGOP_T{nullptr, c.v.data(), c.op, 0, ix->keylen, lo.hy_list, nullptr};
            rc = c.op < 0 ? ix->fp.preevalpnt(ix->ix_private, &pe, &hi) : ix->fp.preeval(ix->ix_private, &pe);
            ASSERT_EQ(0, rc);
            for (int64_t s = 0; s < nsegs; ++s) {
                pe.segment = s * ss + 1;
                ASSERT_EQ(0, ix->fp.preevallist(ix->ix_private, &pe, static_cast<int>(s % NTHREADS)));
                EXPECT_EQ(brute(c, m, s, ss, t.numobs), readall(pe.list)) << "segment " << s;
            }
            ix->fp.preevalcln(ix->ix_private, pe.ixpriv);
            ixfreel(pe.list);
            ixfreel(lo.hy_list);
        }
        // Counts of a value in a segment, values of a range, the first value not missing.
        for (auto& [key, rows] : m) {
            int64_t r = *rows.begin(), cnt = -1;
            ASSERT_EQ(0, ix->fp.count(ix->ix_private, key.data(), r, &cnt));
            int64_t s = (r - 1) / ss;
            int64_t n = std::count_if(rows.begin(), rows.end(), [&](int64_t x) { return (x - 1) / ss == s; });
            // A segment in list form reports its byte length over 4: twice its rows.
            EXPECT_EQ(n > 1 && n <= hdr(ix)->disk.max_obslist_size ? 2 * n : n, cnt) << "segment " << s;
        }
        std::string first(static_cast<size_t>(ix->keylen), '\0');
        ASSERT_EQ(0, ix->fp.minnomiss(ix->ix_private, first.data()));
        auto fit = m.begin();
        while (fit != m.end() && ix->skbp->mt.ismissing(ix->skbp, fit->first.data())) ++fit;
        ASSERT_NE(m.end(), fit);
        EXPECT_EQ(fit->first, first);
        ASSERT_EQ(0, ixclose(ix));
    }
}

// A list of values is the OR of their answers, and two conditions ANDed
// keep the rows of both; segment lists combine the same way.
TEST(IndexScan, ListsOfValuesAndCombinedConditions) {
    Table t;
    ASSERT_NO_FATAL_FAILURE(maketable(&t, 2000, 50, 25, 3, true));
    IX_INDEX_T* ix = nullptr;
    ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
    auto m = keys(t, ix);
    std::vector<std::string> ks;
    for (auto& [k, r] : m) ks.push_back(k);
    std::vector<IX_SEGOP_T> ops;
    for (size_t i = 1; i < ks.size(); i += 6) ops.push_back({nullptr, ks[i].data(), IX_EQ, 0, ix->keylen, nullptr, nullptr});
    IX_SEGSTATS_T st{};
    ASSERT_EQ(0, ix->fp.preseg(ix->ix_private, ops.data(), static_cast<int>(ops.size()), &st));
    int64_t nsegs = hdr(ix)->disk.n_segs;
    Cond ge{IX_GE, ks[ks.size() / 2], "", ""};
    for (int64_t s = 0; s < nsegs; ++s) {
        Rows want, both;
        ix_list_t* acc = nullptr;
        ASSERT_EQ(0, ixgetl(&acc));
        for (auto& op : ops) {
            Cond c{IX_EQ, std::string(static_cast<const char*>(op.value), static_cast<size_t>(ix->keylen)), "", ""};
            Rows b = brute(c, m, s, 50, t.numobs);
            want.insert(b.begin(), b.end());
            op.segment = s * 50 + 1;
            ASSERT_EQ(0, ix->fp.initseg(ix->ix_private, &op, 0, 0));
            ASSERT_EQ(0, ixop(acc, op.list, acc, IX_OR));
        }
        EXPECT_EQ(want, readall(acc));
        if (ops[0].hy_list) {
            EXPECT_EQ(!want.empty(), Isset_segbit(ops[0].hy_list, s) != 0);
        }
        Rows g = brute(ge, m, s, 50, t.numobs);
        for (int64_t r : want)
            if (g.count(r)) both.insert(r);
        ix_list_t* gl = nullptr;
        Rows dummy;
        ASSERT_EQ(0, segrows(ix, ge, s, 50, 0, &gl, &dummy));
        ASSERT_EQ(0, ixop(acc, gl, acc, IX_AND));
        EXPECT_EQ(both, readall(acc));
        ixfreel(gl);
        ixfreel(acc);
    }
    for (auto& op : ops) ixfreel(op.list);
    ixfreel(ops[0].hy_list);
    ASSERT_EQ(0, ixclose(ix));
}

TEST(IndexScan, RefusesBadRequests) {
    Table t;
    ASSERT_NO_FATAL_FAILURE(maketable(&t, 500, 64, 10, 5, false));
    IX_INDEX_T* ix = nullptr;
    EXPECT_EQ(DA_NOTFOUND, ixopen(t.fp, "nosuch", 0, 2, nullptr, &ix));
    EXPECT_EQ(IX_BADOPTS, ixopen(t.fp, "ix", 8, 2, nullptr, &ix));
    ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 2, nullptr, &ix));
    std::string k = keyof(ix, 1.0), k2 = keyof(ix, 0.0);
    void* h = ix->ix_private;
    IX_SEGOP_T op{nullptr, k.data(), IX_EQ, 1, ix->keylen, nullptr, nullptr};
    EXPECT_EQ(IX_INCONSIST, ix->fp.initseg(h, &op, 2, 0)) << "thread number at max_threads";
    EXPECT_EQ(IX_INCONSIST, ix->fp.initseg(h, &op, -1, 0));
    op.segment = 8 * 64 + 1;
    EXPECT_EQ(IX_SEGRANGE, ix->fp.initseg(h, &op, 0, 0));
    op.segment = -5;  // below 1: the first segment
    EXPECT_EQ(0, ix->fp.initseg(h, &op, 0, 0));
    op.v_length = ix->keylen + 1;
    EXPECT_EQ(IX_KEYTOOLONG, ix->fp.initseg(h, &op, 0, 0));
    op.v_length = 0;
    EXPECT_EQ(IX_BADCOMPARE, ix->fp.initseg(h, &op, 0, 0));
    op.v_length = ix->keylen;
    op.op = 9;
    EXPECT_EQ(IX_BADCOMPARE, ix->fp.initseg(h, &op, 0, 0));
    IX_SEGOP_T lo{nullptr, k.data(), IX_LT, 1, ix->keylen, nullptr, nullptr};
    IX_SEGOP_T hi{nullptr, k2.data(), IX_LE, 1, ix->keylen, nullptr, nullptr};
    EXPECT_EQ(IX_BADCOMPARE, ix->fp.pnt(h, &lo, &hi, 0, 0));
    // Low above high: nothing, and no error.
    lo.op = IX_GE;
    ASSERT_EQ(0, ix->fp.pnt(h, &lo, &hi, 0, 0));
    EXPECT_TRUE(readall(lo.list).empty());
    // A value not in the index: no rows, no segments.
    std::string none = keyof(ix, 12345.5);
    IX_SEGOP_T n{nullptr, none.data(), IX_EQ, 1, ix->keylen, nullptr, nullptr};
    IX_SEGSTATS_T st{};
    ASSERT_EQ(0, ix->fp.preseg(h, &n, 1, &st));
    ASSERT_NE(nullptr, n.hy_list);
    EXPECT_EQ(0, ixhasl(n.hy_list));
    EXPECT_EQ(0, st.nvalues);
    ixfreel(n.hy_list);
    ixfreel(op.list);
    ixfreel(lo.list);
    ASSERT_EQ(0, ixclose(ix));
}

namespace {

std::string hbxfile(const std::string& dir) {
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind("t.hbxix.", 0) == 0) found = dir + "/" + e->d_name;
        closedir(d);
    }
    return found;
}

}  // namespace

// A writer at work or dead (header dirty): open with 1282. Rows added after
// the build: the index must be rebuilt. A damaged .hbx: codes, never a wrong row.
TEST(IndexScan, DirtyBehindAndDamagedIndexes) {
    Table t;
    ASSERT_NO_FATAL_FAILURE(maketable(&t, 3000, 64, 30, 9, false));
    std::string path = hbxfile(t.tmp.path());
    ASSERT_FALSE(path.empty());
    std::string orig = vrtatest::readFile(path);
    {
        std::string f = orig;
        int32_t dirty = IX_DIRTY;
        memcpy(f.data() + 20, &dirty, 4);
        vrtatest::writeFile(path, f);
        IX_INDEX_T* ix = nullptr;
        EXPECT_EQ(IX_LEFTDIRTY, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
        ASSERT_NE(nullptr, ix);
        ASSERT_EQ(0, ixclose(ix));
    }
    {
        // Everything behind the header and the first value's slot is garbage.
        std::string f = orig;
        std::mt19937 rng(1);
        for (size_t i = 536 + 8; i < f.size(); ++i) f[i] = static_cast<char>(rng());
        vrtatest::writeFile(path, f);
        IX_INDEX_T* ix = nullptr;
        ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
        auto m = keys(t, ix);
        int bad = 0;
        for (auto& [key, rows] : m) {
            Cond c{IX_EQ, key, "", ""};
            for (int64_t s = 0; s < hdr(ix)->disk.n_segs; ++s) {
                ix_list_t* l = nullptr;
                Rows got;
                rctype rc = segrows(ix, c, s, 64, 0, &l, &got);
                if (rc < 0) {
                    ++bad;
                } else {
                    EXPECT_EQ(brute(c, m, s, 64, t.numobs), got) << "a wrong row from a damaged file";
                }
                ixfreel(l);
            }
        }
        EXPECT_GT(bad, 0);
        ASSERT_EQ(0, ixclose(ix));
        vrtatest::writeFile(path, orig);
    }
    // Rows appended without the index.
    ASSERT_EQ(0, darclos(t.fp));
    t.fp = nullptr;
    DA_OPNSTR o = request("t", DA_OMUPDATE);
    ASSERT_GE(daopen(t.lp, &o, &t.fp), 0);
    auto more = rows(1, 5);
    ASSERT_EQ(0, dawrobs(t.fp, 3001, more.data(), 5));
    ASSERT_EQ(0, darclos(t.fp));
    o = request("t", DA_OMINPUT);
    t.fp = nullptr;
    ASSERT_GE(daopen(t.lp, &o, &t.fp), 0);
    IX_INDEX_T* ix = nullptr;
    EXPECT_EQ(IX_NEEDREPAIR, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
    EXPECT_EQ(nullptr, ix);
}

namespace {

// Every value's rows as the reader gives them, segment by segment.
std::map<std::string, Rows> readback(IX_INDEX_T* ix, const std::map<std::string, Rows>& want, int64_t ss) {
    std::map<std::string, Rows> got;
    int64_t nsegs = hdr(ix)->disk.n_segs;
    for (auto& [key, rows] : want) {
        ix_list_t* l = nullptr;
        for (int64_t s = 0; s < nsegs; ++s) {
            Rows r;
            EXPECT_EQ(0, segrows(ix, Cond{IX_EQ, key, "", ""}, s, ss, 0, &l, &r));
            got[key].insert(r.begin(), r.end());
        }
        ixfreel(l);
    }
    return got;
}

}  // namespace

// The writers' handle: rows added in blocks, then rows appended to the table
// and to the index; what the readers find is the table.
// ---------------------------------------------------------------- global scan

namespace {

// A range of keys as the global scan takes it: lengths below the key's compare leading bytes.
struct GRange {
    std::string lo, hi;  // empty: open
    int lolen = 0, hilen = 0, loop = IX_GE, hiop = IX_LE;
    bool has(const std::string& k) const {
        if (!lo.empty()) {
            int x = memcmp(k.data(), lo.data(), static_cast<size_t>(lolen));
            if (x < 0 || (x == 0 && loop == IX_GT)) return false;
        }
        if (!hi.empty()) {
            int x = memcmp(k.data(), hi.data(), static_cast<size_t>(hilen));
            if (x > 0 || (x == 0 && hiop == IX_LT)) return false;
        }
        return true;
    }
    IX_SEGOP_T end(bool low) const {
        const std::string& v = low ? lo : hi;
        return IX_SEGOP_T{nullptr, v.empty() ? nullptr : v.data(), low ? loop : hiop, 0, low ? lolen : hilen, nullptr,
                          nullptr};
    }
};

GRange randrange(IX_INDEX_T* ix, const std::map<std::string, Rows>& m, std::mt19937& rng) {
    std::vector<std::string> ks;
    for (auto& [k, r] : m) ks.push_back(k);
    auto pick = [&] { return rng() % 5 == 0 ? keyof(ix, static_cast<double>(rng() % 1000) + 0.5) : ks[rng() % ks.size()]; };
    GRange g;
    if (rng() % 4) g.lo = pick();
    if (rng() % 4) g.hi = pick();
    if (!g.lo.empty() && !g.hi.empty() && g.lo > g.hi && rng() % 3) std::swap(g.lo, g.hi);
    // Now and then the leading bytes only.
    g.lolen = rng() % 5 == 0 ? 3 : ix->keylen;
    g.hilen = rng() % 5 == 0 ? 3 : ix->keylen;
    g.loop = rng() % 2 ? IX_GE : IX_GT;
    g.hiop = rng() % 2 ? IX_LE : IX_LT;
    return g;
}

rctype gset(IX_INDEX_T* ix, const GRange& g) {
    return ix->fp.gsetpnt(ix->ix_private, g.lo.empty() ? nullptr : g.lo.data(), g.loop, g.lolen,
                          g.hi.empty() ? nullptr : g.hi.data(), g.hiop, g.hilen, 0);
}

using KeyRows = std::vector<std::pair<std::string, int64_t>>;

KeyRows expected(const std::map<std::string, Rows>& m, const GRange& g, const IX_BOUNDS_T* b) {
    KeyRows out;
    for (auto& [k, rows] : m)
        if (g.has(k))
            for (int64_t r : rows)
                if (!b || (r >= b->first && r <= b->last)) out.emplace_back(k, r);
    return out;
}

// Reads the whole scan by ggetpnt in batches of random size; other work on the
// index's first tree in between (every so often) must not move the scan.
KeyRows readscan(IX_INDEX_T* ix, const IX_BOUNDS_T* b, std::mt19937& rng, const std::string& anykey) {
    KeyRows out;
    size_t kl = static_cast<size_t>(ix->keylen);
    for (int guard = 0; guard < 100000; ++guard) {
        int64_t room = 1 + static_cast<int64_t>(rng() % 40), n = room;
        std::vector<hs_obsno_t> obs(static_cast<size_t>(room));
        std::vector<char> vals(static_cast<size_t>(room) * kl);
        EXPECT_EQ(0, ix->fp.ggetpnt(ix->ix_private, b, vals.data(), obs.data(), &n));
        for (int64_t i = 0; i < n; ++i)
            out.emplace_back(std::string(vals.data() + static_cast<size_t>(i) * kl, kl), obs[static_cast<size_t>(i)]);
        if (n < room) break;
        if (rng() % 3 == 0) {
            int64_t cnt;
            EXPECT_EQ(0, ix->fp.count(ix->ix_private, anykey.data(), 1, &cnt));
        }
    }
    return out;
}

double rowvalue(const Table& t, int64_t r) {
    double d;
    memcpy(&d, t.rows.data() + (r - 1) * ROWLEN, 8);
    return d;
}

}  // namespace

TEST(IndexScan, WritersHandleMakesWhatReadersRead) {
    Table t;
    ASSERT_NO_FATAL_FAILURE(maketable(&t, 1500, 64, 40, 21, false));
    ASSERT_EQ(0, darclos(t.fp));
    DA_OPNSTR o = request("t", DA_OMUTIL);
    t.fp = nullptr;
    ASSERT_GE(daopen(t.lp, &o, &t.fp), 0);
    int32_t col = 1;
    IX_FILE_T* f = nullptr;
    EXPECT_EQ(IX_BADOPTS, ixcreat(t.fp, "w", IX_KHYBRID, 1, &col, nullptr, nullptr, 1, &f)) << "hybrid needs the plain tree";
    EXPECT_EQ(IX_BADOPTS, ixcreat(t.fp, "w", IX_KCONTINUOUS | IX_KPLAIN, 1, &col, nullptr, nullptr, 1, &f));
    EXPECT_EQ(IX_BADOPTS, ixcreat(t.fp, "w", IX_KHYBRID | IX_KPLAIN, 1, &col, nullptr, nullptr, 0, &f));
    // A unique index over values that repeat: the add says so, the abort leaves nothing.
    ASSERT_EQ(0, ixcreat(t.fp, "u", IX_KHYBRID | IX_KPLAIN | IX_KUNIQUE, 1, &col, nullptr, nullptr, 1, &f));
    int64_t n = 1500;
    EXPECT_EQ(IX_DUPKEY, f->fp.add(f, t.rows.data(), 1, &n));
    EXPECT_LT(n, 1500);
    EXPECT_EQ(0, f->fp.abort(f));
    DA_KEYSTR ks{};
    EXPECT_LT(t.fp->mt->queryicb(t.fp, "u", &ks), 0) << "an aborted new index is gone";
    // Rows in blocks of 100.
    ASSERT_EQ(0, ixcreat(t.fp, "w", IX_KHYBRID | IX_KPLAIN, 1, &col, nullptr, nullptr, 2, &f));
    EXPECT_EQ(IX_BADOPTS, f->fp.del(f, t.rows.data(), 1));
    EXPECT_EQ(IX_BADOPTS, f->fp.flush(f, 0));
    for (int64_t r = 1; r <= 1500; r += 100) {
        int64_t k = 100;
        ASSERT_EQ(0, f->fp.add(f, t.rows.data() + (r - 1) * ROWLEN, r, &k));
        EXPECT_EQ(100, k);
    }
    ASSERT_EQ(0, f->fp.finish(f));
    ASSERT_EQ(0, darclos(t.fp));
    o = request("t", DA_OMINPUT);
    t.fp = nullptr;
    ASSERT_EQ(0, daopen(t.lp, &o, &t.fp));
    IX_INDEX_T* ix = nullptr;
    ASSERT_EQ(0, ixopen(t.fp, "w", 0, 1, nullptr, &ix));
    auto want = keys(t, ix);
    EXPECT_EQ(want, readback(ix, want, 64));
    ASSERT_EQ(0, ixclose(ix));
    // 300 rows more, then the index takes them.
    ASSERT_EQ(0, darclos(t.fp));
    o = request("t", DA_OMUPDATE);
    t.fp = nullptr;
    ASSERT_GE(daopen(t.lp, &o, &t.fp), 0);
    std::vector<char> more(300 * ROWLEN);
    for (int i = 0; i < 300; ++i) {
        double d = static_cast<double>(i % 45);
        memcpy(more.data() + i * ROWLEN, &d, 8);
        memcpy(more.data() + i * ROWLEN + 8, "mnopqrstuvwx", 12);
    }
    ASSERT_EQ(0, dawrobs(t.fp, 1501, more.data(), 300));
    t.rows.insert(t.rows.end(), more.begin(), more.end());
    t.numobs = 1800;
    ASSERT_EQ(0, ixappnd(t.fp, "w", 0, nullptr, 1, &f));
    int64_t k = 300;
    ASSERT_EQ(0, f->fp.add(f, more.data(), 1501, &k));
    ASSERT_EQ(0, f->fp.finish(f));
    ASSERT_EQ(0, darclos(t.fp));
    o = request("t", DA_OMINPUT);
    t.fp = nullptr;
    rctype orc = daopen(t.lp, &o, &t.fp);
    DA_KEYSTR wk{};
    ASSERT_EQ(0, t.fp->mt->queryicb(t.fp, "w", &wk));
    // "ix" of the first build is behind now; "w" is up to date again.
    ASSERT_EQ(DA_IDXREBUILD, orc);
    EXPECT_EQ(0u, wk.checks);
    EXPECT_EQ(1800, wk.highobs);
    EXPECT_EQ(IX_NEEDREPAIR, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
    ASSERT_EQ(0, ixopen(t.fp, "w", 0, 1, nullptr, &ix));
    want = keys(t, ix);
    EXPECT_EQ(want, readback(ix, want, 64));
    // Values whose rows now lie in two chunks come back rising through the global scan.
    ASSERT_EQ(0, ix->fp.gsetpnt(ix->ix_private, nullptr, IX_GE, 0, nullptr, IX_LE, 0, 0));
    std::mt19937 rng(5);
    EXPECT_EQ(expected(want, GRange{}, nullptr), readscan(ix, nullptr, rng, want.begin()->first));
    ASSERT_EQ(0, ixclose(ix));
}


// Global scans against the table's rows filtered by brute force: every value
// of a random range in key order with its rows, limits in rows, a value at a
// time as a list and as a span of rows, counts and statistics of the range.
TEST(IndexGlobalScan, MatchesBruteForce) {
    struct Case {
        int64_t rows, segsize;
        int distinct;
        bool deletes;
    };
    bool longrun = getenv("VRTA_LONG") != nullptr;
    std::vector<Case> cases = {{3000, 64, 6, true}, {2500, 32, 3000, true}, {700, 7, 90, true}, {4001, 1000, 40, false}};
    for (size_t ci = 0; ci < cases.size(); ++ci) {
        const Case& k = cases[ci];
        SCOPED_TRACE("case " + std::to_string(ci));
        Table t;
        ASSERT_NO_FATAL_FAILURE(maketable(&t, k.rows, k.segsize, k.distinct, static_cast<unsigned>(ci + 31), k.deletes));
        IX_INDEX_T* ix = nullptr;
        ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 2, nullptr, &ix));
        void* h = ix->ix_private;
        auto m = keys(t, ix);
        int64_t ss = k.segsize;
        std::mt19937 rng(static_cast<unsigned>(ci + 100));
        for (int iter = 0; iter < (longrun ? 200 : 40); ++iter) {
            GRange g = randrange(ix, m, rng);
            SCOPED_TRACE("iteration " + std::to_string(iter));
            IX_BOUNDS_T bounds{};
            const IX_BOUNDS_T* b = nullptr;
            if (rng() % 2) {
                bounds.first = 1 + static_cast<int64_t>(rng() % static_cast<unsigned>(t.numobs));
                bounds.last = bounds.first + static_cast<int64_t>(rng() % static_cast<unsigned>(t.numobs)) - t.numobs / 4;
                b = &bounds;
            }
            KeyRows want = expected(m, g, b);
            ASSERT_EQ(0, gset(ix, g));
            EXPECT_EQ(want, readscan(ix, b, rng, m.begin()->first));
            // Done is done, until the scan is set again.
            int64_t n = 5;
            hs_obsno_t obs[5];
            EXPECT_EQ(0, ix->fp.ggetpnt(h, b, nullptr, obs, &n));
            EXPECT_EQ(0, n);

            // A value at a time as a list, then all that is left at once.
            ASSERT_EQ(0, gset(ix, g));
            KeyRows got;
            ix_list_t* l = nullptr;
            std::string v(static_cast<size_t>(ix->keylen), '\0');
            size_t nvals = std::count_if(m.begin(), m.end(), [&](auto& e) { return g.has(e.first); });
            size_t apart = nvals / 2;
            for (size_t i = 0; i < apart; ++i) {
                ASSERT_EQ(0, ix->fp.ggetlist(h, b, &l, v.data()));
                for (int64_t r : readall(l)) got.emplace_back(v, r);
            }
            rctype rc = ix->fp.ggetlist(h, b, &l, nullptr);
            ASSERT_EQ(apart == nvals ? 1 : 0, rc);
            Rows rest = readall(l), wantrest;
            for (size_t i = got.size(); i < want.size(); ++i) wantrest.insert(want[i].second);
            EXPECT_EQ(KeyRows(want.begin(), want.begin() + static_cast<long>(got.size())), got);
            EXPECT_EQ(wantrest, rest);
            EXPECT_EQ(1, ix->fp.ggetlist(h, b, &l, nullptr)) << "the cursor is at the end afterward";
            EXPECT_FALSE(ixhasl(l));
            ixfreel(l);

            // Spans of rows value by value: exact, and by segments cut to the table.
            ASSERT_EQ(0, ix->fp.gsetrng(h, g.lo.empty() ? nullptr : g.lo.data(), g.loop, g.hi.empty() ? nullptr : g.hi.data(),
                                        g.hiop, ix->keylen));
            GRange whole = g;
            whole.lolen = whole.hilen = ix->keylen;
            for (auto& [key, rows] : m) {
                if (!whole.has(key)) continue;
                hs_obsno_t lo = 0, hi = 0;
                int64_t cnt = 0;
                int obsrange = static_cast<int>(rng() % 2);
                ASSERT_EQ(0, ix->fp.ggetrng(h, obsrange, v.data(), &lo, &hi, &cnt));
                EXPECT_EQ(key, v);
                EXPECT_EQ(static_cast<int64_t>(rows.size()), cnt);
                int64_t a = *rows.begin(), z = *rows.rbegin();
                if (obsrange || rows.size() == 1) {
                    EXPECT_EQ(a, lo);
                    EXPECT_EQ(z, hi);
                } else {
                    EXPECT_EQ((a - 1) / ss * ss + 1, lo);
                    EXPECT_EQ(std::min((z - 1) / ss * ss + ss, t.numobs), hi);
                }
            }
            hs_obsno_t lo, hi;
            int64_t cnt;
            EXPECT_EQ(1, ix->fp.ggetrng(h, 1, nullptr, &lo, &hi, &cnt));

            // Distinct values and statistics of the range.
            IX_SEGOP_T le = g.end(true), he = g.end(false);
            int64_t nd = -1;
            ASSERT_EQ(0, ix->fp.gcount(h, &le, &he, &nd));
            EXPECT_EQ(static_cast<int64_t>(nvals), nd);
            IX_GSCAN gs{};
            gs.stats = IX_GS_MIN | IX_GS_MAX | IX_GS_NMISS | IX_GS_COUNT | IX_GS_COUNTD | IX_GS_SUM | IX_GS_SUMD |
                       IX_GS_USS | IX_GS_USSD;
            ASSERT_EQ(0, ix->fp.gscan(h, &le, &he, &gs));
            int64_t nmiss = 0, count = 0, countd = 0;
            double sum = 0, sumd = 0, uss = 0, ussd = 0, mn = 1e300, mx = -1e300;
            for (auto& [key, rows] : m) {
                if (!g.has(key)) continue;
                if (ix->skbp->mt.ismissing(ix->skbp, key.data())) {
                    nmiss += static_cast<int64_t>(rows.size());
                    continue;
                }
                double d = rowvalue(t, *rows.begin());
                count += static_cast<int64_t>(rows.size());
                ++countd;
                sum += d * static_cast<double>(rows.size());
                uss += d * d * static_cast<double>(rows.size());
                sumd += d;
                ussd += d * d;
                mn = std::min(mn, d);
                mx = std::max(mx, d);
            }
            EXPECT_EQ(nmiss, gs.nmiss);
            EXPECT_EQ(count, gs.count);
            EXPECT_EQ(countd, gs.countd);
            EXPECT_EQ(sum, gs.sum);
            EXPECT_EQ(uss, gs.uss);
            EXPECT_EQ(sumd, gs.sumd);
            EXPECT_EQ(ussd, gs.ussd);
            if (countd) {
                EXPECT_EQ(mn, gs.min);
                EXPECT_EQ(mx, gs.max);
            }
            EXPECT_EQ(0, gs.sumexcp | gs.ussexcp | gs.sumdexcp | gs.ussdexcp);
        }
        ASSERT_EQ(0, ixclose(ix));
    }
}

double huge(int64_t i) { return i % 2 ? 1e308 : -3.0; }

TEST(IndexGlobalScan, RefusesBadRequestsAndFlagsOverflow) {
    Table t;
    ASSERT_NO_FATAL_FAILURE(maketable(&t, 300, 64, 10, 5, false, huge));
    IX_INDEX_T* ix = nullptr;
    ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
    void* h = ix->ix_private;
    std::string k = keyof(ix, -3.0), big = keyof(ix, 1e308);
    hs_obsno_t obs[4];
    int64_t n = 4;
    // Nothing read before a scan is set.
    EXPECT_EQ(0, ix->fp.ggetpnt(h, nullptr, nullptr, obs, &n));
    EXPECT_EQ(0, n);
    const int badlow[] = {IX_EQ, IX_NE, IX_LT, IX_LE, 9}, badhigh[] = {IX_EQ, IX_NE, IX_GT, IX_GE, -1};
    for (int i = 0; i < 5; ++i) {
        int op = badlow[i];
        EXPECT_EQ(IX_BADCOMPARE, ix->fp.gsetpnt(h, k.data(), op, ix->keylen, nullptr, IX_LE, 0, 0));
        EXPECT_EQ(IX_BADCOMPARE, ix->fp.gsetpnt(h, nullptr, IX_GE, 0, k.data(), badhigh[i], ix->keylen, 0));
        IX_SEGOP_T lo{nullptr, k.data(), op, 0, ix->keylen, nullptr, nullptr};
        int64_t c;
        EXPECT_EQ(IX_BADCOMPARE, ix->fp.gcount(h, &lo, nullptr, &c));
    }
    EXPECT_EQ(IX_KEYTOOLONG, ix->fp.gsetpnt(h, k.data(), IX_GE, ix->keylen + 1, nullptr, IX_LE, 0, 0));
    // An empty range gives no rows, and the handle can be set again.
    ASSERT_EQ(0, ix->fp.gsetpnt(h, k.data(), IX_GT, ix->keylen, big.data(), IX_LT, ix->keylen, 0));
    n = 4;
    EXPECT_EQ(0, ix->fp.ggetpnt(h, nullptr, nullptr, obs, &n));
    EXPECT_EQ(0, n);
    ASSERT_EQ(0, ix->fp.gsetpnt(h, big.data(), IX_GE, ix->keylen, nullptr, IX_LE, 0, 0));
    n = 4;
    EXPECT_EQ(0, ix->fp.ggetpnt(h, nullptr, nullptr, obs, &n));
    EXPECT_EQ((std::vector<hs_obsno_t>{2, 4, 6, 8}), std::vector<hs_obsno_t>(obs, obs + n));
    // A one-row value outside the limits isn't returned.
    Table one;
    ASSERT_NO_FATAL_FAILURE(maketable(&one, 100, 16, 1, 1, false, [](int64_t i) { return static_cast<double>(i); }));
    IX_INDEX_T* ox = nullptr;
    ASSERT_EQ(0, ixopen(one.fp, "ix", 0, 1, nullptr, &ox));
    std::string k40 = keyof(ox, 40.0);
    IX_BOUNDS_T b{20, 40};
    ASSERT_EQ(0, ox->fp.gsetpnt(ox->ix_private, k40.data(), IX_GE, 8, nullptr, IX_LE, 0, 0));
    n = 4;
    EXPECT_EQ(0, ox->fp.ggetpnt(ox->ix_private, &b, nullptr, obs, &n));
    EXPECT_EQ(0, n) << "row 41 has value 40";
    EXPECT_EQ(0, ixclose(ox));
    // Sums past the largest double are flagged, the counts stay right.
    IX_GSCAN gs{};
    gs.stats = IX_GS_SUM | IX_GS_USS | IX_GS_SUMD | IX_GS_USSD | IX_GS_COUNT | IX_GS_COUNTD;
    ASSERT_EQ(0, ix->fp.gscan(h, nullptr, nullptr, &gs));
    EXPECT_EQ(1, gs.sumexcp);
    EXPECT_EQ(1, gs.ussexcp);
    EXPECT_EQ(1, gs.ussdexcp);
    EXPECT_EQ(0, gs.sumdexcp);
    EXPECT_EQ(1e308 - 3.0, gs.sumd);
    EXPECT_EQ(300, gs.count);
    EXPECT_EQ(2, gs.countd);
    EXPECT_EQ(0, ixclose(ix));
}

// A reader sees the segments of its header only: while a writer's rows are
// past them, values and rows there are neither handed out nor counted.
TEST(IndexGlobalScan, StopsAtTheReadersSegments) {
    for (int distinct : {6, 3000}) {
        SCOPED_TRACE("distinct " + std::to_string(distinct));
        Table t;
        ASSERT_NO_FATAL_FAILURE(maketable(&t, 2500, 32, distinct, 77, false));
        IX_INDEX_T* ix = nullptr;
        ASSERT_EQ(0, ixopen(t.fp, "ix", 0, 1, nullptr, &ix));
        auto m = keys(t, ix);
        // As if the header had been read before the last segments were written.
        int32_t seen = hdr(ix)->disk.n_segs / 2;
        hdr(ix)->disk.n_segs = seen;
        std::map<std::string, Rows> vis;
        for (auto& [k, rows] : m)
            for (int64_t r : rows)
                if ((r - 1) / 32 < seen) vis[k].insert(r);
        ASSERT_EQ(0, ix->fp.gsetpnt(ix->ix_private, nullptr, IX_GE, 0, nullptr, IX_LE, 0, 0));
        std::mt19937 rng(3);
        EXPECT_EQ(expected(vis, GRange{}, nullptr), readscan(ix, nullptr, rng, m.begin()->first));
        int64_t nd = -1;
        ASSERT_EQ(0, ix->fp.gcount(ix->ix_private, nullptr, nullptr, &nd));
        EXPECT_EQ(static_cast<int64_t>(vis.size()), nd);
        IX_GSCAN gs{};
        gs.stats = IX_GS_COUNT | IX_GS_NMISS | IX_GS_COUNTD;
        ASSERT_EQ(0, ix->fp.gscan(ix->ix_private, nullptr, nullptr, &gs));
        int64_t rows = 0;
        for (auto& [k, r] : vis) rows += static_cast<int64_t>(r.size());
        EXPECT_EQ(rows, gs.count + gs.nmiss);
        ASSERT_EQ(0, ix->fp.gsetrng(ix->ix_private, nullptr, IX_GE, nullptr, IX_LE, 0));
        for (auto& [k, r] : vis) {
            hs_obsno_t lo, hi;
            int64_t n;
            ASSERT_EQ(0, ix->fp.ggetrng(ix->ix_private, 1, nullptr, &lo, &hi, &n));
            EXPECT_EQ(static_cast<int64_t>(r.size()), n);
            EXPECT_EQ(*r.rbegin(), hi);
        }
        ASSERT_EQ(0, ixclose(ix));
    }
}

// Seeded random traffic through cursors against a model kept here: appends,
// updates, deletes and reads by row number, with reopens on the way, for
// plain, compressed and encrypted tables.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "curutil.h"
#include "testutil.h"

using namespace vrta;
using namespace curtest;

namespace {

// Operations per table kind. Under the sanitizers every block conversion is
// many times slower, so the counts there are cut to keep the suite short.
#if defined(__SANITIZE_ADDRESS__)
constexpr long OPSPLAIN = 80000, OPSCOMP = 40000, OPSCRYPT = 12000, OPSFORM = 30000;
#else
constexpr long OPSPLAIN = 300000, OPSCOMP = 300000, OPSCRYPT = 100000, OPSFORM = 200000;
#endif
constexpr long BUF = 64;

struct Model {
    std::vector<uint32_t> var;
    std::vector<char> del;
    hs_obsno_t n() const { return static_cast<hs_obsno_t>(var.size()); }
};

void runmodel(const Kind& k, uint32_t seed, long ops) {
    vrtatest::TempDir tmp;
    DA_LIB* lp = lifetest::assign(tmp.path());
    DA_FID* fp = make(lp, "model", k);
    ASSERT_NE(nullptr, fp);
    Model m;
    {
        Cur w(fp, DA_IOMBYROW, 500);
        for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(0, w.write(m.n() + 1, 500, i % 2));
            for (int j = 0; j < 500; ++j) m.var.push_back(i % 2), m.del.push_back(0);
        }
    }
    ASSERT_EQ(0, darclos(fp));

    std::mt19937 rng(seed);
    auto pick = [&](hs_obsno_t lo, hs_obsno_t hi) {
        return std::uniform_int_distribution<hs_obsno_t>(lo, hi)(rng);
    };
    long done = 0;
    while (done < ops) {
        fp = reopen(lp, "model", DA_OMUPDATE, k);
        ASSERT_NE(nullptr, fp);
        {
            Cur w(fp, DA_IOMBYROW | DA_IOMRANDOM | DA_IOMLIVE, BUF);
            Cur r(fp, DA_IOMBYROW | DA_IOMRANDOM, BUF);
            for (long step = 0; step < ops / 4 + 1 && done < ops; ++step, ++done) {
                int op = static_cast<int>(pick(0, 99));
                if (op < 30) {
                    hs_obsno_t at = pick(1, m.n());
                    long cnt = static_cast<long>(pick(1, std::min<hs_obsno_t>(BUF, m.n() - at + 1)));
                    uint32_t v = static_cast<uint32_t>(pick(0, 3)) * 50;  // 0 and 50 compress, 100 and 150 do not
                    ASSERT_EQ(0, w.write(at, cnt, v, at)) << "update at " << at;
                    for (long i = 0; i < cnt; ++i) m.var[at - 1 + i] = v;
                } else if (op < 40) {
                    long cnt = static_cast<long>(pick(1, BUF));
                    uint32_t v = static_cast<uint32_t>(pick(0, 3)) * 50;  // 0 and 50 compress, 100 and 150 do not
                    ASSERT_EQ(0, w.write(m.n() + 1, cnt, v, m.n() + 1)) << "append";
                    for (long i = 0; i < cnt; ++i) m.var.push_back(v), m.del.push_back(0);
                } else if (op < 48) {
                    hs_obsno_t at = pick(1, m.n());
                    ASSERT_EQ(0, fp->mt->delobs(fp, at)) << "delete " << at;
                    m.del[at - 1] = 1;
                } else {
                    hs_obsno_t at = pick(1, m.n());
                    r.iob[0].locator = at;
                    rctype rc = r.read();
                    std::vector<hs_obsno_t> want;
                    for (hs_obsno_t o = at; o <= m.n() && static_cast<long>(want.size()) < BUF; ++o)
                        if (!m.del[o - 1]) want.push_back(o);
                    if (want.empty()) {
                        ASSERT_EQ(DA_EOF, rc) << "read at " << at;
                        continue;
                    }
                    ASSERT_EQ(0, rc) << "read at " << at;
                    ASSERT_EQ(static_cast<long>(want.size()), r.iob[0].numobs) << "read at " << at;
                    for (size_t i = 0; i < want.size(); ++i) {
                        ASSERT_EQ(want[i], r.iob[0].obsvec[i]);
                        char row[ROWLEN];
                        makerow(want[i], m.var[want[i] - 1], row);
                        ASSERT_EQ(0, memcmp(row, r.row(0, static_cast<long>(i)), ROWLEN)) << "row " << want[i];
                    }
                }
            }
        }
        ASSERT_EQ(0, darclos(fp));
    }

    // Everything once more through a fresh reader that keeps deleted rows.
    fp = reopen(lp, "model", DA_OMINPUT, k);
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(m.n(), fp->xoehdr->numobs);
    {
        Cur r(fp, DA_IOMBYROW | DA_IOMDELETED, 1000);
        hs_obsno_t next = 1;
        while (r.read() == 0) {
            for (long i = 0; i < r.iob[0].numobs; ++i, ++next) {
                char row[ROWLEN];
                makerow(next, m.var[next - 1], row);
                ASSERT_EQ(0, memcmp(row, r.row(0, i), ROWLEN)) << "row " << next;
            }
        }
        EXPECT_EQ(m.n() + 1, next);
    }
    ASSERT_EQ(0, darclos(fp));
    EXPECT_EQ(0, dafrlib(lp));
}

}  // namespace

TEST(CursorModel, PlainRowsFollowTheModel) { runmodel({nullptr, false}, 11, OPSPLAIN); }
TEST(CursorModel, CompressedRowsFollowTheModel) { runmodel({"VRTARLC2", false}, 12, OPSCOMP); }
TEST(CursorModel, EncryptedRowsFollowTheModel) { runmodel({"VRTACRYP", true}, 13, OPSCRYPT); }
TEST(CursorModel, EncodedRowsFollowTheModel) { runmodel({nullptr, false, DA_SEMZCRYPT}, 14, OPSFORM); }
TEST(CursorModel, TransferRowsFollowTheModel) { runmodel({nullptr, false, DA_SEMDATA, 1000}, 15, OPSFORM); }

// Rows through an index with the row pointer cursor: key ranges walked in
// key order against a brute force over the table's live rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "sda/darc.h"
#include "sda/dafid.h"
#include "testutil.h"
#include "vrta/directapi.h"

namespace {

using namespace vrta;

constexpr int ROWLEN = 28;  // ID, K: numbers; NAME: 12 characters
constexpr int64_t NROWS = 8192 * 2 + 700;  // three index segments, the last one short

double keyof(int64_t id) { return static_cast<double>((id * 7919) % 613); }

void makerow(int64_t id, char* out) {
    double d = static_cast<double>(id), k = keyof(id);
    std::memcpy(out, &d, 8);
    std::memcpy(out + 8, &k, 8);
    char t[16];
    std::snprintf(t, sizeof t, "r%011lld", static_cast<long long>(id));
    std::memcpy(out + 16, t, 12);
}

int64_t idof(const char* row) {
    double d;
    std::memcpy(&d, row, 8);
    return static_cast<int64_t>(d);
}

const VRTACOLDEF COLS[] = {{"ID", -1, nullptr, 0, 1, 8}, {"K", -1, nullptr, 0, 1, 8}, {"NAME", -1, nullptr, 0, 2, 12}};

struct SpIx : ::testing::Test {
    vrtatest::TempDir dir;
    void* lib = nullptr;
    void* fid = nullptr;
    std::vector<bool> deleted = std::vector<bool>(NROWS + 1, false);

    void SetUp() override {
        ASSERT_EQ(0, splasgn(dir.path().c_str(), &lib));
        VRTACREATE cr{};
        cr.ncols = 3;
        cr.cols = COLS;
        ASSERT_EQ(0, vrtacreate(lib, "T", -1, &cr, &fid));
        std::vector<char> buf(1000 * ROWLEN);
        void* io = nullptr;
        ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io));
        for (int64_t r = 1; r <= NROWS; r += 1000) {
            long k = static_cast<long>(std::min<int64_t>(1000, NROWS - r + 1));
            for (long i = 0; i < k; ++i) makerow(r + i, buf.data() + i * ROWLEN);
            ASSERT_EQ(0, spwritev(io, k));
        }
        ASSERT_EQ(0, spfreeio(io));
        ASSERT_EQ(0, vrtaclose(fid));
        fid = nullptr;
        int32_t col = 2;
        VRTAINDEXDEF def{};
        def.name = "IK";
        def.ncols = 1;
        def.cols = &col;
        ASSERT_EQ(0, vrtaidxcreate(lib, "T", -1, &def));
        // Rows deleted behind the index's back: it still names them.
        ASSERT_EQ(0, vrtaupdate(lib, "T", -1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
        DA_FID* fp = nullptr;
        ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_FID, &fp));
        for (int64_t r = 3; r <= NROWS; r += 37) {
            ASSERT_EQ(0, dadodmp(fp, r));
            deleted[static_cast<size_t>(r)] = true;
        }
        ASSERT_EQ(0, vrtaclose(fid));
        ASSERT_EQ(0, vrtaopen(lib, "T", -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    }
    void TearDown() override {
        if (fid) {
            EXPECT_EQ(0, vrtaclose(fid));
        }
        EXPECT_EQ(0, spldeasgn(lib));
    }

    // Live rows of [first, last] whose key lies in the range, by key then row.
    std::vector<int64_t> brute(const double* lo, bool loex, const double* hi, bool hiex, int64_t first = 1,
                               int64_t last = NROWS) {
        std::vector<std::pair<double, int64_t>> v;
        for (int64_t r = std::max<int64_t>(first, 1); r <= std::min(last, NROWS); r++) {
            double k = keyof(r);
            if (deleted[static_cast<size_t>(r)] || (lo && (loex ? k <= *lo : k < *lo)) ||
                (hi && (hiex ? k >= *hi : k > *hi)))
                continue;
            v.emplace_back(k, r);
        }
        std::sort(v.begin(), v.end());
        std::vector<int64_t> ids;
        for (auto& p : v) ids.push_back(p.second);
        return ids;
    }
};

// Every row the cursor gives, each checked whole and against its number.
std::vector<int64_t> drain(void* pnt, long per, bool list = false, void* bitmap = nullptr) {
    std::vector<int64_t> ids;
    std::vector<char> buf(static_cast<size_t>(per) * ROWLEN);
    for (int guard = 0; guard < 100000; guard++) {
        long n = -1;
        int rc = list ? spptreadlist(pnt, bitmap, buf.data(), &n) : spptget(pnt, buf.data(), &n);
        if (rc == VRTA_RC_NOMORE) {
            EXPECT_EQ(0, n);
            break;
        }
        EXPECT_EQ(0, rc);
        if (rc != 0) break;
        EXPECT_GE(n, 1);
        EXPECT_LE(n, per);
        int64_t* ov = nullptr;
        EXPECT_EQ(0, spptinfo(pnt, SP_PTOBSVEC, &ov));
        for (long i = 0; i < n; i++) {
            const char* row = buf.data() + i * ROWLEN;
            char want[ROWLEN];
            makerow(idof(row), want);
            EXPECT_EQ(0, std::memcmp(row, want, ROWLEN));
            EXPECT_EQ(ov[i], idof(row));
            ids.push_back(idof(row));
        }
    }
    return ids;
}

TEST_F(SpIx, IndexesOpenByNameAndDescribeThemselves) {
    SPIXINFO info;
    ASSERT_EQ(0, spixinfo(fid, 0, &info));
    EXPECT_EQ(std::string("IK"), std::string(info.name, info.name_l));
    EXPECT_EQ(1, info.nvars);
    EXPECT_EQ(2, info.nvar0[0]);
    EXPECT_EQ(8, info.keylen);
    EXPECT_EQ(DA_BADARG, spixinfo(fid, 1, &info));
    EXPECT_EQ(DA_BADARG, spixinfo(fid, -1, &info));

    void* ix = nullptr;
    EXPECT_EQ(DA_NOTFOUND, spixopen(fid, "NOPE", -1, 0, &ix));
    EXPECT_EQ(nullptr, ix);
    EXPECT_EQ(DA_BADARG, spixopen(fid, "IKXX", 0, 0, &ix));
    ASSERT_EQ(0, spixopen(fid, "IKXX", 2, 1, &ix));
    EXPECT_EQ(0, spixsync(ix));
    char row[ROWLEN], key[8], key2[8];
    makerow(5, row);
    ASSERT_EQ(0, spixkey(ix, row, key));
    makerow(6, row);
    ASSERT_EQ(0, spixkey(ix, row, key2));
    // Keys order as the values do.
    EXPECT_EQ(keyof(5) < keyof(6), std::memcmp(key, key2, 8) < 0);
    EXPECT_EQ(0, spixclose(ix));
}

TEST_F(SpIx, RangesComeInKeyOrderWithoutDeletedRows) {
    void* ix = nullptr;
    ASSERT_EQ(0, spixopen(fid, "IK", -1, 0, &ix));
    void* pnt = nullptr;
    ASSERT_EQ(0, spnewpt(fid, 7 * (ROWLEN + 8), 0, 0, &pnt));
    std::vector<char> buf(7 * ROWLEN);
    long n = -1;
    EXPECT_EQ(VRTA_RC_NOMORE, spptget(pnt, buf.data(), &n));  // nothing set yet
    std::mt19937 rng(22);
    char row[ROWLEN], lk[8], hk[8];
    for (int round = 0; round < 12; round++) {
        double lo = std::uniform_int_distribution<int>(-5, 615)(rng);
        double hi = lo + std::uniform_int_distribution<int>(-2, 40)(rng);
        bool loex = rng() & 1, hiex = rng() & 1;
        bool loopen = round % 5 == 3, hiopen = round % 5 == 4;
        if (round == 0) loopen = hiopen = true;
        std::memcpy(row + 8, &lo, 8);
        ASSERT_EQ(0, spixkey(ix, row, lk));
        std::memcpy(row + 8, &hi, 8);
        ASSERT_EQ(0, spixkey(ix, row, hk));
        SP_VALUE l{lk, 8, loex ? SP_IXGT : SP_IXGE}, h{hk, 8, hiex ? SP_IXLT : SP_IXLE};
        ASSERT_EQ(0, spptset(pnt, ix, loopen ? nullptr : &l, hiopen ? nullptr : &h));
        std::vector<int64_t> want = brute(loopen ? nullptr : &lo, loex, hiopen ? nullptr : &hi, hiex);
        std::vector<int64_t> got = drain(pnt, 7);
        ASSERT_EQ(want, got) << "round " << round << " lo " << lo << " hi " << hi;
        int64_t rows = -1, dropped = -1;
        int32_t eof = 0;
        EXPECT_EQ(0, spptinfo(pnt, SP_PTROWS, &rows));
        EXPECT_EQ(0, spptinfo(pnt, SP_PTDROPPED, &dropped));
        EXPECT_EQ(0, spptinfo(pnt, SP_PTEOF, &eof));
        EXPECT_EQ(static_cast<int64_t>(want.size()), rows);
        EXPECT_EQ(1, eof);
        // The deleted rows of the range were named by the index and passed over.
        std::vector<int64_t> withdel;
        int64_t ndel = 0;
        for (int64_t r = 1; r <= NROWS; r++) {
            double k = keyof(r);
            bool in = (loopen || (loex ? k > lo : k >= lo)) && (hiopen || (hiex ? k < hi : k <= hi));
            if (in && deleted[static_cast<size_t>(r)]) ndel++;
        }
        EXPECT_EQ(ndel, dropped);
        // Exhausted: stays so.
        EXPECT_EQ(VRTA_RC_NOMORE, spptget(pnt, buf.data(), &n));
        EXPECT_EQ(0, n);
    }
    // Relations the wrong way round are refused by the index.
    SP_VALUE bad{lk, 8, SP_IXLT};
    EXPECT_LT(spptset(pnt, ix, &bad, nullptr), 0);
    EXPECT_EQ(0, spfreept(pnt));
    EXPECT_EQ(0, spixclose(ix));
}

TEST_F(SpIx, RowBoundsMarksAndListsAgreeWithTheScan) {
    void* ix = nullptr;
    ASSERT_EQ(0, spixopen(fid, "IK", -1, 0, &ix));
    char row[ROWLEN], lk[8], hk[8];
    double lo = 100, hi = 160;
    std::memcpy(row + 8, &lo, 8);
    ASSERT_EQ(0, spixkey(ix, row, lk));
    std::memcpy(row + 8, &hi, 8);
    ASSERT_EQ(0, spixkey(ix, row, hk));
    SP_VALUE l{lk, 8, SP_IXGE}, h{hk, 8, SP_IXLT};

    // Rows 5000..12000 only: the bounds cut inside the first two segments.
    void* pnt = nullptr;
    ASSERT_EQ(0, spnewpt(fid, 64 * (ROWLEN + 8), 5000, 12000, &pnt));
    ASSERT_EQ(0, spptset(pnt, ix, &l, &h));
    std::vector<int64_t> want = brute(&lo, false, &hi, true, 5000, 12000);
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(want, drain(pnt, 64));

    // From a row in the middle of the key order, and from one not in the range.
    int64_t mark = want[want.size() / 3];
    ASSERT_EQ(0, spptmark(pnt, ix, &l, &h, mark));
    EXPECT_EQ(std::vector<int64_t>(want.begin() + static_cast<long>(want.size() / 3), want.end()), drain(pnt, 64));
    int64_t outside = 5001;
    while (keyof(outside) >= lo && keyof(outside) < hi) outside++;
    ASSERT_EQ(0, spptmark(pnt, ix, &l, &h, outside));
    EXPECT_TRUE(drain(pnt, 64).empty());

    // The whole range as one list: the same rows in row order.
    ASSERT_EQ(0, spptset(pnt, ix, &l, &h));
    void* bitmap = nullptr;
    ASSERT_EQ(0, spptgetlist(pnt, &bitmap));
    ASSERT_NE(nullptr, bitmap);
    std::vector<int64_t> sorted = want;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, drain(pnt, 64, true, bitmap));
    // The cursor is at the end of its range afterwards.
    ASSERT_EQ(0, spptgetlist(pnt, &bitmap));
    EXPECT_TRUE(drain(pnt, 64, true, bitmap).empty());
    EXPECT_EQ(0, spfreept(pnt));
    EXPECT_EQ(0, spixclose(ix));
}

}  // namespace

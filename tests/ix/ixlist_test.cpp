// Row lists against std::set: AND, OR, XOR and NOT on random lists with
// empty, full and sparse segments, some of them left in their stored forms
// in a file until needed; counting and reading back in batches of every size.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ix/ixlist.h"
#include "ixrows.h"
#include "sda/daidx.h"
#include "testutil.h"

using namespace vrta;

namespace {

using Rows = std::set<int64_t>;

// A file of stored segments, each written in a form chosen for it.
struct Store {
    vrtatest::TempDir dir;
    DA_IDX* ip = nullptr;
    da_off_t at = 0;
    Store() {
        std::string path = dir.path() + "/bits";
        EXPECT_EQ(0, daopidxf(path.c_str(), 1 | 4, &ip));
        char pad[64] = {};
        EXPECT_EQ(0, ip->mt->writeidx(ip, pad, sizeof pad, 0));  // nothing is stored at offset 0
        at = sizeof pad;
    }
    ~Store() {
        if (ip) {
            EXPECT_EQ(0, ip->mt->closeidx(ip, 0));
        }
    }
    da_off_t put(const void* p, int64_t n) {
        EXPECT_EQ(0, ip->mt->writeidx(ip, p, static_cast<long>(n), at));
        da_off_t where = at;
        at += n;
        return where;
    }
};

// The rows of one segment into l, as a bitmap built by ixadnum or stored in a form.
void putseg(ix_list_t* l, Store* st, const std::vector<int64_t>& rows, int64_t base, int64_t ss, int form) {
    if (rows.empty()) return;
    if (!st || form == 0) {
        for (int64_t r : rows) ASSERT_EQ(0, ixadnum(l, r, ss));
        return;
    }
    IX_BITMAP_SEGMENT_D d{};
    d.base = base;
    if (rows.size() == 1 && form == 1) {
        d.cpr_t = Bm_One_Bit_Set;
        d.data = rows[0];
    } else if (form == 2 && rows.size() <= 4) {  // stored lists are short
        d.cpr_t = Bm_Bit_List;
        d.data = static_cast<int64_t>(rows.size()) * 8;
        d.segment_loc = st->put(rows.data(), d.data);
    } else {
        uint32_t* bm;
        int32_t size = bm_alloc_bitmap(ss, &bm);
        for (int64_t r : rows) bm_set_bit(bm, base, r);
        std::vector<char> cpr(static_cast<size_t>(size));
        int32_t t = 0;
        int32_t n = bm_compress(bm, cpr.data(), size, base, 0, 0, &t);
        if (t == Bm_Compression_1) {
            d.cpr_t = t;
            d.data = n;
            d.segment_loc = st->put(cpr.data(), n);
        } else {
            d.cpr_t = Bm_Not_Compressed;
            d.data = size;
            d.segment_loc = st->put(bm, size);
        }
        free(bm);
    }
    ASSERT_EQ(0, ixaddseg(l, d));
}

// A random set over nseg segments: each empty, full, sparse or dense.
Rows randomrows(std::mt19937& rng, int64_t nseg, int64_t ss, int64_t numobs) {
    Rows s;
    for (int64_t g = 0; g < nseg; ++g) {
        int64_t base = g * ss + 1;
        switch (rng() % 5) {
        case 0:
            break;
        case 1:
            for (int64_t r = base; r < base + ss && r <= numobs; ++r) s.insert(r);
            break;
        case 2:
            s.insert(base + static_cast<int64_t>(rng() % ss));
            break;
        case 3:
            for (int i = 0; i < 3; ++i) s.insert(base + static_cast<int64_t>(rng() % ss));
            break;
        default:
            for (int64_t r = base; r < base + ss; ++r)
                if (rng() % 3 == 0) s.insert(r);
            break;
        }
    }
    for (auto it = s.begin(); it != s.end();) it = *it > numobs ? s.erase(it) : std::next(it);
    return s;
}

ix_list_t* makelist(const Rows& s, int64_t ss, Store* st, std::mt19937& rng) {
    ix_list_t* l = nullptr;
    EXPECT_EQ(0, ixgetl(&l));
    ixbindl(l, st ? st->ip : nullptr, ss);
    std::vector<int64_t> seg;
    int64_t base = -1;
    auto flush = [&] {
        putseg(l, st, seg, base, ss, static_cast<int>(rng() % 4));
        seg.clear();
    };
    for (int64_t r : s) {
        int64_t b = (r - 1) / ss * ss + 1;
        if (b != base) flush();
        base = b;
        seg.push_back(r);
    }
    flush();
    return l;
}

using ixtest::readall;

Rows model(const Rows& a, const Rows& b, int op) {
    Rows r;
    for (int64_t x : a)
        if ((op == IX_AND && b.count(x)) || op == IX_OR || (op == IX_XOR && !b.count(x))) r.insert(x);
    if (op != IX_AND)
        for (int64_t x : b)
            if (!a.count(x)) r.insert(x);
    return r;
}

// No segment of a list is empty: an empty one must never stay.
void noemptysegments(ix_list_t* l) {
    for (IX_BITMAP_SEGMENT_R* s = l->head.next; s; s = s->next) {
        ix_list_t one{};
        one.segsize = l->segsize;
        one.iid = l->iid;
        one.head.next = s;
        IX_BITMAP_SEGMENT_R* keep = s->next;
        s->next = nullptr;
        int64_t c = -1;
        EXPECT_EQ(0, ixcntl(&one, &c));
        EXPECT_GT(c, 0) << "empty segment at " << s->disk.base;
        s->next = keep;
    }
}

}  // namespace

TEST(RowList, AlgebraMatchesSets) {
    std::mt19937 rng(11);
    int rounds = getenv("VRTA_LONG") ? 400 : 60;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int64_t ss = std::vector<int64_t>{1, 31, 32, 33, 64, 100, 1000}[rng() % 7];
        int64_t nseg = 1 + static_cast<int64_t>(rng() % 6);
        int64_t numobs = nseg * ss - static_cast<int64_t>(rng() % ss);
        Store st;
        Rows a = randomrows(rng, nseg, ss, numobs), b = randomrows(rng, nseg, ss, numobs);
        for (int op : {IX_AND, IX_OR, IX_XOR}) {
            Rows want = model(a, b, op);
            // r apart from both, r the first operand, r the second.
            for (int shape = 0; shape < 3; ++shape) {
                ix_list_t* la = makelist(a, ss, rng() % 2 ? &st : nullptr, rng);
                ix_list_t* lb = makelist(b, ss, rng() % 2 ? &st : nullptr, rng);
                ix_list_t* lr = nullptr;
                ASSERT_EQ(0, ixgetl(&lr));
                ix_list_t* r = shape == 0 ? lr : shape == 1 ? la : lb;
                ASSERT_EQ(0, ixop(la, lb, r, op)) << "op " << op << " shape " << shape;
                int64_t count = -1;
                ASSERT_EQ(0, ixcntl(r, &count));
                EXPECT_EQ(static_cast<int64_t>(want.size()), count);
                EXPECT_EQ(want, readall(r, 1 + static_cast<int64_t>(rng() % 70)));
                noemptysegments(r);
                if (shape == 0) {
                    // The operands are as they were.
                    ixrwndl(la);
                    ixrwndl(lb);
                    EXPECT_EQ(a, readall(la, 1000));
                    EXPECT_EQ(b, readall(lb, 7));
                }
                ixfreel(la);
                ixfreel(lb);
                ixfreel(lr);
            }
        }
        // NOT of each segment, never past the table's last row.
        int64_t segno = static_cast<int64_t>(rng() % nseg);
        Rows one;
        for (int64_t x : a)
            if ((x - 1) / ss == segno) one.insert(x);
        Rows want;
        for (int64_t r = segno * ss + 1; r <= std::min((segno + 1) * ss, numobs); ++r)
            if (!one.count(r)) want.insert(r);
        ix_list_t* l = makelist(one, ss, &st, rng);
        ASSERT_EQ(0, ixunary(l, l, IX_NOT, segno, ss, numobs));
        EXPECT_EQ(want, readall(l, 5));
        noemptysegments(l);
        ixfreel(l);
    }
}

TEST(RowList, CursorAndArguments) {
    ix_list_t* l = nullptr;
    ASSERT_EQ(0, ixgetl(&l));
    hs_obsno_t buf[8];
    int64_t n = 8;
    EXPECT_EQ(1, ixrtrve(l, buf, &n));  // no segment: the end, no rows
    EXPECT_EQ(0, n);
    EXPECT_EQ(0, ixhasl(l));
    ASSERT_EQ(0, ixadnum(l, 5, 32));
    ASSERT_EQ(0, ixadnum(l, 64, 32));
    ASSERT_EQ(0, ixadnum(l, 65, 32));
    ixrwndl(l);
    EXPECT_EQ(1, ixadnum(l, 3, 16)) << "another segment size";
    EXPECT_EQ(1, ixadnum(l, 0, 32));
    n = 0;
    EXPECT_EQ(0, ixrtrve(l, buf, &n));  // n 0 returns at once
    EXPECT_EQ(0, n);
    n = 2;
    EXPECT_EQ(0, ixrtrve(l, buf, &n));
    ASSERT_EQ(2, n);
    EXPECT_EQ(5, buf[0]);
    EXPECT_EQ(64, buf[1]);
    n = 8;
    EXPECT_EQ(1, ixrtrve(l, buf, &n));
    ASSERT_EQ(1, n);
    EXPECT_EQ(65, buf[0]);
    n = 8;
    EXPECT_EQ(1, ixrtrve(l, buf, &n)) << "read out: a second read needs a rewind";
    EXPECT_EQ(0, n);
    ixrwndl(l);
    n = 8;
    EXPECT_EQ(1, ixrtrve(l, buf, &n));
    EXPECT_EQ(3, n);
    // The last row of a word and of a segment, read one at a time.
    ixclearl(l);
    for (hs_obsno_t r : {32, 33, 64}) ASSERT_EQ(0, ixadnum(l, r, 32));
    ixrwndl(l);
    std::vector<hs_obsno_t> got;
    for (int i = 0; i < 10; ++i) {
        n = 1;
        rctype rc = ixrtrve(l, buf, &n);
        if (n) got.push_back(buf[0]);
        if (rc) break;
    }
    EXPECT_EQ((std::vector<hs_obsno_t>{32, 33, 64}), got);
    // AND of lists that share a segment but no row leaves no segment.
    ix_list_t* b = nullptr;
    ASSERT_EQ(0, ixgetl(&b));
    ASSERT_EQ(0, ixadnum(b, 34, 32));
    ASSERT_EQ(0, ixop(l, b, l, IX_AND));
    EXPECT_EQ(0, ixhasl(l));
    EXPECT_EQ(1, ixop(l, b, nullptr, IX_AND));
    EXPECT_EQ(1, ixop(l, b, l, IX_NOT));
    ix_list_t* big = nullptr;
    ASSERT_EQ(0, ixgetl(&big));
    ASSERT_EQ(0, ixadnum(big, 1, 64));
    EXPECT_EQ(1, ixop(big, b, big, IX_OR)) << "segment sizes differ";
    ixfreel(big);
    // NOT of an empty list: one whole segment, cut at the last row.
    ixclearl(b);
    ASSERT_EQ(0, ixunary(b, b, IX_NOT, 1, 32, 40));
    int64_t c = 0;
    ASSERT_EQ(0, ixcntl(b, &c));
    EXPECT_EQ(8, c);
    ixfreel(b);
    ixfreel(l);
}

// A stored list whose rows leave their segment is damage: a code, no row.
TEST(RowList, DamagedStoredSegmentGivesCode) {
    Store st;
    std::vector<int64_t> rows = {3, 9, 200};  // 200 is past a segment of 32
    IX_BITMAP_SEGMENT_D d{st.put(rows.data(), 24), 1, 24, Bm_Bit_List};
    ix_list_t* l = nullptr;
    ASSERT_EQ(0, ixgetl(&l));
    ixbindl(l, st.ip, 32);
    ASSERT_EQ(0, ixaddseg(l, d));
    hs_obsno_t buf[8];
    int64_t n = 8;
    EXPECT_EQ(IX_INCONSIST, ixrtrve(l, buf, &n));
    EXPECT_EQ(IX_INCONSIST, ixunary(l, l, IX_NOT, 0, 32, 100));
    int64_t c;
    // A stored form past the file's end.
    ixclearl(l);
    IX_BITMAP_SEGMENT_D far{1 << 20, 1, 4, Bm_Not_Compressed};
    ASSERT_EQ(0, ixaddseg(l, far));
    EXPECT_LT(ixcntl(l, &c), 0);
    ixfreel(l);
}

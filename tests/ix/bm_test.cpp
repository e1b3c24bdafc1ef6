// Segment bitmaps: sizes, bits, counts, and every stored form back to the
// map it came from, at the segment's edges and at the compressor's limits.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ix/bm.h"

using namespace vrta;

namespace {

std::vector<uint32_t> roundtrip(const std::vector<uint32_t>& map, hs_obsno_t base, int32_t* type, int32_t* len) {
    int32_t size = static_cast<int32_t>(map.size() * 4);
    std::vector<char> cpr(size + 8, 'x');
    *len = bm_compress(map.data(), cpr.data(), size, base, 0, 0, type);
    std::vector<uint32_t> back(map.size(), 0xdeadbeef);
    if (*type == Bm_Compression_1) {
        EXPECT_LT(*len, size);
        EXPECT_EQ(0, bm_uncompress(back.data(), size, Bm_Compression_1, cpr.data(), *len, base, 0));
        // Into a cleared map too.
        std::vector<uint32_t> zero(map.size(), 0);
        EXPECT_EQ(0, bm_uncompress(zero.data(), size, Bm_Compression_1, cpr.data(), *len, base, 1));
        EXPECT_EQ(map, zero);
    } else {
        EXPECT_EQ(0, bm_uncompress(back.data(), size, Bm_Not_Compressed, map.data(), size, base, 0));
    }
    return back;
}

}  // namespace

TEST(SegmentBitmap, SizesBitsAndCounts) {
    EXPECT_EQ(4, bm_bitmap_size(1));
    EXPECT_EQ(4, bm_bitmap_size(32));
    EXPECT_EQ(8, bm_bitmap_size(33));
    EXPECT_EQ(1024, bm_bitmap_size(8192));
    EXPECT_EQ(0, bm_mincpr(0));
    EXPECT_EQ(2, bm_mincpr(4));
    EXPECT_EQ(2, bm_mincpr(256));
    EXPECT_EQ(4, bm_mincpr(257));
    uint32_t* m = nullptr;
    ASSERT_EQ(8, bm_alloc_bitmap(40, &m));
    int64_t n;
    hs_obsno_t lo, hi;
    ASSERT_EQ(0, bm_info(m, 8, 101, &n, &lo, &hi));
    EXPECT_EQ(0, n);
    EXPECT_EQ(101, lo);
    EXPECT_EQ(101, hi);
    EXPECT_EQ(0, bm_set_bit(m, 101, 101));  // the first row: the top bit of the first word
    EXPECT_EQ(0x80000000u, m[0]);
    EXPECT_NE(0, bm_set_bit(m, 101, 101));
    EXPECT_EQ(0, bm_set_bit(m, 101, 140));  // the 40th row
    EXPECT_EQ(0x01000000u, m[1]);
    ASSERT_EQ(0, bm_info(m, 8, 101, &n, &lo, &hi));
    EXPECT_EQ(2, n);
    EXPECT_EQ(101, lo);
    EXPECT_EQ(140, hi);
    EXPECT_TRUE(bm_isset_bit(m, 101, 140));
    EXPECT_EQ(1, bm_clear_bit(m, 101, 140));
    EXPECT_EQ(0, bm_clear_bit(m, 101, 140));
    EXPECT_FALSE(bm_isset_bit(m, 101, 140));
    EXPECT_EQ(1, bm_info(m, 6, 101, &n, &lo, &hi));
    EXPECT_EQ(1, bm_info(reinterpret_cast<char*>(m) + 1, 4, 101, &n, &lo, &hi));
    free(m);
}

// The compressor's own cases: a lone bit in the last word, alternating
// bytes that do not pay, runs of 255 and 256 equal bytes, and maps of every
// density, all back to themselves.
TEST(SegmentBitmap, EveryFormComesBack) {
    int32_t type, len;
    std::vector<uint32_t> map(256, 0);
    map[255] = 1;  // the last row of the segment
    EXPECT_EQ(map, roundtrip(map, 1, &type, &len));
    EXPECT_EQ(Bm_Compression_1, type);
    EXPECT_LE(len, 12);

    std::vector<uint32_t> alt(64);
    for (auto& w : alt) w = 0xAA55AA55u;
    EXPECT_EQ(alt, roundtrip(alt, 1, &type, &len));
    EXPECT_EQ(Bm_Not_Compressed, type);

    for (int run : {255, 256}) {
        std::vector<uint32_t> m(128, 0);
        memset(m.data(), 0x5a, run);
        std::vector<char> cpr(512);
        len = bm_compress(m.data(), cpr.data(), 512, 1, 0, 0, &type);
        EXPECT_EQ(Bm_Compression_1, type);
        EXPECT_EQ(run == 255 ? 2 : 4, len) << run;  // trailing zeros are not written
    }

    std::mt19937 rng(7);
    for (int32_t words : {1, 2, 31, 256}) {
        for (int density : {0, 1, 3, 50, 97, 100}) {
            std::vector<uint32_t> m(words, 0);
            for (int32_t b = 0; b < words * 32; ++b)
                if (static_cast<int>(rng() % 100) < density) bm_set_bit(m.data(), 1, 1 + b);
            if (density == 0) bm_set_bit(m.data(), 1, 1);  // a compressor is never given an empty map
            EXPECT_EQ(m, roundtrip(m, 1, &type, &len)) << words << " " << density;
        }
    }

    // A list of rows, and what a stored form may not be.
    std::vector<hs_obsno_t> rows = {5001, 5030, 5063};
    std::vector<uint32_t> m(4, 0xffffffff);
    ASSERT_EQ(0, bm_uncompress(m.data(), 16, Bm_Bit_List, rows.data(), 24, 5001, 0));
    EXPECT_EQ(0x80000004u, m[0]);
    EXPECT_EQ(0x00000002u, m[1]);
    hs_obsno_t outside = 5001 + 128;
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_Bit_List, &outside, 8, 5001, 0));
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_Not_Defined, rows.data(), 24, 5001, 0));
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_One_Bit_Set, rows.data(), 8, 5001, 0));
    unsigned char toolong[] = {200, 1, 200, 1};
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_Compression_1, toolong, 4, 5001, 0));
    unsigned char odd[] = {3, 1, 2};
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_Compression_1, odd, 3, 5001, 0));
    unsigned char zero[] = {0, 1};
    EXPECT_EQ(-1, bm_uncompress(m.data(), 16, Bm_Compression_1, zero, 2, 5001, 0));
}

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "hs/zrt.h"

using namespace vrta;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ibm(double v, int len = 8) {
    Bytes b(len);
    zctdbl(v, b.data(), len);
    return b;
}

TEST(Zrt, IntegersAreBigEndianWithSignAndClipping) {
    uint8_t b[8];
    zctint(-2, b, 4);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{0xff, 0xff, 0xff, 0xfe}));
    EXPECT_EQ(zrtint(b, 4), -2);
    EXPECT_EQ(zrtinu(b, 4), 0xfffffffeu);
    zctint(0x12345678, b, 4);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{0x12, 0x34, 0x56, 0x78}));
    // Two bytes clip rather than wrap; the unsigned writer wraps.
    zctint(40000, b, 2);
    EXPECT_EQ(zrtint(b, 2), 32767);
    zctint(-40000, b, 2);
    EXPECT_EQ(zrtint(b, 2), -32768);
    zctinu(40000, b, 2);
    EXPECT_EQ(zrtinu(b, 2), 40000u);
    zctint(INT64_MIN, b, 8);
    EXPECT_EQ(zrtint(b, 8), INT64_MIN);
    zctint(-1, b, 3);
    EXPECT_EQ(zrtint(b, 3), -1);
    EXPECT_EQ(zrtint(b, 0), 0);
}

TEST(Zrt, DoublesHaveTheirHexadecimalForm) {
    EXPECT_EQ(ibm(1.0), (Bytes{0x41, 0x10, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(ibm(-118.625), (Bytes{0xc2, 0x76, 0xa0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(ibm(0.1), (Bytes{0x40, 0x19, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9a}));
    EXPECT_EQ(ibm(0.0), Bytes(8, 0));
    EXPECT_EQ(ibm(-0.0), (Bytes{0x80, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(std::signbit(zrtdbl(ibm(-0.0).data(), 8)));
    // A short number is the high bytes.
    EXPECT_EQ(ibm(-118.625, 4), (Bytes{0xc2, 0x76, 0xa0, 0}));
    const uint8_t one[] = {0x41, 0x10, 0, 0};
    EXPECT_EQ(zrtdbl(one, 4), 1.0);
    // An unnormalised fraction still reads as its value.
    const uint8_t unnorm[] = {0x42, 0x01, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(zrtdbl(unnorm, 8), 1.0);
    // Out of range: the largest magnitude, or zero.
    EXPECT_EQ(ibm(1e300)[0], 0x7f);
    EXPECT_EQ(ibm(-INFINITY)[0], 0xff);
    EXPECT_EQ(ibm(1e-300), Bytes(8, 0));
    EXPECT_EQ(ibm(-1e-300), (Bytes{0x80, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Zrt, DoublesInRangeRoundTripExactly) {
    std::mt19937_64 rng(7);
    for (int i = 0; i < 20000; i++) {
        // Exponents within the form's range, 16^-64 to 16^63.
        double m = std::ldexp(static_cast<double>(rng() >> 11), -53);
        int e = static_cast<int>(rng() % 480) - 240;
        double v = std::ldexp(0.5 + m / 2, e) * ((rng() & 1) ? -1 : 1);
        Bytes b = ibm(v);
        ASSERT_EQ(std::bit_cast<uint64_t>(zrtdbl(b.data(), 8)), std::bit_cast<uint64_t>(v)) << v;
    }
}

// Missing values: top 16 bits all ones, byte 5 the negated rank, "_" 1,
// "." 2, "A" to "Z" 3 to 28.
double miss(int rank) { return std::bit_cast<double>(0xffff000000000000ull | uint64_t(0x100 - rank) << 40); }

TEST(Zrt, MissingValuesTravelAsTheirCharacter) {
    const std::pair<char, int> cases[] = {{'_', 1}, {'.', 2}, {'A', 3}, {'B', 4}, {'Z', 28}};
    for (auto [c, rank] : cases) {
        Bytes b = ibm(miss(rank));
        EXPECT_EQ(b[0], static_cast<uint8_t>(c));
        EXPECT_EQ(Bytes(b.begin() + 1, b.end()), Bytes(7, 0));
        EXPECT_EQ(std::bit_cast<uint64_t>(zrtdbl(b.data(), 8)), std::bit_cast<uint64_t>(miss(rank))) << c;
        // A short field carries the character as well.
        EXPECT_EQ(ibm(miss(rank), 3)[0], static_cast<uint8_t>(c));
    }
    // A foreign NaN or a rank of no character goes as the standard missing value.
    EXPECT_EQ(ibm(std::nan(""))[0], '.');
    EXPECT_EQ(ibm(std::bit_cast<double>(0xffff000000d10000ull))[0], '.');
    // Only all-zero tails are missing; a letter with a fraction is a number.
    const uint8_t notmiss[] = {'A', 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(std::bit_cast<uint64_t>(zrtdbl(notmiss, 8)) >> 48 == 0xffff, false);
    const uint8_t lower[] = {'a', 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::bit_cast<uint64_t>(zrtdbl(lower, 8)) >> 48 == 0xffff, false);
}

}  // namespace

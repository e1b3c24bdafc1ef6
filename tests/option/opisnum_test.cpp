#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "option/op.h"

using namespace vrta;

namespace {

struct IntCase {
    const char* in;
    int rc;
    int value;
};

}  // namespace

TEST(OptionNumbers, IntegerSuffixesAndRangeTop) {
    const IntCase cases[] = {
        {"1K", 0, 1024},
        {"K1", 0, 1024},  // the suffix may stand anywhere
        {"1k", 0, 1024},
        {"3m", 0, 3 * 1048576},
        {"1G", 0, 1073741824},
        {"2G", 0, INT_MAX},
        {"2048M", 0, INT_MAX},
        {"2097152K", 0, INT_MAX},
        {"2097151K", 0, 2097151 * 1024},
        {"3G", OP_TOOBIG, 0},
        {"2049M", OP_TOOBIG, 0},
        {"2097153K", OP_TOOBIG, 0},
        {"2147483647", 0, INT_MAX},
        {"2147483648", OP_TOOBIG, 0},
        {"-5", 0, 5},  // a sign does not change the value
        {"+7", 0, 7},
        {"0", 0, 0},
        {"1X", OP_BADINT, 0},
        {"1KK", OP_BADINT, 0},
        {"1.5", OP_BADINT, 0},
        {"K", OP_BADINT, 0},
        {"-", OP_BADINT, 0},
        {"", OP_BADINT, 0},
        {"0x1f", 0, 31},
        {"0XFF", 0, 255},
        {"0x10K", OP_BADINT, 0},
        {"0x", OP_BADINT, 0},
        {"0x100000000", OP_TOOBIG, 0},
    };
    for (const IntCase& c : cases) {
        int v = -12345;
        EXPECT_EQ(isint(c.in, &v), c.rc) << c.in;
        if (c.rc == 0) {
            EXPECT_EQ(v, c.value) << c.in;
        }
    }
    int v = 0;
    EXPECT_EQ(isint(nullptr, &v), OP_BADINT);
}

TEST(OptionNumbers, IntegerTakesElevenCharacters) {
    int v = 0;
    EXPECT_EQ(isint("00000000001", &v), 0);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(isint("0000000001K", &v), 0);
    EXPECT_EQ(v, 1024);
    EXPECT_EQ(isint("+00000000001", &v), 0);
    EXPECT_EQ(isint("000000000001", &v), OP_TOOBIG);
    EXPECT_EQ(isint("00000000001K", &v), OP_TOOBIG);
}

TEST(OptionNumbers, DoublesFormSuffixAndOverflow) {
    double d = 0;
    EXPECT_EQ(isdbl("1.5K", &d), 0);
    EXPECT_EQ(d, 1536.0);
    EXPECT_EQ(isdbl("2m", &d), 0);
    EXPECT_EQ(d, 2097152.0);
    EXPECT_EQ(isdbl("0.25g", &d), 0);
    EXPECT_EQ(d, 268435456.0);
    EXPECT_EQ(isdbl("-0.5", &d), 0);
    EXPECT_EQ(d, -0.5);
    EXPECT_EQ(isdbl(".5", &d), 0);
    EXPECT_EQ(d, 0.5);
    EXPECT_EQ(isdbl("7.", &d), 0);
    EXPECT_EQ(d, 7.0);
    for (const char* bad : {"", ".", "K", "1.2.3", "1e5", "1KB", "K1", "1-", "abc", " 1"})
        EXPECT_EQ(isdbl(bad, &d), OP_BADDBL) << bad;
    EXPECT_EQ(isdbl(nullptr, &d), OP_BADDBL);
    std::string huge = "1" + std::string(308, '0');
    EXPECT_EQ(isdbl(huge.c_str(), &d), 0);
    EXPECT_EQ(isdbl((huge + "G").c_str(), &d), OP_TOOBIG);
    EXPECT_EQ(isdbl((huge + "0").c_str(), &d), OP_TOOBIG);
}

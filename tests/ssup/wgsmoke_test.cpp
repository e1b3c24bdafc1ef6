#include <gtest/gtest.h>
#include "hs/hs.h"
#include "ssup/wg.h"
using namespace vrta;
TEST(Smoke, Add) {
    ASSERT_EQ(0, hsgblinit());
    VGSEGHD* s;
    ASSERT_EQ(0, wgopen(&s, 0, nullptr, 0));
    long two = 2, three = 3;
    objloc a, b, r;
    ASSERT_EQ(0, wgdfobj(s, &two, 0, &a));
    ASSERT_EQ(0, wgdfobj(s, &three, 1, &b));
    ASSERT_EQ(0, wgdfobj(s, nullptr, 0, &r));
    ASSERT_EQ(0, wgemit(s, ADD_, WG_TINT, 0, a, b, r));
    ASSERT_EQ(0, wgemit(s, MUL_, WG_TINT, WG_MIMMB, r, 7, r));
    ASSERT_EQ(0, wgemit(s, TERM_, WG_TINT, 0, 0, 0, r));
    ASSERT_EQ(0, wgclose(s));
    ASSERT_EQ(0, wgsetopt("D"));
    ASSERT_EQ(0, wgbind(s));
    EXPECT_EQ(35, wgentry(s)());
    EXPECT_EQ(35, static_cast<long*>(wggudlp(s))[1]);
    ASSERT_EQ(0, wgexect(s));
}

// Rendering a tree back to a clause, and the tree printer of traces.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>

#include "whwire.h"

using namespace vrta;
using namespace whtest;

namespace {

struct Owned {
    SQLOP* t;
    ~Owned() { free_tree(&t, nullptr); }
};

std::string sayown(SQLOP* t) {
    Owned o{t};
    return say(t);
}

SQLOP* setof(short code, int num, int len) {
    SQLOP* s = node(code);
    s->u.setleaf.num = num;
    s->u.setleaf.len = len;
    if (code == OP_SETN) {
        auto* d = static_cast<double*>(calloc(num, 8));
        for (int i = 0; i < num; i++) d[i] = i + 1;
        s->u.setleaf.p = d;
    } else {
        auto* c = static_cast<char*>(calloc(num * len + 1, 1));
        for (int i = 0; i < num; i++) c[i * len] = static_cast<char>('a' + i % 26);
        s->u.setleaf.p = c;
    }
    return s;
}

TEST(WhSay, TheFirstByteAloneChoosesTheQuotes) {
    EXPECT_EQ(sayown(litc("abc")), "'abc'");
    EXPECT_EQ(sayown(litc("'abc")), "\"'abc\"");
    EXPECT_EQ(sayown(litc("it's")), "'it's'");
    EXPECT_EQ(sayown(litc("say \"hi\"")), "'say \"hi\"'");
    EXPECT_EQ(sayown(litc("'a\"b")), "\"'a\"b\"");
    EXPECT_EQ(sayown(litc("")), "''");
    // Longer than the staging area: the same form, nothing cut.
    std::string big(40000, 'q');
    big[0] = '\'';
    EXPECT_EQ(sayown(litc(big)), "\"" + big + "\"");
}

TEST(WhSay, PackedSetsShowTwentyFiveElementsAndCountTheRest) {
    EXPECT_EQ(sayown(setof(OP_SETN, 3, 8)), "1 2 3 ");
    std::string s26 = sayown(setof(OP_SETN, 26, 8));
    EXPECT_NE(s26.find("24 25 <1 more>"), std::string::npos) << s26;
    EXPECT_EQ(s26.find("26"), std::string::npos) << s26;
    std::string c26 = sayown(setof(OP_SETC, 26, 4));
    EXPECT_EQ(c26.substr(0, 8), "'a' 'b' ");
    EXPECT_NE(c26.find("'y' <1 more>"), std::string::npos) << c26;
    EXPECT_EQ(sayown(setof(OP_SETN, 25, 8)).find("more"), std::string::npos);
    EXPECT_EQ(sayown(op(OP_IN, {namen("N"), op(OP_SET, {setof(OP_SETN, 2, 8)})})), "N in (1 2 )");
}

TEST(WhSay, EachOperatorHasItsTextStyleAndBrackets) {
    auto A = [] { return namen("A"); };
    auto B = [] { return namen("B", 5); };
    struct Case {
        SQLOP* t;
        const char* want;
    } cases[] = {
        {op(OP_LOR, {A(), A(), A()}), "(A or A or A)"},
        {op(OP_LNOT, {op(OP_CEQ, {A(), litn(1)})}), "(not (A=1))"},
        {op(OP_CNE, {A(), litn(-2.5)}), "(A not = -2.5)"},
        {op(OP_CTGE, {B(), litc("x")}), "(B>=:'x')"},
        {op(OP_CTNE, {B(), litc("x")}), "(B not =: 'x')"},
        {op(OP_ISNL, {A()}), "(A is null )"},
        {op(OP_NTNL, {A()}), "(A is not null )"},
        {op(OP_ANEG, {A()}), "-A"},
        {op(OP_APOW, {A(), litn(2)}), "(A**2)"},
        {op(OP_ADIV, {op(OP_AADD, {A(), litn(1)}), litn(1234567)}), "((A+1)/1.23457e+06)"},
        {op(OP_CONC, {B(), litc("z")}), "(B||'z')"},
        {op(OP_MIN, {A(), litn(0)}), "(A><0)"},
        {op(OP_MAX, {A(), litn(0)}), "(A<>0)"},
        {op(OP_LIKE, {B(), litc("a%")}), "B like 'a%'"},
        {op(OP_NCON, {B(), litc("q")}), "B not contains 'q'"},
        {op(OP_NSDX, {B(), litc("Smith")}), "B not =* 'Smith'"},
        {op(OP_BETW, {A(), litn(1), litn(5)}), "A between 1 and 5"},
        {op(OP_NBTW, {A(), litn(1), litn(5)}), "A not between 1 and 5"},
        {op(OP_NIN, {A(), op(OP_SET, {litn(1), op(OP_RANL, {litn(3), litn(7)})})}), "A not in (1, 3 thru ^7)"},
        {op(OP_TIN, {B(), op(OP_SET, {litc("ab")})}), "B in: ('ab')"},
        {op(OP_SET, {litn(1), op(OP_RANN, {litn(2), litn(3)})}), "(1, 2 ^thru ^3)"},
        {op(OP_RANH, {litn(2), litn(3)}), "2 ^thru 3"},
        {op(OP_STNX, {litn(1), litn(2)}), "(1, 2)"},
        {op(OP_CEQ, {A(), litn(std::bit_cast<double>(0xfffffe0000000000ull))}), "(A=.)"},
        {op(OP_INOT, {A()}), "?special?"},
        {op(OP_APOS, {A()}), "?special?"},
        {op(OP_CEQ, {A(), nullptr}), "(A=/* NULL */)"},
        {op(OP_LAND, {node(OP_STAR), node(OP_USER), node(OP_NULL), node(OP_HNAM)}), "(* and USER and  and ?\?leaf?\?)"},
    };
    for (const Case& c : cases) EXPECT_EQ(sayown(c.t), c.want);
    // The function call and a format leaf.
    EXPECT_EQ(sayown(op(OP_FLST, {funcn("UPCASE  ", 5), B(), fmtn("DOLLAR", 10, 2)})), "UPCASE(B, DOLLAR10.2)");
    SQLOP* bare = node(OP_FMT);
    EXPECT_EQ(sayown(bare), "F.");
    EXPECT_EQ(sayown(op(OP_FLST, {litn(1)})), "1()");
    char* s = nullptr;
    EXPECT_EQ(whsayit(nullptr, &s), 0);
    EXPECT_STREQ(s, "/* NULL */");
    free(s);
    EXPECT_EQ(whsayit(nullptr, nullptr), WH_RC_NULLARG);
}

std::string printed(const char* msg, const SQLOP* t) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    tree_print(msg, t, fp);
    fclose(fp);
    std::string r(buf, len);
    free(buf);
    return r;
}

TEST(WhPrint, TheTreeLiesSidewaysTenColumnsALevel) {
    Owned o{op(OP_LAND, {op(OP_CGT, {namen("AMOUNT"), litn(100)}), op(OP_ISNL, {namen("Q")}),
                         op(OP_IN, {namen("C", 4), op(OP_SET, {litc("a'b"), litc(std::string("\x01z", 2))})})})};
    EXPECT_EQ(printed(nullptr, o.t),
              "TREE GRAPH :\n"
              "                    /--NAME[AMOUNT]\n"
              "          /--CGT\n"
              "          |         \\--LITN[100]\n"
              " --LAND\n"
              "          |         /--NAME[Q]\n"
              "          ---ISNL\n"
              "          |         /--NAME[C]\n"
              "          \\--IN\n"
              "                    |         /--LITC['a'b']\n"
              "                    \\--SET\n"
              "                              \\--LITC['017A'X]\n");
    EXPECT_EQ(printed("whinit: wh-tree presented", nullptr), "whinit: wh-tree presented\n --<empty>\n");
}

TEST(WhPrint, LeavesShowTheirValuesAndDeepBranchesStop) {
    SQLOP* d = litn(22000);
    d->u.nleaf.datetype = WH_DT_DATETIME;
    Owned o{op(OP_LAND, {d, op(OP_FLST, {funcn("ABS"), fmtn("BEST", 12, 0)}), setof(OP_SETN, 27, 8), setof(OP_SETC, 2, 3),
                         litn(std::bit_cast<double>(0xfffffe0000000000ull))})};
    std::string p = printed(nullptr, o.t);
    EXPECT_NE(p.find("LITN[22000 DATETIME]"), std::string::npos) << p;
    EXPECT_NE(p.find("FUNC[ABS()]"), std::string::npos) << p;
    EXPECT_NE(p.find("FMT[BEST12.0]"), std::string::npos) << p;
    EXPECT_NE(p.find("SETN[1][2]"), std::string::npos) << p;
    EXPECT_NE(p.find("[25]<2 more>"), std::string::npos) << p;
    EXPECT_NE(p.find("SETC['a']['b']"), std::string::npos) << p;
    EXPECT_NE(p.find("LITN[.]"), std::string::npos) << p;

    // Past column 245 a branch ends with a note, once.
    SQLOP* t = namen("DEEP");
    for (int i = 0; i < 40; i++) t = op(OP_LNOT, {t});
    Owned deep{t};
    std::string dp = printed(nullptr, t);
    EXPECT_EQ(dp.find("NAME[DEEP]"), std::string::npos);
    size_t at = dp.find(" ... overflow in print_treenode ...\n");
    ASSERT_NE(at, std::string::npos) << dp;
    EXPECT_EQ(dp.find("overflow", at + 10), std::string::npos);
    // The deepest line printed starts at column 240.
    EXPECT_NE(dp.find(std::string(240, ' ') + "/--LNOT"), std::string::npos);
}

TEST(WhPrint, CodesAndIndexTypesHaveTheirNames) {
    EXPECT_STREQ(whmnemonic(OP_SETC), "SETC");
    EXPECT_STREQ(whmnemonic(OP_STNX), "STNX");
    EXPECT_STREQ(whmnemonic(OP_SAME), "SAME");
    EXPECT_STREQ(whmnemonic(28), "-CODE028");
    EXPECT_STREQ(whmnemonic(561), "-CODE561");
    EXPECT_STREQ(whmnemonic(562), "-BADCODE-");
    EXPECT_STREQ(whmnemonic(-1), "-BADCODE-");
    EXPECT_STREQ(whidxtype(WH_IXT_SHY, false), "SBM");
    EXPECT_STREQ(whidxtype(WH_IXT_SBM, true), "SBM");
    EXPECT_STREQ(whidxtype(WH_IXT_SBT, false), "SBT");
    EXPECT_STREQ(whidxtype(WH_IXT_GBT, false), "GBT");
    EXPECT_STREQ(whidxtype(WH_IXT_GBT, true), "FBT");
    EXPECT_STREQ(whidxtype(4, false), "???");
}

}  // namespace

// The reader of the wire form: forms 0006 and 0009, jumps, every check.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "ssubs/hscsdbl.h"
#include "whwire.h"

using namespace vrta;
using namespace whtest;

namespace {

const uint8_t IBM_1[8] = {0x41, 0x10, 0, 0, 0, 0, 0, 0};
const uint8_t IBM_100[8] = {0x42, 0x64, 0, 0, 0, 0, 0, 0};

rctype readback(const Bytes& b, SQLOP** t, bool* notkor = nullptr, whlin_t* linp = nullptr) {
    whlin_t lin{};
    rctype rc = getbooltree(nullptr, nullptr, b.data(), static_cast<long>(b.size()), linp ? linp : &lin, notkor, t);
    if (rc) {
        EXPECT_EQ(*t, nullptr) << "a failed read left a tree";
    }
    return rc;
}

// (AMOUNT > 100) and CITY in ('Lima', 'Oslo')
Wire sample() {
    Wire t;
    t.op(OP_LAND, 2).op(OP_CGT, 2).name("AMOUNT", -8, 8, 1).litn(IBM_100, 100.0);
    t.op(OP_IN, 2).name("CITY", 10, 10, 2).op(OP_SET, 2).litc("Lima").litc("Oslo");
    return t;
}

TEST(WhRead, Form0006ReadsEveryFieldOfItsNodes) {
    SQLOP* t = nullptr;
    bool notkor = true;
    whlin_t lin{};
    ASSERT_EQ(readback(clause(sample()), &t, &notkor, &lin), 0);
    EXPECT_FALSE(notkor);
    EXPECT_EQ(lin.format, 6);
    EXPECT_EQ(lin.native, 1);
    EXPECT_EQ(t->code, OP_LAND);
    EXPECT_EQ(t->u.node.narg, 2);
    SQLOP* cgt = get_child(t, 0);
    SQLOP* nm = get_child(cgt, 0);
    EXPECT_EQ(std::string(nm->u.vleaf.name, nm->u.vleaf.namelen), "AMOUNT");
    EXPECT_EQ(nm->type, -8);
    // The three words after the name are kept as leng, offset and nvar0.
    EXPECT_EQ(nm->u.vleaf.leng, 1);
    EXPECT_EQ(nm->u.vleaf.offset, 8);
    EXPECT_EQ(nm->u.vleaf.nvar0, 1);
    SQLOP* n100 = get_child(cgt, 1);
    EXPECT_EQ(n100->u.nleaf.nbr, 100.0);
    unsigned char coll[8];
    double h = 100.0;
    std::memcpy(coll, &h, 8);
    hscsdbl(coll, 8);
    EXPECT_EQ(std::memcmp(n100->u.nleaf.nbr_collatable, coll, 8), 0);
    SQLOP* set = get_child(get_child(t, 1), 1);
    EXPECT_EQ(set->nodeflags & WH_NF_UNORDERED, 0);
    EXPECT_STREQ(get_child(set, 1)->u.cleaf.c, "Oslo");
    EXPECT_EQ(get_child(set, 1)->u.cleaf.leng, 4);
    EXPECT_EQ(say(t), "((AMOUNT>100) and CITY in ('Lima', 'Oslo'))");
    free_tree(&t, nullptr);

    // A negative first word: the clause did not come from the host.
    Bytes b = clause(sample());
    Bytes neg = b;
    int32_t total = -static_cast<int32_t>(b.size() - 4);
    for (int i = 0; i < 4; i++) neg[i] = static_cast<uint8_t>(static_cast<uint32_t>(total) >> (24 - 8 * i));
    ASSERT_EQ(readback(neg, &t, &notkor), 0);
    EXPECT_TRUE(notkor);
    free_tree(&t, nullptr);
}

TEST(WhRead, CodesOfTheLiteralFormsSetTheirSetAndChangeToText) {
    Wire t;
    t.op(OP_IN, 2).name("C", 4, 4, 1).op(OP_SET, 3).litc("b", OP_LITC28).litc("a").litc("c", OP_LITC29);
    SQLOP* tree = nullptr;
    ASSERT_EQ(readback(clause(t), &tree), 0);
    SQLOP* set = get_child(tree, 1);
    EXPECT_EQ(set->nodeflags & WH_NF_UNORDERED, WH_NF_UNORDERED);
    for (int i = 0; i < 3; i++) EXPECT_EQ(get_child(set, i)->code, OP_LITC);
    // Form 0006 never sorts.
    EXPECT_EQ(say(tree), "C in ('b', 'a', 'c')");
    free_tree(&tree, nullptr);
    // Under anything but a set or range, 28 marks nothing.
    Wire u;
    u.op(OP_CEQ, 2).name("C", 4, 4, 1).litc("x", OP_LITC28);
    ASSERT_EQ(readback(clause(u), &tree), 0);
    EXPECT_EQ(tree->nodeflags, 0);
    free_tree(&tree, nullptr);
}

TEST(WhRead, PackedSetsNumbersDatesAndNativeDoubles) {
    Wire t;
    t.op(OP_LAND, 3);
    t.op(OP_IN, 2).name("N", -8, 8, 1).op(OP_SET, 1).w(OP_SETN).w(0).w(0).w(3).w(8).raw(IBM_1, 8);
    t.raw("\x00\x00\x00\x00\x00\x00\x00\x00", 8).raw(IBM_100, 8);
    t.op(OP_IN, 2).name("S", 3, 3, 2).op(OP_SET, 1).w(OP_SETC).w(0).w(0).w(2).w(3).s("ab").raw("\0", 1).s("xyz");
    t.op(OP_CEQ, 2).name("D", -8, 8, 3).litn(IBM_1, 1.0, WH_DT_DATE);
    SQLOP* tree = nullptr;
    ASSERT_EQ(readback(clause(t), &tree), 0);
    SQLOP* setn = get_child(get_child(get_child(tree, 0), 1), 0);
    ASSERT_EQ(setn->code, OP_SETN);
    EXPECT_EQ(setn->u.setleaf.num, 3);
    const double* d = static_cast<const double*>(setn->u.setleaf.p);
    EXPECT_EQ(d[0], 1.0);
    EXPECT_EQ(d[1], 0.0);
    EXPECT_EQ(d[2], 100.0);
    SQLOP* setc = get_child(get_child(get_child(tree, 1), 1), 0);
    EXPECT_EQ(setc->u.setleaf.len, 3);
    EXPECT_EQ(say(tree), "(N in (1 0 100 ) and S in ('ab' 'xyz' ) and (D=1))");
    EXPECT_EQ(get_child(get_child(tree, 2), 1)->u.nleaf.datetype, WH_DT_DATE);
    free_tree(&tree, nullptr);

    // From a machine that names itself so, the second 8 bytes are taken as
    // they stand and the transport form is skipped.
    Wire n;
    double v = 2.5;
    n.z("0006").s("SUN 4   ").s("Solaris ").w(OP_LITN).w(0).w(-8).raw(IBM_1, 8).raw(&v, 8).w(0).z("0006");
    whlin_t lin{};
    ASSERT_EQ(readback(n.framed(), &tree, nullptr, &lin), 0);
    EXPECT_EQ(lin.native, 2);
    EXPECT_EQ(tree->u.nleaf.nbr, 2.5);
    free_tree(&tree, nullptr);
}

TEST(WhRead, AJumpLeadsToALaterHeaderWhoseTrailerAloneCounts) {
    // First header at 4, a jump word pair to offset 0x0000002c, garbage,
    // then the real clause. The first header has no trailer at all.
    Wire real;
    real.head().op(OP_CEQ, 2).name("A", -8, 8, 1).litn(IBM_1, 1.0).z("0006");
    Wire all;
    all.head();                                   // bytes 4..24
    const int32_t target = 48;
    all.w(static_cast<int32_t>(target & 0xffff0000)).w(static_cast<int32_t>((target & 0xffff) << 16));
    while (all.b.size() + 4 < static_cast<size_t>(target)) all.b.push_back(0xee);
    all.raw(real.b.data(), real.b.size());
    SQLOP* t = nullptr;
    ASSERT_EQ(readback(all.framed(), &t), 0);
    EXPECT_EQ(say(t), "(A=1)");
    free_tree(&t, nullptr);
    // A jump backwards, or to itself, or past the end, is not followed.
    for (int32_t off : {4, 24, 100000}) {
        Wire bad;
        bad.head().w(static_cast<int32_t>(off & 0xffff0000)).w(static_cast<int32_t>((off & 0xffff) << 16));
        bad.raw(real.b.data(), real.b.size());
        EXPECT_EQ(readback(bad.framed(), &t), WH_RC_BADWIRE) << off;
    }
}

TEST(WhRead, Form0009SkipsItsExtrasAndRefusesTheLiteralForms) {
    Wire t;
    t.z("0009").s("SOL-x64 ").s("X64     ").w(20).raw(std::string(16, '\0').data(), 16);
    t.op(OP_LAND, 3);
    t.op(OP_CEQ, 2).w(OP_NAME).w(0).w(-8).w(3).s("xyz").w(1).s("A").w(8).w(0).w(1);
    t.w(OP_LITC).w(0).w(2).w(5).s("label").w(2).s("hi");
    t.w(OP_FNAM).w(0).w(0).w(0).w(4).s("abc1");
    t.op(OP_ISNL, 1).w(OP_STAR).w(0).w(0);
    t.z("0009");
    SQLOP* tree = nullptr;
    whlin_t lin{};
    ASSERT_EQ(readback(t.framed(), &tree, nullptr, &lin), 0);
    EXPECT_EQ(lin.format, 9);
    EXPECT_EQ(lin.targ_cei, 20);
    EXPECT_EQ(say(tree), "((A='hi') and ABC1 and (* is null ))");
    free_tree(&tree, nullptr);
    for (int code : {OP_LITC28, OP_LITC29, OP_SETN, OP_SETC}) {
        Wire b;
        b.z("0009").s("SOL-x64 ").s("X64     ").w(20).raw(std::string(16, '\0').data(), 16);
        b.w(code).w(2).w(1).z("a").z("0009");
        EXPECT_EQ(readback(b.framed(), &tree), WH_RC_BADWIRE) << code;
    }
}

TEST(WhRead, EveryDamageIsRefusedWithTheWireCodeAndNoTree) {
    Bytes good = clause(sample());
    SQLOP* t = nullptr;
    // Every shortened buffer, with the total telling the truth or not.
    for (size_t n = 0; n < good.size(); n++) {
        Bytes cut(good.begin(), good.begin() + n);
        EXPECT_NE(readback(cut, &t), 0) << n;
        Wire body;
        body.raw(good.data() + 4, n > 4 ? n - 4 : 0);
        EXPECT_NE(readback(body.framed(), &t), 0) << n;
    }
    const size_t tree = 4 + 21;  // the root's code word
    const size_t nmword = tree + 24 + 12;  // the name length of AMOUNT
    ASSERT_GE(good.size(), nmword + 4);
    auto patched = [&](size_t at, int32_t v) {
        Bytes b = good;
        if (at + 4 > b.size()) return b;  // never: every word patched lies in the clause
        for (int i = 0; i < 4; i++) b[at + i] = static_cast<uint8_t>(static_cast<uint32_t>(v) >> (24 - 8 * i));
        return b;
    };
    struct Case {
        Bytes b;
        const char* what;
    } cases[] = {
        {patched(0, static_cast<int32_t>(good.size())), "a total past the end"},
        {patched(tree, 12), "code 12"},
        {patched(tree, OP_SAME), "a code of the full form"},
        {patched(tree, 70000), "a code past a short"},
        {patched(tree, -1), "a negative code"},
        {patched(tree + 4, 1000000), "more operands than bytes"},
        {patched(tree + 4, -1), "a negative count"},
        {patched(tree + 8, 40000), "a type past a short"},
        {patched(nmword, 33), "a name longer than its field"},
        {patched(nmword, 1 << 30), "a name longer than the buffer"},
    };
    for (const Case& c : cases) EXPECT_EQ(readback(c.b, &t), WH_RC_BADWIRE) << c.what;
    Bytes badver = good;
    badver[7] = '5';
    EXPECT_EQ(readback(badver, &t), WH_RC_BADWIRE);
    Bytes badtrailer = good;
    badtrailer[badtrailer.size() - 2] = '9';
    EXPECT_EQ(readback(badtrailer, &t), WH_RC_BADWIRE);
    EXPECT_EQ(getbooltree(nullptr, nullptr, good.data(), 10, nullptr, nullptr, &t), WH_RC_NULLARG);
}

TEST(WhRead, TreesDeeperThanTheLimitAreRefused) {
    for (int depth : {WH_MAXDEPTH, WH_MAXDEPTH + 1}) {
        Wire t;
        for (int i = 0; i < depth; i++) t.op(OP_LNOT, 1);
        t.name("A", -8, 8, 1);
        SQLOP* tree = nullptr;
        rctype rc = readback(clause(t), &tree);
        EXPECT_EQ(rc, depth > WH_MAXDEPTH ? WH_RC_BADWIRE : 0) << depth;
        free_tree(&tree, nullptr);
    }
}

TEST(WhRead, RandomDamageNeverCrashesOrLeavesATree) {
    Bytes good = clause(sample());
    std::mt19937 rng(20);
    const int rounds = std::getenv("VRTA_LONG") ? 200000 : 5000;
    int ok = 0;
    for (int r = 0; r < rounds; r++) {
        Bytes b = good;
        int flips = 1 + static_cast<int>(rng() % 4);
        for (int f = 0; f < flips; f++) {
            size_t at = rng() % b.size();
            switch (rng() % 3) {
            case 0: b[at] = static_cast<uint8_t>(rng()); break;
            case 1: b[at] ^= static_cast<uint8_t>(1u << (rng() % 8)); break;
            default: b.insert(b.begin() + at, static_cast<uint8_t>(rng())); break;
            }
        }
        SQLOP* t = nullptr;
        rctype rc = readback(b, &t);
        if (rc == 0) {
            ok++;
            char* s = nullptr;
            EXPECT_EQ(whsayit(t, &s), 0);
            free(s);
            free_tree(&t, nullptr);
        } else {
            EXPECT_TRUE(rc == WH_RC_BADWIRE || rc == WH_RC_NOMEM) << std::hex << rc;
        }
    }
    EXPECT_GT(ok, 0);
}

}  // namespace

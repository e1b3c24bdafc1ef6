// The tree model: node memory, children past the 13th, literal storage.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "sfnc/xf.h"
#include "whwire.h"

using namespace vrta;
using namespace whtest;

namespace {

TEST(WhTree, ChildrenPastThirteenLiveInOverflowNodes) {
    SQLOP* set = node(OP_SET);
    std::vector<SQLOP*> kids;
    for (int i = 0; i < 30; i++) {
        kids.push_back(litn(i));
        ASSERT_EQ(set_child(set, i, kids.back()), 0) << i;
        EXPECT_EQ(set->u.node.narg, i + 1);
    }
    // The 14th child is the first slot of the first overflow node; the 27th
    // needed a second overflow node, made by the append.
    ASSERT_NE(set->u.node.ext, nullptr);
    EXPECT_EQ(set->u.node.ext->u.node.arg[0], kids[13]);
    ASSERT_NE(set->u.node.ext->u.node.ext, nullptr);
    EXPECT_EQ(set->u.node.ext->u.node.ext->u.node.arg[0], kids[26]);
    for (int i = 0; i < 30; i++) EXPECT_EQ(get_child(set, i), kids[i]) << i;
    // At narg: whatever the slot holds, without an error.
    EXPECT_EQ(get_child(set, 30), nullptr);
    EXPECT_EQ(get_child(set, 99), nullptr);
    EXPECT_EQ(get_child(set, -1), nullptr);
    // Replacing keeps the count; past the end is refused.
    SQLOP* repl = litn(-1);
    EXPECT_EQ(set_child(set, 14, repl), 0);
    EXPECT_EQ(set->u.node.narg, 30);
    EXPECT_EQ(get_child(set, 14), repl);
    EXPECT_EQ(set_child(set, 32, repl), WH_RC_BADTREE);
    EXPECT_EQ(set->u.node.narg, 30);
    free_node(kids[14], nullptr);
    EXPECT_EQ(free_tree(&set, nullptr), 0);
    EXPECT_EQ(set, nullptr);
    EXPECT_EQ(free_tree(&set, nullptr), 0);
    EXPECT_EQ(free_node(nullptr, nullptr), WH_RC_BADTREE);
    EXPECT_EQ(free_tree(nullptr, nullptr), WH_RC_NULLARG);
}

TEST(WhTree, ShortTextStaysInTheNodeAndLongTextTakesABlock) {
    SQLOP* a = litc(std::string(47, 'a'));
    SQLOP* b = litc(std::string(48, 'b'));
    EXPECT_EQ(a->u.cleaf.c, a->u.cleaf.string);
    EXPECT_EQ(a->u.cleaf.leng, 47);
    EXPECT_EQ(a->u.cleaf.c[47], 0);
    EXPECT_NE(b->u.cleaf.c, b->u.cleaf.string);
    EXPECT_EQ(std::string(b->u.cleaf.c, b->u.cleaf.leng), std::string(48, 'b'));
    // Setting again moves between the two places without losing the text.
    ASSERT_EQ(wh_setlitc(a, std::string(100, 'x').data(), 100), 0);
    ASSERT_EQ(wh_setlitc(b, "yz", 2), 0);
    EXPECT_EQ(std::string(a->u.cleaf.c), std::string(100, 'x'));
    EXPECT_EQ(b->u.cleaf.c, b->u.cleaf.string);
    EXPECT_STREQ(b->u.cleaf.c, "yz");
    free_node(a, nullptr);
    free_node(b, nullptr);
}

TEST(WhTree, NodesComeZeroedWithTheirRecordAndAreSharedSafelyByThreads) {
    SQLOP* n = node(OP_LAND);
    ASSERT_NE(n->nodeinfo, nullptr);
    EXPECT_EQ(reinterpret_cast<char*>(n->nodeinfo), reinterpret_cast<char*>(n) + sizeof(SQLOP));
    n->nodeinfo->idx.status = WH_XST_ALL;
    n->nodeinfo->idx.key.numthreads = 2;
    n->nodeinfo->idx.key.tsm = static_cast<WH_IDXTSM*>(calloc(2, sizeof(WH_IDXTSM)));
    n->nodeinfo->idx.key.tsm[1].keybuf = malloc(16);
    n->nodeinfo->normkeypart = malloc(8);
    free_node(n, nullptr);
    SQLOP* again = node(OP_LOR);
    EXPECT_EQ(again->nodeinfo->idx.status, WH_XST_NONE);
    EXPECT_EQ(again->nodeinfo->idx.key.tsm, nullptr);
    EXPECT_EQ(again->u.node.narg, 0);
    free_node(again, nullptr);

    // Four threads take and give back nodes; none is handed out twice.
    std::atomic<bool> bad{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++)
        ts.emplace_back([&bad, t] {
            for (int round = 0; round < 50; round++) {
                std::vector<SQLOP*> mine;
                for (int i = 0; i < 30; i++) {
                    SQLOP* x = nullptr;
                    if (get_node(&x) != 0 || x->code != 0) bad = true;
                    x->code = static_cast<short>(t + 1);
                    mine.push_back(x);
                }
                for (SQLOP* x : mine) {
                    if (x->code != t + 1) bad = true;
                    free_node(x, nullptr);
                }
            }
        });
    for (auto& th : ts) th.join();
    EXPECT_FALSE(bad);
}

// What evaluation hangs on a function leaf goes with it; a clock-seeded
// random stream is reported to the caller.
TEST(WhTree, FunctionLeavesReleaseTheirBlocksAndReportAClockSeededStream) {
    for (int fflags : {-1, 1}) {
        for (const char* name : {"RANUNI", "RANUNI$", "ABS"}) {
            SQLOP* f = node(OP_FUNC);
            ASSERT_NE(f, nullptr);
            f->u.func.namelen = static_cast<short>(std::strlen(name));
            std::memcpy(f->u.func.name, name, f->u.func.namelen);
            auto* par = static_cast<FNCPAR*>(calloc(1, xfparsize(2)));
            ASSERT_NE(par, nullptr);
            par->par[0].loc.n = 2;
            par->par[1].type = XF_NUM;
            par->par[1].loc.dp = static_cast<double*>(malloc(8));
            par->par[2].type = XF_STR;
            par->par[2].loc.xs = static_cast<X_STRING*>(malloc(sizeof(X_STRING) + 4));
            par->fstate.fflags = fflags;
            f->u.func.par = par;
            f->u.func.str = malloc(32);
            int rflags = 0;
            EXPECT_EQ(free_node(f, &rflags), 0);
            EXPECT_EQ(rflags, fflags < 0 && std::strcmp(name, "RANUNI") == 0 ? 1 : 0) << name << fflags;
        }
    }
    SQLOP* f = node(OP_FUNC);
    ASSERT_NE(f, nullptr);
    std::memcpy(f->u.func.name, "RANUNI", 6);
    f->u.func.namelen = 6;
    EXPECT_EQ(free_node(f, nullptr), 0);
}

TEST(WhTree, HandlesAreMadeAndReleased) {
    WH_HANDLE* wh = nullptr;
    ASSERT_EQ(get_handle(&wh), 0);
    EXPECT_EQ(wh->tree, nullptr);
    EXPECT_STREQ(whsay(wh), "<null tree>");
    wh->tree = op(OP_CEQ, {namen("X"), litn(1)});
    EXPECT_STREQ(whsay(wh), "(X=1)");
    EXPECT_STREQ(wh->treetext, "(X=1)");
    free_tree(&wh->tree, nullptr);
    free(wh->treetext);
    EXPECT_EQ(free_handle(wh), 0);
    EXPECT_EQ(free_handle(nullptr), WH_RC_NULLARG);
    EXPECT_EQ(get_handle(nullptr), WH_RC_NULLARG);
}

}  // namespace

namespace {

TEST(WhTree, EndingTheMemoryReleasesAllChunksAndNodesCanBeHadAgain) {
    std::vector<SQLOP*> ns;
    for (int i = 0; i < 45; i++) ns.push_back(node(OP_LITN));
    for (SQLOP* n : ns) free_node(n, nullptr);
    EXPECT_EQ(wh_termmem(), 0);
    EXPECT_EQ(wh_initmem(), 0);
    SQLOP* n = node(OP_NAME);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->u.vleaf.namelen, 0);
    free_node(n, nullptr);
    EXPECT_EQ(wh_termmem(), 0);
}

}  // namespace

#include <gtest/gtest.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "hs/hsgcb.h"
#include "ssup/vv.h"
#include "ssup/xmint.h"

using namespace vrta;

namespace {

class ControlBlocks : public testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("MSGPATH", VRTA_SRC_MSGDIR, 0);
        ASSERT_EQ(0, hsgblinit());
        if (!vvgcbp()->lcbkey) {
            ASSERT_EQ(0, vvinit());
        }
    }
};

// Runs fn(arg) in a thread made by vvcthrl and waits for it.
rctype runlcb(void* (*fn)(void*), void* arg, int lcbflag, void** result = nullptr) {
    thread_t tid{};
    rctype rc = vvcthrl(nullptr, 0, fn, arg, 0, &tid, lcbflag);
    if (rc == 0) thr_join(tid, result);
    return rc;
}

bool inpool(xmpid pid, void* p) {
    for (XMPUDL* u = pid->puddles; u; u = u->next)
        if (static_cast<char*>(p) >= u->start && static_cast<char*>(p) < u->end) return true;
    return false;
}

std::vector<int> order;
mutex_t orderlock = PTHREAD_MUTEX_INITIALIZER;
void note(void* ap) {
    MutexGuard hold(&orderlock);
    order.push_back(static_cast<int>(reinterpret_cast<intptr_t>(ap)));
}
void* tag(int n) { return reinterpret_cast<void*>(static_cast<intptr_t>(n)); }

}  // namespace

TEST_F(ControlBlocks, SlotIndexesAreCheckedDifferentlyByGetterAndSetter) {
    EXPECT_EQ(0, memcmp(vvgcbp()->eye, "VGCB", 4));
    EXPECT_EQ(nullptr, vvgvlcb(14));
    EXPECT_EQ(nullptr, vvgvlcb(-1));
    EXPECT_EXIT(vvgvgcb(14), testing::ExitedWithCode(255), "");
    EXPECT_EXIT(vvsvgcb(14, nullptr), testing::ExitedWithCode(255), "");
    EXPECT_EXIT(vvsvlcb(14, nullptr), testing::ExitedWithCode(255), "");
    // Without a local block the thread reads and writes the global table.
    int marker = 0;
    vvsvlcb(5, &marker);
    EXPECT_EQ(&marker, vvgvgcb(5));
    EXPECT_EQ(&marker, vvgvlcb(5));
    vvsvgcb(5, nullptr);
}

TEST_F(ControlBlocks, ThreadWithoutLocalBlockHasNoUserAndNoHandlers) {
    ASSERT_EQ(nullptr, vvlcb());
    static int ran = 0;
    EXPECT_EQ(0, vvaexit([](void*) { ran++; }, nullptr));
    EXPECT_EQ(nullptr, vvtokptr());
    EXPECT_EQ(nullptr, vvunamptr());
    EXPECT_EQ(nullptr, vvgetfmt());
    vvsetuser("someone ", "group   ", "token");
    char* u = reinterpret_cast<char*>(1);
    vvgetuser(&u, nullptr, nullptr);
    EXPECT_EQ(nullptr, u);
    // A plain thread ends without calling the handler that was never stored.
    thread_t tid{};
    ASSERT_EQ(0, thr_create(nullptr, 0, [](void*) -> void* {
        EXPECT_EQ(0, vvaexit([](void*) { ran++; }, nullptr));
        return nullptr;
    }, nullptr, 0, &tid));
    thr_join(tid, nullptr);
    EXPECT_EQ(0, ran);
}

namespace {
struct Nested {
    int marker = 0;
    xmpid outerpool = nullptr;
    xmpid innerpool = nullptr;
    bool innerallocok = false;
    std::string user, group, fmt;
    void* slot12 = nullptr;
    void* slot2 = nullptr;
    void* slot5 = nullptr;
    rctype innerrc = -1;
};
void* inner(void* arg) {
    auto* n = static_cast<Nested*>(arg);
    n->innerpool = vvxmpid();
    void* p = xmalloc(XM_THREADPOOL, 100, 0);
    n->innerallocok = p && inpool(n->innerpool, p);
    char *u, *g, *t;
    vvgetuser(&u, &g, &t);
    n->user.assign(u, 8);
    n->group.assign(g, 8);
    n->fmt = vvgetfmt();
    n->slot12 = vvgvlcb(VV_SLOT_FNZ);
    n->slot2 = vvgvlcb(VV_SLOT_XH);
    n->slot5 = vvgvlcb(5);
    return nullptr;
}
void* outer(void* arg) {
    auto* n = static_cast<Nested*>(arg);
    n->outerpool = vvxmpid();
    vvsetuser("alice   ", "staff   ", "0123456789012345678901234567");
    vvsetfmt("WORK.FORMATS", 12);
    vvsvlcb(VV_SLOT_FNZ, &n->marker);
    vvsvlcb(VV_SLOT_XH, &n->marker);
    n->innerrc = runlcb(inner, n, VV_LCB_INHXH);
    return nullptr;
}
}  // namespace

TEST_F(ControlBlocks, ChildInheritsUserFormatAndChosenSlotsAndGetsItsOwnPool) {
    int spare = 0;
    vvsvgcb(5, &spare);
    Nested n;
    ASSERT_EQ(0, runlcb(outer, &n, 0));
    vvsvgcb(5, nullptr);
    EXPECT_EQ(0, n.innerrc);
    ASSERT_NE(nullptr, n.outerpool);
    ASSERT_NE(nullptr, n.innerpool);
    EXPECT_NE(n.outerpool, n.innerpool);
    EXPECT_TRUE(n.innerallocok);
    EXPECT_EQ("alice   ", n.user);
    EXPECT_EQ("staff   ", n.group);
    EXPECT_EQ("WORK.FORMATS", n.fmt);
    EXPECT_EQ(&n.marker, n.slot12);
    EXPECT_EQ(&n.marker, n.slot2);  // asked for with 0x40000
    EXPECT_EQ(&spare, n.slot5);     // copied from the global table at start
    // Both threads' pools went with them.
    EXPECT_NE(0, memcmp(n.innerpool->tag, "POOL", 4));
    EXPECT_NE(0, memcmp(n.outerpool->tag, "POOL", 4));
}

TEST_F(ControlBlocks, ChildDoesNotInheritSlotTwoUnlessAsked) {
    struct Ctx {
        int marker = 0;
        void* seen = &marker;
    } c;
    ASSERT_EQ(0, runlcb([](void* a) -> void* {
        auto* c = static_cast<Ctx*>(a);
        vvsvlcb(VV_SLOT_XH, &c->marker);
        runlcb([](void* a) -> void* {
            static_cast<Ctx*>(a)->seen = vvgvlcb(VV_SLOT_XH);
            return nullptr;
        }, c, 0);
        return nullptr;
    }, &c, 0));
    EXPECT_EQ(vvgvgcb(VV_SLOT_XH), c.seen);
}

TEST_F(ControlBlocks, ExitHandlersRunInOrderAndTheEleventhIsRefused) {
    order.clear();
    struct Ctx {
        rctype rc11 = 0;
    } c;
    ASSERT_EQ(0, runlcb([](void* a) -> void* {
        for (int i = 1; i <= 10; i++) EXPECT_EQ(0, vvaexit(note, tag(i)));
        static_cast<Ctx*>(a)->rc11 = vvaexit(note, tag(11));
        return nullptr;
    }, &c, 0));
    EXPECT_EQ(VV_RC_NOMEM, c.rc11);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), order);

    // Removing matches function and argument, and takes every copy.
    order.clear();
    ASSERT_EQ(0, runlcb([](void*) -> void* {
        EXPECT_EQ(0, vvaexit(note, tag(1)));
        EXPECT_EQ(0, vvaexit(note, tag(2)));
        EXPECT_EQ(0, vvaexit(note, tag(1)));
        EXPECT_EQ(0, vvaexit(note, tag(3)));
        EXPECT_EQ(0, vvuexit(note, tag(1)));
        EXPECT_EQ(0, vvuexit(note, tag(9)));
        return nullptr;
    }, nullptr, 0));
    EXPECT_EQ((std::vector<int>{2, 3}), order);
}

TEST_F(ControlBlocks, ExitStatusReachesTheJoinerEitherWay) {
    void* result = nullptr;
    ASSERT_EQ(0, runlcb([](void*) -> void* { return tag(7); }, nullptr, 0, &result));
    EXPECT_EQ(tag(7), result);
    order.clear();
    ASSERT_EQ(0, runlcb([](void*) -> void* {
        EXPECT_EQ(0, vvaexit(note, tag(5)));
        ADD_FAILURE() << "vvthrlexit came back: " << vvthrlexit(tag(42));
        note(tag(99));  // never reached
        return nullptr;
    }, nullptr, 0, &result));
    EXPECT_EQ(tag(42), result);
    EXPECT_EQ((std::vector<int>{5}), order);
}

TEST_F(ControlBlocks, SharedPoolFromCreatorWithoutBlockIsTheDefaultPool) {
    struct Ctx {
        xmpid own = reinterpret_cast<xmpid>(1);
        void* p = nullptr;
        std::string fmt = "x";
    } c;
    ASSERT_EQ(0, runlcb([](void* a) -> void* {
        auto* c = static_cast<Ctx*>(a);
        c->own = vvxmpid();
        c->p = xmalloc(XM_THREADPOOL, 24, 0);
        vvsetfmt("ignored", 0);
        c->fmt = vvgetfmt();
        return nullptr;
    }, &c, VV_LCB_SHAREPOOL));
    EXPECT_EQ(nullptr, c.own);
    ASSERT_NE(nullptr, c.p);
    EXPECT_TRUE(inpool(HSGCB->xmgcb->defpool, c.p));
    EXPECT_EQ("", c.fmt);
    xmfree(XM_THREADPOOL, c.p, -1);
}

TEST_F(ControlBlocks, ThreadStartAsksTheMemoryManagerWhenTold) {
    struct Ctx {
        void* slot0 = nullptr;
    } c;
    ASSERT_EQ(0, runlcb([](void* a) -> void* {
        static_cast<Ctx*>(a)->slot0 = vvgvlcb(VV_SLOT_XM);
        return nullptr;
    }, &c, VV_LCB_XM));
    EXPECT_EQ(HSGCB->xmgcb, c.slot0);
    EXPECT_EQ(nullptr, vvgvgcb(VV_SLOT_XM));  // only the thread's slot is set
}

TEST_F(ControlBlocks, TermClearsTheTableAndInitMakesItAgain) {
    ASSERT_EQ(0, vvterm());
    EXPECT_EQ(0u, vvgcbp()->lcbkey);
    // Without a key no thread can be made.
    thread_t tid{};
    EXPECT_EQ(VV_RC_INTERNAL, vvcthrl(nullptr, 0, [](void*) -> void* { return nullptr; }, nullptr, 0, &tid, 0));
    EXPECT_EQ(VV_RC_INTERNAL, vvthrlexit(nullptr));
    // A host's table is taken over as it stands.
    VVGCB host{};
    memcpy(host.eye, "VGCB", 4);
    host.gcb[4] = &host;
    vvimport(&host);
    EXPECT_EQ(&host, vvgvgcb(4));
    ASSERT_EQ(0, vvinit());
    EXPECT_NE(0u, vvgcbp()->lcbkey);
    EXPECT_EQ(nullptr, vvgvgcb(4));
    EXPECT_EQ(0, runlcb([](void*) -> void* { return nullptr; }, nullptr, 0));
}

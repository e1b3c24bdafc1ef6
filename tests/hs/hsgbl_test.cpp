#include <gtest/gtest.h>
#include <csetjmp>
#include <cstring>
#include <vector>
#include "hs/hsgcb.h"
#include "ssup/xmint.h"

using namespace vrta;

namespace {

std::vector<int> seen;
void note(void* ap) { seen.push_back(static_cast<int>(reinterpret_cast<intptr_t>(ap))); }
void* tag(int n) { return reinterpret_cast<void*>(static_cast<intptr_t>(n)); }

void* inthread(void* (*fn)(void*), void* arg) {
    thread_t tid{};
    void* result = nullptr;
    EXPECT_EQ(0, thr_create(nullptr, 0, fn, arg, 0, &tid));
    thr_join(tid, &result);
    return result;
}

}  // namespace

TEST(HsGlobal, InitIsIdempotentAndTermStartsAfresh) {
    ASSERT_EQ(0, hsgblinit());
    HS_GCB* first = HSGCB;
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(0, hsgblinit());
    EXPECT_EQ(first, HSGCB);
    EXPECT_NE(0u, first->gAbortKey);
    EXPECT_NE(0u, first->gExitKey);
    EXPECT_NE(0u, first->gBufKey);
    EXPECT_STREQ("VRTA", first->gPrintID);
    ASSERT_NE(nullptr, first->xmgcb);
    EXPECT_EQ(1, first->xmgcb->initialized);
    EXPECT_NE(nullptr, first->hsmemgcb);
    EXPECT_NE(nullptr, first->kortbgcb);

    xmterm(HSGCB->xmgcb);
    EXPECT_EQ(nullptr, HSGCB->xmgcb);
    EXPECT_EQ(0, hsgblterm());
    EXPECT_EQ(nullptr, HSGCB);
    // An allocation with nothing started brings the runtime up by itself.
    void* p = xmalloc(XM_THREADPOOL, 32, 0);
    EXPECT_NE(nullptr, p);
    ASSERT_NE(nullptr, HSGCB);
    EXPECT_NE(nullptr, HSGCB->xmgcb);
}

TEST(HsGlobal, AbortJumpsToTheSetBufferOrEndsTheThread) {
    ASSERT_EQ(0, hsgblinit());
    jmp_buf jb;
    jmp_buf* old = reinterpret_cast<jmp_buf*>(1);
    ASSERT_EQ(0, hssetabort(&jb, &old));
    EXPECT_EQ(nullptr, old);
    EXPECT_EQ(&jb, hsgetabort());
    volatile int code = setjmp(jb);
    if (code == 0) hsabort(static_cast<int>(0x8001000f));
    EXPECT_EQ(static_cast<int>(0x8001000f), code);
    jmp_buf* prev = nullptr;
    ASSERT_EQ(0, hssetabort(nullptr, &prev));
    EXPECT_EQ(&jb, prev);

    // A thread with no buffer ends quietly at hsabort; this thread goes on.
    static int after = 0;
    void* r = inthread([](void*) -> void* {
        hsabort(3);
        after = 1;
        return tag(1);
    }, nullptr);
    EXPECT_EQ(nullptr, r);
    EXPECT_EQ(0, after);
}

TEST(HsGlobal, ThreadExitVectorRunsInOrderWithRemovalAndLimit) {
    ASSERT_EQ(0, hsgblinit());
    seen.clear();
    static rctype rc11;
    inthread([](void*) -> void* {
        for (int i = 1; i <= 10; i++) EXPECT_EQ(0, hsaexit(note, tag(i)));
        rc11 = hsaexit(note, tag(11));
        EXPECT_EQ(0, hsuexit(note, tag(4)));
        EXPECT_EQ(0, hsuexit(note, tag(4)));
        return nullptr;
    }, nullptr);
    EXPECT_EQ(HS_RC_INIT, rc11);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 5, 6, 7, 8, 9, 10}), seen);
}

TEST(HsGlobal, TempDirIsCutToTheBuffer) {
    char buf[64];
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(8, hstmpdir(sizeof(buf), buf));
    EXPECT_STREQ("/var/tmp", buf);
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(8, hstmpdir(9, buf));  // the slash goes, the terminator fits
    EXPECT_STREQ("/var/tmp", buf);
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(4, hstmpdir(5, buf));
    EXPECT_STREQ("/var", buf);
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(3, hstmpdir(3, buf));  // no room for a terminator
    EXPECT_EQ(0, memcmp(buf, "/va#", 4));
}

TEST(HsGlobal, TruncatedDoublesKeepTheHighBytes) {
    unsigned char t[8];
    double d = 0;
    for (int len = 2; len <= 8; len++) {
        hscftrc(t, len, 1.5);
        hsrftrc(t, len, &d);
        EXPECT_EQ(1.5, d) << len;
    }
    double pi = 3.141592653589793;
    hscftrc(t, 4, pi);
    hsrftrc(t, 4, &d);
    EXPECT_NE(pi, d);
    EXPECT_NEAR(pi, d, 1e-6);
    uint64_t bits;
    memcpy(&bits, &d, 8);
    EXPECT_EQ(0u, bits & 0xffffffffu);
}

#include <gtest/gtest.h>
#include "ssup/thr.h"

using namespace vrta;

TEST(ThreadShim, SemaphoreHandsStatusFromChildToCreator) {
    struct Ctx { sema_t done; int status = 0; } ctx;
    ASSERT_EQ(0, sema_init(&ctx.done, 0));
    thread_t tid{};
    ASSERT_EQ(0, thr_create(nullptr, 0, [](void* a) -> void* {
        auto* c = static_cast<Ctx*>(a);
        c->status = 42;
        sema_post(&c->done);
        return nullptr;
    }, &ctx, 0, &tid));
    ASSERT_EQ(0, sema_wait(&ctx.done));
    EXPECT_EQ(42, ctx.status);
    thr_join(tid, nullptr);
    sema_destroy(&ctx.done);
}

TEST(ThreadShim, RecursiveMutexCanBeRetaken) {
    mutex_t m;
    ASSERT_EQ(0, mutex_init(&m, LOCK_RECURSIVE));
    ASSERT_EQ(0, mutex_lock(&m));
    EXPECT_EQ(0, mutex_trylock(&m));
    mutex_unlock(&m);
    mutex_unlock(&m);
    mutex_destroy(&m);
}

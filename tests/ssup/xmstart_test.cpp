// First use of the memory manager from several threads at once. Nothing in
// this executable touches the manager in the test process itself, so every
// forked child starts with none and its threads race to bring it up.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <thread>
#include <vector>

#include "hs/hs.h"
#include "ssup/xm.h"

using namespace vrta;

namespace {

// Exit status of a child: how many of its pool calls failed, capped.
int raceToFirstUse() {
    std::atomic<int> bad{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 6; t++)
        ts.emplace_back([&, t] {
            // Half of them start the process block first, as the engine entry
            // and the locale calls do; it brings up the manager too.
            if (t % 2 && hsgblinit() != 0) bad++;
            for (int i = 0; i < 40; i++) {
                xmpid p = xmpoolc(8192, 8192, 0);
                if (!p) {
                    bad++;
                    continue;
                }
                void* m = xmalloc(p, 100, XM_ZERO);
                if (!m) bad++;
                void* s = xmalloc(XM_SUPVPOOL, 64, 0);
                if (!s) bad++;
                else xmfree(XM_SUPVPOOL, s, 64);
                xmpoold(p);
            }
        });
    for (auto& t : ts) t.join();
    return bad > 100 ? 100 : bad.load();
}

}  // namespace

TEST(XmStart, ThreadsRacingToFirstUseAllGetWorkingPools) {
    // One child loses the race only now and then; many children make a
    // manager that is seen half built show up reliably.
    int failed = 0;
    for (int c = 0; c < 100; c++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(raceToFirstUse());
        int st = 0;
        ASSERT_EQ(pid, waitpid(pid, &st, 0));
        ASSERT_TRUE(WIFEXITED(st));
        if (WEXITSTATUS(st) != 0) failed++;
    }
    EXPECT_EQ(0, failed);
}

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sda/da.h"
#include "sda/dafd.h"
#include "sda/darc.h"
#include "fdutil.h"
#include "testutil.h"

using namespace vrta;

namespace {

struct Lib {
    vrtatest::TempDir tmp;
    DA_LIB* lp = nullptr;
    Lib() {
        DA_LIBSTR ls{};
        memcpy(ls.name, "LOCKLIB ", 8);
        ls.libpath = tmp.path().c_str();
        ls.libpath_l = static_cast<int>(tmp.path().size());
        ls.create = 1;
        EXPECT_GE(dagtlib(&ls, &lp), 0);
    }
    ~Lib() { EXPECT_GE(dafrlib(lp), 0); }
    std::string lockfile(const char* m) const { return tmp.file(std::string(m) + ".data.vrta_lock9"); }
};

using fdtest::there;

// A child process that takes a member lock, reports the result over a pipe
// and then holds it until told to release, or dies holding it.
struct Holder {
    pid_t pid = -1;
    int up[2]{-1, -1}, down[2]{-1, -1};
    rctype rc = 0;
    // Whether the child has reported its result within ms milliseconds.
    bool reported(int ms) {
        struct pollfd p = {up[0], POLLIN, 0};
        if (poll(&p, 1, ms) != 1) return false;
        return read(up[0], &rc, sizeof rc) == sizeof rc;
    }
    Holder(DA_LIB* lp, const char* mem, int omode, int dynflag = 0, bool wait = true) {
        if (pipe(up) != 0 || pipe(down) != 0) return;
        pid = fork();
        if (pid == 0) {
            close(up[0]);
            close(down[1]);
            DA_LOCK* lid = nullptr;
            pid_t owner = 0;
            rctype r = dalkmem(lp, mem, "DATA    ", DA_LKMEMBER, omode, thr_self(), dynflag, &lid, &owner);
            if (write(up[1], &r, sizeof r) != sizeof r) _exit(2);
            char cmd = 0;
            if (read(down[0], &cmd, 1) != 1) _exit(3);
            if (cmd == 'r' && r >= 0 && daulmem(lp, lid, DA_LKMEMBER, omode, thr_self()) != 0) _exit(5);
            if (write(up[1], &cmd, 1) != 1) _exit(4);
            _exit(0);
        }
        close(up[1]);
        close(down[0]);
        if (wait && read(up[0], &rc, sizeof rc) != sizeof rc) rc = 1;
    }
    // 'r' releases then exits; 'k' is killed while holding.
    void finish(char how) {
        if (pid <= 0) return;
        if (how == 'k') {
            kill(pid, SIGKILL);
        } else {
            char c = how;
            EXPECT_EQ(1, write(down[1], &c, 1));
            EXPECT_EQ(1, read(up[0], &c, 1));
        }
        int st = 0;
        waitpid(pid, &st, 0);
        close(up[0]);
        close(down[1]);
        pid = -1;
    }
    ~Holder() { finish('r'); }
};

}  // namespace

TEST(MemberLock, ReaderWithoutLockFileCreatesNoneAndNamesFoldCase) {
    Lib lib;
    DA_LOCK *a = nullptr, *b = nullptr;
    pid_t owner = -1;
    ASSERT_EQ(0, dalkmem(lib.lp, "Abc", "DATA    ", DA_LKMEMBER, DA_OMINPUT, thr_self(), 0, &a, &owner));
    EXPECT_FALSE(there(lib.lockfile("abc")));
    EXPECT_EQ(-1, a->lockfd);
    ASSERT_EQ(0, dalkmem(lib.lp, "ABC", "data", DA_LKMEMBER, DA_OMINPUT, thr_self(), 0, &b, &owner));
    EXPECT_EQ(a, b);
    EXPECT_EQ(2, a->refCount);
    EXPECT_GE(daulmem(lib.lp, b, DA_LKMEMBER, DA_OMINPUT, thr_self()), 0);
    EXPECT_GE(daulmem(lib.lp, a, DA_LKMEMBER, DA_OMINPUT, thr_self()), 0);
    // A name one character too long is refused, not cut to another member's.
    std::string longname(33, 'n');
    EXPECT_EQ(DA_BADARG, dalkmem(lib.lp, longname.c_str(), "DATA", DA_LKMEMBER, DA_OMUPDATE, thr_self(), 0, &a, &owner));
    ASSERT_EQ(0, dalkmem(lib.lp, longname.substr(1).c_str(), "DATA", DA_LKMEMBER, DA_OMUPDATE, thr_self(), 0, &a, &owner));
    EXPECT_GE(daulmem(lib.lp, a, DA_LKMEMBER, DA_OMUPDATE, thr_self()), 0);

    // A writer makes the file; its release as last holder removes it.
    ASSERT_EQ(0, dalkmem(lib.lp, "abc", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, thr_self(), 0, &a, &owner));
    EXPECT_TRUE(there(lib.lockfile("abc")));
    EXPECT_GE(daulmem(lib.lp, a, DA_LKMEMBER, DA_OMUPDATE, thr_self()), 0);
    EXPECT_FALSE(there(lib.lockfile("abc")));
}

TEST(MemberLock, ThreadsOfOneProcessFollowTheModeRules) {
    Lib lib;
    thread_t me = thr_self();
    DA_LOCK* w = nullptr;
    pid_t owner = 0;
    ASSERT_EQ(0, dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMOUTPUT, me, 0, &w, &owner));
    rctype other_in = 0, other_upd = 0;
    std::thread([&] {
        DA_LOCK* l = nullptr;
        pid_t o = 0;
        other_in = dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMINPUT, thr_self(), 0, &l, &o);
        other_upd = dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, thr_self(), 0, &l, &o);
    }).join();
    EXPECT_EQ(DA_LOCKCONF, other_in);
    EXPECT_EQ(DA_MODECONF, other_upd);
    // The writing thread itself may read what it writes.
    DA_LOCK* r = nullptr;
    ASSERT_EQ(0, dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMINPUT, me, 0, &r, &owner));
    EXPECT_EQ(w, r);
    EXPECT_GE(daulmem(lib.lp, r, DA_LKMEMBER, DA_OMINPUT, me), 0);
    EXPECT_GE(daulmem(lib.lp, w, DA_LKMEMBER, DA_OMOUTPUT, me), 0);

    // Two readers: neither may turn into an updater while the other reads;
    // once alone, a reader converts in place.
    DA_LOCK* r1 = nullptr;
    ASSERT_EQ(0, dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMINPUT, me, 0, &r1, &owner));
    std::atomic<int> stage{0};
    rctype conv_other = 0;
    DA_LOCK* r2 = nullptr;
    std::thread t2([&] {
        pid_t o = 0;
        EXPECT_EQ(0, dalkmem(lib.lp, "t", "DATA    ", DA_LKMEMBER, DA_OMINPUT, thr_self(), 0, &r2, &o));
        conv_other = daconlk(lib.lp, r2, DA_LKMEMBER, DA_OMINPUT, DA_OMUPDATE, thr_self(), &o);
        EXPECT_GE(daulmem(lib.lp, r2, DA_LKMEMBER, DA_OMINPUT, thr_self()), 0);
        stage = 1;
    });
    t2.join();
    EXPECT_EQ(DA_MODECONF, conv_other);
    EXPECT_EQ(1, stage.load());
    EXPECT_EQ(DA_BADARG, daconlk(lib.lp, r1, DA_LKMEMBER, DA_OMINPUT, DA_OMOUTPUT, me, &owner));
    ASSERT_EQ(0, daconlk(lib.lp, r1, DA_LKMEMBER, DA_OMINPUT, DA_OMUPDATE, me, &owner));
    EXPECT_EQ(DA_OMUPDATE, r1->omode);
    EXPECT_EQ(DA_LCKWRITE, r1->lockHeld);
    ASSERT_EQ(0, daconlk(lib.lp, r1, DA_LKMEMBER, DA_OMUPDATE, DA_OMINPUT, me, &owner));
    EXPECT_EQ(DA_LCKREAD, r1->lockHeld);
    EXPECT_GE(daulmem(lib.lp, r1, DA_LKMEMBER, DA_OMINPUT, me), 0);
    EXPECT_FALSE(there(lib.lockfile("t")));
}

TEST(MemberLock, AnotherProcessWaitsForOrFailsOnAHeldMember) {
    Lib lib;
    thread_t me = thr_self();
    DA_LOCK* l = nullptr;
    pid_t owner = 0;
    {
        Holder child(lib.lp, "m", DA_OMUPDATE);
        ASSERT_EQ(0, child.rc);
        EXPECT_EQ(DA_RDLOCKED, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMINPUT, me, 0, &l, &owner));
        EXPECT_EQ(child.pid, owner);
        EXPECT_EQ(DA_WRLOCKED, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, 0, &l, &owner));
        EXPECT_EQ(child.pid, owner);
        child.finish('r');
    }
    // Released and gone: the lock is ours, and our release removes the file.
    ASSERT_EQ(0, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, 0, &l, &owner));
    EXPECT_GE(daulmem(lib.lp, l, DA_LKMEMBER, DA_OMUPDATE, me), 0);
    EXPECT_FALSE(there(lib.lockfile("m")));
    {
        Holder child(lib.lp, "m", DA_OMINPUT);
        // The child found no lock file and took nothing: we may write.
        ASSERT_EQ(0, child.rc);
        ASSERT_EQ(0, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, 0, &l, &owner));
        EXPECT_GE(daulmem(lib.lp, l, DA_LKMEMBER, DA_OMUPDATE, me), 0);
    }
    {
        // A reader in another process that holds a lock file keeps writers out.
        ASSERT_EQ(0, dalkmem(lib.lp, "m", "DATA    ", DA_LKBACKUP, DA_OMINPUT, me, 0, &l, &owner));
        Holder child(lib.lp, "m", DA_OMINPUT);
        ASSERT_EQ(0, child.rc);
        EXPECT_GE(daulmem(lib.lp, l, DA_LKBACKUP, DA_OMINPUT, me), 0);
        EXPECT_TRUE(there(lib.lockfile("m")));  // the child still holds it
        EXPECT_EQ(DA_WRLOCKED, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, 0, &l, &owner));
        EXPECT_EQ(child.pid, owner);
        // A holder that dies loses its locks with its process.
        child.finish('k');
    }
    ASSERT_EQ(0, dalkmem(lib.lp, "m", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, 0, &l, &owner));
    EXPECT_GE(daulmem(lib.lp, l, DA_LKMEMBER, DA_OMUPDATE, me), 0);
    EXPECT_FALSE(there(lib.lockfile("m")));
}

TEST(MemberLock, ProcessesRacingOnTheLastUnlockNeverLoseTheLock) {
    Lib lib;
    // Both processes take and drop a shared hold that creates the file, so
    // each release may be the last one and delete it under the other's feet.
    constexpr int rounds = 300;
    pid_t pid = fork();
    if (pid == 0) {
        int bad = 0;
        for (int i = 0; i < rounds; i++) {
            DA_LOCK* l = nullptr;
            pid_t o = 0;
            if (dalkmem(lib.lp, "race", "DATA    ", DA_LKBACKUP, DA_OMINPUT, thr_self(), 0, &l, &o) != 0) bad++;
            else if (daulmem(lib.lp, l, DA_LKBACKUP, DA_OMINPUT, thr_self()) != 0) bad++;
        }
        _exit(bad ? 1 : 0);
    }
    int bad = 0;
    bool sawHeld = false;
    for (int i = 0; i < rounds; i++) {
        DA_LOCK* l = nullptr;
        pid_t o = 0;
        if (dalkmem(lib.lp, "race", "DATA    ", DA_LKBACKUP, DA_OMINPUT, thr_self(), 0, &l, &o) != 0) {
            bad++;
            continue;
        }
        // While we hold it, the file must be there and be the one we lock.
        struct stat a, b;
        sawHeld = fstat(l->lockfd, &a) == 0 && stat(lib.lockfile("race").c_str(), &b) == 0 && a.st_ino == b.st_ino;
        if (!sawHeld) bad++;
        EXPECT_GE(daulmem(lib.lp, l, DA_LKBACKUP, DA_OMINPUT, thr_self()), 0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_EQ(0, bad);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(0, WEXITSTATUS(st));
    EXPECT_FALSE(there(lib.lockfile("race")));
}

TEST(MemberLock, ManyThreadsShareOneLockBlockAndLeaveNothingBehind) {
    Lib lib;
    constexpr int nthreads = 8, rounds = 200;
    std::atomic<int> failures{0};
    DA_LOCK* held = nullptr;
    pid_t owner = 0;
    // One long-lived reader keeps the file so that the others share its block.
    ASSERT_EQ(0, dalkmem(lib.lp, "mt", "DATA    ", DA_LKBACKUP, DA_OMINPUT, thr_self(), 0, &held, &owner));
    std::vector<std::thread> ts;
    for (int t = 0; t < nthreads; t++)
        ts.emplace_back([&] {
            for (int i = 0; i < rounds; i++) {
                DA_LOCK* l = nullptr;
                pid_t o = 0;
                // Library lock outermost, then the lock blocks, as everywhere.
                dalklib(lib.lp);
                rctype rc = dalkmem(lib.lp, "MT", "DATA    ", DA_LKMEMBER, DA_OMINPUT, thr_self(), 0, &l, &o);
                daullib(lib.lp);
                if (rc != 0 || l != held) {
                    failures++;
                    continue;
                }
                EXPECT_GE(daulmem(lib.lp, l, DA_LKMEMBER, DA_OMINPUT, thr_self()), 0);
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(1, held->refCount);
    EXPECT_EQ(1, held->numtlb);
    EXPECT_GE(daulmem(lib.lp, held, DA_LKBACKUP, DA_OMINPUT, thr_self()), 0);
    EXPECT_FALSE(there(lib.lockfile("mt")));
    EXPECT_EQ(nullptr, dagcb.lcbs);
}

TEST(MemberLock, DynamicOpenersShareAndKeepTheUpdaterAlone) {
    Lib lib;
    thread_t me = thr_self();
    DA_LOCK *d1 = nullptr, *plain = nullptr;
    pid_t owner = 0;
    ASSERT_EQ(0, dalkmem(lib.lp, "dy", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, DA_LKDYNAMIC, &d1, &owner));
    EXPECT_TRUE(d1->flags & DA_LCKDYNAMIC);
    // A plain opener in this process is refused.
    EXPECT_EQ(DA_DYNCONF, dalkmem(lib.lp, "dy", "DATA    ", DA_LKMEMBER, DA_OMINPUT, me, 0, &plain, &owner));
    // Another process may open dynamically for input but is kept out of update.
    {
        Holder reader(lib.lp, "dy", DA_OMINPUT, DA_LKDYNAMIC);
        EXPECT_EQ(0, reader.rc);
    }
    // A second dynamic updater elsewhere waits until the first one leaves.
    {
        Holder upd(lib.lp, "dy", DA_OMUPDATE, DA_LKDYNAMIC, false);
        EXPECT_FALSE(upd.reported(300));
        EXPECT_GE(daulmem(lib.lp, d1, DA_LKMEMBER, DA_OMUPDATE, me), 0);
        ASSERT_TRUE(upd.reported(10000));
        EXPECT_EQ(0, upd.rc);
    }
    ASSERT_EQ(0, dalkmem(lib.lp, "dy", "DATA    ", DA_LKMEMBER, DA_OMUPDATE, me, DA_LKDYNAMIC, &d1, &owner));
    EXPECT_EQ(0, dalkdyn(d1, DA_SHRREAD));
    EXPECT_EQ(DA_BADARG, dalkdyn(d1, 99));
    EXPECT_EQ(0, dalkdyn(d1, DA_SHRCLEAR));
    EXPECT_EQ(0, dalkdyn(d1, DA_SHRUPDATE));
    EXPECT_EQ(DA_DYNCONF, dalkdyn(d1, DA_SHRUPDATE));
    EXPECT_EQ(DA_BADARG, dalkdyn(d1, DA_SHRREAD));
    EXPECT_EQ(0, dalkdyn(d1, DA_SHRCLEAR));
    EXPECT_GE(daulmem(lib.lp, d1, DA_LKMEMBER, DA_OMUPDATE, me), 0);
    EXPECT_FALSE(there(lib.lockfile("dy")));
}

TEST(MemberLock, TheTablesFirstBytesGuardItWhenNoLockFileExists) {
    Lib lib;
    thread_t me = thr_self();
    // A real metadata file, whose FIB region takes the component lock.
    ASSERT_TRUE(fdtest::makemdf(lib.lp->meta[0].path, "ct.mdf"));

    DA_LOCK* r = nullptr;
    pid_t owner = 0;
    ASSERT_EQ(0, dalkmem(lib.lp, "ct", "DATA    ", DA_LKMEMBER, DA_OMINPUT, me, 0, &r, &owner));
    EXPECT_FALSE(there(lib.lockfile("ct")));
    ASSERT_NE(nullptr, r->memfd);
    EXPECT_EQ(DA_LCKREAD, r->memlock);
    {
        // A writer elsewhere gets the lock file but not the table's first bytes,
        // and leaves no lock file behind.
        Holder child(lib.lp, "ct", DA_OMUPDATE);
        EXPECT_EQ(DA_WRLOCKED, child.rc);
        Holder reader(lib.lp, "ct", DA_OMINPUT);
        EXPECT_EQ(0, reader.rc);
    }
    EXPECT_FALSE(there(lib.lockfile("ct")));
    // Alone, the reader becomes an updater in place and back.
    ASSERT_EQ(0, daconlk(lib.lp, r, DA_LKMEMBER, DA_OMINPUT, DA_OMUPDATE, me, &owner));
    EXPECT_EQ(DA_LCKWRITE, r->memlock);
    {
        Holder reader(lib.lp, "ct", DA_OMINPUT);
        EXPECT_EQ(DA_RDLOCKED, reader.rc);
    }
    ASSERT_EQ(0, daconlk(lib.lp, r, DA_LKMEMBER, DA_OMUPDATE, DA_OMINPUT, me, &owner));
    EXPECT_EQ(DA_LCKREAD, r->memlock);
    EXPECT_GE(daulmem(lib.lp, r, DA_LKMEMBER, DA_OMINPUT, me), 0);
    {
        Holder child(lib.lp, "ct", DA_OMUPDATE);
        EXPECT_EQ(0, child.rc);
    }
    EXPECT_FALSE(there(lib.lockfile("ct")));
}

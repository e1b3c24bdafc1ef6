// The entry's argument gates and the end of an engine id.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "eng/hpd.h"
#include "eng/yxsoc.h"
#include "hs/hsgcb.h"
#include "option/op.h"
#include "sda/da.h"
#include "sda/dafd.h"
#include "ssup/vv.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

// Host blocks that stand out from the module's own: copies of the blocks in
// use with a marker, so an import is seen by value and by address.
struct HostBlocks {
    VVGCB vv;
    void* opts;
    DA_GCB da;
    DA_IOGCB daio;
    HS_GCB hs;
    YPMSG_GCB yk;

    // The runtime must be up (RuntimeUp) before a copy is taken.
    HostBlocks() {
        void* mine = opgtgbl();
        opts = opclonegbl();  // stores the clone: put ours back
        opstgbl(mine);
        std::memcpy(&vv, vvgcbp(), sizeof vv);
        vv.gcb[13] = &vv;
        da = dagcb;
        da.numCpu = 7777;
        daio = daiogcb;
        daio.fibsize = 4242;
        hs = *HSGCB;
        yk = *YKGCB;
    }
    ~HostBlocks() { std::free(opts); }  // the clone is malloc'ed; nothing holds it by now
};

#if defined(__SANITIZE_ADDRESS__)
struct LeakScope {
    bool on;
    explicit LeakScope(bool quiet) : on(quiet) {
        if (on) __lsan_disable();
    }
    ~LeakScope() {
        if (on) __lsan_enable();
    }
};
#else
struct LeakScope {
    explicit LeakScope(bool) {}
};
#endif

// Runs vrtaeng with argc and the host blocks, everything past argc poisoned
// so that reading a slot past argc would import garbage we can see.
struct Call {
    std::vector<void*> argv;
    int rc = -1;
    int ret = -1;
    Call(int argc, HostBlocks& h, bool importvv) : argv(10) {
        static char poison[8192];
        std::memset(poison, 0xee, sizeof poison);
        argv = {nullptr, nullptr, nullptr, &rc, importvv ? &h.vv : nullptr, h.opts, &h.da, &h.daio, &h.hs, &h.yk};
        for (int i = argc; i < 10; ++i) argv[i] = poison;
        // A private anchor rebuilds the layer blocks over the live ones, which
        // are left behind by design; that is not this test's leak to report.
        LeakScope quiet(!importvv);
        ret = vrtaeng(argc, argv.data());
    }
    ~Call() {
        if (rc == 0) hpdterm(argv[VRTAENG_ID]);
    }
};

// What the process had before a test, put back after it.
struct Saved {
    VVGCB vv = *vvgcbp();
    void* opts = opgtgbl();
    DA_GCB da = dagcb;
    DA_IOGCB daio = daiogcb;
    HS_GCB* hs = HSGCB;
    YPMSG_GCB* yk = YKGCB;
    ~Saved() {
        std::memcpy(vvgcbp(), &vv, sizeof vv);
        opstgbl(opts);
        dagcb = da;
        daiogcb = daio;
        HSGCB = hs;
        YKGCB = yk;
    }
};

// Brings up the blocks the copies are taken from.
void runtimeUp() {
    if (std::memcmp(vvgcbp()->eye, "VGCB", 4) != 0) {
        ASSERT_EQ(vvinit(), 0);
    }
    ASSERT_EQ(hsgblinit(), 0);
    ASSERT_NE(xkinit(), nullptr);
    ASSERT_NE(opinitgbl(), nullptr);
}

}  // namespace

TEST(VrtaengGates, EachArgcImportsExactlyTheSlotsItCovers) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    for (int argc = 5; argc <= 10; ++argc) {
        SCOPED_TRACE(argc);
        for (bool importvv : {false, true}) {
            SCOPED_TRACE(importvv ? "imported anchor" : "private anchor");
            Saved s;
            Call c(argc, h, importvv);
            ASSERT_EQ(c.ret, 0);
            EXPECT_EQ(c.rc, 0);
            ASSERT_NE(c.argv[VRTAENG_ENGTBL], nullptr);
            ASSERT_NE(c.argv[VRTAENG_ID], nullptr);
            // argv[4] is read whatever argc is: imported bytes, or a fresh table.
            EXPECT_EQ(std::memcmp(vvgcbp()->eye, "VGCB", 4), 0);
            EXPECT_EQ(vvgcbp()->gcb[13] == &h.vv, importvv);
            EXPECT_EQ(opgtgbl() == h.opts, argc >= 6);
            EXPECT_NE(opgtgbl(), nullptr);
            EXPECT_EQ(dagcb.numCpu == 7777, argc >= 7);
            EXPECT_EQ(daiogcb.fibsize == 4242, argc >= 8);
            EXPECT_EQ(HSGCB == &h.hs, argc >= 9);
            EXPECT_EQ(YKGCB == &h.yk, argc >= 10);
            EXPECT_NE(HSGCB, nullptr);
            EXPECT_NE(YKGCB, nullptr);
        }
    }
}

TEST(VrtaengGates, NullHostBlocksAreBuiltAsIfAbsent) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    Saved s;
    int rc = -1;
    void* argv[10] = {nullptr, nullptr, nullptr, &rc, &h.vv, nullptr, nullptr, nullptr, nullptr, nullptr};
    ASSERT_EQ(vrtaeng(10, argv), 0);
    EXPECT_EQ(rc, 0);
    EXPECT_NE(opgtgbl(), nullptr);
    EXPECT_NE(HSGCB, nullptr);
    EXPECT_NE(YKGCB, nullptr);
    EXPECT_EQ(hpdterm(argv[VRTAENG_ID]), 0);
    std::free(opgtgbl());  // the table built here; Saved puts the process's back
}

TEST(VrtaengGates, EngineIdCarriesTheHeaderAndBecomesTheLast) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    Saved s;
    Call a(5, h, true);
    Call b(5, h, true);
    ASSERT_EQ(a.rc, 0);
    ASSERT_EQ(b.rc, 0);
    auto* ea = static_cast<HPDECB*>(a.argv[VRTAENG_ID]);
    auto* eb = static_cast<HPDECB*>(b.argv[VRTAENG_ID]);
    EXPECT_NE(ea, eb);
    EXPECT_NE(a.argv[VRTAENG_ENGTBL], b.argv[VRTAENG_ENGTBL]);
    EXPECT_EQ(HPDGCB, eb);
    EXPECT_EQ(std::memcmp(ea->dbihdr.eng_name, "KORVRTA ", 8), 0);
    EXPECT_EQ(std::memcmp(ea->id, "HPDE", 4), 0);
    EXPECT_EQ(ea->serv, nullptr);
    EXPECT_EQ(ea->lib, nullptr);
    EXPECT_EQ(VRTA_BACKUP, -1);
    EXPECT_EQ(VRTA_RESTORE, -1);
}

TEST(VrtaengGates, BindAddressComesFromTheEnvironment) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    Saved s;
    setenv("VRTABINDADDR", "10.1.2.3", 1);
    {
        Call c(5, h, true);
        ASSERT_EQ(c.rc, 0);
        ASSERT_NE(HPDBINDADDR, nullptr);
        EXPECT_STREQ(HPDBINDADDR, "10.1.2.3");
    }
    unsetenv("VRTABINDADDR");
    Call c(5, h, true);
    EXPECT_EQ(HPDBINDADDR, nullptr);
}

namespace {

// A connection as the connection layer leaves it: the socket record and its
// buffers from the process pool.
HPDSERV* makeServ(int fd) {
    auto* s = static_cast<HPDSERV*>(xmalloc(XM_THREADPOOL, sizeof(HPDSERV), XM_ZERO));
    if (fd < 0) return s;
    auto* so = static_cast<YXSOCK_OPEN*>(xmalloc(XM_THREADPOOL, sizeof(YXSOCK_OPEN), XM_ZERO));
    so->s = fd;
    so->ibufl = so->obufl = 8192;
    so->inbuf = static_cast<char*>(xmalloc(XM_THREADPOOL, so->ibufl, 0));
    so->outbuf = static_cast<char*>(xmalloc(XM_THREADPOOL, so->obufl, 0));
    so->lrecl = 256;
    so->termlen = 1;
    so->reca = xmalloc(XM_THREADPOOL, so->lrecl, 0);
    so->recouta = xmalloc(XM_THREADPOOL, so->lrecl + so->termlen, 0);
    so->term = static_cast<char*>(xmalloc(XM_THREADPOOL, 4, 0));
    so->fds.fdslen = 256;
    so->fds.fdss = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
    so->fds.fdsw = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
    s->sopen = so;
    return s;
}

}  // namespace

TEST(Hpdterm, ClosesEveryConnectionWithASocketAndSkipsTheRest) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    Saved s;
    int rc = -1;
    void* argv[5] = {nullptr, nullptr, nullptr, &rc, &h.vv};
    ASSERT_EQ(vrtaeng(5, argv), 0);
    auto* ecb = static_cast<HPDECB*>(argv[VRTAENG_ID]);

    int p1[2], p2[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, p1), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, p2), 0);
    HPDSERV* a = makeServ(p1[0]);
    HPDSERV* bare = makeServ(-1);
    HPDSERV* c = makeServ(p2[0]);
    a->next = bare;
    bare->prev = a;
    bare->next = c;
    c->prev = bare;
    std::memcpy(bare->servname, "still-here", 11);
    ecb->serv = a;

    EXPECT_EQ(hpdterm(ecb), 0);
    // The peers see the connections go away.
    char byte;
    EXPECT_EQ(read(p1[1], &byte, 1), 0);
    EXPECT_EQ(read(p2[1], &byte, 1), 0);
    // The entry without a socket is left to its owner, intact.
    EXPECT_STREQ(bare->servname, "still-here");
    EXPECT_EQ(bare->next, c);  // links are not rewritten either
    EXPECT_NE(HPDGCB, ecb);
    xmfree(XM_THREADPOOL, bare, sizeof(HPDSERV));
    close(p1[1]);
    close(p2[1]);
}

TEST(Hpdterm, EmptyServerListFreesTheBlockOnly) {
    ASSERT_NO_FATAL_FAILURE(runtimeUp());
    HostBlocks h;
    Saved s;
    int rc = -1;
    void* argv[5] = {nullptr, nullptr, nullptr, &rc, &h.vv};
    ASSERT_EQ(vrtaeng(5, argv), 0);
    auto* tbl = static_cast<HPD_ENGTBL*>(argv[VRTAENG_ENGTBL]);
    EXPECT_EQ(reinterpret_cast<int (*)(void*)>(tbl->xhen.yheterm)(argv[VRTAENG_ID]), 0);
    // The vector stays the host's to use for the next id's lookups.
    EXPECT_EQ(tbl->xhen.yheterm, reinterpret_cast<u_xgfptr>(&hpdterm));
}

TEST(YxsClose, ClosesTheClientDescriptorTooAndIsSafeTwice) {
    int p[2], q[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, p), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, q), 0);
    HPDSERV* s = makeServ(p[0]);
    YXSOCK_OPEN* so = s->sopen;
    so->cs = q[0];
    EXPECT_EQ(yxsclos(so), 0);
    char byte;
    EXPECT_EQ(read(p[1], &byte, 1), 0);
    EXPECT_EQ(read(q[1], &byte, 1), 0);
    // A second close finds nothing left to close or free; descriptor 0 is never touched.
    EXPECT_EQ(yxsclos(so), 0);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    xmfree(XM_THREADPOOL, so, sizeof *so);
    xmfree(XM_THREADPOOL, s, sizeof *s);
    close(p[1]);
    close(q[1]);
}

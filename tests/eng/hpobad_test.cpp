// A server that lies: an open stream out of order or cut short, and data
// ports that send absurd lengths, blocks that do not decode, or go away
// inside a block. The engine fails with the specified code, hands out no
// part of a bad block, frees the open and stays usable.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <deque>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdl.h"
#include "eng/hpdmsg.h"
#include "eng/hpdo.h"
#include "eng/hpdutl.h"
#include "ssup/thr.h"
#include "ssup/vv.h"
#include "tblutil.h"
#include "wireutil.h"

using namespace vrta;

namespace {

constexpr int RECLEN = 16;  // two columns of 8 bytes
constexpr int BF = 4;       // rows a block

int listenLoop(int* port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t al = sizeof a;
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, 4) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &al) != 0)
        return -1;
    *port = ntohs(a.sin_port);
    return s;
}

std::string le4(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// What the server does for one open: how its column stream goes, and the
// bytes it puts on the data port after the read starts.
struct Plan {
    bool swapcols = false;   // the second column's record comes first
    bool cutstream = false;  // the connection ends after the first column
    std::string data;        // then the connection ends
};

class Liar {
public:
    explicit Liar(std::deque<Plan> plans) : plans_(std::move(plans)) {
        lfd_ = listenLoop(&port_);
        dfdl_ = listenLoop(&dport_);
        EXPECT_EQ(0, vvcthrl(nullptr, 0, main, this, 0, &tid_, VV_LCB_XM | VV_LCB_XP));
    }
    ~Liar() {
        stop_ = true;
        thr_join(tid_, nullptr);
        close(lfd_);
        close(dfdl_);
    }
    int port() const { return port_; }

private:
    static void* main(void* a) {
        auto* l = static_cast<Liar*>(a);
        for (int k = 0; k < 20 && !l->stop_; ++k) l->serveone();
        return nullptr;
    }
    // Waits for fd to be readable, at most 20 s, or until stopped.
    bool ready(int fd) {
        for (int i = 0; i < 200 && !stop_; ++i) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 100) > 0) return true;
        }
        return false;
    }
    void serveone() {
        if (!ready(lfd_)) return;
        int fd = accept(lfd_, nullptr, nullptr);
        YXSOCK_OPEN so{};
        so.mode = 3;
        so.type = YXS_COUNTED;
        so.lrecl = 4096;
        so.waitms = 20000;
        if (fd < 0 || yxsadopt(&so, fd) != 0) return;
        converse(&so);
        yxsclos(&so);
    }
    void converse(YXSOCK_OPEN* so) {
        unsigned char m[4];
        hpdput4(m, 1234);
        if (hpcwrit(yxsfd(so), m, 4, nullptr) != 0) return;
        DS_HDR_METHOD h;
        if (hpdrecvxm(so, &h) != 0) return;
        DS_SERVER_INIT_REPLY ir{};
        ir.msg = ir.aclgrp = ir.token = "";
        if (hpdsendxr(so, DS_HDR_REPLY{24, 0, {}, 0, 0}, 12, &DS_SERVER_INIT_REPLY_D, &ir) != 0) return;
        PROXY_ACK ack;
        std::memset(&ack, ' ', sizeof ack);
        std::memcpy(ack.prot, "4.50", 4);
        std::memcpy(ack.osname, "SOL-x64 ", 8);
        std::memset(ack.filler, 0, sizeof ack.filler);
        if (hpcwrit(yxsfd(so), &ack, sizeof ack, nullptr) != 0) return;
        Plan plan;
        int dfd = -1;
        for (int n = 0; n < 100 && !stop_; ++n) {
            // The engine connects its data port before it asks for rows.
            pollfd p[2] = {{yxsfd(so), POLLIN, 0}, {dfdl_, POLLIN, 0}};
            int r = 0;
            for (int w = 0; so->left == 0 && r == 0 && w < 200 && !stop_; ++w) r = poll(p, 2, 100);
            if (so->left == 0 && r <= 0) break;
            if (so->left == 0 && (p[1].revents & POLLIN)) {
                dfd = accept(dfdl_, nullptr, nullptr);
                char hello = 0;
                if (write(dfd, &hello, 1) != 1) break;
                continue;
            }
            if (hpdrecvm(so, 1, &h) != 0) break;
            if (h.id == DSM_YHELASG) {
                DS_YHELASG_REPLY r{};
                r.msg = r.usertok = "";
                r.phys = r.metapath = r.indxpath = r.datapath = "/no/such/dir";
                r.physlen = r.metalen = r.indxlen = r.datalen = 12;
                r.libid = 1;
                if (hpdsendr(so, DS_HDR_REPLY{0, 0, {}, 0, 0}, 1, 12, &DS_YHELASG_REPLY_D, &r) != 0) break;
            } else if (h.id == DSM_YOEOPEN) {
                plan = plans_.empty() ? Plan{} : plans_.front();
                if (!plans_.empty()) plans_.pop_front();
                if (!open(so, plan)) break;
            } else if (h.id == DSM_YOEGET_START) {
                DS_YOEGET_START_REPLY_452 r{};
                r.msg = r.tree = "";
                if (hpdsendr(so, DS_HDR_REPLY{17, 0, {}, 0, 0}, 1, 12, &DS_YOEGET_START_REPLY_452_D, &r) != 0) break;
                if (dfd < 0 && ready(dfdl_)) dfd = accept(dfdl_, nullptr, nullptr);
                if (dfd >= 0 && !plan.data.empty() && write(dfd, plan.data.data(), plan.data.size()) < 0) break;
                if (dfd >= 0) close(dfd);
                dfd = -1;
            } else if (h.id == DSM_YOECLOS) {
                DS_YOECLOS_REPLY r{};
                r.msg = "";
                std::memset(&r.pct, 0xff, 8);
                if (hpdsendr(so, DS_HDR_REPLY{12, 0, {}, 0, 0}, 1, 12, &DS_YOECLOS_REPLY_D, &r) != 0) break;
            } else if (h.id != DSM_YOEGET_TERM) {
                DS_MSG_REPLY r{};
                r.msg = "";
                if (hpdsendr(so, DS_HDR_REPLY{h.id, 0, {}, 0, 0}, 1, 12, &DS_MSG_REPLY_D, &r) != 0) break;
            }
        }
        if (dfd >= 0) close(dfd);
    }
    bool open(YXSOCK_OPEN* so, const Plan& plan) {
        DS_YOEOPEN_REPLY r{};
        r.msg = r.label = r.spare1 = r.unixpath = r.vars = r.rangeinfo = r.dsn_clust = "";
        r.openid = 1;
        r.numobs = 10;
        r.obslen = RECLEN;
        r.blockfactor = BF;
        r.portno = dport_;
        r.nvar = 2;
        std::memcpy(r.dstype, "DATA    ", 8);
        if (hpdsendr(so, DS_HDR_REPLY{8, 0, {}, 0, 0}, 1, 12, &DS_YOEOPEN_REPLY_D, &r) != 0) return false;
        so->nread = 1;
        if (yxsread(so) != 0 || so->recl != 1 || static_cast<char*>(so->reca)[0] != 0) return false;
        for (int k = 0; k < 2; ++k) {
            int v = plan.swapcols ? 2 - k : k + 1;
            DS_YOEOPEN_NAMESTR_REPLY c{};
            c.varnum = v;
            c.ns.nvar0 = v;
            std::memset(c.ns.nname, ' ', 32);
            c.ns.nname[0] = static_cast<char>('A' + v - 1);
            c.ns.ntype = 1;
            c.ns.npos = 8 * (v - 1);
            c.ns.nlng = 8;
            c.ns.nlabel = c.min = c.max = "";
            if (hpdsendr(so, DS_HDR_REPLY{8, 0, {}, 0, 0}, 1, 12, &DS_YOEOPEN_NAMESTR_REPLY_D, &c) != 0) return false;
            if (plan.cutstream) return false;
        }
        return true;
    }

    std::deque<Plan> plans_;
    int lfd_ = -1, dfdl_ = -1, port_ = 0, dport_ = 0;
    thread_t tid_{};
    std::atomic<bool> stop_{false};
};

class Bad : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp()); }
    void TearDown() override {
        while (hpd.lib) hpdlfree(hpd.lib);
        for (HPDSERV* s = hpd.serv; s;) {
            HPDSERV* n = s->next;
            hpdsfree(s);
            s = n;
        }
    }
    rctype assign(yhlibref* ref, int port) {
        HPDOPT o = wiretest::loopOpt(std::to_string(port), "u", "p");
        std::memset(ref, 0, sizeof *ref);
        std::memset(ref->libref, ' ', 8);
        std::string path = "/no/such/dir";
        void* pn = path.data();
        int sz = 12, fmt = 0, flags = 0;
        void* tok = nullptr;
        return hpdlasg(&hpd, ref, nullptr, &pn, &sz, &o, &fmt, nullptr, &tok, &flags);
    }
    rctype open(const yhlibref& ref, void** fid, XOFPENT* fast) {
        XOPNSTR q{};
        q.peng_lib = ref.englib;
        std::memset(q.memname, ' ', 32);
        std::memcpy(q.memname, "T", 1);
        std::memset(q.memtype, ' ', 8);
        q.openmode = XO_INPUT;
        q.fast_path = fast;
        return hpoopen(&hpd, fid, &q);
    }
    HPDECB hpd{};
};

// A block: its length (negative, plain) and rows of RECLEN bytes of c.
std::string plain(int rows, char c) { return le4(-rows * RECLEN) + std::string(static_cast<size_t>(rows) * RECLEN, c); }

}  // namespace

TEST_F(Bad, AColumnOutOfSequenceOrAStreamCutShortFailsTheOpen) {
    Liar l({Plan{true, false, ""}, Plan{false, true, ""}});
    yhlibref ref;
    ASSERT_EQ(assign(&ref, l.port()), 0) << wiretest::subst();
    void* fid = reinterpret_cast<void*>(1);
    XOFPENT fast{};
    EXPECT_EQ(open(ref, &fid, &fast), static_cast<rctype>(0x80040016u));
    EXPECT_EQ(fid, nullptr);
    // The rest of that stream cannot be told from the next reply: the
    // connection is given up, and the next assign makes a fresh one.
    EXPECT_EQ(static_cast<HPDLIB*>(ref.englib)->sopen->eof, 1);
    hpdldas(&hpd, &ref);
    ASSERT_EQ(assign(&ref, l.port()), 0) << wiretest::subst();
    EXPECT_EQ(open(ref, &fid, &fast), static_cast<rctype>(0x80010005u));
    EXPECT_EQ(fid, nullptr);
    hpdldas(&hpd, &ref);
}

TEST_F(Bad, BadBlocksFailTheReadWithoutAPartialRow) {
    const std::string good = plain(BF, 'g');
    struct Case {
        const char* what;
        std::string data;
        int rowsbefore;  // good rows handed out before the failure
    } cases[] = {
        {"a length past the block buffer", le4(-(BF * (RECLEN + 8) + 1)) + std::string(8, 'x'), 0},
        {"the plain flag with an absurd length", le4(INT_MIN), 0},
        {"a compressed block cut inside an escape", le4(3) + "ab\x19", 0},
        {"a compressed block that expands past the buffer", le4(6) + "\x19\x80\x19\x80\x19\x80", 0},
        {"the port closed inside a block", le4(-2 * RECLEN) + std::string(RECLEN + 3, 'h'), 0},
        {"the port closed after a good block", good, BF},
    };
    std::deque<Plan> plans;
    for (const Case& c : cases) plans.push_back(Plan{false, false, c.data});
    plans.push_back(Plan{false, false, plain(1, 'g') + good + plain(3, 'g') + le4(0)});
    Liar l(plans);
    yhlibref ref;
    ASSERT_EQ(assign(&ref, l.port()), 0) << wiretest::subst();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        void* fid = nullptr;
        XOFPENT fast{};
        ASSERT_EQ(open(ref, &fid, &fast), 0) << wiretest::subst();
        auto* dcb = static_cast<HPDDCB*>(fid);
        rctype rc = 0;
        int rows = 0;
        for (int k = 0; k < 100; ++k) {
            void* row = nullptr;
            rc = fast.getn(fast.fpfid, &row);
            if (rc != 0) break;
            EXPECT_EQ(static_cast<char*>(row)[0], 'g');
            ++rows;
        }
        EXPECT_EQ(rc, static_cast<rctype>(0x80010005u)) << wiretest::subst();
        EXPECT_EQ(rows, c.rowsbefore);
        EXPECT_EQ(dcb->dopen, nullptr);  // the data port is given up
        void* row = nullptr;
        EXPECT_EQ(fast.getn(fast.fpfid, &row), HPO_RC_EOF);  // and nothing more comes
        // The main connection is fine: the table closes there.
        EXPECT_EQ(hpoclos(fid, 0), 0) << wiretest::subst();
    }
    // A good stream on the same connection still reads; the fast entry
    // moves between the block reader and the in-block one as the blocks go.
    void* fid = nullptr;
    XOFPENT fast{};
    ASSERT_EQ(open(ref, &fid, &fast), 0) << wiretest::subst();
    void* row = nullptr;
    ASSERT_EQ(fast.getn(fast.fpfid, &row), 0);
    EXPECT_EQ(fast.getn, &hpgetbc);  // a block of one row
    ASSERT_EQ(fast.getn(fast.fpfid, &row), 0);
    EXPECT_EQ(fast.getn, &hpgetnf);
    rctype rc = 0;
    auto rows = wiretest::readAll(fid, &fast, RECLEN, &rc, 100);
    EXPECT_EQ(rc, HPO_RC_EOF);
    EXPECT_EQ(rows.size(), static_cast<size_t>(BF + 2));
    EXPECT_EQ(fast.getn, &hpgetnc);
    EXPECT_EQ(hpoclos(fid, 0), 0);
    EXPECT_EQ(hpdldas(&hpd, &ref), 0);
}

// Connections end to end against our reference servers on loopback: logins
// at each protocol level, passwords, the name server, dead connections, and
// several data servers behind one name server.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "srvutil.h"
#include "testutil.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::LogCatch;
using wiretest::Server;

namespace {

class Conn : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp());
        pw = dir.file("pw");
        ASSERT_TRUE(wiretest::addUser(pw, "alice", "secret1"));
        ASSERT_TRUE(wiretest::addUser(pw, "bob", "oldpass1", true));
        std::memset(&hpd, 0, sizeof hpd);
    }
    void TearDown() override {
        // What a test left linked goes the way hpdterm sends it.
        for (HPDSERV* s = hpd.serv; s;) {
            HPDSERV* n = s->next;
            hpdsfree(s);
            s = n;
        }
    }
    std::unique_ptr<Server> serv(std::vector<std::string> extra = {}) { return wiretest::dataServer(dir, pw, extra); }
    static HPDOPT opt(const std::string& port, const std::string& user, const std::string& pass) {
        return wiretest::loopOpt(port, user, pass);
    }

    vrtatest::TempDir dir;
    std::string pw;
    HPDECB hpd;
};

// Assign and deassign through the framing, as the assign of the engine
// will: the request at the connection's level, the reply classified.
rctype wireAssign(HPDSERV* s, const std::string& path, int* libid) {
    int native = hpdostag(s->osname)->native;
    DS_YHELASG q{};
    std::memcpy(q.libname, "TESTLIB ", 8);
    q.phys = path.c_str();
    q.physlen = static_cast<int32_t>(path.size());
    q.indxpath = q.datapath = q.metapath = q.acllist = q.aclres = q.workpath = "";
    q.async = 1;
    if (rctype rc = hpdsend(s->sopen, DSM_YHELASG, native, s->level, &DS_YHELASG_D, &q); rc) return rc;
    DS_HDR_REPLY h;
    if (rctype rc = hpdrecv(s->sopen, native, &h); rc) return rc;
    const auto* body = static_cast<const unsigned char*>(s->sopen->reca);
    if (rctype rc = hpdclass(h, body, s->sopen->recl, s->level, nullptr); rc) return rc;
    DS_YHELASG_REPLY r{};
    if (rctype rc = dsparse(r, s->level, body, s->sopen->recl); rc) return rc;
    *libid = r.libid;
    return 0;
}

rctype wireDeassign(HPDSERV* s, int libid) {
    int native = hpdostag(s->osname)->native;
    DS_YHELDAS q{libid};
    if (rctype rc = hpdsend(s->sopen, DSM_YHELDAS, native, s->level, &DS_LIBID_D, &q); rc) return rc;
    DS_HDR_REPLY h;
    if (rctype rc = hpdrecv(s->sopen, native, &h); rc) return rc;
    return hpdclass(h, static_cast<const unsigned char*>(s->sopen->reca), s->sopen->recl, s->level, nullptr);
}

}  // namespace

TEST_F(Conn, LoginAtEachProtocolLevelAndHeadersInTheTagsOrder) {
    struct Case {
        const char* prot;
        const char* osname;
        int level;
    } cases[] = {{"4.50", "LNX", HPD_LEVEL_450}, {"4.40", "SOL-x64", HPD_LEVEL_440}, {"4.99", "AIX", -1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.prot);
        auto sv = serv({"--prot", c.prot, "--osname", c.osname});
        HPDOPT o = opt(sv->portText(), "alice", "secret1");
        LogCatch log;
        HPDSERV* s = nullptr;
        ASSERT_EQ(hpdgetserv(&hpd, &o, &s), 0) << wiretest::subst() << sv->log();
        EXPECT_EQ(s->level, c.level);
        EXPECT_EQ(o.level, c.level);
        EXPECT_EQ(std::string(o.version, 4), std::string(c.prot).substr(0, 3) + "0");
        EXPECT_EQ(s->protocol_mismatch, c.level == -1 ? 1 : 0);
        // An unknown version is said once, at the login; a known one is logged as a connection.
        EXPECT_EQ(log.has("protocol 4.99 differs"), c.level == -1) << log.text();
        EXPECT_EQ(log.has("User alice"), c.level != -1) << log.text();
        EXPECT_EQ(hpd.serv, s);
        // Requests go with native headers to the two tags that have them and
        // big-endian ones to the other: the server agrees in each case.
        int libid = 0;
        ASSERT_EQ(wireAssign(s, dir.path(), &libid), 0) << wiretest::subst();
        EXPECT_EQ(libid, 1);
        EXPECT_EQ(wireDeassign(s, libid), 0) << wiretest::subst();
        // A second deassign of the same domain is refused, and the connection goes on.
        EXPECT_EQ(wireDeassign(s, libid), HPD_RC_FAIL);
        EXPECT_NE(wiretest::subst().find("not assigned"), std::string::npos);
        EXPECT_EQ(s->sopen->eof, 0);
        // A path the storage layer cannot assign comes back as the server's text.
        EXPECT_EQ(wireAssign(s, dir.file("no/such/dir"), &libid), HPD_RC_FAIL);
        EXPECT_NE(wiretest::subst().find("could not be assigned"), std::string::npos) << wiretest::subst();
        hpdunlink(&hpd, s);
        hpdsfree(s);
        EXPECT_EQ(sv->stop(), 0) << sv->log();
    }
}

TEST_F(Conn, ConnectionsAreSharedByHostServiceAndUser) {
    auto sv = serv();
    HPDOPT a = opt(sv->portText(), "alice", "secret1");
    HPDSERV *s1, *s2, *s3;
    ASSERT_EQ(hpdgetserv(&hpd, &a, &s1), 0) << wiretest::subst();
    std::memcpy(s1->user, "alice", 6);
    ASSERT_EQ(hpdgetserv(&hpd, &a, &s2), 0);
    EXPECT_EQ(s1, s2);
    // A user "*" takes a connection made after a prompt, whoever logged in.
    HPDOPT star = opt(sv->portText(), "*", "");
    EXPECT_EQ(hpdfind(&hpd, &star), nullptr);
    s1->user_prompt = 1;
    EXPECT_EQ(hpdfind(&hpd, &star), s1);
    // Another ACL group is another connection.
    HPDOPT g = a;
    std::memcpy(g.aclgrp, "SALES", 5);
    ASSERT_EQ(hpdgetserv(&hpd, &g, &s3), 0) << wiretest::subst();
    EXPECT_NE(s3, s1);
    EXPECT_EQ(std::string(g.aclgrp), "SALES");  // as the server confirmed it
}

TEST_F(Conn, WrongPasswordsAndUnknownUsersAreRefusedAlike) {
    auto sv = serv();
    for (auto [u, p] : {std::pair{"alice", "wrong"}, {"nobody", "secret1"}, {"alice", ""}}) {
        SCOPED_TRACE(u);
        HPDOPT o = opt(sv->portText(), u, p);
        HPDSERV* s = nullptr;
        EXPECT_EQ(hpdgetserv(&hpd, &o, &s), HPD_RC_FAIL);
        EXPECT_NE(wiretest::subst().find("unknown user or wrong password"), std::string::npos) << wiretest::subst();
        EXPECT_EQ(s, nullptr);
        EXPECT_EQ(hpd.serv, nullptr);
    }
    // Nothing listens: the connect fails with the system's text and 2/74.
    sv->stop();
    LogCatch log;
    HPDOPT o = opt(sv->portText(), "alice", "secret1");
    HPDSERV* s = nullptr;
    EXPECT_EQ(hpdgetserv(&hpd, &o, &s), HPD_RC_FAIL);
    EXPECT_TRUE(log.has("Could not connect to the data server on host 127.0.0.1")) << log.text();
}

TEST_F(Conn, PasswordChangesAndExpiredPasswords) {
    auto sv = serv();
    // Expired, and no prompt allowed: the login fails.
    {
        LogCatch log;
        HPDOPT o = opt(sv->portText(), "bob", "oldpass1");
        HPDSERV* s = nullptr;
        EXPECT_EQ(hpdgetserv(&hpd, &o, &s), HPD_RC_FAIL);
        EXPECT_TRUE(log.has("The password has expired.")) << log.text();
    }
    // With the prompt: the new password goes out, the old one is wiped from
    // the option block, and the login goes through.
    {
        LogCatch log;
        HPDOPT o = opt(sv->portText(), "bob", "oldpass1");
        o.debug |= HPD_PROMPT;
        std::snprintf(o.npass, sizeof o.npass, "newpass22");
        // A new password in the login request itself is checked first: it is
        // accepted here, which also ends the expiry.
        HPDSERV* s = nullptr;
        ASSERT_EQ(hpdgetserv(&hpd, &o, &s), 0) << wiretest::subst() << sv->log();
        EXPECT_TRUE(log.has("The password was changed.")) << log.text();
    }
    // The new password works, the old does not.
    {
        // Another ACL group each, so that neither shares the connection above.
        HPDOPT o = opt(sv->portText(), "bob", "oldpass1");
        std::memcpy(o.aclgrp, "Y", 1);
        HPDSERV* s = nullptr;
        EXPECT_EQ(hpdgetserv(&hpd, &o, &s), HPD_RC_FAIL);
        HPDOPT n = opt(sv->portText(), "bob", "newpass22");
        std::memcpy(n.aclgrp, "X", 1);
        ASSERT_EQ(hpdgetserv(&hpd, &n, &s), 0) << wiretest::subst();
    }
    // Expired again: the prompt path sends DS_PASSWORD after the reply.
    ASSERT_TRUE(wiretest::addUser(pw, "carol", "carolpw1", true));
    {
        LogCatch log;
        HPDOPT o = opt(sv->portText(), "carol", "carolpw1");
        o.debug |= HPD_PROMPT;
        HPDSERV* s = nullptr;
        // No new password named: the change is refused as not valid.
        EXPECT_EQ(hpdgetserv(&hpd, &o, &s), HPD_RC_FAIL);
        EXPECT_TRUE(log.has("The new password is not valid.")) << log.text();
        EXPECT_EQ(o.pass[0], 0);  // wiped before the reply was read
    }
    // A new password that breaks a rule: each rule has its message.
    struct Rule {
        const char* np;
        const char* logged;
    } rules[] = {{"abc", "too short"}, {"alice", "too short"}, {"secret1", "used before"}, {"aliceX", ""}};
    for (const Rule& r : rules) {
        SCOPED_TRACE(r.np);
        LogCatch log;
        HPDOPT o = opt(sv->portText(), "alice", "secret1");
        std::snprintf(o.npass, sizeof o.npass, "%s", r.np);
        std::memcpy(o.aclgrp, r.np, 3);  // never share: each must log in
        HPDSERV* s = nullptr;
        rctype rc = hpdgetserv(&hpd, &o, &s);
        if (!*r.logged) {
            EXPECT_EQ(rc, 0);
            continue;
        }
        EXPECT_EQ(rc, HPD_RC_FAIL);
        EXPECT_EQ(wiretest::subst(), "The password could not be changed.");
        EXPECT_TRUE(log.has(r.logged)) << log.text();
    }
}

TEST_F(Conn, NameServerAnswersKnownAndUnknownDomains) {
    std::string map = dir.file("map");
    vrtatest::writeFile(map,
                        "# domains\n"
                        "SALES /data/sales 127.0.0.1 4711\n"
                        "pub   /data/pub   hostb     4712 PUBLIC,DYNLOCK,ACLINHERIT   # shared\n");
    Server ns("vrtaname", {"--port", "0", "--map", map}, dir.file("name.log"));
    ASSERT_GT(ns.port(), 0) << ns.log();
    HPDOPT o = opt(ns.portText(), "alice", "secret1");
    HPDSNAME_INFO ni{};
    std::memcpy(ni.libname, "sales   ", 8);
    ASSERT_EQ(hpdnsrv(&hpd, &o, &ni), 0) << wiretest::subst();
    EXPECT_EQ(std::string(ni.pn, ni.pnl), "/data/sales");
    EXPECT_STREQ(ni.node, "127.0.0.1");
    EXPECT_EQ(ni.port, 4711);
    EXPECT_EQ(ni.dynlock, 0);

    // A public domain takes the project directory; a private one says it ignored it.
    std::snprintf(o.projdir, sizeof o.projdir, "proj7");
    HPDSNAME_INFO pi{};
    std::memcpy(pi.libname, "PUB", 3);
    ASSERT_EQ(hpdnsrv(&hpd, &o, &pi), 0) << wiretest::subst();
    EXPECT_EQ(std::string(pi.pn, pi.pnl), "/data/pub/proj7");
    EXPECT_EQ(pi.dynlock, 1);
    EXPECT_EQ(pi.libaclinherit, 1);
    {
        LogCatch log;
        HPDSNAME_INFO si{};
        std::memcpy(si.libname, "SALES", 5);
        ASSERT_EQ(hpdnsrv(&hpd, &o, &si), 0);
        EXPECT_EQ(std::string(si.pn, si.pnl), "/data/sales");
        EXPECT_TRUE(log.has("-PROJDIR option ignored, domain is not marked PUBLIC")) << log.text();
    }
    HPDSNAME_INFO ui{};
    std::memcpy(ui.libname, "NOSUCH", 6);
    EXPECT_EQ(hpdnsrv(&hpd, &o, &ui), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "The name server does not know the domain.");
    EXPECT_EQ(ns.stop(), 0);
    std::string l = ns.log();
    EXPECT_NE(l.find("asked for domain SALES: at 127.0.0.1 port 4711"), std::string::npos) << l;
    EXPECT_NE(l.find("asked for domain NOSUCH: unknown"), std::string::npos) << l;

    // A map with a bad line stops the start with its line number.
    vrtatest::writeFile(map, "A /a h 1\nB /b h notaport\n");
    Server bad("vrtaname", {"--port", "0", "--map", map}, dir.file("bad.log"));
    EXPECT_EQ(bad.port(), 0);
    EXPECT_EQ(bad.stop(), 1);
    EXPECT_NE(bad.log().find("line 2"), std::string::npos) << bad.log();
}

TEST_F(Conn, AServerKilledMidConversationLeavesADeadConnectionTheNextAssignFrees) {
    auto sv = serv();
    HPDOPT o = opt(sv->portText(), "alice", "secret1");
    HPDSERV* s = nullptr;
    ASSERT_EQ(hpdgetserv(&hpd, &o, &s), 0) << wiretest::subst();
    std::memcpy(s->user, "alice", 6);
    sv->stop(SIGKILL);
    {
        LogCatch log;
        int libid;
        EXPECT_EQ(wireAssign(s, dir.path(), &libid), HPD_RC_FAIL);
        EXPECT_EQ(s->sopen->eof, 1);
        EXPECT_TRUE(log.has("The connection to the server was lost.")) << log.text();
        // Nothing touches the socket again.
        EXPECT_EQ(wireAssign(s, dir.path(), &libid), HPD_RC_FAIL);
    }
    auto again = serv();
    HPDOPT o2 = opt(again->portText(), "alice", "secret1");
    LogCatch log;
    HPDSERV* s2 = nullptr;
    ASSERT_EQ(hpdgetserv(&hpd, &o2, &s2), 0) << wiretest::subst();
    EXPECT_TRUE(log.has("Connection of user alice to host 127.0.0.1 closed.")) << log.text();
    EXPECT_EQ(hpd.serv, s2);
    EXPECT_EQ(s2->next, nullptr);  // the dead one is gone from the list
}

TEST_F(Conn, TwoDataServersBehindOneNameServer) {
    auto one = serv();
    auto two = serv({"--unix", dir.file("two.sock")});
    std::string map = dir.file("map");
    vrtatest::writeFile(map, "DOMA " + dir.path() + " 127.0.0.1 " + one->portText() + "\nDOMB " + dir.path() +
                                 " 127.0.0.1 " + two->portText() + "\nDOMC " + dir.path() + " 127.0.0.1 " +
                                 one->portText() + "\n");
    Server ns("vrtaname", {"--port", "0", "--map", map}, dir.file("name.log"));
    ASSERT_GT(ns.port(), 0);
    HPDSERV* got[3];
    int i = 0;
    for (const char* dom : {"DOMA", "DOMB", "DOMC"}) {
        SCOPED_TRACE(dom);
        HPDOPT o = opt(ns.portText(), "alice", "secret1");
        HPDSNAME_INFO ni{};
        std::memcpy(ni.libname, dom, 4);
        ASSERT_EQ(hpdnsrv(&hpd, &o, &ni), 0) << wiretest::subst();
        // The answer replaces the host and service, as the assign does.
        o = opt(std::to_string(ni.port), "alice", "secret1");
        ASSERT_EQ(hpdgetserv(&hpd, &o, &got[i]), 0) << wiretest::subst();
        std::memcpy(got[i]->user, "alice", 6);
        got[i]->count += 1;
        int libid;
        ASSERT_EQ(wireAssign(got[i], std::string(ni.pn, ni.pnl), &libid), 0) << wiretest::subst();
        ++i;
    }
    EXPECT_EQ(got[0], got[2]);
    EXPECT_NE(got[0], got[1]);
    EXPECT_EQ(got[0]->count, 2);

    // The second server also takes logins on its UNIX socket.
    YXSOCK_OPEN* so = static_cast<YXSOCK_OPEN*>(xmalloc(XM_THREADPOOL, sizeof(YXSOCK_OPEN), XM_ZERO));
    so->mode = 3;
    so->type = YXS_COUNTED;
    so->lrecl = HPD_MINRECL;
    std::string path = dir.file("two.sock");
    ASSERT_EQ(yxscuop(so, path.c_str(), static_cast<int>(path.size())), 0);
    HPDOPT o = opt("", "alice", "secret1");
    HPDSERV us{};
    ASSERT_EQ(init_conn(&so, &o), 0) << wiretest::subst();
    ASSERT_EQ(hpdack(so, &o, &us), 0);
    EXPECT_EQ(us.level, HPD_LEVEL_450);
    hpdsofree(so);
    EXPECT_EQ(two->stop(), 0) << two->log();
    EXPECT_NE(two->log().find("on the UNIX socket"), std::string::npos);
}

TEST_F(Conn, BufferSizesAndDerivedPorts) {
    auto sv = serv();
    // The record buffer is the larger of RPCSIZE and one enciphered block;
    // the same number as block size only ever shrinks the 8192 blocks.
    for (auto [bufsize, lrecl] : {std::pair{1000, 2736L}, {100000, 100000L}}) {
        HPDOPT o = opt(sv->portText(), "alice", "secret1");
        o.bufsize = bufsize;
        HPDSERV* s = nullptr;
        ASSERT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
        EXPECT_EQ(s->sopen->lrecl, lrecl);
        EXPECT_EQ(s->sopen->ibufl, std::min<long>(lrecl, YXS_BLOCK));
        EXPECT_EQ(hpd.brk, -1);  // every open sets the break word
        EXPECT_EQ(s->sopen->brk, &hpd.brk);
        hpdsfree(s);
    }

    // A port derived from a connection: same host, a one-byte greeting,
    // then (for the record-lock server) the token; the old socket is replaced.
    char zero[] = "0";
    YXSOCK_OPEN lk = wiretest::loopback(zero);
    ASSERT_EQ(yxssopn(&lk), 0);
    std::string token;
    std::thread peer([&] {
        if (yxsacc(&lk) != 0) return;
        char g = 'G';
        ASSERT_EQ(hpcwrit(lk.cs, &g, 1, nullptr), 0);
        lk.nread = 5;
        if (yxsread(&lk) == 0) token.assign(static_cast<char*>(lk.reca), lk.recl);
    });
    HPDOPT o = opt(sv->portText(), "alice", "secret1");
    HPDSERV* s = nullptr;
    ASSERT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
    YXSOCK_OPEN* before = s->sopen;
    ASSERT_EQ(hporsrv(&s->sopen, lk.portno, "TOKEN", 5), 0) << wiretest::subst();
    peer.join();
    EXPECT_EQ(token, "TOKEN");
    EXPECT_NE(s->sopen, before);
    EXPECT_STREQ(s->sopen->ip, "127.0.0.1");
    hpdsfree(s);
    yxsclos(&lk);

    // Nobody greets: 2/97, and the socket is given back.
    YXSOCK_OPEN mute = wiretest::loopback(zero);
    ASSERT_EQ(yxssopn(&mute), 0);
    std::thread closer([&] {
        if (yxsacc(&mute) == 0) {
            close(mute.cs);
            mute.cs = 0;
        }
    });
    YXSOCK_OPEN from{};
    std::memcpy(from.ip, "127.0.0.1", 10);
    YXSOCK_OPEN* out = nullptr;
    LogCatch log;
    EXPECT_EQ(hpdport(&from, mute.portno, nullptr, 0, 512, 1, 82, &out), HPD_RC_FAIL);
    closer.join();
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(log.has("The server did not greet the connection.")) << log.text();
    yxsclos(&mute);
}

TEST_F(Conn, OperatorProxyAndListPortsOfAConnection) {
    auto sv = serv();
    HPDOPT o = opt(sv->portText(), "alice", "secret1");
    HPDSERV* s = nullptr;
    ASSERT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
    char zero[] = "0";
    // The operator port: a login of its own, whose magic and log port come back.
    YXSOCK_OPEN op = wiretest::loopback(zero);
    ASSERT_EQ(yxssopn(&op), 0);
    std::string user;
    std::thread peer([&] {
        if (yxsacc(&op) != 0) return;
        unsigned char m[4];
        hpdput4(m, 77);
        DS_HDR_METHOD h;
        if (hpcwrit(op.cs, m, 4, nullptr) != 0 || hpdrecvxm(&op, &h) != 0 || h.id != DSM_SERVER_O_I) return;
        DS_SERVER_O_I q{};
        if (dsparse(q, HPD_LEVEL_LOGIN, static_cast<unsigned char*>(op.reca), op.recl) != 0 || q.magic != 77) return;
        user.assign(q.user, q.userl);
        DS_SERVER_O_I_REPLY r{};
        r.msg = r.usertok = "";
        r.logno = 4321;
        hpdsendxr(&op, DS_HDR_REPLY{DSM_SERVER_O_I, 0, {}, 0, 0}, HPD_LEVEL_LOGIN, &DS_SERVER_O_I_REPLY_D, &r);
    });
    HPDODCB od{};
    od.sopen = s->sopen;
    od.opt = &o;
    ASSERT_EQ(hpdosrv(&od, op.portno), 0) << wiretest::subst();
    peer.join();
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(od.magic, 77);
    EXPECT_EQ(od.lportno, 4321);
    hpdsofree(od.oopen);
    // A port nobody listens on: the operator's own message, the login's text.
    int gone = op.portno;
    yxsclos(&op);
    {
        LogCatch log;
        HPDODCB bad{};
        bad.sopen = s->sopen;
        bad.opt = &o;
        EXPECT_EQ(hpdosrv(&bad, gone), HPD_RC_FAIL);
        EXPECT_EQ(bad.oopen, nullptr);
        EXPECT_TRUE(log.has("operator port")) << log.text();
    }
    // A proxy read is greeted and answers; a list read just connects.
    for (int proxy : {1, 0}) {
        YXSOCK_OPEN p = wiretest::loopback(zero);
        ASSERT_EQ(yxssopn(&p), 0);
        std::string got;
        std::thread peer2([&] {
            if (yxsacc(&p) != 0) return;
            char g = 'G';
            if (proxy && hpcwrit(p.cs, &g, 1, nullptr) != 0) return;
            char b[2] = {};
            ssize_t n = read(p.cs, b, proxy ? 1 : 2);  // a list read sends nothing: the end comes
            got.assign(b, n > 0 ? n : 0);
        });
        HPDBDCB b{};
        b.sopen = s->sopen;
        ASSERT_EQ(proxy ? hpbosrv(&b, p.portno) : hpblsrv(&b, p.portno), 0) << wiretest::subst();
        ASSERT_NE(b.oopen, nullptr);
        hpdsofree(b.oopen);
        peer2.join();
        EXPECT_EQ(got, proxy ? std::string(1, '\0') : std::string());
        yxsclos(&p);
    }
    hpdsfree(s);
}

// Domain assign and deassign through the engine's entries, against our
// name server and data server on loopback.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdd.h"
#include "eng/hpdl.h"
#include "eng/hpdutl.h"
#include "srvutil.h"
#include "testutil.h"
#include "vrta/directapi.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::LogCatch;
using wiretest::Server;

namespace {

class Assign : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp());
        pw = dir.file("pw");
        ASSERT_TRUE(wiretest::addUser(pw, "alice", "secret1"));
        std::memset(&hpd, 0, sizeof hpd);
        // This machine's address as the client states it: the servers listen on loopback.
        oldbind = HPDBINDADDR;
        HPDBINDADDR = "127.0.0.1";
        mkdir(dir.file("sales").c_str(), 0755);
        mkdir(dir.file("hr").c_str(), 0755);
    }
    void TearDown() override {
        HPDBINDADDR = oldbind;
        while (hpd.lib) hpdlfree(hpd.lib);
        for (HPDSERV* s = hpd.serv; s;) {
            HPDSERV* n = s->next;
            hpdsfree(s);
            s = n;
        }
    }
    std::unique_ptr<Server> serv(std::vector<std::string> extra = {}) { return wiretest::dataServer(dir, pw, extra); }
    std::unique_ptr<Server> names(const std::string& lines) {
        vrtatest::writeFile(dir.file("map"), lines);
        auto s = std::make_unique<Server>("vrtaname", std::vector<std::string>{"--port", "0", "--map", dir.file("map")},
                                          dir.file("name.log"));
        EXPECT_GT(s->port(), 0) << s->log();
        return s;
    }
    static HPDOPT opt(int port) {
        HPDOPT o = wiretest::loopOpt(std::to_string(port), "alice", "secret1");
        o.backup = 1;
        return o;
    }
    // One assign as a host makes it: libref, a name or path, the options.
    rctype assign(yhlibref* ref, const char* libref, const std::string& what, HPDOPT* o, int format = 0,
                  XHEATTR** attr = nullptr) {
        std::memset(ref, 0, sizeof *ref);
        std::memset(ref->libref, ' ', 8);
        std::memcpy(ref->libref, libref, std::strlen(libref));
        name = what;
        void* pn = name.data();
        int sz = static_cast<int>(name.size());
        void* tok = nullptr;
        int flags = -1;
        fmt = format;
        rctype rc = hpdlasg(&hpd, ref, nullptr, &pn, &sz, o, &fmt, attr, &tok, &flags);
        shown = rc >= 0 || rc == HPD_RC_MISMATCH ? std::string(static_cast<char*>(pn), sz) : "";
        return rc;
    }

    vrtatest::TempDir dir;
    std::string pw, name, shown;
    int fmt = 0;
    HPDECB hpd;
    const char* oldbind;
};

}  // namespace

TEST_F(Assign, ByNameThroughTheNameServerOnOneMachine) {
    auto sv = serv();
    auto ns = names("SALES " + dir.file("sales") + " 127.0.0.1 " + sv->portText() + "\nHR " + dir.file("hr") +
                    " 127.0.0.1 " + sv->portText() + "\n");
    HPDOPT o = opt(ns->port());
    yhlibref a, b;
    XHEATTR* attr = const_cast<XHEATTR*>(&hpdattr);
    ASSERT_EQ(assign(&a, "S", "sales", &o, 0, &attr), 0) << wiretest::subst() << sv->log();
    auto* la = static_cast<HPDLIB*>(a.englib);
    ASSERT_NE(la, nullptr);
    EXPECT_EQ(fmt, 5);
    EXPECT_EQ(la->libid, 1);
    EXPECT_EQ(std::string(la->phys, la->physl), dir.file("sales"));
    // The host sees server host, its process id and the path.
    EXPECT_EQ(shown, "127.0.0.1:" + std::to_string(sv->pid()) + dir.file("sales"));
    EXPECT_EQ(la->samebox, 1);
    EXPECT_NE(la->handle, nullptr);  // the direct path beside the connection
    EXPECT_EQ(la->unixs, 1);
    EXPECT_EQ(attr, la->attr);
    EXPECT_EQ(attr->encoding_cei, 28);
    EXPECT_EQ(std::string(la->domain, 5), "sales");

    // A second domain on the same server shares the connection.
    HPDOPT o2 = opt(ns->port());
    ASSERT_EQ(assign(&b, "H", "HR", &o2), 0) << wiretest::subst();
    auto* lb = static_cast<HPDLIB*>(b.englib);
    EXPECT_EQ(lb->server, la->server);
    EXPECT_EQ(la->server->count, 2);
    EXPECT_EQ(lb->libid, 2);
    EXPECT_EQ(hpzlib(hpd.lib, "S       "), la);

    W_INFSTR* info = nullptr;
    ASSERT_EQ(hpdlins(&hpd, &a, &info), 0);
    EXPECT_STREQ(info->pair[3].name, "Server IP addr");
    EXPECT_STREQ(info->pair[3].value, "127.0.0.1");
    EXPECT_STREQ(info->pair[4].value, sv->portText().c_str());
    EXPECT_EQ(info->count, 9);
    hpdlinr(info);

    HPDSERV* s = la->server;
    ASSERT_EQ(hpdldas(&hpd, &a), 0) << wiretest::subst();
    EXPECT_EQ(s->count, 1);
    EXPECT_EQ(hpd.serv, s);  // still open: the other domain uses it
    ASSERT_EQ(hpdldas(&hpd, &b), 0) << wiretest::subst();
    EXPECT_EQ(hpd.lib, nullptr);
    EXPECT_EQ(hpd.serv, s);  // without "DISCONNECT" the connection stays for the next assign
    std::string log = sv->log();
    EXPECT_NE(log.find("assign S ("), std::string::npos) << log;
    EXPECT_NE(log.find("deassign of domain 2"), std::string::npos) << log;
}

TEST_F(Assign, FastoptNoAndLockingKeepTheDirectPathOff) {
    auto sv = serv();
    for (int bit : {HPD_FASTOPTNO, HPD_LOCKING}) {
        SCOPED_TRACE(bit);
        HPDOPT o = opt(sv->port());
        o.debug |= bit;
        yhlibref a;
        ASSERT_EQ(assign(&a, "P", dir.file("sales"), &o), 0) << wiretest::subst();
        auto* l = static_cast<HPDLIB*>(a.englib);
        EXPECT_EQ(l->samebox, 1);
        EXPECT_EQ(l->handle, nullptr);
        EXPECT_EQ(l->unixs, bit == HPD_FASTOPTNO ? 0 : 1);
        ASSERT_EQ(hpdldas(&hpd, &a), 0);
    }
    // Another machine by its stated address: no direct path either.
    HPDBINDADDR = "10.9.8.7";
    HPDOPT o = opt(sv->port());
    std::memcpy(o.aclgrp, "OTHER", 5);  // a fresh connection, so the address is read again
    yhlibref a;
    ASSERT_EQ(assign(&a, "P", dir.file("sales"), &o), 0) << wiretest::subst();
    auto* l = static_cast<HPDLIB*>(a.englib);
    EXPECT_EQ(l->samebox, 0);
    EXPECT_EQ(l->handle, nullptr);
}

TEST_F(Assign, RefusalsLeaveNothingBehind) {
    auto sv = serv();
    auto ns = names("SALES " + dir.file("sales") + " 127.0.0.1 " + sv->portText() + "\n");
    yhlibref a;
    HPDOPT o = opt(ns->port());
    EXPECT_EQ(assign(&a, "X", "NOSUCH", &o), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "The name server does not know the domain.");
    EXPECT_EQ(assign(&a, "X", "(a b)", &o), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "A physical name may not begin with \"(\".");
    std::memset(&a, 0, sizeof a);
    void* none = nullptr;
    int sz = 0;
    EXPECT_EQ(hpdlasg(&hpd, &a, nullptr, &none, &sz, nullptr, nullptr, nullptr, nullptr, nullptr), HPD_RC_NONAME);
    HPDOPT noserver{};
    EXPECT_EQ(assign(&a, "X", dir.file("sales"), &noserver), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "No server host was given for the domain.");
    // A directory the server cannot assign: the server's text, the connection kept.
    HPDOPT d = opt(sv->port());
    EXPECT_EQ(assign(&a, "X", dir.file("missing/deeper"), &d), HPD_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("could not be assigned"), std::string::npos) << wiretest::subst();
    ASSERT_NE(hpd.serv, nullptr);
    EXPECT_EQ(hpd.serv->count, 0);
    // An ACLRES list asked for and empty.
    HPDOPT acl = opt(sv->port());
    acl.acldef = 1;
    EXPECT_EQ(assign(&a, "X", dir.file("sales"), &acl), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "The list of ACL resources is empty.");
    EXPECT_EQ(hpd.lib, nullptr);
    // An alias of a libref not assigned.
    EXPECT_EQ(assign(&a, "Y", "NOTHERE", &d, 1), HPD_RC_NOALIAS);
}

TEST_F(Assign, AliasesShareTheirTargetsConnection) {
    auto sv = serv();
    HPDOPT o = opt(sv->port());
    o.debug |= HPD_DISCONNECT;
    yhlibref a, b;
    ASSERT_EQ(assign(&a, "MAIN", dir.file("sales"), &o), 0) << wiretest::subst();
    std::string mainpn = shown;
    ASSERT_EQ(assign(&b, "SECOND", "MAIN", nullptr, 1), 0);
    EXPECT_EQ(fmt, 5);
    EXPECT_EQ(shown, mainpn);
    auto* lb = static_cast<HPDLIB*>(b.englib);
    EXPECT_EQ(lb->alias, 1);
    EXPECT_EQ(lb->server->count, 2);
    ASSERT_EQ(hpdldas(&hpd, &b), 0);
    EXPECT_NE(hpd.serv, nullptr);
    // With "DISCONNECT" the last domain closes the connection.
    LogCatch log;
    ASSERT_EQ(hpdldas(&hpd, &a), 0);
    EXPECT_EQ(hpd.serv, nullptr);
    EXPECT_TRUE(log.has("Connection of user alice to host 127.0.0.1 closed.")) << log.text();
}

TEST_F(Assign, UnknownServerVersionIsReportedAtEachAssign) {
    auto sv = serv({"--prot", "3.99"});
    for (const char* ref : {"A", "B"}) {
        HPDOPT o = opt(sv->port());
        yhlibref a;
        EXPECT_EQ(assign(&a, ref, dir.file("sales"), &o), HPD_RC_MISMATCH) << wiretest::subst();
        EXPECT_EQ(static_cast<HPDLIB*>(a.englib)->level, -1);
    }
}

TEST_F(Assign, ADeadServerFailsTheDeassignAndTheNextAssignStartsAfresh) {
    auto sv = serv();
    HPDOPT o = opt(sv->port());
    yhlibref a;
    ASSERT_EQ(assign(&a, "A", dir.file("sales"), &o), 0) << wiretest::subst();
    sv->stop(SIGKILL);
    EXPECT_EQ(hpdldas(&hpd, &a), HPD_RC_FAIL);
    EXPECT_EQ(hpd.lib, nullptr);  // freed all the same
    ASSERT_NE(hpd.serv, nullptr);
    EXPECT_EQ(hpd.serv->sopen->eof, 1);
    auto again = serv();
    HPDOPT o2 = opt(again->port());
    yhlibref b;
    LogCatch log;
    ASSERT_EQ(assign(&b, "B", dir.file("sales"), &o2), 0) << wiretest::subst();
    EXPECT_TRUE(log.has("closed.")) << log.text();
    EXPECT_EQ(hpd.serv->next, nullptr);
}

TEST_F(Assign, MembersOfARemoteDomainAreListedInPieces) {
    // 70 tables: more than one piece of 64.
    void* dl = nullptr;
    ASSERT_EQ(splasgn(dir.file("sales").c_str(), &dl), 0);
    const VRTACOLDEF col[] = {{"X", -1, nullptr, 0, 1, 8}};
    for (int i = 0; i < 70; ++i) {
        VRTACREATE cr{};
        cr.ncols = 1;
        cr.cols = col;
        void* fid = nullptr;
        std::string n = "t";
        n += std::to_string(i);
        ASSERT_EQ(vrtacreate(dl, n.c_str(), -1, &cr, &fid), 0);
        ASSERT_EQ(vrtaclose(fid), 0);
    }
    spldeasgn(dl);
    auto sv = serv();
    HPDOPT o = opt(sv->port());
    yhlibref a;
    ASSERT_EQ(assign(&a, "S", dir.file("sales"), &o), 0) << wiretest::subst();
    void* d = nullptr;
    ASSERT_EQ(hpddopn(&hpd, &a, &d), 0) << wiretest::subst();
    std::set<std::string> seen;
    char name[33], type[8];
    int nl = 0;
    rctype rc;
    while ((rc = hpddrd(d, name, &nl, type)) == 0) {
        EXPECT_EQ(static_cast<int>(std::strlen(name)), nl);
        EXPECT_EQ(std::string(type, 8), "DATA    ");
        seen.insert(name);
    }
    EXPECT_EQ(rc, HPD_RC_EOF);
    EXPECT_EQ(hpddrd(d, name, &nl, type), HPD_RC_EOF);  // and stays at the end
    EXPECT_EQ(seen.size(), 70u);
    EXPECT_TRUE(seen.count("T69"));
    EXPECT_EQ(hpdcls(d), 0);
    // A dead connection: the list fails at once.
    sv->stop(SIGKILL);
    hpd.serv->sopen->eof = 1;
    EXPECT_EQ(hpddopn(&hpd, &a, &d), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "The connection to the server was lost earlier; assign the domain again.");
}

TEST_F(Assign, MemberDirectoriesAndPathsOnTheSameConnection) {
    auto sv = serv();
    auto ns = names("SALES " + dir.file("sales") + " 127.0.0.1 " + sv->portText() + "\n");
    mkdir(dir.file("sales/q1").c_str(), 0755);
    HPDOPT o = opt(ns->port());
    yhlibref a;
    ASSERT_EQ(assign(&a, "S", "sales", &o), 0) << wiretest::subst();
    auto* la = static_cast<HPDLIB*>(a.englib);
    // A member directory: its name and one byte more in sz.
    char mem[] = "q1";
    void* pn = nullptr;
    int sz = 3;
    void* sub = nullptr;
    ASSERT_EQ(hpdlasgn(la, const_cast<char*>("Q1"), mem, &pn, &sz, 0, &sub), 0) << wiretest::subst();
    auto* ls = static_cast<HPDLIB*>(sub);
    EXPECT_EQ(std::string(ls->phys, ls->physl), dir.file("sales/q1"));
    EXPECT_EQ(std::string(static_cast<char*>(pn), sz), "127.0.0.1:" + std::to_string(sv->pid()) + dir.file("sales/q1"));
    EXPECT_EQ(ls->server, la->server);
    EXPECT_EQ(la->server->count, 2);
    EXPECT_NE(ls->handle, nullptr);  // the parent has a direct path, so has the member
    // A path as it stands; one that is not there is refused with the server's text.
    std::string hr = dir.file("hr");
    void* other = nullptr;
    ASSERT_EQ(hpllasg(la, const_cast<char*>("H"), hr.data(), static_cast<int>(hr.size()), 0, &other), 0)
        << wiretest::subst();
    EXPECT_EQ(static_cast<HPDLIB*>(other)->handle, nullptr);
    std::string none = dir.file("none");
    void* bad = reinterpret_cast<void*>(1);
    EXPECT_EQ(hpllasg(la, const_cast<char*>("N"), none.data(), static_cast<int>(none.size()), 0, &bad), HPD_RC_FAIL);
    EXPECT_EQ(bad, nullptr);
    EXPECT_NE(wiretest::subst().find("could not be assigned"), std::string::npos) << wiretest::subst();
    EXPECT_EQ(la->server->count, 3);
    for (void* l : {sub, other}) {
        yhlibref r{};
        r.englib = l;
        EXPECT_EQ(hpdldas(&hpd, &r), 0) << wiretest::subst();
    }
    EXPECT_EQ(la->server->count, 1);
    EXPECT_EQ(hpdldas(&hpd, &a), 0);
}

// The data server's table requests, spoken to as the engine will: open with
// its stream of column records, close, repair, member lists; the columns
// seen over the wire are those the direct path sees.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <algorithm>
#include <string>
#include <vector>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "srvutil.h"
#include "testutil.h"
#include "vrta/directapi.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::Server;

namespace {

const VRTACOLDEF COLS[] = {{"ID", -1, "row number", -1, 1, 8}, {"NAME", -1, nullptr, 0, 2, 12}, {"SHORT", -1, nullptr, 0, 1, 4}};

class ServTables : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp());
        pw = dir.file("pw");
        ASSERT_TRUE(wiretest::addUser(pw, "alice", "secret1"));
        domain = dir.file("dom");
        mkdir(domain.c_str(), 0755);
        // A table of 25 rows made through the storage layer.
        void* lib = nullptr;
        ASSERT_EQ(splasgn(domain.c_str(), &lib), 0);
        VRTACREATE cr{};
        cr.ncols = 3;
        cr.cols = COLS;
        void* fid = nullptr;
        ASSERT_EQ(vrtacreate(lib, "people", -1, &cr, &fid), 0);
        std::vector<char> row(24 * 25, 'x');
        void* io = nullptr;
        ASSERT_EQ(spnewwr(fid, static_cast<long>(row.size()), row.data(), 0, &io), 0);
        ASSERT_EQ(spwritev(io, 25), 0);
        spfreeio(io);
        ASSERT_EQ(vrtaclose(fid), 0);
        spldeasgn(lib);
        sv = wiretest::dataServer(dir, pw);
        ASSERT_GT(sv->port(), 0);
    }
    void TearDown() override {
        for (HPDSERV* s : conns) hpdsfree(s);
    }
    HPDSERV* login() {
        HPDOPT o = wiretest::loopOpt(sv->portText(), "alice", "secret1");
        HPDSERV* s = nullptr;
        EXPECT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
        if (s) conns.push_back(s);
        return s;
    }
    // One request and its reply, classified; the body stays in reca.
    template <class Q>
    rctype ask(HPDSERV* s, int id, const DS_RECDESC* d, const Q& q, DS_HDR_REPLY* h) {
        if (rctype rc = hpdsend(s->sopen, id, 1, s->level, d, &q); rc) return rc;
        return reply(s, h);
    }
    rctype reply(HPDSERV* s, DS_HDR_REPLY* h) {
        if (rctype rc = hpdrecv(s->sopen, 1, h); rc) return rc;
        return hpdclass(*h, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl, s->level, nullptr);
    }
    int assign(HPDSERV* s) {
        DS_YHELASG q{};
        std::memset(q.libname, ' ', 8);
        q.phys = domain.c_str();
        q.physlen = static_cast<int32_t>(domain.size());
        q.indxpath = q.datapath = q.metapath = q.acllist = q.aclres = q.workpath = "";
        DS_HDR_REPLY h;
        EXPECT_EQ(ask(s, DSM_YHELASG, &DS_YHELASG_D, q, &h), 0) << wiretest::subst();
        DS_YHELASG_REPLY r{};
        EXPECT_EQ(dsparse(r, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
        return r.libid;
    }
    DS_YOEOPEN openreq(int libid, const char* member, int mode) {
        DS_YOEOPEN q{};
        q.libid = libid;
        std::memset(q.memname, ' ', 32);
        std::memcpy(q.memname, member, std::strlen(member));
        std::memcpy(q.memtype, "DATA    ", 8);
        q.opnmode = mode;
        q.gennum = -1000;
        q.label = q.xlaten = q.xlate1 = q.acllist = "";
        return q;
    }

    vrtatest::TempDir dir;
    std::string pw, domain;
    std::unique_ptr<Server> sv;
    HPDECB hpd{};
    std::vector<HPDSERV*> conns;
};

}  // namespace

TEST_F(ServTables, OpenStreamsTheColumnsTheDirectPathSees) {
    HPDSERV* s = login();
    ASSERT_NE(s, nullptr);
    int libid = assign(s);
    DS_HDR_REPLY h;
    ASSERT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(libid, "PEOPLE", 1), &h), 0) << wiretest::subst();
    DS_YOEOPEN_REPLY r{};
    ASSERT_EQ(dsparse(r, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
    EXPECT_EQ(r.numobs, 25);
    EXPECT_EQ(r.obslen, 24);
    EXPECT_EQ(r.nvar, 3);
    EXPECT_EQ(r.nindexes, 0);
    int openid = r.openid;
    // The zero byte asks for the rest: one record per column, numbered from 1.
    char zero = 0;
    ASSERT_EQ(hpcwrit(s->sopen->s, &zero, 1, nullptr), 0);
    void* lib = nullptr;
    ASSERT_EQ(splasgn(domain.c_str(), &lib), 0);
    void* fid = nullptr;
    ASSERT_EQ(vrtaopen(lib, "people", -1, "DATA    ", 0, nullptr, 0, nullptr, 0, 0, &fid), 0);
    for (int v = 1; v <= 3; ++v) {
        SCOPED_TRACE(v);
        ASSERT_EQ(reply(s, &h), 0);
        DS_YOEOPEN_NAMESTR_REPLY c{};
        ASSERT_EQ(dsparse(c, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
        VRTA_NAMESTR* np = nullptr;
        ASSERT_EQ(vrtagetnpp(fid, v, &np), 0);
        EXPECT_EQ(c.varnum, v);
        EXPECT_EQ(std::string(c.ns.nname, np->n7.name_l), std::string(np->name, np->n7.name_l));
        EXPECT_EQ(c.ns.nname[31], ' ');
        EXPECT_EQ(c.ns.ntype, np->n7.type);
        EXPECT_EQ(c.ns.npos, np->n7.npos);
        EXPECT_EQ(c.ns.nlng, np->n7.nlng);
        EXPECT_EQ(c.ns.nvar0, np->n7.nvar0);
        EXPECT_EQ(std::string(c.ns.nlabel, c.ns.nlabell), v == 1 ? "row number" : "");
    }
    vrtaclose(fid);
    spldeasgn(lib);
    DS_YOECLOS cq{};
    cq.openid = openid;
    std::memset(cq.collate, ' ', 8);
    std::memset(cq.type, ' ', 8);
    cq.vars = cq.label = "";
    ASSERT_EQ(ask(s, DSM_YOECLOS, &DS_YOECLOS_D, cq, &h), 0) << wiretest::subst();
    DS_YOECLOS_REPLY cr{};
    ASSERT_EQ(dsparse(cr, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
    EXPECT_EQ(cr.lastobs, 25);
    // A second close of the same table is refused; the connection goes on.
    EXPECT_EQ(ask(s, DSM_YOECLOS, &DS_YOECLOS_D, cq, &h), HPD_RC_FAIL);
    EXPECT_EQ(s->sopen->eof, 0);
}

TEST_F(ServTables, MissingTablesAndDroppedStreams) {
    HPDSERV* s = login();
    ASSERT_NE(s, nullptr);
    int libid = assign(s);
    DS_HDR_REPLY h;
    // A table that does not exist is "not found" to the engine.
    EXPECT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(libid, "NOSUCH", 1), &h), HPD_RC_NOTFOUND) << sv->log();
    EXPECT_EQ(h.rcode, 2104);
    // A domain that is not assigned, an output open: refused with a text.
    EXPECT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(99, "PEOPLE", 1), &h), HPD_RC_FAIL);
    EXPECT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(libid, "PEOPLE", 2), &h), HPD_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("Only input and update"), std::string::npos);
    // The engine drops the stream with a byte 1: no column records follow,
    // and the next request is answered as usual.
    ASSERT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(libid, "PEOPLE", 1), &h), 0);
    char one = 1;
    ASSERT_EQ(hpcwrit(s->sopen->s, &one, 1, nullptr), 0);
    DS_YOEFIX f{};
    f.libid = libid;
    std::memset(f.memname, ' ', 32);
    std::memcpy(f.memname, "PEOPLE", 6);
    std::memcpy(f.memtype, "DATA    ", 8);
    ASSERT_EQ(ask(s, DSM_YOEFIX, &DS_YOEFIX_D, f, &h), 0) << wiretest::subst();
    DS_YOEFIX_REPLY fr{};
    ASSERT_EQ(dsparse(fr, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
    EXPECT_EQ(fr.nindexes, 0);
}

TEST_F(ServTables, MemberListsComeInPiecesUntilEmpty) {
    // Two more tables, so that pieces of two hold them all.
    void* lib = nullptr;
    ASSERT_EQ(splasgn(domain.c_str(), &lib), 0);
    for (const char* n : {"alpha", "beta"}) {
        VRTACREATE cr{};
        cr.ncols = 1;
        cr.cols = COLS;
        void* fid = nullptr;
        ASSERT_EQ(vrtacreate(lib, n, -1, &cr, &fid), 0);
        ASSERT_EQ(vrtaclose(fid), 0);
    }
    spldeasgn(lib);
    HPDSERV* s = login();
    ASSERT_NE(s, nullptr);
    int libid = assign(s);
    DS_HDR_REPLY h;
    ASSERT_EQ(ask(s, DSM_YDEDOPN, &DS_LIBID_D, DS_LIBID{libid}, &h), 0) << wiretest::subst();
    DS_YDEDOPN_REPLY o{};
    ASSERT_EQ(dsparse(o, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
    std::vector<std::string> names;
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(ask(s, DSM_YDEDRD, &DS_YDEDRD_D, DS_YDEDRD{o.id, 2}, &h), 0);
        DS_YDEDRD_REPLY r{};
        ASSERT_EQ(dsparse(r, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
        ASSERT_EQ(r.pairinfo % 40, 0);
        if (r.pairinfo == 0) break;
        EXPECT_LE(r.pairinfo, 80);
        for (int i = 0; i < r.pairinfo / 40; ++i) {
            std::string n(r.info + i * 40, 32);
            names.push_back(n.substr(0, n.find(' ')));
        }
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"ALPHA", "BETA", "PEOPLE"}));
    EXPECT_EQ(ask(s, DSM_YDECLS, &DS_YDECLS_D, DS_YDECLS{o.id}, &h), 0);
}

TEST_F(ServTables, ATableOpenForUpdateIsInUseForAnotherUpdater) {
    HPDSERV* a = login();
    HPDSERV* b = login();
    ASSERT_TRUE(a && b);
    int la = assign(a), lb = assign(b);
    DS_HDR_REPLY h;
    ASSERT_EQ(ask(a, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(la, "PEOPLE", 4), &h), 0) << wiretest::subst();
    char zero = 0;
    ASSERT_EQ(hpcwrit(a->sopen->s, &zero, 1, nullptr), 0);
    for (int v = 1; v <= 3; ++v) ASSERT_EQ(reply(a, &h), 0);
    // A second updater is told the member is in use; readers may still come.
    rctype rc = ask(b, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(lb, "PEOPLE", 4), &h);
    EXPECT_EQ(h.rcode, 2550) << wiretest::subst() << sv->log();
    EXPECT_EQ(rc, HPD_RC_FAIL);  // without the table open's context: a refusal with its text
    EXPECT_EQ(hpdclass(h, static_cast<unsigned char*>(b->sopen->reca), b->sopen->recl, b->level,
                       std::make_unique<HPD_RCTX>(HPD_RCTX{"PEOPLE", 6, "LNX     "}).get()),
              HPD_RC_INUSE);
}

TEST_F(ServTables, SeveralReadersHoldATableAndKeepAnUpdaterOut) {
    HPDSERV* a = login();
    HPDSERV* b = login();
    HPDSERV* c = login();
    ASSERT_TRUE(a && b && c);
    DS_HDR_REPLY h;
    char zero = 0;
    for (HPDSERV* s : {a, b}) {
        ASSERT_EQ(ask(s, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(assign(s), "PEOPLE", 1), &h), 0)
            << wiretest::subst() << sv->log();
        DS_YOEOPEN_REPLY r{};
        ASSERT_EQ(dsparse(r, s->level, static_cast<unsigned char*>(s->sopen->reca), s->sopen->recl), 0);
        EXPECT_EQ(r.numobs, 25);
        ASSERT_EQ(hpcwrit(s->sopen->s, &zero, 1, nullptr), 0);
        for (int v = 1; v <= 3; ++v) ASSERT_EQ(reply(s, &h), 0);
    }
    EXPECT_EQ(ask(c, DSM_YOEOPEN, &DS_YOEOPEN_D, openreq(assign(c), "PEOPLE", 4), &h), HPD_RC_FAIL);
    EXPECT_NE(h.rcode, 0) << sv->log();
}

// Table open, describe and close through the engine's entries, against our
// servers on loopback: what the host is told over the wire is what the
// storage layer says, with and without the direct path beside it; refusals
// free everything and leave the connection usable.
#include <gtest/gtest.h>

#include <csignal>

#include "tblutil.h"

using namespace vrta;
using wiretest::Remote;

namespace {

const std::vector<VRTACOLDEF> COLS = {
    {"ID", -1, "row number", -1, 1, 8}, {"NAME", -1, nullptr, 0, 2, 12}, {"SHORT", -1, "a short number", -1, 1, 4}};

void fill(long i, char* r) {
    double d = static_cast<double>(i);
    std::memcpy(r, &d, 8);
    std::snprintf(r + 8, 13, "name%-8ld", i);
    float f = 0;  // the high bytes of a double: here simply zero
    std::memcpy(r + 20, &f, 4);
}

class Open : public ::testing::Test {
protected:
    void SetUp() override {
        r.start({"sales"});
        wiretest::TableSpec t;
        t.cols = COLS;
        t.rows = 25;
        t.fill = fill;
        t.label = "people we know";
        ASSERT_NO_FATAL_FAILURE(wiretest::makeTable(r.domain("sales"), "people", t));
    }
    Remote r;
};

// The columns the storage layer keeps, for comparison.
std::vector<std::string> directColumns(const std::string& domain, const char* table) {
    std::vector<std::string> out;
    void* lib = nullptr;
    void* fid = nullptr;
    EXPECT_EQ(splasgn(domain.c_str(), &lib), 0);
    EXPECT_EQ(vrtaopen(lib, table, -1, nullptr, 0, nullptr, 0, nullptr, 0, 0, &fid), 0);
    for (int v = 1; fid; ++v) {
        VRTA_NAMESTR* np = nullptr;
        if (vrtagetnpp(fid, v, &np) != 0) break;
        out.push_back(std::string(np->name, np->n7.name_l) + "|" + std::to_string(np->n7.type) + "|" +
                      std::to_string(np->n7.npos) + "|" + std::to_string(np->n7.nlng) + "|" +
                      std::string(np->label ? np->label : "", np->n7.label_l));
    }
    vrtaclose(fid);
    spldeasgn(lib);
    return out;
}

std::vector<std::string> hostColumns(const HPDDCB* dcb) {
    std::vector<std::string> out;
    for (int v = 0; v < dcb->infostr->num_vars; ++v) {
        const NAMESTR& n = dcb->namestr_array[v];
        EXPECT_EQ(n.nvar0, v + 1);
        out.push_back(std::string(n.name, n.namel) + "|" + std::to_string(n.ntype) + "|" + std::to_string(n.npos) +
                      "|" + std::to_string(n.nlng) + "|" + std::string(n.label, n.labell));
    }
    return out;
}

}  // namespace

TEST_F(Open, DescribeIsTheSameOverTheWireAndOnTheDirectPath) {
    auto want = directColumns(r.domain("sales"), "people");
    ASSERT_EQ(want.size(), 3u);
    // Two domains of one server share the connection; one of them keeps the
    // direct path off with FASTOPT=NO.
    yhlibref direct, wire;
    HPDOPT o1 = r.opt(), o2 = r.opt(HPD_FASTOPTNO);
    ASSERT_EQ(r.assign(&direct, "D", "sales", &o1), 0) << wiretest::subst();
    ASSERT_EQ(r.assign(&wire, "W", "sales", &o2), 0) << wiretest::subst();
    EXPECT_EQ(static_cast<HPDLIB*>(direct.englib)->server, static_cast<HPDLIB*>(wire.englib)->server);
    for (yhlibref* ref : {&direct, &wire}) {
        SCOPED_TRACE(ref == &direct ? "direct" : "wire");
        XOFPENT fast{};
        XOPNSTR q = wiretest::openReq(*ref, "people");
        q.fast_path = &fast;
        void* fid = nullptr;
        ASSERT_EQ(hpoopen(&r.hpd, &fid, &q), 0) << wiretest::subst();
        auto* dcb = static_cast<HPDDCB*>(fid);
        INFOSTR in;
        ASSERT_EQ(hpoinfo(fid, HPOINFO_INFOSTR, &in), 0);
        EXPECT_EQ(std::string(in.engine, 8), "KORVRTA ");
        EXPECT_EQ(std::string(in.memname, 6), "people");
        EXPECT_EQ(in.num_prec, 25);
        EXPECT_EQ(in.num_lrec, 25);
        EXPECT_EQ(in.rec_len, 24);
        EXPECT_EQ(in.num_vars, 3);
        EXPECT_EQ(in.rid_len, 48);
        EXPECT_EQ(in.flags & 45, 45);
        EXPECT_EQ(std::string(in.label, in.label_l), "people we know");
        EXPECT_EQ(std::string(in.compress, 8), "NO      ");
        EXPECT_EQ(hostColumns(dcb), want);
        int64_t rows = 0;
        EXPECT_EQ(hpoinfo(fid, HPOINFO_NUMOBS, &rows), 0);
        EXPECT_EQ(rows, 25);
        char label[40];
        EXPECT_EQ(hpoinfo(fid, HPOINFO_LABEL, label), 0);
        EXPECT_EQ(std::string(label, 14), "people we know");
        EXPECT_EQ(hpoinfo(fid, 999, &rows), static_cast<rctype>(0x8001000bu));
        void* dafid = reinterpret_cast<void*>(1);
        EXPECT_EQ(hpoinfo(fid, HPOINFO_DAFID, &dafid), 0);
        EXPECT_EQ(dafid != nullptr, ref == &direct);
        // The host's fast vector starts on the first read of the table.
        EXPECT_EQ(fast.getn, &hpgetnc);
        EXPECT_EQ(fast.fpfid, fid);
        EXPECT_EQ(hpoclos(fid, 0), 0) << wiretest::subst();
    }
    EXPECT_NE(r.sv->log().find("close of table 2"), std::string::npos) << r.sv->log();
    EXPECT_EQ(hpdldas(&r.hpd, &direct), 0);
    EXPECT_EQ(hpdldas(&r.hpd, &wire), 0);
}

TEST_F(Open, RefusalsFreeTheOpenAndLeaveTheConnectionUsable) {
    yhlibref ref;
    HPDOPT o = r.opt();
    ASSERT_EQ(r.assign(&ref, "S", "sales", &o), 0) << wiretest::subst();
    void* fid = reinterpret_cast<void*>(1);
    // No domain at all.
    XOPNSTR q{};
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x80040013u));
    EXPECT_EQ(fid, nullptr);
    // A table that is not there.
    q = wiretest::openReq(ref, "nobody");
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x8004000au));
    // STARTOBS above ENDOBS fails before anything is sent.
    void* track = ytrakcp();
    ASSERT_EQ(yttpshi(track), 0);
    const char* text = "STARTOBS=5 ENDOBS=4";
    ASSERT_EQ(yttpshb(track, text, static_cast<int>(std::strlen(text))), 0);
    ASSERT_EQ(yttpshe(track), 0);
    q = wiretest::openReq(ref, "people");
    for (int k = 0; k < 2; ++k) {
        int scanned = 0;
        ASSERT_EQ(hpopars(&r.hpd, 0, track, &scanned, &q), 0);
        YTTOKEN* tok;
        for (int i = 0; i < scanned; ++i) yttknx(track, 0, &tok);
    }
    ytrakdp(track);
    std::string before = r.sv->log();
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x80010005u));
    EXPECT_NE(wiretest::subst().find("people"), std::string::npos) << wiretest::subst();
    EXPECT_EQ(r.sv->log(), before);  // nothing went to the server
    hpohbfr(&q);
    // The null table opens nothing and closes.
    q = wiretest::openReq(ref, "_NULL_");
    ASSERT_EQ(hpoopen(&r.hpd, &fid, &q), 0);
    EXPECT_EQ(static_cast<HPDDCB*>(fid)->lib, nullptr);
    EXPECT_EQ(hpoclos(fid, 0), 0);
    // An updater holds the table: a second one is refused as in use.
    q = wiretest::openReq(ref, "people", XO_UPDATE);
    void* up = nullptr;
    ASSERT_EQ(hpoopen(&r.hpd, &up, &q), 0) << wiretest::subst();
    yhlibref ref2;
    HPDOPT o2 = r.opt(HPD_FASTOPTNO | HPD_DISCONNECT);
    std::snprintf(o2.user, sizeof o2.user, "alice");
    {
        // Another engine (its own connection) asks for the same table.
        HPDECB e2{};
        std::string name = "sales";
        void* pn = name.data();
        int sz = 5, fmt = 0, flags = 0;
        void* tok = nullptr;
        std::memset(&ref2, 0, sizeof ref2);
        std::memset(ref2.libref, ' ', 8);
        ASSERT_EQ(hpdlasg(&e2, &ref2, nullptr, &pn, &sz, &o2, &fmt, nullptr, &tok, &flags), 0) << wiretest::subst();
        XOPNSTR q2 = wiretest::openReq(ref2, "people", XO_UPDATE);
        EXPECT_EQ(hpoopen(&e2, &fid, &q2), static_cast<rctype>(0x80040015u));
        EXPECT_EQ(fid, nullptr);
        EXPECT_EQ(hpdldas(&e2, &ref2), 0);
        EXPECT_EQ(e2.serv, nullptr);  // DISCONNECT closed it
    }
    EXPECT_EQ(hpoclos(up, 0), 0);
    // The connection still serves opens after every refusal.
    q = wiretest::openReq(ref, "people");
    ASSERT_EQ(hpoopen(&r.hpd, &fid, &q), 0) << wiretest::subst();
    EXPECT_EQ(hpoclos(fid, 0), 0);
    EXPECT_EQ(hpdldas(&r.hpd, &ref), 0);
}

TEST_F(Open, DelrecAndAServerThatNeedsConversionAreHandled) {
    yhlibref ref;
    HPDOPT o = r.opt(HPD_DELREC);
    ASSERT_EQ(r.assign(&ref, "S", "sales", &o), 0) << wiretest::subst();
    XOPNSTR q = wiretest::openReq(ref, "people", XO_UPDATE);
    void* fid = nullptr;
    ASSERT_EQ(hpoopen(&r.hpd, &fid, &q), 0) << wiretest::subst();
    void* dafid = reinterpret_cast<void*>(1);
    hpoinfo(fid, HPOINFO_DAFID, &dafid);
    EXPECT_EQ(dafid, nullptr);  // delrec: the update stays on the wire
    EXPECT_EQ(hpoclos(fid, 0), 0);
    EXPECT_EQ(hpdldas(&r.hpd, &ref), 0);

    // A server whose tag asks for converted rows is refused with a text
    // that says so, before anything is opened there.
    auto lnx = wiretest::dataServer(r.dir, r.pw, {"--osname", "LNX"});
    HPDOPT o2 = wiretest::loopOpt(lnx->portText(), "alice", "secret1");
    std::string path = r.domain("sales");
    yhlibref ref2;
    std::memset(&ref2, 0, sizeof ref2);
    std::memset(ref2.libref, ' ', 8);
    void* pn = path.data();
    int sz = static_cast<int>(path.size()), fmt = 0, flags = 0;
    void* tok = nullptr;
    ASSERT_EQ(hpdlasg(&r.hpd, &ref2, nullptr, &pn, &sz, &o2, &fmt, nullptr, &tok, &flags), 0) << wiretest::subst();
    q = wiretest::openReq(ref2, "people");
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x80010005u));
    EXPECT_NE(wiretest::subst().find("\"LNX\" server"), std::string::npos) << "[" << wiretest::subst() << "]";
    EXPECT_EQ(lnx->log().find("open people  for input"), std::string::npos) << lnx->log();
    EXPECT_EQ(hpdldas(&r.hpd, &ref2), 0);
}

TEST_F(Open, AServerThatDiesBetweenAssignAndOpen) {
    yhlibref ref;
    HPDOPT o = r.opt();
    ASSERT_EQ(r.assign(&ref, "S", "sales", &o), 0) << wiretest::subst();
    r.sv->stop(SIGKILL);
    XOPNSTR q = wiretest::openReq(ref, "people");
    void* fid = reinterpret_cast<void*>(1);
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x80010005u));
    EXPECT_EQ(fid, nullptr);
    // Now the connection is known dead: the next open fails at once.
    EXPECT_EQ(hpoopen(&r.hpd, &fid, &q), static_cast<rctype>(0x80010005u));
    EXPECT_NE(wiretest::subst().find("lost earlier"), std::string::npos) << wiretest::subst();
    EXPECT_NE(hpdldas(&r.hpd, &ref), 0);
    // A new server under the same map name: the next assign starts afresh.
    r.start({"sales"});
    o = r.opt();
    ASSERT_EQ(r.assign(&ref, "S", "sales", &o), 0) << wiretest::subst();
    ASSERT_EQ(hpoopen(&r.hpd, &fid, &q), 0) << wiretest::subst();
    EXPECT_EQ(hpoclos(fid, 0), 0);
    EXPECT_EQ(hpdldas(&r.hpd, &ref), 0);
}

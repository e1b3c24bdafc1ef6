// The engine vector as a host sees it: every slot at its place, filled with
// the right entry or left empty, and the entries that answer without work.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "eng/hpd.h"
#include "eng/hpdd.h"
#include "eng/hpdl.h"
#include "eng/hpdo.h"
#include "eng/hpdopt.h"
#include "hs/hs.h"
#include "ssup/vv.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

struct Expect {
    const char* slot;
    size_t off;
    u_xgfptr fn;  // null: the slot stays empty
};

#define E(s, f) {#s, offsetof(XHENTRY, s), reinterpret_cast<u_xgfptr>(&f)},
#define N(s) {#s, offsetof(XHENTRY, s), nullptr},
// Transcribed in the host's order; a swapped slot in the header or in the
// fill shows up as a wrong offset or a wrong function.
const Expect xhen[] = {
    E(yheterm, hpdterm) N(yhettrm) N(yhepurg) E(yhelasg, hpdlasg) E(yheldas, hpdldas) E(ycetrnc, hpctrnc)
    N(yhelini) E(yhelpar, hpdpars) E(yhelpfr, hphbfr) E(yhelxsp, hpdlxsp) N(yhelock)
    E(ydedel, hpddel) E(ydernm, hpdrnm) E(ydedopn, hpddopn) E(ydedrd, hpddrd) E(ydedcls, hpdcls)
    E(ydexist, hpdexis) N(ylemany)
    E(yoeopen, hpoopen) E(yoeclos, hpoclos) E(yoeropn, hporopn) E(yoepars, hpopars) N(yoepfr)
    E(yoefix, hpofix) N(dummy3) E(yveprji, hpvprji) E(yveprjl, hpvprjl) E(yveprjd, hpvprjd)
    E(yveprje, hpvprje) E(yveprjf, hpvprjf) N(yveallv) E(yvedefv, hpodefv) E(ycenotd, hpcdnot)
    E(yvenamu, hpvnamu)
    E(yoeaddl, hpoaddl) E(yoeinfo, hpoinfo) N(yoereca) E(yoeload, hpoload) E(yoegetn, hpgetnc)
    E(yoegetr, hpogetr) E(yoeadd, hpoadd) E(yoeupd, hpoupd) E(yoedel, hpodel) E(yoenote, hponote)
    E(yoepnt, hpopnt) E(yoen2rd, hpon2rd) E(yoerd2n, hpord2n) E(yoeforc, hpoforc) E(yoewset, hpowset)
    N(yoewpsh) N(yoewpop) N(yhedbug) E(yoeordr, hpoordr) E(yoeunlk, hpounlk)
    E(yceopen, hpcopen) E(yceclos, hpcclos) E(yceropn, hpcropn) E(yceread, hpcrd) E(ycewrit, hpcwrt)
    E(ycepnt, hpcpnt) E(ycenote, hpcnote) E(yceforc, hpcforc) N(ycepwmd)
    E(yiedef, hpiedef) E(yiedrop, hpidrop) E(yieobtn, hpiobtn) E(yiestat, hpistat) E(yieset, hpieset)
    E(yiepnt, hpipnt) E(yieget, hpieget) E(ycepntd, hpcdpnt)
    E(yleopen, hplopen) E(yleclos, hplclos) E(ylemopn, hplmopn) E(ylemcls, hplmcls) E(ylemrd, hplmrd)
    E(ylemwt, hplmwrt) E(yleterm, hplnsup) E(yledopn, hpldopn) E(yledcls, hpldcls) E(yledrd, hpldrd)
    E(yledlst, hpldlst) E(yledpnt, hpldpnt) E(ylednt, hpldnt) E(ylemnt, hplmnt) E(ylempt, hplmpt)
    E(yleminf, hplminf) E(yleinf, hplinf) E(ylemdel, hplmdel) E(ylemren, hplmren) E(ylemset, hplmset)
    E(ylemops, hplmops) E(ylemfd, hplmfd) E(ylemopg, hplmopg) E(yledinf, hpldinf) E(ylemskp, hplmskp)
    E(yleals, hplals) E(ylename, hplname) E(ylemdtm, hplnsup) E(ylemcop, hplnsup)
    E(yhelins, hpdlins) E(yhelinr, hpdlinr) E(yoeinfs, hpoinfs) E(yoeinfr, hpoinfr) E(yceinfs, hpcinfs)
    E(yceinfr, hpcinfr) E(ylepurg, hplnsup) E(yledeas, hplnsup) N(ylemst) E(engtest, hpdtest) N(ylefix)
    E(yleinfs, hplinfs) E(yleinfr, hplinfr) E(yoewho, hplnsup) N(yleochk) E(ycelock, hpclock)
    E(yoesgrp, hpssgrp) E(yoesget, hpssget) E(yosthcnt, hposth) E(yhedlasg, hpdlasgn) E(yoekeep, hpokeep)
};
#undef E
#undef N
#define O(s) {#s, offsetof(HPDENT, s), reinterpret_cast<u_xgfptr>(&s)},
const Expect oper[] = {
    O(hpeopen) O(hpeclos) O(hpesacl) O(hpelacl) O(hpeaacl) O(hpemacl) O(hpeuacl) O(hpedacl)
    O(hpepopr) O(hpepcls) O(hpeplba) O(hpelusr) O(hpeplbl) O(hpeplbd) O(hpeplbm) O(hpeplbc)
    O(hpepdba) O(hpepdbd) O(hpepdbl) O(hpesys) O(hperopr) O(hperusr) O(hpercan) O(hperlck)
};
#undef O

u_xgfptr at(const void* base, size_t off) {
    u_xgfptr p;
    std::memcpy(&p, static_cast<const char*>(base) + off, sizeof p);
    return p;
}

// Starts an engine the plain way and ends it when the test is over.
struct Engine {
    void* argv[5] = {};
    int rc = -1;
    VVGCB anchor;
    Engine() {
        argv[VRTAENG_RC] = &rc;
        // Share the process's table once there is one, as a host does.
        anchor = *vvgcbp();
        if (std::memcmp(anchor.eye, "VGCB", 4) == 0) argv[VRTAENG_VVGCB] = &anchor;
        vrtaeng(5, argv);
    }
    ~Engine() {
        if (rc == 0) hpdterm(argv[VRTAENG_ID]);
    }
    HPD_ENGTBL* tbl() const { return static_cast<HPD_ENGTBL*>(argv[VRTAENG_ENGTBL]); }
};

// The first substitution that travels with the last code.
std::string subst() {
    const char* p = nullptr;
    int len = 0;
    if (xrgtsub(&p, &len) != 0 || !p) return "";
    return std::string(p, len);
}

}  // namespace

TEST(EngineVector, EverySlotSitsInOrderWithItsEntry) {
    ASSERT_EQ(sizeof xhen / sizeof xhen[0], 121u);
    ASSERT_EQ(sizeof oper / sizeof oper[0], 24u);
    Engine e;
    ASSERT_EQ(e.rc, 0);
    int empty = 0;
    for (size_t i = 0; i < 121; ++i) {
        SCOPED_TRACE(xhen[i].slot);
        EXPECT_EQ(xhen[i].off, i * sizeof(u_xgfptr));
        EXPECT_EQ(at(&e.tbl()->xhen, xhen[i].off), xhen[i].fn);
        empty += xhen[i].fn == nullptr;
    }
    EXPECT_EQ(empty, 16);
    const char* optbl = reinterpret_cast<const char*>(&e.tbl()->hpdtbl);
    EXPECT_EQ(optbl - reinterpret_cast<const char*>(e.tbl()), 121 * 8);
    for (size_t i = 0; i < 24; ++i) {
        SCOPED_TRACE(oper[i].slot);
        EXPECT_EQ(oper[i].off, i * sizeof(u_xgfptr));
        EXPECT_EQ(at(optbl, oper[i].off), oper[i].fn);
    }
}

TEST(EngineVector, StubsAndProtocolEntriesSucceedWithoutWork) {
    Engine e;
    ASSERT_EQ(e.rc, 0);
    const XHENTRY& x = e.tbl()->xhen;
    // The six hplnsup slots take no arguments and report success.
    for (u_xgfptr p : {x.yleterm, x.ylemdtm, x.ylemcop, x.ylepurg, x.yledeas, x.yoewho})
        EXPECT_EQ(reinterpret_cast<int (*)()>(p)(), 0);
    // The protocol entries get a live argument and must leave it alone.
    char fid[64];
    std::memset(fid, 0x5a, sizeof fid);
    for (u_xgfptr p : {x.yveprjd, x.yveprjf, x.yoeinfs, x.yceinfr, x.yhelxsp})
        EXPECT_EQ(reinterpret_cast<int (*)(void*)>(p)(fid), 0);
    for (char c : fid) ASSERT_EQ(c, 0x5a);
    EXPECT_EQ(hpvallv(fid), 0);
}

void keepLine(void* pmdata, int, const char* buffer, int len) {
    static_cast<std::string*>(pmdata)->append(buffer, len).push_back('\n');
}

TEST(EngineVector, EntriesNotServedYetFailCleanlyAndNameThemselves) {
    Engine e;
    ASSERT_EQ(e.rc, 0);
    std::string log;
    XPPMFP oldfp;
    void* olddata;
    xpgetpm(&oldfp, &olddata);
    xpsetpm(keepLine, &log);
    const HPD_ENGTBL* t = e.tbl();
    void* rec = reinterpret_cast<void*>(0x1234);
    auto load = reinterpret_cast<int (*)(void*, void**)>(t->xhen.yoeload);
    rctype rc = load(nullptr, &rec);
    EXPECT_EQ(rc, XP_RC_NOTYET);
    EXPECT_LT(rc, 0);
    EXPECT_EQ(rec, reinterpret_cast<void*>(0x1234));
    // The code carries the entry's name as its substitution.
    EXPECT_EQ(subst(), "hpoload");

    rc = reinterpret_cast<int (*)(void*)>(t->hpdtbl.hperlck)(nullptr);
    EXPECT_EQ(rc, XP_RC_NOTYET);
    EXPECT_EQ(subst(), "hperlck");
    xpsetpm(oldfp, olddata);

    // Each refusal leaves one log line that names the entry.
    EXPECT_NE(log.find("The request hpoload is not available yet."), std::string::npos) << log;
    EXPECT_NE(log.find("The request hperlck is not available yet."), std::string::npos) << log;
}

TEST(EngineVector, AttributeTableHoldsTheEnginesValues) {
    Engine e;
    ASSERT_EQ(e.rc, 0);
    auto* a = static_cast<const XHEATTR*>(e.argv[VRTAENG_ATTR]);
    const int want[] = {23, 15, 14, 1, 295, 127, 503, 3, 0, 0, 9, 0, 0, 0, 1, 1, 0, 1, 38, 0};
    const int got[] = {a->file_acc, a->rec_acc,  a->key_acc,      a->byte_acc, a->acc_ordr,  a->hdr_acc,
                       a->dict_acc, a->dta_typ,  a->concur,       a->integrity, a->authoriz, a->dat_modl,
                       a->rel_op,   a->max_physname, a->dir_acc,  a->pars_exit, a->xl_acc,   a->loading,
                       a->options,  a->encoding_cei};
    for (size_t i = 0; i < sizeof want / sizeof want[0]; ++i) EXPECT_EQ(got[i], want[i]) << "field " << i;
    EXPECT_EQ(a->growth, 0);
    for (char c : a->locale) EXPECT_EQ(c, 0);
    // The copy kept for the SQL pass-through is the same table.
    EXPECT_EQ(std::memcmp(a, &hpdsqlattr, sizeof *a), 0);
}

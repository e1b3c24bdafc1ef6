// The engine vector: which engine function serves which slot. The layout is
// the host's (vrta/vrtaeng.h); a slot not set here stays null because the
// table is zero-filled when allocated.
#include "eng/hpd.h"
#include "eng/hpdd.h"
#include "eng/hpdl.h"
#include "eng/hpdo.h"
#include "eng/hpdopt.h"

extern "C" {

rctype yyilc2g(u_xgfptr local, u_xgfptr* global) {
    // Code addresses have one form on this platform; a platform with another
    // pointer convention converts here.
    *global = local;
    return 0;
}

rctype hplnsup() { return 0; }
rctype hpvprjd(void*) { return 0; }
rctype hpvprjf(void*) { return 0; }
rctype hpoinfs(void*) { return 0; }
rctype hpcinfr(void*) { return 0; }
rctype hpdlxsp(void*) { return 0; }
rctype hpvallv(void*) { return 0; }

}  // extern "C"

namespace vrta {

rctype hpdfill(HPD_ENGTBL* tbl) {
    XHENTRY& x = tbl->xhen;
    HPDENT& o = tbl->hpdtbl;
#define F(slot, fn)                                                          \
    if (rctype rc = yyilc2g(reinterpret_cast<u_xgfptr>(&fn), &(slot)); rc) \
        return rc;

    // host-wide
    F(x.yheterm, hpdterm) F(x.yhelasg, hpdlasg) F(x.yheldas, hpdldas) F(x.ycetrnc, hpctrnc)
    F(x.yhelpar, hpdpars) F(x.yhelpfr, hphbfr) F(x.yhelxsp, hpdlxsp)
    // members of a domain by name
    F(x.ydedel, hpddel) F(x.ydernm, hpdrnm) F(x.ydedopn, hpddopn) F(x.ydedrd, hpddrd)
    F(x.ydedcls, hpdcls) F(x.ydexist, hpdexis)
    // table open and columns
    F(x.yoeopen, hpoopen) F(x.yoeclos, hpoclos) F(x.yoeropn, hporopn) F(x.yoepars, hpopars)
    F(x.yoefix, hpofix) F(x.yveprji, hpvprji) F(x.yveprjl, hpvprjl) F(x.yveprjd, hpvprjd)
    F(x.yveprje, hpvprje) F(x.yveprjf, hpvprjf) F(x.yvedefv, hpodefv) F(x.ycenotd, hpcdnot)
    F(x.yvenamu, hpvnamu)
    // rows
    F(x.yoeaddl, hpoaddl) F(x.yoeinfo, hpoinfo) F(x.yoeload, hpoload) F(x.yoegetn, hpgetnc)
    F(x.yoegetr, hpogetr) F(x.yoeadd, hpoadd) F(x.yoeupd, hpoupd) F(x.yoedel, hpodel)
    F(x.yoenote, hponote) F(x.yoepnt, hpopnt) F(x.yoen2rd, hpon2rd) F(x.yoerd2n, hpord2n)
    F(x.yoeforc, hpoforc) F(x.yoewset, hpowset) F(x.yoeordr, hpoordr) F(x.yoeunlk, hpounlk)
    // byte streams
    F(x.yceopen, hpcopen) F(x.yceclos, hpcclos) F(x.yceropn, hpcropn) F(x.yceread, hpcrd)
    F(x.ycewrit, hpcwrt) F(x.ycepnt, hpcpnt) F(x.ycenote, hpcnote) F(x.yceforc, hpcforc)
    // indexes
    F(x.yiedef, hpiedef) F(x.yiedrop, hpidrop) F(x.yieobtn, hpiobtn) F(x.yiestat, hpistat)
    F(x.yieset, hpieset) F(x.yiepnt, hpipnt) F(x.yieget, hpieget) F(x.ycepntd, hpcdpnt)
    // catalogs and directories
    F(x.yleopen, hplopen) F(x.yleclos, hplclos) F(x.ylemopn, hplmopn) F(x.ylemcls, hplmcls)
    F(x.ylemrd, hplmrd) F(x.ylemwt, hplmwrt) F(x.yleterm, hplnsup) F(x.yledopn, hpldopn)
    F(x.yledcls, hpldcls) F(x.yledrd, hpldrd) F(x.yledlst, hpldlst) F(x.yledpnt, hpldpnt)
    F(x.ylednt, hpldnt) F(x.ylemnt, hplmnt) F(x.ylempt, hplmpt) F(x.yleminf, hplminf)
    F(x.yleinf, hplinf) F(x.ylemdel, hplmdel) F(x.ylemren, hplmren) F(x.ylemset, hplmset)
    F(x.ylemops, hplmops) F(x.ylemfd, hplmfd) F(x.ylemopg, hplmopg) F(x.yledinf, hpldinf)
    F(x.ylemskp, hplmskp) F(x.yleals, hplals) F(x.ylename, hplname) F(x.ylemdtm, hplnsup)
    F(x.ylemcop, hplnsup)
    // information and late additions
    F(x.yhelins, hpdlins) F(x.yhelinr, hpdlinr) F(x.yoeinfs, hpoinfs) F(x.yoeinfr, hpoinfr)
    F(x.yceinfs, hpcinfs) F(x.yceinfr, hpcinfr) F(x.ylepurg, hplnsup) F(x.yledeas, hplnsup)
    F(x.engtest, hpdtest) F(x.yleinfs, hplinfs) F(x.yleinfr, hplinfr) F(x.yoewho, hplnsup)
    F(x.ycelock, hpclock) F(x.yoesgrp, hpssgrp) F(x.yoesget, hpssget) F(x.yosthcnt, hposth)
    F(x.yhedlasg, hpdlasgn) F(x.yoekeep, hpokeep)

    // operator table: slot and function share the name
    F(o.hpeopen, hpeopen) F(o.hpeclos, hpeclos) F(o.hpesacl, hpesacl) F(o.hpelacl, hpelacl)
    F(o.hpeaacl, hpeaacl) F(o.hpemacl, hpemacl) F(o.hpeuacl, hpeuacl) F(o.hpedacl, hpedacl)
    F(o.hpepopr, hpepopr) F(o.hpepcls, hpepcls) F(o.hpeplba, hpeplba) F(o.hpelusr, hpelusr)
    F(o.hpeplbl, hpeplbl) F(o.hpeplbd, hpeplbd) F(o.hpeplbm, hpeplbm) F(o.hpeplbc, hpeplbc)
    F(o.hpepdba, hpepdba) F(o.hpepdbd, hpepdbd) F(o.hpepdbl, hpepdbl) F(o.hpesys, hpesys)
    F(o.hperopr, hperopr) F(o.hperusr, hperusr) F(o.hpercan, hpercan) F(o.hperlck, hperlck)
#undef F
    return 0;
}

}  // namespace vrta

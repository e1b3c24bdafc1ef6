// Table open and close: the open request merged from the host's request, the
// table options and the macro variables; the table's description streamed
// back and turned into the host's INFOSTR and NAMESTR array; the buffers of
// the read; the same table opened again on the direct path when the domain
// allows it; reopen, repair, information and the close.
#include "eng/hpdo.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdl.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "ssup/xm.h"
#include "ssup/xp.h"
#include "vrta/directapi.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;
constexpr int BLOCKSIZE = 32756;       // the smallest network block
constexpr int DIRECTBLOCK = 65536;     // with the direct path beside the wire
constexpr int RIDLEN = 48;
constexpr int GENDEFAULT = -1000;

void* dalloc(long n) { return n > 0 ? xmalloc(XM_THREADPOOL, n, XM_ZERO) : nullptr; }
template <class T>
void dfree(T*& p, long n) {
    if (p && n > 0) xmfree(XM_THREADPOOL, p, n);
    p = nullptr;
}

int flen(const char* p, int cap) {
    int n = static_cast<int>(strnlen(p, cap));
    while (n > 0 && p[n - 1] == ' ') --n;
    return n;
}

int native(const HPDLIB* lib) { return hpdostag(lib->server ? lib->server->osname : nullptr)->native; }

// A macro variable as text; false when it is not set.
bool mac(const hpddcb dcb, const char* name, char* out, int cap) {
    char n8[8];
    std::memset(n8, ' ', 8);
    std::memcpy(n8, name, std::min<size_t>(std::strlen(name), 8));
    int l = 0;
    if (hpogmac(dcb->mactbl, n8, out, cap - 1, &l) != 0) return false;
    out[l] = 0;
    return true;
}
bool macint(const hpddcb dcb, const char* name, int64_t* v) {
    char t[32];
    if (!mac(dcb, name, t, sizeof t)) return false;
    char* e = nullptr;
    long long n = std::strtoll(t, &e, 10);
    if (e == t) return false;
    *v = n;
    return true;
}
// A macro variable that says YES (or a non-zero number).
bool macyes(const hpddcb dcb, const char* name) {
    char t[32];
    if (!mac(dcb, name, t, sizeof t)) return false;
    return std::strcmp(t, "YES") == 0 || (std::atoi(t) != 0);
}
bool macno(const hpddcb dcb, const char* name) {
    char t[32];
    return mac(dcb, name, t, sizeof t) && (std::strcmp(t, "NO") == 0 || std::strcmp(t, "0") == 0);
}

// Today as days from 1 January 1960.
double ztoday() {
    time_t now = time(nullptr);
    return static_cast<double>(now / 86400 + 3653);
}

// The ACL word of a request: on and off bits for read, write, alter, control.
int acldefof(int d) {
    int a = 0;
    if (d & HPO_ACLREAD) a |= 1;
    if (d & HPO_ACLREADNO) a |= 8;
    if (d & HPO_ACLWRITE) a |= 2;
    if (d & HPO_ACLWRITENO) a |= 16;
    if (d & HPO_ACLALTER) a |= 4;
    if (d & HPO_ACLALTERNO) a |= 32;
    if (d & HPO_ACLCONTROL) a |= 64;
    if (d & HPO_ACLCONTROLNO) a |= 128;
    return a;
}

// The opening mode of the request from the host's word (step 6).
int openmodeof(const XOPNSTR* opn, const HPDLIB* lib, int* gennum) {
    int m = opn->openmode;
    int o;
    if (m & XO_INPUT) {
        o = 1;
    } else if (m & XO_OUTPUT) {
        o = 2;
        if (*gennum != GENDEFAULT) *gennum = -1111;
    } else if ((m & XO_KEYED) != XO_KEYED && !opn->keyptr) {
        o = (m & XO_UPDATE) == XO_UPDATE ? 4 : 0;
    } else {
        o = 8;
    }
    if (opn->shr[0] & 8) o |= 0x200;
    o |= 0x400000;
    if (lib->lock && (m & XO_UPDATE)) o |= (opn->shr[1] & 2) ? 0x8000 : (opn->shr[1] & 1) ? 0x20000 : 0x10000;
    o |= (m & XO_RANDOM) ? 32 : 64;
    return o;
}

// A dead connection: the open fails at once without touching it.
bool dead(const HPDLIB* lib) {
    return !lib->server || !lib->sopen || lib->sopen->eof || !lib->server->sopen || lib->server->sopen->eof;
}

// What the open of a table adds to the classification of its replies.
HPD_RCTX rctx(const hpddcb dcb) {
    return HPD_RCTX{dcb->name, flen(dcb->name, 32), dcb->lib && dcb->lib->server ? dcb->lib->server->osname : nullptr};
}

rctype next(hpddcb dcb, DS_HDR_REPLY* h) {
    HPD_RCTX c = rctx(dcb);
    return hpdnext(dcb->sopen, native(dcb->lib), dcb->lib->level, h, &c);
}

// Parses the body of the reply just read into r; a body that does not fit
// is a broken conversation.
template <class R>
rctype body(hpddcb dcb, R& r) {
    YXSOCK_OPEN* so = dcb->sopen;
    if (rctype rc = dsparse(r, dcb->lib->level, static_cast<const unsigned char*>(so->reca), so->recl); rc) {
        so->eof = 1;
        return rc;
    }
    return 0;
}

void freeindexes(hpddcb dcb) {
    for (HPDINDX* x = dcb->indxinfo; x;) {
        HPDINDX* n = x->next;
        xmfree(XM_THREADPOOL, x, x->size);
        x = n;
    }
    dcb->indxinfo = nullptr;
}

// The direct path's handles.
void dropdirect(hpddcb dcb) {
    if (dcb->pnt) spfreept(dcb->pnt);
    if (dcb->iocb) spfreerd(dcb->iocb);
    if (dcb->wiocb) spfreerd(dcb->wiocb);
    if (dcb->giocb) spfreerd(dcb->giocb);
    dcb->pnt = dcb->iocb = dcb->wiocb = dcb->giocb = nullptr;
    dfree(dcb->recf, dcb->rowlen);
    if (dcb->dafid) vrtaclose(dcb->dafid);
    dcb->dafid = nullptr;
}

void freeprojection(hpddcb dcb) {
    dfree(dcb->cols, 4L * dcb->projroom);
    dfree(dcb->projpos, 4L * dcb->projroom);
    dfree(dcb->projlen, 4L * dcb->projroom);
    dcb->nproj = dcb->nprojset = dcb->projroom = dcb->projlisting = dcb->sellen = 0;
}

// Opens the table again beside the wire (steps 25 and 26). Nothing here is
// a failure: without a handle the table runs over the wire.
void opendirect(hpddcb dcb, int gennum, int flags) {
    HPDLIB* lib = dcb->lib;
    if (!dcb->blockfactor || !lib->handle || lib->delrec || dcb->keep || !(dcb->opnmode & (1 | 4))) return;
    int nl = flen(dcb->name, 32);
    char type[9];
    std::snprintf(type, sizeof type, "%.8s", dcb->infostr->memtype);
    const char* key = dcb->spekey[0] ? dcb->spekey : nullptr;
    const XHEATTR* a = lib->attr;
    int cei = dcb->cei;  // the encoding the wire open asked for; 0 the table's own
    int ll = a ? flen(a->locale, 32) : 0;
    int rc;
    if (dcb->opnmode & 1)
        rc = vrtaopen(lib->handle, dcb->name, nl, type, gennum, key, cei, a ? a->locale : nullptr, ll, flags,
                      &dcb->dafid);
    else
        rc = vrtaupdate(lib->handle, dcb->name, nl, type, key, cei, a ? a->locale : nullptr, ll, flags, &dcb->dafid);
    if (rc < 0 || !dcb->dafid) {
        dcb->dafid = nullptr;
        return;
    }
    long bf = dcb->blockfactor;
    dcb->recf = static_cast<char*>(dalloc(dcb->rowlen));
    if (!dcb->recf || spnewpt(dcb->dafid, bf * (dcb->rowlen + 8), dcb->firstobs, dcb->endobs, &dcb->pnt) < 0 ||
        spnewrd(dcb->dafid, bf * dcb->rowlen, dcb->recordc, &dcb->iocb) < 0 ||
        spnewrd(dcb->dafid, bf * dcb->rowlen, dcb->recordc, &dcb->wiocb) < 0 ||
        spnewrd(dcb->dafid, dcb->rowlen, dcb->recf, &dcb->giocb) < 0)
        dropdirect(dcb);
}

int directflags(const HPDLIB* lib) { return (lib->truncwarn ? 1 : 0) | (lib->dynlock ? 2 : 0); }

// Tells the server to drop what it was streaming after the open reply and
// gives the connection up: what is left of the stream cannot be told from
// the next reply.
void dropstream(hpddcb dcb) {
    YXSOCK_OPEN* so = dcb->sopen;
    if (!so || so->eof) return;
    char one = 1;
    hpcwrit(yxsfd(so), &one, 1, so->gcb);
    so->eof = 1;
    shutdown(yxsfd(so), SHUT_RDWR);
}

// Step 15: the host's description of the table.
void buildinfo(hpddcb dcb, const DS_YOEOPEN_REPLY& r, const XOPNSTR* opn) {
    INFOSTR* in = dcb->infostr;
    std::memcpy(in->libname, dcb->lib->name, 8);
    std::memcpy(in->memname, opn->memname, 32);
    std::memcpy(in->memtype, opn->memtype, 8);
    std::memcpy(in->engine, "KORVRTA ", 8);
    in->num_prec = r.numobs;
    in->num_del = r.ndel;
    in->num_lrec = r.numobs - r.ndel;
    in->rec_len = r.obslen;
    in->crdate = r.cdate;
    in->modate = r.mdate;
    std::memcpy(in->type, r.dstype, 8);
    in->label_l = std::clamp(r.labell, 0, 256);
    if (in->label_l > 0) std::memcpy(in->label, r.label, in->label_l);
    in->num_vars = r.nvar;
    in->rid_len = RIDLEN;
    in->bufsize = r.blockfactor * r.obslen;
    in->flags |= 45;
    if (r.nindexes > 0) in->flags |= 64;
    in->shr = dcb->shrflag1;
    if (std::memcmp(r.diskcomp, "        ", 8) == 0 || r.diskcomp[0] == 0)
        std::memcpy(in->compress, "NO      ", 8);
    else if (std::memcmp(r.diskcomp, "DEFAULT ", 8) == 0)
        std::memcpy(in->compress, "YES     ", 8);
    else
        std::memcpy(in->compress, r.diskcomp, 8);
    std::memcpy(in->filefmt, dcb->lib->fmtlib ? "YES     " : "NO      ", 8);
    if (r.restrct == 1) xpmlog(MSGGRP, 286);
}

// Steps 18 to 21: the records behind the open reply.
rctype readstream(hpddcb dcb, const DS_YOEOPEN_REPLY& r) {
    DS_HDR_REPLY h;
    for (int v = 1; v <= r.nvar; ++v) {
        if (rctype rc = next(dcb, &h); rc) return rc;
        DS_YOEOPEN_NAMESTR_REPLY c{};
        if (rctype rc = body(dcb, c); rc) return rc;
        if (c.varnum != v || c.ns.nvar0 != v) return HPD_RC_NAMESEQ;
        NAMESTR* nm = dcb->namestr_array + (v - 1);
        nettokor(&c.ns, nm, dcb->varpool, dcb->labpool);
        nm->npos2 = c.npos2;
        nm->nipos = c.nipos;
        nm->nlng2 = c.nlng2;
        nm->nprec = c.nprec;
        nm->nscale = c.nscale;
        nm->ntattr = c.ntattr;
        nm->ntype2 = static_cast<int8_t>(c.ntype2);
        // A column must lie inside the row; the host would read past it otherwise.
        if (nm->npos < 0 || nm->nlng <= 0 || nm->npos + nm->nlng > dcb->rowlen) {
            char t[96];
            std::snprintf(t, sizeof t, "column %d lies outside the row of %d bytes", v, dcb->rowlen);
            xrmksub(1, t, -1);
            return HPD_RC_FAIL;
        }
    }
    for (int i = 0; i < r.nindexes; ++i) {
        if (rctype rc = next(dcb, &h); rc) return rc;
        DS_YOEOPEN_INDEX_REPLY x{};
        if (rctype rc = body(dcb, x); rc) return rc;
        long size = static_cast<long>(sizeof(HPDINDX)) + x.minlen + x.maxlen + x.var0len;
        auto* e = static_cast<HPDINDX*>(dalloc(size));
        if (!e) return HPD_RC_NOMEM;
        e->size = size;
        std::memcpy(e->name, x.name, 32);
        e->values = x.values;
        e->flag = x.flag;
        e->parts = x.parts;
        auto* p = reinterpret_cast<unsigned char*>(e + 1);
        e->min = p;
        e->minlen = x.minlen;
        if (x.minlen) std::memcpy(p, x.min, x.minlen);
        e->max = p += x.minlen;
        e->maxlen = x.maxlen;
        if (x.maxlen) std::memcpy(p, x.max, x.maxlen);
        e->var0 = p += x.maxlen;
        e->var0len = x.var0len;
        if (x.var0len) std::memcpy(p, x.var0, x.var0len);
        e->next = dcb->indxinfo;
        dcb->indxinfo = e;
        std::memcpy(dcb->indxname + 40 * i, x.name, 32);
        if (x.flag & 1) dcb->whnoind = 1;
    }
    if (dcb->ngen > 0) {
        for (int g = 0; g < dcb->ngen; ++g) {
            if (rctype rc = next(dcb, &h); rc) return rc;
            DS_YOEOPEN_GEN_INFO_REPLY x{};
            if (rctype rc = body(dcb, x); rc) return rc;
            dcb->geninfo[g] = DS_GENINFO{x.mdate, x.gendate, x.obs, 1, x.gennum};
        }
    }
    for (int i = 0; i < dcb->numacl; ++i) {
        if (rctype rc = next(dcb, &h); rc) return rc;
        DS_YOEOPEN_ACLLIST_REPLY x{};
        if (rctype rc = body(dcb, x); rc) return rc;
        std::memcpy(dcb->aclinfo + 12 * i, x.name, 8);
        hpdput4(reinterpret_cast<unsigned char*>(dcb->aclinfo + 12 * i + 8), x.acluser);
        std::memcpy(dcb->aclname + 40 * i, x.name, 8);
    }
    return 0;
}

// Step 22: the sort order, as column numbers in NAMESTR order.
rctype sortorder(hpddcb dcb, const DS_YOEOPEN_REPLY& r) {
    int n = std::max(0, std::min(r.nvars, r.varslen / 4));
    if (n == 0) return 0;
    dcb->sortvar = static_cast<int32_t*>(dalloc(4L * n));
    if (!dcb->sortvar) return HPD_RC_NOMEM;
    int k = 0;
    for (int i = 0; i < n; ++i) {
        int32_t v = hpdget4(reinterpret_cast<const unsigned char*>(r.vars) + 4 * i);
        int a = v < 0 ? -v : v;
        if (a >= 1 && a <= dcb->infostr->num_vars) dcb->sortvar[k++] = v;
    }
    dcb->sortedby = k;
    return 0;
}

}  // namespace

void hpoentries(hpddcb dcb) {
    dcb->getnc = hpgetnc;
    dcb->getnb = dcb->getnbc = hpgetbc;
    dcb->getnbr = dcb->getnbrc = hpgtbrc;
    dcb->pntfast = reinterpret_cast<void*>(&hpopnt);
    dcb->getnf = hpgetnf;
    dcb->getnfr = hpgetfr;
    dcb->getnfs = dcb->ndel ? hpgetfd : hpgetfs;
    dcb->getwnfs = dcb->ndel ? hpgtwfd : hpgtwfs;
    if (dcb->compress) dcb->comprtn = hpzcmp1;
    dcb->getn = dcb->getnc;
    dcb->fast->getn = dcb->getnc;
    dcb->fast->pnt = reinterpret_cast<int (*)(void*, void*)>(dcb->pntfast);
    dcb->fast->fpfid = dcb;
}

rctype hpocsrv(hpddcb dcb, int s) {
    YXSOCK_OPEN* so = nullptr;
    if (rctype rc = hpdport(dcb->sopen, s, dcb->unixpathl > 0 ? dcb->unixpath : nullptr, dcb->unixpathl,
                            dcb->recordl + 4, 1, 82, &so);
        rc)
        return rc;
    dcb->dopen = so;
    return 0;
}

void hpodfree(hpddcb dcb) {
    if (!dcb) return;
    dropdirect(dcb);
    if (dcb->dopen) hpdsofree(dcb->dopen);
    dcb->dopen = nullptr;
    int nvar = dcb->infostr ? dcb->infostr->num_vars : 0;
    dfree(dcb->infostr, sizeof(INFOSTR));
    dfree(dcb->namestr_array, dcb->namestr_size);
    dfree(dcb->varpool, 32L * nvar);
    dfree(dcb->labpool, 256L * nvar);
    dfree(dcb->indxname, 40L * dcb->numindx);
    dfree(dcb->aclname, 40L * dcb->numacl);
    dfree(dcb->aclinfo, 12L * dcb->numacl);
    dfree(dcb->geninfo, static_cast<long>(sizeof(DS_GENINFO)) * dcb->ngen);
    dfree(dcb->sortvar, 4L * dcb->sortedby);
    dfree(dcb->unixpath, dcb->unixpathl + 1);
    freeindexes(dcb);
    freeprojection(dcb);
    dfree(dcb->record, dcb->reclen8);
    dfree(dcb->recordc, dcb->reclen8);
    dfree(dcb->recordr, dcb->reclen8);
    xmfree(XM_THREADPOOL, dcb, sizeof(HPDDCB));
}

rctype resync(hpddcb dcb, int reopen) {
    if (!dcb->resync && reopen == 1) return 0;
    dcb->resync = 0;
    dropdirect(dcb);
    if (reopen && dcb->lib->handle) opendirect(dcb, 0, directflags(dcb->lib));
    return 0;
}

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpoopen(void* engid, void** xoe, XOPNSTR* opn) {
    (void)engid;
    if (xoe) *xoe = nullptr;
    if (!opn) return HPO_RC_NOLIB;
    // 1.
    auto* dcb = static_cast<HPDDCB*>(dalloc(sizeof(HPDDCB)));
    if (!dcb) return HPD_RC_NOMEM;
    dcb->mactbl = opn->mactbl;
    std::memcpy(dcb->name, opn->memname, 32);
    dcb->infostr = static_cast<INFOSTR*>(dalloc(sizeof(INFOSTR)));
    if (!dcb->infostr) {
        hpodfree(dcb);
        return HPD_RC_NOMEM;
    }
    // 2. The null table: a description, no table.
    if (std::memcmp(opn->memname, "_NULL_  ", 8) == 0 && flen(opn->memname, 32) == 6) {
        std::memcpy(dcb->infostr->memname, opn->memname, 32);
        std::memcpy(dcb->infostr->memtype, opn->memtype, 8);
        std::memcpy(dcb->infostr->engine, "KORVRTA ", 8);
        if (xoe) *xoe = dcb;
        return 0;
    }
    // 3.
    auto* lib = static_cast<HPDLIB*>(opn->peng_lib);
    if (!lib) {
        hpodfree(dcb);
        return HPO_RC_NOLIB;
    }
    dcb->lib = lib;
    if (dead(lib)) {
        dcb->lib = nullptr;
        hpodfree(dcb);
        return hpderrtxt(MSGGRP, 79);
    }
    dcb->sopen = lib->sopen;
    auto fail = [&](rctype rc) {
        hpodfree(dcb);
        return rc;
    };
    // Rows move by pointer: a server whose data needs converting is not
    // served (the generated conversions are not part of this engine yet).
    if (const HPD_OSTAG* tag = hpdostag(lib->server->osname); tag->trans) {
        char os[9];
        std::snprintf(os, sizeof os, "%.*s", flen(lib->server->osname, 8), lib->server->osname);
        return fail(hpderrtxt(MSGGRP, 293, os));
    }
    // 4.
    HPOOPT none{};
    none.memmap = -1;
    none.startobs = none.endobs = -1;
    none.gennum = GENDEFAULT;
    std::memset(none.compress, ' ', 8);
    std::memset(none.type, ' ', 8);
    HPOOPT* opt = opn->peng_op ? static_cast<HPOOPT*>(opn->peng_op) : &none;
    // The host may free its options once the open is done: the bits are kept.
    dcb->optbits = opt->debug;
    dcb->shrflag1 = opn->shr[0];
    dcb->shrflag2 = opn->shr[1];
    if (opt->debug & HPO_CNTLMEM) dcb->shrflag1 &= ~8;
    if (opt->debug & HPO_CNTLREC) dcb->shrflag1 |= 8;

    // 5. The request.
    DS_YOEOPEN q{};
    q.libid = lib->libid;
    std::memcpy(q.memname, opn->memname, 32);
    std::memcpy(q.memtype, opn->memtype, 8);
    std::memcpy(q.type, opt->type, 8);
    q.label = opt->label;
    q.labell = static_cast<int32_t>(strnlen(opt->label, sizeof opt->label));
    std::memset(q.user, ' ', 8);
    q.xlaten = q.xlate1 = q.acllist = "";
    q.async = (opt->debug & HPO_ASYNCINDEX) ? 1 : 0;
    int64_t v;
    q.genmax = 0;
    if (macint(dcb, "VRTAGENM", &v)) q.genmax = static_cast<int32_t>(v);
    if (opt->genmax > 0) q.genmax = opt->genmax;
    q.gennum = opt->gennum;
    q.sortsize = opt->sortsize;
    q.encoding_cei = opt->encoding_cei;
    long page = sysconf(_SC_PAGESIZE);
    q.blocksize = std::max<long>(BLOCKSIZE, page);
    if (lib->handle) q.blocksize = DIRECTBLOCK;
    if (macint(dcb, "VRTANETP", &v) && v > q.blocksize && v <= INT32_MAX) q.blocksize = static_cast<int32_t>(v);
    if (opt->blocksize > q.blocksize) q.blocksize = opt->blocksize;
    q.ioblocksize = std::max(BLOCKSIZE, opt->ioblocksize);
    q.segsize = opt->segsize >= 1024 ? opt->segsize : 8192;
    q.compress = lib->nocomp ? 0 : 1;
    if (macno(dcb, "VRTACOMP")) q.compress = 0;
    else if (macyes(dcb, "VRTACOMP")) q.compress = 1;
    q.memmap = -1;
    if (macint(dcb, "VRTAMMAP", &v)) q.memmap = static_cast<int32_t>(v);
    if (opt->memmap != -1) q.memmap = opt->memmap;
    q.firstobs = lib->startobs;
    q.lastobs = lib->endobs;
    if (macint(dcb, "VRTASOBS", &v)) q.firstobs = v;
    if (macint(dcb, "VRTAEOBS", &v)) q.lastobs = v;
    if (opt->startobs > 0) q.firstobs = opt->startobs;
    if (opt->endobs > 0) q.lastobs = opt->endobs;
    q.sorttype = (opt->debug & HPO_QUICKSORT) ? 1 : 0;
    if (macint(dcb, "VRTASTYP", &v)) q.sorttype = static_cast<int32_t>(v);
    q.verbose = macyes(dcb, "VRTAVERB") || (opt->debug & HPO_VERBOSE);
    q.noindex = macyes(dcb, "VRTANIDX") || opt->noindex;
    q.noequals = macyes(dcb, "VRTABNEQ") || opt->noequal;
    q.uniqsave = macyes(dcb, "VRTAUSAV") || (opt->debug & HPO_UNIQUESAVE);
    std::memset(q.diskcomp, ' ', 8);
    char t[64];
    if (mac(dcb, "VRTADCMP", t, sizeof t)) std::memcpy(q.diskcomp, t, std::min<size_t>(std::strlen(t), 8));
    if (opt->comp) {
        if (flen(opt->compress, 8) == 0)
            std::memcpy(q.diskcomp, "DEFAULT ", 8);
        else
            std::memcpy(q.diskcomp, opt->compress, 8);
    }
    q.gentime = opt->gendate != 0 ? opt->gendate : ztoday();
    if (macint(dcb, "VRTACMPF", &v)) q.compfree = static_cast<int32_t>(v);
    q.wheval1 = 1;
    q.wheval2 = 2;
    if (macint(dcb, "VRTAEV1T", &v)) q.wheval1 = static_cast<int32_t>(v);
    if (macint(dcb, "VRTAEV2T", &v)) q.wheval2 = static_cast<int32_t>(v);
    if (macint(dcb, "VRTASIZE", &v)) q.datasize = v * 1048576;
    if (macint(dcb, "VRTATCNT", &v)) q.whthreads = static_cast<int32_t>(v);
    if (opt->thrcnt > 0) q.whthreads = opt->thrcnt;
    q.maxsegratio = -1;
    if (macint(dcb, "VRTAIRAT", &v)) q.maxsegratio = static_cast<int32_t>(v);
    q.ranktype = 1;
    q.taskid = 1;
    q.ltype = lib->ltype;
    std::memset(q.lang, ' ', 4);
    std::memset(q.sysname, ' ', 8);
    std::memset(q.effuser, ' ', 8);
    std::memset(q.effgrp, ' ', 8);
    std::memset(q.dsreqv, ' ', 40);
    std::memset(q.ekey, ' ', 40);
    dcb->bysort = lib->bysort;
    if (macno(dcb, "VRTABSRT")) dcb->bysort = 0;
    else if (macyes(dcb, "VRTABSRT")) dcb->bysort = 1;
    if (opt->debug & HPO_BYSORT) dcb->bysort = 1;
    dcb->syncadd = macyes(dcb, "VRTASADD") || (opt->debug & HPO_SYNCADD);
    dcb->syncread = macyes(dcb, "VRTASYRD");
    q.afunix = (lib->unixs || (opt->debug & HPO_UNIXDOMAIN)) ? 1 : 0;
    // The table's key: as it stands from the macro variable, else the
    // option scrambled into the three password slots.
    if (mac(dcb, "VRTAEKEY", t, sizeof t)) {
        q.ekeylen = std::min<int32_t>(static_cast<int32_t>(std::strlen(t)), 40);
        std::memcpy(q.ekey, t, q.ekeylen);
        std::snprintf(dcb->spekey, sizeof dcb->spekey, "%.12s", t);
    } else if (opt->ekey[0]) {
        char pw[12];
        std::memset(pw, ' ', 12);
        int kl = static_cast<int>(strnlen(opt->ekey, sizeof opt->ekey));
        if (kl > 12) return fail(hpderrtxt(MSGGRP, 294));
        for (int i = 0; i < kl; ++i) pw[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(opt->ekey[i])));
        unsigned char s[12];
        yhpwcrp(pw, s);
        std::memcpy(opn->pw, s, 12);
        std::memcpy(q.ekey, s, 12);
        q.ekeylen = 12;
        std::memcpy(q.diskcomp, "KOR     ", 8);
    }
    if (flen(q.diskcomp, 8) > 0) {
        if (lib->level <= 0) {
            xpmlog(MSGGRP, 228);
            std::memset(q.diskcomp, ' ', 8);
        } else if (lib->level <= 3 && std::memcmp(q.diskcomp, "KOR     ", 8) != 0 && !(lib->expmsg & 2)) {
            xpmlog(MSGGRP, 232);
            lib->expmsg |= 2;
        }
    }
    // 6.
    int o = openmodeof(opn, lib, &q.gennum);
    if (macno(dcb, "VRTAISRT")) o |= 0x400;
    if (macyes(dcb, "VRTASTAG")) o |= 0x800;
    if (macyes(dcb, "VRTAFSAV")) o |= 0x1000;
    if (macyes(dcb, "VRTAUSCO")) o |= 0x4000;
    if (macno(dcb, "VRTAWCST")) o |= 0x1000000;
    if (lib->delrec) o |= 0x2000;
    if (!lib->fmtlib && lib->nocatopen) o |= 0x4000000;
    if (o & 0x38000) dcb->syncread = 1;
    q.opnmode = o;
    dcb->opnmode = o;
    // 7.
    if (macno(dcb, "VRTAWEV1") || macyes(dcb, "VRTAWSEQ")) dcb->whflag |= 1;
    if (macyes(dcb, "VRTAWDEB")) dcb->whflag |= 2;
    if (macyes(dcb, "VRTAWBTR")) dcb->whflag |= 4;
    dcb->async = q.async;
    if (!lib->perf) {
        dcb->async = q.async = 0;
        dcb->whflag |= 1;
        q.wheval1 = q.wheval2 = 0;
        q.whthreads = 1;
        q.datasize = 0;
    }
    q.whflag = dcb->whflag;
    // 8. The rows asked for.
    if (q.firstobs > 0 && q.lastobs > 0 && q.firstobs > q.lastobs) {
        char n[33];
        std::snprintf(n, sizeof n, "%.*s", flen(dcb->name, 32), dcb->name);
        return fail(hpderrtxt(MSGGRP, 131, n));
    }
    if (q.lastobs < 0) q.lastobs = 0;
    if (q.firstobs < 1) q.firstobs = 1;
    dcb->firstobs = dcb->getfirst = dcb->sobs = q.firstobs;
    dcb->endobs = dcb->eobs = q.lastobs;
    // 9.
    q.acldef = acldefof(opt->debug);
    q.acllist = opt->acllist ? opt->acllist : "";
    q.acllen = opt->acllist ? opt->acllen : 0;
    dcb->verbose = q.verbose;
    dcb->cei = q.encoding_cei;
    dcb->ltype = q.ltype;
    dcb->genmax = q.genmax;
    dcb->nobyindex = q.noindex;
    dcb->blocksize = q.blocksize;

    // 10, 11.
    DS_HDR_REPLY h;
    HPD_RCTX c = rctx(dcb);
    if (rctype rc = hpdask(dcb->sopen, native(lib), lib->level, DSM_YOEOPEN, &DS_YOEOPEN_D, &q, &h, &c); rc)
        return fail(rc);
    DS_YOEOPEN_REPLY r{};
    if (rctype rc = body(dcb, r); rc) return fail(rc);
    // The reply lies in the socket's buffer, which the stream below reuses:
    // what is needed of it is copied now.
    std::string msg(r.msg ? r.msg : "", std::max(r.msglen, 0));
    int rclass = h.rclass;
    // 12.
    dcb->rowlen = dcb->reclen = r.obslen;
    dcb->openid = r.openid;
    dcb->numindx = std::max(r.nindexes, 0);
    dcb->numobs = r.numobs;
    dcb->ndel = r.ndel;
    dcb->blockfactor = std::max(r.blockfactor, 0);
    dcb->portno = r.portno;
    dcb->genhigh = r.genhigh;
    dcb->numacl = std::max(r.acllistl, 0);
    dcb->keep = (r.xoeflags & 8) ? 1 : 0;
    if (r.ekeylen == 12 && lib->level >= 2) {
        for (int i = 0; i < 3; ++i) {
            std::memcpy(opn->pw[i], r.ekey + 4 * i, 4);
            opn->pwset[i] = std::memcmp(r.ekey + 4 * i, "\0\0\0\0", 4) != 0 ? 255 : 0;
        }
        char k[12];
        yhpwdcr(reinterpret_cast<const unsigned char*>(r.ekey), k);
        std::snprintf(dcb->spekey, sizeof dcb->spekey, "%.*s", flen(k, 12), k);
    }
    // 13.
    dcb->fast = opn->fast_path ? opn->fast_path : &dcb->ownfast;
    dcb->compress = q.compress;
    hpoentries(dcb);
    // 14.
    if (r.unixpathl > 0) {
        dcb->unixpath = static_cast<char*>(dalloc(r.unixpathl + 1));
        if (!dcb->unixpath) return fail(HPD_RC_NOMEM);
        for (int i = 0; i < r.unixpathl; ++i) dcb->unixpath[i] = r.unixpath[i] ? r.unixpath[i] : ' ';
        dcb->unixpathl = r.unixpathl;
    }
    std::snprintf(dcb->servname, sizeof dcb->servname, "%.*s", lib->server->servlen, lib->server->servname);
    // 15.
    buildinfo(dcb, r, opn);
    // 22, early: the sort order lies in the reply's buffer, which the stream reuses.
    if (rctype rc = sortorder(dcb, r); rc) return fail(rc);
    // 16. A reply that promises absurd counts is refused before anything is allocated for them.
    int nvar = r.nvar;
    if (nvar < 0 || nvar > 32767 || r.obslen <= 0 || dcb->numindx > 32767 || dcb->numacl > 32767 ||
        (dcb->genmax > 0 && (dcb->genhigh < 0 || dcb->genhigh > 32767))) {
        dropstream(dcb);
        xrmksub(1, "the open reply of the server is not plausible", -1);
        return fail(HPD_RC_FAIL);
    }
    if (dcb->genhigh < 0) dcb->genhigh = 0;
    dcb->ngen = dcb->genmax > 0 ? dcb->genhigh : 0;
    dcb->namestr_size = 208L * nvar;
    dcb->varpool = static_cast<char*>(dalloc(32L * nvar));
    dcb->labpool = static_cast<char*>(dalloc(256L * nvar));
    dcb->namestr_array = static_cast<NAMESTR*>(dalloc(dcb->namestr_size));
    dcb->indxname = static_cast<char*>(dalloc(40L * dcb->numindx));
    dcb->aclname = static_cast<char*>(dalloc(40L * dcb->numacl));
    dcb->aclinfo = static_cast<char*>(dalloc(12L * dcb->numacl));
    dcb->geninfo = static_cast<DS_GENINFO*>(dalloc(static_cast<long>(sizeof(DS_GENINFO)) * dcb->ngen));
    if ((nvar && (!dcb->varpool || !dcb->labpool || !dcb->namestr_array)) || (dcb->numindx && !dcb->indxname) ||
        (dcb->numacl && (!dcb->aclname || !dcb->aclinfo)) || (dcb->ngen && !dcb->geninfo)) {
        dropstream(dcb);
        return fail(HPD_RC_NOMEM);
    }
    if (dcb->numindx) std::memset(dcb->indxname, ' ', 40L * dcb->numindx);
    if (dcb->numacl) std::memset(dcb->aclname, ' ', 40L * dcb->numacl);
    // 17. Go on: the server streams the rest.
    char zero = 0;
    if (hpcwrit(yxsfd(dcb->sopen), &zero, 1, dcb->sopen->gcb) != 0) {
        dcb->sopen->eof = 1;
        xpmlog(MSGGRP, 75);
        return fail(HPD_RC_FAIL);
    }
    // 18 to 21.
    if (rctype rc = readstream(dcb, r); rc) {
        dropstream(dcb);
        return fail(rc);
    }
    // 23. Buffers of the read.
    dcb->numbuf = dcb->blockfactor;
    const HPD_OSTAG* tag = hpdostag(lib->server->osname);
    dcb->swap = tag->swap;
    dcb->trans = tag->trans;
    dcb->recordl = static_cast<long>(dcb->blockfactor) * (dcb->reclen + 8);
    dcb->reclen8 = std::max<long>(dcb->recordl, dcb->reclen);
    dcb->recordc = static_cast<char*>(dalloc(dcb->reclen8));
    if (!(dcb->opnmode & 1)) dcb->record = static_cast<char*>(dalloc(dcb->reclen8));
    if (!dcb->recordc || (!(dcb->opnmode & 1) && !dcb->record)) return fail(HPD_RC_NOMEM);
    // 24.
    if (xoe) *xoe = dcb;
    opn->namestr = dcb->namestr_array;
    // 25, 26.
    opendirect(dcb, -dcb->genhigh, directflags(lib));
    hpdrmsg(rclass, msg.data(), static_cast<long>(msg.size()));
    return 0;
}

extern "C" rctype hpoclos(void* fid, int disp) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb) return 0;
    // 1. The null table.
    if (!dcb->lib) {
        hpodfree(dcb);
        return 0;
    }
    HPDLIB* lib = dcb->lib;
    // 2, 3. An index built in the background, or rows added, would be
    // finished here: this engine starts neither yet, so there is nothing to
    // complete or force.
    dcb->eof = 1;
    // 4, 5.
    dropdirect(dcb);
    if (dcb->dopen) hpdsofree(dcb->dopen);
    dcb->dopen = nullptr;
    // 6.
    DS_YOECLOS q{};
    q.openid = dcb->openid;
    q.disp = disp;
    std::memset(q.collate, ' ', 8);
    q.nvars = dcb->sortedby;
    unsigned char vars[4 * 128];
    int nv = std::min(dcb->sortedby, 128);
    for (int i = 0; i < nv; ++i) hpdput4(vars + 4 * i, dcb->sortvar[i]);
    q.nvars = nv;
    q.vars = reinterpret_cast<const char*>(vars);
    q.varslen = 4 * nv;
    std::memcpy(q.type, dcb->stype[0] ? dcb->stype : "        ", 8);
    q.label = dcb->slabel;
    q.labell = dcb->slabell;
    DS_HDR_REPLY h;
    HPD_RCTX c = rctx(dcb);
    rctype rc = hpdask(dcb->sopen, native(lib), lib->level, DSM_YOECLOS, &DS_YOECLOS_D, &q, &h, &c);
    // 7.
    DS_YOECLOS_REPLY r{};
    if (rc == 0 && (rc = body(dcb, r)) == 0) {
        char n[33];
        std::snprintf(n, sizeof n, "%.*s", flen(dcb->name, 32), dcb->name);
        uint64_t bits;
        std::memcpy(&bits, &r.pct, 8);
        if (!(dcb->opnmode & 1) && (bits >> 48) != 0xffff) {
            char l[9], pct[32];
            std::snprintf(l, sizeof l, "%.*s", flen(lib->name, 8), lib->name);
            std::snprintf(pct, sizeof pct, "%.1f", r.pct);
            xpmlog(MSGGRP, 227, l, n, pct);
        }
        if (r.numdups != 0) {
            char ds[33], var[9];
            std::snprintf(ds, sizeof ds, "%.*s", flen(r.uniqds, 32), r.uniqds);
            std::snprintf(var, sizeof var, "%.*s", flen(r.uniqvar, 8), r.uniqvar);
            xpmlog(MSGGRP, 132, ds, var);
        }
        hpdrmsg(h.rclass, r.msg, r.msglen);
    }
    // 8.
    hpodfree(dcb);
    return rc;
}

extern "C" rctype hporopn(void* fid, int opnmode) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb || !dcb->lib) return HPO_RC_NOLIB;
    HPDLIB* lib = dcb->lib;
    // A read in progress ends: the table starts again from its first row.
    hpogterm(dcb);
    if (dcb->iocb) spfreerd(dcb->iocb);
    dcb->iocb = nullptr;
    dcb->order = 0;
    DS_YOEROPN q{dcb->openid, opnmode, dcb->blocksize};
    DS_HDR_REPLY h;
    HPD_RCTX c = rctx(dcb);
    if (rctype rc = hpdask(dcb->sopen, native(lib), lib->level, DSM_YOEROPN, &DS_YOEROPN_D, &q, &h, &c); rc)
        return rc;
    DS_YOEROPN_REPLY r{};
    if (rctype rc = body(dcb, r); rc) return rc;
    hpdrmsg(h.rclass, r.msg, r.msglen);
    if (r.blockfactor > dcb->blockfactor) {
        // The buffers only grow; a smaller factor keeps them.
        long nl = static_cast<long>(r.blockfactor) * (dcb->rowlen + 8);
        char* bufs[3] = {dcb->recordc, dcb->record, dcb->recordr};
        char* grown[3] = {};
        for (int i = 0; i < 3; ++i) {
            if (bufs[i] && !(grown[i] = static_cast<char*>(dalloc(nl)))) {
                for (char*& g : grown) dfree(g, nl);
                return HPD_RC_NOMEM;
            }
        }
        for (char* b : bufs) dfree(b, dcb->reclen8);
        dcb->recordc = grown[0];
        dcb->record = grown[1];
        dcb->recordr = grown[2];
        dcb->recordl = dcb->reclen8 = nl;
    }
    if (r.blockfactor > 0) dcb->blockfactor = r.blockfactor;
    dcb->syncadd = macyes(dcb, "VRTASADD") || (dcb->optbits & HPO_SYNCADD);
    dcb->syncread = macyes(dcb, "VRTASYRD") || (dcb->opnmode & 0x38000);
    dcb->resync = 1;
    return 0;
}

extern "C" rctype hpoinfo(void* fid, int what, void* where) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb || !where) return HPO_RC_BADWHAT;
    INFOSTR* in = dcb->infostr;
    auto put = [&](auto v) {
        std::memcpy(where, &v, sizeof v);
        return rctype{0};
    };
    switch (what) {
        case HPOINFO_INFOSTR:
            in->shr = dcb->shrflag1;
            std::memcpy(where, in, sizeof *in);
            return 0;
        case HPOINFO_NUMOBS:
            // Rows added through this open would be forced first; none are yet.
            return put(static_cast<int64_t>(in->num_lrec));
        case HPOINFO_NUMVARS: return put(static_cast<int32_t>(in->num_vars));
        case HPOINFO_NUMDEL: return put(static_cast<int64_t>(in->num_del));
        case HPOINFO_CRDATE: return put(in->crdate);
        case HPOINFO_MODATE: return put(in->modate);
        case HPOINFO_RECLEN: return put(static_cast<int32_t>(in->rec_len));
        case HPOINFO_RIDLEN: return put(static_cast<int32_t>(in->rid_len));
        case HPOINFO_TYPE: std::memcpy(where, in->type, 8); return 0;
        case HPOINFO_LABEL:
            std::memset(where, ' ', 40);
            std::memcpy(where, in->label, std::min(in->label_l, 40));
            return 0;
        case HPOINFO_RADIX: return put(static_cast<int32_t>(in->radix_addr));
        case HPOINFO_SLABEL: {
            auto* p = static_cast<char*>(where);
            int32_t l = dcb->slabell;
            std::memcpy(p, &l, 4);
            std::memset(p + 4, ' ', 40);
            std::memcpy(p + 4, dcb->slabel, l);
            return 0;
        }
        case HPOINFO_SETSLABEL: {
            const auto* p = static_cast<const char*>(where);
            int32_t l;
            std::memcpy(&l, p, 4);
            dcb->slabell = std::clamp(l, 0, 40);
            std::memcpy(dcb->slabel, p + 4, dcb->slabell);
            return 0;
        }
        case HPOINFO_DSORG: return put(static_cast<int16_t>(0));
        case HPOINFO_FLAGS: return put(static_cast<int16_t>(in->flags));
        case HPOINFO_SORTEDBY: return put(static_cast<int32_t>(dcb->sortedby));
        case HPOINFO_SORTVARS:
            if (dcb->sortedby > 0) std::memcpy(where, dcb->sortvar, 4L * dcb->sortedby);
            return 0;
        case HPOINFO_DIRECT: return put(static_cast<int32_t>(dcb->dafid ? 1 : 0));
        case HPOINFO_SOBS: return put(static_cast<int64_t>(dcb->sobs));
        case HPOINFO_EOBS: return put(static_cast<int64_t>(dcb->eobs));
        case HPOINFO_DAFID: return put(dcb->dafid);
        case HPOINFO_PNT: return put(dcb->pnt);
        case HPOINFO_IOCB: return put(dcb->iocb);
        case HPOINFO_GIOCB: return put(dcb->giocb);
        case HPOINFO_ASYNC: return put(static_cast<int32_t>(dcb->async ? 1 : 0));
        default: return HPO_RC_BADWHAT;
    }
}

extern "C" rctype hpofix(void* /*engid*/, XOPNSTR* opn) {
    if (!opn || !opn->peng_lib) return HPO_RC_NOLIB;
    auto* lib = static_cast<HPDLIB*>(opn->peng_lib);
    if (dead(lib)) return hpderrtxt(MSGGRP, 79);
    DS_YOEFIX q{};
    q.libid = lib->libid;
    std::memcpy(q.memname, opn->memname, 32);
    std::memcpy(q.memtype, opn->memtype, 8);
    DS_HDR_REPLY h;
    int nat = native(lib);
    HPD_RCTX c{opn->memname, flen(opn->memname, 32), lib->server->osname};
    if (rctype rc = hpdask(lib->sopen, nat, lib->level, DSM_YOEFIX, &DS_YOEFIX_D, &q, &h, &c); rc) return rc;
    DS_YOEFIX_REPLY r{};
    YXSOCK_OPEN* so = lib->sopen;
    if (dsparse(r, lib->level, static_cast<const unsigned char*>(so->reca), so->recl) != 0) {
        so->eof = 1;
        return HPD_RC_FAIL;
    }
    int whole = h.rcode;
    // One record for each index; its rcode says which of the repair
    // messages tells what became of it.
    for (int i = 0; i < r.nindexes && i < 32767; ++i) {
        if (rctype rc = hpdnext(so, nat, lib->level, &h, &c); rc) return rc;
        DS_YOEFIX_INDEX_REPLY x{};
        if (dsparse(x, lib->level, static_cast<const unsigned char*>(so->reca), so->recl) != 0) {
            so->eof = 1;
            return HPD_RC_FAIL;
        }
        char n[33];
        std::snprintf(n, sizeof n, "%.*s", flen(x.name, 32), x.name);
        if (h.rcode >= 115 && h.rcode <= 121)
            xpmlog(MSGGRP, h.rcode, n);
        else
            hpdrmsg(h.rclass, x.msg, x.msglen);
    }
    if (whole == 122) xpmlog(MSGGRP, 122);
    return 0;
}

extern "C" rctype hposth(void* fid, int cnt) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb) return HPO_RC_NOLIB;
    dcb->thrcnt = cnt;
    return 0;
}

extern "C" rctype hpvprji(void* fid, int nvar) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb || !dcb->lib) return HPO_RC_NOLIB;
    if (nvar < 0 || nvar > dcb->infostr->num_vars) return static_cast<rctype>(0x8001000eu);
    hpogterm(dcb);
    freeprojection(dcb);
    dcb->reclen = dcb->rowlen;
    dcb->projroom = nvar;
    dcb->cols = static_cast<int32_t*>(dalloc(4L * nvar));
    dcb->projpos = static_cast<int32_t*>(dalloc(4L * nvar));
    dcb->projlen = static_cast<int32_t*>(dalloc(4L * nvar));
    if (nvar > 0 && (!dcb->cols || !dcb->projpos || !dcb->projlen)) {
        freeprojection(dcb);
        return HPD_RC_NOMEM;
    }
    dcb->projlisting = 1;
    return 0;
}

extern "C" rctype hpvprjl(void* fid, int var0, int* npos) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb || !dcb->lib) return HPO_RC_NOLIB;
    if (!dcb->projlisting || dcb->nprojset >= dcb->projroom) return static_cast<rctype>(0x80000220u);
    if (var0 < 1 || var0 > dcb->infostr->num_vars) return static_cast<rctype>(0x8001000eu);
    const NAMESTR& n = dcb->namestr_array[var0 - 1];
    if (npos) *npos = dcb->sellen;
    dcb->cols[dcb->nprojset] = var0;
    dcb->projpos[dcb->nprojset] = n.npos;
    dcb->projlen[dcb->nprojset] = n.nlng;
    dcb->nprojset += 1;
    dcb->sellen += n.nlng;
    return 0;
}

extern "C" rctype hpvprje(void* fid, int* reclen) {
    auto* dcb = static_cast<hpddcb>(fid);
    if (!dcb || !dcb->lib) return HPO_RC_NOLIB;
    if (!dcb->projlisting) return static_cast<rctype>(0x80000220u);
    dcb->projlisting = 0;
    dcb->nproj = dcb->nprojset;
    if (dcb->nproj == 0) {
        freeprojection(dcb);
        dcb->reclen = dcb->rowlen;
    } else {
        dcb->reclen = dcb->sellen;
        // The direct path packs the projected columns of each row here.
        if (!dcb->recordr) dcb->recordr = static_cast<char*>(dalloc(dcb->reclen8));
        if (!dcb->recordr) return HPD_RC_NOMEM;
    }
    if (reclen) *reclen = dcb->reclen;
    return 0;
}

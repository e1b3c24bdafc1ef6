// Domain assign and deassign over the wire, with the direct handle laid
// beside the connection when client and server share a machine.
#include "eng/hpdl.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "eng/yxsoc.h"
#include "ssup/xm.h"
#include "ssup/xp.h"
#include "vrta/directapi.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;
constexpr int U_ASCII_CE = 28;  // the encoding a domain gets when none is asked for

int flen(const char* p, int cap) {
    int n = static_cast<int>(strnlen(p, cap));
    while (n > 0 && p[n - 1] == ' ') --n;
    return n;
}

char* dupn(const char* p, int n) {
    auto* d = static_cast<char*>(xmalloc(XM_THREADPOOL, n + 1, 0));
    if (!d) return nullptr;
    if (n > 0) std::memcpy(d, p, n);
    d[n] = 0;
    return d;
}

void freen(char*& p, int n) {
    if (p) xmfree(XM_THREADPOOL, p, n + 1);
    p = nullptr;
}

void linklib(hpdptr hpd, HPDLIB* lib) {
    lib->next = hpd->lib;
    lib->prev = nullptr;
    if (hpd->lib) hpd->lib->prev = lib;
    hpd->lib = lib;
}

void unlinklib(hpdptr hpd, HPDLIB* lib) {
    if (!hpd) return;
    if (lib->prev)
        lib->prev->next = lib->next;
    else if (hpd->lib == lib)
        hpd->lib = lib->next;
    if (lib->next) lib->next->prev = lib->prev;
    lib->next = lib->prev = nullptr;
}

// Takes one user of a connection away; the last one of a connection made
// with "DISCONNECT" closes it.
void dropserv(hpdptr hpd, HPDSERV* s) {
    if (!s) return;
    s->count -= 1;
    if (s->count > 0 || !s->free) return;
    hpdunlink(hpd, s);
    char u[130], h[129];
    std::snprintf(u, sizeof u, "%.*s", flen(s->user, 129), s->user);
    std::snprintf(h, sizeof h, "%.*s", std::min(s->servlen, 128), s->servname);
    xpmlog(MSGGRP, 110, u, h);
    hpdsfree(s);
}

// The ACL word of the assign: on and off bits for read, write, alter, control.
int acldefof(int d) {
    int a = 0;
    if (d & HPD_ACLREAD) a |= 1;
    if (d & HPD_ACLREADNO) a |= 8;
    if (d & HPD_ACLWRITE) a |= 2;
    if (d & HPD_ACLWRITENO) a |= 16;
    if (d & HPD_ACLALTER) a |= 4;
    if (d & HPD_ACLALTERNO) a |= 32;
    if (d & HPD_ACLCONTROL) a |= 64;
    if (d & HPD_ACLCONTROLNO) a |= 128;
    return a;
}

// Sends the assign and reads its reply into *r (pointing into the socket's
// buffer). A broken connection is marked dead.
rctype sendasg(HPDLIB* lib, hpdopt opt, const char* phys, int physl, int create, int flag, std::string* aclres,
               DS_YHELASG_REPLY* r, DS_HDR_REPLY* h) {
    YXSOCK_OPEN* so = lib->sopen;
    HPDSERV* s = lib->server;
    DS_YHELASG q{};
    std::memset(q.libname, ' ', 8);
    std::memcpy(q.libname, lib->name, 8);
    q.phys = phys;
    q.physlen = physl;
    q.indxpath = opt->path.indxpath ? opt->path.indxpath : "";
    q.indxlen = opt->path.indxpath ? opt->path.indxl : 0;
    q.datapath = opt->path.datapath ? opt->path.datapath : "";
    q.datalen = opt->path.datapath ? opt->path.datal : 0;
    q.metapath = opt->path.metapath ? opt->path.metapath : "";
    q.metalen = opt->path.metapath ? opt->path.metal : 0;
    q.workpath = opt->path.workpath ? opt->path.workpath : "";
    q.workpathl = opt->path.workpath ? opt->path.workl : 0;
    q.bufsize = static_cast<int32_t>(so->lrecl);
    q.create = create;
    q.acldef = acldefof(opt->debug);
    q.acllist = opt->acllist ? opt->acllist : "";
    q.acllen = opt->acllist ? opt->acllen : 0;
    q.aclres = aclres->data();
    q.aclresl = static_cast<int32_t>(aclres->size());
    std::memcpy(q.owner, opt->owner, 8);
    q.async = 1;
    q.backup = lib->backup;
    std::memset(q.user, ' ', 8);
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_name)
        std::memcpy(q.user, pw->pw_name, std::min<size_t>(std::strlen(pw->pw_name), 8));
    q.flag = flag;
    std::memset(q.domain, ' ', 32);
    std::memcpy(q.domain, lib->domain, 32);
    q.fmtlib = opt->fmtlib;
    q.encoding_cei = opt->encoding_cei;
    std::memset(q.locale, ' ', 32);
    std::memcpy(q.locale, opt->locale, strnlen(opt->locale, 32));
    int native = hpdostag(s->osname)->native;
    if (rctype rc = hpdsend(so, DSM_YHELASG, native, lib->level, &DS_YHELASG_D, &q); rc) {
        so->eof = 1;
        return HPD_RC_FAIL;
    }
    if (rctype rc = hpdrecv(so, native, h); rc) return rc;
    const auto* body = static_cast<const unsigned char*>(so->reca);
    if (rctype rc = hpdclass(*h, body, so->recl, lib->level, nullptr); rc) return rc;
    if (rctype rc = dsparse(*r, lib->level, body, so->recl); rc) {
        so->eof = 1;
        return HPD_RC_FAIL;
    }
    return 0;
}

// Keeps what an assign's reply says of the domain: its number, paths, token
// and the name shown to the host. False without memory.
bool storereply(HPDLIB* lib, const DS_YHELASG_REPLY& r) {
    const YXSOCK_OPEN* so = lib->server->sopen;
    lib->oport = r.oport;
    lib->libid = r.libid;
    lib->size = r.size;
    lib->usertok = dupn(r.usertok, r.usertokl);
    lib->usertokl = r.usertokl;
    lib->metapath = dupn(r.metapath, r.metalen);
    lib->metalen = r.metalen;
    lib->indxpath = dupn(r.indxpath, r.indxlen);
    lib->indxlen = r.indxlen;
    lib->datapath = dupn(r.datapath, r.datalen);
    lib->datalen = r.datalen;
    lib->phys = dupn(r.phys, r.physlen);
    lib->physl = r.physlen;
    char pn[1400];
    char host[129];
    std::snprintf(host, sizeof host, "%s", so->hostname[0] ? so->hostname : so->ip);
    for (char* c = host; *c; ++c) *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
    int n = std::snprintf(pn, sizeof pn, "%s:%d%.*s", host, r.pid, r.physlen, r.phys ? r.phys : "");
    lib->pnl = std::min<int>(n, sizeof pn - 1);
    lib->pn = dupn(pn, lib->pnl);
    return lib->usertok && lib->metapath && lib->indxpath && lib->datapath && lib->phys && lib->pn;
}

// A directory assigned on the connection of the domain libx (hpdlasgn,
// hpllasg): the same assign message with the caller's create word.
rctype sublasg(HPDLIB* x, const char* name, const char* phys, int physl, int create, bool derived, HPDLIB** libp) {
    *libp = nullptr;
    if (!x || !x->server) return HPD_RC_NOALIAS;
    YXSOCK_OPEN* so = x->sopen;
    if (!so || so->eof) return hpderrtxt(MSGGRP, 79);
    auto* lib = static_cast<HPDLIB*>(xmalloc(XM_THREADPOOL, sizeof(HPDLIB), XM_ZERO));
    if (!lib) return HPD_RC_NOMEM;
    std::memcpy(lib->id, "HPDL", 4);
    std::memset(lib->name, ' ', 8);
    if (name) std::memcpy(lib->name, name, strnlen(name, 8));
    lib->server = x->server;
    lib->sopen = so;
    lib->hpd = x->hpd;
    lib->level = x->level;
    lib->async = 1;
    std::memcpy(lib->domain, x->domain, 32);
    if (derived) {
        lib->where = x->where;
        lib->perf = x->perf;
        lib->wheresize = x->wheresize;
    }
    x->server->count += 1;
    auto undo = [&](rctype rc) {
        dropserv(lib->hpd, lib->server);
        lib->server = nullptr;
        hpdlfree(lib);
        return rc;
    };
    HPDOPT o{};
    std::memcpy(o.owner, "        ", 8);
    std::string none;
    DS_YHELASG_REPLY r{};
    DS_HDR_REPLY h{};
    if (rctype rc = sendasg(lib, &o, phys, physl, create, 0, &none, &r, &h); rc) return undo(rc);
    std::string msg(r.msg ? r.msg : "", std::max(r.msglen, 0));
    if (!storereply(lib, r)) return undo(HPD_RC_NOMEM);
    linklib(lib->hpd, lib);
    if (derived && x->handle) splasgn(lib->phys, &lib->handle);
    hpdrmsg(h.rclass, msg.data(), static_cast<long>(msg.size()));
    *libp = lib;
    return 0;
}

}  // namespace

rctype hpldir(const HPDLIB* x, const char* memname, int meml, char* out, int cap, int* outl) {
    while (meml > 0 && memname[meml - 1] == ' ') --meml;
    int n = std::snprintf(out, cap, "%.*s/%.*s", x->physl, x->phys ? x->phys : "", meml, memname);
    if (n < 0 || n >= cap || meml <= 0) {
        xrmksub(1, "the directory's name is empty or too long", -1);
        return HPD_RC_FAIL;
    }
    *outl = n;
    return 0;
}

HPDLIB* hpzlib(HPDLIB* head, const char* name8) {
    for (HPDLIB* l = head; l; l = l->next)
        if (std::memcmp(l->name, name8, 8) == 0) return l;
    return nullptr;
}

rctype hpolsrv(hpdlib lib, int s) {
    YXSOCK_OPEN* so;
    if (rctype rc = hpdport(lib->server->sopen, s, nullptr, 0, 512, 1, 82, &so); rc) return rc;
    lib->sopen = so;
    return 0;
}

void hpdlfree(hpdlib lib) {
    unlinklib(lib->hpd, lib);
    if (lib->handle) spldeasgn(lib->handle);
    lib->handle = nullptr;
    if (!lib->alias) {
        freen(lib->metapath, lib->metalen);
        freen(lib->indxpath, lib->indxlen);
        freen(lib->datapath, lib->datalen);
        freen(lib->phys, lib->physl);
        freen(lib->usertok, lib->usertokl);
        freen(lib->pn, lib->pnl);
        if (lib->attr) xmfree(XM_THREADPOOL, lib->attr, sizeof(XHEATTR));
    }
    xmfree(XM_THREADPOOL, lib, sizeof(HPDLIB));
}

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpdlasg(void* engid, yhlibref* name, char* /*eng_name*/, void** phs_name, int* sz,
                          void* eng_opts, int* format, XHEATTR** libattr, void** usertokp, int* flagsp) {
    auto* hpd = static_cast<hpdptr>(engid);
    auto* opt = static_cast<hpdopt>(eng_opts);
    const char* pname = phs_name && *phs_name ? static_cast<const char*>(*phs_name) : nullptr;
    int pl = pname && sz ? *sz : 0;
    // 1. The name: the physical name, else the "DBQ"/"SCHEMA" option.
    if (pl <= 0 && !opt) return HPD_RC_NONAME;
    if (pl <= 0) {
        pname = opt->domain;
        pl = flen(opt->domain, sizeof opt->domain);
        if (pl <= 0) return HPD_RC_NONAME;
    }
    while (pl > 0 && pname[pl - 1] == ' ') --pl;
    char dom[32];
    std::memset(dom, ' ', 32);
    std::memcpy(dom, pname, std::min(pl, 32));
    // 2.
    if (pname[0] == '(') return hpderrtxt(MSGGRP, 126);
    // 3.
    auto* lib = static_cast<HPDLIB*>(xmalloc(XM_THREADPOOL, sizeof(HPDLIB), XM_ZERO));
    if (!lib) return HPD_RC_NOMEM;
    std::memcpy(lib->id, "HPDL", 4);
    std::memcpy(lib->name, name->libref, 8);
    lib->hpd = hpd;
    // 4. A second name for an assigned domain.
    if (format && (*format & 3)) {
        char n8[8];
        std::memset(n8, ' ', 8);
        std::memcpy(n8, pname, std::min(pl, 8));
        HPDLIB* t = hpzlib(hpd->lib, n8);
        if (!t) {
            xmfree(XM_THREADPOOL, lib, sizeof(HPDLIB));
            return HPD_RC_NOALIAS;
        }
        std::memcpy(reinterpret_cast<char*>(lib) + offsetof(HPDLIB, server),
                    reinterpret_cast<const char*>(t) + offsetof(HPDLIB, server),
                    sizeof(HPDLIB) - offsetof(HPDLIB, server));
        lib->alias = 1;
        lib->handle = nullptr;  // the target owns its direct handle
        if (lib->server) lib->server->count += 1;
        linklib(hpd, lib);
        name->englib = lib;
        if (phs_name) *phs_name = lib->pn;
        if (sz) *sz = lib->pnl;
        *format = 5;
        return 0;
    }
    auto fail = [&](rctype rc) {
        xmfree(XM_THREADPOOL, lib, sizeof(HPDLIB));
        return rc;
    };
    if (!opt) return fail(hpderrtxt(MSGGRP, 83));
    // 5.
    opt->debug |= HPD_BYSORT | HPD_VRTAWHERE;
    if (opt->servlen <= 0) return fail(hpderrtxt(MSGGRP, 83));
    // 6. A path is used as it stands; a name goes to the name server.
    char physbuf[1024];
    int physl = std::min(pl, static_cast<int>(sizeof physbuf) - 1);
    std::memcpy(physbuf, pname, physl);
    physbuf[physl] = 0;
    HPDSNAME_INFO ni{};
    bool asked = false;
    if (pname[0] != '/') {
        for (int i = 0; opt->group[i] && i < static_cast<int>(sizeof opt->group); ++i)
            opt->group[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(opt->group[i])));
        const char* q = pl > 0 ? pname : name->libref;
        int ql = pl > 0 ? std::min(pl, 32) : flen(name->libref, 8);
        std::memcpy(ni.libname, q, ql);
        std::snprintf(ni.group, sizeof ni.group, "%.*s", flen(opt->group, 100), opt->group);
        if (rctype rc = hpdnsrv(hpd, opt, &ni); rc) return fail(rc);
        if (ni.pnl <= 0 || !ni.node[0]) return fail(hpderrtxt(MSGGRP, 85));
        asked = true;
        // 7. The answer rewrites where the domain lives.
        opt->dynlock = ni.dynlock;
        opt->libaclinherit = ni.libaclinherit;
        physl = std::min(ni.pnl, static_cast<int>(sizeof physbuf) - 1);
        std::memcpy(physbuf, ni.pn, physl);
        physbuf[physl] = 0;
        opt->servlen = static_cast<int>(std::strlen(ni.node));
        std::memcpy(opt->servname, ni.node, opt->servlen);
        opt->applen = std::snprintf(opt->appname, sizeof opt->appname, "%d", ni.port);
        opt->name_magic = ni.name_magic;
        opt->perf = ni.perf;
        std::memcpy(opt->owner, ni.owner, 8);
        if (opt->backup) opt->backup = ni.backup;
    }
    // 8.
    if (flagsp) {
        *flagsp = 0;
        if (opt->backup) *flagsp |= 0x200;
        if (opt->dynlock) *flagsp |= 0x400;
        if (opt->libaclinherit) *flagsp |= 0x800;
    }
    (void)asked;
    // 9 to 11.
    HPDSERV* s = nullptr;
    if (rctype rc = hpdgetserv(hpd, opt, &s); rc) return fail(rc);
    s->oportno = ni.oport;
    // 12.
    s->count += 1;
    lib->server = s;
    lib->sopen = s->sopen;
    lib->access = format ? *format : 0;
    lib->nocomp = (opt->debug & HPD_NETCOMPNO) ? 1 : 0;
    lib->bysort = (opt->debug & HPD_BYSORT) ? 1 : 0;
    lib->korsort = (opt->debug & HPD_NOKORSORT) ? 1 : 0;
    lib->where = (opt->debug & HPD_VRTAWHERE) ? 1 : 0;
    lib->bitmap = (opt->debug & HPD_BITMAP) ? 1 : 0;
    lib->unixs = (opt->debug & HPD_UNIXDOMAIN) ? 1 : 0;
    lib->startobs = opt->startobs;
    lib->endobs = opt->endobs;
    lib->ltype = opt->ltype;
    lib->perf = opt->perf;
    lib->backup = opt->backup;
    lib->lock = (opt->debug & HPD_LOCKING) ? 1 : 0;
    lib->wheresize = opt->wheresize;
    lib->nocatlock = (opt->debug & HPD_NOCATLOCK) ? 1 : 0;
    lib->level = s->level;
    lib->nocatopen = (opt->debug & HPD_NOCATOPEN) ? 1 : 0;
    lib->delrec = (opt->debug & HPD_DELREC) ? 1 : 0;
    lib->fmtlib = opt->fmtlib;
    lib->truncwarn = opt->truncwarn;
    lib->dynlock = opt->dynlock;
    lib->async = 1;
    std::memcpy(lib->domain, dom, 32);
    lib->attr = static_cast<XHEATTR*>(xmalloc(XM_THREADPOOL, sizeof(XHEATTR), XM_ZERO));
    auto undo = [&](rctype rc) {
        dropserv(hpd, s);
        lib->server = nullptr;
        lib->sopen = nullptr;
        hpdlfree(lib);
        return rc;
    };
    if (!lib->attr) return undo(HPD_RC_NOMEM);
    *lib->attr = libattr && *libattr ? **libattr : hpdattr;
    // 13. One machine when the server's address starts this machine's.
    size_t ipl = std::strlen(s->sopen->ip);
    lib->samebox = ipl > 0 && std::strncmp(s->sopen->ip, s->sopen->ipl, ipl) == 0;
    bool fast = !(opt->debug & HPD_FASTOPTNO);
    if (lib->samebox && fast) {
        lib->nocomp = 0;
        lib->unixs = 1;
    }
    // 14.
    int create = (opt->debug & HPD_CREATE) ? 1 : 0;
    int flag = 0;
    const char* sendphys = physbuf;
    int sendl = physl;
    if (opt->debug & HPD_TEMP) {
        create = 0;
        flag |= 4;
        lib->temp = 1;
    }
    if (int tl = static_cast<int>(strnlen(opt->tempdir, sizeof opt->tempdir)); tl > 0) {
        sendphys = opt->tempdir;
        sendl = tl;
        create = 0;
        flag &= ~4;
    }
    if (opt->encoding_cei) flag |= 8;
    if (opt->truncwarn) flag |= 16;
    if (opt->libaclinherit) flag |= 1;
    lib->attr->encoding_cei = opt->encoding_cei ? opt->encoding_cei : U_ASCII_CE;
    std::memcpy(lib->attr->locale, opt->locale, sizeof lib->attr->locale);
    if (!hpd->encoding_cei && opt->encoding_cei) hpd->encoding_cei = opt->encoding_cei;
    if (flen(hpd->locale, 32) == 0 && flen(opt->locale, 32) > 0) std::memcpy(hpd->locale, opt->locale, 32);
    std::string aclres;
    for (HPD_ACL* a = opt->aclres; a; a = a->next) {
        std::string e(32, ' ');
        std::memcpy(e.data(), a->name, 8);
        aclres += e;
    }
    if (opt->acldef && aclres.empty()) return undo(hpderrtxt(MSGGRP, 125));
    if (libattr) *libattr = lib->attr;
    // 15.
    DS_YHELASG_REPLY r{};
    DS_HDR_REPLY h{};
    if (rctype rc = sendasg(lib, opt, sendphys, sendl, create, flag, &aclres, &r, &h); rc) return undo(rc);
    // 17, before 16: the reply lies in the socket's buffer, which the
    // domain's own socket does not touch, but copies are made first anyway.
    std::string msg(r.msg ? r.msg : "", std::max(r.msglen, 0));
    int rclass = h.rclass;
    if (!storereply(lib, r)) return undo(HPD_RC_NOMEM);
    // 16.
    if (r.portno != 0) {
        if (rctype rc = hpolsrv(lib, r.portno); rc) return undo(rc);
    }
    // 18.
    linklib(hpd, lib);
    if (phs_name) *phs_name = lib->pn;
    if (sz) *sz = lib->pnl;
    if (format) *format = 5;
    if (usertokp) *usertokp = lib->usertok;
    name->englib = lib;
    // 19. The direct path: a null handle only means it stays off.
    if (fast && lib->lock == 0 && lib->samebox) splasgn(lib->phys, &lib->handle);
    // 20.
    hpdrmsg(rclass, msg.data(), static_cast<long>(msg.size()));
    return s->protocol_mismatch ? HPD_RC_MISMATCH : 0;
}

extern "C" rctype hpdldas(void* engid, yhlibref* name) {
    auto* hpd = static_cast<hpdptr>(engid);
    auto* lib = static_cast<HPDLIB*>(name->englib);
    if (!lib) return HPD_RC_NOALIAS;
    rctype rc = 0;
    if (!lib->alias) {
        // 2. Catalogs left open on the domain are closed with it (none are
        // kept by this engine yet).
        // 3, 4.
        YXSOCK_OPEN* so = lib->sopen;
        if (!lib->server || !so || so->eof || !lib->server->sopen || lib->server->sopen->eof) {
            rc = hpderrtxt(MSGGRP, 79);
        } else {
            HPDSERV* s = lib->server;
            int native = hpdostag(s->osname)->native;
            DS_LIBID q{lib->libid};
            DS_HDR_REPLY h;
            rc = hpdsend(so, DSM_YHELDAS, native, lib->level, &DS_LIBID_D, &q);
            if (rc == 0) rc = hpdrecv(so, native, &h);
            if (rc) {
                so->eof = 1;
                rc = HPD_RC_FAIL;
            } else {
                const auto* body = static_cast<const unsigned char*>(so->reca);
                rc = hpdclass(h, body, so->recl, lib->level, nullptr);
                DS_MSG_REPLY r{};
                if (rc == 0 && dsparse(r, lib->level, body, so->recl) == 0) hpdrmsg(h.rclass, r.msg, r.msglen);
            }
        }
        // 6. The domain's own socket.
        if (lib->server && lib->sopen && lib->sopen != lib->server->sopen) hpdsofree(lib->sopen);
        lib->sopen = nullptr;
    }
    // 5. Whatever the server said, the domain is gone from this engine.
    HPDSERV* s = lib->server;
    lib->server = nullptr;
    dropserv(hpd, s);
    // 7.
    hpdlfree(lib);
    name->englib = nullptr;
    return rc;
}

extern "C" rctype hpdlins(void* engid, yhlibref* name, W_INFSTR** info) {
    auto* hpd = static_cast<hpdptr>(engid);
    HPDLIB* lib = name->englib ? static_cast<HPDLIB*>(name->englib) : hpzlib(hpd->lib, name->libref);
    if (!lib || !lib->server || !lib->server->sopen) return HPD_RC_NOALIAS;
    auto* w = static_cast<W_INFSTR*>(xmalloc(XM_THREADPOOL, sizeof(W_INFSTR), XM_ZERO));
    if (!w) return HPD_RC_NOMEM;
    const YXSOCK_OPEN* so = lib->server->sopen;
    auto add = [&](const char* n, const char* v, int vl) {
        W_INFPAIR& p = w->pair[w->count++];
        std::snprintf(p.name, sizeof p.name, "%s", n);
        std::snprintf(p.value, sizeof p.value, "%.*s", vl, v);
    };
    add("Local Host Name", so->localname, 128);
    add("Local Host IP addr", so->ipl, 128);
    add("Server Hostname", so->hostname[0] ? so->hostname : "N/A", 128);
    add("Server IP addr", so->ip, 128);
    char num[32];
    std::snprintf(num, sizeof num, "%d", so->portno);
    add("Server Portno", num, 32);
    std::snprintf(num, sizeof num, "%12.0f", lib->size);
    add("Free Space (Kbytes)", num, 12);
    if (lib->metalen > 0) add("Metapath", lib->metapath, lib->metalen);
    if (lib->indxlen > 0) add("Indexpath", lib->indxpath, lib->indxlen);
    if (lib->datalen > 0) add("Datapath", lib->datapath, lib->datalen);
    *info = w;
    return 0;
}

extern "C" rctype hpdlinr(W_INFSTR* info) {
    if (info) xmfree(XM_THREADPOOL, info, sizeof(W_INFSTR));
    return 0;
}

extern "C" rctype hpdlasgn(void* libx, char* name, char* memname, void** phs_name, int* sz, int create, void** libp) {
    auto* x = static_cast<HPDLIB*>(libx);
    if (libp) *libp = nullptr;
    if (!x || !memname || !libp) return HPD_RC_NOALIAS;
    // The member's directory below the domain; the count given includes one
    // byte more than the name.
    int meml = sz && *sz > 0 ? *sz - 1 : static_cast<int>(strnlen(memname, 32));
    char path[1100];
    int pl = 0;
    if (rctype rc = hpldir(x, memname, meml, path, sizeof path, &pl); rc) return rc;
    HPDLIB* lib = nullptr;
    if (rctype rc = sublasg(x, name, path, pl, create, true, &lib); rc) return rc;
    if (phs_name) *phs_name = lib->pn;
    if (sz) *sz = lib->pnl;
    *libp = lib;
    return 0;
}

extern "C" rctype hpllasg(void* libx, char* name, void* phs_name, int sz, int create, void** libp) {
    if (libp) *libp = nullptr;
    if (!phs_name || sz <= 0 || !libp) return HPD_RC_NONAME;
    HPDLIB* lib = nullptr;
    if (rctype rc = sublasg(static_cast<HPDLIB*>(libx), name, static_cast<const char*>(phs_name), sz, create, false,
                            &lib);
        rc)
        return rc;
    *libp = lib;
    return 0;
}

// Connections: opening sockets to a data server, a name server and the ports
// derived from them; the logins; the engine's list of connections.
#include "eng/hpdc.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;

// Length of a blank- or NUL-padded field.
int flen(const char* p, int cap) {
    int n = static_cast<int>(strnlen(p, cap));
    while (n > 0 && p[n - 1] == ' ') --n;
    return n;
}

// Copies a field parsed from the wire; an empty one may have no pointer.
void cpy(void* to, const void* from, long n) {
    if (n > 0) std::memcpy(to, from, n);
}

// A socket record as every opener makes it: counted reads, both ways, the
// engine's break word (set to -1 at each open).
YXSOCK_OPEN* newsock(int* brk, void (*fp)(), long lrecl) {
    auto* so = static_cast<YXSOCK_OPEN*>(xmalloc(XM_THREADPOOL, sizeof(YXSOCK_OPEN), XM_ZERO));
    if (!so) return nullptr;
    so->mode = 3;
    so->type = YXS_COUNTED;
    so->brk = brk;
    so->fp = fp;
    if (brk) *brk = -1;
    so->lrecl = so->blocksize = static_cast<int>(lrecl);
    if (yxsinit(nullptr, &so->gcb) != 0) {
        xpmlog(MSGGRP, 73);
        xmfree(XM_THREADPOOL, so, sizeof *so);
        return nullptr;
    }
    return so;
}

// Opens the client side to host and service; logs failmsg (with the host)
// when the connect fails. The socket is freed on failure.
rctype opensock(YXSOCK_OPEN* so, char* host, int hlen, const char* service, int failmsg) {
    char serv[129];
    std::snprintf(serv, sizeof serv, "%s", service);
    so->host = host;
    so->hlen = hlen;
    so->service = serv;
    rctype rc = yxscopn(so);
    so->service = nullptr;
    so->host = nullptr;
    so->hlen = 0;
    if (rc) {
        char h[129];
        std::snprintf(h, sizeof h, "%.*s", std::max(0, std::min(hlen, 128)), host);
        xpmlog(MSGGRP, failmsg, h);
        hpdsofree(so);
        return rc < 0 ? rc : HPD_RC_FAIL;
    }
    return 0;
}

// The 4-byte number a server opens every login with.
rctype readmagic(YXSOCK_OPEN* so, int32_t* magic) {
    if (rctype rc = hpdgrow(so, 4); rc) return rc;
    so->nread = 4;
    rctype rc = yxsread(so);
    if (rc || so->recl != 4) {
        so->eof = 1;
        if (rc >= 0) xrmksub(1, "the server closed the connection before the login", -1);
        return rc < 0 ? rc : HPD_RC_FAIL;
    }
    *magic = hpdget4(static_cast<const unsigned char*>(so->reca));
    return 0;
}

void localuser(char osuser[8], char* full, int fullcap) {
    std::memset(osuser, ' ', 8);
    const passwd* pw = getpwuid(getuid());
    const char* n = pw && pw->pw_name ? pw->pw_name : "";
    std::memcpy(osuser, n, std::min<size_t>(std::strlen(n), 8));
    if (full) std::snprintf(full, fullcap, "%s", n);
}

// Logs the password change's outcome; msgs[i] for rcode i + 1, err the
// error text of each of those; others log 2/101.
rctype pwoutcome(int rcode, const int* errs) {
    static const int logs[4] = {99, 100, 107, 291};
    if (rcode >= 1 && rcode <= 4) {
        xpmlog(MSGGRP, logs[rcode - 1]);
        return hpderrtxt(MSGGRP, errs[rcode - 1]);
    }
    xpmlog(MSGGRP, 101);
    return 0;
}

// The fields both logins carry alike.
template <class M>
void logincommon(M* m, const YXSOCK_OPEN* so, hpdopt opt, const char* user, int32_t userl, int32_t magic) {
    m->user = user;
    m->userl = userl;
    m->pass = opt->pass;
    m->passl = flen(opt->pass, 129);
    m->aclgrp = opt->aclgrp;
    m->aclgrpl = flen(opt->aclgrp, 9);
    m->node = so->localname;
    m->nodel = static_cast<int32_t>(strnlen(so->localname, sizeof so->localname));
    m->magic = m->m1 = magic;
}

// The failure of step 6 of a login: message 2/91 with the user.
rctype loginlost(const char* user) {
    xpmlog(MSGGRP, 91, user);
    return HPD_RC_FAIL;
}

// Reads and classifies an enciphered login reply into r.
rctype loginreply(YXSOCK_OPEN* so, DS_HDR_REPLY* h, DS_SERVER_INIT_REPLY* r, const char* user) {
    if (hpdrecvx(so, h) != 0) return loginlost(user);
    const auto* body = static_cast<const unsigned char*>(so->reca);
    if (rctype rc = hpdclass(*h, body, so->recl, HPD_LEVEL_LOGIN, nullptr); rc) return rc;
    *r = DS_SERVER_INIT_REPLY{};
    if (so->recl == 0) return 0;  // an empty body: nothing to parse
    if (dsparse(*r, HPD_LEVEL_LOGIN, body, so->recl) != 0) {
        so->eof = 1;
        return loginlost(user);
    }
    hpdrmsg(h->rclass, r->msg, r->msglen);
    return 0;
}

}  // namespace

void hpdsofree(YXSOCK_OPEN* so) {
    if (!so) return;
    yxsclos(so);
    yxsterm(so->gcb);
    xmfree(XM_THREADPOOL, so, sizeof *so);
}

rctype hpdport(YXSOCK_OPEN* from, int port, const char* path, int pathl, long lrecl, int greet, int failmsg,
               YXSOCK_OPEN** out) {
    *out = nullptr;
    YXSOCK_OPEN* so = newsock(from->brk, from->fp, lrecl);
    if (!so) return HPD_RC_NOMEM;
    rctype rc;
    if (path && pathl > 0) {
        rc = yxscuop(so, path, pathl);
        if (rc) {
            xpmlog(MSGGRP, failmsg, "");
            hpdsofree(so);
            return rc < 0 ? rc : HPD_RC_FAIL;
        }
    } else {
        // The peer's dotted address; a UNIX-domain connection is local.
        char host[129];
        std::snprintf(host, sizeof host, "%s", from->ip[0] == '/' || !from->ip[0] ? "127.0.0.1" : from->ip);
        char serv[16];
        std::snprintf(serv, sizeof serv, "%d", port);
        if ((rc = opensock(so, host, static_cast<int>(std::strlen(host)), serv, failmsg)) != 0) return rc;
    }
    if (greet) {
        char b;
        if (hpcread(yxsfd(so), &b, 1, so->brk, so->gcb, 1, &so->fds) != 0) {
            xpmlog(MSGGRP, 97);
            hpdsofree(so);
            xrmksub(1, "the server did not greet the connection", -1);
            return HPD_RC_FAIL;
        }
    }
    *out = so;
    return 0;
}

rctype hporsrv(YXSOCK_OPEN** sopena, int s, const void* data, int datal) {
    YXSOCK_OPEN* old = *sopena;
    YXSOCK_OPEN* so;
    if (rctype rc = hpdport(old, s, nullptr, 0, old->lrecl, 1, 82, &so); rc) return rc;
    if (rctype rc = hpdgrow(so, datal); rc) {
        hpdsofree(so);
        return rc;
    }
    std::memcpy(so->recouta, data, datal);
    so->recoutl = datal;
    if (rctype rc = yxswrit(so); rc) {
        hpdsofree(so);
        return rc;
    }
    hpdsofree(old);
    *sopena = so;
    return 0;
}

rctype hpdosrv(hpdodcb odcb, int s) {
    YXSOCK_OPEN* so;
    if (rctype rc = hpdport(odcb->sopen, s, nullptr, 0, HPD_DEFRECL, 0, 135, &so); rc) return rc;
    int magic = 0, lport = 0;
    if (!odcb->opt || init_conn_oper(so, odcb->opt, &magic, &lport) != 0) {
        hpdsofree(so);
        return hpderrtxt(MSGGRP, 136);
    }
    odcb->oopen = so;
    odcb->magic = magic;
    odcb->lportno = lport;
    odcb->recordl = so->lrecl;
    return 0;
}

rctype hpbosrv(hpdbdcb bdcb, int s) {
    YXSOCK_OPEN* so;
    if (rctype rc = hpdport(bdcb->sopen, s, nullptr, 0, HPD_DEFRECL, 1, 82, &so); rc) return rc;
    char ack = 0;
    if (hpcwrit(yxsfd(so), &ack, 1, so->gcb) != 0) {
        hpdsofree(so);
        xpmlog(MSGGRP, 75);
        return HPD_RC_FAIL;
    }
    bdcb->oopen = so;
    return 0;
}

rctype hpblsrv(hpdldcb ldcb, int s) {
    YXSOCK_OPEN* so;
    if (rctype rc = hpdport(ldcb->sopen, s, nullptr, 0, HPD_DEFRECL, 0, 82, &so); rc) return rc;
    ldcb->oopen = so;
    return 0;
}

rctype init_conn(YXSOCK_OPEN** sopena, hpdopt opt) {
    YXSOCK_OPEN* so = *sopena;
    char osuser[8], full[130];
    localuser(osuser, full, sizeof full);
    int32_t magic;
    if (rctype rc = readmagic(so, &magic); rc) return rc;

    DS_SERVER_INIT m{};
    char user[130];
    std::snprintf(user, sizeof user, "%.*s", flen(opt->user, 129), opt->user);
    m.m = 0x20000;
    if (opt->debug & HPD_DEBUG) m.m |= 1;
    if (opt->debug & HPD_DEBUGCORE) m.m |= 4;
    if (opt->debug & HPD_ALTPATH) {
        m.m |= 2;
        xpslog("%3zVRTABASE will be loaded from ALTBINPATH");
    }
    if (opt->debug & HPD_ACLSPECIAL) {
        m.special = 1;
        if (!user[0] && (VRTA_BACKUP == getpid() || (opt->debug & HPD_TRUST))) {
            std::snprintf(user, sizeof user, "%.129s", full);
            m.special = -1;
        }
    } else if (opt->debug & HPD_TRUST) {
        m.special = -2;
    }
    logincommon(&m, so, opt, user, static_cast<int32_t>(std::strlen(user)), magic);
    m.npass = opt->npass;
    m.npassl = flen(opt->npass, 129);
    m.namemagic = opt->name_magic;
    m.recordlock = (opt->debug & HPD_LOCKING) ? 1 : 0;
    std::memcpy(m.osuser, osuser, 8);
    if (hpdsendx(so, DSM_SERVER_INIT, HPD_LEVEL_LOGIN, &DS_SERVER_INIT_D, &m) != 0) return loginlost(user);

    DS_HDR_REPLY h;
    DS_SERVER_INIT_REPLY r;
    if (rctype rc = loginreply(so, &h, &r, user); rc) return rc;
    if (m.npassl > 0) {
        static const int errs[4] = {105, 105, 105, 105};
        if (rctype rc = pwoutcome(h.rcode, errs); rc) return rc;
    }
    // Kept before the reply buffer is reused by a password change.
    char aclgrp[9] = {};
    cpy(aclgrp, r.aclgrp, std::min(std::max(r.aclgrpl, 0), 8));
    int lockport = r.lockport;
    char token[256];
    int tokenl = std::min(std::max(r.tokenl, 0), static_cast<int>(sizeof token));
    cpy(token, r.token, tokenl);

    if (r.expire != 0) {
        if (!(opt->debug & HPD_PROMPT)) {
            xpmlog(MSGGRP, 102);
            return loginlost(user);
        }
        DS_PASSWORD p{};
        p.magic = magic;
        p.user = user;
        p.userl = m.userl;
        p.pass = opt->npass;
        p.passl = flen(opt->npass, 129);
        if (hpdsendx(so, DSM_PASSWORD, HPD_LEVEL_LOGIN, &DS_PASSWORD_D, &p) != 0) return loginlost(user);
        // The old password is of no use any more: it must not linger.
        std::memset(opt->pass, 0, sizeof opt->pass);
        if (hpdrecvx(so, &h) != 0) return loginlost(user);
        static const int errs[4] = {106, 106, 105, 105};
        if (rctype rc = pwoutcome(h.rcode, errs); rc) return rc;
    }
    std::memset(opt->aclgrp, 0, sizeof opt->aclgrp);
    std::memcpy(opt->aclgrp, aclgrp, 8);

    if (m.recordlock && lockport) {
        so->recoutl = 1;
        static_cast<char*>(so->recouta)[0] = 0;
        if (rctype rc = yxswrit(so); rc) {
            so->eof = 1;
            return rc;
        }
        return hporsrv(sopena, lockport, token, tokenl);
    }
    return 0;
}

rctype init_conn_oper(YXSOCK_OPEN* so, hpdopt opt, int* magicp, int* lport) {
    int32_t magic;
    if (rctype rc = readmagic(so, &magic); rc) return rc;
    DS_SERVER_O_I m{};
    logincommon(&m, so, opt, opt->user, flen(opt->user, 129), magic);
    m.m = 0x20000;
    m.special = (opt->debug & HPD_ACLSPECIAL) ? 1 : 0;
    if (hpdsendx(so, DSM_SERVER_O_I, HPD_LEVEL_LOGIN, &DS_SERVER_O_I_D, &m) != 0) return hpderrtxt(MSGGRP, 136);
    DS_HDR_REPLY h;
    if (hpdrecvx(so, &h) != 0) return hpderrtxt(MSGGRP, 136);
    const auto* body = static_cast<const unsigned char*>(so->reca);
    if (rctype rc = hpdclass(h, body, so->recl, HPD_LEVEL_LOGIN, nullptr); rc) return rc;
    DS_SERVER_O_I_REPLY r{};
    if (dsparse(r, HPD_LEVEL_LOGIN, body, so->recl) != 0) return hpderrtxt(MSGGRP, 136);
    hpdrmsg(h.rclass, r.msg, r.msglen);
    *magicp = magic;
    *lport = r.logno;
    return 0;
}

rctype init_conn_name(YXSOCK_OPEN* so, hpdopt opt, hpdnptr ni) {
    int32_t magic;
    if (readmagic(so, &magic) != 0) return hpderrtxt(MSGGRP, 86);
    DS_LIBNAME_INFO8 q{};
    q.magic = magic;
    q.libname = ni->libname;
    q.liblen = flen(ni->libname, sizeof ni->libname);
    q.group = ni->group;
    q.grplen = flen(ni->group, sizeof ni->group);
    q.user = opt->user;
    q.usrlen = flen(opt->user, 129);
    q.pass = opt->pass;
    q.passlen = flen(opt->pass, 129);
    q.node = so->localname;
    q.nodelen = static_cast<int32_t>(strnlen(so->localname, sizeof so->localname));
    if (hpdsendx(so, DSM_LIBNAME_INFO8, HPD_LEVEL_NAME, &DS_LIBNAME_INFO8_D, &q) != 0) return hpderrtxt(MSGGRP, 86);
    DS_HDR_REPLY h;
    if (hpdrecvx(so, &h) != 0) return hpderrtxt(MSGGRP, 86);
    if (h.rcode == 1) return hpderrtxt(MSGGRP, 85);
    DS_LIB_INFO_REPLY r{};
    if (dsparse(r, HPD_LEVEL_NAME, static_cast<const unsigned char*>(so->reca), so->recl) != 0)
        return hpderrtxt(MSGGRP, 86);
    if (h.rcode < 2) return hpderrtxt(MSGGRP, 278);
    // An answer that does not fit is refused, never cut.
    int projl = flen(opt->projdir, sizeof opt->projdir);
    bool pub = (r.flag & 0x80) && projl > 0;
    int need = r.pnl + (pub ? projl + 1 : 0);
    if (need >= static_cast<int>(sizeof ni->pn) || r.nodelen > 128 || r.optl >= static_cast<int>(sizeof ni->option) ||
        r.roptl >= static_cast<int>(sizeof ni->roption))
        return hpderrtxt(MSGGRP, 86);
    cpy(ni->pn, r.pn, r.pnl);
    ni->pnl = r.pnl;
    if (pub) {
        if (ni->pnl > 0 && ni->pn[ni->pnl - 1] != '/' && opt->projdir[0] != '/') ni->pn[ni->pnl++] = '/';
        std::memcpy(ni->pn + ni->pnl, opt->projdir, projl);
        ni->pnl += projl;
    } else if (projl > 0) {
        xpslog("%3z-PROJDIR option ignored, domain is not marked PUBLIC");
    }
    ni->pn[ni->pnl] = 0;
    cpy(ni->node, r.node, r.nodelen);
    ni->node[r.nodelen] = 0;
    ni->port = r.port;
    cpy(ni->option, r.option, r.optl);
    ni->optl = r.optl;
    cpy(ni->roption, r.roption, r.roptl);
    ni->roptl = r.roptl;
    ni->name_magic = r.namemagic;
    std::memcpy(ni->owner, r.owner, 8);
    ni->oport = r.oport;
    ni->perf = r.perf;
    if (h.rcode >= 3) {
        ni->backup = r.backup;
        ni->dynlock = (r.flag & 0x40) ? 1 : 0;
        ni->libaclinherit = (r.flag & 1) ? 1 : 0;
    }
    return 0;
}

rctype hpdack(YXSOCK_OPEN* so, hpdopt opt, HPDSERV* serv) {
    if (rctype rc = hpdgrow(so, sizeof(PROXY_ACK)); rc) return rc;
    so->nread = sizeof(PROXY_ACK);
    rctype rc = yxsread(so);
    if (rc || so->recl != static_cast<long>(sizeof(PROXY_ACK))) {
        so->eof = 1;
        xpmlog(MSGGRP, 75);
        if (rc >= 0) xrmksub(1, "the server did not send its version after the login", -1);
        return rc < 0 ? rc : HPD_RC_FAIL;
    }
    PROXY_ACK ack;
    std::memcpy(&ack, so->reca, sizeof ack);
    int level = HPD_LEVEL_UNKNOWN;
    if (std::memcmp(ack.prot, "4.50", 4) == 0)
        level = HPD_LEVEL_450;
    else if (std::memcmp(ack.prot, "4.40", 4) == 0)
        level = HPD_LEVEL_440;
    serv->level = opt->level = level;
    if (level == HPD_LEVEL_UNKNOWN) {
        serv->protocol_mismatch = 1;
        char theirs[5];
        std::memcpy(theirs, ack.prot, 4);
        theirs[4] = 0;
        xpmlog(MSGGRP, 95, theirs, HPD_PROT);
    }
    int32_t tsm = hpdget4(ack.filler[0]);
    char v[32];
    std::snprintf(v, sizeof v, "%.3s%d", ack.prot, tsm);
    std::memcpy(opt->version, v, 4);
    opt->hfnumber = hpdget4(ack.filler[1]);
    std::memcpy(serv->osname, ack.osname, 8);
    return 0;
}

rctype hpdcsrv(hpdptr hpd, hpdopt opt, HPDSERV** sp) {
    *sp = nullptr;
    long rl = std::max<long>(opt->bufsize, HPD_MINRECL);
    YXSOCK_OPEN* so = newsock(&hpd->brk, hpd->fp, rl);
    if (!so) return HPD_RC_FAIL;
    const char* app = opt->applen > 0 ? opt->appname : "vrtasrv1";
    char appbuf[129];
    std::snprintf(appbuf, sizeof appbuf, "%.*s", opt->applen > 0 ? std::min(opt->applen, 128) : 8, app);
    if (rctype rc = opensock(so, opt->servname, opt->servlen, appbuf, 74); rc) return rc;
    auto* s = static_cast<HPDSERV*>(xmalloc(XM_THREADPOOL, sizeof(HPDSERV), XM_ZERO));
    if (!s) {
        hpdsofree(so);
        return HPD_RC_NOMEM;
    }
    s->sopen = so;
    rctype rc = init_conn(&s->sopen, opt);
    if (rc == 0) rc = hpdack(s->sopen, opt, s);
    if (rc) {
        hpdsofree(s->sopen);
        xmfree(XM_THREADPOOL, s, sizeof *s);
        return rc;
    }
    std::memcpy(s->servname, opt->servname, sizeof s->servname);
    s->servlen = opt->servlen;
    std::memcpy(s->appname, opt->appname, sizeof s->appname);
    s->applen = opt->applen;
    std::memcpy(s->optaclgrp, opt->aclgrp, sizeof s->optaclgrp);
    s->locking = (opt->debug & HPD_LOCKING) ? 1 : 0;
    *sp = s;
    return 0;
}

rctype hpdnsrv(hpdptr hpd, hpdopt opt, hpdnptr ninfo) {
    long rl = std::max<long>(opt->bufsize, HPD_MINRECL);
    YXSOCK_OPEN* so = newsock(&hpd->brk, hpd->fp, rl);
    if (!so) return HPD_RC_FAIL;
    char appbuf[129];
    std::snprintf(appbuf, sizeof appbuf, "%.*s", opt->applen > 0 ? std::min(opt->applen, 128) : 8,
                  opt->applen > 0 ? opt->appname : "vrtaname");
    if (rctype rc = opensock(so, opt->servname, opt->servlen, appbuf, 84); rc) return rc;
    rctype rc = init_conn_name(so, opt, ninfo);
    hpdsofree(so);  // one question per connection
    return rc;
}

void hpdsfree(HPDSERV* s) {
    hpdsofree(s->sopen);
    s->sopen = nullptr;
    xmfree(XM_THREADPOOL, s, sizeof *s);
}

void hpdunlink(hpdptr hpd, HPDSERV* s) {
    if (s->prev)
        s->prev->next = s->next;
    else
        hpd->serv = s->next;
    if (s->next) s->next->prev = s->prev;
    s->next = s->prev = nullptr;
}

namespace {
void logclosed(const HPDSERV* s) {
    char u[130], h[129];
    std::snprintf(u, sizeof u, "%.*s", flen(s->user, 129), s->user);
    std::snprintf(h, sizeof h, "%.*s", std::min(s->servlen, 128), s->servname);
    xpmlog(MSGGRP, 110, u, h);
}
}  // namespace

void hpdpurge(hpdptr hpd) {
    for (bool found = true; found;) {
        found = false;
        for (HPDSERV* s = hpd->serv; s; s = s->next) {
            if (s->sopen && s->sopen->eof) {
                hpdunlink(hpd, s);
                logclosed(s);
                hpdsfree(s);
                found = true;
                break;
            }
        }
    }
}

HPDSERV* hpdfind(hpdptr hpd, hpdopt opt) {
    int ul = flen(opt->user, 129);
    int special = (opt->debug & HPD_ACLSPECIAL) ? 1 : 0;
    int locking = (opt->debug & HPD_LOCKING) ? 1 : 0;
    for (HPDSERV* s = hpd->serv; s; s = s->next) {
        if (!s->sopen || s->sopen->eof) continue;
        if (s->servlen != opt->servlen || std::memcmp(s->servname, opt->servname, s->servlen) != 0) continue;
        if (s->applen != opt->applen || std::memcmp(s->appname, opt->appname, s->applen) != 0) continue;
        bool sameuser = flen(s->user, 129) == ul && std::memcmp(s->user, opt->user, ul) == 0;
        if (!sameuser && !(opt->user[0] == '*' && s->user_prompt)) continue;
        if (s->special != special) continue;
        if (std::memcmp(s->optaclgrp, opt->aclgrp, sizeof s->optaclgrp) != 0) continue;
        if (s->locking != locking) continue;
        return s;
    }
    return nullptr;
}

rctype hpdgetserv(hpdptr hpd, hpdopt opt, HPDSERV** sp) {
    hpdpurge(hpd);
    if ((*sp = hpdfind(hpd, opt)) != nullptr) return 0;
    HPDSERV* s;
    if (rctype rc = hpdcsrv(hpd, opt, &s); rc) return rc < 0 ? HPD_RC_FAIL : rc;
    s->next = hpd->serv;
    if (hpd->serv) hpd->serv->prev = s;
    hpd->serv = s;
    std::memcpy(s->user, opt->user, sizeof s->user);
    s->special = (opt->debug & HPD_ACLSPECIAL) ? 1 : 0;
    s->free = (opt->debug & HPD_DISCONNECT) ? 1 : 0;
    std::memcpy(s->aclgrp, opt->aclgrp, sizeof s->aclgrp);
    s->user_prompt = opt->user_prompt;
    if (!s->protocol_mismatch) {
        char u[130], g[101], os[9], ver[5], h[129], hf[16];
        std::snprintf(u, sizeof u, "%.*s", flen(opt->user, 129), opt->user);
        std::snprintf(g, sizeof g, "%.*s", flen(opt->group, 100), opt->group);
        std::snprintf(os, sizeof os, "%.*s", flen(s->osname, 8), s->osname);
        std::snprintf(ver, sizeof ver, "%.4s", opt->version);
        std::snprintf(h, sizeof h, "%.*s", std::min(opt->servlen, 128), opt->servname);
        if (opt->hfnumber) {
            std::snprintf(hf, sizeof hf, "%d", opt->hfnumber);
            xpmlog(MSGGRP, 292, u, g, os, ver, hf, h);
        } else {
            xpmlog(MSGGRP, 108, u, g, os, ver, h);
        }
    }
    *sp = s;
    return 0;
}

}  // namespace vrta

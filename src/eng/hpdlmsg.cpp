// Login and name-server bodies. Each message is one function that counts
// when given no buffer and fills when given one, so size and fill agree.
#include "eng/hpdlmsg.h"

#include <cstdio>
#include <cstring>

#include "eng/hpdutl.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

// Writer: counts, and fills when it has a buffer.
struct WP {
    unsigned char* o;
    long n = 0;
    void i4(int32_t v) {
        if (o) hpdput4(o + n, v);
        n += 4;
    }
    void raw(const void* p, long l) {
        if (o && l > 0) std::memcpy(o + n, p, l);
        n += l > 0 ? l : 0;
    }
    void pl(int32_t l, const char* p) {
        i4(l);
        raw(p, l);
    }
};

// Reader: stops at the end of the body and remembers that it did.
struct RD {
    const unsigned char* p;
    long len;
    long at = 0;
    bool bad = false;
    int32_t i4() {
        if (bad || len - at < 4) {
            bad = true;
            return 0;
        }
        int32_t v = hpdget4(p + at);
        at += 4;
        return v;
    }
    void raw(void* to, long l) {
        if (bad || len - at < l) {
            bad = true;
            return;
        }
        std::memcpy(to, p + at, l);
        at += l;
    }
    void pl(int32_t* l, const char** s) {
        *l = i4();
        *s = "";
        if (bad) return;
        if (*l < 0 || *l > len - at) {
            bad = true;
            *l = 0;
            return;
        }
        *s = reinterpret_cast<const char*>(p + at);
        at += *l;
    }
    rctype done(const char* what) {
        if (!bad) return 0;
        char t[96];
        std::snprintf(t, sizeof t, "%s: a length does not fit the message", what);
        xrmksub(1, t, -1);
        return HPD_RC_FAIL;
    }
};

}  // namespace

long dspack_server_init(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_SERVER_INIT*>(v);
    WP w{out};
    w.pl(m.userl, m.user);
    w.i4(m.m);
    w.pl(m.passl, m.pass);
    w.i4(m.magic);
    w.pl(m.nodel, m.node);
    w.i4(m.m1);
    w.i4(m.special);
    w.i4(m.namemagic);
    w.pl(m.npassl, m.npass);
    w.pl(m.aclgrpl, m.aclgrp);
    w.i4(m.recordlock);
    w.raw(m.osuser, 8);
    return w.n;
}

rctype dsparse(DS_SERVER_INIT* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    r.pl(&m->userl, &m->user);
    m->m = r.i4();
    r.pl(&m->passl, &m->pass);
    m->magic = r.i4();
    r.pl(&m->nodel, &m->node);
    m->m1 = r.i4();
    m->special = r.i4();
    m->namemagic = r.i4();
    r.pl(&m->npassl, &m->npass);
    r.pl(&m->aclgrpl, &m->aclgrp);
    m->recordlock = r.i4();
    r.raw(m->osuser, 8);
    return r.done("DS_SERVER_INIT");
}

long dspack_server_init_reply(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_SERVER_INIT_REPLY*>(v);
    WP w{out};
    w.pl(m.msglen, m.msg);
    w.i4(m.code);
    w.i4(m.reserved1);
    w.i4(m.reserved2);
    w.i4(m.reserved3);
    w.i4(m.expire);
    w.pl(m.aclgrpl, m.aclgrp);
    w.i4(m.lockport);
    w.pl(m.tokenl, m.token);
    return w.n;
}

rctype dsparse(DS_SERVER_INIT_REPLY* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    r.pl(&m->msglen, &m->msg);
    m->code = r.i4();
    m->reserved1 = r.i4();
    m->reserved2 = r.i4();
    m->reserved3 = r.i4();
    m->expire = r.i4();
    r.pl(&m->aclgrpl, &m->aclgrp);
    m->lockport = r.i4();
    r.pl(&m->tokenl, &m->token);
    return r.done("DS_SERVER_INIT reply");
}

long dspack_password(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_PASSWORD*>(v);
    WP w{out};
    w.i4(m.magic);
    w.pl(m.userl, m.user);
    w.pl(m.passl, m.pass);
    return w.n;
}

rctype dsparse(DS_PASSWORD* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    m->magic = r.i4();
    r.pl(&m->userl, &m->user);
    r.pl(&m->passl, &m->pass);
    return r.done("DS_PASSWORD");
}

long dspack_server_o_i(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_SERVER_O_I*>(v);
    WP w{out};
    w.pl(m.userl, m.user);
    w.i4(m.m);
    w.pl(m.passl, m.pass);
    w.i4(m.magic);
    w.pl(m.nodel, m.node);
    w.i4(m.m1);
    w.i4(m.special);
    w.i4(m.noauth);
    w.pl(m.aclgrpl, m.aclgrp);
    return w.n;
}

rctype dsparse(DS_SERVER_O_I* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    r.pl(&m->userl, &m->user);
    m->m = r.i4();
    r.pl(&m->passl, &m->pass);
    m->magic = r.i4();
    r.pl(&m->nodel, &m->node);
    m->m1 = r.i4();
    m->special = r.i4();
    m->noauth = r.i4();
    r.pl(&m->aclgrpl, &m->aclgrp);
    return r.done("DS_SERVER_O_I");
}

long dspack_server_o_i_reply(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_SERVER_O_I_REPLY*>(v);
    WP w{out};
    w.pl(m.msglen, m.msg);
    w.pl(m.usertokl, m.usertok);
    w.i4(m.m);
    w.i4(m.logno);
    return w.n;
}

rctype dsparse(DS_SERVER_O_I_REPLY* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    r.pl(&m->msglen, &m->msg);
    r.pl(&m->usertokl, &m->usertok);
    m->m = r.i4();
    m->logno = r.i4();
    return r.done("DS_SERVER_O_I reply");
}

long dspack_libname_info8(const void* v, int, unsigned char* out) {
    auto& m = *static_cast<const DS_LIBNAME_INFO8*>(v);
    WP w{out};
    w.i4(m.magic);
    w.pl(m.liblen, m.libname);
    w.pl(m.grplen, m.group);
    w.pl(m.usrlen, m.user);
    w.pl(m.passlen, m.pass);
    w.pl(m.nodelen, m.node);
    return w.n;
}

rctype dsparse(DS_LIBNAME_INFO8* m, const void* body, long len) {
    RD r{static_cast<const unsigned char*>(body), len};
    m->magic = r.i4();
    r.pl(&m->liblen, &m->libname);
    r.pl(&m->grplen, &m->group);
    r.pl(&m->usrlen, &m->user);
    r.pl(&m->passlen, &m->pass);
    r.pl(&m->nodelen, &m->node);
    return r.done("DS_LIBNAME_INFO8");
}

long dspack_lib_info_reply(const void* v, int level, unsigned char* out) {
    auto& m = *static_cast<const DS_LIB_INFO_REPLY*>(v);
    WP w{out};
    w.pl(m.pnl, m.pn);
    w.pl(m.nodelen, m.node);
    w.i4(m.port);
    w.pl(m.optl, m.option);
    w.pl(m.roptl, m.roption);
    w.i4(m.namemagic);
    w.raw(m.owner, 8);
    w.i4(m.odbc);
    w.i4(m.oport);
    w.i4(m.perf);
    w.i4(m.backup);
    if (level >= 7) w.i4(m.flag);
    return w.n;
}

rctype dsparse(DS_LIB_INFO_REPLY* m, const void* body, long len, int level) {
    RD r{static_cast<const unsigned char*>(body), len};
    r.pl(&m->pnl, &m->pn);
    r.pl(&m->nodelen, &m->node);
    m->port = r.i4();
    r.pl(&m->optl, &m->option);
    r.pl(&m->roptl, &m->roption);
    m->namemagic = r.i4();
    r.raw(m->owner, 8);
    m->odbc = r.i4();
    m->oport = r.i4();
    m->perf = r.i4();
    m->backup = r.i4();
    m->flag = level >= 7 ? r.i4() : 0;
    return r.done("DS_LIB_INFO reply");
}

}  // namespace vrta

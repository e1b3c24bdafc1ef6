// Members of a domain by name: the list of a domain's tables read from its
// server in pieces.
#include <algorithm>
#include <cstring>

#include "eng/hpdc.h"
#include "eng/hpdd.h"
#include "eng/hpdl.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;
constexpr int PAIRS = 64;  // members asked for at a time

// One request on the domain's connection, reply classified; the body stays
// in the socket's buffer. A dead socket fails at once with 2/79.
rctype ask(HPDLIB* lib, int id, const DS_RECDESC* d, const void* rec) {
    YXSOCK_OPEN* so = lib->sopen;
    if (!lib->server || !so || so->eof) return hpderrtxt(MSGGRP, 79);
    int native = hpdostag(lib->server->osname)->native;
    DS_HDR_REPLY h;
    if (hpdsend(so, id, native, lib->level, d, rec) != 0 || hpdrecv(so, native, &h) != 0) {
        so->eof = 1;
        return HPD_RC_FAIL;
    }
    return hpdclass(h, static_cast<const unsigned char*>(so->reca), so->recl, lib->level, nullptr);
}

}  // namespace

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpddopn(void* engid, yhlibref* libref, void** dirp) {
    auto* hpd = static_cast<hpdptr>(engid);
    *dirp = nullptr;
    HPDLIB* lib = libref->englib ? static_cast<HPDLIB*>(libref->englib) : hpzlib(hpd->lib, libref->libref);
    if (!lib) return HPD_RC_NOALIAS;
    DS_LIBID q{lib->libid};
    if (rctype rc = ask(lib, DSM_YDEDOPN, &DS_LIBID_D, &q); rc) return rc;
    DS_YDEDOPN_REPLY r{};
    if (dsparse(r, lib->level, static_cast<const unsigned char*>(lib->sopen->reca), lib->sopen->recl) != 0)
        return HPD_RC_FAIL;
    auto* d = static_cast<HPDDIR*>(xmalloc(XM_THREADPOOL, sizeof(HPDDIR), XM_ZERO));
    if (!d) return HPD_RC_NOMEM;
    d->lib = lib;
    d->id = r.id;
    *dirp = d;
    return 0;
}

extern "C" rctype hpddrd(void* dirp, char* name, int* namel, char* type) {
    auto* d = static_cast<HPDDIR*>(dirp);
    if (d->pos >= d->count) {
        if (d->eof) return HPD_RC_EOF;
        DS_YDEDRD q{d->id, PAIRS};
        if (rctype rc = ask(d->lib, DSM_YDEDRD, &DS_YDEDRD_D, &q); rc) return rc;
        DS_YDEDRD_REPLY r{};
        YXSOCK_OPEN* so = d->lib->sopen;
        if (dsparse(r, d->lib->level, static_cast<const unsigned char*>(so->reca), so->recl) != 0 ||
            r.pairinfo % 40 != 0 || r.pairinfo > static_cast<int>(sizeof d->pairs)) {
            xrmksub(1, "the member list from the server is not in pairs of 40 bytes", -1);
            return HPD_RC_FAIL;
        }
        if (r.pairinfo == 0) {
            d->eof = 1;
            return HPD_RC_EOF;
        }
        std::memcpy(d->pairs, r.info, r.pairinfo);
        d->count = r.pairinfo / 40;
        d->pos = 0;
    }
    const char* p = d->pairs + 40 * d->pos++;
    int n = 32;
    while (n > 0 && p[n - 1] == ' ') --n;
    std::memcpy(name, p, n);
    name[n] = 0;
    *namel = n;
    std::memcpy(type, p + 32, 8);
    return 0;
}

extern "C" rctype hpdcls(void* dirp) {
    auto* d = static_cast<HPDDIR*>(dirp);
    if (!d) return 0;
    DS_YDECLS q{d->id};
    rctype rc = ask(d->lib, DSM_YDECLS, &DS_YDECLS_D, &q);
    xmfree(XM_THREADPOOL, d, sizeof(HPDDIR));
    return rc;
}

// Framing: headers by the server's tag, one write per message, replies read
// and classified, the enciphered login exchanges, greetings byte by byte.
#include "eng/hpdutl.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "eng/hpdmsg.h"
#include "hs/zcrypt.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

constexpr int MSGGRP = 2;

// The rows of the tag table; the last is every tag not named.
constexpr HPD_OSTAG ostags[] = {
    {{'N', 'T', ' ', ' ', ' ', ' ', ' ', ' '}, 1, 0, 1, 128},
    {{'L', 'N', 'X', ' ', ' ', ' ', ' ', ' '}, 1, 1, 1, 80},
    {{'A', 'L', 'P', 'H', 'A', 'V', 'M', 'S'}, 1, 1, 1, 80},
    {{'A', 'L', 'P', 'H', 'A', 'O', 'S', 'F'}, 1, 0, 1, 48},
    {{'S', 'O', 'L', '-', 'x', '6', '4', ' '}, 1, 0, 0, 48},
    {{'L', 'A', 'X', ' ', ' ', ' ', ' ', ' '}, 1, 0, 1, 48},
    {{'L', 'I', 'X', ' ', ' ', ' ', ' ', ' '}, 1, 0, 1, 48},
    {{' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '}, 0, 1, 1, 80},
};
constexpr int NTAGS = sizeof ostags / sizeof ostags[0] - 1;

int32_t ord(int32_t v, int native) { return native ? v : static_cast<int32_t>(htonl(static_cast<uint32_t>(v))); }

void puthdr(unsigned char* p, const DS_HDR_METHOD& h, int native) {
    DS_HDR_METHOD o = h;
    o.id = ord(h.id, native);
    o.len = ord(h.len, native);
    std::memcpy(p, &o, sizeof o);
}

void puthdr(unsigned char* p, const DS_HDR_REPLY& h, int native) {
    DS_HDR_REPLY o = h;
    o.id = ord(h.id, native);
    o.len = ord(h.len, native);
    o.rcode = ord(h.rcode, native);
    o.rclass = ord(h.rclass, native);
    std::memcpy(p, &o, sizeof o);
}

// A dead connection: later requests on it fail at once without touching it.
rctype lost(YXSOCK_OPEN* so, rctype rc) {
    so->eof = 1;
    xpmlog(MSGGRP, 75);
    return rc < 0 ? rc : HPD_RC_FAIL;
}

rctype toolong(YXSOCK_OPEN* so, long len) {
    char t[80];
    std::snprintf(t, sizeof t, "message length %ld out of range", len);
    xrmksub(1, t, -1);
    return lost(so, HPD_RC_FAIL);
}

// Reads exactly n bytes into reca; a short record is a lost connection.
rctype readn(YXSOCK_OPEN* so, long n) {
    if (rctype rc = hpdgrow(so, n); rc) return rc;
    so->nread = n;
    rctype rc = yxsread(so);
    if (rc == YXS_RC_EOF) {
        xrmksub(1, "the peer closed the connection", -1);
        return HPD_RC_FAIL;
    }
    if (rc) return rc < 0 ? rc : HPD_RC_FAIL;
    if (so->recl != n) {
        xrmksub(1, "the peer closed the connection inside a message", -1);
        return HPD_RC_FAIL;
    }
    return 0;
}

// The body's length, or a failure code below zero.
long bodylen(int level, const DS_RECDESC* d, const void* rec) {
    long n = 0;
    if (!d) return 0;
    rctype rc = dssize(d, rec, level, &n);
    return rc ? rc : n;
}

// Frames header and body: sized, then filled. Plain, both go in one write;
// enciphered (logins), the plain header goes alone, then the body.
template <class H>
rctype sendframe(YXSOCK_OPEN* so, H h, int native, bool enc, int level, const DS_RECDESC* d, const void* rec) {
    constexpr long hl = sizeof(H);
    long bl = bodylen(level, d, rec);
    if (bl < 0) return bl;
    if (bl > HPD_MAXMSG) return toolong(so, bl);
    if (rctype rc = hpdgrow(so, hl + (enc ? zcryptlen(bl) : bl)); rc) return rc;
    h.len = static_cast<int32_t>(hl + bl);
    if constexpr (sizeof(H) == sizeof(DS_HDR_REPLY)) std::memcpy(h.type, "RPLY", 4);
    auto* out = static_cast<unsigned char*>(so->recouta);
    puthdr(out, h, native);
    long at = hl;
    if (enc) {
        so->recoutl = hl;
        if (rctype rc = yxswrit(so); rc) {
            so->eof = 1;
            return rc;
        }
        at = 0;
    }
    long n = 0;
    if (d && bl > 0) {
        if (rctype rc = dsfill(d, rec, level, out + at, &n); rc) return rc;
    }
    so->recoutl = at + bl;
    if (enc) return mywrite(so);
    if (rctype rc = yxswrit(so); rc) {
        so->eof = 1;
        return rc;
    }
    return 0;
}

// The header of a framed message read plain and in either order; the body
// then follows in reca. enc: the body is enciphered.
template <class H>
rctype recvframe(YXSOCK_OPEN* so, int native, H* h, bool enc) {
    constexpr long hl = sizeof(H);
    if (so->eof) {
        xrmksub(1, "the connection was lost earlier", -1);
        return HPD_RC_FAIL;
    }
    if (rctype rc = hpdgrow(so, hl); rc) return rc;
    so->nread = hl;
    rctype rc = yxsread(so);
    if (rc == YXS_RC_EOF) return rc;  // the caller decides whether that is clean
    if (rc) return rc < 0 ? rc : HPD_RC_FAIL;
    if (so->recl != hl) {
        xrmksub(1, "truncated message header", -1);
        return HPD_RC_FAIL;
    }
    std::memcpy(h, so->reca, hl);
    h->id = ord(h->id, native);
    h->len = ord(h->len, native);
    if constexpr (sizeof(H) == sizeof(DS_HDR_REPLY)) {
        h->rcode = ord(h->rcode, native);
        h->rclass = ord(h->rclass, native);
    }
    // Never trust a length before it is checked against the limit.
    if (h->len < hl || h->len - hl > HPD_MAXMSG) {
        char t[80];
        std::snprintf(t, sizeof t, "message length %d out of range", h->len);
        xrmksub(1, t, -1);
        return HPD_RC_FAIL;
    }
    long plain = h->len - hl;
    long wire = enc ? zcryptlen(plain) : plain;
    if (plain == 0) {
        so->recl = 0;
        return 0;
    }
    if ((rc = readn(so, wire)) != 0) return rc;
    if (enc) {
        long got = 0;
        // The text shrinks as it is decoded, so it may be decoded in place.
        if (zdcrypt(so->reca, wire, so->reca, plain, &got) != 0 || got != plain) {
            xrmksub(1, "the enciphered body does not decode", -1);
            return HPD_RC_FAIL;
        }
        so->recl = plain;
    }
    return 0;
}

}  // namespace

const HPD_OSTAG* hpdostag(const char* osname8) {
    if (osname8)
        for (int i = 0; i < NTAGS; ++i)
            if (std::memcmp(ostags[i].name, osname8, 8) == 0) return &ostags[i];
    return &ostags[NTAGS];
}

void hpdput4(unsigned char* p, int32_t v) {
    uint32_t u = htonl(static_cast<uint32_t>(v));
    std::memcpy(p, &u, 4);
}

int32_t hpdget4(const unsigned char* p) {
    uint32_t u;
    std::memcpy(&u, p, 4);
    return static_cast<int32_t>(ntohl(u));
}

rctype hpdgrow(YXSOCK_OPEN* so, long n) {
    if (n <= so->lrecl) return 0;
    // Both buffers follow one length, so closing gives back what it took.
    long tl = so->termlen;
    void* r = xmrealc(XM_THREADPOOL, so->reca, so->lrecl, n, 0);
    if (!r) return HPD_RC_NOMEM;
    so->reca = r;
    if (so->recouta) {
        void* w = xmrealc(XM_THREADPOOL, so->recouta, so->lrecl + tl, n + tl, 0);
        if (!w) {
            // reca already grew: shrink the books back to the smaller one.
            so->reca = xmrealc(XM_THREADPOOL, so->reca, n, so->lrecl, 0);
            return HPD_RC_NOMEM;
        }
        so->recouta = w;
    }
    so->lrecl = n;
    return 0;
}

rctype hpdsend(YXSOCK_OPEN* so, int id, int native, int level, const DS_RECDESC* d, const void* rec) {
    return sendframe(so, DS_HDR_METHOD{id, 0, {'M', 'E', 'T', 'H'}}, native, false, level, d, rec);
}

rctype hpdsendr(YXSOCK_OPEN* so, const DS_HDR_REPLY& h, int native, int level, const DS_RECDESC* d, const void* rec) {
    return sendframe(so, h, native, false, level, d, rec);
}

rctype hpdrecv(YXSOCK_OPEN* so, int native, DS_HDR_REPLY* h) {
    rctype rc = recvframe(so, native, h, false);
    if (rc == YXS_RC_EOF) {
        xrmksub(1, "the peer closed the connection", -1);
        rc = HPD_RC_FAIL;
    }
    return rc ? lost(so, rc) : 0;
}

rctype hpdrecvm(YXSOCK_OPEN* so, int native, DS_HDR_METHOD* h) {
    rctype rc = recvframe(so, native, h, false);
    if (rc && rc != YXS_RC_EOF) so->eof = 1;
    return rc;
}

rctype hpdsendx(YXSOCK_OPEN* so, int id, int level, const DS_RECDESC* d, const void* rec) {
    return sendframe(so, DS_HDR_METHOD{id, 0, {'M', 'E', 'T', 'H'}}, 0, true, level, d, rec);
}

rctype hpdsendxr(YXSOCK_OPEN* so, const DS_HDR_REPLY& h, int level, const DS_RECDESC* d, const void* rec) {
    return sendframe(so, h, 0, true, level, d, rec);
}

rctype hpdrecvx(YXSOCK_OPEN* so, DS_HDR_REPLY* h) {
    rctype rc = recvframe(so, 0, h, true);
    if (rc == YXS_RC_EOF) {
        xrmksub(1, "the peer closed the connection", -1);
        rc = HPD_RC_FAIL;
    }
    if (rc) so->eof = 1;
    return rc;
}

rctype hpdrecvxm(YXSOCK_OPEN* so, DS_HDR_METHOD* h) {
    rctype rc = recvframe(so, 0, h, true);
    if (rc && rc != YXS_RC_EOF) so->eof = 1;
    return rc;
}

rctype hpdclass(const DS_HDR_REPLY& h, const unsigned char* body, long bodyl, int level, const HPD_RCTX* ctx) {
    // The text of the body: a 4-byte length and the bytes, never past the body.
    auto text = [&](const char** t, int* l) {
        *t = "";
        *l = 0;
        if (bodyl < 4) return;
        int32_t n = hpdget4(body);
        if (n < 0 || n > bodyl - 4) n = static_cast<int32_t>(bodyl - 4);
        *t = reinterpret_cast<const char*>(body + 4);
        *l = n;
    };
    const char* t;
    int l;
    if (ctx && ctx->member) {
        if (h.rcode == 2550) {
            xrmksub(3, "MEMBER  ", 8, ctx->member, ctx->memberl, "conflicting use", -1);
            return HPD_RC_INUSE;
        }
        if (h.rcode == 2548) {
            text(&t, &l);
            char who[128];
            std::snprintf(who, sizeof who, "%.*s", l, t);
            if (ctx->osname && std::memcmp(ctx->osname, "NT      ", 8) == 0) std::snprintf(who, sizeof who, "N/A");
            char msg[300];
            xpmstr(msg, sizeof msg, MSGGRP, 127, who);
            xrmksub(3, "MEMBER  ", 8, ctx->member, ctx->memberl, msg, -1);
            return HPD_RC_INUSE;
        }
        if (h.rcode == 2551) {
            text(&t, &l);
            xrmksub(3, "MEMBER  ", 8, ctx->member, ctx->memberl, t, l);
            return HPD_RC_INUSE;
        }
    }
    if (!(h.rclass & HPD_RCLASS_FAIL)) return 0;
    if (h.rcode == 2104) return HPD_RC_NOTFOUND;
    if (h.rcode == 773 && level > 2) return HPD_RC_NOTFOUND;
    if (h.rcode == 2549) return HPD_RC_2549;
    text(&t, &l);
    xrmksub(1, t, l);
    return HPD_RC_FAIL;
}

rctype hpdask(YXSOCK_OPEN* so, int native, int level, int id, const DS_RECDESC* d, const void* rec,
              DS_HDR_REPLY* h, const HPD_RCTX* ctx) {
    if (!so || so->eof) return hpderrtxt(MSGGRP, 79);
    if (hpdsend(so, id, native, level, d, rec) != 0) return lost(so, HPD_RC_FAIL);
    return hpdnext(so, native, level, h, ctx);
}

rctype hpdnext(YXSOCK_OPEN* so, int native, int level, DS_HDR_REPLY* h, const HPD_RCTX* ctx) {
    if (rctype rc = hpdrecv(so, native, h); rc) return rc;
    return hpdclass(*h, static_cast<const unsigned char*>(so->reca), so->recl, level, ctx);
}

void hpdrmsg(int rclass, const char* msg, long msgl) {
    if (rclass == 0) return;
    char t[1024];
    std::snprintf(t, sizeof t, "%.*s", static_cast<int>(msgl < 0 ? 0 : msgl), msg ? msg : "");
    xpmlog(MSGGRP, (rclass & HPD_RCLASS_NOTE) ? 77 : 78, t);
}

int hpcread(int fd, void* buf, int len, int* brk, void* gcb, int wait, YXSOCK_FDS* fds) {
    if (wait && yxtzsnb(fd + 1, brk, gcb, fds) != 0) return len;
    auto* p = static_cast<char*>(buf);
    while (len > 0) {
        ssize_t n = read(fd, p, len);
        if (n == 0) break;
        if (n < 0) {
            xpslog("Socket error in hpcread (code = %d). Rerun the job.", errno);
            if (errno == EINTR) continue;
            break;
        }
        p += n;
        len -= static_cast<int>(n);
    }
    return len;
}

int hpcwrit(int fd, const void* buf, int len, void* /*gcb*/) {
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK) n = write(fd, p, len);
        if (n <= 0) return 1;
        p += n;
        len -= static_cast<int>(n);
    }
    return 0;
}

rctype mywrite(YXSOCK_OPEN* so) {
    long n = zcryptlen(so->recoutl);
    if (rctype rc = hpdgrow(so, n); rc) return rc;
    // Encoding grows the text: work from a copy of the plain bytes.
    void* plain = xmalloc(XM_THREADPOOL, so->recoutl > 0 ? so->recoutl : 1, 0);
    if (!plain) return HPD_RC_NOMEM;
    std::memcpy(plain, so->recouta, so->recoutl);
    rctype rc = zncrypt(plain, so->recoutl, so->recouta);
    xmfree(XM_THREADPOOL, plain, so->recoutl > 0 ? so->recoutl : 1);
    if (rc) {
        xrmksub(1, "the message could not be enciphered", -1);
        return HPD_RC_FAIL;
    }
    so->recoutl = n;
    if ((rc = yxswrit(so)) != 0) so->eof = 1;
    return rc;
}

rctype ewrite(YXSOCK_OPEN* so) {
    if (rctype rc = hpdgrow(so, 2736); rc) return rc;
    if (so->recoutl < 2048) std::memset(static_cast<char*>(so->recouta) + so->recoutl, ' ', 2048 - so->recoutl);
    so->recoutl = 2048;
    return mywrite(so);
}

rctype hpderrtxt(int group, int number, const char* sub) {
    char t[512];
    int n = xpmstr(t, sizeof t, group, number, sub ? sub : "");
    if (n < 0) n = 0;
    while (n > 0 && (t[n - 1] == '\n' || t[n - 1] == ' ')) --n;
    xrmksub(1, t, n);
    return HPD_RC_FAIL;
}

}  // namespace vrta

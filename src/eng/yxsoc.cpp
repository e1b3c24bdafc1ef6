// Socket transport: client opens by host and service or by path, the passive
// side, the five record disciplines and the write loop.
#include "eng/yxsoc.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eng/hpd.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

rctype yxsinit(void** /*breakhandler*/, void** /*gcbptr*/) { return 0; }
rctype yxsterm(void* /*gcb*/) { return 0; }
void yxsbrk() {}

namespace {

template <class T>
void givebk(T*& p, long len) {
    if (p) xmfree(XM_THREADPOOL, p, len);
    p = nullptr;
}

// Group 2 of the message files: the engine front end and its connections.
constexpr int MSGGRP = 2;

void copytext(char (&to)[128], const char* from) {
    size_t n = strnlen(from, sizeof to - 1);
    std::memcpy(to, from, n);
    to[n] = 0;
}

// gethostbyname on a name of at most len bytes; the reentrant form, so that
// server threads may look up at once.
bool lookup(const char* name, hostent* he, char* work, size_t worklen) {
    hostent* res = nullptr;
    int herr = 0;
    return gethostbyname_r(name, he, work, worklen, &res, &herr) == 0 && res;
}

// Step 1 and 2 of a client open: this machine's name and address. The
// address is what tells later that client and server share a machine.
void yxslocal(YXSOCK_OPEN* so) {
    if (gethostname(so->localname, sizeof so->localname - 1) != 0) copytext(so->localname, "LOCALHOST");
    so->localname[sizeof so->localname - 1] = 0;
    so->ipl[0] = 0;
    if (HPDBINDADDR) {
        copytext(so->ipl, HPDBINDADDR);
        return;
    }
    hostent he;
    char work[2048];
    if (lookup(so->localname, &he, work, sizeof work) && he.h_addr_list[0] && he.h_length == 4) {
        uint32_t a;
        std::memcpy(&a, he.h_addr_list[0], 4);
        copytext(so->ipl, yxsntoa(a));
    }
}

// Socket buffer sizes. The opens call it before the block lengths are set, so
// on a fresh record the system's sizes hold; that order is deliberate.
void sock_option(int s, int /*flag*/, int obufl, int ibufl) {
    if (obufl) {
        int v = obufl + 256;
        setsockopt(s, SOL_SOCKET, SO_SNDBUF, &v, sizeof v);
    }
    if (ibufl) {
        int v = ibufl + 256;
        setsockopt(s, SOL_SOCKET, SO_RCVBUF, &v, sizeof v);
    }
}

// Steps 6 to 9 of a client open: blocks, terminator, record buffers, the
// descriptor bitmap.
rctype yxsbufs(YXSOCK_OPEN* so, int s) {
    so->ibufl = so->obufl = YXS_BLOCK;
    if (so->blocksize > 0 && so->blocksize < YXS_BLOCK) {
        if (so->mode == 1)
            so->ibufl = so->blocksize;
        else if (so->mode == 2)
            so->obufl = so->blocksize;
        else
            so->ibufl = so->obufl = so->blocksize;
    }
    if (so->mode & 1) {
        so->inbuf = static_cast<char*>(xmalloc(XM_THREADPOOL, so->ibufl, 0));
        if (!so->inbuf) return YXS_RC_NOMEM;
    }
    if (so->mode & 2) {
        so->outbuf = static_cast<char*>(xmalloc(XM_THREADPOOL, so->obufl, 0));
        if (!so->outbuf) return YXS_RC_NOMEM;
    }
    so->term = static_cast<char*>(xmalloc(XM_THREADPOOL, 4, XM_ZERO));
    if (!so->term) return YXS_RC_NOMEM;
    so->term[0] = '\n';
    so->termlen = 1;
    if (so->termflag == 1) {
        so->term[0] = '\r';
        so->term[1] = '\n';
        so->termlen = 2;
    } else if (so->termflag == 4) {
        so->term[0] = 0;
    }
    if (so->lrecl == 0) so->lrecl = 256;
    if (so->lrecl < 0) {
        xrmksub(1, "negative record length", -1);
        return YXS_RC_FAIL;
    }
    so->reca = xmalloc(XM_THREADPOOL, so->lrecl, 0);
    if (!so->reca) return YXS_RC_NOMEM;
    if (so->mode & 2) {
        so->recouta = xmalloc(XM_THREADPOOL, so->lrecl + so->termlen, 0);
        if (!so->recouta) return YXS_RC_NOMEM;
    }
    if (!so->fds.fdss) {
        so->fds.fdss = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
        so->fds.fdsw = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
        if (!so->fds.fdss || !so->fds.fdsw) {
            givebk(so->fds.fdss, 256);
            givebk(so->fds.fdsw, 256);
            return YXS_RC_NOMEM;
        }
        so->fds.fdslen = 256;
    }
    if (rctype rc = yxtzbit(&so->fds, s, 1); rc) return rc;
    so->s = s;
    return 0;
}

// A failed open gives back what it took; the caller's record stays.
rctype yxsfail(YXSOCK_OPEN* so, int s, rctype rc) {
    if (s > 0 && so->s != s && so->cs != s) close(s);
    yxsclos(so);
    return rc;
}

bool fdbit(const YXSOCK_FDS* f, int fd) {
    return fd >= 0 && fd / 8 < f->fdslen && (f->fdss[fd / 8] >> (fd % 8) & 1);
}

// Moves the next unread bytes of inbuf into reca behind recl; what does not
// fit lrecl is consumed all the same and reported as a cut.
void take(YXSOCK_OPEN* so, long n, bool* cut) {
    long room = so->lrecl - so->recl;
    long copy = std::min(n, std::max(room, 0L));
    if (copy > 0) std::memcpy(static_cast<char*>(so->reca) + so->recl, so->inbuf + so->lastpos, copy);
    if (copy < n) *cut = true;
    so->recl += copy;
    so->lastpos += n;
    so->left -= n;
    so->totcnt += n;
}

// The address of a UNIX-domain path: zeroed, then the path's bytes.
rctype unaddr(sockaddr_un* un, const char* path, int pathl) {
    if (pathl <= 0 || pathl > static_cast<int>(sizeof un->sun_path) - 1) {
        xrmksub(1, "UNIX socket path empty or too long", -1);
        return YXS_RC_FAIL;
    }
    std::memset(un, 0, sizeof *un);
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, path, pathl);
    return 0;
}

// Last step of a UNIX-domain open: the path stands as the peer's name.
rctype unopened(YXSOCK_OPEN* so, int s, const char* path, int pathl) {
    int n = std::min(pathl, 127);
    std::memcpy(so->ip, path, n);
    so->ip[n] = 0;
    if (rctype rc = yxsbufs(so, s); rc) return yxsfail(so, s, rc);
    return 0;
}

// Accepts one client of the listening socket s; ipc names it (the path, for
// a UNIX-domain listener).
rctype acceptone(YXSOCK_OPEN* so, int* c) {
    sockaddr_storage ss;
    socklen_t l = sizeof ss;
    while ((*c = accept(so->s, reinterpret_cast<sockaddr*>(&ss), &l)) < 0 && errno == EINTR) {
    }
    if (*c < 0) return yxtzsub(errno);
    if (ss.ss_family == AF_INET) {
        std::memcpy(&so->csa, &ss, sizeof so->csa);
        copytext(so->ipc, yxsntoa(so->csa.sin_addr.s_addr));
    } else {
        std::memset(&so->csa, 0, sizeof so->csa);
        copytext(so->ipc, so->ip);
    }
    return 0;
}

// Refills inbuf; the first keep bytes of it stay.
rctype readblk(int fd, long keep, YXSOCK_OPEN* so) {
    if (so->left) return 0;
    if (so->eov) {
        // The client went away and a further one may come: wait for it on
        // the listening socket.
        close(so->cs);
        yxtzbit(&so->fds, so->cs, 0);
        so->cs = 0;
        if (rctype rc = yxtzbit(&so->fds, so->s, 1); rc) return rc;
        if (rctype rc = yxtzsnb(so->s + 1, so->brk, so->gcb, &so->fds, so->waitms); rc) return rc;
        int c;
        if (rctype rc = acceptone(so, &c); rc) return rc;
        xpmlog(MSGGRP, 8, so->ipc);
        yxtzbit(&so->fds, so->s, 0);
        if (rctype rc = yxtzbit(&so->fds, c, 1); rc) {
            close(c);
            return rc;
        }
        so->cs = c;
        so->eov = 0;
        so->conback -= 1;
        fd = c;
    }
    for (;;) {
        if (rctype rc = yxtzsnb(fd + 1, so->brk, so->gcb, &so->fds, so->waitms); rc) return rc;
        ssize_t n = read(fd, so->inbuf + keep, so->ibufl - keep);
        if (n == 0) {
            if (so->cs == 0 || so->conback < 1) {
                so->eof = 1;
                return YXS_RC_EOF;
            }
            so->eov = 1;
            return 1;
        }
        if (n > 0) {
            so->lastpos = 0;
            so->numbyte = so->left = n + keep;
            return 0;
        }
        if (errno != EINTR) return yxtzsub(errno);
    }
}

// The 4-byte head of the variable disciplines, which may straddle blocks:
// fewer than 4 bytes left move to the front of inbuf and stay there.
rctype readhdr(YXSOCK_OPEN* so, YXSOCK_S370HDR* h) {
    if (so->ibufl < 4) {
        xrmksub(1, "input block shorter than a record header", -1);
        return YXS_RC_FAIL;
    }
    while (so->left < 4) {
        long keep = so->left;
        std::memmove(so->inbuf, so->inbuf + so->lastpos, keep);
        so->left = 0;
        if (rctype rc = readblk(yxsfd(so), keep, so); rc) return rc;
    }
    std::memcpy(h, so->inbuf + so->lastpos, 4);
    so->lastpos += 4;
    so->left -= 4;
    so->totcnt += 4;
    return 0;
}

// Copies n bytes of the stream into reca (skip: drops them).
rctype readbody(YXSOCK_OPEN* so, long n, bool skip, bool* cut) {
    while (n > 0) {
        if (so->left == 0) {
            if (rctype rc = readblk(yxsfd(so), 0, so); rc) return rc;
        }
        long k = std::min(n, so->left);
        if (skip) {
            so->lastpos += k;
            so->left -= k;
            so->totcnt += k;
        } else {
            take(so, k, cut);
        }
        n -= k;
    }
    return 0;
}

void drop370msg(YXSOCK_OPEN* so, bool* said) {
    if (*said) return;
    *said = true;
    xpmlog(MSGGRP, 29, static_cast<int>(so->recnum));
}

// End of input inside a record: what came is the record; nothing at all is
// the end.
rctype endrec(rctype rc, bool got) {
    if (rc == YXS_RC_EOF || rc == 1) return got ? 0 : YXS_RC_EOF;
    return rc;
}

rctype readterm(YXSOCK_OPEN* so, bool* cut) {
    long keep = 0;
    bool got = false;
    for (;;) {
        if (so->left == 0) {
            rctype rc = readblk(yxsfd(so), keep, so);
            if (rc) {
                if (keep > 0) {
                    // The tail kept for a straddling terminator is data.
                    so->lastpos = 0;
                    so->left = keep;
                    take(so, keep, cut);
                    got = true;
                }
                return endrec(rc, got);
            }
            keep = 0;
        }
        const char* p = so->inbuf + so->lastpos;
        const char* end = p + so->left;
        const char* hit =
            so->termlen == 1 ? static_cast<const char*>(std::memchr(p, so->term[0], so->left))
                             : std::search(p, end, so->term, so->term + so->termlen);
        if (hit && hit != end) {
            take(so, hit - p, cut);
            so->lastpos += so->termlen;
            so->left -= so->termlen;
            so->totcnt += so->termlen;
            return 0;
        }
        got = true;
        long k = std::min<long>(so->termlen - 1, so->left);
        take(so, so->left - k, cut);
        std::memmove(so->inbuf, so->inbuf + so->lastpos, k);
        so->lastpos = 0;
        so->left = 0;
        keep = k;
    }
}

rctype readcount(YXSOCK_OPEN* so, bool* cut) {
    if (so->nread < 0) {
        if (so->left == 0) {
            if (rctype rc = readblk(yxsfd(so), 0, so); rc) return endrec(rc, false);
        }
        take(so, std::min(so->left, so->lrecl), cut);
        return 0;
    }
    // Counted apart from recl: bytes past lrecl are consumed but not kept.
    for (long done = 0; done < so->nread;) {
        if (so->left == 0) {
            if (rctype rc = readblk(yxsfd(so), 0, so); rc) return endrec(rc, done > 0);
        }
        long k = std::min(so->left, so->nread - done);
        take(so, k, cut);
        done += k;
    }
    return 0;
}

rctype readfixed(YXSOCK_OPEN* so, bool* cut) {
    while (so->recl < so->lrecl) {
        if (so->left == 0) {
            if (rctype rc = readblk(yxsfd(so), 0, so); rc) return endrec(rc, so->recl > 0);
        }
        take(so, std::min(so->left, so->lrecl - so->recl), cut);
    }
    return 0;
}

rctype badhdr() {
    xrmksub(1, "record header with a length below 4", -1);
    return YXS_RC_FAIL;
}

rctype readvar(YXSOCK_OPEN* so, bool* cut) {
    YXSOCK_S370HDR h;
    if (rctype rc = readhdr(so, &h); rc) return endrec(rc, false);
    long n = (h.len_hi << 8 | h.len_lo) - 4;
    if (n < 0) return badhdr();
    rctype rc = readbody(so, n, false, cut);
    return rc ? endrec(rc, true) : 0;
}

rctype readseg(YXSOCK_OPEN* so, bool* cut) {
    bool open = false, said = false, got = false;
    for (;;) {
        YXSOCK_S370HDR h;
        if (rctype rc = readhdr(so, &h); rc) return endrec(rc, got);
        so->recnum += 1;
        long n = (h.len_hi << 8 | h.len_lo) - 4;
        if (n < 0) return badhdr();
        int flag = h.flag_hi;
        bool skip = false;
        if (!open && (flag == 2 || flag == 3)) {
            drop370msg(so, &said);  // its start was lost
            skip = true;
        } else if (open && (flag == 0 || flag == 1)) {
            drop370msg(so, &said);  // the open record lost its end
            so->recl = 0;
            *cut = false;
        }
        if (rctype rc = readbody(so, n, skip, cut); rc) return endrec(rc, true);
        if (!skip) got = true;
        if (skip) continue;
        if (flag == 1 || flag == 3) {
            open = true;
            continue;
        }
        return 0;
    }
}

}  // namespace

rctype yxtzsub(int err) {
    const char* t = std::strerror(err);
    xrmksub(1, t, static_cast<int>(std::strlen(t)));
    return YXS_RC_FAIL;
}

rctype yxtzbit(YXSOCK_FDS* f, int fd, int on) {
    if (fd < 0) return 0;
    if (fd + 1 >= f->fdslen * 8) {
        int nlen = (fd + 513) / 512 * 64;
        auto* ns = static_cast<unsigned char*>(xmrealc(XM_THREADPOOL, f->fdss, f->fdslen, nlen, 0));
        if (!ns) {
            givebk(f->fdss, f->fdslen);
            givebk(f->fdsw, f->fdslen);
            f->fdslen = 0;
            return YXS_RC_NOMEM;
        }
        std::memset(ns + f->fdslen, 0, nlen - f->fdslen);
        f->fdss = ns;
        givebk(f->fdsw, f->fdslen);
        f->fdsw = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, nlen, XM_ZERO));
        if (!f->fdsw) {
            givebk(f->fdss, nlen);
            f->fdslen = 0;
            return YXS_RC_NOMEM;
        }
        f->fdslen = nlen;
    }
    if (on)
        f->fdss[fd / 8] |= static_cast<unsigned char>(1u << (fd % 8));
    else
        f->fdss[fd / 8] &= static_cast<unsigned char>(~(1u << (fd % 8)));
    return 0;
}

rctype yxtzsnb(int count, int* /*brk*/, void* /*gcb*/, YXSOCK_FDS* f, int ms) {
    int armed = 0;
    for (int fd = 0; fd < count; ++fd) armed += fdbit(f, fd);
    if (armed == 1) {
        pollfd p{count - 1, POLLIN, 0};
        for (;;) {
            int r = poll(&p, 1, ms > 0 ? ms : -1);
            if (r > 0) return 0;
            if (r == 0) break;
            if (errno != EINTR) return yxtzsub(errno);
        }
    }
    xpmlog(MSGGRP, 210);
    xrmksub(1, armed == 1 ? "no input within the time allowed" : "not exactly one descriptor to wait on", -1);
    return YXS_RC_FAIL;
}

rctype mywrite(int fd, const void* buf, long len, void* /*gcb*/) {
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        // A peer that went away must not kill the process with SIGPIPE.
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK) n = write(fd, p, len);
        // An interrupted write is a failure too: the loop never retried one.
        if (n <= 0) return n < 0 ? yxtzsub(errno) : yxtzsub(EPIPE);
        p += n;
        len -= n;
    }
    return 0;
}

const char* yxsntoa(uint32_t addr) {
    thread_local char buf[18];
    const auto* b = reinterpret_cast<const unsigned char*>(&addr);
    std::snprintf(buf, sizeof buf, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    return buf;
}

long zrlchr(const char* buf, int len) {
    int i = 0;
    while (i < len && buf[i] == ' ') ++i;
    if (i == len || !std::isdigit(static_cast<unsigned char>(buf[i]))) return -1;
    long v = 0;
    for (; i < len && std::isdigit(static_cast<unsigned char>(buf[i])); ++i) {
        v = v * 10 + (buf[i] - '0');
        if (v > 0x7fffffffL) return -1;
    }
    while (i < len && buf[i] == ' ') ++i;
    return i == len ? v : -1;
}

rctype yxshost(YXSOCK_OPEN* so) {
    char name[129];
    int n = std::min(so->hlen, 128);
    if (n < 0) n = 0;
    std::memcpy(name, so->host, n);
    while (n > 0 && (name[n - 1] == ' ' || name[n - 1] == 0)) --n;
    name[n] = 0;
    if (n == 0) {
        int cap = std::min(so->hlen, 128);
        if (cap > 0 && gethostname(name, cap) == 0) {
            name[cap] = 0;
            n = static_cast<int>(std::strlen(name));
            std::memcpy(so->host, name, n);
            std::memset(so->host + n, ' ', so->hlen - n);
        }
        if (n == 0) {
            xpmlog(MSGGRP, 50);
            return YXS_RC_NOHOST;
        }
    }
    in_addr_t a = inet_addr(name);
    if (a != INADDR_NONE || std::strcmp(name, "255.255.255.255") == 0) {
        so->family = 0;
        so->addrlen = 4;
        std::memcpy(so->addr, &a, 4);
        copytext(so->hostname, name);
        return 0;
    }
    hostent he;
    char work[4096];
    bool ok = lookup(name, &he, work, sizeof work);
    if (!ok) {
        for (char* c = name; *c; ++c) *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
        ok = lookup(name, &he, work, sizeof work);
    }
    if (!ok || !he.h_addr_list[0]) {
        xpmlog(MSGGRP, 123, name);
        xrmksub(1, name, -1);
        return YXS_RC_FAIL;
    }
    so->family = he.h_addrtype;
    so->addrlen = std::min(he.h_length, 20);
    std::memcpy(so->addr, he.h_addr_list[0], so->addrlen);
    copytext(so->hostname, he.h_name ? he.h_name : name);
    return 0;
}

rctype yxsserv(YXSOCK_OPEN* so, int len, int* port) {
    const char* p = so->service ? so->service : "";
    if (len < 0) len = static_cast<int>(std::strlen(p));
    int i = 0;
    while (i < len && p[i] == ' ') ++i;
    while (len > i && (p[len - 1] == ' ' || p[len - 1] == 0)) --len;
    char name[129];
    int n = std::min(len - i, 128);
    std::memcpy(name, p + i, n);
    name[n] = 0;
    long num = zrlchr(name, n);
    if (num >= 0) {
        if (num > 65535) {
            xrmksub(1, "port number out of range", -1);
            return YXS_RC_FAIL;
        }
        *port = static_cast<int>(num);
        servent se;
        servent* res = nullptr;
        char work[1024];
        if (getservbyport_r(htons(static_cast<uint16_t>(num)), "tcp", &se, work, sizeof work, &res) == 0 && res)
            copytext(so->servname, res->s_name);
        return 0;
    }
    servent se;
    servent* res = nullptr;
    char work[1024];
    if (getservbyname_r(name, "tcp", &se, work, sizeof work, &res) != 0 || !res) {
        for (char* c = name; *c; ++c) *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
        if (getservbyname_r(name, "tcp", &se, work, sizeof work, &res) != 0) res = nullptr;
    }
    copytext(so->servname, name);
    if (!res) {
        // Our own services have fixed ports when the services database does
        // not list them; any other unknown name is an error, not port 0.
        if (std::strcmp(name, "vrtasrv1") == 0) {
            *port = YXS_PORT_VRTASRV1;
            return 0;
        }
        if (std::strcmp(name, "vrtaname") == 0) {
            *port = YXS_PORT_VRTANAME;
            return 0;
        }
        xrmksub(1, name, -1);
        xpmlog(MSGGRP, 124, name);
        return YXS_RC_FAIL;
    }
    *port = ntohs(static_cast<uint16_t>(res->s_port));
    return 0;
}

rctype yxscopn(YXSOCK_OPEN* so) {
    yxslocal(so);
    if (rctype rc = yxshost(so); rc) return rc;
    int port = 0;
    if (rctype rc = yxsserv(so, -1, &port); rc) return rc;
    so->portno = port;
    int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) return yxtzsub(errno);
    sock_option(s, 0, so->obufl, so->ibufl);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    std::memcpy(&sa.sin_addr, so->addr, 4);
    int r;
    while ((r = connect(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa)) < 0 && errno == EINTR) {
    }
    if (r < 0) {
        rctype rc = yxtzsub(errno);
        close(s);
        return rc;
    }
    // Requests and replies are small and answered at once: without this, a
    // short write behind another waits for the peer's delayed ACK (some
    // 40 ms on Linux). Failing only costs that wait.
    int one = 1;
    (void)setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    copytext(so->ip, yxsntoa(sa.sin_addr.s_addr));
    if (rctype rc = yxsbufs(so, s); rc) return yxsfail(so, s, rc);
    return 0;
}

rctype yxscuop(YXSOCK_OPEN* so, const char* path, int pathl) {
    yxslocal(so);
    sockaddr_un un;
    if (rctype rc = unaddr(&un, path, pathl); rc) return rc;
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    if (s < 0) return yxtzsub(errno);
    sock_option(s, 0, so->obufl, so->ibufl);
    int r;
    while ((r = connect(s, reinterpret_cast<sockaddr*>(&un), static_cast<socklen_t>(pathl + 2))) < 0 &&
           errno == EINTR) {
    }
    if (r < 0) {
        rctype rc = yxtzsub(errno);
        close(s);
        return rc;
    }
    return unopened(so, s, path, pathl);
}

namespace {

// Bind for the passive side: the host when one is given, else any address.
rctype yxsbind(YXSOCK_OPEN* so, int* sp) {
    int port = 0;
    if (so->service && *so->service) {
        if (rctype rc = yxsserv(so, -1, &port); rc) return rc;
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    if (so->host && so->hlen > 0) {
        if (rctype rc = yxshost(so); rc) return rc;
        std::memcpy(&sa.sin_addr, so->addr, 4);
    }
    int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) return yxtzsub(errno);
    int one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) {
        rctype rc = yxtzsub(errno);
        close(s);
        return rc;
    }
    so->sa = sa;
    *sp = s;
    return 0;
}

rctype yxsport(YXSOCK_OPEN* so, int s) {
    socklen_t l = sizeof so->sa;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&so->sa), &l) < 0) return yxtzsub(errno);
    so->portno = ntohs(so->sa.sin_port);
    return 0;
}

rctype yxslisten(YXSOCK_OPEN* so, int s, int backlog) {
    if (listen(s, backlog) < 0) return yxtzsub(errno);
    if (rctype rc = yxsport(so, s); rc) return rc;
    if (rctype rc = yxsbufs(so, s); rc) return rc;
    char num[16];
    std::snprintf(num, sizeof num, "%d", so->portno);
    xpmlog(MSGGRP, 7, num);
    so->flag = 1;
    return 0;
}

}  // namespace

rctype yxssopn(YXSOCK_OPEN* so) {
    int s = -1;
    if (rctype rc = yxsbind(so, &s); rc) return rc;
    if (rctype rc = yxslisten(so, s, 128); rc) return yxsfail(so, s, rc);
    return 0;
}

rctype yxscsoc(YXSOCK_OPEN* so) {
    int s = -1;
    if (rctype rc = yxsbind(so, &s); rc) return rc;
    so->s = s;
    return 0;
}

rctype yxslisn(YXSOCK_OPEN* so) {
    if (listen(so->s, 5) < 0) return yxtzsub(errno);
    if (so->portno == 0) {
        if (rctype rc = yxsport(so, so->s); rc) return rc;
    }
    return yxsbufs(so, so->s);
}

rctype yxssuop(YXSOCK_OPEN* so, const char* path, int pathl) {
    sockaddr_un un;
    if (rctype rc = unaddr(&un, path, pathl); rc) return rc;
    // Only a stale socket file is replaced, never a file of another kind.
    struct stat st;
    if (lstat(un.sun_path, &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) return yxtzsub(EEXIST);
        unlink(un.sun_path);
    }
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    if (s < 0) return yxtzsub(errno);
    if (bind(s, reinterpret_cast<sockaddr*>(&un), static_cast<socklen_t>(pathl + 2)) < 0 || listen(s, 128) < 0) {
        rctype rc = yxtzsub(errno);
        close(s);
        return rc;
    }
    if (rctype rc = unopened(so, s, path, pathl); rc) return rc;
    so->flag = 1;
    return 0;
}

rctype yxsacc(YXSOCK_OPEN* so) {
    if (rctype rc = yxtzsnb(so->s + 1, so->brk, so->gcb, &so->fds, so->waitms); rc) return rc;
    int c;
    if (rctype rc = acceptone(so, &c); rc) return rc;
    if (so->flag) {
        xpmlog(MSGGRP, 8, so->ipc);
        hostent he;
        hostent* res = nullptr;
        char work[2048];
        int herr = 0;
        if (so->csa.sin_family == AF_INET &&
            gethostbyaddr_r(&so->csa.sin_addr, sizeof so->csa.sin_addr, AF_INET, &he, work, sizeof work, &res,
                            &herr) == 0 &&
            res && res->h_name)
            copytext(so->clientname, res->h_name);
    }
    yxtzbit(&so->fds, so->s, 0);
    if (rctype rc = yxtzbit(&so->fds, c, 1); rc) {
        close(c);
        return rc;
    }
    so->cs = c;
    return 0;
}

rctype yxsadopt(YXSOCK_OPEN* so, int fd) {
    if (rctype rc = yxsbufs(so, fd); rc) {
        so->s = 0;
        yxsclos(so);
        return rc;
    }
    return 0;
}

rctype yxsread(YXSOCK_OPEN* so) {
    so->recl = 0;
    if (so->eof) return YXS_RC_EOF;
    bool cut = false;
    rctype rc;
    int t = so->type & -so->type;  // the lowest bit decides
    switch (t) {
        case YXS_TERM: rc = readterm(so, &cut); break;
        case YXS_FIXED: rc = readfixed(so, &cut); break;
        case YXS_COUNTED:
            if (so->nread >= 0 && so->recl >= so->nread) return 0;
            rc = readcount(so, &cut);
            break;
        case YXS_VAR: rc = readvar(so, &cut); break;
        case YXS_SEG: rc = readseg(so, &cut); break;
        default: xrmksub(1, "unknown record discipline", -1); return YXS_RC_FAIL;
    }
    if (rc) return rc;
    return cut ? YXS_RC_TRUNC : 0;
}

rctype yxswrit(YXSOCK_OPEN* so) {
    long n = so->recoutl;
    if ((so->type & YXS_TERM) && so->term && so->termlen > 0) {
        std::memcpy(static_cast<char*>(so->recouta) + n, so->term, so->termlen);
        n += so->termlen;
    }
    return mywrite(yxsfd(so), so->recouta, n, so->gcb);
}

rctype yxsclos(YXSOCK_OPEN* so) {
    // Descriptor 0 is never ours: zero means "not open".
    if (so->cs) close(so->cs);
    if (so->s) close(so->s);
    so->cs = so->s = 0;
    givebk(so->inbuf, so->ibufl);
    givebk(so->outbuf, so->obufl);
    givebk(so->reca, so->lrecl);
    givebk(so->recouta, so->lrecl + so->termlen);
    givebk(so->term, 4);
    givebk(so->fds.fdss, so->fds.fdslen);
    givebk(so->fds.fdsw, so->fds.fdslen);
    so->fds.fdslen = 0;
    return 0;
}

}  // namespace vrta

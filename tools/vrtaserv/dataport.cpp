// The data port of an open table and the stream of row blocks on it: each
// block a 4-byte length in this machine's order (negative when the bytes
// follow plain, positive when compressed by the network compression), then
// the bytes; a length of 0 ends the stream. The connection's thread streams
// while the engine reads; a request arriving on the main connection, a data
// port the engine closed, or a stalled reader ends the stream early.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "../srvcom/srvcom.h"
#include "eng/hpdmsg.h"
#include "eng/hpdo.h"
#include "eng/hpdutl.h"
#include "serv.h"
#include "vrta/directapi.h"

using namespace vrta;
using vrtasrv::srvlog;

namespace vrtaserv {

namespace {

// Where the data ports' UNIX paths live: one directory for the process.
std::string unixdir() {
    static std::mutex m;
    static std::string dir;
    std::lock_guard<std::mutex> g(m);
    if (dir.empty()) {
        const char* t = std::getenv("TMPDIR");
        std::string tmpl = std::string(t && *t ? t : "/tmp") + "/vrtaserv.XXXXXX";
        std::vector<char> b(tmpl.begin(), tmpl.end());
        b.push_back(0);
        if (mkdtemp(b.data())) dir = b.data();
    }
    return dir;
}

// Waits until fd is ready for ev; false when the main connection has a
// request first, the wait times out, or the server stops.
bool waitfd(const Session& s, int fd, short ev, int waitms) {
    for (int waited = 0; waited < waitms && !vrtasrv::stopping();) {
        if (s.so->left > 0) return false;
        pollfd p[2] = {{fd, ev, 0}, {yxsfd(s.so), POLLIN, 0}};
        int r = poll(p, 2, 1000);
        if (r < 0 && errno != EINTR) return false;
        if (r <= 0) {
            waited += 1000;
            continue;
        }
        if (p[1].revents) return false;
        if (p[0].revents) return true;
    }
    return false;
}

// Sends the whole of iov on the data port. 0 sent; 1 the stream is to stop
// (the engine went, stalled, or asked for something else).
int sendall(Session& s, Table& t, iovec* iov, int n) {
    int waitms = s.so->waitms > 0 ? s.so->waitms : 600000;
    while (n > 0) {
        msghdr m{};
        m.msg_iov = iov;
        m.msg_iovlen = static_cast<size_t>(n);
        ssize_t w = sendmsg(t.dfd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return 1;
            if (!waitfd(s, t.dfd, POLLOUT, waitms)) return 1;
            continue;
        }
        while (n > 0 && static_cast<size_t>(w) >= iov->iov_len) {
            w -= static_cast<ssize_t>(iov->iov_len);
            ++iov;
            --n;
        }
        if (n > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + w;
            iov->iov_len -= static_cast<size_t>(w);
        }
    }
    return 0;
}

// One byte from the engine on the data port (a synchronous read asks for
// each block): 0 goes on, anything else stops; -1 when none came.
int askbyte(Session& s, Table& t) {
    int waitms = s.so->waitms > 0 ? s.so->waitms : 600000;
    if (!waitfd(s, t.dfd, POLLIN, waitms)) return -1;
    char b;
    return read(t.dfd, &b, 1) == 1 ? b : -1;
}

// The rows wanted: the projected columns' places in the table's row.
struct Proj {
    std::vector<int> pos, len;
    int width = 0;
};

int sendblock(Session& s, Table& t, const char* rows, long bytes, std::vector<char>& cbuf) {
    int32_t len = -static_cast<int32_t>(bytes);
    const char* out = rows;
    if (t.compress && bytes > 0) {
        if (cbuf.size() < static_cast<size_t>(bytes)) cbuf.resize(bytes);
        int c = hpzcmp1(0, cbuf.data(), rows, static_cast<int>(bytes), static_cast<int>(bytes));
        if (c > 0 && c < bytes) {
            len = c;
            out = cbuf.data();
        }
    }
    iovec iov[2] = {{&len, 4}, {const_cast<char*>(out), static_cast<size_t>(len < 0 ? -len : len)}};
    return sendall(s, t, iov, bytes > 0 ? 2 : 1);
}

}  // namespace

int portopen(Session& s, Table& t, bool unixpath, int* port, std::string* why) {
    *port = 0;
    if (unixpath) {
        std::string dir = unixdir();
        if (dir.empty()) {
            *why = "no directory for the data port's socket";
            return -1;
        }
        t.upath = dir + "/c" + std::to_string(s.conn) + "t" + std::to_string(s.tables.size() + 1);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        if (t.upath.size() >= sizeof a.sun_path) {
            *why = "the data port's path is too long";
            t.upath.clear();
            return -1;
        }
        std::memcpy(a.sun_path, t.upath.c_str(), t.upath.size() + 1);
        unlink(t.upath.c_str());
        t.lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (t.lfd < 0 || bind(t.lfd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(t.lfd, 4) != 0) {
            *why = std::string("the data port cannot listen: ") + std::strerror(errno);
            portclose(t);
            return -1;
        }
        return 0;
    }
    // The address the engine reached us on; a UNIX-socket login gets loopback.
    sockaddr_in a{};
    socklen_t al = sizeof a;
    if (getsockname(yxsfd(s.so), reinterpret_cast<sockaddr*>(&a), &al) != 0 || a.sin_family != AF_INET) {
        a = sockaddr_in{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    a.sin_port = 0;
    t.lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    al = sizeof a;
    if (t.lfd < 0 || bind(t.lfd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(t.lfd, 4) != 0 ||
        getsockname(t.lfd, reinterpret_cast<sockaddr*>(&a), &al) != 0) {
        *why = std::string("the data port cannot listen: ") + std::strerror(errno);
        portclose(t);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return 0;
}

bool portaccept(Session& s, Table& t, int waitms) {
    if (t.lfd < 0) return false;
    pollfd p{t.lfd, POLLIN, 0};
    if (poll(&p, 1, waitms) <= 0) return false;
    int fd = accept4(t.lfd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return false;
    // A second connection replaces the first: the engine closes its port at
    // the end of a stream and opens it again for the next.
    if (t.dfd >= 0) close(t.dfd);
    t.dfd = fd;
    int big = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    // The last short block of a stream goes out at once, not after the
    // engine's delayed ACK. Failing (a UNIX socket) only costs that wait.
    int one = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char hello = 0;
    if (send(fd, &hello, 1, MSG_NOSIGNAL) != 1) {
        close(fd);
        t.dfd = -1;
        return false;
    }
    srvlog("connection %ld: data port of table %s connected", s.conn, t.name.c_str());
    return true;
}

void portclose(Table& t) {
    if (t.dfd >= 0) close(t.dfd);
    if (t.lfd >= 0) close(t.lfd);
    t.dfd = t.lfd = -1;
    if (!t.upath.empty()) unlink(t.upath.c_str());
    t.upath.clear();
}

bool waitrequest(Session& s, int waitms) {
    for (int waited = 0; s.so->left == 0;) {
        if (vrtasrv::stopping()) return false;
        std::vector<pollfd> p{{yxsfd(s.so), POLLIN, 0}};
        for (Table& t : s.tables)
            if (t.fid && t.lfd >= 0) p.push_back({t.lfd, POLLIN, 0});
        int r = poll(p.data(), p.size(), 1000);
        if (r < 0 && errno != EINTR) return false;
        if (r <= 0) {
            waited += 1000;
            if (waitms > 0 && waited >= waitms) {
                srvlog("connection %ld: nothing heard for %d s, connection dropped", s.conn, waitms / 1000);
                return false;
            }
            continue;
        }
        for (size_t k = 1; k < p.size(); ++k) {
            if (!p[k].revents) continue;
            for (Table& t : s.tables)
                if (t.lfd == p[k].fd) portaccept(s, t, 0);
        }
        if (p[0].revents) return true;
    }
    return true;
}

rctype tableget(Session& s, const unsigned char* body, long len) {
    DS_YOEGET_START q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YOEGET_START);
    auto refuse = [&](const std::string& why) {
        srvlog("connection %ld: read refused: %s", s.conn, why.c_str());
        DS_HDR_REPLY h{DSM_YOEGET_START, 0, {}, 0, HPD_RCLASS_FAIL};
        DS_YOEGET_START_REPLY_452 r{};
        r.msg = why.data();
        r.msglen = static_cast<int32_t>(why.size());
        r.tree = "";
        return hpdsendr(s.so, h, s.native, s.level, &DS_YOEGET_START_REPLY_452_D, &r);
    };
    Table* t = q.openid >= 1 && q.openid <= static_cast<int>(s.tables.size()) ? &s.tables[q.openid - 1] : nullptr;
    if (!t || !t->fid) return refuse("The table " + std::to_string(q.openid) + " is not open.");
    VRTAINFO in{};
    if (vrtainfo(t->fid, VRTAINFO_ALL, &in) != 0) return refuse("The table cannot be described.");
    int nvar = in.numvar;
    Proj pj;
    if (q.nvarlen % 4 != 0) return refuse("The list of columns is not in 4-byte numbers.");
    for (int i = 0; i < q.nvarlen / 4; ++i) {
        int v = hpdget4(reinterpret_cast<const unsigned char*>(q.nvar0) + 4 * i);
        VRTA_NAMESTR* np = nullptr;
        if (v < 1 || v > nvar || vrtagetnpp(t->fid, v, &np) != 0 || !np)
            return refuse("Column " + std::to_string(v) + " is not in the table.");
        pj.pos.push_back(np->n7.npos);
        pj.len.push_back(np->n7.nlng);
        pj.width += np->n7.nlng;
    }
    int waitms = s.so->waitms > 0 ? s.so->waitms : 600000;
    // The engine connects before it asks; a connection not yet taken is
    // taken now.
    if (t->dfd < 0 && !portaccept(s, *t, waitms)) return refuse("The engine did not connect to the data port.");
    DS_HDR_REPLY h{DSM_YOEGET_START, 0, {}, 0, 0};
    DS_YOEGET_START_REPLY_452 r{};
    r.msg = r.tree = "";
    if (rctype rc = hpdsendr(s.so, h, s.native, s.level, &DS_YOEGET_START_REPLY_452_D, &r); rc) return rc;

    bool sync = (q.flags & 1) != 0;
    int bf = std::max(t->blockfactor, 1);
    std::vector<char> buf(static_cast<size_t>(bf) * t->obslen), pbuf, cbuf;
    if (!pj.pos.empty()) pbuf.resize(static_cast<size_t>(bf) * pj.width);
    void* io = nullptr;
    int rc;
    {
        std::lock_guard<std::mutex> g(apilock);
        rc = spnewrd(t->fid, static_cast<long>(buf.size()), buf.data(), &io);
        if (rc >= 0 && q.firstobs > 1) rc = spsetloc(io, q.firstobs);
    }
    int64_t next = std::max<int64_t>(q.firstobs, 1), sent = 0, blocks = 0;
    const char* why = "all rows sent";
    bool ended = false;
    for (long k = 0; rc >= 0 && k < (1L << 40); ++k) {
        if (sync) {
            int b = askbyte(s, *t);
            if (b != 0) {
                why = b < 0 ? "the engine left the data port" : "the engine stopped the read";
                break;
            }
        }
        long n = 0;
        void* p = nullptr;
        int64_t* ov = nullptr;
        {
            std::lock_guard<std::mutex> g(apilock);
            rc = spreadv(io, &n, &p, &ov);
        }
        if (rc < 0) {
            why = "a read of the table failed";
            break;
        }
        // Rows past the last one asked for are not sent.
        long keep = n;
        if (q.epos > 0)
            for (long i = 0; i < n; ++i)
                if ((ov ? ov[i] : next + i) > q.epos) {
                    keep = i;
                    break;
                }
        next += n;
        const char* rows = static_cast<const char*>(p);
        long bytes = keep * t->obslen;
        if (!pj.pos.empty()) {
            char* o = pbuf.data();
            for (long i = 0; i < keep; ++i) {
                const char* row = rows + i * t->obslen;
                for (size_t c = 0; c < pj.pos.size(); ++c) {
                    std::memcpy(o, row + pj.pos[c], pj.len[c]);
                    o += pj.len[c];
                }
            }
            rows = pbuf.data();
            bytes = keep * pj.width;
        }
        if (sendblock(s, *t, rows, bytes, cbuf) != 0) {
            why = "the engine stopped reading";
            break;
        }
        if (keep == 0) {
            ended = true;
            break;
        }
        sent += keep;
        blocks += 1;
        if (keep < n) {
            // The last row asked for went: the end follows at once.
            if (sync && askbyte(s, *t) != 0) break;
            ended = sendblock(s, *t, nullptr, 0, cbuf) == 0;
            break;
        }
    }
    if (io) {
        std::lock_guard<std::mutex> g(apilock);
        spfreerd(io);
    }
    if (rc < 0) srvlog("connection %ld: read of %s failed: %s", s.conn, t->name.c_str(), apitext(rc).c_str());
    // A synchronous reader says one more byte after the end; any other
    // reader closes its port, and so does this side.
    if (ended && sync) askbyte(s, *t);
    if (!ended || !sync) {
        close(t->dfd);
        t->dfd = -1;
    }
    srvlog("connection %ld: %lld rows of %s in %lld blocks: %s", s.conn, static_cast<long long>(sent), t->name.c_str(),
           static_cast<long long>(blocks), ended ? "all rows sent" : why);
    return 0;
}

rctype tablereopen(Session& s, const unsigned char* body, long len) {
    DS_YOEROPN q{};
    if (dsparse(q, s.level, body, len) != 0) return badreq(s, DSM_YOEROPN);
    Table* t = q.openid >= 1 && q.openid <= static_cast<int>(s.tables.size()) ? &s.tables[q.openid - 1] : nullptr;
    if (!t || !t->fid) return msgreply(s, DSM_YOEROPN, HPD_RCLASS_FAIL, "The table " + std::to_string(q.openid) + " is not open.");
    // The table stays open as it is; a stream that was running has ended.
    if (t->dfd >= 0) close(t->dfd);
    t->dfd = -1;
    DS_HDR_REPLY h{DSM_YOEROPN, 0, {}, 0, 0};
    DS_YOEROPN_REPLY r{};
    r.msg = "";
    r.blockfactor = t->blockfactor;
    srvlog("connection %ld: reopen of table %d", s.conn, q.openid);
    return hpdsendr(s.so, h, s.native, s.level, &DS_YOEROPN_REPLY_D, &r);
}

}  // namespace vrtaserv

// The frame of our servers: listen, hand each client a thread, stop cleanly.
#include "srvcom.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/random.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "hs/hs.h"
#include "option/op.h"
#include "ssup/thr.h"
#include "ssup/vv.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrtasrv {

namespace {

const char* srvname = "server";
int stoppipe[2] = {-1, -1};
std::atomic<bool> stopflag{false};

void onstop(int) {
    stopflag.store(true);
    char c = 1;
    ssize_t w = write(stoppipe[1], &c, 1);
    (void)w;
}

// The runtime's own log lines (listening, connections, refusals) go to
// stderr too: stdout carries only the port.
void tostderr(void*, int, const char* b, int l) {
    std::string line(b, l);
    srvlog("%s", line.c_str());
}

struct Conn {
    int fd;
    long id;
    Handler h;
    void* ctx;
    int waitms;
    vrta::thread_t tid;
    std::atomic<bool> done{false};
};

std::mutex connlock;

void* connmain(void* arg) {
    auto* c = static_cast<Conn*>(arg);
    vrta::xpsetpm(tostderr, nullptr);
    vrta::YXSOCK_OPEN so{};
    so.mode = 3;
    so.type = vrta::YXS_COUNTED;
    so.lrecl = 4096;
    so.waitms = c->waitms;
    if (vrta::yxsadopt(&so, c->fd) != 0) {
        srvlog("connection %ld: no memory for its buffers", c->id);
        close(c->fd);
    } else {
        c->h(&so, c->id, c->ctx);
        std::lock_guard<std::mutex> g(connlock);
        vrta::yxsclos(&so);  // under the lock: the stopper may be shutting it down
        c->fd = -1;
    }
    srvlog("connection %ld closed", c->id);
    c->done.store(true);
    return nullptr;
}

bool num(const std::string& s, long lo, long hi, long* v) {
    char* e;
    errno = 0;
    long n = std::strtol(s.c_str(), &e, 10);
    if (s.empty() || *e || errno || n < lo || n > hi) return false;
    *v = n;
    return true;
}

}  // namespace

void srvlog(const char* fmt, ...) {
    char b[1200];
    int n = std::snprintf(b, sizeof b, "%s[%d] ", srvname, static_cast<int>(getpid()));
    va_list ap;
    va_start(ap, fmt);
    int m = std::vsnprintf(b + n, sizeof b - n - 1, fmt, ap);
    va_end(ap);
    if (m < 0) m = 0;
    n = std::min<int>(n + m, sizeof b - 2);
    while (n > 0 && b[n - 1] == '\n') --n;
    b[n++] = '\n';
    // One write per line, so the lines of threads do not mix.
    ssize_t w = write(2, b, n);
    (void)w;
}

bool stopping() { return stopflag.load(); }

int32_t newmagic() {
    uint32_t v = 0;
    if (getrandom(&v, sizeof v, 0) != sizeof v) v = static_cast<uint32_t>(getpid()) * 2654435761u;
    return static_cast<int32_t>(v & 0x7fffffff);
}

bool parseListen(const std::vector<std::string>& a, size_t& i, Listen& l, bool& used) {
    used = true;
    auto val = [&](const char* opt) -> const std::string* {
        if (i + 1 >= a.size()) {
            std::fprintf(stderr, "%s: %s needs a value\n", srvname, opt);
            return nullptr;
        }
        return &a[++i];
    };
    long n;
    if (a[i] == "--port") {
        const std::string* v = val("--port");
        if (!v) return false;
        if (!num(*v, 0, 65535, &n)) {
            std::fprintf(stderr, "%s: --port wants a number from 0 to 65535, not '%s'\n", srvname, v->c_str());
            return false;
        }
        l.port = static_cast<int>(n);
    } else if (a[i] == "--listen") {
        const std::string* v = val("--listen");
        if (!v) return false;
        l.addr = *v;
    } else if (a[i] == "--unix") {
        const std::string* v = val("--unix");
        if (!v) return false;
        l.unixpath = *v;
    } else if (a[i] == "--timeout") {
        const std::string* v = val("--timeout");
        if (!v) return false;
        if (!num(*v, 1, 86400, &n)) {
            std::fprintf(stderr, "%s: --timeout wants seconds from 1 to 86400, not '%s'\n", srvname, v->c_str());
            return false;
        }
        l.waitms = static_cast<int>(n * 1000);
    } else {
        used = false;
    }
    return true;
}

void srvinit(const char* name) {
    srvname = name;
    // The servers are run from the build tree: without MSGPATH they would
    // log "message not found" in place of their own texts.
    if (!std::getenv("MSGPATH") && access(VRTA_SRC_MSGDIR "/vrtamsg.m", R_OK) == 0)
        setenv("MSGPATH", VRTA_SRC_MSGDIR, 1);
}

int serve(const Listen& l, Handler h, void* ctx) {
    const char* name = srvname;
    if (std::memcmp(vrta::vvgcbp()->eye, "VGCB", 4) != 0 && vrta::vvinit() != 0) {
        std::fprintf(stderr, "%s: the runtime could not be started\n", name);
        return 1;
    }
    if (vrta::hsgblinit() != 0 || !vrta::xkinit() || (!vrta::opgtgbl() && !vrta::opinitgbl())) {
        std::fprintf(stderr, "%s: the runtime could not be started\n", name);
        return 1;
    }
    vrta::xpsetpm(tostderr, nullptr);
    if (pipe2(stoppipe, O_CLOEXEC) != 0) {
        std::perror("pipe");
        return 1;
    }
    struct sigaction sa{};
    sa.sa_handler = onstop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    vrta::YXSOCK_OPEN tcp{};
    std::string host = l.addr;
    std::string port = std::to_string(l.port);
    tcp.host = host.data();
    tcp.hlen = static_cast<int>(host.size());
    tcp.service = port.data();
    tcp.mode = 3;
    tcp.type = vrta::YXS_COUNTED;
    if (vrta::yxssopn(&tcp) != 0) {
        const char* t;
        int tl;
        vrta::rcignore(vrta::xrgtsub(&t, &tl));  // no text left: an empty one
        std::fprintf(stderr, "%s: cannot listen on %s port %d: %.*s\n", name, host.c_str(), l.port, tl, t);
        return 1;
    }
    vrta::YXSOCK_OPEN un{};
    un.mode = 3;
    un.type = vrta::YXS_COUNTED;
    if (!l.unixpath.empty() &&
        vrta::yxssuop(&un, l.unixpath.c_str(), static_cast<int>(l.unixpath.size())) != 0) {
        const char* t;
        int tl;
        vrta::rcignore(vrta::xrgtsub(&t, &tl));  // no text left: an empty one
        std::fprintf(stderr, "%s: cannot listen on %s: %.*s\n", name, l.unixpath.c_str(), tl, t);
        vrta::yxsclos(&tcp);
        return 1;
    }
    std::printf("%d\n", tcp.portno);
    std::fflush(stdout);
    srvlog("listening on %s port %d%s%s", host.c_str(), tcp.portno, l.unixpath.empty() ? "" : " and ",
           l.unixpath.c_str());

    std::vector<Conn*> conns;
    long next = 1;
    while (!stopflag.load()) {
        pollfd p[3] = {{stoppipe[0], POLLIN, 0}, {tcp.s, POLLIN, 0}, {un.s ? un.s : -1, POLLIN, 0}};
        int r = poll(p, 3, 1000);
        // Finished connections give back their threads as they go.
        for (size_t k = 0; k < conns.size();) {
            if (conns[k]->done.load()) {
                vrta::thr_join(conns[k]->tid, nullptr);
                delete conns[k];
                conns[k] = conns.back();
                conns.pop_back();
            } else {
                ++k;
            }
        }
        if (r < 0 && errno != EINTR) {
            srvlog("poll failed: %s", std::strerror(errno));
            break;
        }
        if (r <= 0 || (p[0].revents & POLLIN)) continue;
        for (int k = 1; k < 3; ++k) {
            if (!(p[k].revents & POLLIN)) continue;
            int fd = accept4(p[k].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            long id = next++;
            if (static_cast<int>(conns.size()) >= l.maxconn) {
                srvlog("connection %ld refused: %d connections already", id, l.maxconn);
                close(fd);
                continue;
            }
            srvlog("connection %ld accepted on %s", id, k == 1 ? "TCP" : "the UNIX socket");
            // A reply's records go out as they are made: without this, the
            // second of two short writes waits for the engine's delayed ACK.
            int one = 1;
            if (k == 1 && setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0)
                srvlog("connection %ld: TCP_NODELAY not set (%s); replies may lag", id, std::strerror(errno));
            auto* c = new Conn{fd, id, h, ctx, l.waitms, {}, {}};
            if (vrta::vvcthrl(nullptr, 0, connmain, c, 0, &c->tid, vrta::VV_LCB_XM | vrta::VV_LCB_XP) != 0) {
                srvlog("connection %ld: no thread for it", id);
                close(fd);
                delete c;
                continue;
            }
            conns.push_back(c);
        }
    }
    srvlog("stopping: %zu connections open", conns.size());
    // Wake every handler out of its read; each finishes the request in hand
    // (nothing is left half-written) and sees the end of input.
    {
        std::lock_guard<std::mutex> g(connlock);
        for (Conn* c : conns)
            if (c->fd >= 0 && !c->done.load()) shutdown(c->fd, SHUT_RD);
    }
    for (Conn* c : conns) {
        vrta::thr_join(c->tid, nullptr);
        delete c;
    }
    vrta::yxsclos(&tcp);
    if (un.s) {
        vrta::yxsclos(&un);
        unlink(l.unixpath.c_str());
    }
    srvlog("stopped");
    return 0;
}

}  // namespace vrtasrv

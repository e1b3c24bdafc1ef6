// Rows of a table read the way a host reads them, through the engine's
// entries and the fast vector: over the wire (TCP or a UNIX socket, plain or
// compressed) or on the direct path; and the baseline of the same bytes
// copied over a plain loopback socket. Each read touches every row, so that
// a road that hands out rows without reading them gains nothing.
//
//   bench_rowwire make DIR NROWS                     the table DIR/ROWS of 100-byte rows
//   bench_rowwire engine NSPORT DOMAIN ROAD          ROAD: direct, tcp, unix, tcpz, unixz
//   bench_rowwire sockcopy tcp|unix FILE...          the files' bytes through one socket
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "eng/hpdc.h"
#include "eng/hpdl.h"
#include "eng/hpdo.h"
#include "vrta/directapi.h"

using namespace vrta;

namespace {

constexpr int ROWLEN = 100;

double secs(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A number and a text that repeats itself in part, as real tables do.
void fillrow(long long n, char* out) {
    double d = static_cast<double>(n);
    std::memcpy(out, &d, 8);
    std::memset(out + 8, ' ', ROWLEN - 8);
    int l = std::snprintf(out + 8, ROWLEN - 8, "customer %lld region %lld", n % 100000, n % 17);
    out[8 + l] = ' ';
}

int make(const char* dir, long long nrows) {
    void* lib = nullptr;
    if (splasgn(dir, &lib) < 0) return std::fprintf(stderr, "cannot assign %s\n", dir), 1;
    const VRTACOLDEF cols[] = {{"N", -1, nullptr, 0, 1, 8}, {"TEXT", -1, nullptr, 0, 2, ROWLEN - 8}};
    VRTACREATE cr{};
    cr.ncols = 2;
    cr.cols = cols;
    void* fid = nullptr;
    if (vrtacreate(lib, "rows", -1, &cr, &fid) < 0) return std::fprintf(stderr, "cannot create\n"), 1;
    constexpr long CHUNK = 10000;
    std::vector<char> buf(CHUNK * ROWLEN);
    void* io = nullptr;
    if (spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io) < 0) return 1;
    for (long long done = 0; done < nrows;) {
        long n = static_cast<long>(std::min<long long>(CHUNK, nrows - done));
        for (long i = 0; i < n; ++i) fillrow(done + i + 1, buf.data() + i * ROWLEN);
        if (spwritev(io, n) < 0) return std::fprintf(stderr, "write failed\n"), 1;
        done += n;
    }
    if (spfreeio(io) < 0 || vrtaclose(fid) < 0 || spldeasgn(lib) < 0) return std::fprintf(stderr, "close failed\n"), 1;
    return 0;
}

// The host's loop: assign by name, open, every row through the fast vector.
int engine(const char* nsport, const char* domain, const std::string& road) {
    void* argv[10] = {};
    int rc = 0;
    argv[VRTAENG_RC] = &rc;
    if (vrtaeng(5, argv) != 0) return std::fprintf(stderr, "the engine did not start\n"), 1;
    auto* hpd = static_cast<HPDECB*>(argv[VRTAENG_ID]);
    HPDOPT o{};
    std::memcpy(o.servname, "127.0.0.1", 9);
    o.servlen = 9;
    o.applen = std::snprintf(o.appname, sizeof o.appname, "%s", nsport);
    std::snprintf(o.user, sizeof o.user, "%s", std::getenv("VRTA_USER") ? std::getenv("VRTA_USER") : "bench");
    std::snprintf(o.pass, sizeof o.pass, "%s", std::getenv("VRTA_PASSWORD") ? std::getenv("VRTA_PASSWORD") : "");
    o.backup = 1;
    if (road != "direct") o.debug |= HPD_FASTOPTNO;
    if (road == "tcp" || road == "unix") o.debug |= HPD_NETCOMPNO;
    if (road.rfind("unix", 0) == 0) o.debug |= HPD_UNIXDOMAIN;
    yhlibref ref{};
    std::memset(ref.libref, ' ', 8);
    std::string name = domain;
    void* pn = name.data();
    int sz = static_cast<int>(name.size()), fmt = 0, flags = 0;
    void* tok = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    if ((rc = hpdlasg(hpd, &ref, nullptr, &pn, &sz, &o, &fmt, nullptr, &tok, &flags)) != 0)
        return std::fprintf(stderr, "assign failed: 0x%08x\n", static_cast<unsigned>(rc)), 1;
    XOFPENT fast{};
    XOPNSTR q{};
    q.peng_lib = ref.englib;
    std::memset(q.memname, ' ', 32);
    std::memcpy(q.memname, "rows", 4);
    std::memset(q.memtype, ' ', 8);
    q.openmode = XO_INPUT;
    q.fast_path = &fast;
    void* fid = nullptr;
    if ((rc = hpoopen(hpd, &fid, &q)) != 0) return std::fprintf(stderr, "open failed: 0x%08x\n", static_cast<unsigned>(rc)), 1;
    int direct = 0;
    if (hpoinfo(fid, HPOINFO_DIRECT, &direct) != 0) return std::fprintf(stderr, "hpoinfo failed\n"), 1;
    if ((road == "direct") != (direct != 0)) return std::fprintf(stderr, "the road is not the one asked for\n"), 1;
    long long rows = 0;
    unsigned sum = 0;
    auto t1 = std::chrono::steady_clock::now();
    for (;;) {
        void* row;
        rc = fast.getn(fast.fpfid, &row);
        if (rc != 0) break;
        sum += static_cast<unsigned char*>(row)[ROWLEN - 1];
        ++rows;
    }
    if (rc != VRTA_RC_ENDROWS) return std::fprintf(stderr, "read failed: 0x%08x\n", static_cast<unsigned>(rc)), 1;
    double s = secs(t0), r = secs(t1);
    if ((rc = hpoclos(fid, 0)) != 0) return std::fprintf(stderr, "close failed: 0x%08x\n", static_cast<unsigned>(rc)), 1;
    if ((rc = hpdldas(hpd, &ref)) != 0)
        return std::fprintf(stderr, "deassign failed: 0x%08x\n", static_cast<unsigned>(rc)), 1;
    if (hpdterm(hpd) != 0) return std::fprintf(stderr, "the engine did not end cleanly\n"), 1;
    std::printf("%s rows=%lld seconds=%.4f readseconds=%.4f check=%u\n", road.c_str(), rows, s, r, sum);
    return 0;
}

// The baseline: the files' bytes through one loopback socket, read in
// blocks of 64 KB, every row touched.
int sockcopy(const std::string& kind, int nfiles, char** files) {
    int l;
    sockaddr_storage a{};
    socklen_t al;
    std::string path;
    if (kind == "unix") {
        path = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/bench_rowwire." +
               std::to_string(getpid());
        auto* u = reinterpret_cast<sockaddr_un*>(&a);
        u->sun_family = AF_UNIX;
        std::snprintf(u->sun_path, sizeof u->sun_path, "%s", path.c_str());
        al = sizeof *u;
        l = socket(AF_UNIX, SOCK_STREAM, 0);
    } else {
        auto* in = reinterpret_cast<sockaddr_in*>(&a);
        in->sin_family = AF_INET;
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        al = sizeof *in;
        l = socket(AF_INET, SOCK_STREAM, 0);
    }
    if (l < 0 || bind(l, reinterpret_cast<sockaddr*>(&a), al) != 0 || listen(l, 1) != 0 ||
        getsockname(l, reinterpret_cast<sockaddr*>(&a), &al) != 0)
        return std::fprintf(stderr, "cannot listen\n"), 1;
    auto t0 = std::chrono::steady_clock::now();
    pid_t child = fork();
    if (child == 0) {
        int s = socket(a.ss_family, SOCK_STREAM, 0);
        if (connect(s, reinterpret_cast<sockaddr*>(&a), al) != 0) _exit(1);
        std::vector<char> b(65536);
        for (int f = 0; f < nfiles; ++f) {
            int fd = open(files[f], O_RDONLY);
            if (fd < 0) _exit(1);
            for (;;) {
                ssize_t n = read(fd, b.data(), b.size());
                if (n <= 0) break;
                for (ssize_t w = 0; w < n;) {
                    ssize_t k = write(s, b.data() + w, static_cast<size_t>(n - w));
                    if (k <= 0) _exit(1);
                    w += k;
                }
            }
            close(fd);
        }
        _exit(0);
    }
    int c = accept(l, nullptr, nullptr);
    if (c < 0) return std::fprintf(stderr, "accept failed\n"), 1;
    std::vector<char> b(65536 + ROWLEN);
    long long bytes = 0;
    unsigned sum = 0;
    size_t have = 0;
    for (;;) {
        ssize_t n = read(c, b.data() + have, 65536);
        if (n <= 0) break;
        bytes += n;
        have += static_cast<size_t>(n);
        size_t rows = have / ROWLEN;
        for (size_t i = 0; i < rows; ++i) sum += static_cast<unsigned char>(b[i * ROWLEN + ROWLEN - 1]);
        std::memmove(b.data(), b.data() + rows * ROWLEN, have - rows * ROWLEN);
        have -= rows * ROWLEN;
    }
    close(c);
    close(l);
    int st = 0;
    if (waitpid(child, &st, 0) != child) st = 1;
    double s = secs(t0);
    if (!path.empty()) unlink(path.c_str());
    std::printf("sockcopy-%s rows=%lld seconds=%.3f check=%u\n", kind.c_str(), bytes / ROWLEN, s, sum);
    return st == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string cmd = argc > 1 ? argv[1] : "";
    if (cmd == "make" && argc == 4) return make(argv[2], std::atoll(argv[3]));
    if (cmd == "engine" && argc == 5) return engine(argv[2], argv[3], argv[4]);
    if (cmd == "sockcopy" && argc >= 4) return sockcopy(argv[2], argc - 3, argv + 3);
    std::fprintf(stderr,
                 "usage: bench_rowwire make DIR NROWS | engine NSPORT DOMAIN ROAD | sockcopy tcp|unix FILE...\n");
    return 2;
}

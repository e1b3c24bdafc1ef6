// Round trips of a small request on one loopback TCP connection through the
// wire layer (framed request, framed reply read, classified and parsed)
// against a plain TCP echo of the same number of bytes, in one run. Both
// servers are threads of this process on 127.0.0.1 with the system's socket
// defaults.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "hs/hs.h"
#include "option/op.h"
#include "ssup/vv.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

void runtime() {
    if (std::memcmp(vvgcbp()->eye, "VGCB", 4) != 0) vvinit();
    if (hsgblinit() != 0) {
        std::fputs("bench_wire: the runtime does not start\n", stderr);
        std::exit(1);
    }
    xkinit();
    if (!opgtgbl()) opinitgbl();
}

// A listener on 127.0.0.1, port chosen by the system.
int listener(int* port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(s, 1);
    socklen_t l = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &l);
    *port = ntohs(a.sin_port);
    return s;
}

int dial(int port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    return s;
}

bool readn(int fd, char* b, size_t n) {
    while (n) {
        ssize_t k = read(fd, b, n);
        if (k <= 0) return false;
        b += k;
        n -= k;
    }
    return true;
}

// The sizes of the framed exchange: a deassign (12 + 4 bytes) and its empty
// text reply (20 + 4 bytes).
constexpr size_t kReq = 16, kRep = 24;

void BM_PlainEcho(benchmark::State& state) {
    int port;
    int ls = listener(&port);
    std::thread srv([&] {
        int c = accept(ls, nullptr, nullptr);
        char b[64];
        while (readn(c, b, kReq)) {
            if (write(c, b, kRep) != static_cast<ssize_t>(kRep)) break;
        }
        close(c);
    });
    int s = dial(port);
    char b[64] = {};
    for (auto _ : state) {
        if (write(s, b, kReq) != static_cast<ssize_t>(kReq) || !readn(s, b, kRep)) {
            state.SkipWithError("echo failed");
            break;
        }
    }
    close(s);
    srv.join();
    close(ls);
    state.SetItemsProcessed(state.iterations());
}

void BM_WireRoundTrip(benchmark::State& state) {
    runtime();
    int port;
    int ls = listener(&port);
    std::thread srv([&] {
        YXSOCK_OPEN so{};
        so.mode = 3;
        so.type = YXS_COUNTED;
        so.lrecl = HPD_MINRECL;
        if (yxsadopt(&so, accept(ls, nullptr, nullptr)) != 0) return;
        DS_HDR_METHOD h;
        while (hpdrecvm(&so, 1, &h) == 0) {
            DS_LIBID q{};
            dsparse(q, HPD_LEVEL_450, static_cast<const unsigned char*>(so.reca), so.recl);
            DS_HDR_REPLY r{h.id, 0, {}, 0, 0};
            DS_MSG_REPLY m{};
            m.msg = "";
            if (hpdsendr(&so, r, 1, HPD_LEVEL_450, &DS_MSG_REPLY_D, &m) != 0) break;
        }
        yxsclos(&so);
    });
    char host[] = "127.0.0.1";
    std::string serv = std::to_string(port);
    YXSOCK_OPEN so{};
    so.host = host;
    so.hlen = 9;
    so.service = serv.data();
    so.mode = 3;
    so.type = YXS_COUNTED;
    so.lrecl = so.blocksize = HPD_MINRECL;
    if (yxscopn(&so) != 0) {
        state.SkipWithError("connect failed");
        srv.join();
        return;
    }
    for (auto _ : state) {
        DS_LIBID q{1};
        DS_HDR_REPLY h;
        DS_MSG_REPLY r{};
        const auto* body = static_cast<const unsigned char*>(so.reca);
        if (hpdsend(&so, DSM_YHELDAS, 1, HPD_LEVEL_450, &DS_LIBID_D, &q) != 0 || hpdrecv(&so, 1, &h) != 0 ||
            hpdclass(h, body, so.recl, HPD_LEVEL_450, nullptr) != 0 ||
            dsparse(r, HPD_LEVEL_450, static_cast<const unsigned char*>(so.reca), so.recl) != 0) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
    yxsclos(&so);
    srv.join();
    close(ls);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_PlainEcho)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_WireRoundTrip)->UseRealTime()->MinTime(2.0);
BENCHMARK_MAIN();

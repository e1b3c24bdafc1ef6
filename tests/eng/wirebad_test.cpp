// Bad input to our servers: truncated and lying headers, garbled bodies,
// clients that vanish or say nothing, random bytes. Each costs only its own
// connection, with a log line; the server goes on serving.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <random>
#include <string>

#include "eng/hpdc.h"
#include "eng/hpdutl.h"
#include "hs/zcrypt.h"
#include "srvutil.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::Server;

namespace {

int dial(int port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(s);
        return -1;
    }
    return s;
}

std::string be4(int32_t v) {
    uint32_t u = htonl(static_cast<uint32_t>(v));
    return std::string(reinterpret_cast<const char*>(&u), 4);
}

// Reads until the server closes, within a bound; what it sent.
std::string drain(int s, int ms = 20000) {
    std::string got;
    for (;;) {
        pollfd p{s, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0) return got + "<no close>";
        char b[4096];
        ssize_t n = read(s, b, sizeof b);
        if (n <= 0) return got;
        got.append(b, n);
    }
}

// The magic word every login starts with.
int32_t magic(int s) {
    unsigned char b[4];
    size_t got = 0;
    while (got < 4) {
        ssize_t n = read(s, b + got, 4 - got);
        if (n <= 0) return -1;
        got += n;
    }
    return hpdget4(b);
}

class ServerInput : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp());
        pw = dir.file("pw");
        ASSERT_TRUE(wiretest::addUser(pw, "alice", "secret1"));
    }
    static HPDOPT alice(int port) { return wiretest::loopOpt(std::to_string(port), "alice", "secret1"); }
    // A real login still works: the server is unharmed.
    void loginWorks(int port) {
        HPDECB hpd{};
        HPDOPT o = alice(port);
        HPDSERV* s = nullptr;
        ASSERT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
        hpdsfree(s);
    }
    vrtatest::TempDir dir;
    std::string pw;
};

}  // namespace

TEST_F(ServerInput, EachBadLoginCostsOnlyItsConnection) {
    Server sv("vrtaserv", {"--port", "0", "--passwords", pw, "--timeout", "1"}, dir.file("serv.log"));
    ASSERT_GT(sv.port(), 0) << sv.log();
    struct Case {
        const char* what;
        std::string (*bytes)(int32_t magic);
    } cases[] = {
        {"truncated header", [](int32_t) { return std::string("\0\0\0\x18\0\0", 6); }},
        {"length below the header", [](int32_t) { return be4(24) + be4(5) + "METH"; }},
        {"absurd length", [](int32_t) { return be4(24) + be4(0x7ffffff0) + "METH"; }},
        {"garbled cipher", [](int32_t) { return be4(24) + be4(12 + 9) + "METH" + std::string(16, '\xee'); }},
        {"closes mid-body", [](int32_t) { return be4(24) + be4(12 + 300) + "METH" + std::string(40, 'a'); }},
        {"says nothing", [](int32_t) { return std::string(); }},
        {"another method first", [](int32_t m) {
             std::string body = be4(m);
             std::string enc(zcryptlen(4), '\0');
             EXPECT_EQ(0, zncrypt(body.data(), 4, enc.data()));
             return be4(49) + be4(16) + "METH" + enc;
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int s = dial(sv.port());
        ASSERT_GE(s, 0);
        int32_t m = magic(s);
        ASSERT_GE(m, 0);
        std::string b = c.bytes(m);
        ASSERT_EQ(write(s, b.data(), b.size()), static_cast<ssize_t>(b.size()));
        if (std::string(c.what) == "closes mid-body") shutdown(s, SHUT_WR);
        // The server ends the conversation by itself, silent clients within --timeout.
        std::string back = drain(s);
        EXPECT_EQ(back.find("<no close>"), std::string::npos);
        close(s);
        ASSERT_NO_FATAL_FAILURE(loginWorks(sv.port()));
    }
    EXPECT_EQ(sv.stop(), 0);
    std::string log = sv.log();
    EXPECT_NE(log.find("message length 5 out of range"), std::string::npos) << log;
    EXPECT_NE(log.find("does not decode"), std::string::npos) << log;
    EXPECT_NE(log.find("no input within the time allowed"), std::string::npos) << log;
    EXPECT_NE(log.find("not a well-formed login"), std::string::npos) << log;
}

TEST_F(ServerInput, BadRequestsAfterTheLoginAreRefusedOrEndTheConnection) {
    Server sv("vrtaserv", {"--port", "0", "--passwords", pw, "--timeout", "5"}, dir.file("serv.log"));
    ASSERT_GT(sv.port(), 0);
    HPDECB hpd{};
    HPDOPT o = alice(sv.port());
    HPDSERV* s = nullptr;
    ASSERT_EQ(hpdcsrv(&hpd, &o, &s), 0) << wiretest::subst();
    YXSOCK_OPEN* so = s->sopen;
    // A method the server does not serve, and a body that does not fit its
    // method: refused, and the connection goes on.
    ASSERT_EQ(hpdsend(so, 99, 1, s->level, nullptr, nullptr), 0);
    DS_HDR_REPLY h;
    ASSERT_EQ(hpdrecv(so, 1, &h), 0);
    EXPECT_EQ(hpdclass(h, static_cast<unsigned char*>(so->reca), so->recl, s->level, nullptr), HPD_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("not served"), std::string::npos);
    ASSERT_EQ(hpdsend(so, 1, 1, s->level, nullptr, nullptr), 0);  // deassign with no body
    ASSERT_EQ(hpdrecv(so, 1, &h), 0);
    EXPECT_EQ(hpdclass(h, static_cast<unsigned char*>(so->reca), so->recl, s->level, nullptr), HPD_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("does not fit"), std::string::npos) << wiretest::subst();
    // A header whose length lies: the server drops the connection.
    std::string lie = std::string("\x01\0\0\0", 4) + std::string("\x08\0\0\0", 4) + "METH";
    ASSERT_EQ(write(so->s, lie.data(), lie.size()), 12);
    EXPECT_EQ(hpdrecv(so, 1, &h), HPD_RC_FAIL);
    EXPECT_EQ(so->eof, 1);
    hpdsfree(s);
    ASSERT_NO_FATAL_FAILURE(loginWorks(sv.port()));
    EXPECT_EQ(sv.stop(), 0);
    EXPECT_NE(sv.log().find("bad request, connection dropped"), std::string::npos) << sv.log();
}

TEST_F(ServerInput, RandomBytesNeverBringTheServersDown) {
    std::string map = dir.file("map");
    vrtatest::writeFile(map, "A /a 127.0.0.1 1\n");
    Server sv("vrtaserv", {"--port", "0", "--passwords", pw, "--timeout", "1"}, dir.file("serv.log"));
    Server ns("vrtaname", {"--port", "0", "--map", map, "--timeout", "1"}, dir.file("name.log"));
    ASSERT_GT(sv.port(), 0);
    ASSERT_GT(ns.port(), 0);
    std::mt19937 rng(777);
    int rounds = std::getenv("VRTA_LONG") ? 2000 : 40;
    for (int i = 0; i < rounds; ++i) {
        int s = dial((i & 1) ? ns.port() : sv.port());
        ASSERT_GE(s, 0);
        int32_t m = magic(s);
        // A plausible header half of the time, so the body readers are reached.
        std::string junk;
        if (rng() & 1) junk = be4((i & 2) ? 91 : 24) + be4(12 + rng() % 64) + "METH";
        int n = static_cast<int>(rng() % 96);
        for (int k = 0; k < n; ++k) junk.push_back(static_cast<char>(rng()));
        if (rng() % 4 == 0 && junk.size() >= 16) std::memcpy(junk.data() + 12, be4(m).data(), 4);
        ssize_t w = write(s, junk.data(), junk.size());
        (void)w;
        shutdown(s, SHUT_WR);
        EXPECT_EQ(drain(s).find("<no close>"), std::string::npos);
        close(s);
    }
    ASSERT_NO_FATAL_FAILURE(loginWorks(sv.port()));
    EXPECT_EQ(sv.stop(), 0) << sv.log();
    EXPECT_EQ(ns.stop(), 0) << ns.log();
}

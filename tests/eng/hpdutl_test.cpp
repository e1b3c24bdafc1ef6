// Framing: header bytes by the server's tag, replies classified, bad frames
// refused with the connection marked dead, and a seeded fuzz of the frame
// readers.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "eng/hpdc.h"
#include "eng/hpdmsg.h"
#include "eng/hpdutl.h"
#include "hs/zcrypt.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::LogCatch;
using wiretest::Pair;

namespace {

class Frame : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp()); }
};

std::string be4(int32_t v) {
    uint32_t u = htonl(static_cast<uint32_t>(v));
    return std::string(reinterpret_cast<const char*>(&u), 4);
}
std::string le4(int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

std::string replyhdr(int id, int len, int rcode, int rclass, bool native) {
    auto f = native ? le4 : be4;
    return f(id) + f(len) + "RPLY" + f(rcode) + f(rclass);
}

std::string readall(int fd, size_t n) {
    std::string s(n, '\0');
    size_t got = 0;
    while (got < n) {
        ssize_t k = read(fd, s.data() + got, n - got);
        if (k <= 0) break;
        got += k;
    }
    s.resize(got);
    return s;
}

}  // namespace

TEST_F(Frame, HeadersFollowTheTagAndBodiesAreAlwaysBigEndian) {
    EXPECT_EQ(hpdostag("LNX     ")->native, 1);
    EXPECT_EQ(hpdostag("LNX     ")->swap, 1);
    EXPECT_EQ(hpdostag("SOL-x64 ")->trans, 0);
    EXPECT_EQ(hpdostag("NT      ")->fmt, 128);
    const char unpadded[8] = {'L', 'N', 'X'};  // the tag is 8 wide, blank-padded
    EXPECT_EQ(hpdostag(unpadded)->native, 0);
    EXPECT_EQ(hpdostag("HP-UX   ")->native, 0);
    EXPECT_EQ(hpdostag("HP-UX   ")->fmt, 80);

    for (int native : {1, 0}) {
        SCOPED_TRACE(native);
        Pair p(YXS_COUNTED, 0, 16);
        DS_LIBID m{0x01020304};
        ASSERT_EQ(hpdsend(&p.so, DSM_YHELDAS, native, HPD_LEVEL_450, &DS_LIBID_D, &m), 0);
        std::string got = readall(p.peer, 16);
        std::string want = (native ? le4(1) + le4(16) : be4(1) + be4(16)) + "METH" + be4(0x01020304);
        EXPECT_EQ(got, want);
    }
}

TEST_F(Frame, RepliesAreClassifiedInTheirOrder) {
    auto h = [](int rcode, int rclass) { return DS_HDR_REPLY{0, 0, {}, rcode, rclass}; };
    const std::string text = be4(5) + "nope!";
    const auto* b = reinterpret_cast<const unsigned char*>(text.data());
    long bl = static_cast<long>(text.size());
    HPD_RCTX open{"SALES", 5, "LNX     "};

    EXPECT_EQ(hpdclass(h(0, 0), nullptr, 0, 13, nullptr), 0);
    EXPECT_EQ(hpdclass(h(2104, 2), b, bl, 13, nullptr), HPD_RC_NOTFOUND);
    EXPECT_EQ(hpdclass(h(773, 2), b, bl, 3, nullptr), HPD_RC_NOTFOUND);
    EXPECT_EQ(hpdclass(h(773, 2), b, bl, 2, nullptr), HPD_RC_FAIL);  // not below level 3
    EXPECT_EQ(wiretest::subst(), "nope!");
    EXPECT_EQ(hpdclass(h(2549, 2), b, bl, 13, nullptr), HPD_RC_2549);
    EXPECT_EQ(hpdclass(h(17, 3), b, bl, 13, nullptr), HPD_RC_FAIL);
    EXPECT_EQ(hpdclass(h(17, 1), b, bl, 13, nullptr), 0);  // a note succeeds

    // The member-in-use forms only for a table open, whatever the class.
    EXPECT_EQ(hpdclass(h(2550, 0), b, bl, 13, &open), HPD_RC_INUSE);
    EXPECT_EQ(wiretest::subst(), "MEMBER  ");
    EXPECT_EQ(hpdclass(h(2550, 0), b, bl, 13, nullptr), 0);
    EXPECT_EQ(hpdclass(h(2551, 2), b, bl, 13, &open), HPD_RC_INUSE);
    EXPECT_EQ(hpdclass(h(2548, 2), b, bl, 13, &open), HPD_RC_INUSE);
    HPD_RCTX nt{"SALES", 5, "NT      "};
    EXPECT_EQ(hpdclass(h(2548, 2), b, bl, 13, &nt), HPD_RC_INUSE);

    // A text length that runs past the body is cut at the body, never read past it.
    const std::string lie = be4(1000) + "short";
    EXPECT_EQ(hpdclass(h(1, 2), reinterpret_cast<const unsigned char*>(lie.data()), 9, 13, nullptr), HPD_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "short");

    LogCatch log;
    hpdrmsg(1, "just so", 7);
    hpdrmsg(4, "other", 5);
    hpdrmsg(0, "silent", 6);
    EXPECT_EQ(log.text(), "VRTA_WARNING: just so\nVRTA_NOTE: other\n");
}

TEST_F(Frame, BadFramesMarkTheConnectionDead) {
    struct Case {
        const char* what;
        std::string bytes;
        bool hangup;
    } cases[] = {
        {"truncated header", replyhdr(0, 40, 0, 0, true).substr(0, 11), true},
        {"length below the header", replyhdr(0, 19, 0, 0, true), false},
        {"absurd length", replyhdr(0, 0x7fffffff, 0, 0, true), false},
        {"negative length", replyhdr(0, -5, 0, 0, true), false},
        {"peer leaves mid-body", replyhdr(0, 30, 0, 0, true) + "abc", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pair p(YXS_COUNTED, 0, 64);
        p.send(c.bytes);
        if (c.hangup) p.hangup();
        LogCatch log;
        DS_HDR_REPLY h;
        EXPECT_EQ(hpdrecv(&p.so, 1, &h), HPD_RC_FAIL);
        EXPECT_EQ(p.so.eof, 1);
        EXPECT_FALSE(wiretest::subst().empty());
        EXPECT_TRUE(log.has("The connection to the server was lost.")) << log.text();
        EXPECT_LE(p.so.lrecl, 64 + 4096);  // nothing was grown for a length not believed
    }
    // A reply of exactly 20 bytes has an empty body and succeeds.
    Pair ok(YXS_COUNTED, 0, 64);
    ok.send(replyhdr(7, 20, 0, 0, true));
    DS_HDR_REPLY h;
    ASSERT_EQ(hpdrecv(&ok.so, 1, &h), 0);
    EXPECT_EQ(h.id, 7);
    EXPECT_EQ(ok.so.recl, 0);

    // A garbled enciphered body: refused, connection dead.
    Pair g(YXS_COUNTED, 0, 64);
    g.send(replyhdr(24, 20 + 6, 0, 0, false) + std::string(zcryptlen(6), '\xff'));
    EXPECT_EQ(hpdrecvx(&g.so, &h), HPD_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("does not decode"), std::string::npos);
    EXPECT_EQ(g.so.eof, 1);
    // And a well-formed one deciphers in place; the buffer grows to the cipher's length.
    Pair e(YXS_COUNTED, 0, 16);
    std::string plain(5000, 'q');
    std::string enc(zcryptlen(5000), '\0');
    ASSERT_EQ(zncrypt(plain.data(), 5000, enc.data()), 0);
    std::thread w([&] { e.send(replyhdr(24, 20 + 5000, 0, 0, false) + enc); });
    ASSERT_EQ(hpdrecvx(&e.so, &h), 0);
    w.join();
    EXPECT_EQ(std::string(static_cast<char*>(e.so.reca), e.so.recl), plain);
}

TEST_F(Frame, GreetingBytesAndDeadSockets) {
    Pair p(YXS_COUNTED, 0, 16);
    p.send("x");
    char b = 0;
    EXPECT_EQ(hpcread(p.so.s, &b, 1, nullptr, nullptr, 1, &p.so.fds), 0);
    EXPECT_EQ(b, 'x');
    p.hangup();
    // Nothing came: the count of bytes missing; a write to a dead peer gives 1.
    EXPECT_EQ(hpcread(p.so.s, &b, 1, nullptr, nullptr, 0, &p.so.fds), 1);
    int r = 0;
    for (int i = 0; i < 100 && r == 0; ++i) r = hpcwrit(p.so.s, "\0", 1, nullptr);
    EXPECT_EQ(r, 1);

    // ewrite pads to 2048 and enciphers to 2736.
    Pair q(YXS_COUNTED, 0, 16);
    std::memcpy(q.so.recouta, "hi", 2);
    q.so.recoutl = 2;
    std::thread w([&] { ASSERT_EQ(ewrite(&q.so), 0); });
    std::string got = readall(q.peer, 2736);
    w.join();
    ASSERT_EQ(got.size(), 2736u);
    char plain[2048];
    long n = 0;
    ASSERT_EQ(zdcrypt(got.data(), 2736, plain, sizeof plain, &n), 0);
    EXPECT_EQ(n, 2048);
    EXPECT_EQ(std::string(plain, 4), "hi  ");
}

TEST_F(Frame, RandomFramesNeverCrashOrOverRead) {
    // Seeded, so a failure repeats; VRTA_LONG=1 runs many more.
    std::mt19937 rng(12345);
    LogCatch quiet;
    int rounds = std::getenv("VRTA_LONG") ? 20000 : 400;
    for (int i = 0; i < rounds; ++i) {
        Pair p(YXS_COUNTED, (rng() & 1) ? 7 : 0, 32);
        int len = static_cast<int>(rng() % 80);
        std::string junk(len, '\0');
        for (char& c : junk) c = static_cast<char>(rng());
        // Sometimes a plausible header, so that the body readers get bytes too.
        if (rng() & 1) junk = replyhdr(rng() % 100, 20 + rng() % 60, rng() % 3000, rng() % 4, i & 1) + junk;
        p.send(junk);
        p.hangup();
        DS_HDR_REPLY h;
        rctype rc = (i % 3 == 0) ? hpdrecvx(&p.so, &h) : hpdrecv(&p.so, i & 1, &h);
        if (rc == 0) {
            // Whatever was accepted fits the buffer and is classified within it.
            EXPECT_LE(p.so.recl, p.so.lrecl);
            hpdclass(h, static_cast<const unsigned char*>(p.so.reca), p.so.recl, 13, nullptr);
        } else {
            EXPECT_EQ(p.so.eof, 1);
        }
    }
}

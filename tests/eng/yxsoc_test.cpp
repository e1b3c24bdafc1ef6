// The socket transport: record disciplines at block edges, end of input,
// client and passive opens over loopback TCP and a UNIX-domain path.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>
#include <thread>

#include "testutil.h"
#include "wireutil.h"

using namespace vrta;
using wiretest::Pair;

namespace {

class Yxsoc : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(wiretest::runtimeUp()); }
};

std::string hdr(int len, int flag) {
    std::string h(4, '\0');
    h[0] = static_cast<char>(len >> 8);
    h[1] = static_cast<char>(len & 0xff);
    h[2] = static_cast<char>(flag);
    return h;
}

}  // namespace

TEST_F(Yxsoc, CountedReadsFollowLreclNotTheBlockAndEndCleanly) {
    // A wanted block of 100000 leaves both blocks at 8192; the record of
    // 100000 bytes comes through many refills.
    Pair p(YXS_COUNTED, 100000, 100000);
    ASSERT_NE(p.so.s, 0);
    EXPECT_EQ(p.so.ibufl, YXS_BLOCK);
    EXPECT_EQ(p.so.obufl, YXS_BLOCK);
    std::string big(100000, 'x');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    std::thread w([&] { p.send(big); });
    p.so.nread = 100000;
    EXPECT_EQ(yxsread(&p.so), 0);
    w.join();
    EXPECT_EQ(p.rec(), big);
    EXPECT_EQ(p.so.totcnt, 100000);

    // nread 0 returns at once, without waiting for input.
    p.so.nread = 0;
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.so.recl, 0);

    // A peer that closes half way: success with a short record; then the end.
    p.send("12345");
    p.hangup();
    p.so.nread = 10;
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "12345");
    EXPECT_EQ(yxsread(&p.so), YXS_RC_EOF);
    EXPECT_EQ(p.so.eof, 1);
    EXPECT_EQ(yxsread(&p.so), YXS_RC_EOF);
}

TEST_F(Yxsoc, CountedReadPastLreclConsumesTheRestAndSaysSo) {
    Pair p(YXS_COUNTED, 4, 6);
    p.send("abcdefghij" "KL");
    p.so.nread = 10;
    EXPECT_EQ(yxsread(&p.so), YXS_RC_TRUNC);
    EXPECT_EQ(p.rec(), "abcdef");
    p.so.nread = 2;
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "KL");
    // A peer that closes before the first byte: the end, not an empty record.
    p.hangup();
    EXPECT_EQ(yxsread(&p.so), YXS_RC_EOF);
    EXPECT_EQ(p.so.eof, 1);
}

TEST_F(Yxsoc, TerminatorsAreFoundAcrossBlockEdges) {
    // Blocks of 4: "ab\r" | "\ncd" puts the carriage return and line feed
    // in two refills.
    Pair p(YXS_TERM, 4, 64, 1);
    ASSERT_EQ(p.so.termlen, 2);
    p.send("ab\r\ncdefgh\r\n\r\nlast");
    p.hangup();
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "ab");
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "cdefgh");
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "");
    // The last line has no terminator: it is a record all the same.
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "last");
    EXPECT_EQ(yxsread(&p.so), YXS_RC_EOF);

    // A lone carriage return is data, also when it ends a block.
    Pair q(YXS_TERM, 3, 64);
    q.send("a\rb\n");
    EXPECT_EQ(yxsread(&q.so), 0);
    EXPECT_EQ(q.rec(), "a\rb");

    // Writing appends the terminator.
    Pair r(YXS_TERM, 0, 16);
    std::memcpy(r.so.recouta, "hello", 5);
    r.so.recoutl = 5;
    ASSERT_EQ(yxswrit(&r.so), 0);
    char got[16];
    ASSERT_EQ(read(r.peer, got, sizeof got), 6);
    EXPECT_EQ(std::string(got, 6), "hello\n");
}

TEST_F(Yxsoc, FixedRecordsAreCutAtLrecl) {
    Pair p(YXS_FIXED, 5, 3);
    p.send("abcdefgh");
    p.hangup();
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "abc");
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "def");
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "gh");
    EXPECT_EQ(yxsread(&p.so), YXS_RC_EOF);
}

TEST_F(Yxsoc, LengthPrefixedHeadersStraddleBlocksAndLongRecordsAreCut) {
    // Blocks of 5: most headers straddle a block edge.
    Pair p(YXS_VAR, 5, 4);
    p.send(hdr(7, 0) + "abc" + hdr(10, 0) + "123456" + hdr(4, 0) + hdr(6, 0) + "zz");
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "abc");
    EXPECT_EQ(yxsread(&p.so), YXS_RC_TRUNC);  // 6 bytes into an lrecl of 4
    EXPECT_EQ(p.rec(), "1234");
    EXPECT_EQ(yxsread(&p.so), 0);  // an empty record
    EXPECT_EQ(p.rec(), "");
    EXPECT_EQ(yxsread(&p.so), 0);  // still in step after the cut
    EXPECT_EQ(p.rec(), "zz");
    // A length below the header's own is refused, not read as huge.
    p.send(hdr(2, 0));
    EXPECT_EQ(yxsread(&p.so), YXS_RC_FAIL);
}

TEST_F(Yxsoc, SegmentsJoinAndLostPiecesAreDroppedOncePerRead) {
    wiretest::LogCatch log;
    Pair p(YXS_SEG, 5, 64);
    p.send(hdr(6, 1) + "ab" + hdr(5, 3) + "c" + hdr(6, 2) + "de"   // first, middle, last
           + hdr(6, 2) + "XX" + hdr(6, 3) + "YY" + hdr(5, 0) + "f"  // two without a start, then whole
           + hdr(6, 1) + "gh" + hdr(6, 0) + "ij");                  // a first whose end was lost
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "abcde");
    EXPECT_EQ(p.so.recnum, 3);
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "f");
    EXPECT_EQ(p.so.recnum, 6);
    EXPECT_EQ(yxsread(&p.so), 0);
    EXPECT_EQ(p.rec(), "ij");
    // One report for the two lost starts, one for the lost end.
    size_t n = 0;
    for (size_t at = 0; (at = log.text().find("lost its start", at)) != std::string::npos; ++at) ++n;
    EXPECT_EQ(n, 2u) << log.text();
}

TEST_F(Yxsoc, TcpAndUnixClientsReachThePassiveSide) {
    char zero[] = "0";
    YXSOCK_OPEN srv = wiretest::loopback(zero);
    srv.lrecl = 64;
    ASSERT_EQ(yxssopn(&srv), 0);
    ASSERT_GT(srv.portno, 0);
    EXPECT_EQ(srv.flag, 1);

    std::string port = std::to_string(srv.portno);
    YXSOCK_OPEN cl = wiretest::loopback(port.data());
    ASSERT_EQ(yxscopn(&cl), 0);
    EXPECT_STREQ(cl.ip, "127.0.0.1");
    EXPECT_EQ(cl.portno, srv.portno);
    EXPECT_EQ(cl.lrecl, 256);  // 0 becomes 256
    ASSERT_EQ(yxsacc(&srv), 0);
    EXPECT_STREQ(srv.ipc, "127.0.0.1");

    std::memcpy(cl.recouta, "ping", 4);
    cl.recoutl = 4;
    ASSERT_EQ(yxswrit(&cl), 0);
    srv.nread = 4;
    ASSERT_EQ(yxsread(&srv), 0);
    EXPECT_EQ(std::string(static_cast<char*>(srv.reca), srv.recl), "ping");
    yxsclos(&cl);
    srv.nread = 1;
    EXPECT_EQ(yxsread(&srv), YXS_RC_EOF);
    yxsclos(&srv);

    // Nobody listens on the port any more: the system's text comes back.
    YXSOCK_OPEN gone = wiretest::loopback(port.data());
    EXPECT_EQ(yxscopn(&gone), YXS_RC_FAIL);
    EXPECT_NE(wiretest::subst().find("refused"), std::string::npos) << wiretest::subst();
    EXPECT_EQ(gone.s, 0);

    // A UNIX-domain path.
    vrtatest::TempDir d;
    std::string path = d.file("s");
    YXSOCK_OPEN us{};
    us.mode = 3;
    us.type = YXS_COUNTED;
    ASSERT_EQ(yxssuop(&us, path.data(), static_cast<int>(path.size())), 0);
    YXSOCK_OPEN uc{};
    uc.mode = 3;
    uc.type = YXS_COUNTED;
    ASSERT_EQ(yxscuop(&uc, path.data(), static_cast<int>(path.size())), 0);
    EXPECT_EQ(std::string(uc.ip), path);
    ASSERT_EQ(yxsacc(&us), 0);
    std::memcpy(uc.recouta, "unix", 4);
    uc.recoutl = 4;
    ASSERT_EQ(yxswrit(&uc), 0);
    us.nread = 4;
    ASSERT_EQ(yxsread(&us), 0);
    EXPECT_EQ(std::string(static_cast<char*>(us.reca), us.recl), "unix");
    yxsclos(&uc);
    yxsclos(&us);
    // A regular file of that name is never replaced by a listener.
    vrtatest::writeFile(d.file("f"), "keep");
    std::string f = d.file("f");
    YXSOCK_OPEN bad{};
    bad.mode = 3;
    EXPECT_EQ(yxssuop(&bad, f.data(), static_cast<int>(f.size())), YXS_RC_FAIL);
    EXPECT_EQ(vrtatest::readFile(f), "keep");
}

TEST_F(Yxsoc, NamesAndServicesResolveOrFailClearly) {
    YXSOCK_OPEN so{};
    char name[16] = "nosuch.invalid ";
    so.host = name;
    so.hlen = 15;
    wiretest::LogCatch log;
    EXPECT_EQ(yxshost(&so), YXS_RC_FAIL);
    EXPECT_EQ(wiretest::subst(), "nosuch.invalid");
    EXPECT_TRUE(log.has("nosuch.invalid")) << log.text();

    // Numbers are ports; our own names fall back to their fixed ports;
    // other unknown names fail instead of meaning port 0.
    int port = -1;
    char num[] = "  4711  ";
    so.service = num;
    ASSERT_EQ(yxsserv(&so, -1, &port), 0);
    EXPECT_EQ(port, 4711);
    char big[] = "70000";
    so.service = big;
    EXPECT_EQ(yxsserv(&so, -1, &port), YXS_RC_FAIL);
    char own[] = "vrtaname";
    so.service = own;
    ASSERT_EQ(yxsserv(&so, -1, &port), 0);
    EXPECT_GT(port, 0);
    char bogus[] = "no-such-service-x";
    so.service = bogus;
    EXPECT_EQ(yxsserv(&so, -1, &port), YXS_RC_FAIL);
}

TEST_F(Yxsoc, WritingToAPeerThatLeftFailsWithoutASignal) {
    Pair p(YXS_COUNTED, 0, 8192);
    p.hangup();
    std::memset(p.so.recouta, 'x', 8192);
    p.so.recoutl = 8192;
    rctype rc = 0;
    // The first write may still be taken by the system's buffer.
    for (int i = 0; i < 100 && rc == 0; ++i) rc = yxswrit(&p.so);
    EXPECT_EQ(rc, YXS_RC_FAIL);
}

TEST_F(Yxsoc, DescriptorBitmapGrowsAndKeepsItsBits) {
    YXSOCK_FDS f{};
    f.fdss = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
    f.fdsw = static_cast<unsigned char*>(xmalloc(XM_THREADPOOL, 256, XM_ZERO));
    f.fdslen = 256;
    ASSERT_EQ(yxtzbit(&f, 5, 1), 0);
    ASSERT_EQ(yxtzbit(&f, 2047, 1), 0);  // 2047 + 1 reaches 256 x 8
    EXPECT_EQ(f.fdslen, (2047 + 513) / 512 * 64);
    ASSERT_EQ(yxtzbit(&f, 5000, 1), 0);
    EXPECT_EQ(f.fdss[0], 1 << 5);
    EXPECT_EQ(f.fdss[2047 / 8], 0x80);
    ASSERT_EQ(yxtzbit(&f, 5, 0), 0);
    EXPECT_EQ(f.fdss[0], 0);
    // Waiting needs exactly one armed descriptor below the count.
    EXPECT_EQ(yxtzsnb(6000, nullptr, nullptr, &f), YXS_RC_FAIL);
    xmfree(XM_THREADPOOL, f.fdss, f.fdslen);
    xmfree(XM_THREADPOOL, f.fdsw, f.fdslen);
}

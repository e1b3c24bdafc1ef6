// Helpers of the wire-layer suites: the runtime brought up once, log lines
// caught, the substitution of the last code, and sockets opened for a test.
#pragma once
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "eng/yxsoc.h"
#include "hs/hs.h"
#include "option/op.h"
#include "ssup/vv.h"
#include "ssup/xp.h"

namespace wiretest {

inline void runtimeUp() {
    if (std::memcmp(vrta::vvgcbp()->eye, "VGCB", 4) != 0) {
        ASSERT_EQ(vrta::vvinit(), 0);
    }
    ASSERT_EQ(vrta::hsgblinit(), 0);
    ASSERT_NE(vrta::xkinit(), nullptr);
    if (!vrta::opgtgbl()) {
        ASSERT_NE(vrta::opinitgbl(), nullptr);
    }
}

// Every log line of the calling thread while it lives.
class LogCatch {
public:
    LogCatch() {
        vrta::xpgetpm(&oldfp_, &olddata_);
        vrta::xpsetpm(keep, &text_);
    }
    ~LogCatch() { vrta::xpsetpm(oldfp_, olddata_); }
    const std::string& text() const { return text_; }
    bool has(const std::string& s) const { return text_.find(s) != std::string::npos; }

private:
    static void keep(void* d, int, const char* b, int l) { static_cast<std::string*>(d)->append(b, l).push_back('\n'); }
    vrta::XPPMFP oldfp_;
    void* olddata_;
    std::string text_;
};

// The first substitution stored with the last code.
inline std::string subst() {
    const char* p;
    int l;
    vrta::rcignore(vrta::xrgtsub(&p, &l));  // none: an empty text
    return std::string(p, l);
}

// A record for counted reads on 127.0.0.1 and service (which it points at).
inline vrta::YXSOCK_OPEN loopback(char* service) {
    static char host[] = "127.0.0.1";
    vrta::YXSOCK_OPEN so{};
    so.host = host;
    so.hlen = 9;
    so.mode = 3;
    so.type = vrta::YXS_COUNTED;
    so.service = service;
    return so;
}

// A record taking over one end of a socket pair; the other end is the test's.
struct Pair {
    vrta::YXSOCK_OPEN so{};
    int peer = -1;
    Pair(int type, int blocksize, long lrecl, int termflag = 0) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
        so.mode = 3;
        so.type = type;
        so.blocksize = blocksize;
        so.lrecl = lrecl;
        so.termflag = termflag;
        peer = sv[1];
        if (vrta::yxsadopt(&so, sv[0]) != 0) close(sv[0]);
    }
    ~Pair() {
        vrta::yxsclos(&so);
        if (peer >= 0) close(peer);
    }
    void send(const std::string& b) const { ASSERT_EQ(::write(peer, b.data(), b.size()), (ssize_t)b.size()); }
    void hangup() {
        close(peer);
        peer = -1;
    }
    std::string rec() const { return std::string(static_cast<const char*>(so.reca), so.recl); }
};

}  // namespace wiretest

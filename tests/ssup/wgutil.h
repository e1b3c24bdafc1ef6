// What the code generator's tests share: a session with its objects, the
// text that travels with a failure code, and a call of bound code that may
// end through hsabort.
#pragma once
#include <gtest/gtest.h>
#include <csetjmp>
#include <string>
#include "hs/hs.h"
#include "ssup/vgint.h"
#include "ssup/xp.h"

namespace wgtest {

using namespace vrta;

// The substitution of the last failure: what exactly was refused.
inline std::string subtext() {
    const char* t = nullptr;
    int n = 0;
    if (xrgtsub(&t, &n) != 0 || !t) return "";
    return std::string(t, n);
}

// Runs bound code; a give-up arrives by hsabort and is returned in *fatal.
// Only plain values live in this frame while the code runs.
inline long callcode(WGFAST f, int* fatal) {
    jmp_buf jb;
    jmp_buf* old = nullptr;
    EXPECT_EQ(0, hssetabort(&jb, &old));
    volatile long r = 0;
    int code = setjmp(jb);
    if (code == 0) {
        r = f();
        *fatal = 0;
    } else {
        *fatal = code;
    }
    EXPECT_EQ(0, hssetabort(old, nullptr));
    return r;
}

// A session and its objects, ended when the test is done with it.
struct Sess {
    VGSEGHD* s = nullptr;
    explicit Sess(int flags = 0, const WG_INFO* info = nullptr) {
        EXPECT_EQ(0, hsgblinit());
        EXPECT_EQ(0, wgopen(&s, flags, info, 0));
    }
    ~Sess() {
        if (s) wgexect(s);
    }
    Sess(const Sess&) = delete;
    Sess& operator=(const Sess&) = delete;
    objloc obj(long v = 0, bool constant = false) {
        objloc o = 0;
        EXPECT_EQ(0, wgdfobj(s, &v, constant, &o));
        return o;
    }
    objloc dbl(double v, bool constant = false) {
        objloc o = 0;
        EXPECT_EQ(0, wgdfobj(s, &v, constant, &o));
        return o;
    }
    void e(int op, int type, unsigned long mod, unsigned long a, unsigned long b, unsigned long r) {
        ASSERT_EQ(0, wgemit(s, op, type, mod, a, b, r)) << opname[op] << " " << subtext();
    }
    wrcode bind() {
        if (wrcode rc = wgclose(s)) return rc;
        return wgbind(s);
    }
    long run() { return wgentry(s)(); }
    long& at(objloc o) { return *reinterpret_cast<long*>(static_cast<char*>(wggudlp(s)) + o); }
    double& d(objloc o) { return *reinterpret_cast<double*>(static_cast<char*>(wggudlp(s)) + o); }
    wrcode end() {
        wrcode rc = wgexect(s);
        s = nullptr;
        return rc;
    }
};

}  // namespace wgtest

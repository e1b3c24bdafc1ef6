// Runs of generated code: traps and what becomes of them, stops, a second
// run of the same code, interrupts, subroutines nested too deep, and what a
// run leaves of the caller's floating-point setting.
#include <gtest/gtest.h>
#include <atomic>
#include <bit>
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include <xmmintrin.h>
#include "hs/hs.h"
#include "ssubs/vz.h"
#include "ssup/vgint.h"
#include "ssup/thr.h"
#include "ssup/xp.h"
#include "wgutil.h"

using namespace vrta;
using wgtest::callcode;
using wgtest::Sess;
using wgtest::subtext;

namespace {

bool fpeblocked() {
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return sigismember(&set, SIGFPE);
}

// A division by zero the compiler cannot see or object to.
void divzero() {
    long a = 1, b = 0, high;
    asm volatile("cqo\n\tidivq %2" : "+a"(a), "=&d"(high) : "r"(b) : "cc");
}

std::vector<int> causes;
int answer = 0;        // what the test exception function returns
double result = 0;
void* resumeat = nullptr;

int recorder(int cause, double* res, jmp_buf**, void** resume) {
    causes.push_back(cause);
    *res = result;
    *resume = resumeat;
    return answer;
}

}  // namespace

TEST(GeneratedCode, WithoutAnExceptionFunctionATrapGivesUpThroughHsabort) {
    Sess t;
    objloc one = t.dbl(1.0), zero = t.dbl(0.0), r = t.dbl(5.0), k = t.obj();
    t.e(MOV_, WG_TINT, WG_MIMMA, 9, 0, k);
    t.e(DIV_, WG_TDBL, 0, one, zero, r);
    t.e(TERM_, WG_TINT, 0, 0, 0, k);
    ASSERT_EQ(0, t.bind()) << subtext();
    unsigned before = _mm_getcsr();
    for (int run = 0; run < 2; run++) {
        int fatal = 0;
        callcode(wgentry(t.s), &fatal);
        EXPECT_EQ(WG_RC_TRAP, fatal);
        // What the run changed before the trap is there; the result is not.
        EXPECT_EQ(9, t.at(k));
        EXPECT_EQ(5.0, t.d(r));
        EXPECT_EQ(before, _mm_getcsr());
        EXPECT_FALSE(fpeblocked());
        EXPECT_EQ(nullptr, wggthrcp());
    }
}

TEST(GeneratedCode, TheExceptionFunctionChoosesResultStopOrWhereToGoOn) {
    Sess t;
    objloc one = t.dbl(1.0), zero = t.dbl(0.0), big = t.dbl(1e308), ten = t.dbl(10.0);
    objloc i7 = t.obj(7), i0 = t.obj(0), q = t.dbl(0), p = t.dbl(0), n = t.obj(0), lab = t.obj(), after = t.obj();
    t.e(MOV_, WG_TPTR, WG_MLABEL, 500, 0, lab);
    t.e(DIV_, WG_TDBL, 0, one, zero, q);    // cause 2
    t.e(MUL_, WG_TDBL, 0, big, ten, p);     // cause 1
    t.e(DIV_, WG_TINT, 0, i7, i0, n);       // cause 5
    t.e(MOV_, WG_TINT, WG_MIMMA, 1, 0, after);
    t.e(TERM_, WG_TINT, 0, 0, 0, after);
    t.e(LABEL_, WG_TINT, 0, 0, 0, 500);
    t.e(MOV_, WG_TINT, WG_MIMMA, 2, 0, after);
    t.e(TERM_, WG_TINT, 0, 0, 0, after);
    ASSERT_EQ(0, t.bind()) << subtext();
    ASSERT_EQ(0, wginstl(t.s, recorder));

    // Go on with a result of the function's choice.
    causes.clear();
    answer = 0;
    result = vzmissof('X');
    int fatal = 0;
    EXPECT_EQ(1, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(0, fatal);
    EXPECT_EQ((std::vector<int>{2, 1, 5}), causes);
    EXPECT_EQ(std::bit_cast<uint64_t>(vzmissof('X')), std::bit_cast<uint64_t>(t.d(q)));
    EXPECT_EQ(std::bit_cast<uint64_t>(vzmissof('X')), std::bit_cast<uint64_t>(t.d(p)));
    EXPECT_EQ(std::bit_cast<long>(vzmissof('X')), t.at(n));

    // Stop the run with a code of its own.
    causes.clear();
    answer = 77;
    EXPECT_EQ(77, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(1u, causes.size());
    EXPECT_EQ(0, fatal);

    // Go on at a label taken as data.
    answer = -2;
    resumeat = reinterpret_cast<void*>(t.at(lab));
    EXPECT_EQ(2, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(0, fatal);
    // Anywhere else is refused: the run gives up.
    resumeat = reinterpret_cast<void*>(t.at(lab) + 1);
    callcode(wgentry(t.s), &fatal);
    EXPECT_EQ(WG_RC_TRAP, fatal);
    EXPECT_FALSE(fpeblocked());
}

namespace {
VGSEGHD* running = nullptr;
long fromfunc(long how, long, long, long, long) {
    if (how == 1) divzero();
    if (how == 2) wgstop(running, 4242);
    if (how == 3) return wgentry(running)();  // the same code again, inside its own run
    return 0;
}
}  // namespace

TEST(GeneratedCode, AFunctionCalledFromCodeMayStopItAndCannotRunItAgain) {
    Sess t;
    running = t.s;
    objloc how = t.obj(), r = t.obj(), before = t.obj();
    t.e(MOV_, WG_TINT, WG_MIMMA, 5, 0, before);
    t.e(PARM_, WG_TINT, 0, how, 0, 0);
    t.e(FUNC_, WG_TINT, WG_MIMMA, reinterpret_cast<unsigned long>(fromfunc), 0, r);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    ASSERT_EQ(0, t.bind()) << subtext();
    ASSERT_EQ(0, wginstl(t.s, recorder));
    int fatal = 0;
    // A stop from inside: the function's frame is left behind.
    t.at(how) = 2;
    EXPECT_EQ(4242, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(5, t.at(before));
    // Calling the code while it runs is refused.
    t.at(how) = 3;
    EXPECT_EQ(static_cast<long>(WG_RC_INTERNAL), callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(static_cast<long>(WG_RC_INTERNAL), t.at(r));
    // A trap in the function, outside generated code: cause 4.
    causes.clear();
    answer = 31;
    t.at(how) = 1;
    unsigned mx = _mm_getcsr();
    EXPECT_EQ(31, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ((std::vector<int>{4}), causes);
    EXPECT_EQ(mx, _mm_getcsr());
    EXPECT_FALSE(fpeblocked());
    // Ordinary runs go on as before; wgstop outside a run is refused.
    t.at(how) = 0;
    EXPECT_EQ(0, callcode(wgentry(t.s), &fatal));
    EXPECT_EQ(WG_RC_INTERNAL, wgstop(t.s, 1));
}

TEST(GeneratedCode, ATrapInAThreadThatRunsNoCodeEndsThroughHsabort) {
    Sess t;
    objloc r = t.obj(3);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    ASSERT_EQ(0, t.bind()) << subtext();  // the handler is in place now
    int got = -1;
    std::thread th([&] {
        jmp_buf jb;
        jmp_buf* old = nullptr;
        EXPECT_EQ(0, hssetabort(&jb, &old));
        int code = setjmp(jb);
        if (code == 0) divzero();
        got = code;
        EXPECT_EQ(0, hssetabort(old, nullptr));
    });
    th.join();
    EXPECT_EQ(WG_RC_TRAP, got);
    // A thread with nobody to return to just ends.
    bool after = false;
    thread_t tid{};
    ASSERT_EQ(0, thr_create(nullptr, 0, [](void* a) -> void* {
        divzero();
        *static_cast<bool*>(a) = true;
        return nullptr;
    }, &after, 0, &tid));
    ASSERT_EQ(0, thr_join(tid, nullptr));
    EXPECT_FALSE(after);
    int fatal = 0;
    EXPECT_EQ(3, callcode(wgentry(t.s), &fatal));
}

namespace {
std::atomic<int> ticks{0};
long tick(long, long, long, long, long) { return ++ticks; }
}  // namespace

TEST(GeneratedCode, BreakLeavesALoopWhenAnotherThreadAsksForAttention) {
    Sess t;
    objloc n = t.obj(), v = t.obj(555), zero = t.obj(0), x = t.obj();
    t.e(MOV_, WG_TINT, WG_MIMMA, 2000000000, 0, n);
    t.e(LABEL_, WG_TINT, 0, 0, 0, 1);
    t.e(FUNC_, WG_TINT, WG_MIMMA, reinterpret_cast<unsigned long>(tick), 0, x);
    t.e(BREAK_, WG_TINT, 0, v, 0, 0);
    t.e(SUB_, WG_TINT, WG_MIMMB, n, 1, n);
    t.e(BGT_, WG_TINT, WG_MIMMB, n, 0, 1);
    t.e(TERM_, WG_TINT, 0, 0, 0, zero);
    ASSERT_EQ(0, t.bind()) << subtext();
    ASSERT_EQ(0, wgattn(t.s));  // asked before the run: the first BREAK_ leaves
    EXPECT_EQ(555, wgentry(t.s)());
    EXPECT_EQ(1, ticks.load());
    ticks = 0;
    std::thread asker([&] {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (ticks.load() < 3 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
        wgattn(t.s);
    });
    EXPECT_EQ(555, wgentry(t.s)());
    asker.join();
    EXPECT_GT(t.at(n), 0);
}

TEST(GeneratedCode, SubroutinesNestedTooDeepFaultAndUnwind) {
    Sess t;
    objloc depth = t.obj(0), r = t.obj(11);
    t.e(LINK_, WG_TINT, 0, 0, 0, 100);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    t.e(LABEL_, WG_TINT, 0, 0, 0, 100);  // calls itself until refused
    t.e(ADD_, WG_TINT, WG_MIMMB, depth, 1, depth);
    t.e(LINK_, WG_TINT, 0, 0, 0, 100);
    t.e(RET_, WG_TINT, 0, depth, 0, 0);
    ASSERT_EQ(0, t.bind()) << subtext();
    ASSERT_EQ(0, wginstl(t.s, recorder));
    causes.clear();
    answer = 0;
    EXPECT_EQ(11, wgentry(t.s)());
    EXPECT_EQ((std::vector<int>{5}), causes);
    EXPECT_EQ(VG_MAXLINK, t.at(depth));
    // MARK_ and RESET_ go back to the marked level from any depth.
    Sess u;
    objloc m = u.obj(0), z = u.obj(99);
    u.e(MARK_, WG_TINT, 0, 0, 0, 0);
    u.e(LINK_, WG_TINT, 0, 0, 0, 1);
    u.e(TERM_, WG_TINT, 0, 0, 0, m);
    u.e(LABEL_, WG_TINT, 0, 0, 0, 1);
    u.e(LINK_, WG_TINT, 0, 0, 0, 2);
    u.e(TERM_, WG_TINT, 0, 0, 0, m);
    u.e(LABEL_, WG_TINT, 0, 0, 0, 2);
    u.e(RESET_, WG_TINT, 0, 0, 0, 0);
    u.e(RET_, WG_TINT, 0, z, 0, 0);  // at the top again: leaves the code
    ASSERT_EQ(0, u.bind()) << subtext();
    EXPECT_EQ(99, wgentry(u.s)());
    EXPECT_EQ(99, wgentry(u.s)());
}

TEST(GeneratedCode, NumberAndTextMovesLineUpAndPad) {
    Sess t;
    unsigned char src[16], dst[32];
    objloc ps = t.obj(reinterpret_cast<long>(src), true);
    objloc pd[3];
    for (int i = 0; i < 3; i++) pd[i] = t.obj(reinterpret_cast<long>(dst + 8 * i), true);
    auto move = [&](int type, unsigned long mod, long sl, objloc to, long dl) {
        t.e(IPARM_, WG_TINT, WG_MIMMB, ps, static_cast<unsigned long>(sl), 0);
        t.e(IPARM_, WG_TINT, WG_MIMMB, to, static_cast<unsigned long>(dl), 0);
        t.e(MOVEGEN_, type, mod, 0, 0, 0);
    };
    move(WG_TDBL, 0, 3, pd[0], 8);                   // a short number becomes the high bytes
    move(WG_TDBL, 0, 8, pd[1], 3);                   // and a long one gives up its low bytes
    move(WG_TCHAR, 0, 3, pd[2], 6);                  // text is padded with blanks
    move(WG_TCHAR, WG_MPADC | '*', 2, pd[2], 0);     // a move into nothing moves nothing
    t.e(TERM_, WG_TINT, 0, 0, 0, ps);
    ASSERT_EQ(0, t.bind()) << subtext();
    memcpy(src, "\x40\x09\x21" "defgh", 8);
    memset(dst, 0x55, sizeof(dst));
    wgentry(t.s)();
    EXPECT_EQ(0, memcmp(dst, "\0\0\0\0\0\x40\x09\x21", 8));
    EXPECT_EQ(0, memcmp(dst + 8, "fgh\x55", 4));
    EXPECT_EQ(0, memcmp(dst + 16, "\x40\x09\x21   \x55", 7));

    Sess u;
    objloc q = u.obj(reinterpret_cast<long>(src), true), w = u.obj(reinterpret_cast<long>(dst), true);
    u.e(IPARM_, WG_TINT, WG_MIMMB, q, 2, 0);
    u.e(IPARM_, WG_TINT, WG_MIMMB, w, 5, 0);
    u.e(MOVEGEN_, WG_TCHAR, WG_MPADC | '*', 0, 0, 0);
    u.e(TERM_, WG_TINT, 0, 0, 0, q);
    ASSERT_EQ(0, u.bind()) << subtext();
    memset(dst, 0x55, sizeof(dst));
    wgentry(u.s)();
    EXPECT_EQ(0, memcmp(dst, "\x40\x09***\x55", 6));
}

namespace {
void keepline(void* data, int, const char* buffer, int len) { static_cast<std::string*>(data)->append(buffer, len).append("\n"); }
}  // namespace

TEST(GeneratedCode, TheDebugOptionLogsTheCodeInstructionByInstruction) {
    ASSERT_EQ(0, hsgblinit());
    XPPMFP oldfp;
    void* olddata;
    xpgetpm(&oldfp, &olddata);
    std::string log;
    xpsetpm(keepline, &log);
    ASSERT_EQ(0, wgsetopt("D"));
    {
        Sess t;
        objloc a = t.obj(2), r = t.obj();
        t.e(ADD_, WG_TINT, 0, a, a, r);
        t.e(TERM_, WG_TINT, 0, 0, 0, r);
        ASSERT_EQ(0, t.bind()) << subtext();
        EXPECT_EQ(4, wgentry(t.s)());
    }
    ASSERT_EQ(0, wgsetopt(""));
    xpsetpm(oldfp, olddata);
    EXPECT_NE(std::string::npos, log.find("Generated code of session"));
    EXPECT_NE(std::string::npos, log.find("; 0 ADD_"));
    EXPECT_NE(std::string::npos, log.find("; 1 TERM_"));
    EXPECT_NE(std::string::npos, log.find("PUSH      RBP"));
    EXPECT_NE(std::string::npos, log.find("RET"));
    EXPECT_EQ(std::string::npos, log.find("??"));
}

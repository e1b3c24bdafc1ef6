// Code sessions: the stream of intermediate code, binding, ending, and what
// a bad instruction or a misuse gets back.
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include "hs/hs.h"
#include "ssup/vgint.h"
#include "ssup/xp.h"
#include "wgref.h"
#include "wgrow.h"
#include "wgutil.h"

using namespace vrta;
using wgtest::Sess;
using wgtest::subtext;

namespace {

// Permissions of the mapping that holds addr, as /proc/self/maps shows them.
std::string perms(const void* addr) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    auto a = reinterpret_cast<unsigned long>(addr);
    while (std::getline(maps, line)) {
        unsigned long lo, hi;
        char p[8] = {};
        if (sscanf(line.c_str(), "%lx-%lx %4s", &lo, &hi, p) == 3 && a >= lo && a < hi) return p;
    }
    return "";
}

// Anonymous mappings that may be executed: ours come and go with bound code.
int execmaps() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int n = 0;
    while (std::getline(maps, line)) {
        std::istringstream in(line);
        std::string range, p, off, dev, inode, path;
        in >> range >> p >> off >> dev >> inode >> path;
        if (p.size() >= 3 && p[2] == 'x' && inode == "0" && path.empty()) n++;
    }
    return n;
}

// Records of the first chain block, in order, holes included.
std::vector<int> chainops(VGCHAIN* c) {
    std::vector<int> ops;
    for (char* q = c->memblock; q < c->curpos; q += vgreclen(reinterpret_cast<PINST*>(q)))
        ops.push_back(reinterpret_cast<PINST*>(q)->opcode);
    return ops;
}

}  // namespace

TEST(CodeSessions, BlockEdgesKeepAnInstructionWithTheOneThatDependsOnIt) {
    // Three 40-byte instructions fill the first block.
    WG_INFO info{};
    info.icodes = 3;
    Sess t(0, &info);
    objloc base = t.obj(1000), off = t.obj(20), r = t.obj(), x = t.obj(5);
    t.e(ADD_, WG_TINT, 0, x, x, x);
    t.e(ADD_, WG_TINT, 0, x, x, x);
    t.e(ADDR_, WG_TCHAR, 0, base, off, r);
    t.e(ADDR_, WG_TCHAR, WG_MIMMB, r, 7, r);  // needs a new block: the pair moves along
    VGCHAIN* first = t.s->first_icodes;
    ASSERT_NE(nullptr, first->next);
    EXPECT_EQ((std::vector<int>{ADD_, ADD_, INVALID}), chainops(first));
    EXPECT_EQ((std::vector<int>{ADDR_, ADDR_}), chainops(first->next));
    // The same with an overflow test after its addition; the second block
    // holds six records and is full after four more.
    t.e(ADD_, WG_TINT, 0, x, x, x);
    t.e(ADD_, WG_TINT, 0, x, x, x);
    t.e(ADD_, WG_TINT, 0, x, x, x);
    t.e(ADD_, WG_TINT, 0, x, x, x);
    unsigned long lab = 77;
    t.e(BTOVFL_, WG_TINT, 0, 0, 0, lab);
    VGCHAIN* third = first->next->next;
    ASSERT_NE(nullptr, third);
    EXPECT_EQ(INVALID, chainops(first->next).back());
    EXPECT_EQ((std::vector<int>{ADD_, BTOVFL_}), chainops(third));
    t.e(LABEL_, WG_TINT, 0, 0, 0, lab);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    ASSERT_EQ(0, t.bind()) << subtext();
    // Moved instructions still run in their order: 1000 + 20 + 7.
    EXPECT_EQ(1027, t.run());
    EXPECT_EQ(5 << 6, t.at(x));
}

TEST(CodeSessions, AJumpToTheNextInstructionIsDroppedAndSmallSessionsEstimateTheirWorstCase) {
    Sess t;
    objloc r = t.obj(3);
    t.e(BR_, WG_TINT, 0, 0, 0, 9);
    t.e(LABEL_, WG_TINT, 0, 0, 0, 9);
    t.e(BR_, WG_TINT, 0, 0, 0, 10);  // kept: an instruction lies between
    t.e(OPID_, WG_TINT, 0, 1, 0, 0);
    t.e(LABEL_, WG_TINT, 0, 0, 0, 10);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    EXPECT_EQ((std::vector<int>{INVALID, LABEL_, BR_, OPID_, LABEL_, TERM_}), chainops(t.s->first_icodes));
    EXPECT_EQ(4, t.s->ninst);
    long est = t.s->estimate;
    ASSERT_EQ(0, t.bind()) << subtext();
    EXPECT_EQ(3, t.run());
    EXPECT_LT(est, t.s->worst);
    EXPECT_EQ(t.s->worst, t.s->estimate);

    // Past 4096 bytes of worst case the estimate stays the sum of estimates.
    Sess big;
    objloc a = big.obj(0x1000, true), n = big.obj(8, true);
    for (int i = 0; i < 12; i++) {
        big.e(IPARM_, WG_TINT, 0, a, n, 0);
        big.e(IPARM_, WG_TINT, 0, a, n, 0);
        big.e(MOVEGEN_, WG_TCHAR, 0, 0, 0, 0);
    }
    EXPECT_GT(big.s->worst, 4096);
    ASSERT_EQ(0, big.bind()) << subtext();  // bound, never run: the areas are not real
    EXPECT_EQ(12 * iinfo[MOVEGEN_].estimate, big.s->estimate);
}

TEST(CodeSessions, DoublesWrittenIntoConversionsAllFindRoomAmongTheLiterals) {
    // Integer-typed conversions read their double from the literal pool too.
    Sess t;
    const double v[] = {1.5, -2.5, 40.25, 1e6, -7.75, 123.0, 0.5, 3e9};
    objloc r[8], sum = t.obj();
    for (int i = 0; i < 8; i++) {
        r[i] = t.obj();
        unsigned long bits;
        memcpy(&bits, &v[i], 8);
        t.e(i % 2 ? CVL_ : CVI_, i % 3 ? WG_TINT : WG_TPTR, WG_MIMMA, bits, 0, r[i]);
    }
    for (int i = 0; i < 8; i++) t.e(ADD_, WG_TINT, 0, sum, r[i], sum);
    t.e(TERM_, WG_TINT, 0, 0, 0, sum);
    ASSERT_EQ(0, t.bind()) << subtext();
    long want = 0;
    for (int i = 0; i < 8; i++) want += i % 2 ? std::lrint(v[i]) : static_cast<long>(v[i]);
    EXPECT_EQ(want, t.run());
}

TEST(CodeSessions, BadInstructionsAreRefusedWithWhatIsWrongAndLeaveNoCodeBehind) {
    ASSERT_EQ(0, hsgblinit());
    int before = execmaps();
    struct Case {
        const char* want;
        void (*make)(Sess&);
    };
    const Case cases[] = {
        {"outside its segment", [](Sess& t) { t.e(MOV_, WG_TINT, 0, 8 * 50, 0, t.obj()); }},
        {"outside its segment", [](Sess& t) { t.e(MOV_, WG_TINT, 0, t.obj(), 0, t.obj(1, true)); }},  // into a constant
        {"outside its segment", [](Sess& t) { t.e(MOV_, WG_TINT, 0, 3 * WG_CONSTSEG, 0, t.obj()); }},
        {"not defined", [](Sess& t) { t.e(BEQ_, WG_TINT, 0, t.obj(), t.obj(), 42); }},
        {"defined twice", [](Sess& t) {
             t.e(LABEL_, WG_TINT, 0, 0, 0, 5);
             t.e(LABEL_, WG_TINT, 0, 0, 0, 5);
         }},
        {"needs 2 IPARM_ and has 1", [](Sess& t) {
             t.e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, 0, 1, 0);
             t.e(MOVEGEN_, WG_TCHAR, 0, 0, 0, 0);
         }},
        {"nothing uses", [](Sess& t) { t.e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, 0, 1, 0); }},
        {"does not follow", [](Sess& t) {
             objloc x = t.obj();
             t.e(ADD_, WG_TDBL, 0, x, x, x);
             t.e(BTOVFL_, WG_TINT, 0, 0, 0, 1);
             t.e(LABEL_, WG_TINT, 0, 0, 0, 1);
         }},
        {"type 5", [](Sess& t) { t.e(ADD_, 5, 0, t.obj(), t.obj(), t.obj()); }},
        {"not constants", [](Sess& t) {
             objloc f = t.obj(1), p = t.obj();
             t.e(IPARM_, WG_TINT, WG_MIMMB, f, 8, 0);
             t.e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, 2, 8, 0);
             t.e(TRANS_, WG_TDBL, 0, p, 0, p);
         }},
        {"cannot convert", [](Sess& t) {
             objloc p = t.obj();
             t.e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, WG_FNATIVE, 8, 0);
             t.e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, WG_FNATIVE, 8, 0);
             t.e(TRANS_, WG_TDBL, 0, p, 0, p);
         }},
        {"a number of length 2", [](Sess& t) {
             objloc p = t.obj();
             t.e(IPARM_, WG_TINT, WG_MIMMB, p, 2, 0);
             t.e(IPARM_, WG_TINT, WG_MIMMB, p, 8, 0);
             t.e(MOVEGEN_, WG_TDBL, 0, 0, 0, 0);
         }},
    };
    for (const Case& c : cases) {
        Sess t;
        c.make(t);
        EXPECT_EQ(WG_RC_INTERNAL, t.bind()) << c.want;
        EXPECT_NE(std::string::npos, subtext().find(c.want)) << c.want;
        EXPECT_EQ(nullptr, wgentry(t.s));
        EXPECT_EQ(0, t.end());
    }
    EXPECT_EQ(before, execmaps());

    Sess t;
    for (int op : {0, -1, static_cast<int>(WG_NOPCODES), 1000}) {
        EXPECT_EQ(WG_RC_INTERNAL, wgemit(t.s, op, WG_TINT, 0, 0, 0, 0));
        EXPECT_NE(std::string::npos, subtext().find("unknown opcode"));
    }
    EXPECT_EQ(WG_RC_INTERNAL, wgbind(t.s));  // the stream is still open
    EXPECT_NE(std::string::npos, subtext().find("not closed"));
    objloc r = t.obj(7);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    ASSERT_EQ(0, t.bind());
    EXPECT_EQ(WG_RC_INTERNAL, wgemit(t.s, TERM_, WG_TINT, 0, 0, 0, r));
    EXPECT_EQ(WG_RC_INTERNAL, wgbind(t.s));
    EXPECT_NE(std::string::npos, subtext().find("already bound"));
    EXPECT_EQ(before + 1, execmaps());
    VGSEGHD* s = t.s;
    EXPECT_EQ(0, t.end());
    EXPECT_EQ(WG_RC_INTERNAL, wgexect(s));  // ended twice
    EXPECT_NE(std::string::npos, subtext().find("not an open code session"));
    EXPECT_EQ(before, execmaps());
}

TEST(CodeSessions, CodeIsNeverWritableAndExecutableAtOnce) {
    Sess t;
    objloc k = t.obj(41, true), r = t.obj();
    t.e(ADD_, WG_TINT, WG_MIMMB, k, 1, r);
    t.e(TERM_, WG_TINT, 0, 0, 0, r);
    ASSERT_EQ(0, t.bind());
    EXPECT_EQ(42, t.run());
    EXPECT_EQ("r-xp", perms(reinterpret_cast<void*>(wgentry(t.s))));
    EXPECT_EQ("rw-p", perms(wggudlp(t.s)));
    // Constants live with the code, where nothing can change them.
    EXPECT_EQ("r-xp", perms(t.s->segs[1].address));
}

// From here on every mprotect asking for execute fails with EACCES.
static bool refuseexec() {
    sock_filter f[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_mprotect, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, PROT_EXEC, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog prog{static_cast<unsigned short>(sizeof f / sizeof f[0]), f};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

TEST(CodeSessionsDeathTest, ABindWhoseCodeCannotBeMadeExecutableKeepsNoPointerIntoFreedMemory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Sess t;
            objloc r = t.obj(7);
            t.e(TERM_, WG_TINT, 0, 0, 0, r);
            if (!refuseexec()) _exit(3);
            wrcode rc = t.bind();
            if (rc == 0) _exit(4);
            if (subtext().find("mprotect") == std::string::npos) _exit(5);
            bool stale = t.s->block || t.s->basereg || t.s->rx || t.s->stcode || t.s->real_entry || t.s->entrypoint ||
                         t.s->code.c_start || t.s->code.firstStmt || t.s->labtab;
            for (const VGSEG& seg : t.s->segs) stale = stale || seg.address;
            if (stale || wggudlp(t.s) || wgentry(t.s)) _exit(6);
            _exit(t.end() == 0 ? 0 : 7);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(CodeSessions, TheTrapHandlerStaysUntilTheLastBoundSessionEnds) {
    ASSERT_EQ(0, hsgblinit());
    struct sigaction mine {}, old{}, now{};
    mine.sa_handler = [](int) {};
    sigemptyset(&mine.sa_mask);
    ASSERT_EQ(0, sigaction(SIGFPE, &mine, &old));
    auto current = [&] {
        sigaction(SIGFPE, nullptr, &now);
        return reinterpret_cast<void*>(now.sa_handler);
    };
    auto bound = [](Sess& t) {
        objloc r = t.obj(1);
        t.e(TERM_, WG_TINT, 0, 0, 0, r);
        EXPECT_EQ(0, t.bind());
    };
    {
        Sess a, b, unbound;
        bound(a);
        EXPECT_NE(reinterpret_cast<void*>(mine.sa_handler), current());
        bound(b);
        EXPECT_EQ(0, a.end());
        EXPECT_NE(reinterpret_cast<void*>(mine.sa_handler), current());
        EXPECT_EQ(0, unbound.end());
        EXPECT_NE(reinterpret_cast<void*>(mine.sa_handler), current());
        EXPECT_EQ(0, b.end());
        EXPECT_EQ(reinterpret_cast<void*>(mine.sa_handler), current());
    }
    sigaction(SIGFPE, &old, nullptr);
}

TEST(CodeSessions, ARowConversionProgramConvertsEveryColumnOfEveryRow) {
    int rowsize = 0;
    std::vector<wgrow::Col> cols = wgrow::layout(50, &rowsize);
    Sess t;
    wgrow::Block b;
    std::vector<wgref::Inst> code;
    ASSERT_EQ(0, wgrow::build(t.s, cols, &b, &code)) << subtext();
    const long nrows = 37;
    std::vector<unsigned char> in(nrows * rowsize), out(nrows * rowsize, 0), ref(nrows * rowsize, 0);
    wgrow::fill(in.data(), nrows, rowsize, cols);
    wgrow::setblock(t.s, b, in.data(), out.data(), nrows, rowsize);
    EXPECT_EQ(nrows, t.run());
    // Two blocks in a row: the offsets start again at 0.
    std::fill(out.begin(), out.end(), 0);
    EXPECT_EQ(nrows, t.run());
    for (long r = 0; r < nrows; r++) {
        for (const wgrow::Col& c : cols) {
            const unsigned char* o = &out[r * rowsize + c.pos];
            const unsigned char* i = &in[r * rowsize + c.pos];
            if (!c.number) {
                ASSERT_EQ(0, memcmp(o, i, c.len)) << "row " << r << " column at " << c.pos;
                continue;
            }
            double d;
            memcpy(&d, o, 8);
            ASSERT_EQ(static_cast<double>(r) * 1.5 - c.pos, d) << "row " << r << " column at " << c.pos;
        }
    }
    // The reference interpreter agrees byte for byte.
    wgref::Machine m;
    m.code = code;
    m.seg0.assign(10, 0);
    memcpy(m.seg0.data(), wggudlp(t.s), 80);
    m.seg0[b.baseto / 8] = reinterpret_cast<uint64_t>(ref.data());
    EXPECT_EQ(nrows, m.run().ret);
    EXPECT_EQ(0, memcmp(ref.data(), out.data(), out.size()));
}

// Two addresses from one base and offset, one in its register as it is, the
// other with a displacement still to add: the overlap test must count the
// displacements, or overlapping areas lose their forward copy.
TEST(CodeSessions, OverlappingCharacterMovesKeepTheForwardCopyWhateverTheRegistersHold) {
    struct Case {
        long pd, qd;  // final displacements of p and q from base + offset
        bool qtop;    // q is the source, p the target
        long sl, tl;
    };
    const Case cases[] = {{5, 0, true, 20, 20}, {0, 5, false, 20, 20}, {0, 5, true, 20, 20}, {5, 0, true, 12, 26},
                          {30, 0, true, 20, 20}, {3, 3, true, 16, 16}, {9, 1, false, 64, 64},
                          {30, 25, true, 20, 20}, {30, 25, false, 20, 20}, {30, 22, true, 20, 28}};
    for (const Case& c : cases) {
        unsigned char area[192], want[192];
        for (int i = 0; i < 192; i++) area[i] = static_cast<unsigned char>('!' + i % 90);
        memcpy(want, area, sizeof(area));
        Sess t;
        objloc base = t.obj(reinterpret_cast<long>(area)), off = t.obj(7), p = t.obj(), q = t.obj(), x = t.obj();
        t.e(ADDR_, WG_TCHAR, 0, base, off, p);
        t.e(ADDR_, WG_TCHAR, WG_MIMMB, p, 40, p);
        t.e(MOV_, WG_TPTR, 0, p, 0, x);
        t.e(ADDR_, WG_TCHAR, WG_MIMMB, p, static_cast<unsigned long>(c.pd - 40), p);
        t.e(ADDR_, WG_TCHAR, 0, base, off, q);
        t.e(ADDR_, WG_TCHAR, WG_MIMMB, q, static_cast<unsigned long>(c.qd), q);
        objloc from = c.qtop ? q : p, to = c.qtop ? p : q;
        t.e(IPARM_, WG_TINT, WG_MIMMB, from, static_cast<unsigned long>(c.sl), 0);
        t.e(IPARM_, WG_TINT, WG_MIMMB, to, static_cast<unsigned long>(c.tl), 0);
        t.e(MOVEGEN_, WG_TCHAR, 0, 0, 0, 0);
        t.e(TERM_, WG_TINT, 0, 0, 0, x);
        ASSERT_EQ(0, t.bind()) << subtext();
        EXPECT_EQ(reinterpret_cast<long>(area) + 47, t.run());
        long src = 7 + (c.qtop ? c.qd : c.pd), dst = 7 + (c.qtop ? c.pd : c.qd);
        for (long i = 0; i < c.tl; i++) want[dst + i] = i < c.sl ? want[src + i] : ' ';
        EXPECT_EQ(0, memcmp(area, want, sizeof(area))) << "from +" << src << " to +" << dst << ", " << c.sl << " to " << c.tl;
        EXPECT_EQ(reinterpret_cast<long>(area) + 7 + c.pd, t.at(p));
        EXPECT_EQ(reinterpret_cast<long>(area) + 7 + c.qd, t.at(q));
    }
}

// Seeded random programs over every opcode, run as generated code and by
// the reference interpreter: the objects, the areas they write and the
// result must come out byte for byte the same, traps included.
#include <gtest/gtest.h>
#include <bit>
#include <cmath>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>
#include "hs/hs.h"
#include "ssup/vgint.h"
#include "ssup/xp.h"
#include "wgprog.h"
#include "wgutil.h"

using namespace vrta;
using namespace wgprog;
using wgtest::callcode;
using wgtest::subtext;

namespace {

std::string hexdiff(const uint64_t* x, const uint64_t* y, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; i++) {
        if (x[i] == y[i]) continue;
        char b[96];
        snprintf(b, sizeof(b), " obj %zu: code %016lx ref %016lx;", i, static_cast<unsigned long>(x[i]), static_cast<unsigned long>(y[i]));
        s += b;
    }
    return s;
}

std::string listing(const Prog& p) {
    std::string s = "objects:";
    for (uint64_t v : p.seg0) (s += ' ') += std::to_string(static_cast<long>(v));
    s += "\nconstants:";
    for (uint64_t v : p.seg1) (s += ' ') += std::to_string(static_cast<long>(v));
    s += "\n";
    for (size_t i = 0; i < p.code.size(); i++) {
        const wgref::Inst& in = p.code[i];
        char b[160];
        snprintf(b, sizeof(b), "%4zu %.9s t=%d m=%lx r=%lx a=%lx b=%lx\n", i, opname[in.op], in.type, in.mod, in.r, in.a, in.b);
        s += b;
    }
    return s;
}

void fillbuf(std::mt19937_64& rng) {
    static const char text[] = "  12.5  -3e2 .A  _ 7 abcXYZ 1e999 0x10  . ";
    for (int i = 0; i < BUFSZ; i++) buf[i] = static_cast<unsigned char>(rng());
    for (int k = 0; k < NP; k++) {
        memcpy(buf + AREA * k + 64, text, sizeof(text) - 1);
        double d = std::uniform_real_distribution<double>(-1e3, 1e3)(rng);
        memcpy(buf + AREA * k + 128, &d, 8);
    }
}

void tables() {
    for (int i = 0; i < 256; i++) {
        upper[i] = static_cast<unsigned char>(i >= 'a' && i <= 'z' ? i - 32 : i);
        collate[i] = static_cast<unsigned char>(255 - i);
    }
}

// Runs program number prog (optionally cut short by a TERM_ put in before
// instruction cut) both ways; returns what differs, or nothing. *ran: it
// went to its end rather than being given up by the exception function.
std::string runone(unsigned prog, long cut, bool* ran) {
    Gen gen(prog);
    Prog p = gen.make();
    if (cut >= 0) p.code.insert(p.code.begin() + cut, wgref::Inst{TERM_, WG_TINT, 0, o0(0), 0, 0});
    std::mt19937_64 rng(prog * 7);
    exceptmode = prog % 7 == 3 ? 1 : prog % 11 == 5 ? 2 : 0;
    long attn = prog % 5 == 1;
    fillbuf(rng);
    std::vector<unsigned char> before(buf, buf + BUFSZ);
    std::string where = "program " + std::to_string(prog) + ": ";

    Bound b;
    wrcode rc = bindprog(p, b);
    if (rc) {
        std::string t = where + hsstrer(rc) + " " + subtext() + "\n" + listing(p);
        if (b.s) wgexect(b.s);
        return t;
    }
    if (attn) wgattn(b.s);
    int fatal = 0;
    long ret = callcode(wgentry(b.s), &fatal);
    std::vector<uint64_t> seg(p.seg0.size());
    memcpy(seg.data(), wggudlp(b.s), 8 * seg.size());
    std::vector<unsigned char> after(buf, buf + BUFSZ);
    if (wgexect(b.s) != 0) return where + "wgexect failed";

    memcpy(buf, before.data(), BUFSZ);
    wgref::Machine m;
    m.code = p.code;
    m.seg0 = p.seg0;
    m.seg1 = p.seg1;
    m.except = testexcept;
    m.attn = attn;
    m.labaddr = b.labaddr;
    m.trace = cut < 0 && getenv("VRTA_WGTRACE");
    wgref::Outcome o = m.run();
    *ran = !fatal;
    if (o.hung) return where + "the reference did not end";
    if (o.fatal != (fatal != 0))
        return where + "gave up " + std::to_string(fatal) + ", reference " + std::to_string(o.fatal) + "\n" + listing(p);
    if (fatal) return fatal == WG_RC_TRAP ? "" : where + "gave up with " + std::to_string(fatal);
    std::string diff = hexdiff(seg.data(), m.seg0.data(), seg.size());
    if (o.ret != ret) diff += " returned " + std::to_string(ret) + ", reference " + std::to_string(o.ret) + ";";
    if (memcmp(after.data(), buf, BUFSZ) != 0) diff += " areas differ;";
    return diff.empty() ? "" : where + diff + "\n" + listing(p);
}

}  // namespace

TEST(GeneratedCode, RandomProgramsMatchTheReferenceInterpreter) {
    const char* lng = getenv("VRTA_LONG");
    int count = lng && *lng == '1' ? 20000 : 1000;
    unsigned seed = 1000;
    // VRTA_WGSEED=n runs program n alone and logs its machine code.
    if (const char* one = getenv("VRTA_WGSEED")) {
        seed = static_cast<unsigned>(atoi(one));
        count = 1;
        wgsetopt("D");
    }
    ASSERT_EQ(0, hsgblinit());
    tables();
    int completed = 0;
    for (int n = 0; n < count; n++) {
        bool ran = false;
        std::string e = runone(seed + n, -1, &ran);
        if (!e.empty() && count == 1) {
            // Cut the program short at each place in turn to find the first
            // instruction whose result differs.
            wgsetopt("");
            for (long cut = 1; cut < 400; cut++) {
                bool r2;
                int prevop = Gen(seed).make().code.at(cut - 1).op;
                if (prevop == IPARM_ || prevop == PARM_ || prevop == ADD_ || prevop == SUB_ || prevop == MUL_ || prevop == NEG_)
                    continue;  // a TERM_ cannot come between an instruction and its user
                std::string e2 = runone(seed, cut, &r2);
                if (!e2.empty()) {
                    ADD_FAILURE() << "first difference before instruction " << cut << ": " << e2.substr(0, e2.find('\n'));
                    break;
                }
            }
        }
        ASSERT_EQ("", e);
        completed += ran;
    }
    if (count == 1) return;
    // Most runs go to their end: the comparison is of real results; and the
    // programs used every instruction and met every kind of trap.
    EXPECT_GT(completed, count / 2);
    for (int op = 1; op < WG_NOPCODES; op++) EXPECT_GT(opseen[op], 0) << opname[op];
    for (int cause : {1, 2, 5}) EXPECT_GT(causeseen[cause], 0) << "cause " << cause;
}

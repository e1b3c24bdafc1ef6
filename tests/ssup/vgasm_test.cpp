// The assembler and the decoder: every row of the instruction table in every
// form it has, known encodings of the published instruction set, generated
// code read back whole, and branches at the edge of their short form.
#include <gtest/gtest.h>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#include "ssup/vgasm.h"
#include "wgprog.h"
#include "wgutil.h"

using namespace vrta;

namespace {

std::string hex(const unsigned char* p, int n) {
    std::string s;
    char b[4];
    for (int i = 0; i < n; i++) {
        snprintf(b, sizeof(b), "%02X ", p[i]);
        s += b;
    }
    return s;
}

// Operands as the generator writes them: what comes back must be the same.
bool same(const OPERAND& x, const OPERAND& y) { return x.type == y.type && (x.type == OT_I || x.type == OT_L || x.type == OT_A || (x.reg == y.reg && (x.sib & 0x8F) == (y.sib & 0x8F))); }

// The forms of a row, with random registers, bases, displacements and
// immediates.
std::vector<INST> forms(short row, std::mt19937& rng) {
    auto gp = [&] { return static_cast<int>(rng() % 16); };
    auto base = [&] {
        int b = static_cast<int>(rng() % 17);
        return b == 16 ? VG_RIP : b;
    };
    auto xm = [&] { return XMM0 + static_cast<int>(rng() % 16); };
    auto disp = [&] {
        static const int d[] = {0, 8, -8, 127, -128, 128, 100000, -100000};
        return d[rng() % 8];
    };
    auto mem = [&] {
        OPERAND m = opm(base());
        if (m.reg != VG_RIP && rng() % 3 == 0) {
            int i;
            do i = gp(); while (i == RSP);
            m = opmi(m.reg, i);
        }
        return m;
    };
    auto I = [&](OPERAND d, OPERAND s, long imm = 0, int flags = 0) {
        INST in{};
        in.opcode = row;
        in.dest = d;
        in.source = s;
        in.d.imm = imm;
        in.flags = flags;
        in.add_disp = (d.type == OT_M || s.type == OT_M) ? disp() : 0;
        return in;
    };
    const INSTINFO& t = insts[row];
    int cc = static_cast<int>(rng() % 16);
    OPERAND none{};
    std::vector<INST> v;
    switch (t.inst_case) {
    case IC_NONE: v.push_back(I(none, none)); break;
    case IC_ALU:
        v.push_back(I(opr(gp()), opr(gp())));
        v.push_back(I(opr(gp()), mem()));
        v.push_back(I(mem(), opr(gp())));
        v.push_back(I(opr(gp()), opi(), -5));
        v.push_back(I(mem(), opi(), 70000));
        v.push_back(I(opr(gp()), opi(), 9, INSTF_W32));
        break;
    case IC_MOV:
        v.push_back(I(opr(gp()), opr(gp())));
        v.push_back(I(opr(gp()), mem()));
        v.push_back(I(mem(), opr(gp())));
        v.push_back(I(opr(gp()), opi(), 0x12345678));
        v.push_back(I(opr(gp()), opi(), -2));
        v.push_back(I(opr(gp()), opi(), 0x123456789ABCL));
        v.push_back(I(mem(), opi(), -1));
        v.push_back(I(opr(RAX), OPERAND{OT_A, 0, 0, 0}, 0x7FFF12345678L));
        v.push_back(I(OPERAND{OT_A, 0, 0, 0}, opr(RAX), 0x7FFF12345678L));
        break;
    case IC_TEST:
        v.push_back(I(opr(gp()), opr(gp())));
        v.push_back(I(mem(), opr(gp())));
        v.push_back(I(opr(gp()), opi(), 0x100));
        break;
    case IC_UNARY:
    case IC_SETCC:
        v.push_back(I(opr(gp()), none, 0, cc));
        v.push_back(I(mem(), none, 0, cc));
        break;
    case IC_IMUL:
    case IC_CMOV:
    case IC_MOVZX:
        v.push_back(I(opr(gp()), opr(gp()), 0, cc));
        v.push_back(I(opr(gp()), mem(), 0, cc));
        break;
    case IC_LEA: v.push_back(I(opr(gp()), mem())); break;
    case IC_XCHG:
        v.push_back(I(opr(gp()), opr(gp())));
        v.push_back(I(mem(), opr(gp()), 0, INSTF_W32));
        break;
    case IC_SHIFT:
    case IC_BT: v.push_back(I(opr(gp()), opi(), static_cast<long>(rng() % 64))); break;
    case IC_PUSH:
    case IC_BSWAP: v.push_back(I(opr(gp()), none)); break;
    case IC_CALL:
        v.push_back(I(OPERAND{OT_L, 0, 0, 0}, none, -1000));
        v.push_back(I(opr(gp()), none));
        v.push_back(I(mem(), none));
        break;
    case IC_JMP:
    case IC_JCC:
        v.push_back(I(OPERAND{OT_L, 0, 0, 0}, none, 5000, cc));
        v.push_back(I(OPERAND{OT_L, 0, 0, 0}, none, -128, cc | INSTF_SHORT));
        v.push_back(I(OPERAND{OT_L, 0, 0, 0}, none, 127, cc | INSTF_SHORT));
        if (t.inst_case == IC_JMP) v.push_back(I(opr(gp()), none));
        break;
    case IC_SSE:
        v.push_back(I(opx(xm()), opx(xm())));
        v.push_back(I(opx(xm()), mem()));
        break;
    case IC_MOVSD:
        v.push_back(I(opx(xm()), opx(xm())));
        v.push_back(I(opx(xm()), mem()));
        v.push_back(I(mem(), opx(xm()), 0, INSTF_STORE));
        break;
    case IC_CVTI:
        v.push_back(I(opx(xm()), opr(gp())));
        v.push_back(I(opx(xm()), mem()));
        break;
    case IC_CVTX:
        v.push_back(I(opr(gp()), opx(xm())));
        v.push_back(I(opr(gp()), mem()));
        break;
    case IC_MOVQ:
        v.push_back(I(opx(xm()), opr(gp())));
        v.push_back(I(opr(gp()), opx(xm()), 0, INSTF_STORE));
        break;
    case IC_MXCSR: v.push_back(I(mem(), none)); break;
    default: break;
    }
    return v;
}

}  // namespace

TEST(Assembler, EveryRowOfTheTableReadsBackAsItWasWritten) {
    std::mt19937 rng(7);
    int rows = 0, checked = 0;
    for (short row = 0; row < VG_NINSTS; row++) {
        if (insts[row].inst_case == IC_UNUSED) continue;
        rows++;
        for (int round = 0; round < 20; round++) {
            for (const INST& in : forms(row, rng)) {
                unsigned char b[32], b2[32];
                int n = gencode(nullptr, &in, 1, b);
                ASSERT_GT(n, 0) << insts[row].name;
                INST back;
                ASSERT_EQ(n, vgdecode(b, n, &back)) << insts[row].name << ": " << hex(b, n);
                EXPECT_EQ(row, back.opcode) << insts[row].name << ": " << hex(b, n);
                EXPECT_TRUE(same(in.dest, back.dest) && same(in.source, back.source)) << insts[row].name << ": " << hex(b, n);
                if (in.dest.type == OT_M || in.source.type == OT_M) {
                    EXPECT_EQ(in.add_disp, back.add_disp) << hex(b, n);
                }
                if (in.source.type == OT_I || in.dest.type == OT_L || in.source.type == OT_A || in.dest.type == OT_A) {
                    EXPECT_EQ(in.d.imm, back.d.imm) << insts[row].name << ": " << hex(b, n);
                }
                // Read back and written again: the very same bytes.
                ASSERT_EQ(n, gencode(nullptr, &back, 1, b2));
                EXPECT_EQ(hex(b, n), hex(b2, n));
                char text[96];
                ASSERT_EQ(n, disasm(b, n, text, sizeof(text)));
                EXPECT_EQ(0, strncmp(text + ((insts[row].flags & IN_REP) ? 4 : 0), insts[row].name, strlen(insts[row].name))) << text;
                checked++;
            }
        }
    }
    EXPECT_GE(rows, 55);
    EXPECT_GT(checked, 2000);
    // Rows named in the table as the generator uses them.
    EXPECT_STREQ("ADD", insts[6].name);
    EXPECT_STREQ("CALL", insts[17].name);
    EXPECT_STREQ("CMP", insts[25].name);
    EXPECT_STREQ("JMP", insts[51].name);
    EXPECT_STREQ("MOV", insts[75].name);
    EXPECT_STREQ("MOVS", insts[76].name);
    EXPECT_STREQ("POP", insts[87].name);
    EXPECT_STREQ("PUSH", insts[90].name);
    EXPECT_STREQ("RET", insts[103].name);
    EXPECT_STREQ("STOS", insts[124].name);
    EXPECT_STREQ("SUB", insts[126].name);
    EXPECT_STREQ("TEST", insts[127].name);
    EXPECT_STREQ("XOR", insts[136].name);
    EXPECT_STREQ("MOVSD", insts[299].name);
}

TEST(Assembler, KnownEncodingsOfThePublishedInstructionSet) {
    struct Case {
        INST in;
        const char* bytes;
    };
    auto I = [](short op, OPERAND d, OPERAND s, long imm = 0, int disp = 0, int flags = 0) {
        INST in{};
        in.opcode = op;
        in.dest = d;
        in.source = s;
        in.d.imm = imm;
        in.add_disp = disp;
        in.flags = flags;
        return in;
    };
    OPERAND none{};
    const Case cases[] = {
        {I(I_ADD, opr(RAX), opr(R9)), "49 03 C1 "},
        {I(I_ADD, opr(R12), opm(RSP), 0, 8), "4C 03 64 24 08 "},
        {I(I_SUB, opm(R13), opr(RDX)), "49 29 55 00 "},
        {I(I_CMP, opr(RBX), opi(), 1000), "48 81 FB E8 03 00 00 "},
        {I(I_MOV, opr(R10), opi(), 0x123456789ABCL), "49 BA BC 9A 78 56 34 12 00 00 "},
        {I(I_MOV, opr(RCX), opi(), -5), "48 C7 C1 FB FF FF FF "},
        {I(I_LEA, opr(RDI), opmi(RSI, R11), 0, 300), "4A 8D BC 1E 2C 01 00 00 "},
        {I(I_MOVSD, opx(XMM9), opm(VG_RIP), 0, -20), "F2 44 0F 10 0D EC FF FF FF "},
        {I(I_MOVSD, opm(RBP), opx(XMM1), 0, -8, INSTF_STORE), "F2 0F 11 4D F8 "},
        {I(I_UCOMISD, opx(XMM3), opm(RAX)), "66 0F 2E 18 "},
        {I(I_CVTTSD2SI, opr(R15), opx(XMM7)), "F2 4C 0F 2C FF "},
        {I(I_MOVQ, opx(XMM5), opr(RDX)), "66 48 0F 6E EA "},
        {I(I_SETCC, opr(RSI), none, 0, 0, CC_A), "40 0F 97 C6 "},
        {I(I_JCC, OPERAND{OT_L, 0, 0, 0}, none, -3, 0, CC_L | INSTF_SHORT), "7C FD "},
        {I(I_JMP, opr(R15), none), "41 FF E7 "},
        {I(I_PUSH, opr(R12), none), "41 54 "},
        {I(I_IDIV, opr(R8), none), "49 F7 F8 "},
        {I(I_LDMXCSR, opm(VG_RIP), none, 0, 4), "0F AE 15 04 00 00 00 "},
        {I(I_MOVS, none, none), "F3 A4 "},
        {I(I_STOS, none, none), "F3 AA "},
        {I(I_CQO, none, none), "48 99 "},
    };
    for (const Case& c : cases) {
        unsigned char b[32];
        int n = gencode(nullptr, &c.in, 1, b);
        EXPECT_EQ(c.bytes, hex(b, n)) << insts[c.in.opcode].name;
    }
    // What the table does not have is refused, not guessed at.
    INST bad = I(I_SHL, opr(RAX), opi(), 64);
    unsigned char b[32];
    EXPECT_EQ(-1, gencode(nullptr, &bad, 1, b));
    bad = I(I_JMP, OPERAND{OT_L, 0, 0, 0}, none, 128, 0, INSTF_SHORT);
    EXPECT_EQ(-1, gencode(nullptr, &bad, 1, b));
    const unsigned char junk[] = {0x0F, 0x0B};  // UD2: none of ours
    INST back;
    EXPECT_EQ(-1, vgdecode(junk, 2, &back));
}

TEST(Assembler, GeneratedCodeReadsBackWholeAndTheSame) {
    ASSERT_EQ(0, hsgblinit());
    long decoded = 0;
    for (unsigned prog = 5000; prog < 5150; prog++) {
        wgprog::Prog p = wgprog::Gen(prog).make();
        wgprog::Bound b;
        ASSERT_EQ(0, wgprog::bindprog(p, b)) << wgtest::subtext();
        for (unsigned char* q = b.s->stcode; q < b.s->curcode;) {
            INST in;
            int n = vgdecode(q, static_cast<int>(b.s->curcode - q), &in);
            ASSERT_GT(n, 0) << "program " << prog << " at " << q - b.s->stcode << ": " << hex(q, 8);
            unsigned char again[32];
            ASSERT_EQ(n, gencode(nullptr, &in, 1, again));
            ASSERT_EQ(hex(q, n), hex(again, n)) << "program " << prog << " at " << q - b.s->stcode;
            q += n;
            decoded++;
        }
        // Code never grows past the sum of the worst cases.
        EXPECT_LE(b.s->codesize, b.s->worst + 256 + 350 + 1024);
        EXPECT_EQ(0, wgexect(b.s));
    }
    EXPECT_GT(decoded, 50000);
}

TEST(Assembler, ABranchAtTheEdgeOfTheShortFormGetsTheRoomItNeeds) {
    // A loop whose body is n4 four-byte and n7 seven-byte additions puts its
    // backward branch at every distance; look for the two at the edge.
    bool at128 = false, at129 = false;
    for (int n4 = 0; n4 < 40 && !(at128 && at129); n4++) {
        for (int n7 = 0; n7 < 6; n7++) {
            wgtest::Sess t;
            objloc c = t.obj(3), x = t.obj(0);
            t.e(LABEL_, WG_TINT, 0, 0, 0, 1);
            for (int i = 0; i < n4; i++) t.e(ADD_, WG_TINT, WG_MIMMB, x, 1, x);
            for (int i = 0; i < n7; i++) t.e(ADD_, WG_TINT, WG_MIMMB, x, 1000, x);
            t.e(SUB_, WG_TINT, WG_MIMMB, c, 1, c);
            t.e(BGT_, WG_TINT, WG_MIMMB, c, 0, 1);
            t.e(TERM_, WG_TINT, 0, 0, 0, x);
            ASSERT_EQ(0, t.bind()) << wgtest::subtext();
            EXPECT_EQ(3 * (n4 + 1000 * n7), t.run());
            // The loop's branch: the only backward conditional one.
            for (unsigned char* q = t.s->real_entry; q < t.s->curcode;) {
                INST in;
                int n = vgdecode(q, static_cast<int>(t.s->curcode - q), &in);
                ASSERT_GT(n, 0);
                if (in.opcode == I_JCC && in.d.imm < 0) {
                    bool shortform = in.flags & INSTF_SHORT;
                    long d = shortform ? in.d.imm : in.d.imm + 4;  // counted from a short form's end
                    EXPECT_EQ(d >= -128, shortform) << "distance " << d;
                    at128 |= d == -128;
                    at129 |= d == -129;
                }
                q += n;
            }
        }
    }
    EXPECT_TRUE(at128);
    EXPECT_TRUE(at129);
}

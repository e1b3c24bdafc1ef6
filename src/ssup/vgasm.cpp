// The instruction table and the encoder. Rows follow the machine's published
// encoding; a row names the mnemonic and says how its operands encode, so that
// the generator asks for "ADD register, memory" and never writes bytes itself.
#include "ssup/vgasm.h"
#include <cstring>
#include "ssup/vgint.h"

namespace vrta {

namespace {

constexpr INSTINFO row(const char* name, int num_op, int op1, int op2, int op3, int ic, unsigned flags = 0) {
    return INSTINFO{name, static_cast<unsigned char>(num_op), static_cast<unsigned char>(op1),
                    static_cast<unsigned char>(op2), static_cast<unsigned char>(op3),
                    static_cast<unsigned char>(ic), 0, 0, 0, 0, 0, flags};
}

// Rows not used by this back end stay empty.
struct Table {
    INSTINFO t[VG_NINSTS];
    constexpr Table() : t{} {
        for (INSTINFO& r : t) r = row("", 0, 0, 0, 0, IC_UNUSED);
        t[I_ADD] = row("ADD", 2, 0x03, 0x01, 0, IC_ALU);
        t[I_AND] = row("AND", 2, 0x23, 0x21, 4, IC_ALU);
        t[I_BSWAP] = row("BSWAP", 1, 0x0F, 0xC8, 0, IC_BSWAP, IN_W);
        t[I_BT] = row("BT", 2, 0x0F, 0xBA, 4, IC_BT, IN_W);
        t[I_BTC] = row("BTC", 2, 0x0F, 0xBA, 7, IC_BT, IN_W);
        t[I_BTR] = row("BTR", 2, 0x0F, 0xBA, 6, IC_BT, IN_W);
        t[I_BTS] = row("BTS", 2, 0x0F, 0xBA, 5, IC_BT, IN_W);
        t[I_CALL] = row("CALL", 1, 0xE8, 0xFF, 2, IC_CALL, IN_NOW);
        t[I_CMOV] = row("CMOV", 2, 0x0F, 0x40, 0, IC_CMOV, IN_W);
        t[I_CMP] = row("CMP", 2, 0x3B, 0x39, 7, IC_ALU);
        t[I_CQO] = row("CQO", 0, 0x99, 0, 0, IC_NONE, IN_W);
        t[I_DEC] = row("DEC", 1, 0xFF, 0, 1, IC_UNARY);
        t[I_IDIV] = row("IDIV", 1, 0xF7, 0, 7, IC_UNARY);
        t[I_IMUL] = row("IMUL", 2, 0x0F, 0xAF, 0, IC_IMUL);
        t[I_INC] = row("INC", 1, 0xFF, 0, 0, IC_UNARY);
        t[I_JCC] = row("J", 1, 0x70, 0x80, 0, IC_JCC, IN_NOW);
        t[I_JMP] = row("JMP", 1, 0xEB, 0xE9, 4, IC_JMP, IN_NOW);
        t[I_LEA] = row("LEA", 2, 0x8D, 0, 0, IC_LEA, IN_W);
        t[I_MOV] = row("MOV", 2, 0x8B, 0x89, 0xC7, IC_MOV);
        t[I_MOVS] = row("MOVS", 0, 0xA4, 0, 0, IC_NONE, IN_REP | IN_NOW);
        t[I_MOVZX] = row("MOVZX", 2, 0x0F, 0xB6, 0, IC_MOVZX, IN_NOW);
        t[I_MUL] = row("MUL", 1, 0xF7, 0, 4, IC_UNARY);
        t[I_NEG] = row("NEG", 1, 0xF7, 0, 3, IC_UNARY);
        t[I_NOP] = row("NOP", 0, 0x90, 0, 0, IC_NONE, IN_NOW);
        t[I_NOT] = row("NOT", 1, 0xF7, 0, 2, IC_UNARY);
        t[I_OR] = row("OR", 2, 0x0B, 0x09, 1, IC_ALU);
        t[I_POP] = row("POP", 1, 0x58, 0, 0, IC_PUSH, IN_NOW);
        t[I_PUSH] = row("PUSH", 1, 0x50, 0, 0, IC_PUSH, IN_NOW);
        t[I_RET] = row("RET", 0, 0xC3, 0, 0, IC_NONE, IN_NOW);
        t[I_SAR] = row("SAR", 2, 0xC1, 0, 7, IC_SHIFT);
        t[I_SETCC] = row("SET", 1, 0x0F, 0x90, 0, IC_SETCC, IN_NOW);
        t[I_SHL] = row("SHL", 2, 0xC1, 0, 4, IC_SHIFT);
        t[I_SHR] = row("SHR", 2, 0xC1, 0, 5, IC_SHIFT);
        t[I_STOS] = row("STOS", 0, 0xAA, 0, 0, IC_NONE, IN_REP | IN_NOW);
        t[I_SUB] = row("SUB", 2, 0x2B, 0x29, 5, IC_ALU);
        t[I_TEST] = row("TEST", 2, 0x85, 0xF7, 0, IC_TEST);
        t[I_XCHG] = row("XCHG", 2, 0x87, 0, 0, IC_XCHG);
        t[I_XOR] = row("XOR", 2, 0x33, 0x31, 6, IC_ALU);
        t[I_ADDSD] = row("ADDSD", 2, 0xF2, 0x0F, 0x58, IC_SSE);
        t[I_ANDPD] = row("ANDPD", 2, 0x66, 0x0F, 0x54, IC_SSE);
        t[I_COMISD] = row("COMISD", 2, 0x66, 0x0F, 0x2F, IC_SSE);
        t[I_CVTSD2SI] = row("CVTSD2SI", 2, 0xF2, 0x0F, 0x2D, IC_CVTX, IN_W);
        t[I_CVTSI2SD] = row("CVTSI2SD", 2, 0xF2, 0x0F, 0x2A, IC_CVTI, IN_W);
        t[I_CVTTSD2SI] = row("CVTTSD2SI", 2, 0xF2, 0x0F, 0x2C, IC_CVTX, IN_W);
        t[I_DIVSD] = row("DIVSD", 2, 0xF2, 0x0F, 0x5E, IC_SSE);
        t[I_LDMXCSR] = row("LDMXCSR", 1, 0x0F, 0xAE, 2, IC_MXCSR, IN_NOW);
        t[I_MAXSD] = row("MAXSD", 2, 0xF2, 0x0F, 0x5F, IC_SSE);
        t[I_MINSD] = row("MINSD", 2, 0xF2, 0x0F, 0x5D, IC_SSE);
        t[I_MOVAPD] = row("MOVAPD", 2, 0x66, 0x0F, 0x28, IC_SSE);
        t[I_MOVQ] = row("MOVQ", 2, 0x66, 0x0F, 0x6E, IC_MOVQ, IN_W);
        t[I_MOVSD] = row("MOVSD", 2, 0xF2, 0x0F, 0x10, IC_MOVSD);
        t[I_MULSD] = row("MULSD", 2, 0xF2, 0x0F, 0x59, IC_SSE);
        t[I_SQRTSD] = row("SQRTSD", 2, 0xF2, 0x0F, 0x51, IC_SSE);
        t[I_STMXCSR] = row("STMXCSR", 1, 0x0F, 0xAE, 3, IC_MXCSR, IN_NOW);
        t[I_SUBSD] = row("SUBSD", 2, 0xF2, 0x0F, 0x5C, IC_SSE);
        t[I_UCOMISD] = row("UCOMISD", 2, 0x66, 0x0F, 0x2E, IC_SSE);
        t[I_XORPD] = row("XORPD", 2, 0x66, 0x0F, 0x57, IC_SSE);
    }
};

constexpr Table table;

bool fits8(long v) { return v >= -128 && v <= 127; }
bool fits32(long v) { return v >= INT32_MIN && v <= INT32_MAX; }

// One instruction being laid down.
struct Enc {
    unsigned char b[32];
    int n = 0;
    void put(int v) { b[n++] = static_cast<unsigned char>(v); }
    void put32(long v) {
        for (int i = 0; i < 4; i++) put(static_cast<int>((v >> (8 * i)) & 0xFF));
    }
    void put64(long v) {
        for (int i = 0; i < 8; i++) put(static_cast<int>((v >> (8 * i)) & 0xFF));
    }
};

int regno(const OPERAND& o) { return o.reg; }
bool isreg(const OPERAND& o) { return o.type == OT_R || o.type == OT_X; }
bool ismem(const OPERAND& o) { return o.type == OT_M; }
bool isrm(const OPERAND& o) { return isreg(o) || ismem(o); }

// Prefix, REX and the ModRM part for "reg field, r/m operand". byteop: the
// r/m (or the reg field, for byte stores) is a byte register and needs a REX
// to reach SPL..DIL.
void prefixes(Enc& e, int legacy, bool w, int regfield, const OPERAND* rm, bool byterm) {
    if (legacy) e.put(legacy);
    int rex = w ? 8 : 0;
    if (regfield & 8) rex |= 4;
    if (rm) {
        if (ismem(*rm)) {
            if (rm->reg != VG_RIP && (rm->reg & 8)) rex |= 1;
            if ((rm->sib & 0x80) && (rm->sib & 8)) rex |= 2;
        } else if (regno(*rm) & 8) {
            rex |= 1;
        }
        if (byterm && isreg(*rm) && regno(*rm) >= 4 && regno(*rm) < 8) rex |= 0x40;
    }
    if (rex) e.put(0x40 | (rex & 0xF));
}

void modrm(Enc& e, int regfield, const OPERAND& rm, int disp) {
    int r = (regfield & 7) << 3;
    if (isreg(rm)) {
        e.put(0xC0 | r | (regno(rm) & 7));
        return;
    }
    if (rm.reg == VG_RIP) {
        e.put(0x05 | r);
        e.put32(disp);
        return;
    }
    int base = rm.reg & 7;
    int mod = (disp == 0 && base != 5) ? 0 : fits8(disp) ? 1 : 2;
    if (rm.sib & 0x80) {
        e.put((mod << 6) | r | 4);
        e.put(((rm.sib & 7) << 3) | base);
    } else if (base == 4) {
        e.put((mod << 6) | r | 4);
        e.put(0x24);
    } else {
        e.put((mod << 6) | r | base);
    }
    if (mod == 1) e.put(disp & 0xFF);
    else if (mod == 2) e.put32(disp);
}

// "op reg, r/m" with the opcode bytes given.
void regrm(Enc& e, int legacy, bool w, const unsigned char* op, int nop, int reg, const OPERAND& rm, int disp,
           bool byterm = false) {
    prefixes(e, legacy, w, reg, &rm, byterm);
    for (int i = 0; i < nop; i++) e.put(op[i]);
    modrm(e, reg, rm, disp);
}

void regrm1(Enc& e, int legacy, bool w, int op, int reg, const OPERAND& rm, int disp, bool byterm = false) {
    unsigned char b[1] = {static_cast<unsigned char>(op)};
    regrm(e, legacy, w, b, 1, reg, rm, disp, byterm);
}

void regrm2(Enc& e, int legacy, bool w, int op, int reg, const OPERAND& rm, int disp, bool byterm = false) {
    unsigned char b[2] = {0x0F, static_cast<unsigned char>(op)};
    regrm(e, legacy, w, b, 2, reg, rm, disp, byterm);
}

// Encodes one instruction; false when the table has no such form.
bool encode1(const INST& in, Enc& e) {
    if (in.opcode < 0 || in.opcode >= VG_NINSTS) return false;
    const INSTINFO& t = insts[in.opcode];
    const OPERAND& d = in.dest;
    const OPERAND& s = in.source;
    bool w = !(in.flags & INSTF_W32);
    if (t.flags & IN_W) w = true;
    int cc = in.flags & INSTF_CC;
    long imm = in.d.imm;
    switch (t.inst_case) {
    case IC_NONE:
        if (d.type || s.type) return false;
        if (t.flags & IN_REP) e.put(0xF3);
        if (t.flags & IN_W) e.put(0x48);
        e.put(t.op1);
        return true;
    case IC_ALU:
        if (d.type == OT_R && isrm(s) && s.type != OT_X) {
            regrm1(e, 0, w, t.op1, d.reg, s, in.add_disp);
        } else if (ismem(d) && s.type == OT_R) {
            regrm1(e, 0, w, t.op2, s.reg, d, in.add_disp);
        } else if ((d.type == OT_R || ismem(d)) && s.type == OT_I) {
            if (fits8(imm)) {
                regrm1(e, 0, w, 0x83, t.op3, d, in.add_disp);
                e.put(static_cast<int>(imm & 0xFF));
            } else if (fits32(imm)) {
                regrm1(e, 0, w, 0x81, t.op3, d, in.add_disp);
                e.put32(imm);
            } else {
                return false;
            }
        } else {
            return false;
        }
        return true;
    case IC_MOV:
        if (d.type == OT_R && (s.type == OT_R || ismem(s))) {
            regrm1(e, 0, w, 0x8B, d.reg, s, in.add_disp);
        } else if (ismem(d) && s.type == OT_R) {
            regrm1(e, 0, w, 0x89, s.reg, d, in.add_disp);
        } else if (d.type == OT_R && s.type == OT_I) {
            if (imm >= 0 && imm <= 0xFFFFFFFFL) {
                if (d.reg & 8) e.put(0x41);
                e.put(0xB8 | (d.reg & 7));
                e.put32(imm);
            } else if (fits32(imm) && w) {
                regrm1(e, 0, true, 0xC7, 0, d, 0);
                e.put32(imm);
            } else if (w) {
                e.put(0x48 | ((d.reg & 8) ? 1 : 0));
                e.put(0xB8 | (d.reg & 7));
                e.put64(imm);
            } else {
                return false;
            }
        } else if (ismem(d) && s.type == OT_I) {
            if (!fits32(imm)) return false;
            regrm1(e, 0, w, 0xC7, 0, d, in.add_disp);
            e.put32(imm);
        } else if (d.type == OT_R && d.reg == RAX && s.type == OT_A) {
            e.put(0x48);
            e.put(0xA1);
            e.put64(imm);
        } else if (d.type == OT_A && s.type == OT_R && s.reg == RAX) {
            e.put(0x48);
            e.put(0xA3);
            e.put64(imm);
        } else {
            return false;
        }
        return true;
    case IC_TEST:
        if (d.type == OT_R && ismem(s)) {
            regrm1(e, 0, w, 0x85, d.reg, s, in.add_disp);  // the same test either way round
        } else if (isrm(d) && d.type != OT_X && s.type == OT_R) {
            regrm1(e, 0, w, 0x85, s.reg, d, in.add_disp);
        } else if (isrm(d) && d.type != OT_X && s.type == OT_I && fits32(imm)) {
            regrm1(e, 0, w, 0xF7, 0, d, in.add_disp);
            e.put32(imm);
        } else {
            return false;
        }
        return true;
    case IC_UNARY:
        if (!(d.type == OT_R || ismem(d)) || s.type) return false;
        regrm1(e, 0, w, t.op1, t.op3, d, in.add_disp);
        return true;
    case IC_IMUL:
        if (d.type != OT_R || !(s.type == OT_R || ismem(s))) return false;
        regrm2(e, 0, w, 0xAF, d.reg, s, in.add_disp);
        return true;
    case IC_XCHG:
        if (!(d.type == OT_R || ismem(d)) || s.type != OT_R) return false;
        regrm1(e, 0, w, 0x87, s.reg, d, in.add_disp);
        return true;
    case IC_LEA:
        if (d.type != OT_R || !ismem(s)) return false;
        regrm1(e, 0, true, 0x8D, d.reg, s, in.add_disp);
        return true;
    case IC_SHIFT:
        if (!(d.type == OT_R || ismem(d)) || s.type != OT_I || imm < 0 || imm > 63) return false;
        regrm1(e, 0, w, 0xC1, t.op3, d, in.add_disp);
        e.put(static_cast<int>(imm));
        return true;
    case IC_PUSH:
        if (d.type != OT_R || s.type) return false;
        if (d.reg & 8) e.put(0x41);
        e.put(t.op1 | (d.reg & 7));
        return true;
    case IC_CALL:
        if (d.type == OT_L) {
            e.put(0xE8);
            e.put32(imm);
        } else if (d.type == OT_R || ismem(d)) {
            regrm1(e, 0, false, 0xFF, 2, d, in.add_disp);
        } else {
            return false;
        }
        return true;
    case IC_JMP:
        if (d.type == OT_L) {
            if (in.flags & INSTF_SHORT) {
                if (!fits8(imm)) return false;
                e.put(0xEB);
                e.put(static_cast<int>(imm & 0xFF));
            } else {
                e.put(0xE9);
                e.put32(imm);
            }
        } else if (d.type == OT_R || ismem(d)) {
            regrm1(e, 0, false, 0xFF, 4, d, in.add_disp);
        } else {
            return false;
        }
        return true;
    case IC_JCC:
        if (d.type != OT_L) return false;
        if (in.flags & INSTF_SHORT) {
            if (!fits8(imm)) return false;
            e.put(0x70 | cc);
            e.put(static_cast<int>(imm & 0xFF));
        } else {
            e.put(0x0F);
            e.put(0x80 | cc);
            e.put32(imm);
        }
        return true;
    case IC_SETCC:
        if (!(d.type == OT_R || ismem(d)) || s.type) return false;
        regrm2(e, 0, false, 0x90 | cc, 0, d, in.add_disp, true);
        return true;
    case IC_CMOV:
        if (d.type != OT_R || !(s.type == OT_R || ismem(s))) return false;
        regrm2(e, 0, true, 0x40 | cc, d.reg, s, in.add_disp);
        return true;
    case IC_BT:
        if (!(d.type == OT_R || ismem(d)) || s.type != OT_I || imm < 0 || imm > 63) return false;
        regrm2(e, 0, true, 0xBA, t.op3, d, in.add_disp);
        e.put(static_cast<int>(imm));
        return true;
    case IC_MOVZX:
        if (d.type != OT_R || !(s.type == OT_R || ismem(s))) return false;
        regrm2(e, 0, false, 0xB6, d.reg, s, in.add_disp, true);
        return true;
    case IC_BSWAP:
        if (d.type != OT_R || s.type) return false;
        e.put(0x48 | ((d.reg & 8) ? 1 : 0));
        e.put(0x0F);
        e.put(0xC8 | (d.reg & 7));
        return true;
    case IC_SSE:
        if (d.type != OT_X || !(s.type == OT_X || ismem(s))) return false;
        regrm2(e, t.op1, false, t.op3, d.reg, s, in.add_disp);
        return true;
    case IC_MOVSD:
        if (d.type == OT_X && (s.type == OT_X || ismem(s))) {
            regrm2(e, 0xF2, false, 0x10, d.reg, s, in.add_disp);
        } else if (ismem(d) && s.type == OT_X) {
            regrm2(e, 0xF2, false, 0x11, s.reg, d, in.add_disp);
        } else {
            return false;
        }
        return true;
    case IC_CVTI:
        if (d.type != OT_X || !(s.type == OT_R || ismem(s))) return false;
        regrm2(e, 0xF2, true, t.op3, d.reg, s, in.add_disp);
        return true;
    case IC_CVTX:
        if (d.type != OT_R || !(s.type == OT_X || ismem(s))) return false;
        regrm2(e, 0xF2, true, t.op3, d.reg, s, in.add_disp);
        return true;
    case IC_MOVQ:
        if (d.type == OT_X && s.type == OT_R) {
            regrm2(e, 0x66, true, 0x6E, d.reg, s, 0);
        } else if (d.type == OT_R && s.type == OT_X) {
            regrm2(e, 0x66, true, 0x7E, s.reg, d, 0);
        } else {
            return false;
        }
        return true;
    case IC_MXCSR:
        if (!ismem(d) || s.type) return false;
        regrm2(e, 0, false, 0xAE, t.op3, d, in.add_disp);
        return true;
    default:
        return false;
    }
}

}  // namespace

const INSTINFO (&insts)[VG_NINSTS] = table.t;

int gencode(VGSEGHD* s, const INST* inst, int count, unsigned char* out) {
    int total = 0;
    for (int i = 0; i < count; i++) {
        Enc e;
        if (!encode1(inst[i], e)) {
            if (!s || !s->err_jbuf) return -1;
            short op = inst[i].opcode;
            vgfail("gencode: %s has no form for operands %d, %d", op >= 0 && op < VG_NINSTS ? insts[op].name : "?",
                   inst[i].dest.type, inst[i].source.type);
            longjmp(*s->err_jbuf, 1);
        }
        memcpy(out + total, e.b, e.n);
        total += e.n;
    }
    return total;
}

}  // namespace vrta

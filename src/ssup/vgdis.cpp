// Reading machine code back: the decoder turns bytes into the assembler's
// records by the same instruction table, and disasm prints them for the
// debug dumps. Only the forms this back end writes are known.
#include <cstdio>
#include <cstring>
#include "ssup/vgasm.h"

namespace vrta {

namespace {

struct Dec {
    const unsigned char* p;
    int avail;
    int pos = 0;
    bool ok = true;
    int get() {
        if (pos >= avail) {
            ok = false;
            return 0;
        }
        return p[pos++];
    }
    int peek() const { return pos < avail ? p[pos] : -1; }
    long get32() {
        unsigned long v = 0;
        for (int i = 0; i < 4; i++) v |= static_cast<unsigned long>(get()) << (8 * i);
        return static_cast<int32_t>(v);
    }
    long get64() {
        unsigned long v = 0;
        for (int i = 0; i < 8; i++) v |= static_cast<unsigned long>(get()) << (8 * i);
        return static_cast<long>(v);
    }
};

// The ModRM part: fills the r/m operand (as a register of kind rmkind, or
// memory) and returns the reg field with its REX bit.
int getmodrm(Dec& d, int rex, char rmkind, OPERAND& rm, int& disp) {
    int m = d.get();
    int mod = m >> 6;
    int reg = ((m >> 3) & 7) | ((rex & 4) ? 8 : 0);
    int r = m & 7;
    rm = OPERAND{};
    rm.mod_r_m = static_cast<unsigned char>(m);
    disp = 0;
    if (mod == 3) {
        rm.type = rmkind;
        rm.reg = static_cast<char>(r | ((rex & 1) ? 8 : 0));
        return reg;
    }
    rm.type = OT_M;
    if (mod == 0 && r == 5) {
        rm.reg = VG_RIP;
        disp = static_cast<int>(d.get32());
        return reg;
    }
    if (r == 4) {
        int sib = d.get();
        int index = ((sib >> 3) & 7) | ((rex & 2) ? 8 : 0);
        int base = sib & 7;
        if ((sib >> 6) != 0 || (mod == 0 && base == 5)) d.ok = false;
        rm.reg = static_cast<char>(base | ((rex & 1) ? 8 : 0));
        if (index != RSP) rm.sib = static_cast<unsigned char>(0x80 | index);
    } else {
        rm.reg = static_cast<char>(r | ((rex & 1) ? 8 : 0));
    }
    if (mod == 1) disp = static_cast<signed char>(d.get());
    else if (mod == 2) disp = static_cast<int>(d.get32());
    return reg;
}

OPERAND regop(char kind, int reg) { return OPERAND{kind, static_cast<char>(reg), 0, 0}; }

}  // namespace

int vgdecode(const unsigned char* p, int avail, INST* out) {
    Dec d{p, avail};
    INST in{};
    int legacy = 0;
    while (d.peek() == 0x66 || d.peek() == 0xF2 || d.peek() == 0xF3) legacy = d.get();
    int rex = 0;
    if ((d.peek() & 0xF0) == 0x40) rex = d.get() & 0xF;
    bool w = (rex & 8) != 0;
    int op = d.get();
    int op2 = -1;
    if (op == 0x0F) op2 = d.get();
    int digit = d.peek() >= 0 ? (d.peek() >> 3) & 7 : -1;
    if (!d.ok) return -1;
    if (!w) in.flags |= INSTF_W32;

    int found = -1;
    for (int i = 0; i < VG_NINSTS && found < 0; i++) {
        const INSTINFO& t = insts[i];
        bool m = false;
        switch (t.inst_case) {
        case IC_NONE:
            m = op2 < 0 && op == t.op1 && ((t.flags & IN_REP) ? legacy == 0xF3 : legacy == 0) && (!(t.flags & IN_W) || w);
            break;
        case IC_ALU:
            m = op2 < 0 && !legacy && (op == t.op1 || op == t.op2 || ((op == 0x83 || op == 0x81) && digit == t.op3));
            break;
        case IC_MOV:
            m = op2 < 0 && !legacy &&
                (op == 0x8B || op == 0x89 || (op == 0xC7 && digit == 0) || (op & 0xF8) == 0xB8 || op == 0xA1 || op == 0xA3);
            break;
        case IC_TEST: m = op2 < 0 && !legacy && (op == 0x85 || (op == 0xF7 && digit == 0)); break;
        case IC_UNARY: m = op2 < 0 && !legacy && op == t.op1 && digit == t.op3; break;
        case IC_IMUL: m = op2 == 0xAF && !legacy; break;
        case IC_LEA: m = op2 < 0 && op == 0x8D && !legacy; break;
        case IC_XCHG: m = op2 < 0 && op == 0x87 && !legacy; break;
        case IC_SHIFT: m = op2 < 0 && op == 0xC1 && digit == t.op3 && !legacy; break;
        case IC_PUSH: m = op2 < 0 && (op & 0xF8) == t.op1 && !legacy; break;
        case IC_CALL: m = op2 < 0 && (op == 0xE8 || (op == 0xFF && digit == 2)) && !legacy; break;
        case IC_JMP: m = op2 < 0 && (op == 0xEB || op == 0xE9 || (op == 0xFF && digit == 4)) && !legacy; break;
        case IC_JCC: m = !legacy && ((op2 < 0 && (op & 0xF0) == 0x70) || (op2 >= 0 && (op2 & 0xF0) == 0x80)); break;
        case IC_SETCC: m = !legacy && op2 >= 0 && (op2 & 0xF0) == 0x90; break;
        case IC_CMOV: m = !legacy && op2 >= 0 && (op2 & 0xF0) == 0x40; break;
        case IC_BT: m = !legacy && op2 == 0xBA && digit == t.op3; break;
        case IC_MOVZX: m = !legacy && op2 == 0xB6; break;
        case IC_BSWAP: m = !legacy && op2 >= 0 && (op2 & 0xF8) == 0xC8; break;
        case IC_SSE: m = op2 == t.op3 && legacy == t.op1; break;
        case IC_MOVSD: m = legacy == 0xF2 && (op2 == 0x10 || op2 == 0x11); break;
        case IC_CVTI:
        case IC_CVTX: m = legacy == 0xF2 && op2 == t.op3; break;
        case IC_MOVQ: m = legacy == 0x66 && (op2 == 0x6E || op2 == 0x7E); break;
        case IC_MXCSR: m = !legacy && op2 == 0xAE && digit == t.op3; break;
        default: break;
        }
        if (m) found = i;
    }
    if (found < 0) return -1;
    in.opcode = static_cast<short>(found);
    const INSTINFO& t = insts[found];
    OPERAND rm{};
    int disp = 0;
    int reg;
    switch (t.inst_case) {
    case IC_NONE:
        break;
    case IC_ALU:
        if (op == 0x83 || op == 0x81) {
            getmodrm(d, rex, OT_R, rm, disp);
            in.dest = rm;
            in.source = opi();
            in.d.imm = op == 0x83 ? static_cast<signed char>(d.get()) : d.get32();
        } else if (op == t.op1) {
            reg = getmodrm(d, rex, OT_R, rm, disp);
            in.dest = regop(OT_R, reg);
            in.source = rm;
        } else {
            reg = getmodrm(d, rex, OT_R, rm, disp);
            in.dest = rm;
            in.source = regop(OT_R, reg);
        }
        break;
    case IC_MOV:
        if (op == 0x8B) {
            reg = getmodrm(d, rex, OT_R, rm, disp);
            in.dest = regop(OT_R, reg);
            in.source = rm;
        } else if (op == 0x89) {
            reg = getmodrm(d, rex, OT_R, rm, disp);
            in.dest = rm;
            in.source = regop(OT_R, reg);
        } else if (op == 0xC7) {
            getmodrm(d, rex, OT_R, rm, disp);
            in.dest = rm;
            in.source = opi();
            in.d.imm = d.get32();
        } else if (op == 0xA1 || op == 0xA3) {
            OPERAND a{OT_A, 0, 0, 0};
            in.dest = op == 0xA1 ? regop(OT_R, RAX) : a;
            in.source = op == 0xA1 ? a : regop(OT_R, RAX);
            in.d.imm = d.get64();
        } else {
            in.dest = regop(OT_R, (op & 7) | ((rex & 1) ? 8 : 0));
            in.source = opi();
            in.d.imm = w ? d.get64() : static_cast<long>(static_cast<uint32_t>(d.get32()));
        }
        break;
    case IC_TEST:
        reg = getmodrm(d, rex, OT_R, rm, disp);
        in.dest = rm;
        if (op == 0x85) {
            in.source = regop(OT_R, reg);
        } else {
            in.source = opi();
            in.d.imm = d.get32();
        }
        break;
    case IC_UNARY:
    case IC_SETCC:
        getmodrm(d, rex, OT_R, rm, disp);
        in.dest = rm;
        if (t.inst_case == IC_SETCC) in.flags = (in.flags & ~INSTF_CC) | (op2 & 0xF);
        break;
    case IC_IMUL:
    case IC_LEA:
    case IC_CMOV:
    case IC_MOVZX:
        reg = getmodrm(d, rex, OT_R, rm, disp);
        in.dest = regop(OT_R, reg);
        in.source = rm;
        if (t.inst_case == IC_CMOV) in.flags = (in.flags & ~INSTF_CC) | (op2 & 0xF);
        if (t.inst_case == IC_LEA && rm.type != OT_M) return -1;
        break;
    case IC_XCHG:
        reg = getmodrm(d, rex, OT_R, rm, disp);
        in.dest = rm;
        in.source = regop(OT_R, reg);
        break;
    case IC_SHIFT:
    case IC_BT:
        getmodrm(d, rex, OT_R, rm, disp);
        in.dest = rm;
        in.source = opi();
        in.d.imm = d.get();
        break;
    case IC_PUSH:
        in.dest = regop(OT_R, (op & 7) | ((rex & 1) ? 8 : 0));
        break;
    case IC_CALL:
    case IC_JMP:
    case IC_JCC:
        if (op == 0xFF) {
            getmodrm(d, rex, OT_R, rm, disp);
            in.dest = rm;
        } else {
            in.dest = OPERAND{OT_L, 0, 0, 0};
            if (op == 0xEB || (op & 0xF0) == 0x70) {
                in.flags |= INSTF_SHORT;
                in.d.imm = static_cast<signed char>(d.get());
            } else {
                in.d.imm = d.get32();
            }
            if (t.inst_case == IC_JCC) in.flags = (in.flags & ~INSTF_CC) | ((op2 >= 0 ? op2 : op) & 0xF);
        }
        break;
    case IC_BSWAP:
        in.dest = regop(OT_R, (op2 & 7) | ((rex & 1) ? 8 : 0));
        break;
    case IC_SSE:
        reg = getmodrm(d, rex, OT_X, rm, disp);
        in.dest = regop(OT_X, reg);
        in.source = rm;
        break;
    case IC_MOVSD:
        reg = getmodrm(d, rex, OT_X, rm, disp);
        if (op2 == 0x10) {
            in.dest = regop(OT_X, reg);
            in.source = rm;
        } else {
            if (rm.type != OT_M) return -1;
            in.dest = rm;
            in.source = regop(OT_X, reg);
            in.flags |= INSTF_STORE;
        }
        break;
    case IC_CVTI:
        reg = getmodrm(d, rex, OT_R, rm, disp);
        in.dest = regop(OT_X, reg);
        in.source = rm;
        break;
    case IC_CVTX:
        reg = getmodrm(d, rex, OT_X, rm, disp);
        in.dest = regop(OT_R, reg);
        in.source = rm;
        break;
    case IC_MOVQ:
        reg = getmodrm(d, rex, OT_R, rm, disp);
        if (rm.type != OT_R) return -1;
        if (op2 == 0x6E) {
            in.dest = regop(OT_X, reg);
            in.source = rm;
        } else {
            in.dest = rm;
            in.source = regop(OT_X, reg);
            in.flags |= INSTF_STORE;
        }
        break;
    case IC_MXCSR:
        getmodrm(d, rex, OT_R, rm, disp);
        if (rm.type != OT_M) return -1;
        in.dest = rm;
        break;
    default:
        return -1;
    }
    if (!d.ok) return -1;
    in.add_disp = disp;
    if (t.flags & IN_W) in.flags &= ~INSTF_W32;
    *out = in;
    return d.pos;
}

namespace {

const char* const gpr64[16] = {"RAX", "RCX", "RDX", "RBX", "RSP", "RBP", "RSI", "RDI",
                               "R8",  "R9",  "R10", "R11", "R12", "R13", "R14", "R15"};
const char* const gpr32[16] = {"EAX", "ECX", "EDX", "EBX", "ESP", "EBP", "ESI", "EDI",
                               "R8D", "R9D", "R10D", "R11D", "R12D", "R13D", "R14D", "R15D"};
const char* const gpr8[16] = {"AL", "CL", "DL", "BL", "SPL", "BPL", "SIL", "DIL",
                              "R8B", "R9B", "R10B", "R11B", "R12B", "R13B", "R14B", "R15B"};
const char* const ccname[16] = {"O", "NO", "B", "AE", "E", "NE", "BE", "A", "S", "NS", "P", "NP", "L", "GE", "LE", "G"};

void add(char* text, int textlen, const char* s) {
    size_t n = strlen(text);
    if (n + 1 >= static_cast<size_t>(textlen)) return;
    snprintf(text + n, textlen - n, "%s", s);
}

}  // namespace

void printimm(char* text, int textlen, long v) {
    char b[32];
    if (v >= -9 && v <= 9) snprintf(b, sizeof(b), "%ld", v);
    else if (v < 0) snprintf(b, sizeof(b), "-0x%lx", 0ul - static_cast<unsigned long>(v));
    else snprintf(b, sizeof(b), "0x%lx", static_cast<unsigned long>(v));
    add(text, textlen, b);
}

void print_mem_type(char* text, int textlen, const INST* in, const OPERAND* op) {
    const INSTINFO& t = insts[in->opcode];
    const char* size = "QWORD PTR ";
    if (t.inst_case == IC_SETCC || t.inst_case == IC_MOVZX) size = "BYTE PTR ";
    else if (t.inst_case == IC_MXCSR || (in->flags & INSTF_W32 && t.inst_case != IC_SSE && t.inst_case != IC_MOVSD))
        size = "DWORD PTR ";
    else if (in->opcode == I_XORPD || in->opcode == I_ANDPD || in->opcode == I_MOVAPD) size = "XMMWORD PTR ";
    add(text, textlen, size);
    add(text, textlen, "[");
    add(text, textlen, op->reg == VG_RIP ? "RIP" : gpr64[op->reg & 15]);
    if (op->sib & 0x80) {
        add(text, textlen, "+");
        add(text, textlen, gpr64[op->sib & 15]);
    }
    if (in->add_disp || op->reg == VG_RIP) {
        if (in->add_disp >= 0) add(text, textlen, "+");
        printimm(text, textlen, in->add_disp);
    }
    add(text, textlen, "]");
}

int disasm(const unsigned char* p, int avail, char* text, int textlen) {
    INST in;
    if (textlen <= 0) return -1;
    text[0] = '\0';
    int n = vgdecode(p, avail, &in);
    if (n < 0) return -1;
    const INSTINFO& t = insts[in.opcode];
    char name[24];
    snprintf(name, sizeof(name), "%s%s%s", (t.flags & IN_REP) ? "REP " : "", t.name,
             (t.inst_case == IC_JCC || t.inst_case == IC_SETCC || t.inst_case == IC_CMOV) ? ccname[in.flags & INSTF_CC] : "");
    char head[32];
    snprintf(head, sizeof(head), "%-10s", name);
    add(text, textlen, head);
    const OPERAND* ops[2] = {&in.dest, &in.source};
    bool first = true;
    for (const OPERAND* o : ops) {
        if (!o->type) continue;
        if (!first) add(text, textlen, ",");
        first = false;
        char b[16];
        switch (o->type) {
        case OT_R:
            if (t.inst_case == IC_SETCC || (t.inst_case == IC_MOVZX && o == &in.source)) add(text, textlen, gpr8[o->reg & 15]);
            else if ((in.flags & INSTF_W32) && t.inst_case != IC_CALL && t.inst_case != IC_JMP && t.inst_case != IC_PUSH)
                add(text, textlen, gpr32[o->reg & 15]);
            else add(text, textlen, gpr64[o->reg & 15]);
            break;
        case OT_X:
            snprintf(b, sizeof(b), "XMM%d", o->reg);
            add(text, textlen, b);
            break;
        case OT_M: print_mem_type(text, textlen, &in, o); break;
        case OT_I: printimm(text, textlen, in.d.imm); break;
        case OT_A:
            add(text, textlen, "[");
            printimm(text, textlen, in.d.imm);
            add(text, textlen, "]");
            break;
        case OT_L:
            add(text, textlen, ".");
            if (in.d.imm + n >= 0) add(text, textlen, "+");
            printimm(text, textlen, in.d.imm + n);
            break;
        default: break;
        }
    }
    return n;
}

}  // namespace vrta

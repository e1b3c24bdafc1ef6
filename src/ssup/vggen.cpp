// The x86-64 back end: one pass over the intermediate code with a record of
// which register holds which object, instructions laid down through the
// assembler, branches patched when every label's place is known.
//
// Conventions of the generated code. RSP stays 16-byte aligned in the body,
// so helpers may be called at any point. R15 holds where to go on after a
// trap (the instruction's continuation) and is set just before every
// instruction that can trap; XMM0 is where a trap's result arrives, so it
// holds no object across such an instruction. Objects are cached in
// registers within straight-line code and written back before every label,
// branch, call, exit and instruction that can trap; memory is the truth
// across them. Areas (rows, buffers) never overlap the data segments, so a
// store into an area leaves what the registers hold as it is.
//
// Nothing here holds a destructor: vvgassert leaves by longjmp.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include "hs/hs.h"
#include "ssup/vgasm.h"
#include "ssup/vggen.h"
#include "ssup/vghelp.h"

namespace vrta {

struct OPDESC {
    objloc object;
    long lasticode;       // last instruction that uses it
    int type;             // OD_OBJ or OD_IMM
    unsigned long modifier;
    int addrmode;         // VG_SUM: the register holds objs[base] + objs[index]
    int base, index;
    long offset;          // still to add to the register's value (see settle)
    unsigned char* addr;  // the object's 8 bytes
    long value;           // an immediate
    OPDESC* next;         // chain of the register that holds it
    int scale;
    int basereg;          // the register that holds it, or -1
    int alctag;           // 1: the register is newer than memory
    unsigned gen;         // counts the values it has had in registers
    unsigned sumgen[2];   // gen of base and index when the sum was formed
};

namespace {

constexpr int OD_OBJ = 1, OD_IMM = 2;
constexpr int VG_SUM = 1;
constexpr int VG_WB = 10;  // bytes one write-back may take

struct VGREG {
    OPDESC* chain;
    unsigned char lock;
    unsigned state;  // bit 0: holds something of use
};

struct VGLITCACHE {
    unsigned long constant;
    int addrseen;
    long position;
};

struct VGLABEL {
    unsigned long id;
    long offset;  // from the code's start; -1 until bound
};

struct VGPARM {
    OPDESC* a;
    OPDESC* b;
    unsigned long modifier;
    int type;
};

// The rare path of an inline character move (the areas overlap), written
// after the last instruction so that the usual path runs straight on.
struct VGCOLD {
    long jend;   // end of the branch to it
    long back;   // where it goes on
    int sreg, dreg;
    int soff, doff;
    long n, pad, padc;
};
constexpr long VG_COLDMAX = 48;  // bytes of one

struct VGGEN {
    VGSEGHD* s;
    VGCOUNTS* cnt;
    unsigned char* code;
    unsigned char* cur;
    unsigned char* limit;
    VGREG regs[VG_NREGS];
    OPDESC* objs;
    long nobj0, nobj;
    VGLABEL* labels;
    long nlabels;
    REL* rels;
    long nrels;
    VGLITCACHE* lits;
    long nlits;
    long* labdata;
    long nlabdata;
    OPDESC imm[3];
    OPDESC* ops[3];
    VGPARM parms[2];
    int nparms;
    VGPARM fparms[9];
    int nfparms;
    OPDESC parmimm[12];
    int nparmimm;
    long icode;
    PINST* cur_pinst;
    long wbbytes;
    int newdirty;
    VGCOLD* cold;
    long ncold, maxcold;
    long coldbytes;  // kept for the out-of-line paths
    unsigned char* seg2;
};

const int GPL[] = {RAX, RCX, RDX, RSI, RDI, R8, R9, R10, R11, RBX, R12, R13, R14, -1};
const int GPL_NODIV[] = {RCX, RSI, RDI, R8, R9, R10, R11, RBX, R12, R13, R14, -1};
const int XL[] = {XMM1, XMM2, XMM3, XMM4, XMM5, XMM6, XMM7, XMM8, XMM9, XMM10, XMM11, XMM12, XMM13, XMM14, XMM15, -1};
// Objects an address is made from stay longest in the registers that helper
// calls and area moves leave alone; addresses go where area moves don't load.
const int KEEPL[] = {RBX, R12, R13, R14, R9, R8, R11, R10, RDX, RSI, RDI, RCX, RAX, -1};
const int ADDRL[] = {R8, R9, R10, R11, RDX, RBX, R12, R13, R14, RSI, RDI, RCX, RAX, -1};
const int SCRATCH[] = {RAX, RCX, RDX, RSI, RDI, R8, R9, R10, R11, -1};
const int ARGREG[] = {RDI, RSI, RDX, RCX, R8};

VGGEN* G(VGSEGHD* s) { return static_cast<VGGEN*>(s->gen); }

[[noreturn]] void gfail(VGGEN* g, const char* text) {
    vgfail("%s", text);
    longjmp(*g->s->err_jbuf, 1);
}

void* alcmem(VGGEN* g, long size) {
    if (size <= 0) return nullptr;
    void* p = xmalloc(g->s->genpool, size, XM_ZERO);
    if (!p) longjmp(*g->s->err_jbuf, 2);
    return p;
}

bool isx(int r) { return r >= XMM0 && r <= XMM15; }
OPERAND ro(int r) { return isx(r) ? opx(r) : opr(r); }

// ---------------------------------------------------------------- emission

INST mk(short op, OPERAND d, OPERAND s, long imm = 0, int flags = 0) {
    INST in{};
    in.opcode = op;
    in.dest = d;
    in.source = s;
    in.d.imm = imm;
    in.flags = flags;
    return in;
}

void put(VGGEN* g, INST in) {
    if (g->cur + 32 > g->limit) vvgassert(g->s, __LINE__);
    g->cur += gencode(g->s, &in, 1, g->cur);
}

// An instruction with one operand at [RIP + target - end of instruction].
void putrip(VGGEN* g, INST in, const unsigned char* target) {
    if (g->cur + 32 > g->limit) vvgassert(g->s, __LINE__);
    unsigned char tmp[32];
    in.add_disp = 0;
    int n = gencode(g->s, &in, 1, tmp);
    long disp = target - (g->cur + n);
    if (disp < INT32_MIN || disp > INT32_MAX) vvgassert(g->s, __LINE__);
    in.add_disp = static_cast<int>(disp);
    g->cur += gencode(g->s, &in, 1, g->cur);
}

void emit_none(VGGEN* g, short op) { put(g, mk(op, OPERAND{}, OPERAND{})); }
void emit_r(VGGEN* g, short op, int r, int flags = 0) { put(g, mk(op, ro(r), OPERAND{}, 0, flags)); }
void emit_m(VGGEN* g, short op, const unsigned char* t, int flags = 0) { putrip(g, mk(op, opm(VG_RIP), OPERAND{}, 0, flags), t); }
void emit_r_r(VGGEN* g, short op, int d, int s, int flags = 0) { put(g, mk(op, ro(d), ro(s), 0, flags)); }
void emit_r_m(VGGEN* g, short op, int d, const unsigned char* t, int flags = 0) { putrip(g, mk(op, ro(d), opm(VG_RIP), 0, flags), t); }
void emit_m_r(VGGEN* g, short op, const unsigned char* t, int s, int flags = 0) {
    putrip(g, mk(op, opm(VG_RIP), ro(s), 0, flags | INSTF_STORE), t);
}
void emit_r_i(VGGEN* g, short op, int d, long imm, int flags = 0) { put(g, mk(op, ro(d), opi(), imm, flags)); }
void emit_m_i(VGGEN* g, short op, const unsigned char* t, long imm, int flags = 0) { putrip(g, mk(op, opm(VG_RIP), opi(), imm, flags), t); }
// RAX from and to an absolute address: the session record lies anywhere.
void emit_a_m(VGGEN* g, const void* addr) { put(g, mk(I_MOV, opr(RAX), OPERAND{OT_A, 0, 0, 0}, reinterpret_cast<long>(addr))); }
void emit_m_a(VGGEN* g, const void* addr) { put(g, mk(I_MOV, OPERAND{OT_A, 0, 0, 0}, opr(RAX), reinterpret_cast<long>(addr))); }
void emit_cc_r(VGGEN* g, short op, int cc, int r) { put(g, mk(op, ro(r), OPERAND{}, 0, cc)); }

// Sets a register to 0 or 1 from a condition.
void setbool(VGGEN* g, int cc, int r) {
    emit_cc_r(g, I_SETCC, cc, r);
    put(g, mk(I_MOVZX, opr(r), opr(r), 0, INSTF_W32));
}

void flushall(VGGEN* g);

// A jump (cc -1) or LEA of R15 to a place further on: returns where its
// 32-bit displacement ends, for patchhere.
long jfwd(VGGEN* g, int cc) {
    INST in = cc < 0 ? mk(I_JMP, OPERAND{OT_L, 0, 0, 0}, OPERAND{}) : mk(I_JCC, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, 0, cc);
    put(g, in);
    return g->cur - g->code;
}
// Sets R15 to where the code goes on after a trap. Objects are written back
// first: a trap may end the run, and then memory must be as it was after the
// previous instruction.
long trapbegin(VGGEN* g) {
    flushall(g);
    putrip(g, mk(I_LEA, opr(R15), opm(VG_RIP)), g->cur);
    return g->cur - g->code;
}
void patchhere(VGGEN* g, long end) {
    int32_t disp = static_cast<int32_t>((g->cur - g->code) - end);
    memcpy(g->code + end - 4, &disp, 4);
}
// A jump back to a place already written.
void jback(VGGEN* g, int cc, const unsigned char* target) {
    short op = cc < 0 ? I_JMP : I_JCC;
    int f = cc < 0 ? 0 : cc;
    long d = target - (g->cur + 2);
    if (d >= -128 && d <= 127) {
        put(g, mk(op, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, d, f | INSTF_SHORT));
    } else {
        int n = cc < 0 ? 5 : 6;
        put(g, mk(op, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, target - (g->cur + n), f));
    }
}

// ---------------------------------------------------------------- registers

void lckr(VGGEN* g, int r) {
    if (r < 0 || r >= VG_NREGS) vvgassert(g->s, __LINE__);
    g->regs[r].lock = 1;
}
void ulkr(VGGEN* g, int r) {
    if (r < 0 || r >= VG_NREGS) vvgassert(g->s, __LINE__);
    g->regs[r].lock = 0;
}
void ulkall(VGGEN* g) {
    for (VGREG& r : g->regs) r.lock = 0;
}

void detach(VGGEN* g, OPDESC* o) {
    if (o->basereg < 0) return;
    VGREG& r = g->regs[o->basereg];
    for (OPDESC** p = &r.chain; *p; p = &(*p)->next) {
        if (*p == o) {
            *p = o->next;
            break;
        }
    }
    if (!r.chain) r.state &= ~1u;
    o->next = nullptr;
    o->basereg = -1;
    o->alctag = 0;
    o->offset = 0;
    o->addrmode = 0;
}

void attach(VGGEN* g, int reg, OPDESC* o, int dirty) {
    detach(g, o);
    VGREG& r = g->regs[reg];
    o->next = r.chain;
    r.chain = o;
    r.state |= 1;
    o->basereg = reg;
    o->alctag = dirty;
    o->gen++;
    if (dirty) g->newdirty++;
}

// An address object may stand as its register plus a displacement not yet
// added: a run of ADDR_ by constants then costs nothing, and an area access
// folds the displacement into its addressing. It is added (by LEA, which
// leaves the flags alone) before the register is read in any other way.
// Such an object is dirty and alone in its register.
void settle(VGGEN* g, OPDESC* o) {
    if (!o || o->type != OD_OBJ || o->basereg < 0 || !o->offset) return;
    unsigned char* before = g->cur;
    INST in = mk(I_LEA, opr(o->basereg), opm(o->basereg));
    in.add_disp = static_cast<int>(o->offset);
    put(g, in);
    g->wbbytes += g->cur - before;
    o->offset = 0;
    o->addrmode = 0;
}

// Writes back an object whose register is newer than memory.
void frop(VGGEN* g, OPDESC* o) {
    if (o->basereg < 0 || !o->alctag) return;
    settle(g, o);
    unsigned char* before = g->cur;
    if (isx(o->basereg)) emit_m_r(g, I_MOVSD, o->addr, o->basereg);
    else emit_m_r(g, I_MOV, o->addr, o->basereg);
    g->wbbytes += g->cur - before;
    o->alctag = 0;
}

// Ends what a register holds; its bits stay as they are.
void rclr(VGGEN* g, int reg) {
    if (reg < 0 || reg >= VG_NREGS) vvgassert(g->s, __LINE__);
    while (OPDESC* o = g->regs[reg].chain) {
        frop(g, o);
        detach(g, o);
    }
}

void flushall(VGGEN* g) {
    for (VGREG& r : g->regs)
        for (OPDESC* o = r.chain; o; o = o->next) frop(g, o);
}

void forgetall(VGGEN* g) {
    for (int r = 0; r < VG_NREGS; r++) rclr(g, r);
}

void rclr_scratch(VGGEN* g) {
    for (const int* r = SCRATCH; *r >= 0; r++) rclr(g, *r);
    for (int r = XMM0; r <= XMM15; r++) rclr(g, r);
}

int selr(VGGEN* g, const int* list) {
    int pick = -1;
    for (const int* r = list; *r >= 0 && pick < 0; r++)
        if (!g->regs[*r].lock && !(g->regs[*r].state & 1)) pick = *r;
    for (const int* r = list; *r >= 0 && pick < 0; r++)
        if (!g->regs[*r].lock) pick = *r;
    if (pick < 0) vvgassert(g->s, __LINE__);
    rclr(g, pick);
    lckr(g, pick);
    return pick;
}

// Registers whose objects are not used again are given back.
void delold(VGGEN* g) {
    for (VGREG& r : g->regs) {
        for (OPDESC* o = r.chain; o;) {
            OPDESC* n = o->next;
            if (o->lasticode < g->icode) {
                frop(g, o);
                detach(g, o);
            }
            o = n;
        }
    }
}

// ---------------------------------------------------------------- operands

unsigned char* litaddr(VGGEN* g, unsigned long c) {
    for (long i = 0; i < g->nlits; i++)
        if (g->lits[i].constant == c) return g->cnt->lits + g->lits[i].position;
    if (g->nlits >= g->cnt->nlits) vvgassert(g->s, __LINE__);
    VGLITCACHE& l = g->lits[g->nlits++];
    l.constant = c;
    l.addrseen = 1;
    l.position = 8 * (g->nlits - 1);
    memcpy(g->cnt->lits + l.position, &c, 8);
    return g->cnt->lits + l.position;
}

OPDESC* immop(VGGEN* g, long v) {
    if (g->nparmimm >= 12) vvgassert(g->s, __LINE__);
    OPDESC* o = &g->parmimm[g->nparmimm++];
    memset(o, 0, sizeof(*o));
    o->type = OD_IMM;
    o->value = v;
    o->basereg = -1;
    return o;
}

// Puts o's value into register r, which the caller has cleared and locked.
void load_into(VGGEN* g, OPDESC* o, int r) {
    if (o->type == OD_IMM) {
        if (isx(r)) emit_r_m(g, I_MOVSD, r, litaddr(g, static_cast<unsigned long>(o->value)));
        else emit_r_i(g, I_MOV, r, o->value);
        return;
    }
    int h = o->basereg;
    if (h >= 0 && o->offset) {
        if (h != r && !isx(r)) {
            INST in = mk(I_LEA, opr(r), opm(h));
            in.add_disp = static_cast<int>(o->offset);
            put(g, in);
            return;
        }
        settle(g, o);
    }
    if (h == r) return;
    if (h >= 0) {
        if (isx(r) && isx(h)) emit_r_r(g, I_MOVAPD, r, h);
        else if (isx(r) || isx(h)) emit_r_r(g, I_MOVQ, r, h);
        else emit_r_r(g, I_MOV, r, h);
        return;
    }
    if (isx(r)) emit_r_m(g, I_MOVSD, r, o->addr);
    else emit_r_m(g, I_MOV, r, o->addr);
}

// A locked register holding o, to be read only: it may hold objects.
int loadreg(VGGEN* g, OPDESC* o, const int* list, bool wantx) {
    int h = o->type == OD_OBJ ? o->basereg : -1;
    if (h >= 0 && isx(h) == wantx) {
        lckr(g, h);
        return h;
    }
    int r = selr(g, list);
    load_into(g, o, r);
    if (h < 0 && o->type == OD_OBJ) attach(g, r, o, 0);
    return r;
}
int loadgp(VGGEN* g, OPDESC* o, const int* list = GPL) { return loadreg(g, o, list, false); }
int loadx(VGGEN* g, OPDESC* o, const int* list = XL) { return loadreg(g, o, list, true); }

// A locked register holding o's value that the caller may change. When no
// operand is read after this one (last), the instruction's result, if the
// register holds it, is about to be replaced and is not written back.
int loadregw(VGGEN* g, OPDESC* o, const int* list, bool wantx, bool last) {
    int h = o->type == OD_OBJ ? o->basereg : -1;
    if (h >= 0 && isx(h) == wantx && !g->regs[h].lock) {
        bool ok = false;
        for (const int* r = list; *r >= 0; r++) ok |= *r == h;
        if (ok) {
            if (OPDESC* res = g->ops[0]; last && res && res->basereg == h) {
                int use[3];
                vgopuse(g->cur_pinst, use);
                if (use[0] == VGU_WRITE) detach(g, res);
            }
            rclr(g, h);
            lckr(g, h);
            return h;
        }
    }
    int r = selr(g, list);
    load_into(g, o, r);
    return r;
}
int loadgpw(VGGEN* g, OPDESC* o, const int* list = GPL, bool last = false) { return loadregw(g, o, list, false, last); }
int loadxw(VGGEN* g, OPDESC* o, const int* list = XL) { return loadregw(g, o, list, true, false); }

// A second operand: a register, memory, or a 32-bit immediate.
struct SRC {
    OPERAND op;
    long imm;
    const unsigned char* target;
};

SRC gpsrc(VGGEN* g, OPDESC* o, const int* list = GPL, bool allowimm = true) {
    if (o->type == OD_IMM) {
        if (allowimm && o->value >= INT32_MIN && o->value <= INT32_MAX) return SRC{opi(), o->value, nullptr};
        return SRC{opr(loadgp(g, o, list)), 0, nullptr};
    }
    if (o->basereg >= 0) return SRC{opr(loadgp(g, o, list)), 0, nullptr};
    return SRC{opm(VG_RIP), 0, o->addr};
}

SRC xsrc(VGGEN* g, OPDESC* o, const int* list = XL) {
    if (o->type == OD_IMM) return SRC{opm(VG_RIP), 0, litaddr(g, static_cast<unsigned long>(o->value))};
    if (o->basereg >= 0) return SRC{opx(loadx(g, o, list)), 0, nullptr};
    return SRC{opm(VG_RIP), 0, o->addr};
}

void emit_src(VGGEN* g, short op, int d, const SRC& s, int flags = 0) {
    INST in = mk(op, ro(d), s.op, s.imm, flags);
    if (s.op.type == OT_M) putrip(g, in, s.target);
    else put(g, in);
}

// The instruction's result is now in register reg.
void rslt(VGGEN* g, OPDESC* r, int reg) {
    if (!r) return;
    attach(g, reg, r, 1);
}

// ---------------------------------------------------------------- labels

long labidx(VGGEN* g, unsigned long id) {
    long lo = 0, hi = g->nlabels - 1;
    while (lo <= hi) {
        long mid = (lo + hi) / 2;
        if (g->labels[mid].id == id) return mid;
        if (g->labels[mid].id < id) lo = mid + 1;
        else hi = mid - 1;
    }
    vvgassert(g->s, __LINE__);
}

// Keeps room for a branch to a label and records it: 0 JMP, 1 Jcc,
// 3 CALL, 4 LEA of the label's address into reg.
void bout(VGGEN* g, int kind, unsigned long id, int cc, int reg = 0) {
    if (g->nrels >= g->cnt->nrels) vvgassert(g->s, __LINE__);
    long li = labidx(g, id);
    REL& r = g->rels[g->nrels++];
    r.type = kind;
    r.offset = static_cast<int>(g->cur - g->code);
    r.ref = li;
    r.relflag = cc;
    r.regmask = reg;
    int size = kind == 0 ? 5 : kind == 1 ? 6 : kind == 3 ? 5 : 7;
    if ((kind == 0 || kind == 1) && g->labels[li].offset >= 0) {
        long d = g->labels[li].offset - (r.offset + 2);
        if (d >= -128 && d <= 127) {
            size = 2;
            r.relflag |= INSTF_SHORT;
        }
    }
    if (g->cur + size + 32 > g->limit) vvgassert(g->s, __LINE__);
    memset(g->cur, 0xCC, size);
    g->cur += size;
    r.link = nullptr;
}

// The space a branch record kept.
long relsize(const REL* r) {
    if (r->relflag & INSTF_SHORT) return 2;
    return r->type == 0 ? 5 : r->type == 1 ? 6 : r->type == 3 ? 5 : 7;
}

// Writes a branch at its place, now that its label's place is known.
void otrg(VGGEN* g, VGLABEL* labels, REL* branch, unsigned char* place, int extra) {
    long size = relsize(branch);
    long target = labels[branch->ref].offset;
    if (target < 0) vvgassert(g->s, __LINE__);
    long disp = target - (branch->offset + size) + extra;
    INST in;
    switch (branch->type) {
    case 0: in = mk(I_JMP, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, disp, branch->relflag & INSTF_SHORT); break;
    case 1: in = mk(I_JCC, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, disp, branch->relflag); break;
    case 3: in = mk(I_CALL, OPERAND{OT_L, 0, 0, 0}, OPERAND{}, disp); break;
    default:
        in = mk(I_LEA, opr(branch->regmask), opm(VG_RIP));
        in.add_disp = static_cast<int>(disp);
        break;
    }
    unsigned char tmp[32];
    int n = gencode(g->s, &in, 1, tmp);
    if (n != size) {
        hsprint("JMP/JCC wrong length\n");
        vvgassert(g->s, __LINE__);
    }
    memcpy(place, tmp, n);
}

// ---------------------------------------------------------------- helpers

// Calls a helper with up to five arguments in the area order (x: raw values
// when an OPDESC is null). res 0: none, 1: RAX, 2: XMM0, into r.
void callhelper(VGGEN* g, const void* fn, OPDESC* const* args, int nargs, bool writes, int res, OPDESC* r) {
    flushall(g);
    // Arguments whose values sit in registers move straight into place, each
    // source read before its register is overwritten (R11 breaks a cycle).
    int src[5];
    bool done[5];
    for (int i = 0; i < nargs; i++) {
        src[i] = args[i]->type == OD_OBJ ? args[i]->basereg : -1;
        done[i] = src[i] < 0;
    }
    for (;;) {
        bool progress = false, left = false;
        for (int i = 0; i < nargs; i++) {
            if (done[i]) continue;
            left = true;
            bool busy = false;
            for (int j = 0; j < nargs; j++) busy |= j != i && !done[j] && src[j] == ARGREG[i];
            if (busy) continue;
            if (src[i] != ARGREG[i]) emit_r_r(g, isx(src[i]) ? I_MOVQ : I_MOV, ARGREG[i], src[i]);
            done[i] = progress = true;
        }
        if (!left) break;
        if (!progress) {
            int k = 0;
            while (done[k]) k++;
            int from = src[k];
            emit_r_r(g, I_MOV, R11, from);
            for (int j = 0; j < nargs; j++)
                if (!done[j] && src[j] == from) src[j] = R11;
        }
    }
    rclr_scratch(g);
    for (const int* q = SCRATCH; *q >= 0; q++) lckr(g, *q);
    for (int i = 0; i < nargs; i++)
        if (args[i]->type != OD_OBJ || src[i] < 0) load_into(g, args[i], ARGREG[i]);
    emit_r_i(g, I_MOV, R10, reinterpret_cast<long>(fn));
    emit_r(g, I_CALL, R10);
    if (writes) forgetall(g);
    if (res == 1) rslt(g, r, RAX);
    else if (res == 2) rslt(g, r, XMM0);
}

// A numeric helper of doubles: a in XMM0, b in XMM1.
void callnum(VGGEN* g, const void* fn, OPDESC* a, OPDESC* b, int res, OPDESC* r) {
    flushall(g);
    rclr_scratch(g);
    for (const int* q = SCRATCH; *q >= 0; q++) lckr(g, *q);
    lckr(g, XMM0);
    lckr(g, XMM1);
    load_into(g, a, XMM0);
    if (b) load_into(g, b, XMM1);
    emit_r_i(g, I_MOV, R10, reinterpret_cast<long>(fn));
    emit_r(g, I_CALL, R10);
    rslt(g, r, res == 1 ? RAX : XMM0);
}

// The truth of o as 0 or 1 in a locked register: an integer is true when not
// zero, a double when neither zero nor missing.
int truth(VGGEN* g, OPDESC* o, bool dbl) {
    int ra = loadgp(g, o);
    int t = selr(g, GPL);
    if (!dbl) {
        emit_r_r(g, I_TEST, ra, ra);
        setbool(g, CC_NE, t);
        return t;
    }
    int u = selr(g, GPL);
    emit_r_r(g, I_MOV, t, ra);
    emit_r_i(g, I_SHL, t, 1);
    setbool(g, CC_NE, t);
    emit_r_r(g, I_MOV, u, ra);
    emit_r_i(g, I_SAR, u, 48);
    emit_r_i(g, I_CMP, u, -1);
    setbool(g, CC_NE, u);
    emit_r_r(g, I_AND, t, u, INSTF_W32);
    ulkr(g, u);
    return t;
}

// An integer 0/1 result, as the instruction's type wants it.
void boolrslt(VGGEN* g, PINST* p, int t) {
    if (p->type != WG_TDBL) {
        rslt(g, g->ops[0], t);
        return;
    }
    int x = selr(g, XL);
    emit_r_r(g, I_CVTSI2SD, x, t);
    rslt(g, g->ops[0], x);
}

// Sets a register to the value of the missing test (sar 48 == -1) of reg.
void missflags(VGGEN* g, int reg, int tmp) {
    emit_r_r(g, I_MOV, tmp, reg);
    emit_r_i(g, I_SAR, tmp, 48);
    emit_r_i(g, I_CMP, tmp, -1);
}

// ---------------------------------------------------------------- generators

#define R (g->ops[0])
#define A (g->ops[1])
#define B (g->ops[2])

void iop(VGGEN* g, short op, bool flags = true) {
    SRC sb = gpsrc(g, B, GPL, op != I_IMUL);
    int ra = loadgpw(g, A, GPL, true);
    // Address arithmetic leaves no overflow to test: adding 0 is nothing.
    if (flags || sb.op.type != OT_I || sb.imm != 0) emit_src(g, op, ra, sb);
    rslt(g, R, ra);
}

void fop(VGGEN* g, short op) {
    rclr(g, XMM0);
    lckr(g, XMM0);
    SRC sb = xsrc(g, B);
    load_into(g, A, XMM0);
    long t = trapbegin(g);
    emit_src(g, op, XMM0, sb);
    patchhere(g, t);
    rslt(g, R, XMM0);
}

void idivmod(VGGEN* g, bool mod) {
    rclr(g, XMM0);
    lckr(g, XMM0);
    rclr(g, RAX);
    rclr(g, RDX);
    lckr(g, RAX);
    lckr(g, RDX);
    SRC sd = gpsrc(g, B, GPL_NODIV, false);
    load_into(g, A, RAX);
    long t = trapbegin(g);
    emit_none(g, I_CQO);
    INST in = mk(I_IDIV, sd.op, OPERAND{});
    if (sd.op.type == OT_M) putrip(g, in, sd.target);
    else put(g, in);
    long j = jfwd(g, -1);
    patchhere(g, t);
    emit_r_r(g, I_MOVQ, mod ? RDX : RAX, XMM0);
    patchhere(g, j);
    rslt(g, R, mod ? RDX : RAX);
}

// res times base for each set bit of the exponent e, base squared on the
// way, until e runs out.
void powloop(VGGEN* g, short mul, int res, int base, int e) {
    unsigned char* loop = g->cur;
    emit_r_r(g, I_TEST, e, e);
    long end1 = jfwd(g, CC_E);
    emit_r_i(g, I_TEST, e, 1);
    long skip = jfwd(g, CC_E);
    emit_r_r(g, mul, res, base);
    patchhere(g, skip);
    emit_r_i(g, I_SHR, e, 1);
    long end2 = jfwd(g, CC_E);
    emit_r_r(g, mul, base, base);
    jback(g, -1, loop);
    patchhere(g, end1);
    patchhere(g, end2);
}

// A trap's write-back must happen on every path, so it comes before the
// instruction branches inside itself.
void iexp(VGGEN* g) {
    flushall(g);
    rclr(g, XMM0);
    lckr(g, XMM0);
    rclr(g, RAX);
    rclr(g, RDX);
    lckr(g, RAX);
    lckr(g, RDX);
    int res = selr(g, GPL_NODIV);
    int base = loadgpw(g, A, GPL_NODIV);
    int e = loadgpw(g, B, GPL_NODIV);
    int sgn = selr(g, GPL_NODIV);
    emit_r_r(g, I_MOV, sgn, e);
    emit_r_i(g, I_MOV, res, 1);
    emit_r_r(g, I_TEST, e, e);
    long pos = jfwd(g, CC_NS);
    emit_r(g, I_NEG, e);
    patchhere(g, pos);
    powloop(g, I_IMUL, res, base, e);
    emit_r_r(g, I_MOV, RAX, res);
    emit_r_r(g, I_TEST, sgn, sgn);
    long done = jfwd(g, CC_NS);
    long t = trapbegin(g);
    emit_r_i(g, I_MOV, RAX, 1);
    emit_none(g, I_CQO);
    emit_r(g, I_IDIV, res);
    long done2 = jfwd(g, -1);
    patchhere(g, t);
    emit_r_r(g, I_MOVQ, RAX, XMM0);
    patchhere(g, done);
    patchhere(g, done2);
    rslt(g, R, RAX);
}

void fexp(VGGEN* g) {
    flushall(g);
    rclr(g, XMM0);
    lckr(g, XMM0);
    int base = loadxw(g, A);
    int e = loadgpw(g, B);
    int sgn = selr(g, GPL);
    unsigned char* one = litaddr(g, 0x3FF0000000000000ul);
    emit_r_m(g, I_MOVSD, XMM0, one);
    emit_r_r(g, I_MOV, sgn, e);
    emit_r_r(g, I_TEST, e, e);
    long pos = jfwd(g, CC_NS);
    emit_r(g, I_NEG, e);
    patchhere(g, pos);
    long t = trapbegin(g);
    powloop(g, I_MULSD, XMM0, base, e);
    emit_r_r(g, I_TEST, sgn, sgn);
    long cont = jfwd(g, CC_NS);
    emit_r_r(g, I_MOVAPD, base, XMM0);
    emit_r_m(g, I_MOVSD, XMM0, one);
    emit_r_r(g, I_DIVSD, XMM0, base);
    patchhere(g, cont);
    patchhere(g, t);
    rslt(g, R, XMM0);
}

int cmpcc(int opcode) {
    switch (opcode) {
    case EQ_: case BEQ_: return CC_E;
    case NE_: case BNE_: return CC_NE;
    case LT_: case BLT_: return CC_L;
    case LE_: case BLE_: return CC_LE;
    case GT_: case BGT_: return CC_G;
    default: return CC_GE;
    }
}

// Compare of doubles: a > b and a >= b are asked as they are, a < b and
// a <= b with the operands swapped, so that "unordered" is always false.
void fcompare(VGGEN* g, int cc, int* xreg) {
    bool swap = cc == CC_L || cc == CC_LE;
    OPDESC* first = swap ? B : A;
    OPDESC* second = swap ? A : B;
    SRC s = xsrc(g, second);
    int x = loadx(g, first);
    *xreg = x;
    emit_src(g, I_UCOMISD, x, s);
}

void cmpval(VGGEN* g, PINST* p) {
    int cc = cmpcc(p->opcode);
    if (p->type != WG_TDBL) {
        SRC sb = gpsrc(g, B);
        int ra = loadgp(g, A);
        int t = selr(g, GPL);
        emit_src(g, I_CMP, ra, sb);
        setbool(g, cc, t);
        rslt(g, R, t);
        return;
    }
    rclr(g, XMM0);
    lckr(g, XMM0);
    int t = selr(g, GPL);
    int u = selr(g, GPL);
    int x;
    long tr = trapbegin(g);
    fcompare(g, cc, &x);
    if (cc == CC_E || cc == CC_NE) {
        emit_cc_r(g, I_SETCC, cc, t);
        emit_cc_r(g, I_SETCC, cc == CC_E ? CC_NP : CC_P, u);
        put(g, mk(I_MOVZX, opr(t), opr(t), 0, INSTF_W32));
        put(g, mk(I_MOVZX, opr(u), opr(u), 0, INSTF_W32));
        emit_r_r(g, cc == CC_E ? I_AND : I_OR, t, u, INSTF_W32);
    } else {
        setbool(g, (cc == CC_G || cc == CC_L) ? CC_A : CC_AE, t);
    }
    long j = jfwd(g, -1);
    patchhere(g, tr);
    emit_r_i(g, I_MOV, t, cc == CC_NE ? 1 : 0, INSTF_W32);
    patchhere(g, j);
    boolrslt(g, p, t);
}

void vvgandor(VGGEN* g, PINST* p) {
    if (p->modifier & WG_MVEC) {
        bool neg = p->modifier & WG_MNEG;
        const void* fn = p->opcode == AND_ ? (neg ? (const void*)vvgandrn : (const void*)vvgandr)
                                           : (neg ? (const void*)vvgorrn : (const void*)vvgorr);
        OPDESC* args[2] = {g->parms[0].a, g->parms[0].b};
        callhelper(g, fn, args, 2, false, 0, nullptr);
        lckr(g, RAX);
        boolrslt(g, p, RAX);
        return;
    }
    bool dbl = p->type == WG_TDBL;
    int ta = truth(g, A, dbl);
    int tb = truth(g, B, dbl);
    emit_r_r(g, p->opcode == AND_ ? I_AND : I_OR, ta, tb, INSTF_W32);
    boolrslt(g, p, ta);
}

void vvgnot(VGGEN* g, PINST* p) {
    int t = truth(g, A, p->type == WG_TDBL);
    emit_r_i(g, I_XOR, t, 1, INSTF_W32);
    boolrslt(g, p, t);
}

void vvgmiss(VGGEN* g, PINST* p) {
    int ra = loadgp(g, A);
    int t = selr(g, GPL);
    missflags(g, ra, t);
    setbool(g, CC_E, t);
    boolrslt(g, p, t);
}

void vvgneg(VGGEN* g, PINST* p) {
    int ra = loadgpw(g, A, GPL, true);
    if (p->type != WG_TDBL) {
        emit_r(g, I_NEG, ra);
        rslt(g, R, ra);
        return;
    }
    int t = selr(g, GPL);
    missflags(g, ra, t);
    long j = jfwd(g, CC_E);
    emit_r_i(g, I_BTC, ra, 63);
    patchhere(g, j);
    rslt(g, R, ra);
}

void vvgsum(VGGEN* g, PINST* p) {
    if (p->type != WG_TDBL) {
        iop(g, I_ADD);
        return;
    }
    flushall(g);
    rclr(g, XMM0);
    lckr(g, XMM0);
    int rb = loadgp(g, B);
    SRC sb = xsrc(g, B);
    load_into(g, A, XMM0);
    int t = selr(g, GPL);
    emit_r_r(g, I_MOVQ, t, XMM0);
    emit_r_i(g, I_SAR, t, 48);
    emit_r_i(g, I_CMP, t, -1);
    long amiss = jfwd(g, CC_E);
    missflags(g, rb, t);
    long done1 = jfwd(g, CC_E);
    long tr = trapbegin(g);
    emit_src(g, I_ADDSD, XMM0, sb);
    patchhere(g, tr);
    long done2 = jfwd(g, -1);
    patchhere(g, amiss);
    missflags(g, rb, t);
    long done3 = jfwd(g, CC_E);
    emit_r_r(g, I_MOVQ, XMM0, rb);
    patchhere(g, done1);
    patchhere(g, done2);
    patchhere(g, done3);
    rslt(g, R, XMM0);
}

// The collating key of reg's double in t (see vgcollkey).
void collkey(VGGEN* g, int reg, int t) {
    emit_r_r(g, I_MOV, t, reg);
    emit_r_i(g, I_SAR, t, 63);
    emit_r_i(g, I_BTS, t, 63);
    emit_r_r(g, I_XOR, t, reg);
}

void vvgminmax(VGGEN* g, PINST* p) {
    bool max = p->opcode == MAX_;
    if (p->modifier & WG_MVEC) {
        OPDESC* args[2] = {g->parms[0].a, g->parms[0].b};
        callhelper(g, max ? (const void*)vvgmaxr : (const void*)vvgminr, args, 2, false, 2, R);
        return;
    }
    if (p->type == WG_TCHAR) {
        VGPARM& s = g->parms[0];
        VGPARM& d = g->parms[1];
        bool fixed = s.b->type == OD_IMM && d.b->type == OD_IMM && s.b->value == d.b->value;
        const void* fn = max ? (fixed ? (const void*)vvgmaxf : (const void*)vvgmaxv) : (fixed ? (const void*)vvgminf : (const void*)vvgminv);
        OPDESC* args[4] = {s.a, s.b, d.a, d.b};
        callhelper(g, fn, args, 4, true, 0, nullptr);
        return;
    }
    int res = loadgpw(g, B);
    int ra = loadgp(g, A);
    if (p->type != WG_TDBL) {
        emit_r_r(g, I_CMP, ra, res);
        put(g, mk(I_CMOV, opr(res), opr(ra), 0, max ? CC_GE : CC_LE));
        rslt(g, R, res);
        return;
    }
    int t = selr(g, GPL);
    int u = selr(g, GPL);
    missflags(g, res, t);
    long picka = jfwd(g, CC_E);
    missflags(g, ra, t);
    long done1 = jfwd(g, CC_E);
    collkey(g, ra, t);
    collkey(g, res, u);
    emit_r_r(g, I_CMP, t, u);
    long done2 = jfwd(g, max ? CC_B : CC_A);
    patchhere(g, picka);
    emit_r_r(g, I_MOV, res, ra);
    patchhere(g, done1);
    patchhere(g, done2);
    rslt(g, R, res);
}

// r = a + b on addresses: no overflow to test, so r = r + constant waits in
// r's descriptor, and a sum of objects used again (a row's base and offset,
// once per column) is formed by LEA from registers that keep them.
void vvgaddr(VGGEN* g) {
    if (B->type == OD_IMM && A == R) {
        if (B->value == 0) return;
        int h = R->basereg;
        long d = static_cast<long>(static_cast<unsigned long>(R->offset) + static_cast<unsigned long>(B->value));
        if (h >= 0 && !isx(h) && g->regs[h].chain == R && !R->next && d >= INT32_MIN && d <= INT32_MAX) {
            R->offset = d;
            R->alctag = 1;
            R->gen++;
            g->newdirty += 2;  // its write-back now takes a LEA as well
            return;
        }
    }
    settle(g, A);
    settle(g, B);
    auto kept = [g](OPDESC* o) { return o->type == OD_OBJ && (o->basereg >= 0 || o->lasticode > g->icode); };
    if (R == A || R == B || !kept(A)) {
        iop(g, I_ADD, false);
        return;
    }
    // The next column's address from the same base and offset: the register
    // still holds their sum, only the displacement starts again.
    long ia = A - g->objs, ib = B->type == OD_OBJ ? B - g->objs : -1;
    if (R->addrmode == VG_SUM && R->base == ia && R->index == ib && A->basereg >= 0 && B->basereg >= 0 &&
        A->gen == R->sumgen[0] && B->gen == R->sumgen[1]) {
        R->offset = 0;
        R->gen++;
        g->newdirty += 2;
        return;
    }
    int ra = loadgp(g, A, KEEPL);
    SRC sb = kept(B) ? SRC{opr(loadgp(g, B, KEEPL)), 0, nullptr} : gpsrc(g, B);
    int t = selr(g, ADDRL);
    if (sb.op.type == OT_M) {
        emit_r_r(g, I_MOV, t, ra);
        emit_src(g, I_ADD, t, sb);
    } else {
        INST in = mk(I_LEA, opr(t), sb.op.type == OT_R ? opmi(ra, sb.op.reg) : opm(ra));
        in.add_disp = sb.op.type == OT_I ? static_cast<int>(sb.imm) : 0;
        put(g, in);
    }
    rslt(g, R, t);
    if (sb.op.type == OT_R && B->type == OD_OBJ && B->basereg == sb.op.reg) {
        R->addrmode = VG_SUM;
        R->base = static_cast<int>(ia);
        R->index = static_cast<int>(ib);
        R->sumgen[0] = A->gen;
        R->sumgen[1] = B->gen;
    }
}

void vvgoper(VGGEN* g, PINST* p) {
    bool dbl = p->type == WG_TDBL;
    switch (p->opcode) {
    case ADD_: dbl ? fop(g, I_ADDSD) : iop(g, I_ADD); break;
    case SUB_: dbl ? fop(g, I_SUBSD) : iop(g, I_SUB); break;
    case MUL_: dbl ? fop(g, I_MULSD) : iop(g, I_IMUL); break;
    case DIV_:
        if (!dbl) idivmod(g, false);
        else if (p->modifier & WG_MNOTRAP) callnum(g, reinterpret_cast<const void*>(vvgdiv), A, B, 2, R);
        else fop(g, I_DIVSD);
        break;
    case ADDR_: vvgaddr(g); break;
    case PTRDIF_: iop(g, I_SUB, false); break;
    case EXP_: dbl ? fexp(g) : iexp(g); break;
    default: cmpval(g, p); break;
    }
}

void vvgmod(VGGEN* g, PINST* p) {
    if (p->type == WG_TDBL) callnum(g, reinterpret_cast<const void*>(vvgmodr), A, B, 2, R);
    else idivmod(g, true);
}

void vvgbitop(VGGEN* g, PINST* p) { iop(g, p->opcode == ANDB_ ? I_AND : p->opcode == ORB_ ? I_OR : I_XOR); }

void vvgcvd(VGGEN* g, PINST*) {
    int ra = loadgp(g, A);
    int x = selr(g, XL);
    emit_r_r(g, I_CVTSI2SD, x, ra);
    rslt(g, R, x);
}

void vvgcvi(VGGEN* g, PINST* p) {
    if (p->opcode == CVL_ && (p->modifier & WG_MNOTRAP)) {
        callnum(g, reinterpret_cast<const void*>(vvgcvlr), A, nullptr, 1, R);
        return;
    }
    rclr(g, XMM0);
    lckr(g, XMM0);
    SRC sa = xsrc(g, A);
    int t = selr(g, GPL);
    long tr = trapbegin(g);
    emit_src(g, p->opcode == CVI_ ? I_CVTTSD2SI : I_CVTSD2SI, t, sa);
    long j = jfwd(g, -1);
    patchhere(g, tr);
    emit_r_r(g, I_MOVQ, t, XMM0);
    patchhere(g, j);
    rslt(g, R, t);
}

// ---------------------------------------------------------------- branches

void vvgbcond(VGGEN* g, PINST* p) {
    unsigned long lab = p->r;
    if (p->opcode == BTM_ || p->opcode == BFM_) {
        SRC sb = gpsrc(g, B);
        int ra = loadgp(g, A);
        flushall(g);
        emit_src(g, I_TEST, ra, sb);
        bout(g, 1, lab, p->opcode == BTM_ ? CC_NE : CC_E);
        return;
    }
    int cc = cmpcc(p->opcode);
    if (p->type != WG_TDBL) {
        SRC sb = gpsrc(g, B);
        int ra = loadgp(g, A);
        flushall(g);
        emit_src(g, I_CMP, ra, sb);
        bout(g, 1, lab, cc);
        return;
    }
    rclr(g, XMM0);
    lckr(g, XMM0);
    bool swap = cc == CC_L || cc == CC_LE;
    SRC s = xsrc(g, swap ? A : B);
    int x = loadx(g, swap ? B : A);
    flushall(g);
    // After a trap the comparison counts as unordered.
    long tr = 0;
    if (cc == CC_NE) bout(g, 4, lab, 0, R15);
    else tr = trapbegin(g);
    emit_src(g, I_UCOMISD, x, s);
    if (cc == CC_E) {
        long skip = jfwd(g, CC_P);
        bout(g, 1, lab, CC_E);
        patchhere(g, skip);
    } else if (cc == CC_NE) {
        bout(g, 1, lab, CC_P);
        bout(g, 1, lab, CC_NE);
    } else {
        bout(g, 1, lab, (cc == CC_G || cc == CC_L) ? CC_A : CC_AE);
    }
    if (cc != CC_NE) patchhere(g, tr);
}

void vvgbft(VGGEN* g, PINST* p) {
    int t = p->type == WG_TDBL ? truth(g, A, true) : loadgp(g, A);
    flushall(g);
    emit_r_r(g, I_TEST, t, t);
    bout(g, 1, p->r, p->opcode == BT_ ? CC_NE : CC_E);
}

void vvgbmiss(VGGEN* g, PINST* p) {
    int ra = loadgp(g, A);
    int t = selr(g, GPL);
    flushall(g);
    missflags(g, ra, t);
    bout(g, 1, p->r, p->opcode == BTMISS_ ? CC_E : CC_NE);
}

void vvgbovfl(VGGEN* g, PINST* p) {
    flushall(g);
    bout(g, 1, p->r, p->opcode == BTOVFL_ ? CC_O : CC_NO);
}

void vvgbranch(VGGEN* g, PINST* p) {
    flushall(g);
    bout(g, 0, p->r, 0);
    forgetall(g);
}

// The target must be the address of one of the labels taken as data; any
// other value goes to the software-fault stub instead of anywhere at all.
void vvgbi(VGGEN* g, PINST*) {
    flushall(g);
    forgetall(g);
    for (int r : {RAX, RCX, RDX}) lckr(g, r);
    load_into(g, A, RAX);
    emit_r_m(g, I_LEA, RDX, g->s->labtab);
    emit_r_i(g, I_MOV, RCX, g->s->nlabtab, INSTF_W32);
    unsigned char* loop = g->cur;
    emit_r_r(g, I_TEST, RCX, RCX, INSTF_W32);
    long bad = jfwd(g, CC_E);
    put(g, mk(I_CMP, opr(RAX), opm(RDX)));
    long ok = jfwd(g, CC_E);
    emit_r_i(g, I_ADD, RDX, 8);
    emit_r(g, I_DEC, RCX, INSTF_W32);
    jback(g, -1, loop);
    patchhere(g, ok);
    emit_r(g, I_JMP, RAX);
    patchhere(g, bad);
    long next = trapbegin(g);
    jback(g, -1, g->s->stub2);
    patchhere(g, next);
}

// ---------------------------------------------------------------- control

unsigned char* s2(VGGEN* g, int off) { return g->seg2 + off; }

void vvglabel(VGGEN* g, PINST* p) {
    flushall(g);
    forgetall(g);
    g->labels[labidx(g, p->r)].offset = g->cur - g->code;
}

void leave(VGGEN* g, OPDESC* value) {
    if (value->type != OD_OBJ || value->basereg != RAX) {
        rclr(g, RAX);
        lckr(g, RAX);
        load_into(g, value, RAX);
    }
    jback(g, -1, g->s->stcode);
}

void vvgterm(VGGEN* g, PINST* p) {
    flushall(g);
    long skip = -1;
    if (p->modifier & WG_MCOND) {
        int t = truth(g, A, p->type == WG_TDBL);
        emit_r_r(g, I_TEST, t, t);
        skip = jfwd(g, CC_E);
    }
    leave(g, R);
    if (skip >= 0) patchhere(g, skip);
    else forgetall(g);
}

void vvgret(VGGEN* g, PINST*) {
    flushall(g);
    rclr(g, RCX);
    lckr(g, RCX);
    emit_r_m(g, I_MOV, RCX, s2(g, VG2_LINKDEPTH));
    emit_r_r(g, I_TEST, RCX, RCX);
    long top = jfwd(g, CC_E);
    emit_r(g, I_DEC, RCX);
    emit_m_r(g, I_MOV, s2(g, VG2_LINKDEPTH), RCX);
    emit_none(g, I_RET);
    patchhere(g, top);
    leave(g, A);
    forgetall(g);
}

// A subroutine call: RSP moves by 16 per level, which keeps it aligned and
// lets RESET_ find any level again from the depth alone.
void vvglink(VGGEN* g, PINST* p) {
    flushall(g);
    forgetall(g);
    lckr(g, RAX);
    emit_r_m(g, I_MOV, RAX, s2(g, VG2_LINKDEPTH));
    emit_r_i(g, I_CMP, RAX, VG_MAXLINK);
    long ok = jfwd(g, CC_B);
    long after = trapbegin(g);
    jback(g, -1, g->s->stub2);
    patchhere(g, ok);
    emit_r(g, I_INC, RAX);
    emit_m_r(g, I_MOV, s2(g, VG2_LINKDEPTH), RAX);
    emit_r_i(g, I_SUB, RSP, 8);
    bout(g, 3, p->r, 0);
    emit_r_i(g, I_ADD, RSP, 8);
    patchhere(g, after);
}

void vvgmark(VGGEN* g, PINST*) {
    int t = selr(g, GPL);
    emit_r_m(g, I_MOV, t, s2(g, VG2_LINKDEPTH));
    emit_m_r(g, I_MOV, s2(g, VG2_MARK), t);
}

void vvgreset(VGGEN* g, PINST*) {
    int t = selr(g, GPL);
    int u = selr(g, GPL);
    emit_r_m(g, I_MOV, t, s2(g, VG2_MARK));
    emit_r_m(g, I_MOV, u, s2(g, VG2_LINKDEPTH));
    emit_r_r(g, I_CMP, t, u);
    long stale = jfwd(g, CC_A);
    emit_m_r(g, I_MOV, s2(g, VG2_LINKDEPTH), t);
    emit_r_i(g, I_SHL, t, 4);
    emit_r_i(g, I_MOV, u, reinterpret_cast<long>(&g->s->sp_reset));
    put(g, mk(I_MOV, opr(u), opm(u)));
    emit_r_r(g, I_SUB, u, t);
    emit_r_r(g, I_MOV, RSP, u);
    patchhere(g, stale);
}

void vvgintrpt(VGGEN* g, PINST*) {
    flushall(g);
    rclr(g, RAX);
    lckr(g, RAX);
    int t = selr(g, GPL);
    emit_r_m(g, I_MOV, t, s2(g, VG2_ATTN));
    emit_r_r(g, I_TEST, t, t);
    long skip = jfwd(g, CC_E);
    emit_m_i(g, I_MOV, s2(g, VG2_ATTN), 0);
    leave(g, A);
    patchhere(g, skip);
}

void vvgfunc(VGGEN* g, PINST* p) {
    flushall(g);
    forgetall(g);
    for (const int* q = SCRATCH; *q >= 0; q++) lckr(g, *q);
    for (int x = XMM0; x <= XMM3; x++) lckr(g, x);
    load_into(g, A, R10);
    int ni = 0, nd = 0;
    for (int i = 0; i < g->nfparms; i++) {
        VGPARM& f = g->fparms[i];
        if (f.type == WG_TDBL) load_into(g, f.a, XMM0 + nd++);
        else load_into(g, f.a, ARGREG[ni++]);
    }
    g->nfparms = 0;
    // The function runs with the caller's floating-point environment.
    emit_m(g, I_LDMXCSR, s2(g, VG2_MXCSR));
    emit_r(g, I_CALL, R10);
    emit_m(g, I_LDMXCSR, s2(g, VG2_ARMED));
    rslt(g, R, p->type == WG_TDBL ? XMM0 : RAX);
}

// ---------------------------------------------------------------- data

// Eight bytes of a double between this machine and another IEEE host: a
// load, a byte swap unless the other host is little-endian, and a store,
// which is all the helper does for these lengths.
bool transieee(VGGEN* g, VGHELP fn, long other) {
    OPDESC* sl = g->parms[0].b;
    OPDESC* dl = g->parms[1].b;
    if (fn != vvgredbl && fn != vvgcedbl) return false;
    if (sl->type != OD_IMM || dl->type != OD_IMM || sl->value != 8 || dl->value != 8) return false;
    int from = loadgp(g, A);
    int to = loadgp(g, R);
    int t = selr(g, GPL);
    INST ld = mk(I_MOV, opr(t), opm(from));
    ld.add_disp = static_cast<int>(A->offset);
    put(g, ld);
    if (!(other & (WG_FLITTLE | WG_FNT))) emit_r(g, I_BSWAP, t);
    INST st = mk(I_MOV, opm(to), opr(t));
    st.add_disp = static_cast<int>(R->offset);
    put(g, st);
    return true;
}

void vvgtrans(VGGEN* g, PINST* p) {
    VGPARM& s = g->parms[0];
    VGPARM& d = g->parms[1];
    OPDESC* x;
    VGHELP fn;
    if (p->type == WG_TDBL || p->type == WG_TINTCV) {
        fn = vgtranshelper(p->type, s.a->value, d.a->value, p->modifier);
        if (!fn) vvgassert(g->s, __LINE__);
        long other = (s.a->value & WG_FNATIVE) ? d.a->value : s.a->value;
        if (transieee(g, fn, other)) return;
        x = immop(g, other);
    } else {
        fn = vvgtxxlt;
        x = B;
    }
    OPDESC* args[5] = {A, s.b, R, d.b, x};
    callhelper(g, reinterpret_cast<const void*>(fn), args, 5, true, 0, nullptr);
}

// A move of a few [RSI + k] to [RDI + k].
void wordmove(VGGEN* g, long k, bool w32, int via) {
    INST ld = mk(I_MOV, opr(via), opm(RSI), 0, w32 ? INSTF_W32 : 0);
    ld.add_disp = static_cast<int>(k);
    put(g, ld);
    INST st = mk(I_MOV, opm(RDI), opr(via), 0, w32 ? INSTF_W32 : 0);
    st.add_disp = static_cast<int>(k);
    put(g, st);
}

// n bytes from RSI to RDI, leaving RDI past them when more follows (advance).
// Short moves go by whole words, which is much cheaper than starting the
// string instruction; areas that overlap keep its byte-by-byte forward copy.
void charmove(VGGEN* g, long n, bool advance) {
    if (n <= 0) return;
    if (n < 4 || n > 64) {
        emit_r_i(g, I_MOV, RCX, n, INSTF_W32);
        emit_none(g, I_MOVS);
        return;
    }
    emit_r_r(g, I_MOV, RAX, RDI);
    emit_r_r(g, I_SUB, RAX, RSI);
    emit_r_i(g, I_ADD, RAX, n - 1);
    emit_r_i(g, I_CMP, RAX, 2 * n - 1);
    long slow = jfwd(g, CC_B);
    if (n < 8) {
        INST a = mk(I_MOV, opr(RCX), opm(RSI), 0, INSTF_W32), b = a;
        b.dest = opr(RAX);
        b.add_disp = static_cast<int>(n - 4);
        put(g, a);
        put(g, b);
        INST c = mk(I_MOV, opm(RDI), opr(RCX), 0, INSTF_W32), d = mk(I_MOV, opm(RDI), opr(RAX), 0, INSTF_W32);
        d.add_disp = static_cast<int>(n - 4);
        put(g, c);
        put(g, d);
    } else {
        for (long k = 0; k + 8 <= n; k += 8) wordmove(g, k, false, RCX);
        if (n % 8) wordmove(g, n - 8, false, RCX);
    }
    if (advance) emit_r_i(g, I_ADD, RDI, n);
    long done = jfwd(g, -1);
    patchhere(g, slow);
    emit_r_i(g, I_MOV, RCX, n, INSTF_W32);
    emit_none(g, I_MOVS);
    patchhere(g, done);
}

// n bytes of c at RDI.
void charpad(VGGEN* g, long n, long c) {
    if (n < 4 || n > 64) {
        emit_r_i(g, I_MOV, RAX, c * 0x01010101L, INSTF_W32);
        emit_r_i(g, I_MOV, RCX, n, INSTF_W32);
        emit_none(g, I_STOS);
        return;
    }
    emit_r_i(g, I_MOV, RAX, static_cast<long>(static_cast<unsigned long>(c) * 0x0101010101010101ul));
    auto store = [g](long k, bool w32) {
        INST st = mk(I_MOV, opm(RDI), opr(RAX), 0, w32 ? INSTF_W32 : 0);
        st.add_disp = static_cast<int>(k);
        put(g, st);
    };
    if (n < 8) {
        store(0, true);
        store(n - 4, true);
        return;
    }
    for (long k = 0; k + 8 <= n; k += 8) store(k, false);
    if (n % 8) store(n - 8, false);
}

// A character move of 4 to 64 bytes, and its padding, straight between the
// registers that hold the two addresses (with their displacements); the
// string instruction, for areas that overlap, waits out of line.
bool charfast(VGGEN* g, PINST* p, long n, long pad) {
    VGPARM& s = g->parms[0];
    VGPARM& d = g->parms[1];
    auto disp = [](OPDESC* o) { return o->type == OD_OBJ ? o->offset : 0; };
    if (n < 4 || n > 64 || (pad > 0 && pad < 4) || pad > 64) return false;
    if (labs(disp(s.a)) > (1L << 29) || labs(disp(d.a)) > (1L << 29)) return false;
    for (int r : {RDI, RSI, RCX, RAX}) {
        rclr(g, r);
        lckr(g, r);
    }
    int sr = loadgp(g, s.a, ADDRL), dr = loadgp(g, d.a, ADDRL);
    int so = static_cast<int>(disp(s.a)), dof = static_cast<int>(disp(d.a));
    long padc = (p->modifier & WG_MPADC) ? (p->modifier & 0xFF) : 0x20;
    // Overlap: the distance from source to target, plus n - 1, below 2n - 1.
    INST dist = mk(I_LEA, opr(RAX), opm(dr));
    dist.add_disp = static_cast<int>(dof - so + n - 1);
    put(g, dist);
    emit_r_r(g, I_SUB, RAX, sr);
    emit_r_i(g, I_CMP, RAX, 2 * n - 1);
    long jend = jfwd(g, CC_B);
    auto move = [&](long k, bool w32, int via) {
        INST ld = mk(I_MOV, opr(via), opm(sr), 0, w32 ? INSTF_W32 : 0);
        ld.add_disp = static_cast<int>(so + k);
        put(g, ld);
        INST st = mk(I_MOV, opm(dr), opr(via), 0, w32 ? INSTF_W32 : 0);
        st.add_disp = static_cast<int>(dof + k);
        put(g, st);
    };
    if (n < 8) {
        move(0, true, RCX);
        move(n - 4, true, RAX);
    } else {
        for (long k = 0; k + 8 <= n; k += 8) move(k, false, RCX);
        if (n % 8) move(n - 8, false, RCX);
    }
    if (pad > 0) {
        emit_r_i(g, I_MOV, RAX, static_cast<long>(static_cast<unsigned long>(padc) * 0x0101010101010101ul));
        auto store = [&](long k, bool w32) {
            INST st = mk(I_MOV, opm(dr), opr(RAX), 0, w32 ? INSTF_W32 : 0);
            st.add_disp = static_cast<int>(dof + n + k);
            put(g, st);
        };
        if (pad < 8) {
            store(0, true);
            store(pad - 4, true);
        } else {
            for (long k = 0; k + 8 <= pad; k += 8) store(k, false);
            if (pad % 8) store(pad - 8, false);
        }
    }
    if (g->ncold == g->maxcold) {
        long m = g->maxcold ? 2 * g->maxcold : 64;
        auto* c = static_cast<VGCOLD*>(alcmem(g, m * static_cast<long>(sizeof(VGCOLD))));
        if (g->ncold) memcpy(c, g->cold, g->ncold * sizeof(VGCOLD));
        g->cold = c;
        g->maxcold = m;
    }
    g->cold[g->ncold++] = VGCOLD{jend, g->cur - g->code, sr, dr, so, dof, n, pad, padc};
    g->coldbytes += VG_COLDMAX;
    return true;
}

// The out-of-line paths, after all other code.
void coldpaths(VGGEN* g) {
    for (long i = 0; i < g->ncold; i++) {
        const VGCOLD& c = g->cold[i];
        unsigned char* start = g->cur;
        patchhere(g, c.jend);
        INST ls = mk(I_LEA, opr(RSI), opm(c.sreg)), ld = mk(I_LEA, opr(RDI), opm(c.dreg));
        ls.add_disp = c.soff;
        ld.add_disp = c.doff;
        put(g, ls);
        put(g, ld);
        emit_r_i(g, I_MOV, RCX, c.n, INSTF_W32);
        emit_none(g, I_MOVS);
        if (c.pad > 0) {
            emit_r_i(g, I_MOV, RAX, c.padc * 0x01010101L, INSTF_W32);
            emit_r_i(g, I_MOV, RCX, c.pad, INSTF_W32);
            emit_none(g, I_STOS);
        }
        jback(g, -1, g->code + c.back);
        if (g->cur - start > VG_COLDMAX) vvgassert(g->s, __LINE__);
    }
}

void vvgmovegen(VGGEN* g, PINST* p) {
    VGPARM& s = g->parms[0];
    VGPARM& d = g->parms[1];
    bool known = (s.modifier & WG_MIMMB) && (d.modifier & WG_MIMMB);
    bool dbl = p->type == WG_TDBL;
    if (known && !(p->modifier & WG_MHELPER)) {
        long sl = s.b->value, tl = d.b->value;
        if (dbl && (sl < 3 || sl > 8 || tl < 3 || tl > 8)) {
            char text[80];
            snprintf(text, sizeof(text), "MOVEGEN_ at instruction %ld: a number of length %ld", g->icode, sl < 3 || sl > 8 ? sl : tl);
            gfail(g, text);
        }
        if (sl < 0 || tl < 0) vvgassert(g->s, __LINE__);
        long n = sl < tl ? sl : tl;
        long dd = tl - sl;
        if (!dbl && charfast(g, p, n, dd)) return;
        for (int r : {RDI, RSI, RCX, RAX}) {
            rclr(g, r);
            lckr(g, r);
        }
        load_into(g, s.a, RSI);
        load_into(g, d.a, RDI);
        if (dbl && dd > 0) {
            emit_r_i(g, I_MOV, RAX, 0, INSTF_W32);
            emit_r_i(g, I_MOV, RCX, dd, INSTF_W32);
            emit_none(g, I_STOS);
        }
        if (dbl && dd < 0) emit_r_i(g, I_ADD, RSI, -dd);
        if (dbl) {
            if (n > 0) {
                emit_r_i(g, I_MOV, RCX, n, INSTF_W32);
                emit_none(g, I_MOVS);
            }
        } else {
            charmove(g, n, dd > 0);
            if (dd > 0) charpad(g, dd, (p->modifier & WG_MPADC) ? (p->modifier & 0xFF) : 0x20);
        }
        return;
    }
    unsigned long m = p->modifier;
    const void* fn;
    long x = 0;
    if (dbl) {
        if (m & WG_MCOLL) fn = (m & WG_MDESC) ? (const void*)vvgmvcolldesc : (const void*)vvgmvcoll;
        else if (m & WG_MDECOLL) fn = (m & WG_MDESC) ? (const void*)vvgmvdecolldesc : (const void*)vvgmvdecoll;
        else if (m & WG_MUPCASE) fn = (const void*)vvgxtoyup;
        else fn = (const void*)vvgmvdbl;
    } else {
        bool equal = known && s.b->value == d.b->value;
        if (m & WG_MUPCASE) fn = equal ? (const void*)vvgeqchup : (const void*)vvgnechup;
        else if (m & WG_MDESC) {
            fn = (const void*)vvgmvcollarea;
            x = 1;
        } else if (m & WG_MPADC) {
            fn = (const void*)vvgmvchar;
            x = m & 0xFF;
        } else {
            fn = (const void*)vvgmvch;
        }
    }
    OPDESC* args[5] = {s.a, s.b, d.a, d.b, immop(g, x)};
    callhelper(g, fn, args, 5, true, 0, nullptr);
}

void vvgcmpgen(VGGEN* g, PINST* p) {
    VGPARM& s = g->parms[0];
    VGPARM& d = g->parms[1];
    const void* fn;
    OPDESC* x = immop(g, 0);
    if (p->type == WG_TDBL) fn = (const void*)vvgcmpr;
    else if (p->modifier & WG_MTABLE) {
        fn = (const void*)vvgcmpst;
        x = A;
    } else {
        fn = (const void*)vvgcmps;
    }
    OPDESC* args[5] = {s.a, s.b, d.a, d.b, x};
    callhelper(g, fn, args, 5, false, 1, R);
}

void vvgcat(VGGEN* g, PINST* p) {
    VGPARM& s = g->parms[0];
    VGPARM& d = g->parms[1];
    OPDESC* args[5] = {s.a, s.b, d.a, d.b, R};
    callhelper(g, (p->modifier & WG_MTRIM) ? (const void*)vvgcatv : (const void*)vvgcatf, args, 5, true, 1, R);
}

void vvgcvb(VGGEN* g, PINST*) {
    OPDESC* args[2] = {g->parms[0].a, g->parms[0].b};
    callhelper(g, (const void*)vvgt2n, args, 2, false, 2, R);
}

void vvgcvs(VGGEN* g, PINST*) {
    OPDESC* args[4] = {A, immop(g, 8), g->parms[0].a, g->parms[0].b};
    callhelper(g, (const void*)vvgn2t, args, 4, true, 0, nullptr);
}

void vvgpad(VGGEN* g, PINST*) {
    OPDESC* args[5] = {immop(g, 0), A, g->parms[0].a, g->parms[0].b, immop(g, ' ')};
    callhelper(g, (const void*)vvgpadb, args, 5, true, 0, nullptr);
}

void vvgsmear(VGGEN* g, PINST*) {
    OPDESC* args[5] = {immop(g, 0), immop(g, 0), g->parms[0].a, g->parms[0].b, A};
    callhelper(g, (const void*)vvgexpand, args, 5, true, 0, nullptr);
}

void vvgmove(VGGEN* g, PINST* p) {
    if (p->modifier & WG_MLABEL) {
        if (g->nlabdata >= g->s->nlabtab) vvgassert(g->s, __LINE__);
        int t = selr(g, GPL);
        g->labdata[g->nlabdata++] = labidx(g, p->a);
        bout(g, 4, p->a, 0, t);
        rslt(g, R, t);
        return;
    }
    int ra = loadgp(g, A);
    if (A->type == OD_OBJ && A->basereg == ra && R != A) {
        // Both names now live in one register.
        attach(g, ra, R, 1);
        return;
    }
    rslt(g, R, ra);
}

void vvgalign(VGGEN* g, PINST*) {
    while ((g->cur - g->code) & 15) emit_none(g, I_NOP);
}

void vvgdrop(VGGEN* g, PINST*) {
    if (A->type == OD_OBJ) {
        frop(g, A);
        detach(g, A);
    }
}

void vvgstmt(VGGEN* g, PINST* p) {
    WG_STMTID* st = g->s->code.lastStmt++;
    st->codeaddr = g->cur;
    st->stmtid = static_cast<long>(p->a);
    st->block = 0;
    st->offset = static_cast<int>(g->cur - g->code);
}

void vvgnop(VGGEN*, PINST*) {}

void vvgparm(VGGEN* g, PINST* p) {
    auto keep = [g](OPDESC* o) { return o->type == OD_IMM ? immop(g, o->value) : o; };
    if (p->opcode == IPARM_) {
        VGPARM& v = g->parms[g->nparms++];
        v.a = keep(A);
        v.b = keep(B);
        v.modifier = p->modifier;
        v.type = p->type;
    } else {
        VGPARM& v = g->fparms[g->nfparms++];
        v.a = keep(A);
        v.type = p->type;
    }
}

#undef R
#undef A
#undef B

using GEN = void (*)(VGGEN*, PINST*);

GEN generator(int opcode) {
    switch (opcode) {
    case ADD_: case ADDR_: case SUB_: case MUL_: case DIV_: case EXP_: case PTRDIF_:
    case EQ_: case NE_: case LT_: case LE_: case GT_: case GE_:
        return vvgoper;
    case AND_: case OR_: return vvgandor;
    case ANDB_: case ORB_: case XORB_: return vvgbitop;
    case MOD_: return vvgmod;
    case NEG_: return vvgneg;
    case NOT_: return vvgnot;
    case MISS_: return vvgmiss;
    case SUM_: return vvgsum;
    case MIN_: case MAX_: return vvgminmax;
    case CVD_: return vvgcvd;
    case CVI_: case CVL_: return vvgcvi;
    case CVB_: return vvgcvb;
    case CVS_: return vvgcvs;
    case BEQ_: case BNE_: case BLT_: case BLE_: case BGT_: case BGE_: case BTM_: case BFM_: return vvgbcond;
    case BT_: case BF_: return vvgbft;
    case BTMISS_: case BFMISS_: return vvgbmiss;
    case BTOVFL_: case BFOVFL_: return vvgbovfl;
    case BR_: return vvgbranch;
    case BI_: return vvgbi;
    case LABEL_: return vvglabel;
    case TERM_: return vvgterm;
    case RET_: return vvgret;
    case LINK_: return vvglink;
    case MARK_: return vvgmark;
    case RESET_: return vvgreset;
    case BREAK_: return vvgintrpt;
    case FUNC_: return vvgfunc;
    case PARM_: case IPARM_: return vvgparm;
    case TRANS_: return vvgtrans;
    case MOVEGEN_: return vvgmovegen;
    case CMPGEN_: return vvgcmpgen;
    case CAT_: return vvgcat;
    case PAD_: return vvgpad;
    case SMEAR_: return vvgsmear;
    case MOV_: return vvgmove;
    case ALIGN_: return vvgalign;
    case DROP_: return vvgdrop;
    case STMTID_: return vvgstmt;
    case OPID_: return vvgnop;
    default: return nullptr;
    }
}

long objindex(VGGEN* g, objloc o) {
    unsigned long seg = o >> WG_SEGSHIFT;
    long i = static_cast<long>((o & ((1ul << WG_SEGSHIFT) - 1)) / 8);
    return seg ? g->nobj0 + i : i;
}

void init_pinst(VGGEN* g, PINST* p) {
    int use[3];
    vgopuse(p, use);
    const unsigned long f[3] = {p->r, p->a, p->b};
    for (int i = 0; i < 3; i++) {
        g->ops[i] = nullptr;
        if (use[i] & (VGU_READ | VGU_WRITE)) {
            g->ops[i] = &g->objs[objindex(g, f[i])];
        } else if (use[i] == VGU_IMM) {
            OPDESC& o = g->imm[i];
            memset(&o, 0, sizeof(o));
            o.type = OD_IMM;
            o.value = static_cast<long>(f[i]);
            o.basereg = -1;
            g->ops[i] = &o;
        }
    }
}

// Displacements still to add are added before an instruction reads the
// registers, except by those that fold them into their addressing.
void settleops(VGGEN* g, int opcode) {
    if (opcode == ADDR_ || opcode == IPARM_ || opcode == TRANS_ || opcode == MOVEGEN_) return;
    for (OPDESC* o : g->ops) settle(g, o);
    for (int i = 0; i < g->nparms; i++) {
        settle(g, g->parms[i].a);
        settle(g, g->parms[i].b);
    }
}

void term_pinst(VGGEN* g, PINST* p) {
    ulkall(g);
    int op = p->opcode;
    if (op == IPARM_ || op == PARM_ || op == STMTID_ || op == OPID_) return;
    g->nparms = 0;
    g->nfparms = 0;
    g->nparmimm = 0;
}

}  // namespace

// ---------------------------------------------------------------- the passes

void vvgassert(VGSEGHD* s, int line) {
    vgfail("vvgassert: code generation stopped at line %d", line);
    if (!s || !s->err_jbuf) abort();
    longjmp(*s->err_jbuf, 1);
}

void vvgprolog(VGSEGHD* s) {
    VGGEN* g = G(s);
    // The exit sequence: RAX holds the result.
    emit_r_r(g, I_MOV, RBX, RAX);
    emit_a_m(g, &s->sp_restore);
    emit_r_r(g, I_MOV, RSP, RAX);
    emit_r_i(g, I_MOV, RDI, reinterpret_cast<long>(s));
    emit_r_i(g, I_MOV, R10, reinterpret_cast<long>(vvgleave));
    emit_r(g, I_CALL, R10);
    emit_r_r(g, I_MOV, RAX, RBX);
    s->exit_pop = g->cur;
    emit_r_i(g, I_ADD, RSP, 8);
    for (int r : {RBX, R12, R13, R14, R15, RBP}) emit_r(g, I_POP, r);
    emit_none(g, I_RET);
    // Leave with gl_ret_rc.
    s->exit_rc = g->cur;
    emit_a_m(g, &s->gl_ret_rc);
    jback(g, -1, s->stcode);
    // After a trap the handler chose to go on from: the result in XMM0 and
    // every other register as the trap found it.
    s->stub1 = g->cur;
    s->flags |= VG_FRESUME;
    emit_r_m(g, I_MOVSD, XMM0, s2(g, VG2_RESULT));
    emit_r(g, I_JMP, R15);
    // A fault the code found itself: ask the exception function.
    s->stub2 = g->cur;
    s->flags |= VG_FEXCEPT;
    emit_r_i(g, I_MOV, RDI, reinterpret_cast<long>(s));
    emit_r_i(g, I_MOV, R10, reinterpret_cast<long>(vvgcgunk));
    emit_r(g, I_CALL, R10);
    emit_r_r(g, I_TEST, RAX, RAX, INSTF_W32);
    jback(g, CC_E, s->stub1);
    emit_r_i(g, I_CMP, RAX, 1, INSTF_W32);
    jback(g, CC_E, s->exit_rc);
    emit_a_m(g, &s->except_lbl);
    emit_r(g, I_JMP, RAX);
    // A second run of the same code while one is under way.
    unsigned char* busy = g->cur;
    emit_r_i(g, I_MOV, RAX, static_cast<long>(WG_RC_INTERNAL));
    jback(g, -1, s->exit_pop);
    // The entry.
    s->real_entry = g->cur;
    emit_r(g, I_PUSH, RBP);
    emit_r_r(g, I_MOV, RBP, RSP);
    for (int r : {R15, R14, R13, R12, RBX}) emit_r(g, I_PUSH, r);
    emit_r_i(g, I_SUB, RSP, 8);
    emit_r_i(g, I_MOV, RAX, 1, INSTF_W32);
    putrip(g, mk(I_XCHG, opm(VG_RIP), opr(RAX), 0, INSTF_W32), s2(g, VG2_RUNNING));
    emit_r_r(g, I_TEST, RAX, RAX, INSTF_W32);
    jback(g, CC_NE, busy);
    emit_r_r(g, I_MOV, RAX, RSP);
    emit_m_a(g, &s->sp_restore);
    emit_m_a(g, &s->sp_reset);
    emit_m(g, I_STMXCSR, s2(g, VG2_MXCSR));
    emit_r_i(g, I_MOV, RDI, reinterpret_cast<long>(s));
    emit_r_i(g, I_MOV, R10, reinterpret_cast<long>(vvgenter));
    emit_r(g, I_CALL, R10);
    emit_m(g, I_LDMXCSR, s2(g, VG2_ARMED));
    emit_r_i(g, I_MOV, RCX, reinterpret_cast<long>(s));
}

void vvgcodegen(VGSEGHD* s) {
    VGGEN* g = G(s);
    VGITER it;
    // When each object is used for the last time; a parameter's objects are
    // used by the instruction that takes the parameters.
    long i = 0;
    long parmobj[32];
    int nparmobj = 0;
    for (PINST* p = vgfirst(s, &it); p; p = vgnextp(&it), i++) {
        int use[3];
        vgopuse(p, use);
        const unsigned long f[3] = {p->r, p->a, p->b};
        bool parm = p->opcode == IPARM_ || p->opcode == PARM_;
        for (int k = 0; k < 3; k++) {
            if (!(use[k] & (VGU_READ | VGU_WRITE))) continue;
            long x = objindex(g, f[k]);
            g->objs[x].lasticode = i;
            if (parm && nparmobj < 32) parmobj[nparmobj++] = x;
        }
        if (!parm && p->opcode != STMTID_ && p->opcode != OPID_) {
            for (int k = 0; k < nparmobj; k++) g->objs[parmobj[k]].lasticode = i;
            nparmobj = 0;
        }
    }
    if (vgoption('D') && i > 0) s->dumpmap = static_cast<long*>(xmalloc(s->vgpool, i * sizeof(long), 0));
    s->ndumpmap = 0;
    i = 0;
    for (PINST* p = vgfirst(s, &it); p; p = vgnextp(&it), i++) {
        g->icode = i;
        if (s->dumpmap) s->dumpmap[s->ndumpmap++] = ((g->cur - g->code) << 8) | p->opcode;
        unsigned char* cur0 = g->cur;
        long wb0 = g->wbbytes, cold0 = g->coldbytes;
        g->newdirty = 0;
        delold(g);
        GEN gen = generator(p->opcode);
        if (!gen) vvgassert(s, __LINE__);
        init_pinst(g, p);
        g->cur_pinst = p;
        settleops(g, p->opcode);
        gen(g, p);
        term_pinst(g, p);
        long own = (g->cur - cur0) - (g->wbbytes - wb0) + (g->coldbytes - cold0);
        if (own + VG_WB * g->newdirty > static_cast<long>(iinfo[p->opcode].worst)) {
            char text[96];
            snprintf(text, sizeof(text), "code of %.9s at instruction %ld is larger than its worst case", opname[p->opcode], i);
            gfail(g, text);
        }
    }
    // Past the last instruction: leave with 0.
    flushall(g);
    forgetall(g);
    emit_r_i(g, I_MOV, RAX, 0, INSTF_W32);
    jback(g, -1, s->stcode);
    coldpaths(g);
    for (long k = 0; k < g->nrels; k++) {
        REL* r = &g->rels[k];
        otrg(g, g->labels, r, g->code + r->offset, 0);
    }
}

void vvgstartup(VGSEGHD* s) {
    VGGEN* g = G(s);
    for (long k = 0; k < g->nlabdata; k++) {
        unsigned char* a = g->code + g->labels[g->labdata[k]].offset;
        memcpy(s->labtab + 8 * k, &a, 8);
    }
    s->curcode = g->cur;
}

void vggenerate(VGSEGHD* s, VGCOUNTS* cnt, unsigned char* limit) {
    s->genpool = xmpoolc(16384, 16384, 0);
    if (!s->genpool) longjmp(*s->err_jbuf, 2);
    auto* g = static_cast<VGGEN*>(xmalloc(s->genpool, sizeof(VGGEN), XM_ZERO));
    if (!g) longjmp(*s->err_jbuf, 2);
    s->gen = g;
    g->s = s;
    g->cnt = cnt;
    g->code = s->stcode;
    g->cur = s->stcode;
    g->limit = limit;
    g->seg2 = reinterpret_cast<unsigned char*>(s->segs[2].address);
    g->nobj0 = s->segs[0].length / 8;
    g->nobj = g->nobj0 + s->segs[1].length / 8;
    g->objs = static_cast<OPDESC*>(alcmem(g, g->nobj * sizeof(OPDESC)));
    for (long k = 0; k < g->nobj; k++) {
        OPDESC& o = g->objs[k];
        bool c = k >= g->nobj0;
        o.type = OD_OBJ;
        o.object = c ? (static_cast<objloc>(k - g->nobj0) * 8) | WG_CONSTSEG : static_cast<objloc>(k) * 8;
        o.addr = reinterpret_cast<unsigned char*>(c ? s->segs[1].address + 8 * (k - g->nobj0) : s->segs[0].address + 8 * k);
        o.basereg = -1;
        o.lasticode = -1;
    }
    g->nlabels = cnt->nlabels;
    g->labels = static_cast<VGLABEL*>(alcmem(g, cnt->nlabels * sizeof(VGLABEL)));
    for (long k = 0; k < cnt->nlabels; k++) {
        g->labels[k].id = cnt->labels[k];
        g->labels[k].offset = -1;
    }
    g->rels = static_cast<REL*>(alcmem(g, (cnt->nrels + 1) * sizeof(REL)));
    g->lits = static_cast<VGLITCACHE*>(alcmem(g, (cnt->nlits + 1) * sizeof(VGLITCACHE)));
    g->labdata = static_cast<long*>(alcmem(g, (cnt->nlabdata + 1) * sizeof(long)));
    vvgprolog(s);
    vvgcodegen(s);
    vvgstartup(s);
}

void vggenend(VGSEGHD* s) {
    if (s->genpool) xmpoold(s->genpool);
    s->genpool = nullptr;
    s->gen = nullptr;
}

}  // namespace vrta

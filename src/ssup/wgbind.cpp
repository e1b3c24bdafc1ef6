// Binding a session: the intermediate code is checked as a whole, a block of
// executable memory is laid out (data segments, then code), the generator
// writes the code under cglock, and the code pages become read+execute.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include "hs/hs.h"
#include "ssup/vgint.h"
#include "ssup/vggen.h"
#include "ssup/vghelp.h"

namespace vrta {

namespace {

constexpr long VG_INIT_SIZE = 256;

long round8(long n) { return (n + 7) & ~7L; }

bool validobj(VGSEGHD* s, objloc o, bool write) {
    unsigned long seg = o >> WG_SEGSHIFT;
    unsigned long off = o & ((1ul << WG_SEGSHIFT) - 1);
    if (seg > 1 || (off & 7)) return false;
    if (write && seg != 0) return false;
    return static_cast<long>(off) + 8 <= s->segs[seg].length;
}

int findlabel(const unsigned long* ids, long n, unsigned long id) {
    long lo = 0, hi = n - 1;
    while (lo <= hi) {
        long mid = (lo + hi) / 2;
        if (ids[mid] == id) return static_cast<int>(mid);
        if (ids[mid] < id) lo = mid + 1;
        else hi = mid - 1;
    }
    return -1;
}

int cmpid(const void* x, const void* y) {
    unsigned long a = *static_cast<const unsigned long*>(x), b = *static_cast<const unsigned long*>(y);
    return a < b ? -1 : a > b;
}

// How many IPARM_s an instruction takes.
int iparms(const PINST* p) {
    switch (p->opcode) {
    case AND_:
    case OR_: return (p->modifier & WG_MVEC) ? 1 : 0;
    case MIN_:
    case MAX_: return (p->modifier & WG_MVEC) ? 1 : p->type == WG_TCHAR ? 2 : 0;
    default: break;
    }
    unsigned f = iinfo[p->opcode].flags;
    return (f & IF_P2) ? 2 : (f & IF_P1) ? 1 : 0;
}

bool typeok(const PINST* p) {
    unsigned f = iinfo[p->opcode].flags;
    if (f & IF_TANY) return true;
    if ((p->modifier & WG_MVEC) && (p->opcode == AND_ || p->opcode == OR_ || p->opcode == MIN_ || p->opcode == MAX_))
        return p->type == WG_TDBL;
    if ((p->opcode == MIN_ || p->opcode == MAX_) && p->type == WG_TCHAR) return true;
    switch (p->type) {
    case 16: return f & IF_T16;
    case 32: return f & IF_T32;
    case 128: return f & IF_T128;
    case 256: return f & IF_T256;
    case 2: return f & IF_T2;
    default: return false;
    }
}

}  // namespace

void vgopuse(const PINST* p, int use[3]) {
    use[0] = use[1] = use[2] = VGU_NONE;
    unsigned f = iinfo[p->opcode].flags;
    bool imma = p->modifier & WG_MIMMA, immb = p->modifier & WG_MIMMB;
    auto rd = [&](int i, bool imm) { use[i] = imm ? VGU_IMM : VGU_READ; };
    switch (p->opcode) {
    case OPID_:
    case STMTID_: use[1] = VGU_IMM; return;
    case LABEL_: use[0] = VGU_LABEL; return;
    case IPARM_: rd(1, imma); rd(2, immb); return;
    case TERM_:
        use[0] = VGU_READ;
        if (p->modifier & WG_MCOND) rd(1, imma);
        return;
    case CAT_: use[0] = VGU_READ | VGU_WRITE; return;
    case CMPGEN_:
        use[0] = VGU_WRITE;
        if (p->modifier & WG_MTABLE) rd(1, imma);
        return;
    case CVB_: use[0] = VGU_WRITE; return;
    case TRANS_: use[0] = VGU_READ; rd(1, imma); rd(2, immb); return;
    case MOV_:
        use[0] = VGU_WRITE;
        if (p->modifier & WG_MLABEL) use[1] = VGU_LABEL;
        else rd(1, imma);
        return;
    case AND_:
    case OR_:
    case MIN_:
    case MAX_:
        if (iparms(p)) {
            if (p->type != WG_TCHAR || (p->modifier & WG_MVEC)) use[0] = VGU_WRITE;
            return;
        }
        break;
    default: break;
    }
    if (f & IF_RLAB) use[0] = VGU_LABEL;
    if (f & IF_WR) use[0] = VGU_WRITE;
    if (f & IF_RR) use[0] |= VGU_READ;
    if (f & IF_RA) rd(1, imma);
    if (f & IF_RB) rd(2, immb);
}

// Checks the whole stream and counts what the layout needs.
static wrcode vgcheck(VGSEGHD* s, VGCOUNTS* n) {
    memset(n, 0, sizeof(*n));
    VGITER it;
    long nlab = 0;
    for (PINST* p = vgfirst(s, &it); p; p = vgnextp(&it))
        if (p->opcode == LABEL_) nlab++;
    unsigned long* ids = nullptr;
    if (nlab) {
        ids = static_cast<unsigned long*>(xmalloc(s->vgpool, nlab * sizeof(unsigned long), 0));
        if (!ids) return WG_RC_NOMEM;
    }
    long k = 0;
    for (PINST* p = vgfirst(s, &it); p; p = vgnextp(&it))
        if (p->opcode == LABEL_) ids[k++] = p->r;
    if (nlab) qsort(ids, nlab, sizeof(unsigned long), cmpid);
    for (long i = 1; i < nlab; i++)
        if (ids[i] == ids[i - 1]) return vgfail("wgbind: label %lu is defined twice", ids[i]);
    n->labels = ids;
    n->nlabels = nlab;

    long idx = 0;
    int pending = 0, pint = 0, pdbl = 0;
    const PINST* prev = nullptr;
    const PINST* parm[2] = {nullptr, nullptr};
    for (PINST* p = vgfirst(s, &it); p; p = vgnextp(&it), idx++) {
        const char* name = opname[p->opcode];
        if (!typeok(p)) return vgfail("wgbind: type %d of %.9s at instruction %ld", p->type, name, idx);
        int use[3];
        vgopuse(p, use);
        const unsigned long ops[3] = {p->r, p->a, p->b};
        for (int i = 0; i < 3; i++) {
            if (use[i] == VGU_LABEL) {
                if (findlabel(ids, nlab, ops[i]) < 0)
                    return vgfail("wgbind: %.9s at instruction %ld goes to label %lu, which is not defined", name, idx, ops[i]);
            } else if (use[i] & (VGU_READ | VGU_WRITE)) {
                if (!validobj(s, ops[i], use[i] & VGU_WRITE))
                    return vgfail("wgbind: operand %c of %.9s at instruction %ld is outside its segment", "rab"[i], name, idx);
            } else if (use[i] == VGU_IMM && p->opcode != IPARM_ &&
                       (p->type == WG_TDBL || p->opcode == CVI_ || p->opcode == CVL_)) {
                // A double given in the instruction is read from the literal
                // pool; conversions read one whatever their result's type.
                n->nlits++;
            }
        }
        int need = iparms(p);
        bool quiet = p->opcode == STMTID_ || p->opcode == OPID_;
        if (p->opcode == IPARM_) {
            if (++pending > 2) return vgfail("wgbind: too many IPARM_ at instruction %ld", idx);
        } else if (p->opcode == PARM_) {
            if (p->type == WG_TDBL ? ++pdbl > 4 : ++pint > 5) return vgfail("wgbind: too many PARM_ at instruction %ld", idx);
        } else if (!quiet) {
            if (pending != need)
                return vgfail("wgbind: %.9s at instruction %ld needs %d IPARM_ and has %d", name, idx, need, pending);
            if ((pint || pdbl) && p->opcode != FUNC_)
                return vgfail("wgbind: PARM_ before %.9s at instruction %ld", name, idx);
            pending = pint = pdbl = 0;
        }
        if (p->opcode == BTOVFL_ || p->opcode == BFOVFL_) {
            bool ok = prev && (iinfo[prev->opcode].flags & IF_OVFL) && prev->type != WG_TDBL;
            if (!ok) return vgfail("wgbind: %.9s at instruction %ld does not follow an integer ADD_, SUB_, MUL_ or NEG_", name, idx);
        }
        if (p->opcode == MOV_ && (p->modifier & WG_MLABEL)) {
            n->nlabdata++;
            n->nrels++;
        }
        if (p->opcode == STMTID_) n->nstmt++;
        if (iinfo[p->opcode].flags & (IF_RLAB | IF_BLOCK)) n->nrels += 3;
        if (p->opcode == TRANS_ && (p->type == WG_TDBL || p->type == WG_TINTCV)) {
            // The helper is chosen here and now, so the formats must be known.
            if (!(parm[0]->modifier & WG_MIMMA) || !(parm[1]->modifier & WG_MIMMA))
                return vgfail("wgbind: TRANS_ at instruction %ld has formats that are not constants", idx);
            if (!vgtranshelper(p->type, static_cast<long>(parm[0]->a), static_cast<long>(parm[1]->a), p->modifier))
                return vgfail("wgbind: TRANS_ at instruction %ld cannot convert format %ld to %ld", idx,
                              static_cast<long>(parm[0]->a), static_cast<long>(parm[1]->a));
        }
        if (p->opcode == IPARM_) parm[pending - 1] = p;
        if (!quiet) prev = p;
    }
    if (pending || pint || pdbl) return vgfail("wgbind: the code ends with IPARM_ or PARM_ that nothing uses");
    n->ninst = idx;
    n->nlits += 2;
    return 0;
}

// A bind that fails frees the code block; nothing may keep pointing into it.
static void vgdropcode(VGSEGHD* s) {
    xmpoold(s->codepool);
    s->codepool = nullptr;
    s->block = nullptr;
    s->blocksize = 0;
    s->basereg = s->rx = s->labtab = s->stcode = s->curcode = s->real_entry = nullptr;
    s->exit_rc = s->stub1 = s->stub2 = s->exit_pop = s->resume_at = s->except_lbl = nullptr;
    s->rxsize = s->nlabtab = s->codesize = 0;
    s->entrypoint = nullptr;
    s->code.c_start = s->code.c_end = nullptr;
    s->code.firstStmt = s->code.lastStmt = nullptr;
    for (VGSEG& seg : s->segs) seg.address = nullptr;
}

int vgprotect(VGSEGHD* s) {
    if (mprotect(s->rx, s->rxsize, PROT_READ | PROT_EXEC) != 0) return errno;
    return 0;
}

wrcode wgbind(VGSEGHD* s) {
    VGGCB* g = vggcb();
    if (!g) return WG_RC_NOMEM;
    if (!s) return vgfail("wgbind: no session");
    if (s->state == VG_OPEN) return vgfail("wgbind: the code stream is not closed");
    if (s->state != VG_CLOSED) return vgfail("wgbind: the session is already bound");

    VGCOUNTS cnt;
    if (wrcode rc = vgcheck(s, &cnt)) return rc;
    if (s->worst <= 4096) s->estimate = s->worst;

    // The block: variable segment, the generator's segment and the statement
    // table; then, from a page boundary on, what becomes read+execute: the
    // constant segment, the label table, literals and the code.
    long page = g->physpagesize;
    long rw = round8(s->segs[0].length) + VG2_SIZE + 24 * cnt.nstmt;
    long ro = round8(s->segs[1].length) + 8 * cnt.nlabdata + 8 * cnt.nlits + 16;
    long codesz = s->worst + VG_INIT_SIZE + 350 + 1024;
    long size = rw + ro + codesz + 2 * page;
    s->segs[2].length = VG2_SIZE;
    s->codepool = xmpoolc(size, 16384, XM_CODEGEN | XM_STACK);
    if (!s->codepool) return WG_RC_NOMEM;
    s->block = static_cast<unsigned char*>(xmalloc(s->codepool, size, 0));
    if (!s->block) {
        xmpoold(s->codepool);
        s->codepool = nullptr;
        return WG_RC_NOMEM;
    }
    s->blocksize = size;
    unsigned char* p = s->block;
    s->basereg = p;
    s->segs[0].address = reinterpret_cast<char*>(p);
    p += round8(s->segs[0].length);
    s->segs[2].address = reinterpret_cast<char*>(p);
    p += VG2_SIZE;
    s->code.firstStmt = reinterpret_cast<WG_STMTID*>(p);
    s->code.lastStmt = s->code.firstStmt;
    p += 24 * cnt.nstmt;
    auto pagealign = [page](unsigned char* q) {
        return reinterpret_cast<unsigned char*>((reinterpret_cast<unsigned long>(q) + page - 1) & ~static_cast<unsigned long>(page - 1));
    };
    s->rx = pagealign(p);
    p = s->rx;
    s->segs[1].address = reinterpret_cast<char*>(p);
    p += round8(s->segs[1].length);
    s->labtab = p;
    s->nlabtab = cnt.nlabdata;
    p += 8 * cnt.nlabdata;
    cnt.lits = p;
    p += 8 * cnt.nlits;
    p = reinterpret_cast<unsigned char*>((reinterpret_cast<unsigned long>(p) + 15) & ~15UL);
    s->stcode = p;
    s->code.c_start = p;
    unsigned char* limit = s->block + size;
    // The puddle is whole pages of its own map, so the last page is ours too.
    s->rxsize = pagealign(limit) - s->rx;

    // Initial values.
    memset(s->segs[0].address, 0, round8(s->segs[0].length) + VG2_SIZE);
    memset(s->segs[1].address, 0, round8(s->segs[1].length));
    for (VGCHAIN* c = s->first_initr; c; c = c->next) {
        for (char* q = c->memblock; q < c->curpos; q += sizeof(WG_INIT)) {
            auto* w = reinterpret_cast<WG_INIT*>(q);
            unsigned long seg = w->object >> WG_SEGSHIFT;
            unsigned long off = w->object & ((1ul << WG_SEGSHIFT) - 1);
            memcpy(s->segs[seg].address + off, &w->dataobj, 8);
        }
    }
    unsigned armed = 0x1F80 & ~0x0680u;  // invalid, divide-by-zero and overflow trap
    memcpy(s->segs[2].address + VG2_ARMED, &armed, 4);

    // Generation. Only trivially destructible things live in the frames
    // between here and a vvgassert.
    mutex_lock(&g->cglock);
    g->cglock_root = s;
    jmp_buf jb;
    s->err_jbuf = &jb;
    s->gl_ret_rc = 0;
    int failed = setjmp(jb);
    if (!failed) vggenerate(s, &cnt, limit);
    s->err_jbuf = nullptr;
    g->cglock_root = nullptr;
    mutex_unlock(&g->cglock);
    vggenend(s);
    if (failed) {
        vgdropcode(s);
        return failed == 2 ? WG_RC_NOMEM : WG_RC_INTERNAL;
    }
    s->code.c_end = s->curcode;
    s->codesize = s->curcode - s->stcode;

    if (vgoption('D')) vgdisasm(s);
    if (int e = vgprotect(s)) {
        vgdropcode(s);
        return vgfail("wgbind: mprotect failed: errno=%d", e);
    }
    mutex_lock(&g->cglock);
    if (g->siginit == 0) {
        if (vginstallsig(s) != 0) {
            mutex_unlock(&g->cglock);
            vgdropcode(s);
            return vgfail("wgbind: sigaction failed");
        }
    }
    g->siginit++;
    s->entrypoint = reinterpret_cast<WGFAST>(s->real_entry);
    s->state = VG_BOUND;
    mutex_unlock(&g->cglock);
    return 0;
}

}  // namespace vrta

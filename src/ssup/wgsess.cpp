// Code sessions: the process block, opening and ending a session, data
// objects and the stream of intermediate instructions.
#include <cfloat>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>
#include "hs/hsgcb.h"
#include "ssubs/vz.h"
#include "ssup/vgint.h"
#include "ssup/vv.h"
#include "ssup/vvlayer.h"

namespace vrta {

namespace {

std::once_flag ownonce;
VGGCB* own = nullptr;

// Instructions and initialisation records per chain block.
constexpr long VG_ICODES_LARGE = 410, VG_ICODES = 150;
constexpr long VG_INITR_LARGE = 410, VG_INITR = 50;
constexpr long VG_RECLEN = 40;   // the longest instruction
constexpr long VG_INITLEN = 32;
constexpr long VG_GROWMAX = 1600;

VGCHAIN* newchain(VGSEGHD* s, long capacity, long reclen) {
    auto* c = static_cast<VGCHAIN*>(xmalloc(s->vgpool, sizeof(VGCHAIN) + capacity * reclen, 0));
    if (!c) return nullptr;
    c->next = c->prev = nullptr;
    c->memblock = reinterpret_cast<char*>(c + 1);
    c->curpos = c->memblock;
    c->endpos = c->memblock + capacity * reclen;
    c->capacity = capacity;
    return c;
}

// Chains a block after cur, twice as large while it is under VG_GROWMAX records.
VGCHAIN* growchain(VGSEGHD* s, VGCHAIN* cur, long reclen) {
    long cap = cur->capacity < VG_GROWMAX ? cur->capacity * 2 : cur->capacity;
    VGCHAIN* c = newchain(s, cap, reclen);
    if (!c) return nullptr;
    c->prev = cur;
    cur->next = c;
    return c;
}

bool onchain(VGGCB* g, VGSEGHD* s) {
    for (VGSEGHD* p = g->codeparms; p; p = p->next)
        if (p == s) return true;
    return false;
}

void unlink(VGGCB* g, VGSEGHD* s) {
    for (VGSEGHD** p = &g->codeparms; *p; p = &(*p)->next) {
        if (*p == s) {
            *p = s->next;
            return;
        }
    }
}

// Puts down an initialisation record; a failure goes to err_jbuf when armed.
wrcode vvginseg(VGSEGHD* s, objloc obj, unsigned long value) {
    VGCHAIN* c = s->cur_initr;
    if (c->curpos + VG_INITLEN > c->endpos) {
        VGCHAIN* n = growchain(s, c, VG_INITLEN);
        if (!n) {
            if (s->err_jbuf) longjmp(*s->err_jbuf, 1);
            return WG_RC_NOMEM;
        }
        s->cur_initr = c = n;
    }
    auto* w = reinterpret_cast<WG_INIT*>(c->curpos);
    w->object = obj;
    w->number = 1;
    w->length = 8;
    w->dataobj = value;
    c->curpos += VG_INITLEN;
    return 0;
}

void release(VGSEGHD* s) {
    if (s->codepool) xmpoold(s->codepool);
    s->codepool = nullptr;
    memcpy(s->eye, "VGXX", 4);
    xmpoold(s->vgpool);  // the record itself lives in this pool
}

}  // namespace

VGGCB* vggcb() {
    if (auto* g = static_cast<VGGCB*>(vvgvgcb(VV_SLOT_WG))) return g;
    std::call_once(ownonce, [] { own = static_cast<VGGCB*>(wginit()); });
    return own;
}

wrcode vgfail(const char* fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    if (n < 0) n = 0;
    if (n >= static_cast<int>(sizeof(text))) n = sizeof(text) - 1;
    if (xrmksub) xrmksub(1, text, n);
    return WG_RC_INTERNAL;
}

int vgreclen(const PINST* p) { return p->opcode == 0 ? p->type : PINST_HEAD + iinfo[p->opcode].oplen; }

namespace {
// From it->pos on, the first record that is not a hole, across blocks.
PINST* skipholes(VGITER* it) {
    while (it->c) {
        if (it->pos < it->c->curpos) {
            auto* p = reinterpret_cast<PINST*>(it->pos);
            if (p->opcode) return p;
            it->pos += vgreclen(p);
            continue;
        }
        it->c = it->c->next;
        it->pos = it->c ? it->c->memblock : nullptr;
    }
    return nullptr;
}
}  // namespace

PINST* vgfirst(VGSEGHD* s, VGITER* it) {
    it->c = s->first_icodes;
    it->pos = it->c ? it->c->memblock : nullptr;
    return skipholes(it);
}

PINST* vgnextp(VGITER* it) {
    if (!it->c) return nullptr;
    it->pos += vgreclen(reinterpret_cast<PINST*>(it->pos));
    return skipholes(it);
}

void* wginit() {
    auto* g = static_cast<VGGCB*>(calloc(1, sizeof(VGGCB)));
    if (!g) return nullptr;
    if (hsmkkey(&g->streamKey, nullptr) != 0) {
        free(g);
        return nullptr;
    }
    if (mutex_init(&g->cglock) != 0) {
        thr_keydelete(g->streamKey);
        free(g);
        return nullptr;
    }
    g->physpagesize = sysconf(_SC_PAGESIZE);
    memset(g->options, ' ', sizeof(g->options));
    return g;
}

void wgterm(void* gcb) {
    auto* g = static_cast<VGGCB*>(gcb);
    if (!g) return;
    mutex_lock(&g->cglock);
    while (VGSEGHD* s = g->codeparms) {
        g->codeparms = s->next;
        release(s);
    }
    if (g->siginit > 0) sigaction(SIGFPE, &g->oldact, nullptr);
    g->siginit = 0;
    mutex_unlock(&g->cglock);
    mutex_destroy(&g->cglock);
    thr_keydelete(g->streamKey);
    if (g == own) return;  // the fallback block lives as long as the process
    free(g);
}

wrcode wgsetopt(const char* opstr) {
    VGGCB* g = vggcb();
    if (!g) return WG_RC_NOMEM;
    MutexGuard hold(&g->cglock);
    memset(g->options, ' ', sizeof(g->options));
    if (opstr) {
        size_t n = strnlen(opstr, sizeof(g->options));
        memcpy(g->options, opstr, n);
    }
    return 0;
}

bool vgoption(char c) {
    VGGCB* g = vggcb();
    return g && memchr(g->options, c, sizeof(g->options)) != nullptr;
}

wrcode wgopen(VGSEGHD** codeparm, int flags, const WG_INFO* info, int tid) {
    if (!codeparm) return vgfail("wgopen: no place for the session");
    *codeparm = nullptr;
    VGGCB* g = vggcb();
    if (!g) return WG_RC_NOMEM;
    bool large = flags != 0;
    long psize = large ? 16000 : 4000;
    xmpid pool = xmpoolc(psize, psize, 0);
    if (!pool) return WG_RC_NOMEM;
    auto* s = static_cast<VGSEGHD*>(xmalloc(pool, sizeof(VGSEGHD), XM_ZERO));
    if (!s) {
        xmpoold(pool);
        return WG_RC_NOMEM;
    }
    memcpy(s->eye, "VGSH", 4);
    s->state = VG_OPEN;
    s->vgpool = pool;
    s->code_tid = thr_self();
    s->except_func = vvgdefexcept;
    s->tid = tid;
    s->flags = large ? VG_FLARGE : 0;
    s->fp_max = DBL_MAX;
    s->fp_min = -DBL_MAX;
    s->fp_max_long = 9223372036854775807.0;
    s->fp_min_long = -9223372036854775808.0;
    s->zero = 0.0;
    s->fp_one = 1.0;
    s->macmiss = VZ_MISSING;
    s->macint = INT64_MAX;
    s->macnint = INT64_MIN;
    if (info) s->info = *info;
    long icap = info && info->icodes > 0 ? info->icodes : large ? VG_ICODES_LARGE : VG_ICODES;
    long rcap = info && info->segis > 0 ? info->segis : large ? VG_INITR_LARGE : VG_INITR;
    s->first_icodes = s->cur_icodes = newchain(s, icap, VG_RECLEN);
    s->first_initr = s->cur_initr = newchain(s, rcap, VG_INITLEN);
    if (!s->first_icodes || !s->first_initr) {
        xmpoold(pool);
        return WG_RC_NOMEM;
    }
    for (VGSEG& seg : s->segs) seg.type = 5;
    MutexGuard hold(&g->cglock);
    s->next = g->codeparms;
    g->codeparms = s;
    *codeparm = s;
    return 0;
}

wrcode wgdfobj(VGSEGHD* s, const void* inptr, int is_constant, objloc* objret) {
    if (!s || !objret) return vgfail("wgdfobj: no session");
    if (s->state != VG_OPEN) return vgfail("wgdfobj: the session is no longer open for objects");
    int seg = is_constant ? 1 : 0;
    if (s->segs[seg].length >= (1L << WG_SEGSHIFT) - 8) return vgfail("wgdfobj: the segment is full");
    objloc obj = static_cast<objloc>(s->segs[seg].length) | (static_cast<objloc>(seg) << WG_SEGSHIFT);
    unsigned long value = 0;
    if (inptr) memcpy(&value, inptr, 8);
    if (wrcode rc = vvginseg(s, obj, value)) return rc;
    s->segs[seg].length += 8;
    *objret = obj;
    return 0;
}

wrcode wgemit(VGSEGHD* s, int opcode, int type, unsigned long modifier, unsigned long a, unsigned long b,
              unsigned long r) {
    if (!s) return vgfail("wgemit: no session");
    if (s->state != VG_OPEN) return vgfail("wgemit: the code stream is closed");
    if (opcode <= 0 || opcode >= WG_NOPCODES) return vgfail("wgemit: unknown opcode %d", opcode);
    if (type < 0 || type > 0xFFFF) return vgfail("wgemit: type %d of %.9s", type, opname[opcode]);
    const IINFO& info = iinfo[opcode];
    int len = PINST_HEAD + info.oplen;
    VGCHAIN* c = s->cur_icodes;
    if (c->curpos + len > c->endpos) {
        VGCHAIN* n = growchain(s, c, VG_RECLEN);
        if (!n) {
            if (s->err_jbuf) longjmp(*s->err_jbuf, 1);
            return WG_RC_NOMEM;
        }
        // An instruction and the one that depends on it stay in one block.
        PINST* l = s->last;
        bool pair = l && l->opcode && (opcode == BTOVFL_ || opcode == BFOVFL_ || (opcode == ADDR_ && l->opcode == ADDR_));
        if (pair) {
            int llen = vgreclen(l);
            memcpy(n->curpos, l, llen);
            l->opcode = 0;
            l->type = static_cast<unsigned short>(llen);
            s->last = reinterpret_cast<PINST*>(n->curpos);
            n->curpos += llen;
        }
        s->cur_icodes = c = n;
    }
    // A jump to the very next instruction is dropped.
    PINST* l = s->last;
    if (opcode == LABEL_ && l && l->opcode == BR_ && l->r == r) {
        s->estimate -= iinfo[BR_].estimate;
        s->worst -= iinfo[BR_].worst;
        s->ninst--;
        l->type = static_cast<unsigned short>(vgreclen(l));
        l->opcode = 0;
    }
    auto* p = reinterpret_cast<PINST*>(c->curpos);
    p->modifier = modifier;
    p->type = static_cast<unsigned short>(type);
    p->opcode = static_cast<unsigned short>(opcode);
    p->pad = 0;
    unsigned long ops[3] = {r, a, b};
    memcpy(&p->r, ops, info.oplen);
    c->curpos += len;
    s->last = p;
    s->estimate += info.estimate;
    s->worst += info.worst;
    if (opcode == STMTID_) s->nstmt++;
    else if (opcode == OPID_) s->nopid++;
    else s->ninst++;
    return 0;
}

wrcode wgclose(VGSEGHD* s) {
    if (!s) return vgfail("wgclose: no session");
    if (s->state != VG_OPEN) return vgfail("wgclose: the code stream is already closed");
    s->state = VG_CLOSED;
    return 0;
}

wrcode wgexect(VGSEGHD* s) {
    VGGCB* g = vggcb();
    if (!g) return WG_RC_NOMEM;
    mutex_lock(&g->cglock);
    if (!s || !onchain(g, s)) {
        mutex_unlock(&g->cglock);
        return vgfail("wgexect: not an open code session");
    }
    if (s->state == VG_BOUND && __atomic_load_n(reinterpret_cast<long*>(s->segs[2].address + VG2_RUNNING), __ATOMIC_ACQUIRE)) {
        mutex_unlock(&g->cglock);
        return vgfail("wgexect: the session's code is running");
    }
    wrcode rc = 0;
    if (s->state == VG_BOUND && --g->siginit == 0) {
        if (sigaction(SIGFPE, &g->oldact, nullptr) != 0) rc = vgfail("wgexect: sigaction failed");
    }
    unlink(g, s);
    mutex_unlock(&g->cglock);
    void* cur = nullptr;
    thr_getspecific(g->streamKey, &cur);
    if (cur == s) thr_setspecific(g->streamKey, nullptr);
    release(s);
    return rc;
}

wrcode wginstl(VGSEGHD* s, WGEXCEPT appexcept) {
    if (!s) return vgfail("wginstl: no session");
    s->except_func = appexcept ? appexcept : vvgdefexcept;
    return 0;
}

wrcode wgattn(VGSEGHD* s) {
    if (!s || s->state != VG_BOUND) return vgfail("wgattn: the session is not bound");
    __atomic_store_n(reinterpret_cast<long*>(s->segs[2].address + VG2_ATTN), 1L, __ATOMIC_RELEASE);
    return 0;
}

void* wggudlp(VGSEGHD* s) { return s && s->state == VG_BOUND ? s->segs[0].address : nullptr; }

VGSEGHD* wggthrcp() {
    VGGCB* g = vggcb();
    if (!g) return nullptr;
    void* v = nullptr;
    thr_getspecific(g->streamKey, &v);
    return static_cast<VGSEGHD*>(v);
}

WGFAST wgentry(VGSEGHD* s) { return s && s->state == VG_BOUND ? s->entrypoint : nullptr; }

}  // namespace vrta

// How a run of generated code starts and ends, and how a floating-point or
// division trap becomes a result: the handler finds the session of the
// thread, asks its exception function, and either resumes the code with a
// result, leaves it with a code, or gives up through hsabort.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ucontext.h>
#include <xmmintrin.h>
#include "hs/hs.h"
#include "ssup/vgasm.h"
#include "ssup/vgint.h"
#include "ssup/xp.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#endif

namespace vrta {

namespace {

int (*fpexc)() = nullptr;

long* slot(VGSEGHD* s, int off) { return reinterpret_cast<long*>(s->segs[2].address + off); }
unsigned* mxslot(VGSEGHD* s, int off) { return reinterpret_cast<unsigned*>(s->segs[2].address + off); }

void SigRestore(int signo) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// The exception flags the trap left would make the instruction trap again.
void reset_fpe(void* context) {
    auto* uc = static_cast<ucontext_t*>(context);
    if (uc && uc->uc_mcontext.fpregs) uc->uc_mcontext.fpregs->mxcsr &= ~0x3Fu;
}

[[noreturn]] void giveup(VGSEGHD* s, int signo) {
    if (signo) SigRestore(signo);
    if (s) vgunwind(s);
    hsabort(WG_RC_TRAP);
}

// Leaves the running code at addr with the stack as the entry left it.
[[noreturn]] void jumpin(VGSEGHD* s, unsigned char* addr) {
#if defined(__SANITIZE_ADDRESS__)
    __asan_handle_no_return();
#endif
    long sp = s->sp_restore;
    asm volatile("mov %0, %%rsp\n\tjmp *%1" : : "D"(sp), "S"(addr) : "memory");
    __builtin_unreachable();
}

void vvgexcept(int signo, siginfo_t* si, void* context) {
    if (signo == SIGFPE && fpexc && fpexc()) {
        reset_fpe(context);
        return;
    }
    int cause = 5;
    if (si->si_code == FPE_FLTDIV) cause = 2;
    else if (si->si_code == FPE_FLTOVF) cause = 1;
    VGSEGHD* s = wggthrcp();
    auto* uc = static_cast<ucontext_t*>(context);
    auto* pc = reinterpret_cast<unsigned char*>(uc->uc_mcontext.gregs[REG_RIP]);
    bool incode = s && s->state == VG_BOUND && pc >= s->code.c_start && pc < s->code.c_end;
    reset_fpe(context);
    if (!s) giveup(nullptr, signo);
    if (incode) s->fault_addr = pc;
    else cause = 4;
    jmp_buf* jmp = nullptr;
    void* resume = nullptr;
    // The exception function runs with the caller's floating-point setting.
    _mm_setcsr(*mxslot(s, VG2_MXCSR) & ~0x3Fu);
    int r = s->except_func(cause, &s->except_result, &jmp, &resume);
    memcpy(s->segs[2].address + VG2_RESULT, &s->except_result, 8);
    s->fault_addr = nullptr;
    if (r == -1) giveup(s, signo);
    if (r == 0) {
        if (incode) {
            s->resume_at = pc;
            uc->uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(s->stub1);
            return;
        }
        if (!jmp) giveup(s, signo);
        SigRestore(signo);
        vgunwind(s);
        longjmp(*jmp, 1);
    }
    if (r < 0) {
        if (!vgislabel(s, resume)) giveup(s, signo);
        if (incode) {
            uc->uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(resume);
            return;
        }
        SigRestore(signo);
        *slot(s, VG2_LINKDEPTH) = 0;
        _mm_setcsr(*mxslot(s, VG2_ARMED));
        jumpin(s, static_cast<unsigned char*>(resume));
    }
    s->gl_ret_rc = r;
    if (incode) {
        uc->uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(s->exit_rc);
        return;
    }
    SigRestore(signo);
    jumpin(s, s->exit_rc);
}

}  // namespace

void wgsetfpexc(int (*f)()) { fpexc = f; }

wrcode vginstallsig(VGSEGHD*) {
    VGGCB* g = vggcb();
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_sigaction = vvgexcept;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, SIGFPE);
    return sigaction(SIGFPE, &sa, &g->oldact) == 0 ? 0 : WG_RC_INTERNAL;
}

void vgremovesig() {
    VGGCB* g = vggcb();
    sigaction(SIGFPE, &g->oldact, nullptr);
}

int vvgdefexcept(int, double*, jmp_buf**, void**) { return -1; }

bool vgislabel(VGSEGHD* s, const void* addr) {
    for (long i = 0; i < s->nlabtab; i++) {
        const void* a;
        memcpy(&a, s->labtab + 8 * i, 8);
        if (a == addr) return true;
    }
    return false;
}

extern "C" void vvgenter(VGSEGHD* s) {
    VGGCB* g = vggcb();
    thr_getspecific(g->streamKey, &s->prevsess);
    thr_setspecific(g->streamKey, s);
    *slot(s, VG2_LINKDEPTH) = 0;
    *slot(s, VG2_MARK) = 0;
}

extern "C" void vvgleave(VGSEGHD* s) {
    VGGCB* g = vggcb();
    thr_setspecific(g->streamKey, s->prevsess);
    _mm_setcsr(*mxslot(s, VG2_MXCSR));
    __atomic_store_n(slot(s, VG2_RUNNING), 0L, __ATOMIC_RELEASE);
}

void vgunwind(VGSEGHD* s) {
    *slot(s, VG2_LINKDEPTH) = 0;
    vvgleave(s);
}

extern "C" int vvgcgunk(VGSEGHD* s) {
    unsigned armed = _mm_getcsr();
    _mm_setcsr(*mxslot(s, VG2_MXCSR));
    jmp_buf* jmp = nullptr;
    void* resume = nullptr;
    int r = s->except_func(5, &s->except_result, &jmp, &resume);
    memcpy(s->segs[2].address + VG2_RESULT, &s->except_result, 8);
    _mm_setcsr(armed);
    if (r == -1) giveup(s, 0);
    if (r == 0) return 0;
    if (r > 0) {
        s->gl_ret_rc = r;
        return 1;
    }
    if (!vgislabel(s, resume)) giveup(s, 0);
    s->except_lbl = static_cast<unsigned char*>(resume);
    return 2;
}

wrcode wgstop(VGSEGHD* s, wrcode rc) {
    if (!s || s->state != VG_BOUND || wggthrcp() != s)
        return vgfail("wgstop: the session's code is not running in this thread");
    *slot(s, VG2_MARK) = 0;
    s->gl_ret_rc = rc;
    jumpin(s, s->exit_rc);
}

void vgdisasm(VGSEGHD* s) {
    char line[160];
    snprintf(line, sizeof(line), "Generated code of session %p at %p: %ld bytes, estimate %ld, worst case %ld, %ld instructions",
             static_cast<void*>(s), static_cast<void*>(s->stcode), s->codesize, s->estimate, s->worst, s->ninst);
    xpslog("%s", line);
    unsigned char* p = s->stcode;
    char text[96];
    long k = 0;
    while (p < s->curcode) {
        for (; s->dumpmap && k < s->ndumpmap && (s->dumpmap[k] >> 8) <= p - s->stcode; k++) {
            snprintf(line, sizeof(line), "        ; %ld %.9s", k, opname[s->dumpmap[k] & 0xFF]);
            xpslog("%s", line);
        }
        int n = disasm(p, static_cast<int>(s->curcode - p), text, sizeof(text));
        if (n <= 0) {
            snprintf(line, sizeof(line), "%6ld  ?? %02x", static_cast<long>(p - s->stcode), *p);
            n = 1;
        } else {
            snprintf(line, sizeof(line), "%6ld  %s", static_cast<long>(p - s->stcode), text);
        }
        xpslog("%s", line);
        p += n;
    }
}

}  // namespace vrta

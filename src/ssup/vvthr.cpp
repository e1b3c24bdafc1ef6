// Threads that carry a local control block, and their exit handlers.
#include <cstring>
#include "hs/hs.h"
#include "ssup/vv.h"
#include "ssup/vvlayer.h"
#include "ssup/xmint.h"

namespace vrta {

namespace {

rctype nokey() {
    static const char text[] = "Thread key is null";
    if (xrmksub) xrmksub(1, text, static_cast<int>(sizeof(text) - 1));
    return VV_RC_INTERNAL;
}

// The pool a block of this thread came from: its own, or the default pool
// when it shares a creator's that had none.
xmpid lcbpool(const VVLCB* l) { return l->pool ? l->pool : xmresolve(XM_THREADPOOL); }

// The trampoline of vvcthrl: sets up the thread's blocks, reports to the
// creator, then runs the caller's routine.
void* vvsslcb(void* arg) {
    auto* l = static_cast<VVLCB*>(arg);
    sema_t* done = l->thr_init_done;
    if (int rc = thr_setspecific(l->lcbkey, l)) {
        hsprint("vvsslcb: Unable to set VVLCB in thread key: errno=%d\n", rc);
        l->thr_init_status = VV_RC_INTERNAL;
        sema_post(done);
        return nullptr;
    }
    // A layer that gives nothing leaves the slot inherited from the table.
    if (l->lcbflag & VV_LCB_XM) {
        if (void* b = xminit()) l->gcb[VV_SLOT_XM] = b;
    }
    if ((l->lcbflag & VV_LCB_XH) && xhinit) {
        if (void* b = xhinit()) {
            l->gcb[VV_SLOT_XH] = b;
            l->lcbmade |= VV_LCB_XH;
        }
    }
    if ((l->lcbflag & VV_LCB_XP) && xpinit) {
        if (void* b = xpinit()) {
            l->gcb[VV_SLOT_XP] = b;
            l->lcbmade |= VV_LCB_XP;
        }
    }
    if ((l->lcbflag & VV_LCB_XX) && xxinit) {
        if (void* b = xxinit()) {
            l->gcb[VV_SLOT_XX] = b;
            l->lcbmade |= VV_LCB_XX;
        }
    }
    l->thr_init_status = 0;
    sema_post(done);
    void* result = l->rtn(l->thrarg);
    // Comes back only when there is no thread block to tear down; the
    // thread then ends by returning, with the same result.
    rcignore(vvthrlexit(result));
    return result;
}

}  // namespace

void vvstlcb(void* lcb) {
    auto* l = static_cast<VVLCB*>(lcb);
    if (!l) return;
    if (VV_XVEC* x = l->xvec) {
        x->exiting = 1;
        for (int i = 0; i < x->used; i++) x->ent[i].exitfp(x->ent[i].exitap);
    }
    if (yfdel) yfdel(999, l->gcb[VV_SLOT_XF], l->gcb[VV_SLOT_XFLOAD]);
    // Only the blocks this thread's start made are ended: an inherited one
    // belongs to somebody else.
    if ((l->lcbmade & VV_LCB_XX) && xxterm) xxterm(l->gcb[VV_SLOT_XX]);
    if ((l->lcbmade & VV_LCB_XH) && xhterm) xhterm(l->gcb[VV_SLOT_XH]);
    if ((l->lcbmade & VV_LCB_XP) && xpterm) xpterm(l->gcb[VV_SLOT_XP]);
    // Waits out a creator that is still inside vvcthrl.
    mutex_lock(&l->lcb_lock);
    mutex_unlock(&l->lcb_lock);
    mutex_destroy(&l->lcb_lock);
    if (!(l->lcbflag & VV_LCB_SHAREPOOL)) {
        xmpoold(l->pool);  // the block lives in it and goes with it
        return;
    }
    xmpid pid = lcbpool(l);
    if (l->xvec) xmfree(pid, l->xvec, sizeof(VV_XVEC));
    xmfree(pid, l, sizeof(VVLCB));
}

rctype vvcthrl(void* stack, size_t size, void* (*rtn)(void*), void* arg, long flags, thread_t* thrid,
               int lcbflag) {
    VVGCB* g = vvgcbp();
    if (!g->lcbkey) return nokey();
    VVLCB* creator = vvlcb();
    bool own = !(lcbflag & VV_LCB_SHAREPOOL);
    xmpid pool = nullptr;
    if (own) {
        pool = xmpoolc(0x20000, 0x20000, 0);
        if (!pool) return VV_RC_NOMEM;
    } else if (creator) {
        pool = creator->pool;
    }
    xmpid from = pool ? pool : xmresolve(XM_THREADPOOL);
    auto* l = static_cast<VVLCB*>(xmalloc(from, sizeof(VVLCB), XM_ZERO));
    if (!l) {
        if (own) xmpoold(pool);
        return VV_RC_NOMEM;
    }
    auto undo = [&](bool lockmade) {
        if (lockmade) mutex_destroy(&l->lcb_lock);
        if (own) xmpoold(pool);
        else xmfree(from, l, sizeof(VVLCB));
        return VV_RC_INTERNAL;
    };
    // The child reports on a semaphore on this stack: it must be gone
    // before we return, hence thr_init_done is cleared below.
    sema_t done;
    if (sema_init(&done, 0)) return undo(false);
    l->thr_init_done = &done;
    if (mutex_init(&l->lcb_lock)) {
        sema_destroy(&done);
        return undo(false);
    }
    l->pool = pool;
    memcpy(l->gcb, g->gcb, sizeof(l->gcb));
    if (creator) {
        if (lcbflag & VV_LCB_INHXH) l->gcb[VV_SLOT_XH] = creator->gcb[VV_SLOT_XH];
        if (lcbflag & VV_LCB_INHXX) l->gcb[VV_SLOT_XX] = creator->gcb[VV_SLOT_XX];
        l->gcb[VV_SLOT_FNZ] = creator->gcb[VV_SLOT_FNZ];
        memcpy(l->usertok, creator->usertok, sizeof(l->usertok));
        memcpy(l->plainuser, creator->plainuser, sizeof(l->plainuser));
        memcpy(l->plaingroup, creator->plaingroup, sizeof(l->plaingroup));
        memcpy(l->fmtdomain, creator->fmtdomain, sizeof(l->fmtdomain));
    }
    l->lcbkey = g->lcbkey;
    memcpy(l->eye, "VLCB", 4);
    l->thrarg = arg;
    l->rtn = rtn;
    l->lcbflag = lcbflag;
    mutex_lock(&l->lcb_lock);
    if (thr_create(stack, size, vvsslcb, l, flags, thrid)) {
        mutex_unlock(&l->lcb_lock);
        sema_destroy(&done);
        return undo(true);
    }
    sema_wait(&done);
    rctype status = l->thr_init_status;
    sema_destroy(&done);
    l->thr_init_done = nullptr;
    mutex_unlock(&l->lcb_lock);
    // A child that failed to start has left l to us; one that started owns it.
    if (status) undo(true);
    return status;
}

rctype vvthrlexit(void* status) {
    VVGCB* g = vvgcbp();
    if (!g->lcbkey) return nokey();
    if (VVLCB* l = vvlcb()) vvstlcb(l);
    thr_setspecific(g->lcbkey, nullptr);
    thr_exit(status);
}

rctype vvaexit(void (*exitfp)(void*), void* exitap) {
    VVLCB* l = vvlcb();
    if (!l) return 0;
    if (!l->xvec) {
        l->xvec = static_cast<VV_XVEC*>(xmalloc(lcbpool(l), sizeof(VV_XVEC), XM_ZERO));
        if (!l->xvec) return VV_RC_NOMEM;
    }
    VV_XVEC* x = l->xvec;
    if (x->used >= VV_XMAX) return VV_RC_NOMEM;
    x->ent[x->used].exitfp = exitfp;
    x->ent[x->used].exitap = exitap;
    x->used++;
    return 0;
}

rctype vvuexit(void (*exitfp)(void*), void* exitap) {
    VVLCB* l = vvlcb();
    // While the handlers run, the list stays as it is so none is skipped.
    if (!l || !l->xvec || l->xvec->exiting) return 0;
    vvxvremove(l->xvec, exitfp, exitap);
    return 0;
}

}  // namespace vrta

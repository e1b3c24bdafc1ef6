// The process block of the hs layer: its start and end, the per-thread exit
// vector, the abort path and a few small helpers.
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include "hs/hsgcb.h"
#include "hs/hsmem.h"
#include "ssup/vv.h"
#include "ssup/vvlayer.h"
#include "ssup/xmint.h"

namespace vrta {

HS_GCB* HSGCB = nullptr;

int hsmkkey(thread_key_t* key, void (*destructor)(void*)) {
    thread_key_t k;
    if (int rc = thr_keycreate(&k, destructor)) return rc;
    if (k == 0) {
        thread_key_t k2;
        int rc = thr_keycreate(&k2, destructor);
        thr_keydelete(k);
        if (rc) return rc;
        k = k2;
    }
    *key = k;
    return 0;
}

void hs_thread_exit(void* xvec) {
    auto* x = static_cast<VV_XVEC*>(xvec);
    if (!x) return;
    x->exiting = 1;
    for (int i = 0; i < x->used; i++) x->ent[i].exitfp(x->ent[i].exitap);
    free(x);
}

void hs_free_errbuf(void* buf) { free(buf); }

rctype hstbinit() {
    if (!HSGCB) return HS_RC_INIT;
    if (HSGCB->kortbgcb) return 0;
    auto* m = static_cast<mutex_t*>(calloc(1, sizeof(mutex_t)));
    if (!m) return HS_RC_NOMEM;
    if (mutex_init(m)) {
        free(m);
        return HS_RC_INIT;
    }
    HSGCB->kortbgcb = m;
    return 0;
}

void hstbterm() {
    if (!HSGCB || !HSGCB->kortbgcb) return;
    auto* m = static_cast<mutex_t*>(HSGCB->kortbgcb);
    mutex_destroy(m);
    free(m);
    HSGCB->kortbgcb = nullptr;
}

rctype hsgblinit() {
    // A second thread waits here until the first has finished the block,
    // rather than going on with a half-built one.
    MutexGuard hold(&xm_startlock);
    if (HSGCB) return 0;
    auto* h = static_cast<HS_GCB*>(calloc(1, sizeof(HS_GCB)));
    if (!h) return HS_RC_NOMEM;
    HSGCB = h;
    memcpy(h->gPrintID, "VRTA", 5);
    mutex_init(&h->tmpdirlock);
    if (rctype rc = hstbinit()) {
        rcignore(hsgblterm());  // the half-built block goes; the failure is reported
        return rc;
    }
    if (hsmkkey(&h->gAbortKey, nullptr) || hsmkkey(&h->gExitKey, hs_thread_exit) ||
        hsmkkey(&h->gBufKey, hs_free_errbuf)) {
        rcignore(hsgblterm());  // the half-built block goes; the failure is reported
        return HS_RC_INIT;
    }
    h->hsmemgcb = hsmeminit();
    if (!h->hsmemgcb) {
        hsprint("ERROR: Unable to initialize hsmeminit()\n");
        rcignore(hsgblterm());  // the half-built block goes; the failure is reported
        return HS_RC_INIT;
    }
    if (!xminit()) {
        hsprint("ERROR: Unable to initialize xminit()\n");
        rcignore(hsgblterm());  // the half-built block goes; the failure is reported
        return HS_RC_INIT;
    }
    // National language support rests on a closed library that may be
    // absent; the runtime works without it, so its failure is not ours.
    if (hsnlsinit) rcignore(hsnlsinit());
    return 0;
}

rctype hsgblterm() {
    HS_GCB* h = HSGCB;
    if (!h) return 0;
    if (hsnlsterm) rcignore(hsnlsterm());  // frees only; cannot fail
    if (h->gAbortKey) thr_keydelete(h->gAbortKey);
    if (h->gExitKey) thr_keydelete(h->gExitKey);
    if (h->gBufKey) thr_keydelete(h->gBufKey);
    h->gAbortKey = h->gExitKey = h->gBufKey = 0;
    if (h->hsmemgcb) hsmemterm(h->hsmemgcb);
    h->hsmemgcb = nullptr;
    hstbterm();
    mutex_destroy(&h->tmpdirlock);
    free(h);
    HSGCB = nullptr;
    return 0;
}

rctype hsaexit(void (*exitfp)(void*), void* exitap) {
    if (!HSGCB || !HSGCB->gExitKey) return HS_RC_INIT;
    void* v = nullptr;
    thr_getspecific(HSGCB->gExitKey, &v);
    auto* x = static_cast<VV_XVEC*>(v);
    if (!x) {
        x = static_cast<VV_XVEC*>(calloc(1, sizeof(VV_XVEC)));
        if (!x) return HS_RC_INIT;
        if (thr_setspecific(HSGCB->gExitKey, x)) {
            free(x);
            return HS_RC_INIT;
        }
    }
    if (x->used >= VV_XMAX) return HS_RC_INIT;
    x->ent[x->used].exitfp = exitfp;
    x->ent[x->used].exitap = exitap;
    x->used++;
    return 0;
}


rctype hsuexit(void (*exitfp)(void*), void* exitap) {
    if (!HSGCB || !HSGCB->gExitKey) return 0;
    void* v = nullptr;
    thr_getspecific(HSGCB->gExitKey, &v);
    auto* x = static_cast<VV_XVEC*>(v);
    if (!x || x->exiting) return 0;
    vvxvremove(x, exitfp, exitap);
    return 0;
}

rctype hssetabort(jmp_buf* jbuf, jmp_buf** oldjbuf) {
    if (!HSGCB || !HSGCB->gAbortKey) return HS_RC_INIT;
    if (oldjbuf) {
        void* v = nullptr;
        thr_getspecific(HSGCB->gAbortKey, &v);
        *oldjbuf = static_cast<jmp_buf*>(v);
    }
    if (thr_setspecific(HSGCB->gAbortKey, jbuf)) return HS_RC_INIT;
    return 0;
}

jmp_buf* hsgetabort() {
    if (!HSGCB || !HSGCB->gAbortKey) return nullptr;
    void* v = nullptr;
    thr_getspecific(HSGCB->gAbortKey, &v);
    return static_cast<jmp_buf*>(v);
}

void hsabort(int abstat) {
    jmp_buf* jb = hsgetabort();
    // A thread that set no jump buffer has nobody to return to: it ends.
    if (!jb) thr_exit(nullptr);
    longjmp(*jb, abstat);
}

int hstmpdir(int bsiz, char* bufp) {
    static const char dir[] = "/var/tmp/";
    if (bsiz <= 0 || !bufp) return 0;
    int n = bsiz < static_cast<int>(sizeof(dir) - 1) ? bsiz : static_cast<int>(sizeof(dir) - 1);
    memcpy(bufp, dir, n);
    if (n > 0 && bufp[n - 1] == '/') n--;
    if (n < bsiz) bufp[n] = '\0';
    return n;
}

void hsrftrc(const void* source, int len, void* target) {
    if (len > 8) len = 8;
    if (len < 0) len = 0;
    auto* t = static_cast<unsigned char*>(target);
    memset(t, 0, 8 - len);
    memcpy(t + 8 - len, source, len);
}

void hscftrc(void* target, int len, double value) {
    if (len > 8) len = 8;
    if (len <= 0) return;
    unsigned char b[8];
    memcpy(b, &value, 8);
    memcpy(target, b + 8 - len, len);
}

}  // namespace vrta

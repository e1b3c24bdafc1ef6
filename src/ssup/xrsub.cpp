// Substitutions that travel with a return code: the failing function stores
// the texts, and whoever prints the code fetches them one by one.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "ssup/xp.h"

namespace vrta {

namespace {

// Each text is laid down as a 4-byte length, the bytes, a terminator (so that
// a message format may take it with %s), and padding to a multiple of 4.
long xrslot(long len) { return 4 + ((len + 1 + 3) & ~3L); }

}  // namespace

rctype xrinit(VRGCB* vr) {
    memcpy(vr->tag, "VRGB", 4);
    vr->buflen = 256;
    vr->msg = static_cast<char*>(malloc(vr->buflen));
    if (!vr->msg) {
        vr->buflen = 0;
        return XP_RC_NOMEM;
    }
    vr->start = vr->msgend = vr->msg;
    vr->hold = 0;
    return 0;
}

rctype xrmksub(int count, ...) {
    VRGCB* vr = &xpgcb()->vrgcb;
    if (vr->hold == 1) return 0;
    va_list ap;
    va_start(ap, count);
    va_list ap2;
    va_copy(ap2, ap);
    long need = 0;
    for (int i = 0; i < count; ++i) {
        const char* p = va_arg(ap, const char*);
        int len = va_arg(ap, int);
        if (len < 0) len = p ? static_cast<int>(strlen(p)) : 0;
        if (!p) len = 0;
        need += xrslot(len);
    }
    va_end(ap);
    if (need > vr->buflen) {
        long nlen = vr->buflen * 2 > need ? vr->buflen * 2 : need;
        char* n = static_cast<char*>(realloc(vr->msg, nlen));
        if (!n) {
            va_end(ap2);
            return XP_RC_NOMEM;
        }
        vr->msg = n;
        vr->buflen = nlen;
    }
    char* w = vr->msg;
    for (int i = 0; i < count; ++i) {
        const char* p = va_arg(ap2, const char*);
        int len = va_arg(ap2, int);
        if (len < 0) len = p ? static_cast<int>(strlen(p)) : 0;
        if (!p) len = 0;
        long slot = xrslot(len);
        memcpy(w, &len, 4);
        if (len) memcpy(w + 4, p, len);
        memset(w + 4 + len, 0, slot - 4 - len);
        w += slot;
    }
    va_end(ap2);
    vr->start = vr->msg;
    vr->msgend = w;
    return 0;
}

rctype xrgtsub(const char** ptr, int* len) {
    VRGCB* vr = &xpgcb()->vrgcb;
    if (!vr->start || vr->start >= vr->msgend) {
        if (ptr) *ptr = "";
        if (len) *len = 0;
        return XR_RC_NOMORE;
    }
    int l;
    memcpy(&l, vr->start, 4);
    if (ptr) *ptr = vr->start + 4;
    if (len) *len = l;
    vr->start += xrslot(l);
    return 0;
}

void xrholds(int flag) {
    if (flag == 0 || flag == 1) xpgcb()->vrgcb.hold = flag;
}

}  // namespace vrta

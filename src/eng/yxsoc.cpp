// Socket transport: set-up hooks and closing.
#include "eng/yxsoc.h"

#include <unistd.h>

#include "ssup/xm.h"

namespace vrta {

rctype yxsinit(void** /*breakhandler*/, void** /*gcbptr*/) { return 0; }
rctype yxsterm(void* /*gcb*/) { return 0; }
void yxsbrk() {}

namespace {
template <class T>
void givebk(T*& p, long len) {
    if (p) xmfree(XM_THREADPOOL, p, len);
    p = nullptr;
}
}  // namespace

rctype yxsclos(YXSOCK_OPEN* so) {
    // Descriptor 0 is never ours: zero means "not open".
    if (so->cs) close(so->cs);
    if (so->s) close(so->s);
    so->cs = so->s = 0;
    givebk(so->inbuf, so->ibufl);
    givebk(so->outbuf, so->obufl);
    givebk(so->reca, so->lrecl);
    givebk(so->recouta, so->lrecl + so->termlen);
    givebk(so->term, 4);
    givebk(so->fds.fdss, so->fds.fdslen);
    givebk(so->fds.fdsw, so->fds.fdslen);
    so->fds.fdslen = 0;
    return 0;
}

}  // namespace vrta

// The print state: three line states (log, message, print), the stack of
// destinations, the sink that finished lines go to, and how a line is ended.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include "ssup/vv.h"
#include "ssup/xp.h"

namespace vrta {

// The control-block table may be absent from a link that only wants the
// printer (a tool, a test of one layer); the printer then keeps one state of
// its own for the process.
__attribute__((weak)) void* vvgvlcb(int which);

namespace {

// Lines are cut to this when no memory can be had for the line itself.
constexpr int XP_UTILMEM = 512;

[[noreturn]] void xpnomem() {
    static const char msg[] = "xpinit: Unable to allocate print lines\n";
    ssize_t w = write(2, msg, sizeof msg - 1);
    (void)w;
    exit(1);
}

void xpinils(LINESTR* ls, int dest) {
    ls->linesize = 256;
    ls->pagesize = 60;
    ls->type = 'd';
    ls->dest = dest;
    ls->left = -666;
    ls->lmargin = 1;
    ls->linenum = 1;
    ls->fortrancc = 0;
    ls->center = 0;
    ls->minbody = 12;
    ls->outalen = XP_OUTLEN;
    ls->out = static_cast<char*>(malloc(XP_OUTLEN));
    if (!ls->out) xpnomem();
    memset(ls->out, ' ', XP_OUTLEN);
}

YPGCBSTR* xpown;
std::once_flag xpownonce;

}  // namespace

void* xpinit() {
    auto* g = static_cast<YPGCBSTR*>(calloc(1, sizeof(YPGCBSTR)));
    if (!g) xpnomem();
    xpinils(&g->task.llinestr, XP_DEST_LOG);
    xpinils(&g->task.mlinestr, XP_DEST_MSG);
    xpinils(&g->task.plinestr, XP_DEST_PRINT);
    g->task.mlinestr.pagesize = 60;
    g->ps = 60;
    g->notes = 1;
    g->lssp = 0;
    g->clinestr = &g->task.llinestr;
    g->slinestr[0] = &g->task.llinestr;
    g->grpno = -1;
    g->utilmem = static_cast<char*>(malloc(XP_UTILMEM));
    if (!g->utilmem) xpnomem();
    strcpy(g->errstr, "VRTA_ERROR");
    strcpy(g->warnstr, "VRTA_WARNING");
    strcpy(g->notestr, "VRTA_NOTE");
    strcpy(g->fatstr, "VRTA_FATAL");
    strcpy(g->linstr, "line");
    strcpy(g->colstr, "column");
    if (xrinit(&g->vrgcb) != 0) xpnomem();
    return g;
}

void xpterm(void* gcb) {
    auto* g = static_cast<YPGCBSTR*>(gcb);
    if (!g) return;
    free(g->task.llinestr.out);
    free(g->task.mlinestr.out);
    free(g->task.plinestr.out);
    free(g->utilmem);
    free(g->vrgcb.msg);
    if (g == xpown) xpown = nullptr;
    free(g);
}

YPGCBSTR* xpgcb() {
    if (vvgvlcb) {
        if (void* p = vvgvlcb(1)) return static_cast<YPGCBSTR*>(p);
    }
    std::call_once(xpownonce, [] { xpown = static_cast<YPGCBSTR*>(xpinit()); });
    return xpown;
}

void xpsetpm(XPPMFP pmfp, void* pmdata) {
    YPGCBSTR* g = xpgcb();
    g->pmfp = pmfp;
    g->pmdata = pmdata;
}

void xpgetpm(XPPMFP* pmfp, void** pmdata) {
    YPGCBSTR* g = xpgcb();
    if (pmfp) *pmfp = g->pmfp;
    if (pmdata) *pmdata = g->pmdata;
}

void xnlog(int type, const char* buffer, int len) {
    YPGCBSTR* g = xpgcb();
    if (g->pmfp) {
        g->pmfp(g->pmdata, type, buffer, len);
        return;
    }
    // One write per line, so that lines of threads sharing descriptor 1 do
    // not interleave.
    char small[XP_OUTLEN + 16];
    char* b = len + 1 <= static_cast<int>(sizeof small) ? small : static_cast<char*>(malloc(len + 1));
    if (!b) {
        ssize_t w = write(1, buffer, len);
        w = write(1, "\n", 1);
        (void)w;
        return;
    }
    memcpy(b, buffer, len);
    b[len] = '\n';
    ssize_t w = write(1, b, len + 1);
    (void)w;
    if (b != small) free(b);
}

// Centering column of a line's text.
static int xpcntr(const LINESTR* ls, int used) {
    int c = (ls->linesize - used) / 2 + 1;
    return c < 1 ? 1 : c;
}

// The indent a log line gets at output.
static int xpindnt(LINESTR* ls, int used) {
    int indent = 0;
    switch (ls->autocent) {
    case 0: indent = ls->lmargin - 1; break;
    case 1: indent = xpcntr(ls, used) - 1; break;
    case 3:
        // Only the first line of the text is moved; its continuations are not.
        indent = xpcntr(ls, used) - 1;
        ls->autocent = -3;
        break;
    default: indent = ls->autocent > 0 ? xpcntr(ls, used) - 1 : 0; break;
    }
    if (indent < 0) indent = -indent;
    if (indent < 1 || indent > 9998) return 0;
    return indent;
}

void xpoutf(LINESTR* ls, int dest) {
    YPGCBSTR* g = xpgcb();
    int used = ls->colnum;
    if (used > ls->linesize) used = ls->linesize;
    if (used < 0) used = 0;
    if (!ls->xword && dest != XP_DEST_STR) {
        // Trailing blanks carry nothing; a split or a tab may leave them.
        int len = used;
        while (len > 0 && ls->out[len] == ' ') --len;
        int indent = dest == XP_DEST_LOG ? xpindnt(ls, len) : 0;
        char buf[XP_OUTLEN * 2 + 16];
        if (indent + len > static_cast<int>(sizeof buf)) indent = static_cast<int>(sizeof buf) - len;
        memset(buf, ' ', indent);
        memcpy(buf + indent, ls->out + 1, len);
        if (dest == XP_DEST_PRINT && g->formdlim && ls->linenum > ls->pagesize) {
            // A page boundary on a print becomes a line of the delimiter.
            char sep[XP_OUTLEN];
            int n = ls->linesize < XP_OUTLEN ? ls->linesize : XP_OUTLEN;
            memset(sep, g->formdlim, n);
            xnlog('d', "", 0);
            xnlog('d', sep, n);
            xnlog('d', "", 0);
            ls->linenum = 1;
        }
        int type = ls->type == 'm' ? 'e' : ls->type;
        xnlog(type, buf, indent + len);
        ls->linenum++;
    }
    int clear = used + 1 < ls->outalen ? used + 1 : ls->outalen;
    memset(ls->out, ' ', clear);
    ls->colnum = 0;
    ls->xword = 0;
    ls->fortrancc = 0;
}

// Ends a line for good: written, and the state that the text changed for its
// own sake (type, hanging indent, centering) goes back to what it was.
void xpendline(LINESTR* ls, int dest) {
    xpoutf(ls, dest);
    if (ls->varssaved) {
        ls->type = ls->savtype;
        ls->cindent = ls->savcindent;
        ls->autocent = ls->savautocent;
        ls->varssaved = 0;
    } else if (ls->autocent < 0) {
        ls->autocent = -ls->autocent;
    }
}

void xpout() {
    LINESTR* ls = xpgcb()->clinestr;
    xpendline(ls, ls->dest);
}
void xplog() { xpendline(xpgcb()->clinestr, XP_DEST_LOG); }
void xpmsg() { xpendline(xpgcb()->clinestr, XP_DEST_MSG); }
void xpprn() { xpendline(xpgcb()->clinestr, XP_DEST_PRINT); }

static LINESTR* xpline(YPGCBSTR* g, int n) {
    switch (n) {
    case XP_DEST_LOG: return &g->task.llinestr;
    case XP_DEST_PRINT: return &g->task.plinestr;
    case XP_DEST_MSG: return &g->task.mlinestr;
    case XP_DEST_USER: return g->ulinestr;
    default: return nullptr;
    }
}

int xpdest(int n) {
    YPGCBSTR* g = xpgcb();
    int cur = g->clinestr->dest;
    if (n == 100) return cur;
    if (n == 0) {
        if (g->lssp > 0) g->clinestr = g->slinestr[--g->lssp];
        return g->clinestr->dest;
    }
    LINESTR* ls = xpline(g, n < 0 ? -n : n);
    if (!ls) return cur;
    if (n < 0) {
        if (g->lssp >= XP_STACK) return cur;  // the stack is full: nothing changes
        g->slinestr[g->lssp++] = g->clinestr;
    }
    g->clinestr = ls;
    return cur;
}

}  // namespace vrta

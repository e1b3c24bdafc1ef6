// What the rest of the module calls to say something: formatted text, numbered
// messages and return codes, to the log, the current destination or a string.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "ssup/xp.h"

namespace vrta {

namespace {

// Runs fn with a scratch line over the caller's buffer as the current line;
// returns the length of the text, cut at buflen.
template <typename F>
int xpstrline(char* buffer, int buflen, F fn) {
    if (!buffer || buflen <= 0) return 0;
    YPGCBSTR* g = xpgcb();
    LINESTR ls{};
    ls.linesize = buflen;
    ls.pagesize = 60;
    ls.lmargin = 1;
    ls.linenum = 1;
    ls.type = 'd';
    ls.dest = XP_DEST_STR;
    ls.outalen = buflen + 2;
    ls.out = static_cast<char*>(malloc(ls.outalen));
    if (!ls.out) return 0;
    memset(ls.out, ' ', ls.outalen);
    LINESTR* saved = g->clinestr;
    g->clinestr = &ls;
    fn(g);
    g->clinestr = saved;
    int n = ls.colnum < buflen ? ls.colnum : buflen;
    memcpy(buffer, ls.out + 1, n);
    free(ls.out);
    return n;
}

// Runs fn on the log line and writes what it made.
template <typename F>
void xplogline(F fn) {
    YPGCBSTR* g = xpgcb();
    LINESTR* saved = g->clinestr;
    g->clinestr = &g->task.llinestr;
    fn(g);
    xpendline(&g->task.llinestr, XP_DEST_LOG);
    g->clinestr = saved;
}

// Looks up a message and formats it into the current line. False when the
// lookup failed; the lookup's own text is then in text/len.
bool xpmi(YPGCBSTR* g, int group, int number, va_list* ap, const char** text = nullptr, int* tlen = nullptr) {
    const char* t = nullptr;
    int len = 0;
    rctype rc = xkread(group, number, &t, &len);
    if (text) *text = t;
    if (tlen) *tlen = len;
    if (rc != 0) return false;
    int pg = g->grpno, pn = g->msgno;
    g->grpno = group;
    g->msgno = number;
    xpsfi(g, t, len, ap);
    g->grpno = pg;
    g->msgno = pn;
    return true;
}

void xpsfv(YPGCBSTR* g, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    xpsfi(g, format, -1, &ap);
    va_end(ap);
}

// A failed lookup in a log line is still worth a line: it names the message.
void xpmfail(YPGCBSTR* g, int group, int number, const char* text, int len) {
    xpsfv(g, "%.*s (message %d-%d)", text ? len : 0, text ? text : "", number, group);
}

void xpri(YPGCBSTR* g, rctype rc, int mode) {
    g->internal++;
    g->rinternal++;
    int prevmsgid = g->msgid;
    const char* subs[10];
    int lens[10];
    for (int i = 0; i < 10; ++i) {
        subs[i] = "";
        lens[i] = 0;
    }
    if (g->rinternal == 1) {
        for (int i = 0; i < 10; ++i) {
            const char* p;
            int l;
            if (xrgtsub(&p, &l) != 0) break;
            subs[i] = p;
            lens[i] = l;
        }
    }
    uint32_t u = static_cast<uint32_t>(rc);
    if (!(u & 0x40000000u)) {
        int group = static_cast<int>((u >> 16) & 0xff);
        int number = group == 0 ? static_cast<int>(rcnumber(rc)) : static_cast<int>(u & 0xff);
        g->grpno = group;
        g->msgno = number;
        if (mode && g->grpno > -1) g->msgid = 1;
        if (group != 0) {
            const char* pfx = (u & 0x80000000u) ? "%1z" : (u & 0x20000000u) ? "%3z" : "%2z";
            xpsfi(g, pfx, -1, nullptr);
        }
        xrholds(1);
        auto call = [&](int gr, int nu, ...) {
            va_list ap;
            va_start(ap, nu);
            bool ok = xpmi(g, gr, nu, &ap);
            va_end(ap);
            return ok;
        };
        // A code without a text leaves the prefix alone on the line.
        call(group, number, subs[0], subs[1], subs[2], subs[3], subs[4], subs[5], subs[6], subs[7], subs[8], subs[9]);
        xrholds(0);
    } else {
        int type = (u & 0x80000000u) ? 6 : (u & 0x20000000u) ? 8 : 7;
        xpsfv(g, "%*h%.*s", type, lens[0], subs[0]);
    }
    g->grpno = -1;
    g->msgid = prevmsgid;
    g->internal--;
    g->rinternal--;
}

}  // namespace

void xps(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    xpsfi(xpgcb(), format, -1, &ap);
    va_end(ap);
}

void xpslog(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    xplogline([&](YPGCBSTR* g) { xpsfi(g, format, -1, &ap); });
    va_end(ap);
}

void xpsout(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    YPGCBSTR* g = xpgcb();
    xpsfi(g, format, -1, &ap);
    va_end(ap);
    xpendline(g->clinestr, g->clinestr->dest);
}

int xpsstr(char* buffer, int buflen, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = xpstrline(buffer, buflen, [&](YPGCBSTR* g) { xpsfi(g, format, -1, &ap); });
    va_end(ap);
    return n;
}

void xpm(int group, int number, ...) {
    va_list ap;
    va_start(ap, number);
    xpmi(xpgcb(), group, number, &ap);
    va_end(ap);
}

void xpmout(int group, int number, ...) {
    va_list ap;
    va_start(ap, number);
    YPGCBSTR* g = xpgcb();
    bool ok = xpmi(g, group, number, &ap);
    va_end(ap);
    if (ok) xpendline(g->clinestr, g->clinestr->dest);
}

void xpmlog(int group, int number, ...) {
    va_list ap;
    va_start(ap, number);
    xplogline([&](YPGCBSTR* g) {
        const char* t;
        int l;
        if (!xpmi(g, group, number, &ap, &t, &l)) xpmfail(g, group, number, t, l);
    });
    va_end(ap);
}

int xpmstr(char* buffer, int buflen, int group, int number, ...) {
    va_list ap;
    va_start(ap, number);
    int n = xpstrline(buffer, buflen, [&](YPGCBSTR* g) { xpmi(g, group, number, &ap); });
    va_end(ap);
    return n;
}

void xpmelog(void*, void*, int group, int number, ...) {
    YPGCBSTR* g = xpgcb();
    int msgid = g->msgid, notes = g->notes;
    g->msgid = 1;
    g->notes = 1;
    va_list ap;
    va_start(ap, number);
    xplogline([&](YPGCBSTR* gg) {
        const char* t;
        int l;
        if (!xpmi(gg, group, number, &ap, &t, &l)) xpmfail(gg, group, number, t, l);
    });
    va_end(ap);
    g->msgid = msgid;
    g->notes = notes;
}

void xpr(rctype rc, int mode) { xpri(xpgcb(), rc, mode); }

void xprlog(rctype rc) {
    if (rc == 0) return;  // success has nothing to say
    xplogline([&](YPGCBSTR* g) { xpri(g, rc, 0); });
}

void xprelog(void*, void*, rctype rc) {
    if (rc == 0) return;
    YPGCBSTR* g = xpgcb();
    int notes = g->notes;
    g->notes = 1;
    xplogline([&](YPGCBSTR* gg) { xpri(gg, rc, 1); });
    g->notes = notes;
}

int xprstr(char* buffer, rctype rc, int buflen) {
    int n = xpstrline(buffer, buflen, [&](YPGCBSTR* g) { xpri(g, rc, 0); });
    if (buffer && n < buflen) memset(buffer + n, ' ', buflen - n);
    return n;
}

}  // namespace vrta

// The printer's format language: ordinary bytes go into the current line,
// which is broken at a blank (or at a %W mark) when it gets too long; a
// percent sign starts a directive.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ssup/xp.h"

namespace vrta {

namespace {

struct Directive {
    bool at = false;       // the argument points at the value
    bool minus = false;
    bool plus = false;     // relative (tabs)
    bool haswidth = false;
    bool hasprec = false;
    bool islong = false;
    long width = 0;
    long prec = 0;
    char letter = 0;
};

constexpr char kLineTypes[] = "dhstbfewnm";
constexpr char kCarriage[] = "+ 0-1";
constexpr int kUtilMem = 512;

void noteMax(YPGCBSTR* g, const LINESTR* ls) {
    if (ls->colnum > g->savmaxcol) g->savmaxcol = ls->colnum;
}

// Where a continuation line starts.
int contStart(const LINESTR* ls) {
    int start = ls->autocent == 1 ? 0 : ls->cindent;
    if (start < 0 || start + ls->lmargin >= ls->linesize) start = 0;
    return start;
}

// Breaks the line: everything after the break goes to the next line, which
// starts at the hanging indent. at > 0 breaks right after that column.
void xpsplit(YPGCBSTR* g, LINESTR* ls, int at) {
    int lo = ls->cindent + ls->lmargin - 1;
    int keep, tailstart;
    if (at > 0 && at <= ls->colnum) {
        keep = at;
        tailstart = at + 1;
    } else {
        keep = ls->colnum;
        tailstart = ls->colnum + 1;
        for (int i = ls->colnum; i > lo && i >= 1; --i) {
            if (ls->out[i] == ' ') {
                keep = i - 1;
                tailstart = i + 1;
                break;
            }
        }
    }
    int tail = ls->colnum - tailstart + 1;
    if (tail < 0) tail = 0;
    if (tail > kUtilMem) tail = kUtilMem;
    memcpy(g->utilmem, ls->out + tailstart, tail);
    memset(ls->out + keep + 1, ' ', ls->colnum - keep);
    ls->colnum = keep;
    int xword = ls->xword;
    int type = ls->type;
    xpoutf(ls, ls->dest);
    ls->xword = xword;  // a dropped line is dropped with its continuations
    ls->type = static_cast<char>(type);
    int start = contStart(ls);
    int room = ls->linesize - ls->lmargin - start;
    if (tail > room) tail = room > 0 ? room : 0;
    memcpy(ls->out + start + 1, g->utilmem, tail);
    ls->colnum = start + tail;
    g->savmaxcol = ls->colnum;
    g->splitfresh = tail == 0 ? 1 : 0;
}

// The break that a full line needs before the next byte.
void xpbreak(YPGCBSTR* g, LINESTR* ls, int at) {
    xpsplit(g, ls, at);
    ls->autocent = -ls->autocent;
    g->linesplit = 0;
}

void putbyte(YPGCBSTR* g, LINESTR* ls, char c) {
    if (ls->dest == XP_DEST_STR) {
        if (ls->colnum < ls->linesize) ls->out[++ls->colnum] = c;
        noteMax(g, ls);
        return;
    }
    for (int tries = 0; ls->colnum + ls->lmargin > ls->linesize && tries < 2; ++tries)
        xpbreak(g, ls, g->linesplit > 0 ? g->linesplit : 0);
    if (ls->colnum + ls->lmargin > ls->linesize) return;  // no room at all: cut
    // A blank that would open a continuation line is not worth keeping.
    if (c == ' ' && g->splitfresh && ls->colnum == contStart(ls)) return;
    g->splitfresh = 0;
    ls->out[++ls->colnum] = c;
    noteMax(g, ls);
}

// A directive's text is kept whole where it can be: when it does not fit on
// this line but fits on the next, the line is broken where the text starts.
void putword(YPGCBSTR* g, LINESTR* ls, const char* s, size_t n) {
    if (ls->dest != XP_DEST_STR && n > 0) {
        long need = static_cast<long>(ls->colnum) + ls->lmargin - 1 + static_cast<long>(n);
        long fresh = static_cast<long>(contStart(ls)) + ls->lmargin - 1 + static_cast<long>(n);
        if (need > ls->linesize && fresh <= ls->linesize && ls->colnum > contStart(ls))
            xpbreak(g, ls, ls->colnum);
    }
    for (size_t i = 0; i < n; ++i) putbyte(g, ls, s[i]);
}

void putword(YPGCBSTR* g, LINESTR* ls, const std::string& s) { putword(g, ls, s.data(), s.size()); }

std::string sfmt(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string sfmt(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return {};
    return std::string(buf, n < static_cast<int>(sizeof buf) ? n : static_cast<int>(sizeof buf) - 1);
}

// An integer in a field: a positive width right-justifies, a negative one
// left-justifies with the trailing blanks cut, that is the bare number.
std::string fmtint(long long v, const Directive& d, long defwidth) {
    long w = d.haswidth ? d.width : defwidth;
    if (w > 200) w = 200;
    if (w < -200) w = -200;
    if (d.hasprec && d.prec >= 0) {
        int p = static_cast<int>(d.prec > 100 ? 100 : d.prec);
        return w > 0 ? sfmt("%*.*lld", static_cast<int>(w), p, v) : sfmt("%.*lld", p, v);
    }
    return w > 0 ? sfmt("%*lld", static_cast<int>(w), v) : sfmt("%lld", v);
}

// A number as the engine prints it; a missing value (top 16 bits all ones) is ".".
std::string fmtdbl(double v, long width, long prec, char how) {
    uint64_t bits;
    memcpy(&bits, &v, sizeof bits);
    std::string s;
    if ((bits >> 48) == 0xffff) {
        s = ".";
    } else if (how == 'g' && prec == 99) {
        s = sfmt("%.15g", v);
        if (strtod(s.c_str(), nullptr) != v) s = sfmt("%.17g", v);
    } else {
        int p = static_cast<int>(prec < 0 ? 0 : (prec > 60 ? 60 : prec));
        s = how == 'e' ? sfmt("%.*e", p, v) : how == 'g' ? sfmt("%.*g", p, v) : sfmt("%.*f", p, v);
    }
    if (width > 200) width = 200;
    if (width > 0 && static_cast<long>(s.size()) < width) s.insert(0, width - s.size(), ' ');
    return s;
}

// A blank-padded name: up to the first blank (or the terminator); with a
// negative width the whole field with its trailing blanks cut.
std::string fmtname(const char* p, long width) {
    if (!p) return {};
    size_t n = width == 0 ? strlen(p) : static_cast<size_t>(width < 0 ? -width : width);
    if (width != 0) n = strnlen(p, n);
    if (width < 0) {
        while (n > 0 && p[n - 1] == ' ') --n;
        return std::string(p, n);
    }
    size_t i = 0;
    while (i < n && p[i] != ' ') ++i;
    return std::string(p, i);
}

void setCol(YPGCBSTR* g, LINESTR* ls, long col) {
    noteMax(g, ls);
    long max = ls->dest == XP_DEST_STR ? ls->linesize : ls->linesize - ls->lmargin;
    if (col > max) col = max;
    if (col < 0) col = 0;
    ls->colnum = static_cast<int>(col);
}

// Ends the line for %n: written now, the state of the text kept.
void newline(YPGCBSTR* g, LINESTR* ls) {
    if (ls->dest == XP_DEST_STR) return;
    xpoutf(ls, ls->dest);
    g->savmaxcol = 0;
    g->linesplit = 0;
}

void prefix(YPGCBSTR* g, LINESTR* ls, const Directive& d) {
    long w = d.haswidth ? d.width : 1;
    const char* str;
    char type;
    switch (w < 0 ? -w : w) {
    case 2: type = 'w'; str = g->warnstr; break;
    case 3: type = 'n'; str = g->notestr; break;
    case 4: type = 'e'; str = g->fatstr; break;
    default: type = 'e'; str = g->errstr; break;
    }
    ls->type = type;
    if (d.hasprec) {
        ls->cindent = ls->colnum;
        return;
    }
    std::string text = str;
    if (g->msgid && g->grpno > 0) text += sfmt(" %d-%d", g->msgno, g->grpno);
    text += ": ";
    if (w < 0) {
        if (w == -3 && !g->notes && ls == &g->task.llinestr) ls->xword = 1;
        setCol(g, ls, ls->colnum + static_cast<long>(text.size()));
        noteMax(g, ls);
    } else {
        putword(g, ls, text);
    }
    ls->cindent = ls->colnum;
}

// One directive; p points just past the percent sign. Returns where the
// format goes on.
const char* xpsfp(YPGCBSTR* g, const char* p, const char* end, va_list* ap) {
    LINESTR* ls = g->clinestr;
    Directive d;
    if (p < end && *p == '/') {
        const char* c = static_cast<const char*>(memchr(p + 1, '/', end - p - 1));
        p = c ? c + 1 : end;
    }
    for (; p < end; ++p) {
        if (*p == '@') d.at = true;
        else if (*p == '-') d.minus = true;
        else if (*p == '+') d.plus = true;
        else break;
    }
    if (p < end && *p == '*') {
        d.width = va_arg(*ap, int);
        d.haswidth = true;
        ++p;
    } else if (p < end && *p >= '0' && *p <= '9') {
        while (p < end && *p >= '0' && *p <= '9') d.width = d.width * 10 + (*p++ - '0');
        if (d.width > 100000) d.width = 100000;
        d.haswidth = true;
    }
    if (d.minus) {
        d.width = -d.width;
        if (!d.haswidth) d.haswidth = true;
    }
    if (p < end && *p == '.') {
        ++p;
        bool neg = false;
        if (p < end && *p == '-') {
            neg = true;
            ++p;
        }
        if (p < end && *p == '*') {
            d.prec = va_arg(*ap, int);
            ++p;
        } else if (p < end && *p == '$') {
            d.prec = va_arg(*ap, long);
            ++p;
        } else {
            while (p < end && *p >= '0' && *p <= '9') d.prec = d.prec * 10 + (*p++ - '0');
        }
        if (neg) d.prec = -d.prec;
        d.hasprec = true;
    }
    // l is the long modifier before a letter that takes one, else the
    // 64-bit integer directive itself.
    {
        const char* q = p;
        while (q < end && q - p < 2 && (*q == 'l' || *q == 'L')) ++q;
        if (q > p && q < end && *q && strchr("diouxXqDIOUQefgsEFGS", *q)) {
            d.islong = true;
            p = q;
        }
    }
    if (p >= end) {
        putbyte(g, ls, '%');
        return end;
    }
    char letter = *p++;
    d.letter = letter;
    char lc = (letter >= 'A' && letter <= 'Z') ? static_cast<char>(letter - 'A' + 'a') : letter;

    auto getint = [&]() -> long long {
        if (d.islong) return d.at ? *va_arg(*ap, long*) : va_arg(*ap, long);
        return d.at ? *va_arg(*ap, int*) : va_arg(*ap, int);
    };
    auto getptr = [&]() -> const char* {
        if (d.at) return *va_arg(*ap, const char**);
        return va_arg(*ap, const char*);
    };

    switch (lc) {
    case 'a':
        if (d.haswidth && d.width == 3 && d.hasprec) {
            ls->autocent = 3;
            ls->aindent = static_cast<int>(d.prec);
        } else {
            ls->autocent = d.haswidth ? static_cast<int>(d.width) : 1;
        }
        break;
    case 'b': putword(g, ls, fmtname(getptr(), d.haswidth ? d.width : 0)); break;
    case 'c': putbyte(g, ls, static_cast<char>(d.at ? *va_arg(*ap, int*) : va_arg(*ap, int))); break;
    case 'd':
    case 'i': putword(g, ls, fmtint(getint(), d, -12)); break;
    case 'e':
    case 'f':
    case 'g': {
        double v = d.at ? *va_arg(*ap, double*) : va_arg(*ap, double);
        long prec = d.hasprec ? d.prec : (lc == 'g' ? 99 : 2);
        putword(g, ls, fmtdbl(v, d.haswidth ? d.width : -32, prec, lc));
        break;
    }
    case 'h':
        if (!d.haswidth) ls->type = 'h';
        else if (d.width >= 0 && d.width <= 9) ls->type = kLineTypes[d.width];
        break;
    case 'k': {
        long w = d.haswidth ? d.width : 1;
        char cc = w < 0 || w > 4 ? ' ' : kCarriage[w];
        ls->fortrancc = cc;
        ls->out[0] = cc;
        if (w == 2) ls->linenum += 1;
        else if (w == 3) ls->linenum += 2;
        break;
    }
    case 'l': {
        long long v = d.at ? *va_arg(*ap, long long*) : va_arg(*ap, long long);
        putword(g, ls, fmtint(v, d, -20));
        break;
    }
    case 'm': ls->cindent = ls->colnum; break;
    case 'n': {
        if (d.hasprec && d.prec == 0 && !d.haswidth) {
            // Page break test: start a new page when the body would not fit.
            if (ls->dest == XP_DEST_PRINT && ls->linenum + ls->minbody > ls->pagesize) {
                ls->fortrancc = '1';
                ls->linenum = 1;
            }
            break;
        }
        long k = d.haswidth ? d.width : 1;
        bool keep = k < 0;
        if (keep) k = -k;
        if (k == 0) k = 1;
        if (k > 100) k = 100;
        int col = ls->colnum;
        newline(g, ls);
        for (long i = 1; i < k; ++i) newline(g, ls);
        if (keep) setCol(g, ls, col);
        break;
    }
    case 'o': {
        const auto* b = reinterpret_cast<const unsigned char*>(getptr());
        long n = d.haswidth ? (d.width < 0 ? -d.width : d.width) : 1;
        if (n > 128) n = 128;
        std::string s;
        for (long i = 0; b && i < n; ++i) s += sfmt("%02X", b[i]);
        putword(g, ls, s);
        break;
    }
    case 'p': {
        const void* v = d.at ? *va_arg(*ap, void**) : va_arg(*ap, void*);
        putword(g, ls, sfmt("%016lX", reinterpret_cast<unsigned long>(v)));
        break;
    }
    case 'q': {
        long v = d.at ? *va_arg(*ap, long*) : va_arg(*ap, long);
        if (v == 0) putword(g, ls, std::string("<no line/column information available>"));
        else if (!d.haswidth || d.width == 1) putword(g, ls, sfmt("%-6li:%-3li", v / 256, v % 256));
        else putword(g, ls, sfmt("%s %-6li %s %-3li", g->linstr, v / 256, g->colstr, v % 256));
        break;
    }
    case 's': {
        const char* s = getptr();
        if (!s) s = "";
        size_t n = d.hasprec && d.prec >= 0 ? strnlen(s, static_cast<size_t>(d.prec)) : strlen(s);
        long w = d.haswidth ? d.width : 0;
        long aw = w < 0 ? -w : w;
        if (aw > 4096) aw = 4096;
        std::string out(s, n);
        if (static_cast<long>(n) < aw) {
            if (w > 0) out.insert(0, aw - n, ' ');
            else out.append(aw - n, ' ');
        }
        putword(g, ls, out);
        break;
    }
    case 't': {
        long col;
        if (d.haswidth && d.plus) {
            col = ls->colnum + d.width;
        } else if (d.haswidth) {
            col = d.width - 1;
        } else {
            col = -1;
            if (ls->tabptr) {
                for (const int* t = ls->tabptr; *t > 0; ++t) {
                    if (*t > ls->colnum + 1) {
                        col = *t - 1;
                        break;
                    }
                }
            }
            if (col < 0) col = (ls->colnum / 4 + 1) * 4;
        }
        setCol(g, ls, col);
        break;
    }
    case 'x': {
        unsigned long long v = static_cast<unsigned long long>(getint());
        if (!d.islong) v &= 0xffffffffull;
        long w = d.haswidth ? (d.width < 0 ? -d.width : d.width) : (d.islong ? 16 : 8);
        if (w > 32) w = 32;
        putword(g, ls, letter == 'X' ? sfmt("%0*llX", static_cast<int>(w), v) : sfmt("%0*llx", static_cast<int>(w), v));
        break;
    }
    case 'y': {
        // A three-part name: 8 bytes, 64 bytes, 8 bytes, blank padded.
        const char* r = getptr();
        if (!r) break;
        std::string s;
        const int off[3] = {0, 8, 72};
        const int len[3] = {8, 64, 8};
        for (int i = 0; i < 3; ++i) {
            if (r[off[i]] == ' ' || r[off[i]] == '\0') break;
            if (i) s += '.';
            s += fmtname(r + off[i], len[i]);
        }
        putword(g, ls, s);
        break;
    }
    case 'z': prefix(g, ls, d); break;
    default: putbyte(g, ls, letter); break;
    }
    return p;
}

}  // namespace

void xpsfi(YPGCBSTR* g, const char* format, int len, va_list* ap) {
    if (!format) return;
    LINESTR* ls = g->clinestr;
    if (!ls->varssaved && !g->footnotes) {
        ls->savtype = ls->type;
        ls->savcindent = ls->cindent;
        ls->savautocent = ls->autocent;
        ls->varssaved = 1;
    }
    g->savmaxcol = 0;
    g->linesplit = 0;
    const char* p = format;
    const char* end = len < 0 ? format + strlen(format) : format + len;
    while (p < end) {
        ls = g->clinestr;
        if (*p == '%' && p + 1 < end) {
            if (p[1] == 'W' || p[1] == 'w') {
                g->linesplit = ls->colnum;
                p += 2;
                continue;
            }
            p = xpsfp(g, p + 1, end, ap);
            continue;
        }
        putbyte(g, ls, *p++);
    }
    ls = g->clinestr;
    if (g->savmaxcol > ls->colnum) ls->colnum = g->savmaxcol;
}

void xpsf(const char* format, int len, va_list args) {
    va_list ap;
    va_copy(ap, args);
    xpsfi(xpgcb(), format, len, &ap);
    va_end(ap);
}

}  // namespace vrta

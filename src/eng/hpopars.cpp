// Table options: hpopars reads one data set option of an open into its
// HPOOPT; hpohbfr frees it. The macro table and hpogmac live here too, as
// they feed the same open.
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "eng/hpdopt.h"
#include "eng/hpdparse.h"
#include "hs/zrt.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

HPOOPT* T(void* b) { return static_cast<HPOOPT*>(b); }

template <int on, int off>
rctype bits(OptParse& p, void* b) {
    return optbits<offsetof(HPOOPT, debug), on, off>(p, b);
}
template <size_t off>
rctype flag(OptParse& p, void* b) {
    return optflag<off>(p, b);
}

// A word of the list sets its bit and clears the bits of the others.
template <int bit>
rctype oneword(OptParse& p, void* b, const char* word) {
    const char* const words[] = {word};
    int w;
    if (rctype rc = p.word(words, 1, &w); rc) return rc;
    T(b)->debug |= bit;
    return 0;
}

rctype obs(OptParse& p, int64_t* out) { return p.num64(1, INT64_MAX, out); }

rctype encoding(OptParse& p, int* out) {
    int32_t v;
    if (rctype rc = p.num(-1, INT_MAX, &v); rc) return rc;
    if (v == 0) return p.bad(2);
    *out = v;
    return 0;
}

// A list of column names replaces the one given before.
rctype namelist(OptParse& p, HPBIT** slot, int* count) {
    void* head = nullptr;
    int n = 0;
    if (rctype rc = p.names(32, 32, sizeof(HPBIT), offsetof(HPBIT, keyname), &head, &n); rc) return rc;
    optfreelist(*slot, sizeof(HPBIT));
    *slot = static_cast<HPBIT*>(head);
    if (count) *count = n;
    return 0;
}

// A sign says how the number counts: minus n is generation -n, plus n is n,
// and a bare n is n past the 999 relative ones; 0 is 0.
rctype numgen(OptParse& p, void* b) {
    int32_t v;
    if (rctype rc = p.num(-999, 999, &v); rc) return rc;
    const char s = p.tok->token[0];
    T(b)->gennum = (v == 0 || s == '-' || s == '+') ? v : v + 999;
    return 0;
}

rctype memnum(OptParse& p, void* b) {
    if (rctype rc = p.value(TKM_NAME | TKM_NUMBER); rc) return rc;
    if (p.tok->type == TK_NAME) {
        if (zstrcom(p.tok->token, p.tok->tokenl, "LASTCLUSTERMEMBER") != 0) return p.bad(2);
        T(b)->gennum = 0x7fffffff;
        return 0;
    }
    int32_t n;
    if (zstol(p.tok->token, p.tok->tokenl, &n) != 0 || n < 0 || n > 0x7fffffff - 1000) return p.bad(2);
    T(b)->gennum = n ? n + 999 : 0;
    return 0;
}

rctype gendate(OptParse& p, void* b) {
    char buf[TK_BUFLEN];
    int len = 0;
    if (rctype rc = p.str(buf, sizeof buf, TK_BUFLEN - 1, false, &len); rc) return rc;
    double d;
    if (hpmdy(buf, len, &d) != 0) return p.bad(2);
    T(b)->gendate = d;
    return 0;
}

rctype compress(OptParse& p, void* b) {
    if (rctype rc = p.value(TKM_NAME | TKM_STRING); rc) return rc;
    XXTOKEN* t = p.tok;
    HPOOPT* o = T(b);
    if (t->type == TK_NAME && (zstrcom(t->token, t->tokenl, "YES") == 0 || zstrcom(t->token, t->tokenl, "NO") == 0)) {
        o->comp = t->token[0] == 'Y' ? 1 : 0;
        std::memset(o->compress, ' ', sizeof o->compress);
        return 0;
    }
    char name[TK_BUFLEN];
    const int l = vzstrpq(t->token, t->tokenl, name);
    if (l == 0 || l > 8) return p.bad(2);
    std::memset(o->compress, ' ', sizeof o->compress);
    std::memcpy(o->compress, name, static_cast<size_t>(l));
    o->comp = 1;
    return 0;
}

rctype type(OptParse& p, void* b) {
    char t[9];
    int l = 0;
    if (rctype rc = p.str(t, sizeof t, 8, false, &l); rc) return rc;
    std::memset(T(b)->type, ' ', sizeof T(b)->type);
    std::memcpy(T(b)->type, t, static_cast<size_t>(l));
    return 0;
}

// A key may be written as a word, a number or a string.
rctype ekey(OptParse& p, void* b) {
    char k[40];
    if (rctype rc = p.str(k, sizeof k, 40, false, nullptr, TKM_NAME | TKM_NUMBER | TKM_STRING); rc) return rc;
    std::memcpy(T(b)->ekey, k, sizeof k);
    return 0;
}

#define O(f) offsetof(HPOOPT, f)

const OPTKEY okeys[] = {
    {"ENCODING", [](OptParse& p, void* b) { return encoding(p, &T(b)->encoding_cei); }},
    {"NETPACKSIZE", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &T(b)->blocksize); }},
    {"SORTSIZE", [](OptParse& p, void* b) { return p.num64(0, INT64_MAX, &T(b)->sortsize); }},
    {"PW", ekey},
    {"READ", ekey},
    {"STARTOBS", [](OptParse& p, void* b) { return obs(p, &T(b)->startobs); }},
    {"ENDOBS", [](OptParse& p, void* b) { return obs(p, &T(b)->endobs); }},
    {"NUMGEN", numgen},
    {"MEMNUM", memnum},
    {"MAXGEN", [](OptParse& p, void* b) { return p.num(1, INT_MAX, &T(b)->genmax); }},
    {"GENDATE", gendate},
    {"IOBLOCKSIZE", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &T(b)->ioblocksize); }},
    {"BITINDEX", [](OptParse& p, void* b) { return namelist(p, &T(b)->bit, nullptr); }},
    {"WHERENOINDEX", [](OptParse& p, void* b) { return namelist(p, &T(b)->bitw, nullptr); }},
    {"MINMAXVARLIST", [](OptParse& p, void* b) { return namelist(p, &T(b)->minmax, &T(b)->numminmax); }},
    {"NOSEGINDEX", [](OptParse& p, void* b) { return namelist(p, &T(b)->bitr, nullptr); }},
    // YES turns it on, any other value off.
    {"ASYNCINDEX",
     [](OptParse& p, void* b) {
         if (rctype rc = p.value(TKM_NAME | TKM_NUMBER | TKM_STRING); rc) return rc;
         const bool yes = p.tok->type == TK_NAME && zstrcom(p.tok->token, p.tok->tokenl, "YES") == 0;
         T(b)->debug = yes ? T(b)->debug | HPO_ASYNCINDEX : T(b)->debug & ~HPO_ASYNCINDEX;
         return rctype{0};
     }},
    {"RANKINDEX", [](OptParse& p, void* b) { return oneword<HPO_RANKLINEAR>(p, b, "LINEAR"); }},
    {"UNIXDOMAIN", bits<HPO_UNIXDOMAIN, 0>},
    {"ACLREAD", bits<HPO_ACLREAD, HPO_ACLREADNO>},
    {"ACLWRITE", bits<HPO_ACLWRITE, HPO_ACLWRITENO>},
    {"ACLALTER", bits<HPO_ACLALTER, HPO_ACLALTERNO>},
    {"ACLCONTROL", bits<HPO_ACLCONTROL, HPO_ACLCONTROLNO>},
    {"VERBOSE", bits<HPO_VERBOSE, 0>},
    {"COMPRESS", compress},
    {"LABEL", opttext<O(label), 256, 256>},
    {"TYPE", type},
    {"BYSORT", bits<HPO_BYSORT, 0>},
    {"NOMISS",
     [](OptParse& p, void* b) {
         int yes;
         if (rctype rc = p.yesno(&yes); rc) return rc;
         if (yes)
             xpslog("%3zNOMISS option is ignored for VRT Indexes");
         else
             T(b)->debug &= ~HPO_NOMISS;
         return rctype{0};
     }},
    {"NOINDEX", flag<O(noindex)>},
    {"BYNOEQUALS", flag<O(noequal)>},
    {"CNTLLEV",
     [](OptParse& p, void* b) {
         static const char* const words[] = {"REC", "MEM"};
         int w;
         if (rctype rc = p.word(words, 2, &w); rc) return rc;
         int& d = T(b)->debug;
         d = w == 0 ? (d | HPO_CNTLREC) & ~HPO_CNTLMEM : (d | HPO_CNTLMEM) & ~HPO_CNTLREC;
         return rctype{0};
     }},
    {"SORTTYPE", [](OptParse& p, void* b) { return oneword<HPO_QUICKSORT>(p, b, "QUICK"); }},
    {"MEMMAP",
     [](OptParse& p, void* b) {
         int yes;
         if (rctype rc = p.yesno(&yes); rc) return rc;
         T(b)->memmap = yes ? -1 : 0;
         return rctype{0};
     }},
    {"SEGSIZE", [](OptParse& p, void* b) { return p.num(1024, INT_MAX, &T(b)->segsize); }},
    {"THREADNUM", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &T(b)->thrcnt); }},
    {"PARTSIZE", [](OptParse& p, void* b) { return p.num(0, INT_MAX, &T(b)->partsize); }},
    {"SYNCADD", bits<HPO_SYNCADD, 0>},
    {"UNIQUESAVE", bits<HPO_UNIQUESAVE, 0>},
    {"BUFFERCACHE", [](OptParse& p, void* b) { return p.num(1, INT_MAX, &T(b)->numbuf); }},
};

#undef O

void* makeoopt(void*) {
    auto* o = static_cast<HPOOPT*>(xmalloc(XM_THREADPOOL, sizeof(HPOOPT), XM_ZERO));
    if (!o) return nullptr;
    o->debug = HPO_BYSORT;
    o->memmap = -1;
    o->startobs = o->endobs = -1;
    o->partsize = -1;
    o->gennum = -1000;
    std::memset(o->compress, ' ', sizeof o->compress);
    std::memset(o->type, ' ', sizeof o->type);
    return o;
}

// Days from 1 January 1960 to a day of the proleptic Gregorian calendar.
int64_t daynum(int y, int m, int d) {
    // Days from 1 March of year 0, so that leap days come last in a year.
    auto days = [](int64_t yy, int mm, int dd) {
        if (mm <= 2) {
            --yy;
            mm += 12;
        }
        return 365 * yy + yy / 4 - yy / 100 + yy / 400 + (153 * (mm - 3) + 2) / 5 + dd - 1;
    };
    return days(y, m, d) - days(1960, 1, 1);
}

bool validday(int y, int m, int d) {
    static const int mdays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (m < 1 || m > 12 || d < 1) return false;
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return d <= mdays[m - 1] + (m == 2 && leap ? 1 : 0);
}

}  // namespace

int hpmdy(const char* text, int len, double* date) {
    // Trim blanks; then either 6 or 8 digits, or month, day and year as
    // numbers between separators.
    while (len > 0 && text[len - 1] == ' ') --len;
    int i = 0;
    while (i < len && text[i] == ' ') ++i;
    int part[3] = {0, 0, 0};
    int digits[3] = {0, 0, 0};
    int k = 0;
    bool separated = false;
    for (; i < len; ++i) {
        const char c = text[i];
        if (c >= '0' && c <= '9') {
            if (digits[k] >= 8) return -1;
            part[k] = part[k] * 10 + (c - '0');
            ++digits[k];
        } else if (c == '/' || c == '-' || c == '.' || c == ' ') {
            if (digits[k] == 0 || k == 2) return -1;
            ++k;
            separated = true;
        } else {
            return -1;
        }
    }
    int m, d, y, ydigits;
    if (!separated) {
        if (digits[0] != 6 && digits[0] != 8) return -1;
        // Re-read the run of digits as mm dd yy(yy).
        int v = 0;
        const char* p = text;
        while (*p == ' ') ++p;
        auto take = [&](int n) {
            v = 0;
            for (int j = 0; j < n; ++j) v = v * 10 + (*p++ - '0');
            return v;
        };
        ydigits = digits[0] - 4;
        m = take(2);
        d = take(2);
        y = take(ydigits);
    } else {
        if (k != 2 || digits[2] == 0 || digits[0] > 2 || digits[1] > 2) return -1;
        if (digits[2] != 2 && digits[2] != 4) return -1;
        m = part[0];
        d = part[1];
        y = part[2];
        ydigits = digits[2];
    }
    // Two-digit years fall in the hundred years from 1920.
    if (ydigits == 2) y += y < 20 ? 2000 : 1900;
    if (!validday(y, m, d)) return -1;
    *date = static_cast<double>(daynum(y, m, d));
    return 0;
}

rctype hpohbfr(XOPNSTR* open) {
    if (!open || !open->peng_op) return 0;
    auto* o = static_cast<HPOOPT*>(open->peng_op);
    optfreelist(o->bit, sizeof(HPBIT));
    optfreelist(o->bitr, sizeof(HPBIT));
    optfreelist(o->bitw, sizeof(HPBIT));
    optfreelist(o->minmax, sizeof(HPBIT));
    if (o->acllist) xmfree(XM_THREADPOOL, o->acllist, o->acllen);
    xmfree(XM_THREADPOOL, o, sizeof(HPOOPT));
    open->peng_op = nullptr;
    return 0;
}

int hpogmac(const unsigned char* mactbl, const char* name, char* out, int outmax, int* outlen) {
    *outlen = 0;
    if (!mactbl) return 1;
    for (const unsigned char* r = mactbl; r[0] != ' '; r += HP_MACRECL) {
        const int flags = static_cast<int>(zrtint(r + 12, 4));
        if (std::memcmp(r, name, 8) != 0 || (flags & HP_MACUNSET)) continue;
        const int value = static_cast<int>(zrtint(r + 16, 4));
        char buf[16];
        int l = 0;
        if (flags & HP_MACINT)
            l = std::snprintf(buf, sizeof buf, "%d", value);
        else if (flags & HP_MACBOOL)
            l = std::snprintf(buf, sizeof buf, "%s", value ? "YES" : "NO");
        if (l > outmax) l = outmax;
        if (l > 0) std::memcpy(out, buf, static_cast<size_t>(l));
        *outlen = l;
        return 0;
    }
    return 1;
}

}  // namespace vrta

using namespace vrta;

extern "C" rctype hpopars(void* /*engid*/, int /*env*/, void* sourcetrack, int* scanned, XOPNSTR* open) {
    return optparse(sourcetrack, okeys, static_cast<int>(sizeof okeys / sizeof okeys[0]), scanned, &open->peng_op,
                    makeoopt, nullptr);
}

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
#include "sfmt/fmt.h"
#include "ssubs/vz.h"
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
    // Read with the informat MMDDYY of the format library.
    FMTSTR attr{};
    long code = 0;
    if (fmtfind("MMDDYY", 6, 'I', &attr, &code) != 0) return p.bad(2);
    const FMTTBL_ENT* row = fmtrow(code);
    double d = 0;
    // A date is wanted: an empty text or "." (a missing value) is none.
    if (!row || !row->entpt || reinterpret_cast<numinf_t>(row->entpt)(row, buf, len, 0, &d) != 0 || vzismiss(d))
        return p.bad(2);
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

}  // namespace

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

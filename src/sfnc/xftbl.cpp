// The function table, its lookup by name or code, and the dispatch of a call
// by the row's fdesc.
#include <cstdlib>
#include <cstring>

#include "sfmt/fmt.h"
#include "sfnc/xfint.h"
#include "ssup/xp.h"

namespace vrta {

#define E(f) reinterpret_cast<fncent_t>(&f)

// Names, input and result letters are blank padded to eight bytes, the ninth
// being a terminator: lookups compare eight.
const FNCTBL_ENT fnc_table[FNC_NROWS] = {
    {"ABS     ", E(fncabs), 1, 1, "r       ", "r       ", 2048, 1},
    {"ADDR    ", E(fncaddr), 1, 1, "b       ", "r       ", 0, 3},
    {"ARCOS   ", E(fncarcos), 1, 1, "r       ", "r       ", 2048, 1},
    {"ARSIN   ", E(fncarsin), 1, 1, "r       ", "r       ", 2048, 1},
    {"ATAN    ", E(fncatan), 1, 1, "r       ", "r       ", 2048, 1},
    {"BAND    ", E(fncband), 2, 2, "rr      ", "r       ", 0, 9},
    {"BETAINV ", E(fncbetainv), 3, 3, "rrr     ", "r       ", 0, 73},
    {"BLSHIFT ", E(fncblshift), 2, 2, "rr      ", "r       ", 0, 9},
    {"BNOT    ", E(fncbnot), 1, 1, "r       ", "r       ", 2048, 1},
    {"BOR     ", E(fncbor), 2, 2, "rr      ", "r       ", 0, 9},
    {"BRSHIFT ", E(fncbrshift), 2, 2, "rr      ", "r       ", 0, 9},
    {"BXOR    ", E(fncbxor), 2, 2, "rr      ", "r       ", 0, 9},
    {"BYTE    ", E(fncbyte), 1, 1, "r       ", "c       ", 130, 1},
    {"CEIL    ", E(fncceil), 1, 1, "r       ", "r       ", 2048, 1},
    {"CINV    ", E(fnccinv), 2, 3, "rrr     ", "r       ", 0, 73},
    {"COLLATE ", E(fnccollate), 1, 3, "rrr     ", "c       ", 10, 73},
    {"COMPBL  ", E(fnccompbl), 1, 1, "c       ", "c       ", 4114, 2},
    {"COMPOUND", E(fnccompound), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"COMPRESS", E(fnccompress), 1, 2, "cc      ", "c       ", 18, 18},
    {"COS     ", E(fnccos), 1, 1, "r       ", "r       ", 2048, 1},
    {"COSH    ", E(fnccosh), 1, 1, "r       ", "r       ", 2048, 1},
    {"CSS     ", E(fnccss), 1, 0, "rr      ", "r       ", 0, 9},
    {"CV      ", E(fnccv), 2, 0, "rrr     ", "r       ", 0, 73},
    {"DACCDB  ", E(fncdaccdb), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DACCDBSL", E(fncdaccdbsl), 5, 5, "rrrrr   ", "r       ", 0, 4681},
    {"DACCSL  ", E(fncdaccsl), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DACCSYD ", E(fncdaccsyd), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DACCTAB ", E(fncdacctab), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"DATE    ", E(fncdate), 0, 0, "n       ", "r       ", 0, 0},
    {"DATEJUL ", E(fncdatejul), 1, 1, "r       ", "r       ", 2048, 1},
    {"DATEPART", E(fncdatepart), 1, 1, "r       ", "r       ", 2048, 1},
    {"DATETIME", E(fncdatetime), 0, 0, "n       ", "r       ", 0, 0},
    {"DAY     ", E(fncday), 1, 1, "r       ", "r       ", 2048, 1},
    {"DCSS    ", E(fncdcss), 1, 0, "rr      ", "r       ", 0, 9},
    {"DEPDB   ", E(fncdepdb), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DEPDBSL ", E(fncdepdbsl), 5, 5, "rrrrr   ", "r       ", 0, 4681},
    {"DEPSL   ", E(fncdepsl), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DEPSYD  ", E(fncdepsyd), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DEPTAB  ", E(fncdeptab), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"DEQUOTE ", E(fncdequote), 1, 1, "c       ", "c       ", 4114, 2},
    {"DHMS    ", E(fncdhms), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"DIF     ", E(fncdif), 2, 2, "nr      ", "r       ", 9220, 8},
    {"DIGAMMA ", E(fncdigamma), 1, 1, "r       ", "r       ", 2048, 1},
    {"DIM     ", E(fncdim), 1, 2, "Rr      ", "r       ", 8196, 13},
    {"DMAX    ", E(fncdmax), 2, 0, "rrr     ", "r       ", 0, 73},
    {"DMEAN   ", E(fncdmean), 1, 0, "rr      ", "r       ", 0, 9},
    {"DMIN    ", E(fncdmin), 2, 0, "rrr     ", "r       ", 0, 73},
    {"DRANGE  ", E(fncdrange), 1, 0, "rr      ", "r       ", 0, 9},
    {"DSTD    ", E(fncdstd), 2, 0, "rrr     ", "r       ", 0, 73},
    {"DSTDERR ", E(fncdstderr), 2, 0, "rrr     ", "r       ", 0, 73},
    {"DSUM    ", E(fncdsum), 1, 0, "rr      ", "r       ", 0, 9},
    {"DUSS    ", E(fncduss), 1, 0, "rr      ", "r       ", 0, 9},
    {"DVAR    ", E(fncdvar), 2, 0, "rrr     ", "r       ", 0, 73},
    {"ERF     ", E(fncerf), 1, 1, "r       ", "r       ", 2048, 1},
    {"ERFC    ", E(fncerfc), 1, 1, "r       ", "r       ", 2048, 1},
    {"EXP     ", E(fncexp), 1, 1, "r       ", "r       ", 2048, 1},
    {"FINV    ", E(fncfinv), 3, 4, "rrrr    ", "r       ", 0, 585},
    {"FIPNAME ", E(fncfipname), 1, 1, "r       ", "c       ", 258, 1},
    {"FIPNAMEL", E(fncfipnamel), 1, 1, "r       ", "c       ", 258, 1},
    {"FIPSTATE", E(fncfipstate), 1, 1, "r       ", "c       ", 258, 1},
    {"FLOOR   ", E(fncfloor), 1, 1, "r       ", "r       ", 2048, 1},
    {"FNONMISS", E(fncfnonmiss), 1, 0, "rr      ", "r       ", 0, 9},
    {"FUZZ    ", E(fncfuzz), 1, 1, "r       ", "r       ", 2048, 1},
    {"GAMINV  ", E(fncgaminv), 2, 2, "rr      ", "r       ", 0, 9},
    {"GAMMA   ", E(fncgamma), 1, 1, "r       ", "r       ", 2048, 1},
    {"HBOUND  ", E(fnchbound), 1, 2, "Rr      ", "r       ", 8196, 13},
    {"HMS     ", E(fnchms), 3, 3, "rrr     ", "r       ", 0, 73},
    {"HOUR    ", E(fnchour), 1, 1, "r       ", "r       ", 2048, 1},
    {"INDEX   ", E(fncindex), 2, 2, "cc      ", "r       ", 0, 18},
    {"INT     ", E(fncint), 1, 1, "r       ", "r       ", 2048, 1},
    {"INTCK   ", E(fncintck), 3, 3, "crr     ", "r       ", 0, 74},
    {"INTNX   ", E(fncintnx), 3, 4, "crrc    ", "r       ", 0, 1098},
    {"INTRR   ", E(fncintrr), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"IRR     ", E(fncirr), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"ISPEXEC ", E(fncispexec), 1, 1, "c       ", "r       ", 4, 2},
    {"ISPEXEC$", E(fncispexecx), 1, 1, "R       ", "        ", 1, 5},
    {"ISPLINK ", E(fncisplink), 1, 0, "cb      ", "r       ", 4, 26},
    {"ISPLINK$", E(fncisplinkx), 1, 0, "RR      ", "        ", 1, 45},
    {"KURTOSIS", E(fnckurtosis), 4, 0, "rrrrr   ", "r       ", 0, 4681},
    {"LABEL$  ", E(fnclabelx), 2, 2, "bc      ", "        ", 8193, 19},
    {"LAG     ", E(fnclag), 2, 2, "nb      ", "b       ", 9230, 24},
    {"LBOUND  ", E(fnclbound), 1, 2, "Rr      ", "r       ", 8196, 13},
    {"LEFT    ", E(fncleft), 1, 1, "c       ", "c       ", 18, 2},
    {"LENGTH  ", E(fnclength), 1, 1, "c       ", "r       ", 16384, 2},
    {"LGAMMA  ", E(fnclgamma), 1, 1, "r       ", "r       ", 2048, 1},
    {"LOG     ", E(fnclog), 1, 1, "r       ", "r       ", 2048, 1},
    {"LOG10   ", E(fnclog10), 1, 1, "r       ", "r       ", 2048, 1},
    {"LOG2    ", E(fnclog2), 1, 1, "r       ", "r       ", 2048, 1},
    {"LOWCASE ", E(fnclowcase), 1, 1, "c       ", "c       ", 16402, 2},
    {"MAX     ", E(fncmax), 2, 0, "rrr     ", "r       ", 0, 73},
    {"MDY     ", E(fncmdy), 3, 3, "rrr     ", "r       ", 0, 73},
    {"MEAN    ", E(fncmean), 1, 0, "rr      ", "r       ", 0, 9},
    {"MIN     ", E(fncmin), 2, 0, "rrr     ", "r       ", 0, 73},
    {"MINUTE  ", E(fncminute), 1, 1, "r       ", "r       ", 2048, 1},
    {"MOD     ", E(fncmod), 2, 2, "rr      ", "r       ", 0, 9},
    {"MONTH   ", E(fncmonth), 1, 1, "r       ", "r       ", 2048, 1},
    {"MORT    ", E(fncmort), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"N       ", E(fncn), 1, 0, "rr      ", "r       ", 0, 9},
    {"NETPV   ", E(fncnetpv), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"NMISS   ", E(fncnmiss), 1, 0, "rr      ", "r       ", 0, 9},
    {"NPV     ", E(fncnpv), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"ORDINAL ", E(fncordinal), 2, 0, "rrr     ", "r       ", 0, 73},
    {"POISSON ", E(fncpoisson), 2, 2, "rr      ", "r       ", 0, 9},
    {"PROBBETA", E(fncprobbeta), 3, 3, "rrr     ", "r       ", 0, 73},
    {"PROBBNML", E(fncprobbnml), 3, 3, "rrr     ", "r       ", 0, 73},
    {"PROBCHI ", E(fncprobchi), 2, 3, "rrr     ", "r       ", 0, 73},
    {"PROBF   ", E(fncprobf), 3, 4, "rrrr    ", "r       ", 0, 585},
    {"PROBGAM ", E(fncprobgam), 2, 2, "rr      ", "r       ", 0, 9},
    {"PROBHYPR", E(fncprobhypr), 4, 5, "rrrrr   ", "r       ", 0, 4681},
    {"PROBIT  ", E(fncprobit), 1, 1, "r       ", "r       ", 2048, 1},
    {"PROBNEGB", E(fncprobnegb), 3, 3, "rrr     ", "r       ", 0, 73},
    {"PROBNORM", E(fncprobnorm), 1, 1, "r       ", "r       ", 2048, 1},
    {"PROBT   ", E(fncprobt), 2, 3, "rrr     ", "r       ", 0, 73},
    {"QTR     ", E(fncqtr), 1, 1, "r       ", "r       ", 2048, 1},
    {"QUOTE   ", E(fncquote), 1, 1, "c       ", "c       ", 4106, 2},
    {"RANGE   ", E(fncrange), 1, 0, "rr      ", "r       ", 0, 9},
    {"RANK    ", E(fncrank), 1, 1, "c       ", "r       ", 0, 2},
    {"RANUNI  ", E(fncranuni), 1, 1, "r       ", "r       ", 1024, 1},
    {"RANUNI$ ", E(fncranunix), 2, 2, "RR      ", "        ", 1, 45},
    {"RECIP   ", E(fncrecip), 1, 1, "r       ", "r       ", 2048, 1},
    {"REPEAT  ", E(fncrepeat), 2, 2, "cr      ", "c       ", 10, 10},
    {"REVERSE ", E(fncreverse), 1, 1, "c       ", "c       ", 4114, 2},
    {"RIGHT   ", E(fncright), 1, 1, "c       ", "c       ", 18, 2},
    {"ROUND   ", E(fncround), 1, 2, "rr      ", "r       ", 0, 9},
    {"SAVING  ", E(fncsaving), 4, 4, "rrrr    ", "r       ", 0, 585},
    {"SECOND  ", E(fncsecond), 1, 1, "r       ", "r       ", 2048, 1},
    {"SIGN    ", E(fncsign), 1, 1, "r       ", "r       ", 2048, 1},
    {"SIGNUM  ", E(fncsign), 1, 1, "r       ", "r       ", 2048, 1},
    {"SIN     ", E(fncsin), 1, 1, "r       ", "r       ", 2048, 1},
    {"SINH    ", E(fncsinh), 1, 1, "r       ", "r       ", 2048, 1},
    {"SKEWNESS", E(fncskewness), 3, 0, "rrrr    ", "r       ", 0, 585},
    {"SQRT    ", E(fncsqrt), 1, 1, "r       ", "r       ", 2048, 1},
    {"STD     ", E(fncstd), 2, 0, "rrr     ", "r       ", 0, 73},
    {"STDERR  ", E(fncstderr), 2, 0, "rrr     ", "r       ", 0, 73},
    {"STFIPS  ", E(fncstfips), 1, 1, "c       ", "r       ", 0, 2},
    {"STNAME  ", E(fncstname), 1, 1, "c       ", "c       ", 258, 2},
    {"STNAMEL ", E(fncstnamel), 1, 1, "c       ", "c       ", 258, 2},
    {"STRIP   ", E(fncstrip), 1, 1, "c       ", "c       ", 4114, 2},
    {"SUBSTR  ", E(fncsubstr), 2, 3, "crr     ", "c       ", 18, 74},
    {"SUBSTRN ", E(fncsubstrn), 2, 3, "crr     ", "c       ", 18, 74},
    {"SUM     ", E(fncsum), 1, 0, "rr      ", "r       ", 0, 9},
    {"TAN     ", E(fnctan), 1, 1, "r       ", "r       ", 2048, 1},
    {"TANH    ", E(fnctanh), 1, 1, "r       ", "r       ", 2048, 1},
    {"TIME    ", E(fnctime), 0, 0, "n       ", "r       ", 0, 0},
    {"TIMEPART", E(fnctimepart), 1, 1, "r       ", "r       ", 2048, 1},
    {"TINV    ", E(fnctinv), 2, 3, "rrr     ", "r       ", 0, 73},
    {"TODAY   ", E(fnctoday), 0, 0, "n       ", "r       ", 0, 0},
    {"TRANWRD ", E(fnctranwrd), 3, 3, "ccc     ", "c       ", 10, 146},
    {"TRIGAMMA", E(fnctrigamma), 1, 1, "r       ", "r       ", 2048, 1},
    {"TRIM    ", E(fnctrim), 1, 1, "c       ", "c       ", 4114, 2},
    {"UPCASE  ", E(fncupcase), 1, 1, "c       ", "c       ", 16402, 2},
    {"USS     ", E(fncuss), 1, 0, "rr      ", "r       ", 0, 9},
    {"VAR     ", E(fncvar), 2, 0, "rrr     ", "r       ", 0, 73},
    {"VNAME$  ", E(fncvnamex), 2, 2, "bc      ", "        ", 8193, 19},
    {"WEEKDAY ", E(fncweekday), 1, 1, "r       ", "r       ", 2048, 1},
    {"YEAR    ", E(fncyear), 1, 1, "r       ", "r       ", 2048, 1},
    {"ZIPFIPS ", E(fnczipfips), 1, 1, "c       ", "r       ", 0, 2},
    {"ZIPNAME ", E(fnczipname), 1, 1, "c       ", "c       ", 258, 2},
    {"ZIPNAMEL", E(fnczipnamel), 1, 1, "c       ", "c       ", 258, 2},
    {"ZIPSTATE", E(fnczipstate), 1, 1, "c       ", "c       ", 258, 2},
    {"        ", nullptr, 0, 0, "        ", "        ", 0, 0},
};

#undef E

namespace {

using xfgen_t = int (*)(FNCPAR* p, void* r);
using xfstr1_t = int (*)(X_STRING* a, X_STRING* r);
using xfplain_t = int (*)(double* r, FNCPAR* p, double* r2, double x);

void fillattr(int index, FNCSTR* attr) {
    const FNCTBL_ENT& e = fnc_table[index];
    attr->fpack = 0;
    attr->fnum = static_cast<short>(index);
    attr->fmin = static_cast<short>(e.min);
    attr->fmax = static_cast<short>(e.max);
    attr->fprod = 0;
    attr->fdesc = e.fdesc;
    attr->fargi = e.fargi;
}

// The row of a function code, or -1.
int codeindex(long code) {
    if (((code >> 16) & 0x7ff0) != 0x2000) return -1;
    long n = code & 0xffff;
    return n >= 1 && n <= FNC_NROWS ? static_cast<int>(n - 1) : -1;
}

// The argument-kind group of argument i (from 1) under the WHERE rule.
int argigroup(long fargi, int i) {
    for (int k = 1; k < i && fargi > 7; k++) fargi /= 8;
    return static_cast<int>(fargi & 7);
}

rctype refuse(const FNCTBL_ENT& e, rctype rc) {
    xrmksub(1, e.name, vzstrip(e.name, 8));
    return rc;
}

// Counts and kinds that the entries rely on, so that a malformed block
// cannot make one read past what it was given. An argument that is one kind
// only (group 1 or 2, or 5 for an internal number) must be that kind.
rctype checkcall(const FNCTBL_ENT& e, const FNCPAR* p, const void* r) {
    if (!p || !r) return XF_RC_BADCALL;
    long n = xfnargs(p);
    if (n < 0 || n > 32767) return XF_RC_BADCALL;
    if (n < e.min) return refuse(e, XF_RC_FEWARGS);
    if (e.max && n > e.max) return refuse(e, XF_RC_MANYARGS);
    long fargi = e.fargi;
    for (long i = 1; i <= n; i++) {
        const FNCARG& a = p->par[i];
        if (!a.loc.p || (a.type != XF_NUM && a.type != XF_STR)) return XF_RC_BADCALL;
        int g = static_cast<int>(fargi & 3);
        if (g == 1 && a.type != XF_NUM) return refuse(e, XF_RC_WANTNUM);
        if (g == 2 && a.type != XF_STR) return refuse(e, XF_RC_WANTSTR);
        if (a.type == XF_STR && (a.loc.xs->curlen > 0 && !a.loc.xs->data)) return XF_RC_BADCALL;
        if (fargi > 7) fargi /= 8;
    }
    // LAG answers in the kind of its argument, so its result may be a number.
    if ((e.fdesc & XF_D_STRING) && e.result[0] != 'b') {
        const X_STRING* xs = static_cast<const X_STRING*>(r);
        if (xs->maxlen < 0 || (xs->maxlen > 0 && !xs->data)) return XF_RC_BADCALL;
    }
    return 0;
}

}  // namespace

rctype find_fnc(const char* name, int len, int /*kind*/, FNCSTR* attr, long* code) {
    if (!name || len >= 9) {
        int index = codeindex(*code);
        if (index < 0) return 1;
        if (attr) fillattr(index, attr);
        return 0;
    }
    if (len < 0) return 1;
    char key[8];
    memset(key, ' ', sizeof key);
    memcpy(key, name, static_cast<size_t>(len));
    vzMP(key, 8);
    for (int i = 0; i < FNC_NROWS; i++) {
        if (fnc_table[i].name[0] == ' ') break;
        if (memcmp(fnc_table[i].name, key, 8) == 0) {
            if (attr) fillattr(i, attr);
            *code = (i + 1) | XF_CODE_FUNC;
            return 0;
        }
    }
    return 1;
}

rctype xfname(const char* fmtnamex, int fmtlen, int fmttype, void* fattrptr, long* fmtcode) {
    switch (fmttype) {
    case 'F':
    case 'I':
        if (fmtfind(fmtnamex, fmtlen, static_cast<char>(fmttype), static_cast<FMTSTR*>(fattrptr), fmtcode) == 0)
            return 0;
        return fmtuser(fmtnamex, fmtlen, static_cast<char>(fmttype), static_cast<FMTSTR*>(fattrptr), fmtcode);
    case 'U':
    case 'B':
        return find_fnc(fmtnamex, fmtlen, fmttype, static_cast<FNCSTR*>(fattrptr), fmtcode);
    default:
        return 1;
    }
}

rctype xfchkargi(long fargi, int nargs, const char* types, int* badarg) {
    for (int i = 1; i <= nargs; i++) {
        int g = argigroup(fargi, i);
        rctype rc = 0;
        if ((g & 1) && types[i - 1] != XF_NUM) rc = XF_RC_WANTNUM;
        else if ((g & 2) && types[i - 1] != XF_STR) rc = XF_RC_WANTSTR;
        if (rc) {
            if (badarg) *badarg = i;
            return rc;
        }
    }
    return 0;
}

int xfxfn(long fmtcode, FNCPAR* p, void* r) {
    int index = fmtcode ? codeindex(fmtcode) : -1;
    if (index < 0 || !fnc_table[index].entpt) return -1;
    const FNCTBL_ENT& e = fnc_table[index];
    if (rctype rc = checkcall(e, p, r)) return rc;
    if (e.fdesc & XF_D_STRING) {
        X_STRING* rs = static_cast<X_STRING*>(r);
        if (e.fdesc & XF_D_FIRSTARG) return reinterpret_cast<xfstr1_t>(e.entpt)(p->par[1].loc.xs, rs);
        return reinterpret_cast<xfgen_t>(e.entpt)(p, r);
    }
    if (e.fdesc & XF_D_PLAIN) {
        double* rd = static_cast<double*>(r);
        return reinterpret_cast<xfplain_t>(e.entpt)(rd, p, rd, *p->par[1].loc.dp);
    }
    return reinterpret_cast<xfgen_t>(e.entpt)(p, r);
}

void* xfinit() {
    XFGCB* g = static_cast<XFGCB*>(calloc(1, sizeof(XFGCB)));
    if (!g) return nullptr;
    memcpy(g->eye, "XFGB", 4);
    return g;
}

void xfterm(void* gcb) {
    free(gcb);
}

}  // namespace vrta

// What the function entries share: reading arguments from the block and
// writing results, and the entries that fnc_table points at.
#pragma once
#include <cmath>
#include <cstring>
#include "sfnc/xf.h"
#include "ssubs/vz.h"

namespace vrta {

inline long xfnargs(const FNCPAR* p) { return p->par[0].loc.n; }
inline bool xfisnum(const FNCPAR* p, int i) { return p->par[i].type == XF_NUM; }
inline double xfnum(const FNCPAR* p, int i) { return *p->par[i].loc.dp; }
inline const X_STRING* xfstr(const FNCPAR* p, int i) { return p->par[i].loc.xs; }
// The bytes of a string argument that may be read.
inline int xfslen(const X_STRING* s) {
    int n = s->curlen < s->maxlen ? s->curlen : s->maxlen;
    return n > 0 && s->data ? n : 0;
}
// A failed computation gives the standard missing value.
inline double xffin(double v) { return std::isfinite(v) ? v : VZ_MISSING; }
inline int xfret(void* r, double v) {
    *static_cast<double*>(r) = xffin(v);
    return 0;
}
// Copies len bytes into the result, cut at its room.
int xfsetstr(X_STRING* r, const char* s, long len);
// Sets the result to len bytes of c (cut at its room).
int xffillstr(X_STRING* r, char c, long len);

// Numbers of the arguments from..n that are not missing, in order; returns
// their count (buf must hold n values).
int xfvalues(const FNCPAR* p, int from, double* buf);

// One number in, one out: a missing argument gives the standard missing
// value, and so does a result that is not finite.
#define XF_PLAIN(name, expr)                                        \
    int name(double* r, FNCPAR*, double*, double x) {               \
        *r = vzismiss(x) ? VZ_MISSING : xffin(expr);                \
        return 0;                                                   \
    }

// One number in, one out (fdesc 0x0800).
int fncabs(double* r, FNCPAR* p, double* r2, double x);
int fncarcos(double* r, FNCPAR* p, double* r2, double x);
int fncarsin(double* r, FNCPAR* p, double* r2, double x);
int fncatan(double* r, FNCPAR* p, double* r2, double x);
int fncbnot(double* r, FNCPAR* p, double* r2, double x);
int fncceil(double* r, FNCPAR* p, double* r2, double x);
int fnccos(double* r, FNCPAR* p, double* r2, double x);
int fnccosh(double* r, FNCPAR* p, double* r2, double x);
int fncdatejul(double* r, FNCPAR* p, double* r2, double x);
int fncdatepart(double* r, FNCPAR* p, double* r2, double x);
int fncday(double* r, FNCPAR* p, double* r2, double x);
int fncdigamma(double* r, FNCPAR* p, double* r2, double x);
int fncerf(double* r, FNCPAR* p, double* r2, double x);
int fncerfc(double* r, FNCPAR* p, double* r2, double x);
int fncexp(double* r, FNCPAR* p, double* r2, double x);
int fncfloor(double* r, FNCPAR* p, double* r2, double x);
int fncfuzz(double* r, FNCPAR* p, double* r2, double x);
int fncgamma(double* r, FNCPAR* p, double* r2, double x);
int fnchour(double* r, FNCPAR* p, double* r2, double x);
int fncint(double* r, FNCPAR* p, double* r2, double x);
int fnclgamma(double* r, FNCPAR* p, double* r2, double x);
int fnclog(double* r, FNCPAR* p, double* r2, double x);
int fnclog10(double* r, FNCPAR* p, double* r2, double x);
int fnclog2(double* r, FNCPAR* p, double* r2, double x);
int fncminute(double* r, FNCPAR* p, double* r2, double x);
int fncmonth(double* r, FNCPAR* p, double* r2, double x);
int fncprobit(double* r, FNCPAR* p, double* r2, double x);
int fncprobnorm(double* r, FNCPAR* p, double* r2, double x);
int fncqtr(double* r, FNCPAR* p, double* r2, double x);
int fncrecip(double* r, FNCPAR* p, double* r2, double x);
int fncsecond(double* r, FNCPAR* p, double* r2, double x);
int fncsign(double* r, FNCPAR* p, double* r2, double x);
int fncsin(double* r, FNCPAR* p, double* r2, double x);
int fncsinh(double* r, FNCPAR* p, double* r2, double x);
int fncsqrt(double* r, FNCPAR* p, double* r2, double x);
int fnctan(double* r, FNCPAR* p, double* r2, double x);
int fnctanh(double* r, FNCPAR* p, double* r2, double x);
int fnctimepart(double* r, FNCPAR* p, double* r2, double x);
int fnctrigamma(double* r, FNCPAR* p, double* r2, double x);
int fncweekday(double* r, FNCPAR* p, double* r2, double x);
int fncyear(double* r, FNCPAR* p, double* r2, double x);
// The first argument in, a string out (fdesc 0x1002).
int fnccompbl(X_STRING* a, X_STRING* r);
int fncdequote(X_STRING* a, X_STRING* r);
int fncquote(X_STRING* a, X_STRING* r);
int fncreverse(X_STRING* a, X_STRING* r);
int fncstrip(X_STRING* a, X_STRING* r);
int fnctrim(X_STRING* a, X_STRING* r);
// The block in; r is a double or an X_STRING.
int fncaddr(FNCPAR* p, void* r);
int fncband(FNCPAR* p, void* r);
int fncbetainv(FNCPAR* p, void* r);
int fncblshift(FNCPAR* p, void* r);
int fncbor(FNCPAR* p, void* r);
int fncbrshift(FNCPAR* p, void* r);
int fncbxor(FNCPAR* p, void* r);
int fncbyte(FNCPAR* p, void* r);
int fnccinv(FNCPAR* p, void* r);
int fnccollate(FNCPAR* p, void* r);
int fnccompound(FNCPAR* p, void* r);
int fnccompress(FNCPAR* p, void* r);
int fnccss(FNCPAR* p, void* r);
int fnccv(FNCPAR* p, void* r);
int fncdaccdb(FNCPAR* p, void* r);
int fncdaccdbsl(FNCPAR* p, void* r);
int fncdaccsl(FNCPAR* p, void* r);
int fncdaccsyd(FNCPAR* p, void* r);
int fncdacctab(FNCPAR* p, void* r);
int fncdate(FNCPAR* p, void* r);
int fncdatetime(FNCPAR* p, void* r);
int fncdcss(FNCPAR* p, void* r);
int fncdepdb(FNCPAR* p, void* r);
int fncdepdbsl(FNCPAR* p, void* r);
int fncdepsl(FNCPAR* p, void* r);
int fncdepsyd(FNCPAR* p, void* r);
int fncdeptab(FNCPAR* p, void* r);
int fncdhms(FNCPAR* p, void* r);
int fncdif(FNCPAR* p, void* r);
int fncdim(FNCPAR* p, void* r);
int fncdmax(FNCPAR* p, void* r);
int fncdmean(FNCPAR* p, void* r);
int fncdmin(FNCPAR* p, void* r);
int fncdrange(FNCPAR* p, void* r);
int fncdstd(FNCPAR* p, void* r);
int fncdstderr(FNCPAR* p, void* r);
int fncdsum(FNCPAR* p, void* r);
int fncduss(FNCPAR* p, void* r);
int fncdvar(FNCPAR* p, void* r);
int fncfinv(FNCPAR* p, void* r);
int fncfipname(FNCPAR* p, void* r);
int fncfipnamel(FNCPAR* p, void* r);
int fncfipstate(FNCPAR* p, void* r);
int fncfnonmiss(FNCPAR* p, void* r);
int fncgaminv(FNCPAR* p, void* r);
int fnchbound(FNCPAR* p, void* r);
int fnchms(FNCPAR* p, void* r);
int fncindex(FNCPAR* p, void* r);
int fncintck(FNCPAR* p, void* r);
int fncintnx(FNCPAR* p, void* r);
int fncintrr(FNCPAR* p, void* r);
int fncirr(FNCPAR* p, void* r);
int fncispexec(FNCPAR* p, void* r);
int fncispexecx(FNCPAR* p, void* r);
int fncisplink(FNCPAR* p, void* r);
int fncisplinkx(FNCPAR* p, void* r);
int fnckurtosis(FNCPAR* p, void* r);
int fnclabelx(FNCPAR* p, void* r);
int fnclag(FNCPAR* p, void* r);
int fnclbound(FNCPAR* p, void* r);
int fncleft(FNCPAR* p, void* r);
int fnclength(FNCPAR* p, void* r);
int fnclowcase(FNCPAR* p, void* r);
int fncmax(FNCPAR* p, void* r);
int fncmdy(FNCPAR* p, void* r);
int fncmean(FNCPAR* p, void* r);
int fncmin(FNCPAR* p, void* r);
int fncmod(FNCPAR* p, void* r);
int fncmort(FNCPAR* p, void* r);
int fncn(FNCPAR* p, void* r);
int fncnetpv(FNCPAR* p, void* r);
int fncnmiss(FNCPAR* p, void* r);
int fncnpv(FNCPAR* p, void* r);
int fncordinal(FNCPAR* p, void* r);
int fncpoisson(FNCPAR* p, void* r);
int fncprobbeta(FNCPAR* p, void* r);
int fncprobbnml(FNCPAR* p, void* r);
int fncprobchi(FNCPAR* p, void* r);
int fncprobf(FNCPAR* p, void* r);
int fncprobgam(FNCPAR* p, void* r);
int fncprobhypr(FNCPAR* p, void* r);
int fncprobnegb(FNCPAR* p, void* r);
int fncprobt(FNCPAR* p, void* r);
int fncrange(FNCPAR* p, void* r);
int fncrank(FNCPAR* p, void* r);
int fncranuni(FNCPAR* p, void* r);
int fncranunix(FNCPAR* p, void* r);
int fncrepeat(FNCPAR* p, void* r);
int fncright(FNCPAR* p, void* r);
int fncround(FNCPAR* p, void* r);
int fncsaving(FNCPAR* p, void* r);
int fncskewness(FNCPAR* p, void* r);
int fncstd(FNCPAR* p, void* r);
int fncstderr(FNCPAR* p, void* r);
int fncstfips(FNCPAR* p, void* r);
int fncstname(FNCPAR* p, void* r);
int fncstnamel(FNCPAR* p, void* r);
int fncsubstr(FNCPAR* p, void* r);
int fncsubstrn(FNCPAR* p, void* r);
int fncsum(FNCPAR* p, void* r);
int fnctime(FNCPAR* p, void* r);
int fnctinv(FNCPAR* p, void* r);
int fnctoday(FNCPAR* p, void* r);
int fnctranwrd(FNCPAR* p, void* r);
int fncupcase(FNCPAR* p, void* r);
int fncuss(FNCPAR* p, void* r);
int fncvar(FNCPAR* p, void* r);
int fncvnamex(FNCPAR* p, void* r);
int fnczipfips(FNCPAR* p, void* r);
int fnczipname(FNCPAR* p, void* r);
int fnczipnamel(FNCPAR* p, void* r);
int fnczipstate(FNCPAR* p, void* r);
}  // namespace vrta

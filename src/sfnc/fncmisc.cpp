// Functions that keep state between calls (RANUNI, LAG, DIF), work on a
// variable rather than a value (DIM, HBOUND, LBOUND, VNAME$, LABEL$), or
// stand for services of an interactive host (ISPEXEC, ISPLINK).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/time.h>

#include "sfnc/xfint.h"

namespace vrta {

namespace {

// fflags of a block whose state holds a malloc'ed LAG queue. A block serves
// one call site, so this never meets the -1 or 1 of RANUNI: the flag is
// compared whole.
constexpr int XF_FS_QUEUE = 0x100;

// The uniform generator: x <- 397204094 x mod (2^31 - 1), giving x / (2^31 - 1).
constexpr long kModulus = 2147483647L;

long clockseed() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    long s = (static_cast<long>(tv.tv_sec) * 1000003L + tv.tv_usec) % kModulus;
    return s > 0 ? s : 1;
}

// The seed a stream starts from: a positive seed as given (reduced into the
// generator's range), otherwise the clock.
long startseed(double seed, bool* fromclock) {
    *fromclock = seed <= 0;
    if (*fromclock) return clockseed();
    long s = static_cast<long>(std::fmod(std::floor(seed), static_cast<double>(kModulus)));
    return s > 0 ? s : 1;
}

double nextuniform(long* state) {
    *state = static_cast<long>((static_cast<int64_t>(*state) * 397204094LL) % kModulus);
    return static_cast<double>(*state) / kModulus;
}

// A ring of the last `depth` values given to one LAG or DIF call site.
struct LagQ {
    int depth;
    int slot;      // bytes of room per value
    int filled;
    int head;      // the oldest value
    // then depth entries of: short length, slot bytes
};

char* entry(LagQ* q, int i) {
    return reinterpret_cast<char*>(q + 1) + static_cast<size_t>(i) * (sizeof(short) + static_cast<size_t>(q->slot));
}

LagQ* queue(FNCPAR* p, int depth, int slot) {
    if (p->fstate.fflags == XF_FS_QUEUE) {
        LagQ* q = static_cast<LagQ*>(p->fstate.u.p);
        if (q->depth == depth && q->slot >= slot) return q;
        xfpfree(p);
    }
    size_t bytes = sizeof(LagQ) + static_cast<size_t>(depth) * (sizeof(short) + static_cast<size_t>(slot));
    LagQ* q = static_cast<LagQ*>(calloc(1, bytes));
    if (!q) return nullptr;
    q->depth = depth;
    q->slot = slot;
    p->fstate.u.p = q;
    p->fstate.fflags = XF_FS_QUEUE;
    return q;
}

// Hands back the value given `depth` calls ago (none yet: *had false), and
// keeps this call's value in its place.
rctype lag(FNCPAR* p, const char* val, int len, int slot, char* out, int* outlen, bool* had) {
    double d = xfnum(p, 1);
    if (!xfisnum(p, 1) || vzismiss(d) || d < 1 || d > 100 || d != std::floor(d)) return XF_RC_BADCALL;
    LagQ* q = queue(p, static_cast<int>(d), slot);
    if (!q) return XF_RC_NOMEM;
    len = std::min(len, q->slot);
    *had = q->filled == q->depth;
    int at = *had ? q->head : (q->head + q->filled) % q->depth;
    char* e = entry(q, at);
    if (*had) {
        short n;
        memcpy(&n, e, sizeof n);
        memcpy(out, e + sizeof n, static_cast<size_t>(n));
        *outlen = n;
        q->head = (q->head + 1) % q->depth;
    } else {
        q->filled++;
    }
    short n = static_cast<short>(len);
    memcpy(e, &n, sizeof n);
    memcpy(e + sizeof n, val, static_cast<size_t>(len));
    return 0;
}

// The bounds vector of an array argument: its dimension count, then a low
// and a high bound for each.
bool bounds(const FNCPAR* p, double* lo, double* hi) {
    const FNCARG& a = p->par[1];
    if (a.type != XF_NUM || !(a.flags & XF_ARG_BOUNDS)) return false;
    const double* b = a.loc.dp;
    double dim = xfnargs(p) >= 2 ? xfnum(p, 2) : 1;
    if (vzismiss(dim) || dim < 1 || dim > b[0] || dim != std::floor(dim)) return false;
    *lo = b[2 * static_cast<int>(dim) - 1];
    *hi = b[2 * static_cast<int>(dim)];
    return true;
}

// The dialog services of an interactive host are not part of the engine:
// their calls answer the services' own "severe error" code.
constexpr double kNoDialog = 20;

// VNAME$ and LABEL$ write into their second argument what the caller knows
// of the variable, given as the first: its name or label. A number there
// carries neither, and gives a blank.
int describe(FNCPAR* p, void* r) {
    X_STRING* out = p->par[2].loc.xs;
    if (xfisnum(p, 1)) xffillstr(out, ' ', 1);
    else xfsetstr(out, xfstr(p, 1)->data, xfslen(xfstr(p, 1)));
    return xfret(r, 0);
}

}  // namespace

void xfpfree(FNCPAR* p) {
    if (p && p->fstate.fflags == XF_FS_QUEUE) {
        free(p->fstate.u.p);
        p->fstate.u.p = nullptr;
        p->fstate.fflags = 0;
    }
}

// RANUNI(seed): the seed counts only at the first call through a block;
// later calls go on with the stream. fflags is 1 for a given seed and -1
// for a stream started from the clock.
int fncranuni(FNCPAR* p, void* r) {
    if (p->fstate.fflags == 0) {
        double seed = xfnum(p, 1);
        if (vzismiss(seed) || seed >= kModulus) return xfret(r, NAN);
        bool fromclock;
        p->fstate.u.seed = startseed(seed, &fromclock);
        p->fstate.fflags = fromclock ? -1 : 1;
    }
    return xfret(r, nextuniform(&p->fstate.u.seed));
}

// RANUNI$(state, seed): the same stream kept by the caller in the first
// argument, which is 0 before the first call.
int fncranunix(FNCPAR* p, void* r) {
    double* state = p->par[1].loc.dp;
    double seed = xfnum(p, 2);
    long s;
    if (vzismiss(*state) || *state <= 0 || *state >= kModulus) {
        if (vzismiss(seed) || seed >= kModulus) return xfret(r, NAN);
        bool fromclock;
        s = startseed(seed, &fromclock);
    } else {
        s = static_cast<long>(*state);
    }
    double u = nextuniform(&s);
    *state = static_cast<double>(s);
    return xfret(r, u);
}

// LAG(n, x): the value of x n calls ago through this block (missing, or
// blank, for the first n calls).
int fnclag(FNCPAR* p, void* r) {
    bool had = false;
    if (xfisnum(p, 2)) {
        double v = xfnum(p, 2), out = VZ_MISSING;
        int outlen = 0;
        rctype rc = lag(p, reinterpret_cast<const char*>(&v), 8, 8, reinterpret_cast<char*>(&out), &outlen, &had);
        if (rc) return rc;
        *static_cast<double*>(r) = had ? out : VZ_MISSING;
        return 0;
    }
    const X_STRING* s = xfstr(p, 2);
    X_STRING* rs = static_cast<X_STRING*>(r);
    int room = std::max<short>(rs->maxlen, 0);
    std::string out(static_cast<size_t>(room), ' ');
    int outlen = 0;
    rctype rc = lag(p, s->data, xfslen(s), std::max(room, 1), out.data(), &outlen, &had);
    if (rc) return rc;
    return had ? xfsetstr(rs, out.data(), std::min(outlen, room)) : xffillstr(rs, ' ', 1);
}

// DIF(n, x): x less its value n calls ago.
int fncdif(FNCPAR* p, void* r) {
    bool had = false;
    double v = xfnum(p, 2), old = VZ_MISSING;
    int outlen = 0;
    rctype rc = lag(p, reinterpret_cast<const char*>(&v), 8, 8, reinterpret_cast<char*>(&old), &outlen, &had);
    if (rc) return rc;
    return xfret(r, had && !vzismiss(old) && !vzismiss(v) ? v - old : VZ_MISSING);
}

int fncdim(FNCPAR* p, void* r) {
    double lo, hi;
    return xfret(r, bounds(p, &lo, &hi) ? hi - lo + 1 : NAN);
}

int fnchbound(FNCPAR* p, void* r) {
    double lo, hi;
    return xfret(r, bounds(p, &lo, &hi) ? hi : NAN);
}

int fnclbound(FNCPAR* p, void* r) {
    double lo, hi;
    return xfret(r, bounds(p, &lo, &hi) ? lo : NAN);
}

int fncispexec(FNCPAR*, void* r) { return xfret(r, kNoDialog); }
int fncispexecx(FNCPAR*, void* r) { return xfret(r, kNoDialog); }
int fncisplink(FNCPAR*, void* r) { return xfret(r, kNoDialog); }
int fncisplinkx(FNCPAR*, void* r) { return xfret(r, kNoDialog); }

int fncvnamex(FNCPAR* p, void* r) { return describe(p, r); }
int fnclabelx(FNCPAR* p, void* r) { return describe(p, r); }

}  // namespace vrta

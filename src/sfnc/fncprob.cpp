// Distribution functions, their inverses and the discrete probabilities.
// An argument outside a function's domain gives the missing value.
#include <algorithm>
#include <limits>

#include "sfnc/xfint.h"
#include "sfnc/xfmath.h"

namespace vrta {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// The arguments as numbers, absent optional ones as `dflt`; false when any
// given one is missing.
template <int N>
bool args(const FNCPAR* p, double (&a)[N], double dflt = 0) {
    for (int i = 0; i < N; i++) {
        a[i] = i < xfnargs(p) ? xfnum(p, i + 1) : dflt;
        if (vzismiss(a[i])) return false;
    }
    return true;
}

bool isint(double x) { return x == std::floor(x); }

double chi2(double x, const double* a) { return xfm::chi2cdf(x, a[0], a[1]); }
double fdist(double x, const double* a) { return xfm::fcdf(x, a[0], a[1], a[2]); }
double tdist(double x, const double* a) { return xfm::tcdf(x, a[0], a[1]); }
double gam(double x, const double* a) { return xfm::gammp(a[0], x); }
double beta(double x, const double* a) { return xfm::betai(a[0], a[1], x); }

// log of n choose k.
double lchoose(double n, double k) { return xfm::lgam(n + 1) - xfm::lgam(k + 1) - xfm::lgam(n - k + 1); }

// P(X <= x) of the hypergeometric law (population n, m marked, sample k),
// weighted by the odds ratio or: the extended law. Terms are summed from
// the largest outwards until they no longer count.
double hypergeom(double n, double m, double k, double x, double odds) {
    double lo = std::max(0.0, k + m - n), hi = std::min(k, m);
    if (x < lo) return 0;
    if (x >= hi) return 1;
    auto lw = [&](double i) { return lchoose(m, i) + lchoose(n - m, k - i) + i * std::log(odds); };
    // The mode: the largest weight, found by walking up the support while
    // the ratio of neighbours is above 1.
    double mode = lo;
    {
        double a = lo, b = hi;
        while (b - a > 1) {
            double mid = std::floor((a + b) / 2);
            if (lw(mid + 1) > lw(mid)) a = mid;
            else b = mid;
        }
        mode = lw(b) > lw(a) ? b : a;
    }
    double top = lw(mode), total = 0, below = 0;
    for (double i = mode; i >= lo; i--) {
        double w = std::exp(lw(i) - top);
        total += w;
        if (i <= x) below += w;
        if (w < 1e-18 * total) break;
    }
    for (double i = mode + 1; i <= hi; i++) {
        double w = std::exp(lw(i) - top);
        total += w;
        if (i <= x) below += w;
        if (w < 1e-18 * total) break;
    }
    return std::clamp(below / total, 0.0, 1.0);
}

}  // namespace

XF_PLAIN(fncprobnorm, xfm::ndtr(x))
XF_PLAIN(fncprobit, xfm::ndtri(x))

int fncprobbeta(FNCPAR* p, void* r) {
    double a[3];
    return xfret(r, args(p, a) ? xfm::betai(a[1], a[2], a[0]) : NAN);
}

int fncprobgam(FNCPAR* p, void* r) {
    double a[2];
    return xfret(r, args(p, a) ? xfm::gammp(a[1], a[0]) : NAN);
}

int fncprobchi(FNCPAR* p, void* r) {
    double a[3];
    return xfret(r, args(p, a) ? xfm::chi2cdf(a[0], a[1], a[2]) : NAN);
}

int fncprobf(FNCPAR* p, void* r) {
    double a[4];
    return xfret(r, args(p, a) ? xfm::fcdf(a[0], a[1], a[2], a[3]) : NAN);
}

int fncprobt(FNCPAR* p, void* r) {
    double a[3];
    return xfret(r, args(p, a) ? xfm::tcdf(a[0], a[1], a[2]) : NAN);
}

// P(X <= m) for X binomial with n trials of probability p.
int fncprobbnml(FNCPAR* p, void* r) {
    double a[3];
    if (!args(p, a)) return xfret(r, NAN);
    double pr = a[0], n = a[1], m = a[2];
    if (pr < 0 || pr > 1 || n < 1 || !isint(n) || m < 0 || m > n || !isint(m)) return xfret(r, NAN);
    if (m == n || pr == 0) return xfret(r, 1);
    if (pr == 1) return xfret(r, 0);
    return xfret(r, xfm::betai(n - m, m + 1, 1 - pr));
}

// P(X <= m) for X the failures before the n-th success of probability p.
int fncprobnegb(FNCPAR* p, void* r) {
    double a[3];
    if (!args(p, a)) return xfret(r, NAN);
    double pr = a[0], n = a[1], m = a[2];
    if (pr < 0 || pr > 1 || n < 1 || !isint(n) || m < 0 || !isint(m)) return xfret(r, NAN);
    if (pr == 1) return xfret(r, 1);
    if (pr == 0) return xfret(r, 0);
    return xfret(r, xfm::betai(n, m + 1, pr));
}

// P(X <= n) for X Poisson of mean m.
int fncpoisson(FNCPAR* p, void* r) {
    double a[2];
    if (!args(p, a)) return xfret(r, NAN);
    double m = a[0], n = a[1];
    if (m < 0 || n < 0) return xfret(r, NAN);
    if (m == 0) return xfret(r, 1);
    return xfret(r, xfm::gammq(std::floor(n) + 1, m));
}

// PROBHYPR(N, K, n, x [, odds]).
int fncprobhypr(FNCPAR* p, void* r) {
    double a[5];
    if (!args(p, a, 1.0)) return xfret(r, NAN);
    double n = a[0], m = a[1], k = a[2], x = a[3], odds = a[4];
    if (n < 1 || !isint(n) || m < 0 || m > n || !isint(m) || k < 0 || k > n || !isint(k) || !isint(x) ||
        x < std::max(0.0, k + m - n) || x > std::min(k, m) || odds <= 0)
        return xfret(r, NAN);
    return xfret(r, hypergeom(n, m, k, x, odds));
}

int fncbetainv(FNCPAR* p, void* r) {
    double a[3];
    if (!args(p, a) || a[0] < 0 || a[0] > 1 || a[1] <= 0 || a[2] <= 0) return xfret(r, NAN);
    if (a[0] == 0 || a[0] == 1) return xfret(r, a[0]);
    return xfret(r, xfm::invert(beta, a + 1, a[0], 0, 1, a[1] / (a[1] + a[2])));
}

int fncgaminv(FNCPAR* p, void* r) {
    double a[2];
    if (!args(p, a) || a[0] < 0 || a[0] >= 1 || a[1] <= 0) return xfret(r, NAN);
    if (a[0] == 0) return xfret(r, 0);
    return xfret(r, xfm::invert(gam, a + 1, a[0], 0, kInf, a[1]));
}

int fnccinv(FNCPAR* p, void* r) {
    double a[3];
    if (!args(p, a) || a[0] < 0 || a[0] >= 1 || a[1] <= 0 || a[2] < 0) return xfret(r, NAN);
    if (a[0] == 0) return xfret(r, 0);
    return xfret(r, xfm::invert(chi2, a + 1, a[0], 0, kInf, a[1] + a[2]));
}

int fncfinv(FNCPAR* p, void* r) {
    double a[4];
    if (!args(p, a) || a[0] < 0 || a[0] >= 1 || a[1] <= 0 || a[2] <= 0 || a[3] < 0) return xfret(r, NAN);
    if (a[0] == 0) return xfret(r, 0);
    return xfret(r, xfm::invert(fdist, a + 1, a[0], 0, kInf, 1));
}

int fnctinv(FNCPAR* p, void* r) {
    double a[3];
    if (!args(p, a) || a[0] <= 0 || a[0] >= 1 || a[1] <= 0) return xfret(r, NAN);
    return xfret(r, xfm::invert(tdist, a + 1, a[0], -kInf, kInf, a[2]));
}

}  // namespace vrta

// Financial functions: compound interest, mortgages, savings, present value
// and internal rate of return; and depreciation schedules.
#include <algorithm>
#include <vector>

#include "sfnc/xfint.h"
#include "sfnc/xfmath.h"

namespace vrta {

namespace {

// COMPOUND, MORT and SAVING each relate four values, of which exactly one
// is missing: the one to compute. Returns its index, or -1.
int unknown(const FNCPAR* p, double (&v)[4]) {
    int miss = -1;
    for (int i = 0; i < 4; i++) {
        v[i] = xfnum(p, i + 1);
        if (vzismiss(v[i])) {
            if (miss >= 0) return -1;
            miss = i;
        }
    }
    return miss;
}

// The rate that makes fn(rate, v) equal to target, fn increasing in the rate.
double solverate(double (*fn)(double, const double*), const double* v, double target) {
    struct Ctx {
        double (*fn)(double, const double*);
        const double* v;
        double target;
    } c{fn, v, target};
    auto g = [](double r, const void* ctx) {
        const Ctx* k = static_cast<const Ctx*>(ctx);
        return k->fn(r, k->v) - k->target;
    };
    double hi = 1;
    for (int i = 0; i < 60 && g(hi, &c) < 0; i++) hi *= 2;
    return xfm::zero(g, &c, -1 + 1e-12, hi);
}

// Payment of a loan a over n periods at rate r.
double payment(double r, const double* v) {
    double a = v[0], n = v[3];
    if (std::fabs(r) < 1e-12) return a / n;
    double g = std::pow(1 + r, n);
    return a * r * g / (g - 1);
}

// What deposits p at the start of each of n periods are worth at the end.
double saved(double r, const double* v) {
    double pmt = v[1], n = v[3];
    if (std::fabs(r) < 1e-12) return pmt * n;
    return pmt * (1 + r) * (std::pow(1 + r, n) - 1) / r;
}

// Present value at discount factor x of the cash flows from argument
// `first` on; a missing flow counts as nothing.
double presentvalue(const FNCPAR* p, int first, double x) {
    double s = 0, f = 1;
    for (long i = first; i <= xfnargs(p); i++, f *= x) {
        double c = xfnum(p, static_cast<int>(i));
        if (!vzismiss(c)) s += c * f;
    }
    return s;
}

// The discount factor of one payment period: freq payments in the period
// the rate is given for, or continuous compounding when freq is 0.
double discount(double rate, double freq) {
    if (rate <= -1 || freq < 0) return NAN;
    return freq == 0 ? std::exp(-rate) : std::pow(1 + rate, -1 / freq);
}

int netpv(FNCPAR* p, void* r, double scale) {
    double rate = xfnum(p, 1), freq = xfnum(p, 2);
    if (vzismiss(rate) || vzismiss(freq)) return xfret(r, NAN);
    double x = discount(rate / scale, freq);
    return xfret(r, std::isnan(x) ? x : presentvalue(p, 3, x));
}

// The internal rate: the discount factor nearest 1 (a rate nearest 0) at
// which the present value of the flows changes sign.
int intrr(FNCPAR* p, void* r, double scale) {
    double freq = xfnum(p, 1);
    if (vzismiss(freq) || freq < 0) return xfret(r, NAN);
    auto pv = [](double x, const void* ctx) { return presentvalue(static_cast<const FNCPAR*>(ctx), 2, x); };
    double x = NAN;
    if (pv(1, p) == 0) x = 1;
    for (double up = 1, down = 1; std::isnan(x) && up < 1e6; up *= 1.05, down /= 1.05) {
        if ((pv(up, p) > 0) != (pv(up * 1.05, p) > 0)) x = xfm::zero(pv, p, up, up * 1.05);
        else if ((pv(down, p) > 0) != (pv(down / 1.05, p) > 0)) x = xfm::zero(pv, p, down / 1.05, down);
    }
    if (std::isnan(x) || x <= 0) return xfret(r, NAN);
    double rate = freq == 0 ? -std::log(x) : std::pow(x, -freq) - 1;
    return xfret(r, rate * scale);
}

// A depreciation schedule: the amount of each whole year from 1, 0 after
// the end. Accumulated and yearly figures at a fractional year are
// prorated between the years around it.
struct Schedule {
    std::vector<double> amount;  // amount[k - 1] for year k
    double acc(double p) const {
        if (p <= 0) return 0;
        double s = 0;
        size_t k = 0;
        for (; k < amount.size() && k + 1 <= p; k++) s += amount[k];
        double frac = p - std::floor(p);
        if (frac > 0 && k < amount.size()) s += frac * amount[k];
        return s;
    }
    double dep(double p) const { return p <= 0 ? 0 : acc(p) - acc(p - 1); }
};

constexpr double kMaxLife = 1e6;

bool straightline(double v, double y, double l, Schedule* s) {
    if (v < 0 || y < 0 || y > v || l <= 0 || l > kMaxLife) return false;
    double whole = std::floor(l);
    for (double k = 1; k <= whole; k++) s->amount.push_back((v - y) / l);
    if (l > whole) s->amount.push_back((v - y) * (l - whole) / l);
    return true;
}

bool sumofyears(double v, double y, double l, Schedule* s) {
    if (v < 0 || y < 0 || y > v || l <= 0 || l > kMaxLife) return false;
    double total = 0;
    for (double k = 1; k < l + 1; k++) total += l - k + 1;
    for (double k = 1; k < l + 1; k++) s->amount.push_back((v - y) * (l - k + 1) / total);
    return true;
}

// Declining balance at rate r / l a year; the last year takes what is left.
bool declining(double v, double l, double r, Schedule* s) {
    if (v < 0 || l <= 0 || l > kMaxLife || r <= 0) return false;
    double rate = std::min(r / l, 1.0), book = v;
    double years = std::ceil(l);
    for (double k = 1; k <= years; k++) {
        double a = k == years ? book : book * rate;
        s->amount.push_back(a);
        book -= a;
    }
    return true;
}

// Declining balance, switching to straight line over the remaining life
// once that gives more; never below the salvage value.
bool decliningsl(double v, double y, double l, double r, Schedule* s) {
    if (v < 0 || y < 0 || y > v || l <= 0 || l > kMaxLife || r <= 0) return false;
    double rate = std::min(r / l, 1.0), book = v;
    double years = std::ceil(l);
    for (double k = 1; k <= years; k++) {
        double left = l - k + 1;
        double sl = left <= 1 ? book - y : (book - y) / left;
        double a = std::min(std::max(book * rate, sl), book - y);
        s->amount.push_back(a);
        book -= a;
    }
    return true;
}

// Yearly fractions of the value from argument 3 on.
bool table(const FNCPAR* p, double v, Schedule* s) {
    if (v < 0) return false;
    double sum = 0;
    for (long i = 3; i <= xfnargs(p); i++) {
        double t = xfnum(p, static_cast<int>(i));
        if (vzismiss(t) || t < 0) return false;
        sum += t;
        s->amount.push_back(v * t);
    }
    return sum <= 1 + 1e-12;
}

// Reads the first n numbers; false when one is missing.
bool nums(const FNCPAR* p, int n, double* a) {
    for (int i = 0; i < n; i++)
        if (vzismiss(a[i] = xfnum(p, i + 1))) return false;
    return true;
}

enum class Dep { SL, SYD, DB, DBSL, TAB };

int depreciation(FNCPAR* p, void* r, Dep kind, bool accumulated) {
    double a[5] = {};
    Schedule s;
    bool ok = false;
    switch (kind) {
    case Dep::SL: ok = nums(p, 4, a) && straightline(a[1], a[2], a[3], &s); break;
    case Dep::SYD: ok = nums(p, 4, a) && sumofyears(a[1], a[2], a[3], &s); break;
    case Dep::DB: ok = nums(p, 4, a) && declining(a[1], a[2], a[3], &s); break;
    case Dep::DBSL: ok = nums(p, 5, a) && decliningsl(a[1], a[2], a[3], a[4], &s); break;
    case Dep::TAB: ok = nums(p, 2, a) && table(p, a[1], &s); break;
    }
    if (!ok || a[0] < 0) return xfret(r, NAN);
    return xfret(r, accumulated ? s.acc(a[0]) : s.dep(a[0]));
}

}  // namespace

// COMPOUND(a, f, r, n): f = a (1 + r)^n.
int fnccompound(FNCPAR* p, void* r) {
    double v[4] = {};
    int k = unknown(p, v);
    double a = v[0], f = v[1], rate = v[2], n = v[3];
    switch (k) {
    case 0: return xfret(r, f / std::pow(1 + rate, n));
    case 1: return xfret(r, a * std::pow(1 + rate, n));
    case 2: return xfret(r, n > 0 && f / a > 0 ? std::pow(f / a, 1 / n) - 1 : NAN);
    case 3: return xfret(r, rate > -1 && rate != 0 && f / a > 0 ? std::log(f / a) / std::log1p(rate) : NAN);
    default: return xfret(r, NAN);
    }
}

// MORT(a, p, r, n): the payment p that repays a over n periods at rate r.
int fncmort(FNCPAR* p, void* r) {
    double v[4] = {};
    int k = unknown(p, v);
    double a = v[0], pmt = v[1], rate = v[2], n = v[3];
    switch (k) {
    case 0:
        if (std::fabs(rate) < 1e-12) return xfret(r, pmt * n);
        return xfret(r, pmt * (std::pow(1 + rate, n) - 1) / (rate * std::pow(1 + rate, n)));
    case 1: return xfret(r, n > 0 && rate > -1 ? payment(rate, v) : NAN);
    case 2: return xfret(r, n > 0 && a > 0 && pmt * n >= a ? solverate(payment, v, pmt) : NAN);
    case 3:
        if (std::fabs(rate) < 1e-12) return xfret(r, pmt != 0 ? a / pmt : NAN);
        return xfret(r, rate > -1 && a * rate < pmt ? -std::log1p(-a * rate / pmt) / std::log1p(rate) : NAN);
    default: return xfret(r, NAN);
    }
}

// SAVING(f, p, r, n): what deposits p at the start of each of n periods
// grow to at rate r.
int fncsaving(FNCPAR* p, void* r) {
    double v[4] = {};
    int k = unknown(p, v);
    double f = v[0], pmt = v[1], rate = v[2], n = v[3];
    switch (k) {
    case 0: return xfret(r, n >= 0 && rate > -1 ? saved(rate, v) : NAN);
    case 1:
        if (std::fabs(rate) < 1e-12) return xfret(r, n > 0 ? f / n : NAN);
        return xfret(r, f * rate / ((1 + rate) * (std::pow(1 + rate, n) - 1)));
    case 2: return xfret(r, n > 0 && pmt > 0 && f >= pmt * n ? solverate(saved, v, f) : NAN);
    case 3:
        if (std::fabs(rate) < 1e-12) return xfret(r, pmt != 0 ? f / pmt : NAN);
        return xfret(r, rate > -1 ? std::log1p(f * rate / (pmt * (1 + rate))) / std::log1p(rate) : NAN);
    default: return xfret(r, NAN);
    }
}

int fncnetpv(FNCPAR* p, void* r) { return netpv(p, r, 1); }
int fncnpv(FNCPAR* p, void* r) { return netpv(p, r, 100); }
int fncintrr(FNCPAR* p, void* r) { return intrr(p, r, 1); }
int fncirr(FNCPAR* p, void* r) { return intrr(p, r, 100); }

int fncdepsl(FNCPAR* p, void* r) { return depreciation(p, r, Dep::SL, false); }
int fncdaccsl(FNCPAR* p, void* r) { return depreciation(p, r, Dep::SL, true); }
int fncdepsyd(FNCPAR* p, void* r) { return depreciation(p, r, Dep::SYD, false); }
int fncdaccsyd(FNCPAR* p, void* r) { return depreciation(p, r, Dep::SYD, true); }
int fncdepdb(FNCPAR* p, void* r) { return depreciation(p, r, Dep::DB, false); }
int fncdaccdb(FNCPAR* p, void* r) { return depreciation(p, r, Dep::DB, true); }
int fncdepdbsl(FNCPAR* p, void* r) { return depreciation(p, r, Dep::DBSL, false); }
int fncdaccdbsl(FNCPAR* p, void* r) { return depreciation(p, r, Dep::DBSL, true); }
int fncdeptab(FNCPAR* p, void* r) { return depreciation(p, r, Dep::TAB, false); }
int fncdacctab(FNCPAR* p, void* r) { return depreciation(p, r, Dep::TAB, true); }

}  // namespace vrta

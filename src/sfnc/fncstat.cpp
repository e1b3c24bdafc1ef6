// Descriptive statistics over the arguments. Missing arguments are left out;
// a statistic that needs more values than remain is missing. The D forms
// take each distinct value once.
#include <algorithm>
#include <vector>

#include "sfnc/xfint.h"

namespace vrta {

namespace {

// The non-missing arguments from `from` on, kept on the stack for the
// usual short lists.
class Values {
public:
    Values(const FNCPAR* p, int from, bool distinct) {
        long n = xfnargs(p) - from + 1;
        if (n > kInline) heap_.resize(static_cast<size_t>(n));
        v_ = n > kInline ? heap_.data() : inline_;
        for (long i = from; i <= xfnargs(p); i++) {
            double x = xfnum(p, static_cast<int>(i));
            if (!vzismiss(x)) v_[n_++] = x;
            else nmiss_++;
        }
        if (distinct) {
            std::sort(v_, v_ + n_);
            n_ = static_cast<int>(std::unique(v_, v_ + n_) - v_);
        }
    }
    int n() const { return n_; }
    int nmiss() const { return nmiss_; }
    const double* begin() const { return v_; }
    const double* end() const { return v_ + n_; }
    double sum() const {
        double s = 0;
        for (double x : *this) s += x;
        return s;
    }
    double mean() const { return sum() / n_; }
    // Sum of (x - mean)^k.
    double central(int k) const {
        double m = mean(), s = 0;
        for (double x : *this) s += std::pow(x - m, k);
        return s;
    }
    double var() const { return central(2) / (n_ - 1); }

private:
    static constexpr int kInline = 64;
    double inline_[kInline];
    std::vector<double> heap_;
    double* v_;
    int n_ = 0;
    int nmiss_ = 0;
};

enum class Stat { Css, Cv, Kurt, Max, Mean, Min, Range, Skew, Std, Stderr, Sum, Uss, Var };

double stat(const Values& v, Stat s) {
    int n = v.n();
    if (n == 0) return VZ_MISSING;
    switch (s) {
    case Stat::Sum: return v.sum();
    case Stat::Mean: return v.mean();
    case Stat::Min: return *std::min_element(v.begin(), v.end());
    case Stat::Max: return *std::max_element(v.begin(), v.end());
    case Stat::Range: return *std::max_element(v.begin(), v.end()) - *std::min_element(v.begin(), v.end());
    case Stat::Css: return v.central(2);
    case Stat::Uss: {
        double u = 0;
        for (double x : v) u += x * x;
        return u;
    }
    case Stat::Var: return n >= 2 ? v.var() : VZ_MISSING;
    case Stat::Std: return n >= 2 ? std::sqrt(v.var()) : VZ_MISSING;
    case Stat::Stderr: return n >= 2 ? std::sqrt(v.var() / n) : VZ_MISSING;
    case Stat::Cv: {
        double m = v.mean();
        return n >= 2 && m != 0 ? 100 * std::sqrt(v.var()) / m : VZ_MISSING;
    }
    case Stat::Skew: {
        double var = n >= 3 ? v.var() : 0;
        if (var <= 0) return VZ_MISSING;
        return n * v.central(3) / ((n - 1.0) * (n - 2.0) * var * std::sqrt(var));
    }
    case Stat::Kurt: {
        double var = n >= 4 ? v.var() : 0;
        if (var <= 0) return VZ_MISSING;
        double nn = n;
        return nn * (nn + 1) * v.central(4) / ((nn - 1) * (nn - 2) * (nn - 3) * var * var) -
               3 * (nn - 1) * (nn - 1) / ((nn - 2) * (nn - 3));
    }
    }
    return VZ_MISSING;
}

int statfn(FNCPAR* p, void* r, Stat s, bool distinct) { return xfret(r, stat(Values(p, 1, distinct), s)); }

}  // namespace

int fncn(FNCPAR* p, void* r) { return xfret(r, Values(p, 1, false).n()); }
int fncnmiss(FNCPAR* p, void* r) { return xfret(r, Values(p, 1, false).nmiss()); }
int fncsum(FNCPAR* p, void* r) { return statfn(p, r, Stat::Sum, false); }
int fncmean(FNCPAR* p, void* r) { return statfn(p, r, Stat::Mean, false); }
int fncmin(FNCPAR* p, void* r) { return statfn(p, r, Stat::Min, false); }
int fncmax(FNCPAR* p, void* r) { return statfn(p, r, Stat::Max, false); }
int fncrange(FNCPAR* p, void* r) { return statfn(p, r, Stat::Range, false); }
int fnccss(FNCPAR* p, void* r) { return statfn(p, r, Stat::Css, false); }
int fncuss(FNCPAR* p, void* r) { return statfn(p, r, Stat::Uss, false); }
int fncvar(FNCPAR* p, void* r) { return statfn(p, r, Stat::Var, false); }
int fncstd(FNCPAR* p, void* r) { return statfn(p, r, Stat::Std, false); }
int fncstderr(FNCPAR* p, void* r) { return statfn(p, r, Stat::Stderr, false); }
int fnccv(FNCPAR* p, void* r) { return statfn(p, r, Stat::Cv, false); }
int fncskewness(FNCPAR* p, void* r) { return statfn(p, r, Stat::Skew, false); }
int fnckurtosis(FNCPAR* p, void* r) { return statfn(p, r, Stat::Kurt, false); }
int fncdcss(FNCPAR* p, void* r) { return statfn(p, r, Stat::Css, true); }
int fncdmax(FNCPAR* p, void* r) { return statfn(p, r, Stat::Max, true); }
int fncdmean(FNCPAR* p, void* r) { return statfn(p, r, Stat::Mean, true); }
int fncdmin(FNCPAR* p, void* r) { return statfn(p, r, Stat::Min, true); }
int fncdrange(FNCPAR* p, void* r) { return statfn(p, r, Stat::Range, true); }
int fncdstd(FNCPAR* p, void* r) { return statfn(p, r, Stat::Std, true); }
int fncdstderr(FNCPAR* p, void* r) { return statfn(p, r, Stat::Stderr, true); }
int fncdsum(FNCPAR* p, void* r) { return statfn(p, r, Stat::Sum, true); }
int fncduss(FNCPAR* p, void* r) { return statfn(p, r, Stat::Uss, true); }
int fncdvar(FNCPAR* p, void* r) { return statfn(p, r, Stat::Var, true); }

// The first argument that is not missing.
int fncfnonmiss(FNCPAR* p, void* r) {
    for (long i = 1; i <= xfnargs(p); i++)
        if (!vzismiss(xfnum(p, static_cast<int>(i)))) return xfret(r, xfnum(p, static_cast<int>(i)));
    return xfret(r, VZ_MISSING);
}

// The k-th smallest of the remaining arguments, missing values counted as
// the smallest (ordered among themselves by rank).
int fncordinal(FNCPAR* p, void* r) {
    double k = xfnum(p, 1);
    long n = xfnargs(p) - 1;
    if (vzismiss(k) || k != std::floor(k) || k < 1 || k > n) return xfret(r, VZ_MISSING);
    std::vector<double> v;
    v.reserve(static_cast<size_t>(n));
    for (long i = 2; i <= xfnargs(p); i++) v.push_back(xfnum(p, static_cast<int>(i)));
    auto less = [](double a, double b) {
        int ra = vzmrank(a), rb = vzmrank(b);
        if (ra || rb) return (ra ? ra : 1000) < (rb ? rb : 1000);
        return a < b;
    };
    auto kth = v.begin() + static_cast<long>(k) - 1;
    std::nth_element(v.begin(), kth, v.end(), less);
    *static_cast<double*>(r) = *kth;
    return 0;
}

}  // namespace vrta

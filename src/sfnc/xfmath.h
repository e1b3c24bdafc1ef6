// The numeric library behind the probability and special functions. Each
// returns NaN for an argument outside its domain; the entries turn that into
// the missing value.
#pragma once

namespace vrta::xfm {

double lgam(double x);        // log |gamma(x)|, safe in threads
double digamma(double x);
double trigamma(double x);
double gammp(double a, double x);   // regularised lower incomplete gamma P(a, x)
double gammq(double a, double x);   // 1 - P(a, x), computed directly
double betai(double a, double b, double x);  // regularised incomplete beta I_x(a, b)
double ndtr(double x);        // standard normal distribution function
double ndtri(double p);       // its inverse
double chi2cdf(double x, double df, double nc);
double fcdf(double x, double ndf, double ddf, double nc);
double tcdf(double x, double df, double nc);

// A root of g between a and b, where g(a) and g(b) differ in sign; NaN
// when they do not.
using fn_t = double (*)(double x, const void* ctx);
double zero(fn_t g, const void* ctx, double a, double b);

// Solves cdf(x, par) = p for x in [lo, hi], cdf increasing; hi may be
// +infinity and lo -infinity. guess seeds the bracket.
using cdf_t = double (*)(double x, const double* par);
double invert(cdf_t cdf, const double* par, double p, double lo, double hi, double guess);

}  // namespace vrta::xfm

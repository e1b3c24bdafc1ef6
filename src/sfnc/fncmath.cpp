// Arithmetic, rounding, trigonometric, bit and special functions.
#include <algorithm>
#include <cfloat>
#include <cstdint>

#include "sfnc/xfint.h"
#include "sfnc/xfmath.h"

namespace vrta {

namespace {

// Rounding functions take a value within 1e-12 of an integer as that
// integer, so that 0.1 * 3 * 10 is 3 and not 3.0000000000000004.
constexpr double kFuzz = 1e-12;

double fuzzed(double x, double (*round)(double)) {
    double n = std::nearbyint(x);
    return std::fabs(x - n) < kFuzz ? n : round(x);
}

double sign(double x) { return x > 0 ? 1 : x < 0 ? -1 : 0; }

// The bit functions work on unsigned 32-bit integers; anything else is a
// domain error.
bool bits(double x, uint32_t* v) {
    if (vzismiss(x) || x < 0 || x > 4294967295.0 || x != std::floor(x)) return false;
    *v = static_cast<uint32_t>(x);
    return true;
}

int setbits(void* r, bool ok, uint64_t v) { return xfret(r, ok ? static_cast<double>(v & 0xffffffffu) : VZ_MISSING); }

// A binary function of two numbers: missing in, missing out.
template <class F>
int binary(FNCPAR* p, void* r, F f) {
    double a = xfnum(p, 1), b = xfnum(p, 2);
    return xfret(r, vzismiss(a) || vzismiss(b) ? VZ_MISSING : f(a, b));
}

}  // namespace

XF_PLAIN(fncabs, std::fabs(x))
XF_PLAIN(fncarcos, std::acos(x))
XF_PLAIN(fncarsin, std::asin(x))
XF_PLAIN(fncatan, std::atan(x))
XF_PLAIN(fnccos, std::cos(x))
XF_PLAIN(fnccosh, std::cosh(x))
XF_PLAIN(fncsin, std::sin(x))
XF_PLAIN(fncsinh, std::sinh(x))
XF_PLAIN(fnctan, std::tan(x))
XF_PLAIN(fnctanh, std::tanh(x))
XF_PLAIN(fncexp, std::exp(x))
XF_PLAIN(fnclog, x > 0 ? std::log(x) : NAN)
XF_PLAIN(fnclog10, x > 0 ? std::log10(x) : NAN)
XF_PLAIN(fnclog2, x > 0 ? std::log2(x) : NAN)
XF_PLAIN(fncsqrt, x >= 0 ? std::sqrt(x) : NAN)
XF_PLAIN(fncrecip, x != 0 ? 1 / x : NAN)
XF_PLAIN(fncsign, sign(x))
XF_PLAIN(fncceil, fuzzed(x, std::ceil))
XF_PLAIN(fncfloor, fuzzed(x, std::floor))
XF_PLAIN(fncint, fuzzed(x, std::trunc))
XF_PLAIN(fncfuzz, fuzzed(x, [](double v) { return v; }))
XF_PLAIN(fncerf, std::erf(x))
XF_PLAIN(fncerfc, std::erfc(x))
XF_PLAIN(fncgamma, x <= 0 && x == std::floor(x) ? NAN : std::tgamma(x))
XF_PLAIN(fnclgamma, x > 0 ? xfm::lgam(x) : NAN)
XF_PLAIN(fncdigamma, xfm::digamma(x))
XF_PLAIN(fnctrigamma, xfm::trigamma(x))

int fncbnot(double* r, FNCPAR*, double*, double x) {
    uint32_t v = 0;
    bool ok = bits(x, &v);
    return setbits(r, ok, ~v);
}

int fncband(FNCPAR* p, void* r) {
    uint32_t a = 0, b = 0;
    bool ok = bits(xfnum(p, 1), &a) && bits(xfnum(p, 2), &b);
    return setbits(r, ok, a & b);
}

int fncbor(FNCPAR* p, void* r) {
    uint32_t a = 0, b = 0;
    bool ok = bits(xfnum(p, 1), &a) && bits(xfnum(p, 2), &b);
    return setbits(r, ok, a | b);
}

int fncbxor(FNCPAR* p, void* r) {
    uint32_t a = 0, b = 0;
    bool ok = bits(xfnum(p, 1), &a) && bits(xfnum(p, 2), &b);
    return setbits(r, ok, a ^ b);
}

// Shifts by 0 to 31 places; bits shifted out are lost.
int fncblshift(FNCPAR* p, void* r) {
    uint32_t a = 0, n = 0;
    bool ok = bits(xfnum(p, 1), &a) && bits(xfnum(p, 2), &n) && n <= 31;
    return setbits(r, ok, static_cast<uint64_t>(a) << (ok ? n : 0));
}

int fncbrshift(FNCPAR* p, void* r) {
    uint32_t a = 0, n = 0;
    bool ok = bits(xfnum(p, 1), &a) && bits(xfnum(p, 2), &n) && n <= 31;
    return setbits(r, ok, a >> (ok ? n : 0));
}

// The remainder has the sign of the dividend; a divisor of 0 is a domain
// error. A remainder within fuzz of the divisor is 0.
int fncmod(FNCPAR* p, void* r) {
    return binary(p, r, [](double a, double b) {
        if (b == 0) return static_cast<double>(NAN);
        double m = std::fmod(a, b);
        if (std::fabs(std::fabs(m) - std::fabs(b)) <= kFuzz * std::fabs(b)) m = 0;
        return m;
    });
}

// To the nearest multiple of unit (1 when not given), halves away from
// zero. A unit that is a power of ten, or the reciprocal of an integer,
// divides rather than multiplies, so that the result is the double closest
// to the decimal number a reader expects (ROUND(2.675, .01) is 2.68).
int fncround(FNCPAR* p, void* r) {
    double x = xfnum(p, 1);
    double unit = xfnargs(p) >= 2 ? xfnum(p, 2) : 1.0;
    if (vzismiss(x) || vzismiss(unit)) return xfret(r, VZ_MISSING);
    if (unit == 0) return xfret(r, x);
    unit = std::fabs(unit);
    double inv = 1 / unit;
    double m = std::nearbyint(inv);
    bool recip = m >= 1 && std::fabs(inv - m) < 1e-9 * m;
    double q = recip ? x * m : x / unit;
    // A quotient within a few units of the last place of a half is taken as
    // the half: binary fractions cannot hold most decimals exactly.
    double f = std::fabs(q) - std::floor(std::fabs(q));
    double n = std::fabs(f - 0.5) <= 8 * DBL_EPSILON * std::max(1.0, std::fabs(q))
                   ? std::copysign(std::floor(std::fabs(q)) + 1, q)
                   : std::round(q);
    return xfret(r, recip ? n / m : n * unit);
}

// The address of the argument's value.
int fncaddr(FNCPAR* p, void* r) {
    const void* at = xfisnum(p, 1) ? static_cast<const void*>(p->par[1].loc.dp) : xfstr(p, 1)->data;
    return xfret(r, static_cast<double>(reinterpret_cast<uintptr_t>(at)));
}

}  // namespace vrta

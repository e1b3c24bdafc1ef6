// Numeric formats: w.d, BEST, comma and currency, percent, E, Z and the
// integer radix forms.
#include <algorithm>
#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "sfmt/fmtint.h"
#include "ssubs/vz.h"

namespace vrta {

namespace fmt {

std::string padzeros(const std::string& s, int w) {
    std::string out(static_cast<size_t>(std::max(0, w - static_cast<int>(s.size()))), '0');
    return out + s;
}

bool right(std::string_view s, int w, char* out) {
    if (static_cast<int>(s.size()) > w) return false;
    size_t pad = static_cast<size_t>(w) - s.size();
    memset(out, ' ', pad);
    memcpy(out + pad, s.data(), s.size());
    return true;
}

void left(std::string_view s, int w, char* out) {
    size_t n = std::min(s.size(), static_cast<size_t>(w));
    memcpy(out, s.data(), n);
    memset(out + n, ' ', static_cast<size_t>(w) - n);
}

void stars(int w, char* out) { memset(out, '*', static_cast<size_t>(w)); }

void missing(double v, int w, char* out) {
    char c = vzmisschar(v);
    right(std::string_view(&c, 1), w, out);
}

std::string fixed(double v, int d) {
    char buf[400];
    double scale = std::pow(10.0, d);
    double q = std::fabs(v) * scale;
    if (q < 9e15) {
        // Round the scaled value as a decimal number: a value a few units of
        // the last place from a half is the half, and goes up.
        double f = q - std::floor(q);
        double n = std::fabs(f - 0.5) <= 8 * DBL_EPSILON * std::max(1.0, q) ? std::floor(q) + 1 : std::round(q);
        snprintf(buf, sizeof buf, "%.0f", n);
        std::string digits(buf);
        std::string out = v < 0 && n != 0 ? "-" : "";
        if (d > 0) {
            out.append(padzeros(digits, d + 1), 0, std::max(digits.size(), static_cast<size_t>(d) + 1) - static_cast<size_t>(d));
            out += '.';
            out.append(digits.size() > static_cast<size_t>(d) ? digits.substr(digits.size() - static_cast<size_t>(d))
                                                              : padzeros(digits, d));
        } else {
            out += digits;
        }
        return out;
    }
    snprintf(buf, sizeof buf, "%.*f", d, v);
    return buf;
}

namespace {

// Mantissa with k decimals and a short exponent: 1.5E10, 2E-7.
std::string enote(double v, int k) {
    char buf[64];
    snprintf(buf, sizeof buf, "%.*E", k, v);
    std::string s(buf);
    size_t e = s.find('E');
    std::string mant = s.substr(0, e);
    int exp = atoi(s.c_str() + e + 1);
    if (mant.find('.') != std::string::npos) {
        while (mant.back() == '0') mant.pop_back();
        if (mant.back() == '.') mant.pop_back();
    }
    return mant + "E" + std::to_string(exp);
}

// Significant digits shown in a number's text.
int sigdigits(const std::string& s) {
    int n = 0;
    bool lead = true;
    for (char c : s) {
        if (c == 'E') break;
        if (c < '0' || c > '9') continue;
        if (c != '0') lead = false;
        if (!lead) n++;
    }
    return n;
}

std::string trimzeros(std::string s) {
    if (s.find('.') == std::string::npos) return s;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    if (s == "-0") s = "0";
    return s;
}

}  // namespace

std::string best(double v, int w) {
    if (v == 0) return "0";
    int neg = v < 0;
    int mag = static_cast<int>(std::floor(std::log10(std::fabs(v))));  // place of the first digit
    // Fixed notation: as many decimals as fit, at most 15 significant
    // digits, trailing zeros dropped. With the whole integer part shown it
    // is the answer.
    std::string fx;
    if (mag < 15) {
        int intdigits = mag >= 0 ? mag + 1 : 1;
        int room = w - neg - intdigits;
        int dec = room >= 2 ? room - 1 : 0;
        dec = std::min(dec, std::max(0, 14 - mag));
        fx = trimzeros(fixed(v, dec));
        if (static_cast<int>(fx.size()) > w) fx.clear();
        if (mag >= 0 && !fx.empty()) return fx;
    }
    // A fraction: E notation when it shows more digits.
    for (int k = 14; k >= 0; k--) {
        std::string t = enote(v, k);
        if (static_cast<int>(t.size()) <= w) return sigdigits(t) > sigdigits(fx) ? t : fx;
    }
    return fx;
}

std::string group(const std::string& num, char sep, char point) {
    size_t start = num[0] == '-' ? 1 : 0;
    size_t dot = num.find('.');
    size_t end = dot == std::string::npos ? num.size() : dot;
    std::string out = num.substr(0, start);
    for (size_t i = start; i < end; i++) {
        out.push_back(num[i]);
        size_t left = end - i - 1;
        if (left && left % 3 == 0) out.push_back(sep);
    }
    if (dot != std::string::npos) {
        out.push_back(point);
        out.append(num.substr(dot + 1));
    }
    return out;
}

const char* const kMonths[12] = {"January", "February", "March",     "April",   "May",      "June",
                                 "July",    "August",   "September", "October", "November", "December"};
const char* const kDays[7] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};

}  // namespace fmt

namespace {

// What every numeric format does with a value that cannot be shown as asked:
// a shorter form (status 2), or stars (status 1).
int fallback(double v, int w, char* out) {
    std::string b = fmt::best(v, w);
    if (!b.empty() && fmt::right(b, w, out)) return 2;
    fmt::stars(w, out);
    return 1;
}

// w.d, cutting decimals before giving up on the form.
int fixedfit(double v, int w, int d, char* out) {
    if (fmt::right(fmt::fixed(v, d), w, out)) return 0;
    for (int k = d - 1; k >= 0; k--)
        if (fmt::right(fmt::fixed(v, k), w, out)) return 2;
    return fallback(v, w, out);
}

}  // namespace

int fmtf(const FMTTBL_ENT*, double v, int w, int d, char* out) { return fixedfit(v, w, d, out); }

int fmtbest(const FMTTBL_ENT*, double v, int w, int, char* out) {
    std::string b = fmt::best(v, w);
    if (!b.empty() && fmt::right(b, w, out)) return 0;
    fmt::stars(w, out);
    return 1;
}

// COMMA (arg 0), COMMAX (1), DOLLAR (2), DOLLARX (3), NEGPAREN (4), NUMX (5).
int fmtcomma(const FMTTBL_ENT* e, double v, int w, int d, char* out) {
    bool x = e->arg == 1 || e->arg == 3;
    std::string num = fmt::fixed(v, d);
    bool neg = num[0] == '-';
    if (neg) num.erase(0, 1);
    std::string s = num;
    if (e->arg != 5) s = fmt::group(num, x ? '.' : ',', x ? ',' : '.');
    else if (size_t dot = s.find('.'); dot != std::string::npos) s[dot] = ',';
    if (e->arg == 2 || e->arg == 3) s = std::string("$") + s;
    if (e->arg == 4) s = neg ? std::string("(") + s + ")" : s + " ";
    else if (neg) s = std::string("-") + s;
    if (fmt::right(s, w, out)) return 0;
    return fixedfit(v, w, d, out) == 1 ? 1 : 2;
}

// v as a percentage, negatives in parentheses, a blank where their closing
// one would stand.
int fmtpercent(const FMTTBL_ENT*, double v, int w, int d, char* out) {
    double pct = v * 100;
    for (int k = d; k >= 0; k--) {
        std::string num = fmt::fixed(std::fabs(pct), k);
        std::string s = pct < 0 && num.find_first_not_of("0.") != std::string::npos ? "(" + num + "%)" : num + "% ";
        if (fmt::right(s, w, out)) return k == d ? 0 : 2;
    }
    return fallback(pct, w, out);
}

// Ew.: a sign place, one digit, as many decimals as fit, and E+nn.
int fmte(const FMTTBL_ENT*, double v, int w, int, char* out) {
    char buf[64];
    int exp = v == 0 ? 0 : static_cast<int>(std::floor(std::log10(std::fabs(v))));
    int elen = std::abs(exp) >= 99 ? 5 : 4;
    int dec = w - 3 - elen;  // sign, digit, point
    if (dec < 0) dec = 0;
    snprintf(buf, sizeof buf, "%*.*E", w, dec, v);
    if (fmt::right(buf, w, out)) return 0;
    fmt::stars(w, out);
    return 1;
}

// w.d with leading zeros.
int fmtz(const FMTTBL_ENT*, double v, int w, int d, char* out) {
    std::string s = fmt::fixed(v, d);
    bool neg = s[0] == '-';
    if (neg) s.erase(0, 1);
    s = std::string(neg ? "-" : "") + fmt::padzeros(s, w - (neg ? 1 : 0));
    if (fmt::right(s, w, out)) return 0;
    return fixedfit(v, w, d, out);
}

// HEXw.: the integer part in w hex digits, two's complement; at width 16
// the bytes of the double itself.
int fmthex(const FMTTBL_ENT*, double v, int w, int, char* out) {
    char buf[32];
    if (w == 16) {
        uint64_t bits;
        memcpy(&bits, &v, 8);
        snprintf(buf, sizeof buf, "%016" PRIX64, bits);
        return fmt::right(buf, w, out) ? 0 : 1;
    }
    double t = std::trunc(v);
    double lim = std::ldexp(1.0, 4 * w);
    if (t >= lim / 2 || t < -lim / 2) {
        fmt::stars(w, out);
        return 1;
    }
    uint64_t bits = static_cast<uint64_t>(static_cast<int64_t>(t)) & (w >= 16 ? ~0ull : (1ull << (4 * w)) - 1);
    snprintf(buf, sizeof buf, "%0*" PRIX64, w, bits);
    fmt::right(buf, w, out);
    return 0;
}

// OCTAL and BINARY (arg 8 or 2): a non-negative integer, zero filled.
int fmtradix(const FMTTBL_ENT* e, double v, int w, int, char* out) {
    double t = std::trunc(v);
    if (t < 0 || t > 9.007199254740992e15) {
        fmt::stars(w, out);
        return 1;
    }
    uint64_t n = static_cast<uint64_t>(t);
    std::string s;
    do {
        s.insert(s.begin(), static_cast<char>('0' + n % static_cast<uint64_t>(e->arg)));
        n /= static_cast<uint64_t>(e->arg);
    } while (n);
    s = fmt::padzeros(s, w);
    if (fmt::right(s, w, out)) return 0;
    fmt::stars(w, out);
    return 1;
}

// ROMAN: 1 to 3999 in Roman numerals, left-aligned.
int fmtroman(const FMTTBL_ENT*, double v, int w, int, char* out) {
    static const struct {
        int n;
        const char* s;
    } digits[] = {{1000, "M"}, {900, "CM"}, {500, "D"}, {400, "CD"}, {100, "C"}, {90, "XC"}, {50, "L"},
                  {40, "XL"},  {10, "X"},   {9, "IX"},  {5, "V"},    {4, "IV"},  {1, "I"}};
    double t = std::trunc(v);
    std::string s;
    if (t >= 1 && t <= 3999) {
        int n = static_cast<int>(t);
        for (const auto& d : digits)
            for (; n >= d.n; n -= d.n) s += d.s;
    }
    if (s.empty() || static_cast<int>(s.size()) > w) {
        fmt::stars(w, out);
        return 1;
    }
    fmt::left(s, w, out);
    return 0;
}

// SSN: nine digits as ddd-dd-dddd.
int fmtssn(const FMTTBL_ENT*, double v, int w, int, char* out) {
    double t = std::trunc(v);
    if (t < 0 || t > 999999999) {
        fmt::stars(w, out);
        return 1;
    }
    char buf[48];
    long n = static_cast<long>(t);
    snprintf(buf, sizeof buf, "%03ld-%02ld-%04ld", n / 1000000, n / 10000 % 100, n % 10000);
    if (fmt::right(buf, w, out)) return 0;
    fmt::stars(w, out);
    return 1;
}

// PVALUE: a probability with d decimals, "<.001" below what they show.
int fmtpvalue(const FMTTBL_ENT*, double v, int w, int d, char* out) {
    if (d <= 0) d = std::max(1, w - 2);
    double least = std::pow(10.0, -d);
    if (v >= 0 && v < least) {
        std::string s = std::string("<.") + std::string(static_cast<size_t>(d - 1), '0') + "1";
        if (fmt::right(s, w, out)) return 0;
    }
    return fixedfit(v, w, d, out);
}

}  // namespace vrta

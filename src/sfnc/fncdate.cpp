// Date, time and datetime functions and the calendar they stand on.
#include <ctime>
#include <string>
#include <string_view>
#include <sys/time.h>

#include "sfnc/xfdate.h"
#include "sfnc/xfint.h"

namespace vrta {

namespace xfd {

namespace {
long floordiv(long a, long b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
// Days from 1 January 1970 to 1 January 1960.
constexpr long kEpoch1960 = -3653;
}  // namespace

// Counting from March keeps February, and its leap day, at the end of a
// 400-year cycle of 146097 days.
long days(long y, int m, int d) {
    y -= m <= 2;
    long era = floordiv(y, 400);
    long yoe = y - era * 400;
    long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468 - kEpoch1960;
}

void civil(long date, long* y, int* m, int* d) {
    long z = date + kEpoch1960 + 719468;
    long era = floordiv(z, 146097);
    long doe = z - era * 146097;
    long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long mp = (5 * doy + 2) / 153;
    *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    *y = yoe + era * 400 + (*m <= 2);
}

bool leap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int dim(long y, int m) {
    static const int n[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : n[m - 1];
}

bool valid(long y, int m, int d) {
    return y >= kMinYear && y <= kMaxYear && m >= 1 && m <= 12 && d >= 1 && d <= dim(y, m);
}

bool inrange(double date) {
    static const double lo = static_cast<double>(days(kMinYear, 1, 1));
    static const double hi = static_cast<double>(days(kMaxYear, 12, 31));
    return date >= lo && date <= hi;
}

int weekday(long date) { return static_cast<int>(((date + 5) % 7 + 7) % 7) + 1; }

long fullyear(long y) {
    if (y < 0 || y > 99) return y;
    long century = kYearCutoff / 100 * 100;
    return y >= kYearCutoff % 100 ? century + y : century + 100 + y;
}

double now_datetime() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    tm lt{};
    time_t t = tv.tv_sec;
    localtime_r(&t, &lt);
    double d = static_cast<double>(days(lt.tm_year + 1900, lt.tm_mon + 1, lt.tm_mday));
    return d * 86400 + lt.tm_hour * 3600 + lt.tm_min * 60 + lt.tm_sec + tv.tv_usec / 1e6;
}

}  // namespace xfd

namespace {

// The calendar parts of a date, or false when it is missing or out of range.
bool parts(double x, long* y, int* m, int* d) {
    if (vzismiss(x) || !xfd::inrange(x)) return false;
    xfd::civil(static_cast<long>(std::floor(x)), y, m, d);
    return true;
}

double part(double x, int which) {
    long y;
    int m, d;
    if (!parts(x, &y, &m, &d)) return NAN;
    switch (which) {
    case 0: return static_cast<double>(y);
    case 1: return m;
    case 2: return d;
    case 3: return (m - 1) / 3 + 1;
    default: return xfd::weekday(static_cast<long>(std::floor(x)));
    }
}

// A time of day from a time or datetime value.
double tod(double x) { return x - 86400 * std::floor(x / 86400); }

// Whole seconds are taken as such, so that 0.1 + 0.2 of a minute does not
// become 17.999999 seconds.
double fuzzsec(double x) {
    double n = std::nearbyint(x);
    return std::fabs(x - n) < 1e-9 ? n : x;
}

}  // namespace

XF_PLAIN(fncyear, part(x, 0))
XF_PLAIN(fncmonth, part(x, 1))
XF_PLAIN(fncday, part(x, 2))
XF_PLAIN(fncqtr, part(x, 3))
XF_PLAIN(fncweekday, part(x, 4))
XF_PLAIN(fncdatepart, std::floor(x / 86400))
XF_PLAIN(fnctimepart, fuzzsec(tod(x)))
XF_PLAIN(fnchour, std::floor(fuzzsec(tod(x)) / 3600))
XF_PLAIN(fncminute, std::floor(fuzzsec(x - 3600 * std::floor(x / 3600)) / 60))
XF_PLAIN(fncsecond, fuzzsec(x - 60 * std::floor(x / 60)))

// DATEJUL(yyddd or yyyyddd).
int fncdatejul(double* r, FNCPAR*, double*, double x) {
    if (vzismiss(x) || x < 0) return xfret(r, NAN);
    long v = static_cast<long>(std::floor(x));
    long y = xfd::fullyear(v / 1000);
    long dd = v % 1000;
    if (y < xfd::kMinYear || y > xfd::kMaxYear || dd < 1 || dd > (xfd::leap(y) ? 366 : 365)) return xfret(r, NAN);
    return xfret(r, static_cast<double>(xfd::days(y, 1, 1) + dd - 1));
}

// MDY(month, day, year); a year of 0 to 99 is placed by the cutoff.
int fncmdy(FNCPAR* p, void* r) {
    double m = xfnum(p, 1), d = xfnum(p, 2), y = xfnum(p, 3);
    if (vzismiss(m) || vzismiss(d) || vzismiss(y)) return xfret(r, NAN);
    if (m != std::floor(m) || d != std::floor(d) || y != std::floor(y) || std::fabs(y) > 1e6)
        return xfret(r, NAN);
    long yy = xfd::fullyear(static_cast<long>(y));
    if (!xfd::valid(yy, static_cast<int>(m), static_cast<int>(d))) return xfret(r, NAN);
    return xfret(r, static_cast<double>(xfd::days(yy, static_cast<int>(m), static_cast<int>(d))));
}

int fnchms(FNCPAR* p, void* r) {
    double h = xfnum(p, 1), m = xfnum(p, 2), s = xfnum(p, 3);
    if (vzismiss(h) || vzismiss(m) || vzismiss(s)) return xfret(r, NAN);
    return xfret(r, h * 3600 + m * 60 + s);
}

int fncdhms(FNCPAR* p, void* r) {
    double d = xfnum(p, 1), h = xfnum(p, 2), m = xfnum(p, 3), s = xfnum(p, 4);
    if (vzismiss(d) || vzismiss(h) || vzismiss(m) || vzismiss(s)) return xfret(r, NAN);
    return xfret(r, d * 86400 + h * 3600 + m * 60 + s);
}

int fnctoday(FNCPAR*, void* r) { return xfret(r, std::floor(xfd::now_datetime() / 86400)); }
int fncdate(FNCPAR* p, void* r) { return fnctoday(p, r); }
int fncdatetime(FNCPAR*, void* r) { return xfret(r, xfd::now_datetime()); }
int fnctime(FNCPAR*, void* r) { return xfret(r, tod(xfd::now_datetime())); }

namespace {

// The alignment of INTNX: B, M, E or S, by the first letter of a word of
// those; blank is B.
bool alignof4(const FNCPAR* p, char* align) {
    *align = 'B';
    if (xfnargs(p) < 4) return true;
    const X_STRING* s = xfstr(p, 4);
    std::string_view v(s->data, static_cast<size_t>(xfslen(s)));
    v = v.substr(0, static_cast<size_t>(vzstrip(v.data(), static_cast<int>(v.size()))));
    while (!v.empty() && v.front() == ' ') v.remove_prefix(1);
    if (v.empty()) return true;
    std::string u(v);
    vzMP(u.data(), static_cast<int>(u.size()));
    static const char* const words[] = {"B", "BEGINNING", "M", "MIDDLE", "E", "END", "S", "SAME", "SAMEDAY"};
    for (const char* w : words)
        if (u == w) {
            *align = w[0];
            return true;
        }
    return false;
}

}  // namespace

// INTNX(interval, start, n [, alignment]).
int fncintnx(FNCPAR* p, void* r) {
    const X_STRING* iv = xfstr(p, 1);
    double start = xfnum(p, 2), n = xfnum(p, 3), out = 0;
    char align;
    if (vzismiss(start) || vzismiss(n) || !alignof4(p, &align) ||
        !xfd::intnx(iv->data, xfslen(iv), start, n, align, &out))
        return xfret(r, NAN);
    return xfret(r, out);
}

// INTCK(interval, from, to): the interval boundaries crossed going from
// `from` to `to`, negative backwards.
int fncintck(FNCPAR* p, void* r) {
    const X_STRING* iv = xfstr(p, 1);
    double from = xfnum(p, 2), to = xfnum(p, 3), out = 0;
    if (vzismiss(from) || vzismiss(to) || !xfd::intck(iv->data, xfslen(iv), from, to, &out)) return xfret(r, NAN);
    return xfret(r, out);
}

}  // namespace vrta

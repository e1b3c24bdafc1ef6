// Intervals for INTNX and INTCK: a name such as MONTH, QTR2, YEAR.4,
// DTWEEK.2 or WEEKDAY17W. Intervals with a multiplier are counted from
// 1 January 1960 (weeks from the Sunday before it); a shift moves the start
// by units of the next smaller kind (months for YEAR, days for WEEK).
#include <string>

#include "sfnc/xfdate.h"
#include "sfnc/xfint.h"

namespace vrta::xfd {

namespace {

enum class Kind { Day, Week, Weekday, Tenday, Semimonth, Month, Second };

// An interval counts "units" (days, months, seconds, ...): it is `len`
// units long, and starts `origin` units from the zero unit.
struct Interval {
    Kind kind;
    bool dt;        // a date interval applied to datetime values
    long len;
    long origin;
    int weekend;    // WEEKDAY: bit (d - 1) set for weekend day d, 1 Sunday
};

long floordiv(long a, long b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

bool digits(std::string_view& s, long* v) {
    size_t i = 0;
    long n = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9' && n < 1000000) n = n * 10 + (s[i++] - '0');
    if (i == 0) return false;
    *v = n;
    s.remove_prefix(i);
    return true;
}

bool parse(const char* str, int len, Interval* iv) {
    if (!str || len <= 0) return false;
    std::string u(str, static_cast<size_t>(len));
    vzMP(u.data(), static_cast<int>(u.size()));
    std::string_view s(u);
    while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
    s = s.substr(0, static_cast<size_t>(vzstrip(s.data(), static_cast<int>(s.size()))));
    iv->dt = s.size() > 2 && s.substr(0, 2) == "DT";
    if (iv->dt) s.remove_prefix(2);
    struct Name {
        const char* name;
        Kind kind;
        long units;     // units in one interval
        long shiftunit; // units in one step of the shift
    };
    static const Name names[] = {
        {"SEMIMONTH", Kind::Semimonth, 1, 1}, {"SEMIYEAR", Kind::Month, 6, 1}, {"WEEKDAY", Kind::Weekday, 1, 1},
        {"TENDAY", Kind::Tenday, 1, 1},       {"MINUTE", Kind::Second, 60, 60}, {"SECOND", Kind::Second, 1, 1},
        {"MONTH", Kind::Month, 1, 1},         {"WEEK", Kind::Week, 7, 1},      {"YEAR", Kind::Month, 12, 1},
        {"HOUR", Kind::Second, 3600, 3600},   {"QTR", Kind::Month, 3, 1},      {"DAY", Kind::Day, 1, 1},
    };
    const Name* nm = nullptr;
    for (const Name& n : names)
        if (s.substr(0, strlen(n.name)) == n.name) {
            nm = &n;
            break;
        }
    if (!nm) return false;
    s.remove_prefix(strlen(nm->name));
    iv->kind = nm->kind;
    iv->weekend = 0x41;  // Sunday and Saturday
    long mult = 1, shift = 1;
    if (!s.empty() && s.front() >= '0' && s.front() <= '9') {
        std::string_view save = s;
        long v = 0;
        digits(s, &v);
        if (nm->kind == Kind::Weekday && !s.empty() && s.front() == 'W') {
            iv->weekend = 0;
            for (char c : save.substr(0, save.size() - s.size())) {
                if (c < '1' || c > '7') return false;
                iv->weekend |= 1 << (c - '1');
            }
            if (iv->weekend == 0x7f) return false;
            s.remove_prefix(1);
        } else {
            mult = v;
        }
    }
    if (!s.empty() && s.front() == '.') {
        s.remove_prefix(1);
        if (!digits(s, &shift)) return false;
    }
    if (!s.empty() || mult < 1) return false;
    iv->len = nm->units * mult;
    // The shift counts from 1 and may not pass the interval's own length.
    if (shift < 1 || (shift - 1) * nm->shiftunit >= iv->len) return false;
    iv->origin = (shift - 1) * nm->shiftunit + (nm->kind == Kind::Week ? -5 : 0);
    return true;
}

int weekdaysin(int weekend) {
    int n = 0;
    for (int d = 0; d < 7; d++) n += !(weekend & (1 << d));
    return n;
}

// The unit of a date (or of a second for time intervals).
long unitof(const Interval& iv, long v) {
    long y;
    int m, d;
    switch (iv.kind) {
    case Kind::Day:
    case Kind::Week:
    case Kind::Second:
        return v;
    case Kind::Weekday: {
        // Each weekday is a unit; a weekend day belongs to the weekday
        // before it.
        long w = floordiv(v + 5, 7);
        int dow = static_cast<int>(v + 5 - w * 7);
        int upto = 0;
        for (int k = 0; k <= dow; k++) upto += !(iv.weekend & (1 << k));
        return w * weekdaysin(iv.weekend) + upto - 1;
    }
    default:
        break;
    }
    civil(v, &y, &m, &d);
    long month = (y - 1960) * 12 + (m - 1);
    if (iv.kind == Kind::Month) return month;
    if (iv.kind == Kind::Semimonth) return month * 2 + (d > 15);
    return month * 3 + (d > 20 ? 2 : d > 10 ? 1 : 0);
}

// The first date (or second) of a unit.
long unitstart(const Interval& iv, long u) {
    switch (iv.kind) {
    case Kind::Day:
    case Kind::Week:
    case Kind::Second:
        return u;
    case Kind::Weekday: {
        int nw = weekdaysin(iv.weekend);
        long w = floordiv(u, nw);
        long k = u - w * nw;
        int dow = 0;
        for (; dow < 7; dow++)
            if (!(iv.weekend & (1 << dow)) && k-- == 0) break;
        return w * 7 - 5 + dow;
    }
    default:
        break;
    }
    long per = iv.kind == Kind::Month ? 1 : iv.kind == Kind::Semimonth ? 2 : 3;
    long month = floordiv(u, per), sub = u - month * per;
    long y = 1960 + floordiv(month, 12);
    int m = static_cast<int>(month - floordiv(month, 12) * 12) + 1;
    static const int firstday[3][3] = {{1, 0, 0}, {1, 16, 0}, {1, 11, 21}};
    return days(y, m, firstday[per - 1][sub]);
}

long indexof(const Interval& iv, long v) { return floordiv(unitof(iv, v) - iv.origin, iv.len); }
long beginof(const Interval& iv, long k) { return unitstart(iv, k * iv.len + iv.origin); }

// Splits a value into what the interval counts (a day, or a second) and
// what it carries along unchanged (the time of day of a datetime).
bool split(const Interval& iv, double x, long* v, double* rest) {
    if (iv.kind == Kind::Second) {
        if (std::fabs(x) > 1e15) return false;
        *v = static_cast<long>(std::floor(x));
        *rest = 0;
        return true;
    }
    double day = iv.dt ? std::floor(x / 86400) : std::floor(x);
    if (!inrange(day)) return false;
    *v = static_cast<long>(day);
    *rest = iv.dt ? x - day * 86400 : 0;
    return true;
}

}  // namespace

bool intnx(const char* s, int len, double start, double n, char align, double* out) {
    Interval iv{};
    long v;
    double rest;
    if (!parse(s, len, &iv) || !split(iv, start, &v, &rest) || std::fabs(n) > 1e9) return false;
    long from = indexof(iv, v);
    long k = from + static_cast<long>(std::trunc(n));
    // A date interval over datetimes ends at the last second of its last
    // day; everything else at the last unit.
    double scale = iv.dt && iv.kind != Kind::Second ? 86400 : 1;
    double b = static_cast<double>(beginof(iv, k)) * scale;
    double e = static_cast<double>(beginof(iv, k + 1)) * scale - 1;
    double r = b;
    switch (align) {
    case 'E': r = e; break;
    case 'M': r = scale == 1 && iv.kind != Kind::Second ? std::floor((b + e) / 2) : b + std::floor((e - b + 1) / 2); break;
    case 'S': {
        long day;
        if (iv.kind == Kind::Month) {
            // Same place in the month count and the same day, cut at the
            // month's end.
            long y0;
            int m0, d0;
            civil(v, &y0, &m0, &d0);
            long months = unitof(iv, v) - (from * iv.len + iv.origin) + k * iv.len + iv.origin;
            long y = 1960 + floordiv(months, 12);
            int m = static_cast<int>(months - floordiv(months, 12) * 12) + 1;
            day = days(y, m, std::min(d0, dim(y, m)));
        } else if (iv.kind == Kind::Second) {
            day = beginof(iv, k) + (v - beginof(iv, from));
        } else {
            day = std::min(beginof(iv, k) + (v - beginof(iv, from)), beginof(iv, k + 1) - 1);
        }
        r = static_cast<double>(day) * scale + rest;
        break;
    }
    default: break;
    }
    if (iv.kind != Kind::Second && !inrange(iv.dt ? std::floor(r / 86400) : r)) return false;
    *out = r;
    return true;
}

bool intck(const char* s, int len, double from, double to, double* out) {
    Interval iv{};
    long a, b;
    double rest;
    if (!parse(s, len, &iv) || !split(iv, from, &a, &rest) || !split(iv, to, &b, &rest)) return false;
    *out = static_cast<double>(indexof(iv, b) - indexof(iv, a));
    return true;
}

}  // namespace vrta::xfd

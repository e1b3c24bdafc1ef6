// Date, time and datetime formats. A date outside the supported years is
// starred. Formats that have several forms use the longest that fits.
#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "sfmt/fmtint.h"
#include "sfnc/xfdate.h"

namespace vrta {

namespace {

struct Ymd {
    long y;
    int m, d;
    long date;
};

// The day of a date, or of a datetime.
bool ymd(double v, bool datetime, Ymd* out) {
    double day = datetime ? std::floor(v / 86400) : std::floor(v);
    if (!xfd::inrange(day)) return false;
    out->date = static_cast<long>(day);
    xfd::civil(out->date, &out->y, &out->m, &out->d);
    return true;
}

std::string mon3(int m) {
    std::string s(fmt::kMonths[m - 1], 3);
    for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string num(long v, int digits) {
    char buf[32];
    snprintf(buf, sizeof buf, "%0*ld", digits, v);
    return buf;
}

int starred(int w, char* out) {
    fmt::stars(w, out);
    return 1;
}

// The first of the forms that fits, right-aligned.
int firstfit(std::initializer_list<std::string> forms, int w, char* out) {
    for (const std::string& f : forms)
        if (fmt::right(f, w, out)) return 0;
    return starred(w, out);
}

std::string ddmonyy(const Ymd& t, bool fullyear) {
    return num(t.d, 2) + mon3(t.m) + (fullyear ? num(t.y, 4) : num(t.y % 100, 2));
}

// Hours, minutes and seconds of a time (seconds may carry decimals).
struct Hms {
    bool neg;
    long h;
    int m;
    double s;
};

// Cuts a count of seconds to d decimals, as a clock does: 23:59:59.9 is
// still the same day. A value a hair below a decimal (2.3 held as
// 2.29999...) is taken as that decimal.
double cut(double a, int d) {
    double scale = std::pow(10.0, d), q = a * scale;
    return std::floor(q + 1e-9 * std::max(1.0, std::fabs(q))) / scale;
}

// Splits a count of seconds, cut first to d decimals.
Hms hms(double secs, int d) {
    Hms t{};
    t.neg = secs < 0;
    double a = cut(std::fabs(secs), d);
    t.h = static_cast<long>(std::floor(a / 3600));
    a -= static_cast<double>(t.h) * 3600;
    t.m = static_cast<int>(std::floor(a / 60));
    t.s = a - t.m * 60;
    return t;
}

std::string secs(double s, int d) {
    char buf[64];
    if (d > 0) snprintf(buf, sizeof buf, "%0*.*f", d + 3, d, s);
    else snprintf(buf, sizeof buf, "%02d", static_cast<int>(std::floor(s)));
    return buf;
}

std::string clock(const Hms& t, int d, bool withsecs, int hdigits = 1) {
    std::string s = std::string(t.neg ? "-" : "") + num(t.h, hdigits) + ":" + num(t.m, 2);
    if (withsecs) {
        s += ':';
        s += secs(t.s, d);
    }
    return s;
}

}  // namespace

// DATE (arg 0) and DTDATE (arg 100).
int fmtdate(const FMTTBL_ENT* e, double v, int w, int, char* out) {
    Ymd t;
    if (!ymd(v, e->arg >= 100, &t)) return starred(w, out);
    std::string full = ddmonyy(t, true);
    std::string dashed = num(t.d, 2) + "-" + mon3(t.m) + "-" + num(t.y, 4);
    return firstfit({dashed, full, ddmonyy(t, false), num(t.d, 2) + mon3(t.m)}, w, out);
}

// DDMMYY, MMDDYY and YYMMDD: arg holds the order letter ('D', 'M' or 'Y')
// and, from bit 8, the separator (0 for none).
int fmtdmy(const FMTTBL_ENT* e, double v, int w, int, char* out) {
    Ymd t;
    if (!ymd(v, false, &t)) return starred(w, out);
    char order = static_cast<char>(e->arg & 0xff);
    char sep = static_cast<char>((e->arg >> 8) & 0xff);
    auto parts = [&](bool fullyear) {
        std::string yy = fullyear ? num(t.y, 4) : num(t.y % 100, 2);
        std::string dd = num(t.d, 2), mm = num(t.m, 2);
        if (order == 'D') return std::array<std::string, 3>{dd, mm, yy};
        if (order == 'M') return std::array<std::string, 3>{mm, dd, yy};
        return std::array<std::string, 3>{yy, mm, dd};
    };
    auto join = [&](const std::array<std::string, 3>& p, int n, char s) {
        std::string r = p[0];
        for (int i = 1; i < n; i++) {
            if (s) r += s;
            r += p[static_cast<size_t>(i)];
        }
        return r;
    };
    auto full = parts(true), two = parts(false);
    if (sep)
        return firstfit({join(full, 3, sep), join(two, 3, sep), join(two, 3, 0), join(two, 2, sep), join(two, 2, 0),
                         two[0]},
                        w, out);
    return firstfit({join(full, 3, 0), join(two, 3, 0), join(two, 2, 0), two[0]}, w, out);
}

// Parts of a date: DAY 1, MONTH 2, YEAR 3, QTR 4, QTRR 5, WEEKDAY 6,
// JULDAY 7, MONNAME 8, DOWNAME 9, MONYY 10, YYQ 11, YYMON 12, MMYY 13,
// YYMM 14, JULIAN 15; 100 more for a datetime.
int fmtdpart(const FMTTBL_ENT* e, double v, int w, int, char* out) {
    Ymd t;
    if (!ymd(v, e->arg >= 100, &t)) return starred(w, out);
    static const char* const roman[] = {"I", "II", "III", "IV"};
    int q = (t.m - 1) / 3 + 1;
    long doy = t.date - xfd::days(t.y, 1, 1) + 1;
    std::string y4 = num(t.y, 4), y2 = num(t.y % 100, 2);
    switch (e->arg % 100) {
    case 1: return firstfit({std::to_string(t.d)}, w, out);
    case 2: return firstfit({std::to_string(t.m)}, w, out);
    case 3: return firstfit({y4, y2}, w, out);
    case 4: return firstfit({std::to_string(q)}, w, out);
    case 5: return firstfit({roman[q - 1]}, w, out);
    case 6: return firstfit({std::to_string(xfd::weekday(t.date))}, w, out);
    case 7: return firstfit({std::to_string(doy)}, w, out);
    case 8: return firstfit({std::string(fmt::kMonths[t.m - 1]).substr(0, static_cast<size_t>(w))}, w, out);
    case 9: return firstfit({std::string(fmt::kDays[xfd::weekday(t.date) - 1]).substr(0, static_cast<size_t>(w))}, w, out);
    case 10: return firstfit({mon3(t.m) + y4, mon3(t.m) + y2}, w, out);
    case 11: return firstfit({y4 + "Q" + std::to_string(q), y2 + "Q" + std::to_string(q)}, w, out);
    case 12: return firstfit({y4 + mon3(t.m), y2 + mon3(t.m)}, w, out);
    case 13: return firstfit({num(t.m, 2) + "M" + y4, num(t.m, 2) + "M" + y2}, w, out);
    case 14: return firstfit({y4 + "M" + num(t.m, 2), y2 + "M" + num(t.m, 2)}, w, out);
    case 15: return firstfit({y4 + num(doy, 3), y2 + num(doy, 3)}, w, out);
    default: return starred(w, out);
    }
}

// Dates in words: WEEKDATE 1, WEEKDATX 2, WORDDATE 3, WORDDATX 4; 100 more
// for a datetime.
int fmtdword(const FMTTBL_ENT* e, double v, int w, int, char* out) {
    Ymd t;
    if (!ymd(v, e->arg >= 100, &t)) return starred(w, out);
    std::string day = fmt::kDays[xfd::weekday(t.date) - 1], month = fmt::kMonths[t.m - 1];
    std::string dy3 = day.substr(0, 3), mo3 = month.substr(0, 3);
    std::string d = std::to_string(t.d), y4 = std::to_string(t.y), y2 = num(t.y % 100, 2);
    switch (e->arg % 100) {
    case 1:
        return firstfit({day + ", " + month + " " + d + ", " + y4, day + ", " + mo3 + " " + d + ", " + y4,
                         dy3 + ", " + mo3 + " " + d + ", " + y4, dy3 + ", " + mo3 + " " + d + ", " + y2, dy3},
                        w, out);
    case 2:
        return firstfit({day + ", " + d + " " + month + " " + y4, dy3 + ", " + d + " " + mo3 + " " + y4,
                         dy3 + ", " + d + " " + mo3 + " " + y2, dy3},
                        w, out);
    case 3: return firstfit({month + " " + d + ", " + y4, mo3 + " " + d + ", " + y4, mo3}, w, out);
    case 4: return firstfit({d + " " + month + " " + y4, d + " " + mo3 + " " + y4, mo3}, w, out);
    default: return starred(w, out);
    }
}

// DATETIME (arg 0) and DATEAMPM (arg 1).
int fmtdatetime(const FMTTBL_ENT* e, double v, int w, int d, char* out) {
    double r = v < 0 ? -cut(-v, d) : cut(v, d);
    double day = std::floor(r / 86400);
    if (!xfd::inrange(day)) return starred(w, out);
    Ymd t;
    t.date = static_cast<long>(day);
    xfd::civil(t.date, &t.y, &t.m, &t.d);
    Hms c = hms(r - day * 86400, d);
    if (e->arg == 1) {
        const char* ampm = c.h >= 12 ? " PM" : " AM";
        c.h = c.h % 12 == 0 ? 12 : c.h % 12;
        std::string base = ddmonyy(t, false) + ":" + clock(c, d, true, 2) + ampm;
        return firstfit({ddmonyy(t, true) + ":" + clock(c, d, true, 2) + ampm, base,
                         ddmonyy(t, false) + ":" + clock(c, 0, false, 2) + ampm, ddmonyy(t, false)},
                        w, out);
    }
    std::string hh = num(c.h, 2), mm = num(c.m, 2);
    return firstfit({ddmonyy(t, true) + ":" + hh + ":" + mm + ":" + secs(c.s, d),
                     ddmonyy(t, false) + ":" + hh + ":" + mm + ":" + secs(c.s, d),
                     ddmonyy(t, false) + ":" + hh + ":" + mm + ":" + secs(c.s, 0), ddmonyy(t, false) + ":" + hh + ":" + mm,
                     ddmonyy(t, false) + ":" + hh, ddmonyy(t, false)},
                    w, out);
}

// Times: TIME 0, TIMEAMPM 1, TOD 2, HHMM 3, HOUR 4, MMSS 5.
int fmttime(const FMTTBL_ENT* e, double v, int w, int d, char* out) {
    switch (e->arg) {
    case 0: {
        Hms t = hms(v, d);
        return firstfit({clock(t, d, true), clock(t, 0, true), clock(t, 0, false), std::string(t.neg ? "-" : "") + std::to_string(t.h)},
                        w, out);
    }
    case 1: {
        Hms t = hms(v - 86400 * std::floor(v / 86400), d);
        t.h %= 24;
        const char* ampm = t.h >= 12 ? " PM" : " AM";
        t.h = t.h % 12 == 0 ? 12 : t.h % 12;
        return firstfit({clock(t, d, true) + ampm, clock(t, 0, true) + ampm, clock(t, 0, false) + ampm,
                         std::to_string(t.h) + ampm},
                        w, out);
    }
    case 2: {
        Hms t = hms(v - 86400 * std::floor(v / 86400), d);
        t.h %= 24;
        return firstfit({clock(t, d, true, 2), clock(t, 0, true, 2), clock(t, 0, false, 2), num(t.h, 2)}, w, out);
    }
    case 3: {
        Hms t = hms(std::round(v / 60) * 60, 0);
        return firstfit({clock(t, 0, false)}, w, out);
    }
    case 4: return firstfit({fmt::fixed(v / 3600, d), fmt::fixed(v / 3600, 0)}, w, out);
    case 5: {
        Hms t = hms(v, d);
        std::string m = std::string(t.neg ? "-" : "") + std::to_string(t.h * 60 + t.m);
        return firstfit({m + ":" + secs(t.s, d), m + ":" + secs(t.s, 0), m}, w, out);
    }
    default: return starred(w, out);
    }
}

// Extended and basic ISO 8601 forms: E8601DA 1, E8601DT 2, E8601TM 3,
// B8601DA 4.
int fmtiso(const FMTTBL_ENT* e, double v, int w, int d, char* out) {
    auto date = [](double day, bool ext, std::string* s) {
        if (!xfd::inrange(day)) return false;
        Ymd t;
        t.date = static_cast<long>(day);
        xfd::civil(t.date, &t.y, &t.m, &t.d);
        *s = ext ? num(t.y, 4) + "-" + num(t.m, 2) + "-" + num(t.d, 2) : num(t.y, 4) + num(t.m, 2) + num(t.d, 2);
        return true;
    };
    std::string s;
    switch (e->arg) {
    case 1:
    case 4:
        if (!date(std::floor(v), e->arg == 1, &s)) return starred(w, out);
        return firstfit({s}, w, out);
    case 2: {
        double r = v < 0 ? -cut(-v, d) : cut(v, d);
        double day = std::floor(r / 86400);
        if (!date(day, true, &s)) return starred(w, out);
        Hms t = hms(r - day * 86400, d);
        return firstfit({s + "T" + clock(t, d, true, 2), s + "T" + clock(t, 0, true, 2)}, w, out);
    }
    case 3: {
        Hms t = hms(v - 86400 * std::floor(v / 86400), d);
        t.h %= 24;
        return firstfit({clock(t, d, true, 2), clock(t, 0, true, 2)}, w, out);
    }
    default: return starred(w, out);
    }
}

}  // namespace vrta

// Character formats and the informats: text into numbers, dates, times and
// character values.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <vector>

#include "sfmt/fmtint.h"
#include "sfnc/xfdate.h"
#include "ssubs/vz.h"

namespace vrta {

// $w. and $CHARw.: the text, cut or blank padded.
int fmtchar(const FMTTBL_ENT*, const char* in, int inlen, int w, char* out) {
    fmt::left(std::string_view(in, static_cast<size_t>(inlen)), w, out);
    return 0;
}

// $HEXw.: two hex digits a byte, as many as the width holds.
int fmtchex(const FMTTBL_ENT*, const char* in, int inlen, int w, char* out) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    for (int i = 0; i < inlen && static_cast<int>(s.size()) + 2 <= w; i++) {
        unsigned char c = static_cast<unsigned char>(in[i]);
        s.push_back(digits[c >> 4]);
        s.push_back(digits[c & 15]);
    }
    fmt::left(s, w, out);
    return 0;
}

int fmtcupcase(const FMTTBL_ENT*, const char* in, int inlen, int w, char* out) {
    std::string s(in, static_cast<size_t>(inlen));
    vzMP(s.data(), inlen);
    fmt::left(s, w, out);
    return 0;
}

// $QUOTEw.: the text without trailing blanks in double quotes, inner ones
// doubled.
int fmtcquote(const FMTTBL_ENT*, const char* in, int inlen, int w, char* out) {
    std::string s = "\"";
    for (int i = 0; i < vzstrip(in, inlen); i++) {
        s.push_back(in[i]);
        if (in[i] == '"') s.push_back('"');
    }
    s.push_back('"');
    if (static_cast<int>(s.size()) > w) {
        fmt::stars(w, out);
        return 1;
    }
    fmt::left(s, w, out);
    return 0;
}

// $REVERJw. (arg 0) reverses the whole field, so trailing blanks lead;
// $REVERSw. (arg 1) reverses and left-aligns.
int fmtcreverse(const FMTTBL_ENT* e, const char* in, int inlen, int w, char* out) {
    std::string s(in, static_cast<size_t>(inlen));
    if (static_cast<int>(s.size()) < w) s.append(static_cast<size_t>(w - inlen), ' ');
    s.resize(static_cast<size_t>(w));
    std::reverse(s.begin(), s.end());
    if (e->arg == 1) s.erase(0, s.find_first_not_of(' ') == std::string::npos ? s.size() : s.find_first_not_of(' '));
    fmt::left(s, w, out);
    return 0;
}

namespace {

std::string trimmed(const char* in, int len) {
    std::string s(in, static_cast<size_t>(len));
    size_t a = s.find_first_not_of(' ');
    if (a == std::string::npos) return "";
    return s.substr(a, static_cast<size_t>(vzstrip(s.data(), static_cast<int>(s.size()))) - a);
}

// A plain number: an optional sign, digits with at most one point, an
// optional exponent; nothing else.
bool number(const std::string& s, double* v, bool* haspoint) {
    size_t i = 0, n = s.size();
    if (i < n && (s[i] == '+' || s[i] == '-')) i++;
    size_t digits = 0;
    *haspoint = false;
    for (; i < n && (isdigit(static_cast<unsigned char>(s[i])) || (s[i] == '.' && !*haspoint)); i++) {
        if (s[i] == '.') *haspoint = true;
        else digits++;
    }
    if (!digits) return false;
    if (i < n && (s[i] == 'E' || s[i] == 'e')) {
        *haspoint = true;
        i++;
        if (i < n && (s[i] == '+' || s[i] == '-')) i++;
        size_t ed = 0;
        for (; i < n && isdigit(static_cast<unsigned char>(s[i])); i++) ed++;
        if (!ed) return false;
    }
    if (i != n) return false;
    *v = strtod(s.c_str(), nullptr);
    return std::isfinite(*v);
}

// Stores the value read, or the missing value for text that is not one.
int result(bool ok, double v, double* out) {
    *out = ok ? v : VZ_MISSING;
    return ok ? 0 : 1;
}

// w.d reading: without a point in the text, the last d digits are decimals.
int readnum(std::string s, int d, double* out) {
    if (s.empty() || s == ".") return result(true, VZ_MISSING, out);
    double v;
    bool point;
    if (!number(s, &v, &point)) return result(false, 0, out);
    if (!point && d > 0) v /= std::pow(10.0, d);
    return result(true, v, out);
}

int monthof(const std::string& s) {
    if (s.size() != 3) return 0;
    for (int m = 0; m < 12; m++)
        if (strncasecmp(s.c_str(), fmt::kMonths[m], 3) == 0) return m + 1;
    return 0;
}

bool makedate(long y, long m, long d, bool twodigit, double* out) {
    if (twodigit) y = xfd::fullyear(y);
    if (m < 1 || m > 12 || !xfd::valid(y, static_cast<int>(m), static_cast<int>(d))) return false;
    *out = static_cast<double>(xfd::days(y, static_cast<int>(m), static_cast<int>(d)));
    return true;
}

// Splits text into runs of digits and of letters; the separators between
// them (blank, "/", "-", ".", ":") are dropped. False on anything else.
bool tokens(const std::string& s, std::vector<std::string>* out, std::string* seps) {
    std::string cur;
    auto flush = [&] {
        if (!cur.empty()) out->push_back(cur);
        cur.clear();
    };
    for (char c : s) {
        bool digit = isdigit(static_cast<unsigned char>(c)), alpha = isalpha(static_cast<unsigned char>(c));
        if (digit || alpha) {
            if (!cur.empty() && (isdigit(static_cast<unsigned char>(cur.back())) != 0) != digit) flush();
            cur.push_back(c);
        } else if (strchr(" /-.:", c)) {
            flush();
            seps->push_back(c);
        } else {
            return false;
        }
    }
    flush();
    return true;
}

long tol(const std::string& s) { return strtol(s.c_str(), nullptr, 10); }
bool alldigits(const std::string& s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

// The date informats by arg: 'D' DATE, 'd' DDMMYY, 'm' MMDDYY, 'y' YYMMDD,
// 'n' MONYY, 'j' JULIAN, 'e' E8601DA.
bool readdate(int kind, const std::string& s, double* out) {
    std::vector<std::string> t;
    std::string seps;
    if (!tokens(s, &t, &seps)) return false;
    switch (kind) {
    case 'D':
        if (t.size() == 3 && alldigits(t[0]) && alldigits(t[2]) && t[0].size() <= 2 &&
            (t[2].size() == 2 || t[2].size() == 4))
            return makedate(tol(t[2]), monthof(t[1]), tol(t[0]), t[2].size() == 2, out);
        return false;
    case 'n':
        if (t.size() == 2 && alldigits(t[1]) && (t[1].size() == 2 || t[1].size() == 4))
            return makedate(tol(t[1]), monthof(t[0]), 1, t[1].size() == 2, out);
        return false;
    case 'j': {
        if (t.size() != 1 || !alldigits(t[0]) || (t[0].size() != 5 && t[0].size() != 7)) return false;
        long y = tol(t[0].substr(0, t[0].size() - 3)), doy = tol(t[0].substr(t[0].size() - 3));
        if (t[0].size() == 5) y = xfd::fullyear(y);
        if (y < xfd::kMinYear || y > xfd::kMaxYear || doy < 1 || doy > (xfd::leap(y) ? 366 : 365)) return false;
        *out = static_cast<double>(xfd::days(y, 1, 1) + doy - 1);
        return true;
    }
    case 'e':
        if (s.size() != 10 || s[4] != '-' || s[7] != '-' || t.size() != 3) return false;
        return makedate(tol(t[0]), tol(t[1]), tol(t[2]), false, out);
    default: break;
    }
    // Day, month and year in the order of the informat, either separated or
    // packed as 6 or 8 digits.
    std::string a, b, c;
    if (t.size() == 3) {
        a = t[0], b = t[1], c = t[2];
    } else if (t.size() == 1 && alldigits(t[0]) && (t[0].size() == 6 || t[0].size() == 8)) {
        const std::string& v = t[0];
        if (kind == 'y') a = v.substr(0, v.size() - 4), b = v.substr(v.size() - 4, 2), c = v.substr(v.size() - 2);
        else a = v.substr(0, 2), b = v.substr(2, 2), c = v.substr(4);
    } else {
        return false;
    }
    if (!alldigits(a) || !alldigits(c) || (!alldigits(b) && !monthof(b))) return false;
    long mb = alldigits(b) ? tol(b) : monthof(b);
    if (kind == 'd') return makedate(tol(c), mb, tol(a), c.size() <= 2, out);
    if (kind == 'm') return makedate(tol(c), tol(a), tol(b), c.size() <= 2, out);
    return makedate(tol(a), mb, tol(c), a.size() <= 2, out);
}

// hh[:mm[:ss[.sss]]] with an optional AM or PM.
bool readtime(std::string s, double* out) {
    int ampm = 0;
    if (s.size() >= 2) {
        std::string tail = s.substr(s.size() - 2);
        if (strcasecmp(tail.c_str(), "AM") == 0) ampm = 1;
        if (strcasecmp(tail.c_str(), "PM") == 0) ampm = 2;
        if (ampm) s = trimmed(s.data(), static_cast<int>(s.size()) - 2);
    }
    double part[3] = {0, 0, 0};
    int n = 0;
    size_t i = 0;
    while (n < 3) {
        size_t j = s.find(':', i);
        std::string p = s.substr(i, j == std::string::npos ? std::string::npos : j - i);
        bool point;
        if (p.empty() || !number(p, &part[n], &point) || (n < 2 && point) || part[n] < 0) return false;
        n++;
        if (j == std::string::npos) break;
        i = j + 1;
        if (n == 3) return false;
    }
    if (n >= 2 && part[1] >= 60) return false;
    if (n == 3 && part[2] >= 60) return false;
    double h = part[0];
    if (ampm) {
        if (h < 1 || h > 12) return false;
        h = std::fmod(h, 12) + (ampm == 2 ? 12 : 0);
    }
    *out = h * 3600 + part[1] * 60 + part[2];
    return true;
}

}  // namespace

int inpnum(const FMTTBL_ENT*, const char* in, int len, int d, double* out) { return readnum(trimmed(in, len), d, out); }

// COMMA and DOLLAR (arg 0), COMMAX (1), PERCENT (2): grouping, currency
// signs and blanks are dropped; parentheses make a value negative.
int inpcomma(const FMTTBL_ENT* e, const char* in, int len, int d, double* out) {
    std::string s = trimmed(in, len), t;
    bool neg = false, pct = false;
    if (s.size() >= 2 && s.front() == '(' && s.back() == ')') {
        neg = true;
        s = s.substr(1, s.size() - 2);
    }
    for (char c : s) {
        if (c == '$' || c == ' ') continue;
        if (c == '%') {
            pct = true;
            continue;
        }
        if (e->arg == 1) {
            if (c == '.') continue;
            if (c == ',') c = '.';
        } else if (c == ',') {
            continue;
        }
        t.push_back(c);
    }
    if (t.empty() && !s.empty()) return result(false, 0, out);
    int rc = readnum(t, d, out);
    if (rc == 0 && !vzismiss(*out)) {
        if (neg) *out = -*out;
        if (pct || e->arg == 2) *out /= 100;
    }
    return rc;
}

// HEXw.: up to 15 hex digits as an integer, 16 as the bytes of a double.
int inphex(const FMTTBL_ENT*, const char* in, int len, int, double* out) {
    std::string s = trimmed(in, len);
    if (s.empty() || s.size() > 16 || s.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return result(s.empty(), VZ_MISSING, out);
    uint64_t bits = strtoull(s.c_str(), nullptr, 16);
    if (s.size() == 16) {
        double v;
        memcpy(&v, &bits, 8);
        return result(true, v, out);
    }
    return result(true, static_cast<double>(bits), out);
}

int inpdate(const FMTTBL_ENT* e, const char* in, int len, int, double* out) {
    std::string s = trimmed(in, len);
    if (s.empty() || s == ".") return result(true, VZ_MISSING, out);
    double v = 0;
    bool ok = readdate(e->arg, s, &v);
    return result(ok, v, out);
}

int inptime(const FMTTBL_ENT*, const char* in, int len, int, double* out) {
    std::string s = trimmed(in, len);
    if (s.empty() || s == ".") return result(true, VZ_MISSING, out);
    double v = 0;
    bool ok = readtime(s, &v);
    return result(ok, v, out);
}

// ddMONyy[yy] then a time, after a colon, a blank or a "T".
int inpdatetime(const FMTTBL_ENT*, const char* in, int len, int, double* out) {
    std::string s = trimmed(in, len);
    if (s.empty() || s == ".") return result(true, VZ_MISSING, out);
    size_t cut = s.find_first_of(": T", 5);
    double day = 0, t = 0;
    bool ok = cut != std::string::npos && readdate('D', s.substr(0, cut), &day) &&
              readtime(trimmed(s.data() + cut + 1, static_cast<int>(s.size() - cut - 1)), &t);
    return result(ok, day * 86400 + t, out);
}

// $w. (arg 0) drops leading blanks and reads a lone "." as blank; $CHARw.
// (1) keeps the text as it is; $UPCASEw. (2) upper-cases it.
int inpchar(const FMTTBL_ENT* e, const char* in, int len, int w, char* out) {
    std::string s(in, static_cast<size_t>(len));
    if (e->arg != 1) {
        s = trimmed(in, len);
        if (s == ".") s.clear();
    }
    if (e->arg == 2) vzMP(s.data(), static_cast<int>(s.size()));
    fmt::left(s, w, out);
    return 0;
}

}  // namespace vrta

// Numbers as users write them in option settings: digits with an optional
// K, M or G suffix for powers of 1024.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "option/op.h"

namespace vrta {

namespace {

constexpr int MAXINTCHARS = 11;

// The multiplier of a suffix letter, 0 when it is none.
long long suffixmult(char c) {
    switch (c) {
        case 'K': case 'k': return 1024LL;
        case 'M': case 'm': return 1048576LL;
        case 'G': case 'g': return 1073741824LL;
        default: return 0;
    }
}

bool isdigitc(char c) { return c >= '0' && c <= '9'; }

}  // namespace

int isint(const char* string, int* number) {
    if (!string || !*string) return OP_BADINT;

    if (string[0] == '0' && (string[1] == 'x' || string[1] == 'X')) {
        if (!string[2]) return OP_BADINT;
        for (const char* p = string + 2; *p; p++)
            if (!std::strchr("0123456789abcdefABCDEF", *p)) return OP_BADINT;
        errno = 0;
        long v = std::strtol(string, nullptr, 16);
        // A bit pattern of up to 32 bits is accepted, as flag options need.
        if (errno == ERANGE || v > 0xffffffffL) return OP_TOOBIG;
        if (number) *number = static_cast<int>(static_cast<uint32_t>(v));
        return 0;
    }

    // A sign is passed over and has no effect on the value.
    const char* p = string;
    if (*p == '+' || *p == '-') p++;

    char digits[MAXINTCHARS + 1];
    int ndigits = 0;
    int nchars = 0;
    char suffix = 0;
    bool nonzero = false;
    for (; *p; p++) {
        if (++nchars > MAXINTCHARS) return OP_TOOBIG;
        if (isdigitc(*p)) {
            digits[ndigits++] = *p;
            if (*p != '0') nonzero = true;
        } else {
            // One non-digit is the suffix, wherever it stands.
            if (suffix) return OP_BADINT;
            suffix = *p;
        }
    }
    if (ndigits == 0) return OP_BADINT;
    digits[ndigits] = '\0';

    long long v = std::strtoll(digits, nullptr, 10);
    if (v == 0 && nonzero) return OP_BADINT;

    if (suffix) {
        long long mult = suffixmult(suffix);
        if (mult == 0) return OP_BADINT;
        // The exact top of the range (2G) means the largest integer.
        long long top = (1LL << 31) / mult;
        if (v > top) return OP_TOOBIG;
        v = (v == top) ? INT_MAX : v * mult;
    } else if (v > INT_MAX) {
        return OP_TOOBIG;
    }
    if (number) *number = static_cast<int>(v);
    return 0;
}

int isdbl(const char* string, double* number) {
    if (!string || !*string) return OP_BADDBL;

    // Form: [sign] digits [. digits] [suffix], with at least one digit.
    const char* p = string;
    if (*p == '+' || *p == '-') p++;
    int ndigits = 0;
    bool point = false;
    long long mult = 1;
    const char* end = nullptr;
    for (; *p; p++) {
        if (isdigitc(*p)) {
            ndigits++;
        } else if (*p == '.') {
            if (point) return OP_BADDBL;
            point = true;
        } else if (suffixmult(*p) != 0 && p[1] == '\0') {
            mult = suffixmult(*p);
            end = p;
        } else {
            return OP_BADDBL;
        }
    }
    if (ndigits == 0) return OP_BADDBL;
    if (!end) end = p;

    errno = 0;
    char* stop = nullptr;
    double v = std::strtod(string, &stop);
    if (stop != end) return OP_BADINT;
    if (errno == ERANGE && std::fabs(v) > 1.0) return OP_TOOBIG;
    v *= static_cast<double>(mult);
    if (!std::isfinite(v)) return OP_TOOBIG;
    if (number) *number = v;
    return 0;
}

}  // namespace vrta

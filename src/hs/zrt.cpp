#include "hs/zrt.h"

#include <bit>
#include <cmath>
#include <cstring>

namespace vrta {

namespace {

constexpr uint64_t TOP16 = 0xffff000000000000ull;
constexpr uint64_t MANT = (1ull << 52) - 1;

constexpr double missof(char c) {
    return std::bit_cast<double>(TOP16 | (static_cast<uint64_t>(static_cast<uint8_t>(~c)) << 40));
}

}  // namespace

const double missing_tbl[HS_NMISSING] = {
    missof('_'), missof('.'), missof('A'), missof('B'), missof('C'), missof('D'), missof('E'),
    missof('F'), missof('G'), missof('H'), missof('I'), missof('J'), missof('K'), missof('L'),
    missof('M'), missof('N'), missof('O'), missof('P'), missof('Q'), missof('R'), missof('S'),
    missof('T'), missof('U'), missof('V'), missof('W'), missof('X'), missof('Y'), missof('Z')};

int hsmissix(int c) {
    if (c == '_') return 0;
    if (c == '.') return 1;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 2;
    return -1;
}

double hsmissing() { return missing_tbl[1]; }

bool hsismiss(double v) { return (std::bit_cast<uint64_t>(v) & TOP16) == TOP16; }

int hsmisschar(double v) {
    if (!hsismiss(v)) return 0;
    int c = static_cast<uint8_t>(~(std::bit_cast<uint64_t>(v) >> 40));
    return hsmissix(c) >= 0 ? c : '.';
}

int64_t zrtint(const void* source, int len) {
    if (len < 1 || len > 8) return 0;
    uint64_t u = zrtinu(source, len);
    if (len < 8 && (u >> (len * 8 - 1)) & 1) u |= ~0ull << (len * 8);
    return static_cast<int64_t>(u);
}

uint64_t zrtinu(const void* source, int len) {
    if (len < 1 || len > 8) return 0;
    const auto* p = static_cast<const uint8_t*>(source);
    uint64_t u = 0;
    for (int i = 0; i < len; i++) u = (u << 8) | p[i];
    return u;
}

void zctint(int64_t value, void* dest, int len) {
    if (len == 2) value = value < -32768 ? -32768 : value > 32767 ? 32767 : value;
    zctinu(static_cast<uint64_t>(value), dest, len);
}

void zctinu(uint64_t value, void* dest, int len) {
    if (len < 1 || len > 8) return;
    auto* p = static_cast<uint8_t*>(dest);
    for (int i = len - 1; i >= 0; i--) {
        p[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

double zrtdbl(const void* source, int len) {
    if (len < 1) return 0.0;
    if (len > 8) len = 8;
    uint8_t b[8] = {};
    std::memcpy(b, source, len);
    uint64_t frac = 0;
    for (int i = 1; i < 8; i++) frac = (frac << 8) | b[i];
    if (frac == 0) {
        int mi = hsmissix(b[0]);
        if (mi >= 0) return missing_tbl[mi];
        return (b[0] & 0x80) ? -0.0 : 0.0;
    }
    int hexp = b[0] & 0x7f;
    // A fraction whose first hex digit is 0 is not normalised: bring it up.
    while ((frac >> 52) == 0) {
        frac <<= 4;
        hexp--;
    }
    int shift = 3;
    while (!((frac >> (52 + shift)) & 1)) shift--;
    uint64_t exp = static_cast<uint64_t>(hexp * 4 + shift + 763);
    uint64_t bits = (static_cast<uint64_t>(b[0] & 0x80) << 56) | (exp << 52) | ((frac >> shift) & MANT);
    return std::bit_cast<double>(bits);
}

void zctdbl(double value, void* dest, int len) {
    if (len < 1) return;
    if (len > 8) len = 8;
    uint8_t b[8] = {};
    uint64_t bits = std::bit_cast<uint64_t>(value);
    if (hsismiss(value) || std::isnan(value)) {
        // A NaN that is not one of ours has no other form: it travels as ".".
        int c = hsmisschar(value);
        b[0] = static_cast<uint8_t>(c ? c : '.');
        std::memcpy(dest, b, len);
        return;
    }
    uint8_t sign = static_cast<uint8_t>((bits >> 56) & 0x80);
    int exp = static_cast<int>((bits >> 52) & 0x7ff);
    uint64_t frac = 0;
    int hexp = 0;
    if (exp == 0x7ff) {
        // Infinity: the largest magnitude the form holds.
        hexp = 127;
        frac = (1ull << 56) - 1;
    } else if (exp != 0) {
        int t = exp - 1023 + 260;
        int shift = ((t % 4) + 4) % 4;
        hexp = (t - shift) / 4;
        frac = ((1ull << 52) | (bits & MANT)) << shift;
        if (hexp > 127) {
            hexp = 127;
            frac = (1ull << 56) - 1;
        } else if (hexp < 0) {
            // Below the smallest normal value: an unnormalised fraction, or 0.
            int down = -hexp * 4;
            frac = down < 56 ? frac >> down : 0;
            hexp = 0;
        }
    }
    // Subnormal doubles lie far below the form's range and become 0.
    if (frac != 0) {
        b[0] = static_cast<uint8_t>(sign | hexp);
        for (int i = 7; i >= 1; i--) {
            b[i] = static_cast<uint8_t>(frac);
            frac >>= 8;
        }
    }
    std::memcpy(dest, b, len);
}

void zrtchr(const void* source, char* dest, int len) {
    if (len > 0) std::memcpy(dest, source, len);
}

void zctchr(const char* source, void* dest, int len) {
    if (len > 0) std::memcpy(dest, source, len);
}

}  // namespace vrta

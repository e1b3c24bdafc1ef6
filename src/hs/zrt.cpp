#include "hs/zrt.h"

#include <bit>
#include <cmath>
#include <cstring>

#include "ssubs/vz.h"

namespace vrta {

namespace {

constexpr uint64_t TOP16 = 0xffff000000000000ull;
constexpr uint64_t MANT = (1ull << 52) - 1;

}  // namespace

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
        if (b[0] == '.' || b[0] == '_' || (b[0] >= 'A' && b[0] <= 'Z')) return vzmissof(static_cast<char>(b[0]));
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
    if (vzismiss(value) || std::isnan(value)) {
        // A NaN that is not one of ours has no other form: it travels as ".".
        b[0] = static_cast<uint8_t>(vzismiss(value) ? vzmisschar(value) : '.');
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
    // Subnormal doubles lie far below the form's range and become 0; a zero
    // keeps its sign.
    b[0] = sign;
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

// Modular power scrambling. The modulus is a product of two primes just under
// 2^16, so every 24-bit group has a 32-bit image; the powers are a matching
// pair. The head group carries the text length, so a decoder can tell a
// damaged or cut text from a good one.
#include <cstring>
#include "hs/zcrypt.h"
#include "hs/hscmp.h"

namespace vrta {

namespace {

constexpr uint32_t ZMOD = 65521u * 65519u;  // 0xFFE000FF
constexpr uint32_t ZPOWENC = 65537u;
constexpr uint32_t ZPOWDEC = 1475213633u;
// Each group is first mixed with its position, so equal groups of text do
// not give equal groups of code.
constexpr uint32_t ZSTEP = 0x9E3779u;

inline uint32_t zmask(long i) { return static_cast<uint32_t>(i * ZSTEP) & 0xFFFFFFu; }

// A 64-bit value reduced by the modulus.
inline uint32_t zmod4(uint64_t v) { return static_cast<uint32_t>(v % ZMOD); }

}  // namespace

uint32_t zpowmod(uint32_t base, uint32_t power, uint32_t modulus) {
    uint64_t r = 1 % modulus, b = base % modulus;
    while (power) {
        if (power & 1) r = r * b % modulus;
        b = b * b % modulus;
        power >>= 1;
    }
    return static_cast<uint32_t>(r);
}

uint32_t zscode(uint32_t group, int decode) {
    if (decode) return zpowmod(zmod4(group), ZPOWDEC, ZMOD);
    return zpowmod(group & 0xFFFFFFu, ZPOWENC, ZMOD);
}

rctype zncrypt(const void* from, long len, void* to) {
    if (len < 0 || len > 0xFFFFFF) return HS_BADDATA;
    const unsigned char* in = static_cast<const unsigned char*>(from);
    unsigned char* out = static_cast<unsigned char*>(to);
    const long groups = zcryptlen(len) / 4;
    for (long g = 0; g < groups; ++g) {
        uint32_t v = 0;
        if (g == 0) {
            v = static_cast<uint32_t>(len);
        } else {
            for (long j = 0; j < 3; ++j) {
                const long at = (g - 1) * 3 + j;
                v = v << 8 | (at < len ? in[at] : 0u);
            }
        }
        const uint32_t c = zscode(v ^ zmask(g), 0);
        out[4 * g] = static_cast<unsigned char>(c >> 24);
        out[4 * g + 1] = static_cast<unsigned char>(c >> 16);
        out[4 * g + 2] = static_cast<unsigned char>(c >> 8);
        out[4 * g + 3] = static_cast<unsigned char>(c);
    }
    return 0;
}

rctype zdcrypt(const void* from, long clen, void* to, long tolen, long* len) {
    if (clen < 4 || clen % 4) return HS_BADDATA;
    const unsigned char* in = static_cast<const unsigned char*>(from);
    unsigned char* out = static_cast<unsigned char*>(to);
    auto group = [&](long g, uint32_t* v) {
        const uint32_t c = static_cast<uint32_t>(in[4 * g]) << 24 | static_cast<uint32_t>(in[4 * g + 1]) << 16 |
                           static_cast<uint32_t>(in[4 * g + 2]) << 8 | in[4 * g + 3];
        if (c >= ZMOD) return false;
        const uint32_t m = zscode(c, 1);
        if (m > 0xFFFFFFu) return false;
        *v = m ^ zmask(g);
        return true;
    };
    uint32_t n;
    if (!group(0, &n) || zcryptlen(n) != clen || static_cast<long>(n) > tolen) return HS_BADDATA;
    for (long g = 1; g < clen / 4; ++g) {
        uint32_t v;
        if (!group(g, &v)) return HS_BADDATA;
        for (long j = 0; j < 3; ++j) {
            const long at = (g - 1) * 3 + j;
            const unsigned char b = static_cast<unsigned char>(v >> (16 - 8 * j));
            if (at < static_cast<long>(n)) out[at] = b;
            else if (b != 0) return HS_BADDATA;  // padding must be zero
        }
    }
    *len = n;
    return 0;
}

rctype hsncryp(const void* from, long len, void* to) { return zncrypt(from, len, to); }
rctype hsdcryp(const void* from, long clen, void* to, long tolen, long* len) {
    return zdcrypt(from, clen, to, tolen, len);
}

}  // namespace vrta

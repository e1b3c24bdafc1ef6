// Block cipher of encrypted tables: a keyed stream of generator bytes laid
// over the text by exclusive or, several rounds deep. Every page of every
// table has its own seed, from the creation time, the page number and the key.
// Encryption and decryption are the same walk; the mode only says which.
#include <cmath>
#include <cstdio>
#include "hs/hscmp.h"
#include "hs/hs.h"

namespace vrta {

namespace {

constexpr uint32_t MOD31 = 0x7FFFFFFFu;

// x * a mod (2^31 - 1), folding the high bits down instead of dividing.
inline uint32_t mulmod31(uint32_t x, uint32_t a) {
    uint64_t p = static_cast<uint64_t>(x) * a;
    uint32_t r = static_cast<uint32_t>((p & MOD31) + (p >> 31));
    if (r >= MOD31) r -= MOD31;
    return r;
}

inline uint32_t rotl(uint32_t v, int n) { return (v << n) | (v >> (32 - n)); }

void dump(const unsigned char* p, long n) {
    char line[3 * 32 + 1];
    for (long off = 0; off < n && off < 256; off += 32) {
        int k = 0;
        for (long i = off; i < n && i < off + 32; ++i) k += std::snprintf(line + k, sizeof line - k, "%02x ", p[i]);
        line[k] = 0;
        hsprint("hsbenc: %04lx %s\n", off, line);
    }
}

}  // namespace

uint32_t hsran32(uint32_t* seed) {
    *seed = mulmod31(*seed, 16807u);
    return *seed;
}

uint32_t hsran32v6(uint32_t* seed) {
    *seed = mulmod31(*seed, 48271u);
    return *seed;
}

rctype hsbenc(HS_BENC* bp) {
    const double dt = bp->datetime;
    if (!(std::fabs(dt) < 4294967296.0)) {
        hsprint("hsbenc: Creation date/time too big to encrypt/decrypt!");
        return HS_BADDATA;
    }
    if (bp->mode != HS_ENC && bp->mode != HS_DEC) {
        hsprint("hsbenc: Mode must be HS_ENC or HS_DEC\n");
        return HS_BADDATA;
    }
    const unsigned char* k = reinterpret_cast<const unsigned char*>(bp->keybuf);
    bool blank = true;
    for (int i = 0; i < 12; ++i) blank = blank && k[i] == ' ';
    if (blank) return static_cast<rctype>(0x80000240u);
    if (bp->textlen < 0) return HS_BADDATA;
    if (bp->flags & HS_BENCTRACE) {
        hsprint("hsbenc: on entry, mode=%d textlen=%ld", bp->mode, bp->textlen);
        dump(bp->from, bp->textlen);
    }

    uint32_t seed = static_cast<uint32_t>(static_cast<int64_t>(dt));
    if (seed == 0) seed = 1;
    if (bp->pageno) seed *= static_cast<uint32_t>(bp->pageno);
    for (int i = 0; i < 4; ++i) seed *= k[i] ? k[i] : 1u;
    uint32_t sum = 0x6A09E667u;
    for (int i = 0; i < 4; ++i) {
        sum = rotl(sum, 7) + k[i];
        sum ^= static_cast<uint32_t>(k[i + 4]) << 11;
        sum += static_cast<uint32_t>(k[i + 8]) << 19;
        sum ^= sum >> 13;
    }
    seed *= sum | 1u;
    seed %= MOD31;
    if (seed == 0) seed = 1;

    int rounds = (k[0] & 0x0F) | 1;
    if (rounds < 3) rounds = 3;
    uint32_t (*gen)(uint32_t*) = (bp->flags & HS_BENCV6) ? hsran32v6 : hsran32;

    const long n = bp->textlen;
    unsigned char* to = bp->to;
    if (to != bp->from)
        for (long i = 0; i < n; ++i) to[i] = bp->from[i];
    for (int r = 0; r < rounds; ++r) {
        long i = 0;
        // Three bytes from each step: the low 24 of 31 generator bits.
        for (; i + 3 <= n; i += 3) {
            const uint32_t v = gen(&seed);
            to[i] ^= static_cast<unsigned char>(v);
            to[i + 1] ^= static_cast<unsigned char>(v >> 8);
            to[i + 2] ^= static_cast<unsigned char>(v >> 16);
        }
        if (i < n) {
            const uint32_t v = gen(&seed);
            for (int j = 0; i < n; ++i, ++j) to[i] ^= static_cast<unsigned char>(v >> (8 * j));
        }
    }
    if (bp->flags & HS_BENCTRACE) {
        hsprint("hsbenc: on exit, mode=%d textlen=%ld\n", bp->mode, bp->textlen);
        dump(bp->to, bp->textlen);
    }
    return 0;
}

}  // namespace vrta

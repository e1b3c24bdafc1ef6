// The network compression of row blocks: runs of blanks, NULs and other
// repeated bytes shrink to an escape (25) and a count; everything else goes
// as it stands. Rows are mostly padding, so this wins on the wire at little
// cost, and it never takes more than a few instructions a byte.
#include <cstring>

#include "eng/hpdo.h"

namespace vrta {

namespace {

constexpr unsigned char ESC = 25;
// Longest runs one escape says, and where each kind's counts start: a run
// of r bytes is written as the value r (blanks), 127 + r (NULs) or 191 + r
// (any other byte, which follows the value).
constexpr int MAXBLANK = 128;
constexpr int MAXNUL = 65;
constexpr int MAXREP = 62;

int runlen(const unsigned char* p, const unsigned char* end, int max) {
    int n = 1;
    while (p + n < end && n < max && p[n] == p[0]) ++n;
    return n;
}

int encode(unsigned char* out, const unsigned char* in, int outlen, int inlen) {
    const unsigned char* p = in;
    const unsigned char* end = in + inlen;
    unsigned char* o = out;
    unsigned char* oend = out + outlen;
    const unsigned char* lit = p;  // start of the bytes that go as they stand
    auto flush = [&](const unsigned char* upto) -> bool {
        for (; lit < upto; ++lit) {
            if (*lit == ESC) {
                if (oend - o < 2) return false;
                *o++ = ESC;
                *o++ = 0;
            } else {
                if (o == oend) return false;
                *o++ = *lit;
            }
        }
        return true;
    };
    while (p + 2 < end) {
        if (p[0] != p[1] || p[1] != p[2]) {
            ++p;
            continue;
        }
        if (!flush(p)) return -1;
        unsigned char c = p[0];
        int r = runlen(p, end, c == ' ' ? MAXBLANK : c == 0 ? MAXNUL : MAXREP);
        if (c == ' ' || c == 0) {
            if (oend - o < 2) return -1;
            *o++ = ESC;
            *o++ = static_cast<unsigned char>(c == ' ' ? r : 127 + r);
        } else {
            if (oend - o < 3) return -1;
            *o++ = ESC;
            *o++ = static_cast<unsigned char>(191 + r);
            *o++ = c;
        }
        p += r;
        lit = p;
    }
    if (!flush(end)) return -1;
    return static_cast<int>(o - out);
}

int decode(unsigned char* out, const unsigned char* in, int outlen, int inlen) {
    const unsigned char* p = in;
    const unsigned char* end = in + inlen;
    unsigned char* o = out;
    unsigned char* oend = out + outlen;
    while (p < end) {
        // Plain bytes up to the next escape in one copy.
        const auto* e = static_cast<const unsigned char*>(std::memchr(p, ESC, end - p));
        long n = (e ? e : end) - p;
        if (n > oend - o) return -1;
        std::memcpy(o, p, n);
        o += n;
        p += n;
        if (!e) break;
        if (end - p < 2) return -2;  // an escape cut off at the end of the block
        int v = p[1];
        p += 2;
        int count;
        unsigned char c;
        if (v == 0) {
            count = 1;
            c = ESC;
        } else if (v <= 129) {
            count = v;
            c = ' ';
        } else if (v <= 193) {
            count = v - 127;
            c = 0;
        } else {
            if (p == end) return -2;
            count = v - 191;
            c = *p++;
        }
        if (count > oend - o) return -1;
        std::memset(o, c, count);
        o += count;
    }
    return static_cast<int>(o - out);
}

}  // namespace

int hpzcmp1(int decompress, void* out, const void* in, int outlen, int inlen) {
    if (inlen < 0 || outlen < 0) return -1;
    auto* o = static_cast<unsigned char*>(out);
    const auto* i = static_cast<const unsigned char*>(in);
    return decompress ? decode(o, i, outlen, inlen) : encode(o, i, outlen, inlen);
}

}  // namespace vrta

// The two run-length coders of stored blocks. Both are byte exact: tables
// written by one build are read by every other, so every limit below is part
// of the format.
#include <cstring>
#include "hs/hscmp.h"

namespace vrta {

namespace {

using u8 = unsigned char;

constexpr u8 ESC = 25;

// Length of the run of equal bytes at p, counted up to cap.
inline long runlen(const u8* p, const u8* end, long cap) {
    const u8* q = p + 1;
    const u8* lim = (end - p > cap) ? p + cap : end;
    while (q < lim && *q == *p) ++q;
    return q - p;
}

long rcmp1_compress(u8* to, const u8* from, long tol, long froml) {
    const u8* ip = from;
    const u8* end = from + froml;
    u8* op = to;
    u8* oend = to + tol;
    while (ip < end) {
        const u8 c = *ip;
        const long cap = c == ' ' ? 129 : c == 0 ? 66 : 63;
        // Fewer than three bytes left cannot hold a run, so the last two
        // bytes of a block are always literals.
        long n = (end - ip >= 3) ? runlen(ip, end, cap) : 1;
        if (n >= 3) {
            if (c == ' ') {
                if (oend - op < 2) return -froml;
                *op++ = ESC;
                *op++ = static_cast<u8>(n);
            } else if (c == 0) {
                if (oend - op < 2) return -froml;
                *op++ = ESC;
                *op++ = static_cast<u8>(n + 127);
            } else {
                if (oend - op < 3) return -froml;
                *op++ = ESC;
                *op++ = static_cast<u8>(n + 191);
                *op++ = c;
            }
            ip += n;
        } else if (c == ESC) {
            if (oend - op < 2) return -froml;
            *op++ = ESC;
            *op++ = 0;
            ++ip;
        } else {
            if (op == oend) return -froml;
            *op++ = c;
            ++ip;
        }
    }
    return op - to;
}

long rcmp1_expand(u8* to, const u8* from, long tol, long froml) {
    const u8* ip = from;
    const u8* end = from + froml;
    u8* op = to;
    u8* oend = to + tol;
    while (ip < end) {
        if (op == oend) return -tol - (end - ip);
        const u8* tok = ip;
        u8 c = *ip++;
        if (c != ESC) {
            *op++ = c;
            continue;
        }
        if (ip == end) return -tol - (end - tok);  // escape cut off
        const u8 n = *ip++;
        long count;
        u8 val;
        if (n == 0) {
            count = 1;
            val = ESC;
        } else if (n <= 129) {
            count = n;
            val = ' ';
        } else if (n <= 193) {
            count = n - 127;
            val = 0;
        } else {
            if (ip == end) return -tol - (end - tok);
            count = n - 191;
            val = *ip++;
        }
        // A run longer than the room left is cut to fit.
        if (count > oend - op) count = oend - op;
        std::memset(op, val, static_cast<size_t>(count));
        op += count;
    }
    return op - to;
}

// Run length 2 ----------------------------------------------------------

inline bool special(u8 c) { return c == 0x20 || c == 0x40 || c == 0; }

// The longest run one token can carry.
constexpr long RL2_SPECMAX = 0xFFF + 17;   // 4112
constexpr long RL2_OTHERMAX = 0xFFF + 18;  // 4113
constexpr long RL2_LITMAX = 0x3FFF + 64;   // 16447

// Length of a run starting at p that is worth a run token, or 0. The last
// two bytes of a block never start one.
inline long rl2_run(const u8* p, const u8* end) {
    if (end - p <= 2) return 0;
    const u8 c = *p;
    if (special(c)) {
        if (p[1] != c) return 0;
        return runlen(p, end, RL2_SPECMAX);
    }
    if (p[1] != c || p[2] != c) return 0;
    return runlen(p, end, RL2_OTHERMAX);
}

long rcmp2_compress(u8* to, const u8* from, long tol, long froml) {
    const u8* ip = from;
    const u8* end = from + froml;
    u8* op = to;
    u8* oend = to + tol;
    while (ip < end) {
        long n = rl2_run(ip, end);
        if (n) {
            const u8 c = *ip;
            if (special(c)) {
                const u8 base = c == 0x40 ? 0x50 : c == 0x20 ? 0x60 : 0x70;
                if (n <= 17) {
                    if (op == oend) return -froml;
                    *op++ = static_cast<u8>(((base & 0x30) | 0xC0) + (n - 2));
                } else {
                    if (oend - op < 2) return -froml;
                    *op++ = static_cast<u8>(base | ((n - 17) >> 8));
                    *op++ = static_cast<u8>(n - 17);
                }
            } else if (n <= 18) {
                if (oend - op < 2) return -froml;
                *op++ = static_cast<u8>(0xC0 | (n - 3));
                *op++ = c;
            } else {
                if (oend - op < 3) return -froml;
                *op++ = static_cast<u8>(0x40 | ((n - 18) >> 8));
                *op++ = static_cast<u8>(n - 18);
                *op++ = c;
            }
            ip += n;
            continue;
        }
        // Literals up to the next run or the longest literal token.
        const u8* lp = ip + 1;
        while (lp < end && lp - ip < RL2_LITMAX && !rl2_run(lp, end)) ++lp;
        const long len = lp - ip;
        if (len == 1) {
            if (oend - op < 2) return -froml;
            *op++ = 0x80;
        } else if (len <= 64) {
            if (oend - op < 1 + len) return -froml;
            *op++ = static_cast<u8>(0x80 | (len - 1));
        } else {
            if (oend - op < 2 + len) return -froml;
            *op++ = static_cast<u8>((len - 64) >> 8);
            *op++ = static_cast<u8>(len - 64);
        }
        std::memcpy(op, ip, static_cast<size_t>(len));
        op += len;
        ip = lp;
    }
    return op - to;
}

long rcmp2_expand(u8* to, const u8* from, long tol, long froml) {
    const u8* ip = from;
    const u8* end = from + froml;
    u8* op = to;
    u8* oend = to + tol;
    auto bad = [&](const u8* at) { return -tol - (end - at) - 1; };
    while (ip < end && op < oend) {
        const u8* tok = ip;
        const u8 t = *ip++;
        long count;
        int val = -1;  // -1: literal bytes follow
        if (t >= 0x80) {
            if (t == 0x80) count = 1;
            else if (t < 0xC0) count = (t & 0x7F) + 1;
            else if (t < 0xD0) {
                count = (t & 0x0F) + 3;
                if (ip == end) return bad(tok);
                val = *ip++;
            } else {
                count = (t & 0x0F) + 2;
                val = t < 0xE0 ? 0x40 : t < 0xF0 ? 0x20 : 0;
            }
        } else {
            if (ip == end) return bad(tok);
            const long len = ((t & 0x3F) << 8 | *ip++);
            if (t < 0x40) count = len + 64;
            else if (t < 0x50) {
                count = ((t & 0x0F) << 8 | (len & 0xFF)) + 18;
                if (ip == end) return bad(tok);
                val = *ip++;
            } else {
                count = ((t & 0x0F) << 8 | (len & 0xFF)) + 17;
                val = t < 0x60 ? 0x40 : t < 0x70 ? 0x20 : 0;
            }
        }
        const long room = oend - op;
        if (val < 0) {
            // Literal data must be complete in the input; a cut at the
            // output end leaves the rest as unused input.
            if (end - ip < count) return bad(tok);
            const long n = count < room ? count : room;
            std::memcpy(op, ip, static_cast<size_t>(n));
            op += n;
            ip += n;
            if (n < count) break;
        } else {
            const long n = count < room ? count : room;
            std::memset(op, val, static_cast<size_t>(n));
            op += n;
        }
    }
    if (ip < end) return -tol - (end - ip);
    return op - to;
}

}  // namespace

long hsrcmp1(int mode, void* pto, const void* pfrom, long tol, long froml) {
    if (tol < 0 || froml < 0) return -1;
    if (mode == 0) return rcmp1_compress(static_cast<u8*>(pto), static_cast<const u8*>(pfrom), tol, froml);
    return rcmp1_expand(static_cast<u8*>(pto), static_cast<const u8*>(pfrom), tol, froml);
}

long hsrcmp2(int mode, void* pto, const void* pfrom, long tol, long froml) {
    if (tol < 0 || froml < 0) return -1;
    if (mode == 0) return rcmp2_compress(static_cast<u8*>(pto), static_cast<const u8*>(pfrom), tol, froml);
    return rcmp2_expand(static_cast<u8*>(pto), static_cast<const u8*>(pfrom), tol, froml);
}

}  // namespace vrta

// The run-time helpers. Generated code runs with floating-point traps
// armed; a helper that does any floating-point work (a compare of a NaN is
// enough) masks them for its own time, so that only the instruction that was
// asked for can trap.
// Helpers hold nothing with a destructor: a trap may leave them by longjmp.
#include "ssup/vghelp.h"
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <xmmintrin.h>
#include "hs/hsgcb.h"
#include "hs/zrt.h"
#include "ssubs/vz.h"
#include "ssup/wg.h"

namespace vrta {

namespace {

unsigned fpmask() {
    unsigned saved = _mm_getcsr();
    _mm_setcsr((saved | 0x1F80u) & ~0x3Fu);
    return saved;
}
void fpunmask(unsigned saved) { _mm_setcsr(saved); }

bool lenok(long n) { return n >= 1 && n <= 8; }

// A native number of len high bytes, as a double.
double getnum(const void* src, long len) {
    double d;
    hsrftrc(src, static_cast<int>(len), &d);
    return d;
}
void putnum(void* dst, long len, double d) { hscftrc(dst, static_cast<int>(len), d); }

// EBCDIC codes of the characters that mark missing values.
unsigned char toebcdic(unsigned char c) {
    if (c == '.') return 0x4B;
    if (c == '_') return 0x6D;
    if (c >= 'A' && c <= 'I') return static_cast<unsigned char>(0xC1 + (c - 'A'));
    if (c >= 'J' && c <= 'R') return static_cast<unsigned char>(0xD1 + (c - 'J'));
    if (c >= 'S' && c <= 'Z') return static_cast<unsigned char>(0xE2 + (c - 'S'));
    return 0;
}
unsigned char fromebcdic(unsigned char e) {
    for (int c = 0; c < 128; c++)
        if (toebcdic(static_cast<unsigned char>(c)) == e && e) return static_cast<unsigned char>(c);
    return 0;
}

bool tailzero(const unsigned char* b, long n) {
    for (long i = 1; i < n; i++)
        if (b[i]) return false;
    return true;
}

uint64_t getle(const void* src, long len, bool sign) {
    const auto* p = static_cast<const unsigned char*>(src);
    uint64_t u = 0;
    for (long i = len - 1; i >= 0; i--) u = (u << 8) | p[i];
    if (sign && len < 8 && ((u >> (len * 8 - 1)) & 1)) u |= ~0ull << (len * 8);
    return u;
}
void putle(void* dst, long len, uint64_t v) {
    auto* p = static_cast<unsigned char*>(dst);
    for (long i = 0; i < len; i++) {
        p[i] = static_cast<unsigned char>(v);
        v >>= 8;
    }
}

// Vectors may lie at any address.
double at(const void* v, long i) {
    double d;
    memcpy(&d, static_cast<const char*>(v) + 8 * i, 8);
    return d;
}

bool truth(double d) {
    uint64_t b = std::bit_cast<uint64_t>(d);
    return (b << 1) != 0 && !vzismiss(d);
}

void blankmove(const void* src, long sl, void* dst, long dl, int pad, bool upcase) {
    if (dl <= 0) return;
    if (sl < 0) sl = 0;
    const auto* s = static_cast<const unsigned char*>(src);
    auto* d = static_cast<unsigned char*>(dst);
    long n = sl < dl ? sl : dl;
    for (long i = 0; i < n; i++) {
        unsigned char c = s[i];
        if (upcase && c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 32);
        d[i] = c;
    }
    for (long i = n; i < dl; i++) d[i] = static_cast<unsigned char>(pad);
}

long areacmp(const void* a, long al, const void* b, long bl, const unsigned char* table) {
    const auto* x = static_cast<const unsigned char*>(a);
    const auto* y = static_cast<const unsigned char*>(b);
    if (al < 0) al = 0;
    if (bl < 0) bl = 0;
    long n = al > bl ? al : bl;
    for (long i = 0; i < n; i++) {
        unsigned c = i < al ? x[i] : ' ';
        unsigned e = i < bl ? y[i] : ' ';
        if (table) {
            c = table[c];
            e = table[e];
        }
        if (c != e) return c < e ? -1 : 1;
    }
    return 0;
}

// Which of a and b MIN_ (want_max false) or MAX_ keeps: missing values only
// when both are missing, then a.
double pick(double a, double b, bool want_max) {
    bool am = vzismiss(a), bm = vzismiss(b);
    if (am && bm) return a;
    if (am) return b;
    if (bm) return a;
    unsigned long ka = vgcollkey(std::bit_cast<unsigned long>(a));
    unsigned long kb = vgcollkey(std::bit_cast<unsigned long>(b));
    if (want_max) return ka >= kb ? a : b;
    return ka <= kb ? a : b;
}

}  // namespace

unsigned long vgcollkey(unsigned long bits) {
    return bits ^ ((bits >> 63) ? ~0ul : 1ul << 63);
}

// ------------------------------------------------------------ doubles

long vvgctdbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned saved = fpmask();
    zctdbl(getnum(src, sl), dst, static_cast<int>(dl));
    fpunmask(saved);
    return 0;
}

long vvgrtdbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    putnum(dst, dl, zrtdbl(src, static_cast<int>(sl)));
    return 0;
}

long vvgcidbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned char b[8];
    unsigned saved = fpmask();
    zctdbl(getnum(src, sl), b, 8);
    fpunmask(saved);
    if (tailzero(b, 8) && (b[0] & 0x7F) && toebcdic(b[0])) b[0] = toebcdic(b[0]);
    memcpy(dst, b, dl);
    return 0;
}

long vvgridbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned char b[8] = {};
    memcpy(b, src, sl);
    if (tailzero(b, 8) && fromebcdic(b[0])) b[0] = fromebcdic(b[0]);
    else if (tailzero(b, 8)) b[0] &= 0x80;  // an EBCDIC host's zero, of either sign
    putnum(dst, dl, zrtdbl(b, 8));
    return 0;
}

// VAX D-floating: sign, 8-bit exponent with bias 128, a 55-bit fraction
// after a hidden leading 1 (0.1f), in four little-endian 16-bit words of
// which the first holds sign and exponent. Sign with exponent 0 is the
// reserved operand: our missing values, the letter in the last byte.
long vvgcvdbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    double d = getnum(src, sl);
    uint64_t bits = std::bit_cast<uint64_t>(d);
    uint64_t v = 0;  // the D value as one 64-bit number, word 0 on top
    int e = static_cast<int>((bits >> 52) & 0x7FF);
    uint64_t s = bits >> 63;
    if (vzismiss(d) || (e == 0x7FF && (bits & ((1ull << 52) - 1)))) {
        v = (1ull << 63) | static_cast<unsigned char>(vzismiss(d) ? vzmisschar(d) : '.');
    } else if (e == 0x7FF || e - 894 > 255) {
        v = (s << 63) | (255ull << 55) | ((1ull << 55) - 1);  // the largest magnitude
    } else if (e - 894 >= 1) {
        v = (s << 63) | (static_cast<uint64_t>(e - 894) << 55) | ((bits & ((1ull << 52) - 1)) << 3);
    }
    unsigned char b[8];
    for (int w = 0; w < 4; w++) {
        unsigned word = static_cast<unsigned>((v >> (48 - 16 * w)) & 0xFFFF);
        b[2 * w] = static_cast<unsigned char>(word);
        b[2 * w + 1] = static_cast<unsigned char>(word >> 8);
    }
    memcpy(dst, b, dl);
    return 0;
}

long vvgrvdbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned char b[8] = {};
    memcpy(b, src, sl);
    uint64_t v = 0;
    for (int w = 0; w < 4; w++) v = (v << 16) | (static_cast<uint64_t>(b[2 * w + 1]) << 8) | b[2 * w];
    int e = static_cast<int>((v >> 55) & 0xFF);
    uint64_t s = v >> 63;
    double d;
    if (e == 0) {
        d = s ? vzmissof(static_cast<char>(v & 0xFF)) : 0.0;
    } else {
        uint64_t bits = (s << 63) | (static_cast<uint64_t>(e + 894) << 52) | ((v >> 3) & ((1ull << 52) - 1));
        d = std::bit_cast<double>(bits);
    }
    putnum(dst, dl, d);
    return 0;
}

// IEEE doubles of another host: little-endian when the format says so.
long vvgcedbl(const void* src, long sl, void* dst, long dl, long fmt) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    uint64_t bits = std::bit_cast<uint64_t>(getnum(src, sl));
    auto* d = static_cast<unsigned char*>(dst);
    for (long i = 0; i < dl; i++) {
        unsigned char c = static_cast<unsigned char>(bits >> (56 - 8 * i));
        if (fmt & (WG_FLITTLE | WG_FNT)) d[dl - 1 - i] = c;
        else d[i] = c;
    }
    return 0;
}

long vvgredbl(const void* src, long sl, void* dst, long dl, long fmt) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    const auto* p = static_cast<const unsigned char*>(src);
    uint64_t bits = 0;
    for (long i = 0; i < sl; i++) {
        unsigned char c = (fmt & (WG_FLITTLE | WG_FNT)) ? p[sl - 1 - i] : p[i];
        bits |= static_cast<uint64_t>(c) << (56 - 8 * i);
    }
    putnum(dst, dl, std::bit_cast<double>(bits));
    return 0;
}

// ------------------------------------------------------------ integers

long vvgnbint(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) putle(dst, dl, getle(src, sl, true));
    return 0;
}
long vvgnbinu(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) putle(dst, dl, getle(src, sl, false));
    return 0;
}
long vvgbsint(const void* src, long sl, void* dst, long dl, long fmt) { return vvgnbint(src, sl, dst, dl, fmt); }
long vvgbsinu(const void* src, long sl, void* dst, long dl, long fmt) { return vvgnbinu(src, sl, dst, dl, fmt); }
long vvgsrtint(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) zctint(static_cast<int64_t>(getle(src, sl, true)), dst, static_cast<int>(dl));
    return 0;
}
long vvgsrtinu(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) zctinu(getle(src, sl, false), dst, static_cast<int>(dl));
    return 0;
}
long vvgsctint(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) putle(dst, dl, static_cast<uint64_t>(zrtint(src, static_cast<int>(sl))));
    return 0;
}
long vvgsctinu(const void* src, long sl, void* dst, long dl, long) {
    if (lenok(sl) && lenok(dl)) putle(dst, dl, zrtinu(src, static_cast<int>(sl)));
    return 0;
}

// ------------------------------------------------------------ characters

long vvgtxxlt(const void* src, long sl, void* dst, long dl, long table) {
    if (dl <= 0) return 0;
    if (sl < 0) sl = 0;
    const auto* t = reinterpret_cast<const unsigned char*>(table);
    const auto* s = static_cast<const unsigned char*>(src);
    auto* d = static_cast<unsigned char*>(dst);
    long n = sl < dl ? sl : dl;
    for (long i = 0; i < n; i++) d[i] = t ? t[s[i]] : s[i];
    unsigned char pad = t ? t[' '] : ' ';
    for (long i = n; i < dl; i++) d[i] = pad;
    return 0;
}

long vvgmvch(const void* src, long sl, void* dst, long dl, long) {
    blankmove(src, sl, dst, dl, ' ', false);
    return 0;
}
long vvgmvchar(const void* src, long sl, void* dst, long dl, long pad) {
    blankmove(src, sl, dst, dl, static_cast<int>(pad & 0xFF), false);
    return 0;
}
long vvgnechup(const void* src, long sl, void* dst, long dl, long) {
    blankmove(src, sl, dst, dl, ' ', true);
    return 0;
}
long vvgeqchup(const void* src, long sl, void* dst, long dl, long) {
    blankmove(src, sl, dst, dl, ' ', true);
    return 0;
}

long vvgmvdbl(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned char b[8] = {};
    memcpy(b + 8 - sl, src, sl);
    memcpy(dst, b + 8 - dl, dl);
    return 0;
}

long vvgxtoyup(const void* src, long sl, void* dst, long dl, long) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned char b[8] = {};
    memcpy(b + 8 - sl, src, sl);
    for (unsigned char& c : b)
        if (c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 32);
    memcpy(dst, b + 8 - dl, dl);
    return 0;
}

long vvgpadb(const void*, long used, void* dst, long dl, long pad) {
    if (dl <= 0 || used < 0 || used > dl) return 0;
    memset(static_cast<char*>(dst) + used, static_cast<int>(pad & 0xFF), dl - used);
    return 0;
}

long vvgexpand(const void*, long, void* dst, long dl, long byte) {
    if (dl > 0) memset(dst, static_cast<int>(byte & 0xFF), dl);
    return 0;
}

// ------------------------------------------------------------ collation

namespace {

long coll(const void* src, long sl, void* dst, long dl, bool desc) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    unsigned long k = vgcollkey(std::bit_cast<unsigned long>(getnum(src, sl)));
    if (desc) k = ~k;
    auto* d = static_cast<unsigned char*>(dst);
    for (long i = 0; i < dl; i++) d[i] = static_cast<unsigned char>(k >> (56 - 8 * i));
    return 0;
}

long decoll(const void* src, long sl, void* dst, long dl, bool desc) {
    if (!lenok(sl) || !lenok(dl)) return 0;
    const auto* p = static_cast<const unsigned char*>(src);
    unsigned long k = 0;
    for (long i = 0; i < 8; i++) k |= static_cast<unsigned long>(i < sl ? p[i] : (desc ? 0xFF : 0)) << (56 - 8 * i);
    if (desc) k = ~k;
    unsigned long bits = k ^ ((k >> 63) ? 1ul << 63 : ~0ul);
    putnum(dst, dl, std::bit_cast<double>(bits));
    return 0;
}

}  // namespace

long vvgmvcoll(const void* src, long sl, void* dst, long dl, long) { return coll(src, sl, dst, dl, false); }
long vvgmvcolldesc(const void* src, long sl, void* dst, long dl, long) { return coll(src, sl, dst, dl, true); }
long vvgmvdecoll(const void* src, long sl, void* dst, long dl, long) { return decoll(src, sl, dst, dl, false); }
long vvgmvdecolldesc(const void* src, long sl, void* dst, long dl, long) { return decoll(src, sl, dst, dl, true); }

long vvgmvcollarea(const void* src, long sl, void* dst, long dl, long flags) {
    blankmove(src, sl, dst, dl, ' ', false);
    if ((flags & 1) && dl > 0) {
        auto* d = static_cast<unsigned char*>(dst);
        for (long i = 0; i < dl; i++) d[i] = static_cast<unsigned char>(~d[i]);
    }
    return 0;
}

// ------------------------------------------------------------ strings

long vvgcatf(const void* src, long sl, void* dst, long dl, long used) {
    if (dl < 0 || used < 0 || used > dl) return used;
    if (sl < 0) sl = 0;
    long n = sl < dl - used ? sl : dl - used;
    const auto* s = static_cast<const unsigned char*>(src);
    auto* d = static_cast<unsigned char*>(dst) + used;
    for (long i = 0; i < n; i++) d[i] = s[i];
    return used + n;
}

long vvgcatv(const void* src, long sl, void* dst, long dl, long used) {
    const auto* s = static_cast<const unsigned char*>(src);
    while (sl > 0 && s[sl - 1] == ' ') sl--;
    return vvgcatf(src, sl, dst, dl, used);
}

long vvgcmps(const void* a, long al, void* b, long bl, long) { return areacmp(a, al, b, bl, nullptr); }
long vvgcmpst(const void* a, long al, void* b, long bl, long table) {
    return areacmp(a, al, b, bl, reinterpret_cast<const unsigned char*>(table));
}

long vvgmaxv(const void* src, long sl, void* dst, long dl, long) {
    if (areacmp(src, sl, dst, dl, nullptr) > 0) blankmove(src, sl, dst, dl, ' ', false);
    return 0;
}
long vvgminv(const void* src, long sl, void* dst, long dl, long) {
    if (areacmp(src, sl, dst, dl, nullptr) < 0) blankmove(src, sl, dst, dl, ' ', false);
    return 0;
}
long vvgmaxf(const void* src, long sl, void* dst, long dl, long x) { return vvgmaxv(src, sl, dst, dl, x); }
long vvgminf(const void* src, long sl, void* dst, long dl, long x) { return vvgminv(src, sl, dst, dl, x); }

// ------------------------------------------------------------ vectors

long vvgandr(const void* v, long n, void*, long, long) {
    for (long i = 0; i < n; i++)
        if (!truth(at(v, i))) return 0;
    return 1;
}
long vvgorr(const void* v, long n, void*, long, long) {
    for (long i = 0; i < n; i++)
        if (truth(at(v, i))) return 1;
    return 0;
}
long vvgandrn(const void* v, long n, void*, long, long) {
    for (long i = 0; i < n; i++)
        if (truth(at(v, i))) return 0;
    return 1;
}
long vvgorrn(const void* v, long n, void*, long, long) {
    for (long i = 0; i < n; i++)
        if (!truth(at(v, i))) return 1;
    return 0;
}

double vvgminr(const void* v, long n, void*, long, long) {
    if (n <= 0) return VZ_MISSING;
    double m = at(v, 0);
    for (long i = 1; i < n; i++) m = pick(m, at(v, i), false);
    return m;
}
double vvgmaxr(const void* v, long n, void*, long, long) {
    if (n <= 0) return VZ_MISSING;
    double m = at(v, 0);
    for (long i = 1; i < n; i++) m = pick(m, at(v, i), true);
    return m;
}

long vvgcmpr(const void* a, long an, void* b, long bn, long) {
    if (an < 0) an = 0;
    if (bn < 0) bn = 0;
    long n = an < bn ? an : bn;
    for (long i = 0; i < n; i++) {
        unsigned long kx = vgcollkey(std::bit_cast<unsigned long>(at(a, i)));
        unsigned long ky = vgcollkey(std::bit_cast<unsigned long>(at(b, i)));
        if (kx != ky) return kx < ky ? -1 : 1;
    }
    return an == bn ? 0 : an < bn ? -1 : 1;
}

// ------------------------------------------------------------ numbers and text

long vvgn2t(const void* bits, long, void* dst, long dl, long) {
    if (dl <= 0) return 0;
    double v;
    memcpy(&v, &bits, 8);
    auto* d = static_cast<char*>(dst);
    char text[40];
    int n = 0;
    if (vzismiss(v)) {
        text[0] = vzmisschar(v);
        n = 1;
    } else {
        unsigned saved = fpmask();
        for (int prec = 15; prec >= 1; prec--) {
            n = snprintf(text, sizeof(text), "%.*g", prec, v);
            if (n <= dl) break;
        }
        fpunmask(saved);
    }
    if (n > dl) {
        memset(d, '*', dl);
        return 0;
    }
    memset(d, ' ', dl - n);
    memcpy(d + dl - n, text, n);
    return 0;
}

double vvgt2n(const void* src, long sl, void*, long, long) {
    const auto* s = static_cast<const char*>(src);
    if (sl < 0) sl = 0;
    long b = 0, e = sl;
    while (b < e && s[b] == ' ') b++;
    while (e > b && s[e - 1] == ' ') e--;
    long n = e - b;
    if (n == 0) return VZ_MISSING;
    if (n == 1 && (s[b] == '.' || s[b] == '_' || (s[b] >= 'A' && s[b] <= 'Z'))) return vzmissof(s[b] == '.' ? ' ' : s[b]);
    if (n > 63) return VZ_MISSING;
    char text[64];
    memcpy(text, s + b, n);
    text[n] = '\0';
    unsigned saved = fpmask();
    char* end = nullptr;
    int olderr = errno;
    errno = 0;
    double v = strtod(text, &end);
    bool bad = end != text + n || (errno == ERANGE && std::fabs(v) > 1.0) || std::isnan(v) || std::isinf(v);
    errno = olderr;
    fpunmask(saved);
    return bad ? VZ_MISSING : v;
}

long vvgcvlr(double v) {
    unsigned saved = fpmask();
    long r = v >= -9223372036854775808.0 && v < 9223372036854775808.0 ? std::lrint(v) : INT64_MIN;
    fpunmask(saved);
    return r;
}

double vvgdiv(double a, double b) {
    if (vzismiss(a)) return a;
    if (vzismiss(b)) return b;
    unsigned saved = fpmask();
    double r = b == 0.0 ? VZ_MISSING : a / b;
    if (std::isnan(r) || (std::isinf(r) && std::isfinite(a))) r = VZ_MISSING;
    fpunmask(saved);
    return r;
}

double vvgmodr(double a, double b) {
    if (vzismiss(a)) return a;
    if (vzismiss(b)) return b;
    unsigned saved = fpmask();
    double r = b == 0.0 ? VZ_MISSING : std::fmod(a, b);
    if (std::isnan(r)) r = VZ_MISSING;
    fpunmask(saved);
    return r;
}

VGHELP vgtranshelper(int type, long fsrc, long fdst, unsigned long modifier) {
    bool sn = fsrc & WG_FNATIVE, dn = fdst & WG_FNATIVE;
    bool u = modifier & WG_MUNSIGNED;
    if (type == WG_TDBL) {
        if (sn == dn) return nullptr;
        long other = sn ? fdst : fsrc;
        if (other & WG_FXPORT) return sn ? vvgctdbl : vvgrtdbl;
        if (other & WG_FIBM) return sn ? vvgcidbl : vvgridbl;
        if (other & WG_FVAX) return sn ? vvgcvdbl : vvgrvdbl;
        return sn ? vvgcedbl : vvgredbl;
    }
    if (type == WG_TINTCV) {
        if (sn && dn) return u ? vvgnbinu : vvgnbint;
        if (!sn && !dn) return nullptr;
        long other = sn ? fdst : fsrc;
        if (other & WG_FLITTLE) return u ? vvgbsinu : vvgbsint;
        if (sn) return u ? vvgsrtinu : vvgsrtint;
        return u ? vvgsctinu : vvgsctint;
    }
    return vvgtxxlt;
}

}  // namespace vrta

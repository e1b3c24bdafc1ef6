// Seeded random programs over every opcode, for the comparisons with the
// reference interpreter and for reading generated code back: the objects
// they use, the areas they point into and the generator of the programs.
#pragma once
#include <bit>
#include <cmath>
#include <csetjmp>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>
#include "ssup/vgint.h"
#include "wgref.h"

namespace wgprog {

using namespace vrta;

constexpr int NI = 8, ND = 8, NC = 4, NL = 2, NU = 2, NA = 2, NO = 2;
constexpr int OI = 0, OD = OI + NI, OC = OD + ND, OL = OC + NC, OU = OL + NL, OA = OU + NU, OO = OA + NA, NSEG0 = OO + NO;
constexpr int NP = 8, NKI = 4, NKD = 4, NLEN = 4;
constexpr int KP = 0, KI = KP + NP, KD = KI + NKI, KLEN = KD + NKD, NSEG1 = KLEN + NLEN;
constexpr int AREA = 256, BUFSZ = NP * AREA;

alignas(16) inline unsigned char buf[BUFSZ];
alignas(16) inline unsigned char upper[256];
alignas(16) inline unsigned char collate[256];

inline int exceptmode = 0;
// What the programs exercised, so that the comparison is known to cover it.
inline int opseen[WG_NOPCODES];
inline int causeseen[6];

inline int testexcept(int cause, double* result, jmp_buf**, void**) {
    if (cause >= 0 && cause < 6) causeseen[cause]++;
    if (exceptmode == 2) return -1;
    if (exceptmode == 1 && cause == 5) return 900 + cause;
    *result = vzmissof(static_cast<char>('A' + cause));
    return 0;
}

inline long testfi(long a, long b, long c, long d, long e, double x, double y, double z, double w) {
    uint64_t v = static_cast<uint64_t>(a) * 3 + static_cast<uint64_t>(b) - static_cast<uint64_t>(c) * 5 +
                 static_cast<uint64_t>(d ^ e) + (std::bit_cast<uint64_t>(x) >> 3) - (std::bit_cast<uint64_t>(y) >> 7) +
                 (std::bit_cast<uint64_t>(z) & 0xFF) + (std::bit_cast<uint64_t>(w) & 0xF0);
    return static_cast<long>(v);
}

inline double testfd(long a, long b, long, long, long, double x, double y, double z, double w) {
    if (vzismiss(x) || vzismiss(y)) return VZ_MISSING;
    return x + y * 2 - z + w * 0.5 + static_cast<double>(static_cast<long>(static_cast<unsigned long>(a) - static_cast<unsigned long>(b)));
}

inline objloc o0(int i) { return static_cast<objloc>(8 * i); }
inline objloc o1(int i) { return WG_CONSTSEG | static_cast<objloc>(8 * i); }

struct Prog {
    std::vector<wgref::Inst> code;
    std::vector<uint64_t> seg0, seg1;
};

// ---------------------------------------------------------------- programs

class Gen {
public:
    explicit Gen(unsigned seed) : rng(seed) {}

    Prog make() {
        p = Prog{};
        for (int i = 0; i < NI; i++) p.seg0.push_back(static_cast<uint64_t>(anyint()));
        for (int i = 0; i < ND; i++) p.seg0.push_back(anydbl());
        for (int i = 0; i < NC + NL; i++) p.seg0.push_back(0);
        for (int i = 0; i < NU; i++) p.seg0.push_back(static_cast<uint64_t>(pick(-3, 60)));
        for (int i = 0; i < NA; i++) p.seg0.push_back(reinterpret_cast<uint64_t>(buf + AREA * pick(0, NP - 1)));
        for (int i = 0; i < NO; i++) p.seg0.push_back(static_cast<uint64_t>(pick(0, 40)));
        for (int i = 0; i < NP; i++) p.seg1.push_back(reinterpret_cast<uint64_t>(buf + AREA * i));
        for (int i = 0; i < NKI; i++) p.seg1.push_back(static_cast<uint64_t>(anyint()));
        for (int i = 0; i < NKD; i++) p.seg1.push_back(anydbl());
        const long lens[NLEN] = {0, 3, 8, 17};
        for (long l : lens) p.seg1.push_back(static_cast<uint64_t>(l));
        nsub = pick(0, 3);
        for (int k = 0; k < nsub; k++) subs.push_back(newlabel());
        sublevel = -1;
        block(pick(20, 60), 0);
        emit(TERM_, WG_TINT, 0, o0(OI + pick(0, NI - 1)), 0, 0);
        for (int k = 0; k < nsub; k++) {
            sublevel = k;
            emit(LABEL_, WG_TINT, 0, 0, 0, subs[k]);
            block(pick(3, 15), 0);
            emit(RET_, WG_TINT, 0, 0, o0(OI + pick(0, NI - 1)), 0);
        }
        return p;
    }

private:
    std::mt19937_64 rng;
    Prog p;
    std::vector<unsigned long> subs;
    std::set<unsigned long> used;
    int nsub = 0, sublevel = -1, loops = 0;

    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    bool coin(int pct) { return pick(1, 100) <= pct; }
    unsigned long newlabel() {
        unsigned long id;
        do id = rng(); while (!used.insert(id).second);
        return id;
    }

    long anyint() {
        static const long v[] = {0, 1, -1, 2, 3, 7, -7, 100, INT64_MAX, INT64_MIN, 1L << 32, -(1L << 40), 12345678};
        if (coin(20)) return static_cast<long>(rng());
        return v[pick(0, sizeof(v) / sizeof(v[0]) - 1)];
    }
    uint64_t anydbl() {
        static const double v[] = {0.0, -0.0, 1.0, -2.5, 3.75, 1e308, -1e308, 1e-310, 0.5, 1e300, -7.0, 65536.0, 1e-300};
        switch (pick(0, 12)) {
        case 0: return std::bit_cast<uint64_t>(VZ_MISSING);
        case 1: return std::bit_cast<uint64_t>(vzmissof(static_cast<char>('A' + pick(0, 25))));
        case 2: return std::bit_cast<uint64_t>(vzmissof('_'));
        case 3: return std::bit_cast<uint64_t>(coin(50) ? HUGE_VAL : -HUGE_VAL);
        case 4: return coin(50) ? 0xFFF8000000000000ull : 0x7FF0000000000001ull;
        case 5: return std::bit_cast<uint64_t>(std::uniform_real_distribution<double>(-1e6, 1e6)(rng));
        default: return std::bit_cast<uint64_t>(v[pick(0, sizeof(v) / sizeof(v[0]) - 1)]);
        }
    }

    void emit(int op, int type, unsigned long mod, unsigned long a, unsigned long b, unsigned long r) {
        opseen[op]++;
        p.code.push_back({op, type, mod, r, a, b});
    }

    // Operands: an object of a pool, a constant object, or an immediate.
    struct Opd {
        unsigned long v;
        bool imm;
    };
    Opd iopd() {
        int k = pick(0, 9);
        if (k < 6) return {o0(OI + pick(0, NI - 1)), false};
        if (k < 8) return {o1(KI + pick(0, NKI - 1)), false};
        return {static_cast<unsigned long>(coin(70) ? pick(-9, 70) : anyint()), true};
    }
    Opd dopd() {
        int k = pick(0, 9);
        if (k < 6) return {o0(OD + pick(0, ND - 1)), false};
        if (k < 8) return {o1(KD + pick(0, NKD - 1)), false};
        if (k < 9) return {anydbl(), true};
        return {o0(OI + pick(0, NI - 1)), false};  // bits of an integer, read as a double
    }
    Opd opd(bool dbl) { return dbl ? dopd() : iopd(); }
    unsigned long ires() { return o0(OI + pick(0, NI - 1)); }
    // The result object read as an operand too, where register reuse is
    // easiest to get wrong.
    void alias(unsigned long r, Opd& a, Opd& b) {
        if (coin(15)) a = {r, false};
        if (coin(15)) b = {r, false};
        if (coin(5)) b = a;
    }
    unsigned long dres() { return coin(90) ? o0(OD + pick(0, ND - 1)) : ires(); }
    unsigned long mods(Opd a, Opd b) { return (a.imm ? WG_MIMMA : 0) | (b.imm ? WG_MIMMB : 0); }
    int itype() { return coin(50) ? WG_TINT : WG_TPTR; }

    // An area: an address (immediate or constant object) and a length.
    Opd areaaddr(int maxlen) {
        int k = pick(0, NP - 1);
        if (coin(50)) return {o1(KP + k), false};
        return {reinterpret_cast<unsigned long>(buf + AREA * k + pick(0, AREA - 1 - maxlen)), true};
    }
    Opd arealen(int lo, int hi) {
        if (coin(25)) return {o1(KLEN + pick(0, NLEN - 1)), false};
        return {static_cast<unsigned long>(pick(lo, hi)), true};
    }
    void iparm(Opd a, Opd b, int type = WG_TINT) { emit(IPARM_, type, mods(a, b), a.v, b.v, 0); }
    void area(int lo, int hi) {
        Opd a = areaaddr(hi > 64 ? hi : 64);
        iparm(a, arealen(lo, hi));
    }

    // A field's address built as a row conversion builds it: a base plus an
    // offset object, then constants added, then used as an area, as a
    // number, or left for the next label or branch to write back. The same
    // sum again, after one of its parts changed or not, is the next column.
    void addresses(std::vector<unsigned long>& pending) {
        unsigned long pa = o0(OA + pick(0, NA - 1)), pb = o0(OA + pick(0, NA - 1));
        unsigned long off = o0(OO + pick(0, NO - 1));
        int type = coin(50) ? WG_TCHAR : WG_TPTR;
        auto add = [&](unsigned long from, int hi, unsigned long to) {
            emit(ADDR_, type, WG_MIMMB, from, static_cast<unsigned long>(pick(0, hi)), to);
        };
        auto newoff = [&] { emit(MOV_, WG_TPTR, WG_MIMMA, static_cast<unsigned long>(pick(0, 40)), 0, off); };
        bool varbase = coin(30);
        unsigned long base = o1(KP + pick(0, NP - 1));
        if (varbase) {
            base = pb;
            emit(MOV_, WG_TPTR, WG_MIMMA, reinterpret_cast<unsigned long>(buf + AREA * pick(0, NP - 1)), 0, pb);
            if (coin(50)) add(pb, 8, pb);
        }
        if (coin(20)) newoff();
        emit(ADDR_, type, 0, base, off, pa);
        for (int k = pick(0, 3); k > 0; k--) add(pa, 32, pa);
        if (coin(30)) {
            int k = pick(0, 2);
            if (k == 0 && varbase) add(pb, 8, pb);
            if (k == 1) newoff();
            if (k == 2) emit(MOV_, WG_TPTR, 0, pa, 0, ires());  // reads pa as it stands
            emit(ADDR_, type, 0, base, off, pa);
            if (coin(50)) add(pa, 32, pa);
        }
        if (coin(40)) {
            add(pa, 30, pb);
        } else if (coin(30)) {  // a second address from the same sum, another displacement
            emit(ADDR_, type, 0, base, off, pb);
            add(pb, 40, pb);
        } else if (coin(30)) emit(MOV_, WG_TPTR, WG_MIMMA, reinterpret_cast<unsigned long>(buf + AREA * pick(0, NP - 1)), 0, pb);
        Opd a = {pa, false}, b = {pb, false};
        if (coin(50)) std::swap(a, b);
        switch (pick(0, 6)) {
        case 0:
            iparm(a, {static_cast<unsigned long>(pick(0, 40)), true});
            iparm(coin(70) ? b : areaaddr(40), {static_cast<unsigned long>(pick(0, 40)), true});
            emit(MOVEGEN_, WG_TCHAR, 0, 0, 0, 0);
            break;
        case 1:
            iparm(a, {static_cast<unsigned long>(pick(3, 8)), true});
            iparm(b, {static_cast<unsigned long>(pick(3, 8)), true});
            emit(MOVEGEN_, WG_TDBL, 0, 0, 0, 0);
            break;
        case 2: {
            long f = coin(50) ? (WG_FFOREIGN | WG_FBIG) : (WG_FFOREIGN | WG_FLITTLE);
            bool in = coin(50);
            iparm({static_cast<unsigned long>(in ? f : WG_FNATIVE), true}, {8, true});
            iparm({static_cast<unsigned long>(in ? WG_FNATIVE : f), true}, {8, true});
            emit(TRANS_, WG_TDBL, WG_MIMMB, a.v, 0, b.v);
            break;
        }
        case 3:  // through a helper
            iparm(a, {static_cast<unsigned long>(pick(0, 30)), true});
            iparm(b, {static_cast<unsigned long>(pick(0, 30)), true});
            emit(CMPGEN_, WG_TCHAR, 0, 0, 0, ires());
            break;
        case 4:
            if (coin(50)) emit(MOV_, WG_TPTR, 0, a.v, 0, ires());
            else emit(PTRDIF_, WG_TPTR, 0, a.v, o1(KP + pick(0, NP - 1)), ires());
            break;
        case 5:
            emit(coin(50) ? BLT_ : BNE_, WG_TPTR, 0, a.v, b.v, fwd(pending));
            break;
        default:
            break;
        }
        if (coin(30)) emit(ADDR_, type, WG_MIMMB, pa, static_cast<unsigned long>(pick(0, 8)), pa);
    }

    void block(int n, int depth) {
        std::vector<unsigned long> pending;
        for (int i = 0; i < n; i++) {
            if (!pending.empty() && coin(25)) {
                size_t k = pick(0, static_cast<int>(pending.size()) - 1);
                emit(LABEL_, WG_TINT, 0, 0, 0, pending[k]);
                pending.erase(pending.begin() + k);
                continue;
            }
            stmt(pending, depth);
        }
        for (unsigned long l : pending) emit(LABEL_, WG_TINT, 0, 0, 0, l);
    }

    unsigned long fwd(std::vector<unsigned long>& pending) {
        if (!pending.empty() && coin(40)) return pending[pick(0, static_cast<int>(pending.size()) - 1)];
        unsigned long l = newlabel();
        pending.push_back(l);
        return l;
    }

    void stmt(std::vector<unsigned long>& pending, int depth) {
        switch (pick(0, 29)) {
        case 0:
        case 1: {  // integer arithmetic, with an overflow branch now and then
            static const int ops[] = {ADD_, SUB_, MUL_, DIV_, MOD_, EXP_, ADDR_, PTRDIF_, ANDB_, ORB_, XORB_, SUM_, MIN_, MAX_, NEG_};
            int op = ops[pick(0, 14)];
            Opd a = iopd(), b = iopd();
            unsigned long r = ires();
            alias(r, a, b);
            if (op == EXP_ && coin(60)) b = {static_cast<unsigned long>(pick(-3, 70)), true};
            emit(op, itype(), mods(a, b), a.v, b.v, r);
            if ((op == ADD_ || op == SUB_ || op == MUL_ || op == NEG_) && coin(40))
                emit(coin(50) ? BTOVFL_ : BFOVFL_, WG_TINT, 0, 0, 0, fwd(pending));
            break;
        }
        case 2:
        case 3:
        case 4: {  // double arithmetic
            static const int ops[] = {ADD_, SUB_, MUL_, DIV_, MOD_, EXP_, SUM_, MIN_, MAX_, NEG_};
            int op = ops[pick(0, 9)];
            Opd a = dopd(), b = dopd();
            unsigned long r = dres();
            alias(r, a, b);
            if (op == EXP_) b = Opd{static_cast<unsigned long>(pick(-40, 1100)), true};
            unsigned long m = mods(a, b);
            if (op == DIV_ && coin(30)) m |= WG_MNOTRAP;
            emit(op, WG_TDBL, m, a.v, b.v, r);
            break;
        }
        case 5: {  // comparisons to a value
            static const int ops[] = {EQ_, NE_, LT_, LE_, GT_, GE_};
            bool dbl = coin(50);
            Opd a = opd(dbl), b = opd(dbl);
            emit(ops[pick(0, 5)], dbl ? WG_TDBL : itype(), mods(a, b), a.v, b.v, dbl ? dres() : ires());
            break;
        }
        case 6: {  // logic and tests
            static const int ops[] = {AND_, OR_, NOT_, MISS_};
            bool dbl = coin(50);
            Opd a = opd(dbl), b = opd(dbl);
            emit(ops[pick(0, 3)], dbl ? WG_TDBL : WG_TINT, mods(a, b), a.v, b.v, dbl ? dres() : ires());
            break;
        }
        case 7: {  // conversions
            int k = pick(0, 3);
            if (k == 0) {
                Opd a = iopd();
                emit(CVD_, WG_TDBL, mods(a, a), a.v, 0, dres());
            } else {
                Opd a = dopd();
                unsigned long m = mods(a, a) | (k == 3 ? WG_MNOTRAP : 0);
                emit(k == 1 ? CVI_ : CVL_, itype(), m, a.v, 0, ires());
            }
            break;
        }
        case 8: {  // moves, sometimes between the pools
            bool dbl = coin(50);
            Opd a = opd(dbl);
            static const int types[] = {WG_TINT, WG_TDBL, WG_TPTR, WG_TCHAR};
            emit(MOV_, types[pick(0, 3)], mods(a, a), a.v, 0, coin(50) ? dres() : ires());
            break;
        }
        case 9: {  // branches on a comparison
            static const int ops[] = {BEQ_, BNE_, BLT_, BLE_, BGT_, BGE_, BTM_, BFM_};
            int op = ops[pick(0, 7)];
            bool dbl = op != BTM_ && op != BFM_ && coin(50);
            Opd a = opd(dbl), b = opd(dbl);
            emit(op, dbl ? WG_TDBL : itype(), mods(a, b), a.v, b.v, fwd(pending));
            break;
        }
        case 10: {  // branches on one value
            static const int ops[] = {BT_, BF_, BTMISS_, BFMISS_, BR_};
            int op = ops[pick(0, 4)];
            bool dbl = coin(50);
            Opd a = op == BTMISS_ || op == BFMISS_ ? dopd() : opd(dbl);
            emit(op, dbl ? WG_TDBL : WG_TINT, mods(a, a), a.v, 0, fwd(pending));
            break;
        }
        case 11: {  // an indirect branch through a label taken as data, or through junk
            unsigned long lab = fwd(pending);
            unsigned long holder = o0(OL + pick(0, NL - 1));
            emit(MOV_, WG_TPTR, WG_MLABEL, lab, 0, holder);
            if (coin(20)) emit(BI_, WG_TPTR, 0, o0(OI + pick(0, NI - 1)), 0, 0);
            else emit(BI_, WG_TPTR, 0, holder, 0, 0);
            break;
        }
        case 12:  // subroutines, marks and resets
            if (nsub && sublevel + 1 < nsub) {
                int k = pick(sublevel + 1, nsub - 1);
                if (coin(30)) emit(MARK_, WG_TINT, 0, 0, 0, 0);
                emit(LINK_, WG_TINT, 0, 0, 0, subs[k]);
            } else if (coin(50)) {
                emit(RESET_, WG_TINT, 0, 0, 0, 0);
            } else {
                emit(MARK_, WG_TINT, 0, 0, 0, 0);
            }
            break;
        case 13: {  // character moves, inline and through helpers
            static const unsigned long mods_[] = {0, 0, 0, WG_MPADC | '*', WG_MUPCASE, WG_MDESC};
            area(0, 40);
            area(0, 40);
            emit(MOVEGEN_, WG_TCHAR, mods_[pick(0, 5)], 0, 0, 0);
            break;
        }
        case 14: {  // number moves
            static const unsigned long mods_[] = {0, 0, 0, WG_MCOLL, WG_MCOLL | WG_MDESC, WG_MDECOLL, WG_MDECOLL | WG_MDESC, WG_MUPCASE};
            unsigned long m = mods_[pick(0, 7)];
            if (m == 0 && coin(70)) {
                iparm(areaaddr(8), {static_cast<unsigned long>(pick(3, 8)), true});
                iparm(areaaddr(8), {static_cast<unsigned long>(pick(3, 8)), true});
            } else if (m == 0) {
                // A length known only at run time sends the move to its helper.
                iparm(areaaddr(8), {o1(KLEN + pick(0, NLEN - 1)), false});
                area(1, 8);
            } else {
                area(1, 8);
                area(1, 8);
            }
            emit(MOVEGEN_, WG_TDBL, m, 0, 0, 0);
            break;
        }
        case 15: {  // conversions of stored numbers
            static const long foreign[] = {WG_FXPORT, WG_FIBM, WG_FVAX | WG_FFOREIGN, WG_FFOREIGN | WG_FBIG, WG_FFOREIGN | WG_FLITTLE, WG_FNT | WG_FFOREIGN};
            int k = pick(0, 2);
            long f = foreign[pick(0, 5)];
            long sf = WG_FNATIVE, df = f;
            if (coin(50)) std::swap(sf, df);
            int type = WG_TDBL;
            if (k == 1) {
                type = WG_TINTCV;
                df = coin(30) ? WG_FNATIVE : df;
            }
            if (k == 2) type = WG_TCHAR;
            int hi = type == WG_TCHAR ? 40 : 8;
            // Whole doubles both sides often: they take a path of their own.
            bool whole = type == WG_TDBL && coin(40);
            iparm({static_cast<unsigned long>(sf), true}, whole ? Opd{8, true} : arealen(1, hi));
            iparm({static_cast<unsigned long>(df), true}, whole ? Opd{8, true} : arealen(1, hi));
            Opd src = areaaddr(40);
            unsigned long dst = o1(KP + pick(0, NP - 1));
            Opd tab = {coin(50) ? reinterpret_cast<unsigned long>(upper) : 0, true};
            unsigned long m = (src.imm ? WG_MIMMA : 0) | WG_MIMMB | (coin(30) ? WG_MUNSIGNED : 0);
            emit(TRANS_, type, m, src.v, tab.v, dst);
            break;
        }
        case 16: {  // comparisons of areas and of vectors
            if (coin(60)) {
                area(0, 30);
                area(0, 30);
                bool tab = coin(40);
                emit(CMPGEN_, WG_TCHAR, tab ? WG_MTABLE | WG_MIMMA : 0, reinterpret_cast<unsigned long>(collate), 0, ires());
            } else {
                iparm(areaaddr(64), {static_cast<unsigned long>(pick(0, 8)), true});
                iparm(areaaddr(64), {static_cast<unsigned long>(pick(0, 8)), true});
                emit(CMPGEN_, WG_TDBL, 0, 0, 0, ires());
            }
            break;
        }
        case 17:  // strings
            area(0, 30);
            area(0, 40);
            emit(CAT_, WG_TCHAR, coin(50) ? WG_MTRIM : 0, 0, 0, o0(OU + pick(0, NU - 1)));
            break;
        case 18: {  // numbers and text
            int k = pick(0, 3);
            if (k == 0) {
                area(0, 20);
                emit(CVB_, WG_TDBL, 0, 0, 0, dres());
            } else if (k == 1) {
                area(0, 24);
                Opd a = dopd();
                emit(CVS_, WG_TDBL, mods(a, a), a.v, 0, 0);
            } else {
                area(0, 40);
                Opd a = iopd();
                if (k == 2 && !a.imm) a = {static_cast<unsigned long>(pick(-2, 45)), true};
                emit(k == 2 ? PAD_ : SMEAR_, WG_TCHAR, mods(a, a), a.v, 0, 0);
            }
            break;
        }
        case 19: {  // vectors
            static const int ops[] = {AND_, OR_, MIN_, MAX_};
            iparm(areaaddr(64), {static_cast<unsigned long>(pick(0, 8)), true});
            emit(ops[pick(0, 3)], WG_TDBL, WG_MVEC | (coin(50) ? WG_MNEG : 0), 0, 0, dres());
            break;
        }
        case 20:  // the larger or smaller of two areas
            area(0, 30);
            area(0, 30);
            emit(coin(50) ? MIN_ : MAX_, WG_TCHAR, 0, 0, 0, 0);
            break;
        case 21: {  // calls of functions: all nine arguments, integers and doubles interleaved
            int ni = 5, nd = 4;
            while (ni + nd) {
                bool d = nd && (!ni || coin(45));
                (d ? nd : ni)--;
                Opd a = opd(d);
                emit(PARM_, d ? WG_TDBL : WG_TINT, mods(a, a), a.v, 0, 0);
            }
            bool d = coin(50);
            emit(FUNC_, d ? WG_TDBL : WG_TINT, WG_MIMMA, reinterpret_cast<unsigned long>(d ? (void*)testfd : (void*)testfi), 0,
                 d ? dres() : ires());
            break;
        }
        case 22:  // a bounded loop
            if (depth == 0 && loops < NC && coin(60)) {
                unsigned long c = o0(OC + loops++);
                unsigned long head = newlabel();
                emit(MOV_, WG_TINT, WG_MIMMA, static_cast<unsigned long>(pick(1, 4)), 0, c);
                emit(LABEL_, WG_TINT, 0, 0, 0, head);
                if (coin(50)) emit(ALIGN_, WG_TINT, 0, 0, 0, 0);
                block(pick(2, 8), depth + 1);
                emit(SUB_, WG_TINT, WG_MIMMB, c, 1, c);
                emit(BGT_, WG_TINT, WG_MIMMB, c, 0, head);
            }
            break;
        case 23: {  // leaving early
            Opd a = iopd();
            if (coin(50)) emit(BREAK_, WG_TINT, mods(a, a), a.v, 0, 0);
            else emit(TERM_, coin(50) ? WG_TDBL : WG_TINT, WG_MCOND | mods(a, a), a.v, 0, o0(OI + pick(0, NI - 1)));
            break;
        }
        case 24: {  // instructions that change nothing
            static const int ops[] = {STMTID_, OPID_, ALIGN_, DROP_};
            int op = ops[pick(0, 3)];
            unsigned long a = op == DROP_ ? o0(pick(0, NI + ND - 1)) : static_cast<unsigned long>(pick(0, 999));
            emit(op, WG_TINT, 0, a, 0, 0);
            break;
        }
        case 25:
        case 26:
            addresses(pending);
            break;
        default: {  // chains that keep values in registers
            Opd a = iopd();
            unsigned long r = ires();
            emit(ADD_, WG_TINT, mods(a, a) | WG_MIMMB, a.v, static_cast<unsigned long>(pick(1, 9)), r);
            emit(MUL_, WG_TINT, WG_MIMMB, r, static_cast<unsigned long>(pick(2, 5)), r);
            emit(SUB_, WG_TINT, 0, r, o0(OI + pick(0, NI - 1)), ires());
            unsigned long x = dres();
            Opd b = dopd();
            emit(ADD_, WG_TDBL, mods(b, b), b.v, b.v, x);
            emit(MUL_, WG_TDBL, 0, x, x, dres());
            break;
        }
        }
    }
};

// ---------------------------------------------------------------- running

struct Bound {
    VGSEGHD* s = nullptr;
    std::map<unsigned long, uint64_t> labaddr;
};

inline wrcode bindprog(const Prog& p, Bound& b) {
    if (wrcode rc = wgopen(&b.s, 1, nullptr, 0)) return rc;
    for (size_t i = 0; i < p.seg0.size(); i++) {
        objloc o;
        if (wrcode rc = wgdfobj(b.s, &p.seg0[i], 0, &o)) return rc;
        if (o != o0(static_cast<int>(i))) return -1;
    }
    for (size_t i = 0; i < p.seg1.size(); i++) {
        objloc o;
        if (wrcode rc = wgdfobj(b.s, &p.seg1[i], 1, &o)) return rc;
        if (o != o1(static_cast<int>(i))) return -1;
    }
    for (const wgref::Inst& in : p.code)
        if (wrcode rc = wgemit(b.s, in.op, in.type, in.mod, in.a, in.b, in.r)) return rc;
    if (wrcode rc = wgclose(b.s)) return rc;
    if (wrcode rc = wginstl(b.s, testexcept)) return rc;
    if (wrcode rc = wgbind(b.s)) return rc;
    long k = 0;
    for (const wgref::Inst& in : p.code) {
        if (in.op == MOV_ && (in.mod & WG_MLABEL)) {
            uint64_t a;
            memcpy(&a, b.s->labtab + 8 * k++, 8);
            b.labaddr[in.a] = a;
        }
    }
    return 0;
}

}  // namespace wgprog

// A reference interpreter of the intermediate code, written from the
// instruction set as documented (docs/codegen.md) and not from the back end:
// generated code and this interpreter must leave the same bytes. Areas and
// conversions go through the same run-time helpers, which their own tests
// check against known values.
#pragma once
#include <bit>
#include <cfenv>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>
#include "ssubs/vz.h"
#include "ssup/vghelp.h"
#include "ssup/wg.h"

namespace wgref {

using namespace vrta;

struct Inst {
    int op;
    int type;
    unsigned long mod;
    unsigned long r, a, b;
};

// How a run ended.
struct Outcome {
    long ret = 0;        // value of TERM_/RET_/BREAK_, or the stop code
    bool fatal = false;  // the exception function gave up (-1)
    bool hung = false;   // ran past the step limit (a broken program)
};

class Machine {
public:
    std::vector<Inst> code;
    std::vector<uint64_t> seg0, seg1;
    WGEXCEPT except = nullptr;
    long attn = 0;
    // The address a label has in the generated code, for MOV_ of a label;
    // BI_ accepts exactly these.
    std::map<unsigned long, uint64_t> labaddr;
    long maxsteps = 10000000;
    bool trace = false;

    Outcome run() {
        std::map<unsigned long, size_t> labels;
        for (size_t i = 0; i < code.size(); i++)
            if (code[i].op == LABEL_) labels[code[i].r] = i;
        std::vector<size_t> stack;
        size_t mark = 0;
        struct Parm {
            unsigned long a, b, mod;
            int type;
        };
        std::vector<Parm> parms, fparms;
        bool ovfl = false;
        Outcome out;
        size_t pc = 0;
        for (long steps = 0; pc < code.size(); steps++) {
            if (steps > maxsteps) {
                out.hung = true;
                return out;
            }
            const Inst& in = code[pc];
            if (trace) fprintf(stderr, "ref %zu\n", pc);
            size_t next = pc + 1;
            bool dbl = in.type == WG_TDBL;
            auto A = [&] { return val(in.a, in.mod & WG_MIMMA); };
            auto B = [&] { return val(in.b, in.mod & WG_MIMMB); };
            auto Rv = [&] { return val(in.r, false); };
            auto set = [&](uint64_t v) { put(in.r, v); };
            auto setbool = [&](bool t) { set(dbl ? std::bit_cast<uint64_t>(t ? 1.0 : 0.0) : uint64_t(t)); };
            auto go = [&](unsigned long lab) { next = labels.at(lab); };
            int trap = 0;     // cause of a trap in this instruction
            uint64_t res = 0; // the instruction's result, unless it trapped
            bool hasres = false;
            bool newovfl = false;
            switch (in.op) {
            case ADD_:
            case SUB_:
            case MUL_:
            case DIV_:
                if (dbl) {
                    if (in.op == DIV_ && (in.mod & WG_MNOTRAP)) {
                        res = bits(vvgdiv(d(A()), d(B())));
                    } else {
                        res = fop(in.op, A(), B(), trap);
                    }
                } else {
                    int64_t a = static_cast<int64_t>(A()), b = static_cast<int64_t>(B()), r = 0;
                    if (in.op == ADD_) newovfl = __builtin_add_overflow(a, b, &r);
                    else if (in.op == SUB_) newovfl = __builtin_sub_overflow(a, b, &r);
                    else if (in.op == MUL_) newovfl = __builtin_mul_overflow(a, b, &r);
                    else if (b == 0 || (a == INT64_MIN && b == -1)) trap = 5;
                    else r = a / b;
                    res = static_cast<uint64_t>(r);
                }
                hasres = true;
                break;
            case ADDR_: res = A() + B(); hasres = true; break;
            case PTRDIF_: res = A() - B(); hasres = true; break;
            case ANDB_: res = A() & B(); hasres = true; break;
            case ORB_: res = A() | B(); hasres = true; break;
            case XORB_: res = A() ^ B(); hasres = true; break;
            case MOD_:
                if (dbl) {
                    res = bits(vvgmodr(d(A()), d(B())));
                } else {
                    int64_t a = static_cast<int64_t>(A()), b = static_cast<int64_t>(B());
                    if (b == 0 || (a == INT64_MIN && b == -1)) trap = 5;
                    else res = static_cast<uint64_t>(a % b);
                }
                hasres = true;
                break;
            case EXP_: res = expo(A(), B(), dbl, trap); hasres = true; break;
            case EQ_: case NE_: case LT_: case LE_: case GT_: case GE_: {
                int c = cmp(in.op, A(), B(), dbl, trap);
                if (trap) {
                    // After a trap the comparison counts as unordered.
                    if (callexcept(trap, out) != 0) return out;
                    trap = 0;
                    c = in.op == NE_;
                }
                setbool(c != 0);
                break;
            }
            case AND_:
            case OR_:
                if (in.mod & WG_MVEC) {
                    const void* v = reinterpret_cast<const void*>(parms[0].a);
                    long n = static_cast<long>(parms[0].b);
                    bool neg = in.mod & WG_MNEG;
                    long t = in.op == AND_ ? (neg ? vvgandrn(v, n, nullptr, 0, 0) : vvgandr(v, n, nullptr, 0, 0))
                                           : (neg ? vvgorrn(v, n, nullptr, 0, 0) : vvgorr(v, n, nullptr, 0, 0));
                    setbool(t != 0);
                } else {
                    bool ta = truth(A(), dbl), tb = truth(B(), dbl);
                    setbool(in.op == AND_ ? (ta && tb) : (ta || tb));
                }
                break;
            case NOT_: setbool(!truth(A(), dbl)); break;
            case MISS_: setbool(ismiss(A())); break;
            case NEG_:
                if (dbl) {
                    uint64_t a = A();
                    set(ismiss(a) ? a : a ^ (1ull << 63));
                } else {
                    int64_t a = static_cast<int64_t>(A());
                    newovfl = a == INT64_MIN;
                    set(static_cast<uint64_t>(0) - static_cast<uint64_t>(a));
                }
                break;
            case SUM_:
                if (dbl) {
                    uint64_t a = A(), b = B();
                    if (ismiss(a)) res = ismiss(b) ? a : b;
                    else if (ismiss(b)) res = a;
                    else res = fop(ADD_, a, b, trap);
                } else {
                    res = A() + B();
                }
                hasres = true;
                break;
            case MIN_:
            case MAX_:
                if (in.mod & WG_MVEC) {
                    const void* v = reinterpret_cast<const void*>(parms[0].a);
                    long n = static_cast<long>(parms[0].b);
                    set(bits(in.op == MAX_ ? vvgmaxr(v, n, nullptr, 0, 0) : vvgminr(v, n, nullptr, 0, 0)));
                } else if (in.type == WG_TCHAR) {
                    const Parm& s = parms[0];
                    const Parm& t = parms[1];
                    auto* src = reinterpret_cast<const void*>(s.a);
                    auto* dst = reinterpret_cast<void*>(t.a);
                    long sl = static_cast<long>(s.b), dl = static_cast<long>(t.b);
                    if (in.op == MAX_) vvgmaxv(src, sl, dst, dl, 0);
                    else vvgminv(src, sl, dst, dl, 0);
                } else if (dbl) {
                    set(minmax(A(), B(), in.op == MAX_));
                } else {
                    int64_t a = static_cast<int64_t>(A()), b = static_cast<int64_t>(B());
                    set(static_cast<uint64_t>(in.op == MAX_ ? (a >= b ? a : b) : (a <= b ? a : b)));
                }
                break;
            case CVD_: set(bits(static_cast<double>(static_cast<int64_t>(A())))); break;
            case CVI_:
            case CVL_: {
                double v = d(A());
                if (in.op == CVL_ && (in.mod & WG_MNOTRAP)) {
                    res = static_cast<uint64_t>(vvgcvlr(v));
                } else if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0)) {
                    trap = 5;
                } else {
                    res = static_cast<uint64_t>(static_cast<int64_t>(in.op == CVI_ ? std::trunc(v) : std::nearbyint(v)));
                }
                hasres = true;
                break;
            }
            case MOV_:
                if (in.mod & WG_MLABEL) set(labaddr.at(in.a));
                else set(A());
                break;
            case BEQ_: case BNE_: case BLT_: case BLE_: case BGT_: case BGE_: {
                static const int rel[] = {EQ_, NE_, LT_, LE_, GT_, GE_};
                static const int br[] = {BEQ_, BNE_, BLT_, BLE_, BGT_, BGE_};
                int op = 0;
                for (int i = 0; i < 6; i++)
                    if (br[i] == in.op) op = rel[i];
                int c = cmp(op, A(), B(), dbl, trap);
                if (trap) {
                    int r = callexcept(trap, out);
                    if (r == 0) c = op == NE_;
                    else return out;
                    trap = 0;
                }
                if (c) go(in.r);
                break;
            }
            case BTM_: if (A() & B()) go(in.r); break;
            case BFM_: if (!(A() & B())) go(in.r); break;
            case BT_: if (truth(A(), dbl)) go(in.r); break;
            case BF_: if (!truth(A(), dbl)) go(in.r); break;
            case BTMISS_: if (ismiss(A())) go(in.r); break;
            case BFMISS_: if (!ismiss(A())) go(in.r); break;
            case BTOVFL_: if (ovfl) go(in.r); break;
            case BFOVFL_: if (!ovfl) go(in.r); break;
            case BR_: go(in.r); break;
            case BI_: {
                uint64_t t = A();
                bool found = false;
                for (auto& [id, addr] : labaddr)
                    if (addr == t) {
                        go(id);
                        found = true;
                        break;
                    }
                if (!found && callexcept(5, out) != 0) return out;
                break;
            }
            case LABEL_: case OPID_: case STMTID_: case ALIGN_: case DROP_: break;
            case TERM_:
                if ((in.mod & WG_MCOND) && !truth(A(), dbl)) break;
                out.ret = static_cast<long>(Rv());
                return out;
            case RET_:
                if (stack.empty()) {
                    out.ret = static_cast<long>(A());
                    return out;
                }
                next = stack.back();
                stack.pop_back();
                break;
            case LINK_:
                if (stack.size() >= VG_MAXLINK_REF) {
                    if (callexcept(5, out) != 0) return out;
                    break;
                }
                stack.push_back(next);
                go(in.r);
                break;
            case MARK_: mark = stack.size(); break;
            case RESET_: if (mark <= stack.size()) stack.resize(mark); break;
            case BREAK_:
                if (attn) {
                    attn = 0;
                    out.ret = static_cast<long>(A());
                    return out;
                }
                break;
            case IPARM_: parms.push_back({A(), B(), in.mod, in.type}); break;
            case PARM_: fparms.push_back({A(), 0, in.mod, in.type}); break;
            case FUNC_: {
                long iv[5] = {};
                double dv[4] = {};
                int ni = 0, nd = 0;
                for (const Parm& p : fparms) {
                    if (p.type == WG_TDBL) dv[nd++] = d(p.a);
                    else iv[ni++] = static_cast<long>(p.a);
                }
                void* fn = reinterpret_cast<void*>(A());
                if (dbl) {
                    auto f = reinterpret_cast<double (*)(long, long, long, long, long, double, double, double, double)>(fn);
                    set(bits(f(iv[0], iv[1], iv[2], iv[3], iv[4], dv[0], dv[1], dv[2], dv[3])));
                } else {
                    auto f = reinterpret_cast<long (*)(long, long, long, long, long, double, double, double, double)>(fn);
                    set(static_cast<uint64_t>(f(iv[0], iv[1], iv[2], iv[3], iv[4], dv[0], dv[1], dv[2], dv[3])));
                }
                break;
            }
            case TRANS_: {
                const Parm& s = parms[0];
                const Parm& t = parms[1];
                auto* src = reinterpret_cast<const void*>(A());
                auto* dst = reinterpret_cast<void*>(Rv());
                long sl = static_cast<long>(s.b), dl = static_cast<long>(t.b);
                if (in.type == WG_TDBL || in.type == WG_TINTCV) {
                    long other = (s.a & WG_FNATIVE) ? static_cast<long>(t.a) : static_cast<long>(s.a);
                    vgtranshelper(in.type, static_cast<long>(s.a), static_cast<long>(t.a), in.mod)(src, sl, dst, dl, other);
                } else {
                    vvgtxxlt(src, sl, dst, dl, static_cast<long>(B()));
                }
                break;
            }
            case MOVEGEN_: movegen(in, parms[0].a, parms[0].b, parms[0].mod, parms[1].a, parms[1].b, parms[1].mod); break;
            case CMPGEN_: {
                auto* x = reinterpret_cast<const void*>(parms[0].a);
                auto* y = reinterpret_cast<void*>(parms[1].a);
                long xl = static_cast<long>(parms[0].b), yl = static_cast<long>(parms[1].b);
                long c = dbl ? vvgcmpr(x, xl, y, yl, 0)
                             : (in.mod & WG_MTABLE) ? vvgcmpst(x, xl, y, yl, static_cast<long>(A())) : vvgcmps(x, xl, y, yl, 0);
                set(static_cast<uint64_t>(c));
                break;
            }
            case CAT_: {
                auto* src = reinterpret_cast<const void*>(parms[0].a);
                auto* dst = reinterpret_cast<void*>(parms[1].a);
                long sl = static_cast<long>(parms[0].b), dl = static_cast<long>(parms[1].b);
                long used = static_cast<long>(Rv());
                set(static_cast<uint64_t>((in.mod & WG_MTRIM) ? vvgcatv(src, sl, dst, dl, used) : vvgcatf(src, sl, dst, dl, used)));
                break;
            }
            case CVB_:
                set(bits(vvgt2n(reinterpret_cast<const void*>(parms[0].a), static_cast<long>(parms[0].b), nullptr, 0, 0)));
                break;
            case CVS_:
                vvgn2t(reinterpret_cast<const void*>(A()), 8, reinterpret_cast<void*>(parms[0].a), static_cast<long>(parms[0].b), 0);
                break;
            case PAD_:
                vvgpadb(nullptr, static_cast<long>(A()), reinterpret_cast<void*>(parms[0].a), static_cast<long>(parms[0].b), ' ');
                break;
            case SMEAR_:
                vvgexpand(nullptr, 0, reinterpret_cast<void*>(parms[0].a), static_cast<long>(parms[0].b), static_cast<long>(A()));
                break;
            default:
                out.fatal = true;
                return out;
            }
            if (trap) {
                int r = callexcept(trap, out);
                if (r != 0) return out;
                res = std::bit_cast<uint64_t>(lastresult);
            }
            if (hasres) set(res);
            if (in.op != IPARM_ && in.op != PARM_ && in.op != STMTID_ && in.op != OPID_) {
                parms.clear();
                fparms.clear();
            }
            if (in.op != STMTID_ && in.op != OPID_) ovfl = newovfl;
            pc = next;
        }
        return out;
    }

    static constexpr size_t VG_MAXLINK_REF = 64;

private:
    double lastresult = 0;

    static double d(uint64_t v) { return std::bit_cast<double>(v); }
    static uint64_t bits(double v) { return std::bit_cast<uint64_t>(v); }
    static bool ismiss(uint64_t v) { return (v >> 48) == 0xFFFF; }
    static bool isnan(uint64_t v) { return ((v >> 52) & 0x7FF) == 0x7FF && (v & ((1ull << 52) - 1)); }
    static bool issnan(uint64_t v) { return isnan(v) && !((v >> 51) & 1); }
    static uint64_t quiet(uint64_t v) { return v | (1ull << 51); }
    static bool truth(uint64_t v, bool dbl) { return dbl ? (v << 1) != 0 && !ismiss(v) : v != 0; }

    uint64_t val(unsigned long f, bool imm) const {
        if (imm) return f;
        unsigned long seg = f >> WG_SEGSHIFT, off = (f & ((1ul << WG_SEGSHIFT) - 1)) / 8;
        return seg ? seg1.at(off) : seg0.at(off);
    }
    void put(unsigned long f, uint64_t v) { seg0.at((f & ((1ul << WG_SEGSHIFT) - 1)) / 8) = v; }

    int callexcept(int cause, Outcome& out) {
        jmp_buf* jmp = nullptr;
        void* resume = nullptr;
        double result = 0;
        int r = except ? except(cause, &result, &jmp, &resume) : -1;
        lastresult = result;
        if (r == -1 || r < -1) out.fatal = true;
        else if (r > 0) out.ret = r;
        return r;
    }

    // One double operation: a NaN operand wins, the first one first; a
    // signalling NaN or an invalid, dividing or overflowing operation traps.
    static uint64_t fop(int op, uint64_t a, uint64_t b, int& trap) {
        if (issnan(a) || issnan(b)) {
            trap = 5;
            return 0;
        }
        if (isnan(a)) return quiet(a);
        if (isnan(b)) return quiet(b);
        volatile double x = d(a), y = d(b);
        std::feclearexcept(FE_ALL_EXCEPT);
        volatile double z;
        switch (op) {
        case ADD_: z = x + y; break;
        case SUB_: z = x - y; break;
        case MUL_: z = x * y; break;
        default: z = x / y; break;
        }
        int e = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
        if (e & FE_INVALID) trap = 5;
        else if (e & FE_DIVBYZERO) trap = 2;
        else if (e & FE_OVERFLOW) trap = 1;
        return bits(z);
    }

    static int cmp(int op, uint64_t a, uint64_t b, bool dbl, int& trap) {
        if (!dbl) {
            int64_t x = static_cast<int64_t>(a), y = static_cast<int64_t>(b);
            switch (op) {
            case EQ_: return x == y;
            case NE_: return x != y;
            case LT_: return x < y;
            case LE_: return x <= y;
            case GT_: return x > y;
            default: return x >= y;
            }
        }
        if (issnan(a) || issnan(b)) {
            trap = 5;
            return 0;
        }
        double x = d(a), y = d(b);
        switch (op) {
        case EQ_: return x == y;
        case NE_: return !(x == y);
        case LT_: return x < y;
        case LE_: return x <= y;
        case GT_: return x > y;
        default: return x >= y;
        }
    }

    static uint64_t key(uint64_t v) { return v ^ ((v >> 63) ? ~0ull : 1ull << 63); }
    static uint64_t minmax(uint64_t a, uint64_t b, bool max) {
        if (ismiss(a) && ismiss(b)) return a;
        if (ismiss(a)) return b;
        if (ismiss(b)) return a;
        if (max) return key(a) >= key(b) ? a : b;
        return key(a) <= key(b) ? a : b;
    }

    // Powers by squaring; a negative exponent divides 1 by the result.
    static uint64_t expo(uint64_t a, uint64_t b, bool dbl, int& trap) {
        int64_t e = static_cast<int64_t>(b);
        uint64_t n = e < 0 ? 0 - static_cast<uint64_t>(e) : static_cast<uint64_t>(e);
        if (!dbl) {
            uint64_t res = 1, base = a;
            while (n) {
                if (n & 1) res *= base;
                n >>= 1;
                if (n) base *= base;
            }
            if (e >= 0) return res;
            int64_t r = static_cast<int64_t>(res);
            if (r == 0) {
                trap = 5;
                return 0;
            }
            return static_cast<uint64_t>(r == -1 ? -1 : r == 1 ? 1 : 0);
        }
        uint64_t res = bits(1.0), base = a;
        while (n) {
            if (n & 1) {
                res = fop(MUL_, res, base, trap);
                if (trap) return 0;
            }
            n >>= 1;
            if (n) {
                base = fop(MUL_, base, base, trap);
                if (trap) return 0;
            }
        }
        if (e >= 0) return res;
        return fop(DIV_, bits(1.0), res, trap);
    }

    void movegen(const Inst& in, uint64_t sa, uint64_t sb, unsigned long smod, uint64_t da, uint64_t db, unsigned long dmod) {
        auto* src = reinterpret_cast<unsigned char*>(sa);
        auto* dst = reinterpret_cast<unsigned char*>(da);
        long sl = static_cast<long>(sb), dl = static_cast<long>(db);
        unsigned long m = in.mod;
        bool known = (smod & WG_MIMMB) && (dmod & WG_MIMMB);
        if (known && !(m & WG_MHELPER)) {
            long n = sl < dl ? sl : dl, dd = dl - sl;
            if (in.type == WG_TDBL) {
                if (dd > 0) {
                    for (long i = 0; i < dd; i++) dst[i] = 0;
                    dst += dd;
                } else {
                    src -= dd;
                }
                for (long i = 0; i < n; i++) dst[i] = src[i];
            } else {
                for (long i = 0; i < n; i++) dst[i] = src[i];
                unsigned char pad = (m & WG_MPADC) ? static_cast<unsigned char>(m & 0xFF) : ' ';
                for (long i = n; i < dl; i++) dst[i] = pad;
            }
            return;
        }
        if (in.type == WG_TDBL) {
            if (m & WG_MCOLL) (m & WG_MDESC) ? vvgmvcolldesc(src, sl, dst, dl, 0) : vvgmvcoll(src, sl, dst, dl, 0);
            else if (m & WG_MDECOLL) (m & WG_MDESC) ? vvgmvdecolldesc(src, sl, dst, dl, 0) : vvgmvdecoll(src, sl, dst, dl, 0);
            else if (m & WG_MUPCASE) vvgxtoyup(src, sl, dst, dl, 0);
            else vvgmvdbl(src, sl, dst, dl, 0);
        } else if (m & WG_MUPCASE) {
            vvgnechup(src, sl, dst, dl, 0);
        } else if (m & WG_MDESC) {
            vvgmvcollarea(src, sl, dst, dl, 1);
        } else if (m & WG_MPADC) {
            vvgmvchar(src, sl, dst, dl, static_cast<long>(m & 0xFF));
        } else {
            vvgmvch(src, sl, dst, dl, 0);
        }
    }
};

}  // namespace wgref

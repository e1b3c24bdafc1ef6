// Evaluation of a WHERE tree against one row: the row test of every scan and
// the expression evaluator of the group-by scan. The compares under LAND and
// LOR run inside the loop itself and allocate nothing, since this is the
// innermost loop of a query.
#include <bit>
#include <cmath>
#include <utility>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "sfnc/xf.h"
#include "ssubs/vz.h"
#include "wh/wh.h"
#include "wh/wheval.h"

namespace vrta {

namespace {

// Truth wanted of a compare outcome (1 less, 2 equal, 4 greater), by code
// minus 260.
constexpr int cmpmask[6] = {2, 5, 1, 3, 4, 6};

constexpr int CONC_BUFSIZE = 32768;

// A value during evaluation. Text either lies elsewhere (the row, a literal,
// a node's buffer) or, when short and copied, in buf.
struct Val {
    bool num;
    double d;
    const char* s;
    int len;
    char buf[WH_LITC_INNODE];
};

inline bool ismiss(double d) { return (std::bit_cast<uint64_t>(d) >> 48) == 0xFFFF; }

inline bool numtruth(double d) { return !ismiss(d) && d != 0.0; }
inline bool strtruth(const char* s, int len) { return !vzAL(' ', s, len); }

// The number of a NAME at rec: 8-byte doubles directly, shorter ones as the
// high bytes of a zeroed double.
inline double namenum(const SQLOP* n, const char* rec) {
    const char* p = rec + n->u.vleaf.offset;
    double d;
    if (n->type == -8) {
        if ((reinterpret_cast<uintptr_t>(p) & 7) == 0) return *reinterpret_cast<const double*>(p);
        std::memcpy(&d, p, 8);
        return d;
    }
    int len = -n->type;
    if (len > 8) len = 8;
    unsigned char b[8] = {0};
    std::memcpy(b + 8 - len, p, len);
    std::memcpy(&d, b, 8);
    return d;
}

// Numeric outcome with the order of missing values: ordinary numbers above
// every missing value, missing values by rank.
inline int numcmp(double a, double b) {
    int ra = vzmrank(a), rb = vzmrank(b);
    if (ra == 0 && rb == 0) return a < b ? 1 : (a == b ? 2 : 4);
    if (ra == 0) return 4;
    if (rb == 0) return 1;
    return ra < rb ? 1 : (ra == rb ? 2 : 4);
}

// Blank-padded compare, in the target environment's collation when it has one.
int strcom(const wh_env_t* env, const char* a, int la, const char* b, int lb) {
    if (env && env->targenv && env->targenv->nls_strcom) return env->targenv->nls_strcom(env->targenv, a, la, b, lb);
    int n = la < lb ? la : lb;
    if (int c = std::memcmp(a, b, n)) return c;
    if (la == lb) return 0;
    const unsigned char* rest = reinterpret_cast<const unsigned char*>(la > n ? a : b);
    int sign = la > n ? 1 : -1;
    int m = la > lb ? la : lb;
    for (int i = n; i < m; i++)
        if (rest[i] != ' ') return rest[i] < ' ' ? -sign : sign;
    return 0;
}

inline int outcome(int c) { return c < 0 ? 1 : (c == 0 ? 2 : 4); }

rctype evalv(wh_env_t* env, SQLOP* n, const char* rec, Val* v, int kor, int* truth);

// Operand fetch of the hot path: leaves directly, anything else by a nested
// evaluation into v.
inline rctype fetch(wh_env_t* env, SQLOP* n, const char* rec, Val* v, int kor) {
    switch (n->code) {
    case OP_LITN:
        v->num = true;
        v->d = n->u.nleaf.nbr;
        return 0;
    case OP_LITC:
        v->num = false;
        v->s = n->u.cleaf.c;
        v->len = n->u.cleaf.leng;
        return 0;
    case OP_NAME:
        if (n->type < 0) {
            v->num = true;
            v->d = namenum(n, rec);
        } else {
            v->num = false;
            v->s = rec + n->u.vleaf.offset;
            v->len = n->type;
        }
        return 0;
    default: {
        int t;
        return evalv(env, n, rec, v, kor, &t);
    }
    }
}

// Compare outcome of two values; ctype 1 cuts strings to the shorter length.
inline int valcmp(const wh_env_t* env, const Val& a, const Val& b, int ctype) {
    if (a.num || b.num) {
        // A number against a string has no order: take the string as missing.
        double x = a.num ? a.d : VZ_MISSING, y = b.num ? b.d : VZ_MISSING;
        return numcmp(x, y);
    }
    int la = a.len, lb = b.len;
    if (ctype == 1) la = lb = la < lb ? la : lb;
    return outcome(strcom(env, a.s, la, b.s, lb));
}

rctype do_ninop(wh_env_t* env, const Val& x, SQLOP* set, const char* rec, int kor, int* resp);
rctype do_cinop(wh_env_t* env, const Val& x, SQLOP* set, const char* rec, int kor, int* resp);
rctype do_tinop(wh_env_t* env, const Val& x, SQLOP* set, int* resp);

// Compares, truncated compares and set tests: the nodes a LAND or LOR runs in
// its own loop.
inline bool isloopnode(short code) {
    return (code >= OP_CEQ && code <= OP_CGE) || (code >= OP_CTEQ && code <= OP_CTGE) || code == OP_IN ||
           code == OP_NIN || code == OP_TIN || code == OP_TNIN;
}

// The commonest tests, a column against a literal, answered without a Val
// and with a small frame; false when the node is not one of them.
inline bool fastcmp(const wh_env_t* env, const SQLOP* n, const char* rec, int* truth) {
    short code = n->code;
    if (code < OP_CEQ || code > OP_CGE) return false;
    const SQLOP* l = n->u.node.arg[0];
    const SQLOP* r = n->u.node.arg[1];
    if (!l || !r || n->u.node.narg < 2 || l->code != OP_NAME) return false;
    if (l->type == -8 && r->code == OP_LITN) {
        const char* p = rec + l->u.vleaf.offset;
        double x;
        std::memcpy(&x, p, 8);
        double y = r->u.nleaf.nbr;
        int o;
        if (!ismiss(x) && !ismiss(y)) o = (x < y) | ((x == y) << 1) | ((x > y) << 2);
        else o = numcmp(x, y);
        *truth = (o & cmpmask[code - OP_CEQ]) != 0;
        return true;
    }
    if (l->type >= 0 && r->code == OP_LITC && !(env && env->targenv && env->targenv->nls_strcom) &&
        r->u.cleaf.leng <= l->type && (code == OP_CEQ || code == OP_CNE)) {
        const char* p = rec + l->u.vleaf.offset;
        int ll = r->u.cleaf.leng;
        bool eq = std::memcmp(p, r->u.cleaf.c, ll) == 0;
        for (int i = ll; eq && i < l->type; i++) eq = p[i] == ' ';
        *truth = eq == (code == OP_CEQ);
        return true;
    }
    return false;
}

__attribute__((noinline)) rctype loopnode(wh_env_t* env, SQLOP* n, const char* rec, int kor, int* truth) {
    SQLOP* l = n->u.node.arg[0];
    SQLOP* r = n->u.node.narg > 1 ? n->u.node.arg[1] : nullptr;
    if (!l || !r) return WH_RC_BADTREE;
    short code = n->code;
    if (fastcmp(env, n, rec, truth)) return 0;
    Val a, b;
    if (rctype rc = fetch(env, l, rec, &a, kor)) return rc;
    if (code >= OP_CEQ && code <= OP_CGE) {
        if (a.num && r->code == OP_LITN) {
            *truth = (numcmp(a.d, r->u.nleaf.nbr) & cmpmask[code - OP_CEQ]) != 0;
            return 0;
        }
        if (rctype rc = fetch(env, r, rec, &b, kor)) return rc;
        *truth = (valcmp(env, a, b, 0) & cmpmask[code - OP_CEQ]) != 0;
        return 0;
    }
    if (code >= OP_CTEQ && code <= OP_CTGE) {
        if (rctype rc = fetch(env, r, rec, &b, kor)) return rc;
        *truth = (valcmp(env, a, b, 1) & cmpmask[code - OP_CTEQ]) != 0;
        return 0;
    }
    rctype rc;
    if (code == OP_IN || code == OP_NIN) {
        if (l->type < 0) rc = do_ninop(env, a, r, rec, kor, truth);
        else rc = do_cinop(env, a, r, rec, kor, truth);
        if (code == OP_NIN) *truth = !*truth;
        return rc;
    }
    rc = do_tinop(env, a, r, truth);
    if (code == OP_TNIN) *truth = !*truth;
    return rc;
}

template <typename Cmp>
rctype setwalk(wh_env_t* env, SQLOP* set, const char* rec, int kor, Cmp cmp, bool stopbelow, int* resp) {
    *resp = 0;
    int narg = set->u.node.narg;
    SQLARGWALK walk(set);
    for (int i = 0; i < narg; i++) {
        SQLOP* e;
        if (!walk.next(&e)) return WH_RC_BADTREE;
        if (!e) continue;
        if (e->code >= OP_RANB && e->code <= OP_RANN) {
            SQLOP* lo = e->u.node.narg > 0 ? e->u.node.arg[0] : nullptr;
            SQLOP* hi = e->u.node.narg > 1 ? e->u.node.arg[1] : nullptr;
            if (!lo || !hi) return WH_RC_BADTREE;
            Val lv, hv;
            if (rctype rc = fetch(env, lo, rec, &lv, kor)) return rc;
            int c1 = cmp(lv);
            if (c1 == 1 || (c1 == 2 && (e->code == 362 || e->code == 363))) return 0;
            if (rctype rc = fetch(env, hi, rec, &hv, kor)) return rc;
            int c2 = cmp(hv);
            if (c2 == 4 || (c2 == 2 && (e->code == 361 || e->code == 363))) continue;
            *resp = 1;
            return 0;
        }
        int found = -1;
        if (rctype rc = cmp.element(e, &found, stopbelow)) return rc;
        if (found == 1) {
            *resp = 1;
            return 0;
        }
        if (found == 0) return 0;
    }
    return 0;
}

// x against one element; -1 go on, 1 found, 0 the search is over.
struct NumCmp {
    double x;
    int operator()(const Val& v) const { return numcmp(x, v.num ? v.d : VZ_MISSING); }
    rctype element(const SQLOP* e, int* found, bool) const {
        if (e->code == OP_LITN) {
            int c = numcmp(x, e->u.nleaf.nbr);
            *found = c == 2 ? 1 : (c == 1 ? 0 : -1);
            return 0;
        }
        if (e->code == OP_SETN) {
            const double* p = static_cast<const double*>(e->u.setleaf.p);
            int lo = 0, hi = e->u.setleaf.num - 1;
            while (lo <= hi) {
                int mid = (lo + hi) / 2;
                int c = numcmp(x, p[mid]);
                if (c == 2) {
                    *found = 1;
                    return 0;
                }
                if (c == 1) hi = mid - 1;
                else lo = mid + 1;
            }
            *found = 0;
            return 0;
        }
        return 0;
    }
};

struct StrCmp {
    wh_env_t* env;
    const char* s;
    int len;
    int operator()(const Val& v) const {
        if (v.num) return 4;
        return outcome(strcom(env, s, len, v.s, v.len));
    }
    rctype element(const SQLOP* e, int* found, bool stopbelow) const {
        if (e->code == OP_LITC) {
            int c = outcome(strcom(env, s, len, e->u.cleaf.c, e->u.cleaf.leng));
            *found = c == 2 ? 1 : (c == 1 && stopbelow ? 0 : -1);
            return 0;
        }
        if (e->code == OP_SETC) {
            const char* p = static_cast<const char*>(e->u.setleaf.p);
            int w = e->u.setleaf.len;
            for (int j = 0; j < e->u.setleaf.num; j++) {
                const char* el = p + static_cast<long>(j) * (w + 1);
                int c = outcome(strcom(env, s, len, el, static_cast<int>(strnlen(el, w))));
                if (c == 2) {
                    *found = 1;
                    return 0;
                }
                if (c == 1 && stopbelow) {
                    *found = 0;
                    return 0;
                }
            }
        }
        return 0;
    }
};

rctype do_ninop(wh_env_t* env, const Val& x, SQLOP* set, const char* rec, int kor, int* resp) {
    // Number sets are taken as ascending whatever the host says.
    if (set->code < OP_FIRSTOP) {
        SQLOP tmp{};
        tmp.code = OP_SET;
        tmp.u.node.narg = 1;
        tmp.u.node.arg[0] = set;
        return setwalk(env, &tmp, rec, kor, NumCmp{x.num ? x.d : VZ_MISSING}, true, resp);
    }
    return setwalk(env, set, rec, kor, NumCmp{x.num ? x.d : VZ_MISSING}, true, resp);
}

rctype do_cinop(wh_env_t* env, const Val& x, SQLOP* set, const char* rec, int kor, int* resp) {
    // The host marks an unordered list on the set, or on its elements when
    // the tree has not been through the wire.
    if (set->nodeflags & WH_NF_UNORDERED) kor = 0;
    else if (set->code >= OP_FIRSTOP && set->u.node.narg > 0 && set->u.node.arg[0] &&
             (set->u.node.arg[0]->nodeflags & WH_NF_UNORDERED))
        kor = 0;
    const char* s = x.num ? "" : x.s;
    int len = x.num ? 0 : x.len;
    if (set->code < OP_FIRSTOP) {
        SQLOP tmp{};
        tmp.code = OP_SET;
        tmp.u.node.narg = 1;
        tmp.u.node.arg[0] = set;
        return setwalk(env, &tmp, rec, kor, StrCmp{env, s, len}, kor != 0, resp);
    }
    return setwalk(env, set, rec, kor, StrCmp{env, s, len}, kor != 0, resp);
}

rctype do_tinop(wh_env_t* env, const Val& x, SQLOP* set, int* resp) {
    *resp = 0;
    if (x.num) return 0;
    int n = set->code < OP_FIRSTOP ? 1 : set->u.node.narg;
    for (int i = 0; i < n; i++) {
        const SQLOP* e = set->code < OP_FIRSTOP ? set : get_child(set, i);
        if (!e || e->code != OP_LITC) return 0;
        int l = x.len < e->u.cleaf.leng ? x.len : e->u.cleaf.leng;
        int c = outcome(strcom(env, x.s, l, e->u.cleaf.c, l));
        if (c == 2) {
            *resp = 1;
            return 0;
        }
        if (c == 1) return 0;
    }
    return 0;
}

// ---------------------------------------------------------------- functions

rctype do_func(wh_env_t* env, SQLOP* flst, const char* rec, Val* v, int kor, int* truth) {
    SQLOP* fn = flst->u.node.narg > 0 ? flst->u.node.arg[0] : nullptr;
    if (!fn || fn->code != OP_FUNC) return WH_RC_BADTREE;
    SQLOP_FUNC& f = fn->u.func;
    int nargs = flst->u.node.narg - 1;
    xf_env_t xenv{env ? env->dataenv : nullptr, env ? env->targenv : nullptr};
    if (f.type == 1 || f.type == 2) {
        auto* par = static_cast<FNCPAR*>(f.par);
        if (!par) {
            par = static_cast<FNCPAR*>(std::calloc(1, xfparsize(nargs)));
            if (!par) return WH_RC_NOMEM;
            par->access = 1;
            par->par[0].type = 1;
            par->par[0].loc.n = nargs;
            f.par = par;
        }
        par->xfenv = &xenv;
        for (int i = 1; i <= nargs; i++) {
            SQLOP* a = get_child(flst, i);
            if (!a) return WH_RC_BADTREE;
            Val av;
            if (rctype rc = fetch(env, a, rec, &av, kor)) return rc;
            FNCARG& fa = par->par[i];
            if (av.num) {
                if (fa.loc.p && fa.type != XF_NUM) {
                    std::free(fa.loc.p);
                    fa.loc.p = nullptr;
                }
                if (!fa.loc.p && !(fa.loc.p = std::malloc(8))) return WH_RC_NOMEM;
                fa.type = XF_NUM;
                *fa.loc.dp = av.d;
            } else {
                X_STRING* xs = fa.type == XF_STR ? fa.loc.xs : nullptr;
                if (!xs || xs->maxlen < av.len) {
                    if (fa.type != XF_STR) {
                        std::free(fa.loc.p);
                        fa.loc.p = nullptr;
                    }
                    int room = av.len < 16 ? 16 : av.len;
                    if (room > 32767) return WH_RC_BADTREE;
                    auto* nx = static_cast<X_STRING*>(std::realloc(fa.loc.p, sizeof(X_STRING) + room));
                    if (!nx) return WH_RC_NOMEM;
                    nx->maxlen = static_cast<short>(room);
                    nx->data = reinterpret_cast<char*>(nx + 1);
                    xs = nx;
                    fa.loc.xs = nx;
                }
                fa.type = XF_STR;
                std::memcpy(xs->data, av.s, av.len);
                xs->curlen = static_cast<short>(av.len);
            }
        }
        if (f.type == 1) {
            double d = VZ_MISSING;
            if (xfxfn(f.code, par, &d) < 0) d = VZ_MISSING;
            par->xfenv = nullptr;
            v->num = true;
            v->d = d;
            *truth = numtruth(d);
            return 0;
        }
        auto* xs = static_cast<X_STRING*>(f.str);
        if (!xs) {
            int room = fn->type > 0 ? fn->type : 200;
            xs = static_cast<X_STRING*>(std::calloc(1, sizeof(X_STRING) + room + 16));
            if (!xs) return WH_RC_NOMEM;
            xs->maxlen = static_cast<short>(room);
            xs->data = reinterpret_cast<char*>(xs + 1);
            f.str = xs;
        }
        xs->curlen = 0;
        if (xfxfn(f.code, par, xs) < 0) xs->curlen = 0;
        par->xfenv = nullptr;
        int len = xs->curlen < 0 ? 0 : (xs->curlen > xs->maxlen ? xs->maxlen : xs->curlen);
        v->num = false;
        if (len < WH_LITC_INNODE) {
            std::memcpy(v->buf, xs->data, len);
            v->s = v->buf;
        } else {
            v->s = xs->data;
        }
        v->len = len;
        *truth = strtruth(v->s, len);
        return 0;
    }
    // PUT and INPUT: argument 1 the value, argument 2 the format.
    SQLOP* a = get_child(flst, 1);
    SQLOP* fmt = get_child(flst, 2);
    if (!a || !fmt || fmt->code != OP_FMT) return WH_RC_BADTREE;
    Val av;
    if (rctype rc = fetch(env, a, rec, &av, kor)) return rc;
    int wid = fmt->u.fmt.wid, ndec = fmt->u.fmt.ndec;
    if (f.type == 16) {
        double d = VZ_MISSING;
        if (av.num) return WH_RC_BADTREE;
        int len = av.len < wid ? av.len : wid;
        int st = xffmt(&xenv, av.s, len, 8, ndec, &d, 8, f.code);
        if (st != 0 && st != 2) d = VZ_MISSING;
        v->num = true;
        v->d = d;
        *truth = numtruth(d);
        return 0;
    }
    auto* xs = static_cast<X_STRING*>(f.str);
    if (!xs) {
        int room = f.type == 32 ? (wid > 0 ? wid : 1) : (wid > 0 ? wid : 200);
        xs = static_cast<X_STRING*>(std::calloc(1, sizeof(X_STRING) + room + 16));
        if (!xs) return WH_RC_NOMEM;
        xs->maxlen = static_cast<short>(room);
        xs->data = reinterpret_cast<char*>(xs + 1);
        f.str = xs;
    }
    int st;
    if (f.type == 4) {
        double d = av.num ? av.d : VZ_MISSING;
        st = xffmt(&xenv, &d, 8, wid, ndec, xs->data, xs->maxlen, f.code);
        if (st != 0 && st != 2) std::memset(xs->data, '*', xs->maxlen);
        xs->curlen = xs->maxlen;
    } else if (f.type == 8) {
        if (av.num) return WH_RC_BADTREE;
        st = xffmt(&xenv, av.s, av.len, xs->maxlen, 0, xs->data, xs->maxlen, f.code);
        if (st != 0 && st != 2) std::memset(xs->data, '*', xs->maxlen);
        xs->curlen = xs->maxlen;
    } else if (f.type == 32) {
        if (av.num) return WH_RC_BADTREE;
        int len = av.len < wid ? av.len : wid;
        st = xffmt(&xenv, av.s, len, xs->maxlen, 0, xs->data, wid, f.code);
        if (st != 0 && st != 2) std::memset(xs->data, ' ', xs->maxlen);
        xs->curlen = xs->maxlen;
    } else {
        return WH_RC_BADTREE;
    }
    v->num = false;
    v->s = xs->data;
    v->len = xs->curlen;
    *truth = strtruth(v->s, v->len);
    return 0;
}

// ---------------------------------------------------------------- the rest

// x to the power y; *rc non-zero when there is no real result.
double whpower(double x, double y, int* rc) {
    *rc = 0;
    if (x < 0.0 && y != std::floor(y)) {
        *rc = 1;
        return VZ_MISSING;
    }
    if (x == 0.0 && y < 0.0) {
        *rc = 1;
        return VZ_MISSING;
    }
    double r = std::pow(x, y);
    if (!std::isfinite(r)) {
        *rc = 1;
        return VZ_MISSING;
    }
    return r;
}

double whapow(wh_env_t* env, SQLOP* n, int i, const char* rec, int kor, rctype* rc) {
    SQLOP* c = get_child(n, i);
    if (!c) {
        *rc = WH_RC_BADTREE;
        return VZ_MISSING;
    }
    Val b;
    if ((*rc = fetch(env, c, rec, &b, kor))) return VZ_MISSING;
    double x = b.num ? b.d : VZ_MISSING;
    if (i == n->u.node.narg - 1) return x;
    if (ismiss(x)) return VZ_MISSING;
    double y = whapow(env, n, i + 1, rec, kor, rc);
    if (*rc || ismiss(y)) return VZ_MISSING;
    int prc = 0;
    double r = whpower(x, y, &prc);
    return prc ? VZ_MISSING : r;
}

void setstr(Val* v, const char* s, int len, bool copy) {
    v->num = false;
    if (copy && len < WH_LITC_INNODE) {
        std::memcpy(v->buf, s, len);
        v->s = v->buf;
    } else {
        v->s = s;
    }
    v->len = len;
}


// LAND and LOR: their usual children, compares and nested LAND and LOR, are
// run here without a Val; anything else by a full evaluation.
rctype logic(wh_env_t* env, SQLOP* n, const char* rec, int kor, int* truth) {
    bool isand = n->code == OP_LAND;
    int narg = n->u.node.narg;
    SQLARGWALK walk(n);
    for (int i = 0; i < narg; i++) {
        SQLOP* c;
        if (!walk.next(&c) || !c) return WH_RC_BADTREE;
        int t;
        rctype rc;
        if (fastcmp(env, c, rec, &t)) {
            rc = 0;
        } else if (isloopnode(c->code)) {
            rc = loopnode(env, c, rec, kor, &t);
        } else if (c->code == OP_LAND || c->code == OP_LOR) {
            rc = logic(env, c, rec, kor, &t);
        } else {
            Val cv;
            rc = evalv(env, c, rec, &cv, kor, &t);
        }
        if (rc) return rc;
        if (isand ? !t : t) {
            *truth = t;
            return 0;
        }
    }
    *truth = isand;
    return 0;
}

// The first count operands of n into vals.
rctype operands(wh_env_t* env, SQLOP* n, const char* rec, int kor, int count, Val* vals) {
    for (int i = 0; i < count; i++) {
        SQLOP* c = get_child(n, i);
        if (!c) return WH_RC_BADTREE;
        if (rctype rc = fetch(env, c, rec, &vals[i], kor)) return rc;
    }
    return 0;
}

// A condition's result: its truth, as a number too.
inline rctype setbool(Val* v, int* truth, bool t) {
    *truth = t;
    v->num = true;
    v->d = t;
    return 0;
}

// Two string operands, or BADTREE.
rctype strings(wh_env_t* env, SQLOP* n, const char* rec, int kor, Val* ab) {
    if (rctype rc = operands(env, n, rec, kor, 2, ab)) return rc;
    return ab[0].num || ab[1].num ? WH_RC_BADTREE : 0;
}

rctype evalv(wh_env_t* env, SQLOP* n, const char* rec, Val* v, int kor, int* truth) {
    *truth = 0;
    short code = n->code;
    switch (code) {
    case OP_NAME:
    case OP_LITN:
    case OP_LITC:
        fetch(env, n, rec, v, kor);
        *truth = v->num ? numtruth(v->d) : strtruth(v->s, v->len);
        return 0;
    case OP_LAND:
    case OP_LOR: {
        int t;
        if (rctype rc = logic(env, n, rec, kor, &t)) return rc;
        return setbool(v, truth, t);
    }
    case OP_LNOT: {
        SQLOP* c = get_child(n, 0);
        if (!c) return WH_RC_BADTREE;
        Val cv;
        int t;
        if (rctype rc = evalv(env, c, rec, &cv, kor, &t)) return rc;
        return setbool(v, truth, !t);
    }
    case OP_ISNL:
    case OP_NTNL: {
        Val a;
        if (rctype rc = operands(env, n, rec, kor, 1, &a)) return rc;
        bool isnull = a.num ? ismiss(a.d) : !strtruth(a.s, a.len);
        return setbool(v, truth, (code == OP_ISNL) == isnull);
    }
    case OP_BETW:
    case OP_NBTW: {
        Val x[3];
        if (rctype rc = operands(env, n, rec, kor, 3, x)) return rc;
        // Ends given high first work as if given in order.
        const Val* pl = &x[1];
        const Val* ph = &x[2];
        if (valcmp(env, x[1], x[2], 0) == 4) std::swap(pl, ph);
        bool in = valcmp(env, x[0], *pl, 0) != 1 && valcmp(env, x[0], *ph, 0) != 4;
        return setbool(v, truth, (code == OP_BETW) == in);
    }
    case OP_LIKE:
    case OP_NLKE: {
        Val ap[2];
        if (rctype rc = strings(env, n, rec, kor, ap)) return rc;
        // A literal pattern is compiled once and kept in the node.
        bool lit = get_child(n, 1)->code == OP_LITC;
        int m = whlike(ap[0].s, ap[0].len, ap[1].s, ap[1].len, lit ? 1 : 0, lit ? &n->tmpptr : nullptr,
                       code == OP_LIKE);
        if (m < 0) return m;
        return setbool(v, truth, (code == OP_LIKE) == (m == 1));
    }
    case OP_CONT:
    case OP_NCON: {
        Val ab[2];
        if (rctype rc = strings(env, n, rec, kor, ab)) return rc;
        bool has = strndx(ab[0].s, ab[0].len, ab[1].s, ab[1].len) >= 0;
        return setbool(v, truth, (code == OP_CONT) == has);
    }
    case OP_SDX:
    case OP_NSDX: {
        Val ab[2];
        if (rctype rc = strings(env, n, rec, kor, ab)) return rc;
        bool same = whsndx(ab[0].s, ab[0].len, ab[1].s, ab[1].len);
        return setbool(v, truth, (code == OP_SDX) == same);
    }
    case OP_AADD:
    case OP_ASUB:
    case OP_AMUL:
    case OP_ADIV: {
        Val ab[2];
        if (rctype rc = operands(env, n, rec, kor, 2, ab)) return rc;
        double x = ab[0].num ? ab[0].d : VZ_MISSING, y = ab[1].num ? ab[1].d : VZ_MISSING;
        double r;
        if (ismiss(x) || ismiss(y)) r = VZ_MISSING;
        else if (code == OP_AADD) r = x + y;
        else if (code == OP_ASUB) r = x - y;
        else if (code == OP_AMUL) r = x * y;
        else r = y == 0.0 ? VZ_MISSING : x / y;
        v->num = true;
        v->d = r;
        *truth = numtruth(r);
        return 0;
    }
    case OP_ANEG:
    case OP_APOS: {
        Val a;
        if (rctype rc = operands(env, n, rec, kor, 1, &a)) return rc;
        double x = a.num ? a.d : VZ_MISSING;
        if (code == OP_ANEG && !ismiss(x)) x = -x;
        v->num = true;
        v->d = x;
        *truth = numtruth(x);
        return 0;
    }
    case OP_APOW: {
        if (n->u.node.narg < 1) return WH_RC_BADTREE;
        rctype rc = 0;
        double r = whapow(env, n, 0, rec, kor, &rc);
        if (rc) return rc;
        v->num = true;
        v->d = r;
        *truth = numtruth(r);
        return 0;
    }
    case OP_CONC: {
        if (!n->tmpptr && !(n->tmpptr = std::malloc(CONC_BUFSIZE))) return WH_RC_NOMEM;
        char* buf = static_cast<char*>(n->tmpptr);
        int len = 0;
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            if (!c) return WH_RC_BADTREE;
            Val a;
            if (rctype rc = fetch(env, c, rec, &a, kor)) return rc;
            if (a.num) return WH_RC_BADTREE;
            // The planner's string lengths keep a clause far below the
            // buffer; a hostile tree must still not write past it.
            int k = a.len < CONC_BUFSIZE - len ? a.len : CONC_BUFSIZE - len;
            std::memmove(buf + len, a.s, k);
            len += k;
        }
        setstr(v, buf, len, false);
        *truth = strtruth(buf, len);
        return 0;
    }
    case OP_MIN:
    case OP_MAX: {
        Val ab[2];
        if (rctype rc = operands(env, n, rec, kor, 2, ab)) return rc;
        bool less = valcmp(env, ab[0], ab[1], 0) == 1;
        const Val& pick = (code == OP_MIN) == less ? ab[0] : ab[1];
        if (pick.num) {
            v->num = true;
            v->d = pick.d;
            *truth = numtruth(pick.d);
        } else {
            setstr(v, pick.s, pick.len, true);
            *truth = strtruth(v->s, v->len);
        }
        return 0;
    }
    case OP_FLST:
        return do_func(env, n, rec, v, kor, truth);
    default:
        if (isloopnode(code)) {
            int t;
            if (rctype rc = loopnode(env, n, rec, kor, &t)) return rc;
            return setbool(v, truth, t);
        }
        v->num = true;
        v->d = 0;
        return 0;
    }
}

char soundcode(unsigned char c) {
    static const char map[] = "01230120022455012623010202";
    if (c >= 'a' && c <= 'z') return map[c - 'a'];
    if (c >= 'A' && c <= 'Z') return map[c - 'A'];
    return map[0];
}

// ---------------------------------------------------------------- many rows

constexpr int WH_BATCH = 1024;
constexpr int WH_BATCHDEPTH = 48;  // deeper trees are tested a row at a time

// Evaluates n on the rows of base listed in sel, truth into res[row]. LAND and
// LOR pass on to each child only the rows still undecided, so each node sees
// exactly the rows a row-at-a-time evaluation would show it, in row order.
rctype batch(wh_env_t* env, SQLOP* n, const char* base, int rowlen, const uint16_t* sel, int nsel, uint8_t* res,
             int kor, int depth) {
    short code = n->code;
    if ((code == OP_LAND || code == OP_LOR) && depth < WH_BATCHDEPTH) {
        bool isand = code == OP_LAND;
        uint16_t cur[WH_BATCH];
        uint8_t tmp[WH_BATCH];
        int ncur = nsel;
        for (int i = 0; i < nsel; i++) {
            cur[i] = sel[i];
            res[sel[i]] = isand;
        }
        for (int k = 0; k < n->u.node.narg && ncur > 0; k++) {
            SQLOP* c = get_child(n, k);
            if (!c) return WH_RC_BADTREE;
            if (rctype rc = batch(env, c, base, rowlen, cur, ncur, tmp, kor, depth + 1)) return rc;
            int m = 0;
            for (int i = 0; i < ncur; i++) {
                uint16_t r = cur[i];
                // A row is decided by the first false child of LAND, the first
                // true child of LOR.
                if (tmp[r] != isand) res[r] = !isand;
                else cur[m++] = r;
            }
            ncur = m;
        }
        return 0;
    }
    if (code == OP_LNOT && depth < WH_BATCHDEPTH) {
        SQLOP* c = get_child(n, 0);
        if (!c) return WH_RC_BADTREE;
        if (rctype rc = batch(env, c, base, rowlen, sel, nsel, res, kor, depth + 1)) return rc;
        for (int i = 0; i < nsel; i++) res[sel[i]] = !res[sel[i]];
        return 0;
    }
    if (code >= OP_CEQ && code <= OP_CGE && n->u.node.narg >= 2) {
        const SQLOP* l = n->u.node.arg[0];
        const SQLOP* r = n->u.node.arg[1];
        if (l && r && l->code == OP_NAME && l->type == -8 && r->code == OP_LITN && !ismiss(r->u.nleaf.nbr)) {
            const char* p = base + l->u.vleaf.offset;
            double y = r->u.nleaf.nbr;
            int mask = cmpmask[code - OP_CEQ];
            for (int i = 0; i < nsel; i++) {
                double x;
                std::memcpy(&x, p + static_cast<long>(sel[i]) * rowlen, 8);
                // Every missing value sorts below every number.
                int o = ismiss(x) ? 1 : (x < y) | ((x == y) << 1) | ((x > y) << 2);
                res[sel[i]] = (o & mask) != 0;
            }
            return 0;
        }
        // A character column equal to a literal: the literal blank padded to
        // the column's length once, then one memcmp a row.
        if (l && r && l->code == OP_NAME && l->type > 0 && l->type <= 256 && r->code == OP_LITC &&
            r->u.cleaf.leng <= l->type && (code == OP_CEQ || code == OP_CNE) &&
            !(env && env->targenv && env->targenv->nls_strcom)) {
            char lit[256];
            int len = l->type;
            std::memset(lit, ' ', len);
            std::memcpy(lit, r->u.cleaf.c, r->u.cleaf.leng);
            const char* p = base + l->u.vleaf.offset;
            bool want = code == OP_CEQ;
            for (int i = 0; i < nsel; i++)
                res[sel[i]] = (std::memcmp(p + static_cast<long>(sel[i]) * rowlen, lit, len) == 0) == want;
            return 0;
        }
    }
    for (int i = 0; i < nsel; i++) {
        const char* rec = base + static_cast<long>(sel[i]) * rowlen;
        int t = 0;
        if (!fastcmp(env, n, rec, &t)) {
            Val v;
            if (rctype rc = evalv(env, n, rec, &v, kor, &t)) return rc;
        }
        res[sel[i]] = static_cast<uint8_t>(t);
    }
    return 0;
}

}  // namespace

rctype wheval(wh_env_t* whenv, SQLOP* tree, const char* rec, SQLOP* result, int kor_clause, int* resp) {
    if (!tree || !resp) return WH_RC_NULLARG;
    Val v;
    int t = 0;
    rctype rc = evalv(whenv, tree, rec, &v, kor_clause, &t);
    if (rc) return rc;
    *resp = t;
    if (result) {
        if (v.num) {
            result->code = OP_LITN;
            result->type = -8;
            result->u.nleaf.nbr = v.d;
        } else {
            result->code = OP_LITC;
            result->type = static_cast<short>(v.len);
            result->u.cleaf.leng = v.len;
            if (v.s == v.buf) {
                std::memcpy(result->u.cleaf.string, v.buf, v.len);
                result->u.cleaf.c = result->u.cleaf.string;
            } else {
                result->u.cleaf.c = const_cast<char*>(v.s);
            }
        }
    }
    return 0;
}

rctype whevalrows(wh_env_t* whenv, SQLOP* tree, const char* rows, long nrows, int rowlen, int kor_clause,
                  uint8_t* match) {
    if (!tree || (!rows && nrows > 0) || !match || rowlen < 1) return WH_RC_NULLARG;
    uint16_t sel[WH_BATCH];
    for (long at = 0; at < nrows; at += WH_BATCH) {
        int n = static_cast<int>(nrows - at < WH_BATCH ? nrows - at : WH_BATCH);
        for (int i = 0; i < n; i++) sel[i] = static_cast<uint16_t>(i);
        if (rctype rc = batch(whenv, tree, rows + at * rowlen, rowlen, sel, n, match + at, kor_clause, 0)) return rc;
    }
    return 0;
}

rctype wheval2(WH_HANDLE* wh, const char* rec, int* resp) {
    if (!wh || !resp) return WH_RC_NULLARG;
    if (!wh->tree) {
        *resp = 1;
        return 0;
    }
    return wheval(&wh->whenv, wh->tree, rec, nullptr, !wh->not_kor, resp);
}

int whecmp(wh_env_t* whenv, const SQLOP* temp1, const SQLOP* temp2, int ctype) {
    Val a{}, b{};
    for (auto [n, v] : {std::pair{temp1, &a}, std::pair{temp2, &b}}) {
        if (n->code == OP_LITC) {
            v->num = false;
            v->s = n->u.cleaf.c;
            v->len = n->u.cleaf.leng;
        } else {
            v->num = true;
            v->d = n->u.nleaf.nbr;
        }
    }
    return valcmp(whenv, a, b, ctype);
}

long strndx(const char* str1, long len1, const char* str2, long len2) {
    if (len1 < 0) len1 = str1 ? static_cast<long>(std::strlen(str1)) : 0;
    if (len2 < 0) len2 = str2 ? static_cast<long>(std::strlen(str2)) : 0;
    if (len2 == 0) return 0;
    if (len1 == 0 || len2 > len1) return -1;
    for (long i = 0; i + len2 <= len1; i++)
        if (str1[i] == str2[0] && std::memcmp(str1 + i, str2, len2) == 0) return i;
    return -1;
}

int whsoundx(const char* in, int len, char* out) {
    int k = 0;
    int i = 0;
    while (i < len && in[i] == ' ') i++;
    if (i >= len) return 0;
    unsigned char c0 = static_cast<unsigned char>(in[i]);
    out[k++] = (c0 >= 'a' && c0 <= 'z') ? static_cast<char>(c0 - 'a' + 'A') : static_cast<char>(c0);
    char last = soundcode(c0);
    for (i++; i < len && k < len; i++) {
        char c = soundcode(static_cast<unsigned char>(in[i]));
        if (c == last) continue;
        last = c;
        if (c == '0') continue;
        out[k++] = c;
    }
    return k;
}

bool whsndx(const char* a, int la, const char* b, int lb) {
    char ca[204], cb[204];
    if (la > 204) la = 204;
    if (lb > 204) lb = 204;
    la = vzstrip(a, la);
    lb = vzstrip(b, lb);
    int na = whsoundx(a, la, ca);
    int nb = whsoundx(b, lb, cb);
    // Codes shorter than four compare as if padded with zeros.
    for (int i = na; i < 4; i++) ca[i] = '0';
    for (int i = nb; i < 4; i++) cb[i] = '0';
    return std::memcmp(ca, cb, 4) == 0;
}

}  // namespace vrta

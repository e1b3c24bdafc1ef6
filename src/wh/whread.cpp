// Reader of the wire form of a WHERE clause: forms 0006 and 0009 into a tree
// of SQLOP nodes. Every length and count is checked against the bytes that
// are really there.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "hs/hsnls.h"
#include "hs/zrt.h"
#include "ssubs/hscsdbl.h"
#include "ssubs/vz.h"
#include "wh/wh.h"

namespace vrta {

namespace {

constexpr char V0006[5] = {'0', '0', '0', '6', 0};
constexpr char V0009[5] = {'0', '0', '0', '9', 0};

struct Reader {
    const uint8_t* base;  // the buffer as given: jumps count from here
    const uint8_t* p;
    const uint8_t* end;
    whlin_t* lin;
    wh_env_t* env;

    long left() const { return end - p; }
    bool word(int32_t* v) {
        if (left() < 4) return false;
        *v = static_cast<int32_t>(zrtint(p, 4));
        p += 4;
        return true;
    }
    bool shortword(short* v) {
        int32_t w;
        if (!word(&w) || w < SHRT_MIN || w > SHRT_MAX) return false;
        *v = static_cast<short>(w);
        return true;
    }
    bool take(void* dst, long n) {
        if (n < 0 || left() < n) return false;
        if (n > 0) std::memcpy(dst, p, n);
        p += n;
        return true;
    }
    bool skip(long n) {
        if (n < 0 || left() < n) return false;
        p += n;
        return true;
    }
    // A word length and that many bytes, not kept.
    bool skipcounted() {
        int32_t n;
        return word(&n) && skip(n);
    }
    // A word length (at most room) and the name bytes.
    bool name(char* dst, int room, short* len) {
        int32_t n;
        if (!word(&n) || n < 0 || n > room || !take(dst, n)) return false;
        *len = static_cast<short>(n);
        return true;
    }
};

// Strings compare as the target environment collates them, else byte by byte
// with the shorter one taken as blank padded.
int litccmp(const wh_env_t* env, const SQLOP* a, const SQLOP* b) {
    const SQLCLEAF& x = a->u.cleaf;
    const SQLCLEAF& y = b->u.cleaf;
    if (env && env->targenv && env->targenv->nls_strcom)
        return env->targenv->nls_strcom(env->targenv, x.c, x.leng, y.c, y.leng);
    int n = x.leng < y.leng ? x.leng : y.leng;
    if (int c = std::memcmp(x.c, y.c, n)) return c;
    const char* rest = x.leng > n ? x.c : y.c;
    int sign = x.leng > n ? 1 : -1;
    for (int i = n; i < (x.leng > y.leng ? x.leng : y.leng); i++)
        if (rest[i] != ' ') return static_cast<uint8_t>(rest[i]) < ' ' ? -sign : sign;
    return 0;
}

// Form 0009 orders a set whose node says its elements are unordered. Nothing
// in that reader marks a set so, but a marked one is handled as it must be.
rctype sort0009(const wh_env_t* env, SQLOP* n) {
    int narg = n->u.node.narg;
    if (n->code == OP_SET && narg >= 2) {
        for (int i = 0; i < narg; i++) {
            SQLOP* c = get_child(n, i);
            if (!c || c->code != OP_LITC) return WH_RC_BADSETEL;
        }
        for (int hi = narg - 1; hi > 0;) {
            int last = 0;
            for (int i = 0; i < hi; i++) {
                SQLOP* a = get_child(n, i);
                SQLOP* b = get_child(n, i + 1);
                if (litccmp(env, a, b) > 0) {
                    set_child(n, i, b);
                    set_child(n, i + 1, a);
                    last = i;
                }
            }
            if (last == 0) break;
            hi = last;
        }
    } else if (n->code == OP_RANB && narg == 2) {
        SQLOP* a = get_child(n, 0);
        SQLOP* b = get_child(n, 1);
        if (!a || !b || a->code != OP_LITC || b->code != OP_LITC) return WH_RC_BADSETEL;
        if (litccmp(env, a, b) > 0) {
            set_child(n, 0, b);
            set_child(n, 1, a);
        }
    } else {
        return WH_RC_BADSETEL;
    }
    n->nodeflags &= ~WH_NF_UNORDERED;
    return 0;
}

rctype readtext(Reader& r, SQLOP* n, int32_t len) {
    if (len < 0 || r.left() < len) return WH_RC_BADWIRE;
    rctype rc = wh_setlitc(n, reinterpret_cast<const char*>(r.p), len);
    if (rc) return rc;
    r.p += len;
    return 0;
}

rctype readlitn(Reader& r, SQLOP* n) {
    SQLNLEAF& l = n->u.nleaf;
    if (r.left() < 16) return WH_RC_BADWIRE;
    if (r.lin->native == 2) {
        std::memcpy(&l.nbr, r.p + 8, 8);
    } else {
        l.nbr = zrtdbl(r.p, 8);
    }
    r.p += 16;
    std::memcpy(l.nbr_collatable, &l.nbr, 8);
    hscsdbl(l.nbr_collatable, 8);
    int32_t dt;
    if (!r.word(&dt)) return WH_RC_BADWIRE;
    l.datetype = dt;
    return 0;
}

// A packed set: a count, the width of one element, then the elements.
rctype readset(Reader& r, SQLOP* n) {
    int32_t num, len;
    if (!r.word(&num) || !r.word(&len) || num < 0 || len < 1) return WH_RC_BADWIRE;
    if (n->code == OP_SETN && len > 8) return WH_RC_BADWIRE;
    if (static_cast<long>(num) * len > r.left()) return WH_RC_BADWIRE;
    SQLSETLF& s = n->u.setleaf;
    size_t bytes = n->code == OP_SETN ? static_cast<size_t>(num) * 8 : static_cast<size_t>(num) * len + 1;
    s.p = std::calloc(1, bytes ? bytes : 1);
    if (!s.p) return WH_RC_NOMEM;
    if (n->code == OP_SETN) {
        auto* d = static_cast<double*>(s.p);
        for (int i = 0; i < num; i++, r.p += len) d[i] = zrtdbl(r.p, len);
        s.len = 8;
    } else {
        std::memcpy(s.p, r.p, static_cast<size_t>(num) * len);
        r.p += static_cast<long>(num) * len;
        s.len = len;
    }
    s.num = num;
    return 0;
}

rctype readleaf(Reader& r, SQLOP* n, SQLOP* parent, int32_t narg, bool f9) {
    SQLVLEAF& v = n->u.vleaf;
    switch (n->code) {
    case OP_NULL:
    case OP_STAR:
    case OP_USER:
    case OP_BYNM:
        return 0;
    case OP_NAME:
        if (f9 && !r.skipcounted()) return WH_RC_BADWIRE;
        {
            int32_t off, nv;
            if (!r.name(v.name, sizeof v.name, &v.namelen) || !r.shortword(&v.leng) || !r.word(&off) ||
                !r.word(&nv))
                return WH_RC_BADWIRE;
            v.offset = off;
            v.nvar0 = nv;
        }
        return 0;
    case OP_FNAM:
    case OP_WNAM:
    case OP_ANAM:
    case OP_HNAM:
    case OP_XNAM:
        if (f9 && !r.skipcounted()) return WH_RC_BADWIRE;
        if (!r.name(v.name, sizeof v.name, &v.namelen)) return WH_RC_BADWIRE;
        if (f9 && n->code == OP_FNAM) vzMP(v.name, v.namelen);
        return 0;
    case OP_LITN:
        return readlitn(r, n);
    case OP_LITC:
    case OP_LABL:
        if (f9) {
            int32_t size;
            if (!r.skipcounted() || !r.word(&size)) return WH_RC_BADWIRE;
            return readtext(r, n, size);
        } else {
            // narg counts the text and its terminator.
            if (narg < 1 || r.left() < narg) return WH_RC_BADWIRE;
            rctype rc = readtext(r, n, narg - 1);
            if (rc == 0) r.p++;
            return rc;
        }
    case OP_LITC28:
    case OP_LITC29:
        if (f9 || narg < 1 || r.left() < narg) return WH_RC_BADWIRE;
        if (n->code == OP_LITC28 && parent && (parent->code == OP_SET || parent->code == OP_RANB))
            parent->nodeflags |= WH_NF_UNORDERED;
        n->code = OP_LITC;
        if (rctype rc = readtext(r, n, narg - 1)) return rc;
        r.p++;
        return 0;
    case OP_FMT: {
        SQLOP_FMT& f = n->u.fmt;
        if (!r.name(f.name, sizeof f.name, &f.namelen) || !r.shortword(&f.wid) || !r.shortword(&f.ndec))
            return WH_RC_BADWIRE;
        return 0;
    }
    case OP_FUNC: {
        SQLOP_FUNC& f = n->u.func;
        if (r.lin->format < 4 || !r.name(f.name, sizeof f.name, &f.namelen)) return WH_RC_BADWIRE;
        vzMP(f.name, f.namelen);
        return 0;
    }
    case OP_SETN:
    case OP_SETC:
        if (f9) return WH_RC_BADWIRE;
        return readset(r, n);
    default:
        return WH_RC_BADWIRE;
    }
}

// Fills n from the wire; children are hung on n before they are read, so a
// failure anywhere leaves one tree for the caller to free.
rctype gettree(Reader& r, SQLOP* n, SQLOP* parent, int depth, bool f9) {
    if (depth > WH_MAXDEPTH) return WH_RC_BADWIRE;
    int32_t code, narg, type;
    if (!r.word(&code) || !r.word(&narg) || !r.word(&type)) return WH_RC_BADWIRE;
    if (code < 0 || code > SHRT_MAX || type < SHRT_MIN || type > SHRT_MAX) return WH_RC_BADWIRE;
    n->code = static_cast<short>(code);
    n->type = static_cast<short>(type);
    if (code < OP_FIRSTOP) return readleaf(r, n, parent, narg, f9);
    // Codes of the full SQL form have no place in a WHERE clause.
    if (code == OP_SAME) return WH_RC_BADWIRE;
    // Each operand takes at least its three words.
    if (narg < 0 || narg > r.left() / 12) return WH_RC_BADWIRE;
    for (int i = 0; i < narg; i++) {
        SQLOP* c;
        if (rctype rc = get_node(&c)) return rc;
        if (rctype rc = set_child(n, i, c)) {
            free_node(c, nullptr);
            return rc;
        }
        if (rctype rc = gettree(r, c, n, depth + 1, f9)) return rc;
    }
    if (f9 && (n->nodeflags & WH_NF_UNORDERED)) return sort0009(r.env, n);
    return 0;
}

// Version, tags, tree and trailer at r.p into root.
rctype readclause(Reader& r, SQLOP* root) {
    char version[5];
    char mach[8], sys[8];
    if (!r.take(version, 5)) return WH_RC_BADWIRE;
    bool f9;
    if (std::memcmp(version, V0006, 5) == 0) f9 = false;
    else if (std::memcmp(version, V0009, 5) == 0) f9 = true;
    else return WH_RC_BADWIRE;
    r.lin->format = f9 ? 9 : 6;
    if (!r.take(mach, 8) || !r.take(sys, 8)) return WH_RC_BADWIRE;
    r.lin->native = std::memcmp(mach, "SUN 4   ", 8) == 0 && std::memcmp(sys, "Solaris ", 8) == 0 ? 2 : 1;
    if (f9) {
        int32_t cei;
        if (!r.word(&cei) || !r.skip(16)) return WH_RC_BADWIRE;
        r.lin->targ_cei = cei;
    } else {
        if (r.left() < 8) return WH_RC_BADWIRE;
        uint32_t w1 = static_cast<uint32_t>(zrtinu(r.p, 4));
        uint32_t w2 = static_cast<uint32_t>(zrtinu(r.p + 4, 4));
        uint32_t off = (w1 & 0xffff0000u) | (w2 >> 16);
        if (off != 0) {
            // A jump to a later header, whose own trailer closes the clause.
            // Only forward jumps are taken, so a chain of them must end.
            if (off <= static_cast<uint32_t>(r.p - r.base) || off >= static_cast<uint32_t>(r.end - r.base))
                return WH_RC_BADWIRE;
            r.p = r.base + off;
            return readclause(r, root);
        }
    }
    if (rctype rc = gettree(r, root, nullptr, 0, f9)) return rc;
    char trailer[5];
    if (!r.take(trailer, 5) || std::memcmp(trailer, version, 5) != 0) return WH_RC_BADWIRE;
    return 0;
}

}  // namespace

rctype getbooltree(void* gcbp, wh_env_t* whenv, const void* buf, long buflen, whlin_t* lin, bool* notkor,
                   SQLOP** treeptr) {
    (void)gcbp;
    if (!buf || !lin || !treeptr || buflen < 0) return WH_RC_NULLARG;
    Reader r{static_cast<const uint8_t*>(buf), static_cast<const uint8_t*>(buf),
             static_cast<const uint8_t*>(buf) + buflen, lin, whenv};
    SQLOP* root;
    if (lin->format != 6) {
        *treeptr = nullptr;
        int32_t first;
        if (!r.word(&first) || first == INT32_MIN) return WH_RC_BADWIRE;
        // The first word is the length of what follows; it must be there.
        long total = first < 0 ? -static_cast<long>(first) : first;
        if (total > r.left()) return WH_RC_BADWIRE;
        r.end = r.p + total;
        if (notkor) *notkor = first < 0;
        if (rctype rc = get_node(&root)) return rc;
        *treeptr = root;
    } else {
        root = *treeptr;
        if (!root) return WH_RC_NULLARG;
    }
    rctype rc = readclause(r, root);
    if (rc) free_tree(treeptr, nullptr);
    return rc;
}

rctype get_whclause(void* gcbp, const void* buf, long buflen, WH_HANDLE* wh, SQLOP** tree) {
    if (!wh || !tree) return WH_RC_NULLARG;
    // Each clause is an outer read, whatever form the last one had.
    wh->lin.format = 0;
    return getbooltree(gcbp, &wh->whenv, buf, buflen, &wh->lin, &wh->not_kor, tree);
}

rctype wh_getatree(const void* buf, long buflen, SQLOP** treeptr) {
    whlin_t lin{};
    return getbooltree(nullptr, nullptr, buf, buflen, &lin, nullptr, treeptr);
}

}  // namespace vrta

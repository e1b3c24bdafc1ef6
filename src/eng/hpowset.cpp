// The wire form of a WHERE tree, written the way the client side writes it:
// a chain of small links, each piece placed as it comes, the total length
// patched into the first word at the end.
#include "eng/hpowset.h"

#include <cstddef>
#include <cstring>

#include "hs/zrt.h"

namespace vrta {

namespace {

constexpr rctype XOW_RC_NOMEM = static_cast<rctype>(0x80010003u);
constexpr rctype XOW_RC_BADCODE = static_cast<rctype>(0x8001000fu);
constexpr char XOW_VERSION[5] = {'0', '0', '0', '6', 0};

constexpr long linkbytes(int n) {
    return n > XOW_LINKBYTES ? static_cast<long>(offsetof(XOWBUFR, buf)) + n : static_cast<long>(sizeof(XOWBUFR));
}

XOWBUFR* newlink(xmpid pool, int n) {
    auto* b = static_cast<XOWBUFR*>(xmalloc(pool, linkbytes(n), 0));
    if (!b) return nullptr;
    b->next = nullptr;
    b->len = 0;
    return b;
}

struct Writer {
    xmpid pool;
    XOWBUFR* cur;
    bool word(int32_t v) {
        char* p = put_buf(pool, &cur, 4);
        if (p) zctint(v, p, 4);
        return p != nullptr;
    }
    bool bytes(const void* src, int n) {
        if (n <= 0) return true;
        char* p = put_buf(pool, &cur, n);
        if (p) zctchr(static_cast<const char*>(src), p, n);
        return p != nullptr;
    }
    bool counted(const char* s, int n) { return word(n) && bytes(s, n); }
};

// The length word of a node's head.
int32_t headlen(const XOWOP* n) {
    if (n->code >= OP_FIRSTOP) return n->u.node.narg;
    switch (n->code) {
    case OP_LITC:
    case OP_LABL:
        return n->u.cleaf.leng + 1;
    case OP_TABL:
        return n->extra;
    default:
        return 0;
    }
}

rctype put_tree(Writer& w, const XOWOP* n, int depth) {
    if (depth > WH_MAXDEPTH) return XOW_RC_BADCODE;
    if (!n) return w.word(0) && w.word(0) && w.word(0) ? 0 : XOW_RC_NOMEM;
    // A literal out of collating order travels as code 28, so that the
    // reader can mark its set as unordered.
    int32_t code = n->code == OP_LITC && (n->nodeflags & WH_NF_UNORDERED) ? int32_t{OP_LITC28} : int32_t{n->code};
    if (code < OP_FIRSTOP) {
        switch (code) {
        case OP_NULL: case OP_STAR: case OP_USER: case OP_BYNM:
        case OP_NAME: case OP_FNAM: case OP_WNAM: case OP_ANAM: case OP_HNAM:
        case OP_LITN: case OP_LITC: case OP_LABL: case OP_LITC28:
        case OP_TABL: case OP_JTAG: case OP_FMT: case OP_FUNC: case OP_SOBT:
        case OP_SETN: case OP_SETC:
            break;
        default:
            return XOW_RC_BADCODE;
        }
    }
    if (!w.word(code) || !w.word(headlen(n)) || !w.word(n->type)) return XOW_RC_NOMEM;
    bool ok = true;
    switch (code) {
    case OP_NULL:
    case OP_STAR:
    case OP_USER:
    case OP_BYNM:
        break;
    case OP_NAME:
    case OP_FNAM:
    case OP_WNAM:
    case OP_ANAM:
    case OP_HNAM: {
        const SQLVLEAF& v = n->u.vleaf;
        ok = w.counted(v.name, v.namelen);
        // The column: its kind, its length and its number, which the reader
        // keeps as nvar0.
        if (ok && code == OP_NAME) ok = w.word(n->type < 0 ? 1 : 2) && w.word(v.leng) && w.word(v.nvar0);
        break;
    }
    case OP_LITN: {
        const SQLNLEAF& l = n->u.nleaf;
        char* p = put_buf(w.pool, &w.cur, 16);
        ok = p != nullptr;
        if (ok) {
            zctdbl(l.nbr, p, 8);
            std::memcpy(p + 8, &l.nbr, 8);
            ok = w.word(l.datetype);
        }
        break;
    }
    case OP_LITC:
    case OP_LABL:
    case OP_LITC28: {
        const SQLCLEAF& c = n->u.cleaf;
        const char nul = 0;
        ok = w.bytes(c.c, c.leng) && w.bytes(&nul, 1);
        break;
    }
    case OP_TABL: {
        const SQLTLEAF& t = n->u.tleaf;
        // The library name goes without its blanks, NUL padded to 8.
        char name[9];
        char lib[8] = {};
        int nl = get_char8z(t.lib, name);
        std::memcpy(lib, name, nl);
        ok = w.bytes(lib, 8) && w.counted(t.mem, t.memlen);
        // extra bytes of data follow, as many as the head announced.
        if (ok && n->extra > 0) {
            char* p = put_buf(w.pool, &w.cur, n->extra);
            ok = p != nullptr;
            if (ok) {
                int have = t.opt ? (t.optlen < n->extra ? t.optlen : n->extra) : 0;
                if (have > 0) std::memcpy(p, t.opt, have);
                std::memset(p + have, 0, n->extra - have);
            }
        }
        if (ok) ok = w.word(t.ds);
        break;
    }
    case OP_JTAG:
        ok = w.word(n->u.jtag.jds);
        break;
    case OP_FMT: {
        const SQLOP_FMT& f = n->u.fmt;
        ok = w.counted(f.name, f.namelen) && w.word(f.wid) && w.word(f.ndec);
        break;
    }
    case OP_FUNC:
        ok = w.counted(n->u.func.name, n->u.func.namelen);
        break;
    case OP_SOBT: {
        const SQLSOB& s = n->u.sob;
        ok = w.counted(s.mem, s.memlen) && w.counted(s.alias, s.aliaslen) && w.word(s.dsnum);
        break;
    }
    case OP_SETN:
    case OP_SETC: {
        const SQLSETLF& s = n->u.setleaf;
        int width = code == OP_SETN ? 8 : s.len;
        if (s.num < 0 || width < 1 || (s.num > 0 && !s.p)) return XOW_RC_BADCODE;
        ok = w.word(s.num) && w.word(width);
        for (int i = 0; ok && i < s.num; i++) {
            char* p = put_buf(w.pool, &w.cur, width);
            ok = p != nullptr;
            if (!ok) break;
            if (code == OP_SETN) zctdbl(static_cast<const double*>(s.p)[i], p, 8);
            else std::memcpy(p, static_cast<const char*>(s.p) + static_cast<long>(i) * width, width);
        }
        break;
    }
    default: {
        int narg = n->u.node.narg;
        for (int i = 0; i < narg; i++) {
            const XOWOP* c = i < WH_NARGS ? n->u.node.arg[i] : xowgetf(n, i);
            if (rctype rc = put_tree(w, c, depth + 1)) return rc;
        }
        break;
    }
    }
    return ok ? 0 : XOW_RC_NOMEM;
}

}  // namespace

char* put_buf(xmpid pool, XOWBUFR** cur, int n) {
    if (!cur || !*cur || n < 0) return nullptr;
    XOWBUFR* b = *cur;
    if (b->len + n > XOW_LINKBYTES) {
        XOWBUFR* nb = newlink(pool, n);
        if (!nb) return nullptr;
        b->next = nb;
        *cur = b = nb;
    }
    char* p = b->buf + b->len;
    b->len += n;
    return p;
}

const XOWOP* xowgetf(const XOWOP* node, int i) { return get_child(node, i); }

int get_char8z(const char* name8, char* out) {
    int n = 8;
    while (n > 0 && (name8[n - 1] == ' ' || name8[n - 1] == 0)) n--;
    std::memcpy(out, name8, n);
    out[n] = 0;
    return n;
}

void ozinf(char tag1[8], char tag2[8]) {
    std::memcpy(tag1, "SOL-x64 ", 8);
    std::memcpy(tag2, "X64     ", 8);
}

long xowlen(const XOWBUFR* chain) {
    long n = 0;
    for (const XOWBUFR* b = chain; b; b = b->next) n += b->len;
    return n;
}

void xowcopy(const XOWBUFR* chain, void* dest) {
    auto* d = static_cast<char*>(dest);
    for (const XOWBUFR* b = chain; b; b = b->next) {
        std::memcpy(d, b->buf, b->len);
        d += b->len;
    }
}

void xowfree(xmpid pool, XOWBUFR* chain) {
    while (chain) {
        XOWBUFR* nx = chain->next;
        xmfree(pool, chain, linkbytes(chain->len));
        chain = nx;
    }
}

rctype xowtput(const XOWOP* tree, xmpid pool, XOWBUFR** out) {
    if (!out) return XOW_RC_NOMEM;
    *out = nullptr;
    XOWBUFR* first = newlink(pool, 0);
    if (!first) return XOW_RC_NOMEM;
    // The first 4 bytes hold the total, patched in at the end.
    first->len = 4;
    Writer w{pool, first};
    char tag1[8], tag2[8];
    ozinf(tag1, tag2);
    rctype rc = w.bytes(XOW_VERSION, 5) && w.bytes(tag1, 8) && w.bytes(tag2, 8) ? 0 : XOW_RC_NOMEM;
    if (!rc) rc = put_tree(w, tree, 0);
    if (!rc && !w.bytes(XOW_VERSION, 5)) rc = XOW_RC_NOMEM;
    if (rc) {
        xowfree(pool, first);
        return rc;
    }
    zctint(xowlen(first) - 4, first->buf, 4);
    *out = first;
    return 0;
}

}  // namespace vrta

// Renders a WHERE tree back into the text of a clause.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ssubs/vz.h"
#include "wh/wh.h"

namespace vrta {

namespace {

constexpr int WHSAY_WORK = 32768;

struct WHSAY {
    int alc;
    int len;
    char* txt;
    char* work;
};

// Styles: 0 between the operands, 1 behind each, 2 in front of each, 3 a form
// of its own.
struct SAYOP {
    short code;
    const char* text;
    int style;
    bool brackets;
};

// Looked up from the top; the last row catches every other code.
constexpr SAYOP saytbl[] = {
    {OP_LOR, " or ", 0, true},           {OP_LAND, " and ", 0, true},
    {OP_LNOT, "not ", 2, true},          {OP_IN, " in (", 3, false},
    {OP_NIN, " not in (", 3, false},     {OP_BETW, " between ", 3, false},
    {OP_NBTW, " not between ", 3, false}, {OP_LIKE, " like ", 0, false},
    {OP_NLKE, " not like ", 0, false},   {OP_CONT, " contains ", 0, false},
    {OP_NCON, " not contains ", 0, false}, {OP_ISNL, " is null ", 1, true},
    {OP_NTNL, " is not null ", 1, true}, {OP_TIN, " in: (", 3, false},
    {OP_TNIN, " not in: (", 3, false},   {OP_SDX, " =* ", 0, false},
    {OP_NSDX, " not =* ", 0, false},     {OP_CEQ, "=", 0, true},
    {OP_CNE, " not = ", 0, true},        {OP_CLT, "<", 0, true},
    {OP_CLE, "<=", 0, true},             {OP_CGT, ">", 0, true},
    {OP_CGE, ">=", 0, true},             {OP_CTEQ, "=:", 0, true},
    {OP_CTNE, " not =: ", 0, true},      {OP_CTLT, "<:", 0, true},
    {OP_CTLE, "<=:", 0, true},           {OP_CTGT, ">:", 0, true},
    {OP_CTGE, ">=:", 0, true},           {OP_AADD, "+", 0, true},
    {OP_ASUB, "-", 0, true},             {OP_AMUL, "*", 0, true},
    {OP_ADIV, "/", 0, true},             {OP_ANEG, "-", 2, false},
    {OP_APOW, "**", 0, true},            {OP_CONC, "||", 0, true},
    {OP_MIN, "><", 0, true},             {OP_MAX, "<>", 0, true},
    {OP_FLST, "", 3, false},             {OP_RANB, " thru ", 0, false},
    {OP_RANL, " thru ^", 0, false},      {OP_RANH, " ^thru ", 0, false},
    {OP_RANN, " ^thru ^", 0, false},     {OP_SET, ", ", 0, true},
    {OP_STNX, ", ", 0, true},            {29999, "", 3, false},
};
constexpr const char* BETW_AND = " and ";
constexpr int SET_SHOWN = 25;  // elements of a packed set written out

const SAYOP* sayop(int code) {
    for (const SAYOP& o : saytbl)
        if (o.code == code || o.code == 29999) return &o;
    return nullptr;
}

rctype putit(WHSAY* s, const char* p, int n) {
    if (n <= 0) return 0;
    if (s->len + n + 1 > s->alc) {
        int alc = s->len + n + 80;
        char* t = static_cast<char*>(std::realloc(s->txt, alc));
        if (!t) return WH_RC_NOMEM;
        s->txt = t;
        s->alc = alc;
    }
    std::memcpy(s->txt + s->len, p, n);
    s->len += n;
    s->txt[s->len] = 0;
    return 0;
}

rctype puts_(WHSAY* s, const char* p) { return putit(s, p, static_cast<int>(std::strlen(p))); }

// The quote is chosen by the first byte alone: a text that starts with a
// single quote goes in double quotes, any other in single quotes. Quotes
// inside are written as they are.
rctype saychar(WHSAY* s, const char* text, int len) {
    char q = len > 0 && text[0] == '\'' ? '"' : '\'';
    if (len + 2 <= WHSAY_WORK) {
        s->work[0] = q;
        if (len > 0) std::memcpy(s->work + 1, text, len);
        s->work[len + 1] = q;
        return putit(s, s->work, len + 2);
    }
    // Longer than the staging area: the same bytes, written in three pieces.
    rctype rc = putit(s, &q, 1);
    if (!rc) rc = putit(s, text, len);
    if (!rc) rc = putit(s, &q, 1);
    return rc;
}

rctype saynum(WHSAY* s, double v) {
    if (vzismiss(v)) return puts_(s, ".");
    char b[64];
    std::snprintf(b, sizeof b, "%g", v);
    return puts_(s, b);
}

// A packed set: its elements, each followed by a blank, then a count of the
// ones not shown.
rctype sayset(WHSAY* s, const SQLOP* n) {
    const SQLSETLF& l = n->u.setleaf;
    rctype rc = 0;
    for (int i = 0; i < l.num && i < SET_SHOWN && !rc; i++) {
        if (n->code == OP_SETN) {
            rc = saynum(s, static_cast<const double*>(l.p)[i]);
        } else {
            const char* e = static_cast<const char*>(l.p) + static_cast<long>(i) * l.len;
            rc = saychar(s, e, static_cast<int>(strnlen(e, l.len)));
        }
        if (!rc) rc = puts_(s, " ");
    }
    if (!rc && l.num > SET_SHOWN) {
        char b[32];
        std::snprintf(b, sizeof b, "<%d more>", l.num - SET_SHOWN);
        rc = puts_(s, b);
    }
    return rc;
}

rctype sayleaf(WHSAY* s, const SQLOP* n, bool* unknown) {
    switch (n->code) {
    case OP_NULL:
        return 0;
    case OP_LITN:
        return saynum(s, n->u.nleaf.nbr);
    case OP_LITC:
    case OP_LABL:
        return saychar(s, n->u.cleaf.c, n->u.cleaf.leng);
    case OP_STAR:
        return puts_(s, "*");
    case OP_USER:
        return puts_(s, "USER");
    case OP_FMT: {
        const SQLOP_FMT& f = n->u.fmt;
        int nl = vzstrip(f.name, f.namelen);
        rctype rc = nl > 0 ? putit(s, f.name, nl) : puts_(s, "F");
        char b[32];
        if (!rc && f.wid > 0) {
            std::snprintf(b, sizeof b, "%d", f.wid);
            rc = puts_(s, b);
        }
        if (!rc) rc = puts_(s, ".");
        if (!rc && f.ndec != 0) {
            std::snprintf(b, sizeof b, "%d", f.ndec);
            rc = puts_(s, b);
        }
        return rc;
    }
    case OP_FUNC:
        return putit(s, n->u.func.name, vzstrip(n->u.func.name, n->u.func.namelen));
    case OP_NAME:
    case OP_FNAM:
    case OP_WNAM:
    case OP_ANAM:
        return putit(s, n->u.vleaf.name, vzstrip(n->u.vleaf.name, n->u.vleaf.namelen));
    case OP_SETN:
    case OP_SETC:
        return sayset(s, n);
    default:
        *unknown = true;
        return puts_(s, "??leaf??");
    }
}

rctype sayit(WHSAY* s, const SQLOP* n, int depth, bool* unknown);

rctype saylist(WHSAY* s, const SQLOP* n, int from, const char* sep, int depth, bool* unknown) {
    rctype rc = 0;
    for (int i = from; i < n->u.node.narg && !rc; i++) {
        if (i > from) rc = puts_(s, sep);
        if (!rc) rc = sayit(s, get_child(n, i), depth + 1, unknown);
    }
    return rc;
}

rctype sayin(WHSAY* s, const SQLOP* n, const SAYOP* op, int depth, bool* unknown) {
    rctype rc = sayit(s, get_child(n, 0), depth + 1, unknown);
    if (!rc) rc = puts_(s, op->code == n->code ? op->text : " ??? ");
    const SQLOP* set = get_child(n, 1);
    if (!rc) {
        if (set && set->code >= OP_FIRSTOP) rc = saylist(s, set, 0, ", ", depth + 1, unknown);
        else rc = sayit(s, set, depth + 1, unknown);
    }
    if (!rc) rc = puts_(s, ")");
    return rc;
}

rctype saybetw(WHSAY* s, const SQLOP* n, const SAYOP* op, int depth, bool* unknown) {
    rctype rc = sayit(s, get_child(n, 0), depth + 1, unknown);
    if (!rc) rc = puts_(s, op->text);
    if (!rc) rc = sayit(s, get_child(n, 1), depth + 1, unknown);
    if (!rc) rc = puts_(s, BETW_AND);
    if (!rc) rc = sayit(s, get_child(n, 2), depth + 1, unknown);
    return rc;
}

rctype sayfunc(WHSAY* s, const SQLOP* n, int depth, bool* unknown) {
    const SQLOP* f = get_child(n, 0);
    rctype rc = f && f->code == OP_FUNC ? putit(s, f->u.func.name, vzstrip(f->u.func.name, f->u.func.namelen))
                                        : sayit(s, f, depth + 1, unknown);
    if (!rc) rc = puts_(s, "(");
    if (!rc) rc = saylist(s, n, 1, ", ", depth, unknown);
    if (!rc) rc = puts_(s, ")");
    return rc;
}

rctype sayit(WHSAY* s, const SQLOP* n, int depth, bool* unknown) {
    if (depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (!n) return puts_(s, "/* NULL */");
    if (n->code < OP_FIRSTOP) return sayleaf(s, n, unknown);
    const SAYOP* op = sayop(n->code);
    rctype rc = op->brackets ? puts_(s, "(") : 0;
    int narg = n->u.node.narg;
    switch (op->style) {
    case 0:
        if (!rc) rc = saylist(s, n, 0, op->text, depth, unknown);
        break;
    case 1:
    case 2:
        for (int i = 0; i < narg && !rc; i++) {
            if (op->style == 2) rc = puts_(s, op->text);
            if (!rc) rc = sayit(s, get_child(n, i), depth + 1, unknown);
            if (!rc && op->style == 1) rc = puts_(s, op->text);
        }
        break;
    default:
        if (rc) break;
        switch (n->code) {
        case OP_IN:
        case OP_NIN:
        case OP_TIN:
        case OP_TNIN:
            rc = sayin(s, n, op, depth, unknown);
            break;
        case OP_BETW:
        case OP_NBTW:
            rc = saybetw(s, n, op, depth, unknown);
            break;
        case OP_FLST:
            rc = sayfunc(s, n, depth, unknown);
            break;
        default:
            rc = puts_(s, "?special?");
            break;
        }
    }
    if (!rc && op->brackets) rc = puts_(s, ")");
    return rc;
}

}  // namespace

rctype whsayit(const SQLOP* tree, char** text) {
    if (!text) return WH_RC_NULLARG;
    *text = nullptr;
    auto* s = static_cast<WHSAY*>(std::malloc(sizeof(WHSAY) + WHSAY_WORK));
    if (!s) return WH_RC_NOMEM;
    s->work = reinterpret_cast<char*>(s + 1);
    s->alc = 80;
    s->len = 0;
    s->txt = static_cast<char*>(std::malloc(s->alc));
    rctype rc = WH_RC_NOMEM;
    if (s->txt) {
        s->txt[0] = 0;
        bool unknown = false;
        rc = sayit(s, tree, 0, &unknown);
    }
    if (rc == 0) *text = s->txt;
    else std::free(s->txt);
    std::free(s);
    return rc;
}

const char* whsay(WH_HANDLE* wh) {
    if (!wh || !wh->tree) return "<null tree>";
    char* t;
    if (whsayit(wh->tree, &t) != 0) return "<null tree>";
    std::free(wh->treetext);
    wh->treetext = t;
    return t;
}

rctype whsayflattree(const void* clause, long len, char** text) {
    if (!text) return WH_RC_NULLARG;
    *text = nullptr;
    SQLOP* tree = nullptr;
    rctype rc = wh_getatree(clause, len, &tree);
    if (rc) return rc;
    rc = whsayit(tree, text);
    free_tree(&tree, nullptr);
    return rc;
}

}  // namespace vrta

// Planning of a WHERE clause: the wire form read and bound to the table's
// columns, clauses decided without reading a row, what cannot be evaluated
// pruned, and the plan word the caller scans by.
//
// Index planning itself is in whplan.cpp.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "sda/daods.h"
#include "sda/dafid.h"
#include "sfnc/xf.h"
#include "ssup/xp.h"
#include "ssubs/vz.h"
#include "hs/zrt.h"
#include "wh/wheval.h"
#include "wh/whfunc.h"
#include "wh/whplan.h"

namespace vrta {

namespace {

constexpr int WH_NF_PRUNED = 0x1000000;  // element marked for removal

struct FlagWord {
    int flag;
    const char* word;
};
constexpr FlagWord flagwords[] = {
    {WHF_EVAL1, " EVAL1"}, {WHF_EVAL2, " EVAL2"}, {WHF_EVAL3, " EVAL3"}, {WHF_EVAL4, " EVAL4"},
    {WHF_SEGLIST, " EVAL1(w/SEGLIST)"}, {WHF_TRUE, " TRUE"}, {WHF_FALSE, " FALSE"}, {WHF_NONE, " NONE"},
    {WHF_SOME, " SOME"}, {WHF_ALL, " ALL"}, {WHF_EVAL5, " EVAL5"},
};

// Removes child i of parent, closing the gap.
void dropchild(SQLOP* parent, int i) {
    int n = parent->u.node.narg;
    for (int k = i; k + 1 < n; k++) set_child(parent, k, get_child(parent, k + 1));
    set_child(parent, n - 1, nullptr);
    parent->u.node.narg = n - 1;
}

// A one-child LAND or LOR gives way to its child.
void collapse(SQLOP** tree) {
    SQLOP* t = *tree;
    if (!t || (t->code != OP_LAND && t->code != OP_LOR) || t->u.node.narg != 1) return;
    SQLOP* c = get_child(t, 0);
    set_child(t, 0, nullptr);
    t->u.node.narg = 0;
    free_tree(&t, nullptr);
    *tree = c;
}

const DA_NAMESTR* columnof(const DA_FID* fid, int nvar0) {
    if (nvar0 < 1 || nvar0 > fid->numvar || !fid->vars) return nullptr;
    const DA_NAMESTR* v = &fid->vars[nvar0 - 1];
    return v->nvar0 == nvar0 ? v : nullptr;
}

// Offsets and lengths of a NAME from its column. A NAME sent as a number for
// a character column, or the reverse, is refused: comparing it would give
// rows by accident.
rctype resolve_offsets(WH_HANDLE* wh, SQLOP* n) {
    const DA_NAMESTR* v = columnof(wh->fid, n->u.vleaf.nvar0);
    if (!v) return WH_RC_NOCOLUMN;
    if ((n->type < 0) != (v->type == 1)) return WH_RC_TYPES;
    if (v->nlng < 1 || (v->type == 1 && v->nlng > 8) || v->nlng > 32767) return WH_RC_NOCOLUMN;
    n->u.vleaf.offset = v->npos;
    n->u.vleaf.leng = static_cast<short>(v->nlng);
    n->type = static_cast<short>(v->type == 1 ? -v->nlng : v->nlng);
    return 0;
}

rctype resolve_vars(WH_HANDLE* wh, SQLOP* n, int flag, int depth) {
    if (!n) return 0;
    if (depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (n->code == OP_NAME) {
        if (flag == 1) {
            // A stored clause names its columns: find them by name.
            const DA_FID* fid = wh->fid;
            int found = 0;
            for (int i = 0; i < fid->numvar && !found; i++) {
                const DA_NAMESTR& v = fid->vars[i];
                if (v.name_l == n->u.vleaf.namelen && v.name &&
                    strncasecmp(v.name, n->u.vleaf.name, v.name_l) == 0)
                    found = i + 1;
            }
            n->u.vleaf.nvar0 = found;
        }
        return resolve_offsets(wh, n);
    }
    if (n->code < OP_FIRSTOP) return 0;
    for (int i = 0; i < n->u.node.narg; i++)
        if (rctype rc = resolve_vars(wh, get_child(n, i), flag, depth + 1)) return rc;
    return 0;
}

bool isliteral(const SQLOP* n) { return n && (n->code == OP_LITN || n->code == OP_LITC); }

// The column's stored min or max as a literal result.
void boundlit(const DA_NAMESTR* v, const void* p, SQLOP* out) {
    *out = SQLOP{};
    if (v->type == 1) {
        unsigned char b[8] = {0};
        int len = v->nlng > 8 ? 8 : v->nlng;
        std::memcpy(b + 8 - len, p, len);
        out->code = OP_LITN;
        std::memcpy(&out->u.nleaf.nbr, b, 8);
    } else {
        out->code = OP_LITC;
        out->u.cleaf.c = static_cast<char*>(const_cast<void*>(p));
        out->u.cleaf.leng = v->nlng;
    }
}

}  // namespace

// One compare of a value against [min, max]: 0x100 always true, 0x200 always
// false, 0 undecided.
int whminmaxcmp(wh_env_t* env, int code, const SQLOP* val, const SQLOP* mn, const SQLOP* mx) {
    int cmin = whecmp(env, val, mn, 0), cmax = whecmp(env, val, mx, 0);
    switch (code) {
    case OP_CEQ:
    case OP_CNE: {
        if (cmin == 1 || cmax == 4) return code == OP_CEQ ? 0x200 : 0x100;
        if (cmin == 2 && cmax == 2) return code == OP_CEQ ? 0x100 : 0x200;
        return 0;
    }
    case OP_CLT:
    case OP_CLE:
        if (cmax == 4 || (cmax == 2 && code == OP_CLE)) return 0x100;
        if (cmin == 1 || (cmin == 2 && code == OP_CLT)) return 0x200;
        return 0;
    case OP_CGT:
    case OP_CGE:
        if (cmin == 1 || (cmin == 2 && code == OP_CGE)) return 0x100;
        if (cmax == 4 || (cmax == 2 && code == OP_CGT)) return 0x200;
        return 0;
    default:
        return 0;
    }
}

// Whether a compare or set test of a column is decided by the column's
// stored min and max.
int whevalminmax(wh_env_t* env, int code, SQLOP* valu, const DA_NAMESTR* v) {
    if (!v->minptr || !v->maxptr || !valu) return 0;
    SQLOP mn, mx;
    boundlit(v, v->minptr, &mn);
    boundlit(v, v->maxptr, &mx);
    if (code != OP_IN) return isliteral(valu) ? whminmaxcmp(env, code, valu, &mn, &mx) : 0;
    if (valu->code != OP_SET && valu->code != OP_STNX) return 0;
    bool allfalse = true;
    for (int i = 0; i < valu->u.node.narg; i++) {
        SQLOP* e = get_child(valu, i);
        int r = 0;
        if (isliteral(e)) {
            r = whminmaxcmp(env, OP_CEQ, e, &mn, &mx);
        } else if (e && e->code >= OP_RANB && e->code <= OP_RANN && e->u.node.narg == 2 &&
                   isliteral(get_child(e, 0)) && isliteral(get_child(e, 1))) {
            bool loex = e->code == OP_RANH || e->code == OP_RANN;
            bool hiex = e->code == OP_RANL || e->code == OP_RANN;
            // Every value at or above the low end, and then at or below the
            // high end: the range holds them all; below the low end, none.
            r = whminmaxcmp(env, loex ? OP_CGT : OP_CGE, get_child(e, 0), &mn, &mx);
            if (r == 0x100) r = whminmaxcmp(env, hiex ? OP_CLT : OP_CLE, get_child(e, 1), &mn, &mx);
        }
        if (r == 0x100) return 0x100;
        if (r != 0x200) allfalse = false;
    }
    return allfalse ? 0x200 : 0;
}

namespace {

wh_preval_t preevaluate(WH_HANDLE* wh, SQLOP* n, int depth) {
    if (!n || depth > WH_MAXDEPTH) return WH_PREVAL_NONE;
    wh_preval_t st = WH_PREVAL_NONE;
    switch (n->code) {
    case OP_LAND:
    case OP_LOR: {
        bool isand = n->code == OP_LAND;
        bool all = true;
        st = n->u.node.narg == 0 ? WH_PREVAL_TRUE : WH_PREVAL_NONE;
        for (int i = 0; i < n->u.node.narg && st == WH_PREVAL_NONE; i++) {
            wh_preval_t c = preevaluate(wh, get_child(n, i), depth + 1);
            if (c == WH_PREVAL_NONE) all = false;
            else if (isand && c == WH_PREVAL_FALSE) st = WH_PREVAL_FALSE;
            else if (!isand && c == WH_PREVAL_TRUE) st = WH_PREVAL_TRUE;
        }
        if (st == WH_PREVAL_NONE && all && n->u.node.narg > 0) st = isand ? WH_PREVAL_TRUE : WH_PREVAL_FALSE;
        break;
    }
    case OP_LITC:
        st = vzAL(' ', n->u.cleaf.c, n->u.cleaf.leng) ? WH_PREVAL_FALSE : WH_PREVAL_TRUE;
        break;
    case OP_LITN:
        st = (vzismiss(n->u.nleaf.nbr) || n->u.nleaf.nbr == 0.0) ? WH_PREVAL_FALSE : WH_PREVAL_TRUE;
        break;
    default: {
        bool cmp = (n->code >= OP_CEQ && n->code <= OP_CGE) || (n->code >= OP_CTEQ && n->code <= OP_CTGE) ||
                   n->code == OP_IN || n->code == OP_NIN;
        if (!cmp || n->u.node.narg < 1) break;
        SQLOP* l = get_child(n, 0);
        if (l && l->code == OP_NAME) {
            if (!((n->code >= OP_CEQ && n->code <= OP_CGE) || n->code == OP_IN)) break;
            const DA_NAMESTR* v = columnof(wh->fid, l->u.vleaf.nvar0);
            SQLOP* r = get_child(n, 1);
            if (!v || !(v->flags & 0x1000) || !r) break;
            int res = whevalminmax(&wh->whenv, n->code, r, v);
            if (res && wh->debugfp)
                std::fprintf(wh->debugfp, "whinit: minmax prevalue on col %.*s is %s\n", v->name_l,
                             v->name ? v->name : "", res == 0x100 ? "TRUE" : "FALSE");
            st = res == 0x100 ? WH_PREVAL_TRUE : (res == 0x200 ? WH_PREVAL_FALSE : WH_PREVAL_NONE);
            break;
        }
        bool lits = true;
        for (int i = 0; i < n->u.node.narg && lits; i++) lits = isliteral(get_child(n, i));
        if (!lits) break;
        int t = 0;
        if (wheval(&wh->whenv, n, nullptr, nullptr, !wh->not_kor, &t) == 0)
            st = t ? WH_PREVAL_TRUE : WH_PREVAL_FALSE;
        break;
    }
    }
    if (n->nodeinfo) n->nodeinfo->state = st;
    return st;
}

rctype asgn_input(SQLOP* flst, SQLOP* fn, char kind) {
    SQLOP* arg = get_child(flst, 1);
    SQLOP* fmt = get_child(flst, 2);
    if (!arg || !fmt || fmt->code != OP_FMT || flst->u.node.narg != 3) return WH_RC_BADTREE;
    SQLOP_FMT& f = fmt->u.fmt;
    const char* name = f.namelen > 0 ? f.name : "F";
    int nl = f.namelen > 0 ? f.namelen : 1;
    FMTSTR attr{};
    long code = 0;
    if (xfname(name, nl, kind, &attr, &code) != 0) {
        xrmksub(1, name, nl);
        return static_cast<rctype>(0x80000701u);
    }
    if (f.wid <= 0) {
        f.wid = attr.defw;
        if (f.ndec <= 0) f.ndec = attr.defd;
    }
    if (f.wid < attr.minw || f.wid > attr.maxw) return static_cast<rctype>(0x80040095u);
    if (f.ndec < 0 || f.ndec > attr.maxd) return static_cast<rctype>(0x80040096u);
    bool chrfmt = attr.chr == 1;
    bool chrarg = arg->type >= 0;
    fn->u.func.code = code;
    if (kind == 'F') {
        if (chrfmt && !chrarg) return static_cast<rctype>(0x80040097u);
        if (!chrfmt && chrarg) return static_cast<rctype>(0x80040098u);
        fn->u.func.type = chrfmt ? 8 : 4;
        fn->type = f.wid;
        flst->type = f.wid;
    } else {
        if (!chrarg) return static_cast<rctype>(0x80040099u);
        fn->u.func.type = chrfmt ? 32 : 16;
        fn->type = chrfmt ? f.wid : -8;
        flst->type = fn->type;
    }
    return 0;
}

// Removes what cannot be evaluated; *anypruned tells whether anything went.
// Returns a status only for failures that are not a reason to prune.
rctype prune_weird_nodes(WH_HANDLE* wh, SQLOP** tree, bool* anypruned, int depth) {
    SQLOP* n = *tree;
    if (!n) return 0;
    if (depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    auto prune = [&]() {
        free_tree(tree, nullptr);
        *anypruned = true;
        return 0;
    };
    if (n->code == OP_NAME) {
        if (resolve_offsets(wh, n)) return prune();
        return 0;
    }
    if (n->code < OP_FIRSTOP) return 0;
    if ((n->code == OP_LIKE || n->code == OP_NLKE) && n->u.node.narg == 3) return prune();
    if (n->code == OP_FLST) {
        for (int i = 1; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            bool went = false;
            if (rctype rc = prune_weird_nodes(wh, &c, &went, depth + 1)) return rc;
            if (went) {
                set_child(n, i, c);
                return prune();
            }
        }
        if (wh_asgn_func(wh, n)) return prune();
        return 0;
    }
    bool kept = false, went = false;
    for (int i = 0; i < n->u.node.narg; i++) {
        SQLOP* c = get_child(n, i);
        if (!c) continue;
        bool cw = false;
        if (rctype rc = prune_weird_nodes(wh, &c, &cw, depth + 1)) return rc;
        set_child(n, i, c);
        if (cw && !c) went = true;
        else if (c) kept = true;
    }
    if (!went) return 0;
    if (n->code == OP_LAND && kept) {
        for (int i = n->u.node.narg - 1; i >= 0; i--)
            if (!get_child(n, i)) dropchild(n, i);
        collapse(tree);
        *anypruned = true;
        return 0;
    }
    return prune();
}

}  // namespace

rctype wh_asgn_func(WH_HANDLE* wh, SQLOP* flst) {
    (void)wh;
    SQLOP* fn = get_child(flst, 0);
    if (!fn || fn->code != OP_FUNC) return WH_RC_BADTREE;
    SQLOP_FUNC& f = fn->u.func;
    int nl = f.namelen;
    while (nl > 0 && f.name[nl - 1] == ' ') nl--;
    if (nl == 3 && std::memcmp(f.name, "PUT", 3) == 0) return asgn_input(flst, fn, 'F');
    if (nl == 5 && std::memcmp(f.name, "INPUT", 5) == 0) return asgn_input(flst, fn, 'I');
    int nargs = flst->u.node.narg - 1;
    char kinds[256];
    short types[256];
    if (nargs < 0 || nargs > 256) return WH_RC_BADTREE;
    for (int i = 0; i < nargs; i++) {
        SQLOP* a = get_child(flst, i + 1);
        if (!a) return WH_RC_BADTREE;
        kinds[i] = a->type < 0 ? WH_FARG_NUM : WH_FARG_STR;
        types[i] = a->type;
        fn->tag |= a->tag;
    }
    WH_FUNCINFO fi;
    int bad = 0;
    rctype rc = wh_chkfunc(f.name, nl, nargs, kinds, types, &fi, &bad);
    if (rc == WH_RC_NOFUNC) xrmksub(1, f.name, nl);
    if (rc) return rc;
    f.code = fi.code;
    f.type = fi.functype;
    fn->type = fi.restype;
    flst->type = fi.restype;
    if (fi.functype == 2 && !f.str) {
        auto* xs = static_cast<X_STRING*>(std::calloc(1, sizeof(X_STRING) + fi.restype + 16));
        if (!xs) return static_cast<rctype>(0x8004007eu);
        xs->maxlen = fi.restype;
        xs->data = reinterpret_cast<char*>(xs + 1);
        f.str = xs;
    }
    return 0;
}

long whwirelen(const void* wire) {
    if (!wire) return -1;
    long first = static_cast<long>(zrtint(wire, 4));
    if (first == INT32_MIN) return -1;
    return 4 + (first < 0 ? -first : first);
}

void whflagwords(int flags, char* buf, int buflen) {
    if (!buf || buflen <= 0) return;
    buf[0] = 0;
    int len = 0;
    for (const FlagWord& w : flagwords) {
        if (!(flags & w.flag)) continue;
        int k = static_cast<int>(std::strlen(w.word));
        if (len + k >= buflen) break;
        std::memcpy(buf + len, w.word, k + 1);
        len += k;
    }
}

rctype whterm(WH_HANDLE* handle) {
    if (!handle) return WH_RC_NULLARG;
    free_tree(&handle->tree, nullptr);
    whfreeseglist(handle);
    free_tree(&handle->xtree, nullptr);
    whixmeta_free(handle);
    whfreeev3(handle);
    std::free(handle->treetext);
    handle->treetext = nullptr;
    return free_handle(handle);
}

rctype whsyncx(WH_HANDLE* wh, int idxcnt, const void* idxarr) {
    if (!wh) return WH_RC_NULLARG;
    return whsyncleaves(wh, idxcnt, idxarr);
}

rctype whgetseglist(WH_HANDLE* handle, void** list) {
    if (!handle || !list) return WH_RC_NULLARG;
    *list = handle->seglist;
    return 0;
}

namespace {

// Labels the tree with the indexes that can answer it and splits off the
// INDEX tree; *decided becomes WHF_FALSE or WHF_TRUE when the indexes'
// bounds settle the clause.
rctype planindexes(WH_HANDLE* wh, int* iflags, int* decided) {
    *decided = 0;
    if ((*iflags & WHI_NOINDEX) || !wh->tree) return 0;
    if (rctype rc = chk4indexes(wh, wh->tree, iflags)) return rc;
    wh_idxstatus_t st = wh->tree->nodeinfo->idx.status;
    if (st != WH_XST_ALL && st != WH_XST_SOME) return 0;
    if (rctype rc = treesplit(wh, &wh->tree, &wh->xtree)) return rc;
    FILE* fp = wh->debugfp;
    if (fp) {
        tree_print("whinit: wh-tree after split", wh->tree, fp);
        tree_print("whinit: INDEX tree after split", wh->xtree, fp);
    }
    int res = 0;
    if (rctype rc = prune_xtree(wh, &wh->xtree, &res)) return rc;
    if (res && fp) std::fprintf(fp, "whinit: INDEX tree evaluated to %s\n", res == 256 ? "TRUE" : "FALSE");
    if (res == 512) *decided = WHF_FALSE;
    else if (res == 256 && !wh->tree) *decided = WHF_TRUE;
    return 0;
}

// The indexes of the plan opened and, for EVAL1, the segments that can hold
// a match gathered. An EVAL3 or EVAL4 plan needs every leaf's rows by key
// ranges of an open index; where one can't give them the plan scans the
// listed segments instead. Every row read is still tested with the INDEX
// tree joined to the row test, so a list need only hold every match.
rctype openplanned(WH_HANDLE* wh, int iflags, int* maxthreadsp) {
    FILE* fp = wh->debugfp;
    if (rctype rc = openindexes(wh)) return rc;
    if (rctype rc = wh_cost_indextree(wh, iflags, maxthreadsp)) return rc;
    if (wh->call_flags == WHF_FALSE || !wh->xtree) return 0;
    // Costing may have taken the one node an EVAL3 plan stood on.
    if ((wh->call_flags & WHF_EVAL3) && wh->eval3 != wh->xtree) {
        wh->call_flags = (wh->call_flags & ~WHF_EVAL3) | WHF_EVAL4;
        wh->eval3 = nullptr;
    }
    if (wh->call_flags & (WHF_EVAL3 | WHF_EVAL4)) {
        bool ok = false;
        if (rctype rc = whprobesok(wh, &ok)) return rc;
        if (!ok) {
            wh->call_flags = (wh->call_flags & ~(WHF_EVAL3 | WHF_EVAL4)) | WHF_EVAL1;
            wh->eval3 = nullptr;
            if (fp) std::fputs("whinit: an index can't give the rows by key, segments are scanned\n", fp);
            if ((wh->xtree->nodeinfo->idx.flags & 0x10) && !wh->seglist) {
                if (rctype rc = gatherseglists(wh, false)) return rc;
                if (wh->seglist) wh->call_flags |= WHF_SEGLIST;
            }
        }
    }
    if (fp) tree_print("whinit: INDEX tree", wh->xtree, fp);
    return 0;
}

}  // namespace

rctype whinit(HS_NLSENV* targenv, const void* clause, DA_FID* fid, int iflags, int* maxthreadsp, int* call_flags,
              FILE* fp, int exidxcnt, void* exidxarr, void* gcb_handle, void* gshandle, WH_HANDLE** wh_handle) {
    if (call_flags) *call_flags = 0;
    WH_HANDLE* old = wh_handle ? *wh_handle : nullptr;
    if (wh_handle) *wh_handle = nullptr;
    auto fail = [&](WH_HANDLE* wh, rctype rc) {
        if (wh) whterm(wh);
        if (old) whterm(old);
        return rc;
    };
    if (!fid || !call_flags || !wh_handle || !maxthreadsp || *maxthreadsp == 0 || !clause)
        return fail(nullptr, WH_RC_NULLARG);
    long wirelen = whwirelen(clause);
    if (wirelen < 4) return fail(nullptr, WH_RC_BADWIRE);

    WH_HANDLE* wh = nullptr;
    if (rctype rc = get_handle(&wh)) return fail(nullptr, rc);
    wh->debugfp = fp;
    wh->fid = fid;
    wh->numthreads = *maxthreadsp;
    wh->exidxcnt = exidxcnt;
    wh->exidxarr = exidxarr;
    wh->whenv.targenv = targenv;
    wh->whenv.dataenv = fid->nlsenv;
    if (fp) std::fputs("\nwhinit: ", fp);

    SQLOP* tree = nullptr;
    if (rctype rc = get_whclause(gcb_handle, clause, wirelen, wh, &tree)) return fail(wh, rc);
    wh->tree = tree;
    if (rctype rc = resolve_vars(wh, wh->tree, 0, 0)) return fail(wh, rc);

    if (fp || (iflags & WHI_RENDER)) {
        if (whsayit(wh->tree, &wh->treetext) != 0) wh->treetext = nullptr;
        if (fp) std::fprintf(fp, "WHERE %s\n", wh->treetext ? wh->treetext : "");
    }
    // A shared table can change under the scan: its change stamp now.
    if (fid->fidflags & DA_FIDDYNAMIC) {
        int mt = 0, ns = 0;
        if (rctype rc = dagetfibmodtime(fid, &mt, &ns); rc < 0) return fail(wh, rc);
        wh->modtime = static_cast<unsigned int>(mt);
        wh->numstripes = ns;
    }
    wh->lin.targ_cei = targenv ? targenv->encoding : 0;
    wh->lin.data_cei = fid->nlsenv ? fid->nlsenv->encoding : 0;
    wh->lin.needs_xcoding = targenv && fid->nlsenv && hsnlstpneeded(targenv, fid->nlsenv);

    if (fp) tree_print("whinit: wh-tree presented", wh->tree, fp);
    const DA_XOEODS* x = fid->xoehdr;
    wh_preval_t state;
    if (x && x->numobs != x->numdelete) {
        state = preevaluate(wh, wh->tree, 0);
    } else {
        state = WH_PREVAL_FALSE;
        if (wh->tree && wh->tree->nodeinfo) wh->tree->nodeinfo->state = state;
    }
    int flags = 0;
    if (state != WH_PREVAL_NONE) {
        flags = state == WH_PREVAL_TRUE ? WHF_TRUE : WHF_FALSE;
    } else {
        int decided = 0;
        if (rctype rc = planindexes(wh, &iflags, &decided)) return fail(wh, rc);
        if (decided) {
            flags = decided;
        } else {
            bool pruned = false;
            if (rctype rc = prune_weird_nodes(wh, &wh->tree, &pruned, 0)) return fail(wh, rc);
            if (pruned && fp) tree_print("whinit: wh-tree after pruning", wh->tree, fp);
            if (wh->tree) wh->call_flags |= WHF_EVAL2;
            if (wh->xtree)
                if (rctype rc = wh_plan_indextree(wh, &iflags, gshandle)) return fail(wh, rc);
            if (wh->xtree)
                if (rctype rc = openplanned(wh, iflags, maxthreadsp)) return fail(wh, rc);
            flags = wh->call_flags;
            if (flags == WHF_FALSE) {
                // Costing found no segment that can hold a match.
            } else if (!wh->tree && !wh->xtree) flags = WHF_NONE;
            else flags |= pruned ? WHF_SOME : WHF_ALL;
        }
    }
    wh->call_flags = flags;
    *call_flags = flags;
    if (fp) {
        char words[200];
        whflagwords(flags, words, sizeof words);
        std::fprintf(fp, "whinit returns:%s\n", words);
        std::fflush(fp);
    }
    if (old) whterm(old);
    *wh_handle = wh;
    return 0;
}

}  // namespace vrta

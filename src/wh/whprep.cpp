// Trees for evaluation threads. CONC, LIKE and function calls keep scratch
// in their nodes, so a tree that has them is copied for each thread; any
// other tree is shared as it is.
#include <cstdlib>
#include <cstring>

#include "sfnc/xf.h"
#include "wh/wheval.h"

namespace vrta {

namespace {

bool haskeeper(const SQLOP* n) {
    if (!n) return false;
    if (n->code == OP_CONC || n->code == OP_LIKE || n->code == OP_NLKE || n->code == OP_FLST) return true;
    if (n->code < OP_FIRSTOP) return false;
    for (int i = 0; i < n->u.node.narg; i++)
        if (haskeeper(get_child(n, i))) return true;
    return false;
}

void chk4copytree(SQLOP* root) {
    if (haskeeper(root)) root->nodeflags |= WH_NF_MUSTCOPY;
    root->nodeflags |= WH_NF_COPYTESTED;
}

rctype copytree(const SQLOP* n, SQLOP** out, int depth) {
    *out = nullptr;
    if (!n) return 0;
    if (depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    SQLOP* c;
    if (rctype rc = get_node(&c)) return rc;
    WH_NODE* info = c->nodeinfo;
    *c = *n;
    c->nodeinfo = info;
    c->tmpptr = nullptr;
    c->next = nullptr;
    c->cg = nullptr;
    if (n->code >= OP_FIRSTOP) {
        c->u.node.narg = 0;
        c->u.node.ext = nullptr;
        for (int i = 0; i < WH_NARGS; i++) c->u.node.arg[i] = nullptr;
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* k = nullptr;
            rctype rc = copytree(get_child(n, i), &k, depth + 1);
            if (!rc) rc = set_child(c, i, k);
            if (rc) {
                if (k) free_tree(&k, nullptr);
                free_tree(&c, nullptr);
                return rc;
            }
        }
        *out = c;
        return 0;
    }
    rctype rc = 0;
    switch (n->code) {
    case OP_LITC:
    case OP_LABL:
        c->u.cleaf.c = nullptr;
        rc = wh_setlitc(c, n->u.cleaf.c, n->u.cleaf.leng);
        break;
    case OP_SETN:
    case OP_SETC: {
        const SQLSETLF& s = n->u.setleaf;
        long bytes = n->code == OP_SETN ? 8L * s.num : static_cast<long>(s.len + 1) * s.num;
        c->u.setleaf.p = nullptr;
        if (bytes > 0) {
            c->u.setleaf.p = std::malloc(bytes);
            if (!c->u.setleaf.p) rc = WH_RC_NOMEM;
            else std::memcpy(c->u.setleaf.p, s.p, bytes);
        }
        break;
    }
    case OP_FUNC:
        // A fresh parameter block and result are made on first use.
        c->u.func.par = nullptr;
        c->u.func.str = nullptr;
        c->u.func.mem = nullptr;
        break;
    default:
        break;
    }
    if (rc) {
        free_tree(&c, nullptr);
        return rc;
    }
    *out = c;
    return 0;
}

}  // namespace

rctype whtreecopy(const SQLOP* tree, SQLOP** copy) {
    if (!copy) return WH_RC_NULLARG;
    return copytree(tree, copy, 0);
}

rctype whevalprep(WH_HANDLE* wh, SQLOP** tree_handle, int flags) {
    if (!wh || !tree_handle) return WH_RC_NULLARG;
    *tree_handle = nullptr;
    SQLOP* t = wh->tree;
    if ((flags & WHP_COPY) && t) {
        if (!(t->nodeflags & WH_NF_COPYTESTED)) chk4copytree(t);
        if (t->nodeflags & WH_NF_MUSTCOPY) {
            SQLOP* c;
            if (rctype rc = copytree(t, &c, 0)) return rc;
            c->nodeflags |= WH_NF_COPY;
            t = c;
        }
    }
    if ((flags & WHP_JOIN) && wh->xtree) {
        if (!t) {
            *tree_handle = wh->xtree;
            return 0;
        }
        SQLOP* land;
        if (rctype rc = get_node(&land)) {
            if (t->nodeflags & WH_NF_COPY) free_tree(&t, nullptr);
            return rc;
        }
        land->code = OP_LAND;
        land->nodeflags = WH_NF_TMPLAND;
        set_child(land, 0, wh->xtree);
        set_child(land, 1, t);
        *tree_handle = land;
        return 0;
    }
    *tree_handle = t;
    return 0;
}

rctype whevalterm(SQLOP** tree_handle, int termflags) {
    (void)termflags;
    if (!tree_handle) return WH_RC_NULLARG;
    SQLOP* t = *tree_handle;
    *tree_handle = nullptr;
    if (!t) return 0;
    if (t->nodeflags & WH_NF_TMPLAND) {
        SQLOP* under = t->u.node.narg > 1 ? t->u.node.arg[1] : nullptr;
        t->u.node.narg = 0;
        free_node(t, nullptr);
        if (under && (under->nodeflags & WH_NF_COPY)) return free_tree(&under, nullptr);
        return 0;
    }
    if (t->nodeflags & WH_NF_COPY) return free_tree(&t, nullptr);
    return 0;
}

}  // namespace vrta

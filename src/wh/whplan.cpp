// Index planning: labelling the clause with the indexes that can answer its
// nodes, composite keys, the split into an INDEX tree and a row test,
// pruning by stored minimum and maximum, and the choice of method.
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <algorithm>
#include <string>
#include <vector>

#include "hs/hsgcb.h"
#include "sda/daidx.h"
#include "sda/daods.h"
#include "ssubs/hscsdbl.h"
#include "ssup/thr.h"
#include "vrta/directapi.h"
#include "wh/wheval.h"
#include "wh/whplan.h"

namespace vrta {

long nunique_pruning = 0;
long cost_pruning = 0;

namespace {

constexpr int IF_EQ = 0x1;            // an equality an index can answer
constexpr int IF_LEADER = 0x2;        // leads a composite key
constexpr int IF_TAKEN = 0x4;         // a composite uses this node
constexpr int IF_PROBES = 0x10;       // the index narrows the segments
constexpr int IF_NEARUNIQ = 0x20;     // few rows per value
constexpr int IF_SHARED = 0x2000000;  // taken by more than one composite

// What planning knows of one index of the table.
struct IxMeta {
    DA_KEYSTR k;              // first: a keystr pointer leads back here
    int64_t numvals;
    int64_t nummiss;
    bool hasminmax;
    std::vector<unsigned char> minmax;  // 2 x key length
};
struct IxCache {
    std::vector<IxMeta> m;
    std::string skipped;  // "A, B": indexes left out as needing a rebuild
};

WH_IDX& idxof(SQLOP* n) { return n->nodeinfo->idx; }
const IxMeta* metaof(const da_keystr_t* k) { return reinterpret_cast<const IxMeta*>(k); }
bool isandor(const SQLOP* n) { return n && (n->code == OP_LAND || n->code == OP_LOR); }
bool iscompare(int code) { return code >= OP_CEQ && code <= OP_CGE; }

void trace(WH_HANDLE* wh, const char* what, const SQLOP* t) {
    if (wh->debugfp) tree_print(what, t, wh->debugfp);
}

// The table's index records, read once per plan. An index that cannot be
// trusted is left out here, and so never planned on.
rctype loadmeta(WH_HANDLE* wh, IxCache** out) {
    if (wh->ixmeta) {
        *out = static_cast<IxCache*>(wh->ixmeta);
        return 0;
    }
    auto* c = new (std::nothrow) IxCache;
    if (!c) return WH_RC_NOMEM;
    wh->ixmeta = c;
    *out = c;
    DA_FID* fid = wh->fid;
    if (!fid->mt || !fid->mt->queryidx) return 0;
    DA_FCB* fcb = fcbof(fid);
    if (!fcb) return 0;
    mutex_lock(&fcb->indexLock);
    for (DA_ICB* i = static_cast<DA_ICB*>(fcb->icbs); i; i = i->next) {
        IxMeta m{};
        m.k = i->kstr;
        m.k.checks = i->checks | (i->flags & DA_ICBBAD);
        m.numvals = i->idxkst ? i->idxkst->numvals : 0;
        m.nummiss = i->idxkst ? i->idxkst->nummiss : 0;
        int kl = i->head ? i->head->length : 0;
        if (i->idxkst && kl > 0) {
            m.minmax.assign(i->idxkst->minmax, i->idxkst->minmax + 2 * kl);
            // Statistics never written are zeros: no bounds to prune by.
            bool zero = true;
            for (unsigned char b : m.minmax) zero = zero && b == 0;
            m.hasminmax = !zero && m.numvals > 0;
        }
        try {
            c->m.push_back(std::move(m));
        } catch (...) {
            mutex_unlock(&fcb->indexLock);
            return WH_RC_NOMEM;
        }
    }
    mutex_unlock(&fcb->indexLock);
    return 0;
}

bool excluded(WH_HANDLE* wh, const DA_KEYSTR& k) {
    auto* names = static_cast<const u_sname*>(wh->exidxarr);
    for (int i = 0; names && i < wh->exidxcnt; i++)
        if (names[i].len == k.name_l && strncasecmp(names[i].name, k.name, k.name_l) == 0) return true;
    return false;
}

// The usable indexes whose first column is nvar0, into x.keystrs.
rctype getindexes(WH_HANDLE* wh, int nvar0, WH_IDX& x) {
    IxCache* c = nullptr;
    if (rctype rc = loadmeta(wh, &c)) return rc;
    std::free(x.keystrs);
    x.keystrs = nullptr;
    x.nmatch = 0;
    hs_obsno_t numobs = wh->fid->xoehdr ? wh->fid->xoehdr->numobs : 0;
    for (IxMeta& m : c->m) {
        if (m.k.nvar < 1 || m.k.nvar0[0] != nvar0) continue;
        bool bad = (m.k.checks & DA_ICBBAD) || (m.k.keyflags & 0x4) || m.k.highobs < numobs;
        if (bad || excluded(wh, m.k)) {
            // Rows added since the build, or files that fail their checks:
            // the rows are tested instead.
            if (bad && wh->debugfp)
                std::fprintf(wh->debugfp, "whinit: INDEX %.*s needs rebuild, not used\n", m.k.name_l, m.k.name);
            std::string nm(m.k.name, static_cast<size_t>(m.k.name_l));
            if (bad && (", " + c->skipped + ", ").find(", " + nm + ", ") == std::string::npos)
                c->skipped += (c->skipped.empty() ? "" : ", ") + nm;
            continue;
        }
        auto* ks = static_cast<da_keystr_t**>(std::realloc(x.keystrs, sizeof(da_keystr_t*) * (x.nmatch + 1)));
        if (!ks) return WH_RC_NOMEM;
        x.keystrs = ks;
        x.keystrs[x.nmatch++] = &m.k;
    }
    return 0;
}

rctype setkeynodes(WH_IDX& x, SQLOP* const* nodes, int n, int len) {
    std::free(x.key.nodes);
    x.key.nodes = nullptr;
    x.key.ncnt = 0;
    x.key.len = 0;
    if (n == 0) return 0;
    x.key.nodes = static_cast<SQLOP**>(std::malloc(sizeof(SQLOP*) * n));
    if (!x.key.nodes) return WH_RC_NOMEM;
    std::memcpy(x.key.nodes, nodes, sizeof(SQLOP*) * n);
    x.key.ncnt = n;
    x.key.len = len;
    return 0;
}

// Of the matches, the one with the fewest columns, the first on a tie.
rctype pickindex(SQLOP* n) {
    WH_IDX& x = idxof(n);
    if (x.nmatch == 0) return 0;
    da_keystr_t* best = x.keystrs[0];
    for (int i = 1; i < x.nmatch; i++)
        if (x.keystrs[i]->nvar < best->nvar) best = x.keystrs[i];
    x.status = WH_XST_ALL;
    x.xkeystr = best;
    return setkeynodes(x, &n, 1, x.name->u.vleaf.leng);
}

rctype setnodeidxinfo(WH_HANDLE* wh, SQLOP* n, int* iflags) {
    WH_IDX& x = idxof(n);
    SQLOP* l = get_child(n, 0);
    SQLOP* r = get_child(n, 1);
    if (iscompare(n->code)) {
        if (n->u.node.narg != 2 || !l || l->code != OP_NAME || !r) return 0;
        if (r->code != OP_LITN && r->code != OP_LITC) return 0;
        // A literal of the other type than the column has no key.
        if ((l->type < 0) != (r->code == OP_LITN)) return 0;
        x.ntype = WH_XNT_COMPARELIT;
        x.name = l;
        x.valu = r;
        if (wh->lin.needs_xcoding && n->code != OP_CEQ && n->code != OP_CNE && l->type >= 0) return 0;
        if (rctype rc = getindexes(wh, l->u.vleaf.nvar0, x)) return rc;
        if (x.nmatch > 0 && n->code == OP_CEQ) x.flags |= IF_EQ;
        return pickindex(n);
    }
    if (n->code != OP_IN && n->code != OP_NIN) return 0;
    if (n->u.node.narg != 2 || !l || l->code != OP_NAME || !r || (r->code != OP_SET && r->code != OP_STNX))
        return 0;
    bool mixed = false, packed = false;
    for (int i = 0; i < r->u.node.narg; i++) {
        SQLOP* e = get_child(r, i);
        if (!e) continue;
        if (e->code >= OP_RANB && e->code <= OP_RANN) mixed = true;
        if (e->code == OP_SETN || e->code == OP_SETC) {
            *iflags = (*iflags & ~WHI_SEQ) | WHI_COSTING;
            if (r->u.node.narg != 1 || n->code != OP_IN) return WH_RC_BADTREE;
            packed = true;
        }
    }
    if (r->code == OP_STNX) {
        r->code = OP_SET;
        return 0;
    }
    x.name = l;
    x.valu = r;
    if (n->code == OP_IN) x.ntype = mixed ? WH_XNT_INMIXSET : packed ? WH_XNT_INSJSET : WH_XNT_INLITSET;
    else x.ntype = mixed ? WH_XNT_NINMIXSET : WH_XNT_NINLITSET;
    if (wh->lin.needs_xcoding && mixed && l->type >= 0) return 0;
    if (rctype rc = getindexes(wh, l->u.vleaf.nvar0, x)) return rc;
    if (x.nmatch > 0 && n->code == OP_IN && !mixed && !packed) x.flags |= IF_EQ;
    return pickindex(n);
}

// A composite candidate.
struct C4C {
    da_keystr_t* keystr;
    std::vector<SQLOP*> matches;
    int matchcnt = 0;
    int matchlen = 0;
    long nperms = 1;
};

int setsize(const SQLOP* n) {
    const SQLOP* s = get_child(n, 1);
    return s ? s->u.node.narg : 0;
}

rctype chk4composite(SQLOP* parent) {
    std::vector<SQLOP*> cands;
    for (int i = 0; i < parent->u.node.narg; i++) {
        SQLOP* c = get_child(parent, i);
        if (c && c->nodeinfo && (idxof(c).flags & IF_EQ)) cands.push_back(c);
    }
    std::vector<C4C> chain;
    for (SQLOP* c : cands) {
        WH_IDX& x = idxof(c);
        for (int k = 0; k < x.nmatch; k++) {
            if (x.keystrs[k]->nvar < 2) continue;
            C4C cc;
            cc.keystr = x.keystrs[k];
            chain.push_back(std::move(cc));
        }
    }
    for (C4C& cc : chain) {
        for (int j = 0; j < cc.keystr->nvar; j++) {
            SQLOP* m = nullptr;
            for (SQLOP* c : cands)
                if (idxof(c).name->u.vleaf.nvar0 == cc.keystr->nvar0[j]) {
                    m = c;
                    break;
                }
            if (!m) break;
            cc.matches.push_back(m);
            cc.matchcnt++;
            cc.matchlen += idxof(m).name->u.vleaf.leng;
            if (idxof(m).ntype == WH_XNT_INLITSET) cc.nperms *= setsize(m);
        }
    }
    // Bubble passes: most columns matched first, then the shortest key.
    for (size_t pass = 0; pass + 1 < chain.size(); pass++)
        for (size_t i = 0; i + 1 < chain.size() - pass; i++) {
            C4C& a = chain[i];
            C4C& b = chain[i + 1];
            if (b.matchcnt > a.matchcnt || (b.matchcnt == a.matchcnt && b.matchlen < a.matchlen)) std::swap(a, b);
        }
    for (C4C& cc : chain) {
        if (cc.matchcnt == 0 || (idxof(cc.matches[0]).flags & IF_LEADER)) continue;
        int n = 0;
        for (SQLOP* m : cc.matches)
            if (!(idxof(m).flags & IF_TAKEN)) n++;
        if (n > 1 && n == cc.matchcnt &&
            (cc.nperms > 4L * cc.matchcnt || 2 * cc.matchcnt < cc.keystr->nvar + 1)) {
            // Many key permutations, or few key columns matched: single
            // indexes may serve better.
            bool all = true;
            for (SQLOP* m : cc.matches) {
                WH_IDX& x = idxof(m);
                if (x.xkeystr && x.xkeystr->nvar == 1) {
                    if (x.flags & IF_TAKEN) x.flags |= IF_SHARED;
                    x.flags |= IF_TAKEN;
                } else {
                    x.flags &= ~IF_TAKEN;
                    all = false;
                    break;
                }
            }
            if (all) n = 0;
        }
        SQLOP* leader = cc.matches[0];
        if (cc.matchcnt == 1 && idxof(leader).key.ncnt == 1) continue;
        if (n <= 0 || 2 * n < cc.matchcnt) continue;
        WH_IDX& lx = idxof(leader);
        lx.status = WH_XST_ALL;
        if (lx.flags & IF_TAKEN) lx.flags |= IF_SHARED;
        lx.flags |= IF_LEADER | IF_TAKEN;
        lx.xkeystr = cc.keystr;
        if (rctype rc = setkeynodes(lx, cc.matches.data(), cc.matchcnt, cc.matchlen)) return rc;
        for (int i = 1; i < cc.matchcnt; i++) {
            WH_IDX& x = idxof(cc.matches[i]);
            if (x.flags & IF_TAKEN) x.flags |= IF_SHARED;
            x.flags |= IF_TAKEN;
            if (x.flags & IF_LEADER) continue;
            x.status = WH_XST_PART;
            x.ckeystr = cc.keystr;
            setkeynodes(x, nullptr, 0, 0);
        }
    }
    return 0;
}

rctype labeltree(WH_HANDLE* wh, SQLOP* n, int* iflags, int depth) {
    if (!n || !n->nodeinfo) return 0;
    if (depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    WH_IDX& x = idxof(n);
    if (!isandor(n)) return n->code >= OP_FIRSTOP ? setnodeidxinfo(wh, n, iflags) : 0;
    int c = n->u.node.narg, all = 0, part = 0, some = 0;
    for (int i = 0; i < c; i++)
        if (rctype rc = labeltree(wh, get_child(n, i), iflags, depth + 1)) return rc;
    if (n->code == OP_LAND && c >= 2)
        if (rctype rc = chk4composite(n)) return rc;
    for (int i = 0; i < c; i++) {
        SQLOP* k = get_child(n, i);
        wh_idxstatus_t s = k && k->nodeinfo ? idxof(k).status : WH_XST_NONE;
        all += s == WH_XST_ALL;
        part += s == WH_XST_PART;
        some += s == WH_XST_SOME;
    }
    if (n->code == OP_LAND)
        x.status = c == 0 || all + part == c ? WH_XST_ALL : all + some >= 1 ? WH_XST_SOME : WH_XST_NONE;
    else
        x.status = all == c ? WH_XST_ALL : WH_XST_NONE;
    return 0;
}

// A one-child LAND or LOR gives way to its child.
void collapse1(SQLOP** tree) {
    SQLOP* t = *tree;
    if (!isandor(t) || t->u.node.narg != 1) return;
    SQLOP* c = get_child(t, 0);
    set_child(t, 0, nullptr);
    t->u.node.narg = 0;
    free_tree(&t, nullptr);
    *tree = c;
}

rctype newland(SQLOP** out) {
    if (rctype rc = get_node(out)) return rc;
    (*out)->code = OP_LAND;
    (*out)->type = -8;
    return 0;
}

rctype split(WH_HANDLE* wh, SQLOP** tree, SQLOP** xtree, int depth) {
    SQLOP* t = *tree;
    *xtree = nullptr;
    if (!t || !t->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    switch (idxof(t).status) {
    case WH_XST_ALL:
        *xtree = t;
        *tree = nullptr;
        return 0;
    case WH_XST_NONE:
        return 0;
    case WH_XST_SOME:
        break;
    default:
        return WH_RC_BADTREE;
    }
    if (t->code != OP_LAND) return WH_RC_BADTREE;
    SQLOP* x = nullptr;
    if (rctype rc = newland(&x)) return rc;
    WH_IDX& xi = idxof(x);
    xi = idxof(t);
    // The new LAND owns no key of its own.
    xi.keystrs = nullptr;
    xi.nmatch = 0;
    xi.key = WH_IDXKEY{};
    xi.status = WH_XST_ALL;
    for (int i = 0; i < t->u.node.narg; i++) {
        SQLOP* c = get_child(t, i);
        if (!c || !c->nodeinfo) continue;
        wh_idxstatus_t s = idxof(c).status;
        SQLOP* moved = nullptr;
        if (s == WH_XST_SOME) {
            rctype rc = split(wh, &c, &moved, depth + 1);
            if (rc == 0) set_child(t, i, c);
            if (rc) {
                free_tree(&x, nullptr);
                return rc;
            }
        } else if (s == WH_XST_ALL || s == WH_XST_PART) {
            moved = c;
            set_child(t, i, nullptr);
        }
        if (moved)
            if (rctype rc = set_child(x, x->u.node.narg, moved)) {
                free_tree(&moved, nullptr);
                free_tree(&x, nullptr);
                return rc;
            }
    }
    shiftnodeargs(t);
    if (t->u.node.narg == 0) free_tree(tree, nullptr);
    else collapse1(tree);
    if (x->u.node.narg == 0) free_tree(&x, nullptr);
    else collapse1(&x);
    *xtree = x;
    return 0;
}

// The index's stored bounds as literals of the column's kind.
void boundsof(const IxMeta& m, const SQLOP* name, SQLOP* mn, SQLOP* mx) {
    int kl = m.k.keylen;
    *mn = SQLOP{};
    *mx = SQLOP{};
    for (int w = 0; w < 2; w++) {
        SQLOP* o = w ? mx : mn;
        const unsigned char* p = m.minmax.data() + w * kl;
        if (name->type < 0) {
            unsigned char b[8] = {0};
            std::memcpy(b, p, kl);
            hsrsdbl(b, kl);
            unsigned char d[8];
            hsrftrc(b, kl, d);
            o->code = OP_LITN;
            std::memcpy(&o->u.nleaf.nbr, d, 8);
        } else {
            o->code = OP_LITC;
            o->u.cleaf.c = reinterpret_cast<char*>(const_cast<unsigned char*>(p));
            o->u.cleaf.leng = kl;
        }
    }
}

// A leaf of the INDEX tree against its index's bounds: 256, 512 or 0.
int prunenode(WH_HANDLE* wh, SQLOP* n) {
    WH_IDX& x = idxof(n);
    if (x.status != WH_XST_ALL || !x.xkeystr || x.xkeystr->nvar != 1 || !(x.xkeystr->keyflags & (0x20 | 0x200)))
        return 0;
    // An index that left missing keys out: its bounds say nothing of the
    // rows it left out, which a compare may still match.
    if (x.xkeystr->keyflags & 2) return 0;
    const IxMeta& m = *metaof(x.xkeystr);
    int kl = m.k.keylen;
    if (!m.hasminmax || kl < 1 || (x.name->type < 0 && kl > 8)) return 0;
    SQLOP mn, mx;
    boundsof(m, x.name, &mn, &mx);
    wh_env_t* env = &wh->whenv;
    int res = 0;
    switch (x.ntype) {
    case WH_XNT_COMPARELIT: {
        SQLOP* v = x.valu;
        if (v->code == OP_LITC && v->u.cleaf.leng == 0) return 0;
        if (v->code == OP_LITC && (v->nodeflags & 0x1) && v->u.cleaf.leng > kl) return 512;
        res = whminmaxcmp(env, n->code, v, &mn, &mx);
        break;
    }
    case WH_XNT_INLITSET: {
        SQLOP* set = x.valu;
        std::vector<int> out;
        int counted = 0;
        for (int i = 0; i < set->u.node.narg && res == 0; i++) {
            SQLOP* e = get_child(set, i);
            if (!e || (e->code != OP_LITN && e->code != OP_LITC)) continue;
            if (e->code == OP_LITC && e->u.cleaf.leng == 0) continue;
            counted++;
            int r = whminmaxcmp(env, OP_CEQ, e, &mn, &mx);
            if (r == 0x100) res = 256;
            else if (r == 0x200) out.push_back(i);
        }
        if (res) break;
        // Every element out of range (none skipped): no row can match.
        if (!out.empty() && static_cast<int>(out.size()) == counted && counted == set->u.node.narg) {
            res = 512;
            break;
        }
        for (int i : out) {
            SQLOP* e = get_child(set, i);
            free_tree(&e, nullptr);
            set_child(set, i, nullptr);
        }
        if (!out.empty()) shiftnodeargs(set);
        break;
    }
    case WH_XNT_INMIXSET: {
        SQLOP* set = x.valu;
        SQLOP* e = set->u.node.narg == 1 ? get_child(set, 0) : nullptr;
        if (!e || e->code < OP_RANB || e->code > OP_RANN || e->u.node.narg != 2) return 0;
        SQLOP* lo = get_child(e, 0);
        SQLOP* hi = get_child(e, 1);
        if (!lo || !hi || (lo->code != OP_LITN && lo->code != OP_LITC) || (hi->code != OP_LITN && hi->code != OP_LITC))
            return 0;
        bool loex = e->code == OP_RANH || e->code == OP_RANN;
        bool hiex = e->code == OP_RANL || e->code == OP_RANN;
        int lomax = whecmp(env, lo, &mx, 0), himin = whecmp(env, hi, &mn, 0);
        if (lomax == 4 || (lomax == 2 && loex)) res = 512;
        else if (himin == 1 || (himin == 2 && hiex)) res = 512;
        else {
            int lomin = whecmp(env, lo, &mn, 0), himax = whecmp(env, hi, &mx, 0);
            bool mnin = lomin == 1 || (lomin == 2 && !loex);
            bool mxin = himax == 4 || (himax == 2 && !hiex);
            if (mnin && mxin) res = 256;
        }
        break;
    }
    default:
        return 0;
    }
    if (res == 0x100) res = 256;
    if (res == 0x200) res = 512;
    // Rows whose key is missing may be outside the index: the bounds then
    // say nothing of them, and only a FALSE stands.
    if (res == 256 && m.nummiss > 0) res = 0;
    return res;
}

rctype prunex(WH_HANDLE* wh, SQLOP** np, int* result, int depth) {
    SQLOP* n = *np;
    *result = 0;
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (!isandor(n)) {
        *result = prunenode(wh, n);
    } else {
        bool isand = n->code == OP_LAND;
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            if (!c || !c->nodeinfo || idxof(c).status != WH_XST_ALL) continue;
            int r = 0;
            if (rctype rc = prunex(wh, &c, &r, depth + 1)) return rc;
            set_child(n, i, c);
            if ((isand && r == 512) || (!isand && r == 256)) {
                *result = r;
                break;
            }
            if (r) {
                free_tree(&c, nullptr);
                set_child(n, i, nullptr);
            }
        }
        if (*result == 0) {
            shiftnodeargs(n);
            if (n->u.node.narg == 0) *result = isand ? 256 : 512;
            else collapse1(np);
            return 0;
        }
    }
    if (*result) {
        if (wh->debugfp)
            std::fprintf(wh->debugfp, "whinit: pruning INDEX node which is trivially %s\n",
                         *result == 256 ? "TRUE" : "FALSE");
        free_tree(np, nullptr);
    }
    return 0;
}

rctype analyze(WH_HANDLE* wh, SQLOP* n, bool costing, int depth) {
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    WH_NODE* wn = n->nodeinfo;
    WH_IDX& x = wn->idx;
    WH_AICNTS& a = wn->aicnts;
    a = WH_AICNTS{};
    if (isandor(n)) {
        bool isand = n->code == OP_LAND;
        bool any10 = false, all10 = true, any20 = false, all20 = true;
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            if (!c || !c->nodeinfo || idxof(c).status != WH_XST_ALL) continue;
            if (rctype rc = analyze(wh, c, costing, depth + 1)) return rc;
            const WH_AICNTS& ca = c->nodeinfo->aicnts;
            a.total += ca.total;
            a.eval4 += ca.eval4;
            a.eval3 += ca.eval3;
            a.eval2 += ca.eval2;
            int f = idxof(c).flags;
            any10 = any10 || (f & IF_PROBES);
            all10 = all10 && (f & IF_PROBES);
            any20 = any20 || (f & IF_NEARUNIQ);
            all20 = all20 && (f & IF_NEARUNIQ);
        }
        x.flags &= ~(IF_PROBES | IF_NEARUNIQ);
        if (isand ? any10 : all10) x.flags |= IF_PROBES;
        if (isand ? any20 : all20) x.flags |= IF_NEARUNIQ;
        return 0;
    }
    if (!(x.status & 3) || !x.xkeystr || !(x.xkeystr->keyflags & 0x40)) return WH_RC_BADTREE;
    const IxMeta& m = *metaof(x.xkeystr);
    double rate = m.k.highobs < 1 ? 0.0 : static_cast<double>(m.numvals) / static_cast<double>(m.k.highobs);
    bool multi = m.k.nvar >= 2;
    bool partial = x.key.len != m.k.keylen;
    auto elements = [&]() {
        int cnt = 0;
        for (int i = 0; x.valu && i < x.valu->u.node.narg; i++) {
            SQLOP* e = get_child(x.valu, i);
            cnt += e && (e->code == OP_SETN || e->code == OP_SETC) ? e->u.setleaf.num : 1;
        }
        return cnt;
    };
    switch (x.ntype) {
    case WH_XNT_COMPARELIT:
        a.eval2 += 1;
        if (n->code == OP_CNE) break;
        x.flags |= IF_PROBES;
        if (n->code == OP_CEQ) {
            if (!multi) a.eval3 += 1, a.eval4 += 1;
            if (!partial && rate >= 0.75) x.flags |= IF_NEARUNIQ;
        } else if (!multi) {
            a.eval4 += 1;
        }
        break;
    case WH_XNT_INLITSET:
    case WH_XNT_INSJSET:
    case WH_XNT_INMIXSET:
        if (x.ntype != WH_XNT_INMIXSET || costing) x.flags |= IF_PROBES;
        a.eval2 = elements();
        if (!multi && x.ntype != WH_XNT_INSJSET) a.eval4 += 1;
        break;
    case WH_XNT_NINLITSET:
    case WH_XNT_NINMIXSET:
        a.eval2 = elements();
        break;
    default:
        return WH_RC_BADTREE;
    }
    a.total += 1;
    return 0;
}

rctype appendrow(WH_HANDLE* wh, SQLOP* node) {
    if (!wh->tree) {
        wh->tree = node;
        wh->call_flags |= WHF_EVAL2;
        return 0;
    }
    if (wh->tree->code != OP_LAND) {
        SQLOP* l = nullptr;
        if (rctype rc = newland(&l)) return rc;
        if (rctype rc = set_child(l, 0, wh->tree)) {
            free_node(l, nullptr);
            return rc;
        }
        wh->tree = l;
    }
    return set_child(wh->tree, wh->tree->u.node.narg, node);
}

}  // namespace

void shiftnodeargs(SQLOP* n) {
    int k = 0, narg = n->u.node.narg;
    for (int i = 0; i < narg; i++) {
        SQLOP* c = get_child(n, i);
        if (c) set_child(n, k++, c);
    }
    for (int i = k; i < narg; i++) set_child(n, i, nullptr);
    n->u.node.narg = k;
}

namespace {
void namesof(const SQLOP* n, std::string& out, int depth) {
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return;
    if (isandor(n)) {
        for (int i = 0; i < n->u.node.narg; i++) namesof(get_child(n, i), out, depth + 1);
        return;
    }
    const WH_IDX& x = n->nodeinfo->idx;
    if (x.status != WH_XST_ALL || !x.xkeystr) return;
    if (!out.empty()) out += ", ";
    out.append(x.xkeystr->name, x.xkeystr->name_l);
    if (x.key.ncnt > 1) out += " (" + std::to_string(x.key.ncnt) + " columns)";
}
}  // namespace

int whindexnames(const SQLOP* xtree, char* buf, int buflen) {
    if (!buf || buflen < 1) return 0;
    std::string out;
    namesof(xtree, out, 0);
    int n = static_cast<int>(std::min<size_t>(out.size(), static_cast<size_t>(buflen - 1)));
    std::memcpy(buf, out.data(), n);
    buf[n] = 0;
    return n;
}

int whskippedindexes(const WH_HANDLE* wh, char* buf, int buflen) {
    if (!buf || buflen < 1) return 0;
    const auto* c = static_cast<const IxCache*>(wh->ixmeta);
    int n = c ? static_cast<int>(std::min<size_t>(c->skipped.size(), static_cast<size_t>(buflen - 1))) : 0;
    if (n > 0) std::memcpy(buf, c->skipped.data(), static_cast<size_t>(n));
    buf[n] = 0;
    return n;
}

void whixmeta_free(WH_HANDLE* wh) {
    delete static_cast<IxCache*>(wh->ixmeta);
    wh->ixmeta = nullptr;
}

rctype chk4indexes(WH_HANDLE* wh, SQLOP* tree, int* iflags) { return labeltree(wh, tree, iflags, 0); }

rctype treesplit(WH_HANDLE* wh, SQLOP** tree, SQLOP** xtree) { return split(wh, tree, xtree, 0); }

rctype prune_xtree(WH_HANDLE* wh, SQLOP** xtree, int* result) {
    *result = 0;
    if (!*xtree) return 0;
    return prunex(wh, xtree, result, 0);
}

rctype move_indexnode(WH_HANDLE* wh, int arg) {
    SQLOP* x = wh->xtree;
    if (!x) return WH_RC_BADTREE;
    if (arg < 0) {
        wh->xtree = nullptr;
        return appendrow(wh, x);
    }
    SQLOP* node = get_child(x, arg);
    if (!node) return WH_RC_BADTREE;
    set_child(x, arg, nullptr);
    if (rctype rc = appendrow(wh, node)) return rc;
    WH_IDX& ni = idxof(node);
    // A composite's other key nodes go with it, unless another composite
    // needs them too.
    for (int k = 1; k < ni.key.ncnt; k++) {
        SQLOP* part = ni.key.nodes[k];
        WH_IDX& pi = idxof(part);
        if (((pi.flags & IF_LEADER) && (pi.flags & IF_TAKEN)) ||
            (pi.status == WH_XST_PART && (pi.flags & IF_TAKEN) && (pi.flags & IF_SHARED)))
            break;
        for (int i = 0; i < x->u.node.narg; i++)
            if (get_child(x, i) == part) {
                set_child(x, i, nullptr);
                if (rctype rc = appendrow(wh, part)) return rc;
                break;
            }
    }
    return 0;
}

rctype wh_plan_indextree(WH_HANDLE* wh, int* iflags, void* gshandle) {
    (void)gshandle;  // the metadata scan of group-by plans is not built
    bool costing = (*iflags & WHI_COSTING) != 0;
    if (rctype rc = analyze(wh, wh->xtree, costing, 0)) return rc;
    SQLOP* root = wh->xtree;
    bool nearuniq = costing && (idxof(root).flags & IF_NEARUNIQ);
    if (nearuniq && root->code == OP_LAND) {
        int keep = -1, best = 0;
        for (int i = 0; i < root->u.node.narg; i++) {
            SQLOP* c = get_child(root, i);
            if (!c || idxof(c).status != WH_XST_ALL || !(idxof(c).flags & IF_NEARUNIQ)) continue;
            if (keep < 0 || c->nodeinfo->aicnts.total < best) keep = i, best = c->nodeinfo->aicnts.total;
        }
        for (int i = 0; i < root->u.node.narg; i++) {
            SQLOP* c = get_child(root, i);
            if (i == keep || !c || idxof(c).status != WH_XST_ALL) continue;
            if (rctype rc = move_indexnode(wh, i)) return rc;
            nunique_pruning++;
        }
        shiftnodeargs(root);
        collapse1(&wh->xtree);
        root = wh->xtree;
        trace(wh, "whinit costing: wh-tree after near unique xtree pruning", wh->tree);
    }
    const WH_AICNTS& a = root->nodeinfo->aicnts;
    int plan = 0;
    if ((*iflags & WHI_SEQ) || (costing && nearuniq)) {
        if (a.total == 1 && a.eval3 == 1) {
            plan = WHF_EVAL3;
            wh->eval3 = root;
        }
    }
    if (!plan && ((*iflags & WHI_SEQ) || nearuniq) && a.total == a.eval4) plan = WHF_EVAL4;
    if (!plan) {
        plan = WHF_EVAL1;
        if (idxof(root).flags & IF_PROBES) plan |= WHF_SEGLIST;
    }
    wh->call_flags |= plan | WHF_PLANNED;
    return 0;
}

}  // namespace vrta

namespace vrta {

int64_t whnumvals(const da_keystr_t* k) { return metaof(k)->numvals; }

namespace {

// Many probes for many rows: such an index node is kept whatever its yield.
bool expensive(const SQLOP* n, int64_t est) { return n->nodeinfo->aicnts.eval2 > 8 && est > 200; }

rctype cost_segments(WH_HANDLE* wh, int* maxthreadsp, int64_t tblsegs) {
    FILE* fp = wh->debugfp;
    int64_t nsegs = tblsegs;
    auto* sl = static_cast<ix_list_t*>(wh->seglist);
    if (sl && ixcntl(sl, &nsegs) != 0) nsegs = tblsegs;
    if (nsegs == 0) {
        if (fp) std::fputs("whinit costing: detects no TRUE segments (TRIVIALLY FALSE)\n", fp);
        wh->call_flags = WHF_FALSE;
        return 0;
    }
    SQLOP* root = wh->xtree;
    int64_t segsize = wh->fid->xoehdr->idxsegsize > 0 ? wh->fid->xoehdr->idxsegsize : 1;
    float yield = static_cast<float>(root->nodeinfo->segrows) / static_cast<float>(segsize);
    int threads = *maxthreadsp;
    int64_t cut = yield > 0.5f ? nsegs : yield > 0.25f ? (nsegs + 1) / 2 : yield > 0.1f ? (nsegs + 2) / 3 : (nsegs + 3) / 4;
    if (cut < threads) {
        int now = static_cast<int>(std::max<int64_t>(cut, 1));
        if (fp)
            std::fprintf(fp, "whinit costing: %d segs with est %d%% yield reduces whthreads from %d to %d\n",
                         static_cast<int>(nsegs), std::max(1, static_cast<int>(yield * 100)), threads, now);
        *maxthreadsp = now;
        wh->numthreads = now;
    }
    int64_t est = static_cast<int64_t>(root->nodeinfo->segrows) * nsegs;
    bool moved = false;
    if (!expensive(root, est) && yield > 0.75f) {
        // The index is no help: every row would be read all the same.
        if (root->code == OP_LAND) {
            for (int i = 0; i < root->u.node.narg; i++) {
                SQLOP* c = get_child(root, i);
                if (c && c->nodeinfo && idxof(c).status == WH_XST_ALL)
                    if (rctype rc = move_indexnode(wh, i)) return rc;
            }
            free_tree(&wh->xtree, nullptr);
            wh->xtree = nullptr;
        } else if (rctype rc = move_indexnode(wh, -1)) {
            return rc;
        }
        wh->call_flags |= WHF_EVAL2;
        if (!wh->seglist) wh->call_flags &= ~WHF_EVAL1;
        if (fp) std::fputs("whinit costing: high segment yield prunes all nodes\n", fp);
        moved = true;
    } else if (root->code == OP_LAND) {
        int narg = root->u.node.narg;
        std::vector<bool> highcost(static_cast<size_t>(narg), false);
        int hc = -1, ly = -1;
        auto rows = [&](int i) { return get_child(root, i)->nodeinfo->segrows; };
        for (int i = 0; i < narg; i++) {
            SQLOP* c = get_child(root, i);
            if (!c || !c->nodeinfo || idxof(c).status != WH_XST_ALL) continue;
            if (c->nodeinfo->segstats.nvalues > 20000 && !(idxof(c).flags & IF_SHARED)) {
                highcost[static_cast<size_t>(i)] = true;
                if (hc < 0 || rows(i) < rows(hc)) hc = i;
            } else if (ly < 0 || rows(i) < rows(ly)) {
                ly = i;
            }
        }
        bool small = ly >= 0 && rows(ly) < 100;
        for (int i = 0; i < narg; i++) {
            SQLOP* c = get_child(root, i);
            if (!c || !c->nodeinfo || idxof(c).status != WH_XST_ALL) continue;
            bool prune = false;
            if (highcost[static_cast<size_t>(i)]) {
                prune = !(i == hc && ly < 0) && !expensive(c, est);
                if (prune && fp) std::fprintf(fp, "whinit costing: prunes high cost node %d\n", i);
            } else if (ly >= 0 && i != ly && !(idxof(c).flags & IF_SHARED)) {
                prune = (small || yield > 0.25f) && !expensive(c, est);
                if (prune && fp) std::fprintf(fp, "whinit costing: prunes high yield node %d\n", i);
            }
            if (!prune) continue;
            if (rctype rc = move_indexnode(wh, i)) return rc;
            moved = true;
        }
        if (moved) {
            shiftnodeargs(root);
            collapse1(&wh->xtree);
        }
    }
    if (moved) {
        cost_pruning++;
        trace(wh, "whinit costing: wh-tree after costing", wh->tree);
        trace(wh, "whinit costing: INDEX-tree after costing", wh->xtree);
        if (!wh->xtree) {
            wh->call_flags &= ~(WHF_EVAL3 | WHF_EVAL4);
            wh->eval3 = nullptr;
        }
    }
    return 0;
}

}  // namespace

rctype wh_cost_indextree(WH_HANDLE* wh, int iflags, int* maxthreadsp) {
    FILE* fp = wh->debugfp;
    bool costing = (iflags & WHI_COSTING) != 0;
    int64_t segsize = wh->fid->xoehdr->idxsegsize > 0 ? wh->fid->xoehdr->idxsegsize : 1;
    int64_t tblsegs = (wh->fid->xoehdr->numobs + segsize - 1) / segsize;
    wh->seglist = nullptr;
    if (costing && tblsegs <= 0) {
        if (fp) std::fprintf(fp, "whinit costing: Table size (%d segs) to small for costing\n", static_cast<int>(tblsegs));
        int now = static_cast<int>(std::max<int64_t>(tblsegs, 1));
        if (now < *maxthreadsp) {
            if (fp) std::fprintf(fp, "whinit costing: Table size reduces whthrds from %d to %d\n", *maxthreadsp, now);
            *maxthreadsp = now;
            wh->numthreads = now;
        }
    } else if (costing || (wh->call_flags & WHF_SEGLIST)) {
        if (rctype rc = gatherseglists(wh, costing)) return rc;
        if (costing && (!(iflags & 0x20) || wh->tree))
            if (rctype rc = cost_segments(wh, maxthreadsp, tblsegs)) return rc;
    }
    if ((wh->call_flags & WHF_SEGLIST) && !wh->seglist) {
        wh->call_flags &= ~WHF_SEGLIST;
        if (fp && (wh->call_flags & WHF_EVAL1)) std::fputs("whinit: checking all index segments\n", fp);
    }
    return 0;
}

}  // namespace vrta

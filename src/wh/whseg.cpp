// Segment lists of an INDEX tree: the indexes of its leaves opened, the keys
// of their conditions made, and the segments that can hold a matching row
// gathered, so that a scan reads no other segment. Every row read is still
// tested with the INDEX tree joined to the row test: a list only has to hold
// every segment with a match, and may hold more.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>
#include <string>
#include <vector>

#include "ix/ixfe.h"
#include "ix/ixlist.h"
#include "sda/daidx.h"
#include "ssubs/vz.h"
#include "vrta/directapi.h"
#include "wh/wheval.h"
#include "wh/whplan.h"

namespace vrta {

namespace {

bool isandor(const SQLOP* n) { return n && (n->code == OP_LAND || n->code == OP_LOR); }

// The bytes a literal has in a row of the column: the high bytes of a
// number, a string blank-padded. False when no key can stand for it: a
// string longer than the column (a cut key would lose rows below it), or
// one that would have to be transcoded.
bool rowvalue(WH_HANDLE* wh, const SQLOP* name, const SQLOP* lit, std::string& out) {
    int len = name->u.vleaf.leng;
    if (name->type < 0) {
        if (!lit || lit->code != OP_LITN || len < 1 || len > 8) return false;
        const char* p = reinterpret_cast<const char*>(&lit->u.nleaf.nbr);
        out.assign(p + 8 - len, static_cast<size_t>(len));
        return true;
    }
    if (!lit || lit->code != OP_LITC || wh->lin.needs_xcoding) return false;
    int l = lit->u.cleaf.leng;
    const char* c = lit->u.cleaf.c;
    while (l > 0 && c[l - 1] == ' ') l--;
    if (l > len) return false;
    out.assign(static_cast<size_t>(len), ' ');
    if (l > 0) std::memcpy(out.data(), c, static_cast<size_t>(l));
    return true;
}

// A packed set's element i as row bytes.
bool packedvalue(WH_HANDLE* wh, const SQLOP* name, const SQLOP* set, int i, std::string& out) {
    const SQLSETLF& s = set->u.setleaf;
    SQLOP lit{};
    if (set->code == OP_SETN) {
        lit.code = OP_LITN;
        std::memcpy(&lit.u.nleaf.nbr, static_cast<const char*>(s.p) + 8 * static_cast<size_t>(i), 8);
    } else {
        lit.code = OP_LITC;
        lit.u.cleaf.c = static_cast<char*>(s.p) + static_cast<size_t>(i) * (s.len + 1);
        lit.u.cleaf.leng = static_cast<int>(strnlen(lit.u.cleaf.c, static_cast<size_t>(s.len)));
    }
    return rowvalue(wh, name, &lit, out);
}

// One condition's key: keys[k] holds it, the segop points at it.
struct KeyedOp {
    std::string row;
    std::vector<char> key;
};

rctype makekey(IX_INDEX_T* ix, const std::vector<const std::string*>& vals, KeyedOp& ko, int* len) {
    std::vector<const void*> vp;
    for (const std::string* v : vals) vp.push_back(v->data());
    ko.key.assign(static_cast<size_t>(ix->keylen) + 8, 0);
    return ixgetkey(ix, vp.data(), static_cast<int>(vp.size()), ko.key.data(), len);
}

int relation(int code) {
    switch (code) {
    case OP_CEQ: return IX_EQ;
    case OP_CLT: return IX_LT;
    case OP_CLE: return IX_LE;
    case OP_CGT: return IX_GT;
    case OP_CGE: return IX_GE;
    default: return -1;
    }
}

void tracesegs(WH_HANDLE* wh, const WH_IDX& x, bool alltrue, const IX_SEGSTATS_T& st) {
    if (!wh->debugfp) return;
    std::fprintf(wh->debugfp, "whinit: INDEX %.*s %s %d%% of segs (%s maxsegratio %d%%)\n", x.xkeystr->name_l,
                 x.xkeystr->name, alltrue ? "uses at least" : "uses", st.segratio, alltrue ? "EXCEEDS" : "WITHIN",
                 st.maxsegratio);
}

bool missingvalue(const SQLOP* name, const std::string& v);

// The segments one leaf's condition can match; null list and *alltrue for all.
// *asked when the index was asked, with what it reported in *stats.
rctype leafsegs(WH_HANDLE* wh, SQLOP* n, ix_list_t** list, bool* alltrue, IX_SEGSTATS_T* stats, bool* asked) {
    *list = nullptr;
    *alltrue = true;
    *asked = false;
    WH_IDX& x = n->nodeinfo->idx;
    IX_INDEX_T* ix = x.ixh;
    if (!(x.flags & 0x10) || !ix || !x.name || !x.valu) return 0;
    IX_SEGSTATS_T st{};
    std::vector<KeyedOp> keys;
    std::vector<IX_SEGOP_T> lo, hi;
    bool ranges = false;
    auto addop = [&](std::vector<const std::string*> vals, int op, std::vector<IX_SEGOP_T>& to) -> rctype {
        keys.emplace_back();
        int len = 0;
        if (rctype rc = makekey(ix, vals, keys.back(), &len); rc < 0) return rc;
        IX_SEGOP_T s{};
        s.op = op;
        s.v_length = len;
        to.push_back(s);
        return 0;
    };
    std::vector<std::string> vals;
    if (x.ntype == WH_XNT_COMPARELIT && !(x.flags & 0x2)) {
        int op = relation(n->code);
        if (op < 0) return WH_RC_BADTREE;
        vals.emplace_back();
        if (!rowvalue(wh, x.name, x.valu, vals.back())) return 0;
        if (rctype rc = addop({&vals.back()}, op, lo); rc < 0) return rc;
    } else if (x.flags & 0x2) {
        // A composite key: equalities on its leading columns.
        vals.reserve(static_cast<size_t>(x.key.ncnt));
        for (int k = 0; k < x.key.ncnt; k++) {
            SQLOP* part = x.key.nodes[k];
            const WH_IDX& px = part->nodeinfo->idx;
            if (px.ntype != WH_XNT_COMPARELIT || part->code != OP_CEQ) return 0;
            vals.emplace_back();
            if (!rowvalue(wh, px.name, px.valu, vals.back())) return 0;
        }
        std::vector<const std::string*> vp;
        for (const std::string& v : vals) vp.push_back(&v);
        if (rctype rc = addop(vp, IX_EQ, lo); rc < 0) return rc;
    } else if (x.ntype == WH_XNT_INSJSET) {
        const SQLOP* set = get_child(x.valu, 0);
        if (!set) return 0;
        vals.resize(static_cast<size_t>(set->u.setleaf.num));
        for (int i = 0; i < set->u.setleaf.num; i++) {
            if (!packedvalue(wh, x.name, set, i, vals[i])) return 0;
            if (rctype rc = addop({&vals[i]}, IX_EQ, lo); rc < 0) return rc;
        }
    } else if (x.ntype == WH_XNT_INLITSET || x.ntype == WH_XNT_INMIXSET) {
        ranges = x.ntype == WH_XNT_INMIXSET;
        int ne = x.valu->u.node.narg;
        vals.resize(2 * static_cast<size_t>(ne));
        for (int i = 0; i < ne; i++) {
            SQLOP* e = get_child(x.valu, i);
            if (!e) return 0;
            if (e->code == OP_LITN || e->code == OP_LITC) {
                if (!rowvalue(wh, x.name, e, vals[2 * i])) return 0;
                if (!ranges) {
                    if (rctype rc = addop({&vals[2 * i]}, IX_EQ, lo); rc < 0) return rc;
                    continue;
                }
                if (rctype rc = addop({&vals[2 * i]}, IX_GE, lo); rc < 0) return rc;
                if (rctype rc = addop({&vals[2 * i]}, IX_LE, hi); rc < 0) return rc;
            } else if (e->code >= OP_RANB && e->code <= OP_RANN && e->u.node.narg == 2) {
                if (!rowvalue(wh, x.name, get_child(e, 0), vals[2 * i]) ||
                    !rowvalue(wh, x.name, get_child(e, 1), vals[2 * i + 1]))
                    return 0;
                bool loex = e->code == OP_RANH || e->code == OP_RANN;
                bool hiex = e->code == OP_RANL || e->code == OP_RANN;
                if (rctype rc = addop({&vals[2 * i]}, loex ? IX_GT : IX_GE, lo); rc < 0) return rc;
                if (rctype rc = addop({&vals[2 * i + 1]}, hiex ? IX_LT : IX_LE, hi); rc < 0) return rc;
            } else {
                return 0;
            }
        }
    } else {
        return 0;
    }
    if (lo.empty()) return 0;
    // Rows whose key is missing are not in an index that left them out: a
    // condition a missing value can meet must read every segment.
    if (x.xkeystr && (x.xkeystr->keyflags & 2)) {
        if (x.ntype == WH_XNT_COMPARELIT && (n->code == OP_CLT || n->code == OP_CLE)) return 0;
        for (const std::string& v : vals)
            if (!v.empty() && missingvalue(x.name, v)) return 0;
    }
    for (size_t i = 0; i < lo.size(); i++) lo[i].value = keys[ranges ? 0 : i].key.data();
    if (ranges) {
        // keys were made low, high, low, high ...
        for (size_t i = 0; i < lo.size(); i++) {
            lo[i].value = keys[2 * i].key.data();
            hi[i].value = keys[2 * i + 1].key.data();
        }
    }
    rctype rc = ranges ? ix->fp.prepnt(ix->ix_private, lo.data(), hi.data(), static_cast<int>(lo.size()), &st)
                       : ix->fp.preseg(ix->ix_private, lo.data(), static_cast<int>(lo.size()), &st);
    if (rc < 0) {
        wh_trap_error("gatherseglists", __LINE__, rc);
        return WH_RC_TRAPPED;
    }
    *list = lo[0].hy_list;
    *alltrue = *list == nullptr;
    *stats = st;
    *asked = true;
    tracesegs(wh, x, *alltrue, st);
    return 0;
}

// A plain compare of one column with a literal, its index open: the kind of
// leaf two of which make a range.
bool rangeend(const SQLOP* n, bool low) {
    if (!n || !n->nodeinfo) return false;
    const WH_IDX& x = n->nodeinfo->idx;
    if (x.status != WH_XST_ALL || x.ntype != WH_XNT_COMPARELIT || (x.flags & 0x2) || !(x.flags & 0x10) || !x.ixh ||
        !x.xkeystr || !x.name || !x.valu)
        return false;
    return low ? (n->code == OP_CGT || n->code == OP_CGE) : (n->code == OP_CLT || n->code == OP_CLE);
}

bool sameindex(const SQLOP* a, const SQLOP* b) {
    const da_keystr_t* ka = a->nodeinfo->idx.xkeystr;
    const da_keystr_t* kb = b->nodeinfo->idx.xkeystr;
    return ka == kb || (ka->name_l == kb->name_l && strncasecmp(ka->name, kb->name, ka->name_l) == 0);
}

// The segments of both ends of a range on one index at once: each end alone
// may touch most segments (and so answer all of them) where the range
// between them touches few.
rctype rangesegs(WH_HANDLE* wh, SQLOP* lo, SQLOP* hi, ix_list_t** list, bool* alltrue, IX_SEGSTATS_T* stats,
                 bool* asked) {
    *list = nullptr;
    *alltrue = true;
    *asked = false;
    const WH_IDX& lx = lo->nodeinfo->idx;
    const WH_IDX& hx = hi->nodeinfo->idx;
    IX_INDEX_T* ix = lx.ixh;
    std::string lv, hv;
    if (!rowvalue(wh, lx.name, lx.valu, lv) || !rowvalue(wh, hx.name, hx.valu, hv)) return 0;
    KeyedOp lk, hk;
    int llen = 0, hlen = 0;
    if (rctype rc = makekey(ix, {&lv}, lk, &llen); rc < 0) return rc;
    if (rctype rc = makekey(ix, {&hv}, hk, &hlen); rc < 0) return rc;
    IX_SEGOP_T l{}, h{};
    l.value = lk.key.data();
    l.op = relation(lo->code);
    l.v_length = llen;
    h.value = hk.key.data();
    h.op = relation(hi->code);
    h.v_length = hlen;
    IX_SEGSTATS_T st{};
    if (rctype rc = ix->fp.prepnt(ix->ix_private, &l, &h, 1, &st); rc < 0) {
        wh_trap_error("gatherseglists", __LINE__, rc);
        return WH_RC_TRAPPED;
    }
    *list = l.hy_list;
    *alltrue = *list == nullptr;
    *stats = st;
    *asked = true;
    tracesegs(wh, lx, *alltrue, st);
    return 0;
}

int64_t tblsegsof(const WH_HANDLE* wh) {
    const DA_XOEODS* x = wh->fid->xoehdr;
    int64_t seg = x->idxsegsize > 0 ? x->idxsegsize : 1;
    return (x->numobs + seg - 1) / seg;
}

// A node's segments (those of its list, or all) and rows per segment.
void segrowsof(const WH_HANDLE* wh, SQLOP* n, ix_list_t* list) {
    WH_NODE* wn = n->nodeinfo;
    int64_t nsegs = tblsegsof(wh);
    if (list && ixcntl(list, &nsegs) != 0) nsegs = tblsegsof(wh);
    wn->segstats.nsegs = static_cast<int>(nsegs);
    wn->segrows = nsegs > 0 ? static_cast<int>(wn->segstats.nrows / nsegs) : 0;
}

// A leaf's estimate: what the index reported, or, when it was not asked,
// one made up from the table and the index's count of values.
void leafestimate(WH_HANDLE* wh, SQLOP* n, ix_list_t* list, bool asked, const IX_SEGSTATS_T& st) {
    WH_SEGSTATS& s = n->nodeinfo->segstats;
    const WH_IDX& x = n->nodeinfo->idx;
    s = WH_SEGSTATS{};
    if (asked) {
        s.segratio = st.segratio;
        s.maxsegratio = st.maxsegratio;
        s.nvalues = st.nvalues;
        s.nrows = st.nrows;
        segrowsof(wh, n, list);
        return;
    }
    hs_obsno_t numobs = wh->fid->xoehdr->numobs;
    int64_t nv = x.xkeystr ? whnumvals(x.xkeystr) : 0;
    if (x.ntype == WH_XNT_NINMIXSET) {
        s.nvalues = nv / 2;
        s.nrows = numobs / 2;
        s.nsegs = static_cast<int>(tblsegsof(wh) / 2);
        n->nodeinfo->segrows = s.nsegs > 0 ? static_cast<int>(s.nrows / s.nsegs) : 0;
        return;
    }
    s.nvalues = 1;
    if (x.ntype == WH_XNT_NINLITSET && x.valu) s.nvalues = x.valu->u.node.narg;
    s.nrows = (nv <= 0 || s.nvalues >= nv) ? (s.nvalues == nv ? numobs : 0) : numobs * (nv - s.nvalues) / nv;
    if (nv <= 0) s.nrows = numobs;
    segrowsof(wh, n, list);
}

rctype gather(WH_HANDLE* wh, SQLOP* n, ix_list_t** list, bool* alltrue, bool costing, int depth) {
    *list = nullptr;
    *alltrue = true;
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (!isandor(n)) {
        IX_SEGSTATS_T st{};
        bool asked = false;
        rctype rc = leafsegs(wh, n, list, alltrue, &st, &asked);
        if (rc == 0 && costing) leafestimate(wh, n, *list, asked, st);
        return rc;
    }
    bool islor = n->code == OP_LOR;
    int narg = n->u.node.narg;
    // Under AND, a low end and a high end on one index are asked as one
    // range: partner[i] is the high end of low end i, -2 a high end taken.
    std::vector<int> partner(static_cast<size_t>(std::max(narg, 0)), -1);
    for (int i = 0; !islor && i < narg; i++) {
        SQLOP* c = get_child(n, i);
        if (!rangeend(c, true)) continue;
        for (int j = 0; j < narg; j++) {
            SQLOP* d = get_child(n, j);
            if (partner[j] == -1 && rangeend(d, false) && sameindex(c, d)) {
                partner[i] = j;
                partner[j] = -2;
                break;
            }
        }
    }
    ix_list_t* run = nullptr;
    bool any = false;
    bool allseen = false;   // under OR, a child answered all segments
    int64_t r = 0, nvalues = 0;
    const da_keystr_t* previx = nullptr;
    int counted = 0;
    for (int i = 0; i < narg; i++) {
        SQLOP* c = get_child(n, i);
        if (!c || !c->nodeinfo || c->nodeinfo->idx.status != WH_XST_ALL || partner[i] == -2) continue;
        ix_list_t* cl = nullptr;
        bool call = true;
        rctype grc = 0;
        if (partner[i] >= 0) {
            SQLOP* hi = get_child(n, partner[i]);
            IX_SEGSTATS_T st{};
            bool asked = false;
            grc = rangesegs(wh, c, hi, &cl, &call, &st, &asked);
            if (grc == 0 && costing) {
                leafestimate(wh, c, cl, asked, st);
                hi->nodeinfo->segstats = c->nodeinfo->segstats;
                hi->nodeinfo->segrows = c->nodeinfo->segrows;
            }
        } else {
            grc = gather(wh, c, &cl, &call, costing, depth + 1);
        }
        if (grc == 0 && costing) {
            // The running estimate of rows.
            int64_t cr = c->nodeinfo->segstats.nrows;
            const da_keystr_t* cix = isandor(c) ? nullptr : c->nodeinfo->idx.xkeystr;
            if (counted++ == 0) r = cr;
            else if (islor && cix && cix == previx) r = r + cr;
            else if (islor) r = cr < r ? r + cr / 2 : r / 2 + cr;
            else r = r < cr ? r / 2 : cr / 2;
            if (islor || counted == 1) previx = cix;
            r = std::max<int64_t>(r, 1);
            nvalues += c->nodeinfo->segstats.nvalues;
        }
        if (allseen) {
            if (cl) ixfreel(cl);
            if (grc) return grc;
            continue;
        }
        if (rctype rc = grc) {
            if (run) ixfreel(run);
            return rc;
        }
        if (!cl) {
            // All segments: under OR nothing can be skipped (costing goes on
            // for the estimate); under AND the child does not narrow.
            if (islor) {
                if (run) ixfreel(run);
                run = nullptr;
                any = false;
                allseen = true;
                if (!costing) break;
            }
            continue;
        }
        if (!run) {
            run = cl;
        } else {
            rctype rc = ixop(run, cl, run, islor ? IX_OR : IX_AND);
            ixfreel(cl);
            if (rc != 0) {
                ixfreel(run);
                wh_trap_error("gatherseglists", __LINE__, rc);
                return WH_RC_TRAPPED;
            }
        }
        any = true;
    }
    *list = run;
    *alltrue = !any;
    if (costing) {
        n->nodeinfo->segstats.nrows = r;
        n->nodeinfo->segstats.nvalues = nvalues;
        segrowsof(wh, n, run);
    }
    return 0;
}

rctype openleaves(WH_HANDLE* wh, SQLOP* n, int depth) {
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (isandor(n)) {
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            if (c && c->nodeinfo && c->nodeinfo->idx.status == WH_XST_ALL)
                if (rctype rc = openleaves(wh, c, depth + 1)) return rc;
        }
        return 0;
    }
    WH_IDX& x = n->nodeinfo->idx;
    if (x.status != WH_XST_ALL || !x.xkeystr || x.ixh) return 0;
    char name[40];
    std::snprintf(name, sizeof name, "%.*s", x.xkeystr->name_l, x.xkeystr->name);
    IX_INDEX_T* ix = nullptr;
    rctype rc = ixopen(wh->fid, name, 0, wh->numthreads, nullptr, &ix);
    if (rc != 0) {
        // An index that can't be read as it stands only costs the segment
        // list: the rows are tested all the same.
        if (ix) ixclose(ix);
        if (wh->debugfp)
            std::fprintf(wh->debugfp, "whinit: INDEX %s not opened (0x%x): checking all its segments\n", name,
                         static_cast<unsigned>(rc));
        return 0;
    }
    x.ixh = ix;
    x.flags |= WH_IF_OWNSIXH;
    x.idxnum = ++wh->indexcount;
    return 0;
}

// One key range of a leaf for the global scan; an empty key is an open end.
struct Probe {
    std::vector<char> lo, hi;
    int loop = IX_GE, hiop = IX_LE, lolen = 0, hilen = 0;
};

// The probes of the leaf wheval3 walks, in order.
struct WH_EV3 {
    const SQLOP* node = nullptr;
    std::vector<Probe> probes;
    size_t next = 0;
};

bool missingvalue(const SQLOP* name, const std::string& v) {
    if (name->type < 0) return v.size() >= 2 && static_cast<unsigned char>(v[v.size() - 1]) == 0xff &&
                               static_cast<unsigned char>(v[v.size() - 2]) == 0xff;
    return v.find_first_not_of(' ') == std::string::npos;
}

// The key ranges whose rows are exactly the leaf's rows; *ok false when the
// leaf can't be answered that way (a key that can't be made, a relation the
// global scan has no range for, or rows the index left out that could match).
rctype leafprobes(WH_HANDLE* wh, const SQLOP* n, std::vector<Probe>& out, bool* ok) {
    out.clear();
    *ok = false;
    const WH_IDX& x = n->nodeinfo->idx;
    IX_INDEX_T* ix = x.ixh;
    if (!ix || !x.name || !x.valu || !x.xkeystr || (x.flags & 0x2) || x.xkeystr->nvar != 1) return 0;
    // An index without missing keys has no rows for a range open below or
    // for a missing value.
    bool nomiss = (x.xkeystr->keyflags & 2) != 0;
    auto key = [&](const SQLOP* lit, std::vector<char>& k, int* len) -> rctype {
        std::string v;
        if (!rowvalue(wh, x.name, lit, v) || (nomiss && missingvalue(x.name, v))) return 1;
        KeyedOp ko;
        if (rctype rc = makekey(ix, {&v}, ko, len); rc < 0) return rc;
        k = std::move(ko.key);
        return 0;
    };
    auto eq = [&](const SQLOP* lit) -> rctype {
        Probe p;
        if (rctype rc = key(lit, p.lo, &p.lolen)) return rc;
        p.hi = p.lo;
        p.hilen = p.lolen;
        out.push_back(std::move(p));
        return 0;
    };
    if (x.ntype == WH_XNT_COMPARELIT) {
        Probe p;
        int code = n->code;
        if (code == OP_CEQ) {
            if (rctype rc = eq(x.valu)) return rc < 0 ? rc : 0;
        } else if (code == OP_CGT || code == OP_CGE) {
            if (rctype rc = key(x.valu, p.lo, &p.lolen)) return rc < 0 ? rc : 0;
            p.loop = code == OP_CGT ? IX_GT : IX_GE;
            out.push_back(std::move(p));
        } else if (code == OP_CLT || code == OP_CLE) {
            if (nomiss) return 0;
            if (rctype rc = key(x.valu, p.hi, &p.hilen)) return rc < 0 ? rc : 0;
            p.hiop = code == OP_CLT ? IX_LT : IX_LE;
            out.push_back(std::move(p));
        } else {
            return 0;
        }
    } else if (x.ntype == WH_XNT_INSJSET) {
        const SQLOP* set = get_child(x.valu, 0);
        if (!set) return 0;
        for (int i = 0; i < set->u.setleaf.num; i++) {
            std::string v;
            if (!packedvalue(wh, x.name, set, i, v) || (nomiss && missingvalue(x.name, v))) return 0;
            KeyedOp ko;
            Probe p;
            if (rctype rc = makekey(ix, {&v}, ko, &p.lolen); rc < 0) return rc;
            p.lo = ko.key;
            p.hi = std::move(ko.key);
            p.hilen = p.lolen;
            out.push_back(std::move(p));
        }
    } else if (x.ntype == WH_XNT_INLITSET || x.ntype == WH_XNT_INMIXSET) {
        for (int i = 0; i < x.valu->u.node.narg; i++) {
            const SQLOP* e = get_child(x.valu, i);
            if (!e) return 0;
            if (e->code == OP_LITN || e->code == OP_LITC) {
                if (rctype rc = eq(e)) return rc < 0 ? rc : 0;
            } else if (e->code >= OP_RANB && e->code <= OP_RANN && e->u.node.narg == 2) {
                Probe p;
                if (rctype rc = key(get_child(e, 0), p.lo, &p.lolen)) return rc < 0 ? rc : 0;
                if (rctype rc = key(get_child(e, 1), p.hi, &p.hilen)) return rc < 0 ? rc : 0;
                p.loop = (e->code == OP_RANH || e->code == OP_RANN) ? IX_GT : IX_GE;
                p.hiop = (e->code == OP_RANL || e->code == OP_RANN) ? IX_LT : IX_LE;
                out.push_back(std::move(p));
            } else {
                return 0;
            }
        }
    } else {
        return 0;
    }
    *ok = true;
    return 0;
}

// Every leaf of the INDEX tree can give its rows through the global scan.
rctype allprobes(WH_HANDLE* wh, const SQLOP* n, bool* ok, int depth) {
    *ok = false;
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (isandor(n)) {
        for (int i = 0; i < n->u.node.narg; i++) {
            const SQLOP* c = get_child(n, i);
            if (!c || !c->nodeinfo || c->nodeinfo->idx.status != WH_XST_ALL) continue;
            if (rctype rc = allprobes(wh, c, ok, depth + 1); rc || !*ok) return rc;
        }
        *ok = true;
        return 0;
    }
    std::vector<Probe> v;
    return leafprobes(wh, n, v, ok);
}

WH_EV3* ev3of(WH_HANDLE* wh) {
    if (!wh->ev3) wh->ev3 = new (std::nothrow) WH_EV3;
    return static_cast<WH_EV3*>(wh->ev3);
}

// The rows of n as a list into *out (null when none was made): a leaf's
// from the global scan, one list per key range ORed, so that no row is
// added one at a time; AND and OR merge their children's.
rctype eval4(WH_HANDLE* wh, SQLOP* n, ix_list_t** out, int depth) {
    *out = nullptr;
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (n->nodeinfo->idx.status != WH_XST_ALL) return WH_RC_BADPLAN;
    ix_list_t* acc = nullptr;
    auto merge = [&](ix_list_t* l, int op) -> rctype {
        if (!acc) {
            acc = l;
            return 0;
        }
        rctype rc = ixop(acc, l, acc, op);
        ixfreel(l);
        if (rc != 0) {
            wh_trap_error("eval4", __LINE__, rc);
            return WH_RC_TRAPPED;
        }
        return 0;
    };
    rctype rc = 0;
    if (!isandor(n)) {
        wh->eval3 = n;
        IX_INDEX_T* ix = n->nodeinfo->idx.ixh;
        WH_EV3* st = ev3of(wh);
        if (!ix) return WH_RC_BADPLAN;
        if (!st) return WH_RC_NOMEM;
        bool ok = false;
        if ((rc = leafprobes(wh, n, st->probes, &ok))) return rc;
        if (!ok) return WH_RC_NOKEY;
        st->node = n;
        wh->valstart = true;
        for (const Probe& p : st->probes) {
            rc = ix->fp.gsetpnt(ix->ix_private, p.lo.empty() ? nullptr : p.lo.data(), p.loop, p.lolen,
                                p.hi.empty() ? nullptr : p.hi.data(), p.hiop, p.hilen, 0);
            ix_list_t* l = nullptr;
            // 1 from ggetlist: no value in the range.
            if (rc >= 0) rc = ix->fp.ggetlist(ix->ix_private, nullptr, &l, nullptr);
            if (rc < 0) {
                if (l) ixfreel(l);
                wh_trap_error("eval4", __LINE__, rc);
                rc = WH_RC_TRAPPED;
                break;
            }
            rc = 0;
            if (l && (rc = merge(l, IX_OR))) break;
        }
    } else {
        int op = n->code == OP_LOR ? IX_OR : IX_AND;
        bool first = true;
        for (int i = 0; i < n->u.node.narg && rc == 0; i++) {
            SQLOP* c = get_child(n, i);
            if (!c || !c->nodeinfo || c->nodeinfo->idx.status != WH_XST_ALL) continue;
            ix_list_t* sub = nullptr;
            if ((rc = eval4(wh, c, &sub, depth + 1))) break;
            if (!sub && ixgetl(&sub) != 0) {
                rc = WH_RC_NOMEM;
                break;
            }
            if (first) {
                // The first child's rows are where the others merge in.
                if (acc) ixfreel(acc);
                acc = sub;
                first = false;
                continue;
            }
            rc = ixop(acc, sub, acc, op);
            ixfreel(sub);
            if (rc != 0) {
                wh_trap_error("eval4", __LINE__, rc);
                rc = WH_RC_TRAPPED;
            }
        }
    }
    if (rc) {
        if (acc) ixfreel(acc);
        return rc;
    }
    *out = acc;
    return 0;
}

rctype syncleaves(WH_HANDLE* wh, SQLOP* n, int idxcnt, const u_sname* names, int depth) {
    if (!n || !n->nodeinfo || depth > WH_MAXDEPTH) return WH_RC_BADTREE;
    if (isandor(n)) {
        for (int i = 0; i < n->u.node.narg; i++) {
            SQLOP* c = get_child(n, i);
            if (c && c->nodeinfo && c->nodeinfo->idx.status == WH_XST_ALL)
                if (rctype rc = syncleaves(wh, c, idxcnt, names, depth + 1)) return rc;
        }
        return 0;
    }
    WH_IDX& x = n->nodeinfo->idx;
    if (!x.ixh || !x.xkeystr) return 0;
    for (int i = 0; i < idxcnt; i++) {
        int l = std::min<int>(names[i].len, 32);
        if (l != x.xkeystr->name_l || strncasecmp(names[i].name, x.xkeystr->name, static_cast<size_t>(l)) != 0)
            continue;
        if (rctype rc = x.ixh->fp.resynch(x.ixh->ix_private); rc < 0) {
            wh_trap_error("whsyncx", __LINE__, rc);
            return WH_RC_TRAPPED;
        }
        break;
    }
    return 0;
}

}  // namespace

rctype wheval3(WH_HANDLE* wh, int rewind_flag, hs_obsno_t* obs_ptr, const IX_BOUNDS_T* bounds, int64_t* obs_count) {
    if (!wh || !obs_ptr || !obs_count) return WH_RC_NULLARG;
    int64_t room = *obs_count;
    *obs_count = 0;
    if (!wh->eval3 || !(wh->call_flags & (WHF_EVAL3 | WHF_EVAL4))) return WH_RC_NULLARG;
    SQLOP* n = wh->eval3;
    if (!n->nodeinfo || !n->nodeinfo->idx.ixh) return WH_RC_BADPLAN;
    IX_INDEX_T* ix = n->nodeinfo->idx.ixh;
    WH_EV3* st = ev3of(wh);
    if (!st) return WH_RC_NOMEM;
    if (st->node != n) {
        bool ok = false;
        if (rctype rc = leafprobes(wh, n, st->probes, &ok)) return rc;
        if (!ok) return WH_RC_NOKEY;
        st->node = n;
        rewind_flag = 1;
    }
    if (rewind_flag) {
        st->next = 0;
        wh->valstart = true;
        wh->probedone = st->probes.empty();
    }
    int64_t got = 0;
    while (got < room && !wh->probedone) {
        const Probe& p = st->probes[st->next];
        if (wh->valstart) {
            rctype rc = ix->fp.gsetpnt(ix->ix_private, p.lo.empty() ? nullptr : p.lo.data(), p.loop, p.lolen,
                                       p.hi.empty() ? nullptr : p.hi.data(), p.hiop, p.hilen, 0);
            if (rc < 0) {
                wh_trap_error("wheval3", __LINE__, rc);
                return WH_RC_TRAPPED;
            }
            wh->valstart = false;
        }
        int64_t ask = room - got;
        int64_t size = ask;
        rctype rc = ix->fp.ggetpnt(ix->ix_private, bounds, nullptr, obs_ptr + got, &size);
        if (rc < 0) {
            wh_trap_error("wheval3", __LINE__, rc);
            return WH_RC_TRAPPED;
        }
        got += size;
        if (size < ask) {
            // This key is used up: on to the next.
            if (++st->next >= st->probes.size()) wh->probedone = true;
            else wh->valstart = true;
        }
    }
    *obs_count = got;
    return 0;
}

rctype wheval4(WH_HANDLE* wh, ix_list_t** obs_list) {
    if (!obs_list) return WH_RC_NULLARG;
    *obs_list = nullptr;
    if (!wh) return WH_RC_NULLARG;
    if (!(wh->call_flags & WHF_EVAL4) || !wh->xtree) return WH_RC_BADPLAN;
    ix_list_t* l = nullptr;
    if (rctype rc = eval4(wh, wh->xtree, &l, 0)) return rc;
    if (!l && ixgetl(&l) != 0) return WH_RC_NOMEM;
    ixrwndl(l);
    *obs_list = l;
    return 0;
}

rctype whprobesok(WH_HANDLE* wh, bool* ok) {
    *ok = false;
    return wh->xtree ? allprobes(wh, wh->xtree, ok, 0) : 0;
}

rctype whsyncleaves(WH_HANDLE* wh, int idxcnt, const void* idxarr) {
    if (wh->call_flags & WHF_EVAL3) {
        IX_INDEX_T* ix = wh->eval3 && wh->eval3->nodeinfo ? wh->eval3->nodeinfo->idx.ixh : nullptr;
        if (!ix) return WH_RC_BADPLAN;
        if (rctype rc = ix->fp.resynch(ix->ix_private); rc < 0) {
            wh_trap_error("whsyncx", __LINE__, rc);
            return WH_RC_TRAPPED;
        }
        return 0;
    }
    if (!(wh->call_flags & WHF_EVAL4)) return WH_RC_BADPLAN;
    if (!idxarr || idxcnt <= 0) return WH_RC_NULLARG;
    return syncleaves(wh, wh->xtree, idxcnt, static_cast<const u_sname*>(idxarr), 0);
}

void whfreeev3(WH_HANDLE* wh) {
    delete static_cast<WH_EV3*>(wh->ev3);
    wh->ev3 = nullptr;
}

rctype openindexes(WH_HANDLE* wh) { return wh->xtree ? openleaves(wh, wh->xtree, 0) : 0; }

rctype gatherseglists(WH_HANDLE* wh, bool costing) {
    wh->seglist = nullptr;
    if (!wh->xtree) return 0;
    ix_list_t* l = nullptr;
    bool alltrue = true;
    if (rctype rc = gather(wh, wh->xtree, &l, &alltrue, costing, 0)) return rc;
    if (l) ixrwndl(l);
    wh->seglist = l;
    return 0;
}

void whfreeseglist(WH_HANDLE* wh) {
    if (wh->seglist) ixfreel(static_cast<ix_list_t*>(wh->seglist));
    wh->seglist = nullptr;
}

rctype whsegments(WH_HANDLE* wh, std::vector<int64_t>* segs) {
    segs->clear();
    auto* l = static_cast<ix_list_t*>(wh->seglist);
    if (!l) return 0;
    ixrwndl(l);
    hs_obsno_t buf[1024];
    for (int guard = 0; guard < (1 << 27) / 1024 + 2; guard++) {
        int64_t n = 1024;
        rctype rc = ixrtrve(l, buf, &n);
        if (rc < 0) {
            wh_trap_error("whsegments", __LINE__, rc);
            return WH_RC_TRAPPED;
        }
        for (int64_t i = 0; i < n; i++) segs->push_back(buf[i] - 1);
        if (rc == 1 || n == 0) break;
    }
    ixrwndl(l);
    return 0;
}

}  // namespace vrta

// Queries people type, planned onto the engine's own pieces: the WHERE
// clause becomes a tree and its wire form for the WHERE cursor, aggregates
// become a group-by request fed by scan threads, and ORDER BY goes through
// the sorter. Expressions over the groups and rows are evaluated by wheval.
#include "vrta/vrtasql.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "eng/hpowset.h"
#include "hs/hs.h"
#include "hs/sr.h"
#include "sda/dafid.h"
#include "sda/daods.h"
#include "ssubs/skb.h"
#include "ssubs/vz.h"
#include "ssup/thr.h"
#include "vrta/directapi.h"
#include "wh/wheval.h"
#include "wh/whgs.h"
#include "wh/whsql.h"

using namespace vrta;

namespace {

constexpr long CHUNKBYTES = 4L << 20;
constexpr int MAXTHREADS = 16;

struct Agg {
    char func[8];
    int nvar0;
    int type, len;   // of the result
    int off = 0;     // in the group-by result row
};

// A value the group-by reads from each row that is not a column of the
// table: an aggregate's argument or a GROUP BY expression, computed into the
// tail of the row handed to the group-by.
struct Comp {
    SQLOP* tree = nullptr;
    std::string text;  // as rendered, to name it
    int type = 1, len = 8;
    int at = 0;        // in the row handed to the group-by
};

struct Item {
    SQLOP* tree = nullptr;
    std::string name;
    int type = 1, len = 8, off = 0;  // in the final row
};

struct Query {
    const char* text;
    int len;
    DA_FID* fid = nullptr;
    std::vector<WH_PCOL> cols;
    std::vector<Agg> aggs;
    bool aggok = true;  // aggregates may stand where we are parsing
    std::vector<Item> items;   // visible, then hidden order items
    int nvisible = 0;
    std::vector<std::pair<int, bool>> order;  // item, descending
    std::vector<int> groups;  // nvar0 of the group columns; past the table's, computed ones
    std::vector<Comp> comps;
    SQLOP* where = nullptr;
    SQLOP* having = nullptr;
    WH_PERR err{};
    std::string plan;
    ~Query() {
        for (Item& i : items) free_tree(&i.tree, nullptr);
        for (Comp& c : comps) free_tree(&c.tree, nullptr);
        free_tree(&where, nullptr);
        free_tree(&having, nullptr);
    }
};

rctype sqlfail(Query& q, rctype rc, int pos, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
rctype sqlfail(Query& q, rctype rc, int pos, const char* fmt, ...) {
    if (q.err.text[0]) return rc;
    int n = pos >= 0 ? snprintf(q.err.text, sizeof q.err.text, "at column %d: ", pos + 1) : 0;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(q.err.text + n, sizeof q.err.text - n, fmt, ap);
    va_end(ap);
    return rc;
}

// A column of the table, or a computed value numbered after them.
WH_PCOL colof(const Query& q, int nvar0) {
    int n = static_cast<int>(q.cols.size());
    if (nvar0 <= n) return q.cols[nvar0 - 1];
    const Comp& c = q.comps[nvar0 - n - 1];
    return WH_PCOL{c.text.c_str(), static_cast<int>(c.text.size()), c.type, c.len, c.at, nvar0};
}

// Whether two trees compute the same value; a leaf of a kind not known here
// never matches, so at worst a value is computed twice.
bool sametree(const SQLOP* a, const SQLOP* b) {
    if (!a || !b) return a == b;
    if (a->code != b->code || a->type != b->type) return false;
    if (a->code >= OP_FIRSTOP) {
        if (a->u.node.narg != b->u.node.narg) return false;
        for (int i = 0; i < a->u.node.narg; i++)
            if (!sametree(get_child(a, i), get_child(b, i))) return false;
        return true;
    }
    switch (a->code) {
    case OP_NAME:
        return a->u.vleaf.nvar0 == b->u.vleaf.nvar0;
    case OP_LITN:
        return memcmp(&a->u.nleaf.nbr, &b->u.nleaf.nbr, 8) == 0;
    case OP_LITC:
        return a->u.cleaf.leng == b->u.cleaf.leng && memcmp(a->u.cleaf.c, b->u.cleaf.c, a->u.cleaf.leng) == 0;
    case OP_FUNC:
        return a->u.func.namelen == b->u.func.namelen && memcmp(a->u.func.name, b->u.func.name, a->u.func.namelen) == 0;
    default:
        return false;
    }
}

// The computed value of tree (taken over), shared with an equal one already
// there; *nvar0 gets its number.
rctype addcomp(Query& q, SQLOP* tree, int* nvar0) {
    int n = static_cast<int>(q.cols.size());
    for (size_t i = 0; i < q.comps.size(); i++)
        if (sametree(q.comps[i].tree, tree)) {
            free_tree(&tree, nullptr);
            *nvar0 = n + static_cast<int>(i) + 1;
            return 0;
        }
    Comp c;
    char* txt = nullptr;
    if (whsayit(tree, &txt) == 0 && txt) c.text = txt;
    free(txt);
    c.tree = tree;
    c.type = tree->type > 0 ? 2 : 1;
    c.len = c.type == 2 ? tree->type : 8;
    q.comps.push_back(c);
    *nvar0 = n + static_cast<int>(q.comps.size());
    return 0;
}

bool hasagg(SQLOP* t);

struct AggName {
    const char* sql;
    const char* func;   // the engine's function
    const char* dfunc;  // with DISTINCT, or null
};
constexpr AggName AGGS[] = {
    {"COUNT", "COUNT", "COUNTD"}, {"SUM", "SUM", "SUMD"},    {"AVG", "AVG", "AVGD"},     {"MEAN", "AVG", "AVGD"},
    {"MIN", "MIN", "MIN"},        {"MAX", "MAX", "MAX"},     {"STD", "STD", "STDD"},     {"VAR", "VAR", "VARD"},
    {"CSS", "CSS", "CSSD"},       {"USS", "USS", "USSD"},    {"NMISS", "NMISS", nullptr}, {"RANGE", "RANGE", nullptr},
    {"STDERR", "STDERR", "STDERRD"}, {"N", "N", nullptr}};

const AggName* aggname(const char* name, int len) {
    for (const AggName& a : AGGS)
        if (whsqlis(name, 0, len, a.sql)) return &a;
    return nullptr;
}

int isagg(void*, const char* name, int len) { return aggname(name, len) != nullptr; }

rctype makeagg(void* ctx, const char* name, int len, bool distinct, SQLOP* arg, SQLOP** leaf, char* why, int whylen) {
    auto* q = static_cast<Query*>(ctx);
    const AggName* a = aggname(name, len);
    std::string nm(name, len);
    for (char& c : nm) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    auto refuse = [&](rctype rc, const std::string& t) {
        snprintf(why, whylen, "%s", t.c_str());
        if (arg) free_tree(&arg, nullptr);
        return rc;
    };
    if (!q->aggok) return refuse(WH_RC_SQLAGGR, "the aggregate " + nm + " cannot stand in WHERE or GROUP BY");
    if (distinct && !a->dfunc) return refuse(WH_RC_SQLSYNTAX, nm + " takes no DISTINCT");
    int nvar0 = 0, type = -8, rlen = 8;
    if (!arg) {
        if (nm != "COUNT") return refuse(WH_RC_SQLSYNTAX, nm + "(*) is not an aggregate: only COUNT(*) is");
    } else {
        if (arg->code == OP_NAME && arg->u.vleaf.nvar0 > 0) {
            nvar0 = arg->u.vleaf.nvar0;
            free_tree(&arg, nullptr);
        } else {
            SQLOP* t = arg;
            arg = nullptr;
            if (rctype rc = addcomp(*q, t, &nvar0)) return refuse(rc, "out of memory");
        }
        const WH_PCOL c = colof(*q, nvar0);
        bool minmax = nm == "MIN" || nm == "MAX";
        bool anyt = minmax || nm == "COUNT" || nm == "N" || nm == "NMISS";
        if (c.type == 2 && !anyt) return refuse(WH_RC_TYPES, nm + " needs a numeric column");
        if (c.type == 2 && minmax) {
            type = c.length;
            rlen = c.length;
        }
    }
    Agg g{};
    memset(g.func, ' ', 8);
    const char* f = distinct ? a->dfunc : a->func;
    memcpy(g.func, f, strlen(f));
    g.nvar0 = nvar0;
    g.type = type;
    g.len = rlen;
    int idx = -1;
    for (size_t i = 0; i < q->aggs.size(); i++)
        if (memcmp(q->aggs[i].func, g.func, 8) == 0 && q->aggs[i].nvar0 == nvar0) idx = static_cast<int>(i);
    if (idx < 0) {
        idx = static_cast<int>(q->aggs.size());
        q->aggs.push_back(g);
    }
    SQLOP* n = nullptr;
    if (rctype rc = get_node(&n)) return refuse(rc, "out of memory");
    n->code = OP_NAME;
    n->type = static_cast<short>(type);
    n->u.vleaf.nvar0 = -(idx + 1);  // bound to its result column later
    n->u.vleaf.leng = static_cast<short>(rlen);
    int nl = std::min(len, 32);
    memcpy(n->u.vleaf.name, name, nl);
    n->u.vleaf.namelen = static_cast<short>(nl);
    *leaf = n;
    return 0;
}

// Parses the expression at pos; *end gets where it stopped.
rctype expr(Query& q, int pos, SQLOP** tree, int* end) {
    WH_PAGG hook{&q, isagg, makeagg};
    WH_PERR e{};
    rctype rc = whparsex(q.text, q.len, pos, q.cols.data(), static_cast<int>(q.cols.size()), &hook, tree, end, &e);
    if (rc) {
        if (!q.err.text[0]) q.err = e;
        return rc;
    }
    return 0;
}

// Every NAME leaf of a tree, with the function given.
template <class F>
rctype eachname(SQLOP* n, F&& f) {
    if (!n) return 0;
    if (n->code == OP_NAME) return f(n);
    if (n->code < OP_FIRSTOP) return 0;
    for (int i = 0; i < n->u.node.narg; i++)
        if (rctype rc = eachname(get_child(n, i), f)) return rc;
    return 0;
}

bool hasagg(SQLOP* t) {
    return eachname(t, [](SQLOP* n) -> rctype { return n->u.vleaf.nvar0 < 0 ? 1 : 0; }) != 0;
}

std::string itemname(const Query& q, int from, int to) {
    while (from < to && isspace(static_cast<unsigned char>(q.text[from]))) from++;
    while (to > from && isspace(static_cast<unsigned char>(q.text[to - 1]))) to--;
    return std::string(q.text + from, std::min(to - from, 64));
}

rctype parseselect(Query& q, const WHSQL_PART& p) {
    int pos = p.start;
    for (;;) {
        int ts, tl;
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        if (tl == 1 && q.text[ts] == '*') {
            for (const WH_PCOL& c : q.cols) {
                Item it;
                if (rctype rc = get_node(&it.tree)) return sqlfail(q, rc, ts, "out of memory");
                it.tree->code = OP_NAME;
                it.tree->type = static_cast<short>(c.type == 1 ? -c.length : c.length);
                it.tree->u.vleaf.nvar0 = c.nvar0;
                it.tree->u.vleaf.offset = c.npos;
                it.tree->u.vleaf.leng = static_cast<short>(c.length);
                int nl = std::min(c.namelen, 32);
                memcpy(it.tree->u.vleaf.name, c.name, nl);
                it.tree->u.vleaf.namelen = static_cast<short>(nl);
                it.name.assign(c.name, c.namelen);
                q.items.push_back(it);
            }
            pos = ts + 1;
        } else {
            Item it;
            int end = 0;
            if (rctype rc = expr(q, pos, &it.tree, &end)) return rc;
            if (end > p.end) return sqlfail(q, WH_RC_SQLSYNTAX, ts, "an item runs into the next clause");
            it.name = itemname(q, ts, end);
            pos = end;
            whsqltoken(q.text, pos, p.end, &ts, &tl);
            if (tl && whsqlis(q.text, ts, tl, "AS")) {
                pos = ts + tl;
                whsqltoken(q.text, pos, p.end, &ts, &tl);
                if (!tl || !(isalpha(static_cast<unsigned char>(q.text[ts])) || q.text[ts] == '_')) {
                    free_tree(&it.tree, nullptr);
                    return sqlfail(q, WH_RC_SQLSYNTAX, ts, "expected a name after AS");
                }
            }
            if (tl && (isalpha(static_cast<unsigned char>(q.text[ts])) || q.text[ts] == '_')) {
                it.name.assign(q.text + ts, std::min(tl, 64));
                pos = ts + tl;
            }
            q.items.push_back(it);
        }
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        if (!tl) return 0;
        if (tl != 1 || q.text[ts] != ',') return sqlfail(q, WH_RC_SQLSYNTAX, ts, "expected ',' or FROM");
        pos = ts + 1;
    }
}

// A select item by alias or 1-based position, or -1.
int itemref(Query& q, int ts, int tl) {
    bool digits = tl > 0;
    for (int i = 0; i < tl; i++) digits = digits && isdigit(static_cast<unsigned char>(q.text[ts + i]));
    if (digits) {
        long n = strtol(q.text + ts, nullptr, 10);
        return n >= 1 && n <= q.nvisible ? static_cast<int>(n - 1) : -2;
    }
    for (int i = 0; i < q.nvisible; i++)
        if (static_cast<int>(q.items[i].name.size()) == tl && whsqlis(q.text, ts, tl, q.items[i].name.c_str()))
            return i;
    return -1;
}

// GROUP BY: select aliases and positions, columns, and expressions over the
// row, which become computed values.
rctype parsegroup(Query& q, const WHSQL_PART& p) {
    int pos = p.start;
    for (;;) {
        int ts, tl;
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        int after, al;
        whsqltoken(q.text, ts + tl, p.end, &after, &al);
        bool single = !al || (al == 1 && q.text[after] == ',');
        int r = single ? itemref(q, ts, tl) : -1;
        if (r == -2) return sqlfail(q, WH_RC_SQLSYNTAX, ts, "GROUP BY %.*s: no such select item", tl, q.text + ts);
        int nv = 0;
        SQLOP* t = nullptr;
        if (r >= 0) {
            const SQLOP* it = q.items[r].tree;
            if (hasagg(q.items[r].tree))
                return sqlfail(q, WH_RC_SQLAGGR, ts, "GROUP BY %.*s: the item holds an aggregate", tl, q.text + ts);
            if (it->code == OP_NAME) nv = it->u.vleaf.nvar0;
            else if (rctype rc = whtreecopy(it, &t)) return sqlfail(q, rc, ts, "out of memory");
            pos = ts + tl;
        } else {
            int end = 0;
            if (rctype rc = expr(q, ts, &t, &end)) return rc;
            if (end > p.end) {
                free_tree(&t, nullptr);
                return sqlfail(q, WH_RC_SQLSYNTAX, ts, "a GROUP BY item runs into the next clause");
            }
            pos = end;
            if (t->code == OP_NAME) {
                nv = t->u.vleaf.nvar0;
                free_tree(&t, nullptr);
            }
        }
        if (t)
            if (rctype rc = addcomp(q, t, &nv)) return sqlfail(q, rc, ts, "out of memory");
        if (std::find(q.groups.begin(), q.groups.end(), nv) == q.groups.end()) q.groups.push_back(nv);
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        if (!tl) return 0;
        if (tl != 1 || q.text[ts] != ',') return sqlfail(q, WH_RC_SQLSYNTAX, ts, "expected ',' in GROUP BY");
        pos = ts + 1;
    }
}

rctype parseorder(Query& q, const WHSQL_PART& p) {
    int pos = p.start;
    for (;;) {
        int ts, tl;
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        int after, al;
        whsqltoken(q.text, ts + tl, p.end, &after, &al);
        bool single = !al || (al == 1 && q.text[after] == ',') || whsqlis(q.text, after, al, "ASC") ||
                      whsqlis(q.text, after, al, "DESC");
        int item = single ? itemref(q, ts, tl) : -1;
        if (item == -2) return sqlfail(q, WH_RC_SQLSYNTAX, ts, "ORDER BY %.*s: no such select item", tl, q.text + ts);
        if (item >= 0) {
            pos = ts + tl;
        } else {
            Item it;
            int end = 0;
            if (rctype rc = expr(q, pos, &it.tree, &end)) return rc;
            it.name = itemname(q, ts, end);
            item = static_cast<int>(q.items.size());
            q.items.push_back(it);
            pos = end;
        }
        bool desc = false;
        whsqltoken(q.text, pos, p.end, &ts, &tl);
        if (tl && (whsqlis(q.text, ts, tl, "ASC") || whsqlis(q.text, ts, tl, "DESC"))) {
            desc = whsqlis(q.text, ts, tl, "DESC");
            pos = ts + tl;
            whsqltoken(q.text, pos, p.end, &ts, &tl);
        }
        q.order.emplace_back(item, desc);
        if (!tl) return 0;
        if (tl != 1 || q.text[ts] != ',') return sqlfail(q, WH_RC_SQLSYNTAX, ts, "expected ',' in ORDER BY");
        pos = ts + 1;
    }
}

// Where a part of an expression is a GROUP BY expression, that part becomes
// a leaf for the group column.
rctype matchgroups(Query& q, SQLOP** slot) {
    SQLOP* n = *slot;
    if (!n || n->code == OP_NAME) return 0;
    int ncols = static_cast<int>(q.cols.size());
    for (int g : q.groups) {
        if (g <= ncols || !sametree(n, q.comps[g - ncols - 1].tree)) continue;
        const Comp& c = q.comps[g - ncols - 1];
        SQLOP* leaf = nullptr;
        if (rctype rc = get_node(&leaf)) return rc;
        leaf->code = OP_NAME;
        leaf->type = static_cast<short>(c.type == 1 ? -8 : c.len);
        leaf->u.vleaf.nvar0 = g;
        leaf->u.vleaf.leng = static_cast<short>(c.len);
        int nl = std::min(static_cast<int>(c.text.size()), 32);
        memcpy(leaf->u.vleaf.name, c.text.data(), nl);
        leaf->u.vleaf.namelen = static_cast<short>(nl);
        free_tree(slot, nullptr);
        *slot = leaf;
        return 0;
    }
    if (n->code < OP_FIRSTOP) return 0;
    for (int i = 0; i < n->u.node.narg; i++) {
        SQLOP* k = get_child(n, i);
        SQLOP* was = k;
        if (rctype rc = matchgroups(q, &k)) return rc;
        if (k != was)
            if (rctype rc = set_child(n, i, k)) return rc;
    }
    return 0;
}

// Binds NAME leaves of a grouped query to the group-by result row.
rctype bindgrouped(Query& q, SQLOP* tree, const std::vector<int>& groupoff) {
    return eachname(tree, [&](SQLOP* n) -> rctype {
        SQLVLEAF& v = n->u.vleaf;
        if (v.nvar0 < 0) {
            const Agg& a = q.aggs[-v.nvar0 - 1];
            v.offset = a.off;
            return 0;
        }
        auto it = std::find(q.groups.begin(), q.groups.end(), v.nvar0);
        if (it == q.groups.end())
            return sqlfail(q, WH_RC_SQLGROUP, -1, "the column %.*s is neither grouped nor aggregated", v.namelen,
                           v.name);
        const WH_PCOL c = colof(q, v.nvar0);
        v.offset = groupoff[it - q.groups.begin()];
        if (c.type == 1) {
            n->type = -8;
            v.leng = 8;
        }
        return 0;
    });
}

// The value of tree on the row at src into dst: a number (a condition as 1 or
// 0), or len bytes of text padded with blanks.
rctype evalvalue(wh_env_t* env, SQLOP* tree, const char* src, int type, int len, char* dst) {
    SQLOP res;
    memset(&res, 0, sizeof res);
    int truth = 0;
    rctype rc = wheval(env, tree, src, &res, 1, &truth);
    if (rc) return rc;
    if (type == 1) {
        double d = res.code == OP_LITN ? res.u.nleaf.nbr : (truth ? 1.0 : 0.0);
        memcpy(dst, &d, 8);
    } else {
        int n = res.code == OP_LITC ? std::min(res.u.cleaf.leng, len) : 0;
        if (n) memcpy(dst, res.u.cleaf.c, n);
        memset(dst + n, ' ', len - n);
    }
    return 0;
}

// An item's value into the final row.
rctype evalitem(wh_env_t* env, Item& it, const char* src, char* dst) {
    SQLOP* t = it.tree;
    if (t->code == OP_NAME) {
        const SQLVLEAF& v = t->u.vleaf;
        if (it.type == 1) {
            double d;
            if (t->type == -8) memcpy(&d, src + v.offset, 8);
            else {
                unsigned char w[8];
                vzrftrc(src + v.offset, -t->type, w);
                memcpy(&d, w, 8);
            }
            memcpy(dst, &d, 8);
        } else {
            int n = std::min(static_cast<int>(t->type), it.len);
            memcpy(dst, src + v.offset, n);
            memset(dst + n, ' ', it.len - n);
        }
        return 0;
    }
    return evalvalue(env, t, src, it.type, it.len, dst);
}

struct Final {
    Query* q;
    wh_env_t env{};
    int rowlen = 0;
    std::vector<char> rows;
    int64_t nrows = 0;
    int64_t limit = -1;  // rows kept when no sort follows
    rctype rc = 0;
    rctype add(const char* src) {
        if (limit >= 0 && nrows >= limit) return 0;
        size_t at = rows.size();
        rows.resize(at + rowlen);
        for (Item& it : q->items)
            if (rctype r = evalitem(&env, it, src, rows.data() + at + it.off)) return r;
        nrows++;
        return 0;
    }
};

rctype storegroups(char* buffer, long nrows, const WHGS_ROWINFO* ri, void* cb) {
    auto* f = static_cast<Final*>(cb);
    for (long i = 0; i < nrows; i++)
        if (rctype rc = f->add(buffer + i * ri->reclen + ri->keylen)) return rc;
    return 0;
}

// A scan thread's own copies of the computed values' trees (evaluation keeps
// scratch in them) and its rows widened by those values.
struct CompThread {
    const Query* q = nullptr;
    std::vector<SQLOP*> trees;
    wh_env_t env{};
    int extlen = 0;
    std::vector<char> rows;
    CompThread() = default;
    CompThread(const CompThread&) = delete;
    CompThread& operator=(const CompThread&) = delete;
    ~CompThread() {
        for (SQLOP*& t : trees) free_tree(&t, nullptr);
    }
    rctype init(const Query& qq, int rowlen) {
        q = &qq;
        extlen = rowlen;
        env.targenv = env.dataenv = qq.fid->nlsenv;
        for (const Comp& c : qq.comps) {
            SQLOP* t = nullptr;
            if (rctype rc = whtreecopy(c.tree, &t)) return rc;
            trees.push_back(t);
        }
        return 0;
    }
};
constexpr long COMPROWS = 512;  // rows widened at a time

struct Feed {
    WHGS_HANDLE* gsh;
    int t;
    const char* rows;
    int obslen;
    long n;
    CompThread* ct;
    rctype rc;
};
rctype feedrows(Feed* f) {
    CompThread* ct = f->ct;
    if (!ct) return whgsaggr(f->gsh, f->t, f->rows, f->obslen, f->n);
    ct->rows.resize(static_cast<size_t>(COMPROWS) * ct->extlen);
    for (long i = 0; i < f->n; i += COMPROWS) {
        long m = std::min(COMPROWS, f->n - i);
        for (long j = 0; j < m; j++) {
            const char* src = f->rows + (i + j) * f->obslen;
            char* dst = ct->rows.data() + j * ct->extlen;
            memcpy(dst, src, f->obslen);
            for (size_t k = 0; k < ct->trees.size(); k++) {
                const Comp& c = ct->q->comps[k];
                if (rctype rc = evalvalue(&ct->env, ct->trees[k], src, c.type, c.len, dst + c.at)) return rc;
            }
        }
        if (rctype rc = whgsaggr(f->gsh, f->t, ct->rows.data(), ct->extlen, m)) return rc;
    }
    return 0;
}
void* feed(void* a) {
    auto* f = static_cast<Feed*>(a);
    f->rc = feedrows(f);
    return nullptr;
}

// Hands a chunk of rows to the scan threads, a slice each; with computed
// values, ct holds each thread's means to compute them.
rctype feedchunk(WHGS_HANDLE* gsh, int nthreads, const char* rows, int obslen, long n, CompThread* ct) {
    Feed fs[MAXTHREADS];
    thread_t tids[MAXTHREADS];
    bool started[MAXTHREADS] = {};
    for (int t = 0; t < nthreads; t++) {
        long from = n * t / nthreads, to = n * (t + 1) / nthreads;
        fs[t] = Feed{gsh, t, rows + from * obslen, obslen, to - from, ct ? &ct[t] : nullptr, 0};
    }
    for (int t = 1; t < nthreads; t++)
        started[t] = thr_create(nullptr, 0, feed, &fs[t], 0, &tids[t]) == 0;
    feed(&fs[0]);
    for (int t = 1; t < nthreads; t++) {
        if (started[t]) thr_join(tids[t], nullptr);
        else feed(&fs[t]);
    }
    for (int t = 0; t < nthreads; t++)
        if (fs[t].rc) return fs[t].rc;
    return 0;
}

// One scan thread of a group-by: its own handle on the table, its own share
// of the rows (first to last, from 1), fed to whgsaggr as it reads them, so
// no thread waits for another while it spills.
struct RangeScan {
    void* vlib;
    const char* table;
    const char* ekey;
    void* fid;  // thread 0 reads through the caller's handle
    const std::vector<char>* wire;
    WHGS_HANDLE* gsh;
    CompThread* ct;
    int t;
    int64_t first, last;
    volatile int* intr;
    volatile int* stop;  // set by a thread that failed: the others end too
    std::string plan;    // the WHERE plan's words, from thread 0
    rctype rc;
};

// The batches of a WHERE cursor, from its clause in wire form, to fn(rows, n);
// words gets the plan's flags in words.
template <class Stop, class F>
rctype wherebatches(void* whh, const std::vector<char>& wire, int obslen, long bufsize, std::string* words,
                    Stop&& stopped, F&& fn) {
    int whflags = 0, whstat = 0;
    rctype rc = spwhset(whh, wire.data(), 0, 0, "", &whflags, &whstat);
    char w[200] = "";
    whflagwords(whflags, w, sizeof w);
    *words = w;
    std::vector<char> buf(bufsize);
    while (rc >= 0) {
        if (stopped()) return WH_RC_SQLSTOP;
        long n = bufsize / (obslen + 8);
        rc = spwhget(whh, buf.data(), &n);
        if (rc == VRTA_RC_NOMORE) return 0;
        if (rc < 0 || n <= 0) break;
        if ((rc = fn(buf.data(), n)) < 0) break;
    }
    return rc < 0 ? rc : 0;
}

// The batches of a plain cursor from row first (from 1) up to row last, to
// fn(rows, n); rows past last are left out.
template <class Stop, class F>
rctype readbatches(void* io, int64_t first, int64_t last, Stop&& stopped, F&& fn) {
    rctype rc = first > 1 ? spsetloc(io, first) : 0;
    int64_t next = std::max<int64_t>(first, 1);  // row number of the batch's first row
    while (rc >= 0 && next <= last) {
        if (stopped()) return WH_RC_SQLSTOP;
        long n = 0;
        void* bp = nullptr;
        int64_t* ov = nullptr;
        rc = spreadv(io, &n, &bp, &ov);
        if (rc < 0 || n <= 0) break;
        long m = n;
        if (ov) {
            while (m > 0 && ov[m - 1] > last) m--;
            next = ov[n - 1] + 1;
        } else {
            m = static_cast<long>(std::min<int64_t>(n, last - next + 1));
            next += n;
        }
        if (m > 0 && (rc = fn(static_cast<const char*>(bp), m)) < 0) break;
    }
    return rc < 0 ? rc : 0;
}

rctype rangerows(RangeScan* r) {
    void* fid = r->fid;
    if (!fid) {
        rctype rc = vrtaopen(r->vlib, r->table, static_cast<int>(strlen(r->table)), nullptr, 0, r->ekey, 0, nullptr,
                             -1, 0, &fid);
        if (rc < 0) return rc;
    }
    int obslen = 0;
    vrtainfo(fid, VRTAINFO_OBSLEN, &obslen);
    long bufsize = std::max<long>(CHUNKBYTES, obslen + 8);
    auto feedrange = [&](const char* rows, long n) -> rctype {
        Feed f{r->gsh, r->t, rows, obslen, n, r->ct, 0};
        return feedrows(&f);
    };
    auto stopped = [&]() { return (r->intr && *r->intr) || *r->stop; };
    rctype rc = 0;
    if (!r->wire->empty()) {
        void* whh = nullptr;
        if ((rc = spnewwh(fid, bufsize, r->first, r->last, &whh)) >= 0) {
            std::string words;
            rc = wherebatches(whh, *r->wire, obslen, bufsize, &words, stopped, feedrange);
            if (r->t == 0) r->plan = words;
            spfreewh(whh);
        }
    } else {
        void* io = nullptr;
        long rows = std::max(1L, bufsize / std::max(1, obslen));
        std::vector<char> iobuf(static_cast<size_t>(rows) * std::max(1, obslen));
        if ((rc = spnewrd(fid, static_cast<long>(iobuf.size()), iobuf.data(), &io)) >= 0) {
            rc = readbatches(io, r->first, r->last, stopped, feedrange);
            spfreerd(io);
        }
    }
    if (!r->fid) vrtaclose(fid);
    return rc < 0 ? rc : 0;
}

void* rangethread(void* a) {
    auto* r = static_cast<RangeScan*>(a);
    r->rc = rangerows(r);
    if (r->rc) *r->stop = 1;
    return nullptr;
}

// Rows of the table that pass WHERE, chunk by chunk, to fn.
template <class F>
rctype scan(Query& q, void* fid, const std::vector<char>& wire, int nthreads, volatile int* intr, F&& fn) {
    int obslen = 0;
    vrtainfo(fid, VRTAINFO_OBSLEN, &obslen);
    long bufsize = std::max<long>(CHUNKBYTES, obslen + 8);
    auto stopped = [&]() { return intr && *intr; };
    auto batch = [&](const char* rows, long n) { return fn(rows, obslen, n); };
    rctype rc = 0;
    if (!wire.empty()) {
        void* whh = nullptr;
        if ((rc = spnewwh(fid, bufsize, 0, 0, &whh)) < 0) return rc;
        spwhthreads(whh, nthreads);
        std::string words;
        rc = wherebatches(whh, wire, obslen, bufsize, &words, stopped, batch);
        q.plan += "where plan: " + words + "\n";
        spfreewh(whh);
        return rc;
    }
    void* io = nullptr;
    long rows = std::max(1L, bufsize / std::max(1, obslen));
    std::vector<char> iobuf(static_cast<size_t>(rows) * std::max(1, obslen));
    if ((rc = spnewrd(fid, static_cast<long>(iobuf.size()), iobuf.data(), &io)) < 0)
        return sqlfail(q, rc, -1, "the table could not be read: %s", hsstrer(rc));
    q.plan += "where: none, every row is read\n";
    rc = readbatches(io, 1, INT64_MAX, stopped, batch);
    spfreerd(io);
    return rc;
}

rctype run(void* vlib, Query& q, const WHSQL_PARTS& parts, const VRTASQLOPT* opt, VRTASQLRES** res) {
    void* fid = nullptr;
    const char* ekey = opt ? opt->ekey : nullptr;
    rctype rc = vrtaopen(vlib, parts.table, static_cast<int>(strlen(parts.table)), nullptr, 0, ekey, 0, nullptr, -1,
                         0, &fid);
    if (rc < 0) return sqlfail(q, rc, parts.from.start, "the table %s cannot be opened", parts.table);
    struct Closer {
        void* f;
        ~Closer() { vrtaclose(f); }
    } closer{fid};
    void* dfp = nullptr;
    vrtainfo(fid, VRTAINFO_FID, &dfp);
    q.fid = static_cast<DA_FID*>(dfp);
    for (int i = 0; i < q.fid->numvar; i++) {
        const DA_NAMESTR& n = q.fid->vars[i];
        q.cols.push_back(WH_PCOL{n.name, n.name_l, n.type, n.nlng, n.npos, i + 1});
    }
    volatile int* intr = opt ? opt->interrupt : nullptr;
    int nthreads = opt && opt->threads > 0 ? std::min(opt->threads, MAXTHREADS) : 2;

    // The clauses, read against the table's columns.
    if ((rc = parseselect(q, parts.select))) return rc;
    q.nvisible = static_cast<int>(q.items.size());
    std::vector<char> wire;
    if (parts.where.start >= 0) {
        q.aggok = false;
        int end = 0;
        if ((rc = expr(q, parts.where.start, &q.where, &end))) return rc;
        if (end < parts.where.end) {
            int ts, tl;
            whsqltoken(q.text, end, parts.where.end, &ts, &tl);
            if (tl) return sqlfail(q, WH_RC_SQLSYNTAX, ts, "the WHERE clause ends before %.*s", tl, q.text + ts);
        }
        XOWBUFR* chain = nullptr;
        if ((rc = xowtput(q.where, XM_THREADPOOL, &chain))) return sqlfail(q, rc, parts.where.start, "the WHERE clause has no wire form");
        wire.resize(xowlen(chain));
        xowcopy(chain, wire.data());
        xowfree(XM_THREADPOOL, chain);
        char* txt = nullptr;
        if (whsayit(q.where, &txt) == 0) q.plan += std::string("where: ") + txt + "\n";
        free(txt);
        q.aggok = true;
    }
    if (parts.groupby.start >= 0) {
        q.aggok = false;
        if ((rc = parsegroup(q, parts.groupby))) return rc;
        q.aggok = true;
    }
    if (parts.having.start >= 0) {
        int end = 0;
        if ((rc = expr(q, parts.having.start, &q.having, &end))) return rc;
        int ts, tl;
        whsqltoken(q.text, end, parts.having.end, &ts, &tl);
        if (tl) return sqlfail(q, WH_RC_SQLSYNTAX, ts, "the HAVING clause ends before %.*s", tl, q.text + ts);
    }
    if (parts.orderby.start >= 0)
        if ((rc = parseorder(q, parts.orderby))) return rc;
    bool grouped = !q.aggs.empty() || !q.groups.empty();
    if (q.having && !grouped) return sqlfail(q, WH_RC_SQLSYNTAX, parts.having.start, "HAVING needs GROUP BY or an aggregate");

    // Final row layout.
    int off = 0;
    for (Item& it : q.items) {
        // A condition (type 0) shows as 1 or 0.
        it.type = it.tree->type > 0 ? 2 : 1;
        it.len = it.type == 1 ? 8 : std::max<int>(1, it.tree->type);
        it.off = off;
        off += (it.len + 7) & ~7;
    }
    Final fin;
    fin.q = &q;
    fin.rowlen = std::max(off, 8);
    fin.env.targenv = q.fid->nlsenv;
    fin.env.dataenv = q.fid->nlsenv;
    if (q.order.empty()) fin.limit = parts.limit_n;
    bool gsorder = false;  // the group-by gives the rows in the order asked
    q.plan += "threads: " + std::to_string(nthreads) + "\n";

    if (!grouped) {
        rc = scan(q, fid, wire, nthreads, intr, [&](const char* rows, int obslen, long n) -> rctype {
            for (long i = 0; i < n; i++) {
                if (fin.limit >= 0 && fin.nrows >= fin.limit) return 0;
                if (rctype r = fin.add(rows + i * obslen)) return r;
            }
            return 0;
        });
        if (rc) return rc;
    } else {
        // The group-by request: group columns first, then the aggregates.
        std::vector<GS_ColDesc_t> cd;
        std::vector<int> groupoff;
        int goff = 0;
        // Computed values follow the row, each in its own 8-byte slot.
        int obslen = 0;
        vrtainfo(fid, VRTAINFO_OBSLEN, &obslen);
        int extlen = (obslen + 7) & ~7;
        for (Comp& c : q.comps) {
            c.at = extlen;
            extlen += (c.len + 7) & ~7;
        }
        auto coldesc = [&](const char* func, int nvar0, int len, char ntype) {
            GS_ColDesc_t c{};
            memset(c.func, ' ', 8);
            memcpy(c.func, func, strnlen(func, 8));
            c.nvar0[0] = nvar0;
            c.off = goff;
            c.len = len;
            c.ntype = ntype;
            memset(c.colsym, ' ', 32);
            if (nvar0 > 0) {
                const WH_PCOL pc = colof(q, nvar0);
                memcpy(c.colsym, pc.name, std::min(pc.namelen, 32));
            }
            cd.push_back(c);
            goff += (len + 7) & ~7;
        };
        for (int g : q.groups) {
            const WH_PCOL c = colof(q, g);
            groupoff.push_back(goff);
            coldesc("", g, c.type == 1 ? 8 : c.length, static_cast<char>(c.type));
        }
        for (Agg& a : q.aggs) {
            a.off = goff;
            coldesc(a.func, a.nvar0, a.len, a.type < 0 ? 1 : 2);
        }
        for (Item& it : q.items)
            if ((rc = matchgroups(q, &it.tree)) || (rc = bindgrouped(q, it.tree, groupoff))) return rc;
        if (q.having && ((rc = matchgroups(q, &q.having)) || (rc = bindgrouped(q, q.having, groupoff)))) return rc;
        // ORDER BY on group columns and aggregates alone is the group-by's
        // to give: in key order when they lead the group columns, else by
        // its output sort.
        std::vector<int> ordcols;
        for (auto [i, desc] : q.order) {
            const SQLOP* t = q.items[i].tree;
            int c = 0;
            if (t->code == OP_NAME && t->u.vleaf.nvar0 < 0) {
                c = static_cast<int>(q.groups.size()) - t->u.vleaf.nvar0;
            } else if (t->code == OP_NAME) {
                auto g = std::find(q.groups.begin(), q.groups.end(), t->u.vleaf.nvar0);
                if (g != q.groups.end()) c = static_cast<int>(g - q.groups.begin()) + 1;
            }
            if (!c) {
                ordcols.clear();
                break;
            }
            ordcols.push_back(desc ? -c : c);
        }
        gsorder = !ordcols.empty();
        if (gsorder) fin.limit = parts.limit_n;
        GS_MainRec_t mr{static_cast<int>(cd.size()), 0, static_cast<int>(cd.size()), goff,
                        static_cast<int>(q.groups.size()), static_cast<int>(ordcols.size()), 0};
        if (q.having) mr.flags |= GS_F_HAVING | GS_F_HAVTREE;
        // No groups, no WHERE, aggregates of plain columns: the group-by may
        // answer from the row count or from index statistics.
        bool metacand = q.groups.empty() && wire.empty() && q.comps.empty();
        if (metacand) mr.flags |= GS_F_META;
        WHGS_HANDLE* gsh = nullptr;
        char* err = nullptr;
        whgssetcache(opt && opt->memlimit > 0 ? opt->memlimit : -1);
        // With computed values the group-by reads widened rows: the table's
        // columns and then theirs.
        std::vector<DA_NAMESTR> vars;
        if (q.comps.empty()) {
            rc = whgsinit(q.fid->nlsenv, q.fid, &mr, cd.data(), q.groups.data(), ordcols.data(), q.having, nthreads,
                          &gsh, &err);
        } else {
            vars.assign(q.fid->vars, q.fid->vars + q.fid->numvar);
            for (size_t i = 0; i < q.comps.size(); i++) {
                const Comp& c = q.comps[i];
                DA_NAMESTR v{};
                v.npos = c.at;
                v.nlng = c.len;
                v.type = static_cast<int8_t>(c.type);
                v.nvar0 = q.fid->numvar + static_cast<int>(i);
                v.name = const_cast<char*>(c.text.c_str());
                v.name_l = static_cast<int16_t>(std::min<size_t>(c.text.size(), 32));
                vars.push_back(v);
            }
            mr.reclen = extlen;
            rc = whgsvtinit(q.fid->nlsenv, &mr, cd.data(), static_cast<int>(vars.size()), vars.data(),
                            q.groups.data(), ordcols.data(), q.having, nthreads, &gsh, &err);
        }
        whgssetcache(-1);
        if (rc) {
            sqlfail(q, rc, -1, "%s", err ? err : "the group-by request was refused");
            free(err);
            return rc;
        }
        struct GsFree {
            WHGS_HANDLE* g;
            ~GsFree() { whgsfree(g); }
        } gsfree{gsh};
        whgssetinterrupt(gsh, intr);
        int ism = 0;
        if (metacand) {
            whgsplanmetascan(gsh, nullptr);
            if ((rc = whgsismetascan(gsh, nullptr, q.fid, 0, &ism)) < 0)
                return sqlfail(q, rc, -1, "the group-by could not look at the indexes");
        }
        const char* meta = !ism ? "not used\n"
                           : gsh->flags & WHGS_HF_MINDEX ? "used, index statistics, no row read\n"
                                                         : "used, the row count, no row read\n";
        q.plan += "group by: " + std::to_string(q.groups.size()) + " column(s), " + std::to_string(q.aggs.size()) +
                  " aggregate(s)\nmetascan: " + meta;
        if (!ism) {
            std::vector<CompThread> cts(q.comps.empty() ? 0 : nthreads);
            for (CompThread& ct : cts)
                if ((rc = ct.init(q, extlen))) return sqlfail(q, rc, -1, "out of memory");
            if (!q.comps.empty())
                q.plan += "computed: " + std::to_string(q.comps.size()) + " value(s) per row for the group-by\n";
            int64_t numobs = 0;
            vrtainfo(fid, VRTAINFO_NUMOBS, &numobs);
            if (nthreads == 1 || numobs < nthreads) {
                rc = scan(q, fid, wire, nthreads, intr, [&](const char* rows, int rl, long n) -> rctype {
                    return feedchunk(gsh, nthreads, rows, rl, n, cts.empty() ? nullptr : cts.data());
                });
            } else {
                // Each thread reads its own share of the rows.
                std::vector<RangeScan> rs(nthreads);
                std::vector<thread_t> tids(nthreads);
                std::vector<char> started(nthreads, 0);
                volatile int stop = 0;
                for (int t = 0; t < nthreads; t++)
                    rs[t] = RangeScan{vlib, parts.table, ekey, t == 0 ? fid : nullptr, &wire, gsh,
                                      cts.empty() ? nullptr : &cts[t], t, numobs * t / nthreads + 1,
                                      numobs * (t + 1) / nthreads, intr, &stop, {}, 0};
                for (int t = 1; t < nthreads; t++)
                    started[t] = thr_create(nullptr, 0, rangethread, &rs[t], 0, &tids[t]) == 0;
                rangethread(&rs[0]);
                for (int t = 1; t < nthreads; t++) {
                    if (started[t]) thr_join(tids[t], nullptr);
                    else rangethread(&rs[t]);
                }
                if (!wire.empty()) q.plan += "where plan: " + rs[0].plan + "\n";
                else q.plan += "where: none, every row is read\n";
                for (int t = 0; t < nthreads && !rc; t++)
                    if (rs[t].rc && rs[t].rc != WH_RC_SQLSTOP) rc = rs[t].rc;
                for (int t = 0; t < nthreads && !rc; t++) rc = rs[t].rc;
            }
            if (rc) return rc;
        }
        if ((rc = whgsgetr(gsh, storegroups, &fin))) return rc;
        if (gsorder)
            q.plan += std::string("order by: the group-by, ") +
                      (gsh->flags & WHGS_HF_SORT ? "its output sort\n" : "in group key order without a sort\n");
        q.plan += "spill: " + std::to_string(gsh->spillbytes) + " bytes written; " + std::to_string(gsh->nbins) +
                  " bin(s) and tree(s) merged\n";
        char m[4096];
        whgsmsg(gsh, m, sizeof m);
        if (m[0]) q.plan += m;
    }

    // ORDER BY through the sorter.
    std::vector<char> out;
    int64_t nout = 0;
    int visible = q.nvisible ? q.items[q.nvisible - 1].off + ((q.items[q.nvisible - 1].len + 7) & ~7) : 0;
    if (!q.order.empty() && !gsorder && fin.nrows > 1) {
        SKB_KEY skb{};
        rc = skbinit(&skb, fin.env.targenv, fin.env.targenv, nullptr, SKB_MAKEKEY | SKB_DATA, fin.rowlen,
                     static_cast<int>(q.order.size()));
        for (auto [i, desc] : q.order)
            if (rc == 0) rc = skb_addcol(&skb, q.items[i].off, q.items[i].len, q.items[i].type, desc ? 1 : 0);
        if (rc == 0) rc = skb_addend(&skb, SKB_PAD4);
        SR_PARMS sp{};
        sp.skb = &skb;
        sp.interrupt = intr;
        SR_CTX* ctx = nullptr;
        if (rc == 0) rc = srsort2init(&sp, &ctx);
        std::vector<char> recs;
        long per = 4096;
        for (int64_t i = 0; rc == 0 && i < fin.nrows; i += per) {
            long n = static_cast<long>(std::min<int64_t>(per, fin.nrows - i));
            recs.assign(static_cast<size_t>(n) * skb.info.reclen, 0);
            long k = 0;
            int miss = 0;
            for (long j = 0; rc == 0 && j < n; j++)
                rc = skb.mt.makekey(&skb, fin.rows.data() + (i + j) * fin.rowlen, 0, recs.data(), &k, &miss);
            if (rc == 0) rc = srsort2addbin(ctx, recs.data(), n);
        }
        if (rc == 0) rc = srfinish(ctx);
        int64_t want = parts.limit_n >= 0 ? parts.limit_n : fin.nrows;
        while (rc == 0 && nout < want) {
            char* rec = nullptr;
            long l = srnextrec(ctx, &rec);
            if (l < 0) rc = static_cast<rctype>(l);
            if (l <= 0) break;
            out.insert(out.end(), rec + skb.info.data_offset, rec + skb.info.data_offset + visible);
            nout++;
        }
        if (ctx) {
            rctype crc = srclose(ctx);
            if (rc == 0) rc = crc;
        }
        skb_destroy(&skb);
        q.plan += "order by: the sorter, " + std::to_string(q.order.size()) + " key column(s)\n";
        if (rc) return sqlfail(q, rc, parts.orderby.start, "the sort failed");
    } else {
        int64_t want = parts.limit_n >= 0 ? std::min<int64_t>(parts.limit_n, fin.nrows) : fin.nrows;
        for (int64_t i = 0; i < want; i++)
            out.insert(out.end(), fin.rows.data() + i * fin.rowlen, fin.rows.data() + i * fin.rowlen + visible);
        nout = want;
    }
    if (intr && *intr) return WH_RC_SQLSTOP;

    auto* r = static_cast<VRTASQLRES*>(calloc(1, sizeof(VRTASQLRES)));
    if (!r) return WH_RC_NOMEM;
    r->ncols = q.nvisible;
    r->cols = static_cast<VRTASQLCOL*>(calloc(std::max(1, q.nvisible), sizeof(VRTASQLCOL)));
    r->rowlen = visible;
    r->nrows = nout;
    r->rows = static_cast<char*>(malloc(std::max<size_t>(1, out.size())));
    r->plan = strdup(q.plan.c_str());
    r->notes = strdup("");
    if (!r->cols || !r->rows || !r->plan || !r->notes) {
        vrtasqlfree(r);
        return WH_RC_NOMEM;
    }
    if (!out.empty()) memcpy(r->rows, out.data(), out.size());
    for (int i = 0; i < q.nvisible; i++) {
        VRTASQLCOL& c = r->cols[i];
        snprintf(c.name, sizeof c.name, "%s", q.items[i].name.c_str());
        c.type = q.items[i].type;
        c.length = q.items[i].len;
        c.offset = q.items[i].off;
    }
    *res = r;
    return 0;
}

}  // namespace

extern "C" VRTA_API int vrtasql(void* vlib, const char* sql, int sql_l, const VRTASQLOPT* opt, VRTASQLRES** res,
                                char* msg, int msglen) {
    if (msg && msglen > 0) msg[0] = 0;
    if (!vlib || !sql || !res) return WH_RC_NULLARG;
    *res = nullptr;
    if (sql_l < 0) sql_l = static_cast<int>(strlen(sql));
    Query q;
    q.text = sql;
    q.len = sql_l;
    WHSQL_PARTS parts;
    rctype rc = whsqlsplit(sql, sql_l, &parts, &q.err);
    if (rc == 0) rc = run(vlib, q, parts, opt, res);
    if (rc && msg && msglen > 0) {
        const char* t = q.err.text[0] ? q.err.text : hsstrer(rc);
        snprintf(msg, msglen, "%s", t);
    }
    return rc;
}

extern "C" VRTA_API void vrtasqlfree(VRTASQLRES* res) {
    if (!res) return;
    free(res->cols);
    free(res->rows);
    free(res->plan);
    free(res->notes);
    free(res);
}

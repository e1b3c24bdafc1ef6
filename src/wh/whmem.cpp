// Node memory, handles and the child utilities of the WHERE tree.
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sfnc/xf.h"
#include "ssup/thr.h"
#include "ix/ixfe.h"
#include "wh/wh.h"
#include "wh/wheval.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define WH_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define WH_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define WH_POISON(p, n) ((void)(p), (void)(n))
#define WH_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace vrta {

namespace {

// A node and its planning record are one allocation.
struct WH_NODEBLK {
    SQLOP op;
    WH_NODE wn;
};
constexpr int WH_CHUNKNODES = 20;
struct WH_CHUNK {
    WH_CHUNK* link;
    WH_NODEBLK nodes[WH_CHUNKNODES];
};

// The lock exists from load on, so a node can be had before any start call;
// wh_initmem and wh_termmem only manage what it guards.
mutex_t node_lock = PTHREAD_MUTEX_INITIALIZER;
SQLOP* free_nodes = nullptr;
WH_CHUNK* chunk_list = nullptr;

// A node on the free list keeps only its link readable, so that a use after
// free_node shows under the address sanitizer.
void poisonfree(SQLOP* n) {
    auto* blk = reinterpret_cast<char*>(n);
    size_t at = offsetof(SQLOP, next);
    WH_POISON(blk, at);
    WH_POISON(blk + at + sizeof(SQLOP*), sizeof(WH_NODEBLK) - at - sizeof(SQLOP*));
}

bool textinnode(const SQLOP* n, const char* c) {
    auto* lo = reinterpret_cast<const char*>(n);
    return c >= lo && c < lo + sizeof(WH_NODEBLK);
}

}  // namespace

int wh_initmem() {
    MutexGuard g(&node_lock);
    return 0;
}

int wh_termmem() {
    MutexGuard g(&node_lock);
    while (chunk_list) {
        WH_CHUNK* c = chunk_list;
        chunk_list = c->link;
        WH_UNPOISON(c, sizeof *c);
        std::free(c);
    }
    free_nodes = nullptr;
    return 0;
}

rctype get_handle(WH_HANDLE** ret) {
    if (!ret) return WH_RC_NULLARG;
    *ret = static_cast<WH_HANDLE*>(std::calloc(1, sizeof(WH_HANDLE)));
    return *ret ? 0 : WH_RC_NOMEM;
}

rctype free_handle(WH_HANDLE* wh) {
    if (!wh) return WH_RC_NULLARG;
    std::free(wh);
    return 0;
}

rctype get_node(SQLOP** ret) {
    if (!ret) return WH_RC_NULLARG;
    *ret = nullptr;
    SQLOP* n;
    {
        MutexGuard g(&node_lock);
        if (!free_nodes) {
            auto* c = static_cast<WH_CHUNK*>(std::malloc(sizeof(WH_CHUNK)));
            if (!c) return WH_RC_NOMEM;
            c->link = chunk_list;
            chunk_list = c;
            for (int i = 0; i < WH_CHUNKNODES; i++) {
                c->nodes[i].op.next = i + 1 < WH_CHUNKNODES ? &c->nodes[i + 1].op : nullptr;
                poisonfree(&c->nodes[i].op);
            }
            free_nodes = &c->nodes[0].op;
        }
        n = free_nodes;
        free_nodes = n->next;
    }
    auto* blk = reinterpret_cast<WH_NODEBLK*>(n);
    WH_UNPOISON(blk, sizeof *blk);
    std::memset(blk, 0, sizeof *blk);
    n->nodeinfo = &blk->wn;
    *ret = n;
    return 0;
}

rctype free_node(SQLOP* node, int* rflags) {
    if (!node) return WH_RC_BADTREE;
    // Scratch of evaluation: the CONC buffer, a compiled LIKE pattern.
    if (node->tmpptr) {
        if (node->code == OP_CONC) std::free(node->tmpptr);
        else if (node->code == OP_LIKE || node->code == OP_NLKE) whlikefree(&node->tmpptr);
    }
    if (WH_NODE* wn = node->nodeinfo) {
        WH_IDX& x = wn->idx;
        std::free(x.keystrs);
        std::free(x.key.nodes);
        if (x.key.tsm) {
            for (int i = 0; i < x.key.numthreads; i++) {
                std::free(x.key.tsm[i].vds);
                std::free(x.key.tsm[i].keybuf);
                std::free(x.key.tsm[i].setptrs);
            }
            std::free(x.key.tsm);
        }
        // Pre-evaluation is not built: nothing may have left a result.
        if (x.preevalpvt) wh_assertion_failure(__FILE__, __LINE__);
        if ((x.flags & WH_IF_OWNSIXH) && x.ixh) {
            rctype crc = ixclose(x.ixh);
            if (crc < 0) wh_trap_error("free_node", __LINE__, crc);
            x.ixh = nullptr;
        }
        std::free(wn->normkeypart);
    }
    switch (node->code) {
    case OP_LITC:
    case OP_LABL:
        if (node->u.cleaf.c && !textinnode(node, node->u.cleaf.c) && node->u.cleaf.c != node->tmpptr)
            std::free(node->u.cleaf.c);
        break;
    case OP_SETN:
    case OP_SETC:
        std::free(node->u.setleaf.p);
        break;
    case OP_FUNC: {
        SQLOP_FUNC& f = node->u.func;
        if (auto* par = static_cast<FNCPAR*>(f.par)) {
            // A stream seeded from the clock cannot be drawn again: the
            // caller learns that its rows came from one.
            if (f.namelen == 6 && std::memcmp(f.name, "RANUNI", 6) == 0 && par->fstate.fflags < 0 && rflags)
                *rflags |= 1;
            for (long i = 1; i <= par->par[0].loc.n; i++) std::free(par->par[i].loc.p);
            xfpfree(par);
            std::free(par);
        }
        std::free(f.str);
        break;
    }
    default:
        break;
    }
    MutexGuard g(&node_lock);
    node->next = free_nodes;
    free_nodes = node;
    poisonfree(node);
    return 0;
}

namespace {

void freekids(SQLOP* n, int* rflags) {
    if (n->code < OP_FIRSTOP) return;
    int narg = n->u.node.narg;
    for (int i = 0; i < narg; i++) {
        SQLOP* c = get_child(n, i);
        if (c) free_tree(&c, rflags);
    }
    // Overflow nodes hold children only; their own narg is not kept.
    SQLOP* e = n->u.node.ext;
    while (e) {
        SQLOP* nx = e->u.node.ext;
        free_node(e, rflags);
        e = nx;
    }
}

}  // namespace

rctype free_tree(SQLOP** tree, int* rflags) {
    if (!tree) return WH_RC_NULLARG;
    SQLOP* n = *tree;
    if (!n) return 0;
    freekids(n, rflags);
    *tree = nullptr;
    return free_node(n, rflags);
}

sqlop_t* get_child(const SQLOP* parent, int i) {
    if (!parent || i < 0) return nullptr;
    if (i < WH_NARGS) return parent->u.node.arg[i];
    const SQLOP* e = parent;
    for (int k = i / WH_NARGS; k > 0; k--) {
        e = e->u.node.ext;
        if (!e) return nullptr;
    }
    return e->u.node.arg[i % WH_NARGS];
}

rctype set_child(SQLOP* parent, int i, SQLOP* child) {
    if (!parent || i < 0) return WH_RC_NULLARG;
    int narg = parent->u.node.narg;
    if (i > narg) return WH_RC_BADTREE;
    SQLOP* e = parent;
    for (int k = i / WH_NARGS; k > 0; k--) {
        if (!e->u.node.ext) {
            // Only an append may reach past the last overflow node.
            if (i != narg) return WH_RC_BADTREE;
            SQLOP* x;
            if (rctype rc = get_node(&x)) return rc;
            e->u.node.ext = x;
        }
        e = e->u.node.ext;
    }
    e->u.node.arg[i % WH_NARGS] = child;
    if (i == narg) parent->u.node.narg = narg + 1;
    return 0;
}

rctype wh_setlitc(SQLOP* node, const char* text, int len) {
    if (!node || len < 0 || (len > 0 && !text)) return WH_RC_NULLARG;
    SQLCLEAF& c = node->u.cleaf;
    if (c.c && c.c != c.string && c.c != node->tmpptr) std::free(c.c);
    if (len < WH_LITC_INNODE) {
        c.c = c.string;
    } else {
        c.c = static_cast<char*>(std::malloc(static_cast<size_t>(len) + 1));
        if (!c.c) {
            c.leng = 0;
            return WH_RC_NOMEM;
        }
    }
    if (len > 0) std::memcpy(c.c, text, len);
    c.c[len] = 0;
    c.leng = len;
    return 0;
}

void wh_trap_error(const char* module, int lno, rctype errc) {
    hsprint("WH-subsystem error trap in %s at %d: Error=%s\n", module, lno, hsstrer(errc));
}

void wh_assertion_failure(const char* file, int line) {
    hsprint("WH Assertion failed in file %s, line %d\n", file, line);
}

}  // namespace vrta

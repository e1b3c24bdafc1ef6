// The WHERE language behind the module's exported calls: the parser and the
// reader of the WHERE layer, the writer of the engine front end.
#include "vrta/vrtawh.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "eng/hpowset.h"
#include "wh/wh.h"

using namespace vrta;

namespace {

void putmsg(char* msg, int msglen, const char* text) {
    if (msg && msglen > 0) std::snprintf(msg, msglen, "%s", text);
}

}  // namespace

extern "C" VRTA_API int vrtawhparse(const char* clause, int clause_l, const VRTAWHCOL* cols, int ncols,
                                    void** wire, int* wire_l, char* msg, int msglen) {
    if (msg && msglen > 0) msg[0] = 0;
    if (!wire || !wire_l || !clause || ncols < 0 || (ncols > 0 && !cols)) return WH_RC_NULLARG;
    *wire = nullptr;
    *wire_l = 0;
    if (clause_l < 0) clause_l = static_cast<int>(std::strlen(clause));
    std::vector<WH_PCOL> pc(ncols);
    for (int i = 0; i < ncols; i++) {
        const VRTAWHCOL& c = cols[i];
        if (!c.name || (c.type != 1 && c.type != 2) || c.length < 1) return WH_RC_NULLARG;
        pc[i] = WH_PCOL{c.name, c.name_l < 0 ? static_cast<int>(std::strlen(c.name)) : c.name_l, c.type, c.length,
                        c.pos, i + 1};
    }
    WH_PERR err;
    SQLOP* tree = nullptr;
    rctype rc = whparse(clause, clause_l, pc.data(), ncols, &tree, &err);
    if (rc) {
        putmsg(msg, msglen, err.text);
        return rc;
    }
    XOWBUFR* chain = nullptr;
    rc = xowtput(tree, XM_THREADPOOL, &chain);
    free_tree(&tree, nullptr);
    if (rc) {
        putmsg(msg, msglen, "the clause has no wire form");
        return rc;
    }
    long n = xowlen(chain);
    void* bytes = std::malloc(n);
    if (bytes) xowcopy(chain, bytes);
    xowfree(XM_THREADPOOL, chain);
    if (!bytes) return WH_RC_NOMEM;
    *wire = bytes;
    *wire_l = static_cast<int>(n);
    return 0;
}

extern "C" VRTA_API int vrtawhshow(const void* wire, int wire_l, int what, char** text) {
    if (!text || !wire || wire_l < 0 || (what != VRTAWH_TEXT && what != VRTAWH_TREE)) return WH_RC_NULLARG;
    *text = nullptr;
    if (what == VRTAWH_TEXT) return whsayflattree(wire, wire_l, text);
    SQLOP* tree = nullptr;
    rctype rc = wh_getatree(wire, wire_l, &tree);
    if (rc) return rc;
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    if (!fp) {
        free_tree(&tree, nullptr);
        return WH_RC_NOMEM;
    }
    tree_print(nullptr, tree, fp);
    bool bad = std::ferror(fp) != 0;
    std::fclose(fp);
    free_tree(&tree, nullptr);
    if (bad || !buf) {
        std::free(buf);
        return WH_RC_NOMEM;
    }
    *text = buf;
    return 0;
}

extern "C" VRTA_API void vrtawhfree(void* p) { std::free(p); }

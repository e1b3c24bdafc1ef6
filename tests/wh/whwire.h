// Hand-made wire forms of WHERE clauses and small trees for the WHERE tests.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "wh/wh.h"

namespace whtest {

using Bytes = std::vector<uint8_t>;

// Bytes appended in wire order: big-endian words, raw text.
struct Wire {
    Bytes b;
    Wire& w(int32_t v) {
        for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(static_cast<uint32_t>(v) >> s));
        return *this;
    }
    Wire& raw(const void* p, size_t n) {
        b.insert(b.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
        return *this;
    }
    Wire& s(const std::string& t) { return raw(t.data(), t.size()); }
    Wire& z(const std::string& t) { return s(t).raw("", 1); }
    // A head: version, the two tags.
    Wire& head(const char* version = "0006", const char* mach = "SOL-x64 ", const char* sys = "X64     ") {
        return z(version).s(std::string(mach, 8)).s(std::string(sys, 8));
    }
    // The total in front: the length of everything that follows it.
    Bytes framed() const {
        Wire f;
        f.w(static_cast<int32_t>(b.size())).raw(b.data(), b.size());
        return f.b;
    }
    // Leaves and operator heads of form 0006.
    Wire& name(const std::string& n, int32_t type, int32_t leng, int32_t nvar0) {
        return w(vrta::OP_NAME).w(0).w(type).w(static_cast<int32_t>(n.size())).s(n).w(type < 0 ? 1 : 2).w(leng).w(nvar0);
    }
    Wire& litc(const std::string& t, int32_t code = vrta::OP_LITC) {
        return w(code).w(static_cast<int32_t>(t.size()) + 1).w(static_cast<int32_t>(t.size())).z(t);
    }
    // An IBM form of a double small enough to hand-code: 1.0 and 100.0.
    Wire& litn(const uint8_t ibm[8], double v, int32_t datetype = 0) {
        w(vrta::OP_LITN).w(0).w(-8).raw(ibm, 8);
        return raw(&v, 8).w(datetype);
    }
    Wire& op(int32_t code, int32_t narg, int32_t type = 0) { return w(code).w(narg).w(type); }
};

// A whole clause of form 0006 around a tree's bytes.
inline Bytes clause(const Wire& tree) {
    Wire c;
    c.head().raw(tree.b.data(), tree.b.size()).z("0006");
    return c.framed();
}

// Nodes made by hand, owned by the caller.
inline vrta::SQLOP* node(short code, short type = 0) {
    vrta::SQLOP* n = nullptr;
    if (vrta::get_node(&n) != 0) return nullptr;
    n->code = code;
    n->type = type;
    return n;
}
inline vrta::SQLOP* op(short code, std::initializer_list<vrta::SQLOP*> kids, short type = 0) {
    vrta::SQLOP* n = node(code, type);
    int i = 0;
    for (vrta::SQLOP* k : kids) vrta::set_child(n, i++, k);
    return n;
}
inline vrta::SQLOP* namen(const char* name, short type = -8, int nvar0 = 1) {
    vrta::SQLOP* n = node(vrta::OP_NAME, type);
    n->u.vleaf.namelen = static_cast<short>(std::strlen(name));
    std::memcpy(n->u.vleaf.name, name, n->u.vleaf.namelen);
    n->u.vleaf.leng = static_cast<short>(type < 0 ? -type : type);
    n->u.vleaf.nvar0 = nvar0;
    return n;
}
inline vrta::SQLOP* litn(double v) {
    vrta::SQLOP* n = node(vrta::OP_LITN, -8);
    n->u.nleaf.nbr = v;
    return n;
}
inline vrta::SQLOP* litc(const std::string& t) {
    vrta::SQLOP* n = node(vrta::OP_LITC, static_cast<short>(t.size()));
    vrta::wh_setlitc(n, t.data(), static_cast<int>(t.size()));
    return n;
}
inline vrta::SQLOP* funcn(const char* name, short type = 0) {
    vrta::SQLOP* n = node(vrta::OP_FUNC, type);
    n->u.func.namelen = static_cast<short>(std::strlen(name));
    std::memcpy(n->u.func.name, name, n->u.func.namelen);
    return n;
}
inline vrta::SQLOP* fmtn(const char* name, short wid, short ndec) {
    vrta::SQLOP* n = node(vrta::OP_FMT);
    n->u.fmt.namelen = static_cast<short>(std::strlen(name));
    std::memcpy(n->u.fmt.name, name, n->u.fmt.namelen);
    n->u.fmt.wid = wid;
    n->u.fmt.ndec = ndec;
    return n;
}
inline std::string say(const vrta::SQLOP* t) {
    char* s = nullptr;
    if (vrta::whsayit(t, &s) != 0) return "<failed>";
    std::string r = s;
    std::free(s);
    return r;
}

}  // namespace whtest

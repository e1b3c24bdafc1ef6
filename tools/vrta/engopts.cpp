#include "engopts.h"

#include <algorithm>
#include <cstdio>

#include "apiload.h"
#include "vrta.h"
#include "vrta/vrtaeng.h"

namespace vrtacli {

namespace {

using yhelpar_t = int (*)(void*, void*, void*, int*, void**);
using yoepars_t = int (*)(void*, int, void*, int*, XOPNSTR*);

// The engine as a host holds it: its vector and id, and the track calls.
struct Engine {
    yhelpar_t yhelpar = nullptr;
    yoepars_t yoepars = nullptr;
    void* engid = nullptr;
    const HPD_ENGTBL* tbl = nullptr;
    decltype(&::ytrakcp) ytrakcp = nullptr;
    decltype(&::yttpshi) yttpshi = nullptr;
    decltype(&::yttpshb) yttpshb = nullptr;
    decltype(&::yttpshe) yttpshe = nullptr;
    decltype(&::yttknx) yttknx = nullptr;
    decltype(&::yttkpk) yttkpk = nullptr;
    decltype(&::ytrakdp) ytrakdp = nullptr;
};

const Engine* engine() {
    static const Engine* e = [] () -> const Engine* {
        ModuleEntries m;
        if (!m.ok) return nullptr;
        auto* eng = new Engine;
        int (*vrtaeng)(int, void**) = nullptr;
        m.get(vrtaeng, "vrtaeng");
        m.get(eng->ytrakcp, "ytrakcp");
        m.get(eng->yttpshi, "yttpshi");
        m.get(eng->yttpshb, "yttpshb");
        m.get(eng->yttpshe, "yttpshe");
        m.get(eng->yttknx, "yttknx");
        m.get(eng->yttkpk, "yttkpk");
        m.get(eng->ytrakdp, "ytrakdp");
        bool ok = m.ok;
        if (ok) {
            int rc = -1;
            void* argv[5] = {nullptr, nullptr, nullptr, &rc, nullptr};
            if (vrtaeng(5, argv) != 0) {
                fail("the engine did not start: code " + std::to_string(rc));
                ok = false;
            } else {
                auto* tbl = static_cast<HPD_ENGTBL*>(argv[VRTAENG_ENGTBL]);
                eng->yhelpar = reinterpret_cast<yhelpar_t>(tbl->xhen.yhelpar);
                eng->yoepars = reinterpret_cast<yoepars_t>(tbl->xhen.yoepars);
                eng->engid = argv[VRTAENG_ID];
                eng->tbl = tbl;
            }
        }
        if (!ok) {
            delete eng;
            return nullptr;
        }
        return eng;
    }();
    return e;
}

// The module's text of a code, its "%s" filled with the token.
std::string codeText(int rc, const std::string& token) {
    const DirectApi* api = directApi();
    std::string t = api ? api->text(rc) : "code " + std::to_string(rc);
    if (size_t at = t.find("%s"); at != std::string::npos) t.replace(at, 2, token);
    return t;
}

}  // namespace

int engineOptions(const std::string& cmd, const std::string& text, OptKind kind, EngineOptions* out) {
    const Engine* e = engine();
    if (!e) return 1;
    void* track = e->ytrakcp();
    if (!track) return fail(cmd + ": out of memory");
    struct Drop {
        const Engine* e;
        void* t;
        ~Drop() { e->ytrakdp(t); }
    } drop{e, track};
    if (e->yttpshi(track) != 0 || e->yttpshb(track, text.data(), static_cast<int>(text.size())) != 0 ||
        e->yttpshe(track) != 0)
        return fail(cmd + ": out of memory");
    XOPNSTR open{};
    open.peng_op = out->table;
    void* bag = out->domain;
    // A host's loop: one option a call, on by the count the parser gives.
    for (;;) {
        YTTOKEN* y = nullptr;
        e->yttkpk(track, 0, &y);
        if (!y) return fail(cmd + ": out of memory");
        if (y->type == 1) break;
        const std::string key = y->text;
        int scanned = 0;
        int rc = 0x80040066;
        if (kind != OptKind::Domain) rc = e->yoepars(e->engid, 0, track, &scanned, &open);
        if (kind != OptKind::Table && (static_cast<unsigned>(rc) & 0xffffffu) == 0x40066)
            rc = e->yhelpar(e->engid, nullptr, track, &scanned, &bag);
        out->table = static_cast<vrta::HPOOPT*>(open.peng_op);
        out->domain = static_cast<vrta::HPDOPT*>(bag);
        if (rc != 0) {
            // Point at the token the parser flagged, or at the keyword.
            YTTOKEN* at = nullptr;
            for (int i = 0; i <= scanned + 1 && !at; ++i) {
                YTTOKEN* t = nullptr;
                e->yttkpk(track, i, &t);
                if (t && (t->flags & 1)) at = t;
            }
            if (!at) at = y;
            std::fprintf(stderr, "vrta: %s: in the options:\n  %s\n  %s%s\n  %s\n", cmd.c_str(), text.c_str(),
                         std::string(static_cast<size_t>(at->pos), ' ').c_str(),
                         std::string(std::max(1, at->len), '^').c_str(), codeText(rc, at->text).c_str());
            return 2;
        }
        out->keys.push_back(key);
        for (int i = 0; i < scanned; ++i) e->yttknx(track, 0, &y);
    }
    return 0;
}

const HPD_ENGTBL* engineVector(void** engid) {
    const Engine* e = engine();
    if (!e) return nullptr;
    *engid = e->engid;
    return e->tbl;
}

int onlyOptions(const std::string& cmd, const EngineOptions& o, const std::vector<std::string>& allowed) {
    for (const auto& k : o.keys)
        if (std::find(allowed.begin(), allowed.end(), k) == allowed.end())
            return fail(cmd + ": the option " + k + " has no use here", 2);
    return 0;
}

}  // namespace vrtacli

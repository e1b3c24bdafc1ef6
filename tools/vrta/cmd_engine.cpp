// vrta engine: loads the module the way a host does, calls vrtaeng, and shows
// what it handed back.
#include <dlfcn.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "apiload.h"
#include "vrta.h"
#include "vrta/vrtaeng.h"

namespace vrtacli {
namespace {

struct Slot {
    const char* name;
    size_t off;
};

#define S(t, n) {#n, offsetof(t, n)},
const Slot xhslots[] = {
    S(XHENTRY, yheterm) S(XHENTRY, yhettrm) S(XHENTRY, yhepurg) S(XHENTRY, yhelasg) S(XHENTRY, yheldas)
    S(XHENTRY, ycetrnc) S(XHENTRY, yhelini) S(XHENTRY, yhelpar) S(XHENTRY, yhelpfr) S(XHENTRY, yhelxsp)
    S(XHENTRY, yhelock) S(XHENTRY, ydedel) S(XHENTRY, ydernm) S(XHENTRY, ydedopn) S(XHENTRY, ydedrd)
    S(XHENTRY, ydedcls) S(XHENTRY, ydexist) S(XHENTRY, ylemany) S(XHENTRY, yoeopen) S(XHENTRY, yoeclos)
    S(XHENTRY, yoeropn) S(XHENTRY, yoepars) S(XHENTRY, yoepfr) S(XHENTRY, yoefix) S(XHENTRY, dummy3)
    S(XHENTRY, yveprji) S(XHENTRY, yveprjl) S(XHENTRY, yveprjd) S(XHENTRY, yveprje) S(XHENTRY, yveprjf)
    S(XHENTRY, yveallv) S(XHENTRY, yvedefv) S(XHENTRY, ycenotd) S(XHENTRY, yvenamu) S(XHENTRY, yoeaddl)
    S(XHENTRY, yoeinfo) S(XHENTRY, yoereca) S(XHENTRY, yoeload) S(XHENTRY, yoegetn) S(XHENTRY, yoegetr)
    S(XHENTRY, yoeadd) S(XHENTRY, yoeupd) S(XHENTRY, yoedel) S(XHENTRY, yoenote) S(XHENTRY, yoepnt)
    S(XHENTRY, yoen2rd) S(XHENTRY, yoerd2n) S(XHENTRY, yoeforc) S(XHENTRY, yoewset) S(XHENTRY, yoewpsh)
    S(XHENTRY, yoewpop) S(XHENTRY, yhedbug) S(XHENTRY, yoeordr) S(XHENTRY, yoeunlk) S(XHENTRY, yceopen)
    S(XHENTRY, yceclos) S(XHENTRY, yceropn) S(XHENTRY, yceread) S(XHENTRY, ycewrit) S(XHENTRY, ycepnt)
    S(XHENTRY, ycenote) S(XHENTRY, yceforc) S(XHENTRY, ycepwmd) S(XHENTRY, yiedef) S(XHENTRY, yiedrop)
    S(XHENTRY, yieobtn) S(XHENTRY, yiestat) S(XHENTRY, yieset) S(XHENTRY, yiepnt) S(XHENTRY, yieget)
    S(XHENTRY, ycepntd) S(XHENTRY, yleopen) S(XHENTRY, yleclos) S(XHENTRY, ylemopn) S(XHENTRY, ylemcls)
    S(XHENTRY, ylemrd) S(XHENTRY, ylemwt) S(XHENTRY, yleterm) S(XHENTRY, yledopn) S(XHENTRY, yledcls)
    S(XHENTRY, yledrd) S(XHENTRY, yledlst) S(XHENTRY, yledpnt) S(XHENTRY, ylednt) S(XHENTRY, ylemnt)
    S(XHENTRY, ylempt) S(XHENTRY, yleminf) S(XHENTRY, yleinf) S(XHENTRY, ylemdel) S(XHENTRY, ylemren)
    S(XHENTRY, ylemset) S(XHENTRY, ylemops) S(XHENTRY, ylemfd) S(XHENTRY, ylemopg) S(XHENTRY, yledinf)
    S(XHENTRY, ylemskp) S(XHENTRY, yleals) S(XHENTRY, ylename) S(XHENTRY, ylemdtm) S(XHENTRY, ylemcop)
    S(XHENTRY, yhelins) S(XHENTRY, yhelinr) S(XHENTRY, yoeinfs) S(XHENTRY, yoeinfr) S(XHENTRY, yceinfs)
    S(XHENTRY, yceinfr) S(XHENTRY, ylepurg) S(XHENTRY, yledeas) S(XHENTRY, ylemst) S(XHENTRY, engtest)
    S(XHENTRY, ylefix) S(XHENTRY, yleinfs) S(XHENTRY, yleinfr) S(XHENTRY, yoewho) S(XHENTRY, yleochk)
    S(XHENTRY, ycelock) S(XHENTRY, yoesgrp) S(XHENTRY, yoesget) S(XHENTRY, yosthcnt) S(XHENTRY, yhedlasg)
    S(XHENTRY, yoekeep)
};
const Slot opslots[] = {
    S(HPDENT, hpeopen) S(HPDENT, hpeclos) S(HPDENT, hpesacl) S(HPDENT, hpelacl) S(HPDENT, hpeaacl)
    S(HPDENT, hpemacl) S(HPDENT, hpeuacl) S(HPDENT, hpedacl) S(HPDENT, hpepopr) S(HPDENT, hpepcls)
    S(HPDENT, hpeplba) S(HPDENT, hpelusr) S(HPDENT, hpeplbl) S(HPDENT, hpeplbd) S(HPDENT, hpeplbm)
    S(HPDENT, hpeplbc) S(HPDENT, hpepdba) S(HPDENT, hpepdbd) S(HPDENT, hpepdbl) S(HPDENT, hpesys)
    S(HPDENT, hperopr) S(HPDENT, hperusr) S(HPDENT, hpercan) S(HPDENT, hperlck)
};
#undef S
static_assert(sizeof xhslots / sizeof xhslots[0] == VRTA_XHENTRY_SLOTS);
static_assert(sizeof opslots / sizeof opslots[0] == VRTA_HPDENT_SLOTS);

// The header every engine's id starts with.
struct DbiHeader {
    char eng_name[8];
    char release[4];
};

void listTable(const char* title, const Slot* slots, int n, const void* base, bool all) {
    int filled = 0;
    for (int i = 0; i < n; ++i) {
        u_xgfptr p;
        std::memcpy(&p, static_cast<const char*>(base) + slots[i].off, sizeof p);
        filled += p != nullptr;
    }
    std::printf("\n%s: %d slots, %d filled, %d empty\n", title, n, filled, n - filled);
    for (int i = 0; i < n; ++i) {
        u_xgfptr p;
        std::memcpy(&p, static_cast<const char*>(base) + slots[i].off, sizeof p);
        if (all)
            std::printf("  %3d  %-9s %s\n", i, slots[i].name, p ? "filled" : "-");
        else if (!p)
            std::printf("  %3d  %-9s empty\n", i, slots[i].name);
    }
}

int run(const std::vector<std::string>& args) {
    bool all = false;
    for (const auto& a : args) {
        if (a == "--all") all = true;
        else return fail("engine: unknown argument '" + a + "' (try --help)", 2);
    }
    std::string path;
    void* h = loadModule(&path);
    if (!h) return 1;
    auto entry = reinterpret_cast<int (*)(int, void**)>(dlsym(h, "vrtaeng"));
    if (!entry) return fail("the module " + path + " has no entry vrtaeng");

    int rc = -1;
    void* argv[5] = {nullptr, nullptr, nullptr, &rc, nullptr};
    int ret = entry(5, argv);
    if (ret != 0 || rc != 0) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "vrtaeng failed: rc=0x%08x", static_cast<unsigned>(rc));
        return fail(buf);
    }
    auto* tbl = static_cast<const HPD_ENGTBL*>(argv[VRTAENG_ENGTBL]);
    auto* attr = static_cast<const XHEATTR*>(argv[VRTAENG_ATTR]);
    auto* hdr = static_cast<const DbiHeader*>(argv[VRTAENG_ID]);

    std::printf("module:  %s\n", path.c_str());
    std::printf("engine:  \"%.8s\"\nrelease: \"%.4s\"\n", hdr->eng_name, hdr->release);
    std::printf("\nattribute table:\n");
    const struct {
        const char* n;
        int v;
    } at[] = {{"file_acc", attr->file_acc},   {"rec_acc", attr->rec_acc},     {"key_acc", attr->key_acc},
              {"byte_acc", attr->byte_acc},   {"acc_ordr", attr->acc_ordr},   {"hdr_acc", attr->hdr_acc},
              {"dict_acc", attr->dict_acc},   {"dta_typ", attr->dta_typ},     {"concur", attr->concur},
              {"integrity", attr->integrity}, {"authoriz", attr->authoriz},   {"dat_modl", attr->dat_modl},
              {"rel_op", attr->rel_op},       {"max_physname", attr->max_physname}, {"dir_acc", attr->dir_acc},
              {"pars_exit", attr->pars_exit}, {"xl_acc", attr->xl_acc},       {"loading", attr->loading},
              {"options", attr->options},     {"encoding_cei", attr->encoding_cei}, {"growth", attr->growth}};
    for (const auto& a : at) std::printf("  %-13s %d\n", a.n, a.v);
    std::printf("  %-13s \"%.32s\"\n", "locale", attr->locale);

    listTable("generic entry table XHENTRY", xhslots, VRTA_XHENTRY_SLOTS, &tbl->xhen, all);
    listTable("operator entry table HPDENT", opslots, VRTA_HPDENT_SLOTS, &tbl->hpdtbl, all);

    // End the engine id through its own slot, as a host does.
    int trc = reinterpret_cast<int (*)(void*)>(tbl->xhen.yheterm)(argv[VRTAENG_ID]);
    if (trc != 0) return fail("hpdterm failed");
    return 0;
}

Register reg({"engine", "load the module, call vrtaeng, show the engine and its vector",
              "usage: vrta engine [--all]\n"
              "\n"
              "Loads libvrta.so with dlopen as a host does (VRTA_LIB names another file;\n"
              "otherwise the one next to this program), calls vrtaeng, and shows the\n"
              "engine's name and release, the attribute table, and the slots of the\n"
              "engine vector that are empty. The engine id is ended through hpdterm.\n"
              "\n"
              "  --all   list every slot of both tables, filled or not\n",
              run});

}  // namespace
}  // namespace vrtacli

// The table of per-layer control blocks and the thread's view of it.
#include <cstdlib>
#include <cstring>
#include "hs/hs.h"
#include "hs/hsgcb.h"
#include "ssup/vv.h"
#include "ssup/vvlayer.h"
#include "ssup/xmint.h"

namespace vrta {

namespace {
VVGCB vvgcb;

bool badslot(int which) { return which < 0 || which >= VV_NSLOTS; }
}  // namespace

VVGCB* vvgcbp() { return &vvgcb; }

VVLCB* vvlcb() {
    if (!vvgcb.lcbkey) return nullptr;
    void* v = nullptr;
    thr_getspecific(vvgcb.lcbkey, &v);
    return static_cast<VVLCB*>(v);
}

void* vvgvgcb(int which) {
    if (badslot(which)) {
        hsprint("vvgvgcb: Index too big: %d\n", which);
        exit(-1);
    }
    return vvgcb.gcb[which];
}

void vvsvgcb(int which, void* gcbptr) {
    if (badslot(which)) {
        hsprint("vvsvgcb: Index too big: %d\n", which);
        exit(-1);
    }
    vvgcb.gcb[which] = gcbptr;
}

// Unlike vvgvgcb, a bad index is no reason to stop here: callers probe with it.
void* vvgvlcb(int which) {
    if (badslot(which)) return nullptr;
    VVLCB* l = vvlcb();
    return l ? l->gcb[which] : vvgcb.gcb[which];
}

void vvsvlcb(int which, void* gcbptr) {
    if (badslot(which)) {
        hsprint("vvsvgcb: Index too big: %d\n", which);
        exit(-1);
    }
    VVLCB* l = vvlcb();
    if (l) l->gcb[which] = gcbptr;
    else vvgcb.gcb[which] = gcbptr;
}

void vvimport(const void* arg) { memcpy(&vvgcb, arg, sizeof(VVGCB)); }

int vvinit() {
    memset(&vvgcb, 0, sizeof(vvgcb));
    memcpy(vvgcb.eye, "VGCB", 4);
    if (xhgblinit) {
        if (rctype rc = xhgblinit()) {
            const char* t = hsstrer(rc);
            hsprint("Unable to initialize xhgblinit: rc=%s\n", t ? t : "");
            return -1;
        }
    }
    struct Step {
        void* (*init)();
        int slot;
        const char* fail;
    };
    // Layers that are not built into the module read as null and are skipped.
    const Step steps[] = {
        {xhinit, VV_SLOT_XH, "Unable to initialize xhinit()\n"},
        {xpinit, VV_SLOT_XP, "Unable to initialize xpinit()\n"},
        {xkinit, VV_SLOT_XK, "Unable to initialize xkinit()\n"},
        {wginit, VV_SLOT_WG, "Unable to initialize xginit()\n"},
        {xxinit, VV_SLOT_XX, "Unable to initialize xxinit()\n"},
        {xfinit, VV_SLOT_XF, "Unable to initialize xfinit()\n"},
    };
    for (const Step& s : steps) {
        if (!s.init) continue;
        void* b = s.init();
        if (!b) {
            hsprint("%s", s.fail);
            return -1;
        }
        vvgcb.gcb[s.slot] = b;
    }
    if (int rc = hsmkkey(&vvgcb.lcbkey, vvstlcb)) {
        hsprint("Unable to create key, rc = %d", rc);
        return -1;
    }
    return 0;
}

int vvterm() {
    struct Step {
        void (*term)(void*);
        int slot;
    };
    const Step before[] = {{xfterm, VV_SLOT_XF}, {xxterm, VV_SLOT_XX}, {wgterm, VV_SLOT_WG}, {xhterm, VV_SLOT_XH}};
    const Step after[] = {{xpterm, VV_SLOT_XP}, {xkterm, VV_SLOT_XK}};
    auto run = [](const Step& s) {
        if (!vvgcb.gcb[s.slot]) return;
        if (s.term) s.term(vvgcb.gcb[s.slot]);
        vvgcb.gcb[s.slot] = nullptr;
    };
    for (const Step& s : before) run(s);
    if (xhgblterm) xhgblterm();
    for (const Step& s : after) run(s);
    if (vvgcb.gcb[VV_SLOT_XM]) {
        xmterm(static_cast<XMGCB*>(vvgcb.gcb[VV_SLOT_XM]));
        vvgcb.gcb[VV_SLOT_XM] = nullptr;
    }
    if (vvgcb.lcbkey) thr_keydelete(vvgcb.lcbkey);
    vvgcb.lcbkey = 0;
    return 0;
}

xmpid vvxmpid() {
    VVLCB* l = vvlcb();
    return l ? l->pool : nullptr;
}

void vvsetuser(const char* plainuser, const char* plaingroup, const void* usertok) {
    VVLCB* l = vvlcb();
    if (!l) return;
    if (plainuser) memcpy(l->plainuser, plainuser, sizeof(l->plainuser));
    if (plaingroup) memcpy(l->plaingroup, plaingroup, sizeof(l->plaingroup));
    if (usertok) memcpy(l->usertok, usertok, sizeof(l->usertok));
}

void vvgetuser(char** plainuser, char** plaingroup, char** usertok) {
    VVLCB* l = vvlcb();
    if (plainuser) *plainuser = l ? l->plainuser : nullptr;
    if (plaingroup) *plaingroup = l ? l->plaingroup : nullptr;
    if (usertok) *usertok = l ? l->usertok : nullptr;
}

char* vvtokptr() {
    VVLCB* l = vvlcb();
    return l ? l->usertok : nullptr;
}

char* vvunamptr() {
    VVLCB* l = vvlcb();
    return l ? l->plainuser : nullptr;
}

void vvsetfmt(const char* fmtdomain, int fmtlen) {
    VVLCB* l = vvlcb();
    if (!l) return;
    if (fmtlen < 0 || !fmtdomain) fmtlen = 0;
    if (fmtlen > static_cast<int>(sizeof(l->fmtdomain)) - 1) fmtlen = sizeof(l->fmtdomain) - 1;
    if (fmtlen) memcpy(l->fmtdomain, fmtdomain, fmtlen);
    l->fmtdomain[fmtlen] = '\0';
}

char* vvgetfmt() {
    VVLCB* l = vvlcb();
    return l ? l->fmtdomain : nullptr;
}

}  // namespace vrta

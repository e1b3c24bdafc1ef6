// Column minimum and maximum. A column that keeps them has a slot in the
// string pool (16 bytes for a number, twice its length for characters),
// listed by the statistics vector. Rows fold into a private work area while
// they are written; a flush stores the work with a replace that rereads the
// pool, so what another writer stored is folded in, not lost.
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

namespace {

int32_t slotlen(const DA_NAMESTR& v) { return v.type == 1 ? 16 : 2 * v.nlng; }
int32_t half(const DA_NAMESTR& v) { return v.type == 1 ? 8 : v.nlng; }

// Work area: per column, room for its slot.
size_t workoff(const DA_FCB* fcb, int i) {
    size_t o = 0;
    for (int k = 0; k < i; ++k) o += slotlen(fcb->vars[k]);
    return o;
}

bool ismissing(const uint8_t* p) {
    uint16_t top;
    memcpy(&top, p + 6, 2);
    return top == 0xffff;
}

// A number shorter than 8 bytes holds the high bytes of the double.
double getnum(const uint8_t* p, int len) {
    uint8_t b[8] = {0};
    memcpy(b + 8 - len, p, len);
    double d;
    memcpy(&d, b, 8);
    return d;
}

[[nodiscard]] rctype wrname(DA_FCB* fcb, int i) {
    DA_NAME7ODS n = static_cast<DA_NAME7ODS&>(fcb->vars[i]);
    da_off_t off = fcb->dshdr.links[DA_LNKNAMES] + static_cast<da_off_t>(i) * sizeof(DA_NAME7ODS);
    if (da_writehook) da_writehook("names");
    rctype rc = fcb->mdfd->fdwrite(fcb->mdfd, &n, sizeof n, &off);
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype wrvstat(DA_FCB* fcb) {
    da_off_t off = fcb->dshdr.links[DA_LNKVARS];
    if (da_writehook) da_writehook("vars");
    rctype rc = dawrods(fcb->mdfio, fcb->vstat, &off);
    if (rc == 0 && fcb->dshdr.links[DA_LNKVARS] < 0) {
        fcb->dshdr.links[DA_LNKVARS] = off;
        fcb->flags |= DA_FCBDSHDR;
    }
    return rc;
}

[[nodiscard]] rctype setvarstat(DA_FCB* fcb, int i) {
    int32_t len = slotlen(fcb->vars[i]);
    int32_t pid = -1;
    void* mem = nullptr;
    rctype rc = dastrpalloc(fcb->phdl, len, &pid, &mem);
    if (rc < 0) return rc;
    memset(mem, 0, len);
    fcb->vstat->vstat[i].flags = 1;
    fcb->vstat->vstat[i].vstatpid = pid;
    fcb->vstat->vstat[i].vstat_l = static_cast<int16_t>(len);
    return 0;
}

void pointers(DA_FCB* fcb) {
    if (!fcb->vstat) return;
    for (int i = 0; i < fcb->xoe.nvar; ++i) {
        DA_VARSTAT& s = fcb->vstat->vstat[i];
        DA_NAMESTR& v = fcb->vars[i];
        v.minptr = v.maxptr = nullptr;
        v.minmaxpid = -1;
        if (!(s.flags & 1)) continue;
        auto* p = static_cast<uint8_t*>(dastrpaddr(fcb->phdl, s.vstatpid, s.vstat_l));
        if (!p) continue;
        v.minmaxpid = s.vstatpid;
        v.minptr = p;
        v.maxptr = p + half(v);
    }
}

[[nodiscard]] rctype ensurework(DA_FCB* fcb) {
    if (fcb->mmwork) return 0;
    if (fcb->xoe.nvar < 0) return DA_INTERNAL;
    size_t total = workoff(fcb, fcb->xoe.nvar);
    fcb->mmwork = static_cast<uint8_t*>(calloc(1, total ? total : 1));
    fcb->mmstate = static_cast<uint8_t*>(calloc(1, static_cast<size_t>(fcb->xoe.nvar) + 1));
    return fcb->mmwork && fcb->mmstate ? 0 : DA_NOMEM;
}

// Folds one value (min and max given) into a slot at dst, which holds one when has.
void fold(const DA_NAMESTR& v, uint8_t* dst, bool has, const uint8_t* mn, const uint8_t* mx) {
    int h = half(v);
    if (!has) {
        memcpy(dst, mn, h);
        memcpy(dst + h, mx, h);
        return;
    }
    if (v.type == 1) {
        double a, b, c, d;
        memcpy(&a, dst, 8);
        memcpy(&b, dst + 8, 8);
        memcpy(&c, mn, 8);
        memcpy(&d, mx, 8);
        if (c < a) memcpy(dst, mn, 8);
        if (d > b) memcpy(dst + 8, mx, 8);
    } else {
        if (memcmp(mn, dst, h) < 0) memcpy(dst, mn, h);
        if (memcmp(mx, dst + h, h) > 0) memcpy(dst + h, mx, h);
    }
}

}  // namespace

[[nodiscard]] rctype dastvstat(DA_FCB* fcb) {
    int32_t nvar = fcb->xoe.nvar;
    auto* vs = static_cast<DA_VARSODS*>(calloc(1, davarslen(nvar) > 20 ? davarslen(nvar) : 20));
    if (!vs) return DA_NOMEM;
    vs->ods.version = DA_VARSODS_VER;
    vs->ods.length = davarslen(nvar);
    for (int i = 0; i < nvar; ++i) vs->vstat[i] = DA_VARSTAT{0, -1, 0, {0, 0}};
    free(fcb->vstat);
    fcb->vstat = vs;
    rctype rc = 0;
    for (int i = 0; i < nvar && rc == 0; ++i)
        if (fcb->vars[i].flags & DA_NAMKEEPMM) rc = setvarstat(fcb, i);
    if (rc == 0) rc = daflstrp(fcb->phdl);
    if (rc == 0) rc = wrvstat(fcb);
    pointers(fcb);
    return rc;
}

[[nodiscard]] rctype daldvstat(DA_FCB* fcb) {
    da_off_t off = fcb->dshdr.links[DA_LNKVARS];
    int32_t nvar = fcb->xoe.nvar;
    if (off < 0 || nvar <= 0) return 0;
    int len = davarslen(nvar) > 20 ? davarslen(nvar) : 20;
    auto* vs = static_cast<DA_VARSODS*>(calloc(1, len));
    if (!vs) return DA_NOMEM;
    rctype rc = dardvars(fcb->mdfio, vs, len, nvar, off);
    if (rc < 0) {
        free(vs);
        return rc;
    }
    free(fcb->vstat);
    fcb->vstat = vs;
    pointers(fcb);
    return 0;
}

void dafrvstat(DA_FCB* fcb) {
    free(fcb->vstat);
    free(fcb->mmwork);
    free(fcb->mmstate);
    fcb->vstat = nullptr;
    fcb->mmwork = fcb->mmstate = nullptr;
}

void dalckvars(DA_FCB* fcb, const void* rows, long n) {
    if (!fcb->vstat || !(fcb->xoe.flags & DA_XOEVSTAT) || ensurework(fcb) < 0) return;
    const auto* base = static_cast<const uint8_t*>(rows);
    for (int i = 0; i < fcb->xoe.nvar; ++i) {
        if (!(fcb->vstat->vstat[i].flags & 1)) continue;
        const DA_NAMESTR& v = fcb->vars[i];
        uint8_t* w = fcb->mmwork + workoff(fcb, i);
        for (long r = 0; r < n; ++r) {
            const uint8_t* p = base + r * fcb->xoe.obslen + v.npos;
            if (v.type == 1) {
                uint8_t b[8] = {0};
                memcpy(b + 8 - v.nlng, p, v.nlng);
                if (ismissing(b)) continue;
                double d = getnum(p, v.nlng);
                uint8_t dv[8];
                memcpy(dv, &d, 8);
                fold(v, w, fcb->mmstate[i] & 1, dv, dv);
            } else {
                fold(v, w, fcb->mmstate[i] & 1, p, p);
            }
            fcb->mmstate[i] |= 3;
        }
    }
}

[[nodiscard]] rctype dastoreminmax(DA_FCB* fcb) {
    if (!fcb->vstat || !fcb->mmstate || !fcb->phdl) return 0;
    rctype rc = daflstrp(fcb->phdl);
    for (int i = 0; i < fcb->xoe.nvar && rc == 0; ++i) {
        if (!(fcb->mmstate[i] & 2)) continue;
        DA_VARSTAT& s = fcb->vstat->vstat[i];
        DA_NAMESTR& v = fcb->vars[i];
        uint8_t* w = fcb->mmwork + workoff(fcb, i);
        // What is stored already (by us or another writer) joins the work.
        if ((v.flags & DA_NAMHASMM) && v.minptr) {
            uint8_t cur[2 * 4096];
            memcpy(cur, v.minptr, s.vstat_l);
            fold(v, w, true, cur, cur + half(v));
        }
        int32_t nid = s.vstatpid;
        rc = dastrprep(fcb->phdl, s.vstatpid, s.vstat_l, w, s.vstat_l, &nid);
        if (rc < 0) break;
        if (nid != s.vstatpid) {
            s.vstatpid = nid;
            rc = wrvstat(fcb);
            if (rc < 0) break;
        }
        if (!(v.flags & DA_NAMHASMM)) {
            v.flags |= DA_NAMHASMM;
            rc = wrname(fcb, i);
        }
        fcb->mmstate[i] &= ~2;
    }
    pointers(fcb);
    return rc;
}

[[nodiscard]] rctype dalupdminmax(DA_FID* f, int nvars, const int32_t* nvar0) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (fp->mode == DA_OMINPUT || nvars <= 0 || !nvar0) return DA_BADARG;
    if (dachknvar0(nvar0, nvars, fcb->xoe.nvar) < 0) return DA_BADARG;
    rctype rc = daflfcb(fcb);
    for (int k = 0; k < nvars && rc == 0; ++k) {
        DA_NAMESTR& v = fcb->vars[nvar0[k] - 1];
        if (v.flags & DA_NAMKEEPMM) continue;
        v.flags |= DA_NAMKEEPMM;
        rc = wrname(fcb, nvar0[k] - 1);
    }
    if (rc < 0) return rc;
    if (!fcb->vstat) {
        rc = dastvstat(fcb);
        fcb->xoe.flags |= DA_XOEVSTAT | DA_XOEMINMAX;
    } else {
        for (int k = 0; k < nvars && rc == 0; ++k)
            if (!(fcb->vstat->vstat[nvar0[k] - 1].flags & 1)) rc = setvarstat(fcb, nvar0[k] - 1);
        if (rc == 0) rc = daflstrp(fcb->phdl);
        if (rc == 0) rc = wrvstat(fcb);
        pointers(fcb);
        fcb->xoe.flags |= DA_XOEMINMAX;
    }
    if (rc < 0) return rc;
    fcb->flags |= DA_FCBXOE;
    return daflfcb(fcb);
}

[[nodiscard]] rctype dalresetminmax(DA_FID* f) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (fp->mode == DA_OMINPUT) return DA_BADARG;
    rctype rc = 0;
    for (int i = 0; i < fcb->xoe.nvar && rc == 0; ++i) {
        if (fcb->mmstate) fcb->mmstate[i] = 0;
        if (fcb->vars[i].flags & DA_NAMHASMM) {
            fcb->vars[i].flags &= ~DA_NAMHASMM;
            rc = wrname(fcb, i);
        }
    }
    return rc;
}

}  // namespace vrta

// Setting up a group-by handle: the aggregate table, group and distinct key
// parts, columns with their hidden helpers, the data layout of a tree row,
// the output order, and the tree memory; and releasing it all again.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "hs/hsmem.h"
#include "hs/sr.h"
#include "hs/zrt.h"
#include "option/op.h"
#include "sda/da.h"
#include "sda/dafd.h"
#include "sda/dafid.h"
#include "sda/daods.h"
#include "sfnc/xf.h"
#include "ssubs/skb.h"
#include "ssubs/vz.h"
#include "wh/whgsint.h"

namespace vrta {

const PS_AGGRFUNC PSaggrfunc_tbl = {
    25,
    {{"        ", PS_FT_BLANK, 0}, {"AVG", PS_FT_AVG, 0},       {"MEAN", PS_FT_AVG, 0},     {"COUNT", PS_FT_CNT, 0},
     {"FREQ", PS_FT_FREQ, 0},     {"N", PS_FT_FREQ, 0},        {"MIN", PS_FT_MIN, 0},      {"MAX", PS_FT_MAX, 0},
     {"SUM", PS_FT_SUM, 0},       {"CSS", PS_FT_CSS, 0},       {"NMISS", PS_FT_NMISS, 0},  {"RANGE", PS_FT_RANGE, 0},
     {"STD", PS_FT_STD, 0},       {"STDERR", PS_FT_STDERR, 0}, {"USS", PS_FT_USS, 0},      {"VAR", PS_FT_VAR, 0},
     {"UWSUM", PS_FT_UWSUM, 0},   {"COUNTD", PS_FT_CNTD, 0},   {"SUMD", PS_FT_SUMD, 0},    {"AVGD", PS_FT_AVGD, 0},
     {"USSD", PS_FT_USSD, 0},     {"VARD", PS_FT_VARD, 0},     {"CSSD", PS_FT_CSSD, 0},    {"STDD", PS_FT_STDD, 0},
     {"STDERRD", PS_FT_STDERRD, 0}}};

int PSaggrfunc(const char* name, PS_FuncTypes_t* ftp, int mode) {
    if (!name || !ftp) return 1;
    char want[9];
    int n = mode == 0 ? 8 : static_cast<int>(strnlen(name, 9));
    if (n > 8) return 1;
    memset(want, ' ', 8);
    memcpy(want, name, n);
    vzMP(want, 8);
    int wl = vzstrip(want, 8);
    for (const PS_AGGRNAME& a : PSaggrfunc_tbl.funcs) {
        int al = vzstrip(a.name, static_cast<int>(strlen(a.name)));
        if (al == wl && memcmp(a.name, want, wl) == 0) {
            *ftp = a.value;
            return 0;
        }
    }
    return 1;
}

namespace {

thread_key_t WHGSTHRKEY;
std::once_flag keyonce;
rctype keyrc = 0;
thread_local double forcedcache = -1;  // a request's own limit, set around whgsinit

bool isdistinct(PS_FuncTypes_t f) { return f >= PS_FT_CNTD && f <= PS_FT_STDERRD; }
int nhidden(PS_FuncTypes_t f) {
    switch (f) {
    case PS_FT_AVG:
    case PS_FT_RANGE: return 2;
    case PS_FT_STD:
    case PS_FT_STDERR:
    case PS_FT_CSS:
    case PS_FT_VAR: return 3;
    default: return 0;
    }
}
// Functions that take any column; the others need numbers.
bool anytype(PS_FuncTypes_t f) {
    return f == PS_FT_BLANK || f == PS_FT_CNT || f == PS_FT_FREQ || f == PS_FT_NMISS || f == PS_FT_MIN ||
           f == PS_FT_MAX || f == PS_FT_CNTD;
}
int round4(int n) { return (n + 3) & ~3; }

rctype failmsg(char** errmsg, rctype rc, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
rctype failmsg(char** errmsg, rctype rc, const char* fmt, ...) {
    if (errmsg && !*errmsg) {
        char buf[400];
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        *errmsg = strdup(buf);
    }
    return rc;
}

// Finds or adds the hidden column that keeps func of the same column and weight.
WHGS_COL* whgsgetcol(WHGS_HANDLE* gsh, PS_FuncTypes_t func, WHGS_COL* of) {
    for (int i = 0; i < gsh->nusedcols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (c.gsfunc == func && !c.is_complex && c.nstr[0] == of->nstr[0] && c.nstr[1] == of->nstr[1]) return &c;
    }
    WHGS_COL& c = gsh->cols[gsh->nusedcols++];
    memset(&c, 0, sizeof c);
    memset(c.coldesc.func, ' ', 8);
    memcpy(c.coldesc.colsym, of->coldesc.colsym, sizeof c.coldesc.colsym);
    c.coldesc.nvar0[0] = of->coldesc.nvar0[0];
    c.coldesc.nvar0[1] = of->coldesc.nvar0[1];
    c.coldesc.off = -1;
    c.coldesc.ntype = 1;
    c.gsfunc = func;
    c.nstr[0] = of->nstr[0];
    c.nstr[1] = of->nstr[1];
    c.hidden = true;
    c.excflg_off = -1;
    c.ztdataoff = -1;
    return &c;
}

}  // namespace

long whgs_optlong(const char* name, long dflt) {
    void* opt = opgtgbl();
    if (!opt) return dflt;
    char buf[64];
    int len = 0;
    if (opgetop(opt, name, buf, &len) < 0 || len <= 0 || len >= static_cast<int>(sizeof buf)) return dflt;
    buf[len] = 0;
    char* end = nullptr;
    long v = strtol(buf, &end, 10);
    return end && end != buf ? v : dflt;
}

namespace {

double optcache() {
    if (forcedcache >= 0) return forcedcache;
    void* opt = opgtgbl();
    if (!opt) return 0;
    double d = 0;
    int len = 0;
    if (opgetop(opt, "GRPBYROWCACHE", &d, &len) < 0 || len != 8) return 0;
    return d;
}

rctype internal_init(void* targenv, DA_FID* fid, GS_MainRec_t* mr, GS_ColDesc_t* coldesc, int nvars,
                     da_namestr_t* vars, int* grpbycols, int* ordrbycols, void* havclause, int maxthreads,
                     WHGS_HANDLE** gshandle, char** errmsg) {
    if (gshandle) *gshandle = nullptr;
    if (errmsg) *errmsg = nullptr;
    if (!gshandle || !mr || (mr->ncols > 0 && !coldesc) || mr->ncols < 0 || mr->ngroupby < 0 ||
        mr->norderby < 0 || (mr->ngroupby > 0 && !grpbycols) || (mr->norderby > 0 && !ordrbycols) ||
        mr->projlen < 0 || (nvars > 0 && !vars))
        return failmsg(errmsg, WHGS_RC_BADREQ, "The group-by request is incomplete");
    std::call_once(keyonce, [] { keyrc = gsinit(); });
    if (keyrc) return failmsg(errmsg, WHGS_RC_NOMEM, "No thread key for the group-by scan");
    if (maxthreads < 1) maxthreads = 1;

    // 1. The handle and its threads in one block.
    auto* gsh = static_cast<WHGS_HANDLE*>(calloc(1, sizeof(WHGS_HANDLE) + maxthreads * sizeof(WHGS_PTHREAD)));
    if (!gsh) return failmsg(errmsg, WHGS_RC_NOMEM, "Out of memory");
    gsh->thrd_data = reinterpret_cast<WHGS_PTHREAD*>(gsh + 1);
    gsh->nthreads = maxthreads;
    uint32_t seq = dagenranseq(65535);
    for (int i = 0; i < maxthreads; i++) {
        WHGS_PTHREAD& t = gsh->thrd_data[i];
        t.gsh_handle = gsh;
        t.thrindx = i;
        t.spill_seqno = seq + i;
    }
    gsh->rowcache = optcache();
    rctype rc = 0;
    auto fail = [&](rctype code, const char* fmt, auto... a) {
        if (errmsg && !*errmsg) {
            char buf[400];
            snprintf(buf, sizeof buf, fmt, a...);
            *errmsg = strdup(buf);
        }
        whgsfree(gsh);
        return code;
    };

    // 2. Environments.
    if (mr->flags & GS_F_TRAPS) gsh->flags |= WHGS_HF_TRAPS;
    gsh->whenv.targenv = static_cast<HS_NLSENV*>(targenv);
    gsh->whenv.dataenv = fid && fid->nlsenv ? fid->nlsenv : static_cast<HS_NLSENV*>(targenv);
    gsh->xfenv = static_cast<XF_ENV*>(calloc(1, sizeof(XF_ENV)));
    if (!gsh->xfenv) return fail(WHGS_RC_NOMEM, "Out of memory");
    gsh->xfenv->dataenv = gsh->whenv.dataenv;
    gsh->xfenv->targenv = gsh->whenv.targenv;
    if (hsnlstpneeded(gsh->whenv.targenv, gsh->whenv.dataenv)) gsh->flags |= WHGS_HF_XCODE;
    gsh->fid = fid;
    gsh->nvars = nvars;
    gsh->vars = vars;
    gsh->reclen = mr->reclen;
    gsh->missing = VZ_MISSING;

    // 3. HAVING.
    if (mr->flags & GS_F_HAVING) {
        if (!havclause) return fail(WHGS_RC_BADREQ, "The HAVING clause is missing");
        if (mr->flags & GS_F_HAVTREE) {
            gsh->havtree = static_cast<sqlop_t*>(havclause);
            gsh->flags |= WHGS_HF_HAVNOTOWN;
        } else {
            long first = static_cast<long>(zrtint(havclause, 4));
            long wl = 4 + (first < 0 ? -first : first);
            rc = wh_getatree(havclause, wl, &gsh->havtree);
            if (rc) return fail(rc, "The HAVING clause could not be read");
        }
    }

    // Columns, checked against the table.
    int ncols = mr->ncols;
    gsh->nmaincols = ncols;
    gsh->nprojcols = mr->nproj > 0 ? std::min(mr->nproj, ncols) : ncols;
    gsh->proj_len = mr->projlen;
    int ntot = ncols;
    for (int i = 0; i < ncols; i++) {
        PS_FuncTypes_t f;
        if (PSaggrfunc(coldesc[i].func, &f, 0))
            return fail(WHGS_RC_BADREQ, "Function %.8s is not an aggregate", coldesc[i].func);
        ntot += nhidden(f);
        if (isdistinct(f)) gsh->ncntdgrpby++;
    }
    gsh->ntotcols = ntot;
    gsh->cols = static_cast<WHGS_COL*>(calloc(ntot > 0 ? ntot : 1, sizeof(WHGS_COL)));
    if (!gsh->cols) return fail(WHGS_RC_NOMEM, "Out of memory");
    for (int i = 0; i < ncols; i++) {
        WHGS_COL& c = gsh->cols[i];
        c.coldesc = coldesc[i];
        PSaggrfunc(coldesc[i].func, &c.gsfunc, 0);
        c.excflg_off = -1;
        c.ztdataoff = -1;
        for (int k = 0; k < 2; k++) {
            int nv = coldesc[i].nvar0[k];
            if (nv == 0) continue;
            if (nv < 0 || nv > nvars) return fail(WHGS_RC_BADREQ, "Column number %d is not in the table", nv);
            c.nstr[k] = &vars[nv - 1];
        }
        const char* fn = coldesc[i].func;
        if (!c.nstr[0] && c.gsfunc != PS_FT_CNT && c.gsfunc != PS_FT_FREQ)
            return fail(WHGS_RC_BADREQ, "%.*s needs a column", vzstrip(fn, 8), fn);
        if (c.nstr[0] && c.nstr[0]->type != 1 && !anytype(c.gsfunc))
            return fail(WHGS_RC_BADREQ, "%.*s needs a numeric column", vzstrip(fn, 8), fn);
        if (c.nstr[1] && c.nstr[1]->type != 1) return fail(WHGS_RC_BADREQ, "A weight column must be numeric");
        if (c.coldesc.off < 0 || c.coldesc.len < 1 || c.coldesc.off + c.coldesc.len > mr->projlen ||
            (c.coldesc.ntype != 1 && c.coldesc.ntype != 2) || (c.coldesc.ntype == 1 && c.coldesc.len > 8))
            return fail(WHGS_RC_BADREQ, "Result column %d does not fit the result row", i + 1);
    }
    gsh->nusedcols = ncols;

    // 5. Group key parts, then one part per distinct column.
    int ngrp = std::max(mr->ngroupby, 1);
    gsh->ngrpby = ngrp;
    gsh->grpby = static_cast<WHGS_KEYDESC*>(calloc(ngrp + gsh->ncntdgrpby, sizeof(WHGS_KEYDESC)));
    if (!gsh->grpby) return fail(WHGS_RC_NOMEM, "Out of memory");
    int keylen = 0;
    if (mr->ngroupby == 0) {
        gsh->grpby[0] = WHGS_KEYDESC{0, 8, 0, 2, WHGS_KD_CONST, 0, 0};
        keylen = 8;
    }
    for (int g = 0; g < mr->ngroupby; g++) {
        int nv = grpbycols[g];
        if (nv < 1 || nv > nvars) return fail(WHGS_RC_BADREQ, "Group column number %d is not in the table", nv);
        da_namestr_t* ns = &vars[nv - 1];
        WHGS_KEYDESC& kd = gsh->grpby[g];
        kd = WHGS_KEYDESC{ns->npos, ns->nlng, keylen, ns->type, 0, 0, 0};
        if (ns->npos < 0 || ns->nlng < 1 || ns->npos + ns->nlng > mr->reclen)
            return fail(WHGS_RC_BADREQ, "Group column %d lies outside the row", nv);
        // A character key read in another encoding than the target's is
        // transcoded by the table as it is read, so that groups compare in
        // the target's encoding.
        if ((gsh->flags & WHGS_HF_XCODE) && ns->type == 2 && fid && fid->mt && fid->mt->settranscodenvar0) {
            int32_t n0 = nv;
            if (rctype trc = fid->mt->settranscodenvar0(fid, 1, &n0); trc < 0)
                return fail(trc, "Group column %.*s cannot be transcoded", static_cast<int>(ns->name_l),
                            ns->name ? ns->name : "");
        }
        const GS_ColDesc_t* cd = nullptr;
        if (mr->flags & GS_F_FMTKEY) {
            for (int i = 0; i < ncols && !cd; i++)
                if (coldesc[i].nvar0[0] == nv) cd = &coldesc[i];
            if (!cd)
                return fail(WHGS_RC_BADREQ, "Groupby Column %.*s not in select list", static_cast<int>(ns->name_l),
                            ns->name ? ns->name : "");
        }
        if (cd && cd->pgbfmt.len > 0) {
            FMTSTR fa{};
            long code = 0;
            int fl = std::min(cd->pgbfmt.len, 32);
            if (xfname(cd->pgbfmt.name, fl, 'F', &fa, &code) != 0)
                return fail(WHGS_RC_BADREQ, "Format %.*s not found", fl, cd->pgbfmt.name);
            kd.fmtcode = code;
            kd.nfl = cd->pgbfmt.width > 0 ? cd->pgbfmt.width : 128;
            kd.flags |= WHGS_KD_FMT;
            gsh->flags |= WHGS_HF_FMTKEY | WHGS_HF_SORT;
            keylen += kd.nfl;
        } else {
            keylen += ns->nlng;
        }
    }
    gsh->ztkey_grpby_len = keylen;
    if (gsh->ncntdgrpby) {
        gsh->dstnctp = static_cast<WHGS_DISTINCT*>(calloc(gsh->ncntdgrpby, sizeof(WHGS_DISTINCT)));
        if (!gsh->dstnctp) return fail(WHGS_RC_NOMEM, "Out of memory");
    }
    for (int i = 0, d = 0; i < ncols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (!isdistinct(c.gsfunc)) continue;
        da_namestr_t* ns = c.nstr[0];
        WHGS_DISTINCT& ds = gsh->dstnctp[d];
        ds.func = c.gsfunc;
        ds.colidx = i;
        ds.ztkeylen = round4(ns->nlng);
        ds.keypart = ngrp + d;
        ds.off = keylen;
        gsh->grpby[ngrp + d] = WHGS_KEYDESC{ns->npos, ns->nlng, keylen, ns->type, 0, 0, 0};
        keylen += ds.ztkeylen;
        c.dist = &ds;
        d++;
    }
    gsh->ztkey_len = round4(keylen);

    // 7. Character columns of the group are read back out of the key; so is
    // the formatted text of a formatted one.
    for (int i = 0; i < ncols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (c.gsfunc != PS_FT_BLANK) continue;
        for (int g = 0; g < mr->ngroupby; g++) {
            if (grpbycols[g] != c.coldesc.nvar0[0]) continue;
            WHGS_KEYDESC* kd = &gsh->grpby[g];
            if (kd->flags & WHGS_KD_FMT) c.fmtkeypart = kd;
            else c.keypart = kd;
            c.fromkey = c.coldesc.ntype == 2;
            break;
        }
    }
    // 8. Hidden columns of the complex functions.
    for (int i = 0; i < ncols; i++) {
        WHGS_COL* c = &gsh->cols[i];
        auto addaux = [&](int slot, PS_FuncTypes_t f) { c->aux[slot] = whgsgetcol(gsh, f, c); };
        switch (c->gsfunc) {
        case PS_FT_AVG:
            addaux(WHGS_AUX_SUM, PS_FT_SUM);
            addaux(WHGS_AUX_CNT, PS_FT_CNT);
            break;
        case PS_FT_RANGE:
            addaux(WHGS_AUX_MIN, PS_FT_MIN);
            addaux(WHGS_AUX_MAX, PS_FT_MAX);
            break;
        case PS_FT_STD:
        case PS_FT_STDERR:
        case PS_FT_CSS:
        case PS_FT_VAR:
            addaux(WHGS_AUX_SUM, PS_FT_SUM);
            addaux(WHGS_AUX_CNT, PS_FT_CNT);
            addaux(WHGS_AUX_USS, PS_FT_USS);
            break;
        default: continue;
        }
        c = &gsh->cols[i];
        c->is_complex = true;
        gsh->ncmplxcols++;
    }
    if (gsh->ncmplxcols) {
        gsh->cmplxcolp = static_cast<WHGS_COL**>(calloc(gsh->ncmplxcols, sizeof(WHGS_COL*)));
        if (!gsh->cmplxcolp) return fail(WHGS_RC_NOMEM, "Out of memory");
        for (int i = 0, k = 0; i < ncols; i++)
            if (gsh->cols[i].is_complex) gsh->cmplxcolp[k++] = &gsh->cols[i];
    }

    // 9. Data layout: raw and character cells first, then the failure bytes,
    // then 8-aligned numeric cells.
    int off = 0;
    for (int i = 0; i < gsh->nusedcols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (c.is_complex || c.fromkey || c.dist) continue;
        bool charcell = c.nstr[0] && c.nstr[0]->type == 2 && (c.gsfunc == PS_FT_MIN || c.gsfunc == PS_FT_MAX);
        if (c.gsfunc == PS_FT_BLANK || charcell) {
            c.ztdataoff = off;
            c.celllen = c.nstr[0]->nlng;
            off += c.celllen;
        }
    }
    for (int i = 0; i < gsh->nusedcols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (c.is_complex || c.fromkey || c.dist || c.ztdataoff >= 0) continue;
        c.excflg_off = off++;
    }
    while ((gsh->ztkey_len + off) % 8) off++;
    for (int i = 0; i < gsh->nusedcols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (c.excflg_off < 0) continue;
        c.ztdataoff = off;
        c.celllen = 8;
        off += 8;
    }
    gsh->ztdata_len = off;

    // 10. The output order: the merge's own order when the order columns
    // are the leading group columns, else a sort.
    if (mr->norderby > 0) {
        bool sort = mr->norderby > mr->ngroupby;
        for (int i = 0; i < mr->norderby && !sort; i++) {
            int o = ordrbycols[i];
            int c = o < 0 ? -o : o;
            if (c < 1 || c > ncols) return fail(WHGS_RC_BADREQ, "Order column %d is not a result column", c);
            const WHGS_COL& col = gsh->cols[c - 1];
            if (col.gsfunc != PS_FT_BLANK || col.coldesc.nvar0[0] != grpbycols[i] ||
                (gsh->grpby[i].flags & WHGS_KD_FMT))
                sort = true;
            else if (o < 0)
                gsh->grpby[i].flags |= WHGS_KD_DESC;
        }
        if (sort) {
            gsh->flags |= WHGS_HF_SORT;
            for (int g = 0; g < ngrp; g++) gsh->grpby[g].flags &= ~WHGS_KD_DESC;
        }
    }
    if (gsh->flags & WHGS_HF_SORT) {
        std::vector<std::pair<int, bool>> parts;  // result column, descending
        if (mr->norderby > 0) {
            for (int i = 0; i < mr->norderby; i++) {
                int o = ordrbycols[i];
                int c = o < 0 ? -o : o;
                if (c < 1 || c > ncols) return fail(WHGS_RC_BADREQ, "Order column %d is not a result column", c);
                parts.emplace_back(c - 1, o < 0);
            }
        } else {
            for (int g = 0; g < mr->ngroupby; g++)
                for (int i = 0; i < ncols; i++)
                    if (gsh->cols[i].gsfunc == PS_FT_BLANK && coldesc[i].nvar0[0] == grpbycols[g]) {
                        parts.emplace_back(i, false);
                        break;
                    }
        }
        if (parts.empty()) {
            gsh->flags &= ~WHGS_HF_SORT;
        } else {
            gsh->skb = static_cast<SKB_KEY*>(calloc(1, sizeof(SKB_KEY)));
            if (!gsh->skb) return fail(WHGS_RC_NOMEM, "Out of memory");
            rc = skbinit(gsh->skb, gsh->whenv.targenv, gsh->whenv.targenv, nullptr, SKB_MAKEKEY | SKB_DATA,
                         gsh->proj_len, static_cast<int>(parts.size()));
            if (rc) return fail(rc, "The output sort could not be set up");
            gsh->flags |= WHGS_HF_SKB;
            for (auto [c, desc] : parts) {
                const GS_ColDesc_t& cd = gsh->cols[c].coldesc;
                rc = skb_addcol(gsh->skb, cd.off, cd.len, cd.ntype, desc ? 1 : 0);
                if (rc) return fail(rc, "The output sort could not be set up");
            }
            rc = skb_addend(gsh->skb, SKB_PAD4);
            if (rc) return fail(rc, "The output sort could not be set up");
            gsh->ordkey_len = gsh->skb->info.data_offset;
        }
    }

    // 11. Buffers and tree memory.
    gsh->flags |= WHGS_HF_FIRST;
    int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    gsh->rowbuf = static_cast<char*>(calloc(1, rowlen + 8));
    gsh->rslvbuf = static_cast<char*>(calloc(1, gsh->proj_len + 8));
    if (!gsh->rowbuf || !gsh->rslvbuf) return fail(WHGS_RC_NOMEM, "Out of memory");
    rc = whgsztpoolinit(gsh);
    if (rc) return fail(rc, "No memory for the group-by trees");
    if (mr->flags & GS_F_META) whgs_prepmetascan(gsh, mr->flags);
    *gshandle = gsh;
    return 0;
}

}  // namespace

rctype gsinit() {
    if (thr_keycreate(&WHGSTHRKEY, nullptr) != 0) return WHGS_RC_NOMEM;
    return 0;
}
rctype gsterm() { return thr_keydelete(WHGSTHRKEY) != 0 ? WHGS_RC_BADREQ : 0; }

void whgs_setthread(WHGS_PTHREAD* thr) { thr_setspecific(WHGSTHRKEY, thr); }

int whgsfpexc() {
    void* v = nullptr;
    if (thr_getspecific(WHGSTHRKEY, &v) != 0 || !v) return 0;
    auto* thr = static_cast<WHGS_PTHREAD*>(v);
    if (!thr->allow_excp) return 0;
    thr->excp_occurred = true;
    return 1;
}

void whgssetallowexcp(WHGS_HANDLE* gsh, int thrd_index, bool allow) {
    if (gsh && thrd_index >= 0 && thrd_index < gsh->nthreads) gsh->thrd_data[thrd_index].allow_excp = allow;
}

void whgssetcache(double bytes) { forcedcache = bytes; }
void whgssetinterrupt(WHGS_HANDLE* gsh, volatile int* interrupt) {
    if (gsh) gsh->interrupt = interrupt;
}

rctype whgsinit(void* targenv, DA_FID* fid, GS_MainRec_t* mainrec, GS_ColDesc_t* coldesc, int* grpbycols,
                int* ordrbycols, void* havclause, int maxthreads, WHGS_HANDLE** gshandle, char** errmsg) {
    if (!fid) return failmsg(errmsg, WHGS_RC_BADREQ, "No table for the group-by scan");
    if (mainrec && fid->xoehdr) mainrec->reclen = fid->xoehdr->obslen;
    return internal_init(targenv, fid, mainrec, coldesc, fid->numvar, fid->vars, grpbycols, ordrbycols, havclause,
                         maxthreads, gshandle, errmsg);
}

rctype whgsvtinit(void* targenv, GS_MainRec_t* mainrec, GS_ColDesc_t* coldesc, int nvars, da_namestr_t* vars,
                  int* grpbycols, int* ordrbycols, void* havclause, int maxthreads, WHGS_HANDLE** gshandle,
                  char** errmsg) {
    return internal_init(targenv, nullptr, mainrec, coldesc, nvars, vars, grpbycols, ordrbycols, havclause,
                         maxthreads, gshandle, errmsg);
}

// ---------------------------------------------------------------- tree memory

WHGS_ZTPOOLCFG whgsztpoolcfg(double rowcache, int nthreads) {
    WHGS_ZTPOOLCFG c{0x200000, nthreads};
    if (rowcache > 0) {
        long k = static_cast<long>((rowcache - 1) / 536870912) + 1;
        c.osa_sz = k * 8388608;
        double m = rowcache / static_cast<double>(c.osa_sz);
        c.max_osa = m >= 1 ? static_cast<int>(std::min(m, 1e9)) : 1;
        while (c.max_osa < nthreads) {
            c.osa_sz /= 2;
            c.max_osa *= 2;
        }
        if (c.osa_sz < 0x200000) c.osa_sz = 0x200000;
    }
    return c;
}

rctype whgsztpoolinit(WHGS_HANDLE* gsh) {
    WHGS_ZTPOOL& zp = gsh->ztpool;
    WHGS_ZTPOOLCFG cfg = whgsztpoolcfg(gsh->rowcache, gsh->nthreads);
    zp.osa_sz = cfg.osa_sz;
    zp.max_osa = cfg.max_osa;
    zp.dynamic = false;
    if (mutex_init(&zp.lock) != 0) return WHGS_RC_NOMEM;
    // Blocks come from the handle's own pool, so that destroying the pool
    // gives everything back however the blocks were passed around.
    zp.mpool = xmpoolc(static_cast<long>(gsh->nthreads) << 16, zp.osa_sz, 0);
    if (!zp.mpool) return WHGS_RC_NOMEM;
    int per = (zp.max_osa + gsh->nthreads - 1) / gsh->nthreads;
    for (int i = 0; i < gsh->nthreads; i++) {
        WHGS_PTHREAD& t = gsh->thrd_data[i];
        t.max_osa = zp.dynamic ? zp.max_osa : per;
        auto* first = static_cast<WHGS_ZTALLOC*>(malloc(WHGS_FIRSTBLOCK));
        if (!first) return WHGS_RC_NOMEM;
        first->bufptr = reinterpret_cast<char*>(first) + WHGS_ZTHDR;
        first->curptr = first->bufptr;
        first->size = WHGS_FIRSTBLOCK - WHGS_ZTHDR;
        first->n_allocated = 0;
        first->next = nullptr;
        t.ztalist = t.curztap = first;
    }
    return 0;
}

void* whgsztpoolget(WHGS_ZTPOOL* zp, WHGS_PTHREAD* thr, long size) {
    size = (size + 7) & ~7L;
    WHGS_ZTALLOC* a = thr->curztap;
    if (a && a->curptr + size <= a->bufptr + a->size) {
        void* p = a->curptr;
        a->curptr += size;
        a->n_allocated++;
        return p;
    }
    if (thr->n_osa >= thr->max_osa || size > zp->osa_sz - WHGS_ZTHDR) return nullptr;
    void* blk = nullptr;
    mutex_lock(&zp->lock);
    if (zp->n_osa < zp->max_osa) {
        if (zp->freeblocks) {
            blk = zp->freeblocks;
            zp->freeblocks = zp->freeblocks->next;
        } else {
            blk = xmalloc(zp->mpool, zp->osa_sz, 0);
        }
        if (blk) zp->n_osa++;
    }
    mutex_unlock(&zp->lock);
    if (!blk) return nullptr;
    thr->n_osa++;
    auto* na = static_cast<WHGS_ZTALLOC*>(blk);
    na->bufptr = static_cast<char*>(blk) + WHGS_ZTHDR;
    na->curptr = na->bufptr + size;
    na->size = zp->osa_sz - WHGS_ZTHDR;
    na->n_allocated = 1;
    na->next = nullptr;
    a->next = na;
    thr->curztap = na;
    return na->bufptr;
}

void whgsztpoolr(WHGS_ZTPOOL* zp, WHGS_PTHREAD* thr) {
    WHGS_ZTALLOC* first = thr->ztalist;
    if (!first) return;
    // Blocks go back on the pool's own list rather than to the pool: the
    // next thread that needs one takes it from there.
    mutex_lock(&zp->lock);
    for (WHGS_ZTALLOC* a = first->next; a;) {
        WHGS_ZTALLOC* n = a->next;
        a->next = zp->freeblocks;
        zp->freeblocks = a;
        zp->n_osa--;
        a = n;
    }
    mutex_unlock(&zp->lock);
    thr->n_osa = 0;
    first->next = nullptr;
    first->curptr = first->bufptr;
    first->n_allocated = 0;
    thr->curztap = first;
    thr->entry = nullptr;
}

void whgsztpoolterm(WHGS_HANDLE* gsh) {
    WHGS_ZTPOOL& zp = gsh->ztpool;
    for (int i = 0; i < gsh->nthreads; i++) {
        WHGS_PTHREAD& t = gsh->thrd_data[i];
        free(t.ztalist);  // the private first block; the others are the pool's
        t.ztalist = t.curztap = nullptr;
    }
    zp.freeblocks = nullptr;
    if (zp.mpool) xmpoold(zp.mpool);
    zp.mpool = nullptr;
    if (zp.osa_sz) mutex_destroy(&zp.lock);
    zp.osa_sz = 0;
}

// ---------------------------------------------------------------- information

int whgsinfo(WHGS_HANDLE* gsh) { return gsh ? gsh->proj_len : 0; }
void whgsinfocols(WHGS_HANDLE* gsh, int* ntotcols, int* nmaincols, int* nprojcols) {
    if (!gsh) return;
    if (ntotcols) *ntotcols = gsh->ntotcols;
    if (nmaincols) *nmaincols = gsh->nmaincols;
    if (nprojcols) *nprojcols = gsh->nprojcols;
}
const GS_ColDesc_t* whgsinfocoldesc(WHGS_HANDLE* gsh, int col) {
    if (!gsh || col < 0 || col >= gsh->nusedcols) return nullptr;
    return &gsh->cols[col].coldesc;
}

int whgsmsg(WHGS_HANDLE* gsh, char* msgbuf, int msglen) {
    if (!gsh || !msgbuf || msglen <= 0) return 0;
    std::string m;
    for (int i = 0; i < gsh->nmaincols; i++) {
        WHGS_COL& c = gsh->cols[i];
        if (!c.math_excep || c.did_prnt_msg) continue;
        c.did_prnt_msg = true;
        char line[300];
        const char* name = c.coldesc.colsym;
        int nl = vzstrip(name, 32);
        if (nl == 0 && c.nstr[0] && c.nstr[0]->name) {
            name = c.nstr[0]->name;
            nl = c.nstr[0]->name_l;
        }
        snprintf(line, sizeof line,
                 "\nVRTA_WARNING:  %.*s(%.*s) could not be computed because "
                 "of an overflow/underflow.  A missing value is "
                 "being returned as its result.\n",
                 vzstrip(c.coldesc.func, 8), c.coldesc.func, nl, name);
        m += line;
    }
    if (gsh->flags & WHGS_HF_MRUN) m += "\nVRTA_NOTE: Metascan used to resolve this query.\n";
    free(gsh->msgbuf);
    gsh->msgbuf = strdup(m.c_str());
    int n = std::min(static_cast<int>(m.size()), msglen - 1);
    memcpy(msgbuf, m.data(), n);
    msgbuf[n] = 0;
    return n;
}

// ---------------------------------------------------------------- release

rctype whgsfree(WHGS_HANDLE* gsh) {
    if (!gsh) return 0;
    rctype rc = 0;
    if (gsh->sortctx) {
        rctype src = srsort2abort(gsh->sortctx);
        if (src < 0) rc = src;
    }
    for (int i = 0; i < gsh->nthreads; i++) {
        WHGS_PTHREAD& t = gsh->thrd_data[i];
        free(t.bldaggrbuf);
        free(t.outbuf);
        if (t.binfid) {
            rctype crc = t.binfid->fdclose(t.binfid);
            if (crc < 0 && rc == 0) rc = crc;
        }
        free(t.fileinfo);
        for (WHGS_BIN* b = t.binhead; b;) {
            WHGS_BIN* n = b->next;
            free(b);
            b = n;
        }
    }
    whgsztpoolterm(gsh);
    if (gsh->dstnctmpool) xmpoold(gsh->dstnctmpool);
    if (gsh->flags & WHGS_HF_SKB) skb_destroy(gsh->skb);
    free(gsh->skb);
    if (gsh->havtree && !(gsh->flags & WHGS_HF_HAVNOTOWN)) free_tree(&gsh->havtree, nullptr);
    for (WHGS_IDXSCAN* s = gsh->idxscanp; s;) {
        WHGS_IDXSCAN* n = s->next;
        whgs_freeidxscan(s);
        s = n;
    }
    free(gsh->rowbuf);
    free(gsh->rslvbuf);
    free(gsh->msgbuf);
    free(gsh->cols);
    free(gsh->cmplxcolp);
    free(gsh->grpby);
    free(gsh->dstnctp);
    free(gsh->xfenv);
    free(gsh);
    return rc;
}

rctype whgsabort(WHGS_HANDLE* gsh) { return whgsfree(gsh); }

}  // namespace vrta

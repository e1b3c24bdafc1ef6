// Domains and tables through the direct access API: assign, open, create,
// close, information, growth, deletion and listing. Each call is a short
// wrapper over the library and table method tables; what it adds is the
// wrapping of storage errors with the member's name.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "sda/darc.h"
#include "sda/dafid.h"
#include "sda/daxc.h"
#include "ssup/xp.h"

using namespace vrta;

namespace {

// A program that reaches tables through this API needs the table layer's
// method tables and the built-in exits. The storage layer's start finds them
// through weak references, which alone do not pull them out of a static
// archive: these references do.
__attribute__((used)) void* const spkeep[] = {reinterpret_cast<void*>(&dafidmtini),
                                              reinterpret_cast<void*>(&daxcini)};

constexpr char WHO_MODIFIED[8] = {'V', 'R', 'T', 'A', 'D', 'A', 'P', 'I'};
constexpr int SP_OPENFLAGS = 4;
constexpr int SP_UPDFLAGS = 0x20004;
constexpr int SP_LOCKDYN = 0x40000001;
constexpr int SP_KEYLEN = 12;

std::atomic<unsigned> libcounter{0};
thread_local char lasterr[512];

void blankcopy(char* dst, const char* src, int n) {
    memset(dst, ' ', n);
    if (!src) return;
    for (int i = 0; i < n && src[i]; ++i) dst[i] = src[i];
}

int namelen(const char* name, int len) {
    if (!name) return 0;
    return len < 0 ? static_cast<int>(strlen(name)) : len;
}

// The 12 key bytes both create and open give the exit: blank padded, so
// the same text always makes the same key.
bool fillkey(DA_OPNSTR& o, const char* ekey) {
    if (!ekey || !*ekey) return false;
    blankcopy(o.encrypt_key, ekey, SP_KEYLEN);
    o.keylen = SP_KEYLEN;
    o.flags |= DA_OFKEYGIVEN;
    return true;
}

SP_FID* newspfid(DA_LIB* lp, const char* dsname, int len) {
    auto* s = static_cast<SP_FID*>(calloc(1, sizeof(SP_FID)));
    if (!s) return nullptr;
    s->dalib = lp;
    s->dsname.len = static_cast<int16_t>(std::min(len, 32));
    blankcopy(s->dsname.name, "", 32);
    memcpy(s->dsname.name, dsname, s->dsname.len);
    return s;
}

rctype wrap(const SP_FID* s, rctype rc) { return spmkerr(s->dsname.name, s->dsname.len, rc); }

void freespfid(SP_FID* s) {
    // Reached after a failure or after vrtaclose ended the transcoding already.
    if (s->tpflags & (SP_TPIN | SP_TPOUT)) daignore(spnlsterm(s));
    // Letting go of a reference cannot fail in a way the caller could act on.
    if (s->tblenv) daignore(nls_release(s->tblenv));
    if ((s->tpflags & SP_TPCLENV) && s->clenv) daignore(nls_release(s->clenv));
    free(s->tpbuf);
    free(s);
}

// Open for input or update: both differ only in mode, flags and the test
// on the client's encoding.
rctype spopen(void* vlib, const char* dsname, int dsnamelen, const char* dstype, int gennum, const char* ekey,
              int client_cei, const char* client_locale, int client_locale_l, int oflags, void** newfid,
              bool update) {
    if (!newfid) return DA_BADARG;
    *newfid = nullptr;
    auto* lp = static_cast<DA_LIB*>(vlib);
    int nl = namelen(dsname, dsnamelen);
    if (!lp || nl <= 0) return DA_BADARG;
    SP_FID* s = newspfid(lp, dsname, nl);
    if (!s) return SP_NOMEM;
    s->opnmode = update ? DA_OMUPDATE : DA_OMINPUT;
    s->oflags = oflags;

    DA_OPNSTR o{};
    char nm[64];
    snprintf(nm, sizeof nm, "%.*s", std::min(nl, 60), dsname);
    o.name = nm;
    o.name_l = nl;
    blankcopy(o.dstype, dstype && *dstype ? dstype : "DATA", 8);
    o.mode = s->opnmode;
    o.flags = update ? SP_UPDFLAGS : SP_OPENFLAGS;
    o.reuse = 0;
    if (update) memcpy(o.who_modified, WHO_MODIFIED, 8);
    if (!update && gennum > 0) {
        o.gennum_max = gennum;
        o.flags |= DA_OFGENMAX;
    }
    fillkey(o, ekey);

    if (oflags & SP_ODYNAMIC) {
        o.timeout = 1;
        o.flags |= DA_OFDYNAMIC;
        pid_t ownpid = 0;
        rctype rc = dalkmem(lp, nm, "DATA    ", DA_LKMEMBER, o.mode, thr_self(), SP_LOCKDYN, &s->dalid, &ownpid);
        if (rc < 0) {
            rc = wrap(s, rc);
            freespfid(s);
            return rc;
        }
        o.lcb = s->dalid;
    }

    rctype warn = 0;
    rctype rc = lp->mt->openfid(lp, &o, &s->dafid);
    if (rc > 0) warn = rc;
    if (rc < 0) {
        rc = wrap(s, rc);
        s->dafid = nullptr;
        vrtaclose(s);
        return rc;
    }
    bool storagetc = !(s->dafid->fidflags & DA_FIDNOTRANS);
    if (storagetc && client_cei >= 1) {
        const char* loc = client_locale;
        int ll = client_locale_l;
        if (!loc || (ll < 0 && !*loc) || ll == 0) {
            // The table's locale: 32 bytes, blank padded, not terminated.
            loc = s->dafid->xoehdr->locale;
            ll = 32;
            while (ll > 0 && (loc[ll - 1] == ' ' || loc[ll - 1] == '\0')) --ll;
        } else if (ll < 0) {
            ll = static_cast<int>(strlen(loc));
        }
        rc = hsnlsgetenv(client_cei, loc, ll, 0, &s->clenv);
        if (rc == 0) {
            s->tpflags |= SP_TPCLENV;
            rc = spnlsinit(s);
        }
        if (rc < 0) {
            rc = wrap(s, rc);
            vrtaclose(s);
            return rc;
        }
    }
    *newfid = s;
    return warn;
}

DA_FCB* fcbofsp(void* vfid) {
    SP_FID* s = spfidof(vfid);
    return s && s->dafid ? fcbof(s->dafid) : nullptr;
}

}  // namespace

namespace vrta {

rctype spmkerr(const char* mem, int memlen, rctype rc) { return spmkerrtext(mem, memlen, hsstrer(rc)); }

rctype spmkerrtext(const char* mem, int memlen, const char* reason) {
    snprintf(lasterr, sizeof lasterr, "Member=%.*s Reason=%s", std::max(0, std::min(memlen, 32)), mem ? mem : "",
             reason ? reason : "");
    xrmksub(1, lasterr, static_cast<int>(strlen(lasterr)));
    return SP_WRAPPED;
}

const char* splasterr() { return lasterr; }

}  // namespace vrta

extern "C" {

int MakeError(const u_sname* mem, int rc) {
    return spmkerr(mem ? mem->name : "", mem ? mem->len : 0, rc);
}

int vrtaerrtext(int rc, char* buf, int buflen) {
    if (!buf || buflen <= 0) return 0;
    const char* t = (rc == SP_WRAPPED && lasterr[0]) ? lasterr : hsstrer(rc);
    snprintf(buf, buflen, "%s", t ? t : "");
    return static_cast<int>(strlen(buf));
}

int splasgn(const char* physpath, void** newlib) {
    if (!newlib) return DA_BADARG;
    *newlib = nullptr;
    if (!physpath || !*physpath) return DA_BADARG;
    rctype rc = dainit();
    if (rc < 0) return rc;
    DA_LIBSTR ls{};
    char nm[16];
    snprintf(nm, sizeof nm, "DAPI%4.4X", libcounter.fetch_add(1) & 0xffff);
    memcpy(ls.name, nm, 8);
    // Partition names carry an id made from the domain's path: "dom",
    // "./dom" and "/home/u/dom" must give the same one, or a later drop or
    // load under another spelling would not know the table's own files.
    char canon[PATH_MAX];
    if (physpath[0] != '(' && realpath(physpath, canon)) physpath = canon;
    ls.libpath = physpath;
    ls.libpath_l = static_cast<int>(strlen(physpath));
    ls.flags = DA_LSNOCREATE;
    DA_LIB* lp = nullptr;
    rc = dagtlib(&ls, &lp);
    if (rc < 0) return rc;
    *newlib = lp;
    return rc;
}

int spldeasgn(void* vlib) {
    auto* lp = static_cast<DA_LIB*>(vlib);
    if (!lp) return DA_BADARG;
    return lp->mt->freelib(lp);
}

int vrtaopen(void* vlib, const char* dsname, int dsnamelen, const char* dstype, int gennum, const char* ekey,
             int client_cei, const char* client_locale, int client_locale_l, int oflags, void** newfid) {
    return spopen(vlib, dsname, dsnamelen, dstype, gennum, ekey, client_cei, client_locale, client_locale_l, oflags,
                  newfid, false);
}

int vrtaupdate(void* vlib, const char* dsname, int dsnamelen, const char* dstype, const char* ekey, int client_cei,
               const char* client_locale, int client_locale_l, int oflags, void** newfid) {
    return spopen(vlib, dsname, dsnamelen, dstype, 0, ekey, client_cei, client_locale, client_locale_l, oflags,
                  newfid, true);
}

int vrtaclose(void* vfid) {
    SP_FID* s = spfidof(vfid);
    if (!s) return DA_BADARG;
    rctype last = (s->tpflags & (SP_TPIN | SP_TPOUT)) ? spnlsterm(s) : 0;
    if (s->dafid) {
        rctype rc = s->dafid->mt->closefid(s->dafid);
        if (rc < 0) {
            hsprint("vrtaclose: DACLOSE failed: Member=%.*s Reason=%s\n", s->dsname.len, s->dsname.name,
                    hsstrer(rc));
            if (last >= 0) last = rc;
        }
        s->dafid = nullptr;
    }
    if (s->dalid) {
        rctype rc = daulmem(s->dalib, s->dalid, DA_LKMEMBER, s->opnmode, thr_self());
        if (rc < 0) {
            hsprint("vrtaclose: DAUNLOCKMEM failed: Member=%.*s Reason=%s\n", s->dsname.len, s->dsname.name,
                    hsstrer(rc));
            if (last >= 0) last = rc;
        }
        s->dalid = nullptr;
    }
    freespfid(s);
    return last;
}

}  // extern "C"

namespace vrta {

rctype spdaopen(void* vlib, const char* dsname, int dsnamelen, int mode, const char* ekey, DA_FID** fp) {
    auto* lp = static_cast<DA_LIB*>(vlib);
    int nl = namelen(dsname, dsnamelen);
    if (!lp || nl <= 0 || nl > 32 || !fp) return DA_BADARG;
    DA_OPNSTR o{};
    char nm[64];
    snprintf(nm, sizeof nm, "%.*s", nl, dsname);
    o.name = nm;
    o.name_l = nl;
    blankcopy(o.dstype, "DATA", 8);
    o.mode = mode;
    o.flags = mode == DA_OMINPUT ? SP_OPENFLAGS : SP_UPDFLAGS;
    if (mode != DA_OMINPUT) memcpy(o.who_modified, WHO_MODIFIED, 8);
    fillkey(o, ekey);
    rctype rc = lp->mt->openfid(lp, &o, fp);
    if (rc < 0) *fp = nullptr;
    return rc;
}

rctype spcreate(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, void** newfid) {
    if (!newfid) return DA_BADARG;
    *newfid = nullptr;
    if (!cr || cr->ncols <= 0 || !cr->cols) return DA_BADARG;
    // Column names and labels must outlive defvars only; they are copied here
    // so that a caller's unterminated names are fine.
    std::vector<DA_NAMESTR> vars(cr->ncols);
    std::vector<std::string> texts(2 * cr->ncols);
    memset(vars.data(), 0, sizeof(DA_NAMESTR) * vars.size());
    int32_t pos = 0;
    for (int i = 0; i < cr->ncols; ++i) {
        const VRTACOLDEF& c = cr->cols[i];
        int cl = namelen(c.name, c.name_l);
        int ll = namelen(c.label, c.label_l);
        if (cl <= 0 || cl > 32 || ll > 256 || (c.type != 1 && c.type != 2) || c.length <= 0 ||
            (c.type == 1 && (c.length < 2 || c.length > 8)))
            return DA_BADARG;
        texts[2 * i].assign(c.name, cl);
        if (ll > 0) texts[2 * i + 1].assign(c.label, ll);
        DA_NAMESTR& v = vars[i];
        v.name = texts[2 * i].data();
        v.name_l = static_cast<int16_t>(cl);
        if (ll > 0) {
            v.label = texts[2 * i + 1].data();
            v.label_l = static_cast<int16_t>(ll);
        }
        v.type = static_cast<int8_t>(c.type);
        v.nlng = c.length;
        v.npos = pos;
        pos += c.length;
    }
    return spcreatev(vlib, dsname, dsnamelen, cr, cr->ncols, vars.data(), newfid);
}

rctype spcreatev(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, int nvars, DA_NAMESTR* vars,
                 void** newfid) {
    if (!newfid) return DA_BADARG;
    *newfid = nullptr;
    auto* lp = static_cast<DA_LIB*>(vlib);
    int nl = namelen(dsname, dsnamelen);
    if (!lp || nl <= 0 || !cr || nvars <= 0 || !vars) return DA_BADARG;
    SP_FID* s = newspfid(lp, dsname, nl);
    if (!s) return SP_NOMEM;
    s->opnmode = DA_OMOUTPUT;

    DA_OPNSTR o{};
    char nm[64];
    snprintf(nm, sizeof nm, "%.*s", std::min(nl, 60), dsname);
    o.name = nm;
    o.name_l = nl;
    blankcopy(o.dstype, "DATA", 8);
    o.mode = DA_OMOUTPUT;
    o.blocksize = cr->blocksize > 0 ? cr->blocksize : 8192;
    o.partsize = cr->partsize > 0 ? cr->partsize : 0;
    o.encoding_cei = cr->encoding_cei > 0 ? cr->encoding_cei : NLS_CEI_UTF8;
    blankcopy(o.locale, cr->locale && *cr->locale ? cr->locale : "en_US", 32);
    memcpy(o.who_created, WHO_MODIFIED, 8);
    memcpy(o.who_modified, WHO_MODIFIED, 8);
    o.credate = static_cast<double>(time(nullptr));
    if (cr->label && *cr->label) {
        o.label_l = static_cast<int16_t>(std::min<size_t>(strlen(cr->label), 256));
        memcpy(o.label, cr->label, o.label_l);
    }
    const char* comp = cr->compress && *cr->compress ? cr->compress : nullptr;
    const char* enc = cr->encrypt && *cr->encrypt ? cr->encrypt : nullptr;
    if (comp && enc) {
        char a[8], b[8];
        blankcopy(a, comp, 8);
        blankcopy(b, enc, 8);
        for (int i = 0; i < 8; ++i)
            if (toupper(static_cast<unsigned char>(a[i])) != toupper(static_cast<unsigned char>(b[i]))) {
                freespfid(s);
                return DA_BADARG;
            }
    }
    if (comp || enc) {
        blankcopy(o.diskcomp, comp ? comp : enc, 8);
        if (comp) o.flags |= DA_OFCOMPRESS;
        if (enc) o.flags |= DA_OFENCRYPT;
        // A longer key would be cut to its first 12 characters unseen.
        if (enc && (!fillkey(o, cr->ekey) || strlen(cr->ekey) > SP_KEYLEN)) {
            freespfid(s);
            return DA_BADARG;
        }
    }

    rctype rc = lp->mt->openfid(lp, &o, &s->dafid);
    if (rc < 0) {
        s->dafid = nullptr;
        rc = wrap(s, rc);
        freespfid(s);
        return rc;
    }
    rctype drc = s->dafid->mt->defvars(s->dafid, nvars, vars);
    if (drc < 0) {
        // Nothing half made is left: the new table goes again.
        daignore(s->dafid->mt->closefid(s->dafid));
        s->dafid = nullptr;
        daignore(lp->mt->del(lp, nm, "DATA    "));
        rc = wrap(s, drc);
        freespfid(s);
        return rc;
    }
    *newfid = s;
    return rc > 0 ? rc : 0;
}

}  // namespace vrta

extern "C" {

int vrtacreate(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, void** newfid) {
    return spcreate(vlib, dsname, dsnamelen, cr, newfid);
}

int vrtainfo(void* vfid, int which, void* ibuf) {
    SP_FID* s = spfidof(vfid);
    if (which < 0 || which > 14) return -1;
    if (!s || !s->dafid || !ibuf) return DA_BADARG;
    DA_FID* fp = s->dafid;
    const DA_XOEODS& x = *fp->xoehdr;
    auto put32 = [&](int32_t v) { memcpy(ibuf, &v, 4); };
    switch (which) {
    case 0: put32(x.obslen); break;
    case 1: {
        int64_t n = x.numobs;
        memcpy(ibuf, &n, 8);
        break;
    }
    case 2: {
        VRTAINFO vi;
        memset(&vi, 0, sizeof vi);
        memcpy(vi.dstype, x.dstype, 8);
        vi.numobs = x.numobs;
        vi.numdelete = x.numdelete;
        vi.partsize = x.partsize;
        vi.partfactor = x.partfactor;
        vi.idxsegsize = x.idxsegsize;
        vi.numvar = fp->numvar;
        vi.obslen = x.obslen;
        vi.blocksize = fp->blocksize;
        vi.blockfactor = fp->blockfactor;
        vi.numindex = fp->numindex;
        blankcopy(vi.diskcomp, "", 8);
        blankcopy(vi.encrypt, "", 8);
        if (x.flags & DA_XOECOMP) memcpy(vi.diskcomp, x.diskcomp, 8);
        if (x.flags & DA_XOECRYPT) memcpy(vi.encrypt, x.diskcomp, 8);
        vi.label_l = x.label_l;
        memcpy(vi.label, x.label, std::clamp<int>(x.label_l, 0, 256));
        memcpy(ibuf, &vi, sizeof vi);
        break;
    }
    case 3: put32(fp->numindex); break;
    case 4: {
        // The names from the index records of the MDF.
        DA_FCB* fcb = fcbof(fp);
        auto* out = static_cast<u_sname*>(ibuf);
        std::vector<char> rec(65536);
        da_off_t off = fcb->dshdr.links[DA_LNKIDX];
        for (int i = 0; i < fp->numindex && off > 0; ++i) {
            auto* r = reinterpret_cast<DA_IDXODS*>(rec.data());
            rctype rc = dardidx(fcb->mdfio, r, static_cast<int>(rec.size()), off);
            if (rc < 0) return wrap(s, rc);
            u_sname n;
            n.len = static_cast<int16_t>(std::clamp<int>(r->name_l, 0, 32));
            blankcopy(n.name, "", 32);
            memcpy(n.name, r->name, n.len);
            memcpy(&out[i], &n, sizeof n);
            off = r->nextOff;
        }
        break;
    }
    case 5: memcpy(ibuf, &s->dsname, sizeof(u_sname)); break;
    case 6: put32(x.encoding_cei); break;
    case 7: {
        u_sname n;
        blankcopy(n.name, "", 32);
        int l = 32;
        while (l > 0 && (x.locale[l - 1] == ' ' || x.locale[l - 1] == '\0')) --l;
        n.len = static_cast<int16_t>(l);
        memcpy(n.name, x.locale, l);
        memcpy(ibuf, &n, sizeof n);
        break;
    }
    case 8: memcpy(ibuf, &fp, sizeof fp); break;
    case 9: put32(x.obslen + 8); break;
    case 10: put32(x.transfersize); break;
    case 11: put32(x.transferfactor); break;
    case 12: put32((x.flags & DA_XOEVSTAT) ? 1 : 0); break;
    case 13: put32(s->oflags); break;
    case 14: {
        // The columns in key order; a descending one is marked in its own
        // description, since the sort record holds column numbers only.
        VRTASORTINFO si{};
        const DA_SORTINFO* so = fp->sortinfo;
        si.nvars = so ? std::clamp(so->nvars, 0, 128) : 0;
        for (int k = 0; k < si.nvars; ++k) {
            int v = so->nvar0[k];
            bool desc = v >= 1 && v <= fp->numvar && fp->vars[v - 1].sort < 0;
            si.var[k] = desc ? -v : v;
        }
        memcpy(ibuf, &si, sizeof si);
        break;
    }
    }
    return 0;
}

int vrtagetnpp(void* vfid, int nvar0, VRTA_NAMESTR** npp) {
    static_assert(sizeof(VRTA_NAME7) == sizeof(DA_NAME7ODS));
    static_assert(sizeof(VRTA_NAMESTR) == sizeof(DA_NAMESTR));
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !npp) return DA_BADARG;
    if (nvar0 < 1 || nvar0 > s->dafid->numvar) return SP_BADVAR;
    *npp = reinterpret_cast<VRTA_NAMESTR*>(&s->dafid->vars[nvar0 - 1]);
    return 0;
}

int vrtagrow(void* vfid, int64_t numadd) {
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || numadd < 0) return DA_BADARG;
    DA_FID* fp = s->dafid;
    DA_FCB* fcb = fcbof(fp);
    DA_XOEODS& x = fcb->xoe;
    if (x.flags & (DA_XOECOMP | DA_XOECRYPT)) return DA_INTERNAL;
    if (numadd == 0) return 0;
    rctype rc = fp->mt->force(fp, 3);
    if (rc < 0) return wrap(s, rc);
    DA_FD* fd = fcb->dffd;
    da_off_t startsize = *fd->filesize;
    bool transfer = (x.flags & DA_XOEEXPORT) != 0;
    int64_t tf = x.transferfactor > 0 ? x.transferfactor : 1;
    auto endof = [&](int64_t row) -> da_off_t {
        if (transfer) return (row + tf - 1) / tf * x.transfersize;
        return row * static_cast<da_off_t>(x.odsreclen);
    };
    int64_t pf = x.partfactor;
    int64_t row = x.numobs, remain = numadd;
    // Steps never cross a partition boundary; a full partition is followed
    // by a new one before the next step.
    while (remain > 0) {
        if (pf > 0 && row > 0 && row % pf == 0) {
            rc = fd->fdcntl(fd, DA_FDNEWPART, nullptr);
            if (rc < 0) break;
        }
        int64_t step = pf > 0 ? std::min(remain, pf - row % pf) : remain;
        da_off_t size = endof(row + step);
        rc = fd->fdcntl(fd, DA_FDGROW, &size);
        if (rc < 0) break;
        row += step;
        remain -= step;
    }
    if (rc < 0) {
        rctype trc = fd->fdtrunc(fd, startsize);
        if (trc < 0) hsprint("Failed to truncate file to start size: Reason=%s\n", hsstrer(trc));
        return wrap(s, rc);
    }
    x.numobs += numadd;
    fcb->flags |= DA_FCBXOE;
    rc = fp->mt->force(fp, 1);
    return rc < 0 ? wrap(s, rc) : 0;
}

int spdelete(void* vlib, const char* dsname, int dsnamelen) {
    auto* lp = static_cast<DA_LIB*>(vlib);
    int nl = namelen(dsname, dsnamelen);
    if (!lp || nl <= 0 || nl > 32) return DA_BADARG;
    char nm[33];
    snprintf(nm, sizeof nm, "%.*s", nl, dsname);
    rctype rc = lp->mt->del(lp, nm, "DATA    ");
    return rc < 0 ? spmkerr(nm, nl, rc) : rc;
}

int spopendir(void* vlib, void** newdir) {
    auto* lp = static_cast<DA_LIB*>(vlib);
    if (!lp || !newdir) return DA_BADARG;
    DA_DIRH* dh = nullptr;
    rctype rc = lp->mt->opdir(lp, 0, &dh);
    if (rc < 0) return rc;
    // The directory handle needs its library's methods to read and close.
    void** h = static_cast<void**>(malloc(2 * sizeof(void*)));
    if (!h) {
        daignore(lp->mt->cldir(dh));
        return SP_NOMEM;
    }
    h[0] = lp;
    h[1] = dh;
    *newdir = h;
    return 0;
}

int spreaddir(void* vdir, char* name, int* nlen) {
    void** h = static_cast<void**>(vdir);
    if (!h || !name) return DA_BADARG;
    auto* lp = static_cast<DA_LIB*>(h[0]);
    for (;;) {
        DA_DIRENT e{};
        rctype rc = lp->mt->rddir(static_cast<DA_DIRH*>(h[1]), &e);
        if (rc != 0) return rc;
        if (memcmp(e.type, "DATA    ", 8) != 0 || e.memtype != 0) continue;
        int l = std::clamp(e.namelen, 0, 32);
        memcpy(name, e.name, l);
        name[l] = 0;
        if (nlen) *nlen = l;
        return 0;
    }
}

int spclosedir(void* vdir) {
    void** h = static_cast<void**>(vdir);
    if (!h) return DA_BADARG;
    rctype rc = static_cast<DA_LIB*>(h[0])->mt->cldir(static_cast<DA_DIRH*>(h[1]));
    free(h);
    return rc;
}

int vrtapartinfo(void* vfid, int which, int pno, char* path, int pathlen, int64_t* size) {
    DA_FCB* fcb = fcbofsp(vfid);
    if (!fcb || (which != 0 && which != 1) || pno < 0) return DA_BADARG;
    DA_FD* fd = which == 0 ? fcb->dffd : fcb->mdfd;
    if (!fd) return DA_EOF;
    DA_FDPSTAT ps{};
    rctype rc = fd->fdpstat(fd, pno, &ps);
    if (rc == DA_BADARG) return DA_EOF;
    if (rc < 0) return rc;
    if (path && pathlen > 0) snprintf(path, pathlen, "%s", ps.name);
    if (size) {
        struct stat st;
        *size = stat(ps.name, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
    }
    return 0;
}

}  // extern "C"

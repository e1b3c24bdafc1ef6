// Openers of a table: the library's openfid, the method tables by mode, and
// the per-opener methods (reopen, close, force, truncate, sort and backup
// information, dynamic sharing).
#include <unistd.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/daidx.h"
#include "sda/danames.h"
#include "sda/darc.h"

namespace vrta {

// Weak: the cursor layer may not be linked into a storage-only test.
[[nodiscard]] rctype dargioc(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype dafgioc(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype davgioc(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype dabgioc(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype dancgio(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype daacgio(DA_FID*, int, DA_IOCB**) __attribute__((weak));
[[nodiscard]] rctype daflvbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype daflfbcb(DA_FCB*) __attribute__((weak));

void (*da_writehook)(const char* what) = nullptr;

DA_FIDMT fidmt_r;
DA_FIDMT fidmt_l;
DA_FIDMT fidmt_f;

namespace {

[[nodiscard]] rctype nocursor(DA_FID*, int, DA_IOCB**) { return DA_INTERNAL; }

// Slots a mode forbids; one signature each, all giving the same answer.
[[nodiscard]] rctype f_close(DA_FID* fp);
[[nodiscard]] rctype f_reopen(DA_FID*, DA_OPNSTR*) { return DA_STATELOST; }
[[nodiscard]] rctype f_int(DA_FID*, int) { return DA_STATELOST; }
[[nodiscard]] rctype f_defv(DA_FID*, int, DA_NAMESTR*) { return DA_STATELOST; }
[[nodiscard]] rctype f_gio(DA_FID*, int, DA_IOCB**) { return DA_STATELOST; }
[[nodiscard]] rctype f_ptr(DA_FID*, void*) { return DA_STATELOST; }
[[nodiscard]] rctype f_add(DA_FID*, const char*, int, int, const int32_t*) { return DA_STATELOST; }
[[nodiscard]] rctype f_name(DA_FID*, const char*, int) { return DA_STATELOST; }
[[nodiscard]] rctype f_repl(DA_FID*, const char*, const char*, int) { return DA_STATELOST; }
[[nodiscard]] rctype f_open(DA_FID*, const char*, int, DA_IDX**) { return DA_STATELOST; }
[[nodiscard]] rctype f_query(DA_FID*, int, int, DA_KEYSTR*) { return DA_STATELOST; }
[[nodiscard]] rctype f_qicb(DA_FID*, const char*, DA_KEYSTR*) { return DA_STATELOST; }
[[nodiscard]] rctype f_kst(DA_FID*, const char*, const DA_KEYSTAT*) { return DA_STATELOST; }
[[nodiscard]] rctype f_obs(DA_FID*, hs_obsno_t) { return DA_STATELOST; }
[[nodiscard]] rctype f_dmp(DA_FID*, DA_DMP**) { return DA_STATELOST; }
[[nodiscard]] rctype f_sin(DA_FID*, const DA_SORTINFO*) { return DA_STATELOST; }
[[nodiscard]] rctype f_drop(DA_FID*, int, const int32_t*) { return DA_STATELOST; }
[[nodiscard]] rctype f_bkup(DA_FID*, const DA_BACKUPINFO*) { return DA_STATELOST; }
[[nodiscard]] rctype f_info(DA_FID*, int, void*, int) { return DA_STATELOST; }
[[nodiscard]] rctype f_cdf(DA_FID*, int, hs_obsno_t, hs_obsno_t*) { return DA_STATELOST; }
[[nodiscard]] rctype f_pw(DA_FID*, const char*, int) { return DA_STATELOST; }

[[nodiscard]] rctype n_ptr(DA_FID*, void*) { return DA_BADARG; }
[[nodiscard]] rctype n_cdf(DA_FID*, int, hs_obsno_t, hs_obsno_t*) { return DA_BADARG; }
[[nodiscard]] rctype n_pw(DA_FID*, const char*, int) { return 0; }
[[nodiscard]] rctype n_share(DA_FID*, int) { return DA_BADARG; }
[[nodiscard]] rctype n_delobs(DA_FID*, hs_obsno_t) { return DA_BADARG; }
[[nodiscard]] rctype n_defv(DA_FID*, int, DA_NAMESTR*) { return DA_BADARG; }
[[nodiscard]] rctype n_trunc(DA_FID*, hs_obsno_t) { return DA_BADARG; }
[[nodiscard]] rctype n_bkup(DA_FID*, const DA_BACKUPINFO*) { return DA_BADARG; }
[[nodiscard]] rctype n_settc(DA_FID*, int, const int32_t*) { return 0; }

[[nodiscard]] rctype f_close(DA_FID* fp) { return darclos(fp); }

void filltable(DA_FIDMT* mt, bool writer) {
    mt->closefid = darclos;
    mt->reopenfid = darropn;
    mt->force = dalforc;
    mt->fix = darfix;
    mt->defvars = writer ? daldefv : n_defv;
    mt->getiocb = dargioc ? dargioc : nocursor;
    mt->addidx = daadidx;
    mt->dropidx = dadridx;
    mt->replaceidx = darpidx;
    mt->openidx = daopidx;
    mt->queryidx = daqyidx;
    mt->queryicb = daqyicb;
    mt->setkeystat = dastkst;
    mt->delobs = n_delobs;
    mt->getdelmap = dagetdelmap;
    mt->truncobs = writer ? datrobs : n_trunc;
    mt->setsortinfo = darssin;
    mt->dropvars = dadrvar;
    mt->setshare = n_share;
    mt->setbackup = writer ? darsbkup : n_bkup;
    mt->getinfo = dargetinfo;
    mt->getcdfobs = n_cdf;
    mt->vercryptpw = n_pw;
    mt->setrange = n_ptr;
    mt->settranscodenvar0 = n_settc;
}

void fillfatal(DA_FIDMT* mt) {
    mt->closefid = f_close;  // closing is all a lost table allows
    mt->reopenfid = f_reopen;
    mt->force = f_int;
    mt->fix = f_int;
    mt->defvars = f_defv;
    mt->getiocb = f_gio;
    mt->addidx = f_add;
    mt->dropidx = f_name;
    mt->replaceidx = f_repl;
    mt->openidx = f_open;
    mt->queryidx = f_query;
    mt->queryicb = f_qicb;
    mt->setkeystat = f_kst;
    mt->delobs = f_obs;
    mt->getdelmap = f_dmp;
    mt->truncobs = f_obs;
    mt->setsortinfo = f_sin;
    mt->dropvars = f_drop;
    mt->setshare = f_int;
    mt->setbackup = f_bkup;
    mt->getinfo = f_info;
    mt->getcdfobs = f_cdf;
    mt->vercryptpw = f_pw;
    mt->setrange = f_ptr;
    mt->settranscodenvar0 = n_settc;
}

[[nodiscard]] rctype closefidlink(DA_LINK* l) {
    DA_FIDP* fp = fidpoflink(l);
    return fp->mt->closefid(fp);
}

void lowername(const char* in, int len, char* out) {
    for (int i = 0; i < len; ++i) out[i] = static_cast<char>(tolower(static_cast<unsigned char>(in[i])));
    out[len] = '\0';
}

// Holds libLock unless this thread already does (dalklib nests).
struct LibLock {
    DA_LIB* lp;
    explicit LibLock(DA_LIB* l) : lp(l) { dalklib(lp); }
    ~LibLock() { daullib(lp); }
};

// The opener's views into the shared block.
void setviews(DA_FIDP* fp, DA_FCB* fcb, DA_OPNSTR* ostr) {
    fp->xoehdr = &fcb->xoe;
    fp->vars = fcb->vars;
    fp->allvars = fcb->vars;
    fp->numvar = fcb->xoe.nvar;
    fp->numindex = fcb->xoe.nindexes;
    fp->indexes = fp->allindexes = fcb->indexes;
    fp->keytab = fcb->keytab;
    fp->lib = fcb->lib;
    fp->owninfo = reinterpret_cast<DA_OWNINFO*>(&fcb->owner.tokenLen);
    fp->keysum = fcb->keysum;
    fp->segsize = fcb->xoe.idxsegsize;
    fp->version = fcb->xoe.ods.version;
    fp->rv_120 = fcb->reqvec;
    fp->nlsenv = fcb->nlsenv;
    fp->constr = fcb->constr;
    fp->backup = (fcb->xoe.flags & DA_XOEBACKUP) ? &fcb->backup.binfo : nullptr;
    // A writer sees the shared sort information; a reader keeps its own copy.
    if (fp->mode == DA_OMINPUT) {
        fp->sortcopy = fcb->sort.sortinfo;
        fp->sortinfo = &fp->sortcopy;
    } else {
        fp->sortinfo = &fcb->sort.sortinfo;
    }
    if (!dagcb.nlstranscode) fp->fidflags |= DA_FIDNOTRANS;
    if (ostr->flags & DA_OFDYNAMIC) fp->fidflags |= DA_FIDDYNAMIC;
}

// blockfactor and blocksize of this opener (the table's unless asked).
void setblocking(DA_FIDP* fp, DA_FCB* fcb, DA_OPNSTR* ostr) {
    const DA_XOEODS& x = fcb->xoe;
    fp->blockfactor = x.blockfactor;
    fp->blocksize = x.blocksize;
    if (ostr->mode == DA_OMOUTPUT || ostr->blocksize <= 0 || x.ioreclen <= 0) return;
    if (x.flags & (DA_XOECOMP | DA_XOECRYPT)) {
        int32_t m = x.blocksize > 0 ? ostr->blocksize / x.blocksize : 1;
        fp->blockfactor = (m < 1 ? 1 : m) * x.blockfactor;
        fp->blocksize = fp->blockfactor * x.ioreclen;
    } else {
        int32_t bf = ostr->blocksize / x.ioreclen;
        fp->blockfactor = bf < 1 ? 1 : bf;
        fp->blocksize = fp->blockfactor * x.ioreclen;
    }
}

void setcursor(DA_FIDP* fp, DA_FCB* fcb) {
    DA_FIDMT* mt = &fp->mtcopy;
    auto pick = [](rctype (*f)(DA_FID*, int, DA_IOCB**)) { return f ? f : nocursor; };
    switch (fcb->xoe.semtype) {
    case DA_SEMVRTAACL: mt->getiocb = pick(daacgio); break;
    case DA_SEMZCRYPT: mt->getiocb = pick(dancgio); break;
    case DA_SEMXCVBS: mt->getiocb = pick(davgioc); break;
    case DA_SEMXCFBS: mt->getiocb = pick(dafgioc); break;
    default: mt->getiocb = (fcb->xoe.flags & DA_XOEEXPORT) ? pick(dabgioc) : pick(dargioc); break;
    }
    mt->getdelmap = dagetdelmap;
    if (fp->mode == DA_OMUPDATE) mt->delobs = dadodmp;
}

// Fills the request with the table's properties for a caller that opened it.
void fillostr(DA_OPNSTR* o, const DA_FCB* fcb) {
    const DA_XOEODS& x = fcb->xoe;
    memcpy(o->dstype, x.dstype, 8);
    o->sysid = x.sysid;
    o->idxsegsize = x.idxsegsize;
    o->dsorg = x.dsorg;
    memcpy(o->diskcomp, x.diskcomp, 8);
    memcpy(o->who_created, x.who_created, 8);
    o->credate = x.credate;
    o->semtype = x.semtype;
    o->label_l = x.label_l;
    memcpy(o->label, x.label, sizeof o->label);
    o->lang = x.lang;
    o->ltype = x.ltype;
    o->partsize = x.partsize;
    o->encoding_cei = x.encoding_cei;
    memcpy(o->locale, x.locale, sizeof o->locale);
    o->transfersize = x.transfersize;
    o->transferquantum = x.transferquantum;
}

}  // namespace

int64_t dalcm32(int64_t bf) {
    if (bf <= 0) return 32;
    int64_t p = 1;
    while (p < 32 && bf % (p * 2) == 0) p *= 2;
    return bf / p * 32;
}

[[nodiscard]] rctype dafidmtini(DA_GCB* gcb) {
    filltable(&fidmt_r, false);
    filltable(&fidmt_l, true);
    fillfatal(&fidmt_f);
    gcb->fidmt_r = &fidmt_r;
    gcb->fidmt_l = &fidmt_l;
    gcb->fidmt_f = &fidmt_f;
    gcb->closefid = closefidlink;
    gcb->libmt_r.openfid = daopen;
    gcb->libmt_d.openfid = daopen;
    return 0;
}

[[nodiscard]] rctype daopen(DA_LIB* lp, DA_OPNSTR* ostr, DA_FID** newfp) {
    if (!lp || !ostr || !newfp) return DA_BADARG;
    *newfp = nullptr;
    bool create = ostr->mode == DA_OMOUTPUT;
    bool acl = ostr->semtype == DA_SEMVRTAACL;
    if (acl || (create && (ostr->flags & (DA_OFCOMPRESS | DA_OFENCRYPT)))) {
        ostr->transfersize = 0;
        ostr->transferquantum = 0;
    }
    if (create) {
        if (ostr->flags & DA_OFCLUSTER) return DA_WRONGKIND;  // clusters are not built here
        return daropen(lp, ostr, newfp);
    }
    if (!ostr->name || ostr->name_l <= 0) return DA_BADARG;
    int kind = 0;
    char nm[64];
    snprintf(nm, sizeof nm, "%.*s", ostr->name_l, ostr->name);
    rctype rc = dafindds(lp, nm, &kind);
    if (rc < 0) return rc;
    if (kind != 0) return DA_INTERNAL;
    return daropen(lp, ostr, newfp);
}

[[nodiscard]] rctype daropen(DA_LIB* lib, DA_OPNSTR* ostr, DA_FID** newfp) {
    DA_LIBP* lp = static_cast<DA_LIBP*>(lib);
    *newfp = nullptr;
    if (ostr->mode < DA_OMINPUT || ostr->mode > DA_OMUTIL) return DA_BADARG;
    if (ostr->mode != DA_OMINPUT && lib->perm != DA_PERMRDWR) return DA_ACCESS;
    // A table created without a name gets one made up.
    char genname[33];
    if (ostr->mode == DA_OMOUTPUT) {
        int nl = ostr->name ? ostr->name_l : 0;
        while (nl > 0 && ostr->name[nl - 1] == ' ') --nl;
        if (nl <= 0) {
            damkmdfn(0, dagfuid(dagenseq()), getpid(), genname);
            ostr->name = genname;
            ostr->name_l = static_cast<int>(strlen(genname));
        }
    }
    if (ostr->name_l <= 0 || ostr->name_l > 32) return DA_BADARG;

    auto* fp = static_cast<DA_FIDP*>(calloc(1, sizeof(DA_FIDP)));
    if (!fp) return DA_NOMEM;
    fp->mode = ostr->mode;
    fp->timeout = ostr->timeout;
    fp->link.fid = fp;
    fp->fcblink.fid = fp;
    mutex_init(&fp->iocbLock);
    mutex_init(&fp->indexLock);
    fp->mtcopy = ostr->mode == DA_OMINPUT ? fidmt_r : fidmt_l;
    if (ostr->mode == DA_OMUTIL) fp->mtcopy.defvars = dalupdv;
    if (ostr->flags & DA_OFDYNAMIC) {
        fp->mtcopy.setshare = dasetshare;
        fp->lcb = ostr->lcb;
    }
    fp->mt = &fp->mtcopy;

    char iname[33];
    lowername(ostr->name, ostr->name_l, iname);

    // A dynamic opener brings the member lock; any other takes its own.
    rctype rc = 0;
    if (!(ostr->flags & DA_OFDYNAMIC)) {
        char nm[33];
        snprintf(nm, sizeof nm, "%.*s", ostr->name_l, ostr->name);
        pid_t owner = 0;
        rc = dalkmem(lib, nm, "DATA    ", DA_LKMEMBER, ostr->mode, thr_self(), 0, &fp->memlid, &owner);
        if (rc < 0) {
            mutex_destroy(&fp->iocbLock);
            mutex_destroy(&fp->indexLock);
            free(fp);
            return rc;
        }
    }

    rctype warn = 0;
    DA_FCB* fcb = nullptr;
    {
        LibLock guard(lib);
        dalinkadd(&lp->fids, &fp->link.link);
        fcb = dalufcb(lp, iname);
        if (ostr->mode == DA_OMOUTPUT) {
            if (fcb) rc = DA_EXISTS;
            else {
                if (ostr->blocksize <= 0) ostr->blocksize = 8192;
                rc = dacrfcb(lp, ostr, &fcb);
            }
        } else if (fcb) {
            fcb->refCount++;
            rc = darofcb(fcb, ostr->mode, ostr->flags);
            if (rc < 0) {
                // darofcb freed a lost FCB; a healthy one gives back our count.
                if (rc != DA_STATELOST) fcb->refCount--;
                fcb = nullptr;
            }
        } else {
            rc = daopfcb(lp, ostr, &fcb);
        }
        if (rc >= 0) {
            warn = rc;
            fp->fcb = fcb;
            dalinkadd(&fcb->fids, &fp->fcblink.link);
        } else {
            dalinkdel(&fp->link.link);
        }
    }
    if (rc < 0) {
        if (fp->memlid) daignore(daulmem(lib, fp->memlid, DA_LKMEMBER, ostr->mode, thr_self()));
        mutex_destroy(&fp->iocbLock);
        mutex_destroy(&fp->indexLock);
        free(fp);
        return rc;
    }
    if (ostr->mode != DA_OMOUTPUT) fillostr(ostr, fcb);
    setblocking(fp, fcb, ostr);
    setviews(fp, fcb, ostr);
    setcursor(fp, fcb);
    *newfp = fp;
    return warn;
}

[[nodiscard]] rctype darropn(DA_FID* f, DA_OPNSTR* ostr) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (ostr->mode == DA_OMOUTPUT || ostr->mode < 0 || ostr->mode > DA_OMUTIL) return DA_BADARG;
    mutex_lock(&fp->iocbLock);
    int nio = fp->iocbCount;
    mutex_unlock(&fp->iocbLock);
    if (nio) return DA_BADARG;
    if (ostr->mode == fp->mode) return 0;
    if ((fcb->xoe.flags & 0x100) && ostr->gennum_max > 0 && ostr->mode == DA_OMUTIL) return DA_BADGENUTIL;
    LibLock guard(fp->lib ? fp->lib : fcb->lib);
    rctype rc = 0;
    // After output the table takes the name asked for now, which renames a temporary.
    if (fp->mode == DA_OMOUTPUT && ostr->name && ostr->name_l > 0 && ostr->name_l <= 32) {
        char iname[33];
        lowername(ostr->name, ostr->name_l, iname);
        if (strcmp(iname, fcb->iname) != 0) {
            rc = daflfcb(fcb);
            if (rc < 0) return rc;
            char dn[48], mn[48];
            int dl = dadsnam(1, iname, -1, nullptr, 0, dn), ml = dadsnam(0, iname, -1, nullptr, 0, mn);
            // The MDF last, as a rename of a member does.
            rc = fcb->dffd->fdrename(fcb->dffd, fcb->dshdr.links[DA_LNKDPFFIB], dn, dl);
            if (rc >= 0) rc = fcb->mdfd->fdrename(fcb->mdfd, -1, mn, ml);
            if (rc < 0) return rc;
            snprintf(fcb->name, sizeof fcb->name, "%.*s", ostr->name_l, ostr->name);
            snprintf(fcb->iname, sizeof fcb->iname, "%s", iname);
            fcb->inameLen = static_cast<int>(strlen(iname));
        }
    }
    if (fp->mode == DA_OMUPDATE || fp->mode == DA_OMUTIL) {
        rc = daflfcb(fcb);
        if (rc >= 0) rc = dauprev(fcb);
        if (rc < 0) return rc;
    }
    if (fp->memlid) {
        pid_t owner = 0;
        rc = daconlk(fp->lib, fp->memlid, DA_LKMEMBER, fp->mode, ostr->mode, thr_self(), &owner);
        if (rc < 0) return rc;
    }
    int oldmode = fp->mode;
    fp->mode = ostr->mode;
    fcb->refCount++;  // held across darofcb so that a failure there cannot free it under us
    rc = darofcb(fcb, ostr->mode, ostr->flags);
    if (rc == DA_STATELOST) return rc;
    fcb->refCount--;
    if (rc < 0) {
        fp->mode = oldmode;
        return rc;
    }
    fp->mtcopy = fp->mode == DA_OMINPUT ? fidmt_r : fidmt_l;
    if (fp->mode == DA_OMUTIL) fp->mtcopy.defvars = dalupdv;
    if (fp->fidflags & DA_FIDDYNAMIC) fp->mtcopy.setshare = dasetshare;
    setcursor(fp, fcb);
    setviews(fp, fcb, ostr);
    return rc;
}

[[nodiscard]] rctype darclos(DA_FID* f) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    DA_LIB* lib = fcb ? fcb->lib : fp->lib;
    rctype rc = 0;
    LibLock guard(lib);
    if (fcb && fp->indexList) rc = daclfidx(fp);
    if (fp->cvb && fcb) {
        dafreecvb(&fcb->cvblist, fp->cvb);
        fp->cvb = nullptr;
    }
    if (fp->dmpCount) {
        hsprint("darclos: delete map count not zero: Table=%s Count=%d\n", fcb ? fcb->name : "?", fp->dmpCount);
        rc = DA_INTERNAL;
    }
    if (fcb && fcb->shareLockInit && fp->lcb) {
        // A dynamic writer's last flush and revision update are changes like
        // any other: other processes must not read while they are made. A
        // reader's hold ends here.
        bool last = fcb->refCount == 1;
        rctype src = 0;
        if (fp->smode == DA_SHRREAD || (fp->smode == DA_SHRUPDATE && !last)) src = dasetshare(fp, DA_SHRCLEAR);
        if (src >= 0 && fp->mode != DA_OMINPUT && fp->smode == 0) {
            src = dasetshare(fp, DA_SHRUPDATE);
            if (src >= 0 && !last) {
                src = dalforc(fp, 0);
                rctype crc = dasetshare(fp, DA_SHRCLEAR);
                if (src >= 0) src = crc;
            }
        }
        if (src < 0) rc = src;
    }
    int disp = 1 | (fp->smode == 2 ? 4 : 0);
    if (fcb) {
        // A writer that is not the last opener still commits what it wrote.
        if (fp->mode != DA_OMINPUT && fcb->refCount > 1) {
            rctype frc = dalforc(fp, 0);
            if (frc < 0) rc = frc;
        }
        if (fp->fidflags & DA_FIDNOREV) fcb->flags |= DA_FCBNOREV;
        dalinkdel(&fp->fcblink.link);
        rctype frc = dafrfcb(fcb, disp);
        if (frc < 0) rc = frc;
    }
    if (fp->smode == 2 && fp->lcb) {
        rctype drc = dalkdyn(fp->lcb, 0);
        if (drc < 0 && rc >= 0) rc = drc;
    }
    if (fp->memlid) {
        rctype lrc = daulmem(lib, fp->memlid, DA_LKMEMBER, fp->mode, thr_self());
        if (lrc < 0 && rc >= 0) rc = lrc;
    }
    dalinkdel(&fp->link.link);
    mutex_destroy(&fp->iocbLock);
    mutex_destroy(&fp->indexLock);
    free(fp);
    return rc;
}

[[nodiscard]] rctype darfix(DA_FID* fp, int) {
    rctype rc = daflfcb(fcbof(fp));
    return rc < 0 ? rc : dasyncfcb(fcbof(fp));
}

[[nodiscard]] rctype dalforc(DA_FID* fp, int flags) {
    DA_FCB* fcb = fcbof(fp);
    if (flags & 1) fcb->flags |= DA_FCBXOE;
    if (flags & 4) fcb->flags |= DA_FCBIDX;
    if (flags & 8) fcb->flags |= DA_FCBOWNER;
    // Blocks of an exit table before the description that counts their rows.
    rctype brc = 0;
    if (fcb->vbcb && daflvbcb) brc = daflvbcb(fcb);
    else if (fcb->fbcb && daflfbcb) brc = daflfbcb(fcb);
    if (brc < 0) return brc;
    rctype rc = daflfcb(fcb);
    // A force is a commit: it lasts through a power loss once it returns.
    return rc < 0 ? rc : dasyncfcb(fcb);
}

[[nodiscard]] rctype datrobs(DA_FID* fp, hs_obsno_t numobs) {
    DA_FCB* fcb = fcbof(fp);
    if (numobs < 0 || numobs > fcb->xoe.numobs) return DA_BADARG;
    // Only plain and encoded rows sit at numobs x odsreclen in the data file;
    // a block or transfer-format table cannot be cut by a row count.
    if (fcb->xoe.semtype == DA_SEMXCVBS || fcb->xoe.semtype == DA_SEMXCFBS || (fcb->xoe.flags & DA_XOEEXPORT))
        return DA_BADARG;
    // The smaller count reaches the disk before the rows go: a power loss in
    // between leaves rows past numobs, never numobs over rows that are gone.
    hs_obsno_t had = fcb->xoe.numobs;
    fcb->xoe.numobs = numobs;
    rctype rc = dawrfcbxoe(fcb);
    if (rc < 0) {
        fcb->xoe.numobs = had;
        return rc;
    }
    rc = dasyncfcb(fcb);
    if (rc < 0) return rc;
    return fcb->dffd->fdtrunc(fcb->dffd, numobs * fcb->xoe.odsreclen);
}

[[nodiscard]] rctype darssin(DA_FID* f, const DA_SORTINFO* sinfo) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (!sinfo || sinfo->nvars < 0 || sinfo->nvars > 128 ||
        dachknvar0(sinfo->nvar0, sinfo->nvars, fcb->xoe.nvar) < 0)
        return DA_BADARG;
    if (fp->mode == DA_OMINPUT) {
        fp->sortcopy = *sinfo;
        return 0;
    }
    fcb->sort.sortinfo = *sinfo;
    da_off_t off = fcb->dshdr.links[DA_LNKSIN];
    if (da_writehook) da_writehook("sort");
    rctype rc = dawrods(fcb->mdfio, &fcb->sort, &off);
    if (rc < 0) return rc;
    return (fcb->xoe.flags & DA_ADDAVAIL) ? DA_SORTLOST : 0;
}

[[nodiscard]] rctype darsbkup(DA_FID* fp, const DA_BACKUPINFO* binfo) {
    DA_FCB* fcb = fcbof(fp);
    if (fcb->dshdr.links[DA_LNKBACKUP] < 0) return DA_INTERNAL;
    memcpy(&fcb->backup.binfo, binfo, sizeof fcb->backup.binfo);
    da_off_t off = fcb->dshdr.links[DA_LNKBACKUP];
    if (da_writehook) da_writehook("backup");
    return dawrods(fcb->mdfio, &fcb->backup, &off);
}

[[nodiscard]] rctype dargetinfo(DA_FID* fp, int what, void* buf, int len) {
    DA_FCB* fcb = fcbof(fp);
    if (what == DA_INFOXOE) {
        if (len < static_cast<int>(sizeof(DA_XOEODS))) return DA_BADARG;
        memcpy(buf, &fcb->xoe, sizeof(DA_XOEODS));
        return 0;
    }
    if (what == DA_INFOFIB) {
        if (len < 12) return DA_BADARG;
        int32_t rev = fcb->dffd->revision;
        int64_t size = *fcb->dffd->filesize;
        memcpy(buf, &rev, 4);
        memcpy(static_cast<char*>(buf) + 4, &size, 8);
        return 0;
    }
    return DA_BADARG;
}

[[nodiscard]] rctype dagetfibmodtime(DA_FID* fp, int* modtime, int* numstripes) {
    return dagetfibparms(fcbof(fp)->mdfd, modtime, numstripes);
}

[[nodiscard]] rctype dasetshare(DA_FID* f, int smode) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    int nl = fcb->inameLen;
    if (!fcb->shareLockInit || !fp->lcb) return DA_BADARG;
    rctype rc = 0;
    if (smode == DA_SHRREAD || smode == DA_SHRUPDATE) {
        const char* who = smode == DA_SHRREAD ? "SHRREAD" : "SHRUPDATE";
        if (fp->smode != 0) return DA_BADARG;
        if ((smode == DA_SHRREAD ? rw_rdlock(&fcb->shareLock) : rw_wrlock(&fcb->shareLock)) != 0) return DA_RWFAIL;
        mutex_lock(&fcb->dynupdLock);
        rc = dalkdyn(fp->lcb, smode);
        if (rc < 0) {
            hsprint("dasetshare(%s): dalkdyn failed for Table=%.*s\n", who, nl, fcb->iname);
            mutex_unlock(&fcb->dynupdLock);
            rw_unlock(&fcb->shareLock);
            return rc;
        }
        DA_FDSCB scb = {fp->timeout, 0};
        // The FIB's change stamp before and after the sync says whether another
        // process committed in between.
        int m0 = 0, s0 = 0, m1 = 0, s1 = 0;
        rc = dagetfibparms(fcb->mdfd, &m0, &s0);
        if (rc >= 0) rc = fcb->mdfd->fdcntl(fcb->mdfd, smode == DA_SHRREAD ? DA_FDSYNCRD : DA_FDSYNCWR, &scb);
        if (rc >= 0) rc = dagetfibparms(fcb->mdfd, &m1, &s1);
        if (rc < 0) {
            hsprint("dasetshare(%s): DA_FDSYNC failed for Table=%.*s\n", who, nl, fcb->iname);
        } else if (m0 != m1 || s0 != s1) {
            hsprint("dasetshare(%s): DA_FDUPDATED set for Table=%.*s\n", who, nl, fcb->iname);
            rc = darfmdf(fcb);
            DA_FDSCB s2 = {fp->timeout, 0};
            if (rc >= 0) rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDSYNCFIB, &s2);
            if (rc >= 0) rc = fcb->mdfd->fdcntl(fcb->mdfd, DA_FDSYNCREV, nullptr);
            if (rc < 0) hsprint("dasetshare(%s): darfmdf failed for Table=%.*s\n", who, nl, fcb->iname);
        }
        if (rc < 0) {
            DA_FDSCB u = {0, 1};
            daignore(fcb->mdfd->fdcntl(fcb->mdfd, DA_FDUNSYNC, &u));
            daignore(dalkdyn(fp->lcb, 0));
            mutex_unlock(&fcb->dynupdLock);
            rw_unlock(&fcb->shareLock);
            return rc;
        }
        fp->smode = smode;
        mutex_unlock(&fcb->dynupdLock);
        return 0;
    }
    if (smode != DA_SHRCLEAR) return DA_BADARG;
    if (fp->smode == 0) return 0;
    mutex_lock(&fcb->dynupdLock);
    // What a writer changed is on disk before the FIB is stamped.
    if (fp->smode == DA_SHRUPDATE) {
        rc = daflfcb(fcb);
        if (rc >= 0) rc = dasyncfcb(fcb);
        if (rc < 0) hsprint("dasetshare(SHRCLEAR): flush failed for Table=%.*s\n", nl, fcb->iname);
    }
    rctype lrc = dalkdyn(fp->lcb, 0);
    if (lrc < 0) hsprint("dasetshare(SHRCLEAR): dalkdyn failed for Table=%.*s\n", nl, fcb->iname);
    DA_FDSCB scb = {0, 0};
    rctype urc = fcb->mdfd->fdcntl(fcb->mdfd, DA_FDUNSYNC, &scb);
    if (urc < 0) hsprint("dasetshare(SHRCLEAR): DA_FDUNSYNC failed for Table=%.*s\n", nl, fcb->iname);
    fp->smode = 0;
    mutex_unlock(&fcb->dynupdLock);
    rw_unlock(&fcb->shareLock);
    return rc < 0 ? rc : lrc < 0 ? lrc : urc;
}

[[nodiscard]] rctype dawrobs(DA_FID* f, hs_obsno_t obsno, const void* rows, long n) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (fp->mode == DA_OMINPUT || !rows || n < 0 || fcb->xoe.odsreclen <= 0) return DA_BADARG;
    if (fcb->xoe.semtype != DA_SEMDATA || (fcb->xoe.flags & DA_XOEEXPORT)) return DA_WRONGKIND;
    if (obsno < 1 || obsno > fcb->xoe.numobs + 1) return DA_PASTEND;
    if (fcb->updateLockInit && rw_wrlock(&fcb->updateLock) != 0) return DA_RWFAIL;
    const char* p = static_cast<const char*>(rows);
    rctype rc = 0;
    long reclen = fcb->xoe.odsreclen;
    int64_t pf = fcb->xoe.partfactor;
    while (n > 0 && rc >= 0) {
        // Rows of one partition are complete before the next partition starts.
        long chunk = n;
        if (pf > 0) {
            hs_obsno_t boundary = pf * ((obsno - 1) / pf + 1);
            if (obsno + chunk - 1 >= boundary) chunk = static_cast<long>(boundary - obsno + 1);
            if (obsno - 1 == fcb->xoe.numobs && obsno > 1 && (obsno - 1) % pf == 0 &&
                (obsno - 1) * reclen >= *fcb->dffd->filesize) {
                if (da_writehook) da_writehook("newpart");
                rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDNEWPART, nullptr);
                if (rc < 0) break;
            }
        }
        da_off_t off = (obsno - 1) * reclen;
        if (fcb->xoe.flags & DA_XOEVSTAT) dalckvars(fcb, p, chunk);
        if (da_writehook) da_writehook("rows");
        rc = fcb->dffd->fdwrite(fcb->dffd, p, chunk * reclen, &off);
        if (rc < 0) break;
        obsno += chunk;
        p += chunk * reclen;
        n -= chunk;
        // The rows are in the file before numobs covers them.
        if (obsno - 1 > fcb->xoe.numobs) {
            fcb->xoe.numobs = obsno - 1;
            fcb->flags |= DA_FCBXOE;
        }
    }
    if (fcb->updateLockInit) rw_unlock(&fcb->updateLock);
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype dardobs(DA_FID* f, hs_obsno_t obsno, void* rows, long n, long* nread) {
    DA_FCB* fcb = fcbof(f);
    *nread = 0;
    if (obsno < 1 || n < 0 || fcb->xoe.odsreclen <= 0) return DA_BADARG;
    if (obsno > fcb->xoe.numobs) return DA_EOF;
    if (obsno - 1 + n > fcb->xoe.numobs) n = static_cast<long>(fcb->xoe.numobs - obsno + 1);
    long reclen = fcb->xoe.odsreclen;
    long got = 0;
    rctype rc = fcb->dffd->fdread(fcb->dffd, rows, n * reclen, (obsno - 1) * reclen, &got);
    if (rc < 0) return rc;
    *nread = got / reclen;
    return *nread > 0 ? 0 : DA_EOF;
}

}  // namespace vrta

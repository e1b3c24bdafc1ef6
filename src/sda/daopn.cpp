// Opening an existing table: its records into a new FCB, a shared FCB adapted
// to a new opener's mode, and the reload when another process changed it.
#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "sda/dafid.h"
#include "sda/daidx.h"
#include "sda/danames.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

[[nodiscard]] rctype dalvbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype dalfbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype darfvbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype darffbcb(DA_FCB*) __attribute__((weak));

namespace {

bool ismissing(double d) {
    uint64_t u;
    memcpy(&u, &d, 8);
    return (u >> 48) == 0xffff;
}

// Reads the table's records into the FCB (header, description, sort, owner).
[[nodiscard]] rctype rdrecords(DA_FCB* fcb) {
    rctype rc = dardsfh(fcb->mdfio, &fcb->dshdr, fcb->hdrOff);
    if (rc < 0) return rc;
    if (fcb->dshdr.ods.version != DA_DSFHEAD_VER && fcb->dshdr.ods.version != DA_DSFHEAD_VERC) return DA_BADVERSION;
    rc = dardxoe(fcb->mdfio, &fcb->xoe, fcb->dshdr.links[DA_LNKXOE]);
    if (rc < 0) return rc;
    if (fcb->xoe.semtype < 0 || fcb->xoe.semtype >= DA_SEMMAX) return DA_BADSEMTYPE;
    fcb->pubobs = fcb->xoe.numobs;
    fcb->pubnvar = fcb->xoe.nvar;
    return dachkxoe(fcb, fcb->dshdr, fcb->xoe);
}

// A revision update renames a data file's partitions before it rewrites the
// directory that names them. A crash in between leaves partitions under the
// next revision's names: they are renamed back, which completes the roll-back
// the MDF's unchanged revision already stands for. True when any was.
bool darecovrev(DA_FCB* fcb, DA_LIBP* lp, int fdflags) {
    int32_t fibsize = 0;
    DA_FIB probe;
    rctype rc = dardfib(fcb->mdfio, fdflags, fcb->dshdr.links[DA_LNKDPFFIB], &probe, sizeof probe, &fibsize, nullptr);
    if (rc != DA_TOOLONG && rc != 0) return false;
    auto* fib = static_cast<DA_FIB*>(calloc(1, fibsize));
    if (!fib) return false;
    bool any = false;
    if (dardfib(fcb->mdfio, fdflags, fcb->dshdr.links[DA_LNKDPFFIB], fib, fibsize, &fibsize, nullptr) == 0) {
        int32_t next = danextrev(fib->revision);
        const char* mdpath = lp->meta[0].path;
        for (int32_t i = 0; i < fib->numpde; ++i) {
            char full[4096], moved[4096];
            if (dapdefn(fib, i, mdpath, static_cast<int32_t>(strlen(mdpath)), full, sizeof full) < 0) continue;
            struct stat st;
            if (_UIODT->stat(full, &st) == 0) continue;
            // The same name with the next revision.
            const char* slash = strrchr(full, '/');
            DA_PFNPARTS pp;
            if (dafdpfn(slash ? slash + 1 : full, &pp, false) != 0 || pp.revno != fib->revision) continue;
            if (darevpfn(full, next, moved, sizeof moved) < 0) continue;
            if (_UIODT->stat(moved, &st) == 0 && _UIODT->rename(moved, full) == 0) {
                hsprint("daopfcb: Partition %s of an interrupted revision update renamed back\n", full);
                any = true;
            }
        }
    }
    free(fib);
    return any;
}

// A new partition's file is made before the directory that names it is
// written, and a cut partition leaves the directory before its file goes.
// A crash in between leaves a file no directory knows, and the next append
// would find its name taken. A writer that holds the table alone removes
// such files: they hold no row the table counts.
void darmorphan(DA_FCB* fcb, DA_LIBP* lp, int fdflags, int ndata) {
    int32_t fibsize = 0;
    DA_FIB probe;
    rctype rc = dardfib(fcb->mdfio, fdflags, fcb->dshdr.links[DA_LNKDPFFIB], &probe, sizeof probe, &fibsize, nullptr);
    if (rc != DA_TOOLONG && rc != 0) return;
    auto* fib = static_cast<DA_FIB*>(calloc(1, fibsize));
    if (!fib) return;
    if (dardfib(fcb->mdfio, fdflags, fcb->dshdr.links[DA_LNKDPFFIB], fib, fibsize, &fibsize, nullptr) == 0) {
        const char* mdpath = lp->meta[0].path;
        char dpf[48];
        int dl = dadsnam(1, fcb->iname, fcb->inameLen, nullptr, 0, dpf);
        for (int d = 0; d < ndata; ++d) {
            DIR* dir = opendir(lp->data[d].path);
            if (!dir) continue;
            while (dirent* e = readdir(dir)) {
                if (strncmp(e->d_name, dpf, dl) != 0 || e->d_name[dl] != '.') continue;
                // Only numbers past the directory's last can be left over from a crash.
                DA_PFNPARTS parts;
                if (dafdpfn(e->d_name, &parts, false) != 0 || parts.pno < fib->numpde) continue;
                char full[4096];
                snprintf(full, sizeof full, "%s%s%s", lp->data[d].path,
                         lp->data[d].path[strlen(lp->data[d].path) - 1] == '/' ? "" : "/", e->d_name);
                bool known = false;
                for (int32_t i = 0; i < fib->numpde && !known; ++i) {
                    char have[4096];
                    if (dapdefn(fib, i, mdpath, static_cast<int32_t>(strlen(mdpath)), have, sizeof have) == 0)
                        known = strcmp(have, full) == 0;
                }
                if (!known && _UIODT->unlink(full) == 0)
                    hsprint("daopfcb: Partition %s unknown to the table removed\n", full);
            }
            closedir(dir);
        }
    }
    free(fib);
}

}  // namespace

DA_FCB* dalufcb(DA_LIBP* lp, const char* iname) {
    for (DA_LINK* l = lp->fcbs.next; l != &lp->fcbs; l = l->next) {
        auto* fcb = reinterpret_cast<DA_FCB*>(l);
        if (strcmp(fcb->iname, iname) == 0) return fcb;
    }
    return nullptr;
}

[[nodiscard]] rctype daldv7ns(DA_FCB* fcb) {
    int32_t nvar = fcb->xoe.nvar;
    if (nvar <= 0) return 0;
    if (fcb->dshdr.links[DA_LNKSTRP] < 0 || fcb->dshdr.links[DA_LNKNAMES] < 0) return DA_INTERNAL;
    if (!fcb->phdl) {
        rctype rc = dastrpld(fcb->mdfd, fcb->dshdr.links[DA_LNKSTRP], dastrpmovedcb(), fcb, &fcb->phdl);
        if (rc < 0) return rc;
    }
    auto* v = static_cast<DA_NAME7ODS*>(calloc(nvar, sizeof(DA_NAME7ODS)));
    if (!v) return DA_NOMEM;
    rctype rc = dardnam7(fcb->mdfio, v, nvar, fcb->dshdr.links[DA_LNKNAMES]);
    if (rc == 0 && dachknam7(v, nvar) < 0) {
        hsprint("daldv7ns: Name vector entry not its own column number: Table=%s Reason=%s\n", fcb->name,
                hsstrer(DA_INTERNAL));
        rc = DA_INTERNAL;
    }
    if (rc == 0) rc = dachkvars(fcb, v, nvar);
    if (rc == 0) rc = dabldvars(fcb, nvar, v);
    free(v);
    return rc;
}

[[nodiscard]] rctype daopfcb(DA_LIBP* lp, DA_OPNSTR* ostr, DA_FCB** newfcb) {
    bool acl = ostr->semtype == DA_SEMVRTAACL;
    int mode = ostr->mode;
    DA_FCB* fcb = danewfcb(lp, ostr->name, ostr->name_l, mode);
    if (!fcb) return DA_NOMEM;
    fcb->oflags = ostr->flags;
    if (mode == DA_OMUPDATE) fcb->updateLockInit = 1;
    if (ostr->flags & DA_OFDYNAMIC) fcb->shareLockInit = 1;
    int modebit = mode ? DA_FDWRITE : DA_FDRDONLY;
    const char* pbuf[64];
    int nmeta = lp->nummeta > 64 ? 64 : lp->nummeta;

    bool dyn = (ostr->flags & DA_OFDYNAMIC) && ostr->lcb;
    rctype rc = 0;
    if (dyn) {
        rc = dalkdyn(ostr->lcb, mode ? DA_SHRUPDATE : DA_SHRREAD);
        if (rc < 0) {
            daignore(dafrfcb(fcb, 2));
            return rc;
        }
    }
    rctype warn = 0;
    char mdfname[48];
    DA_FDSTR fs = dafdname(fcb, 0, lp->meta, nmeta, pbuf, mdfname);
    fs.flags = DA_FDCHKREV | DA_FDEOFERR | DA_FDSHORTERR | modebit;
    if (ostr->flags & DA_OFOLDFMT) fs.flags |= DA_FDOLDFMT;
    if (!acl) fs.flags |= DA_FDSHARED;
    rc = dafdopn(&fs, &fcb->mdfd);
    if (rc > 0) warn = rc;
    if (rc < 0) goto fail;
    rc = 0;
    fcb->mdfio = damdfio(fcb);
    fcb->hdrOff = fcb->mdfd->baseoff;
    memcpy(fcb->reqvec, fcb->mdfd->p_req_vec, 24);
    rc = rdrecords(fcb);
    if (rc < 0) goto fail;
    if (dagcb.nlstranscode && fcb->xoe.encoding_cei != 0) {
        fcb->encoding = fcb->xoe.encoding_cei;
        memcpy(fcb->locale, fcb->xoe.locale, sizeof fcb->locale);
    } else {
        fcb->encoding = 28;
        memset(fcb->locale, ' ', sizeof fcb->locale);
    }
    rc = hsnlsgetenv(fcb->encoding, fcb->locale, -1, 0, &fcb->nlsenv);
    if (rc < 0) {
        fcb->nlsenv = nullptr;
        goto fail;
    }
    if (fcb->xoe.semtype == DA_SEMVRTAACL && ostr->semtype != DA_SEMVRTAACL) {
        rc = DA_WRONGKIND;
        goto fail;
    }
    if (fcb->dshdr.links[DA_LNKSIN] >= 0) rc = dardsin(fcb->mdfio, &fcb->sort, fcb->dshdr.links[DA_LNKSIN]);
    else dainitsin(&fcb->sort);
    if (rc == 0 && dachknvar0(fcb->sort.sortinfo.nvar0, fcb->sort.sortinfo.nvars, fcb->xoe.nvar) < 0) {
        hsprint("daopfcb: Sort column number outside the table: Table=%s Reason=%s\n", fcb->name,
                hsstrer(DA_INTERNAL));
        rc = DA_INTERNAL;
    }
    if (rc == 0 && fcb->dshdr.links[DA_LNKOWN] >= 0) rc = dardown(fcb->mdfio, &fcb->owner, fcb->dshdr.links[DA_LNKOWN]);
    if (rc < 0) goto fail;

    if (mode != DA_OMINPUT) {
        DA_XOEODS& x = fcb->xoe;
        if (ostr->who_modified[0] && ostr->who_modified[0] != ' ') memcpy(x.who_modified, ostr->who_modified, 8);
        if (!ismissing(ostr->moddate) && ostr->moddate != 0) x.moddate = ostr->moddate;
        if (ostr->blockgrow >= 0) x.blockgrow = ostr->blockgrow;
        if (mode == DA_OMUTIL && x.numobs == 0 && x.nindexes == 0 && ostr->idxsegsize > 0) {
            x.idxsegsize = ostr->idxsegsize;
            if (x.flags & (DA_XOECOMP | DA_XOECRYPT)) {
                int64_t m = dalcm32(x.blockfactor);
                x.idxsegsize = m * std::max<int64_t>(1, x.idxsegsize / m);
            }
        }
        // Written once the key is known to be right (below), so that a refused
        // open leaves the files as they were.
        fcb->flags |= DA_FCBXOE;
    }
    rc = daldv7ns(fcb);
    if (rc == 0) rc = daldvstat(fcb);
    if (rc < 0) goto fail;

    if (fcb->xoe.flags & (DA_XOECOMP | DA_XOECRYPT)) {
        DA_XCB* xcb = nullptr;
        char nm[9];
        snprintf(nm, sizeof nm, "%.8s", fcb->xoe.diskcomp);
        rc = daldxcb(nm, &xcb);
        if (rc < 0) goto fail;
        fcb->xcext = static_cast<DA_XCEXT*>(calloc(1, sizeof(DA_XCEXT)));
        if (!fcb->xcext) {
            daignore(dafrxcb(xcb));
            rc = DA_NOMEM;
            goto fail;
        }
        fcb->xcext->xcb = xcb;
        dainitxch(&fcb->xcext->xchdr);
        if (fcb->dshdr.links[DA_LNKXCH] >= 0) {
            rc = dardxch(fcb->mdfio, &fcb->xcext->xchdr, fcb->dshdr.links[DA_LNKXCH]);
            if (rc < 0) goto fail;
        }
        bool stored = (fcb->xoe.flags & DA_XOEKORPW) && !(ostr->flags & DA_OFKEYGIVEN);
        if (stored) {
            fcb->xcext->keylen = static_cast<int>(strnlen(fcb->xoe.korpw, sizeof fcb->xoe.korpw));
            memcpy(fcb->xcext->keybuf, fcb->xoe.korpw, fcb->xcext->keylen);
        } else {
            int kl = ostr->keylen < 0 ? 0 : ostr->keylen > 40 ? 40 : ostr->keylen;
            fcb->xcext->keylen = kl;
            memcpy(fcb->xcext->keybuf, ostr->encrypt_key, kl);
        }
        fcb->xcext->xcmode = (mode ? DA_XCMUPDATE : DA_XCMREAD) | (stored ? DA_XCMSTOREDKEY : 0);
        char lpath[1024];
        snprintf(lpath, sizeof lpath, "%s", lp->lib.path ? lp->lib.path : "");
        rc = daxcopen(fcb->xcext, lpath, fcb->iname, fcb->xoe.credate, fcb->xoe.blocksize);
        if (rc < 0) goto fail;
        if (fcb->xoe.semtype == DA_SEMXCVBS) rc = dalvbcb ? dalvbcb(fcb) : 0;
        else rc = dalfbcb ? dalfbcb(fcb) : 0;
        if (rc < 0) goto fail;
    }
    if (fcb->flags & DA_FCBXOE) {
        rc = dawrfcbxoe(fcb);
        if (rc < 0) goto fail;
    }
    if (fcb->xoe.nvar <= 0) {
        rc = DA_INTERNAL;
        goto fail;
    }
    {
        int ndata = acl ? 1 : (lp->numdata > 64 ? 64 : lp->numdata);
        char dpfname[48];
        DA_FDSTR ds = dafdname(fcb, 1, acl ? &lp->lib : lp->data, ndata, pbuf, dpfname);
        ds.flags = DA_FDCHKREV | DA_FDEOFERR | DA_FDSHORTERR | DA_FDINDIRECT | modebit;
        if (dagcb.dpfdirectio) ds.flags |= DA_FDDIRECTIO;
        if (ostr->flags & DA_OFOLDFMT) ds.flags |= DA_FDOLDFMT;
        if (fcb->xoe.partsize > 0) {
            ds.flags |= DA_FDPARTSIZE;
            ds.maxpar = fcb->xoe.partsize;
        }
        ds.mdfd = fcb->mdfd;
        ds.fiboff = fcb->dshdr.links[DA_LNKDPFFIB];
        rc = dafdopn(&ds, &fcb->dffd);
        if (rc == DA_NOTFOUND && darecovrev(fcb, lp, ds.flags))
            rc = dafdopn(&ds, &fcb->dffd);
        if (rc == DA_NOTFOUND) rc = DA_NODPF;
        if (rc >= 0 && mode != DA_OMINPUT && !dyn && !acl) darmorphan(fcb, lp, ds.flags, ndata);
        if (rc < 0) goto fail;
        if (rc > 0) warn = rc;
        rc = 0;
        if (fcb->dffd->revision != fcb->mdfd->revision) warn = DA_REVDIFF;
    }
    if (fcb->xoe.nindexes > 0) {
        rc = daldidx(fcb);
        if (rc < 0) goto fail;
    }
    if (fcb->dshdr.links[DA_LNKDMP] >= 0) {
        rc = dalddmp(fcb);
        if (rc < 0) goto fail;
    }
    if (fcb->dshdr.links[DA_LNKCONST] >= 0 && (mode == DA_OMINPUT || (ostr->flags & DA_OFCONSTR))) {
        rc = daldconst(fcb);
        if (rc < 0) goto fail;
    }
    if (fcb->dshdr.links[DA_LNKBACKUP] >= 0) {
        rc = dardbkup(fcb->mdfio, &fcb->backup, fcb->dshdr.links[DA_LNKBACKUP]);
        if (rc < 0) goto fail;
    } else {
        dainitbkup(&fcb->backup);
    }
    if (fcb->icbs) {
        rc = dackidx(fcb);
        if (rc < 0) goto fail;
        if (rc > 0 && warn == 0) warn = rc;
        rc = 0;
    }
    if (dyn) {
        rc = dalkdyn(ostr->lcb, 0);
        if (rc < 0) {
            daignore(dafrfcb(fcb, 2));
            return rc;
        }
    }
    dalinkadd(&lp->fcbs, &fcb->link);
    *newfcb = fcb;
    return warn;
fail:
    if (dyn) daignore(dalkdyn(ostr->lcb, 0));
    daignore(dafrfcb(fcb, 2));
    return rc;
}

[[nodiscard]] rctype darofcb(DA_FCB* fcb, int mode, int oflags) {
    if (mode == fcb->mode) return 0;
    // A table open for writing stays so; later openers share that.
    if (fcb->mode != DA_OMINPUT && mode == DA_OMINPUT) return 0;
    int flags = mode ? DA_FDWRITE : DA_FDRDONLY;
    DA_FDROB rob = {flags, 0};
    rctype rc = fcb->mdfd->fdcntl(fcb->mdfd, DA_FDREOPEN, &rob);
    if (rc >= 0) {
        DA_FDROB rob2 = {flags, 0};
        rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDREOPEN, &rob2);
    }
    if (rc >= 0) rc = dareopidx(fcb, flags);
    if (rc == DA_STATELOST) {
        // Every opener of a lost table can do nothing but close.
        for (DA_LINK* l = fcb->fids.next; l != &fcb->fids; l = l->next) {
            DA_FIDP* fp = fidpoflink(l);
            fp->mt = &fidmt_f;
            fp->fcb = nullptr;
        }
        dalinkinit(&fcb->fids);
        dalinkdel(&fcb->link);
        fcb->refCount = 1;
        daignore(dafrfcb(fcb, 2));
        return rc;
    }
    if (rc < 0) return rc;
    if (mode == DA_OMINPUT && fcb->constrMalloc) {
        free(fcb->constr);
        fcb->constr = nullptr;
        fcb->constrMalloc = 0;
    }
    if (mode == DA_OMUPDATE) fcb->updateLockInit = 1;
    if (oflags & DA_OFDYNAMIC) fcb->shareLockInit = 1;
    fcb->mode = mode;
    return 0;
}

[[nodiscard]] rctype darfmdf(DA_FCB* fcb) {
    DA_DSFHEAD h;
    rctype rc = dardsfh(fcb->mdfio, &h, fcb->hdrOff);
    if (rc < 0) return rc;
    DA_XOEODS x;
    rc = dardxoe(fcb->mdfio, &x, h.links[DA_LNKXOE]);
    if (rc == 0) rc = dachkxoe(fcb, h, x);
    if (rc < 0) return rc;
    // Another writer adds rows and records; the row's shape never changes.
    if (fcb->xoe.nvar > 0 && (x.nvar != fcb->xoe.nvar || x.obslen != fcb->xoe.obslen || x.blockfactor != fcb->xoe.blockfactor ||
        h.links[DA_LNKNAMES] != fcb->dshdr.links[DA_LNKNAMES]))
        return DA_INTERNAL;
    fcb->dshdr = h;
    fcb->xoe = x;
    fcb->pubobs = x.numobs;
    fcb->pubnvar = x.nvar;
    if (fcb->vbcb && darfvbcb) rc = darfvbcb(fcb);
    else if (fcb->fbcb && darffbcb) rc = darffbcb(fcb);
    if (rc < 0) return rc;
    if (h.links[DA_LNKDMP] >= 0) rc = dalddmp(fcb);  // lets go of the old map first
    if (rc >= 0 && fcb->icbs) rc = darfidxrec(fcb);
    return rc;
}

}  // namespace vrta

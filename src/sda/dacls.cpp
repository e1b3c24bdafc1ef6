// Flush and close of a table. The order of writes is what keeps a table
// trustworthy after a crash: rows before numobs, the clean-close mark before
// the revision update, and the MDF's revision last.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "sda/dafid.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

[[nodiscard]] rctype dafvbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype daffbcb(DA_FCB*) __attribute__((weak));

[[nodiscard]] rctype dasyncfcb(DA_FCB* fcb) {
    rctype rc = 0;
    rc = dasyncidx(fcb);
    if (rc >= 0 && fcb->dffd) rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDDATASYNC, nullptr);
    // The MDF last: it holds the data file's directory.
    if (rc >= 0 && fcb->mdfd) rc = fcb->mdfd->fdcntl(fcb->mdfd, DA_FDDATASYNC, nullptr);
    if (rc < 0) hsprint("dasyncfcb: Data sync failed on %s: Reason=%s\n", fcb->name, hsstrer(rc));
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype dawrfcbxoe(DA_FCB* fcb) {
    // Only a description that counts more (or other) rows or columns needs
    // them on disk first; a deletion's count is rewritten without a sync.
    if (fcb->xoe.numobs != fcb->pubobs || fcb->xoe.nvar != fcb->pubnvar) {
        rctype rc = dasyncfcb(fcb);
        if (rc < 0) return rc;
    }
    if (da_writehook) da_writehook("xoe");
    rctype rc = dawrxoe(fcb->mdfio, &fcb->xoe, fcb->dshdr.links[DA_LNKXOE]);
    if (rc == 0) {
        fcb->flags &= ~DA_FCBXOE;
        fcb->pubobs = fcb->xoe.numobs;
        fcb->pubnvar = fcb->xoe.nvar;
    }
    return rc;
}

[[nodiscard]] rctype daflfcb(DA_FCB* fcb) {
    if (!fcb->mdfd) return 0;
    rctype rc = 0;
    if (fcb->flags & DA_FCBIDX) {
        rc = daflicb(fcb);
        if (rc < 0) return rc;
    }
    rc = dastoreminmax(fcb);
    if (rc < 0) return rc;
    if (fcb->phdl) {
        rc = daflstrp(fcb->phdl);
        if (rc < 0) return rc;
    }
    if (fcb->flags & DA_FCBOWNER) {
        da_off_t off = fcb->dshdr.links[DA_LNKOWN];
        if (off >= 0) {
            rc = dawrods(fcb->mdfio, &fcb->owner, &off);
            if (rc < 0) return rc;
        }
        fcb->flags &= ~DA_FCBOWNER;
    }
    if (fcb->flags & DA_FCBXOE) {
        rc = dawrfcbxoe(fcb);
        if (rc < 0) return rc;
    }
    if (fcb->flags & DA_FCBDSHDR) {
        // The records the links name are on disk before the links are.
        rc = dasyncfcb(fcb);
        if (rc < 0) return rc;
        da_off_t off = fcb->hdrOff;
        rc = dawrods(fcb->mdfio, &fcb->dshdr, &off);
        if (rc < 0) return rc;
        fcb->flags &= ~DA_FCBDSHDR;
    }
    fcb->flags &= ~DA_FCBIDX;
    return 0;
}

[[nodiscard]] rctype dauprev(DA_FCB* fcb) {
    if (!dagcb.revnumupdate) return 0;
    rctype first = 0;
    first = darevidx(fcb);
    if (fcb->dffd) {
        rctype rc = fcb->dffd->fdrevise(fcb->dffd, fcb->dshdr.links[DA_LNKDPFFIB]);
        if (rc < 0) {
            hsprint("dauprev: DAFDREVISE on DPF component failed: Member=%s: Reason=%s\n", fcb->name, hsstrer(rc));
            if (!first) first = rc;
        }
    }
    // The MDF last: a crash before this leaves revisions that differ.
    if (fcb->mdfd) {
        rctype rc = fcb->mdfd->fdrevise(fcb->mdfd, -1);
        if (rc < 0) {
            hsprint("dauprev: DAFDREVISE on MDF component failed: Member=%s: Reason=%s\n", fcb->name, hsstrer(rc));
            if (!first) first = rc;
        }
    }
    return first;
}

[[nodiscard]] rctype dafrfcb(DA_FCB* fcb, int disp) {
    if (--fcb->refCount > 0) return 0;
    rctype last = 0;
    bool acl = fcb->xoe.semtype == DA_SEMVRTAACL;
    bool writes = fcb->mode != DA_OMINPUT;
    dalinkdel(&fcb->link);
    // The blocks of an exit table go out before the description that counts
    // their rows: a crash in between must not leave numobs over rows not there.
    if (fcb->vbcb && dafvbcb) {
        rctype rc = dafvbcb(fcb);
        if (rc < 0) last = rc;
    } else if (fcb->fbcb && daffbcb) {
        rctype rc = daffbcb(fcb);
        if (rc < 0) last = rc;
    }
    if ((disp & 1) && (fcb->flags & DA_FCBDIRTY)) {
        rctype rc = daflfcb(fcb);
        if (rc < 0) {
            hsprint("dafrfcb: FCB flush failed on %s: Reason=%s\n", fcb->name, hsstrer(rc));
            last = rc;
        }
    }
    if (fcb->xcext) {
        DA_XCEXT* xc = fcb->xcext;
        // The exit's handle goes even when an open failed half way (disp 2):
        // only the bag's write-back belongs to a real close.
        if (xc->xcthdl) {
            // A failed open reports its own cause, not the exit's close.
            rctype rc = daxcclose(xc);
            if (rc < 0 && (disp & 1)) {
                last = rc;
            } else if ((disp & 1) && writes && xc->xcb && (xc->xcb->xcflags & DA_XCBAG) && xc->xchdr.baglen > 0 &&
                     fcb->dshdr.links[DA_LNKXCH] >= 0) {
                da_off_t off = fcb->dshdr.links[DA_LNKXCH];
                rc = dawrods(fcb->mdfio, &xc->xchdr, &off);
                if (rc < 0) {
                    hsprint("dafrfcb: XCHEAD write failed on %s: Reason=%s\n", fcb->name, hsstrer(rc));
                    last = rc;
                }
            }
        }
        if (xc->xcb) {
            rctype rc = dafrxcb(xc->xcb);
            if (rc < 0) last = rc;
        }
        free(xc);
        fcb->xcext = nullptr;
    }
    rctype mrc = dafrdmp(fcb);
    if (mrc < 0) last = mrc;
    free(fcb->vars);
    fcb->vars = nullptr;
    dafrvstat(fcb);
    rctype prc = dafrstrp(fcb->phdl);
    if (prc < 0) last = prc;
    fcb->phdl = nullptr;
    if (fcb->constrMalloc) free(fcb->constr);
    if (fcb->mdfd && !acl && (disp & 1) && writes && (fcb->dshdr.flags & 1)) {
        fcb->dshdr.flags &= ~1;
        int32_t f = fcb->dshdr.flags;
        da_off_t off = fcb->hdrOff + DA_DSFFLAGOFF;
        if (da_writehook) da_writehook("closeflag");
        rctype rc = fcb->mdfd->fdwrite(fcb->mdfd, &f, 4, &off);
        if (rc < 0) last = rc;
    }
    if (fcb->mdfd && (disp & 1) && !(fcb->flags & DA_FCBNOREV) && !acl &&
        (fcb->mode == DA_OMUPDATE || fcb->mode == DA_OMUTIL)) {
        rctype rc = dauprev(fcb);
        if (rc < 0) last = rc;
    }
    // What the close wrote lasts through a power loss once it returns.
    if ((disp & 1) && writes) {
        rctype rc = dasyncfcb(fcb);
        if (rc < 0) last = rc;
    }
    // Index files and the data file are revised with the MDF, so they stay
    // open until then.
    {
        rctype rc = dafridx(fcb, disp);
        if (rc < 0) last = rc;
    }
    if (fcb->dffd) {
        rctype rc = fcb->dffd->fdclose(fcb->dffd);
        if (rc < 0) {
            hsprint("dafrfcb: DPF DAFDCLOSE failed on %s: Reason=%s\n", fcb->name, hsstrer(rc));
            last = rc;
        }
        fcb->dffd = nullptr;
    }
    if (fcb->mdfd && (disp & 4)) {
        // Stamps the FIB: readers in other processes see the close's changes.
        DA_FDSCB scb = {0, 0};
        rctype rc = fcb->mdfd->fdcntl(fcb->mdfd, DA_FDUNSYNC, &scb);
        if (rc < 0) last = rc;
        rw_unlock(&fcb->shareLock);
    }
    if (fcb->mdfd) {
        rctype rc = fcb->mdfd->fdclose(fcb->mdfd);
        if (rc < 0) last = rc;
        fcb->mdfd = nullptr;
    }
    if (fcb->nlsenv) {
        rctype rc = nls_release(fcb->nlsenv);
        if (rc < 0) last = rc;
    }
    mutex_destroy(&fcb->indexLock);
    mutex_destroy(&fcb->aclLock);
    mutex_destroy(&fcb->dynupdLock);
    rwlock_destroy(&fcb->updateLock);
    rwlock_destroy(&fcb->shareLock);
    free(fcb);
    return last;
}

}  // namespace vrta

// The FIB lock region and change stamp: how processes that share a file see
// each other's growth. Also the control commands of a logical file.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include "sda/dafdp.h"
#include "hs/hs.h"

namespace vrta {

// Where the lock region of the FIB stands: descriptor and physical offset.
[[nodiscard]] rctype dafibloc(DA_FDP* fdp, int* pfd, da_off_t* poff) {
    DA_FDB* fdb = fdp->fdb;
    if (!(fdp->flags & DA_FDINDIRECT)) {
        if (fdb->numpcb < 1) return DA_STATELOST;
        *pfd = fdb->pcbs[0].pfd;
        *poff = DA_FIBLOCKOFF;
        return 0;
    }
    DA_FDP* m = fdp->mdfd;
    int pno;
    if (dao2pcb(m, fdb->fiboff, &pno) != 0) return DA_INTERNAL;
    const DA_PCB* p = &m->fdb->pcbs[pno];
    *pfd = p->pfd;
    *poff = fdb->fiboff - p->minoffset + DA_FIBLOCKOFF;
    return 0;
}

namespace {

[[nodiscard]] rctype lockregion(DA_FDP* fdp, int mode, int timeout, bool wait) {
    int pfd;
    da_off_t poff;
    rctype rc = dafibloc(fdp, &pfd, &poff);
    if (rc < 0) return rc;
    if (mode == 0) return daunlockr(pfd, poff, FIBLOCKLEN);
    if (wait) {
        struct flock flk;
        memset(&flk, 0, sizeof flk);
        flk.l_type = (mode == DA_FDWRLOCK) ? F_WRLCK : F_RDLCK;
        flk.l_whence = SEEK_SET;
        flk.l_start = poff;
        flk.l_len = FIBLOCKLEN;
        return dafcntl(pfd, &flk, timeout);
    }
    return dalockr(pfd, mode == DA_FDWRLOCK ? 32 : 16, poff, FIBLOCKLEN);
}

// The process-wide lock that the counts call for.
int wanted(const DA_FDB* fdb) {
    if (fdb->nwrlocks > 0) return DA_FDWRLOCK;
    if (fdb->nrdlocks > 0) return DA_FDRDLOCK;
    return 0;
}

}  // namespace

namespace {

// Adds or drops one hold on the FIB region. The counts span all openers of a
// shared block (a record lock belongs to the process); the lock itself
// changes only on a first read, first write or last release. On a refused
// lock the counts and the old lock are put back.
[[nodiscard]] rctype hold(DA_FDP* fdp, int add, int drop, int timeout, bool wait) {
    DA_FDB* fdb = fdp->fdb;
    int nrd = fdb->nrdlocks, nwr = fdb->nwrlocks;
    int before = wanted(fdb);
    if (drop == DA_FDRDLOCK) fdb->nrdlocks--;
    if (drop == DA_FDWRLOCK) fdb->nwrlocks--;
    if (add == DA_FDRDLOCK) fdb->nrdlocks++;
    if (add == DA_FDWRLOCK) fdb->nwrlocks++;
    int after = wanted(fdb);
    if (after != before) {
        rctype rc = lockregion(fdp, after, timeout, wait);
        if (rc < 0) {
            fdb->nrdlocks = nrd;
            fdb->nwrlocks = nwr;
            if (before && lockregion(fdp, before, 0, false) < 0) {
                fdb->state |= DA_FDSLOST;
                return DA_STATELOST;
            }
            return rc;
        }
    }
    fdb->lckmode = after;
    return 0;
}

}  // namespace

// This opener's explicit hold: DA_FDRDLOCK, DA_FDWRLOCK (with 0x800 to
// wait), or 0 to release it.
[[nodiscard]] rctype darelockp(DA_FDP* fdp, int flags, pid_t) {
    int had = fdp->flags & (DA_FDRDLOCK | DA_FDWRLOCK);
    int want = (flags & DA_FDWRLOCK) ? DA_FDWRLOCK : (flags & DA_FDRDLOCK) ? DA_FDRDLOCK : 0;
    if (had == want) return 0;
    rctype rc = hold(fdp, want, had, 0, (flags & 0x800) != 0);
    if (rc < 0) return rc;
    fdp->flags = (fdp->flags & ~(DA_FDRDLOCK | DA_FDWRLOCK)) | want;
    return 0;
}

namespace {

// Brings the partition list and sizes up to what the FIB and the files say.
[[nodiscard]] rctype refresh(DA_FDP* fdp, const DA_FIB* head) {
    DA_FDB* fdb = fdp->fdb;
    if (head->numpde != fdb->fib->numpde || head->pdesize != fdb->fib->pdesize) {
        int oldn = fdb->numpcb;
        DA_FIB* keep = fdb->fib;
        int keepsize = fdb->fibsize;
        fdb->fib = nullptr;
        // Reload the directory; partitions gone are closed, new ones opened.
        rctype rc = dafdreload(fdp);
        if (rc < 0) {
            fdb->fib = keep;
            fdb->fibsize = keepsize;
            return rc;
        }
        fdfree(keep, keepsize);
        int n = fdb->fib->numpde;
        for (int i = n; i < oldn; ++i) {
            if (fdb->pcbs[i].pfd >= 0) daignore(daclosf(fdb->pcbs[i].pfd));
            if (fdb->pcbs[i].dfd >= 0) daignore(daclosf(fdb->pcbs[i].dfd));
            fdb->pcbs[i].pfd = fdb->pcbs[i].dfd = -1;
        }
        if (n < oldn) fdb->numpcb = n;
        if (fdp->curpcb >= fdb->numpcb) fdp->curpcb = 0;
        if (n > fdb->numpcb) {
            rc = OpenParts(fdp, fdb->numpcb);
            if (rc < 0) {
                fdb->state |= DA_FDSLOST;
                return rc;
            }
        }
        fdp->fd.fdread = (fdp->fd.fdread == daread1) ? dareadp : fdp->fd.fdread;
    } else {
        // Same directory: take over the header fields only.
        memcpy(fdb->fib, head, DA_FIBLOCKOFF);
    }
    RecalcSizes(fdp);
    if (fdb->fib->revision != fdb->revision) fdb->state |= DA_FDSREVISED;
    return 0;
}

[[nodiscard]] rctype SyncFIB(DA_FDP* fdp, int smode, int timeout) {
    DA_FDB* fdb = fdp->fdb;
    if (fdp->syncmode == smode) return 0;
    if (fdp->syncmode != 0) {
        hsprint("SyncFIB: mode %d asked while in mode %d: file=%s\n", smode, fdp->syncmode, fdb->name);
        return DA_INTERNAL;
    }
    if (fdb->state & DA_FDSLOST) return DA_STATELOST;
    int mode = smode == DA_FDSYNCRD ? DA_FDRDLOCK : DA_FDWRLOCK;
    rctype hrc = hold(fdp, mode, 0, timeout, true);
    if (hrc < 0) return hrc;
    DA_FIB head;
    da_off_t where = 0;
    rctype rc = dardfibhead(fdp, &head, &where);
    if (rc == 0 && !(fdb->stampvalid && head.modtime == fdb->modtime && head.numstripes == fdb->stampstripes)) {
        rc = refresh(fdp, &head);
        if (rc == 0) {
            fdb->modtime = head.modtime;
            fdb->stampstripes = head.numstripes;
            fdb->stampvalid = 1;
            fdb->state |= DA_FDSCHANGED;
        }
    }
    if (rc < 0) {
        daignore(hold(fdp, 0, mode, 0, false));
        return rc;
    }
    fdp->syncmode = smode;
    return 0;
}

// Ends a sync. In write mode, and unless aborting, stamps and writes the FIB
// head: this is the commit of a shared update.
[[nodiscard]] rctype UnlockFIB(DA_FDP* fdp, bool abort) {
    DA_FDB* fdb = fdp->fdb;
    rctype rc = 0;
    if (!abort && fdp->syncmode == DA_FDSYNCWR) {
        DA_FIB* fib = fdb->fib;
        int32_t now = static_cast<int32_t>(time(nullptr));
        if (now == fib->modtime) fib->numstripes++;
        else {
            fib->modtime = now;
            fib->numstripes = 0;
        }
        fib->filesize = fdb->filesize;
        if (fdp->flags & DA_FDINDIRECT) {
            DA_FDP* m = fdp->mdfd;
            da_off_t off = fdb->curfiboff;
            rc = m->fd.fdwrite(&m->fd, fib, DA_FIBLEN, &off);
        } else {
            fdb->pcbs[0].flags |= DA_PCBDIRTY;
            rc = dapwriteall(fdb->pcbs[0].pfd, fib, DA_FIBDIRECTLEN, 0);
        }
        if (rc < 0) {
            hsprint("UnlockFIB: FIB write failed: file=%s Reason=%s\n", fdb->name, hsstrer(rc));
            rc = DA_WRITEFAIL;
        } else {
            fdb->modtime = fib->modtime;
            fdb->stampstripes = fib->numstripes;
            fdb->stampvalid = 1;
        }
    }
    rctype lrc = 0;
    if (fdp->syncmode) lrc = hold(fdp, 0, fdp->syncmode == DA_FDSYNCRD ? DA_FDRDLOCK : DA_FDWRLOCK, 0, false);
    fdp->syncmode = 0;
    return rc ? rc : lrc;
}

[[nodiscard]] rctype UpdateRev(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    if (!(fdb->state & DA_FDSREVISED)) return 0;
    DA_FIB head;
    da_off_t where;
    rctype rc = dardfibhead(fdp, &head, &where);
    if (rc < 0) return rc;
    fdb->revision = head.revision;
    fdb->fib->revision = head.revision;
    fdp->fd.revision = head.revision;
    fdb->state &= ~DA_FDSREVISED;
    return 0;
}

}  // namespace

// A read-only block becomes writable: every partition reopened in the new
// mode, the lock taken again; on failure all go back to the old mode.
[[nodiscard]] rctype dareopenp(DA_FDP* fdp, int newflags) {
    DA_FDB* fdb = fdp->fdb;
    int newmode = (newflags & DA_FDWRITE) ? O_RDWR : O_RDONLY;
    // Descriptors are never turned back to read-only: other openers of the
    // block may still write, and a read-write descriptor reads as well.
    if (newmode == fdb->opmode || newmode == O_RDONLY) {
        fdp->flags = (fdp->flags & ~(DA_FDWRITE | DA_FDRDONLY)) | (newmode == O_RDWR ? DA_FDWRITE : DA_FDRDONLY);
        dafdsmt(fdp);
        return 0;
    }
    int held = fdb->lckmode;
    auto reopenall = [&](int mode) -> rctype {
        for (int i = 0; i < fdb->numpcb; ++i) {
            char full[4096];
            rctype rc = dafdpfull(fdp, i, full, sizeof full);
            int nfd = -1;
            if (rc == 0) rc = daopenf(full, mode == O_RDONLY ? 2 : 1, 0, &nfd);
            if (rc < 0) return rc;
            daignore(daclosf(fdb->pcbs[i].pfd));
            fdb->pcbs[i].pfd = nfd;
            // The O_DIRECT twin follows the mode too, or is dropped.
            if (fdb->pcbs[i].dfd >= 0) {
                daignore(daclosf(fdb->pcbs[i].dfd));
                fdb->pcbs[i].dfd = _UIODT->open(full, (mode == O_RDONLY ? O_RDONLY : O_RDWR) | O_DIRECT | O_CLOEXEC, 0);
            }
        }
        return 0;
    };
    int oldmode = fdb->opmode;
    rctype rc = reopenall(newmode);
    if (rc == 0) fdb->opmode = newmode;
    else if (reopenall(oldmode) < 0) {
        fdb->state |= DA_FDSLOST;
        return DA_STATELOST;
    }
    // Closing a descriptor dropped our record locks on that file.
    if (held && lockregion(fdp, held, 0, false) < 0) {
        fdb->state |= DA_FDSLOST;
        return DA_STATELOST;
    }
    if (rc == 0) {
        fdp->opmode = newmode;
        fdp->flags = (fdp->flags & ~(DA_FDWRITE | DA_FDRDONLY)) | (newmode == O_RDWR ? DA_FDWRITE : DA_FDRDONLY);
        dafdsmt(fdp);
    }
    return rc;
}

[[nodiscard]] rctype dafdcntl(DA_FD* fd, int cmd, void* arg) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    switch (cmd) {
    case DA_FDSETSTRIPE:
    case DA_FDGETSTRIPE:
        return DA_BADCNTL;
    case DA_FDLOCKRD:
    case DA_FDLOCKWR: {
        auto* rob = static_cast<DA_FDROB*>(arg);
        int f = (cmd == DA_FDLOCKRD ? DA_FDRDLOCK : DA_FDWRLOCK) | (rob ? (rob->flags & 0x800) : 0);
        return darelockp(fdp, f, rob ? rob->ownpid : 0);
    }
    case DA_FDUNLOCK: {
        auto* rob = static_cast<DA_FDROB*>(arg);
        return darelockp(fdp, 0, rob ? rob->ownpid : 0);
    }
    case DA_FDSYNCRD:
    case DA_FDSYNCWR: {
        auto* scb = static_cast<DA_FDSCB*>(arg);
        if (cmd == DA_FDSYNCWR && !(fdp->flags & DA_FDWRITE)) return DA_ACCESS;
        return SyncFIB(fdp, cmd, scb ? scb->timeout : 0);
    }
    case DA_FDUNSYNC: {
        auto* scb = static_cast<DA_FDSCB*>(arg);
        return UnlockFIB(fdp, scb && (scb->flags & 1));
    }
    case DA_FDSYNCFIB: {
        auto* scb = static_cast<DA_FDSCB*>(arg);
        if (fdp->syncmode) return DA_INTERNAL;
        fdb->stampvalid = 0;
        rctype rc = SyncFIB(fdp, DA_FDSYNCRD, scb ? scb->timeout : 0);
        if (rc < 0) return rc;
        return UnlockFIB(fdp, true);
    }
    case DA_FDREOPEN: {
        auto* rob = static_cast<DA_FDROB*>(arg);
        if (!rob) return DA_BADARG;
        return dareopenp(fdp, rob->flags);
    }
    case DA_FDNEWPART:
        if (!(fdp->flags & DA_FDWRITE)) return DA_ACCESS;
        return dafnewp(fdp, 1, 0);
    case DA_FDGROW:
        if (!(fdp->flags & DA_FDWRITE)) return DA_ACCESS;
        if (!arg) return DA_BADARG;
        return GrowFile(fdp, *static_cast<da_off_t*>(arg));
    case DA_FDSYNCREV:
        return UpdateRev(fdp);
    case DA_FDDATASYNC:
        return dasyncparts(fdp);
    default:
        return DA_BADCNTL;
    }
}

}  // namespace vrta

// Member locks: the lock file "<member>.<type>.vrta_lock9" in the library's
// primary directory coordinates processes with record locks on its byte
// ranges, and one DA_LOCK per file coordinates the threads of this process
// (record locks belong to the process, not to a thread).
#include "sda/da.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "sda/dalibint.h"
#include "sda/darc.h"
#include "sda/dafd.h"
#include "sda/danames.h"

namespace vrta {

namespace {

constexpr off_t RPRESENCE = 0;  // every holder reads here
constexpr off_t RMEMBER = 8;    // readers read, writers write
constexpr off_t RDYNAMIC = 16;  // each dynamic opener reads
constexpr off_t RCALL = 24;     // per-call dynamic lock
constexpr off_t RDYNUPD = 32;   // the one dynamic updater
constexpr off_t RLEN = 8;
constexpr int KMDF = 0, KUTIL = 4, KCDF = 6;
constexpr int DYNTRIES = 10;

bool conflict(rctype rc) { return rc == DA_RDLOCKED || rc == DA_WRLOCKED; }

char* dupstr(const std::string& s) {
    auto* p = static_cast<char*>(xmalloc(dagcb.pool, static_cast<long>(s.size()) + 1, 0));
    if (p) memcpy(p, s.c_str(), s.size() + 1);
    return p;
}
void freestr(char* p) {
    if (p) xmfree(dagcb.pool, p, static_cast<long>(strlen(p)) + 1);
}

void SafeUnlock(DA_LOCK* lcb) {
    if (lcb->lockfd < 0) return;
    // Whoever can turn the presence range into a write lock is the last
    // holder; it alone removes the file, and newcomers blocked on the range
    // see it gone and start again.
    if ((lcb->flags & DA_LCKPRESENCE) && dalockr(lcb->lockfd, 32, RPRESENCE, RLEN) == 0) _UIODT->unlink(lcb->fullpath);
    _UIODT->close(lcb->lockfd);
    lcb->lockfd = -1;
    lcb->lockOpen = 0;
    lcb->lockHeld = 0;
    lcb->flags &= ~(DA_LCKPRESENCE | DA_LCKMEMBER | DA_LCKDYNAMIC);
}

// Takes the file's locks for a new holder in this process.
[[nodiscard]] rctype SafeLock(DA_LOCK* lcb, int omode, int level, int dynflag, pid_t* ownpid) {
    bool dyn = (dynflag & DA_LKDYNAMIC) != 0;
    int kind = (level == DA_LKBACKUP || omode == DA_OMINPUT) ? DA_LCKREAD : DA_LCKWRITE;
    bool create = level == DA_LKBACKUP || omode != DA_OMINPUT;
    for (int ntries = 0;; ntries++) {
        int fd;
        if (create) {
            fd = _UIODT->open(lcb->fullpath, O_RDWR | O_CREAT | O_CLOEXEC, lcb->perms & 0666);
        } else {
            // A reader asks for write access too when it may have it, so that
            // as last holder it can remove the file; it never creates one.
            fd = _UIODT->open(lcb->fullpath, O_RDWR | O_CLOEXEC, 0);
            if (fd < 0 && (errno == EACCES || errno == EROFS) && !dyn)
                fd = _UIODT->open(lcb->fullpath, O_RDONLY | O_CLOEXEC, 0);
        }
        if (fd < 0) {
            if (errno == ENOENT && !create && !dyn) return 0;  // no file: no writer can exist
            if (errno == ENOENT && dyn) {
                create = true;
                continue;
            }
            return daerrno(errno);
        }
        bool first = false;
        if (dyn && dalockr(fd, 32, RPRESENCE, RLEN) == 0) first = true;
        // Read lock on the presence range; after a write test this converts.
        rctype rc = dalockr(fd, 16, RPRESENCE, RLEN);
        if (rc < 0) {
            if (!conflict(rc)) {
                _UIODT->close(fd);
                return rc;
            }
            // The last holder is deleting the file: wait for it, then start
            // over; the next open may create a new file.
            rctype wrc = dalockr(fd, 16 | 0x800, RPRESENCE, RLEN);
            if (_UIODT->close(fd) != 0 || wrc < 0)
                hsprint("+--ntries=%d file=%s fd=%d reason=%s errno=%d\n", ntries, lcb->fullpath, fd,
                        hsstrer(wrc < 0 ? wrc : DA_SYSERR), errno);
            continue;
        }
        // The file may have been removed between our open and our lock.
        struct stat a, b;
        if (fstat(fd, &a) != 0 || stat(lcb->fullpath, &b) != 0 || a.st_ino != b.st_ino || a.st_dev != b.st_dev) {
            _UIODT->close(fd);
            continue;
        }
        lcb->lockfd = fd;
        lcb->lockOpen = 1;
        lcb->flags |= DA_LCKPRESENCE;
        rc = dalockr(fd, kind, RMEMBER, RLEN);
        if (rc < 0) {
            if (ownpid) daignore(daqylkor(fd, kind, RMEMBER, RLEN, ownpid));
            SafeUnlock(lcb);
            return rc;
        }
        lcb->flags |= DA_LCKMEMBER;
        lcb->lockHeld = kind;
        if (!dyn) return 0;
        if (!first) {
            if (dalockr(fd, 32, RDYNAMIC, RLEN) == 0) {
                // Nobody else reads the dynamic range: the others opened plainly.
                if (ntries + 1 >= DYNTRIES) {
                    hsprint("SafeLock: +--ntries=%d file=%s fd=%d reason=dynlock conflict\n", ntries + 1,
                            lcb->fullpath, fd);
                    SafeUnlock(lcb);
                    return DA_DYNCONF;
                }
                SafeUnlock(lcb);
                sleep(1);
                continue;
            }
        }
        rc = dalockr(fd, 16, RDYNAMIC, RLEN);
        if (rc < 0) {
            SafeUnlock(lcb);
            if (!conflict(rc)) return rc;
            // Another opener is testing the range right now.
            struct timespec ts = {0, 10 * 1000 * 1000};
            nanosleep(&ts, nullptr);
            continue;
        }
        lcb->flags |= DA_LCKDYNAMIC;
        return 0;
    }
}

void AddReadTask(DA_LOCK* lcb, thread_t tid) {
    for (int i = 0; i < lcb->numtlb; i++)
        if (pthread_equal(lcb->tlbs[i].tid, tid)) {
            lcb->tlbs[i].refCount++;
            return;
        }
    if (lcb->numtlb == lcb->numalloc) {
        int nalloc = lcb->numalloc ? lcb->numalloc * 2 : 4;
        auto* nv = static_cast<DA_TLB*>(xmalloc(dagcb.pool, nalloc * static_cast<long>(sizeof(DA_TLB)), XM_ZERO));
        if (lcb->numtlb) memcpy(nv, lcb->tlbs, lcb->numtlb * sizeof(DA_TLB));
        if (lcb->tlbs) xmfree(dagcb.pool, lcb->tlbs, lcb->numalloc * static_cast<long>(sizeof(DA_TLB)));
        lcb->tlbs = nv;
        lcb->numalloc = nalloc;
    }
    lcb->tlbs[lcb->numtlb].tid = tid;
    lcb->tlbs[lcb->numtlb].refCount = 1;
    lcb->numtlb++;
}

bool otherReaders(const DA_LOCK* lcb, thread_t tid) {
    for (int i = 0; i < lcb->numtlb; i++)
        if (!pthread_equal(lcb->tlbs[i].tid, tid)) return true;
    return false;
}

bool DropReadTask(DA_LOCK* lcb, thread_t tid) {
    for (int i = 0; i < lcb->numtlb; i++)
        if (pthread_equal(lcb->tlbs[i].tid, tid)) {
            if (--lcb->tlbs[i].refCount == 0) {
                lcb->tlbs[i] = lcb->tlbs[lcb->numtlb - 1];
                lcb->numtlb--;
            }
            return true;
        }
    return false;
}

[[nodiscard]] rctype CloseComponent(DA_LOCK* lcb) {
    rctype rc = 0;
    if (lcb->memfd) {
        rc = lcb->memfd->fdclose(lcb->memfd);
        lcb->memfd = nullptr;
    }
    lcb->memlock = 0;
    return rc;
}

// Opens the member's metadata file (or its cluster file) and locks its FIB
// region, so that a table is protected twice: by the lock file and by its
// first bytes.
[[nodiscard]] rctype LockComponent(DA_LIB* lp, DA_LOCK* lcb, int omode, pid_t* ownpid) {
    if (lcb->mtype != KMDF) return 0;
    if ((lcb->dynflag & DA_LKDYNAMIC) && omode != DA_OMUTIL) return 0;
    bool wr = !(omode == DA_OMINPUT || omode == DA_OMOUTPUT);
    std::vector<const char*> paths;
    for (int i = 0; i < lp->nummeta; i++) paths.push_back(lp->meta[i].path);
    for (int kind : {KMDF, KCDF}) {
        char name[128];
        int nl = dadsnam(kind, lcb->memname, -1, nullptr, 0, name);
        char pfn[1024], full[2048];
        if (nl < 0 || damkpfn(pfn, DA_PFNOWNFIB, name, 0, "0", 0, sizeof pfn) < 0) return DA_BADARG;
        snprintf(full, sizeof full, "%s%s", lp->meta[0].path, pfn);
        struct stat st;
        if (stat(full, &st) != 0) continue;
        DA_FDSTR fs{};
        fs.name = name;
        fs.namelen = nl;
        fs.numpath = static_cast<int>(paths.size());
        fs.paths = paths.data();
        fs.flags = DA_FDSHARED | DA_FDDIRECT | (omode == DA_OMINPUT ? DA_FDRDONLY : DA_FDWRITE);
        fs.perms = lcb->perms;
        fs.minfree = -1;
        fs.fiboff = -1;
        DA_FD* fd = nullptr;
        rctype rc = dafdopn(&fs, &fd);
        if (rc < 0) return rc == DA_NOTFOUND ? 0 : rc;
        DA_FDROB rob{0, 0};
        rc = fd->fdcntl(fd, wr ? DA_FDLOCKWR : DA_FDLOCKRD, &rob);
        if (rc < 0) {
            if (ownpid) *ownpid = rob.ownpid;
            daignore(fd->fdclose(fd));
            return rc;
        }
        if (omode == DA_OMOUTPUT) {
            // A new table replaces this one: the test was all that was needed.
            return fd->fdclose(fd);
        }
        lcb->memfd = fd;
        lcb->memlock = wr ? DA_LCKWRITE : DA_LCKREAD;
        return 0;
    }
    return 0;
}

// Turns the component lock into a write lock for an update of a table that
// was open for input.
[[nodiscard]] rctype UpgradeComponent(DA_LIB* lp, DA_LOCK* lcb, pid_t* ownpid) {
    if (!lcb->memfd) return LockComponent(lp, lcb, DA_OMUPDATE, ownpid);
    DA_FDROB rob{DA_FDWRITE, 0};
    rctype rc = lcb->memfd->fdcntl(lcb->memfd, DA_FDREOPEN, &rob);
    if (rc < 0) return rc;
    rob = DA_FDROB{0, 0};
    rc = lcb->memfd->fdcntl(lcb->memfd, DA_FDLOCKWR, &rob);
    if (rc < 0) {
        if (ownpid) *ownpid = rob.ownpid;
        return rc;
    }
    lcb->memlock = DA_LCKWRITE;
    return 0;
}

// Converts the member range; without a lock file there was no writer, so
// the file is made now.
[[nodiscard]] rctype ConvertMember(DA_LOCK* lcb, int kind, int omode, int level, pid_t* ownpid) {
    if (lcb->lockfd < 0) return SafeLock(lcb, omode, level, lcb->dynflag, ownpid);
    rctype rc = dalockr(lcb->lockfd, kind, RMEMBER, RLEN);
    if (rc < 0) {
        if (ownpid) daignore(daqylkor(lcb->lockfd, kind, RMEMBER, RLEN, ownpid));
        return rc;
    }
    lcb->lockHeld = kind;
    return 0;
}

// The rules between holders inside this process.
[[nodiscard]] rctype CheckLock(DA_LIB* lp, DA_LOCK* lcb, int omode, int level, thread_t tid, pid_t* ownpid) {
    if (lcb->refCount == 0) {
        // Nobody holds it any more (a conversion released the last hold).
        int kind = (level == DA_LKBACKUP || omode == DA_OMINPUT) ? DA_LCKREAD : DA_LCKWRITE;
        rctype rc = ConvertMember(lcb, kind, omode, level, ownpid);
        if (rc < 0) return rc;
        lcb->omode = omode;
        lcb->refCount = 1;
        if (omode == DA_OMINPUT || level == DA_LKBACKUP) AddReadTask(lcb, tid);
        else lcb->owntid = tid;
        return 0;
    }
    if (lcb->omode == DA_OMINPUT) {
        if (omode == DA_OMINPUT || level == DA_LKBACKUP) {
            AddReadTask(lcb, tid);
            lcb->refCount++;
            return 0;
        }
        if (omode == DA_OMOUTPUT || omode == DA_OMUPDATE) {
            if (otherReaders(lcb, tid)) return omode == DA_OMOUTPUT ? DA_LOCKCONF : DA_MODECONF;
            rctype rc = ConvertMember(lcb, DA_LCKWRITE, omode, level, ownpid);
            if (rc < 0) return rc == DA_RDLOCKED ? DA_WRLOCKED : rc;
            if (omode == DA_OMUPDATE) {
                rc = UpgradeComponent(lp, lcb, ownpid);
                if (rc < 0) {
                    daignore(ConvertMember(lcb, DA_LCKREAD, DA_OMINPUT, level, nullptr));
                    return rc;
                }
            }
            lcb->omode = omode;
            lcb->owntid = tid;
            lcb->refCount++;
            return 0;
        }
        return DA_MODECONF;
    }
    // A writer holds it: only the same thread may also read.
    if (omode == DA_OMINPUT && pthread_equal(lcb->owntid, tid) &&
        (lcb->omode == DA_OMOUTPUT || level != DA_LKMEMBER)) {
        AddReadTask(lcb, tid);
        lcb->refCount++;
        return 0;
    }
    return omode == DA_OMINPUT ? DA_LOCKCONF : DA_MODECONF;
}

// Releases one hold of a thread; the last writer leaving readers behind
// turns the member range back into a read lock.
void FreeTaskLock(DA_LOCK* lcb, int omode, thread_t tid) {
    if (lcb->refCount <= 0) return;
    bool reader = omode == DA_OMINPUT || !pthread_equal(lcb->owntid, tid) || lcb->omode == DA_OMINPUT;
    if (reader && DropReadTask(lcb, tid)) {
        lcb->refCount--;
        return;
    }
    lcb->refCount--;
    lcb->owntid = thread_t{};
    if (lcb->refCount > 0) {
        if (lcb->lockfd >= 0) {
            rctype rc = dalockr(lcb->lockfd, DA_LCKREAD, RMEMBER, RLEN);
            if (rc < 0) hsprint("FreeTaskLock: Unable to read lock %s: Reason=%s\n", lcb->fullpath, hsstrer(rc));
            else lcb->lockHeld = DA_LCKREAD;
        }
        if (lcb->memfd && lcb->memlock == DA_LCKWRITE) {
            DA_FDROB rob{0, 0};
            if (lcb->memfd->fdcntl(lcb->memfd, DA_FDLOCKRD, &rob) >= 0) lcb->memlock = DA_LCKREAD;
        }
        lcb->omode = DA_OMINPUT;
    }
}

[[nodiscard]] rctype FreeMemLock(DA_LOCK* lcb) {
    if (lcb->refCount > 0) return 0;
    for (DA_LOCK** pp = &dagcb.lcbs; *pp; pp = &(*pp)->next)
        if (*pp == lcb) {
            *pp = lcb->next;
            break;
        }
    rctype rc = CloseComponent(lcb);
    if (lcb->lockfd >= 0 && (lcb->flags & DA_LCKDYNAMIC) && lcb->dynmode) {
        rctype urc = daunlockr(lcb->lockfd, RCALL, RLEN);
        if (rc >= 0) rc = urc;
    }
    SafeUnlock(lcb);
    if (lcb->tlbs) xmfree(dagcb.pool, lcb->tlbs, lcb->numalloc * static_cast<long>(sizeof(DA_TLB)));
    freestr(lcb->fullpath);
    freestr(lcb->mempath);
    xmfree(dagcb.pool, lcb, sizeof *lcb);
    return rc;
}

}  // namespace

[[nodiscard]] rctype dalkmem(DA_LIB* lp, const char* memname, const char* memtype, int level, int omode, thread_t tid,
               int dynflag, DA_LOCK** lid, pid_t* ownpid) {
    *lid = nullptr;
    if (ownpid) *ownpid = 0;
    if (!lp || !memname || !memtype) return DA_BADARG;
    rctype rc = dainit();
    if (rc < 0) return rc;
    std::string name = lowername(memname);
    std::string type = lowertrim(memtype, 8);
    if (name.empty() || type.empty()) return DA_BADARG;
    bool dyn = (dynflag & DA_LKDYNAMIC) != 0;
    // A dynamic updater shares the member range with the other dynamic
    // openers; its exclusion comes from the dynamic ranges.
    int mmode = (dyn && omode == DA_OMUPDATE) ? DA_OMINPUT : omode;
    std::string full = std::string(lp->lib.path) + name + "." + type + ".vrta_lock9";

    mutex_lock(&dagcb.lcbLock);
    DA_LOCK* lcb = dagcb.lcbs;
    while (lcb && strcmp(lcb->fullpath, full.c_str()) != 0) lcb = lcb->next;
    if (lcb) {
        if (dyn != ((lcb->dynflag & DA_LKDYNAMIC) != 0)) rc = DA_DYNCONF;
        else rc = CheckLock(lp, lcb, mmode, level, tid, ownpid);
        if (rc >= 0) *lid = lcb;
        mutex_unlock(&dagcb.lcbLock);
        return rc;
    }
    lcb = static_cast<DA_LOCK*>(xmalloc(dagcb.pool, sizeof(DA_LOCK), XM_ZERO));
    if (!lcb) {
        mutex_unlock(&dagcb.lcbLock);
        return DA_NOMEM;
    }
    lcb->lockfd = -1;
    lcb->perms = static_cast<DA_LIBP*>(lp)->perms ? static_cast<DA_LIBP*>(lp)->perms : 0660;
    lcb->level = level;
    lcb->dynflag = dynflag;
    lcb->mtype = type == "data" ? KMDF : KUTIL;
    snprintf(lcb->memname, sizeof lcb->memname, "%s", name.c_str());
    snprintf(lcb->memtype, sizeof lcb->memtype, "%s", type.c_str());
    lcb->mempath = dupstr(lp->lib.path);
    lcb->fullpath = dupstr(full);
    if (!lcb->mempath || !lcb->fullpath) {
        freestr(lcb->mempath);
        freestr(lcb->fullpath);
        xmfree(dagcb.pool, lcb, sizeof *lcb);
        mutex_unlock(&dagcb.lcbLock);
        return DA_NOMEM;
    }
    rc = SafeLock(lcb, mmode, level, dynflag, ownpid);
    if (rc >= 0 && level != DA_LKBACKUP) {
        rctype crc = LockComponent(lp, lcb, omode, ownpid);
        if (crc < 0) {
            SafeUnlock(lcb);
            rc = crc;
        }
    }
    if (rc < 0) {
        freestr(lcb->mempath);
        freestr(lcb->fullpath);
        xmfree(dagcb.pool, lcb, sizeof *lcb);
        mutex_unlock(&dagcb.lcbLock);
        return rc;
    }
    lcb->omode = mmode;
    lcb->refCount = 1;
    if (mmode == DA_OMINPUT || level == DA_LKBACKUP) AddReadTask(lcb, tid);
    else lcb->owntid = tid;
    lcb->next = dagcb.lcbs;
    dagcb.lcbs = lcb;
    int fd = lcb->lockfd;
    mutex_unlock(&dagcb.lcbLock);
    if (dyn && omode == DA_OMUPDATE && fd >= 0) {
        // The one dynamic updater: wait for the present one to leave, without
        // holding up the other member locks of this process meanwhile.
        rctype drc = dalockr(fd, 32 | 0x800, RDYNUPD, RLEN);
        if (drc < 0) {
            daignore(daulmem(lp, lcb, level, omode, tid));
            return drc;
        }
    }
    *lid = lcb;
    return rc;
}

[[nodiscard]] rctype daulmem(DA_LIB* lp, DA_LOCK* lid, int level, int omode, thread_t tid) {
    (void)lp;
    (void)level;
    if (!lid) return DA_BADARG;
    mutex_lock(&dagcb.lcbLock);
    int mmode = ((lid->dynflag & DA_LKDYNAMIC) && omode == DA_OMUPDATE) ? DA_OMINPUT : omode;
    FreeTaskLock(lid, mmode, tid);
    rctype rc = FreeMemLock(lid);
    mutex_unlock(&dagcb.lcbLock);
    return rc;
}

[[nodiscard]] rctype daconlk(DA_LIB* lp, DA_LOCK* lid, int level, int omode, int nmode, thread_t tid, pid_t* ownpid) {
    if (ownpid) *ownpid = 0;
    if (!lid || nmode == DA_OMOUTPUT) return DA_BADARG;
    if (nmode == omode) return 0;
    mutex_lock(&dagcb.lcbLock);
    FreeTaskLock(lid, omode, tid);
    rctype rc;
    if (lid->refCount == 0) {
        // Ours was the only hold: take the lock again as if new.
        int kind = (level == DA_LKBACKUP || nmode == DA_OMINPUT) ? DA_LCKREAD : DA_LCKWRITE;
        rc = ConvertMember(lid, kind, nmode, level, ownpid);
        if (rc >= 0 && lid->memfd) {
            DA_FDROB rob{nmode == DA_OMINPUT ? DA_FDRDONLY : DA_FDWRITE, 0};
            if (nmode != DA_OMINPUT) rc = lid->memfd->fdcntl(lid->memfd, DA_FDREOPEN, &rob);
            if (rc >= 0) {
                rob = DA_FDROB{0, 0};
                rc = lid->memfd->fdcntl(lid->memfd, kind == DA_LCKWRITE ? DA_FDLOCKWR : DA_FDLOCKRD, &rob);
                if (rc < 0 && ownpid) *ownpid = rob.ownpid;
                else lid->memlock = kind;
            }
        } else if (rc >= 0 && !lid->memfd && level != DA_LKBACKUP) {
            rc = LockComponent(lp, lid, nmode, ownpid);
        }
        if (rc >= 0) {
            lid->omode = nmode;
            lid->refCount = 1;
            if (nmode == DA_OMINPUT) AddReadTask(lid, tid);
            else lid->owntid = tid;
        } else {
            rctype orc = CheckLock(lp, lid, omode, level, tid, nullptr);
            if (orc < 0) {
                hsprint("Unable to recover old lock state for %s: Reason=%s\n", lid->fullpath, hsstrer(orc));
                rc = DA_STATELOST;
            }
        }
    } else {
        rc = CheckLock(lp, lid, nmode, level, tid, ownpid);
        if (rc < 0) {
            rctype orc = CheckLock(lp, lid, omode, level, tid, nullptr);
            if (orc < 0) {
                hsprint("Unable to recover old lock state for %s: Reason=%s\n", lid->fullpath, hsstrer(orc));
                rc = DA_STATELOST;
            }
        }
    }
    mutex_unlock(&dagcb.lcbLock);
    return rc;
}

[[nodiscard]] rctype dalkdyn(DA_LOCK* lcb, int mode) {
    if (!lcb || !(lcb->flags & DA_LCKDYNAMIC) || lcb->lockfd < 0) return DA_BADARG;
    rctype rc = 0;
    if (mode == DA_SHRREAD) {
        mutex_lock(&dagcb.lcbLock);
        bool upd = lcb->dynmode == DA_SHRUPDATE;
        bool need = lcb->dynrefCount == 0;
        if (!upd) lcb->dynrefCount++;
        mutex_unlock(&dagcb.lcbLock);
        if (upd) return DA_BADARG;
        if (need) rc = dalockr(lcb->lockfd, 16 | 0x800, RCALL, RLEN);
        mutex_lock(&dagcb.lcbLock);
        if (rc < 0) lcb->dynrefCount--;
        else lcb->dynmode = DA_SHRREAD;
        mutex_unlock(&dagcb.lcbLock);
        return rc;
    }
    if (mode == DA_SHRUPDATE) {
        // Claim update mode before waiting, so that a second updater of this
        // process is refused rather than let through by our own record lock.
        mutex_lock(&dagcb.lcbLock);
        int was = lcb->dynmode;
        if (was != DA_SHRUPDATE) lcb->dynmode = DA_SHRUPDATE;
        mutex_unlock(&dagcb.lcbLock);
        if (was == DA_SHRUPDATE) return DA_DYNCONF;
        rc = dalockr(lcb->lockfd, 32 | 0x800, RCALL, RLEN);
        mutex_lock(&dagcb.lcbLock);
        if (rc < 0) lcb->dynmode = was;
        else lcb->dynrefCount++;
        mutex_unlock(&dagcb.lcbLock);
        return rc;
    }
    if (mode == DA_SHRCLEAR) {
        mutex_lock(&dagcb.lcbLock);
        if (lcb->dynrefCount > 0 && --lcb->dynrefCount == 0) {
            rc = daunlockr(lcb->lockfd, RCALL, RLEN);
            lcb->dynmode = 0;
        } else if (lcb->dynmode == DA_SHRUPDATE) {
            // The updater leaves while readers of this process remain.
            rc = dalockr(lcb->lockfd, 16, RCALL, RLEN);
            lcb->dynmode = DA_SHRREAD;
        }
        mutex_unlock(&dagcb.lcbLock);
        return rc;
    }
    return DA_BADARG;
}

}  // namespace vrta

// Open, create and close of a logical file; its FIB and partition directory;
// new partitions and the choice of their path.
#include <algorithm>
#include <vector>
#include <cerrno>
#include <new>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include "sda/dafdp.h"
#include "sda/danames.h"
#include "hs/hs.h"

namespace vrta {

namespace {

const char* suffixof(int flags) { return (flags & DA_FDOLDFMT) ? "vrta" : "vrta9"; }

// The first metapath: names without a directory in the FIB are relative to it.
const char* firstmeta(DA_FDP* fdp) {
    DA_FDP* m = fdp->mdfd ? fdp->mdfd : fdp;
    return m->numpath > 0 ? m->paths[0] : ".";
}

size_t dirlen(const char* p) {
    size_t n = strlen(p);
    while (n > 1 && p[n - 1] == '/') --n;
    return n;
}

DA_PDE* pdeof(DA_FIB* fib, int i) {
    return reinterpret_cast<DA_PDE*>(reinterpret_cast<char*>(fib) + DA_FIBLEN + 8 * i);
}

int pathidx(DA_FDP* fdp, const char* full) {
    const char* slash = strrchr(full, '/');
    size_t dl = slash ? static_cast<size_t>(slash - full) : 0;
    for (int i = 0; i < fdp->numpath; ++i) {
        size_t pl = dirlen(fdp->paths[i]);
        if (pl == dl && strncmp(fdp->paths[i], full, dl) == 0) return i;
    }
    return 0;
}

[[nodiscard]] rctype growpcbs(DA_FDB* fdb) {
    if (fdb->numpcb < fdb->pcballoc) return 0;
    int n = fdb->pcballoc ? fdb->pcballoc * 2 : 8;
    auto* np = static_cast<DA_PCB*>(fdalloc(static_cast<long>(n) * sizeof(DA_PCB)));
    if (!np) return DA_NOMEM;
    if (fdb->pcbs) {
        memcpy(np, fdb->pcbs, fdb->numpcb * sizeof(DA_PCB));
        if (fdb->nretired < 32) {
            fdb->retired[fdb->nretired] = fdb->pcbs;
            fdb->retiredn[fdb->nretired++] = fdb->pcballoc;
        } else {
            fdfree(fdb->pcbs, static_cast<long>(fdb->pcballoc) * sizeof(DA_PCB));
        }
    }
    fdb->pcbs = np;
    fdb->pcballoc = n;
    return 0;
}

// Opens a partition file, with an O_DIRECT twin when asked and possible.
[[nodiscard]] rctype openpart(DA_FDP* fdp, DA_PCB* pcb, const char* full, int dflags, int perms) {
    int fd = -1;
    rctype rc = daopenf(full, dflags, perms, &fd);
    if (rc < 0) return rc;
    pcb->pfd = fd;
    pcb->dfd = -1;
    if (fdp->flags & DA_FDDIRECTIO) {
        int of = ((dflags & 2) ? O_RDONLY : O_RDWR) | O_DIRECT | O_CLOEXEC;
        int d = _UIODT->open(full, of, 0);
        if (d >= 0) pcb->dfd = d;
        else hsprint("directio error: file=%s error=%d\n", full, errno);
    }
    return 0;
}

// A close only lets go of the descriptor: what had to last was synced before.
void closepart(DA_PCB* pcb) {
    if (pcb->pfd >= 0) daignore(daclosf(pcb->pfd));
    if (pcb->dfd >= 0) daignore(daclosf(pcb->dfd));
    pcb->pfd = pcb->dfd = -1;
}

// fdbLock may be taken again by the thread that holds it.
thread_local int fdbdepth = 0;
void fdblock() {
    if (fdbdepth++ == 0) {
        mutex_lock(&daiogcb.fdbLock);
        daiogcb.fdbLocktid = thr_self();
    }
}
void fdbunlock() {
    if (--fdbdepth == 0) mutex_unlock(&daiogcb.fdbLock);
}

void freefdb(DA_FDB* fdb) {
    if (!fdb) return;
    for (int i = 0; i < fdb->numpcb; ++i) closepart(&fdb->pcbs[i]);
    fdfree(fdb->pcbs, static_cast<long>(fdb->pcballoc) * sizeof(DA_PCB));
    for (int i = 0; i < fdb->nretired; ++i) fdfree(fdb->retired[i], static_cast<long>(fdb->retiredn[i]) * sizeof(DA_PCB));
    fdfree(fdb->fib, fdb->fibsize);
    fdstrfree(fdb->name);
    fdstrfree(fdb->fullname);
    fdfree(fdb, sizeof(DA_FDB));
}

void freefdp(DA_FDP* fdp) {
    for (int i = 0; i < fdp->numpath; ++i) fdstrfree(fdp->paths[i]);
    fdfree(fdp->paths, static_cast<long>(fdp->numpath) * sizeof(char*));
    fdfree(fdp, sizeof(DA_FDP));
}

long roundpage(long n) {
    long pg = daiogcb.pagesize;
    return (n + pg - 1) / pg * pg;
}

// The FIB allocation of a new file, as the table records' writer computes it.
int GetFibSize(DA_FDP* fdp, const DA_FDSTR* fstr) {
    return dagetfibsize(fdp->flags, fdp->mdfd != fdp, fdp->numpath, fdp->paths, firstmeta(fdp), fstr->namelen,
                        daiogcb.fibsize, daiogcb.pagesize);
}

// What may be there of size bytes at a physical offset: *got tells how much.
[[nodiscard]] rctype preadall(int fd, void* buf, long size, da_off_t off, long* got) {
    rctype rc = dapreadall(fd, buf, size, off, got);
    return rc == DA_SHORTREAD ? 0 : rc;
}

// The head of a FIB as the records' readers test it.
[[nodiscard]] rctype checkfib(const DA_FIB* fib, int flags) {
    if (dachkfib(fib, flags) < 0) return DA_BADVERSION;
    return dachkfibsize(fib);
}

}  // namespace

// ---------------------------------------------------------------- names

[[nodiscard]] rctype dafdmkpfn(DA_FDP* fdp, int pno, int revno, char* buf, size_t buflen) {
    int n = damkpfn(buf, fdp->flags & (DA_PFNOLDFMT | DA_PFNOWNFIB), fdp->fdb->name, revno, fdp->fuid, pno,
                    static_cast<int>(buflen));
    return n < 0 ? DA_BADARG : 0;
}

// Full path of partition pno from its directory entry.
[[nodiscard]] rctype dafdpfull(DA_FDP* fdp, int pno, char* buf, size_t buflen) {
    DA_FIB* fib = fdp->fdb->fib;
    if (pno < 0 || pno >= fib->numpde) return DA_BADARG;
    DA_PDE* e = pdeof(fib, pno);
    const char* nm = reinterpret_cast<const char*>(fib) + e->offset;
    if (strchr(nm, '/')) {
        if (strlen(nm) >= buflen) return DA_BADARG;
        strcpy(buf, nm);
        return 0;
    }
    return dafulln(firstmeta(fdp), nm, buf, static_cast<int>(buflen));
}

[[nodiscard]] rctype dafdpname(DA_FD* fd, int pno, char* buf, int buflen) {
    return dafdpfull(fdpof(fd), pno, buf, static_cast<size_t>(buflen));
}

// Adds a partition name to the directory, without its directory when that
// is the first metapath. A direct FIB that is full fails; an indirect one
// moves to a larger allocation at the end of the MDF.
[[nodiscard]] rctype daalpde(DA_FDP* fdp, const char* full) {
    DA_FDB* fdb = fdp->fdb;
    const char* meta = firstmeta(fdp);
    const char* nm;
    int32_t len;
    darelpn(meta, static_cast<int32_t>(strlen(meta)), full, static_cast<int32_t>(strlen(full)), &nm, &len);
    rctype rc = dapdeadd(fdb->fib, nm, len);
    if (rc != DA_FIBFULL) return rc < 0 ? rc : 0;
    if (!(fdp->flags & DA_FDINDIRECT)) return rc;
    DA_FIB* fib = fdb->fib;
    long nalloc = roundpage(2L * fib->pdesize + DA_FIBLEN);
    while (DA_FIBLEN + fib->topused + 8 + fib->botused + len + 1 > nalloc - DA_FIBLEN) nalloc *= 2;
    auto* nf = static_cast<DA_FIB*>(fdalloc(nalloc));
    if (!nf) return DA_NOMEM;
    // The same head, an empty directory, and every name again.
    memcpy(nf, fib, DA_FIBLEN);
    nf->pdesize = static_cast<int32_t>(nalloc - DA_FIBLEN);
    nf->overflow = 0;
    nf->topused = nf->botused = nf->numpde = 0;
    for (int i = 0; i < fib->numpde && rc != DA_NOMEM; ++i) {
        const char* pn;
        int32_t pl;
        rc = dapdenam(fib, i, &pn, &pl);
        if (rc >= 0) rc = dapdeadd(nf, pn, pl);
        if (rc < 0) break;
    }
    if (rc >= 0) rc = dapdeadd(nf, nm, len);
    if (rc < 0) {
        fdfree(nf, nalloc);
        return rc;
    }
    // The new FIB goes to the end of the MDF, then the old one points to it.
    DA_FDP* m = fdp->mdfd;
    da_off_t noff = -1;
    rc = m->fd.fdwrite(&m->fd, nf, nalloc, &noff);
    int64_t ov = noff;
    da_off_t patch = fdb->curfiboff + offsetof(DA_FIB, overflow);
    if (rc >= 0) rc = m->fd.fdwrite(&m->fd, &ov, sizeof ov, &patch);
    if (rc < 0) {
        fdfree(nf, nalloc);
        return rc;
    }
    fdfree(fib, fdb->fibsize);
    fdb->fib = nf;
    fdb->fibsize = static_cast<int>(nalloc);
    fdb->curfiboff = noff;
    return 0;
}

// Frees a directory entry; only the last can go.
[[nodiscard]] rctype dafrpde(DA_FDP* fdp, int pno) {
    DA_FIB* fib = fdp->fdb->fib;
    if (pno != fib->numpde - 1 || pno < 0) return DA_INTERNAL;
    DA_PDE* e = pdeof(fib, pno);
    fib->botused -= e->length + 1;
    memset(reinterpret_cast<char*>(fib) + e->offset, 0, e->length + 1);
    e->length = e->offset = 0;
    fib->numpde--;
    fib->topused -= 8;
    return 0;
}

// Writes the FIB with its directory. A direct FIB leaves its lock region alone.
[[nodiscard]] rctype dawrfibp(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    fdb->fib->filesize = fdb->filesize;
    if (fdp->flags & DA_FDINDIRECT) {
        da_off_t off = fdb->curfiboff;
        return dawrfib(daodsfd(&fdp->mdfd->fd), fdb->fib, &off);
    }
    if (fdb->numpcb < 1) return DA_INTERNAL;
    int pfd = fdb->pcbs[0].pfd;
    fdb->pcbs[0].flags |= DA_PCBDIRTY;
    return dawrfibd(daodspfd(&pfd, fdb->name), fdb->fib);
}

// Reads the FIB head at the end of its overflow chain; *where gets its offset.
[[nodiscard]] rctype dardfibhead(DA_FDP* fdp, DA_FIB* head, da_off_t* where) {
    DA_FDB* fdb = fdp->fdb;
    if (!(fdp->flags & DA_FDINDIRECT)) {
        long got = 0;
        memset(head, 0, sizeof *head);
        rctype rc = preadall(fdb->pcbs[0].pfd, head, DA_FIBDIRECTLEN, 0, &got);
        if (rc < 0) return rc;
        if (got < DA_FIBDIRECTLEN) return DA_SHORTREAD;
        *where = 0;
        return checkfib(head, fdp->flags);
    }
    DA_FDP* m = fdp->mdfd;
    da_off_t off = fdb->fiboff;
    for (int hops = 0;; ++hops) {
        long got = 0;
        rctype rc = m->fd.fdread(&m->fd, head, DA_FIBLEN, off, &got);
        if (rc != 0) return rc == DA_EOF ? DA_SHORTREAD : rc;
        if (got < DA_FIBLEN) return DA_SHORTREAD;
        if (head->overflow <= 0) break;
        if (hops > 64 || head->overflow == off) return DA_INTERNAL;
        off = head->overflow;
    }
    *where = off;
    rctype rc = checkfib(head, fdp->flags);
    if (rc == 0 && head->length > DA_FIBLEN) rc = DA_TOOLONG;
    return rc;
}

namespace {

// Loads the whole FIB with its directory into fdb->fib.
[[nodiscard]] rctype loadfib(DA_FDP* fdp, const char* who) {
    DA_FDB* fdb = fdp->fdb;
    DA_FIB head;
    da_off_t where = 0;
    rctype rc = dardfibhead(fdp, &head, &where);
    if (rc < 0) {
        hsprint("%s: Unable to read FIB of %s: Reason=%s\n", who, fdb->name, hsstrer(rc));
        return rc;
    }
    long alloc = DA_FIBLEN + static_cast<long>(head.pdesize);
    auto* fib = static_cast<DA_FIB*>(fdalloc(alloc));
    if (!fib) return DA_NOMEM;
    memcpy(fib, &head, DA_FIBLEN);
    long got = 0;
    if (fdp->flags & DA_FDINDIRECT) {
        DA_FDP* m = fdp->mdfd;
        rc = m->fd.fdread(&m->fd, reinterpret_cast<char*>(fib) + DA_FIBLEN, head.pdesize, where + DA_FIBLEN, &got);
        if (rc == DA_EOF) rc = DA_SHORTREAD;
    } else {
        rc = preadall(fdb->pcbs[0].pfd, reinterpret_cast<char*>(fib) + DA_FIBLEN, head.pdesize, DA_FIBLEN, &got);
    }
    if (rc == 0 && got < head.pdesize) rc = DA_SHORTREAD;
    if (rc == 0) rc = dachkpde(fib, static_cast<int32_t>(alloc));
    if (rc < 0) {
        hsprint("%s: Unable to read FIB directory of %s: Reason=%s\n", who, fdb->name, hsstrer(rc));
        fdfree(fib, alloc);
        return rc;
    }
    if (fdb->fib) fdfree(fdb->fib, fdb->fibsize);
    fdb->fib = fib;
    fdb->fibsize = static_cast<int>(alloc);
    fdb->curfiboff = where;
    fdb->revision = fib->revision;
    return 0;
}

}  // namespace

[[nodiscard]] rctype dafdreload(DA_FDP* fdp) { return loadfib(fdp, "SyncFIB"); }

// Ranges of all partitions from their real sizes: the files, not the FIB,
// say how long the file is.
void RecalcSizes(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    da_off_t total = 0;
    for (int i = 0; i < fdb->numpcb; ++i) {
        DA_PCB* p = &fdb->pcbs[i];
        off_t sz = p->pfd >= 0 ? _UIODT->lseek(p->pfd, 0, SEEK_END) : -1;
        if (sz < 0) sz = 0;
        p->minoffset = total;
        total += sz;
        p->maxoffset = total - 1;
    }
    fdb->filesize = total;
    if (fdb->fib) fdb->fib->filesize = total;
}

// Opens partitions from..numpde-1 named in the directory.
[[nodiscard]] rctype OpenParts(DA_FDP* fdp, int from) {
    DA_FDB* fdb = fdp->fdb;
    int dflags = (fdb->opmode == O_RDONLY) ? 2 : 1;
    if (fdp->flags & DA_FDDIRECTIO) dflags |= 0x20000;
    for (int i = from; i < fdb->fib->numpde; ++i) {
        char full[4096];
        rctype rc = dafdpfull(fdp, i, full, sizeof full);
        if (rc == 0) rc = growpcbs(fdb);
        if (rc < 0) return rc;
        DA_PCB* p = &fdb->pcbs[i];
        memset(p, 0, sizeof *p);
        p->pfd = p->dfd = -1;
        p->pdi = pathidx(fdp, full);
        rc = openpart(fdp, p, full, dflags, fdp->perms);
        if (rc < 0) {
            hsprint("OpenParts: Unable to open partition %s: Reason=%s\n", full, hsstrer(rc));
            return rc;
        }
        fdb->numpcb = i + 1;
    }
    RecalcSizes(fdp);
    return 0;
}

// A new last partition. skipFlag 0 starts at the path in use, 2 at the next
// one, 1 goes round robin over all paths.
[[nodiscard]] rctype dafnewp(DA_FDP* fdp, int updateFib, int skipFlag) {
    DA_FDB* fdb = fdp->fdb;
    DA_FIB* fib = fdb->fib;
    rctype rc = growpcbs(fdb);
    if (rc < 0) return rc;
    int pno = fdb->numpcb;
    bool first = pno == 0;
    bool force = first && (fdp->flags & DA_FDFORCE1ST);
    int hipath = fib->hipath;
    if (hipath > fdp->numpath - 1) hipath = fdp->numpath - 1;
    if (hipath < 0) hipath = 0;
    int skip = skipFlag;
    int start;
    if (first && (fdp->flags & DA_FDRANDPLACE)) {
        start = fdp->firstplace % fdp->numpath;
        if (start < 0) start += fdp->numpath;
        skip = 1;
    } else {
        start = hipath + (skipFlag ? 1 : 0);
    }
    char name[1024];
    rc = dafdmkpfn(fdp, pno, fib->revision, name, sizeof name);
    if (rc < 0) return rc;
    int dflags = 4 | ((fdp->flags & DA_FDDIRECTIO) ? 0x20000 : 0);
    int tries = (skip == 1) ? fdp->numpath : std::max(0, fdp->numpath - start);
    for (int t = 0; t < tries; ++t) {
        int pi = (skip == 1) ? (start + t) % fdp->numpath : start + t;
        char full[4096];
        if (dafulln(fdp->paths[pi], name, full, sizeof full) < 0) return DA_BADARG;
        struct statvfs vs;
        if (_UIODT->statvfs(fdp->paths[pi], &vs) < 0) {
            hsprint("dafnewp: Unable to obtain VFS status %s: Reason=%s\n", fdp->paths[pi], strerror(errno));
            if (force) return DA_NOSPACE;
            continue;
        }
        da_off_t avail = static_cast<da_off_t>(vs.f_bavail) * static_cast<da_off_t>(vs.f_frsize);
        if (avail < fdp->minfree) {
            if (force) {
                hsprint("dafnewp: Low space in initial path %s: Reason=%s\n", fdp->paths[pi], hsstrer(DA_NOSPACE));
                return DA_NOSPACE;
            }
            continue;
        }
        DA_PCB* p = &fdb->pcbs[pno];
        memset(p, 0, sizeof *p);
        p->pfd = p->dfd = -1;
        rc = openpart(fdp, p, full, dflags, fdp->perms);
        if (rc == DA_NOSPACE) {
            if (force) {
                hsprint("dafnewp: Unable to force initial partition %s: Reason=%s\n", full, hsstrer(rc));
                return rc;
            }
            continue;
        }
        if (rc < 0) {
            if (!(rc == DA_EXISTS && force && (fdp->flags & DA_FDOWNFIB)))
                hsprint("dafnewp: Unable to create partition %s: Reason=%s\n", full, hsstrer(rc));
            return rc;
        }
        p->pdi = pi;
        p->minoffset = fdb->filesize;
        p->maxoffset = fdb->filesize - 1;
        // The file's entry is on stable storage before any directory names
        // it: a power loss must not leave a name without its file.
        rc = dasyncpath(fdp, pi);
        if (rc == 0) rc = daalpde(fdp, full);
        if (rc == 0) {
            fib = fdb->fib;
            fib->hipath = pi;
            fdb->numpcb = pno + 1;
            // The directory names the partition before any data reaches it.
            if (updateFib) rc = dawrfibp(fdp);
            if (rc < 0) {
                fdb->numpcb = pno;
                daignore(dafrpde(fdp, pno));
            }
        }
        if (rc < 0) {
            closepart(p);
            _UIODT->unlink(full);
            return rc;
        }
        return 0;
    }
    return DA_NOSPACE;
}

[[nodiscard]] rctype dasyncpath(DA_FDP* fdp, int pi) {
    if (pi < 0 || pi >= fdp->numpath) return DA_INTERNAL;
    rctype rc = dasyncd(fdp->paths[pi]);
    if (rc < 0) hsprint("dasyncpath: Directory sync failed: path=%s file=%s Reason=%s\n", fdp->paths[pi],
                        fdp->fdb->name, hsstrer(rc));
    return rc;
}

// Closes and deletes partition pno (the last) with its directory entry.
[[nodiscard]] rctype dadroppcb(DA_FDP* fdp, int pno) {
    DA_FDB* fdb = fdp->fdb;
    if (pno != fdb->numpcb - 1) return DA_INTERNAL;
    closepart(&fdb->pcbs[pno]);
    fdb->numpcb--;
    if (fdp->curpcb >= fdb->numpcb) fdp->curpcb = fdb->numpcb > 0 ? fdb->numpcb - 1 : 0;
    rctype rc = dafrpde(fdp, pno);
    if (rc == 0 && fdb->numpcb > 0) fdb->fib->hipath = fdb->pcbs[fdb->numpcb - 1].pdi;
    return rc;
}

void dadelpf(const char* full) {
    if (_UIODT->unlink(full) < 0 && errno != ENOENT)
        hsprint("dadelfp: Unable to delete file %s: Reason=%s\n", full, strerror(errno));
}

[[nodiscard]] rctype dadelfp(DA_FDP* fdp, int pno, int updateFib) {
    char full[4096];
    rctype rc = dafdpfull(fdp, pno, full, sizeof full);
    if (rc == 0) rc = dadroppcb(fdp, pno);
    if (rc < 0) return rc;
    dadelpf(full);
    if (updateFib) rc = dawrfibp(fdp);
    return rc;
}

// The partition holding a logical offset, walking from the cached one.
[[nodiscard]] rctype dao2pcb(DA_FDP* fdp, da_off_t off, int* pno) {
    DA_FDB* fdb = fdp->fdb;
    int n = fdb->numpcb;
    if (n == 0 || off < 0 || off >= fdb->filesize) return DA_EOF;
    int i = fdp->curpcb;
    if (i < 0 || i >= n) i = 0;
    while (i < n - 1 && off > fdb->pcbs[i].maxoffset) ++i;
    while (i > 0 && off < fdb->pcbs[i].minoffset) --i;
    // Empty partitions have maxoffset < minoffset; step over them.
    while (i < n - 1 && off > fdb->pcbs[i].maxoffset) ++i;
    *pno = i;
    return 0;
}

// ---------------------------------------------------------------- open

namespace {

[[nodiscard]] rctype ownfibopen(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    char name[1024], full[4096];
    rctype rc = dafdmkpfn(fdp, 0, 0, name, sizeof name);
    if (rc == 0) rc = dafulln(fdp->paths[0], name, full, sizeof full);
    if (rc < 0) return rc;
    rc = growpcbs(fdb);
    if (rc < 0) return rc;
    DA_PCB* p = &fdb->pcbs[0];
    memset(p, 0, sizeof *p);
    p->pfd = p->dfd = -1;
    int dflags = (fdb->opmode == O_RDONLY) ? 2 : 1;
    if (fdp->flags & DA_FDDIRECTIO) dflags |= 0x20000;
    rc = openpart(fdp, p, full, dflags, fdp->perms);
    if (rc < 0) return rc;
    fdb->numpcb = 1;
    rc = loadfib(fdp, "dalfibd");
    if (rc < 0) return rc;
    if (fdb->fib->numpde < 1) return DA_BADVERSION;
    return OpenParts(fdp, 1);
}

[[nodiscard]] rctype create(DA_FDP* fdp, DA_FDSTR* fstr) {
    DA_FDB* fdb = fdp->fdb;
    int fibsize = fstr->fibsize > 0 ? static_cast<int>(roundpage(fstr->fibsize)) : GetFibSize(fdp, fstr);
    auto* fib = static_cast<DA_FIB*>(fdalloc(fibsize));
    if (!fib) return DA_NOMEM;
    fdb->fib = fib;
    fdb->fibsize = fibsize;
    int32_t rev = (fdp->flags & DA_FDINDIRECT) && fdp->mdfd->fdb->fib ? fdp->mdfd->fdb->fib->revision : 1;
    dainitfib(fib, fibsize, fdp->flags, fstr->namelen, fstr->ds_rv_wr, rev < 1 ? 1 : rev,
              static_cast<int32_t>(time(nullptr)));
    if (fdp->flags & DA_FDOLDFMT) fib->version = DA_FIBVERSION_OLD;
    fdb->revision = fib->revision;
    fdb->filesize = 0;
    rctype rc = dafnewp(fdp, 0, 0);
    if (rc < 0) return rc;
    if (fdp->flags & DA_FDINDIRECT) {
        DA_FDP* m = fdp->mdfd;
        da_off_t off = -1;
        rc = m->fd.fdwrite(&m->fd, fib, fibsize, &off);
        if (rc < 0) return rc;
        fdb->fiboff = fdb->curfiboff = off;
        fstr->fiboff = off;
        fdp->fd.baseoff = 0;
        return 0;
    }
    // BootFIB: the FIB is the first data of the file; a full path moves it on.
    for (;;) {
        fdb->filesize = fibsize;
        fdb->pcbs[0].maxoffset = fibsize - 1;
        rc = dawrfibp(fdp);
        if (rc != DA_NOSPACE) break;
        fdb->filesize = 0;
        rctype drc = dadelfp(fdp, 0, 0);
        if (drc < 0) return drc;
        if (fdp->flags & DA_FDFORCE1ST) return rc;
        rc = dafnewp(fdp, 0, 2);
        if (rc < 0) return rc;
    }
    if (rc < 0) return rc;
    fdp->fd.baseoff = fibsize;
    return 0;
}

}  // namespace

void dafdsmt(DA_FDP* fdp);

namespace {

// The key of a shared block: the first partition's path, or the FIB's place in the MDF.
void mkkey(DA_FDP* fdp, const char* nm, da_off_t fiboff, char* key, size_t len) {
    if (fdp->flags & DA_FDINDIRECT) {
        snprintf(key, len, "%s@%lld:%s", fdp->mdfd->fdb->fullname, static_cast<long long>(fiboff), nm);
    } else {
        char pn[1100];
        if (damkpfn(pn, (fdp->flags & DA_PFNOLDFMT) | DA_PFNOWNFIB, nm, 0, "0", 0, sizeof pn) < 0 ||
            dafulln(fdp->paths[0], pn, key, static_cast<int>(len)) < 0)
            key[0] = '\0';
    }
}

[[nodiscard]] rctype setkey(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    char key[4096];
    mkkey(fdp, fdb->name, fdb->fiboff, key, sizeof key);
    char* k = fdstrdup(key);
    if (!k) return DA_NOMEM;
    fdstrfree(fdb->fullname);
    fdb->fullname = k;
    fdb->fullname_l = static_cast<int>(strlen(k));
    return 0;
}

}  // namespace

[[nodiscard]] rctype dafdopn(DA_FDSTR* fstr, DA_FD** fdout) {
    *fdout = nullptr;
    rctype irc = daioini();
    if (irc < 0) return irc;
    int flags = fstr->flags;
    if (!(flags & (DA_FDINDIRECT | DA_FDDIRECT))) flags |= DA_FDDIRECT;
    if ((flags & DA_FDINDIRECT) && (!fstr->mdfd || !(fdpof(fstr->mdfd)->flags & DA_FDDIRECT))) return DA_BADARG;
    if (!fstr->name || fstr->namelen <= 0 || fstr->numpath <= 0 || !fstr->paths) return DA_BADARG;
    if ((flags & DA_FDWRITE) && (flags & DA_FDRDONLY)) return DA_BADARG;
    if (flags & DA_FDCREATE) flags = (flags & ~DA_FDRDONLY) | DA_FDWRITE;
    if (!(flags & DA_FDWRITE)) flags |= DA_FDRDONLY;

    auto* fdp = static_cast<DA_FDP*>(fdalloc(sizeof(DA_FDP)));
    if (!fdp) return DA_NOMEM;
    fdp->flags = flags;
    fdp->perms = fstr->perms < 0 ? 16 : fstr->perms;
    if (fdp->perms == 16) fdp->perms = 0666;  // the default: what the umask allows
    fdp->minfree = fstr->minfree < 0 ? 8192 : fstr->minfree;
    fdp->maxpar = fstr->maxpar;
    if ((flags & DA_FDPARTSIZE) && fdp->maxpar > 0 && fdp->maxpar < daiogcb.minpartsize)
        fdp->maxpar = daiogcb.minpartsize;
    fdp->firstplace = fstr->firstplace;
    fdp->opmode = (flags & DA_FDWRITE) ? O_RDWR : O_RDONLY;
    fdp->numpath = fstr->numpath;
    fdp->paths = static_cast<char**>(fdalloc(static_cast<long>(fstr->numpath) * sizeof(char*)));
    if (!fdp->paths) {
        fdfree(fdp, sizeof(DA_FDP));
        return DA_NOMEM;
    }
    for (int i = 0; i < fstr->numpath; ++i) {
        fdp->paths[i] = fdstrdup(fstr->paths[i]);
        if (!fdp->paths[i]) {
            freefdp(fdp);
            return DA_NOMEM;
        }
    }
    if (!fstr->mdfd) {
        fdp->flags |= DA_FDOWNFIB;
        fdp->mdfd = fdp;
        if (dagmpid(fdp->paths[0], -1, fdp->fuid, sizeof fdp->fuid) < 0) fdp->fuid[0] = '\0';
    } else {
        fdp->mdfd = fdpof(fstr->mdfd);
        snprintf(fdp->fuid, sizeof fdp->fuid, "%s", fdp->mdfd->fuid);
    }
    flags = fdp->flags;

    char key[4096];
    {
        char nm[1024];
        snprintf(nm, sizeof nm, "%.*s", fstr->namelen, fstr->name);
        mkkey(fdp, nm, fstr->fiboff, key, sizeof key);
    }
    bool shared = (flags & DA_FDSHARED) && !(flags & DA_FDCREATE);
    if (flags & DA_FDSHARED) fdblock();
    if (shared) {
        for (DA_FDB* b = daiogcb.fdbList; b; b = b->next) {
            if (strcmp(b->fullname, key) != 0 || (b->state & DA_FDSLOST)) continue;
            b->refcount++;
            fdp->fdb = b;
            rctype rc = 0;
            if ((flags & DA_FDWRITE) && b->opmode == O_RDONLY) rc = dareopenp(fdp, flags);
            if (rc < 0) {
                b->refcount--;
                fdbunlock();
                freefdp(fdp);
                return rc;
            }
            fdbunlock();
            dafdsmt(fdp);
            memcpy(fstr->ds_rv_wr, b->reqvec, 24);
            *fdout = &fdp->fd;
            return 0;
        }
    }
    auto* fdb = static_cast<DA_FDB*>(fdalloc(sizeof(DA_FDB)));
    rctype rc = fdb ? 0 : DA_NOMEM;
    if (fdb) {
        fdp->fdb = fdb;
        fdb->refcount = 1;
        fdb->flags = flags;
        fdb->opmode = fdp->opmode;
        fdb->fiboff = fdb->curfiboff = fstr->fiboff;
        fdb->name = static_cast<char*>(fdalloc(fstr->namelen + 1));
        fdb->fullname = fdstrdup(key);
        if (!fdb->name || !fdb->fullname) rc = DA_NOMEM;
        else {
            memcpy(fdb->name, fstr->name, fstr->namelen);
            fdb->fullname_l = static_cast<int>(strlen(key));
        }
    }
    if (rc == 0) {
        if (flags & DA_FDCREATE) {
            rc = create(fdp, fstr);
            // An indirect file's place in the MDF is known only now.
            if (rc == 0 && (flags & DA_FDINDIRECT)) rc = setkey(fdp);
            if (rc < 0 && fdb->numpcb > 0) {
                // Take back what a failed create left behind.
                // A partition that cannot be dropped ends the clean-up, not loops on it.
                for (int n = fdb->numpcb; n > 0 && n == fdb->numpcb; --n) daignore(dadelfp(fdp, n - 1, 0));
            }
        } else if (flags & DA_FDINDIRECT) {
            rc = loadfib(fdp, "dalfibi");
            if (rc == 0) rc = OpenParts(fdp, 0);
        } else {
            rc = ownfibopen(fdp);
        }
    }
    if (rc < 0) {
        if (flags & DA_FDSHARED) fdbunlock();
        freefdb(fdb);
        freefdp(fdp);
        return rc;
    }
    fdp->fd.baseoff = (flags & DA_FDINDIRECT) ? 0 : fdb->fibsize;
    memcpy(fdb->reqvec, reinterpret_cast<char*>(fdb->fib) + 8, 24);
    fdb->modtime = fdb->fib->modtime;
    fdb->stampstripes = fdb->fib->numstripes;
    fdb->stampvalid = 1;
    if (flags & DA_FDSHARED) {
        fdb->next = daiogcb.fdbList;
        daiogcb.fdbList = fdb;
        fdbunlock();
    }
    dafdsmt(fdp);
    memcpy(fstr->ds_rv_wr, fdb->reqvec, 24);
    *fdout = &fdp->fd;
    if (flags & DA_FDCHKREV) {
        rc = fdp->fd.fdcheckrev(&fdp->fd, 0, -1, nullptr);
        if (rc != 0) return rc;
    }
    return 0;
}

[[nodiscard]] rctype dafdexi(DA_FDSTR* fstr, char* fullpath, int fulllen) {
    rctype irc = daioini();
    if (irc < 0) return irc;
    if (!fstr->name || fstr->namelen <= 0 || fstr->numpath <= 0) return DA_BADARG;
    int flags = fstr->flags;
    char nm[1100], full[4096];
    if (flags & DA_FDINDIRECT) {
        // The first partition of an indirect file is named in its FIB.
        DA_FDSTR s = *fstr;
        s.flags = (flags & ~(DA_FDCREATE | DA_FDWRITE | DA_FDSHARED | DA_FDCHKREV)) | DA_FDRDONLY;
        DA_FD* fd = nullptr;
        rctype rc = dafdopn(&s, &fd);
        if (rc < 0) return rc;
        rc = dafdpfull(fdpof(fd), 0, full, sizeof full);
        rctype crc = fd->fdclose(fd);
        if (rc < 0) return rc;
        if (crc < 0) return crc;
    } else {
        char base[1100];
        snprintf(base, sizeof base, "%.*s", fstr->namelen, fstr->name);
        if (damkpfn(nm, (flags & DA_PFNOLDFMT) | DA_PFNOWNFIB, base, 0, "0", 0, sizeof nm) < 0) return DA_BADARG;
        rctype rc = dafulln(fstr->paths[0], nm, full, sizeof full);
        if (rc < 0) return rc;
    }
    if (fullpath && fulllen > 0) snprintf(fullpath, fulllen, "%s", full);
    struct stat st;
    return dastatf(full, &st);
}

// ---------------------------------------------------------------- close, delete, rename, revision

namespace {

[[nodiscard]] rctype dafddel(DA_FD* fd, da_off_t) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    rctype first = 0;
    for (int i = fdb->fib->numpde - 1; i >= 0; --i) {
        char full[4096];
        if (dafdpfull(fdp, i, full, sizeof full) < 0) continue;
        if (i < fdb->numpcb) closepart(&fdb->pcbs[i]);
        if (_UIODT->unlink(full) < 0 && errno != ENOENT) {
            hsprint("dafddel: Unable to delete file %s: Reason=%s\n", full, strerror(errno));
            if (!first) first = daerrno(errno);
        }
    }
    fdb->numpcb = 0;
    fdb->filesize = 0;
    fdb->state |= DA_FDSLOST;
    return first;
}

[[nodiscard]] rctype dafdclo(DA_FD* fd) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    rctype rc = 0;
    if (fdp->syncmode) {
        DA_FDSCB scb = {0, 1};
        rc = dafdcntl(fd, DA_FDUNSYNC, &scb);
    }
    if (fdp->flags & (DA_FDRDLOCK | DA_FDWRLOCK)) {
        DA_FDROB rob = {0, 0};
        rctype urc = dafdcntl(fd, DA_FDUNLOCK, &rob);
        if (rc >= 0) rc = urc;
    }
    bool shared = fdb->flags & DA_FDSHARED;
    if (shared) fdblock();
    if (--fdb->refcount == 0) {
        if (shared) {
            for (DA_FDB** pp = &daiogcb.fdbList; *pp; pp = &(*pp)->next)
                if (*pp == fdb) {
                    *pp = fdb->next;
                    break;
                }
        }
        if ((fdp->flags & DA_FDDELCLOSE) && !(fdb->state & DA_FDSLOST)) {
            rctype drc = dafddel(fd, -1);
            if (drc < 0) hsprint("dafdclo: Delete on close failed: %s\n", fdb->name);
            if (rc >= 0) rc = drc;
        }
        freefdb(fdb);
    }
    if (shared) fdbunlock();
    freefdp(fdp);
    return rc;
}

// The directory made again from the partitions' full names, after their
// files were renamed: the renames reach stable storage first, so that a
// directory on disk never names files that a power loss took back.
[[nodiscard]] static rctype redir(DA_FDP* fdp, char (*fulls)[4096], int n) {
    DA_FDB* fdb = fdp->fdb;
    rctype rc = 0;
    std::vector<bool> synced(fdp->numpath, false);
    for (int i = 0; i < n && i < fdb->numpcb && rc == 0; ++i) {
        int pi = fdb->pcbs[i].pdi;
        if (pi < 0 || pi >= fdp->numpath || synced[pi]) continue;
        synced[pi] = true;
        rc = dasyncpath(fdp, pi);
    }
    if (rc < 0) return rc;
    DA_FIB* fib = fdb->fib;
    fib->numpde = fib->topused = fib->botused = 0;
    memset(reinterpret_cast<char*>(fib) + DA_FIBLEN, 0, fdb->fibsize - DA_FIBLEN);
    for (int i = 0; i < n && rc == 0; ++i) rc = daalpde(fdp, fulls[i]);
    if (rc < 0) {
        // The files are renamed but the directory in memory is not whole:
        // the file can only be closed now.
        hsprint("redir: Partition directory of %s cannot be rebuilt: Reason=%s\n", fdb->name, hsstrer(rc));
        fdb->state |= DA_FDSLOST;
    }
    return rc;
}

// Renames every partition to a new base name and rewrites the directory.
[[nodiscard]] rctype dafdren(DA_FD* fd, da_off_t, const char* newname, int newlen) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    if (!newname || newlen <= 0) return DA_BADARG;
    char* nn = static_cast<char*>(fdalloc(newlen + 1));
    if (!nn) return DA_NOMEM;
    memcpy(nn, newname, newlen);
    char* oldname = fdb->name;
    int n = fdb->fib->numpde;
    char (*fulls)[4096] = new (std::nothrow) char[n > 0 ? n : 1][4096];
    if (!fulls) {
        fdfree(nn, newlen + 1);
        return DA_NOMEM;
    }
    rctype first = 0;
    for (int i = 0; i < n; ++i) {
        char old[4096];
        rctype prc = dafdpfull(fdp, i, old, sizeof old);
        if (prc < 0) {
            delete[] fulls;
            fdfree(nn, newlen + 1);
            return prc;
        }
        strcpy(fulls[i], old);
        const char* slash = strrchr(old, '/');
        size_t dl = slash ? static_cast<size_t>(slash - old) + 1 : 0;
        size_t bl = strlen(oldname);
        if (strncmp(old + dl, oldname, bl) != 0 || old[dl + bl] != '.') continue;
        char nw[4096];
        snprintf(nw, sizeof nw, "%.*s%s%s", static_cast<int>(dl), old, nn, old + dl + bl);
        if (_UIODT->rename(old, nw) < 0) {
            hsprint("dafdren: Error renaming %s to %s: Reason=%s\n", old, nw, strerror(errno));
            if (!first) first = daerrno(errno);
            continue;
        }
        strcpy(fulls[i], nw);
    }
    rctype rc = redir(fdp, fulls, n);
    delete[] fulls;
    fdb->name = nn;
    fdstrfree(oldname);
    fdb->fib->namelen = newlen;
    if (rc == 0) {
        if (fdb->flags & DA_FDSHARED) fdblock();
        rc = setkey(fdp);
        if (fdb->flags & DA_FDSHARED) fdbunlock();
    }
    if (rc == 0) rc = dawrfibp(fdp);
    return first ? first : rc;
}

// Next revision: every partition but an MDF's first takes the new number.
[[nodiscard]] rctype dafdrev(DA_FD* fd, da_off_t) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    int nrev = (fdb->fib->revision + 1) % 10000;
    if (nrev == 0) nrev = 1;
    int n = fdb->fib->numpde;
    char (*fulls)[4096] = new (std::nothrow) char[n > 0 ? n : 1][4096];
    if (!fulls) return DA_NOMEM;
    rctype first = 0;
    for (int i = 0; i < n; ++i) {
        char old[4096];
        rctype prc = dafdpfull(fdp, i, old, sizeof old);
        if (prc < 0) {
            delete[] fulls;
            return prc;
        }
        strcpy(fulls[i], old);
        if (i == 0 && (fdp->flags & DA_FDOWNFIB)) continue;
        char nw[4096];
        if (darevpfn(old, nrev, nw, sizeof nw) < 0) continue;
        if (_UIODT->rename(old, nw) < 0) {
            // The partition keeps its name and the directory says so; the
            // caller learns that the revision is not whole.
            hsprint("dafdrev: Error revising %s to %s: Reason=%s\n", old, nw, strerror(errno));
            if (!first) first = daerrno(errno);
            continue;
        }
        strcpy(fulls[i], nw);
    }
    rctype rc = redir(fdp, fulls, n);
    delete[] fulls;
    if (rc < 0) return rc;
    fdb->fib->revision = nrev;
    fdb->revision = nrev;
    fd->revision = nrev;
    rc = dawrfibp(fdp);
    return first ? first : rc;
}

[[nodiscard]] rctype dafdckrev(DA_FD* fd, int flags, da_off_t, da_off_t* fsize) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    rctype rc = 0;
    da_off_t total = 0;
    const char* sfx = suffixof(fdp->flags);
    for (int i = 0; i < fdb->fib->numpde; ++i) {
        char full[4096];
        if (dafdpfull(fdp, i, full, sizeof full) < 0) return DA_INTERNAL;
        if (!(i == 0 && (fdp->flags & DA_FDOWNFIB))) {
            const char* slash = strrchr(full, '/');
            DA_PFNPARTS pp;
            if (dafdpfn(slash ? slash + 1 : full, &pp, false) != 0 || pp.revno != fdb->fib->revision ||
                static_cast<size_t>(pp.sfx_l) != strlen(sfx) || strncmp(pp.sfx, sfx, pp.sfx_l) != 0)
                rc = DA_REVDIFF;
        }
        if (flags & 1) {
            struct stat st;
            if (dastatf(full, &st) < 0) {
                hsprint("dafdckrev: Partition missing %s\n", full);
                rc = DA_PARTMISS;
            } else {
                total += st.st_size;
            }
        }
    }
    if (fsize) *fsize = total;
    return rc;
}

[[nodiscard]] rctype dafdstat(DA_FD* fd, struct stat* st) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    if (fdb->numpcb < 1 || _UIODT->fstat(fdb->pcbs[0].pfd, st) < 0) return DA_SYSERR;
    st->st_size = fdb->filesize;
    return 0;
}

[[nodiscard]] rctype dafdpstat(DA_FD* fd, int pno, DA_FDPSTAT* ps) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    if (pno < 0 || pno >= fdb->numpcb) return DA_BADARG;
    ps->minoffset = fdb->pcbs[pno].minoffset;
    ps->maxoffset = fdb->pcbs[pno].maxoffset;
    ps->pdi = fdb->pcbs[pno].pdi;
    ps->flags = fdb->pcbs[pno].flags;
    return dafdpfull(fdp, pno, ps->name, sizeof ps->name);
}

[[nodiscard]] rctype dafdnofree(DA_FD*, da_off_t, da_off_t) { return 0; }

[[nodiscard]] rctype danovalw(DA_FD*, const void*, long, da_off_t*) { return DA_ACCESS; }
[[nodiscard]] rctype danovalt(DA_FD*, da_off_t) { return DA_ACCESS; }
[[nodiscard]] rctype danovalf(DA_FD*, da_off_t, da_off_t) { return DA_ACCESS; }
[[nodiscard]] rctype danovalr(DA_FD*, da_off_t, const char*, int) { return DA_ACCESS; }

}  // namespace

// Methods by access mode; one-partition read-only files skip the partition search.
void dafdsmt(DA_FDP* fdp) {
    DA_FD* fd = &fdp->fd;
    DA_FDB* fdb = fdp->fdb;
    fd->fdclose = dafdclo;
    fd->fdstat = dafdstat;
    fd->fdmmap = dammapp;
    fd->fdunmap = daunmap;
    fd->fdcntl = dafdcntl;
    fd->fdpstat = dafdpstat;
    fd->fdcheckrev = dafdckrev;
    fd->fddelete = dafddel;
    if (fdb->opmode == O_RDONLY || !(fdp->flags & DA_FDWRITE)) {
        fd->fdwrite = danovalw;
        fd->fdtrunc = danovalt;
        fd->fdfree = danovalf;
        fd->fdrename = danovalr;
        fd->fdrevise = danovalt;
        fd->fdread = fdb->numpcb == 1 ? daread1 : dareadp;
    } else {
        fd->fdwrite = dawritp;
        fd->fdtrunc = datrncp;
        fd->fdfree = dafdnofree;
        fd->fdrename = dafdren;
        fd->fdrevise = dafdrev;
        fd->fdread = dareadp;
    }
    fd->filesize = &fdb->filesize;
    fd->revision = fdb->revision;
    fd->p_req_vec = fdb->reqvec;
    fd->baseoff = (fdp->flags & DA_FDINDIRECT) ? 0 : fdb->fibsize;
}

[[nodiscard]] rctype dagetfibparms(DA_FD* fd, int* modtime, int* numstripes) {
    DA_FDB* fdb = fdpof(fd)->fdb;
    if (modtime) *modtime = fdb->fib->modtime;
    if (numstripes) *numstripes = fdb->fib->numstripes;
    return 0;
}

}  // namespace vrta

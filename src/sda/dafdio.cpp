// Positioned reads and writes over the partitions of a logical file, growth
// into new partitions and paths, truncation and memory mapping.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include <fcntl.h>
#include <unistd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include "sda/dafdp.h"
#include "hs/hs.h"

namespace vrta {

namespace {

// A partition's reads and writes, its O_DIRECT twin taking aligned pieces.
ssize_t readpart(const DA_PCB* p, void* buf, size_t n, da_off_t off, int* err) {
    return daxfer(p->pfd, p->dfd, buf, n, off, false, err);
}
// The partition is due a data sync from here on.
ssize_t writepart(DA_PCB* p, const void* buf, size_t n, da_off_t off, int* err) {
    p->flags |= DA_PCBDIRTY;
    return daxfer(p->pfd, p->dfd, const_cast<void*>(buf), n, off, true, err);
}

const char* fname(DA_FDP* fdp) { return fdp->fdb->name ? fdp->fdb->name : "?"; }

[[nodiscard]] rctype ShortRead(DA_FDP* fdp, const char* who, da_off_t off, long size, long nread) {
    hsprint("%s: Short read(%d): file=%s filesize=%ld offset=%ld size=%d nread=%d\n", who, DA_SHORTREAD, fname(fdp),
            static_cast<long>(fdp->fdb->filesize), static_cast<long>(off), static_cast<int>(size), static_cast<int>(nread));
    return DA_SHORTREAD;
}

}  // namespace

void IOError(DA_FDP* fdp, const char* who, const char* what, int err, da_off_t off) {
    hsprint("%s: %s: file=%s offset=%ld errno=%d\n", who, what, fname(fdp), static_cast<long>(off), err);
}

[[nodiscard]] rctype BadOffset(DA_FDP* fdp, const char* who, rctype rc, da_off_t off) {
    hsprint("%s: Bad offset(%d): file=%s filesize=%ld offset=%ld\n", who, rc, fname(fdp),
            static_cast<long>(fdp->fdb->filesize), static_cast<long>(off));
    return rc;
}

void DumpPcbs(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    hsprint("DADEBUG: PCB dump: File=%s numpcb=%d\n", fname(fdp), fdb->numpcb);
    for (int i = 0; i < fdb->numpcb; ++i) {
        char full[4096];
        if (dafdpfull(fdp, i, full, sizeof full) < 0) full[0] = 0;
        hsprint("DADEBUG: PCB %d: min=%ld max=%ld pdi=%d fd=%d name=%s\n", i,
                static_cast<long>(fdb->pcbs[i].minoffset), static_cast<long>(fdb->pcbs[i].maxoffset),
                fdb->pcbs[i].pdi, fdb->pcbs[i].pfd, full);
    }
}

// ---------------------------------------------------------------- read

[[nodiscard]] rctype dareadp(DA_FD* fd, void* buf, long size, da_off_t offset, long* nread) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    *nread = 0;
    if (offset < 0) return BadOffset(fdp, "dareadp", DA_BADOFFSET, offset);
    if (size <= 0) return 0;
    if (offset >= fdb->filesize) {
        if (fdp->flags & DA_FDEOFERR) return BadOffset(fdp, "dareadp", DA_READEOF, offset);
        return DA_EOF;
    }
    int pno = fdp->curpcb;
    const DA_PCB* pcbs = fdb->pcbs;
    if (pno < 0 || pno >= fdb->numpcb || offset < pcbs[pno].minoffset || offset > pcbs[pno].maxoffset) {
        if (dao2pcb(fdp, offset, &pno) != 0) return DA_EOF;
    }
    char* out = static_cast<char*>(buf);
    long total = 0;
    da_off_t off = offset;
    for (;;) {
        const DA_PCB* p = &pcbs[pno];
        da_off_t avail = p->maxoffset - off + 1;
        if (avail > 0) {
            long want = static_cast<long>(std::min<da_off_t>(size - total, avail));
            int err;
            ssize_t r = readpart(p, out + total, want, off - p->minoffset, &err);
            if (r < 0) {
                fdp->curpcb = pno;
                *nread = total;
                IOError(fdp, "dareadp", "Read failed", err, off);
                return DA_READFAIL;
            }
            total += r;
            off += r;
            if (r < want) {
                fdp->curpcb = pno;
                *nread = total;
                if (fdp->flags & DA_FDSHORTERR) return ShortRead(fdp, "dareadp", offset, size, total);
                return 0;
            }
        }
        if (total >= size || pno + 1 >= fdb->numpcb) break;
        ++pno;
    }
    fdp->curpcb = pno;
    *nread = total;
    return 0;
}

[[nodiscard]] rctype daread1(DA_FD* fd, void* buf, long size, da_off_t offset, long* nread) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    // Another opener of a shared block may have added partitions since.
    if (fdb->numpcb != 1) return dareadp(fd, buf, size, offset, nread);
    *nread = 0;
    if (offset < 0) return BadOffset(fdp, "daread1", DA_BADOFFSET, offset);
    if (size <= 0) return 0;
    if (offset >= fdb->filesize) {
        if (fdp->flags & DA_FDEOFERR) return BadOffset(fdp, "daread1", DA_READEOF, offset);
        return DA_EOF;
    }
    long want = static_cast<long>(std::min<da_off_t>(size, fdb->filesize - offset));
    int err;
    ssize_t r = readpart(&fdb->pcbs[0], buf, want, offset, &err);
    if (r < 0) {
        IOError(fdp, "daread1", "Read failed", err, offset);
        return DA_READFAIL;
    }
    *nread = r;
    if (r < want && (fdp->flags & DA_FDSHORTERR)) return ShortRead(fdp, "daread1", offset, size, r);
    return 0;
}

// ---------------------------------------------------------------- write

namespace {

// Room left in the last partition under the partition size and the process limit.
da_off_t roomleft(DA_FDP* fdp, da_off_t paroff) {
    da_off_t lim = daiogcb.filemax;
    if ((fdp->flags & DA_FDPARTSIZE) && fdp->maxpar > 0) lim = std::min(lim, fdp->maxpar);
    return lim - paroff;
}

void wrdiag(DA_FDP* fdp, const char* fmt, bool rewrite, da_off_t off, long size, da_off_t paroff, long wsize, int err) {
    hsprint(fmt, rewrite ? 1 : 0, static_cast<long>(daiogcb.filemax), static_cast<long>(fdp->fdb->filesize),
            static_cast<long>(off), static_cast<int>(size), static_cast<long>(paroff), wsize, err);
}

// Cuts a partition back to where a failed append began: what a partial
// write left behind would otherwise count as the file's bytes at the next open.
[[nodiscard]] rctype cutback(DA_FDP* fdp, DA_PCB* p, da_off_t paroff, da_off_t off) {
    p->flags |= DA_PCBDIRTY;
    rctype rc = datrncf(p->pfd, paroff);
    if (rc < 0) IOError(fdp, "dawritp", "Truncate after a failed write failed", errno, off);
    return rc;
}

// Moves an append on to a new partition; skip as for dafnewp.
[[nodiscard]] rctype nextpart(DA_FDP* fdp, int pno, long wsize, int* ntry, da_off_t off, long size, da_off_t paroff) {
    DA_FDB* fdb = fdp->fdb;
    DA_PCB* p = &fdb->pcbs[pno];
    int skip = 0;
    if (p->maxoffset < p->minoffset && fdb->numpcb > 1) {
        // An empty partition is useless; the next one must go elsewhere.
        rctype rc = dadelfp(fdp, pno, 1);
        if (rc < 0) return rc;
        skip = 2;
    }
    if (fdb->fib->creflags & 0x84000) skip = 1;
    if (fdp->minfree < wsize) fdp->minfree = wsize;
    if (*ntry >= fdp->numpath) {
        hsprint("dawritp: PATH LOOP: ntry=%d numpath=%d filemax=%ld filesize=%ld offset=%ld size=%d paroff=%ld wsize=%ld\n",
                *ntry, fdp->numpath, static_cast<long>(daiogcb.filemax), static_cast<long>(fdb->filesize),
                static_cast<long>(off), static_cast<int>(size), static_cast<long>(paroff), wsize);
        DumpPcbs(fdp);
        return DA_NOSPACE;
    }
    rctype rc = dafnewp(fdp, 1, skip);
    if (rc == DA_NOSPACE) {
        hsprint("dawritp: HSENOSPC no path takes a new partition: file=%s numpath=%d\n", fdp->fdb->name, fdp->numpath);
    }
    return rc;
}

}  // namespace

[[nodiscard]] rctype dawritp(DA_FD* fd, const void* buf, long size, da_off_t* offp) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    da_off_t off = *offp;
    if (off < -1) return BadOffset(fdp, "dawritp", DA_INTERNAL, off);
    if (fdb->state & DA_FDSLOST) return DA_STATELOST;
    if (size < 0) return DA_BADARG;
    int pno;
    if (off < 0 || off == fdb->filesize) {
        off = fdb->filesize;
        if (fdb->numpcb == 0) {
            rctype rc = dafnewp(fdp, 1, 0);
            if (rc < 0) return rc;
        }
        pno = fdb->numpcb - 1;
    } else if (off > fdb->filesize) {
        if (!(fdp->flags & DA_FDHOLES)) return BadOffset(fdp, "dawritp", DA_BADOFFSET, off);
        rctype rc = GrowFile(fdp, off);
        if (rc < 0) return rc;
        pno = fdb->numpcb - 1;
    } else {
        pno = fdp->curpcb;
        const DA_PCB* c = (pno >= 0 && pno < fdb->numpcb) ? &fdb->pcbs[pno] : nullptr;
        if (!c || off < c->minoffset || off > c->maxoffset) {
            if (dao2pcb(fdp, off, &pno) != 0) return BadOffset(fdp, "dawritp", DA_BADOFFSET, off);
        }
    }
    *offp = off;
    const char* in = static_cast<const char*>(buf);
    long left = size;
    int ntry = 0;
    while (left > 0) {
        DA_PCB* p = &fdb->pcbs[pno];
        da_off_t paroff = off - p->minoffset;
        bool rewrite = off < fdb->filesize;
        if (rewrite && pno == fdb->numpcb - 1 && off + left > fdb->filesize && roomleft(fdp, paroff) >= left) {
            // A last block that is rewritten and grows goes out in one write: a
            // process killed between a rewrite and an append would leave it
            // torn, and an encrypted block then loses rows already committed.
            // On any failure the two-step way below writes it again.
            int err = 0;
            if (writepart(p, in, left, paroff, &err) == left) {
                off += left;
                if (off - 1 > p->maxoffset) p->maxoffset = off - 1;
                fdb->filesize = off;
                left = 0;
                break;
            }
        }
        long wsize;
        if (rewrite) {
            da_off_t end = (pno == fdb->numpcb - 1) ? fdb->filesize - 1 : p->maxoffset;
            wsize = static_cast<long>(std::min<da_off_t>(left, end - off + 1));
            if (wsize <= 0) {
                ++pno;  // an empty partition in the middle
                if (pno >= fdb->numpcb) return BadOffset(fdp, "dawritp", DA_INTERNAL, off);
                continue;
            }
        } else {
            off_t real = _UIODT->lseek(p->pfd, 0, SEEK_END);
            if (real < paroff) {
                hsprint("dawritp: partition shorter than its range: file=%s pno=%d size=%ld paroff=%ld\n", fname(fdp),
                        pno, static_cast<long>(real), static_cast<long>(paroff));
                DumpPcbs(fdp);
                return DA_INTERNAL;
            }
            wsize = left;
        }
        // Past the process file size limit (or the partition size) the kernel
        // would refuse; ask only for what can fit, so that the rest is a short write.
        // A rewrite stays inside bytes the partition already has.
        long ask = wsize;
        da_off_t room = rewrite ? wsize : roomleft(fdp, paroff);
        int err = 0;
        ssize_t n;
        if (room <= 0) {
            n = -1;
            err = EFBIG;
        } else {
            if (ask > room) ask = static_cast<long>(room);
            n = writepart(p, in, ask, paroff, &err);
            if (n == ask && ask < wsize && !rewrite) {
                // The partition is full at its limit: keep what fitted and go on.
                off += n;
                in += n;
                left -= n;
                if (off - 1 > p->maxoffset) p->maxoffset = off - 1;
                if (off > fdb->filesize) fdb->filesize = off;
                rctype rc = nextpart(fdp, pno, left, &ntry, off, size, paroff + n);
                if (rc < 0) return rc;
                pno = fdb->numpcb - 1;
                continue;
            }
        }
        if (n == wsize) {
            off += n;
            in += n;
            left -= n;
            if (off - 1 > p->maxoffset) p->maxoffset = off - 1;
            if (off > fdb->filesize) fdb->filesize = off;
            if (left > 0 && rewrite && pno + 1 < fdb->numpcb && off > p->maxoffset) ++pno;
            continue;
        }
        if (n < 0) {
            if (err == EINVAL && paroff > daiogcb.filemax - wsize) err = EFBIG;
            if (err != ENOSPC && err != EFBIG) {
                wrdiag(fdp, "dawritp: rewrite=%d filemax=%ld filesize=%ld offset=%ld size=%d paroff=%ld wsize=%ld errno=%d\n",
                       rewrite, off, size, paroff, wsize, err);
                DumpPcbs(fdp);
                IOError(fdp, "dawritp", "Write failed", err, off);
                return DA_WRITEFAIL;
            }
            if (err == ENOSPC) {
                wrdiag(fdp, "dawritp: HSENOSPC rewrite=%d filemax=%ld filesize=%ld offset=%ld size=%d paroff=%ld wsize=%ld errno=%d\n",
                       rewrite, off, size, paroff, wsize, err);
                if (!rewrite && cutback(fdp, p, paroff, off) < 0) return DA_WRITEFAIL;
                ++ntry;
            } else if (paroff == 0) {
                ++ntry;  // a partition that can take nothing at all: do not make them forever
            }
            if (rewrite) {
                IOError(fdp, "dawritp", "Write failed", err, off);
                return DA_WRITEFAIL;
            }
        } else {
            // Short write: a rewrite cannot move, an append starts over in a new partition.
            if (rewrite) {
                IOError(fdp, "dawritp", "Write failed", err, off);
                return BadOffset(fdp, "dawritp", DA_INTERNAL, off);
            }
            if (err == ENOSPC)
                wrdiag(fdp, "dawritp: HSENOSPC rewrite=%d filemax=%ld filesize=%ld offset=%ld size=%d paroff=%ld wsize=%ld errno=%d\n",
                       rewrite, off, size, paroff, wsize, err);
            if (cutback(fdp, p, paroff, off) < 0) return DA_WRITEFAIL;
            if (n == 0) ++ntry;
        }
        rctype rc = nextpart(fdp, pno, wsize, &ntry, off, size, paroff);
        if (rc < 0) {
            if (rc != DA_NOSPACE) IOError(fdp, "dawritp", "Write failed", 0, off);
            return rc;
        }
        pno = fdb->numpcb - 1;
    }
    fdp->curpcb = pno;
    return 0;
}

// Extends the file with a hole so that it is newsize long.
[[nodiscard]] rctype GrowFile(DA_FDP* fdp, da_off_t newsize) {
    DA_FDB* fdb = fdp->fdb;
    int ntry = 0;
    while (fdb->filesize < newsize) {
        if (fdb->numpcb == 0) {
            rctype rc = dafnewp(fdp, 1, 0);
            if (rc < 0) return rc;
        }
        DA_PCB* p = &fdb->pcbs[fdb->numpcb - 1];
        da_off_t cur = fdb->filesize - p->minoffset;
        da_off_t tgt = newsize - p->minoffset;
        da_off_t room = roomleft(fdp, 0);
        if (tgt > room) tgt = room;
        static const char zero = 0;
        int err = 0;
        while (tgt > cur) {
            ssize_t n = writepart(p, &zero, 1, tgt - 1, &err);
            if (n == 1) break;
            if (err == EINVAL) err = EFBIG;
            if (err != ENOSPC && err != EFBIG) {
                IOError(fdp, "GrowFile", "Write failed", err, p->minoffset + tgt - 1);
                return DA_WRITEFAIL;
            }
            tgt -= 8192;
        }
        if (tgt > cur) {
            p->maxoffset = p->minoffset + tgt - 1;
            fdb->filesize = p->minoffset + tgt;
            continue;
        }
        if (err == ENOSPC || cur == 0) ++ntry;
        rctype rc = nextpart(fdp, fdb->numpcb - 1, 8192, &ntry, newsize, 0, cur);
        if (rc < 0) return rc;
    }
    return 0;
}

// ---------------------------------------------------------------- truncate

[[nodiscard]] rctype datrncp(DA_FD* fd, da_off_t endoff) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    if (endoff < fd->baseoff || endoff > fdb->filesize) return BadOffset(fdp, "datrncp", DA_BADOFFSET, endoff);
    rctype first = 0;
    // Partitions wholly past the cut leave the directory, and the directory
    // reaches the disk, before their files go: a power loss in between leaves
    // files no directory names (a writer's next open removes them), never a
    // directory that names files which are gone.
    std::vector<std::string> gone;
    while (fdb->numpcb > 1 && fdb->pcbs[fdb->numpcb - 1].minoffset >= endoff) {
        char full[4096];
        rctype rc = dafdpfull(fdp, fdb->numpcb - 1, full, sizeof full);
        if (rc == 0) rc = dadroppcb(fdp, fdb->numpcb - 1);
        if (rc < 0) {
            first = rc;
            break;
        }
        gone.emplace_back(full);
    }
    DA_PCB* p = &fdb->pcbs[fdb->numpcb - 1];
    p->flags |= DA_PCBDIRTY;
    rctype rc = datrncf(p->pfd, endoff - p->minoffset);
    if (rc < 0) {
        IOError(fdp, "datrncp", "Truncate failed", errno, endoff);
        if (!first) first = DA_WRITEFAIL;
    } else {
        p->maxoffset = endoff - 1;
        fdb->filesize = endoff;
    }
    if (fdp->curpcb >= fdb->numpcb) fdp->curpcb = fdb->numpcb - 1;
    rc = dawrfibp(fdp);
    if (!gone.empty()) {
        if (rc == 0) rc = dasyncparts(fdp);
        if (rc == 0 && (fdp->flags & DA_FDINDIRECT)) rc = dasyncparts(fdp->mdfd);
        // Files still named by a directory on disk stay.
        if (rc == 0)
            for (const std::string& f : gone) dadelpf(f.c_str());
    }
    return first ? first : rc;
}

// ---------------------------------------------------------------- mapping

namespace {

[[nodiscard]] rctype maperr(int e) {
    if (e == EACCES) return DA_ACCESS;
    if (e == ENOMEM) return DA_NOMEM;
    return DA_MMAPFAIL;
}

}  // namespace

[[nodiscard]] rctype dammapp(DA_FD* fd, da_off_t offset, da_off_t size, void** addr, da_off_t* msize) {
    DA_FDP* fdp = fdpof(fd);
    DA_FDB* fdb = fdp->fdb;
    if (offset < 0 || offset >= fdb->filesize || size < 0 || offset + size > fdb->filesize) return DA_BADARG;
    if (size == 0) size = fdb->filesize - offset;
    long pg = daiogcb.pagesize;
    bool ro = fdb->opmode == O_RDONLY;
    int prot = ro ? PROT_READ : (PROT_READ | PROT_WRITE);
    int mflags = (ro ? MAP_PRIVATE : MAP_SHARED) | MAP_NORESERVE;
    int pno;
    if (dao2pcb(fdp, offset, &pno) != 0) return DA_BADARG;
    const DA_PCB* p = &fdb->pcbs[pno];
    if (offset + size - 1 <= p->maxoffset) {
        da_off_t phys = offset - p->minoffset;
        da_off_t aphys = phys / pg * pg;
        size_t len = static_cast<size_t>(size + (phys - aphys));
        void* m = mmap(nullptr, len, prot, mflags, p->pfd, aphys);
        if (m == MAP_FAILED) return maperr(errno);
        *addr = static_cast<char*>(m) + (phys - aphys);
        if (msize) *msize = size;
        fdb->nummaps++;
        fdp->nummaps++;
        return 0;
    }
    // Across partitions: one area, each partition's piece at its place. A
    // piece whose file offset does not fall on a page boundary cannot be
    // mapped there; a read-only map reads it in instead.
    da_off_t astart = offset / pg * pg;
    size_t len = static_cast<size_t>(offset + size - astart);
    char* area = static_cast<char*>(mmap(nullptr, len, prot, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (area == MAP_FAILED) return maperr(errno);
    // The first partition may start before the aligned start; map from astart.
    if (dao2pcb(fdp, astart, &pno) != 0) pno = 0;
    da_off_t pos = astart;
    while (pos < offset + size) {
        p = &fdb->pcbs[pno];
        da_off_t end = std::min<da_off_t>(p->maxoffset + 1, offset + size);
        da_off_t phys = pos - p->minoffset;
        if (end > pos) {
            if (phys % pg == 0 && (pos - astart) % pg == 0) {
                void* m = mmap(area + (pos - astart), static_cast<size_t>(end - pos), prot, mflags | MAP_FIXED, p->pfd, phys);
                if (m == MAP_FAILED) {
                    int e = errno;
                    munmap(area, len);
                    return maperr(e);
                }
            } else if (ro) {
                int err;
                ssize_t r = readpart(p, area + (pos - astart), static_cast<size_t>(end - pos), phys, &err);
                if (r != end - pos) {
                    munmap(area, len);
                    return DA_MMAPFAIL;
                }
            } else {
                munmap(area, len);
                return DA_MMAPFAIL;
            }
        }
        pos = end;
        if (++pno >= fdb->numpcb) break;
    }
    *addr = area + (offset - astart);
    if (msize) *msize = size;
    fdb->nummaps++;
    fdp->nummaps++;
    return 0;
}

[[nodiscard]] rctype daunmap(DA_FD* fd, da_off_t offset, da_off_t size, void* addr) {
    DA_FDP* fdp = fdpof(fd);
    long pg = daiogcb.pagesize;
    uintptr_t a = reinterpret_cast<uintptr_t>(addr);
    uintptr_t base = a / pg * pg;
    (void)offset;
    if (munmap(reinterpret_cast<void*>(base), static_cast<size_t>(size + (a - base))) < 0) return DA_MMAPFAIL;
    if (fdp->fdb->nummaps > 0) fdp->fdb->nummaps--;
    if (fdp->nummaps > 0) fdp->nummaps--;
    return 0;
}

bool damapok(da_off_t size) {
    if (daioini() < 0 || size > daiogcb.mmaplimit) return false;
    struct rlimit rl;
    if (getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY) {
        // What is left of the address space after mapping must stay above the low-water mark.
        long pages = 0;
        FILE* f = fopen("/proc/self/statm", "r");
        if (f) {
            if (fscanf(f, "%ld", &pages) != 1) pages = 0;
            fclose(f);
        }
        da_off_t used = static_cast<da_off_t>(pages) * daiogcb.pagesize;
        if (static_cast<da_off_t>(rl.rlim_cur) - used - size < daiogcb.mmaplowmem) return false;
    }
    return true;
}

// ---------------------------------------------------------------- data sync

[[nodiscard]] rctype dasyncparts(DA_FDP* fdp) {
    DA_FDB* fdb = fdp->fdb;
    for (int i = 0; i < fdb->numpcb; ++i) {
        DA_PCB* p = &fdb->pcbs[i];
        if (!(p->flags & DA_PCBDIRTY) || p->pfd < 0) continue;
        rctype rc = dasyncf(p->pfd);
        if (rc < 0) {
            IOError(fdp, "dasyncparts", "Data sync failed", errno, p->minoffset);
            return rc;
        }
        p->flags &= ~DA_PCBDIRTY;
    }
    return 0;
}

}  // namespace vrta

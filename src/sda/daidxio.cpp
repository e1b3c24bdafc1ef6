// The block interface of an index file (DA_IDX): reads and writes through
// one block of buffer or straight to the file (or from its mapping), the
// state an index's user leaves behind, and the lock of access-control
// tables.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/daidx.h"
#include "sda/darc.h"

namespace vrta {

[[nodiscard]] rctype daopnix(DA_FCB* fcb, int kind, DA_ICB* icb, int create, DA_FD** fdp);
void daidxviews(DA_FCB* fcb);

namespace {

const char* const kKindName[DA_ICBNFILES] = {"IDX", "AUX", "HYB"};
const char* const kKindExt[DA_ICBNFILES] = {"idx", "aux", "hbx"};

DA_IDXP* pof(DA_IDX* ip) { return static_cast<DA_IDXP*>(ip); }

// The file's own read, with the end of the file as a short read.
[[nodiscard]] rctype rawread(DA_IDXP* p, void* buf, long size, da_off_t off, long* nread) {
    *nread = 0;
    if (off < 0 || size < 0) return DA_BADOFFSET;
    if (size == 0) return 0;
    if (p->mapaddr) {
        da_off_t end = std::min<da_off_t>(p->mapsize, *p->ixfd->filesize);
        if (off >= end) return 0;
        long n = static_cast<long>(std::min<da_off_t>(size, end - off));
        memcpy(buf, static_cast<const char*>(p->mapaddr) + off, n);
        *nread = n;
        return 0;
    }
    if (off >= *p->ixfd->filesize) return 0;
    mutex_lock(&p->icb->lock);
    rctype rc = p->ixfd->fdread(p->ixfd, buf, size, off, nread);
    mutex_unlock(&p->icb->lock);
    if (rc == DA_EOF || rc == DA_READEOF) rc = 0;
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype rawwrite(DA_IDXP* p, const void* buf, long size, da_off_t off) {
    if (!(p->opnflags & DA_IDXOWRITE)) return DA_ACCESS;
    if (da_writehook) da_writehook("index page");
    da_off_t at = off;
    mutex_lock(&p->icb->lock);
    rctype rc = p->ixfd->fdwrite(p->ixfd, buf, size, &at);
    mutex_unlock(&p->icb->lock);
    if (rc < 0) return rc;
    if (off + size > p->filesize) p->filesize = off + size;
    return 0;
}

// Writes the block buffer out when it holds what the file does not.
[[nodiscard]] rctype flushbuf(DA_IDXP* p) {
    if (!(p->flags & 1)) return 0;
    rctype rc = rawwrite(p, p->bufpool, p->bufOffset, p->blockOffset);
    if (rc < 0) return rc;
    p->flags &= ~1;
    return 0;
}

// The block holding off, in the buffer.
[[nodiscard]] rctype loadblock(DA_IDXP* p, da_off_t off) {
    da_off_t start = off - off % p->blocksize;
    if (p->blockOffset == start) return 0;
    rctype rc = flushbuf(p);
    if (rc < 0) return rc;
    p->blockOffset = -1;
    long n = 0;
    rc = rawread(p, p->bufpool, p->blocksize, start, &n);
    if (rc < 0) return rc;
    p->blockOffset = start;
    p->bufOffset = static_cast<int32_t>(n);
    return 0;
}

bool inoneblock(DA_IDXP* p, long size, da_off_t off) {
    return size < p->blocksize && off / p->blocksize == (off + size - 1) / p->blocksize;
}

bool overlaps(DA_IDXP* p, long size, da_off_t off) {
    return p->blockOffset >= 0 && off < p->blockOffset + p->blocksize && off + size > p->blockOffset;
}

}  // namespace

[[nodiscard]] rctype daridxd(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread) {
    return rawread(pof(ip), buf, size, offset, nread);
}

[[nodiscard]] rctype dawidxd(DA_IDX* ip, const void* buf, long size, da_off_t offset) {
    return rawwrite(pof(ip), buf, size, offset);
}

[[nodiscard]] rctype daridxb(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread) {
    DA_IDXP* p = pof(ip);
    *nread = 0;
    if (offset < 0 || size < 0) return DA_BADOFFSET;
    if (size == 0) return 0;
    if (!inoneblock(p, size, offset)) {
        if (overlaps(p, size, offset)) {
            rctype rc = flushbuf(p);
            if (rc < 0) return rc;
        }
        return rawread(p, buf, size, offset, nread);
    }
    rctype rc = loadblock(p, offset);
    if (rc < 0) return rc;
    da_off_t in = offset - p->blockOffset;
    if (in >= p->bufOffset) return 0;
    long n = static_cast<long>(std::min<da_off_t>(size, p->bufOffset - in));
    memcpy(buf, p->bufpool + in, n);
    *nread = n;
    return 0;
}

[[nodiscard]] rctype dawidxb(DA_IDX* ip, const void* buf, long size, da_off_t offset) {
    DA_IDXP* p = pof(ip);
    if (!(p->opnflags & DA_IDXOWRITE)) return DA_ACCESS;
    if (offset < 0 || size < 0) return DA_BADOFFSET;
    if (size == 0) return 0;
    if (inoneblock(p, size, offset)) {
        rctype rc = loadblock(p, offset);
        if (rc < 0) return rc;
        da_off_t in = offset - p->blockOffset;
        // The buffer holds what it has without a gap, as the file does.
        if (in <= p->bufOffset) {
            memcpy(p->bufpool + in, buf, size);
            p->bufOffset = static_cast<int32_t>(std::max<da_off_t>(p->bufOffset, in + size));
            p->flags |= 1;
            if (offset + size > p->filesize) p->filesize = offset + size;
            return 0;
        }
    }
    if (overlaps(p, size, offset)) {
        rctype rc = flushbuf(p);
        if (rc < 0) return rc;
        p->blockOffset = -1;
    }
    return rawwrite(p, buf, size, offset);
}

[[nodiscard]] rctype datridx(DA_IDX* ip, da_off_t size) {
    DA_IDXP* p = pof(ip);
    if (!(p->opnflags & DA_IDXOWRITE)) return DA_ACCESS;
    if (size < 0) return DA_BADOFFSET;
    rctype rc = flushbuf(p);
    if (rc < 0) return rc;
    p->blockOffset = -1;
    if (da_writehook) da_writehook("index truncate");
    mutex_lock(&p->icb->lock);
    rc = p->ixfd->fdtrunc(p->ixfd, size);
    mutex_unlock(&p->icb->lock);
    if (rc < 0) return rc;
    p->filesize = size;
    return 0;
}

[[nodiscard]] rctype darfidx(DA_IDX* ip) {
    DA_IDXP* p = pof(ip);
    if (!(p->flags & 1)) p->blockOffset = -1;
    da_off_t real = *p->ixfd->filesize;
    if (p->blockOffset >= 0) real = std::max<da_off_t>(real, p->blockOffset + p->bufOffset);
    bool changed = real != p->filesize;
    p->filesize = real;
    if (changed && p->refreshcb) p->refreshcb(p->anchor);
    return 0;
}

[[nodiscard]] rctype dasetstate(DA_IDX* ip, int state) {
    DA_IDXP* p = pof(ip);
    DA_ICB* icb = p->icb;
    DA_FCB* fcb = icb->fcb;
    mutex_lock(&fcb->indexLock);
    *p->icbfd->state = state;
    icb->flags |= DA_ICBDIRTY;
    rctype rc = daflicb(icb);
    mutex_unlock(&fcb->indexLock);
    if (rc < 0)
        hsprint("dasetstate(%d): daflicb failed: Member=%s Index=%.*s Reason=%s\n", state, fcb->name,
                icb->head->name_l, icb->head->name, hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype dalkidx(DA_IDX* ip, int kind) {
    DA_IDXP* p = pof(ip);
    DA_ICB* icb = p->icb;
    int m0 = 0, s0 = 0, m1 = 0, s1 = 0;
    rctype rc = 0;
    if (kind == DA_IDXLKRD || kind == DA_IDXLKWR) {
        if (p->lmode) return DA_BADARG;
        if ((kind == DA_IDXLKRD ? rw_rdlock(&icb->rwlock) : rw_wrlock(&icb->rwlock)) != 0) return DA_RWFAIL;
        mutex_lock(&icb->lock);
        rc = dagetfibparms(p->ixfd, &m0, &s0);
        DA_FDSCB scb = {0, 0};
        if (rc < 0) {
            if (kind == DA_IDXLKRD) ++icb->nreaders;  // taken back below
        } else if (kind == DA_IDXLKWR) {
            rc = p->ixfd->fdcntl(p->ixfd, DA_FDSYNCWR, &scb);
        } else if (icb->nreaders++ == 0) {
            rc = p->ixfd->fdcntl(p->ixfd, DA_FDSYNCRD, &scb);
        }
        if (rc >= 0) rc = dagetfibparms(p->ixfd, &m1, &s1);
        mutex_unlock(&icb->lock);
        if (rc < 0) {
            if (kind == DA_IDXLKRD) {
                mutex_lock(&icb->lock);
                --icb->nreaders;
                mutex_unlock(&icb->lock);
            }
            rw_unlock(&icb->rwlock);
            return rc;
        }
        p->lmode = kind;
        // Another handle changed the file: caches above must drop their pages.
        if (m0 != m1 || s0 != s1) {
            rc = darfidx(ip);
            if (rc < 0) {
                daignore(dalkidx(ip, DA_IDXUNLK));
                return rc;
            }
            return DA_IDXCHANGED;
        }
        return 0;
    }
    if (!p->lmode) return 0;
    mutex_lock(&icb->lock);
    if (p->lmode == DA_IDXLKWR || --icb->nreaders == 0) {
        DA_FDSCB scb = {0, 0};
        rc = p->ixfd->fdcntl(p->ixfd, DA_FDUNSYNC, &scb);
    }
    mutex_unlock(&icb->lock);
    p->lmode = 0;
    rw_unlock(&icb->rwlock);
    return rc;
}

[[nodiscard]] rctype daclidx(DA_IDX* ip, int state) {
    DA_IDXP* p = pof(ip);
    DA_ICB* icb = p->icb;
    DA_FCB* fcb = icb->fcb;
    DA_ICBFD* f = p->icbfd;
    rctype rc = 0;
    rctype urc = p->lmode ? dalkidx(ip, DA_IDXUNLK) : 0;
    bool wrote = (p->opnflags & DA_IDXOWRITE) && fcb->mode != DA_OMINPUT && fcb->xoe.semtype != DA_SEMVRTAACL;
    if (wrote) {
        rc = flushbuf(p);
        if (rc < 0) {
            hsprint("daclidx(%d): DAFDWRITE failed: Member=%s Index=%.*s Reason=%s\n", state, fcb->name,
                    icb->head->name_l, icb->head->name, hsstrer(rc));
            state = DA_IDXDIRTY;
        }
        // Only what is on stable storage may be called clean.
        if (state == DA_IDXCLEAN) {
            rctype src = p->ixfd->fdcntl(p->ixfd, DA_FDDATASYNC, nullptr);
            if (src < 0) {
                rc = src;
                state = DA_IDXDIRTY;
            }
        }
        int64_t real = *p->ixfd->filesize;
        int64_t bs = p->blocksize;
        if ((p->filesize + bs - 1) / bs != (real + bs - 1) / bs) {
            hsprint("daclidx(%d): Index size mismatch: Member=%s Index=%.*s Kind=%s ICB=%ld DAIO=%ld\n", state,
                    fcb->name, icb->head->name_l, icb->head->name, kKindName[p->kind], static_cast<long>(real),
                    static_cast<long>(p->filesize));
            state = DA_IDXDIRTY;
        }
        mutex_lock(&fcb->indexLock);
        *f->filesize = real;
        if (*f->state != DA_IDXIGNORE) *f->state = state;
        icb->flags |= DA_ICBDIRTY;
        rctype frc = daflicb(icb);
        if (frc < 0 && rc == 0) rc = frc;
        daidxviews(fcb);
        mutex_unlock(&fcb->indexLock);
    }
    // Off the opener's list, and the file's references.
    DA_FIDP* fp = fidpof(p->fid);
    mutex_lock(&fp->indexLock);
    for (DA_IDXP** pp = reinterpret_cast<DA_IDXP**>(&fp->indexList); *pp; pp = &(*pp)->nextopen)
        if (*pp == p) {
            *pp = p->nextopen;
            break;
        }
    mutex_unlock(&fp->indexLock);
    mutex_lock(&fcb->indexLock);
    if ((p->opnflags & DA_IDXOWRITE) && f->writers > 0) --f->writers;
    if (--f->refcount == 0 && f->mapaddr) {
        rctype mrc = f->fd->fdunmap(f->fd, 0, f->mapsize, f->mapaddr);
        if (mrc < 0) {
            hsprint("daclidx(%d): DAFDUNMAP failed: Member=%s Index=%.*s Reason=%s\n", state, fcb->name,
                    icb->head->name_l, icb->head->name, hsstrer(mrc));
            if (rc == 0) rc = mrc;
        }
        f->mapaddr = nullptr;
    }
    mutex_unlock(&fcb->indexLock);
    free(p->bufpool);
    free(p);
    return rc < 0 ? rc : urc;
}

[[nodiscard]] rctype daclfidx(DA_FIDP* fp) {
    rctype last = 0;
    while (fp->indexList) {
        auto* p = static_cast<DA_IDXP*>(fp->indexList);
        // A writer that did not close its index left it unfinished.
        rctype rc = p->mt->closeidx(p, DA_IDXDIRTY);
        if (rc < 0) {
            hsprint("darclos: DACLOSEIDX failed: Table=%s Error=%s\n", fp->fcb->name, hsstrer(rc));
            last = rc;
        }
        if (fp->indexList == p) fp->indexList = p->nextopen;  // never twice
    }
    return last;
}

namespace {

const DA_IDXMT kBuffered = {daridxb, dawidxb, datridx, daclidx, dalkidx, darfidx};
const DA_IDXMT kDirect = {daridxd, dawidxd, datridx, daclidx, dalkidx, darfidx};

}  // namespace

[[nodiscard]] rctype daopidx(DA_FID* f, const char* name, int flags, DA_IDX** ipp) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    int kinds = flags & DA_IDXFILES;
    int kind = kinds == DA_IDXFIDX ? DA_ICBIDX : kinds == DA_IDXFAUX ? DA_ICBAUX : kinds == DA_IDXFHBX ? DA_ICBHBX : -1;
    int nl = name ? static_cast<int>(strnlen(name, 33)) : 0;
    if (kind < 0 || nl < 1 || nl > 32 || !ipp) return DA_BADARG;
    bool write = flags & DA_IDXOWRITE;
    if (write && fp->mode == DA_OMINPUT) return DA_WRONGKIND;
    mutex_lock(&fcb->indexLock);
    DA_ICB* icb = daluicb(fcb, name, nl);
    rctype rc = icb ? 0 : DA_NOTFOUND;
    DA_ICBFD* fl = icb ? &icb->files[kind] : nullptr;
    if (rc == 0 && *fl->fiboffset < 0) rc = DA_NOTFOUND;
    if (rc == 0 && !fl->fd) {
        DA_FD* fd;
        rc = daopnix(fcb, kind, icb, 0, &fd);
        if (rc > 0) rc = 0;
    }
    if (rc == 0) rc = daicbskb(icb);
    auto* p = rc == 0 ? static_cast<DA_IDXP*>(calloc(1, sizeof(DA_IDXP))) : nullptr;
    if (rc == 0 && !p) rc = DA_NOMEM;
    if (rc < 0) {
        mutex_unlock(&fcb->indexLock);
        return rc;
    }
    da_off_t size = *fl->fd->filesize;
    if (!write && (flags & DA_IDXOMAP) && fl->writers == 0 && size > 0 && (fl->mapaddr || damapok(size))) {
        if (!fl->mapaddr) {
            void* addr = nullptr;
            da_off_t msize = 0;
            if (fl->fd->fdmmap(fl->fd, 0, 0, &addr, &msize) == 0) {
                fl->mapaddr = addr;
                fl->mapsize = msize;
            }
        }
        p->mapaddr = fl->mapaddr;
        p->mapsize = fl->mapsize;
    }
    bool direct = fcb->xoe.semtype == DA_SEMVRTAACL || p->mapaddr;
    p->mt = direct ? &kDirect : &kBuffered;
    p->blocksize = fl->blksize > 0 ? fl->blksize : 8192;
    if (!direct && !(p->bufpool = static_cast<char*>(malloc(p->blocksize)))) {
        free(p);
        mutex_unlock(&fcb->indexLock);
        return DA_NOMEM;
    }
    ++fl->refcount;
    if (write) ++fl->writers;
    mutex_unlock(&fcb->indexLock);
    p->filesize = size;
    p->nvar = icb->head->nvar;
    p->keystr = &icb->kstr;
    p->skb = icb->skb;
    p->thrno = f->thrno;
    p->ixfd = fl->fd;
    p->blockOffset = -1;
    p->fid = f;
    p->icb = icb;
    p->opnflags = flags;
    p->filesizeOff = fl->filesizeoff;
    p->icbfd = fl;
    p->kind = kind;
    p->pfd = -1;
    snprintf(p->fname, sizeof p->fname, "%s.%s%.*s", fcb->iname, kKindExt[kind], icb->head->name_l, icb->head->name);
    for (char* c = p->fname; *c; ++c) *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
    p->name = p->fname;
    mutex_lock(&fp->indexLock);
    p->nextopen = static_cast<DA_IDXP*>(fp->indexList);
    fp->indexList = p;
    mutex_unlock(&fp->indexLock);
    *ipp = p;
    return 0;
}

}  // namespace vrta

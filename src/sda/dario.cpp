// Plain-row cursors (dargioc): row n lies at (n - 1) x odsreclen in the DPF
// and nothing else is stored, so a read is one fdread per buffer. Also the
// helpers every family shares: getiocb, caller buffers, delete checks.
#include <sys/mman.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "option/op.h"
#include "sda/daiocom.h"

namespace vrta {

// The families live in their own files; naming them here keeps them linked
// wherever a cursor can be had, since the table layer only knows them weakly.
extern rctype dafgioc(DA_FID*, int, DA_IOCB**);
extern rctype davgioc(DA_FID*, int, DA_IOCB**);
extern rctype dabgioc(DA_FID*, int, DA_IOCB**);
extern rctype dancgio(DA_FID*, int, DA_IOCB**);
[[gnu::used]] static rctype (*const families[])(DA_FID*, int, DA_IOCB**) = {dargioc, dafgioc, davgioc, dabgioc,
                                                                             dancgio};

[[nodiscard]] rctype getiocb(DA_FID* fp, int iom, DA_IOCB** iocb) {
    if (!fp || !iocb) return DA_BADARG;
    *iocb = nullptr;
    if (!fp->mt->getiocb) return DA_INTERNAL;
    rctype rc = fp->mt->getiocb(fp, iom, iocb);
    if (rc < 0) return rc;
    DA_FIDP* f = fidpof(fp);
    mutex_lock(&f->iocbLock);
    f->iocbCount++;
    mutex_unlock(&f->iocbLock);
    return rc;
}

namespace {

[[nodiscard]] rctype mkiob(int obslen, int blockfactor, int multiblock, int numbuf, bool withobs, DA_IOB** iobvec,
             long* bufsizret) {
    if (obslen <= 0 || blockfactor <= 0 || numbuf <= 0 || !iobvec) return DA_BADARG;
    long rows = static_cast<long>(blockfactor) * (multiblock > 0 ? multiblock : 1);
    long bsize = rows * obslen;
    size_t head = (sizeof(DA_IOB) * numbuf + 15) & ~size_t{15};
    size_t obsbytes = withobs ? sizeof(hs_obsno_t) * rows : 0;
    size_t each = ((bsize + 15) & ~15L) + obsbytes;
    char* mem = static_cast<char*>(malloc(head + each * numbuf));
    if (!mem) return DA_NOMEM;
    auto* v = reinterpret_cast<DA_IOB*>(mem);
    for (int i = 0; i < numbuf; ++i) {
        char* p = mem + head + each * i;
        v[i].bufptr = p;
        v[i].obsvec = withobs ? reinterpret_cast<hs_obsno_t*>(p + ((bsize + 15) & ~15L)) : nullptr;
        v[i].numobs = -1;
        v[i].locator = -1;
    }
    *iobvec = v;
    if (bufsizret) *bufsizret = bsize;
    return 0;
}

long optsize(const char* name, long dflt, long maxv) {
    void* opt = opgtgbl();
    if (!opt) return dflt;
    int32_t v = 0;
    int len = 4;
    if (opgetop(opt, name, &v, &len) < 0 || v <= 0) return dflt;
    return std::min<long>(v, maxv);
}

}  // namespace

[[nodiscard]] rctype damkiob(int obslen, int blockfactor, int multiblock, int numbuf, DA_IOB** iobvec, long* bufsizret) {
    return mkiob(obslen, blockfactor, multiblock, numbuf, false, iobvec, bufsizret);
}

[[nodiscard]] rctype damdiob(int obslen, int blockfactor, int multiblock, int numbuf, DA_IOB** iobvec, long* bufsizret) {
    return mkiob(obslen, blockfactor, multiblock, numbuf, true, iobvec, bufsizret);
}

void dafriob(DA_IOB* iobvec) { free(iobvec); }

void* daobs2p(DA_IOCB* iocb, long relobs) {
    if (relobs < 0 || iocb->obsperbuf <= 0 || !iocb->iobvec) return nullptr;
    long b = relobs / iocb->obsperbuf;
    if (b >= iocb->numbuf) return nullptr;
    int32_t len = iocb->fp->xoehdr->ioreclen;
    return static_cast<char*>(iocb->iobvec[b].bufptr) + (relobs % iocb->obsperbuf) * len;
}

int daadobs(DA_IOCB* iocb, const void* obsbuf, long relobs) {
    void* p = daobs2p(iocb, relobs);
    if (!p) return 0;
    long b = relobs / iocb->obsperbuf;
    memcpy(p, obsbuf, iocb->fp->xoehdr->ioreclen);
    DA_IOB* iob = &iocb->iobvec[b];
    long n = relobs % iocb->obsperbuf + 1;
    if (iob->numobs < n) iob->numobs = n;
    return static_cast<int>(b + 1);
}

long daseqiobufmin() { return optsize("SEQIOBUFMIN", 0x10000, 0x1000000); }
long daraniobufmin() { return optsize("RANIOBUFMIN", 4096, 0x1000000); }

[[nodiscard]] rctype dawrdelck(DA_FCB* fcb, int iom, hs_obsno_t obs, hs_obsno_t n) {
    if (fcb->xoe.numdelete <= 0 || !fcb->dmpcb) return 0;
    hs_obsno_t end = std::min<hs_obsno_t>(obs + n - 1, fcb->xoe.numobs);
    bool reuse = (fcb->xoe.flags & DA_ADDAVAIL) != 0;
    if ((iom & DA_IOMLIVE) && !reuse) return 0;
    DA_DMPBM* bmp = dadmnewbm(fcb);
    if (!bmp) return DA_NOMEM;
    rctype rc = 0;
    // Nothing changes unless every row may be written.
    if (!(iom & DA_IOMLIVE)) {
        for (hs_obsno_t o = obs; o <= end && rc == 0; ++o)
            if (!dadmisdel(fcb, bmp, o)) rc = DA_NOTDELETED;
    }
    // The rows get data now: they are live again where the table allows reuse.
    hs_obsno_t run = 0;
    for (hs_obsno_t o = obs; reuse && rc == 0 && o <= end + 1; ++o) {
        bool del = o <= end && dadmisdel(fcb, bmp, o);
        if (del && !run) run = o;
        if (!del && run) {
            rc = dadmreset(fcb, run, o - run);
            run = 0;
        }
    }
    dadmfreebm(bmp);
    return rc;
}

namespace {

struct DA_SIOCB;
using iobfn = rctype (*)(DA_SIOCB* c, DA_IOB* iob);

struct DA_SIOCB : DA_GIOCB {
    iobfn rdiob;
    iobfn wriob;
    DA_FCB* fcb;
    int mode;
    DA_IOB mapiob;      // a mapped cursor's one buffer
    void* mapaddr;      // what fdmmap gave, for the unmap
    da_off_t mapoff;
    da_off_t mapsize;
    char* privbuf;      // fallback when the range cannot be mapped
    long privsize;
    hs_obsno_t refobs;  // refill: next row of the current deleted run
    hs_obsno_t refrun;  // rows left in it
    int encoded;        // rows stored encoded: eiob holds their disk form
    char* eiob;
    long eiobsize;
};

// A private buffer of at least need bytes; its old contents are not kept.
[[nodiscard]] rctype growbuf(char** buf, long* size, long need) {
    if (*size >= need) return 0;
    free(*buf);
    *buf = static_cast<char*>(malloc(need));
    *size = *buf ? need : 0;
    return *buf ? 0 : DA_NOMEM;
}

// Rows up to numobs are committed: a data file that ends before them has
// lost rows, and handing out fewer would pass for a shorter table.
[[nodiscard]] rctype shortrows(DA_FCB* fcb, hs_obsno_t obs, long want, long got) {
    long reclen = fcb->xoe.odsreclen;
    if (got >= want * reclen) return 0;
    hsprint("dardrows: Data file shorter than numobs: Member=%s numobs=%lld Rows=%lld Reason=%s\n", fcb->name,
            static_cast<long long>(fcb->xoe.numobs), static_cast<long long>(obs - 1 + got / reclen),
            hsstrer(DA_SHORTREAD));
    return DA_SHORTREAD;
}

// Disk bytes of n rows: straight into out, or through eiob and the decoder.
[[nodiscard]] rctype rdrows(DA_SIOCB* c, char* out, hs_obsno_t obs, long n, long* got) {
    DA_FCB* fcb = c->fcb;
    long reclen = fcb->xoe.odsreclen;
    if (!c->encoded) {
        rctype rc = fcb->dffd->fdread(fcb->dffd, out, n * reclen, (obs - 1) * reclen, got);
        return rc < 0 ? rc : shortrows(fcb, obs, n, *got);
    }
    rctype rc = growbuf(&c->eiob, &c->eiobsize, n * reclen);
    if (rc < 0) return rc;
    rc = fcb->dffd->fdread(fcb->dffd, c->eiob, n * reclen, (obs - 1) * reclen, got);
    if (rc == 0) rc = shortrows(fcb, obs, n, *got);
    if (rc < 0) return rc;
    long rows = *got / reclen;
    dadeiob(fcb, obs, c->eiob, out, rows);
    *got = rows * fcb->xoe.obslen;
    return rc;
}

[[nodiscard]] rctype dandrio(DA_SIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    hs_obsno_t numobs = fcb->xoe.numobs;
    if (c->curobs > numobs) return DA_EOF;
    long n = static_cast<long>(std::min<hs_obsno_t>(c->obsperbuf, numobs - c->curobs + 1));
    long got = 0;
    rctype rc = rdrows(c, static_cast<char*>(iob->bufptr), c->curobs, n, &got);
    if (rc < 0) return rc;
    long rows = got / fcb->xoe.obslen;
    if (rows <= 0) return DA_EOF;
    if (iob->obsvec)
        for (long i = 0; i < rows; ++i) iob->obsvec[i] = c->curobs + i;
    iob->numobs = rows;
    dasetpos(c, c->curobs + rows);
    return 0;
}

// Skips deleted rows: runs of live ones are read back to back.
[[nodiscard]] rctype darddmp(DA_SIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    long reclen = fcb->xoe.obslen;
    return dareadlive(c, fcb, iob, reclen, fcb->xoe.numobs,
                      [c, reclen](hs_obsno_t obs, long n, char* out, long* rows) {
                          long got = 0;
                          rctype rc = rdrows(c, out, obs, n, &got);
                          *rows = got / reclen;
                          return rc;
                      });
}

void pickrd(DA_SIOCB* c) {
    bool skip = daskipdel(c->fcb, c->iom);
    c->rdiob = skip ? darddmp : dandrio;
}

// Rows at obs (at most numobs + 1), split at partition boundaries; a new
// partition starts only when the rows go beyond the file's end.
[[nodiscard]] rctype plainput(DA_FCB* fcb, hs_obsno_t obs, const char* p, long n, DA_SIOCB* c = nullptr) {
    long reclen = fcb->xoe.odsreclen;
    long inlen = fcb->xoe.obslen;
    int64_t pf = fcb->xoe.partfactor;
    rctype rc = 0;
    while (n > 0) {
        long chunk = n;
        if (pf > 0) {
            hs_obsno_t boundary = pf * ((obs - 1) / pf + 1);
            if (obs + chunk - 1 >= boundary) chunk = static_cast<long>(boundary - obs + 1);
            if (obs > fcb->xoe.numobs && obs > 1 && (obs - 1) % pf == 0 &&
                (obs - 1) * reclen >= *fcb->dffd->filesize) {
                rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDNEWPART, nullptr);
                if (rc < 0) return rc;
            }
        }
        // Column statistics see the rows as the caller gave them.
        if (fcb->xoe.flags & DA_XOEVSTAT) dalckvars(fcb, p, chunk);
        da_off_t off = (obs - 1) * reclen;
        const char* w = p;
        if (c && c->encoded) {
            rc = growbuf(&c->eiob, &c->eiobsize, chunk * reclen);
            if (rc < 0) return rc;
            daeniob(fcb, obs, p, c->eiob, chunk);
            w = c->eiob;
        }
        rc = fcb->dffd->fdwrite(fcb->dffd, w, chunk * reclen, &off);
        if (rc < 0) return rc;
        obs += chunk;
        p += chunk * inlen;
        n -= chunk;
        dacoverobs(fcb, obs - 1);
    }
    return 0;
}

[[nodiscard]] rctype dandwio(DA_SIOCB* c, DA_IOB* iob) {
    if (iob->numobs <= 0) return 0;
    rctype rc = plainput(c->fcb, c->curobs, static_cast<const char*>(iob->bufptr), iob->numobs, c);
    if (rc == 0) dasetpos(c, c->curobs + iob->numobs);
    return rc;
}

[[nodiscard]] rctype dawrdmp(DA_SIOCB* c, DA_IOB* iob) {
    if (iob->numobs <= 0) return 0;
    rctype rc = dawrdelck(c->fcb, c->iom, c->curobs, iob->numobs);
    if (rc < 0) return rc;
    return dandwio(c, iob);
}

// Refill: rows go into runs of deleted rows first, then to the end.
[[nodiscard]] rctype darefill(DA_SIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    return darefillrows(
        c, fcb, iob, fcb->xoe.obslen, &c->refobs, &c->refrun,
        [fcb](hs_obsno_t* refobs, hs_obsno_t* refrun) { return dadmfindbm(fcb, refobs, refrun); },
        [c, fcb](hs_obsno_t obs, long n, const char* p) { return plainput(fcb, obs, p, n, c); });
}

[[nodiscard]] rctype darsrds(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_SIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec || c->obsperbuf <= 0) return DA_BADARG;
    bool upd = daupdmode(c->mode);
    DA_UPDLK lk(c->fcb, false, upd && !(c->iom & DA_IOMSHARELK));
    pickrd(c);
    return dareadbufs(c, c->fcb, numbuf, [c](DA_IOB* iob) { return c->rdiob(c, iob); });
}

[[nodiscard]] rctype darswrs(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_SIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec) return DA_BADARG;
    bool upd = daupdmode(c->mode);
    DA_UPDLK lk(c->fcb, true, !(c->iom & DA_IOMSHARELK));
    rctype rc = 0;
    for (int i = 0; i < numbuf && rc == 0; ++i) {
        DA_IOB* iob = &c->iobvec[i];
        if (upd) {
            rc = dalocate(c, iob, c->fcb->xoe.numobs + 1);
            if (rc == 0) rc = (c->fcb->xoe.numdelete > 0 ? dawrdmp : dandwio)(c, iob);
        } else if (c->iom & DA_IOMFILLING) {
            rc = darefill(c, iob);
        } else {
            dasetpos(c, c->fcb->xoe.numobs + 1);
            rc = dandwio(c, iob);
        }
        if (rc == 0) c->bfi = i;
    }
    c->status = rc;
    if (upd && rc == 0 && (c->fcb->flags & DA_FCBDIRTY)) rc = daflfcb(c->fcb);
    return rc;
}

[[nodiscard]] rctype unmapc(DA_SIOCB* c) {
    rctype rc = c->mapaddr ? c->fcb->dffd->fdunmap(c->fcb->dffd, c->mapoff, c->mapsize, c->mapaddr) : 0;
    c->mapaddr = nullptr;
    return rc;
}

// A mapped cursor's setloc: the buffer's rows from loc, mapped where the
// file layer can, else read into a private buffer.
[[nodiscard]] rctype darmloc(DA_IOCB* ic, hs_obsno_t loc) {
    auto* c = static_cast<DA_SIOCB*>(ic);
    DA_FCB* fcb = c->fcb;
    rctype urc = unmapc(c);
    c->mapiob.numobs = -1;
    if (urc < 0) return urc;
    if (c->obsperbuf <= 0) return DA_BADARG;
    if (loc < 1) return DA_BADARG;
    if (loc > fcb->xoe.numobs) {
        c->status = DA_EOF;
        return DA_EOF;
    }
    long reclen = fcb->xoe.odsreclen;
    long n = static_cast<long>(std::min<hs_obsno_t>(c->obsperbuf, fcb->xoe.numobs - loc + 1));
    da_off_t off = (loc - 1) * reclen;
    void* addr = nullptr;
    da_off_t msize = 0;
    if (damapok(n * reclen) && fcb->dffd->fdmmap(fcb->dffd, off, n * reclen, &addr, &msize) == 0 && addr &&
        msize >= n * reclen) {
        c->mapaddr = addr;
        c->mapoff = off;
        c->mapsize = n * reclen;
        c->mapiob.bufptr = addr;
    } else {
        rctype rc = growbuf(&c->privbuf, &c->privsize, n * reclen);
        if (rc < 0) return rc;
        long got = 0;
        rc = fcb->dffd->fdread(fcb->dffd, c->privbuf, n * reclen, off, &got);
        if (rc == 0) rc = shortrows(fcb, loc, n, got);
        if (rc < 0) return rc;
        c->mapiob.bufptr = c->privbuf;
    }
    c->mapiob.numobs = n;
    dasetpos(c, loc + n);
    c->bfi = 0;
    return 0;
}

[[nodiscard]] rctype darsbuf(DA_IOCB* ic, DA_IOB* iobvec, long bufsize) {
    auto* c = static_cast<DA_SIOCB*>(ic);
    DA_FID* fp = c->fp;
    int32_t reclen = fp->xoehdr->ioreclen;
    if (fp->blocksize <= 0 || reclen <= 0 || bufsize <= 0) return DA_BADARG;
    long unit = dabyrow(c) ? reclen : fp->blocksize;
    if (bufsize % unit != 0) return DA_BADARG;
    if (c->iom & DA_IOMMAPPED) {
        dausebufs(c, &c->mapiob, 1, bufsize);
    } else {
        if (!iobvec) return DA_BADARG;
        dausebufs(c, iobvec, 0x7fffffff, bufsize);
    }
    return 0;
}

[[nodiscard]] rctype darfree(DA_IOCB* ic) {
    auto* c = static_cast<DA_SIOCB*>(ic);
    rctype rc = unmapc(c);
    free(c->privbuf);
    free(c->eiob);
    dadropiocb(c);
    return rc;
}

const DA_IOCBMT mt_read = {darfree, darsrds, danoval, dasetloc, darsbuf};
const DA_IOCBMT mt_write = {darfree, darsrds, darswrs, dasetloc, darsbuf};
const DA_IOCBMT mt_mapped = {darfree, danoval, danoval, darmloc, darsbuf};

}  // namespace

// Normalises the open flags as every family does.
int danormiom(int iom) {
    if (iom & DA_IOMMAPPED) iom = (iom | DA_IOMBYROW) & ~DA_IOMREAD;
    else iom |= DA_IOMREAD;
    if (!(iom & DA_IOMRANDOM)) iom |= DA_IOMSEQ;
    if (!(iom & DA_IOMBYROW)) iom |= DA_IOMBYBLOCK;
    return iom;
}

[[nodiscard]] rctype dargioc(DA_FID* fp, int iom, DA_IOCB** iocb) { return dasgioc(fp, iom, false, iocb); }

[[nodiscard]] rctype dasgioc(DA_FID* fp, int iom, bool encoded, DA_IOCB** iocb) {
    DA_FIDP* f = fidpof(fp);
    DA_FCB* fcb = f->fcb;
    iom = danormiom(iom);
    // Encoded rows are not the caller's bytes on disk: nothing to map.
    if (encoded && (iom & DA_IOMMAPPED)) return DA_BADARG;
    if ((iom & DA_IOMSHARELK) && !daupdmode(f->mode)) return DA_BADARG;
    if ((iom & DA_IOMMAPPED) && f->mode != DA_OMINPUT) return DA_BADARG;
    auto* c = static_cast<DA_SIOCB*>(calloc(1, sizeof(DA_SIOCB)));
    if (!c) return DA_NOMEM;
    c->fp = fp;
    c->fcb = fcb;
    c->mode = f->mode;
    c->iom = iom;
    c->bfi = -1;
    c->encoded = encoded;
    c->bmp = dadmnewbm(fcb);
    if (!c->bmp) {
        free(c);
        return DA_NOMEM;
    }
    c->mapiob.numobs = -1;
    c->mapiob.locator = -1;
    c->iom = darefilliom(fcb, iom);
    bool writer = f->mode != DA_OMINPUT;
    if (iom & DA_IOMMAPPED) c->mt = &mt_mapped;
    else c->mt = writer ? &mt_write : &mt_read;
    dastartpos(c, f->mode, fcb->xoe.numobs);
    *iocb = c;
    return 0;
}

}  // namespace vrta

// Transfer-format rows: transfersize bytes hold transferfactor rows, so row
// n is in unit (n - 1) / transferfactor at unit x transfersize in the DPF.
// A cursor holds one unit; writes go through it and reach the file at the
// end of every buffer, before numobs covers them.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "sda/daiocom.h"

namespace vrta {

int danormiom(int iom);

namespace {

struct DA_BIOCB : DA_GIOCB {
    DA_FCB* fcb;
    int mode;
    char* iobuf;            // one unit
    int64_t transnum;       // unit held, -1 none
    hs_obsno_t iofirstob;   // its first row
    int ioflags;            // 1 dirty
    int32_t lastnum;        // rows of the unit known to be in it
};

int32_t tfactor(const DA_FCB* fcb) { return fcb->xoe.transferfactor > 0 ? fcb->xoe.transferfactor : 1; }

[[nodiscard]] rctype writetransfer(DA_BIOCB* c) {
    if (!(c->ioflags & 1)) return 0;
    DA_FCB* fcb = c->fcb;
    int64_t ts = fcb->xoe.transfersize;
    da_off_t off = c->transnum * ts;
    int64_t pf = fcb->xoe.partfactor;
    // A unit that starts a partition starts its file first.
    if (pf > 0 && c->transnum > 0 && c->iofirstob > 1 && (c->iofirstob - 1) % pf == 0 &&
        off >= *fcb->dffd->filesize) {
        rctype rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDNEWPART, nullptr);
        if (rc < 0) return rc;
    }
    rctype rc = fcb->dffd->fdwrite(fcb->dffd, c->iobuf, ts, &off);
    if (rc < 0) return rc;
    c->ioflags &= ~1;
    return 0;
}

[[nodiscard]] rctype readtransfer(DA_BIOCB* c, int64_t unit) {
    if (c->transnum == unit) return 0;
    rctype rc = writetransfer(c);
    if (rc < 0) return rc;
    DA_FCB* fcb = c->fcb;
    int64_t ts = fcb->xoe.transfersize;
    int32_t tf = tfactor(fcb);
    memset(c->iobuf, 0, ts);
    c->transnum = -1;
    da_off_t off = unit * ts;
    long got = 0;
    if (off < *fcb->dffd->filesize) {
        long len = static_cast<long>(std::min<da_off_t>(ts, *fcb->dffd->filesize - off));
        rc = fcb->dffd->fdread(fcb->dffd, c->iobuf, len, off, &got);
        if (rc < 0) return rc;
    }
    c->transnum = unit;
    c->iofirstob = unit * tf + 1;
    c->lastnum = static_cast<int32_t>(std::min<long>(tf, got / fcb->xoe.obslen));
    return 0;
}

// GetTransfer: rows [obs, obs+n) out of their units.
[[nodiscard]] rctype gettransfer(DA_BIOCB* c, hs_obsno_t obs, long n, char* out) {
    DA_FCB* fcb = c->fcb;
    const int32_t tf = tfactor(fcb), ol = fcb->xoe.obslen;
    while (n > 0) {
        int64_t unit = (obs - 1) / tf;
        rctype rc = readtransfer(c, unit);
        if (rc < 0) return rc;
        long off = static_cast<long>(obs - c->iofirstob);
        long k = std::min<long>(n, c->lastnum - off);
        if (k <= 0) return DA_INTERNAL;
        memcpy(out, c->iobuf + off * ol, k * ol);
        out += k * ol;
        obs += k;
        n -= k;
    }
    return 0;
}

[[nodiscard]] rctype puttransfer(DA_BIOCB* c, hs_obsno_t obs, long n, const char* p) {
    DA_FCB* fcb = c->fcb;
    const int32_t tf = tfactor(fcb), ol = fcb->xoe.obslen;
    while (n > 0) {
        if (obs > fcb->xoe.numobs + 1) return DA_PASTEND;
        int64_t unit = (obs - 1) / tf;
        rctype rc = readtransfer(c, unit);
        if (rc < 0) return rc;
        long off = static_cast<long>(obs - c->iofirstob);
        long k = std::min<long>(n, tf - off);
        if (fcb->xoe.flags & DA_XOEVSTAT) dalckvars(fcb, p, k);
        memcpy(c->iobuf + off * ol, p, k * ol);
        c->lastnum = std::max<int32_t>(c->lastnum, static_cast<int32_t>(off + k));
        c->ioflags |= 1;
        rc = writetransfer(c);
        if (rc < 0) return rc;
        p += k * ol;
        obs += k;
        n -= k;
        dacoverobs(fcb, obs - 1);
    }
    return 0;
}

[[nodiscard]] rctype rdiob(DA_BIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    hs_obsno_t numobs = fcb->xoe.numobs;
    auto rd = [c](hs_obsno_t obs, long n, char* out) { return gettransfer(c, obs, n, out); };
    if (!daskipdel(fcb, c->iom)) return dareadall(c, iob, numobs, rd);
    return dareadlive(c, fcb, iob, fcb->xoe.obslen, numobs, [&rd](hs_obsno_t obs, long n, char* out, long* rows) {
        *rows = n;
        return rd(obs, n, out);
    });
}

[[nodiscard]] rctype dabreadv(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_BIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec || c->obsperbuf <= 0) return DA_BADARG;
    DA_UPDLK lk(c->fcb, false, daupdmode(c->mode) && !(c->iom & DA_IOMSHARELK));
    // Another cursor may have written since: the held unit is read again.
    if (!(c->ioflags & 1)) c->transnum = -1;
    return dareadbufs(c, c->fcb, numbuf, [c](DA_IOB* iob) { return rdiob(c, iob); });
}

[[nodiscard]] rctype dabwritev(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_BIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec) return DA_BADARG;
    DA_UPDLK lk(c->fcb, true, !(c->iom & DA_IOMSHARELK));
    c->transnum = -1;
    return dawritebufs(
        c, c->fcb, c->mode, numbuf, [c](hs_obsno_t obs, long n, const char* p) { return puttransfer(c, obs, n, p); },
        nullptr);
}

[[nodiscard]] rctype dabsbuf(DA_IOCB* c, DA_IOB* iobvec, long bufsize) {
    DA_FID* fp = c->fp;
    int32_t reclen = fp->xoehdr->ioreclen;
    if (fp->blocksize <= 0 || reclen <= 0 || bufsize <= 0 || !iobvec) return DA_BADARG;
    // Callers hand a transfer-format cursor their buffer unrounded: it takes
    // the whole rows that fit.
    if (bufsize < reclen) return DA_BADARG;
    if (!dabyrow(c) && bufsize % fp->blocksize != 0) return DA_BADARG;
    dausebufs(c, iobvec, 0x7fffffff, bufsize);
    return 0;
}

[[nodiscard]] rctype dabfree(DA_IOCB* ic) {
    auto* c = static_cast<DA_BIOCB*>(ic);
    rctype rc = writetransfer(c);
    free(c->iobuf);
    dadropiocb(c);
    return rc;
}

const DA_IOCBMT mt_read = {dabfree, dabreadv, danoval, dasetloc, dabsbuf};
const DA_IOCBMT mt_write = {dabfree, dabreadv, dabwritev, dasetloc, dabsbuf};

}  // namespace

[[nodiscard]] rctype dabgioc(DA_FID* fp, int iom, DA_IOCB** iocb) {
    DA_FIDP* f = fidpof(fp);
    DA_FCB* fcb = f->fcb;
    const DA_XOEODS& x = fcb->xoe;
    if (x.transfersize <= 0 || x.obslen <= 0 || x.transferfactor <= 0 ||
        static_cast<int64_t>(x.transferfactor) * x.obslen > x.transfersize)
        return DA_INTERNAL;
    iom = danormiom(iom);
    if (iom & DA_IOMMAPPED) return DA_BADARG;
    if ((iom & DA_IOMSHARELK) && !daupdmode(f->mode)) return DA_BADARG;
    auto* c = static_cast<DA_BIOCB*>(calloc(1, sizeof(DA_BIOCB)));
    if (!c) return DA_NOMEM;
    c->iobuf = static_cast<char*>(malloc(x.transfersize));
    c->bmp = dadmnewbm(fcb);
    if (!c->iobuf || !c->bmp) {
        free(c->iobuf);
        dadmfreebm(c->bmp);
        free(c);
        return DA_NOMEM;
    }
    c->fp = fp;
    c->fcb = fcb;
    c->mode = f->mode;
    c->iom = iom & ~DA_IOMREFILL;
    c->bfi = -1;
    c->transnum = -1;
    c->mt = f->mode != DA_OMINPUT ? &mt_write : &mt_read;
    dastartpos(c, f->mode, x.numobs);
    *iocb = c;
    return 0;
}

}  // namespace vrta

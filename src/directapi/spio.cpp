// Row cursors of the direct access API. A read cursor either hands out the
// cursor's own buffer, or, on a compressed or encrypted table read with a
// buffer that is not one block, reads whole blocks into a private buffer and
// deals the caller's rows out of it (block mode), so that no block is
// unconverted twice.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "sda/darc.h"

using namespace vrta;

namespace {

constexpr int SP_IOMREAD = DA_IOMREAD | DA_IOMRANDOM | DA_IOMBYROW;   // 25
constexpr int SP_IOMWRITE = DA_IOMREAD | DA_IOMSEQ | DA_IOMBYROW;     // 21

int32_t obslenof(const SP_FID* s) { return s->dafid->xoehdr->ioreclen; }

bool dynamic(const SP_FID* s) { return (s->dafid->fidflags & DA_FIDDYNAMIC) != 0; }

// One read of the cursor, bracketed by the share calls of a dynamically
// shared table.
rctype rawread(SP_IOB* sp) {
    SP_FID* s = sp->spfid;
    DA_IOCB* iocb = sp->iocb;
    if (!dynamic(s)) return iocb->mt->dareadv(iocb, 1);
    DA_FID* fp = s->dafid;
    rctype rc = fp->mt->setshare(fp, DA_SHRREAD);
    if (rc >= 0) rc = iocb->mt->dareadv(iocb, 1);
    rctype crc = fp->mt->setshare(fp, DA_SHRCLEAR);
    return rc < 0 ? rc : (crc < 0 ? crc : rc);
}

// The caller's view of bufsize bytes: decides block mode, makes the block
// buffer or the row-number vector, and tells the cursor its buffer.
rctype setview(SP_IOB* sp, long bufsize, void* iobuf) {
    SP_FID* s = sp->spfid;
    DA_FID* fp = s->dafid;
    const DA_XOEODS& x = *fp->xoehdr;
    int32_t obslen = obslenof(s);
    long blocksize = fp->blocksize;
    if (obslen <= 0 || blocksize <= 0) return DA_BADARG;
    if (bufsize < obslen) return DA_BADARG;
    free(sp->blockbuf);
    sp->blockbuf = nullptr;
    free(sp->obsvecmem);
    sp->obsvecmem = nullptr;
    sp->daiob.obsvec = nullptr;
    sp->flags &= ~SP_IOBLOCK;
    sp->numobs = 0;
    sp->bufrows = 0;
    sp->obsperbuf = bufsize / obslen;
    long setsize;
    if (x.numdelete == 0 && (x.flags & (DA_XOECOMP | DA_XOECRYPT)) && bufsize != blocksize) {
        long n = (bufsize + blocksize - 1) / blocksize;
        setsize = n * blocksize;
        sp->blockbuf = static_cast<char*>(malloc(setsize));
        if (!sp->blockbuf) return SP_NOMEM;
        sp->daiob.bufptr = sp->blockbuf;
        sp->flags |= SP_IOBLOCK;
    } else {
        if (!iobuf) return DA_BADARG;
        setsize = sp->obsperbuf * obslen;
        sp->daiob.bufptr = iobuf;
        if (x.numdelete > 0) {
            sp->obsvecmem = static_cast<hs_obsno_t*>(malloc(sizeof(hs_obsno_t) * sp->obsperbuf));
            if (!sp->obsvecmem) return SP_NOMEM;
            sp->daiob.obsvec = sp->obsvecmem;
        }
    }
    sp->daiob.locator = -1;
    sp->daiob.numobs = 0;
    rctype rc = sp->iocb->mt->setbuf(sp->iocb, &sp->daiob, setsize);
    if (rc < 0) return rc;
    sp->setbufsize = setsize;
    // Block mode deals rows from the block that holds the cursor's position.
    if (sp->flags & SP_IOBLOCK) {
        int32_t bf = fp->blockfactor > 0 ? fp->blockfactor : 1;
        hs_obsno_t b = bf * ((sp->obsnum - 1) / bf) + 1;
        if (b != sp->iocb->curobs) rc = sp->iocb->mt->setloc(sp->iocb, b);
    }
    return rc;
}

SP_IOB* newspiob(SP_FID* s, DA_IOCB* iocb, int flags) {
    auto* sp = static_cast<SP_IOB*>(calloc(1, sizeof(SP_IOB)));
    if (!sp) return nullptr;
    sp->spfid = s;
    sp->iocb = iocb;
    sp->flags = flags;
    sp->obsnum = 1;
    sp->daiob.locator = -1;
    // The cursor finds its SP_IOB through iobvec even before it has a buffer.
    iocb->iobvec = &sp->daiob;
    return sp;
}

rctype freespiob(DA_IOCB* iocb) {
    if (!iocb) return DA_BADARG;
    SP_IOB* sp = spiobof(iocb);
    rctype rc = iocb->mt->freeiocb(iocb);
    if (sp) {
        free(sp->blockbuf);
        free(sp->obsvecmem);
        free(sp);
    }
    return rc;
}

SP_IOB* spiob(void* viocb) {
    auto* iocb = static_cast<DA_IOCB*>(viocb);
    return iocb ? spiobof(iocb) : nullptr;
}

// Transcodes rows just read; a failure after some good rows is kept for the
// next call so that the good rows still reach the caller.
rctype readtrans(SP_IOB* sp, char* rows, long* count) {
    SP_FID* s = sp->spfid;
    if (!(s->tpflags & SP_TPIN) || *count <= 0) return 0;
    long done = 0;
    rctype rc = spitptrans(s, rows, *count, &done);
    if (rc == SP_TRANSCODE && done > 0) {
        sp->delayedrc = rc;
        *count = done;
        return 0;
    }
    if (rc < 0) *count = 0;
    return rc;
}

}  // namespace

extern "C" {

int spnewrd(void* vfid, long bufsize, void* iobuf, void** newiocb) {
    SP_FID* s = spfidof(vfid);
    if (!newiocb) return DA_BADARG;
    *newiocb = nullptr;
    if (!s || !s->dafid) return DA_BADARG;
    DA_IOCB* iocb = nullptr;
    rctype rc = getiocb(s->dafid, SP_IOMREAD, &iocb);
    if (rc < 0) return rc;
    SP_IOB* sp = newspiob(s, iocb, SP_IOREAD);
    if (!sp) {
        daignore(iocb->mt->freeiocb(iocb));
        return SP_NOMEM;
    }
    if (bufsize >= 1) {
        rc = setview(sp, bufsize, iobuf);
        if (rc < 0) {
            freespiob(iocb);
            return rc;
        }
    }
    *newiocb = iocb;
    return 0;
}

int spnewwr(void* vfid, long bufsize, void* iobuf, int flags, void** newiocb) {
    SP_FID* s = spfidof(vfid);
    if (!newiocb) return DA_BADARG;
    *newiocb = nullptr;
    if (!s || !s->dafid || !iobuf || bufsize < 1) return DA_BADARG;
    const DA_XOEODS& x = *s->dafid->xoehdr;
    int32_t obslen = obslenof(s);
    bool transfer = (x.flags & DA_XOEEXPORT) != 0;
    long setsize = transfer ? bufsize : bufsize / obslen * obslen;
    if (setsize < obslen) return DA_BADARG;
    DA_IOCB* iocb = nullptr;
    rctype rc = getiocb(s->dafid, SP_IOMWRITE | ((flags & 1) ? DA_IOMSHARELK : 0), &iocb);
    if (rc < 0) return rc;
    SP_IOB* sp = newspiob(s, iocb, SP_IOWRITE);
    if (!sp) {
        daignore(iocb->mt->freeiocb(iocb));
        return SP_NOMEM;
    }
    sp->daiob.bufptr = iobuf;
    sp->obsperbuf = bufsize / obslen;
    rc = iocb->mt->setbuf(iocb, &sp->daiob, setsize);
    if (rc < 0) {
        freespiob(iocb);
        return rc;
    }
    sp->setbufsize = setsize;
    *newiocb = iocb;
    return 0;
}

int spfreerd(void* viocb) { return freespiob(static_cast<DA_IOCB*>(viocb)); }

int spfreeio(void* viocb) { return freespiob(static_cast<DA_IOCB*>(viocb)); }

int spsetrd(void* viocb, long bufsize, void* iobuf) {
    SP_IOB* sp = spiob(viocb);
    if (!sp || !(sp->flags & SP_IOREAD)) return DA_BADARG;
    return setview(sp, bufsize, iobuf);
}

int spsetloc(void* viocb, int64_t obsnum) {
    SP_IOB* sp = spiob(viocb);
    if (!sp || obsnum < 1) return DA_BADARG;
    DA_IOCB* iocb = sp->iocb;
    sp->delayedrc = 0;
    if (!(sp->flags & SP_IOBLOCK)) return iocb->mt->setloc(iocb, obsnum);
    // Rows still in the block buffer are dealt from it; any other row starts
    // a fresh block read at its block's first row.
    if (sp->bufrows > 0 && obsnum >= sp->blockobs && obsnum < sp->blockobs + sp->bufrows) {
        sp->numobs = static_cast<long>(sp->bufrows - (obsnum - sp->blockobs));
    } else {
        int32_t bf = sp->spfid->dafid->blockfactor > 0 ? sp->spfid->dafid->blockfactor : 1;
        hs_obsno_t b = bf * ((obsnum - 1) / bf) + 1;
        if (b != iocb->curobs) {
            rctype rc = iocb->mt->setloc(iocb, b);
            if (rc < 0) return rc;
        }
        sp->numobs = 0;
        sp->bufrows = 0;
    }
    sp->obsnum = obsnum;
    return 0;
}

int64_t spcurloc(void* viocb) {
    SP_IOB* sp = spiob(viocb);
    if (!sp) return DA_BADARG;
    return (sp->flags & SP_IOBLOCK) ? sp->obsnum : sp->iocb->curobs;
}

int spreadv(void* viocb, long* numobs, void** bufp, int64_t** obsvec) {
    if (numobs) *numobs = 0;
    if (bufp) *bufp = nullptr;
    if (obsvec) *obsvec = nullptr;
    SP_IOB* sp = spiob(viocb);
    if (!sp || !numobs || !bufp || !(sp->flags & SP_IOREAD)) return DA_BADARG;
    if (sp->delayedrc) {
        rctype rc = sp->delayedrc;
        sp->delayedrc = 0;
        return rc;
    }
    if (sp->setbufsize <= 0) return DA_BADARG;
    int32_t obslen = obslenof(sp->spfid);
    char* rows;
    long count;
    hs_obsno_t* ov = nullptr;
    if (!(sp->flags & SP_IOBLOCK)) {
        rctype rc = rawread(sp);
        if (rc == DA_EOF) return 0;
        if (rc < 0) return rc;
        rows = static_cast<char*>(sp->daiob.bufptr);
        count = sp->daiob.numobs > 0 ? sp->daiob.numobs : 0;
        ov = sp->daiob.obsvec;
    } else {
        if (sp->numobs <= 0) {
            sp->blockobs = sp->iocb->curobs;
            rctype rc = rawread(sp);
            if (rc == DA_EOF) return 0;
            if (rc < 0) return rc;
            sp->bufrows = sp->daiob.numobs > 0 ? sp->daiob.numobs : 0;
            sp->numobs = static_cast<long>(sp->bufrows - (sp->obsnum - sp->blockobs));
            if (sp->numobs <= 0) {
                sp->numobs = 0;
                return 0;
            }
        }
        rows = sp->blockbuf + (sp->obsnum - sp->blockobs) * obslen;
        count = std::min(sp->numobs, sp->obsperbuf);
        sp->obsnum += count;
        sp->numobs -= count;
    }
    rctype rc = readtrans(sp, rows, &count);
    if (rc < 0) return rc;
    *numobs = count;
    *bufp = rows;
    if (obsvec) *obsvec = ov;
    return 0;
}

int spwritev(void* viocb, long numobs) {
    SP_IOB* sp = spiob(viocb);
    if (!sp || !(sp->flags & SP_IOWRITE) || numobs < 0 || numobs > sp->obsperbuf) return DA_BADARG;
    SP_FID* s = sp->spfid;
    if ((s->tpflags & SP_TPOUT) && numobs > 0) {
        long done = 0;
        rctype rc = spotptrans(s, static_cast<char*>(sp->daiob.bufptr), numobs, &done);
        if (rc < 0) return rc;
    }
    sp->daiob.numobs = numobs;
    DA_IOCB* iocb = sp->iocb;
    if (!dynamic(s)) return iocb->mt->dawritev(iocb, 1);
    DA_FID* fp = s->dafid;
    rctype rc = fp->mt->setshare(fp, DA_SHRUPDATE);
    if (rc >= 0) rc = iocb->mt->dawritev(iocb, 1);
    rctype crc = fp->mt->setshare(fp, DA_SHRCLEAR);
    return rc < 0 ? rc : (crc < 0 ? crc : rc);
}

int spgetr(void* viocb, int64_t obsnum, void** bufp) {
    if (bufp) *bufp = nullptr;
    SP_IOB* sp = spiob(viocb);
    if (!sp || !bufp || !(sp->flags & SP_IOREAD) || obsnum < 1) return DA_BADARG;
    if (sp->setbufsize <= 0) return DA_BADARG;
    DA_IOCB* iocb = sp->iocb;
    int32_t obslen = obslenof(sp->spfid);
    hs_obsno_t numobs = sp->spfid->dafid->xoehdr->numobs;
    rctype rc = 0;
    if (sp->setbufsize != obslen) rc = iocb->mt->setbuf(iocb, &sp->daiob, obslen);
    if (rc < 0) return rc;
    sp->daiob.locator = obsnum;
    rc = rawread(sp);
    sp->daiob.locator = -1;
    if (sp->setbufsize != obslen) {
        rctype brc = iocb->mt->setbuf(iocb, &sp->daiob, sp->setbufsize);
        if (rc >= 0 && brc < 0) rc = brc;
    }
    if (sp->flags & SP_IOBLOCK) {
        // The block buffer now holds this one row: the view starts afresh.
        sp->numobs = 0;
        sp->bufrows = 0;
        sp->obsnum = iocb->curobs;
    }
    if (rc == DA_EOF || rc == DA_PASTEND) return obsnum <= numobs ? -1 : DA_EOF;
    if (rc < 0) return rc;
    if (iocb->curobs - 1 != obsnum) {
        // The row is deleted and the reader went on to the next live one:
        // the position stays on that row, so that a sequential read takes it.
        hs_obsno_t next = iocb->curobs - 1;
        rc = iocb->mt->setloc(iocb, next);
        if (rc < 0) return rc;
        if (sp->flags & SP_IOBLOCK) spsetloc(viocb, next);
        return -1;
    }
    long count = 1;
    rc = readtrans(sp, static_cast<char*>(sp->daiob.bufptr), &count);
    sp->delayedrc = 0;
    if (rc < 0 || count < 1) return rc < 0 ? rc : SP_TRANSCODE;
    *bufp = sp->daiob.bufptr;
    return 0;
}

}  // extern "C"

// What the cursor families (plain, transfer-format, block) do alike: where a
// cursor stands, how a buffer's locator moves it, the update lock around a
// read or write call, the read loop over a call's buffers, and the end of a
// cursor. Each family keeps only how its rows reach the file.
#pragma once
#include <cstddef>
#include <algorithm>
#include <cstdlib>
#include <type_traits>

#include "sda/daiocb.h"
#include "sda/darc.h"

namespace vrta {

inline bool dabyrow(const DA_IOCB* c) { return (c->iom & DA_IOMBYROW) != 0; }
inline int32_t dacbf(const DA_IOCB* c) { return c->fp->blockfactor > 0 ? c->fp->blockfactor : 1; }
inline void dasetpos(DA_IOCB* c, hs_obsno_t obs) {
    c->curobs = obs;
    c->curblock = (obs - 1) / dacbf(c);
}
inline bool daupdmode(int mode) { return mode == DA_OMUPDATE || mode == DA_OMUTIL; }

// Where a new cursor starts: after the last row for writers that add.
inline void dastartpos(DA_IOCB* c, int mode, hs_obsno_t numobs) {
    bool append = mode == DA_OMOUTPUT || mode == DA_OMAPPEND;
    dasetpos(c, append ? numobs + 1 : 1);
}

// Deleted rows are passed over unless the cursor asked for them.
inline bool daskipdel(const DA_FCB* fcb, int iom) {
    return fcb->xoe.numdelete > 0 && !(iom & DA_IOMDELETED) && fcb->dmpcb;
}

// Refill only makes sense row by row on a table that reuses deleted rows
// and has some; otherwise the flag is dropped.
inline int darefilliom(const DA_FCB* fcb, int iom) {
    if ((iom & DA_IOMREFILL) && (iom & DA_IOMBYROW) && (fcb->xoe.flags & DA_ADDAVAIL) && fcb->xoe.numdelete > 0)
        return iom | DA_IOMFILLING;
    return iom & ~DA_IOMREFILL;
}

// Rows up to last are written (to the file, or to a block the table
// holds): numobs may cover them now, never before.
inline void dacoverobs(DA_FCB* fcb, hs_obsno_t last) {
    if (last > fcb->xoe.numobs) {
        fcb->xoe.numobs = last;
        fcb->flags |= DA_FCBXOE;
    }
}

// Where a buffer's locator sends the cursor; DA_PASTEND when beyond limit.
[[nodiscard]] inline rctype dalocate(DA_IOCB* c, const DA_IOB* iob, hs_obsno_t limit) {
    if (iob->locator < 0) return 0;
    hs_obsno_t pos = dabyrow(c) ? iob->locator : iob->locator * dacbf(c) + 1;
    if (pos < 1 || pos > limit) return DA_PASTEND;
    dasetpos(c, pos);
    return 0;
}

// The table's update lock for one read or write call, when the cursor takes it.
struct DA_UPDLK {
    DA_FCB* fcb;
    bool held = false;
    DA_UPDLK(DA_FCB* f, bool write, bool take) : fcb(f) {
        if (!take || !fcb->updateLockInit) return;
        held = (write ? rw_wrlock(&fcb->updateLock) : rw_rdlock(&fcb->updateLock)) == 0;
    }
    ~DA_UPDLK() {
        if (held) rw_unlock(&fcb->updateLock);
    }
    DA_UPDLK(const DA_UPDLK&) = delete;
    DA_UPDLK& operator=(const DA_UPDLK&) = delete;
};

[[nodiscard]] inline rctype danoval(DA_IOCB*, int) { return DA_BADARG; }

// setloc of the unmapped families: a row, or a block for a by-block cursor.
[[nodiscard]] inline rctype dasetloc(DA_IOCB* c, hs_obsno_t loc) {
    if (loc < 0) return DA_BADARG;
    if (dabyrow(c)) {
        if (loc < 1) return DA_BADARG;
        dasetpos(c, loc);
    } else {
        c->curblock = loc;
        c->curobs = loc * dacbf(c) + 1;
    }
    return 0;
}

// The caller's vector length is not passed; a cursor serves as many
// buffers as a read or write call names.
inline void dausebufs(DA_IOCB* c, DA_IOB* iobvec, int numbuf, long bufsize) {
    c->iobvec = iobvec;
    c->numbuf = numbuf;
    c->bufsize = bufsize;
    c->obsperbuf = bufsize / c->fp->xoehdr->ioreclen;
}

// Fills the first numbuf buffers with rdiob(iob), each from its locator or
// where the last left off. Buffers after a failure get numobs -1; the end
// of the table after at least one buffer is not an error.
template <class Rd>
[[nodiscard]] rctype dareadbufs(DA_IOCB* c, const DA_FCB* fcb, int numbuf, Rd rdiob) {
    rctype rc = 0;
    int i = 0;
    bool any = false;
    for (; i < numbuf; ++i) {
        DA_IOB* iob = &c->iobvec[i];
        rc = dalocate(c, iob, fcb->xoe.numobs);
        if (rc == 0) rc = rdiob(iob);
        if (rc != 0) break;
        c->bfi = i;
        any = true;
    }
    if (rc == 0) return 0;
    for (; i < numbuf; ++i) c->iobvec[i].numobs = -1;
    c->status = rc;
    if (rc == DA_EOF) return any ? 0 : DA_EOF;
    return rc;
}

// Fills iob from the cursor's place with every row up to numobs, read by
// rd(obs, n, out) in one piece.
template <class Rd>
[[nodiscard]] rctype dareadall(DA_IOCB* c, DA_IOB* iob, hs_obsno_t numobs, Rd rd) {
    if (c->curobs > numobs) return DA_EOF;
    long n = static_cast<long>(std::min<hs_obsno_t>(c->obsperbuf, numobs - c->curobs + 1));
    rctype rc = rd(c->curobs, n, static_cast<char*>(iob->bufptr));
    if (rc < 0) return rc;
    if (iob->obsvec)
        for (long i = 0; i < n; ++i) iob->obsvec[i] = c->curobs + i;
    iob->numobs = n;
    dasetpos(c, c->curobs + n);
    return 0;
}

// Fills iob from the cursor's place with live rows, run by run, passing
// over deleted ones: rdrun(obs, n, out, &rows) reads up to n rows at obs,
// fewer only at the file's end. numobs is the row count taken when the
// buffer started: rows another opener appends meanwhile wait for the next
// buffer, and when no live row is left the cursor moves just past numobs.
template <class Rd>
[[nodiscard]] rctype dareadlive(DA_GIOCB* c, DA_FCB* fcb, DA_IOB* iob, long rowlen, hs_obsno_t numobs, Rd rdrun) {
    char* out = static_cast<char*>(iob->bufptr);
    long filled = 0;
    while (filled < c->obsperbuf) {
        hs_obsno_t runobs = 0, numrun = 0;
        rctype rc = dadmrunbm(fcb, c->bmp, c->curobs, c->obsperbuf - filled, numobs, &runobs, &numrun);
        if (rc < 0) return rc;
        if (numrun <= 0) {
            dasetpos(c, std::max(c->curobs, numobs + 1));
            break;
        }
        long rows = 0;
        rc = rdrun(runobs, static_cast<long>(numrun), out + filled * rowlen, &rows);
        if (rc < 0) return rc;
        if (iob->obsvec)
            for (long i = 0; i < rows; ++i) iob->obsvec[filled + i] = runobs + i;
        filled += rows;
        dasetpos(c, runobs + rows);
        if (rows < numrun) break;
    }
    if (filled == 0) return DA_EOF;
    iob->numobs = filled;
    return 0;
}

// Refill: iob's rows go into runs of deleted rows first, each found by
// find(&refobs, &refrun) (refrun 0 when none is left, which ends the
// refill), then after the last row; put(obs, n, rows) writes them.
template <class Find, class Put>
[[nodiscard]] rctype darefillrows(DA_IOCB* c, DA_FCB* fcb, DA_IOB* iob, long rowlen, hs_obsno_t* refobs, hs_obsno_t* refrun,
                    Find find, Put put) {
    const char* p = static_cast<const char*>(iob->bufptr);
    long n = iob->numobs;
    while (n > 0 && (c->iom & DA_IOMFILLING)) {
        if (*refrun <= 0) {
            rctype rc = find(refobs, refrun);
            if (rc < 0) return rc;
            if (*refrun <= 0) {
                c->iom &= ~(DA_IOMFILLING | DA_IOMLASTRUN);
                break;
            }
        }
        long k = static_cast<long>(std::min<hs_obsno_t>(n, *refrun));
        rctype rc = put(*refobs, k, p);
        if (rc == 0) rc = dadmreset(fcb, *refobs, k);
        if (rc < 0) return rc;
        *refobs += k;
        *refrun -= k;
        p += k * rowlen;
        n -= k;
        dasetpos(c, *refobs);
    }
    if (n <= 0) return 0;
    dasetpos(c, fcb->xoe.numobs + 1);
    rctype rc = put(c->curobs, n, p);
    if (rc == 0) dasetpos(c, c->curobs + n);
    return rc;
}

// Writes the first numbuf buffers with put(obs, n, rows): an updater at
// each buffer's locator, over deleted rows unless DA_IOMLIVE; an adder
// after the last row, or through fill(iob) while it refills deleted rows.
template <class Put, class Fill>
[[nodiscard]] rctype dawritebufs(DA_IOCB* c, DA_FCB* fcb, int mode, int numbuf, Put put, Fill fill) {
    bool upd = daupdmode(mode);
    rctype rc = 0;
    for (int i = 0; i < numbuf && rc == 0; ++i) {
        DA_IOB* iob = &c->iobvec[i];
        if constexpr (!std::is_same_v<Fill, std::nullptr_t>) {
            if (!upd && (c->iom & DA_IOMFILLING)) {
                rc = fill(iob);
                if (rc == 0) c->bfi = i;
                continue;
            }
        }
        if (upd) rc = dalocate(c, iob, fcb->xoe.numobs + 1);
        else dasetpos(c, fcb->xoe.numobs + 1);
        if (rc == 0 && iob->numobs > 0) {
            if (upd) rc = dawrdelck(fcb, c->iom, c->curobs, iob->numobs);
            if (rc == 0) rc = put(c->curobs, iob->numobs, static_cast<const char*>(iob->bufptr));
            if (rc == 0) dasetpos(c, c->curobs + iob->numobs);
        }
        if (rc == 0) c->bfi = i;
    }
    c->status = rc;
    return rc;
}

// The common end of a cursor: its delete bitmap, its count on the opener,
// its memory.
inline void dadropiocb(DA_GIOCB* c) {
    dadmfreebm(c->bmp);
    DA_FIDP* f = fidpof(c->fp);
    mutex_lock(&f->iocbLock);
    if (f->iocbCount > 0) f->iocbCount--;
    mutex_unlock(&f->iocbLock);
    free(c);
}

}  // namespace vrta

// The row pointer cursor: reads rows by number, through a buffer of rows
// and the vectors an index hands row numbers in. This file makes and frees
// it; the index and WHERE reads that fill it live beside the index layer.
#include <cstdint>
#include <cstdlib>

#include "directapi/sp.h"
#include "directapi/sppnt.h"
#include "sda/darc.h"

using namespace vrta;

namespace {

// Read, random, by row, deleted rows included: the index says which rows
// it wants, and a deleted one is dropped when it is read.
constexpr int SP_IOMPNT = DA_IOMREAD | DA_IOMRANDOM | DA_IOMBYROW | DA_IOMDELETED;  // 153

}  // namespace

namespace vrta {

rctype sp_initpnt(size_t strsize, void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newpnt) {
    if (!newpnt) return DA_BADARG;
    *newpnt = nullptr;
    SP_FID* s = spfidof(vfid);
    if (!s || !s->dafid || !s->dafid->xoehdr || strsize < sizeof(SP_PNT)) return DA_BADARG;
    const DA_XOEODS& x = *s->dafid->xoehdr;
    long obslen = x.ioreclen;
    if (obslen <= 0) return DA_BADARG;
    long obsperbuf = bufsize / (obslen + 8);
    if (obsperbuf < 1) return DA_BADARG;
    int nvec = x.numdelete > 0 ? 3 : 2;
    size_t vecs = sizeof(int64_t) * static_cast<size_t>(obsperbuf) * nvec;
    size_t head = (strsize + 7) / 8 * 8;
    size_t iobufsize = static_cast<size_t>(obsperbuf) * obslen;
    auto* mem = static_cast<char*>(std::calloc(1, head + vecs + iobufsize));
    if (!mem) return SP_NOMEM;
    auto* p = reinterpret_cast<SP_PNT*>(mem);
    p->spfid = s;
    p->eof = 1;  // nothing to read before a range is set
    p->bufsize = bufsize;
    p->obsperbuf = obsperbuf;
    auto* v = reinterpret_cast<int64_t*>(mem + head);
    p->obsvec = v;
    p->ordvec = v + obsperbuf;
    p->rowvec = nvec == 3 ? v + 2 * obsperbuf : nullptr;
    p->iobufsize = static_cast<long>(iobufsize);
    p->rows = mem + head + vecs;
    if (startobs >= 2 || endobs >= 1) {
        p->bounds.first = startobs >= 1 ? startobs : 1;
        p->bounds.last = endobs >= 1 ? endobs : INT64_MAX;
        p->bp = &p->bounds;
    }
    DA_IOCB* iocb = nullptr;
    rctype rc = getiocb(s->dafid, SP_IOMPNT, &iocb);
    if (rc < 0) {
        std::free(mem);
        return rc;
    }
    p->iocb = iocb;
    p->iobvec.bufptr = p->rows;
    p->iobvec.obsvec = p->rowvec;
    p->iobvec.locator = -1;
    iocb->iobvec = &p->iobvec;
    rc = iocb->mt->setbuf(iocb, &p->iobvec, p->iobufsize);
    if (rc < 0) {
        daignore(iocb->mt->freeiocb(iocb));
        std::free(mem);
        return rc;
    }
    *newpnt = p;
    return 0;
}

}  // namespace vrta

extern "C" {

int spnewpt(void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newpnt) {
    return sp_initpnt(sizeof(SP_PNT), vfid, bufsize, startobs, endobs, newpnt);
}

int spfreept(void* vpnt) {
    auto* p = static_cast<SP_PNT*>(vpnt);
    if (!p) return DA_BADARG;
    if (p->list) ixfreel(p->list);
    rctype rc = p->iocb ? p->iocb->mt->freeiocb(p->iocb) : 0;
    std::free(p);
    return rc;
}

}  // extern "C"

// The delete map: one bitmap per segment that has deleted rows, found through
// chained directories in the MDF and a hash in memory. Row numbers never
// move; a deleted row is a set bit (most significant bit first in 32-bit words).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

namespace {

void assertfail(int line) { hsprint("Assertion failed: %s/%d\n", "sda/src/dadelbm", line); }

int64_t segof(const DA_FCB* fcb, hs_obsno_t obsno) {
    int64_t s = fcb->xoe.idxsegsize;
    return s * ((obsno - 1) / s) + 1;
}

[[nodiscard]] rctype wrraw(DA_FCB* fcb, const void* buf, long len, da_off_t* off) {
    if (da_writehook) da_writehook("dmap");
    rctype rc = fcb->mdfd->fdwrite(fcb->mdfd, buf, len, off);
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype rdraw(DA_FCB* fcb, void* buf, long len, da_off_t off) {
    long got = 0;
    rctype rc = fcb->mdfd->fdread(fcb->mdfd, buf, len, off, &got);
    if (rc < 0) return rc;
    return (rc == DA_EOF || got != len) ? DA_INTERNAL : 0;
}

[[nodiscard]] rctype wrods(DA_FCB* fcb, const void* rec, da_off_t* off) {
    if (da_writehook) da_writehook("dmap");
    return dawrods(fcb->mdfio, rec, off);
}

void hashadd(DA_DMPCB* d, const DA_DMPENT& e) {
    auto* h = static_cast<DA_DMPHT*>(calloc(1, sizeof(DA_DMPHT)));
    if (!h) return;
    h->ent = e;
    int32_t b = static_cast<int32_t>(e.baseObs % d->numht);
    h->next = d->ht[b];
    d->ht[b] = h;
}

DA_DMPHT* hashfind(DA_DMPCB* d, hs_obsno_t segobs) {
    if (!d || !d->ht) return nullptr;
    for (DA_DMPHT* h = d->ht[segobs % d->numht]; h; h = h->next)
        if (h->ent.baseObs == segobs) return h;
    return nullptr;
}

void freehash(DA_DMPCB* d) {
    if (!d->ht) return;
    for (int32_t i = 0; i < d->numht; ++i) {
        DA_DMPHT* h = d->ht[i];
        while (h) {
            DA_DMPHT* n = h->next;
            free(h);
            h = n;
        }
    }
    free(d->ht);
    d->ht = nullptr;
}

[[nodiscard]] rctype makehash(DA_DMPCB* d) {
    d->numht = (d->dmphdr.numdmpdir * DA_DMPNENT) / 2 + 1;
    d->ht = static_cast<DA_DMPHT**>(calloc(d->numht, sizeof(DA_DMPHT*)));
    return d->ht ? 0 : DA_NOMEM;
}

// Reads the bitmap of a segment into bmp, unless it already holds it.
[[nodiscard]] rctype loadbm(DA_FCB* fcb, DA_DMPHT* h, DA_DMPBM* bmp) {
    int32_t bs = fcb->dmpcb->dmphdr.bmapsize;
    if (!bmp->bitmap || bmp->bmsize != bs) {
        free(bmp->bitmap);
        bmp->bitmap = static_cast<uint32_t*>(calloc(1, bs));
        if (!bmp->bitmap) return DA_NOMEM;
        bmp->bmsize = bs;
        bmp->offset = -1;
    }
    if (bmp->offset == h->ent.bitmapOff && bmp->seqno == h->seqno && bmp->hte == h) return 0;
    // The shared working bitmap is the freshest copy; a cursor takes it from there.
    DA_DMPBM* shared = &fcb->dmpcb->bmap;
    if (bmp != shared && shared->bitmap && shared->hte == h && shared->offset == h->ent.bitmapOff &&
        shared->seqno == h->seqno) {
        memcpy(bmp->bitmap, shared->bitmap, bs);
    } else {
        rctype rc = rdraw(fcb, bmp->bitmap, bs, h->ent.bitmapOff);
        if (rc < 0) return rc;
    }
    bmp->offset = h->ent.bitmapOff;
    bmp->seqno = h->seqno;
    bmp->hte = h;
    bmp->segobs = h->ent.baseObs;
    return 0;
}

inline bool bitset(const uint32_t* bm, int64_t bit) { return bm[bit >> 5] & (0x80000000u >> (bit & 31)); }

}  // namespace

[[nodiscard]] rctype danewdm(DA_FCB* fcb) {
    auto* d = static_cast<DA_DMPCB*>(calloc(1, sizeof(DA_DMPCB)));
    if (!d) return DA_NOMEM;
    dainitdmph(&d->dmphdr, fcb->xoe.idxsegsize);
    d->dmphdr.numdmpdir = 1;
    dainitdmpd(&d->dirblk);
    d->bmap.offset = -1;
    rctype rc = makehash(d);
    da_off_t doff = -1;
    if (rc == 0) rc = wrods(fcb, &d->dirblk, &doff);
    if (rc == 0) {
        d->diroff = doff;
        d->dmphdr.dmpdirOff = doff;
        d->hdroff = -1;
        rc = wrods(fcb, &d->dmphdr, &d->hdroff);
    }
    // The map's records are on disk before the header links them.
    if (rc == 0) rc = dasyncfcb(fcb);
    if (rc == 0) {
        fcb->dshdr.links[DA_LNKDMP] = d->hdroff;
        da_off_t h = fcb->hdrOff;
        if (da_writehook) da_writehook("dshdr");
        rc = dawrods(fcb->mdfio, &fcb->dshdr, &h);
    }
    if (rc < 0) {
        freehash(d);
        free(d);
        return rc;
    }
    fcb->dmpcb = d;
    return 0;
}

[[nodiscard]] rctype dalddmp(DA_FCB* fcb) {
    rctype rc = dafrdmp(fcb);
    if (rc < 0) return rc;
    auto* d = static_cast<DA_DMPCB*>(calloc(1, sizeof(DA_DMPCB)));
    if (!d) return DA_NOMEM;
    d->bmap.offset = -1;
    d->hdroff = fcb->dshdr.links[DA_LNKDMP];
    rc = darddmph(fcb->mdfio, &d->dmphdr, d->hdroff);
    if (rc == 0 && (d->dmphdr.numdmpdir < 1 || d->dmphdr.bmapsize <= 0 ||
                    d->dmphdr.bmapsize < (fcb->xoe.idxsegsize + 7) / 8))
        rc = DA_INTERNAL;
    if (rc == 0) rc = makehash(d);
    da_off_t off = d->dmphdr.dmpdirOff;
    for (int32_t i = 0; rc == 0 && i < d->dmphdr.numdmpdir; ++i) {
        if (off < 0) {
            rc = DA_INTERNAL;  // the chain ends before numdmpdir
            break;
        }
        rc = darddmpd(fcb->mdfio, &d->dirblk, off);
        if (rc < 0) break;
        if (d->dirblk.nument < 0 || d->dirblk.nument > DA_DMPNENT) {
            rc = DA_INTERNAL;
            break;
        }
        for (int32_t e = 0; e < d->dirblk.nument; ++e)
            if (d->dirblk.ents[e].baseObs > 0) hashadd(d, d->dirblk.ents[e]);
        d->diroff = off;
        off = d->dirblk.nextOff;
    }
    if (rc < 0) {
        if (rc != DA_NOMEM) rc = DA_INTERNAL;
        freehash(d);
        free(d);
        return rc;
    }
    fcb->dmpcb = d;
    return 0;
}

[[nodiscard]] rctype dafrdmp(DA_FCB* fcb) {
    DA_DMPCB* d = fcb->dmpcb;
    if (!d) return 0;
    freehash(d);
    free(d->bmap.bitmap);
    free(d);
    fcb->dmpcb = nullptr;
    return 0;
}

[[nodiscard]] rctype dalocdm(DA_FCB* fcb, hs_obsno_t segobs, DA_DMPBM* bmp) {
    DA_DMPHT* h = hashfind(fcb->dmpcb, segobs);
    if (!h) return DA_NOTFOUND;
    return loadbm(fcb, h, bmp);
}

[[nodiscard]] rctype danewbm(DA_FCB* fcb, hs_obsno_t segobs, DA_DMPBM* bmp) {
    DA_DMPCB* d = fcb->dmpcb;
    rctype rc;
    // Each new record is on disk before anything links it: a power loss may
    // lose the link, never leave one that leads past the file's end.
    if (d->dirblk.nument == d->dirblk.numalloc) {
        DA_DMPDIR nd;
        dainitdmpd(&nd);
        da_off_t noff = -1;
        rc = wrods(fcb, &nd, &noff);
        if (rc == 0) rc = dasyncfcb(fcb);
        if (rc < 0) return rc;
        d->dirblk.nextOff = noff;
        da_off_t old = d->diroff;
        rc = wrods(fcb, &d->dirblk, &old);
        if (rc < 0) return rc;
        d->dirblk = nd;
        d->diroff = noff;
        d->dmphdr.numdmpdir++;
    }
    int32_t bs = d->dmphdr.bmapsize;
    auto* zero = static_cast<uint32_t*>(calloc(1, bs));
    if (!zero) return DA_NOMEM;
    da_off_t boff = -1;
    rc = wrraw(fcb, zero, bs, &boff);
    free(zero);
    if (rc == 0) rc = dasyncfcb(fcb);
    if (rc < 0) return rc;
    DA_DMPENT e{boff, segobs};
    d->dirblk.ents[d->dirblk.nument++] = e;
    da_off_t doff = d->diroff;
    rc = wrods(fcb, &d->dirblk, &doff);
    if (rc == 0) rc = dasyncfcb(fcb);
    if (rc < 0) return rc;
    hashadd(d, e);
    d->dmphdr.numbmap++;
    da_off_t hoff = d->hdroff;
    rc = wrods(fcb, &d->dmphdr, &hoff);
    if (rc < 0) return rc;
    return dalocdm(fcb, segobs, bmp);
}

[[nodiscard]] rctype dadodmp(DA_FID* f, hs_obsno_t obsno) {
    DA_FCB* fcb = fcbof(f);
    if (obsno < 1 || obsno > fcb->xoe.numobs) return DA_BADARG;
    if (rw_wrlock(&fcb->updateLock) != 0) return DA_RWFAIL;
    rctype rc = 0;
    if (!fcb->dmpcb) rc = danewdm(fcb);
    hs_obsno_t segobs = segof(fcb, obsno);
    DA_DMPCB* d = fcb->dmpcb;
    if (rc == 0) {
        rc = dalocdm(fcb, segobs, &d->bmap);
        if (rc == DA_NOTFOUND) rc = danewbm(fcb, segobs, &d->bmap);
    }
    if (rc == 0) {
        int64_t bit = obsno - segobs;
        if (!bitset(d->bmap.bitmap, bit)) {
            // Bitmap before count: a crash may leave the count one short, never over.
            d->bmap.bitmap[bit >> 5] |= 0x80000000u >> (bit & 31);
            da_off_t off = d->bmap.offset;
            rc = wrraw(fcb, d->bmap.bitmap, d->bmap.bmsize, &off);
            if (rc == 0) {
                d->bmap.hte->seqno++;
                d->bmap.seqno = d->bmap.hte->seqno;
                d->seqno++;
                fcb->xoe.numdelete++;
                rc = dawrfcbxoe(fcb);
            } else {
                d->bmap.bitmap[bit >> 5] &= ~(0x80000000u >> (bit & 31));
            }
        }
    }
    rw_unlock(&fcb->updateLock);
    return rc;
}

DA_DMPBM* dadmnewbm(DA_FCB*) {
    auto* b = static_cast<DA_DMPBM*>(calloc(1, sizeof(DA_DMPBM)));
    if (b) b->offset = -1;
    return b;
}

void dadmfreebm(DA_DMPBM* bmp) {
    if (!bmp) return;
    free(bmp->bitmap);
    free(bmp);
}

bool dadmisdel(DA_FCB* fcb, DA_DMPBM* bmp, hs_obsno_t obsno) {
    if (!fcb->dmpcb || obsno < 1) return false;
    hs_obsno_t segobs = segof(fcb, obsno);
    DA_DMPHT* h = hashfind(fcb->dmpcb, segobs);
    if (!h || loadbm(fcb, h, bmp) < 0) return false;
    return bitset(bmp->bitmap, obsno - segobs);
}

[[nodiscard]] rctype dadmrunbm(DA_FCB* fcb, DA_DMPBM* bmp, hs_obsno_t curobs, hs_obsno_t remain, hs_obsno_t numobs,
                 hs_obsno_t* runobs, hs_obsno_t* numrun) {
    *numrun = 0;
    *runobs = curobs;
    if (curobs < 1 || curobs > numobs || remain <= 0) return 0;
    int64_t seg = fcb->xoe.idxsegsize;
    hs_obsno_t obs = curobs;
    bool started = false;
    while (obs <= numobs && *numrun < remain) {
        hs_obsno_t segobs = segof(fcb, obs);
        hs_obsno_t segend = std::min<hs_obsno_t>(segobs + seg - 1, numobs);
        DA_DMPHT* h = hashfind(fcb->dmpcb, segobs);
        if (!h) {
            // No bitmap: the whole segment is live.
            if (!started) {
                started = true;
                *runobs = obs;
            }
            hs_obsno_t take = std::min<hs_obsno_t>(segend - obs + 1, remain - *numrun);
            *numrun += take;
            obs += take;
            continue;
        }
        rctype rc = loadbm(fcb, h, bmp);
        if (rc < 0) return rc;
        for (; obs <= segend && *numrun < remain; ++obs) {
            bool del = bitset(bmp->bitmap, obs - segobs);
            if (del) {
                if (started) return 0;
                continue;
            }
            if (!started) {
                started = true;
                *runobs = obs;
            }
            ++*numrun;
        }
    }
    if (!started) *runobs = obs;
    return 0;
}

[[nodiscard]] rctype dadmdelrun(DA_FCB* fcb, hs_obsno_t startobs, hs_obsno_t* delrun) {
    *delrun = 0;
    if (!fcb->dmpcb || fcb->xoe.numdelete == 0) return 0;
    DA_DMPBM* bmp = &fcb->dmpcb->bmap;
    for (hs_obsno_t obs = startobs; obs >= 1 && obs <= fcb->xoe.numobs;) {
        hs_obsno_t segobs = segof(fcb, obs);
        DA_DMPHT* h = hashfind(fcb->dmpcb, segobs);
        if (!h) return 0;
        rctype rc = loadbm(fcb, h, bmp);
        if (rc < 0) return rc;
        hs_obsno_t segend = std::min<hs_obsno_t>(segobs + fcb->xoe.idxsegsize - 1, fcb->xoe.numobs);
        for (; obs <= segend; ++obs) {
            if (!bitset(bmp->bitmap, obs - segobs)) return 0;
            ++*delrun;
        }
    }
    return 0;
}

[[nodiscard]] rctype dadmfindbm(DA_FCB* fcb, hs_obsno_t* delobs, hs_obsno_t* delrun) {
    *delobs = 0;
    *delrun = 0;
    if (!fcb->dmpcb || fcb->xoe.numdelete == 0) return 0;
    DA_DMPBM* bmp = &fcb->dmpcb->bmap;
    // Segments in row order: the lowest segment that has a set bit.
    hs_obsno_t best = 0;
    for (int32_t i = 0; i < fcb->dmpcb->numht; ++i)
        for (DA_DMPHT* h = fcb->dmpcb->ht[i]; h; h = h->next) {
            if (best && h->ent.baseObs >= best) continue;
            rctype rc = loadbm(fcb, h, bmp);
            if (rc < 0) return rc;
            hs_obsno_t end = std::min<hs_obsno_t>(fcb->xoe.idxsegsize, fcb->xoe.numobs - h->ent.baseObs + 1);
            for (hs_obsno_t b = 0; b < end; ++b)
                if (bitset(bmp->bitmap, b)) {
                    if (!best || h->ent.baseObs + b < best) best = h->ent.baseObs + b;
                    break;
                }
        }
    if (!best) return 0;
    *delobs = best;
    return dadmdelrun(fcb, best, delrun);
}

[[nodiscard]] rctype dadmreset(DA_FCB* fcb, hs_obsno_t startobs, hs_obsno_t numobs) {
    if (!(fcb->xoe.flags & DA_ADDAVAIL)) return DA_BADARG;
    DA_DMPCB* d = fcb->dmpcb;
    DA_DMPBM* bmp = d ? &d->bmap : nullptr;
    for (hs_obsno_t obs = startobs; obs < startobs + numobs;) {
        hs_obsno_t segobs = segof(fcb, obs);
        DA_DMPHT* h = hashfind(d, segobs);
        if (!h) {
            hsprint("dadmreset: No delete bit map for obs = %lld on %s\n", static_cast<long long>(obs), fcb->name);
            assertfail(__LINE__);
            return DA_INTERNAL;
        }
        rctype rc = loadbm(fcb, h, bmp);
        if (rc < 0) return rc;
        hs_obsno_t segend = segobs + fcb->xoe.idxsegsize - 1;
        int64_t cleared = 0;
        for (; obs < startobs + numobs && obs <= segend; ++obs) {
            int64_t bit = obs - segobs;
            if (!bitset(bmp->bitmap, bit)) {
                hsprint("dadmreset: Delete bit not set for obs = %lld on %s\n", static_cast<long long>(obs), fcb->name);
                assertfail(__LINE__);
                return DA_INTERNAL;
            }
            bmp->bitmap[bit >> 5] &= ~(0x80000000u >> (bit & 31));
            ++cleared;
        }
        da_off_t off = bmp->offset;
        rc = wrraw(fcb, bmp->bitmap, bmp->bmsize, &off);
        if (rc < 0) return rc;
        h->seqno++;
        bmp->seqno = h->seqno;
        d->seqno++;
        fcb->xoe.numdelete -= cleared;
        fcb->flags |= DA_FCBXOE;
    }
    return 0;
}

// ---------------------------------------------------------------- views for index code

[[nodiscard]] rctype dareaddelmap(DA_DMP* dmap, hs_obsno_t segobs, uint32_t** bitmap, int32_t* bsize) {
    auto* p = static_cast<DA_DMPP*>(dmap);
    DA_FCB* fcb = p->fid->fcb;
    *bitmap = nullptr;
    *bsize = 0;
    DA_DMPHT* h = hashfind(fcb->dmpcb, segobs);
    if (!h) return 0;
    rctype rc = loadbm(fcb, h, &p->bm);
    if (rc < 0) return rc;
    *bitmap = p->bm.bitmap;
    *bsize = p->bm.bmsize;
    return 0;
}

[[nodiscard]] rctype dafreedelmap(DA_DMP* dmap) {
    auto* p = static_cast<DA_DMPP*>(dmap);
    if (p->fid->dmpCount > 0) p->fid->dmpCount--;
    free(p->bm.bitmap);
    free(p);
    return 0;
}

[[nodiscard]] rctype dagetdelmap(DA_FID* f, DA_DMP** newdmp) {
    auto* p = static_cast<DA_DMPP*>(calloc(1, sizeof(DA_DMPP)));
    if (!p) return DA_NOMEM;
    p->readdelmap = dareaddelmap;
    p->freedelmap = dafreedelmap;
    p->fid = fidpof(f);
    p->bm.offset = -1;
    p->fid->dmpCount++;
    *newdmp = p;
    return 0;
}

}  // namespace vrta

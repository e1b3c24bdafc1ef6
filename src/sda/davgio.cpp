// The cursor of tables stored in blocks through an exit. Fixed and variable
// block stores differ only in how a block is found, fetched and put; the
// row traffic (BlockSwap, WriteAll, ReadNormal, CopyBlock) is the same and
// lives here. The table's ioblk and newblk hold rows not yet on disk, so
// readers look there first, under the store's lock.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/daiocom.h"

namespace vrta {

int danormiom(int iom);

namespace {

void resetblk(DA_BLOCK* b) {
    b->vbn = DA_NOVBN;
    b->numobs = 0;
    b->dirty = 0;
    b->blockOffset = -1;
    b->blockobs = 0;
}

bool beyond(const DA_BKCB* bk, int64_t vbn) { return bk->maxvbn == DA_NOVBN || vbn > bk->maxvbn; }

[[nodiscard]] rctype putblk(DA_FCB* fcb, DA_BKCB* bk, DA_BLOCK* b) {
    // A new block whose first row starts a partition starts its file first,
    // so that the rows of the partition before are complete.
    int64_t pf = fcb->xoe.partfactor;
    if (pf > 0 && b->vbn > 0 && beyond(bk, b->vbn) && (b->vbn * bk->bf) % pf == 0 && b->numobs > 0) {
        rctype rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDNEWPART, nullptr);
        if (rc < 0) return rc;
    }
    rctype rc = bk->ops->putblock(fcb, b);
    if (rc < 0) return rc;
    if (beyond(bk, b->vbn)) bk->maxvbn = b->vbn;
    b->dirty = 0;
    return 0;
}

// A stored block decodes to whole rows: all bf of them but in the last block,
// and at least those of its rows that numobs counts. Anything else is a
// damaged offset or block whose bytes would be handed out as rows.
[[nodiscard]] rctype getblk(DA_FCB* fcb, DA_BKCB* bk, void* cur, int64_t vbn, char* out, int32_t* rawlen) {
    rctype rc = bk->ops->getblock(fcb, cur, vbn, out, bk->bf * bk->obslen, rawlen);
    if (rc != 0) return rc;
    int64_t rows = *rawlen / bk->obslen;
    int64_t first = vbn * bk->bf;
    int64_t want = std::min<int64_t>(bk->bf, std::max<int64_t>(0, fcb->xoe.numobs - first));
    bool last = first + bk->bf >= fcb->xoe.numobs;
    if (*rawlen % bk->obslen != 0 || rows < want || rows > bk->bf || (!last && rows != bk->bf)) {
        hsprint("GetBlock: Block does not decode to its rows: Member=%s VBN=%lld Rows=%lld Expected=%lld "
                "numobs=%lld Reason=%s\n",
                fcb->name, static_cast<long long>(vbn), static_cast<long long>(rows), static_cast<long long>(want),
                static_cast<long long>(fcb->xoe.numobs), hsstrer(DA_INTERNAL));
        return DA_INTERNAL;
    }
    return 0;
}

// The table's block holding vbn for writing; loads it or starts it.
[[nodiscard]] rctype blockswap(DA_FCB* fcb, DA_BKCB* bk, int64_t vbn, DA_BLOCK** out) {
    if (bk->ioblk.vbn == vbn) {
        *out = &bk->ioblk;
        return 0;
    }
    if (bk->newblk.vbn == vbn) {
        *out = &bk->newblk;
        return 0;
    }
    rctype rc = 0;
    if (beyond(bk, vbn)) {
        if (bk->newblk.dirty && bk->newblk.numobs > 0) rc = putblk(fcb, bk, &bk->newblk);
        if (rc < 0) return rc;
        resetblk(&bk->newblk);
        bk->newblk.vbn = vbn;
        bk->newblk.blockobs = vbn * bk->bf + 1;
        *out = &bk->newblk;
        return 0;
    }
    if (bk->ioblk.dirty && bk->ioblk.numobs > 0) rc = putblk(fcb, bk, &bk->ioblk);
    if (rc < 0) return rc;
    resetblk(&bk->ioblk);
    int32_t rawlen = 0;
    rc = getblk(fcb, bk, nullptr, vbn, bk->ioblk.blockbuf, &rawlen);
    if (rc != 0) return rc == DA_EOF ? DA_INTERNAL : rc;
    bk->ioblk.vbn = vbn;
    bk->ioblk.blockobs = vbn * bk->bf + 1;
    bk->ioblk.numobs = rawlen / bk->obslen;
    *out = &bk->ioblk;
    return 0;
}

struct DA_FIOCB : DA_GIOCB {
    DA_FCB* fcb;
    DA_BKCB* bk;
    void* cur;              // the store's per-cursor state
    void (*freecur)(void*);
    int mode;
    char* blockbuf;         // a block not wholly wanted by the caller
    int64_t bbvbn;
    int32_t bbnum;
    uint64_t bbgen;
    hs_obsno_t refobs;      // refill: next row of the free block in use
    hs_obsno_t refrun;      // its deleted rows left
};

uint64_t& gen(DA_BKCB* bk) { return bk->gen; }

// Rows [obs, obs+n) into out, block by block.
[[nodiscard]] rctype readrange(DA_FIOCB* c, hs_obsno_t obs, long n, char* out) {
    DA_BKCB* bk = c->bk;
    DA_FCB* fcb = c->fcb;
    const int32_t bf = bk->bf, ol = bk->obslen;
    while (n > 0) {
        int64_t vbn = (obs - 1) / bf;
        long off = static_cast<long>(obs - (vbn * bf + 1));
        long k = 0;
        rctype rc = 0;
        mutex_lock(&bk->lock);
        DA_BLOCK* b = nullptr;
        if (bk->ioblk.vbn == vbn && bk->ioblk.numobs > 0) b = &bk->ioblk;
        else if (bk->newblk.vbn == vbn && bk->newblk.numobs > 0) b = &bk->newblk;
        if (b) {
            k = std::min<long>(n, b->numobs - off);
            if (k > 0) memcpy(out, b->blockbuf + off * ol, k * ol);
        } else if (c->bbvbn == vbn && c->bbgen == gen(bk)) {
            k = std::min<long>(n, c->bbnum - off);
            if (k > 0) memcpy(out, c->blockbuf + off * ol, k * ol);
        } else if (off == 0 && n >= bf) {
            // The caller takes the whole block: unconvert straight into its buffer.
            int32_t rawlen = 0;
            rc = getblk(fcb, bk, c->cur, vbn, out, &rawlen);
            k = std::min<long>(n, rawlen / ol);
        } else {
            if (!c->blockbuf) c->blockbuf = static_cast<char*>(malloc(static_cast<size_t>(bf) * ol + 16));
            if (!c->blockbuf) rc = DA_NOMEM;
            int32_t rawlen = 0;
            if (rc == 0) rc = getblk(fcb, bk, c->cur, vbn, c->blockbuf, &rawlen);
            if (rc == 0) {
                c->bbvbn = vbn;
                c->bbnum = rawlen / ol;
                c->bbgen = gen(bk);
                k = std::min<long>(n, c->bbnum - off);
                if (k > 0) memcpy(out, c->blockbuf + off * ol, k * ol);
            }
        }
        mutex_unlock(&bk->lock);
        if (rc < 0) return rc;
        if (rc == DA_EOF || k <= 0) {
            // numobs covers rows the store cannot give: the table is damaged.
            hsprint("CopyBlock: DS=%s vbn=%lld curobs=%lld blockobs=%lld numobs=%d\n", fcb->name,
                    static_cast<long long>(vbn), static_cast<long long>(obs),
                    static_cast<long long>(vbn * bf + 1), static_cast<int>(k));
            return DA_INTERNAL;
        }
        obs += k;
        n -= k;
        out += k * ol;
    }
    return 0;
}

[[nodiscard]] rctype bkread(DA_FIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    hs_obsno_t numobs = fcb->xoe.numobs;
    auto rd = [c](hs_obsno_t obs, long n, char* out) { return readrange(c, obs, n, out); };
    if (!daskipdel(fcb, c->iom)) return dareadall(c, iob, numobs, rd);
    return dareadlive(c, fcb, iob, c->bk->obslen, numobs, [&rd](hs_obsno_t obs, long n, char* out, long* rows) {
        *rows = n;
        return rd(obs, n, out);
    });
}

// WriteAll: rows at obs (at most numobs + 1) into their blocks.
[[nodiscard]] rctype writerange(DA_FIOCB* c, hs_obsno_t obs, long n, const char* p) {
    DA_BKCB* bk = c->bk;
    DA_FCB* fcb = c->fcb;
    const int32_t bf = bk->bf, ol = bk->obslen;
    rctype rc = 0;
    mutex_lock(&bk->lock);
    while (n > 0 && rc == 0) {
        if (obs > fcb->xoe.numobs + 1) {
            rc = DA_PASTEND;
            break;
        }
        int64_t vbn = (obs - 1) / bf;
        hs_obsno_t blockobs = vbn * bf + 1;
        long off = static_cast<long>(obs - blockobs);
        long k = std::min<long>(n, bf - off);
        if (fcb->xoe.flags & DA_XOEVSTAT) dalckvars(fcb, p, k);
        gen(bk)++;
        if (off == 0 && n >= bf && beyond(bk, vbn) && bk->newblk.numobs == 0 && bk->ioblk.vbn != vbn) {
            // A whole new block from the caller's buffer: converted from there.
            DA_BLOCK t{};
            t.blockOffset = -1;
            t.blockbuf = const_cast<char*>(p);
            t.vbn = vbn;
            t.blockobs = blockobs;
            t.numobs = bf;
            t.dirty = 1;
            rc = putblk(fcb, bk, &t);
            if (rc < 0) break;
            if (bk->newblk.vbn == vbn) resetblk(&bk->newblk);
            k = bf;
        } else {
            DA_BLOCK* b = nullptr;
            rc = blockswap(fcb, bk, vbn, &b);
            if (rc < 0) break;
            if (off > b->numobs) {
                hsprint("WriteAll: DS=%s vbn=%lld curobs=%lld blockobs=%lld numobs=%d\n", fcb->name,
                        static_cast<long long>(vbn), static_cast<long long>(obs), static_cast<long long>(blockobs),
                        b->numobs);
                rc = DA_INTERNAL;
                break;
            }
            memcpy(b->blockbuf + off * ol, p, k * ol);
            b->dirty = 1;
            b->numobs = std::max<int32_t>(b->numobs, static_cast<int32_t>(off + k));
            if (b->numobs >= bf) {
                rc = putblk(fcb, bk, b);
                if (rc < 0) break;
                if (b == &bk->newblk) resetblk(&bk->newblk);
            }
        }
        obs += k;
        n -= k;
        p += k * ol;
        dacoverobs(fcb, obs - 1);
    }
    mutex_unlock(&bk->lock);
    return rc;
}

// CheckFreeBlock: the first block whose rows are deleted from its first row
// on, all of them or up to numobs in the last block.
[[nodiscard]] rctype checkfree(DA_FCB* fcb, int32_t bf, int64_t* found, hs_obsno_t* run) {
    *found = DA_NOVBN;
    *run = 0;
    hs_obsno_t numobs = fcb->xoe.numobs;
    int64_t maxv = numobs < 1 ? -1 : (numobs - 1) / bf;
    for (int64_t b = 0; b <= maxv; ++b) {
        hs_obsno_t first = b * bf + 1, r = 0;
        rctype rc = dadmdelrun(fcb, first, &r);
        if (rc < 0) return rc;
        if (r >= bf || (r > 0 && first + r - 1 == numobs)) {
            *found = b;
            *run = std::min<hs_obsno_t>(r, bf);
            return 0;
        }
    }
    return 0;
}

// WriteDelete: rows go into wholly deleted blocks first, then to the end.
[[nodiscard]] rctype writedelete(DA_FIOCB* c, DA_IOB* iob) {
    DA_FCB* fcb = c->fcb;
    const int32_t bf = c->bk->bf;
    // checkfree leaves the run 0 when no block is free.
    auto find = [fcb, bf](hs_obsno_t* refobs, hs_obsno_t* refrun) {
        int64_t b = DA_NOVBN;
        rctype rc = checkfree(fcb, bf, &b, refrun);
        if (rc == 0 && b != DA_NOVBN) *refobs = b * bf + 1;
        return rc;
    };
    return darefillrows(c, fcb, iob, c->bk->obslen, &c->refobs, &c->refrun, find,
                        [c](hs_obsno_t obs, long n, const char* p) { return writerange(c, obs, n, p); });
}

[[nodiscard]] rctype bkreadv(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_FIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec || c->obsperbuf <= 0) return DA_BADARG;
    DA_UPDLK lk(c->fcb, false, daupdmode(c->mode) && !(c->iom & DA_IOMSHARELK));
    return dareadbufs(c, c->fcb, numbuf, [c](DA_IOB* iob) { return bkread(c, iob); });
}

[[nodiscard]] rctype bkwritev(DA_IOCB* ic, int numbuf) {
    auto* c = static_cast<DA_FIOCB*>(ic);
    if (numbuf <= 0 || numbuf > c->numbuf || !c->iobvec) return DA_BADARG;
    DA_UPDLK lk(c->fcb, true, !(c->iom & DA_IOMSHARELK));
    return dawritebufs(
        c, c->fcb, c->mode, numbuf, [c](hs_obsno_t obs, long n, const char* p) { return writerange(c, obs, n, p); },
        [c](DA_IOB* iob) { return writedelete(c, iob); });
}

[[nodiscard]] rctype bksbuf(DA_IOCB* c, DA_IOB* iobvec, long bufsize) {
    DA_FID* fp = c->fp;
    int32_t reclen = fp->xoehdr->ioreclen;
    if (fp->blocksize <= 0 || reclen <= 0 || bufsize <= 0 || !iobvec) return DA_BADARG;
    long unit = dabyrow(c) ? reclen : fp->blocksize;
    if (bufsize % unit != 0) return DA_BADARG;
    dausebufs(c, iobvec, 0x7fffffff, bufsize);
    return 0;
}

[[nodiscard]] rctype bkfree(DA_IOCB* ic) {
    auto* c = static_cast<DA_FIOCB*>(ic);
    if (c->freecur) {
        mutex_lock(&c->bk->lock);
        c->freecur(c->cur);
        mutex_unlock(&c->bk->lock);
    }
    free(c->blockbuf);
    dadropiocb(c);
    return 0;
}

const DA_IOCBMT mt_read = {bkfree, bkreadv, danoval, dasetloc, bksbuf};
const DA_IOCBMT mt_write = {bkfree, bkreadv, bkwritev, dasetloc, bksbuf};

}  // namespace

[[nodiscard]] rctype dabkinit(DA_FCB* fcb, DA_BKCB* bk, const DA_BKOPS* ops) {
    mutex_init(&bk->lock, USYNC_THREAD, nullptr);
    bk->ops = ops;
    bk->maxvbn = DA_NOVBN;
    resetblk(&bk->ioblk);
    resetblk(&bk->newblk);
    bk->bf = fcb->xoe.blockfactor;
    bk->obslen = fcb->xoe.obslen;
    return 0;
}

// Block buffers wait for the table's row length: a create knows it only
// after the columns are defined.
[[nodiscard]] static rctype bkbufs(DA_FCB* fcb, DA_BKCB* bk) {
    if (bk->ioblk.blockbuf) return 0;
    bk->bf = fcb->xoe.blockfactor;
    bk->obslen = fcb->xoe.obslen;
    if (bk->bf <= 0 || bk->obslen <= 0) return DA_INTERNAL;
    size_t sz = static_cast<size_t>(bk->bf) * bk->obslen + 16;
    bk->ioblk.blockbuf = static_cast<char*>(malloc(sz));
    bk->newblk.blockbuf = static_cast<char*>(malloc(sz));
    if (!bk->ioblk.blockbuf || !bk->newblk.blockbuf) return DA_NOMEM;
    return 0;
}

void dabkfree(DA_BKCB* bk) {
    free(bk->ioblk.blockbuf);
    free(bk->newblk.blockbuf);
    bk->ioblk.blockbuf = bk->newblk.blockbuf = nullptr;
    mutex_destroy(&bk->lock);
}

void dabkstale(DA_BKCB* bk) {
    bk->ioblk.vbn = DA_NOVBN;
    bk->ioblk.numobs = 0;
    bk->newblk.vbn = DA_NOVBN;
    bk->newblk.numobs = 0;
    bk->gen++;
}

[[nodiscard]] rctype dabkflush(DA_FCB* fcb, DA_BKCB* bk, const char* who) {
    rctype rc = 0;
    if (bk->ioblk.dirty && bk->ioblk.numobs > 0) {
        rc = putblk(fcb, bk, &bk->ioblk);
        if (rc < 0) {
            hsprint("%s: Unable to flush block on %s: Reason=%s\n", who, fcb->name, hsstrer(rc));
            return rc;
        }
    }
    if (bk->newblk.dirty && bk->newblk.numobs > 0) {
        rc = putblk(fcb, bk, &bk->newblk);
        if (rc < 0) {
            hsprint("%s: Unable to flush new block on %s: Reason=%s\n", who, fcb->name, hsstrer(rc));
            return rc;
        }
    }
    return 0;
}

[[nodiscard]] rctype dabkgioc(DA_FID* fp, int iom, DA_BKCB* bk, void* cur, void (*freecur)(void*), DA_IOCB** iocb) {
    DA_FIDP* f = fidpof(fp);
    DA_FCB* fcb = f->fcb;
    iom = danormiom(iom);
    // Blocks are not laid out as rows in the file: nothing to map.
    if (iom & DA_IOMMAPPED) return DA_BADARG;
    if ((iom & DA_IOMSHARELK) && !daupdmode(f->mode)) return DA_BADARG;
    mutex_lock(&bk->lock);
    rctype rc = bkbufs(fcb, bk);
    mutex_unlock(&bk->lock);
    if (rc < 0) return rc;
    auto* c = static_cast<DA_FIOCB*>(calloc(1, sizeof(DA_FIOCB)));
    if (!c) return DA_NOMEM;
    c->bmp = dadmnewbm(fcb);
    if (!c->bmp) {
        free(c);
        return DA_NOMEM;
    }
    c->fp = fp;
    c->fcb = fcb;
    c->bk = bk;
    c->cur = cur;
    c->freecur = freecur;
    c->mode = f->mode;
    c->iom = darefilliom(fcb, iom);
    c->bfi = -1;
    c->bbvbn = DA_NOVBN;
    c->mt = f->mode != DA_OMINPUT ? &mt_write : &mt_read;
    dastartpos(c, f->mode, fcb->xoe.numobs);
    *iocb = c;
    return 0;
}

}  // namespace vrta

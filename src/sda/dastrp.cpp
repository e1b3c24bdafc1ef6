// The string pool of a table: names, labels, formats and statistics live in
// 4096-byte sections appended to the MDF, found through one head record whose
// offset vector doubles when full.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

namespace {

constexpr int32_t SECT = DA_STRPSECTSIZE;

void assertfail(int line) { hsprint("Assertion failed: %s/%d\n", "sda/src/dastrpool", line); }

int32_t round8(int32_t n) { return (n + 7) & ~7; }

DA_STRPHOLE* holeat(DA_STRP* s, int32_t off) { return reinterpret_cast<DA_STRPHOLE*>(s->pool + off); }

[[nodiscard]] rctype rdphys(DA_FD* fd, void* buf, long size, da_off_t off) {
    long got = 0;
    rctype rc = fd->fdread(fd, buf, size, off, &got);
    if (rc == DA_EOF || (rc >= 0 && got != size)) return DA_INTERNAL;
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype wrphys(DA_FD* fd, const void* buf, long size, da_off_t* off) {
    if (da_writehook) da_writehook("strp");
    return fd->fdwrite(fd, buf, size, off);
}

// Room for n sections in the contiguous section memory.
[[nodiscard]] rctype ensuresects(DA_STRPHDL* h, int32_t n) {
    if (n <= h->allocsects) return 0;
    int32_t na = h->allocsects ? h->allocsects : 4;
    while (na < n) na *= 2;
    void* p = realloc(h->strpmem, static_cast<size_t>(na) * sizeof(DA_STRP));
    if (!p) return DA_NOMEM;
    h->strpmem = static_cast<DA_STRP*>(p);
    h->allocsects = na;
    return 0;
}

[[nodiscard]] rctype writehead(DA_STRPHDL* h) {
    da_off_t off = h->offset;
    return wrphys(h->mdfd, h->phd, h->phd->ods.length, &off);
}

// The offset vector is full: a head twice the size goes to the end of the MDF.
[[nodiscard]] rctype ResizeHeader(DA_STRPHDL* h) {
    int32_t nn = h->phd->numoffsets * 2;
    auto* nh = static_cast<DA_STRPHEAD*>(malloc(dastrphlen(nn)));
    if (!nh) return DA_NOMEM;
    dainitstrph(nh, nn);
    nh->numsects = h->phd->numsects;
    memcpy(dastrpoffs(nh), dastrpoffs(h->phd), 8 * static_cast<size_t>(h->phd->numoffsets));
    da_off_t off = -1;
    rctype rc = wrphys(h->mdfd, nh, nh->ods.length, &off);
    if (rc < 0) {
        free(nh);
        return rc;
    }
    free(h->phd);
    h->phd = nh;
    h->phdlen = nh->ods.length;
    h->offset = off;
    if (h->movedCallback) h->movedCallback(h->closure, off);
    return 0;
}

// A new section holding one allocation of size at its front; the rest is one hole.
[[nodiscard]] rctype GrowPool(DA_STRPHDL* h, int32_t size, int32_t* opid, void** opmem) {
    if (h->phd->numsects == h->phd->numoffsets) {
        rctype rc = ResizeHeader(h);
        if (rc < 0) return rc;
    }
    int32_t n = h->phd->numsects;
    rctype rc = ensuresects(h, n + 1);
    if (rc < 0) return rc;
    DA_STRP* s = &h->strpmem[n];
    memset(s, 0, sizeof *s);
    s->freeSpace = SECT - size;
    if (s->freeSpace >= 8) {
        s->freeOffset = size;
        holeat(s, size)->nextHole = -1;
        holeat(s, size)->hsize = s->freeSpace;
    } else {
        s->freeOffset = -1;
        s->freeSpace = 0;
    }
    da_off_t off = -1;
    rc = wrphys(h->mdfd, s, sizeof *s, &off);
    if (rc < 0) return rc;
    dastrpoffs(h->phd)[n] = off;
    h->phd->numsects = n + 1;
    rc = writehead(h);
    if (rc < 0) return rc;
    // The caller fills the string after this; the section goes out again at flush.
    s->flags |= 1;
    h->flags |= 1;
    *opid = (n << 12) | 0;
    if (opmem) *opmem = s->pool;
    return 0;
}

// Takes size bytes from the front of the hole at off (prev is the hole
// before it, or -1).
void AdjustHole(DA_STRP* s, int32_t prev, int32_t off, int32_t size) {
    DA_STRPHOLE hole = *holeat(s, off);
    int32_t rest = hole.hsize - size;
    int32_t next;
    if (rest == 0) {
        next = hole.nextHole;
    } else {
        if (rest < 8) assertfail(__LINE__);
        next = off + size;
        holeat(s, next)->nextHole = hole.nextHole;
        holeat(s, next)->hsize = rest;
    }
    if (prev < 0) s->freeOffset = next;
    else holeat(s, prev)->nextHole = next;
    s->freeSpace -= size;
    s->flags |= 1;
}

// Best fit in one section: the hole with least waste, stopping early at a
// waste under 8. *prev gets the hole before it.
int32_t FindHole(DA_STRP* s, int32_t size, int32_t* prevout, int32_t* waste) {
    int32_t best = -1, bestprev = -1, bestwaste = SECT + 1;
    int32_t prev = -1;
    int guard = 0;
    for (int32_t h = s->freeOffset; h >= 0 && h < SECT && guard < SECT / 8; h = holeat(s, h)->nextHole, ++guard) {
        int32_t hs = holeat(s, h)->hsize;
        int32_t w = hs - size;
        // A remainder under 8 could not hold a hole; such a fit must be exact.
        if (w >= 0 && (w == 0 || w >= 8) && w < bestwaste) {
            best = h;
            bestprev = prev;
            bestwaste = w;
            if (w < 8) break;
        }
        prev = h;
    }
    *prevout = bestprev;
    *waste = bestwaste;
    return best;
}

void FreeHole(DA_STRP* s, int32_t off, int32_t size) {
    int32_t prev = -1, next = s->freeOffset;
    while (next >= 0 && next < off) {
        prev = next;
        next = holeat(s, next)->nextHole;
    }
    DA_STRPHOLE* h = holeat(s, off);
    h->hsize = size;
    h->nextHole = next;
    if (next >= 0 && off + size == next) {
        h->hsize += holeat(s, next)->hsize;
        h->nextHole = holeat(s, next)->nextHole;
    }
    if (prev >= 0) {
        DA_STRPHOLE* p = holeat(s, prev);
        if (prev + p->hsize == off) {
            p->hsize += h->hsize;
            p->nextHole = h->nextHole;
        } else {
            p->nextHole = off;
        }
    } else {
        s->freeOffset = off;
    }
    s->freeSpace += size;
    s->flags = (s->flags | 1) & ~2;
}

[[nodiscard]] rctype ReadHeader(DA_FD* mdfd, da_off_t offset, DA_STRPHEAD** out) {
    DA_STRPHEAD fixed;
    rctype rc = rdphys(mdfd, &fixed, sizeof fixed, offset);
    if (rc < 0) return rc;
    if (fixed.ods.version != DA_STRPHEAD_VER) return DA_BADVERSION;
    if (fixed.numoffsets < 1 || fixed.numoffsets > (1 << 24) || fixed.numsects < 0 ||
        fixed.numsects > fixed.numoffsets || fixed.sectsize != SECT || fixed.odssize != DA_STRPODSSIZE)
        return DA_INTERNAL;
    int32_t len = dastrphlen(fixed.numoffsets);
    auto* h = static_cast<DA_STRPHEAD*>(malloc(len));
    if (!h) return DA_NOMEM;
    DA_ODSIO io{[](void* ctx, void* buf, long size, da_off_t off, long* nread) {
                    auto* fd = static_cast<DA_FD*>(ctx);
                    return fd->fdread(fd, buf, size, off, nread);
                },
                nullptr, mdfd, "mdf"};
    rc = dardstrph(io, h, len, offset);
    if (rc < 0) {
        free(h);
        return rc;
    }
    *out = h;
    return 0;
}

[[nodiscard]] rctype loadsects(DA_STRPHDL* h) {
    rctype rc = ensuresects(h, h->phd->numsects > 0 ? h->phd->numsects : 1);
    if (rc < 0) return rc;
    for (int32_t i = 0; i < h->phd->numsects; ++i) {
        rc = rdphys(h->mdfd, &h->strpmem[i], sizeof(DA_STRP), dastrpoffs(h->phd)[i]);
        if (rc < 0) return rc;
        h->strpmem[i].flags = 0;
    }
    return 0;
}

bool splitid(DA_STRPHDL* h, int32_t id, int32_t len, int32_t* sect, int32_t* off) {
    *sect = id >> 12;
    *off = id & 0xfff;
    return id >= 0 && *sect < h->phd->numsects && len >= 0 && *off + len <= SECT;
}

}  // namespace

[[nodiscard]] rctype dastrpini(DA_FD* mdfd, da_strpmoved_t movecb, void* closure, DA_STRPHDL** rphdl) {
    auto* h = static_cast<DA_STRPHDL*>(calloc(1, sizeof(DA_STRPHDL)));
    if (!h) return DA_NOMEM;
    h->mdfd = mdfd;
    h->movedCallback = movecb;
    h->closure = closure;
    h->phd = static_cast<DA_STRPHEAD*>(malloc(dastrphlen(8)));
    if (!h->phd) {
        free(h);
        return DA_NOMEM;
    }
    dainitstrph(h->phd, 8);
    h->phdlen = h->phd->ods.length;
    h->offset = -1;
    rctype rc = wrphys(mdfd, h->phd, h->phdlen, &h->offset);
    if (rc < 0) {
        daignore(dafrstrp(h));
        return rc;
    }
    *rphdl = h;
    return 0;
}

[[nodiscard]] rctype dastrpld(DA_FD* mdfd, da_off_t offset, da_strpmoved_t movecb, void* closure, DA_STRPHDL** rphdl) {
    auto* h = static_cast<DA_STRPHDL*>(calloc(1, sizeof(DA_STRPHDL)));
    if (!h) return DA_NOMEM;
    h->mdfd = mdfd;
    h->movedCallback = movecb;
    h->closure = closure;
    h->offset = offset;
    rctype rc = ReadHeader(mdfd, offset, &h->phd);
    if (rc == 0) {
        h->phdlen = h->phd->ods.length;
        rc = loadsects(h);
    }
    if (rc < 0) {
        daignore(dafrstrp(h));
        return rc;
    }
    *rphdl = h;
    return 0;
}

[[nodiscard]] rctype dafrstrp(DA_STRPHDL* phdl) {
    if (!phdl) return 0;
    free(phdl->phd);
    free(phdl->strpmem);
    free(phdl);
    return 0;
}

void* dastrpaddr(DA_STRPHDL* phdl, int32_t id, int32_t len) {
    int32_t s, o;
    if (!phdl || !splitid(phdl, id, len, &s, &o)) return nullptr;
    return phdl->strpmem[s].pool + o;
}

[[nodiscard]] rctype dastrpalloc(DA_STRPHDL* phdl, int32_t size, int32_t* opid, void** opmem) {
    if (size <= 0 || size > SECT) return DA_BADARG;
    size = round8(size);
    int32_t n = phdl->phd->numsects;
    if (n > 0) {
        DA_STRP* s = &phdl->strpmem[n - 1];
        if (s->freeSpace >= size && s->freeOffset >= 0 && holeat(s, s->freeOffset)->hsize >= size) {
            int32_t off = s->freeOffset;
            DA_STRPHOLE hole = *holeat(s, off);
            int32_t rest = hole.hsize - size;
            if (rest < 8) {
                // The bytes left over are too few for a hole and are lost.
                s->freeOffset = hole.nextHole;
                s->freeSpace -= hole.hsize;
                if (s->freeOffset < 0) s->freeSpace = 0;
            } else {
                s->freeOffset = off + size;
                holeat(s, off + size)->nextHole = hole.nextHole;
                holeat(s, off + size)->hsize = rest;
                s->freeSpace -= size;
            }
            s->flags |= 1;
            phdl->flags |= 1;
            *opid = ((n - 1) << 12) | off;
            if (opmem) *opmem = s->pool + off;
            return 0;
        }
    }
    return GrowPool(phdl, size, opid, opmem);
}

[[nodiscard]] rctype dastrpalloc2(DA_STRPHDL* phdl, int32_t size, int32_t* opid, void** opmem) {
    if (size <= 0 || size > SECT) return DA_BADARG;
    size = round8(size);
    int32_t bests = -1, bestoff = -1, bestprev = -1, bestwaste = SECT + 1;
    for (int32_t i = 0; i < phdl->phd->numsects && bestwaste >= 8; ++i) {
        DA_STRP* s = &phdl->strpmem[i];
        if (s->freeSpace < size) continue;
        int32_t prev, waste;
        int32_t off = FindHole(s, size, &prev, &waste);
        if (off >= 0 && waste < bestwaste) {
            bests = i;
            bestoff = off;
            bestprev = prev;
            bestwaste = waste;
        }
    }
    if (bests < 0) return GrowPool(phdl, size, opid, opmem);
    DA_STRP* s = &phdl->strpmem[bests];
    AdjustHole(s, bestprev, bestoff, size);
    phdl->flags |= 1;
    *opid = (bests << 12) | bestoff;
    if (opmem) *opmem = s->pool + bestoff;
    return 0;
}

[[nodiscard]] rctype dastrpfree(DA_STRPHDL* phdl, int32_t id, int32_t size) {
    size = round8(size);
    int32_t s, o;
    if (size <= 0 || !splitid(phdl, id, size, &s, &o) || (o & 7)) return DA_BADARG;
    FreeHole(&phdl->strpmem[s], o, size);
    phdl->flags |= 1;
    return 0;
}

[[nodiscard]] rctype daflstrp(DA_STRPHDL* phdl) {
    if (!phdl || !(phdl->flags & 1)) return 0;
    for (int32_t i = 0; i < phdl->phd->numsects; ++i) {
        DA_STRP* s = &phdl->strpmem[i];
        if (!(s->flags & 1)) continue;
        da_off_t off = dastrpoffs(phdl->phd)[i];
        s->flags &= ~1;
        rctype rc = wrphys(phdl->mdfd, s, sizeof *s, &off);
        if (rc < 0) {
            s->flags |= 1;
            return rc;
        }
    }
    rctype rc = writehead(phdl);
    if (rc < 0) return rc;
    phdl->flags &= ~1;
    return 0;
}

// Replaces a value that other processes may be reading: the head and sections
// are read fresh, and only the sections touched are written.
[[nodiscard]] rctype dastrprep(DA_STRPHDL* phdl, int32_t oldid, int32_t oldlen, const void* newstr, int32_t newlen,
                 int32_t* newid) {
    if (phdl->flags & 1) {
        assertfail(__LINE__);
        return DA_INTERNAL;
    }
    if (newlen <= 0 || newlen > SECT) return DA_BADARG;
    DA_STRPHEAD* fresh = nullptr;
    rctype rc = ReadHeader(phdl->mdfd, phdl->offset, &fresh);
    if (rc < 0) return rc;
    free(phdl->phd);
    phdl->phd = fresh;
    phdl->phdlen = fresh->ods.length;
    rc = loadsects(phdl);
    if (rc < 0) return rc;
    int32_t s, o;
    if (oldid >= 0 && oldlen > 0 && splitid(phdl, oldid, oldlen, &s, &o) && round8(oldlen) == round8(newlen)) {
        memcpy(phdl->strpmem[s].pool + o, newstr, newlen);
        phdl->strpmem[s].flags |= 1;
        *newid = oldid;
    } else {
        if (oldid >= 0 && oldlen > 0) {
            rc = dastrpfree(phdl, oldid, oldlen);
            if (rc < 0) return rc;
        }
        void* mem = nullptr;
        rc = dastrpalloc2(phdl, newlen, newid, &mem);
        if (rc < 0) return rc;
        memcpy(mem, newstr, newlen);
        int32_t ns, no;
        splitid(phdl, *newid, newlen, &ns, &no);
        phdl->strpmem[ns].flags |= 1;
    }
    phdl->flags |= 1;
    return daflstrp(phdl);
}

}  // namespace vrta

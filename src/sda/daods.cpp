// Readers and writers of the on-disk records of a table.
#include "sda/daods.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "hs/hs.h"
#include "sda/darc.h"
#include "sda/dafd.h"

namespace vrta {

namespace {

[[nodiscard]] rctype pfdread(void* ctx, void* buf, long size, da_off_t offset, long* nread) {
    int fd = *static_cast<int*>(ctx);
    *nread = 0;
    if (offset < 0) return DA_BADOFFSET;
    rctype rc = dapreadall(fd, buf, size, offset, nread);
    if (rc == DA_SHORTREAD) rc = 0;
    if (rc < 0) return rc;
    return (*nread == 0 && size > 0) ? DA_EOF : 0;
}

[[nodiscard]] rctype pfdwrite(void* ctx, const void* buf, long size, da_off_t* off) {
    int fd = *static_cast<int*>(ctx);
    da_off_t at = *off;
    if (at < 0) {
        off_t end = _UIODT->lseek(fd, 0, SEEK_END);
        if (end < 0) return DA_SYSERR;
        at = end;
    }
    rctype rc = dapwriteall(fd, buf, size, at);
    if (rc < 0) return rc;
    *off = at;
    return 0;
}

const char* ioname(const DA_ODSIO& io) { return io.name ? io.name : "?"; }

// Reads exactly size bytes; anything less is a short read.
[[nodiscard]] rctype readall(const DA_ODSIO& io, const char* fn, void* buf, long size, da_off_t offset) {
    long got = 0;
    rctype rc = io.read(io.ctx, buf, size, offset, &got);
    if (rc == DA_EOF || (rc == 0 && got < size)) rc = DA_SHORTREAD;
    if (rc < 0)
        hsprint("%s: Read failed: File=%s Offset=%lld Size=%ld Read=%ld Reason=%s\n", fn, ioname(io),
                static_cast<long long>(offset), size, got, hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype badversion(const DA_ODSIO& io, const char* fn, da_off_t offset, int32_t version) {
    hsprint("%s: Version not understood: File=%s Offset=%lld Version=0x%8.8x Reason=%s\n", fn, ioname(io),
            static_cast<long long>(offset), static_cast<unsigned>(version), hsstrer(DA_BADVERSION));
    return DA_BADVERSION;
}

[[nodiscard]] rctype inconsistent(const DA_ODSIO& io, const char* fn, da_off_t offset, const char* what) {
    hsprint("%s: %s: File=%s Offset=%lld Reason=%s\n", fn, what, ioname(io), static_cast<long long>(offset),
            hsstrer(DA_INTERNAL));
    return DA_INTERNAL;
}

[[nodiscard]] rctype readods(const DA_ODSIO& io, const char* fn, void* strptr, int size, da_off_t offset) {
    DA_ODSHEAD head;
    rctype rc = readall(io, fn, &head, sizeof head, offset);
    if (rc < 0) return rc;
    if (head.length > size) {
        hsprint("%s: Record longer than buffer: File=%s Offset=%lld Length=%d Size=%d Reason=%s\n", fn,
                ioname(io), static_cast<long long>(offset), head.length, size, hsstrer(DA_TOOLONG));
        return DA_TOOLONG;
    }
    if (head.length < static_cast<int32_t>(sizeof head)) return inconsistent(io, fn, offset, "Bad record length");
    // Only length bytes: a shorter record leaves the reader's tail as it was.
    return readall(io, fn, strptr, head.length, offset);
}

// Current records share the major byte 4; anything else is another format.
[[nodiscard]] rctype readv4(const DA_ODSIO& io, const char* fn, void* r, int size, da_off_t offset) {
    rctype rc = readods(io, fn, r, size, offset);
    if (rc < 0) return rc;
    int32_t v = static_cast<DA_ODSHEAD*>(r)->version;
    if ((static_cast<uint32_t>(v) >> 24) != 4) return badversion(io, fn, offset, v);
    return rc;
}

}  // namespace

DA_ODSIO daodspfd(int* fd, const char* name) { return DA_ODSIO{pfdread, pfdwrite, fd, name}; }

namespace {
[[nodiscard]] rctype lfdread(void* ctx, void* buf, long size, da_off_t offset, long* nread) {
    auto* fd = static_cast<DA_FD*>(ctx);
    return fd->fdread(fd, buf, size, offset, nread);
}
[[nodiscard]] rctype lfdwrite(void* ctx, const void* buf, long size, da_off_t* off) {
    auto* fd = static_cast<DA_FD*>(ctx);
    return fd->fdwrite(fd, buf, size, off);
}
}  // namespace

DA_ODSIO daodsfd(DA_FD* fd, const char* name) { return DA_ODSIO{lfdread, lfdwrite, fd, name ? name : "mdf"}; }

// Diagnostics name the first partition of the logical file.
struct FdName {
    DA_FDPSTAT ps;
    explicit FdName(DA_FD* fd) {
        if (!fd->fdpstat || fd->fdpstat(fd, 0, &ps) < 0) std::snprintf(ps.name, sizeof ps.name, "mdf");
    }
};

[[nodiscard]] rctype dardods(DA_FD* fd, void* strptr, int size, da_off_t offset) {
    FdName n(fd);
    return dardods(daodsfd(fd, n.ps.name), strptr, size, offset);
}
[[nodiscard]] rctype dawrods(DA_FD* fd, const void* strptr, da_off_t* off) {
    FdName n(fd);
    return dawrods(daodsfd(fd, n.ps.name), strptr, off);
}
[[nodiscard]] rctype dardxoe(DA_FD* fd, DA_XOEODS* xoe, da_off_t offset) {
    FdName n(fd);
    return dardxoe(daodsfd(fd, n.ps.name), xoe, offset);
}
[[nodiscard]] rctype dawrxoe(DA_FD* fd, const DA_XOEODS* xoe, da_off_t offset) {
    FdName n(fd);
    return dawrxoe(daodsfd(fd, n.ps.name), xoe, offset);
}

[[nodiscard]] rctype dardods(const DA_ODSIO& io, void* strptr, int size, da_off_t offset) {
    return readods(io, "dardods", strptr, size, offset);
}

[[nodiscard]] rctype dawrods(const DA_ODSIO& io, const void* strptr, da_off_t* off) {
    const DA_ODSHEAD* h = static_cast<const DA_ODSHEAD*>(strptr);
    if (h->length < static_cast<int32_t>(sizeof *h)) return DA_BADARG;
    rctype rc = io.write(io.ctx, strptr, h->length, off);
    if (rc < 0)
        hsprint("dawrods: Write failed: File=%s Offset=%lld Length=%d Reason=%s\n", ioname(io),
                static_cast<long long>(*off), h->length, hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype dardsfh(const DA_ODSIO& io, DA_DSFHEAD* h, da_off_t offset) {
    rctype rc = readods(io, "dardsfh", h, sizeof *h, offset);
    if (rc < 0) return rc;
    uint32_t v = static_cast<uint32_t>(h->ods.version);
    if ((v >> 16) > 0x0401 || (v >> 24) != 4) return badversion(io, "dardsfh", offset, h->ods.version);
    return 0;
}

[[nodiscard]] rctype dardxoe(const DA_ODSIO& io, DA_XOEODS* xoe, da_off_t offset) {
    rctype rc = readv4(io, "dardxoe", xoe, sizeof *xoe, offset);
    if (rc < 0) return rc;
    if (xoe->semtype < 0 || xoe->semtype >= DA_SEMMAX) {
        hsprint("dardxoe: Unknown semtype %d: File=%s Reason=%s\n", xoe->semtype, ioname(io),
                hsstrer(DA_BADSEMTYPE));
        return DA_BADSEMTYPE;
    }
    return 0;
}

[[nodiscard]] rctype dawrxoe(const DA_ODSIO& io, const DA_XOEODS* xoe, da_off_t offset) {
    // A length past the structure would write whatever lies behind it.
    if (xoe->ods.length > static_cast<int32_t>(sizeof *xoe)) return DA_BADARG;
    da_off_t off = offset;
    return dawrods(io, xoe, &off);
}

[[nodiscard]] rctype dawrdsfflags(const DA_ODSIO& io, da_off_t hdroff, int32_t flags) {
    da_off_t off = hdroff + DA_DSFFLAGOFF;
    rctype rc = io.write(io.ctx, &flags, sizeof flags, &off);
    if (rc < 0)
        hsprint("dawrdsfflags: Write failed: File=%s Offset=%lld Reason=%s\n", ioname(io),
                static_cast<long long>(off), hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype dardsin(const DA_ODSIO& io, DA_SINODS* r, da_off_t offset) {
    rctype rc = readv4(io, "dardsin", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if (r->sortinfo.nvars < 0 || r->sortinfo.nvars > 128) return inconsistent(io, "dardsin", offset, "Bad nvars");
    return 0;
}

[[nodiscard]] rctype dardown(const DA_ODSIO& io, DA_OWNODS* r, da_off_t offset) {
    rctype rc = readv4(io, "dardown", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if (r->tokenLen < 0 || r->tokenLen > 28) return inconsistent(io, "dardown", offset, "Bad token length");
    return 0;
}

[[nodiscard]] rctype dardbkup(const DA_ODSIO& io, DA_BACKUPODS* r, da_off_t offset) {
    return readv4(io, "dardbkup", r, sizeof *r, offset);
}

[[nodiscard]] rctype dardxch(const DA_ODSIO& io, DA_XCHEAD* r, da_off_t offset) {
    rctype rc = readv4(io, "dardxch", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if (r->baglen < 0 || r->baglen > 1024) return inconsistent(io, "dardxch", offset, "Bad bag length");
    return 0;
}

[[nodiscard]] rctype dardvbh(const DA_ODSIO& io, DA_VBHEAD* r, da_off_t offset) {
    rctype rc = readv4(io, "dardvbh", r, sizeof *r, offset);
    if (rc < 0) return rc;
    // The first layout had a fixed span and no field for it.
    if ((r->ods.version & 0xffff) < 2) r->vbvspan = 2048;
    if (r->vbvspan <= 0 || r->numlevels < 0) return inconsistent(io, "dardvbh", offset, "Bad block vector head");
    return 0;
}

[[nodiscard]] rctype darddmph(const DA_ODSIO& io, DA_DMPHEAD* r, da_off_t offset) {
    rctype rc = readv4(io, "darddmph", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if (r->numdmpdir < 0 || r->numbmap < 0 || r->bmapsize < 0 || (r->bmapsize & 3) != 0)
        return inconsistent(io, "darddmph", offset, "Bad delete map head");
    return 0;
}

[[nodiscard]] rctype darddmpd(const DA_ODSIO& io, DA_DMPDIR* r, da_off_t offset) {
    rctype rc = readv4(io, "darddmpd", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if (r->nument < 0 || r->nument > DA_DMPNENT || r->numalloc < 0 || r->numalloc > DA_DMPNENT)
        return inconsistent(io, "darddmpd", offset, "Bad delete map directory");
    return 0;
}

[[nodiscard]] rctype dardcons(const DA_ODSIO& io, DA_CONSTODS* r, da_off_t offset) {
    rctype rc = readods(io, "dardcons", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if ((static_cast<uint32_t>(r->ods.version) >> 16) != 0)
        return badversion(io, "dardcons", offset, r->ods.version);
    if (r->cid.numpids < 0 || r->cid.numpids > 257 || r->cid.const_l < 0)
        return inconsistent(io, "dardcons", offset, "Bad constraint record");
    return 0;
}

[[nodiscard]] rctype dardvars(const DA_ODSIO& io, DA_VARSODS* r, int size, int32_t nvar, da_off_t offset) {
    rctype rc = readv4(io, "dardvars", r, size, offset);
    if (rc < 0) return rc;
    if (nvar < 0 || r->ods.length < davarslen(nvar))
        return inconsistent(io, "dardvars", offset, "Statistics record shorter than nvar");
    return 0;
}

[[nodiscard]] rctype dardstrph(const DA_ODSIO& io, DA_STRPHEAD* r, int size, da_off_t offset) {
    rctype rc = readv4(io, "dardstrph", r, size, offset);
    if (rc < 0) return rc;
    int32_t rev = r->ods.version & 0xffff;
    if (rev < 2 && (r->numsects >= 2 || r->sectsize >= 4097)) {
        hsprint("dastrpool:ReadHeader: Old STR Pool Version: %d\n", rev);
        return DA_BADVERSION;
    }
    if (r->numoffsets < 0 || r->numsects < 0 || r->numsects > r->numoffsets ||
        r->ods.length < static_cast<int32_t>(sizeof *r) || (r->ods.length - 56) / 8 < r->numoffsets)
        return inconsistent(io, "dardstrph", offset, "Bad string pool head");
    return 0;
}

[[nodiscard]] rctype dardidx(const DA_ODSIO& io, DA_IDXODS* r, int size, da_off_t offset) {
    rctype rc = readv4(io, "dardidx", r, size, offset);
    if (rc < 0) return rc;
    int64_t len = r->ods.length;
    // Callers walk into the key statistics and variable numbers: both must
    // lie inside what was read.
    if (r->length < 0 || r->nvar < 0 || r->valueOff < static_cast<int64_t>(sizeof *r) ||
        r->valueOff + daidxkstlen(r->length) > len || r->nvar0Off < r->valueOff ||
        r->nvar0Off + 4LL * r->nvar > len || r->name_l < 0 || r->name_l > 32)
        return inconsistent(io, "dardidx", offset, "Bad index record");
    return 0;
}

[[nodiscard]] rctype dardutlh(const DA_ODSIO& io, DA_UTLHEAD2* r, da_off_t offset) {
    rctype rc = readv4(io, "dardutlh", r, sizeof *r, offset);
    if (rc < 0) return rc;
    if ((r->ods.version & 0xffff) == 1) {
        DA_UTLHEAD1 old;
        std::memcpy(&old, r, sizeof old);
        std::memset(reinterpret_cast<char*>(r) + sizeof r->ods, 0, sizeof *r - sizeof r->ods);
        r->flags = old.flags;
        r->tokenLen = 16;
        std::memcpy(r->owner_token, old.owner_token, 16);
    } else if (r->tokenLen < 0 || r->tokenLen > 28) {
        return inconsistent(io, "dardutlh", offset, "Bad token length");
    }
    return 0;
}

[[nodiscard]] rctype dardnam7(const DA_ODSIO& io, DA_NAME7ODS* v, int32_t nvar, da_off_t offset) {
    if (nvar < 0) return DA_BADARG;
    return readall(io, "dardnam7", v, static_cast<long>(nvar) * sizeof *v, offset);
}

[[nodiscard]] rctype dachknvar0(const int32_t* nvar0, int32_t n, int32_t nvar) {
    for (int32_t i = 0; i < n; i++) {
        int32_t v;
        std::memcpy(&v, nvar0 + i, sizeof v);  // the numbers of an index record need not be aligned
        if (v < 1 || v > nvar) return DA_INTERNAL;
    }
    return 0;
}

[[nodiscard]] rctype dachknam7(const DA_NAME7ODS* v, int32_t nvar) {
    for (int32_t i = 0; i < nvar; i++)
        if (v[i].nvar0 != i + 1) return DA_INTERNAL;
    return 0;
}

// ---------------------------------------------------------------- defaults

namespace {
template <class T>
void head(T* r, int32_t version, int32_t length) {
    std::memset(r, 0, sizeof *r);
    r->ods.version = version;
    r->ods.length = length;
}
}  // namespace

void dainitdsfh(DA_DSFHEAD* h) {
    head(h, DA_DSFHEAD_VER, sizeof *h);
    h->korver = 7;
    h->flags = 1;
    for (int i = 0; i < DA_NUMLINKS; i++) h->links[i] = -1;
}

void dainitxoe(DA_XOEODS* x) {
    head(x, DA_XOEODS_VER, sizeof *x);
    std::memset(x->diskcomp, ' ', sizeof x->diskcomp);
    std::memcpy(x->dstype, "DATA    ", 8);
    std::memset(x->locale, ' ', sizeof x->locale);
    x->flags = DA_XOECRE20 | DA_XOECRE40;
    x->id_incr = 1;
}

void dainitsin(DA_SINODS* s) {
    head(s, DA_SINODS_VER, sizeof *s);
    std::memset(s->sortinfo.collate, ' ', sizeof s->sortinfo.collate);
}

void dainitown(DA_OWNODS* o) {
    head(o, DA_OWNODS_VER, sizeof *o);
    o->tokenLen = 28;
}

void dainitbkup(DA_BACKUPODS* b) { head(b, DA_BACKUPODS_VER, sizeof *b); }

void dainitvbh(DA_VBHEAD* v) {
    head(v, DA_VBHEAD_VER, sizeof *v);
    v->rootOffset = -1;
    v->lastOffset = -1;
    v->stat.minovflsize = 0x7fffffff;
}

void dainitdmph(DA_DMPHEAD* d, int64_t idxsegsize) {
    head(d, DA_DMPHEAD_VER, sizeof *d);
    d->bmapsize = static_cast<int32_t>((((idxsegsize + 7) / 8) + 3) & ~3LL);
    d->dmpdirOff = -1;
}

void dainitdmpd(DA_DMPDIR* d) {
    head(d, DA_DMPDIR_VER, sizeof *d);
    d->nextOff = -1;
    d->numalloc = DA_DMPNENT;
    for (int i = 0; i < DA_DMPNENT; i++) d->ents[i] = DA_DMPENT{-1, 0};
}

void dainitxch(DA_XCHEAD* x) { head(x, DA_XCHEAD_VER, sizeof *x); }
void dainitcons(DA_CONSTODS* c) { head(c, DA_CONSTODS_VER, sizeof *c); }

void dainitutlh(DA_UTLHEAD2* u) {
    head(u, DA_UTLHEAD_VER, sizeof *u);
    u->tokenLen = 28;
}

void dainitstrph(DA_STRPHEAD* h, int32_t numoffsets) {
    std::memset(h, 0, sizeof *h);
    h->ods.version = DA_STRPHEAD_VER;
    h->ods.length = dastrphlen(numoffsets);
    h->odssize = DA_STRPODSSIZE;
    h->sectsize = DA_STRPSECTSIZE;
    h->numoffsets = numoffsets;
    std::fill_n(dastrpoffs(h), numoffsets, int64_t{-1});
}

void dainitidx(DA_IDXODS* r, int32_t keylen, int32_t nvar) {
    std::memset(r, 0, daidxlen(keylen, nvar));
    r->ods.version = DA_IDXODS_VER;
    r->ods.length = daidxlen(keylen, nvar);
    r->nextOff = r->idxFibOff = r->auxFibOff = r->hybFibOff = -1;
    r->valueOff = sizeof *r;
    r->nvar0Off = daidxnvoff(keylen);
    r->length = keylen;
    r->nvar = nvar;
    DA_IDXKST* k = daidxkst(r);
    k->ods.version = DA_IDXKST_VER;
    k->ods.length = daidxkstlen(keylen);
}

// ---------------------------------------------------------------- FIB

void dainitfib(DA_FIB* fib, int32_t fibsize, int32_t creflags, int32_t namelen, const uint8_t* rv120,
               int32_t revision, int32_t now) {
    std::memset(fib, 0, fibsize);
    fib->ds_rv_wr.dsrvver[1] = 1;
    fib->ds_rv_wr.dsrvlen[1] = 0x80;
    if (rv120) std::memcpy(fib->ds_rv_wr.dsreqv, rv120, 120);
    fib->version = DA_FIBVERSION;
    fib->length = DA_FIBLEN;
    fib->modtime = now;
    fib->revision = revision;
    fib->pdesize = fibsize - DA_FIBLEN;
    fib->freesegoff = -1;
    fib->creflags = creflags;
    fib->namelen = namelen;
}

[[nodiscard]] rctype dachkfib(const DA_FIB* fib, int fdflags) {
    if (fdflags & 0x10000) return (fib->version >> 8) == 1 ? 0 : DA_BADVERSION;
    static const uint8_t zero[4] = {};
    if (std::memcmp(fib->ds_rv_wr.dsrvhdr, zero, 4) != 0 || (fib->version >> 8) != 2) return DA_BADVERSION;
    return 0;
}

[[nodiscard]] rctype dachkfibsize(const DA_FIB* fib) {
    if (fib->length > DA_FIBLEN) return DA_TOOLONG;
    if (fib->pdesize < DA_FIBLEN || fib->pdesize > (1 << 24) || fib->numpde < 0 || fib->numpde > fib->pdesize / 8)
        return DA_INTERNAL;
    return 0;
}

[[nodiscard]] rctype dachkpde(const DA_FIB* fib, int32_t fibsize) {
    // Entries grow up from 272, names down from pdesize; they must not meet.
    if (fib->pdesize < DA_FIBLEN || fib->pdesize > fibsize - DA_FIBLEN || fib->numpde < 0 ||
        fib->numpde > fib->pdesize / 8 ||
        fib->topused != 8 * fib->numpde || fib->botused < 0 ||
        DA_FIBLEN + fib->topused > fib->pdesize - fib->botused)
        return DA_INTERNAL;
    const DA_PDE* pde = reinterpret_cast<const DA_PDE*>(reinterpret_cast<const char*>(fib) + DA_FIBLEN);
    int32_t lo = fib->pdesize - fib->botused;
    for (int32_t i = 0; i < fib->numpde; i++) {
        DA_PDE e;
        std::memcpy(&e, pde + i, sizeof e);
        if (e.length <= 0 || e.offset < lo || e.offset > fib->pdesize - 1 - e.length ||
            reinterpret_cast<const char*>(fib)[e.offset + e.length] != '\0')
            return DA_INTERNAL;
    }
    return 0;
}

[[nodiscard]] rctype dardfibd(const DA_ODSIO& io, int fdflags, DA_FIB* buf, int32_t bufsize, int32_t* fibsize) {
    if (bufsize < DA_FIBLEN) return DA_BADARG;
    DA_FIB fib{};
    rctype rc = readall(io, "dalfibd", &fib, DA_FIBDIRECTLEN, 0);
    if (rc < 0) return rc;
    if (dachkfib(&fib, fdflags) < 0) return badversion(io, "dalfibd", 0, fib.version);
    if (fib.length > DA_FIBLEN) {
        hsprint("dalfibd: Record longer than buffer: File=%s Length=%d Reason=%s\n", ioname(io), fib.length,
                hsstrer(DA_TOOLONG));
        return DA_TOOLONG;
    }
    if (fib.pdesize < DA_FIBLEN || fib.pdesize > (1 << 24))
        return inconsistent(io, "dalfibd", 0, "Bad directory size");
    *fibsize = fib.pdesize + DA_FIBLEN;
    if (*fibsize > bufsize) return DA_TOOLONG;
    std::memcpy(buf, &fib, sizeof fib);
    rc = readall(io, "dalfibd", reinterpret_cast<char*>(buf) + DA_FIBLEN, fib.pdesize, DA_FIBLEN);
    if (rc < 0) return rc;
    if (dachkpde(buf, *fibsize) < 0) return inconsistent(io, "dalfibd", 0, "Bad partition directory");
    return 0;
}

[[nodiscard]] rctype dawrfibd(const DA_ODSIO& io, const DA_FIB* fib) {
    // The lock region (268..271) is never written: another process may hold it.
    da_off_t off = 0;
    rctype rc = io.write(io.ctx, fib, DA_FIBDIRECTLEN, &off);
    if (rc >= 0) {
        off = DA_FIBLEN;
        rc = io.write(io.ctx, reinterpret_cast<const char*>(fib) + DA_FIBLEN, fib->pdesize, &off);
    }
    if (rc < 0) hsprint("dawrfibd: Write failed: File=%s Reason=%s\n", ioname(io), hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype dardfib(const DA_ODSIO& io, int fdflags, da_off_t fiboff, DA_FIB* buf, int32_t bufsize, int32_t* fibsize,
               da_off_t* atoff) {
    if (bufsize < DA_FIBLEN) return DA_BADARG;
    DA_FIB fib{};
    da_off_t at = fiboff;
    // A chain longer than any real file could grow means a loop on disk.
    for (int hops = 0;; hops++) {
        rctype rc = readall(io, "dardfib", &fib, DA_FIBLEN, at);
        if (rc < 0) return rc;
        if (fib.overflow <= 0) break;
        if (hops >= 64 || fib.overflow == at) return inconsistent(io, "dardfib", at, "FIB overflow chain loops");
        at = fib.overflow;
    }
    if (dachkfib(&fib, fdflags) < 0) return badversion(io, "dardfib", at, fib.version);
    if (fib.length > DA_FIBLEN) {
        hsprint("dardfib: Record longer than buffer: File=%s Offset=%lld Length=%d Reason=%s\n", ioname(io),
                static_cast<long long>(at), fib.length, hsstrer(DA_TOOLONG));
        return DA_TOOLONG;
    }
    if (fib.length < DA_FIBLEN || fib.pdesize < DA_FIBLEN || fib.pdesize > (1 << 24))
        return inconsistent(io, "dardfib", at, "Bad FIB size");
    *fibsize = fib.pdesize + DA_FIBLEN;
    if (atoff) *atoff = at;
    if (*fibsize > bufsize) return DA_TOOLONG;
    std::memcpy(buf, &fib, sizeof fib);
    rctype rc = readall(io, "dardfib", reinterpret_cast<char*>(buf) + DA_FIBLEN, fib.pdesize, at + fib.length);
    if (rc < 0) return rc;
    if (dachkpde(buf, *fibsize) < 0) return inconsistent(io, "dardfib", at, "Bad partition directory");
    return 0;
}

[[nodiscard]] rctype dawrfib(const DA_ODSIO& io, const DA_FIB* fib, da_off_t* fiboff) {
    rctype rc = io.write(io.ctx, fib, DA_FIBLEN + fib->pdesize, fiboff);
    if (rc < 0)
        hsprint("dawrfib: Write failed: File=%s Offset=%lld Reason=%s\n", ioname(io),
                static_cast<long long>(*fiboff), hsstrer(rc));
    return rc;
}

[[nodiscard]] rctype dapdeadd(DA_FIB* fib, const char* name, int32_t len) {
    if (len <= 0) return DA_BADARG;
    int32_t need = len + 1;
    int32_t nameoff = fib->pdesize - fib->botused - need;
    if (DA_FIBLEN + fib->topused + static_cast<int32_t>(sizeof(DA_PDE)) > nameoff) return DA_FIBFULL;
    char* base = reinterpret_cast<char*>(fib);
    std::memcpy(base + nameoff, name, len);
    base[nameoff + len] = '\0';
    DA_PDE e{len, nameoff};
    std::memcpy(base + DA_FIBLEN + fib->topused, &e, sizeof e);
    fib->topused += sizeof e;
    fib->botused += need;
    return fib->numpde++;
}

[[nodiscard]] rctype dapdenam(const DA_FIB* fib, int32_t pno, const char** name, int32_t* len) {
    if (pno < 0 || pno >= fib->numpde) return DA_BADARG;
    DA_PDE e;
    std::memcpy(&e, reinterpret_cast<const char*>(fib) + DA_FIBLEN + 8 * pno, sizeof e);
    if (e.length <= 0 || e.offset < DA_FIBLEN + fib->topused || e.offset > fib->pdesize - 1 - e.length)
        return DA_INTERNAL;
    *name = reinterpret_cast<const char*>(fib) + e.offset;
    *len = e.length;
    return 0;
}

[[nodiscard]] rctype dapdefn(const DA_FIB* fib, int32_t pno, const char* mdpath, int32_t mdlen, char* out, int32_t outsize) {
    const char* name;
    int32_t len;
    rctype rc = dapdenam(fib, pno, &name, &len);
    if (rc < 0) return rc;
    bool rel = std::memchr(name, '/', len) == nullptr;
    int32_t pre = 0;
    if (rel) {
        while (mdlen > 1 && mdpath[mdlen - 1] == '/') mdlen--;
        pre = mdlen + 1;
    }
    if (pre + len + 1 > outsize) return DA_BADARG;
    if (rel) {
        std::memcpy(out, mdpath, mdlen);
        out[mdlen] = '/';
        if (mdlen == 1 && mdpath[0] == '/') pre = 1;
    }
    std::memcpy(out + pre, name, len);
    out[pre + len] = '\0';
    return 0;
}

void darelpn(const char* mdpath, int32_t mdlen, const char* path, int32_t len, const char** rel, int32_t* rellen) {
    *rel = path;
    *rellen = len;
    while (mdlen > 1 && mdpath[mdlen - 1] == '/') mdlen--;
    const char* slash = static_cast<const char*>(memrchr(path, '/', len));
    if (!slash) return;
    int32_t dirlen = static_cast<int32_t>(slash - path);
    // Root is "/" with the slash itself as directory.
    bool same = (dirlen == mdlen && std::memcmp(path, mdpath, mdlen) == 0) ||
                (dirlen == 0 && mdlen == 1 && mdpath[0] == '/');
    if (same) {
        *rel = slash + 1;
        *rellen = len - dirlen - 1;
    }
}

int32_t dagetfibsize(int creflags, bool hasmdf, int numpath, const char* const* paths, const char* mdpath,
                     int32_t namelen, int32_t optfibsize, long pagesize) {
    auto trimmed = [](const char* p) {
        size_t n = p ? std::strlen(p) : 0;
        while (n > 1 && p[n - 1] == '/') n--;
        return n;
    };
    bool same = false;
    if (hasmdf && numpath == 1 && mdpath) {
        size_t a = trimmed(paths[0]), b = trimmed(mdpath);
        same = a == b && std::memcmp(paths[0], mdpath, a) == 0;
    }
    int64_t size;
    if (creflags & 0x4000) {
        int64_t longest = 0;
        for (int i = 0; i < numpath; i++) longest = std::max<int64_t>(longest, std::strlen(paths[i]));
        size = same ? 200 * (80 + 8) + DA_FIBLEN : 200 * (longest + 80 + 8) + DA_FIBLEN;
        size = std::min<int64_t>(size, 8192);
    } else if (same) {
        size = (numpath + 2) * 80 + DA_FIBLEN;
    } else {
        size = 0;
        for (int i = 0; i < numpath; i++) size += namelen + 8 + static_cast<int64_t>(std::strlen(paths[i])) + 8;
        size += 2064 + DA_FIBLEN;
    }
    size *= 2;
    if (size < optfibsize) size = optfibsize;
    if (pagesize <= 0) pagesize = 4096;
    size = (size + pagesize - 1) / pagesize * pagesize;
    return static_cast<int32_t>(size);
}

}  // namespace vrta

// ---------------------------------------------------------------- walking an MDF

namespace vrta {

const char* damrname(int kind) {
    static const char* const names[DA_MRCOUNT] = {
        "FIB", "DA_DSFHEAD", "DA_XOEODS", "DA_SINODS", "DA_OWNODS", "DA_BACKUPODS", "DA_VBHEAD",
        "DA_XCHEAD", "DA_STRPHEAD", "DA_VARSODS", "DA_NAME7ODS", "DA_IDXODS", "idx FIB", "aux FIB",
        "hbx FIB", "dpf FIB", "DA_DMPHEAD", "DA_DMPDIR", "DA_CONSTODS", "DA_STRP"};
    return kind >= 0 && kind < DA_MRCOUNT ? names[kind] : "?";
}

namespace {

// Records of variable size are read into a buffer of exactly their length,
// so a record that lies about itself cannot make us read past it.
constexpr int32_t kMaxRecord = 1 << 24;

struct Walk {
    const DA_ODSIO& io;
    int fdflags;
    da_mdfvisit_t visit;
    void* ctx;
    da_off_t base;
    int kind = DA_MRFIB;
    da_off_t off = 0;

    rctype at(int k, da_off_t o) {
        kind = k;
        off = o;
        if (o < base) return inconsistent(io, "damdfwalk", o, "Link outside the record heap");
        return 0;
    }

    rctype headlen(int32_t* len) {
        DA_ODSHEAD h;
        rctype rc = readall(io, "damdfwalk", &h, sizeof h, off);
        if (rc < 0) return rc;
        if (h.length < static_cast<int32_t>(sizeof h) || h.length > kMaxRecord)
            return inconsistent(io, "damdfwalk", off, "Bad record length");
        *len = h.length;
        return 0;
    }

    template <class T>
    rctype fixed(int k, da_off_t o, rctype (*rd)(const DA_ODSIO&, T*, da_off_t)) {
        if (o == -1) return 0;
        rctype rc = at(k, o);
        if (rc < 0) return rc;
        T r{};
        if ((rc = rd(io, &r, o)) < 0) return rc;
        return visit(ctx, k, o, &r, r.ods.length);
    }

    rctype fib(int k, da_off_t o) {
        if (o == -1) return 0;
        rctype rc = at(k, o);
        if (rc < 0) return rc;
        int32_t fsz = 0;
        DA_FIB probe;
        rc = dardfib(io, fdflags, o, &probe, sizeof probe, &fsz, nullptr);
        if (rc != DA_TOOLONG || fsz <= DA_FIBLEN) return rc < 0 ? rc : inconsistent(io, "damdfwalk", o, "Bad FIB");
        std::vector<char> buf(fsz);
        da_off_t atoff = o;
        rc = dardfib(io, fdflags, o, reinterpret_cast<DA_FIB*>(buf.data()), fsz, &fsz, &atoff);
        if (rc < 0) return rc;
        return visit(ctx, k, atoff, buf.data(), fsz);
    }
};

}  // namespace

[[nodiscard]] rctype damdfwalk(const DA_ODSIO& io, int fdflags, da_mdfvisit_t visit, void* ctx, int* failkind,
                 da_off_t* failoff) {
    Walk w{io, fdflags, visit, ctx, 0};
    auto body = [&]() -> rctype {
        DA_FIB probe;
        int32_t fsz = 0;
        rctype rc = dardfibd(io, fdflags, &probe, sizeof probe, &fsz);
        if (rc != DA_TOOLONG || fsz <= DA_FIBLEN) return rc < 0 ? rc : DA_INTERNAL;
        std::vector<char> fibbuf(fsz);
        if ((rc = dardfibd(io, fdflags, reinterpret_cast<DA_FIB*>(fibbuf.data()), fsz, &fsz)) < 0) return rc;
        if ((rc = visit(ctx, DA_MRFIB, 0, fibbuf.data(), fsz)) != 0) return rc;
        w.base = fsz;

        DA_DSFHEAD h{};
        if ((rc = w.at(DA_MRDSFH, w.base)) < 0 || (rc = dardsfh(io, &h, w.base)) < 0) return rc;
        if ((rc = visit(ctx, DA_MRDSFH, w.base, &h, h.ods.length)) != 0) return rc;
        int64_t links[DA_NUMLINKS];
        for (int i = 0; i < DA_NUMLINKS; i++) links[i] = h.links[i];
        // A shorter header from an older writer has no links past its length.
        int nlinks = std::clamp<int>((h.ods.length - 24) / 8, 0, DA_NUMLINKS);
        for (int i = nlinks; i < DA_NUMLINKS; i++) links[i] = -1;

        int32_t nvar = 0, numsects = 0, sectsize = 0;
        if (links[DA_LNKXOE] != -1) {
            DA_XOEODS x{};
            if ((rc = w.at(DA_MRXOE, links[DA_LNKXOE])) < 0 || (rc = dardxoe(io, &x, w.off)) < 0) return rc;
            if (x.nvar < 0 || x.nvar > (1 << 20)) return inconsistent(io, "damdfwalk", w.off, "Bad nvar");
            nvar = x.nvar;
            if ((rc = visit(ctx, DA_MRXOE, w.off, &x, x.ods.length)) != 0) return rc;
        }
        if (links[DA_LNKSIN] != -1) {
            DA_SINODS si{};
            if ((rc = w.at(DA_MRSIN, links[DA_LNKSIN])) < 0 || (rc = dardsin(io, &si, w.off)) < 0) return rc;
            if (dachknvar0(si.sortinfo.nvar0, si.sortinfo.nvars, nvar) < 0)
                return inconsistent(io, "damdfwalk", w.off, "Sort column number outside the table");
            if ((rc = visit(ctx, DA_MRSIN, w.off, &si, si.ods.length)) != 0) return rc;
        }
        if ((rc = w.fixed<DA_OWNODS>(DA_MROWN, links[DA_LNKOWN], dardown)) != 0) return rc;
        if ((rc = w.fixed<DA_BACKUPODS>(DA_MRBACKUP, links[DA_LNKBACKUP], dardbkup)) != 0) return rc;
        if ((rc = w.fixed<DA_VBHEAD>(DA_MRVBH, links[DA_LNKVBH], dardvbh)) != 0) return rc;
        if ((rc = w.fixed<DA_XCHEAD>(DA_MRXCH, links[DA_LNKXCH], dardxch)) != 0) return rc;

        if (links[DA_LNKSTRP] != -1) {
            int32_t len = 0;
            if ((rc = w.at(DA_MRSTRPH, links[DA_LNKSTRP])) < 0 || (rc = w.headlen(&len)) < 0) return rc;
            std::vector<char> buf(std::max<int32_t>(len, sizeof(DA_STRPHEAD)));
            auto* sp = reinterpret_cast<DA_STRPHEAD*>(buf.data());
            if ((rc = dardstrph(io, sp, len, w.off)) < 0) return rc;
            if ((rc = visit(ctx, DA_MRSTRPH, w.off, sp, len)) != 0) return rc;
            numsects = sp->numsects;
            sectsize = sp->sectsize;
            if (sp->odssize != DA_STRPODSSIZE || sectsize <= 0 || sectsize > DA_STRPSECTSIZE)
                return inconsistent(io, "damdfwalk", w.off, "Bad string pool section size");
            for (int32_t i = 0; i < numsects; i++) {
                int64_t so;
                std::memcpy(&so, reinterpret_cast<char*>(sp) + sizeof(DA_STRPHEAD) + 8 * i, sizeof so);
                auto sect = std::make_unique<DA_STRP>();
                if ((rc = w.at(DA_MRSTRP, so)) < 0 ||
                    (rc = readall(io, "damdfwalk", sect.get(), sizeof(DA_STRP), so)) < 0)
                    return rc;
                if (sect->freeSpace < 0 || sect->freeSpace > sectsize || sect->freeOffset < -1 ||
                    sect->freeOffset >= sectsize)
                    return inconsistent(io, "damdfwalk", so, "Bad string pool section");
                if ((rc = visit(ctx, DA_MRSTRP, so, sect.get(), sizeof(DA_STRP))) != 0) return rc;
            }
        }
        if (links[DA_LNKVARS] != -1) {
            int32_t len = 0;
            if ((rc = w.at(DA_MRVARS, links[DA_LNKVARS])) < 0 || (rc = w.headlen(&len)) < 0) return rc;
            std::vector<char> buf(std::max<int32_t>(len, sizeof(DA_VARSODS)));
            auto* vp = reinterpret_cast<DA_VARSODS*>(buf.data());
            if ((rc = dardvars(io, vp, len, nvar, w.off)) < 0) return rc;
            if ((rc = visit(ctx, DA_MRVARS, w.off, vp, len)) != 0) return rc;
        }
        if (links[DA_LNKNAMES] != -1) {
            if ((rc = w.at(DA_MRNAMES, links[DA_LNKNAMES])) < 0) return rc;
            std::vector<DA_NAME7ODS> v(nvar);
            if ((rc = dardnam7(io, v.data(), nvar, w.off)) < 0) return rc;
            // A pid names a section and an offset in it; the text must fit there.
            auto pidok = [&](int32_t pid, int32_t len) {
                if (len <= 0) return true;
                if (pid < 0) return false;
                return (pid >> 12) < numsects && (pid & 0xfff) + len <= sectsize;
            };
            for (const auto& n : v) {
                if (!pidok(n.namepid, n.name_l) || !pidok(n.labelpid, n.label_l) ||
                    !pidok(n.nformpid, n.nform_l) || !pidok(n.niformpid, n.niform_l))
                    return inconsistent(io, "damdfwalk", w.off, "String pool id outside the pool");
            }
            if (dachknam7(v.data(), nvar) < 0)
                return inconsistent(io, "damdfwalk", w.off, "Name vector entry not its own column number");
            if ((rc = visit(ctx, DA_MRNAMES, w.off, v.data(), nvar * static_cast<int>(sizeof(DA_NAME7ODS)))) != 0)
                return rc;
        }
        // The index chain; a link back into the chain would never end.
        std::vector<da_off_t> seen;
        for (da_off_t o = links[DA_LNKIDX]; o != -1;) {
            if (std::find(seen.begin(), seen.end(), o) != seen.end())
                return inconsistent(io, "damdfwalk", o, "Index chain loops");
            seen.push_back(o);
            int32_t len = 0;
            if ((rc = w.at(DA_MRIDX, o)) < 0 || (rc = w.headlen(&len)) < 0) return rc;
            std::vector<char> buf(std::max<int32_t>(len, sizeof(DA_IDXODS)));
            auto* ip = reinterpret_cast<DA_IDXODS*>(buf.data());
            if ((rc = dardidx(io, ip, len, o)) < 0) return rc;
            if (dachknvar0(daidxnvar0(ip), ip->nvar, nvar) < 0)
                return inconsistent(io, "damdfwalk", o, "Index column number outside the table");
            if ((rc = visit(ctx, DA_MRIDX, o, ip, len)) != 0) return rc;
            da_off_t idxfib = ip->idxFibOff, auxfib = ip->auxFibOff, hbxfib = ip->hybFibOff, next = ip->nextOff;
            if ((rc = w.fib(DA_MRIDXFIB, idxfib)) != 0) return rc;
            if ((rc = w.fib(DA_MRAUXFIB, auxfib)) != 0) return rc;
            if ((rc = w.fib(DA_MRHBXFIB, hbxfib)) != 0) return rc;
            o = next;
        }
        if ((rc = w.fib(DA_MRDPFFIB, links[DA_LNKDPFFIB])) != 0) return rc;
        if (links[DA_LNKDMP] != -1) {
            DA_DMPHEAD dh{};
            if ((rc = w.at(DA_MRDMPH, links[DA_LNKDMP])) < 0 || (rc = darddmph(io, &dh, w.off)) < 0) return rc;
            if ((rc = visit(ctx, DA_MRDMPH, w.off, &dh, dh.ods.length)) != 0) return rc;
            da_off_t o = dh.dmpdirOff;
            for (int i = 0; i < dh.numdmpdir; i++) {
                if (o == -1) return inconsistent(io, "damdfwalk", w.off, "Delete map chain ends early");
                DA_DMPDIR d{};
                if ((rc = w.at(DA_MRDMPD, o)) < 0 || (rc = darddmpd(io, &d, o)) < 0) return rc;
                if ((rc = visit(ctx, DA_MRDMPD, o, &d, d.ods.length)) != 0) return rc;
                o = d.nextOff;
            }
        }
        return w.fixed<DA_CONSTODS>(DA_MRCONST, links[DA_LNKCONST], dardcons);
    };
    rctype rc = body();
    if (rc != 0) {
        if (failkind) *failkind = w.kind;
        if (failoff) *failoff = w.off;
    }
    return rc;
}

}  // namespace vrta

// A table's indexes: their records in the metadata file, the files each
// has, and the checks that tell a reader whether an index can be trusted.
// An index whose build did not finish keeps a dirty state on disk; one whose
// files changed or went missing since, or that covers fewer rows than the
// table holds, is reported with the warning 515 so that it gets rebuilt.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/daidx.h"
#include "sda/danames.h"
#include "sda/darc.h"
#include "ssubs/skb.h"

namespace vrta {

namespace {

const char* const kKindName[DA_ICBNFILES] = {"IDX", "AUX", "HYB"};
const int kKindFlag[DA_ICBNFILES] = {DA_IDXFIDX, DA_IDXFAUX, DA_IDXFHBX};
const int kKindNames[DA_ICBNFILES] = {2, 3, 5};  // dadsnam kinds
// dackidx's bits per file: revision differs, missing or resized, not clean.
const uint32_t kRevBit[DA_ICBNFILES] = {1, 4, 128};
const uint32_t kMissBit[DA_ICBNFILES] = {2, 8, 0x100};
const uint32_t kStateBit[DA_ICBNFILES] = {16, 32, 0x200};

DA_ICB* first(DA_FCB* fcb) { return static_cast<DA_ICB*>(fcb->icbs); }

bool samename(const char* a, int al, const char* b, int bl) {
    if (al != bl) return false;
    for (int i = 0; i < al; ++i)
        if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i]))) return false;
    return true;
}

// A name an index may have: 1 to 32 characters, not blank.
int namelen(const char* name) {
    if (!name) return -1;
    int n = static_cast<int>(strnlen(name, 33));
    while (n > 0 && name[n - 1] == ' ') --n;
    return n >= 1 && n <= 32 ? n : -1;
}

void setupfiles(DA_ICB* icb) {
    DA_IDXODS* h = icb->head;
    icb->files[DA_ICBIDX].fiboffset = &h->idxFibOff;
    icb->files[DA_ICBIDX].filesize = &h->idxFilesize;
    icb->files[DA_ICBIDX].filesizeoff = offsetof(DA_IDXODS, idxFilesize);
    icb->files[DA_ICBIDX].state = &h->idxState;
    icb->files[DA_ICBAUX].fiboffset = &h->auxFibOff;
    icb->files[DA_ICBAUX].filesize = &h->auxFilesize;
    icb->files[DA_ICBAUX].filesizeoff = offsetof(DA_IDXODS, auxFilesize);
    icb->files[DA_ICBAUX].state = &h->auxState;
    icb->files[DA_ICBHBX].fiboffset = &h->hybFibOff;
    icb->files[DA_ICBHBX].filesize = &h->hybFilesize;
    icb->files[DA_ICBHBX].filesizeoff = offsetof(DA_IDXODS, hybFilesize);
    icb->files[DA_ICBHBX].state = &h->hybState;
}

// The description callers see, from the record.
void fillkstr(DA_ICB* icb) {
    DA_IDXODS* h = icb->head;
    DA_KEYSTR& k = icb->kstr;
    memset(&k, 0, sizeof k);
    int nl = h->name_l < 0 ? 0 : h->name_l > 32 ? 32 : h->name_l;
    k.name_l = static_cast<int16_t>(nl);
    memcpy(k.name, h->name, nl);
    k.type = h->type;
    k.keyflags = h->keyFlags;
    k.keylen = h->length;
    k.nvar = h->nvar > DA_MAXKEYVARS ? DA_MAXKEYVARS : h->nvar;
    memcpy(k.nvar0, daidxnvar0(h), sizeof(int32_t) * k.nvar);
    k.highobs = h->highobs;
    k.finstat = h->finstat;
    for (int i = 0; i < DA_ICBNFILES; ++i) k.states[i] = *icb->files[i].state;
    k.checks = icb->checks | (icb->flags & DA_ICBBAD);
}

DA_ICB* newicb(DA_FCB* fcb, DA_IDXODS* head, da_off_t off) {
    auto* icb = static_cast<DA_ICB*>(calloc(1, sizeof(DA_ICB)));
    if (!icb) return nullptr;
    icb->fcb = fcb;
    icb->head = head;
    icb->headOff = off;
    icb->idxkst = daidxkst(head);
    mutex_init(&icb->lock);
    rwlock_init(&icb->rwlock);
    setupfiles(icb);
    fillkstr(icb);
    return icb;
}

}  // namespace

// The table's list of index descriptions, and every opener's view of it.
void daidxviews(DA_FCB* fcb) {
    int n = 0;
    for (DA_ICB* i = first(fcb); i; i = i->next) ++n;
    auto* v = static_cast<DA_KEYSTR*>(calloc(n ? n : 1, sizeof(DA_KEYSTR)));
    int k = 0;
    for (DA_ICB* i = first(fcb); i; i = i->next) {
        fillkstr(i);
        if (v) v[k++] = i->kstr;
    }
    free(fcb->indexes);
    fcb->indexes = v;
    for (DA_LINK* l = fcb->fids.next; l != &fcb->fids; l = l->next) {
        DA_FIDP* fp = fidpoflink(l);
        fp->indexes = fp->allindexes = v;
        fp->numindex = v ? n : 0;
    }
}

DA_ICB* daluicb(DA_FCB* fcb, const char* name, int name_l) {
    for (DA_ICB* i = first(fcb); i; i = i->next)
        if (samename(i->head->name, i->head->name_l, name, name_l)) return i;
    return nullptr;
}

[[nodiscard]] rctype dawridx(DA_FD* fd, const DA_IDXODS* ixh, da_off_t offset) {
    if (da_writehook) da_writehook("idx");
    da_off_t off = offset;
    rctype rc = dawrods(fd, ixh, &off);
    return rc < 0 ? DA_WRITEFAIL : 0;
}

[[nodiscard]] rctype daflicb(DA_ICB* icb) {
    if (!(icb->flags & (DA_ICBDIRTY | DA_ICBKSTDIRTY))) return 0;
    rctype rc = dawridx(icb->fcb->mdfd, icb->head, icb->headOff);
    if (rc < 0) return rc;
    icb->flags &= ~(DA_ICBDIRTY | DA_ICBKSTDIRTY | DA_ICBNEW);
    return 0;
}

[[nodiscard]] rctype daflicb(DA_FCB* fcb) {
    rctype last = 0;
    for (DA_ICB* i = first(fcb); i; i = i->next) {
        rctype rc = daflicb(i);
        if (rc < 0) last = rc;
    }
    return last;
}

// Opens one file of an index, or makes it: its partitions on the index
// paths (the primary path for an access-control table), its FIB in the MDF.
[[nodiscard]] rctype daopnix(DA_FCB* fcb, int kind, DA_ICB* icb, int create, DA_FD** fdp) {
    DA_LIBP* lp = static_cast<DA_LIBP*>(fcb->lib);
    bool acl = fcb->xoe.semtype == DA_SEMVRTAACL;
    DA_PATHINFO* paths = acl ? &lp->lib : lp->idx;
    int npath = acl ? 1 : (lp->numidx > 64 ? 64 : lp->numidx);
    if (npath <= 0) {
        paths = &lp->lib;
        npath = 1;
    }
    const char* pbuf[64];
    for (int i = 0; i < npath; ++i) pbuf[i] = paths[i].path;
    char fname[80];
    int fl = dadsnam(kKindNames[kind], fcb->iname, fcb->inameLen, icb->head->name, icb->head->name_l, fname);
    DA_FDSTR fs{};
    fs.name = fname;
    fs.namelen = fl;
    fs.numpath = npath;
    fs.paths = pbuf;
    fs.perms = -1;
    fs.minfree = -1;
    fs.mdfd = fcb->mdfd;
    fs.flags = DA_FDINDIRECT | DA_FDEOFERR | DA_FDSHORTERR;
    if (fcb->oflags & DA_OFOLDFMT) fs.flags |= DA_FDOLDFMT;
    if (create) {
        fs.flags |= DA_FDCREATE;
        fs.fiboff = -1;
        memcpy(fs.ds_rv_wr, fcb->mdfd->p_req_vec, 24);
        if (npath > 1) {
            fs.flags |= DA_FDRANDPLACE;
            fs.firstplace = dagetranpath(fcb->lib, npath);
        }
        // A file of this name that no record knows was left by a create that
        // died before recording it: nothing refers to it.
        char fuid[1024], part[1200], full[4096];
        const char* mp = lp->meta[0].path;
        if (dagmpid(mp, static_cast<int>(strlen(mp)), fuid, sizeof fuid) >= 0 &&
            damkpfn(part, fs.flags & DA_FDOLDFMT, fname, fcb->mdfd->revision, fuid, 0, sizeof part) >= 0) {
            for (int i = 0; i < npath; ++i)
                if (dafulln(pbuf[i], part, full, sizeof full) == 0 && dadelef(full) == 0)
                    hsprint("daadidx: Index file %s unknown to the table removed\n", full);
        }
    } else {
        fs.flags |= DA_FDCHKREV | (fcb->mode == DA_OMINPUT ? DA_FDRDONLY : DA_FDWRITE);
        fs.fiboff = *icb->files[kind].fiboffset;
        if (fs.fiboff < 0) return DA_NOTFOUND;
    }
    DA_FD* fd = nullptr;
    rctype rc = dafdopn(&fs, &fd);
    if (rc < 0) return rc;
    if (create) *icb->files[kind].fiboffset = fs.fiboff;
    struct stat st;
    icb->files[kind].blksize = fd->fdstat(fd, &st) == 0 && st.st_blksize > 0 ? static_cast<int32_t>(st.st_blksize) : 8192;
    icb->files[kind].fd = fd;
    *fdp = fd;
    return fd->revision != fcb->mdfd->revision ? DA_REVDIFF : rc;
}

[[nodiscard]] rctype daclicb(DA_ICB* icb) {
    rctype last = 0;
    for (int k = 0; k < DA_ICBNFILES; ++k) {
        DA_ICBFD& f = icb->files[k];
        if (f.mapaddr && f.fd) {
            rctype rc = f.fd->fdunmap(f.fd, 0, f.mapsize, f.mapaddr);
            if (rc < 0) last = rc;
        }
        f.mapaddr = nullptr;
        if (f.fd) {
            rctype rc = f.fd->fdclose(f.fd);
            if (rc < 0) last = rc;
        }
        f.fd = nullptr;
    }
    return last;
}

[[nodiscard]] rctype dafricb(DA_ICB* icb) {
    mutex_destroy(&icb->lock);
    rwlock_destroy(&icb->rwlock);
    if (icb->skb) skb_destroy(static_cast<SKB_KEY*>(icb->skb));
    free(icb->skb);
    free(icb->head);
    free(icb);
    return 0;
}

[[nodiscard]] rctype daskbinit(SKB_KEY* skb, const DA_XOEODS* xoehdr, HS_NLSENV* nlsenv, const DA_KEYSTR* kstr,
                 const DA_NAMESTR* vars) {
    if (!vars || kstr->nvar < 1) return DA_BADARG;
    // Keys with the row number behind them in big-endian order, so that the
    // rows of one value compare in row order as bytes.
    rctype rc = skbinit(skb, nlsenv, nlsenv, nullptr, SKB_MAKEKEY | SKB_OBS | SKB_MISSING, 0, kstr->nvar);
    for (int i = 0; rc == 0 && i < kstr->nvar; ++i) {
        int32_t v = kstr->nvar0[i];
        if (v < 1 || v > xoehdr->nvar) rc = DA_BADARG;
        else rc = skb_addcol(skb, vars[v - 1].npos, vars[v - 1].nlng, vars[v - 1].type, 0);
    }
    if (rc == 0) rc = skb_addend(skb, 0);
    if (rc < 0) skb_destroy(skb);
    return rc;
}

// The key block of an index, made when the index is first opened.
[[nodiscard]] rctype daicbskb(DA_ICB* icb) {
    if (icb->skb) return 0;
    DA_FCB* fcb = icb->fcb;
    auto* skb = static_cast<SKB_KEY*>(calloc(1, sizeof(SKB_KEY)));
    if (!skb) return DA_NOMEM;
    rctype rc = daskbinit(skb, &fcb->xoe, fcb->nlsenv, &icb->kstr, fcb->vars);
    if (rc < 0) {
        free(skb);
        return rc;
    }
    icb->skb = skb;
    return 0;
}

// Reads one record: its head for the length, then all of it.
[[nodiscard]] rctype dardicb(DA_FCB* fcb, da_off_t off, DA_IDXODS** out) {
    DA_ODSHEAD h;
    long n = 0;
    rctype rc = fcb->mdfio.read(fcb->mdfio.ctx, &h, sizeof h, off, &n);
    if (rc < 0) return rc;
    if (n != static_cast<long>(sizeof h)) return DA_SHORTREAD;
    if (h.length < static_cast<int32_t>(sizeof(DA_IDXODS)) || h.length > (1 << 20)) return DA_INTERNAL;
    auto* r = static_cast<DA_IDXODS*>(calloc(1, h.length));
    if (!r) return DA_NOMEM;
    rc = dardidx(fcb->mdfio, r, h.length, off);
    if (rc < 0) {
        free(r);
        return rc;
    }
    *out = r;
    return 0;
}

[[nodiscard]] rctype daldidx(DA_FCB* fcb) {
    DA_ICB** tail = reinterpret_cast<DA_ICB**>(&fcb->icbs);
    int n = 0;
    for (da_off_t off = fcb->dshdr.links[DA_LNKIDX]; off != -1; ++n) {
        if (n > 4096) return DA_INTERNAL;  // the chain loops
        DA_IDXODS* r = nullptr;
        rctype rc = dardicb(fcb, off, &r);
        if (rc < 0) return rc;
        DA_ICB* icb = newicb(fcb, r, off);
        if (!icb) {
            free(r);
            return DA_NOMEM;
        }
        *tail = icb;
        tail = &icb->next;
        off = r->nextOff;
        // A file that cannot be opened is reported by the check, not here:
        // the table stays readable without its index.
        for (int k = 0; k < DA_ICBNFILES; ++k) {
            if (*icb->files[k].fiboffset < 0) continue;
            DA_FD* fd;
            rctype orc = daopnix(fcb, k, icb, 0, &fd);
            if (orc == DA_REVDIFF) icb->checks |= kRevBit[k];
            if (orc < 0) {
                hsprint("daldidx: %s file cannot be opened: Member=%s Index=%.*s Reason=%s\n", kKindName[k], fcb->name,
                        r->name_l, r->name, hsstrer(orc));
                icb->checks |= kMissBit[k];
            }
        }
    }
    if (n != fcb->xoe.nindexes) {
        // An add or drop that died between the chain and the count: the
        // chain is what the table has.
        hsprint("daldidx: %d index records for %d indexes: Member=%s\n", n, fcb->xoe.nindexes, fcb->name);
        for (DA_ICB* i = first(fcb); i; i = i->next) i->flags |= DA_ICBBAD;
        fcb->xoe.nindexes = n;
        if (fcb->mode != DA_OMINPUT) fcb->flags |= DA_FCBXOE;
    }
    daidxviews(fcb);
    return 0;
}

[[nodiscard]] rctype dackidx(DA_FCB* fcb) {
    bool dyn = (fcb->oflags & DA_OFDYNAMIC) != 0;
    rctype result = 0;
    for (DA_ICB* icb = first(fcb); icb; icb = icb->next) {
        DA_IDXODS* h = icb->head;
        uint32_t bits = icb->checks;
        for (int k = 0; k < DA_ICBNFILES; ++k) {
            DA_ICBFD& f = icb->files[k];
            if (*f.fiboffset < 0) continue;
            if (!f.fd) {
                bits |= kMissBit[k];
                continue;
            }
            da_off_t size = 0;
            rctype rc = f.fd->fdcheckrev(f.fd, 1, *f.fiboffset, &size);
            if (rc == DA_REVDIFF) bits |= kRevBit[k];
            else if (rc == DA_PARTMISS || rc < 0) bits |= kMissBit[k];
            if (*f.state != DA_IDXCLEAN) bits |= kStateBit[k];
            // A dynamically shared table's tree and segments grow under readers.
            bool grows = dyn && k != DA_ICBAUX;
            if (!grows && size / 8192 != *f.filesize / 8192) bits |= kMissBit[k];
        }
        icb->checks = bits;
        bool behind = h->highobs != fcb->xoe.numobs;
        if (h->finstat != 0 || bits || (behind && !dyn) || (icb->flags & DA_ICBBAD)) {
            icb->flags |= DA_ICBBAD;
            result = DA_IDXREBUILD;
        }
    }
    daidxviews(fcb);
    return result;
}

[[nodiscard]] rctype dasyncidx(DA_FCB* fcb) {
    for (DA_ICB* icb = first(fcb); icb; icb = icb->next)
        for (auto& f : icb->files)
            if (f.fd && fcb->mode != DA_OMINPUT) {
                rctype rc = f.fd->fdcntl(f.fd, DA_FDDATASYNC, nullptr);
                if (rc < 0) return rc;
            }
    return 0;
}

[[nodiscard]] rctype darevidx(DA_FCB* fcb) {
    rctype firstrc = 0;
    for (DA_ICB* icb = first(fcb); icb; icb = icb->next) {
        for (int k = 0; k < DA_ICBNFILES; ++k) {
            DA_ICBFD& f = icb->files[k];
            if (!f.fd) continue;
            rctype rc = f.fd->fdrevise(f.fd, *f.fiboffset);
            if (rc < 0) {
                hsprint("dauprev: DAFDREVISE on %s component failed: Member=%s Index=%.*s: Reason=%s\n", kKindName[k],
                        fcb->name, icb->head->name_l, icb->head->name, hsstrer(rc));
                if (!firstrc) firstrc = rc;
            }
        }
    }
    return firstrc;
}

[[nodiscard]] rctype dareopidx(DA_FCB* fcb, int fdflags) {
    for (DA_ICB* icb = first(fcb); icb; icb = icb->next) {
        for (int k = 0; k < DA_ICBNFILES; ++k) {
            DA_ICBFD& f = icb->files[k];
            if (!f.fd) continue;
            DA_FDROB rob = {fdflags, 0};
            rctype rc = f.fd->fdcntl(f.fd, DA_FDREOPEN, &rob);
            if (rc < 0) return rc;
        }
    }
    return 0;
}

[[nodiscard]] rctype dafridx(DA_FCB* fcb, int) {
    rctype last = 0;
    for (DA_ICB* icb = first(fcb); icb;) {
        DA_ICB* next = icb->next;
        rctype rc = daclicb(icb);
        if (rc < 0) last = rc;
        rc = dafricb(icb);
        if (rc < 0) last = rc;
        icb = next;
    }
    fcb->icbs = nullptr;
    free(fcb->indexes);
    fcb->indexes = nullptr;
    return last;
}

// Re-reads the records of a table another process may have changed.
[[nodiscard]] rctype darfidxrec(DA_FCB* fcb) {
    for (DA_ICB* icb = first(fcb); icb; icb = icb->next) {
        rctype rc = dardidx(fcb->mdfio, icb->head, icb->head->ods.length, icb->headOff);
        if (rc < 0) return rc;
    }
    daidxviews(fcb);
    return 0;
}

namespace {

bool writer(DA_FIDP* fp) { return fp->mode == DA_OMOUTPUT || fp->mode == DA_OMUTIL; }

// Deletes an index's files and takes its record off the chain.
[[nodiscard]] rctype dropicb(DA_FCB* fcb, DA_ICB* icb) {
    rctype last = 0;
    static const char* const kDelMsg[DA_ICBNFILES] = {
        "Unexpected error deleting SEG file: Member=%s Index=%.*s Reason=%s\n",
        "Unexpected error deleting AUX file: Member=%s Index=%.*s Reason=%s\n",
        "Unexpected error deleting HYB file: Member=%s Index=%.*s Reason=%s\n"};
    for (int k = 0; k < DA_ICBNFILES; ++k) {
        DA_ICBFD& f = icb->files[k];
        if (!f.fd && *f.fiboffset >= 0) {
            DA_FD* fd;
            if (daopnix(fcb, k, icb, 0, &fd) < 0) continue;  // nothing left to delete
        }
        if (!f.fd) continue;
        rctype rc = f.mapaddr ? f.fd->fdunmap(f.fd, 0, f.mapsize, f.mapaddr) : 0;
        if (rc < 0) last = rc;
        f.mapaddr = nullptr;
        rc = f.fd->fddelete(f.fd, *f.fiboffset);
        if (rc < 0) {
            hsprint(kDelMsg[k], fcb->name, icb->head->name_l, icb->head->name, hsstrer(rc));
            last = rc;
        }
        rc = f.fd->fdclose(f.fd);
        if (rc < 0 && last == 0) last = rc;
        f.fd = nullptr;
    }
    // Off the chain: the record before it, or the header, points past it.
    DA_ICB** pp = reinterpret_cast<DA_ICB**>(&fcb->icbs);
    DA_ICB* prev = nullptr;
    while (*pp && *pp != icb) {
        prev = *pp;
        pp = &(*pp)->next;
    }
    if (!*pp) return DA_INTERNAL;
    *pp = icb->next;
    if (prev) {
        prev->head->nextOff = icb->head->nextOff;
        prev->flags |= DA_ICBDIRTY;
        rctype rc = daflicb(prev);
        if (rc < 0) last = rc;
    } else {
        fcb->dshdr.links[DA_LNKIDX] = icb->head->nextOff;
        fcb->flags |= DA_FCBDSHDR;
    }
    if (fcb->xoe.nindexes > 0) --fcb->xoe.nindexes;
    fcb->flags |= DA_FCBXOE;
    rctype rc = daclicb(icb);
    if (rc < 0 && last == 0) last = rc;
    rc = dafricb(icb);
    if (rc < 0 && last == 0) last = rc;
    return last;
}

bool inuse(DA_ICB* icb) {
    for (auto& f : icb->files)
        if (f.refcount > 0) return true;
    return false;
}

}  // namespace

[[nodiscard]] rctype daadidx(DA_FID* f, const char* name, int keyflags, int nvar, const int32_t* varnos) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (!writer(fp)) return DA_WRONGKIND;
    int nl = namelen(name);
    if (nl < 0 || !(keyflags & DA_IDXFILES)) return DA_BADARG;
    mutex_lock(&fcb->indexLock);
    rctype rc = 0;
    DA_ICB* icb = daluicb(fcb, name, nl);
    bool isnew = icb == nullptr;
    if (icb) {
        for (int k = 0; k < DA_ICBNFILES; ++k)
            if ((keyflags & kKindFlag[k]) && *icb->files[k].fiboffset >= 0) rc = DA_EXISTS;
    } else {
        if (nvar < 1 || nvar > DA_MAXKEYVARS || !varnos) rc = DA_BADARG;
        int32_t keylen = 0;
        for (int i = 0; rc == 0 && i < nvar; ++i) {
            int32_t v = varnos[i];
            if (v < 1 || v > fcb->xoe.nvar || !fcb->vars) rc = DA_BADARG;
            else if (fcb->vars[v - 1].nvar0 != v) rc = DA_INTERNAL;
            else keylen += fcb->vars[v - 1].nlng;
        }
        DA_IDXODS* r = nullptr;
        if (rc == 0 && !(r = static_cast<DA_IDXODS*>(calloc(1, daidxlen(keylen, nvar))))) rc = DA_NOMEM;
        if (rc == 0) {
            dainitidx(r, keylen, nvar);
            r->type = nvar > 1 ? DA_KEYCOMP : fcb->vars[varnos[0] - 1].type == 2 ? DA_KEYCHAR : DA_KEYNUM;
            r->keyFlags = keyflags;
            r->nvar = nvar;
            r->var = varnos[0];
            r->name_l = static_cast<int16_t>(nl);
            memcpy(r->name, name, nl);
            memcpy(r->cutname, name, nl < 8 ? nl : 8);
            memcpy(daidxnvar0(r), varnos, sizeof(int32_t) * nvar);
            // Until a build finishes, nothing in its files is to be trusted.
            r->idxState = r->auxState = r->hybState = DA_IDXDIRTY;
            da_off_t off = -1;
            if (da_writehook) da_writehook("idx");
            rc = dawrods(fcb->mdfio, r, &off);
            if (rc < 0) {
                free(r);
            } else if (!(icb = newicb(fcb, r, off))) {
                free(r);
                rc = DA_NOMEM;
            }
        }
        if (rc == 0) icb->flags |= DA_ICBNEW;
    }
    // The files, then the record that names them, then the chain and count.
    int made = 0;
    for (int k = 0; rc >= 0 && k < DA_ICBNFILES; ++k) {
        if (!(keyflags & kKindFlag[k])) continue;
        DA_FD* fd;
        rc = daopnix(fcb, k, icb, 1, &fd);
        if (rc >= 0) {
            made |= kKindFlag[k];
            *icb->files[k].state = DA_IDXDIRTY;
            *icb->files[k].filesize = 0;
            icb->head->keyFlags |= kKindFlag[k];
            if (k == DA_ICBHBX && (fcb->dshdr.ods.version & 0xffff) < 3) {
                fcb->dshdr.ods.version = DA_DSFHEAD_VER;
                fcb->flags |= DA_FCBDSHDR;
            }
        }
    }
    if (rc >= 0) {
        rc = dawridx(fcb->mdfd, icb->head, icb->headOff);
        icb->flags &= ~DA_ICBDIRTY;
    }
    if (rc >= 0 && isnew) {
        DA_ICB** pp = reinterpret_cast<DA_ICB**>(&fcb->icbs);
        DA_ICB* last = nullptr;
        while (*pp) {
            last = *pp;
            pp = &(*pp)->next;
        }
        if (last) {
            last->head->nextOff = icb->headOff;
            last->flags |= DA_ICBDIRTY;
            rc = daflicb(last);
        } else {
            fcb->dshdr.links[DA_LNKIDX] = icb->headOff;
            fcb->flags |= DA_FCBDSHDR;
        }
        if (rc >= 0) {
            *pp = icb;
            ++fcb->xoe.nindexes;
            fcb->flags |= DA_FCBXOE;
        }
    }
    if (rc >= 0) rc = daflfcb(fcb);
    if (rc < 0 && icb) {
        // Nothing of a failed add stays: the files it made go, and a new record is let go.
        for (int k = 0; k < DA_ICBNFILES; ++k) {
            DA_ICBFD& fl = icb->files[k];
            if (!(made & kKindFlag[k]) || !fl.fd) continue;
            daignore(fl.fd->fddelete(fl.fd, *fl.fiboffset));
            daignore(fl.fd->fdclose(fl.fd));
            fl.fd = nullptr;
            *fl.fiboffset = -1;
        }
        if (isnew) {
            bool linked = false;
            for (DA_ICB* i = first(fcb); i; i = i->next) linked |= i == icb;
            if (linked) daignore(dropicb(fcb, icb));
            else daignore(dafricb(icb));
        } else if (made) {
            icb->flags |= DA_ICBDIRTY;
            daignore(daflicb(icb));
        }
        daignore(daflfcb(fcb));
    }
    daidxviews(fcb);
    mutex_unlock(&fcb->indexLock);
    return rc < 0 ? rc : 0;
}

[[nodiscard]] rctype dadridx(DA_FID* f, const char* name, int) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (!writer(fp)) return DA_WRONGKIND;
    int nl = namelen(name);
    if (nl < 0) return DA_BADARG;
    mutex_lock(&fcb->indexLock);
    DA_ICB* icb = daluicb(fcb, name, nl);
    rctype rc;
    if (!icb) rc = DA_NOTFOUND;
    else if (inuse(icb)) rc = DA_INUSE;
    else {
        rc = dropicb(fcb, icb);
        rctype frc = daflfcb(fcb);
        if (rc >= 0) rc = frc;
    }
    daidxviews(fcb);
    mutex_unlock(&fcb->indexLock);
    return rc;
}

[[nodiscard]] rctype darpidx(DA_FID* f, const char* target, const char* source, int) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (!writer(fp)) return DA_WRONGKIND;
    int tl = namelen(target), sl = namelen(source);
    if (tl < 0 || sl < 0) return DA_BADARG;
    mutex_lock(&fcb->indexLock);
    rctype rc = 0;
    DA_ICB* src = daluicb(fcb, source, sl);
    DA_ICB* tgt = daluicb(fcb, target, tl);
    if (!src) rc = DA_NOTFOUND;
    else if (src == tgt) rc = 0;
    else if (inuse(src) || (tgt && inuse(tgt))) rc = DA_INUSE;
    else {
        if (tgt) rc = dropicb(fcb, tgt);
        // The source's files take the target's name, then its record does.
        for (int k = 0; rc >= 0 && k < DA_ICBNFILES; ++k) {
            DA_ICBFD& fl = src->files[k];
            if (!fl.fd) continue;
            char nn[80];
            int nlen = dadsnam(kKindNames[k], fcb->iname, fcb->inameLen, target, tl, nn);
            rc = fl.fd->fdrename(fl.fd, *fl.fiboffset, nn, nlen);
        }
        if (rc >= 0) {
            memset(src->head->name, 0, sizeof src->head->name);
            memcpy(src->head->name, target, tl);
            src->head->name_l = static_cast<int16_t>(tl);
            src->flags |= DA_ICBDIRTY;
            rc = daflicb(src);
        }
        rctype frc = daflfcb(fcb);
        if (rc >= 0) rc = frc;
    }
    daidxviews(fcb);
    mutex_unlock(&fcb->indexLock);
    return rc;
}

[[nodiscard]] rctype daqyidx(DA_FID* f, int nvar0, int nkstr, DA_KEYSTR* kstr) {
    DA_FCB* fcb = fidpof(f)->fcb;
    mutex_lock(&fcb->indexLock);
    int n = 0;
    for (DA_ICB* i = first(fcb); i; i = i->next) {
        if (nvar0 != 0 && (i->head->nvar < 1 || daidxnvar0(i->head)[0] != nvar0)) continue;
        if (n < nkstr && kstr) {
            fillkstr(i);
            kstr[n] = i->kstr;
        }
        ++n;
    }
    mutex_unlock(&fcb->indexLock);
    return n;
}

[[nodiscard]] rctype daqyicb(DA_FID* f, const char* name, DA_KEYSTR* kstr) {
    DA_FCB* fcb = fidpof(f)->fcb;
    int nl = namelen(name);
    if (nl < 0) return DA_BADARG;
    mutex_lock(&fcb->indexLock);
    DA_ICB* icb = daluicb(fcb, name, nl);
    if (icb && kstr) {
        fillkstr(icb);
        *kstr = icb->kstr;
    }
    mutex_unlock(&fcb->indexLock);
    return icb ? 0 : DA_NOTFOUND;
}

[[nodiscard]] rctype dastkst(DA_FID* f, const char* name, const DA_KEYSTAT* ks) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    if (fp->mode == DA_OMINPUT) return DA_WRONGKIND;
    int nl = namelen(name);
    if (nl < 0 || !ks) return DA_BADARG;
    mutex_lock(&fcb->indexLock);
    DA_ICB* icb = daluicb(fcb, name, nl);
    rctype rc = DA_NOTFOUND;
    if (icb) {
        DA_IDXKST* k = icb->idxkst;
        if (ks->minmax) memcpy(k->minmax, ks->minmax, 2 * static_cast<size_t>(icb->head->length));
        k->numvals = ks->numvals;
        k->nummiss = ks->nummiss;
        icb->head->highobs = ks->highobs;
        icb->head->finstat = ks->finstat;
        icb->flags |= DA_ICBDIRTY | DA_ICBKSTDIRTY;
        rc = daflicb(icb);
        fillkstr(icb);
        daidxviews(fcb);
    }
    mutex_unlock(&fcb->indexLock);
    return rc;
}

}  // namespace vrta

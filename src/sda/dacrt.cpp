// Creating a table: the records in memory, then the files in an order that
// leaves nothing half-trusted behind a crash, and the definition of its
// columns, which completes it.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "sda/dafid.h"
#include "sda/danames.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

[[nodiscard]] rctype daivbcb(DA_FCB*) __attribute__((weak));
[[nodiscard]] rctype daifbcb(DA_FCB*) __attribute__((weak));

namespace {

[[nodiscard]] rctype fdioread(void* ctx, void* buf, long size, da_off_t off, long* nread) {
    auto* fd = static_cast<DA_FD*>(ctx);
    return fd->fdread(fd, buf, size, off, nread);
}
[[nodiscard]] rctype fdiowrite(void* ctx, const void* buf, long size, da_off_t* off) {
    auto* fd = static_cast<DA_FD*>(ctx);
    if (da_writehook) da_writehook("mdf");
    return fd->fdwrite(fd, buf, size, off);
}

void blankcopy(char* dst, const char* src, size_t n) {
    size_t l = src ? strnlen(src, n) : 0;
    memcpy(dst, src ? src : "", l);
    memset(dst + l, ' ', n - l);
}

// The string pool moved its head: the table's header points to the new place.
void daupstrph(void* closure, da_off_t newoff) {
    auto* fcb = static_cast<DA_FCB*>(closure);
    fcb->dshdr.links[DA_LNKSTRP] = newoff;
    fcb->flags |= DA_FCBDSHDR;
}

}  // namespace

DA_ODSIO damdfio(DA_FCB* fcb) { return DA_ODSIO{fdioread, fdiowrite, fcb->mdfd, fcb->iname}; }

DA_FDSTR dafdname(const DA_FCB* fcb, int kind, DA_PATHINFO* paths, int npath, const char** pbuf, char* namebuf) {
    DA_FDSTR fs{};
    fs.namelen = dadsnam(kind, fcb->iname, fcb->inameLen, nullptr, 0, namebuf);
    fs.name = namebuf;
    fs.numpath = npath;
    for (int i = 0; i < npath; ++i) pbuf[i] = paths[i].path;
    fs.paths = pbuf;
    fs.perms = -1;
    fs.minfree = -1;
    fs.fiboff = -1;
    return fs;
}

da_strpmoved_t dastrpmovedcb() { return daupstrph; }

DA_FCB* danewfcb(DA_LIBP* lp, const char* name, int namelen, int mode) {
    auto* fcb = static_cast<DA_FCB*>(calloc(1, sizeof(DA_FCB)));
    if (!fcb) return nullptr;
    snprintf(fcb->name, sizeof fcb->name, "%.*s", namelen, name);
    for (int i = 0; i < namelen && i < 32; ++i)
        fcb->iname[i] = static_cast<char>(tolower(static_cast<unsigned char>(name[i])));
    fcb->inameLen = static_cast<int>(strlen(fcb->iname));
    fcb->lib = lp;
    fcb->mode = mode;
    fcb->refCount = 1;
    mutex_init(&fcb->indexLock);
    mutex_init(&fcb->aclLock);
    mutex_init(&fcb->dynupdLock);
    rwlock_init(&fcb->updateLock);
    rwlock_init(&fcb->shareLock);
    dalinkinit(&fcb->fids);
    dalinkinit(&fcb->link);
    return fcb;
}

[[nodiscard]] rctype dacrfcb(DA_LIBP* lp, DA_OPNSTR* ostr, DA_FCB** newfcb) {
    bool acl = ostr->semtype == DA_SEMVRTAACL;
    DA_FCB* fcb = danewfcb(lp, ostr->name, ostr->name_l, DA_OMOUTPUT);
    if (!fcb) return DA_NOMEM;
    fcb->oflags = ostr->flags;
    fcb->updateLockInit = 1;
    if (ostr->flags & DA_OFDYNAMIC) fcb->shareLockInit = 1;

    DA_DSFHEAD& h = fcb->dshdr;
    dainitdsfh(&h);
    h.origtime = static_cast<int32_t>(time(nullptr));
    h.flags = acl ? 0 : 1;
    DA_XOEODS& x = fcb->xoe;
    dainitxoe(&x);
    x.label_l = ostr->label_l > 0 && ostr->label_l <= 256 ? ostr->label_l : 0;
    memcpy(x.label, ostr->label, x.label_l);
    x.sysid = ostr->sysid;
    x.dsorg = ostr->dsorg;
    x.idxsegsize = ostr->idxsegsize > 0 ? ostr->idxsegsize : 8192;
    if (ostr->dstype[0]) memcpy(x.dstype, ostr->dstype, 8);
    memcpy(x.who_created, ostr->who_created, 8);
    memcpy(x.who_modified, ostr->who_created, 8);
    x.credate = ostr->credate;
    x.moddate = ostr->credate;
    x.semtype = ostr->semtype;
    x.id_incr = 1;
    x.lang = ostr->lang;
    x.ltype = ostr->ltype;
    memcpy(x.ds_version, ostr->ds_version, 8);
    memcpy(x.ds_version_comp, ostr->ds_version_comp, 8);
    memcpy(x.client_sysname, ostr->client_sysname, 8);
    memcpy(x.server_sysname, ostr->server_sysname, 8);
    if (ostr->blockgrow > 0) x.blockgrow = ostr->blockgrow;
    x.blocksize = ostr->blocksize;

    x.flags = DA_XOECRE20 | DA_XOECRE40;
    if (ostr->flags & DA_OFKEEPKEY) {
        int kl = ostr->keylen < 0 ? 0 : ostr->keylen > 12 ? 12 : ostr->keylen;
        memset(x.korpw, 0, sizeof x.korpw);
        memcpy(x.korpw, ostr->encrypt_key, kl);
        x.flags |= DA_XOEKORPW;
    }
    if (ostr->flags & DA_OFALIGN) x.flags |= DA_XOEALIGN;
    if (ostr->flags & DA_OFBACKUP) x.flags |= DA_XOEBACKUP;
    if (ostr->flags & DA_OFXOE100) x.flags |= 0x100;
    if (ostr->flags & DA_OFXOE800) x.flags |= 0x800;
    if (ostr->reuse == DA_ADDAVAILREUSE) x.flags |= DA_ADDAVAIL;

    rctype rc = 0;
    if (ostr->encoding_cei == 0) {
        if (!acl) rc = DA_NOENCODING;
        else x.encoding_cei = 28;
    } else {
        x.encoding_cei = ostr->encoding_cei;
    }
    if (rc == 0) {
        if (ostr->locale[0] == '\0' || ostr->locale[0] == ' ') {
            if (!acl) rc = DA_NOLOCALE;
            else memset(x.locale, ' ', sizeof x.locale);
        } else {
            blankcopy(x.locale, ostr->locale, sizeof x.locale);
        }
    }
    if (rc < 0) {
        daignore(dafrfcb(fcb, 2));
        return rc;
    }
    if (dagcb.nlstranscode) {
        fcb->encoding = x.encoding_cei;
        memcpy(fcb->locale, x.locale, sizeof fcb->locale);
    } else {
        fcb->encoding = 28;
        memset(fcb->locale, ' ', sizeof fcb->locale);
    }
    if (ostr->transfersize > 0) {
        x.transfersize = ostr->transfersize;
        x.transferquantum = ostr->transferquantum;
        x.flags |= DA_XOEEXPORT;
    }
    dainitsin(&fcb->sort);
    dainitown(&fcb->owner);
    memcpy(&fcb->owner.tokenLen, &ostr->owner_token, sizeof(DA_OWNINFO));
    fcb->owner.tokenLen = 28;
    dainitbkup(&fcb->backup);

    DA_XCB* xcb = nullptr;
    if (ostr->flags & (DA_OFCOMPRESS | DA_OFENCRYPT)) {
        int want = ((ostr->flags & DA_OFCOMPRESS) ? 1 : 0) | ((ostr->flags & DA_OFENCRYPT) ? 2 : 0);
        char asked[9];
        snprintf(asked, sizeof asked, "%.8s", ostr->diskcomp);
        if (asked[0] == '.') rc = DA_BADARG;
        char resname[9] = {0};
        if (rc == 0) rc = daxcname(want, ostr->diskcomp, resname);
        if (rc == 0) rc = daldxcb(resname, &xcb);
        if (rc == 0) rc = daxccheck(xcb, want, asked);
        if (rc == 0) {
            fcb->xcext = static_cast<DA_XCEXT*>(calloc(1, sizeof(DA_XCEXT)));
            if (!fcb->xcext) rc = DA_NOMEM;
        }
        if (rc < 0) {
            if (xcb) daignore(dafrxcb(xcb));
            daignore(dafrfcb(fcb, 2));
            return rc;
        }
        fcb->xcext->xcb = xcb;
        fcb->xcext->xcmode = DA_XCMCREATE;
        dainitxch(&fcb->xcext->xchdr);
        x.flags |= want & 3;
        memcpy(x.diskcomp, resname, 8);
        x.semtype = (xcb->xcflags & DA_XCFIXED) ? DA_SEMXCFBS : DA_SEMXCVBS;
        int kl = ostr->keylen < 0 ? 0 : ostr->keylen > 40 ? 40 : ostr->keylen;
        fcb->xcext->keylen = kl;
        memcpy(fcb->xcext->keybuf, ostr->encrypt_key, kl);
    }
    if (!acl) x.partsize = ostr->partsize > 0 ? ostr->partsize : 0;

    // The files. Any failure from here on discards the table without a flush.
    const char* pbuf[64];
    int nmeta = acl ? 1 : (lp->nummeta > 64 ? 64 : lp->nummeta);
    char mdfname[48];
    DA_FDSTR fs = dafdname(fcb, 0, lp->meta, nmeta, pbuf, mdfname);
    fs.flags = DA_FDCREATE | DA_FDFORCE1ST | DA_FDEOFERR | DA_FDSHORTERR;
    memcpy(fs.ds_rv_wr, ostr->rv_120, sizeof fs.ds_rv_wr);
    rc = dafdopn(&fs, &fcb->mdfd);
    if (rc < 0) {
        if (rc == DA_EXISTS || rc == DA_ACCESS) rc = DA_EXISTS;
        daignore(dafrfcb(fcb, 2));
        return rc;
    }
    fcb->mdfio = damdfio(fcb);
    fcb->hdrOff = fcb->mdfd->baseoff;
    memcpy(fcb->reqvec, fcb->mdfd->p_req_vec, 24);

    // The header goes first, at the base offset, with bit 0 set until a clean close.
    da_off_t off = -1;
    rc = dawrods(fcb->mdfio, &h, &off);
    if (rc == 0 && off != fcb->hdrOff) rc = DA_INTERNAL;
    struct {
        const void* rec;
        int link;
    } recs[] = {{&x, DA_LNKXOE}, {&fcb->sort, DA_LNKSIN}, {&fcb->owner, DA_LNKOWN}, {&fcb->backup, DA_LNKBACKUP}};
    for (auto& r : recs) {
        if (rc < 0) break;
        da_off_t o = -1;
        rc = dawrods(fcb->mdfio, r.rec, &o);
        h.links[r.link] = o;
    }
    if (rc == 0 && fcb->xcext) {
        // Without the cursor layer linked there is no block state to make.
        if (x.semtype == DA_SEMXCVBS) rc = daivbcb ? daivbcb(fcb) : 0;
        else rc = daifbcb ? daifbcb(fcb) : 0;
        if (rc == 0 && (xcb->xcflags & DA_XCBAG)) {
            da_off_t o = -1;
            rc = dawrods(fcb->mdfio, &fcb->xcext->xchdr, &o);
            h.links[DA_LNKXCH] = o;
        }
    }
    if (rc == 0) {
        int ndata = acl ? 1 : (lp->numdata > 64 ? 64 : lp->numdata);
        char dpfname[48];
        DA_FDSTR ds = dafdname(fcb, 1, acl ? &lp->lib : lp->data, ndata, pbuf, dpfname);
        ds.numstripe = lp->datastripes;
        ds.flags = DA_FDCREATE | DA_FDINDIRECT | DA_FDEOFERR | DA_FDSHORTERR;
        if (x.partsize > 0) {
            ds.flags |= DA_FDPARTSIZE;
            ds.maxpar = x.partsize;
        }
        if ((ostr->flags & DA_OFRANDPATH) && ndata > 1) {
            ds.flags |= DA_FDRANDPLACE;
            ds.firstplace = dagetranpath(lp, ndata);
        }
        ds.mdfd = fcb->mdfd;
        memcpy(ds.ds_rv_wr, ostr->rv_120, sizeof ds.ds_rv_wr);
        rc = dafdopn(&ds, &fcb->dffd);
        if (rc >= 0) {
            rc = 0;
            h.links[DA_LNKDPFFIB] = ds.fiboff;
        }
    }
    if (rc == 0) {
        da_off_t o = fcb->hdrOff;
        rc = dawrods(fcb->mdfio, &h, &o);
    }
    if (rc < 0) {
        // Take back the files this create made.
        if (fcb->dffd) daignore(fcb->dffd->fddelete(fcb->dffd, h.links[DA_LNKDPFFIB]));
        if (fcb->mdfd) daignore(fcb->mdfd->fddelete(fcb->mdfd, -1));
        daignore(dafrfcb(fcb, 2));
        return rc;
    }
    rc = hsnlsgetenv(fcb->encoding, fcb->locale, -1, 0, &fcb->nlsenv);
    if (rc < 0) {
        fcb->nlsenv = nullptr;
        if (fcb->dffd) daignore(fcb->dffd->fddelete(fcb->dffd, h.links[DA_LNKDPFFIB]));
        daignore(fcb->mdfd->fddelete(fcb->mdfd, -1));
        daignore(dafrfcb(fcb, 2));
        return rc;
    }
    dalinkadd(&lp->fcbs, &fcb->link);
    *newfcb = fcb;
    return 0;
}

// Writes the names and labels to the string pool and the vector to the MDF.
[[nodiscard]] rctype dastv7nam(DA_FCB* fcb, int nvars, DA_NAMESTR* vars) {
    auto* v = static_cast<DA_NAME7ODS*>(calloc(nvars, sizeof(DA_NAME7ODS)));
    if (!v) return DA_NOMEM;
    rctype rc = 0;
    for (int i = 0; i < nvars && rc == 0; ++i) {
        v[i] = static_cast<DA_NAME7ODS&>(vars[i]);
        struct {
            const char* s;
            int16_t l;
            int32_t* pid;
        } strs[] = {{vars[i].name, vars[i].name_l, &v[i].namepid},
                    {vars[i].label, vars[i].label_l, &v[i].labelpid},
                    {vars[i].nform, vars[i].nform_l, &v[i].nformpid},
                    {vars[i].niform, vars[i].niform_l, &v[i].niformpid}};
        for (auto& s : strs) {
            *s.pid = -1;
            if (!s.s || s.l <= 0) continue;
            void* mem = nullptr;
            rc = dastrpalloc(fcb->phdl, s.l, s.pid, &mem);
            if (rc < 0) break;
            memcpy(mem, s.s, s.l);
        }
    }
    if (rc == 0) rc = daflstrp(fcb->phdl);
    if (rc == 0) {
        da_off_t off = -1;
        if (da_writehook) da_writehook("names");
        rc = fcb->mdfd->fdwrite(fcb->mdfd, v, static_cast<long>(nvars) * sizeof(DA_NAME7ODS), &off);
        if (rc >= 0) {
            rc = 0;
            fcb->dshdr.links[DA_LNKNAMES] = off;
            fcb->flags |= DA_FCBDSHDR;
        }
    }
    free(v);
    return rc;
}

// The in-memory columns: descriptors with their strings in one allocation.
[[nodiscard]] rctype dabldvars(DA_FCB* fcb, int nvars, const DA_NAME7ODS* v) {
    size_t strbytes = 0;
    for (int i = 0; i < nvars; ++i)
        strbytes += 4 + (v[i].name_l > 0 ? v[i].name_l : 0) + (v[i].label_l > 0 ? v[i].label_l : 0) +
                    (v[i].nform_l > 0 ? v[i].nform_l : 0) + (v[i].niform_l > 0 ? v[i].niform_l : 0);
    size_t head = static_cast<size_t>(nvars) * sizeof(DA_NAMESTR);
    auto* mem = static_cast<char*>(calloc(1, head + strbytes + 1));
    if (!mem) return DA_NOMEM;
    auto* ns = reinterpret_cast<DA_NAMESTR*>(mem);
    char* sp = mem + head;
    rctype rc = 0;
    for (int i = 0; i < nvars; ++i) {
        static_cast<DA_NAME7ODS&>(ns[i]) = v[i];
        ns[i].minmaxpid = -1;
        struct {
            int32_t pid;
            int16_t l;
            char** out;
        } strs[] = {{v[i].namepid, v[i].name_l, &ns[i].name},
                    {v[i].labelpid, v[i].label_l, &ns[i].label},
                    {v[i].nformpid, v[i].nform_l, &ns[i].nform},
                    {v[i].niformpid, v[i].niform_l, &ns[i].niform}};
        for (auto& s : strs) {
            *s.out = sp;
            if (s.l > 0) {
                void* src = dastrpaddr(fcb->phdl, s.pid, s.l);
                if (!src) rc = DA_INTERNAL;
                else memcpy(sp, src, s.l);
                sp += s.l;
            }
            *sp++ = '\0';
        }
    }
    if (rc < 0) {
        free(mem);
        return rc;
    }
    free(fcb->vars);
    fcb->vars = ns;
    return 0;
}

[[nodiscard]] rctype daldefv(DA_FID* f, int nvars, DA_NAMESTR* vars) {
    DA_FIDP* fp = fidpof(f);
    DA_FCB* fcb = fp->fcb;
    DA_XOEODS& x = fcb->xoe;
    if (x.nvar > 0 || nvars <= 0 || !vars) return DA_BADARG;
    int64_t obslen = 0;
    for (int i = 0; i < nvars; ++i) {
        if (vars[i].nlng <= 0 || vars[i].npos < 0 || (vars[i].type != 1 && vars[i].type != 2)) return DA_BADARG;
        // A column's number is its place, from 1; a caller may leave it 0.
        if (vars[i].nvar0 != 0 && vars[i].nvar0 != i + 1) return DA_BADARG;
        if (vars[i].type == 1 && vars[i].nlng > 8) return DA_BADARG;
        obslen += vars[i].nlng;
    }
    // Columns that overlap or leave the row are refused.
    int64_t maxend = 0;
    for (int i = 0; i < nvars; ++i) maxend = std::max<int64_t>(maxend, vars[i].npos + vars[i].nlng);
    if (maxend > obslen) return DA_BADARG;
    if (obslen <= 0 || obslen > 0x7fffffff) return DA_BADARG;
    for (int i = 0; i < nvars; ++i) vars[i].nvar0 = i + 1;

    rctype rc = 0;
    if (!fcb->phdl) {
        rc = dastrpini(fcb->mdfd, dastrpmovedcb(), fcb, &fcb->phdl);
        if (rc < 0) return rc;
        fcb->dshdr.links[DA_LNKSTRP] = fcb->phdl->offset;
        fcb->flags |= DA_FCBDSHDR;
    }
    rc = dastv7nam(fcb, nvars, vars);
    if (rc < 0) return rc;
    {
        auto* v = static_cast<DA_NAME7ODS*>(calloc(nvars, sizeof(DA_NAME7ODS)));
        if (!v) return DA_NOMEM;
        DA_ODSIO io = damdfio(fcb);
        rc = dardnam7(io, v, nvars, fcb->dshdr.links[DA_LNKNAMES]);
        if (rc == 0) rc = dabldvars(fcb, nvars, v);
        free(v);
        if (rc < 0) return rc;
    }
    x.nvar = nvars;
    for (int i = 0; i < nvars; ++i)
        if (fcb->vars[i].flags & DA_NAMKEEPMM) {
            rc = dastvstat(fcb);
            if (rc < 0) return rc;
            x.flags |= DA_XOEVSTAT | DA_XOEMINMAX;
            break;
        }
    if ((x.flags & DA_XOEALIGN) && nvars > 0) {
        for (int i = 0; i < nvars; ++i)
            if (vars[i].npos == 0 && vars[i].type == 1 && vars[i].nlng == 8) obslen = (obslen + 7) & ~7LL;
    }
    x.nvar = nvars;
    x.obslen = static_cast<int32_t>(obslen);
    x.ioreclen = x.obslen;
    int32_t bs = fp->blocksize > 0 ? fp->blocksize : (x.blocksize > 0 ? x.blocksize : 8192);
    x.blockfactor = bs / x.obslen;
    if (x.blockfactor < 1) x.blockfactor = 1;
    x.blocksize = x.obslen * x.blockfactor;
    if (x.flags & DA_XOEEXPORT) x.transferfactor = x.transfersize / x.obslen;
    bool exit = (x.flags & (DA_XOECOMP | DA_XOECRYPT)) != 0;
    if (exit) {
        int64_t m = dalcm32(x.blockfactor);
        x.idxsegsize = m * std::max<int64_t>(1, x.idxsegsize / m);
    }
    if (exit || x.semtype == DA_SEMDATA) x.odsreclen = x.obslen;
    else x.odsreclen = (x.obslen + 5) / 3 * 4;
    if (exit) {
        int64_t span = 0x7fffffffLL / (static_cast<int64_t>(x.blockfactor) << 20);
        span = (span + 31) / 32 * 32;
        fcb->vbvspan = static_cast<int32_t>(span < 32 ? 32 : span);
        if (fcb->xcext && fcb->xcext->xcb) {
            char lpath[1024];
            snprintf(lpath, sizeof lpath, "%s", fcb->lib->lib.path ? fcb->lib->lib.path : "");
            rc = daxcopen(fcb->xcext, lpath, fcb->iname, x.credate, x.blocksize);
            if (rc < 0) return rc;
            // The bag the exit made at create is kept at once, not only at close.
            if (fcb->dshdr.links[DA_LNKXCH] >= 0) {
                da_off_t o = fcb->dshdr.links[DA_LNKXCH];
                rc = dawrods(fcb->mdfio, &fcb->xcext->xchdr, &o);
                if (rc < 0) return rc;
            }
        }
    }
    if (x.partsize > 0) {
        int64_t pf = x.partsize / x.odsreclen;
        if (exit) pf = (pf + x.blockfactor - 1) / x.blockfactor * x.blockfactor;
        else if (x.flags & DA_XOEEXPORT) {
            int64_t tf = x.transferfactor > 0 ? x.transferfactor : 1;
            pf = std::max<int64_t>(tf, pf / tf * tf);
        } else {
            pf = pf / 32 * 32;
            if (pf < 32) pf = 32;
        }
        x.partfactor = pf;
        x.partsize = x.odsreclen * pf;
    }
    fp->numvar = nvars;
    fp->vars = fp->allvars = fcb->vars;
    fp->blockfactor = x.blockfactor;
    fp->blocksize = x.blocksize;
    fp->segsize = x.idxsegsize;
    fcb->flags |= DA_FCBXOE | DA_FCBDSHDR;
    return daflfcb(fcb);
}

// In util mode the columns may be redefined when the table holds no rows.
[[nodiscard]] rctype dalupdv(DA_FID* f, int nvars, DA_NAMESTR* vars) {
    DA_FCB* fcb = fcbof(f);
    if (fcb->xoe.nvar == 0) return daldefv(f, nvars, vars);
    if (fcb->xoe.numobs != 0 || fcb->xoe.nindexes != 0) return DA_BADARG;
    fcb->xoe.nvar = 0;
    rctype rc = daldefv(f, nvars, vars);
    return rc;
}

}  // namespace vrta

// A table's constraint text: kept in the string pool in pieces of at most one
// section, listed by one record of the MDF. const_l is the whole length;
// the first piece is at constpid, the others in nextid/nextlen.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

namespace {

constexpr long PIECE = DA_STRPSECTSIZE;
constexpr long MAXCONST = PIECE * 257;  // 1,052,672 bytes

[[nodiscard]] rctype openmember(DA_LIB* lp, const char* name, int mode, DA_FID** fp) {
    DA_OPNSTR o{};
    o.name = name;
    o.name_l = static_cast<int>(strlen(name));
    o.mode = mode;
    o.flags = DA_OFCONSTR;
    memcpy(o.dstype, "DATA    ", 8);
    o.blockgrow = -1;
    uint64_t missing = ~0ULL;
    memcpy(&o.moddate, &missing, 8);
    rctype rc = daopen(lp, &o, fp);
    return rc < 0 ? rc : 0;
}

}  // namespace

[[nodiscard]] rctype daldconst(DA_FCB* fcb) {
    da_off_t off = fcb->dshdr.links[DA_LNKCONST];
    if (off < 0 || fcb->constr) return 0;
    DA_CONSTODS c;
    rctype rc = dardcons(fcb->mdfio, &c, off);
    if (rc < 0) return rc;
    if (!fcb->phdl) return DA_INTERNAL;
    const DA_CONSTID& id = c.cid;
    if (id.numpids < 1 || id.const_l <= 0) return DA_INTERNAL;
    long rest = id.const_l;
    for (int i = 0; i < id.numpids - 1; ++i) rest -= id.nextlen[i];
    long firstlen = rest;
    if (firstlen <= 0 || firstlen > PIECE) return DA_INTERNAL;
    char* first = static_cast<char*>(dastrpaddr(fcb->phdl, id.constpid, static_cast<int32_t>(firstlen)));
    if (!first) return DA_INTERNAL;
    if (id.numpids == 1) {
        // One piece is read where it lies in the pool.
        fcb->constr = first;
        fcb->constrMalloc = 0;
        return 0;
    }
    char* buf = static_cast<char*>(malloc(id.const_l + 1));
    if (!buf) return DA_NOMEM;
    memcpy(buf, first, firstlen);
    long at = firstlen;
    for (int i = 0; i < id.numpids - 1; ++i) {
        char* p = static_cast<char*>(dastrpaddr(fcb->phdl, id.nextid[i], id.nextlen[i]));
        if (!p || id.nextlen[i] <= 0) {
            free(buf);
            return DA_INTERNAL;
        }
        memcpy(buf + at, p, id.nextlen[i]);
        at += id.nextlen[i];
    }
    buf[at] = '\0';
    fcb->constr = buf;
    fcb->constrMalloc = 1;
    return 0;
}

[[nodiscard]] rctype dasetconstraint(DA_LIB* lp, const char* name, const char* text, long len) {
    if (!text || len <= 0) return DA_BADARG;
    if (len > MAXCONST) return DA_TOOLONG;
    DA_FID* fp = nullptr;
    rctype rc = openmember(lp, name, DA_OMUPDATE, &fp);
    if (rc < 0) return rc;
    DA_FCB* fcb = fcbof(fp);
    if (fcb->dshdr.links[DA_LNKCONST] >= 0) {
        daignore(darclos(fp));
        return DA_HASCONST;
    }
    DA_CONSTODS c;
    dainitcons(&c);
    c.cid.const_l = static_cast<int32_t>(len);
    int npieces = static_cast<int>((len + PIECE - 1) / PIECE);
    c.cid.numpids = npieces;
    for (int i = 0; i < npieces && rc == 0; ++i) {
        long l = len - i * PIECE < PIECE ? len - i * PIECE : PIECE;
        int32_t id = -1;
        void* mem = nullptr;
        rc = dastrpalloc(fcb->phdl, static_cast<int32_t>(l), &id, &mem);
        if (rc < 0) break;
        memcpy(mem, text + i * PIECE, l);
        if (i == 0) c.cid.constpid = id;
        else {
            c.cid.nextid[i - 1] = id;
            c.cid.nextlen[i - 1] = static_cast<int32_t>(l);
        }
    }
    // Pieces, then the record, then the header that points at it.
    if (rc == 0) rc = daflstrp(fcb->phdl);
    da_off_t off = -1;
    if (rc == 0) rc = dawrods(fcb->mdfio, &c, &off);
    if (rc == 0) {
        fcb->dshdr.links[DA_LNKCONST] = off;
        fcb->dshdr.ods.version = DA_DSFHEAD_VERC;
        fcb->xoe.flags |= DA_XOECONST;
        fcb->flags |= DA_FCBDSHDR | DA_FCBXOE;
        rc = daflfcb(fcb);
    }
    rctype crc = darclos(fp);
    return rc < 0 ? rc : crc;
}

[[nodiscard]] rctype dadelconstraint(DA_LIB* lp, const char* name) {
    DA_FID* fp = nullptr;
    rctype rc = openmember(lp, name, DA_OMUPDATE, &fp);
    if (rc < 0) return rc;
    DA_FCB* fcb = fcbof(fp);
    da_off_t off = fcb->dshdr.links[DA_LNKCONST];
    if (off < 0) {
        daignore(darclos(fp));
        return DA_NOTFOUND;
    }
    DA_CONSTODS c;
    rc = dardcons(fcb->mdfio, &c, off);
    if (rc == 0) {
        // The header forgets the record first; the pool pieces are given back after.
        fcb->dshdr.links[DA_LNKCONST] = -1;
        fcb->dshdr.ods.version = DA_DSFHEAD_VER;
        fcb->xoe.flags &= ~DA_XOECONST;
        fcb->flags |= DA_FCBDSHDR | DA_FCBXOE;
        rc = daflfcb(fcb);
    }
    if (rc == 0) {
        long rest = c.cid.const_l;
        for (int i = 0; i < c.cid.numpids - 1; ++i) {
            if (rc == 0) rc = dastrpfree(fcb->phdl, c.cid.nextid[i], c.cid.nextlen[i]);
            rest -= c.cid.nextlen[i];
        }
        if (rc == 0 && rest > 0) rc = dastrpfree(fcb->phdl, c.cid.constpid, static_cast<int32_t>(rest));
        if (fcb->constrMalloc) free(fcb->constr);
        fcb->constr = nullptr;
        fcb->constrMalloc = 0;
        rctype frc = daflstrp(fcb->phdl);
        if (rc == 0) rc = frc;
    }
    rctype crc = darclos(fp);
    return rc < 0 ? rc : crc;
}

[[nodiscard]] rctype dalistconstraint(DA_LIB* lp, const char* name, char** text, long* len) {
    *text = nullptr;
    *len = 0;
    DA_FID* fp = nullptr;
    rctype rc = openmember(lp, name, DA_OMINPUT, &fp);
    if (rc < 0) return rc;
    DA_FCB* fcb = fcbof(fp);
    if (!fcb->constr) {
        daignore(darclos(fp));
        return DA_NOTFOUND;
    }
    DA_CONSTODS c;
    rc = dardcons(fcb->mdfio, &c, fcb->dshdr.links[DA_LNKCONST]);
    if (rc == 0) {
        *text = static_cast<char*>(malloc(c.cid.const_l + 1));
        if (!*text) rc = DA_NOMEM;
        else {
            memcpy(*text, fcb->constr, c.cid.const_l);
            (*text)[c.cid.const_l] = '\0';
            *len = c.cid.const_l;
        }
    }
    rctype crc = darclos(fp);
    return rc < 0 ? rc : crc;
}

}  // namespace vrta

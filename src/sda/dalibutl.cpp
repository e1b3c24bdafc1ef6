// Utility members and work files: logical files of the library that are not
// tables. A utility file keeps a small head in front of its data; the
// methods hide it by shifting every offset.
#include "sda/da.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "sda/dalibint.h"
#include "sda/darc.h"
#include "sda/dafd.h"
#include "sda/danames.h"
#include "sda/daods.h"

namespace vrta {

namespace {

constexpr int KUTIL = 4;
constexpr long UTLHEADLEN = 156;
static_assert(sizeof(DA_UTLHEAD2) == UTLHEADLEN);

bool firstexists(const char* dir, const char* base) {
    char pfn[1024];
    if (damkpfn(pfn, DA_PFNOWNFIB, base, 0, "0", 0, sizeof pfn) < 0) return false;
    struct stat st;
    return stat((std::string(dir) + pfn).c_str(), &st) == 0;
}

[[nodiscard]] rctype ufclo(DA_UFILE* uf) {
    if (!uf) return DA_BADARG;
    rctype rc = uf->fd ? uf->fd->fdclose(uf->fd) : 0;
    rctype lrc = uf->lid ? daulmem(uf->lib, uf->lid, DA_LKMEMBER, uf->omode, thr_self()) : 0;
    xmfree(dagcb.pool, uf, sizeof *uf);
    return rc < 0 ? rc : lrc;
}

[[nodiscard]] rctype uftrc(DA_UFILE* uf, da_off_t endoff) {
    if (endoff < 0) return DA_BADARG;
    return uf->fd->fdtrunc(uf->fd, uf->dataoff + endoff);
}

[[nodiscard]] rctype ufren(DA_UFILE* uf, const char* newname) {
    std::string to = lowername(newname);
    if (to.empty()) return DA_BADARG;
    char base[128];
    int n = dadsnam(KUTIL, to.c_str(), static_cast<int>(to.size()), uf->type, -1, base);
    if (n < 0) return DA_BADARG;
    if (firstexists(uf->lib->meta[0].path, base)) return DA_EXISTS;
    rctype rc = uf->fd->fdrename(uf->fd, -1, base, n);
    if (rc >= 0) snprintf(uf->name, sizeof uf->name, "%s", to.c_str());
    return rc;
}

[[nodiscard]] rctype ufread(DA_UFILE* uf, void* buf, long size, da_off_t off, long* nread) {
    if (off < 0) return DA_BADOFFSET;
    return uf->fd->fdread(uf->fd, buf, size, uf->dataoff + off, nread);
}

[[nodiscard]] rctype ufwrite(DA_UFILE* uf, const void* buf, long size, da_off_t* off) {
    da_off_t o = *off < 0 ? -1 : uf->dataoff + *off;
    rctype rc = uf->fd->fdwrite(uf->fd, buf, size, &o);
    if (rc >= 0) *off = o - uf->dataoff;
    return rc;
}

[[nodiscard]] rctype uflock(DA_UFILE* uf, int mode) {
    DA_FDROB rob{0, 0};
    int cmd = mode == 16 ? DA_FDLOCKRD : mode == 32 ? DA_FDLOCKWR : DA_FDUNLOCK;
    return uf->fd->fdcntl(uf->fd, cmd, &rob);
}

[[nodiscard]] rctype ufdelete(DA_UFILE* uf) { return uf->fd->fddelete(uf->fd, -1); }

[[nodiscard]] rctype ufreopen(DA_UFILE* uf, int flags) {
    DA_FDROB rob{(flags & 5) ? DA_FDWRITE : DA_FDRDONLY, 0};
    rctype rc = uf->fd->fdcntl(uf->fd, DA_FDREOPEN, &rob);
    if (rc >= 0) uf->flags = flags;
    return rc;
}

const DA_UFMT ufmt = {ufclo, uftrc, ufren, ufread, ufwrite, uflock, ufdelete, ufreopen};

}  // namespace

[[nodiscard]] rctype daoputl(DA_LIB* lp, const char* name, const char* type, int flags, DA_UFILE** ufp) {
    *ufp = nullptr;
    if (!lp || !type) return DA_BADARG;
    std::string t = lowertrim(type, 8);
    if (t.empty() || t == "data") return DA_BADARG;
    std::string n = lowertrim(name, 64);
    if (n.size() > 32) return DA_BADARG;
    bool nameless = n.empty();
    bool write = (flags & 5) != 0;
    int omode = write ? DA_OMUPDATE : DA_OMINPUT;
    std::vector<const char*> paths;
    for (int i = 0; i < lp->nummeta; i++) paths.push_back(lp->meta[i].path);

    auto* uf = static_cast<DA_UFILE*>(xmalloc(dagcb.pool, sizeof(DA_UFILE), XM_ZERO));
    if (!uf) return DA_NOMEM;
    uf->mt = &ufmt;
    uf->lib = lp;
    uf->flags = flags;
    uf->omode = omode;
    snprintf(uf->type, sizeof uf->type, "%s", t.c_str());

    rctype rc = 0;
    char base[128];
    for (int tries = 0; tries < 1000; tries++) {
        if (nameless) {
            char tmp[9];
            damkutln(dagenseq(), tmp);
            n = tmp;
        }
        if (dadsnam(KUTIL, n.c_str(), static_cast<int>(n.size()), t.c_str(), static_cast<int>(t.size()), base) < 0) {
            rc = DA_BADARG;
            break;
        }
        rc = dalkmem(lp, n.c_str(), t.c_str(), DA_LKMEMBER, omode, thr_self(), 0, &uf->lid, nullptr);
        if (rc < 0) break;
        DA_FDSTR fs{};
        fs.name = base;
        fs.namelen = static_cast<int>(strlen(base));
        fs.numpath = static_cast<int>(paths.size());
        fs.paths = paths.data();
        fs.flags = DA_FDDIRECT | (write ? DA_FDWRITE : DA_FDRDONLY);
        bool exists = firstexists(lp->meta[0].path, base);
        if ((flags & 4) && (nameless || !exists)) fs.flags |= DA_FDCREATE | DA_FDFORCE1ST;
        fs.perms = static_cast<DA_LIBP*>(lp)->perms & 0666;
        fs.minfree = -1;
        fs.fiboff = -1;
        rc = dafdopn(&fs, &uf->fd);
        if (rc == DA_EXISTS && nameless) {
            // Another made the same name first: take the next number.
            daignore(daulmem(lp, uf->lid, DA_LKMEMBER, omode, thr_self()));
            uf->lid = nullptr;
            continue;
        }
        break;
    }
    if (rc < 0) {
        if (uf->lid) daignore(daulmem(lp, uf->lid, DA_LKMEMBER, omode, thr_self()));
        xmfree(dagcb.pool, uf, sizeof *uf);
        return rc;
    }
    rctype warn = rc;
    snprintf(uf->name, sizeof uf->name, "%s", n.c_str());
    uf->dataoff = uf->fd->baseoff + UTLHEADLEN;

    DA_ODSIO io = daodsfd(uf->fd, base);
    DA_UTLHEAD2 head;
    memset(&head, 0, sizeof head);
    if (*uf->fd->filesize <= uf->fd->baseoff) {
        // A file without its head: only a writer may give it one.
        if (!write) {
            hsprint("daoputl: Utility file %s has no head\n", base);
            daignore(ufclo(uf));
            return DA_BADVERSION;
        }
        dainitutlh(&head);
        head.tokenLen = lp->owninfo.tokenLen;
        memcpy(head.owner_token, lp->owninfo.token, sizeof head.owner_token);
        da_off_t off = uf->fd->baseoff;
        rc = dawrods(io, &head, &off);
    } else {
        rc = dardutlh(io, &head, uf->fd->baseoff);
        if (rc >= 0 && (static_cast<uint32_t>(head.ods.version) >> 16) != (DA_UTLHEAD_VER >> 16)) rc = DA_BADVERSION;
    }
    if (rc < 0) {
        daignore(ufclo(uf));
        return rc;
    }
    uf->headflags = head.flags;
    uf->owner.tokenLen = head.tokenLen;
    memcpy(uf->owner.token, head.owner_token, sizeof uf->owner.token);
    *ufp = uf;
    return warn;
}

[[nodiscard]] rctype daworkf(DA_LIB* lp, int opnflags, DA_FD** rfd) {
    *rfd = nullptr;
    if (!lp || lp->numwork <= 0) return DA_BADARG;
    std::vector<const char*> paths;
    for (int i = 0; i < lp->numwork; i++) paths.push_back(lp->work[i].path);
    pid_t pid = getpid();
    uint32_t t = static_cast<uint32_t>(time(nullptr));
    for (int tries = 0; tries < 10000; tries++, t++) {
        char name[23];
        damkwrkn(pid, t, name);
        if (firstexists(lp->work[0].path, name)) continue;
        DA_FDSTR fs{};
        fs.name = name;
        fs.namelen = static_cast<int>(strlen(name));
        fs.numpath = static_cast<int>(paths.size());
        fs.paths = paths.data();
        fs.flags = (opnflags & 0x100) | DA_FDCREATE | DA_FDDELCLOSE | DA_FDDIRECT | DA_FDWRITE;
        fs.perms = 0600;
        fs.minfree = -1;
        fs.fiboff = -1;
        rctype rc = dafdopn(&fs, rfd);
        if (rc == DA_EXISTS) continue;
        return rc;
    }
    return DA_EXISTS;
}

}  // namespace vrta

// The members of a library as its directories show them: listing, existence
// and deletion of a member with every partition file it owns.
#include "sda/da.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "sda/dalibint.h"
#include "sda/darc.h"
#include "sda/dafd.h"
#include "sda/danames.h"
#include "sda/daods.h"

namespace vrta {

struct DA_DIRH {
    std::vector<DA_DIRENT> ents;
    size_t next;
};

namespace {

constexpr int KMDF = 0, KUTIL = 4, KCDF = 6;

// Each directory once, in the order first seen.
void addpaths(std::vector<std::string>& out, int n, const DA_PATHINFO* v) {
    for (int i = 0; i < n; i++) {
        if (!v[i].path || v[i].status < 0) continue;
        std::string p(v[i].path);
        if (std::find(out.begin(), out.end(), p) == out.end()) out.push_back(p);
    }
}

std::string firstpart(DA_LIB* lp, const std::string& base) {
    char pfn[1024];
    if (damkpfn(pfn, DA_PFNOWNFIB, base.c_str(), 0, "0", 0, sizeof pfn) < 0) return std::string();
    return std::string(lp->meta[0].path) + pfn;
}

bool exists(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0;
}

[[nodiscard]] rctype fdio_read(void* ctx, void* buf, long size, da_off_t offset, long* nread) {
    auto* fd = static_cast<DA_FD*>(ctx);
    return fd->fdread(fd, buf, size, offset, nread);
}

// Member flags that a table keeps in its description; a table that cannot
// be read is still listed, without flags.
int tableflags(const std::string& dir, const DA_DIRENT& ent) {
    std::string base;
    for (int i = 0; i < ent.namelen; i++) base.push_back(static_cast<char>(tolower(static_cast<unsigned char>(ent.name[i]))));
    base += ".mdf";
    const char* paths[] = {dir.c_str()};
    DA_FDSTR fs{};
    fs.name = base.c_str();
    fs.namelen = static_cast<int>(base.size());
    fs.numpath = 1;
    fs.paths = paths;
    fs.flags = DA_FDSHARED | DA_FDDIRECT | DA_FDRDONLY;
    fs.minfree = -1;
    fs.perms = -1;
    fs.fiboff = -1;
    DA_FD* fd = nullptr;
    if (dafdopn(&fs, &fd) < 0) return 0;
    DA_ODSIO io{fdio_read, nullptr, fd, base.c_str()};
    DA_DSFHEAD h;
    DA_XOEODS x;
    memset(&h, 0, sizeof h);
    memset(&x, 0, sizeof x);
    int flags = 0;
    if (dardsfh(io, &h, fd->baseoff) >= 0 && h.links[DA_LNKXOE] > 0 && dardxoe(io, &x, h.links[DA_LNKXOE]) >= 0 &&
        (x.flags & DA_XOEMEMF8))
        flags |= 8;
    daignore(fd->fdclose(fd));  // a read-only look: nothing to lose at its close
    return flags;
}

// Order of removal: index files, data, then the metadata file; inside a
// file the last partition first, so that partition 0, which holds the FIB of
// a metadata file, goes last.
int delrank(const std::string& type) {
    if (type == "mdf" || type == "cdf") return 3;
    if (type == "dpf") return 2;
    if (type.rfind("idx", 0) == 0 || type.rfind("aux", 0) == 0 || type.rfind("hbx", 0) == 0) return 1;
    return 3;
}

}  // namespace

[[nodiscard]] rctype daopdir(DA_LIB* lp, int flags, DA_DIRH** dh) {
    *dh = nullptr;
    if (!lp) return DA_BADARG;
    std::vector<std::string> paths;
    addpaths(paths, lp->nummeta, lp->meta);
    if (flags & DA_DIRUTIL) addpaths(paths, lp->numutil, lp->util);
    auto* h = new (std::nothrow) DA_DIRH;
    if (!h) return DA_NOMEM;
    h->next = 0;
    for (const std::string& dir : paths) {
        DIR* d = opendir(dir.c_str());
        if (!d) {
            rctype rc = daerrno(errno);
            hsprint("daopdir: Unable to open directory %s: Reason=%s\n", dir.c_str(), hsstrer(rc));
            continue;
        }
        while (struct dirent* e = readdir(d)) {
            const char* fn = e->d_name;
            size_t len = strlen(fn);
            if (len < 10 || len >= 80) continue;
            DA_PFNPARTS pp;
            if (dafdpfn(fn, &pp, false) != 0) continue;
            if (pp.name_l > 32 || pp.name_l <= 0 || pp.type_l <= 0 || pp.type_l > 8) continue;
            if (pp.fuid_l != 1 || pp.fuid[0] != '0' || pp.pno != 0 || pp.revno != 0) continue;
            if (fn[0] == '.' && !(flags & DA_DIRDOT)) continue;
            if (fn[0] == '$' && !(flags & DA_DIRDOLLAR)) continue;
            std::string type(pp.type, pp.type_l);
            std::string sfx(pp.sfx, pp.sfx_l);
            if (type == "lmt") continue;
            if (!(sfx == "vrta9" || (sfx == "vrta" && (flags & DA_DIROLDFMT)))) continue;
            // Only regular files are tables: reading a FIFO would wait forever.
            struct stat st;
            std::string full = dir + fn;
            if (stat(full.c_str(), &st) != 0) continue;
            if (!S_ISREG(st.st_mode)) {
                hsprint("daopdir: %s is not a regular file: skipped\n", full.c_str());
                continue;
            }
            DA_DIRENT ent{};
            ent.namelen = pp.name_l;
            for (int i = 0; i < pp.name_l; i++) ent.name[i] = static_cast<char>(toupper(static_cast<unsigned char>(pp.name[i])));
            if (type == "mdf" || type == "cdf") {
                memcpy(ent.type, "DATA    ", 8);
                ent.memtype = type == "mdf" ? KMDF : KCDF;
                if (ent.memtype == KMDF) ent.memflags = tableflags(dir, ent);
            } else {
                memset(ent.type, ' ', 8);
                for (size_t i = 0; i < type.size(); i++) ent.type[i] = static_cast<char>(toupper(static_cast<unsigned char>(type[i])));
                ent.memtype = KUTIL;
            }
            bool dup = false;
            for (const DA_DIRENT& o : h->ents)
                dup = dup || (o.namelen == ent.namelen && memcmp(o.name, ent.name, ent.namelen) == 0 &&
                              memcmp(o.type, ent.type, 8) == 0);
            if (!dup) h->ents.push_back(ent);
        }
        closedir(d);
    }
    std::sort(h->ents.begin(), h->ents.end(), [](const DA_DIRENT& a, const DA_DIRENT& b) {
        int c = strcmp(a.name, b.name);
        return c != 0 ? c < 0 : memcmp(a.type, b.type, 8) < 0;
    });
    *dh = h;
    return 0;
}

[[nodiscard]] rctype darddir(DA_DIRH* dh, DA_DIRENT* ent) {
    if (!dh) return DA_BADARG;
    if (dh->next >= dh->ents.size()) return DA_EOF;
    *ent = dh->ents[dh->next++];
    return 0;
}

[[nodiscard]] rctype dacldir(DA_DIRH* dh) {
    delete dh;
    return 0;
}

[[nodiscard]] rctype dafindds(DA_LIB* lp, const char* name, int* kind) {
    if (!lp || !name) return DA_BADARG;
    std::string n = lowername(name);
    if (n.empty()) return DA_BADARG;
    if (exists(firstpart(lp, n + ".mdf"))) {
        *kind = KMDF;
        return 0;
    }
    if (exists(firstpart(lp, n + ".cdf"))) {
        *kind = KCDF;
        return 0;
    }
    return DA_NOTFOUND;
}

[[nodiscard]] rctype daexist(DA_LIB* lp, const char* name, const char* type) {
    if (!lp || !name || !type) return DA_BADARG;
    std::string t = lowertrim(type, 8);
    if (t == "data") {
        int kind;
        return dafindds(lp, name, &kind);
    }
    std::string n = lowername(name);
    if (n.empty() || t.empty()) return DA_BADARG;
    return exists(firstpart(lp, n + "." + t)) ? 0 : DA_NOTFOUND;
}

[[nodiscard]] rctype dadelet(DA_LIB* lp, const char* name, const char* type) {
    if (!lp || !name || !type) return DA_BADARG;
    std::string n = lowername(name);
    std::string t = lowertrim(type, 8);
    if (n.empty() || t.empty()) return DA_BADARG;
    rctype rc = daexist(lp, name, type);
    if (rc < 0) return rc;

    DA_LOCK* lid = nullptr;
    pid_t owner = 0;
    thread_t me = thr_self();
    rc = dalkmem(lp, name, type, DA_LKMEMBER, DA_OMUTIL, me, 0, &lid, &owner);
    if (rc < 0) {
        hsprint("dadelet: Unable to lock %s.%s: Reason=%s\n", n.c_str(), t.c_str(), hsstrer(rc));
        return rc;
    }

    // Partitions other than a metadata file's first carry the library's
    // metadata path id, which keeps a shared data path's other domains safe.
    char mpid[1024];
    int mpl = dagmpid(lp->meta[0].path, lp->meta[0].pathlen, mpid, sizeof mpid);
    std::vector<std::string> paths;
    addpaths(paths, lp->nummeta, lp->meta);
    addpaths(paths, lp->numdata, lp->data);
    addpaths(paths, lp->numidx, lp->idx);
    addpaths(paths, lp->numutil, lp->util);

    struct Victim {
        int rank;
        int pno;
        std::string path;
    };
    std::vector<Victim> victims;
    for (const std::string& dir : paths) {
        DIR* d = opendir(dir.c_str());
        if (!d) continue;
        while (struct dirent* e = readdir(d)) {
            DA_PFNPARTS pp;
            if (dafdpfn(e->d_name, &pp, false) != 0) continue;
            if (pp.name_l != static_cast<int>(n.size()) || memcmp(pp.name, n.data(), n.size()) != 0) continue;
            std::string ft(pp.type, pp.type_l);
            std::string sfx(pp.sfx, pp.sfx_l);
            if (sfx != "vrta9" && sfx != "vrta") continue;
            bool mine = t == "data" ? (ft == "mdf" || ft == "cdf" || ft == "dpf" || delrank(ft) == 1) : ft == t;
            if (!mine) continue;
            bool own0 = pp.pno == 0 && pp.revno == 0 && pp.fuid_l == 1 && pp.fuid[0] == '0' && delrank(ft) == 3;
            bool ours = mpl > 0 && pp.fuid_l == mpl && memcmp(pp.fuid, mpid, mpl) == 0;
            if (!own0 && !ours) continue;
            victims.push_back({delrank(ft), own0 ? -1 : pp.pno, dir + e->d_name});
        }
        closedir(d);
    }
    std::sort(victims.begin(), victims.end(), [](const Victim& a, const Victim& b) {
        return a.rank != b.rank ? a.rank < b.rank : a.pno > b.pno;
    });
    rctype first = 0;
    for (const Victim& v : victims) {
        if (_UIODT->unlink(v.path.c_str()) != 0 && errno != ENOENT) {
            rctype urc = daerrno(errno);
            hsprint("dadelet: Unable to delete file %s: Reason=%s\n", v.path.c_str(), hsstrer(urc));
            if (!first) first = urc;
        }
    }
    rctype lrc = daulmem(lp, lid, DA_LKMEMBER, DA_OMUTIL, me);
    return first < 0 ? first : lrc;
}

}  // namespace vrta

// Rename of a member: every partition of every component file takes the new
// name, each FIB's partition directory records it, and the metadata file,
// which holds the other FIBs, is renamed last.
#include "sda/da.h"

#include <sys/stat.h>
#include <cctype>
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

namespace {

constexpr int KMDF = 0, KIDX = 2, KAUX = 3, KUTIL = 4, KHYB = 5, KCDF = 6;
constexpr int MAXINDEXES = 100000;  // a chain longer than this is damaged

std::vector<const char*> pathsof(int n, const DA_PATHINFO* v) {
    std::vector<const char*> out;
    for (int i = 0; i < n; i++) out.push_back(v[i].path);
    return out;
}

std::string lname(int kind, const std::string& member, const std::string& sfx) {
    char buf[256];
    int n = dadsnam(kind, member.c_str(), static_cast<int>(member.size()), sfx.c_str(), static_cast<int>(sfx.size()), buf);
    return n < 0 ? std::string() : std::string(buf, n);
}

bool firstexists(DA_LIB* lp, const std::string& base) {
    char pfn[1024];
    if (damkpfn(pfn, DA_PFNOWNFIB, base.c_str(), 0, "0", 0, sizeof pfn) < 0) return false;
    struct stat st;
    return stat((std::string(lp->meta[0].path) + pfn).c_str(), &st) == 0;
}

// Renames one file whose FIB is a record of the metadata file.
[[nodiscard]] rctype renindirect(DA_LIB* lp, DA_FD* mdf, da_off_t fiboff, int kind, const std::string& from, const std::string& to,
                   const std::string& sfx) {
    std::string oldn = lname(kind, from, sfx), newn = lname(kind, to, sfx);
    if (oldn.empty() || newn.empty()) return DA_BADARG;
    std::vector<const char*> paths =
        kind == 1 ? pathsof(lp->numdata, lp->data) : pathsof(lp->numidx, lp->idx);
    DA_FDSTR fs{};
    fs.name = oldn.c_str();
    fs.namelen = static_cast<int>(oldn.size());
    fs.numpath = static_cast<int>(paths.size());
    fs.paths = paths.data();
    fs.flags = DA_FDINDIRECT | DA_FDWRITE;
    fs.mdfd = mdf;
    fs.fiboff = fiboff;
    fs.minfree = -1;
    fs.perms = -1;
    DA_FD* fd = nullptr;
    rctype rc = dafdopn(&fs, &fd);
    if (rc < 0) {
        hsprint("darenam: Unable to open %s: Reason=%s\n", oldn.c_str(), hsstrer(rc));
        return rc;
    }
    rc = fd->fdrename(fd, fiboff, newn.c_str(), static_cast<int>(newn.size()));
    if (rc < 0) hsprint("darenam: Unable to rename %s to %s: Reason=%s\n", oldn.c_str(), newn.c_str(), hsstrer(rc));
    rctype crc = fd->fdclose(fd);
    return rc < 0 ? rc : crc;
}

// A table: its data file and index files first, then the metadata file.
[[nodiscard]] rctype rentable(DA_LIB* lp, const std::string& from, const std::string& to) {
    std::string mdfn = lname(KMDF, from, "");
    std::vector<const char*> meta = pathsof(lp->nummeta, lp->meta);
    DA_FDSTR fs{};
    fs.name = mdfn.c_str();
    fs.namelen = static_cast<int>(mdfn.size());
    fs.numpath = static_cast<int>(meta.size());
    fs.paths = meta.data();
    fs.flags = DA_FDSHARED | DA_FDDIRECT | DA_FDWRITE;
    fs.minfree = -1;
    fs.perms = -1;
    fs.fiboff = -1;
    DA_FD* mdf = nullptr;
    rctype rc = dafdopn(&fs, &mdf);
    if (rc < 0) {
        hsprint("darenam: Unable to open %s: Reason=%s\n", mdfn.c_str(), hsstrer(rc));
        return rc;
    }
    DA_ODSIO io = daodsfd(mdf, mdfn.c_str());
    DA_DSFHEAD hdr;
    memset(&hdr, 0, sizeof hdr);
    rctype first = dardsfh(io, &hdr, mdf->baseoff);
    if (first >= 0) {
        // Index files hang off a chain of index records.
        int64_t off = hdr.links[DA_LNKIDX];
        for (int n = 0; off > 0 && n < MAXINDEXES; n++) {
            DA_IDXODS ix;
            memset(&ix, 0, sizeof ix);
            long got = 0;
            rctype irc = mdf->fdread(mdf, &ix, sizeof ix, off, &got);
            if (irc < 0 || got != static_cast<long>(sizeof ix) || ix.name_l < 0 || ix.name_l > 32) {
                if (!first) first = irc < 0 ? irc : DA_SHORTREAD;
                break;
            }
            std::string iname = lowertrim(ix.name, ix.name_l);
            struct {
                int64_t fib;
                int kind;
            } comps[] = {{ix.idxFibOff, KIDX}, {ix.auxFibOff, KAUX}, {ix.hybFibOff, KHYB}};
            for (auto& c : comps) {
                if (c.fib <= 0) continue;
                rctype crc = renindirect(lp, mdf, c.fib, c.kind, from, to, iname);
                if (crc < 0 && !first) first = crc;
            }
            off = ix.nextOff;
        }
        if (hdr.links[DA_LNKDPFFIB] > 0) {
            rctype crc = renindirect(lp, mdf, hdr.links[DA_LNKDPFFIB], 1, from, to, "");
            if (crc < 0 && !first) first = crc;
        }
    }
    // Only a table whose components moved may take its new name; otherwise
    // the metadata file still finds them under the old one.
    if (first >= 0) {
        std::string newn = lname(KMDF, to, "");
        first = mdf->fdrename(mdf, -1, newn.c_str(), static_cast<int>(newn.size()));
        if (first < 0) hsprint("darenam: Unable to rename %s to %s: Reason=%s\n", mdfn.c_str(), newn.c_str(), hsstrer(first));
    }
    rctype crc = mdf->fdclose(mdf);
    return first < 0 ? first : crc;
}

// A utility member is one logical file that holds its own FIB.
[[nodiscard]] rctype renutil(DA_LIB* lp, const std::string& from, const std::string& to, const std::string& type) {
    std::string oldn = lname(KUTIL, from, type), newn = lname(KUTIL, to, type);
    std::vector<const char*> meta = pathsof(lp->nummeta, lp->meta);
    DA_FDSTR fs{};
    fs.name = oldn.c_str();
    fs.namelen = static_cast<int>(oldn.size());
    fs.numpath = static_cast<int>(meta.size());
    fs.paths = meta.data();
    fs.flags = DA_FDDIRECT | DA_FDWRITE;
    fs.minfree = -1;
    fs.perms = -1;
    fs.fiboff = -1;
    DA_FD* fd = nullptr;
    rctype rc = dafdopn(&fs, &fd);
    if (rc < 0) return rc;
    rc = fd->fdrename(fd, -1, newn.c_str(), static_cast<int>(newn.size()));
    rctype crc = fd->fdclose(fd);
    return rc < 0 ? rc : crc;
}

}  // namespace

[[nodiscard]] rctype darenam(DA_LIB* lp, const char* name, const char* type, const char* newname) {
    if (!lp || !name || !type || !newname) return DA_BADARG;
    std::string from = lowername(name), to = lowername(newname), t = lowertrim(type, 8);
    if (from.empty() || to.empty() || t.empty() || to.size() > 32) return DA_BADARG;
    for (char c : to)
        if (c == '.' || c == '/' || c == ' ') return DA_BADARG;
    if (from == to) return 0;
    bool data = t == "data";
    int kind = KUTIL;
    rctype rc = data ? dafindds(lp, name, &kind) : daexist(lp, name, type);
    if (rc < 0) return rc;
    if (kind == KCDF) {
        hsprint("darenam: %s is a cluster; rename it through its cluster\n", from.c_str());
        return DA_INCLUSTER;
    }
    // Both names are locked: the old one against its users, the new one
    // against a create that would race us to it.
    thread_t me = thr_self();
    DA_LOCK *lold = nullptr, *lnew = nullptr;
    pid_t owner = 0;
    rc = dalkmem(lp, from.c_str(), type, DA_LKMEMBER, DA_OMUTIL, me, 0, &lold, &owner);
    if (rc < 0) {
        hsprint("darenam: Unable to lock %s: Reason=%s\n", from.c_str(), hsstrer(rc));
        return rc;
    }
    rc = dalkmem(lp, to.c_str(), type, DA_LKMEMBER, DA_OMUTIL, me, 0, &lnew, &owner);
    if (rc < 0) {
        daignore(daulmem(lp, lold, DA_LKMEMBER, DA_OMUTIL, me));
        return rc;
    }
    bool taken = data ? (firstexists(lp, lname(KMDF, to, "")) || firstexists(lp, lname(KCDF, to, "")))
                      : firstexists(lp, lname(KUTIL, to, t));
    if (taken) rc = DA_EXISTS;
    else rc = data ? rentable(lp, from, to) : renutil(lp, from, to, t);
    rctype lrc = daulmem(lp, lnew, DA_LKMEMBER, DA_OMUTIL, me);
    rctype orc = daulmem(lp, lold, DA_LKMEMBER, DA_OMUTIL, me);
    if (rc >= 0 && lrc < 0) rc = lrc;
    if (rc >= 0 && orc < 0) rc = orc;
    return rc;
}

}  // namespace vrta

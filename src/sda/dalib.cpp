// Libraries: assign and free a domain's directories, and the library file
// ".vrtalib11" that remembers its paths between assignments.
#include "sda/da.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "sda/darc.h"
#include "sda/dafd.h"

namespace vrta {

namespace {

constexpr const char* LIBFILE = ".vrtalib11";
constexpr uint32_t LIBVERSION = 0x01010004;
constexpr uint32_t LIBHEADLEN = 272;
constexpr int LIBNLINKS = 32;
// Slots of the head's links: [0] metapaths, [1] datapaths, [2] indexpaths, [4] owner.
constexpr int LKMETA = 0, LKDATA = 1, LKIDX = 2, LKOWNER = 4;
// A slot not in use; the links are doubles, so the mark is a double too.
constexpr double LIBUNSET = -1.0;
constexpr int PATHGROW = 25;

struct LibHead {
    uint32_t version;
    uint32_t length;
    uint32_t flags;
    uint32_t pad;
    double links[LIBNLINKS];
} __attribute__((packed));
static_assert(sizeof(LibHead) == 272);
static_assert(offsetof(LibHead, flags) == 8);
static_assert(offsetof(LibHead, links) == 16);

struct LibPath {
    int32_t pmod;
    int32_t nstripes;
    int32_t npaths;
    int32_t pathoff;
} __attribute__((packed));
static_assert(sizeof(LibPath) == 16);

struct LibOwner {
    uint32_t version;
    uint32_t length;
    int32_t tokenLen;
    char token[28];
} __attribute__((packed));
static_assert(sizeof(LibOwner) == 40);

void assertfail(int line) { hsprint("Assertion failed: %s/%d\n", __FILE__, line); }

char* pstrdup(xmpid pool, const char* s, int len) {
    char* p = static_cast<char*>(xmalloc(pool, len + 1, 0));
    if (!p) return nullptr;
    memcpy(p, s, len);
    p[len] = '\0';
    return p;
}

// Backslashes become "/", doubled separators go, and one "/" ends the path.
std::string stdir(const char* path, int len) {
    std::string out;
    out.reserve(len + 1);
    for (int i = 0; i < len && path[i]; i++) {
        char c = path[i] == '\\' ? '/' : path[i];
        if (c == '/' && !out.empty() && out.back() == '/') continue;
        out.push_back(c);
    }
    if (out.empty() || out.back() != '/') out.push_back('/');
    return out;
}

bool samepath(const DA_PATHINFO& p, const std::string& s) {
    return p.path && static_cast<int>(s.size()) == p.pathlen && memcmp(p.path, s.data(), s.size()) == 0;
}

// Appends a path to a vector that grows 25 entries at a time.
[[nodiscard]] rctype addpv(int* num, DA_PATHINFO** vec, const std::string& path, xmpid pool) {
    if (*num % PATHGROW == 0) {
        long olen = static_cast<long>(*num) * sizeof(DA_PATHINFO);
        long nlen = olen + PATHGROW * static_cast<long>(sizeof(DA_PATHINFO));
        auto* nv = static_cast<DA_PATHINFO*>(xmalloc(pool, nlen, XM_ZERO));
        if (!nv) return DA_NOMEM;
        if (*num) {
            memcpy(nv, *vec, olen);
            xmfree(pool, *vec, olen);
        }
        *vec = nv;
    }
    DA_PATHINFO* p = &(*vec)[*num];
    memset(p, 0, sizeof *p);
    // A path that fails stat keeps that status for CheckPath; only no copy stops.
    if (dasavpi(p, path.data(), static_cast<int>(path.size()), pool) == DA_NOMEM) return DA_NOMEM;
    (*num)++;
    return 0;
}

void freepv(int* num, DA_PATHINFO** vec, xmpid pool) {
    if (*vec) {
        for (int i = 0; i < *num; i++)
            if ((*vec)[i].path) xmfree(pool, (*vec)[i].path, (*vec)[i].pathlen + 1);
        long cap = ((*num + PATHGROW - 1) / PATHGROW) * PATHGROW;
        if (cap == 0) cap = PATHGROW;
        xmfree(pool, *vec, cap * static_cast<long>(sizeof(DA_PATHINFO)));
    }
    *vec = nullptr;
    *num = 0;
}

DA_LIBP* libp(DA_LIB* lp) { return static_cast<DA_LIBP*>(lp); }

// Tests a directory; with create, makes the missing levels one at a time
// with the permissions of the nearest existing parent.
[[nodiscard]] rctype ckdir(const std::string& path, bool create, int* perms) {
    struct stat st;
    std::string p = path;
    if (p.size() > 1 && p.back() == '/') p.pop_back();
    if (stat(p.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) return DA_NOTDIR;
        *perms = st.st_mode & 0777;
        return 0;
    }
    if (errno != ENOENT) return daerrno(errno);
    if (!create) return DA_NOTFOUND;
    // Walk up to the nearest directory that exists.
    std::string parent = p;
    int pperm = 0700;
    for (;;) {
        // Cut the last level off in place; a relative path ends at ".".
        size_t cut = parent.find_last_of('/');
        if (cut == std::string::npos) parent.assign(1, '.');
        else parent.resize(cut == 0 ? 1 : cut);
        if (stat(parent.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) return DA_NOTDIR;
            pperm = st.st_mode & 0777;
            break;
        }
        if (errno != ENOENT || parent == "/" || parent == ".") return daerrno(errno);
    }
    size_t pos = parent == "." ? 0 : parent.size();
    while (pos < p.size()) {
        size_t next = p.find('/', pos + 1);
        if (next == std::string::npos) next = p.size();
        std::string level = p.substr(0, next);
        if (!level.empty() && level != "/" && mkdir(level.c_str(), pperm | 0700) != 0 && errno != EEXIST)
            return daerrno(errno);
        // mkdir is subject to umask; the level takes the parent's bits exactly.
        chmod(level.c_str(), pperm | 0700);
        pos = next;
    }
    *perms = pperm | 0700;
    return DA_NEWDIR;
}

std::string libfname(DA_LIB* lp) { return std::string(lp->lib.path) + LIBFILE; }

[[nodiscard]] rctype preadall(int fd, void* buf, long len, off_t off) {
    rctype rc = dapreadall(fd, buf, len, off, nullptr);
    return rc == DA_SHORTREAD ? DA_LIBSHORT : rc;
}

// Reads one path list at off into the vector; pmod must match the request's.
[[nodiscard]] rctype loadpath(DA_LIBP* lp, int fd, double off, int reqpmod, int* num, DA_PATHINFO** vec, int* nstripes,
                const std::string& fname) {
    if (off < LIBHEADLEN || off > 1e12) return DA_BADLIBFILE;
    LibPath lpth;
    rctype rc = preadall(fd, &lpth, sizeof lpth, static_cast<off_t>(off));
    if (rc < 0) return rc;
    if (reqpmod && lpth.pmod != reqpmod) {
        hsprint("dagtlib: Path mode of %s is %d, not %d as requested\n", fname.c_str(), lpth.pmod, reqpmod);
        return DA_BADARG;
    }
    if (lpth.npaths < 0 || lpth.npaths > 4096 || lpth.pathoff < static_cast<int32_t>(LIBHEADLEN))
        return DA_BADLIBFILE;
    if (nstripes) *nstripes = lpth.nstripes;
    off_t pos = lpth.pathoff;
    for (int i = 0; i < lpth.npaths; i++) {
        int32_t len = 0;
        rc = preadall(fd, &len, 4, pos);
        if (rc < 0) return rc;
        if (len <= 0 || len > 4096) return DA_BADLIBFILE;
        std::string text(len, '\0');
        rc = preadall(fd, text.data(), len, pos + 4);
        if (rc < 0) return rc;
        pos += 4 + len;
        std::string norm = stdir(text.data(), len);
        bool dup = false;
        for (int j = 0; j < *num; j++) dup = dup || samepath((*vec)[j], norm);
        if (!dup && (rc = addpv(num, vec, norm, lp->pool)) < 0) return rc;
    }
    return 0;
}

// Lays out one path list; returns its size.
std::string packpath(int pmod, int num, const DA_PATHINFO* vec, int32_t at) {
    LibPath h{};
    h.pmod = pmod ? pmod : DA_PMODLINEAR;
    h.nstripes = h.pmod == DA_PMODSTRIPED ? num : 0;
    h.npaths = num;
    h.pathoff = at + static_cast<int32_t>(sizeof h);
    std::string out(reinterpret_cast<const char*>(&h), sizeof h);
    for (int i = 0; i < num; i++) {
        int32_t len = vec[i].pathlen;
        out.append(reinterpret_cast<const char*>(&len), 4);
        out.append(vec[i].path, len);
    }
    return out;
}

// Rewrites the whole library file: head with unset links first, then the
// lists, then the head again with their offsets, so that a reader that
// comes in between sees either the old lists or none.
[[nodiscard]] rctype writelib(DA_LIBP* lp, int pm_data, int pm_idx, bool owner) {
    int fd = lp->lfh->fd;
    LibHead h{};
    h.version = LIBVERSION;
    h.length = LIBHEADLEN;
    h.flags = lp->flags & 0xffff;
    for (int k = 0; k < LIBNLINKS; k++) h.links[k] = LIBUNSET;
    rctype rc = dapwriteall(fd, &h, sizeof h, 0);
    if (rc < 0) return rc;
    std::string body;
    int32_t at = LIBHEADLEN;
    h.links[LKMETA] = at;
    body += packpath(DA_PMODLINEAR, lp->nummeta, lp->meta, at);
    at = LIBHEADLEN + static_cast<int32_t>(body.size());
    h.links[LKDATA] = at;
    body += packpath(pm_data, lp->numdata, lp->data, at);
    at = LIBHEADLEN + static_cast<int32_t>(body.size());
    h.links[LKIDX] = at;
    body += packpath(pm_idx, lp->numidx, lp->idx, at);
    if (owner) {
        at = LIBHEADLEN + static_cast<int32_t>(body.size());
        h.links[LKOWNER] = at;
        LibOwner o{};
        o.version = 0x04000001;
        o.length = sizeof o;
        o.tokenLen = 28;
        memcpy(o.token, lp->owninfo.token, 28);
        body.append(reinterpret_cast<const char*>(&o), sizeof o);
    }
    rc = dapwriteall(fd, body.data(), static_cast<long>(body.size()), LIBHEADLEN);
    if (rc < 0) return rc;
    if (_UIODT->ftruncate(fd, LIBHEADLEN + static_cast<off_t>(body.size())) != 0) return daerrno(errno);
    return dapwriteall(fd, &h, sizeof h, 0);
}

bool libfilewritable(DA_LIBP* lp) { return lp->lfh && (lp->lfh->opnflags & 1); }

}  // namespace

void dalinkinit(DA_LINK* head) { head->next = head->prev = head; }
void dalinkadd(DA_LINK* head, DA_LINK* node) {
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}
void dalinkdel(DA_LINK* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node->prev = node;
}

void dalklib(DA_LIB* lp) {
    DA_LIBP* p = libp(lp);
    mutex_lock(&p->libLock);
    p->locktid = thr_self();
    p->lockdepth++;
}

void daullib(DA_LIB* lp) {
    DA_LIBP* p = libp(lp);
    if (--p->lockdepth == 0) p->locktid = thread_t{};
    mutex_unlock(&p->libLock);
}

[[nodiscard]] rctype dasavpi(DA_PATHINFO* p, const char* path, int pathlen, xmpid pool) {
    std::string norm = stdir(path, pathlen);
    p->path = pstrdup(pool, norm.data(), static_cast<int>(norm.size()));
    p->pathlen = static_cast<int>(norm.size());
    p->status = 0;
    p->freespace = 0;
    p->fsid = 0;
    p->perms = 0;
    if (!p->path) return p->status = DA_NOMEM;
    struct stat st;
    if (stat(p->path, &st) != 0) return p->status = daerrno(errno);
    if (!S_ISDIR(st.st_mode)) return p->status = DA_NOTDIR;
    p->perms = st.st_mode & 0777;
    // The device number tells filesystems apart more reliably on Linux than
    // statvfs's f_fsid, which some filesystems leave zero.
    p->fsid = static_cast<uint64_t>(st.st_dev);
    struct statvfs vfs;
    if (statvfs(p->path, &vfs) == 0) p->freespace = static_cast<int64_t>(vfs.f_bavail) * vfs.f_frsize;
    return 0;
}

[[nodiscard]] rctype daparsp(int qplen, const char* qpath, int modlock, int* numvec, DA_PATHINFO** pvec, xmpid pool) {
    rctype ret = 0;
    int i = 0;
    while (i < qplen && qpath[i] == ' ') i++;
    bool paren = i < qplen && qpath[i] == '(';
    if (paren) i++;
    std::vector<std::string> items;
    while (i < qplen) {
        char c = qpath[i];
        if (c == ' ') {
            i++;
            continue;
        }
        if (c == ')') break;
        std::string item;
        if (c == '\'' || c == '"') {
            int j = i + 1;
            while (j < qplen && qpath[j] != c) j++;
            if (j >= qplen) return DA_BADQUOTE;
            item.assign(qpath + i + 1, j - i - 1);
            i = j + 1;
        } else {
            // An unquoted item is the rest of the text, up to the list's end.
            int j = i;
            while (j < qplen && !(paren && qpath[j] == ')')) j++;
            int e = j;
            while (e > i && qpath[e - 1] == ' ') e--;
            item.assign(qpath + i, e - i);
            i = j;
        }
        if (item.empty()) continue;
        std::string norm = stdir(item.data(), static_cast<int>(item.size()));
        bool dup = false;
        for (int k = 0; k < *numvec; k++) dup = dup || samepath((*pvec)[k], norm);
        for (auto& s : items) dup = dup || s == norm;
        if (dup) continue;
        items.push_back(norm);
        if (modlock) {
            ret = DA_PATHSKEPT;
            continue;
        }
        rctype rc = addpv(numvec, pvec, norm, pool);
        if (rc < 0) return rc;
    }
    return ret;
}

[[nodiscard]] rctype CheckPath(const char* pclass, int mode, int npath, DA_PATHINFO* paths) {
    rctype first = 0;
    for (int i = 0; i < npath; i++) {
        DA_PATHINFO* p = &paths[i];
        if (p->status < 0) {
            hsprint("%s: Path %s is invalid: Reason=%s\n", pclass, p->path, hsstrer(p->status));
            if (!first) first = p->status;
            continue;
        }
        if (access(p->path, mode) != 0) {
            hsprint("%s: %s does not grant %s access to proxy.\n", pclass, p->path,
                    (mode & 2) ? "read+write" : "read");
            if (!first) first = DA_ACCESS;
        }
    }
    return first;
}

[[nodiscard]] rctype daopenlib(DA_LIB* lib, int flags, int dirmode) {
    DA_LIBP* lp = libp(lib);
    if (lp->lfh) return 0;
    std::string fname = libfname(lib);
    mutex_lock(&dagcb.libFileLock);
    DA_LFH* h = dagcb.libFileList;
    while (h && !(h->fname_l == static_cast<int>(fname.size()) && strcasecmp(h->fname, fname.c_str()) == 0))
        h = h->next;
    rctype rc = 0;
    if (h) {
        h->refcount++;
    } else {
        int fd = -1, opn = 0;
        bool created = false;
        if (lp->perm == DA_PERMRDWR) {
            fd = _UIODT->open(fname.c_str(), O_RDWR | O_CLOEXEC, 0);
            if (fd < 0 && errno == ENOENT && (flags & 1)) {
                fd = _UIODT->open(fname.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, dirmode & 0666);
                if (fd >= 0) created = true;
                else if (errno == EEXIST) fd = _UIODT->open(fname.c_str(), O_RDWR | O_CLOEXEC, 0);
            }
            if (fd >= 0) opn = 1;
        }
        if (fd < 0 && (lp->perm != DA_PERMRDWR || errno == EACCES || errno == EROFS)) {
            fd = _UIODT->open(fname.c_str(), O_RDONLY | O_CLOEXEC, 0);
            if (fd >= 0) opn = 2;
        }
        if (fd < 0) {
            rc = daerrno(errno);
        } else {
            h = static_cast<DA_LFH*>(xmalloc(dagcb.pool, sizeof(DA_LFH), XM_ZERO));
            if (!h) {
                _UIODT->close(fd);
                rc = DA_NOMEM;
            } else {
                rwlock_init(&h->shareLock);
                mutex_init(&h->readLock);
                h->refcount = 1;
                h->opnflags = opn;
                h->fd = fd;
                h->fname_l = static_cast<int>(fname.size());
                h->fname = pstrdup(dagcb.pool, fname.data(), h->fname_l);
                h->next = dagcb.libFileList;
                dagcb.libFileList = h;
                if (created) lp->pflags |= DA_LPCREATED;
            }
        }
    }
    if (rc >= 0) lp->lfh = h;
    mutex_unlock(&dagcb.libFileLock);
    return rc;
}

[[nodiscard]] rctype dacloselib(DA_LIB* lib) {
    DA_LIBP* lp = libp(lib);
    DA_LFH* h = lp->lfh;
    if (!h) return 0;
    rctype rc = lp->lckflags ? daunlocklib(lib) : 0;
    lp->lfh = nullptr;
    mutex_lock(&dagcb.libFileLock);
    if (--h->refcount == 0) {
        for (DA_LFH** pp = &dagcb.libFileList; *pp; pp = &(*pp)->next)
            if (*pp == h) {
                *pp = h->next;
                break;
            }
        if (_UIODT->close(h->fd) != 0 && rc >= 0) rc = DA_SYSERR;
        rwlock_destroy(&h->shareLock);
        mutex_destroy(&h->readLock);
        xmfree(dagcb.pool, h->fname, h->fname_l + 1);
        xmfree(dagcb.pool, h, sizeof *h);
    }
    mutex_unlock(&dagcb.libFileLock);
    return rc;
}

[[nodiscard]] rctype dalocklib(DA_LIB* lib, int mode) {
    DA_LIBP* lp = libp(lib);
    DA_LFH* h = lp->lfh;
    if (!h) return DA_BADARG;
    if (lp->lckflags) {
        assertfail(__LINE__);
        return DA_INTERNAL;
    }
    rctype rc = 0;
    if (mode == DA_LIBLKREAD) {
        if (rw_rdlock(&h->shareLock) != 0) return DA_RWFAIL;
        mutex_lock(&h->readLock);
        if (h->readers == 0) rc = dalockf(h->fd, 0x800 | 16);
        if (rc >= 0) h->readers++;
        mutex_unlock(&h->readLock);
    } else {
        if (rw_wrlock(&h->shareLock) != 0) return DA_RWFAIL;
        // A whole-file write lock needs a descriptor open for writing.
        rc = (h->opnflags & 1) ? dalockf(h->fd, 0x800 | 32) : DA_ACCESS;
    }
    if (rc < 0) {
        rw_unlock(&h->shareLock);
        return rc;
    }
    lp->lckflags = mode;
    lp->lcktid = thr_self();
    return 0;
}

[[nodiscard]] rctype daunlocklib(DA_LIB* lib) {
    DA_LIBP* lp = libp(lib);
    DA_LFH* h = lp->lfh;
    if (!h || !lp->lckflags) return 0;
    rctype rc = 0;
    if (lp->lckflags == DA_LIBLKREAD) {
        mutex_lock(&h->readLock);
        if (--h->readers == 0) rc = daunlkf(h->fd);
        mutex_unlock(&h->readLock);
    } else {
        rc = daunlkf(h->fd);
    }
    lp->lckflags = 0;
    if (rw_unlock(&h->shareLock) != 0) rc = DA_RWFAIL;
    return rc;
}

[[nodiscard]] rctype dastatlib(DA_LIB* lib) {
    struct stat st;
    std::string fname = libfname(lib);
    return stat(fname.c_str(), &st) == 0 ? 0 : daerrno(errno);
}

[[nodiscard]] rctype dadellib(const char* path, int plen) {
    std::string fname = stdir(path, plen) + LIBFILE;
    if (_UIODT->unlink(fname.c_str()) != 0 && errno != ENOENT) return daerrno(errno);
    return 0;
}

int dagetranpath(DA_LIB* lib, int pmax) {
    if (pmax <= 1) return 0;
    DA_LIBP* lp = libp(lib);
    dalklib(lib);
    uint32_t x = lp->ranpath ? lp->ranpath : 1;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    lp->ranpath = x;
    daullib(lib);
    return static_cast<int>(x % static_cast<uint32_t>(pmax));
}

[[nodiscard]] rctype daqylib(const char* name, DA_LIB** lp) {
    *lp = nullptr;
    rctype rc = dainit();
    if (rc < 0) return rc;
    mutex_lock(&dagcb.libLock);
    for (DA_LIBP* p = dagcb.libs; p; p = p->nextlib)
        if (memcmp(p->name, name, 8) == 0) {
            *lp = p;
            break;
        }
    mutex_unlock(&dagcb.libLock);
    return *lp ? 0 : DA_NOTFOUND;
}

namespace {

// Loads the lists of the library file; an empty file means no paths yet.
[[nodiscard]] rctype readlib(DA_LIBP* lp, const DA_LIBSTR* lstr, const std::string& fname, bool* changed, bool* fileread) {
    int fd = lp->lfh->fd;
    LibHead h;
    memset(&h, 0, sizeof h);
    long n = 0;
    rctype rc = dapreadall(fd, &h, 8, 0, &n);
    if (rc == DA_READFAIL) return rc;
    if (n == 0) {
        *changed = true;
        return 0;
    }
    if (n != 8) return DA_LIBSHORT;
    if ((h.version >> 16) != 0x101 || h.length > LIBHEADLEN || h.length < 16) return DA_BADLIBFILE;
    rc = preadall(fd, &h, h.length, 0);
    if (rc < 0) return rc;
    *fileread = true;
    lp->flags = static_cast<int>(h.flags & 0xffff) | DA_LFWORKDEF;
    int nlinks = (static_cast<int>(h.length) - 16) / 8;
    auto link = [&](int k) { return k < nlinks ? h.links[k] : LIBUNSET; };
    // A list whose default flag stands is left empty: the primary path, or
    // what the request gives, fills it later.
    if (!(lp->flags & DA_LFMETADEF) && link(LKMETA) >= LIBHEADLEN)
        rc = loadpath(lp, fd, link(LKMETA), 0, &lp->nummeta, &lp->meta, nullptr, fname);
    if (rc >= 0 && !(lp->flags & DA_LFDATADEF) && link(LKDATA) >= LIBHEADLEN)
        rc = loadpath(lp, fd, link(LKDATA), lstr->pm_data, &lp->numdata, &lp->data, &lp->datastripes, fname);
    if (rc >= 0 && !(lp->flags & DA_LFIDXDEF) && link(LKIDX) >= LIBHEADLEN)
        rc = loadpath(lp, fd, link(LKIDX), lstr->pm_idx, &lp->numidx, &lp->idx, &lp->idxstripes, fname);
    if (rc >= 0 && link(LKOWNER) >= LIBHEADLEN) {
        LibOwner o;
        rc = preadall(fd, &o, sizeof o, static_cast<off_t>(link(LKOWNER)));
        if (rc >= 0 && o.tokenLen >= 0 && o.tokenLen <= 28) {
            lp->owninfo.tokenLen = o.tokenLen;
            memcpy(lp->owninfo.token, o.token, 28);
        }
    }
    return rc;
}

// The primary path is always the first metapath, also after the directory
// moved.
[[nodiscard]] rctype primaryfirst(DA_LIBP* lp, const std::string& primary, bool* changed) {
    if (lp->nummeta == 0) return addpv(&lp->nummeta, &lp->meta, primary, lp->pool);
    if (samepath(lp->meta[0], primary)) return 0;
    xmfree(lp->pool, lp->meta[0].path, lp->meta[0].pathlen + 1);
    if (dasavpi(&lp->meta[0], primary.data(), static_cast<int>(primary.size()), lp->pool) == DA_NOMEM) return DA_NOMEM;
    for (int i = 1; i < lp->nummeta; i++)
        if (samepath(lp->meta[i], primary)) {
            xmfree(lp->pool, lp->meta[i].path, lp->meta[i].pathlen + 1);
            memmove(&lp->meta[i], &lp->meta[i + 1], (lp->nummeta - i - 1) * sizeof(DA_PATHINFO));
            lp->nummeta--;
            break;
        }
    *changed = true;
    return lp->meta[0].path ? 0 : DA_NOMEM;
}

// Adds the request's lists; a library file we may not write keeps its paths.
[[nodiscard]] rctype applylists(DA_LIBP* lp, const DA_LIBSTR* lstr, const std::string& primary, int modlock, bool* changed,
                  rctype* warn) {
    struct {
        const char* text;
        int len;
        int* num;
        DA_PATHINFO** vec;
        int defbit;
    } lists[] = {
        {lstr->metapaths, lstr->metapaths_l, &lp->nummeta, &lp->meta, DA_LFMETADEF},
        {lstr->datapaths, lstr->datapaths_l, &lp->numdata, &lp->data, DA_LFDATADEF},
        {lstr->idxpaths, lstr->idxpaths_l, &lp->numidx, &lp->idx, DA_LFIDXDEF},
    };
    for (auto& l : lists) {
        if (l.text && l.len > 0) {
            int before = *l.num;
            rctype prc = daparsp(l.len, l.text, modlock, l.num, l.vec, lp->pool);
            if (prc < 0) {
                hsprint("dagtlib: Unable to parse path list %.*s: Reason=%s\n", l.len, l.text, hsstrer(prc));
                return prc;
            }
            if (prc > 0 && !*warn) *warn = prc;
            if (*l.num != before) {
                *changed = true;
                lp->flags &= ~l.defbit;
            }
        }
        if (*l.num == 0) {
            rctype rc = addpv(l.num, l.vec, primary, lp->pool);
            if (rc < 0) return rc;
            lp->flags |= l.defbit;
        }
    }
    // Metapaths are the default exactly when the primary path stands alone.
    if (lp->nummeta == 1) lp->flags |= DA_LFMETADEF;
    // Striped files spread over every path of their list.
    if (lstr->pm_data == DA_PMODSTRIPED) lp->datastripes = lp->numdata;
    if (lstr->pm_idx == DA_PMODSTRIPED) lp->idxstripes = lp->numidx;
    return 0;
}

// Unique filesystems of the data paths, the primary first.
[[nodiscard]] rctype setutil(DA_LIBP* lp, const std::string& primary) {
    rctype rc = addpv(&lp->numutil, &lp->util, primary, lp->pool);
    for (int i = 0; rc >= 0 && i < lp->numdata; i++) {
        bool seen = false;
        for (int j = 0; j < lp->numutil; j++) seen = seen || lp->util[j].fsid == lp->data[i].fsid;
        if (!seen && lp->data[i].status >= 0) rc = addpv(&lp->numutil, &lp->util, std::string(lp->data[i].path), lp->pool);
    }
    return rc;
}

// The request's work paths when they can be read and written, else the
// default temporary directory.
[[nodiscard]] rctype setwork(DA_LIBP* lp, const DA_LIBSTR* lstr, rctype* warn) {
    if (lstr->workpaths && lstr->workpaths_l > 0) {
        rctype prc = daparsp(lstr->workpaths_l, lstr->workpaths, 0, &lp->numwork, &lp->work, lp->pool);
        if (prc >= 0 && lp->numwork > 0 && CheckPath("WORKPATH", R_OK | W_OK, lp->numwork, lp->work) == 0) {
            lp->flags &= ~DA_LFWORKDEF;
            hsprint("Using the WORKPATH option value for temporary storage. \n");
        } else {
            hsprint("The WORKPATH option value failed validation. \n");
            freepv(&lp->numwork, &lp->work, lp->pool);
            if (!*warn) *warn = DA_WORKPATHBAD;
        }
    }
    if (lp->numwork > 0) return 0;
    char buf[1025];
    int n = hstmpdir(1024, buf);
    if (n < 1 || n > 1024) return 0;
    rctype rc = addpv(&lp->numwork, &lp->work, std::string(buf, n), lp->pool);
    lp->flags |= DA_LFWORKDEF;
    if (rc >= 0 && *warn == DA_WORKPATHBAD)
        hsprint("Defaulting to new directory for temporary storage: %s \n", lp->work[0].path);
    return rc;
}

// A new library block, linked to the process's list.
DA_LIBP* newlib(const DA_LIBSTR* lstr, const std::string& primary, int perms) {
    xmpid pool = xmpoolc(8192, 8192, 0);
    if (!pool) return nullptr;
    auto* lp = static_cast<DA_LIBP*>(xmalloc(pool, sizeof(DA_LIBP), XM_ZERO));
    if (!lp) {
        xmpoold(pool);
        return nullptr;
    }
    lp->pool = pool;
    mutex_init(&lp->libLock, LOCK_RECURSIVE);
    dalinkinit(&lp->fids);
    dalinkinit(&lp->fcbs);
    dalinkinit(&lp->cdfcbs);
    memcpy(lp->name, lstr->name, 8);
    lp->logLevel = lstr->logging;
    lp->statLevel = lstr->stats;
    lp->cacheLevel = lstr->caching;
    lp->perms = perms;
    if (dasavpi(&lp->lib, primary.data(), static_cast<int>(primary.size()), pool) == DA_NOMEM) {
        mutex_destroy(&lp->libLock);
        xmpoold(pool);
        return nullptr;
    }
    mutex_lock(&dagcb.libLock);
    if (++dagcb.libseq < 0) dagcb.libseq = 1;
    lp->libseq = dagcb.libseq;
    lp->nextlib = dagcb.libs;
    dagcb.libs = lp;
    mutex_unlock(&dagcb.libLock);
    return lp;
}

}  // namespace

[[nodiscard]] rctype dagtlib(const DA_LIBSTR* lstr, DA_LIB** libRet) {
    *libRet = nullptr;
    rctype rc = dainit();
    if (rc < 0) return rc;
    if (!lstr->libpath || lstr->libpath_l <= 0) return DA_BADARG;
    std::string primary = stdir(lstr->libpath, lstr->libpath_l);
    bool create = lstr->create && !(lstr->flags & DA_LSNOCREATE);
    int perms = 0;
    rctype notice = ckdir(primary, create, &perms);
    if (notice < 0) {
        hsprint("dagtlib: Unable to use library directory %s: Reason=%s\n", primary.c_str(), hsstrer(notice));
        return notice;
    }
    DA_LIBP* lp = newlib(lstr, primary, perms);
    if (!lp) return DA_NOMEM;

    struct stat st;
    int dmode = stat(lp->lib.path, &st) == 0 ? static_cast<int>(st.st_mode) : 0;
    lp->perm = (dmode & 0x180) ? DA_PERMRDWR : (dmode & 0400) ? DA_PERMREAD : 0;

    rctype warn = notice > 0 ? notice : 0;
    bool changed = false, fileread = false;
    std::string fname = libfname(lp);
    lp->flags = DA_LFMETADEF | DA_LFDATADEF | DA_LFIDXDEF | DA_LFWORKDEF;

    if (!(lstr->flags & (DA_LSNOLIBFILE | DA_LSLIBMISSING))) {
        rc = daopenlib(lp, 1, perms);
        if (rc == DA_NOTFOUND) {
            rc = 0;  // a read-only library without its file: defaults only
        } else if (rc >= 0) {
            // A writer holds the write lock from its read to its rewrite, so
            // that two assignments cannot lose each other's paths.
            rc = dalocklib(lp, libfilewritable(lp) && lp->perm == DA_PERMRDWR ? DA_LIBLKWRITE : DA_LIBLKREAD);
            if (rc >= 0) rc = readlib(lp, lstr, fname, &changed, &fileread);
            if (rc < 0) hsprint("dagtlib: Unable to read library file %s: Reason=%s\n", fname.c_str(), hsstrer(rc));
        }
    }
    if (rc >= 0) rc = primaryfirst(lp, primary, &changed);
    if (rc >= 0) rc = applylists(lp, lstr, primary, fileread && !libfilewritable(lp) ? 1 : 0, &changed, &warn);
    if (rc >= 0 && !fileread && lp->lfh) changed = true;
    if (rc >= 0 && (lstr->flags & DA_LSOWNER)) {
        if (memcmp(&lp->owninfo, &lstr->owner_token, sizeof lp->owninfo) != 0) changed = true;
        lp->owninfo = lstr->owner_token;
    }

    // Rewrite the library file when something changed and we may.
    if (rc >= 0 && changed && !(lstr->flags & DA_LSNOLIBFILE) && lp->perm == DA_PERMRDWR) {
        if (!lp->lfh) {
            rctype orc = daopenlib(lp, 1, perms);
            if (orc < 0 && orc != DA_NOTFOUND && orc != DA_ACCESS) rc = orc;
        }
        if (rc >= 0 && libfilewritable(lp)) {
            if (lp->lckflags != DA_LIBLKWRITE) {
                rc = daunlocklib(lp);
                if (rc >= 0) rc = dalocklib(lp, DA_LIBLKWRITE);
            }
            if (rc >= 0) {
                int pmd = lstr->pm_data ? lstr->pm_data : DA_PMODLINEAR;
                int pmi = lstr->pm_idx ? lstr->pm_idx : DA_PMODLINEAR;
                rc = writelib(lp, pmd, pmi, (lstr->flags & DA_LSOWNER) || lp->owninfo.tokenLen > 0);
                if (rc < 0) hsprint("dagtlib: Unable to write library file %s: Reason=%s\n", fname.c_str(), hsstrer(rc));
            }
        }
    }
    // The library file is open only while a library is being assigned.
    if (lp->lfh) {
        rctype crc = dacloselib(lp);
        if (rc >= 0 && crc < 0) rc = crc;
    }
    if (rc >= 0) rc = setutil(lp, primary);
    if (rc >= 0) {
        // Bad paths are reported here but do not stop the assignment.
        daignore(CheckPath("METAPATH", R_OK, lp->nummeta, lp->meta));
        daignore(CheckPath("DATAPATH", R_OK, lp->numdata, lp->data));
        daignore(CheckPath("INDEXPATH", R_OK, lp->numidx, lp->idx));
        rc = setwork(lp, lstr, &warn);
    }
    if (rc < 0) {
        lp->pflags |= DA_LPABANDON;
        daignore(dafrlib(lp));
        return rc;
    }
    lp->flags |= DA_LFASSIGNED;
    lp->mt = lstr->debug ? &dagcb.libmt_d : &dagcb.libmt_r;
    lp->ranpath = static_cast<uint32_t>(getpid()) * 2654435761u ^ static_cast<uint32_t>(time(nullptr)) ^
                  static_cast<uint32_t>(lp->libseq);
    if (!lp->ranpath) lp->ranpath = 1;
    *libRet = lp;
    return warn;
}

[[nodiscard]] rctype dafrlib(DA_LIB* lib) {
    if (!lib) return DA_BADARG;
    DA_LIBP* lp = libp(lib);
    rctype rc = 0;
    if (lp->lfh) rc = dacloselib(lp);
    dalklib(lp);
    while (lp->fids.next != &lp->fids) {
        DA_LINK* first = lp->fids.next;
        rctype crc = dagcb.closefid ? dagcb.closefid(first) : DA_INTERNAL;
        if (crc < 0) {
            hsprint("dafrlib: Unable to DACLOSE open table: Reason=%s\n", hsstrer(crc));
            rc = crc;
        }
        // A close that failed must not leave us looping on the same table.
        if (lp->fids.next == first) dalinkdel(first);
    }
    if (lp->fcbs.next != &lp->fcbs || lp->cdfcbs.next != &lp->cdfcbs) {
        assertfail(__LINE__);
        rc = DA_INTERNAL;
    }
    daullib(lp);

    mutex_lock(&dagcb.libLock);
    for (DA_LIBP** pp = &dagcb.libs; *pp; pp = &(*pp)->nextlib)
        if (*pp == lp) {
            *pp = lp->nextlib;
            break;
        }
    mutex_unlock(&dagcb.libLock);

    // A failed assignment leaves no library file that it made itself.
    if ((lp->pflags & DA_LPABANDON) && (lp->pflags & DA_LPCREATED) && lp->lib.path) {
        rctype drc = dadellib(lp->lib.path, lp->lib.pathlen);
        if (drc < 0 && rc >= 0) rc = drc;
    }
    mutex_destroy(&lp->libLock);
    xmpoold(lp->pool);
    return rc;
}

}  // namespace vrta

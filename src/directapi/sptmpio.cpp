// Temporary files and work paths of the direct access API. A temporary file
// lives on the work paths (the option WORKPATH, else the system's temporary
// directory), is removed when it is closed, and is read and written at a
// position the caller moves.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "option/op.h"
#include "sda/da.h"
#include "sda/dafd.h"
#include "sda/darc.h"
#include "ssup/thr.h"
#include "ssup/xm.h"

using namespace vrta;

namespace {

constexpr rctype SP_NOWORK = static_cast<rctype>(0x80000229u);  // no usable work path
constexpr int SP_TMPFLAGS = 0x88284;  // create, direct FIB, delete on close, holes, random first path
constexpr int SP_MAXPATHS = 64;

struct SP_TMPFILE {
    DA_FD* dafd;
    int64_t loc;
    DA_FDSTR fstr;
    char fileName[40];
};

// The work paths, parsed; *npath 0 when there are none. The strings live in pool.
rctype workpaths(int* npath, DA_PATHINFO** pv, xmpid pool) {
    char dir[1025];
    int dirlen = 0;
    void* opt = opgtgbl();
    if (!opt || opgetop(opt, "WORKPATH", dir, &dirlen) < 0 || dirlen <= 0) dirlen = hstmpdir(1024, dir);
    *npath = 0;
    if (dirlen <= 0 || dirlen > 1024) return 0;
    dir[dirlen] = 0;
    return daparsp(dirlen, dir, 0, npath, pv, pool);
}

SP_TMPFILE* tmpof(void* v) { return static_cast<SP_TMPFILE*>(v); }

}  // namespace

extern "C" {

int sptmpfil(void** tfd) {
    if (!tfd) return DA_BADARG;
    *tfd = nullptr;
    rctype rc = dainit();
    if (rc < 0) return rc;
    xmpid pool = xmpoolc(4096, 4096, 0);
    if (!pool) return SP_NOMEM;
    int npath = 0;
    DA_PATHINFO* pv = nullptr;
    rc = workpaths(&npath, &pv, pool);
    if (rc >= 0 && npath == 0) rc = SP_NOWORK;
    auto* t = rc >= 0 ? static_cast<SP_TMPFILE*>(std::calloc(1, sizeof(SP_TMPFILE))) : nullptr;
    if (rc >= 0 && !t) rc = SP_NOMEM;
    if (rc < 0) {
        xmpoold(pool);
        return rc;
    }
    const char* paths[SP_MAXPATHS];
    if (npath > SP_MAXPATHS) npath = SP_MAXPATHS;
    for (int i = 0; i < npath; i++) paths[i] = pv[i].path;
    DA_FDSTR& fs = t->fstr;
    fs.numpath = npath;
    fs.paths = paths;
    fs.flags = SP_TMPFLAGS;
    fs.perms = 0600;
    fs.minfree = -1;
    fs.fiboff = -1;
    fs.firstplace = static_cast<int>(dagenranseq(static_cast<uint32_t>(npath)) % npath);
    unsigned who = static_cast<unsigned>(getpid()) | static_cast<unsigned>(thr_self());
    unsigned when = static_cast<unsigned>(time(nullptr));
    rc = DA_EXISTS;
    // A name in use is passed over by counting the time on.
    for (int tries = 0; tries < 10000 && rc == DA_EXISTS; tries++, when++) {
        std::snprintf(t->fileName, sizeof t->fileName, "vrta_%8.8X.%8.8X", who, when);
        fs.name = t->fileName;
        fs.namelen = static_cast<int>(std::strlen(t->fileName));
        char full[4096];
        if (dafdexi(&fs, full, sizeof full) == 0) continue;
        rc = dafdopn(&fs, &t->dafd);
    }
    fs.paths = nullptr;  // the file layer keeps its own copies
    xmpoold(pool);
    if (rc < 0) {
        std::free(t);
        return rc;
    }
    *tfd = t;
    return 0;
}

long sptmprd(void* tfd, void* buf, long len) {
    SP_TMPFILE* t = tmpof(tfd);
    if (!t || !buf || len < 0) return -1;
    long n = 0;
    rctype rc = t->dafd->fdread(t->dafd, buf, len, t->loc, &n);
    if (rc == DA_EOF) return n > 0 ? n : 0;
    if (rc < 0) return -1;
    t->loc += n;
    return n;
}

long sptmpwr(void* tfd, const void* buf, long len) {
    SP_TMPFILE* t = tmpof(tfd);
    if (!t || !buf || len < 0) return -1;
    da_off_t off = t->loc;
    rctype rc = t->dafd->fdwrite(t->dafd, buf, len, &off);
    if (rc < 0) return -1;
    t->loc = off + len;
    return len;
}

int64_t sptmpseek(void* tfd, int64_t offset, int whence) {
    SP_TMPFILE* t = tmpof(tfd);
    if (!t) return -1;
    int64_t base;
    if (whence == SEEK_SET) {
        base = 0;
    } else if (whence == SEEK_CUR) {
        base = t->loc;
    } else if (whence == SEEK_END) {
        struct stat st;
        if (t->dafd->fdstat(t->dafd, &st) < 0) return -1;
        base = st.st_size;
    } else {
        return -1;
    }
    if (base + offset < 0) return -1;
    t->loc = base + offset;
    return t->loc;
}

int sptmpclose(void* tfd) {
    SP_TMPFILE* t = tmpof(tfd);
    if (!t) return DA_BADARG;
    rctype rc = t->dafd->fdclose(t->dafd);
    std::free(t);
    return rc;
}

int spworkpath(int flags, int* npath, char*** ppvec) {
    if (!npath || !ppvec) return DA_BADARG;
    *npath = 0;
    *ppvec = nullptr;
    if (!(flags & 3)) flags = 2;
    rctype rc = dainit();
    if (rc < 0) return rc;
    xmpid pool = xmpoolc(4096, 4096, 0);
    if (!pool) return SP_NOMEM;
    int n = 0;
    DA_PATHINFO* pv = nullptr;
    rc = workpaths(&n, &pv, pool);
    if (rc >= 0 && n == 0) rc = SP_NOWORK;
    if (rc < 0) {
        xmpoold(pool);
        return rc;
    }
    if (flags & 1) n = 1;
    // One block: the pointers, then the strings they point at.
    size_t bytes = sizeof(char*) * n;
    for (int i = 0; i < n; i++) bytes += std::strlen(pv[i].path) + 1;
    auto** vec = static_cast<char**>(std::malloc(bytes));
    if (!vec) {
        xmpoold(pool);
        return SP_NOMEM;
    }
    char* at = reinterpret_cast<char*>(vec + n);
    for (int i = 0; i < n; i++) {
        size_t l = std::strlen(pv[i].path) + 1;
        std::memcpy(at, pv[i].path, l);
        vec[i] = at;
        at += l;
    }
    xmpoold(pool);
    *npath = n;
    *ppvec = vec;
    return 0;
}

int spworkfree(int npath, char** ppvec) {
    (void)npath;
    std::free(ppvec);
    return 0;
}

int sptmpdomain(char* tmpdom, int* tmpdomlen) {
    if (!tmpdom || !tmpdomlen) return DA_BADARG;
    int room = *tmpdomlen;
    *tmpdomlen = 0;
    void* opt = opgtgbl();
    if (!opt) return 0;
    char v[33];
    int len = 0;
    if (opgetop(opt, "TMPDOMAIN", v, &len) < 0 || len <= 0) return 0;
    if (len > room) return DA_BADARG;
    std::memcpy(tmpdom, v, len);
    *tmpdomlen = len;
    return 0;
}

}  // extern "C"

// System call table of the file layer, its tracing twin, process set-up and
// the plain file helpers (open, record locks, stat, rename, delete).
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <sys/resource.h>
#include <mutex>
#include <dirent.h>
#include "sda/dafdp.h"
#include "hs/hs.h"
#include "hs/hsgcb.h"
#include "option/op.h"
#include "ssup/xm.h"

namespace vrta {

DA_IOGCB daiogcb;

namespace {

// The plain calls honour a host's file-system vector in HS_GCB when it has one.
int sysopen(const char* p, int f, mode_t m) {
    if (HSGCB && HSGCB->xxopen) return HSGCB->xxopen(p, f, m);
    return ::open(p, f, m);
}
ssize_t syspread(int fd, void* b, size_t n, off_t o) {
    if (HSGCB && HSGCB->xxpread) return HSGCB->xxpread(fd, b, n, o);
    return ::pread(fd, b, n, o);
}
ssize_t syspwrite(int fd, const void* b, size_t n, off_t o) {
    if (HSGCB && HSGCB->xxpwrite) return HSGCB->xxpwrite(fd, b, n, o);
    return ::pwrite(fd, b, n, o);
}
int sysclose(int fd) {
    if (HSGCB && HSGCB->xxclose) return HSGCB->xxclose(fd);
    return ::close(fd);
}
off_t syslseek(int fd, off_t o, int w) {
    if (HSGCB && HSGCB->xxlseek) return HSGCB->xxlseek(fd, o, w);
    return ::lseek(fd, o, w);
}
int sysstat(const char* p, struct stat* st) {
    if (HSGCB && HSGCB->xxstat) return HSGCB->xxstat(p, st);
    return ::stat(p, st);
}
int sysfstat(int fd, struct stat* st) {
    if (HSGCB && HSGCB->xxfstat) return HSGCB->xxfstat(fd, st);
    return ::fstat(fd, st);
}
int sysunlink(const char* p) {
    if (HSGCB && HSGCB->xxunlink) return HSGCB->xxunlink(p);
    return ::unlink(p);
}
int sysfcntl(int fd, int cmd, void* arg) {
    if (HSGCB && HSGCB->xxfcntl) return HSGCB->xxfcntl(fd, cmd, arg);
    return ::fcntl(fd, cmd, arg);
}
int sysrename(const char* a, const char* b) {
    if (HSGCB && HSGCB->xxrename) return HSGCB->xxrename(a, b);
    return ::rename(a, b);
}
int sysstatvfs(const char* p, struct statvfs* st) {
    if (HSGCB && HSGCB->xxstatvfs) return HSGCB->xxstatvfs(p, st);
    return ::statvfs(p, st);
}
char* sysrealpath(const char* p, char* r) {
    if (HSGCB && HSGCB->xxrealpath) return HSGCB->xxrealpath(p, r);
    return ::realpath(p, r);
}

int sysftruncate(int fd, off_t len) {
    if (HSGCB && HSGCB->xxftruncate) return HSGCB->xxftruncate(fd, len);
    return ::ftruncate(fd, len);
}
int sysfsync(int fd) {
    if (HSGCB && HSGCB->xxfsync) return HSGCB->xxfsync(fd);
    return ::fsync(fd);
}
int sysfdatasync(int fd) {
    if (HSGCB && HSGCB->xxfdatasync) return HSGCB->xxfdatasync(fd);
    return ::fdatasync(fd);
}

const DA_UIODT plainiot = {
    sysopen, syspread, syspwrite, sysclose, syslseek, sysstat, sysfstat,
    sysunlink, sysfcntl, sysrename, sysstatvfs, sysrealpath, sysftruncate,
    sysfsync, sysfdatasync,
};

// Tracing twins: each call and its outcome on one line.
int TRopen(const char* p, int f, mode_t m) {
    int rc = sysopen(p, f, m);
    int e = errno;
    hsprint("TRopen: %s flags=%#x mode=%#o rc=%d errno=%d\n", p, f, (unsigned)m, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
ssize_t TRpread(int fd, void* b, size_t n, off_t o) {
    ssize_t rc = syspread(fd, b, n, o);
    int e = errno;
    hsprint("TRpread: fd=%d size=%zu offset=%ld rc=%zd errno=%d\n", fd, n, (long)o, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
ssize_t TRpwrite(int fd, const void* b, size_t n, off_t o) {
    ssize_t rc = syspwrite(fd, b, n, o);
    int e = errno;
    hsprint("TRpwrite: fd=%d size=%zu offset=%ld rc=%zd errno=%d\n", fd, n, (long)o, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRclose(int fd) {
    int rc = sysclose(fd);
    int e = errno;
    hsprint("TRclose: fd=%d rc=%d\n", fd, rc);
    errno = e;
    return rc;
}
off_t TRlseek(int fd, off_t o, int w) {
    off_t rc = syslseek(fd, o, w);
    int e = errno;
    hsprint("TRlseek: fd=%d offset=%ld whence=%d rc=%ld\n", fd, (long)o, w, (long)rc);
    errno = e;
    return rc;
}
int TRstat(const char* p, struct stat* st) {
    int rc = sysstat(p, st);
    int e = errno;
    hsprint("TRstat: %s rc=%d errno=%d\n", p, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRfstat(int fd, struct stat* st) {
    int rc = sysfstat(fd, st);
    int e = errno;
    hsprint("TRfstat: fd=%d rc=%d\n", fd, rc);
    errno = e;
    return rc;
}
int TRunlink(const char* p) {
    int rc = sysunlink(p);
    int e = errno;
    hsprint("TRunlink: %s rc=%d errno=%d\n", p, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRfcntl(int fd, int cmd, void* arg) {
    int rc = sysfcntl(fd, cmd, arg);
    int e = errno;
    hsprint("TRfcntl: fd=%d cmd=%d rc=%d errno=%d\n", fd, cmd, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRrename(const char* a, const char* b) {
    int rc = sysrename(a, b);
    int e = errno;
    hsprint("TRrename: %s to %s rc=%d errno=%d\n", a, b, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRstatvfs(const char* p, struct statvfs* st) {
    int rc = sysstatvfs(p, st);
    int e = errno;
    hsprint("TRstatvfs: %s rc=%d errno=%d\n", p, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
char* TRrealpath(const char* p, char* r) {
    char* rc = sysrealpath(p, r);
    int e = errno;
    hsprint("TRrealpath: %s rc=%s\n", p, rc ? rc : "(null)");
    errno = e;
    return rc;
}
int TRftruncate(int fd, off_t len) {
    int rc = sysftruncate(fd, len);
    int e = errno;
    hsprint("TRftruncate: fd=%d size=%ld rc=%d errno=%d\n", fd, (long)len, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRfsync(int fd) {
    int rc = sysfsync(fd);
    int e = errno;
    hsprint("TRfsync: fd=%d rc=%d errno=%d\n", fd, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}
int TRfdatasync(int fd) {
    int rc = sysfdatasync(fd);
    int e = errno;
    hsprint("TRfdatasync: fd=%d rc=%d errno=%d\n", fd, rc, rc < 0 ? e : 0);
    errno = e;
    return rc;
}

const DA_UIODT traceiot = {
    TRopen, TRpread, TRpwrite, TRclose, TRlseek, TRstat, TRfstat,
    TRunlink, TRfcntl, TRrename, TRstatvfs, TRrealpath, TRftruncate,
    TRfsync, TRfdatasync,
};

std::once_flag iniflag;

void doini() {
    DA_IOGCB& g = daiogcb;
    // Signals first: past the size limit a write must fail with EFBIG, not
    // kill the process.
    struct sigaction sa;
    if (sigaction(SIGXFSZ, nullptr, &sa) == 0 && sa.sa_handler == SIG_DFL) signal(SIGXFSZ, SIG_IGN);
    if (g.inited) {
        // A host handed us its block: keep its settings, but the lock and the
        // list of shared blocks are ours.
        mutex_init(&g.fdbLock);
        g.fdbList = nullptr;
        g.fdbLockdepth = 0;
        if (g.pagesize <= 0) g.pagesize = 4096;
        datrace(g.trace);
        return;
    }
    struct rlimit rl;
    g.filemax = INT64_MAX;
    if (getrlimit(RLIMIT_FSIZE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
        g.filemax = static_cast<int64_t>(rl.rlim_cur);
    g.pagesize = sysconf(_SC_PAGESIZE);
    if (g.pagesize <= 0) g.pagesize = 4096;
    g.fibsize = 0;
    g.minpartsize = 16777216;
    g.randplace = 1;
    g.mmaplimit = 0x3fffffff;
    g.mmaplowmem = 0x100000;
    if (void* opt = opgtgbl()) {
        int iv = 0, len = 4;
        if (opgetop(opt, "FIBSIZE", &iv, &len) >= 0 && iv > 0) g.fibsize = iv;
        double dv = 0;
        len = 8;
        if (opgetop(opt, "MINPARTSIZE", &dv, &len) >= 0 && dv > 0) g.minpartsize = static_cast<int64_t>(dv);
        int b = opbingt(opt, "RANDOMPLACEDPF");
        if (b >= 0) g.randplace = b;
        len = 4;
        if (opgetop(opt, "MMAPLIMIT", &iv, &len) >= 0 && iv > 0) g.mmaplimit = iv;
        len = 4;
        if (opgetop(opt, "MMAPLOWMEM", &iv, &len) >= 0 && iv > 0) g.mmaplowmem = iv;
    }
    mutex_init(&g.fdbLock);
    g.fdbList = nullptr;
    g.fdbLockdepth = 0;
    const char* tr = getenv("DA_TRACEIO");
    datrace(tr && (tr[0] == 'y' || tr[0] == 'Y'));
    g.inited = 1;
}

}  // namespace

const DA_UIODT* _UIODT = &plainiot;

void datrace(int enable) {
    daiogcb.trace = enable ? 1 : 0;
    _UIODT = enable ? &traceiot : &plainiot;
}

[[nodiscard]] rctype daioini() {
    std::call_once(iniflag, doini);
    return 0;
}

// Pool memory: the supervisor pool, since a shared block lives as long as
// any opener in any thread.
void* fdalloc(long len) { return xmalloc(XM_SUPVPOOL, len, XM_ZERO); }
void fdfree(void* p, long len) {
    if (p) xmfree(XM_SUPVPOOL, p, len);
}
char* fdstrdup(const char* s) {
    long n = static_cast<long>(strlen(s)) + 1;
    char* p = static_cast<char*>(fdalloc(n));
    if (p) memcpy(p, s, n);
    return p;
}
void fdstrfree(char* s) {
    if (s) fdfree(s, static_cast<long>(strlen(s)) + 1);
}

[[nodiscard]] rctype daerrno(int err) {
    switch (err) {
    case EACCES: case EROFS: case EPERM: return DA_ACCESS;
    case EMFILE: case ENFILE: return DA_NOFILES;
    case EEXIST: return DA_EXISTS;
    case ENOENT: case ENOTDIR: return DA_NOTFOUND;
    case ENOSPC: case EDQUOT: return DA_NOSPACE;
    case ENOMEM: return DA_NOMEM;
    default: return DA_SYSERR;
    }
}

[[nodiscard]] rctype daopenf(const char* fileName, int flags, int perms, int* newfd) {
    int of;
    if (flags & 2) of = O_RDONLY;
    else if (flags & 4) of = (flags & 0x1000) ? (O_RDWR | O_CREAT | O_TRUNC) : (O_RDWR | O_CREAT | O_EXCL);
    else if (flags & 1) of = O_RDWR | ((flags & 0x1000) ? O_CREAT : 0);
    else if (flags & 8) of = O_WRONLY | O_APPEND | ((flags & 0x1000) ? O_CREAT : 0);
    else return DA_BADARG;
    // Not blocking: a FIFO or device under a table's name must not stop the
    // caller in open; it is refused below.
    of |= O_CLOEXEC | O_NONBLOCK;
    mode_t mode = perms > 0 ? static_cast<mode_t>(perms) : 0666;
    int fd;
    do {
        fd = _UIODT->open(fileName, of, mode);
    } while (fd < 0 && (errno == EINTR || errno == EAGAIN));
    if (fd < 0) return daerrno(errno);
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        hsprint("daopenf: %s is not a regular file: not used\n", fileName);
        _UIODT->close(fd);
        return DA_NOTFOUND;
    }
    int fl = fcntl(fd, F_GETFL);
    if (fl >= 0) fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
    // Direct I/O: Linux has no per-descriptor advisory switch; the partition
    // layer keeps an O_DIRECT twin for aligned transfers, here we only advise.
    if (flags & 0x20000) {
        int e = posix_fadvise(fd, 0, 0, POSIX_FADV_NOREUSE);
        if (e != 0) hsprint("directio error: file=%s error=%d\n", fileName, e);
    }
    if (flags & 0x30) {
        rctype rc = dalockf(fd, flags & 0x830);
        if (rc < 0) {
            _UIODT->close(fd);
            return rc;
        }
    }
    *newfd = fd;
    return 0;
}

[[nodiscard]] rctype daclosf(int fd) {
    if (fd < 0) return 0;
    if (_UIODT->close(fd) < 0 && errno != EINTR) return DA_SYSERR;
    return 0;
}

namespace {

[[nodiscard]] rctype lockerr(int err, bool write) {
    if (err == EAGAIN || err == EACCES || err == EINTR) return write ? DA_WRLOCKED : DA_RDLOCKED;
    if (err == ENOLCK) return DA_NOLOCKS;
    return DA_FCNTLFAIL;
}

}  // namespace

[[nodiscard]] rctype dafcntl(int fd, struct flock* flk, int timeout) {
    if (timeout <= 0) {
        int rc;
        do {
            rc = _UIODT->fcntl(fd, F_SETLKW, flk);
        } while (rc < 0 && errno == EINTR);
        return rc < 0 ? lockerr(errno, flk->l_type == F_WRLCK) : 0;
    }
    // A process-wide alarm would hit whichever thread it likes; poll instead,
    // with a growing pause, until the deadline.
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    long pause_us = 500;
    for (;;) {
        if (_UIODT->fcntl(fd, F_SETLK, flk) == 0) return 0;
        int e = errno;
        if (e != EAGAIN && e != EACCES && e != EINTR) return lockerr(e, flk->l_type == F_WRLCK);
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec >= timeout) return lockerr(EAGAIN, flk->l_type == F_WRLCK);
        struct timespec ts = {0, pause_us * 1000};
        nanosleep(&ts, nullptr);
        if (pause_us < 50000) pause_us *= 2;
    }
}

[[nodiscard]] rctype dalockr(int fd, int flags, da_off_t offset, da_off_t range) {
    struct flock flk;
    memset(&flk, 0, sizeof flk);
    bool write = (flags & 32) != 0;
    flk.l_type = write ? F_WRLCK : F_RDLCK;
    flk.l_whence = SEEK_SET;
    flk.l_start = offset;
    flk.l_len = range;
    int rc;
    do {
        rc = _UIODT->fcntl(fd, (flags & 0x800) ? F_SETLKW : F_SETLK, &flk);
    } while (rc < 0 && errno == EINTR && (flags & 0x800));
    return rc < 0 ? lockerr(errno, write) : 0;
}

[[nodiscard]] rctype dalockf(int fd, int flags) { return dalockr(fd, flags, 0, 0); }

[[nodiscard]] rctype daunlockr(int fd, da_off_t offset, da_off_t range) {
    struct flock flk;
    memset(&flk, 0, sizeof flk);
    flk.l_type = F_UNLCK;
    flk.l_whence = SEEK_SET;
    flk.l_start = offset;
    flk.l_len = range;
    return _UIODT->fcntl(fd, F_SETLK, &flk) < 0 ? DA_FCNTLFAIL : 0;
}

[[nodiscard]] rctype daunlkf(int fd) { return daunlockr(fd, 0, 0); }

[[nodiscard]] rctype daqylkor(int fd, int flags, da_off_t offset, da_off_t range, pid_t* owner) {
    struct flock flk;
    memset(&flk, 0, sizeof flk);
    flk.l_type = (flags & 32) ? F_WRLCK : F_RDLCK;
    flk.l_whence = SEEK_SET;
    flk.l_start = offset;
    flk.l_len = range;
    if (_UIODT->fcntl(fd, F_GETLK, &flk) < 0) return DA_FCNTLFAIL;
    *owner = flk.l_type == F_UNLCK ? 0 : flk.l_pid;
    return 0;
}

[[nodiscard]] rctype daqylko(int fd, int flags, pid_t* owner) { return daqylkor(fd, flags, 0, 0, owner); }

[[nodiscard]] rctype dastdir(const char* path, struct stat* st) {
    if (_UIODT->stat(path, st) < 0) return daerrno(errno);
    return S_ISDIR(st->st_mode) ? 0 : DA_NOTDIR;
}

[[nodiscard]] rctype dackdir(const char* path) {
    struct stat st;
    rctype rc = dastdir(path, &st);
    if (rc < 0) return rc;
    return access(path, R_OK | X_OK) == 0 ? 0 : DA_ACCESS;
}

[[nodiscard]] rctype damktmpdir(const char* parent, char* out, int outlen) {
    if (dafulln(parent, "vrta_XXXXXX", out, outlen) < 0) return DA_BADARG;
    return mkdtemp(out) ? 0 : daerrno(errno);
}

[[nodiscard]] rctype darmdir(const char* path) { return rmdir(path) < 0 ? daerrno(errno) : 0; }

[[nodiscard]] rctype dauopdir(const char* path, void** handle) {
    DIR* d = opendir(path);
    if (!d) return daerrno(errno);
    *handle = d;
    return 0;
}

[[nodiscard]] rctype daurddir(void* handle, char* name, int namelen) {
    for (;;) {
        errno = 0;
        struct dirent* e = readdir(static_cast<DIR*>(handle));
        if (!e) return errno ? DA_SYSERR : DA_EOF;
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        if (static_cast<int>(strlen(e->d_name)) >= namelen) return DA_BADARG;
        strcpy(name, e->d_name);
        return 0;
    }
}

[[nodiscard]] rctype daucldir(void* handle) { return closedir(static_cast<DIR*>(handle)) < 0 ? DA_SYSERR : 0; }

[[nodiscard]] rctype dafindf(const char* name, int numpath, const char* const* paths, char* out, int outlen, int* pathidx) {
    for (int i = 0; i < numpath; ++i) {
        if (dafulln(paths[i], name, out, outlen) < 0) return DA_BADARG;
        struct stat st;
        if (_UIODT->stat(out, &st) == 0) {
            if (pathidx) *pathidx = i;
            return 0;
        }
    }
    return DA_NOTFOUND;
}

[[nodiscard]] rctype dastatf(const char* fileName, struct stat* st) {
    return _UIODT->stat(fileName, st) < 0 ? daerrno(errno) : 0;
}

[[nodiscard]] rctype dastvfs(const char* path, struct statvfs* st) {
    return _UIODT->statvfs(path, st) < 0 ? daerrno(errno) : 0;
}

[[nodiscard]] rctype dadelef(const char* fileName) {
    return _UIODT->unlink(fileName) < 0 ? daerrno(errno) : 0;
}

[[nodiscard]] rctype darenmf(const char* from, const char* to) {
    return _UIODT->rename(from, to) < 0 ? daerrno(errno) : 0;
}

[[nodiscard]] rctype datrncf(int fd, da_off_t size) {
    int rc;
    do {
        rc = _UIODT->ftruncate(fd, size);
    } while (rc < 0 && errno == EINTR);
    return rc < 0 ? daerrno(errno) : 0;
}

ssize_t daxfer(int fd, int dfd, void* buf, size_t n, da_off_t off, bool write, int* err) {
    constexpr uintptr_t align = 4096;
    size_t done = 0;
    *err = 0;
    while (done < n) {
        char* b = static_cast<char*>(buf) + done;
        size_t left = n - done;
        int use = fd;
        if (dfd >= 0 && ((reinterpret_cast<uintptr_t>(b) | static_cast<uintptr_t>(off + done) | left) & (align - 1)) == 0)
            use = dfd;
        ssize_t r = write ? _UIODT->pwrite(use, b, left, off + done) : _UIODT->pread(use, b, left, off + done);
        if (r < 0) {
            if (errno == EINTR) continue;
            *err = errno;
            return done ? static_cast<ssize_t>(done) : -1;
        }
        if (r == 0) {
            if (write) *err = ENOSPC;
            break;
        }
        done += r;
    }
    return static_cast<ssize_t>(done);
}

[[nodiscard]] rctype dapreadall(int fd, void* buf, long n, da_off_t off, long* got) {
    int err = 0;
    ssize_t r = daxfer(fd, -1, buf, static_cast<size_t>(n), off, false, &err);
    if (got) *got = r < 0 ? 0 : r;
    if (r < 0 || err) return DA_READFAIL;
    return r < n ? DA_SHORTREAD : 0;
}

[[nodiscard]] rctype dapwriteall(int fd, const void* buf, long n, da_off_t off) {
    int err = 0;
    ssize_t r = daxfer(fd, -1, const_cast<void*>(buf), static_cast<size_t>(n), off, true, &err);
    if (r == n) return 0;
    return err == ENOSPC || err == EDQUOT ? DA_NOSPACE : DA_WRITEFAIL;
}

[[nodiscard]] rctype dasyncf(int fd) {
    int rc;
    do {
        rc = _UIODT->fdatasync(fd);
    } while (rc < 0 && errno == EINTR);
    return rc < 0 ? (errno == ENOSPC || errno == EDQUOT ? DA_NOSPACE : DA_WRITEFAIL) : 0;
}

[[nodiscard]] rctype dasyncd(const char* dir) {
    int fd;
    do {
        fd = _UIODT->open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return daerrno(errno);
    int rc;
    do {
        rc = _UIODT->fsync(fd);
    } while (rc < 0 && errno == EINTR);
    int e = errno;
    _UIODT->close(fd);
    // A file system that cannot sync a directory keeps its entries in order anyway.
    if (rc < 0 && (e == EINVAL || e == ENOTSUP)) return 0;
    return rc < 0 ? DA_WRITEFAIL : 0;
}

[[nodiscard]] rctype dafulln(const char* dir, const char* name, char* buf, int buflen) {
    size_t dl = strlen(dir);
    while (dl > 1 && dir[dl - 1] == '/') --dl;
    int n = (dl == 0) ? snprintf(buf, buflen, "%s", name)
                      : snprintf(buf, buflen, "%.*s/%s", static_cast<int>(dl), dir, name);
    return (n < 0 || n >= buflen) ? DA_BADARG : 0;
}

}  // namespace vrta

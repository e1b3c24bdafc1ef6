// The sort's spill file: one logical file over the work paths, written run
// after run, read back through a buffer per run.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "hs/hs.h"
#include "hs/sr.h"
#include "option/op.h"
#include "sda/da.h"
#include "sda/darc.h"
#include "ssup/xm.h"

namespace vrta {

namespace {

constexpr long MAXWRITE = 0x4000000;  // largest single write of a run
constexpr char SPILLHEAD[] = "vrtasr";

int optint(const char* name, int dflt) {
    int32_t v = 0;
    int len = 0;
    void* opt = opgtgbl();
    if (!opt || opgetop(opt, name, &v, &len) < 0) return dflt;
    return v;
}

[[noreturn]] void srassert(int line) {
    hsprint("Assertion failed: %s/%d\n", "hs/src/srfile", line);
    abort();
}

rctype writeat(SR_FILE* fp, const char* buf, long size, da_off_t expect) {
    da_off_t off = -1;
    rctype rc = fp->fd->fdwrite(fp->fd, buf, size, &off);
    if (rc < 0) return rc;
    if (off != expect) srassert(__LINE__);
    return 0;
}

// Appends bytes to the run being written, through the transfer window when
// there is one.
rctype appendbytes(SR_FILE* fp, const char* buf, long size) {
    if (!fp->xferbuf) {
        for (long done = 0; done < size;) {
            long n = std::min(size - done, MAXWRITE);
            rctype rc = writeat(fp, buf + done, n, fp->offset);
            if (rc < 0) return rc;
            fp->offset += n;
            done += n;
        }
        return 0;
    }
    for (long done = 0; done < size;) {
        long n = std::min(size - done, fp->xferremain);
        memcpy(fp->xferptr, buf + done, n);
        fp->xferptr += n;
        fp->xferremain -= n;
        fp->offset += n;
        done += n;
        if (fp->xferremain == 0) {
            rctype rc = writeat(fp, fp->xferbuf, fp->xfersize, fp->xferwroffset);
            if (rc < 0) return rc;
            fp->xferwroffset += fp->xfersize;
            fp->xferptr = fp->xferbuf;
            fp->xferremain = fp->xfersize;
        }
    }
    return 0;
}

rctype savefail(SR_FILE* fp, rctype rc) {
    fp->failrc = rc;
    hsprint("sor_bin_save: Bin write failed %s: Reason=%s\n", fp->filename, hsstrer(rc));
    return SR_RC_SPILL;
}

rctype newbin(SR_FILE* fp, da_off_t start, long bytes, SR_BIN** binp) {
    auto* bin = static_cast<SR_BIN*>(calloc(1, sizeof(SR_BIN)));
    if (!bin) return SR_RC_NOMEM;
    bin->fp = fp;
    bin->offset = start;
    bin->size = bin->remain = bytes;
    *binp = bin;
    return 0;
}

bool isspill(const char* name, pid_t* pid) {
    // vrtasr_PPPPPPPP.SSSSSSSS followed by the partition suffix.
    if (strncmp(name, "vrtasr_", 7) != 0 || strlen(name) < 24 || name[15] != '.') return false;
    char hex[9];
    memcpy(hex, name + 7, 8);
    hex[8] = 0;
    char* end = nullptr;
    unsigned long v = strtoul(hex, &end, 16);
    if (*end) return false;
    *pid = static_cast<pid_t>(v);
    return true;
}

}  // namespace

int srworkpath(char* dir, int size) {
    if (size < 2) return 0;
    int len = 0;
    void* opt = opgtgbl();
    if (!opt || opgetop(opt, "WORKPATH", dir, &len) < 0 || len <= 0) len = hstmpdir(size - 1, dir);
    if (len <= 0 || len >= size) return 0;
    dir[len] = 0;
    return len;
}

void sr_sweep_spill_files(const char* dir) {
    // Once per directory and process: later sorts find it clean already.
    static mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static std::set<std::string>* swept = new std::set<std::string>;
    {
        MutexGuard g(&lock);
        if (!swept->insert(dir).second) return;
    }
    void* h = nullptr;
    if (dauopdir(dir, &h) < 0) return;
    char name[1024];
    pid_t self = getpid();
    while (daurddir(h, name, sizeof name) == 0) {
        pid_t pid;
        if (!isspill(name, &pid) || pid == self) continue;
        if (kill(pid, 0) == 0 || errno != ESRCH) continue;  // its sort may still run
        char full[2048];
        if (dafulln(dir, name, full, sizeof full) < 0) continue;
        daignore(dadelef(full));  // one left now goes at a later sweep
    }
    daignore(daucldir(h));
}

rctype sr_create_spill_file(const char* name_hdr, SR_FILE* fstrp, int random_place, DA_FD** fd) {
    *fd = nullptr;
    char dir[1025];
    int dirlen = srworkpath(dir, sizeof dir);
    if (dirlen <= 0) return DA_NOSPACE;

    xmpid pool = xmpoolc(4096, 4096, 0);
    if (!pool) return DA_NOMEM;
    int npath = 0;
    DA_PATHINFO* pv = nullptr;
    rctype rc = daparsp(dirlen, dir, 0, &npath, &pv, pool);
    if (rc >= 0 && npath == 0) rc = DA_NOSPACE;
    if (rc < 0) {
        xmpoold(pool);
        return rc;
    }
    const char* paths[64];
    npath = std::min(npath, 64);
    for (int i = 0; i < npath; ++i) {
        paths[i] = pv[i].path;
        sr_sweep_spill_files(pv[i].path);
    }
    DA_FDSTR& fs = fstrp->fstr;
    memset(&fs, 0, sizeof fs);
    fs.numpath = npath;
    fs.paths = paths;
    fs.flags = DA_FDCREATE | DA_FDWRITE | DA_FDDIRECT | DA_FDDELCLOSE;
    if (npath == 1) fs.flags |= DA_FDFORCE1ST;
    if (random_place) {
        fs.firstplace = random_place % npath;
        fs.flags |= DA_FDRANDPLACE;
    }
    fs.perms = 0644;
    fs.minfree = -1;
    fs.fiboff = -1;
    for (int tries = 0; tries < 10000; ++tries) {
        snprintf(fstrp->filename, sizeof fstrp->filename, "%s_%8.8X.%8.8X", name_hdr,
                 static_cast<unsigned>(getpid()), dagenseq());
        fs.name = fstrp->filename;
        fs.namelen = static_cast<int>(strlen(fstrp->filename));
        // A name whose first partition is there, even empty, belongs to someone.
        char full[4096];
        if (dafdexi(&fs, full, sizeof full) == 0) continue;
        rc = dafdopn(&fs, fd);
        if (rc == DA_EXISTS) continue;
        if (rc >= 0) snprintf(fstrp->dirpath, sizeof fstrp->dirpath, "%s", paths[fs.firstplace % npath]);
        break;
    }
    // The paths live in the pool; the file layer kept copies.
    fs.paths = nullptr;
    xmpoold(pool);
    return rc < 0 ? rc : 0;
}

int32_t srranplace(SR_PARMS* parms) {
    if (!(parms->flags & SR_RANPLACE)) {
        parms->ranplace = static_cast<int32_t>(dagenranseq(65535));
        parms->flags |= SR_RANPLACE;
    } else {
        parms->ranplace += 1;
    }
    return parms->ranplace;
}

rctype sr_file_init(SR_CTX* sp, SR_FILE** fpp) {
    *fpp = nullptr;
    auto* fp = static_cast<SR_FILE*>(calloc(1, sizeof(SR_FILE)));
    if (!fp) return SR_RC_NOMEM;
    int reclen = sp->reclen;
    fp->binreclen = reclen;
    int bbs = optint("BINBUFSIZE", 32768);
    if (bbs <= 0) bbs = 32768;
    fp->binblkfac = std::max(1, bbs / reclen);
    fp->binbufsize = fp->binblkfac * reclen;
    fp->xferrdoffset = -1;
    int xs = optint("TRANSFERSIZE", 0), xq = optint("TRANSFERQUANTUM", 0), xf = optint("TRANSFERFLAGS", 0);
    if (xs > 0 && xq > 0 && !(xf & 1)) {
        fp->xferbuf = static_cast<char*>(malloc(xs));
        if (!fp->xferbuf) {
            hsprint("sr_file_init: Unable to allocate XFEERBUF\n");
            free(fp);
            return SR_RC_NOMEM;
        }
        fp->xfersize = xs;
        fp->xferquantum = xq;
        fp->xferptr = fp->xferbuf;
        fp->xferremain = xs;
    }
    int place = (sp->parms.flags & SR_RANPLACE) ? sp->parms.ranplace : 0;
    rctype rc = sr_create_spill_file(SPILLHEAD, fp, place, &fp->fd);
    if (rc < 0) {
        hsprint("sr_file_init: Unable to create the sort work file %s: Reason=%s\n", fp->filename, hsstrer(rc));
        free(fp->xferbuf);
        free(fp);
        return rc;
    }
    struct stat st;
    rc = fp->fd->fdstat(fp->fd, &st);
    fp->offset = rc < 0 ? 0 : st.st_size;
    fp->xferwroffset = fp->offset;
    if (fp->xferbuf && fp->xferwroffset % fp->xferquantum != 0) srassert(__LINE__);
    *fpp = fp;
    return 0;
}

rctype sor_bin_save(SR_FILE* fp, const char* buf, long nrecs, SR_BIN** binp) {
    *binp = nullptr;
    da_off_t start = fp->offset;
    long bytes = nrecs * fp->binreclen;
    rctype rc = appendbytes(fp, buf, bytes);
    if (rc < 0) return savefail(fp, rc);
    return newbin(fp, start, bytes, binp);
}

rctype sor_bin_save_ptr(SR_FILE* fp, const char* base, const uint64_t* setup, long nrecs, SR_BIN** binp) {
    *binp = nullptr;
    da_off_t start = fp->offset;
    // Records are gathered in setup order into blocks of a few hundred KB.
    long per = std::max(1L, (long)(256 * 1024) / fp->binreclen);
    char* gather = static_cast<char*>(malloc(per * fp->binreclen));
    if (!gather) return SR_RC_NOMEM;
    rctype rc = 0;
    for (long i = 0; i < nrecs && rc >= 0;) {
        long n = std::min(per, nrecs - i);
        for (long k = 0; k < n; ++k)
            memcpy(gather + k * fp->binreclen, base + srindex(setup[i + k]) * static_cast<long>(fp->binreclen),
                   fp->binreclen);
        rc = appendbytes(fp, gather, n * fp->binreclen);
        i += n;
    }
    free(gather);
    if (rc < 0) return savefail(fp, rc);
    return newbin(fp, start, nrecs * fp->binreclen, binp);
}

rctype sr_file_flush(SR_FILE* fp) {
    if (!fp || !fp->xferbuf || fp->xferptr == fp->xferbuf) return 0;
    long n = fp->xferptr - fp->xferbuf;
    rctype rc = writeat(fp, fp->xferbuf, n, fp->xferwroffset);
    if (rc < 0) return savefail(fp, rc);
    // The window goes on from here; its offset stays a multiple of the quantum
    // only at a full window, so a flushed file takes no more writes.
    fp->xferwroffset += n;
    fp->xferptr = fp->xferbuf;
    fp->xferremain = fp->xfersize;
    fp->xferrdoffset = -1;
    return 0;
}

rctype sr_file_read(SR_FILE* fp, char* buf, long size, da_off_t offset, long* nread) {
    *nread = 0;
    if (!fp->xferbuf) {
        long got = 0;
        rctype rc = fp->fd->fdread(fp->fd, buf, size, offset, &got);
        if (rc < 0) return rc;
        *nread = got;
        return 0;
    }
    // Reads are served from an aligned window of the transfer size.
    while (*nread < size) {
        da_off_t pos = offset + *nread;
        da_off_t w = pos - pos % fp->xfersize;
        if (fp->xferrdoffset != w) {
            long got = 0;
            rctype rc = fp->fd->fdread(fp->fd, fp->xferbuf, fp->xfersize, w, &got);
            if (rc < 0) return rc;
            fp->xferrdoffset = w;
            fp->xfernread = got;
        }
        long in = static_cast<long>(pos - w);
        long n = std::min(size - *nread, fp->xfernread - in);
        if (n <= 0) break;
        memcpy(buf + *nread, fp->xferbuf + in, n);
        *nread += n;
    }
    return 0;
}

long sor_bin_read(SR_BIN* bin, char** rec) {
    SR_FILE* fp = bin->fp;
    if (bin->bufoff >= bin->buflen) {
        if (bin->remain <= 0) return 0;
        long want = static_cast<long>(std::min<da_off_t>(fp->binbufsize, bin->remain));
        long got = 0;
        rctype rc = sr_file_read(fp, bin->binbuf, want, bin->offset + (bin->size - bin->remain), &got);
        if (rc >= 0 && got != want) rc = DA_SHORTREAD;  // the file was cut under us
        if (rc < 0) {
            hsprint("sor_bin_read(%d): Bin read failed %s: Reason=%s\n", static_cast<int>(getpid()), fp->filename,
                    hsstrer(rc));
            return -1;
        }
        bin->remain -= got;
        bin->buflen = got;
        bin->bufoff = 0;
    }
    *rec = bin->binbuf + bin->bufoff;
    bin->bufoff += fp->binreclen;
    return fp->binreclen;
}

rctype sr_file_rewind(SR_BIN* bin) {
    bin->remain = bin->size;
    bin->bufoff = bin->buflen = 0;
    return 0;
}

rctype sr_file_delete(SR_FILE* fp) {
    if (!fp || !fp->fd) return 0;
    rctype rc = fp->fd->fddelete(fp->fd, -1);
    rctype crc = fp->fd->fdclose(fp->fd);
    fp->fd = nullptr;
    return rc < 0 ? rc : crc;
}

rctype sr_file_term(SR_FILE* fp) {
    if (!fp) return 0;
    rctype rc = sr_file_delete(fp);
    free(fp->xferbuf);
    free(fp);
    return rc;
}

}  // namespace vrta

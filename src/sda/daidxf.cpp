// A plain file used as an index file, without a table: what tools that
// inspect an index file and the index layer's own tests open.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sda/daidx.h"
#include "sda/darc.h"

namespace vrta {

namespace {

DA_IDXP* pof(DA_IDX* ip) { return static_cast<DA_IDXP*>(ip); }

[[nodiscard]] rctype fread_(DA_IDX* ip, void* buf, long size, da_off_t offset, long* nread) {
    *nread = 0;
    if (offset < 0 || size < 0) return DA_BADOFFSET;
    char* p = static_cast<char*>(buf);
    while (*nread < size) {
        ssize_t n = pread(pof(ip)->pfd, p + *nread, size - *nread, offset + *nread);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return DA_READFAIL;
        if (n == 0) break;
        *nread += n;
    }
    return 0;
}

[[nodiscard]] rctype fwrite_(DA_IDX* ip, const void* buf, long size, da_off_t offset) {
    if (offset < 0 || size < 0) return DA_BADOFFSET;
    if (!(pof(ip)->opnflags & DA_IDXOWRITE)) return DA_ACCESS;
    const char* p = static_cast<const char*>(buf);
    long done = 0;
    while (done < size) {
        ssize_t n = pwrite(pof(ip)->pfd, p + done, size - done, offset + done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno == ENOSPC ? DA_NOSPACE : DA_WRITEFAIL;
        done += n;
    }
    if (offset + size > ip->filesize) ip->filesize = offset + size;
    return 0;
}

[[nodiscard]] rctype ftrunc_(DA_IDX* ip, da_off_t size) {
    if (!(pof(ip)->opnflags & DA_IDXOWRITE)) return DA_ACCESS;
    if (ftruncate(pof(ip)->pfd, size) != 0) return DA_WRITEFAIL;
    ip->filesize = size;
    return 0;
}

[[nodiscard]] rctype fclose_(DA_IDX* ip, int) {
    rctype rc = 0;
    if ((pof(ip)->opnflags & DA_IDXOWRITE) && fdatasync(pof(ip)->pfd) != 0) rc = DA_WRITEFAIL;
    if (close(pof(ip)->pfd) != 0 && rc == 0) rc = DA_SYSERR;
    free(ip);
    return rc;
}

[[nodiscard]] rctype flock_(DA_IDX*, int) { return 0; }

[[nodiscard]] rctype fref_(DA_IDX* ip) {
    struct stat st;
    if (fstat(pof(ip)->pfd, &st) != 0) return DA_SYSERR;
    ip->filesize = st.st_size;
    return 0;
}

const DA_IDXMT plainmt = {fread_, fwrite_, ftrunc_, fclose_, flock_, fref_};

}  // namespace

[[nodiscard]] rctype daopidxf(const char* path, int flags, DA_IDX** ipp) {
    int oflags = (flags & 1) ? O_RDWR : O_RDONLY;
    if (flags & 4) oflags |= O_CREAT | O_EXCL;
    int fd = open(path, oflags | O_CLOEXEC, 0666);
    if (fd < 0) return daerrno(errno);
    auto* ip = static_cast<DA_IDXP*>(calloc(1, sizeof(DA_IDXP)));
    if (!ip) {
        close(fd);
        return DA_NOMEM;
    }
    ip->mt = &plainmt;
    ip->pfd = fd;
    ip->opnflags = (flags & 1) ? DA_IDXOWRITE : 0;
    ip->blocksize = 8192;
    ip->blockOffset = -1;
    snprintf(ip->fname, sizeof ip->fname, "%s", path);
    ip->name = ip->fname;
    rctype rc = fref_(ip);
    if (rc < 0) {
        close(fd);
        free(ip);
        return rc;
    }
    *ipp = ip;
    return 0;
}

}  // namespace vrta

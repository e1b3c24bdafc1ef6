// The logical file: a flat, growing 64-bit address space stored as a list of
// partition files on one or more paths. Everything the storage layer writes
// goes through a DA_FD; callers never see paths, free space or the process
// file size limit.
#pragma once
#include <sys/types.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <cstdint>
#include "ssup/vrtadef.h"
#include "ssup/thr.h"

namespace vrta {

struct DA_FD;
struct DA_FDB;
using dafd = DA_FD*;

// Flags of DA_FDSTR.flags, DA_FDP.flags and the FIB's creflags.
constexpr int DA_FDWRITE     = 0x1;       // write access
constexpr int DA_FDRDONLY    = 0x2;       // read only
constexpr int DA_FDCREATE    = 0x4;       // create
constexpr int DA_FDRDLOCK    = 0x10;      // read lock held on the FIB region
constexpr int DA_FDWRLOCK    = 0x20;      // write lock held on the FIB region
constexpr int DA_FDINDIRECT  = 0x40;      // FIB is a record in mdfd
constexpr int DA_FDDIRECT    = 0x80;      // FIB is in the file itself
constexpr int DA_FDFORCE1ST  = 0x100;     // first partition must go on the first path
constexpr int DA_FDDELCLOSE  = 0x200;     // delete on close
constexpr int DA_FDOWNFIB    = 0x400;     // file holds its FIB at physical offset 0
constexpr int DA_FDCHKREV    = 0x2000;    // check partition revisions at open
constexpr int DA_FDPARTSIZE  = 0x4000;    // partitioned by size (maxpar)
constexpr int DA_FDHOLES     = 0x8000;    // writes past the end grow the file
constexpr int DA_FDOLDFMT    = 0x10000;   // old format, suffix "vrta"
constexpr int DA_FDDIRECTIO  = 0x20000;   // direct I/O on partition files
constexpr int DA_FDSHARED    = 0x40000;   // DA_FDB shared by all openers in this process
constexpr int DA_FDRANDPLACE = 0x80000;   // first partition starts at path firstplace
constexpr int DA_FDEOFERR    = 0x100000;  // read past end is an error with a message
constexpr int DA_FDSHORTERR  = 0x200000;  // short read is an error with a message

// DA_FDB.state bits.
constexpr int DA_FDSCHANGED  = 2;  // FIB changed by another process since last asked
constexpr int DA_FDSLOST     = 4;  // file unusable
constexpr int DA_FDSREVISED  = 8;  // revision changed

// Control commands of fdcntl.
enum da_fdcntl_t : int {
    DA_FDSETSTRIPE = 1,
    DA_FDGETSTRIPE = 2,
    DA_FDLOCKRD    = 3,   // arg DA_FDROB*
    DA_FDLOCKWR    = 4,   // arg DA_FDROB*
    DA_FDUNLOCK    = 5,   // arg DA_FDROB*
    DA_FDUNSYNC    = 6,   // arg DA_FDSCB* (flags 1: abort, do not stamp)
    DA_FDSYNCFIB   = 7,   // arg DA_FDSCB*
    DA_FDREOPEN    = 8,   // arg DA_FDROB* (flags: new open flags)
    DA_FDNEWPART   = 9,   // arg unused
    DA_FDGROW      = 10,  // arg da_off_t* new size
    DA_FDSYNCREV   = 11,  // arg unused
    DA_FDDATASYNC  = 12,  // arg unused: what was written since the last one reaches stable storage
    DA_FDSYNCRD    = 16,  // arg DA_FDSCB*
    DA_FDSYNCWR    = 32,  // arg DA_FDSCB*
};

// Argument of the sync commands.
struct DA_FDSCB {
    int timeout;  // seconds to wait for the FIB lock; 0 waits without limit
    int flags;
};
// Argument of the lock commands and of reopen.
struct DA_FDROB {
    int flags;
    pid_t ownpid;
};

// What fdpstat reports about one partition.
struct DA_FDPSTAT {
    da_off_t minoffset;
    da_off_t maxoffset;
    int pdi;          // index of its path
    int flags;
    char name[1024];  // full path of the partition file
};

typedef rctype (*da_fdread_t)(DA_FD* fd, void* buf, long size, da_off_t offset, long* nread) __attribute__((warn_unused_result));
typedef rctype (*da_fdwrite_t)(DA_FD* fd, const void* buf, long size, da_off_t* off) __attribute__((warn_unused_result));
typedef rctype (*da_fdstat_t)(DA_FD* fd, struct stat* stbuf) __attribute__((warn_unused_result));
typedef rctype (*da_fdfree_t)(DA_FD* fd, da_off_t offset, da_off_t size) __attribute__((warn_unused_result));
typedef rctype (*da_fdtrunc_t)(DA_FD* fd, da_off_t endoff) __attribute__((warn_unused_result));
typedef rctype (*da_fdclose_t)(DA_FD* fd) __attribute__((warn_unused_result));
typedef rctype (*da_fdcntl_fn)(DA_FD* fd, int cmd, void* arg) __attribute__((warn_unused_result));
typedef rctype (*da_fdrename_t)(DA_FD* fd, da_off_t fiboff, const char* newname, int newlen) __attribute__((warn_unused_result));
typedef rctype (*da_fddelete_t)(DA_FD* fd, da_off_t fiboff) __attribute__((warn_unused_result));
typedef rctype (*da_fdmmap_t)(DA_FD* fd, da_off_t offset, da_off_t size, void** addr, da_off_t* msize) __attribute__((warn_unused_result));
typedef rctype (*da_fdunmap_t)(DA_FD* fd, da_off_t offset, da_off_t size, void* addr) __attribute__((warn_unused_result));
typedef rctype (*da_fdpstat_t)(DA_FD* fd, int pno, DA_FDPSTAT* pstat) __attribute__((warn_unused_result));
typedef rctype (*da_fdrevise_t)(DA_FD* fd, da_off_t fiboff) __attribute__((warn_unused_result));
typedef rctype (*da_fdcheckrev_t)(DA_FD* fd, int flags, da_off_t fiboff, da_off_t* fsize) __attribute__((warn_unused_result));

// The method table, chosen at open by the access mode and partition count.
struct DA_FDMT {
    da_fdread_t fdread;         // nread gets the bytes read; 518 at or past the end
    da_fdwrite_t fdwrite;       // *off < 0 appends; on return *off is where the data went
    da_fdstat_t fdstat;         // st_size is the logical size
    da_fdfree_t fdfree;         // accepted, does nothing
    da_fdtrunc_t fdtrunc;
    da_fdclose_t fdclose;       // frees the DA_FD
    da_fdcntl_fn fdcntl;
    da_fdrename_t fdrename;
    da_fddelete_t fddelete;     // removes every partition; the DA_FD stays open for fdclose
    da_fdmmap_t fdmmap;         // size 0 maps to the end; *addr is the byte at offset
    da_fdunmap_t fdunmap;       // size: the msize fdmmap gave
    da_fdpstat_t fdpstat;
    da_fdrevise_t fdrevise;
    da_fdcheckrev_t fdcheckrev; // flags 1 also stats each partition (521 missing) and sums sizes
};

// The public face: the methods plus what every caller reads directly.
//
// A DA_FD belongs to one opener and one thread at a time. Openers of one file
// in one process should share its block (DA_FDSHARED): record locks belong to
// the process, and closing any descriptor of a file drops them all, so two
// unshared openers of one file in a process would undo each other's FIB lock.
// Writers of a shared block are kept apart by the table's own locks.
struct DA_FD : DA_FDMT {
    da_off_t baseoff;            // first offset behind the FIB
    da_off_t* filesize;          // current logical size
    int revision;
    unsigned char* p_req_vec;    // the file's 24 requirement bytes
};

// The open request.
struct DA_FDSTR {
    const char* name;            // base name of the file, e.g. "t.mdf"
    int namelen;
    int numstripe;
    int numpath;
    const char* const* paths;    // directories, numpath of them
    int flags;
    int perms;                   // mode of new partitions; < 0 the default, 0666 under the umask
    da_off_t maxpar;             // largest partition of a file partitioned by size
    DA_FD* mdfd;                 // file holding the FIB when indirect
    da_off_t fiboff;             // indirect FIB: in at open, out at create
    da_off_t minfree;            // < 0 means 8192
    int fibsize;                 // 0: computed
    unsigned char ds_rv_wr[120]; // requirement vector in at create; first 24 bytes out at open
    int firstplace;              // first path with DA_FDRANDPLACE
};

// Process-wide state of the file layer.
struct DA_IOGCB {
    int64_t filemax;          // RLIMIT_FSIZE of the process
    int fibsize;              // option "FIBSIZE", 0 when unset
    long pagesize;
    int64_t minpartsize;      // option "MINPARTSIZE"
    int randplace;            // option "RANDOMPLACEDPF"
    int64_t mmaplimit;
    int64_t mmaplowmem;
    mutex_t fdbLock;          // guards fdbList and open and close of shared files
    thread_t fdbLocktid;
    int fdbLockdepth;
    DA_FDB* fdbList;
    int trace;                // DA_TRACEIO
    int inited;
};
extern DA_IOGCB daiogcb;

// The system calls of the file layer. datrace swaps in a twin that logs each call.
struct DA_UIODT {
    int (*open)(const char* path, int flags, mode_t mode);
    ssize_t (*pread)(int fd, void* buf, size_t n, off_t off);
    ssize_t (*pwrite)(int fd, const void* buf, size_t n, off_t off);
    int (*close)(int fd);
    off_t (*lseek)(int fd, off_t off, int whence);
    int (*stat)(const char* path, struct stat* st);
    int (*fstat)(int fd, struct stat* st);
    int (*unlink)(const char* path);
    int (*fcntl)(int fd, int cmd, void* arg);
    int (*rename)(const char* from, const char* to);
    int (*statvfs)(const char* path, struct statvfs* st);
    char* (*realpath)(const char* path, char* resolved);
    int (*ftruncate)(int fd, off_t len);
    int (*fsync)(int fd);
    int (*fdatasync)(int fd);
};
extern const DA_UIODT* _UIODT;

[[nodiscard]] rctype daioini();
void datrace(int enable);

// Open or create a logical file. 0, or the warning of the revision check.
[[nodiscard]] rctype dafdopn(DA_FDSTR* fstr, DA_FD** fd);
// Does the first partition exist; its full path goes to fullpath.
[[nodiscard]] rctype dafdexi(DA_FDSTR* fstr, char* fullpath, int fulllen);
// The change stamp of the FIB as this opener last saw it.
[[nodiscard]] rctype dagetfibparms(DA_FD* fd, int* modtime, int* numstripes);
// Whether a read cursor may map size bytes.
bool damapok(da_off_t size);
// Partition directory: full name of partition pno, as stored in the FIB.
[[nodiscard]] rctype dafdpname(DA_FD* fd, int pno, char* buf, int buflen);

// Plain file helpers.
// daopenf flags: 2 read-only; 4 create exclusive read-write (with 0x1000
// create or open and truncate); 1 read-write (with 0x1000 also create);
// 8 write-only append; 0x20000 direct I/O; 0x10/0x20 whole-file read/write lock.
[[nodiscard]] rctype daopenf(const char* fileName, int flags, int perms, int* newfd);
[[nodiscard]] rctype daclosf(int fd);
[[nodiscard]] rctype dalockf(int fd, int flags);                 // 16 read, 32 write, 0x800 wait
[[nodiscard]] rctype daunlkf(int fd);
[[nodiscard]] rctype dalockr(int fd, int flags, da_off_t offset, da_off_t range);
[[nodiscard]] rctype daunlockr(int fd, da_off_t offset, da_off_t range);
[[nodiscard]] rctype dafcntl(int fd, struct flock* flk, int timeout);
// Pid of a process holding a conflicting lock on the range, 0 when none.
[[nodiscard]] rctype daqylkor(int fd, int flags, da_off_t offset, da_off_t range, pid_t* owner);
[[nodiscard]] rctype dastatf(const char* fileName, struct stat* st);
[[nodiscard]] rctype dastvfs(const char* path, struct statvfs* st);
[[nodiscard]] rctype dadelef(const char* fileName);
[[nodiscard]] rctype darenmf(const char* from, const char* to);
[[nodiscard]] rctype datrncf(int fd, da_off_t size);
// The one loop over pread or pwrite: n bytes at off, on through partial
// transfers and EINTR. A read stops early only at the end of the file, a
// write when the system takes no more (no progress counts as ENOSPC). The
// bytes moved are returned, -1 when none moved and a call failed; *err holds
// the errno that stopped it, 0 when all moved. With dfd >= 0 that descriptor
// (an O_DIRECT twin) takes each piece whose buffer, offset and length are
// aligned to 4096.
ssize_t daxfer(int fd, int dfd, void* buf, size_t n, da_off_t off, bool write, int* err);
// All n bytes or an error: DA_READFAIL or DA_SHORTREAD for a read, DA_NOSPACE
// or DA_WRITEFAIL for a write. *got (may be null) gets what was read.
[[nodiscard]] rctype dapreadall(int fd, void* buf, long n, da_off_t off, long* got);
[[nodiscard]] rctype dapwriteall(int fd, const void* buf, long n, da_off_t off);
// Stable storage: a file's data (with the size needed to read it back), and
// a directory's entries (files made, renamed or removed in it).
[[nodiscard]] rctype dasyncf(int fd);
[[nodiscard]] rctype dasyncd(const char* dir);
[[nodiscard]] rctype dafulln(const char* dir, const char* name, char* buf, int buflen);
[[nodiscard]] rctype daqylko(int fd, int flags, pid_t* owner);   // whole file
// Directories: 0 when path is a directory we can use, else DA_NOTDIR,
// DA_NOTFOUND or DA_ACCESS.
[[nodiscard]] rctype dackdir(const char* path);
[[nodiscard]] rctype dastdir(const char* path, struct stat* st);
// A new private directory "vrta_XXXXXX" under parent; its path goes to out.
[[nodiscard]] rctype damktmpdir(const char* parent, char* out, int outlen);
[[nodiscard]] rctype darmdir(const char* path);
// Directory listing: names one by one, 518 after the last; "." and ".." skipped.
[[nodiscard]] rctype dauopdir(const char* path, void** handle);
[[nodiscard]] rctype daurddir(void* handle, char* name, int namelen);
[[nodiscard]] rctype daucldir(void* handle);
// First of paths that holds name; its full path to out and its index to *pathidx.
[[nodiscard]] rctype dafindf(const char* name, int numpath, const char* const* paths, char* out, int outlen, int* pathidx);
// Map an errno of open or create to the layer's code.
[[nodiscard]] rctype daerrno(int err);

}  // namespace vrta

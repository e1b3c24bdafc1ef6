// Libraries, the storage layer's global block and member locks: what the rest
// of the storage layer (tables, clusters, the direct API) needs from them.
#pragma once
#include <cstdint>
#include <sys/types.h>
#include "ssup/vrtadef.h"
#include "ssup/thr.h"
#include "ssup/xm.h"

namespace vrta {

struct DA_FID;
struct DA_FD;
struct DA_FIDMT;
struct DA_OPNSTR;
struct DA_LIB;
struct DA_LIBP;
struct DA_LOCK;
struct DA_LFH;
struct DA_DIRH;
struct DA_DIRENT;
using da_lib_t = DA_LIB*;

// Open modes and share modes of a table.
constexpr int DA_OMINPUT = 0;
constexpr int DA_OMOUTPUT = 1;
constexpr int DA_OMUPDATE = 2;
constexpr int DA_OMAPPEND = 3;
constexpr int DA_OMUTIL = 4;
constexpr int DA_SHRCLEAR = 0;
constexpr int DA_SHRREAD = 1;
constexpr int DA_SHRUPDATE = 2;

// Library access and path placement.
constexpr int DA_PERMREAD = 1;
constexpr int DA_PERMRDWR = 2;
constexpr int DA_PMODLINEAR = 1;
constexpr int DA_PMODSTRIPED = 2;

// DA_LIBSTR.flags
constexpr int DA_LSOWNER = 2;       // owner token present
constexpr int DA_LSNOCREATE = 4;    // never create the directory
constexpr int DA_LSNOLIBFILE = 8;   // no library file at all
constexpr int DA_LSLIBMISSING = 16; // the library file is known to be missing

// DA_LIB.flags
constexpr int DA_LFMETADEF = 0x1;   // metapaths are the primary path by default
constexpr int DA_LFDATADEF = 0x2;
constexpr int DA_LFIDXDEF = 0x4;
constexpr int DA_LFWORKDEF = 0x8;
constexpr int DA_LFASSIGNED = 0x10000;

// Lock levels of dalkmem.
constexpr int DA_LKMEMBER = 1;
constexpr int DA_LKBACKUP = 2;

// dynflag bit of dalkmem: the opener shares the table dynamically.
constexpr int DA_LKDYNAMIC = 0x40000000;

// DA_LOCK.flags and lockHeld.
constexpr int DA_LCKPRESENCE = 1;
constexpr int DA_LCKMEMBER = 2;
constexpr int DA_LCKDYNAMIC = 4;
constexpr int DA_LCKREAD = 16;
constexpr int DA_LCKWRITE = 32;

// dalocklib modes.
constexpr int DA_LIBLKREAD = 16;
constexpr int DA_LIBLKWRITE = 32;

// Directory scan flags of daopdir.
constexpr int DA_DIRDOT = 1;      // list names starting with "."
constexpr int DA_DIRDOLLAR = 2;   // list names starting with "$"
constexpr int DA_DIROLDFMT = 4;   // accept the old "vrta" suffix too
constexpr int DA_DIRUTIL = 8;     // also walk the data paths for utility members

struct DA_PATHINFO {
    int64_t freespace;
    uint64_t fsid;
    rctype status;
    int perms;       // mode & 0777 of the directory
    int pathlen;
    int properties;
    char* path;      // normalised, one trailing "/", NUL-terminated
};

struct DA_OWNINFO {
    int32_t tokenLen;
    char token[28];
};

// The assign request.
struct DA_LIBSTR {
    char name[8];
    const char* libpath;
    int libpath_l;
    const char* metapaths;
    int metapaths_l;
    const char* idxpaths;
    int idxpaths_l;
    const char* datapaths;
    int datapaths_l;
    const char* workpaths;
    int workpaths_l;
    int pm_idx;
    int pm_data;
    int logging;
    int stats;
    int caching;
    int create;
    int debug;
    DA_OWNINFO owner_token;
    int flags;
};

// One member found by a directory scan.
struct DA_DIRENT {
    char name[33];     // upper case
    int namelen;
    char type[9];      // upper case, blank padded to 8
    int memtype;       // kind of its first file: 0 metadata, 6 cluster, 4 utility
    int memflags;
};

// Library methods, chosen at assign.
struct DA_LIBMT {
    rctype (*openfid)(DA_LIB* lp, DA_OPNSTR* ostr, DA_FID** newfp) __attribute__((warn_unused_result));
    rctype (*freelib)(DA_LIB* lp) __attribute__((warn_unused_result));
    rctype (*opdir)(DA_LIB* lp, int flags, DA_DIRH** dh) __attribute__((warn_unused_result));
    rctype (*rddir)(DA_DIRH* dh, DA_DIRENT* ent) __attribute__((warn_unused_result));
    rctype (*cldir)(DA_DIRH* dh) __attribute__((warn_unused_result));
    rctype (*exist)(DA_LIB* lp, const char* name, const char* type) __attribute__((warn_unused_result));
    rctype (*rename)(DA_LIB* lp, const char* name, const char* type, const char* newname) __attribute__((warn_unused_result));
    rctype (*del)(DA_LIB* lp, const char* name, const char* type) __attribute__((warn_unused_result));
};

struct DA_LIB {
    const DA_LIBMT* mt;
    DA_PATHINFO lib;
    int nummeta;
    DA_PATHINFO* meta;
    int datastripes;
    int numdata;
    DA_PATHINFO* data;
    int idxstripes;
    int numidx;
    DA_PATHINFO* idx;
    int numwork;
    DA_PATHINFO* work;
    int numutil;
    DA_PATHINFO* util;
    int perm;
    int flags;
    DA_OWNINFO owninfo;
};

// A doubly linked list node; lists of the library hold the nodes embedded in
// the records of the table layer.
struct DA_LINK {
    DA_LINK* next;
    DA_LINK* prev;
};

struct DA_LIBP : DA_LIB {
    char name[8];
    DA_LIBP* nextlib;
    thread_t locktid;    // holder of libLock, so that one thread may recurse
    int lockdepth;
    mutex_t libLock;
    DA_LINK fids;
    DA_LINK fcbs;
    DA_LINK cdfcbs;
    int logLevel;
    int statLevel;
    int cacheLevel;
    int pflags;          // DA_LPxxx below
    int perms;           // mode & 0777 of the primary directory
    int owner;
    DA_LFH* lfh;
    int lckflags;        // library file lock held by this library
    thread_t lcktid;
    uint32_t ranpath;
    int libseq;
    xmpid pool;
};

constexpr int DA_LPABANDON = 1;   // assignment failed, free what was made
constexpr int DA_LPCREATED = 2;   // this assignment created the library file

// The library file's in-memory block, shared by every library on the file.
struct DA_LFH {
    DA_LFH* next;
    rwlock_t shareLock;
    mutex_t readLock;
    int refcount;
    int opnflags;
    int readers;
    int fd;
    int fname_l;
    char* fname;
};

struct DA_TLB {
    thread_t tid;
    int refCount;
};

// Lock control block: one per lock file in this process.
struct DA_LOCK {
    DA_LOCK* next;
    int flags;
    int omode;
    int refCount;
    int lockfd;
    int perms;
    int lockOpen;
    int lockHeld;
    int dynmode;
    int dynrefCount;
    int level;
    thread_t owntid;
    int numalloc;
    int numtlb;
    DA_TLB* tlbs;
    int mtype;
    char memname[33];
    char memtype[9];
    int memflags;
    DA_FD* memfd;        // the member's metadata file, holding the lock on its FIB region
    int memlock;         // 16 or 32: the lock held on that region, 0 none
    char* mempath;
    char* fullpath;
    int dynflag;
};

// The storage layer's process block.
struct DA_GCB {
    int initialised;
    mutex_t initLock;
    mutex_t libLock;
    DA_LIBP* libs;
    int libseq;
    mutex_t shmcbLock;
    void* shmcbs;
    // Table method tables; the table layer fills them through dafidmtini.
    const DA_FIDMT* fidmt_r;
    const DA_FIDMT* fidmt_l;
    const DA_FIDMT* fidmt_f;
    const DA_FIDMT* fidmt_c;
    const DA_FIDMT* fidmt_d;
    DA_LIBMT libmt_r;
    DA_LIBMT libmt_d;
    long sysPageSize;
    int numCpu;
    long maxOpen;
    int64_t maxFileSize;
    int procfd;
    mutex_t lcbLock;
    DA_LOCK* lcbs;
    void* xcbs;
    mutex_t libFileLock;
    DA_LFH* libFileList;
    mutex_t ranseqLock;
    uint32_t ranseqSeed;
    mutex_t seqLock;
    uint32_t seqSeed;
    int allowmmap;
    long mmaplimit;
    long mmaplowmem;
    char defcompress[9];
    char defencrypt[9];
    int dpfdirectio;
    int nlstranscode;
    int transferratio;
    int revnumupdate;
    int miniobuf;
    xmpid pool;          // lock blocks and library file blocks
    // Closes one open table of a library at free; set by the table layer.
    rctype (*closefid)(DA_LINK* fidlink) __attribute__((warn_unused_result));
};

extern DA_GCB dagcb;

// Start and end.
[[nodiscard]] rctype dainit();
[[nodiscard]] rctype daterm();
// Slots a mode forbids, and slots with nothing to do.
[[nodiscard]] rctype danoval();
[[nodiscard]] rctype dafatal();

// Libraries.
[[nodiscard]] rctype dagtlib(const DA_LIBSTR* lstr, DA_LIB** libRet);
[[nodiscard]] rctype dafrlib(DA_LIB* lp);
[[nodiscard]] rctype daqylib(const char* name, DA_LIB** lp);
[[nodiscard]] rctype daopenlib(DA_LIB* lib, int flags, int dirmode);
[[nodiscard]] rctype dacloselib(DA_LIB* lib);
[[nodiscard]] rctype dalocklib(DA_LIB* lib, int mode);
[[nodiscard]] rctype daunlocklib(DA_LIB* lib);
[[nodiscard]] rctype dastatlib(DA_LIB* lib);
[[nodiscard]] rctype dadellib(const char* path, int plen);
[[nodiscard]] rctype CheckPath(const char* pclass, int mode, int npath, DA_PATHINFO* paths);
[[nodiscard]] rctype dasavpi(DA_PATHINFO* p, const char* path, int pathlen, xmpid pool);
[[nodiscard]] rctype daparsp(int qplen, const char* qpath, int modlock, int* numvec, DA_PATHINFO** pvec, xmpid pool);
// Holds and releases libLock of a library; one thread may nest.
void dalklib(DA_LIB* lp);
void daullib(DA_LIB* lp);
void dalinkinit(DA_LINK* head);
void dalinkadd(DA_LINK* head, DA_LINK* node);
void dalinkdel(DA_LINK* node);

// Member locks.
[[nodiscard]] rctype dalkmem(DA_LIB* lp, const char* memname, const char* memtype, int level, int omode, thread_t tid,
               int dynflag, DA_LOCK** lid, pid_t* ownpid);
[[nodiscard]] rctype daulmem(DA_LIB* lp, DA_LOCK* lid, int level, int omode, thread_t tid);
[[nodiscard]] rctype daconlk(DA_LIB* lp, DA_LOCK* lid, int level, int omode, int nmode, thread_t tid, pid_t* ownpid);
[[nodiscard]] rctype dalkdyn(DA_LOCK* lcb, int mode);

// Directory.
[[nodiscard]] rctype daopdir(DA_LIB* lp, int flags, DA_DIRH** dh);
[[nodiscard]] rctype darddir(DA_DIRH* dh, DA_DIRENT* ent);
[[nodiscard]] rctype dacldir(DA_DIRH* dh);
[[nodiscard]] rctype daexist(DA_LIB* lp, const char* name, const char* type);
[[nodiscard]] rctype dafindds(DA_LIB* lp, const char* name, int* kind);
[[nodiscard]] rctype darenam(DA_LIB* lp, const char* name, const char* type, const char* newname);
[[nodiscard]] rctype dadelet(DA_LIB* lp, const char* name, const char* type);

// Work files: a logical file on the library's work paths, removed at close.
[[nodiscard]] rctype daworkf(DA_LIB* lp, int opnflags, DA_FD** rfd);

// Utility members: one logical file with a 156-byte head; the methods address
// the data behind the head.
struct DA_UFILE;
struct DA_UFMT {
    rctype (*daufclo)(DA_UFILE* uf) __attribute__((warn_unused_result));
    rctype (*dauftrc)(DA_UFILE* uf, da_off_t endoff) __attribute__((warn_unused_result));
    rctype (*daufren)(DA_UFILE* uf, const char* newname) __attribute__((warn_unused_result));
    rctype (*daufread)(DA_UFILE* uf, void* buf, long size, da_off_t off, long* nread) __attribute__((warn_unused_result));
    rctype (*daufwrite)(DA_UFILE* uf, const void* buf, long size, da_off_t* off) __attribute__((warn_unused_result));
    rctype (*dauflock)(DA_UFILE* uf, int mode) __attribute__((warn_unused_result));
    rctype (*daufdelete)(DA_UFILE* uf) __attribute__((warn_unused_result));
    rctype (*daufreopen)(DA_UFILE* uf, int flags) __attribute__((warn_unused_result));
};
struct DA_UFILE {
    const DA_UFMT* mt;
    DA_FD* fd;
    da_off_t dataoff;    // first byte behind the head
    int flags;           // open flags: 1 write, 4 create
    int omode;
    DA_LIB* lib;
    DA_LOCK* lid;
    char name[33];       // lower case; made up ("$" + 7 digits) for a nameless file
    char type[9];        // lower case
    int32_t headflags;
    DA_OWNINFO owner;
};
// flags: 1 open for writing, 4 create (exclusive for a nameless file).
[[nodiscard]] rctype daoputl(DA_LIB* lp, const char* name, const char* type, int flags, DA_UFILE** uf);

// Random path and sequence numbers.
int dagetranpath(DA_LIB* lib, int pmax);
uint32_t dagenranseq(uint32_t seqmax);
uint32_t dagenseq();

}  // namespace vrta

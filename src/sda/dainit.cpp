// The storage layer's process block: start-up, options, sequence numbers.
#include "sda/da.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "hs/hs.h"
#include "option/op.h"
#include "sda/darc.h"
#include "sda/dafd.h"

namespace vrta {

// Layers that are linked in register their start-up here; a build without
// them (a storage-only test) starts without their method tables.
[[nodiscard]] rctype dacinit() __attribute__((weak));
[[nodiscard]] rctype daxcini() __attribute__((weak));
[[nodiscard]] rctype dafidmtini(DA_GCB* gcb) __attribute__((weak));

DA_GCB dagcb;

namespace {

pthread_once_t gcbonce = PTHREAD_ONCE_INIT;

// Record locks are not inherited by a child process, so the lock blocks it
// inherits describe locks it does not hold: it starts with none.
void forkprepare() { mutex_lock(&dagcb.lcbLock); }
void forkparent() { mutex_unlock(&dagcb.lcbLock); }
void forkchild() {
    for (DA_LOCK* l = dagcb.lcbs; l; l = l->next)
        if (l->lockfd >= 0) close(l->lockfd);
    dagcb.lcbs = nullptr;
    mutex_unlock(&dagcb.lcbLock);
}

void gcblocks() {
    pthread_atfork(forkprepare, forkparent, forkchild);
    mutex_init(&dagcb.initLock);
    mutex_init(&dagcb.libLock);
    mutex_init(&dagcb.shmcbLock);
    mutex_init(&dagcb.lcbLock);
    mutex_init(&dagcb.libFileLock);
    mutex_init(&dagcb.ranseqLock);
    mutex_init(&dagcb.seqLock);
}

int optint(void* opt, const char* name, int defval) {
    if (!opt) return defval;
    int32_t v = 0;
    int len = 4;
    return opgetop(opt, name, &v, &len) >= 0 ? v : defval;
}

void optname(void* opt, const char* name, char* out, const char* defval) {
    snprintf(out, 9, "%s", defval);
    if (!opt) return;
    char buf[64];
    memset(buf, 0, sizeof buf);
    int len = sizeof buf - 1;
    if (opgetop(opt, name, buf, &len) < 0) return;
    if (len < 0 || len > static_cast<int>(sizeof buf) - 1) return;
    while (len > 0 && (buf[len - 1] == ' ' || buf[len - 1] == '\0')) len--;
    // A name of 9 characters or more cannot be an exit's name.
    if (len <= 0 || len >= 9) return;
    memcpy(out, buf, len);
    out[len] = '\0';
}

}  // namespace

[[nodiscard]] rctype danoval() { return 0; }

// Every slot of a table lost under its opener: the only thing left is close.
[[nodiscard]] rctype dafatal() { return DA_STATELOST; }

[[nodiscard]] rctype dainit() {
    pthread_once(&gcbonce, gcblocks);
    rctype rc = 0;
    mutex_lock(&dagcb.initLock);
    if (!dagcb.initialised) {
        void* opt = opgtgbl();
        if (!opt) opt = opinitgbl();
        dagcb.allowmmap = optint(opt, "ALLOWMMAP", 1);
        dagcb.mmaplimit = optint(opt, "MMAPLIMIT", 0x3fffffff);
        dagcb.mmaplowmem = optint(opt, "MMAPLOWMEM", 0x100000);
        optname(opt, "DEFCOMPRESS", dagcb.defcompress, "VRTARLC2");
        optname(opt, "DEFENCRYPT", dagcb.defencrypt, "VRTACRYP");
        dagcb.dpfdirectio = optint(opt, "DPFDIRECTIO", 0);
        if (dagcb.dpfdirectio) hsprint("NOTE: USING EXPERIMENTAL DPFDIRECTIO MODE!!!\n");
        dagcb.nlstranscode = optint(opt, "NLSTRANSCODE", 0);
        dagcb.transferratio = optint(opt, "TRANSFERRATIO", 0);
        int b = opt ? opbingt(opt, "REVNUMUPDATE") : -2;
        dagcb.revnumupdate = b > 0 ? 1 : 0;
        dagcb.miniobuf = 0x10000;

        dagcb.sysPageSize = sysconf(_SC_PAGESIZE);
        long ncpu = sysconf(_SC_NPROCESSORS_ONLN);
        dagcb.numCpu = ncpu > 0 ? static_cast<int>(ncpu) : 1;
        struct rlimit rl;
        dagcb.maxOpen = getrlimit(RLIMIT_NOFILE, &rl) == 0 ? static_cast<long>(rl.rlim_cur) : 256;
        dagcb.maxFileSize = (getrlimit(RLIMIT_FSIZE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
                                ? static_cast<int64_t>(rl.rlim_cur)
                                : INT64_MAX;
        char procname[32];
        snprintf(procname, sizeof procname, "/proc/%d", static_cast<int>(getpid()));
        dagcb.procfd = open(procname, O_RDONLY | O_DIRECTORY | O_CLOEXEC);

        struct timeval tv;
        gettimeofday(&tv, nullptr);
        dagcb.ranseqSeed = static_cast<uint32_t>(tv.tv_sec) ^ (static_cast<uint32_t>(tv.tv_usec) << 12);
        if (dagcb.ranseqSeed == 0) dagcb.ranseqSeed = 1;
        dagcb.seqSeed = 1;

        dagcb.libs = nullptr;
        dagcb.lcbs = nullptr;
        dagcb.libFileList = nullptr;
        dagcb.pool = XM_SUPVPOOL;

        // The library tables; a debug library differs only in checks, which
        // this build makes in both.
        DA_LIBMT mt{};
        mt.openfid = nullptr;
        mt.freelib = dafrlib;
        mt.opdir = daopdir;
        mt.rddir = darddir;
        mt.cldir = dacldir;
        mt.exist = daexist;
        mt.rename = darenam;
        mt.del = dadelet;
        dagcb.libmt_r = mt;
        dagcb.libmt_d = mt;

        if (dafidmtini) rc = dafidmtini(&dagcb);
        if (rc >= 0 && dacinit) rc = dacinit();
        if (rc >= 0 && daxcini) rc = daxcini();
        if (rc >= 0) dagcb.initialised = 1;
    }
    mutex_unlock(&dagcb.initLock);
    // The file layer keeps its own once-guard; every start passes through it.
    rctype irc = daioini();
    return rc < 0 ? rc : irc;
}

[[nodiscard]] rctype daterm() {
    pthread_once(&gcbonce, gcblocks);
    mutex_lock(&dagcb.initLock);
    if (dagcb.initialised && dagcb.procfd >= 0) {
        close(dagcb.procfd);
        dagcb.procfd = -1;
    }
    dagcb.initialised = 0;
    mutex_unlock(&dagcb.initLock);
    return 0;
}

uint32_t dagenseq() {
    mutex_lock(&dagcb.seqLock);
    uint32_t s = dagcb.seqSeed++;
    if (dagcb.seqSeed == 0) dagcb.seqSeed = 1;
    mutex_unlock(&dagcb.seqLock);
    return s;
}

// A number in 0..seqmax-1 from the process's shared generator.
uint32_t dagenranseq(uint32_t seqmax) {
    mutex_lock(&dagcb.ranseqLock);
    uint32_t x = dagcb.ranseqSeed;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    if (x == 0) x = 1;
    dagcb.ranseqSeed = x;
    mutex_unlock(&dagcb.ranseqLock);
    return seqmax ? x % seqmax : x;
}

}  // namespace vrta

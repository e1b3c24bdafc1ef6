// Inside of the logical file layer: the per-opener block, the shared block
// and the partition records. Only dafd*.cpp include this.
#pragma once
#include "sda/dafd.h"
#include "sda/darc.h"
#include "sda/daods.h"

namespace vrta {

// One partition file.
struct DA_PCB {
    da_off_t minoffset;  // logical range [minoffset, maxoffset]
    da_off_t maxoffset;
    int pdi;             // path index
    int pfd;             // descriptor, -1 when closed
    int dfd;             // O_DIRECT twin for aligned transfers, -1 when none
    int flags;           // DA_PCBDIRTY
};
constexpr int DA_PCBDIRTY = 1;  // written since the last data sync

// A file's shared state; one per opener, or one per process with DA_FDSHARED.
struct DA_FDB {
    DA_FDB* next;          // fdbList link
    da_off_t filesize;
    int refcount;
    int numpcb;
    int pcballoc;
    DA_PCB* pcbs;
    // Outgrown pcbs vectors stay until the block is freed: another thread
    // of a shared block may still be walking one.
    DA_PCB* retired[32];
    int retiredn[32];
    int nretired;
    int fibsize;           // allocation of the FIB with its directory
    DA_FIB* fib;           // image of the FIB and directory, fibsize bytes
    da_off_t fiboff;       // where the head of the FIB chain stands (logical, in mdfd)
    da_off_t curfiboff;    // where the FIB in use stands (end of the overflow chain)
    int flags;
    int opmode;            // open(2) flags of the partitions
    int state;
    int lckmode;           // DA_FDRDLOCK or DA_FDWRLOCK while the FIB region is locked
    int nrdlocks;
    int nwrlocks;
    int stripesize;
    int numstripes;
    int stripemax;
    void* scbs;
    int nummaps;
    int modtime;           // change stamp last seen
    int stampstripes;
    int stampvalid;
    int revision;
    char* name;
    int fullname_l;
    char* fullname;        // full path of partition 0
    unsigned char reqvec[24];
};

// The per-opener block behind DA_FD.
struct DA_FDP {
    DA_FD fd;              // public face, first so that a DA_FD* is a DA_FDP*
    DA_FDP* mdfd;          // holder of the FIB: this, or the MDF
    DA_FDB* fdb;
    int perms;
    int numpath;
    char** paths;
    int curpcb;
    int flags;
    int opmode;
    int nummaps;
    int syncmode;
    da_off_t minfree;
    da_off_t maxpar;
    char fuid[256];
    int firstplace;
    int ntry;              // tries of the running write
};

inline DA_FDP* fdpof(DA_FD* fd) { return reinterpret_cast<DA_FDP*>(fd); }

constexpr int FIBLOCKLEN = 4;       // bytes of the FIB lock region

// Pool wrappers: shared blocks outlive the opener's thread.
void* fdalloc(long len);
void fdfree(void* p, long len);
char* fdstrdup(const char* s);
void fdstrfree(char* s);

// Diagnostics.
void IOError(DA_FDP* fdp, const char* who, const char* what, int err, da_off_t off);
void DumpPcbs(DA_FDP* fdp);
[[nodiscard]] rctype BadOffset(DA_FDP* fdp, const char* who, rctype rc, da_off_t off);

// Partition names and paths.
[[nodiscard]] rctype dafdmkpfn(DA_FDP* fdp, int pno, int revno, char* buf, size_t buflen);
[[nodiscard]] rctype dafdpfull(DA_FDP* fdp, int pno, char* buf, size_t buflen);
[[nodiscard]] rctype daalpde(DA_FDP* fdp, const char* fullname);
[[nodiscard]] rctype dafrpde(DA_FDP* fdp, int pno);
[[nodiscard]] rctype dawrfibp(DA_FDP* fdp);
[[nodiscard]] rctype dafnewp(DA_FDP* fdp, int updateFib, int skipFlag);
[[nodiscard]] rctype dadelfp(DA_FDP* fdp, int pno, int updateFib);
// dadelfp's halves: partition pno (the last) closed and out of the directory
// in memory, its file kept; and the removal of a partition file by name.
[[nodiscard]] rctype dadroppcb(DA_FDP* fdp, int pno);
void dadelpf(const char* full);
[[nodiscard]] rctype dao2pcb(DA_FDP* fdp, da_off_t off, int* pno);
[[nodiscard]] rctype dafdreload(DA_FDP* fdp);
[[nodiscard]] rctype dardfibhead(DA_FDP* fdp, DA_FIB* head, da_off_t* where);
[[nodiscard]] rctype dareopenp(DA_FDP* fdp, int newflags);
[[nodiscard]] rctype darelockp(DA_FDP* fdp, int flags, pid_t ownpid);
[[nodiscard]] rctype dafibloc(DA_FDP* fdp, int* pfd, da_off_t* poff);
void dafdsmt(DA_FDP* fdp);
[[nodiscard]] rctype OpenParts(DA_FDP* fdp, int from);
void RecalcSizes(DA_FDP* fdp);
[[nodiscard]] rctype GrowFile(DA_FDP* fdp, da_off_t newsize);
// Data sync of every partition written since the last one.
[[nodiscard]] rctype dasyncparts(DA_FDP* fdp);
// Sync of the directory of partition path index pi.
[[nodiscard]] rctype dasyncpath(DA_FDP* fdp, int pi);

// Methods.
[[nodiscard]] rctype dareadp(DA_FD* fd, void* buf, long size, da_off_t offset, long* nread);
[[nodiscard]] rctype daread1(DA_FD* fd, void* buf, long size, da_off_t offset, long* nread);
[[nodiscard]] rctype dawritp(DA_FD* fd, const void* buf, long size, da_off_t* off);
[[nodiscard]] rctype datrncp(DA_FD* fd, da_off_t endoff);
[[nodiscard]] rctype dafdcntl(DA_FD* fd, int cmd, void* arg);
[[nodiscard]] rctype dammapp(DA_FD* fd, da_off_t offset, da_off_t size, void** addr, da_off_t* msize);
[[nodiscard]] rctype daunmap(DA_FD* fd, da_off_t offset, da_off_t size, void* addr);

}  // namespace vrta

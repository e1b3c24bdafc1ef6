// The process block of the low-level "hs" runtime, shared with a host by
// pointer (HSGCB), and the hs calls that go with it.
#pragma once
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include "hs/hs.h"
#include "ssup/thr.h"

namespace vrta {

struct XMGCB;

// Codes of this layer.
constexpr rctype HS_RC_NOMEM = static_cast<rctype>(0x80000407u);  // no memory for the block
constexpr rctype HS_RC_INIT = static_cast<rctype>(0x80000408u);    // a key or a sub-layer failed

struct HS_GCB {
    // Thread keys; 0 means the key was never made (hsmkkey never hands out 0).
    thread_key_t gAbortKey;  // the thread's abort jump buffer
    thread_key_t gExitKey;   // the thread's hs exit vector (destructor hs_thread_exit)
    thread_key_t gBufKey;    // per-thread error text buffer (destructor hs_free_errbuf)
    void* openlist;          // FH_TABLE of open files
    int opentot;
    int openmax;
    void* NVEZXHandle;       // the toolkit's session, when there is one
    char session_req_vec[24];
    char** tmpdir;           // temporary directories, under tmpdirlock
    int tmpdirlen;
    int tmpdircount;
    mutex_t tmpdirlock;
    char gPrintID[9];        // what hsprint puts in front of a line
    int debug;
    // The file-system vector: a host may plant its own functions here. A null
    // entry means the plain POSIX call.
    int (*xxopen)(const char*, int, ...);
    ssize_t (*xxpread)(int, void*, size_t, off_t);
    ssize_t (*xxpwrite)(int, const void*, size_t, off_t);
    int (*xxclose)(int);
    off_t (*xxlseek)(int, off_t, int);
    int (*xxstat)(const char*, struct stat*);
    int (*xxfstat)(int, struct stat*);
    int (*xxunlink)(const char*);
    int (*xxfcntl)(int, int, ...);
    int (*xxrename)(const char*, const char*);
    int (*xxstatvfs)(const char*, struct statvfs*);
    char* (*xxrealpath)(const char*, char*);
    void* nlsgcb;            // national language block
    XMGCB* xmgcb;            // the memory manager
    void* kortbgcb;          // table lock block (one mutex), hstbinit
    void* hsmemgcb;          // high-memory block, hsmeminit
    // The rest of the vector: the calls that change or settle a file's
    // contents beyond the first twelve, so that a host sees every one.
    int (*xxftruncate)(int, off_t);
    int (*xxfsync)(int);
    int (*xxfdatasync)(int);
};

// Makes a thread key that is never 0, so that 0 can mean "no key".
int hsmkkey(thread_key_t* key, void (*destructor)(void*));

// Destructors of the per-thread keys.
void hs_thread_exit(void* xvec);
void hs_free_errbuf(void* buf);

// The table lock block.
[[nodiscard]] rctype hstbinit();
void hstbterm();

// Truncated doubles: a number shorter than 8 bytes holds the high bytes.
void hsrftrc(const void* source, int len, void* target);
void hscftrc(void* target, int len, double value);

}  // namespace vrta

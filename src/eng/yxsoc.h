// The socket transport record and the calls the engine entry needs to end a
// connection. The socket layer proper builds on this record.
#pragma once
#include <netinet/in.h>
#include "ssup/vrtadef.h"

namespace vrta {

struct YXSOCK_FDS {
    int fdslen;           // bytes in each bitmap
    unsigned char* fdss;  // armed descriptors
    unsigned char* fdsw;  // work copy
};

// One socket. Zero-filled by the caller, who sets the "in" fields before
// opening. Buffers hang off it from the process pool, with their lengths kept
// here so that closing can give them back.
struct YXSOCK_OPEN {
    char* host;  // in
    int hlen;    // in
    int mode;    // in: 1 input, 2 output
    int type;    // in: record discipline 1, 2, 4, 8 or 16
    int blocksize;
    long nread;
    int termflag;
    long lrecl;
    int conback;
    char* service;
    int* brk;
    void (*fp)();
    long recnum;
    int flag;
    void* reca;
    long recl;
    void* recouta;
    long recoutl;
    int termlen;
    char* term;
    int trunc;
    int s, cs;
    sockaddr_in csa, sa;
    int portno, family;
    char ip[128], ipc[128], ipl[128];
    char hostname[128], servname[128], localname[128], clientname[128];
    YXSOCK_FDS fds;
    int obufl, ibufl;
    char* inbuf;
    char* outbuf;
    long numbyte;
    long lastpos;
    long count;
    long left;
    int eof, eov;
    int addrlen;
    unsigned char addr[20];
    long totcnt;
    void* gcb;
};

// Hooks of a host that needs socket set-up; here they do nothing.
rctype yxsinit(void** breakhandler, void** gcbptr);
rctype yxsterm(void* gcb);
void yxsbrk();
// Closes the descriptors and gives back the buffers; the record stays the caller's.
rctype yxsclos(YXSOCK_OPEN* sopen);

}  // namespace vrta

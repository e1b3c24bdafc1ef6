// The socket transport: one record per socket, a client side (TCP by host
// and service, or a UNIX-domain path), the passive side our servers use, and
// five ways of cutting the incoming stream into records.
#pragma once
#include <netinet/in.h>
#include "ssup/vrtadef.h"

namespace vrta {

constexpr rctype YXS_RC_NOMEM = static_cast<rctype>(0x80010003u);
constexpr rctype YXS_RC_FAIL = static_cast<rctype>(0x80010005u);  // text in the substitution area
constexpr rctype YXS_RC_EOF = 0x00010001;                          // end of input; eof is set
constexpr rctype YXS_RC_TRUNC = 1;                                 // yxsread: the record was cut
constexpr rctype YXS_RC_NOHOST = 2;                                // no host name at all

// Record disciplines (type).
constexpr int YXS_TERM = 1;     // terminated records
constexpr int YXS_FIXED = 2;    // records of lrecl bytes
constexpr int YXS_COUNTED = 4;  // nread bytes: the one the protocol uses
constexpr int YXS_VAR = 8;      // 4-byte length header
constexpr int YXS_SEG = 16;     // segmented records of a 370-style host

// Ports of our own services when the services database does not list them.
constexpr int YXS_PORT_VRTASRV1 = 5180;
constexpr int YXS_PORT_VRTANAME = 5181;

// Block length unless blocksize shrinks it.
constexpr int YXS_BLOCK = 8192;

struct YXSOCK_FDS {
    int fdslen;           // bytes in each bitmap
    unsigned char* fdss;  // armed descriptors
    unsigned char* fdsw;  // work copy
};

// Head of a record of the variable disciplines; the length counts the head.
struct YXSOCK_S370HDR {
    unsigned char len_hi, len_lo;
    unsigned char flag_hi;  // 0 whole, 1 first, 2 last, 3 middle segment
    unsigned char flag_lo;
};
static_assert(sizeof(YXSOCK_S370HDR) == 4);

// One socket. Zero-filled by the caller, who sets the "in" fields before
// opening. Buffers hang off it from the thread's pool, with their lengths
// kept here so that closing can give them back.
struct YXSOCK_OPEN {
    char* host;  // in: a buffer, not a string; empty means this machine
    int hlen;    // in
    int mode;    // in: 1 input, 2 output
    int type;    // in: record discipline 1, 2, 4, 8 or 16
    int blocksize;
    long nread;  // in before each read: bytes wanted, negative for what is there
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
    // Our servers' bound on a wait for input, in milliseconds; 0 waits as
    // long as it takes, which is what the engine does: a server may think
    // for hours before it answers.
    int waitms;
};

// Hooks of a host that needs socket set-up; here they do nothing.
rctype yxsinit(void** breakhandler, void** gcbptr);
rctype yxsterm(void* gcb);
void yxsbrk();

rctype yxscopn(YXSOCK_OPEN* sopen);
rctype yxscuop(YXSOCK_OPEN* sopen, const char* path, int pathl);
rctype yxssopn(YXSOCK_OPEN* sopen);
rctype yxscsoc(YXSOCK_OPEN* sopen);
rctype yxslisn(YXSOCK_OPEN* sopen);
rctype yxsacc(YXSOCK_OPEN* sopen);
rctype yxsread(YXSOCK_OPEN* sopen);
rctype yxswrit(YXSOCK_OPEN* sopen);
// Closes the descriptors and gives back the buffers; the record stays the caller's.
rctype yxsclos(YXSOCK_OPEN* sopen);

// The passive side of a UNIX-domain socket, for a server that also serves
// clients on this machine through a path. An existing socket file is replaced.
rctype yxssuop(YXSOCK_OPEN* sopen, const char* path, int pathl);
// Takes over a descriptor that a server accepted, with buffers as a client
// open would make them, so that the server reads and writes through the same
// record layer.
rctype yxsadopt(YXSOCK_OPEN* sopen, int fd);

// The descriptor reads and writes go to: the accepted client, else the socket.
inline int yxsfd(const YXSOCK_OPEN* so) { return so->cs ? so->cs : so->s; }

// Helpers other parts of the wire layer use.
rctype yxshost(YXSOCK_OPEN* sopen);
rctype yxsserv(YXSOCK_OPEN* sopen, int len, int* port);
rctype yxtzsub(int err);  // 0x80010005 with strerror(err) as substitution
rctype yxtzbit(YXSOCK_FDS* fds, int fd, int on);
// Waits until the one armed descriptor below count can be read; ms 0 waits
// without limit.
rctype yxtzsnb(int count, int* brk, void* gcb, YXSOCK_FDS* fds, int ms = 0);
// Writes len bytes; a result of 0 or less from the system ends it: 0 or 0x80010005.
rctype mywrite(int fd, const void* buf, long len, void* gcb);
// Dotted text of an IPv4 address in network order, into a buffer of the
// calling thread.
const char* yxsntoa(uint32_t addr);
// A decimal number out of a blank-padded buffer; -1 when there is none.
long zrlchr(const char* buf, int len);

}  // namespace vrta

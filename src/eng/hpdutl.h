// Framing of the wire: the two headers and their byte order, sending a
// message in one write, reading and classifying a reply, the enciphered
// exchanges of a login, and the byte I/O of greetings. Both the engine and
// our servers frame through these, so the two ends cannot drift.
#pragma once
#include "eng/yxsoc.h"
#include "ssup/vrtadef.h"

namespace vrta {

constexpr rctype HPD_RC_FAIL = static_cast<rctype>(0x80010005u);      // text in the substitution area
constexpr rctype HPD_RC_NOMEM = static_cast<rctype>(0x80010003u);
constexpr rctype HPD_RC_MISMATCH = static_cast<rctype>(0x8001000bu);  // assign on a server of unknown version
constexpr rctype HPD_RC_NOTFOUND = static_cast<rctype>(0x8004000au);  // rcode 2104, or 773 at level 3 on
constexpr rctype HPD_RC_2549 = static_cast<rctype>(0x80040014u);
constexpr rctype HPD_RC_INUSE = static_cast<rctype>(0x80040015u);     // member in use
constexpr rctype HPD_RC_NAMESEQ = static_cast<rctype>(0x80040016u);   // column out of order in an open

// Reply classes: bit 1 a note (the call succeeds), bit 2 a failure.
constexpr int HPD_RCLASS_NOTE = 1;
constexpr int HPD_RCLASS_FAIL = 2;

// Header of a request: method number, total length, "METH".
struct DS_HDR_METHOD {
    int32_t id;
    int32_t len;
    char type[4];
};
static_assert(sizeof(DS_HDR_METHOD) == 12);

// Header of a reply.
struct DS_HDR_REPLY {
    int32_t id;
    int32_t len;
    char type[4];
    int32_t rcode;
    int32_t rclass;
};
static_assert(sizeof(DS_HDR_REPLY) == 20);

// A reply longer than this is refused before anything is allocated for it.
// Large tables travel on the data port, never as one reply.
constexpr long HPD_MAXMSG = 64L << 20;

// What the operating system tag of a server decides.
struct HPD_OSTAG {
    char name[8];
    int native;  // headers in this machine's order; else big-endian
    int swap;    // byte swap of a table
    int trans;   // conversion
    int fmt;     // data format code
};
// The entry for a tag; any tag not named gets the big-endian row.
const HPD_OSTAG* hpdostag(const char* osname8);

// The tag our servers send, and the order their headers go in.
inline constexpr char HPD_OSNAME[9] = "LNX     ";

struct DS_RECDESC;

// Grows reca and recouta (both) to hold n bytes; buffers only grow.
rctype hpdgrow(YXSOCK_OPEN* so, long n);

// Sends header and body (record rec of the catalogue's description d, null
// for none) with one write: sized, then filled. native: header in this
// machine's order. A failed write marks the socket dead.
rctype hpdsend(YXSOCK_OPEN* so, int id, int native, int level, const DS_RECDESC* d, const void* rec);
// The same for a reply (our servers).
rctype hpdsendr(YXSOCK_OPEN* so, const DS_HDR_REPLY& h, int native, int level, const DS_RECDESC* d,
                const void* rec);

// Reads a reply: header into *h, body (len - 20 bytes) into reca. A failure
// marks the socket dead and logs 2/75.
rctype hpdrecv(YXSOCK_OPEN* so, int native, DS_HDR_REPLY* h);
// Reads a request (our servers): header into *h, body into reca. 0x10001 at
// a clean end between messages.
rctype hpdrecvm(YXSOCK_OPEN* so, int native, DS_HDR_METHOD* h);

// What the open of a table adds to the classification: the member's name for
// the member-in-use forms, the server's tag for the user's name.
struct HPD_RCTX {
    const char* member;  // null outside a table open
    int memberl;
    const char* osname;  // 8 bytes, or null
};
// Turns rcode and rclass into the return code, with substitutions; with
// bit 2 clear it is 0 (the caller parses the body, then calls hpdrmsg).
rctype hpdclass(const DS_HDR_REPLY& h, const unsigned char* body, long bodyl, int level, const HPD_RCTX* ctx);
// One request on a socket and its reply, classified; the body stays in
// reca. A connection that breaks is marked dead (2/75 logged) and gives
// 0x80010005; a dead one fails at once with the text of 2/79.
rctype hpdask(YXSOCK_OPEN* so, int native, int level, int id, const DS_RECDESC* d, const void* rec,
              DS_HDR_REPLY* h, const HPD_RCTX* ctx = nullptr);
// The next reply of a stream that follows a request, classified likewise.
rctype hpdnext(YXSOCK_OPEN* so, int native, int level, DS_HDR_REPLY* h, const HPD_RCTX* ctx = nullptr);
// Logs a reply's own text by its class: 2/77 a note, 2/78 any other non-zero.
void hpdrmsg(int rclass, const char* msg, long msgl);

// The logins and the name server's question: header big-endian and plain,
// body enciphered (zncrypt). Both directions.
rctype hpdsendx(YXSOCK_OPEN* so, int id, int level, const DS_RECDESC* d, const void* rec);
rctype hpdsendxr(YXSOCK_OPEN* so, const DS_HDR_REPLY& h, int level, const DS_RECDESC* d, const void* rec);
// Reads the 20-byte header and the enciphered body, deciphered into reca.
rctype hpdrecvx(YXSOCK_OPEN* so, DS_HDR_REPLY* h);
rctype hpdrecvxm(YXSOCK_OPEN* so, DS_HDR_METHOD* h);

// Byte I/O for one-byte greetings: hpcread returns the bytes not received;
// hpcwrit 0, or 1 when the system took nothing.
int hpcread(int fd, void* buf, int len, int* brk, void* gcb, int wait, YXSOCK_FDS* fds);
int hpcwrit(int fd, const void* buf, int len, void* gcb);
// Enciphers the recoutl bytes of recouta and writes them.
rctype mywrite(YXSOCK_OPEN* so);
// Pads recouta with blanks to 2048, enciphers to 2736 bytes, writes.
rctype ewrite(YXSOCK_OPEN* so);

// Makes the text of message group/number (with one optional substitution)
// the substitution of 0x80010005, and returns that code.
rctype hpderrtxt(int group, int number, const char* sub = nullptr);

// Big-endian 4-byte words outside message bodies (magic, greetings).
void hpdput4(unsigned char* p, int32_t v);
int32_t hpdget4(const unsigned char* p);

}  // namespace vrta

// Messages: the message file tables (xk), the numbered-message and text
// printer (xp) and the substitution buffer that travels with a return code (xr).
#pragma once
#include <cstdarg>
#include <cstddef>
#include "ssup/vrtadef.h"

namespace vrta {

// Codes of the message layer itself.
constexpr rctype XP_RC_NOMEM = static_cast<rctype>(0x80010003u);     // out of memory
constexpr rctype XP_RC_INTERNAL = static_cast<rctype>(0x80010005u);  // internal failure
constexpr rctype XR_RC_NOMORE = 0x00010001;                           // substitution list exhausted (no failure)
// "The request is not available yet": for entries the engine does not serve.
// Its text takes one substitution, the name of the request (see xrmksub).
constexpr rctype XP_RC_NOTYET = static_cast<rctype>(0x80010014u);

constexpr int XK_NGROUPS = 11;

// ---------------------------------------------------------------- xk
// One group's table, laid out in one malloc'ed block: this head, the offset
// and length arrays, then the texts, each terminated by a zero byte.
struct MSGLIST {
    int msgmax;      // after loading: the highest number used
    char* msgc;      // text area
    int* msgoff;     // offsets into msgc; message n at index n - 1
    short* msglen;   // lengths; 0 means no such message
};
static_assert(sizeof(MSGLIST) == 32);

struct YPMSG_GRPNAME {
    int msggrp;
    const char* name;
    int msgmax;
};

struct YPMSG_GCB {
    MSGLIST* msggrp[XK_NGROUPS];  // null for a group whose file did not open
    const YPMSG_GRPNAME* msgtbl;
};

extern YPMSG_GCB* YKGCB;
extern const YPMSG_GRPNAME xkgrpnames[XK_NGROUPS];

// Builds YKGCB from the files found through MSGPATH; idempotent. Null when a
// file is malformed (the reason is printed).
void* xkinit();
void xkterm(void* gcb);
// 0 and a pointer into the table (zero terminated); -1 with a text of its
// own for a bad group, a missing file or a bad number; XP_RC_NOMEM when the
// tables cannot be loaded.
[[nodiscard]] rctype xkread(int group, int number, const char** text, int* len);
// Forgets the tables so that the next lookup reads the files again. Only for
// tests and tools: pointers handed out before become invalid.
void xkreset();

// ---------------------------------------------------------------- xr
struct VRGCB {
    char tag[4];    // "VRGB"
    char* msg;      // malloc'ed, grows as needed
    char* start;    // read cursor
    char* msgend;   // end of what was stored
    long buflen;
    int hold;       // 1: xrmksub keeps what is there
};

[[nodiscard]] rctype xrinit(VRGCB* vr);
// count pairs of (const char* ptr, int len). A negative len means strlen.
// Called on the way out of a failure with the caller's own code to return:
// when there is no room for the texts the message goes without them, so
// the result may be dropped.
rctype xrmksub(int count, ...);
[[nodiscard]] rctype xrgtsub(const char** ptr, int* len);
void xrholds(int flag);

// ---------------------------------------------------------------- xp
constexpr int XP_OUTLEN = 258;
constexpr int XP_STACK = 10;

// Destinations of xpdest. XP_DEST_STR is the caller's buffer of xpsstr and
// friends: nothing is written, text past the buffer is cut.
constexpr int XP_DEST_LOG = 1;
constexpr int XP_DEST_PRINT = 2;
constexpr int XP_DEST_MSG = 3;
constexpr int XP_DEST_USER = 4;
constexpr int XP_DEST_STR = 5;

struct LINESTR {
    int linesize;
    int pagesize;
    int xword;        // 1: the line in progress is to be dropped
    int autocent;
    int center;
    int fortrancc;    // carriage control of the line
    int lineone;
    int colnum;       // last used column; text starts at out[1]
    int linenum;
    int left;
    int lmargin;
    int cindent;      // hanging indent of continuation lines
    int aindent;
    char type;        // one of "dhstbfewnm"
    int outalen;
    char* out;        // XP_OUTLEN bytes, blank filled, out[0] carriage control
    int* tabptr;      // tab stops, zero terminated; may be null
    char* datstring;
    int varssaved;
    char savtype;
    int savcindent;
    int savautocent;
    int pagenum;
    int dest;         // 1 log, 2 print, 3 message, 4 user line
    int minbody;
    char* hptr;
    int maxhdr;
};

// The sink of finished lines: pmfp(pmdata, type, buffer, len).
using XPPMFP = void (*)(void* pmdata, int type, const char* buffer, int len);

struct YPTASK {
    LINESTR llinestr;  // the log
    LINESTR mlinestr;  // the message string
    LINESTR plinestr;  // the print
};

struct YPGCBSTR {
    YPTASK task;
    LINESTR* clinestr;           // the line in use
    LINESTR* ulinestr;           // a user line for xpdest(4); may be null
    LINESTR* slinestr[XP_STACK]; // pushed lines of xpdest(-n)
    int lssp;
    int notes;
    int ps;
    int footnotes;
    int formdlim;
    char errstr[21], warnstr[21], notestr[21], fatstr[21];
    char linstr[21], colstr[21];
    int msgid;
    int grpno, msgno;
    int internal, rinternal;
    int savmaxcol;
    int linesplit;
    int splitfresh;              // a break just left the new line empty
    char* utilmem;
    XPPMFP pmfp;
    void* pmdata;
    VRGCB vrgcb;
};

void* xpinit();
void xpterm(void* gcb);
YPGCBSTR* xpgcb();

void xps(const char* format, ...);
void xpsf(const char* format, int len, va_list args);
void xpslog(const char* format, ...);
void xpsout(const char* format, ...);
int xpsstr(char* buffer, int buflen, const char* format, ...);
void xpmlog(int group, int number, ...);
void xpmelog(void* a, void* b, int group, int number, ...);
void xpm(int group, int number, ...);
void xpmout(int group, int number, ...);
int xpmstr(char* buffer, int buflen, int group, int number, ...);
void xprlog(rctype rc);
void xprelog(void* a, void* b, rctype rc);
int xprstr(char* buffer, rctype rc, int buflen);
void xpr(rctype rc, int mode);
void xpout();
void xplog();
void xpmsg();
void xpprn();
int xpdest(int n);
void xpsetpm(XPPMFP pmfp, void* pmdata);
void xpgetpm(XPPMFP* pmfp, void** pmdata);
void xnlog(int type, const char* buffer, int len);

// Printer internals shared by its source files.
void xpoutf(LINESTR* ls, int dest);      // write a line (a split part included)
void xpendline(LINESTR* ls, int dest);   // write it and restore the saved state
void xpsfi(YPGCBSTR* g, const char* format, int len, va_list* ap);

}  // namespace vrta

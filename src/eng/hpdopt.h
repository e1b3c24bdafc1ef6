// Domain and table options: the blocks the option parsers fill from the
// host's tokens, the parsers themselves and the macro table.
#pragma once
#include <cstdint>

#include "eng/hpd.h"
#include "ssup/vrtadef.h"
#include "vrta/vrtaeng.h"

namespace vrta {

// The parsers' codes.
constexpr rctype HP_RC_MALFORMED = static_cast<rctype>(0x80040065u);  // substitution: the token
constexpr rctype HP_RC_NOTMINE = static_cast<rctype>(0x80040066u);    // substitution: the keyword

// The paths of a domain. Each list is text the storage layer reads as a
// path list: one path, or "('a' 'b')".
struct HPDPATH {
    char* metapath;
    int metal;
    char* indxpath;
    int indxl;
    char* datapath;
    int datal;
    double size;
    char* workpath;
    int workl;
};

// One "ACLRES" name, blank-padded.
struct HPD_ACL {
    HPD_ACL* next;
    char name[8];
};

// Bits of HPDOPT.debug, by option.
constexpr int HPD_PROMPT = 0x1;          // also ASYNCINDEX=NO
constexpr int HPD_CREATE = 0x2;
constexpr int HPD_NETCOMPNO = 0x4;
constexpr int HPD_ACLSPECIAL = 0x8;
constexpr int HPD_ACLREAD = 0x10;
constexpr int HPD_ACLWRITE = 0x20;
constexpr int HPD_ACLALTER = 0x40;
constexpr int HPD_ACLREADNO = 0x80;
constexpr int HPD_ACLWRITENO = 0x100;
constexpr int HPD_ACLALTERNO = 0x200;
constexpr int HPD_ACLCONTROLNO = 0x400;
constexpr int HPD_ACLCONTROL = 0x800;
constexpr int HPD_CHNGPASS = 0x1000;
constexpr int HPD_DISCONNECT = 0x2000;
constexpr int HPD_BYSORT = 0x4000;
constexpr int HPD_UNIXDOMAIN = 0x8000;
constexpr int HPD_NOKORSORT = 0x10000;
constexpr int HPD_FASTOPTNO = 0x20000;
constexpr int HPD_BITMAP = 0x40000;
constexpr int HPD_VRTAWHERE = 0x80000;
constexpr int HPD_NOCATLOCK = 0x100000;
constexpr int HPD_NOCATOPEN = 0x200000;
constexpr int HPD_BYTESWAP = 0x400000;
constexpr int HPD_ODBC = 0x800000;
constexpr int HPD_TEMP = 0x1000000;
constexpr int HPD_DELREC = 0x2000000;
constexpr int HPD_TRUST = 0x4000000;
constexpr int HPD_LOCKING = 0x8000000;
constexpr int HPD_DEBUG = 0x20000000;
constexpr int HPD_DEBUGCORE = 0x40000000;
constexpr int HPD_ALTPATH = static_cast<int>(0x80000000u);

// The options of one assign statement: made by its first hpdpars, freed by
// hphbfr. The lists and copies it points at are its own.
struct HPDOPT {
    char servname[128];
    int servlen;
    char appname[128];
    int applen;
    HPDPATH path;
    int bufsize;          // "RPCSIZE"
    int debug;            // HPD_* bits
    char user[129];       // zero terminated, as every text below with room for it
    char pass[129];
    char group[100];
    char* acllist;
    int acllen;
    int acldef;           // 1 when "ACLRES" was given, even as an empty list
    HPD_ACL* aclres;
    int name_magic;
    char owner[8];
    char domain[60];      // "DBQ", "SCHEMA"
    char npass[129];
    int64_t startobs, endobs;
    int ltype, ubufsize, ubufno, wheresize;
    char aclgrp[9];       // upper case
    int level;
    char version[4];
    int user_prompt;
    int perf;
    char defeng[8];
    char* defopt;
    int defoptl;
    int backup;
    int fmtlib;
    int encoding_cei;
    char locale[32];
    char tempdir[256];
    char projdir[256];
    int projdirl;
    int truncwarn, dynlock, libaclinherit, hfnumber;
};
using hpdopt = HPDOPT*;

// One name of a list option, blank-padded.
struct HPBIT {
    HPBIT* next;
    char keyname[32];
};

// Bits of HPOOPT.debug, by option.
constexpr int HPO_ASYNCINDEX = 0x1;
constexpr int HPO_QUICKSORT = 0x2;
constexpr int HPO_UNIXDOMAIN = 0x4;
constexpr int HPO_ACLREAD = 0x8;
constexpr int HPO_ACLWRITE = 0x10;
constexpr int HPO_ACLALTER = 0x20;
constexpr int HPO_ACLREADNO = 0x40;
constexpr int HPO_ACLWRITENO = 0x80;
constexpr int HPO_ACLALTERNO = 0x100;
constexpr int HPO_ACLCONTROLNO = 0x200;
constexpr int HPO_ACLCONTROL = 0x400;
constexpr int HPO_VERBOSE = 0x800;
constexpr int HPO_BYSORT = 0x1000;
constexpr int HPO_RANKLINEAR = 0x2000;
constexpr int HPO_SYNCADD = 0x4000;
constexpr int HPO_UNIQUESAVE = 0x8000;
constexpr int HPO_NOMISS = 0x10000;
constexpr int HPO_CNTLREC = 0x20000;
constexpr int HPO_CNTLMEM = 0x40000;

// The options of one table open: made by its first hpopars and anchored in
// peng_op of the open request; freed by hpohbfr.
struct HPOOPT {
    int blocksize;        // "NETPACKSIZE"
    int ioblocksize;
    int bufno;
    int segsize;
    int numbuf;           // "BUFFERCACHE"
    int debug;            // HPO_* bits
    char user[8];
    HPBIT* bit;           // "BITINDEX"
    HPBIT* bitr;          // "NOSEGINDEX"
    HPBIT* bitw;          // "WHERENOINDEX"
    char compress[8];     // an algorithm's name, blank-padded; blanks for the default
    int comp;
    int memmap;           // -1 default and "YES", 0 "NO"
    char* acllist;
    int acllen;
    int noindex, noequal;
    int64_t startobs, endobs;
    int numw;
    int partsize, thrcnt;
    char ekey[40];        // "PW", "READ"; zero-padded
    char label[256];      // zero terminated
    char type[8];         // blank-padded
    int gennum, genmax;
    double gendate;       // a date: days from 1 January 1960
    int64_t sortsize;
    HPBIT* minmax;
    int numminmax;
    int encoding_cei;
};
using hpoopt = HPOOPT*;

// The macro table: records of 20 bytes, the last starting with a blank.
constexpr int HP_MACRECL = 20;
constexpr int HP_MACINT = 1;
constexpr int HP_MACBOOL = 2;
constexpr int HP_MACUNSET = 8;

// Loops over hpdpars until the end of the track; the last failure is the
// result. bag holds the block made by the first option.
rctype hpdpopt(void* track, HPDOPT** bag, hpdptr hpd, yhlibref* libref);
// The same on a text of the engine's own (the SQL pass-through's connection
// text): the track is made and freed here.
rctype hpdpstr(hpdptr hpd, const char* text, int len, HPDOPT** bag);
// Frees the table options of an open and clears the anchor.
rctype hpohbfr(XOPNSTR* open);
// A macro variable as text: 0 found, 1 not.
int hpogmac(const unsigned char* mactbl, const char* name, char* out, int outmax, int* outlen);

}  // namespace vrta

extern "C" {
rctype hpdpars(void* engid, vrta::yhlibref* libref, void* sourcetrack, int* scanned, void** hostbag);
rctype hphbfr(void* peng_op);
rctype hpopars(void* engid, int env, void* sourcetrack, int* scanned, XOPNSTR* open);
}

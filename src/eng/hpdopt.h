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

}  // namespace vrta

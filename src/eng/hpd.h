// The engine front end: its control block, its connections list, the process
// globals of the engine entry, and every entry the engine vector points at.
#pragma once
#include "ssup/vrtadef.h"
#include "vrta/vrtaeng.h"

namespace vrta {

struct YXSOCK_OPEN;
struct HPDLIB;
using hpdlib = HPDLIB*;
struct HPDECB;
using hpdptr = HPDECB*;

// Header common to every engine a host drives; the host may read it.
struct DBIGCB {
    char eng_name[8];  // "KORVRTA "
    char release[4];
    void* next_gcb;
    void* prev_gcb;
};

// The host's reference to a domain: its libref and the engine's block for it.
struct YHLIBREF {
    char libref[8];
    void* englib;
};
using yhlibref = YHLIBREF;

// One connection to a data server, shared by every domain assigned through
// it. Lives in the process pool; hpdterm gives it back there.
struct HPDSERV {
    HPDSERV* next;
    HPDSERV* prev;
    char id[4];
    char servname[128];
    int servlen;
    char appname[128];
    int applen;
    int cs, portno;
    int count;  // domains using this connection
    int free;   // close when count reaches 0
    YXSOCK_OPEN* sopen;
    char user[129];
    char pass[129], npass[129];
    char special;
    char domain[60];
    int oportno;
    int magic;
    char aclgrp[9];
    int level;
    char optaclgrp[9];
    int user_prompt;
    char osname[8];
    int locking;
    int protocol_mismatch;
};
using hpdserv = HPDSERV*;

// One assigned domain. Lives from hpdlasg to hpdldas in the engine's list.
struct HPDLIB {
    HPDLIB* next;
    HPDLIB* prev;
    char id[4];  // "HPDL"
    char name[8];
    hpdserv server;
    char* pn;  // shown to the host: server host, ":", server pid, path
    int pnl;
    void* infomem;
    int libid;
    // Paths as the server gave them (own copies), and its free space in KB.
    char* metapath;
    int metalen;
    char* indxpath;
    int indxlen;
    char* datapath;
    int datalen;
    double size;
    int access;
    YXSOCK_OPEN* sopen;  // the server's socket, or the domain's own
    int nocomp;
    void* handle;        // direct path, from splasgn; null when off
    hpdptr hpd;
    int alias;
    int bysort;
    int unixs;
    int64_t startobs, endobs;
    int korsort;
    int ltype;
    int bitmap, where;
    int ubufsize, ubufno;
    int wheresize;
    int physl;
    char* phys;
    int usertokl;
    char* usertok;
    void* catlib;
    int nocatlock, nocatopen;
    int level;
    XHEATTR* attr;
    int expmsg;
    int perf;
    int temp;
    int async;
    int delrec;
    int backup;
    char nhost[128], nserv[128], nserver[128];
    int nservport;
    int lock;
    int oport;
    char domain[32];
    int fmtlib;
    int truncwarn, dynlock;
    int samebox;
};

// The name server's answer about one domain.
struct HPDSNAME_INFO {
    char libname[33];
    char group[100];
    char pn[1024];
    int pnl;
    char node[129];
    int port;
    char option[256];
    int optl;
    char roption[256];
    int roptl;
    int name_magic;
    char owner[8];
    int oport;
    int perf;
    int backup;
    int dynlock;
    int libaclinherit;
};
using hpdnptr = HPDSNAME_INFO*;

// An operator session; proxy and list sessions borrow its first fields.
struct HPDOPT;
struct HPDODCB {
    hpdlib lib;
    YXSOCK_OPEN* sopen;  // the domain's connection it derives from
    int openid;
    YXSOCK_OPEN* oopen;  // the operator socket
    long recordl;
    int magic;
    int lportno;
    HPDOPT* opt;         // user and password of the operator login
};
using hpdodcb = HPDODCB*;
struct HPDBDCB {
    hpdlib lib;
    YXSOCK_OPEN* sopen;
    int openid;
    YXSOCK_OPEN* oopen;
};
using hpdbdcb = HPDBDCB*;
using HPDLDCB = HPDBDCB;
using hpdldcb = HPDLDCB*;

// The engine control block, one per vrtaeng call; its address is the engine id.
struct HPDECB {
    DBIGCB dbihdr;
    char id[4];  // "HPDE"
    hpdlib lib;
    hpdserv serv;
    void (*fp)();
    int socinit;
    int brk;
    char menu[50];
    char hdr[50];
    int eof;
    yhlibref sqlcon;
    int cnt;
    int encoding_cei;
    char locale[32];
};
using hpdptr = HPDECB*;

// Process globals of the entry.
extern HPDECB* HPDGCB;          // block of the last vrtaeng call
extern const char* HPDBINDADDR; // "VRTABINDADDR" from the environment, or null
extern int VRTA_BACKUP;         // pid of a backup in this process, -1 for none
extern int VRTA_RESTORE;        // pid of a restore in this process, -1 for none

// The attribute table and its copy for the SQL pass-through.
extern const XHEATTR hpdattr;
extern const XHEATTR hpdsqlattr;

// Release text in DBIGCB.
inline constexpr char HPD_RELEASE[4] = {'1', '.', '0', '0'};

constexpr rctype HP_RC_NOMEM = static_cast<rctype>(0x80010003u);

// Fills both tables of the vector; the first non-zero yyilc2g stops it.
rctype hpdfill(HPD_ENGTBL* tbl);

// Logs that an entry is not available yet and returns the code that says so.
rctype hpdnotyet(const char* entry);

}  // namespace vrta

// The entries, under the names the host and the rest of the module know.
// Those not built yet have no arguments here; the entry that replaces one
// declares it with its own prototype in its own header.
extern "C" {
using vrta::rctype;

rctype yyilc2g(u_xgfptr local, u_xgfptr* global);

rctype hpdterm(void* engid);
rctype hplnsup();
// Empty by design: the host calls them as part of its protocol.
rctype hpvprjd(void* fid);
rctype hpvprjf(void* fid);
rctype hpoinfs(void* fid);
rctype hpcinfr(void* info);
rctype hpdlxsp(void* engid);
rctype hpvallv(void* fid);

#define VRTA_HPD_NOTYET(X)                                                                              \
    X(hpctrnc) X(hpddel) X(hpdrnm)                                                                      \
    X(hpdexis)               \
    X(hpodefv) X(hpcdnot) X(hpvnamu) X(hpoaddl) X(hpoload) X(hpogetr)  \
    X(hpoadd) X(hpoupd) X(hpodel) X(hponote) X(hpopnt) X(hpon2rd) X(hpord2n) X(hpoforc) X(hpowset)      \
    X(hpoordr) X(hpounlk) X(hpcopen) X(hpcclos) X(hpcropn) X(hpcrd) X(hpcwrt) X(hpcpnt) X(hpcnote)      \
    X(hpcforc) X(hpiedef) X(hpidrop) X(hpiobtn) X(hpistat) X(hpieset) X(hpipnt) X(hpieget) X(hpcdpnt)   \
    X(hplopen) X(hplclos) X(hplmopn) X(hplmcls) X(hplmrd) X(hplmwrt) X(hpldopn) X(hpldcls) X(hpldrd)    \
    X(hpldlst) X(hpldpnt) X(hpldnt) X(hplmnt) X(hplmpt) X(hplminf) X(hplinf) X(hplmdel) X(hplmren)      \
    X(hplmset) X(hplmops) X(hplmfd) X(hplmopg) X(hpldinf) X(hplmskp) X(hplals) X(hplname) \
    X(hpoinfr) X(hpcinfs) X(hpdtest) X(hplinfs) X(hplinfr) X(hpclock) X(hpssgrp) X(hpssget)  \
    X(hpokeep)                                                                    \
    X(hpeopen) X(hpeclos) X(hpesacl) X(hpelacl) X(hpeaacl) X(hpemacl) X(hpeuacl) X(hpedacl) X(hpepopr)  \
    X(hpepcls) X(hpeplba) X(hpelusr) X(hpeplbl) X(hpeplbd) X(hpeplbm) X(hpeplbc) X(hpepdba) X(hpepdbd)  \
    X(hpepdbl) X(hpesys) X(hperopr) X(hperusr) X(hpercan) X(hperlck)

#define VRTA_HPD_DECLARE(name) rctype name();
VRTA_HPD_NOTYET(VRTA_HPD_DECLARE)
#undef VRTA_HPD_DECLARE
}

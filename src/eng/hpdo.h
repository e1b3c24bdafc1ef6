// Open tables: the engine's block for one table open over the wire (with
// the direct path beside it), and the calls of the open, the close and the
// row reads that share it.
#pragma once
#include <cstdint>

#include "eng/hpd.h"
#include "eng/hpdopt.h"
#include "eng/yxsoc.h"
#include "vrta/vrtahost.h"

namespace vrta {

constexpr rctype HPO_RC_NOLIB = static_cast<rctype>(0x80040013u);  // no domain in the request
constexpr rctype HPO_RC_EOF = 0x00010001;                           // no more rows
constexpr rctype HPO_RC_HELD = 0x00040008;                          // a row another user holds
constexpr rctype HPO_RC_BADWHAT = static_cast<rctype>(0x8001000bu); // hpoinfo: a code it does not serve

// The entries a read moves between; the host calls the one in fast->getn.
using hpgetfn = rctype (*)(void* fid, void** recptr);
// The network compression: decompress 1 decodes, 0 encodes.
using hpcmpfn = int (*)(int decompress, void* out, const void* in, int outlen, int inlen);

// One generation of a table, as the open reply stream gives it.
struct DS_GENINFO {
    double mdate;
    double gendate;
    int64_t obs;
    int32_t valid;
    int32_t gennum;
};
static_assert(sizeof(DS_GENINFO) == 32);

// One index of an open table; name and the key's pieces in one block.
struct HPDINDX {
    HPDINDX* next;
    char name[32];
    int64_t values;
    int flag;
    int parts;
    int minlen, maxlen, var0len;
    unsigned char* min;
    unsigned char* max;
    unsigned char* var0;
    long size;  // of the whole block
};

// A ring of cached rows (BUFFERCACHE).
struct HPDBUF {
    HPDBUF* next;
    char* reca;
    int reclen;
    int64_t startpos;
};

// A remembered position.
struct HPDNOTE {
    int flag;
    int64_t pos;
    int64_t startpos;
    int64_t recno;
    HPDBUF* cache;
    int64_t seq;
    int64_t skipcnt;
    int sflag;
};

// One open table, from hpoopen to hpoclos; zero-filled.
struct HPDDCB {
    // connection
    HPDLIB* lib;
    YXSOCK_OPEN* sopen;
    YXSOCK_OPEN* dopen;  // the data port, opened by the first read
    int openid;
    int portno;
    char servname[128];
    int unixpathl;
    char* unixpath;

    // description
    INFOSTR* infostr;
    NAMESTR* namestr_array;
    long namestr_size;
    void* asg;  // reserved: the open reply is not kept, its fields are
    HPDINDX* indxinfo;
    char name[32];
    int numindx;
    int numstat;
    void* xikptr;
    void* keyset;
    int32_t* sortvar;  // the sort order: column numbers, negative descending
    int sortedby;      // entries in sortvar
    char* aclinfo;     // acllistl entries: name (8) and acluser (4)
    char* indxname;    // 40 bytes an index: name, blank-padded
    char* aclname;     // 40 bytes an access entry
    int numacl;
    char* varpool;     // 32 bytes a column: the names
    char* labpool;     // 256 bytes a column: the labels

    // options
    int optbits;  // HPO_* bits of the table options
    int async;
    int opnmode;
    int verbose;
    int bysort;
    int order;
    int ltype;
    int cei;  // encoding the open asked for; 0 the table's own
    char stype[8];
    int slabell;
    char slabel[40];
    int syncadd, syncread;
    int genmax, genhigh;
    int ngen;  // generation records read
    DS_GENINFO* geninfo;
    int nobyindex;
    int keep;
    const unsigned char* mactbl;
    int shrflag1, shrflag2;
    int partsize, thrcnt;

    // fast vector
    XOFPENT* fast;
    XOFPENT ownfast;  // used when the host gives none
    hpgetfn getn, getnc, getnb, getnbc, getnbr, getnbrc;
    void* getr;
    void* pntfast;
    void* add;
    hpgetfn getnf, getnfr;
    hpcmpfn comprtn;
    hpgetfn getnfs, getwnfs;

    // row buffers
    int reclen;      // bytes of a row as the host gets it
    int rowlen;      // bytes of a row of the table
    long obsnum;     // rows left in the block
    int compress;
    char* record;    // rows to add (not used by an input open)
    char* recordc;   // decoded block, or the direct path's block
    char* recordo;
    char* recordr;   // converted rows
    char* recf;      // one row of the direct path
    char* reca;      // the next row
    char* rca;
    char* rca1;
    long recordl;    // bytes of each block buffer
    long reclen8;    // bytes a block buffer was allocated for (recordl)
    int swap, trans;
    void* xvptr;
    void* xvptrr;
    void* xvptro;
    void* xvptrro;
    int numbuf;
    HPDBUF* cache;
    HPDBUF* curcache;
    int64_t recno;
    unsigned char* dirtymap;
    long maplen;
    int blockfactor;
    int blocksize;  // of the network block the open asked for

    // position
    int eof;
    int64_t obstot;
    int64_t numobs;
    int64_t ndel;
    int64_t prid, rid;
    int64_t pos;       // number of the row handed out last
    int64_t obs;       // rows handed out
    int64_t pobs;
    int64_t highobs;   // rows received
    int64_t seq;
    int norec;
    int point, pointinit, pointnew, nomore;
    int getrpos;
    int pntdir;
    HPDNOTE n;
    int pntdone;
    int getstart;      // the stream was asked for
    int64_t firstobs;  // first row asked for
    int64_t getfirst;  // first row of the next stream
    int rewind;        // the server was told to stop
    char* obsbuf;
    char* obsmap;
    int64_t obsseq;
    int64_t endobs;    // last row asked for; 0 for all
    int64_t rcaobs;
    int64_t sobs, eobs;
    int flush;
    int random;

    // WHERE
    int where;
    int wheremsg, wheremsg1;
    int whereeof;
    int whflag;
    char* whindx;
    int whindxl;
    int whdebug, whnoind, fastwh;
    void* whc;
    int seqwhere;

    // direct path
    void* dafid;
    void* pnt;
    void* ixfp;
    void* iocb;
    void* wiocb;
    void* giocb;
    void* wh;
    void* dadel;
    char spekey[13];
    int lenp;
    int resync;
    int64_t* obsvec;
    long numob;

    // projection and group select
    int32_t* cols;  // projected columns, from 1
    int nproj;      // projected columns; 0 reads whole rows
    int nprojset;   // columns listed so far by hpvprjl
    int projroom;   // columns the list has room for
    int projlisting;  // between hpvprji and hpvprje
    int sellen;     // bytes of a projected row
    int32_t* projpos;  // each projected column's offset in the table's row
    int32_t* projlen;
    void* selgrp;
    void* sdcb;
    int block;
    int addinit;
};
using hpddcb = HPDDCB*;

// Opens the data port of a table: its UNIX path when the open gave one,
// else TCP port s on the server's host; lrecl is recordl plus 4.
rctype hpocsrv(hpddcb dcb, int s);
// Drops the direct path's handles and, with reopen, opens them again.
rctype resync(hpddcb dcb, int reopen);
// Frees an open table and all that hangs on it (the sockets included).
void hpodfree(hpddcb dcb);
// Installs the fast entries of an open.
void hpoentries(hpddcb dcb);
// Ends a stream the server may still be sending: DS_YOEGET_TERM, data port closed.
rctype hpogterm(hpddcb dcb);

// The network compression.
int hpzcmp1(int decompress, void* out, const void* in, int outlen, int inlen);

// A wire column turned into the host's form: name into the name pool v
// (32 bytes a column), label into the label pool l (256 a column).
struct DS_NAMESTR_V8;
void nettokor(const DS_NAMESTR_V8* np, NAMESTR* nm, char* v, char* l);
void kortonet(const NAMESTR* nm, DS_NAMESTR_V8* np);

// The table password scrambled into its three 4-byte slots and back; both
// ends of a conversation use this one table.
void yhpwcrp(const char in[12], unsigned char out[12]);
void yhpwdcr(const unsigned char in[12], char out[12]);

}  // namespace vrta

extern "C" {
rctype hpoopen(void* engid, void** xoe, XOPNSTR* opn);
rctype hpoclos(void* fid, int disp);
rctype hporopn(void* fid, int opnmode);
rctype hpoinfo(void* fid, int what, void* where);
rctype hpofix(void* engid, XOPNSTR* opn);
rctype hposth(void* fid, int cnt);
// Projection: hpvprji begins a list of nvar columns, hpvprjl adds column
// var0 (from 1) and tells where it lies in the projected row, hpvprje ends
// the list and tells the projected row's length. The next read delivers
// projected rows; a list of no columns reads whole rows again.
rctype hpvprji(void* fid, int nvar);
rctype hpvprjl(void* fid, int var0, int* npos);
rctype hpvprje(void* fid, int* reclen);
}

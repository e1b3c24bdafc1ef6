/* The direct access API: tables of a domain opened, read and written in the
 * calling process, without a data server. Every handle is opaque (void*);
 * every call returns 0, a warning above zero (518 end of file, ...) or an
 * error below zero. An error from the storage layer comes back as 0x80010005
 * with its text kept for vrtaerrtext.
 *
 * The usual sequence: splasgn a domain directory, vrtaopen (or vrtaupdate,
 * or vrtacreate for a new table), spnewrd / spnewwr for cursors, spreadv /
 * spwritev / spgetr, spfreerd / spfreeio, vrtaclose, spldeasgn.
 *
 * Plain C: a host may include it from C. */
#ifndef VRTA_DIRECTAPI_H
#define VRTA_DIRECTAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VRTA_API __attribute__((visibility("default")))

/* A short name: a length and up to 32 bytes, blank padded. */
typedef struct u_sname {
    int16_t len;
    char name[32];
} u_sname;

/* All of vrtainfo(fid, 2, buf). */
typedef struct VRTAINFO {
    char dstype[8];
    int64_t numobs;
    int64_t numdelete;
    int64_t partsize;
    int64_t partfactor;
    int64_t idxsegsize;
    int32_t numvar;
    int32_t obslen;
    int32_t blocksize;
    int32_t blockfactor;
    int32_t numindex;
    char diskcomp[8]; /* exit name when compressed, else blanks */
    char encrypt[8];  /* exit name when encrypted, else blanks */
    int16_t label_l;
    char label[256];
} VRTAINFO;

/* Selectors of vrtainfo and what ibuf receives. */
#define VRTAINFO_OBSLEN 0         /* int32 */
#define VRTAINFO_NUMOBS 1         /* int64 */
#define VRTAINFO_ALL 2            /* VRTAINFO */
#define VRTAINFO_NINDEXES 3       /* int32 */
#define VRTAINFO_INDEXNAMES 4     /* one u_sname per index */
#define VRTAINFO_MEMBER 5         /* u_sname */
#define VRTAINFO_ENCODING 6       /* int32 encoding number */
#define VRTAINFO_LOCALE 7         /* u_sname; len 0 when the table has none */
#define VRTAINFO_FID 8            /* void*: the storage layer's open table */
#define VRTAINFO_OBSLEN8 9        /* int32: row length + 8 */
#define VRTAINFO_TRANSFERSIZE 10  /* int32 */
#define VRTAINFO_TRANSFERFACTOR 11 /* int32 */
#define VRTAINFO_VSTAT 12         /* int32: 1 when variable statistics are kept */
#define VRTAINFO_OFLAGS 13        /* int32: the open flags */
#define VRTAINFO_SORT 14          /* VRTASORTINFO */

/* The order a table is known to be sorted in: 1-based columns, most
 * significant first, negative when descending. */
typedef struct VRTASORTINFO {
    int32_t nvars;
    int32_t var[128];
} VRTASORTINFO;

/* A column as the storage layer keeps it. The first 76 bytes are the column's
 * disk form; the names behind them are not terminated (use the lengths). */
#pragma pack(push, 1)
typedef struct VRTA_NAME7 {
    int32_t npos, npos2, nipos, nvar0, nlng, nlng2;
    uint32_t nprec;
    int32_t flags;
    int32_t namepid, labelpid, nformpid, niformpid;
    int16_t name_l, label_l, nform_l, niform_l, nfl, nfd, nifl, nifd, nscale;
    uint16_t ntattr;
    int8_t type; /* 1 numeric, 2 character */
    int8_t subtype, sort, justify, ntype2;
    uint8_t pad[3];
} VRTA_NAME7;
#pragma pack(pop)
typedef struct VRTA_NAMESTR {
    VRTA_NAME7 n7;
    char* name;
    char* label;
    char* nform;
    char* niform;
    void* minptr;
    void* maxptr;
    int32_t minmaxpid;
} VRTA_NAMESTR;

/* vrtaopen oflags. */
#define VRTA_OTRANSCODE 1 /* transcode character columns to the client's encoding */
#define VRTA_ODYNAMIC 2   /* another process may update the table between calls */

/* spnewwr flags. */
#define VRTA_WSHARELOCK 1 /* the cursor shares the updater's lock */

/* Error codes of the API itself. */
#define VRTA_RC_WRAPPED ((int)0x80010005) /* text in vrtaerrtext */
#define VRTA_RC_NOMEM ((int)0x80000407)
#define VRTA_RC_BADARG ((int)0x80000220)
#define VRTA_RC_BADVAR ((int)0x8001000e)
#define VRTA_RC_TRANSCODE ((int)0x80000417)
#define VRTA_RC_EOF 518

/* Domains. */
VRTA_API int splasgn(const char* physpath, void** newlib);
VRTA_API int spldeasgn(void* vlib);

/* Tables. ekey: the encryption key, up to 12 characters, or null. client_cei
 * below 1 reads in the table's own encoding; client_locale_l below 0 means
 * strlen. */
VRTA_API int vrtaopen(void* vlib, const char* dsname, int dsnamelen, const char* dstype, int gennum,
                      const char* ekey, int client_cei, const char* client_locale, int client_locale_l,
                      int oflags, void** newfid);
VRTA_API int vrtaupdate(void* vlib, const char* dsname, int dsnamelen, const char* dstype, const char* ekey,
                        int client_cei, const char* client_locale, int client_locale_l, int oflags,
                        void** newfid);
VRTA_API int vrtaclose(void* vfid);
VRTA_API int vrtainfo(void* vfid, int which, void* ibuf);
VRTA_API int vrtagetnpp(void* vfid, int nvar0, VRTA_NAMESTR** npp);
VRTA_API int vrtagrow(void* vfid, int64_t numadd);

/* Creating a table. The columns lie in the row in the order given; a
 * numeric column is a double of 8 bytes, or its high 2..7 bytes. compress
 * and encrypt name an exit (built in, or a module on VRTA_LIBRARY_PATH); a
 * table takes one exit, so naming both asks one exit to do both. The new
 * table is open for output: write it through spnewwr, and vrtaclose commits
 * it. A table that cannot be made leaves nothing behind. */
typedef struct VRTACOLDEF {
    const char* name;
    int name_l; /* below 0: strlen */
    const char* label;
    int label_l;
    int type;   /* 1 numeric, 2 character */
    int length; /* bytes */
} VRTACOLDEF;
typedef struct VRTACREATE {
    int ncols;
    const VRTACOLDEF* cols;
    int blocksize;        /* 0: 8192 */
    int64_t partsize;     /* bytes per data partition, 0: one file */
    const char* compress; /* exit name, or null */
    const char* encrypt;  /* exit name, or null */
    const char* ekey;     /* key of an encrypted table, up to 12 characters */
    int encoding_cei;     /* 0: 20 (UTF-8) */
    const char* locale;   /* null: "en_US" */
    const char* label;    /* null: none */
} VRTACREATE;
VRTA_API int vrtacreate(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, void** newfid);

/* A sorted copy of a table. Rows with equal keys keep their order; a
 * missing number sorts below every other, characters by their bytes. The
 * new table records its sort order (VRTAINFO_SORT). The sort spills to the
 * work path (option WORKPATH, else the temporary directory) when the rows
 * do not fit memsize bytes. A failed or interrupted sort leaves no new table
 * and no work file.
 * The copy keeps the input's columns whole (labels, formats, flags), its
 * label, encoding, locale, block and partition sizes, and its exits: an
 * encrypted input gives a copy encrypted with the same exit and key. compress
 * and encrypt change that: null keeps the input's exit, "" asks for none,
 * else an exit name (one exit for both, as in vrtacreate); out_ekey is the
 * copy's key when it is not ekey. */
typedef struct VRTASORTKEY {
    int32_t var;        /* 1-based column */
    int32_t descending; /* non-zero: highest first */
} VRTASORTKEY;
typedef struct VRTASORT {
    int nkeys;                 /* 1 to 128 */
    const VRTASORTKEY* keys;
    int64_t memsize;           /* bytes of sort memory; 0: the SORTSIZE option, else 64 MB */
    const char* ekey;          /* key of an encrypted input, or null */
    volatile int* interrupt;   /* polled; non-zero stops the sort */
    /* Called now and then: phase 1 reading, 2 writing; rows done of total. */
    void (*progress)(void* arg, int phase, int64_t done, int64_t total);
    void* progress_arg;
    const char* compress;      /* null: as the input; "": none; else an exit */
    const char* encrypt;       /* null: as the input; "": none; else an exit */
    const char* out_ekey;      /* key of an encrypted copy; null: ekey */
} VRTASORT;
VRTA_API int vrtasort(void* vlib, const char* in, int in_l, const char* out, int out_l, const VRTASORT* req);

/* Members of a domain: deletion and listing. */
VRTA_API int spdelete(void* vlib, const char* dsname, int dsnamelen);
VRTA_API int spopendir(void* vlib, void** newdir);
/* 0 and the next table's name (NUL-terminated, upper case, room 33), 518 at the end. */
VRTA_API int spreaddir(void* vdir, char* name, int* namelen);
VRTA_API int spclosedir(void* vdir);
/* Partition pno (from 0) of the data file (which 0) or metadata file (1):
 * its full path and bytes. 518 past the last. */
VRTA_API int vrtapartinfo(void* vfid, int which, int pno, char* path, int pathlen, int64_t* size);

/* Cursors. A read cursor gets bufsize / row length rows a call; on a
 * compressed or encrypted table a bufsize other than one block reads whole
 * blocks behind the caller's back and hands out rows from them. bufsize 0
 * makes a cursor whose buffer spsetrd gives later. spreadv points *bufp at
 * the rows read (none at the end of the table, with 0 returned) and *obsvec
 * at their row numbers when the table has deleted rows, else null.
 * A write cursor writes spwritev's rows from iobuf: on a table made by
 * vrtacreate it appends; on one opened by vrtaupdate it starts on row 1, so
 * spsetloc(numobs + 1) first to append.
 * spgetr reads one row by number: 0 and *bufp, -1 when the row is deleted
 * (the cursor then stands on the next live row), 518 past the end. */
VRTA_API int spnewrd(void* vfid, long bufsize, void* iobuf, void** newiocb);
VRTA_API int spnewwr(void* vfid, long bufsize, void* iobuf, int flags, void** newiocb);
VRTA_API int spfreerd(void* viocb);
VRTA_API int spfreeio(void* viocb);
VRTA_API int spsetloc(void* viocb, int64_t obsnum);
VRTA_API int64_t spcurloc(void* viocb);
VRTA_API int spreadv(void* viocb, long* numobs, void** bufp, int64_t** obsvec);
VRTA_API int spwritev(void* viocb, long numobs);
VRTA_API int spgetr(void* viocb, int64_t obsnum, void** bufp);
VRTA_API int spsetrd(void* viocb, long bufsize, void* iobuf);

/* The WHERE cursor. where_tree is the wire form of a clause (vrtawhparse
 * makes one). spnewwh: bufsize / (row length + 8) rows a spwhget call;
 * startobs and endobs bound the rows looked at (0, 0: all). spwhset plans the
 * clause: *whflags gets the plan word (VRTAWH_F...), *whstat 1 when the
 * clause stands whole and no row test is left, 2 when every row qualifies, 3
 * when none does. A null where_tree unbinds. spwhget copies the next
 * matching rows, in row order, to obsbuf: 0 with *numobs rows, 1284 when
 * there are no more. spwhobsvec gives their row numbers. spwhthreads sets how
 * many threads a row test may use (the plan may use fewer). spwhsync brings
 * the plan's open indexes up to date after another opener changed the
 * table: ixnames holds nnames index names of 32 bytes, blank padded (an
 * EVAL3 plan's one index needs none). */
#define VRTA_RC_NOMORE 1284
#define VRTAWH_FEVAL1 0x0001
#define VRTAWH_FEVAL2 0x0002 /* a row test is left */
#define VRTAWH_FEVAL3 0x0004
#define VRTAWH_FEVAL4 0x0008
#define VRTAWH_FPLANNED 0x0020
#define VRTAWH_FSEGLIST 0x0040
#define VRTAWH_FTRUE 0x0100
#define VRTAWH_FFALSE 0x0200
#define VRTAWH_FNONE 0x1000
#define VRTAWH_FSOME 0x2000 /* parts of the clause were dropped: test rows again */
#define VRTAWH_FALL 0x4000
#define VRTAWH_FEVAL5 0x8000
VRTA_API int spnewwh(void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newwhh);
VRTA_API int spfreewh(void* vwhh);
VRTA_API int spwhset(void* vwhh, const void* where_tree, int init_flags, int numxidx, const char* xixnames,
                     int* whflags, int* whstat);
VRTA_API int spwhget(void* vwhh, void* obsbuf, long* numobs);
VRTA_API int64_t* spwhobsvec(void* vwhh);
VRTA_API int spwhthreads(void* vwhh, int nthreads);
VRTA_API int spwhsync(void* vwhh, int nnames, const char* ixnames);
/* The plan of the bound clause as lines of text: plan words, index tree, row
 * test, method, threads, segments. Returns the length written (cut to fit). */
VRTA_API int spwhexplain(void* vwhh, char* buf, int buflen);

/* Deleting rows of a table opened by vrtaupdate: spnewdel makes the
 * context, spdelobs deletes one row by number (a row already deleted is
 * left as it is), spfreedel ends it (abort 1 after a failure). */
VRTA_API int spnewdel(void* vfid, void** newdcp);
VRTA_API int spdelobs(void* vdcp, int64_t obsnum);
VRTA_API int spfreedel(void* vdcp, int abort);

/* Temporary files on the work paths (the option WORKPATH, else the system's
 * temporary directory), removed when closed. sptmprd and sptmpwr move the
 * position by what they did and return the bytes done: 0 at the end of the
 * file, -1 on failure. sptmpseek takes SEEK_SET, SEEK_CUR or SEEK_END and
 * returns the new position, -1 when it would be before the start.
 * spworkpath: the work paths in one block to give back to spworkfree; flags
 * 1 only the first, 2 (or 0) all. sptmpdomain: the option TMPDOMAIN into
 * tmpdom (room *tmpdomlen), *tmpdomlen 0 when it is not set. */
VRTA_API int sptmpfil(void** tfd);
VRTA_API long sptmprd(void* tfd, void* buf, long len);
VRTA_API long sptmpwr(void* tfd, const void* buf, long len);
VRTA_API int64_t sptmpseek(void* tfd, int64_t offset, int whence);
VRTA_API int sptmpclose(void* tfd);
VRTA_API int spworkpath(int flags, int* npath, char*** ppvec);
VRTA_API int spworkfree(int npath, char** ppvec);
VRTA_API int sptmpdomain(char* tmpdom, int* tmpdomlen);

/* An index of an open table read directly. spixopen: ixname_l below 0
 * means strlen; an index that is not there gives 0x80000225, one that must
 * be rebuilt or that a writer left unfinished 0x80000527; mmap is accepted
 * and changes nothing. spixinfo describes the table's ixno-th index (from 0).
 * spixsync takes in what another opener added to the index. spixkey makes
 * the key bytes of a row image (the index's columns at their places), for
 * SP_VALUE; keylen bytes, comparable by memcmp. */
typedef struct SPIXINFO {
    int16_t name_l;
    char name[33];
    int32_t type;
    int32_t flags;  /* the index's keyflags */
    int32_t keylen;
    int32_t nvars;
    int32_t nvar0[64]; /* 1-based columns */
} SPIXINFO;
typedef SPIXINFO spixinfo_t;
VRTA_API int spixopen(void* vfid, const char* ixname, int ixname_l, int mmap, void** newix);
VRTA_API int spixclose(void* vixp);
VRTA_API int spixinfo(void* vfid, int ixno, spixinfo_t* ixinfo);
VRTA_API int spixsync(void* vixp);
VRTA_API int spixkey(void* vixp, const void* row, void* key);

/* One end of a key range: valp the key bytes (spixkey), len of them (fewer
 * than the key's for its leading columns), op a relation below. */
#define SP_IXEQ 0
#define SP_IXNE 1
#define SP_IXGT 2
#define SP_IXGE 3
#define SP_IXLT 4
#define SP_IXLE 5
typedef struct SP_VALUE {
    const void* valp;
    int len;
    int op;
} SP_VALUE;

/* The row pointer cursor: bufsize / (row length + 8) rows a call, by row
 * number, within startobs..endobs (0 for no bound).
 * spptset: the rows of the keys from lo (op SP_IXGT or SP_IXGE) to hi
 * (SP_IXLT or SP_IXLE), either null for an open end; spptget then copies
 * them to obsbuf in key order (rows of one key in row order): 0 with
 * *numobs rows, 1284 when there are no more. Deleted rows are passed over.
 * spptmark: the same, delivery starting at row markobs (rows before it in
 * key order are passed over; none when markobs is not in the range).
 * spptgetlist: every row of the range at once as a list the cursor keeps
 * (until the next spptset, spptmark, spptgetlist or spfreept); spptreadlist
 * reads its rows in row order as spptget does.
 * spptinfo: SP_PTROWS int64 rows delivered, SP_PTASKED int64 row numbers
 * the index gave, SP_PTDROPPED int64 of those passed over as deleted,
 * SP_PTEOF int32, SP_PTOBSVEC int64_t* the numbers of the rows last
 * delivered. */
#define SP_PTROWS 0
#define SP_PTASKED 1
#define SP_PTDROPPED 2
#define SP_PTEOF 3
#define SP_PTOBSVEC 4
VRTA_API int spnewpt(void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newpnt);
VRTA_API int spfreept(void* vpnt);
VRTA_API int spptset(void* vpnt, void* vixp, const SP_VALUE* lo, const SP_VALUE* hi);
VRTA_API int spptmark(void* vpnt, void* vixp, const SP_VALUE* lo, const SP_VALUE* hi, int64_t markobs);
VRTA_API int spptget(void* vpnt, void* obsbuf, long* numobs);
VRTA_API int spptinfo(void* vpnt, int what, void* where);
VRTA_API int spptgetlist(void* vpnt, void** bitmap);
VRTA_API int spptreadlist(void* vpnt, void* bitmap, void* obsbuf, long* numobs);

/* Indexes of a table. vrtaidxcreate builds a hybrid index over the
 * table's columns (1-based), through a sort that spills to the work path
 * when the rows do not fit memsize bytes; a failed or interrupted build
 * leaves no index. vrtaidxlist fills up to n descriptions and returns how
 * many indexes the table has; vrtaidxdrop removes one. */
#define VRTAIX_UNIQUE 1 /* a value may have one row only */
#define VRTAIX_NOMISS 2 /* rows whose key is missing are left out */
typedef struct VRTAINDEXDEF {
    const char* name;          /* 1 to 32 characters */
    int ncols;                 /* 1 to 64 */
    const int32_t* cols;       /* 1-based */
    int flags;                 /* VRTAIX_UNIQUE, VRTAIX_NOMISS */
    int64_t memsize;           /* sort memory; 0: INDEX_SORTSIZE, else SORTSIZE, else 64 MB */
    const char* ekey;          /* key of an encrypted table, or null */
    volatile int* interrupt;   /* polled; non-zero stops the build */
    /* Called now and then: phase 1 rows sorted, 2 keys indexed; done of total. */
    void (*progress)(void* arg, int phase, int64_t done, int64_t total);
    void* progress_arg;
} VRTAINDEXDEF;
typedef struct VRTAIDXINFO {
    char name[33];
    int32_t ncols;
    int32_t cols[64];          /* 1-based */
    int32_t keyflags;
    int32_t keylen;
    int64_t numvals;           /* distinct values */
    int64_t nummiss;           /* rows whose key is missing */
    int64_t highobs;           /* rows indexed */
    int64_t bytes;             /* size of the index's files */
    int32_t usable;            /* 0: the index must be rebuilt before use */
} VRTAIDXINFO;
VRTA_API int vrtaidxcreate(void* vlib, const char* table, int table_l, const VRTAINDEXDEF* def);
VRTA_API int vrtaidxlist(void* vlib, const char* table, int table_l, const char* ekey, VRTAIDXINFO* out, int n);
VRTA_API int vrtaidxdrop(void* vlib, const char* table, int table_l, const char* index, const char* ekey);

/* Rows of an open table found through its index: the rows whose key equals
 * a value (VRTAIX_EQ) or lies between two (VRTAIX_RANGE, both ends
 * included, a null end open). Values come as row images of the table: the
 * index's columns at their places, ncols of them from the first (0: all;
 * fewer look up by the leading columns). each gets the row numbers in
 * rising order, batch by batch, and stops the scan by returning non-zero.
 * A deleted row is never handed out. An index that must be rebuilt, or that
 * a writer left unfinished, is refused with 0x80000527. */
#define VRTAIX_EQ 0
#define VRTAIX_RANGE 1
typedef struct VRTAIXCOND {
    int op;                    /* VRTAIX_EQ, VRTAIX_RANGE */
    const void* low;           /* the value of VRTAIX_EQ, or the low end; null: open */
    const void* high;          /* the high end; null: open */
    int ncols;
} VRTAIXCOND;
VRTA_API int vrtaidxrows(void* vfid, const char* index, const VRTAIXCOND* cond,
                         int (*each)(void* arg, const int64_t* rows, long n), void* arg);

/* Files the text "Member=<mem> Reason=<text of rc>" for vrtaerrtext and
 * returns VRTA_RC_WRAPPED. */
VRTA_API int MakeError(const u_sname* mem, int rc);

/* The text of a code; for VRTA_RC_WRAPPED the text kept by the failing call.
 * Returns its length; the text is cut to fit and always terminated. */
VRTA_API int vrtaerrtext(int rc, char* buf, int buflen);

#ifdef __cplusplus
}
#endif

#endif

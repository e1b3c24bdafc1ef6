/* What a host gets back from a table open: the table's description
 * (INFOSTR), one NAMESTR per column, and the fast vector it fetches rows
 * through. Plain C; the records a host copies or keeps are packed and their
 * layout is pinned, so that a host built apart from the module reads them
 * the same way. */
#ifndef VRTA_VRTAHOST_H
#define VRTA_VRTAHOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The host's word for how a table is opened (XOPNSTR.openmode). */
#define XO_INPUT 0x1
#define XO_OUTPUT 0x2
#define XO_UPDATE 0x4008  /* all of these bits */
#define XO_KEYED 0xc008   /* all of these, or an index key: a keyed open */
#define XO_RANDOM 0x400   /* rows are fetched by id rather than in turn */

/* A table as the engine describes it to the host: hpoinfo(fid, 1, &info).
 * Texts are blank-padded, never terminated. */
#pragma pack(push, 1)
typedef struct INFOSTR {
    char libname[8];   /* the domain's libref */
    char memname[32];  /* the table */
    char memtype[8];
    char engine[8];    /* "KORVRTA " */
    int64_t num_lrec;  /* rows, less deleted ones */
    int64_t num_prec;  /* rows, with deleted ones (their numbers stay used) */
    int64_t num_del;   /* deleted rows */
    int32_t rec_len;   /* bytes of a row */
    int32_t num_vars;  /* columns */
    int32_t rid_len;   /* bytes of a row id: 48 */
    int32_t bufsize;   /* bytes of a block of rows */
    int32_t flags;     /* 1, 4, 8, 32: a readable, sized table; 64: it has indexes */
    int32_t shr;       /* sharing word of the open */
    double crdate;     /* created, seconds from 1 January 1960 */
    double modate;     /* last changed */
    char type[8];
    char compress[8];  /* "NO      ", "YES     " or the algorithm's name */
    char filefmt[8];   /* "YES     " when the domain keeps a format catalogue */
    int32_t label_l;
    char label[256];
    int32_t radix_addr;   /* reserved: 0 */
    char reserved[12];
} INFOSTR;

/* One column, 208 bytes. name and label point into pools the open owns:
 * they live until the table is closed. */
typedef struct NAMESTR {
    char* name;        /* not terminated: namel bytes */
    char* label;       /* not terminated: labell bytes */
    int32_t namel;
    int32_t labell;
    int32_t npos;      /* offset in the row */
    int32_t nlng;      /* bytes in the row */
    int32_t nvar0;     /* column number, from 1 */
    int32_t flags;
    int8_t ntype;      /* 1 numeric, 2 character */
    int8_t nindex;     /* the column has an index */
    int8_t nsort;      /* place in the table's sort order, negative descending; 0 none */
    int8_t nfj;        /* justification of the format */
    char nform[32];    /* format, blank-padded */
    char niform[32];   /* informat, blank-padded */
    int16_t nfl, nfd;  /* format width and decimals */
    int16_t nifl, nifd;
    int32_t npos2, nipos, nlng2;  /* long-form position and length */
    int32_t nprec;
    int16_t nscale;
    int16_t ntattr;
    int8_t ntype2;
    int8_t nsubtype;
    int8_t npkey, nfkey;
    int32_t vrtaflag;
    char reserved[64];
} NAMESTR;
#pragma pack(pop)

/* The fast vector: the host fetches the next row with
 * fast->getn(fast->fpfid, &row). The engine patches getn as the read moves
 * between its states, so that a row inside a block costs one call and no
 * test. getn returns 0 and points the row into the engine's block (valid
 * until the next call), 0x10001 at the end, or a failure. */
typedef struct XOFPENT {
    int (*getn)(void* fid, void** recptr);
    int (*getr)(void* fid, void* rid, void** recptr);
    int (*pnt)(void* fid, void* rid);
    int (*add)(void* fid, void* recptr);
    void* fpfid;
} XOFPENT;
typedef XOFPENT XOFAST;

/* The entries the fast vector moves between; a host does not call them by name. */
int hpgetnc(void* fid, void** recptr); /* first row: starts the read */
int hpgetbc(void* fid, void** recptr); /* next block on the wire */
int hpgtbrc(void* fid, void** recptr); /* next block after a positioned read */
int hpgetnf(void* fid, void** recptr); /* next row inside a block */
int hpgetfr(void* fid, void** recptr); /* the same in blocks with row ids */
int hpgetfd(void* fid, void** recptr); /* direct path, table with deleted rows */
int hpgetfs(void* fid, void** recptr); /* direct path */
int hpgtwfd(void* fid, void** recptr); /* direct path under a WHERE clause */
int hpgtwfs(void* fid, void** recptr);

/* End of the rows. */
#define VRTA_RC_ENDROWS 0x10001

/* What hpoinfo(fid, what, where) answers; where receives the value. */
#define HPOINFO_INFOSTR 1    /* INFOSTR */
#define HPOINFO_NUMOBS 2     /* int64: rows less deleted */
#define HPOINFO_NUMVARS 4    /* int32 */
#define HPOINFO_NUMDEL 5     /* int64 */
#define HPOINFO_CRDATE 6     /* double */
#define HPOINFO_MODATE 7     /* double */
#define HPOINFO_RECLEN 8     /* int32 */
#define HPOINFO_RIDLEN 9     /* int32 */
#define HPOINFO_TYPE 13      /* 8 bytes */
#define HPOINFO_LABEL 14     /* 40 bytes */
#define HPOINFO_RADIX 17     /* int32 */
#define HPOINFO_SLABEL 21    /* the sort's label: int32 length, then 40 bytes */
#define HPOINFO_SETSLABEL 22 /* the same, stored */
#define HPOINFO_DSORG 26     /* int16 */
#define HPOINFO_FLAGS 27     /* int16: the open reply's flags */
#define HPOINFO_SORTEDBY 56  /* int32: columns in the sort order */
#define HPOINFO_SORTVARS 57  /* int32 each: the sort order, negative descending */
#define HPOINFO_DIRECT 64    /* int32: 1 when rows come on the direct path */
#define HPOINFO_SOBS 65      /* int64: first row asked for */
#define HPOINFO_EOBS 66      /* int64: last row asked for, 0 for all */
#define HPOINFO_DAFID 67     /* void*: the direct path's open table, or null */
#define HPOINFO_PNT 68       /* void*: its row pointer cursor */
#define HPOINFO_IOCB 69      /* void*: its read cursor */
#define HPOINFO_GIOCB 70     /* void*: its one-row cursor */
#define HPOINFO_ASYNC 71     /* int32: 1 when an index is built in the background */

#ifdef __cplusplus
#define VRTA_HOST_ASSERT(c, m) static_assert(c, m)
#else
#define VRTA_HOST_ASSERT(c, m) _Static_assert(c, m)
#endif
VRTA_HOST_ASSERT(sizeof(NAMESTR) == 208, "NAMESTR is 208 bytes");
VRTA_HOST_ASSERT(offsetof(NAMESTR, npos) == 24 && offsetof(NAMESTR, ntype) == 40, "NAMESTR layout");
VRTA_HOST_ASSERT(offsetof(NAMESTR, nform) == 44 && offsetof(NAMESTR, nfl) == 108, "NAMESTR layout");
VRTA_HOST_ASSERT(offsetof(NAMESTR, vrtaflag) == 140, "NAMESTR layout");
VRTA_HOST_ASSERT(offsetof(INFOSTR, num_lrec) == 56 && offsetof(INFOSTR, crdate) == 104, "INFOSTR layout");
VRTA_HOST_ASSERT(offsetof(INFOSTR, label) == 148 && sizeof(INFOSTR) == 420, "INFOSTR layout");
#undef VRTA_HOST_ASSERT

#ifdef __cplusplus
}
#endif

#endif

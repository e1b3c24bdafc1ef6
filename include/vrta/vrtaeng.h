/* The engine module's host interface: the one entry point vrtaeng, the engine
 * vector it hands back, and the attribute table. Plain C so that any host can
 * include it. A slot is a generic code pointer; the host casts it to the
 * entry's own prototype before calling. */
#ifndef VRTA_VRTAENG_H
#define VRTA_VRTAENG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*u_xgfptr)(void);

/* Generic entry table: the same layout for every engine a host drives.
 * A null slot is an entry this engine does not serve. */
typedef struct XHENTRY {
    /* host-wide */
    u_xgfptr yheterm, yhettrm, yhepurg, yhelasg, yheldas, ycetrnc, yhelini, yhelpar, yhelpfr, yhelxsp,
        yhelock;
    /* members of a domain by name */
    u_xgfptr ydedel, ydernm, ydedopn, ydedrd, ydedcls, ydexist, ylemany;
    /* table open and columns */
    u_xgfptr yoeopen, yoeclos, yoeropn, yoepars, yoepfr, yoefix, dummy3, yveprji, yveprjl, yveprjd,
        yveprje, yveprjf, yveallv, yvedefv, ycenotd, yvenamu;
    /* rows */
    u_xgfptr yoeaddl, yoeinfo, yoereca, yoeload, yoegetn, yoegetr, yoeadd, yoeupd, yoedel, yoenote,
        yoepnt, yoen2rd, yoerd2n, yoeforc, yoewset, yoewpsh, yoewpop, yhedbug, yoeordr, yoeunlk;
    /* byte streams (catalog entries) */
    u_xgfptr yceopen, yceclos, yceropn, yceread, ycewrit, ycepnt, ycenote, yceforc, ycepwmd;
    /* indexes */
    u_xgfptr yiedef, yiedrop, yieobtn, yiestat, yieset, yiepnt, yieget, ycepntd;
    /* catalogs and directories */
    u_xgfptr yleopen, yleclos, ylemopn, ylemcls, ylemrd, ylemwt, yleterm, yledopn, yledcls, yledrd,
        yledlst, yledpnt, ylednt, ylemnt, ylempt, yleminf, yleinf, ylemdel, ylemren, ylemset, ylemops,
        ylemfd, ylemopg, yledinf, ylemskp, yleals, ylename, ylemdtm, ylemcop;
    /* information and late additions */
    u_xgfptr yhelins, yhelinr, yoeinfs, yoeinfr, yceinfs, yceinfr, ylepurg, yledeas, ylemst, engtest,
        ylefix, yleinfs, yleinfr, yoewho, yleochk, ycelock, yoesgrp, yoesget, yosthcnt, yhedlasg,
        yoekeep;
} XHENTRY;

/* Operator entry table: slot names are the engine's function names. */
typedef struct HPDENT {
    u_xgfptr hpeopen, hpeclos, hpesacl, hpelacl, hpeaacl, hpemacl, hpeuacl, hpedacl, hpepopr, hpepcls,
        hpeplba, hpelusr, hpeplbl, hpeplbd, hpeplbm, hpeplbc, hpepdba, hpepdbd, hpepdbl, hpesys,
        hperopr, hperusr, hpercan, hperlck;
} HPDENT;

/* The engine vector: the two tables back to back. */
typedef struct HPD_ENGTBL {
    XHENTRY xhen;
    HPDENT hpdtbl;
} HPD_ENGTBL;

/* What the engine can do, in the host's own access words. */
typedef struct XHEATTR {
    int file_acc;
    int rec_acc;
    int key_acc;
    int byte_acc;
    int acc_ordr;
    int hdr_acc;
    int dict_acc;
    int dta_typ;
    int concur;
    int integrity;
    int authoriz;
    int dat_modl;
    int rel_op;
    int max_physname;
    int dir_acc;
    int pars_exit;
    int xl_acc;
    int loading;
    int options;
    int encoding_cei;
    char locale[32];
    int growth;
} XHEATTR;

#define VRTA_XHENTRY_SLOTS 121
#define VRTA_HPDENT_SLOTS 24

#ifdef __cplusplus
#define VRTA_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define VRTA_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define VRTA_SLOT(t, s, n) VRTA_STATIC_ASSERT(offsetof(t, s) == (n) * sizeof(u_xgfptr), #s " is slot " #n)
/* Anchors: the first and last slot of every group pin the whole layout. */
VRTA_SLOT(XHENTRY, yheterm, 0);
VRTA_SLOT(XHENTRY, yhelock, 10);
VRTA_SLOT(XHENTRY, ydedel, 11);
VRTA_SLOT(XHENTRY, ylemany, 17);
VRTA_SLOT(XHENTRY, yoeopen, 18);
VRTA_SLOT(XHENTRY, yvenamu, 33);
VRTA_SLOT(XHENTRY, yoeaddl, 34);
VRTA_SLOT(XHENTRY, yoeunlk, 53);
VRTA_SLOT(XHENTRY, yceopen, 54);
VRTA_SLOT(XHENTRY, ycepwmd, 62);
VRTA_SLOT(XHENTRY, yiedef, 63);
VRTA_SLOT(XHENTRY, ycepntd, 70);
VRTA_SLOT(XHENTRY, yleopen, 71);
VRTA_SLOT(XHENTRY, ylemcop, 99);
VRTA_SLOT(XHENTRY, yhelins, 100);
VRTA_SLOT(XHENTRY, yoekeep, 120);
VRTA_SLOT(HPDENT, hpeopen, 0);
VRTA_SLOT(HPDENT, hpesys, 19);
VRTA_SLOT(HPDENT, hperlck, 23);
VRTA_STATIC_ASSERT(sizeof(XHENTRY) == VRTA_XHENTRY_SLOTS * sizeof(u_xgfptr), "XHENTRY has 121 slots");
VRTA_STATIC_ASSERT(sizeof(HPDENT) == VRTA_HPDENT_SLOTS * sizeof(u_xgfptr), "HPDENT has 24 slots");
VRTA_STATIC_ASSERT(offsetof(HPD_ENGTBL, hpdtbl) == sizeof(XHENTRY), "operator table follows at once");
VRTA_STATIC_ASSERT(offsetof(XHEATTR, locale) == 80 && sizeof(XHEATTR) == 116, "XHEATTR layout");
#undef VRTA_SLOT
#undef VRTA_STATIC_ASSERT

struct XOFPENT;
struct NAMESTR;

/* The host's open request (yoeopen, yoefix): the table, how it is opened,
 * its options and the host's macro table. */
typedef struct XOPNSTR {
    void* peng_lib;              /* the domain's block, from the assign */
    void* peng_op;               /* table options: made by the first yoepars of the open */
    const unsigned char* mactbl; /* macro table: 20-byte records, ended by one starting with a blank */
    char memname[32];            /* the table, blank-padded */
    char memtype[8];             /* blank-padded; blanks for "DATA" */
    int openmode;                /* XO_* of vrtahost.h */
    int shr[2];                  /* sharing words: [0] bit 8 record-level control, [1] lock forms */
    void* keyptr;                /* index key of a keyed open, or null */
    struct XOFPENT* fast_path;   /* the host's fast vector, filled by the open; may be null */
    unsigned char pw[3][4];      /* read, write and alter passwords, scrambled; filled by the open */
    unsigned char pwset[3];      /* 255 where the server gave a password word back */
    struct NAMESTR* namestr;     /* out: the table's columns (INFOSTR num_vars of them), kept by the open until its close */
} XOPNSTR;

/* Token tracks: the stream of tokens the option parsers read (the
 * sourcetrack of yhelpar and yoepars). A host makes a track, pushes the text
 * of a statement's options onto it, hands it to the parser one option at a
 * time, and moves on by the count the parser reports. A token the parser
 * found at fault carries bit 1 in flags, so that the host can point at it. */
typedef struct YTTOKEN {
    int type;     /* 1 end of input, 2 name (upper case), 3 quoted string (quotes kept),
                     4 number, 0 a special character */
    int subtype;  /* non-zero: counts as a name whatever its form */
    int flags;    /* bit 1: found at fault by a parser */
    int rc;       /* non-zero: the text is not a token (a quote left open, too long) */
    int pos;      /* offset of its first byte in the text pushed */
    int len;      /* bytes in text */
    char* text;   /* zero terminated */
} YTTOKEN;

/* A new empty track, or null without memory. */
void* ytrakcp(void);
/* Pushing text: begin, add bytes (any number of times), end. The text is
 * read after whatever the track holds already. */
int yttpshi(void* track);
int yttpshb(void* track, const char* buf, int len);
int yttpshe(void* track);
/* The next token, consumed unless peek is non-zero. */
int yttknx(void* track, int peek, YTTOKEN** tok);
/* The token after tokens past the next one, not consumed (0 is the next). */
int yttkpk(void* track, int after, YTTOKEN** tok);
/* Frees a track and its tokens. */
void ytrakdp(void* track);

/* argv slots of vrtaeng. */
enum {
    VRTAENG_ENGTBL = 0, /* out: HPD_ENGTBL* */
    VRTAENG_ATTR = 1,   /* out: XHEATTR* */
    VRTAENG_ID = 2,     /* out: engine id, passed as engid to the entries */
    VRTAENG_RC = 3,     /* in: int* that receives the return code */
    VRTAENG_VVGCB = 4,  /* in: host's control-block anchor, or null */
    VRTAENG_OPTS = 5,   /* in (argc >= 6): host's option table */
    VRTAENG_DAGCB = 6,  /* in (argc >= 7): storage global block */
    VRTAENG_DAIOGCB = 7,/* in (argc >= 8): storage I/O global block */
    VRTAENG_HSGCB = 8,  /* in (argc >= 9): runtime foundation block */
    VRTAENG_YKGCB = 9   /* in (argc >= 10): message file block */
};

/* The module's one entry: argv[3] always receives the return code, which is
 * also returned; argv[0..2] are filled only on success. */
int vrtaeng(int argc, void** argv);

/* The text of a code an entry returned, with the substitutions the module
 * stored with it in the calling thread (what the host's printer would show):
 * for a host that does not share the module's message blocks. The length. */
int vrtarctext(int rc, char* buf, int buflen);

#ifdef __cplusplus
}
#endif

#endif

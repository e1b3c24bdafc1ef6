// The WHERE tree: SQLOP nodes with their planning records, node memory, the
// reader of the wire form, the renderer back to a clause, the debug printer,
// and the parser of the WHERE language people type.
#pragma once
#include <cstdio>
#include "ssup/vrtadef.h"

namespace vrta {

struct HS_NLSENV;
struct DA_FID;
struct DA_KEYSTR;
struct IX_INDEX_T;
using da_keystr_t = DA_KEYSTR;
using ix_index_t = IX_INDEX_T;

// ---------------------------------------------------------------- codes
constexpr rctype WH_RC_NULLARG = static_cast<rctype>(0x80000601u);    // null handle or argument
constexpr rctype WH_RC_NOLIST = static_cast<rctype>(0x80000602u);     // index or column list unavailable
constexpr rctype WH_RC_BADTREE = static_cast<rctype>(0x80000603u);    // malformed tree: internal error
constexpr rctype WH_RC_BADWIRE = static_cast<rctype>(0x80000604u);    // wire form not understood
constexpr rctype WH_RC_TRAPPED = static_cast<rctype>(0x80000605u);    // lower layer failed, reason printed
constexpr rctype WH_RC_NOKEY = static_cast<rctype>(0x80000606u);      // key could not be made
constexpr rctype WH_RC_NOMEM = static_cast<rctype>(0x80000608u);      // no memory
constexpr rctype WH_RC_NOCOLUMN = static_cast<rctype>(0x80000609u);   // column not in the table
constexpr rctype WH_RC_BADPLAN = static_cast<rctype>(0x8000060au);    // call does not fit the plan
constexpr rctype WH_RC_BADSETEL = static_cast<rctype>(0x8000060bu);   // set element of the wrong type
// The parser of typed clauses.
constexpr rctype WH_RC_SYNTAX = static_cast<rctype>(0x80000614u);     // syntax error
constexpr rctype WH_RC_TYPES = static_cast<rctype>(0x80000615u);      // operands of the wrong type
constexpr rctype WH_RC_DEEP = static_cast<rctype>(0x80000616u);       // nested too deeply
constexpr rctype WH_RC_NOFUNC = static_cast<rctype>(0x80000702u);     // function not found
// Function checks, shared with planning.
constexpr rctype WH_RC_FNCREFUSED = static_cast<rctype>(0x8004008fu); // not allowed in WHERE
constexpr rctype WH_RC_FNCFEW = static_cast<rctype>(0x80040090u);     // too few arguments
constexpr rctype WH_RC_FNCMANY = static_cast<rctype>(0x80040091u);    // too many arguments
constexpr rctype WH_RC_FNCWANTC = static_cast<rctype>(0x80040092u);   // wants a string argument
constexpr rctype WH_RC_FNCWANTN = static_cast<rctype>(0x80040093u);   // wants a numeric argument

// Deepest tree any walker here accepts: the reader, the parser and the
// renderer recurse once per level, and a tree from outside must not be able
// to exhaust the stack.
constexpr int WH_MAXDEPTH = 1000;

// ---------------------------------------------------------------- operation codes
// Below 36 leaves, 36 and above operators.
enum : short {
    OP_NULL = 0, OP_NAME = 1, OP_LITN = 2, OP_LITC = 3, OP_FNAM = 4, OP_STAR = 5, OP_USER = 6,
    OP_TABL = 7, OP_WNAM = 8, OP_ANAM = 9, OP_LABL = 10, OP_HNAM = 11, OP_SUBQ = 12, OP_SUBP = 13,
    OP_SYM = 14, OP_BYNM = 15, OP_JTAG = 16, OP_UNDO = 17, OP_CLR = 18, OP_FMT = 19, OP_NTGR = 20,
    OP_FUNC = 21, OP_DREF = 22, OP_SOBT = 23, OP_SAY = 24, OP_EXTL = 25, OP_XNAM = 26, OP_EXTQ = 27,
    OP_LITC28 = 28, OP_LITC29 = 29, OP_SETN = 30, OP_SETC = 31,
    OP_FIRSTOP = 36,
    OP_SAME = 70,
    OP_LOR = 220, OP_LAND = 221, OP_LNOT = 222,
    OP_INOT = 240, OP_IN = 241, OP_NIN = 242, OP_BETW = 243, OP_NBTW = 244, OP_LIKE = 245,
    OP_NLKE = 246, OP_CONT = 247, OP_NCON = 248, OP_ISNL = 249, OP_NTNL = 250, OP_TIN = 251,
    OP_TNIN = 252, OP_SDX = 255, OP_NSDX = 256,
    OP_CEQ = 260, OP_CNE = 261, OP_CLT = 262, OP_CLE = 263, OP_CGT = 264, OP_CGE = 265,
    OP_CTEQ = 270, OP_CTNE = 271, OP_CTLT = 272, OP_CTLE = 273, OP_CTGT = 274, OP_CTGE = 275,
    OP_AADD = 280, OP_ASUB = 281, OP_AMUL = 282, OP_ADIV = 283, OP_ANEG = 284, OP_APOW = 285,
    OP_APOS = 286, OP_CONC = 300, OP_MIN = 305, OP_MAX = 306, OP_FLST = 320, OP_FTRN = 324,
    OP_RANB = 360, OP_RANL = 361, OP_RANH = 362, OP_RANN = 363, OP_SET = 380, OP_STNX = 383,
};
constexpr int WH_NCODES = 562;  // slots of the printer's table: codes 0 to 561

// nodeflags bits.
constexpr short WH_NF_UNORDERED = 0x0001;  // children of this SET or RANB are not in collating order
constexpr short WH_NF_TMPLAND = 0x0800;    // temporary LAND made for evaluation
constexpr short WH_NF_COPY = 0x1000;       // this tree is a private copy
constexpr short WH_NF_MUSTCOPY = 0x2000;   // copy the tree for each thread
constexpr short WH_NF_COPYTESTED = 0x4000; // the copy test has been done

// datetype of a numeric literal.
constexpr int WH_DT_PLAIN = 0, WH_DT_DATE = 1, WH_DT_TIME = 2, WH_DT_DATETIME = 3;

// ---------------------------------------------------------------- SQLOP
struct SQLOP;
struct WH_NODE;
using sqlop_t = SQLOP;

constexpr int WH_NARGS = 13;  // children held in the node itself; more go to ext nodes

struct SQLNODELF {
    int narg;
    short fill;
    SQLOP* arg[WH_NARGS];
    SQLOP* ext;
};
struct SQLVLEAF {
    int ds;
    char name[32];
    short fill;
    short namelen;
    int var;
    short leng;
    int nvar0;  // column number from 1
    long offset;
};
struct SQLTLEAF {
    int ds;
    char lib[8];
    char mem[32];
    short fill, fill2, memlen, optlen;
    char owner[8];
    char group[8];
    char* pw;
    char* opt;
};
struct SQLNLEAF {
    double nbr;
    unsigned char nbr_collatable[8];  // nbr made sortable by hscsdbl
    int datetype;
    char ntoken[8];
};
constexpr int WH_LITC_INNODE = 48;  // text shorter than this lives in the node
struct SQLCLEAF {
    char* c;  // into string, or a malloc block
    int leng;
    char string[WH_LITC_INNODE];
};
struct SQLLLEAF {
    int leng;
    char* c;
};
struct SQLOP_FMT {
    char name[32];
    short fill, namelen, wid, ndec;
};
struct SQLOP_FUNC {
    char name[32];
    short fill, namelen;
    void* par;   // FNCPAR, built by evaluation
    void* mem;
    void* str;   // X_STRING result block of a string function
    long code;   // from the function library
    int type;    // 1 number, 2 string
    void (*fptr)();
};
struct SQLDREF {
    short type, leng;
    void* data;
};
struct SQLOP_JTAG {
    int jds;
    short flags;
    int tagfrom;
};
struct SQLOC {
    long offset;
    short source, leng, type;
};
struct SQLSYMLF {
    void* sym;
    SQLOC d;
    int flags;
    short stat_arg, stat_dist;
};
struct SQLSOB {
    char mem[8];
    short fill1, memlen;
    char alias[32];
    short fill2, aliaslen;
    int table, dsnum;
};
struct SQLEXT {
    char* dbms;
    char* alias;
    int dbmslen, aliaslen;
    char* opt_txt;
    int opt_len;
    char* qry_txt;
    int qry_len;
    void* con;
    void* table;
    char* tname;
    int tnamelen;
};
struct SQLSETLF {
    int len;  // bytes of one element
    int num;  // elements
    void* p;  // num doubles, or num slots of len bytes plus a NUL
};

struct SQLOP {
    short code;
    short type;       // below 0 a number of that many bytes, else a string of that length
    long tag;
    short extra;
    short padding1;
    short attr;
    short nodeflags;
    WH_NODE* nodeinfo;
    void* cg;
    SQLOP* next;      // free list link
    void* tmpptr;     // evaluation scratch
    union {
        SQLNODELF node;
        SQLVLEAF vleaf;
        SQLTLEAF tleaf;
        SQLNLEAF nleaf;
        SQLCLEAF cleaf;
        SQLLLEAF lleaf;
        SQLOP_FMT fmt;
        SQLOP_FUNC func;
        SQLDREF dref;
        SQLOP_JTAG jtag;
        SQLSYMLF symleaf;
        short subparm;
        SQLSOB sob;
        SQLEXT ext;
        SQLSETLF setleaf;
    } u;
};

// Children of a node in order, through its overflow nodes, without going back
// to the head for each one: the evaluator's hot loops walk them this way.
// next() is false at a broken overflow chain.
struct SQLARGWALK {
    const SQLOP* ext;
    SQLOP* const* args;
    int i = 0;
    explicit SQLARGWALK(const SQLOP* n) : ext(n), args(n->u.node.arg) {}
    bool next(SQLOP** child) {
        int k = i % WH_NARGS;
        if (i++ > 0 && k == 0) {
            ext = ext->u.node.ext;
            if (!ext) return false;
            args = ext->u.node.arg;
        }
        *child = args[k];
        return true;
    }
};
// The client-side writer's name for the same record.
using XOWOP = SQLOP;

// ---------------------------------------------------------------- WH_NODE
enum wh_idxnode_t : int {
    WH_XNT_UNKNOWN = 0, WH_XNT_COMPARELIT = 1, WH_XNT_INLITSET = 2, WH_XNT_INMIXSET = 3,
    WH_XNT_NINLITSET = 4, WH_XNT_NINMIXSET = 5, WH_XNT_INSJSET = 6, WH_XNT_KNOWN = 7,
};
enum wh_idxstatus_t : int { WH_XST_NONE = 0, WH_XST_PART = 1, WH_XST_SOME = 2, WH_XST_ALL = 3 };
enum wh_ixt_t : int { WH_IXT_SHY = 0, WH_IXT_SBM = 1, WH_IXT_SBT = 2, WH_IXT_GBT = 3 };
enum wh_preval_t : int { WH_PREVAL_NONE = 0, WH_PREVAL_FALSE = 1, WH_PREVAL_TRUE = 2 };

struct WH_IDXSET {
    int ii;     // current element
    int maxii;  // last element
};
struct WH_IDXTSM {
    void* vds;     // ix_var_t per key part, twice over for a range
    void* keybuf;
    WH_IDXSET* setptrs;
};
struct WH_IDXKEY {
    SQLOP** nodes;
    int ncnt;
    int len;
    int setcnt;
    int permutations;
    int numthreads;
    WH_IDXTSM* tsm;
};
struct WH_IDX {
    wh_idxnode_t ntype;
    wh_idxstatus_t status;
    int flags;
    sqlop_t* name;
    sqlop_t* valu;
    sqlop_t* funcarg;
    da_keystr_t** keystrs;
    int nmatch;
    da_keystr_t* xkeystr;
    da_keystr_t* ckeystr;
    ix_index_t* ixh;
    wh_ixt_t ixtype;
    bool forcedbt;
    int idxnum;
    bool didpreeval;
    void* preevalpvt;
    WH_IDXKEY key;
};
constexpr int WH_IF_OWNSIXH = 0x10000;  // idx.flags: the node owns its index handle
struct WH_AICNTS {
    int total, eval4, eval3, eval2;
};
struct WH_SEGSTATS {
    int segratio, maxsegratio, nsegs;
    hs_obsno_t nvalues, nrows;
};
struct WH_NODE {
    WH_IDX idx;
    WH_AICNTS aicnts;
    WH_SEGSTATS segstats;
    int segrows;
    void* likelists;
    short type;
    wh_preval_t state;
    void* normkeypart;
    int normkeylen;
};

// ---------------------------------------------------------------- WH_HANDLE
struct whlin_t {
    int native;         // 2: doubles arrive in this machine's own order
    int format;         // 6 or 9 once a clause is read
    int targ_cei, data_cei;
    int needs_xcoding;
    void* transpipeh;
};
struct wh_env_t {
    HS_NLSENV* targenv;
    HS_NLSENV* dataenv;
};
struct WH_HANDLE {
    sqlop_t* tree;
    char* treetext;
    sqlop_t* xtree;
    DA_FID* fid;
    int numthreads;
    FILE* debugfp;
    int call_flags;
    bool not_kor;
    int whinitrc;
    sqlop_t* eval3;
    int exidxcnt;
    void* exidxarr;
    void* seglist;      // ix_list_t of the index layer
    int indexcount;
    bool valstart;
    bool probedone;
    whlin_t lin;
    WH_HANDLE* next;
    wh_env_t whenv;
    unsigned int modtime;
    int numstripes;
    void* ixmeta;       // the table's index records as planning read them
    void* ev3;          // the keys wheval3 walks
};
using wh_where_t = WH_HANDLE;

// ---------------------------------------------------------------- memory and utilities
int wh_initmem();
int wh_termmem();
rctype get_handle(WH_HANDLE** ret);
rctype free_handle(WH_HANDLE* wh);
rctype get_node(SQLOP** ret);
rctype free_node(SQLOP* node, int* rflags);
rctype free_tree(SQLOP** tree, int* rflags);
sqlop_t* get_child(const SQLOP* parent, int i);
rctype set_child(SQLOP* parent, int i, SQLOP* child);
// Sets a LITC's text, in the node or in a malloc block by its length.
rctype wh_setlitc(SQLOP* node, const char* text, int len);
void wh_trap_error(const char* module, int lno, rctype errc);
void wh_assertion_failure(const char* file, int line);

// ---------------------------------------------------------------- the wire form
// The reader takes the buffer's length as well: nothing is read past it.
rctype getbooltree(void* gcbp, wh_env_t* whenv, const void* buf, long buflen, whlin_t* lin, bool* notkor,
                   SQLOP** treeptr);
rctype get_whclause(void* gcbp, const void* buf, long buflen, WH_HANDLE* wh, SQLOP** tree);
rctype wh_getatree(const void* buf, long buflen, SQLOP** treeptr);

// ---------------------------------------------------------------- rendering and printing
// *text is malloc'ed; the caller frees it.
rctype whsayit(const SQLOP* tree, char** text);
// The handle's tree rendered into its treetext, or "<null tree>".
const char* whsay(WH_HANDLE* wh);
rctype whsayflattree(const void* clause, long len, char** text);
void tree_print(const char* message, const SQLOP* tree, FILE* fp);
const char* whidxtype(int itype, bool forcebt);
// Mnemonic of a code as the printer shows it.
const char* whmnemonic(int code);

// ---------------------------------------------------------------- the WHERE language
// A column the parser may name: number nvar0 (from 1), type 1 numeric or 2
// character, length in bytes, offset in the row.
struct WH_PCOL {
    const char* name;
    int namelen;
    int type;
    int length;
    int npos;
    int nvar0;
};
// Where and why a clause was refused; col counts bytes from 1, 0 when the
// failure has no place in the text.
struct WH_PERR {
    int col;
    char text[300];
};
// Parses a clause into the host-side tree: NAME leaves bound to their
// columns, functions checked, sets in the order the reader expects.
rctype whparse(const char* clause, int len, const WH_PCOL* cols, int ncols, SQLOP** tree, WH_PERR* err);
// Aggregate calls in an expression of a query: isagg says whether the caller
// takes a name; make turns the call into a leaf, taking over arg (null for
// "*"), or refuses it with a reason in why.
struct WH_PAGG {
    void* ctx;
    int (*isagg)(void* ctx, const char* name, int namelen);
    rctype (*make)(void* ctx, const char* name, int namelen, bool distinct, SQLOP* arg, SQLOP** leaf, char* why,
                   int whylen);
};
// Parses one expression of text from byte start on, up to the first token
// that cannot continue it; *endpos is that token's offset. Errors count
// columns in the whole text.
rctype whparsex(const char* text, int len, int start, const WH_PCOL* cols, int ncols, const WH_PAGG* agg,
                SQLOP** tree, int* endpos, WH_PERR* err);

}  // namespace vrta

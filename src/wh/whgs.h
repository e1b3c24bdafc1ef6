// The group-by scan: scan threads hand batches of rows to whgsaggr, each
// thread folds them into its own AVL tree, a full tree spills to the thread's
// work file as a sorted bin, and whgsgetr merges every bin and tree in one
// ordered pass, finishes each group and hands result rows to the caller.
#pragma once
#include <cstdint>

#include "ssubs/zavl.h"
#include "ssup/thr.h"
#include "ssup/vrtadef.h"
#include "ssup/xm.h"
#include "wh/wh.h"

namespace vrta {

struct DA_NAMESTR;
struct DA_FD;
struct SR_CTX;
struct SKB_KEY;
struct XF_ENV;
using da_namestr_t = DA_NAMESTR;

constexpr rctype WHGS_RC_BADREQ = static_cast<rctype>(0x80000601u);  // bad request; text in errmsg
constexpr rctype WHGS_RC_NOMEM = static_cast<rctype>(0x80000608u);
constexpr rctype WHGS_RC_NOPOOL = static_cast<rctype>(0x8000051eu);  // no memory for distinct values
constexpr rctype WHGS_RC_NOMERGE = static_cast<rctype>(0x8000040cu);

// ---------------------------------------------------------------- the request
// GS_MainRec_t.flags.
constexpr int GS_F_FMTKEY = 0x02;   // group keys may be formatted
constexpr int GS_F_HAVING = 0x08;   // a HAVING clause is given
constexpr int GS_F_DYNMEM = 0x10;   // the thread memory limit is shared dynamically
constexpr int GS_F_META = 0x20;     // a metascan may be tried
constexpr int GS_F_HAVTREE = 0x40;  // the HAVING clause is already a tree
constexpr int GS_F_TRAPS = 0x80;    // hardware arithmetic traps may be allowed

struct GS_MainRec_t {
    int ncols;     // column descriptors
    int reclen;    // bytes of an input row
    int nproj;     // columns the caller shows
    int projlen;   // bytes of a result row
    int ngroupby;
    int norderby;
    int flags;
};
using st_mainrec = GS_MainRec_t;

struct GS_colfmt {
    char name[32];  // format name, blank padded
    int len;        // bytes of the name; 0 no format
    int width;      // 0: the default width
};

struct GS_ColDesc_t {
    char func[8];     // aggregate name, blank padded; blanks for a plain column
    int nvar0[2];     // column and weight column, from 1; 0 none
    int off, len;     // place in the result row
    char ntype;       // 1 number, 2 character
    GS_colfmt pgbfmt;
    char colsym[32];  // the column's name for messages, blank padded
};
using st_coldesc = GS_ColDesc_t;

enum PS_FuncTypes_t : int {
    PS_FT_BLANK = 0, PS_FT_AVG = 1, PS_FT_CNT = 2, PS_FT_FREQ = 3, PS_FT_MIN = 4, PS_FT_MAX = 5,
    PS_FT_SUM = 6, PS_FT_CSS = 7, PS_FT_NMISS = 8, PS_FT_RANGE = 9, PS_FT_STD = 10, PS_FT_STDERR = 11,
    PS_FT_USS = 12, PS_FT_VAR = 13, PS_FT_SUMWGT = 14, PS_FT_UWSUM = 15, PS_FT_CNTD = 16, PS_FT_SUMD = 17,
    PS_FT_AVGD = 18, PS_FT_USSD = 19, PS_FT_VARD = 20, PS_FT_CSSD = 21, PS_FT_STDD = 22, PS_FT_STDERRD = 23,
};
struct PS_AGGRNAME {
    const char* name;
    PS_FuncTypes_t value;
    int pad;
};
struct PS_AGGRFUNC {
    int nfuncs;
    PS_AGGRNAME funcs[25];
};
extern const PS_AGGRFUNC PSaggrfunc_tbl;
// Looks an aggregate up: mode 0 an 8-byte blank-padded name, 1 a terminated
// name in any case. 0 found, 1 not.
int PSaggrfunc(const char* name, PS_FuncTypes_t* ftp, int mode);

// ---------------------------------------------------------------- the handle
struct WHGS_KEYDESC {
    int off, len;  // in the row
    int keyoff;    // in the key
    int ntype;
    int flags;     // WHGS_KD_...
    long fmtcode;
    int nfl;       // formatted width
};
constexpr int WHGS_KD_DESC = 1;
constexpr int WHGS_KD_CONST = 2;
constexpr int WHGS_KD_FMT = 4;

struct WHGS_DISTINCT {
    zavlS* zavltree;
    void* entry;
    PS_FuncTypes_t func;
    double count, sum;
    bool sumfpe;
    double uss;
    bool ussfpe;
    int ztkeylen;
    int off;
    int colidx;
    int keypart;
};

struct WHGS_IDXSCAN;
struct WHGS_COL {
    GS_ColDesc_t coldesc;
    PS_FuncTypes_t gsfunc;
    da_namestr_t* nstr[2];
    bool math_excep;   // a value failed; the warning is due
    bool did_prnt_msg;
    bool is_complex;
    bool hidden;
    int excflg_off;    // -1 none
    int ztdataoff;     // -1 none
    WHGS_IDXSCAN* scanp;
    WHGS_KEYDESC* keypart;
    WHGS_KEYDESC* fmtkeypart;
    WHGS_COL* aux[5];  // SUM, CNT, USS, MIN, MAX
    WHGS_DISTINCT* dist;
    bool fromkey;      // read back out of the key: not accumulated
    int celllen;       // bytes of the cell in the data area
};
enum { WHGS_AUX_SUM = 0, WHGS_AUX_CNT = 1, WHGS_AUX_USS = 2, WHGS_AUX_MIN = 3, WHGS_AUX_MAX = 4 };

struct WHGS_ZTALLOC {
    char* bufptr;
    char* curptr;
    long size;
    long n_allocated;
    WHGS_ZTALLOC* next;
};
struct WHGS_ZTPOOL {
    mutex_t lock;
    xmpid mpool;
    int max_osa;
    int n_osa;
    long osa_sz;
    bool dynamic;
    WHGS_ZTALLOC* freeblocks;  // blocks given back, ready for reuse
};

struct WHGS_HANDLE;
// A bin to merge: the sorter's run record first, so that the merge can walk
// our bins as its runs.
struct WHGS_PTHREAD;
struct WHGS_BINHEAD {
    void* next;
};

struct WHGS_PTHREAD {
    WHGS_HANDLE* gsh_handle;
    zavlS* zavltree;
    int max_osa;   // this thread's limit of pool blocks
    int n_osa;
    WHGS_ZTALLOC* ztalist;
    WHGS_ZTALLOC* curztap;
    zavlS* entry;  // a node ready for the next new key
    long nrows;    // keys in the tree
    int nflushes;
    DA_FD* binfid;
    void* fileinfo;  // SR_FILE of the spill file
    int64_t filepos;
    struct WHGS_BIN* binhead;
    struct WHGS_BIN* lastbin;
    char* outbuf;
    long iobufrows;
    char* bldaggrbuf;
    bool allow_excp;
    bool excp_occurred;
    bool initialized;
    int thrindx;
    double count;
    uint32_t spill_seqno;
    int64_t perthread_whgsaggr_numobs;
    int64_t nbinrows;
};

struct WHGS_IDXSCAN {
    int nvar0;
    void* keystrp;
    void* gscan;
    WHGS_IDXSCAN* next;
};

// What storefp learns about the rows it is handed: each is keylen bytes of
// sort key (0 without an output sort) and then rowlen bytes of result row.
struct WHGS_ROWINFO {
    int keylen;
    int reclen;
    int rowlen;
};
using whgs_storefp_t = rctype (*)(char* buffer, long nrows, const WHGS_ROWINFO* rowinfo, void* cbdata);

// Handle flags.
constexpr int WHGS_HF_FPE = 0x001;
constexpr int WHGS_HF_FIRST = 0x002;
constexpr int WHGS_HF_FMTKEY = 0x004;
constexpr int WHGS_HF_SORT = 0x008;
constexpr int WHGS_HF_XCODE = 0x010;
constexpr int WHGS_HF_SKB = 0x020;
constexpr int WHGS_HF_MCOUNT = 0x040;
constexpr int WHGS_HF_MINDEX = 0x080;
constexpr int WHGS_HF_MWHERE = 0x100;
constexpr int WHGS_HF_MGIVEUP = 0x200;
constexpr int WHGS_HF_MRUN = 0x400;
constexpr int WHGS_HF_TRAPS = 0x800;
constexpr int WHGS_HF_HAVNOTOWN = 0x1000;
constexpr int WHGS_HF_MPLANNED = 0x2000;

struct WHGS_HANDLE {
    DA_FID* fid;
    double missing;
    char* rowbuf;
    char* rslvbuf;
    char* msgbuf;
    int ngrpby;
    WHGS_KEYDESC* grpby;
    int ncntdgrpby;
    WHGS_DISTINCT* dstnctp;
    xmpid dstnctmpool;
    int ntotcols, nusedcols, nmaincols, nprojcols;
    WHGS_COL* cols;
    int ncmplxcols;
    WHGS_COL** cmplxcolp;
    sqlop_t* havtree;
    WHGS_ZTPOOL ztpool;
    int ztkey_len;
    int ztkey_grpby_len;
    int ztdata_len;
    int ordkey_len;
    int proj_len;
    whgs_storefp_t storefp;
    void* cbdata;
    int64_t nrecsout;
    int flags;
    int nthreads;
    WHGS_PTHREAD* thrd_data;
    wh_env_t whenv;
    XF_ENV* xfenv;
    SKB_KEY* skb;
    WHGS_IDXSCAN* idxscanp;
    int64_t total_whgsaggr_numobs, total_whgsmerge_recs, total_binrecs;
    // Beyond the basics: what the caller asked for and where the work goes.
    int reclen;
    int nvars;
    da_namestr_t* vars;
    double rowcache;       // GRPBYROWCACHE in force
    volatile int* interrupt;
    int64_t spillbytes;    // written to spill files
    int nbins;             // bins merged
    SR_CTX* sortctx;
};
using whgs_handle_t = WHGS_HANDLE;

// ---------------------------------------------------------------- calls
rctype gsinit();
rctype gsterm();
// errmsg receives a malloc'ed text on failure; the caller frees it.
rctype whgsinit(void* targenv, DA_FID* fid, GS_MainRec_t* mainrec, GS_ColDesc_t* coldesc, int* grpbycols,
                int* ordrbycols, void* havclause, int maxthreads, WHGS_HANDLE** gshandle, char** errmsg);
// The same over a list of columns: a virtual table, whose rows the caller builds.
rctype whgsvtinit(void* targenv, GS_MainRec_t* mainrec, GS_ColDesc_t* coldesc, int nvars, da_namestr_t* vars,
                  int* grpbycols, int* ordrbycols, void* havclause, int maxthreads, WHGS_HANDLE** gshandle,
                  char** errmsg);
rctype whgsaggr(WHGS_HANDLE* gsh, int thrd_index, const char* obs_buf, int obs_len, long num_obs);
rctype whgsgetr(WHGS_HANDLE* gsh, whgs_storefp_t storefp, void* cbdata);
rctype whgsfree(WHGS_HANDLE* gsh);
rctype whgsabort(WHGS_HANDLE* gsh);
int whgsinfo(WHGS_HANDLE* gsh);
void whgsinfocols(WHGS_HANDLE* gsh, int* ntotcols, int* nmaincols, int* nprojcols);
const GS_ColDesc_t* whgsinfocoldesc(WHGS_HANDLE* gsh, int col);
// The messages made: terminated text into msgbuf, at most msglen bytes.
int whgsmsg(WHGS_HANDLE* gsh, char* msgbuf, int msglen);
int whgsfpexc();
void whgssetallowexcp(WHGS_HANDLE* gsh, int thrd_index, bool allow);
// Where the memory limit comes from in a test or a user's request: bytes
// of tree memory for all threads (below 0: the GRPBYROWCACHE option).
void whgssetcache(double bytes);
// An interrupt word polled by the merge and the output sort.
void whgssetinterrupt(WHGS_HANDLE* gsh, volatile int* interrupt);

// Metascan.
bool whgsplanmetascan(WHGS_HANDLE* gsh, WH_HANDLE* wh);
rctype whgsismetascan(WHGS_HANDLE* gsh, WH_HANDLE* wh, DA_FID* mfid, int whflags, int* is_mscan);

// Inner steps the tests reach.
struct WHGS_ZTPOOLCFG {
    long osa_sz;
    int max_osa;
};
WHGS_ZTPOOLCFG whgsztpoolcfg(double rowcache, int nthreads);
double whgs_calc_stat(WHGS_HANDLE* gsh, WHGS_COL* col, double count, double sum, double uss, bool sumexcp,
                      bool ussexcp);
bool whgs_mul_exception(double a, double b);
bool whgs_div_exception(double n, double d);

}  // namespace vrta

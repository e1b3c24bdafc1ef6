// Open tables: the shared control block of a table (DA_FCB), one handle per
// opener (DA_FID), the table method tables, the open request, the delete map,
// the string pool and column views. What cursors, indexes and the direct API
// need from the table life cycle is declared here.
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"
#include "ssup/thr.h"
#include "ssup/xm.h"
#include "sda/da.h"
#include "sda/dafd.h"
#include "sda/daods.h"

struct HS_NLSENV;

namespace vrta {

struct DA_FCB;
struct DA_FID;
struct DA_FIDP;
struct DA_IOCB;
struct DA_IOB;
struct DA_VBCB;
struct DA_FBCB;
struct DA_XCEXT;
struct DA_DMPCB;
struct DA_DMP;
struct DA_CVB;
struct DA_STRPHDL;
struct DA_IDX;
struct DA_KEYSTR;
struct DA_KEYSTAT;
using da_strpmoved_t = void (*)(void* closure, da_off_t newoff);
using da_fid_t = DA_FID*;
using dafcb = DA_FCB*;

// DA_OPNSTR.flags
constexpr int DA_OFCONSTR = 0x20;           // load the constraint text also when writing
constexpr int DA_OFCOMPRESS = 0x2000;
constexpr int DA_OFENCRYPT = 0x4000;
constexpr int DA_OFKEEPKEY = 0x8000;        // keep the key in the table
constexpr int DA_OFBACKUP = 0x10000;        // backup tracking
constexpr int DA_OFOLDFMT = 0x40000;        // old-format file names
constexpr int DA_OFCLUSTER = 0x80000;       // create a cluster
constexpr int DA_OFXOE100 = 0x100000;
constexpr int DA_OFGENMAX = 0x200000;
constexpr int DA_OFALIGN = 0x800000;        // XOE 0x200, row alignment
constexpr int DA_OFKEYGIVEN = 0x2000000;    // key given by the caller
constexpr int DA_OFRANDPATH = 0x10000000;   // random first data path
constexpr int DA_OFXOE800 = 0x20000000;
constexpr int DA_OFDYNAMIC = 0x40000000;    // dynamically shared

// DA_OPNSTR.reuse
constexpr int DA_ADDEND = 0;
constexpr int DA_ADDAVAILREUSE = 1;  // reuse deleted rows (XOE 0x10000)

// The open request.
struct DA_OPNSTR {
    const char* name;        // member name; empty or null at create makes one up
    int name_l;
    char dstype[8];
    int32_t sysid;
    int32_t blocksize;
    int32_t bcount;
    int64_t idxsegsize;
    int flags;
    int mode;                // DA_OMINPUT ..
    int reuse;
    int32_t dsorg;
    char diskcomp[8];        // exit name asked for at create ("DEFAULT " allowed)
    int replace;
    char who_created[8];
    char who_modified[8];
    double credate;
    double moddate;          // missing value: leave as is
    int semtype;
    int16_t label_l;
    char label[256];
    DA_OWNINFO owner_token;
    int timeout;
    int32_t lang;
    int32_t ltype;
    int keylen;
    char encrypt_key[40];
    char ds_version[8];
    char ds_version_comp[8];
    char client_sysname[8];
    char server_sysname[8];
    int32_t blockgrow;
    int64_t partsize;
    int32_t dsver;
    int lklev;
    int gennum_max;
    double gendate;
    int64_t rangesize;
    uint8_t rv_120[120];     // requirement vector for the files
    char locale[32];
    int32_t encoding_cei;
    int32_t transfersize;
    int32_t transferquantum;
    DA_LOCK* lcb;            // dynamic member lock of the opener
};

// DA_FCB.flags: dirty bits of the records, and the closer's skip flag.
constexpr int DA_FCBDSHDR = 1;
constexpr int DA_FCBXOE = 2;
constexpr int DA_FCBIDX = 8;
constexpr int DA_FCBOWNER = 32;
constexpr int DA_FCBDIRTY = 47;
constexpr int DA_FCBNOREV = 0x20000;

// DA_FID.fidflags
constexpr int DA_FIDNOREV = 4;      // close without the revision update
constexpr int DA_FIDNOTRANS = 8;    // nlstranscode off
constexpr int DA_FIDDYNAMIC = 16;   // dynamically shared

// Table methods, chosen by mode at open.
struct DA_FIDMT {
    rctype (*closefid)(DA_FID* fp) __attribute__((warn_unused_result));
    rctype (*reopenfid)(DA_FID* fp, DA_OPNSTR* ostr) __attribute__((warn_unused_result));
    rctype (*force)(DA_FID* fp, int flags) __attribute__((warn_unused_result));
    rctype (*fix)(DA_FID* fp, int flags) __attribute__((warn_unused_result));
    rctype (*defvars)(DA_FID* fp, int nvars, DA_NAMESTR* vars) __attribute__((warn_unused_result));
    rctype (*getiocb)(DA_FID* fp, int iom, DA_IOCB** iocb) __attribute__((warn_unused_result));
    rctype (*addidx)(DA_FID* fp, const char* name, int keyflags, int nvar, const int32_t* varnos) __attribute__((warn_unused_result));
    rctype (*dropidx)(DA_FID* fp, const char* name, int drflags) __attribute__((warn_unused_result));
    rctype (*replaceidx)(DA_FID* fp, const char* target, const char* source, int drflags) __attribute__((warn_unused_result));
    rctype (*openidx)(DA_FID* fp, const char* name, int flags, DA_IDX** ip) __attribute__((warn_unused_result));
    rctype (*queryidx)(DA_FID* fp, int nvar0, int nkstr, DA_KEYSTR* kstr) __attribute__((warn_unused_result));
    rctype (*queryicb)(DA_FID* fp, const char* name, DA_KEYSTR* kstr) __attribute__((warn_unused_result));
    rctype (*setkeystat)(DA_FID* fp, const char* name, const DA_KEYSTAT* kstat) __attribute__((warn_unused_result));
    rctype (*delobs)(DA_FID* fp, hs_obsno_t obsno) __attribute__((warn_unused_result));
    rctype (*getdelmap)(DA_FID* fp, DA_DMP** newdmp) __attribute__((warn_unused_result));
    rctype (*truncobs)(DA_FID* fp, hs_obsno_t numobs) __attribute__((warn_unused_result));
    rctype (*setsortinfo)(DA_FID* fp, const DA_SORTINFO* sinfo) __attribute__((warn_unused_result));
    rctype (*dropvars)(DA_FID* fp, int ndrop, const int32_t* dnvar0) __attribute__((warn_unused_result));
    rctype (*setshare)(DA_FID* fp, int smode) __attribute__((warn_unused_result));
    rctype (*setbackup)(DA_FID* fp, const DA_BACKUPINFO* binfo) __attribute__((warn_unused_result));
    rctype (*getinfo)(DA_FID* fp, int what, void* buf, int len) __attribute__((warn_unused_result));
    rctype (*getcdfobs)(DA_FID* fp, int memnum, hs_obsno_t memobs, hs_obsno_t* cobs) __attribute__((warn_unused_result));
    rctype (*vercryptpw)(DA_FID* fp, const char* pw, int len) __attribute__((warn_unused_result));
    rctype (*setrange)(DA_FID* fp, void* range) __attribute__((warn_unused_result));
    rctype (*settranscodenvar0)(DA_FID* fp, int n, const int32_t* nvar0) __attribute__((warn_unused_result));
};

// The public open handle: the methods and views into the shared block.
struct DA_FID {
    const DA_FIDMT* mt;
    DA_XOEODS* xoehdr;
    DA_NAMESTR* vars;         // the opener's columns (a column view when some were dropped)
    void* indexes;
    int32_t blockfactor;      // the opener's
    int32_t blocksize;        // the opener's
    void* keytab;
    DA_LIB* lib;
    DA_SORTINFO* sortinfo;
    DA_OWNINFO* owninfo;
    void* keysum;
    int fidflags;
    rctype errrc;
    int64_t segsize;
    DA_VBVSTAT* vbvstat;
    int32_t version;
    int32_t numvar;
    int32_t numindex;
    DA_NAMESTR* allvars;
    void* allindexes;
    int32_t maxsegratio;
    void* ixtrap;
    DA_BACKUPINFO* backup;
    void* cdfhdr;
    uint8_t* rv_120;
    HS_NLSENV* nlsenv;
    void* transcodevec;
    void* tpsummary;
    DA_LOCK* lcb;
    int thrno;
    char* constr;
};

// A list node that knows its opener.
struct DA_FIDLINK {
    DA_LINK link;
    DA_FIDP* fid;
};

// The private face of an opener.
struct DA_FIDP : DA_FID {
    DA_FIDLINK link;          // on the library's fids
    DA_FIDLINK fcblink;       // on the FCB's openers
    int mode;
    void* extension;
    DA_FCB* fcb;
    int iocbCount;
    mutex_t iocbLock;
    mutex_t indexLock;
    void* indexList;          // the DA_IDXP this opener has open
    int flags;
    int timeout;
    DA_CVB* cvb;
    int dmpCount;
    int smode;
    DA_LOCK* memlid;          // member lock taken by this open, released at close
    DA_SORTINFO sortcopy;     // a reader's private sort information
    DA_FIDMT mtcopy;          // this opener's slots
};

inline DA_FIDP* fidpof(DA_FID* fp) { return static_cast<DA_FIDP*>(fp); }
inline DA_FIDP* fidpoflink(DA_LINK* l) { return reinterpret_cast<DA_FIDLINK*>(l)->fid; }

// The table control block, one per table per library in a process.
struct DA_FCB {
    DA_LINK link;             // on the library's fcbs
    DA_FD* mdfd;
    DA_FD* dffd;
    da_off_t hdrOff;
    DA_DSFHEAD dshdr;
    DA_XOEODS xoe;
    DA_SINODS sort;
    DA_OWNODS owner;
    DA_BACKUPODS backup;
    char name[33];            // as given
    int inameLen;
    char iname[33];           // lower case
    DA_LIB* lib;
    void* dsccb;
    DA_NAMESTR* vars;
    DA_VARSODS* vstat;        // statistics vector, null when none
    void* keytab;
    int mode;
    int refCount;
    int oflags;               // DA_OPNSTR.flags of the first opener
    int flags;                // DA_FCBxxx
    mutex_t indexLock;
    void* icbs;
    void* indexes;
    void* keysum;
    DA_DMPCB* dmpcb;
    rwlock_t updateLock;
    int updateLockInit;
    mutex_t aclLock;
    DA_VBCB* vbcb;
    DA_FBCB* fbcb;
    DA_XCEXT* xcext;
    DA_STRPHDL* phdl;
    DA_CVB* cvblist;
    uint8_t reqvec[24];
    int32_t encoding;
    char locale[32];
    HS_NLSENV* nlsenv;
    rwlock_t shareLock;
    mutex_t dynupdLock;
    int shareLockInit;
    char* constr;
    int constrMalloc;         // constr came from malloc
    int32_t vbvspan;          // rows per variable-block vector entry
    uint8_t* mmwork;          // min and max folded from rows written, per column with a slot
    uint8_t* mmstate;         // per column: 1 holds a value, 2 not yet stored
    DA_LINK fids;             // openers, for fidmt_f
    xmpid pool;               // the FCB's own pool
    DA_ODSIO mdfio;           // record reads and writes in the MDF
    hs_obsno_t pubobs;        // numobs and nvar of the XOE last written or read:
    int32_t pubnvar;          // what the file publishes
};

inline DA_FCB* fcbof(DA_FID* fp) { return fidpof(fp)->fcb; }

// ---------------------------------------------------------------- life cycle

// The library's openfid.
[[nodiscard]] rctype daopen(DA_LIB* lp, DA_OPNSTR* ostr, DA_FID** newfp);
[[nodiscard]] rctype daropen(DA_LIB* lp, DA_OPNSTR* ostr, DA_FID** newfp);
[[nodiscard]] rctype darropn(DA_FID* fp, DA_OPNSTR* ostr);
[[nodiscard]] rctype darclos(DA_FID* fp);
[[nodiscard]] rctype darfix(DA_FID* fp, int flags);
[[nodiscard]] rctype dalforc(DA_FID* fp, int flags);
[[nodiscard]] rctype daldefv(DA_FID* fp, int nvars, DA_NAMESTR* vars);
[[nodiscard]] rctype dalupdv(DA_FID* fp, int nvars, DA_NAMESTR* vars);
[[nodiscard]] rctype datrobs(DA_FID* fp, hs_obsno_t numobs);
[[nodiscard]] rctype darssin(DA_FID* fp, const DA_SORTINFO* sinfo);
[[nodiscard]] rctype darsbkup(DA_FID* fp, const DA_BACKUPINFO* binfo);
[[nodiscard]] rctype dasetshare(DA_FID* fp, int smode);
[[nodiscard]] rctype dadrvar(DA_FID* fp, int ndrop, const int32_t* dnvar0);
[[nodiscard]] rctype dagetfibmodtime(DA_FID* fp, int* modtime, int* numstripes);

// Constraint text of a member, opened by name. A text of more than 1,052,672
// bytes is DA_TOOLONG; a table that has one already, DA_HASCONST. The list
// gives a malloc'd copy (NUL-terminated) for the caller to free.
[[nodiscard]] rctype dasetconstraint(DA_LIB* lp, const char* name, const char* text, long len);
[[nodiscard]] rctype dadelconstraint(DA_LIB* lp, const char* name);
[[nodiscard]] rctype dalistconstraint(DA_LIB* lp, const char* name, char** text, long* len);
[[nodiscard]] rctype daldconst(DA_FCB* fcb);

// Column statistics: minimum and maximum of the columns that keep them,
// folded from rows as they are written and stored at flush.
[[nodiscard]] rctype dalupdminmax(DA_FID* fp, int nvars, const int32_t* nvar0);
[[nodiscard]] rctype dalresetminmax(DA_FID* fp);
[[nodiscard]] rctype dastvstat(DA_FCB* fcb);
[[nodiscard]] rctype daldvstat(DA_FCB* fcb);
void dalckvars(DA_FCB* fcb, const void* rows, long n);
[[nodiscard]] rctype dastoreminmax(DA_FCB* fcb);
void dafrvstat(DA_FCB* fcb);

// dargetinfo selectors.
constexpr int DA_INFOXOE = 1;    // copy of the XOE
constexpr int DA_INFOFIB = 2;    // DPF revision and logical size: int32 rev, int64 size
[[nodiscard]] rctype dargetinfo(DA_FID* fp, int what, void* buf, int len);

// FCB level.
[[nodiscard]] rctype dacrfcb(DA_LIBP* lp, DA_OPNSTR* ostr, DA_FCB** newfcb);
[[nodiscard]] rctype daopfcb(DA_LIBP* lp, DA_OPNSTR* ostr, DA_FCB** newfcb);
[[nodiscard]] rctype dafrfcb(DA_FCB* fcb, int disp);
DA_FCB* dalufcb(DA_LIBP* lp, const char* iname);
[[nodiscard]] rctype daflfcb(DA_FCB* fcb);
[[nodiscard]] rctype darofcb(DA_FCB* fcb, int mode, int oflags);
[[nodiscard]] rctype dauprev(DA_FCB* fcb);
[[nodiscard]] rctype darfmdf(DA_FCB* fcb);
// The XOE written now: the commit of numobs. Rows it newly counts, and
// every record they need, reach stable storage first.
[[nodiscard]] rctype dawrfcbxoe(DA_FCB* fcb);
// Stable storage for all the table's files have been given since the last
// time: what makes a flush or close last through a power loss.
[[nodiscard]] rctype dasyncfcb(DA_FCB* fcb);

// Between the files of the table layer.
DA_ODSIO damdfio(DA_FCB* fcb);
// Names one of the table's files (kind 0 the MDF, 1 the DPF) and its first
// npath paths, pbuf and namebuf (48 bytes) holding them; permissions, free
// space minimum and FIB are left to the file layer's choice.
DA_FDSTR dafdname(const DA_FCB* fcb, int kind, DA_PATHINFO* paths, int npath, const char** pbuf, char* namebuf);
da_strpmoved_t dastrpmovedcb();
DA_FCB* danewfcb(DA_LIBP* lp, const char* name, int namelen, int mode);
[[nodiscard]] rctype dastv7nam(DA_FCB* fcb, int nvars, DA_NAMESTR* vars);
[[nodiscard]] rctype dabldvars(DA_FCB* fcb, int nvars, const DA_NAME7ODS* v);
[[nodiscard]] rctype daldv7ns(DA_FCB* fcb);
// The table's header and description, and its columns, checked against each
// other and the MDF's size: 0x80000216 with the file and field named.
[[nodiscard]] rctype dachkxoe(DA_FCB* fcb, const DA_DSFHEAD& h, const DA_XOEODS& x);
[[nodiscard]] rctype dachkvars(DA_FCB* fcb, const DA_NAME7ODS* v, int32_t nvar);

// The method tables, filled at dainit.
[[nodiscard]] rctype dafidmtini(DA_GCB* gcb);
extern DA_FIDMT fidmt_r;
extern DA_FIDMT fidmt_l;
extern DA_FIDMT fidmt_f;

// Least multiple of 32 and bf.
int64_t dalcm32(int64_t bf);

// Test hook: called before each write of the table layer's records and of
// rows by dawrobs; a crash test makes the process die at the k-th call.
extern void (*da_writehook)(const char* what);

// Plain rows without a cursor: writes n rows at row obsno (numobs + 1 to
// append), raising numobs in memory; the XOE is committed by a flush or close.
[[nodiscard]] rctype dawrobs(DA_FID* fp, hs_obsno_t obsno, const void* rows, long n);
// Reads up to n rows from obsno; *nread gets how many (518 past numobs).
[[nodiscard]] rctype dardobs(DA_FID* fp, hs_obsno_t obsno, void* rows, long n, long* nread);

// ---------------------------------------------------------------- cursor hooks

// Block state of compressed tables and the cursor families; the cursor layer
// provides them.
[[nodiscard]] rctype daivbcb(DA_FCB* fcb);
[[nodiscard]] rctype daifbcb(DA_FCB* fcb);
[[nodiscard]] rctype dalvbcb(DA_FCB* fcb);
[[nodiscard]] rctype dalfbcb(DA_FCB* fcb);
[[nodiscard]] rctype daflvbcb(DA_FCB* fcb);
[[nodiscard]] rctype daflfbcb(DA_FCB* fcb);
[[nodiscard]] rctype dafvbcb(DA_FCB* fcb);
[[nodiscard]] rctype daffbcb(DA_FCB* fcb);
[[nodiscard]] rctype darfvbcb(DA_FCB* fcb);
[[nodiscard]] rctype darffbcb(DA_FCB* fcb);
[[nodiscard]] rctype dargioc(DA_FID* fp, int iom, DA_IOCB** iocb);
[[nodiscard]] rctype dafgioc(DA_FID* fp, int iom, DA_IOCB** iocb);
[[nodiscard]] rctype davgioc(DA_FID* fp, int iom, DA_IOCB** iocb);
[[nodiscard]] rctype dabgioc(DA_FID* fp, int iom, DA_IOCB** iocb);
[[nodiscard]] rctype dancgio(DA_FID* fp, int iom, DA_IOCB** iocb);
[[nodiscard]] rctype daacgio(DA_FID* fp, int iom, DA_IOCB** iocb);

// ---------------------------------------------------------------- index hooks

// The index layer's part in a table's life; each is called when linked in.
// daldidx loads the index records at open (nindexes > 0), dackidx checks them
// (it may give 515), daflicb writes dirty index records at flush, darevidx
// raises the revision of every index component (before the DPF's),
// dareopidx reopens index files for a new mode, dafridx closes (disp & 1)
// and frees the indexes when the table is let go.
[[nodiscard]] rctype daldidx(DA_FCB* fcb);
[[nodiscard]] rctype dackidx(DA_FCB* fcb);
[[nodiscard]] rctype daflicb(DA_FCB* fcb);
[[nodiscard]] rctype darevidx(DA_FCB* fcb);
[[nodiscard]] rctype dareopidx(DA_FCB* fcb, int fdflags);
[[nodiscard]] rctype dafridx(DA_FCB* fcb, int disp);
// Data sync of the index files, part of every dasyncfcb.
[[nodiscard]] rctype dasyncidx(DA_FCB* fcb);

// ---------------------------------------------------------------- delete map

// One segment's bitmap held in memory: the shared working one, or a cursor's.
struct DA_DMPBM {
    da_off_t offset;          // of the bitmap in the MDF, -1 none
    uint32_t* bitmap;
    struct DA_DMPHT* hte;
    int32_t bmsize;           // bytes
    uint32_t seqno;
    hs_obsno_t segobs;        // first row of the segment held
};

struct DA_DMPHT {
    DA_DMPHT* next;
    DA_DMPENT ent;
    uint32_t seqno;           // raised when the segment's bitmap changes
};

struct DA_DMPCB {
    int32_t numht;
    DA_DMPHT** ht;
    da_off_t diroff;          // of dirblk
    DA_DMPDIR dirblk;         // last directory
    da_off_t hdroff;
    DA_DMPBM bmap;
    DA_DMPHEAD dmphdr;
    uint32_t seqno;           // raised at every change
};

// A read-only view for index code.
struct DA_DMP {
    rctype (*readdelmap)(DA_DMP* dmp, hs_obsno_t segobs, uint32_t** bitmap, int32_t* bsize) __attribute__((warn_unused_result));
    rctype (*freedelmap)(DA_DMP* dmp) __attribute__((warn_unused_result));
};
struct DA_DMPP : DA_DMP {
    DA_FIDP* fid;
    DA_DMPBM bm;
};

[[nodiscard]] rctype dadodmp(DA_FID* fp, hs_obsno_t obsno);
[[nodiscard]] rctype dalddmp(DA_FCB* fcb);
[[nodiscard]] rctype dafrdmp(DA_FCB* fcb);
[[nodiscard]] rctype danewdm(DA_FCB* fcb);
[[nodiscard]] rctype dalocdm(DA_FCB* fcb, hs_obsno_t segobs, DA_DMPBM* bmp);
[[nodiscard]] rctype danewbm(DA_FCB* fcb, hs_obsno_t segobs, DA_DMPBM* bmp);
// Cursor-side pieces: a private bitmap, runs of live and of deleted rows.
DA_DMPBM* dadmnewbm(DA_FCB* fcb);
void dadmfreebm(DA_DMPBM* bmp);
// From curobs: skip deleted rows, then count live ones up to remain (a run
// may cross segments), looking no further than row numobs. *runobs is the
// run's first row, *numrun 0 past numobs.
[[nodiscard]] rctype dadmrunbm(DA_FCB* fcb, DA_DMPBM* bmp, hs_obsno_t curobs, hs_obsno_t remain, hs_obsno_t numobs,
                 hs_obsno_t* runobs, hs_obsno_t* numrun);
[[nodiscard]] rctype dadmdelrun(DA_FCB* fcb, hs_obsno_t startobs, hs_obsno_t* delrun);
[[nodiscard]] rctype dadmfindbm(DA_FCB* fcb, hs_obsno_t* delobs, hs_obsno_t* delrun);
[[nodiscard]] rctype dadmreset(DA_FCB* fcb, hs_obsno_t startobs, hs_obsno_t numobs);
bool dadmisdel(DA_FCB* fcb, DA_DMPBM* bmp, hs_obsno_t obsno);
[[nodiscard]] rctype dagetdelmap(DA_FID* fp, DA_DMP** newdmp);
[[nodiscard]] rctype dafreedelmap(DA_DMP* dmap);
[[nodiscard]] rctype dareaddelmap(DA_DMP* dmap, hs_obsno_t segobs, uint32_t** bitmap, int32_t* bsize);

// ---------------------------------------------------------------- string pool

struct DA_STRPHDL {
    da_off_t offset;          // of the DA_STRPHEAD
    DA_FD* mdfd;
    DA_STRPHEAD* phd;         // head with its offset vector
    DA_STRP* strpmem;         // all sections, contiguous
    da_strpmoved_t movedCallback;
    void* closure;
    int flags;                // 1 dirty
    int32_t phdlen;           // bytes of phd
    int32_t allocsects;       // sections room in strpmem
};

[[nodiscard]] rctype dastrpini(DA_FD* mdfd, da_strpmoved_t movecb, void* closure, DA_STRPHDL** rphdl);
[[nodiscard]] rctype dastrpld(DA_FD* mdfd, da_off_t offset, da_strpmoved_t movecb, void* closure, DA_STRPHDL** rphdl);
[[nodiscard]] rctype dafrstrp(DA_STRPHDL* phdl);
[[nodiscard]] rctype dastrpalloc(DA_STRPHDL* phdl, int32_t size, int32_t* opid, void** opmem);
[[nodiscard]] rctype dastrpalloc2(DA_STRPHDL* phdl, int32_t size, int32_t* opid, void** opmem);
[[nodiscard]] rctype dastrpfree(DA_STRPHDL* phdl, int32_t id, int32_t size);
[[nodiscard]] rctype daflstrp(DA_STRPHDL* phdl);
[[nodiscard]] rctype dastrprep(DA_STRPHDL* phdl, int32_t oldid, int32_t oldlen, const void* newstr, int32_t newlen,
                 int32_t* newid);
// Address of the string with id, null when the id is outside the pool.
void* dastrpaddr(DA_STRPHDL* phdl, int32_t id, int32_t len);

// ---------------------------------------------------------------- column views

struct DA_CVB {
    DA_CVB* next;
    DA_FID* reffid;
    int flags;
    int refcount;
    int ndrop;
    int32_t* dnvar0;
    int32_t numvar;
    DA_NAMESTR* vars;
    int32_t numindex;
    void* indexes;
    void* keytab;
    void* keystrs;
};

[[nodiscard]] rctype dagetcvb(DA_CVB** cvblist, DA_FID* reffid, int ndrop, const int32_t* dnvar0, DA_CVB** newcvb);
void dafreecvb(DA_CVB** cvblist, DA_CVB* cvb);

}  // namespace vrta

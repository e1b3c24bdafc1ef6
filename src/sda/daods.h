// On-disk records of a table: the file information block (FIB) with its
// partition directory, and every record the metadata file (MDF) holds.
// All integers are in host byte order; every layout is pinned below because
// the offsets are part of the file format.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ssup/vrtadef.h"

namespace vrta {

#pragma pack(push, 1)

// Head of every record in the MDF.
struct DA_ODSHEAD {
    int32_t version;  // high byte major, next byte minor, low 16 bits record revision
    int32_t length;   // bytes of the record, head included
};
static_assert(sizeof(DA_ODSHEAD) == 8);

// ---------------------------------------------------------------- FIB

// Requirement record: opaque vector handed over by the creator and given
// back to each opener (first 24 bytes).
struct DA_RV_WR {
    uint8_t dsrvhdr[4];   // 00 00 00 00
    uint8_t dsrvver[2];   // 00 01
    uint8_t dsrvlen[2];   // 00 80
    uint8_t dsreqv[24];
    uint8_t dsrvgro[32];
    uint8_t sgrowth[64];
};
static_assert(sizeof(DA_RV_WR) == 128);
static_assert(offsetof(DA_RV_WR, dsreqv) == 8 && offsetof(DA_RV_WR, dsrvgro) == 32 &&
              offsetof(DA_RV_WR, sgrowth) == 64);

struct DA_FIB {
    DA_RV_WR ds_rv_wr;
    int32_t version;     // 0x200 current, 0x1xx old format
    int32_t length;      // 272
    int64_t overflow;    // > 0: offset of a newer, larger FIB
    int64_t filesize;    // logical size at the last FIB write
    int32_t modtime;
    int32_t revision;    // 1..9999
    int32_t hipath;
    int32_t pdesize;     // allocation minus 272
    int32_t numpde;
    int32_t topused;     // 8 x numpde
    int32_t botused;     // bytes of names
    int32_t numstripes;  // commits within the second of modtime
    int32_t stripesize;
    int32_t nfreeseg;
    int32_t freesegoff;  // -1
    int32_t creflags;
    int32_t namelen;
    uint8_t spare[64];
    uint8_t lockrgn[4];  // record-lock region; never written for a direct FIB
};
static_assert(sizeof(DA_FIB) == 272);
static_assert(offsetof(DA_FIB, version) == 128 && offsetof(DA_FIB, length) == 132 &&
              offsetof(DA_FIB, overflow) == 136 && offsetof(DA_FIB, filesize) == 144 &&
              offsetof(DA_FIB, modtime) == 152 && offsetof(DA_FIB, revision) == 156 &&
              offsetof(DA_FIB, hipath) == 160 && offsetof(DA_FIB, pdesize) == 164 &&
              offsetof(DA_FIB, numpde) == 168 && offsetof(DA_FIB, topused) == 172 &&
              offsetof(DA_FIB, botused) == 176 && offsetof(DA_FIB, numstripes) == 180 &&
              offsetof(DA_FIB, stripesize) == 184 && offsetof(DA_FIB, nfreeseg) == 188 &&
              offsetof(DA_FIB, freesegoff) == 192 && offsetof(DA_FIB, creflags) == 196 &&
              offsetof(DA_FIB, namelen) == 200 && offsetof(DA_FIB, spare) == 204 &&
              offsetof(DA_FIB, lockrgn) == 268);

// Partition directory entry; entries grow upward from FIB offset 272, names
// (NUL-terminated) downward from FIB offset pdesize.
struct DA_PDE {
    int32_t length;  // name length, without the NUL
    int32_t offset;  // from the FIB's first byte
};
static_assert(sizeof(DA_PDE) == 8);

constexpr int32_t DA_FIBLEN = 272;          // FIB proper
constexpr int32_t DA_FIBDIRECTLEN = 268;    // what is written of a direct FIB
constexpr int32_t DA_FIBLOCKOFF = 268;      // lock region, 4 bytes
constexpr int32_t DA_FIBVERSION = 0x200;
constexpr int32_t DA_FIBVERSION_OLD = 0x100;
constexpr int32_t DA_FIBMAXREV = 9999;

// ---------------------------------------------------------------- MDF records

constexpr int32_t DA_DSFHEAD_VER = 0x04000003;
constexpr int32_t DA_DSFHEAD_VERC = 0x04010003;  // table carries a constraint
constexpr int32_t DA_XOEODS_VER = 0x04000003;
constexpr int32_t DA_SINODS_VER = 0x04000001;
constexpr int32_t DA_OWNODS_VER = 0x04000001;
constexpr int32_t DA_BACKUPODS_VER = 0x04000001;
constexpr int32_t DA_VARSODS_VER = 0x04000001;
constexpr int32_t DA_IDXODS_VER = 0x04000005;
constexpr int32_t DA_IDXKST_VER = 0x04000001;
constexpr int32_t DA_XCHEAD_VER = 0x04000001;
constexpr int32_t DA_STRPHEAD_VER = 0x04000002;
constexpr int32_t DA_VBHEAD_VER = 0x04000002;
constexpr int32_t DA_DMPHEAD_VER = 0x04000001;
constexpr int32_t DA_DMPDIR_VER = 0x04000001;
constexpr int32_t DA_UTLHEAD_VER = 0x04000002;
constexpr int32_t DA_UTLHEAD1_VER = 0x04000001;
constexpr int32_t DA_CONSTODS_VER = 2;

// Slots of DA_DSFHEAD.links.
enum : int {
    DA_LNKXOE = 0, DA_LNKNAMES = 1, DA_LNKIDX = 2, DA_LNKDPFFIB = 3, DA_LNKDMP = 4,
    DA_LNKSIN = 5, DA_LNKOWN = 6, DA_LNKVBH = 7, DA_LNKXCH = 8, DA_LNKSTRP = 9,
    DA_LNKBACKUP = 10, DA_LNKVARS = 11, DA_LNKCONST = 12, DA_NUMLINKS = 40
};

// Header of the MDF, at its base offset.
struct DA_DSFHEAD {
    DA_ODSHEAD ods;
    int32_t origtime;
    int32_t korver;  // 7
    int32_t flags;   // bit 0: creator never closed it cleanly
    int32_t mdtype;  // 0
    int64_t links[DA_NUMLINKS];
};
static_assert(sizeof(DA_DSFHEAD) == 344);
static_assert(offsetof(DA_DSFHEAD, flags) == 16 && offsetof(DA_DSFHEAD, links) == 24);
constexpr int32_t DA_DSFFLAGOFF = 16;  // the 4 bytes rewritten at a clean close

// Table description.
enum : int32_t { DA_ORGREAD = 0, DA_ORGUPDATE = 1 };
enum : int32_t { DA_SEMDATA = 0, DA_SEMVRTAACL = 1, DA_SEMZCRYPT = 2, DA_SEMXCVBS = 3, DA_SEMXCFBS = 4,
                 DA_SEMMAX = 5 };
// DA_XOEODS.flags
constexpr int32_t DA_XOECOMP = 0x1, DA_XOECRYPT = 0x2, DA_XOEKORPW = 0x4, DA_XOEBACKUP = 0x10,
                  DA_XOECRE20 = 0x20, DA_XOECRE40 = 0x40, DA_XOEALIGN = 0x200, DA_XOEFIXCHR = 0x400,
                  DA_XOEEXPORT = 0x1000, DA_XOEMEMF8 = 0x4000, DA_XOEVSTAT = 0x8000, DA_ADDAVAIL = 0x10000,
                  DA_XOEMINMAX = 0x20000, DA_XOECONST = 0x40000, DA_XOECONSTI = 0x80000;

struct DA_XOEODS {
    DA_ODSHEAD ods;
    int64_t numobs;
    int64_t numdelete;
    int64_t idxsegsize;
    int64_t partsize;
    int64_t partfactor;
    int32_t odsreclen;
    int32_t ioreclen;
    int32_t obslen;
    int32_t blocksize;
    int32_t blockfactor;
    int32_t sysid;
    int32_t nvar;
    int32_t nindexes;
    int32_t ridsize;
    int32_t dsorg;
    char diskcomp[8];
    int32_t semtype;
    char dstype[8];
    char who_created[8];
    char who_modified[8];
    uint8_t pad1[4];
    double credate;
    double moddate;
    char locale[32];
    int32_t encoding_cei;
    int32_t spare4;
    int32_t blockgrow;
    int32_t lang;
    int32_t ltype;
    int32_t flags;
    char ds_version[8];
    char ds_version_comp[8];
    char client_sysname[8];
    char server_sysname[8];
    char korpw[12];
    int16_t label_l;
    char label[256];
    uint8_t pad2[2];
    int64_t id_ctr;
    int64_t id_incr;
    int64_t id_init;
    int32_t id_var0;
    char ds_role[8];
    int32_t transfersize;
    int32_t transferquantum;
    int32_t transferfactor;
    uint8_t spare[116];
    uint8_t pad3[4];
};
static_assert(sizeof(DA_XOEODS) == 672);
static_assert(offsetof(DA_XOEODS, numobs) == 8 && offsetof(DA_XOEODS, partfactor) == 40 &&
              offsetof(DA_XOEODS, odsreclen) == 48 && offsetof(DA_XOEODS, dsorg) == 84 &&
              offsetof(DA_XOEODS, diskcomp) == 88 && offsetof(DA_XOEODS, semtype) == 96 &&
              offsetof(DA_XOEODS, dstype) == 100 && offsetof(DA_XOEODS, who_modified) == 116 &&
              offsetof(DA_XOEODS, credate) == 128 && offsetof(DA_XOEODS, locale) == 144 &&
              offsetof(DA_XOEODS, encoding_cei) == 176 && offsetof(DA_XOEODS, blockgrow) == 184 &&
              offsetof(DA_XOEODS, flags) == 196 && offsetof(DA_XOEODS, ds_version) == 200 &&
              offsetof(DA_XOEODS, server_sysname) == 224 && offsetof(DA_XOEODS, korpw) == 232 &&
              offsetof(DA_XOEODS, label_l) == 244 && offsetof(DA_XOEODS, id_ctr) == 504 &&
              offsetof(DA_XOEODS, id_var0) == 528 && offsetof(DA_XOEODS, ds_role) == 532 &&
              offsetof(DA_XOEODS, transfersize) == 540 && offsetof(DA_XOEODS, transferfactor) == 548 &&
              offsetof(DA_XOEODS, spare) == 552);

struct DA_SORTINFO {
    char collate[8];
    int32_t flags;
    int32_t nvars;
    int32_t nvar0[128];
};
struct DA_SINODS {
    DA_ODSHEAD ods;
    DA_SORTINFO sortinfo;
};
static_assert(sizeof(DA_SINODS) == 536 && offsetof(DA_SINODS, sortinfo) == 8);

struct DA_OWNODS {
    DA_ODSHEAD ods;
    int32_t tokenLen;  // 28
    uint8_t token[28];
};
static_assert(sizeof(DA_OWNODS) == 40 && offsetof(DA_OWNODS, token) == 12);

struct DA_BACKUPINFO {
    int32_t backup_seqno;
    uint8_t pad1[4];
    double backup_date;
    double backup_moddate;
    double backup_fulldate;
    int32_t verbackup_seqno;
    uint8_t spare[64];
    uint8_t pad2[4];
};
static_assert(sizeof(DA_BACKUPINFO) == 104);
struct DA_BACKUPODS {
    DA_ODSHEAD ods;
    DA_BACKUPINFO binfo;
};
static_assert(sizeof(DA_BACKUPODS) == 112 && offsetof(DA_BACKUPODS, binfo) == 8);

// One column on disk; the name vector is nvar of these with no head.
constexpr int32_t DA_NAMFIXFORM = 0x800, DA_NAMKEEPMM = 0x1000, DA_NAMHASMM = 0x2000;
struct DA_NAME7ODS {
    int32_t npos;
    int32_t npos2;
    int32_t nipos;
    int32_t nvar0;
    int32_t nlng;
    int32_t nlng2;
    uint32_t nprec;
    int32_t flags;
    int32_t namepid;
    int32_t labelpid;
    int32_t nformpid;
    int32_t niformpid;
    int16_t name_l;
    int16_t label_l;
    int16_t nform_l;
    int16_t niform_l;
    int16_t nfl;
    int16_t nfd;
    int16_t nifl;
    int16_t nifd;
    int16_t nscale;
    uint16_t ntattr;
    int8_t type;  // 1 numeric, 2 character
    int8_t subtype;
    int8_t sort;
    int8_t justify;
    int8_t ntype2;
    uint8_t pad[3];
};
static_assert(sizeof(DA_NAME7ODS) == 76);
static_assert(offsetof(DA_NAME7ODS, flags) == 28 && offsetof(DA_NAME7ODS, namepid) == 32 &&
              offsetof(DA_NAME7ODS, name_l) == 48 && offsetof(DA_NAME7ODS, nscale) == 64 &&
              offsetof(DA_NAME7ODS, ntattr) == 66 && offsetof(DA_NAME7ODS, type) == 68 &&
              offsetof(DA_NAME7ODS, ntype2) == 72);

struct DA_VARSTAT {
    int32_t flags;     // 1: a statistics slot exists
    int32_t vstatpid;  // -1 when none
    int16_t vstat_l;
    uint8_t pad[2];
};
static_assert(sizeof(DA_VARSTAT) == 12);
// Variable-length: nvar entries; length is 12 x nvar + 8.
struct DA_VARSODS {
    DA_ODSHEAD ods;
    DA_VARSTAT vstat[1];
};
static_assert(sizeof(DA_VARSODS) == 20);
constexpr int32_t davarslen(int32_t nvar) { return 12 * nvar + 8; }

// String pool head; numoffsets section offsets follow the fixed part.
struct DA_STRPHEAD {
    DA_ODSHEAD ods;
    int32_t odssize;     // 4112
    int32_t sectsize;    // 4096
    int32_t numsects;
    int32_t numoffsets;  // 8 at first, doubled when full
    uint8_t spare[32];
    // int64_t offsets[numoffsets] follow
};
static_assert(sizeof(DA_STRPHEAD) == 56);
constexpr int32_t dastrphlen(int32_t numoffsets) { return 56 + 8 * numoffsets; }
constexpr int32_t DA_STRPODSSIZE = 4112, DA_STRPSECTSIZE = 4096;

struct DA_STRP {
    int32_t freeSpace;
    int32_t freeOffset;
    int32_t flags;  // 2 fresh, 1 dirty in memory
    uint8_t pool[DA_STRPSECTSIZE];
    uint8_t pad[4];
};
static_assert(sizeof(DA_STRP) == DA_STRPODSSIZE && offsetof(DA_STRP, pool) == 12);
struct DA_STRPHOLE {
    int32_t nextHole;  // -1 ends
    int32_t hsize;
};
static_assert(sizeof(DA_STRPHOLE) == 8);

// Index record, one per index, chained by nextOff. DA_IDXKST stands at
// valueOff (304) and the variable numbers at nvar0Off behind it.
enum : int32_t { DA_IDXCLEAN = 0, DA_IDXDIRTY = 1, DA_IDXIGNORE = 2 };
constexpr int32_t DA_KEYHASIDX = 0x40, DA_KEYHASAUX = 0x20, DA_KEYHASHBX = 0x200;
struct DA_IDXKST {
    DA_ODSHEAD ods;
    int64_t numvals;
    int64_t nummiss;
    uint8_t minmax[8];  // 2 x key length in the record: minimum then maximum
};
static_assert(sizeof(DA_IDXKST) == 32 && offsetof(DA_IDXKST, minmax) == 24);
constexpr int32_t daidxkstlen(int32_t keylen) { return 2 * keylen + 32; }

struct DA_IDXODS {
    DA_ODSHEAD ods;
    int64_t nextOff;
    int64_t idxFibOff;
    int64_t idxFilesize;
    int64_t auxFibOff;
    int64_t auxFilesize;
    int64_t valueOff;
    int64_t nvar0Off;
    int64_t highobs;
    char cutname[8];  // not used by current code
    int32_t length;   // key length
    int32_t type;
    int32_t keyFlags;
    int32_t nvar;
    int32_t var;
    int32_t finstat;
    int32_t idxState;
    int32_t auxState;
    int32_t hybState;
    uint8_t pad1[4];
    int64_t hybFibOff;
    int64_t hybFilesize;
    uint8_t spare[92];
    uint8_t pad2[4];
    int16_t name_l;
    char name[32];
    uint8_t spare7[32];
    uint8_t pad3[6];
    // DA_IDXKST, then nvar x int32 variable numbers
};
static_assert(sizeof(DA_IDXODS) == 304);
static_assert(offsetof(DA_IDXODS, length) == 80 && offsetof(DA_IDXODS, idxState) == 104 &&
              offsetof(DA_IDXODS, hybState) == 112 && offsetof(DA_IDXODS, hybFibOff) == 120 &&
              offsetof(DA_IDXODS, spare) == 136 && offsetof(DA_IDXODS, name_l) == 232 &&
              offsetof(DA_IDXODS, spare7) == 266);
constexpr int32_t daidxnvoff(int32_t keylen) { return 304 + ((daidxkstlen(keylen) + 3) & ~3); }
constexpr int32_t daidxlen(int32_t keylen, int32_t nvar) { return daidxnvoff(keylen) + 4 * nvar; }

// Delete map.
struct DA_DMPHEAD {
    DA_ODSHEAD ods;
    int32_t numdmpdir;
    int32_t numbmap;
    int32_t bmapsize;
    uint8_t pad[4];
    int64_t dmpdirOff;
    uint8_t spare[128];
};
static_assert(sizeof(DA_DMPHEAD) == 160 && offsetof(DA_DMPHEAD, dmpdirOff) == 24);
struct DA_DMPENT {
    int64_t bitmapOff;  // -1 unused
    int64_t baseObs;    // first row of the segment, 0 unused
};
constexpr int32_t DA_DMPNENT = 64;
struct DA_DMPDIR {
    DA_ODSHEAD ods;
    int64_t nextOff;
    int32_t nument;
    int32_t numalloc;  // 64
    DA_DMPENT ents[DA_DMPNENT];
};
static_assert(sizeof(DA_DMPDIR) == 1048 && offsetof(DA_DMPDIR, ents) == 24);

// Compressed tables.
enum : int32_t { DA_VBVSHORT = 0, DA_VBVINT32 = 1 };
struct DA_VBVSTAT {
    int32_t numoverflow;
    int32_t maxchain;
    int32_t maxchainvbn;
    int32_t minovflsize;  // starts at 0x7fffffff
    int32_t maxovflsize;
};
static_assert(sizeof(DA_VBVSTAT) == 20);
struct DA_VBHEAD {
    DA_ODSHEAD ods;
    int64_t rootOffset;
    int32_t vbvecsize;
    int32_t vbvtype;
    int32_t numlevels;
    DA_VBVSTAT stat;
    int64_t lastOffset;
    int32_t vbvspan;  // a first-layout record (revision < 2) means 2048
    uint8_t spare[116];
};
static_assert(sizeof(DA_VBHEAD) == 176 && offsetof(DA_VBHEAD, stat) == 28 &&
              offsetof(DA_VBHEAD, lastOffset) == 48 && offsetof(DA_VBHEAD, vbvspan) == 56);
constexpr int32_t DA_VBDIRN = 1024;
struct DA_VBDIR {
    int32_t level;
    int32_t nused;
    int64_t offsets[DA_VBDIRN];  // -1 unused
};
static_assert(sizeof(DA_VBDIR) == 8200);

struct DA_XCHEAD {
    DA_ODSHEAD ods;
    int32_t baglen;
    uint8_t bagbuf[1024];
};
static_assert(sizeof(DA_XCHEAD) == 1036);

struct DA_CONSTID {
    int32_t constpid;
    int32_t const_l;
    int32_t numpids;
    int32_t nextid[256];
    int32_t nextlen[256];
};
struct DA_CONSTODS {
    DA_ODSHEAD ods;  // plain version 2
    DA_CONSTID cid;
};
static_assert(sizeof(DA_CONSTODS) == 2068 && offsetof(DA_CONSTODS, cid) == 8);

// Head of a utility (non-DATA) member, at its base offset.
struct DA_UTLHEAD2 {
    DA_ODSHEAD ods;
    int32_t flags;
    int32_t tokenLen;
    uint8_t owner_token[28];
    uint8_t spare[112];
};
static_assert(sizeof(DA_UTLHEAD2) == 156 && offsetof(DA_UTLHEAD2, owner_token) == 16);
using DA_UTLHEAD = DA_UTLHEAD2;
struct DA_UTLHEAD1 {
    DA_ODSHEAD ods;
    uint8_t owner_token[16];
    int32_t flags;
    uint8_t spare[128];
};
static_assert(sizeof(DA_UTLHEAD1) == 156 && offsetof(DA_UTLHEAD1, flags) == 24);

#pragma pack(pop)

// In-memory column descriptor: the disk fields plus what the string pool
// resolves for them. Not a disk record.
struct DA_NAMESTR : DA_NAME7ODS {
    char* name;
    char* label;
    char* nform;
    char* niform;
    void* minptr;
    void* maxptr;
    int32_t minmaxpid;
};

// ---------------------------------------------------------------- reading and writing

// Where records are read from and written to: a logical file of the file
// layer, or a plain descriptor (tools, tests). read sets *nread and returns 0,
// 518 at or past the end, or an error; write appends when *off < 0 and sets
// *off to where the data went.
struct DA_ODSIO {
    rctype (*read)(void* ctx, void* buf, long size, da_off_t offset, long* nread) __attribute__((warn_unused_result));
    rctype (*write)(void* ctx, const void* buf, long size, da_off_t* off) __attribute__((warn_unused_result));
    void* ctx;
    const char* name;  // file name for diagnostics
};

// A DA_ODSIO over a physical file descriptor, addressed by physical offset.
DA_ODSIO daodspfd(int* fd, const char* name);
// A DA_ODSIO over a logical file of the file layer (sda/dafd.h).
struct DA_FD;
DA_ODSIO daodsfd(DA_FD* fd, const char* name = nullptr);

// Reads the record at offset into strptr (size bytes). A record shorter than
// size leaves the tail of strptr as it was; a longer one gives 0x8000022f.
[[nodiscard]] rctype dardods(const DA_ODSIO& io, void* strptr, int size, da_off_t offset);
// Writes ods.length bytes at *off (append when < 0); *off gets the offset.
[[nodiscard]] rctype dawrods(const DA_ODSIO& io, const void* strptr, da_off_t* off);

// The same on a logical file: what the table life cycle calls.
[[nodiscard]] rctype dardods(DA_FD* fd, void* strptr, int size, da_off_t offset);
[[nodiscard]] rctype dawrods(DA_FD* fd, const void* strptr, da_off_t* off);

// Typed readers: dardods plus the version test (and the record's own checks).
[[nodiscard]] rctype dardsfh(const DA_ODSIO& io, DA_DSFHEAD* h, da_off_t offset);
[[nodiscard]] rctype dardxoe(const DA_ODSIO& io, DA_XOEODS* xoe, da_off_t offset);
[[nodiscard]] rctype dawrxoe(const DA_ODSIO& io, const DA_XOEODS* xoe, da_off_t offset);
[[nodiscard]] rctype dardxoe(DA_FD* fd, DA_XOEODS* xoe, da_off_t offset);
[[nodiscard]] rctype dawrxoe(DA_FD* fd, const DA_XOEODS* xoe, da_off_t offset);
// Rewrites only the 4 flag bytes of the header at hdroff (a clean close
// clears bit 0 this way, leaving the links alone).
[[nodiscard]] rctype dawrdsfflags(const DA_ODSIO& io, da_off_t hdroff, int32_t flags);
[[nodiscard]] rctype dardsin(const DA_ODSIO& io, DA_SINODS* r, da_off_t offset);
[[nodiscard]] rctype dardown(const DA_ODSIO& io, DA_OWNODS* r, da_off_t offset);
[[nodiscard]] rctype dardbkup(const DA_ODSIO& io, DA_BACKUPODS* r, da_off_t offset);
[[nodiscard]] rctype dardxch(const DA_ODSIO& io, DA_XCHEAD* r, da_off_t offset);
[[nodiscard]] rctype dardvbh(const DA_ODSIO& io, DA_VBHEAD* r, da_off_t offset);
[[nodiscard]] rctype darddmph(const DA_ODSIO& io, DA_DMPHEAD* r, da_off_t offset);
[[nodiscard]] rctype darddmpd(const DA_ODSIO& io, DA_DMPDIR* r, da_off_t offset);
[[nodiscard]] rctype dardcons(const DA_ODSIO& io, DA_CONSTODS* r, da_off_t offset);
// size is the buffer; the record must hold nvar entries.
[[nodiscard]] rctype dardvars(const DA_ODSIO& io, DA_VARSODS* r, int size, int32_t nvar, da_off_t offset);
// size is the buffer; offsets must fit the record.
[[nodiscard]] rctype dardstrph(const DA_ODSIO& io, DA_STRPHEAD* r, int size, da_off_t offset);
// size is the buffer; DA_IDXKST and the variable numbers must fit the record.
[[nodiscard]] rctype dardidx(const DA_ODSIO& io, DA_IDXODS* r, int size, da_off_t offset);
// A first-layout head (DA_UTLHEAD1) is turned into the current one.
[[nodiscard]] rctype dardutlh(const DA_ODSIO& io, DA_UTLHEAD2* r, da_off_t offset);
// The name vector: nvar records of 76 bytes, no head.
[[nodiscard]] rctype dardnam7(const DA_ODSIO& io, DA_NAME7ODS* v, int32_t nvar, da_off_t offset);

// Column numbers are 1-based wherever a record carries them. dachknvar0 is
// 0 when each of the n numbers lies in 1..nvar; dachknam7 when the i-th entry
// of a name vector is column i + 1. Otherwise the damaged-file code.
[[nodiscard]] rctype dachknvar0(const int32_t* nvar0, int32_t n, int32_t nvar);
[[nodiscard]] rctype dachknam7(const DA_NAME7ODS* v, int32_t nvar);

// Accessors of variable-length records.
inline int64_t* dastrpoffs(DA_STRPHEAD* h) { return reinterpret_cast<int64_t*>(reinterpret_cast<char*>(h) + sizeof(DA_STRPHEAD)); }
inline DA_IDXKST* daidxkst(DA_IDXODS* r) { return reinterpret_cast<DA_IDXKST*>(reinterpret_cast<char*>(r) + r->valueOff); }
inline int32_t* daidxnvar0(DA_IDXODS* r) { return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(r) + r->nvar0Off); }

// Records as create writes them: version, length and the documented defaults.
void dainitdsfh(DA_DSFHEAD* h);
void dainitxoe(DA_XOEODS* x);
void dainitsin(DA_SINODS* s);
void dainitown(DA_OWNODS* o);
void dainitbkup(DA_BACKUPODS* b);
void dainitvbh(DA_VBHEAD* v);
void dainitdmph(DA_DMPHEAD* d, int64_t idxsegsize);
void dainitdmpd(DA_DMPDIR* d);
void dainitxch(DA_XCHEAD* x);
void dainitcons(DA_CONSTODS* c);
void dainitutlh(DA_UTLHEAD2* u);
void dainitstrph(DA_STRPHEAD* h, int32_t numoffsets);  // buffer of dastrphlen(numoffsets)
// buffer of daidxlen(keylen, nvar), zeroed first
void dainitidx(DA_IDXODS* r, int32_t keylen, int32_t nvar);

// ---------------------------------------------------------------- FIB

// Fresh FIB for an allocation of fibsize bytes (fib points at all of them).
void dainitfib(DA_FIB* fib, int32_t fibsize, int32_t creflags, int32_t namelen, const uint8_t* rv120,
               int32_t revision, int32_t now);
// Version test of a FIB read from a file with FD flags fdflags.
[[nodiscard]] rctype dachkfib(const DA_FIB* fib, int fdflags);
// Sizes in a FIB head that a reader can go by: a length of at most 272
// (else 0x8000022f) and a directory allocation from 272 bytes to 16 MB with
// room for its entries (else 0x80000216).
[[nodiscard]] rctype dachkfibsize(const DA_FIB* fib);
// Consistency of the directory of a FIB whose allocation is fibsize bytes.
[[nodiscard]] rctype dachkpde(const DA_FIB* fib, int32_t fibsize);

// Direct FIB at physical offset 0: 268 bytes, then the directory. A buffer
// too small for the allocation gives 0x8000022f with *fibsize set.
[[nodiscard]] rctype dardfibd(const DA_ODSIO& io, int fdflags, DA_FIB* buf, int32_t bufsize, int32_t* fibsize);
[[nodiscard]] rctype dawrfibd(const DA_ODSIO& io, const DA_FIB* fib);
// Indirect FIB, a record of the MDF: follows overflow to the newest copy,
// whose offset goes to *atoff.
[[nodiscard]] rctype dardfib(const DA_ODSIO& io, int fdflags, da_off_t fiboff, DA_FIB* buf, int32_t bufsize,
               int32_t* fibsize, da_off_t* atoff);
[[nodiscard]] rctype dawrfib(const DA_ODSIO& io, const DA_FIB* fib, da_off_t* fiboff);

// Directory entries. dapdeadd gives the new index or 0x8000021e when full.
[[nodiscard]] rctype dapdeadd(DA_FIB* fib, const char* name, int32_t len);
[[nodiscard]] rctype dapdenam(const DA_FIB* fib, int32_t pno, const char** name, int32_t* len);
// Full path of entry pno; a name without "/" lies in the first metapath.
[[nodiscard]] rctype dapdefn(const DA_FIB* fib, int32_t pno, const char* mdpath, int32_t mdlen, char* out, int32_t outsize);
// The name to store for a partition: without its directory when that is
// the first metapath. Points into path.
void darelpn(const char* mdpath, int32_t mdlen, const char* path, int32_t len, const char** rel, int32_t* rellen);

// FIB allocation for a new file: creflags, whether it has an MDF, its paths
// and the first metapath, the FIBSIZE option (0 unset) and the page size.
int32_t dagetfibsize(int creflags, bool hasmdf, int numpath, const char* const* paths, const char* mdpath,
                     int32_t namelen, int32_t optfibsize, long pagesize);
// The revision after rev: 1..9999, never 0.
constexpr int32_t danextrev(int32_t rev) { return (rev + 1) % 10000 == 0 ? 1 : (rev + 1) % 10000; }

// ---------------------------------------------------------------- walking an MDF

// What damdfwalk hands to its visitor.
enum da_mdfrec_t : int {
    DA_MRFIB, DA_MRDSFH, DA_MRXOE, DA_MRSIN, DA_MROWN, DA_MRBACKUP, DA_MRVBH, DA_MRXCH, DA_MRSTRPH,
    DA_MRVARS, DA_MRNAMES, DA_MRIDX, DA_MRIDXFIB, DA_MRAUXFIB, DA_MRHBXFIB, DA_MRDPFFIB, DA_MRDMPH,
    DA_MRDMPD, DA_MRCONST, DA_MRSTRP, DA_MRCOUNT
};
const char* damrname(int kind);

// Called for each record in file order of the links; a non-zero return stops
// the walk with that code. rec holds len bytes (for DA_MRNAMES, nvar x 76;
// DA_MRSTRP, one string pool section, comes right after its head).
// Every string pool id of the names must fall inside a section.
typedef rctype (*da_mdfvisit_t)(void* ctx, int kind, da_off_t off, const void* rec, int len) __attribute__((warn_unused_result));

// Reads every record of an MDF: the direct FIB at offset 0, the header at the
// base offset and everything its links reach. On failure *failkind and
// *failoff tell which record could not be read.
[[nodiscard]] rctype damdfwalk(const DA_ODSIO& io, int fdflags, da_mdfvisit_t visit, void* ctx, int* failkind,
                 da_off_t* failoff);

}  // namespace vrta

// The direct access API's own records: the open-table handle SP_FID and the
// state SP_IOB kept behind every cursor, plus the transcoding of character
// columns between a table's encoding and its client's.
#pragma once
#include <cstdint>

#include "hs/hsnls.h"
#include "sda/da.h"
#include "sda/daiocb.h"
#include "sda/dafid.h"
#include "ssup/vrtadef.h"
#include "vrta/directapi.h"

namespace vrta {

constexpr rctype SP_NOMEM = static_cast<rctype>(0x80000407u);
constexpr rctype SP_NOMEM2 = static_cast<rctype>(0x80000408u);
constexpr rctype SP_WRAPPED = static_cast<rctype>(0x80010005u);
constexpr rctype SP_BADVAR = static_cast<rctype>(0x8001000eu);
constexpr rctype SP_TRANSCODE = static_cast<rctype>(0x80000417u);

// SP_FID.oflags
constexpr int SP_OTRANSCODE = 1;
constexpr int SP_ODYNAMIC = 2;
// SP_FID.tpflags
constexpr int SP_TPIN = 1;      // transcode rows read
constexpr int SP_TPOUT = 2;     // transcode rows written
constexpr int SP_TPCLENV = 4;   // clenv is ours to release

struct SP_FID {
    DA_LIB* dalib;
    DA_FID* dafid;
    DA_LOCK* dalid;          // dynamic member lock, when opened shared
    u_sname dsname;
    int opnmode;
    int oflags;
    HS_NLSENV* clenv;        // the client's environment
    HS_NLSENV* tblenv;       // the table's, made here since the table keeps none
    NLS_PIPE* itph;          // table to client
    NLS_PIPE* otph;          // client to table
    int32_t* tpnvar0;        // columns to transcode, by place in the opener's columns from 1
    int ntrans;              // how many
    int32_t datacei;
    int32_t clientcei;
    int topts;
    int tpflags;
    unsigned nitptrunc, nitpmap, notptrunc, notpmap;
    char* tpbuf;             // scratch of the longest column's result
    long tpbuflen;
};

// SP_IOB.flags
constexpr int SP_IOREAD = 1;
constexpr int SP_IOWRITE = 2;
constexpr int SP_IOBLOCK = 4;   // whole blocks read into blockbuf, rows dealt out

struct SP_IOB {
    DA_IOB daiob;            // the cursor's one buffer; must stay first
    SP_FID* spfid;
    long obsperbuf;          // rows of the caller's view
    hs_obsno_t blockobs;     // first row in the block buffer
    hs_obsno_t obsnum;       // next row of the caller's view
    long numobs;             // rows left in the block buffer
    int flags;
    rctype delayedrc;        // reported by the next read
    DA_IOCB* iocb;
    long setbufsize;         // what setbuf was told
    long bufrows;            // rows the block buffer holds in all
    char* blockbuf;          // block mode's own buffer
    hs_obsno_t* obsvecmem;   // row numbers when the table has deleted rows
};

// Files "Member=<name> Reason=<text>" as the code's substitution and returns SP_WRAPPED.
[[nodiscard]] rctype spmkerr(const char* mem, int memlen, rctype rc);
// The same with a reason of the caller's own.
[[nodiscard]] rctype spmkerrtext(const char* mem, int memlen, const char* reason);
// The last text filed by spmkerr in this thread.
const char* splasterr();

// vrtacreate.
[[nodiscard]] rctype spcreate(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, void** newfid);
// The same with the columns given whole (formats, flags, sort bytes, places
// in the row); cr->ncols and cr->cols are not looked at. defvars numbers the
// columns in vars.
[[nodiscard]] rctype spcreatev(void* vlib, const char* dsname, int dsnamelen, const VRTACREATE* cr, int nvars, DA_NAMESTR* vars,
                 void** newfid);

// A table opened at the storage layer in mode (DA_OMINPUT, DA_OMUTIL ..),
// the member lock taken by the open; closed by its closefid.
[[nodiscard]] rctype spdaopen(void* vlib, const char* dsname, int dsnamelen, int mode, const char* ekey, DA_FID** fp);

// Transcoding.
[[nodiscard]] rctype spnlsinit(SP_FID* spfid);
[[nodiscard]] rctype spnlsterm(SP_FID* spfid);
// Rows of obsbuf, in place; *numtrans the rows done before a failure.
[[nodiscard]] rctype spitptrans(SP_FID* spfid, char* obsbuf, long numobs, long* numtrans);
[[nodiscard]] rctype spotptrans(SP_FID* spfid, char* obsbuf, long numobs, long* numtrans);

inline SP_FID* spfidof(void* v) { return static_cast<SP_FID*>(v); }
inline SP_IOB* spiobof(DA_IOCB* iocb) { return reinterpret_cast<SP_IOB*>(iocb->iobvec); }

}  // namespace vrta

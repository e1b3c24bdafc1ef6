// The function and format library as the WHERE evaluator and the group-by
// key builder see it: lookup by name (xfname, find_fnc), calls by code
// (xfxfn) and formatting by code (xffmt, xfxpn, xfxpc).
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

// A character value: maxlen bytes of room at data, curlen of them in use.
struct X_STRING {
    short maxlen;
    short curlen;
    char* data;
};

// The encodings a call works in (HS_NLSENV pointers, or null for plain
// single-byte data).
struct XF_ENV {
    void* dataenv;
    void* targenv;
};
using xf_env_t = XF_ENV;

// Kinds of an argument (FNCARG type).
constexpr char XF_NUM = 1;
constexpr char XF_STR = 2;
// FNCARG flags: the argument is an array's bounds (see DIM).
constexpr char XF_ARG_BOUNDS = 0x01;

union FNCLOC {
    double* dp;     // a number: its 8 bytes
    X_STRING* xs;   // a string
    void* p;
    long n;         // par[0]: the argument count
};

struct FNCARG {
    char type;      // XF_NUM or XF_STR
    char flags;
    FNCLOC loc;
};

// What a function keeps between calls through the same block.
union FNCSTATEU {
    long seed;      // RANUNI: the generator's last value
    void* p;        // LAG, DIF: their queue (freed by xfpfree)
    double d;
};
struct FNCSTATE {
    int fflags;
    FNCSTATEU u;
};

// The block a function reads: par[0] holds the argument count, par[1] to
// par[n] the arguments.
struct FNCPAR {
    char access;
    xf_env_t* xfenv;
    FNCSTATE fstate;
    FNCARG par[1];
};
// Bytes of a block with room for n arguments.
constexpr long xfparsize(long n) { return static_cast<long>(sizeof(FNCPAR) + n * sizeof(FNCARG)); }
// Frees what a function keeps in the block's state (LAG and DIF queues) and
// clears the state; the block itself stays the caller's.
void xfpfree(FNCPAR* p);

using fncent_t = void (*)();

// A row of fnc_table. name, input and result are blank padded.
struct FNCTBL_ENT {
    char name[9];
    fncent_t entpt;
    int min;
    int max;           // 0: no limit
    char input[9];     // r number, c character, b either, n none, R internal
    char result[9];    // r, c, b, or blank for an internal function
    long fdesc;
    long fargi;
};

constexpr int FNC_NROWS = 161;  // the last row, with a blank name, ends the table
extern const FNCTBL_ENT fnc_table[FNC_NROWS];

// fdesc bits.
constexpr long XF_D_INTERNAL = 0x0001;  // a helper of a call routine, no result
constexpr long XF_D_STRING = 0x0002;    // the result is a string
constexpr long XF_D_NOWHERE = 0x0004;   // refused in WHERE
constexpr long XF_D_LEN200 = 0x0008;    // with 0x0002: result length 200
constexpr long XF_D_LENARG = 0x0010;    // with 0x0002 and not 0x0008: the first argument's length
constexpr long XF_D_LEN1 = 0x0080;      // result length 1
constexpr long XF_D_LEN20 = 0x0100;     // result length 20
constexpr long XF_D_STATE = 0x0400;     // keeps state in fstate between calls
constexpr long XF_D_PLAIN = 0x0800;     // one number in, one number out
constexpr long XF_D_FIRSTARG = 0x1000;  // gets the first argument in place of the block
constexpr long XF_D_VARREF = 0x2000;    // works on the variable, not only its value
constexpr long XF_D_NLS = 0x4000;       // depends on the data's encoding

// What a function lookup gives.
struct FNCSTR {
    short fpack;    // 0: the built-in table
    short fnum;     // row index in fnc_table
    short fmin;
    short fmax;
    char fprod;     // 0: the built-in table
    long fdesc;
    long fargi;
};

// Codes of functions: row index + 1, OR this.
constexpr long XF_CODE_FUNC = 0x20000000;

// Codes of this layer.
constexpr rctype XF_RC_FEWARGS = static_cast<rctype>(0x80040090u);   // too few arguments
constexpr rctype XF_RC_MANYARGS = static_cast<rctype>(0x80040091u);  // too many arguments
constexpr rctype XF_RC_WANTSTR = static_cast<rctype>(0x80040092u);   // a string is wanted
constexpr rctype XF_RC_WANTNUM = static_cast<rctype>(0x80040093u);   // a number is wanted
constexpr rctype XF_RC_NOMEM = static_cast<rctype>(0x80040001u);     // no storage
constexpr rctype XF_RC_BADCALL = static_cast<rctype>(0x80060001u);   // a null or malformed block
constexpr rctype XF_RC_FMTNA = static_cast<rctype>(0x80060002u);     // format not available
constexpr rctype XF_RC_FMTCODE = static_cast<rctype>(0x80060003u);   // unrecognised format code
constexpr rctype XF_RC_FMTWIDTH = static_cast<rctype>(0x80060004u);  // width or decimals out of range

// The block of this layer, VVGCB slot 9.
struct XFGCB {
    char eye[4];        // "XFGB"
};
void* xfinit();
void xfterm(void* gcb);

// Looks a function up by name (len under 9), or checks a code given in *code
// (name null or len 9 or more). 0 found, with *attr filled and *code set; 1
// not found.
[[nodiscard]] rctype find_fnc(const char* name, int len, int kind, FNCSTR* attr, long* code);
// fmttype 'F' or 'I': a format or informat (fattrptr is an FMTSTR*); 'U' or
// 'B': a function (fattrptr is an FNCSTR*). 0 found, 1 not found.
[[nodiscard]] rctype xfname(const char* fmtnamex, int fmtlen, int fmttype, void* fattrptr, long* fmtcode);
// Checks argument kinds against fargi as the WHERE checker does: 3 bits an
// argument from the low end, 1 wants a number and 2 a string, the last group
// standing for all further ones. types[i] is XF_NUM or XF_STR. 0, or
// XF_RC_WANTNUM / XF_RC_WANTSTR with *badarg the 1-based argument.
[[nodiscard]] rctype xfchkargi(long fargi, int nargs, const char* types, int* badarg);
// Calls function code with block p; r is a double or an X_STRING. -1 for a
// zero code, a code that is not a function's, or a row with no entry.
int xfxfn(long fmtcode, FNCPAR* p, void* r);

// Formats and informats.
struct FMTSTR {
    char fmttype;   // 'F' format, 'I' informat
    char chr;       // 1: character ("$") kind
    short defw;     // default width
    short minw;
    short maxw;
    short defd;     // default decimals
    short maxd;
    short avail;    // 0: the row is known but not available
};
// status 0, 2 (shown with less precision than asked), 1 (does not fit; the
// field is filled with '*'), or a failure code.
int xffmt(xf_env_t* xfenv, const void* value, int inw, int width, int ndec, void* destptr, int destlen,
          long code);
// A number into fw bytes at outvalptr; never fails for a value that does not
// fit (the field is starred), only for a bad code or an unavailable format.
int xfxpn(xf_env_t* xfenv, double inval, int fw, int ndec, long code, char* outvalptr);
// fw bytes of text through a character format into outlen bytes.
int xfxpc(xf_env_t* xfenv, const char* inptr, int fw, long code, char* outvalptr, int outlen);

}  // namespace vrta

// The format table: formats and informats by name, and the routines that
// apply them. Codes 1 to 5 and 99 name built-in kinds; every other row's
// code is 100 plus its index. Codes with the high bit set would name user
// catalogue formats.
#pragma once
#include "sfnc/xf.h"

namespace vrta {

struct FMTTBL_ENT;
// A numeric format writes exactly w bytes at out: 0, 2 (less precision than
// asked) or 1 (does not fit; the caller stars the field).
using numfmt_t = int (*)(const FMTTBL_ENT* e, double v, int w, int d, char* out);
// A character format writes exactly w bytes from inlen bytes of text.
using chrfmt_t = int (*)(const FMTTBL_ENT* e, const char* in, int inlen, int w, char* out);
// A numeric informat reads len bytes: 0, or 1 when the text is not a value
// of the informat (the missing value is stored).
using numinf_t = int (*)(const FMTTBL_ENT* e, const char* in, int len, int d, double* out);
// A character informat writes exactly w bytes.
using chrinf_t = int (*)(const FMTTBL_ENT* e, const char* in, int len, int w, char* out);

using fmtent_t = void (*)();

struct FMTTBL_ENT {
    char name[9];      // blank padded to 8, a leading "$" for a character kind
    char fmttype;      // 'F' format, 'I' informat
    char chr;          // 1: character
    short kind;        // the code of the row
    short defw, minw, maxw, defd, maxd;
    int arg;           // a detail of the routine (a separator, a variant)
    fmtent_t entpt;    // null: known but not available
};

constexpr int FMT_NROWS = 110;
extern const FMTTBL_ENT fmt_table[FMT_NROWS];

// Built-in kinds.
constexpr long FMT_KIND_F = 1;       // w.d
constexpr long FMT_KIND_CHAR = 2;    // $w.
constexpr long FMT_KIND_BEST = 3;    // BESTw.
constexpr long FMT_KIND_INF = 4;     // w.d informat
constexpr long FMT_KIND_INCHAR = 5;  // $w. informat
constexpr long FMT_KIND_HEX = 99;    // $HEXw.

// The row of a code, or null.
const FMTTBL_ENT* fmtrow(long code);
// Looks a format (fmttype 'F') or informat ('I') up in fmt_table: 0 found,
// with *attr and *code set; 1 not found. An empty name is "F".
[[nodiscard]] rctype fmtfind(const char* name, int len, char fmttype, FMTSTR* attr, long* code);
// The same in the user format catalogue, under the layer's lock.
[[nodiscard]] rctype fmtuser(const char* name, int len, char fmttype, FMTSTR* attr, long* code);

}  // namespace vrta

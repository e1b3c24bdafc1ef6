// The process option table: lookup and update by name.
//
// The table is one contiguous image with no pointers inside, so that its owner
// may place it in shared memory: a head of OPTITEMs sorted by name, then the
// character values, each reached by its offset from the table's start.
#pragma once
#include <cstddef>
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

constexpr int OPT_NITEMS = 88;
constexpr int OPT_NAMELEN = 16;

// Item flags. The four type bits are exclusive, and so are OPF_PARM and
// OPF_SERVER: an item with neither has no value.
constexpr uint32_t OPF_BINARY = 0x1;
constexpr uint32_t OPF_INTEGER = 0x2;
constexpr uint32_t OPF_DOUBLE = 0x4;
constexpr uint32_t OPF_CHAR = 0x8;
constexpr uint32_t OPF_TYPEMASK = 0xf;
constexpr uint32_t OPF_PARM = 0x10000;      // set by a user
constexpr uint32_t OPF_DOC = 0x20000;       // documented
constexpr uint32_t OPF_SERVER = 0x40000;    // set by the server, defaults included
constexpr uint32_t OPF_OBSOLETE = 0x80000;
constexpr uint32_t OPF_SETMASK = OPF_PARM | OPF_SERVER;

// Result codes of the option calls.
constexpr int OP_NOTFOUND = -1;   // no such option, or the NO form of a non-binary
constexpr int OP_NOVALUE = -2;    // the option has no value
constexpr int OP_RANGE = -3;      // value out of range
constexpr int OP_NOMEM = -4;      // no memory for a listing
constexpr int OP_BADINT = -6;     // bad integer (also a failed conversion of a double)
constexpr int OP_BADDBL = -7;     // bad double
constexpr int OP_TOOBIG = -8;     // number too large
constexpr int OP_TOOLONG = -11;   // character value too long
constexpr int OP_BADTABLE = -12;  // table out of order or not initialised
constexpr int OP_NOTABLE = -24;   // null table

struct INTDESC {
    int32_t ival;  // the value, also of a binary option
    int32_t imax;
};
struct DOUBLEDESC {
    double dval;
    double dmax;
};
struct CHARDESC {
    int32_t offset;  // of the value, from the table's start
    int32_t curlen;
    int32_t maxlen;
    int32_t needed_filler;
};
union OPINFO {
    INTDESC idesc;
    DOUBLEDESC ddesc;
    CHARDESC cdesc;
};

struct OPTITEM {
    char name[OPT_NAMELEN];  // zero padded
    uint32_t flags;
    uint32_t pad;            // the union is double aligned
    OPINFO opinfo;
};
static_assert(sizeof(OPINFO) == 16);
static_assert(sizeof(OPTITEM) == 40);
static_assert(offsetof(OPTITEM, flags) == 16);
static_assert(offsetof(OPTITEM, opinfo) == 24);

struct OPTS {
    int32_t opcount;
    int32_t pad;
    OPTITEM optitem[OPT_NITEMS];
};
static_assert(sizeof(OPTS) == 3528);
static_assert(offsetof(OPTS, optitem) == 8);

// The process's table. opgtgbl is null until a table is stored.
void* opgtgbl();
void opstgbl(void* tableptr);
// Builds the module's own table (malloc'ed, defaults set) when none is stored
// yet, and stores it; returns the table in use, or null if it cannot be built.
void* opinitgbl();
// A private malloc'ed copy of the stored table, stored in its place; null when
// there is no table or no memory.
void* opclonegbl();

// Table construction: size in bytes, image with character offsets, defaults
// (0, or OP_BADTABLE when the self-check fails).
int optini1();
int optini2(void* shmoptr);
int optini3(void* shmoptr);

// Initialisers used by optini3. opbininit sets a binary to 1 by its name and to
// 0 by its NO name.
int opbininit(void* optptr, const char* spell);
int opintinit(void* optptr, const char* spell, int32_t maxval, int32_t defval);
int opdblinit(void* optptr, const char* spell, double maxval, double defval);
int opcharinit(void* optptr, const char* spell, const char* value, int32_t vallen);

// Finds an item; *negop is 1 when found only after dropping a leading "NO"/"no".
int opt_find(void* optptr, const char* spell, OPTITEM** found, int* negop);

// Reads an option into value (4 bytes binary/integer, 8 bytes double,
// curlen bytes character) and its length into *vallen when vallen is not null.
int opgetop(void* optptr, const char* spell, void* value, int* vallen);
// A binary option's value (0 or 1, inverted for a NO name), -1 other type, -2 unset.
int opbingt(void* optptr, const char* spell);
// The type bits of an option, or -1.
int opqopt(void* optptr, const char* spell);

// Sets an option as the server (is_parm 0) or a user (is_parm 1). A NO name
// flips the caller's binary value in place before it is stored.
int opsetop(void* optptr, const char* spell, void* value, int vallen);
int opsetop1(void* optptr, const char* spell, void* value, int vallen, int is_parm);
// Sets a binary by name alone: the name to 1, its NO form to 0.
int opbinst(void* optptr, const char* spell);
int opbinst1(void* optptr, const char* spell, int is_parm);

// Lists the options in effect, to standard output or into a malloc'ed buffer
// (*msg, free with free(); *len its length without the terminator).
int opt_dump(void* optptr, int level);
int opt_dumpf(void* optptr, char** msg, int* len, int level);

// Numbers with an optional K, M or G suffix (powers of 1024).
int isint(const char* string, int* number);
int isdbl(const char* string, double* number);

}  // namespace vrta

// Message bodies between the engine and a data server: one record struct per
// body, described field by field (hpdmsgs.h), and one walk over that
// description that sizes, fills and parses. The engine and the reference data
// server both pack and parse through here. Headers (DS_HDR_METHOD,
// DS_HDR_REPLY) and the socket belong to the transport.
//
// A parsed record points into the body it was parsed from: its len+data
// fields stay valid as long as that buffer does.
#pragma once
#include <cstddef>
#include <cstdint>

#include "eng/hpdmsgs.h"
#include "ssup/vrtadef.h"

namespace vrta {

// A body does not fit its length: a count or a length runs past its end, or
// bytes are left over. Substitutions: the record, the field.
constexpr rctype DS_RC_BADMSG = static_cast<rctype>(0x8004001eu);
// A record cannot be packed: a negative length, data missing behind a
// length, or a body too long for a frame. Substitutions: the record, the field.
constexpr rctype DS_RC_BADREC = static_cast<rctype>(0x8004001fu);

enum class DsKind : uint8_t { I2, I4, I8, F8, B, C, L, S };

struct DS_RECDESC;

struct DS_FIELD {
    const char* name;
    const char* lname;      // L: the length's name
    DsKind kind;
    uint8_t level;          // on the wire only at this level or above; 0 always
    uint16_t width;         // C: bytes
    uint32_t off;           // of the value (L: of the data pointer) in the struct
    uint32_t lenoff;        // L: of the int32_t length
    const DS_RECDESC* sub;  // S: the record held in line
};

struct DS_RECDESC {
    const char* name;
    const DS_FIELD* fields;
    int nfields;
    size_t size;  // of the struct
};

struct DS_METHOD {
    int id;
    const char* name;
    const DS_RECDESC* req;
    const DS_RECDESC* rep;  // DS_EMPTY when the method has no reply body
};

// ------------------------------------------------------------ the records
#define DS_SF(k, n, e, g) DS_SF_##k(n, e)
#define DS_SF_I2(n, e) int16_t n;
#define DS_SF_I4(n, e) int32_t n;
#define DS_SF_I8(n, e) int64_t n;
#define DS_SF_F8(n, e) double n;
#define DS_SF_B(n, e) char n;
#define DS_SF_C(n, e) char n[e];
#define DS_SF_L(n, e) \
    int32_t e;        \
    const char* n;
#define DS_SF_S(n, e) e n;
#define DS_STRUCT(r) \
    struct r {       \
        DSF_##r(DS_SF) \
    };
DS_RECORDS(DS_STRUCT)
#undef DS_STRUCT
#undef DS_SF
#undef DS_SF_I2
#undef DS_SF_I4
#undef DS_SF_I8
#undef DS_SF_F8
#undef DS_SF_B
#undef DS_SF_C
#undef DS_SF_L
#undef DS_SF_S

#define DS_ALIAS(a, r) using a = r;
DS_ALIASES(DS_ALIAS)
#undef DS_ALIAS

// The host-side column record keeps its documented offsets.
static_assert(offsetof(DS_NAMESTR_V8, nname) == 4 && offsetof(DS_NAMESTR_V8, ntype) == 36);
static_assert(offsetof(DS_NAMESTR_V8, nlabsplt) == 43 && offsetof(DS_NAMESTR_V8, nlabell) == 44);
static_assert(offsetof(DS_NAMESTR_V8, flags) == 56 && offsetof(DS_NAMESTR_V8, npos) == 60);
static_assert(offsetof(DS_NAMESTR_V8, nlng) == 64 && offsetof(DS_NAMESTR_V8, nvar0) == 68);
static_assert(offsetof(DS_NAMESTR_V8, nform) == 72 && offsetof(DS_NAMESTR_V8, nfl) == 104);
static_assert(offsetof(DS_NAMESTR_V8, niform) == 108 && offsetof(DS_NAMESTR_V8, nifd) == 142);
static_assert(offsetof(DS_NAMESTR_V8, spare1) == 144 && sizeof(DS_NAMESTR_V8) == 160);

#define DS_DESCDECL(r) extern const DS_RECDESC r##_D;
DS_RECORDS(DS_DESCDECL)
#undef DS_DESCDECL

#define DS_METHID(id, c, n, q, r) c = id,
enum DsMethod : int { DS_METHODS(DS_METHID) };
#undef DS_METHID

// ------------------------------------------------------------ packing and parsing
// The body's length at this level, in *len.
rctype dssize(const DS_RECDESC* d, const void* rec, int level, long* len);
// Writes the body at out, which holds the length dssize gave; *len gets it.
rctype dsfill(const DS_RECDESC* d, const void* rec, int level, unsigned char* out, long* len);
// Parses a body of exactly len bytes into rec (zeroed first). Never reads
// past body + len.
rctype dsparse(const DS_RECDESC* d, void* rec, int level, const unsigned char* body, long len);
// The same for a record at the head of a longer buffer: *used gets its length.
rctype dsdecode(const DS_RECDESC* d, void* rec, int level, const unsigned char* body, long len,
                long* used);

// The method with this number, or null for a number not in use.
const DS_METHOD* dsmethod(int id);
// Every method, in the order of their numbers.
const DS_METHOD* dsmethods(int* count);
// The records that follow another message: record and what it follows.
struct DS_FOLLOWON {
    const DS_RECDESC* rec;
    const char* after;
};
const DS_FOLLOWON* dsfollowons(int* count);

// The catalogue as a Markdown section (the message list of docs/wire.md):
// malloc'ed, free with free(); null without memory.
char* dsdocument();

// The same calls by record type, so that a record cannot meet the wrong
// description.
#define DS_TYPED(r)                                                                        \
    inline rctype dssize(const r& m, int level, long* len) { return dssize(&r##_D, &m, level, len); } \
    inline rctype dsfill(const r& m, int level, unsigned char* out, long* len) {           \
        return dsfill(&r##_D, &m, level, out, len);                                        \
    }                                                                                      \
    inline rctype dsparse(r& m, int level, const unsigned char* body, long len) {          \
        return dsparse(&r##_D, &m, level, body, len);                                      \
    }
DS_RECORDS(DS_TYPED)
#undef DS_TYPED

}  // namespace vrta

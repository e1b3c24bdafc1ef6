// The index layer's own codes and the header every index file starts with.
// Errors are 0x800005xx; keep this a flat list sorted by value.
#pragma once
#include <cstddef>
#include <cstdint>

#include "ssup/vrtadef.h"

namespace vrta {

// Warnings and notes.
constexpr rctype IX_LEFTDIRTY   = 1282;                                // index left in an unfinished state
constexpr rctype IX_NOMOREROWS  = 1284;                                // no more rows

// Errors.
constexpr rctype IX_BADOPTS     = static_cast<rctype>(0x80000509u);  // invalid options or options in conflict
constexpr rctype IX_CLOSEFAIL   = static_cast<rctype>(0x8000050bu);  // tree close failed
constexpr rctype IX_BADTREEVER  = static_cast<rctype>(0x8000050eu);  // tree version mismatch
constexpr rctype IX_OPENFAIL    = static_cast<rctype>(0x80000512u);  // tree open failed
constexpr rctype IX_APPENDFAIL  = static_cast<rctype>(0x80000514u);  // B-tree put failed in append
constexpr rctype IX_BADDESC     = static_cast<rctype>(0x80000515u);  // descriptors unreadable
constexpr rctype IX_TREEREAD    = static_cast<rctype>(0x80000517u);  // B-tree read failed
constexpr rctype IX_UPDATEFAIL  = static_cast<rctype>(0x80000518u);  // B-tree put failed in update
constexpr rctype IX_BADCOMPARE  = static_cast<rctype>(0x80000519u);  // comparison the operation can't take
constexpr rctype IX_INTERRUPT   = static_cast<rctype>(0x8000051au);  // interrupted
constexpr rctype IX_NOMEM       = static_cast<rctype>(0x8000051eu);  // no memory
constexpr rctype IX_READFAIL    = static_cast<rctype>(0x8000051fu);  // read failed
constexpr rctype IX_INCONSIST   = static_cast<rctype>(0x80000520u);  // internal inconsistency
constexpr rctype IX_SEGRANGE    = static_cast<rctype>(0x80000521u);  // segment out of range
constexpr rctype IX_BADSEGSIZE  = static_cast<rctype>(0x80000522u);  // invalid segment size
constexpr rctype IX_DUPKEY      = static_cast<rctype>(0x80000523u);  // duplicate key in a unique index
constexpr rctype IX_BADVERSION  = static_cast<rctype>(0x80000524u);  // wrong file version
constexpr rctype IX_WRITEFAIL   = static_cast<rctype>(0x80000525u);  // write failed
constexpr rctype IX_NOREPAIR    = static_cast<rctype>(0x80000526u);  // index can't be repaired
constexpr rctype IX_NEEDREPAIR  = static_cast<rctype>(0x80000527u);  // index needs repair
constexpr rctype IX_SEGOVERFLOW = static_cast<rctype>(0x80000528u);  // segment number overflow
constexpr rctype IX_KEYTOOLONG  = static_cast<rctype>(0x80000529u);  // key too long

// Kinds of index file (ix_itype_t).
enum ix_itype_t : int32_t {
    IX_DISCRETE = 0, IX_CONTINUOUS = 1, IX_AUX = 2, IX_AUX_PART = 3, IX_GLOBAL_BTREE = 4, IX_HYBRID = 5,
    IX_UNKTYPE = 6
};
constexpr int32_t IX_VERSION = 1000;
constexpr int32_t IX_CLEAN = 7;
constexpr int32_t IX_DIRTY = 13;

#pragma pack(push, 1)
// First 24 bytes of an index file (inside the B-tree's meta page for .idx).
struct IX_HEADER_D {
    int32_t version;       // 1000
    int32_t type;          // ix_itype_t
    int64_t segment_size;  // rows per segment
    int32_t value_len;     // key length in bytes
    int32_t state;         // IX_CLEAN, IX_DIRTY
};
#pragma pack(pop)
static_assert(sizeof(IX_HEADER_D) == 24 && offsetof(IX_HEADER_D, segment_size) == 8 &&
              offsetof(IX_HEADER_D, value_len) == 16 && offsetof(IX_HEADER_D, state) == 20);

// Stops with "Assertion failed: <file>/<line>" for states that cannot occur.
[[noreturn]] void ix_assertion_failure(const char* file, int line);

}  // namespace vrta

// Segment bitmaps: the rows of one segment in which a value occurs, as a
// bitmap of one bit a row (the first row the most significant bit of the
// first 32-bit word), and the forms it is stored in.
#pragma once
#include <cstddef>
#include <cstdint>

#include "ix/ix.h"
#include "sda/daidx.h"

namespace vrta {

// bm_cpr_t: the form of a stored segment.
enum bm_cpr_t : int32_t {
    Bm_Not_Defined = 0,
    Bm_Not_Compressed = 1,  // the raw bitmap
    Bm_Compression_1 = 2,   // pairs of count and byte value; trailing zeros left out
    Bm_Bit_List = 3,        // row numbers, 8 bytes each, rising
    Bm_One_Bit_Set = 4,     // nothing stored: the row is in the entry
    Bm_Deleted = 5,         // the value was removed
    Bm_Glob_Eval = 6        // in memory only
};

// Bytes of a bitmap of segment_size rows: a bit a row, whole 32-bit words.
inline int32_t bm_bitmap_size(int64_t segment_size) {
    return static_cast<int32_t>(((segment_size + 7) / 8 + 3) & ~int64_t{3});
}
// A zeroed bitmap, calloc'ed; its size, 0 when there is no memory.
int32_t bm_alloc_bitmap(int64_t segment_size, uint32_t** bitmap);

inline int bm_isset_bit(const uint32_t* bm, hs_obsno_t base, hs_obsno_t obs) {
    uint64_t i = static_cast<uint64_t>(obs - base);
    return (bm[i >> 5] & (0x80000000u >> (i & 31))) != 0;
}
// The bit's state before: non-zero when it was set already.
inline int bm_set_bit(uint32_t* bm, hs_obsno_t base, hs_obsno_t obs) {
    uint64_t i = static_cast<uint64_t>(obs - base);
    uint32_t m = 0x80000000u >> (i & 31);
    int was = (bm[i >> 5] & m) != 0;
    bm[i >> 5] |= m;
    return was;
}
inline int bm_clear_bit(uint32_t* bm, hs_obsno_t base, hs_obsno_t obs) {
    uint64_t i = static_cast<uint64_t>(obs - base);
    uint32_t m = 0x80000000u >> (i & 31);
    int was = (bm[i >> 5] & m) != 0;
    bm[i >> 5] &= ~m;
    return was;
}

// Set bits, first and last set row. 1 when size is no positive multiple of 4
// or the map is not word-aligned; with no bit set, 0 bits and low = high = base.
int bm_info(const void* bitmap, int32_t size, hs_obsno_t base, int64_t* nbits, hs_obsno_t* low, hs_obsno_t* high);
// The smallest compressed form of a map of size bytes.
inline int32_t bm_mincpr(int32_t size) { return 2 * (size / 256) + (size % 256 ? 2 : 0); }
// Run-length form of bm (size bytes) into cpr (room size bytes): the bytes
// written, with Bm_Compression_1, or Bm_Not_Compressed when it does not pay.
// first_set and last_set 0 mean unknown.
int32_t bm_compress(const uint32_t* bm, void* cpr, int32_t size, hs_obsno_t base, hs_obsno_t first_set,
                    hs_obsno_t last_set, int32_t* cpr_t);
// A stored form back into bm (bm_len bytes): 0, or -1 when the form or its
// bytes are not sound. bm_is_zero says the map is clear already.
int bm_uncompress(uint32_t* bm, int32_t bm_len, int32_t cpr_t, const void* cpr, int64_t cpr_len, hs_obsno_t base,
                  int bm_is_zero);

// What a list of rows says about one segment.
struct IX_BITMAP_SEGMENT_D {
    da_off_t segment_loc;   // of the stored form in the file
    hs_obsno_t base;        // first row of the segment
    hs_obsno_t data;        // stored length, or the row of Bm_One_Bit_Set
    int32_t cpr_t;
};

struct IX_BITMAP_SEGMENT_R {
    uint32_t* bitmap;       // expanded, or null until loaded
    IX_BITMAP_SEGMENT_R* next;
    IX_BITMAP_SEGMENT_D disk;
};

// Segment lists ordered by base, behind a dummy head.
IX_BITMAP_SEGMENT_R* bseg_create(hs_obsno_t base);
void bseg_insert(IX_BITMAP_SEGMENT_R* head, IX_BITMAP_SEGMENT_R* bseg);
IX_BITMAP_SEGMENT_R* bseg_find(IX_BITMAP_SEGMENT_R* head, hs_obsno_t base);
void bseg_delete(IX_BITMAP_SEGMENT_R* head, IX_BITMAP_SEGMENT_R* bseg);
void bseg_destroy(IX_BITMAP_SEGMENT_R* bseg);

// Reads len bytes of a stored form at offset (from the mapping when there
// is one); 0x8000051f when the file ends before.
rctype Read_Bitmap(DA_IDX* iid, da_off_t offset, int64_t len, void* buffer);
// The segment into memory: its bitmap, or (a list, expand_list 0) its rows
// left in the bitmap's memory. No-op when loaded already.
rctype ix_get_bitmap(DA_IDX* iid, int64_t seg_size, IX_BITMAP_SEGMENT_R* bp, int expand_list);
rctype ix_get_bitmap_1(DA_IDX* iid, int64_t seg_size, IX_BITMAP_SEGMENT_R* bp, void* cpr_buf);

}  // namespace vrta

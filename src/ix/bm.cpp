// Segment bitmaps: counting, the run-length form and its reverse, lists of
// segments, and reading a stored segment into memory. Sparse maps are the
// usual case, so runs of zero bytes are passed a word at a time.
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "ix/bm.h"
#include "sda/darc.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/bm";

// Pairs of count and value for len bytes of value; false when out of room.
bool putrun(unsigned char* out, int32_t room, int32_t* at, int64_t len, unsigned char value) {
    while (len > 0) {
        if (*at + 2 > room) return false;
        int n = len > 255 ? 255 : static_cast<int>(len);
        out[*at] = static_cast<unsigned char>(n);
        out[*at + 1] = value;
        *at += 2;
        len -= n;
    }
    return true;
}

int uncompress1(unsigned char* bm, int32_t bm_len, const unsigned char* cpr, int64_t cpr_len, int bm_is_zero) {
    if (cpr_len < 0 || (cpr_len & 1)) return -1;
    int64_t out = 0;
    for (int64_t i = 0; i < cpr_len; i += 2) {
        int n = cpr[i];
        unsigned char v = cpr[i + 1];
        if (n == 0 || out + n > bm_len) return -1;
        if (v != 0) memset(bm + out, v, n);
        else if (!bm_is_zero) memset(bm + out, 0, n);
        out += n;
    }
    if (!bm_is_zero && out < bm_len) memset(bm + out, 0, bm_len - out);
    return 0;
}

int uncompresslist(uint32_t* bm, int32_t bm_len, const void* cpr, int64_t cpr_len, hs_obsno_t base, int bm_is_zero) {
    if (cpr_len < 0 || cpr_len % 8) return -1;
    if (!bm_is_zero) memset(bm, 0, bm_len);
    int64_t rows = static_cast<int64_t>(bm_len) * 8;
    for (int64_t i = 0; i < cpr_len / 8; ++i) {
        hs_obsno_t r;
        memcpy(&r, static_cast<const char*>(cpr) + 8 * i, 8);
        if (r < base || r - base >= rows) return -1;
        bm_set_bit(bm, base, r);
    }
    return 0;
}

}  // namespace

int32_t bm_alloc_bitmap(int64_t segment_size, uint32_t** bitmap) {
    int32_t size = bm_bitmap_size(segment_size);
    *bitmap = static_cast<uint32_t*>(calloc(1, size));
    return *bitmap ? size : 0;
}

int bm_info(const void* bitmap, int32_t size, hs_obsno_t base, int64_t* nbits, hs_obsno_t* low, hs_obsno_t* high) {
    if (size <= 0 || (size & 3) || (reinterpret_cast<uintptr_t>(bitmap) & 3)) return 1;
    const uint32_t* w = static_cast<const uint32_t*>(bitmap);
    int32_t nw = size / 4;
    int64_t n = 0;
    int32_t first = -1, last = -1;
    for (int32_t i = 0; i < nw; ++i) {
        if (!w[i]) continue;
        if (first < 0) first = i;
        last = i;
        n += __builtin_popcount(w[i]);
    }
    *nbits = n;
    if (n == 0) {
        *low = *high = base;
        return 0;
    }
    *low = base + static_cast<hs_obsno_t>(first) * 32 + __builtin_clz(w[first]);
    *high = base + static_cast<hs_obsno_t>(last) * 32 + 31 - __builtin_ctz(w[last]);
    return 0;
}

int32_t bm_compress(const uint32_t* bm, void* cprv, int32_t size, hs_obsno_t base, hs_obsno_t first_set,
                    hs_obsno_t last_set, int32_t* cpr_t) {
    auto* cpr = static_cast<unsigned char*>(cprv);
    const auto* in = reinterpret_cast<const unsigned char*>(bm);
    if (first_set <= 0 || last_set <= 0) {
        int64_t nbits;
        if (bm_info(bm, size, base, &nbits, &first_set, &last_set) != 0 || nbits == 0) {
            *cpr_t = Bm_Not_Compressed;
            return 0;
        }
    }
    memset(cpr, 0, size);
    int32_t pos = static_cast<int32_t>(((first_set - base) / 8) & ~int64_t{3});
    while (pos < size && in[pos] == 0) ++pos;
    int32_t at = 0;
    bool room = putrun(cpr, size, &at, pos, 0);
    int64_t e = ((last_set - base) / 8 + 1 + 3) & ~int64_t{3};
    int32_t end = static_cast<int32_t>(e > size ? size : e);
    while (end > pos && in[end - 1] == 0) --end;
    while (room && pos < end && at < size) {
        unsigned char b = in[pos];
        int32_t run = 1;
        if (b) {
            while (pos + run < end && in[pos + run] == b) ++run;
        } else {
            // Zero bytes a word at a time where the words line up.
            while (pos + run < end) {
                int32_t p = pos + run;
                if ((p & 3) == 0 && p + 4 <= end) {
                    uint32_t word;
                    memcpy(&word, in + p, 4);
                    if (word == 0) {
                        run += 4;
                        continue;
                    }
                }
                if (in[p] != 0) break;
                ++run;
            }
        }
        room = putrun(cpr, size, &at, run, b);
        if (room) pos += run;
    }
    *cpr_t = room && pos >= end && at < size ? Bm_Compression_1 : Bm_Not_Compressed;
    return at;
}

int bm_uncompress(uint32_t* bm, int32_t bm_len, int32_t cpr_t, const void* cpr, int64_t cpr_len, hs_obsno_t base,
                  int bm_is_zero) {
    switch (cpr_t) {
    case Bm_Not_Compressed:
        if (cpr_len != bm_len) return -1;
        memcpy(bm, cpr, bm_len);
        return 0;
    case Bm_Compression_1:
        return uncompress1(reinterpret_cast<unsigned char*>(bm), bm_len, static_cast<const unsigned char*>(cpr),
                           cpr_len, bm_is_zero);
    case Bm_Bit_List:
        return uncompresslist(bm, bm_len, cpr, cpr_len, base, bm_is_zero);
    default:
        return -1;
    }
}

IX_BITMAP_SEGMENT_R* bseg_create(hs_obsno_t base) {
    auto* b = static_cast<IX_BITMAP_SEGMENT_R*>(calloc(1, sizeof(IX_BITMAP_SEGMENT_R)));
    if (b) b->disk.base = base;
    return b;
}

void bseg_insert(IX_BITMAP_SEGMENT_R* head, IX_BITMAP_SEGMENT_R* bseg) {
    IX_BITMAP_SEGMENT_R* p = head;
    while (p->next && p->next->disk.base < bseg->disk.base) p = p->next;
    bseg->next = p->next;
    p->next = bseg;
}

IX_BITMAP_SEGMENT_R* bseg_find(IX_BITMAP_SEGMENT_R* head, hs_obsno_t base) {
    for (IX_BITMAP_SEGMENT_R* p = head->next; p && p->disk.base <= base; p = p->next)
        if (p->disk.base == base) return p;
    return nullptr;
}

void bseg_delete(IX_BITMAP_SEGMENT_R* head, IX_BITMAP_SEGMENT_R* bseg) {
    for (IX_BITMAP_SEGMENT_R* p = head; p->next; p = p->next)
        if (p->next == bseg) {
            p->next = bseg->next;
            bseg_destroy(bseg);
            return;
        }
}

void bseg_destroy(IX_BITMAP_SEGMENT_R* bseg) {
    if (!bseg) return;
    free(bseg->bitmap);
    free(bseg);
}

rctype Read_Bitmap(DA_IDX* iid, da_off_t offset, int64_t len, void* buffer) {
    if (offset < 0 || len < 0 || offset + len > iid->filesize) return IX_READFAIL;
    if (iid->mapaddr && offset + len <= iid->mapsize) {
        memcpy(buffer, static_cast<const char*>(iid->mapaddr) + offset, len);
        return 0;
    }
    long nread = 0;
    rctype rc = iid->mt->readidx(iid, buffer, static_cast<long>(len), offset, &nread);
    if (rc < 0) return rc;
    return nread == len ? 0 : IX_READFAIL;
}

rctype ix_get_bitmap_1(DA_IDX* iid, int64_t seg_size, IX_BITMAP_SEGMENT_R* bp, void* cpr_buf) {
    if (bp->bitmap) return 0;
    int32_t size = bm_bitmap_size(seg_size);
    IX_BITMAP_SEGMENT_D& d = bp->disk;
    // A list left unexpanded needs room for its rows, which may pass a tiny map.
    int64_t room = size;
    if (d.cpr_t == Bm_Bit_List && !cpr_buf && d.data > room) room = d.data;
    auto* bm = static_cast<uint32_t*>(calloc(1, static_cast<size_t>((room + 3) & ~int64_t{3})));
    if (!bm) return IX_NOMEM;
    rctype rc = 0;
    switch (d.cpr_t) {
    case Bm_Not_Defined:
        break;
    case Bm_Not_Compressed:
        rc = d.data == size ? Read_Bitmap(iid, d.segment_loc, size, bm) : IX_INCONSIST;
        break;
    case Bm_Bit_List:
        if (!cpr_buf) {
            rc = d.data >= 0 && d.data % 8 == 0 ? Read_Bitmap(iid, d.segment_loc, d.data, bm) : IX_INCONSIST;
            break;
        }
        [[fallthrough]];
    case Bm_Compression_1: {
        if (d.data <= 0 || d.data > 16 * static_cast<int64_t>(size) + 16) {
            rc = IX_INCONSIST;
            break;
        }
        void* buf = malloc(static_cast<size_t>(d.data));
        if (!buf) {
            rc = IX_NOMEM;
            break;
        }
        rc = Read_Bitmap(iid, d.segment_loc, d.data, buf);
        if (rc == 0 && bm_uncompress(bm, size, d.cpr_t, buf, d.data, d.base, 1) != 0) rc = IX_INCONSIST;
        free(buf);
        if (rc == 0) d.cpr_t = Bm_Not_Compressed;
        break;
    }
    case Bm_One_Bit_Set:
        if (d.data < d.base || d.data - d.base >= seg_size) rc = IX_INCONSIST;
        else bm_set_bit(bm, d.base, d.data);
        if (rc == 0) d.cpr_t = Bm_Not_Compressed;
        break;
    default:
        hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        rc = IX_INCONSIST;
    }
    if (rc < 0) {
        free(bm);
        return rc;
    }
    if (d.cpr_t == Bm_Not_Compressed) d.data = size;
    bp->bitmap = bm;
    return 0;
}

rctype ix_get_bitmap(DA_IDX* iid, int64_t seg_size, IX_BITMAP_SEGMENT_R* bp, int expand_list) {
    static char expand;  // any non-null buffer: a list is expanded
    return ix_get_bitmap_1(iid, seg_size, bp, expand_list ? &expand : nullptr);
}

}  // namespace vrta

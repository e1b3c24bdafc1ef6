// Row lists: their life, AND, OR, XOR and NOT a word at a time, counting
// and reading back in row order. A segment has three shapes: stored (no
// bitmap yet, the form and place of its bits in disk), its rows (a stored
// list read as it is: bitmap holds disk.data / 8 row numbers and cpr_t
// stays Bm_Bit_List), or a full bitmap of the segment. Operations bring
// segments to the full shape as they need them; an empty segment never
// stays in a list.
#include "ix/ixlist.h"

#include <cstdlib>
#include <cstring>

#include "hs/hs.h"

namespace vrta {

namespace {

const char TRACEFILE[] = "ix/src/ixlist";

bool stored(int32_t cpr_t) {
    return cpr_t == Bm_Not_Compressed || cpr_t == Bm_Compression_1 || cpr_t == Bm_Bit_List;
}
bool rowsheld(const IX_BITMAP_SEGMENT_R* s) { return s->bitmap && s->disk.cpr_t == Bm_Bit_List; }
int32_t words(int64_t segsize) { return bm_bitmap_size(segsize) / 4; }

// Clears the bits from bit `from` of the segment to the end of its map.
void clearfrom(uint32_t* bm, int64_t from, int32_t nw) {
    if (from < 0) from = 0;
    int64_t w = from >> 5;
    if (w >= nw) return;
    bm[w] &= ~(0xffffffffu >> (from & 31));
    for (int64_t i = w + 1; i < nw; ++i) bm[i] = 0;
}

bool anyset(const uint32_t* bm, int32_t nw) {
    for (int32_t i = 0; i < nw; ++i)
        if (bm[i]) return true;
    return false;
}

// The segment as a full bitmap of the list's segment size.
rctype full(ix_list_t* l, IX_BITMAP_SEGMENT_R* s) {
    int64_t ss = l->segsize;
    if (ss < 1) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    if (s->bitmap && !rowsheld(s)) return 0;
    if (rowsheld(s)) {
        uint32_t* bm;
        int32_t size = bm_alloc_bitmap(ss, &bm);
        if (!size) return IX_NOMEM;
        const auto* rows = reinterpret_cast<const hs_obsno_t*>(s->bitmap);
        for (int64_t i = 0; i < s->disk.data / 8; ++i) {
            hs_obsno_t r = rows[i];
            if (r < s->disk.base || r - s->disk.base >= ss) {
                free(bm);
                return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
            }
            bm_set_bit(bm, s->disk.base, r);
        }
        free(s->bitmap);
        s->bitmap = bm;
        s->disk.cpr_t = Bm_Not_Compressed;
        s->disk.data = size;
        return 0;
    }
    if (stored(s->disk.cpr_t) && !l->iid) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    rctype rc = ix_get_bitmap(l->iid, ss, s, 1);
    if (rc < 0) return rc;
    // Bits past the segment's end can only come from a damaged file.
    clearfrom(s->bitmap, ss, words(ss));
    return 0;
}

// A copy of s for a list whose stored segments are in riid: stored when
// it can stay so, else full.
rctype copyseg(ix_list_t* from, IX_BITMAP_SEGMENT_R* s, DA_IDX* riid, IX_BITMAP_SEGMENT_R** out) {
    *out = nullptr;
    if (rowsheld(s) || (!s->bitmap && stored(s->disk.cpr_t) && from->iid != riid)) {
        rctype rc = full(from, s);
        if (rc < 0) return rc;
    }
    IX_BITMAP_SEGMENT_R* n = bseg_create(s->disk.base);
    if (!n) return IX_NOMEM;
    n->disk = s->disk;
    if (s->bitmap) {
        size_t bytes = static_cast<size_t>(bm_bitmap_size(from->segsize));
        n->bitmap = static_cast<uint32_t*>(malloc(bytes));
        if (!n->bitmap) {
            free(n);
            return IX_NOMEM;
        }
        memcpy(n->bitmap, s->bitmap, bytes);
    }
    *out = n;
    return 0;
}

void freechain(IX_BITMAP_SEGMENT_R* s) {
    while (s) {
        IX_BITMAP_SEGMENT_R* n = s->next;
        bseg_destroy(s);
        s = n;
    }
}

// Moves or copies s to the end of the chain at *tail.
rctype emit(ix_list_t* from, IX_BITMAP_SEGMENT_R* s, bool own, DA_IDX* riid, IX_BITMAP_SEGMENT_R*** tail) {
    IX_BITMAP_SEGMENT_R* n = s;
    rctype rc = 0;
    if (own) {
        if (!s->bitmap && stored(s->disk.cpr_t) && from->iid != riid) rc = full(from, s);
    } else {
        rc = copyseg(from, s, riid, &n);
    }
    if (rc < 0) {
        if (own) bseg_destroy(s);
        return rc;
    }
    n->next = nullptr;
    **tail = n;
    *tail = &n->next;
    return 0;
}

}  // namespace

rctype ixgetl(ix_list_t** list) {
    if (!list) return 1;
    auto* l = static_cast<ix_list_t*>(calloc(1, sizeof(ix_list_t)));
    if (!l) return 1;
    l->segsize = -1;
    l->seek.cur_seg = &l->head;
    l->seek.mask = 0x80000000u;
    *list = l;
    return 0;
}

void ixclearl(ix_list_t* list) {
    if (!list) return;
    freechain(list->head.next);
    list->head.next = nullptr;
    ixrwndl(list);
}

void ixfreel(ix_list_t* list) {
    if (!list) return;
    ixclearl(list);
    free(list);
}

int ixhasl(const ix_list_t* list) { return list && list->head.next ? 1 : 0; }

void ixbindl(ix_list_t* list, DA_IDX* iid, int64_t segsize) {
    list->iid = iid;
    list->segsize = segsize;
}

void ixrwndl(ix_list_t* list) {
    if (!list) return;
    list->seek.cur_seg = &list->head;
    list->seek.word_offset = 0;
    list->seek.mask = 0x80000000u;
}

rctype ixcopyl(ix_list_t* from, ix_list_t* to) {
    if (!from || !to) return 1;
    if (from == to) return 0;
    ixclearl(to);
    to->iid = from->iid;
    to->segsize = from->segsize;
    IX_BITMAP_SEGMENT_R** tail = &to->head.next;
    for (IX_BITMAP_SEGMENT_R* s = from->head.next; s; s = s->next) {
        rctype rc = emit(from, s, false, to->iid, &tail);
        if (rc < 0) {
            ixclearl(to);
            return rc;
        }
    }
    return 0;
}

rctype ixaddseg(ix_list_t* list, const IX_BITMAP_SEGMENT_D& disk) {
    if (!list || list->segsize < 1 || disk.base < 1 || (disk.base - 1) % list->segsize != 0) return 1;
    if (bseg_find(&list->head, disk.base)) return 1;
    IX_BITMAP_SEGMENT_R* s = bseg_create(disk.base);
    if (!s) return IX_NOMEM;
    s->disk = disk;
    bseg_insert(&list->head, s);
    return 0;
}

rctype ixorseg(ix_list_t* list, const IX_BITMAP_SEGMENT_D& disk) {
    if (!list || list->segsize < 1 || disk.base < 1 || (disk.base - 1) % list->segsize != 0) return 1;
    IX_BITMAP_SEGMENT_R* s = bseg_find(&list->head, disk.base);
    if (!s) return ixaddseg(list, disk);
    rctype rc = full(list, s);
    if (rc < 0) return rc;
    if (disk.cpr_t == Bm_One_Bit_Set) {
        if (disk.data < disk.base || disk.data - disk.base >= list->segsize)
            return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        bm_set_bit(s->bitmap, disk.base, disk.data);
        return 0;
    }
    if (!list->iid) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
    IX_BITMAP_SEGMENT_R t{};
    t.disk = disk;
    if ((rc = ix_get_bitmap(list->iid, list->segsize, &t, 1)) < 0) return rc;
    int32_t nw = words(list->segsize);
    clearfrom(t.bitmap, list->segsize, nw);
    for (int32_t i = 0; i < nw; ++i) s->bitmap[i] |= t.bitmap[i];
    free(t.bitmap);
    return 0;
}

rctype ixadnum(ix_list_t* list, hs_obsno_t obs_no, int64_t seg_size) {
    if (!list || obs_no < 1 || seg_size < 1) return 1;
    if (list->segsize < 1) list->segsize = seg_size;
    if (list->segsize != seg_size) return 1;
    hs_obsno_t base = (obs_no - 1) / seg_size * seg_size + 1;
    IX_BITMAP_SEGMENT_R* s = bseg_find(&list->head, base);
    if (!s) {
        if (!(s = bseg_create(base))) return IX_NOMEM;
        int32_t size = bm_alloc_bitmap(seg_size, &s->bitmap);
        if (!size) {
            free(s);
            return IX_NOMEM;
        }
        s->disk.cpr_t = Bm_Not_Compressed;
        s->disk.data = size;
        bseg_insert(&list->head, s);
    } else {
        rctype rc = full(list, s);
        if (rc < 0) return rc;
    }
    bm_set_bit(s->bitmap, base, obs_no);
    return 0;
}

rctype ixop(ix_list_t* a, ix_list_t* b, ix_list_t* r, int op) {
    if (!a || !b || !r || (op != IX_AND && op != IX_OR && op != IX_XOR)) return 1;
    bool ha = ixhasl(a), hb = ixhasl(b);
    if (ha && hb && a->segsize != b->segsize) return 1;
    int64_t segsize = ha ? a->segsize : hb ? b->segsize : a->segsize > 0 ? a->segsize : b->segsize;
    if (!ha && !hb) {
        ixclearl(r);
        if (r->segsize < 1) r->segsize = segsize;
        return 0;
    }
    if (a == b) {
        if (op == IX_XOR) {
            ixclearl(r);
            return 0;
        }
        return ixcopyl(a, r);
    }
    bool owna = r == a, ownb = r == b;
    DA_IDX* riid = owna || ownb ? r->iid : a->iid ? a->iid : b->iid;
    if (!owna && !ownb) ixclearl(r);
    IX_BITMAP_SEGMENT_R* pa = a->head.next;
    IX_BITMAP_SEGMENT_R* pb = b->head.next;
    // The result's own operand gives up its chain: each node is moved or freed.
    if (owna) a->head.next = nullptr;
    if (ownb) b->head.next = nullptr;
    IX_BITMAP_SEGMENT_R out{};
    IX_BITMAP_SEGMENT_R** tail = &out.next;
    int32_t nw = words(segsize);
    rctype rc = 0;
    while (rc == 0 && (pa || pb)) {
        if (!pb || (pa && pa->disk.base < pb->disk.base)) {
            IX_BITMAP_SEGMENT_R* next = pa->next;
            if (op != IX_AND) rc = emit(a, pa, owna, riid, &tail);
            else if (owna) bseg_destroy(pa);
            pa = next;
        } else if (!pa || pb->disk.base < pa->disk.base) {
            IX_BITMAP_SEGMENT_R* next = pb->next;
            if (op != IX_AND) rc = emit(b, pb, ownb, riid, &tail);
            else if (ownb) bseg_destroy(pb);
            pb = next;
        } else {
            IX_BITMAP_SEGMENT_R* na = pa->next;
            IX_BITMAP_SEGMENT_R* nb = pb->next;
            IX_BITMAP_SEGMENT_R* t = nullptr;
            rc = full(a, pa);
            if (rc == 0) rc = full(b, pb);
            if (rc == 0) {
                if (owna) t = pa;
                else if (ownb) t = pb;
                else rc = copyseg(a, pa, riid, &t);
            }
            if (rc == 0) {
                const uint32_t* y = t == pb ? pa->bitmap : pb->bitmap;
                uint32_t* x = t->bitmap;
                uint32_t any = 0;
                switch (op) {
                case IX_AND:
                    for (int32_t i = 0; i < nw; ++i) any |= (x[i] &= y[i]);
                    break;
                case IX_OR:
                    for (int32_t i = 0; i < nw; ++i) any |= (x[i] |= y[i]);
                    break;
                default:
                    for (int32_t i = 0; i < nw; ++i) any |= (x[i] ^= y[i]);
                    break;
                }
                t->disk.cpr_t = Bm_Not_Compressed;
                t->disk.data = nw * 4;
                if (any) {
                    t->next = nullptr;
                    *tail = t;
                    tail = &t->next;
                } else {
                    bseg_destroy(t);
                }
            }
            if (owna && t != pa) bseg_destroy(pa);
            if (ownb && t != pb) bseg_destroy(pb);
            pa = na;
            pb = nb;
        }
    }
    if (rc < 0) {
        if (owna) freechain(pa);
        if (ownb) freechain(pb);
        freechain(out.next);
        out.next = nullptr;
    }
    r->head.next = out.next;
    r->segsize = segsize;
    r->iid = riid;
    ixrwndl(r);
    return rc;
}

rctype ixcutl(ix_list_t* list, hs_obsno_t first, hs_obsno_t last) {
    if (!list) return 1;
    int64_t ss = list->segsize;
    for (IX_BITMAP_SEGMENT_R* s = list->head.next; s;) {
        IX_BITMAP_SEGMENT_R* next = s->next;
        hs_obsno_t base = s->disk.base;
        if (base > last || base + ss - 1 < first) {
            bseg_delete(&list->head, s);
        } else if (base < first || base + ss - 1 > last) {
            rctype rc = full(list, s);
            if (rc < 0) return rc;
            // Bit by bit below first, then whole words from last on.
            for (hs_obsno_t r = base; r < first; ++r) bm_clear_bit(s->bitmap, base, r);
            if (last < base + ss - 1) clearfrom(s->bitmap, last - base + 1, words(ss));
            if (!anyset(s->bitmap, words(ss))) bseg_delete(&list->head, s);
        }
        s = next;
    }
    ixrwndl(list);
    return 0;
}

rctype ixmaskl(ix_list_t* list, hs_obsno_t numobs) {
    if (!list) return 1;
    if (!list->head.next) return 0;
    return ixcutl(list, 1, numobs);
}

rctype ixunary(ix_list_t* a, ix_list_t* r, int op, int64_t segno, int64_t segsize, hs_obsno_t numobs) {
    if (!a || !r || op != IX_NOT) return 1;
    int64_t ss = a->segsize > 0 ? a->segsize : segsize;
    if (ss < 1 || (segsize > 0 && a->segsize > 0 && segsize != a->segsize)) return 1;
    rctype rc;
    if (!ixhasl(a)) {
        if (segno < 0) return 1;
        DA_IDX* iid = a->iid;
        ixclearl(r);
        r->segsize = ss;
        if (!r->iid) r->iid = iid;
        IX_BITMAP_SEGMENT_R* s = bseg_create(segno * ss + 1);
        if (!s) return IX_NOMEM;
        int32_t size = bm_alloc_bitmap(ss, &s->bitmap);
        if (!size) {
            free(s);
            return IX_NOMEM;
        }
        s->disk.cpr_t = Bm_Not_Compressed;
        s->disk.data = size;
        memset(s->bitmap, 0xff, size);
        clearfrom(s->bitmap, ss, size / 4);
        bseg_insert(&r->head, s);
    } else {
        if ((rc = ixcopyl(a, r)) != 0) return rc;
        int32_t nw = words(ss);
        for (IX_BITMAP_SEGMENT_R* s = r->head.next; s;) {
            IX_BITMAP_SEGMENT_R* next = s->next;
            if ((rc = full(r, s)) < 0) {
                ixclearl(r);
                return rc;
            }
            uint32_t any = 0;
            for (int32_t i = 0; i < nw; ++i) any |= (s->bitmap[i] = ~s->bitmap[i]);
            clearfrom(s->bitmap, ss, nw);
            if (!any || !anyset(s->bitmap, nw)) bseg_delete(&r->head, s);
            s = next;
        }
    }
    return ixmaskl(r, numobs);
}

rctype ixrtrve(ix_list_t* list, hs_obsno_t* obs_no, int64_t* n) {
    if (!list || !n || (*n > 0 && !obs_no)) return 1;
    int64_t want = *n, got = 0;
    *n = 0;
    if (want <= 0) return 0;
    IX_BSEG_SEEK_T& c = list->seek;
    if (c.cur_seg == &list->head) {
        c.cur_seg = list->head.next;
        c.word_offset = 0;
        c.mask = 0x80000000u;
    }
    auto advance = [&c]() {
        c.cur_seg = c.cur_seg->next;
        c.word_offset = 0;
        c.mask = 0x80000000u;
    };
    int64_t ss = list->segsize;
    while (c.cur_seg) {
        IX_BITMAP_SEGMENT_R* s = c.cur_seg;
        hs_obsno_t base = s->disk.base;
        if (!s->bitmap && s->disk.cpr_t == Bm_One_Bit_Set) {
            if (got == want) break;
            if (s->disk.data < base || s->disk.data - base >= ss) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
            obs_no[got++] = s->disk.data;
            advance();
            continue;
        }
        if (!s->bitmap) {
            if (ss < 1 || (stored(s->disk.cpr_t) && !list->iid)) return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
            rctype rc = ix_get_bitmap(list->iid, ss, s, 0);
            if (rc < 0) return rc;
        }
        if (rowsheld(s)) {
            const auto* rows = reinterpret_cast<const hs_obsno_t*>(s->bitmap);
            int64_t k = c.word_offset, nrows = s->disk.data / 8;
            while (k < nrows && got < want) {
                hs_obsno_t r = rows[k];
                // A stored list rises inside its segment; anything else is damage.
                if (r < base || r - base >= ss || (k > 0 && r <= rows[k - 1]))
                    return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
                obs_no[got++] = r;
                ++k;
            }
            c.word_offset = k;
            if (k < nrows) break;
            advance();
            continue;
        }
        int32_t nw = words(ss);
        int64_t w = c.word_offset;
        uint32_t mask = c.mask;
        bool full_up = false;
        for (; w < nw; ++w, mask = 0x80000000u) {
            // This word's bits from the cursor's on.
            uint32_t x = s->bitmap[w] & (mask | (mask - 1));
            while (x) {
                if (got == want) {
                    full_up = true;
                    break;
                }
                int b = __builtin_clz(x);
                hs_obsno_t r = base + w * 32 + b;
                if (r - base >= ss) {
                    x = 0;
                    break;
                }
                obs_no[got++] = r;
                x &= ~(0x80000000u >> b);
                mask = 0x80000000u >> b >> 1;
            }
            if (full_up) break;
        }
        if (full_up) {
            // The cursor stands on the bit after the last one handed out.
            c.word_offset = mask ? w : w + 1;
            c.mask = mask ? mask : 0x80000000u;
            break;
        }
        advance();
    }
    *n = got;
    if (!c.cur_seg) return 1;
    // Stop at the end when nothing is left behind the cursor.
    IX_BITMAP_SEGMENT_R* s = c.cur_seg;
    if (s->bitmap && !rowsheld(s)) {
        int32_t nw = words(ss);
        bool more = c.word_offset < nw && (s->bitmap[c.word_offset] & (c.mask | (c.mask - 1))) != 0;
        for (int64_t w = c.word_offset + 1; !more && w < nw; ++w) more = s->bitmap[w] != 0;
        if (!more) {
            advance();
            if (!c.cur_seg) return 1;
        }
    }
    return 0;
}

rctype ixcntl(ix_list_t* list, int64_t* count) {
    if (!list || !count) return 1;
    int64_t total = 0;
    for (IX_BITMAP_SEGMENT_R* s = list->head.next; s; s = s->next) {
        if (!s->bitmap && s->disk.cpr_t == Bm_One_Bit_Set) {
            ++total;
            continue;
        }
        if (rowsheld(s) || (!s->bitmap && s->disk.cpr_t == Bm_Bit_List)) {
            total += s->disk.data / 8;
            continue;
        }
        rctype rc = full(list, s);
        if (rc < 0) return rc;
        int64_t nbits;
        hs_obsno_t lo, hi;
        if (bm_info(s->bitmap, bm_bitmap_size(list->segsize), s->disk.base, &nbits, &lo, &hi) != 0)
            return hs_trace_error(TRACEFILE, __LINE__, IX_INCONSIST);
        total += nbits;
    }
    *count = total;
    return 0;
}

}  // namespace vrta

// Pages as they come from the file: checked before use, so that a damaged
// or hostile file gives a clear error naming the page instead of a read
// past a page or a walk that never ends; turned to this machine's byte
// order when made on the other; and compared against a search key.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "ix/bt.h"
#include "ix/btint.h"

namespace vrta {

namespace {

void swap32at(char* p) { bt_put32(p, __builtin_bswap32(bt_get32(p))); }
void swap16at(char* p) { bt_put16(p, __builtin_bswap16(bt_get16(p))); }
void swap64at(char* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    v = __builtin_bswap64(v);
    memcpy(p, &v, 8);
}

int keycmp(BTREE* t, const void* a, const void* b) {
    int c = t->bt_cmp ? t->bt_cmp(t->skbp, a, b, t->bt_keylen) : memcmp(a, b, t->bt_keylen);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

}  // namespace

int64_t bt_rowof(const void* data) {
    uint64_t v;
    memcpy(&v, data, 8);
    return static_cast<int64_t>(__builtin_bswap64(v));
}

void bt_putrow(void* data, int64_t row) {
    uint64_t v = __builtin_bswap64(static_cast<uint64_t>(row));
    memcpy(data, &v, 8);
}

void bt_swapmeta(char* m) {
    swap32at(m + 0);   // header version
    swap32at(m + 4);   // type
    swap64at(m + 8);   // segment_size
    swap32at(m + 16);  // value_len
    swap32at(m + 20);  // state
    for (uint32_t off = offsetof(_btmeta, m_magic); off < offsetof(_btmeta, pad1); off += 4) swap32at(m + off);
    swap64at(m + offsetof(_btmeta, m_segsize));
    swap64at(m + offsetof(_btmeta, m_unique_count));
    swap32at(m + offsetof(_btmeta, m_data_len));
    swap32at(m + offsetof(_btmeta, m_unused));
    swap32at(m + offsetof(_btmeta, m_unused) + 4);
    swap32at(m + offsetof(_btmeta, m_segp_dircount));
    for (int i = 0; i < BT_DIRSLOTS; ++i) swap32at(m + offsetof(_btmeta, m_segp_directory) + 4 * i);
    swap32at(m + offsetof(_btmeta, m_placeholder));
}

void bt_swapsegp(char* p, uint32_t maxentries) {
    for (uint32_t off = 0; off < offsetof(_btdesc, m_lastcount); off += 4) swap32at(p + off);
    swap64at(p + offsetof(_btdesc, m_lastcount));
    for (uint32_t off = offsetof(_btdesc, m_treemax); off < offsetof(_btdesc, m_pad); off += 4) swap32at(p + off);
    // Key prefixes are bytes already in the order they compare.
    for (uint32_t i = 0; i < maxentries; ++i) {
        char* e = p + BT_SEGDESCLEN + BT_SEGENTLEN * i;
        swap32at(e);
        swap32at(e + 4);
    }
}

void bt_swappage(BTREE* t, void* page) {
    char* h = static_cast<char*>(page);
    for (int off = 0; off < 16; off += 4) swap32at(h + off);
    swap16at(h + 16);
    swap16at(h + 18);
    uint32_t type = pg_flags(h) & P_TYPE;
    if (type != P_BLEAF && type != P_BINTERNAL) return;
    uint32_t top = bt_pagetop(t->bt_psize);
    indx_t lower = pg_lower(h);
    if (lower < BTDATAOFF || lower > top) return;  // the check refuses the page
    uint32_t n = pg_nentries(h);
    for (uint32_t i = 0; i < n; ++i) swap16at(h + BTDATAOFF + 2 * i);
    if (type != P_BINTERNAL) return;  // leaf data is the caller's; keys are bytes
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t off = pg_linp(h, i);
        if (off < BTDATAOFF || off + BINTERNAL_HEAD > top) continue;
        swap32at(h + off);
        swap32at(h + off + 4);
        swap32at(h + off + 8);
        if ((bt_get32(h + off + 8) & P_BIGKEY) && off + BINTERNAL_HEAD + NOVFLSIZE <= top) {
            swap32at(h + off + 12);
            swap32at(h + off + 16);
        }
    }
}

int bt_checkpage(BTREE* t, pgno_t pgno, const void* page, const char** why) {
    const char* h = static_cast<const char*>(page);
    pgno_t npages = t->bt_mp ? t->bt_mp->npages : static_cast<pgno_t>(t->bt_fd->filesize / t->bt_psize);
    uint32_t top = bt_pagetop(t->bt_psize);
    if (pg_pgno(h) != pgno) return *why = "page number in the page differs", -1;
    pgno_t prev = pg_prev(h), next = pg_next(h);
    if ((prev && prev >= npages) || (next && next >= npages)) return *why = "sibling link outside the file", -1;
    if (prev == pgno || next == pgno) return *why = "page links to itself", -1;
    uint32_t type = pg_flags(h) & P_TYPE;
    if (type == P_OVERFLOW) return 0;
    if (type != P_BLEAF && type != P_BINTERNAL) return *why = "unknown page type", -1;
    indx_t lower = pg_lower(h), upper = pg_upper(h);
    if (lower < BTDATAOFF || (lower & 1) || lower > upper || upper > top)
        return *why = "lower or upper outside the page", -1;
    uint32_t n = pg_nentries(h);
    if (type == P_BLEAF) {
        if (n > (top - BTDATAOFF) / (t->bt_lsize + 2)) return *why = "more leaf entries than fit", -1;
        for (uint32_t i = 0; i < n; ++i) {
            uint32_t off = pg_linp(h, i);
            if (off < upper || off + t->bt_lsize > top) return *why = "leaf entry outside the page", -1;
        }
        return 0;
    }
    if (n == 0) return *why = "internal page without entries", -1;
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t off = pg_linp(h, i);
        if (off < upper || off + BINTERNAL_HEAD > top) return *why = "internal entry outside the page", -1;
        uint32_t ksize = bt_get32(h + off), flags = bt_get32(h + off + 8);
        pgno_t child = bt_get32(h + off + 4);
        if (child == 0 || child >= npages || child == pgno) return *why = "child page outside the file", -1;
        if (flags & ~P_BIGKEY) return *why = "bad internal entry flags", -1;
        if (ksize > t->bt_cmplen || (ksize != t->bt_cmplen && !(i == 0 && ksize == 0)))
            return *why = "internal key of a bad size", -1;
        uint32_t stored = (flags & P_BIGKEY) ? NOVFLSIZE : ksize;
        if (off + bt_inlen(stored) > top) return *why = "internal entry outside the page", -1;
        if (flags & P_BIGKEY) {
            pgno_t ov = bt_get32(h + off + 12);
            if (ov == 0 || ov >= npages || bt_get32(h + off + 16) != ksize)
                return *why = "overflow key outside the file", -1;
        }
    }
    return 0;
}

int bt_pgin(void* cookie, pgno_t pgno, void* page) {
    auto* t = static_cast<BTREE*>(cookie);
    if (t->bt_flags & B_NEEDSWAP) bt_swappage(t, page);
    const char* why = nullptr;
    if (bt_checkpage(t, pgno, page, &why) != 0) {
        bt_fail(t, pgno, IX_TREEREAD, why);
        return -1;
    }
    return 0;
}

void* bt_getpage(BTREE* t, pgno_t pgno, rctype code) {
    if (pgno < t->bt_root || pgno >= bt_treeend(t)) {
        bt_fail(t, pgno, code, "page outside its tree");
        return nullptr;
    }
    t->bt_errpage = 0xffffffffu;
    void* h = mpool_get(t->bt_mp, pgno, 0);
    if (!h && t->bt_errpage != pgno) {
        bt_fail(t, pgno, code, errno == EPAGESHORT ? "short read of the page" : errno == EINVAL ? "page outside the file"
                                                                                               : "page cannot be read");
    }
    return h;
}

rctype bt_checkfree(BTREE* t) {
    _btmeta m;
    memcpy(&m, t->metapage, sizeof m);
    pgno_t npages = t->bt_mp->npages;
    char* buf = nullptr;
    pgno_t steps = 0;
    for (pgno_t pg = m.m_free; pg;) {
        if (pg >= npages || ++steps > npages) {
            free(buf);
            return bt_fail(t, pg, IX_BADDESC, "free page list loops or leaves the file");
        }
        if (!buf && !(buf = static_cast<char*>(malloc(t->bt_psize)))) return IX_NOMEM;
        if (mpool_read(t->bt_mp, buf, pg) != 0) {
            free(buf);
            return bt_fail(t, pg, IX_BADDESC, "free page cannot be read");
        }
        pg = pg_next(buf);
        if (t->bt_flags & B_NEEDSWAP) pg = __builtin_bswap32(pg);
    }
    free(buf);
    return 0;
}

rctype __bt_ikey(BTREE* t, const void* page, uint32_t i, const char** key, uint32_t* ksize, char* buf) {
    const char* e = pg_entry(page, i);
    *ksize = bt_get32(e);
    if (bt_get32(e + 8) & P_BIGKEY) {
        rctype rc = __ovfl_get(t, bt_get32(e + 12), bt_get32(e + 16), buf);
        if (rc < 0) return rc;
        *key = buf;
    } else {
        *key = e + BINTERNAL_HEAD;
    }
    return 0;
}

void bt_leafkey(BTREE* t, const char* entry, char* out) {
    memcpy(out, entry + t->bt_data_len, t->bt_keylen);
    if (!(t->bt_flags & B_NOEQUALS)) memcpy(out + t->bt_keylen, entry, t->bt_data_len);
}

int __bt_cmp(BTREE* t, const void* key, const void* data, const void* page, uint32_t i, pgno_t pgno, int* err) {
    if ((pg_flags(page) & P_TYPE) == P_BLEAF) {
        const char* e = pg_entry(page, i);
        int c = keycmp(t, key, e + t->bt_data_len);
        if (c || (t->bt_flags & B_NOEQUALS)) return c;
        if (!data) return -1;
        c = memcmp(data, e, t->bt_data_len);
        return c < 0 ? -1 : c > 0 ? 1 : 0;
    }
    // The first key of an internal page stands for everything below the next.
    if (i == 0) return 1;
    const char* k;
    uint32_t ks;
    if (__bt_ikey(t, page, i, &k, &ks, t->bt_ovflbuf) < 0) {
        bt_fail(t, pgno, IX_TREEREAD, "overflow key cannot be read");
        *err = 1;
        return 0;
    }
    int c = keycmp(t, key, k);
    if (c || (t->bt_flags & B_NOEQUALS)) return c;
    if (!data) return -1;
    c = memcmp(data, k + t->bt_keylen, t->bt_data_len);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

}  // namespace vrta

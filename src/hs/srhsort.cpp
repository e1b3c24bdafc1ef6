// The in-memory sort: one heap sort, specialised by how a record moves.
#include <cstdlib>
#include <cstring>

#include "hs/sr.h"

namespace vrta {

namespace {

// Most keys are plain bytes (memcmp); comparing them a word at a time,
// without a call per comparison, is what makes the sort fast.
struct KeyCmp {
    int (*cmp)(const void*, const void*, size_t);
    int keylen;
    bool bytes;
    KeyCmp(SKB_KEY* skb, int kl) : cmp(skb->mt.cmp), keylen(kl), bytes(skb->mt.cmp == memcmp) {}
    int operator()(const char* a, const char* b) const {
        if (!bytes) return cmp(a, b, keylen);
        int i = 0;
        for (; i + 8 <= keylen; i += 8) {
            uint64_t x, y;
            memcpy(&x, a + i, 8);
            memcpy(&y, b + i, 8);
            if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
        }
        for (; i < keylen; ++i) {
            unsigned char x = a[i], y = b[i];
            if (x != y) return x < y ? -1 : 1;
        }
        return 0;
    }
};

// Records of R bytes moved as whole words.
template <int R>
struct FixedAcc {
    struct Rec { unsigned char b[R]; };
    Rec* r;  // 1-based
    Rec saved;
    KeyCmp kc;
    FixedAcc(char* base, SKB_KEY* skb, int keylen) : r(reinterpret_cast<Rec*>(base) - 1), kc(skb, keylen) {}
    int cmp(long i, long j) const { return kc(reinterpret_cast<const char*>(r[i].b), reinterpret_cast<const char*>(r[j].b)); }
    int cmpsaved(long i) const { return kc(reinterpret_cast<const char*>(r[i].b), reinterpret_cast<const char*>(saved.b)); }
    void swap(long i, long j) { Rec t = r[i]; r[i] = r[j]; r[j] = t; }
    void move(long d, long s) { r[d] = r[s]; }
    void save(long i) { saved = r[i]; }
    void restore(long i) { r[i] = saved; }
    void prefetch(long) const {}
};

// Records of any length, moved through a buffer.
struct AnyAcc {
    char* base;  // 1-based
    long reclen;
    char* saved;
    char* tmp;
    KeyCmp kc;
    AnyAcc(char* b, SKB_KEY* skb, int keylen, int rl, char* buf)
        : base(b - rl), reclen(rl), saved(buf), tmp(buf + rl), kc(skb, keylen) {}
    char* at(long i) const { return base + i * reclen; }
    int cmp(long i, long j) const { return kc(at(i), at(j)); }
    int cmpsaved(long i) const { return kc(at(i), saved); }
    void swap(long i, long j) {
        memcpy(tmp, at(i), reclen);
        memcpy(at(i), at(j), reclen);
        memcpy(at(j), tmp, reclen);
    }
    void move(long d, long s) { memcpy(at(d), at(s), reclen); }
    void save(long i) { memcpy(saved, at(i), reclen); }
    void restore(long i) { memcpy(at(i), saved, reclen); }
    void prefetch(long) const {}
};

// Entries of setup: a key prefix and the record's index; the records stay
// where they are and are read only when two prefixes tie.
struct PtrAcc {
    uint64_t* p;  // 1-based
    const char* base;
    long reclen;
    uint64_t saved = 0;
    KeyCmp kc;
    PtrAcc(uint64_t* setup, const char* b, int rl, SKB_KEY* skb, int keylen)
        : p(setup - 1), base(b), reclen(rl), kc(skb, keylen) {}
    int order(uint64_t a, uint64_t b) const {
        uint32_t pa = static_cast<uint32_t>(a >> 32), pb = static_cast<uint32_t>(b >> 32);
        if (pa != pb) return pa < pb ? -1 : 1;
        return kc(base + srindex(a) * reclen, base + srindex(b) * reclen);
    }
    int cmp(long i, long j) const { return order(p[i], p[j]); }
    int cmpsaved(long i) const { return order(p[i], saved); }
    void swap(long i, long j) { uint64_t t = p[i]; p[i] = p[j]; p[j] = t; }
    void move(long d, long s) { p[d] = p[s]; }
    void save(long i) { saved = p[i]; }
    void restore(long i) { p[i] = saved; }
    void prefetch(long) const {}
};

inline bool stopped(volatile int* interrupt) { return interrupt && *interrupt; }

template <class A>
rctype heapsort(A& a, long n, volatile int* interrupt) {
    // Heapify: sift each parent down until it is greater than its children.
    for (long s = n / 2; s >= 1; --s) {
        if (stopped(interrupt)) return SR_RC_INTERRUPT;
        long i = s;
        for (;;) {
            long c = 2 * i;
            if (c > n) break;
            if (c + 1 <= n && a.cmp(c + 1, c) > 0) c++;
            if (a.cmp(i, c) > 0) break;
            a.swap(i, c);
            i = c;
        }
    }
    // Extraction, bottom-up: the hole left by the greatest sinks along the
    // larger children to a leaf without comparing the displaced record,
    // which then climbs back to its place; most such records belong low.
    for (long m = n; m >= 2; --m) {
        if (stopped(interrupt)) return SR_RC_INTERRUPT;
        a.save(m);
        a.move(m, 1);
        long h = m - 1, i = 1;
        while (2 * i <= h) {
            long c = 2 * i;
            a.prefetch(c);
            if (c + 1 <= h && a.cmp(c + 1, c) > 0) c++;
            a.move(i, c);
            i = c;
        }
        while (i > 1) {
            long p = i / 2;
            if (a.cmpsaved(p) > 0) break;
            a.move(i, p);
            i = p;
        }
        a.restore(i);
    }
    return 0;
}

template <int R>
rctype fixedsort(char* base, long n, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    if (reclen != R) return SR_RC_BADCOUNT;
    FixedAcc<R> a(base, skb, keylen);
    return heapsort(a, n, interrupt);
}

}  // namespace

rctype srhsrt8(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    return fixedsort<8>(base, n, keylen, reclen, skb, interrupt);
}
rctype srhsr12(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    return fixedsort<12>(base, n, keylen, reclen, skb, interrupt);
}
rctype srhsr16(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    return fixedsort<16>(base, n, keylen, reclen, skb, interrupt);
}
rctype srhsr20(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    return fixedsort<20>(base, n, keylen, reclen, skb, interrupt);
}
rctype srhsr24(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    return fixedsort<24>(base, n, keylen, reclen, skb, interrupt);
}

rctype srhsort(char* base, long n, uint64_t*, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    if (reclen <= 0) return SR_RC_BADCOUNT;
    char* buf = static_cast<char*>(malloc(2 * static_cast<size_t>(reclen)));
    if (!buf) return SR_RC_NOMEM;
    AnyAcc a(base, skb, keylen, reclen, buf);
    rctype rc = heapsort(a, n, interrupt);
    free(buf);
    return rc;
}

rctype srhsorp(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb, volatile int* interrupt) {
    PtrAcc a(setup, base, reclen, skb, keylen);
    return heapsort(a, n, interrupt);
}

sr_sortfp_t srgetsfp(sr_stype_t, sr_mode_t mode, int keylen, int reclen) {
    // Only the layout picks the member; the algorithm has been checked at open.
    if (mode == SR_POINTER_SORT) return srhsorp;
    if (keylen >= 4) {
        switch (reclen) {
        case 8: return srhsrt8;
        case 12: return srhsr12;
        case 16: return srhsr16;
        case 20: return srhsr20;
        case 24: return srhsr24;
        default: break;
        }
    }
    return srhsort;
}

}  // namespace vrta

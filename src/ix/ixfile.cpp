// The writers' handle: a new index made row by row or from the sorter's
// records, or an index taking the rows added after it was finished. Keys
// are made by the index's key block, one key slot per writing thread; the
// operations go to the hybrid index's writer. What the hybrid writer can't
// do (delete, update, truncate) is refused, never pretended.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hs/hs.h"
#include "ix/ixfe.h"
#include "ix/ixhy.h"
#include "sda/daidx.h"
#include "sda/darc.h"

namespace vrta {

struct IX_COMMON_T {
    IXH_HEADER_B* specific;       // the hybrid writer
    void* gspecific;              // a second, global tree: none for a hybrid index
    SKB_KEY* skbp;
    const unsigned char* trntbl;
    DA_FID* data_set;
    DA_IDX* iid;                  // .idx
    DA_IDX* auxiid;               // .hbx
    char name[33];
    char* key_buf;                // max_threads records of the key block
    int32_t obs_len;
    int64_t segment_size;
    int options;                  // 1 unique, 2 a global tree, 128 NOMISS
    volatile int* interrupt;
    hs_obsno_t start_obsno;
    int rank_type;
    int append_mode;
    int is_hybrid;
    int max_threads;
    int64_t nummiss;              // rows of a missing key seen
};

namespace {

constexpr int OPT_UNIQUE = 1;
constexpr int OPT_NOMISS = 128;

IX_COMMON_T* com(IX_FILE_T* f) { return f->ix_private; }

rctype ix_check_interrupt(IX_COMMON_T* c) { return c->interrupt && *c->interrupt ? IX_INTERRUPT : 0; }

// The key of a row in slot's buffer; *miss when all its columns are missing.
rctype ix_build_key(IX_COMMON_T* c, const void* row, hs_obsno_t obs, int slot, char** key, int* miss) {
    if (slot < 0 || slot > c->max_threads) return IX_INCONSIST;
    char* k = c->key_buf + static_cast<size_t>(slot) * static_cast<size_t>(c->skbp->info.reclen);
    long n = 0;
    *miss = 0;
    rctype rc = c->skbp->mt.makekey(c->skbp, row, obs, k, &n, miss);
    if (rc < 0) return rc;
    *key = k;
    return 0;
}

rctype ix_add_observation(IX_COMMON_T* c, const void* row, hs_obsno_t obs, int slot) {
    rctype rc = ix_check_interrupt(c);
    char* key = nullptr;
    int miss = 0;
    if (rc == 0) rc = ix_build_key(c, row, obs, slot, &key, &miss);
    if (rc < 0) return rc;
    if (miss) ++c->nummiss;
    if (miss && (c->options & OPT_NOMISS)) return 0;
    rc = ixhyadd(c->specific, key, obs, slot);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ix_unique_add(IX_FILE_T* f, const void* block, hs_obsno_t start, int64_t* n) {
    IX_COMMON_T* c = com(f);
    if (!block || !n || *n < 0 || start < 1) return IX_BADOPTS;
    int64_t want = *n;
    *n = 0;
    for (int64_t i = 0; i < want; ++i) {
        rctype rc = ix_add_observation(c, static_cast<const char*>(block) + i * c->obs_len, start + i, 0);
        if (rc < 0) return rc;
        ++*n;
    }
    return 0;
}

rctype ix_unique_addran(IX_FILE_T* f, const void* block, hs_obsno_t start, int64_t* n) {
    return ix_unique_add(f, block, start, n);
}

rctype ix_srtadd(IX_FILE_T* f, const void* rec) {
    IX_COMMON_T* c = com(f);
    if (!rec) return IX_BADOPTS;
    if (ix_check_interrupt(c)) return IX_INTERRUPT;
    if (c->skbp->mt.ismissing && c->skbp->mt.ismissing(c->skbp, rec)) {
        ++c->nummiss;
        if (c->options & OPT_NOMISS) return 0;
    }
    rctype rc = ixhysrtadd(c->specific, rec, 0, 0);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ix_bucketadd(IX_FILE_T* f, const void* recs, int64_t n) {
    IX_COMMON_T* c = com(f);
    if (!recs || n < 0) return IX_BADOPTS;
    for (int64_t i = 0; i < n; ++i) {
        rctype rc = ix_srtadd(f, static_cast<const char*>(recs) + i * c->skbp->info.reclen);
        if (rc < 0) return rc;
    }
    return 0;
}

rctype ix_find(IX_FILE_T* f, const void* row, hs_obsno_t obs, hs_obsno_t* other) {
    IX_COMMON_T* c = com(f);
    if (!row || !other) return IX_BADOPTS;
    if (!(c->options & OPT_UNIQUE)) return IX_INCONSIST;
    char* key = nullptr;
    int miss = 0;
    rctype rc = ix_build_key(c, row, obs, 0, &key, &miss);
    if (rc < 0) return rc;
    rc = ixhyfind(c->specific, key, obs, other);
    if (rc == 0) return IX_DUPKEY;
    return rc;
}

rctype ix_flush(IX_FILE_T*, int flags) {
    // The hybrid writer holds values until finish; a flush asks for nothing more.
    return flags == 0 ? IX_BADOPTS : 0;
}

// Rows after the ones the index covers aren't in it; a missing key under
// NOMISS never was.
bool covers(IX_COMMON_T* c, hs_obsno_t obs) { return !c->append_mode || obs < c->start_obsno; }

rctype ix_unique_delete(IX_FILE_T* f, const void* row, hs_obsno_t obs) {
    IX_COMMON_T* c = com(f);
    if (!row || obs < 1) return IX_BADOPTS;
    if (!covers(c, obs)) return 0;
    char* key = nullptr;
    int miss = 0;
    rctype rc = ix_build_key(c, row, obs, 0, &key, &miss);
    if (rc < 0) return rc;
    if (miss) {
        --c->nummiss;
        if (c->options & OPT_NOMISS) return 0;
    }
    rc = ixhydelete(c->specific, key, obs);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ix_unique_update(IX_FILE_T* f, const void* oldrow, const void* newrow, hs_obsno_t obs) {
    IX_COMMON_T* c = com(f);
    if (!oldrow || !newrow || obs < 1) return IX_BADOPTS;
    if (!covers(c, obs)) return 0;
    char *ok = nullptr, *nk = nullptr;
    int omiss = 0, nmiss = 0;
    rctype rc = ix_build_key(c, oldrow, obs, 0, &ok, &omiss);
    // The new key goes to the spare slot behind the threads' own.
    if (rc == 0) rc = ix_build_key(c, newrow, obs, c->max_threads, &nk, &nmiss);
    if (rc < 0) return rc;
    // Under NOMISS a missing key is in no value: the row only leaves or joins one.
    bool nomiss = (c->options & OPT_NOMISS) != 0;
    if (nomiss && nmiss) rc = omiss ? 0 : ixhydelete(c->specific, ok, obs);
    else rc = ixhyupdt(c->specific, nomiss && omiss ? nullptr : ok, nk, obs);
    if (rc < 0) return rc;
    c->nummiss += nmiss - omiss;
    return 0;
}

rctype ix_unique_truncate(IX_FILE_T* f, hs_obsno_t obs) {
    IX_COMMON_T* c = com(f);
    // Only a unique index can be cut back; the others are rebuilt by their callers.
    if (!(c->options & OPT_UNIQUE)) return IX_INCONSIST;
    if (obs < 0) return IX_BADOPTS;
    rctype rc = ixhytruncate(c->specific, obs);
    return rc > 0 ? IX_INCONSIST : rc;
}

rctype ix_delete_not_defined(IX_FILE_T*, const void*, hs_obsno_t) { return IX_BADOPTS; }
rctype ix_update_not_defined(IX_FILE_T*, const void*, const void*, hs_obsno_t) { return IX_BADOPTS; }
rctype ix_trunc_not_defined(IX_FILE_T*, hs_obsno_t) { return IX_BADOPTS; }

DA_IDX* ixgetfile(IX_FILE_T* f, int which) { return which == 0 ? com(f)->iid : which == 1 ? com(f)->auxiid : nullptr; }

rctype ixbuildkey(IX_FILE_T* f, const void* row, int slot, const void** key) {
    if (slot < 0 || slot >= com(f)->max_threads) return IX_INCONSIST;
    char* k = nullptr;
    int miss = 0;
    rctype rc = ix_build_key(com(f), row, 0, slot, &k, &miss);
    if (rc < 0) return rc;
    *key = k;
    return miss ? 1 : 0;
}

void* ix_keybuf(IX_FILE_T* f, int slot) {
    IX_COMMON_T* c = com(f);
    if (slot < 0 || slot >= c->max_threads) return nullptr;
    return c->key_buf + static_cast<size_t>(slot) * static_cast<size_t>(c->skbp->info.reclen);
}

// Closes both files, clean only after a good finish, and frees the handle.
rctype release(IX_FILE_T* f, bool good) {
    IX_COMMON_T* c = com(f);
    rctype rc = 0;
    for (DA_IDX* ip : {c->iid, c->auxiid}) {
        if (!ip) continue;
        rctype r = ip->mt->closeidx(ip, good ? DA_IDXCLEAN : DA_IDXDIRTY);
        if (r < 0 && rc == 0) rc = r;
    }
    free(c->key_buf);
    free(f);
    return rc;
}

rctype ix_unique_fin(IX_FILE_T* f) {
    IX_COMMON_T* c = com(f);
    int32_t kl = c->skbp->info.colkeylen;
    std::vector<char> minmax(2 * static_cast<size_t>(kl));
    IXH_STATS st{};
    st.minkey = minmax.data();
    st.maxkey = minmax.data() + kl;
    rctype rc = ixhyfin(c->specific, &st);
    c->specific = nullptr;
    DA_FID* fp = c->data_set;
    std::string name = c->name;
    bool isnew = !c->append_mode;
    int64_t nummiss = c->nummiss;
    rctype crc = release(f, rc == 0);
    if (rc == 0) rc = crc;
    if (rc == 0) {
        DA_KEYSTR k{};
        DA_ICB* icb = nullptr;
        if ((rc = fp->mt->queryicb(fp, name.c_str(), &k)) == 0) icb = daluicb(fcbof(fp), name.c_str(), static_cast<int>(name.size()));
        DA_KEYSTAT ks{};
        ks.minmax = st.has_minmax && k.keylen == kl ? minmax.data() : nullptr;
        ks.numvals = st.n_values;
        ks.nummiss = nummiss + (!isnew && icb ? icb->idxkst->nummiss : 0);
        ks.highobs = st.rows;
        if (rc == 0) rc = fp->mt->setkeystat(fp, name.c_str(), &ks);
    }
    if (rc < 0 && isnew) {
        rctype d = fp->mt->dropidx(fp, name.c_str(), 0);
        if (d < 0) hsprint("ixcreat: the index %s could not be removed: Reason=%s\n", name.c_str(), hsstrer(d));
    }
    return rc;
}

rctype ix_unique_abort(IX_FILE_T* f) {
    IX_COMMON_T* c = com(f);
    rctype rc = c->specific ? ixhyabort(c->specific) : 0;
    c->specific = nullptr;
    DA_FID* fp = c->data_set;
    std::string name = c->name;
    bool isnew = !c->append_mode;
    rctype crc = release(f, false);
    if (rc == 0) rc = crc;
    if (isnew) {
        rctype d = fp->mt->dropidx(fp, name.c_str(), 0);
        if (rc == 0 && d < 0) rc = d;
    }
    return rc;
}

void ix_option_setup(IX_FILE_T* f) {
    f->fp = IX_FILEFP_T{ix_unique_add, ix_unique_fin, ix_unique_abort, ix_delete_not_defined, ix_unique_addran,
                        ix_update_not_defined, ix_flush, ix_find, ix_srtadd, ix_bucketadd, ixgetfile, ixbuildkey,
                        ix_trunc_not_defined, ix_keybuf};
    // An index that is being appended to takes changes as well.
    if (f->ix_private->append_mode) {
        f->fp.del = ix_unique_delete;
        f->fp.update = ix_unique_update;
        f->fp.truncate = ix_unique_truncate;
    }
}

// The handle and its two files open for writing, marked dirty on disk first.
rctype openfiles(DA_FID* fp, const char* name, int maxthreads, volatile int* interrupt, IX_FILE_T** fo) {
    auto* f = static_cast<IX_FILE_T*>(calloc(1, sizeof(IX_FILE_T) + sizeof(IX_COMMON_T)));
    if (!f) return IX_NOMEM;
    IX_COMMON_T* c = reinterpret_cast<IX_COMMON_T*>(f + 1);
    f->ix_private = c;
    c->data_set = fp;
    c->interrupt = interrupt;
    c->max_threads = maxthreads;
    c->segment_size = fp->segsize;
    c->obs_len = fp->xoehdr->obslen;
    c->is_hybrid = 1;
    snprintf(c->name, sizeof c->name, "%s", name);
    rctype rc = fp->mt->openidx(fp, name, DA_IDXFIDX | DA_IDXOWRITE, &c->iid);
    if (rc == 0) rc = fp->mt->openidx(fp, name, DA_IDXFHBX | DA_IDXOWRITE, &c->auxiid);
    if (rc == 0) rc = dasetstate(c->iid, DA_IDXDIRTY);
    if (rc == 0) rc = dasetstate(c->auxiid, DA_IDXDIRTY);
    if (rc == 0 && !(c->skbp = static_cast<SKB_KEY*>(c->iid->skb))) rc = IX_INCONSIST;
    if (rc == 0 && !(c->key_buf = static_cast<char*>(
                         calloc(static_cast<size_t>(maxthreads) + 1, static_cast<size_t>(c->skbp->info.reclen) + 8))))
        rc = IX_NOMEM;
    if (rc < 0) {
        release(f, false);
        return rc;
    }
    *fo = f;
    return 0;
}

}  // namespace

rctype ixcreat(DA_FID* data_set, const char* name, int keyflags, int nvar, const int32_t* nvar0,
               const unsigned char* trntbl, volatile int* interrupt, int maxthreads, IX_FILE_T** handle) {
    if (!handle) return IX_BADOPTS;
    *handle = nullptr;
    if (!data_set || !name || nvar < 1 || nvar > DA_MAXKEYVARS || !nvar0 || maxthreads <= 0) return IX_BADOPTS;
    // Hybrid only, over a plain tree, never continuous, unique without a global tree.
    if (!(keyflags & IX_KHYBRID) || (keyflags & (IX_KCONTINUOUS | 8)) || !(keyflags & IX_KPLAIN) ||
        ((keyflags & IX_KGLOBAL) && (keyflags & IX_KUNIQUE)) || (keyflags & IX_KGLOBAL))
        return IX_BADOPTS;
    if (data_set->segsize <= 0) return IX_BADSEGSIZE;
    int files = DA_IDXFIDX | DA_IDXFHBX | ((keyflags & IX_KUNIQUE) ? 1 : 0) | ((keyflags & IX_KNOMISS) ? 2 : 0);
    rctype rc = data_set->mt->addidx(data_set, name, files, nvar, nvar0);
    if (rc < 0) return rc;
    IX_FILE_T* f = nullptr;
    rc = openfiles(data_set, name, maxthreads, interrupt, &f);
    if (rc == 0) {
        IX_COMMON_T* c = com(f);
        c->trntbl = trntbl;
        c->options = ((keyflags & IX_KUNIQUE) ? OPT_UNIQUE : 0) | ((keyflags & IX_KNOMISS) ? OPT_NOMISS : 0);
        rc = ixhycreat(c->auxiid, c->iid, c->skbp->info.colkeylen, c->segment_size,
                       (keyflags & IX_KUNIQUE) ? IXH_OUNIQUE : 0, c->skbp, data_set->xoehdr->numobs, maxthreads,
                       &c->specific);
        if (rc < 0) {
            c->specific = nullptr;
            release(f, false);
            f = nullptr;
        }
    }
    if (rc < 0) {
        // A failed create leaves no index.
        rctype d = data_set->mt->dropidx(data_set, name, 0);
        if (d < 0) hsprint("ixcreat: the index %s could not be removed: Reason=%s\n", name, hsstrer(d));
        return rc;
    }
    ix_option_setup(f);
    *handle = f;
    return 0;
}

rctype ixappnd(DA_FID* data_set, const char* name, int options, volatile int* interrupt, int maxthreads,
               IX_FILE_T** handle) {
    if (!handle) return IX_BADOPTS;
    *handle = nullptr;
    // The hybrid writer offers no repair: an index left broken is rebuilt.
    if (!data_set || !name || maxthreads <= 0 || options != 0) return IX_BADOPTS;
    DA_KEYSTR k{};
    rctype rc = data_set->mt->queryicb(data_set, name, &k);
    if (rc < 0) return rc;
    if (!(k.keyflags & DA_IDXFHBX)) return IX_BADOPTS;
    IX_FILE_T* f = nullptr;
    if ((rc = openfiles(data_set, name, maxthreads, interrupt, &f)) < 0) return rc;
    IX_COMMON_T* c = com(f);
    c->append_mode = 1;
    c->options = ((k.keyflags & 1) ? OPT_UNIQUE : 0) | ((k.keyflags & 2) ? OPT_NOMISS : 0);
    c->start_obsno = k.highobs + 1;
    IXH_HEADER_D hd{};
    bool dirty = (k.checks & DA_ICBBAD) != 0;
    if ((rc = ixhy_rdhdr(c->auxiid, &hd, 0)) == 0) {
        if (hd.common.segment_size != c->segment_size) rc = IX_INCONSIST;
        dirty = dirty || hd.common.state == IX_DIRTY;
    }
    if (rc == 0)
        rc = ixhyapnd(c->auxiid, c->iid, c->segment_size, (c->options & OPT_UNIQUE) ? IXH_OUNIQUE : 0, c->skbp,
                      k.highobs, data_set->xoehdr->numobs, maxthreads, &c->specific);
    if (rc < 0) {
        c->specific = nullptr;
        release(f, false);
        return rc;
    }
    ix_option_setup(f);
    *handle = f;
    return dirty ? IX_LEFTDIRTY : 0;
}

}  // namespace vrta

// The sorter's life: open, fill bins, sort and spill them, finish, deliver,
// close.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/hsmem.h"
#include "hs/sr.h"
#include "option/op.h"

namespace vrta {

namespace {

bool optdouble(const char* name, double* v) {
    void* opt = opgtgbl();
    int len = 0;
    return opt && opgetop(opt, name, v, &len) >= 0;
}

int recordlen(const SR_PARMS* p) {
    return p->skb ? p->skb->info.reclen : p->key_size + p->aux_size;
}

// SORTMODE, or by layout: small word-sized records move, others go by pointer.
sr_mode_t pickmode(const SR_PARMS* p, int reclen) {
    if (p->mode == SR_MOVE_SORT || p->mode == SR_POINTER_SORT) return p->mode;
    void* opt = opgtgbl();
    char v[17];
    int len = 0;
    if (opt && opgetop(opt, "SORTMODE", v, &len) >= 0 && len > 0 && len <= 16) {
        if (len <= 7 && strncasecmp(v, "POINTER", len) == 0) return SR_POINTER_SORT;
        if (len <= 4 && strncasecmp(v, "MOVE", len) == 0) return SR_MOVE_SORT;
    }
    return (reclen < 25 && reclen % 4 == 0) ? SR_MOVE_SORT : SR_POINTER_SORT;
}

int64_t sortlimit() {
    double d = 0;
    if (!optdouble("SORTSIZE", &d) || d <= 0) return SR_NOLIMIT;
    return d >= 9.2e18 ? SR_NOLIMIT : static_cast<int64_t>(d);
}

// With nothing configured the first try is half the machine, not the
// address space: beyond that a sort would only thrash.
size_t machinehalf() {
    long pages = sysconf(_SC_PHYS_PAGES), psz = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || psz <= 0) return size_t{1} << 30;
    return static_cast<size_t>(pages) * psz / 2;
}

void setupbin(SR_CTX* sp) {
    if (sp->parms.mode == SR_POINTER_SORT) {
        uintptr_t s = reinterpret_cast<uintptr_t>(sp->bin) + sp->records_per_bin * static_cast<uintptr_t>(sp->reclen);
        sp->setup = reinterpret_cast<uint64_t*>((s + 7) & ~uintptr_t{7});
    } else {
        sp->setup = nullptr;
    }
}

rctype sr_flush_bin(SR_CTX* sp) {
    if (sp->numsave == 0) return 0;
    rctype rc = 0;
    if (!sp->file_handle) rc = sr_file_init(sp, &sp->file_handle);
    if (rc < 0 || !sp->file_handle) {
        sp->spillrc = rc < 0 ? rc : SR_RC_SPILL;
        return SR_RC_SPILL;
    }
    SR_BIN* bin = nullptr;
    if (sp->parms.mode == SR_POINTER_SORT) rc = sor_bin_save_ptr(sp->file_handle, sp->bin, sp->setup, sp->numsave, &bin);
    else rc = sor_bin_save(sp->file_handle, sp->bin, sp->numsave, &bin);
    if (rc < 0 && rc != SR_RC_NOMEM) {
        sp->spillrc = sp->file_handle->failrc < 0 ? sp->file_handle->failrc : rc;
        return SR_RC_SPILL;
    }
    if (rc < 0) return rc;
    if (sp->flast) sp->flast->next = bin;
    else sp->flist = bin;
    sp->flast = bin;
    sp->numsave = 0;
    return 0;
}

rctype sr_sort_save(SR_CTX* sp, char* bin, long nrecs, volatile int* interrupt) {
    if (sp->parms.mode == SR_POINTER_SORT) {
        bool bytekey = sp->parms.skb->mt.cmp == memcmp;
        for (long i = 0; i < nrecs; ++i)
            sp->setup[i] = srentry(bin + i * static_cast<long>(sp->reclen), sp->keylen, bytekey, static_cast<uint32_t>(i));
    }
    if (nrecs > 1) {
        rctype rc = sp->sortfp(bin, nrecs, sp->setup, sp->keylen, sp->reclen, sp->parms.skb, interrupt);
        if (interrupt && *interrupt) return SR_RC_INTERRUPT;
        if (rc < 0) return rc == SR_RC_BADCOUNT ? rc : SR_RC_SORTFAIL;
    }
    sp->totrecs += nrecs;
    sp->numsave += nrecs;
    sp->numbin += 1;
    sp->numrec = 0;
    // The first bin stays in memory: an input that fits one bin never
    // touches a file. It is written when a second bin needs the room.
    if (sp->numbin == 1) return 0;
    return sr_flush_bin(sp);
}

rctype getbin(SR_CTX* sp) {
    if (sp->bin) return 0;
    sp->bin = static_cast<char*>(hshimalloc(sp->binsize));
    if (!sp->bin) return SR_RC_NOMEM;
    setupbin(sp);
    return 0;
}

// A pointer-sorted bin put in order in place, by following each cycle of
// the permutation once.
void permute(SR_CTX* sp, long n) {
    long rl = sp->reclen;
    char* tmp = static_cast<char*>(malloc(rl));
    if (!tmp) return;
    char* base = sp->bin;
    uint64_t* e = sp->setup;
    for (long i = 0; i < n; ++i) {
        if (srindex(e[i]) == static_cast<uint32_t>(i)) continue;
        memcpy(tmp, base + i * rl, rl);
        long j = i;
        for (;;) {
            long src = srindex(e[j]);
            e[j] = static_cast<uint64_t>(j);  // done: the record at j is in place
            if (src == i) {
                memcpy(base + j * rl, tmp, rl);
                break;
            }
            memcpy(base + j * rl, base + src * rl, rl);
            j = src;
        }
    }
    free(tmp);
}

}  // namespace

int64_t srsortmemory(int64_t asked, const char* first) {
    if (asked > 0) return asked;
    double d = 0;
    if (first && optdouble(first, &d) && d > 0) return static_cast<int64_t>(d);
    if (optdouble("SORTSIZE", &d) && d > 0) return static_cast<int64_t>(d);
    return 64ll << 20;
}

int srgetmode(SR_PARMS* parms) {
    int reclen = recordlen(parms);
    parms->mode = pickmode(parms, reclen);
    return reclen;
}

void srfitmem(SR_PARMS* parms) {
    int reclen = srgetmode(parms);
    if (parms->mode != SR_POINTER_SORT || reclen <= 0) return;
    size_t m = parms->mem_size;
    m -= 8 * (m / (reclen + 8));
    parms->mem_size = (m + 511) & ~size_t{511};
}

int64_t srmemsize() {
    double d = 0;
    if (!optdouble("SORTSIZE", &d) || d <= 0) return 0;
    return d >= 9.2e18 ? SR_NOLIMIT : static_cast<int64_t>(d);
}

long srmergerecs(int mtype, size_t merge_size, int rec_size) {
    if (rec_size <= 0) return 0;
    long r = static_cast<long>(merge_size / rec_size);
    if (mtype != 1 || r < 2) return r;
    return std::max(r / 2, r - r / 2);
}

size_t srgetmergesize(SR_PARMS* parms, long nrecs) {
    size_t s = static_cast<size_t>(nrecs) * srgetmode(parms);
    int mtype = parms->flags & SR_MERGEMASK;
    if (mtype == 0) mtype = srqrymerge();
    return mtype == 1 ? 2 * s : s;
}

rctype sropen(SR_PARMS* parms, SR_CTX** spp) {
    *spp = nullptr;
    if (!parms) return SR_RC_BADCOUNT;
    auto* sp = static_cast<SR_CTX*>(calloc(1, sizeof(SR_CTX)));
    if (!sp) return SR_RC_NOMEM;
    sp->parms = *parms;
    SR_PARMS& p = sp->parms;
    rctype rc = 0;
    if (!p.skb) {
        rc = skbmeminit(&sp->memskb, p.key_size, p.key_size + p.aux_size);
        p.skb = &sp->memskb;
        sp->keylen = p.key_size;
        sp->reclen = p.key_size + p.aux_size;
    } else {
        sp->keylen = p.skb->info.totkeylen;
        sp->reclen = p.skb->info.reclen;
        p.key_size = sp->keylen;
        p.aux_size = sp->reclen - sp->keylen;
    }
    if (rc < 0 || sp->reclen <= 0 || sp->keylen < 0 || sp->keylen > sp->reclen) {
        free(sp);
        return SR_RC_BADCOUNT;
    }
    if (p.algorithm == SR_DEFAULTSORT) {
        char v[17];
        int len = 0;
        void* opt = opgtgbl();
        if (opt && opgetop(opt, "SORT_ALGORITHM", v, &len) >= 0 && len > 0) {
            if (len == 9 && strncasecmp(v, "QUICKSORT", 9) == 0) p.algorithm = SR_QUICKSORT;
            else if (len == 8 && strncasecmp(v, "HEAPSORT", 8) == 0) p.algorithm = SR_HEAPSORT;
            else rc = SR_RC_BADALG;
        } else {
            p.algorithm = SR_HEAPSORT;
        }
    }
    if (rc == 0 && p.algorithm != SR_HEAPSORT && p.algorithm != SR_QUICKSORT) rc = SR_RC_BADALG;
    if (rc < 0) {
        free(sp);
        return rc;
    }
    int64_t limit = sortlimit();
    p.mode = pickmode(&p, sp->reclen);
    bool given = p.mem_size != 0;
    if (!given) {
        p.mem_size = static_cast<size_t>(limit);
    } else if (p.mode == SR_POINTER_SORT) {
        // A given size counts moved records; pointers come on top.
        size_t n = std::min<size_t>(p.mem_size / sp->reclen, 2147483647);
        unsigned __int128 w = 8 + static_cast<unsigned __int128>(n) * (sp->reclen + 8);
        p.mem_size = w > static_cast<unsigned __int128>(SR_NOLIMIT) ? static_cast<size_t>(SR_NOLIMIT)
                                                                  : static_cast<size_t>(w);
    }
    size_t mem = p.mem_size;
    if (!(p.flags & SR_EXACTMEM)) {
        if (mem > static_cast<size_t>(limit)) mem = static_cast<size_t>(limit);
        if (!given && limit == SR_NOLIMIT) mem = std::min(mem, machinehalf());
        while (mem > 0 && !(sp->bin = static_cast<char*>(hshimalloc(mem)))) mem /= 2;
    } else if (mem > 0) {
        sp->bin = static_cast<char*>(hshimalloc(mem));
    }
    if (!sp->bin) {
        free(sp);
        return SR_RC_NOMEM;
    }
    p.mem_size = sp->binsize = mem;
    if (p.mode == SR_MOVE_SORT) sp->records_per_bin = static_cast<long>(mem / sp->reclen);
    else sp->records_per_bin = mem >= 8 ? static_cast<long>((mem - 8) / (sp->reclen + 8)) : 0;
    // A pointer-mode entry names its record by a 32-bit index.
    if (p.mode == SR_POINTER_SORT) sp->records_per_bin = std::min(sp->records_per_bin, 0xFFFFFFFFL);
    if (sp->records_per_bin <= 0) {
        hshifree(sp->bin, mem);
        free(sp);
        return SR_RC_NOMEM;
    }
    setupbin(sp);
    sp->sortfp = srgetsfp(p.algorithm, p.mode, sp->keylen, sp->reclen);
    *spp = sp;
    return 0;
}

rctype sraddbin(SR_CTX* sp, char** binbuf, long* numadd, char** pblk) {
    if (!sp || sp->done || sp->run_fp) return SR_RC_BADCOUNT;
    rctype rc = getbin(sp);
    if (rc < 0) return rc;
    // A sorted bin still held must make room for the next.
    if (sp->numrec == 0 && sp->numsave > 0) {
        rc = sr_flush_bin(sp);
        if (rc < 0) return rc;
    }
    *binbuf = sp->bin + sp->numrec * static_cast<long>(sp->reclen);
    *numadd = sp->records_per_bin - sp->numrec;
    if (pblk) *pblk = sp->bin;
    return 0;
}

rctype srendbin(SR_CTX* sp, long numadd) {
    if (!sp || numadd < 0 || sp->numrec + numadd > sp->records_per_bin) return SR_RC_BADCOUNT;
    sp->numrec += numadd;
    if (sp->numrec == sp->records_per_bin) return sr_sort_save(sp, sp->bin, sp->numrec, sp->parms.interrupt);
    return 0;
}

rctype srflush(SR_CTX* sp, int flags) {
    if (!sp) return SR_RC_BADCOUNT;
    if (sp->numrec > 0) {
        rctype rc = sr_sort_save(sp, sp->bin, sp->numrec, sp->parms.interrupt);
        if (rc < 0) return rc;
    }
    if (flags & 1) {
        rctype rc = sr_flush_bin(sp);
        if (rc < 0) return rc;
        if (sp->bin) hshifree(sp->bin, sp->binsize);
        sp->bin = nullptr;
        sp->setup = nullptr;
    }
    return 0;
}

rctype srfinish(SR_CTX* sp) {
    if (!sp || sp->run_fp) return SR_RC_BADCOUNT;
    if (sp->numrec > 0) {
        rctype rc = sr_sort_save(sp, sp->bin, sp->numrec, sp->parms.interrupt);
        if (rc < 0) return rc;
    }
    memset(&sp->run_data, 0, sizeof sp->run_data);
    sp->run_data.rec_len = sp->reclen;
    if (!sp->flist) {
        if (sp->parms.mode == SR_POINTER_SORT && sp->numsave > 1) permute(sp, sp->numsave);
        sp->run_fp = sor_read_run_buf;
        sp->run_data.n_recs = static_cast<long>(sp->totrecs);
        sp->run_data.buf = sp->bin;
        if (sp->totrecs == 0 && sp->bin) {
            hshifree(sp->bin, sp->binsize);
            sp->bin = nullptr;
        }
        return 0;
    }
    rctype rc = sr_file_flush(sp->file_handle);
    if (rc < 0) return rc;
    for (SR_BIN* b = sp->flist; b; b = b->next) {
        b->binbuf = static_cast<char*>(malloc(sp->file_handle->binbufsize));
        if (!b->binbuf) return SR_RC_NOMEM;
    }
    unsigned __int128 all = static_cast<unsigned __int128>(sp->totrecs) * sp->reclen;
    size_t limit = all > static_cast<unsigned __int128>(SR_NOLIMIT) ? static_cast<size_t>(SR_NOLIMIT)
                                                                   : static_cast<size_t>(all);
    size_t ms = sp->parms.merge_size;
    if (ms == 0) {
        double d = 0;
        if (optdouble("MERGEBUFSIZE", &d) && d > sp->reclen) ms = d >= 9.2e18 ? SR_NOLIMIT : static_cast<size_t>(d);
    }
    // Without a size from the caller or the options the merge keeps to the
    // sort's own memory: a spilled sort must stay bounded.
    if (ms == 0) ms = std::min(limit, sp->parms.mem_size);
    if (ms > limit) ms = limit;
    if (ms < static_cast<size_t>(sp->reclen)) ms = sp->reclen;
    if (ms < sp->binsize || !sp->bin) {
        if (sp->bin) hshifree(sp->bin, sp->binsize);
        sp->bin = static_cast<char*>(hshimalloc(ms));
        sp->binsize = sp->bin ? ms : 0;
        if (!sp->bin) return SR_RC_NOMEM;
    }
    sp->records_per_bin = static_cast<long>(sp->binsize / sp->reclen);
    sp->setup = nullptr;
    sp->run_data.tree = sor_init_merge(sp, sp->flist, sor_bin_read);
    if (!sp->run_data.tree) return SR_RC_NOMERGE;
    sp->run_fp = sor_read_run_file;
    sp->run_data.n_recs = sp->records_per_bin;
    sp->run_data.buf = sp->bin;
    return 0;
}

rctype srrdrun(SR_CTX* sp, sr_storefp_t store, void* store_data) {
    if (!sp || !sp->run_fp || !store) return SR_RC_BADCOUNT;
    sp->storefp = store;
    sp->store_data = store_data;
    return store(sp->run_fp, &sp->run_data, store_data);
}

long srnextrec(SR_CTX* sp, char** rec) {
    *rec = nullptr;
    if (!sp || !sp->run_fp) return SR_RC_BADCOUNT;
    if (sp->done) return 0;
    if (sp->nrdrecs == 0) {
        char* loc = nullptr;
        long n = 0;
        rctype rc = sp->run_fp(&loc, &n, &sp->run_data);
        if (rc != 0) {
            hsprint("srnextrec: Run function returned error: %s\n", hsstrer(rc));
            sp->done = true;
            sp->runrc = rc;
            if (rc == SR_MERGE_INTERRUPTED) return SR_RC_INTERRUPT;
            return rc < 0 ? rc : SR_RC_NOMERGE;
        }
        if (n <= 0 || !loc) {
            sp->done = true;
            return 0;
        }
        sp->rdbufp = loc;
        sp->nrdrecs = n;
    }
    *rec = sp->rdbufp;
    sp->rdbufp += sp->reclen;
    sp->nrdrecs--;
    return sp->reclen;
}

rctype srclose(SR_CTX* sp) {
    if (!sp) return 0;
    rctype rc = sor_term_merge(sp->run_data.tree);
    sp->run_data.tree = nullptr;
    if (sp->bin) hshifree(sp->bin, sp->binsize);
    for (SR_BIN* b = sp->flist; b;) {
        SR_BIN* n = b->next;
        free(b->binbuf);
        free(b);
        b = n;
    }
    rctype frc = sr_file_term(sp->file_handle);
    if (rc == 0) rc = frc;
    if (sp->parms.skb == &sp->memskb) skb_memdestroy(&sp->memskb);
    free(sp);
    return rc;
}

const SR_PARMS* srgetparms(SR_CTX* sp) { return &sp->parms; }
SR_RUNDATA* srgetrundata(SR_CTX* sp) { return &sp->run_data; }
int64_t srgetnrecs(SR_CTX* sp) { return sp->totrecs; }
rctype srgetrc(SR_CTX* sp) { return sp->runrc; }
rctype srgetspillrc(SR_CTX* sp) { return sp ? sp->spillrc : 0; }

rctype srsort2init(SR_PARMS* parms, SR_CTX** sp) { return sropen(parms, sp); }

rctype srsort2addbin(SR_CTX* sp, char* bin, long nrecs) {
    for (long done = 0; done < nrecs;) {
        if (sp->parms.interrupt && *sp->parms.interrupt) return SR_RC_INTERRUPT;
        char* dst = nullptr;
        long room = 0;
        rctype rc = sraddbin(sp, &dst, &room, nullptr);
        if (rc < 0) return rc;
        long n = std::min(room, nrecs - done);
        memcpy(dst, bin + done * static_cast<long>(sp->reclen), n * static_cast<size_t>(sp->reclen));
        rc = srendbin(sp, n);
        if (rc < 0) return rc;
        done += n;
    }
    return 0;
}

rctype srsort2abort(SR_CTX* sp) { return srclose(sp); }

rctype srsort(SR_PARMS* parms, sr_fillfp_t fillbin, void* fill_data, sr_storefp_t store, void* store_data,
              volatile int* interrupt) {
    SR_PARMS p = *parms;
    p.interrupt = interrupt;
    SR_CTX* sp = nullptr;
    rctype rc = sropen(&p, &sp);
    if (rc < 0) return rc;
    for (;;) {
        if (interrupt && *interrupt) {
            rc = SR_RC_INTERRUPT;
            break;
        }
        char* bin = nullptr;
        long room = 0;
        rc = sraddbin(sp, &bin, &room, nullptr);
        if (rc < 0) break;
        long n = room;
        rctype frc = fillbin(bin, &n, fill_data);
        if (frc < 0) {
            rc = frc;
            break;
        }
        if (frc > 1 || n < 0 || n > room) {
            rc = SR_RC_BADFILL;
            break;
        }
        rc = srendbin(sp, n);
        if (rc < 0 || frc == 1) break;
    }
    if (rc >= 0) rc = srfinish(sp);
    if (rc >= 0) rc = srrdrun(sp, store, store_data);
    rctype crc = srclose(sp);
    return rc < 0 ? rc : crc < 0 ? crc : rc;
}

}  // namespace vrta

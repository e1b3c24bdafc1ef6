// Feeding the group-by scan: keys built once per row, one AVL insert, and
// the row's values folded into the group's cells; a thread whose memory is
// used up spills its tree to its work file as one sorted bin.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "hs/sr.h"
#include "sda/dafd.h"
#include "sda/daods.h"
#include "sfnc/xf.h"
#include "ssubs/hscsdbl.h"
#include "ssubs/skb.h"
#include "ssubs/vz.h"
#include "wh/whgsint.h"

namespace vrta {

double whgs_num(const char* p, int len) {
    double d;
    if (len == 8) {
        memcpy(&d, p, 8);
        return d;
    }
    unsigned char w[8];
    vzrftrc(p, len, w);
    memcpy(&d, w, 8);
    return d;
}

void whgs_putnum(char* p, int len, double v) {
    if (len >= 8) {
        memcpy(p, &v, 8);
        return;
    }
    unsigned char w[8];
    memcpy(w, &v, 8);
    memcpy(p, w + 8 - len, len);
}

bool whgs_blank(WHGS_HANDLE* gsh, const char* s, int len) {
    HS_NLSENV* env = gsh->whenv.dataenv;
    if (env && env->nls_missing) return env->nls_missing(env, s, len) != 0;
    return vzAL(' ', s, len) != 0;
}

namespace {

int strorder(WHGS_HANDLE* gsh, const char* a, int al, const char* b, int bl) {
    HS_NLSENV* env = gsh->whenv.dataenv;
    if (env && env->nls_strcoll) return env->nls_strcoll(env, a, al, b, bl);
    int n = al < bl ? al : bl;
    int c = memcmp(a, b, n);
    return c ? c : al - bl;
}

// Adds v to *cell unless the sum would leave the doubles.
bool addguard(double* cell, double v) {
    if (v > 0 && *cell > DBL_MAX - v) return false;
    if (v < 0 && *cell < -(DBL_MAX - (-v))) return false;
    *cell += v;
    return true;
}

void cellfail(WHGS_HANDLE* gsh, WHGS_COL* col, char* data, double* cell) {
    *cell = gsh->missing;
    data[col->excflg_off] = 1;
    __atomic_store_n(&col->math_excep, true, __ATOMIC_RELAXED);
    __atomic_fetch_or(&gsh->flags, WHGS_HF_FPE, __ATOMIC_RELAXED);
}

double weightof(const WHGS_COL* col, const char* row) {
    const da_namestr_t* w = col->nstr[1];
    if (!w) return 1.0;
    double d = whgs_num(row + w->npos, w->nlng);
    return vzismiss(d) ? 0.0 : d;
}

// One row's value into the group's cell.
void accumulate(WHGS_HANDLE* gsh, WHGS_COL* col, const char* row, char* data, bool isnew) {
    char* dst = data + col->ztdataoff;
    const da_namestr_t* ns = col->nstr[0];
    switch (col->gsfunc) {
    case PS_FT_BLANK:
    case PS_FT_MIN:
    case PS_FT_MAX:
        whgs_do_minmax(gsh, col, row + ns->npos, ns->nlng, dst, isnew);
        return;
    default: break;
    }
    double cell;
    memcpy(&cell, dst, 8);
    if (!isnew && data[col->excflg_off]) return;
    switch (col->gsfunc) {
    case PS_FT_CNT:
    case PS_FT_FREQ:
    case PS_FT_NMISS: {
        if (isnew) cell = 0.0;
        bool miss = false;
        if (ns) miss = ns->type == 1 ? vzismiss(whgs_num(row + ns->npos, ns->nlng)) : whgs_blank(gsh, row + ns->npos, ns->nlng);
        if ((col->gsfunc == PS_FT_NMISS) == miss) cell += 1.0;
        break;
    }
    case PS_FT_SUM:
    case PS_FT_SUMWGT:
    case PS_FT_UWSUM: {
        double v = whgs_num(row + ns->npos, ns->nlng);
        if (isnew) cell = gsh->missing;
        if (vzismiss(v)) break;
        double w = weightof(col, row);
        if (w != 1.0) {
            if (whgs_mul_exception(v, w)) return cellfail(gsh, col, data, reinterpret_cast<double*>(dst));
            v *= w;
        }
        if (vzismiss(cell)) cell = v;
        else if (!addguard(&cell, v)) return cellfail(gsh, col, data, reinterpret_cast<double*>(dst));
        break;
    }
    case PS_FT_USS: {
        double v = whgs_num(row + ns->npos, ns->nlng);
        if (isnew) cell = 0.0;
        if (vzismiss(v)) break;
        if (std::fabs(v) > WHGS_SQRTMAX) return cellfail(gsh, col, data, reinterpret_cast<double*>(dst));
        double sq = v * v;
        double w = weightof(col, row);
        if (w != 1.0) {
            if (whgs_mul_exception(sq, w)) return cellfail(gsh, col, data, reinterpret_cast<double*>(dst));
            sq *= w;
        }
        if (!addguard(&cell, sq)) return cellfail(gsh, col, data, reinterpret_cast<double*>(dst));
        break;
    }
    default: return;
    }
    memcpy(dst, &cell, 8);
}

void whgsthrinit(WHGS_HANDLE* gsh, WHGS_PTHREAD* thr) {
    int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    thr->bldaggrbuf = static_cast<char*>(calloc(1, gsh->ztdata_len + 8));
    long ob = rowlen > WHGS_OUTBUF ? rowlen : WHGS_OUTBUF;
    thr->outbuf = static_cast<char*>(malloc(ob));
    thr->iobufrows = ob / rowlen;
    thr->initialized = true;
}

}  // namespace

bool whgs_mul_exception(double a, double b) {
    if (a == 0 || b == 0) return false;
    double l = std::log(std::fabs(a)) + std::log(std::fabs(b));
    return l < -WHGS_LOGMAX || l > WHGS_LOGMAX;
}

bool whgs_div_exception(double n, double d) {
    if (d == 0) return true;
    if (n == 0) return false;
    double l = std::log(std::fabs(n)) - std::log(std::fabs(d));
    return l < -WHGS_LOGMAX || l > WHGS_LOGMAX;
}

void whgs_do_minmax(WHGS_HANDLE* gsh, WHGS_COL* col, const char* srcp, int srclen, char* dstp, bool is_new_dst) {
    int dstlen = col->celllen;
    bool take;
    if (col->nstr[0]->type == 1) {
        double s = whgs_num(srcp, srclen);
        if (is_new_dst) {
            take = true;
        } else {
            double d = whgs_num(dstp, dstlen);
            if (vzismiss(s)) take = false;
            else if (vzismiss(d)) take = true;
            else take = col->gsfunc == PS_FT_MAX ? s > d : s < d;
        }
        if (!take) return;
        if (dstlen == srclen) memcpy(dstp, srcp, srclen);
        else whgs_putnum(dstp, dstlen, s);
        return;
    }
    if (is_new_dst) {
        take = true;
    } else if (whgs_blank(gsh, srcp, srclen)) {
        take = false;
    } else if (whgs_blank(gsh, dstp, dstlen)) {
        take = true;
    } else {
        int c = strorder(gsh, srcp, srclen, dstp, dstlen);
        take = col->gsfunc == PS_FT_MAX ? c > 0 : c < 0;
    }
    if (take) memcpy(dstp, srcp, srclen < dstlen ? srclen : dstlen);
}

void whgs_revwords(char* key, int len) {
    for (int i = 0; i + 4 <= len; i += 4) {
        uint32_t w;
        memcpy(&w, key + i, 4);
        w = __builtin_bswap32(w);
        memcpy(key + i, &w, 4);
    }
}

rctype whgsbldkey(WHGS_HANDLE* gsh, bool grpby, const WHGS_KEYDESC* kd, int ndesc, const char* data, int buf_len,
                  char* key_buf) {
    int end = 0;
    for (int i = 0; i < ndesc; i++) {
        const WHGS_KEYDESC& p = kd[i];
        char* k = key_buf + p.keyoff;
        int klen = p.len;
        if (p.flags & WHGS_KD_CONST) {
            memcpy(k, "GGGGGGGG", 8);
            klen = 8;
        } else if (p.flags & WHGS_KD_FMT) {
            klen = p.nfl;
            memset(k, ' ', klen);
            int rc;
            if (p.ntype == 1) rc = xfxpn(gsh->xfenv, whgs_num(data + p.off, p.len), p.nfl, 0, p.fmtcode, k);
            else rc = xfxpc(gsh->xfenv, data + p.off, p.len, p.fmtcode, k, p.nfl);
            if (rc < 0) return rc;
        } else if (p.ntype == 1 && p.len == 8) {
            // hscsdbl of a full double, in one word: negatives (but -0)
            // complemented, others with the sign bit set, then big-endian.
            uint64_t u;
            memcpy(&u, data + p.off, 8);
            u = (u >> 63) && u != 0x8000000000000000ull ? ~u : u | 0x8000000000000000ull;
            u = __builtin_bswap64(u);
            memcpy(k, &u, 8);
        } else {
            memcpy(k, data + p.off, p.len);
            if (p.ntype == 1) hscsdbl(k, p.len);
        }
        if (p.flags & WHGS_KD_DESC)
            for (int j = 0; j < klen; j++) k[j] = static_cast<char>(~k[j]);
        // A distinct part is wider than its column: the gap is blank.
        int next = i + 1 < ndesc ? kd[i + 1].keyoff : buf_len;
        if (p.keyoff + klen < next) memset(k + klen, ' ', next - p.keyoff - klen);
        end = p.keyoff + klen;
    }
    if (grpby) {
        if (end < buf_len) memset(key_buf + end, ' ', buf_len - end);
        whgs_revwords(key_buf, buf_len);
    }
    return 0;
}

rctype whgsaggr(WHGS_HANDLE* gsh, int thrd_index, const char* obs_buf, int obs_len, long num_obs) {
    if (!gsh || thrd_index < 0 || thrd_index >= gsh->nthreads || num_obs < 0 || (num_obs > 0 && !obs_buf) ||
        (num_obs > 0 && obs_len < gsh->reclen))
        return WHGS_RC_BADREQ;
    WHGS_PTHREAD* thr = &gsh->thrd_data[thrd_index];
    mutex_lock(&gsh->ztpool.lock);
    gsh->total_whgsaggr_numobs += num_obs;
    bool meta = (gsh->flags & WHGS_HF_MRUN) != 0;
    mutex_unlock(&gsh->ztpool.lock);
    if (meta) {
        thr->initialized = true;
        thr->count += static_cast<double>(num_obs);
        return 0;
    }
    if (!thr->initialized) {
        whgsthrinit(gsh, thr);
        if (!thr->bldaggrbuf || !thr->outbuf) return WHGS_RC_NOMEM;
    }
    whgs_setthread(thr);
    const int keylen = gsh->ztkey_len;
    const long nodesize = WHGS_NODE + keylen + gsh->ztdata_len;
    const int nkey = gsh->ngrpby + gsh->ncntdgrpby;
    for (long r = 0; r < num_obs; r++) {
        const char* row = obs_buf + r * obs_len;
        if (!thr->entry) {
            void* e = whgsztpoolget(&gsh->ztpool, thr, nodesize);
            if (!e) {
                rctype rc = whgsflush(gsh, thr);
                if (rc < 0) return rc;
                whgsztpoolr(&gsh->ztpool, thr);
                thr->nrows = 0;
                e = whgsztpoolget(&gsh->ztpool, thr, nodesize);
                if (!e) {
                    hsprint("whgsgetr: cannot allocate zavltree entry\n");
                    return WHGS_RC_NOMEM;
                }
            }
            thr->entry = static_cast<zavlS*>(e);
        }
        char* key = reinterpret_cast<char*>(thr->entry) + WHGS_NODE;
        rctype rc = whgsbldkey(gsh, true, gsh->grpby, nkey, row, keylen, key);
        if (rc < 0) return rc;
        zavlS* node = zavl_add_uinta(&thr->zavltree, thr->entry, WHGS_NODE, keylen / 4);
        bool isnew = node == thr->entry;
        char* data = reinterpret_cast<char*>(node) + WHGS_NODE + keylen;
        if (isnew) {
            thr->entry = nullptr;
            thr->nrows++;
            memset(data, 0, gsh->ztdata_len);
        }
        for (int i = 0; i < gsh->nusedcols; i++) {
            WHGS_COL* col = &gsh->cols[i];
            if (col->is_complex || col->fromkey || col->dist) continue;
            if (col->gsfunc == PS_FT_BLANK && !isnew && !col->fmtkeypart) continue;
            accumulate(gsh, col, row, data, isnew);
        }
    }
    thr->perthread_whgsaggr_numobs += num_obs;
    return 0;
}

rctype whgsflush(WHGS_HANDLE* gsh, WHGS_PTHREAD* thr) {
    const int rowlen = gsh->ztkey_len + gsh->ztdata_len;
    if (!thr->binfid) {
        auto* fi = static_cast<SR_FILE*>(calloc(1, sizeof(SR_FILE)));
        if (!fi) return WHGS_RC_NOMEM;
        thr->fileinfo = fi;
        rctype rc = sr_create_spill_file("vrtapgb", fi, static_cast<int>(thr->spill_seqno), &thr->binfid);
        if (rc < 0) {
            hsprint("whgsflush: cannot create the spill file %s: Reason=%s\n", fi->filename, hsstrer(rc));
            return rc;
        }
        thr->filepos = 0;
    }
    auto* bin = static_cast<WHGS_BIN*>(calloc(1, sizeof(WHGS_BIN)));
    if (!bin) {
        hsprint("whgsflush: cannot allocate flush bin\n");
        return WHGS_RC_NOMEM;
    }
    bin->thr_handle = thr;
    bin->startfpos = thr->filepos;
    bin->lastrow = thr->nrows;
    if (thr->lastbin) thr->lastbin->next = bin;
    else thr->binhead = bin;
    thr->lastbin = bin;
    long n = 0;
    auto writeout = [&]() -> rctype {
        da_off_t off = thr->filepos;
        rctype rc = thr->binfid->fdwrite(thr->binfid, thr->outbuf, n * rowlen, &off);
        if (rc < 0) {
            hsprint("whgsflush: the spill file %s could not be written: Reason=%s\n",
                    static_cast<SR_FILE*>(thr->fileinfo)->filename, hsstrer(rc));
            return rc;
        }
        thr->filepos += n * rowlen;
        gsh->spillbytes += n * rowlen;
        n = 0;
        return 0;
    };
    for (zavlS* z = zavl2list(thr->zavltree); z; z = zavl_next_node(z)) {
        memcpy(thr->outbuf + n * rowlen, reinterpret_cast<char*>(z) + WHGS_NODE, rowlen);
        if (++n == thr->iobufrows)
            if (rctype rc = writeout()) return rc;
    }
    if (n > 0)
        if (rctype rc = writeout()) return rc;
    thr->nbinrows += thr->nrows;
    thr->nrows = 0;
    thr->nflushes++;
    thr->zavltree = nullptr;
    return 0;
}

}  // namespace vrta

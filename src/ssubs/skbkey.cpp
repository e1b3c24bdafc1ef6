// Key blocks: rows to memcmp-ordered key records.
#include <cstdlib>
#include <cstring>

#include "hs/hsgcb.h"
#include "ssubs/skb.h"

namespace vrta {

namespace {

// The top 16 bits of a number all ones mark a missing value.
inline bool nummissing(const unsigned char* dbl8) { return dbl8[7] == 0xff && dbl8[6] == 0xff; }

void invert(unsigned char* p, long n) {
    for (long i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(~p[i]);
}

void keyblank(const SKB_INFO& in, char* buf, int len) {
    if (len <= 0) return;
    if (in.keyenv && in.keyenv->nls_blankfill) in.keyenv->nls_blankfill(in.keyenv, buf, len);
    else memset(buf, ' ', len);
}

bool charmissing(const SKB_INFO& in, const char* v, int len) {
    if (in.dataenv && in.dataenv->nls_missing) return in.dataenv->nls_missing(in.dataenv, v, len) != 0;
    for (int i = 0; i < len; ++i)
        if (v[i] != ' ') return false;
    return true;
}

// One character column into its key bytes: transcoded and blank filled when
// the key's encoding differs, then through the sort sequence.
rctype charkey(SKB_INFO& in, const SKB_COL& c, const char* v, unsigned char* k) {
    if (in.nvtph) {
        int len = c.nlng;
        while (len > 0 && v[len - 1] == ' ') --len;
        long written = 0;
        if (len > 0) {
            rctype rc = hsnlstpconv(in.nvtph, v, len, reinterpret_cast<char*>(k), c.klng, &written);
            if (rc < 0) return rc;
        }
        keyblank(in, reinterpret_cast<char*>(k) + written, c.klng - static_cast<int>(written));
    } else {
        memcpy(k, v, c.nlng);
    }
    if (in.sortseq) hsttrans(k, k, c.klng, in.sortseq);
    return 0;
}

int ismissnum(const SKB_COL& c, const unsigned char* k) {
    unsigned char m = c.order ? 0xff : 0x00;
    return k[0] == m && k[1] == m;
}

int ismisschar(const SKB_INFO& in, const SKB_COL& c, const unsigned char* k) {
    return memcmp(k, in.blankkey + c.koff, c.klng) == 0;
}

rctype makekey_stub(SKB_KEY*, const void*, hs_obsno_t, void*, long*, int*) { return skb_invalid(); }

}  // namespace

// The runtime's widening, under the name the key code knows it by.
void vzrftrc(const void* source, int len, void* target) { hsrftrc(source, len, target); }

void hsttrans(void* dst, const void* src, long len, const unsigned char* table) {
    auto* d = static_cast<unsigned char*>(dst);
    auto* s = static_cast<const unsigned char*>(src);
    for (long i = 0; i < len; ++i) d[i] = table[s[i]];
}

rctype skb_invalid() { return SKB_RC_INVALID; }

rctype skbinit(SKB_KEY* skb, HS_NLSENV* keyenv, HS_NLSENV* dataenv, const unsigned char* sortseq, int creflags,
               int datalen, int maxcols) {
    if (!skb || maxcols < 1 || datalen < 0) return SKB_RC_INVALID;
    memset(skb, 0, sizeof *skb);
    SKB_INFO& in = skb->info;
    in.keyenv = keyenv;
    in.dataenv = dataenv;
    in.sortseq = sortseq;
    in.creflags = creflags;
    in.datalen = datalen;
    in.maxcols = maxcols;
    in.obs_offset = in.data_offset = -1;
    if (maxcols >= 2) {
        in.cols = static_cast<SKB_COL*>(calloc(maxcols, sizeof(SKB_COL)));
        if (!in.cols) return SKB_RC_NOMEM;
    } else {
        in.cols = &skb->defcol;
    }
    if (hsnlstpneeded(keyenv, dataenv)) {
        in.nvloc = hsnlshandle();
        rctype rc = hsnlstpopen(dataenv->encoding, keyenv->encoding, &in.nvtph);
        if (rc < 0) {
            if (in.cols != &skb->defcol) free(in.cols);
            in.cols = nullptr;
            return SKB_RC_NOTRANS;
        }
    }
    skb->mt.destroy = skb_destroy;
    skb->mt.addcol = skb_addcol;
    skb->mt.addend = skb_addend;
    skb->mt.makekey = (creflags & SKB_MAKEKEY) ? skb_makekey : makekey_stub;
    skb->mt.extractkey = skb_extractkey;
    skb->mt.ismissing = skb_ismiss_mixed;
    skb->mt.cmp = memcmp;
    skb->mt.fillkey = skb_fillkey;
    return 0;
}

rctype skbmeminit(SKB_KEY* skb, int keylen, int reclen) {
    if (!skb || keylen < 0 || reclen < keylen || reclen <= 0) return SKB_RC_INVALID;
    memset(skb, 0, sizeof *skb);
    SKB_INFO& in = skb->info;
    in.totkeylen = in.colkeylen = keylen;
    in.reclen = reclen;
    in.obs_offset = in.data_offset = -1;
    in.cols = &skb->defcol;
    in.maxcols = 1;
    skb->mt.destroy = skb_memdestroy;
    skb->mt.addcol = [](SKB_KEY*, int, int, int, int) { return skb_invalid(); };
    skb->mt.addend = [](SKB_KEY*, int) { return skb_invalid(); };
    skb->mt.makekey = makekey_stub;
    skb->mt.extractkey = [](SKB_KEY*, const void*, void*, hs_obsno_t*) { return skb_invalid(); };
    skb->mt.ismissing = [](SKB_KEY*, const void*) { return 0; };
    skb->mt.cmp = memcmp;
    skb->mt.fillkey = skb_memfill;
    return 0;
}

rctype skb_addcol(SKB_KEY* skb, int npos, int nlng, int ntype, int order) {
    SKB_INFO& in = skb->info;
    if (ntype != 1 && ntype != 2) return SKB_RC_BADTYPE;
    if (npos < 0 || nlng <= 0 || (ntype == 1 && (nlng < 2 || nlng > 8))) return SKB_RC_INVALID;
    if (in.ncols >= in.maxcols) return SKB_RC_INVALID;
    SKB_COL& c = in.cols[in.ncols];
    c.npos = npos;
    c.nlng = nlng;
    c.klng = nlng;
    c.ntype = ntype;
    c.order = order ? 1 : 0;
    if (ntype == 1) {
        in.creflags |= SKB_HASNUM;
        if (nlng < 8) in.creflags |= SKB_SHORTNUM;
    } else {
        in.creflags |= SKB_HASCHAR;
        if (in.nvtph) {
            long l = hsnlstplongest(in.nvtph, nlng);
            if (l > nlng) c.klng = static_cast<int32_t>(l);
        }
    }
    c.koff = in.colkeylen;
    in.colkeylen += c.klng;
    in.ncols++;
    return 0;
}

rctype skb_addend(SKB_KEY* skb, int endflags) {
    SKB_INFO& in = skb->info;
    in.creflags |= endflags;
    int f = in.creflags;
    in.totkeylen = in.reclen = in.colkeylen;
    if (f & SKB_OBS) {
        in.reclen += 8;
        if (!(f & SKB_OBSNATIVE)) in.totkeylen += 8;
    }
    if (f & SKB_PAD4) {
        in.keypadlen = (4 - in.totkeylen % 4) % 4;
        in.totkeylen += in.keypadlen;
        in.reclen += in.keypadlen;
    }
    if (f & SKB_OBS) in.obs_offset = (f & SKB_OBSNATIVE) ? in.totkeylen : in.colkeylen;
    else in.obs_offset = -1;
    if (f & SKB_DATA) {
        in.data_offset = in.reclen;
        in.reclen += in.datalen;
    } else {
        in.data_offset = -1;
    }
    if (f & SKB_PAD4) {
        in.recpadlen = (4 - in.reclen % 4) % 4;
        in.reclen += in.recpadlen;
    }
    skb->mt.makekey = (f & SKB_MAKEKEY) ? skb_makekey : makekey_stub;
    skb->mt.cmp = memcmp;  // the key bytes compare themselves
    bool allnum8 = true;
    for (int i = 0; i < in.ncols; ++i)
        if (in.cols[i].ntype != 1 || in.cols[i].nlng != 8) allnum8 = false;
    if (!(f & SKB_HASNUM) && (f & SKB_HASCHAR)) skb->mt.ismissing = skb_ismiss_char;
    else if ((f & SKB_HASNUM) && !(f & SKB_HASCHAR) && allnum8) skb->mt.ismissing = skb_ismiss_numeric;
    else skb->mt.ismissing = skb_ismiss_mixed;

    // The key image of blank character columns, for the missing tests.
    free(in.blankkey);
    in.blankkey = nullptr;
    if ((f & SKB_HASCHAR) && in.colkeylen > 0) {
        in.blankkey = static_cast<unsigned char*>(calloc(in.colkeylen, 1));
        if (!in.blankkey) return SKB_RC_NOMEM;
        for (int i = 0; i < in.ncols; ++i) {
            const SKB_COL& c = in.cols[i];
            if (c.ntype != 2) continue;
            unsigned char* k = in.blankkey + c.koff;
            keyblank(in, reinterpret_cast<char*>(k), c.klng);
            if (in.sortseq) hsttrans(k, k, c.klng, in.sortseq);
            if (c.order) invert(k, c.klng);
        }
    }
    return 0;
}

rctype skb_makekey(SKB_KEY* skb, const void* rowbuf, hs_obsno_t obsno, void* keybuf, long* nkeyrec, int* miss) {
    SKB_INFO& in = skb->info;
    auto* row = static_cast<const char*>(rowbuf);
    auto* rec = static_cast<unsigned char*>(keybuf) + *nkeyrec * static_cast<long>(in.reclen);
    bool test = in.creflags & SKB_MISSING;
    int nmiss = 0;
    for (int i = 0; i < in.ncols; ++i) {
        const SKB_COL& c = in.cols[i];
        unsigned char* k = rec + c.koff;
        const char* v = row + c.npos;
        if (c.ntype == 1) {
            memcpy(k, v, c.nlng);
            if (test) {
                unsigned char w[8];
                vzrftrc(v, c.nlng, w);
                if (nummissing(w)) nmiss++;
            }
            hscsdbl(k, c.nlng);
        } else {
            if (test && charmissing(in, v, c.nlng)) nmiss++;
            rctype rc = charkey(in, c, v, k);
            if (rc < 0) return rc;
        }
        if (c.order) invert(k, c.klng);
    }
    if (in.keypadlen) memset(rec + in.totkeylen - in.keypadlen, 0, in.keypadlen);
    if (in.obs_offset >= 0) {
        memcpy(rec + in.obs_offset, &obsno, 8);
        // Big-endian inside the key, so that equal keys keep rising row numbers.
        if (!(in.creflags & SKB_OBSNATIVE)) vvzstrev(rec + in.obs_offset, 8);
    }
    if (in.data_offset >= 0) memcpy(rec + in.data_offset, row, in.datalen);
    if (in.recpadlen) memset(rec + in.reclen - in.recpadlen, 0, in.recpadlen);
    if (miss) *miss = (test && in.ncols > 0 && nmiss == in.ncols) ? 1 : 0;
    (*nkeyrec)++;
    return 0;
}

rctype skb_extractkey(SKB_KEY* skb, const void* keyrec, void* rowbuf, hs_obsno_t* obsno) {
    SKB_INFO& in = skb->info;
    auto* rec = static_cast<const unsigned char*>(keyrec);
    if (rowbuf) {
        // Transcoded or translated characters cannot be turned back.
        if ((in.creflags & SKB_HASCHAR) && (in.nvtph || in.sortseq)) return SKB_RC_INVALID;
        auto* row = static_cast<unsigned char*>(rowbuf);
        for (int i = 0; i < in.ncols; ++i) {
            const SKB_COL& c = in.cols[i];
            unsigned char* v = row + c.npos;
            memcpy(v, rec + c.koff, c.nlng);
            if (c.order) invert(v, c.nlng);
            if (c.ntype == 1) hsrsdbl(v, c.nlng);
        }
    }
    if (obsno && in.obs_offset >= 0) {
        unsigned char b[8];
        memcpy(b, rec + in.obs_offset, 8);
        if (!(in.creflags & SKB_OBSNATIVE)) vvzstrev(b, 8);
        memcpy(obsno, b, 8);
    }
    return 0;
}

void skb_fillkey(SKB_KEY*, int which, void* keybuf, long len) {
    if (len > 0) memset(keybuf, which == 1 ? 0x00 : 0xff, len);
}

void skb_memfill(SKB_KEY* skb, int which, void* keybuf, long len) { skb_fillkey(skb, which, keybuf, len); }

int skb_ismiss_char(SKB_KEY* skb, const void* key) {
    const SKB_INFO& in = skb->info;
    return in.ncols > 0 && in.blankkey && memcmp(key, in.blankkey, in.colkeylen) == 0;
}

int skb_ismiss_numeric(SKB_KEY* skb, const void* key) {
    const SKB_INFO& in = skb->info;
    auto* k = static_cast<const unsigned char*>(key);
    for (int i = 0; i < in.ncols; ++i)
        if (!ismissnum(in.cols[i], k + in.cols[i].koff)) return 0;
    return in.ncols > 0;
}

int skb_ismiss_mixed(SKB_KEY* skb, const void* key) {
    const SKB_INFO& in = skb->info;
    auto* k = static_cast<const unsigned char*>(key);
    for (int i = 0; i < in.ncols; ++i) {
        const SKB_COL& c = in.cols[i];
        int m = c.ntype == 1 ? ismissnum(c, k + c.koff) : ismisschar(in, c, k + c.koff);
        if (!m) return 0;
    }
    return in.ncols > 0;
}

rctype skb_destroy(SKB_KEY* skb) {
    if (!skb) return 0;
    SKB_INFO& in = skb->info;
    if (in.nvtph) hsnlstpclose(in.nvtph);
    in.nvtph = nullptr;
    if (in.cols && in.cols != &skb->defcol) free(in.cols);
    in.cols = nullptr;
    free(in.blankkey);
    in.blankkey = nullptr;
    return 0;
}

rctype skb_memdestroy(SKB_KEY*) { return 0; }

}  // namespace vrta

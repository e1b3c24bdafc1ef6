// Transcoding of character columns between a table's encoding and its
// client's: one pipeline each way, column by column, in place. A value is
// transcoded without its trailing blanks and padded with blanks again, so a
// column keeps its width in both encodings.
#include <cstdlib>
#include <cstring>

#include "directapi/sp.h"
#include "hs/hs.h"
#include "sda/darc.h"

namespace vrta {

namespace {

long trimmed(const char* p, long len) {
    while (len > 0 && (p[len - 1] == ' ' || p[len - 1] == '\0')) --len;
    return len;
}

// One direction: each row, each column to transcode, through pipe.
rctype transrows(SP_FID* s, NLS_PIPE* pipe, bool input, char* obsbuf, long numobs, long* numtrans) {
    *numtrans = 0;
    int32_t obslen = s->dafid->xoehdr->ioreclen;
    const DA_NAMESTR* vars = s->dafid->vars;
    unsigned& ntrunc = input ? s->nitptrunc : s->notptrunc;
    unsigned& nmap = input ? s->nitpmap : s->notpmap;
    for (long r = 0; r < numobs; ++r) {
        char* row = obsbuf + r * obslen;
        for (int k = 0; k < s->ntrans; ++k) {
            const DA_NAMESTR& v = vars[s->tpnvar0[k] - 1];
            char* val = row + v.npos;
            long len = trimmed(val, v.nlng);
            long wrote = 0;
            rctype rc = len > 0 ? hsnlstpconv(pipe, val, len, s->tpbuf, v.nlng, &wrote) : 0;
            if (rc == NLS_RC_TRANSCODE) {
                // Tell a value too long for the column from one that has no
                // form in the target: only the latter fails with room to spare.
                long room = hsnlstplongest(pipe, len);
                char* big = static_cast<char*>(malloc(room > 0 ? room : 1));
                long w2 = 0;
                bool fits = big && hsnlstpconv(pipe, val, len, big, room, &w2) == 0;
                free(big);
                if (fits) ++ntrunc;
                else ++nmap;
                hsprint("NVLOC_ERROR(line %d): Member=%.*s Var=%.*s NVSTAT=0x%x\n", __LINE__, s->dsname.len,
                        s->dsname.name, v.name_l, v.name ? v.name : "", static_cast<unsigned>(rc));
                return SP_TRANSCODE;
            }
            if (rc < 0) {
                if (input)
                    hsprint("NVLOC_ERROR(lind %d): Unexpected TP failure: Member=%.*s Var=%.*s NVSTAT=0x%x\n",
                            __LINE__, s->dsname.len, s->dsname.name, v.name_l, v.name ? v.name : "",
                            static_cast<unsigned>(rc));
                else
                    hsprint("NVLOC_ERROR(line %d): Unexpected TP failure: Member=%.*s Var=%.*s NVSTAT=0x%x\n",
                            __LINE__, s->dsname.len, s->dsname.name, v.name_l, v.name ? v.name : "",
                            static_cast<unsigned>(rc));
                return SP_TRANSCODE;
            }
            if (len > 0) {
                memcpy(val, s->tpbuf, wrote);
                memset(val + wrote, ' ', v.nlng - wrote);
            }
        }
        *numtrans = r + 1;
    }
    return 0;
}

}  // namespace

rctype spnlsinit(SP_FID* s) {
    DA_FID* fp = s->dafid;
    const DA_XOEODS& x = *fp->xoehdr;
    if (!s->tblenv) {
        int ll = 32;
        while (ll > 0 && (x.locale[ll - 1] == ' ' || x.locale[ll - 1] == '\0')) --ll;
        rctype rc = hsnlsgetenv(x.encoding_cei, x.locale, ll, 0, &s->tblenv);
        if (rc < 0) return rc;
    }
    s->datacei = x.encoding_cei;
    s->clientcei = s->clenv ? s->clenv->encoding : x.encoding_cei;
    if (!s->clenv || !hsnlstpneeded(s->clenv, s->tblenv)) return 0;
    int n = 0;
    long widest = 1;
    for (int i = 0; i < fp->numvar; ++i)
        if (fp->vars[i].type == 2 && !(fp->vars[i].flags & DA_NAMFIXFORM)) ++n;
    if (n == 0) return 0;
    s->tpnvar0 = static_cast<int32_t*>(malloc(sizeof(int32_t) * n));
    if (!s->tpnvar0) {
        hsprint("spnlsinit: malloc failed: Member=%.*s\n", s->dsname.len, s->dsname.name);
        return SP_NOMEM;
    }
    for (int i = 0; i < fp->numvar; ++i)
        if (fp->vars[i].type == 2 && !(fp->vars[i].flags & DA_NAMFIXFORM)) {
            s->tpnvar0[s->ntrans++] = i + 1;
            if (fp->vars[i].nlng > widest) widest = fp->vars[i].nlng;
        }
    s->tpbuf = static_cast<char*>(malloc(widest));
    if (!s->tpbuf) {
        hsprint("spnlsinit: malloc failed: Member=%.*s\n", s->dsname.len, s->dsname.name);
        return SP_NOMEM;
    }
    s->tpbuflen = widest;
    rctype rc = hsnlstpopen(s->datacei, s->clientcei, &s->itph);
    if (rc == 0 && s->opnmode != DA_OMINPUT) rc = hsnlstpopen(s->clientcei, s->datacei, &s->otph);
    if (rc < 0) {
        hsprint("spnlsinit: TPCreate failed: Member=%.*s\n", s->dsname.len, s->dsname.name);
        return rc;
    }
    if (s->itph) s->tpflags |= SP_TPIN;
    if (s->otph) s->tpflags |= SP_TPOUT;
    return 0;
}

rctype spnlsterm(SP_FID* s) {
    if (s->itph) hsnlstpclose(s->itph);
    if (s->otph) hsnlstpclose(s->otph);
    s->itph = s->otph = nullptr;
    free(s->tpnvar0);
    s->tpnvar0 = nullptr;
    s->ntrans = 0;
    s->tpflags &= ~(SP_TPIN | SP_TPOUT);
    unsigned trunc = s->nitptrunc + s->notptrunc, map = s->nitpmap + s->notpmap;
    if (trunc || map)
        hsprint("NVLOC_ERROR(line %d): TRUNCWARN lost input data: Member=%.*s TRUNC=%u times MAP=%u times\n",
                __LINE__, s->dsname.len, s->dsname.name, trunc, map);
    s->nitptrunc = s->notptrunc = s->nitpmap = s->notpmap = 0;
    return 0;
}

rctype spitptrans(SP_FID* s, char* obsbuf, long numobs, long* numtrans) {
    return transrows(s, s->itph, true, obsbuf, numobs, numtrans);
}

rctype spotptrans(SP_FID* s, char* obsbuf, long numobs, long* numtrans) {
    return transrows(s, s->otph, false, obsbuf, numobs, numtrans);
}

}  // namespace vrta

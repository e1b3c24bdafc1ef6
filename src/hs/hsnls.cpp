// Environments of the national language layer: the shared, reference-counted
// chain, and the four families (8-bit, single byte with tables, UTF-8, multi-byte).
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <new>
#include <vector>

#include "hs/hs.h"
#include "hs/hsgcb.h"
#include "hs/hsnls.h"
#include "option/op.h"

namespace vrta {

int nlsSmToWide(void* smh, const char* s, int len, wchar_t* out, int cap);
int nlsSmFromWide(void* smh, const wchar_t* w, int n, char* out, int cap);
wint_t nlsSmUpper(void* smh, wint_t c);
wint_t nlsSmLower(void* smh, wint_t c);

struct HS_NLSENVP {
    HS_NLSENVP* list;
    HS_NLSGCB* nlsgcb;
    void (*destroy)(HS_NLSENVP* envp);
    int refcount;
    int pflags;
    char* plocale;
    mutex_t lock;  // guards nlssm
    HS_NLSENV pub;
};

struct HS_NLSENVSBCS {
    HS_NLSENVP head;
    unsigned char lctab[256];
    unsigned char uctab[256];
    unsigned char sorttab[256];
};

using HS_NLSENVI = rctype (*)(HS_NLSGCB* nlsgcb, hs_nlscei_t encoding, const char* locale, int locale_l,
                              HS_NLSENVP** envp);

static HS_NLSENVP* privOf(const HS_NLSENV* env) {
    return reinterpret_cast<HS_NLSENVP*>(reinterpret_cast<char*>(const_cast<HS_NLSENV*>(env)) -
                                         offsetof(HS_NLSENVP, pub));
}

HS_NLSGCB* hsnlsgcb() { return HSGCB ? static_cast<HS_NLSGCB*>(HSGCB->nlsgcb) : nullptr; }

// Length without trailing blanks.
static int stripLen(const char* s, int len) {
    while (len > 0 && (s[len - 1] == ' ' || s[len - 1] == '\0')) --len;
    return len;
}

// ---- shared pieces of the byte families --------------------------------------

static int u_8bit_missing(HS_NLSENV*, const char* buf, int len) {
    for (int i = 0; i < len; ++i)
        if (buf[i] != ' ') return 0;
    return 1;
}

static void u_8bit_blankfill(HS_NLSENV*, char* buf, int len) { std::memset(buf, ' ', static_cast<size_t>(len)); }

static void u_8bit_fill(HS_NLSENV*, char* buf, int len, int which) {
    std::memset(buf, which == 1 ? 0x00 : 0xff, static_cast<size_t>(len));
}

// Byte-order comparison of a and b, the shorter one padded with blanks.
static int padcmp(const unsigned char* a, int al, const unsigned char* b, int bl, const unsigned char* order) {
    int n = al < bl ? al : bl;
    for (int i = 0; i < n; ++i) {
        int x = order ? order[a[i]] : a[i];
        int y = order ? order[b[i]] : b[i];
        if (x != y) return x - y;
    }
    int blank = order ? order[' '] : ' ';
    for (int i = n; i < al; ++i) {
        int x = order ? order[a[i]] : a[i];
        if (x != blank) return x - blank;
    }
    for (int i = n; i < bl; ++i) {
        int y = order ? order[b[i]] : b[i];
        if (y != blank) return blank - y;
    }
    return 0;
}

static int u_8bit_strcom(HS_NLSENV*, const char* a, int al, const char* b, int bl) {
    return padcmp(reinterpret_cast<const unsigned char*>(a), al, reinterpret_cast<const unsigned char*>(b), bl, nullptr);
}

static int u_8bit_streq(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    return u_8bit_strcom(env, a, al, b, bl) == 0;
}

static rctype nlsGetsm(HS_NLSENV* env, void** smhp) {
    HS_NLSENVP* p = privOf(env);
    MutexGuard g(&p->lock);
    if (!env->nlssm) {
        const NLS_LIBOPS* lib = p->nlsgcb->nlsh;
        void* sm = nullptr;
        rctype rc = lib->smcreate(env->encoding, env->locale, env->locale_l, &sm);
        if (rc) {
            hsprint("nls_getsm(%d): nvlocSMCreate failed: nvstat=0x%x\n", env->encoding, static_cast<unsigned>(rc));
            return NLS_RC_SMFAIL;
        }
        env->nlssm = sm;
    }
    *smhp = env->nlssm;
    return 0;
}

static rctype nlsRelease(HS_NLSENV* env) {
    HS_NLSENVP* p = privOf(env);
    HS_NLSGCB* g = p->nlsgcb;
    mutex_lock(&g->lock);
    if (--p->refcount > 0) {
        mutex_unlock(&g->lock);
        return 0;
    }
    for (HS_NLSENVP** pp = &g->nlsenvs; *pp; pp = &(*pp)->list) {
        if (*pp == p) {
            *pp = p->list;
            break;
        }
    }
    --g->numenv;
    mutex_unlock(&g->lock);
    if (env->nlssm) g->nlsh->smdestroy(env->nlssm);
    mutex_destroy(&p->lock);
    p->destroy(p);
    return 0;
}

static void fillCommon(HS_NLSENVP* p, HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l) {
    p->nlsgcb = g;
    p->refcount = 1;
    mutex_init(&p->lock);
    HS_NLSENV& e = p->pub;
    int n = locale_l < 0 ? 0 : (locale_l > 32 ? 32 : locale_l);
    std::memset(e.locale, 0, sizeof e.locale);
    if (n) std::memcpy(e.locale, locale, static_cast<size_t>(n));
    e.locale_l = n;
    e.encoding = encoding;
    // hsnlslkup found this encoding before an environment is built for it.
    rcignore(g->nlsh->findenc(encoding, nullptr, &e.minbyteschar, &e.maxbyteschar));
    e.nls_release = nlsRelease;
    e.nls_getsm = nlsGetsm;
    e.nls_missing = u_8bit_missing;
    e.nls_blankfill = u_8bit_blankfill;
    e.nls_fillstr = u_8bit_fill;
}

// ---- u_8bit_: ASCII-like single byte, no tables --------------------------------

static int asciiLower(int c) { return (c >= 'A' && c <= 'Z') ? c + 32 : c; }
static int asciiUpper(int c) { return (c >= 'a' && c <= 'z') ? c - 32 : c; }

static int u_8bit_casecmp(HS_NLSENV*, const char* a, int al, const char* b, int bl) {
    al = stripLen(a, al);
    bl = stripLen(b, bl);
    int n = al < bl ? al : bl;
    for (int i = 0; i < n; ++i) {
        int x = asciiLower(static_cast<unsigned char>(a[i])), y = asciiLower(static_cast<unsigned char>(b[i]));
        if (x != y) return x - y;
    }
    return al - bl;
}

static int u_8bit_upcase(HS_NLSENV*, char* dst, const char* src, int len) {
    for (int i = 0; i < len; ++i) dst[i] = static_cast<char>(asciiUpper(static_cast<unsigned char>(src[i])));
    return len;
}

static int u_8bit_lowcase(HS_NLSENV*, char* dst, const char* src, int len) {
    for (int i = 0; i < len; ++i) dst[i] = static_cast<char>(asciiLower(static_cast<unsigned char>(src[i])));
    return len;
}

static rctype hsnlsi_u_ascii(HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l, HS_NLSENVP** envp) {
    auto* p = new (std::nothrow) HS_NLSENVP{};
    if (!p) return NLS_RC_NOMEM;
    fillCommon(p, g, encoding, locale, locale_l);
    p->destroy = [](HS_NLSENVP* q) { delete q; };
    HS_NLSENV& e = p->pub;
    e.nls_casecmp = u_8bit_casecmp;
    e.nls_upcase = u_8bit_upcase;
    e.nls_lowcase = u_8bit_lowcase;
    e.nls_strcoll = u_8bit_strcom;
    e.nls_streq = u_8bit_streq;
    e.nls_strcom = u_8bit_strcom;
    *envp = p;
    return 0;
}

// ---- u_sbcs_: single byte with case and sort tables ----------------------------

static HS_NLSENVSBCS* sbcsOf(HS_NLSENV* env) { return reinterpret_cast<HS_NLSENVSBCS*>(privOf(env)); }

static int u_sbcs_strcoll(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    return padcmp(reinterpret_cast<const unsigned char*>(a), al, reinterpret_cast<const unsigned char*>(b), bl,
                  sbcsOf(env)->sorttab);
}

static int u_sbcs_casecmp(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    const unsigned char* lc = sbcsOf(env)->lctab;
    al = stripLen(a, al);
    bl = stripLen(b, bl);
    int n = al < bl ? al : bl;
    for (int i = 0; i < n; ++i) {
        int x = lc[static_cast<unsigned char>(a[i])], y = lc[static_cast<unsigned char>(b[i])];
        if (x != y) return x - y;
    }
    return al - bl;
}

static int u_sbcs_upcase(HS_NLSENV* env, char* dst, const char* src, int len) {
    const unsigned char* uc = sbcsOf(env)->uctab;
    for (int i = 0; i < len; ++i) dst[i] = static_cast<char>(uc[static_cast<unsigned char>(src[i])]);
    return len;
}

static int u_sbcs_lowcase(HS_NLSENV* env, char* dst, const char* src, int len) {
    const unsigned char* lc = sbcsOf(env)->lctab;
    for (int i = 0; i < len; ++i) dst[i] = static_cast<char>(lc[static_cast<unsigned char>(src[i])]);
    return len;
}

static int u_sbcs_streq(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    return u_8bit_strcom(env, a, al, b, bl) == 0;
}

// Lowest and highest by the sort table, not by byte value.
static void u_sbcs_fillstr(HS_NLSENV* env, char* buf, int len, int which) {
    const unsigned char* st = sbcsOf(env)->sorttab;
    int best = 0;
    for (int c = 1; c < 256; ++c)
        if (which == 1 ? st[c] < st[best] : st[c] > st[best]) best = c;
    std::memset(buf, best, static_cast<size_t>(len));
}

static rctype hsnlsi_u_sbcs(HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l, HS_NLSENVP** envp) {
    auto* s = new (std::nothrow) HS_NLSENVSBCS{};
    if (!s) return NLS_RC_NOMEM;
    rctype rc = hsnlsldlcuc(g, encoding, locale, locale_l, s->lctab, s->uctab);
    if (rc == 0) rc = hsnlsldsortseq(g, encoding, locale, locale_l, s->sorttab);
    if (rc) {
        delete s;
        return rc;
    }
    HS_NLSENVP* p = &s->head;
    fillCommon(p, g, encoding, locale, locale_l);
    p->destroy = [](HS_NLSENVP* q) { delete reinterpret_cast<HS_NLSENVSBCS*>(q); };
    HS_NLSENV& e = p->pub;
    e.nls_casecmp = u_sbcs_casecmp;
    e.nls_upcase = u_sbcs_upcase;
    e.nls_lowcase = u_sbcs_lowcase;
    e.nls_strcoll = u_sbcs_strcoll;
    e.nls_streq = u_sbcs_streq;
    e.nls_strcom = u_sbcs_strcoll;
    e.nls_fillstr = u_sbcs_fillstr;
    *envp = p;
    return 0;
}

// ---- u_utf8_ and mbcs: through the string manager -------------------------------

static std::vector<wchar_t> toWide(HS_NLSENV* env, const char* s, int len) {
    void* sm = nullptr;
    std::vector<wchar_t> w;
    if (env->nls_getsm(env, &sm)) return w;
    w.resize(static_cast<size_t>(len) + 1);
    int n = nlsSmToWide(sm, s, len, w.data(), len + 1);
    w.resize(static_cast<size_t>(n));
    return w;
}

static int wideCasecmp(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    void* sm = nullptr;
    if (env->nls_getsm(env, &sm)) return u_8bit_casecmp(env, a, al, b, bl);
    auto wa = toWide(env, a, stripLen(a, al));
    auto wb = toWide(env, b, stripLen(b, bl));
    size_t n = wa.size() < wb.size() ? wa.size() : wb.size();
    for (size_t i = 0; i < n; ++i) {
        wint_t x = nlsSmLower(sm, static_cast<wint_t>(wa[i])), y = nlsSmLower(sm, static_cast<wint_t>(wb[i]));
        if (x != y) return x < y ? -1 : 1;
    }
    return wa.size() == wb.size() ? 0 : (wa.size() < wb.size() ? -1 : 1);
}

// Case mapping can change a character's byte length; the result is cut to len
// bytes (never in the middle of a character) and padded with blanks.
static int wideMapcase(HS_NLSENV* env, char* dst, const char* src, int len, bool upper) {
    void* sm = nullptr;
    if (env->nls_getsm(env, &sm)) return upper ? u_8bit_upcase(env, dst, src, len) : u_8bit_lowcase(env, dst, src, len);
    auto w = toWide(env, src, len);
    for (auto& c : w) c = static_cast<wchar_t>(upper ? nlsSmUpper(sm, static_cast<wint_t>(c)) : nlsSmLower(sm, static_cast<wint_t>(c)));
    std::vector<char> out(static_cast<size_t>(len) * 4 + 8);
    int n = nlsSmFromWide(sm, w.data(), static_cast<int>(w.size()), out.data(), static_cast<int>(out.size()));
    if (n > len) {
        // Cut back to a whole character boundary.
        n = 0;
        for (size_t i = 0; i < w.size(); ++i) {
            char tmp[16];
            int k = nlsSmFromWide(sm, &w[i], 1, tmp, sizeof tmp);
            if (n + k > len) break;
            n += k;
        }
    }
    std::memcpy(dst, out.data(), static_cast<size_t>(n));
    if (n < len) std::memset(dst + n, ' ', static_cast<size_t>(len - n));
    return len;
}

static int wideUpcase(HS_NLSENV* env, char* dst, const char* src, int len) { return wideMapcase(env, dst, src, len, true); }
static int wideLowcase(HS_NLSENV* env, char* dst, const char* src, int len) { return wideMapcase(env, dst, src, len, false); }

// Multi-byte encodings do not sort by byte: compare code points.
static int mbcsStrcom(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    auto wa = toWide(env, a, stripLen(a, al));
    auto wb = toWide(env, b, stripLen(b, bl));
    size_t n = wa.size() < wb.size() ? wa.size() : wb.size();
    for (size_t i = 0; i < n; ++i)
        if (wa[i] != wb[i]) return wa[i] < wb[i] ? -1 : 1;
    return wa.size() == wb.size() ? 0 : (wa.size() < wb.size() ? -1 : 1);
}

static int mbcsStreq(HS_NLSENV* env, const char* a, int al, const char* b, int bl) {
    return mbcsStrcom(env, a, al, b, bl) == 0;
}

static rctype makeWideEnv(HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l, HS_NLSENVP** envp,
                          bool utf8) {
    auto* p = new (std::nothrow) HS_NLSENVP{};
    if (!p) return NLS_RC_NOMEM;
    fillCommon(p, g, encoding, locale, locale_l);
    p->destroy = [](HS_NLSENVP* q) { delete q; };
    HS_NLSENV& e = p->pub;
    e.nls_casecmp = wideCasecmp;
    e.nls_upcase = wideUpcase;
    e.nls_lowcase = wideLowcase;
    // UTF-8 sorts by code point when compared byte by byte.
    e.nls_strcoll = utf8 ? u_8bit_strcom : mbcsStrcom;
    e.nls_streq = utf8 ? u_8bit_streq : mbcsStreq;
    e.nls_strcom = utf8 ? u_8bit_strcom : mbcsStrcom;
    *envp = p;
    return 0;
}

static rctype hsnlsi_u_utf8(HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l, HS_NLSENVP** envp) {
    return makeWideEnv(g, encoding, locale, locale_l, envp, true);
}

static rctype hsnlsi_u_mbcs(HS_NLSGCB* g, hs_nlscei_t encoding, const char* locale, int locale_l, HS_NLSENVP** envp) {
    return makeWideEnv(g, encoding, locale, locale_l, envp, false);
}

// ---- the block and the chain ------------------------------------------------------

rctype hsnlsinit() {
    if (!HSGCB) return NLS_RC_NOLIB;
    if (HSGCB->nlsgcb) return 0;
    auto* g = static_cast<HS_NLSGCB*>(std::calloc(1, sizeof(HS_NLSGCB)));
    if (!g) return NLS_RC_NOMEM;
    mutex_init(&g->lock);
    HSGCB->nlsgcb = g;
    void* vec[3] = {HSGCB, nullptr, opgtgbl()};
    rctype rc = VRTANLSLIB(3, vec, &g->nlsh);
    if (rc) {
        hsprint("hsnlsinit: VRTANLSLIB initialization failed: Reason=%s\n", hsstrer(rc));
        rcignore(hsnlsterm());  // frees what was made; rc is the failure
        return rc;
    }
    // The stand-by transcoder for the ASCII range: a UTF-8 to ASCII pipeline.
    rc = g->nlsh->openpipe(NLS_CEI_UTF8, NLS_CEI_ASCII, &g->ascii_nvchar);
    if (rc || !g->ascii_nvchar) {
        hsprint("NLSASSERT failed: %s line=%d\n", "hs/src/hsnls", __LINE__);
        rcignore(hsnlsterm());
        return NLS_RC_ASSERT;
    }
    return 0;
}

rctype hsnlsterm() {
    if (!HSGCB || !HSGCB->nlsgcb) return 0;
    auto* g = static_cast<HS_NLSGCB*>(HSGCB->nlsgcb);
    // Environments still referenced are freed with the block.
    while (g->nlsenvs) {
        HS_NLSENVP* p = g->nlsenvs;
        g->nlsenvs = p->list;
        if (p->pub.nlssm) g->nlsh->smdestroy(p->pub.nlssm);
        mutex_destroy(&p->lock);
        p->destroy(p);
    }
    if (g->nlsh && g->ascii_nvchar) g->nlsh->closepipe(g->ascii_nvchar);
    mutex_destroy(&g->lock);
    std::free(g);
    HSGCB->nlsgcb = nullptr;
    return 0;
}

static rctype hsnlslkup(HS_NLSGCB* g, hs_nlscei_t encoding, HS_NLSENVI* envi) {
    int cls = 0;
    rctype rc = g->nlsh->findenc(encoding, &cls, nullptr, nullptr);
    if (rc) return rc;
    switch (cls) {
        case NLS_CLASS_8BIT: *envi = hsnlsi_u_ascii; break;
        case NLS_CLASS_SBCS: *envi = hsnlsi_u_sbcs; break;
        case NLS_CLASS_UTF8: *envi = hsnlsi_u_utf8; break;
        default: *envi = hsnlsi_u_mbcs; break;
    }
    return 0;
}

rctype hsnlsgetenv(hs_nlscei_t encoding, const char* locale, int locale_l, int flags, HS_NLSENV** env) {
    (void)flags;
    *env = nullptr;
    if (!hsnlsgcb()) {
        if (rctype rc = hsgblinit()) return rc;
        if (!hsnlsgcb())
            if (rctype rc = hsnlsinit()) return rc;
    }
    HS_NLSGCB* g = hsnlsgcb();
    if (!locale) locale_l = 0;
    else if (locale_l < 0) locale_l = stripLen(locale, static_cast<int>(std::strlen(locale)));
    else locale_l = stripLen(locale, locale_l);
    if (rctype rc = hsnlsverloc(locale, locale_l)) return rc;
    MutexGuard guard(&g->lock);
    for (HS_NLSENVP* p = g->nlsenvs; p; p = p->list) {
        if (p->pub.encoding == encoding && p->pub.locale_l == locale_l &&
            (locale_l == 0 || std::memcmp(p->pub.locale, locale, static_cast<size_t>(locale_l)) == 0)) {
            ++p->refcount;
            *env = &p->pub;
            return 0;
        }
    }
    HS_NLSENVI init = nullptr;
    if (rctype rc = hsnlslkup(g, encoding, &init)) return rc;
    HS_NLSENVP* p = nullptr;
    if (rctype rc = init(g, encoding, locale, locale_l, &p)) return rc;
    p->list = g->nlsenvs;
    g->nlsenvs = p;
    ++g->numenv;
    *env = &p->pub;
    return 0;
}

int hsnlsrefcount(const HS_NLSENV* env) { return env ? privOf(env)->refcount : 0; }

bool hsnlsissame(const HS_NLSENV* a, const HS_NLSENV* b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->encoding == b->encoding && a->locale_l == b->locale_l &&
           std::memcmp(a->locale, b->locale, static_cast<size_t>(a->locale_l)) == 0;
}

int hsnlsorder(const HS_NLSENV* targ, const HS_NLSENV* src) {
    if (hsnlsissame(targ, src)) return 0;
    if (!targ || !src) return targ ? 1 : -1;
    return targ->encoding < src->encoding ? -1 : 1;
}

const NLS_LIBOPS* hsnlshandle() {
    HS_NLSGCB* g = hsnlsgcb();
    return g ? g->nlsh : nullptr;
}

bool hsnlsenabled() { return opbingt(opgtgbl(), "NLSTRANSCODE") == 1; }

bool hsnlstpneeded(const HS_NLSENV* targenv, const HS_NLSENV* srcenv) {
    return targenv && srcenv && targenv->encoding != srcenv->encoding && hsnlsenabled();
}

rctype hsnlsvercei(hs_nlscei_t encoding) { return hsnlscharset(encoding) ? 0 : NLS_RC_BADCEI; }

// A locale name is letters, digits, '_', '-', '.' and '@', 32 bytes at most.
rctype hsnlsverloc(const char* locale, int locale_l) {
    if (locale_l < 0 || locale_l > 32) return NLS_RC_BADLOCALE;
    for (int i = 0; i < locale_l; ++i) {
        char c = locale[i];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                  c == '-' || c == '.' || c == '@';
        if (!ok) return NLS_RC_BADLOCALE;
    }
    return 0;
}

// ---- transcoders for the read and write paths ---------------------------------------

rctype hsnlstpopen(hs_nlscei_t src, hs_nlscei_t tgt, NLS_PIPE** pipe) {
    *pipe = nullptr;
    if (!hsnlsgcb()) {
        if (rctype rc = hsgblinit()) return rc;
        if (!hsnlsgcb())
            if (rctype rc = hsnlsinit()) return rc;
    }
    return hsnlsgcb()->nlsh->openpipe(src, tgt, pipe);
}

rctype hsnlstpconv(NLS_PIPE* pipe, const char* src, long srclen, char* dst, long dstcap, long* written) {
    const NLS_LIBOPS* lib = hsnlshandle();
    if (!lib) return NLS_RC_NOLIB;
    return lib->transcode(pipe, src, srclen, dst, dstcap, written);
}

long hsnlstplongest(NLS_PIPE* pipe, long inlen) {
    const NLS_LIBOPS* lib = hsnlshandle();
    return lib ? lib->longest(pipe, inlen) : inlen;
}

void hsnlstpclose(NLS_PIPE* pipe) {
    const NLS_LIBOPS* lib = hsnlshandle();
    if (lib && pipe) lib->closepipe(pipe);
}

}  // namespace vrta

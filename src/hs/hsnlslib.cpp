// The locale library behind the national language layer: encoding classes,
// transcoding pipelines and string managers, built on glibc's iconv.
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <iconv.h>
#include <locale.h>
#include <new>

#include "hs/hsnls.h"

namespace vrta {

namespace {

struct CeiRow {
    hs_nlscei_t cei;
    const char* charset;
    int nlsclass;
    int minbytes, maxbytes;
};

// Encoding numbers are part of stored tables and of the wire: never renumber.
constexpr CeiRow kCeiTable[] = {
    {NLS_CEI_UTF8, "UTF-8", NLS_CLASS_UTF8, 1, 4},
    {NLS_CEI_ASCII, "ASCII", NLS_CLASS_8BIT, 1, 1},
    {NLS_CEI_LATIN1, "ISO-8859-1", NLS_CLASS_SBCS, 1, 1},
    {30, "ISO-8859-15", NLS_CLASS_SBCS, 1, 1},
    {31, "WINDOWS-1252", NLS_CLASS_SBCS, 1, 1},
    {32, "ISO-8859-2", NLS_CLASS_SBCS, 1, 1},
    {33, "WINDOWS-1250", NLS_CLASS_SBCS, 1, 1},
    {34, "ISO-8859-5", NLS_CLASS_SBCS, 1, 1},
    {35, "WINDOWS-1251", NLS_CLASS_SBCS, 1, 1},
    {36, "KOI8-R", NLS_CLASS_SBCS, 1, 1},
    {37, "ISO-8859-7", NLS_CLASS_SBCS, 1, 1},
    {38, "ISO-8859-9", NLS_CLASS_SBCS, 1, 1},
    {40, "SHIFT_JIS", NLS_CLASS_MBCS, 1, 2},
    {41, "EUC-JP", NLS_CLASS_MBCS, 1, 3},
    {42, "GB18030", NLS_CLASS_MBCS, 1, 4},
    {43, "BIG5", NLS_CLASS_MBCS, 1, 2},
    {44, "EUC-KR", NLS_CLASS_MBCS, 1, 2},
    {45, "GBK", NLS_CLASS_MBCS, 1, 2},
};

const CeiRow* findRow(hs_nlscei_t cei) {
    for (const auto& r : kCeiTable)
        if (r.cei == cei) return &r;
    return nullptr;
}

}  // namespace

struct NLS_PIPE {
    iconv_t cd;
    mutex_t lock;  // an iconv descriptor keeps shift state: one user at a time
    int maxout;    // worst output bytes per input byte
};

const char* hsnlscharset(hs_nlscei_t encoding) {
    const CeiRow* r = findRow(encoding);
    return r ? r->charset : nullptr;
}

static rctype libFindenc(hs_nlscei_t cei, int* nlsclass, int* minbytes, int* maxbytes) {
    const CeiRow* r = findRow(cei);
    if (!r) return NLS_RC_BADCEI;
    if (nlsclass) *nlsclass = r->nlsclass;
    if (minbytes) *minbytes = r->minbytes;
    if (maxbytes) *maxbytes = r->maxbytes;
    return 0;
}

static rctype libOpenpipe(hs_nlscei_t src, hs_nlscei_t tgt, NLS_PIPE** pipe) {
    *pipe = nullptr;
    const CeiRow* s = findRow(src);
    const CeiRow* t = findRow(tgt);
    if (!s || !t) return NLS_RC_BADCEI;
    if (src == tgt) return 0;
    iconv_t cd = iconv_open(t->charset, s->charset);
    if (cd == reinterpret_cast<iconv_t>(-1)) return NLS_RC_BADCEI;
    auto* p = new (std::nothrow) NLS_PIPE;
    if (!p) {
        iconv_close(cd);
        return NLS_RC_NOMEM;
    }
    p->cd = cd;
    mutex_init(&p->lock);
    // One source byte can become at most a whole target character.
    p->maxout = t->maxbytes;
    *pipe = p;
    return 0;
}

static rctype libTranscode(NLS_PIPE* pipe, const char* src, long srclen, char* dst, long dstcap, long* written) {
    if (!pipe) {
        long n = srclen < dstcap ? srclen : dstcap;
        std::memcpy(dst, src, static_cast<size_t>(n));
        *written = n;
        return n < srclen ? NLS_RC_TRANSCODE : 0;
    }
    MutexGuard g(&pipe->lock);
    iconv(pipe->cd, nullptr, nullptr, nullptr, nullptr);
    char* in = const_cast<char*>(src);
    size_t inleft = static_cast<size_t>(srclen);
    char* out = dst;
    size_t outleft = static_cast<size_t>(dstcap);
    size_t rc = iconv(pipe->cd, &in, &inleft, &out, &outleft);
    rctype result = 0;
    if (rc == static_cast<size_t>(-1)) result = NLS_RC_TRANSCODE;
    else if (iconv(pipe->cd, nullptr, nullptr, &out, &outleft) == static_cast<size_t>(-1)) result = NLS_RC_TRANSCODE;
    // Characters the target cannot hold (counted by iconv as irreversible) are a loss too.
    else if (rc > 0) result = NLS_RC_TRANSCODE;
    *written = out - dst;
    return result;
}

static long libLongest(NLS_PIPE* pipe, long inlen) { return pipe ? inlen * pipe->maxout : inlen; }

static void libClosepipe(NLS_PIPE* pipe) {
    if (!pipe) return;
    iconv_close(pipe->cd);
    mutex_destroy(&pipe->lock);
    delete pipe;
}

// A string manager works on wide characters: it converts both ways and
// carries a locale for case mapping of the whole Unicode range.
struct NLS_SM {
    NLS_PIPE* toW;
    NLS_PIPE* fromW;
    locale_t loc;
};

static rctype libSmcreate(hs_nlscei_t cei, const char*, int, void** smh) {
    const CeiRow* r = findRow(cei);
    if (!r) return NLS_RC_BADCEI;
    auto* sm = new (std::nothrow) NLS_SM{};
    if (!sm) return NLS_RC_NOMEM;
    iconv_t a = iconv_open("WCHAR_T", r->charset);
    iconv_t b = iconv_open(r->charset, "WCHAR_T");
    locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (a == reinterpret_cast<iconv_t>(-1) || b == reinterpret_cast<iconv_t>(-1) || !loc) {
        if (a != reinterpret_cast<iconv_t>(-1)) iconv_close(a);
        if (b != reinterpret_cast<iconv_t>(-1)) iconv_close(b);
        if (loc) freelocale(loc);
        delete sm;
        return NLS_RC_SMFAIL;
    }
    sm->toW = new NLS_PIPE{a, {}, 4};
    sm->fromW = new NLS_PIPE{b, {}, r->maxbytes};
    mutex_init(&sm->toW->lock);
    mutex_init(&sm->fromW->lock);
    sm->loc = loc;
    *smh = sm;
    return 0;
}

static void libSmdestroy(void* smh) {
    auto* sm = static_cast<NLS_SM*>(smh);
    if (!sm) return;
    libClosepipe(sm->toW);
    libClosepipe(sm->fromW);
    freelocale(sm->loc);
    delete sm;
}

static const NLS_LIBOPS kLibOps = {libFindenc, libOpenpipe, libTranscode, libLongest,
                                   libSmcreate, libClosepipe, libSmdestroy};

rctype VRTANLSLIB(int count, void** vec, const NLS_LIBOPS** nlsh) {
    (void)vec;
    if (count != 3 || !nlsh) return NLS_RC_NOLIB;
    *nlsh = &kLibOps;
    return 0;
}

// String manager helpers used by the multi-byte and UTF-8 families.
int nlsSmToWide(void* smh, const char* s, int len, wchar_t* out, int cap) {
    auto* sm = static_cast<NLS_SM*>(smh);
    long written = 0;
    libTranscode(sm->toW, s, len, reinterpret_cast<char*>(out), static_cast<long>(cap) * sizeof(wchar_t), &written);
    return static_cast<int>(written / static_cast<long>(sizeof(wchar_t)));
}

int nlsSmFromWide(void* smh, const wchar_t* w, int n, char* out, int cap) {
    auto* sm = static_cast<NLS_SM*>(smh);
    long written = 0;
    libTranscode(sm->fromW, reinterpret_cast<const char*>(w), static_cast<long>(n) * sizeof(wchar_t), out, cap, &written);
    return static_cast<int>(written);
}

wint_t nlsSmUpper(void* smh, wint_t c) { return towupper_l(c, static_cast<NLS_SM*>(smh)->loc); }
wint_t nlsSmLower(void* smh, wint_t c) { return towlower_l(c, static_cast<NLS_SM*>(smh)->loc); }

}  // namespace vrta

// National language layer: environments bound to one encoding and one locale,
// through which all locale-aware comparison, case conversion, padding and
// transcoding of character data goes.
#pragma once
#include <cstdint>
#include "ssup/thr.h"
#include "ssup/vrtadef.h"

namespace vrta {

using hs_nlscei_t = int32_t;

// Encoding numbers the module knows (see docs/nls.md for the character sets).
constexpr hs_nlscei_t NLS_CEI_UTF8 = 20;
constexpr hs_nlscei_t NLS_CEI_ASCII = 28;
constexpr hs_nlscei_t NLS_CEI_LATIN1 = 29;

constexpr rctype NLS_RC_NOMEM = static_cast<rctype>(0x80000407u);
constexpr rctype NLS_RC_BADCEI = static_cast<rctype>(0x8000040eu);     // invalid encoding
constexpr rctype NLS_RC_ASSERT = static_cast<rctype>(0x8000040fu);     // ASCII stand-by transcoder missing
constexpr rctype NLS_RC_BADLOCALE = static_cast<rctype>(0x80000410u);  // invalid locale
constexpr rctype NLS_RC_BADTABLES = static_cast<rctype>(0x80000413u);  // case or sort file incomplete
constexpr rctype NLS_RC_BADBYTETAB = static_cast<rctype>(0x80000414u); // bad byte table
constexpr rctype NLS_RC_BADPATH = static_cast<rctype>(0x80000415u);    // invalid VRTA_NLSPATH
constexpr rctype NLS_RC_TRANSCODE = static_cast<rctype>(0x80000417u);  // a value could not be transcoded
constexpr rctype NLS_RC_NOLIB = static_cast<rctype>(0x8000041au);      // locale library missing
constexpr rctype NLS_RC_SMFAIL = static_cast<rctype>(0x8000041fu);     // string manager failed

// Classes of encoding: they pick the family of an environment.
enum NlsClass : int { NLS_CLASS_8BIT = 1, NLS_CLASS_SBCS = 2, NLS_CLASS_UTF8 = 3, NLS_CLASS_MBCS = 4 };

struct HS_NLSENV {
    char locale[32];  // not terminated when 32 long
    int locale_l;
    hs_nlscei_t encoding;
    int minbyteschar, maxbyteschar;
    rctype (*nls_release)(HS_NLSENV* env) __attribute__((warn_unused_result));
    // Comparisons return <0, 0, >0 like memcmp.
    int (*nls_casecmp)(HS_NLSENV* env, const char* a, int al, const char* b, int bl);
    // Case conversion of len bytes from src into dst; returns bytes written.
    int (*nls_upcase)(HS_NLSENV* env, char* dst, const char* src, int len);
    int (*nls_lowcase)(HS_NLSENV* env, char* dst, const char* src, int len);
    int (*nls_strcoll)(HS_NLSENV* env, const char* a, int al, const char* b, int bl);
    // 1 when equal, 0 otherwise.
    int (*nls_streq)(HS_NLSENV* env, const char* a, int al, const char* b, int bl);
    // Fills a buffer with the lowest (which 1) or highest value of the collation.
    void (*nls_fillstr)(HS_NLSENV* env, char* buf, int len, int which);
    // Compares as if the shorter value were padded with blanks.
    int (*nls_strcom)(HS_NLSENV* env, const char* a, int al, const char* b, int bl);
    void (*nls_blankfill)(HS_NLSENV* env, char* buf, int len);
    // 1 when the value is all blank: a missing character value.
    int (*nls_missing)(HS_NLSENV* env, const char* buf, int len);
    rctype (*nls_getsm)(HS_NLSENV* env, void** smhp) __attribute__((warn_unused_result));
    void* nlssm;  // string manager, made on first use
};

// The locale library's operations, in the order of their slots.
struct NLS_PIPE;
struct NLS_LIBOPS {
    rctype (*findenc)(hs_nlscei_t cei, int* nlsclass, int* minbytes, int* maxbytes)
        __attribute__((warn_unused_result));
    // *pipe null with result 0 means no transcoding is needed.
    rctype (*openpipe)(hs_nlscei_t src, hs_nlscei_t tgt, NLS_PIPE** pipe) __attribute__((warn_unused_result));
    // Transcodes srclen bytes into at most dstcap bytes; *written gets the bytes
    // written. A value that does not fit or cannot be represented is NLS_RC_TRANSCODE.
    rctype (*transcode)(NLS_PIPE* pipe, const char* src, long srclen, char* dst, long dstcap, long* written)
        __attribute__((warn_unused_result));
    long (*longest)(NLS_PIPE* pipe, long inlen);
    rctype (*smcreate)(hs_nlscei_t cei, const char* locale, int locale_l, void** smh)
        __attribute__((warn_unused_result));
    void (*closepipe)(NLS_PIPE* pipe);
    void (*smdestroy)(void* smh);
};

struct HS_NLSENVP;
struct HS_NLSGCB {
    void* dlhdl;              // unused: the library is built in
    mutex_t lock;             // guards the chain and reference counts
    int numenv;
    HS_NLSENVP* nlsenvs;
    const NLS_LIBOPS* nlsh;   // the locale library
    int dolingcmp;
    NLS_PIPE* ascii_nvchar;   // stand-by transcoder for the ASCII range
};

// The built-in locale library's entry: count 3, vec = HSGCB, vvgcb, option table.
[[nodiscard]] rctype VRTANLSLIB(int count, void** vec, const NLS_LIBOPS** nlsh);

[[nodiscard]] rctype hsnlsinit();
[[nodiscard]] rctype hsnlsterm();
HS_NLSGCB* hsnlsgcb();

// An environment shared by encoding and locale, reference counted.
// locale_l -1 measures the locale up to its trailing blanks.
[[nodiscard]] rctype hsnlsgetenv(hs_nlscei_t encoding, const char* locale, int locale_l, int flags, HS_NLSENV** env);
[[nodiscard]] inline rctype nls_release(HS_NLSENV* env) { return env ? env->nls_release(env) : 0; }
int hsnlsrefcount(const HS_NLSENV* env);

bool hsnlsissame(const HS_NLSENV* env1, const HS_NLSENV* env2);
int hsnlsorder(const HS_NLSENV* targ, const HS_NLSENV* src);
const NLS_LIBOPS* hsnlshandle();
// Data must be transcoded between two environments: both given, different
// encodings, and transcoding enabled.
bool hsnlstpneeded(const HS_NLSENV* targenv, const HS_NLSENV* srcenv);
[[nodiscard]] rctype hsnlsvercei(hs_nlscei_t encoding);
[[nodiscard]] rctype hsnlsverloc(const char* locale, int locale_l);
// The binary option NLSTRANSCODE; transcoding stays off until it is set.
bool hsnlsenabled();

// Case and sort tables: from a file found through VRTA_NLSPATH, else built in.
[[nodiscard]] rctype hsnlsldlcuc(HS_NLSGCB* nlsgcb, hs_nlscei_t encoding, const char* locale, int locale_l,
                   unsigned char* lctab, unsigned char* uctab);
[[nodiscard]] rctype hsnlsldsortseq(HS_NLSGCB* nlsgcb, hs_nlscei_t encoding, const char* seqnam, int seqnam_l,
                      unsigned char* sorttab);

// The character set an encoding number stands for, or null.
const char* hsnlscharset(hs_nlscei_t encoding);

// A transcoder between two encodings, for the read and write paths.
[[nodiscard]] rctype hsnlstpopen(hs_nlscei_t src, hs_nlscei_t tgt, NLS_PIPE** pipe);
[[nodiscard]] rctype hsnlstpconv(NLS_PIPE* pipe, const char* src, long srclen, char* dst, long dstcap, long* written);
long hsnlstplongest(NLS_PIPE* pipe, long inlen);
void hsnlstpclose(NLS_PIPE* pipe);

}  // namespace vrta
